// An agent that another process started and that may serve other clients too, asked over its control socket.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "standin/qscservice/Transport.h"
#include "tools/replay/AgentAccess.h"

class SharedAgent : public AgentAccess {
public:
    // Connects to the control socket of the agent that listens at that address. The counts are those of one client, the
    // end of a channel. Null, with one line in error, if that fails.
    static std::unique_ptr<SharedAgent> Join(const std::string& address, const std::string& control, uint64_t client,
                                             std::string* error);

    const std::string& Address() const override { return address; }
    std::optional<AgentCounts> Ask() override { return Ask(kAgentAnswerTimeoutMS); }
    std::optional<AgentCounts> Stop(int timeoutMS) override { return Ask(timeoutMS); }
    bool WaitForEnd(int timeoutMS) override;
    std::string HowItEnded() override;

private:
    SharedAgent(std::string where, qscservice::Fd connection, uint64_t client);
    std::optional<AgentCounts> Ask(int timeoutMS);

    const std::string address;
    const std::string question;
    qscservice::Fd socket;
    LineReader lines;
};
