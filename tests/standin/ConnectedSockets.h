// The connected stream sockets of this process.
#pragma once

#include <sys/socket.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

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
