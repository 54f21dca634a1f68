// Side channels: what the channel and its objects have to do with them. How one comes about is told in SideChannel.h.
#include <algorithm>

#include "standin/qscservice/ChannelObject.h"
#include "standin/qscservice/ServiceTables.h"
#include "standin/qscservice/SideChannel.h"

namespace qscservice {

namespace {

const char* ListenAddress(uint32_t type) {
    return type == QSC_SIDE_CHANNEL_TCP ? "tcp:" : "unix:";
}

// The server's end of an attempt. Null when there can be no rendezvous.
std::shared_ptr<Rendezvous> OpenRendezvous(uint32_t type, uint64_t number) {
    std::string error;
    std::shared_ptr<Rendezvous> rendezvous = Rendezvous::Open(ListenAddress(type), number, &error);
    if (!rendezvous) ReportError("no side channel: " + error);
    return rendezvous;
}

}  // namespace

bool ServiceChannel::IsSideChannelAvailable(uint32_t type) const {
    return type < 32 && (m_options.sideChannels >> type & 1) != 0;
}

bool ServiceChannel::RequestSideChannel(void* hObject, uint32_t type) {
    const ObjectPtr object = Registry::The().FindObject(hObject);
    const std::shared_ptr<ServiceChannel> channel = object ? object->channel.lock() : nullptr;
    return channel && channel->IsSideChannelAvailable(type) && channel->AskForSideChannel(object, type);
}

bool ServiceChannel::AskForSideChannel(const ObjectPtr& object, uint32_t type) {
    {
        Lock lock(m_mutex);
        if (object->state != QSC_OBJECT_CONNECTED || object->side) return false;
    }
    const uint64_t number = RandomNumber();
    if (m_options.delivery == Delivery::Manual) {
        return SendControl(FrameType::SideChannelRequest, {object->name, type, number});
    }
    const bool offers = m_options.role == Role::Server;
    const std::shared_ptr<Rendezvous> rendezvous = offers ? OpenRendezvous(type, number) : nullptr;
    const SidePtr side = MakeSideChannel(object, number);
    side->Await(rendezvous);
    if ((offers && !rendezvous) || !StartSideChannel(object, side)) return false;
    Enqueue([this, object, side] {
        if (SideOf(object) == side) SetObjectState(object, QSC_OBJECT_SIDE_CHANNEL_PENDING);
    });
    return offers ? SendControl(FrameType::SideChannelOffer, {object->name, type, rendezvous->Address(), number, 0u})
                  : SendControl(FrameType::SideChannelRequest, {object->name, type, number});
}

ServiceChannel::SidePtr ServiceChannel::MakeSideChannel(const ObjectPtr& object, uint64_t number) {
    Lock lock(m_mutex);
    const auto peer = m_peerObjects.find(object->name);
    return std::make_shared<SideChannel>(*this, object, m_link, peer != m_peerObjects.end() ? peer->second.number : 0,
                                         number);
}

// Nothing starts on a connection that is falling, so that TakeLinkDown joins all there is.
bool ServiceChannel::StartSideChannel(const ObjectPtr& object, const SidePtr& side) {
    std::vector<SidePtr> ended;
    {
        Lock lock(m_mutex);
        if (!m_link || m_link != m_running || m_link != side->Main() || m_link->IsInterrupted()) return false;
        if (object->side || !IsConnected(object->state) || !m_peerObjects.contains(object->name)) return false;
        if (std::find(m_objects.begin(), m_objects.end(), object) == m_objects.end()) return false;
        object->side = side;
        m_sides.push_back(side);
        side->Start();
        ended.swap(m_endedSides);
    }
    for (const SidePtr& over : ended) over->Join();
    return true;
}

void ServiceChannel::RefuseSideChannel(const std::string& name, uint64_t number) {
    SendControl(FrameType::SideChannelRefused, {name, number});
}

// When both ends ask at once, the server's attempt is the one that is made: its offer takes the place of the answer.
void ServiceChannel::OnSideChannelRequest(const FrameView& frame) {
    const std::vector<Value> values = ItemValues(frame);
    const std::string name(values[0].text);
    const auto type = static_cast<uint32_t>(values[1].number);
    const uint64_t number = values[2].number;
    ObjectPtr own;
    {
        Lock lock(m_mutex);
        own = FindObject(name);
        if (own && own->side) return;
        if (own && own->state != QSC_OBJECT_CONNECTED) own = nullptr;
    }
    const bool isAvailable = IsSideChannelAvailable(type);
    if (!isAvailable) ReportError("the peer asks for a side channel that is not available");
    const std::shared_ptr<Rendezvous> rendezvous = own && isAvailable ? OpenRendezvous(type, number) : nullptr;
    if (!rendezvous) return RefuseSideChannel(name, number);
    const SidePtr side = MakeSideChannel(own, number);
    side->Await(rendezvous);
    if (!StartSideChannel(own, side)) return;
    SetObjectState(own, QSC_OBJECT_SIDE_CHANNEL_PENDING);
    SendControl(FrameType::SideChannelOffer, {name, type, rendezvous->Address(), number, 1u});
}

void ServiceChannel::OnSideChannelOffer(const FrameView& frame) {
    const std::vector<Value> values = ItemValues(frame);
    const std::string name(values[0].text);
    const std::string address(values[2].text);
    const uint64_t number = values[3].number;
    const bool asked = values[4].number != 0;
    ObjectPtr own;
    SidePtr side;
    bool isPending = false;
    {
        Lock lock(m_mutex);
        own = FindObject(name);
        if (own && !IsConnected(own->state)) own = nullptr;
        side = own ? own->side : nullptr;
        isPending = own && own->state == QSC_OBJECT_SIDE_CHANNEL_PENDING;
    }
    if (asked) {
        if (!side || side->Number() != number || !side->Dial(address)) RefuseSideChannel(name, number);
        return;
    }
    const bool isAvailable = IsSideChannelAvailable(static_cast<uint32_t>(values[1].number));
    if (!isAvailable) ReportError("the peer offers a side channel that is not available");
    if (!own || !isAvailable || (side && side->Connection())) return RefuseSideChannel(name, number);
    if (side) EndSideChannel(own);
    side = MakeSideChannel(own, number);
    side->Dial(address);
    if (!StartSideChannel(own, side)) return RefuseSideChannel(name, number);
    if (!isPending) SetObjectState(own, QSC_OBJECT_SIDE_CHANNEL_PENDING);
}

void ServiceChannel::OnSideChannelRefused(const FrameView& frame) {
    SidePtr side;
    if (!FindAttempt(frame, &side) || side->IsGateOpen()) return;
    side->Stop();
    if (ForgetSideChannel(side)) SetObjectState(side->Object(), QSC_OBJECT_CONNECTED);
}

void ServiceChannel::OnSideChannelAccepted(const SidePtr& side, const std::shared_ptr<SocketLink>& link) {
    if (SideOf(side->Object()) == side) side->Switch(link);
}

// The client's end answers with its own switch before it reads anything from the side connection.
void ServiceChannel::OnSideChannelSwitch(const FrameView& frame) {
    SidePtr side;
    const ObjectPtr own = FindAttempt(frame, &side);
    if (!own || side->IsGateOpen() || !side->Connection()) return;
    if (m_options.role == Role::Client && !side->Switch()) return;
    side->OpenGate();
    SetObjectState(own, QSC_OBJECT_SIDE_CHANNEL_CONNECTED);
}

// The object is free for the next attempt before the peer hears of it, so that an attempt of the peer's finds it so.
void ServiceChannel::OnSideChannelFailed(const SidePtr& side) {
    const bool isOfNow = ForgetSideChannel(side);
    RefuseSideChannel(side->Object()->name, side->Number());
    if (isOfNow) SetObjectState(side->Object(), QSC_OBJECT_CONNECTED);
}

bool ServiceChannel::ForgetSideChannel(const SidePtr& side) {
    Lock lock(m_mutex);
    if (side->Object()->side != side) return false;
    side->Object()->side = nullptr;
    return true;
}

// On the side channel's thread, when its connection carries nothing any more.
void ServiceChannel::OnSideChannelOver(const SidePtr& side, const std::shared_ptr<SocketLink>& link) {
    Lock lock(m_mutex);
    if (link) AddSentOf(*link);
    std::erase(m_sides, side);
    m_endedSides.push_back(side);
}

void ServiceChannel::EndSideChannel(const ObjectPtr& object) {
    SidePtr side;
    {
        Lock lock(m_mutex);
        side.swap(object->side);
    }
    if (side) side->End();
}

// The peer's object is gone: first comes what it has sent.
void ServiceChannel::FinishSideChannel(const ObjectPtr& object) {
    const SidePtr side = SideOf(object);
    if (!side) return;
    if (side->IsGateOpen() && !side->Drain()) Fail(side->Main(), "the peer does not end a side channel");
    EndSideChannel(object);
}

void ServiceChannel::StopSideChannels() {
    std::vector<SidePtr> sides;
    {
        Lock lock(m_mutex);
        sides = m_sides;
    }
    for (const SidePtr& side : sides) side->Stop();
}

void ServiceChannel::JoinSideChannels() {
    std::vector<SidePtr> sides;
    {
        Lock lock(m_mutex);
        sides = m_sides;
    }
    for (const SidePtr& side : sides) {
        side->Stop();
        side->Join();
    }
    {
        Lock lock(m_mutex);
        sides.swap(m_endedSides);
        m_endedSides.clear();
    }
    for (const SidePtr& side : sides) side->Join();
}

ServiceChannel::SidePtr ServiceChannel::SideOf(const ObjectPtr& object) const {
    Lock lock(m_mutex);
    return object->side;
}

// The object and its attempt that a frame names, null when they are not those of now.
ServiceChannel::ObjectPtr ServiceChannel::FindAttempt(const FrameView& frame, SidePtr* side) const {
    const std::vector<Value> values = ItemValues(frame);
    Lock lock(m_mutex);
    ObjectPtr own = FindObject(values[0].text);
    if (!own || !own->side || own->side->Number() != values[1].number) return nullptr;
    *side = own->side;
    return own;
}

}  // namespace qscservice
