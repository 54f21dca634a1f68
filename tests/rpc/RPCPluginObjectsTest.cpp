// The two objects of a channel: who creates them, with which flags, and the way of the data object to a side channel.
#include "rpc/RPCPluginInstance.h"
#include "tests/rpc/ChannelService.h"

namespace {

using Names = ChannelService::Names;

using RPCPluginObjectsTest = InstanceUnderTest;

struct FlagCase {
    const char* name;
    bool isServer, wantTcp, wantVirtual, storm, surge, suppress4, suppress8;
    uint32_t flags;
};

TEST_F(RPCPluginObjectsTest, AsksForTheFlagsThatRoleSessionAndWishesGive) {
    const FlagCase cases[] = {
        {"client", false, false, false, false, true, false, false, 0x0D},
        {"client, storm", false, false, false, true, true, false, false, 0x4D},
        {"client, storm without surge", false, false, false, true, false, false, false, 0x0D},
        {"client, wishes don't count", false, true, true, false, true, false, false, 0x0D},
        {"client, suppressed", false, false, false, true, true, true, true, 0x41},
        {"server", true, false, false, true, true, false, false, 0x35},
        {"server, tcp", true, true, false, true, true, false, false, 0x2D},
        {"server, tcp, 8 suppressed", true, true, false, false, true, false, true, 0x25},
        {"server, both", true, true, true, true, true, false, false, 0x2D},
        {"server, virtual", true, false, true, false, true, false, false, 0x15},
        {"server, virtual, storm", true, false, true, true, true, false, false, 0x5D},
        {"server, virtual, storm without surge", true, false, true, true, false, false, false, 0x15},
        {"server, virtual, storm, suppressed", true, false, true, true, true, true, true, 0x51},
    };
    for (const FlagCase& c : cases) {
        SCOPED_TRACE(c.name);
        const QSC_SERVICE_QUERY_INTERFACE query = service.Query();
        ASSERT_TRUE(manager.Init(c.isServer, &query));
        manager.m_surgeSupported = c.surge;
        service.sessionType = c.storm ? QSC_SESSION_STORM : QSC_SESSION_PCOIP;
        const RCPtr<HookInstance> made(new HookInstance(&manager));
        made->suppress4 = c.suppress4;
        made->suppress8 = c.suppress8;
        ASSERT_TRUE(made->RegisterChannelSink(nullptr));
        char name[] = "object";
        void* hObject = nullptr;
        const QSCRPC_ObjectNotifySink sink{};
        EXPECT_TRUE(made->ChannelObjCreate(name, &sink, c.wantTcp, c.wantVirtual, &hObject));
        EXPECT_EQ(hObject, service.Find("object"));
        EXPECT_EQ(service.Find("object")->flags, c.flags);
        char line[80];
        std::snprintf(line, sizeof line, "Channel object \"object\" created with flags 0x%x\n", c.flags);
        EXPECT_TRUE(log.Has(kLogInfo, line));
    }
}

TEST_F(RPCPluginObjectsTest, AClientCreatesWhatThePeerHasCreated) {
    Start();
    service.FireChannel(QSC_CHANNEL_CONNECTED);
    EXPECT_EQ(service.TakeCalls(), Names{});
    for (const char* name : {"contro", "control2", "Data", ""}) service.FirePeerObject(name);
    EXPECT_EQ(service.TakeCalls(), Names{});
    service.FirePeerObject("control");
    service.FirePeerObject("dataTcp");
    EXPECT_EQ(service.TakeCalls(), (Names{"CreateObject control", "CreateObject dataTcp"}));
    EXPECT_TRUE(log.Has(kLogDebug, "Creating control object: control\n"));
    EXPECT_TRUE(log.Has(kLogInfo, "Creating data object: dataTcp\n"));
    service.FirePeerObject("data");
    EXPECT_EQ(service.TakeCalls(), Names{});
    EXPECT_EQ(Errors(), Names{"Channel object \"data\" already created\n"});
}

TEST_F(RPCPluginObjectsTest, AServerCreatesOneObjectAfterTheOther) {
    for (const bool tcp : {false, true}) {
        SCOPED_TRACE(tcp);
        instance = new HookInstance(&manager);
        manager.m_tcpSideChannel = tcp;
        Start(true);
        service.FirePeerObject("control");
        service.FireChannel(QSC_CHANNEL_PENDING, QSC_CHANNEL_CONNECTED);
        EXPECT_EQ(service.TakeCalls(), Names{});
        service.FireChannel(QSC_CHANNEL_CONNECTED);
        EXPECT_EQ(service.TakeCalls(), Names{"CreateObject control"});
        EXPECT_TRUE(log.Has(kLogInfo, "Channel connect, creating channel objects.\n"));
        service.FireObject("control", QSC_OBJECT_CONNECTED);
        EXPECT_EQ(service.TakeCalls(), Names{tcp ? "CreateObject dataTcp" : "CreateObject data"});
        service.options = 0x30;
        service.FireObject(tcp ? "dataTcp" : "data", QSC_OBJECT_CONNECTED);
        EXPECT_EQ(instance->TakeHeard(), Names{"ready"});
    }
}

TEST_F(RPCPluginObjectsTest, NamesAreCutAndNothingIsCreatedWithoutOne) {
    Start();
    EXPECT_FALSE(instance->ChannelControlObjCreate(nullptr));
    EXPECT_FALSE(instance->ChannelDataObjCreate(""));
    char name[] = "object";
    EXPECT_FALSE(instance->ChannelObjCreate(name, nullptr, false, false, nullptr));
    EXPECT_EQ(Errors(), Names{});
    EXPECT_TRUE(instance->ChannelDataObjCreate(std::string(70, 'x').c_str()));
    EXPECT_EQ(service.TakeCalls(), Names{"CreateObject " + std::string(63, 'x')});
}

TEST_F(RPCPluginObjectsTest, FailuresOfTheServiceLeaveTheObjectsUsable) {
    Start();
    service.Fail("CreateObject");
    EXPECT_FALSE(instance->ChannelControlObjCreate("control"));
    EXPECT_EQ(Errors(), Names{"Failed to create channel object \"control\"\n"});
    service.FailNoMore();
    service.BringUp();
    ASSERT_EQ(instance->TakeHeard(), Names{"ready"});

    log.Clear();
    service.Fail("DestroyObject");
    service.FireObject("data", QSC_OBJECT_DISCONNECTED);
    EXPECT_EQ(Errors(), Names{"Failed to destroy channel object \"data\"\n"});
    EXPECT_EQ(instance->TakeHeard(), Names{"not ready"});
    service.FailNoMore();
    service.FirePeerObject("data");
    service.FireObject("data", QSC_OBJECT_CONNECTED);
    EXPECT_EQ(instance->TakeHeard(), Names{"ready"});
}

TEST_F(RPCPluginObjectsTest, DestroysOnceAndRefusesNoPlace) {
    Start();
    char name[] = "object";
    void* hObject = nullptr;
    const QSCRPC_ObjectNotifySink sink{};
    EXPECT_FALSE(instance->ChannelObjDestroy(name, nullptr));
    EXPECT_EQ(Errors(), Names{"Null object handle in ChannelObjDestroy\n"});
    EXPECT_TRUE(instance->ChannelObjDestroy(name, &hObject));
    ASSERT_TRUE(instance->ChannelObjCreate(name, &sink, false, false, &hObject));
    EXPECT_TRUE(instance->ChannelObjDestroy(name, &hObject));
    EXPECT_EQ(hObject, nullptr);
    EXPECT_EQ(service.TakeCalls(), (Names{"CreateObject object", "DestroyObject object"}));
    EXPECT_TRUE(log.Has(kLogInfo, "Channel object \"object\" destroyed\n"));
}

TEST_F(RPCPluginObjectsTest, ReadyWithTheSecondObjectWhicheverItIsAndNotReadyWithTheFirstToGo) {
    Start();
    const std::string names[] = {"control", "data"};
    for (const std::string& first : names) {
        for (const std::string& firstToGo : names) {
            SCOPED_TRACE(first + " comes first, " + firstToGo + " goes first");
            const std::string second = first == "data" ? "control" : "data";
            service.FirePeerObject("control");
            service.FirePeerObject("data");
            service.FireObject(first, QSC_OBJECT_CONNECTED);
            service.FireObject(first, QSC_OBJECT_CONNECTED);
            EXPECT_EQ(instance->TakeHeard(), Names{});
            EXPECT_FALSE(instance->WaitUntilReady(0));
            service.FireObject(second, QSC_OBJECT_CONNECTED);
            service.FireObject(second, QSC_OBJECT_CONNECTED);
            EXPECT_EQ(instance->TakeHeard(), Names{"ready"});
            EXPECT_TRUE(instance->IsReady());
            service.FireObject(firstToGo, QSC_OBJECT_DISCONNECTED);
            EXPECT_EQ(instance->TakeHeard(), Names{"not ready"});
            EXPECT_FALSE(instance->WaitUntilReady(0));
            service.FireObject(firstToGo == "data" ? "control" : "data", QSC_OBJECT_DISCONNECTED);
            EXPECT_EQ(instance->TakeHeard(), Names{});
        }
    }
}

TEST_F(RPCPluginObjectsTest, OtherStatesAreErrors) {
    Start();
    service.FirePeerObject("control");
    service.FirePeerObject("data");
    service.FireObject("control", QSC_OBJECT_PENDING);
    service.FireObject("control", QSC_OBJECT_SIDE_CHANNEL_CONNECTED);
    service.FireObject("data", QSC_OBJECT_PENDING);
    service.FireObject("data", QSC_OBJECT_PENDING_AND_PEER_OBJ_CREATED);
    service.FireObject("data", static_cast<QSCRPC_ObjectState>(9));
    EXPECT_EQ(Errors(),
              (Names{"State PENDING is not handled.\n", "State SIDE_CHANNEL_CONNECTED is not handled.\n",
                     "State PENDING is not handled.\n", "State PENDING_AND_PEER_OBJ_CREATED is not handled.\n",
                     "State unknown[9] is not handled.\n"}));
    EXPECT_EQ(instance->TakeHeard(), Names{});
}

struct SideChannelCase {
    const char* name;
    bool isServer;
    uint32_t options;
    bool storm, wantTcp, wantVirtual, surge, raw;
    int requested;         // type, or 0: connected at once
    const char* selfLine;  // the DEBUG line of a decision without the peer's offer, if any
    const char* request;   // the INFO line
    const char* error;     // the line when another request is pending
};

const char kTcp[] = "Requesting TCP side channel.\n";
const char kOfferedTcp[] = "Requesting tcp side channel.\n";
const char kVirtual[] = "Requesting virtual side channel.\n";
const char kSurge[] = "Requesting SURGE side channel.\n";
const char kRaw[] = "Requesting Qvc Raw side channel.\n";
const char kFailed[] = "Side channel request failed.\n";
const char kTcpFailed[] = "TCP Side channel request failed.\n";
const char kVirtualFailed[] = "Virtual Side channel request failed.\n";
const char kSelf0[] = "Determine sc[0x00000000] type by itself.\n";
const char kSelf10[] = "Determine sc[0x00000010] type by itself.\n";
const char kSelf50[] = "Determine sc[0x00000050] type by itself.\n";

const SideChannelCase kSideChannelCases[] = {
    {"client, no offer", false, 0, false, false, false, true, false, 0, kSelf0, nullptr, nullptr},
    {"client, other bits", false, 0xF8F, false, false, false, true, false, 0, kSelf0, nullptr, nullptr},
    {"client, both", false, 0x30, true, true, false, true, false, 0, nullptr, nullptr, nullptr},
    {"client, all", false, 0x70, true, true, false, true, false, 0, nullptr, nullptr, nullptr},
    {"client, virtual", false, 0x10, true, false, false, true, false, 1, nullptr, kVirtual, kFailed},
    {"client, virtual and surge in storm", false, 0x50, true, false, false, true, true, 3, nullptr, kSurge, kFailed},
    {"client, virtual and surge in pcoip", false, 0x50, false, false, false, true, true, 1, nullptr, kVirtual, kFailed},
    {"client, tcp", false, 0x20, false, false, false, true, false, 2, nullptr, kOfferedTcp, kFailed},
    {"client, tcp and surge", false, 0x60, true, false, false, true, false, 2, nullptr, kOfferedTcp, kFailed},
    {"client, surge alone", false, 0x40, true, false, false, true, false, 2, nullptr, kOfferedTcp, kFailed},
    {"client, no offer, wants tcp", false, 0, false, true, true, true, false, 2, kSelf0, kTcp, kTcpFailed},
    {"client, no offer, wants virtual", false, 0, false, false, true, true, false, 1, kSelf0, kVirtual, kVirtualFailed},
    {"server, both", true, 0x30, false, true, false, false, false, 0, nullptr, nullptr, nullptr},
    {"server, virtual", true, 0x10, false, false, false, false, false, 0, kSelf10, nullptr, nullptr},
    {"server, virtual, wants tcp", true, 0x10, false, true, false, false, false, 2, kSelf10, kTcp, kTcpFailed},
    {"server, wants virtual, raw in storm", true, 0x50, true, false, true, false, true, 4, kSelf50, kRaw,
     kVirtualFailed},
    {"server, wants virtual, raw in pcoip", true, 0x50, false, false, true, false, true, 1, kSelf50, kVirtual,
     kVirtualFailed},
    {"client, surge in storm without support", false, 0x50, true, false, false, false, true, 1, nullptr, kVirtual,
     kFailed},
    {"server, wants virtual, surge in storm", true, 0x50, true, false, true, true, true, 3, kSelf50, kSurge,
     kVirtualFailed},
};

class SideChannels : public InstanceUnderTest, public testing::WithParamInterface<SideChannelCase> {
protected:
    void StartWithControl(const SideChannelCase& c) {
        manager.m_tcpSideChannel = c.wantTcp;
        manager.m_virtualSideChannel = c.wantVirtual;
        manager.m_qvcRawSupported = c.raw;
        service.sessionType = c.storm ? QSC_SESSION_STORM : QSC_SESSION_PCOIP;
        service.options = c.options;
        Start(c.isServer);
        manager.m_surgeSupported = c.surge;
        service.FireConnection(QSC_CONNECTION_CONNECTED);
        service.FireChannel(QSC_CHANNEL_CONNECTED);
        if (!c.isServer) service.FirePeerObject("control");
        service.FireObject("control", QSC_OBJECT_CONNECTED);
        if (!c.isServer) service.FirePeerObject("data");
        dataName = c.isServer && c.wantTcp ? "dataTcp" : "data";
        service.TakeCalls();
        log.Clear();
    }

    std::string dataName;
};

TEST_P(SideChannels, FollowOffersAndWishes) {
    const SideChannelCase& c = GetParam();
    StartWithControl(c);
    service.FireObject(dataName, QSC_OBJECT_CONNECTED);
    char options[40];
    std::snprintf(options, sizeof options, "DataObj options = 0x%08x\n", c.options);
    EXPECT_TRUE(log.Has(kLogDebug, options));
    EXPECT_EQ(log.Has(kLogDebug, c.selfLine ? c.selfLine : kSelf0), c.selfLine != nullptr);
    if (c.requested == 0) {
        EXPECT_EQ(service.TakeCalls(), Names{"GetObjectOptions"});
        EXPECT_EQ(instance->TakeHeard(), Names{"ready"});
        return;
    }
    EXPECT_EQ(service.TakeCalls(),
              (Names{"GetObjectOptions", "RequestSideChannel " + std::to_string(c.requested) + " Test"}));
    EXPECT_TRUE(log.Has(kLogInfo, c.request));
    EXPECT_EQ(instance->TakeHeard(), Names{});

    service.FireObject(dataName, QSC_OBJECT_SIDE_CHANNEL_CONNECTED);
    const char notPending[] = "Side channel was not pending when connected was received.\n";
    EXPECT_EQ(log.Count(notPending), 1u);
    EXPECT_EQ(instance->TakeHeard(), Names{});
    service.FireObject(dataName, QSC_OBJECT_SIDE_CHANNEL_PENDING);
    service.FireObject(dataName, QSC_OBJECT_SIDE_CHANNEL_CONNECTED);
    EXPECT_EQ(instance->TakeHeard(), Names{"ready"});
    EXPECT_EQ(log.Count(notPending), 1u);
    service.FireObject(dataName, QSC_OBJECT_SIDE_CHANNEL_CONNECTED);
    EXPECT_EQ(log.Count(notPending), 2u);
    EXPECT_EQ(Errors(), Names{});

    // A request that stays pending outlives the object.
    service.FireObject(dataName, QSC_OBJECT_SIDE_CHANNEL_PENDING);
    service.FireObject(dataName, QSC_OBJECT_DISCONNECTED);
    ASSERT_TRUE(instance->ChannelDataObjCreate(dataName.c_str()));
    service.TakeCalls();
    service.FireObject(dataName, QSC_OBJECT_CONNECTED);
    EXPECT_EQ(service.TakeCalls(), Names{"GetObjectOptions"});
    EXPECT_EQ(Errors(), Names{c.error});
    EXPECT_EQ(instance->TakeHeard(), Names{"not ready"});
}

INSTANTIATE_TEST_SUITE_P(RPCPluginObjects, SideChannels, testing::ValuesIn(kSideChannelCases), [](const auto& info) {
    std::string name = info.param.name;
    name.erase(std::remove_if(name.begin(), name.end(), [](unsigned char c) { return !std::isalnum(c); }), name.end());
    return name;
});

TEST_F(RPCPluginObjectsTest, OwnWishesDecideWhenTheServiceDoesNotTellTheOptions) {
    Start();
    service.options = 0x20;
    service.Fail("GetObjectOptions");
    service.BringUp();
    EXPECT_EQ(log.Texts(kLogWarn), Names{"Obtain DataObj options failed \n"});
    EXPECT_TRUE(log.Has(kLogDebug, kSelf0));
    EXPECT_EQ(instance->TakeHeard(), Names{"ready"});
}

TEST_F(RPCPluginObjectsTest, AnOldServiceHasNoOptions) {
    service.object.GetObjectOptions = nullptr;
    Start();
    service.BringUp();
    EXPECT_EQ(log.Texts(kLogWarn), Names{});
    EXPECT_TRUE(log.Has(kLogDebug, kSelf0));
    EXPECT_EQ(instance->TakeHeard(), Names{"ready"});
}

// The service writes the handle and may report the state on the spot.
TEST_F(RPCPluginObjectsTest, AnObjectMayConnectBeforeItsCreationReturns) {
    Start();
    service.During("CreateObject", [this] {
        for (const char* name : {"control", "data"}) {
            if (service.Find(name)) service.FireObject(name, QSC_OBJECT_CONNECTED);
        }
    });
    bool created = false;
    instance->onHook = [&](const std::string& hook) {
        void* message = nullptr;
        if (hook == "ready") created = instance->CreateMessage(&message, RPCChannelType::Data);
    };
    service.FirePeerObject("control");
    service.FirePeerObject("data");
    EXPECT_EQ(instance->TakeHeard(), Names{"ready"});
    EXPECT_TRUE(created);
}

TEST_F(RPCPluginObjectsTest, LinesCarryTheSignatureOfTheCallback) {
    Start();
    service.FirePeerObject("data");
    service.FireObject("data", QSC_OBJECT_PENDING);
    service.FireChannel(QSC_CHANNEL_PENDING);
    Names functions;
    for (const LogCapture::Line& line : log.Lines()) {
        if (line.level == kLogError) functions.push_back(line.function);
    }
    ASSERT_EQ(functions.size(), 2u);
    EXPECT_NE(functions[0].find("RPCManager::OnChannelDataObjectStateChanged("), std::string::npos);
    EXPECT_NE(functions[1].find("RPCManager::OnChannelStateChanged("), std::string::npos);
}

}  // namespace
