#include "tools/replay/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

using qscservice::Fd;

namespace {

constexpr int kEndPollMS = 2;

bool MakePipe(Fd* reading, Fd* writing, std::string* error) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        *error = std::string("no pipe to another process: ") + strerror(errno);
        return false;
    }
    reading->Reset(ends[0]);
    writing->Reset(ends[1]);
    return true;
}

}  // namespace

ChildProcess::ChildProcess(pid_t child, Fd toChild, Fd fromChild)
    : pid(child), input(std::move(toChild)), output(std::move(fromChild)), lines(output.Get()) {}

std::unique_ptr<ChildProcess> ChildProcess::Start(const std::string& program, const std::vector<std::string>& arguments,
                                                  const sigset_t& mask, std::string* error) {
    Fd itsInput, toChild, fromChild, itsOutput;
    if (!MakePipe(&itsInput, &toChild, error) || !MakePipe(&fromChild, &itsOutput, error)) return nullptr;
    std::vector<char*> argv = {const_cast<char*>(program.c_str())};
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, itsInput.Get(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, itsOutput.Get(), STDOUT_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &mask);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
    pid_t pid = -1;
    const int failure = posix_spawn(&pid, program.c_str(), &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (failure != 0) {
        *error = "cannot start " + program + ": " + strerror(failure);
        return nullptr;
    }
    return std::unique_ptr<ChildProcess>(new ChildProcess(pid, std::move(toChild), std::move(fromChild)));
}

ChildProcess::~ChildProcess() {
    if (status) return;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

bool ChildProcess::Write(const std::string& text) {
    return input.IsOpen() && write(input.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

void ChildProcess::Signal(int number) {
    if (HowItEnded().empty()) kill(pid, number);
}

bool ChildProcess::WaitForEnd(int timeoutMS) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMS);
    while (HowItEnded().empty()) {
        const int left = MillisecondsLeft(deadline);
        if (left == 0) return false;
        poll(nullptr, 0, std::min(left, kEndPollMS));
    }
    return true;
}

std::string ChildProcess::HowItEnded() {
    int now = 0;
    if (!status && waitpid(pid, &now, WNOHANG) == pid) status = now;
    if (!status) return "";
    if (WIFSIGNALED(*status)) return "was killed by signal " + std::to_string(WTERMSIG(*status));
    return "exited with status " + std::to_string(WEXITSTATUS(*status));
}
