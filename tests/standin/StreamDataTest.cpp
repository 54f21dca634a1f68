// Stream data: pairs of descriptors beside a channel.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <future>
#include <set>
#include <thread>

#include "standin/qscservice/Rendezvous.h"
#include "standin/qscservice/ServiceTables.h"
#include "tests/standin/ChannelEnd.h"
#include "tests/standin/ConnectedSockets.h"
#include "tests/standin/RawEnd.h"
#include "tests/support/Resources.h"

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
    const ssize_t count = recv(fd.Get(), bytes.data(), size, MSG_WAITALL);
    bytes.resize(count < 0 ? 0 : static_cast<size_t>(count));
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

class StreamDataTest : public ChannelPair {};

TEST(StreamData, CarriesBytesBothWaysWhoeverAsksFirstAndOutlivesTheChannel) {
    struct Case {
        const char* main;
        int family;
        bool serverFirst;
    };
    const Resources before;
    for (const Case& c : {Case{"unix:", AF_UNIX, true}, {"tcp:", AF_INET, true}, {"tcp:", AF_INET, false}}) {
        SCOPED_TRACE(std::string(c.main) + (c.serverFirst ? " server first" : " client first"));
        Fd atServer, atClient;
        {
            ChannelEnds ends;
            ends.Open(c.main);
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
        ExpectPair(atServer, atClient, "afterwards");
    }
    ExpectBackTo(before);
}

TEST_F(StreamDataTest, EachSwitchGivesAPairOfItsOwnInTheOrderOfTheCalls) {
    Open();
    std::vector<Fd> atServerEnd, atClientEnd;
    for (int i = 0; i < 3; ++i) atServerEnd.push_back(Switch(server));
    for (int i = 0; i < 6; ++i) atClientEnd.push_back(Switch(client));
    for (int i = 0; i < 3; ++i) atServerEnd.push_back(Switch(server));
    for (size_t i = 0; i < 6; ++i) ExpectPair(atServerEnd[i], atClientEnd[i], "pair " + std::to_string(i));
}

TEST_F(StreamDataTest, ManyThreadsOfBothEndsGetWholePairs) {
    constexpr int kPairs = 12;
    Open("tcp:");
    std::vector<std::future<int>> heard;
    std::vector<std::thread> senders;
    for (int i = 0; i < kPairs; ++i) {
        senders.emplace_back([this, i] {
            const Fd fd = Switch(server);
            ASSERT_TRUE(fd.IsOpen());
            WriteAll(fd, {static_cast<uint8_t>(i)});
        });
        heard.push_back(std::async(std::launch::async, [this] {
            const Bytes bytes = ReadAll(Switch(client), 2);
            return bytes.size() == 1 ? bytes[0] : kPairs;
        }));
    }
    std::set<int> all;
    for (auto& one : heard) all.insert(one.get());
    for (std::thread& sender : senders) sender.join();
    EXPECT_EQ(all.size(), kPairs);
    EXPECT_EQ(*all.rbegin(), kPairs - 1);
}

TEST_F(StreamDataTest, IsRefusedWithoutAChannelAndForArgumentsThatAreMissing) {
    int fd = -7;
    const auto refuses = [&](const char* name, void* handle, int* to) {
        return !ServiceChannel::SwitchToStreamData(name, handle, to) && fd == -7;
    };
    void* handle = client.channel->Handle();
    EXPECT_TRUE(refuses("stream", handle, &fd));
    Open();
    EXPECT_TRUE(refuses("stream", nullptr, &fd));  // there are two channels, none current
    EXPECT_TRUE(refuses(nullptr, handle, &fd));
    EXPECT_TRUE(refuses("stream", handle, nullptr));
    EXPECT_TRUE(client.channel->Disconnect());
    server.TakeUntil("channel 0");
    EXPECT_TRUE(refuses("stream", handle, &fd));
    EXPECT_TRUE(refuses("stream", server.channel->Handle(), &fd));
}

TEST_F(StreamDataTest, InsideACallbackAClientGetsOnlyWhatIsThereAlready) {
    Open();
    ConnectObject();
    Fd inside;
    client.onMessage = [&](void*, uint32_t) {
        inside = Switch(client);
        client.journal.Add("asked");
    };
    ASSERT_NE(server.Send(atServer, 1), 0u);
    client.TakeUntil("asked");
    EXPECT_FALSE(inside.IsOpen());
    const Fd other = Switch(server);
    ASSERT_NE(server.Send(atServer, 2), 0u);
    client.TakeUntil("asked");
    ASSERT_TRUE(inside.IsOpen());
    ExpectPair(inside, other, "inside");
}

TEST(StreamData, WhatNobodyHasFetchedIsClosedWithTheChannel) {
    for (const std::string how : {"disconnect", "fall", "close"}) {
        SCOPED_TRACE(how);
        const Resources before;
        {
            ChannelEnds ends;
            ends.Open();
            const Fd first = Switch(ends.server);
            EXPECT_TRUE(Switch(ends.client).IsOpen());  // of first
            const Fd ofClient = Switch(ends.client);
            const Fd third = Switch(ends.server);   // of ofClient
            const Fd fourth = Switch(ends.server);  // kept for the client
            ASSERT_TRUE(fourth.IsOpen());
            if (how == "disconnect") {
                EXPECT_TRUE(ends.server.channel->Disconnect());
                ends.client.TakeUntil("channel 0");
            } else if (how == "fall") {
                ends.client.channel->Interrupt();
                ends.client.TakeUntil("connection 0");
                ends.server.TakeUntil("connection 0");
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
    Open();
    const Fd stale = Switch(server);
    EXPECT_TRUE(client.channel->Disconnect());
    server.TakeUntil("channel 0");
    EXPECT_TRUE(client.channel->Connect());
    client.TakeUntil("channel 2");
    server.TakeUntil("channel 2");
    const Fd atClientEnd = Switch(client);
    ExpectPair(atClientEnd, Switch(server), "anew");
}

TEST(StreamDataFailure, AClientGivesUpOnAServerThatIsSilentRefusesOrCannotBeDialled) {
    SetErrorHandler([](std::string_view) {});
    struct Case {
        uint32_t limitMS;
        Bytes answer;
    };
    for (const Case& c : std::vector<Case>{
             {kShortLimitMS, {}},
             {kLongMS, MakeFrame(FrameType::StreamDataRefused, {Value(1u), Value(uint64_t{0})})},
             {kLongMS,
              MakeFrame(FrameType::StreamDataOffer, {Value(1u), Value("unix:/nowhere"), Value(uint64_t{5})})}}) {
        ClientOfRawServer ends({.meetLimitMS = c.limitMS});
        const Resources before;
        auto asked = std::async(std::launch::async, [&] { return Switch(ends.client).IsOpen(); });
        EXPECT_EQ(ends.server->Await(FrameType::StreamDataRequest)[1].number, 1u);
        if (!c.answer.empty()) ends.server->Send(c.answer);
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
        ServerOfRawClient ends(options);
        RawEnd& client = *ends.client;
        const Resources before;
        auto asked = std::async(std::launch::async, [&] { return Switch(ends.server).IsOpen(); });
        const std::vector<Value> offer = client.Await(FrameType::StreamDataOffer);
        ASSERT_EQ(offer.size(), 3u);
        const uint64_t number = offer[2].number;
        const std::string address(offer[1].text);
        if (refuses) client.Send(MakeFrame(FrameType::StreamDataRefused, {Value(1u), Value(number)}));
        EXPECT_FALSE(asked.get());
        EXPECT_EQ(client.Await(FrameType::StreamDataRefused)[1].number, number);
        std::string error;
        EXPECT_FALSE(ConnectSocket(address, &error).IsOpen());
        ExpectBackTo(before);

        // More than one end keeps for its owner is refused.
        client.Send(MakeFrame(FrameType::StreamDataRequest, {Value(1u), Value(1000u)}));
        EXPECT_EQ(client.Await(FrameType::StreamDataRefused)[1].number, 0u);
    }
}

TEST(StreamDataFailure, AFallEndsTheWait) {
    ClientOfRawServer ofServer({.meetLimitMS = kLongMS});
    auto clientAsked = std::async(std::launch::async, [&] { return Switch(ofServer.client).IsOpen(); });
    ofServer.server->Await(FrameType::StreamDataRequest);
    ofServer.server.reset();
    EXPECT_FALSE(clientAsked.get());

    ChannelOptions options = ServerOptions();
    options.meetLimitMS = kLongMS;
    ServerOfRawClient ofClient(options);
    auto serverAsked = std::async(std::launch::async, [&] { return Switch(ofClient.server).IsOpen(); });
    ofClient.client->Await(FrameType::StreamDataOffer);
    ofClient.client.reset();
    EXPECT_FALSE(serverAsked.get());
}

}  // namespace
