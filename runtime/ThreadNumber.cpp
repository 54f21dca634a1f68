#include "runtime/ThreadNumber.h"

#include <unistd.h>

#include "runtime/Atomic.h"

constinit thread_local uint64 gThreadNumber = 0;

namespace {

constexpr uint32_t kProcessNumberMask = 0xFFFF;

constinit uint32_t gThreadSequence = 0;

}  // namespace

void AssignThreadNumber() {
    static const uint64 processNumber = static_cast<uint32_t>(getpid()) & kProcessNumberMask;
    gThreadNumber = AtomicIncrement(&gThreadSequence) * (2 * processNumber + 1);
}
