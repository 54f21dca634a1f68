// The lock under all reference counts and weak links of the process: recursive, and held for a handful of instructions.
#pragma once

#include <atomic>
#include <cstdint>

#include "runtime/ThreadAnnotations.h"
#include "runtime/ThreadNumber.h"

// Taking it costs one atomic operation and releasing it a plain store, which a mutex of the system can't match. It
// needs no construction and no destruction, so that static objects may be counted from first to last.
class CAPABILITY("mutex") ReferenceLock {
public:
    constexpr ReferenceLock() = default;
    ReferenceLock(const ReferenceLock&) = delete;
    ReferenceLock& operator=(const ReferenceLock&) = delete;

    void lock() ACQUIRE() {
        const void* const self = &gThreadNumber;
        const void* holder = nullptr;
        if (owner.compare_exchange_strong(holder, self, std::memory_order_acquire, std::memory_order_relaxed)) return;
        if (holder == self) {
            ++depth;
        } else {
            LockContended();
        }
    }

    void unlock() RELEASE() {
        if (depth > 0) {
            --depth;
        } else {
            owner.store(nullptr, std::memory_order_release);
        }
    }

private:
    void LockContended();

    std::atomic<const void*> owner{
        nullptr};        // address of the holder's gThreadNumber; only a thread itself stores its own
    uint32_t depth = 0;  // acquisitions beyond the first; touched by the holder only
};
