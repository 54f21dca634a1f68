#include "rpc/RPCPluginInstance.h"

#include <barrier>
#include <thread>

#include "rpc/SessionUtils.h"
#include "tests/rpc/ChannelService.h"

namespace {

using Names = ChannelService::Names;

using RPCPluginInstanceTest = InstanceUnderTest;

TEST_F(RPCPluginInstanceTest, HandlesAConnectionThatIsUpWhenTheSinkIsRegistered) {
    const QSC_SERVICE_QUERY_INTERFACE query = service.Query();
    ASSERT_TRUE(manager.Init(false, &query));
    service.connection = QSC_CONNECTION_CONNECTED;
    EXPECT_TRUE(instance->RegisterChannelSink(&channelHandle));
    EXPECT_EQ(service.TakeCalls(), (Names{"Register", "Connect"}));
    EXPECT_TRUE(log.Has(kLogInfo, "Channel.v1.RegisterChannelNotifySink() [OK]\n"));
    EXPECT_TRUE(log.Has(kLogInfo, "Simulating connect callback\n"));

    EXPECT_TRUE(instance->RegisterChannelSink(&channelHandle));
    EXPECT_EQ(service.TakeCalls(), Names{});
    EXPECT_EQ(Errors(), Names{"Channel sink already registered\n"});

    log.Clear();
    EXPECT_TRUE(instance->UnregisterChannelSink());
    EXPECT_EQ(service.TakeCalls(), (Names{"Disconnect", "Unregister"}));
    EXPECT_TRUE(log.Has(kLogInfo, "Simulating disconnect callback\n"));
    EXPECT_EQ(Errors(), Names{"Channel.v1.UnregisterChannelNotifySink() [OK]\n"});

    log.Clear();
    EXPECT_TRUE(instance->UnregisterChannelSink());
    EXPECT_EQ(service.TakeCalls(), Names{});
    EXPECT_EQ(Errors(), Names{"Channel sink not registered\n"});
}

TEST_F(RPCPluginInstanceTest, AFailedRegistrationCanBeTriedAgain) {
    const QSC_SERVICE_QUERY_INTERFACE query = service.Query();
    ASSERT_TRUE(manager.Init(false, &query));
    service.connection = QSC_CONNECTION_CONNECTED;
    service.Fail("Register");
    EXPECT_FALSE(instance->RegisterChannelSink(&channelHandle));
    EXPECT_EQ(Errors(), Names{"Channel.v1.RegisterChannelNotifySink() failed\n"});
    EXPECT_EQ(service.TakeCalls(), Names{"Register"});
    service.FailNoMore();
    EXPECT_TRUE(instance->RegisterChannelSink(&channelHandle));
    EXPECT_EQ(service.TakeCalls(), (Names{"Register", "Connect"}));

    service.connection = QSC_CONNECTION_DISCONNECTED;
    service.Fail("Unregister");
    log.Clear();
    EXPECT_FALSE(instance->UnregisterChannelSink());
    EXPECT_EQ(Errors(), Names{"Channel.v1.UnregisterChannelNotifySink() failed\n"});
    service.FailNoMore();
    service.TakeCalls();
    EXPECT_TRUE(instance->RegisterChannelSink(&channelHandle));
    EXPECT_EQ(service.TakeCalls(), Names{"Register"});
}

// What a sequence of events makes the instance call, tell and log.
struct EventCase {
    const char* name;
    std::function<void(ChannelService&)> events;
    Names calls, heard, errors;
    bool rejected;  // seen by a waiter
};

constexpr auto kDown = QSC_CONNECTION_DISCONNECTED;
constexpr auto kUp = QSC_CONNECTION_CONNECTED;
constexpr auto kChannelDown = QSC_CHANNEL_DISCONNECTED;
constexpr auto kChannelUp = QSC_CHANNEL_CONNECTED;

const Names kReadyCalls{"Connect", "CreateObject control", "CreateObject data", "GetObjectOptions"};

Names Joined(Names first, const Names& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

const EventCase kEventCases[] = {
    {"connect", [](auto& s) { s.FireConnection(kUp); }, {"Connect"}, {}, {}, false},
    {"connection acts on the current state: up",
     [](auto& s) { s.FireConnection(kUp, kDown); },
     {"Connect"},
     {},
     {},
     false},
    {"connection acts on the current state: down",
     [](auto& s) {
         s.FireConnection(kUp);
         s.FireConnection(kDown, kUp);
     },
     {"Connect", "Disconnect"},
     {"rejected"},
     {},
     false},
    {"disconnect without a connect", [](auto& s) { s.FireConnection(kDown); }, {}, {}, {}, false},
    {"failed connect",
     [](auto& s) {
         s.Fail("Connect");
         s.FireConnection(kUp);
         s.FireChannel(kChannelDown);
     },
     {"Connect"},
     {},
     {"Channel.v1.Connect() failed\n"},
     false},
    {"second connect fails: the first one stands",
     [](auto& s) {
         s.FireConnection(kUp);
         s.Fail("Connect");
         s.FireConnection(kUp);
         s.FireChannel(kChannelDown);
     },
     {"Connect", "Connect"},
     {"rejected"},
     {"Channel.v1.Connect() failed\n"},
     true},
    {"failed disconnect still tears down",
     [](auto& s) {
         s.BringUp();
         s.Fail("Disconnect");
         s.FireConnection(kDown);
         s.FireConnection(kDown);
     },
     Joined(kReadyCalls, {"Disconnect", "DestroyObject data", "DestroyObject control"}),
     {"ready", "not ready"},
     {"Channel.v1.Disconnect() failed\n"},
     false},
    {"rejection",
     [](auto& s) {
         s.FireConnection(kUp);
         s.FireChannel(kChannelDown);
     },
     {"Connect"},
     {"rejected"},
     {},
     true},
    {"rejection comes while the connect is still under way",
     [](auto& s) {
         s.During("Connect", [&s] { s.FireChannel(kChannelDown); });
         s.FireConnection(kUp);
     },
     {"Connect"},
     {"rejected"},
     {},
     true},
    {"rejected once",
     [](auto& s) {
         s.FireConnection(kUp);
         s.FireChannel(kChannelDown);
         s.FireChannel(kChannelDown);
     },
     {"Connect"},
     {"rejected"},
     {},
     true},
    {"channel down without a connect", [](auto& s) { s.FireChannel(kChannelDown); }, {}, {}, {}, false},
    {"a channel that comes up takes the rejection back",
     [](auto& s) {
         s.FireConnection(kUp);
         s.FireChannel(kChannelDown);
         s.FireConnection(kUp);
         s.FireChannel(kChannelUp);
     },
     {"Connect", "Connect"},
     {"rejected"},
     {},
     false},
    {"the connection goes before the channel is up",
     [](auto& s) {
         s.FireConnection(kUp);
         s.FireConnection(kDown);
     },
     {"Connect", "Disconnect"},
     {"rejected"},
     {},
     false},
    {"channel acts on the transition",
     [](auto& s) {
         s.FireConnection(kUp);
         s.FireChannel(kChannelUp, kChannelDown);
     },
     {"Connect"},
     {"rejected"},
     {},
     true},
    {"channel goes after it was ready",
     [](auto& s) {
         s.BringUp();
         s.FireChannel(kChannelDown);
     },
     Joined(kReadyCalls, {"DestroyObject data", "DestroyObject control"}),
     {"ready", "not ready"},
     {},
     false},
    {"channel goes, then the connection",
     [](auto& s) {
         s.BringUp();
         s.FireChannel(kChannelDown);
         s.FireConnection(kDown);
     },
     Joined(kReadyCalls, {"DestroyObject data", "DestroyObject control"}),
     {"ready", "not ready"},
     {},
     false},
    {"unknown states",
     [](auto& s) {
         s.FireConnection(QSC_CONNECTION_PENDING);
         s.FireChannel(QSC_CHANNEL_UNINITIALIZED);
         s.FireChannel(static_cast<QSCService_ChannelState>(7));
         s.FireConnection(static_cast<QSCService_ConnectionState>(-2));
     },
     {},
     {},
     {"State PENDING is not handled\n", "State UNINITIALIZED is not handled.\n", "State unknown7 is not handled.\n",
      "State unknown-2 is not handled\n"},
     false},
};

class Events : public InstanceUnderTest, public testing::WithParamInterface<EventCase> {};

TEST_P(Events, DriveTheInstance) {
    const EventCase& c = GetParam();
    Start();
    c.events(service);
    EXPECT_EQ(service.TakeCalls(), c.calls);
    EXPECT_EQ(instance->TakeHeard(), c.heard);
    EXPECT_EQ(Errors(), c.errors);
    EXPECT_EQ(instance->WaitUntilReadyOrRejected(0), c.rejected ? 1 : -1);
}

INSTANTIATE_TEST_SUITE_P(RPCPluginInstance, Events, testing::ValuesIn(kEventCases), [](const auto& info) {
    std::string name = info.param.name;
    name.erase(std::remove_if(name.begin(), name.end(), [](unsigned char c) { return !std::isalnum(c); }), name.end());
    return name;
});

TEST_F(RPCPluginInstanceTest, RefusesConnectionsWhileItDiscardsThem) {
    Start();
    instance->SetDiscardConnection(true);
    service.FireConnection(kUp);
    EXPECT_EQ(service.TakeCalls(), Names{});
    EXPECT_EQ(log.Texts(kLogWarn), Names{"New connection discarded by request.\n"});
    instance->SetDiscardConnection(false);
    service.FireConnection(kUp);
    EXPECT_EQ(service.TakeCalls(), Names{"Connect"});
}

TEST_F(RPCPluginInstanceTest, TellsTheTypeOfTheSessionWhileTheChannelIsUp) {
    service.sessionType = QSC_SESSION_STORM;
    Start();
    service.FireChannel(kChannelUp);
    EXPECT_EQ(SessionUtils::GetSessionType(), QSC_SESSION_STORM);
    EXPECT_EQ(manager.sessionTypes, std::vector{QSC_SESSION_STORM});
    EXPECT_TRUE(log.Has(kLogDebug, "Set session type of the channel to STORM SESSION\n"));
    service.FireChannel(kChannelDown);
    EXPECT_EQ(SessionUtils::GetSessionType(), QSC_SESSION_NONE);
}

TEST_F(RPCPluginInstanceTest, AServiceThatCantTellTheSessionGivesNone) {
    service.channel.GetSessionType = nullptr;
    StartReady();
    EXPECT_EQ(manager.sessionTypes, std::vector{QSC_SESSION_NONE});
}

TEST_F(RPCPluginInstanceTest, WaitersSeeReadinessComeAndGo) {
    Start();
    EXPECT_FALSE(instance->WaitUntilReady(0));
    EXPECT_TRUE(log.Has(kLogInfo, "Not ready\n"));
    std::vector<int> results(2, 99);
    std::thread waiter([&] { results[0] = instance->WaitUntilReadyOrRejected(kInfinite); });
    std::thread other([&] { results[1] = instance->WaitUntilReady(kInfinite) ? 0 : -1; });
    service.BringUp();
    waiter.join();
    other.join();
    EXPECT_EQ(results, (std::vector{0, 0}));
    EXPECT_EQ(manager.serverInits, 1);
    EXPECT_TRUE(log.Has(kLogInfo, "Ready\n"));
    service.FireChannel(kChannelDown);
    EXPECT_FALSE(instance->WaitUntilReady(0));
    EXPECT_EQ(instance->WaitUntilReadyOrRejected(0), -1);
}

TEST_F(RPCPluginInstanceTest, ARejectionWakesAWaiter) {
    Start();
    int result = 99;
    std::thread waiter([&] { result = instance->WaitUntilReadyOrRejected(kInfinite); });
    service.FireConnection(kUp);
    service.FireChannel(kChannelDown);
    waiter.join();
    EXPECT_EQ(result, 1);
    EXPECT_EQ(manager.serverInits, 0);
    EXPECT_TRUE(log.Has(kLogInfo, "Rejected\n"));
}

TEST_F(RPCPluginInstanceTest, TheReadyHookFindsTheInstanceReadyAndMayCallIt) {
    Start();
    bool ready = false, created = false, waited = false;
    instance->onHook = [&](const std::string& hook) {
        if (hook != "ready") return;
        ready = instance->IsReady();
        void* message = nullptr;
        created = instance->CreateMessage(&message, RPCChannelType::Data);
        waited = instance->WaitUntilReady(0);
        service.FireChannel(kChannelDown);  // ends readiness inside the hook
    };
    service.BringUp();
    EXPECT_TRUE(ready && created && waited);
    EXPECT_EQ(instance->TakeHeard(), (Names{"ready", "not ready"}));
    EXPECT_FALSE(instance->IsReady());
}

TEST_F(RPCPluginInstanceTest, AHookMayDropTheLastReference) {
    Start();
    HookInstance* const raw = instance.Get();
    raw->onHook = [this](const std::string& hook) {
        if (hook == "ready") instance = nullptr;
    };
    service.BringUp();
    EXPECT_EQ(log.Count("Ready\n"), 0u);
    service.TakeCalls();
    log.Clear();
    service.FireChannel(kChannelDown);  // a late callback finds nothing
    EXPECT_EQ(service.TakeCalls(), Names{});
    EXPECT_EQ(log.Texts(kLogWarn).size(), 1u);
}

TEST(RPCPluginInstanceLife, RefusesEverythingWithoutAManager) {
    LogCapture log;
    RCPtr<HookManager> manager(new HookManager(RefCountOn));
    const RCPtr<HookInstance> orphan(new HookInstance(manager.Get())), parentless(new HookInstance(nullptr));
    manager = nullptr;
    for (const RCPtr<HookInstance>& instance : {orphan, parentless}) {
        log.Clear();
        void* hObject = nullptr;
        uint32_t options = 0;
        EXPECT_FALSE(instance->RegisterChannelSink(nullptr));
        EXPECT_FALSE(instance->UnregisterChannelSink());
        EXPECT_FALSE(instance->ChannelConnect());
        EXPECT_FALSE(instance->ChannelDisconnect());
        EXPECT_FALSE(instance->WaitUntilReady(0));
        EXPECT_EQ(instance->WaitUntilReadyOrRejected(0), -2);
        EXPECT_FALSE(instance->ChannelControlObjCreate("control"));
        EXPECT_FALSE(instance->ChannelDataObjCreate("data"));
        EXPECT_FALSE(instance->ChannelObjDestroy(nullptr, &hObject));
        EXPECT_FALSE(instance->CreateMessage(&hObject, RPCChannelType::Data));
        EXPECT_FALSE(instance->CreateExtMessage(&hObject, RPCChannelType::Data, 1));
        EXPECT_FALSE(instance->GetChannelOptions(RPCChannelType::Data, &options));
        EXPECT_FALSE(instance->InvokeMessage(nullptr, TRUE, RPCChannelType::Data));
        EXPECT_FALSE(instance->DestroyMessage(nullptr));
        EXPECT_FALSE(instance->WaitForPendingMessages(0));
        EXPECT_EQ(instance->GetVariantInterface(), nullptr);
        EXPECT_EQ(instance->GetChannelContextInterface(), nullptr);
        EXPECT_EQ(log.Texts(kLogError).size(), 15u);
    }
}

TEST(RPCPluginInstanceLife, IsKnownByItsHandleFromBirthToDeath) {
    LogCapture log;
    HookManager manager;
    RCPtr<HookInstance> instance(new HookInstance(&manager));
    unsigned handle = 0;
    for (const std::string& text : log.Texts(kLogInfo)) std::sscanf(text.c_str(), "Handle 0x0x%x added", &handle);
    ASSERT_NE(handle, 0u);
    char hex[32];
    std::snprintf(hex, sizeof hex, "0x%x", handle);
    log.Clear();
    instance = nullptr;
    EXPECT_TRUE(log.Has(kLogInfo, std::string("0x") + hex + " destroyed\n"));
    EXPECT_TRUE(log.Has(kLogInfo, std::string("Handle 0x") + hex + " removed"));
}

TEST_F(RPCPluginInstanceTest, TwoThreadsThatEndTheChannelEndItOnce) {
    Start();
    for (int round = 0; round < 50; ++round) {
        service.BringUp();
        service.TakeCalls();
        instance->TakeHeard();
        std::barrier together(2);
        std::thread other([&] {
            together.arrive_and_wait();
            instance->ChannelDisconnect();
        });
        together.arrive_and_wait();
        service.FireChannel(kChannelDown);
        other.join();
        ASSERT_EQ(service.Count("DestroyObject data"), 1u);
        ASSERT_EQ(service.Count("DestroyObject control"), 1u);
        ASSERT_EQ(instance->TakeHeard(), Names{"not ready"});
    }
}

}  // namespace
