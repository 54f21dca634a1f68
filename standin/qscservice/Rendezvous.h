// How the two ends of a channel make one more connection between them: the server's end opens a rendezvous and tells
// the client's end its address and number over the connection that they have; the client's end dials and shows the
// number first, so that a stranger who finds the address is turned away.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "standin/qscservice/Transport.h"

namespace qscservice {

// A number that nobody else can know; never 0.
uint64_t RandomNumber();

// All operations are safe on any thread.
class Rendezvous {
public:
    // Opens a listening socket; address is "unix:" or "tcp:". Null with the error set on failure.
    static std::shared_ptr<Rendezvous> Open(const std::string& address, uint64_t number, std::string* error);

    const std::string& Address() const { return m_listener->Address(); }
    uint64_t Number() const { return m_number; }

    // Waits for the one connection that shows the number, up to timeoutMS milliseconds. What it sent behind the number
    // is still to be read. Not open on a time-out, after Stop, or when the socket breaks.
    Fd Accept(uint32_t timeoutMS);
    void Stop() { m_listener->Stop(); }

private:
    Rendezvous(std::shared_ptr<Listener> listener, uint64_t number)
        : m_listener(std::move(listener)), m_number(number) {}

    bool ShowsNumber(int fd, uint32_t timeoutMS) const;

    const std::shared_ptr<Listener> m_listener;
    const uint64_t m_number;
};

// The frame that shows the number.
std::vector<uint8_t> MakeGreeting(uint64_t number);

}  // namespace qscservice
