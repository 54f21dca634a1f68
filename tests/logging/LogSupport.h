// What the tests of the log share: folders, files and lines, and a logger that is gone after each test.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "logging/FileWriter.h"
#include "logging/Log.h"
#include "logging/LogWriter.h"
#include "logging/LoggerManager.h"
#include "runtime/KxEvent.h"
#include "runtime/KxPollThread.h"
#include "tests/support/TempFolder.h"

inline std::string ReadText(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void WriteText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

// Makes the file one that was changed that many seconds ago.
inline void SetFileAge(const std::string& path, int64 seconds) {
    const timespec at{time(nullptr) - static_cast<time_t>(seconds), 0};
    const timespec times[] = {at, at};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
}

inline std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

inline size_t CountOf(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++count;
    return count;
}

inline bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// The number of this process as it stands in a line.
inline std::string ProcessText() {
    char text[16];
    std::snprintf(text, sizeof text, "[%04X]", static_cast<unsigned>(getpid()));
    return text;
}

// Collects what is written to std::cout.
class OutputCapture {
public:
    OutputCapture() : saved(std::cout.rdbuf(text.rdbuf())) {}
    OutputCapture(const OutputCapture&) = delete;
    OutputCapture& operator=(const OutputCapture&) = delete;
    ~OutputCapture() { std::cout.rdbuf(saved); }

    // Of a logger that still runs: under the log lock, as its lines are written.
    std::string Text() const {
        KxMutexGuard guard(LoggerLock());
        return text.str();
    }
    void Clear() {
        KxMutexGuard guard(LoggerLock());
        text.str("");
    }

private:
    std::ostringstream text;
    std::streambuf* const saved;
};

class LoggingTest : public testing::Test {
protected:
    LoggingTest() { StartThread(); }
    ~LoggingTest() override { LoggerManager::Shutdown(); }

    // All that goes to std::cout, the last lines of the loggers included.
    OutputCapture output;

    // Runs it on the thread "Logger" after that time, and waits until it has.
    static void OnLoggerThread(const std::function<void()>& run, int32_t milliseconds = 0) {
        const auto done = std::make_shared<KxEvent>(true, false);
        LoggerManager::GetPollThread()->AddTask("test", nullptr, milliseconds, [&run, done](bool) {
            run();
            done->Set();
            return false;
        });
        done->Wait(kInfinite);
    }
    // Starts the thread "Logger" and waits until it serves, so that its first lines are over.
    static void StartThread() {
        OnLoggerThread([] {});
    }

    // The default logger, not started.
    static RCPtr<Logger> MakeLogger(int level = kLogInfo, const std::string& component = "Test") {
        const RCPtr<Logger> logger = LoggerManager::CreateLogger("logger", component, true);
        logger->SetLevel(level);
        return logger;
    }

    // The same with a started writer on std::cout, whose header is over.
    RCPtr<Logger> StartStdOut(int level = kLogInfo) {
        StartThread();
        const RCPtr<Logger> logger = MakeLogger(level);
        logger->AddWriter(kStdOutWriter);
        EXPECT_TRUE(logger->Start());
        output.Clear();
        return logger;
    }

    // A file writer in that folder with no limits but those that a test sets.
    static RCPtr<FileWriter> AddFileWriter(const RCPtr<Logger>& logger, const std::string& folder) {
        const RCPtr<LogWriter> writer = logger->AddWriter(kFileWriter);
        writer->SetProperty("folderPath", folder);
        const RCPtr<FileWriter> file(static_cast<FileWriter*>(writer.Get()));
        file->SetFreeSpaceSource([](const std::string&, uint64* bytes) {
            *bytes = uint64{1} << 40;
            return true;
        });
        return file;
    }
};
