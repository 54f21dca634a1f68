// Counts entries per level and function.
#pragma once

#include <array>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tools/logview/Output.h"
#include "tools/logview/RecordStream.h"

// An entry of several lines counts once. Prints at the end: as a table, the most frequent function first, or as JSON,
// an object for each function and level and a last one for the whole.
class LogSummary : public RecordSink {
public:
    static constexpr size_t kMaxFunctions = 10000;  // further ones are counted together
    static constexpr size_t kMaxNameLength = 126;   // the longest that the log shortens a signature to
    static constexpr std::string_view kOtherFunctions = "(other functions)";

    LogSummary(Output& output, bool json) : output(output), json(json) {}

    void Take(const LogRecord& record) override;
    void Finish() override;

private:
    static constexpr size_t kLevels = kLogUnknown + 1;
    using Counts = std::array<uint64_t, kLevels>;

    struct TextHash : std::hash<std::string_view> {
        using is_transparent = void;
    };
    using Functions = std::unordered_map<std::string, Counts, TextHash, std::equal_to<>>;

    struct Row {
        std::string_view function;
        const Counts* counts;
        uint64_t total;
    };

    Counts& CountsOf(std::string_view function);
    std::vector<Row> Rows() const;
    void PrintTable(const std::vector<Row>& rows);
    void PrintRow(const Counts& counts, std::string_view function);
    void PrintJson(const std::vector<Row>& rows);

    Output& output;
    const bool json;
    Functions functions;
    Counts all = {};
    uint64_t notices = 0;
    std::string firstStamp, lastStamp;  // of the entries counted
};
