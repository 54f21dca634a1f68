// The bytes of one log file on their way to a sink: cut into records and filtered, in bounded memory.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "tools/logview/LogLine.h"

// An entry, separator or notice with the lines that go on with it. What is too long, and what comes late in a file that
// grows, follows in further records that aren't first.
struct LogRecord {
    LogLine line;            // the first line; kind Other if the record isn't first
    std::string_view bytes;  // all lines with their line feeds
    bool first = false;      // false: goes on with the record before, if there was one
    bool midLine = false;    // the last line is not yet at its end
};

// Takes the records that passed the filter. They are valid during the call.
class RecordSink {
public:
    virtual ~RecordSink() = default;
    virtual void Take(const LogRecord& record) = 0;
    virtual void Settle() {}  // nothing more for now: what was taken should be seen
    virtual void Finish() {}  // the last call
};

// What entries have to be like. Notices pass always, as they tell what a log lacks; separators pass without a filter
// only; all other lines go with the entry or notice above them, those at the head of a file only without a filter.
struct RecordFilter {
    int level = kLogUnknown;  // that and more important
    std::optional<uint64_t> thread;
    std::string function;  // part of the short name
    std::string text;      // part of the text, up to the end of the record or of its first megabyte

    bool Active() const { return level != kLogUnknown || thread.has_value() || !function.empty() || !text.empty(); }
    // For a record that is first.
    bool Passes(const LogRecord& record) const;
};

class RecordStream {
public:
    // No record has more bytes; a longer one goes on in further records.
    static constexpr size_t kCapacity = 1 << 20;

    // Filter and sink outlive the stream.
    RecordStream(const RecordFilter& filter, RecordSink& sink);

    // Where the next bytes go: at least one.
    std::span<char> Room();
    void Added(size_t count);

    // Nothing more for now: hands on all lines that are at their end.
    void Settle();

    // The file is at its end: hands on what is left. The next bytes are those of another file.
    void End();

private:
    void TakeLine(size_t lineEnd);
    void ReadHead();
    void HandOn(size_t recordEnd, bool midLine);
    void HandOnPart();

    const RecordFilter& filter;
    RecordSink& sink;
    const std::unique_ptr<char[]> data;  // kCapacity bytes
    // begin <= look <= searched <= end: the record under way, the first line not looked at, and, in that line, where
    // there is no line feed so far.
    size_t begin = 0, look = 0, searched = 0, end = 0;
    LogLine head;          // first line of the record at begin, if it is first
    bool first = false;    // the record at begin is first
    bool midLine = false;  // the line at look has had its beginning handed on
    bool passing;          // the verdict on the record before
};
