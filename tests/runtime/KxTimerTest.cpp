#include "runtime/KxTimer.h"

#include <gtest/gtest.h>
#include <sys/time.h>
#include <time.h>

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

// What happens at a clock count, what that read returns, and what the timer shows 10 counts later.
struct Step {
    int64 at;
    Mode mode;
    int64 result;
    int64 laterBy10;
};

struct ModeCase {
    const char* name;
    Mode first;  // at 1,000
    std::vector<Step> steps;
};

TEST(KxTimer, KeepsToItsModes) {
    const Mode unknown = static_cast<Mode>(17);
    for (const ModeCase& c : {
             ModeCase{"runs", Mode::Start, {{1300, Mode::Read, 300, 310}, {1400, unknown, 400, 410}}},
             {"restarts", Mode::Start, {{1300, Mode::Start, 300, 10}, {1350, Mode::Read, 50, 60}}},
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
             {"is paused anew at 0",
              Mode::Start,
              {{1300, Mode::StartPaused, 300, 0}, {1400, Mode::Resume, 0, 10}, {1500, Mode::Read, 100, 110}}},
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

TEST(KxTimer, TakesASharedReadingInsteadOfItsOwn) {
    HandTimer timer(1000);
    timer.clock = 5000;
    EXPECT_EQ(timer.GetTimerCount(Mode::Read, 1500), 500);
    EXPECT_EQ(timer.GetTimerCount(Mode::Read, 400), -600) << "a reading from before the start";
    EXPECT_EQ(timer.GetTimerCount(Mode::Start, 2000), 1000);
    EXPECT_EQ(timer.Elapsed(), 3000);
}

TEST(KxTimer, ChangesNothingWhenTheClockFails) {
    for (const Mode mode : {Mode::Read, Mode::Reset, Mode::Resume, Mode::Pause, Mode::Start, Mode::StartPaused}) {
        HandTimer timer(1000);
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

struct UnitCase {
    int64 count;
    double seconds;
    uint64 ms;
};

TEST(KxTimer, ConvertsCountsOf64Bits) {
    for (const UnitCase& c : {UnitCase{999'999, 0.000999999, 0},
                              {1'000'000, 0.001, 1},
                              {5 * kSecond + 1, 5.000000001, 5'000},
                              {86'400 * 365 * kSecond, 86'400.0 * 365, 31'536'000'000}}) {
        HandTimer timer(1);
        timer.clock = 1 + c.count;
        EXPECT_EQ(timer.GetTimerCount(Mode::Read, 0), c.count);
        EXPECT_DOUBLE_EQ(timer.GetTimerSeconds(Mode::Read, 0), c.seconds);
        EXPECT_EQ(timer.GetTimerMS(Mode::Read, 0), c.ms);
    }
}

TEST(KxElapsedTimer, TellsTheFrequencyFromTheResolution) {
    struct Case {
        int64 resolutionNs, frequency;
    };
    for (const Case& c :
         {Case{1, kSecond}, {1000, 1'000'000}, {4'000'000, 250}, {kSecond - 1, 1}, {kSecond, 1}, {3 * kSecond, 1}}) {
        EXPECT_EQ(KxElapsedTimer::FrequencyOf(c.resolutionNs), c.frequency) << c.resolutionNs;
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
    EXPECT_GE(timer.GetTimerCount(Mode::Start, 0), 0);
    EXPECT_FALSE(timer.IsPaused());
    EXPECT_TRUE(KxElapsedTimer(Mode::StartPaused).IsPaused());
}

TEST(GetTickCountMS, IsTheWallClockInTheLow32Bits) {
    timeval before, after;
    const auto ms = [](const timeval& t) {
        return static_cast<uint32_t>(static_cast<uint64>(t.tv_sec) * 1000 + static_cast<uint64>(t.tv_usec) / 1000);
    };
    gettimeofday(&before, nullptr);
    const uint32_t count = GetTickCountMS();
    gettimeofday(&after, nullptr);
    EXPECT_LE(count - ms(before), ms(after) - ms(before));
}

}  // namespace
