// Stream data: pairs of descriptors between the two ends. The server's end offers each pair at a rendezvous of its own,
// in the order in which either end's owner asks for them, and the client's end dials as soon as it hears of it; so the
// n-th that one owner gets is the other side of the n-th that the other gets.
//
// The client's end handles offers on its reading thread, since its owner may wait for one on the thread that delivers.
#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>

#include "standin/qscservice/ChannelObject.h"
#include "standin/qscservice/Rendezvous.h"
#include "standin/qscservice/ServiceTables.h"

namespace qscservice {

namespace {

constexpr size_t kMaxUnfetchedStreams = 16;
constexpr size_t kMaxFailedStreams = 1024;  // that a client's end remembers

// The framework takes descriptor 0 for a failure.
int Release(Fd owned) {
    if (owned.Get() != 0) return owned.Release();
    return fcntl(owned.Get(), F_DUPFD_CLOEXEC, 1);
}

Fd DialStream(const std::string& address, uint64_t number, uint32_t timeoutMS) {
    std::string error;
    Fd socket = ConnectSocket(address, &error, timeoutMS);
    const std::vector<uint8_t> greeting = MakeGreeting(number);
    if (socket.IsOpen() &&
        send(socket.Get(), greeting.data(), greeting.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(greeting.size())) {
        return socket;
    }
    ReportError("no stream data: " + (socket.IsOpen() ? "the server does not listen" : error));
    return Fd();
}

void StopIf(Rendezvous& place, uint64_t number) {
    if (place.Number() == number) place.Stop();
}

}  // namespace

// All fields are guarded by the channel's m_mutex.
struct ServiceChannel::Streams {
    // Server: places that no owner has asked for yet, oldest first; and those where an owner waits for the peer.
    std::deque<std::shared_ptr<Rendezvous>> offered;
    std::vector<std::shared_ptr<Rendezvous>> awaited;
    uint32_t offers = 0;

    // Client: what was dialled and no owner has asked for yet. Closed: the pair has failed.
    struct Dialled {
        uint64_t number;  // 0: the server refused to make one more
        Fd socket;
    };
    std::deque<Dialled> dialled;
    uint32_t fetched = 0;
    uint32_t waiting = 0;  // owners
};

bool ServiceChannel::SwitchToStreamData(const char* name, void* hChannel, int* fd) {
    std::shared_ptr<ServiceChannel> channel = Registry::The().FindChannel(hChannel);
    if (!channel) channel = Current();
    if (!name || !fd || !channel || channel->m_options.delivery == Delivery::Manual) return false;
    Fd socket = channel->m_options.role == Role::Server ? channel->AcceptStream() : channel->FetchStream();
    if (!socket.IsOpen()) return false;
    *fd = Release(std::move(socket));
    return *fd > 0;
}

// The first place that was offered and not asked for yet, or a new one.
Fd ServiceChannel::AcceptStream() {
    std::shared_ptr<Streams> streams;
    std::shared_ptr<Rendezvous> place;
    uint32_t attempt = 0;
    {
        Lock order(m_streamMutex);
        bool isOffered = false;
        {
            Lock lock(m_mutex);
            if (m_channel != QSC_CHANNEL_CONNECTED) return Fd();
            streams = m_streams;
            attempt = m_attempt;
            isOffered = !streams->offered.empty();
        }
        if (!isOffered && !OfferStream(streams, attempt)) return Fd();
        Lock lock(m_mutex);
        if (m_streams != streams) return Fd();
        place = streams->offered.front();
        streams->offered.pop_front();
        streams->awaited.push_back(place);
    }
    Fd socket = place->Accept(m_options.meetLimitMS);
    {
        Lock lock(m_mutex);
        std::erase(streams->awaited, place);
        if (m_streams != streams) socket.Reset();
    }
    if (!socket.IsOpen()) SendControl(FrameType::StreamDataRefused, {attempt, place->Number()});
    return socket;
}

// A pair that failed at the other end is used up as well, so that the ends stay in step.
Fd ServiceChannel::FetchStream() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(m_options.meetLimitMS);
    std::shared_ptr<Streams> streams;
    uint32_t attempt = 0;
    uint32_t wanted = 0;
    {
        Lock lock(m_mutex);
        if (m_channel != QSC_CHANNEL_CONNECTED) return Fd();
        streams = m_streams;
        if (!streams->dialled.empty()) return TakeDialled(*streams);
        if (CallbackScope::IsActive()) return Fd();
        attempt = m_attempt;
        wanted = streams->fetched + ++streams->waiting;
    }
    SendControl(FrameType::StreamDataRequest, {attempt, wanted});
    Lock lock(m_mutex);
    while (m_streams == streams && streams->dialled.empty()) {
        if (m_changed.wait_until(m_mutex, deadline) == std::cv_status::timeout) break;
    }
    --streams->waiting;
    return m_streams == streams && !streams->dialled.empty() ? TakeDialled(*streams) : Fd();
}

Fd ServiceChannel::TakeDialled(Streams& streams) {
    Streams::Dialled first = std::move(streams.dialled.front());
    streams.dialled.pop_front();
    if (first.number != 0) ++streams.fetched;
    return std::move(first.socket);
}

// The offers leave in the order of the places.
bool ServiceChannel::OfferStream(const std::shared_ptr<Streams>& streams, uint32_t attempt) {
    std::string kind;
    {
        Lock lock(m_mutex);
        kind = m_isLocal ? "unix:" : "tcp:";
    }
    std::string error;
    const std::shared_ptr<Rendezvous> place = Rendezvous::Open(kind, RandomNumber(), &error);
    if (!place) {
        ReportError("no stream data: " + error);
        return false;
    }
    {
        Lock lock(m_mutex);
        if (m_streams != streams) return false;
        streams->offered.push_back(place);
        ++streams->offers;
    }
    return SendControl(FrameType::StreamDataOffer, {attempt, place->Address(), place->Number()});
}

void ServiceChannel::OnStreamDataRequest(const FrameView& frame) {
    const std::vector<Value> values = ItemValues(frame);
    const auto attempt = static_cast<uint32_t>(values[0].number);
    const auto wanted = static_cast<uint32_t>(values[1].number);
    Lock order(m_streamMutex);
    for (;;) {
        std::shared_ptr<Streams> streams;
        bool isFull = false;
        {
            Lock lock(m_mutex);
            if (m_channel != QSC_CHANNEL_CONNECTED || attempt != m_attempt) return;
            streams = m_streams;
            if (streams->offers >= wanted) return;
            isFull = streams->offered.size() >= kMaxUnfetchedStreams;
        }
        if (isFull || !OfferStream(streams, attempt)) {
            SendControl(FrameType::StreamDataRefused, {attempt, uint64_t{0}});
            return;
        }
    }
}

void ServiceChannel::OnStreamDataOffer(const FrameView& frame) {
    const std::vector<Value> values = ItemValues(frame);
    const auto attempt = static_cast<uint32_t>(values[0].number);
    const std::string address(values[1].text);
    const uint64_t number = values[2].number;
    std::shared_ptr<Streams> streams;
    bool isFull = false;
    {
        Lock lock(m_mutex);
        if (m_channel != QSC_CHANNEL_DISCONNECTED && attempt == m_attempt) streams = m_streams;
        isFull = streams && streams->dialled.size() >= kMaxUnfetchedStreams;
    }
    Fd socket = streams && !isFull ? DialStream(address, number, m_options.meetLimitMS) : Fd();
    if (!socket.IsOpen()) SendControl(FrameType::StreamDataRefused, {attempt, number});
    {
        Lock lock(m_mutex);
        if (!streams || m_streams != streams || streams->dialled.size() >= kMaxFailedStreams) return;
        streams->dialled.push_back({number, std::move(socket)});
    }
    m_changed.notify_all();
}

void ServiceChannel::OnStreamDataRefused(const FrameView& frame) {
    const std::vector<Value> values = ItemValues(frame);
    const uint64_t number = values[1].number;
    {
        Lock lock(m_mutex);
        if (static_cast<uint32_t>(values[0].number) != m_attempt) return;
        for (const auto& place : m_streams->awaited) StopIf(*place, number);
        for (const auto& place : m_streams->offered) StopIf(*place, number);
        for (Streams::Dialled& dialled : m_streams->dialled) {
            if (dialled.number == number) dialled.socket.Reset();
        }
        if (number == 0 && m_streams->waiting > 0) m_streams->dialled.push_back({0, Fd()});
    }
    m_changed.notify_all();
}

// On the reading thread; true when there is nothing left to deliver.
bool ServiceChannel::HandleStreamFrame(const FrameView& frame) {
    if (frame.header.type == FrameType::StreamDataOffer) {
        OnStreamDataOffer(frame);
    } else if (frame.header.type == FrameType::StreamDataRefused) {
        OnStreamDataRefused(frame);
    } else {
        return false;
    }
    return true;
}

std::shared_ptr<ServiceChannel::Streams> ServiceChannel::NewStreams() {
    return std::make_shared<Streams>();
}

// Closes what nobody has fetched, and lets go whoever waits.
void ServiceChannel::DropStreams() {
    std::shared_ptr<Streams> dropped = NewStreams();
    std::vector<std::shared_ptr<Rendezvous>> awaited;
    {
        Lock lock(m_mutex);
        dropped.swap(m_streams);
        awaited = dropped->awaited;
    }
    for (const auto& place : awaited) place->Stop();
    m_changed.notify_all();
}

}  // namespace qscservice
