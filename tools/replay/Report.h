// What a replay found, as one JSON object for programs and as a short summary for people.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

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

struct ReplayReport {
    std::vector<CaptureSummary> captures;
    KindCounts sent;      // attempts of the daemon
    KindCounts agent;     // arrived at the agent
    KindCounts returned;  // arrived back at the daemon; posts have no answer
    Shortfall outbound, returning;
    uint64_t mismatched = 0;     // came back changed, twice or unasked
    uint64_t interruptions = 0;  // falls of the channel that were asked for
    bool stoppedEarly = false;   // by a signal
    double seconds = 0;          // from the first message to the last that came back
    LatencySummary latency;
    std::string log;                    // the plug-in's log file, empty if there is none
    std::vector<std::string> problems;  // what else went wrong, a line each

    uint64_t Lost() const { return outbound.lost + returning.lost; }
    bool Ok() const { return Lost() == 0 && mismatched == 0 && problems.empty(); }
    double MessagesPerSecond() const { return seconds > 0 ? static_cast<double>(sent.Messages()) / seconds : 0; }
};

// The shortfall of one direction: what of attempted did not arrive, when that many were accepted and cut of those.
// problems gets a line if the numbers contradict each other. With channelFell false a refusal counts as a loss.
Shortfall Account(const char* direction, uint64_t attempted, uint64_t refused, uint64_t cut, uint64_t arrived,
                  bool channelFell, std::vector<std::string>* problems);

// One line of JSON, without the line end.
std::string ReportAsJson(const ReplayReport& report);

// A few lines that begin with the verdict. The problems are not among them.
std::string ReportAsText(const ReplayReport& report);

// 1234567 as "1,234,567".
std::string WithSeparators(uint64_t number);
