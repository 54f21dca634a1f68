// What `usb-agent --stats` prints once a second.
#pragma once

#include <condition_variable>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/replay/AgentBook.h"

// The table of the sessions, a line each under a head line. rates are messages a second by the session's id.
std::vector<std::string> StatsTable(const std::vector<SessionView>& sessions,
                                    const std::map<std::string, double>& rates);

// Prints from its making to its end, on a thread of its own, to out: on a terminal a table that refreshes in place, cut
// to the terminal's height, else one table after the other; with json one line of JSON each time.
class AgentStats {
public:
    using Sessions = std::function<std::vector<SessionView>()>;

    AgentStats(Sessions sessions, bool json, FILE* out);
    ~AgentStats();  // prints a last time
    AgentStats(const AgentStats&) = delete;
    AgentStats& operator=(const AgentStats&) = delete;

private:
    void Run();
    void Print(double seconds);

    const Sessions sessions;
    const bool json;
    FILE* const out;
    const int terminalRows;  // 0: no terminal
    size_t printedRows = 0;  // of the table that stands on the terminal
    std::map<std::string, uint64_t> lastReceived;
    std::mutex lock;  // guards stopping
    std::condition_variable wake;
    bool stopping = false;
    std::thread thread;
};
