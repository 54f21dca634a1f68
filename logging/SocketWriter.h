// The writer on a syslog collector: one UDP datagram for each line, in the frame of RFC 5424.
#pragma once

#include <memory>
#include <string>

#include "logging/LogWriter.h"
#include "runtime/KxSocket.h"

// Buffered from the start. A datagram that can't be sent is lost, and nothing reconnects. Properties, by key in any
// case and before the start only: remoteAddress (the local machine), remotePort (514).
//
// The frame stands on a line only if this is the first started writer of its logger; behind another one the datagram is
// the line as that one laid it out.
class SocketWriter : public LogWriter {
public:
    SocketWriter();

    bool SetProperty(const std::string& key, const std::string& value) override;
    bool GetProperty(const std::string& key, std::string& value) override;
    bool Open() override;
    bool WriteMessage(const RCPtr<LogMessage>& message) override;
    bool Close() override;
    int FormatPrefix(char* buffer, int size, const char* function, int level) override;

private:
    std::string appName;  // APP-NAME of the frame
    std::string remoteAddress = "localhost";
    uint16_t remotePort = 514;
    std::unique_ptr<KxSocket> socket;
};
