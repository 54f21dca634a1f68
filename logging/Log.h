// The door to the log: all code logs through this header. LOG writes a line, FUNCTION_TRACE traces a scope.
#pragma once

#include "logging/FunctionTrace.h"
#include "logging/LogLevel.h"
#include "logging/Logger.h"

// LOG(Error, "Failed to get %s\n", name): one line at that level under the enclosing function's signature. Nothing
// after the level is evaluated while that level is off.
#define LOG(level, ...) LOG_AS(__PRETTY_FUNCTION__, level, __VA_ARGS__)

// The same under another signature: for a helper that logs on behalf of the operation which called it.
#define LOG_AS(function, level, ...)                                \
    do {                                                            \
        if (kLog##level == kLogAlways || LogEnabled(kLog##level)) { \
            Logger::Log(function, kLog##level, __VA_ARGS__);        \
        }                                                           \
    } while (false)

// The same at a level known at run time only; level is evaluated once.
#define LOG_AT(level, ...) LOG_AS_AT(__PRETTY_FUNCTION__, level, __VA_ARGS__)

// Both: under another signature, at a level known at run time only.
#define LOG_AS_AT(function, level, ...)                     \
    do {                                                    \
        const int logAtLevel = (level);                     \
        if (LogEnabled(logAtLevel)) {                       \
            Logger::Log(function, logAtLevel, __VA_ARGS__); \
        }                                                   \
    } while (false)

// FUNCTION_TRACE(Info, "%s(0x%p)", name, handle): traces the enclosing function; the object is named functionTrace.
#define FUNCTION_TRACE(level, ...) \
    FunctionTrace functionTrace(kLog##level, __PRETTY_FUNCTION__, RCPtr<Logger>(), __VA_ARGS__)
