// The life of the channel on a connection. A client's Connect carries a number; the server's answer, and the Close of
// either end, carry it again, so that what was sent to an earlier attempt is told from what concerns the present one.
#include "standin/qscservice/ServiceChannel.h"

#include <chrono>
#include <cstdio>
#include <utility>

#include "standin/qscservice/ChannelObject.h"
#include "standin/qscservice/MessageContext.h"
#include "standin/qscservice/Rendezvous.h"

namespace qscservice {

namespace {

std::string RandomName() {
    char text[33];
    std::snprintf(text, sizeof text, "%016llX%016llX", static_cast<unsigned long long>(RandomNumber()),
                  static_cast<unsigned long long>(RandomNumber()));
    return text;
}

}  // namespace

std::shared_ptr<ServiceChannel> ServiceChannel::Create(const ChannelOptions& options, std::weak_ptr<ChannelOwner> owner,
                                                       void* ownerId) {
    std::shared_ptr<ServiceChannel> channel(new ServiceChannel(options, std::move(owner), ownerId));
    Registry::The().AddChannel(channel);
    return channel;
}

ServiceChannel::ServiceChannel(const ChannelOptions& options, std::weak_ptr<ChannelOwner> owner, void* ownerId)
    : m_options(options),
      m_owner(std::move(owner)),
      m_ownerId(ownerId),
      m_uniqueId(RandomName()),
      m_endId(RandomNumber()),
      m_sessionType(options.role == Role::Server ? options.sessionType : QSC_SESSION_NONE),
      m_streams(NewStreams()) {}

// Without a Close, the worker that has just ended may hold the last reference.
ServiceChannel::~ServiceChannel() {
    DropChannel();
    for (const ObjectPtr& object : m_objects) Registry::The().RemoveObject(object->handle);
    for (const auto& [id, channel] : m_msgChannels) Registry::The().RemoveMsgChannel(id);
    if (m_worker.joinable()) m_worker.detach();
}

bool ServiceChannel::RegisterSink(const QSCService_ChannelNotifySink* sink, void* context, uint32_t* cookie) {
    if (!sink || !cookie) return false;
    bool waits = false;
    {
        Lock lock(m_mutex);
        if (m_sinkCookie != 0) return false;
        m_sink = *sink;
        m_sinkContext = context;
        m_sinkCookie = Registry::The().AddSink(shared_from_this());
        *cookie = m_sinkCookie;
        waits = m_peerOpened;
    }
    if (waits) Enqueue([this] { AcceptPeer(); });
    return true;
}

bool ServiceChannel::UnregisterSink(uint32_t cookie) {
    const std::shared_ptr<ServiceChannel> channel = Registry::The().RemoveSink(cookie);
    if (!channel) return false;
    Lock lock(channel->m_mutex);
    channel->m_sink = {};
    channel->m_sinkContext = nullptr;
    channel->m_sinkCookie = 0;
    return true;
}

bool ServiceChannel::Connect() {
    uint32_t attempt = 0;
    {
        Lock lock(m_mutex);
        if (m_connection != QSC_CONNECTION_CONNECTED || !m_link) return false;
        if (m_options.role == Role::Server || m_channel != QSC_CHANNEL_DISCONNECTED) return true;
        m_channel = QSC_CHANNEL_PENDING;
        attempt = ++m_attempt;
    }
    return SendControl(FrameType::Open, {attempt});
}

bool ServiceChannel::Disconnect() {
    uint32_t attempt = 0;
    bool close = false;
    {
        Lock lock(m_mutex);
        attempt = m_attempt;
        close = m_channel != QSC_CHANNEL_DISCONNECTED || m_peerOpened;
    }
    if (!close) return true;
    SendControl(FrameType::Close, {attempt});
    if (m_options.delivery == Delivery::Manual) {
        Lock lock(m_mutex);
        m_channel = QSC_CHANNEL_DISCONNECTED;
        return true;
    }
    const auto requests = std::make_shared<OpenRequestMap>(DropChannel().requests);
    if (!requests->empty()) Enqueue([this, requests] { AbortRequests(std::move(*requests)); });
    return true;
}

QSCService_ConnectionState ServiceChannel::ConnectionState() const {
    Lock lock(m_mutex);
    return m_connection;
}

QSCService_SessionType ServiceChannel::SessionType() const {
    Lock lock(m_mutex);
    return m_sessionType;
}

bool ServiceChannel::WaitConnectionState(QSCService_ConnectionState state, uint32_t timeoutMS) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMS);
    Lock lock(m_mutex);
    while (m_connection != state) {
        if (m_changed.wait_until(m_mutex, deadline) == std::cv_status::timeout) return m_connection == state;
    }
    return true;
}

bool ServiceChannel::SendControl(FrameType type, Values values) {
    std::shared_ptr<Link> link;
    {
        Lock lock(m_mutex);
        link = m_link;
    }
    if (!link) return false;
    std::vector<uint8_t> frame = MakeFrame(type, values);
    return SendFrame(*link, frame, false);
}

bool ServiceChannel::SendFrame(Link& link, std::span<uint8_t> frame, bool mayWait) {
    if (!link.Send(frame)) return false;
    link.FinishSend(frame.size(), mayWait);
    return true;
}

void ServiceChannel::OnOpen(const FrameView& frame) {
    const auto attempt = static_cast<uint32_t>(ItemValues(frame)[0].number);
    {
        Lock lock(m_mutex);
        if (m_channel != QSC_CHANNEL_DISCONNECTED) return;
        m_attempt = attempt;
        m_peerOpened = m_options.acceptChannel;
    }
    if (m_options.acceptChannel)
        AcceptPeer();
    else
        SendControl(FrameType::Reject, {attempt});
}

// The answer goes out ahead of the state, so that no frame about an object gets ahead of it.
void ServiceChannel::AcceptPeer() {
    uint32_t attempt = 0;
    int32_t sessionType = 0;
    {
        Lock lock(m_mutex);
        if (!m_peerOpened || m_sinkCookie == 0 || !m_link) return;
        m_peerOpened = false;
        attempt = m_attempt;
        sessionType = m_sessionType;
    }
    if (!SendControl(FrameType::Accept, {attempt, sessionType})) return;
    {
        Lock lock(m_mutex);
        m_channel = QSC_CHANNEL_CONNECTED;
    }
    FireChannelState(QSC_CHANNEL_CONNECTED, QSC_CHANNEL_CONNECTED);
}

void ServiceChannel::OnAccept(const FrameView& frame) {
    const std::vector<Value> values = ItemValues(frame);
    {
        Lock lock(m_mutex);
        if (m_channel != QSC_CHANNEL_PENDING || static_cast<uint32_t>(values[0].number) != m_attempt) return;
        m_channel = QSC_CHANNEL_CONNECTED;
        m_sessionType = static_cast<QSCService_SessionType>(static_cast<int32_t>(values[1].number));
    }
    FireChannelState(QSC_CHANNEL_CONNECTED, QSC_CHANNEL_CONNECTED);
}

void ServiceChannel::OnReject(const FrameView& frame) {
    {
        Lock lock(m_mutex);
        const auto attempt = static_cast<uint32_t>(ItemValues(frame)[0].number);
        if (m_channel != QSC_CHANNEL_PENDING || attempt != m_attempt) return;
        m_channel = QSC_CHANNEL_DISCONNECTED;
    }
    FireChannelState(QSC_CHANNEL_DISCONNECTED, QSC_CHANNEL_DISCONNECTED);
}

void ServiceChannel::OnClose(const FrameView& frame) {
    {
        Lock lock(m_mutex);
        if (static_cast<uint32_t>(ItemValues(frame)[0].number) != m_attempt) return;
    }
    for (const ObjectPtr& object : Objects()) FinishSideChannel(object);
    DroppedChannel dropped = DropChannel();
    AbortRequests(std::move(dropped.requests));
    if (dropped.was != QSC_CHANNEL_DISCONNECTED) FireChannelState(QSC_CHANNEL_DISCONNECTED, QSC_CHANNEL_DISCONNECTED);
}

ServiceChannel::DroppedChannel ServiceChannel::DropChannel() {
    DroppedChannel dropped = {};
    std::set<void*> deferred;
    {
        Lock lock(m_mutex);
        dropped.was = std::exchange(m_channel, QSC_CHANNEL_DISCONNECTED);
        m_peerOpened = false;
        if (m_options.role == Role::Client) m_sessionType = QSC_SESSION_NONE;
        for (const ObjectPtr& object : m_objects) object->state = QSC_OBJECT_DISCONNECTED;
        m_peerObjects.clear();
        deferred.swap(m_deferred);
    }
    for (const ObjectPtr& object : Objects()) EndSideChannel(object);
    DropStreams();
    for (void* hContext : deferred) ContextTable::Release(ContextTable::Find(hContext));
    Lock lock(m_requestMutex);
    dropped.requests.swap(m_requests);
    return dropped;
}

void ServiceChannel::AbortRequests(OpenRequestMap&& requests) {
    for (auto& [requestId, request] : requests) {
        request.context.reset();
        if (request.sink.OnMsgAbort) request.sink.OnMsgAbort(request.sinkContext, requestId, TRUE, kAbortChannelDown);
    }
}

std::vector<ServiceChannel::ObjectPtr> ServiceChannel::Objects() const {
    Lock lock(m_mutex);
    return m_objects;
}

std::pair<QSCService_ChannelNotifySink, void*> ServiceChannel::Sink() const {
    Lock lock(m_mutex);
    return {m_sink, m_sinkContext};
}

}  // namespace qscservice
