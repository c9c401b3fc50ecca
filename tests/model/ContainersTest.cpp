#include <array>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "model/ArrayOfSets.h"
#include "model/BitVector.h"
#include "model/Remap.h"

using qyGeom::ArrayOfSets;
using qyGeom::BitVector;
using qyGeom::Remap;
using Sets = std::vector<std::vector<int>>;

namespace
{
// The indices of the set bits, increasing.
std::vector<int> setBits(const BitVector& bits)
{
    std::vector<int> out;
    for (qyGeom::BitIterator it(bits); it.valid(); it.next())
        out.push_back(it.index());
    return out;
}

Sets sets(const ArrayOfSets& a)
{
    Sets out;
    for (int i = 0; i < a.getNumSets(); ++i)
        out.emplace_back(a.getSet(i), a.getSet(i) + a.getSetSize(i));
    return out;
}

ArrayOfSets fromPairs(int numSets, const std::vector<int>& pairs)
{
    ArrayOfSets a;
    a.assignFromPairs(numSets, int(pairs.size() / 2), pairs.data());
    return a;
}

std::vector<int> entries(const Remap& r)
{
    std::vector<int> out;
    for (int i = 0; i < r.getDomainSize(); ++i)
        out.push_back(r(i));
    return out;
}

// 0 -> 1, 1 -> 0, 2 -> 1 (merged with 0), 3 removed, 4 -> 2.
Remap mergingRemap()
{
    Remap r(5, 3);
    const int to[] = {1, 0, 1, -1, 2};
    for (int i = 0; i < 5; ++i)
        r.set(i, to[i]);
    return r;
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
    b.getWords()[1] = 1u << 7; // words written directly read back with the same layout
    EXPECT_TRUE(b.isBitSet(39) && !b.isBitSet(32));
    EXPECT_EQ(b.countBits(), 6);
}

TEST(BitVector, BitsPastTheSizeStayClearThroughSetAllResizeAndOr)
{
    // Hot loops OR and count whole words: the tail of the last word must stay clear.
    const auto expectTailClear = [](const BitVector& b)
    {
        ASSERT_EQ(b.getNumWords(), (b.size() + 31) / 32);
        EXPECT_EQ(b.size() % 32 ? b.getWords()[b.size() / 32] >> (b.size() % 32) : 0u, 0u);
    };
    for (int n : {0, 1, 31, 32, 33, 64, 70})
    {
        SCOPED_TRACE(n);
        BitVector b(n);
        b.setAllBits();
        EXPECT_EQ(b.countBits(), n);
        expectTailClear(b);
    }
    BitVector b(40);
    b.setAllBits();
    b.resize(35); // cutting inside a word: growing again must not revive the cut bits
    expectTailClear(b);
    b.resize(64);
    EXPECT_EQ(setBits(b).back(), 34);
    BitVector large(100);
    large.setBit(99);
    b |= large; // a larger operand grows the vector, a smaller one does not shrink it
    b |= BitVector(3);
    EXPECT_EQ(b.size(), 100);
    EXPECT_EQ(b.countBits(), 36);
}

// The implicit move emptied the words but kept the size, so setBit on a moved-from vector
// wrote out of bounds.
TEST(BitVector, MovedFromVectorIsEmpty)
{
    BitVector a(70);
    a.setBit(69);
    BitVector b(std::move(a));
    EXPECT_TRUE(b.isBitSet(69) && a.size() == 0 && a.getNumWords() == 0);
    a.resize(3);
    a.setBit(2);
    b = std::move(a);
    EXPECT_EQ(setBits(b), std::vector<int>{2});
    EXPECT_TRUE(a.size() == 0 && a.getNumWords() == 0);
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

TEST(ArrayOfSets, FromPairsKeepsPairOrderWithinEachSet)
{
    // (set, member) couples; sets 1 and 3 stay empty, set 2 lists 7 twice.
    const ArrayOfSets a = fromPairs(4, {2, 7, 0, 5, 2, 1, 2, 7, 0, 3});
    EXPECT_EQ(sets(a), (Sets{{5, 3}, {}, {7, 1, 7}, {}}));
    EXPECT_EQ(a.getTotalSize(), 5);
    EXPECT_EQ(sets(fromPairs(3, {})), (Sets{{}, {}, {}}));
}

TEST(ArrayOfSets, InverseListsEveryContainingSetInIncreasingOrder)
{
    std::vector<int> pairs = {3, 2, 3, 2}; // set 3 holds 2 twice: 3 appears twice in the inverse
    for (int k = 0; k < 200; ++k)
        pairs.insert(pairs.end(), {(k * 7) % 13, (k * 11 + k / 5) % 17});
    const ArrayOfSets a = fromPairs(13, pairs);
    ArrayOfSets inverse;
    inverse.assignInverse(17, a);
    Sets expected(17);
    for (int i = 0; i < a.getNumSets(); ++i)
        for (int k = 0; k < a.getSetSize(i); ++k)
            expected[std::size_t(a.getSet(i)[k])].push_back(i);
    EXPECT_EQ(sets(inverse), expected);
}

TEST(ArrayOfSets, MovedFromArrayIsEmpty)
{
    ArrayOfSets a = fromPairs(3, {0, 4, 2, 5, 2, 6});
    const Sets original = sets(a);
    ArrayOfSets moved(std::move(a));
    EXPECT_EQ(sets(moved), original);
    EXPECT_TRUE(a.getNumSets() == 0 && a.getTotalSize() == 0);
    ArrayOfSets target = fromPairs(1, {0, 1});
    target = std::move(moved);
    EXPECT_EQ(sets(target), original);
    EXPECT_TRUE(moved.getNumSets() == 0 && moved.getTotalSize() == 0);
}

TEST(Remap, DeleteMapNumbersKeptElementsInIncreasingOrder)
{
    struct Case
    {
        int size;
        std::vector<int> deleted, expected;
    };
    const Case cases[] = {
        {10, {0, 3, 4, 9}, {-1, 0, 1, -1, -1, 2, 3, 4, 5, -1}},
        {4, {}, {0, 1, 2, 3}},
        {3, {0, 1, 2}, {-1, -1, -1}},
        {0, {}, {}},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(::testing::PrintToString(c.deleted));
        BitVector deleted(c.size);
        deleted.setBits(int(c.deleted.size()), c.deleted.data());
        Remap r;
        r.setSequential(); // setDeleteMap replaces whatever the map was
        r.setDeleteMap(deleted);
        EXPECT_FALSE(r.isSequential());
        EXPECT_EQ(r.getRangeSize(), c.size - int(c.deleted.size()));
        EXPECT_EQ(entries(r), c.expected);
    }
}

TEST(Remap, BothCallFormsAgreeAndASequentialMapIsTheIdentityUntilResized)
{
    Remap r = mergingRemap();
    std::vector<int> indices = {4, 2, 2, 0, 1, 3};
    r(indices.data(), 6);
    EXPECT_EQ(indices, (std::vector<int>{2, 1, 1, 1, 0, -1}));
    r.setSequential();
    r(indices.data(), 5);
    qyGeom::remapElements(r, indices.data(), 6);
    EXPECT_EQ(indices, (std::vector<int>{2, 1, 1, 1, 0, -1}));
    r.resize(4, 2);
    EXPECT_FALSE(r.isSequential());
    EXPECT_EQ(entries(r), (std::vector<int>{-1, -1, -1, -1}));
}

TEST(RemapElements, LastOldElementMappedToASlotSuppliesItsData)
{
    // New 1 receives old 0, then old 2: the later one stays. Whole elements move.
    std::vector<std::array<int, 2>> data = {{0, 0}, {1, -1}, {2, -2}, {3, -3}, {4, -4}};
    qyGeom::remapElements(mergingRemap(), data.data(), 5);
    data.resize(3);
    EXPECT_EQ(data, (std::vector<std::array<int, 2>>{{1, -1}, {2, -2}, {4, -4}}));
}

TEST(RemapBits, MergedElementIsSelectedWhenAnyOfItsSourcesWas)
{
    // Old 0 and 2 both go to 1: selecting either selects new 1. Old 3 is removed.
    using Case = std::pair<std::vector<int>, std::vector<int>>;
    for (const auto& [selected, expected] : {Case{{0}, {1}}, Case{{2}, {1}}, Case{{0, 2}, {1}},
                                             Case{{3}, {}}, Case{{1, 3, 4}, {0, 2}}})
    {
        SCOPED_TRACE(::testing::PrintToString(selected));
        BitVector bits(5);
        bits.setBits(int(selected.size()), selected.data());
        qyGeom::remapBits(bits, mergingRemap(), 3);
        EXPECT_EQ(bits.size(), 3);
        EXPECT_EQ(setBits(bits), expected);
    }
}
