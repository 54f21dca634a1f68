// What the operations of RPCPluginInstance begin with. Private to its sources.
#pragma once

#include "logging/Log.h"
#include "rpc/RPCManager.h"
#include "rpc/RPCPluginInstance.h"

// const Operation operation(kLogInfo, __PRETTY_FUNCTION__, *this);
// if (!operation) return false;
//
// Holds the manager and traces the operation under signature. False, after an ERROR line, if the manager is gone.
struct RPCPluginInstance::Operation {
    Operation(int level, const char* signature, const RPCPluginInstance& instance)
        : manager(instance.RequireManager(signature)),
          trace(level, signature, RCPtr<Logger>(), "%s(0x%p) - rpcPlugin(0x%p)", manager ? manager->m_name : "",
                manager ? manager->Handle() : nullptr, instance.Handle()) {}

    explicit operator bool() const { return static_cast<bool>(manager); }

    const RCPtr<RPCManager> manager;
    FunctionTrace trace;
};
