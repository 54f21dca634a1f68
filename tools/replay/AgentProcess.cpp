#include "tools/replay/AgentProcess.h"

#include <filesystem>

namespace {

constexpr int kEndTimeoutMS = 5000;

}  // namespace

std::unique_ptr<AgentProcess> AgentProcess::Start(const std::string& program, const std::vector<std::string>& arguments,
                                                  std::string* error) {
    sigset_t none;
    sigemptyset(&none);
    std::unique_ptr<ChildProcess> child = ChildProcess::Start(program, arguments, none, error);
    if (!child) return nullptr;
    std::unique_ptr<AgentProcess> agent(new AgentProcess(std::move(child)));
    const std::optional<std::string> greeting = agent->process->Output().Read(kAgentAnswerTimeoutMS);
    const nlohmann::json parsed = nlohmann::json::parse(greeting.value_or(""), nullptr, false);
    if (!parsed.is_object() || !parsed.contains("listening") || !parsed["listening"].is_string()) {
        agent->WaitForEnd(kEndTimeoutMS);
        const std::string end = agent->HowItEnded();
        *error = "the agent did not start: it " + (end.empty() ? "does not answer" : end);
        return nullptr;
    }
    agent->address = parsed["listening"];
    return agent;
}

AgentProcess::~AgentProcess() {
    process.reset();
    RemoveSocket();
}

// An agent that did not end in order leaves its socket behind, in a folder that it made for it.
void AgentProcess::RemoveSocket() const {
    static constexpr std::string_view kUnix = "unix:";
    if (!address.starts_with(kUnix)) return;
    const std::filesystem::path socket = address.substr(kUnix.size());
    std::error_code ignored;
    if (std::filesystem::remove(socket, ignored)) std::filesystem::remove(socket.parent_path(), ignored);
}

std::optional<AgentCounts> AgentProcess::Ask() {
    if (!process->Write("counts\n")) return std::nullopt;
    return ReadCounts(process->Output(), kAgentAnswerTimeoutMS);
}

std::optional<AgentCounts> AgentProcess::Stop(int timeoutMS) {
    process->CloseInput();
    std::optional<AgentCounts> counts = ReadCounts(process->Output(), timeoutMS);
    if (!WaitForEnd(timeoutMS) || !process->EndedWell()) return std::nullopt;
    return counts;
}
