// The agent as a process of its own: started, asked for its counts over two pipes, and ended.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/replay/KindCounts.h"

// Each question is one line on the agent's standard input, each answer one line of JSON on its standard output; the end
// of its input stops it. Used by one thread at a time.
class AgentProcess {
public:
    // Starts program with arguments (those after the name) and waits until it listens. Null, with one line in error, if
    // that fails.
    static std::unique_ptr<AgentProcess> Start(const std::string& program, const std::vector<std::string>& arguments,
                                               std::string* error);
    AgentProcess(const AgentProcess&) = delete;
    AgentProcess& operator=(const AgentProcess&) = delete;
    ~AgentProcess();  // kills what still runs

    const std::string& Address() const { return address; }
    pid_t Pid() const { return pid; }

    // The counts at this moment; none if the agent has died or doesn't answer.
    std::optional<AgentCounts> Ask();

    // Ends the agent and gives its last counts; none if it died before, did not end well, or takes longer for the one
    // or the other than the time-out.
    std::optional<AgentCounts> Stop(int timeoutMS);

    // Waits until the agent has ended. False on time-out.
    bool WaitForEnd(int timeoutMS);

    // Empty while the agent runs, else how it ended: "exited with status 3", "was killed by signal 9".
    std::string HowItEnded();

private:
    AgentProcess() = default;
    bool Spawn(const std::string& program, const std::vector<std::string>& arguments, std::string* error);
    void RemoveSocket() const;
    std::optional<std::string> ReadLine(int timeoutMS);
    std::optional<AgentCounts> ReadCounts(int timeoutMS);

    pid_t pid = -1;
    int toAgent = -1;
    int fromAgent = -1;
    std::string unread;  // received after the last whole line
    std::string address;
    std::optional<int> status;  // of waitpid, once it has ended
};
