"""Tests of the qygeom module: each function on small meshes, the error cases, cancellation,
and agreement with the library called directly (the reference program)."""

import os
import signal
import threading
import time

import numpy as np
import pytest
import qygeom
from conftest import grid, parse_mesh, parse_rows, soup, sphere


def unchanged_after(fn, *arrays):
    """Runs fn(*arrays) and checks that it left its array arguments as they were."""
    before = [np.array(a, copy=True) for a in arrays]
    result = fn(*arrays)
    for a, b in zip(arrays, before):
        np.testing.assert_array_equal(a, b)
    return result


def test_read_write_obj_and_qym(tmp_path):
    v, t = grid(4)
    n = qygeom.normals(v, t)
    uv = v[:, :2].copy()
    path = str(tmp_path / "grid.obj")
    qygeom.write(path, qygeom.Mesh(v, t, n, uv), digits=9)
    back = qygeom.read(path)
    assert back.vertices.dtype == np.float32 and back.triangles.dtype == np.int32
    # Every corner carries (v, vt, vn) with the same index, so the vertices come back one
    # for one, in order of first use by the faces.
    order = np.unique(t.ravel(), return_index=True)[1]
    first_use = t.ravel()[np.sort(order)]
    np.testing.assert_array_equal(back.vertices, v[first_use])
    np.testing.assert_array_equal(back.normals, n[first_use])
    np.testing.assert_array_equal(back.uvs, uv[first_use])
    np.testing.assert_array_equal(first_use[back.triangles], t)

    qym = str(tmp_path / "grid.qym")
    qygeom.write(qym, qygeom.Mesh(v, t), digits=9)
    back = qygeom.read(qym)
    np.testing.assert_array_equal(back.vertices, v)
    np.testing.assert_array_equal(back.triangles, t)
    assert back.normals is None and back.uvs is None
    with pytest.raises(ValueError, match="positions and triangles only"):
        qygeom.write(qym, qygeom.Mesh(v, t, n))

    # A quad with a UV seam: positions are split where corners carry different UVs, and the
    # quad is triangulated.
    text = "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nvt 0 0\nvt 1 0\nvt 1 1\nvt 0 1\nvt 0.5 0.5\n"
    text += "f 1/1 2/2 3/3 4/4\nf 1/5 3/3 2/2\n"
    (tmp_path / "quad.obj").write_text(text)
    quad = qygeom.read(str(tmp_path / "quad.obj"))
    assert quad.triangles.shape == (3, 3)
    assert quad.vertices.shape == (5, 3) and quad.uvs.shape == (5, 2)
    assert quad.normals is None

    # Positions only: one vertex per 'v' line, unused ones kept.
    (tmp_path / "plain.obj").write_text("v 0 0 0\nv 1 0 0\nv 0 1 0\nv 5 5 5\nf 1 2 3\n")
    plain = qygeom.read(str(tmp_path / "plain.obj"))
    assert plain.vertices.shape == (4, 3)
    np.testing.assert_array_equal(plain.triangles, [[0, 1, 2]])

    # Failures: the library's own message, or the system's.
    (tmp_path / "bad.obj").write_text("v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 7\n")
    with pytest.raises(qygeom.Error, match="line 4"):
        qygeom.read(str(tmp_path / "bad.obj"))
    with pytest.raises(FileNotFoundError):
        qygeom.read(str(tmp_path / "missing.obj"))
    with pytest.raises(ValueError, match="unknown mesh format"):
        qygeom.read(str(tmp_path / "grid.xyz"))
    with pytest.raises(OSError, match="cannot write"):
        qygeom.write(str(tmp_path / "no" / "such" / "dir.obj"), qygeom.Mesh(v, t))


def test_weld_soup_and_remap():
    v, t = grid(6)
    sv, st = soup(v, t)
    mesh, remap = unchanged_after(qygeom.weld, sv, st)
    assert mesh.vertices.shape == v.shape and remap.shape == (len(sv),)
    # The remap is the old-to-new map: vertices and triangles follow it exactly.
    np.testing.assert_array_equal(mesh.vertices[remap], sv)
    np.testing.assert_array_equal(mesh.triangles, remap[st])
    # Welded vertices come out sorted by x, then y, then z: numpy's unique over the rows.
    uniq, inverse = np.unique(sv, axis=0, return_inverse=True)
    np.testing.assert_array_equal(mesh.vertices, uniq)
    np.testing.assert_array_equal(remap, inverse.ravel())

    # Nothing to weld: the identity remap, the mesh as it was.
    mesh2, remap2 = qygeom.weld(v, t)
    assert len(mesh2.vertices) == len(v)
    np.testing.assert_array_equal(remap2, np.arange(len(v)))
    np.testing.assert_array_equal(mesh2.vertices, v)

    # With normals, coincident vertices of different normals stay apart.
    nrm = np.tile(np.float32([0, 0, 1]), (len(sv), 1))
    nrm[0] = [1, 0, 0]
    mesh3, remap3 = qygeom.weld(sv, st, normals=nrm)
    assert len(mesh3.vertices) == len(v) + 1
    np.testing.assert_array_equal(mesh3.normals[remap3], nrm)

    # Empty meshes pass through.
    mesh4, remap4 = qygeom.weld(np.zeros((0, 3), np.float32), np.zeros((0, 3), np.int32))
    assert mesh4.vertices.shape == (0, 3) and remap4.shape == (0,)


def test_results_equal_the_library(reference):
    v, t = grid(8)
    sv, st = soup(v, t)
    lib_v, lib_t = parse_mesh(reference("weld", sv, st))
    mesh, _ = qygeom.weld(sv, st)
    np.testing.assert_array_equal(mesh.vertices, lib_v)
    np.testing.assert_array_equal(mesh.triangles, lib_t)

    np.testing.assert_array_equal(qygeom.normals(v, t), parse_rows(reference("normals", v, t), 3))
    np.testing.assert_array_equal(
        qygeom.curvature(v, t), parse_rows(reference("curvature", v, t), 1).ravel()
    )
    np.testing.assert_array_equal(qygeom.flatten(v, t), parse_rows(reference("flatten", v, t), 2))
    rv, rt, _ = qygeom.reduce_to_fraction(v, t, 0.5)
    lib_v, lib_t = parse_mesh(reference("reduce", v, t, 0.5))
    np.testing.assert_array_equal(rv, lib_v)
    np.testing.assert_array_equal(rt, lib_t)
    lib_v, _ = parse_mesh(reference("smooth", v, t, 3))
    np.testing.assert_array_equal(qygeom.smooth(v, t, iterations=3), lib_v)


def test_normals_topology_curvature():
    v, t = grid(5, ripple=0.0)
    n = qygeom.normals(v, t)
    np.testing.assert_allclose(n, np.tile([0, 0, 1], (len(v), 1)), atol=1e-6)

    top = qygeom.topology(v, t)
    assert top["vertices"] == 36 and top["triangles"] == 50
    assert top["boundary_loops"] == 1 and top["genus"] == 0 and top["euler"] == 1
    assert len(top["pieces"]) == 1 and top["pieces"][0]["boundary_edges"] == 20

    sv, st = sphere()
    top = qygeom.topology(sv, st)
    assert top["boundary_loops"] == 0 and top["euler"] == 2 and top["genus"] == 0
    # Two spheres, a degenerate and an invalid triangle, an unused vertex.
    v2 = np.concatenate([sv, sv + 3, [[9, 9, 9]]]).astype(np.float32)
    t2 = np.concatenate([st, st + len(sv), [[0, 0, 1], [0, 1, 10**6]]]).astype(np.int32)
    top = qygeom.topology(v2, t2)
    assert len(top["pieces"]) == 2
    assert top["degenerate_triangles"] == 1 and top["invalid_triangles"] == 1
    assert top["unreferenced_vertices"] == 1 and top["vertex_piece"][-1] == -1
    assert set(top["triangle_piece"][: len(st)]) == {0}

    # Curvature of a sphere of radius 2: mean 1/2, Gaussian 1/4 away from the poles.
    sv, st = sphere(48, 24, radius=2.0)
    mean = qygeom.curvature(sv, st, "mean")
    gauss = qygeom.curvature(sv, st, kind="gaussian")
    body = np.abs(sv[:, 2]) < 1.5
    np.testing.assert_allclose(mean[body], 0.5, rtol=0.02)
    np.testing.assert_allclose(gauss[body], 0.25, rtol=0.05)
    with pytest.raises(ValueError, match="unknown curvature kind"):
        qygeom.curvature(sv, st, "wobbly")


def test_flatten_and_its_failures():
    v, t = grid(10)
    uv = unchanged_after(qygeom.flatten, v, t)
    assert uv.shape == (len(v), 2) and uv.dtype == np.float32
    assert uv.min() >= -1e-6 and uv.max() <= 1 + 1e-6
    # Conformal on a nearly flat grid: the layout is the grid up to a similarity, so the
    # distances between neighbours keep their ratios.
    d_uv = np.linalg.norm(uv[t[:, 0]] - uv[t[:, 1]], axis=1)
    d_xy = np.linalg.norm(v[t[:, 0], :2] - v[t[:, 1], :2], axis=1)
    ratio = d_uv / d_xy
    assert ratio.std() / ratio.mean() < 0.05

    sv, st = sphere()
    with pytest.raises(qygeom.FlattenError) as info:
        qygeom.flatten(sv, st, cut=False)
    assert info.value.status == "not_a_disk"
    assert str(info.value)
    # Two pieces.
    v2 = np.concatenate([v, v + 5]).astype(np.float32)
    t2 = np.concatenate([t, t + len(v)]).astype(np.int32)
    with pytest.raises(qygeom.FlattenError) as info:
        qygeom.flatten(v2, t2)
    assert info.value.status == "several_pieces"
    # A triangle naming a vertex that does not exist is the library's degenerate case.
    with pytest.raises(qygeom.FlattenError) as info:
        qygeom.flatten(v, np.concatenate([t, [[0, 1, 999]]]).astype(np.int32))
    assert info.value.status == "degenerate_triangle"
    # A closed sphere is cut to a disk by default.
    assert qygeom.flatten(sv, st).shape == (len(sv), 2)


def test_progress_and_cancellation():
    v, t = grid(30)
    seen = []
    qygeom.flatten(v, t, progress=lambda caption, fraction: seen.append((caption, fraction)))
    assert seen and any(c == "Solving" for c, _ in seen)
    fractions = [f for _, f in seen]
    assert fractions == sorted(fractions) and 0 <= fractions[0] and fractions[-1] <= 1

    # Returning True cancels; the inputs stay as they were.
    before = v.copy()
    with pytest.raises(qygeom.CancelledError):
        qygeom.flatten(v, t, progress=lambda c, f: f > 0.1)
    np.testing.assert_array_equal(v, before)
    # An exception in the callback cancels the call and comes out of it.
    class Stop(Exception):
        pass

    def stop(caption, fraction):
        raise Stop(caption)

    for call in (
        lambda: qygeom.reduce_to_fraction(v, t, 0.2, progress=stop),
        lambda: qygeom.smooth(v, t, iterations=5, progress=stop),
        lambda: qygeom.subdivide(v, t, levels=2, progress=stop),
    ):
        with pytest.raises(Stop):
            call()
    with pytest.raises(TypeError, match="callable"):
        qygeom.flatten(v, t, progress=42)


def test_ctrl_c_interrupts_a_long_call():
    # Ctrl-C arrives as SIGINT while the library runs without the GIL; its cancellation poll
    # turns it into KeyboardInterrupt long before the call would have finished (this
    # flattening takes seconds).
    v, t = grid(160)
    timer = threading.Timer(0.05, lambda: os.kill(os.getpid(), signal.SIGINT))
    start = time.perf_counter()
    timer.start()
    try:
        with pytest.raises(KeyboardInterrupt):
            qygeom.flatten(v, t)
    finally:
        timer.cancel()
    assert time.perf_counter() - start < 2.0


def test_reduce():
    v, t = grid(12)
    rv, rt, removed = unchanged_after(qygeom.reduce_to_fraction, v, t, 0.5)
    assert len(rv) == len(v) // 2 and len(removed) == len(v) - len(rv)
    assert removed.dtype == np.float64 and removed.shape[1] == 3
    assert rt.max() < len(rv)
    # Border vertices are never removed, and survivors keep their positions.
    border = (v[:, 0] % 1 == 0) | (v[:, 1] % 1 == 0)
    kept = {tuple(p) for p in rv.tolist()}
    assert all(tuple(p) in kept for p in v[border].tolist())
    assert kept <= {tuple(p) for p in v.tolist()}
    assert qygeom.topology(rv, rt)["boundary_loops"] == 1

    flat_v, flat_t = grid(12, ripple=0.0)
    rv, rt, removed, dist = qygeom.reduce_to_tolerance(flat_v, flat_t, 1e-4)
    assert 4 * 12 <= len(rv) < 0.6 * len(flat_v) and 0 <= dist <= 1e-4
    rv, rt, removed, dist = qygeom.reduce_to_tolerance(v, t, 0.0)
    assert len(removed) == 0
    with pytest.raises(ValueError):
        qygeom.reduce_to_fraction(v, t, float("nan"))


def test_subdivide():
    cube_v = np.array(
        [[x, y, z] for z in (0, 1) for y in (0, 1) for x in (0, 1)], np.float32
    )
    quads = np.array(
        [[0, 2, 3, 1], [4, 5, 7, 6], [0, 1, 5, 4], [2, 6, 7, 3], [0, 4, 6, 2], [1, 3, 7, 5]]
    )
    sv, sq = unchanged_after(qygeom.subdivide, cube_v, quads)
    assert sq.shape == (24, 4) and sv.shape == (26, 3)
    assert qygeom.topology(sv, np.concatenate([sq[:, [0, 1, 2]], sq[:, [0, 2, 3]]]))["genus"] == 0
    # Catmull-Clark pulls a cube's corners inwards: every point stays inside the cube and
    # nearer its centre than the corners were.
    assert np.all(sv >= 0) and np.all(sv <= 1)
    assert np.linalg.norm(sv - 0.5, axis=1).max() < np.sqrt(3) / 2 - 0.1
    sv2, sq2 = qygeom.subdivide(cube_v, quads, levels=2)
    assert sq2.shape == (96, 4) and sv2.shape == (98, 3)
    # Triangles in, quads out: three per triangle.
    v, t = grid(3)
    _, q = qygeom.subdivide(v, t)
    assert q.shape == (3 * len(t), 4)
    with pytest.raises(ValueError, match="levels"):
        qygeom.subdivide(v, t, levels=0)
    with pytest.raises(ValueError, match="name a vertex twice"):
        qygeom.subdivide(v, [[0, 1, 1]])
    with pytest.raises(ValueError, match="k >= 3"):
        qygeom.subdivide(v, [[0, 1]])


def test_smooth():
    v, t = grid(10, ripple=0.2)
    out = unchanged_after(qygeom.smooth, v, t)
    interior = (v[:, 0] % 1 != 0) & (v[:, 1] % 1 != 0)
    assert np.abs(np.diff(out[:, 2])).sum() < np.abs(np.diff(v[:, 2])).sum()
    # Only the selected vertices move, given as a mask or as indices.
    sel = np.flatnonzero(interior)[:5]
    for selected in (sel, np.isin(np.arange(len(v)), sel)):
        moved = qygeom.smooth(v, t, selected=selected)
        changed = np.flatnonzero(np.any(moved != v, axis=1))
        assert set(changed) <= set(sel) and len(changed) > 0
    # Bilateral smoothing keeps a plane in place.
    flat_v, flat_t = grid(10, ripple=0.0)
    np.testing.assert_allclose(
        qygeom.smooth(flat_v, flat_t, method="bilateral", sigma=0.3), flat_v, atol=1e-6
    )
    noisy = v.copy()
    noisy[interior, 2] += 0.01 * np.random.default_rng(1).standard_normal(interior.sum())
    qygeom.smooth(noisy, t, iterations=2, method="bilateral", sigma=0.2)
    with pytest.raises(ValueError, match="sigma"):
        qygeom.smooth(v, t, method="bilateral")
    with pytest.raises(ValueError, match="unknown smoothing method"):
        qygeom.smooth(v, t, method="gaussian")
    # An isolated vertex is not selected by default, so it keeps its place (no 0 / 0).
    v2 = np.concatenate([v, [[7, 7, 7]]]).astype(np.float32)
    assert np.all(qygeom.smooth(v2, t)[-1] == 7)


def edges_directed(t):
    return {(a, b) for tri in t.tolist() for a, b in zip(tri, tri[1:] + tri[:1])}


def test_orient():
    v, t = sphere()
    flipped = t.copy()
    flipped[::3] = flipped[::3, [0, 2, 1]]
    out, ok = unchanged_after(qygeom.orient, v, flipped)
    assert ok
    directed = edges_directed(out)
    assert all((b, a) in directed for a, b in directed)
    # Each region follows its lowest triangle: triangle 0 was flipped, so all are now.
    np.testing.assert_array_equal(np.sort(out, axis=1), np.sort(t, axis=1))
    assert (out[0] == flipped[0]).all()
    # A Moebius band cannot be oriented.
    n = 8
    ang = np.linspace(0, 2 * np.pi, n, endpoint=False)
    mv = []
    for k, a in enumerate(ang):
        for s in (-1, 1):
            w = 0.3 * s
            mv.append(
                [(1 + w * np.cos(a / 2)) * np.cos(a), (1 + w * np.cos(a / 2)) * np.sin(a),
                 w * np.sin(a / 2)]
            )
    mt = []
    for k in range(n):
        a, b = 2 * k, 2 * k + 1
        c, d = (2 * k + 2, 2 * k + 3) if k + 1 < n else (1, 0)
        mt += [[a, c, b], [b, c, d]]
    _, ok = qygeom.orient(np.array(mv, np.float32), np.array(mt, np.int32))
    assert not ok


def test_ray_cast():
    v, t = grid(8, ripple=0.0)
    rng = np.random.default_rng(3)
    xy = rng.uniform(0.05, 0.95, (100, 2))
    origins = np.column_stack([xy, np.full(100, 2.0)]).astype(np.float32)
    down = np.tile([0.0, 0.0, -1.0], (100, 1))
    tri, dist, bary = unchanged_after(qygeom.ray_cast, v, t, origins, down)
    assert tri.dtype == np.int32 and (tri >= 0).all()
    np.testing.assert_allclose(dist, 2.0, atol=1e-6)
    corners = v[t[tri]].astype(np.float64)
    hit = (
        corners[:, 0] * (1 - bary.sum(1))[:, None]
        + corners[:, 1] * bary[:, :1]
        + corners[:, 2] * bary[:, 1:]
    )
    np.testing.assert_allclose(hit[:, :2], xy, atol=1e-6)
    # Rays pointing away or beside the mesh miss.
    tracer = qygeom.RayTracer(v, t)
    assert tracer.num_triangles == len(t)
    tri, dist, _ = tracer.intersect(origins, -down)
    assert (tri == -1).all() and np.isinf(dist).all()
    occluded = tracer.occluded(np.float64([[0.5, 0.5, 1], [5, 5, 1]]), [[0, 0, -1], [0, 0, -1]])
    np.testing.assert_array_equal(occluded, [True, False])
    with pytest.raises(ValueError, match="rows"):
        tracer.intersect(origins, down[:5])


def test_bad_arguments_raise_clear_errors():
    v, t = grid(3)
    for bad_v, error in [
        (v[:, :2], ValueError),
        (v.ravel(), ValueError),
        (v.astype(bool), TypeError),
        (v.astype(np.complex64), TypeError),
        (np.array([["a", "b", "c"]]), TypeError),
        ("vertices", TypeError),
        (None, TypeError),
        ([[0, 0, 0], [1, 1]], TypeError),
    ]:
        with pytest.raises(error):
            qygeom.normals(bad_v, t)
    for bad_t, error in [
        (t.astype(np.float32), TypeError),
        (t[:, :2], ValueError),
        (t + 100, ValueError),
        (-t - 1, ValueError),
        (t.astype(np.int64) + 2**40, ValueError),
        (t.astype(bool), TypeError),
    ]:
        for call in (qygeom.normals, qygeom.curvature, qygeom.smooth, qygeom.orient):
            with pytest.raises(error):
                call(v, bad_t)
    with pytest.raises(ValueError, match=r"\(n, 3\)"):
        qygeom.weld(v, t, normals=v[:, :2])
    with pytest.raises(ValueError, match="rows"):
        qygeom.weld(v, t, uvs=v[:3, :2])
    with pytest.raises(ValueError):
        qygeom.Mesh(v, t + 100)
    # Layouts that differ are converted, not refused: float64, int64, lists, strided views.
    expected = qygeom.normals(v, t)
    np.testing.assert_array_equal(qygeom.normals(v.astype(np.float64), t.astype(np.int64)), expected)
    np.testing.assert_array_equal(qygeom.normals(v.tolist(), t.tolist()), expected)
    np.testing.assert_array_equal(
        qygeom.normals(np.rint(v * 8).astype(np.int32), t), qygeom.normals(np.rint(v * 8), t)
    )
    wide = np.zeros((len(v), 6), np.float32)
    wide[:, ::2] = v
    np.testing.assert_array_equal(qygeom.normals(wide[:, ::2], np.asfortranarray(t)), expected)


def test_read_write_ply_stl_off(tmp_path):
    v, t = grid(4)
    n = qygeom.normals(v, t)
    uv = v[:, :2].copy()
    for ext in ("ply", "off"):
        path = str(tmp_path / ("grid." + ext))
        qygeom.write(path, qygeom.Mesh(v, t, n, uv))
        back = qygeom.read(path)
        np.testing.assert_array_equal(back.vertices, v)
        np.testing.assert_array_equal(back.triangles, t)
        np.testing.assert_array_equal(back.normals, n)
        np.testing.assert_array_equal(back.uvs, uv)

    # STL keeps triangles only and welds corners into vertices numbered by first use.
    stl = str(tmp_path / "grid.stl")
    with pytest.raises(ValueError, match="positions and triangles only"):
        qygeom.write(stl, qygeom.Mesh(v, t, n))
    qygeom.write(stl, qygeom.Mesh(v, t))
    back = qygeom.read(stl)
    np.testing.assert_array_equal(back.vertices[back.triangles], v[t])

    # Polygons come back as triangles; a bad index is the reader's error.
    (tmp_path / "quad.off").write_text("OFF\n4 1 0\n0 0 0\n1 0 0\n1 1 0\n0 1 0\n4 0 1 2 3\n")
    assert qygeom.read(str(tmp_path / "quad.off")).triangles.shape == (2, 3)
    (tmp_path / "bad.off").write_text("OFF\n3 1 0\n0 0 0\n1 0 0\n1 1 0\n3 0 1 7\n")
    with pytest.raises(qygeom.Error, match="line 6"):
        qygeom.read(str(tmp_path / "bad.off"))


def test_results_survive_their_inputs_and_threads_agree():
    v, t = grid(20)
    sv, st = soup(v, t)
    mesh, remap = qygeom.weld(sv, st)
    vertices = mesh.vertices
    del mesh, sv
    assert vertices.shape == v.shape and np.isfinite(vertices).all()
    # The same answers with one thread and with several.
    old = qygeom.get_num_threads()
    try:
        qygeom.set_num_threads(1)
        one = (qygeom.curvature(v, t), qygeom.smooth(v, t, iterations=2), qygeom.flatten(v, t))
        qygeom.set_num_threads(4)
        four = (qygeom.curvature(v, t), qygeom.smooth(v, t, iterations=2), qygeom.flatten(v, t))
    finally:
        qygeom.set_num_threads(old)
    for a, b in zip(one, four):
        np.testing.assert_array_equal(a, b)


def test_stub_lists_the_module():
    # The type stub beside the module must name exactly what the module exports.
    import ast

    stub = os.path.join(os.path.dirname(__file__), "..", "qygeom.pyi")
    tree = ast.parse(open(stub).read())
    in_stub = {
        node.name
        for node in tree.body
        if isinstance(node, (ast.FunctionDef, ast.ClassDef))
        and node.name not in ("PieceSummary", "TopologySummary")
    }
    in_module = {name for name in dir(qygeom) if not name.startswith("__")}
    assert in_stub == in_module


def test_empty_and_non_finite_meshes_never_crash():
    empty_v, empty_t = np.zeros((0, 3), np.float32), np.zeros((0, 3), np.int32)
    assert qygeom.normals(empty_v, empty_t).shape[1] == 3
    assert qygeom.curvature(empty_v, empty_t).shape == (0,)
    assert qygeom.topology(empty_v, empty_t)["pieces"] == []
    assert qygeom.smooth(empty_v, empty_t).shape == (0, 3)
    assert qygeom.orient(empty_v, empty_t)[0].shape == (0, 3)
    assert qygeom.reduce_to_fraction(empty_v, empty_t, 0.5)[0].shape == (0, 3)
    assert qygeom.ray_cast(empty_v, empty_t, [[0, 0, 0]], [[0, 0, 1]])[0].tolist() == [-1]
    with pytest.raises(qygeom.FlattenError):
        qygeom.flatten(empty_v, empty_t)
    v, t = grid(4)
    assert qygeom.ray_cast(v, t, np.zeros((0, 3)), np.zeros((0, 3)))[0].shape == (0,)
    assert qygeom.subdivide(v, np.zeros((0, 3), np.int32))[1].shape == (0, 4)

    # NaN and infinite coordinates give answers or the library's refusal, never a crash.
    bad = v.copy()
    bad[7] = [np.nan, 0, 0]
    bad[8] = [np.inf, 0, 0]
    qygeom.weld(bad, t)
    qygeom.normals(bad, t)
    qygeom.curvature(bad, t)
    qygeom.smooth(bad, t)
    qygeom.smooth(bad, t, method="bilateral", sigma=0.2)
    qygeom.reduce_to_fraction(bad, t, 0.5)
    qygeom.subdivide(bad, t)
    tri, _, _ = qygeom.ray_cast(bad, t, bad, np.tile([0.0, 0, -1], (len(bad), 1)))
    with pytest.raises(qygeom.FlattenError) as info:
        qygeom.flatten(bad, t)
    assert info.value.status == "non_finite_vertex"


def test_calls_from_several_python_threads():
    # The calls release the GIL, so threads overlap; each must still get its own answer.
    v, t = grid(30)
    expected = (qygeom.curvature(v, t), qygeom.weld(*soup(v, t))[1])
    results = [None] * 4
    errors = []

    def work(i):
        try:
            sv, st = soup(v, t)
            results[i] = (qygeom.curvature(v, t), qygeom.weld(sv, st)[1])
        except Exception as e:  # pragma: no cover - reported below
            errors.append(e)

    threads = [threading.Thread(target=work, args=(i,)) for i in range(4)]
    for th in threads:
        th.start()
    for th in threads:
        th.join()
    assert not errors
    for r in results:
        np.testing.assert_array_equal(r[0], expected[0])
        np.testing.assert_array_equal(r[1], expected[1])
