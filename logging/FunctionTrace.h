// Traces a scope: a line when it is entered, and one when it is left.
#pragma once

#include <optional>

#include "logging/LogLevel.h"
#include "runtime/KxTimer.h"
#include "runtime/RCObject.h"

class Logger;

// Logs "Enter" when made and "Exit" when it goes, at the level given, with the text that SetExitMessage left and, when
// timed is set, with the milliseconds in between. Lives on the stack; the signature text isn't copied. Without a logger
// of its own it takes the one that is the default when its level is found on, and stays with it. A trace whose level is
// off costs one comparison: no clock is read for it, and an exit text that is accepted later goes without the time.
class FunctionTrace {
public:
    // logger may be empty. With an empty format the line is "Enter", else "Enter - " and the text, cut to 1,023 bytes.
    template <typename... Args>
    FunctionTrace(int level, const char* signature, const RCPtr<Logger>& ownLogger, const char* format, Args... args)
        : function(signature), enterLevel(level), exitLevel(level) {
        if (ownLogger || LogEnabled(level)) Enter(ownLogger, format, args...);
    }
    FunctionTrace(const FunctionTrace&) = delete;
    FunctionTrace& operator=(const FunctionTrace&) = delete;
    virtual ~FunctionTrace() {
        if (listening) Exit();
    }

    // Sets the text and level of the exit line; at most 1,023 bytes are kept. With the level off it changes nothing.
    void SetExitMessage(int level, const char* format, ...) __attribute__((format(printf, 3, 4)));

private:
    void Enter(const RCPtr<Logger>& ownLogger, const char* format, ...);
    void Exit();
    void TakeLogger(const RCPtr<Logger>& ownLogger);
    bool Reaches(int level) const;
    void Line(int level, const char* format, ...) __attribute__((format(printf, 3, 4)));

    const char* const function;
    bool listening = false;  // there is a logger or a sink; the fields below are set
    char exitText[1024];
    const int32_t enterLevel;
    int32_t exitLevel;
    std::optional<KxElapsedTimer> timer;

public:
    bool timed = false;

private:
    RCPtr<Logger> logger;
};
