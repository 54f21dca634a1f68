#include "standin/usbd/ChannelGate.h"

namespace usbd {

void ChannelGate::Open() {
    LockScope scope(lock);
    state.store((state.load(std::memory_order_relaxed) | 1) + 2, std::memory_order_release);
    changed.NotifyAll();
}

void ChannelGate::Shut() {
    LockScope scope(lock);
    state.fetch_and(~uint64_t{1}, std::memory_order_release);
}

void ChannelGate::ShutIfStill(Pass pass) {
    LockScope scope(lock);
    if (state.load(std::memory_order_relaxed) == pass) state.store(pass & ~uint64_t{1}, std::memory_order_release);
}

void ChannelGate::Stop() {
    LockScope scope(lock);
    stopped.store(true, std::memory_order_release);
    changed.NotifyAll();
}

void ChannelGate::Restart() {
    LockScope scope(lock);
    stopped.store(false, std::memory_order_release);
}

std::optional<ChannelGate::Pass> ChannelGate::Enter() {
    if (Stopped()) return std::nullopt;
    if (const Pass pass = state.load(std::memory_order_acquire); pass & 1) return pass;
    LockScope scope(lock);
    for (;;) {
        if (Stopped()) return std::nullopt;
        if (const Pass pass = state.load(std::memory_order_acquire); pass & 1) return pass;
        changed.Wait(lock);
    }
}

bool ChannelGate::WaitUntil(Clock::time_point deadline) {
    LockScope scope(lock);
    while (!Stopped()) {
        if (!changed.WaitUntil(lock, deadline) && Clock::now() >= deadline) return true;
    }
    return false;
}

void ChannelGate::WaitStopped() {
    LockScope scope(lock);
    while (!Stopped()) changed.Wait(lock);
}

}  // namespace usbd
