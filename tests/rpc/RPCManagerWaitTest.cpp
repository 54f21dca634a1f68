// The waits of the manager, on the thread that feeds the service and on others.
#include <algorithm>
#include <chrono>
#include <thread>

#include "tests/rpc/ChannelService.h"

namespace {

using Events = std::vector<KxEvent*>;

class RPCManagerWaitTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(manager.QSCPluginInit(service.Query()));
        log.Clear();
    }

    LogCapture log{kLogDebug};
    ChannelService service;
    HookManager manager;
    KxEvent first{true, false}, second{true, false};
    Events none, one{&first}, both{&first, &second};
};

TEST_F(RPCManagerWaitTest, AWaitOnTheInitThreadLetsTheServiceDeliverWhatItWaitsFor) {
    service.onPoll = [&] {
        if (service.polls == 3) second.Set();
    };
    EXPECT_EQ(manager.WaitMultiple(both, false, kInfinite, false), 1);
    EXPECT_EQ(service.polls, 3);
    EXPECT_TRUE(manager.WaitForEvent(&second, 0));
    EXPECT_EQ(service.polls, 4);
    EXPECT_FALSE(manager.WaitForEvent(&first, 0));
    EXPECT_EQ(service.polls, 5);
    EXPECT_EQ(manager.WaitMultiple(both, true, 0, false), kWaitTimedOut);
    first.Set();
    EXPECT_EQ(manager.WaitMultiple(both, true, 0, false), kWaitSignaled);
}

TEST_F(RPCManagerWaitTest, ASleepOnTheInitThreadLastsItsTimeAndPollsInEachSlice) {
    const auto start = std::chrono::steady_clock::now();
    manager.SleepPumping(250);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
    EXPECT_GE(service.polls, 3);
    EXPECT_EQ(manager.WaitMultiple(none, false, 0, false), kWaitTimedOut);
    EXPECT_FALSE(manager.WaitForEvent(nullptr, 1));
}

TEST_F(RPCManagerWaitTest, OtherThreadsWaitWithoutFeedingTheService) {
    std::thread([&] {
        EXPECT_EQ(manager.WaitMultiple(one, false, 1, false), kWaitTimedOut);
        EXPECT_EQ(manager.PollWaitMultiple(one, false, 1, false), kWaitTimedOut);
        EXPECT_EQ(manager.PollWaitMultiple(none, false, kInfinite, false), kWaitFailed);
        EXPECT_EQ(manager.WaitMultiple(none, false, kInfinite, false), kWaitFailed);
        const Names debugs = log.Texts(kLogDebug);
        EXPECT_EQ(debugs.size(), 2u);
        for (const std::string& line : debugs) {
            EXPECT_TRUE(line.starts_with("Called with empty KxEvents vector on different thread: m_hInitThreadId(0x"));
        }
        first.Set();
        EXPECT_EQ(manager.WaitMultiple(one, false, kInfinite, false), kWaitSignaled);
        EXPECT_EQ(manager.PollWaitMultiple(both, false, kInfinite, false), 0);
    }).join();
    EXPECT_EQ(service.polls, 0);
    manager.QSCPluginExit();
    EXPECT_EQ(manager.WaitMultiple(none, false, 0, false), kWaitFailed);
    EXPECT_EQ(service.polls, 0);
}

TEST_F(RPCManagerWaitTest, BadEventsFailTheWait) {
    Events null{nullptr}, nullAmongOthers{&first, nullptr};
    KxEvent closed{true, true};
    const KxEvent taken(std::move(closed));
    Events invalid{&closed};
    for (Events* events : {&null, &nullAmongOthers, &invalid}) {
        EXPECT_EQ(manager.WaitMultiple(*events, false, 1000, false), kWaitFailed);
        EXPECT_EQ(manager.PollWaitMultiple(*events, false, 1000, false), kWaitFailed);
    }
}

TEST_F(RPCManagerWaitTest, ABlockingPollSpendsTheTimeOfAWaitInSlices) {
    KxEvent never(true, false);
    service.onPoll = [&] { never.Wait(service.pollSlices.back()); };
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(manager.PollWaitMultiple(one, false, 250, false), kWaitTimedOut);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
    ASSERT_GE(service.pollSlices.size(), 3u);
    EXPECT_EQ(service.pollSlices[0], 100u);
    EXPECT_LE(*std::max_element(service.pollSlices.begin(), service.pollSlices.end()), 100u);

    service.polls = 0;
    service.onPoll = [&] {
        if (service.polls == 2) second.Set();
    };
    EXPECT_EQ(manager.PollWaitMultiple(both, false, kInfinite, false), 1);
    EXPECT_EQ(service.polls, 2);
    EXPECT_EQ(service.pollSlices.back(), 100u);
    service.pollSlices.clear();
    EXPECT_EQ(manager.PollWaitMultiple(none, false, 0, false), kWaitTimedOut);
    EXPECT_EQ(service.pollSlices[0], 0u);
}

}  // namespace
