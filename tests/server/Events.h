// What the tests of this folder share: a record of events to wait on, and what the process holds.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
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

inline size_t EntriesOf(const char* folder) {
    return static_cast<size_t>(
        std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator()));
}

// The thread sanitizer has a thread of its own, from the first one that is made on.
inline void StartSanitizersThread() {
    [[maybe_unused]] static const bool started = (std::thread([] {}).join(), true);
}

struct Resources {
    Resources() {
        StartSanitizersThread();
        descriptors = EntriesOf("/proc/self/fd");
        threads = EntriesOf("/proc/self/task");
    }
    bool IsWithin(const Resources& other) const { return descriptors <= other.descriptors && threads <= other.threads; }

    size_t descriptors = 0;
    size_t threads = 0;
};

// Both fall a little later than the callbacks that tell of it.
inline void ExpectBackTo(const Resources& before) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!Resources().IsWithin(before) && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    const Resources now;
    EXPECT_LE(now.descriptors, before.descriptors);
    EXPECT_LE(now.threads, before.threads);
}
