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

struct Resources {
    size_t descriptors = CountEntries("/proc/self/fd");
    size_t threads = CountEntries("/proc/self/task");
    friend bool operator==(const Resources&, const Resources&) = default;
};

// Both fall a little later than the callbacks that tell of it.
inline void ExpectBackTo(const Resources& before) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kLongMS);
    while (Resources() != before && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    const Resources now;
    EXPECT_EQ(now.descriptors, before.descriptors);
    EXPECT_EQ(now.threads, before.threads);
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
