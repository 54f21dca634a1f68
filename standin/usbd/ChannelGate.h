// What posting threads pass ahead of each record: open while the channel is up, shut while it is down, and unlocked for
// good once the run is stopped.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>

#include "standin/usbd/Lock.h"

namespace usbd {

class ChannelGate {
public:
    // An opening of the gate. A thread that was refused shuts the gate only if it hasn't been opened again since.
    using Pass = uint64_t;

    void Open();
    void Shut();
    void ShutIfStill(Pass pass);

    // Stop ends all waits, present and coming, until Restart.
    void Stop();
    void Restart();
    bool Stopped() const { return stopped.load(std::memory_order_acquire); }  // pairs with the store of Stop

    // Waits while the gate is shut. Null once stopped.
    std::optional<Pass> Enter();

    // Waits for the deadline. False if it was cut short by a stop.
    bool WaitUntil(Clock::time_point deadline);

    void WaitStopped();

private:
    Lock lock;  // makes a change of state and stopped visible to a thread about to wait
    Condition changed;
    // The number of openings times 2, plus 1 while open. Acquire and release: a thread that enters sees what the one
    // that opened did before.
    std::atomic<uint64_t> state{0};
    std::atomic<bool> stopped{false};
};

}  // namespace usbd
