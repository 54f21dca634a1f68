// ServerLoad: one agent with many clients. Prints a line of JSON for each number of clients: messages a second in all,
// the 99th percentile of a round trip, and what the agent holds for its connections.
//
//   ServerLoad [MESSAGES]             requests of a run in all, shared out among the clients
//   ServerLoad --client ADDRESS CONNECTIONS MESSAGES
//
// Up to 16 clients are processes of one connection each, more are connections of one process. Each client has one
// request under way at a time, and sends the next when the answer comes.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "standin/qscservice/ServiceEnd.h"
#include "tools/replay/AgentProcess.h"
#include "tools/replay/Layout.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
using qscservice::InboundMessage;
using qscservice::ServiceEnd;
using qscservice::Value;

constexpr uint32_t kAsyncMessage = 2;
constexpr uint32_t kReadyMS = 20000;
constexpr int kMaxProcesses = 16;
constexpr size_t kContentBytes = 256;

// One connection. All but the start runs on its delivery thread.
class Client {
public:
    Client(uint64_t messages, std::function<void()> onEnd)
        : left(messages), onEnd(std::move(onEnd)), content(kContentBytes, 0x5A), end(Handlers(), Options()) {
        times.reserve(messages);
    }

    bool Connect(const std::string& address, std::string* error) {
        return end.Channel().Dial(address, error) && end.WaitReady(kReadyMS);
    }
    void Begin() { Next(); }

    std::vector<uint64_t> times;  // of round trips in nanoseconds; complete once onEnd has been called

private:
    ServiceEnd::Handlers Handlers() {
        return {.onReady = {},
                .onNotReady = {},
                .onMessage = {},
                .onDone =
                    [this](uint32_t, InboundMessage&) {
                        times.push_back(static_cast<uint64_t>((Clock::now() - sent).count()));
                        Next();
                    },
                .onAbort = [this](uint32_t, uint32_t) { onEnd(); }};
    }
    static ServiceEnd::Options Options() {
        ServiceEnd::Options options;
        options.channel.role = qscservice::Role::Client;
        return options;
    }
    void Next() {
        if (left-- == 0) return onEnd();
        sent = Clock::now();
        if (!end.Request(kAsyncMessage, {Value("bench"), Value("1"), Value(content)})) onEnd();
    }

    uint64_t left;
    const std::function<void()> onEnd;
    const std::vector<uint8_t> content;
    Clock::time_point sent;
    ServiceEnd end;  // the last to be made and the first to go
};

int RunClients(const std::string& address, size_t connections, uint64_t messages) {
    std::mutex lock;  // guards running
    std::condition_variable ended;
    size_t running = connections;
    std::vector<std::unique_ptr<Client>> clients;
    std::string error = "a client is not ready in time";
    for (size_t i = 0; i < connections; ++i) {
        clients.push_back(std::make_unique<Client>(messages, [&] {
            const std::lock_guard guard(lock);
            --running;
            ended.notify_all();
        }));
        if (!clients.back()->Connect(address, &error)) {
            std::cerr << "ServerLoad: " << error << std::endl;
            return 1;
        }
    }
    std::cout << "ready" << std::endl;
    std::string go;
    std::getline(std::cin, go);
    for (const auto& client : clients) client->Begin();
    {
        std::unique_lock guard(lock);
        ended.wait(guard, [&] { return running == 0; });
    }
    nlohmann::json times = nlohmann::json::array();
    for (const auto& client : clients) {
        for (uint64_t time : client->times) times.push_back(time);
    }
    std::cout << times.dump() << std::endl;
    std::getline(std::cin, go);  // stays connected until told
    return 0;
}

// A client process with pipes on its standard streams.
struct Process {
    pid_t pid = -1;
    FILE* in = nullptr;
    FILE* out = nullptr;

    Process(const std::string& address, size_t connections, uint64_t messages) {
        int toChild[2], fromChild[2];
        if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0) std::abort();
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, toChild[0], 0);
        posix_spawn_file_actions_adddup2(&actions, fromChild[1], 1);
        const std::string texts[] = {"ServerLoad", "--client", address, std::to_string(connections),
                                     std::to_string(messages)};
        std::vector<char*> args;
        for (const std::string& text : texts) args.push_back(const_cast<char*>(text.c_str()));
        args.push_back(nullptr);
        if (posix_spawn(&pid, "/proc/self/exe", &actions, nullptr, args.data(), environ) != 0) std::abort();
        posix_spawn_file_actions_destroy(&actions);
        close(toChild[0]);
        close(fromChild[1]);
        in = fdopen(toChild[1], "w");
        out = fdopen(fromChild[0], "r");
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process() {
        fclose(in);
        fclose(out);
        waitpid(pid, nullptr, 0);
    }

    std::string Line() const {
        char* line = nullptr;
        size_t size = 0;
        const ssize_t length = getline(&line, &size, out);
        std::string text(line ? line : "", length > 0 ? static_cast<size_t>(length) : 0);
        std::free(line);
        return text;
    }
    void Go() const {
        std::fputs("go\n", in);
        std::fflush(in);
    }
};

// A figure of /proc/<pid>/status.
long StatusOf(pid_t pid, const std::string& key) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(key + ":")) return std::stol(line.substr(key.size() + 1));
    }
    return 0;
}

bool Measure(int clients, uint64_t messages) {
    std::string error;
    const auto agent = AgentProcess::Start(AgentPath(), {"--listen", "unix:", "--control"}, &error);
    if (!agent) {
        std::cerr << "ServerLoad: " << error << std::endl;
        return false;
    }
    const long rssBefore = StatusOf(agent->Pid(), "VmRSS");
    const long threadsBefore = StatusOf(agent->Pid(), "Threads");
    const uint64_t each = std::max<uint64_t>(messages / static_cast<uint64_t>(clients), 1);
    std::vector<std::unique_ptr<Process>> processes;
    const int count = clients <= kMaxProcesses ? clients : 1;
    for (int i = 0; i < count; ++i) {
        processes.push_back(std::make_unique<Process>(agent->Address(), static_cast<size_t>(clients / count), each));
    }
    for (const auto& process : processes) {
        if (process->Line() != "ready\n") return false;
    }
    const Clock::time_point begin = Clock::now();
    for (const auto& process : processes) process->Go();
    std::vector<uint64_t> times;
    for (const auto& process : processes) {
        const nlohmann::json part = nlohmann::json::parse(process->Line(), nullptr, false);
        if (!part.is_array()) return false;
        times.insert(times.end(), part.begin(), part.end());
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    if (times.size() != each * static_cast<uint64_t>(clients)) return false;
    std::sort(times.begin(), times.end());
    const nlohmann::json line = {
        {"clients", clients},
        {"messages_per_second", static_cast<double>(times.size()) / seconds},
        {"p50_ns", times[times.size() / 2]},
        {"p99_ns", times[times.size() - 1 - times.size() / 100]},
        {"rss_kib", StatusOf(agent->Pid(), "VmRSS") - rssBefore},
        {"threads", StatusOf(agent->Pid(), "Threads") - threadsBefore},
    };
    std::cout << line.dump() << std::endl;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (args.size() == 4 && args[0] == "--client")
        return RunClients(args[1], std::stoul(args[2]), std::stoull(args[3]));
    const uint64_t messages = args.empty() ? 60000 : std::stoull(args[0]);
    for (int clients : {1, 16, 64, 256}) {
        if (!Measure(clients, messages)) {
            std::cerr << "ServerLoad: the run with " << clients << " clients failed" << std::endl;
            return 1;
        }
    }
    return 0;
}
