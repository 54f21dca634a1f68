#include "rpc/RPCManager.h"

#include <memory>
#include <optional>
#include <thread>

#include "tests/rpc/ChannelService.h"

namespace {

class RPCManagerTest : public testing::Test {
protected:
    void Init() { ASSERT_TRUE(manager.QSCPluginInit(service.Query())); }
    void* CreateInstance() {
        void* instance = nullptr;
        EXPECT_TRUE(manager.QSCPluginCreateInstance(this, &instance));
        return instance;
    }

    LogCapture log;
    ChannelService service;
    HookManager manager;
};

struct FetchCase {
    const char* offered;
    bool isServer;
    const char* asked;
    const char* missing;  // the table without which the init fails, if any
};

TEST_F(RPCManagerTest, FetchesTheTablesNewestFirstAndStopsAtTheFirstMissingOne) {
    const FetchCase cases[] = {
        {"0B 12 08 00 0E 19", false, "0B 12 08 00 0E 19", nullptr},
        {"06 02 03 00 0C 05", false, "0B 10 06 12 0F 0A 02 08 03 00 0E 0C 19 18 16 07 05", nullptr},
        {"06 02 03 00 0C", true, "0B 10 06 12 0F 0A 02 08 03 00 0E 0C", nullptr},
        {"10 0F 03 00 16", false, "0B 10 12 0F 08 03 00 0E 0C 19 18 16", nullptr},
        {"", false, "0B 10 06", "QSCService_ChannelInterface"},
        {"", true, "0B 10 06", "QSCService_ChannelInterface"},
        {"0B", false, "0B 12 0F 0A 02", "QSCRPC_ChannelObjectInterface"},
        {"0B 0A", false, "0B 12 0F 0A 08 03", "QSCRPC_ChannelContextInterface"},
        {"0B 12 08", false, "0B 12 08 00", "QSCRPC_VariantInterface"},
        {"0B 12 08 00 0E", false, "0B 12 08 00 0E 19 18 16 07 05", "QSCOverlay_ClientInterface"},
    };
    const std::string old = "Failed to get QSCService_ChannelInterface_V2, streamData mode not supported\n";
    for (const FetchCase& c : cases) {
        SCOPED_TRACE(c.offered);
        HookManager fresh;
        service.offered = c.offered;
        service.asked.clear();
        log.Clear();
        const QSC_SERVICE_QUERY_INTERFACE query = service.Query();
        EXPECT_EQ(fresh.Init(c.isServer, &query), !c.missing);
        EXPECT_EQ(service.asked, c.asked);
        EXPECT_EQ(log.Texts(kLogError), (c.missing ? Names{Text("Failed to get %s\n", c.missing)} : Names{}));
        const bool noStream = c.offered == std::string("10 0F 03 00 16");
        EXPECT_EQ(log.Texts(kLogWarn), (noStream ? Names{"Failed to get QSCRPC_StreamDataInterface\n"} : Names{}));
        const bool surge = !c.missing && !c.isServer;
        EXPECT_EQ(log.Texts(kLogDebug), (c.isServer ? Names{old}
                                         : surge    ? Names{"SURGE side channel supported\n"}
                                                    : Names{}));
        EXPECT_EQ(fresh.m_surgeSupported, surge);
    }
}

TEST_F(RPCManagerTest, AnOlderServiceAtALaterInitLeavesNoWordsOfTheNewerOne) {
    Init();
    std::vector<KxEvent*> none;
    EXPECT_EQ(manager.PollWaitMultiple(none, false, 0, false), kWaitTimedOut);
    manager.QSCPluginExit();
    service.offered = "06 12 08 00 0E 19";
    Init();
    EXPECT_EQ(manager.PollWaitMultiple(none, false, 0, false), kWaitFailed);
    EXPECT_TRUE(log.Has(kLogError, "Please upgrade qscservice to support v3.Poll\n"));
}

TEST_F(RPCManagerTest, RefusesAServiceWithoutAQueryOperation) {
    const QSC_INTERFACE_ID id = QSC_MakeInterfaceId(0x0B);
    QSCService_ChannelInterface table{};
    const QSC_SERVICE_QUERY_INTERFACE empty{}, query = service.Query();
    EXPECT_FALSE(manager.ClientInit(nullptr));
    EXPECT_FALSE(manager.ClientInit(&empty));
    EXPECT_EQ(log.Count("Failed to get QSCService_ChannelInterface\n"), 2u);
    EXPECT_EQ(manager.QueryInterface(&id, &table), FALSE);
    EXPECT_TRUE(manager.ClientInit(&query));
    EXPECT_EQ(manager.QueryInterface(&id, &table), TRUE);
    EXPECT_EQ(table.GetSessionType, service.channel.GetSessionType);
}

TEST_F(RPCManagerTest, ConfiguresSideChannelsInOrderAndStopsAtTheFirstFailure) {
    struct {
        bool wantTcp, tcpResult, virtualResult;
        Names calls, errors;
    } cases[] = {
        {false, true, true, {"tcp", "virtual", "OnClientInit"}, {}},
        {true, true, false, {"tcp", "OnClientInit"}, {}},
        {false, false, true, {"tcp"}, {"Error in configuring TcpSide Channel.\n"}},
        {false, true, false, {"tcp", "virtual"}, {"Error in configuring Virtual Side Channel.\n"}},
    };
    const QSC_SERVICE_QUERY_INTERFACE query = service.Query();
    for (const auto& c : cases) {
        HookManager fresh;
        fresh.m_tcpSideChannel = c.wantTcp;
        fresh.tcpResult = c.tcpResult;
        fresh.virtualResult = c.virtualResult;
        log.Clear();
        service.TakeCalls();
        EXPECT_EQ(fresh.ClientInit(&query), c.errors.empty());
        EXPECT_EQ(fresh.IsInitialized(), c.errors.empty());
        EXPECT_EQ(service.TakeCalls(), c.calls);
        EXPECT_EQ(log.Texts(kLogError), c.errors);
    }
}

TEST_F(RPCManagerTest, InitAndExitOutOfTurnAreRefusedAndCanRepeat) {
    EXPECT_TRUE(manager.QSCPluginExit());
    EXPECT_EQ(log.Texts(kLogError), Names{"Not initialized\n"});
    EXPECT_EQ(service.TakeCalls(), Names{"OnPluginExit"});
    for (int round = 0; round < 2; ++round) {
        Init();
        EXPECT_EQ(service.TakeCalls(), (Names{"OnPluginInit", "tcp", "virtual", "OnClientInit"}));
        log.Clear();
        Init();
        EXPECT_EQ(log.Texts(kLogError), Names{"Already initialized\n"});
        EXPECT_EQ(service.TakeCalls(), Names{"OnPluginInit"});
        EXPECT_TRUE(manager.IsInitialized());
        EXPECT_TRUE(manager.QSCPluginExit());
        EXPECT_EQ(service.TakeCalls(), (Names{"OnClientExit", "OnPluginExit"}));
        EXPECT_FALSE(manager.IsInitialized());
    }
}

TEST_F(RPCManagerTest, CutsNamesToTheirFields) {
    const std::string longName(100, 'n'), kept(63, 'n');
    EXPECT_EQ(RPCManager(longName.c_str(), "", "", "", RefCountOff).GetName(), std::string(59, 'n'));
    EXPECT_EQ(RPCManager(nullptr, nullptr, nullptr, nullptr, RefCountOff).GetName(), std::string());
    HookManager cut(RefCountOff, longName.c_str());
    cut.QSCPluginInit(service.Query());
    void* instance = nullptr;
    ASSERT_TRUE(cut.QSCPluginCreateInstance(this, &instance));
    service.TakeCalls();
    for (const char* name : {longName.c_str(), static_cast<const char*>(nullptr), kept.c_str()}) {
        service.FirePeerObject(name);
    }
    EXPECT_EQ(service.TakeCalls(), Names{"CreateObject " + kept});
    EXPECT_TRUE(cut.QSCPluginDestroyInstance(instance));
}

TEST_F(RPCManagerTest, TheServiceHoldsAnInstanceByItsHandleUntilItDestroysIt) {
    Init();
    service.connection = QSC_CONNECTION_CONNECTED;
    service.TakeCalls();
    void* const instance = CreateInstance();
    EXPECT_EQ(service.context, instance);
    EXPECT_EQ(service.TakeCalls(), (Names{"Register", "Connect"}));
    log.Clear();
    service.connection = QSC_CONNECTION_PENDING;
    EXPECT_TRUE(manager.QSCPluginDestroyInstance(instance));
    EXPECT_EQ(service.TakeCalls(), (Names{"Disconnect", "Unregister", "OnDestroyInstance", "instance gone"}));
    const std::string count = Text("Test(0x%p) - rpcPlugin(0x%p)  refCount(0)", manager.FindHandle(log), instance);
    EXPECT_TRUE(log.Has(kLogInfo, count));
    EXPECT_FALSE(manager.QSCPluginDestroyInstance(instance));
    EXPECT_EQ(log.Texts(kLogWarn), Names{Text("RPCPlugin 0x%p not found", instance)});

    void* const second = CreateInstance();
    const RCPtr<RPCPluginInstance> held(manager.latest);
    EXPECT_TRUE(manager.QSCPluginDestroyInstance(second));
    EXPECT_FALSE(manager.QSCPluginDestroyInstance(second)) << "it lives on, but not for the service";
    EXPECT_EQ(service.Count("instance gone"), 0u);
}

TEST_F(RPCManagerTest, CreateInstanceRefusesWhatItCannotDoAndLaterWorks) {
    service.offered = "0B 12 08 00 0E";
    void* instance = this;
    EXPECT_TRUE(manager.QSCPluginInit(service.Query()));
    EXPECT_EQ(log.Texts(kLogError), (Names{"Failed to get QSCOverlay_ClientInterface\n", "Init() failed\n"}));
    EXPECT_FALSE(manager.QSCPluginCreateInstance(this, &instance));
    EXPECT_EQ(log.Texts(kLogWarn), Names{"Plugin is not initialized yet.\n"});

    service.offered += " 19";
    Init();
    log.Clear();
    EXPECT_FALSE(manager.QSCPluginCreateInstance(this, nullptr));
    manager.createNothing = true;
    EXPECT_FALSE(manager.QSCPluginCreateInstance(this, &instance));
    EXPECT_EQ(instance, this);
    EXPECT_EQ(log.Texts(kLogError).size(), 2u);
    manager.createNothing = false;
    EXPECT_TRUE(manager.QSCPluginDestroyInstance(CreateInstance()));
}

TEST_F(RPCManagerTest, EachCallbackWithAStaleHandleWarnsUnderItsOwnNameAndDoesNothingElse) {
    Init();
    void* const instance = CreateInstance();
    manager.QSCPluginDestroyInstance(instance);
    service.TakeCalls();
    using M = RPCManager;
    const std::pair<const char*, std::function<void(void*)>> callbacks[] = {
        {"OnConnectionStateChanged",
         [](void* h) { M::OnConnectionStateChanged(h, QSC_CONNECTION_CONNECTED, QSC_CONNECTION_CONNECTED, nullptr); }},
        {"OnChannelStateChanged",
         [](void* h) { M::OnChannelStateChanged(h, QSC_CHANNEL_CONNECTED, QSC_CHANNEL_CONNECTED, nullptr); }},
        {"OnPeerChannelObjectCreated", [](void* h) { M::OnPeerChannelObjectCreated(h, "control", nullptr); }},
        {"OnChannelControlObjectStateChanged", [](void* h) { M::OnChannelControlObjectStateChanged(h, nullptr); }},
        {"OnChannelDataObjectStateChanged", [](void* h) { M::OnChannelDataObjectStateChanged(h, nullptr); }},
        {"OnControlMsgInvoke", [](void* h) { M::OnControlMsgInvoke(h, nullptr, nullptr); }},
        {"OnDataMsgInvoke", [](void* h) { M::OnDataMsgInvoke(h, nullptr, nullptr); }},
        {"OnMsgDone", [](void* h) { M::OnMsgDone(h, 1, nullptr); }},
        {"OnMsgAbort", [](void* h) { M::OnMsgAbort(h, 1, TRUE, 0); }},
    };
    for (const auto& [name, fire] : callbacks) {
        for (void* handle : {instance, static_cast<void*>(nullptr), static_cast<void*>(this)}) {
            log.Clear();
            fire(handle);
            const auto lines = log.Lines();
            ASSERT_EQ(lines.size(), 1u) << name;
            EXPECT_EQ(log.Texts(kLogWarn), Names{Text("RPCPlugin 0x%p not found", handle)});
            EXPECT_NE(lines[0].function.find(std::string("RPCManager::") + name + "("), std::string::npos);
        }
    }
    EXPECT_EQ(service.TakeHeard(), Names{});
    EXPECT_EQ(service.TakeCalls(), Names{});
}

TEST_F(RPCManagerTest, ACallbackKeepsInstanceAndManagerUntilItsHookIsOver) {
    RCPtr<HookManager> owner(new HookManager(RefCountOn));
    owner->QSCPluginInit(service.Query());
    RCPtr<HookInstance> last(new HookInstance(owner.Get()));
    last->RegisterChannelSink(this);
    last->onHook = [&](const std::string&) {
        last = nullptr;
        owner = nullptr;
        ChannelService::Note("hook over");
    };
    service.TakeCalls();
    RPCManager::OnDataMsgInvoke(service.context, this, nullptr);
    const Names calls = service.TakeCalls();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls.front(), "hook over");
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "manager gone"), 1);
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "instance gone"), 1);
}

TEST_F(RPCManagerTest, AnInstanceWhoseManagerIsGoneGetsNoCallbacks) {
    auto owner = std::make_optional<HookManager>();
    owner->QSCPluginInit(service.Query());
    const RCPtr<HookInstance> orphan(new HookInstance(&*owner));
    orphan->RegisterChannelSink(this);
    owner.reset();
    log.Clear();
    RPCManager::OnDataMsgInvoke(service.context, this, nullptr);
    EXPECT_EQ(log.Texts(kLogWarn), Names{Text("RPCManager of RPCPlugin 0x%p not found", service.context)});
    EXPECT_EQ(service.TakeHeard(), Names{});
}

class CountingInstance : public RPCPluginInstance {
public:
    using RPCPluginInstance::RPCPluginInstance;
    void OnInvoke(void* count) override { ++*static_cast<std::atomic<size_t>*>(count); }
};

class CountingManager : public RPCManager {
public:
    CountingManager() : RPCManager("Counting", "c", "d", "t", RefCountOff) {}
    RPCPluginInstance* OnCreateInstance() override { return new CountingInstance(this, RefCountOn); }
};

TEST(RPCManagerRace, EveryCallbackDuringCreateAndDestroyFindsItsInstanceOrWarns) {
    LogCapture log(kLogWarn);
    ChannelService service;
    CountingManager manager;
    manager.QSCPluginInit(service.Query());
    std::atomic<void*> handle{nullptr};
    std::atomic<bool> stop{false};
    std::atomic<size_t> fired{0}, invoked{0};
    std::thread caller([&] {
        for (; !stop; ++fired) RPCManager::OnDataMsgInvoke(handle, &invoked, nullptr);
    });
    for (int round = 0; round < 100; ++round) {
        void* instance = nullptr;
        ASSERT_TRUE(manager.QSCPluginCreateInstance(&service, &instance));
        const size_t before = invoked;
        handle = instance;
        while (invoked == before) std::this_thread::yield();
        ASSERT_TRUE(manager.QSCPluginDestroyInstance(instance));
    }
    stop = true;
    caller.join();
    EXPECT_EQ(fired, invoked + log.Texts(kLogWarn).size());
    EXPECT_GE(invoked, 100u);
}

TEST_F(RPCManagerTest, AFullHandleMapIsAnErrorAndInstancesStillWork) {
    std::vector<std::unique_ptr<RPCManager>> managers;
    for (int i = 0; i < 4096; ++i) {
        managers.push_back(std::make_unique<RPCManager>("", "", "", "", RefCountOff));
        managers.back()->QSCPluginInit({});
    }
    log.Clear();
    Init();
    EXPECT_EQ(log.Texts(kLogError).size(), 1u);
    EXPECT_TRUE(manager.QSCPluginDestroyInstance(CreateInstance()));
    managers.clear();
    manager.QSCPluginExit();
    log.Clear();
    Init();
    EXPECT_EQ(log.Texts(kLogError), Names{});
}

TEST_F(RPCManagerTest, DestructionTakesTheHandleBack) {
    void* handle = nullptr;
    {
        HookManager gone;
        gone.QSCPluginInit({});
        handle = gone.FindHandle(log);
        EXPECT_EQ(RPCManager::QscOnServerConnected(handle, QSC_SESSION_STORM, this), TRUE);
        EXPECT_TRUE(RPCManager::GetRPCManagerByServerId(this) == &gone);
    }
    EXPECT_TRUE(log.Has(kLogInfo, Text("Test(0x%p) destroyed", handle)));
    EXPECT_TRUE(log.Has(kLogInfo, Text("Handle 0x%p removed", handle)));
    EXPECT_FALSE(RPCManager::GetRPCManagerByServerId(this));
}

}  // namespace
