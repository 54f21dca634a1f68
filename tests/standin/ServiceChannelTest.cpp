#include "standin/qscservice/ServiceChannel.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "standin/qscservice/ServiceTables.h"
#include "tests/standin/ChannelEnd.h"

namespace {

using namespace qscservice;

class ServiceChannelTest : public ChannelPair {};

TEST(ServiceChannelOpening, WaitsForTheServersSinkAndIsRejectedWhereItIsNotWanted) {
    for (const bool accepts : {true, false}) {
        ChannelOptions options = ServerOptions();
        options.acceptChannel = accepts;
        ChannelEnd server(options, false);
        ChannelEnd client({});
        std::string error;
        ASSERT_TRUE(server.channel->Listen("tcp:", &error)) << error;
        ASSERT_TRUE(client.channel->Dial(server.channel->Address(), &error)) << error;
        if (accepts) {
            ASSERT_TRUE(server.channel->WaitConnectionState(QSC_CONNECTION_CONNECTED, kLongMS));
            server.Register();
            // The sink may have come ahead of the news of the connection, which it then hears.
            EXPECT_EQ(server.TakeUntil("channel 2").back(), "channel 2");
        }
        EXPECT_EQ(client.journal.Take(2), (Texts{"connection 2", accepts ? "channel 2" : "channel 0"}));
    }
}

TEST_F(ServiceChannelTest, ADisconnectIsHeardByTheOtherEndOnlyAndTheChannelOpensAgain) {
    Open();
    for (ChannelEnd* first : {&client, &server}) {
        ConnectObject();
        ChannelEnd* other = first == &client ? &server : &client;
        server.onMessage = [](void* hContext, uint32_t) { ServiceChannel::Current()->Defer(hContext); };
        const uint32_t request = client.Request(atClient, 1);
        while (server.Total().delivered == 0) std::this_thread::yield();
        EXPECT_TRUE(first->channel->Disconnect());
        EXPECT_TRUE(first->channel->Disconnect());
        other->TakeUntil("channel 0");
        if (first == &client) client.TakeUntil("abort " + std::to_string(request) + " 1 1");
        for (void* hObject : {atClient, atServer}) {
            EXPECT_EQ(ServiceChannel::ObjectState(hObject), QSC_OBJECT_DISCONNECTED);
            EXPECT_TRUE(ServiceChannel::DestroyObject(hObject));
        }
        EXPECT_EQ(client.channel->OpenRequests(), 0u);
        EXPECT_TRUE(client.channel->Connect());
        EXPECT_EQ(client.TakeUntil("channel 2"), Texts{"channel 2"});
        EXPECT_EQ(server.TakeUntil("channel 2"), Texts{"channel 2"});
    }
}

TEST_F(ServiceChannelTest, AnObjectIsConnectedWhileBothEndsHaveIt) {
    Open();
    atServer = server.Create("object");
    EXPECT_EQ(ServiceChannel::ObjectState(atServer), QSC_OBJECT_PENDING);
    EXPECT_EQ(server.Send(atServer, 1), 0u);
    void* second = nullptr;
    static constexpr QSCRPC_ObjectNotifySink kSilent = {};
    EXPECT_FALSE(server.channel->CreateObject("object", &kSilent, nullptr, 1, &second));
    EXPECT_FALSE(server.channel->CreateObject("", &kSilent, nullptr, 1, &second));
    EXPECT_FALSE(server.channel->CreateObject(nullptr, &kSilent, nullptr, 1, &second));
    EXPECT_FALSE(server.channel->CreateObject("other", nullptr, nullptr, 1, &second));
    EXPECT_EQ(client.TakeUntil("peer object"), Texts{"peer object"});
    for (int round = 0; round < 2; ++round) {
        atClient = client.Create("object");
        EXPECT_EQ(client.TakeUntil("object state"), Texts{"object state"});
        EXPECT_EQ(server.TakeUntil("object state"), Texts{"object state"});
        EXPECT_NE(server.Send(atServer, 5), 0u);
        EXPECT_EQ(client.journal.Take(1), Texts{"object message 5"});
        EXPECT_TRUE(ServiceChannel::DestroyObject(atClient));
        EXPECT_EQ(server.TakeUntil("object state"), Texts{"object state"});
        EXPECT_EQ(ServiceChannel::ObjectState(atServer), QSC_OBJECT_DISCONNECTED);
        EXPECT_EQ(ServiceChannel::ObjectState(atClient), QSC_OBJECT_UNINITIALIZED);
    }
    EXPECT_EQ(server.Total().refused, 1u);
}

TEST_F(ServiceChannelTest, TellsWhichSideChannelsBothEndsOffer) {
    struct Case {
        uint32_t serverFlags, clientFlags, options;
    };
    Open();
    for (const Case& c : {Case{0x35, 0x0D, 0x30}, {0x5D, 0x4D, 0x50}, {0x5D, 0x0D, 0x10}, {0x05, 0x7D, 0x00}}) {
        ConnectObject(c.serverFlags, c.clientFlags);
        for (void* hObject : {atServer, atClient}) {
            uint32_t options = 99;
            EXPECT_TRUE(ServiceChannel::ObjectOptions(hObject, &options));
            EXPECT_EQ(options, c.options);
        }
        ServiceChannel::DestroyObject(atClient);
        server.TakeUntil("object state");
        ServiceChannel::DestroyObject(atServer);
    }
}

TEST_F(ServiceChannelTest, ARequestWithoutAReceiverIsAbortedAndAPostIsCounted) {
    Open();
    ConnectObject();
    std::mutex gate;
    std::unique_lock closed(gate);
    server.onMessage = [&](void*, uint32_t) { const std::lock_guard passed(gate); };
    ASSERT_NE(client.Send(atClient, 1), 0u);
    while (server.Total().delivered == 0) std::this_thread::yield();
    ASSERT_NE(client.Send(atClient, 2), 0u);
    const uint32_t request = client.Request(atClient, 3);
    ServiceChannel::DestroyObject(atServer);  // with the two messages behind the gate
    closed.unlock();
    client.TakeUntil("abort " + std::to_string(request) + " 0 2");
    EXPECT_EQ(server.channel->Counts()[2].undeliverable, 1u);
    EXPECT_EQ(server.channel->Counts()[3].undeliverable, 1u);
    EXPECT_EQ(server.Total().delivered, 1u);
    EXPECT_EQ(client.channel->OpenRequests(), 0u);
}

class PolledChannelTest : public ChannelPair {
protected:
    PolledChannelTest() : ChannelPair({.delivery = Delivery::Polled}) {
        client.channel->SetPollThread(std::this_thread::get_id());
        Open();
        ConnectObject();
    }
};

TEST_F(PolledChannelTest, DeliversOnThePollingThreadOnlyAndNeverInsideACallback) {
    std::thread::id ran;
    client.onMessage = [&](void*, uint32_t command) {
        ran = std::this_thread::get_id();
        client.journal.Add("begin " + std::to_string(command));
        client.channel->Poll();
        client.journal.Add("end " + std::to_string(command));
    };
    ASSERT_NE(server.Send(atServer, 1), 0u);
    ASSERT_NE(server.Send(atServer, 2), 0u);
    std::thread([&] { client.channel->PollWait(50); }).join();
    EXPECT_TRUE(client.journal.Take(0).empty());
    EXPECT_EQ(client.TakeUntil("end 2"), (Texts{"begin 1", "end 1", "begin 2", "end 2"}));
    EXPECT_EQ(ran, std::this_thread::get_id());
}

// The sender is held up while nobody polls, and goes on when somebody does.
TEST_F(PolledChannelTest, ThePeerWaitsWhenTooMuchIsNotPolled) {
    constexpr uint32_t kMessages = 64;
    std::atomic<uint32_t> sent{0};
    std::thread sender([&] {
        for (; sent < kMessages; ++sent) ASSERT_NE(server.Send(atServer, 1, 1 << 20), 0u);
    });
    uint32_t received = 0;
    client.onMessage = [&](void*, uint32_t) {
        if (received++ != 0) return;
        while (sent < 16) std::this_thread::yield();
        for (int i = 0; i < 1000; ++i) std::this_thread::yield();
        EXPECT_LE(sent.load(), 24u);
    };
    while (received < kMessages) client.channel->PollWait(kLongMS);
    sender.join();
    EXPECT_EQ(client.Total().delivered, kMessages);
}

TEST_F(PolledChannelTest, WhatIsNotPolledBeforeCloseIsDropped) {
    EXPECT_NE(client.Request(atClient, 1), 0u);
    EXPECT_EQ(server.journal.Take(1), Texts{"object message 1"});
    client.channel->Interrupt();
    server.TakeUntil("connection 0");
    client.channel->Close();
    client.channel->Poll();
    EXPECT_TRUE(client.journal.Take(0).empty());
    EXPECT_EQ(client.channel->OpenRequests(), 0u);
    EXPECT_EQ(ContextTable::Live(), 0u);
}

TEST_F(ServiceChannelTest, RefusesTransportOutOfOrderWithAClearError) {
    Open();
    std::string error;
    EXPECT_FALSE(server.channel->Listen("unix:", &error));
    EXPECT_EQ(error, "the channel has a connection already");
    EXPECT_FALSE(client.channel->Reconnect(&error));
    EXPECT_EQ(error, "the channel is connected");
    ChannelEnd other({});
    EXPECT_FALSE(other.channel->Reconnect(&error));
    EXPECT_EQ(error, "only a channel that has dialled can connect again");
    int pipeEnds[2];
    ASSERT_EQ(pipe(pipeEnds), 0);
    EXPECT_FALSE(other.channel->Attach(pipeEnds[0], &error));
    EXPECT_EQ(error, "the file descriptor is no stream socket");
    EXPECT_NE(close(pipeEnds[0]), 0);
    close(pipeEnds[1]);
    other.channel->Close();
    EXPECT_FALSE(other.channel->Dial("unix:/x", &error));
    EXPECT_EQ(error, "the channel is closed");

    ConnectObject();
    Texts lines;
    SetErrorHandler([&](std::string_view line) { lines.emplace_back(line); });
    client.onMessage = [&](void*, uint32_t) {
        EXPECT_FALSE(client.channel->Reconnect(&error));
        EXPECT_EQ(error, "not possible inside a callback");
        client.channel->Close();
    };
    ASSERT_NE(server.Send(atServer, 1), 0u);
    client.TakeUntil("connection 0");
    SetErrorHandler({});
    EXPECT_EQ(lines, Texts{"a channel cannot be closed inside a callback"});
}

}  // namespace
