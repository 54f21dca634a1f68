#include "tools/replay/Report.h"

#include <algorithm>
#include <cstdio>

#include "standin/usbd/LatencyHistogram.h"

namespace {

using Json = nlohmann::ordered_json;

Json CountsAsJson(const KindCounts& counts) {
    return {{"post", counts.post},
            {"fast", counts.fast},
            {"hid", counts.hid},
            {"async", counts.async},
            {"bytes", counts.bytes}};
}

Json CapturesAsJson(const std::vector<CaptureSummary>& captures) {
    Json list = Json::array();
    for (const CaptureSummary& capture : captures) {
        list.push_back({{"file", capture.file},
                        {"records", capture.records},
                        {"iso", capture.iso},
                        {"interrupt", capture.interrupt},
                        {"control", capture.control},
                        {"bulk", capture.bulk}});
    }
    return list;
}

std::string Format(const char* format, auto... values) {
    char line[512];
    snprintf(line, sizeof line, format, values...);
    return line;
}

void AddCounts(const KindCounts& counts, KindCounts* sum) {
    sum->post += counts.post;
    sum->fast += counts.fast;
    sum->hid += counts.hid;
    sum->async += counts.async;
    sum->bytes += counts.bytes;
}

void AddShortfall(const Shortfall& shortfall, Shortfall* sum) {
    sum->refused += shortfall.refused;
    sum->cut += shortfall.cut;
    sum->lost += shortfall.lost;
}

double InMicroseconds(uint64_t nanoseconds) {
    return static_cast<double>(nanoseconds) / 1000;
}

std::string Microseconds(double microseconds) {
    if (microseconds < 1000) return Format("%.0f us", microseconds);
    if (microseconds < 1e6) return Format("%.1f ms", microseconds / 1e3);
    return Format("%.2f s", microseconds / 1e6);
}

std::string Duration(double seconds) {
    return seconds < 0.1 ? Format("%.1f ms", seconds * 1e3) : Format("%.2f s", seconds);
}

std::string Plural(uint64_t count, const char* noun) {
    return WithSeparators(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string BaseName(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string Verdict(const ReplayReport& report) {
    std::string text = report.Ok() ? "OK: " : "FAILED: ";
    if (report.clients > 1) text += std::to_string(report.clients) + " clients, ";
    text += Plural(report.sent.Messages(), "message") + " in " + Duration(report.seconds) +
            Format(" (%.0f a second), ", report.messagesPerSecond);
    text += report.Lost() ? WithSeparators(report.Lost()) + " lost, " : "nothing lost, ";
    text +=
        report.mismatched ? WithSeparators(report.mismatched) + " changed on the way" : "nothing changed on the way";
    if (report.stoppedEarly) text += "; stopped early";
    return text + "\n";
}

std::string CaptureTable(const std::vector<CaptureSummary>& captures) {
    size_t width = 7;
    for (const CaptureSummary& capture : captures) width = std::max(width, BaseName(capture.file).size());
    width = std::min<size_t>(width, 60);
    std::string text = Format("\n  %-*s %9s %9s %9s %9s %9s\n", static_cast<int>(width), "capture", "records", "iso",
                              "interrupt", "control", "bulk");
    for (const CaptureSummary& capture : captures) {
        text += Format("  %-*s %9s %9s %9s %9s %9s\n", static_cast<int>(width), BaseName(capture.file).c_str(),
                       WithSeparators(capture.records).c_str(), WithSeparators(capture.iso).c_str(),
                       WithSeparators(capture.interrupt).c_str(), WithSeparators(capture.control).c_str(),
                       WithSeparators(capture.bulk).c_str());
    }
    return text;
}

std::string CountRow(const char* name, const KindCounts& counts) {
    return Format("  %-9s %11s %11s %11s %11s %15s\n", name, WithSeparators(counts.post).c_str(),
                  WithSeparators(counts.fast).c_str(), WithSeparators(counts.hid).c_str(),
                  WithSeparators(counts.async).c_str(), WithSeparators(counts.bytes).c_str());
}

std::string ChannelLines(const ReplayReport& report) {
    const Shortfall &out = report.outbound, &back = report.returning;
    if (report.interruptions == 0 && out.refused + out.cut + out.lost + back.refused + back.cut + back.lost == 0)
        return "";
    std::string text = "\n  channel   " + Plural(report.interruptions, "interruption") + "\n";
    for (const auto& [name, shortfall] : {std::pair("outbound", out), {"returning", back}}) {
        text += Format("  %-9s %s refused while it was down, %s cut as it fell, %s lost\n", name,
                       WithSeparators(shortfall.refused).c_str(), WithSeparators(shortfall.cut).c_str(),
                       WithSeparators(shortfall.lost).c_str());
    }
    return text;
}

}  // namespace

std::string WithSeparators(uint64_t number) {
    std::string text = std::to_string(number);
    for (size_t at = text.size(); at > 3; at -= 3) text.insert(at - 3, 1, ',');
    return text;
}

Shortfall Account(const char* direction, uint64_t attempted, uint64_t refused, uint64_t cut, uint64_t arrived,
                  bool channelFell, std::vector<std::string>* problems) {
    Shortfall shortfall = {refused, cut, 0};
    const uint64_t explained = refused + cut + arrived;
    if (explained > attempted)
        problems->push_back(std::string(direction) + ": " + Plural(explained - attempted, "message") +
                            " more accounted for than sent");
    else
        shortfall.lost = attempted - explained;
    if (!channelFell) {
        shortfall.lost += refused + cut;
        shortfall.refused = shortfall.cut = 0;
    }
    return shortfall;
}

LatencySummary ReplayReport::Latency() const {
    const UsbReplayLatency& chief = hidLatency.samples > fastLatency.samples ? hidLatency : fastLatency;
    return {InMicroseconds(chief.p50Ns), InMicroseconds(chief.p99Ns),
            InMicroseconds(std::max(fastLatency.maxNs, hidLatency.maxNs))};
}

void AddCounts(const AgentCounts& counts, AgentCounts* sum) {
    sum->greeted = sum->greeted || counts.greeted;
    AddCounts(counts.received, &sum->received);
    sum->repliesAccepted += counts.repliesAccepted;
    sum->repliesRefused += counts.repliesRefused;
    sum->repliesCut += counts.repliesCut;
    sum->undeliverable += counts.undeliverable;
    sum->malformed += counts.malformed;
}

void AddFigures(const ReplayReport& client, ReplayReport* sum) {
    AddCounts(client.sent, &sum->sent);
    AddCounts(client.agent, &sum->agent);
    AddCounts(client.returned, &sum->returned);
    AddShortfall(client.outbound, &sum->outbound);
    AddShortfall(client.returning, &sum->returning);
    sum->mismatched += client.mismatched;
    sum->interruptions += client.interruptions;
    sum->stoppedEarly = sum->stoppedEarly || client.stoppedEarly;
    sum->seconds = std::max(sum->seconds, client.seconds);
    if (sum->seconds > 0) sum->messagesPerSecond = static_cast<double>(sum->sent.Messages()) / sum->seconds;
    usbd::LatencyHistogram::Merge(client.fastLatency, &sum->fastLatency);
    usbd::LatencyHistogram::Merge(client.hidLatency, &sum->hidLatency);
}

std::string ReportAsJson(const ReplayReport& report) {
    const LatencySummary latency = report.Latency();
    const Json json = {
        {"ok", report.Ok()},
        {"clients", report.clients},
        {"captures", CapturesAsJson(report.captures)},
        {"sent", CountsAsJson(report.sent)},
        {"agent", CountsAsJson(report.agent.received)},
        {"returned", CountsAsJson(report.returned)},
        {"refused", report.outbound.refused},
        {"cut", report.outbound.cut},
        {"refused_returning", report.returning.refused},
        {"cut_returning", report.returning.cut},
        {"lost", report.Lost()},
        {"lost_returning", report.returning.lost},
        {"mismatched", report.mismatched},
        {"interruptions", report.interruptions},
        {"stopped_early", report.stoppedEarly},
        {"seconds", report.seconds},
        {"messages_per_second", report.messagesPerSecond},
        {"latency_us", {{"p50", latency.p50}, {"p99", latency.p99}, {"max", latency.max}}},
        {"log", report.logs.empty() ? "" : report.logs.front()},
        {"logs", report.logs},
        {"problems", report.problems},
    };
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string ReportAsText(const ReplayReport& report) {
    std::string text = Verdict(report);
    text += CaptureTable(report.captures);
    text += Format("\n  %-9s %11s %11s %11s %11s %15s\n", "messages", "post", "fast", "hid", "async", "bytes");
    text += CountRow("sent", report.sent) + CountRow("agent", report.agent.received) +
            CountRow("returned", report.returned);
    text += ChannelLines(report);
    const LatencySummary latency = report.Latency();
    text += "\n  latency   " + Microseconds(latency.p50) + " median, " + Microseconds(latency.p99) + " for 99 %, " +
            Microseconds(latency.max) + " at most\n";
    return text;
}
