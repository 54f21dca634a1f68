// The levels of a line, and the level word that call sites test.
#pragma once

#include <atomic>
#include <cstdint>

// A line is written when its level is at or below the logger's level, so a larger logger level writes more. kLogNever
// as a logger's level lets every line through; only the steps of the log's own thread are logged at it.
enum LogLevel : int32_t {
    kLogAlways = 0,
    kLogError = 1,
    kLogWarn = 2,
    kLogInfo = 3,
    kLogDebug = 4,
    kLogTrace = 5,
    kLogVerbose = 6,
    kLogNever = 7,
};

// "ALWAYS" to "NEVER", "UNKNOWN" for any other value.
const char* LogLevelName(int level);

// The level's letter of "AEWIDTVN", '?' for any other value.
char LogLevelLetter(int level);

// The current level of the default logger, 0 while there is none. Call sites test it before they log, so a disabled
// line costs one comparison. Relaxed: a stale value costs or drops a line at the moment of a level change, no more.
extern std::atomic<int32_t> gLogLevel;

inline bool LogEnabled(int level) {
    return gLogLevel.load(std::memory_order_relaxed) >= level;
}
