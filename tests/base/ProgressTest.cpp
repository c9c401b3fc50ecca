#include "base/Progress.h"

#include <limits>
#include <string>

#include <gtest/gtest.h>

using qyUtil::Progress;

namespace
{
// A root progress that keeps its last report and cancels when told to.
struct Root
{
    std::string caption;
    double fraction = -1.0;
    bool cancel = false;
    Progress progress{[this](const char* c, double f) { caption = c; fraction = f; },
                      [this] { return cancel; }};
};
} // namespace

TEST(Progress, SubPhasesMapChildrenOntoConsecutiveShares)
{
    Root root;
    Progress child, grandchild;
    root.progress.subPhase(0.8, child);
    child.set(0.5);
    EXPECT_DOUBLE_EQ(root.fraction, 0.4);
    root.progress.subPhase(0.2, child);
    EXPECT_DOUBLE_EQ(root.fraction, 0.8);
    child.set(0.5);
    EXPECT_DOUBLE_EQ(root.fraction, 0.9);
    child.subPhase(0.5, grandchild);
    child.subPhase(0.5, grandchild);
    grandchild.set(0.5);
    EXPECT_DOUBLE_EQ(root.fraction, 0.95);
    grandchild.set(1.0);
    EXPECT_DOUBLE_EQ(root.fraction, 1.0);
}

TEST(Progress, FractionsStayInsideTheUnitRange)
{
    Root root;
    for (double f : {1.5, -0.5, std::numeric_limits<double>::quiet_NaN()})
    {
        SCOPED_TRACE(f);
        root.progress.set(f);
        EXPECT_TRUE(root.fraction >= 0.0 && root.fraction <= 1.0);
    }
    Progress a, b;
    root.progress.subPhase(0.8, a);
    root.progress.subPhase(0.5, b); // more than is left: cut to the rest
    b.set(1.0);
    EXPECT_DOUBLE_EQ(root.fraction, 1.0);
}

TEST(Progress, CaptionsReachTheRootReport)
{
    Root root;
    Progress child;
    root.progress.subPhase(0.5, child);
    child.set(0.5);
    child.setCaption("Copying Mesh");
    EXPECT_EQ(root.caption, "Copying Mesh");
    EXPECT_DOUBLE_EQ(root.fraction, 0.25);
    child.set(1.0);
    EXPECT_EQ(root.caption, "Copying Mesh");
}

TEST(Progress, CancellationAnywhereIsSeenEverywhereAndLatches)
{
    Root root;
    Progress child, grandchild;
    root.progress.subPhase(0.5, child);
    child.subPhase(0.5, grandchild);
    EXPECT_FALSE(grandchild.cancelled());
    root.cancel = true;
    EXPECT_TRUE(grandchild.cancelled());
    root.cancel = false;
    EXPECT_TRUE(child.cancelled());

    Progress plain, first, second;
    plain.subPhase(0.5, first);
    plain.subPhase(0.5, second);
    EXPECT_FALSE(second.cancelled());
    first.cancel();
    EXPECT_TRUE(second.cancelled());
    EXPECT_TRUE(plain.cancelled());
}

TEST(Progress, SubclassOverridesReceiveReportsAndAnswerCancellation)
{
    struct Dialog : Progress
    {
        int polls = 0;
        double shown = -1.0;
        void report(const char*, double f) override { shown = f; }
        bool cancelRequested() override { return ++polls >= 2; }
    } dialog;
    Progress child;
    dialog.subPhase(0.5, child);
    child.set(0.5);
    EXPECT_DOUBLE_EQ(dialog.shown, 0.25);
    EXPECT_FALSE(child.cancelled());
    EXPECT_TRUE(child.cancelled());
    EXPECT_TRUE(child.cancelled());
    EXPECT_EQ(dialog.polls, 2); // latched: not asked again
}
