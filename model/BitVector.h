// BitVector and BitIterator: a resizable set of bits over int indices.
#pragma once

#include <cstdint>
#include <vector>

#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

/// Bits indexed 0..size-1, stored in 32-bit words: bit i is bit (i % 32) of word i / 32,
/// least significant bit first. That layout is part of the interface: hot loops read
/// getWords() directly. Bits at or past size() in the last word are always clear.
class QYGEOM_API BitVector
{
public:
    using Word = std::uint32_t;
    static constexpr int bitsPerWord = 32;

    BitVector() = default;
    /// n clear bits.
    explicit BitVector(int n);
    BitVector(const BitVector&) = default;
    BitVector& operator=(const BitVector&) = default;
    /// The source is left empty (size 0).
    BitVector(BitVector&& other) noexcept;
    BitVector& operator=(BitVector&& other) noexcept;

    int size() const { return m_size; }
    int getNumWords() const { return int(m_words.size()); }
    const Word* getWords() const { return m_words.data(); }
    Word* getWords() { return m_words.data(); }

    /// New bits are clear; bits below n keep their values.
    void resize(int n);
    /// @pre 0 <= i < size()
    void setBit(int i) { m_words[unsigned(i) >> 5] |= Word(1) << (i & 31); }
    void clearBit(int i) { m_words[unsigned(i) >> 5] &= ~(Word(1) << (i & 31)); }
    /// Non-zero when bit i is set.
    unsigned isBitSet(int i) const { return m_words[unsigned(i) >> 5] & (Word(1) << (i & 31)); }
    void setAllBits();
    void clearBits();
    /// Sets the n listed bits. @pre each index in [0, size())
    void setBits(int n, const int* indices);
    /// Number of set bits.
    int countBits() const;
    bool anyBitSet() const;

    /// Union; grows to the other's size when it is larger.
    BitVector& operator|=(const BitVector& other);
    bool operator==(const BitVector& other) const = default;

private:
    void clearTail();

    std::vector<Word> m_words;
    int m_size = 0;
};

/// Visits the set bits of a BitVector in increasing index order. The vector must not be
/// resized while iterated.
class QYGEOM_API BitIterator
{
public:
    explicit BitIterator(const BitVector& bits);

    bool valid() const { return m_index >= 0; }
    int index() const { return m_index; }
    void next();

private:
    void seek(int from);

    const BitVector& m_bits;
    int m_index = -1;
};

} // namespace qyGeom
