#include "tools/replay/AgentControl.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

using qscservice::Fd;

namespace {

constexpr size_t kMaxRequest = 4096;
constexpr int kAcceptPauseMS = 100;  // after an error, such as too many open files

// At once and whole, or not at all: a peer that doesn't read must not hold up the others.
bool Send(int fd, const std::string& text) {
    return send(fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT) == static_cast<ssize_t>(text.size());
}

}  // namespace

AgentControl::~AgentControl() {
    if (!thread.joinable()) return;
    const uint64_t one = 1;
    while (write(stop.Get(), &one, sizeof one) < 0 && errno == EINTR) {
    }
    thread.join();
    unlink(path.c_str());
}

bool AgentControl::Listen(const std::string& where, std::string* error) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (where.empty() || where.size() >= sizeof address.sun_path) {
        *error = "the path \"" + where + "\" does not fit a socket";
        return false;
    }
    where.copy(address.sun_path, where.size());
    listener = Fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    stop = Fd(eventfd(0, EFD_CLOEXEC));
    if (bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener.Get(), 64) != 0) {
        *error = "cannot listen at " + where + ": " + std::strerror(errno);
        return false;
    }
    path = where;
    thread = std::thread([this] { Run(); });
    return true;
}

void AgentControl::Run() {
    std::map<int, std::pair<Fd, std::string>> connections;  // with what of a line has come so far
    for (bool pausing = false;;) {
        const short awaited = pausing ? 0 : POLLIN;
        std::vector<pollfd> fds = {{stop.Get(), POLLIN, 0}, {listener.Get(), awaited, 0}};
        for (const auto& [fd, connection] : connections) fds.push_back({fd, POLLIN, 0});
        if (poll(fds.data(), fds.size(), pausing ? kAcceptPauseMS : -1) < 0) continue;
        pausing = false;
        if (fds[0].revents != 0) return;
        for (size_t i = 2; i < fds.size(); ++i) {
            if (fds[i].revents != 0 && !Serve(fds[i].fd, &connections[fds[i].fd].second)) connections.erase(fds[i].fd);
        }
        if (fds[1].revents == 0) continue;
        Fd accepted(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        const int fd = accepted.Get();
        if (fd >= 0)
            connections[fd].first = std::move(accepted);
        else
            pausing = errno != EAGAIN && errno != EINTR && errno != ECONNABORTED;
    }
}

// False when the connection is over.
bool AgentControl::Serve(int fd, std::string* unread) const {
    char buffer[1024];
    const ssize_t count = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
    if (count <= 0) return count < 0 && (errno == EINTR || errno == EAGAIN);
    unread->append(buffer, static_cast<size_t>(count));
    for (size_t end; (end = unread->find('\n')) != std::string::npos; unread->erase(0, end + 1)) {
        const std::string line = answer(unread->substr(0, end));
        if (line.empty() || !Send(fd, line + "\n")) return false;
    }
    return unread->size() <= kMaxRequest;
}
