// Messages counted by kind, the unit of every account of a replay.
#pragma once

#include <cstdint>

#include <nlohmann/json.hpp>

struct KindCounts {
    uint64_t post = 0;   // command 0
    uint64_t fast = 0;   // command 1
    uint64_t hid = 0;    // command 3
    uint64_t async = 0;  // command 2
    uint64_t bytes = 0;  // content of all of them

    uint64_t Messages() const { return post + fast + hid + async; }
    friend bool operator==(const KindCounts&, const KindCounts&) = default;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(KindCounts, post, fast, hid, async, bytes)

// What an agent says of itself. Replies are the messages that it posts; the answers of asynchronous messages travel
// with these.
struct AgentCounts {
    bool greeted = false;  // the channel was up once, and the filter messages are among the replies
    KindCounts received;
    uint64_t repliesAccepted = 0;
    uint64_t repliesRefused = 0;  // could not be sent because the channel was down
    uint64_t repliesCut = 0;      // of the accepted: were on their way when the channel fell
    uint64_t undeliverable = 0;   // arrived when the channel had fallen and were not looked at
    uint64_t malformed = 0;       // messages of an unknown number or shape
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(AgentCounts, greeted, received, repliesAccepted, repliesRefused, repliesCut,
                                   undeliverable, malformed)
