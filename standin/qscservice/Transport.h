// What carries frames: a link to one peer, over a stream socket or in memory, and the sockets behind it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "standin/qscservice/Frame.h"
#include "standin/qscservice/LockGuard.h"

namespace qscservice {

using CommandTally = std::map<uint32_t, uint64_t>;

// A file descriptor that is closed with its owner.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : m_fd(fd) {}
    ~Fd() { Reset(); }
    Fd(Fd&& other) noexcept : m_fd(other.Release()) {}
    Fd& operator=(Fd&& other) noexcept {
        Reset(other.Release());
        return *this;
    }
    int Get() const { return m_fd; }
    bool IsOpen() const { return m_fd >= 0; }
    int Release() { return std::exchange(m_fd, -1); }
    void Reset(int fd = -1);

private:
    int m_fd = -1;
};

// At most this many command numbers are told apart; the rest share the key kOtherCommands.
inline constexpr size_t kMaxCountedCommands = 256;
inline constexpr uint32_t kOtherCommands = 0xFFFFFFFF;

// The key under which a command counts in a tally.
template <class T>
uint32_t CommandKey(const std::map<uint32_t, T>& tally, uint32_t command) {
    return tally.size() < kMaxCountedCommands || tally.contains(command) ? command : kOtherCommands;
}

inline bool IsMessage(FrameType type) {
    return type == FrameType::Post || type == FrameType::Request;
}

// Of frames that wait for a full socket: no message is accepted on top of so many bytes.
inline constexpr size_t kMaxPendingBytes = 64u << 20;

// The sending side of one connection. Numbers the frames, and counts the messages among them by command. All operations
// are safe on any thread.
class Link {
public:
    virtual ~Link() = default;

    // Takes the whole frame and gives true, or nothing of it and false. Never blocks: what a full socket doesn't take
    // waits in a copy, which FinishSend sees to.
    bool Send(std::span<uint8_t> frame);
    // After Send of so many bytes. With mayWait it returns when all that was sent has left this process, or never will,
    // so that a sender is slowed down to the peer's pace. Without, the reading thread sends what waits.
    virtual void FinishSend(size_t frameBytes, bool mayWait) {
        (void)frameBytes;
        (void)mayWait;
    }

    // No frame is accepted and nothing more is read after it.
    void Interrupt();
    bool IsInterrupted() const { return m_interrupted.load(std::memory_order_acquire); }

    // Has the reading thread look at what was queued for it.
    virtual void Wake() {}

    CommandTally SentMessages() const;
    // Bytes that were accepted and have not been sent yet.
    size_t PendingBytes() const;

    // Written and read only by the thread that reads from the peer.
    uint32_t receivedFrames = 0;

protected:
    // Takes all of the frame or nothing, without blocking.
    virtual bool Transmit(std::span<const uint8_t> frame) REQUIRES(m_mutex) = 0;
    // Bytes that were taken and have not been sent yet.
    virtual size_t Pending() const REQUIRES(m_mutex) { return 0; }
    virtual void OnInterrupt() {}

    mutable Mutex m_mutex;  // guards the order of frames on the link, and the fields below
    bool m_sendClosed GUARDED_BY(m_mutex) = false;

private:
    uint32_t m_sentFrames GUARDED_BY(m_mutex) = 0;
    CommandTally m_sentMessages GUARDED_BY(m_mutex);
    std::atomic<bool> m_interrupted{false};  // release/acquire: ends the reading loop
};

// What the reading thread calls.
class LinkClient {
public:
    virtual ~LinkClient() = default;
    // One frame as it arrived; both arguments refer to the receive buffer. False ends the connection.
    virtual bool OnFrame(const std::shared_ptr<Link>& link, const FrameView& frame, std::span<const uint8_t> bytes) = 0;
    // Something was queued for the reading thread. Comes before any frame that arrived after the Wake.
    virtual void OnWake() = 0;
    // Whether more frames are welcome. While not, the peer is left waiting, until a Wake brings a new look.
    virtual bool WantsFrames() = 0;
};

// A connected stream socket. One thread runs Run, which reads and delivers and never waits for a send.
//
// A handler that answers every message of a peer that is slow to read would pile up answers without end. So reading
// pauses while many bytes wait to be sent. Two ends that pause for each other would wait for ever: when the socket
// takes nothing for a while, the pause ends until so many bytes again have been added, up to kMaxPendingBytes.
class SocketLink : public Link, public std::enable_shared_from_this<SocketLink> {
public:
    explicit SocketLink(Fd socket);

    // Whether it is a Unix socket.
    bool IsLocal() const;

    // Reads until the peer is gone or the link is interrupted; what arrived whole is delivered first. Returns an error
    // text when the peer's bytes broke the format, or its first frame was not whole within firstFrameMS milliseconds
    // (-1: no limit), else empty.
    std::string Run(LinkClient& client, int firstFrameMS = -1);
    void FinishSend(size_t frameBytes, bool mayWait) override EXCLUDES(m_mutex);
    void Wake() override;

protected:
    bool Transmit(std::span<const uint8_t> frame) override REQUIRES(m_mutex);
    size_t Pending() const override REQUIRES(m_mutex) { return m_pending.size() - m_pendingStart; }
    void OnInterrupt() override;

private:
    enum class Received { Bytes, Nothing, End };

    bool TrySend(std::span<const uint8_t> bytes, size_t* sent) REQUIRES(m_mutex);
    void Flush() REQUIRES(m_mutex);
    size_t Unattended() const REQUIRES(m_mutex);
    bool FlushForOthers() EXCLUDES(m_mutex);
    void EndPause() EXCLUDES(m_mutex);
    bool WaitForWork(bool reading, bool paused, std::string* error);
    Received Receive();
    void MakeRoom();
    bool DeliverFrames(LinkClient& client, std::string* error);

    Fd m_socket;
    Fd m_wake;
    std::atomic<bool> m_woken{false};        // acquire/release: what was queued before Wake is seen after it
    std::atomic<bool> m_readerSends{false};  // acquire/release: the reading thread is to send what is pending
    std::vector<uint8_t> m_pending GUARDED_BY(m_mutex);  // accepted, but the socket was full; from m_pendingStart on
    size_t m_pendingStart GUARDED_BY(m_mutex) = 0;
    uint64_t m_queuedTotal GUARDED_BY(m_mutex) = 0;   // bytes that ever went through m_pending
    uint64_t m_flushedTotal GUARDED_BY(m_mutex) = 0;  // of these, bytes that the socket took
    size_t m_waitedBytes GUARDED_BY(m_mutex) = 0;     // of frames whose senders wait until they are sent
    size_t m_pauseAbove GUARDED_BY(m_mutex);          // reading pauses above so many pending bytes of the other frames

    // Of the reading thread alone: when the first frame has to be there, unless there is no limit or it came; whether
    // the peer has hung up; and the receive buffer.
    std::optional<std::chrono::steady_clock::time_point> m_firstFrameDue;
    bool m_hungUp = false;
    std::unique_ptr<uint8_t[]> m_buffer;
    size_t m_capacity = 0;
    size_t m_start = 0;
    size_t m_end = 0;
    size_t m_needed = 0;
};

// A listening socket. Removes what it made in the file system.
class Listener {
public:
    // Address forms as in ServiceChannel::Listen. Null with the error set on failure.
    static std::shared_ptr<Listener> Open(const std::string& address, std::string* error);
    ~Listener();

    // Where to connect: with the path or port that was made up.
    const std::string& Address() const { return m_address; }
    // Waits for a connection, up to timeoutMS milliseconds (-1: no limit). Not open on a time-out, after Stop until
    // Resume, or on an error that is then set.
    Fd Accept(std::string* error, int timeoutMS = -1);
    // Waits until there is something to read from fd, up to timeoutMS milliseconds. False on a time-out or after Stop.
    bool WaitReadable(int fd, int timeoutMS);
    void Stop();
    void Resume();

private:
    Listener() = default;

    Fd m_socket;
    Fd m_stop;
    std::string m_address;
    std::string m_path;
    std::string m_folder;
};

// Connects to an address of a Listener, for up to timeoutMS milliseconds (0: no limit). Not open, with the error set,
// on failure.
Fd ConnectSocket(const std::string& address, std::string* error, uint32_t timeoutMS = 0);

}  // namespace qscservice
