// Which service library a start accepts, and what it says of one that it doesn't.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "rpc/MsgChannelId.h"
#include "rpc/QscServicePath.h"
#include "rpc/SessionUtils.h"
#include "tests/rpc/StubService.h"
#include "tests/rpc/TableService.h"
#include "tests/rpc/TestManager.h"

namespace {

class LoadService : public testing::Test {
protected:
    ~LoadService() override { gServicePath.clear(); }
    LogCapture log{kLogInfo};
};

TEST_F(LoadService, PairsOfExportsHaveToMatch) {
    const std::string initFailed = "LoadQscService() failed.\n";
    struct Case {
        const char* library;
        int start;  // of kStarts below
        Texts errors;
    };
    const auto unmatched = [&](const char* name) {
        return Texts{std::string("qscService does not contain matching ") + name + " function\n", initFailed};
    };
    const Case cases[] = {
        {"stub_no_exit", 0, unmatched("ServerExit")},
        {"stub_no_exit2", 0, unmatched("ServerExit2")},
        {"stub_no_multi_exit", 0, unmatched("MultiServerExit")},
        {"stub_no_exit2", 2, unmatched("ServerExit2")},
        {"stub_all", 0, {"QSCService_ServerInit2() failed\n"}},
        {"stub_all", 1, {"QSCService_ServerInit() failed\n"}},
        {"stub_all", 2, {"QSCService_MultiServerInit() failed\n"}},
        {"stub_exits_only", 0, {"QSCService_ServerInit2() not available\n"}},
        {"stub_exits_only", 1, {"QSCService_ServerInit() not available\n"}},
        {"stub_exits_only", 2, {"QSCService_MultiServerInit() not available\n"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.library) + " start " + std::to_string(c.start));
        gServicePath = std::string(BUILD_FOLDER "/lib/tests/lib") + c.library + ".so";
        log.Clear();
        const RCPtr<TestManager> manager(new TestManager(RefCountOn));
        Texts heard;
        const RCPtr<RPCPluginInstance> instance(new TestInstance(manager.Get(), &heard));
        // Twice: a failure leaves the manager ready for another try.
        for (int time = 0; time < 2; ++time) {
            const bool started = c.start == 0 ? manager->ServerInit(instance.Get(), 0, true)
                                 : c.start == 1
                                     ? manager->ServerInitForSession(static_cast<DWORD>(-1), instance.Get(), 0)
                                     : manager->MultiServerInit(1);
            EXPECT_FALSE(started);
            EXPECT_EQ(log.Texts(kLogError), c.errors);
            const bool loads = time == 0 || c.errors.back() == initFailed;  // once for all, when it is good
            EXPECT_EQ(log.Count("Load qscservice from " + gServicePath + " \n"), loads ? 1u : 0u);
            log.Clear();
        }
    }
}

TEST_F(LoadService, APathWithoutALibraryIsNamed) {
    gServicePath = "/nowhere/libqscservice.so";
    const RCPtr<TestManager> manager(new TestManager(RefCountOn));
    EXPECT_FALSE(manager->MultiServerInit(1));
    const Texts errors = log.Texts(kLogError);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_TRUE(errors[0].starts_with("Failed to load \"/nowhere/libqscservice.so\": 0x")) << errors[0];
    EXPECT_EQ(errors[1], "LoadQscService() failed.\n");
    EXPECT_FALSE(manager->ServerInit(nullptr, 0, false));
    EXPECT_TRUE(log.Has(kLogError, "rpcPlugin == NULL\n"));
}

// What an instance answers while its manager has no server table, or one whose words refuse.
TEST_F(LoadService, WithoutTheServerTableMessageChannelsAndIdsAnswerNothing) {
    LogCapture all;
    const RCPtr<TestManager> manager(new TestManager(RefCountOn));
    Texts heard;
    const RCPtr<RPCPluginInstance> instance(new TestInstance(manager.Get(), &heard));
    all.Clear();
    EXPECT_EQ(instance->OpenMsgChannel("name"), nullptr);
    EXPECT_EQ(all.Texts(kLogError), Texts{}) << "a missing table is no error";
    EXPECT_FALSE(instance->CloseMsgChannel(manager.Get()));
    EXPECT_FALSE(instance->SendMsgChannel(manager.Get(), nullptr, nullptr, nullptr));
    EXPECT_FALSE(instance->IsMsgChannelOpened(manager.Get()));
    EXPECT_FALSE(instance->GetMsgChannelInfo(manager.Get(), nullptr));
    char buffer[8];
    EXPECT_EQ(instance->GetUniqueSerializedIdSize(), 0);
    EXPECT_EQ(instance->GetUniqueSerializedId(sizeof buffer, buffer), FALSE);
    EXPECT_EQ(instance->IsUniqueSerializedIdOwner("id"), FALSE);
    EXPECT_EQ(all.Texts(kLogWarn), (Texts{"GetUniqueSerializedIdSize API is not available.\n",
                                          "GetUniqueSerializedId API is not available.\n",
                                          "IsUniqueSerializedIdOwner API is not available.\n"}));
    EXPECT_EQ(instance->SwitchToStreamDataMode(), 0);
    EXPECT_EQ(all.Texts(kLogError), Texts{"Switch to StreamData mode failed!\n"});

    static QSCService_MsgChannelNotifySink sink;
    static void* context;
    static Bool opens;
    QSCService_ServerInterface table{};
    table.OpenMsgChannel = [](void* handle, QscServerID, const char*, const QSCService_MsgChannelNotifySink* given) {
        sink = *given;
        context = handle;
        return opens;
    };
    table.CloseMsgChannel = [](QscMsgChannelID) { return Bool{2}; };  // no success but 1
    table.GetMsgChannelInfo = [](QscServerID, QscMsgChannelID id, QSCService_MsgChannelInfo*) {
        return id == &sink ? TRUE : FALSE;
    };
    table.GetUniqueSerializedId = [](QscServerID, int, char*) { return FALSE; };
    manager->SetServerInterface(table);
    opens = FALSE;
    all.Clear();
    EXPECT_EQ(instance->OpenMsgChannel("name"), nullptr);
    EXPECT_EQ(all.Texts(kLogError), Texts{"OpenMsgChannel failed.\n"});
    EXPECT_EQ(sink.QscOnMsgChannelOpened(context, &sink), FALSE) << "the object is gone";

    opens = TRUE;
    void* const handle = instance->OpenMsgChannel("name");
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle, context);
    EXPECT_FALSE(instance->IsMsgChannelOpened(handle));
    EXPECT_FALSE(instance->GetMsgChannelInfo(handle, nullptr));
    EXPECT_TRUE(all.Has(kLogWarn, "Please wait for OnMsgChannelReady.\n"));
    EXPECT_EQ(sink.QscOnMsgChannelOpened(context, &sink), TRUE);
    EXPECT_TRUE(instance->IsMsgChannelOpened(handle));
    EXPECT_TRUE(instance->GetMsgChannelInfo(handle, nullptr)) << "asked under the service's id";
    EXPECT_FALSE(instance->GetMsgChannelInfo(&opens, nullptr)) << "passed on as it stands";
    EXPECT_EQ(instance->GetUniqueSerializedId(sizeof buffer, buffer), FALSE);
    EXPECT_TRUE(all.Has(kLogWarn, "Server 0x(nil) GetUniqueSerializedId with 8 bytes buffer failed\n"));
    EXPECT_FALSE(instance->CloseMsgChannel(handle));
    EXPECT_FALSE(instance->IsMsgChannelOpened(handle)) << "closed in any case";
    sink.QscOnMsgChannelPeerOpened(handle, nullptr, &sink, nullptr, nullptr);
}

TEST_F(LoadService, TwoClosesOfOneMessageChannelLetItGoOnce) {
    QSCService_ServerInterface table{};
    table.OpenMsgChannel = [](void*, QscServerID, const char*, const QSCService_MsgChannelNotifySink*) { return TRUE; };
    table.CloseMsgChannel = [](QscMsgChannelID) { return TRUE; };
    const RCPtr<TestManager> manager(new TestManager(RefCountOn));
    manager->SetServerInterface(table);
    Texts heard;
    const RCPtr<RPCPluginInstance> instance(new TestInstance(manager.Get(), &heard));
    for (int round = 0; round < 200; ++round) {
        void* const handle = instance->OpenMsgChannel("name");
        std::thread other([&] { instance->CloseMsgChannel(handle); });
        instance->CloseMsgChannel(handle);
        other.join();
        EXPECT_FALSE(MsgChannelId::FindByHandle(handle));
    }
}

TEST_F(LoadService, StreamDataModeRefusesWhatNeedsTheChannel) {
    TableService service;
    service.channel.SwitchToStreamData = [](const char* name, void*, int* fd) {
        EXPECT_STREQ(name, "dataTcp");
        *fd = 77;
        return TRUE;
    };
    TestManager manager;
    ASSERT_TRUE(manager.QSCPluginInit(service.Query()));
    Texts heard;
    const RCPtr<RPCPluginInstance> instance(new TestInstance(&manager, &heard));
    EXPECT_EQ(instance->SwitchToStreamDataMode(), 77);
    EXPECT_TRUE(log.Has(kLogInfo, "Switch to StreamData mode Succeeded fd=77!\n"));
    RPCPluginInstance& i = *instance;
    char name[] = "name";
    void* hObject = nullptr;
    const QSCRPC_ObjectNotifySink sink{};
    const std::pair<const char*, std::function<int()>> operations[] = {
        {"RegisterChannelSink", [&] { return i.RegisterChannelSink(nullptr); }},
        {"UnregisterChannelSink", [&] { return i.UnregisterChannelSink(); }},
        {"ChannelConnect", [&] { return i.ChannelConnect(); }},
        {"ChannelDisconnect", [&] { return i.ChannelDisconnect(); }},
        {"ChannelObjCreate", [&] { return i.ChannelObjCreate(name, &sink, false, false, &hObject); }},
        {"ChannelObjDestroy", [&] { return i.ChannelObjDestroy(name, &hObject); }},
        {"ChannelControlObjCreate", [&] { return i.ChannelControlObjCreate(name); }},
        {"ChannelDataObjCreate", [&] { return i.ChannelDataObjCreate(name); }},
        {"InvokeMessage", [&] { return i.InvokeMessage(nullptr, FALSE, RPCChannelType::Data); }},
        {"WaitUntilReady", [&] { return i.WaitUntilReady(0); }},
        {"WaitUntilReadyOrRejected", [&] { return i.WaitUntilReadyOrRejected(0); }},
        {"WaitForPendingMessages", [&] { return i.WaitForPendingMessages(0); }},
    };
    for (const auto& [operation, call] : operations) {
        log.Clear();
        EXPECT_EQ(call(), 0) << operation;
        EXPECT_EQ(log.Texts(kLogError), Texts{std::string(operation) + " is not supported in streamData mode\n"});
    }
    EXPECT_EQ(service.calls, Texts{}) << "the service hears of none of them";
    manager.QSCPluginExit();
}

TEST(UniqueSid, APairKeepsItsIdUntilItIsRemoved) {
    int places[2];
    const uint32_t first = SessionUtils::GetUniqueSid(1, &places[0]);
    EXPECT_NE(first, 0u);
    EXPECT_EQ(SessionUtils::GetUniqueSid(1, &places[0]), first);
    const uint32_t others[] = {SessionUtils::GetUniqueSid(2, &places[0]), SessionUtils::GetUniqueSid(1, &places[1])};
    EXPECT_NE(others[0], first);
    EXPECT_NE(others[1], first);
    EXPECT_NE(others[0], others[1]);
    uint32_t number = 0;
    void* pointer = nullptr;
    EXPECT_TRUE(SessionUtils::FindUniqueSid(others[1], &number, &pointer));
    EXPECT_EQ(number, 1u);
    EXPECT_EQ(pointer, &places[1]);
    for (const uint32_t sid : {first, others[0], others[1]}) {
        EXPECT_TRUE(SessionUtils::RemoveUniqueSid(sid));
        EXPECT_FALSE(SessionUtils::RemoveUniqueSid(sid));
        EXPECT_FALSE(SessionUtils::FindUniqueSid(sid, nullptr, nullptr));
    }
    const uint32_t again = SessionUtils::GetUniqueSid(1, &places[0]);
    EXPECT_NE(again, first);
    EXPECT_TRUE(SessionUtils::RemoveUniqueSid(again));
}

}  // namespace

// In place of the one of the programs.
const char* QscServicePath() {
    return gServicePath.c_str();
}
