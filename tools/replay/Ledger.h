// The figures of all parties of a replay at one moment, and what they say together.
#pragma once

#include <cstdint>
#include <map>

#include "standin/qscservice/ServiceChannel.h"
#include "standin/usbd/UsbdReplay.h"
#include "tools/replay/KindCounts.h"
#include "tools/replay/Report.h"

// Each party counts for itself: the daemon what it hands over and what comes back, the client's and the agent's end of
// the channel what they accept and what a fall cut, the agent what arrives and what it sends. Taken in the order of the
// members, so that a message is never seen at its goal ahead of its start.
struct Ledger {
    AgentCounts agent;
    uint64_t openRequests = 0;  // of the client's end: asynchronous messages whose answer is still expected
    std::map<uint32_t, qscservice::CommandCount> channel;  // of the client's end
    UsbReplayCounters daemon;

    // Messages that arrived at one end or the other. It stands still when nothing moves any more.
    uint64_t Arrived() const;

    // Whether, after the end of sending, each message either way has arrived or is known to have been refused or cut.
    bool Settled(bool channelFell) const;

    // Fills in the counts, the shortfalls, what came back wrong and the contradictions between the parties.
    void Report(bool channelFell, ReplayReport* report) const;

private:
    Shortfall Outbound(bool channelFell, std::vector<std::string>* problems) const;
    Shortfall Returning(bool channelFell, std::vector<std::string>* problems) const;
};
