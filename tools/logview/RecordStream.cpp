#include "tools/logview/RecordStream.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t kUtf8Tail = 3;  // bytes of a character behind its first

// The largest length up to size that doesn't cut a character of valid UTF-8.
size_t CutBetweenCharacters(const char* text, size_t size) {
    size_t at = size;
    for (size_t i = 1; i <= kUtf8Tail + 1 && i < size; i++) {
        const auto byte = static_cast<unsigned char>(text[size - i]);
        if (byte < 0x80) break;
        if (byte >= 0xC0) {
            at = size - i;
            break;
        }
    }
    return at;
}

}  // namespace

bool RecordFilter::Passes(const LogRecord& record) const {
    const LogLine& line = record.line;
    if (line.kind != LineKind::Entry) return line.kind == LineKind::Notice || !Active();
    if (line.level > level || (thread && line.thread != *thread)) return false;
    if (!function.empty() && line.function.find(function) == std::string_view::npos) return false;
    if (text.empty()) return true;
    const auto textAt = static_cast<size_t>(line.text.data() - record.bytes.data());
    return memmem(line.text.data(), record.bytes.size() - textAt, text.data(), text.size()) != nullptr;
}

RecordStream::RecordStream(const RecordFilter& filter, RecordSink& sink)
    : filter(filter), sink(sink), data(std::make_unique_for_overwrite<char[]>(kCapacity)), passing(!filter.Active()) {}

std::span<char> RecordStream::Room() {
    if (begin == 0 && end == kCapacity) HandOnPart();
    if (begin > 0) {
        std::memmove(data.get(), data.get() + begin, end - begin);
        look -= begin;
        searched -= begin;
        end -= begin;
        begin = 0;
        if (first) ReadHead();
    }
    return {data.get() + end, kCapacity - end};
}

void RecordStream::Added(size_t count) {
    end += count;
    for (;;) {
        const void* const found = std::memchr(data.get() + searched, '\n', end - searched);
        if (!found) break;
        TakeLine(static_cast<size_t>(static_cast<const char*>(found) - data.get()));
    }
    searched = end;
}

// Looks at the line from look to lineEnd: it begins a record, or goes on with the one under way.
void RecordStream::TakeLine(size_t lineEnd) {
    if (!midLine) {
        const LogLine line = ParseLogLine({data.get() + look, lineEnd - look});
        if (line.kind != LineKind::Other) {
            if (look > begin) HandOn(look, false);
            first = true;
            head = line;
        }
    }
    midLine = false;
    look = searched = std::min(lineEnd + 1, end);
}

// The bytes have moved, and the views into them with them.
void RecordStream::ReadHead() {
    const void* const found = std::memchr(data.get(), '\n', end);
    const size_t lineEnd = found ? static_cast<size_t>(static_cast<const char*>(found) - data.get()) : end;
    head = ParseLogLine({data.get(), lineEnd});
}

void RecordStream::HandOn(size_t recordEnd, bool isMidLine) {
    LogRecord record;
    record.bytes = {data.get() + begin, recordEnd - begin};
    record.first = first;
    record.midLine = isMidLine;
    if (first) {
        record.line = head;
        passing = filter.Passes(record);
    }
    if (passing) sink.Take(record);
    begin = recordEnd;
    first = false;
}

// The record under way fills all there is: its whole lines go, or else as much as there is of its one line.
void RecordStream::HandOnPart() {
    if (look > begin) {
        HandOn(look, false);
        return;
    }
    const size_t cut = CutBetweenCharacters(data.get(), end);
    TakeLine(cut);
    midLine = true;
    look = cut;
    searched = end;
    HandOn(cut, true);
}

void RecordStream::Settle() {
    if (look > begin) HandOn(look, false);
    sink.Settle();
}

void RecordStream::End() {
    if (end > look) TakeLine(end);
    Settle();
    begin = look = searched = end = 0;
    first = midLine = false;
    passing = !filter.Active();
}
