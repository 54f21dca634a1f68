// The ways to a peer other than the plain channel, with the framework at both ends: side channels, message channels,
// stream data; and the single mode.
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <numeric>
#include <thread>

#include "standin/qscservice/MsgChannels.h"
#include "standin/qscservice/ScriptedService.h"
#include "standin/qscservice/ServiceChannel.h"
#include "standin/qscservice/Transport.h"
#include "tests/server/Ends.h"
#include "tests/support/LogCapture.h"

namespace {

using namespace qscservice;

constexpr uint32_t kWaitMS = 20000;

// A plug-in's end on a channel of its own.
class ClientEnd {
public:
    ClientEnd() {
        const CurrentChannel current(channel.get());
        manager.SetServerInterface(kServerTable);
        EXPECT_TRUE(manager.QSCPluginInit(Query()));
        EXPECT_TRUE(manager.QSCPluginCreateInstance(channel->Handle(), &handle));
    }
    ~ClientEnd() {
        const CurrentChannel current(channel.get());
        manager.QSCPluginDestroyInstance(handle);
        manager.QSCPluginExit();
        channel->Close();
    }

    bool Dial(const std::string& address) {
        std::string error;
        const bool dialled = channel->Dial(address, &error);
        EXPECT_TRUE(dialled) << error;
        return dialled;
    }
    ClientInstance& Instance() { return *manager.instance; }

    const std::shared_ptr<ServiceChannel> channel = ServiceChannel::Create();
    Client manager;

private:
    void* handle = nullptr;
};

class ChannelModes : public testing::Test {
protected:
    void SetUp() override {
        SetErrorHandler([](std::string_view) {});
        SetServerOptions({.address = "unix:"});
        server->keepLatest = true;
    }
    void TearDown() override {
        if (server->IsInitialized()) {
            EXPECT_TRUE(server->MultiServerExit(0, nullptr));
        }
        EXPECT_EQ(gInstances, 0);
        EXPECT_EQ(ScriptedService::LiveContexts(), 0u);
        SetServerOptions({});
        SetErrorHandler({});
    }

    LogCapture log;
    RCPtr<Server> server{new Server};
};

TEST_F(ChannelModes, DataObjectsTravelOnTheSideChannelThatTheServerOffers) {
    for (const bool tcp : {true, false}) {
        SCOPED_TRACE(tcp ? "tcp" : "virtual");
        server->wantTcp = tcp;
        server->wantVirtual = !tcp;
        ASSERT_TRUE(server->MultiServerInit(0));
        {
            ClientEnd client;
            client.Instance().awaited = 500;
            ASSERT_TRUE(client.Dial(ServerAddress()));
            ASSERT_TRUE(client.manager.events.WaitFor("ready"));
            EXPECT_TRUE(
                log.Has(kLogInfo, tcp ? "Requesting tcp side channel.\n" : "Requesting virtual side channel.\n"));
            for (int i = 0; i < 500; ++i) ASSERT_TRUE(client.Instance().Ask()) << i;
            ASSERT_TRUE(client.manager.events.WaitFor("has its answers"));
            EXPECT_EQ(client.Instance().aborts, 0);
        }
        server->TakeLatest();
        ASSERT_TRUE(server->MultiServerExit(0, nullptr));
        log.Clear();
    }
}

// The request comes back as a second report that the object is connected, and the object stays aside.
TEST_F(ChannelModes, ASideChannelThatCannotBeHadLeavesTheClientUnready) {
    ServerOptions options{.address = "unix:"};
    options.channel.sideChannels = 0;
    SetServerOptions(options);
    server->wantTcp = true;
    ASSERT_TRUE(server->MultiServerInit(0));
    ClientEnd client;
    ASSERT_TRUE(client.Dial(ServerAddress()));
    EXPECT_TRUE(log.WaitFor(kLogError, "Side channel request failed.\n"));
    EXPECT_FALSE(client.Instance().IsReady());
    EXPECT_EQ(client.manager.events.Take(), Texts{});
    server->TakeLatest();
}

TEST_F(ChannelModes, APeerThatDoesNotSayHelloInTimeIsHungUpOn) {
    ServerOptions options{.address = "unix:"};
    options.channel.helloLimitMS = 20;
    SetServerOptions(options);
    ASSERT_TRUE(server->MultiServerInit(0));
    for (const std::string_view said : {"", "QSC1"}) {
        std::string error;
        const Fd peer = ConnectSocket(ServerAddress(), &error);
        ASSERT_TRUE(peer.IsOpen()) << error;
        ASSERT_EQ(write(peer.Get(), said.data(), said.size()), static_cast<ssize_t>(said.size()));
        char byte = 0;
        EXPECT_LE(read(peer.Get(), &byte, 1), 0);
    }
    EXPECT_EQ(server->events.Take(), Texts{});
}

TEST_F(ChannelModes, MessageChannelsCarryWordsBothWays) {
    ASSERT_TRUE(server->MultiServerInit(0));
    ClientEnd client;
    ASSERT_TRUE(client.Dial(ServerAddress()));
    ASSERT_TRUE(client.manager.events.WaitFor("ready"));
    ASSERT_TRUE(server->events.WaitFor("1 ready"));
    const RCPtr<ServerInstance> serverEnd = server->TakeLatest();
    void* const atServer = serverEnd->OpenMsgChannel("words");
    ASSERT_NE(atServer, nullptr);
    ASSERT_TRUE(server->events.WaitFor("opened words"));
    EXPECT_TRUE(serverEnd->IsMsgChannelOpened(atServer));
    EXPECT_FALSE(serverEnd->SendMsgChannel(atServer, nullptr, nullptr, atServer)) << "no peer yet";

    const CurrentChannel current(client.channel.get());
    void* const atClient = client.Instance().OpenMsgChannel("words");
    ASSERT_NE(atClient, nullptr);
    ASSERT_TRUE(server->events.WaitFor("peer"));
    ASSERT_TRUE(client.manager.events.WaitFor("peer"));
    ASSERT_TRUE(client.Instance().SendMsgChannel(atClient, reinterpret_cast<void*>(10), reinterpret_cast<void*>(20),
                                                 reinterpret_cast<void*>(30)));
    EXPECT_TRUE(client.manager.events.WaitFor("words 11 21 31"));

    QSCService_MsgChannelInfo info{};
    ASSERT_TRUE(serverEnd->GetMsgChannelInfo(atServer, &info));
    EXPECT_STREQ(info.name, "words");
    EXPECT_FALSE(info.peer);
    ASSERT_TRUE(serverEnd->GetMsgChannelInfo(serverEnd->lastPeer, &info));
    EXPECT_STREQ(info.name, "words");
    EXPECT_TRUE(info.peer);

    EXPECT_TRUE(client.Instance().CloseMsgChannel(atClient));
    EXPECT_FALSE(client.Instance().CloseMsgChannel(atClient));
    EXPECT_TRUE(serverEnd->CloseMsgChannel(atServer));
    EXPECT_FALSE(serverEnd->IsMsgChannelOpened(atServer));
}

TEST_F(ChannelModes, StreamDataIsASocketBetweenTheTwoOwners) {
    ASSERT_TRUE(server->MultiServerInit(0));
    ClientEnd client;
    ASSERT_TRUE(client.Dial(ServerAddress()));
    ASSERT_TRUE(client.manager.events.WaitFor("ready"));
    ASSERT_TRUE(server->events.WaitFor("1 ready"));
    const RCPtr<ServerInstance> serverEnd = server->TakeLatest();
    int atClient = 0;
    std::thread asking([&] { atClient = client.Instance().SwitchToStreamDataMode(); });
    const int atServer = serverEnd->SwitchToStreamDataMode();
    asking.join();
    ASSERT_GT(atServer, 0);
    ASSERT_GT(atClient, 0);
    EXPECT_TRUE(log.Has(kLogInfo, "Switch to StreamData mode Succeeded fd=" + std::to_string(atServer) + "!\n"));

    std::vector<uint8_t> sent(1 << 20);
    std::iota(sent.begin(), sent.end(), uint8_t{0});
    std::thread writer(
        [&] { EXPECT_EQ(write(atServer, sent.data(), sent.size()), static_cast<ssize_t>(sent.size())); });
    std::vector<uint8_t> received;
    for (uint8_t part[4096]; received.size() < sent.size();) {
        const ssize_t count = read(atClient, part, sizeof part);
        ASSERT_GT(count, 0);
        received.insert(received.end(), part, part + count);
    }
    writer.join();
    EXPECT_EQ(received, sent);
    EXPECT_FALSE(serverEnd->ChannelDisconnect());
    EXPECT_TRUE(log.Has(kLogError, "ChannelDisconnect is not supported in streamData mode\n"));
    close(atServer);
    close(atClient);
}

TEST_F(ChannelModes, SingleModeServesOneInstanceOrGivesUpInTime) {
    const RCPtr<ServerInstance> late(new ServerInstance(server.Get(), "late", &server->events));
    EXPECT_FALSE(server->ServerInit(late.Get(), 1, false));
    EXPECT_TRUE(log.Has(kLogError, "WaitUntilReadyOrRejected failed [-1]\n"));
    EXPECT_TRUE(log.Has(kLogInfo, "QSCService_ServerExit() [OK]\n"));
    EXPECT_EQ(ServerAddress(), "");

    ClientEnd client;
    server->onBound = [&] { ASSERT_TRUE(client.Dial(ServerAddress())); };
    const RCPtr<ServerInstance> instance(new ServerInstance(server.Get(), "single", &server->events));
    ASSERT_TRUE(server->ServerInitForSession(7, instance.Get(), kWaitMS));
    ASSERT_TRUE(server->events.WaitFor("single ready"));
    ASSERT_TRUE(client.manager.events.WaitFor("ready"));
    client.Instance().awaited = 1;
    ASSERT_TRUE(client.Instance().Ask());
    EXPECT_TRUE(client.manager.events.WaitFor("has its answers"));
    EXPECT_FALSE(server->ServerExitForSession(7, late.Get(), false)) << "another instance";
    EXPECT_TRUE(server->ServerExitForSession(7, instance.Get(), false));
    EXPECT_TRUE(client.manager.events.WaitFor("not ready"));
    EXPECT_FALSE(server->ServerExitForSession(7, instance.Get(), false));
}

}  // namespace
