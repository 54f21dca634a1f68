#include "tests/e2e/Program.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kRunLimit = std::chrono::seconds(60);
constexpr int kLookAgainMS = 2;

// The fields of /proc/<pid>/stat behind the name, which may hold blanks.
struct ProcessState {
    std::string name;
    pid_t parent = -1;
    uint64_t ticks = 0;
};

ProcessState ReadState(const std::string& processFolder) {
    std::ifstream file(processFolder + "/stat");
    std::string text;
    std::getline(file, text);  // fails without a throw when the process goes at this moment
    const size_t open = text.find('('), close = text.rfind(')');
    ProcessState state;
    if (open == std::string::npos || close == std::string::npos) return state;
    state.name = text.substr(open + 1, close - open - 1);
    std::istringstream fields(text.substr(close + 1));
    std::string skipped;
    fields >> skipped >> state.parent;
    for (int field = 0; field < 9; field++) fields >> skipped;
    uint64_t user = 0, system = 0;
    fields >> user >> system;
    state.ticks = user + system;
    return state;
}

std::vector<pid_t> FindChildren(pid_t parent, const std::string& name, uint64_t minTicks) {
    std::vector<pid_t> children;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string number = entry.path().filename();
        if (number.find_first_not_of("0123456789") != std::string::npos) continue;
        const ProcessState state = ReadState(entry.path());
        if (state.parent == parent && state.name == name && state.ticks >= minTicks)
            children.push_back(std::stoi(number));
    }
    std::sort(children.begin(), children.end());
    return children;
}

// Where the programs leave their logs; it goes with this process.
class LogFolder {
public:
    LogFolder() {
        char pattern[] = "/tmp/e2e-XXXXXX";
        path = mkdtemp(pattern);
        setenv("TMPDIR", path.c_str(), 1);
        setenv("USER", "tester", 1);
    }
    ~LogFolder() {
        std::error_code failure;
        std::filesystem::remove_all(path, failure);
    }

private:
    std::string path;
} logFolder;

}  // namespace

Program::Program(const std::string& name, const std::vector<std::string>& args) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return;
    out = ends[0];
    Start(name, args, ends[1]);
}

Program::Program(const std::string& name, const std::vector<std::string>& args, unsigned short terminalRows) {
    out = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (grantpt(out) != 0 || unlockpt(out) != 0) return;
    const winsize size = {terminalRows, 132, 0, 0};
    ioctl(out, TIOCSWINSZ, &size);
    Start(name, args, open(ptsname(out), O_RDWR | O_NOCTTY | O_CLOEXEC));
}

void Program::Start(const std::string& name, const std::vector<std::string>& args, int outEnd) {
    int errPipe[2];
    if (pipe2(errPipe, O_CLOEXEC) != 0) return;
    const std::string path = std::string(BUILD_FOLDER) + "/bin/" + name;
    std::vector<char*> argv = {const_cast<char*>(path.c_str())};
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outEnd, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], STDERR_FILENO);
    if (posix_spawn(&pid, path.c_str(), &actions, nullptr, argv.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(outEnd);
    close(errPipe[1]);
    err = errPipe[0];
}

Program::~Program() {
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    if (out >= 0) close(out);
    if (err >= 0) close(err);
}

std::vector<pid_t> Program::WaitForChildren(const std::string& name, size_t count, uint64_t minTicks) const {
    for (const auto deadline = Clock::now() + kRunLimit; Clock::now() < deadline; poll(nullptr, 0, kLookAgainMS)) {
        std::vector<pid_t> children = FindChildren(pid, name, minTicks);
        if (children.size() >= count) return children;
    }
    return {};
}

pid_t Program::WaitForChild(const std::string& name) const {
    const std::vector<pid_t> children = WaitForChildren(name, 1, 0);
    return children.empty() ? -1 : children.front();
}

pid_t Program::WaitForBusyChild(const std::string& name) const {
    const std::vector<pid_t> children = WaitForChildren(name, 1, 1);
    return children.empty() ? -1 : children.front();
}

std::vector<pid_t> Program::WaitForBusyChildren(const std::string& name, size_t count) const {
    return WaitForChildren(name, count, 1);
}

std::vector<std::string> ArgumentsOf(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/cmdline");
    std::vector<std::string> arguments;
    for (std::string argument; std::getline(file, argument, '\0');) arguments.push_back(argument);
    return arguments;
}

void AwaitEnd(pid_t process) {
    pollfd end = {static_cast<int>(syscall(SYS_pidfd_open, process, 0)), POLLIN, 0};
    if (end.fd < 0) return;
    poll(&end, 1, static_cast<int>(std::chrono::milliseconds(kRunLimit).count()));
    close(end.fd);
}

std::string Program::ReadUntil(const std::string& text) {
    const auto deadline = Clock::now() + kRunLimit;
    size_t found;
    while ((found = unread.find(text)) == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd stream = {out, POLLIN, 0};
        std::array<char, 4096> buffer;
        if (left <= 0 || poll(&stream, 1, static_cast<int>(left)) <= 0) return {};
        const ssize_t got = read(out, buffer.data(), buffer.size());
        if (got <= 0) return {};
        unread.append(buffer.data(), static_cast<size_t>(got));
    }
    const std::string all = unread.substr(0, found + text.size());
    unread.erase(0, all.size());
    return all;
}

ProgramResult Program::Finish() {
    ProgramResult result;
    result.out = std::exchange(unread, {});
    if (pid <= 0) return result;
    const auto deadline = Clock::now() + kRunLimit;
    std::array<pollfd, 2> streams = {{{out, POLLIN, 0}, {err, POLLIN, 0}}};
    while (streams[0].fd >= 0 || streams[1].fd >= 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0 || poll(streams.data(), streams.size(), static_cast<int>(left)) <= 0) {
            result.err += "(did not end in time)";
            return result;
        }
        for (pollfd& stream : streams) {
            if (!stream.revents) continue;
            std::array<char, 4096> buffer;
            const ssize_t got = read(stream.fd, buffer.data(), buffer.size());
            if (got <= 0)
                stream.fd = -1;
            else
                (&stream == &streams[0] ? result.out : result.err).append(buffer.data(), static_cast<size_t>(got));
        }
    }
    int status = 0;
    waitpid(pid, &status, 0);
    pid = -1;
    if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
    return result;
}
