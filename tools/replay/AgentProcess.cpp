#include "tools/replay/AgentProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kAnswerTimeoutMS = 10000;
constexpr int kEndTimeoutMS = 5000;
constexpr int kEndPollMS = 2;

int MillisecondsLeft(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace

std::unique_ptr<AgentProcess> AgentProcess::Start(const std::string& program, const std::vector<std::string>& arguments,
                                                  std::string* error) {
    std::unique_ptr<AgentProcess> agent(new AgentProcess);
    if (!agent->Spawn(program, arguments, error)) return nullptr;
    const std::optional<std::string> greeting = agent->ReadLine(kAnswerTimeoutMS);
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
    if (toAgent >= 0) close(toAgent);
    if (fromAgent >= 0) close(fromAgent);
    if (pid > 0 && !status) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
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

// The agent gets a process group of its own, so that an interrupt typed at the terminal reaches the replay alone, which
// then ends the agent in order.
bool AgentProcess::Spawn(const std::string& program, const std::vector<std::string>& arguments, std::string* error) {
    int input[2], output[2];
    if (pipe2(input, O_CLOEXEC) != 0) {
        *error = std::string("no pipe to the agent: ") + strerror(errno);
        return false;
    }
    if (pipe2(output, O_CLOEXEC) != 0) {
        *error = std::string("no pipe from the agent: ") + strerror(errno);
        close(input[0]);
        close(input[1]);
        return false;
    }
    std::vector<char*> argv = {const_cast<char*>(program.c_str())};
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
    const int failure = posix_spawn(&pid, program.c_str(), &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    close(input[0]);
    close(output[1]);
    toAgent = input[1];
    fromAgent = output[0];
    if (failure != 0) {
        pid = -1;
        *error = "cannot start " + program + ": " + strerror(failure);
    }
    return failure == 0;
}

std::optional<std::string> AgentProcess::ReadLine(int timeoutMS) {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMS);
    for (;;) {
        const size_t end = unread.find('\n');
        if (end != std::string::npos) {
            std::string line = unread.substr(0, end);
            unread.erase(0, end + 1);
            return line;
        }
        pollfd waiting = {fromAgent, POLLIN, 0};
        const int ready = poll(&waiting, 1, MillisecondsLeft(deadline));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return std::nullopt;
        std::array<char, 4096> buffer;
        const ssize_t got = read(fromAgent, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return std::nullopt;
        unread.append(buffer.data(), static_cast<size_t>(got));
    }
}

std::optional<AgentCounts> AgentProcess::ReadCounts(int timeoutMS) {
    const std::optional<std::string> line = ReadLine(timeoutMS);
    const nlohmann::json parsed = nlohmann::json::parse(line.value_or(""), nullptr, false);
    if (!parsed.is_object()) return std::nullopt;
    return parsed.get<AgentCounts>();
}

std::optional<AgentCounts> AgentProcess::Ask() {
    static constexpr char kQuestion[] = "counts\n";
    if (toAgent < 0 || write(toAgent, kQuestion, sizeof kQuestion - 1) != sizeof kQuestion - 1) return std::nullopt;
    return ReadCounts(kAnswerTimeoutMS);
}

std::optional<AgentCounts> AgentProcess::Stop(int timeoutMS) {
    if (toAgent >= 0) close(toAgent);
    toAgent = -1;
    std::optional<AgentCounts> counts = ReadCounts(timeoutMS);
    if (!WaitForEnd(timeoutMS) || *status != 0) return std::nullopt;
    return counts;
}

bool AgentProcess::WaitForEnd(int timeoutMS) {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMS);
    while (HowItEnded().empty()) {
        const int left = MillisecondsLeft(deadline);
        if (left == 0) return false;
        poll(nullptr, 0, std::min(left, kEndPollMS));
    }
    return true;
}

std::string AgentProcess::HowItEnded() {
    if (pid <= 0) return "never ran";
    int now = 0;
    if (!status && waitpid(pid, &now, WNOHANG) == pid) status = now;
    if (!status) return "";
    if (WIFSIGNALED(*status)) return "was killed by signal " + std::to_string(WTERMSIG(*status));
    return "exited with status " + std::to_string(WEXITSTATUS(*status));
}
