// The channel's connections, one after the other on one worker thread, and the account of what each of them carried.
//
// A connection begins with a hello of either end: who it is, whom it met last, and how many messages of each command
// number it has received from there. When both ends met each other last, what either had accepted before has either
// been received or was cut by the fall, and the two numbers say how many. Otherwise the account begins anew.
#include <sys/socket.h>

#include <algorithm>

#include "standin/qscservice/ChannelObject.h"
#include "standin/qscservice/ServiceTables.h"
#include "standin/qscservice/SideChannel.h"

namespace qscservice {

namespace {

constexpr uint32_t kProtocolVersion = 1;
constexpr size_t kHelloFields = 4;  // version, role, end, the end met last; then pairs of command and count

bool Refuse(std::string* error, const char* text) {
    if (error) *error = text;
    return false;
}

bool RefuseInCallback(std::string* error) {
    if (!CallbackScope::IsActive()) return false;
    Refuse(error, "not possible inside a callback");
    return true;
}

// The kinds of a control frame's items, a letter each; hello goes on with pairs. Null: a message or an answer.
const char* ShapeOf(FrameType type) {
    switch (type) {
        case FrameType::Hello:
            return "uuUU";
        case FrameType::Open:
        case FrameType::Reject:
        case FrameType::Close:
        case FrameType::Abort:
            return "u";
        case FrameType::Accept:
            return "ui";
        case FrameType::ObjectCreated:
            return "suu";
        case FrameType::ObjectReady:
            return "su";
        case FrameType::ObjectDestroyed:
            return "s";
        case FrameType::MsgChannelOpened:
            return "su";
        case FrameType::MsgChannelClosed:
            return "u";
        case FrameType::MsgChannelWords:
            return "uUUU";
        case FrameType::SideChannelRequest:
            return "suU";
        case FrameType::SideChannelOffer:
            return "susUu";
        case FrameType::SideChannelSwitch:
        case FrameType::SideChannelRefused:
            return "sU";
        case FrameType::SideChannelEnd:
            return "";
        case FrameType::Greeting:
            return "U";
        case FrameType::StreamDataRequest:
            return "uu";
        case FrameType::StreamDataOffer:
            return "usU";
        case FrameType::StreamDataRefused:
            return "uU";
        case FrameType::Post:
        case FrameType::Request:
        case FrameType::Reply:
            break;
    }
    return nullptr;
}

uint16_t KindOf(char letter) {
    switch (letter) {
        case 'u':
            return QSC_VT_UI4;
        case 'U':
            return QSC_VT_UI8;
        case 'i':
            return kKindInt32;
        default:
            return QSC_VT_LPSTR;
    }
}

bool FitsInto(const Item& item, FrameType type, const char* shape, size_t index) {
    if (!shape) return (item.role == ItemRole::ReturnValue) == (type == FrameType::Reply);
    const size_t length = std::char_traits<char>::length(shape);
    const bool inPairs = type == FrameType::Hello && index >= length;
    if (index >= length && !inPairs) return false;
    const char letter = inPairs ? "uU"[index % 2] : shape[index];
    return item.role == ItemRole::Param && item.value.kind == KindOf(letter) && item.value.text.size() <= kMaxNameBytes;
}

bool HasItemsOfItsType(const FrameView& frame) {
    const FrameType type = frame.header.type;
    const char* shape = ShapeOf(type);
    size_t index = 0;
    size_t offset = 0;
    for (Item item; ReadItem(frame.items, &offset, &item); ++index) {
        if (!FitsInto(item, type, shape, index)) return false;
    }
    if (!shape) return true;
    const size_t length = std::char_traits<char>::length(shape);
    return index == length || (type == FrameType::Hello && index > length && index % 2 == 0);
}

// On the channel's connection. Only the client opens, only the server answers to that and offers addresses.
bool MaySend(Role sender, FrameType type) {
    switch (type) {
        case FrameType::Open:
        case FrameType::SideChannelRequest:
        case FrameType::StreamDataRequest:
            return sender == Role::Client;
        case FrameType::Accept:
        case FrameType::Reject:
        case FrameType::SideChannelOffer:
        case FrameType::StreamDataOffer:
            return sender == Role::Server;
        case FrameType::SideChannelEnd:
        case FrameType::Greeting:
            return false;
        default:
            return true;
    }
}

bool IsForSideChannel(FrameType type) {
    return IsMessage(type) || type == FrameType::Reply || type == FrameType::SideChannelEnd;
}

Role OtherRole(Role role) {
    return role == Role::Client ? Role::Server : Role::Client;
}

}  // namespace

bool ServiceChannel::Listen(const std::string& address, std::string* error) {
    if (RefuseInCallback(error)) return false;
    Lock control(m_controlMutex);
    if (!CanStart(error)) return false;
    const std::shared_ptr<Listener> listener = Listener::Open(address, error);
    if (!listener) return false;
    {
        Lock lock(m_mutex);
        m_listener = listener;
    }
    StartWorker(nullptr, [this, listener] { AcceptLoop(*listener); });
    return true;
}

std::string ServiceChannel::Address() const {
    Lock lock(m_mutex);
    return m_listener ? m_listener->Address() : std::string();
}

bool ServiceChannel::Dial(const std::string& address, std::string* error) {
    if (RefuseInCallback(error)) return false;
    Lock control(m_controlMutex);
    if (!CanStart(error)) return false;
    m_dialed = address;
    return DialAgain(error);
}

bool ServiceChannel::Attach(int fd, std::string* error) {
    Fd owned(fd);
    if (RefuseInCallback(error)) return false;
    Lock control(m_controlMutex);
    int type = 0;
    socklen_t size = sizeof type;
    if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_STREAM) {
        return Refuse(error, "the file descriptor is no stream socket");
    }
    if (!CanStart(error)) return false;
    m_dialed.clear();
    const auto link = std::make_shared<SocketLink>(std::move(owned));
    StartWorker(link, [this, link] { RunLink(link); });
    return true;
}

void ServiceChannel::Interrupt() {
    std::shared_ptr<Link> running;
    {
        Lock lock(m_mutex);
        running = m_running;
    }
    if (running) running->Interrupt();
    StopSideChannels();
}

bool ServiceChannel::Reconnect(std::string* error) {
    if (RefuseInCallback(error)) return false;
    Lock control(m_controlMutex);
    {
        Lock lock(m_mutex);
        if (m_closed) return Refuse(error, "the channel is closed");
        if (m_listener) return true;
        if (m_running && !m_running->IsInterrupted()) return Refuse(error, "the channel is connected");
    }
    if (m_dialed.empty()) return Refuse(error, "only a channel that has dialled can connect again");
    JoinWorker();
    return DialAgain(error);
}

void ServiceChannel::Close() {
    if (CallbackScope::IsActive()) {
        ReportError("a channel cannot be closed inside a callback");
        return Interrupt();
    }
    std::shared_ptr<Listener> listener;
    {
        Lock lock(m_mutex);
        m_closed = true;
        listener = m_listener;
    }
    if (listener) listener->Stop();
    Interrupt();

    Lock control(m_controlMutex);
    JoinWorker();
    decltype(m_queue) undelivered;
    {
        Lock lock(m_mutex);
        while (m_delivering) m_changed.wait(m_mutex);
        undelivered.swap(m_queue);
        m_queuedBytes = 0;
        m_link = nullptr;
        m_running = nullptr;
        m_listener = nullptr;
        m_connection = QSC_CONNECTION_DISCONNECTED;
    }
    m_changed.notify_all();
    DropChannel();
}

std::string ServiceChannel::LastError() const {
    Lock lock(m_mutex);
    return m_lastError;
}

std::map<uint32_t, CommandCount> ServiceChannel::Counts() const {
    Lock lock(m_mutex);
    std::map<uint32_t, CommandCount> counts = m_counts;
    const auto add = [&counts](const Link& link) {
        for (const auto& [command, sent] : link.SentMessages()) counts[CommandKey(counts, command)].accepted += sent;
    };
    if (m_running) add(*m_running);
    for (const SidePtr& side : m_sides) {
        if (const std::shared_ptr<Link> link = side->Connection()) add(*link);
    }
    return counts;
}

bool ServiceChannel::CanStart(std::string* error) {
    {
        Lock lock(m_mutex);
        if (m_closed) return Refuse(error, "the channel is closed");
        if (m_running || m_listener) return Refuse(error, "the channel has a connection already");
    }
    if (m_options.delivery == Delivery::Manual) return Refuse(error, "a channel delivered by hand has no transport");
    JoinWorker();
    return true;
}

bool ServiceChannel::DialAgain(std::string* error) {
    Fd socket = ConnectSocket(m_dialed, error);
    if (!socket.IsOpen()) return false;
    const auto link = std::make_shared<SocketLink>(std::move(socket));
    StartWorker(link, [this, link] { RunLink(link); });
    return true;
}

// The worker keeps the channel alive, so that nothing it runs can be the last to hold it.
void ServiceChannel::StartWorker(std::shared_ptr<Link> link, Action run) {
    {
        Lock lock(m_mutex);
        m_running = std::move(link);
    }
    m_worker = std::thread([self = shared_from_this(), run = std::move(run)] { run(); });
}

void ServiceChannel::JoinWorker() {
    if (m_worker.joinable()) m_worker.join();
}

void ServiceChannel::AcceptLoop(Listener& listener) {
    std::string error;
    for (;;) {
        Fd socket = listener.Accept(&error);
        if (!socket.IsOpen()) break;
        RunLink(std::make_shared<SocketLink>(std::move(socket)));
    }
    if (!error.empty()) Fail(nullptr, error);
}

void ServiceChannel::RunLink(const std::shared_ptr<SocketLink>& link) {
    bool closed = false;
    {
        Lock lock(m_mutex);
        m_running = link;
        m_isLocal = link->IsLocal();
        closed = m_closed;
    }
    if (closed) link->Interrupt();
    if (!m_ownerId) SayHello(*link);
    const std::string error = link->Run(*this, m_ownerId ? static_cast<int>(m_options.helloLimitMS) : -1);
    if (!error.empty()) Fail(link, error);
    TakeLinkDown(link);
}

void ServiceChannel::BringLinkUp(const std::shared_ptr<Link>& link) {
    {
        Lock lock(m_mutex);
        m_link = link;
        m_connection = QSC_CONNECTION_CONNECTED;
    }
    m_changed.notify_all();
    if (const std::shared_ptr<ChannelOwner> owner = m_owner.lock()) owner->OnLinkUp(m_ownerId);
    FireConnectionState(QSC_CONNECTION_CONNECTED, QSC_CONNECTION_CONNECTED);
    AnnounceMsgChannels();
}

void ServiceChannel::TakeLinkDown(const std::shared_ptr<Link>& link) {
    link->Interrupt();
    JoinSideChannels();
    {
        Lock lock(m_mutex);
        AddSentOf(*link);
        m_running = nullptr;
        if (m_link == link) m_link = nullptr;
    }
    Enqueue([this, link] {
        DroppedChannel dropped = DropChannel();
        AbortRequests(std::move(dropped.requests));
        if (dropped.was == QSC_CHANNEL_CONNECTED) FireChannelState(QSC_CHANNEL_DISCONNECTED, QSC_CHANNEL_DISCONNECTED);
        bool wasUp = false;
        {
            Lock lock(m_mutex);
            if (m_link == link) m_link = nullptr;
            wasUp = m_connection == QSC_CONNECTION_CONNECTED;
            m_connection = QSC_CONNECTION_DISCONNECTED;
        }
        m_changed.notify_all();
        if (wasUp) FireConnectionState(QSC_CONNECTION_DISCONNECTED, QSC_CONNECTION_DISCONNECTED);
        if (const std::shared_ptr<ChannelOwner> owner = m_owner.lock()) owner->OnLinkDown(m_ownerId);
    });
    if (m_options.delivery == Delivery::Threaded) DeliverPending();
}

void ServiceChannel::Fail(const std::shared_ptr<Link>& link, const std::string& error) {
    {
        Lock lock(m_mutex);
        m_lastError = error;
    }
    ReportError(error);
    if (link) link->Interrupt();
}

bool ServiceChannel::OnFrame(const std::shared_ptr<Link>& link, const FrameView& frame,
                             std::span<const uint8_t> bytes) {
    if (const char* error = Admit(*link, frame)) {
        Fail(link, error);
        return false;
    }
    if (m_ownerId && frame.header.type == FrameType::Hello) SayHello(*link);
    if (HandleStreamFrame(frame)) return true;
    if (m_options.delivery == Delivery::Threaded) {
        Dispatch(link, frame);
        return true;
    }
    const auto copy = std::make_shared<const std::vector<uint8_t>>(bytes.begin(), bytes.end());
    const FrameView kept = {frame.header, std::span<const uint8_t>(*copy).subspan(sizeof(FrameHeader))};
    Enqueue([this, link, copy, kept] { Dispatch(link, kept); }, bytes.size());
    return true;
}

// Only what was there when the wake came, so that side channels in a hurry don't keep the channel's own frames waiting.
void ServiceChannel::OnWake() {
    if (m_options.delivery != Delivery::Threaded) return;
    size_t count = 0;
    {
        Lock lock(m_mutex);
        count = m_queue.size();
    }
    while (count > 0 && DeliverNext()) --count;
    std::shared_ptr<Link> running;
    {
        Lock lock(m_mutex);
        if (!m_queue.empty()) running = m_running;
    }
    if (running) running->Wake();
}

// An owned channel answers the hello of its client, as that tells whose account it goes on with.
void ServiceChannel::SayHello(Link& link) {
    std::vector<uint8_t> hello = MakeHello();
    SendFrame(link, hello, false);
}

std::vector<uint8_t> ServiceChannel::MakeHello() const {
    Lock lock(m_mutex);
    std::vector<Value> values = {kProtocolVersion, static_cast<uint32_t>(m_options.role), m_endId, m_peerEnd};
    for (const auto& [command, count] : m_received) {
        values.emplace_back(command);
        values.emplace_back(count);
    }
    return MakeFrame(FrameType::Hello, values);
}

// What is wrong with a frame, by itself or at its place; null if nothing is. A message counts as received from here on.
const char* ServiceChannel::Admit(Link& link, const FrameView& frame) {
    const FrameHeader& header = frame.header;
    if (header.sequence != ++link.receivedFrames) return "a frame is out of sequence";
    if ((header.type == FrameType::Hello) != (header.sequence == 1)) return "a connection begins with one hello";
    if (!HasItemsOfItsType(frame)) return "a frame has items that are not of its type";
    if (!MaySend(OtherRole(m_options.role), header.type)) return "a frame is of a type that the peer has no right to";
    if (header.type == FrameType::Hello) AdoptAccount(ItemValues(frame)[2].number);
    Lock lock(m_mutex);
    if (header.type == FrameType::Hello) return NoteHello(frame);
    if (IsMessage(header.type)) ++m_received[CommandKey(m_received, header.command)];
    return nullptr;
}

// The same for a frame of a side connection, behind the greeting.
const char* ServiceChannel::AdmitFromSide(Link& link, const FrameView& frame, uint32_t peerNumber) {
    const FrameHeader& header = frame.header;
    if (header.sequence != ++link.receivedFrames) return "a frame is out of sequence";
    if (!IsForSideChannel(header.type)) return "a frame is of a type that has no place on a side channel";
    if (!HasItemsOfItsType(frame)) return "a frame has items that are not of its type";
    if (!IsMessage(header.type)) return nullptr;
    if (header.object != peerNumber) return "a message is not of the side channel's object";
    Lock lock(m_mutex);
    ++m_received[CommandKey(m_received, header.command)];
    return nullptr;
}

const char* ServiceChannel::NoteHello(const FrameView& frame) {
    const std::vector<Value> values = ItemValues(frame);
    const uint64_t end = values[2].number;
    if (values[0].number != kProtocolVersion) return "the peer speaks another version";
    if (values[1].number != static_cast<uint32_t>(OtherRole(m_options.role))) return "the peer has the same role";
    if (values.size() > kHelloFields + 2 * (kMaxCountedCommands + 1)) return "the peer counts too many commands";
    if (end == m_peerEnd && values[3].number == m_endId) {
        CommandTally received;
        for (size_t i = kHelloFields; i < values.size(); i += 2) {
            received[static_cast<uint32_t>(values[i].number)] = values[i + 1].number;
        }
        return SettleWith(received);
    }
    m_peerEnd = end;
    m_received.clear();
    m_reported.clear();
    m_settled.clear();
    for (const auto& [command, count] : m_counts) m_settled[command] = count.accepted;
    return nullptr;
}

// With more than kMaxCountedCommands commands the two ends may not tell the same ones apart. Then the sum still has to
// be right, and what is received beyond a command's own count belongs to the others.
const char* ServiceChannel::SettleWith(const CommandTally& received) {
    uint64_t open = 0;
    for (const auto& [command, count] : m_counts) open += count.accepted - m_settled[command];
    for (const auto& [command, before] : m_reported) {
        const auto now = received.find(command);
        if (now == received.end() || now->second < before) return "the peer takes back what it has received";
    }
    for (const auto& [command, now] : received) {
        const auto before = m_reported.find(command);
        const uint64_t arrived = now - (before != m_reported.end() ? before->second : 0);
        if (arrived > open) return "the peer has received more than was sent";
        open -= arrived;
    }

    uint64_t surplus = 0;
    for (const auto& [command, now] : received) {
        const uint64_t arrived = now - m_reported[command];
        const auto known = m_counts.find(command);
        const uint64_t room = known != m_counts.end() ? known->second.accepted - m_settled[command] : 0;
        const uint64_t own = std::min(arrived, room);
        surplus += arrived - own;
        if (own == 0) continue;
        known->second.confirmed += own;
        m_settled[command] += own;
    }
    for (auto entry = m_counts.rbegin(); entry != m_counts.rend(); ++entry) {
        CommandCount& count = entry->second;
        const uint64_t left = count.accepted - m_settled[entry->first];
        const uint64_t own = std::min(surplus, left);
        surplus -= own;
        count.confirmed += own;
        count.cut += left - own;
        m_settled[entry->first] = count.accepted;
    }
    m_reported = received;
    return nullptr;
}

void ServiceChannel::AdoptAccount(uint64_t peerEnd) {
    const std::shared_ptr<ChannelOwner> owner = m_owner.lock();
    std::optional<ChannelAccount> account = owner ? owner->TakeAccount(m_ownerId, peerEnd) : std::nullopt;
    if (!account) return;
    Lock lock(m_mutex);
    m_endId = account->end;
    m_peerEnd = account->peerEnd;
    m_counts = std::move(account->counts);
    m_received = std::move(account->received);
    m_reported = std::move(account->reported);
    m_settled = std::move(account->settled);
}

ChannelAccount ServiceChannel::Account() const {
    Lock lock(m_mutex);
    return {m_endId, m_peerEnd, m_counts, m_received, m_reported, m_settled};
}

CommandCount& ServiceChannel::CountOf(uint32_t command) {
    return m_counts[CommandKey(m_counts, command)];
}

void ServiceChannel::AddSentOf(const Link& link) {
    for (const auto& [command, sent] : link.SentMessages()) CountOf(command).accepted += sent;
}

}  // namespace qscservice
