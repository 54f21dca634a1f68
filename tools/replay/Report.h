// What a replay found, as one JSON object for programs and as a short summary for people.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "standin/usbd/UsbdReplay.h"
#include "tools/replay/KindCounts.h"

struct CaptureSummary {
    std::string file;
    uint64_t records = 0, iso = 0, interrupt = 0, control = 0, bulk = 0;
};

// Messages that one direction of the channel did not bring to the other end, each for its reason.
struct Shortfall {
    uint64_t refused = 0;  // turned away because the channel was down
    uint64_t cut = 0;      // accepted, and on their way when the channel fell
    uint64_t lost = 0;     // accepted, not cut, and never arrived
};

struct LatencySummary {
    double p50 = 0, p99 = 0, max = 0;  // microseconds from the daemon and back to it
};

// Of one client, or of several together.
struct ReplayReport {
    uint32_t clients = 1;
    std::vector<CaptureSummary> captures;
    KindCounts sent;      // attempts of the daemon
    AgentCounts agent;    // what the agent says of the client
    KindCounts returned;  // arrived back at the daemon; posts have no answer
    Shortfall outbound, returning;
    uint64_t mismatched = 0;     // came back changed, twice or unasked
    uint64_t interruptions = 0;  // falls of the channel that were asked for
    bool stoppedEarly = false;   // by a signal
    double seconds = 0;          // from the first message to the last that came back; of the slowest client
    double messagesPerSecond = 0;
    UsbReplayLatency fastLatency, hidLatency;
    std::vector<std::string> logs;      // the plug-in's log file of each client, empty for one that has none
    std::vector<std::string> problems;  // what else went wrong, a line each

    uint64_t Lost() const { return outbound.lost + returning.lost; }
    bool Ok() const { return Lost() == 0 && mismatched == 0 && problems.empty(); }

    // Bulk traffic and input reports are timed apart; the larger part stands for the whole, but for the maximum.
    LatencySummary Latency() const;
};

// The shortfall of one direction: what of attempted did not arrive, when that many were accepted and cut of those.
// problems gets a line if the numbers contradict each other. With channelFell false a refusal counts as a loss.
Shortfall Account(const char* direction, uint64_t attempted, uint64_t refused, uint64_t cut, uint64_t arrived,
                  bool channelFell, std::vector<std::string>* problems);

// Adds the figures of one more client: counts and rates are summed up, percentiles are those of all messages together.
// The clients, captures, logs and problems stay as they are.
void AddFigures(const ReplayReport& client, ReplayReport* sum);
void AddCounts(const AgentCounts& counts, AgentCounts* sum);

// One line of JSON, without the line end.
std::string ReportAsJson(const ReplayReport& report);

// A few lines that begin with the verdict. The problems are not among them.
std::string ReportAsText(const ReplayReport& report);

// 1234567 as "1,234,567".
std::string WithSeparators(uint64_t number);

// All of a report, for the way from one process to another.
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(CaptureSummary, file, records, iso, interrupt, control, bulk)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Shortfall, refused, cut, lost)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(UsbReplayLatency, samples, p50Ns, p99Ns, maxNs, buckets)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(ReplayReport, clients, captures, sent, agent, returned, outbound, returning,
                                   mismatched, interruptions, stoppedEarly, seconds, messagesPerSecond, fastLatency,
                                   hidLatency, logs, problems)
