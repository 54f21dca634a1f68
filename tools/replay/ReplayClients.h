// Several clients at once, each a process of its own, and one account of them all: the parent's side.
#pragma once

#include <signal.h>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/replay/AgentProcess.h"
#include "tools/replay/ChildProcess.h"
#include "tools/replay/Options.h"
#include "tools/replay/Report.h"

// Starts the agent, or in the single mode one for each client, and this program again for each client. All clients dial
// when the last one stands ready. One that fails or dies leaves the others alone.
class ReplayClients {
public:
    // Ends a client in order; blocked when it starts.
    static constexpr int kStopSignal = SIGINT;

    // Called some times a second on the thread of Run with the messages that all clients have sent so far.
    using OnProgress = std::function<void(uint64_t sent)>;

    // arguments are those that the options were read from. stopRequested may turn true at any time, also in a signal
    // handler; it is passed on to the clients, which end in order.
    ReplayClients(const ReplayOptions& options, const std::vector<std::string>& arguments,
                  const std::atomic<bool>& stopRequested, OnProgress onProgress);
    ReplayClients(const ReplayClients&) = delete;
    ReplayClients& operator=(const ReplayClients&) = delete;
    ~ReplayClients();

    // Runs all clients, once. False, with one line in error, if an agent or a process could not be started; whatever
    // goes wrong later stands in the report, with "client K: " ahead of what concerns one alone. The captures of the
    // report stay as they are. All that was started has ended when it returns.
    bool Run(ReplayReport* report, std::string* error);

private:
    struct Client {
        std::unique_ptr<ChildProcess> process;
        bool prepared = false;
        bool silent = false;  // its output has ended
        uint64_t sent = 0;
        std::string log;  // the plug-in's
        std::optional<ReplayReport> report;
        std::string error;
        bool well = false;  // ended in order, with a report without a fault
    };

    bool StartAgents(std::string* error);
    bool StartClients(std::string* error);
    void Watch();
    bool Listen();
    static void Hear(Client& client, const std::string& line);
    void Release();
    void RemoveFolder();
    void CollectClient(size_t index, ReplayReport* report);
    void StopAgent(size_t index, ReplayReport* report);

    const ReplayOptions options;
    const std::vector<std::string> arguments;
    const std::atomic<bool>& stopRequested;
    const OnProgress progress;

    std::string folder;                                 // of the agents' control sockets; empty when it is not there
    std::vector<std::unique_ptr<AgentProcess>> agents;  // client i has the agent i modulo their number
    std::vector<std::vector<std::string>> places;       // arguments that tell a client of its agent, one for each agent
    std::vector<Client> clients;
};
