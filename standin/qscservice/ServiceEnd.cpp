// The callbacks of the channel do the work: each moves this end one step further up or down, under the rules of the
// header. They come one at a time, so only what other threads read or wait for stands under the lock.
#include "standin/qscservice/ServiceEnd.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "standin/qscservice/MessageContext.h"
#include "standin/qscservice/ServiceTables.h"

namespace qscservice {

namespace {

using Clock = std::chrono::steady_clock;

constexpr RPCChannelType kTypes[] = {RPCChannelType::Control, RPCChannelType::Data};
constexpr uint32_t kPolledSliceMS = 10;

// What the framework at the other end asks for too when it wants no side channel.
constexpr uint32_t kClientFlags = QSC_OBJECT_FLAG_BASE | QSC_OBJECT_FLAG_4 | QSC_OBJECT_FLAG_8;
constexpr uint32_t kServerFlags =
    QSC_OBJECT_FLAG_BASE | QSC_OBJECT_FLAG_4 | QSC_OBJECT_SIDE_CHANNEL_VIRTUAL | QSC_OBJECT_SIDE_CHANNEL_TCP;

size_t IndexOf(RPCChannelType type) {
    return static_cast<size_t>(type);
}

bool Carries(QSCRPC_ObjectState state) {
    return state == QSC_OBJECT_CONNECTED || state == QSC_OBJECT_SIDE_CHANNEL_CONNECTED;
}

bool AppendAll(MessageContext* context, ItemRole role, Values values) {
    return std::all_of(values.begin(), values.end(),
                       [&](const Value& value) { return context->Append(role, {}, value); });
}

void Discard(void* hContext) {
    MessageContext* context = ContextTable::Find(hContext);
    if (context && context->Move(MessageContext::State::Own, MessageContext::State::Free)) {
        ContextTable::Release(context);
    }
}

std::optional<Value> ReadValue(void* hContext, ItemRole role, int index) {
    const MessageContext* context = ContextTable::Find(hContext);
    Item item;
    if (!context || !context->Get(role, index, &item)) return std::nullopt;
    return item.value;
}

int CountValues(void* hContext, ItemRole role) {
    const MessageContext* context = ContextTable::Find(hContext);
    return context ? context->Count(role) : 0;
}

}  // namespace

uint32_t InboundMessage::Command() const {
    const MessageContext* context = ContextTable::Find(m_hContext);
    return context ? context->command : 0;
}

uint32_t InboundMessage::RequestId() const {
    const MessageContext* context = ContextTable::Find(m_hContext);
    return context ? context->requestId : 0;
}

int InboundMessage::ParamCount() const {
    return CountValues(m_hContext, ItemRole::Param);
}

std::optional<Value> InboundMessage::Param(int index) const {
    return ReadValue(m_hContext, ItemRole::Param, index);
}

int InboundMessage::ReturnValueCount() const {
    return CountValues(m_hContext, ItemRole::ReturnValue);
}

std::optional<Value> InboundMessage::ReturnValue(int index) const {
    return ReadValue(m_hContext, ItemRole::ReturnValue, index);
}

bool InboundMessage::AddReturnValue(const Value& value) {
    MessageContext* context = ContextTable::Find(m_hContext);
    return m_isRequest && context && context->Append(ItemRole::ReturnValue, {}, value);
}

void* InboundMessage::Defer() {
    if (!m_isRequest) return nullptr;
    const std::shared_ptr<ServiceChannel> channel = ServiceChannel::Current();
    return channel && channel->Defer(m_hContext) ? m_hContext : nullptr;
}

struct ServiceEnd::Callbacks {
    static ServiceEnd& End(void* context) { return *static_cast<ServiceEnd*>(context); }

    static void OnConnectionStateChanged(void* context, QSCService_ConnectionState current, QSCService_ConnectionState,
                                         void*) {
        if (current == QSC_CONNECTION_CONNECTED) End(context).OnConnection(true);
        if (current == QSC_CONNECTION_DISCONNECTED) End(context).OnConnection(false);
    }

    static void OnChannelStateChanged(void* context, QSCService_ChannelState, QSCService_ChannelState transition,
                                      void*) {
        ServiceEnd& end = End(context);
        if (transition == QSC_CHANNEL_DISCONNECTED) end.DestroyObjects();
        if (transition == QSC_CHANNEL_CONNECTED && end.m_options.channel.role == Role::Server) {
            end.CreateObject(RPCChannelType::Control);
        }
    }

    static void OnPeerChannelObjectCreated(void* context, const char* name, void*) {
        ServiceEnd& end = End(context);
        if (end.m_options.channel.role == Role::Server) return;
        if (name == end.m_options.controlName) end.CreateObject(RPCChannelType::Control);
        if (name == end.m_options.dataName) end.CreateObject(RPCChannelType::Data);
    }

    template <RPCChannelType kType>
    static void OnObjectStateChanged(void* context, void*) {
        End(context).OnObjectState(kType);
    }

    static void OnMsgInvoke(void* context, void* hContext, void*) {
        const ServiceEnd& end = End(context);
        const MessageContext* message = ContextTable::Find(hContext);
        if (!message || !end.m_handlers.onMessage) return;
        InboundMessage inbound(hContext, message->isRequest);
        end.m_handlers.onMessage(inbound);
    }

    static void OnMsgDone(void* context, uint32_t requestId, void* hContext) {
        const ServiceEnd& end = End(context);
        InboundMessage answer(hContext, false);
        if (end.m_handlers.onDone) end.m_handlers.onDone(requestId, answer);
    }

    static void OnMsgAbort(void* context, uint32_t requestId, Bool, uint32_t reason) {
        const ServiceEnd& end = End(context);
        if (end.m_handlers.onAbort) end.m_handlers.onAbort(requestId, reason);
    }

    static constexpr QSCService_ChannelNotifySink kChannelSink = {1, OnConnectionStateChanged, OnChannelStateChanged,
                                                                  OnPeerChannelObjectCreated};
    static constexpr QSCRPC_ObjectNotifySink kObjectSinks[] = {
        {1, OnMsgInvoke, OnObjectStateChanged<RPCChannelType::Control>},
        {1, OnMsgInvoke, OnObjectStateChanged<RPCChannelType::Data>}};
    static constexpr QSCRPC_ContextNotifySink kContextSink = {1, OnMsgDone, OnMsgAbort};
};

ServiceEnd::ServiceEnd(Handlers handlers) : ServiceEnd(std::move(handlers), Options{}) {}

ServiceEnd::ServiceEnd(Handlers handlers, const Options& options)
    : m_handlers(std::move(handlers)), m_options(options), m_channel(ServiceChannel::Create(options.channel)) {
    m_channel->RegisterSink(&Callbacks::kChannelSink, this, &m_sinkCookie);
}

ServiceEnd::~ServiceEnd() {
    m_channel->Close();
    DestroyObjects();
    ServiceChannel::UnregisterSink(m_sinkCookie);
}

bool ServiceEnd::Post(uint32_t command, Values params, RPCChannelType type) {
    return Send(command, params, true, type).has_value();
}

std::optional<uint32_t> ServiceEnd::Request(uint32_t command, Values params, RPCChannelType type) {
    return Send(command, params, false, type);
}

std::optional<uint32_t> ServiceEnd::Send(uint32_t command, Values params, bool post, RPCChannelType type) {
    void* hObject = nullptr;
    {
        Lock lock(m_mutex);
        hObject = m_hObjects[IndexOf(type)];
    }
    void* hContext = nullptr;
    if (!hObject || !ServiceChannel::CreateContext(hObject, 0, &hContext)) return std::nullopt;
    MessageContext* context = ContextTable::Find(hContext);
    context->command = command;
    context->post = post;
    const uint32_t requestId = context->requestId;
    if (AppendAll(context, ItemRole::Param, params) &&
        ServiceChannel::Invoke(hObject, hContext, &Callbacks::kContextSink, this)) {
        return requestId;
    }
    Discard(hContext);
    return std::nullopt;
}

bool ServiceEnd::Respond(void* ticket, Values returnValues) {
    return m_channel->Respond(ticket, returnValues);
}

bool ServiceEnd::IsReady() const {
    Lock lock(m_mutex);
    return m_ready;
}

bool ServiceEnd::WaitReady(uint32_t timeoutMS) {
    return WaitFor(Awaited::Ready, timeoutMS);
}

bool ServiceEnd::WaitNotReady(uint32_t timeoutMS) {
    return WaitFor(Awaited::NotReady, timeoutMS);
}

bool ServiceEnd::WaitClosed(uint32_t timeoutMS) {
    return WaitFor(Awaited::Closed, timeoutMS);
}

// On a polled channel nobody else may deliver, so the waiting thread does.
bool ServiceEnd::WaitFor(Awaited awaited, uint32_t timeoutMS) {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMS);
    const bool polled = m_options.channel.delivery == Delivery::Polled;
    Lock lock(m_mutex);
    const uint64_t fallsBefore = m_linkFalls;
    while (!HasReached(awaited, fallsBefore)) {
        if (Clock::now() >= deadline) return false;
        if (polled) {
            m_mutex.unlock();
            m_channel->PollWait(kPolledSliceMS);
            m_mutex.lock();
        } else {
            m_changed.wait_until(m_mutex, deadline);
        }
    }
    return true;
}

// A client that goes and comes again between two looks counts as gone.
bool ServiceEnd::HasReached(Awaited awaited, uint64_t fallsBefore) const {
    if (awaited == Awaited::Closed) return m_linkFalls > fallsBefore || (m_linkFalls > 0 && !m_linkUp);
    return m_ready == (awaited == Awaited::Ready);
}

void ServiceEnd::CreateObject(RPCChannelType type) {
    const size_t index = IndexOf(type);
    {
        Lock lock(m_mutex);
        if (m_hObjects[index]) return;
    }
    const std::string& name = type == RPCChannelType::Control ? m_options.controlName : m_options.dataName;
    const uint32_t flags = m_options.channel.role == Role::Server ? kServerFlags : kClientFlags;
    void* hObject = nullptr;
    if (!m_channel->CreateObject(name.c_str(), &Callbacks::kObjectSinks[index], this, flags, &hObject)) {
        ReportError("cannot create the channel object \"" + name + "\"");
        return;
    }
    Lock lock(m_mutex);
    m_hObjects[index] = hObject;
}

void ServiceEnd::DestroyObjects() {
    void* hObjects[std::size(kTypes)];
    {
        Lock lock(m_mutex);
        for (const RPCChannelType type : kTypes) {
            hObjects[IndexOf(type)] = std::exchange(m_hObjects[IndexOf(type)], nullptr);
            m_connected[IndexOf(type)] = false;
        }
    }
    for (void* hObject : hObjects) {
        if (hObject) ServiceChannel::DestroyObject(hObject);
    }
    SetReady(false);
}

void ServiceEnd::OnObjectState(RPCChannelType type) {
    const size_t index = IndexOf(type);
    void* hObject = nullptr;
    {
        Lock lock(m_mutex);
        hObject = m_hObjects[index];
    }
    const QSCRPC_ObjectState state = ServiceChannel::ObjectState(hObject);
    const bool gone = state == QSC_OBJECT_DISCONNECTED;
    bool ready = false;
    {
        Lock lock(m_mutex);
        if (gone) m_hObjects[index] = nullptr;
        if (gone || Carries(state)) m_connected[index] = !gone;
        ready = m_connected[0] && m_connected[1];
    }
    if (gone) ServiceChannel::DestroyObject(hObject);
    if (Carries(state) && type == RPCChannelType::Control && m_options.channel.role == Role::Server) {
        CreateObject(RPCChannelType::Data);
    }
    SetReady(ready);
}

void ServiceEnd::OnConnection(bool up) {
    {
        Lock lock(m_mutex);
        if (m_linkUp && !up) ++m_linkFalls;
        m_linkUp = up;
    }
    m_changed.notify_all();
    if (!up) {
        DestroyObjects();
    } else if (m_options.channel.role == Role::Client && !m_channel->Connect()) {
        ReportError("cannot open the channel");
    }
}

void ServiceEnd::SetReady(bool ready) {
    {
        Lock lock(m_mutex);
        if (m_ready == ready) return;
        m_ready = ready;
    }
    m_changed.notify_all();
    const std::function<void()>& handler = ready ? m_handlers.onReady : m_handlers.onNotReady;
    if (handler) handler();
}

}  // namespace qscservice
