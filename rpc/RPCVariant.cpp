#include "rpc/RPCVariant.h"

#include "rpc/RPCManager.h"
#include "rpc/RPCPluginInstance.h"

RPCVariant::RPCVariant(RPCPluginInstance* instance)
    : m_instance(instance), m_manager(instance ? instance->m_rpcManager.Lock() : RCPtr<RPCManager>()) {
    vt = 0;
    if (m_manager) m_manager->GetVariantInterface()->VariantInit(this);
}

RPCVariant::RPCVariant(const RCPtr<RPCManager>& manager) : m_manager(manager) {
    vt = 0;
    m_manager->GetVariantInterface()->VariantInit(this);
}

RPCVariant::~RPCVariant() {
    if (m_manager) m_manager->GetVariantInterface()->VariantClear(this);
}
