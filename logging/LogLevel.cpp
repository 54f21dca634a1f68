#include "logging/LogLevel.h"

std::atomic<int32_t> gLogLevel{0};

const char* LogLevelName(int level) {
    static constexpr const char* kNames[] = {"ALWAYS", "ERROR", "WARN", "INFO", "DEBUG", "TRACE", "VERBOSE", "NEVER"};
    return level >= kLogAlways && level <= kLogNever ? kNames[level] : "UNKNOWN";
}

char LogLevelLetter(int level) {
    return level >= kLogAlways && level <= kLogNever ? "AEWIDTVN"[level] : '?';
}
