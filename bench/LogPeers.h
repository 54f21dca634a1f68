// Loggers of the field, each with a file of its own, behind one shape. Their headers stay in the source: macros clash.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

class LogPeer {
public:
    virtual ~LogPeer() = default;
    virtual void Line(int number) = 0;
    virtual void Finish() = 0;  // returns when every line is with the system

    static std::unique_ptr<LogPeer> SpdlogSync(const std::string& folder);
    static std::unique_ptr<LogPeer> SpdlogAsync(const std::string& folder);  // blocks when its queue is full
    static std::unique_ptr<LogPeer> Glog(const std::string& folder);
    static std::unique_ptr<LogPeer> Bare(const std::string& folder);  // snprintf and fwrite under a mutex
};

// The text of a line, 120 characters with an average prefix, as arguments of a printf format and of a fmt one.
#define BENCH_LINE_PRINTF "Transfer %d on endpoint 0x%02x of device %s moved %zu bytes, status %d\n"
#define BENCH_LINE_FMT "Transfer {} on endpoint 0x{:02x} of device {} moved {} bytes, status {}"
#define BENCH_LINE_ARGS(number) number, 0x81, "1-4.2:1.0", size_t{65536}, 0
