#include "base/Signal.h"

#include <string>

#include <gtest/gtest.h>

using qyRTB::Connection;
using qyRTB::Signal;

namespace
{
struct Receiver
{
    std::string* log;
    void onValue(int) { *log += "m"; }
};

} // namespace

TEST(Signal, CallsConnectionsInConnectionOrderSkippingBlockedOnes)
{
    std::string log;
    Receiver receiver{&log};
    Signal<int> signal;
    Connection lambda = signal.connect([&](int v) { log += std::to_string(v); });
    signal.connect(&receiver, &Receiver::onValue);
    signal.emit(7);
    lambda.block();
    signal(8);
    lambda.unblock();
    signal.block();
    signal.emit(9);
    signal.block(false);
    signal.emit(1);
    EXPECT_EQ(log, "7mm1m");
}

TEST(Signal, CallbacksMayDisconnectConnectAndStopDuringEmission)
{
    std::string log;
    Signal<> signal;
    Connection self, later;
    self = signal.connect(
        [&]
        {
            log += "s";
            self.disconnect();
        });
    signal.connect(
        [&]
        {
            log += "d";
            later.disconnect();
        });
    later = signal.connect([&] { log += "l"; });
    signal.connect(
        [&]
        {
            log += "c";
            if (log.size() < 4)
                signal.connect([&] { log += "n"; });
        });
    signal.connect(
        [&]
        {
            log += "x";
            if (log.size() > 8)
                signal.stop();
        });
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
