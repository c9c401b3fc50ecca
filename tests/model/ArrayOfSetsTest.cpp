#include "model/ArrayOfSets.h"

#include <utility>
#include <vector>

#include <gtest/gtest.h>

using qyGeom::ArrayOfSets;

namespace
{

std::vector<std::vector<int>> sets(const ArrayOfSets& a)
{
    std::vector<std::vector<int>> out;
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

} // namespace

TEST(ArrayOfSets, FromPairsKeepsPairOrderWithinEachSet)
{
    // (set, member) couples; sets 1 and 3 stay empty, set 2 lists 7 twice.
    const ArrayOfSets a = fromPairs(4, {2, 7, 0, 5, 2, 1, 2, 7, 0, 3});
    EXPECT_EQ(sets(a), (std::vector<std::vector<int>>{{5, 3}, {}, {7, 1, 7}, {}}));
    EXPECT_EQ(a.getTotalSize(), 5);

    const ArrayOfSets none = fromPairs(3, {});
    EXPECT_EQ(sets(none), (std::vector<std::vector<int>>{{}, {}, {}}));
    EXPECT_EQ(none.getTotalSize(), 0);
    EXPECT_EQ(ArrayOfSets().getTotalSize(), 0);
}

TEST(ArrayOfSets, InverseListsEveryContainingSetInIncreasingOrder)
{
    const ArrayOfSets a = fromPairs(4, {0, 1, 0, 2, 1, 2, 3, 2, 3, 0, 3, 2});
    ArrayOfSets inverse;
    inverse.assignInverse(4, a);
    // Set 3 holds 2 twice, so 3 appears twice in the inverse's set 2.
    EXPECT_EQ(sets(inverse), (std::vector<std::vector<int>>{{3}, {0}, {0, 1, 3, 3}, {}}));
    EXPECT_EQ(inverse.getTotalSize(), a.getTotalSize());

    // A larger case against the definition.
    std::vector<int> pairs;
    for (int k = 0; k < 200; ++k)
        pairs.insert(pairs.end(), {(k * 7) % 13, (k * 11 + k / 5) % 17});
    const ArrayOfSets b = fromPairs(13, pairs);
    inverse.assignInverse(17, b);
    std::vector<std::vector<int>> expected(17);
    for (int i = 0; i < b.getNumSets(); ++i)
        for (int k = 0; k < b.getSetSize(i); ++k)
            expected[std::size_t(b.getSet(i)[k])].push_back(i);
    EXPECT_EQ(sets(inverse), expected);
}

TEST(ArrayOfSets, CopiesAreIndependentMovesEmptyTheSourceSwapExchanges)
{
    ArrayOfSets a = fromPairs(3, {0, 4, 2, 5, 2, 6});
    const auto original = sets(a);

    ArrayOfSets copy(a);
    copy.getSet(2)[0] = 99;
    EXPECT_EQ(sets(a), original);
    ArrayOfSets assigned;
    assigned = a;
    EXPECT_EQ(assigned, a);

    ArrayOfSets moved(std::move(a));
    EXPECT_EQ(sets(moved), original);
    EXPECT_EQ(a.getNumSets(), 0); // the moved-from state is part of the interface
    EXPECT_EQ(a.getTotalSize(), 0);
    ArrayOfSets target = fromPairs(1, {0, 1});
    target = std::move(moved);
    EXPECT_EQ(sets(target), original);
    EXPECT_EQ(moved.getNumSets(), 0);
    EXPECT_EQ(moved.getTotalSize(), 0);

    ArrayOfSets other = fromPairs(1, {0, 8});
    other.swap(target);
    EXPECT_EQ(sets(other), original);
    EXPECT_EQ(sets(target), (std::vector<std::vector<int>>{{8}}));
}
