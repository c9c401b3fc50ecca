#include <cstdlib>
#include <limits>
#include <new>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "base/AppOutput.h"
#include "base/DebugChannel.h"
#include "base/Error.h"
#include "base/Filename.h"
#include "base/Memory.h"
#include "base/Reference.h"
#include "base/String.h"

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
        const qy::Reference<Counted> moved = std::move(b);
        EXPECT_TRUE(b == nullptr && moved == a && a->getRefCount() == 3);
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

    // A handle to the base shares the derived object's count; a copied object has none.
    deleted = false;
    qy::Reference<Derived> derived = qy::makeReference<Derived>(&deleted);
    qy::Reference<Counted> base = derived;
    bool copyDeleted = false;
    Counted copy(*derived);
    copy.deleted = &copyDeleted;
    EXPECT_TRUE(copy.getRefCount() == 0 && base->getRefCount() == 2);
    derived.reset();
    EXPECT_FALSE(deleted);
    base.reset();
    EXPECT_TRUE(deleted);
}

TEST(Memory, ByteSizeSaturatesAndMakeBufferThrowsInsteadOfWrapping)
{
    constexpr std::size_t maxSize = std::numeric_limits<std::size_t>::max();
    constexpr std::ptrdiff_t maxCount = std::numeric_limits<std::ptrdiff_t>::max();
    EXPECT_EQ(qy::byteSize(-1, 4), maxSize);
    EXPECT_EQ(qy::byteSize(maxCount, 2), maxSize - 1); // the largest product that fits
    EXPECT_EQ(qy::byteSize(maxCount / 4 + 1, 8), maxSize);
    EXPECT_EQ(qy::tupleCount(-4, 3), 0u);
    EXPECT_THROW(qy::makeBuffer<double>(maxCount), std::bad_alloc);
    EXPECT_THROW(qy::makeBuffer<int>(-1), std::bad_alloc);
}

TEST(Format, WritesShortAndLongOutputsWhole)
{
    EXPECT_EQ(qyString::format("%d vertices, %s", 12, "ok"), "12 vertices, ok");
    for (std::size_t length : {255u, 256u, 257u, 5000u})
    {
        const std::string text(length - 2, 'x');
        EXPECT_EQ(qyString::format("<%s>", text.c_str()), "<" + text + ">") << length;
    }
    EXPECT_EQ(qyString::format(nullptr), "");
}

TEST(Error, DefaultIsSuccessAndFailuresCarryCodeAndMessage)
{
    const qyUtil::Error ok;
    EXPECT_TRUE(ok.isSuccess() && !ok && ok.code() == 0 && ok.message().empty());
    const std::string percent = "100% ready " + std::string(300, 'y');
    EXPECT_EQ(qyUtil::Error(2, percent).message(), percent); // a string is not a format
    const qyUtil::Error failed(1, "Unrecognized input on line %d", 42);
    const std::exception& e = failed;
    EXPECT_TRUE(!failed.isSuccess() && failed && failed.code() == 1);
    EXPECT_STREQ(e.what(), "Unrecognized input on line 42");
}

TEST(Filename, SplitsPathsIntoDirectoryNameBaseNameAndExtension)
{
    const char* cases[][5] = {
        {"dir/sub/mesh.v2.obj", "dir/sub", "mesh.v2.obj", "mesh.v2", "obj"},
        {".hidden", "", ".hidden", ".hidden", ""},
        {"dir/.hidden.mtl", "dir", ".hidden.mtl", ".hidden", "mtl"},
        {"dir.d/README", "dir.d", "README", "README", ""},
        {"/root.obj", "/", "root.obj", "root", "obj"},
        {"", "", "", "", ""},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c[0]);
        const qyOS::Filename f(c[0]);
        EXPECT_EQ(f.getDirectory(), c[1]);
        EXPECT_EQ(f.getName(), c[2]);
        EXPECT_EQ(f.getBaseName(), c[3]);
        EXPECT_EQ(f.getExtension(), c[4]);
    }
}

TEST(DebugChannel, PrintsTheExactTextToItsSinkOnlyWhenOn)
{
    qyOS::DebugChannel channel("test");
    std::string out;
    channel.setSink([&](const char* text) { out += text; });
    channel.print("meshCompact: %d vertices, %d triangles\n", 3, 1);
    EXPECT_EQ(out, "");
    channel.setEnabled(true);
    channel.print("meshCompact: %d vertices, %d triangles\n", 3, 1);
    channel.print("  sorted vertices: %f s\n", 0.5);
    EXPECT_EQ(out, "meshCompact: 3 vertices, 1 triangles\n  sorted vertices: 0.500000 s\n");

    // An environment variable switches a channel on with anything but the off words.
    const char* variable = "QYGEOM_BASE_TEST_FLAG";
    unsetenv(variable);
    EXPECT_FALSE(qyOS::DebugChannel("env", variable).isEnabled());
    using Case = std::pair<const char*, bool>;
    for (auto [value, on] : {Case{"", false}, Case{"0", false}, Case{"OFF", false},
                             Case{"False", false}, Case{"00", true}})
    {
        setenv(variable, value, 1);
        EXPECT_EQ(qyOS::DebugChannel("env", variable).isEnabled(), on) << value;
    }
    unsetenv(variable);
}

TEST(AppOutput, SinkReceivesInfoAndErrorsWithTheirKind)
{
    qyOS::AppOutput& app = qyOS::AppOutput::getInstance();
    std::string out;
    qyOS::AppOutput::Sink previous =
        app.setSink([&](qyOS::AppOutput::Kind kind, const char* text)
                    { out += (kind == qyOS::AppOutput::Info ? "I:" : "E:") + std::string(text); });
    app.info("Read %d vertices\n", 8);
    app.error("There must be a boundary for the disk, none found. No changes made.\n");
    app.setSink(std::move(previous));
    EXPECT_EQ(out, "I:Read 8 vertices\n"
                   "E:There must be a boundary for the disk, none found. No changes made.\n");
}
