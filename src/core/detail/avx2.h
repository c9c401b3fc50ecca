// Whether the library's kernels that have an AVX2 form use it: where the processor has AVX2,
// unless switched off, so that tests can compare the forms.
#pragma once

#include "qyGeom/qyGeomExport.h"

namespace qyGeom::detail
{

/// Lets the kernels with an AVX2 form (fitEach's solves, the angle estimate of
/// MeshEdgeSwapper::minimizeOppositeAngleSum) use it where the processor has AVX2 (true, the
/// default), or keeps them to their SSE2 form (false). The results are the same either way.
/// Returns the previous setting.
/// Threads: takes effect for the calls that begin after it; meant for tests.
QYGEOM_API bool allowAvx2(bool allow);

/// True when the processor has AVX2 (with the system's support for its registers) and
/// allowAvx2 has not switched it off.
QYGEOM_API bool useAvx2();

} // namespace qyGeom::detail
