// A variant of the service for the length of a scope, for code that uses the service's tables directly.
#pragma once

#include "rpc/QSCServiceTypes.h"
#include "runtime/RCObject.h"

class RPCManager;
class RPCPluginInstance;

// It is the record itself, so &variant goes wherever a table operation expects one. It is initialised on construction
// and cleared, with what it owns, on destruction. Instance and manager are held meanwhile. Without an instance, or
// when it has no manager left, the record is of no kind, vt 0, and nothing is called.
class RPCVariant : public QSC_RPC_VARIANT {
public:
    explicit RPCVariant(RPCPluginInstance* instance);
    // For code that holds the manager already. manager must not be null.
    explicit RPCVariant(const RCPtr<RPCManager>& manager);
    ~RPCVariant();
    RPCVariant(const RPCVariant&) = delete;
    RPCVariant& operator=(const RPCVariant&) = delete;

private:
    const RCPtr<RPCPluginInstance> m_instance;
    const RCPtr<RPCManager> m_manager;
};
