#include "tools/replay/LineReader.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>

using Clock = std::chrono::steady_clock;

int MillisecondsLeft(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

std::optional<std::string> LineReader::Read(int timeoutMS) {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMS);
    for (;;) {
        if (std::optional<std::string> line = Next()) return line;
        pollfd waiting = {fd, POLLIN, 0};
        const int ready = poll(&waiting, 1, MillisecondsLeft(deadline));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0 || !Fill()) return std::nullopt;
    }
}

bool LineReader::Fill() {
    std::array<char, 4096> buffer;
    const ssize_t got = read(fd, buffer.data(), buffer.size());
    if (got > 0) unread.append(buffer.data(), static_cast<size_t>(got));
    return got > 0 || (got < 0 && errno == EINTR);
}

std::optional<std::string> LineReader::Next() {
    const size_t end = unread.find('\n');
    if (end == std::string::npos) return std::nullopt;
    std::string line = unread.substr(0, end);
    unread.erase(0, end + 1);
    return line;
}
