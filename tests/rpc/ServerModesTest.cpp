// The server modes on a service library under the test's control: which exports a start and an exit call, with what,
// and in which order with the hooks and the service's tables.
#include <unistd.h>

#include <optional>
#include <thread>

#include "rpc/QscServicePath.h"
#include "tests/rpc/ChannelService.h"
#include "tests/rpc/StubService.h"

namespace {

constexpr auto kNoSession = static_cast<DWORD>(-1);
constexpr uint32_t kLongMS = 60000;  // for waits that something ends
const std::string kUndone = "QSCService_ServerExit() [OK]\n";
const std::string kSinkGone = "Channel.v1.UnregisterChannelNotifySink() [OK]\n";  // an ERROR line, as all is well
void* const kServer = reinterpret_cast<void*>(0x51);

// One way to start, with the way to end it.
struct Mode {
    const char* name;
    enum { Own, Given, Multi } kind;
    DWORD session;
    bool lowPriv;
    std::string init, undo;  // the calls of the exports
};

class ServerModes : public testing::Test {
protected:
    ServerModes() {
        current = this;
        service.object.IsSideChannelAvailable = [](uint32_t type) {
            ChannelService::Note(Text("IsSideChannelAvailable %u", type));
            return static_cast<Bool>(type) == current->availableSideChannel ? Bool{2} : FALSE;
        };
        serverTable.RegisterServerNotifySink = [](void* context, const QSCService_ServerNotifySink* sink,
                                                  void* hMultiServer, uint32_t* cookie) {
            EXPECT_EQ(hMultiServer, &current->multiServer);
            EXPECT_EQ(sink->version, 1u);
            current->sinkContext = context;
            current->sink = *sink;
            *cookie = 5;
            return current->service.Call("RegisterServerNotifySink");
        };
        serverTable.UnregisterServerNotifySink = [](uint32_t cookie) {
            EXPECT_EQ(cookie, 5u);
            return current->service.Call("UnregisterServerNotifySink");
        };
        serverTable.GetServerChannel = [](QscServerID id) { return id; };
        Use("stub_all");
    }
    ~ServerModes() override { current = nullptr; }

    void Use(const char* library) {
        stub.reset();
        QSCService_ServerExports& exports = stub.emplace(library).Exports();
        exports.ServerInit = [](const char* name, QSC_SERVICE_QUERY_INTERFACE* query, void** hChannel) {
            return current->Init("ServerInit", Text(" %s", name), query, hChannel, &current->channel);
        };
        exports.ServerInit2 = [](DWORD sessionId, const char* name, QSC_SERVICE_QUERY_INTERFACE* query,
                                 void** hChannel) {
            return current->Init("ServerInit2", Text(" %u %s", sessionId, name), query, hChannel, &current->channel);
        };
        exports.MultiServerInit = [](DWORD sessionId, const char* name, const char* empty,
                                     QSC_SERVICE_QUERY_INTERFACE* query, void** hMultiServer) {
            return current->Init("MultiServerInit", Text(" %u %s \"%s\"", sessionId, name, empty), query, hMultiServer,
                                 &current->multiServer);
        };
        exports.ServerExit = [] { return current->service.Call("ServerExit"); };
        exports.ServerExit2 = [](DWORD sessionId) {
            return current->service.Call("ServerExit2", Text(" %u", sessionId));
        };
        exports.MultiServerExit = [](void* hMultiServer, void* reserved) {
            EXPECT_EQ(hMultiServer, &current->multiServer);
            return current->service.Call("MultiServerExit", Text(" %p", reserved));
        };
    }

    RCPtr<HookManager> Manager() {
        RCPtr<HookManager> manager(new HookManager(RefCountOn));
        manager->SetServerInterface(serverTable);
        Forget();
        return manager;
    }
    static RCPtr<HookInstance> Instance(const RCPtr<HookManager>& manager) {
        return RCPtr<HookInstance>(new HookInstance(manager.Get()));
    }

    static std::vector<Mode> Modes() {
        const auto own = static_cast<DWORD>(getpgid(getpid()));
        const std::string init = Text("ServerInit2 %u Test", own), undo = Text("ServerExit2 %u", own);
        return {
            {"own session", Mode::Own, own, false, init, undo},
            {"low privileges don't count in a session", Mode::Own, own, true, init, undo},
            {"a given session", Mode::Given, 77, false, "ServerInit2 77 Test", "ServerExit2 77"},
            {"no session", Mode::Given, kNoSession, false, "ServerInit Test", "ServerExit"},
            {"multi-server", Mode::Multi, 77, false, "MultiServerInit 77 Test \"\"", "MultiServerExit (nil)"},
        };
    }
    static bool StartIn(const Mode& mode, RPCManager& manager, RPCPluginInstance* instance, uint32_t msTimeout = 0) {
        if (mode.kind == Mode::Own) return manager.ServerInit(instance, msTimeout, mode.lowPriv);
        if (mode.kind == Mode::Given) return manager.ServerInitForSession(mode.session, instance, msTimeout);
        return manager.MultiServerInit(mode.session);
    }
    static bool Exit(const Mode& mode, RPCManager& manager, RPCPluginInstance* instance) {
        if (mode.kind == Mode::Own) return manager.ServerExit(instance);
        if (mode.kind == Mode::Given) return manager.ServerExitForSession(mode.session, instance, false);
        return manager.MultiServerExit(mode.session, nullptr);
    }

    // Starts in session 77 with a channel that gets ready at once, and leaves one request open.
    void StartReadyWithARequest(const RCPtr<HookManager>& manager, const RCPtr<HookInstance>& instance) {
        service.connection = QSC_CONNECTION_CONNECTED;
        service.onPoll = [this] {
            if (service.polls > 1) return;
            service.FireChannel(QSC_CHANNEL_CONNECTED);
            service.FireObject("control", QSC_OBJECT_CONNECTED);
            service.FireObject("data", QSC_OBJECT_CONNECTED);
        };
        ASSERT_TRUE(manager->ServerInitForSession(77, instance.Get(), kLongMS));
        void* hContext = nullptr;
        ASSERT_TRUE(instance->CreateMessage(&hContext, RPCChannelType::Data));
        ASSERT_TRUE(instance->InvokeMessage(hContext, TRUE, RPCChannelType::Data));
    }

    void Forget() {
        log.Clear();
        service.TakeCalls();
    }
    Names Errors() const { return log.Texts(kLogError); }

    LogCapture log;
    ChannelService service;
    QSCService_ServerInterface serverTable{};
    QSCService_ServerNotifySink sink{};
    void* sinkContext = nullptr;
    bool givesTables = true;
    Bool availableSideChannel = 0;
    char channel = 0, multiServer = 0;
    std::optional<StubService> stub;

private:
    Bool Init(const std::string& name, const std::string& arguments, QSC_SERVICE_QUERY_INTERFACE* query, void** handle,
              void* value) {
        if (givesTables) *query = service.Query();
        *handle = value;  // also when it fails
        return service.Call(name, arguments);
    }

    inline static ServerModes* current = nullptr;
};

TEST_F(ServerModes, EachStartCallsItsExportAndEachExitItsPartner) {
    for (const Mode& mode : Modes()) {
        SCOPED_TRACE(mode.name);
        const bool multi = mode.kind == Mode::Multi;
        const RCPtr<HookManager> manager = Manager();
        for (int round = 0; round < 2; ++round) {
            RCPtr<HookInstance> instance = Instance(manager);
            service.polls = 0;
            EXPECT_TRUE(StartIn(mode, *manager, instance.Get()));
            EXPECT_EQ(service.TakeCalls(),
                      (Names{mode.init, "tcp", "virtual", multi ? "RegisterServerNotifySink" : "Register"}));
            EXPECT_TRUE(manager->IsInitialized());
            EXPECT_EQ(service.polls, 0) << "no time, no wait";
            const Names infos = log.Texts(kLogInfo);
            const std::string arguments = Text(
                " - sessionId(%d)  rpcPlugin(0x%p)  multiServerMode(%s)  msTimeoutReady(0)  lowPriv(%s)  "
                "rcEnabled(true)",
                static_cast<int>(mode.session), multi ? nullptr : service.context, multi ? "true" : "false",
                mode.lowPriv ? "true" : "false");
            EXPECT_EQ(std::count_if(infos.begin(), infos.end(),
                                    [&](const std::string& line) { return line.ends_with(arguments); }),
                      1)
                << arguments;
            EXPECT_EQ(log.Count("Load qscservice from " + gServicePath + " \n"), round == 0 ? 1u : 0u);
            EXPECT_FALSE(StartIn(mode, *manager, instance.Get()));
            EXPECT_EQ(Errors(), Names{"Already initialized\n"});
            EXPECT_EQ(service.TakeCalls(), Names{});

            log.Clear();
            EXPECT_TRUE(Exit(mode, *manager, instance.Get()));
            EXPECT_EQ(service.TakeCalls(), (multi ? Names{"UnregisterServerNotifySink", "OnServerExit", mode.undo}
                                                  : Names{"Unregister", mode.undo, "OnServerExit"}));
            EXPECT_EQ(log.Count(kUndone), 1u);
            EXPECT_NE(OwnerOf(kUndone, log).find("QSCServiceServerExit"), std::string::npos);
            EXPECT_EQ(Errors(), multi ? Names{} : Names{kSinkGone});
            EXPECT_FALSE(manager->IsInitialized());
            instance = nullptr;
            EXPECT_EQ(service.TakeCalls(), Names{"instance gone"}) << "the manager keeps none";
            log.Clear();
        }
    }
}

TEST_F(ServerModes, PairsOfExportsHaveToMatch) {
    const std::string initFailed = "LoadQscService() failed.\n";
    enum Start { InSession, WithoutSession, Multi };
    struct Case {
        const char* library;
        Start start;
        const char* error;
        bool loads;
    };
    const Case cases[] = {
        {"stub_no_exit", InSession, "qscService does not contain matching ServerExit function\n", false},
        {"stub_no_exit2", Multi, "qscService does not contain matching ServerExit2 function\n", false},
        {"stub_no_multi_exit", InSession, "qscService does not contain matching MultiServerExit function\n", false},
        {"stub_all", InSession, "QSCService_ServerInit2() failed\n", true},
        {"stub_exits_only", InSession, "QSCService_ServerInit2() not available\n", true},
        {"stub_exits_only", WithoutSession, "QSCService_ServerInit() not available\n", true},
        {"stub_exits_only", Multi, "QSCService_MultiServerInit() not available\n", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.error);
        Use(c.library);
        service.Fail("ServerInit2");
        const RCPtr<HookManager> manager(new HookManager(RefCountOn));
        const RCPtr<HookInstance> instance(new HookInstance(manager.Get()));
        // Twice: a failure leaves the manager ready for another try.
        for (int time = 0; time < 2; ++time) {
            log.Clear();
            EXPECT_FALSE(c.start == Multi       ? manager->MultiServerInit(1)
                         : c.start == InSession ? manager->ServerInit(instance.Get(), 0, true)
                                                : manager->ServerInitForSession(kNoSession, instance.Get(), 0));
            EXPECT_EQ(log.Texts(kLogError), (c.loads ? Names{c.error} : Names{c.error, initFailed}));
            const bool tries = time == 0 || !c.loads;  // once for all, when it is good
            EXPECT_EQ(log.Count("Load qscservice from " + gServicePath + " \n"), tries ? 1u : 0u);
        }
    }

    gServicePath = "/nowhere/libqscservice.so";
    const RCPtr<HookManager> manager(new HookManager(RefCountOn));
    log.Clear();
    EXPECT_FALSE(manager->MultiServerInit(1));
    const Names errors = log.Texts(kLogError);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_TRUE(errors[0].starts_with("Failed to load \"/nowhere/libqscservice.so\": 0x")) << errors[0];
    EXPECT_EQ(errors[1], initFailed);
}

TEST_F(ServerModes, WhatIsRefusedBeforeTheServiceIsAskedLeavesItAlone) {
    HookManager uncounted;
    const RCPtr<HookManager> counted = Manager();
    struct Case {
        HookManager& manager;
        bool multi, allowed;
        const char* error;
    };
    for (const Case& c : {Case{uncounted, true, false, "Running as server not allowed.\n"},
                          {uncounted, true, true, "Reference counting must be enabled in multi-server mode\n"},
                          {*counted, false, true, "rpcPlugin == NULL\n"}}) {
        SCOPED_TRACE(c.error);
        Forget();
        c.manager.allowed = c.allowed;
        EXPECT_FALSE(c.multi ? c.manager.MultiServerInit(77) : c.manager.ServerInit(nullptr, 0, false));
        EXPECT_EQ(Errors(), Names{c.error});
        EXPECT_NE(OwnerOf(c.error, log).find("ServerInitImp"), std::string::npos);
        EXPECT_EQ(service.TakeCalls(), Names{});
        c.manager.allowed = true;
        const RCPtr<HookInstance> instance(new HookInstance(&c.manager));
        EXPECT_TRUE(c.manager.ServerInitForSession(77, instance.Get(), 0)) << "another try";
        EXPECT_TRUE(c.manager.ServerExitForSession(77, instance.Get(), false));
    }
}

TEST_F(ServerModes, AFailedExportIsNotUndone) {
    for (const Mode& mode : Modes()) {
        SCOPED_TRACE(mode.name);
        const RCPtr<HookManager> manager = Manager();
        const RCPtr<HookInstance> instance = Instance(manager);
        const std::string name = mode.init.substr(0, mode.init.find(' '));
        service.Fail(name);
        EXPECT_FALSE(StartIn(mode, *manager, instance.Get()));
        EXPECT_EQ(Errors(), Names{"QSCService_" + name + "() failed\n"});
        EXPECT_TRUE(manager->MultiServerExit(77, nullptr)) << "has nothing to do";
        EXPECT_EQ(service.TakeCalls(), (Names{mode.init, "OnServerExit"}));
        service.FailNoMore();
        // In another mode, for which what the failed one has left counts for nothing.
        EXPECT_TRUE(manager->ServerInitForSession(8, instance.Get(), 0));
        service.TakeCalls();
        EXPECT_TRUE(manager->ServerExitForSession(8, instance.Get(), false));
        EXPECT_EQ(service.TakeCalls(), (Names{"Unregister", "ServerExit2 8", "OnServerExit"}));
    }
}

TEST_F(ServerModes, AFailureAfterTheExportIsUndoneThere) {
    enum Where { Anywhere, InSingle, InMulti };
    struct Case {
        Where where;
        uint32_t msTimeout;
        const char* error;  // the last line
        std::function<void(HookManager&)> spoil;
    };
    const auto isSideChannelAvailable = service.object.IsSideChannelAvailable;
    const Case cases[] = {
        {Anywhere, 0, "Init() failed\n", [this](auto&) { givesTables = false; }},
        {Anywhere, 0, "Error in configuring TcpSide Channel.\n", [](auto& m) { m.tcpResult = false; }},
        {Anywhere, 0, "Error in configuring Virtual Side Channel.\n", [](auto& m) { m.virtualResult = false; }},
        {InSingle, 0, "TCP requested but unavailable\n", [](auto& m) { m.m_tcpSideChannel = true; }},
        {InSingle, 0, "Virtual side channel requested but unavailable\n",
         [](auto& m) { m.m_virtualSideChannel = true; }},
        {InSingle, 0, "TCP requested but unavailable\n",
         [this](auto& m) {
             service.object.IsSideChannelAvailable = nullptr;
             m.m_tcpSideChannel = true;
         }},
        {InSingle, 0, "RegisterChannelSink() failed\n", [this](auto&) { service.Fail("Register"); }},
        {InSingle, 1, "WaitUntilReadyOrRejected failed [-1]\n", [](auto&) {}},
        {InSingle, kLongMS, "WaitUntilReadyOrRejected failed [1]\n",
         [this](auto&) {
             service.connection = QSC_CONNECTION_CONNECTED;
             service.onPoll = [this] { service.FireChannel(QSC_CHANNEL_DISCONNECTED); };
         }},
        {InMulti, 0, "ServerInterface is needed for MultiServer mode.\n", [](auto& m) { m.SetServerInterface({}); }},
        {InMulti, 0, "RegisterServerNotifySink() failed.\n",
         [this](auto&) { service.Fail("RegisterServerNotifySink"); }},
    };
    for (const Mode& mode : Modes()) {
        for (const Case& c : cases) {
            if (c.where == (mode.kind == Mode::Multi ? InSingle : InMulti)) continue;
            SCOPED_TRACE(std::string(mode.name) + ", " + c.error);
            const RCPtr<HookManager> manager = Manager();
            RCPtr<HookInstance> instance = Instance(manager);
            c.spoil(*manager);
            EXPECT_FALSE(StartIn(mode, *manager, instance.Get(), c.msTimeout));
            EXPECT_EQ(Errors().back(), c.error);
            EXPECT_NE(OwnerOf(c.error, log).find("ServerInitImp"), std::string::npos);
            EXPECT_EQ(log.Count(kUndone), 1u);
            EXPECT_EQ(service.Count("OnServerInit"), 0u);
            const Names called = service.TakeCalls();
            ASSERT_FALSE(called.empty());
            EXPECT_EQ(called.front(), mode.init);
            EXPECT_EQ(called.back(), mode.undo);
            EXPECT_FALSE(manager->IsInitialized());

            // Nothing is left to exit, and nothing is kept.
            log.Clear();
            EXPECT_FALSE(manager->ServerExit(instance.Get()));
            EXPECT_EQ(Errors(), Names{"Not initialized\n"});
            instance = nullptr;
            EXPECT_TRUE(manager->MultiServerExit(77, nullptr));
            EXPECT_EQ(service.TakeCalls(), (Names{"instance gone", "OnServerExit"}));

            // Another try works.
            givesTables = manager->tcpResult = manager->virtualResult = true;
            manager->m_tcpSideChannel = manager->m_virtualSideChannel = false;
            manager->SetServerInterface(serverTable);
            service.object.IsSideChannelAvailable = isSideChannelAvailable;
            service.connection = QSC_CONNECTION_DISCONNECTED;
            service.onPoll = nullptr;
            service.FailNoMore();
            instance = Instance(manager);
            EXPECT_TRUE(StartIn(mode, *manager, instance.Get()));
            EXPECT_TRUE(Exit(mode, *manager, instance.Get()));
        }
    }
}

TEST_F(ServerModes, AnUndoAndAnExitThatFailSaySo) {
    const std::string multiLine = Text("QSCService_MultiServerExit(0x%p) failed.\n", static_cast<void*>(&multiServer));
    for (const Mode& mode : Modes()) {
        SCOPED_TRACE(mode.name);
        const RCPtr<HookManager> manager = Manager();
        const std::string line = mode.kind == Mode::Multi ? multiLine
                                 : mode.session == kNoSession
                                     ? "QSCService_ServerExit() failed.\n"
                                     : Text("QSCService_ServerExit2(%u) failed.\n", mode.session);
        service.Fail(mode.undo.substr(0, mode.undo.find(' ')));
        manager->tcpResult = false;
        RCPtr<HookInstance> instance = Instance(manager);
        EXPECT_FALSE(StartIn(mode, *manager, instance.Get()));
        EXPECT_EQ(Errors(), (Names{"Error in configuring TcpSide Channel.\n", line}));
        EXPECT_NE(OwnerOf(line, log).find("QSCServiceServerExit"), std::string::npos);

        manager->tcpResult = true;
        instance = Instance(manager);
        ASSERT_TRUE(StartIn(mode, *manager, instance.Get()));
        Forget();
        EXPECT_FALSE(Exit(mode, *manager, instance.Get()));
        EXPECT_EQ(Errors().back(), line);
        EXPECT_EQ(log.Count(kUndone), 0u);
        EXPECT_EQ(service.Count("OnServerExit"), 1u);
        EXPECT_FALSE(manager->IsInitialized()) << "ended all the same";
        service.FailNoMore();
    }
}

// An exit goes by its own session, which may ask for an export that the library lacks.
TEST_F(ServerModes, AnExitWithoutItsExportFails) {
    struct Case {
        const char* library;
        DWORD started, exited;
        const char* error;
    };
    for (const Case& c : {Case{"stub_plain_only", kNoSession, 5, "QSCService_ServerExit2(5) failed.\n"},
                          {"stub_session_only", 5, kNoSession, "QSCService_ServerExit() failed.\n"}}) {
        SCOPED_TRACE(c.library);
        Use(c.library);
        const RCPtr<HookManager> manager = Manager();
        const RCPtr<HookInstance> instance = Instance(manager);
        ASSERT_TRUE(manager->ServerInitForSession(c.started, instance.Get(), 0));
        EXPECT_FALSE(manager->ServerExitForSession(c.exited, instance.Get(), false));
        EXPECT_EQ(Errors(), (Names{kSinkGone, c.error}));
        EXPECT_FALSE(manager->IsInitialized());
    }
}

TEST_F(ServerModes, ASingleStartAsksForWhatItsSideChannelsNeed) {
    struct Case {
        bool multi, wantTcp;
        Bool available;
        Names calls;  // after the export's
    };
    const Case cases[] = {
        {false, true, QSC_SIDE_CHANNEL_TCP, {"tcp", "IsSideChannelAvailable 2", "Register"}},
        {false, false, QSC_SIDE_CHANNEL_VIRTUAL, {"tcp", "virtual", "IsSideChannelAvailable 1", "Register"}},
        {true, true, 0, {"tcp", "RegisterServerNotifySink"}},
        {true, false, 0, {"tcp", "virtual", "RegisterServerNotifySink"}},
    };
    for (const Case& c : cases) {
        const RCPtr<HookManager> manager = Manager();
        const RCPtr<HookInstance> instance = Instance(manager);
        manager->m_tcpSideChannel = c.wantTcp;
        manager->m_virtualSideChannel = !c.wantTcp;
        availableSideChannel = c.available;
        ASSERT_TRUE(c.multi ? manager->MultiServerInit(77) : manager->ServerInitForSession(77, instance.Get(), 0));
        const Names called = service.TakeCalls();
        EXPECT_EQ(Names(called.begin() + 1, called.end()), c.calls);
        manager->MultiServerExit(77, nullptr);
    }
}

TEST_F(ServerModes, AReadyChannelEndsTheWaitAndAnExitWaitsForAnAnswer) {
    const RCPtr<HookManager> manager = Manager();
    const RCPtr<HookInstance> instance = Instance(manager);
    StartReadyWithARequest(manager, instance);
    EXPECT_EQ(service.Count("OnServerInit"), 1u);
    EXPECT_EQ(service.polls, 1);
    service.onPoll = [this] { service.ContextSink().OnMsgDone(service.context, service.latestId, nullptr); };
    Forget();
    EXPECT_TRUE(manager->ServerExitForSession(77, instance.Get(), false));
    EXPECT_EQ(service.polls, 2);
    EXPECT_EQ(log.Count("1 message still pending\n"), 0u);
    EXPECT_EQ(service.TakeCalls(), (Names{"Disconnect", "DestroyObject data", "DestroyObject control", "Unregister",
                                          "ServerExit2 77", "OnServerExit"}));
    EXPECT_EQ(service.TakeHeard(), (Names{"ready", "done 1", "not ready"}));
}

TEST_F(ServerModes, AnExitOnAnotherThreadLeavesTheChannelToIt) {
    const RCPtr<HookManager> manager = Manager();
    const RCPtr<HookInstance> instance = Instance(manager);
    StartReadyWithARequest(manager, instance);
    Forget();
    std::thread([&] { EXPECT_TRUE(manager->ServerExitForSession(77, instance.Get(), true)); }).join();
    EXPECT_EQ(service.TakeCalls(), (Names{"ServerExit2 77", "OnServerExit"}));
    EXPECT_EQ(log.Count("1 message still pending\n"), 0u) << "not waited for";
    EXPECT_TRUE(instance->IsReady());
    EXPECT_TRUE(instance->ChannelDisconnect());
    EXPECT_TRUE(instance->UnregisterChannelSink());
}

TEST_F(ServerModes, AChannelThatDoesNotComeDownDoesNotFailTheExit) {
    const RCPtr<HookManager> manager = Manager();
    const RCPtr<HookInstance> instance = Instance(manager);
    service.connection = QSC_CONNECTION_CONNECTED;
    ASSERT_TRUE(manager->ServerInitForSession(77, instance.Get(), 0));
    service.connection = QSC_CONNECTION_DISCONNECTED;
    service.Fail("Disconnect");
    service.Fail("Unregister");
    log.Clear();
    EXPECT_TRUE(manager->ServerExitForSession(77, instance.Get(), false));
    EXPECT_EQ(Errors(),
              (Names{"Channel.v1.Disconnect() failed\n", "ChannelDisconnect() failed\n",
                     "Channel.v1.UnregisterChannelNotifySink() failed\n", "UnregisterChannelSink() failed\n"}));
    EXPECT_NE(OwnerOf("ChannelDisconnect() failed\n", log).find("InstanceExitImp"), std::string::npos);
    EXPECT_FALSE(manager->IsInitialized());
}

TEST_F(ServerModes, AnExitForAnotherInstanceChangesNothing) {
    const RCPtr<HookManager> manager = Manager();
    const RCPtr<HookInstance> instance = Instance(manager), other = Instance(manager);
    ASSERT_TRUE(manager->ServerInit(instance.Get(), 0, false));
    void* const started = service.context;
    ASSERT_TRUE(other->RegisterChannelSink(nullptr));
    Forget();
    EXPECT_FALSE(manager->ServerExit(other.Get()));
    EXPECT_FALSE(manager->ServerExit(nullptr));
    EXPECT_EQ(Errors(), (Names{Text("RPCPlugin mismatch - Init(0x%p)  Exit(0x%p)", started, service.context),
                               "rpcPlugin == NULL\n"}));
    EXPECT_NE(OwnerOf("rpcPlugin == NULL\n", log).find("ServerExitImp"), std::string::npos);
    EXPECT_EQ(service.TakeCalls(), Names{});
    EXPECT_TRUE(manager->ServerExit(instance.Get()));
    EXPECT_FALSE(manager->ServerExit(instance.Get()));
}

TEST_F(ServerModes, MultiServerExitDropsTheInstancesAndTheReferenceOfTheStart) {
    HookManager* kept = nullptr;
    {
        const RCPtr<HookManager> manager = Manager();
        kept = manager.Get();
        ASSERT_TRUE(manager->MultiServerInit(77));
    }
    void *first = nullptr, *second = nullptr;
    ASSERT_EQ(sink.QscOnServerInstanceCreated(sinkContext, kServer, &first), TRUE);
    ASSERT_EQ(sink.QscOnServerInstanceCreated(sinkContext, &second, &second), TRUE);
    // One that is gone before.
    EXPECT_EQ(sink.QscOnServerConnected(sinkContext, QSC_SESSION_STORM, kServer), TRUE);
    EXPECT_EQ(sink.QscOnServerInstanceDestroyed(sinkContext, first, kServer), TRUE);
    Forget();
    EXPECT_TRUE(kept->MultiServerExit(77, &second));
    const std::string exit = Text("MultiServerExit %p", static_cast<void*>(&second));
    EXPECT_EQ(service.TakeCalls(),
              (Names{"UnregisterServerNotifySink", "OnServerExit", "instance gone", exit, "manager gone"}))
        << "the channel of an instance is left alone";
    log.Clear();
    EXPECT_EQ(sink.QscOnServerConnected(sinkContext, QSC_SESSION_STORM, kServer), FALSE);
    EXPECT_EQ(log.Texts(kLogWarn), Names{Text("RPCManager 0x%p not found", sinkContext)});
}

// Exits that don't fit the start, and more of them than starts, take no reference that isn't theirs.
TEST_F(ServerModes, AnExitOfTheWrongModeKeepsTheManager) {
    const RCPtr<HookManager> manager = Manager();
    ASSERT_TRUE(manager->ServerInitForSession(77, Instance(manager).Get(), 0));
    Forget();
    EXPECT_TRUE(manager->MultiServerExit(77, nullptr));
    EXPECT_EQ(service.TakeCalls(), (Names{"OnServerExit", "ServerExit2 77", "instance gone"})) << "held by the start";

    const QSC_SERVICE_QUERY_INTERFACE query = service.Query();
    ASSERT_TRUE(manager->ClientInit(&query));
    service.TakeCalls();
    EXPECT_TRUE(manager->MultiServerExit(77, nullptr));
    EXPECT_EQ(service.TakeCalls(), Names{"OnServerExit"});

    ASSERT_TRUE(manager->MultiServerInit(77));
    EXPECT_FALSE(manager->ServerExitForSession(77, Instance(manager).Get(), false));
    EXPECT_TRUE(manager->IsInitialized());
    service.Fail("UnregisterServerNotifySink");
    log.Clear();
    EXPECT_TRUE(manager->MultiServerExit(77, nullptr));
    EXPECT_EQ(Errors(), Names{"UnregisterServerNotifySink() failed.\n"}) << "fails no exit";
    service.FailNoMore();
    for (int time = 0; time < 2; ++time) EXPECT_TRUE(manager->MultiServerExit(77, nullptr));
    EXPECT_EQ(service.Count("UnregisterServerNotifySink"), 2u);
    EXPECT_EQ(service.Count("MultiServerExit (nil)"), 1u);
    EXPECT_EQ(service.Count("manager gone"), 0u);
}

TEST_F(ServerModes, StartsAndStopsOfServersPassTheServicesAnswerOn) {
    static Bool answer;
    const RCPtr<HookManager> manager = Manager();
    ASSERT_TRUE(manager->MultiServerInit(77));
    QSCService_ServerInterface table = serverTable;
    table.StartServer = [](void* context, QscServerID id) {
        ChannelService::Note(Text("start %p %p", context, id));
        return answer;
    };
    table.StopServer = [](QscServerID) { return ChannelService::Note("stop"), answer; };
    table.StopAllServers = [](QscServerID) { return ChannelService::Note("stop all"), answer; };
    const std::pair<bool (RPCManager::*)(QscServerID), std::string> operations[] = {
        {&RPCManager::StartServer, Text("start %p %p", sinkContext, kServer)},
        {&RPCManager::StopServer, "stop"},
        {&RPCManager::StopAllServers, "stop all"}};
    for (const auto& [operation, call] : operations) {
        SCOPED_TRACE(call);
        manager->SetServerInterface(serverTable);
        Forget();
        EXPECT_FALSE((*manager.*operation)(kServer));
        EXPECT_EQ(Errors(), Names{"Must called from multi-server mode.\n"});
        manager->SetServerInterface(table);
        for (answer = 0; answer < 3; ++answer) EXPECT_EQ((*manager.*operation)(kServer), answer == 1);
        EXPECT_EQ(service.TakeCalls(), Names(3, call));
    }
    EXPECT_TRUE(manager->MultiServerExit(77, nullptr));
}

// Connections come and go on threads of the service until the exit has taken the sink back, and a little longer.
TEST_F(ServerModes, AnExitMeetsServersThatComeAndGo) {
    service.channel.v1.RegisterChannelNotifySink = [](const QSCService_ChannelNotifySink*, void*, uint32_t* cookie) {
        *cookie = 9;
        return TRUE;
    };
    service.channel.v1.UnregisterChannelNotifySink = [](uint32_t) { return TRUE; };
    for (int round = 0; round < 20; ++round) {
        RCPtr<HookManager> manager = Manager();
        ASSERT_TRUE(manager->MultiServerInit(77));
        std::atomic<int> made{0};
        std::atomic<bool> over{false};
        std::vector<std::thread> threads;
        for (uintptr_t number = 1; number <= 3; ++number) {
            threads.emplace_back([&, number] {
                void* const id = reinterpret_cast<void*>(number);
                do {
                    void* instance = nullptr;
                    sink.QscOnServerConnected(sinkContext, QSC_SESSION_PCOIP, id);
                    if (sink.QscOnServerInstanceCreated(sinkContext, id, &instance)) ++made;
                    RPCManager::GetInstanceByServerId(id);
                    sink.QscOnServerDisconnected(sinkContext, id);
                    // An instance that the exit has dropped is unknown here; the next one takes its place.
                    sink.QscOnServerInstanceDestroyed(sinkContext, instance, id);
                } while (!over);
                void* last = nullptr;
                sink.QscOnServerInstanceCreated(sinkContext, id, &last);
                sink.QscOnServerInstanceDestroyed(sinkContext, last, id);
            });
        }
        while (made < 10) std::this_thread::yield();
        EXPECT_TRUE(manager->MultiServerExit(77, nullptr));
        over = true;
        for (std::thread& thread : threads) thread.join();
        service.TakeCalls();
        manager = nullptr;
        EXPECT_EQ(service.TakeCalls(), Names{"manager gone"}) << "nothing holds it";
    }
}

}  // namespace

// In place of the one of the programs.
const char* QscServicePath() {
    return gServicePath.c_str();
}
