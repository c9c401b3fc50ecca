#include "base/Linear.h"

#include <gtest/gtest.h>

TEST(Normal, ZeroVectorIsInvalid)
{
    EXPECT_FALSE(qyLinear::Normal(qyLinear::Vector(0, 0, 0)).isValid());
    EXPECT_TRUE(qyLinear::Normal(qyLinear::Vector(0, 0, 2)).isValid());
}
