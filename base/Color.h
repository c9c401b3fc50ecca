// qyUtil::Color: an RGBA colour of four floats in [0, 1].
#pragma once

namespace qyUtil
{

struct Color
{
    float r = 0, g = 0, b = 0, a = 1;

    constexpr Color() = default;
    constexpr Color(float r_, float g_, float b_, float a_ = 1) : r(r_), g(g_), b(b_), a(a_) {}
    bool operator==(const Color&) const = default;
};

} // namespace qyUtil
