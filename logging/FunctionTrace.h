// Traces a scope: a line when it is entered, and one when it is left.
#pragma once

#include <optional>

#include "logging/LogLevel.h"
#include "runtime/KxTimer.h"
#include "runtime/RCObject.h"

class Logger;

// Logs "Enter" when made and "Exit" when it goes, at the level given, with the text that SetExitMessage left and, when
// timed is set, with the milliseconds in between. Lives on the stack; the signature text isn't copied. Without a logger
// of its own it uses the default one. A trace whose level is off costs one comparison.
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
        if (logging) Exit();
    }

    // Sets the text and level of the exit line; at most 1,023 bytes are kept. With the level off it changes nothing.
    void SetExitMessage(int level, const char* format, ...) __attribute__((format(printf, 3, 4)));

    bool timed = false;

private:
    void Enter(const RCPtr<Logger>& ownLogger, const char* format, ...);
    void Exit();
    bool Reaches(int level) const;
    void Line(int level, const char* format, ...) __attribute__((format(printf, 3, 4)));

    const char* const function;
    bool logging = false;  // there is a logger: its own, or the default one for a line at the enter or at the exit
    bool hasExitText = false;
    char exitText[1024];  // set while hasExitText
    const int32_t enterLevel;
    int32_t exitLevel;
    std::optional<KxElapsedTimer> timer;  // none while the level is off, as only a line needs it
    RCPtr<Logger> logger;                 // empty for the default one
};
