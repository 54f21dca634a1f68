// Objects. Each end tells the other of the objects that it makes. The end that learns of the second of two objects of
// one name answers that it is ready, so that each is connected only when the other end knows both.
#include <algorithm>
#include <cstring>

#include "standin/qscservice/ChannelObject.h"
#include "standin/qscservice/ServiceTables.h"

namespace qscservice {

namespace {

constexpr size_t kMaxPeerObjects = 1024;

}  // namespace

bool IsConnected(QSCRPC_ObjectState state) {
    return state == QSC_OBJECT_CONNECTED || state == QSC_OBJECT_SIDE_CHANNEL_PENDING ||
           state == QSC_OBJECT_SIDE_CHANNEL_CONNECTED;
}

bool ServiceChannel::CreateObject(const char* name, const QSCRPC_ObjectNotifySink* sink, void* context, uint32_t flags,
                                  void** hObject) {
    if (!name || !*name || std::strlen(name) > kMaxNameBytes || !sink || !hObject) return false;
    const ObjectPtr object(new ChannelObject{.channel = weak_from_this(),
                                             .name = name,
                                             .sink = *sink,
                                             .sinkContext = context,
                                             .flags = flags,
                                             .number = 0,
                                             .handle = Registry::The().NewHandle(),
                                             .state = QSC_OBJECT_PENDING});
    {
        Lock lock(m_mutex);
        if (m_channel != QSC_CHANNEL_CONNECTED && m_options.delivery != Delivery::Manual) return false;
        if (FindObject(name)) return false;
        object->number = m_nextObjectNumber++;
        if (m_peerObjects.contains(name)) object->state = QSC_OBJECT_PENDING_AND_PEER_OBJ_CREATED;
        m_objects.push_back(object);
    }
    Registry::The().AddObject(object);
    *hObject = object->handle;
    if (SendControl(FrameType::ObjectCreated, {name, object->number, flags})) return true;
    Registry::The().RemoveObject(object->handle);
    Lock lock(m_mutex);
    std::erase(m_objects, object);
    *hObject = nullptr;
    return false;
}

bool ServiceChannel::DestroyObject(void* hObject) {
    const ObjectPtr object = Registry::The().RemoveObject(hObject);
    const std::shared_ptr<ServiceChannel> channel = object ? object->channel.lock() : nullptr;
    if (!channel) return false;
    bool tell = false;
    {
        Lock lock(channel->m_mutex);
        std::erase(channel->m_objects, object);
        tell = channel->m_channel == QSC_CHANNEL_CONNECTED;
    }
    channel->EndSideChannel(object);
    if (tell) channel->SendControl(FrameType::ObjectDestroyed, {object->name});
    return true;
}

QSCRPC_ObjectState ServiceChannel::ObjectState(void* hObject) {
    const ObjectPtr object = Registry::The().FindObject(hObject);
    const std::shared_ptr<ServiceChannel> channel = object ? object->channel.lock() : nullptr;
    if (!channel) return QSC_OBJECT_UNINITIALIZED;
    Lock lock(channel->m_mutex);
    return object->state;
}

// The server says whether the virtual and the TCP side channel are on offer; the third kind takes both ends.
bool ServiceChannel::ObjectOptions(void* hObject, uint32_t* options) {
    const ObjectPtr object = Registry::The().FindObject(hObject);
    const std::shared_ptr<ServiceChannel> channel = object ? object->channel.lock() : nullptr;
    if (!channel || !options) return false;
    Lock lock(channel->m_mutex);
    const auto peer = channel->m_peerObjects.find(object->name);
    *options = 0;
    if (peer != channel->m_peerObjects.end()) {
        const uint32_t offered = channel->m_options.role == Role::Server ? object->flags : peer->second.flags;
        *options = (offered & (QSC_OBJECT_SIDE_CHANNEL_VIRTUAL | QSC_OBJECT_SIDE_CHANNEL_TCP)) |
                   (object->flags & peer->second.flags & QSC_OBJECT_SIDE_CHANNEL_SURGE);
    }
    return true;
}

uint32_t ServiceChannel::ObjectNumber(const std::string& name) const {
    Lock lock(m_mutex);
    const ObjectPtr object = FindObject(name);
    return object ? object->number : 0;
}

std::string ServiceChannel::ObjectName(uint32_t number) const {
    Lock lock(m_mutex);
    const auto found = std::find_if(m_objects.begin(), m_objects.end(),
                                    [number](const ObjectPtr& object) { return object->number == number; });
    return found != m_objects.end() ? (*found)->name : std::string();
}

void ServiceChannel::SetPeerNumber(const std::string& name, uint32_t number) {
    Lock lock(m_mutex);
    m_peerObjects[name].number = number;
}

ServiceChannel::ObjectPtr ServiceChannel::FindObject(std::string_view name) const {
    const auto found = std::find_if(m_objects.begin(), m_objects.end(),
                                    [name](const ObjectPtr& object) { return object->name == name; });
    return found != m_objects.end() ? *found : nullptr;
}

// The object that takes the messages of a peer's object, null if none does.
ServiceChannel::ObjectPtr ServiceChannel::Receiver(uint32_t peerNumber) const {
    const auto peer = std::find_if(m_peerObjects.begin(), m_peerObjects.end(),
                                   [peerNumber](const auto& known) { return known.second.number == peerNumber; });
    const ObjectPtr object = peer != m_peerObjects.end() ? FindObject(peer->first) : nullptr;
    return object && (m_options.delivery == Delivery::Manual || IsConnected(object->state)) ? object : nullptr;
}

// An object whose owner has destroyed it meanwhile hears nothing.
void ServiceChannel::SetObjectState(const ObjectPtr& object, QSCRPC_ObjectState state) {
    {
        Lock lock(m_mutex);
        if (std::find(m_objects.begin(), m_objects.end(), object) == m_objects.end()) return;
        if (state != QSC_OBJECT_DISCONNECTED && m_channel != QSC_CHANNEL_CONNECTED) return;
        object->state = state;
    }
    if (object->sink.OnObjectStateChanged) object->sink.OnObjectStateChanged(object->sinkContext, nullptr);
}

void ServiceChannel::OnObjectCreated(const FrameView& frame) {
    const std::vector<Value> values = ItemValues(frame);
    const std::string_view name = values[0].text;
    ObjectPtr own;
    {
        Lock lock(m_mutex);
        if (m_channel != QSC_CHANNEL_CONNECTED || m_peerObjects.size() >= kMaxPeerObjects) return;
        m_peerObjects.insert_or_assign(std::string(name), PeerObject{static_cast<uint32_t>(values[1].number),
                                                                     static_cast<uint32_t>(values[2].number)});
        own = FindObject(name);
    }
    if (own) {
        SendControl(FrameType::ObjectReady, {name, values[1]});
        SetObjectState(own, QSC_OBJECT_CONNECTED);
    } else {
        FirePeerObjectCreated(name.data());
    }
}

// The number is this end's; an object that was made anew since waits for its own answer.
void ServiceChannel::OnObjectReady(const FrameView& frame) {
    const std::vector<Value> values = ItemValues(frame);
    ObjectPtr own;
    {
        Lock lock(m_mutex);
        own = FindObject(values[0].text);
        if (!own || own->number != static_cast<uint32_t>(values[1].number) || IsConnected(own->state) ||
            !m_peerObjects.contains(values[0].text)) {
            return;
        }
    }
    SetObjectState(own, QSC_OBJECT_CONNECTED);
}

void ServiceChannel::OnObjectDestroyed(const FrameView& frame) {
    const std::string_view name = ItemValues(frame)[0].text;
    ObjectPtr own;
    {
        Lock lock(m_mutex);
        own = FindObject(name);
    }
    if (own) FinishSideChannel(own);
    {
        Lock lock(m_mutex);
        const auto peer = m_peerObjects.find(name);
        if (peer == m_peerObjects.end()) return;
        m_peerObjects.erase(peer);
        own = FindObject(name);
        if (!own) return;
        if (own->state == QSC_OBJECT_PENDING_AND_PEER_OBJ_CREATED) own->state = QSC_OBJECT_PENDING;
        if (!IsConnected(own->state)) return;
    }
    SetObjectState(own, QSC_OBJECT_DISCONNECTED);
}

}  // namespace qscservice
