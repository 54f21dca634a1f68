// One end of one channel of the stand-in for the remoting service: its connection, channel and object states, its open
// requests, and the transport under it. The table words are thin wrappers of its operations. Both ends are the same
// class; roles differ only in who opens the channel (the client) and who accepts it (the server).
//
//   auto server = ServiceChannel::Create({.role = Role::Server});
//   server->Listen("unix:", &error);                      // or "unix:/path", "tcp:127.0.0.1:0"
//   auto client = ServiceChannel::Create();
//   client->Dial(server->Address(), &error);
//   ...                                                   // sinks, Connect, objects, messages: through the tables
//   client->Close();  server->Close();                    // before the last reference goes
//
// Most programs use PluginHost (an end with a plug-in), ServiceEnd (an end without) or ScriptedService (a unit test).
//
// What a sink is told, always one callback at a time:
//   transport up        OnConnectionStateChanged(CONNECTED); the client's owner then calls Connect
//   Connect, client     the server accepts as soon as it has a sink, and both ends get
//   OnChannelStateChanged(CONNECTED);
//                       or it rejects, and the client gets DISCONNECTED. Connect on a server waits for the client's.
//   object created      OnPeerChannelObjectCreated on an end that has none of that name; once both ends have created
//   it,
//                       both get OnObjectStateChanged with state CONNECTED
//   object destroyed    OnObjectStateChanged with state DISCONNECTED on the other end
//   Disconnect          OnChannelStateChanged(DISCONNECTED) on the other end only; open requests of both are aborted
//   side channel        OnObjectStateChanged with state SIDE_CHANNEL_PENDING, then SIDE_CHANNEL_CONNECTED or CONNECTED
//   transport down      open requests are aborted, objects read DISCONNECTED, then OnChannelStateChanged(DISCONNECTED)
//   if
//                       the channel was opened, then OnConnectionStateChanged(DISCONNECTED)
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "rpc/QSCServiceTables.h"
#include "standin/qscservice/LockGuard.h"
#include "standin/qscservice/Transport.h"

namespace qscservice {

class MessageContext;

enum class Role : uint32_t { Client = 0, Server = 1 };

// Where callbacks run.
enum class Delivery {
    Threaded,  // on one thread of the channel's own
    Polled,  // queued, and delivered by Channel.v1.Poll and Channel.v3.Poll on the thread that initialised the plug-in
    Manual,  // for ScriptedService: nothing is delivered by itself
};

// For the two ends to make one more connection between them: a side channel, a pair of stream data.
inline constexpr uint32_t kMeetLimitMS = 5000;

struct ChannelOptions {
    Role role = Role::Client;
    Delivery delivery = Delivery::Threaded;
    QSCService_SessionType sessionType = QSC_SESSION_PCOIP;  // announced by a server, taken over by its client
    bool acceptChannel = true;                               // server: false rejects the client's Connect
    uint32_t sideChannels = 0x1E;                            // bit n: side channel type n is available
    uint32_t meetLimitMS = kMeetLimitMS;
    uint32_t helloLimitMS = 10000;  // multi-server: a connection whose peer has not said hello by then is taken down
};

// What became of the messages (posts and requests, not answers) with one command number. Kept over all connections of
// the channel; accepted = confirmed + cut + what is not settled yet. Confirmed and cut are settled, for all that was
// accepted before, when the same two ends meet again after a fall. What was accepted on connections with a peer that
// never comes back, because another one comes instead, is not settled at all.
struct CommandCount {
    uint64_t accepted = 0;       // Invoke gave TRUE
    uint64_t refused = 0;        // Invoke gave FALSE
    uint64_t confirmed = 0;      // of the accepted: reached the peer, as it reported at a reconnection
    uint64_t cut = 0;            // of the accepted: never reached the peer
    uint64_t delivered = 0;      // inbound: given to an object's sink
    uint64_t undeliverable = 0;  // inbound: no connected object to give it to
};

// Reasons of OnMsgAbort; its flag is TRUE when the request may have reached the peer's object.
inline constexpr uint32_t kAbortChannelDown = 1;
inline constexpr uint32_t kAbortNoReceiver = 2;

// What the counts rest on, for another channel with the same peer to go on with.
struct ChannelAccount {
    uint64_t end;  // of this end, and of the peer that it met last
    uint64_t peerEnd;
    std::map<uint32_t, CommandCount> counts;
    CommandTally received;
    CommandTally reported;
    CommandTally settled;
};

// A server that makes a channel for each connection. It is told of each by the id that it gave the channel, on the
// channel's delivery thread unless said otherwise.
class ChannelOwner {
public:
    virtual ~ChannelOwner() = default;
    // Ahead of the channel's own callback of its connection, and behind the last one of them.
    virtual void OnLinkUp(void* ownerId) = 0;
    virtual void OnLinkDown(void* ownerId) = 0;
    // The account of an earlier channel with that peer, if there is one. On the reading thread, before any message.
    virtual std::optional<ChannelAccount> TakeAccount(void* ownerId, uint64_t peerEnd) = 0;
};

struct ChannelObject;
class SideChannel;

// Frames of one source that wait to be delivered: what passes this many bytes still comes in, then the peer waits.
inline constexpr size_t kMaxQueuedBytes = 16u << 20;

class ServiceChannel : public std::enable_shared_from_this<ServiceChannel>, private LinkClient {
public:
    // ownerId is not null when there is an owner.
    static std::shared_ptr<ServiceChannel> Create(const ChannelOptions& options = {},
                                                  std::weak_ptr<ChannelOwner> owner = {}, void* ownerId = nullptr);
    ~ServiceChannel() override;

    const ChannelOptions& Options() const { return m_options; }
    // The word that stands for this channel at the boundary (hChannel).
    void* Handle() { return this; }

    // --- Transport. Errors are one clear sentence; error may be null.

    // Waits for the peer at an address: "unix:" makes a socket in a private temporary folder, "unix:<path>", "tcp:" and
    // "tcp:127.0.0.1:<port>" (port 0: any). Serves one connection at a time, over and over, until Close.
    bool Listen(const std::string& address, std::string* error);
    // Where the peer can dial, once Listen has succeeded: with the path or port that was made up.
    std::string Address() const;
    // Connects to a listening end.
    bool Dial(const std::string& address, std::string* error);
    // Takes over a connected stream socket, such as one end of a socketpair. Closes it even on failure.
    bool Attach(int fd, std::string* error);

    // Takes the connection down at once, as a lost network would: what the socket still holds is lost. Both ends hear
    // of it through their sinks. Returns before they have.
    void Interrupt();
    // After a fall: waits until it has been delivered (Polled: queued) and connects again where Dial did. A listening
    // end has nothing to do and gives true. Not from a callback.
    bool Reconnect(std::string* error);
    // Takes the connection down for good. No callback runs after it. Not from a callback.
    void Close();

    // The last error of this end, empty if none: what was wrong with the peer's bytes, or a failed accept.
    std::string LastError() const;
    std::map<uint32_t, CommandCount> Counts() const;
    ChannelAccount Account() const;
    // Tells this channel from all others, of any process.
    const std::string& UniqueId() const { return m_uniqueId; }
    // Requests of this end that have had neither an answer nor an abort yet.
    size_t OpenRequests() const;
    // Waits for the connection state, up to timeoutMS milliseconds. True when it is reached.
    bool WaitConnectionState(QSCService_ConnectionState state, uint32_t timeoutMS);

    // --- Delivery.

    // Polled: delivers what is pending, if the caller is the polling thread. Nothing inside a callback. Up to 16 MiB
    // wait to be polled, then the peer waits.
    void Poll();
    // The same for up to msWait milliseconds. With other kinds of delivery it only waits for something to happen.
    void PollWait(uint32_t msWait);
    // The one thread that Poll delivers on; any thread before this is called.
    void SetPollThread(std::thread::id thread);
    // Runs the action where callbacks run: on the delivery thread, or inside a later Poll.
    void RunOnDelivery(std::function<void()> action);

    // --- The current channel of a thread, behind table words without a handle.

    // The channel whose callback runs on this thread or that a CurrentChannel scope names; else the one of MakeDefault;
    // else the process's only channel; else null.
    static std::shared_ptr<ServiceChannel> Current();
    void MakeDefault();

    // --- The operations behind the table words, with their contracts.

    bool RegisterSink(const QSCService_ChannelNotifySink* sink, void* context, uint32_t* cookie);
    static bool UnregisterSink(uint32_t cookie);
    bool Connect();
    bool Disconnect();
    QSCService_ConnectionState ConnectionState() const;
    QSCService_SessionType SessionType() const;
    bool IsSideChannelAvailable(uint32_t type) const;
    bool CreateObject(const char* name, const QSCRPC_ObjectNotifySink* sink, void* context, uint32_t flags,
                      void** hObject);
    static bool DestroyObject(void* hObject);
    static QSCRPC_ObjectState ObjectState(void* hObject);
    static bool ObjectOptions(void* hObject, uint32_t* options);
    // Asks the peer to move the object's messages, in both directions, to a connection of their own: TCP for type 2,
    // else a Unix socket. The object's owner hears of SIDE_CHANNEL_PENDING and then, at both ends, of
    // SIDE_CHANNEL_CONNECTED; or, when it fails, once of CONNECTED, and the messages keep their way. Messages may be
    // sent all the while, and keep their order. The connection ends with the object or the channel, and when it falls
    // the whole channel falls. False when the object isn't CONNECTED or has asked before, and when this end doesn't
    // have the type.
    static bool RequestSideChannel(void* hObject, uint32_t type);
    // Gives a descriptor of a stream socket whose other side the peer's SwitchToStreamData gives: the first call of one
    // end meets the first of the other, the second the second, whatever their names. It is blocking and close-on-exec,
    // has the kind of the channel's connection, and belongs to the caller, beyond the channel's life. What nobody has
    // asked for is closed with the channel. hChannel null or unknown: the current channel. Waits for the other end of
    // the transport, not for its owner, up to meetLimitMS. False when that time is up, when the channel isn't connected
    // or falls, and on a client inside a callback that would have to wait.
    static bool SwitchToStreamData(const char* name, void* hChannel, int* fd);
    static bool CreateContext(void* hObject, uint32_t options, void** hContext);
    static bool Invoke(void* hObject, void* hContext, const QSCRPC_ContextNotifySink* sink, void* context);

    // Inside OnMsgInvoke of a request: keeps its context, with everything in it, until Respond or the fall of the
    // channel. False when hContext is not the request that is being delivered.
    bool Defer(void* hContext);
    // Sends the answer of a deferred request with these return values and uses the context up. False when the channel
    // fell since, and when a value can't be carried: then the answer, which has the values ahead of it, still goes out.
    bool Respond(void* hContext, Values returnValues = {});

    // --- Message channels: named ones beside the objects, for as long as this channel lives. Each end may have one of
    // a name. Once both have, each hears OnMsgChannelPeerOpened with three null words, and again for each send of the
    // other with its words. A peer's ids are given out here, and are never those of own channels.

    bool OpenMsgChannel(void* context, const char* name, const QSCService_MsgChannelNotifySink& sink);
    static bool CloseMsgChannel(QscMsgChannelID id);
    // False without a connection, and while the peer has no channel of that name.
    static bool SendMsgChannel(QscMsgChannelID id, void* a, void* b, void* c);
    bool GetMsgChannelInfo(QscMsgChannelID id, QSCService_MsgChannelInfo* info) const;

    // --- For ScriptedService: a peer of any kind, states and callbacks by hand.

    void AttachLink(const std::shared_ptr<Link>& link);
    void ForceConnectionState(QSCService_ConnectionState state);
    void ForceSessionType(QSCService_SessionType type);
    void ForceObjectState(const std::string& name, QSCRPC_ObjectState state);
    bool FireConnectionState(QSCService_ConnectionState current, QSCService_ConnectionState transition);
    bool FireChannelState(QSCService_ChannelState current, QSCService_ChannelState transition);
    bool FirePeerObjectCreated(const char* name);
    bool FireObjectState(const std::string& name);
    bool FireAbort(uint32_t requestId, Bool flag, uint32_t reason);
    // Handles one inbound frame on this thread.
    void Dispatch(const std::shared_ptr<Link>& link, const FrameView& frame);
    // The number and name under which an object's messages travel.
    uint32_t ObjectNumber(const std::string& name) const;
    std::string ObjectName(uint32_t number) const;
    void SetPeerNumber(const std::string& name, uint32_t number);

private:
    friend class CurrentChannel;
    friend class SideChannel;

    struct ReleaseContext {
        void operator()(MessageContext* context) const;
    };
    using ContextPtr = std::unique_ptr<MessageContext, ReleaseContext>;
    struct OpenRequest {
        ContextPtr context;
        QSCRPC_ContextNotifySink sink;
        void* sinkContext;
    };
    using OpenRequestMap = std::map<uint32_t, OpenRequest>;
    // What is left of a channel that has gone down: its state before, and the requests to be aborted.
    struct DroppedChannel {
        QSCService_ChannelState was;
        OpenRequestMap requests;
    };
    using Action = std::function<void()>;
    struct PeerObject {
        uint32_t number;
        uint32_t flags;
    };
    using ObjectPtr = std::shared_ptr<ChannelObject>;
    using SidePtr = std::shared_ptr<SideChannel>;
    struct Streams;

    struct MsgChannel {
        std::string name;
        QSCService_MsgChannelNotifySink sink;
        void* context;
        uint32_t number;
        bool opened;  // its owner has been told
    };
    struct PeerMsgChannel {
        std::string name;
        QscMsgChannelID id;
    };

    ServiceChannel(const ChannelOptions& options, std::weak_ptr<ChannelOwner> owner, void* ownerId);

    // Transport.
    bool CanStart(std::string* error) REQUIRES(m_controlMutex);
    bool DialAgain(std::string* error) REQUIRES(m_controlMutex);
    void StartWorker(std::shared_ptr<Link> link, Action run) REQUIRES(m_controlMutex);
    void JoinWorker() REQUIRES(m_controlMutex);
    void AcceptLoop(Listener& listener);
    void RunLink(const std::shared_ptr<SocketLink>& link);
    void BringLinkUp(const std::shared_ptr<Link>& link);
    void TakeLinkDown(const std::shared_ptr<Link>& link);
    void Fail(const std::shared_ptr<Link>& link, const std::string& error);

    // LinkClient: on the reading thread.
    bool OnFrame(const std::shared_ptr<Link>& link, const FrameView& frame, std::span<const uint8_t> bytes) override;
    void OnWake() override;
    bool WantsFrames() override;

    // Accounting.
    void SayHello(Link& link);
    std::vector<uint8_t> MakeHello() const;
    void AdoptAccount(uint64_t peerEnd);
    const char* Admit(Link& link, const FrameView& frame);
    const char* AdmitFromSide(Link& link, const FrameView& frame, uint32_t peerNumber);
    const char* NoteHello(const FrameView& frame) REQUIRES(m_mutex);
    const char* SettleWith(const CommandTally& received) REQUIRES(m_mutex);
    CommandCount& CountOf(uint32_t command) REQUIRES(m_mutex);
    void AddSentOf(const Link& link) REQUIRES(m_mutex);

    // Delivery.
    void Enqueue(Action action, size_t bytes = 0);
    bool DeliverNext();
    bool DeliverPending();
    bool MayPoll() const;

    // Inbound frames by kind.
    void OnOpen(const FrameView& frame);
    void OnAccept(const FrameView& frame);
    void OnReject(const FrameView& frame);
    void OnClose(const FrameView& frame);
    void OnObjectCreated(const FrameView& frame);
    void OnObjectReady(const FrameView& frame);
    void OnObjectDestroyed(const FrameView& frame);
    void OnSideChannelRequest(const FrameView& frame);
    void OnSideChannelOffer(const FrameView& frame);
    void OnSideChannelRefused(const FrameView& frame);
    void OnSideChannelSwitch(const FrameView& frame);
    void OnStreamDataRequest(const FrameView& frame);
    void OnStreamDataOffer(const FrameView& frame);
    void OnStreamDataRefused(const FrameView& frame);
    void OnMessage(const std::shared_ptr<Link>& link, const FrameView& frame);
    void OnReply(const FrameView& frame);
    void OnAbort(const FrameView& frame);
    void OnMsgChannelOpened(const FrameView& frame);
    void OnMsgChannelClosed(const FrameView& frame);
    void OnMsgChannelWords(const FrameView& frame);

    void AnnounceMsgChannels();
    uint32_t NumberWithPeer(QscMsgChannelID id) const;
    void TellOpened(QscMsgChannelID id);
    void TellPeerOpened(const std::string& name, QscMsgChannelID peer, const uint64_t (&words)[3]);

    // Side channels.
    bool AskForSideChannel(const ObjectPtr& object, uint32_t type);
    SidePtr MakeSideChannel(const ObjectPtr& object, uint64_t number);
    bool StartSideChannel(const ObjectPtr& object, const SidePtr& side);
    void RefuseSideChannel(const std::string& name, uint64_t number);
    void OnSideChannelAccepted(const SidePtr& side, const std::shared_ptr<SocketLink>& link);
    void OnSideChannelFailed(const SidePtr& side);
    bool ForgetSideChannel(const SidePtr& side);
    void OnSideChannelOver(const SidePtr& side, const std::shared_ptr<SocketLink>& link);
    void EndSideChannel(const ObjectPtr& object);
    void FinishSideChannel(const ObjectPtr& object);
    void StopSideChannels();
    void JoinSideChannels();
    SidePtr SideOf(const ObjectPtr& object) const;
    ObjectPtr FindAttempt(const FrameView& frame, SidePtr* side) const;

    // Stream data.
    Fd AcceptStream();
    Fd FetchStream();
    static Fd TakeDialled(Streams& streams);
    bool OfferStream(const std::shared_ptr<Streams>& streams, uint32_t attempt) REQUIRES(m_streamMutex);
    bool HandleStreamFrame(const FrameView& frame);
    static std::shared_ptr<Streams> NewStreams();
    void DropStreams();

    // States.
    void AcceptPeer();
    DroppedChannel DropChannel();
    void AbortRequests(OpenRequestMap&& requests);
    void SetObjectState(const ObjectPtr& object, QSCRPC_ObjectState state);
    std::vector<ObjectPtr> Objects() const;
    std::pair<QSCService_ChannelNotifySink, void*> Sink() const;  // with null words when there is none
    ObjectPtr FindObject(std::string_view name) const REQUIRES(m_mutex);
    ObjectPtr Receiver(uint32_t peerNumber) const REQUIRES(m_mutex);
    std::optional<OpenRequest> TakeRequest(uint32_t requestId);
    bool SendControl(FrameType type, Values values);
    static bool SendAnswer(ChannelObject& object, const std::shared_ptr<Link>& link, MessageContext& context);
    static std::shared_ptr<Link> SendFor(ChannelObject& object, const std::shared_ptr<Link>& link,
                                         std::span<uint8_t> frame);
    static bool SendFrame(Link& link, std::span<uint8_t> frame, bool mayWait);
    bool InvokeOn(const ObjectPtr& object, MessageContext* message, const QSCRPC_ContextNotifySink* sink,
                  void* sinkContext);
    static bool SendPost(ChannelObject& object, const std::shared_ptr<Link>& link, MessageContext* message);
    bool SendRequest(ChannelObject& object, const std::shared_ptr<Link>& link, MessageContext* message,
                     const QSCRPC_ContextNotifySink& sink, void* sinkContext);
    static void RefuseMessage(Link& link, const FrameHeader& header);

    const ChannelOptions m_options;
    const std::weak_ptr<ChannelOwner> m_owner;
    void* const m_ownerId;  // null without an owner
    const std::string m_uniqueId;

    mutable Mutex m_mutex;  // guards states, objects and counts; never held across a callback or a send
    mutable std::condition_variable_any m_changed;        // connection state, queue or delivery
    uint64_t m_endId GUARDED_BY(m_mutex);                 // tells a returning peer from a new one
    std::shared_ptr<Link> m_running GUARDED_BY(m_mutex);  // from the start of a connection to its fall
    std::shared_ptr<Link> m_link GUARDED_BY(m_mutex);     // what is sent goes here: from its delivered rise to its fall
    QSCService_ConnectionState m_connection GUARDED_BY(m_mutex) = QSC_CONNECTION_DISCONNECTED;
    QSCService_ChannelState m_channel GUARDED_BY(m_mutex) = QSC_CHANNEL_DISCONNECTED;
    QSCService_SessionType m_sessionType GUARDED_BY(m_mutex);
    uint32_t m_attempt GUARDED_BY(m_mutex) = 0;  // client: number of its latest Connect; server: of the one it answers
    bool m_peerOpened GUARDED_BY(m_mutex) = false;  // server: a Connect of the client waits for an answer
    QSCService_ChannelNotifySink m_sink GUARDED_BY(m_mutex) = {};
    void* m_sinkContext GUARDED_BY(m_mutex) = nullptr;
    uint32_t m_sinkCookie GUARDED_BY(m_mutex) = 0;  // 0: no sink
    std::vector<ObjectPtr> m_objects GUARDED_BY(m_mutex);
    std::map<std::string, PeerObject, std::less<>> m_peerObjects GUARDED_BY(m_mutex);
    uint32_t m_nextObjectNumber GUARDED_BY(m_mutex) = 1;
    std::map<QscMsgChannelID, MsgChannel> m_msgChannels GUARDED_BY(m_mutex);
    std::map<uint32_t, PeerMsgChannel> m_peerMsgChannels GUARDED_BY(m_mutex);  // by the peer's numbers
    std::vector<SidePtr> m_sides GUARDED_BY(m_mutex);                          // whose threads run; in no account yet
    std::vector<SidePtr> m_endedSides GUARDED_BY(m_mutex);                     // whose threads are to be joined
    std::set<void*> m_deferred GUARDED_BY(m_mutex);          // whoever takes a handle out owns its context
    std::shared_ptr<Streams> m_streams GUARDED_BY(m_mutex);  // of the present channel; another one after each drop
    bool m_isLocal GUARDED_BY(m_mutex) = true;               // the connection is a Unix socket
    std::string m_lastError GUARDED_BY(m_mutex);
    bool m_closed GUARDED_BY(m_mutex) = false;

    // Held while a pair of descriptors is offered, so that the offers keep their order. Taken with no other lock held.
    Mutex m_streamMutex;

    // Guards the requests. Held from booking a request until its frame is sent or queued, so that an answer or a fall
    // never meets one whose context is still being sent. Taken with no other lock held.
    mutable Mutex m_requestMutex;
    OpenRequestMap m_requests GUARDED_BY(m_requestMutex);

    std::map<uint32_t, CommandCount> m_counts GUARDED_BY(m_mutex);
    uint64_t m_peerEnd GUARDED_BY(m_mutex) = 0;   // the end that was met last
    CommandTally m_received GUARDED_BY(m_mutex);  // from m_peerEnd, over all connections with it
    CommandTally m_reported GUARDED_BY(m_mutex);  // received by m_peerEnd, as it said last
    CommandTally m_settled GUARDED_BY(m_mutex);   // of the accepted: settled, or sent to ends that were met before

    std::deque<std::pair<Action, size_t>> m_queue GUARDED_BY(m_mutex);
    size_t m_queuedBytes GUARDED_BY(m_mutex) = 0;
    bool m_delivering GUARDED_BY(m_mutex) = false;  // a thread is in an action of the queue
    std::thread::id m_pollThread GUARDED_BY(m_mutex);

    // Serialises Listen, Dial, Attach, Reconnect and Close; guards the fields below. Held while the worker is joined.
    Mutex m_controlMutex;
    std::thread m_worker GUARDED_BY(m_controlMutex);
    std::string m_dialed GUARDED_BY(m_controlMutex);
    std::shared_ptr<Listener> m_listener GUARDED_BY(m_mutex);
};

// Names the current channel of this thread for its lifetime.
class CurrentChannel {
public:
    explicit CurrentChannel(ServiceChannel* channel);
    ~CurrentChannel();
    CurrentChannel(const CurrentChannel&) = delete;
    CurrentChannel& operator=(const CurrentChannel&) = delete;

private:
    ServiceChannel* m_previous;
};

}  // namespace qscservice
