// The manager in a process that loads the service itself and offers a channel: one instance of the process's own in the
// single mode, or one for each server connection that the service reports in multi-server mode.
#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "logging/Log.h"
#include "rpc/QscServicePath.h"
#include "rpc/RPCManager.h"
#include "rpc/RPCPluginInstance.h"

namespace {

constexpr auto kNoSession = static_cast<DWORD>(-1);
constexpr uint32_t kExitWaitMS = 1000;  // in which pending messages may finish

DWORD OwnSession() {
    return static_cast<DWORD>(getpgid(getpid()));
}

template <typename Function>
void Look(void* library, const char* name, Function** function) {
    *function = reinterpret_cast<Function*>(dlsym(library, name));
}

const char* Text(bool value) {
    return value ? "true" : "false";
}

}  // namespace

bool RPCManager::LoadQscService() {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    if (m_hQscService) return true;
    const char* const path = QscServicePath();
    LOG(Info, "Load qscservice from %s \n", path);
    m_hQscService = dlopen(path, RTLD_LAZY);
    if (!m_hQscService) {
        LOG(Error, "Failed to load \"%s\": 0x%x.\n", path, static_cast<unsigned>(errno));
        return false;
    }
    QSCService_ServerExports& exports = m_serverExports;
    Look(m_hQscService, "QSCService_ServerInit", &exports.ServerInit);
    Look(m_hQscService, "QSCService_ServerInitLP", &exports.ServerInitLP);
    Look(m_hQscService, "QSCService_ServerExit", &exports.ServerExit);
    Look(m_hQscService, "QSCService_ServerInit2", &exports.ServerInit2);
    Look(m_hQscService, "QSCService_ServerExit2", &exports.ServerExit2);
    Look(m_hQscService, "QSCService_MultiServerInit", &exports.MultiServerInit);
    Look(m_hQscService, "QSCService_MultiServerExit", &exports.MultiServerExit);
    if (exports.ServerInit && !exports.ServerExit) {
        LOG(Error, "qscService does not contain matching ServerExit function\n");
    } else if (exports.ServerInit2 && !exports.ServerExit2) {
        LOG(Error, "qscService does not contain matching ServerExit2 function\n");
    } else if (exports.MultiServerInit && !exports.MultiServerExit) {
        LOG(Error, "qscService does not contain matching MultiServerExit function\n");
    } else {
        return true;
    }
    CloseQscService();
    return false;
}

bool RPCManager::ServerInit(RPCPluginInstance* rpcPlugin, uint32_t msTimeoutReady, bool lowPriv) {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    AssignHandle();
    return ServerInitImp(OwnSession(), rpcPlugin, msTimeoutReady, false, lowPriv);
}

bool RPCManager::ServerInitForSession(DWORD sessionId, RPCPluginInstance* rpcPlugin, uint32_t msTimeoutReady) {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    AssignHandle();
    return ServerInitImp(sessionId, rpcPlugin, msTimeoutReady, false, false);
}

bool RPCManager::MultiServerInit(DWORD sessionId) {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    AssignHandle();
    return ServerInitImp(sessionId, {}, 0, true, false);
}

bool RPCManager::ServerInitImp(DWORD sessionId, const RCPtr<RPCPluginInstance>& rpcPlugin, uint32_t msTimeoutReady,
                               bool multiServerMode, bool lowPriv) {
    FUNCTION_TRACE(Info,
                   "%s(0x%p) - sessionId(%d)  rpcPlugin(0x%p)  multiServerMode(%s)  msTimeoutReady(%d)  lowPriv(%s)  "
                   "rcEnabled(%s)",
                   m_name, Handle(), static_cast<int>(sessionId), rpcPlugin ? rpcPlugin->Handle() : nullptr,
                   Text(multiServerMode), static_cast<int>(msTimeoutReady), Text(lowPriv), RcEnabledText());
    if (!IsServerAllowed()) {
        LOG(Error, "Running as server not allowed.\n");
        m_serverApiInitialized = false;
        return false;
    }
    if (IsInitialized()) {
        LOG(Error, "Already initialized\n");
        return false;
    }
    if (multiServerMode && m_mode == RefCountOff) {
        LOG(Error, "Reference counting must be enabled in multi-server mode\n");
        return false;
    }
    if (!multiServerMode && !rpcPlugin) {
        LOG(Error, "rpcPlugin == NULL\n");
        return false;
    }
    if (!LoadQscService()) {
        LOG(Error, "LoadQscService() failed.\n");
        return false;
    }
    QSC_SERVICE_QUERY_INTERFACE query{};
    void* hChannel = nullptr;
    const char* const signature = __PRETTY_FUNCTION__;
    if (!CallServerInit(signature, sessionId, multiServerMode, lowPriv, &query, &hChannel)) return false;
    if (BindServer(signature, query, multiServerMode) &&
        (multiServerMode ? StartMultiServer(signature)
                         : StartSingleServer(signature, rpcPlugin, hChannel, msTimeoutReady))) {
        m_initialized.store(true, std::memory_order_release);
        return true;
    }
    m_sessionId = kNoSession;
    QSCServiceServerExit(sessionId, nullptr);
    m_serverApiInitialized = false;  // it is undone: an exit has nothing left to do
    m_rpcPlugin = nullptr;
    return false;
}

// Calls the export for the session.
bool RPCManager::CallServerInit(const char* signature, DWORD sessionId, bool multiServerMode, bool lowPriv,
                                QSC_SERVICE_QUERY_INTERFACE* query, void** hChannel) {
    const auto call = [&](const char* name, auto* function, auto... arguments) {
        if (!function) {
            LOG_AS(signature, Error, "%s not available\n", name);
            return false;
        }
        m_serverApiInitialized = function(arguments...) != FALSE;
        if (!m_serverApiInitialized) LOG_AS(signature, Error, "%s failed\n", name);
        return m_serverApiInitialized;
    };
    const QSCService_ServerExports& exports = m_serverExports;
    m_sessionId = sessionId;
    if (multiServerMode) {
        const bool called = call("QSCService_MultiServerInit()", exports.MultiServerInit, sessionId, m_name, "", query,
                                 &m_hMultiServer);
        if (!called) m_hMultiServer = nullptr;  // of a server that doesn't exist, whatever was left there
        return called;
    }
    if (sessionId != kNoSession) {
        return call("QSCService_ServerInit2()", exports.ServerInit2, sessionId, m_name, query, hChannel);
    }
    if (lowPriv) {
        return call("QSCService_ServerInitLP()", exports.ServerInitLP, m_name, uintptr_t{0}, query, hChannel);
    }
    return call("QSCService_ServerInit()", exports.ServerInit, m_name, query, hChannel);
}

// Fetches the tables and settles the side channels.
bool RPCManager::BindServer(const char* signature, const QSC_SERVICE_QUERY_INTERFACE& query, bool multiServerMode) {
    if (!Init(true, &query)) {
        LOG_AS(signature, Error, "Init() failed\n");
        return false;
    }
    const auto isUnavailable = [&](QSCRPC_SideChannelType type) {
        return !multiServerMode &&
               (!m_objectTable.IsSideChannelAvailable || !m_objectTable.IsSideChannelAvailable(type));
    };
    if (!ConfigureTcpSideChannel()) {
        LOG_AS(signature, Error, "Error in configuring TcpSide Channel.\n");
        return false;
    }
    if (m_tcpSideChannel) {
        if (isUnavailable(QSC_SIDE_CHANNEL_TCP)) {
            LOG_AS(signature, Error, "TCP requested but unavailable\n");
            return false;
        }
    } else if (!ConfigureVirtualSideChannel()) {
        LOG_AS(signature, Error, "Error in configuring Virtual Side Channel.\n");
        return false;
    }
    if (m_virtualSideChannel && isUnavailable(QSC_SIDE_CHANNEL_VIRTUAL)) {
        LOG_AS(signature, Error, "Virtual side channel requested but unavailable\n");
        return false;
    }
    return true;
}

bool RPCManager::StartSingleServer(const char* signature, const RCPtr<RPCPluginInstance>& rpcPlugin, void* hChannel,
                                   uint32_t msTimeoutReady) {
    m_rpcPlugin = rpcPlugin;
    if (!rpcPlugin->RegisterChannelSink(hChannel)) {
        LOG_AS(signature, Error, "RegisterChannelSink() failed\n");
        return false;
    }
    const int result = msTimeoutReady == 0 ? 0 : rpcPlugin->WaitUntilReadyOrRejected(msTimeoutReady);
    if (result != 0) LOG_AS(signature, Error, "WaitUntilReadyOrRejected failed [%d]\n", result);
    return result == 0;
}

bool RPCManager::StartMultiServer(const char* signature) {
    if (!m_serverTable.RegisterServerNotifySink) {
        LOG_AS(signature, Error, "ServerInterface is needed for MultiServer mode.\n");
        return false;
    }
    if (!m_serverTable.RegisterServerNotifySink(Handle(), &m_serverSink, m_hMultiServer, &m_serverSinkCookie)) {
        m_serverSinkCookie = 0;
        LOG_AS(signature, Error, "RegisterServerNotifySink() failed.\n");
        return false;
    }
    AddRef();  // for MultiServerExit
    return true;
}

bool RPCManager::QSCServiceServerExit(DWORD sessionId, void* reserved) {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    const QSCService_ServerExports& exports = m_serverExports;
    if (void* const hMultiServer = std::exchange(m_hMultiServer, nullptr)) {
        if (!exports.MultiServerExit(hMultiServer, reserved)) {
            LOG(Error, "QSCService_MultiServerExit(0x%p) failed.\n", hMultiServer);
            return false;
        }
    } else if (sessionId == kNoSession) {
        if (!exports.ServerExit || !exports.ServerExit()) {
            LOG(Error, "QSCService_ServerExit() failed.\n");
            return false;
        }
    } else if (!exports.ServerExit2 || !exports.ServerExit2(sessionId)) {
        LOG(Error, "QSCService_ServerExit2(%d) failed.\n", static_cast<int>(sessionId));
        return false;
    }
    LOG(Info, "QSCService_ServerExit() [OK]\n");
    return true;
}

bool RPCManager::ServerExit(RPCPluginInstance* rpcPlugin) {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    return ServerExitImp(OwnSession(), rpcPlugin, false);
}

bool RPCManager::ServerExitForSession(DWORD sessionId, RPCPluginInstance* rpcPlugin, bool exitOnDifferentThread) {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    return ServerExitImp(sessionId, rpcPlugin, exitOnDifferentThread);
}

bool RPCManager::ServerExitImp(DWORD sessionId, const RCPtr<RPCPluginInstance>& rpcPlugin, bool exitOnDifferentThread) {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    if (!IsInitialized()) {
        LOG(Error, "Not initialized\n");
        return false;
    }
    if (!rpcPlugin) {
        LOG(Error, "rpcPlugin == NULL\n");
        return false;
    }
    void* const started = m_rpcPlugin ? m_rpcPlugin->Handle() : nullptr;
    if (rpcPlugin->Handle() != started) {
        LOG(Error, "RPCPlugin mismatch - Init(0x%p)  Exit(0x%p)", started, rpcPlugin->Handle());
        return false;
    }
    InstanceExitImp(rpcPlugin, exitOnDifferentThread);
    const bool exited = !std::exchange(m_serverApiInitialized, false) || QSCServiceServerExit(sessionId, nullptr);
    OnServerExit();
    m_initialized.store(false, std::memory_order_release);
    m_hInitThreadId.store(0, std::memory_order_relaxed);
    m_rpcPlugin = nullptr;
    m_sessionId = kNoSession;
    return exited;
}

bool RPCManager::InstanceExitImp(const RCPtr<RPCPluginInstance>& instance, bool exitOnDifferentThread) {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    if (exitOnDifferentThread) return true;
    instance->WaitForPendingMessages(kExitWaitMS);
    if (instance->IsStreamDataMode()) return true;
    bool exited = true;
    if (!instance->ChannelDisconnect()) {
        LOG(Error, "ChannelDisconnect() failed\n");
        exited = false;
    }
    if (!instance->UnregisterChannelSink()) {
        LOG(Error, "UnregisterChannelSink() failed\n");
        exited = false;
    }
    return exited;
}

// The reference of the start is the last thing to go, as this object may go with it. Only a multi-server start has
// taken one: a manager in another mode keeps its count.
bool RPCManager::MultiServerExit(DWORD sessionId, void* reserved) {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    if (m_serverSinkCookie != 0) {
        if (m_serverTable.UnregisterServerNotifySink && m_serverTable.UnregisterServerNotifySink(m_serverSinkCookie)) {
            m_serverSinkCookie = 0;
        } else {
            LOG(Error, "UnregisterServerNotifySink() failed.\n");
        }
    }
    bool exited = true;
    {
        KxMutexGuard guard(m_instancesMutex);
        for (const auto& [id, instance] : m_instances) exited = InstanceExitImp(instance, true) && exited;
    }
    OnServerExit();
    {
        std::map<QscServerID, RCPtr<RPCPluginInstance>> released;  // go after the lock
        KxMutexGuard guard(m_instancesMutex);
        released.swap(m_instances);
    }
    if (std::exchange(m_serverApiInitialized, false)) exited = QSCServiceServerExit(sessionId, reserved) && exited;
    RemoveFromServerMap();  // of connections that were up: their instances are gone, and no report of that comes
    const bool wasInitialized = m_initialized.exchange(false, std::memory_order_acq_rel);
    m_hInitThreadId.store(0, std::memory_order_relaxed);
    m_sessionId = kNoSession;
    const bool heldByStart = wasInitialized && IsServer() && !m_rpcPlugin;
    m_rpcPlugin = nullptr;
    if (heldByStart) Release();
    return exited;
}

bool RPCManager::StartServer(QscServerID id) {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    if (!m_serverTable.StartServer) {
        LOG(Error, "Must called from multi-server mode.\n");
        return false;
    }
    return m_serverTable.StartServer(Handle(), id) == 1;
}

bool RPCManager::StopServer(QscServerID id) {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    if (!m_serverTable.StopServer) {
        LOG(Error, "Must called from multi-server mode.\n");
        return false;
    }
    return m_serverTable.StopServer(id) == 1;
}

bool RPCManager::StopAllServers(QscServerID id) {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    if (!m_serverTable.StopAllServers) {
        LOG(Error, "Must called from multi-server mode.\n");
        return false;
    }
    return m_serverTable.StopAllServers(id) == 1;
}
