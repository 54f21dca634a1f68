// The server modes on a service library under the test's control: which exports a start and an exit call, with what,
// and in which order with the hooks and the service's tables.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/rpc/ChannelService.h"
#include "tests/rpc/StubService.h"

namespace {

using Names = ChannelService::Names;

constexpr auto kNoSession = static_cast<DWORD>(-1);
constexpr uint32_t kLongMS = 60000;  // for waits that something ends
const std::string kUndone = "QSCService_ServerExit() [OK]\n";
const std::string kSinkGone = "Channel.v1.UnregisterChannelNotifySink() [OK]\n";  // an ERROR line, as all is well
void* const kServer = reinterpret_cast<void*>(0x51);

std::string Text(const char* format, auto... values) {
    char text[256];
    std::snprintf(text, sizeof text, format, values...);
    return text;
}

// Notes its hooks and lets a test decide what they answer.
class ServerManager : public RPCManager {
public:
    ServerManager(RefCountMode mode, Names* calls)
        : RPCManager("Test", "control", "data", "dataTcp", mode), calls(*calls) {}
    ~ServerManager() override { calls.push_back("manager gone"); }
    bool IsServerAllowed() override { return allowed; }
    bool ConfigureTcpSideChannel() override {
        m_tcpSideChannel = wantTcp;
        return tcpResult;
    }
    bool ConfigureVirtualSideChannel() override {
        m_virtualSideChannel = wantVirtual;
        return virtualResult;
    }
    void OnServerInit() override { calls.push_back(IsInitialized() ? "OnServerInit too late" : "OnServerInit"); }
    void OnServerExit() override { calls.push_back("OnServerExit"); }
    using RPCManager::SetServerInterface;

    bool allowed = true, tcpResult = true, virtualResult = true, wantTcp = false, wantVirtual = false;
    Names& calls;
};

// One way to start, with the way to end it.
struct Mode {
    const char* name;
    std::function<bool(RPCManager&, RPCPluginInstance*, uint32_t msTimeout)> start;
    std::function<bool(RPCManager&, RPCPluginInstance*)> exit;
    std::string init;  // the export's call
    std::string undo;  // the call that takes it back
    bool multi;
    std::string trace;  // of the start, after the manager
};

class ServerModes : public testing::Test {
protected:
    ServerModes() {
        current = this;
        service.channel.v1.Poll = [] {
            ++current->polls;
            if (const auto action = std::exchange(current->duringNextPoll, nullptr)) action();
        };
        service.object.IsSideChannelAvailable = [](uint32_t type) {
            current->calls.push_back("IsSideChannelAvailable " + std::to_string(type));
            return static_cast<Bool>(type) == current->availableSideChannel ? Bool{2} : FALSE;
        };
        for (const char* call : {"Disconnect", "Unregister"}) service.During(call, [this, call] { Note(call); });
        serverTable.RegisterServerNotifySink = [](void* context, const QSCService_ServerNotifySink* sink,
                                                  void* hMultiServer, uint32_t* cookie) {
            EXPECT_EQ(hMultiServer, &current->multiServer);
            current->sinkContext = context;
            current->sink = *sink;
            *cookie = 5;
            return current->Call("RegisterServerNotifySink");
        };
        serverTable.UnregisterServerNotifySink = [](uint32_t cookie) {
            EXPECT_EQ(cookie, 5u);
            return current->Call("UnregisterServerNotifySink");
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
        exports.ServerExit = [] { return current->Call("ServerExit"); };
        exports.ServerExit2 = [](DWORD sessionId) { return current->Call("ServerExit2", Text(" %u", sessionId)); };
        exports.MultiServerExit = [](void* hMultiServer, void* reserved) {
            EXPECT_EQ(hMultiServer, &current->multiServer);
            return current->Call("MultiServerExit", Text(" %p", reserved));
        };
    }

    RCPtr<ServerManager> Manager(RefCountMode mode = RefCountOn) {
        RCPtr<ServerManager> manager(new ServerManager(mode, &calls));
        manager->SetServerInterface(serverTable);
        return manager;
    }
    RCPtr<HookInstance> Instance(const RCPtr<ServerManager>& manager) {
        return RCPtr<HookInstance>(new HookInstance(manager.Get()));
    }

    std::vector<Mode> Modes() {
        const std::string own = std::to_string(getpgid(getpid()));
        const auto single = [](const std::string& session, const char* msTimeout, const char* lowPriv) {
            return " - sessionId(" + session + ")  rpcPlugin(0x%p)  multiServerMode(false)  msTimeoutReady(" +
                   msTimeout + ")  lowPriv(" + lowPriv + ")  rcEnabled(true)";
        };
        return {
            {"own session", [](auto& m, auto* i, uint32_t ms) { return m.ServerInit(i, ms, false); },
             [](auto& m, auto* i) { return m.ServerExit(i); }, "ServerInit2 " + own + " Test", "ServerExit2 " + own,
             false, single(own, "0", "false")},
            {"low privileges don't count in a session",
             [](auto& m, auto* i, uint32_t ms) { return m.ServerInit(i, ms, true); },
             [](auto& m, auto* i) { return m.ServerExit(i); }, "ServerInit2 " + own + " Test", "ServerExit2 " + own,
             false, single(own, "0", "true")},
            {"a given session", [](auto& m, auto* i, uint32_t ms) { return m.ServerInitForSession(77, i, ms); },
             [](auto& m, auto* i) { return m.ServerExitForSession(77, i, false); }, "ServerInit2 77 Test",
             "ServerExit2 77", false, single("77", "0", "false")},
            {"no session", [](auto& m, auto* i, uint32_t ms) { return m.ServerInitForSession(kNoSession, i, ms); },
             [](auto& m, auto* i) { return m.ServerExitForSession(kNoSession, i, false); }, "ServerInit Test",
             "ServerExit", false, single("-1", "0", "false")},
            {"multi-server", [](auto& m, auto*, uint32_t) { return m.MultiServerInit(77); },
             [](auto& m, auto*) { return m.MultiServerExit(77, nullptr); }, "MultiServerInit 77 Test \"\"",
             "MultiServerExit (nil)", true,
             " - sessionId(77)  rpcPlugin(0x(nil))  multiServerMode(true)  msTimeoutReady(0)  lowPriv(false)  "
             "rcEnabled(true)"},
        };
    }

    // A server's channel, from the connection to readiness.
    void BringUp() {
        service.FireChannel(QSC_CHANNEL_CONNECTED);
        service.FireObject("control", QSC_OBJECT_CONNECTED);
        service.FireObject("data", QSC_OBJECT_CONNECTED);
    }

    // One call of the service, its name and arguments.
    Bool Call(const std::string& name, const std::string& arguments = {}) {
        Note(name + arguments);
        return failing == name ? FALSE : TRUE;
    }
    void Note(const std::string& call) { calls.push_back(call); }
    Names TakeCalls() { return std::exchange(calls, {}); }
    Names Errors() const { return log.Texts(kLogError); }

    // The function of the first line with that text.
    std::string Owner(const std::string& text) const {
        for (const LogCapture::Line& line : log.Lines()) {
            if (line.text == text) return line.function;
        }
        return {};
    }

    LogCapture log;
    ChannelService service;
    QSCService_ServerInterface serverTable{};
    QSCService_ServerNotifySink sink{};
    void* sinkContext = nullptr;
    Names calls;  // of all that is the test's: exports, server table, hooks
    std::string failing;
    bool givesTables = true;
    Bool availableSideChannel = 0;
    int polls = 0;
    std::function<void()> duringNextPoll;
    char channel = 0, multiServer = 0;
    std::optional<StubService> stub;

private:
    Bool Init(const std::string& name, const std::string& arguments, QSC_SERVICE_QUERY_INTERFACE* query, void** handle,
              void* value) {
        if (givesTables) *query = service.Query();
        *handle = value;  // also when it fails
        return Call(name, arguments);
    }

    inline static ServerModes* current = nullptr;
};

TEST_F(ServerModes, EachStartCallsItsExportAndEachExitItsPartner) {
    for (const Mode& mode : Modes()) {
        SCOPED_TRACE(mode.name);
        const RCPtr<ServerManager> manager = Manager();
        log.Clear();
        for (int round = 0; round < 2; ++round) {
            RCPtr<HookInstance> instance = Instance(manager);
            const WkPtr<HookInstance> link(instance.Get());
            TakeCalls();
            polls = 0;
            EXPECT_TRUE(mode.start(*manager, instance.Get(), 0));
            EXPECT_EQ(TakeCalls(), (mode.multi ? Names{mode.init, "RegisterServerNotifySink"} : Names{mode.init}));
            EXPECT_TRUE(manager->IsInitialized());
            EXPECT_EQ(polls, 0) << "no time, no wait";
            EXPECT_EQ(Errors(), Names{});
            EXPECT_FALSE(mode.start(*manager, instance.Get(), 0));
            EXPECT_EQ(Errors(), Names{"Already initialized\n"});
            EXPECT_EQ(TakeCalls(), Names{});

            log.Clear();
            EXPECT_TRUE(mode.exit(*manager, instance.Get()));
            EXPECT_EQ(TakeCalls(), (mode.multi ? Names{"UnregisterServerNotifySink", "OnServerExit", mode.undo}
                                               : Names{"Unregister", mode.undo, "OnServerExit"}));
            EXPECT_EQ(log.Count(kUndone), 1u);
            EXPECT_NE(Owner(kUndone).find("QSCServiceServerExit"), std::string::npos);
            EXPECT_EQ(Errors(), mode.multi ? Names{} : Names{kSinkGone});
            EXPECT_FALSE(manager->IsInitialized());
            instance = nullptr;
            EXPECT_FALSE(link.Lock()) << "the manager keeps no instance";
            log.Clear();
        }
    }
}

TEST_F(ServerModes, AStartTracesItsArguments) {
    for (const Mode& mode : Modes()) {
        SCOPED_TRACE(mode.name);
        const RCPtr<ServerManager> manager = Manager();
        const RCPtr<HookInstance> instance = Instance(manager);
        log.Clear();
        ASSERT_TRUE(mode.start(*manager, instance.Get(), 0));
        const std::string arguments =
            mode.multi ? mode.trace : Text(mode.trace.c_str(), static_cast<const void*>(service.context));
        int traces = 0;
        for (const LogCapture::Line& line : log.Lines()) {
            if (line.level == kLogInfo && line.text.starts_with("Enter - Test(0x0x") &&
                line.text.ends_with(arguments)) {
                ++traces;
                EXPECT_NE(line.function.find("ServerInitImp"), std::string::npos);
            }
        }
        EXPECT_EQ(traces, 1) << arguments;
        EXPECT_EQ(log.Count("Load qscservice from " + gServicePath + " \n"), 1u);
        EXPECT_TRUE(mode.exit(*manager, instance.Get()));
    }
}

TEST_F(ServerModes, WhatIsRefusedBeforeTheServiceIsAskedLeavesItAlone) {
    struct Case {
        const char* error;
        RefCountMode counting;
        bool allowed;
        std::function<bool(RPCManager&, RPCPluginInstance*)> start;
    };
    const auto multi = [](RPCManager& m, RPCPluginInstance*) { return m.MultiServerInit(77); };
    const Case cases[] = {
        {"Running as server not allowed.\n", RefCountOff, false, multi},
        {"Reference counting must be enabled in multi-server mode\n", RefCountOff, true, multi},
        {"rpcPlugin == NULL\n", RefCountOn, true,
         [](RPCManager& m, RPCPluginInstance*) { return m.ServerInit(nullptr, 0, false); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.error);
        const auto manager = std::make_unique<ServerManager>(RefCountOff, &calls);
        RCPtr<ServerManager> counted;
        if (c.counting == RefCountOn) counted = Manager();
        ServerManager& m = counted ? *counted : *manager;
        const RCPtr<HookInstance> instance(new HookInstance(&m));
        m.allowed = c.allowed;
        log.Clear();
        TakeCalls();
        EXPECT_FALSE(c.start(m, instance.Get()));
        EXPECT_EQ(Errors(), Names{c.error});
        EXPECT_NE(Owner(c.error).find("ServerInitImp"), std::string::npos);
        EXPECT_EQ(log.Count("Load qscservice from " + gServicePath + " \n"), 0u);
        EXPECT_EQ(TakeCalls(), Names{});
        m.allowed = true;
        EXPECT_TRUE(m.ServerInitForSession(77, instance.Get(), 0)) << "another try";
        EXPECT_TRUE(m.ServerExitForSession(77, instance.Get(), false));
    }
}

TEST_F(ServerModes, AFailedExportIsNotUndone) {
    for (const Mode& mode : Modes()) {
        SCOPED_TRACE(mode.name);
        const RCPtr<ServerManager> manager = Manager();
        const RCPtr<HookInstance> instance = Instance(manager);
        log.Clear();
        TakeCalls();
        failing = mode.init.substr(0, mode.init.find(' '));
        EXPECT_FALSE(mode.start(*manager, instance.Get(), 0));
        EXPECT_EQ(Errors(), Names{"QSCService_" + failing + "() failed\n"});
        EXPECT_EQ(TakeCalls(), Names{mode.init});
        EXPECT_TRUE(manager->MultiServerExit(77, nullptr)) << "has nothing to do";
        EXPECT_EQ(TakeCalls(), Names{"OnServerExit"});
        failing.clear();
        // In another mode, for which what the failed one has left counts for nothing.
        EXPECT_TRUE(manager->ServerInitForSession(8, instance.Get(), 0));
        EXPECT_TRUE(manager->ServerExitForSession(8, instance.Get(), false));
        EXPECT_EQ(TakeCalls(), (Names{"ServerInit2 8 Test", "Unregister", "ServerExit2 8", "OnServerExit"}));
    }
}

TEST_F(ServerModes, AFailureAfterTheExportIsUndoneThere) {
    struct Case {
        const char* name;
        bool inSingle, inMulti;
        std::function<void(ServerManager&)> spoil;
        uint32_t msTimeout;
        Names errors;
    };
    const Names sinkFailed = {"Channel.v1.RegisterChannelNotifySink() failed\n", "RegisterChannelSink() failed\n"};
    const Case cases[] = {
        {"no tables",
         true,
         true,
         [this](auto&) { givesTables = false; },
         0,
         {"Failed to get QSCService_ChannelInterface\n", "Init() failed\n"}},
        {"tcp can't be configured",
         true,
         true,
         [](auto& m) { m.tcpResult = false; },
         0,
         {"Error in configuring TcpSide Channel.\n"}},
        {"virtual can't be configured",
         true,
         true,
         [](auto& m) { m.virtualResult = false; },
         0,
         {"Error in configuring Virtual Side Channel.\n"}},
        {"tcp is unavailable", true, false, [](auto& m) { m.wantTcp = true; }, 0, {"TCP requested but unavailable\n"}},
        {"virtual is unavailable",
         true,
         false,
         [](auto& m) { m.wantVirtual = true; },
         0,
         {"Virtual side channel requested but unavailable\n"}},
        {"side channels can't be asked for",
         true,
         false,
         [this](auto& m) {
             service.object.IsSideChannelAvailable = nullptr;
             m.wantTcp = true;
         },
         0,
         {"TCP requested but unavailable\n"}},
        {"the channel sink is refused", true, false, [this](auto&) { service.Fail("Register"); }, 0, sinkFailed},
        {"not ready in time", true, false, [](auto&) {}, 1, {"WaitUntilReadyOrRejected failed [-1]\n"}},
        {"rejected",
         true,
         false,
         [this](auto&) {
             service.connection = QSC_CONNECTION_CONNECTED;
             duringNextPoll = [this] { service.FireChannel(QSC_CHANNEL_DISCONNECTED); };
         },
         kLongMS,
         {"WaitUntilReadyOrRejected failed [1]\n"}},
        {"no server table",
         false,
         true,
         [](auto& m) { m.SetServerInterface({}); },
         0,
         {"ServerInterface is needed for MultiServer mode.\n"}},
        {"the server sink is refused",
         false,
         true,
         [this](auto&) { failing = "RegisterServerNotifySink"; },
         0,
         {"RegisterServerNotifySink() failed.\n"}},
    };
    const auto isSideChannelAvailable = service.object.IsSideChannelAvailable;
    for (const Mode& mode : Modes()) {
        for (const Case& c : cases) {
            if (!(mode.multi ? c.inMulti : c.inSingle)) continue;
            SCOPED_TRACE(std::string(mode.name) + ", " + c.name);
            const RCPtr<ServerManager> manager = Manager();
            RCPtr<HookInstance> instance = Instance(manager);
            const WkPtr<HookInstance> link(instance.Get());
            log.Clear();
            TakeCalls();
            c.spoil(*manager);
            EXPECT_FALSE(mode.start(*manager, instance.Get(), c.msTimeout));
            EXPECT_EQ(Errors(), c.errors);
            EXPECT_NE(Owner(c.errors.back()).find("ServerInitImp"), std::string::npos);
            EXPECT_EQ(log.Count(kUndone), 1u);
            const Names called = TakeCalls();
            ASSERT_FALSE(called.empty());
            EXPECT_EQ(called.front(), mode.init);
            EXPECT_EQ(called.back(), mode.undo);
            EXPECT_EQ(std::count(called.begin(), called.end(), "OnServerInit"), 0);
            EXPECT_FALSE(manager->IsInitialized());

            // Nothing is left to exit.
            log.Clear();
            EXPECT_FALSE(manager->ServerExit(instance.Get()));
            EXPECT_EQ(Errors(), Names{"Not initialized\n"});
            instance = nullptr;
            EXPECT_FALSE(link.Lock()) << "the manager keeps no instance";
            EXPECT_TRUE(manager->MultiServerExit(77, nullptr));
            EXPECT_EQ(Errors(), Names{"Not initialized\n"});
            EXPECT_EQ(TakeCalls(), Names{"OnServerExit"});

            // Another try works.
            givesTables = manager->tcpResult = manager->virtualResult = true;
            manager->wantTcp = manager->wantVirtual = false;
            manager->SetServerInterface(serverTable);
            service.object.IsSideChannelAvailable = isSideChannelAvailable;
            service.connection = QSC_CONNECTION_DISCONNECTED;
            service.FailNoMore();
            failing.clear();
            const RCPtr<HookInstance> next = Instance(manager);
            log.Clear();
            EXPECT_TRUE(mode.start(*manager, next.Get(), 0));
            EXPECT_EQ(log.Count("Load qscservice from " + gServicePath + " \n"), 0u) << "loaded once";
            EXPECT_TRUE(mode.exit(*manager, next.Get()));
        }
    }
}

TEST_F(ServerModes, AnUndoAndAnExitThatFailSaySo) {
    for (const Mode& mode : Modes()) {
        SCOPED_TRACE(mode.name);
        const RCPtr<ServerManager> manager = Manager();
        const std::string name = mode.undo.substr(0, mode.undo.find(' '));
        const std::string line =
            mode.multi ? Text("QSCService_MultiServerExit(0x%p) failed.\n", static_cast<void*>(&multiServer))
            : name == "ServerExit2"
                ? "QSCService_ServerExit2(" + mode.undo.substr(mode.undo.find(' ') + 1) + ") failed.\n"
                : "QSCService_ServerExit() failed.\n";
        failing = name;
        manager->tcpResult = false;
        log.Clear();
        RCPtr<HookInstance> instance = Instance(manager);
        EXPECT_FALSE(mode.start(*manager, instance.Get(), 0));
        EXPECT_EQ(Errors(), (Names{"Error in configuring TcpSide Channel.\n", line}));
        EXPECT_NE(Owner(line).find("QSCServiceServerExit"), std::string::npos);

        manager->tcpResult = true;
        instance = Instance(manager);
        ASSERT_TRUE(mode.start(*manager, instance.Get(), 0));
        log.Clear();
        TakeCalls();
        EXPECT_FALSE(mode.exit(*manager, instance.Get()));
        EXPECT_EQ(Errors(), mode.multi ? Names{line} : (Names{kSinkGone, line}));
        EXPECT_EQ(log.Count(kUndone), 0u);
        const Names called = TakeCalls();
        EXPECT_EQ(std::count(called.begin(), called.end(), "OnServerExit"), 1);
        EXPECT_FALSE(manager->IsInitialized()) << "ended all the same";
        failing.clear();
        ASSERT_TRUE(mode.start(*manager, instance.Get(), 0));
        EXPECT_TRUE(mode.exit(*manager, instance.Get()));
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
        const RCPtr<ServerManager> manager = Manager();
        const RCPtr<HookInstance> instance = Instance(manager);
        ASSERT_TRUE(manager->ServerInitForSession(c.started, instance.Get(), 0));
        log.Clear();
        EXPECT_FALSE(manager->ServerExitForSession(c.exited, instance.Get(), false));
        EXPECT_EQ(Errors(), (Names{kSinkGone, c.error}));
        EXPECT_FALSE(manager->IsInitialized());
    }
}

TEST_F(ServerModes, AStartAsksForWhatItsSideChannelsNeed) {
    struct Case {
        bool wantTcp, wantVirtual;
        Bool available;
        Names singleAsks;
    };
    const Case cases[] = {
        {true, false, QSC_SIDE_CHANNEL_TCP, {"IsSideChannelAvailable 2"}},
        {false, true, QSC_SIDE_CHANNEL_VIRTUAL, {"IsSideChannelAvailable 1"}},
        {false, false, 0, {}},
    };
    for (const Case& c : cases) {
        for (const bool multi : {false, true}) {
            SCOPED_TRACE(testing::Message() << c.wantTcp << c.wantVirtual << multi);
            const RCPtr<ServerManager> manager = Manager();
            const RCPtr<HookInstance> instance = Instance(manager);
            manager->wantTcp = c.wantTcp;
            manager->wantVirtual = c.wantVirtual;
            manager->virtualResult = !c.wantTcp;  // not asked with tcp
            availableSideChannel = multi ? 0 : c.available;
            TakeCalls();
            ASSERT_TRUE(multi ? manager->MultiServerInit(77) : manager->ServerInitForSession(77, instance.Get(), 0));
            Names called = TakeCalls();
            std::erase_if(called, [](const std::string& call) { return !call.starts_with("IsSide"); });
            EXPECT_EQ(called, multi ? Names{} : c.singleAsks);
            manager->MultiServerExit(77, nullptr);
        }
    }
}

TEST_F(ServerModes, AReadyChannelEndsTheWait) {
    const RCPtr<ServerManager> manager = Manager();
    const RCPtr<HookInstance> instance = Instance(manager);
    service.connection = QSC_CONNECTION_CONNECTED;
    duringNextPoll = [this] { BringUp(); };
    TakeCalls();
    EXPECT_TRUE(manager->ServerInitForSession(77, instance.Get(), kLongMS));
    EXPECT_EQ(TakeCalls(), (Names{"ServerInit2 77 Test", "OnServerInit"}));
    EXPECT_EQ(polls, 1);
    EXPECT_TRUE(instance->IsReady());
    EXPECT_TRUE(log.Has(kLogInfo, "Ready\n"));

    // One request is open, whose answer an exit waits for.
    void* hContext = nullptr;
    ASSERT_TRUE(instance->CreateMessage(&hContext, RPCChannelType::Data));
    ASSERT_TRUE(instance->InvokeMessage(hContext, TRUE, RPCChannelType::Data));
    duringNextPoll = [this] { service.ContextSink().OnMsgDone(service.context, service.latestId, nullptr); };
    log.Clear();
    EXPECT_TRUE(manager->ServerExitForSession(77, instance.Get(), false));
    EXPECT_EQ(polls, 2);
    EXPECT_EQ(log.Count("1 message still pending\n"), 0u);
    EXPECT_EQ(TakeCalls(), (Names{"Disconnect", "Unregister", "ServerExit2 77", "OnServerExit"}));
    EXPECT_EQ(instance->TakeHeard(), (Names{"ready", "done 1", "not ready"}));
}

TEST_F(ServerModes, AnExitOnAnotherThreadLeavesTheChannelToIt) {
    const RCPtr<ServerManager> manager = Manager();
    const RCPtr<HookInstance> instance = Instance(manager);
    service.connection = QSC_CONNECTION_CONNECTED;
    duringNextPoll = [this] { BringUp(); };
    ASSERT_TRUE(manager->ServerInitForSession(77, instance.Get(), kLongMS));
    void* hContext = nullptr;
    ASSERT_TRUE(instance->CreateMessage(&hContext, RPCChannelType::Data));
    ASSERT_TRUE(instance->InvokeMessage(hContext, TRUE, RPCChannelType::Data));
    TakeCalls();
    log.Clear();
    std::thread([&] { EXPECT_TRUE(manager->ServerExitForSession(77, instance.Get(), true)); }).join();
    EXPECT_EQ(TakeCalls(), (Names{"ServerExit2 77", "OnServerExit"}));
    EXPECT_EQ(Errors(), Names{});
    EXPECT_EQ(log.Count("1 message still pending\n"), 0u) << "not waited for";
    EXPECT_TRUE(instance->IsReady());
    EXPECT_TRUE(instance->ChannelDisconnect());
    EXPECT_TRUE(instance->UnregisterChannelSink());
    EXPECT_EQ(instance->TakeHeard(), (Names{"ready", "not ready"}));
}

TEST_F(ServerModes, AChannelThatDoesNotComeDownDoesNotFailTheExit) {
    const RCPtr<ServerManager> manager = Manager();
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
    EXPECT_NE(Owner("ChannelDisconnect() failed\n").find("InstanceExitImp"), std::string::npos);
    EXPECT_FALSE(manager->IsInitialized());
}

TEST_F(ServerModes, AnExitForAnotherInstanceChangesNothing) {
    const RCPtr<ServerManager> manager = Manager();
    const RCPtr<HookInstance> instance = Instance(manager), other = Instance(manager);
    EXPECT_FALSE(manager->ServerExit(nullptr));
    EXPECT_EQ(Errors(), Names{"Not initialized\n"});
    ASSERT_TRUE(manager->ServerInit(instance.Get(), 0, false));
    void* const started = service.context;
    ASSERT_TRUE(other->RegisterChannelSink(nullptr));
    TakeCalls();
    log.Clear();
    EXPECT_FALSE(manager->ServerExit(other.Get()));
    EXPECT_FALSE(manager->ServerExit(nullptr));
    EXPECT_EQ(Errors(), (Names{Text("RPCPlugin mismatch - Init(0x%p)  Exit(0x%p)", started, service.context),
                               "rpcPlugin == NULL\n"}));
    EXPECT_NE(Owner("rpcPlugin == NULL\n").find("ServerExitImp"), std::string::npos);
    EXPECT_EQ(TakeCalls(), Names{});
    EXPECT_TRUE(manager->IsInitialized());
    EXPECT_TRUE(manager->ServerExit(instance.Get()));
    EXPECT_FALSE(manager->ServerExit(instance.Get()));
}

TEST_F(ServerModes, MultiServerExitDropsTheInstancesAndTheReferenceOfTheStart) {
    ServerManager* kept = nullptr;
    {
        const RCPtr<ServerManager> manager = Manager();
        kept = manager.Get();
        ASSERT_TRUE(manager->MultiServerInit(77));
    }
    EXPECT_EQ(sink.version, 1u);
    void *first = nullptr, *second = nullptr;
    ASSERT_EQ(sink.QscOnServerInstanceCreated(sinkContext, kServer, &first), TRUE);
    ASSERT_EQ(sink.QscOnServerInstanceCreated(sinkContext, &second, &second), TRUE);
    // One that is gone before.
    EXPECT_EQ(sink.QscOnServerConnected(sinkContext, QSC_SESSION_STORM, kServer), TRUE);
    EXPECT_EQ(sink.QscOnServerInstanceDestroyed(sinkContext, first, kServer), TRUE);
    TakeCalls();
    log.Clear();
    EXPECT_TRUE(kept->MultiServerExit(77, &second));
    EXPECT_EQ(TakeCalls(), (Names{"UnregisterServerNotifySink", "OnServerExit",
                                  Text("MultiServerExit %p", static_cast<void*>(&second)), "manager gone"}))
        << "the channel of an instance is left alone";
    EXPECT_TRUE(log.Has(kLogInfo, Text("0x%p destroyed\n", second)));
    log.Clear();
    EXPECT_EQ(sink.QscOnServerConnected(sinkContext, QSC_SESSION_STORM, kServer), FALSE);
    EXPECT_EQ(sink.QscOnServerInstanceDestroyed(sinkContext, second, kServer), FALSE);
    EXPECT_EQ(log.Texts(kLogWarn), (Names{Text("RPCManager 0x%p not found", sinkContext),
                                          Text("RPCManager(0x%p) hServerId(0x%p) not found", sinkContext, kServer)}));
}

TEST_F(ServerModes, AServerSinkThatStaysFailsNoExit) {
    const RCPtr<ServerManager> manager = Manager();
    for (const bool missing : {false, true}) {
        manager->SetServerInterface(serverTable);
        ASSERT_TRUE(manager->MultiServerInit(77));
        if (missing) manager->SetServerInterface({});
        failing = "UnregisterServerNotifySink";
        log.Clear();
        EXPECT_TRUE(manager->MultiServerExit(77, nullptr));
        EXPECT_EQ(Errors(), Names{"UnregisterServerNotifySink() failed.\n"});
        failing.clear();
    }
}

// The service has refused it, so there is no cookie to give back, whatever it has stored.
TEST_F(ServerModes, ARefusedServerSinkIsNotUnregistered) {
    const RCPtr<ServerManager> manager = Manager();
    const RCPtr<HookInstance> instance = Instance(manager);
    failing = "RegisterServerNotifySink";
    EXPECT_FALSE(manager->MultiServerInit(77));
    failing.clear();
    TakeCalls();
    log.Clear();
    EXPECT_TRUE(manager->MultiServerExit(77, nullptr));
    EXPECT_EQ(TakeCalls(), Names{"OnServerExit"});
    EXPECT_EQ(Errors(), Names{});
}

// Exits that don't fit the start, and more of them than starts, take no reference that isn't theirs.
TEST_F(ServerModes, AnExitOfTheWrongModeKeepsTheManager) {
    const RCPtr<ServerManager> manager = Manager();
    WkPtr<HookInstance> link;
    {
        const RCPtr<HookInstance> instance = Instance(manager);
        link = WkPtr<HookInstance>(instance.Get());
        ASSERT_TRUE(manager->ServerInitForSession(77, instance.Get(), 0));
    }
    EXPECT_TRUE(link.Lock()) << "held by the start";
    TakeCalls();
    EXPECT_TRUE(manager->MultiServerExit(77, nullptr));
    EXPECT_EQ(TakeCalls(), (Names{"OnServerExit", "ServerExit2 77"}));
    EXPECT_FALSE(link.Lock());

    const QSC_SERVICE_QUERY_INTERFACE query = service.Query();
    ASSERT_TRUE(manager->ClientInit(&query));
    EXPECT_TRUE(manager->MultiServerExit(77, nullptr));
    EXPECT_EQ(TakeCalls(), Names{"OnServerExit"});

    ASSERT_TRUE(manager->MultiServerInit(77));
    const RCPtr<HookInstance> instance = Instance(manager);
    log.Clear();
    EXPECT_FALSE(manager->ServerExitForSession(77, instance.Get(), false));
    EXPECT_EQ(Errors().size(), 1u);
    EXPECT_TRUE(Errors().front().starts_with("RPCPlugin mismatch - Init(0x(nil))  Exit(0x")) << Errors().front();
    EXPECT_TRUE(manager->IsInitialized());
    for (int time = 0; time < 3; ++time) EXPECT_TRUE(manager->MultiServerExit(77, nullptr));
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "MultiServerExit (nil)"), 1);
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "manager gone"), 0);
}

TEST_F(ServerModes, StartsAndStopsOfServersPassTheServicesAnswerOn) {
    static std::vector<void*> given;
    static Bool answer;
    const auto one = [](QscServerID id) {
        given = {id};
        return answer;
    };
    const auto start = [](void* context, QscServerID id) {
        given = {context, id};
        return answer;
    };
    const RCPtr<ServerManager> manager = Manager();
    ASSERT_TRUE(manager->MultiServerInit(77));
    struct Case {
        bool (RPCManager::*operation)(QscServerID);
        std::function<void(QSCService_ServerInterface&)> supply;
        std::vector<void*> expected;
    };
    const Case cases[] = {
        {&RPCManager::StartServer, [&](auto& table) { table.StartServer = start; }, {sinkContext, kServer}},
        {&RPCManager::StopServer, [&](auto& table) { table.StopServer = one; }, {kServer}},
        {&RPCManager::StopAllServers, [&](auto& table) { table.StopAllServers = one; }, {kServer}},
    };
    for (const Case& c : cases) {
        QSCService_ServerInterface table = serverTable;
        manager->SetServerInterface(table);
        log.Clear();
        EXPECT_FALSE((*manager.*c.operation)(kServer));
        EXPECT_EQ(Errors(), Names{"Must called from multi-server mode.\n"});
        c.supply(table);
        manager->SetServerInterface(table);
        for (const Bool value : {0, 1, 2, -1}) {
            given.clear();
            answer = value;
            EXPECT_EQ((*manager.*c.operation)(kServer), value == 1);
            EXPECT_EQ(given, c.expected);
        }
        EXPECT_EQ(Errors().size(), 1u);
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
        RCPtr<ServerManager> manager = Manager();
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
        TakeCalls();
        manager = nullptr;
        EXPECT_EQ(TakeCalls(), Names{"manager gone"}) << "nothing holds it";
    }
}

}  // namespace
