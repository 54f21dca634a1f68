#include "rpc/RPCPluginInstance.h"

#include <barrier>
#include <thread>

#include "rpc/SessionUtils.h"
#include "tests/rpc/ChannelService.h"

namespace {

using RPCPluginInstanceTest = InstanceUnderTest;

TEST_F(RPCPluginInstanceTest, HandlesAConnectionThatIsUpWhenTheSinkIsRegistered) {
    const QSC_SERVICE_QUERY_INTERFACE query = service.Query();
    ASSERT_TRUE(manager.Init(false, &query));
    service.connection = QSC_CONNECTION_CONNECTED;
    struct {
        const char* failing;
        bool registers, result;
        Names calls, errors;
    } const steps[] = {
        {"Register", true, false, {"Register"}, {"Channel.v1.RegisterChannelNotifySink() failed\n"}},
        {"", true, true, {"Register", "Connect"}, {}},
        {"", true, true, {}, {"Channel sink already registered\n"}},
        {"", false, true, {"Disconnect", "Unregister"}, {"Channel.v1.UnregisterChannelNotifySink() [OK]\n"}},
        {"", false, true, {}, {"Channel sink not registered\n"}},
        {"", true, true, {"Register", "Connect"}, {}},
        {"Unregister",
         false,
         false,
         {"Disconnect", "Unregister"},
         {"Channel.v1.UnregisterChannelNotifySink() failed\n"}},
        {"", true, true, {"Register", "Connect"}, {}},
    };
    for (const auto& step : steps) {
        Forget();
        service.FailNoMore();
        service.Fail(step.failing);
        EXPECT_EQ(step.registers ? instance->RegisterChannelSink(&channelHandle) : instance->UnregisterChannelSink(),
                  step.result);
        EXPECT_EQ(service.TakeCalls(), step.calls);
        EXPECT_EQ(Errors(), step.errors);
        if (step.calls.size() < 2) continue;
        EXPECT_TRUE(log.Has(kLogInfo, Text("Simulating %s callback\n", step.registers ? "connect" : "disconnect")));
    }
    EXPECT_TRUE(log.Has(kLogInfo, "Channel.v1.RegisterChannelNotifySink() [OK]\n"));
}

// What a sequence of events makes the instance call, tell and log.
struct EventCase {
    std::vector<std::string> events;
    Names calls, heard, errors;
    bool rejected;  // seen by a waiter
};

constexpr auto kDown = QSC_CONNECTION_DISCONNECTED;
constexpr auto kUp = QSC_CONNECTION_CONNECTED;
constexpr auto kChannelDown = QSC_CHANNEL_DISCONNECTED;
constexpr auto kChannelUp = QSC_CHANNEL_CONNECTED;

// By name; "late" is a report whose two states differ.
const std::map<std::string, std::function<void(ChannelService&)>> kEvents = {
    {"up", [](auto& s) { s.FireConnection(kUp); }},
    {"down", [](auto& s) { s.FireConnection(kDown); }},
    {"late down", [](auto& s) { s.FireConnection(kUp, kDown); }},
    {"late up", [](auto& s) { s.FireConnection(kDown, kUp); }},
    {"channel up", [](auto& s) { s.FireChannel(kChannelUp); }},
    {"channel down", [](auto& s) { s.FireChannel(kChannelDown); }},
    {"late channel down", [](auto& s) { s.FireChannel(kChannelUp, kChannelDown); }},
    {"ready", [](auto& s) { s.BringUp(); }},
    {"Connect fails", [](auto& s) { s.Fail("Connect"); }},
    {"Disconnect fails", [](auto& s) { s.Fail("Disconnect"); }},
    {"Connect is rejected meanwhile", [](auto& s) { s.During("Connect", [&s] { s.FireChannel(kChannelDown); }); }},
    {"other states",
     [](auto& s) {
         s.FireConnection(QSC_CONNECTION_PENDING);
         s.FireChannel(QSC_CHANNEL_UNINITIALIZED);
         s.FireChannel(static_cast<QSCService_ChannelState>(7));
         s.FireConnection(static_cast<QSCService_ConnectionState>(-2));
     }},
};

const char kConnectFailed[] = "Channel.v1.Connect() failed\n";
const Names kReadyCalls = {"Connect", "CreateObject control", "CreateObject data", "GetObjectOptions"};
const Names kReadyAndGone = {"Connect",          "CreateObject control", "CreateObject data",
                             "GetObjectOptions", "DestroyObject data",   "DestroyObject control"};
const Names kReadyAndDisconnected = {"Connect",    "CreateObject control", "CreateObject data",    "GetObjectOptions",
                                     "Disconnect", "DestroyObject data",   "DestroyObject control"};

const EventCase kEventCases[] = {
    {{"late down"}, {"Connect"}, {}, {}, false},
    {{"up", "late up"}, {"Connect", "Disconnect"}, {"rejected"}, {}, false},
    {{"down"}, {}, {}, {}, false},
    {{"Connect fails", "up", "channel down"}, {"Connect"}, {}, {kConnectFailed}, false},
    {{"up", "Connect fails", "up", "channel down"}, {"Connect", "Connect"}, {"rejected"}, {kConnectFailed}, true},
    {{"ready"}, kReadyCalls, {"ready"}, {}, false},
    {{"ready", "Disconnect fails", "down", "down"},
     kReadyAndDisconnected,
     {"ready", "not ready"},
     {"Channel.v1.Disconnect() failed\n"},
     false},
    {{"up", "channel down"}, {"Connect"}, {"rejected"}, {}, true},
    {{"Connect is rejected meanwhile", "up"}, {"Connect"}, {"rejected"}, {}, true},
    {{"up", "channel down", "channel down"}, {"Connect"}, {"rejected"}, {}, true},
    {{"channel down"}, {}, {}, {}, false},
    {{"up", "channel down", "up", "channel up"}, {"Connect", "Connect"}, {"rejected"}, {}, false},
    {{"up", "down"}, {"Connect", "Disconnect"}, {"rejected"}, {}, false},
    {{"up", "late channel down"}, {"Connect"}, {"rejected"}, {}, true},
    {{"ready", "channel down"}, kReadyAndGone, {"ready", "not ready"}, {}, false},
    {{"ready", "channel down", "down"}, kReadyAndGone, {"ready", "not ready"}, {}, false},
    {{"other states"},
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
    for (const std::string& event : c.events) kEvents.at(event)(service);
    EXPECT_EQ(service.TakeCalls(), c.calls);
    EXPECT_EQ(service.TakeHeard(), c.heard);
    EXPECT_EQ(Errors(), c.errors);
    EXPECT_EQ(instance->WaitUntilReadyOrRejected(0), c.rejected ? 1 : instance->IsReady() ? 0 : -1);
}

INSTANTIATE_TEST_SUITE_P(RPCPluginInstance, Events, testing::ValuesIn(kEventCases), [](const auto& info) {
    std::string name;
    for (const std::string& event : info.param.events) name += "_" + event;
    std::replace(name.begin(), name.end(), ' ', '_');
    return name.substr(1);
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
    service.FireChannel(QSC_CHANNEL_PENDING, kChannelUp);
    EXPECT_TRUE(log.Has(kLogInfo, "   but the current state is PENDING\n"));
    EXPECT_EQ(SessionUtils::GetSessionType(), QSC_SESSION_STORM);
    EXPECT_TRUE(log.Has(kLogDebug, "Set session type of the channel to STORM SESSION\n"));
    service.FireChannel(kChannelDown);
    EXPECT_EQ(SessionUtils::GetSessionType(), QSC_SESSION_NONE);
    service.channel.GetSessionType = nullptr;  // a service that can't tell
    const QSC_SERVICE_QUERY_INTERFACE query = service.Query();
    ASSERT_TRUE(manager.Init(false, &query));
    service.FireChannel(kChannelUp);
    EXPECT_EQ(manager.sessionTypes, (std::vector{QSC_SESSION_STORM, QSC_SESSION_NONE}));
}

TEST_F(RPCPluginInstanceTest, WaitersSeeARejectionAndReadinessComeAndGo) {
    Start();
    EXPECT_FALSE(instance->WaitUntilReady(0));
    EXPECT_TRUE(log.Has(kLogInfo, "Not ready\n"));
    std::thread rejected([&] { EXPECT_EQ(instance->WaitUntilReadyOrRejected(kInfinite), 1); });
    service.FireConnection(kUp);
    service.FireChannel(kChannelDown);
    rejected.join();
    EXPECT_EQ(service.Count("OnServerInit"), 0u);
    EXPECT_TRUE(log.Has(kLogInfo, "Rejected\n"));
    service.FireConnection(kDown);  // takes the rejection back

    std::thread waiter([&] { EXPECT_EQ(instance->WaitUntilReadyOrRejected(kInfinite), 0); });
    std::thread other([&] { EXPECT_TRUE(instance->WaitUntilReady(kInfinite)); });
    service.BringUp();
    waiter.join();
    other.join();
    EXPECT_EQ(service.Count("OnServerInit"), 1u);
    EXPECT_TRUE(log.Has(kLogInfo, "Ready\n"));
    service.FireChannel(kChannelDown);
    EXPECT_FALSE(instance->WaitUntilReady(0));
    EXPECT_EQ(instance->WaitUntilReadyOrRejected(0), -1);
}

TEST_F(RPCPluginInstanceTest, TheReadyHookFindsTheInstanceReadyAndMayCallIt) {
    Start();
    instance->onHook = [&](const std::string& hook) {
        if (hook != "ready") return;
        void* message = nullptr;
        EXPECT_TRUE(instance->IsReady());
        EXPECT_TRUE(instance->CreateMessage(&message, RPCChannelType::Data));
        EXPECT_TRUE(instance->WaitUntilReady(0));
        service.FireChannel(kChannelDown);  // ends readiness inside the hook
    };
    service.BringUp();
    EXPECT_EQ(service.TakeHeard(), (Names{"ready", "not ready"}));
    EXPECT_FALSE(instance->IsReady());
}

TEST_F(RPCPluginInstanceTest, AHookMayDropTheLastReferenceAndTheHandleGoesWithIt) {
    Start();
    HookInstance* const raw = instance.Get();
    raw->onHook = [this](const std::string& hook) {
        if (hook == "ready") instance = nullptr;
    };
    service.BringUp();
    EXPECT_TRUE(log.Has(kLogInfo, Text("0x%p destroyed\n", service.context)));
    EXPECT_TRUE(log.Has(kLogInfo, Text("Handle 0x%p removed", service.context)));
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
        HookInstance& i = *instance;
        void* hObject = nullptr;
        uint32_t options = 0;
        char id[4];
        const bool answers[] = {i.RegisterChannelSink(nullptr),
                                i.UnregisterChannelSink(),
                                i.ChannelConnect(),
                                i.ChannelDisconnect(),
                                i.WaitUntilReady(0),
                                i.ChannelControlObjCreate("control"),
                                i.ChannelDataObjCreate("data"),
                                i.ChannelObjDestroy(nullptr, &hObject),
                                i.CreateMessage(&hObject, RPCChannelType::Data),
                                i.CreateExtMessage(&hObject, RPCChannelType::Data, 1),
                                i.GetChannelOptions(RPCChannelType::Data, &options),
                                i.DestroyMessage(nullptr),
                                i.InvokeMessage(nullptr, TRUE, RPCChannelType::Data),
                                i.WaitForPendingMessages(0),
                                i.GetMsgChannelInfo(nullptr, nullptr),
                                i.GetUniqueSerializedIdSize() != 0,
                                i.GetUniqueSerializedId(sizeof id, id) != FALSE,
                                i.IsUniqueSerializedIdOwner("text") != FALSE,
                                i.SwitchToStreamDataMode() != 0};
        EXPECT_EQ(std::count(std::begin(answers), std::end(answers), true), 0);
        EXPECT_EQ(i.WaitUntilReadyOrRejected(0), -2);
        EXPECT_EQ(log.Texts(kLogError).size(), std::size(answers) + 1);
        EXPECT_EQ(i.GetVariantInterface(), nullptr);
        EXPECT_EQ(i.GetChannelContextInterface(), nullptr);
    }
}

TEST_F(RPCPluginInstanceTest, TwoThreadsThatEndTheChannelEndItOnce) {
    Start();
    for (int round = 0; round < 50; ++round) {
        service.BringUp();
        service.TakeCalls();
        service.TakeHeard();
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
        ASSERT_EQ(service.TakeHeard(), Names{"not ready"});
    }
}

}  // namespace
