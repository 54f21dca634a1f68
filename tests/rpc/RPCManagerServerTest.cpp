// The callbacks of the server table, with a manager that was supplied with one.
#include "tests/rpc/ChannelService.h"

namespace {

void* const kServer = reinterpret_cast<void*>(0x51);
void* const kOther = reinterpret_cast<void*>(0x52);

class RPCManagerServerTest : public testing::Test {
protected:
    void SetUp() override {
        QSCService_ServerInterface table{};
        table.GetServerChannel = [](QscServerID id) { return id; };
        manager.SetServerInterface(table);
        manager.QSCPluginInit(service.Query());
        handle = manager.FindHandle(log);
        ASSERT_NE(handle, nullptr);
        service.TakeCalls();
        log.Clear();
    }

    LogCapture log;
    ChannelService service;
    HookManager manager;
    void* handle = nullptr;
};

TEST_F(RPCManagerServerTest, FollowsAServerConnectionFromItsStartToItsEnd) {
    EXPECT_EQ(RPCManager::QscOnServerConnected(handle, QSC_SESSION_STORM, kServer), TRUE);
    EXPECT_TRUE(log.Has(kLogInfo, Text("STORM SESSION server [0x%p] connected.", kServer)));
    EXPECT_TRUE(RPCManager::GetRPCManagerByServerId(kServer) == &manager);
    EXPECT_FALSE(RPCManager::GetInstanceByServerId(kServer));
    EXPECT_TRUE(log.Has(kLogWarn, Text("RPCInstance for hServerId(0x%p) not found", kServer)));

    void* instance = nullptr;
    EXPECT_EQ(RPCManager::QscOnServerInstanceCreated(handle, kServer, &instance), TRUE);
    EXPECT_EQ(service.context, instance);
    EXPECT_TRUE(RPCManager::GetInstanceByServerId(kServer) == manager.latest);
    EXPECT_TRUE(log.Has(kLogInfo, Text("rpcInstance(0x%p) created", instance)));

    EXPECT_EQ(RPCManager::QscOnServerDisconnected(handle, kServer), TRUE);
    EXPECT_TRUE(log.Has(kLogInfo, Text("Server [0x%p] disconnected.", kServer)));
    EXPECT_TRUE(RPCManager::GetRPCManagerByServerId(kServer));

    EXPECT_EQ(RPCManager::QscOnServerInstanceDestroyed(handle, instance, kServer), TRUE);
    EXPECT_EQ(service.TakeCalls(), (Names{"Register", "Unregister", "OnDestroyServerInstance", "instance gone"}));
    EXPECT_FALSE(RPCManager::GetRPCManagerByServerId(kServer));
    EXPECT_TRUE(log.Has(kLogWarn, Text("RPCManager for hServerId(0x%p) not found", kServer)));
    log.Clear();
    EXPECT_EQ(RPCManager::QscOnServerInstanceDestroyed(handle, instance, kServer), FALSE);
    EXPECT_EQ(log.Texts(kLogWarn).size(), 1u);
}

TEST_F(RPCManagerServerTest, ASecondInstanceOfOneServerTakesThePlaceOfTheFirst) {
    void *first = nullptr, *second = nullptr;
    RPCManager::QscOnServerConnected(handle, QSC_SESSION_PCOIP, kServer);
    RPCManager::QscOnServerInstanceCreated(handle, kServer, &first);
    RPCManager::QscOnServerInstanceCreated(handle, kServer, &second);
    EXPECT_NE(first, second);
    EXPECT_EQ(service.Count("instance gone"), 1u);
    EXPECT_TRUE(RPCManager::GetInstanceByServerId(kServer) == manager.latest);
    EXPECT_EQ(RPCManager::QscOnServerInstanceDestroyed(handle, second, kServer), TRUE);
}

TEST_F(RPCManagerServerTest, RefusesInstancesWithoutATableOrFromAHookThatMakesNone) {
    void* instance = this;
    EXPECT_EQ(RPCManager::QscOnServerInstanceCreated(handle, kServer, nullptr), FALSE);
    manager.createNothing = true;
    EXPECT_EQ(RPCManager::QscOnServerInstanceCreated(handle, kServer, &instance), FALSE);
    manager.SetServerInterface({});
    EXPECT_EQ(RPCManager::QscOnServerInstanceCreated(handle, kServer, &instance), FALSE);
    EXPECT_EQ(log.Texts(kLogError).size(), 3u);
    EXPECT_EQ(log.Texts(kLogError).back(), "ServerInterface is needed for MultiServer mode.\n");
    EXPECT_EQ(instance, this);
    EXPECT_EQ(service.TakeCalls(), Names{});
}

TEST_F(RPCManagerServerTest, UnknownManagersAndServersAreWarnings) {
    void* instance = nullptr;
    EXPECT_EQ(RPCManager::QscOnServerConnected(this, QSC_SESSION_NONE, kOther), FALSE);
    EXPECT_EQ(RPCManager::QscOnServerDisconnected(this, kOther), FALSE);
    EXPECT_EQ(RPCManager::QscOnServerInstanceCreated(this, kOther, &instance), FALSE);
    EXPECT_EQ(RPCManager::QscOnServerInstanceDestroyed(this, instance, kOther), FALSE);
    EXPECT_FALSE(RPCManager::GetInstanceByServerId(kOther));
    const std::string both = Text("RPCManager(0x%p) hServerId(0x0x52) not found", this);
    const std::string unknown = "RPCManager for hServerId(0x0x52) not found";
    EXPECT_EQ(log.Texts(kLogWarn),
              (Names{Text("RPCManager 0x%p not found", this), both, both, both, unknown, unknown}));
}

}  // namespace
