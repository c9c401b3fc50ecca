// Remap.
#include "model/Remap.h"

#include "model/BitVector.h"

namespace qyGeom
{

Remap::Remap(int domainSize, int rangeSize)
{
    resize(domainSize, rangeSize);
}

Remap::~Remap() = default;

void Remap::resize(int domainSize, int rangeSize)
{
    resizeForOverwrite(domainSize, rangeSize);
    std::fill(m_map.begin(), m_map.end(), -1);
}

void Remap::resizeForOverwrite(int domainSize, int rangeSize)
{
    m_domainSize = std::max(domainSize, 0);
    m_rangeSize = std::max(rangeSize, 0);
    m_map.clear();
    m_map.resize(std::size_t(m_domainSize));
    m_sequential = false;
}

void Remap::setSequential()
{
    m_sequential = true;
    m_rangeSize = m_domainSize;
    decltype(m_map)().swap(m_map);
}

void Remap::setDeleteMap(const BitVector& deleted)
{
    resize(deleted.size(), 0);
    int next = 0;
    for (int i = 0; i < m_domainSize; ++i)
        m_map[std::size_t(i)] = deleted.isBitSet(i) ? -1 : next++;
    m_rangeSize = next;
}

void Remap::operator()(int* indices, int n) const
{
    if (m_sequential)
        return;
    const int* map = m_map.data();
    for (int k = 0; k < n; ++k)
        indices[k] = map[indices[k]];
}

void remapBits(BitVector& bits, const Remap& remap, int newSize)
{
    if (remap.isSequential())
    {
        bits.resize(newSize);
        return;
    }
    BitVector moved(newSize);
    const int n = std::min(bits.size(), remap.getDomainSize());
    for (BitIterator it(bits); it.valid() && it.index() < n; it.next())
    {
        const int j = remap(it.index());
        if (j >= 0 && j < newSize)
            moved.setBit(j);
    }
    bits = std::move(moved);
}

} // namespace qyGeom
