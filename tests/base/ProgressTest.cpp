#include "base/Progress.h"

#include <limits>
#include <string>

#include <gtest/gtest.h>

using qyUtil::Progress;

namespace
{
// A dialog that shows the last report and asks to cancel from its poll number `cancelAt` on.
struct Dialog : Progress
{
    std::string caption;
    double fraction = -1.0;
    int polls = 0, cancelAt = 1000;
    void report(const char* c, double f) override
    {
        caption = c;
        fraction = f;
    }
    bool cancelRequested() override { return ++polls >= cancelAt; }
};
} // namespace

TEST(Progress, SubPhasesMapChildrenOntoConsecutiveCappedSharesOfTheRoot)
{
    Dialog root;
    Progress child, grandchild;
    root.subPhase(0.8, child);
    child.set(0.5);
    EXPECT_DOUBLE_EQ(root.fraction, 0.4);
    child.setCaption("Copying Mesh");
    EXPECT_EQ(root.caption, "Copying Mesh");
    root.subPhase(0.5, child); // more than is left: cut to the last 0.2
    EXPECT_DOUBLE_EQ(root.fraction, 0.8);
    child.set(0.5);
    EXPECT_DOUBLE_EQ(root.fraction, 0.9);
    child.subPhase(0.5, grandchild);
    child.subPhase(0.5, grandchild);
    grandchild.set(0.5);
    EXPECT_DOUBLE_EQ(root.fraction, 0.95);
    EXPECT_EQ(root.caption, "Copying Mesh");                  // the last caption set anywhere
    grandchild.set(std::numeric_limits<double>::quiet_NaN()); // counts as 0
    EXPECT_DOUBLE_EQ(root.fraction, 0.9);
    grandchild.set(7.0);
    EXPECT_DOUBLE_EQ(root.fraction, 1.0);
}

TEST(Progress, CancellationAnywhereIsSeenEverywhereAndLatches)
{
    bool stop = false;
    Progress root([](const char*, double) {}, [&] { return stop; }), child, grandchild;
    root.subPhase(0.5, child);
    child.subPhase(0.5, grandchild);
    EXPECT_FALSE(grandchild.cancelled());
    stop = true;
    EXPECT_TRUE(grandchild.cancelled());
    stop = false;
    EXPECT_TRUE(child.cancelled());

    Progress plain, first, second, third;
    plain.subPhase(0.5, first);
    plain.subPhase(0.5, second);
    first.cancel();
    EXPECT_TRUE(second.cancelled() && plain.cancelled());

    Dialog dialog;
    dialog.cancelAt = 2;
    dialog.subPhase(1.0, third);
    EXPECT_FALSE(third.cancelled());
    EXPECT_TRUE(third.cancelled() && third.cancelled());
    EXPECT_EQ(dialog.polls, 2); // latched: not asked again
}
