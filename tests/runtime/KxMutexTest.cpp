#include "runtime/KxMutex.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "runtime/StringUtils.h"
#include "tests/support/LogCapture.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr DWORD kLongMS = 10'000;  // ends a wait that only a fault lets run so long

// Apart from the analysis of locks: these tests misuse them on purpose.
bool Acquire(KxMutex& mutex, DWORD timeoutMS = kInfinite) NO_THREAD_SAFETY_ANALYSIS {
    return mutex.Acquire(timeoutMS);
}
bool Release(KxMutex& mutex) NO_THREAD_SAFETY_ANALYSIS {
    return mutex.Release();
}

// Whether another thread gets the lock at once; gives it back if so.
bool IsFree(KxMutex& mutex) {
    bool taken = false;
    std::thread([&] {
        taken = Acquire(mutex, 0);
        if (taken) Release(mutex);
    }).join();
    return taken;
}

// Of a mutex that the calling thread holds.
std::string DeadlockReport(const KxMutex& mutex) {
    return StringUtils::Format("Possible deadlock trying to acquire lock 0x%p held by thread 0x%08llX",
                               static_cast<const void*>(&mutex), static_cast<unsigned long long>(GetThreadNumber()));
}

class KxMutexTest : public testing::Test {
protected:
    ~KxMutexTest() override { KxMutexData::deadlockReportMS = KxMutexData::kDeadlockReportMS; }
};

TEST_F(KxMutexTest, IsHeldUntilEachAcquireIsUndone) {
    KxMutex mutex(true, "named");  // held once by its maker
    for (int depth = 1; depth < 3; ++depth) EXPECT_TRUE(Acquire(mutex, depth == 1 ? 0 : kInfinite));
    for (int depth = 3; depth > 0; --depth) {
        std::thread([&] { EXPECT_FALSE(Release(mutex)) << "another thread"; }).join();
        EXPECT_FALSE(IsFree(mutex)) << depth;
        EXPECT_TRUE(Release(mutex));
    }
    EXPECT_TRUE(IsFree(mutex));
    EXPECT_FALSE(Release(mutex)) << "nobody holds it";
}

TEST_F(KxMutexTest, IsSharedByCopiesAndLeftBehindByMoves) {
    KxMutex original;
    {
        KxMutex passing(original);
        ASSERT_TRUE(Acquire(passing));
    }
    EXPECT_FALSE(IsFree(original)) << "the end of a KxMutex releases nothing";
    EXPECT_TRUE(Release(original));

    KxMutex copy(original);
    KxMutex moved(std::move(original));
    EXPECT_FALSE(original.IsValid());
    EXPECT_FALSE(Acquire(original, kInfinite) || Release(original));
    {
        KxMutexGuard guard(original);  // holds nothing, and doesn't fault
    }
    original = copy;
    KxMutex other;
    other = std::move(copy);
    EXPECT_FALSE(copy.IsValid());
    ASSERT_TRUE(Acquire(moved));
    EXPECT_FALSE(IsFree(original));
    EXPECT_FALSE(IsFree(other));
    EXPECT_TRUE(Release(other));
}

TEST_F(KxMutexTest, GivesUpWhenItsLimitHasPassedAndNotBefore) {
    KxMutexData::deadlockReportMS = 1;
    KxMutex mutex(true);
    const LogCapture capture;
    std::thread([&] {
        const auto start = Clock::now();
        EXPECT_FALSE(Acquire(mutex, 30));
        EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(30));
    }).join();
    EXPECT_TRUE(capture.Lines().empty()) << "only a wait without limit reports a deadlock";
}

TEST_F(KxMutexTest, ReportsADeadlockOnceAndStillWaitsForTheHolder) {
    KxMutexData::deadlockReportMS = 20;
    const LogCapture capture(kLogWarn);
    KxMutex mutex(true);
    const std::string report = DeadlockReport(mutex);
    bool acquired = false;
    std::thread waiter([&] {
        acquired = Acquire(mutex, kInfinite);
        EXPECT_TRUE(Release(mutex));
    });
    EXPECT_TRUE(capture.WaitFor(kLogWarn, report));
    // Five more report times pass for another caller.
    std::thread([&] { EXPECT_FALSE(Acquire(mutex, 100)); }).join();
    EXPECT_TRUE(Release(mutex));
    waiter.join();
    EXPECT_TRUE(acquired);
    ASSERT_EQ(capture.Lines().size(), 1u);
    EXPECT_EQ(capture.Lines()[0].function, "bool KxMutex::Acquire(DWORD)");
}

TEST_F(KxMutexTest, LetsAWaiterFinishWhoseKxMutexIsDestroyed) {
    KxMutexData::deadlockReportMS = 1;
    const LogCapture capture(kLogWarn);
    auto mutex = std::make_unique<KxMutex>(true);
    bool acquired = false;
    std::thread waiter([&, raw = mutex.get()]() { acquired = Acquire(*raw, kInfinite); });
    EXPECT_TRUE(capture.WaitFor(kLogWarn, DeadlockReport(*mutex)));
    {
        KxMutex copy(*mutex);
        mutex.reset();
        EXPECT_TRUE(Release(copy));
    }
    waiter.join();
    EXPECT_TRUE(acquired);
}

TEST_F(KxMutexTest, LetsOneThreadInAtATime) {
    constexpr int kThreads = 4;
    constexpr int kTurns = 2000;
    KxMutex mutex;
    int inside = 0;
    int turns = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, limit = t % 2 ? kLongMS : kInfinite]() {
            for (int i = 0; i < kTurns; ++i) {
                ASSERT_TRUE(Acquire(mutex, limit));
                ASSERT_TRUE(Acquire(mutex, 0));
                EXPECT_EQ(++inside, 1);
                ++turns;
                --inside;
                ASSERT_TRUE(Release(mutex));
                ASSERT_TRUE(Release(mutex));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(turns, kThreads * kTurns);
}

TEST_F(KxMutexTest, GuardHoldsItsScopeButForTheGap) {
    KxMutex mutex;
    {
        KxMutexGuard guard(mutex);
        guard.Unlock();
        EXPECT_TRUE(IsFree(mutex));
        guard.Lock();
        EXPECT_FALSE(IsFree(mutex));
    }
    EXPECT_TRUE(IsFree(mutex));
}

}  // namespace
