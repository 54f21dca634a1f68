// The service as one channel of tables under a test's control, with a manager and an instance that note their hooks in
// it. Each word of the tables notes its call, runs what the test has hung in it, and succeeds unless it is told to
// fail. The test fires the callbacks. One at a time; safe on any thread.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "rpc/RPCManager.h"
#include "rpc/RPCPluginInstance.h"
#include "tests/support/LogCapture.h"

inline std::string Text(const char* format, auto... values) {
    char text[256];
    std::snprintf(text, sizeof text, format, values...);
    return text;
}

class ChannelService {
public:
    using Names = std::vector<std::string>;

    ChannelService() {
        current = this;
        channel.v1.Poll = [] { current->Poll(); };
        channel.v1.RegisterChannelNotifySink = [](const QSCService_ChannelNotifySink* sink, void* context,
                                                  uint32_t* cookie) {
            EXPECT_EQ(sink->version, 1u);
            current->channelSink = sink;
            current->context = context;
            *cookie = kCookie;
            return current->Call("Register");
        };
        channel.v1.UnregisterChannelNotifySink = [](uint32_t cookie) {
            EXPECT_EQ(cookie, kCookie);
            return current->Call("Unregister");
        };
        channel.v1.Connect = [] { return current->Call("Connect"); };
        channel.v1.Disconnect = [] { return current->Call("Disconnect"); };
        channel.v1.GetConnectionState = [] { return current->connection.load(); };
        channel.GetSessionType = [] { return current->sessionType.load(); };
        channel.v3.Poll = [](uint32_t ms) {
            current->pollSlices.push_back(ms);
            current->Poll();
        };
        object.CreateChannelObject = [](const char* name, const QSCRPC_ObjectNotifySink* sink, void* sinkContext,
                                        uint32_t flags, void** hObject) {
            EXPECT_EQ(sinkContext, current->context);
            if (current->Fails("CreateObject")) return FALSE;
            Object& made = current->objects[current->objects.size()];
            made.name = name;
            made.sink = sink;
            made.flags = flags;
            *hObject = &made;
            return current->Call("CreateObject", std::string(" ") + name);
        };
        object.DestroyChannelObject = [](void* hObject) {
            return current->Call("DestroyObject", " " + static_cast<Object*>(hObject)->name);
        };
        object.GetObjectState = [](void* hObject) {
            return hObject ? static_cast<Object*>(hObject)->state.load() : QSC_OBJECT_UNINITIALIZED;
        };
        object.CreateContext = [](void* hObject, void** hContext) {
            EXPECT_NE(hObject, nullptr);
            *hContext = hObject;
            return current->Call("CreateContext");
        };
        object.DestroyContext = [](void*) { return current->Call("DestroyContext"); };
        object.Invoke = [](void* hObject, void* hContext, const QSCRPC_ContextNotifySink* sink, void* sinkContext) {
            EXPECT_EQ(sinkContext, current->context);
            EXPECT_EQ(sink->version, 1u);
            {
                std::lock_guard guard(current->lock);
                current->contextSink = *sink;
                current->invokedOn = hObject;
                current->invokedContext = hContext;
            }
            return current->Call("Invoke");
        };
        object.RequestSideChannel = [](void*, uint32_t type, const char* name) {
            return current->Call("RequestSideChannel", " " + std::to_string(type) + " " + name);
        };
        object.GetObjectOptions = [](void*, uint32_t* options) {
            *options = current->options;
            return current->Call("GetObjectOptions");
        };
        object.CreateContextEx = [](void* hObject, uint32_t options, void** hContext) {
            *hContext = hObject;
            return current->Call("CreateContextEx", " " + std::to_string(options));
        };
        contexts.GetId = [](void*) {
            std::lock_guard guard(current->lock);
            return ++current->latestId;
        };
        contexts.SetOption = [](void*, uint32_t option, const QSC_RPC_VARIANT* value) {
            return current->Call("SetOption", " " + std::to_string(option) + " " + std::to_string(value->uint32Val));
        };
        variant.VariantInit = [](QSC_RPC_VARIANT* value) {
            *value = {};
            return current->Call("VariantInit");
        };
        variant.VariantClear = [](QSC_RPC_VARIANT*) { return current->Call("VariantClear"); };
        variant.VariantFromUInt32 = [](QSC_RPC_VARIANT* value, uint32_t number) {
            value->vt = QSC_VT_UI4;
            value->uint32Val = number;
            return current->Call("VariantFromUInt32");
        };
    }
    ~ChannelService() { current = nullptr; }
    ChannelService(const ChannelService&) = delete;
    ChannelService& operator=(const ChannelService&) = delete;

    QSC_SERVICE_QUERY_INTERFACE Query() const { return {0, QueryInterface}; }

    void Fail(const std::string& name) {
        std::lock_guard guard(lock);
        failing.insert(name);
    }
    void FailNoMore() {
        std::lock_guard guard(lock);
        failing.clear();
    }

    // Runs inside the word, on the caller's thread.
    void During(const std::string& name, std::function<void()> action) {
        std::lock_guard guard(lock);
        actions[name] = std::move(action);
    }

    // What was called, by its name and the arguments that count, with the hooks of the manager in between.
    Names TakeCalls() {
        std::lock_guard guard(lock);
        return std::exchange(calls, {});
    }
    // The hooks of the instances.
    Names TakeHeard() {
        std::lock_guard guard(lock);
        return std::exchange(heard, {});
    }
    static void Note(const std::string& call) { Add(&ChannelService::calls, call); }
    static void Hear(const std::string& hook) { Add(&ChannelService::heard, hook); }

    Bool Call(const std::string& name, const std::string& arguments = {}) {
        Note(name + arguments);
        std::function<void()> action;
        {
            std::lock_guard guard(lock);
            if (const auto found = actions.find(name); found != actions.end()) action = found->second;
        }
        if (action) action();
        return Fails(name) ? FALSE : TRUE;
    }
    size_t Count(const std::string& call) const {
        std::lock_guard guard(lock);
        return static_cast<size_t>(std::count(calls.begin(), calls.end(), call));
    }

    void FireConnection(QSCService_ConnectionState now, QSCService_ConnectionState transition) {
        channelSink->OnConnectionStateChanged(context, now, transition, nullptr);
    }
    void FireConnection(QSCService_ConnectionState state) { FireConnection(state, state); }
    void FireChannel(QSCService_ChannelState now, QSCService_ChannelState transition) {
        channelSink->OnChannelStateChanged(context, now, transition, nullptr);
    }
    void FireChannel(QSCService_ChannelState state) { FireChannel(state, state); }
    void FirePeerObject(const char* name) { channelSink->OnPeerChannelObjectCreated(context, name, nullptr); }

    // What the latest Invoke was given.
    QSCRPC_ContextNotifySink ContextSink() const {
        std::lock_guard guard(lock);
        return contextSink;
    }

    // On the latest object of that name.
    void FireObject(const std::string& name, QSCRPC_ObjectState state) {
        Object* object = Find(name);
        ASSERT_NE(object, nullptr) << name;
        EXPECT_EQ(object->sink->version, 1u);
        object->state = state;
        object->sink->OnObjectStateChanged(context, nullptr);
    }

    // Connection, channel, both objects, on a client.
    void BringUp() {
        FireConnection(QSC_CONNECTION_CONNECTED);
        FireChannel(QSC_CHANNEL_CONNECTED);
        for (const char* name : {"control", "data"}) {
            FirePeerObject(name);
            FireObject(name, QSC_OBJECT_CONNECTED);
        }
    }

    struct Object {
        std::string name;
        const QSCRPC_ObjectNotifySink* sink;
        uint32_t flags;
        std::atomic<QSCRPC_ObjectState> state{QSC_OBJECT_PENDING};
    };
    Object* Find(const std::string& name) {
        Object* found = nullptr;
        for (auto& [number, object] : objects) {
            if (object.name == name) found = &object;
        }
        return found;
    }

    // The tables as the next init finds them.
    QSCService_ChannelInterface channel{};
    QSCRPC_ChannelObjectInterface object{};
    QSCRPC_ChannelContextInterface contexts{};
    QSCRPC_VariantInterface variant{};

    // The versions that it has and was asked for, in hexadecimal, and how many words each fills if not all.
    std::string offered = "0B 12 08 00 0E 19", asked;
    std::map<int, size_t> words{{0x06, 10}, {0x10, 12}, {0x0A, 11}, {0x02, 10}};

    std::atomic<QSCService_ConnectionState> connection{QSC_CONNECTION_DISCONNECTED};
    std::atomic<QSCService_SessionType> sessionType{QSC_SESSION_PCOIP};
    uint32_t options = 0;

    const QSCService_ChannelNotifySink* channelSink = nullptr;
    void* context = nullptr;
    void* invokedOn = nullptr;
    void* invokedContext = nullptr;
    uint32_t latestId = 0;

    int polls = 0;
    std::function<void()> onPoll;  // runs inside each poll
    std::vector<uint32_t> pollSlices;

private:
    static constexpr uint32_t kCookie = 9;

    static Bool QueryInterface(const QSC_INTERFACE_ID* id, void* table) {
        const uint8_t version = id->bytes[4];
        const QSC_INTERFACE_ID expected = QSC_MakeInterfaceId(version);
        EXPECT_EQ(std::memcmp(id, &expected, 16), 0);
        const std::string text = Text("%02X", version);
        current->asked += (current->asked.empty() ? "" : " ") + text;
        if (current->offered.find(text) == std::string::npos) return FALSE;
        for (const int of : {0x0B, 0x10, 0x06}) {
            if (version == of) return current->Give(version, current->channel, table);
        }
        for (const int of : {0x12, 0x0F, 0x0A, 0x02}) {
            if (version == of) return current->Give(version, current->object, table);
        }
        if (version == 0x08 || version == 0x03) return current->Give(version, current->contexts, table);
        if (version == 0x00) return current->Give(version, current->variant, table);
        return 2;  // any other value than 0 is success too
    }

    template <typename Table>
    Bool Give(int version, const Table& from, void* to) {
        const auto limit = words.find(version);
        std::memcpy(to, &from, limit == words.end() ? sizeof from : limit->second * sizeof(void*));
        return TRUE;
    }

    bool Fails(const std::string& name) const {
        std::lock_guard guard(lock);
        return failing.contains(name);
    }

    static void Add(Names ChannelService::*record, const std::string& text) {
        if (!current) return;
        std::lock_guard guard(current->lock);
        (current->*record).push_back(text);
    }

    void Poll() {
        ++polls;
        if (onPoll) onPoll();
    }

    inline static ChannelService* current = nullptr;

    mutable std::mutex lock;  // guards all records, failing, actions and what Invoke and GetId leave
    Names calls, heard;
    std::set<std::string> failing;
    std::map<std::string, std::function<void()>> actions;
    QSCRPC_ContextNotifySink contextSink{};
    std::map<size_t, Object> objects;  // written by the thread that fires the channel's events
};

using Names = ChannelService::Names;

// The function that has logged the first line with that text.
inline std::string OwnerOf(const std::string& text, const LogCapture& log) {
    for (const LogCapture::Line& line : log.Lines()) {
        if (line.text == text) return line.function;
    }
    return {};
}

// Notes its hooks with the service.
class HookInstance : public RPCPluginInstance {
public:
    explicit HookInstance(RPCManager* manager) : RPCPluginInstance(manager, RefCountOn) {}
    ~HookInstance() override { ChannelService::Note("instance gone"); }
    using RPCPluginInstance::SetDiscardConnection;
    using RPCPluginInstance::UpdatePendingCount;

    bool SuppressObjectFlag8() override { return suppress8; }
    bool SuppressObjectFlag4() override { return suppress4; }
    void OnRejected() override { Hear("rejected"); }
    void OnReady() override { Hear("ready"); }
    void OnNotReady() override { Hear("not ready"); }
    void OnDone(uint32_t requestId, void* hContext) override {
        latestContext = hContext;
        Hear(Text("done %u", requestId));
    }
    void OnAbort(uint32_t requestId, Bool flag, uint32_t reason) override {
        Hear(Text("abort %u %d %u", requestId, flag, reason));
    }
    void OnInvoke(void* hContext) override {
        latestContext = hContext;
        Hear("invoke");
    }
    void OnMsgChannelReady(void*, const char* name) override { Hear(std::string("opened ") + name); }
    void OnMsgChannelPeerOpened(void*, void* a, QscMsgChannelID peer, void* b, void* c) override {
        Hear(Text("peer %p %p %p %p", a, peer, b, c));
    }

    bool suppress8 = false, suppress4 = false;
    std::atomic<void*> latestContext{nullptr};
    std::function<void(const std::string&)> onHook;

private:
    void Hear(const std::string& hook) {
        ChannelService::Hear(hook);
        if (onHook) onHook(hook);
    }
};

// Notes its hooks with the service, and answers and wants what a test sets.
class HookManager : public RPCManager {
public:
    explicit HookManager(RefCountMode mode = RefCountOff, const char* controlName = "control")
        : RPCManager("Test", controlName, "data", "dataTcp", mode) {}
    ~HookManager() override { Note("manager gone"); }

    RPCPluginInstance* OnCreateInstance() override { return Create(); }
    RPCPluginInstance* OnCreateServerInstance(QscServerID) override { return Create(); }
    void OnDestroyInstance(RCPtr<RPCPluginInstance>) override { Note("OnDestroyInstance"); }
    void OnDestroyServerInstance(QscServerID, RCPtr<RPCPluginInstance>) override { Note("OnDestroyServerInstance"); }
    bool OnPluginInit() override { return Note("OnPluginInit", false); }
    bool OnPluginExit() override { return Note("OnPluginExit", false); }
    void OnClientInit() override { Note(IsInitialized() ? "OnClientInit" : "OnClientInit too early"); }
    void OnClientExit() override { Note("OnClientExit"); }
    void OnServerInit() override { Note(IsInitialized() ? "OnServerInit too late" : "OnServerInit"); }
    void OnServerExit() override { Note("OnServerExit"); }
    bool IsServerAllowed() override { return allowed; }
    bool ConfigureTcpSideChannel() override { return Note("tcp", tcpResult); }
    bool ConfigureVirtualSideChannel() override { return Note("virtual", virtualResult); }
    void OnSessionTypeKnown(QSCService_SessionType type) override { sessionTypes.push_back(type); }

    // The handle that the service sees, as the log tells it.
    void* FindHandle(const LogCapture& log) {
        const QSC_INTERFACE_ID unknown = QSC_MakeInterfaceId(0x77);
        QueryInterface(&unknown, nullptr);
        void* handle = nullptr;
        for (const std::string& text : log.Texts(kLogInfo)) std::sscanf(text.c_str(), "Enter - Test(0x%p)", &handle);
        return handle;
    }

    using RPCManager::m_qvcRawSupported;
    using RPCManager::m_surgeSupported;
    using RPCManager::m_tcpSideChannel;
    using RPCManager::m_virtualSideChannel;
    using RPCManager::SetServerInterface;

    bool allowed = true, tcpResult = true, virtualResult = true, createNothing = false;
    std::vector<QSCService_SessionType> sessionTypes;
    std::atomic<HookInstance*> latest{nullptr};

private:
    HookInstance* Create() { return createNothing ? nullptr : latest = new HookInstance(this); }
    static bool Note(const char* hook, bool result = true) {
        ChannelService::Note(hook);
        return result;
    }
};

// A bound manager with one instance, registered with the service.
class InstanceUnderTest : public testing::Test {
protected:
    void Start(bool isServer = false) {
        const QSC_SERVICE_QUERY_INTERFACE query = service.Query();
        ASSERT_TRUE(manager.Init(isServer, &query));
        ASSERT_TRUE(instance->RegisterChannelSink(&channelHandle));
        Forget();
    }

    void StartReady() {
        Start();
        service.BringUp();
        ASSERT_EQ(service.TakeHeard(), Names{"ready"});
        Forget();
    }

    void Forget() {
        service.TakeCalls();
        log.Clear();
    }
    Names Errors() const { return log.Texts(kLogError); }

    LogCapture log;
    ChannelService service;
    HookManager manager;
    RCPtr<HookInstance> instance{new HookInstance(&manager)};
    char channelHandle = 0;
};
