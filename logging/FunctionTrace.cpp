#include "logging/FunctionTrace.h"

#include <cstdarg>
#include <cstdio>

#include "logging/Logger.h"

bool FunctionTrace::Reaches(int level) const {
    return logger ? logger->IsStarted() && logger->GetLevel() >= level : LogEnabled(level);
}

void FunctionTrace::Line(int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    if (logger) {
        logger->LogLineV(function, level, format, args);
    } else {
        Logger::LogV(function, level, format, args);
    }
    va_end(args);
}

void FunctionTrace::Enter(const RCPtr<Logger>& ownLogger, const char* format, ...) {
    logger = ownLogger;
    timer.emplace(KxTimer::Mode::Start);
    const bool reached = Reaches(enterLevel);
    logging = logger || reached;
    if (!reached) return;
    if (format[0] == '\0') {
        Line(enterLevel, "Enter\n");
        return;
    }
    char text[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    Line(enterLevel, "Enter - %s", text);
}

void FunctionTrace::SetExitMessage(int level, const char* format, ...) {
    if (!Reaches(level)) return;
    logging = true;
    exitLevel = level;
    va_list args;
    va_start(args, format);
    hasExitText = std::vsnprintf(exitText, sizeof exitText, format, args) > 0;
    va_end(args);
}

void FunctionTrace::Exit() {
    char elapsed[32] = "";
    if (timed) {
        const uint64 milliseconds = timer ? timer->GetTimerMS(KxTimer::Mode::Read, 0) : 0;
        std::snprintf(elapsed, sizeof elapsed, "(%dms)", static_cast<int>(milliseconds));
    }
    if (!hasExitText) {
        if (Reaches(enterLevel)) Line(enterLevel, "Exit%s\n", elapsed);
    } else if (Reaches(exitLevel)) {
        if (Reaches(enterLevel)) {
            Line(exitLevel, "Exit%s - %s", elapsed, exitText);
        } else {
            Line(exitLevel, "%s", exitText);
        }
    }
}
