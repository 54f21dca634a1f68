// Messages. A context passes from owner to owner by its state: the caller's until Invoke takes it, the book's while a
// request is open, the delivering thread's during a callback, its ticket's while an answer is deferred.
#include <utility>

#include "standin/qscservice/ChannelObject.h"
#include "standin/qscservice/MessageContext.h"
#include "standin/qscservice/ServiceTables.h"

namespace qscservice {

namespace {

using State = MessageContext::State;

// The request whose callback runs on this thread.
struct Delivered {
    MessageContext* context = nullptr;
    std::weak_ptr<Link> link;
    std::shared_ptr<ChannelObject> object;
};
thread_local Delivered tDelivered;

constexpr QSCRPC_ContextNotifySink kNoSink = {};

}  // namespace

void ServiceChannel::ReleaseContext::operator()(MessageContext* context) const {
    ContextTable::Release(context);
}

size_t ServiceChannel::OpenRequests() const {
    Lock lock(m_requestMutex);
    return m_requests.size();
}

bool ServiceChannel::CreateContext(void* hObject, uint32_t, void** hContext) {
    if (!hContext || !Registry::The().FindObject(hObject)) return false;
    const MessageContext* context = ContextTable::Create(State::Own);
    if (!context) return false;
    *hContext = context->Handle();
    return true;
}

bool ServiceChannel::Invoke(void* hObject, void* hContext, const QSCRPC_ContextNotifySink* sink, void* context) {
    const ObjectPtr object = Registry::The().FindObject(hObject);
    const std::shared_ptr<ServiceChannel> channel = object ? object->channel.lock() : nullptr;
    MessageContext* message = ContextTable::Find(hContext);
    return channel && message && message->Move(State::Own, State::Sent) &&
           channel->InvokeOn(object, message, sink, context);
}

bool ServiceChannel::InvokeOn(const ObjectPtr& object, MessageContext* message, const QSCRPC_ContextNotifySink* sink,
                              void* sinkContext) {
    std::shared_ptr<Link> link;
    {
        Lock lock(m_mutex);
        if (IsConnected(object->state)) link = m_link;
    }
    const uint32_t command = message->command;
    if (link && (message->post ? SendPost(*object, link, message)
                               : SendRequest(*object, link, message, sink ? *sink : kNoSink, sinkContext))) {
        return true;
    }
    message->Move(State::Sent, State::Own);
    Lock lock(m_mutex);
    ++CountOf(command).refused;
    return false;
}

// Takes all of the frame or nothing, and gives the connection that carries the object's frames now: its own, or the
// channel's. FinishSend is left to do.
std::shared_ptr<Link> ServiceChannel::SendFor(ChannelObject& object, const std::shared_ptr<Link>& link,
                                              std::span<uint8_t> frame) {
    Lock lock(object.sendMutex);
    const std::shared_ptr<Link>& carrier = object.sideLink ? object.sideLink : link;
    return carrier->Send(frame) ? carrier : nullptr;
}

bool ServiceChannel::SendPost(ChannelObject& object, const std::shared_ptr<Link>& link, MessageContext* message) {
    const std::span<uint8_t> frame = message->Seal(FrameType::Post, object.number);
    const std::shared_ptr<Link> carrier = SendFor(object, link, frame);
    if (!carrier) return false;
    carrier->FinishSend(frame.size(), !CallbackScope::IsActive());
    ContextTable::Release(message);
    return true;
}

// Once it is sent, the request may be answered and gone at any moment.
bool ServiceChannel::SendRequest(ChannelObject& object, const std::shared_ptr<Link>& link, MessageContext* message,
                                 const QSCRPC_ContextNotifySink& sink, void* sinkContext) {
    const std::span<uint8_t> frame = message->Seal(FrameType::Request, object.number);
    std::shared_ptr<Link> carrier;
    {
        Lock lock(m_requestMutex);
        const auto [entry, isNew] = m_requests.try_emplace(message->requestId);
        if (!isNew) return false;
        carrier = SendFor(object, link, frame);
        if (!carrier) {
            m_requests.erase(entry);
            return false;
        }
        entry->second = {ContextPtr(message), sink, sinkContext};
    }
    carrier->FinishSend(frame.size(), !CallbackScope::IsActive());
    return true;
}

std::optional<ServiceChannel::OpenRequest> ServiceChannel::TakeRequest(uint32_t requestId) {
    Lock lock(m_requestMutex);
    auto node = m_requests.extract(requestId);
    if (!node) return std::nullopt;
    return std::move(node.mapped());
}

void ServiceChannel::OnMessage(const std::shared_ptr<Link>& link, const FrameView& frame) {
    const FrameHeader& header = frame.header;
    ContextPtr context(ContextTable::Create(State::Inbound));
    if (!context) ReportError("a message is dropped because too many contexts are in use");
    ObjectPtr object;
    {
        Lock lock(m_mutex);
        if (context) object = Receiver(header.object);
        ++(object ? CountOf(header.command).delivered : CountOf(header.command).undeliverable);
    }
    if (!object) return RefuseMessage(*link, header);
    context->Receive(frame);
    void* hContext = context->Handle();
    const Delivered outer = std::exchange(tDelivered, {context.get(), link, object});
    if (object->sink.OnMsgInvoke) object->sink.OnMsgInvoke(object->sinkContext, hContext, nullptr);
    tDelivered = outer;
    // Another thread may have answered a deferred request and used its context up already.
    if (ContextTable::Find(hContext) != context.get() || context->GetState() != State::Inbound) {
        (void)context.release();
    } else if (context->isRequest) {
        SendAnswer(*object, link, *context);
    }
}

void ServiceChannel::RefuseMessage(Link& link, const FrameHeader& header) {
    if (header.type != FrameType::Request) return;
    std::vector<uint8_t> abort;
    BeginFrame(&abort);
    AppendItem(&abort, ItemRole::Param, {}, kAbortNoReceiver);
    FrameHeader fields = {};
    fields.type = FrameType::Abort;
    fields.requestId = header.requestId;
    fields.itemCount = 1;
    SealFrame(&abort, fields);
    SendFrame(link, abort, false);
}

bool ServiceChannel::SendAnswer(ChannelObject& object, const std::shared_ptr<Link>& link, MessageContext& context) {
    const std::span<uint8_t> frame = context.Seal(FrameType::Reply, 0);
    const std::shared_ptr<Link> carrier = SendFor(object, link, frame);
    if (!carrier) return false;
    carrier->FinishSend(frame.size(), !CallbackScope::IsActive());
    return true;
}

void ServiceChannel::OnReply(const FrameView& frame) {
    const std::optional<OpenRequest> request = TakeRequest(frame.header.requestId);
    if (!request) return;
    request->context->Move(State::Sent, State::Inbound);
    request->context->ReceiveAnswer(frame);
    if (request->sink.OnMsgDone) {
        request->sink.OnMsgDone(request->sinkContext, frame.header.requestId, request->context->Handle());
    }
}

void ServiceChannel::OnAbort(const FrameView& frame) {
    FireAbort(frame.header.requestId, FALSE, static_cast<uint32_t>(ItemValues(frame)[0].number));
}

bool ServiceChannel::FireAbort(uint32_t requestId, Bool flag, uint32_t reason) {
    std::optional<OpenRequest> request = TakeRequest(requestId);
    if (!request) return false;
    request->context.reset();
    const CallbackScope scope(this);
    if (request->sink.OnMsgAbort) request->sink.OnMsgAbort(request->sinkContext, requestId, flag, reason);
    return true;
}

bool ServiceChannel::Defer(void* hContext) {
    MessageContext* context = tDelivered.context;
    if (!context || context->Handle() != hContext || !context->isRequest || context->GetState() != State::Inbound) {
        return false;
    }
    context->KeepReceived();
    context->origin = tDelivered.link;
    context->receiver = tDelivered.object;
    context->Move(State::Inbound, State::Deferred);
    Lock lock(m_mutex);
    m_deferred.insert(hContext);
    return true;
}

// An answer that lacks values beats none, which would leave the request open until the channel falls.
bool ServiceChannel::Respond(void* hContext, Values returnValues) {
    {
        Lock lock(m_mutex);
        if (m_deferred.erase(hContext) == 0) return false;
    }
    const ContextPtr context(ContextTable::Find(hContext));
    const std::shared_ptr<Link> link = context->origin.lock();
    bool complete = true;
    for (const Value& value : returnValues) {
        complete = complete && context->Append(ItemRole::ReturnValue, {}, value);
    }
    if (!complete) {
        ReportError("a return value of request " + std::to_string(context->requestId) + " can't be carried");
    }
    return link && SendAnswer(*context->receiver, link, *context) && complete;
}

}  // namespace qscservice
