// The agent as a process of its own: started, asked for its counts over two pipes, and ended.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/replay/AgentAccess.h"
#include "tools/replay/ChildProcess.h"

// Each question is one line on the agent's standard input, each answer one line of JSON on its standard output; the end
// of its input stops it. The counts are those of all its clients.
class AgentProcess : public AgentAccess {
public:
    // Starts program with arguments (those after the name) and waits until it listens. Null, with one line in error, if
    // that fails.
    static std::unique_ptr<AgentProcess> Start(const std::string& program, const std::vector<std::string>& arguments,
                                               std::string* error);
    ~AgentProcess() override;  // kills what still runs

    pid_t Pid() const { return process->Pid(); }

    const std::string& Address() const override { return address; }
    std::optional<AgentCounts> Ask() override;
    std::optional<AgentCounts> Stop(int timeoutMS) override;
    bool WaitForEnd(int timeoutMS) override { return process->WaitForEnd(timeoutMS); }
    std::string HowItEnded() override { return process->HowItEnded(); }

private:
    explicit AgentProcess(std::unique_ptr<ChildProcess> child) : process(std::move(child)) {}
    void RemoveSocket() const;

    std::unique_ptr<ChildProcess> process;
    std::string address;
};
