// Message contexts, and the process-wide table that turns their handles into them.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "standin/qscservice/Frame.h"

namespace qscservice {

class Link;
struct ChannelObject;

// One message being written or read. What is appended goes straight into the frame that will be sent; what was received
// is read in place, from the receive buffer. Used by one thread at a time, except for the handle and the state.
class MessageContext {
public:
    enum class State : uint8_t {
        Free,
        Own,       // the caller's: may be filled, invoked, destroyed
        Sent,      // an open request: the service's
        Inbound,   // being delivered: the receiver may read, and answer a request
        Deferred,  // an inbound request that is answered later
    };

    void* Handle() const { return m_handle; }

    // Moves to another state if the present one is `from`.
    bool Move(State from, State to);
    State GetState() const { return m_state.load(std::memory_order_acquire); }

    // Adds an item at the end. False at a limit, on an unknown kind of value, or if the context can't be written.
    bool Append(ItemRole role, std::string_view name, const Value& value);
    int Count(ItemRole role) const { return static_cast<int>(m_items[static_cast<size_t>(role)].size()); }
    // The value refers to the context's or the received bytes. False when index is out of range.
    bool Get(ItemRole role, int index, Item* item) const;

    // Finishes the frame of a message: all that was appended. Its bytes stay until the context goes.
    std::span<uint8_t> Seal(FrameType type, uint32_t object);

    // Takes command, id and items from a frame. They are read in place: the frame's bytes must outlive the reading.
    void Receive(const FrameView& frame);
    // The same for an answer: replaces the command and adds the items to those that were sent.
    void ReceiveAnswer(const FrameView& frame);
    // Copies what is read in place, so that the received bytes may go.
    void KeepReceived();

    uint32_t command = 0;
    uint32_t requestId = 0;
    bool post = false;
    bool isRequest = false;                   // inbound: the peer waits for an answer
    std::weak_ptr<Link> origin;               // deferred: the channel's connection that the answer belongs to
    std::shared_ptr<ChannelObject> receiver;  // deferred: the object that it was delivered to

private:
    friend class ContextTable;

    struct ItemPlace {
        uint32_t offset;
        bool received;
    };

    void Reset();
    std::span<const uint8_t> ItemBytes(bool received) const;

    std::vector<uint8_t> m_frame;
    std::span<const uint8_t> m_received;
    std::vector<uint8_t> m_kept;  // behind m_received once kept
    std::array<std::vector<ItemPlace>, kItemRoles> m_items;
    void* m_handle = nullptr;
    uint32_t m_index = 0;
    std::atomic<uint32_t> m_generation{0};    // acquire/release: a stale handle is refused
    std::atomic<State> m_state{State::Free};  // acquire/release: hands the context from thread to thread
};

// The pool of all contexts of the process. A handle is a place and a generation, never a pointer, so that any word can
// be told from a live handle; contexts keep their buffers from use to use.
class ContextTable {
public:
    // A fresh context in the given state with a request id of its own. Null when 32767 contexts are in use.
    static MessageContext* Create(MessageContext::State state);
    // Null unless hContext is the handle of a context in use.
    static MessageContext* Find(void* hContext);
    static void Release(MessageContext* context);
    static size_t Live();
};

}  // namespace qscservice
