#include "base/AppOutput.h"
#include "base/DebugChannel.h"
#include "base/StopWatch.h"

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

TEST(StopWatch, NeverRunsBackwardsAndClearRestartsFromZero)
{
    qyOS::StopWatch watch, total;
    EXPECT_EQ(watch.check(), 0.0);
    watch.start();
    total.start();
    const double a = watch.check();
    EXPECT_GE(a, 0.0);
    watch.start(); // already running: keeps the time counted so far
    const double b = watch.check();
    EXPECT_LE(a, b);
    const double stopped = watch.stop();
    EXPECT_LE(b, stopped);
    EXPECT_EQ(watch.check(), stopped);
    watch.start(); // resumes from the stopped total
    EXPECT_LE(stopped, watch.check());
    while (total.check() == 0.0)
    {
    }
    EXPECT_GT(watch.clear(), 0.0);
    const double afterClear = watch.check();
    EXPECT_GE(afterClear, 0.0);
    EXPECT_LE(afterClear, total.check()); // counts from the clear, which came after total began
}

TEST(DebugChannel, PrintsTheExactTextOnlyWhenOn)
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
}

TEST(DebugChannel, EnvironmentFlagsAcceptAnythingButTheOffWords)
{
    const char* variable = "QYGEOM_BASE_TEST_FLAG";
    unsetenv(variable);
    EXPECT_FALSE(qyOS::environmentFlag(variable));
    EXPECT_FALSE(qyOS::environmentFlag(nullptr));
    for (const char* off : {"", "0", "off", "OFF", "false", "False"})
    {
        setenv(variable, off, 1);
        EXPECT_FALSE(qyOS::environmentFlag(variable)) << off;
    }
    for (const char* on : {"1", "on", "yes", "00"})
    {
        setenv(variable, on, 1);
        EXPECT_TRUE(qyOS::environmentFlag(variable)) << on;
        EXPECT_TRUE(qyOS::DebugChannel("env", variable).isEnabled()) << on;
    }
    unsetenv(variable);
}

TEST(AppOutput, SinkReceivesInfoAndErrorsWithTheirKind)
{
    qyOS::AppOutput& app = qyOS::AppOutput::getInstance();
    std::string out;
    qyOS::AppOutput::Sink previous = app.setSink([&](qyOS::AppOutput::Kind kind, const char* text)
    {
        out += (kind == qyOS::AppOutput::Info ? "I:" : "E:") + std::string(text);
    });
    app.info("Read %d vertices\n", 8);
    app.error("There must be a boundary for the disk, none found. No changes made.\n");
    app.setSink(std::move(previous));
    EXPECT_EQ(out, "I:Read 8 vertices\n"
                   "E:There must be a boundary for the disk, none found. No changes made.\n");
}
