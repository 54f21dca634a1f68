#include "standin/qscservice/ScriptedService.h"

#include <gtest/gtest.h>

#include <functional>
#include <thread>
#include <utility>

namespace {

using namespace qscservice;

using Texts = std::vector<std::string>;

// The smallest plug-in: it follows its peer's objects, or makes its own on a server, and writes down what it hears.
class Recorder {
public:
    Recorder(const ScriptedService& service, Role role) : m_role(role) {
        Fetch(service, 0x0B, &channel);
        Fetch(service, 0x12, &object);
        Fetch(service, 0x08, &context);
        Fetch(service, 0x00, &variant);
        EXPECT_EQ(channel.v1.RegisterChannelNotifySink(&kChannelSink, this, &m_cookie), TRUE);
    }

    ~Recorder() { Unregister(); }

    void Unregister() {
        if (m_cookie != 0) channel.v1.UnregisterChannelNotifySink(m_cookie);
        m_cookie = 0;
    }

    // The id of the message that went out, 0 if none did.
    uint32_t Send(const char* name, uint32_t command, uint32_t param, bool post = false) {
        void* hObject = Object(name);
        void* hContext = nullptr;
        if (object.CreateContext(hObject, &hContext) != TRUE) return 0;
        QSC_RPC_VARIANT value;
        variant.VariantFromUInt32(&value, param);
        context.SetCommand(hContext, command);
        context.AppendParam(hContext, &value);
        variant.VariantFromUInt32(&value, 1);
        if (post) context.SetOption(hContext, QSC_CONTEXT_OPTION_POST, &value);
        const uint32_t id = context.GetId(hContext);
        if (object.Invoke(hObject, hContext, &kContextSink, this) == TRUE) return id;
        EXPECT_EQ(object.DestroyContext(hContext), TRUE);
        return 0;
    }

    void*& Object(const std::string& name) { return m_objects[name == "data"]; }

    Texts TakeHeard() { return std::exchange(m_heard, {}); }

    QSCService_ChannelInterface channel = {};
    QSCRPC_ChannelObjectInterface object = {};
    QSCRPC_ChannelContextInterface context = {};
    QSCRPC_VariantInterface variant = {};
    std::function<void(void* hContext)> onInvoke;

private:
    template <class T>
    static void Fetch(const ScriptedService& service, uint8_t id, T* table) {
        const QSC_INTERFACE_ID whole = QSC_MakeInterfaceId(id);
        EXPECT_EQ(service.Query().QueryInterface(&whole, table), TRUE);
    }

    static Recorder& Of(void* context) { return *static_cast<Recorder*>(context); }

    void Hear(const std::string& text) { m_heard.push_back(text); }

    void Create(const char* name) {
        EXPECT_EQ(object.CreateChannelObject(name, name == std::string("data") ? &kDataSink : &kControlSink, this, 0x0D,
                                             &Object(name)),
                  TRUE);
    }

    void HearState(const char* name) {
        const QSCRPC_ObjectState state = object.GetObjectState(Object(name));
        Hear(std::string(name) + " " + std::to_string(state));
        if (m_role == Role::Server && state == QSC_OBJECT_CONNECTED && !Object("data")) Create("data");
    }

    static void OnConnection(void* self, QSCService_ConnectionState current, QSCService_ConnectionState transition,
                             void*) {
        Of(self).Hear("connection " + std::to_string(current) + " " + std::to_string(transition));
        if (current == QSC_CONNECTION_CONNECTED) Of(self).channel.v1.Connect();
    }

    static void OnChannel(void* self, QSCService_ChannelState current, QSCService_ChannelState transition, void*) {
        Recorder& of = Of(self);
        of.Hear("channel " + std::to_string(current) + " " + std::to_string(transition));
        if (transition == QSC_CHANNEL_CONNECTED && of.m_role == Role::Server) of.Create("control");
        if (transition != QSC_CHANNEL_DISCONNECTED) return;
        for (void*& hObject : of.m_objects) {
            if (hObject) of.object.DestroyChannelObject(std::exchange(hObject, nullptr));
        }
    }

    static void OnPeerObject(void* self, const char* name, void*) {
        Of(self).Hear(std::string("peer ") + name);
        Of(self).Create(name);
    }

    static void OnInvoke(void* self, void* hContext, void*) {
        Recorder& of = Of(self);
        of.Hear("invoke " + std::to_string(of.context.GetCommand(hContext)));
        if (of.onInvoke) of.onInvoke(hContext);
    }

    static void OnControlState(void* self, void*) { Of(self).HearState("control"); }
    static void OnDataState(void* self, void*) { Of(self).HearState("data"); }

    static void OnDone(void* self, uint32_t id, void* hContext) {
        Recorder& of = Of(self);
        of.Hear("done " + std::to_string(id) + " command " + std::to_string(of.context.GetCommand(hContext)));
        QSC_RPC_VARIANT value;
        for (int i = 0; of.context.GetReturnVal(hContext, i, &value) == TRUE; ++i) {
            of.Hear(value.vt == QSC_VT_LPSTR ? value.str : "number " + std::to_string(value.uint32Val));
        }
    }

    static void OnAbort(void* self, uint32_t id, Bool flag, uint32_t reason) {
        Of(self).Hear("abort " + std::to_string(id) + " " + std::to_string(flag) + " " + std::to_string(reason));
    }

    static constexpr QSCService_ChannelNotifySink kChannelSink = {1, OnConnection, OnChannel, OnPeerObject};
    static constexpr QSCRPC_ObjectNotifySink kControlSink = {1, OnInvoke, OnControlState};
    static constexpr QSCRPC_ObjectNotifySink kDataSink = {1, OnInvoke, OnDataState};
    static constexpr QSCRPC_ContextNotifySink kContextSink = {1, OnDone, OnAbort};

    const Role m_role;
    uint32_t m_cookie = 0;
    void* m_objects[2] = {};
    Texts m_heard;
};

const Texts kClientWay = {"connection 2 2", "channel 2 2", "peer control", "control 2", "peer data", "data 2"};
const Texts kServerWay = {"connection 2 2", "channel 2 2", "control 2", "data 2"};

TEST(ScriptedServiceTest, BringsEitherRoleAllTheWayUpAndDownAgain) {
    for (const Role role : {Role::Client, Role::Server}) {
        ScriptedService service(role, QSC_SESSION_STORM);
        EXPECT_FALSE(service.BringUp("control", "data"));
        Recorder recorder(service, role);
        for (int round = 0; round < 2; ++round) {
            ASSERT_TRUE(service.BringUp("control", "data"));
            EXPECT_EQ(recorder.TakeHeard(), role == Role::Client ? kClientWay : kServerWay);
            EXPECT_EQ(recorder.channel.v1.GetConnectionState(), QSC_CONNECTION_CONNECTED);
            EXPECT_EQ(recorder.channel.GetSessionType(), QSC_SESSION_STORM);
            EXPECT_NE(recorder.Send("data", 1, 1, true), 0u);
            service.BringDown();
            EXPECT_EQ(recorder.TakeHeard(), (Texts{"channel 0 0", "connection 0 0"}));
            EXPECT_EQ(recorder.channel.v1.GetConnectionState(), QSC_CONNECTION_DISCONNECTED);
            EXPECT_EQ(recorder.Send("data", 1, 1, true), 0u);
        }
        recorder.Unregister();
        EXPECT_FALSE(service.FireConnectionState(QSC_CONNECTION_CONNECTED));
    }
}

TEST(ScriptedServiceTest, FiresAnyValueAndAnswersWithTheKnownOnes) {
    ScriptedService service;
    Recorder recorder(service, Role::Client);
    ASSERT_TRUE(service.BringUp("control", "data"));
    recorder.TakeHeard();
    EXPECT_TRUE(service.FireConnectionState(QSC_CONNECTION_PENDING, QSC_CONNECTION_DISCONNECTED));
    EXPECT_EQ(recorder.channel.v1.GetConnectionState(), QSC_CONNECTION_PENDING);
    EXPECT_TRUE(service.FireConnectionState(static_cast<QSCService_ConnectionState>(9)));
    EXPECT_EQ(recorder.channel.v1.GetConnectionState(), QSC_CONNECTION_PENDING);
    service.SetConnectionState(QSC_CONNECTION_CONNECTED);
    EXPECT_EQ(recorder.channel.v1.GetConnectionState(), QSC_CONNECTION_CONNECTED);
    EXPECT_TRUE(service.FireChannelState(QSC_CHANNEL_CONNECTED, static_cast<QSCService_ChannelState>(7)));
    EXPECT_TRUE(service.FireObjectState("data", QSC_OBJECT_SIDE_CHANNEL_CONNECTED));
    service.SetObjectState("data", static_cast<QSCRPC_ObjectState>(77));
    EXPECT_TRUE(service.FireObjectState("data", static_cast<QSCRPC_ObjectState>(77)));
    EXPECT_FALSE(service.FireObjectState("other", QSC_OBJECT_CONNECTED));
    EXPECT_EQ(recorder.TakeHeard(), (Texts{"connection 1 0", "connection 9 9", "channel 2 7", "data 4", "data 77"}));

    service.SetObjectOptions("data", 0x50);
    uint32_t options = 0;
    EXPECT_EQ(recorder.object.GetObjectOptions(recorder.Object("data"), &options), TRUE);
    EXPECT_EQ(options, 0x50u);
    service.SetSessionType(QSC_SESSION_NONE);
    EXPECT_EQ(recorder.channel.GetSessionType(), QSC_SESSION_NONE);
}

TEST(ScriptedServiceTest, DeliversPostsAndRequestsAndBringsBackTheAnswer) {
    ScriptedService service;
    Recorder recorder(service, Role::Client);
    ASSERT_TRUE(service.BringUp("control", "data"));
    recorder.TakeHeard();
    const std::vector<uint8_t> bytes = {3, 0, 4};
    recorder.onInvoke = [&](void* hContext) {
        QSC_RPC_VARIANT value;
        EXPECT_EQ(recorder.context.GetParamCount(hContext), 2);
        EXPECT_EQ(recorder.context.GetParam(hContext, 0, &value), TRUE);
        EXPECT_STREQ(value.str, "text");
        EXPECT_EQ(recorder.context.GetParam(hContext, 1, &value), TRUE);
        EXPECT_EQ(std::vector<uint8_t>(static_cast<const uint8_t*>(value.blob.data),
                                       static_cast<const uint8_t*>(value.blob.data) + value.blob.size),
                  bytes);
        const uint32_t id = recorder.context.GetId(hContext);
        EXPECT_EQ(recorder.context.AppendReturnVal(hContext, &value), id == 0 ? FALSE : TRUE);
    };
    bool ok = false;
    EXPECT_TRUE(service.Deliver("control", 5, {Value("text"), Value(bytes)}, 0, &ok).returnValues.empty());
    EXPECT_TRUE(ok);
    const Message answer = service.Deliver("data", 6, {Value("text"), Value(bytes)}, 99, &ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(answer.returnValues, std::vector<Value>{Value(bytes)});
    recorder.onInvoke = {};
    EXPECT_TRUE(service.Deliver("data", 7, {}, 100, &ok).returnValues.empty());
    EXPECT_EQ(recorder.TakeHeard(), (Texts{"invoke 5", "invoke 6", "invoke 7"}));

    service.Deliver("other", 8, {}, 0, &ok);
    EXPECT_FALSE(ok);
    service.Deliver("data", 8, {Value(std::string_view("a\0b", 3))}, 0, &ok);
    EXPECT_FALSE(ok);
    EXPECT_TRUE(recorder.TakeHeard().empty());
    EXPECT_EQ(ScriptedService::LiveContexts(), 0u);
}

TEST(ScriptedServiceTest, ClosesEachRequestOnceByAnAnswerOrAnAbort) {
    ScriptedService service;
    Recorder recorder(service, Role::Client);
    ASSERT_TRUE(service.BringUp("control", "data"));
    recorder.TakeHeard();
    const uint32_t post = recorder.Send("control", 1, 10, true);
    const uint32_t answered = recorder.Send("data", 2, 20);
    const uint32_t renamed = recorder.Send("data", 3, 30);
    const uint32_t aborted = recorder.Send("data", 4, 40);
    service.Fail(Op::Invoke);
    EXPECT_EQ(recorder.Send("data", 5, 50), 0u);

    const std::vector<Message> sent = service.Sent();
    ASSERT_EQ(sent.size(), 4u);
    for (size_t i = 0; i < sent.size(); ++i) {
        EXPECT_EQ(sent[i].object, i == 0 ? "control" : "data");
        EXPECT_EQ(sent[i].command, i + 1);
        EXPECT_EQ(sent[i].params, std::vector<Value>{Value(static_cast<uint32_t>(10 * (i + 1)))});
        EXPECT_EQ(sent[i].post, i == 0);
    }
    EXPECT_EQ(sent[1].requestId, answered);
    EXPECT_EQ(ScriptedService::LiveContexts(), 3u);
    EXPECT_EQ(service.UnsentContexts(), 0u);
    service.ClearSent();
    EXPECT_TRUE(service.Sent().empty());

    EXPECT_FALSE(service.Complete(post, {}));
    EXPECT_FALSE(service.Complete(answered, {Value(std::string_view("a\0b", 3))}));
    EXPECT_TRUE(service.Complete(answered, {Value("text"), Value(7u)}));
    EXPECT_FALSE(service.Complete(answered, {}));
    EXPECT_TRUE(service.CompleteAs(renamed, 33, {}));
    EXPECT_TRUE(service.Abort(aborted, TRUE, 7));
    EXPECT_FALSE(service.Abort(aborted, TRUE, 7));
    EXPECT_FALSE(service.CompleteAs(aborted, 4, {}));
    const auto done = [](uint32_t id, int command) {
        return "done " + std::to_string(id) + " command " + std::to_string(command);
    };
    EXPECT_EQ(recorder.TakeHeard(), (Texts{done(answered, 2), "text", "number 7", done(renamed, 33),
                                           "abort " + std::to_string(aborted) + " 1 7"}));
    EXPECT_EQ(ScriptedService::LiveContexts(), 0u);
}

TEST(ScriptedServiceTest, NotesCallsWithTheirArgumentsAndBendsTheirSuccess) {
    ScriptedService service;
    Recorder recorder(service, Role::Client);
    service.ClearCalls();
    service.SucceedWith(Op::Connect, 2);
    service.SetConnectionState(QSC_CONNECTION_CONNECTED);
    EXPECT_EQ(recorder.channel.v1.Connect(), 2);
    service.Fail(Op::Connect);
    EXPECT_EQ(recorder.channel.v1.Connect(), FALSE);
    service.SucceedWith(Op::Connect, 1);
    EXPECT_EQ(recorder.channel.v1.Connect(), TRUE);
    EXPECT_EQ(recorder.object.RequestSideChannel(nullptr, 3, "name"), FALSE);
    EXPECT_EQ(service.Count(Op::Connect), 3u);
    const std::vector<Call> calls = service.Calls();
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[3].op, Op::RequestSideChannel);
    EXPECT_EQ(calls[3].args, (Texts{"null", "3", "name"}));
}

TEST(ScriptedServiceTest, RunsAnActionInTheNextPollOnThePollingThread) {
    ScriptedService service;
    Recorder recorder(service, Role::Client);
    std::thread::id ran;
    int runs = 0;
    for (const bool wait : {false, true}) {
        std::thread([&] {
            service.RunInNextPoll([&] {
                ran = std::this_thread::get_id();
                ++runs;
            });
        }).join();
        EXPECT_EQ(runs, wait ? 1 : 0);
        for (int i = 0; i < 2; ++i) {
            if (wait)
                recorder.channel.v3.Poll(1);
            else
                recorder.channel.v1.Poll();
        }
        EXPECT_EQ(runs, wait ? 2 : 1);
        EXPECT_EQ(ran, std::this_thread::get_id());
    }
}

TEST(ScriptedServiceTest, LeavesNothingBehindForTheNext) {
    {
        ScriptedService service;
        Recorder recorder(service, Role::Client);
        ASSERT_TRUE(service.BringUp("control", "data"));
        EXPECT_NE(recorder.Send("data", 1, 1), 0u);
        service.Fail(Op::QueryInterface);
        OfferTable(Table::Variant, {});
    }
    ScriptedService service;
    Recorder recorder(service, Role::Client);
    EXPECT_NE(recorder.variant.VariantInit, nullptr);
    EXPECT_TRUE(service.BringUp("control", "data"));
    EXPECT_EQ(ScriptedService::LiveContexts(), 0u);
}

}  // namespace
