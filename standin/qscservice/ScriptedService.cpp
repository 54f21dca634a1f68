// The test's end is a link that keeps what the channel sends, and frames that the test has the channel dispatch: the
// channel in between is the one that also runs over a socket.
#include "standin/qscservice/ScriptedService.h"

#include <map>
#include <optional>
#include <utility>

#include "standin/qscservice/Frame.h"
#include "standin/qscservice/MessageContext.h"
#include "standin/qscservice/Transport.h"

namespace qscservice {

namespace {

Message ToMessage(std::shared_ptr<const std::vector<uint8_t>> bytes) {
    Message message;
    FrameView view;
    if (DecodeFrame(*bytes, &view).status != DecodeResult::Complete) return message;
    message.command = view.header.command;
    message.requestId = view.header.requestId;
    message.post = view.header.type == FrameType::Post;
    size_t offset = 0;
    for (Item item; ReadItem(view.items, &offset, &item);) {
        switch (item.role) {
            case ItemRole::Param:
                message.params.push_back(item.value);
                break;
            case ItemRole::NamedParam:
                message.namedParams.emplace_back(item.name, item.value);
                break;
            case ItemRole::ReturnValue:
                message.returnValues.push_back(item.value);
                break;
        }
    }
    message.storage = std::move(bytes);
    return message;
}

// Empty when the values can't be carried.
std::vector<uint8_t> MakeMessageFrame(FrameHeader header, ItemRole role, Values values) {
    std::vector<uint8_t> frame;
    BeginFrame(&frame);
    for (const Value& value : values) {
        if (header.itemCount == kMaxItems || !AppendItem(&frame, role, {}, value)) return {};
        ++header.itemCount;
    }
    SealFrame(&frame, header);
    return frame;
}

bool IsKnown(int32_t state, int32_t last) {
    return state >= -1 && state <= last;
}

}  // namespace

// Numbers of objects are told by name when an object is created, so that a message can be named after its object is
// gone.
class ScriptedService::PeerLink : public Link {
public:
    std::vector<Message> Sent() const {
        Lock lock(m_mutex);
        return m_sent;
    }

    void ClearSent() {
        Lock lock(m_mutex);
        m_sent.clear();
    }

    // The command of an open request.
    std::optional<uint32_t> OpenRequest(uint32_t requestId) const {
        Lock lock(m_mutex);
        const auto found = m_requests.find(requestId);
        return found != m_requests.end() ? std::optional(found->second) : std::nullopt;
    }

    void CloseRequest(uint32_t requestId) {
        Lock lock(m_mutex);
        m_requests.erase(requestId);
    }

    std::optional<Message> TakeReply(uint32_t requestId) {
        Lock lock(m_mutex);
        auto node = m_replies.extract(requestId);
        return node ? std::optional(std::move(node.mapped())) : std::nullopt;
    }

protected:
    bool Transmit(std::span<const uint8_t> frame) override REQUIRES(m_mutex) {
        auto bytes = std::make_shared<const std::vector<uint8_t>>(frame.begin(), frame.end());
        FrameView view;
        if (DecodeFrame(*bytes, &view).status != DecodeResult::Complete) return false;
        const FrameHeader& header = view.header;
        if (header.type == FrameType::ObjectCreated) {
            const std::vector<Value> values = ItemValues(view);
            if (values.size() >= 2) m_names[static_cast<uint32_t>(values[1].number)] = values[0].text;
        } else if (header.type == FrameType::Reply) {
            m_replies[header.requestId] = ToMessage(std::move(bytes));
        } else if (header.type == FrameType::Post || header.type == FrameType::Request) {
            if (header.type == FrameType::Request) m_requests[header.requestId] = header.command;
            m_sent.push_back(ToMessage(std::move(bytes)));
            m_sent.back().object = m_names[header.object];
        }
        return true;
    }

private:
    std::map<uint32_t, std::string> m_names GUARDED_BY(m_mutex);
    std::vector<Message> m_sent GUARDED_BY(m_mutex);
    std::map<uint32_t, uint32_t> m_requests GUARDED_BY(m_mutex);  // id to command
    std::map<uint32_t, Message> m_replies GUARDED_BY(m_mutex);
};

ScriptedService::ScriptedService(Role role, QSCService_SessionType sessionType)
    : m_channel(ServiceChannel::Create({.role = role, .delivery = Delivery::Manual, .sessionType = sessionType})),
      m_link(std::make_shared<PeerLink>()) {
    m_channel->AttachLink(m_link);
    m_channel->ForceSessionType(sessionType);
    m_channel->MakeDefault();
    CallScript::Activate(&m_script);
}

ScriptedService::~ScriptedService() {
    CallScript::Activate(nullptr);
    OfferAllTables();
    m_channel->Close();
}

void ScriptedService::Fail(Op op, int times) {
    m_script.Fail(op, times);
}

size_t ScriptedService::Count(Op op) const {
    return m_script.Count(op);
}

void ScriptedService::ClearCalls() {
    m_script.ClearCalls();
}

bool ScriptedService::FireConnectionState(QSCService_ConnectionState current, QSCService_ConnectionState transition) {
    if (IsKnown(current, QSC_CONNECTION_CONNECTED)) m_channel->ForceConnectionState(current);
    return m_channel->FireConnectionState(current, transition);
}

bool ScriptedService::FireChannelState(QSCService_ChannelState current, QSCService_ChannelState transition) {
    return m_channel->FireChannelState(current, transition);
}

bool ScriptedService::FirePeerObjectCreated(const char* name) {
    return m_channel->FirePeerObjectCreated(name);
}

bool ScriptedService::FireObjectState(const std::string& name, QSCRPC_ObjectState state) {
    if (IsKnown(state, QSC_OBJECT_PENDING_AND_PEER_OBJ_CREATED)) m_channel->ForceObjectState(name, state);
    return m_channel->FireObjectState(name);
}

bool ScriptedService::BringUp(const std::string& controlName, const std::string& dataName) {
    const auto bringUpObject = [this](const std::string& name) {
        const bool follows = m_channel->Options().role == Role::Client;
        return (!follows || FirePeerObjectCreated(name.c_str())) && FireObjectState(name, QSC_OBJECT_CONNECTED);
    };
    return FireConnectionState(QSC_CONNECTION_CONNECTED) && FireChannelState(QSC_CHANNEL_CONNECTED) &&
           bringUpObject(controlName) && bringUpObject(dataName);
}

void ScriptedService::BringDown() {
    FireChannelState(QSC_CHANNEL_DISCONNECTED);
    FireConnectionState(QSC_CONNECTION_DISCONNECTED);
}

Message ScriptedService::Deliver(const std::string& object, uint32_t command, Values params, uint32_t requestId,
                                 bool* ok) {
    Message result;
    result.object = object;
    result.command = command;
    result.requestId = requestId;
    result.post = requestId == 0;

    FrameHeader header = {};
    header.type = result.post ? FrameType::Post : FrameType::Request;
    header.object = m_channel->ObjectNumber(object);
    header.command = command;
    header.requestId = requestId;
    const std::vector<uint8_t> frame = MakeMessageFrame(header, ItemRole::Param, params);
    FrameView view;
    const bool deliverable = header.object != 0 && DecodeFrame(frame, &view).status == DecodeResult::Complete;
    if (ok) *ok = deliverable;
    if (!deliverable) return result;

    m_channel->SetPeerNumber(object, header.object);
    m_channel->Dispatch(m_link, view);
    if (std::optional<Message> reply = m_link->TakeReply(requestId)) {
        result.returnValues = std::move(reply->returnValues);
        result.storage = std::move(reply->storage);
    }
    return result;
}

std::vector<Message> ScriptedService::Sent() const {
    return m_link->Sent();
}

void ScriptedService::ClearSent() {
    m_link->ClearSent();
}

bool ScriptedService::Complete(uint32_t requestId, Values returnValues) {
    const std::optional<uint32_t> command = m_link->OpenRequest(requestId);
    return command && CompleteAs(requestId, *command, returnValues);
}

bool ScriptedService::CompleteAs(uint32_t requestId, uint32_t command, Values returnValues) {
    FrameHeader header = {};
    header.type = FrameType::Reply;
    header.command = command;
    header.requestId = requestId;
    const std::vector<uint8_t> frame = MakeMessageFrame(header, ItemRole::ReturnValue, returnValues);
    FrameView view;
    if (!m_link->OpenRequest(requestId) || DecodeFrame(frame, &view).status != DecodeResult::Complete) return false;
    m_link->CloseRequest(requestId);
    m_channel->Dispatch(m_link, view);
    return true;
}

bool ScriptedService::Abort(uint32_t requestId, Bool flag, uint32_t reason) {
    m_link->CloseRequest(requestId);
    return m_channel->FireAbort(requestId, flag, reason);
}

size_t ScriptedService::LiveContexts() {
    return ContextTable::Live();
}

}  // namespace qscservice
