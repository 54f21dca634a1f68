// The agent's side of a replay: stands on the service's server end, answers what calls for an answer and counts all.
#pragma once

#include "standin/qscservice/LockGuard.h"
#include "standin/qscservice/ServiceEnd.h"
#include "tools/replay/KindCounts.h"

// What it does with a message of the plug-in, by command:
//   0  counts it
//   1  sends it back as a fast post: running number, header length 64, trailer the rest of the size, same blob
//   2  answers with the message id and "response:" ahead of the content
//   3  sends it back as a post "HIDOptOperation" with the same blob
// When the channel is up for the first time it also posts "Filter" and "UnFilter", with the type as content.
class Agent {
public:
    Agent();

    // Waits for the client at an address of the service, or serves a connected socket (closed even on failure). It
    // goes on over falls of the channel until the agent goes. False with one line in error.
    bool Listen(const std::string& where, std::string* error) { return end.Channel().Listen(where, error); }
    bool Attach(int fd, std::string* error) { return end.Channel().Attach(fd, error); }
    std::string Address() { return end.Channel().Address(); }

    // Safe on any thread.
    AgentCounts Counts();

private:
    void OnReady();
    void OnMessage(qscservice::InboundMessage& message);
    bool ReturnFastPost(qscservice::InboundMessage& message);
    bool ReturnHidPost(qscservice::InboundMessage& message);
    bool Answer(qscservice::InboundMessage& message);
    bool CountPost(qscservice::InboundMessage& message);
    void Count(uint64_t KindCounts::*kind, size_t bytes) REQUIRES(lock);
    void CountReply(bool accepted) REQUIRES(lock);

    // Guards counts. A message is counted together with its reply, so that whoever sees the one sees the other.
    qscservice::Mutex lock;
    AgentCounts counts GUARDED_BY(lock);
    uint32_t runningNumber = 0;  // these three of the delivery thread alone
    bool filtersSent = false;
    std::vector<uint8_t> response;
    qscservice::ServiceEnd end;  // the last to be made and the first to go: its handlers use the rest
};
