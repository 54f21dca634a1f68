// The framework's object for one channel to the peer, from the connection to the messages. A plug-in derives from it
// and overrides the On... hooks.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <vector>

#include "rpc/QSCServiceTables.h"
#include "rpc/QSCServiceTypes.h"
#include "runtime/KxEvent.h"
#include "runtime/KxMutex.h"
#include "runtime/KxTimer.h"
#include "runtime/RCObject.h"

class RPCManager;

// The instance is ready while both of its channel objects are connected; messages are refused at any other time. It
// survives any number of connects and disconnects. All operations need the manager, which is held for their length;
// with the manager gone they log it at ERROR and refuse. In stream data mode the operations on the channel, the objects
// and the waits refuse with an ERROR line.
//
// State callbacks may come on several threads at once: the flags change under a lock, which is held across no hook and
// no call of the service. OnReady and OnNotReady then may overlap, in the way in which the service's callbacks do.
class RPCPluginInstance : public RCObject {
public:
    // manager may be null, for an instance that refuses everything.
    RPCPluginInstance(RPCManager* manager, RefCountMode mode);
    ~RPCPluginInstance() override;

    virtual bool SuppressObjectFlag8();
    virtual bool SuppressObjectFlag4();
    // The peer has refused the channel, or it went before it came up.
    virtual void OnRejected();
    virtual void OnMsgChannelReady(void* hMsgChannel, const char* name);
    virtual void OnMsgChannelPeerOpened(void* hMsgChannel, void* a, QscMsgChannelID peer, void* b, void* c);
    // Messages may flow; and no longer. Once for each rise and fall.
    virtual void OnReady();
    virtual void OnNotReady();
    // A request was answered, or discarded by the other side.
    virtual void OnDone(uint32_t requestId, void* context);
    virtual void OnAbort(uint32_t requestId, Bool flag, uint32_t reason);
    // The peer has sent a message, on either object. It belongs to the service.
    virtual void OnInvoke(void* context);

    // Registers for the events of hChannel. A connection that is up already is handled before the return. True also
    // when registered before; false after an ERROR line.
    bool RegisterChannelSink(void* hChannel);

    // True also when not registered.
    bool UnregisterChannelSink();

    bool ChannelConnect();

    // Tears the local state down in any case; false if the service refused to disconnect.
    bool ChannelDisconnect();

    void OnChannelConnected();
    void OnChannelDisconnected();

    // msTimeout in milliseconds, kInfinite for no limit. A wait on the manager's init thread feeds the service.
    bool WaitUntilReady(uint32_t msTimeout);

    // 0 ready (OnServerInit of the manager has been called), 1 rejected, -1 timed out, -2 nothing to wait for; 0 in
    // stream data mode.
    int WaitUntilReadyOrRejected(uint32_t msTimeout);

    // Create one of the two objects; the service reports when it is connected. True also if it is there already. False
    // after an ERROR line, silently for a null or empty name or null hObject.
    bool ChannelControlObjCreate(const char* name);
    bool ChannelDataObjCreate(const char* name);
    bool ChannelObjCreate(char* name, const QSCRPC_ObjectNotifySink* sink, bool wantTcp, bool wantVirtual,
                          void** hObject);

    // *hObject is null afterwards. Ends readiness.
    bool ChannelObjDestroy(char* name, void** hObject);

    void OnChannelControlObjConnected();
    void OnChannelDataObjConnected();
    void OnChannelControlObjDisconnected();
    void OnChannelDataObjDisconnected();

    // Messages. Calling order: CreateMessage, fill the context through a QSCServiceCommand, InvokeMessage; when that
    // gives false DestroyMessage, when it gives true the context is the service's. All refusals are logged at DEBUG.

    bool CreateMessage(void** hContext, RPCChannelType type);

    // With options of the service; 0 is CreateMessage. False after an ERROR line if the service has no such operation.
    bool CreateExtMessage(void** hContext, RPCChannelType type, uint32_t options);
    bool GetChannelOptions(RPCChannelType type, uint32_t* options);

    // Sends a post, or with expectResponse a request, which is pending until OnDone or OnAbort. hContext isn't tested:
    // the service refuses a null one. A request that the service refuses is not pending.
    bool InvokeMessage(void* hContext, Bool expectResponse, RPCChannelType type);
    bool DestroyMessage(void* hContext);

    // True once no request is pending.
    bool WaitForPendingMessages(uint32_t msTimeout);

    // Message channels: named channels beside the two objects, for which the manager needs the server table (see
    // RPCManager::SetServerInterface). A handle is good from OpenMsgChannel to CloseMsgChannel; a stale one gives false
    // or null quietly. What the words a, b and c say is between the two users and the service.

    // Null if the service refuses, after an ERROR line, and silently without the table. OnMsgChannelReady tells when
    // the channel is open, possibly before this returns.
    void* OpenMsgChannel(const char* name);
    // The handle is gone afterwards in any case; true if the service has closed the channel.
    bool CloseMsgChannel(void* handle);
    bool SendMsgChannel(void* handle, void* a, void* b, void* c);
    bool IsMsgChannelOpened(void* handle);
    // Has the service fill info for a peer that OnMsgChannelPeerOpened told of, for an own channel by its handle, or
    // for any other id as it stands. False for an own channel that isn't open yet, after a WARN line.
    bool GetMsgChannelInfo(QscMsgChannelID id, QSCService_MsgChannelInfo* info);

    // The text by which the service tells this server connection from all others. size is that of buffer in bytes. 0,
    // after a WARN line, without the service's operation.
    int GetUniqueSerializedIdSize();
    Bool GetUniqueSerializedId(int size, char* buffer);
    Bool IsUniqueSerializedIdOwner(const char* id);

    // Gives up messages for a stream of bytes: the descriptor, which the caller owns and closes, or 0 after an ERROR
    // line; a descriptor that is 0 itself can't be told from that. There is no way back: the operations on the channel,
    // the objects and the waits refuse from then on.
    int SwitchToStreamDataMode();

    // The manager's tables, null if the manager is gone. They live as long as the manager.
    const QSCRPC_ChannelContextInterface* GetChannelContextInterface() const;
    const QSCRPC_VariantInterface* GetVariantInterface() const;

    bool IsReady() const { return m_ready.load(std::memory_order_acquire); }

protected:
    // While set, new connections are refused with a WARN line.
    void SetDiscardConnection(bool discard) { m_discardConnection.store(discard, std::memory_order_relaxed); }

    // Adds delta to the count of pending requests, which never falls below 0, and keeps m_noPendingEvent in step.
    // Writes a text for diagnostics into text, cut to textSize bytes, unless that is null. Returns the new count.
    int UpdatePendingCount(int delta, char* text, int textSize);

    // Milliseconds since the oldest request that is pending was sent; 0 when none is.
    uint64 OldestPendingMS();

private:
    friend class RPCManager;
    friend class RPCVariant;

    static constexpr size_t kObjNameSize = 64;

    struct PendingRequest {
        uint32_t requestId;
        KxElapsedTimer sentTimer;
    };

    // What an operation begins with: its trace, and the manager, held.
    struct Operation;
    RCPtr<RPCManager> RequireManager(const char* signature) const;

    // The service's callbacks of a message channel; context is the handle of it.
    static Bool QscOnMsgChannelOpened(void* context, QscMsgChannelID id) noexcept;
    static void QscOnMsgChannelPeerOpened(void* context, void* a, QscMsgChannelID peer, void* b, void* c) noexcept;
    bool IsPeerMsgChannel(QscMsgChannelID id) EXCLUDES(m_stateMutex);

    // Null for a handle whose instance is gone.
    static RCPtr<RPCPluginInstance> FindByHandle(void* handle);
    void* Handle() const;
    bool IsStreamDataMode() const { return m_streamDataMode.load(std::memory_order_relaxed); }
    bool RefusesStreamData(const char* signature, const char* refusal) const;
    bool TakeServiceReference() { return m_heldByService.exchange(false, std::memory_order_acq_rel); }

    // What the manager's callbacks do once they have found the instance and logged the event. They log under signature,
    // the callback's. CloseRequest only takes the request out of the list.
    void OnConnectionState(const char* signature, QSCService_ConnectionState current);
    void OnChannelState(const char* signature, RPCManager& manager, QSCService_ChannelState current,
                        QSCService_ChannelState transition);
    void OnControlObjectState(const char* signature, RPCManager& manager, QSCRPC_ObjectState state);
    void OnDataObjectState(const char* signature, RPCManager& manager, QSCRPC_ObjectState state);
    void OnPeerObject(RPCManager& manager, const char* name);
    void CloseRequest(const char* signature, RPCManager& manager, uint32_t requestId);

    static void* LoadHandle(void*& hObject);
    static void* TakeHandle(void*& hObject);

    void SetObjectConnected(RPCChannelType type);
    void ClearObjectConnected(RPCChannelType type);
    void DropReady();

    // What the peer offers for the data object, as far as this side can use it.
    struct SideChannelOffer {
        uint32_t options;  // the three side channel bits
        bool surge;
        bool raw;
    };
    uint32_t ObjectFlags(const RPCManager& manager, bool wantTcp, bool wantVirtual);
    SideChannelOffer ReadSideChannelOffer(const char* signature, const RPCManager& manager);
    void DecideSideChannel(const char* signature, RPCManager& manager);
    void DecideByOffer(const char* signature, RPCManager& manager, const SideChannelOffer& offer);
    void DecideByOwnWishes(const char* signature, RPCManager& manager, const SideChannelOffer& offer);
    void RequestPreferredSideChannel(const char* signature, RPCManager& manager, const SideChannelOffer& offer);
    void RequestSideChannel(RPCManager& manager, QSCRPC_SideChannelType type);

    // The senders' copy of one of the two handles, null for any other; and its update from the handle.
    std::atomic<void*>* SendObject(void* const* hObject);
    void PublishObject(void** hObject) REQUIRES(m_stateMutex);
    void* ObjectOf(RPCChannelType type) const;
    void* ObjectForNewMessage(const char* signature, RPCChannelType type) const;
    static bool SetPostMode(const RCPtr<RPCManager>& manager, void* hContext);

    static constexpr uint32_t kNoCookie = 0xFFFFFFFF;

    const WkPtr<RPCManager> m_rpcManager;
    void* m_hChannel = nullptr;         // null when no sink is registered
    uint32_t m_sinkCookie = kNoCookie;  // kNoCookie when no sink is registered
    std::atomic<bool> m_discardConnection{false};
    char m_controlObjName[kObjNameSize]{};
    // The service writes the handles of the two objects on creation, before it reports their first state; all else goes
    // through LoadHandle and TakeHandle, as callbacks and a teardown may meet. Senders, which may look at any time,
    // have copies of their own.
    void* m_hControlObj = nullptr;
    char m_dataObjName[kObjNameSize]{};
    void* m_hDataObj = nullptr;

    // Guards the flags of the channel and the objects, with m_ready, two events and the copies of the handles in step.
    KxMutex m_stateMutex{false, ""};
    bool m_connectRequested GUARDED_BY(m_stateMutex) = false;  // Connect is under way or has succeeded
    bool m_channelConnected GUARDED_BY(m_stateMutex) = false;  // the service has reported the channel connected
    // Single flags that nothing else depends on: relaxed.
    std::atomic<bool> m_tcpSideChannel{false};  // the wishes of the latest ChannelObjCreate
    std::atomic<bool> m_virtualSideChannel{false};
    std::atomic<bool> m_sideChannelPending{false};
    // Written under m_stateMutex with release, read by senders with acquire.
    std::atomic<bool> m_ready{false};
    // The handles as senders see them, written under m_stateMutex with release.
    std::atomic<void*> m_controlSendObj{nullptr};
    std::atomic<void*> m_dataSendObj{nullptr};
    bool m_controlObjConnected GUARDED_BY(m_stateMutex) = false;
    bool m_dataObjConnected GUARDED_BY(m_stateMutex) = false;
    std::atomic<bool> m_streamDataMode{false};  // set once, for good; relaxed

    KxMutex m_mutex{false, ""};                // guards m_pendingRequests and changes of m_pendingCount with its event
    KxEvent m_noPendingEvent{true, true, ""};  // signaled while m_pendingCount is 0
    std::atomic<int32_t> m_pendingCount{0};    // requests sent and not closed; a lone read needs no order: relaxed
    KxEvent m_readyEvent{true, false, ""};     // signaled while m_ready
    KxEvent m_rejectedEvent{true, false, ""};
    QscServerID m_hServerId = nullptr;                                        // null on a client
    uint32_t m_handle = 0;                                                    // key in the instance map
    std::vector<QscMsgChannelID> m_peerMsgChannels GUARDED_BY(m_stateMutex);  // all that were ever seen
    std::list<PendingRequest> m_pendingRequests GUARDED_BY(m_mutex);          // in sending order
    std::atomic<bool> m_heldByService{false};  // the service's reference; whoever clears it releases
};
