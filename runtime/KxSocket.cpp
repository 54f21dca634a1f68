#include "runtime/KxSocket.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "logging/Log.h"

namespace {

sockaddr_in Address(uint32_t networkOrderAddress, uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = networkOrderAddress;
    address.sin_port = htons(port);
    return address;
}

const sockaddr* Plain(const sockaddr_in& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}
sockaddr* Plain(sockaddr_in& address) {
    return reinterpret_cast<sockaddr*>(&address);
}

// The form of gethostbyname that is safe on any thread. It takes a dotted address as it is.
bool Resolve(const std::string& host, uint16_t port, sockaddr_in& address) {
    std::vector<char> room(1024);
    hostent entry;
    hostent* found = nullptr;
    int error = 0;
    while (gethostbyname_r(host.c_str(), &entry, room.data(), room.size(), &found, &error) == ERANGE) {
        room.resize(room.size() * 2);
    }
    if (!found || found->h_addrtype != AF_INET || !found->h_addr_list[0]) return false;
    in_addr first;
    std::memcpy(&first, found->h_addr_list[0], sizeof first);
    address = Address(first.s_addr, port);
    return true;
}

std::string Dotted(const sockaddr_in& address) {
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address.sin_addr, text, sizeof text) ? text : "";
}

// A negative length is refused here, before it becomes a huge one.
bool Refused(int len) {
    if (len >= 0) return false;
    errno = EINVAL;
    return true;
}

using NameCall = int (*)(int, sockaddr*, socklen_t*);

bool GetEnd(NameCall call, int fd, sockaddr_in& address) {
    socklen_t length = sizeof address;
    return call(fd, Plain(address), &length) == 0 && length == sizeof address && address.sin_family == AF_INET;
}

bool GetHost(NameCall call, int fd, std::string& host) {
    sockaddr_in address;
    if (!GetEnd(call, fd, address)) return false;
    host = Dotted(address);
    return true;
}

bool GetPort(NameCall call, int fd, uint16_t& port) {
    sockaddr_in address;
    if (!GetEnd(call, fd, address)) return false;
    port = ntohs(address.sin_port);
    return true;
}

}  // namespace

KxSocket::~KxSocket() {
    if (initialized) close(fd);
    fd = 0;
}

Bool KxSocket::Init(int type, int protocol) {
    if (initialized) {
        LOG(Debug, "KxSocket is already initialized.\n");
        return TRUE;
    }
    const int opened = socket(AF_INET, type | SOCK_CLOEXEC, protocol);
    if (opened < 0) return FALSE;
    fd = opened;
    initialized = true;
    return TRUE;
}

bool KxSocket::Bind(uint16_t port) {
    const sockaddr_in address = Address(htonl(INADDR_ANY), port);
    return bind(Descriptor(), Plain(address), sizeof address) == 0;
}

bool KxSocket::Bind(const std::string& host, uint16_t port) {
    sockaddr_in address;
    return Resolve(host, port, address) && bind(Descriptor(), Plain(address), sizeof address) == 0;
}

bool KxSocket::Connect(const std::string& host, uint16_t port) {
    sockaddr_in address;
    return Resolve(host, port, address) && connect(Descriptor(), Plain(address), sizeof address) == 0;
}

int KxSocket::Send(const void* buf, int len) {
    if (Refused(len)) return -1;
    return static_cast<int>(send(Descriptor(), buf, static_cast<size_t>(len), 0));
}

int KxSocket::Recv(void* buf, int len) {
    if (Refused(len)) return -1;
    return static_cast<int>(recv(Descriptor(), buf, static_cast<size_t>(len), 0));
}

int KxSocket::SendAll(const void* buf, int len) {
    const char* next = static_cast<const char*>(buf);
    int left = len;
    while (left > 0) {
        const int sent = Send(next, left);
        if (sent < 0) return sent;
        next += sent;
        left -= sent;
    }
    return len > 0 ? len : 0;
}

int KxSocket::SendTo(const void* buf, int len, const std::string& host, uint16_t port) {
    sockaddr_in address;
    if (Refused(len) || !Resolve(host, port, address)) return -1;
    return static_cast<int>(sendto(Descriptor(), buf, static_cast<size_t>(len), 0, Plain(address), sizeof address));
}

int KxSocket::RecvFrom(void* buf, int len, std::string& host, uint16_t& port) {
    if (Refused(len)) return -1;
    sockaddr_in address{};
    socklen_t length = sizeof address;
    const int received =
        static_cast<int>(recvfrom(Descriptor(), buf, static_cast<size_t>(len), 0, Plain(address), &length));
    if (received < 0) return received;
    host = Dotted(address);
    port = ntohs(address.sin_port);
    return received;
}

bool KxSocket::GetSockName(std::string& host) {
    return GetHost(getsockname, Descriptor(), host);
}
bool KxSocket::GetSockName(uint16_t& port) {
    return GetPort(getsockname, Descriptor(), port);
}
bool KxSocket::GetPeerName(std::string& host) {
    return GetHost(getpeername, Descriptor(), host);
}
bool KxSocket::GetPeerName(uint16_t& port) {
    return GetPort(getpeername, Descriptor(), port);
}

int KxSocket::GetSockOpt(int fd, int level, int name, void* value, socklen_t* length) {
    return getsockopt(fd, level, name, value, length);
}

int KxSocket::SetSockOpt(int fd, int level, int name, const void* value, socklen_t length) {
    return setsockopt(fd, level, name, value, length);
}
