// A mutex, its scope guard and a condition to wait on, known to the thread-safety analysis.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "runtime/ThreadAnnotations.h"
#include "runtime/Types.h"

namespace usbd {

using Clock = std::chrono::steady_clock;

class CAPABILITY("mutex") Lock {
public:
    void lock() ACQUIRE() { mutex.lock(); }
    void unlock() RELEASE() { mutex.unlock(); }

private:
    std::mutex mutex;
};

class SCOPED_CAPABILITY LockScope {
public:
    explicit LockScope(Lock& held) ACQUIRE(held) : lock(held) { lock.lock(); }
    ~LockScope() RELEASE() { lock.unlock(); }
    LockScope(const LockScope&) = delete;
    LockScope& operator=(const LockScope&) = delete;

private:
    Lock& lock;
};

class Condition {
public:
    void NotifyAll() { condition.notify_all(); }
    void Wait(Lock& lock) REQUIRES(lock) { condition.wait(lock); }

    // False when the deadline is over. Spurious wake-ups happen.
    bool WaitUntil(Lock& lock, Clock::time_point deadline) REQUIRES(lock) {
        return condition.wait_until(lock, deadline) == std::cv_status::no_timeout;
    }

private:
    std::condition_variable_any condition;
};

// The deadline that lies timeoutMS ahead; kInfinite: so far off that it never comes.
inline Clock::time_point DeadlineAfter(DWORD timeoutMS) {
    using namespace std::chrono;
    return Clock::now() + (timeoutMS == kInfinite ? Clock::duration(hours(24 * 365)) : milliseconds(timeoutMS));
}

}  // namespace usbd
