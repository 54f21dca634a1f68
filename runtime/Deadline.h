// The end of a timed wait, for system calls that take a time of the wall clock.
#pragma once

#include <chrono>

#include "runtime/Types.h"

// Stands on the monotonic clock, so that setting the wall clock neither ends a wait early nor prolongs it. A caller
// converts it for each attempt, and tries again when the attempt ended before the deadline has passed.
class Deadline {
public:
    explicit Deadline(DWORD timeoutMS) : end(std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMS)) {}

    bool HasPassed() const { return std::chrono::steady_clock::now() >= end; }

    std::chrono::system_clock::time_point OnWallClock() const {
        return std::chrono::system_clock::now() + (end - std::chrono::steady_clock::now());
    }

private:
    std::chrono::steady_clock::time_point end;
};
