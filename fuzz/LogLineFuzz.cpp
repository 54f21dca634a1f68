// A log file of arbitrary bytes through the whole of log-view: nothing is lost or changed on the way, however the bytes
// arrive; what is printed as JSON has no byte that JSON doesn't allow, and what goes to a terminal no control
// character.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>

#include "tools/logview/LogFiles.h"
#include "tools/logview/LogSummary.h"
#include "tools/logview/Printers.h"

namespace {

void Require(bool holds) {
    if (!holds) std::abort();
}

class Collector : public RecordSink {
public:
    void Take(const LogRecord& record) override {
        Require(!record.bytes.empty());
        Require(record.first || record.line.kind == LineKind::Other);
        for (const std::string_view part :
             {record.line.stamp, record.line.threadText, record.line.function, record.line.text}) {
            Require(part.empty() ||
                    (part.data() >= record.bytes.data() && part.end() <= record.bytes.data() + record.bytes.size()));
        }
        if (!record.line.stamp.empty()) Require(StampToMS(record.line.stamp).has_value());
        bytes += record.bytes;
    }
    std::string bytes;
};

void Feed(RecordStream& stream, std::string_view text, size_t piece) {
    for (size_t at = 0; at < text.size(); at += piece) {
        const std::string_view part = text.substr(at, piece);
        part.copy(stream.Room().data(), part.size());
        stream.Added(part.size());
    }
    stream.End();
}

int MemoryFile() {
    static const int fd = memfd_create("output", 0);
    Require(ftruncate(fd, 0) == 0 && lseek(fd, 0, SEEK_SET) == 0);
    return fd;
}

template <typename Sink, typename... Args>
std::string Printed(std::string_view log, Args... args) {
    const int fd = MemoryFile();
    {
        Output output(fd);
        Sink sink(output, args...);
        const RecordFilter all;
        RecordStream stream(all, sink);
        Feed(stream, log, log.size() + 1);
        sink.Finish();
    }
    std::string text(static_cast<size_t>(lseek(fd, 0, SEEK_CUR)), '\0');
    Require(pread(fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
    return text;
}

bool HasControl(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) < 0x20 && c != '\n' && c != '\t') || c == 0x7F;
    });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string_view log(reinterpret_cast<const char*>(data), size);
    const RecordFilter all;
    for (const size_t piece : {size, size_t{data[0]} % 32 + 1}) {
        Collector collector;
        RecordStream stream(all, collector);
        Feed(stream, log, piece);
        Require(collector.bytes == log);
    }
    const std::string plain = Printed<PlainPrinter>(log, false, false);
    Require(plain.starts_with(log) && plain.size() <= size + 1);
    Require(!HasControl(Printed<PlainPrinter>(log, false, true)));
    const std::string json = Printed<JsonPrinter>(log);
    Require(!HasControl(json) || json.find('\x7F') != std::string::npos);
    Require(json.empty() || (json.starts_with('{') && json.ends_with("}\n")));
    Require(Printed<LogSummary>(log, true).ends_with("}\n"));
    if (const auto name = ParseLogFileName(log)) Require(!name->process.empty() && name->stamp.size() == 16);
    return 0;
}
