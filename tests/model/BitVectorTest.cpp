#include "model/BitVector.h"

#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "meshContents.h"

using qyGeom::BitVector;
using qyTest::setBits;

namespace
{

// Every bit past size() in the last word must be clear: hot loops OR and count whole words.
void expectTailClear(const BitVector& bits)
{
    const int n = bits.size();
    ASSERT_EQ(bits.getNumWords(), (n + 31) / 32);
    if (n % 32)
    {
        EXPECT_EQ(bits.getWords()[n / 32] >> (n % 32), 0u);
    }
}

} // namespace

TEST(BitVector, BitIIsBitIMod32OfWordIDiv32LeastSignificantFirst)
{
    BitVector b(70);
    const int set[] = {0, 5, 31, 32, 33, 63, 64, 69};
    b.setBits(8, set);
    EXPECT_EQ(b.getWords()[0], 0x80000021u);
    EXPECT_EQ(b.getWords()[1], 0x80000003u);
    EXPECT_EQ(b.getWords()[2], 0x00000021u);
    EXPECT_EQ(b.countBits(), 8);

    // Words written directly are read back with the same layout.
    b.getWords()[1] = 1u << 7;
    b.clearBit(0);
    EXPECT_EQ(b.getWords()[0], 0x80000020u);
    EXPECT_EQ(setBits(b), (std::vector<int>{5, 31, 39, 64, 69}));
    EXPECT_NE(b.isBitSet(31), 0u);
    EXPECT_EQ(b.isBitSet(32), 0u);
    b.clearBits();
    EXPECT_EQ(b.size(), 70);
    EXPECT_FALSE(b.anyBitSet());
}

TEST(BitVector, SetAllBitsNeverSetsBitsPastTheSize)
{
    for (int n : {0, 1, 31, 32, 33, 63, 64, 70})
    {
        SCOPED_TRACE(n);
        BitVector b(n);
        b.setAllBits();
        EXPECT_EQ(b.countBits(), n);
        expectTailClear(b);
    }
}

TEST(BitVector, ResizeKeepsLowBitsAndClearsNewOnes)
{
    BitVector b(40);
    b.setAllBits();
    b.resize(100);
    EXPECT_EQ(b.countBits(), 40);
    EXPECT_FALSE(b.isBitSet(40));
    // Shrinking inside a word must clear the cut bits, or growing again would revive them.
    b.resize(35);
    expectTailClear(b);
    b.resize(64);
    EXPECT_EQ(b.countBits(), 35);
    EXPECT_EQ(setBits(b).back(), 34);
}

TEST(BitVector, OrWithALargerVectorGrowsAndWithASmallerOneKeepsTheSize)
{
    BitVector small(40), large(100);
    small.setBit(1);
    small.setBit(39);
    large.setBit(2);
    large.setBit(99);
    BitVector grown = small;
    grown |= large;
    EXPECT_EQ(grown.size(), 100);
    EXPECT_EQ(setBits(grown), (std::vector<int>{1, 2, 39, 99}));
    large |= small;
    EXPECT_EQ(large, grown);
}

// The implicit move emptied the words but kept the size, so setBit on a moved-from vector
// wrote out of bounds.
TEST(BitVector, MovedFromVectorIsEmpty)
{
    BitVector a(70);
    a.setBit(69);
    BitVector b(std::move(a));
    EXPECT_TRUE(b.isBitSet(69));
    EXPECT_EQ(a.size(), 0);
    a.resize(3);
    a.setBit(2);
    b = std::move(a);
    EXPECT_EQ(setBits(b), std::vector<int>{2});
    EXPECT_EQ(a.size(), 0);
    EXPECT_EQ(a.getNumWords(), 0);
}

TEST(BitIterator, VisitsSetBitsInIncreasingOrderAcrossWordBoundaries)
{
    const std::vector<std::vector<int>> cases = {
        {}, {0}, {31}, {32}, {63}, {129}, {31, 32}, {0, 31, 32, 63, 64, 95, 129}};
    for (const std::vector<int>& bits : cases)
    {
        SCOPED_TRACE(::testing::PrintToString(bits));
        BitVector b(130);
        b.setBits(int(bits.size()), bits.data());
        EXPECT_EQ(setBits(b), bits);
    }
    EXPECT_TRUE(setBits(BitVector()).empty());
}
