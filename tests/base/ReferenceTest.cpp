#include "base/Memory.h"
#include "base/Reference.h"

#include <limits>
#include <new>

#include <gtest/gtest.h>

namespace
{
struct Counted : qy::ReferenceCount
{
    explicit Counted(bool* flag) : deleted(flag) {}
    ~Counted() override { *deleted = true; }
    bool* deleted;
};

struct Derived : Counted
{
    using Counted::Counted;
};
} // namespace

TEST(Reference, CountsHandlesAndDeletesTheObjectAtZero)
{
    bool deleted = false, otherDeleted = false;
    qy::Reference<Counted> a = qy::makeReference<Counted>(&deleted);
    {
        qy::Reference<Counted> b = a, c(a.get()); // a raw pointer joins the same count
        EXPECT_EQ(a->getRefCount(), 3);
        const qy::Reference<Counted> moved = std::move(b);
        EXPECT_TRUE(b == nullptr && moved == a);
        EXPECT_EQ(a->getRefCount(), 3);
    }
    EXPECT_EQ(a->getRefCount(), 1);
    qy::Reference<Counted> other = qy::makeReference<Counted>(&otherDeleted);
    other = a; // drops the other object's only handle
    EXPECT_TRUE(otherDeleted);
    other = other;
    other.reset();
    EXPECT_FALSE(deleted);
    a.reset();
    EXPECT_TRUE(deleted);

    // A handle to the base shares the derived object's count; copying an object copies none.
    deleted = false;
    qy::Reference<Derived> derived = qy::makeReference<Derived>(&deleted);
    qy::Reference<Counted> base = derived;
    EXPECT_EQ(base->getRefCount(), 2);
    bool copyDeleted = false;
    {
        Counted copy(*derived);
        copy.deleted = &copyDeleted;
        EXPECT_EQ(copy.getRefCount(), 0);
    }
    derived.reset();
    EXPECT_FALSE(deleted);
    base.reset();
    EXPECT_TRUE(deleted);
}

TEST(Memory, ByteSizeSaturatesAndMakeBufferThrowsInsteadOfWrapping)
{
    constexpr std::size_t maxSize = std::numeric_limits<std::size_t>::max();
    constexpr std::ptrdiff_t maxCount = std::numeric_limits<std::ptrdiff_t>::max();
    static_assert(qy::byteSize(10, 8) == 80 && qy::byteSize(5, 0) == 0);
    EXPECT_EQ(qy::byteSize(-1, 4), maxSize);
    EXPECT_EQ(qy::byteSize(maxCount, 2), maxSize - 1); // the largest product that fits
    EXPECT_EQ(qy::byteSize(maxCount / 4 + 1, 8), maxSize);
    EXPECT_EQ(qy::tupleCount(1 << 30, 3), std::size_t(3) << 30);
    EXPECT_EQ(qy::tupleCount(-4, 3), 0u);

    EXPECT_THROW(qy::makeBuffer<double>(maxCount), std::bad_alloc);
    EXPECT_THROW(qy::makeBuffer<int>(-1), std::bad_alloc);
    auto buffer = qy::makeBuffer<int>(4);
    buffer[3] = 7;
    EXPECT_EQ(buffer[3], 7);
}
