#include "runtime/KxPollThread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "runtime/StringUtils.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Pattern.h"

namespace {

constexpr int32_t kPatienceMS = 20000;

// Notes the order of runs, and lets a test wait for them.
class Journal {
public:
    void Note(const std::string& entry) {
        std::lock_guard guard(lock);
        entries.push_back(entry);
        changed.notify_all();
    }
    // The first of them, fewer if the others don't come.
    std::vector<std::string> WaitFor(size_t count) {
        std::unique_lock guard(lock);
        changed.wait_for(guard, std::chrono::milliseconds(kPatienceMS), [&] { return entries.size() >= count; });
        return {entries.begin(), entries.begin() + static_cast<ptrdiff_t>(std::min(count, entries.size()))};
    }
    void Clear() {
        std::lock_guard guard(lock);
        entries.clear();
    }

private:
    std::mutex lock;
    std::vector<std::string> entries;
    std::condition_variable changed;
};

class KxPollThreadTest : public testing::Test {
protected:
    void TearDown() override {
        if (thread) thread->StopScheduler();
    }

    KxPollTask* Add(const std::string& name, KxEvent* event, int32_t timeoutMS, int runs) {
        return thread->AddTask(name, event, timeoutMS, [this, name, runs, left = runs](bool timedOut) mutable {
            journal.Note(name + (timedOut ? ":time" : ":event"));
            return runs < 0 || --left > 0;
        });
    }

    // Outlive the thread: an event that an item doesn't hold is kept by its owner.
    KxEvent firstEvent{false, false};
    KxEvent secondEvent{false, false};
    Journal journal;
    RCPtr<KxPollThread> thread{new KxPollThread("test")};
};

using Entries = std::vector<std::string>;

TEST_F(KxPollThreadTest, EqualClaimsTakeTurns) {
    Add("a", nullptr, 0, 3);
    Add("b", nullptr, 0, 3);
    ASSERT_TRUE(thread->StartScheduler());
    EXPECT_EQ(journal.WaitFor(6), (Entries{"a:time", "b:time", "a:time", "b:time", "a:time", "b:time"}));
    EXPECT_TRUE(thread->WaitForAllItems(kPatienceMS, nullptr, false));
    EXPECT_EQ(thread->GetItemCount(), 0u);
}

TEST_F(KxPollThreadTest, AnEventTriggersItsItemOnly) {
    Add("first", &firstEvent, kNoTimeout, -1);
    Add("second", &secondEvent, kNoTimeout, -1);
    Add("never", nullptr, kNoTimeout, -1);
    ASSERT_TRUE(thread->StartScheduler());
    secondEvent.Set();
    EXPECT_EQ(journal.WaitFor(1), (Entries{"second:event"}));
    firstEvent.Set();
    EXPECT_EQ(journal.WaitFor(2), (Entries{"second:event", "first:event"}));
}

// Queued before the start, so that the first turn finds them all.
TEST_F(KxPollThreadTest, PrecedenceOfTheFirstTurn) {
    struct Case {
        int32_t firstMS, secondMS;
        bool firstSignaled, secondSignaled;
        const char *expected, *reason;
    };
    for (const Case& c : {
             Case{0, kNoTimeout, true, false, "first:event", "the event of an overdue item wins over its time-out"},
             {0, kNoTimeout, false, true, "first:time", "an overdue item goes before a signaled one behind it"},
             {kNoTimeout, 0, true, false, "first:event", "a signaled item ahead of an overdue one wins"},
             {0, 0, false, false, "first:time", "of equal time-outs the front one is first"},
             {0, -1000, false, false, "second:time", "the more overdue one runs, wherever it stands"},
         }) {
        thread = new KxPollThread("turn");
        c.firstSignaled ? firstEvent.Set() : firstEvent.Reset();
        c.secondSignaled ? secondEvent.Set() : secondEvent.Reset();
        journal.Clear();
        Add("first", &firstEvent, c.firstMS, 1);
        Add("second", &secondEvent, c.secondMS, 1);
        ASSERT_TRUE(thread->StartScheduler());
        EXPECT_EQ(journal.WaitFor(1), (Entries{c.expected})) << c.reason;
        thread->StopScheduler();
    }
}

TEST_F(KxPollThreadTest, DisableAndPauseTakeAnItemOut) {
    firstEvent.Set();
    KxPollTask* const item = Add("item", &firstEvent, kNoTimeout, 1);
    const RCPtr<KxPollItem> held(item);
    item->Disable(false);
    item->Disable(false);
    secondEvent.Set();
    Add("marker", &secondEvent, kNoTimeout, -1);
    ASSERT_TRUE(thread->StartScheduler());
    journal.WaitFor(1);
    EXPECT_FALSE(item->Enable());
    secondEvent.Set();
    EXPECT_EQ(journal.WaitFor(2), (Entries{"marker:event", "marker:event"}));
    EXPECT_TRUE(item->Enable());
    EXPECT_EQ(journal.WaitFor(3).back(), "item:event");
    EXPECT_TRUE(item->Enable()) << "counts below 0 too";
}

TEST_F(KxPollThreadTest, AChangeFromOutsideTakesEffectAtOnce) {
    KxPollTask* const item = Add("item", nullptr, 3600000, -1);
    ASSERT_TRUE(thread->StartScheduler());
    EXPECT_GT(item->GetRemainingMS(), 3000000);
    item->SetTimeoutMS(0, true);
    EXPECT_EQ(journal.WaitFor(1), (Entries{"item:time"}));
    item->SetTimeoutMS(kNoTimeout, false);
    EXPECT_EQ(item->GetRemainingMS(), kNoTimeout);
}

TEST_F(KxPollThreadTest, RemovalWaitsForTheRunInProgress) {
    std::atomic<bool> finished{false};
    KxPollTask* const item = thread->AddTask("slow", &firstEvent, 0, [&](bool) {
        journal.Note("in");
        if (!finished) secondEvent.Wait(kPatienceMS);
        finished = true;
        return true;
    });
    const RCPtr<KxPollItem> held(item);
    ASSERT_TRUE(thread->StartScheduler());
    journal.WaitFor(1);
    std::thread remover([&] {
        EXPECT_TRUE(thread->RemoveItem(item, true));
        EXPECT_TRUE(finished);
    });
    secondEvent.Set();
    remover.join();
    EXPECT_FALSE(thread->HasItem(item));
    EXPECT_FALSE(item->WaitForCompletion(0, nullptr)) << "a lone item has nothing to wait for";
}

// The lost wake-up: a run that ends before the remover has begun to wait must not be waited for.
TEST_F(KxPollThreadTest, WaitingForRunsThatEndAtAnyMomentNeverHangs) {
    ASSERT_TRUE(thread->StartScheduler());
    for (int i = 0; i < 300; ++i) {
        const RCPtr<KxPollItem> item(new KxPollTask("busy", [](bool) { return true; }));
        ASSERT_TRUE(thread->AddItem(item.Get(), 0));
        if (i % 2 == 0) std::this_thread::yield();
        item->Disable(true);
        item->Enable();
        ASSERT_TRUE(thread->RemoveItem(item.Get(), true));
    }
    for (int i = 0; i < 100; ++i) {
        for (int n = 0; n < 3; ++n)
            thread->AddTask("busy", static_cast<KxEvent*>(nullptr), 0, [](bool) { return true; });
        thread->RemoveAllItems(true);
        ASSERT_EQ(thread->GetItemCount(), 0u);
    }
}

TEST_F(KxPollThreadTest, AnItemThatRemovesItselfIsntQueuedAgain) {
    const RCPtr<KxPollItem> item(new KxPollTask("self", [&](bool) {
        journal.Note("ran");
        return true;
    }));
    const RCPtr<KxPollItem> remover(new KxPollTask("remover", [&](bool) {
        EXPECT_TRUE(item->RemoveFromPollThread(true)) << "doesn't wait on the scheduler thread";
        journal.Note("removed");
        return false;
    }));
    thread->AddItem(remover.Get(), 0);
    thread->AddItem(item.Get(), kNoTimeout);
    ASSERT_TRUE(thread->StartScheduler());
    EXPECT_EQ(journal.WaitFor(1), (Entries{"removed"}));
    EXPECT_TRUE(thread->WaitForAllItems(kPatienceMS, nullptr, true));
    EXPECT_EQ(thread->GetItemCount(), 0u);
}

TEST_F(KxPollThreadTest, AnExceptionIsLoggedAndRemovesTheItem) {
    LogCapture log(kLogInfo);
    thread->AddTask("bad", static_cast<KxEvent*>(nullptr), 0,
                    [](bool) -> bool { throw std::runtime_error("out of order"); });
    Add("good", nullptr, 0, 1);
    ASSERT_TRUE(thread->StartScheduler());
    EXPECT_EQ(journal.WaitFor(1), (Entries{"good:time"}));
    thread->WaitForAllItems(kPatienceMS, nullptr, false);
    EXPECT_EQ(log.Count("test: Item bad failed: out of order"), 1u);
}

TEST_F(KxPollThreadTest, RefusesNullAndForeignItems) {
    LogCapture log(kLogDebug);
    EXPECT_FALSE(thread->AddItem(nullptr));
    EXPECT_FALSE(thread->RemoveItem(nullptr, false));
    const RCPtr<KxPollThread> other(new KxPollThread("other"));
    const RCPtr<KxPollItem> item(new KxPollItem("item"));
    EXPECT_TRUE(other->AddItem(item.Get()));
    EXPECT_FALSE(thread->AddItem(item.Get()));
    EXPECT_FALSE(thread->RemoveItem(item.Get(), false));
    EXPECT_EQ(log.Count("test: item == NULL"), 2u);
    EXPECT_TRUE(item->GetPollThread() == other);
}

TEST_F(KxPollThreadTest, AnItemOutlivesItsThread) {
    LogCapture log(kLogWarn);
    const RCPtr<KxPollItem> item(new KxPollItem("item"));
    EXPECT_FALSE(item->GetPollThread()) << "lone, and no line";
    {
        const RCPtr<KxPollThread> shortLived(new KxPollThread("short"));
        shortLived->AddItem(item.Get());
    }
    EXPECT_FALSE(item->GetPollThread());
    item->SetTimeoutMS(5, true);
    EXPECT_FALSE(item->WaitForCompletion(0, nullptr));
    EXPECT_EQ(log.Lines().size(), 0u) << "the thread's destructor has taken the item off";
}

TEST_F(KxPollThreadTest, TheLastReferenceEndsTheThread) {
    LogCapture log(kLogInfo);
    const RCPtr<KxEvent> wake(new KxEvent(false, false));
    KxEvent running(false, false);
    {
        RCPtr<KxPollThread> own(new KxPollThread("own"));
        own->AddTask("item", wake, 0, [&](bool) {
            running.Set();
            return true;
        });
        ASSERT_TRUE(own->StartScheduler());
        ASSERT_EQ(running.Wait(kPatienceMS), kWaitSignaled);
    }
    wake->Set();
    ASSERT_TRUE(log.WaitFor(kLogInfo, "Exit - own: I'm the last reference"));
    ASSERT_TRUE(log.WaitFor(kLogInfo, "Thread KxPoll-own was deleted"));
}

TEST_F(KxPollThreadTest, WaitForAllItemsGivesUp) {
    ASSERT_TRUE(thread->StartScheduler());
    EXPECT_TRUE(thread->WaitForAllItems(0, nullptr, true)) << "nothing queued";
    Add("item", nullptr, 3600000, -1);
    EXPECT_FALSE(thread->WaitForAllItems(0, nullptr, false));
    KxEvent abort(true, true);
    EXPECT_FALSE(thread->WaitForAllItems(kNoTimeout, &abort, false));
    EXPECT_FALSE(thread->ImpersonateSession(7));
    EXPECT_TRUE(thread->ImpersonateSession(static_cast<DWORD>(-1)));
}

TEST_F(KxPollThreadTest, DescribesItsItems) {
    LogCapture log(kLogVerbose);
    Add("first", &firstEvent, 1500, -1);
    KxPollTask* const second = Add("second", nullptr, kNoTimeout, -1);
    second->PauseTimer();
    second->Disable(false);
    log.Clear();
    thread->LogAllItems(kLogVerbose);
    ASSERT_EQ(log.Lines().size(), 1u);
    EXPECT_TRUE(Matches(log.Lines()[0].text,
                        "test - 2 items\n"
                        "   first - timeout\\(1\\.500s\\)  elapsed\\([^)]*s\\)  "
                        "paused\\(FALSE\\)  event\\(TRUE\\)  disabled\\(0\\)\n"
                        "   second - timeout\\(INFINITE\\)  elapsed\\([^)]*s\\)  "
                        "paused\\(TRUE\\)  event\\(FALSE\\)  disabled\\(1\\)\n\n"))
        << log.Lines()[0].text;
}

TEST_F(KxPollThreadTest, TellsEachStepOfATurnUnderTheSchedulersName) {
    LogCapture log(kLogVerbose);
    thread->SetLogLevel(kLogTrace);
    Add("item", nullptr, 0, 1);
    ASSERT_TRUE(thread->StartScheduler());
    ASSERT_EQ(journal.WaitFor(1), Entries{"item:time"});
    thread->StopScheduler();
    std::string steps;
    for (const LogCapture::Line& line : log.Lines()) {
        const std::string function = StringUtils::GetFunctionName(line.function.c_str());
        if (line.level == kLogTrace && function == "KxPollThread::Scheduler()") steps += line.text + "\n";
    }
    EXPECT_TRUE(Matches(steps,
                        "test: Prioritized timed item item @ 2\n"
                        "test: Waiting for item \\([^ ]*s\\)\n"
                        "test: Item item timed out\\(2\\); last run [^ ]*s ago\n"
                        "test: Item item took [^ ]*s\n"
                        "test: Waiting for INFINITE\n"))
        << steps;
}

// Threads that change items while others run them; the sanitizers watch.
TEST_F(KxPollThreadTest, ChangesFromManyThreads) {
    ASSERT_TRUE(thread->StartScheduler());
    std::atomic<int> runs{0};
    std::vector<std::thread> changers;
    for (int t = 0; t < 3; ++t) {
        changers.emplace_back([&, t] {
            const RCPtr<KxEvent> event(new KxEvent(false, false));
            for (int i = 0; i < 200; ++i) {
                const RCPtr<KxPollItem> item(new KxPollTask("item", [&](bool) { return ++runs % 3 != 0; }));
                thread->AddItem(item.Get(), event, i % 2 == 0 ? 0 : 5);
                event->Set();
                item->SetRCEvent(i % 3 == 0 ? RCPtr<KxEvent>() : event);
                item->PauseTimer();
                item->ResumeTimer();
                thread->RemoveItem(item.Get(), (i + t) % 2 == 0);
            }
        });
    }
    for (std::thread& changer : changers) changer.join();
    thread->RemoveAllItems(true);
    EXPECT_EQ(thread->GetItemCount(), 0u);
}

}  // namespace
