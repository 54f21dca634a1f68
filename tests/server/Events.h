// A record of events to wait on.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

// Events in the order in which they came, from any thread.
class Events {
public:
    void Add(const std::string& event) {
        {
            const std::lock_guard guard(lock);
            events.push_back(event);
        }
        changed.notify_all();
    }

    // True once condition holds for the events; looked at after each new one, for up to limit.
    template <typename Condition>
    bool Wait(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
        std::unique_lock guard(lock);
        return changed.wait_for(guard, limit, [&] { return condition(std::as_const(events)); });
    }
    bool WaitFor(const std::string& event, size_t times = 1) {
        return Wait(
            [&](const auto& all) { return static_cast<size_t>(std::count(all.begin(), all.end(), event)) >= times; });
    }

    std::vector<std::string> Take() {
        const std::lock_guard guard(lock);
        return std::exchange(events, {});
    }

private:
    std::mutex lock;  // guards events
    std::condition_variable changed;
    std::vector<std::string> events;
};
