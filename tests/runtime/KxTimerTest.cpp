#include "runtime/KxTimer.h"

#include <gtest/gtest.h>
#include <time.h>

#include <chrono>
#include <vector>

namespace {

using Mode = KxTimer::Mode;

constexpr int64 kSecond = 1'000'000'000;

// A clock that the test turns.
class HandTimer : public KxTimer {
public:
    explicit HandTimer(int64 clock, Mode mode = Mode::Start) : clock(clock) { GetTimerCount(mode, 0); }
    int64 ReadClock() override { return clock; }
    int64 GetTimerFrequency() override { return frequency; }
    int64 Elapsed() { return GetTimerCount(Mode::Read, 0); }

    int64 clock;
    int64 frequency = kSecond;
};

TEST(KxTimer, KeepsToItsModes) {
    // What happens at a clock count, what that read returns, and what the timer shows 10 counts later.
    struct Step {
        int64 at;
        Mode mode;
        int64 result, laterBy10;
    };
    struct Case {
        const char* name;
        Mode first;  // at 1,000
        std::vector<Step> steps;
    };
    const Mode unknown = static_cast<Mode>(17);
    for (const Case& c : {
             Case{"runs", Mode::Start, {{1300, Mode::Read, 300, 310}, {1400, unknown, 400, 410}}},
             {"restarts", Mode::Start, {{1300, Mode::Start, 300, 10}}},
             {"resets while running", Mode::Start, {{1300, Mode::Reset, 300, 10}}},
             {"keeps the first pause", Mode::Start, {{1300, Mode::Pause, 300, 300}, {1500, Mode::Pause, 300, 300}}},
             {"doesn't count a pause",
              Mode::Start,
              {{1300, Mode::Pause, 300, 300}, {1500, Mode::Resume, 300, 310}, {1600, Mode::Read, 400, 410}}},
             {"ignores a resume while running", Mode::Start, {{1300, Mode::Resume, 300, 310}}},
             {"resets while paused and stays paused",
              Mode::Start,
              {{1300, Mode::Pause, 300, 300}, {1500, Mode::Reset, 300, 0}, {1600, Mode::Resume, 0, 10}}},
             {"starts a paused timer anew", Mode::Start, {{1300, Mode::Pause, 300, 300}, {1500, Mode::Start, 300, 10}}},
             {"starts paused", Mode::StartPaused, {{1300, Mode::Read, 0, 0}, {1500, Mode::Resume, 0, 10}}},
             {"is paused anew at 0", Mode::Start, {{1300, Mode::StartPaused, 300, 0}, {1400, Mode::Resume, 0, 10}}},
         }) {
        HandTimer timer(1000, c.first);
        for (const Step& step : c.steps) {
            timer.clock = step.at;
            EXPECT_EQ(timer.GetTimerCount(step.mode, 0), step.result) << c.name << " at " << step.at;
            timer.clock += 10;
            EXPECT_EQ(timer.Elapsed(), step.laterBy10) << c.name << " after " << step.at;
        }
    }
}

TEST(KxTimer, TakesASharedReadingInSecondsAndMilliseconds) {
    HandTimer timer(1);
    constexpr int64 kYear = 86'400 * 365 * kSecond;
    EXPECT_EQ(timer.GetTimerMS(Mode::Read, 1'000'000), 0u);
    EXPECT_EQ(timer.GetTimerMS(Mode::Read, 1'000'001), 1u);
    EXPECT_EQ(timer.GetTimerMS(Mode::Read, 1 + kYear), 31'536'000'000u);
    EXPECT_DOUBLE_EQ(timer.GetTimerSeconds(Mode::Start, 1 + 5 * kSecond), 5.0);
    EXPECT_EQ(timer.GetTimerCount(Mode::Read, 1), -5 * kSecond) << "a reading from before the start";
}

TEST(KxTimer, ChangesNothingWhenTheClockFails) {
    HandTimer timer(1000);
    for (const Mode mode : {Mode::Reset, Mode::Pause, Mode::StartPaused}) {
        timer.clock = -1;
        EXPECT_EQ(timer.GetTimerCount(mode, 0), -1);
        EXPECT_EQ(timer.GetTimerSeconds(mode, 0), -1.0);
        EXPECT_EQ(timer.GetTimerMS(mode, 0), 0u);
        timer.clock = 1200;
        timer.frequency = -1;
        EXPECT_EQ(timer.GetTimerSeconds(mode, 0), -1.0);
        EXPECT_FALSE(timer.IsPaused());
        EXPECT_EQ(timer.Elapsed(), 200);
    }
}

TEST(KxElapsedTimer, CountsTheMonotonicClock) {
    timespec before, after, resolution;
    ASSERT_EQ(clock_getres(CLOCK_MONOTONIC, &resolution), 0);
    ASSERT_EQ(resolution.tv_sec, 0);
    const auto nanoseconds = [](const timespec& t) { return t.tv_sec * kSecond + t.tv_nsec; };
    KxElapsedTimer timer;
    clock_gettime(CLOCK_MONOTONIC, &before);
    const int64 count = KxElapsedTimer::GetTimerNow();
    clock_gettime(CLOCK_MONOTONIC, &after);
    EXPECT_GE(count * resolution.tv_nsec, nanoseconds(before) - resolution.tv_nsec);
    EXPECT_LE(count * resolution.tv_nsec, nanoseconds(after));
    EXPECT_EQ(timer.GetTimerFrequency(), kSecond / resolution.tv_nsec);
    EXPECT_EQ(KxElapsedTimer::FrequencyOf(4'000'000), 250);
    EXPECT_EQ(KxElapsedTimer::FrequencyOf(3 * kSecond), 1);
    EXPECT_TRUE(KxElapsedTimer(Mode::StartPaused).IsPaused());
}

TEST(GetTickCountMS, IsTheWallClockInTheLow32Bits) {
    const auto now = [] {
        const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
        return static_cast<uint32_t>(std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch).count());
    };
    const uint32_t before = now(), count = GetTickCountMS();
    EXPECT_LE(count - before, now() - before);
}

}  // namespace
