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

// The account of one client. Safe on any thread. A message is counted together with its reply, so that whoever sees the
// one sees the other.
class ClientBook {
public:
    // True for the first time: the client counts as greeted from here on.
    bool Greet();
    uint32_t NextRunningNumber();
    void CountMessage(uint64_t KindCounts::*kind, size_t bytes);
    // The same with a reply that was sent, or refused.
    void CountMessage(uint64_t KindCounts::*kind, size_t bytes, bool accepted);
    void CountReply(bool accepted);
    void CountMalformed();

    void AddTo(AgentCounts* sum) const;

private:
    mutable qscservice::Mutex lock;  // guards both
    AgentCounts counts GUARDED_BY(lock);
    uint32_t runningNumber GUARDED_BY(lock) = 0;
};

// The accounts of all clients. Safe on any thread.
class AgentBook {
public:
    // The client's, made on first use; it stays where it is as long as the book.
    ClientBook& Of(uint64_t client);

    // Of one client, or of all for 0, with what the service adds to it.
    AgentCounts Counts(uint64_t client) const;

private:
    mutable qscservice::Mutex lock;  // guards clients
    std::map<uint64_t, ClientBook> clients GUARDED_BY(lock);
};
