// The agent's side of a replay, the USB plug-in of the remote desktop in the smallest form that answers: a server on
// the framework, with an instance for each client or, in the single mode, with one.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "rpc/RPCManager.h"
#include "tools/replay/AgentBook.h"

class AgentManager;

// Where the data object's messages travel.
enum class SideChannel { None, Tcp, Virtual };

// What an instance does with a message of the plug-in, by command:
//   0  counts it
//   1  sends it back as a fast post: running number, header length 64, trailer the rest of the size, same blob
//   2  answers with the message id and "response:" ahead of the content
//   3  sends it back as a post "HIDOptOperation" with the same blob
// When a client's channel is up for the first time it also posts "Filter" and "UnFilter", with the type as content.
//
// Used by one thread, but for what is said to be safe on any.
class Agent {
public:
    struct Options {
        std::string address;  // as for qscservice::ServerOptions
        bool single = false;  // one client at a time
        SideChannel sideChannel = SideChannel::None;
        uint32_t readyTimeoutMS = 0;  // of the single mode: Start fails if no client is ready in time; 0: no wait
        std::function<void(const std::string& address)> onListening;  // where clients dial, ahead of any wait
    };

    Agent();
    ~Agent();  // Stop
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    // False with one line in error.
    bool Start(const Options& options, std::string* error);
    // Takes all clients' channels down. False, with all done that can be, if the service reports a failure.
    bool Stop();

    // Of one client, by its end, or of all for 0. Safe on any thread, also after Stop for what the service doesn't add.
    AgentCounts Counts(uint64_t client = 0) const { return book.Counts(client); }
    // Those that there are at this moment. Safe on any thread.
    std::vector<SessionView> Sessions() const;

private:
    AgentBook book;
    RCPtr<AgentManager> manager;  // null before Start and after Stop
    RCPtr<RPCPluginInstance> single;
};
