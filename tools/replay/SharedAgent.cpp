#include "tools/replay/SharedAgent.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "runtime/StringUtils.h"

using qscservice::Fd;

SharedAgent::SharedAgent(std::string where, Fd connection, uint64_t client)
    : address(std::move(where)),
      question(StringUtils::Format("counts %016llX\n", static_cast<unsigned long long>(client))),
      socket(std::move(connection)),
      lines(socket.Get()) {}

std::unique_ptr<SharedAgent> SharedAgent::Join(const std::string& address, const std::string& control, uint64_t client,
                                               std::string* error) {
    sockaddr_un where = {};
    where.sun_family = AF_UNIX;
    if (control.size() >= sizeof where.sun_path) {
        *error = "the path \"" + control + "\" does not fit a socket";
        return nullptr;
    }
    control.copy(where.sun_path, control.size());
    Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (connect(socket.Get(), reinterpret_cast<const sockaddr*>(&where), sizeof where) != 0) {
        *error = "no connection to the agent's control socket: " + std::string(strerror(errno));
        return nullptr;
    }
    return std::unique_ptr<SharedAgent>(new SharedAgent(address, std::move(socket), client));
}

std::optional<AgentCounts> SharedAgent::Ask(int timeoutMS) {
    const ssize_t size = static_cast<ssize_t>(question.size());
    if (send(socket.Get(), question.data(), question.size(), MSG_NOSIGNAL) != size) return std::nullopt;
    return ReadCounts(lines, timeoutMS);
}

// The agent hangs up with its end, whichever way it ends.
bool SharedAgent::WaitForEnd(int timeoutMS) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMS);
    for (;;) {
        pollfd hangup = {socket.Get(), POLLRDHUP, 0};
        const int ready = poll(&hangup, 1, MillisecondsLeft(deadline));
        if (ready >= 0 || errno != EINTR) return ready > 0;
    }
}

std::string SharedAgent::HowItEnded() {
    return WaitForEnd(0) ? "went away" : "";
}
