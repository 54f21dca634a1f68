// The two objects of a channel. The server creates the control object when the channel is up and the data object when
// the control object is connected; the client creates each when it hears that the peer has. Before the data object
// counts as connected, a client may ask for it to be moved to a side channel, and then waits for the service to report
// that it has been.
#include <cstring>

#include "rpc/QSCServiceText.h"
#include "rpc/RPCPluginOperation.h"
#include "runtime/StringUtils.h"

void* RPCPluginInstance::LoadHandle(void*& hObject) {
    return std::atomic_ref(hObject).load(std::memory_order_acquire);
}

void* RPCPluginInstance::TakeHandle(void*& hObject) {
    return std::atomic_ref(hObject).exchange(nullptr, std::memory_order_acq_rel);
}

std::atomic<void*>* RPCPluginInstance::SendObject(void* const* hObject) {
    if (hObject == &m_hControlObj) return &m_controlSendObj;
    if (hObject == &m_hDataObj) return &m_dataSendObj;
    return nullptr;
}

void RPCPluginInstance::PublishObject(void** hObject) {
    if (std::atomic<void*>* const copy = SendObject(hObject)) {
        copy->store(LoadHandle(*hObject), std::memory_order_release);
    }
}

bool RPCPluginInstance::ChannelControlObjCreate(const char* name) {
    const Operation operation(kLogTrace, __PRETTY_FUNCTION__, *this);
    if (!operation) return false;
    if (RefusesStreamData(__PRETTY_FUNCTION__, "ChannelControlObjCreate is not supported in streamData mode\n")) {
        return false;
    }
    if (!name || !*name) return false;
    StringUtils::CopyString(m_controlObjName, name, kObjNameSize - 1);
    LOG(Debug, "Creating control object: %s\n", m_controlObjName);
    return ChannelObjCreate(m_controlObjName, &operation.manager->m_controlObjectSink, false, false, &m_hControlObj);
}

bool RPCPluginInstance::ChannelDataObjCreate(const char* name) {
    const Operation operation(kLogTrace, __PRETTY_FUNCTION__, *this);
    if (!operation) return false;
    if (RefusesStreamData(__PRETTY_FUNCTION__, "ChannelDataObjCreate is not supported in streamData mode\n")) {
        return false;
    }
    if (!name || !*name) return false;
    StringUtils::CopyString(m_dataObjName, name, kObjNameSize - 1);
    LOG(Info, "Creating data object: %s\n", m_dataObjName);
    const RPCManager& manager = *operation.manager;
    return ChannelObjCreate(m_dataObjName, &manager.m_dataObjectSink, manager.m_tcpSideChannel,
                            manager.m_virtualSideChannel, &m_hDataObj);
}

bool RPCPluginInstance::ChannelObjCreate(char* name, const QSCRPC_ObjectNotifySink* sink, bool wantTcp,
                                         bool wantVirtual, void** hObject) {
    const Operation operation(kLogTrace, __PRETTY_FUNCTION__, *this);
    if (!operation) return false;
    if (RefusesStreamData(__PRETTY_FUNCTION__, "ChannelObjCreate is not supported in streamData mode\n")) return false;
    if (!hObject) return false;
    if (LoadHandle(*hObject)) {
        LOG(Error, "Channel object \"%s\" already created\n", name);
        return true;
    }
    m_tcpSideChannel.store(wantTcp, std::memory_order_relaxed);
    m_virtualSideChannel.store(wantVirtual, std::memory_order_relaxed);
    const uint32_t flags = ObjectFlags(*operation.manager, wantTcp, wantVirtual);
    if (!operation.manager->m_objectTable.CreateChannelObject(name, sink, Handle(), flags, hObject)) {
        LOG(Error, "Failed to create channel object \"%s\"\n", name);
        return false;
    }
    {
        KxMutexGuard guard(m_stateMutex);
        PublishObject(hObject);
    }
    LOG(Info, "Channel object \"%s\" created with flags 0x%x\n", name, flags);
    return true;
}

uint32_t RPCPluginInstance::ObjectFlags(const RPCManager& manager, bool wantTcp, bool wantVirtual) {
    const bool surge = manager.GetSessionType() == QSC_SESSION_STORM && manager.m_surgeSupported;
    uint32_t flags = QSC_OBJECT_FLAG_BASE;
    if (!SuppressObjectFlag4()) flags |= QSC_OBJECT_FLAG_4;
    bool wantFlag8 = false;
    if (!manager.IsServer()) {
        if (surge) flags |= QSC_OBJECT_SIDE_CHANNEL_SURGE;
        wantFlag8 = true;
    } else if (wantTcp) {
        flags |= QSC_OBJECT_SIDE_CHANNEL_TCP;
        wantFlag8 = true;
    } else if (wantVirtual) {
        flags |= QSC_OBJECT_SIDE_CHANNEL_VIRTUAL;
        if (surge) flags |= QSC_OBJECT_SIDE_CHANNEL_SURGE;
        wantFlag8 = surge;
    } else {
        flags |= QSC_OBJECT_SIDE_CHANNEL_VIRTUAL | QSC_OBJECT_SIDE_CHANNEL_TCP;
    }
    if (wantFlag8 && !SuppressObjectFlag8()) flags |= QSC_OBJECT_FLAG_8;
    return flags;
}

// The handle is taken before the service is asked, so that of two threads that end one object only one destroys it.
bool RPCPluginInstance::ChannelObjDestroy(char* name, void** hObject) {
    const Operation operation(kLogTrace, __PRETTY_FUNCTION__, *this);
    if (!operation) return false;
    if (RefusesStreamData(__PRETTY_FUNCTION__, "ChannelObjDestroy is not supported in streamData mode\n")) return false;
    if (!hObject) {
        LOG(Error, "Null object handle in ChannelObjDestroy\n");
        return false;
    }
    void* taken;
    {
        KxMutexGuard guard(m_stateMutex);
        taken = TakeHandle(*hObject);
        PublishObject(hObject);
    }
    bool destroyed = true;
    if (taken) {
        destroyed = operation.manager->m_objectTable.DestroyChannelObject(taken) != FALSE;
        if (destroyed) {
            LOG(Info, "Channel object \"%s\" destroyed\n", name);
        } else {
            LOG(Error, "Failed to destroy channel object \"%s\"\n", name);
        }
    }
    DropReady();
    return destroyed;
}

void RPCPluginInstance::SetObjectConnected(RPCChannelType type) {
    {
        KxMutexGuard guard(m_stateMutex);
        // The report may come before the creation has returned.
        PublishObject(type == RPCChannelType::Control ? &m_hControlObj : &m_hDataObj);
        (type == RPCChannelType::Control ? m_controlObjConnected : m_dataObjConnected) = true;
        if (!m_controlObjConnected || !m_dataObjConnected || m_ready.load(std::memory_order_relaxed)) return;
        m_readyEvent.Set();
        m_ready.store(true, std::memory_order_release);
    }
    OnReady();
}

void RPCPluginInstance::ClearObjectConnected(RPCChannelType type) {
    KxMutexGuard guard(m_stateMutex);
    (type == RPCChannelType::Control ? m_controlObjConnected : m_dataObjConnected) = false;
}

void RPCPluginInstance::DropReady() {
    {
        KxMutexGuard guard(m_stateMutex);
        if (!m_ready.load(std::memory_order_relaxed)) return;
        m_readyEvent.Reset();
        m_ready.store(false, std::memory_order_release);
    }
    OnNotReady();
}

void RPCPluginInstance::OnChannelControlObjConnected() {
    const Operation operation(kLogTrace, __PRETTY_FUNCTION__, *this);
    if (operation) SetObjectConnected(RPCChannelType::Control);
}

void RPCPluginInstance::OnChannelDataObjConnected() {
    const Operation operation(kLogTrace, __PRETTY_FUNCTION__, *this);
    if (operation) SetObjectConnected(RPCChannelType::Data);
}

void RPCPluginInstance::OnChannelControlObjDisconnected() {
    const Operation operation(kLogTrace, __PRETTY_FUNCTION__, *this);
    if (!operation) return;
    ClearObjectConnected(RPCChannelType::Control);
    ChannelObjDestroy(m_controlObjName, &m_hControlObj);
}

void RPCPluginInstance::OnChannelDataObjDisconnected() {
    const Operation operation(kLogTrace, __PRETTY_FUNCTION__, *this);
    if (!operation) return;
    ClearObjectConnected(RPCChannelType::Data);
    ChannelObjDestroy(m_dataObjName, &m_hDataObj);
}

void RPCPluginInstance::OnPeerObject(RPCManager& manager, const char* name) {
    if (manager.IsServer()) return;
    if (std::strcmp(name, manager.m_controlObjName) == 0) ChannelControlObjCreate(manager.m_controlObjName);
    if (std::strcmp(name, manager.m_dataObjName) == 0) ChannelDataObjCreate(manager.m_dataObjName);
    if (std::strcmp(name, manager.m_dataObjTcpName) == 0) ChannelDataObjCreate(manager.m_dataObjTcpName);
}

void RPCPluginInstance::OnControlObjectState(const char* signature, RPCManager& manager, QSCRPC_ObjectState state) {
    switch (state) {
        case QSC_OBJECT_DISCONNECTED:
            OnChannelControlObjDisconnected();
            return;
        case QSC_OBJECT_CONNECTED:
            OnChannelControlObjConnected();
            if (manager.IsServer()) {
                ChannelDataObjCreate(manager.m_tcpSideChannel ? manager.m_dataObjTcpName : manager.m_dataObjName);
            }
            return;
        default:
            LOG_AS(signature, Error, "State %s is not handled.\n", QSCService_StateText(state));
    }
}

void RPCPluginInstance::OnDataObjectState(const char* signature, RPCManager& manager, QSCRPC_ObjectState state) {
    switch (state) {
        case QSC_OBJECT_DISCONNECTED:
            OnChannelDataObjDisconnected();
            return;
        case QSC_OBJECT_CONNECTED:
            DecideSideChannel(signature, manager);
            return;
        case QSC_OBJECT_SIDE_CHANNEL_PENDING:
            m_sideChannelPending.store(true, std::memory_order_relaxed);
            return;
        case QSC_OBJECT_SIDE_CHANNEL_CONNECTED:
            if (m_sideChannelPending.load(std::memory_order_relaxed)) {
                OnChannelDataObjConnected();
                m_sideChannelPending.store(false, std::memory_order_relaxed);
            } else {
                LOG_AS(signature, Info, "Side channel was not pending when connected was received.\n");
            }
            return;
        default:
            LOG_AS(signature, Error, "State %s is not handled.\n", QSCService_StateText(state));
    }
}

RPCPluginInstance::SideChannelOffer RPCPluginInstance::ReadSideChannelOffer(const char* signature,
                                                                            const RPCManager& manager) {
    SideChannelOffer offer{};
    if (!manager.m_objectTable.GetObjectOptions) return offer;
    uint32_t options = 0;
    if (!manager.m_objectTable.GetObjectOptions(LoadHandle(m_hDataObj), &options)) {
        LOG_AS(signature, Warn, "Obtain DataObj options failed \n");
        return offer;
    }
    LOG_AS(signature, Debug, "DataObj options = 0x%08x\n", options);
    if ((options & QSC_OBJECT_SIDE_CHANNEL_SURGE) && manager.GetSessionType() == QSC_SESSION_STORM) {
        offer.surge = manager.m_surgeSupported;
        offer.raw = manager.IsServer() && manager.m_qvcRawSupported;
    }
    offer.options = options & QSC_OBJECT_SIDE_CHANNEL_MASK;
    return offer;
}

// After an ERROR line of the decision the object stays unconnected until its next report.
void RPCPluginInstance::DecideSideChannel(const char* signature, RPCManager& manager) {
    constexpr uint32_t kBoth = QSC_OBJECT_SIDE_CHANNEL_VIRTUAL | QSC_OBJECT_SIDE_CHANNEL_TCP;
    const SideChannelOffer offer = ReadSideChannelOffer(signature, manager);
    if ((offer.options & kBoth) == kBoth) {
        OnChannelDataObjConnected();
    } else if (!manager.IsServer() && offer.options != 0) {
        DecideByOffer(signature, manager, offer);
    } else {
        LOG_AS(signature, Debug, "Determine sc[0x%08x] type by itself.\n", offer.options);
        DecideByOwnWishes(signature, manager, offer);
    }
}

void RPCPluginInstance::DecideByOffer(const char* signature, RPCManager& manager, const SideChannelOffer& offer) {
    if (m_sideChannelPending.load(std::memory_order_relaxed)) {
        LOG_AS(signature, Error, "Side channel request failed.\n");
    } else if (offer.options & QSC_OBJECT_SIDE_CHANNEL_VIRTUAL) {
        RequestPreferredSideChannel(signature, manager, offer);
    } else {
        LOG_AS(signature, Info, "Requesting tcp side channel.\n");
        RequestSideChannel(manager, QSC_SIDE_CHANNEL_TCP);
    }
}

void RPCPluginInstance::DecideByOwnWishes(const char* signature, RPCManager& manager, const SideChannelOffer& offer) {
    const bool pending = m_sideChannelPending.load(std::memory_order_relaxed);
    if (m_tcpSideChannel.load(std::memory_order_relaxed)) {
        if (pending) {
            LOG_AS(signature, Error, "TCP Side channel request failed.\n");
        } else {
            LOG_AS(signature, Info, "Requesting TCP side channel.\n");
            RequestSideChannel(manager, QSC_SIDE_CHANNEL_TCP);
        }
    } else if (m_virtualSideChannel.load(std::memory_order_relaxed)) {
        if (pending) {
            LOG_AS(signature, Error, "Virtual Side channel request failed.\n");
        } else {
            RequestPreferredSideChannel(signature, manager, offer);
        }
    } else {
        OnChannelDataObjConnected();
    }
}

void RPCPluginInstance::RequestPreferredSideChannel(const char* signature, RPCManager& manager,
                                                    const SideChannelOffer& offer) {
    if (offer.surge) {
        LOG_AS(signature, Info, "Requesting SURGE side channel.\n");
        RequestSideChannel(manager, QSC_SIDE_CHANNEL_SURGE);
    } else if (offer.raw) {
        LOG_AS(signature, Info, "Requesting Qvc Raw side channel.\n");
        RequestSideChannel(manager, QSC_SIDE_CHANNEL_QVC_RAW);
    } else {
        LOG_AS(signature, Info, "Requesting virtual side channel.\n");
        RequestSideChannel(manager, QSC_SIDE_CHANNEL_VIRTUAL);
    }
}

void RPCPluginInstance::RequestSideChannel(RPCManager& manager, QSCRPC_SideChannelType type) {
    manager.m_objectTable.RequestSideChannel(LoadHandle(m_hDataObj), type, manager.m_name);
}
