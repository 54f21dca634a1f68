// What the agent keeps of its clients and sessions. A client is an end of the service, which may come back; a session
// is one instance of its, from the start to the end of a server connection.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "standin/qscservice/LockGuard.h"
#include "tools/replay/KindCounts.h"

// What is shown of one session.
struct SessionView {
    std::string id;      // by which the service tells it from all others
    std::string client;  // 16 digits
    bool ready = false;
    uint64_t received = 0;  // messages
    uint64_t bytes = 0;     // content of these
    uint64_t replies = 0;   // posts sent
    int pending = 0;        // requests without an answer yet
    uint64_t oldestMS = 0;  // age of the oldest of them
    double seconds = 0;     // since it began, and since its last message
    double idleSeconds = 0;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(SessionView, id, client, ready, received, bytes, replies, pending, oldestMS, seconds,
                                   idleSeconds)

// Safe on any thread. A message is counted together with its reply, so that whoever sees the one sees the other.
class AgentBook {
public:
    // True if that client hasn't been greeted yet; it counts as greeted from here on.
    bool Greet(uint64_t client);
    uint32_t NextRunningNumber(uint64_t client);
    void CountMessage(uint64_t client, uint64_t KindCounts::*kind, size_t bytes);
    // The same with a reply that was sent, or refused.
    void CountMessage(uint64_t client, uint64_t KindCounts::*kind, size_t bytes, bool accepted);
    void CountReply(uint64_t client, bool accepted);
    void CountMalformed(uint64_t client);

    // Of one client, or of all for 0, with what the service adds to it.
    AgentCounts Counts(uint64_t client) const;

private:
    struct Client {
        AgentCounts counts;
        uint32_t runningNumber = 0;
    };

    mutable qscservice::Mutex lock;  // guards clients
    std::map<uint64_t, Client> clients GUARDED_BY(lock);
};
