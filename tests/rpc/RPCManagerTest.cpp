#include "rpc/RPCManager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <optional>
#include <thread>

#include "tests/rpc/TableService.h"
#include "tests/rpc/TestManager.h"

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
    TableService service;
    TestManager manager;
};

struct FetchCase {
    const char* name;
    std::set<int> offered;
    bool isServer;
    bool result;
    std::vector<int> asked;
    Texts errors, warnings, debugs;
};

TEST_F(RPCManagerTest, FetchesTheTablesNewestFirstAndStopsAtTheFirstMissingOne) {
    const std::string v2 = "Failed to get QSCService_ChannelInterface_V2, streamData mode not supported\n";
    const std::string surge = "SURGE side channel supported\n";
    const FetchCase cases[] = {
        {"newest",
         {0x0B, 0x12, 0x08, 0x00, 0x0E, 0x19},
         false,
         true,
         {0x0B, 0x12, 0x08, 0x00, 0x0E, 0x19},
         {},
         {},
         {surge}},
        {"oldest",
         {0x06, 0x02, 0x03, 0x00, 0x0C, 0x05},
         false,
         true,
         {0x0B, 0x10, 0x06, 0x12, 0x0F, 0x0A, 0x02, 0x08, 0x03, 0x00, 0x0E, 0x0C, 0x19, 0x18, 0x16, 0x07, 0x05},
         {},
         {},
         {surge}},
        {"oldest server",
         {0x06, 0x02, 0x03, 0x00, 0x0C},
         true,
         true,
         {0x0B, 0x10, 0x06, 0x12, 0x0F, 0x0A, 0x02, 0x08, 0x03, 0x00, 0x0E, 0x0C},
         {},
         {},
         {v2}},
        {"middle, no stream data",
         {0x10, 0x0F, 0x03, 0x00, 0x16},
         false,
         true,
         {0x0B, 0x10, 0x12, 0x0F, 0x08, 0x03, 0x00, 0x0E, 0x0C, 0x19, 0x18, 0x16},
         {},
         {"Failed to get QSCRPC_StreamDataInterface\n"},
         {surge}},
        {"nothing", {}, false, false, {0x0B, 0x10, 0x06}, {"Failed to get QSCService_ChannelInterface\n"}, {}, {}},
        {"nothing, server",
         {},
         true,
         false,
         {0x0B, 0x10, 0x06},
         {"Failed to get QSCService_ChannelInterface\n"},
         {},
         {v2}},
        {"no object",
         {0x0B},
         false,
         false,
         {0x0B, 0x12, 0x0F, 0x0A, 0x02},
         {"Failed to get QSCRPC_ChannelObjectInterface\n"},
         {},
         {}},
        {"no context",
         {0x0B, 0x0A},
         false,
         false,
         {0x0B, 0x12, 0x0F, 0x0A, 0x08, 0x03},
         {"Failed to get QSCRPC_ChannelContextInterface\n"},
         {},
         {}},
        {"no variant",
         {0x0B, 0x12, 0x08},
         false,
         false,
         {0x0B, 0x12, 0x08, 0x00},
         {"Failed to get QSCRPC_VariantInterface\n"},
         {},
         {}},
        {"no overlay",
         {0x0B, 0x12, 0x08, 0x00, 0x0E},
         false,
         false,
         {0x0B, 0x12, 0x08, 0x00, 0x0E, 0x19, 0x18, 0x16, 0x07, 0x05},
         {"Failed to get QSCOverlay_ClientInterface\n"},
         {},
         {}},
    };
    for (const FetchCase& c : cases) {
        SCOPED_TRACE(c.name);
        TestManager fresh;
        service.offered = c.offered;
        service.asked.clear();
        log.Clear();
        const QSC_SERVICE_QUERY_INTERFACE query = service.Query();
        EXPECT_EQ(fresh.Init(c.isServer, &query), c.result);
        EXPECT_EQ(service.asked, c.asked);
        EXPECT_EQ(log.Texts(kLogError), c.errors);
        EXPECT_EQ(log.Texts(kLogWarn), c.warnings);
        EXPECT_EQ(log.Texts(kLogDebug), c.debugs);
        EXPECT_EQ(fresh.IsSurgeSupported(), c.result && !c.isServer);
    }
}

TEST_F(RPCManagerTest, AnOlderServiceAtALaterInitLeavesNoWordsOfTheNewerOne) {
    Init();
    std::vector<KxEvent*> none;
    EXPECT_EQ(manager.PollWaitMultiple(none, false, 0, false), kWaitTimedOut);
    manager.QSCPluginExit();
    service.offered.erase(0x0B);
    service.offered.insert(0x06);
    Init();
    EXPECT_EQ(manager.PollWaitMultiple(none, false, 0, false), kWaitFailed);
    EXPECT_TRUE(log.Has(kLogError, "Please upgrade qscservice to support v3.Poll\n"));
}

TEST_F(RPCManagerTest, AFailedInitRefusesInstancesAndALaterOneWorks) {
    service.offered.erase(0x19);
    void* instance = this;
    EXPECT_TRUE(manager.QSCPluginInit(service.Query()));
    EXPECT_EQ(log.Texts(kLogError), (Texts{"Failed to get QSCOverlay_ClientInterface\n", "Init() failed\n"}));
    EXPECT_FALSE(manager.QSCPluginCreateInstance(this, &instance));
    EXPECT_EQ(log.Texts(kLogWarn), Texts{"Plugin is not initialized yet.\n"});
    EXPECT_EQ(instance, this);
    EXPECT_EQ(manager.TakeHeard(), Texts{"OnPluginInit"});

    service.offered.insert(0x19);
    Init();
    EXPECT_TRUE(manager.QSCPluginDestroyInstance(CreateInstance()));
}

TEST_F(RPCManagerTest, RefusesAServiceWithoutAQueryOperation) {
    EXPECT_FALSE(manager.ClientInit(nullptr));
    const QSC_SERVICE_QUERY_INTERFACE empty{};
    EXPECT_FALSE(manager.ClientInit(&empty));
    EXPECT_EQ(log.Count("Failed to get QSCService_ChannelInterface\n"), 2u);
    const QSC_INTERFACE_ID id = QSC_MakeInterfaceId(0x0B);
    EXPECT_EQ(manager.QueryInterface(&id, &service.channel), FALSE);
}

TEST_F(RPCManagerTest, QueryInterfacePassesThroughOnceBound) {
    Init();
    QSCRPC_VariantInterface table{};
    const QSC_INTERFACE_ID id = QSC_MakeInterfaceId(0x00), unknown = QSC_MakeInterfaceId(0x77);
    EXPECT_EQ(manager.QueryInterface(&id, &table), TRUE);
    EXPECT_EQ(table.VariantInit, service.variant.VariantInit);
    EXPECT_EQ(manager.QueryInterface(&unknown, &table), FALSE);
}

TEST_F(RPCManagerTest, ConfiguresSideChannelsInOrderAndStopsAtTheFirstFailure) {
    struct {
        bool wantTcp, tcpResult, virtualResult;
        Texts heard, errors;
    } cases[] = {
        {false, true, true, {"tcp", "virtual", "OnClientInit"}, {}},
        {true, true, false, {"tcp", "OnClientInit"}, {}},
        {false, false, true, {"tcp"}, {"Error in configuring TcpSide Channel.\n"}},
        {false, true, false, {"tcp", "virtual"}, {"Error in configuring Virtual Side Channel.\n"}},
    };
    const QSC_SERVICE_QUERY_INTERFACE query = service.Query();
    for (const auto& c : cases) {
        TestManager fresh;
        fresh.wantTcp = c.wantTcp;
        fresh.tcpResult = c.tcpResult;
        fresh.virtualResult = c.virtualResult;
        log.Clear();
        EXPECT_EQ(fresh.ClientInit(&query), c.errors.empty());
        EXPECT_EQ(fresh.IsInitialized(), c.errors.empty());
        EXPECT_EQ(fresh.TakeHeard(), c.heard);
        EXPECT_EQ(log.Texts(kLogError), c.errors);
    }
}

TEST_F(RPCManagerTest, InitAndExitOutOfTurnAreRefusedAndCanRepeat) {
    EXPECT_TRUE(manager.QSCPluginExit());
    EXPECT_EQ(log.Texts(kLogError), Texts{"Not initialized\n"});
    EXPECT_EQ(manager.TakeHeard(), Texts{"OnPluginExit"});
    for (int round = 0; round < 2; ++round) {
        Init();
        EXPECT_EQ(manager.TakeHeard(), (Texts{"OnPluginInit", "tcp", "virtual", "OnClientInit"}));
        log.Clear();
        service.asked.clear();
        Init();
        EXPECT_EQ(log.Texts(kLogError), Texts{"Already initialized\n"});
        EXPECT_EQ(service.asked, TableService::Versions{});
        EXPECT_TRUE(manager.IsInitialized());
        EXPECT_EQ(manager.TakeHeard(), Texts{"OnPluginInit"});
        EXPECT_TRUE(manager.QSCPluginExit());
        EXPECT_EQ(manager.TakeHeard(), (Texts{"OnClientExit", "OnPluginExit"}));
        EXPECT_FALSE(manager.IsInitialized());
    }
}

TEST_F(RPCManagerTest, CutsNamesToTheirFields) {
    const std::string longName(100, 'n');
    EXPECT_EQ(RPCManager(longName.c_str(), "", "", "", RefCountOff).GetName(), std::string(59, 'n'));
    EXPECT_EQ(RPCManager(nullptr, nullptr, nullptr, nullptr, RefCountOff).GetName(), std::string());

    TestManager cut(RefCountOff, longName.c_str());
    cut.QSCPluginInit(service.Query());
    void* instance = nullptr;
    ASSERT_TRUE(cut.QSCPluginCreateInstance(this, &instance));
    service.calls.clear();
    service.channelSink->OnPeerChannelObjectCreated(instance, longName.c_str(), nullptr);
    service.channelSink->OnPeerChannelObjectCreated(instance, nullptr, nullptr);
    EXPECT_EQ(service.calls, Texts{});
    service.channelSink->OnPeerChannelObjectCreated(instance, std::string(63, 'n').c_str(), nullptr);
    EXPECT_EQ(service.calls, Texts{"CreateObject " + std::string(63, 'n')});
    EXPECT_TRUE(cut.QSCPluginDestroyInstance(instance));
}

TEST_F(RPCManagerTest, TheServiceHoldsAnInstanceByItsHandleUntilItDestroysIt) {
    Init();
    service.connection = QSC_CONNECTION_CONNECTED;
    void* const instance = CreateInstance();
    EXPECT_EQ(service.sinkContext, instance);
    EXPECT_NE(instance, manager.latest);
    EXPECT_EQ(service.calls, (Texts{"Register", "Connect"}));
    manager.TakeHeard();
    log.Clear();
    service.connection = QSC_CONNECTION_PENDING;
    EXPECT_TRUE(manager.QSCPluginDestroyInstance(instance));
    EXPECT_EQ(service.calls, (Texts{"Register", "Connect", "Disconnect", "Unregister"}));
    EXPECT_EQ(manager.TakeHeard(), (Texts{"OnDestroyInstance", "instance gone"}));
    const Texts infos = log.Texts(kLogInfo);
    EXPECT_TRUE(std::any_of(infos.begin(), infos.end(), [&](const std::string& text) {
        return text.ends_with(WithHandle(" - rpcPlugin(0x%p)  refCount(0)", instance));
    }));
    EXPECT_FALSE(manager.QSCPluginDestroyInstance(instance));
    EXPECT_EQ(log.Texts(kLogWarn), Texts{WithHandle("RPCPlugin 0x%p not found", instance)});
}

TEST_F(RPCManagerTest, ASecondDestroyIsRefusedWhileTheInstanceLivesOn) {
    Init();
    void* const instance = CreateInstance();
    RCPtr<RPCPluginInstance> held(manager.latest);
    EXPECT_TRUE(manager.QSCPluginDestroyInstance(instance));
    EXPECT_FALSE(manager.QSCPluginDestroyInstance(instance));
    manager.TakeHeard();
    held = nullptr;
    EXPECT_EQ(manager.TakeHeard(), Texts{"instance gone"});
}

TEST_F(RPCManagerTest, CreateInstanceRefusesWhatItCannotDo) {
    Init();
    void* instance = this;
    EXPECT_FALSE(manager.QSCPluginCreateInstance(this, nullptr));
    manager.createNothing = true;
    EXPECT_FALSE(manager.QSCPluginCreateInstance(this, &instance));
    EXPECT_EQ(instance, this);
    EXPECT_EQ(log.Texts(kLogError).size(), 2u);
    manager.createNothing = false;
    EXPECT_TRUE(manager.QSCPluginDestroyInstance(CreateInstance()));
}

TEST_F(RPCManagerTest, EachCallbackReachesTheInstanceOfItsHandle) {
    Init();
    void* const instance = CreateInstance();
    const QSCService_ChannelNotifySink& channel = *service.channelSink;
    ASSERT_EQ(channel.version, 1u);
    manager.TakeHeard();
    channel.OnConnectionStateChanged(instance, QSC_CONNECTION_CONNECTED, QSC_CONNECTION_DISCONNECTED, nullptr);
    EXPECT_TRUE(log.Has(kLogInfo, "   but the current state is CONNECTED\n"));
    EXPECT_EQ(service.calls.back(), "Connect");
    channel.OnChannelStateChanged(instance, QSC_CHANNEL_CONNECTED, QSC_CHANNEL_CONNECTED, nullptr);
    channel.OnPeerChannelObjectCreated(instance, "control", nullptr);
    channel.OnPeerChannelObjectCreated(instance, "data", nullptr);
    ASSERT_EQ(service.objectSinks.size(), 2u);
    for (auto& [name, sink] : service.objectSinks) {
        ASSERT_EQ(sink->version, 1u);
        service.objectStates[&sink] = QSC_OBJECT_CONNECTED;
        sink->OnObjectStateChanged(instance, nullptr);
    }
    EXPECT_EQ(manager.TakeHeard(), Texts{"ready"});

    void* message = nullptr;
    ASSERT_TRUE(manager.latest->CreateMessage(&message, RPCChannelType::Data));
    ASSERT_TRUE(manager.latest->InvokeMessage(message, TRUE, RPCChannelType::Data));
    ASSERT_EQ(service.contextSink.version, 1u);
    EXPECT_FALSE(manager.latest->WaitForPendingMessages(0));
    service.contextSink.OnMsgDone(instance, 42, &manager.heard);
    EXPECT_TRUE(manager.latest->WaitForPendingMessages(0));
    ASSERT_TRUE(manager.latest->InvokeMessage(message, TRUE, RPCChannelType::Data));
    ASSERT_TRUE(manager.latest->InvokeMessage(message, TRUE, RPCChannelType::Data));
    service.contextSink.OnMsgAbort(instance, 42, TRUE, 9);
    EXPECT_FALSE(manager.latest->WaitForPendingMessages(0));
    service.contextSink.OnMsgDone(instance, 43, &manager.heard);
    EXPECT_TRUE(manager.latest->WaitForPendingMessages(0));
    for (auto& [name, sink] : service.objectSinks) sink->OnMsgInvoke(instance, &manager.heard, nullptr);
    EXPECT_EQ(manager.TakeHeard(), (Texts{"done 42", "abort 42 1 9", "done 43", "invoke", "invoke"}));

    service.objectStates[&service.objectSinks["data"]] = QSC_OBJECT_DISCONNECTED;
    service.objectSinks["data"]->OnObjectStateChanged(instance, nullptr);
    EXPECT_EQ(manager.TakeHeard(), Texts{"not ready"});
    EXPECT_TRUE(manager.QSCPluginDestroyInstance(instance));
}

TEST_F(RPCManagerTest, EachCallbackWithAStaleHandleWarnsUnderItsOwnNameAndDoesNothingElse) {
    Init();
    void* const instance = CreateInstance();
    manager.QSCPluginDestroyInstance(instance);
    manager.TakeHeard();
    service.calls.clear();
    log.Clear();
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
            EXPECT_EQ(lines[0].level, kLogWarn);
            EXPECT_EQ(lines[0].text, WithHandle("RPCPlugin 0x%p not found", handle));
            EXPECT_NE(lines[0].function.find(std::string("RPCManager::") + name + "("), std::string::npos);
        }
    }
    EXPECT_EQ(manager.TakeHeard(), Texts{});
    EXPECT_EQ(service.calls, Texts{});
}

TEST_F(RPCManagerTest, ACallbackKeepsInstanceAndManagerUntilItsHookIsOver) {
    Texts order;
    RCPtr<RPCManager> owner(new RPCManager("Counted", "c", "d", "t", RefCountOn));
    RCPtr<RPCPluginInstance> last(new TestInstance(owner.Get(), &order));
    owner->QSCPluginInit(service.Query());
    last->RegisterChannelSink(this);
    void* const handle = service.sinkContext;
    static_cast<TestInstance*>(last.Get())->onInvoke = [&] {
        last = nullptr;
        owner = nullptr;
        order.push_back("hook over");
    };
    log.Clear();
    RPCManager::OnDataMsgInvoke(handle, &order, nullptr);
    EXPECT_EQ(order, (Texts{"invoke", "hook over", "instance gone"}));
    const Texts infos = log.Texts(kLogInfo);
    EXPECT_TRUE(
        std::any_of(infos.begin(), infos.end(), [](const std::string& text) { return text.ends_with(" destroyed"); }));
}

TEST_F(RPCManagerTest, AnInstanceWhoseManagerIsGoneGetsNoCallbacks) {
    auto owner = std::make_optional<TestManager>();
    owner->QSCPluginInit(service.Query());
    void* handle = nullptr;
    ASSERT_TRUE(owner->QSCPluginCreateInstance(this, &handle));
    Texts heard;
    const RCPtr<RPCPluginInstance> orphan(new TestInstance(&*owner, &heard));
    ASSERT_TRUE(owner->QSCPluginDestroyInstance(handle));
    orphan->RegisterChannelSink(this);
    handle = service.sinkContext;
    owner.reset();
    log.Clear();
    RPCManager::OnDataMsgInvoke(handle, &heard, nullptr);
    EXPECT_EQ(log.Texts(kLogWarn), Texts{WithHandle("RPCManager of RPCPlugin 0x%p not found", handle)});
    EXPECT_EQ(heard, Texts{});
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
    TableService service;
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
    EXPECT_EQ(log.Texts(kLogError), Texts{});
}

TEST_F(RPCManagerTest, DestructionTakesTheHandleBack) {
    void* handle = nullptr;
    {
        TestManager gone;
        gone.QSCPluginInit({});
        handle = gone.FindHandle(log);
        ASSERT_NE(handle, nullptr);
        EXPECT_EQ(RPCManager::QscOnServerConnected(handle, QSC_SESSION_STORM, this), TRUE);
        EXPECT_TRUE(RPCManager::GetRPCManagerByServerId(this) == &gone);
    }
    EXPECT_TRUE(log.Has(kLogInfo, WithHandle("Test(0x%p) destroyed", handle)));
    EXPECT_TRUE(log.Has(kLogInfo, WithHandle("Handle 0x%p removed", handle)));
    EXPECT_FALSE(RPCManager::GetRPCManagerByServerId(this));
}

}  // namespace
