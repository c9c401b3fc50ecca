#include "model/BitVector.h"

#include <gtest/gtest.h>

TEST(BitVector, BitIIsBitIMod32OfWordIDiv32)
{
    qyGeom::BitVector b(70);
    b.setBit(33);
    EXPECT_EQ(b.getWords()[1], 2u);
}
