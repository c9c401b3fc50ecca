// BitVector and BitIterator.
#include "model/BitVector.h"

#include <algorithm>
#include <bit>
#include <utility>

namespace qyGeom
{
namespace
{
std::size_t wordsFor(int n)
{
    return n > 0 ? (std::size_t(n) + 31) / 32 : 0;
}
} // namespace

BitVector::BitVector(int n) : m_words(wordsFor(n), 0), m_size(std::max(n, 0)) {}

// The implicit moves would empty the words but copy the size, leaving the source with bits
// it has no storage for.
BitVector::BitVector(BitVector&& other) noexcept
    : m_words(std::move(other.m_words)), m_size(std::exchange(other.m_size, 0))
{
    other.m_words.clear();
}

BitVector& BitVector::operator=(BitVector&& other) noexcept
{
    if (this != &other)
    {
        m_words = std::move(other.m_words);
        m_size = std::exchange(other.m_size, 0);
        other.m_words.clear();
    }
    return *this;
}

void BitVector::clearTail()
{
    if (m_size % bitsPerWord)
        m_words.back() &= (Word(1) << (m_size % bitsPerWord)) - 1;
}

void BitVector::resize(int n)
{
    n = std::max(n, 0);
    m_words.resize(wordsFor(n), 0);
    m_size = n;
    clearTail();
}

void BitVector::setAllBits()
{
    std::fill(m_words.begin(), m_words.end(), ~Word(0));
    clearTail();
}

void BitVector::clearBits()
{
    std::fill(m_words.begin(), m_words.end(), Word(0));
}

void BitVector::setBits(int n, const int* indices)
{
    for (int k = 0; k < n; ++k)
        setBit(indices[k]);
}

int BitVector::countBits() const
{
    int n = 0;
    for (Word w : m_words)
        n += std::popcount(w);
    return n;
}

bool BitVector::anyBitSet() const
{
    return std::any_of(m_words.begin(), m_words.end(), [](Word w) { return w != 0; });
}

BitVector& BitVector::operator|=(const BitVector& other)
{
    if (other.m_size > m_size)
        resize(other.m_size);
    for (std::size_t i = 0; i < other.m_words.size(); ++i)
        m_words[i] |= other.m_words[i];
    return *this;
}

BitIterator::BitIterator(const BitVector& bits) : m_bits(bits)
{
    seek(0);
}

void BitIterator::next()
{
    if (m_index >= 0)
        seek(m_index + 1);
}

void BitIterator::seek(int from)
{
    const int numWords = m_bits.getNumWords();
    const BitVector::Word* words = m_bits.getWords();
    int w = from / BitVector::bitsPerWord;
    if (w >= numWords)
    {
        m_index = -1;
        return;
    }
    BitVector::Word bits = words[w] & (~BitVector::Word(0) << (from % BitVector::bitsPerWord));
    while (bits == 0)
    {
        if (++w >= numWords)
        {
            m_index = -1;
            return;
        }
        bits = words[w];
    }
    m_index = w * BitVector::bitsPerWord + std::countr_zero(bits);
}

} // namespace qyGeom
