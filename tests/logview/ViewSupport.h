// What the tests of log-view share: a folder of their own, output that can be read back, lines to make logs of.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "tools/logview/Output.h"
#include "tools/logview/RecordStream.h"

class TempFolder {
public:
    TempFolder() {
        std::string shape = std::filesystem::temp_directory_path() / "logview-XXXXXX";
        folder = mkdtemp(shape.data());
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    ~TempFolder() { std::filesystem::remove_all(folder); }

    std::string Path(const std::string& name) const { return folder + "/" + name; }

    std::string Write(const std::string& name, std::string_view text) const {
        std::ofstream(Path(name), std::ios::binary) << text;
        return Path(name);
    }
    void Append(const std::string& name, std::string_view text) const {
        std::ofstream(Path(name), std::ios::binary | std::ios::app) << text;
    }

private:
    std::string folder;
};

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

inline std::string Entry(const std::string& letter, const std::string& function, const std::string& text,
                         const std::string& thread = "00000001") {
    return "2026-11-17 23:22:01.123 <" + thread + "> [10E1] " + letter + " " + function + ": " + text + "\n";
}

inline const std::string kSeparatorLine = std::string(39, '-') + "\n";
inline const std::string kBannerLines = "\n" + std::string(78, '*') +
                                        "\n************************   NEW LOG SESSION STARTING   "
                                        "************************\n" +
                                        std::string(78, '*') + "\n\n";
