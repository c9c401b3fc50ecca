#include "base/Signal.h"

#include <string>

#include <gtest/gtest.h>

using qyRTB::Connection;
using qyRTB::Signal;

namespace
{
std::string* freeLog = nullptr;
void freeCallback(int)
{
    *freeLog += "f";
}

struct Receiver
{
    std::string* log;
    void onValue(int) { *log += "m"; }
};

struct Thing : qyRTB::Entity
{
    int value = 4;
};
} // namespace

TEST(Signal, CallsFunctionsLambdasAndMembersInConnectionOrder)
{
    std::string log;
    freeLog = &log;
    Receiver receiver{&log};
    Signal<int> signal;
    signal.connect(&freeCallback);
    signal.connect([&](int v) { log += std::to_string(v); });
    signal.connect(&receiver, &Receiver::onValue);
    signal.emit(7);
    signal(8);
    EXPECT_EQ(log, "f7mf8m");
}

TEST(Signal, BlockedConnectionsAndSignalsAreSkippedUntilUnblocked)
{
    std::string log;
    Signal<> signal;
    Connection a = signal.connect([&] { log += "a"; });
    signal.connect([&] { log += "b"; });
    a.block();
    signal.emit();
    a.unblock();
    signal.emit();
    signal.block();
    signal.emit();
    signal.block(false);
    signal.emit();
    EXPECT_EQ(log, "babab");
}

TEST(Signal, CallbacksMayDisconnectConnectAndStopDuringEmission)
{
    std::string log;
    Signal<> signal;
    Connection self, later;
    self = signal.connect([&] { log += "s"; self.disconnect(); });
    signal.connect([&] { log += "d"; later.disconnect(); });
    later = signal.connect([&] { log += "l"; });
    signal.connect([&] { log += "c"; if (log.size() < 4) signal.connect([&] { log += "n"; }); });
    signal.connect([&] { log += "x"; if (log.size() > 8) signal.stop(); });
    signal.connect([&] { log += "z"; });
    signal.emit(); // connections made now wait for the next emission
    EXPECT_EQ(log, "sdcxz");
    signal.emit();
    EXPECT_EQ(log, "sdcxzdcxzn");
    signal.emit(); // stop() skips the callbacks after the caller
    EXPECT_EQ(log, "sdcxzdcxzndcx");
    EXPECT_FALSE(self.isConnected() || later.isConnected());
    EXPECT_EQ(signal.getNumConnections(), 5);
}

TEST(Signal, ScopedConnectionsDisconnectWhenTheyGo)
{
    int calls = 0;
    Signal<> signal;
    {
        qyRTB::ScopedConnection scoped = signal.connect([&] { ++calls; });
        qyRTB::ScopedConnection moved = std::move(scoped);
        signal.emit();
    }
    signal.emit();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(signal.getNumConnections(), 0);
    Connection dangling;
    {
        Signal<> shortLived;
        dangling = shortLived.connect([] {});
    }
    dangling.disconnect(); // harmless once the signal is gone
    EXPECT_FALSE(dangling.isConnected());
}

TEST(Entity, DestructionEmitsTheEntityAddressAndCopiesCarryNoConnection)
{
    int destroyed = 0, matches = 0, modified = 0;
    Thing original;
    original.getModifiedSignal().connect([&](const qyRTB::EntityModification&) { ++modified; });
    {
        Thing copy(original), assigned;
        assigned = original;
        EXPECT_EQ(copy.value, 4);
        EXPECT_EQ(copy.getModifiedSignal().getNumConnections(), 0);
        assigned.getModifiedSignal().emit(qyRTB::EntityModification(&assigned));
        EXPECT_EQ(modified, 0);
        const qyRTB::Entity* expected = &copy;
        copy.getDestroyedSignal().connect([&](const qyRTB::Entity* e)
        {
            ++destroyed;
            matches += e == expected;
        });
    }
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(matches, 1);
    original.getModifiedSignal().emit(qyRTB::EntityModification(&original));
    EXPECT_EQ(modified, 1);
}
