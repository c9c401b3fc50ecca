// qyGeom::debugChannel(): the geometry libraries' shared statistics and timing channel.
#pragma once

#include "base/DebugChannel.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

/// The channel every algorithm prints its statistics lines to. Off by default; on through
/// debugChannel().setEnabled(true) or the environment variable QYGEOM_DEBUG (any value but
/// "", "0", "off" or "false"). Text goes to standard error unless a sink is set.
QYGEOM_API qyOS::DebugChannel& debugChannel();

} // namespace qyGeom
