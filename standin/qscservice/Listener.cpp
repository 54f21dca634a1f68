// Addresses of the transport: "unix:<path>" and "tcp:<IPv4 loopback address>:<port>".
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>

#include "standin/qscservice/Transport.h"

namespace qscservice {

namespace {

constexpr std::string_view kUnixPrefix = "unix:";
constexpr std::string_view kTcpPrefix = "tcp:";
constexpr std::string_view kAnyLoopback = "127.0.0.1:0";
constexpr int kBacklog = 256;

bool Fail(std::string* error, const std::string& text) {
    if (error) *error = text;
    return false;
}

bool FailWithErrno(std::string* error, const std::string& text) {
    return Fail(error, text + ": " + std::strerror(errno));
}

struct SocketAddress {
    union {
        sockaddr any;
        sockaddr_un local;
        sockaddr_in internet;
    };
    socklen_t size;
};

bool ParseUnix(std::string_view path, SocketAddress* address, std::string* error) {
    if (path.empty()) return Fail(error, "the address \"unix:\" lacks a path");
    if (path.size() >= sizeof address->local.sun_path || path.find('\0') != path.npos) {
        return Fail(error, "the socket path \"" + std::string(path) + "\" is too long");
    }
    address->local = {};
    address->local.sun_family = AF_UNIX;
    path.copy(address->local.sun_path, path.size());
    address->size = sizeof address->local;
    return true;
}

bool ParseTcp(std::string_view place, SocketAddress* address, std::string* error) {
    const std::string text = "the address \"tcp:" + std::string(place) + "\" ";
    const size_t colon = place.rfind(':');
    if (colon == place.npos) return Fail(error, text + "lacks a port");
    const std::string host(place.substr(0, colon));
    const std::string_view port = place.substr(colon + 1);
    uint16_t number = 0;
    const auto [end, failure] = std::from_chars(port.data(), port.data() + port.size(), number);
    if (failure != std::errc() || end != port.data() + port.size()) return Fail(error, text + "has no valid port");
    address->internet = {};
    address->internet.sin_family = AF_INET;
    address->internet.sin_port = htons(number);
    address->size = sizeof address->internet;
    if (inet_pton(AF_INET, host.c_str(), &address->internet.sin_addr) != 1 ||
        ntohl(address->internet.sin_addr.s_addr) >> 24 != IN_LOOPBACKNET) {
        return Fail(error, text + "is none of the loopback");
    }
    return true;
}

bool Parse(std::string_view text, SocketAddress* address, std::string* error) {
    if (text.starts_with(kUnixPrefix)) return ParseUnix(text.substr(kUnixPrefix.size()), address, error);
    if (text.starts_with(kTcpPrefix)) return ParseTcp(text.substr(kTcpPrefix.size()), address, error);
    return Fail(error, "the address \"" + std::string(text) + "\" begins neither with \"unix:\" nor with \"tcp:\"");
}

bool MakeFolder(std::string* folder, std::string* error) {
    const char* root = std::getenv("TMPDIR");
    std::string name = std::string(root && *root ? root : "/tmp") + "/qscservice-XXXXXX";
    if (!mkdtemp(name.data())) return FailWithErrno(error, "cannot make a folder for the socket");
    *folder = name;
    return true;
}

Fd OpenSocket(const SocketAddress& address, int flags, std::string* error) {
    Fd made(socket(address.any.sa_family, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
    if (!made.IsOpen()) FailWithErrno(error, "cannot make a socket");
    return made;
}

// The limit of sends is that of connect as well. 0: none.
void LimitSends(int fd, uint32_t timeoutMS) {
    timeval limit = {};
    limit.tv_sec = static_cast<time_t>(timeoutMS / 1000);
    limit.tv_usec = static_cast<suseconds_t>(timeoutMS % 1000) * 1000;
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

}  // namespace

std::shared_ptr<Listener> Listener::Open(const std::string& address, std::string* error) {
    std::shared_ptr<Listener> listener(new Listener);
    std::string place = address;
    if (place == kUnixPrefix) {
        if (!MakeFolder(&listener->m_folder, error)) return nullptr;
        place += listener->m_folder + "/channel";
    } else if (place == kTcpPrefix) {
        place += kAnyLoopback;
    }
    SocketAddress bound;
    if (!Parse(place, &bound, error)) return nullptr;
    listener->m_stop = Fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    listener->m_socket = OpenSocket(bound, SOCK_NONBLOCK, error);
    if (!listener->m_socket.IsOpen()) return nullptr;
    const int fd = listener->m_socket.Get();
    const int on = 1;
    if (bound.any.sa_family == AF_INET) setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(fd, &bound.any, bound.size) != 0) {
        FailWithErrno(error, "cannot listen at " + place);
        return nullptr;
    }
    if (bound.any.sa_family == AF_UNIX) listener->m_path = bound.local.sun_path;
    if (listen(fd, kBacklog) != 0) {
        FailWithErrno(error, "cannot listen at " + place);
        return nullptr;
    }
    if (bound.any.sa_family == AF_INET) {
        getsockname(fd, &bound.any, &bound.size);
        place.replace(place.rfind(':') + 1, std::string::npos, std::to_string(ntohs(bound.internet.sin_port)));
    }
    listener->m_address = place;
    return listener;
}

Listener::~Listener() {
    if (!m_path.empty()) unlink(m_path.c_str());
    if (!m_folder.empty()) rmdir(m_folder.c_str());
}

// A connection that its client has given up already is no error of the listener.
Fd Listener::Accept(std::string* error, int timeoutMS) {
    for (;;) {
        pollfd fds[] = {{m_socket.Get(), POLLIN, 0}, {m_stop.Get(), POLLIN, 0}};
        const int ready = poll(fds, 2, timeoutMS);
        if (ready < 0 && errno != EINTR) {
            FailWithErrno(error, "cannot wait for a connection");
            return Fd();
        }
        if (ready == 0 || fds[1].revents != 0) return Fd();
        Fd accepted(accept4(m_socket.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (accepted.IsOpen()) return accepted;
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR && errno != ECONNABORTED) {
            FailWithErrno(error, "cannot accept a connection");
            return Fd();
        }
    }
}

bool Listener::WaitReadable(int fd, int timeoutMS) {
    pollfd fds[] = {{fd, POLLIN, 0}, {m_stop.Get(), POLLIN, 0}};
    return poll(fds, 2, timeoutMS) > 0 && fds[1].revents == 0;
}

void Listener::Stop() {
    const uint64_t one = 1;
    while (write(m_stop.Get(), &one, sizeof one) < 0 && errno == EINTR) {
    }
}

Fd ConnectSocket(const std::string& address, std::string* error, uint32_t timeoutMS) {
    SocketAddress peer;
    if (!Parse(address, &peer, error)) return Fd();
    Fd made = OpenSocket(peer, 0, error);
    if (made.IsOpen()) LimitSends(made.Get(), timeoutMS);
    while (made.IsOpen() && connect(made.Get(), &peer.any, peer.size) != 0 && errno != EISCONN) {
        if (errno == EINTR) continue;
        FailWithErrno(error, "cannot connect to " + address);
        made.Reset();
    }
    if (made.IsOpen()) LimitSends(made.Get(), 0);
    return made;
}

void Listener::Resume() {
    uint64_t count = 0;
    while (read(m_stop.Get(), &count, sizeof count) < 0 && errno == EINTR) {
    }
}

}  // namespace qscservice
