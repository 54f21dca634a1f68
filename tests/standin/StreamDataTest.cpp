// Stream data: pairs of descriptors beside a channel.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <numeric>
#include <set>
#include <thread>

#include "standin/qscservice/Rendezvous.h"
#include "standin/qscservice/ServiceTables.h"
#include "tests/standin/ChannelEnd.h"
#include "tests/standin/Descriptors.h"
#include "tests/standin/RawEnd.h"

namespace {

using namespace qscservice;

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kShortLimitMS = 100;

// Not open when the switch was refused.
Fd Switch(ChannelEnd& end) {
    int fd = -1;
    const bool done = ServiceChannel::SwitchToStreamData("stream", end.channel->Handle(), &fd);
    EXPECT_EQ(done, fd > 0);
    return Fd(done ? fd : -1);
}

void WriteAll(const Fd& fd, const Bytes& bytes) {
    for (size_t at = 0; at < bytes.size();) {
        const ssize_t count = send(fd.Get(), bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
        ASSERT_GT(count, 0);
        at += static_cast<size_t>(count);
    }
}

Bytes ReadAll(const Fd& fd, size_t size) {
    Bytes bytes(size);
    for (size_t at = 0; at < size;) {
        const ssize_t count = recv(fd.Get(), bytes.data() + at, size - at, 0);
        if (count <= 0) {
            bytes.resize(at);
            break;
        }
        at += static_cast<size_t>(count);
    }
    return bytes;
}

// Whether the two are the two sides of one stream.
void ExpectPair(const Fd& one, const Fd& other, const std::string& text) {
    const Bytes bytes(text.begin(), text.end());
    WriteAll(one, bytes);
    EXPECT_EQ(ReadAll(other, bytes.size()), bytes);
    WriteAll(other, bytes);
    EXPECT_EQ(ReadAll(one, bytes.size()), bytes);
}

uint64_t Checksum(const Bytes& bytes) {
    return std::accumulate(bytes.begin(), bytes.end(), uint64_t{14695981039346656037u},
                           [](uint64_t sum, uint8_t byte) { return (sum ^ byte) * 1099511628211u; });
}

Bytes Noise(size_t size, uint32_t seed) {
    Bytes bytes(size);
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>((seed = seed * 1664525 + 1013904223) >> 24);
    return bytes;
}

class Ends : public ChannelPair {
public:
    explicit Ends(const ChannelOptions& clientOptions = {}) : ChannelPair(clientOptions) {}

    using ChannelPair::client, ChannelPair::server, ChannelPair::atClient, ChannelPair::atServer;
    using ChannelPair::ConnectObject;
    void TestBody() override {}

    void OpenAt(const std::string& address) {
        std::string error;
        ASSERT_TRUE(server.channel->Listen(address, &error)) << error;
        ASSERT_TRUE(client.channel->Dial(server.channel->Address(), &error)) << error;
        AwaitOpen();
    }
};

class StreamDataTest : public Ends {};

TEST(StreamData, CarriesBytesBothWaysWhoeverAsksFirstAndOutlivesTheChannel) {
    struct Case {
        const char* main;
        int family;
        bool serverFirst;
    };
    const Resources before;
    for (const Case& c :
         {Case{"unix:", AF_UNIX, true}, {"unix:", AF_UNIX, false}, {"tcp:", AF_INET, true}, {"tcp:", AF_INET, false}}) {
        SCOPED_TRACE(std::string(c.main) + (c.serverFirst ? " server first" : " client first"));
        Fd atServer, atClient;
        {
            Ends ends;
            ends.OpenAt(c.main);
            // Neither waits for the other end's owner.
            (c.serverFirst ? atServer : atClient) = Switch(c.serverFirst ? ends.server : ends.client);
            (c.serverFirst ? atClient : atServer) = Switch(c.serverFirst ? ends.client : ends.server);
            ends.ConnectObject();
            ASSERT_NE(ends.client.Send(ends.atClient, 1), 0u);
            EXPECT_EQ(ends.server.journal.Take(1), Texts{"object message 1"});
        }
        for (const Fd* fd : {&atServer, &atClient}) {
            ASSERT_TRUE(fd->IsOpen());
            int family = 0;
            socklen_t size = sizeof family;
            getsockopt(fd->Get(), SOL_SOCKET, SO_DOMAIN, &family, &size);
            EXPECT_EQ(family, c.family);
            EXPECT_EQ(fcntl(fd->Get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
            EXPECT_EQ(fcntl(fd->Get(), F_GETFL) & O_NONBLOCK, 0);
        }
        const Bytes sent = Noise(6 << 20, 5);
        std::thread echo([&] {
            for (Bytes part; !(part = ReadAll(atServer, 64 * 1024)).empty();) WriteAll(atServer, part);
            shutdown(atServer.Get(), SHUT_WR);
        });
        std::thread writer([&] {
            WriteAll(atClient, sent);
            shutdown(atClient.Get(), SHUT_WR);
        });
        const Bytes heard = ReadAll(atClient, sent.size() + 1);
        writer.join();
        echo.join();
        EXPECT_EQ(heard.size(), sent.size());
        EXPECT_EQ(Checksum(heard), Checksum(sent));
    }
    ExpectBackTo(before);
}

TEST_F(StreamDataTest, EachSwitchGivesAPairOfItsOwnInTheOrderOfTheCalls) {
    OpenAt("unix:");
    std::vector<Fd> atServerEnd, atClientEnd;
    for (int i = 0; i < 3; ++i) atServerEnd.push_back(Switch(server));
    for (int i = 0; i < 6; ++i) atClientEnd.push_back(Switch(client));
    for (int i = 0; i < 3; ++i) atServerEnd.push_back(Switch(server));
    for (size_t i = 0; i < 6; ++i) ExpectPair(atServerEnd[i], atClientEnd[i], "pair " + std::to_string(i));
}

TEST_F(StreamDataTest, ManyThreadsOfBothEndsGetWholePairs) {
    constexpr uint32_t kPairs = 12;
    OpenAt("tcp:");
    std::vector<std::future<uint8_t>> heard;
    std::vector<std::thread> senders;
    for (uint32_t i = 0; i < kPairs; ++i) {
        senders.emplace_back([this, i] {
            const Fd fd = Switch(server);
            ASSERT_TRUE(fd.IsOpen());
            WriteAll(fd, {static_cast<uint8_t>(i)});
        });
        heard.push_back(std::async(std::launch::async, [this] {
            const Fd fd = Switch(client);
            const Bytes bytes = fd.IsOpen() ? ReadAll(fd, 2) : Bytes();
            return bytes.size() == 1 ? bytes[0] : uint8_t{255};
        }));
    }
    std::set<uint8_t> all;
    for (auto& one : heard) all.insert(one.get());
    for (std::thread& sender : senders) sender.join();
    EXPECT_EQ(all.size(), kPairs);
    EXPECT_EQ(*all.rbegin(), kPairs - 1);
}

TEST_F(StreamDataTest, IsRefusedWithoutAChannelAndForArgumentsThatAreMissing) {
    int fd = -7;
    void* handle = client.channel->Handle();
    EXPECT_FALSE(ServiceChannel::SwitchToStreamData("stream", handle, &fd));
    EXPECT_FALSE(ServiceChannel::SwitchToStreamData("stream", nullptr, &fd));  // there are two channels, none current
    OpenAt("unix:");
    EXPECT_FALSE(ServiceChannel::SwitchToStreamData(nullptr, handle, &fd));
    EXPECT_FALSE(ServiceChannel::SwitchToStreamData("stream", handle, nullptr));
    EXPECT_TRUE(client.channel->Disconnect());
    server.journal.TakeUntil("channel 0");
    for (ChannelEnd* end : {&client, &server}) {
        EXPECT_FALSE(ServiceChannel::SwitchToStreamData("stream", end->channel->Handle(), &fd));
    }
    EXPECT_EQ(fd, -7);
}

TEST_F(StreamDataTest, TheTableWordTakesTheCurrentChannelForAHandleThatIsUnknown) {
    QSCService_ChannelInterface table = {};
    const QSC_INTERFACE_ID id = QSC_MakeInterfaceId(0x0B);
    ASSERT_EQ(Query().QueryInterface(&id, &table), TRUE);
    OpenAt("unix:");
    int unknown = 0;
    for (void* handle : {static_cast<void*>(nullptr), static_cast<void*>(&unknown), client.channel->Handle()}) {
        int fds[2] = {-1, -1};
        {
            const CurrentChannel current(client.channel.get());
            EXPECT_EQ(table.SwitchToStreamData("stream", handle, &fds[0]), TRUE);
        }
        EXPECT_EQ(table.SwitchToStreamData("stream", server.channel->Handle(), &fds[1]), TRUE);
        ExpectPair(Fd(fds[0]), Fd(fds[1]), "hello");
    }
}

TEST_F(StreamDataTest, InsideACallbackAClientGetsOnlyWhatIsThereAlready) {
    OpenAt("unix:");
    ConnectObject();
    Fd inside;
    client.onMessage = [&](void*, uint32_t) {
        inside = Switch(client);
        client.journal.Add("asked");
    };
    ASSERT_NE(server.Send(atServer, 1), 0u);
    client.journal.TakeUntil("asked");
    EXPECT_FALSE(inside.IsOpen());
    const Fd other = Switch(server);
    ASSERT_NE(server.Send(atServer, 2), 0u);
    client.journal.TakeUntil("asked");
    ASSERT_TRUE(inside.IsOpen());
    ExpectPair(inside, other, "inside");

    Fd ofServer;
    server.onMessage = [&](void*, uint32_t) {
        ofServer = Switch(server);
        server.journal.Add("asked");
    };
    ASSERT_NE(client.Send(atClient, 3), 0u);
    server.journal.TakeUntil("asked");
    ASSERT_TRUE(ofServer.IsOpen());
    ExpectPair(ofServer, Switch(client), "server");
}

TEST(StreamDataPolled, APolledClientNeedsNoPollForIt) {
    Ends ends({.delivery = Delivery::Polled});
    std::string error;
    ASSERT_TRUE(ends.server.channel->Listen("unix:", &error)) << error;
    ASSERT_TRUE(ends.client.channel->Dial(ends.server.channel->Address(), &error)) << error;
    Texts lines;
    while (std::find(lines.begin(), lines.end(), "channel 2") == lines.end()) {
        ends.client.channel->PollWait(kLongMS);
        for (const std::string& line : ends.client.journal.Take(0)) lines.push_back(line);
    }
    ends.server.journal.TakeUntil("channel 2");
    const Fd atClient = Switch(ends.client);
    ExpectPair(atClient, Switch(ends.server), "polled");
}

TEST_F(StreamDataTest, WhatNobodyHasFetchedIsClosedWithTheChannel) {
    for (const char* how : {"disconnect", "fall", "close"}) {
        SCOPED_TRACE(how);
        const Resources before;
        {
            Ends ends;
            ends.OpenAt("unix:");
            const Fd ofServer = Switch(ends.server);
            const Fd ofClient = [&] {
                const Fd first = Switch(ends.client);  // of the server's
                return Switch(ends.client);
            }();
            const Fd third = Switch(ends.server);   // of ofClient
            const Fd fourth = Switch(ends.server);  // kept for the client
            ASSERT_TRUE(fourth.IsOpen());
            if (*how == 'd') {
                EXPECT_TRUE(ends.server.channel->Disconnect());
                ends.client.journal.TakeUntil("channel 0");
            } else if (*how == 'f') {
                ends.client.channel->Interrupt();
                ends.client.journal.TakeUntil("connection 0");
                ends.server.journal.TakeUntil("connection 0");
            } else {
                ends.client.channel->Close();
            }
            EXPECT_TRUE(ReadAll(fourth, 1).empty());
            ExpectPair(ofClient, third, "fetched");
        }
        ExpectBackTo(before);
    }
}

// A pair of the channel before is not given to the next one.
TEST_F(StreamDataTest, TheNextChannelBeginsAnew) {
    OpenAt("unix:");
    const Fd stale = Switch(server);
    EXPECT_TRUE(client.channel->Disconnect());
    server.journal.TakeUntil("channel 0");
    EXPECT_TRUE(client.channel->Connect());
    client.journal.TakeUntil("channel 2");
    server.journal.TakeUntil("channel 2");
    const Fd atClientEnd = Switch(client);
    ExpectPair(atClientEnd, Switch(server), "anew");
}

// A real client of a raw server, with the channel open.
class ClientOfRawServer {
public:
    explicit ClientOfRawServer(uint32_t limitMS) : client({.meetLimitMS = limitMS}) {
        std::string error;
        m_listener = Listener::Open("unix:", &error);
        EXPECT_TRUE(m_listener) << error;
        EXPECT_TRUE(client.channel->Dial(m_listener->Address(), &error)) << error;
        server = std::make_unique<RawEnd>(m_listener->Accept(&error));
        server->SayHello(Role::Server);
        server->Await(FrameType::Open);
        server->Send(MakeFrame(FrameType::Accept, {Value(1u), Value(int32_t{0})}));
        client.journal.TakeUntil("channel 2");
    }

    ChannelEnd client;
    std::unique_ptr<RawEnd> server;

private:
    std::shared_ptr<Listener> m_listener;
};

TEST(StreamDataFailure, AClientGivesUpOnAServerThatIsSilentRefusesOrCannotBeDialled) {
    SetErrorHandler([](std::string_view) {});
    struct Case {
        uint32_t limitMS;
        std::function<Bytes()> answer;
    };
    for (const Case& c :
         {Case{kShortLimitMS, {}},
          {kLongMS,
           [] {
               return MakeFrame(FrameType::StreamDataRefused, {Value(1u), Value(uint64_t{0})});
           }},
          {kLongMS, [] {
               return MakeFrame(FrameType::StreamDataOffer, {Value(1u), Value("unix:/nowhere"), Value(uint64_t{5})});
           }}}) {
        ClientOfRawServer ends(c.limitMS);
        const Resources before;
        auto asked = std::async(std::launch::async, [&] { return Switch(ends.client).IsOpen(); });
        EXPECT_EQ(ends.server->Await(FrameType::StreamDataRequest)[1].number, 1u);
        if (c.answer) ends.server->Send(c.answer());
        EXPECT_FALSE(asked.get());
        // An offer of another attempt than this one.
        ends.server->Send(MakeFrame(FrameType::StreamDataOffer, {Value(9u), Value("unix:/"), Value(uint64_t{6})}));
        while (ends.server->Await(FrameType::StreamDataRefused)[1].number != 6) {
        }
        ExpectBackTo(before);
    }
    SetErrorHandler({});
}

TEST(StreamDataFailure, AServerGivesUpOnAClientThatDoesNotDial) {
    for (const bool refuses : {false, true}) {
        ChannelOptions options = ServerOptions();
        options.meetLimitMS = refuses ? kLongMS : kShortLimitMS;
        ChannelEnd server(options);
        std::string error;
        ASSERT_TRUE(server.channel->Listen("tcp:", &error)) << error;
        RawEnd client(ConnectSocket(server.channel->Address(), &error));
        client.SayHello(Role::Client);
        client.Send(MakeFrame(FrameType::Open, {Value(1u)}));
        server.journal.TakeUntil("channel 2");
        const Resources before;
        auto asked = std::async(std::launch::async, [&] { return Switch(server).IsOpen(); });
        const std::vector<Value> offer = client.Await(FrameType::StreamDataOffer);
        ASSERT_EQ(offer.size(), 3u);
        const uint64_t number = offer[2].number;
        const std::string address(offer[1].text);
        if (refuses) client.Send(MakeFrame(FrameType::StreamDataRefused, {Value(1u), Value(number)}));
        EXPECT_FALSE(asked.get());
        EXPECT_EQ(client.Await(FrameType::StreamDataRefused)[1].number, number);
        EXPECT_FALSE(ConnectSocket(address, &error).IsOpen());
        ExpectBackTo(before);

        // More than one end keeps for its owner is refused.
        client.Send(MakeFrame(FrameType::StreamDataRequest, {Value(1u), Value(1000u)}));
        EXPECT_EQ(client.Await(FrameType::StreamDataRefused)[1].number, 0u);
    }
}

TEST(StreamDataFailure, AFallEndsTheWait) {
    {
        ClientOfRawServer ends(kLongMS);
        auto asked = std::async(std::launch::async, [&] { return Switch(ends.client).IsOpen(); });
        ends.server->Await(FrameType::StreamDataRequest);
        ends.server.reset();
        EXPECT_FALSE(asked.get());
    }
    ChannelOptions options = ServerOptions();
    options.meetLimitMS = kLongMS;
    ChannelEnd server(options);
    std::string error;
    ASSERT_TRUE(server.channel->Listen("unix:", &error)) << error;
    auto client = std::make_unique<RawEnd>(ConnectSocket(server.channel->Address(), &error));
    client->SayHello(Role::Client);
    client->Send(MakeFrame(FrameType::Open, {Value(1u)}));
    server.journal.TakeUntil("channel 2");
    auto asked = std::async(std::launch::async, [&] { return Switch(server).IsOpen(); });
    client->Await(FrameType::StreamDataOffer);
    client.reset();
    EXPECT_FALSE(asked.get());
}

}  // namespace
