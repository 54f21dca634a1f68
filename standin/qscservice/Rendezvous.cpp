#include "standin/qscservice/Rendezvous.h"

#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <random>

namespace qscservice {

namespace {

using Clock = std::chrono::steady_clock;

// For which a connection may keep others waiting before it shows the number.
constexpr uint32_t kGreetingMS = 500;

uint32_t MillisecondsUntil(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<uint32_t>(left) : 0;
}

}  // namespace

uint64_t RandomNumber() {
    std::random_device source;
    return (uint64_t{source()} << 32 | source()) | 1;
}

std::vector<uint8_t> MakeGreeting(uint64_t number) {
    return MakeFrame(FrameType::Greeting, {number});
}

std::shared_ptr<Rendezvous> Rendezvous::Open(const std::string& address, uint64_t number, std::string* error) {
    std::shared_ptr<Listener> listener = Listener::Open(address, error);
    if (!listener) return nullptr;
    return std::shared_ptr<Rendezvous>(new Rendezvous(std::move(listener), number));
}

Fd Rendezvous::Accept(uint32_t timeoutMS) {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMS);
    std::string error;
    for (;;) {
        Fd socket = m_listener->Accept(&error, static_cast<int>(MillisecondsUntil(deadline)));
        if (!socket.IsOpen()) return socket;
        if (ShowsNumber(socket.Get(), std::min(kGreetingMS, MillisecondsUntil(deadline)))) return socket;
    }
}

bool Rendezvous::ShowsNumber(int fd, uint32_t timeoutMS) const {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMS);
    std::vector<uint8_t> bytes(MakeGreeting(m_number).size());
    for (size_t held = 0; held < bytes.size();) {
        if (!m_listener->WaitReadable(fd, static_cast<int>(MillisecondsUntil(deadline)))) return false;
        const ssize_t count = recv(fd, bytes.data() + held, bytes.size() - held, MSG_DONTWAIT);
        if (count <= 0) return false;
        held += static_cast<size_t>(count);
    }
    FrameView frame;
    if (DecodeFrame(bytes, &frame).status != DecodeResult::Complete) return false;
    return frame.header.type == FrameType::Greeting && ItemValues(frame) == std::vector<Value>{Value(m_number)};
}

}  // namespace qscservice
