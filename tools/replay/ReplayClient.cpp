#include "tools/replay/ReplayClient.h"

#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

#include "tools/replay/ProgramLog.h"
#include "tools/replay/ReplaySession.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kBetweenSayings = std::chrono::milliseconds(100);
constexpr int kTickMS = 50;

void Say(const nlohmann::json& line) {
    std::fputs((line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n").c_str(), stdout);
    std::fflush(stdout);
}

// Without a parent the input has ended, and the agent is gone too, as the session will see.
void AwaitStart(const std::atomic<bool>& stopRequested) {
    pollfd input = {STDIN_FILENO, POLLIN, 0};
    while (poll(&input, 1, kTickMS) <= 0 && !stopRequested.load(std::memory_order_relaxed)) {
    }
}

}  // namespace

int RunReplayClient(const ReplayOptions& options, std::vector<UsbCapture> captures,
                    const std::atomic<bool>& stopRequested) {
    Clock::time_point nextSaying;
    const auto progress = [&nextSaying](uint64_t sent, uint64_t) {
        const Clock::time_point now = Clock::now();
        if (now < nextSaying) return;
        nextSaying = now + kBetweenSayings;
        Say({{"sent", sent}});
    };
    const auto prepared = [&stopRequested] {
        Say({{"prepared", FindPluginLog()}});
        AwaitStart(stopRequested);
    };
    ReplaySession session(options, std::move(captures), stopRequested, progress, prepared);
    ReplayReport report;
    std::string error;
    if (!session.Run(&report, &error)) {
        Say({{"error", error}});
        return 1;
    }
    Say({{"report", report}});
    return report.Ok() ? 0 : 1;
}
