#include "standin/qscservice/Transport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace qscservice {

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kBufferBytes = 256 * 1024;
constexpr size_t kKeptBytes = 1 << 20;   // larger buffers are given back when they are empty
constexpr size_t kPauseBytes = 1 << 20;  // pending answers that make reading pause
constexpr int kPauseMS = 250;            // without progress, after which a pause ends

void Drain(int eventFd) {
    uint64_t count = 0;
    while (read(eventFd, &count, sizeof count) < 0 && errno == EINTR) {
    }
}

void Signal(int eventFd) {
    const uint64_t one = 1;
    while (write(eventFd, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

}  // namespace

void Fd::Reset(int fd) {
    if (m_fd >= 0) close(m_fd);
    m_fd = fd;
}

bool Link::Send(std::span<uint8_t> frame) {
    FrameHeader header;
    std::memcpy(&header, frame.data(), sizeof header);
    Lock lock(m_mutex);
    if (m_sendClosed || (IsMessage(header.type) && Pending() >= kMaxPendingBytes)) return false;
    header.sequence = m_sentFrames + 1;
    std::memcpy(frame.data(), &header, sizeof header);
    if (!Transmit(frame)) return false;
    ++m_sentFrames;
    if (IsMessage(header.type)) ++m_sentMessages[CommandKey(m_sentMessages, header.command)];
    return true;
}

void Link::Interrupt() {
    m_interrupted.store(true, std::memory_order_release);
    {
        Lock lock(m_mutex);
        m_sendClosed = true;
    }
    OnInterrupt();
}

CommandTally Link::SentMessages() const {
    Lock lock(m_mutex);
    return m_sentMessages;
}

size_t Link::PendingBytes() const {
    Lock lock(m_mutex);
    return Pending();
}

SocketLink::SocketLink(Fd socket)
    : m_socket(std::move(socket)), m_wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), m_pauseAbove(kPauseBytes) {
    const int on = 1;
    setsockopt(m_socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // fails on a Unix socket, which needs none
}

bool SocketLink::IsLocal() const {
    int family = 0;
    socklen_t size = sizeof family;
    return getsockopt(m_socket.Get(), SOL_SOCKET, SO_DOMAIN, &family, &size) == 0 && family == AF_UNIX;
}

// False when the connection takes nothing any more.
bool SocketLink::TrySend(std::span<const uint8_t> bytes, size_t* sent) {
    *sent = 0;
    while (*sent < bytes.size()) {
        const ssize_t took =
            send(m_socket.Get(), bytes.data() + *sent, bytes.size() - *sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (took >= 0) {
            *sent += static_cast<size_t>(took);
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return true;
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

bool SocketLink::Transmit(std::span<const uint8_t> frame) {
    size_t sent = 0;
    if (Pending() == 0 && !TrySend(frame, &sent)) m_sendClosed = true;
    if (m_sendClosed && sent == 0) return false;
    if (sent == frame.size()) return true;
    if (m_pendingStart > kKeptBytes && m_pendingStart > m_pending.size() / 2) {
        m_pending.erase(m_pending.begin(), m_pending.begin() + static_cast<std::ptrdiff_t>(m_pendingStart));
        m_pendingStart = 0;
    }
    m_pending.insert(m_pending.end(), frame.begin() + static_cast<std::ptrdiff_t>(sent), frame.end());
    m_queuedTotal += frame.size() - sent;
    return true;
}

// What can't be sent any more is dropped: the connection is about to fall.
void SocketLink::Flush() {
    size_t sent = 0;
    if (!TrySend(std::span<const uint8_t>(m_pending).subspan(m_pendingStart), &sent)) m_sendClosed = true;
    m_pendingStart += sent;
    m_flushedTotal += sent;
    if (m_pendingStart < m_pending.size() && !m_sendClosed) return;
    m_pending.clear();
    m_pendingStart = 0;
    if (m_pending.capacity() > kKeptBytes) m_pending.shrink_to_fit();
}

void SocketLink::FinishSend(size_t frameBytes, bool mayWait) {
    {
        Lock lock(m_mutex);
        if (Pending() == 0) return;
        if (mayWait)
            m_waitedBytes += frameBytes;
        else
            m_readerSends.store(true, std::memory_order_release);
    }
    if (!mayWait) return Wake();

    // The senders that wait do the sending, so that the reading thread isn't needed for it.
    uint64_t goal = 0;
    for (;;) {
        {
            Lock lock(m_mutex);
            if (goal == 0) goal = m_queuedTotal;
            if (m_flushedTotal < goal && !m_sendClosed) Flush();
            if (m_flushedTotal >= goal || m_sendClosed) {
                m_waitedBytes -= frameBytes;
                return;
            }
        }
        pollfd writable = {m_socket.Get(), POLLOUT, 0};
        poll(&writable, 1, -1);
    }
}

void SocketLink::OnInterrupt() {
    shutdown(m_socket.Get(), SHUT_RDWR);
    Wake();
}

void SocketLink::Wake() {
    if (!m_woken.exchange(true, std::memory_order_acq_rel)) Signal(m_wake.Get());
}

std::string SocketLink::Run(LinkClient& client, int firstFrameMS) {
    std::string error;
    if (firstFrameMS >= 0) m_firstFrameDue = Clock::now() + std::chrono::milliseconds(firstFrameMS);
    for (;;) {
        if (m_woken.exchange(false, std::memory_order_acq_rel)) client.OnWake();
        if (!DeliverFrames(client, &error) || IsInterrupted()) return error;
        const bool paused = !FlushForOthers();
        const bool reading = m_hungUp || (!paused && client.WantsFrames());
        const Received received = reading ? Receive() : Received::Nothing;
        if (received == Received::End) return error;
        if (received == Received::Nothing && !WaitForWork(reading, paused, &error)) return error;
    }
}

// Pending bytes that no sender waits for.
size_t SocketLink::Unattended() const {
    return Pending() - std::min(Pending(), m_waitedBytes);
}

// Sends what is pending and gives true unless so much is left that reading is to pause.
bool SocketLink::FlushForOthers() {
    if (!m_readerSends.load(std::memory_order_acquire)) return true;
    Lock lock(m_mutex);
    Flush();
    if (Pending() == 0) m_readerSends.store(false, std::memory_order_release);
    if (Unattended() <= kPauseBytes) m_pauseAbove = kPauseBytes;
    return Unattended() <= m_pauseAbove;
}

void SocketLink::EndPause() {
    Lock lock(m_mutex);
    m_pauseAbove = std::min(Unattended() + kPauseBytes, kMaxPendingBytes);
}

// False when the first frame is overdue.
bool SocketLink::WaitForWork(bool reading, bool paused, std::string* error) {
    int timeoutMS = paused ? kPauseMS : -1;
    if (m_firstFrameDue) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(*m_firstFrameDue - Clock::now()).count();
        if (left <= 0) {
            *error = "the peer has not sent its first frame in time";
            return false;
        }
        timeoutMS = static_cast<int>(left);
    }
    const int in = reading ? POLLIN : POLLRDHUP;
    const int out = m_readerSends.load(std::memory_order_acquire) ? POLLOUT : 0;
    pollfd fds[] = {{m_socket.Get(), static_cast<short>(in | out), 0}, {m_wake.Get(), POLLIN, 0}};
    const int ready = poll(fds, 2, timeoutMS);
    if (ready == 0 && paused) EndPause();
    if (ready <= 0) return true;
    if (fds[0].revents & (POLLHUP | POLLERR | POLLRDHUP)) m_hungUp = true;
    if (fds[1].revents & POLLIN) Drain(m_wake.Get());
    return true;
}

SocketLink::Received SocketLink::Receive() {
    MakeRoom();
    const ssize_t count = recv(m_socket.Get(), m_buffer.get() + m_end, m_capacity - m_end, MSG_DONTWAIT);
    if (count > 0) {
        m_end += static_cast<size_t>(count);
        return Received::Bytes;
    }
    return count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) ? Received::Nothing : Received::End;
}

// Room for the frame that is being received, and a stretch behind it.
void SocketLink::MakeRoom() {
    const size_t held = m_end - m_start;
    const size_t wanted = std::max(m_needed, kBufferBytes);
    if (m_capacity < wanted || (held == 0 && m_capacity > kKeptBytes && wanted == kBufferBytes)) {
        const size_t capacity = wanted > kBufferBytes ? wanted + kBufferBytes : kBufferBytes;
        std::unique_ptr<uint8_t[]> larger(new uint8_t[capacity]);
        if (held != 0) std::memcpy(larger.get(), m_buffer.get() + m_start, held);
        m_buffer = std::move(larger);
        m_capacity = capacity;
    } else if (held == 0 || m_start + wanted > m_capacity) {
        if (held != 0) std::memmove(m_buffer.get(), m_buffer.get() + m_start, held);
    } else {
        return;
    }
    m_start = 0;
    m_end = held;
}

bool SocketLink::DeliverFrames(LinkClient& client, std::string* error) {
    m_needed = 0;
    while (m_start < m_end) {
        const std::span<const uint8_t> bytes(m_buffer.get() + m_start, m_end - m_start);
        FrameView frame;
        const DecodeResult result = DecodeFrame(bytes, &frame);
        if (result.status == DecodeResult::Malformed) {
            *error = result.error;
            return false;
        }
        if (result.status == DecodeResult::NeedMore) {
            m_needed = result.size;
            return true;
        }
        m_firstFrameDue.reset();
        if (IsInterrupted() || !client.OnFrame(shared_from_this(), frame, bytes.first(result.size))) return false;
        m_start += result.size;
    }
    return true;
}

}  // namespace qscservice
