// The thread of Run listens to all clients at once. A client ends with its output: with a report, with an error, or,
// when it was killed, with neither; the others go on in any case.
#include "tools/replay/ReplayClients.h"
#include "logging/Log.h"

#include <poll.h>
#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "tools/replay/Layout.h"

namespace {

constexpr int kTickMS = 50;
constexpr int kClientEndMS = 10000;  // from the end of its output
constexpr int kAgentStopMS = 10000;

std::string Prefix(size_t index) {
    return "client " + std::to_string(index + 1) + ": ";
}

}  // namespace

ReplayClients::ReplayClients(const ReplayOptions& replayOptions, const std::vector<std::string>& replayArguments,
                             const std::atomic<bool>& stop, OnProgress onProgress)
    : options(replayOptions), arguments(replayArguments), stopRequested(stop), progress(std::move(onProgress)) {}

ReplayClients::~ReplayClients() {
    RemoveFolder();
}

bool ReplayClients::Run(ReplayReport* report, std::string* error) {
    if (!StartAgents(error) || !StartClients(error)) return false;
    Watch();
    report->clients = options.clients;
    for (size_t i = 0; i < clients.size(); i++) CollectClient(i, report);
    for (size_t i = 0; i < agents.size(); i++) StopAgent(i, report);
    return true;
}

bool ReplayClients::StartAgents(std::string* error) {
    if (!options.agentAddress.empty()) return true;  // one runs, and is nobody's to end
    folder = std::filesystem::temp_directory_path() / "usb-replay-XXXXXX";
    if (!mkdtemp(folder.data())) {
        *error = "cannot make the folder " + folder + ": " + strerror(errno);
        folder.clear();
        return false;
    }
    const size_t count = options.agentMode == AgentMode::Single ? options.clients : 1;
    while (agents.size() < count) {
        const std::string control = folder + "/" + std::to_string(agents.size());
        std::vector<std::string> agentArguments = AgentArguments(options);
        agentArguments.insert(agentArguments.end(), {"--control-at", control});
        agents.push_back(AgentProcess::Start(AgentPath(), agentArguments, error));
        if (!agents.back()) return false;
        places.push_back({"--agent", agents.back()->Address(), "--agent-control", control});
    }
    return true;
}

// The options of a client stand ahead of those of the replay, among which "--" may be. A stop that comes before it can
// be handled waits.
bool ReplayClients::StartClients(std::string* error) {
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, kStopSignal);
    while (clients.size() < options.clients) {
        std::vector<std::string> own = {"--as-client"};
        if (!places.empty()) {
            const std::vector<std::string>& place = places[clients.size() % places.size()];
            own.insert(own.end(), place.begin(), place.end());
        }
        own.insert(own.end(), arguments.begin(), arguments.end());
        clients.emplace_back().process = ChildProcess::Start(ProgramPath(), own, mask, error);
        if (!clients.back().process) return false;
        LOG(Debug, "Client %zu is process %d\n", clients.size(), static_cast<int>(clients.back().process->Pid()));
    }
    return true;
}

void ReplayClients::Watch() {
    bool released = false, stopping = false;
    while (Listen()) {
        if (!released && std::ranges::all_of(clients, [](const Client& c) { return c.prepared || c.silent; })) {
            released = true;
            Release();
        }
        if (!stopping && stopRequested.load(std::memory_order_relaxed)) {
            stopping = true;
            for (Client& client : clients) client.process->Signal(kStopSignal);
        }
        uint64_t sent = 0;
        for (const Client& client : clients) sent += client.sent;
        if (progress) progress(sent);
    }
}

// All clients are connected to the control sockets by now.
void ReplayClients::Release() {
    LOG(Info, "%zu clients start\n", clients.size());
    for (Client& client : clients) client.process->Write("go\n");
    RemoveFolder();
}

void ReplayClients::RemoveFolder() {
    std::error_code ignored;
    if (!folder.empty()) std::filesystem::remove_all(folder, ignored);
    folder.clear();
}

// Hears what the clients say, for a moment at most. False when none will say anything any more.
bool ReplayClients::Listen() {
    std::vector<pollfd> outputs;
    for (const Client& client : clients)
        outputs.push_back({client.silent ? -1 : client.process->OutputFd(), POLLIN, 0});
    poll(outputs.data(), outputs.size(), kTickMS);
    bool more = false;
    for (size_t i = 0; i < clients.size(); i++) {
        Client& client = clients[i];
        if (outputs[i].revents != 0) {
            LineReader& lines = client.process->Output();
            client.silent = !lines.Fill();
            while (const std::optional<std::string> line = lines.Next()) Hear(client, *line);
        }
        more = more || !client.silent;
    }
    return more;
}

void ReplayClients::Hear(Client& client, const std::string& line) {
    const nlohmann::json said = nlohmann::json::parse(line);
    if (said.contains("prepared")) {
        client.prepared = true;
        client.log = said["prepared"];
    }
    if (said.contains("sent")) client.sent = said["sent"];
    if (said.contains("report")) client.report = said["report"].get<ReplayReport>();
    if (said.contains("error")) client.error = said["error"];
}

void ReplayClients::CollectClient(size_t index, ReplayReport* report) {
    Client& client = clients[index];
    const bool ended = client.process->WaitForEnd(kClientEndMS);
    const std::string end = "its process " + (ended ? client.process->HowItEnded() : "does not end");
    std::vector<std::string> problems;
    if (client.report) {
        AddFigures(*client.report, report);
        client.log = client.report->logs.front();
        problems = client.report->problems;
        if (client.report->Ok() && !client.process->EndedWell()) problems.push_back(end);
        client.well = client.report->Ok() && problems.empty();
    } else {
        problems.push_back(client.error.empty() ? end : client.error);
    }
    for (const std::string& problem : problems) report->problems.push_back(Prefix(index) + problem);
    report->logs.push_back(client.log);
}

// The agent's own totals are what its clients account for, unless one of these failed.
void ReplayClients::StopAgent(size_t index, ReplayReport* report) {
    const std::string prefix = options.agentMode == AgentMode::Single ? Prefix(index) : "";
    const std::optional<AgentCounts> totals = agents[index]->Stop(kAgentStopMS);
    if (!totals) {
        const std::string end = agents[index]->HowItEnded();
        report->problems.push_back(prefix + "the agent " + (end.empty() ? "does not end" : end));
        return;
    }
    AgentCounts sum;
    for (size_t i = index; i < clients.size(); i += agents.size()) {
        if (!clients[i].well) return;
        AddCounts(clients[i].report->agent, &sum);
    }
    const nlohmann::json counted = *totals, accounted = sum;
    if (counted != accounted)
        report->problems.push_back(prefix + "the agent counts " + counted.dump() + ", its clients " + accounted.dump());
}
