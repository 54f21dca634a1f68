#include "logging/Log.h"

#include <cstdio>
#include <mutex>

std::atomic<int32_t> gLogLevel{0};

namespace {

constexpr int kLineSize = 10240;

struct SinkState {
    std::recursive_mutex lock;  // guards the fields; held across the sink, so that SetSink can wait for it
    LogSink sink = nullptr;
    void* context = nullptr;
    bool inSink = false;
};

// Made on first use and never destroyed: static objects log in their destructors.
SinkState& Sink() {
    static SinkState* state = new SinkState;
    return *state;
}

}  // namespace

void Logger::Log(const char* function, int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    LogV(function, level, format, args);
    va_end(args);
}

void Logger::LogV(const char* function, int level, const char* format, va_list args) {
    SinkState& state = Sink();
    std::lock_guard guard(state.lock);
    if (!state.sink || state.inSink) return;
    char text[kLineSize];
    std::vsnprintf(text, sizeof text, format, args);
    state.inSink = true;
    state.sink(state.context, function, level, text);
    state.inSink = false;
}

void Logger::SetSink(LogSink sink, void* context, int level) {
    SinkState& state = Sink();
    std::lock_guard guard(state.lock);
    state.sink = sink;
    state.context = context;
    gLogLevel.store(sink ? level : 0, std::memory_order_relaxed);
}

void FunctionTrace::Enter(const char* format, ...) {
    logging = true;
    timer.emplace(KxTimer::Mode::Start);
    if (format[0] == '\0') {
        Logger::Log(function, enterLevel, "Enter\n");
        return;
    }
    char text[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    Logger::Log(function, enterLevel, "Enter - %s", text);
}

void FunctionTrace::SetExitMessage(int level, const char* format, ...) {
    if (!LogEnabled(level)) return;
    logging = true;
    exitLevel = level;
    hasExitText = true;
    va_list args;
    va_start(args, format);
    std::vsnprintf(exitText, sizeof exitText, format, args);
    va_end(args);
}

void FunctionTrace::Exit() {
    char elapsed[32] = "";
    if (timed) {
        const uint64 milliseconds = timer ? timer->GetTimerMS(KxTimer::Mode::Read, 0) : 0;
        std::snprintf(elapsed, sizeof elapsed, "(%dms)", static_cast<int>(milliseconds));
    }
    if (!hasExitText) {
        if (LogEnabled(enterLevel)) Logger::Log(function, enterLevel, "Exit%s\n", elapsed);
    } else if (LogEnabled(exitLevel)) {
        if (LogEnabled(enterLevel)) {
            Logger::Log(function, exitLevel, "Exit%s - %s", elapsed, exitText);
        } else {
            Logger::Log(function, exitLevel, "%s", exitText);
        }
    }
}
