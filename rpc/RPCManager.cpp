#include "rpc/RPCManager.h"

#include <dlfcn.h>

#include <initializer_list>

#include "logging/Log.h"
#include "rpc/HandleWord.h"
#include "rpc/RPCPluginInstance.h"
#include "rpc/SessionUtils.h"
#include "runtime/StringUtils.h"
#include "runtime/ThreadNumber.h"
#include "runtime/UserDataMap.h"

namespace {

using ManagerMap = UserDataMap<WkPtr<RPCManager>>;

// Null until a manager is first given a handle, and then never destroyed: callbacks may come at any time. Release and
// acquire, so that whoever sees the map sees it complete.
constinit std::atomic<ManagerMap*> managerMap{nullptr};

ManagerMap& MakeManagerMap() {
    static ManagerMap& map = *new ManagerMap;
    managerMap.store(&map, std::memory_order_release);
    return map;
}

// Asks for the table under each id, given by the byte in which they differ, until the service has one. Every attempt
// finds zeros, so that words which an older version lacks are null whatever an earlier attempt or init has left.
template <typename Table>
bool Fetch(const QSC_SERVICE_QUERY_INTERFACE& query, std::initializer_list<uint8_t> versions, Table* table) {
    if (!query.QueryInterface) return false;
    Table fetched;
    for (const uint8_t version : versions) {
        const QSC_INTERFACE_ID id = QSC_MakeInterfaceId(version);
        fetched = {};
        if (query.QueryInterface(&id, &fetched)) {
            *table = fetched;
            return true;
        }
    }
    return false;
}

long CountReferences(RCObject& held) {
    held.AddRef();
    return static_cast<long>(held.Release());
}

}  // namespace

RPCManager::RPCManager(const char* name, const char* controlObjName, const char* dataObjName,
                       const char* dataObjTcpName, RefCountMode mode)
    : RCObject(mode), m_mode(mode) {
    StringUtils::CopyString(m_name, name, kNameSize - 1);
    StringUtils::CopyString(m_controlObjName, controlObjName, kObjNameSize - 1);
    StringUtils::CopyString(m_dataObjName, dataObjName, kObjNameSize - 1);
    StringUtils::CopyString(m_dataObjTcpName, dataObjTcpName, kObjNameSize - 1);
    FillCallbackTables();
    LOG(Info, "%s(0x%p) created rcEnabled(%s)", m_name, Handle(), RcEnabledText());
}

RPCManager::~RPCManager() {
    LOG(Info, "%s(0x%p) destroyed", m_name, Handle());
    CloseQscService();
    RemoveHandle(__PRETTY_FUNCTION__);
}

void RPCManager::FillCallbackTables() {
    constexpr uintptr_t kVersion = 1;
    m_serverSink = {kVersion, QscOnServerConnected, QscOnServerDisconnected, QscOnServerInstanceCreated,
                    QscOnServerInstanceDestroyed};
    m_channelSink = {kVersion, OnConnectionStateChanged, OnChannelStateChanged, OnPeerChannelObjectCreated};
    m_controlObjectSink = {kVersion, OnControlMsgInvoke, OnChannelControlObjectStateChanged};
    m_dataObjectSink = {kVersion, OnDataMsgInvoke, OnChannelDataObjectStateChanged};
    m_contextSink = {kVersion, OnMsgDone, OnMsgAbort};
}

void RPCManager::CloseQscService() {
    if (!m_hQscService) return;
    dlclose(m_hQscService);
    m_hQscService = nullptr;
    m_serverExports = {};
}

// A full map has logged; the manager then goes on without server callbacks.
void RPCManager::AssignHandle() {
    if (m_handle.load(std::memory_order_relaxed) != 0) return;
    m_handle.store(MakeManagerMap().Add(WkPtr<RPCManager>(this)), std::memory_order_release);
}

void RPCManager::RemoveHandle(const char* signature) {
    const uint32_t handle = m_handle.exchange(0, std::memory_order_acq_rel);
    if (handle == 0) return;
    const char* outcome = "not removed";
    if (ManagerMap* const map = managerMap.load(std::memory_order_acquire)) {
        outcome = map->Find(handle).Get() ? "removed" : "not found";
        map->Erase(handle);
    }
    // Entries of that map count a counted manager, which then isn't here.
    if (m_mode == RefCountOff) RemoveFromServerMap();
    LOG_AS(signature, Info, "Handle 0x%p %s", HandleToWord(handle), outcome);
}

RCPtr<RPCManager> RPCManager::FindByHandle(void* handle) {
    ManagerMap* const map = managerMap.load(std::memory_order_acquire);
    return map ? map->Find(WordToHandle(handle)).Lock() : RCPtr<RPCManager>();
}

void* RPCManager::Handle() const {
    return HandleToWord(m_handle.load(std::memory_order_relaxed));
}

bool RPCManager::QSCPluginInit(QSC_SERVICE_QUERY_INTERFACE query) {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    OnPluginInit();
    AssignHandle();
    ClientInit(&query);
    return true;
}

bool RPCManager::QSCPluginExit() {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    ClientExit();
    OnPluginExit();
    return true;
}

bool RPCManager::QSCPluginCreateInstance(void* hChannel, void** instance) {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    if (!IsInitialized()) {
        LOG(Warn, "Plugin is not initialized yet.\n");
        return false;
    }
    if (!instance) {
        LOG(Error, "No place to store the instance's handle\n");
        return false;
    }
    const RCPtr<RPCPluginInstance> created(OnCreateInstance());
    if (!created) {
        LOG(Error, "OnCreateInstance() gave no instance\n");
        return false;
    }
    // The service could neither reach nor destroy it.
    if (!created->Handle()) {
        LOG(Error, "The instance has no handle\n");
        OnDestroyInstance(created);
        return false;
    }
    created->RegisterChannelSink(hChannel);
    *instance = created->Handle();
    created->AddRef();
    created->m_heldByService.store(true, std::memory_order_release);
    return true;
}

bool RPCManager::QSCPluginDestroyInstance(void* instance) {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    const RCPtr<RPCPluginInstance> held = RPCPluginInstance::FindByHandle(instance);
    if (!held || !held->TakeServiceReference()) {
        LOG(Warn, "RPCPlugin 0x%p not found", instance);
        return false;
    }
    held->ChannelDisconnect();
    held->UnregisterChannelSink();
    OnDestroyInstance(held);
    LOG(Info, "%s(0x%p) - rpcPlugin(0x%p)  refCount(%ld)", m_name, Handle(), instance, CountReferences(*held) - 2);
    held->Release();
    return true;
}

bool RPCManager::ClientInit(const QSC_SERVICE_QUERY_INTERFACE* query) {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    if (IsInitialized()) {
        LOG(Error, "Already initialized\n");
        return false;
    }
    if (!Init(false, query)) {
        LOG(Error, "Init() failed\n");
        return false;
    }
    if (!ConfigureTcpSideChannel()) {
        LOG(Error, "Error in configuring TcpSide Channel.\n");
        return false;
    }
    if (!m_tcpSideChannel && !ConfigureVirtualSideChannel()) {
        LOG(Error, "Error in configuring Virtual Side Channel.\n");
        return false;
    }
    m_initialized.store(true, std::memory_order_release);
    OnClientInit();
    return true;
}

bool RPCManager::ClientExit() {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    if (!m_initialized.exchange(false, std::memory_order_acq_rel)) {
        LOG(Error, "Not initialized\n");
        return false;
    }
    m_hInitThreadId.store(0, std::memory_order_relaxed);
    OnClientExit();
    return true;
}

bool RPCManager::Init(bool isServer, const QSC_SERVICE_QUERY_INTERFACE* query) {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    const QSC_SERVICE_QUERY_INTERFACE service = query ? *query : QSC_SERVICE_QUERY_INTERFACE{};
    if (!Fetch(service, {0x0B, 0x10}, &m_channelTable)) {
        if (isServer) {
            LOG(Debug, "Failed to get QSCService_ChannelInterface_V2, streamData mode not supported\n");
        }
        if (!Fetch(service, {0x06}, &m_channelTable)) {
            LOG(Error, "Failed to get QSCService_ChannelInterface\n");
            return false;
        }
    }
    if (!Fetch(service, {0x12, 0x0F, 0x0A, 0x02}, &m_objectTable)) {
        LOG(Error, "Failed to get QSCRPC_ChannelObjectInterface\n");
        return false;
    }
    if (!Fetch(service, {0x08, 0x03}, &m_contextTable)) {
        LOG(Error, "Failed to get QSCRPC_ChannelContextInterface\n");
        return false;
    }
    if (!Fetch(service, {0x00}, &m_variantTable)) {
        LOG(Error, "Failed to get QSCRPC_VariantInterface\n");
        return false;
    }
    if (!Fetch(service, {0x0E, 0x0C}, &m_streamDataTable)) {
        m_streamDataTable = {};
        LOG(Warn, "Failed to get QSCRPC_StreamDataInterface\n");
    }
    if (!isServer) {
        if (!Fetch(service, {0x19, 0x18, 0x16, 0x07, 0x05}, &m_overlayTable)) {
            LOG(Error, "Failed to get QSCOverlay_ClientInterface\n");
            return false;
        }
        m_surgeSupported = true;
        LOG(Debug, "SURGE side channel %ssupported\n", "");
    }
    m_isServer.store(isServer, std::memory_order_release);
    m_hInitThreadId.store(GetThreadNumber(), std::memory_order_relaxed);
    m_serviceQuery = service;
    return true;
}

Bool RPCManager::QueryInterface(const QSC_INTERFACE_ID* id, void* table) {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    return m_serviceQuery.QueryInterface ? m_serviceQuery.QueryInterface(id, table) : FALSE;
}

QSCService_SessionType RPCManager::GetSessionType() const {
    return m_channelTable.GetSessionType ? m_channelTable.GetSessionType() : QSC_SESSION_NONE;
}

RPCPluginInstance* RPCManager::OnCreateInstance() {
    return new RPCPluginInstance(this, RefCountOn);
}

// The hook takes its own reference, for overrides that keep it. NOLINTNEXTLINE(performance-unnecessary-value-param)
void RPCManager::OnDestroyInstance(RCPtr<RPCPluginInstance>) {}

RPCPluginInstance* RPCManager::OnCreateServerInstance(QscServerID) {
    return new RPCPluginInstance(this, RefCountOn);
}

// The hook takes its own reference, for overrides that keep it. NOLINTNEXTLINE(performance-unnecessary-value-param)
void RPCManager::OnDestroyServerInstance(QscServerID, RCPtr<RPCPluginInstance>) {}

bool RPCManager::OnPluginInit() {
    return false;
}

bool RPCManager::OnPluginExit() {
    return false;
}

void RPCManager::OnServerInit() {}

void RPCManager::OnServerExit() {}

void RPCManager::OnClientInit() {}

void RPCManager::OnClientExit() {}

bool RPCManager::OnServerConnected(QSCService_SessionType type, QscServerID id) {
    LOG(Info, "%s server [0x%p] connected.", SessionUtils::GetSessionTypeText(type), id);
    return true;
}

bool RPCManager::OnServerDisconnected(QscServerID id) {
    LOG(Info, "Server [0x%p] disconnected.", id);
    return true;
}

bool RPCManager::ConfigureTcpSideChannel() {
    return true;
}

bool RPCManager::ConfigureVirtualSideChannel() {
    return true;
}

void RPCManager::OnSessionTypeKnown(QSCService_SessionType) {}

bool RPCManager::IsServerAllowed() {
    return true;
}
