// Where callbacks run. Threaded: the worker handles frames as it reads them, in place, and between them what other
// threads have queued for it. Polled: the worker copies frames into the queue, and whoever polls handles them.
#include <chrono>

#include "standin/qscservice/ChannelObject.h"

namespace qscservice {

namespace {

using Clock = std::chrono::steady_clock;

}  // namespace

void ServiceChannel::Poll() {
    if (MayPoll()) DeliverPending();
}

void ServiceChannel::PollWait(uint32_t msWait) {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(msWait);
    const bool mayPoll = MayPoll();
    if (mayPoll && DeliverPending()) return;
    {
        Lock lock(m_mutex);
        while (!mayPoll || m_queue.empty()) {
            if (m_changed.wait_until(m_mutex, deadline) == std::cv_status::timeout || !mayPoll) break;
        }
    }
    if (mayPoll) DeliverPending();
}

void ServiceChannel::SetPollThread(std::thread::id thread) {
    Lock lock(m_mutex);
    m_pollThread = thread;
}

bool ServiceChannel::MayPoll() const {
    if (m_options.delivery == Delivery::Manual) return true;
    if (m_options.delivery == Delivery::Threaded || CallbackScope::IsActive()) return false;
    Lock lock(m_mutex);
    return m_pollThread == std::thread::id() || m_pollThread == std::this_thread::get_id();
}

void ServiceChannel::Enqueue(Action action, size_t bytes) {
    std::shared_ptr<Link> running;
    {
        Lock lock(m_mutex);
        if (m_closed && m_options.delivery != Delivery::Threaded) return;
        m_queue.emplace_back(std::move(action), bytes);
        m_queuedBytes += bytes;
        if (m_options.delivery == Delivery::Threaded) running = m_running;
    }
    m_changed.notify_all();
    if (running) running->Wake();
}

bool ServiceChannel::WantsFrames() {
    if (m_options.delivery == Delivery::Threaded) return true;
    Lock lock(m_mutex);
    return m_queuedBytes < kMaxQueuedBytes;
}

bool ServiceChannel::DeliverPending() {
    bool delivered = false;
    while (DeliverNext()) delivered = true;
    return delivered;
}

// False when nothing is left, or another thread is at it.
bool ServiceChannel::DeliverNext() {
    std::pair<Action, size_t> next;
    {
        Lock lock(m_mutex);
        if (m_delivering || m_queue.empty()) return false;
        if (m_closed && m_options.delivery != Delivery::Threaded) return false;
        m_delivering = true;
        next = std::move(m_queue.front());
        m_queue.pop_front();
    }
    {
        const CallbackScope scope(this);
        next.first();
    }
    std::shared_ptr<Link> running;
    {
        Lock lock(m_mutex);
        m_delivering = false;
        const bool wasFull = m_queuedBytes >= kMaxQueuedBytes;
        m_queuedBytes -= next.second;
        if (wasFull && m_queuedBytes < kMaxQueuedBytes) running = m_running;
    }
    m_changed.notify_all();
    if (running) running->Wake();
    return true;
}

void ServiceChannel::Dispatch(const std::shared_ptr<Link>& link, const FrameView& frame) {
    const CallbackScope scope(this);
    switch (frame.header.type) {
        case FrameType::Hello:
            return BringLinkUp(link);
        case FrameType::Open:
            return OnOpen(frame);
        case FrameType::Accept:
            return OnAccept(frame);
        case FrameType::Reject:
            return OnReject(frame);
        case FrameType::Close:
            return OnClose(frame);
        case FrameType::ObjectCreated:
            return OnObjectCreated(frame);
        case FrameType::ObjectReady:
            return OnObjectReady(frame);
        case FrameType::ObjectDestroyed:
            return OnObjectDestroyed(frame);
        case FrameType::SideChannelRequest:
            return OnSideChannelRequest(frame);
        case FrameType::SideChannelOffer:
            return OnSideChannelOffer(frame);
        case FrameType::SideChannelRefused:
            return OnSideChannelRefused(frame);
        case FrameType::SideChannelSwitch:
            return OnSideChannelSwitch(frame);
        case FrameType::Post:
        case FrameType::Request:
            return OnMessage(link, frame);
        case FrameType::Reply:
            return OnReply(frame);
        case FrameType::Abort:
            return OnAbort(frame);
        case FrameType::MsgChannelOpened:
            return OnMsgChannelOpened(frame);
        case FrameType::MsgChannelClosed:
            return OnMsgChannelClosed(frame);
        case FrameType::MsgChannelWords:
            return OnMsgChannelWords(frame);
        case FrameType::StreamDataRequest:
            return OnStreamDataRequest(frame);
        case FrameType::StreamDataOffer:
        case FrameType::StreamDataRefused:
        case FrameType::SideChannelEnd:
        case FrameType::Greeting:
            return;  // handled by the reading thread, or not for this connection
    }
}

void ServiceChannel::AttachLink(const std::shared_ptr<Link>& link) {
    Lock lock(m_mutex);
    m_link = link;
    m_running = link;
}

void ServiceChannel::RunOnDelivery(std::function<void()> action) {
    Enqueue(std::move(action));
}

void ServiceChannel::ForceConnectionState(QSCService_ConnectionState state) {
    {
        Lock lock(m_mutex);
        m_connection = state;
    }
    m_changed.notify_all();
}

void ServiceChannel::ForceSessionType(QSCService_SessionType type) {
    Lock lock(m_mutex);
    m_sessionType = type;
}

void ServiceChannel::ForceObjectState(const std::string& name, QSCRPC_ObjectState state) {
    Lock lock(m_mutex);
    if (const ObjectPtr object = FindObject(name)) object->state = state;
}

bool ServiceChannel::FireConnectionState(QSCService_ConnectionState current, QSCService_ConnectionState transition) {
    const auto [sink, context] = Sink();
    if (!sink.OnConnectionStateChanged) return false;
    const CallbackScope scope(this);
    sink.OnConnectionStateChanged(context, current, transition, nullptr);
    return true;
}

bool ServiceChannel::FireChannelState(QSCService_ChannelState current, QSCService_ChannelState transition) {
    const auto [sink, context] = Sink();
    if (!sink.OnChannelStateChanged) return false;
    const bool byHand = m_options.delivery == Delivery::Manual;
    if (byHand && current >= QSC_CHANNEL_UNINITIALIZED && current <= QSC_CHANNEL_CONNECTED) {
        Lock lock(m_mutex);
        m_channel = current;
    }
    const CallbackScope scope(this);
    sink.OnChannelStateChanged(context, current, transition, nullptr);
    return true;
}

bool ServiceChannel::FirePeerObjectCreated(const char* name) {
    const auto [sink, context] = Sink();
    if (!sink.OnPeerChannelObjectCreated) return false;
    const CallbackScope scope(this);
    sink.OnPeerChannelObjectCreated(context, name, nullptr);
    return true;
}

bool ServiceChannel::FireObjectState(const std::string& name) {
    ObjectPtr object;
    {
        Lock lock(m_mutex);
        object = FindObject(name);
    }
    if (!object || !object->sink.OnObjectStateChanged) return false;
    const CallbackScope scope(this);
    object->sink.OnObjectStateChanged(object->sinkContext, nullptr);
    return true;
}

}  // namespace qscservice
