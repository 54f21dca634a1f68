// What this process has open: descriptors, connected stream sockets, threads.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <filesystem>
#include <iterator>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "tests/standin/ChannelEnd.h"

inline size_t CountEntries(const char* folder) {
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
        descriptors = CountEntries("/proc/self/fd");
        threads = CountEntries("/proc/self/task");
    }
    bool IsWithin(const Resources& other) const { return descriptors <= other.descriptors && threads <= other.threads; }

    size_t descriptors = 0;
    size_t threads = 0;
};

// Both fall a little later than the callbacks that tell of it.
inline void ExpectBackTo(const Resources& before) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kLongMS);
    while (!Resources().IsWithin(before) && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    const Resources now;
    EXPECT_LE(now.descriptors, before.descriptors);
    EXPECT_LE(now.threads, before.threads);
}

// Connected stream sockets of an address family: descriptors by the socket's name, which is never used again.
inline std::map<std::string, int> ConnectedSockets(int family) {
    std::map<std::string, int> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(entry.path().filename());
        int domain = 0;
        int type = 0;
        int listens = 0;
        socklen_t size = sizeof(int);
        if (getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) != 0) continue;
        getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size);
        getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size);
        if (domain != family || type != SOCK_STREAM || listens != 0) continue;
        found[std::filesystem::read_symlink(entry.path())] = fd;
    }
    return found;
}

inline std::vector<int> NewSockets(int family, const std::map<std::string, int>& known) {
    std::vector<int> found;
    for (const auto& [name, fd] : ConnectedSockets(family)) {
        if (!known.contains(name)) found.push_back(fd);
    }
    return found;
}
