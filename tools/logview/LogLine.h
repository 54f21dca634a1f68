// One line of a log file, taken apart.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "logging/LogLevel.h"

enum class LineKind {
    Entry,      // begins with the prefix that every log call writes
    Separator,  // 39 hyphens: the next entry is of another thread
    Notice,     // the writer's own words: lines dropped, batch mode, disk space, a new session
    Other,      // anything else, which goes on with the entry or notice above it
};

// The level of an entry whose letter is "?".
constexpr int kLogUnknown = kLogNever + 1;

// The texts are views into the line. What a line of its kind doesn't have is empty or 0.
struct LogLine {
    LineKind kind = LineKind::Other;
    int level = kLogUnknown;
    uint64_t thread = 0;
    uint32_t process = 0;
    std::string_view stamp;       // "2026-11-17 23:22:01.123" in local time, "2026-11-17T22:22:01.123Z" in UTC
    std::string_view threadText;  // hexadecimal, as written
    std::string_view function;    // short name, as "Foo::Bar()"
    std::string_view text;        // of a notice, without the stars around it; empty for the rule of a banner
};

// line is without its line feed. Never fails: what has no other kind is Other. A line that was cut off parses as long
// as its prefix is whole.
LogLine ParseLogLine(std::string_view line);

// Milliseconds since 1970 of a stamp as ParseLogLine gives it. A local stamp is taken in this machine's zone.
std::optional<int64_t> StampToMS(std::string_view stamp);
