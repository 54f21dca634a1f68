// One end of a channel for a program without a plug-in: the agent's end in the remote desktop, or a bare client.
//
//   ServiceEnd agent({.onReady = ..., .onNotReady = ..., .onMessage = [&](InboundMessage& m) { ... }});
//   std::string error;
//   if (!agent.Channel().Listen("unix:", &error)) ...            // agent.Channel().Address() is what the client dials
//   agent.WaitReady(5000);
//   agent.Post(1, {Value(bytes)});                               // a message without answer
//   std::optional<uint32_t> id = agent.Request(2, {...});        // onDone or onAbort follows with the same id
//   agent.Channel().Interrupt();                                 // both ends fall; a listening end accepts again
//   agent.WaitClosed(5000);                                      // until the client has gone
//
// A server end creates the control object when the channel comes up and the data object when the control object is
// connected; a client end (options.channel.role = Role::Client, then Channel().Dial(address)) follows its peer. The end
// is ready while both objects are connected.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "rpc/QSCServiceTables.h"
#include "standin/qscservice/LockGuard.h"
#include "standin/qscservice/ServiceChannel.h"
#include "standin/qscservice/Value.h"

namespace qscservice {

// A message as it arrives. Valid only during the handler that it is given to, with all values that it returns.
class InboundMessage {
public:
    InboundMessage(void* hContext, bool isRequest) : m_hContext(hContext), m_isRequest(isRequest) {}

    uint32_t Command() const;
    uint32_t RequestId() const;
    bool IsRequest() const { return m_isRequest; }
    int ParamCount() const;
    std::optional<Value> Param(int index) const;  // empty when index is out of range
    int ReturnValueCount() const;
    std::optional<Value> ReturnValue(int index) const;

    // Appends a return value to the answer of a request. The answer goes out when the handler returns.
    bool AddReturnValue(const Value& value);

    // Keeps a request open beyond the handler. The result goes to ServiceEnd::Respond, once; null if this is no
    // request.
    void* Defer();

private:
    void* m_hContext;
    bool m_isRequest;
};

class ServiceEnd {
public:
    struct Options {
        ChannelOptions channel{.role = Role::Server};
        std::string controlName = "UsbRedirControlObj";
        std::string dataName = "UsbRedirDataObj";
    };

    // All handlers run one at a time on the channel's delivery thread (or inside Poll) and may send. Each may be empty.
    struct Handlers {
        std::function<void()> onReady;
        std::function<void()> onNotReady;
        std::function<void(InboundMessage&)> onMessage;
        std::function<void(uint32_t requestId, InboundMessage&)> onDone;  // with the return values of the answer
        std::function<void(uint32_t requestId, uint32_t reason)> onAbort;
    };

    explicit ServiceEnd(Handlers handlers);
    ServiceEnd(Handlers handlers, const Options& options);
    ~ServiceEnd();  // closes the channel; no handler runs after it
    ServiceEnd(const ServiceEnd&) = delete;
    ServiceEnd& operator=(const ServiceEnd&) = delete;

    // The channel under this end: Listen, Dial, Attach, Interrupt, Reconnect, Counts, Close.
    ServiceChannel& Channel() { return *m_channel; }

    // Sends without an answer on the data object, or on the control object. False when the message was not accepted.
    // Waits while the transport is full, except inside a handler.
    bool Post(uint32_t command, Values params, RPCChannelType type = RPCChannelType::Data);

    // Sends a request; the id comes back in onDone or onAbort, possibly before this returns. Empty when not accepted.
    std::optional<uint32_t> Request(uint32_t command, Values params, RPCChannelType type = RPCChannelType::Data);

    // Answers a deferred request, once: the ticket is used up either way. False when it is unknown, when the channel
    // fell since, or when a value can't be carried; in that last case the answer has the values ahead of it.
    bool Respond(void* ticket, Values returnValues);

    bool IsReady() const;
    // Wait for the state, up to timeoutMS milliseconds. True when it is reached.
    bool WaitReady(uint32_t timeoutMS);
    bool WaitNotReady(uint32_t timeoutMS);
    // Waits until a client that was connected has gone.
    bool WaitClosed(uint32_t timeoutMS);

private:
    struct Callbacks;  // the callback tables of this end
    enum class Awaited { Ready, NotReady, Closed };

    std::optional<uint32_t> Send(uint32_t command, Values params, bool post, RPCChannelType type);
    void CreateObject(RPCChannelType type);
    void DestroyObjects();
    void OnObjectState(RPCChannelType type);
    void OnConnection(bool up);
    void SetReady(bool ready);
    bool WaitFor(Awaited awaited, uint32_t timeoutMS);
    bool HasReached(Awaited awaited, uint64_t fallsBefore) const REQUIRES(m_mutex);

    Handlers m_handlers;
    Options m_options;
    std::shared_ptr<ServiceChannel> m_channel;
    uint32_t m_sinkCookie = 0;
    mutable Mutex m_mutex;  // guards the fields below
    std::condition_variable_any m_changed;
    void* m_hObjects[2] GUARDED_BY(m_mutex) = {};
    bool m_connected[2] GUARDED_BY(m_mutex) = {};
    bool m_ready GUARDED_BY(m_mutex) = false;
    bool m_linkUp GUARDED_BY(m_mutex) = false;
    uint64_t m_linkFalls GUARDED_BY(m_mutex) = 0;
};

}  // namespace qscservice
