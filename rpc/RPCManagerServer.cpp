// What the manager knows of server connections: the process's map from their ids to managers, and the callbacks of the
// server table.
#include <utility>

#include "logging/Log.h"
#include "rpc/RPCManager.h"
#include "rpc/RPCPluginInstance.h"
#include "rpc/SessionUtils.h"

namespace {

struct ServerMap {
    KxMutex mutex;  // guards managers, for look-up and update only
    std::map<QscServerID, RCPtr<RPCManager>> managers GUARDED_BY(mutex);
};

// Made by the first look-up and never destroyed: callbacks may come at any time.
ServerMap& Servers() {
    static ServerMap& servers = *new ServerMap;
    return servers;
}

}  // namespace

// For a manager that is not counted, whose entries don't keep it, and for one that its caller holds.
void RPCManager::RemoveFromServerMap() {
    ServerMap& servers = Servers();
    KxMutexGuard guard(servers.mutex);
    std::erase_if(servers.managers, [this](const auto& entry) { return entry.second == this; });
}

RCPtr<RPCManager> RPCManager::GetRPCManagerByServerId(QscServerID id) {
    {
        ServerMap& servers = Servers();
        KxMutexGuard guard(servers.mutex);
        const auto found = servers.managers.find(id);
        if (found != servers.managers.end()) return found->second;
    }
    LOG(Warn, "RPCManager for hServerId(0x%p) not found", id);
    return {};
}

RCPtr<RPCPluginInstance> RPCManager::GetInstanceByServerId(QscServerID id) {
    const RCPtr<RPCManager> manager = GetRPCManagerByServerId(id);
    if (!manager) {
        LOG(Warn, "RPCManager for hServerId(0x%p) not found", id);
        return {};
    }
    {
        KxMutexGuard guard(manager->m_instancesMutex);
        const auto found = manager->m_instances.find(id);
        if (found != manager->m_instances.end()) return found->second;
    }
    LOG(Warn, "RPCInstance for hServerId(0x%p) not found", id);
    return {};
}

Bool RPCManager::QscOnServerConnected(void* context, QSCService_SessionType type, QscServerID id) noexcept {
    const RCPtr<RPCManager> manager = FindByHandle(context);
    if (!manager) {
        LOG(Warn, "RPCManager 0x%p not found", context);
        return FALSE;
    }
    FUNCTION_TRACE(Info, "%s(0x%p) - hServerId(0x%p) %s", manager->m_name, context, id,
                   SessionUtils::GetSessionTypeText(type));
    {
        RCPtr<RPCManager> replaced = manager;  // let go after the lock
        ServerMap& servers = Servers();
        KxMutexGuard guard(servers.mutex);
        std::swap(servers.managers[id], replaced);
    }
    return manager->OnServerConnected(type, id) ? TRUE : FALSE;
}

Bool RPCManager::QscOnServerDisconnected(void* context, QscServerID id) noexcept {
    const RCPtr<RPCManager> manager = FindByHandle(context);
    if (!manager) {
        LOG(Warn, "RPCManager(0x%p) hServerId(0x%p) not found", context, id);
        return FALSE;
    }
    FUNCTION_TRACE(Info, "%s(0x%p) - hServerId(0x%p)", manager->m_name, context, id);
    manager->OnServerDisconnected(id);
    return TRUE;
}

Bool RPCManager::QscOnServerInstanceCreated(void* context, QscServerID id, void** instance) noexcept {
    const RCPtr<RPCManager> manager = FindByHandle(context);
    if (!manager) {
        LOG(Warn, "RPCManager(0x%p) hServerId(0x%p) not found", context, id);
        return FALSE;
    }
    FUNCTION_TRACE(Info, "%s(0x%p) - hServerId(0x%p)", manager->m_name, context, id);
    if (!manager->m_serverTable.GetServerChannel) {
        LOG(Error, "ServerInterface is needed for MultiServer mode.\n");
        return FALSE;
    }
    if (!instance) {
        LOG(Error, "No place to store the instance's handle\n");
        return FALSE;
    }
    const RCPtr<RPCPluginInstance> created(manager->OnCreateServerInstance(id));
    if (!created || !created->Handle()) {
        LOG(Error, "No instance was created for hServerId(0x%p)\n", id);
        if (created) manager->OnDestroyServerInstance(id, created);
        return FALSE;
    }
    *instance = created->Handle();
    {
        RCPtr<RPCPluginInstance> replaced = created;  // let go after the lock
        KxMutexGuard guard(manager->m_instancesMutex);
        created->m_hServerId = id;
        std::swap(manager->m_instances[id], replaced);
    }
    created->RegisterChannelSink(manager->m_serverTable.GetServerChannel(id));
    LOG(Info, "rpcInstance(0x%p) created", created->Handle());
    return TRUE;
}

Bool RPCManager::QscOnServerInstanceDestroyed(void* context, void* instance, QscServerID id) noexcept {
    const RCPtr<RPCManager> manager = FindByHandle(context);
    if (!manager) {
        LOG(Warn, "RPCManager(0x%p) hServerId(0x%p) not found", context, id);
        return FALSE;
    }
    FUNCTION_TRACE(Info, "%s(0x%p) - hServerId(0x%p) rpcInstance(0x%p)", manager->m_name, context, id, instance);
    RCPtr<RPCPluginInstance> removed;
    {
        KxMutexGuard guard(manager->m_instancesMutex);
        const auto found = manager->m_instances.find(id);
        if (found != manager->m_instances.end()) {
            removed = std::move(found->second);
            manager->m_instances.erase(found);
        }
    }
    if (!removed) {
        LOG(Warn, "rpcInstance(0x%p) for hServerId(0x%p) not found", instance, id);
        return FALSE;
    }
    removed->ChannelDisconnect();
    removed->UnregisterChannelSink();
    manager->OnDestroyServerInstance(id, removed);
    {
        RCPtr<RPCManager> last;  // let go after the lock
        ServerMap& servers = Servers();
        KxMutexGuard guard(servers.mutex);
        const auto found = servers.managers.find(id);
        if (found != servers.managers.end()) {
            last = std::move(found->second);
            servers.managers.erase(found);
        }
    }
    LOG(Info, "rpcInstance(0x%p) destroyed", instance);
    return TRUE;
}
