#include "runtime/KxEvent.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr DWORD kLongMS = 10'000;  // ends a wait that only a fault lets run so long
constexpr bool kManual = true;
constexpr bool kAuto = false;

// A thread inside a wait. The constructor returns when the thread sleeps in it.
class Sleeper {
public:
    explicit Sleeper(std::function<int()> wait) {
        std::atomic<pid_t> id{0};
        thread = std::thread([this, &id, wait = std::move(wait)] {
            id = gettid();
            result = wait();
        });
        // A thread may pass through a short sleep on its way, so it must be found asleep several times.
        for (int seen = 0; seen < 20; seen = id != 0 && IsAsleep(id) ? seen + 1 : 0) sched_yield();
    }
    Sleeper(const Sleeper&) = delete;
    Sleeper& operator=(const Sleeper&) = delete;
    ~Sleeper() {
        if (thread.joinable()) thread.join();
    }

    int Result() {
        thread.join();
        return result;
    }

private:
    static bool IsAsleep(pid_t id) {
        std::ifstream file("/proc/self/task/" + std::to_string(id) + "/stat");
        std::string stat;
        std::getline(file, stat);
        const size_t end = stat.rfind(") ");
        return end != std::string::npos && stat[end + 2] == 'S';
    }

    int result = kWaitAlerted;
    std::thread thread;
};

// Events that are named by their positions in a text: "a" auto-reset, "m" manual-reset, in upper case if signaled.
class EventList {
public:
    explicit EventList(const std::string& text) {
        for (const char c : text) {
            const bool signaled = c == 'A' || c == 'M';
            events.push_back(std::make_unique<KxEvent>(c == 'M' || c == 'm', signaled, std::string(1, c)));
            pointers.push_back(events.back().get());
        }
    }

    KxEvent& operator[](size_t i) { return *events[i]; }
    int Wait(bool waitAll, DWORD timeoutMS) { return KxEvent::WaitMultiple(pointers, waitAll, timeoutMS, false); }
    void Close(size_t i) { *events[i] = KxEvent(kManual, false); }

    // Takes the signals: "1" for each signaled event.
    std::string Signals() {
        std::string text;
        for (const auto& event : events) text += event->Wait(0) == kWaitSignaled ? '1' : '0';
        return text;
    }

private:
    std::vector<std::unique_ptr<KxEvent>> events;
    std::vector<KxEvent*> pointers;
};

TEST(KxEvent, KeepsASignalUntilItIsTakenOrReset) {
    for (const bool manualReset : {false, true}) {
        for (const bool initialState : {false, true}) {
            KxEvent event(manualReset, initialState, "event");
            EXPECT_EQ(event.Wait(0), initialState ? kWaitSignaled : kWaitTimedOut);
            EXPECT_TRUE(event.Set() && event.Set());
            EXPECT_EQ(event.Wait(0), kWaitSignaled);
            EXPECT_EQ(event.Wait(0), manualReset ? kWaitSignaled : kWaitTimedOut);
            EXPECT_TRUE(event.Set() && event.Reset());
            EXPECT_EQ(event.Wait(0), kWaitTimedOut);
        }
    }
}

TEST(KxEvent, TimesOutAfterItsLimitAndLeavesNothingBehind) {
    constexpr DWORD kLimitMS = 30;
    EventList list("am");
    for (const auto& wait : std::vector<std::function<int()>>{[&] { return list[0].Wait(kLimitMS); },
                                                              [&] { return list.Wait(false, kLimitMS); },
                                                              [&] { return list.Wait(true, kLimitMS); }}) {
        const auto start = Clock::now();
        EXPECT_EQ(wait(), kWaitTimedOut);
        EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(kLimitMS));
    }
    EXPECT_TRUE(list[0].Set());
    EXPECT_EQ(list.Signals(), "10") << "no wait of the past takes the signal";
}

TEST(KxEvent, IsSharedByCopiesAndLeftBehindByMoves) {
    KxEvent original(kAuto, false, "event");
    std::optional<KxEvent> copy(original);
    EXPECT_EQ(copy->GetHandle(), original.GetHandle());
    EXPECT_TRUE(copy->Set());
    EXPECT_EQ(original.Wait(0), kWaitSignaled);
    copy.reset();
    EXPECT_TRUE(original.Set()) << "open until the last copy goes";

    KxEvent moved(std::move(original));
    EXPECT_FALSE(original.IsValid() || original.GetHandle() || original.Set() || original.Reset());
    EXPECT_EQ(original.Wait(kInfinite), kWaitFailed);
    EXPECT_EQ(moved.Wait(0), kWaitSignaled);

    original = moved;
    KxEvent& same = original;
    original = same;
    original = std::move(same);
    EXPECT_EQ(original.GetHandle(), moved.GetHandle());
    moved = KxEvent(original);
    EXPECT_TRUE(moved.Set());
    EXPECT_EQ(original.Wait(0), kWaitSignaled);
    const KxEvent taker(std::move(moved));
    EXPECT_FALSE(KxEvent(moved).IsValid());
}

TEST(KxEvent, FailsAllItsWaitersWhenItsLastHandleCloses) {
    KxEvent other(kManual, false);
    struct Case {
        const char* name;
        std::function<void(std::optional<KxEvent>&)> act;
        int single, list;  // what the waits return
    };
    for (const Case& c : {
             Case{"destroyed", [](auto& event) { event.reset(); }, kWaitFailed, kWaitFailed},
             {"copied over", [&](auto& event) { *event = other; }, kWaitFailed, kWaitFailed},
             {"moved over", [&](auto& event) { *event = KxEvent(other); }, kWaitFailed, kWaitFailed},
             {"moved away", [](auto& event) { KxEvent(std::move(*event)); }, kWaitFailed, kWaitFailed},
             {"a copy closed",
              [](auto& event) {
                  KxEvent(*event).Set();
                  event->Set();
              },
              kWaitSignaled, 1},
         }) {
        std::optional<KxEvent> event;
        event.emplace(kAuto, false);
        std::vector<KxEvent*> events{&other, &*event};
        Sleeper single([raw = &*event] { return raw->Wait(kLongMS); });
        Sleeper list([&] { return KxEvent::WaitMultiple(events, false, kLongMS, false); });
        c.act(event);
        EXPECT_EQ(single.Result(), c.single) << c.name;
        EXPECT_EQ(list.Result(), c.list) << c.name;
        EXPECT_TRUE(other.IsValid());
    }
}

TEST(KxEventWaitMultiple, TakesTheLowestSignalForAnyAndAllOrNothingForAll) {
    struct Case {
        const char* events;
        bool waitAll;
        int expected;
        const char* left;  // the signals after the wait
    };
    for (const Case& c : {
             Case{"", true, 0, ""},
             {"", false, kWaitTimedOut, ""},
             {"aaa", false, kWaitTimedOut, "000"},
             {"aAaA", false, 1, "0001"},
             {"aMAm", false, 1, "0110"},
             {"AMa", true, kWaitTimedOut, "110"},
             {"AMA", true, 0, "010"},
         }) {
        for (const DWORD timeoutMS : {0u, 1u}) {
            EventList list(c.events);
            EXPECT_EQ(list.Wait(c.waitAll, timeoutMS), c.expected) << c.events << timeoutMS;
            EXPECT_EQ(list.Signals(), c.left) << c.events << timeoutMS;
        }
    }
}

TEST(KxEventWaitMultiple, FailsForAListWithAnEventThatIsMissingAndTakesNothing) {
    KxEvent signaled(kAuto, true), invalid(kAuto, true);
    const KxEvent taker(std::move(invalid));
    for (KxEvent* bad : {&invalid, static_cast<KxEvent*>(nullptr)}) {
        std::vector<KxEvent*> events{&signaled, bad};
        EXPECT_EQ(KxEvent::WaitMultiple(events, false, kInfinite, false), kWaitFailed);
    }
    EXPECT_EQ(signaled.Wait(0), kWaitSignaled);
}

TEST(KxEventWaitMultiple, WakesWhenTheListIsSatisfied) {
    const std::string many(40, 'a'), none(40, '0');
    struct Case {
        std::string events;
        bool waitAll;
        std::vector<size_t> sets;
        int expected;
        std::string left;
    };
    for (const Case& c : {
             Case{"aaa", false, {1}, 1, "000"},
             {"ama", false, {1}, 1, "010"},
             {many, false, {39}, 39, none},
             {"aa", true, {1, 1, 0}, 0, "00"},
             {"aMm", true, {0, 2}, 0, "011"},
         }) {
        EventList list(c.events);
        Sleeper sleeper([&] { return list.Wait(c.waitAll, kLongMS); });
        for (const size_t i : c.sets) EXPECT_TRUE(list[i].Set());
        EXPECT_EQ(sleeper.Result(), c.expected) << c.events;
        EXPECT_EQ(list.Signals(), c.left) << c.events;
    }
}

TEST(KxEventWaitMultiple, LeavesASignalThatDoesNotSatisfyAllToOthers) {
    EventList list("aa");
    Sleeper sleeper([&] { return list.Wait(true, kLongMS); });
    list[0].Set();
    EXPECT_EQ(list[0].Wait(0), kWaitSignaled);
    list[1].Set();
    list[0].Set();
    EXPECT_EQ(sleeper.Result(), 0);
    EXPECT_EQ(list.Signals(), "00");
}

TEST(KxEventWaitMultiple, TakesAnEventThatIsListedTwice) {
    KxEvent event(kAuto, false);
    std::vector<KxEvent*> events{&event, &event};
    for (const bool waitAll : {false, true}) {
        Sleeper sleeper([&] { return KxEvent::WaitMultiple(events, waitAll, kLongMS, false); });
        event.Set();
        EXPECT_EQ(sleeper.Result(), 0);
        EXPECT_EQ(event.Wait(0), kWaitTimedOut);
    }
}

TEST(KxEventWaitMultiple, LeavesTheOtherEventsUntouchedWhenOneCloses) {
    for (const bool waitAll : {false, true}) {
        EventList list("aaa");
        Sleeper sleeper([&] { return list.Wait(waitAll, kLongMS); });
        if (waitAll) list[0].Set();
        list.Close(1);
        EXPECT_EQ(sleeper.Result(), kWaitFailed);
        list[2].Set();
        EXPECT_EQ(list.Signals(), waitAll ? "101" : "001");
    }
}

// What waits on the event: 's' the event alone, 'l' a list with another event for any, 'L' for all.
TEST(KxEvent, GivesAutoResetSignalsToTheWaitersInTheOrderOfTheirArrival) {
    for (const std::string order : {"ss", "ls", "sL", "Lls"}) {
        EventList list("aM");
        EventList clear("m");
        std::vector<std::unique_ptr<Sleeper>> sleepers;
        for (const char kind : order) {
            sleepers.push_back(std::make_unique<Sleeper>([&, kind] {
                if (kind == 's') return list[0].Wait(kLongMS);
                std::vector<KxEvent*> events{&list[0], kind == 'L' ? &list[1] : &clear[0]};
                return KxEvent::WaitMultiple(events, kind == 'L', kLongMS, false);
            }));
        }
        // Had a signal gone to a younger one, the older would time out.
        for (const auto& sleeper : sleepers) {
            list[0].Set();
            EXPECT_EQ(sleeper->Result(), kWaitSignaled) << order;
        }
        EXPECT_EQ(list[0].Wait(0), kWaitTimedOut) << order;
    }
}

TEST(KxEvent, WakesAllWaitersInManualResetModeEvenIfItIsResetAtOnce) {
    EventList list("mm");
    Sleeper first([&] { return list[1].Wait(kLongMS); });
    Sleeper second([&] { return list[1].Wait(kInfinite); });
    Sleeper third([&] { return list.Wait(false, kInfinite); });
    EXPECT_TRUE(list[1].Set() && list[1].Reset());
    EXPECT_EQ(first.Result(), 0);
    EXPECT_EQ(second.Result(), 0);
    EXPECT_EQ(third.Result(), 1);
}

// Each signal must reach exactly one wait, however waits, time-outs and signals cross.
TEST(KxEvent, DeliversEachSignalOnceWhileWaitsComeAndGo) {
    constexpr int kSignals = 1500;
    EventList list("aaMm");  // the signal, its receipt, always there, never there
    std::atomic<int> taken{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> waiters;
    std::vector<KxEvent*> withClear{&list[0], &list[3]}, withSignaled{&list[2], &list[0]};
    for (const auto& wait : std::vector<std::function<int()>>{
             [&] { return list[0].Wait(1); }, [&] { return KxEvent::WaitMultiple(withClear, false, 1, false); },
             [&] { return KxEvent::WaitMultiple(withSignaled, true, 2, false); }}) {
        waiters.emplace_back([&, wait] {
            while (!stop) {
                const int result = wait();
                ASSERT_TRUE(result == kWaitSignaled || result == kWaitTimedOut) << result;
                if (result == kWaitTimedOut) continue;
                ++taken;
                list[1].Set();
            }
        });
    }
    for (int i = 0; i < kSignals; ++i) {
        ASSERT_TRUE(list[0].Set());
        ASSERT_EQ(list[1].Wait(kLongMS), kWaitSignaled) << "signal " << i << " is lost";
        ASSERT_EQ(taken, i + 1);
    }
    stop = true;
    for (std::thread& waiter : waiters) waiter.join();
    EXPECT_EQ(list[0].Wait(0), kWaitTimedOut);
}

TEST(KxEvent, LetsTwoListsWithTheSameEventsInOppositeOrderCross) {
    constexpr int kRounds = 1000;
    EventList list("aaa");  // two that are waited for, and the receipt
    std::vector<KxEvent*> forward{&list[0], &list[1]};
    std::vector<KxEvent*> backward{&list[1], &list[0]};
    std::vector<std::thread> waiters;
    for (auto* events : {&forward, &backward}) {
        waiters.emplace_back([&, events] {
            for (int i = 0; i < kRounds / 2; ++i) {
                ASSERT_EQ(KxEvent::WaitMultiple(*events, true, kLongMS, false), kWaitSignaled);
                list[2].Set();
            }
        });
    }
    for (int i = 0; i < kRounds; ++i) {
        list[static_cast<size_t>(i % 2)].Set();
        list[static_cast<size_t>(1 - i % 2)].Set();
        ASSERT_EQ(list[2].Wait(kLongMS), kWaitSignaled) << i;
    }
    for (std::thread& waiter : waiters) waiter.join();
    EXPECT_EQ(list.Signals(), "000");
}

// The one who waits may destroy the event as soon as its wait is over, though the one who set it is still in Set.
TEST(KxEvent, MayBeDestroyedAsSoonAsAWaitIsSatisfied) {
    std::atomic<KxEvent*> slot{nullptr};
    constexpr int kRounds = 1000;
    std::thread setter([&] {
        for (int i = 0; i < kRounds; ++i) {
            KxEvent* event;
            while (!(event = slot.exchange(nullptr))) sched_yield();
            EXPECT_TRUE(event->Set());
        }
    });
    for (int i = 0; i < kRounds; ++i) {
        KxEvent event(kManual, false);
        slot = &event;
        if (i % 2 == 0) {
            EXPECT_EQ(event.Wait(kLongMS), kWaitSignaled);
        } else {
            while (event.Wait(0) != kWaitSignaled) sched_yield();
        }
    }
    setter.join();
}

}  // namespace
