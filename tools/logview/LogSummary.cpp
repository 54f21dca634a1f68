#include "tools/logview/LogSummary.h"

#include <algorithm>
#include <cstdio>
#include <numeric>

#include "tools/logview/Printers.h"

namespace {

template <typename... Values>
void Printf(Output& output, const char* format, Values... values) {
    char text[64];
    const int length = snprintf(text, sizeof text, format, values...);
    output.Append({text, std::min(static_cast<size_t>(length), sizeof text - 1)});
}

uint64_t Sum(const std::array<uint64_t, kLogUnknown + 1>& counts) {
    return std::accumulate(counts.begin(), counts.end(), uint64_t{0});
}

using Number = unsigned long long;

}  // namespace

void LogSummary::Take(const LogRecord& record) {
    if (!record.first) return;
    const LogLine& line = record.line;
    if (line.kind == LineKind::Notice && !line.text.empty()) notices++;
    if (line.kind != LineKind::Entry) return;
    const auto level = static_cast<size_t>(line.level);
    CountsOf(line.function.substr(0, kMaxNameLength))[level]++;
    all[level]++;
    if (firstStamp.empty()) firstStamp = line.stamp;
    lastStamp = line.stamp;
}

LogSummary::Counts& LogSummary::CountsOf(std::string_view function) {
    const auto found = functions.find(function);
    if (found != functions.end()) return found->second;
    return functions[std::string(functions.size() < kMaxFunctions ? function : kOtherFunctions)];
}

std::vector<LogSummary::Row> LogSummary::Rows() const {
    std::vector<Row> rows;
    rows.reserve(functions.size());
    for (const auto& [function, counts] : functions) rows.push_back({function, &counts, Sum(counts)});
    std::sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) {
        return a.total != b.total ? a.total > b.total : a.function < b.function;
    });
    return rows;
}

void LogSummary::Finish() {
    const std::vector<Row> rows = Rows();
    if (json)
        PrintJson(rows);
    else
        PrintTable(rows);
    output.Flush();
}

// The levels that don't occur have no column.
void LogSummary::PrintTable(const std::vector<Row>& rows) {
    for (size_t level = 0; level < kLevels; level++) {
        if (all[level] > 0) Printf(output, "%9s ", LogLevelName(static_cast<int>(level)));
    }
    Printf(output, "%9s  FUNCTION\n", "TOTAL");
    for (const Row& row : rows) PrintRow(*row.counts, row.function);
    PrintRow(all, "(all)");
    Printf(output, "notices: %llu", static_cast<Number>(notices));
    if (!firstStamp.empty()) {
        output.Append("; from ");
        output.Append(firstStamp);
        output.Append(" to ");
        output.Append(lastStamp);
    }
    output.Append('\n');
}

void LogSummary::PrintRow(const Counts& counts, std::string_view function) {
    for (size_t level = 0; level < kLevels; level++) {
        if (all[level] > 0) Printf(output, "%9llu ", static_cast<Number>(counts[level]));
    }
    Printf(output, "%9llu  ", static_cast<Number>(Sum(counts)));
    AppendEscaped(output, function);
    output.Append('\n');
}

void LogSummary::PrintJson(const std::vector<Row>& rows) {
    for (const Row& row : rows) {
        for (size_t level = 0; level < kLevels; level++) {
            if ((*row.counts)[level] == 0) continue;
            output.Append("{\"function\":\"");
            AppendJson(output, row.function);
            Printf(output, "\",\"level\":\"%s\",\"lines\":%llu}\n", LogLevelName(static_cast<int>(level)),
                   static_cast<Number>((*row.counts)[level]));
        }
    }
    Printf(output, "{\"total\":%llu,\"notices\":%llu", static_cast<Number>(Sum(all)), static_cast<Number>(notices));
    if (!firstStamp.empty()) {
        Printf(output, ",\"first\":\"%s\"", firstStamp.c_str());
        Printf(output, ",\"last\":\"%s\"", lastStamp.c_str());
    }
    output.Append("}\n");
}
