"""Small meshes for the qygeom tests, and the library's own answers to compare with."""

import os
import subprocess

import numpy as np
import pytest


def grid(n=8, ripple=0.1):
    """A rippled (n+1) x (n+1) grid over the unit square: an open disk."""
    i, j = np.meshgrid(np.arange(n + 1), np.arange(n + 1))
    x, y = i.ravel() / n, j.ravel() / n
    z = ripple * np.sin(3 * x) * np.cos(2 * y)
    vertices = np.column_stack([x, y, z]).astype(np.float32)
    a = (j[:-1, :-1] * (n + 1) + i[:-1, :-1]).ravel()
    b, c, d = a + 1, a + n + 2, a + n + 1
    triangles = np.concatenate([np.column_stack([a, b, c]), np.column_stack([a, c, d])])
    return vertices, triangles.astype(np.int32)


def sphere(slices=24, stacks=12, radius=1.0):
    """A closed UV sphere with single poles, outward winding."""
    verts = [(0.0, 0.0, radius)]
    for s in range(1, stacks):
        theta = np.pi * s / stacks
        for k in range(slices):
            phi = 2 * np.pi * k / slices
            verts.append(
                (
                    radius * np.sin(theta) * np.cos(phi),
                    radius * np.sin(theta) * np.sin(phi),
                    radius * np.cos(theta),
                )
            )
    verts.append((0.0, 0.0, -radius))
    south = len(verts) - 1

    def ring(s, k):
        return 1 + (s - 1) * slices + k % slices

    tris = []
    for k in range(slices):
        tris.append((0, ring(1, k), ring(1, k + 1)))
        tris.append((south, ring(stacks - 1, k + 1), ring(stacks - 1, k)))
    for s in range(1, stacks - 1):
        for k in range(slices):
            a, b = ring(s, k), ring(s, k + 1)
            c, d = ring(s + 1, k + 1), ring(s + 1, k)
            tris.append((a, d, c))
            tris.append((a, c, b))
    return np.array(verts, np.float32), np.array(tris, np.int32)


def soup(vertices, triangles):
    """Every triangle with corners of its own: 3 vertices per triangle."""
    return vertices[triangles].reshape(-1, 3).copy(), np.arange(
        3 * len(triangles), dtype=np.int32
    ).reshape(-1, 3)


@pytest.fixture
def reference(tmp_path):
    """Runs the library's own reference program on a mesh and returns its output lines."""
    program = os.environ.get("QYGEOM_REFERENCE")
    if not program:
        pytest.skip("QYGEOM_REFERENCE (the reference program) is not set")

    def run(command, vertices, triangles, number=None):
        import qygeom

        path = tmp_path / "input.qym"
        qygeom.write(str(path), qygeom.Mesh(vertices, triangles), digits=9)
        args = [program, command, str(path)] + ([] if number is None else [str(number)])
        out = subprocess.run(args, check=True, capture_output=True, text=True).stdout
        return out.splitlines()

    return run


def parse_mesh(lines):
    nv, nt = map(int, lines[0].split())
    v = np.array([list(map(float, l.split())) for l in lines[1 : 1 + nv]], np.float32)
    t = np.array([list(map(int, l.split()))[1:] for l in lines[1 + nv : 1 + nv + nt]], np.int32)
    return v.reshape(-1, 3), t.reshape(-1, 3)


def parse_rows(lines, cols):
    return np.array([list(map(float, l.split())) for l in lines], np.float32).reshape(-1, cols)
