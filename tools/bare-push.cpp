// bare-push: the floor beneath the figures of a replay. It pushes blocks of the sizes of a capture's fast posts over
// one socket to a child process and back: a length ahead of each block, one send for each, nothing else.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <future>
#include <iostream>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "standin/usbd/UsbCapture.h"
#include "tools/replay/Layout.h"
#include "tools/replay/Options.h"

namespace {

constexpr size_t kReceiveBufferBytes = 256 * 1024;

[[noreturn]] void Fail(const char* what) {
    throw std::runtime_error(std::string(what) + ": " + strerror(errno));
}

void SendAll(int fd, iovec* parts, int count) {
    while (count > 0) {
        msghdr message = {};
        message.msg_iov = parts;
        message.msg_iovlen = static_cast<size_t>(count);
        ssize_t sent = sendmsg(fd, &message, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) Fail("send");
        for (; count > 0 && static_cast<size_t>(sent) >= parts->iov_len; parts++, count--)
            sent -= static_cast<ssize_t>(parts->iov_len);
        if (count > 0) {
            parts->iov_base = static_cast<char*>(parts->iov_base) + sent;
            parts->iov_len -= static_cast<size_t>(sent);
        }
    }
}

void SendBlock(int fd, const char* data, uint32_t size) {
    iovec parts[] = {{&size, sizeof size}, {const_cast<char*>(data), size}};
    SendAll(fd, parts, 2);
}

// Receives blocks until the other side ends or onBlock(data, size), which sees each in turn, returns false.
template <typename OnBlock>
void ReceiveBlocks(int fd, OnBlock onBlock) {
    std::vector<char> buffer(kReceiveBufferBytes);
    size_t begin = 0, end = 0;
    for (;;) {
        uint32_t size = 0;
        while (end - begin >= sizeof size) {
            memcpy(&size, &buffer[begin], sizeof size);
            if (end - begin - sizeof size < size) break;
            if (!onBlock(&buffer[begin + sizeof size], size)) return;
            begin += sizeof size + size;
            size = 0;
        }
        if (begin > 0) {
            std::copy(buffer.begin() + static_cast<ptrdiff_t>(begin), buffer.begin() + static_cast<ptrdiff_t>(end),
                      buffer.begin());
            end -= begin;
            begin = 0;
        }
        if (buffer.size() < size + sizeof size) buffer.resize(size + sizeof size);
        const ssize_t got = recv(fd, &buffer[end], buffer.size() - end, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) Fail("receive");
        if (got == 0) return;
        end += static_cast<size_t>(got);
    }
}

struct SocketPair {
    int parent = -1, child = -1;
};

SocketPair ConnectUnix() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) Fail("socketpair");
    return {ends[0], ends[1]};
}

SocketPair ConnectTcp() {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    SocketPair pair;
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    pair.parent = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0 || pair.parent < 0) Fail("socket");
    if (bind(listener, generic, length) != 0 || listen(listener, 1) != 0) Fail("listen");
    if (getsockname(listener, generic, &length) != 0 || connect(pair.parent, generic, length) != 0) Fail("connect");
    pair.child = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (pair.child < 0) Fail("accept");
    const int on = 1;
    for (const int fd : {pair.parent, pair.child}) setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    close(listener);
    return pair;
}

std::vector<uint32_t> FastPostSizes(const std::vector<std::string>& captures) {
    std::vector<uint32_t> sizes;
    for (const std::string& path : captures) {
        std::string error;
        const std::optional<UsbCapture> capture = UsbCapture::Read(path, &error);
        if (!capture) throw std::invalid_argument(error);
        for (const UsbRecord& record : capture->Records()) {
            if (record.type == UsbTransferType::kBulk || record.type == UsbTransferType::kIsochronous)
                sizes.push_back(kUsbmonHeaderSize + record.FullPayloadSize());
        }
    }
    if (sizes.empty()) throw std::invalid_argument("no bulk or isochronous record to push");
    return sizes;
}

pid_t StartEcho(const SocketPair& pair) {
    const pid_t child = fork();
    if (child < 0) Fail("fork");
    if (child > 0) return child;
    close(pair.parent);
    try {
        ReceiveBlocks(pair.child, [&](const char* data, uint32_t size) {
            SendBlock(pair.child, data, size);
            return true;
        });
    } catch (const std::exception&) {
        _exit(1);
    }
    _exit(0);
}

void Push(const ReplayOptions& options, int fd, const std::vector<uint32_t>& sizes) {
    const std::vector<char> content(*std::max_element(sizes.begin(), sizes.end()), 'u');
    for (uint32_t pass = 0; pass < options.loop; pass++) {
        for (const uint32_t size : sizes) SendBlock(fd, content.data(), size);
    }
}

nlohmann::ordered_json Run(const ReplayOptions& options) {
    const std::vector<uint32_t> sizes = FastPostSizes(options.captures);
    const uint64_t expected = uint64_t{sizes.size()} * options.loop;
    const SocketPair pair = options.transport == Transport::Unix ? ConnectUnix() : ConnectTcp();
    const pid_t child = StartEcho(pair);
    close(pair.child);

    uint64_t messages = 0, bytes = 0;
    const auto start = std::chrono::steady_clock::now();
    std::future<void> receiver = std::async(std::launch::async, [&] {
        ReceiveBlocks(pair.parent, [&](const char*, uint32_t size) {
            if (size != sizes[messages % sizes.size()]) return false;
            bytes += size;
            return ++messages < expected;
        });
        if (messages < expected) shutdown(pair.parent, SHUT_RDWR);
    });
    std::string failure;
    try {
        Push(options, pair.parent, sizes);
    } catch (const std::runtime_error& error) {
        failure = error.what();
        shutdown(pair.parent, SHUT_RDWR);
    }
    receiver.get();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    close(pair.parent);
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFSIGNALED(status)) throw std::runtime_error("the child ended by signal " + std::to_string(WTERMSIG(status)));
    if (messages != expected)
        throw std::runtime_error(failure.empty() ? "the child sent something else back" : failure);
    return {{"messages", messages},
            {"bytes", bytes},
            {"seconds", seconds},
            {"messages_per_second", static_cast<double>(messages) / seconds},
            {"bytes_per_second", static_cast<double>(bytes) / seconds}};
}

constexpr char kUsage[] =
    "Usage: bare-push [--loop N] [--transport unix|tcp] [CAPTURE.pcap...]\n"
    "Pushes blocks of the sizes of the captures' bulk and isochronous records to a child process and back, and prints\n"
    "one JSON object.\n";

}  // namespace

int main(int argc, char** argv) {
    const auto parsed = ParseOptions({argv + 1, argv + argc});
    if (const auto* error = std::get_if<std::string>(&parsed)) {
        fprintf(stderr, "bare-push: %s\n", error->c_str());
        return 2;
    }
    ReplayOptions options = std::get<ReplayOptions>(parsed);
    if (options.help) {
        fputs(kUsage, stdout);
        return 0;
    }
    if (options.threads > 1 || options.timed || options.interruptEvery > 0 || options.startByClient ||
        options.version) {
        fprintf(stderr, "bare-push: of the options of a replay there are --loop, --transport, --json and --help\n");
        return 2;
    }
    if (options.captures.empty()) options.captures = {SampleCapturePath()};
    try {
        std::cout << Run(options).dump() << std::endl;
        return 0;
    } catch (const std::invalid_argument& error) {
        fprintf(stderr, "bare-push: %s\n", error.what());
        return 2;
    } catch (const std::exception& error) {
        fprintf(stderr, "bare-push: %s\n", error.what());
        return 1;
    }
}
