// Message channels. Each end tells the other of those that it opens and closes, under numbers of its own; where both
// have one of a name, they are peers.
#include "standin/qscservice/MsgChannels.h"

#include <algorithm>
#include <cstring>

#include "standin/qscservice/ChannelObject.h"

namespace qscservice {

namespace {

constexpr size_t kMaxMsgChannels = 256;  // of one end

uint64_t Word(void* word) {
    return reinterpret_cast<uintptr_t>(word);
}

void* Pointer(uint64_t word) {
    return reinterpret_cast<void*>(static_cast<uintptr_t>(word));
}

}  // namespace

bool ServiceChannel::OpenMsgChannel(void* context, const char* name, const QSCService_MsgChannelNotifySink& sink) {
    if (!name || !*name || std::strlen(name) > kMaxNameBytes) return false;
    QscMsgChannelID id = Registry::The().AddMsgChannel(shared_from_this());
    uint32_t number = 0;
    {
        Lock lock(m_mutex);
        const bool taken = std::any_of(m_msgChannels.begin(), m_msgChannels.end(),
                                       [name](const auto& known) { return known.second.name == name; });
        if (!taken && m_link && m_msgChannels.size() < kMaxMsgChannels) {
            number = m_nextObjectNumber++;
            m_msgChannels.emplace(id, MsgChannel{name, sink, context, number, false});
        }
    }
    if (number == 0) {
        Registry::The().RemoveMsgChannel(id);
        return false;
    }
    SendControl(FrameType::MsgChannelOpened, {name, number});
    Enqueue([this, id] { TellOpened(id); });
    return true;
}

bool ServiceChannel::CloseMsgChannel(QscMsgChannelID id) {
    const std::shared_ptr<ServiceChannel> channel = Registry::The().FindMsgChannel(id);
    if (!channel) return false;
    Registry::The().RemoveMsgChannel(id);
    uint32_t number = 0;
    {
        Lock lock(channel->m_mutex);
        const auto node = channel->m_msgChannels.extract(id);
        if (!node) return false;
        number = node.mapped().number;
    }
    channel->SendControl(FrameType::MsgChannelClosed, {number});
    return true;
}

bool ServiceChannel::SendMsgChannel(QscMsgChannelID id, void* a, void* b, void* c) {
    const std::shared_ptr<ServiceChannel> channel = Registry::The().FindMsgChannel(id);
    if (!channel) return false;
    const uint32_t number = channel->NumberWithPeer(id);
    return number != 0 && channel->SendControl(FrameType::MsgChannelWords, {number, Word(a), Word(b), Word(c)});
}

// The number of an own channel, 0 while the peer has none of that name.
uint32_t ServiceChannel::NumberWithPeer(QscMsgChannelID id) const {
    Lock lock(m_mutex);
    const auto own = m_msgChannels.find(id);
    if (own == m_msgChannels.end()) return 0;
    const bool hasPeer = std::any_of(m_peerMsgChannels.begin(), m_peerMsgChannels.end(),
                                     [&own](const auto& peer) { return peer.second.name == own->second.name; });
    return hasPeer ? own->second.number : 0;
}

bool ServiceChannel::GetMsgChannelInfo(QscMsgChannelID id, QSCService_MsgChannelInfo* info) const {
    if (!info) return false;
    Lock lock(m_mutex);
    const auto own = m_msgChannels.find(id);
    const auto peer = std::find_if(m_peerMsgChannels.begin(), m_peerMsgChannels.end(),
                                   [id](const auto& known) { return known.second.id == id; });
    const bool isPeer = peer != m_peerMsgChannels.end();
    if (own == m_msgChannels.end() && !isPeer) return false;
    const std::string& name = isPeer ? peer->second.name : own->second.name;
    *info = {sizeof *info, isPeer ? TRUE : FALSE, m_ownerId, id, {}};
    info->name[name.copy(info->name, sizeof info->name - 1)] = '\0';
    return true;
}

// On a new connection the peer knows none of them, and this end none of the peer's.
void ServiceChannel::AnnounceMsgChannels() {
    std::vector<std::pair<std::string, uint32_t>> open;
    {
        Lock lock(m_mutex);
        m_peerMsgChannels.clear();
        for (const auto& [id, channel] : m_msgChannels) open.emplace_back(channel.name, channel.number);
    }
    for (const auto& [name, number] : open) SendControl(FrameType::MsgChannelOpened, {std::string_view(name), number});
}

void ServiceChannel::TellOpened(QscMsgChannelID id) {
    MsgChannel channel;
    QscMsgChannelID peer = nullptr;
    {
        Lock lock(m_mutex);
        const auto own = m_msgChannels.find(id);
        if (own == m_msgChannels.end()) return;
        own->second.opened = true;
        channel = own->second;
        for (const auto& [number, known] : m_peerMsgChannels) {
            if (known.name == channel.name) peer = known.id;
        }
    }
    if (channel.sink.QscOnMsgChannelOpened && !channel.sink.QscOnMsgChannelOpened(channel.context, id)) {
        CloseMsgChannel(id);  // its owner has closed it before it knew its id
        return;
    }
    if (peer) TellPeerOpened(channel.name, peer, {0, 0, 0});
}

// Nothing to a channel whose owner hasn't heard that it is open: that hears of its peer then.
void ServiceChannel::TellPeerOpened(const std::string& name, QscMsgChannelID peer, const uint64_t (&words)[3]) {
    MsgChannel channel = {};
    {
        Lock lock(m_mutex);
        for (const auto& [id, own] : m_msgChannels) {
            if (own.opened && own.name == name) channel = own;
        }
    }
    if (!channel.sink.QscOnMsgChannelPeerOpened) return;
    channel.sink.QscOnMsgChannelPeerOpened(channel.context, Pointer(words[0]), peer, Pointer(words[1]),
                                           Pointer(words[2]));
}

void ServiceChannel::OnMsgChannelOpened(const FrameView& frame) {
    const std::vector<Value> values = ItemValues(frame);
    PeerMsgChannel peer = {std::string(values[0].text), Registry::The().NewHandle()};
    {
        Lock lock(m_mutex);
        if (m_peerMsgChannels.size() >= kMaxMsgChannels) return;
        if (!m_peerMsgChannels.try_emplace(static_cast<uint32_t>(values[1].number), peer).second) return;
    }
    TellPeerOpened(peer.name, peer.id, {0, 0, 0});
}

void ServiceChannel::OnMsgChannelClosed(const FrameView& frame) {
    Lock lock(m_mutex);
    m_peerMsgChannels.erase(static_cast<uint32_t>(ItemValues(frame)[0].number));
}

void ServiceChannel::OnMsgChannelWords(const FrameView& frame) {
    const std::vector<Value> values = ItemValues(frame);
    PeerMsgChannel peer;
    {
        Lock lock(m_mutex);
        const auto found = m_peerMsgChannels.find(static_cast<uint32_t>(values[0].number));
        if (found == m_peerMsgChannels.end()) return;
        peer = found->second;
    }
    TellPeerOpened(peer.name, peer.id, {values[1].number, values[2].number, values[3].number});
}

}  // namespace qscservice
