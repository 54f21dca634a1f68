// The two objects of a channel: who creates them, with which flags, and the way of the data object to a side channel.
#include "rpc/RPCPluginInstance.h"
#include "tests/rpc/ChannelService.h"

namespace {

using RPCPluginObjectsTest = InstanceUnderTest;

// Role, type of the session, what the manager supports and wants, in words.
struct Situation {
    const char* words;
    bool Is(const char* word) const { return std::strstr(words, word) != nullptr; }
};

TEST_F(RPCPluginObjectsTest, AsksForTheFlagsThatRoleSessionAndWishesGive) {
    const std::pair<Situation, uint32_t> cases[] = {
        {{"client, surge"}, 0x0D},
        {{"client, storm, surge"}, 0x4D},
        {{"client, storm"}, 0x0D},
        {{"client, surge, wants tcp, wants virtual"}, 0x0D},
        {{"client, storm, surge, no 4, no 8"}, 0x41},
        {{"server, storm, surge"}, 0x35},
        {{"server, storm, surge, wants tcp"}, 0x2D},
        {{"server, surge, wants tcp, no 8"}, 0x25},
        {{"server, storm, surge, wants tcp, wants virtual"}, 0x2D},
        {{"server, surge, wants virtual"}, 0x15},
        {{"server, storm, surge, wants virtual"}, 0x5D},
        {{"server, storm, wants virtual"}, 0x15},
        {{"server, storm, surge, wants virtual, no 4, no 8"}, 0x51},
    };
    for (const auto& [situation, flags] : cases) {
        SCOPED_TRACE(situation.words);
        const QSC_SERVICE_QUERY_INTERFACE query = service.Query();
        ASSERT_TRUE(manager.Init(situation.Is("server"), &query));
        manager.m_surgeSupported = situation.Is("surge");
        service.sessionType = situation.Is("storm") ? QSC_SESSION_STORM : QSC_SESSION_PCOIP;
        const RCPtr<HookInstance> made(new HookInstance(&manager));
        made->suppress4 = situation.Is("no 4");
        made->suppress8 = situation.Is("no 8");
        ASSERT_TRUE(made->RegisterChannelSink(nullptr));
        char name[] = "object";
        void* hObject = nullptr;
        const QSCRPC_ObjectNotifySink sink{};
        EXPECT_TRUE(made->ChannelObjCreate(name, &sink, situation.Is("tcp"), situation.Is("virtual"), &hObject));
        EXPECT_EQ(hObject, service.Find("object"));
        EXPECT_EQ(service.Find("object")->flags, flags);
        EXPECT_TRUE(log.Has(kLogInfo, Text("Channel object \"object\" created with flags 0x%x\n", flags)));
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
        EXPECT_EQ(service.TakeHeard(), Names{"ready"});
    }
}

TEST_F(RPCPluginObjectsTest, FailuresOfTheServiceLeaveTheObjectsUsable) {
    Start();
    service.Fail("CreateObject");
    EXPECT_FALSE(instance->ChannelControlObjCreate("control"));
    service.FailNoMore();
    service.BringUp();
    service.Fail("DestroyObject");
    service.FireObject("data", QSC_OBJECT_DISCONNECTED);
    EXPECT_EQ(Errors(),
              (Names{"Failed to create channel object \"control\"\n", "Failed to destroy channel object \"data\"\n"}));
    service.FailNoMore();
    service.FirePeerObject("data");
    service.FireObject("data", QSC_OBJECT_CONNECTED);
    EXPECT_EQ(service.TakeHeard(), (Names{"ready", "not ready", "ready"}));
}

TEST_F(RPCPluginObjectsTest, NeedANameAndAPlaceAndAreDestroyedOnce) {
    Start();
    char name[] = "object";
    void* hObject = nullptr;
    const QSCRPC_ObjectNotifySink sink{};
    EXPECT_FALSE(instance->ChannelControlObjCreate(nullptr));
    EXPECT_FALSE(instance->ChannelDataObjCreate(""));
    EXPECT_FALSE(instance->ChannelObjCreate(name, &sink, false, false, nullptr));
    EXPECT_EQ(Errors(), Names{});
    EXPECT_FALSE(instance->ChannelObjDestroy(name, nullptr));
    EXPECT_EQ(Errors(), Names{"Null object handle in ChannelObjDestroy\n"});
    ASSERT_TRUE(instance->ChannelObjCreate(name, &sink, false, false, &hObject));
    for (int time = 0; time < 2; ++time) EXPECT_TRUE(instance->ChannelObjDestroy(name, &hObject));
    EXPECT_TRUE(instance->ChannelDataObjCreate(std::string(70, 'x').c_str()));
    EXPECT_EQ(service.TakeCalls(),
              (Names{"CreateObject object", "DestroyObject object", "CreateObject " + std::string(63, 'x')}));
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
            EXPECT_EQ(service.TakeHeard(), Names{});
            EXPECT_FALSE(instance->WaitUntilReady(0));
            service.FireObject(second, QSC_OBJECT_CONNECTED);
            service.FireObject(second, QSC_OBJECT_CONNECTED);
            EXPECT_EQ(service.TakeHeard(), Names{"ready"});
            EXPECT_TRUE(instance->IsReady());
            service.FireObject(firstToGo, QSC_OBJECT_DISCONNECTED);
            EXPECT_EQ(service.TakeHeard(), Names{"not ready"});
            EXPECT_FALSE(instance->WaitUntilReady(0));
            service.FireObject(firstToGo == "data" ? "control" : "data", QSC_OBJECT_DISCONNECTED);
            EXPECT_EQ(service.TakeHeard(), Names{});
        }
    }
}

TEST_F(RPCPluginObjectsTest, OtherStatesAreErrors) {
    Start();
    service.FirePeerObject("control");
    service.FirePeerObject("data");
    service.FireObject("control", QSC_OBJECT_SIDE_CHANNEL_CONNECTED);
    service.FireObject("data", QSC_OBJECT_PENDING_AND_PEER_OBJ_CREATED);
    const Names errors = {"State SIDE_CHANNEL_CONNECTED is not handled.\n",
                          "State PENDING_AND_PEER_OBJ_CREATED is not handled.\n"};
    EXPECT_EQ(Errors(), errors);
    EXPECT_NE(OwnerOf(errors[0], log).find("::OnChannelControlObjectStateChanged("), std::string::npos);
    EXPECT_NE(OwnerOf(errors[1], log).find("::OnChannelDataObjectStateChanged("), std::string::npos);
    EXPECT_EQ(service.TakeHeard(), Names{});
}

struct SideChannelCase : Situation {
    uint32_t options;     // the peer's offer
    int requested;        // type, or 0: connected at once
    bool byItself;        // decides without the offer
    const char* request;  // the INFO line
    const char* error;    // the line when another request is pending
};

const char kTcp[] = "Requesting TCP side channel.\n";
const char kOfferedTcp[] = "Requesting tcp side channel.\n";
const char kVirtual[] = "Requesting virtual side channel.\n";
const char kSurge[] = "Requesting SURGE side channel.\n";
const char kRaw[] = "Requesting Qvc Raw side channel.\n";
const char kFailed[] = "Side channel request failed.\n";
const char kTcpFailed[] = "TCP Side channel request failed.\n";
const char kVirtualFailed[] = "Virtual Side channel request failed.\n";

const SideChannelCase kSideChannelCases[] = {
    {{"client, surge"}, 0, 0, true, nullptr, nullptr},
    {{"client, surge"}, 0xF8F, 0, true, nullptr, nullptr},
    {{"client, storm, surge, wants tcp"}, 0x30, 0, false, nullptr, nullptr},
    {{"client, storm, surge, wants tcp"}, 0x70, 0, false, nullptr, nullptr},
    {{"client, storm, surge"}, 0x10, 1, false, kVirtual, kFailed},
    {{"client, storm, surge, raw"}, 0x50, 3, false, kSurge, kFailed},
    {{"client, surge, raw"}, 0x50, 1, false, kVirtual, kFailed},
    {{"client, surge"}, 0x20, 2, false, kOfferedTcp, kFailed},
    {{"client, storm, surge"}, 0x60, 2, false, kOfferedTcp, kFailed},
    {{"client, storm, surge"}, 0x40, 2, false, kOfferedTcp, kFailed},
    {{"client, surge, wants tcp, wants virtual"}, 0, 2, true, kTcp, kTcpFailed},
    {{"client, surge, wants virtual"}, 0, 1, true, kVirtual, kVirtualFailed},
    {{"server, wants tcp"}, 0x30, 0, false, nullptr, nullptr},
    {{"server"}, 0x10, 0, true, nullptr, nullptr},
    {{"server, wants tcp"}, 0x10, 2, true, kTcp, kTcpFailed},
    {{"server, storm, raw, wants virtual"}, 0x50, 4, true, kRaw, kVirtualFailed},
    {{"server, raw, wants virtual"}, 0x50, 1, true, kVirtual, kVirtualFailed},
    {{"client, storm, raw"}, 0x50, 1, false, kVirtual, kFailed},
    {{"server, storm, surge, raw, wants virtual"}, 0x50, 3, true, kSurge, kVirtualFailed},
};

class SideChannels : public InstanceUnderTest, public testing::WithParamInterface<SideChannelCase> {
protected:
    void StartWithControl(const SideChannelCase& c) {
        manager.m_tcpSideChannel = c.Is("tcp");
        manager.m_virtualSideChannel = c.Is("virtual");
        manager.m_qvcRawSupported = c.Is("raw");
        service.sessionType = c.Is("storm") ? QSC_SESSION_STORM : QSC_SESSION_PCOIP;
        service.options = c.options;
        const bool isServer = c.Is("server");
        Start(isServer);
        manager.m_surgeSupported = c.Is("surge");
        service.FireConnection(QSC_CONNECTION_CONNECTED);
        service.FireChannel(QSC_CHANNEL_CONNECTED);
        if (!isServer) service.FirePeerObject("control");
        service.FireObject("control", QSC_OBJECT_CONNECTED);
        if (!isServer) service.FirePeerObject("data");
        dataName = isServer && c.Is("tcp") ? "dataTcp" : "data";
        service.TakeCalls();
        log.Clear();
    }

    std::string dataName;
};

TEST_P(SideChannels, FollowOffersAndWishes) {
    const SideChannelCase& c = GetParam();
    StartWithControl(c);
    service.FireObject(dataName, QSC_OBJECT_CONNECTED);
    EXPECT_TRUE(log.Has(kLogDebug, Text("DataObj options = 0x%08x\n", c.options)));
    EXPECT_EQ(log.Has(kLogDebug, Text("Determine sc[0x%08x] type by itself.\n", c.options & 0x70)), c.byItself);
    if (c.requested == 0) {
        EXPECT_EQ(service.TakeCalls(), Names{"GetObjectOptions"});
        EXPECT_EQ(service.TakeHeard(), Names{"ready"});
        return;
    }
    EXPECT_EQ(service.TakeCalls(),
              (Names{"GetObjectOptions", "RequestSideChannel " + std::to_string(c.requested) + " Test"}));
    EXPECT_TRUE(log.Has(kLogInfo, c.request));
    service.FireObject(dataName, QSC_OBJECT_SIDE_CHANNEL_CONNECTED);
    const char notPending[] = "Side channel was not pending when connected was received.\n";
    EXPECT_EQ(log.Count(notPending), 1u);
    EXPECT_EQ(service.TakeHeard(), Names{});
    service.FireObject(dataName, QSC_OBJECT_SIDE_CHANNEL_PENDING);
    service.FireObject(dataName, QSC_OBJECT_SIDE_CHANNEL_CONNECTED);
    EXPECT_EQ(service.TakeHeard(), Names{"ready"});
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
    EXPECT_EQ(service.TakeHeard(), Names{"not ready"});
}

INSTANTIATE_TEST_SUITE_P(RPCPluginObjects, SideChannels, testing::ValuesIn(kSideChannelCases), [](const auto& info) {
    std::string name = info.param.words + Text("_%x", info.param.options);
    name.erase(std::remove(name.begin(), name.end(), ','), name.end());
    std::replace(name.begin(), name.end(), ' ', '_');
    return name;
});

TEST_F(RPCPluginObjectsTest, OwnWishesDecideWhenTheServiceDoesNotTellTheOptions) {
    for (const bool missing : {false, true}) {
        SCOPED_TRACE(missing);
        if (missing) service.object.GetObjectOptions = nullptr;
        Start();
        service.options = 0x20;
        service.Fail("GetObjectOptions");
        service.BringUp();
        EXPECT_EQ(log.Texts(kLogWarn), (missing ? Names{} : Names{"Obtain DataObj options failed \n"}));
        EXPECT_TRUE(log.Has(kLogDebug, "Determine sc[0x00000000] type by itself.\n"));
        EXPECT_EQ(service.TakeHeard(), Names{"ready"});
        service.FireChannel(QSC_CHANNEL_DISCONNECTED);
        service.TakeHeard();
    }
}

// The service writes the handle and may report the state on the spot.
TEST_F(RPCPluginObjectsTest, AnObjectMayConnectBeforeItsCreationReturns) {
    Start();
    service.During("CreateObject", [this] {
        for (const char* name : {"control", "data"}) {
            if (service.Find(name)) service.FireObject(name, QSC_OBJECT_CONNECTED);
        }
    });
    instance->onHook = [&](const std::string&) {
        void* message = nullptr;
        EXPECT_TRUE(instance->CreateMessage(&message, RPCChannelType::Data));
    };
    service.FirePeerObject("control");
    service.FirePeerObject("data");
    EXPECT_EQ(service.TakeHeard(), Names{"ready"});
}

}  // namespace
