// The callbacks of the server table, with a manager that was supplied with one.
#include <gtest/gtest.h>

#include "tests/rpc/TableService.h"
#include "tests/rpc/TestManager.h"

namespace {

void* const kServer = reinterpret_cast<void*>(0x51);
void* const kOther = reinterpret_cast<void*>(0x52);

class RPCManagerServerTest : public testing::Test {
protected:
    void SetUp() override {
        manager.QSCPluginInit(service.Query());
        handle = manager.FindHandle(log);
        ASSERT_NE(handle, nullptr);
        manager.TakeHeard();
        log.Clear();
    }

    void SupplyServerTable() {
        QSCService_ServerInterface table{};
        table.GetServerChannel = [](QscServerID id) { return id; };
        manager.SetServerInterface(table);
    }

    LogCapture log;
    TableService service;
    TestManager manager;
    void* handle = nullptr;
};

TEST_F(RPCManagerServerTest, FollowsAServerConnectionFromItsStartToItsEnd) {
    SupplyServerTable();
    EXPECT_EQ(RPCManager::QscOnServerConnected(handle, QSC_SESSION_STORM, kServer), TRUE);
    EXPECT_TRUE(log.Has(kLogInfo, WithHandle("STORM SESSION server [0x%p] connected.", kServer)));
    EXPECT_TRUE(RPCManager::GetRPCManagerByServerId(kServer) == &manager);
    EXPECT_FALSE(RPCManager::GetInstanceByServerId(kServer));
    EXPECT_TRUE(log.Has(kLogWarn, WithHandle("RPCInstance for hServerId(0x%p) not found", kServer)));

    void* instance = nullptr;
    EXPECT_EQ(RPCManager::QscOnServerInstanceCreated(handle, kServer, &instance), TRUE);
    EXPECT_EQ(service.sinkContext, instance);
    EXPECT_TRUE(RPCManager::GetInstanceByServerId(kServer) == manager.latest);
    EXPECT_TRUE(log.Has(kLogInfo, WithHandle("rpcInstance(0x%p) created", instance)));

    EXPECT_EQ(RPCManager::QscOnServerDisconnected(handle, kServer), TRUE);
    EXPECT_TRUE(log.Has(kLogInfo, WithHandle("Server [0x%p] disconnected.", kServer)));
    EXPECT_TRUE(RPCManager::GetRPCManagerByServerId(kServer));

    EXPECT_EQ(RPCManager::QscOnServerInstanceDestroyed(handle, instance, kServer), TRUE);
    EXPECT_EQ(service.calls, (Texts{"Register", "Unregister"}));
    EXPECT_EQ(manager.TakeHeard(), (Texts{"OnDestroyServerInstance", "instance gone"}));
    EXPECT_FALSE(RPCManager::GetRPCManagerByServerId(kServer));
    EXPECT_TRUE(log.Has(kLogWarn, WithHandle("RPCManager for hServerId(0x%p) not found", kServer)));
    log.Clear();
    EXPECT_EQ(RPCManager::QscOnServerInstanceDestroyed(handle, instance, kServer), FALSE);
    EXPECT_EQ(log.Texts(kLogWarn).size(), 1u);
}

TEST_F(RPCManagerServerTest, ASecondInstanceOfOneServerTakesThePlaceOfTheFirst) {
    SupplyServerTable();
    void *first = nullptr, *second = nullptr;
    RPCManager::QscOnServerConnected(handle, QSC_SESSION_PCOIP, kServer);
    RPCManager::QscOnServerInstanceCreated(handle, kServer, &first);
    RPCManager::QscOnServerInstanceCreated(handle, kServer, &second);
    EXPECT_NE(first, second);
    EXPECT_EQ(manager.TakeHeard(), Texts{"instance gone"});
    EXPECT_TRUE(RPCManager::GetInstanceByServerId(kServer) == manager.latest);
    EXPECT_EQ(RPCManager::QscOnServerInstanceDestroyed(handle, second, kServer), TRUE);
}

TEST_F(RPCManagerServerTest, RefusesInstancesWithoutATableOrFromAHookThatMakesNone) {
    void* instance = this;
    EXPECT_EQ(RPCManager::QscOnServerInstanceCreated(handle, kServer, &instance), FALSE);
    EXPECT_EQ(log.Texts(kLogError), Texts{"ServerInterface is needed for MultiServer mode.\n"});
    SupplyServerTable();
    EXPECT_EQ(RPCManager::QscOnServerInstanceCreated(handle, kServer, nullptr), FALSE);
    manager.createNothing = true;
    EXPECT_EQ(RPCManager::QscOnServerInstanceCreated(handle, kServer, &instance), FALSE);
    EXPECT_EQ(log.Texts(kLogError).size(), 3u);
    EXPECT_EQ(instance, this);
    EXPECT_EQ(service.calls, Texts{});
}

TEST_F(RPCManagerServerTest, UnknownManagersAndServersAreWarnings) {
    void* instance = nullptr;
    EXPECT_EQ(RPCManager::QscOnServerConnected(this, QSC_SESSION_NONE, kOther), FALSE);
    EXPECT_EQ(RPCManager::QscOnServerDisconnected(this, kOther), FALSE);
    EXPECT_EQ(RPCManager::QscOnServerInstanceCreated(this, kOther, &instance), FALSE);
    EXPECT_EQ(RPCManager::QscOnServerInstanceDestroyed(this, instance, kOther), FALSE);
    EXPECT_FALSE(RPCManager::GetInstanceByServerId(kOther));
    const std::string both = WithHandle("RPCManager(0x%p) hServerId(0x0x52) not found", this);
    const std::string unknown = "RPCManager for hServerId(0x0x52) not found";
    EXPECT_EQ(log.Texts(kLogWarn),
              (Texts{WithHandle("RPCManager 0x%p not found", this), both, both, both, unknown, unknown}));
}

}  // namespace
