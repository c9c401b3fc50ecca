#include "base/Error.h"
#include "base/Filename.h"
#include "base/String.h"

#include <string>

#include <gtest/gtest.h>

using qyOS::Filename;

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
    const qyUtil::Error ready(2, std::string("100% ready ") + std::string(300, 'y'));
    EXPECT_EQ(ready.message(), "100% ready " + std::string(300, 'y')); // not a format
    try
    {
        throw qyUtil::Error(1, "Unrecognized input on line %d", 42);
    }
    catch (const std::exception& e)
    {
        const auto& error = dynamic_cast<const qyUtil::Error&>(e);
        EXPECT_TRUE(!error.isSuccess() && error && error.code() == 1);
        EXPECT_STREQ(e.what(), "Unrecognized input on line 42");
    }
}

TEST(Filename, SplitsPathsIntoDirectoryNameBaseNameAndExtension)
{
    const char* cases[][5] = {
        {"dir/sub/mesh.v2.obj", "dir/sub", "mesh.v2.obj", "mesh.v2", "obj"},
        {"mesh.obj", "", "mesh.obj", "mesh", "obj"},
        {".hidden", "", ".hidden", ".hidden", ""},
        {"dir/.hidden.mtl", "dir", ".hidden.mtl", ".hidden", "mtl"},
        {"dir.d/README", "dir.d", "README", "README", ""},
        {"/root.obj", "/", "root.obj", "root", "obj"},
        {"", "", "", "", ""},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c[0]);
        const Filename f(c[0]);
        EXPECT_EQ(f.getDirectory(), c[1]);
        EXPECT_EQ(f.getName(), c[2]);
        EXPECT_EQ(f.getBaseName(), c[3]);
        EXPECT_EQ(f.getExtension(), c[4]);
    }
}

TEST(Filename, BuildsRelatedPaths)
{
    EXPECT_EQ(Filename("dir/mesh.obj").withExtension("mtl").str(), "dir/mesh.mtl");
    EXPECT_EQ(Filename("dir.d/README").withExtension("txt").str(), "dir.d/README.txt");
    EXPECT_EQ(Filename(".hidden").withExtension("bak").str(), ".hidden.bak");
    EXPECT_EQ(Filename("a/mesh.v2.obj").withExtension("").str(), "a/mesh.v2");
    EXPECT_EQ(Filename("dir/sub/mesh.obj").sibling("lib.mtl").str(), "dir/sub/lib.mtl");
    EXPECT_EQ(Filename("mesh.obj").sibling("lib.mtl").str(), "lib.mtl");
    EXPECT_EQ(Filename("/mesh.obj").sibling("lib.mtl").str(), "/lib.mtl");
    EXPECT_EQ(Filename::join("dir", "a.obj").str(), "dir/a.obj");
    EXPECT_EQ(Filename::join("dir/", "a.obj").str(), "dir/a.obj");
    EXPECT_EQ(Filename::join("", "a.obj").str(), "a.obj");
    EXPECT_EQ(Filename::join("dir", "/abs/a.obj").str(), "/abs/a.obj");
}
