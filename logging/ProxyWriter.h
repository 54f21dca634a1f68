// Hands lines on to a function of the embedding program, with level and function text intact.
#pragma once

#include "logging/LogWriter.h"

// Not buffered unless told so. The text stays whole for the writers that share it.
class ProxyWriter : public LogWriter {
public:
    // Receives a line: the caller's signature text, its level, and a printf format with the text. A line that another
    // writer has laid out comes whole, at level 0 and with an empty function. Called under the log lock when not
    // buffered, so it must not wait for a thread that logs; lines that it logs itself are dropped then.
    using ProxyFunction = void (*)(const char* function, int level, const char* format, ...);

    ProxyWriter() : LogWriter(kProxyWriter) {}

    // Before the start; false afterwards.
    bool SetProxyFunction(ProxyFunction function);

    bool Open() override { return true; }
    bool WriteMessage(const RCPtr<LogMessage>& message) override;
    bool Close() override;
    int FormatPrefix(char* buffer, int size, const char* function, int level) override;

private:
    ProxyFunction proxyFunction = nullptr;
};
