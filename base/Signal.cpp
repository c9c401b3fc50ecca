// qyRTB::Entity.
#include "base/Signal.h"

namespace qyRTB
{

EntityModification::~EntityModification() = default;

Entity::~Entity()
{
    m_destroyed.emit(this);
}

} // namespace qyRTB
