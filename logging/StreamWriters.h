// The writers on the standard streams.
#pragma once

#include "logging/LogWriter.h"

// Inserts the text into std::cerr; nothing is flushed explicitly.
class StdErrWriter : public LogWriter {
public:
    StdErrWriter() : LogWriter(kStdErrWriter) {}
    bool Open() override { return true; }
    bool WriteMessage(const RCPtr<LogMessage>& message) override;
    bool Close() override { return true; }
};

// The same with std::cout.
class StdOutWriter : public LogWriter {
public:
    StdOutWriter() : LogWriter(kStdOutWriter) {}
    bool Open() override { return true; }
    bool WriteMessage(const RCPtr<LogMessage>& message) override;
    bool Close() override { return true; }
};

// For a debugger's window; this platform has none, so it writes to std::cout.
class DebugWriter : public LogWriter {
public:
    DebugWriter() : LogWriter(kDebugWriter) {}
    bool Open() override { return true; }
    bool WriteMessage(const RCPtr<LogMessage>& message) override;
    bool Close() override { return true; }
};
