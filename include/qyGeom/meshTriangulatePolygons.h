// meshTriangulatePolygons: triangles for the polygon faces of a mesh (quads, n-gons), as OBJ
// files and modelling tools give them.
#pragma once
#include <vector>

#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

/// What meshTriangulatePolygons made of its faces.
struct PolygonTriangulation
{
    /// Three entries per triangle, each an index into the `corners` array of the call (not a
    /// vertex index), so that any per-corner data (texture and normal indices) follows the
    /// triangles: the vertex of a triangle corner is corners[triangleCorners[i]].
    std::vector<int> triangleCorners;
    /// The face each triangle came from, one entry per triangle.
    std::vector<int> triangleFaces;
    /// Faces with more than three corners that were split.
    int polygons = 0;
    /// Faces that gave no triangle: fewer than three distinct corners after consecutive
    /// repeats (and a last corner equal to the first) are dropped, or a corner outside the
    /// vertex array.
    int skipped = 0;
};

/// Triangulates polygon faces over a vertex array.
///
/// Face f has the corners corners[faceStarts[f]] .. corners[faceStarts[f + 1] - 1], each a
/// vertex index into `xyz` (three floats per vertex), in the face's turning order. A corner
/// that repeats the one before it (cyclically) is dropped first. A triangle is kept as it is.
/// A quad is split along the diagonal whose two triangles have the larger smallest angle,
/// among the diagonals whose triangles both turn like the quad (polygonNormal); a quad with
/// no such diagonal (a bow tie) goes to the general rule. Larger faces are triangulated by
/// polygonTriangulate in their best-fit plane, which handles non-convex and non-planar faces
/// and never fails on collinear or non-finite corners. Every triangle keeps the face's
/// turning sense; faces give their triangles in face order, so the result is the same on
/// every call and with any thread count.
///
/// @param xyz  vertex positions, three floats per vertex, `numVertices` vertices.
/// @param faceStarts  numFaces + 1 ascending offsets into `corners`.
/// @param[out] out  replaced by the triangles; see PolygonTriangulation.
/// @return the number of triangles.
/// Cost: O(corners) for triangles and quads; O(n^2) for a face of n corners.
QYGEOM_API int meshTriangulatePolygons(const float* xyz, int numVertices, int numFaces,
                                       const int* faceStarts, const int* corners,
                                       PolygonTriangulation& out);

} // namespace qyGeom
