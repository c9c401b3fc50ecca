// Least-squares plane through a set of points, and the symmetric 3x3 eigen-solver behind it.
#pragma once

#include "base/Linear.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

/// The plane that minimises the sum of squared distances to n points: its origin is their
/// centroid and its normal the eigenvector of the smallest eigenvalue of their covariance.
/// @param[in]  n       number of points
/// @param[in]  points  n points
/// @param[out] plane   the plane; left as it is when n < 1 or a coordinate is not finite
/// Returns true when the plane is determined: the points are finite and span more than a line
/// (otherwise, with n >= 1 finite points, `plane` still passes through all of them).
/// Cost: O(n); no allocation.
QYGEOM_API bool fit(int n, const qyLinear::Point* points, qyLinear::Plane& plane);

/// fit() of each of `count` point sets: the same planes and results as separate calls, bit
/// for bit, in less time, since up to eight fits run side by side, four to a vector register
/// where the processor has AVX2 (found at run time) and two otherwise.
/// @param[in]  count   number of sets
/// @param[in]  n       count ints: the number of points of each set
/// @param[in]  points  count pointers: the sets
/// @param[out] planes  count planes, as fit's `plane`
/// @param[out] fitted  count results, as fit's
QYGEOM_API void fitEach(int count, const int* n, const qyLinear::Point* const* points,
                        qyLinear::Plane* planes, bool* fitted);

/// Eigen-decomposition of a symmetric 3x3 matrix A (only its upper triangle is read) by cyclic
/// Jacobi rotations: values[0] <= values[1] <= values[2], vectors[i] the unit eigenvector of
/// values[i], the three mutually orthogonal. Converges for every finite matrix, repeated
/// eigenvalues included; the matrix is scaled by its largest entry first so that tiny and huge
/// entries neither underflow nor overflow.
QYGEOM_API void eigenSymmetric3(const double A[3][3], double values[3],
                                qyLinear::Vector vectors[3]);

} // namespace qyGeom
