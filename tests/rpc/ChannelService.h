// The service as one channel of tables under a test's control. Each word notes its call, runs what the test has hung in
// it, and succeeds unless it is told to fail. The test fires the callbacks. One at a time; safe on any thread.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
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

class ChannelService {
public:
    using Names = std::vector<std::string>;

    ChannelService() {
        current = this;
        channel.v1.Poll = [] {};
        channel.v1.RegisterChannelNotifySink = [](const QSCService_ChannelNotifySink* sink, void* context,
                                                  uint32_t* cookie) {
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

    Names TakeCalls() {
        std::lock_guard guard(lock);
        return std::exchange(calls, {});
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

    std::atomic<QSCService_ConnectionState> connection{QSC_CONNECTION_DISCONNECTED};
    std::atomic<QSCService_SessionType> sessionType{QSC_SESSION_PCOIP};
    uint32_t options = 0;

    const QSCService_ChannelNotifySink* channelSink = nullptr;
    void* context = nullptr;
    void* invokedOn = nullptr;
    void* invokedContext = nullptr;
    uint32_t latestId = 0;

private:
    static constexpr uint32_t kCookie = 9;

    static Bool QueryInterface(const QSC_INTERFACE_ID* id, void* table) {
        switch (id->bytes[4]) {
            case 0x0B:
                return Give(current->channel, table);
            case 0x12:
                return Give(current->object, table);
            case 0x08:
                return Give(current->contexts, table);
            case 0x00:
                return Give(current->variant, table);
            case 0x19:
                return TRUE;
            default:
                return FALSE;
        }
    }

    template <typename Table>
    static Bool Give(const Table& from, void* to) {
        std::memcpy(to, &from, sizeof from);
        return TRUE;
    }

    bool Fails(const std::string& name) const {
        std::lock_guard guard(lock);
        return failing.contains(name);
    }

    Bool Call(const std::string& name, const std::string& arguments = {}) {
        std::function<void()> action;
        {
            std::lock_guard guard(lock);
            calls.push_back(name + arguments);
            if (const auto found = actions.find(name); found != actions.end()) action = found->second;
        }
        if (action) action();
        return Fails(name) ? FALSE : TRUE;
    }

    inline static ChannelService* current = nullptr;

    mutable std::mutex lock;  // guards calls, failing, actions and what Invoke and GetId leave
    Names calls;              // in order: name, then a space and each argument that counts
    std::set<std::string> failing;
    std::map<std::string, std::function<void()>> actions;
    QSCRPC_ContextNotifySink contextSink{};
    std::map<size_t, Object> objects;  // written by the thread that fires the channel's events
};

// A manager that wants what a test sets, and an instance that notes what its hooks hear.
class HookManager : public RPCManager {
public:
    explicit HookManager(RefCountMode mode = RefCountOff) : RPCManager("Test", "control", "data", "dataTcp", mode) {}
    void OnSessionTypeKnown(QSCService_SessionType type) override { sessionTypes.push_back(type); }
    void OnServerInit() override { ++serverInits; }

    using RPCManager::m_qvcRawSupported;
    using RPCManager::m_surgeSupported;
    using RPCManager::m_tcpSideChannel;
    using RPCManager::m_virtualSideChannel;

    std::vector<QSCService_SessionType> sessionTypes;
    int serverInits = 0;
};

class HookInstance : public RPCPluginInstance {
public:
    explicit HookInstance(RPCManager* manager) : RPCPluginInstance(manager, RefCountOn) {}
    using RPCPluginInstance::SetDiscardConnection;
    using RPCPluginInstance::UpdatePendingCount;

    bool SuppressObjectFlag8() override { return suppress8; }
    bool SuppressObjectFlag4() override { return suppress4; }
    void OnRejected() override { Hear("rejected"); }
    void OnReady() override { Hear("ready"); }
    void OnNotReady() override { Hear("not ready"); }
    void OnDone(uint32_t requestId, void*) override { Hear("done " + std::to_string(requestId)); }
    void OnAbort(uint32_t requestId, Bool flag, uint32_t reason) override {
        Hear("abort " + std::to_string(requestId) + " " + std::to_string(flag) + " " + std::to_string(reason));
    }
    void OnInvoke(void*) override { Hear("invoke"); }

    ChannelService::Names TakeHeard() {
        std::lock_guard guard(lock);
        return std::exchange(heard, {});
    }

    bool suppress8 = false, suppress4 = false;
    std::function<void(const std::string&)> onHook;

private:
    void Hear(const std::string& hook) {
        {
            std::lock_guard guard(lock);
            heard.push_back(hook);
        }
        if (onHook) onHook(hook);
    }

    std::mutex lock;  // guards heard
    ChannelService::Names heard;
};

// A bound manager with one instance, registered with the service.
class InstanceUnderTest : public testing::Test {
protected:
    using Names = ChannelService::Names;

    void Start(bool isServer = false) {
        const QSC_SERVICE_QUERY_INTERFACE query = service.Query();
        ASSERT_TRUE(manager.Init(isServer, &query));
        ASSERT_TRUE(instance->RegisterChannelSink(&channelHandle));
        service.TakeCalls();
        log.Clear();
    }

    void StartReady() {
        Start();
        service.BringUp();
        ASSERT_EQ(instance->TakeHeard(), Names{"ready"});
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
