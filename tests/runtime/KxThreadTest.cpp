#include "runtime/KxThread.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "runtime/StringUtils.h"
#include "runtime/ThreadNumber.h"
#include "tests/support/LogCapture.h"

namespace {

constexpr DWORD kLongMS = 10'000;        // ends a wait that only a fault lets run so long
constexpr uint32_t kHourMS = 3'600'000;  // a pause that no test waits for
constexpr DWORD kGlanceMS = 50;          // long enough to catch a thread that doesn't pause

using Texts = std::vector<std::string>;

// What a thread under test runs: body, with the number of the call from 1.
struct Script {
    std::function<bool(int, KxThread*)> body;
    std::atomic<int> calls{0};

    static bool Call(void* userData, KxThread* thread) {
        auto* script = static_cast<Script*>(userData);
        return script->body(++script->calls, thread);
    }
    bool StartOn(KxThread& thread, uint32_t intervalMS = kHourMS) {
        return thread.Start(Call, this, intervalMS, false);
    }
};

std::string Numbered(const char* format, uint64 number) {
    return StringUtils::Format("%s(0x%08llX)", format, static_cast<unsigned long long>(number));
}

class KxThreadTest : public testing::Test {
protected:
    KxThread thread{"worker"};
};

TEST_F(KxThreadTest, CallsBackUntilTheCallbackHasFinished) {
    const LogCapture log(kLogInfo);
    Script script{.body = [](int call, KxThread*) { return call < 3; }};
    ASSERT_TRUE(script.StartOn(thread, 0));
    ASSERT_TRUE(thread.WaitForStop(kLongMS));
    EXPECT_EQ(script.calls, 3);
    EXPECT_EQ(thread.GetStopEvent()->Wait(0), kWaitSignaled);
    EXPECT_EQ(thread.GetThreadId(), 0u);
    EXPECT_EQ(log.Texts(kLogInfo), (Texts{"Thread worker started", "Thread worker exited by callback"}));
}

TEST_F(KxThreadTest, StopCutsThePauseShortWithoutAnotherCall) {
    const LogCapture log(kLogInfo);
    for (size_t round = 1; round <= 2; ++round) {  // a thread starts again after a join
        KxEvent called(false, false);
        Script script{.body = [&](int, KxThread*) { return called.Set(); }};
        ASSERT_TRUE(script.StartOn(thread));
        EXPECT_TRUE(thread.IsRunning());
        ASSERT_EQ(called.Wait(kLongMS), kWaitSignaled);
        thread.Signal();
        ASSERT_EQ(called.Wait(kLongMS), kWaitSignaled) << "a signal ends the pause";
        EXPECT_TRUE(thread.Stop(kLongMS));
        EXPECT_FALSE(thread.IsRunning());
        EXPECT_EQ(script.calls, 2);
        EXPECT_EQ(log.Count("Thread worker exited"), round);
    }
}

TEST_F(KxThreadTest, ASignalOrAShorterNextWaitHoldsForOnePause) {
    KxEvent third(false, false), fourth(false, false);
    Script script{.body = [&](int call, KxThread* self) {
        if (call == 1) self->Signal();
        if (call == 2) {
            for (const uint32_t waitMS : {500u, 5u, 2 * kHourMS}) self->SetNextWaitMS(waitMS);
        }
        return call < 3 || (call == 3 ? third : fourth).Set();
    }};
    ASSERT_TRUE(script.StartOn(thread));
    EXPECT_EQ(third.Wait(kLongMS), kWaitSignaled);
    EXPECT_EQ(fourth.Wait(kGlanceMS), kWaitTimedOut);
    EXPECT_TRUE(thread.Stop(kLongMS));
}

TEST_F(KxThreadTest, HasNothingToWaitForWithoutAThread) {
    const LogCapture log;
    KxThread movedFrom("worker");
    KxThread unstarted(std::move(movedFrom));
    for (KxThread* each : {&unstarted, &movedFrom}) {
        EXPECT_TRUE(each->IsStopped() && each->Stop(kInfinite) && each->WaitForStop(kInfinite));
        EXPECT_TRUE(each->Terminate(1) && each->Sleep(kInfinite));
        EXPECT_EQ(each->GetThreadId(), 0u);
        EXPECT_FALSE(each->IsCurrentThread());
    }
    EXPECT_EQ(unstarted.GetStopEvent()->Wait(0), kWaitSignaled);
    Script script{.body = [](int, KxThread*) { return false; }};
    EXPECT_FALSE(script.StartOn(movedFrom));
    movedFrom.Signal();
    movedFrom.SetNextWaitMS(0);
    movedFrom.SetName("nothing");
    EXPECT_EQ(movedFrom.GetName(), "");
    EXPECT_FALSE(movedFrom.GetWakeEvent() || movedFrom.GetStopEvent() || movedFrom.GetExitedEvent());
    EXPECT_TRUE(log.Lines().empty());
}

// Both are set while the callback runs, so the pause finds both.
TEST_F(KxThreadTest, StopWinsOverSignal) {
    Script script{.body = [](int, KxThread* self) {
        self->Signal();
        self->Stop(0);
        return true;
    }};
    ASSERT_TRUE(script.StartOn(thread, 0));
    ASSERT_TRUE(thread.WaitForStop(kLongMS));
    EXPECT_EQ(script.calls, 1);
}

TEST_F(KxThreadTest, KnowsItselfAndDoesNotWaitForItself) {
    const LogCapture log(kLogWarn);
    Script script{.body = [](int, KxThread* self) {
        EXPECT_TRUE(self->IsCurrentThread());
        EXPECT_EQ(self->GetThreadId(), GetThreadNumber());
        EXPECT_FALSE(self->WaitForStop(kInfinite) || self->Stop(kInfinite) || self->Terminate(1));
        EXPECT_EQ(self->GetStopEvent()->Wait(0), kWaitSignaled);
        return true;
    }};
    ASSERT_TRUE(script.StartOn(thread));
    EXPECT_FALSE(thread.IsCurrentThread());
    ASSERT_TRUE(thread.WaitForStop(kLongMS));
    EXPECT_EQ(script.calls, 1);
    EXPECT_TRUE(log.Lines().empty()) << "refusing itself is no warning";
}

TEST_F(KxThreadTest, IsNeitherEndedByForceNorStartedAgainBeforeItIsJoined) {
    const LogCapture log(kLogWarn);
    KxEvent go(true, false);
    EXPECT_FALSE(thread.Start(nullptr, nullptr, 0, false));
    Script script{.body = [&](int, KxThread*) { return go.Wait(kLongMS) != kWaitSignaled; }};
    ASSERT_TRUE(script.StartOn(thread));
    const uint64 number = thread.GetThreadId();
    ASSERT_NE(number, 0u);
    EXPECT_FALSE(thread.StopOrTerminate(5, 1) || thread.IsStopped() || script.StartOn(thread)) << "it runs";
    go.Set();
    ASSERT_EQ(thread.GetExitedEvent()->Wait(kLongMS), kWaitSignaled);
    EXPECT_FALSE(thread.Terminate(1) || script.StartOn(thread)) << "it has ended and isn't joined";
    EXPECT_TRUE(thread.StopOrTerminate(kLongMS, 1));
    EXPECT_TRUE(thread.Terminate(1)) << "it is joined";
    EXPECT_EQ(log.Texts(kLogWarn), (Texts{Numbered("Attempt to terminate thread worker", number) + " not supported",
                                          "Attempt to terminate thread worker(0x00000000) not supported"}));
}

TEST_F(KxThreadTest, MayBeDestroyedByItsOwnCallback) {
    const LogCapture log(kLogDebug);
    auto owned = std::make_unique<KxThread>("worker");
    KxThread& started = *owned;
    KxEvent go(true, false);
    std::string dropped;
    Script script{.body = [&](int, KxThread* self) {
        go.Wait(kLongMS);
        dropped = Numbered("Setting deleted flag for thread worker", self->GetThreadId());
        owned.reset();
        return true;
    }};
    ASSERT_TRUE(script.StartOn(started, 0));
    go.Set();
    ASSERT_TRUE(log.WaitFor(kLogInfo, "Thread worker was deleted"));
    EXPECT_EQ(script.calls, 1);
    EXPECT_EQ(log.Texts(kLogDebug), Texts{dropped});
    EXPECT_EQ(log.Lines()[1].text, dropped) << "ahead of the line of the end";
}

// Nobody stops a thread whose handle goes during a pause: it makes one more call, without a handle. Whether the thread
// has reached its pause can't be seen from outside, so each round gives it more time.
TEST_F(KxThreadTest, CallsBackOnceMoreWithoutAHandleThatWentDuringThePause) {
    const KxEvent never(false, false);
    int calls = 1;
    for (DWORD patienceMS = 1; calls == 1 && patienceMS < 2000; patienceMS *= 2) {
        const LogCapture log(kLogInfo);
        auto owned = std::make_unique<KxThread>("worker");
        KxEvent called(false, false), wake(*owned->GetWakeEvent());
        KxThread* seen = nullptr;
        Script script{.body = [&](int, KxThread* self) {
            seen = self;
            return called.Set();
        }};
        ASSERT_TRUE(script.StartOn(*owned));
        ASSERT_EQ(called.Wait(kLongMS), kWaitSignaled);
        EXPECT_EQ(seen, owned.get());
        EXPECT_EQ(KxEvent(never).Wait(patienceMS), kWaitTimedOut);
        owned.reset();
        wake.Set();
        ASSERT_TRUE(log.WaitFor(kLogInfo, "Thread worker was deleted"));
        calls = script.calls;
        if (calls == 2) {
            EXPECT_EQ(seen, nullptr);
        }
    }
    EXPECT_EQ(calls, 2);
}

TEST_F(KxThreadTest, FollowsAMovedHandle) {
    const LogCapture log(kLogInfo);
    KxEvent called(false, false);
    KxThread* seen = nullptr;
    Script script{.body = [&](int, KxThread* self) {
        seen = self;
        return called.Set();
    }};
    Script dropped{.body = [](int, KxThread*) { return true; }};
    KxThread first("first");
    ASSERT_TRUE(script.StartOn(first));
    ASSERT_EQ(called.Wait(kLongMS), kWaitSignaled);
    KxThread second(std::move(first));
    second.Signal();
    ASSERT_EQ(called.Wait(kLongMS), kWaitSignaled);
    EXPECT_EQ(seen, &second);
    KxThread third("third");
    ASSERT_TRUE(dropped.StartOn(third, 1));
    third = std::move(second);
    EXPECT_TRUE(log.WaitFor(kLogInfo, "Thread third was deleted"));
    third.Signal();
    ASSERT_EQ(called.Wait(kLongMS), kWaitSignaled);
    EXPECT_EQ(seen, &third);
    EXPECT_EQ(third.GetName(), "first");
    EXPECT_TRUE(third.Stop(kLongMS));
}

TEST_F(KxThreadTest, SleepsUntilTheTimeRunsOutOrSomebodyCutsItShort) {
    KxEvent sleeping(false, false);
    Script script{.body = [&](int, KxThread* self) {
        EXPECT_FALSE(self->Sleep(1));
        sleeping.Set();
        EXPECT_FALSE(self->Sleep(kInfinite)) << "a signal";
        sleeping.Set();
        EXPECT_TRUE(self->Sleep(kInfinite)) << "a stop";
        return true;
    }};
    ASSERT_TRUE(script.StartOn(thread));
    ASSERT_EQ(sleeping.Wait(kLongMS), kWaitSignaled);
    thread.Signal();
    ASSERT_EQ(sleeping.Wait(kLongMS), kWaitSignaled);
    EXPECT_TRUE(thread.Stop(kLongMS));
}

TEST_F(KxThreadTest, IsKnownToTheSystemByItsName) {
    const auto systemName = [](pthread_t id) {
        char name[16] = "";
        pthread_getname_np(id, name, sizeof name);
        return std::string(name);
    };
    KxThread named("a name of twenty-six bytes");
    KxEvent called(false, false);
    std::string seen;
    pthread_t native{};
    Script script{.body = [&](int, KxThread*) {
        native = pthread_self();
        seen = systemName(native);
        return called.Set();
    }};
    ASSERT_TRUE(script.StartOn(named));
    ASSERT_EQ(called.Wait(kLongMS), kWaitSignaled);
    EXPECT_EQ(seen, "a name of twent");
    named.SetName("renamed");
    EXPECT_EQ(named.GetName(), "renamed");
    EXPECT_EQ(systemName(native), "renamed");
    EXPECT_TRUE(named.Stop(kLongMS));
    const KxThread unnamed;
    EXPECT_EQ(unnamed.GetName(), StringUtils::Format("0x%p", static_cast<const void*>(&unnamed)));
}

// A signal is no sign that the new thread is there.
TEST_F(KxThreadTest, HasItsNumberWhenStartReturnsWhoeverSignals) {
    std::atomic<bool> done{false};
    std::thread signaller([&] {
        while (!done) {
            thread.Signal();
            std::this_thread::yield();
        }
    });
    for (int round = 0; round < 50; ++round) {
        Script script{.body = [](int, KxThread*) { return true; }};
        EXPECT_TRUE(script.StartOn(thread));
        EXPECT_NE(thread.GetThreadId(), 0u);
        EXPECT_TRUE(thread.Stop(kLongMS));
    }
    done = true;
    signaller.join();
}

TEST_F(KxThreadTest, IsJoinedOnceByManyWaiters) {
    const LogCapture log(kLogWarn);
    for (int round = 0; round < 20; ++round) {
        KxEvent go(true, false);
        Script script{.body = [&](int, KxThread*) { return go.Wait(kLongMS) != kWaitSignaled; }};
        EXPECT_TRUE(script.StartOn(thread));
        std::atomic<int> ended{0};
        std::vector<std::thread> waiters;
        for (int i = 0; i < 4; ++i) waiters.emplace_back([&] { ended += thread.WaitForStop(kLongMS) ? 1 : 0; });
        go.Set();
        for (std::thread& waiter : waiters) waiter.join();
        EXPECT_EQ(ended, 4);
    }
    EXPECT_TRUE(log.Lines().empty());
}

// A waiter that comes late to the end of one run finds the next one, and must not wait for that under the thread's
// lock.
TEST_F(KxThreadTest, WaitersOfOneRunLeaveTheNextOneAlone) {
    std::atomic<bool> done{false};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 2; ++i) {
        waiters.emplace_back([&] {
            while (!done) EXPECT_TRUE(thread.WaitForStop(kLongMS));
        });
    }
    Script script{.body = [](int, KxThread*) { return true; }};
    for (int round = 0; round < 150; ++round) {
        EXPECT_TRUE(script.StartOn(thread)) << round;
        EXPECT_TRUE(thread.Stop(kLongMS));
    }
    done = true;
    for (std::thread& waiter : waiters) waiter.join();
}

// Gives new threads a stack that no address space holds.
class NoRoomForThreads {
public:
    NoRoomForThreads() {
        pthread_getattr_default_np(&saved);
        pthread_attr_t huge;
        pthread_attr_init(&huge);
        pthread_attr_setstacksize(&huge, sizeof(size_t) == 4 ? size_t{0xF0000000} : SIZE_MAX / 4);
        pthread_setattr_default_np(&huge);
        pthread_attr_destroy(&huge);
    }
    ~NoRoomForThreads() {
        pthread_setattr_default_np(&saved);
        pthread_attr_destroy(&saved);
    }

private:
    pthread_attr_t saved;
};

TEST_F(KxThreadTest, StaysUsableWhenTheSystemRefusesAThread) {
    const LogCapture log(kLogError);
    Script script{.body = [](int, KxThread*) { return false; }};
    {
        const NoRoomForThreads noRoom;
        ASSERT_FALSE(script.StartOn(thread));
    }
    EXPECT_TRUE(log.WaitForPrefix(kLogError, "Failed to start thread worker: "));
    EXPECT_TRUE(thread.IsStopped());
    ASSERT_TRUE(script.StartOn(thread));
    EXPECT_TRUE(thread.WaitForStop(kLongMS));
    EXPECT_EQ(script.calls, 1);
}

}  // namespace
