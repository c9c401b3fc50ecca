// MeshAttributes.
#include "model/MeshAttributes.h"

#include <algorithm>

namespace qyGeom
{

MeshAttributes::MeshAttributes(std::string name, int numComponents, int numElements,
                               qy::Reference<ArrayAllocator> allocator)
    : m_name(std::move(name)), m_numComponents(std::clamp(numComponents, 1, 4)),
      m_data(sizeof(float) * std::size_t(std::clamp(numComponents, 1, 4)), std::move(allocator))
{
    m_data.resize(numElements);
}

} // namespace qyGeom
