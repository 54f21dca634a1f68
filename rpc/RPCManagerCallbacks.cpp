// The callbacks of channels, objects and messages: each finds its instance and its manager by the handle and passes the
// event on.
#include "logging/Log.h"
#include "rpc/QSCServiceText.h"
#include "rpc/RPCManager.h"
#include "rpc/RPCPluginInstance.h"

RPCManager::CallbackTarget::CallbackTarget(const char* signature, void* context)
    : instance(RPCPluginInstance::FindByHandle(context)) {
    if (!instance) {
        LOG_AS(signature, Warn, "RPCPlugin 0x%p not found", context);
        return;
    }
    manager = instance->m_rpcManager.Lock();
    if (!manager) LOG_AS(signature, Warn, "RPCManager of RPCPlugin 0x%p not found", context);
}

// Opens the trace of a callback with the name of its manager, called target.manager.
#define CALLBACK_TRACE(level) FUNCTION_TRACE(level, "%s(0x%p)", target.manager->m_name, target.manager->Handle())

void RPCManager::OnConnectionStateChanged(void* context, QSCService_ConnectionState current,
                                          QSCService_ConnectionState transition, void*) noexcept {
    const CallbackTarget target(__PRETTY_FUNCTION__, context);
    if (!target) return;
    CALLBACK_TRACE(Info);
    LOG(Info, "%s(0x%p) - rpcPlugin(0x%p) Connection is now %s", target.manager->m_name, target.manager->Handle(),
        context, QSCService_StateText(transition));
    if (current != transition) LOG(Info, "   but the current state is %s\n", QSCService_StateText(current));
    target.instance->OnConnectionState(__PRETTY_FUNCTION__, current);
}

void RPCManager::OnChannelStateChanged(void* context, QSCService_ChannelState current,
                                       QSCService_ChannelState transition, void*) noexcept {
    const CallbackTarget target(__PRETTY_FUNCTION__, context);
    if (!target) return;
    CALLBACK_TRACE(Info);
    LOG(Info, "%s(0x%p) - rpcPlugin(0x%p) Channel is now %s\n", target.manager->m_name, target.manager->Handle(),
        context, QSCService_StateText(transition));
    if (current != transition) LOG(Info, "   but the current state is %s\n", QSCService_StateText(current));
    target.instance->OnChannelState(__PRETTY_FUNCTION__, *target.manager, current, transition);
}

void RPCManager::OnPeerChannelObjectCreated(void* context, const char* name, void*) noexcept {
    const CallbackTarget target(__PRETTY_FUNCTION__, context);
    if (!target) return;
    CALLBACK_TRACE(Trace);
    if (!name) name = "";
    LOG(Trace, "%s(0x%p) - rpcPlugin(0x%p) Peer channel object \"%s\" created\n", target.manager->m_name,
        target.manager->Handle(), context, name);
    target.instance->OnPeerObject(*target.manager, name);
}

void RPCManager::OnChannelControlObjectStateChanged(void* context, void*) noexcept {
    const CallbackTarget target(__PRETTY_FUNCTION__, context);
    if (!target) return;
    CALLBACK_TRACE(Trace);
    RPCPluginInstance& instance = *target.instance;
    const QSCRPC_ObjectState state =
        target.manager->m_objectTable.GetObjectState(RPCPluginInstance::LoadHandle(instance.m_hControlObj));
    LOG(Trace, "%s(0x%p) - rpcPlugin(0x%p) Channel object \"%s\" is now %s\n", target.manager->m_name,
        target.manager->Handle(), context, instance.m_controlObjName, QSCService_StateText(state));
    instance.OnControlObjectState(__PRETTY_FUNCTION__, *target.manager, state);
}

void RPCManager::OnChannelDataObjectStateChanged(void* context, void*) noexcept {
    const CallbackTarget target(__PRETTY_FUNCTION__, context);
    if (!target) return;
    CALLBACK_TRACE(Trace);
    RPCPluginInstance& instance = *target.instance;
    const QSCRPC_ObjectState state =
        target.manager->m_objectTable.GetObjectState(RPCPluginInstance::LoadHandle(instance.m_hDataObj));
    LOG(Trace, "%s(0x%p) - rpcPlugin(0x%p) Channel object \"%s\" is now %s\n", target.manager->m_name,
        target.manager->Handle(), context, instance.m_dataObjName, QSCService_StateText(state));
    instance.OnDataObjectState(__PRETTY_FUNCTION__, *target.manager, state);
}

void RPCManager::OnControlMsgInvoke(void* context, void* hContext, void*) noexcept {
    const CallbackTarget target(__PRETTY_FUNCTION__, context);
    if (!target) return;
    CALLBACK_TRACE(Trace);
    target.instance->OnInvoke(hContext);
}

void RPCManager::OnDataMsgInvoke(void* context, void* hContext, void*) noexcept {
    const CallbackTarget target(__PRETTY_FUNCTION__, context);
    if (!target) return;
    CALLBACK_TRACE(Trace);
    target.instance->OnInvoke(hContext);
}

void RPCManager::OnMsgDone(void* context, uint32_t requestId, void* hContext) noexcept {
    const CallbackTarget target(__PRETTY_FUNCTION__, context);
    if (!target) return;
    CALLBACK_TRACE(Trace);
    target.instance->CloseRequest(__PRETTY_FUNCTION__, *target.manager, requestId);
    char pending[128] = "";
    target.instance->UpdatePendingCount(-1, pending, sizeof pending);
    LOG(Trace, "Request %u done%s\n", requestId, pending);
    target.instance->OnDone(requestId, hContext);
}

void RPCManager::OnMsgAbort(void* context, uint32_t requestId, Bool flag, uint32_t reason) noexcept {
    const CallbackTarget target(__PRETTY_FUNCTION__, context);
    if (!target) return;
    CALLBACK_TRACE(Trace);
    char pending[128] = "";
    target.instance->UpdatePendingCount(-1, pending, sizeof pending);
    LOG(Trace, "Request %u aborted%s\n", requestId, pending);
    target.instance->OnAbort(requestId, flag, reason);
}
