// The agent as a session reaches it.
#pragma once

#include <optional>
#include <string>

#include "tools/replay/KindCounts.h"
#include "tools/replay/LineReader.h"

// Used by one thread at a time.
class AgentAccess {
public:
    AgentAccess() = default;
    AgentAccess(const AgentAccess&) = delete;
    AgentAccess& operator=(const AgentAccess&) = delete;
    virtual ~AgentAccess() = default;

    // Where it listens.
    virtual const std::string& Address() const = 0;

    // The counts at this moment, of this session alone; none if the agent has died or doesn't answer.
    virtual std::optional<AgentCounts> Ask() = 0;

    // The last counts, when the session has ended; ends an agent of the session's own. None if the agent ended before,
    // did not end well, or takes longer for the one or the other than the time-out.
    virtual std::optional<AgentCounts> Stop(int timeoutMS) = 0;

    // Waits until the agent has ended. False on time-out.
    virtual bool WaitForEnd(int timeoutMS) = 0;

    // Empty while the agent runs, else what became of it, in the past tense, to go on from "the agent ".
    virtual std::string HowItEnded() = 0;
};

inline constexpr int kAgentAnswerTimeoutMS = 10000;

// The answer to a request for counts; none if there is none in time.
inline std::optional<AgentCounts> ReadCounts(LineReader& lines, int timeoutMS) {
    const nlohmann::json parsed = nlohmann::json::parse(lines.Read(timeoutMS).value_or(""), nullptr, false);
    if (!parsed.is_object()) return std::nullopt;
    return parsed.get<AgentCounts>();
}
