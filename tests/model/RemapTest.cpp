#include "model/Remap.h"

#include <vector>

#include <gtest/gtest.h>

#include "model/BitVector.h"

using qyGeom::BitVector;
using qyGeom::Remap;

namespace
{

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
        EXPECT_EQ(r.getDomainSize(), c.size);
        EXPECT_EQ(r.getRangeSize(), c.size - int(c.deleted.size()));
        EXPECT_EQ(entries(r), c.expected);
    }
}

TEST(Remap, BothCallFormsAgreeAndHonourTheSequentialMarkUntilResized)
{
    Remap r = mergingRemap();
    int indices[] = {4, 2, 2, 0, 1, 3};
    r(indices, 6);
    EXPECT_EQ(std::vector<int>(indices, indices + 6), (std::vector<int>{2, 1, 1, 1, 0, -1}));

    r.setSequential();
    EXPECT_EQ(r.getRangeSize(), 5);
    EXPECT_EQ(entries(r), (std::vector<int>{0, 1, 2, 3, 4}));
    int same[] = {4, 3, 0, 3};
    r(same, 4);
    EXPECT_EQ(std::vector<int>(same, same + 4), (std::vector<int>{4, 3, 0, 3}));
    std::vector<int> data = {10, 11, 12, 13, 14};
    qyGeom::remapElements(r, data.data(), 5);
    EXPECT_EQ(data, (std::vector<int>{10, 11, 12, 13, 14}));

    r.resize(4, 2);
    EXPECT_FALSE(r.isSequential());
    EXPECT_EQ(entries(r), (std::vector<int>{-1, -1, -1, -1}));
}

TEST(RemapElements, LastOldElementMappedToASlotSuppliesItsData)
{
    const Remap r = mergingRemap();
    std::vector<int> ints = {10, 11, 12, 13, 14};
    qyGeom::remapElements(r, ints.data(), 5);
    // new[1] receives old 0, then old 2: the later one stays.
    EXPECT_EQ(std::vector<int>(ints.begin(), ints.begin() + 3), (std::vector<int>{11, 12, 14}));

    struct Item
    {
        int id;
        float weight;
        char tag;
    };
    std::vector<Item> items;
    for (int i = 0; i < 5; ++i)
        items.push_back({i, float(i) + 0.5f, char('a' + i)});
    qyGeom::remapElements(r, items.data(), 5);
    const int expectedIds[] = {1, 2, 4};
    for (int j = 0; j < 3; ++j)
    {
        SCOPED_TRACE(j);
        const Item& item = items[std::size_t(j)];
        EXPECT_EQ(item.id, expectedIds[j]);
        EXPECT_EQ(item.weight, float(item.id) + 0.5f);
        EXPECT_EQ(item.tag, char('a' + item.id));
    }
}

TEST(RemapBits, MergedElementIsSelectedWhenAnyOfItsSourcesWas)
{
    const Remap r = mergingRemap();
    // Old 0 and 2 both go to 1: selecting either selects new 1. Old 3 is removed.
    const std::vector<std::vector<int>> selected = {{0}, {2}, {0, 2}, {3}, {1, 3, 4}};
    const std::vector<std::vector<int>> expected = {{1}, {1}, {1}, {}, {0, 2}};
    for (std::size_t c = 0; c < selected.size(); ++c)
    {
        SCOPED_TRACE(::testing::PrintToString(selected[c]));
        BitVector bits(5), want(3);
        bits.setBits(int(selected[c].size()), selected[c].data());
        want.setBits(int(expected[c].size()), expected[c].data());
        qyGeom::remapBits(bits, r, 3);
        EXPECT_EQ(bits, want);
    }
}
