// The door to the log: the level word, the log macro and the scope tracer. All code logs through this header; it knows
// no writer. While no default logger is started, lines are dropped, or go to the sink if one is set.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <optional>

#include "runtime/KxTimer.h"

// Levels of a line. A line is written when its level is at or below the logger's level.
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

// The current level of the default logger, 0 while there is none. Call sites test it before they log, so a disabled
// line costs one comparison. Relaxed: a stale value costs or drops a line at the moment of a level change, no more.
extern std::atomic<int32_t> gLogLevel;

inline bool LogEnabled(int level) {
    return gLogLevel.load(std::memory_order_relaxed) >= level;
}

// Receives each line that passes gLogLevel: the caller's signature text, the level, the formatted text.
using LogSink = void (*)(void* context, const char* function, int level, const char* text);

class Logger {
public:
    // The one log entry of the system. function is the caller's full signature text (or any text; one that begins
    // with "@" is a ready name), format a printf format. Safe on any thread.
    static void Log(const char* function, int level, const char* format, ...) __attribute__((format(printf, 3, 4)));
    static void LogV(const char* function, int level, const char* format, va_list args)
        __attribute__((format(printf, 3, 0)));

    // Sends every line to sink until it is set to null, with gLogLevel at level. A line that sink itself causes is
    // dropped. Returns after calls of the earlier sink have ended.
    static void SetSink(LogSink sink, void* context, int level);
};

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
#define LOG_AT(level, ...)                                             \
    do {                                                               \
        const int logAtLevel = (level);                                \
        if (LogEnabled(logAtLevel)) {                                  \
            Logger::Log(__PRETTY_FUNCTION__, logAtLevel, __VA_ARGS__); \
        }                                                              \
    } while (false)

// Logs "Enter" when made and "Exit" when it goes, at the level given, with the text that SetExitMessage left and, when
// timed is set, with the milliseconds in between. Lives on the stack; the signature text isn't copied. A trace whose
// level is off when it is made logs nothing but its exit message, and costs one comparison.
class FunctionTrace {
public:
    template <typename... Args>
    FunctionTrace(int level, const char* signature, const char* format, Args... args)
        : function(signature), enterLevel(level), exitLevel(level) {
        if (LogEnabled(level)) Enter(format, args...);
    }
    FunctionTrace(const FunctionTrace&) = delete;
    FunctionTrace& operator=(const FunctionTrace&) = delete;
    virtual ~FunctionTrace() {
        if (logging) Exit();
    }

    // Sets the text and level of the exit line; at most 1,023 bytes are kept.
    void SetExitMessage(int level, const char* format, ...) __attribute__((format(printf, 3, 4)));

    bool timed = false;

private:
    void Enter(const char* format, ...);
    void Exit();

    const char* const function;
    const int32_t enterLevel;
    int32_t exitLevel;
    bool logging = false;  // the level was on at the enter or at the exit message
    char exitText[1024];   // set while hasExitText
    bool hasExitText = false;
    std::optional<KxElapsedTimer> timer;  // started by the enter line
};

// FUNCTION_TRACE(Info, "%s(0x%p)", name, handle): traces the enclosing function; the object is named functionTrace.
#define FUNCTION_TRACE(level, ...) FunctionTrace functionTrace(kLog##level, __PRETTY_FUNCTION__, __VA_ARGS__)
