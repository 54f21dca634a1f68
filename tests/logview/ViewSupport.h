// What the tests of log-view share: output that can be read back, lines to make logs of.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <string_view>

#include "tests/support/TempFolder.h"
#include "tools/logview/Output.h"
#include "tools/logview/RecordStream.h"

inline void Append(const std::string& path, std::string_view text) {
    std::ofstream(path, std::ios::binary | std::ios::app) << text;
}

class CapturedOutput {
public:
    CapturedOutput() : fd(memfd_create("output", MFD_CLOEXEC)), output(fd) {}
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;
    ~CapturedOutput() { close(fd); }

    Output& Target() { return output; }

    // All that was written so far.
    std::string Text() {
        output.Flush();
        std::string text(static_cast<size_t>(lseek(fd, 0, SEEK_CUR)), '\0');
        return pread(fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()) ? text : "(unreadable)";
    }

private:
    const int fd;
    Output output;
};

// Feeds text in pieces of that size, as one file.
inline void Feed(RecordStream& stream, std::string_view text, size_t pieceSize) {
    while (!text.empty()) {
        const std::span<char> room = stream.Room();
        const size_t count = std::min({pieceSize, text.size(), room.size()});
        text.copy(room.data(), count);
        stream.Added(count);
        text.remove_prefix(count);
    }
}

// The whole of text through a stream to sink.
inline void FeedAll(std::string_view text, RecordSink& sink, const RecordFilter& filter = {}, size_t pieceSize = 1000) {
    RecordStream stream(filter, sink);
    Feed(stream, text, pieceSize);
    stream.End();
}

inline std::string Entry(const std::string& letter, const std::string& function, const std::string& text,
                         const std::string& thread = "00000001") {
    return "2026-11-17 23:22:01.123 <" + thread + "> [10E1] " + letter + " " + function + ": " + text + "\n";
}

inline const std::string kSeparatorLine = std::string(39, '-') + "\n";
inline const std::string kBannerLines = "\n" + std::string(78, '*') +
                                        "\n************************   NEW LOG SESSION STARTING   "
                                        "************************\n" +
                                        std::string(78, '*') + "\n\n";
