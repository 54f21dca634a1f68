// The recursive, timed lock of the whole system, and its scope guard.
#pragma once

#include <pthread.h>

#include <atomic>
#include <mutex>
#include <string>

#include "runtime/RCObject.h"
#include "runtime/ThreadAnnotations.h"
#include "runtime/ThreadNumber.h"
#include "runtime/Types.h"

class KxMutex;

// The state behind all KxMutex objects that name one lock.
class KxMutexData final : public RCObject {
public:
    // Milliseconds after which a wait without limit warns of a deadlock. Tests lower it.
    static constexpr DWORD kDeadlockReportMS = 30000;
    static std::atomic<DWORD> deadlockReportMS;

private:
    friend class KxMutex;

    bool IsHeldByCaller() const { return ownerHandle.load(std::memory_order_relaxed) == pthread_self(); }
    void SetOwner();
    void Free();
    bool WaitLocked(DWORD timeoutMS, const KxMutex* reported);
    bool SpinLocked();
    bool LockWithin(DWORD timeoutMS);

    std::timed_mutex nativeMutex;
    // Written by the holder alone. Others read them to learn that they aren't the holder, or for a report, and need no
    // more than the value: relaxed.
    std::atomic<pthread_t> ownerHandle{0};
    std::atomic<uint64> ownerThreadId{0};
    uint32_t recursionCount = 0;  // the holder's
};

// Copies name the same lock. A moved-from KxMutex is invalid: Acquire and Release on it return false. Destroying a
// KxMutex doesn't release the lock. Takes a deadlock report to the log, see Acquire.
class CAPABILITY("mutex") KxMutex : public RCObject {
public:
    // With initialOwner the caller holds the lock afterwards. The name is not kept.
    explicit KxMutex(bool initialOwner = false, const std::string& name = {});
    KxMutex(const KxMutex& other);
    KxMutex(KxMutex&& other) noexcept;
    KxMutex& operator=(const KxMutex& other);
    KxMutex& operator=(KxMutex&& other) noexcept;
    ~KxMutex() override;

    // Takes the lock, waiting up to timeoutMS milliseconds: 0 tries without sleeping, kInfinite waits until it has it,
    // with one line at WARN after 30 seconds. The holder takes it again at once. Returns false on time-out and for an
    // invalid KxMutex. May throw std::system_error if the system's lock fails.
    bool Acquire(DWORD timeoutMS = kInfinite) NO_THREAD_SAFETY_ANALYSIS TRY_ACQUIRE(true) {
        KxMutexData* const lock = data.Get();
        if (!lock || !lock->IsHeldByCaller()) return AcquireOuter(timeoutMS);
        ++lock->recursionCount;
        return true;
    }

    // Undoes one Acquire. Returns false, and does nothing, if the caller doesn't hold the lock.
    bool Release() NO_THREAD_SAFETY_ANALYSIS RELEASE() {
        KxMutexData* const lock = data.Get();
        if (!lock || !lock->IsHeldByCaller()) return false;
        if (--lock->recursionCount == 0) lock->Free();
        return true;
    }

    bool IsValid() const { return static_cast<bool>(data); }

private:
    bool AcquireOuter(DWORD timeoutMS);

    RCPtr<KxMutexData> data;
};

// Holds a KxMutex for a scope. Unlock and Lock open a gap in it. An invalid KxMutex is not held, and nothing faults.
class SCOPED_CAPABILITY KxMutexGuard {
public:
    explicit KxMutexGuard(KxMutex& lock) ACQUIRE(lock) : mutex(lock), held(lock.Acquire(kInfinite)) {}
    ~KxMutexGuard() RELEASE() {
        if (held) mutex.Release();
    }
    KxMutexGuard(const KxMutexGuard&) = delete;
    KxMutexGuard& operator=(const KxMutexGuard&) = delete;

    void Lock() ACQUIRE() { held = mutex.Acquire(kInfinite); }
    void Unlock() RELEASE() {
        if (held) mutex.Release();
        held = false;
    }

private:
    KxMutex& mutex;
    bool held;
};
