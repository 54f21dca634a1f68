#include "standin/qscservice/ServiceChannel.h"

#include <gtest/gtest.h>

#include <mutex>

#include "standin/qscservice/ServiceTables.h"
#include "tests/standin/ChannelEnd.h"

namespace {

using namespace qscservice;

class ServiceChannelTest : public ChannelPair {};

TEST_F(ServiceChannelTest, ADisconnectIsHeardByTheOtherEndOnlyAndTheChannelOpensAgain) {
    Open();
    for (ChannelEnd* first : {&client, &server}) {
        ConnectObject();
        ChannelEnd* other = first == &client ? &server : &client;
        server.onMessage = [](void* hContext, uint32_t) { ServiceChannel::Current()->Defer(hContext); };
        const uint32_t request = client.Request(atClient, 1);
        server.AwaitReceived(first == &client ? 1 : 2);
        EXPECT_TRUE(first->channel->Disconnect());
        EXPECT_TRUE(first->channel->Disconnect());
        other->TakeUntil("channel 0");
        if (first == &client) client.TakeUntil("abort " + std::to_string(request) + " 1 1");
        DestroyObjects();
        EXPECT_EQ(client.channel->OpenRequests(), 0u);
        EXPECT_TRUE(client.channel->Connect());
        EXPECT_EQ(client.TakeUntil("channel 2"), Texts{"channel 2"});
        EXPECT_EQ(server.TakeUntil("channel 2"), Texts{"channel 2"});
    }
}

TEST_F(ServiceChannelTest, AnObjectIsConnectedWhileBothEndsHaveItAndTellsTheSideChannelsThatBothOffer) {
    Open();
    atServer = server.Create("object", 0x5D);
    EXPECT_EQ(ServiceChannel::ObjectState(atServer), QSC_OBJECT_PENDING);
    EXPECT_EQ(server.Send(atServer, 1), 0u);
    void* second = nullptr;
    static constexpr QSCRPC_ObjectNotifySink kSilent = {};
    EXPECT_FALSE(server.channel->CreateObject("object", &kSilent, nullptr, 1, &second));
    EXPECT_EQ(client.TakeUntil("peer object"), Texts{"peer object"});
    for (const auto& [flags, shared] : {std::pair(0x4Du, 0x50u), {0x0Du, 0x10u}}) {
        atClient = client.Create("object", flags);
        EXPECT_EQ(client.TakeUntil("object state"), Texts{"object state"});
        EXPECT_EQ(server.TakeUntil("object state"), Texts{"object state"});
        for (void* hObject : {atServer, atClient}) {
            uint32_t options = 99;
            EXPECT_TRUE(ServiceChannel::ObjectOptions(hObject, &options));
            EXPECT_EQ(options, shared);
        }
        EXPECT_NE(server.Send(atServer, 5), 0u);
        EXPECT_EQ(client.journal.Take(1), Texts{"object message 5"});
        EXPECT_TRUE(ServiceChannel::DestroyObject(atClient));
        EXPECT_EQ(server.TakeUntil("object state"), Texts{"object state"});
        EXPECT_EQ(ServiceChannel::ObjectState(atServer), QSC_OBJECT_DISCONNECTED);
        EXPECT_EQ(ServiceChannel::ObjectState(atClient), QSC_OBJECT_UNINITIALIZED);
    }
    EXPECT_EQ(server.Total().refused, 1u);
}

TEST_F(ServiceChannelTest, ARequestWithoutAReceiverIsAbortedAndAPostIsCounted) {
    Open();
    ConnectObject();
    std::mutex gate;
    std::unique_lock closed(gate);
    server.onMessage = [&](void*, uint32_t) { const std::lock_guard passed(gate); };
    ASSERT_NE(client.Send(atClient, 1), 0u);
    server.AwaitReceived(1);
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

TEST(PolledChannelTest, WhatIsNotPolledBeforeCloseIsDropped) {
    ChannelEnds ends({.delivery = Delivery::Polled});
    ends.Open();
    ends.ConnectObject();
    EXPECT_NE(ends.client.Request(ends.atClient, 1), 0u);
    EXPECT_EQ(ends.server.journal.Take(1), Texts{"object message 1"});
    ends.client.channel->Interrupt();
    ends.server.TakeUntil("connection 0");
    ends.client.channel->Close();
    ends.client.channel->Poll();
    EXPECT_TRUE(ends.client.journal.Take(0).empty());
    EXPECT_EQ(ends.client.channel->OpenRequests(), 0u);
    EXPECT_EQ(ContextTable::Live(), 0u);
}

}  // namespace
