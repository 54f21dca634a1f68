#include "standin/qscservice/SideChannel.h"

#include <chrono>

#include "standin/qscservice/ServiceTables.h"

namespace qscservice {

namespace {

using Clock = std::chrono::steady_clock;

}  // namespace

SideChannel::SideChannel(ServiceChannel& channel, std::shared_ptr<ChannelObject> object, std::shared_ptr<Link> main,
                         uint32_t peerNumber, uint64_t number)
    : m_channel(channel),
      m_object(std::move(object)),
      m_main(std::move(main)),
      m_peerNumber(peerNumber),
      m_number(number) {}

void SideChannel::Await(const std::shared_ptr<Rendezvous>& rendezvous) {
    Lock lock(m_mutex);
    m_rendezvous = rendezvous;
}

void SideChannel::Start() {
    m_thread = std::thread([self = shared_from_this()] { self->Run(); });
}

void SideChannel::Join() {
    if (m_thread.joinable()) m_thread.join();
}

bool SideChannel::Dial(const std::string& address) {
    {
        Lock lock(m_mutex);
        if (m_stopped || m_givenUp || m_address) return false;
        m_address = address;
    }
    m_changed.notify_all();
    return true;
}

bool SideChannel::Switch(const std::shared_ptr<SocketLink>& link) {
    {
        Lock send(m_object->sendMutex);
        Lock lock(m_mutex);
        if (m_stopped || m_ended) return false;
        if (link) m_link = link;
        std::vector<uint8_t> last = MakeFrame(FrameType::SideChannelSwitch, {m_object->name, m_number});
        if (!m_link || !ServiceChannel::SendFrame(*m_main, last, false)) return false;
        m_object->sideLink = m_link;
    }
    return true;
}

void SideChannel::OpenGate() {
    {
        Lock lock(m_mutex);
        m_gateOpen = true;
    }
    m_changed.notify_all();
}

bool SideChannel::IsGateOpen() const {
    Lock lock(m_mutex);
    return m_gateOpen;
}

void SideChannel::End() {
    Lock send(m_object->sendMutex);
    std::shared_ptr<SocketLink> link;
    {
        Lock lock(m_mutex);
        link = m_link;
        m_ended = link != nullptr;
    }
    m_object->sideLink = nullptr;
    if (!link) return Stop();
    std::vector<uint8_t> last = MakeFrame(FrameType::SideChannelEnd, {});
    if (link->Send(last)) link->FinishSend(last.size(), false);
    link->Wake();
    m_changed.notify_all();
}

bool SideChannel::Drain() {
    for (;;) {
        while (DeliverOne()) {
        }
        const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(m_channel.m_options.meetLimitMS);
        Lock lock(m_mutex);
        while (m_inbox.empty()) {
            if (m_peerEnded || m_over || m_stopped) return true;
            if (m_changed.wait_until(m_mutex, deadline) == std::cv_status::timeout) return false;
        }
    }
}

void SideChannel::Stop() {
    std::shared_ptr<SocketLink> link;
    std::shared_ptr<Rendezvous> rendezvous;
    {
        Lock lock(m_mutex);
        m_stopped = true;
        link = m_link;
        rendezvous = m_rendezvous;
    }
    if (rendezvous) rendezvous->Stop();
    if (link) link->Interrupt();
    m_changed.notify_all();
}

std::shared_ptr<Link> SideChannel::Connection() const {
    Lock lock(m_mutex);
    return m_link;
}

// A connection that ends before the peer's last frame takes the channel down, unless this end wants no more of it.
void SideChannel::Run() {
    std::shared_ptr<Rendezvous> rendezvous;
    {
        Lock lock(m_mutex);
        rendezvous = m_rendezvous;
    }
    const std::shared_ptr<SocketLink> link = rendezvous ? AwaitPeer(std::move(rendezvous)) : DialPeer();
    if (!link) {
        GiveUp();
    } else if (WaitForGate()) {
        const std::string error = link->Run(*this);
        if (!error.empty()) m_channel.Fail(m_main, error);
        bool fell = false;
        {
            Lock lock(m_mutex);
            fell = !m_stopped && !m_ended && !m_peerEnded;
        }
        if (fell) m_main->Interrupt();
    }
    if (link) link->Interrupt();
    {
        Lock lock(m_mutex);
        m_over = true;
    }
    m_changed.notify_all();
    m_channel.OnSideChannelOver(shared_from_this(), link);
    Lock lock(m_mutex);
    m_link = nullptr;
}

// The rendezvous is taken over, and closes with the end. NOLINTNEXTLINE(performance-unnecessary-value-param)
std::shared_ptr<SocketLink> SideChannel::AwaitPeer(std::shared_ptr<Rendezvous> rendezvous) {
    Fd socket = rendezvous->Accept(m_channel.m_options.meetLimitMS);
    {
        Lock lock(m_mutex);
        m_rendezvous = nullptr;
    }
    if (!socket.IsOpen()) return nullptr;
    auto link = std::make_shared<SocketLink>(std::move(socket));
    link->receivedFrames = 1;  // the greeting
    m_channel.Enqueue([this, self = shared_from_this(), link] { m_channel.OnSideChannelAccepted(self, link); });
    return link;
}

// The greeting stands ahead of all that End may send.
std::shared_ptr<SocketLink> SideChannel::DialPeer() {
    const std::optional<std::string> address = WaitForAddress();
    if (!address) return nullptr;
    std::string error;
    Fd socket = ConnectSocket(*address, &error, m_channel.m_options.meetLimitMS);
    if (!socket.IsOpen()) {
        ReportError("no side channel: " + error);
        return nullptr;
    }
    auto link = std::make_shared<SocketLink>(std::move(socket));
    std::vector<uint8_t> greeting = MakeGreeting(m_number);
    Lock send(m_object->sendMutex);
    Lock lock(m_mutex);
    if (m_stopped || !link->Send(greeting)) return nullptr;
    m_link = link;
    return link;
}

std::optional<std::string> SideChannel::WaitForAddress() {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(m_channel.m_options.meetLimitMS);
    Lock lock(m_mutex);
    while (!m_address && !m_stopped) {
        if (m_changed.wait_until(m_mutex, deadline) == std::cv_status::timeout) break;
    }
    m_givenUp = !m_address;
    return m_stopped ? std::nullopt : m_address;
}

// Until the peer has switched, or this end reads the rest.
bool SideChannel::WaitForGate() {
    Lock lock(m_mutex);
    while (!m_gateOpen && !m_ended && !m_stopped) m_changed.wait(m_mutex);
    return !m_stopped;
}

// Whoever stops an attempt tells the owner and the peer, if anybody; here it has failed by itself.
void SideChannel::GiveUp() {
    {
        Lock lock(m_mutex);
        if (m_stopped) return;
    }
    m_channel.Enqueue([this, self = shared_from_this()] { m_channel.OnSideChannelFailed(self); });
}

bool SideChannel::OnFrame(const std::shared_ptr<Link>& link, const FrameView& frame, std::span<const uint8_t> bytes) {
    if (const char* error = Admit(*link, frame)) {
        m_channel.Fail(m_main, error);
        return false;
    }
    const bool isLast = frame.header.type == FrameType::SideChannelEnd;
    {
        Lock lock(m_mutex);
        m_peerEnded = isLast;
        if (!isLast) {
            m_inbox.emplace_back(bytes.begin(), bytes.end());
            m_inboxBytes += bytes.size();
        }
    }
    m_changed.notify_all();
    if (!isLast) m_channel.Enqueue([self = shared_from_this()] { self->DeliverOne(); });
    return true;
}

const char* SideChannel::Admit(Link& link, const FrameView& frame) {
    {
        Lock lock(m_mutex);
        if (m_peerEnded) return "a frame follows the last one of a side channel";
    }
    return m_channel.AdmitFromSide(link, frame, m_peerNumber);
}

// Looked at whenever something was read or sent, so here the connection that has done its work ends.
bool SideChannel::WantsFrames() {
    std::shared_ptr<SocketLink> done;
    {
        Lock lock(m_mutex);
        if (!m_ended || !m_peerEnded) return !m_peerEnded && m_inboxBytes < kMaxQueuedBytes;
        done = m_link;
    }
    if (done->PendingBytes() == 0) done->Interrupt();
    return false;
}

bool SideChannel::DeliverOne() {
    Bytes bytes;
    FrameView frame;
    if (!TakeBytes(&bytes)) return false;
    if (DecodeFrame(bytes, &frame).status == DecodeResult::Complete) m_channel.Dispatch(m_main, frame);
    return true;
}

bool SideChannel::TakeBytes(Bytes* bytes) {
    std::shared_ptr<SocketLink> waiting;
    {
        Lock lock(m_mutex);
        if (m_inbox.empty()) return false;
        *bytes = std::move(m_inbox.front());
        m_inbox.pop_front();
        const bool wasFull = m_inboxBytes >= kMaxQueuedBytes;
        m_inboxBytes -= bytes->size();
        if (wasFull && m_inboxBytes < kMaxQueuedBytes) waiting = m_link;
    }
    if (waiting) waiting->Wake();
    return true;
}

}  // namespace qscservice
