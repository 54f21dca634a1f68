// A thin wrapper of a socket with IPv4 addressing. Ports are in host order. Host names are resolved to their first
// address. Results are those of the system calls, with errno as they left it; only what is said here is logged. A
// socket has no lock: its owner guards it.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <string>

#include "runtime/RCObject.h"
#include "runtime/Types.h"

class KxSocket : public RCObject {
public:
    KxSocket() = default;

    // Takes the descriptor over.
    explicit KxSocket(int fd) : fd(fd), initialized(true) {}

    KxSocket(const KxSocket&) = delete;
    KxSocket& operator=(const KxSocket&) = delete;
    ~KxSocket() override;

    // Opens an IPv4 socket, which isn't passed on to programs that the process starts. TRUE also, after a debug line,
    // if there is one already. All other operations fail with EBADF before that.
    Bool Init(int type, int protocol);

    bool Bind(uint16_t port);  // to the wildcard address
    bool Bind(const std::string& host, uint16_t port);
    bool Connect(const std::string& host, uint16_t port);

    // One send, one recv: the number of bytes, or a negative result.
    int Send(const void* buf, int len);
    int Recv(void* buf, int len);

    // Sends until len bytes are out and returns len, or the first negative result. A len of 0 or less sends nothing
    // and returns 0.
    int SendAll(const void* buf, int len);

    // One sendto; -1 also if host can't be resolved.
    int SendTo(const void* buf, int len, const std::string& host, uint16_t port);

    // One recvfrom, which fills in the sender (host in dotted form) if it succeeds.
    int RecvFrom(void* buf, int len, std::string& host, uint16_t& port);

    // The local and the remote end; false on failure, with the argument left alone.
    bool GetSockName(std::string& host);
    bool GetSockName(uint16_t& port);
    bool GetPeerName(std::string& host);
    bool GetPeerName(uint16_t& port);

    // getsockopt and setsockopt on the descriptor given, whichever that is.
    static int GetSockOpt(int fd, int level, int name, void* value, socklen_t* length);
    static int SetSockOpt(int fd, int level, int name, const void* value, socklen_t length);

private:
    int Descriptor() const { return initialized ? fd : -1; }

    int fd = 0;  // 0 when none
    bool initialized = false;
};
