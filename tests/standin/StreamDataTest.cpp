// Stream data: pairs of descriptors beside a channel.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <future>
#include <set>
#include <thread>

#include "standin/qscservice/ServiceTables.h"
#include "tests/standin/ChannelEnd.h"
#include "tests/standin/RawEnd.h"
#include "tests/support/Resources.h"

namespace {

using namespace qscservice;

constexpr uint32_t kBeyondTheTestMS = 10 * kLongMS;  // who waits for so long fails

// Not open when the switch was refused.
Fd Switch(ChannelEnd& end) {
    int fd = -1;
    const bool done = ServiceChannel::SwitchToStreamData("stream", end.channel->Handle(), &fd);
    EXPECT_EQ(done, fd > 0);
    return Fd(done ? fd : -1);
}

void Write(const Fd& fd, const std::string& text) {
    EXPECT_EQ(send(fd.Get(), text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
}

std::string Read(const Fd& fd, size_t size) {
    std::string text(size, '\0');
    text.resize(static_cast<size_t>(std::max<ssize_t>(0, recv(fd.Get(), text.data(), size, MSG_WAITALL))));
    return text;
}

// Whether the two are the two sides of one stream.
void ExpectPair(const Fd& one, const Fd& other, const std::string& text) {
    Write(one, text);
    EXPECT_EQ(Read(other, text.size()), text);
    Write(other, text);
    EXPECT_EQ(Read(one, text.size()), text);
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
    constexpr size_t kPairs = 12;
    Open("tcp:");
    std::vector<std::future<std::string>> heard;
    std::vector<std::thread> senders;
    for (size_t i = 0; i < kPairs; ++i) {
        senders.emplace_back([this, i] { Write(Switch(server), std::string(1, static_cast<char>('a' + i))); });
        heard.push_back(std::async(std::launch::async, [this] { return Read(Switch(client), 2); }));
    }
    std::set<std::string> all;
    for (auto& one : heard) all.insert(one.get());
    for (std::thread& sender : senders) sender.join();
    EXPECT_EQ(all.size(), kPairs);
    for (const std::string& one : all) EXPECT_EQ(one.size(), 1u);
}

TEST(StreamData, InsideACallbackAClientGetsOnlyWhatIsThereAlready) {
    ChannelEnds ends({.meetLimitMS = kBeyondTheTestMS});
    ends.Open();
    ends.ConnectObject();
    Fd inside;
    ends.client.onMessage = [&](void*, uint32_t) {
        inside = Switch(ends.client);
        ends.client.journal.Add("asked");
    };
    ASSERT_NE(ends.server.Send(ends.atServer, 1), 0u);
    ends.client.TakeUntil("asked");
    EXPECT_FALSE(inside.IsOpen());
    const Fd other = Switch(ends.server);
    ASSERT_NE(ends.server.Send(ends.atServer, 2), 0u);
    ends.client.TakeUntil("asked");
    ASSERT_TRUE(inside.IsOpen());
    ExpectPair(inside, other, "inside");
}

TEST(StreamData, WhatNobodyHasFetchedIsClosedWithTheChannelAndTheNextBeginsAnew) {
    for (const std::string how : {"disconnect", "fall", "close"}) {
        SCOPED_TRACE(how);
        const Resources before;
        {
            ChannelEnds ends;
            ends.Open();
            const Fd atServer = Switch(ends.server);
            const Fd atClient = Switch(ends.client);
            const Fd unfetched = Switch(ends.server);
            ASSERT_TRUE(unfetched.IsOpen());
            if (how == "disconnect") ends.server.channel->Disconnect();
            if (how == "fall") ends.client.channel->Interrupt();
            if (how == "close") ends.client.channel->Close();
            EXPECT_EQ(Read(unfetched, 1), "");
            ExpectPair(atClient, atServer, "fetched");
            if (how == "disconnect") {
                ends.client.TakeUntil("channel 0");
                EXPECT_TRUE(ends.client.channel->Connect());
                ends.AwaitChannel();
                const Fd anew = Switch(ends.client);
                ExpectPair(anew, Switch(ends.server), "anew");
            }
        }
        ExpectBackTo(before);
    }
}

// Silence, a refusal or a fall: whoever waits is let go with nothing, and nothing is left.
TEST(StreamDataFailure, AnEndGivesUpOnAPeerThatDoesNotComeToMeetIt) {
    for (const std::string how : {"silence", "refusal", "fall"}) {
        SCOPED_TRACE(how);
        ChannelOptions options = ServerOptions();
        options.meetLimitMS = how == "silence" ? 100 : kBeyondTheTestMS;
        ClientOfRawServer ofServer({.meetLimitMS = options.meetLimitMS});
        ServerOfRawClient ofClient(options);
        const Resources before;
        auto client = std::async(std::launch::async, [&] { return Switch(ofServer.client).IsOpen(); });
        auto server = std::async(std::launch::async, [&] { return Switch(ofClient.server).IsOpen(); });
        EXPECT_EQ(ofServer.server->Await(FrameType::StreamDataRequest)[1].number, 1u);
        const std::vector<Value> offer = ofClient.client->Await(FrameType::StreamDataOffer);
        const std::string address(offer[1].text);
        const uint64_t number = offer[2].number;
        if (how == "refusal") {
            ofServer.server->Send(MakeFrame(FrameType::StreamDataRefused, {1u, uint64_t{0}}));
            ofClient.client->Send(MakeFrame(FrameType::StreamDataRefused, {1u, number}));
        } else if (how == "fall") {
            ofServer.server.reset();
            ofClient.client.reset();
        }
        EXPECT_FALSE(client.get());
        EXPECT_FALSE(server.get());
        std::string error;
        EXPECT_FALSE(ConnectSocket(address, &error).IsOpen());
        if (how == "silence") {
            EXPECT_EQ(ofClient.client->Await(FrameType::StreamDataRefused)[1].number, number);
        }
        ExpectBackTo(before);
    }
}

}  // namespace
