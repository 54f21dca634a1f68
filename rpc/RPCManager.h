// The framework's one object for each plug-in: binds it to the remoting service and makes one RPCPluginInstance for
// each channel. A plug-in derives from it and overrides the On... hooks.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <vector>

#include "rpc/QSCServiceTables.h"
#include "rpc/QSCServiceTypes.h"
#include "runtime/KxEvent.h"
#include "runtime/KxMutex.h"
#include "runtime/RCObject.h"

class RPCPluginInstance;

// The exports of a service library that this process has loaded itself; null when missing. query and hChannel are
// filled by the service.
extern "C" {

struct QSCService_ServerExports {
    Bool (*ServerInit)(const char* name, QSC_SERVICE_QUERY_INTERFACE* query, void** hChannel);
    Bool (*ServerInitLP)(const char* name, uintptr_t zero, QSC_SERVICE_QUERY_INTERFACE* query, void** hChannel);
    Bool (*ServerExit)();
    Bool (*ServerInit2)(DWORD sessionId, const char* name, QSC_SERVICE_QUERY_INTERFACE* query, void** hChannel);
    Bool (*ServerExit2)(DWORD sessionId);
    Bool (*MultiServerInit)(DWORD sessionId, const char* name, const char* empty, QSC_SERVICE_QUERY_INTERFACE* query,
                            void** hMultiServer);
    Bool (*MultiServerExit)(void* hMultiServer, void* reserved);
};

}  // extern "C"

// Construction calls nothing in the service and touches no process-wide registry, so a manager may be a static object.
// Init and exit can repeat. A failed init leaves the manager ready for another one.
//
// The service knows instances and managers by handle only: each callback first turns its context word into strong
// references and works through those, or finds nothing, logs it at WARN and returns. No lock is held across a call of
// the service or a hook; a hook runs on whatever thread brought the event.
class RPCManager : public RCObject {
public:
    // Object names and the plug-in's name are cut to 63 and 59 characters; null counts as empty.
    RPCManager(const char* name, const char* controlObjName, const char* dataObjName, const char* dataObjTcpName,
               RefCountMode mode);
    ~RPCManager() override;

    // The service's entry points.

    // Binds to the service. Always true: after a failure, which has logged, QSCPluginCreateInstance refuses.
    virtual bool QSCPluginInit(QSC_SERVICE_QUERY_INTERFACE query);

    // Always true.
    virtual bool QSCPluginExit();

    // Makes the instance for hChannel and stores its handle in *instance. The service holds one reference on it, until
    // QSCPluginDestroyInstance. False, with *instance untouched, if the plug-in isn't initialised, OnCreateInstance
    // gave no instance or one without a handle, or instance is null.
    virtual bool QSCPluginCreateInstance(void* hChannel, void** instance);

    // Disconnects the instance with that handle and drops the service's reference. False if the handle is unknown or
    // has been destroyed already.
    virtual bool QSCPluginDestroyInstance(void* instance);

    // Makes the instance of a new channel; never null.
    virtual RPCPluginInstance* OnCreateInstance();
    virtual void OnDestroyInstance(RCPtr<RPCPluginInstance> instance);
    virtual RPCPluginInstance* OnCreateServerInstance(QscServerID id);
    virtual void OnDestroyServerInstance(QscServerID id, RCPtr<RPCPluginInstance> instance);
    // Before the first and after the last step of the plug-in; the results are not read.
    virtual bool OnPluginInit();
    virtual bool OnPluginExit();
    virtual void OnServerInit();
    virtual void OnServerExit();
    virtual void OnClientInit();
    virtual void OnClientExit();
    virtual bool OnServerConnected(QSCService_SessionType type, QscServerID id);
    virtual bool OnServerDisconnected(QscServerID id);
    // The place to set m_tcpSideChannel, and m_virtualSideChannel or m_qvcRawSupported. False fails the init. The
    // second one isn't called when the first has set m_tcpSideChannel.
    virtual bool ConfigureTcpSideChannel();
    virtual bool ConfigureVirtualSideChannel();
    // A channel has come up in a session of that type.
    virtual void OnSessionTypeKnown(QSCService_SessionType type);
    virtual bool IsServerAllowed();

    // Binds as a client. False, after an ERROR line, if already initialised, a table that is needed is missing or a
    // side channel can't be configured. The calling thread becomes the one on which waits feed the service.
    bool ClientInit(const QSC_SERVICE_QUERY_INTERFACE* query);
    bool ClientExit();

    // The server modes, for a process that loads the service itself; the first start loads it, for the manager's life.
    // All are for one thread at a time, the starting one being that on which waits feed the service. Each failure has
    // its ERROR line and leaves the manager ready for another try; a start that fails after the service's own is undone
    // there.

    // Single mode: offers one channel, for rpcPlugin (null is refused), in the process's own session, which is its
    // process group, or in a given one, -1 for none. With msTimeoutReady, in milliseconds, not 0 it also waits for the
    // channel to be ready and fails if it is refused or not ready in time; with 0 it returns at once and OnServerInit
    // is never called. lowPriv counts without a session only. After a failure use a new instance: the failed one may
    // stay registered with what the service had made for it.
    bool ServerInit(RPCPluginInstance* rpcPlugin, uint32_t msTimeoutReady, bool lowPriv);
    bool ServerInitForSession(DWORD sessionId, RPCPluginInstance* rpcPlugin, uint32_t msTimeoutReady);

    // Gives pending messages a second and takes the channel down, unless exitOnDifferentThread leaves both to the
    // caller. False, with nothing changed, for another instance than the one of the start.
    bool ServerExit(RPCPluginInstance* rpcPlugin);
    bool ServerExitForSession(DWORD sessionId, RPCPluginInstance* rpcPlugin, bool exitOnDifferentThread);

    // Multi-server mode: the service reports server connections one by one to OnServerConnected, and makes an instance
    // for each that is started. For a counted manager on the heap, which its caller holds during the start and the
    // start itself until MultiServerExit; that drops all instances and the entries of connections that are still up,
    // and passes reserved on unread. After a start of another mode it lets nothing go. Not to be called from a callback
    // of the service. OnCreateServerInstance isn't asked where the connection's channel can't be had.
    bool MultiServerInit(DWORD sessionId);
    bool MultiServerExit(DWORD sessionId, void* reserved);

    // Have the service make the instance of a server connection, take it down, and take all down. False without the
    // server table, after an ERROR line, and if the service refuses.
    bool StartServer(QscServerID id);
    bool StopServer(QscServerID id);
    bool StopAllServers(QscServerID id);

    // Fetches the service's tables, newest version first. An older version leaves later words null. A table that the
    // service doesn't give keeps what an earlier init left in it, but for that of stream data, which is zeroed.
    bool Init(bool isServer, const QSC_SERVICE_QUERY_INTERFACE* query);

    // Asks the service for another table. FALSE before an init.
    Bool QueryInterface(const QSC_INTERFACE_ID* id, void* table);

    // Null, after a WARN line, for an id that is not known.
    static RCPtr<RPCManager> GetRPCManagerByServerId(QscServerID id);
    static RCPtr<RPCPluginInstance> GetInstanceByServerId(QscServerID id);

    // Waits. On the thread that ran the init a wait also lets the service deliver what it has pending, at least once in
    // each 100 ms. msTimeout is in milliseconds, kInfinite for no limit. They return the result of KxEvent::Wait for
    // one event and of KxEvent::WaitMultiple for several: the position of the event, -1 on time-out, -2 on failure. An
    // empty list is a sleep on the init thread and gives -2 on any other.
    int WaitMultiple(std::vector<KxEvent*>& events, bool waitAll, uint32_t msTimeout, bool alertable);

    // The same on the service's blocking poll: -2 after an ERROR line if the service has none. On a thread other than
    // the init thread there is no difference.
    int PollWaitMultiple(std::vector<KxEvent*>& events, bool waitAll, uint32_t msTimeout, bool alertable);

    // True if event was signaled in time. Null is an empty list.
    bool WaitForEvent(KxEvent* event, uint32_t msTimeout);
    void SleepPumping(uint32_t msTimeout);

    // Callbacks of the service. context is the handle that went with the callback table: the instance's, for the four
    // of the server table the manager's.

    static void OnConnectionStateChanged(void* context, QSCService_ConnectionState current,
                                         QSCService_ConnectionState transition, void* reserved) noexcept;
    static void OnChannelStateChanged(void* context, QSCService_ChannelState current,
                                      QSCService_ChannelState transition, void* reserved) noexcept;
    static void OnPeerChannelObjectCreated(void* context, const char* name, void* reserved) noexcept;
    static void OnChannelControlObjectStateChanged(void* context, void* reserved) noexcept;
    static void OnChannelDataObjectStateChanged(void* context, void* reserved) noexcept;
    static void OnControlMsgInvoke(void* context, void* hContext, void* reserved) noexcept;
    static void OnDataMsgInvoke(void* context, void* hContext, void* reserved) noexcept;
    static void OnMsgDone(void* context, uint32_t requestId, void* hContext) noexcept;
    static void OnMsgAbort(void* context, uint32_t requestId, Bool flag, uint32_t reason) noexcept;
    static Bool QscOnServerConnected(void* context, QSCService_SessionType type, QscServerID id) noexcept;
    static Bool QscOnServerDisconnected(void* context, QscServerID id) noexcept;
    static Bool QscOnServerInstanceCreated(void* context, QscServerID id, void** instance) noexcept;
    static Bool QscOnServerInstanceDestroyed(void* context, void* instance, QscServerID id) noexcept;

    const char* GetName() const { return m_name; }
    bool IsInitialized() const { return m_initialized.load(std::memory_order_acquire); }

    // The tables as the latest init has filled them; they stay where they are for the manager's life.
    const QSCRPC_ChannelContextInterface* GetChannelContextInterface() const { return &m_contextTable; }
    const QSCRPC_VariantInterface* GetVariantInterface() const { return &m_variantTable; }

protected:
    // Supplies the table of the server modes and message channels, which no init fetches. Called before a server start,
    // from a hook of it at the latest. Without it those operations find null words and refuse.
    void SetServerInterface(const QSCService_ServerInterface& table) { m_serverTable = table; }

    // What this side wants of side channels. Written by a subclass in the two configuring hooks, m_surgeSupported by
    // Init; read once instances exist.
    bool m_tcpSideChannel = false;
    bool m_surgeSupported = false;
    bool m_qvcRawSupported = false;
    bool m_virtualSideChannel = false;

private:
    friend class RPCPluginInstance;

    static constexpr size_t kNameSize = 60;
    static constexpr size_t kObjNameSize = 64;

    // What a callback works on, both held; false after a WARN line under the callback's signature if either is gone.
    struct CallbackTarget {
        CallbackTarget(const char* signature, void* context);
        explicit operator bool() const { return static_cast<bool>(manager); }
        RCPtr<RPCPluginInstance> instance;
        RCPtr<RPCManager> manager;
    };

    void FillCallbackTables();

    // The steps of the server modes. Those that take a signature log under it. After CallServerInit has succeeded,
    // QSCServiceServerExit undoes it.
    bool LoadQscService();
    void CloseQscService();
    bool ServerInitImp(DWORD sessionId, const RCPtr<RPCPluginInstance>& rpcPlugin, uint32_t msTimeoutReady,
                       bool multiServerMode, bool lowPriv);
    bool CallServerInit(const char* signature, DWORD sessionId, bool multiServerMode, bool lowPriv,
                        QSC_SERVICE_QUERY_INTERFACE* query, void** hChannel);
    bool BindServer(const char* signature, const QSC_SERVICE_QUERY_INTERFACE& query, bool multiServerMode);
    bool StartSingleServer(const char* signature, const RCPtr<RPCPluginInstance>& rpcPlugin, void* hChannel,
                           uint32_t msTimeoutReady);
    bool StartMultiServer(const char* signature);
    bool QSCServiceServerExit(DWORD sessionId, void* reserved);
    bool ServerExitImp(DWORD sessionId, const RCPtr<RPCPluginInstance>& rpcPlugin, bool exitOnDifferentThread);
    bool InstanceExitImp(const RCPtr<RPCPluginInstance>& instance, bool exitOnDifferentThread);

    void AssignHandle();
    void RemoveHandle(const char* signature);
    void RemoveFromServerMap();
    static RCPtr<RPCManager> FindByHandle(void* handle);
    void* Handle() const;
    const char* RcEnabledText() const { return m_mode == RefCountOn ? "true" : "false"; }

    bool IsServer() const { return m_isServer.load(std::memory_order_acquire); }
    bool IsInitThread() const;
    bool IsEmptyWaitRefused(const char* signature, const std::vector<KxEvent*>& events, bool onInitThread) const;
    // QSC_SESSION_NONE from a service that can't tell.
    QSCService_SessionType GetSessionType() const;

    const RefCountMode m_mode;
    DWORD m_sessionId = static_cast<DWORD>(-1);  // set by a server start
    // Read by entry points and callbacks on other threads than the one that inits: release and acquire, so that who
    // sees an initialised manager sees its tables.
    std::atomic<bool> m_isServer{false};
    bool m_serverApiInitialized = false;
    std::atomic<bool> m_initialized{false};
    void* m_hMultiServer = nullptr;
    std::atomic<uint64_t> m_hInitThreadId{0};  // number of the thread that ran Init, 0 when not initialised
    char m_name[kNameSize];
    char m_controlObjName[kObjNameSize];
    char m_dataObjName[kObjNameSize];
    char m_dataObjTcpName[kObjNameSize];
    RCPtr<RPCPluginInstance> m_rpcPlugin;  // the instance of the single server mode
    void* m_hQscService = nullptr;         // the service library, if this object has loaded it
    QSC_SERVICE_QUERY_INTERFACE m_serviceQuery{};

    QSCService_ServerInterface m_serverTable{};
    QSCService_ChannelInterface m_channelTable{};
    QSCRPC_ChannelObjectInterface m_objectTable{};
    QSCRPC_ChannelContextInterface m_contextTable{};
    QSCRPC_VariantInterface m_variantTable{};

    uint32_t m_serverSinkCookie = 0;
    QSCService_ServerNotifySink m_serverSink;
    QSCService_ChannelNotifySink m_channelSink;
    QSCRPC_ObjectNotifySink m_controlObjectSink;
    QSCRPC_ObjectNotifySink m_dataObjectSink;
    QSCRPC_ContextNotifySink m_contextSink;

    QSCOverlay_ClientInterface m_overlayTable{};
    QSCRPC_StreamDataInterface m_streamDataTable{};

    std::atomic<uint32_t> m_handle{0};  // key in the manager map, 0 until assigned

    KxMutex m_instancesMutex{false, ""};  // guards m_instances
    std::map<QscServerID, RCPtr<RPCPluginInstance>> m_instances GUARDED_BY(m_instancesMutex);

    QSCService_ServerExports m_serverExports{};
};
