// What this process holds: descriptors and threads.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <iterator>
#include <thread>

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
