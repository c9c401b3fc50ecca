// qyGeom::debugChannel().
#include "model/debugChannel.h"

namespace qyGeom
{

qyOS::DebugChannel& debugChannel()
{
    static qyOS::DebugChannel channel("qyGeom", "QYGEOM_DEBUG");
    return channel;
}

} // namespace qyGeom
