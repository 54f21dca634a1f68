#include "logging/FunctionTrace.h"

#include <cstdarg>
#include <cstdio>

#include "logging/Logger.h"
#include "logging/LoggerManager.h"

// A sink counts as a logger of its level.
bool FunctionTrace::Reaches(int level) const {
    return (logger && logger->IsStarted() && logger->GetLevel() >= level) || Logger::SinkTakes(level);
}

void FunctionTrace::Line(int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Logger::LogLineV(logger.Get(), function, level, format, args);
    va_end(args);
}

void FunctionTrace::TakeLogger(const RCPtr<Logger>& ownLogger) {
    if (!listening) exitText[0] = '\0';
    listening = true;
    if (ownLogger)
        logger = ownLogger;
    else if (LoggerManager::Existing())
        logger = LoggerManager::GetDefaultLogger();
}

void FunctionTrace::Enter(const RCPtr<Logger>& ownLogger, const char* format, ...) {
    TakeLogger(ownLogger);
    timer.emplace(KxTimer::Mode::Start);
    if (!Reaches(enterLevel)) return;
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
    if (logger ? !Reaches(level) : !LogEnabled(level)) return;
    if (!logger) TakeLogger({});
    exitLevel = level;
    va_list args;
    va_start(args, format);
    std::vsnprintf(exitText, sizeof exitText, format, args);
    va_end(args);
}

void FunctionTrace::Exit() {
    char elapsed[32] = "";
    if (timed && timer) {
        const uint64 milliseconds = timer->GetTimerMS(KxTimer::Mode::Read, 0);
        std::snprintf(elapsed, sizeof elapsed, "(%dms)", static_cast<int>(milliseconds));
    }
    if (exitText[0] == '\0') {
        if (Reaches(enterLevel)) Line(enterLevel, "Exit%s\n", elapsed);
    } else if (Reaches(exitLevel)) {
        if (Reaches(enterLevel)) {
            Line(exitLevel, "Exit%s - %s", elapsed, exitText);
        } else {
            Line(exitLevel, "%s", exitText);
        }
    }
}
