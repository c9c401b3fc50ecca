"""Mesh algorithms of libGeometryAlg over numpy arrays.

vertices: float32 (n, 3); triangles: int32 (m, 3); normals float32 (n, 3) and UVs
float32 (n, 2) where present. Other float / integer dtypes and non-C-order arrays are
converted with a copy. Inputs are never changed. Long calls release the GIL, accept
progress=callable(caption, fraction) (return True to cancel) and stop on Ctrl-C.
"""

from typing import Callable, Literal, Optional, TypedDict

import numpy as np
import numpy.typing as npt

ArrayLike = npt.ArrayLike
FloatArray = npt.NDArray[np.float32]
IntArray = npt.NDArray[np.int32]
ProgressCallback = Optional[Callable[[str, float], Optional[bool]]]

class Error(RuntimeError):
    """A failure reported by the library, with its message."""

class FlattenError(Error):
    """The mesh cannot be flattened; `status` names why (e.g. 'not_a_disk')."""

    status: str

class CancelledError(Error):
    """The progress callback returned True."""

class Mesh:
    vertices: FloatArray
    triangles: IntArray
    normals: Optional[FloatArray]
    uvs: Optional[FloatArray]
    def __init__(
        self,
        vertices: ArrayLike,
        triangles: ArrayLike,
        normals: Optional[ArrayLike] = None,
        uvs: Optional[ArrayLike] = None,
    ) -> None: ...

class PieceSummary(TypedDict):
    vertices: int
    triangles: int
    edges: int
    boundary_edges: int
    non_manifold_edges: int
    boundary_loops: int
    euler: int
    genus: int

class TopologySummary(TypedDict):
    vertices: int
    referenced_vertices: int
    unreferenced_vertices: int
    triangles: int
    degenerate_triangles: int
    invalid_triangles: int
    edges: int
    boundary_edges: int
    non_manifold_edges: int
    boundary_loops: int
    euler: int
    genus: int
    pieces: list[PieceSummary]
    vertex_piece: IntArray
    triangle_piece: IntArray

def read(
    path: str, format: Optional[Literal["obj", "ply", "stl", "off", "qym"]] = None
) -> Mesh:
    """Reads an OBJ, PLY, OFF (normals and UVs kept), STL or qym file."""

def write(
    path: str,
    mesh: Mesh,
    digits: int = 0,
    format: Optional[Literal["obj", "ply", "stl", "off", "qym"]] = None,
) -> None:
    """Writes a mesh as OBJ, PLY or OFF (with normals and UVs), or STL or qym (positions and
    triangles)."""

def weld(
    vertices: ArrayLike,
    triangles: ArrayLike,
    normals: Optional[ArrayLike] = None,
    uvs: Optional[ArrayLike] = None,
    progress: ProgressCallback = None,
) -> tuple[Mesh, IntArray]:
    """Welds exactly coincident vertices; returns (mesh, remap old -> new)."""

def normals(vertices: ArrayLike, triangles: ArrayLike) -> FloatArray:
    """Per-vertex unit normals, float32 (n, 3)."""

def topology(vertices: ArrayLike, triangles: ArrayLike) -> TopologySummary:
    """Counts, boundary loops, Euler characteristic, genus and pieces."""

def curvature(
    vertices: ArrayLike,
    triangles: ArrayLike,
    kind: Literal["mean", "gaussian", "min_principal", "max_principal"] = "mean",
    normals: Optional[ArrayLike] = None,
) -> FloatArray:
    """Per-vertex curvature, float32 (n,)."""

def flatten(
    vertices: ArrayLike,
    triangles: ArrayLike,
    cut: bool = True,
    compact: bool = True,
    progress: ProgressCallback = None,
) -> FloatArray:
    """Conformal UVs float32 (n, 2) in the unit square; FlattenError when impossible."""

def reduce_to_fraction(
    vertices: ArrayLike,
    triangles: ArrayLike,
    fraction: float,
    progress: ProgressCallback = None,
) -> tuple[FloatArray, IntArray, npt.NDArray[np.float64]]:
    """Removes interior vertices down to `fraction`; returns (vertices, triangles, removed)."""

def reduce_to_tolerance(
    vertices: ArrayLike,
    triangles: ArrayLike,
    tolerance: float,
    progress: ProgressCallback = None,
) -> tuple[FloatArray, IntArray, npt.NDArray[np.float64], float]:
    """Removes interior vertices within `tolerance`; returns (..., removed, max_distance)."""

def subdivide(
    vertices: ArrayLike,
    faces: ArrayLike,
    levels: int = 1,
    progress: ProgressCallback = None,
) -> tuple[FloatArray, IntArray]:
    """Catmull-Clark subdivision; returns (vertices, quads int32 (q, 4))."""

def smooth(
    vertices: ArrayLike,
    triangles: ArrayLike,
    iterations: int = 1,
    method: Literal["laplacian", "bilateral"] = "laplacian",
    sigma: Optional[float] = None,
    normals: Optional[ArrayLike] = None,
    selected: Optional[ArrayLike] = None,
    progress: ProgressCallback = None,
) -> FloatArray:
    """Smoothed vertices, float32 (n, 3)."""

def orient(vertices: ArrayLike, triangles: ArrayLike) -> tuple[IntArray, bool]:
    """Consistent winding; returns (triangles, oriented)."""

class RayTracer:
    def __init__(self, vertices: ArrayLike, triangles: ArrayLike) -> None: ...
    @property
    def num_triangles(self) -> int: ...
    def intersect(
        self, origins: ArrayLike, directions: ArrayLike
    ) -> tuple[IntArray, npt.NDArray[np.float64], npt.NDArray[np.float64]]:
        """(triangle (r,) -1 on a miss, t (r,) inf on a miss, uv (r, 2))."""
    def occluded(self, origins: ArrayLike, directions: ArrayLike) -> npt.NDArray[np.bool_]:
        """Whether each ray hits any triangle."""

def ray_cast(
    vertices: ArrayLike, triangles: ArrayLike, origins: ArrayLike, directions: ArrayLike
) -> tuple[IntArray, npt.NDArray[np.float64], npt.NDArray[np.float64]]:
    """RayTracer(vertices, triangles).intersect(origins, directions)."""

def set_num_threads(n: int) -> None: ...
def get_num_threads() -> int: ...
def set_verbose(on: bool) -> None: ...
def _weld_library_seconds(
    vertices: ArrayLike, triangles: ArrayLike
) -> tuple[float, float, float, float]: ...
