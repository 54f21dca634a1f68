// One object's side channel at one end: the attempt at it, and the connection with the thread that reads it.
//
// An attempt has a number, chosen by the end that asks. The server's end opens a rendezvous and offers it, the client's
// end dials. Then the server's end switches: its last frame about the object on the channel's connection is the switch,
// and from there on the object's frames go out on the side connection. The client's end answers with its own switch.
// Neither end reads the side connection before it has handled the other's switch, so that the order of the object's
// messages holds.
//
//   client                                     server
//   SideChannelRequest (when it asks)  ---->
//                                      <----   SideChannelOffer
//   greeting on the new connection     ---->
//                                      <----   SideChannelSwitch, on the channel's connection
//   SideChannelSwitch                  ---->
//
// Until it dials, the client's end may refuse; until it switches, the server's end may. After that only a fall of the
// channel or the end of the object takes the side channel down. Then each end sends SideChannelEnd as the last frame,
// and closes the connection once it has got the peer's and its own has gone out.
#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "standin/qscservice/ChannelObject.h"
#include "standin/qscservice/Rendezvous.h"
#include "standin/qscservice/Transport.h"

namespace qscservice {

// All operations are safe on any thread. The thread ends by itself; whoever has started it joins it.
class SideChannel : public std::enable_shared_from_this<SideChannel>, private LinkClient {
public:
    SideChannel(ServiceChannel& channel, std::shared_ptr<ChannelObject> object, std::shared_ptr<Link> main,
                uint32_t peerNumber, uint64_t number);

    const std::shared_ptr<ChannelObject>& Object() const { return m_object; }
    const std::shared_ptr<Link>& Main() const { return m_main; }
    uint64_t Number() const { return m_number; }

    // Before Start. On a server's end: where the client is awaited. On a client's end without it the thread waits for
    // Dial.
    void Await(const std::shared_ptr<Rendezvous>& rendezvous);

    void Start();
    void Join();
    // Has the client's end dial. False when it has given up waiting.
    bool Dial(const std::string& address);

    // Sends the switch, and moves the object's frames to the side connection; link is the server's. False when there is
    // none, or the attempt is over.
    bool Switch(const std::shared_ptr<SocketLink>& link = nullptr);
    // The peer has switched: what it sends on the side connection may be read.
    void OpenGate();
    bool IsGateOpen() const;

    // Stops sending on the side connection, as the object is gone. What the peer has sent there is still read and
    // delivered. Without a connection the attempt is over.
    void End();
    // Delivers what the peer has sent, up to its end. Only where callbacks run. False when the peer makes no progress.
    bool Drain();
    // Cuts the connection, or the attempt at it.
    void Stop();

    // The connection while the thread runs, once there is one.
    std::shared_ptr<Link> Connection() const;

private:
    using Bytes = std::vector<uint8_t>;

    void Run();
    std::shared_ptr<SocketLink> AwaitPeer(std::shared_ptr<Rendezvous> rendezvous);
    std::shared_ptr<SocketLink> DialPeer();
    std::optional<std::string> WaitForAddress();
    bool WaitForGate();
    void GiveUp();
    bool DeliverOne();
    bool TakeBytes(Bytes* bytes);
    const char* Admit(Link& link, const FrameView& frame);

    bool OnFrame(const std::shared_ptr<Link>& link, const FrameView& frame, std::span<const uint8_t> bytes) override;
    void OnWake() override {}
    bool WantsFrames() override;

    ServiceChannel& m_channel;  // outlives the thread
    const std::shared_ptr<ChannelObject> m_object;
    const std::shared_ptr<Link> m_main;
    const uint32_t m_peerNumber;  // the peer's number of the object
    const uint64_t m_number;
    std::thread m_thread;

    mutable Mutex m_mutex;  // guards the fields below; taken with no lock held but the object's sendMutex or m_mutex of
                            // the channel
    std::condition_variable_any m_changed;
    std::shared_ptr<Rendezvous> m_rendezvous GUARDED_BY(m_mutex);
    std::optional<std::string> m_address GUARDED_BY(m_mutex);
    std::shared_ptr<SocketLink> m_link GUARDED_BY(m_mutex);
    bool m_gateOpen GUARDED_BY(m_mutex) = false;
    bool m_givenUp GUARDED_BY(m_mutex) = false;    // client: no address is taken any more
    bool m_stopped GUARDED_BY(m_mutex) = false;    // cut by this end
    bool m_ended GUARDED_BY(m_mutex) = false;      // this end's last frame is sent
    bool m_peerEnded GUARDED_BY(m_mutex) = false;  // the peer's last frame is read
    bool m_over GUARDED_BY(m_mutex) = false;       // nothing is read any more
    std::deque<Bytes> m_inbox GUARDED_BY(m_mutex);
    size_t m_inboxBytes GUARDED_BY(m_mutex) = 0;
};

}  // namespace qscservice
