// Elapsed time on the monotonic clock, with pause and resume. A timer has no lock: its owner guards it.
#pragma once

#include "runtime/Types.h"

// A stopwatch over a clock that the derived class reads. Paused time doesn't count.
class KxTimer {
public:
    // What a read of the timer does besides reading. Any other value acts like Read.
    enum class Mode {
        Read,         // nothing
        Reset,        // elapsed becomes 0; a paused timer stays paused
        Resume,       // a paused timer runs on from where it was paused
        Pause,        // a running timer stops; a paused one keeps its pause
        Start,        // runs from 0
        StartPaused,  // paused at 0
    };

    virtual ~KxTimer() = default;

    // The clock count, above 0, or -1 if the clock can't be read.
    virtual int64 ReadClock() = 0;

    // Counts per second, or -1 if the clock can't tell.
    virtual int64 GetTimerFrequency() = 0;

    // Returns the elapsed counts as they were before mode took effect. now is a count of this timer's clock that was
    // read after the start, so that one reading can serve many timers; 0 means read the clock. An earlier now gives a
    // negative result. On a clock failure (also now below 0) returns -1 and changes nothing.
    int64 GetTimerCount(Mode mode, int64 now);

    // The same in seconds; -1, and nothing changed, also if the clock can't tell its frequency.
    double GetTimerSeconds(Mode mode, int64 now);

    // The same in whole milliseconds of a clock that counts nanoseconds; 0 on a clock failure. A negative count wraps.
    uint64 GetTimerMS(Mode mode, int64 now);

    bool IsPaused() const { return pausedCount != 0; }

protected:
    KxTimer() = default;

private:
    int64 startCount = 0;   // count at the start; moved forward by a resume
    int64 pausedCount = 0;  // count at the pause; 0 when running
};

// A timer on CLOCK_MONOTONIC. Copies go on measuring from the same start.
class KxElapsedTimer : public KxTimer {
public:
    // Puts mode into effect on a timer of zeroes: Start runs from now, StartPaused waits for a Resume.
    explicit KxElapsedTimer(Mode mode = Mode::Start) { GetTimerCount(mode, 0); }

    // The clock count in units of the clock's resolution, which is one nanosecond on the usual clock; -1 on a failure,
    // which is logged. Safe on any thread.
    static int64 GetTimerNow();

    // The counts per second of a clock with this resolution in nanoseconds: 1 for a second or more.
    static int64 FrequencyOf(int64 resolutionNs);

    int64 ReadClock() override { return GetTimerNow(); }
    int64 GetTimerFrequency() override;
};

// The wall clock in milliseconds, wrapping at 32 bits; 0 if it can't be read. Differences survive the wrap.
uint32_t GetTickCountMS();
