#include "runtime/KxTimer.h"

#include <sys/time.h>
#include <time.h>

#include <atomic>

#include "logging/Log.h"

namespace {

constexpr int64 kNanosecondsPerSecond = 1'000'000'000;
constexpr int64 kNanosecondsPerMS = 1'000'000;

// The clock's resolution never changes, so it is read once. Relaxed: whoever sees 0 reads the same value again.
std::atomic<int64> gResolutionNs{0};

int64 ReadResolution(const char* function) {
    timespec resolution;
    if (clock_getres(CLOCK_MONOTONIC, &resolution) != 0) {
        LOG_AS(function, Error, "clock_getres() failed\n");
        return -1;
    }
    int64 nanoseconds = resolution.tv_sec * kNanosecondsPerSecond + resolution.tv_nsec;
    if (nanoseconds < 1) nanoseconds = 1;
    gResolutionNs.store(nanoseconds, std::memory_order_relaxed);
    return nanoseconds;
}

inline int64 Resolution(const char* function) {
    const int64 known = gResolutionNs.load(std::memory_order_relaxed);
    return known != 0 ? known : ReadResolution(function);
}

}  // namespace

int64 KxTimer::GetTimerCount(Mode mode, int64 now) {
    if (now == 0) now = ReadClock();
    if (now < 0) return -1;
    const bool paused = pausedCount != 0;
    const int64 elapsed = (paused ? pausedCount : now) - startCount;
    switch (mode) {
        case Mode::Reset:
            startCount = now;
            if (paused) pausedCount = now;
            break;
        case Mode::Resume:
            if (paused) {
                startCount += now - pausedCount;
                pausedCount = 0;
            }
            break;
        case Mode::Pause:
            if (!paused) pausedCount = now;
            break;
        case Mode::Start:
            startCount = now;
            pausedCount = 0;
            break;
        case Mode::StartPaused:
            startCount = pausedCount = now;
            break;
        case Mode::Read:
        default:
            break;
    }
    return elapsed;
}

double KxTimer::GetTimerSeconds(Mode mode, int64 now) {
    const int64 frequency = GetTimerFrequency();
    if (now == 0) now = ReadClock();
    if (now < 0 || frequency < 1) return -1.0;
    return static_cast<double>(GetTimerCount(mode, now)) / static_cast<double>(frequency);
}

uint64 KxTimer::GetTimerMS(Mode mode, int64 now) {
    return static_cast<uint64>(GetTimerCount(mode, now) / kNanosecondsPerMS);
}

int64 KxElapsedTimer::GetTimerNow() {
    timespec now;
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
        LOG(Error, "clock_gettime() failed\n");
        return -1;
    }
    const int64 resolution = Resolution(__PRETTY_FUNCTION__);
    if (resolution < 0) return -1;
    const int64 nanoseconds = now.tv_sec * kNanosecondsPerSecond + now.tv_nsec;
    return resolution == 1 ? nanoseconds : nanoseconds / resolution;
}

int64 KxElapsedTimer::FrequencyOf(int64 resolutionNs) {
    return resolutionNs >= kNanosecondsPerSecond ? 1 : kNanosecondsPerSecond / resolutionNs;
}

int64 KxElapsedTimer::GetTimerFrequency() {
    const int64 resolution = Resolution(__PRETTY_FUNCTION__);
    return resolution < 0 ? -1 : FrequencyOf(resolution);
}

uint32_t GetTickCountMS() {
    timeval now;
    if (gettimeofday(&now, nullptr) != 0) return 0;
    return static_cast<uint32_t>(static_cast<uint64>(now.tv_sec) * 1000 + static_cast<uint64>(now.tv_usec) / 1000);
}
