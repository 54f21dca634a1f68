// Both ends of a channel on the framework, in one process, that note what they hear.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "rpc/QSCServiceCommand.h"
#include "rpc/RPCManager.h"
#include "rpc/RPCPluginInstance.h"
#include "rpc/RPCVariant.h"
#include "standin/qscservice/Server.h"
#include "standin/qscservice/ServiceTables.h"
#include "tests/server/Events.h"
#include "tests/support/Resources.h"

using Texts = std::vector<std::string>;

class Command : public QSCServiceCommand {
public:
    using QSCServiceCommand::QSCServiceCommand;
};

inline std::atomic<int> gInstances{0};

// One for each connection; answers requests with their first parameter.
class ServerInstance : public RPCPluginInstance {
public:
    ServerInstance(RPCManager* manager, std::string name, Events* events)
        : RPCPluginInstance(manager, RefCountOn), name(std::move(name)), events(*events) {
        ++gInstances;
    }
    ~ServerInstance() override {
        --gInstances;
        events.Add(name + " gone");
    }
    void OnReady() override { events.Add(name + " ready"); }
    void OnNotReady() override { events.Add(name + " not ready"); }
    void OnMsgChannelReady(void*, const char* channel) override { events.Add(std::string("opened ") + channel); }
    // Sends words back, one more in each.
    void OnMsgChannelPeerOpened(void* handle, void* a, QscMsgChannelID peer, void* b, void* c) override {
        events.Add(c ? "words" : "peer");
        lastPeer = peer;
        const auto more = [](void* word) { return static_cast<void*>(static_cast<char*>(word) + 1); };
        if (c) SendMsgChannel(handle, more(a), more(b), more(c));
    }
    void OnInvoke(void* context) override {
        Command message(GetChannelContextInterface(), GetVariantInterface(), context);
        RPCVariant value(this);
        if (message.GetCommand() == 2 && message.GetParam(0, &value)) message.AppendReturnVal(&value);
        if (++messages == awaited) events.Add(name + " has its messages");
    }

    const std::string name;
    Events& events;
    std::atomic<QscMsgChannelID> lastPeer{nullptr};
    std::atomic<int> messages{0};
    std::atomic<int> awaited{-1};
};

class Server : public RPCManager {
public:
    Server() : RPCManager("Server", "UsbRedirControlObj", "UsbRedirDataObj", "UsbRedirDataObjTcp", RefCountOn) {}

    bool ConfigureTcpSideChannel() override {
        SetServerInterface(qscservice::kServerTable);
        m_tcpSideChannel = wantTcp;
        if (onBound) onBound();
        return true;
    }
    bool ConfigureVirtualSideChannel() override {
        m_virtualSideChannel = wantVirtual;
        return true;
    }
    bool OnServerConnected(QSCService_SessionType type, QscServerID id) override {
        const std::string name = std::to_string(++connections);
        {
            const std::lock_guard guard(lock);
            names[id] = name;
        }
        events.Add(name + " connected");
        return RPCManager::OnServerConnected(type, id) && StartServer(id);
    }
    bool OnServerDisconnected(QscServerID id) override {
        events.Add(NameOf(id) + " disconnected");
        return RPCManager::OnServerDisconnected(id);
    }
    RPCPluginInstance* OnCreateServerInstance(QscServerID id) override {
        events.Add(NameOf(id) + " created");
        auto* const instance = new ServerInstance(this, NameOf(id), &events);
        instance->awaited = awaitedOfNext.load();
        const std::lock_guard guard(lock);
        if (keepLatest) latest = instance;
        return instance;
    }
    void OnDestroyServerInstance(QscServerID id, RCPtr<RPCPluginInstance>) override {
        events.Add(NameOf(id) + " destroyed");
    }

    RCPtr<ServerInstance> TakeLatest() {
        const std::lock_guard guard(lock);
        return std::move(latest);
    }

    Events events;
    std::atomic<int> connections{0};
    std::atomic<int> awaitedOfNext{-1};
    bool wantTcp = false, wantVirtual = false;
    bool keepLatest = false;        // for TakeLatest
    std::function<void()> onBound;  // the service is there, and the server's address

private:
    std::string NameOf(QscServerID id) {
        const std::lock_guard guard(lock);
        return names[id];
    }

    std::mutex lock;  // guards the two below
    RCPtr<ServerInstance> latest;
    std::map<QscServerID, std::string> names;
};

// The framework's client end, as a plug-in has it.
class ClientInstance : public RPCPluginInstance {
public:
    ClientInstance(RPCManager* manager, Events* events) : RPCPluginInstance(manager, RefCountOn), events(*events) {
        ++gInstances;
    }
    ~ClientInstance() override { --gInstances; }
    void OnReady() override { events.Add("ready"); }
    void OnNotReady() override { events.Add("not ready"); }
    void OnMsgChannelReady(void*, const char* channel) override { events.Add(std::string("opened ") + channel); }
    void OnMsgChannelPeerOpened(void*, void* a, QscMsgChannelID, void* b, void* c) override {
        events.Add(c ? "words " + std::to_string(reinterpret_cast<uintptr_t>(a)) + " " +
                           std::to_string(reinterpret_cast<uintptr_t>(b)) + " " +
                           std::to_string(reinterpret_cast<uintptr_t>(c))
                     : "peer");
    }
    void OnDone(uint32_t, void*) override {
        ++answered;
        if (++answers == awaited) events.Add("has its answers");
    }
    void OnAbort(uint32_t, Bool, uint32_t) override { ++aborts; }

    bool Ask() {
        void* hContext = nullptr;
        if (!CreateMessage(&hContext, RPCChannelType::Data)) return false;
        Command request(GetChannelContextInterface(), GetVariantInterface(), hContext);
        const QSC_RPC_BLOB content = {4, "text"};
        if (request.SetCommand(2) && request.AddParam("type") && request.AddParam("1") && request.AddParam(&content) &&
            InvokeMessage(hContext, TRUE, RPCChannelType::Data)) {
            ++sent;
            return true;
        }
        DestroyMessage(hContext);
        return false;
    }

    int Open() const { return sent - answered - aborts; }

    Events& events;
    std::atomic<int> sent{0};
    std::atomic<int> answered{0};
    std::atomic<int> answers{0};
    std::atomic<int> aborts{0};
    std::atomic<int> awaited{-1};
};

class Client : public RPCManager {
public:
    using RPCManager::SetServerInterface;
    Client() : RPCManager("Client", "UsbRedirControlObj", "UsbRedirDataObj", "UsbRedirDataObjTcp", RefCountOff) {}
    RPCPluginInstance* OnCreateInstance() override { return instance = new ClientInstance(this, &events); }

    Events events;
    ClientInstance* instance = nullptr;
};
