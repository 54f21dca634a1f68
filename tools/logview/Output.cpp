#include "tools/logview/Output.h"

#include <unistd.h>

#include <cerrno>

void Output::Append(std::string_view bytes) {
    if (buffer.size() + bytes.size() > kBufferSize) {
        Flush();
        if (bytes.size() >= kBufferSize) {
            Write(bytes);
            return;
        }
    }
    buffer.append(bytes);
}

bool Output::Flush() {
    Write(buffer);
    buffer.clear();
    return !failed;
}

void Output::Write(std::string_view bytes) {
    while (!bytes.empty() && !failed) {
        const ssize_t written = write(fd, bytes.data(), bytes.size());
        if (written >= 0)
            bytes.remove_prefix(static_cast<size_t>(written));
        else
            failed = errno != EINTR;
    }
}
