#include "runtime/RCObject.h"

#include <sched.h>
#include <time.h>

#include "runtime/SpinPause.h"

namespace {

// Stands in the count from the last release to the end, so that references taken by OnLastRelease can be told from it.
constexpr uint32_t kDyingMark = 0xDEAD00;

// How a thread waits for the reference lock. Its holder needs nanoseconds unless it was preempted, so spinning is short
// and yielding comes next; sleeping keeps a holder of lower priority from being starved.
constexpr int kSpins = 100;
constexpr int kYields = 50;
constexpr timespec kSleep{0, 50'000};

}  // namespace

constinit ReferenceLock RCObject::referenceLock;

void ReferenceLock::LockContended() {
    for (int attempt = 0;; ++attempt) {
        const void* holder = nullptr;
        if (owner.load(std::memory_order_relaxed) == nullptr &&
            owner.compare_exchange_weak(holder, &gThreadNumber, std::memory_order_acquire, std::memory_order_relaxed)) {
            return;
        }
        if (attempt < kSpins) {
            SpinPause();
        } else if (attempt < kSpins + kYields) {
            sched_yield();
        } else {
            nanosleep(&kSleep, nullptr);
        }
    }
}

uint32_t RCObject::FinishRelease() {
    if (refCount == 0) {
        referenceLock.unlock();
        return 0;
    }
    refCount = kDyingMark;
    WkReference* const link = wkRef;
    if (link) {
        link->target = nullptr;
        wkRef = nullptr;
    }
    referenceLock.unlock();
    if (link) link->Release();
    if (!OnLastRelease()) {
        delete this;
        return 0;
    }
    referenceLock.lock();
    const uint32_t taken = refCount -= kDyingMark;
    referenceLock.unlock();
    OnTakenBack();
    return taken;
}

WkReference* RCObject::GetWkReference() {
    referenceLock.lock();
    if (!wkRef && static_cast<int32_t>(refCount) < static_cast<int32_t>(kDyingMark)) {
        wkRef = CreateWkReference();
        if (wkRef) wkRef->AddRef();
    }
    WkReference* const link = wkRef;
    referenceLock.unlock();
    return link;
}

// For an object that its owner destroys. No lock: nobody may be looking it up any more, as a reference found now would
// not keep it.
void RCObject::CutLink() {
    wkRef->target = nullptr;
    wkRef->Release();
}

bool RCObject::OnLastRelease() {
    return false;
}

WkReference* RCObject::CreateWkReference() {
    return new WkReference(this);
}

WkReference::~WkReference() = default;
