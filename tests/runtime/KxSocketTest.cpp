#include "runtime/KxSocket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/LogCapture.h"

namespace {

constexpr const char* kLoopback = "127.0.0.1";
constexpr const char* kUnknownHost = "no such host.invalid";

std::array<int, 2> Pair(int type) {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, type, 0, ends.data()), 0);
    return ends;
}

// A datagram socket on a free port of the loopback interface.
struct Receiver {
    Receiver() {
        EXPECT_TRUE(socket.Init(SOCK_DGRAM, IPPROTO_UDP));
        EXPECT_TRUE(socket.Bind(kLoopback, 0));
        EXPECT_TRUE(socket.GetSockName(port));
    }
    KxSocket socket;
    uint16_t port = 0;
};

TEST(KxSocket, CarriesDatagramsBothWaysAndTellsItsEnds) {
    Receiver receiver;
    KxSocket sender;
    ASSERT_TRUE(sender.Init(SOCK_DGRAM, IPPROTO_UDP));
    std::string host = "untouched";
    uint16_t port = 7, senderPort = 0;
    EXPECT_FALSE(sender.GetPeerName(host) || sender.GetPeerName(port)) << "not connected";
    EXPECT_TRUE(host == "untouched" && port == 7);
    ASSERT_TRUE(sender.Connect("localhost", receiver.port));
    EXPECT_TRUE(sender.GetPeerName(host) && sender.GetPeerName(port));
    EXPECT_EQ(host, kLoopback);
    EXPECT_EQ(port, receiver.port);
    EXPECT_EQ(sender.SendAll("hello", 5), 5);

    char text[16];
    ASSERT_EQ(receiver.socket.RecvFrom(text, sizeof text, host, port), 5);
    EXPECT_EQ(std::string(text, 5), "hello");
    EXPECT_EQ(host, kLoopback);
    ASSERT_TRUE(sender.GetSockName(senderPort));
    EXPECT_EQ(port, senderPort);

    EXPECT_EQ(receiver.socket.SendTo("back", 4, host, port), 4);
    EXPECT_EQ(sender.Recv(text, sizeof text), 4);
    EXPECT_EQ(std::string(text, 4), "back");
}

TEST(KxSocket, BindsTheWildcardAddressWhenNoHostIsNamed) {
    KxSocket socket;
    ASSERT_TRUE(socket.Init(SOCK_STREAM, 0));
    ASSERT_TRUE(socket.Bind(0));
    std::string host;
    uint16_t port = 0;
    EXPECT_TRUE(socket.GetSockName(host) && socket.GetSockName(port));
    EXPECT_EQ(host, "0.0.0.0");
    EXPECT_NE(port, 0);
    KxSocket rival;
    ASSERT_TRUE(rival.Init(SOCK_STREAM, 0));
    EXPECT_FALSE(rival.Bind(kLoopback, port)) << "the port is taken";
    EXPECT_FALSE(rival.Connect(kLoopback, port));
    EXPECT_EQ(errno, ECONNREFUSED) << "nobody listens";
}

TEST(KxSocket, RefusesAHostThatCantBeResolved) {
    KxSocket socket;
    ASSERT_TRUE(socket.Init(SOCK_DGRAM, 0));
    EXPECT_FALSE(socket.Bind(kUnknownHost, 0));
    EXPECT_FALSE(socket.Connect(kUnknownHost, 514));
    EXPECT_EQ(socket.SendTo("x", 1, kUnknownHost, 514), -1);
}

TEST(KxSocket, KeepsTheDescriptorThatItHas) {
    const LogCapture log;
    const std::array<int, 2> ends = Pair(SOCK_STREAM);
    {
        KxSocket first(ends[0]), second(ends[1]);
        EXPECT_EQ(first.Init(SOCK_DGRAM, 0), TRUE);
        EXPECT_EQ(log.Texts(kLogDebug), std::vector<std::string>{"KxSocket is already initialized.\n"});
        EXPECT_EQ(first.Send("still", 5), 5);
        char text[8];
        EXPECT_EQ(second.Recv(text, sizeof text), 5);
        int type = 0;
        socklen_t length = sizeof type;
        EXPECT_EQ(second.GetSockOpt(ends[0], SOL_SOCKET, SO_DOMAIN, &type, &length), 0);
        EXPECT_EQ(type, AF_UNIX);
        std::string host;
        EXPECT_FALSE(first.GetSockName(host)) << "no IPv4 address";
    }
    for (const int end : ends) EXPECT_EQ(fcntl(end, F_GETFD), -1) << "closed";
}

TEST(KxSocket, FailsOnEveryOperationBeforeInit) {
    KxSocket socket;
    char text[4];
    std::string host;
    uint16_t port;
    EXPECT_FALSE(socket.Bind(0) || socket.Bind(kLoopback, 0) || socket.Connect(kLoopback, 9));
    EXPECT_FALSE(socket.GetSockName(host) || socket.GetPeerName(port));
    EXPECT_EQ(socket.SendAll("x", 1), -1);
    for (const auto& call :
         std::vector<std::function<int(int)>>{[&](int length) { return socket.Send("x", length); },
                                              [&](int length) { return socket.Recv(text, length); },
                                              [&](int length) { return socket.SendTo("x", length, kLoopback, 9); },
                                              [&](int length) { return socket.RecvFrom(text, length, host, port); }}) {
        EXPECT_EQ(call(1), -1);
        EXPECT_EQ(errno, EBADF) << "and not what stands at descriptor 0";
        EXPECT_EQ(call(-1), -1);
        EXPECT_EQ(errno, EINVAL) << "and not a huge length";
    }
    EXPECT_EQ(socket.Init(-1, -1), FALSE);
    EXPECT_EQ(socket.Init(SOCK_DGRAM, 0), TRUE) << "a failed Init can be tried again";
}

TEST(KxSocket, SendsAllThroughAPipeThatTakesLittleAtATime) {
    const std::array<int, 2> ends = Pair(SOCK_STREAM);
    KxSocket sender(ends[0]), receiver(ends[1]);
    const int room = 4096;
    ASSERT_EQ(KxSocket::SetSockOpt(ends[0], SOL_SOCKET, SO_SNDBUF, &room, sizeof room), 0);
    std::string sent(1 << 20, '\0');
    for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 31 >> 3);
    std::string received;
    std::thread reader([&] {
        std::vector<char> part(10'000);
        for (int got; received.size() < sent.size() && (got = receiver.Recv(part.data(), 10'000)) > 0;) {
            received.append(part.data(), static_cast<size_t>(got));
        }
    });
    EXPECT_EQ(sender.SendAll(sent.data(), static_cast<int>(sent.size())), static_cast<int>(sent.size()));
    reader.join();
    EXPECT_TRUE(received == sent);
    EXPECT_EQ(sender.SendAll(sent.data(), 0), 0);
    EXPECT_EQ(sender.SendAll(sent.data(), -1), 0);
    // A socket that doesn't block takes what fits and then refuses.
    ASSERT_EQ(fcntl(ends[0], F_SETFL, O_NONBLOCK), 0);
    EXPECT_EQ(sender.SendAll(sent.data(), static_cast<int>(sent.size())), -1);
    EXPECT_EQ(errno, EAGAIN);
}

}  // namespace
