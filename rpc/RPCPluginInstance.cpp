// The channel of an instance, from the connection to readiness. Three things that the service reports apart from each
// other, the states of the connection, the channel and the two objects, are condensed into a few flags: the connection
// starts and stops the channel, the channel brings the objects down with it, and the objects alone decide readiness.
#include "rpc/RPCPluginInstance.h"

#include <utility>

#include "logging/Log.h"
#include "rpc/HandleWord.h"
#include "rpc/QSCServiceText.h"
#include "rpc/RPCManager.h"
#include "rpc/RPCPluginOperation.h"
#include "rpc/SessionUtils.h"
#include "runtime/UserDataMap.h"

namespace {

using InstanceMap = UserDataMap<WkPtr<RPCPluginInstance>>;

// Never destroyed: an instance may outlive the static objects that the process destroys, and a callback may be late.
InstanceMap& Instances() {
    static InstanceMap& map = *new InstanceMap;
    return map;
}

}  // namespace

RPCPluginInstance::RPCPluginInstance(RPCManager* manager, RefCountMode mode) : RCObject(mode), m_rpcManager(manager) {
    FUNCTION_TRACE(Info, "%s(0x%p)", manager ? manager->m_name : "", manager ? manager->Handle() : nullptr);
    m_handle = Instances().Add(WkPtr<RPCPluginInstance>(this));
    LOG(Info, "Handle 0x%p added", Handle());
}

RPCPluginInstance::~RPCPluginInstance() {
    LOG(Info, "0x%p destroyed\n", Handle());
    const uint32_t handle = std::exchange(m_handle, 0);
    const bool found = Instances().Find(handle).Get() != nullptr;
    Instances().Erase(handle);
    LOG(Info, "Handle 0x%p %s", HandleToWord(handle), found ? "removed" : "not found");
}

RCPtr<RPCPluginInstance> RPCPluginInstance::FindByHandle(void* handle) {
    return Instances().Find(WordToHandle(handle)).Lock();
}

void* RPCPluginInstance::Handle() const {
    return HandleToWord(m_handle);
}

RCPtr<RPCManager> RPCPluginInstance::RequireManager(const char* signature) const {
    RCPtr<RPCManager> manager = m_rpcManager.Lock();
    if (!manager) [[unlikely]] {
        LOG_AS(signature, Error, "The manager of rpcPlugin(0x%p) is gone\n", Handle());
    }
    return manager;
}

bool RPCPluginInstance::RefusesStreamData(const char* signature, const char* refusal) const {
    if (!IsStreamDataMode()) return false;
    LOG_AS(signature, Error, "%s", refusal);
    return true;
}

const QSCRPC_ChannelContextInterface* RPCPluginInstance::GetChannelContextInterface() const {
    const RCPtr<RPCManager> manager = m_rpcManager.Lock();
    return manager ? manager->GetChannelContextInterface() : nullptr;
}

const QSCRPC_VariantInterface* RPCPluginInstance::GetVariantInterface() const {
    const RCPtr<RPCManager> manager = m_rpcManager.Lock();
    return manager ? manager->GetVariantInterface() : nullptr;
}

bool RPCPluginInstance::SuppressObjectFlag8() {
    return false;
}

bool RPCPluginInstance::SuppressObjectFlag4() {
    return false;
}

void RPCPluginInstance::OnRejected() {}

void RPCPluginInstance::OnMsgChannelReady(void*, const char*) {}

void RPCPluginInstance::OnMsgChannelPeerOpened(void*, void*, QscMsgChannelID, void*, void*) {}

void RPCPluginInstance::OnReady() {}

void RPCPluginInstance::OnNotReady() {}

void RPCPluginInstance::OnDone(uint32_t, void*) {}

void RPCPluginInstance::OnAbort(uint32_t, Bool, uint32_t) {}

void RPCPluginInstance::OnInvoke(void*) {}

bool RPCPluginInstance::RegisterChannelSink(void* hChannel) {
    const Operation operation(kLogInfo, __PRETTY_FUNCTION__, *this);
    if (!operation) return false;
    if (RefusesStreamData(__PRETTY_FUNCTION__, "RegisterChannelSink is not supported in streamData mode\n")) {
        return false;
    }
    if (m_sinkCookie != kNoCookie) {
        LOG(Error, "Channel sink already registered\n");
        return true;
    }
    RPCManager& manager = *operation.manager;
    if (!manager.m_channelTable.v1.RegisterChannelNotifySink(&manager.m_channelSink, Handle(), &m_sinkCookie)) {
        m_sinkCookie = kNoCookie;
        LOG(Error, "Channel.v1.RegisterChannelNotifySink() failed\n");
        return false;
    }
    m_hChannel = hChannel;
    LOG(Info, "Channel.v1.RegisterChannelNotifySink() [OK]\n");
    if (manager.m_channelTable.v1.GetConnectionState() == QSC_CONNECTION_CONNECTED) {
        LOG(Info, "Simulating connect callback\n");
        RPCManager::OnConnectionStateChanged(Handle(), QSC_CONNECTION_CONNECTED, QSC_CONNECTION_CONNECTED, nullptr);
    }
    return true;
}

bool RPCPluginInstance::UnregisterChannelSink() {
    const Operation operation(kLogInfo, __PRETTY_FUNCTION__, *this);
    if (!operation) return false;
    if (RefusesStreamData(__PRETTY_FUNCTION__, "UnregisterChannelSink is not supported in streamData mode\n")) {
        return false;
    }
    if (m_sinkCookie == kNoCookie) {
        LOG(Error, "Channel sink not registered\n");
        return true;
    }
    RPCManager& manager = *operation.manager;
    if (manager.m_channelTable.v1.GetConnectionState() == QSC_CONNECTION_CONNECTED) {
        LOG(Info, "Simulating disconnect callback\n");
        RPCManager::OnConnectionStateChanged(Handle(), QSC_CONNECTION_DISCONNECTED, QSC_CONNECTION_DISCONNECTED,
                                             nullptr);
    }
    const bool unregistered = manager.m_channelTable.v1.UnregisterChannelNotifySink(m_sinkCookie) != FALSE;
    if (unregistered) {
        LOG(Error, "Channel.v1.UnregisterChannelNotifySink() [OK]\n");
    } else {
        LOG(Error, "Channel.v1.UnregisterChannelNotifySink() failed\n");
    }
    m_hChannel = nullptr;
    m_sinkCookie = kNoCookie;
    return unregistered;
}

// The request stands before the service is asked, since its answer may come on another thread before the call returns.
bool RPCPluginInstance::ChannelConnect() {
    const Operation operation(kLogInfo, __PRETTY_FUNCTION__, *this);
    if (!operation) return false;
    if (RefusesStreamData(__PRETTY_FUNCTION__, "ChannelConnect is not supported in streamData mode\n")) return false;
    bool requestedBefore;
    {
        KxMutexGuard guard(m_stateMutex);
        requestedBefore = std::exchange(m_connectRequested, true);
    }
    if (!operation.manager->m_channelTable.v1.Connect()) {
        LOG(Error, "Channel.v1.Connect() failed\n");
        KxMutexGuard guard(m_stateMutex);
        if (!requestedBefore) m_connectRequested = false;
        return false;
    }
    LOG(Info, "Channel.v1.Connect() [OK]\n");
    return true;
}

bool RPCPluginInstance::ChannelDisconnect() {
    const Operation operation(kLogInfo, __PRETTY_FUNCTION__, *this);
    if (!operation) return false;
    if (RefusesStreamData(__PRETTY_FUNCTION__, "ChannelDisconnect is not supported in streamData mode\n")) return false;
    bool requested;
    {
        KxMutexGuard guard(m_stateMutex);
        requested = m_connectRequested;
    }
    bool disconnected = true;
    if (requested) {
        disconnected = operation.manager->m_channelTable.v1.Disconnect() != FALSE;
        if (disconnected) {
            LOG(Info, "Channel.v1.Disconnect() [OK]\n");
        } else {
            LOG(Error, "Channel.v1.Disconnect() failed\n");
        }
    }
    OnChannelDisconnected();
    m_rejectedEvent.Reset();
    return disconnected;
}

void RPCPluginInstance::OnChannelConnected() {
    const Operation operation(kLogInfo, __PRETTY_FUNCTION__, *this);
    if (!operation) return;
    KxMutexGuard guard(m_stateMutex);
    m_channelConnected = true;
    m_rejectedEvent.Reset();
}

void RPCPluginInstance::OnChannelDisconnected() {
    const Operation operation(kLogInfo, __PRETTY_FUNCTION__, *this);
    if (!operation) return;
    bool rejected;
    {
        KxMutexGuard guard(m_stateMutex);
        rejected = m_connectRequested && !m_channelConnected;
        m_connectRequested = m_channelConnected = false;
        if (rejected) m_rejectedEvent.Set();
    }
    if (rejected) OnRejected();
    if (LoadHandle(m_hDataObj)) {
        ClearObjectConnected(RPCChannelType::Data);
        ChannelObjDestroy(m_dataObjName, &m_hDataObj);
    }
    if (LoadHandle(m_hControlObj)) {
        ClearObjectConnected(RPCChannelType::Control);
        ChannelObjDestroy(m_controlObjName, &m_hControlObj);
    }
}

void RPCPluginInstance::OnConnectionState(const char* signature, QSCService_ConnectionState current) {
    switch (current) {
        case QSC_CONNECTION_DISCONNECTED:
            ChannelDisconnect();
            return;
        case QSC_CONNECTION_CONNECTED:
            if (m_discardConnection.load(std::memory_order_relaxed)) {
                LOG_AS(signature, Warn, "New connection discarded by request.\n");
            } else {
                ChannelConnect();
            }
            return;
        default:
            LOG_AS(signature, Error, "State %s is not handled\n", QSCService_StateText(current));
    }
}

void RPCPluginInstance::OnChannelState(const char* signature, RPCManager& manager, QSCService_ChannelState current,
                                       QSCService_ChannelState transition) {
    switch (transition) {
        case QSC_CHANNEL_DISCONNECTED:
            SessionUtils::SetSessionType(QSC_SESSION_NONE);
            OnChannelDisconnected();
            return;
        case QSC_CHANNEL_CONNECTED: {
            const QSCService_SessionType type = manager.GetSessionType();
            SessionUtils::SetSessionType(type);
            manager.OnSessionTypeKnown(type);
            LOG_AS(signature, Debug, "Set session type of the channel to %s\n", SessionUtils::GetSessionTypeText(type));
            OnChannelConnected();
            if (manager.IsServer() && current == QSC_CHANNEL_CONNECTED) {
                LOG_AS(signature, Info, "Channel connect, creating channel objects.\n");
                ChannelControlObjCreate(manager.m_controlObjName);
            }
            return;
        }
        default:
            LOG_AS(signature, Error, "State %s is not handled.\n", QSCService_StateText(transition));
    }
}

bool RPCPluginInstance::WaitUntilReady(uint32_t msTimeout) {
    FUNCTION_TRACE(Info, "timeout %d\n", static_cast<int>(msTimeout));
    const RCPtr<RPCManager> manager = RequireManager(__PRETTY_FUNCTION__);
    if (!manager) return false;
    if (RefusesStreamData(__PRETTY_FUNCTION__, "WaitUntilReady is not supported in streamData mode\n")) return false;
    const bool ready = manager->WaitForEvent(&m_readyEvent, msTimeout);
    if (ready) {
        LOG(Info, "Ready\n");
    } else {
        LOG(Info, "Not ready\n");
    }
    return ready;
}

int RPCPluginInstance::WaitUntilReadyOrRejected(uint32_t msTimeout) {
    const Operation operation(kLogInfo, __PRETTY_FUNCTION__, *this);
    if (!operation) return kWaitFailed;
    if (RefusesStreamData(__PRETTY_FUNCTION__, "WaitUntilReadyOrRejected is not supported in streamData mode\n")) {
        return 0;
    }
    std::vector<KxEvent*> events{&m_readyEvent, &m_rejectedEvent};
    const int result = operation.manager->WaitMultiple(events, false, msTimeout, false);
    switch (result) {
        case 0:
            operation.manager->OnServerInit();
            LOG(Info, "Ready\n");
            break;
        case 1:
            LOG(Info, "Rejected\n");
            break;
        default:
            LOG(Info, "Not ready\n");
    }
    return result;
}
