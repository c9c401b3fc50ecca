// The vector width of fitEach's solves, switchable so that tests can compare the widths.
#pragma once

#include "qyGeom/qyGeomExport.h"

namespace qyGeom::detail
{

/// Lets fitEach solve four sets to an AVX2 register where the processor has AVX2 (true, the
/// default), or keeps it to two to an SSE2 register (false). The results are the same either
/// way, bit for bit. Returns the previous setting.
/// Threads: takes effect for the calls that begin after it; meant for tests.
QYGEOM_API bool allowFitAvx2(bool allow);

} // namespace qyGeom::detail
