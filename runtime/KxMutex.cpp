#include "runtime/KxMutex.h"

#include <utility>

#include "logging/Log.h"
#include "runtime/Deadline.h"
#include "runtime/SpinPause.h"

namespace {

// A few: a waiter that sleeps leaves the holder a lock of its own, and measures well ahead of one that spins for
// longer and then takes the lock away with each line that is logged.
constexpr int kSpins = 4;

constexpr char kAcquireSignature[] = "bool KxMutex::Acquire(DWORD)";

}  // namespace

std::atomic<DWORD> KxMutexData::deadlockReportMS{kDeadlockReportMS};

void KxMutexData::SetOwner() {
    ownerHandle.store(pthread_self(), std::memory_order_relaxed);
    ownerThreadId.store(GetThreadNumber(), std::memory_order_relaxed);
    recursionCount = 1;
}

void KxMutexData::Free() {
    ownerHandle.store(0, std::memory_order_relaxed);
    ownerThreadId.store(0, std::memory_order_relaxed);
    nativeMutex.unlock();
}

bool KxMutexData::WaitLocked(DWORD timeoutMS, const KxMutex* reported) {
    if (SpinLocked()) return true;
    if (timeoutMS != kInfinite) return LockWithin(timeoutMS);
    if (LockWithin(deadlockReportMS.load(std::memory_order_relaxed))) return true;
    // The line itself may have to wait for this lock, which then has nothing more to say.
    thread_local bool reporting = false;
    if (!std::exchange(reporting, true)) {
        LOG_AS(kAcquireSignature, Warn, "Possible deadlock trying to acquire lock 0x%p held by thread 0x%08llX",
               static_cast<const void*>(reported),
               static_cast<unsigned long long>(ownerThreadId.load(std::memory_order_relaxed)));
        reporting = false;
    }
    nativeMutex.lock();
    return true;
}

bool KxMutexData::SpinLocked() {
    for (int spin = 0; spin < kSpins; ++spin) {
        if (ownerHandle.load(std::memory_order_relaxed) == 0 && nativeMutex.try_lock()) return true;
        SpinPause();
    }
    return false;
}

bool KxMutexData::LockWithin(DWORD timeoutMS) {
    const Deadline deadline(timeoutMS);
    do {
        if (nativeMutex.try_lock_until(deadline.OnWallClock())) return true;
    } while (!deadline.HasPassed());
    return false;
}

KxMutex::KxMutex(bool initialOwner, const std::string&) NO_THREAD_SAFETY_ANALYSIS : data(new KxMutexData) {
    if (initialOwner) Acquire(kInfinite);
}

KxMutex::KxMutex(const KxMutex& other) = default;
KxMutex::KxMutex(KxMutex&& other) noexcept : RCObject(), data(std::move(other.data)) {}
KxMutex& KxMutex::operator=(const KxMutex& other) = default;
KxMutex& KxMutex::operator=(KxMutex&& other) noexcept {
    data = std::move(other.data);
    return *this;
}
KxMutex::~KxMutex() = default;

// For a caller that doesn't hold the lock. Only a call that waits takes a reference on the data, as only then may the
// KxMutex go in the middle of the call.
bool KxMutex::AcquireOuter(DWORD timeoutMS) {
    KxMutexData* const lock = data.Get();
    if (!lock) return false;
    if (lock->nativeMutex.try_lock()) {
        lock->SetOwner();
        return true;
    }
    if (timeoutMS == 0) return false;
    const RCPtr<KxMutexData> kept(lock);
    if (!lock->WaitLocked(timeoutMS, this)) return false;
    lock->SetOwner();
    return true;
}
