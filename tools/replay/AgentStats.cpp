#include "tools/replay/AgentStats.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "runtime/StringUtils.h"

namespace {

constexpr auto kPeriod = std::chrono::seconds(1);

int TerminalRows(FILE* out) {
    winsize size = {};
    if (!isatty(fileno(out))) return 0;
    return ioctl(fileno(out), TIOCGWINSZ, &size) == 0 && size.ws_row > 2 ? size.ws_row : 24;
}

}  // namespace

std::vector<std::string> StatsTable(const std::vector<SessionView>& sessions,
                                    const std::map<std::string, double>& rates) {
    std::vector<std::string> rows = {StringUtils::Format("%-16s %-8s %-5s %8s %12s %10s %12s %12s %8s %9s %8s",
                                                         "CLIENT", "SESSION", "STATE", "AGE S", "MESSAGES", "MSG/S",
                                                         "KIB", "REPLIES", "PENDING", "OLDEST MS", "IDLE S")};
    for (const SessionView& view : sessions) {
        const auto rate = rates.find(view.id);
        rows.push_back(StringUtils::Format(
            "%-16s %-8.8s %-5s %8.1f %12llu %10.0f %12llu %12llu %8d %9llu %8.1f", view.client.c_str(), view.id.c_str(),
            view.ready ? "ready" : "-", view.seconds, static_cast<unsigned long long>(view.received),
            rate == rates.end() ? 0.0 : rate->second, static_cast<unsigned long long>(view.bytes / 1024),
            static_cast<unsigned long long>(view.replies), view.pending, static_cast<unsigned long long>(view.oldestMS),
            view.idleSeconds));
    }
    return rows;
}

AgentStats::AgentStats(Sessions sessions, bool json, FILE* out)
    : sessions(std::move(sessions)), json(json), out(out), terminalRows(json ? 0 : TerminalRows(out)) {
    thread = std::thread([this] { Run(); });
}

AgentStats::~AgentStats() {
    {
        std::lock_guard guard(lock);
        stopping = true;
    }
    wake.notify_all();
    thread.join();
}

void AgentStats::Run() {
    using Clock = std::chrono::steady_clock;
    Clock::time_point last = Clock::now();
    for (bool ending = false; !ending;) {
        {
            std::unique_lock guard(lock);
            ending = wake.wait_until(guard, last + kPeriod, [this] { return stopping; });
        }
        const Clock::time_point now = Clock::now();
        Print(std::chrono::duration<double>(now - std::exchange(last, now)).count());
    }
}

void AgentStats::Print(double seconds) {
    const std::vector<SessionView> views = sessions();
    std::map<std::string, double> rates;
    std::map<std::string, uint64_t> received;
    for (const SessionView& view : views) {
        const auto before = lastReceived.find(view.id);
        const uint64_t moved = view.received - (before == lastReceived.end() ? 0 : before->second);
        rates[view.id] = seconds > 0 ? static_cast<double>(moved) / seconds : 0;
        received[view.id] = view.received;
    }
    lastReceived = std::move(received);
    if (json) {
        nlohmann::json line = {{"sessions", nlohmann::json::array()}};
        for (const SessionView& view : views) {
            nlohmann::json entry = view;
            entry["rate"] = rates[view.id];
            line["sessions"].push_back(std::move(entry));
        }
        std::fprintf(out, "%s\n", line.dump().c_str());
        std::fflush(out);
        return;
    }
    std::vector<std::string> rows = StatsTable(views, rates);
    if (terminalRows > 0) {
        const size_t most = static_cast<size_t>(terminalRows) - 1;
        if (rows.size() > most) {
            rows.resize(most);
            rows.back() = StringUtils::Format("... %zu sessions in all", views.size());
        }
        if (printedRows > 0) std::fprintf(out, "\x1b[%zuA\x1b[J", printedRows);
        printedRows = rows.size();
    }
    for (const std::string& row : rows) std::fprintf(out, "%s\n", row.c_str());
    std::fflush(out);
}
