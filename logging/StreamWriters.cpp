#include "logging/StreamWriters.h"

#include <iostream>

bool StdErrWriter::WriteMessage(const RCPtr<LogMessage>& message) {
    std::cerr << message->Text();
    return true;
}

bool StdOutWriter::WriteMessage(const RCPtr<LogMessage>& message) {
    std::cout << message->Text();
    return true;
}

bool DebugWriter::WriteMessage(const RCPtr<LogMessage>& message) {
    std::cout << message->Text();
    return true;
}
