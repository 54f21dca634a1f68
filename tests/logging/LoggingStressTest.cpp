// The whole framework under load: no line is lost without being counted, and none is written twice.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <mutex>
#include <numeric>
#include <optional>
#include <thread>

#include "logging/ConfigSettingsReader.h"
#include "logging/ProxyWriter.h"
#include "tests/logging/LogSupport.h"

namespace {

namespace fs = std::filesystem;

constexpr int kThreads = 8;

std::string AllText(const TempFolder& folder) {
    std::string text;
    for (const std::string& name : folder.Names()) text += ReadText(folder.File(name));
    return text;
}

// The number of the thread and of its line, if that is one of the threads' lines and whole.
bool ParseWork(const std::string& line, int* thread, int* number) {
    const size_t at = line.find("Work(): thread ");
    int end = 0;
    return at != std::string::npos &&
           std::sscanf(line.c_str() + at, "Work(): thread %d line %d %*[x] end%n", thread, number, &end) == 2 &&
           end > 0 && at + static_cast<size_t>(end) == line.size();
}

// The numbers of each thread's lines, in their order.
std::vector<std::vector<int>> NumbersIn(const std::string& text) {
    std::vector<std::vector<int>> numbers(kThreads);
    int thread = 0;
    int number = 0;
    for (const std::string& line : SplitLines(text)) {
        if (ParseWork(line, &thread, &number)) numbers[static_cast<size_t>(thread)].push_back(number);
    }
    return numbers;
}

// The threads' lines that a text holds, and the lines that it reports as dropped.
struct Tally {
    std::map<std::pair<int, int>, int> lines;
    int64 dropped = 0;
    int broken = 0;
};

Tally Count(const std::string& text) {
    Tally tally;
    int thread = 0;
    int number = 0;
    for (const std::string& line : SplitLines(text)) {
        if (ParseWork(line, &thread, &number)) {
            ++tally.lines[{thread, number}];
        } else if (std::sscanf(line.c_str(), "******* Dropped %d messages", &number) == 1) {
            tally.dropped += number;
        } else if (Contains(line, "Work()") || Contains(line, " end")) {
            ++tally.broken;
        }
    }
    return tally;
}

class LoggingStressTest : public LoggingTest {
protected:
    // Threads that log the numbers from 0 to lines - 1 each, in long and short lines.
    void StartThreads(int lines) {
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([this, t, lines] {
                const std::string filler(600, 'x');
                for (int i = 0; i < lines; ++i) {
                    const int width = i % 3 == 0 ? 600 : 20;
                    Logger::Log("void Work()", kLogWarn, "thread %d line %d %.*s end", t, i, width, filler.c_str());
                }
                ++finished;
            });
        }
    }
    // A writer that keeps all files, of that size at most, and writes after each so many milliseconds.
    static RCPtr<FileWriter> AddRollingWriter(const RCPtr<Logger>& logger, const std::string& folder,
                                              const char* sizeMB, uint32_t flushPeriod) {
        const RCPtr<FileWriter> writer = AddFileWriter(logger, folder);
        writer->SetProperty("maxFileSizeMB", sizeMB);
        writer->SetProperty("maxRollingFiles", "0");
        writer->SetFlushPeriod(flushPeriod);
        return writer;
    }
    void Join() {
        for (std::thread& thread : threads) thread.join();
    }

    std::atomic<int> finished{0};
    std::vector<std::thread> threads;
};

TEST_F(LoggingStressTest, EveryLineIsWrittenOnceOrCountedWhileSettingsChangeAndFilesRoll) {
    constexpr int kLines = 2500;
    TempFolder folder;
    const RCPtr<Logger> logger = MakeLogger(kLogWarn);  // the lines of the scans aren't counted
    const RCPtr<FileWriter> writer = AddRollingWriter(logger, folder.path, "1", 1);
    ASSERT_TRUE(logger->Start());
    StartThreads(kLines);
    for (int i = 0; finished < kThreads; ++i) {
        writer->SetBuffering(i % 2 != 0);
        if (i % 3 == 0) writer->SetEnabled(false);
        writer->SetProperty("maxDaysKept", std::to_string(1 + i % 5));
        writer->SetProperty("maxFileSizeMB", std::to_string(1 + i % 2));
        if (i % 3 == 0) writer->SetEnabled(true);
        writer->Flush();
        writer->SetFlushPeriod(static_cast<uint32_t>(1 + i % 4));
        std::this_thread::yield();
    }
    Join();
    writer->SetBuffering(true);
    writer->SetFlushPeriod(3600000);
    writer->Flush();
    Logger::Log("Last()", kLogWarn, "brings the counts out");
    LoggerManager::Shutdown();

    const Tally tally = Count(AllText(folder));
    EXPECT_EQ(tally.broken, 0);
    for (const auto& [line, times] : tally.lines) EXPECT_EQ(times, 1) << line.first << "/" << line.second;
    EXPECT_EQ(static_cast<int64>(tally.lines.size()) + tally.dropped, int64{kThreads} * kLines);
    EXPECT_GE(folder.Names().size(), 2u) << "files were rolled";
}

// The messages that a second writer of the logger got: all that passed the logger's level.
std::mutex gAcceptedLock;
std::vector<std::string> gAccepted;  // guarded by gAcceptedLock

void TakeAccepted(const char*, int, const char* format, ...) {
    va_list args;
    va_start(args, format);
    char text[4096];
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    std::lock_guard guard(gAcceptedLock);
    gAccepted.push_back(SplitLines(text).back());  // behind separator lines
}

// In each round the threads log, while the settings file changes and is applied on the thread "Logger".
TEST_F(LoggingStressTest, ASettingsFileThatChangesUnderLoadLosesNoLineUncounted) {
    constexpr int kRounds = 120;
    constexpr int kLinesPerRound = 20;
    constexpr int kLines = kRounds * kLinesPerRound;
    constexpr int kLevels[] = {kLogError, kLogWarn, kLogInfo, kLogDebug};
    gAccepted.clear();
    TempFolder folder;
    TempFolder other;
    const std::string path = other.File("config");
    const auto settings = [&](int round) {
        const char* const levels[] = {"info", "debug", "warn"};
        std::ostringstream text;
        text << "Test.logger.logLevel = " << levels[round % 3] << "\n"
             << "Test.logger.enableBuffering = " << (round % 4 != 1 ? "true" : "false") << "\n"
             << "Test.logger.logEnabled = " << (round % 5 != 2 ? "true" : "false") << "\n"
             << "Test.logger.logMaxFileSizeMB = " << 1 + round % 2 << "\n"
             << "Test.logger.logMaxDaysKept = " << 1 + round % 3 << "\n";
        if (round % 7 < 5) text << "Test.logger.useLocalTime = " << (round % 2 == 0 ? "true" : "false") << "\n";
        WriteText(path, text.str());
        fs::last_write_time(path, fs::file_time_type::clock::now() + std::chrono::seconds(10 * round));
    };
    settings(0);

    const RCPtr<Logger> logger = MakeLogger();
    AddRollingWriter(logger, folder.path, "1", 1);
    const RCPtr<LogWriter> proxy = logger->AddWriter(kProxyWriter);
    ASSERT_TRUE(static_cast<ProxyWriter*>(proxy.Get())->SetProxyFunction(TakeAccepted));
    ASSERT_TRUE(logger->AddConfigFile(path));
    ASSERT_TRUE(logger->Start());
    const RCPtr<ConfigSettingsReader> reader(new ConfigSettingsReader(logger.Get(), "Test.logger", path));

    std::barrier round(kThreads + 1);
    KxEvent settled{true, false};
    LoggerManager::GetPollThread()->AddTask("settings", nullptr, 1, [&, number = 0](bool) mutable {
        if (number == kRounds) {
            settings(0);
            reader->CheckFile(true);
            settled.Set();
            return false;
        }
        round.arrive_and_wait();
        settings(++number);
        reader->CheckFile(true);
        return true;
    });
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const std::string filler(900, 'x');
            for (int i = 0; i < kLines; ++i) {
                if (i % kLinesPerRound == 0) round.arrive_and_wait();
                const int width = i % 3 == 0 ? 900 : 200;
                LOG_AT(kLevels[i % 4], "Work(): thread %d line %d %.*s end", t, i, width, filler.c_str());
            }
        });
    }
    Join();
    settled.Wait(kInfinite);
    LOG(Always, "brings the counts out");
    LoggerManager::Shutdown();

    ASSERT_EQ(gAccepted.back(), "*** LOG FILE COMPLETE ***");
    gAccepted.pop_back();  // that writer's own
    EXPECT_GE(folder.Names().size(), 2u) << "files were rolled";
    std::map<std::string, int> missing;  // accepted less written
    std::string accepted;
    for (const std::string& line : gAccepted) {
        ++missing[line];
        accepted += line + "\n";
    }
    const Tally shown = Count(accepted);
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kLines; ++i) {
            if (kLevels[i % 4] > kLogWarn) continue;  // no level that was set is below
            ASSERT_EQ(shown.lines.count({t, i}), 1u) << t << "/" << i;
        }
    }
    EXPECT_LT(shown.lines.size(), size_t{kThreads} * kLines) << "levels were refused";

    const std::string text = AllText(folder);
    const Tally written = Count(text);
    EXPECT_EQ(shown.broken + written.broken, 0);
    for (const std::string& line : SplitLines(text)) {
        if (const auto found = missing.find(line); found != missing.end()) --found->second;
    }
    int64 lost = 0;
    for (const auto& [line, count] : missing) {
        EXPECT_GE(count, 0) << "twice: " << line;
        lost += count;
    }
    EXPECT_GT(lost, 0) << "the writer was off at times";
    EXPECT_EQ(lost, written.dropped);
    for (const std::vector<int>& numbers : NumbersIn(text)) {
        EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end()));
    }
}

TEST_F(LoggingStressTest, EachThreadsLinesKeepTheirOrderThroughBatchMode) {
    constexpr int kLines = 2000;
    TempFolder folder;
    const RCPtr<Logger> logger = MakeLogger();
    AddRollingWriter(logger, folder.path, "1", 3600000)->SetBatchThreshold(3000);
    ASSERT_TRUE(logger->Start());
    StartThreads(kLines);
    Join();
    LoggerManager::Shutdown();
    const std::string text = AllText(folder);  // in the order of the files, with marks of four digits
    EXPECT_EQ(CountOf(text, "***** BATCH MODE ENABLED *****"), 1u);
    EXPECT_EQ(CountOf(text, "*** LOG FILE COMPLETE ***"), 1u);
    std::vector<int> expected(kLines);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(NumbersIn(text), std::vector<std::vector<int>>(kThreads, expected));
}

TEST_F(LoggingStressTest, LoggersComeAndGoUnderLogCalls) {
    std::atomic<bool> done{false};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; !done; ++i) {
                LOG(Info, "thread %d line %d", t, i);
                FUNCTION_TRACE(Info, "%d", i);
                std::this_thread::yield();
            }
        });
    }
    for (int round = 0; round < 20; ++round) {
        TempFolder folder;
        const RCPtr<Logger> logger = MakeLogger();
        AddRollingWriter(logger, folder.path, "0", 1);  // one file, whatever the threads get in
        ASSERT_TRUE(logger->Start());
        for (int i = 0; i < 50; ++i) Logger::Log("Round()", kLogInfo, "%d", i);
        LoggerManager::Shutdown();
        const std::string text = AllText(folder);
        EXPECT_EQ(CountOf(text, " I Round(): "), 50u);
        EXPECT_EQ(text.substr(text.size() - 26), "*** LOG FILE COMPLETE ***\n");
    }
    done = true;
    Join();
}

// The process dies in the midst of its threads' lines. What was flushed before is there, line by line, and a process
// that comes later in the same folder keeps its own files.
TEST_F(LoggingStressTest, AKilledProcessLeavesWholeLinesUpToItsLastFlush) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    constexpr int kFlushed = 2000;
    struct Moment {
        const char* folder;
        const char* maxSizeMB;
        uintmax_t growth;  // of the files since the flush, and their number, at which the process is killed
        size_t files;
    };
    constexpr Moment kMoments[] = {
        {"flush", "0", 0, 1},
        {"first-lines", "0", 1, 1},
        {"many-lines", "0", 400000, 1},
        {"second-file", "1", 400000, 2},
    };
    const auto size = [](const std::string& path) {
        uintmax_t sum = 0;
        for (const auto& entry : fs::directory_iterator(path)) sum += entry.file_size();
        return sum;
    };
    const auto count = [](const std::string& path) {
        return static_cast<size_t>(std::distance(fs::directory_iterator(path), fs::directory_iterator()));
    };
    // A child runs the test from its start: it takes the parent's folder from the environment, and has none to leave.
    const char kVariable[] = "LOGGING_STRESS_FOLDER";
    std::optional<TempFolder> ours;
    if (!std::getenv(kVariable)) setenv(kVariable, ours.emplace().path.c_str(), 1);
    const std::string root = std::getenv(kVariable);
    for (const Moment& moment : kMoments) {
        const std::string path = root + "/" + moment.folder;
        fs::create_directory(path);
        EXPECT_EXIT(
            {
                const RCPtr<Logger> logger = MakeLogger();
                const RCPtr<FileWriter> writer = AddRollingWriter(logger, path, moment.maxSizeMB, 3600000);
                if (!logger->Start()) _exit(1);
                for (int i = 0; i < kFlushed; ++i) Logger::Log("Flushed()", kLogInfo, "number %d", i);
                writer->Flush();
                const uintmax_t begin = size(path);
                writer->SetFlushPeriod(1);
                StartThreads(1 << 30);
                while (size(path) < begin + moment.growth || count(path) < moment.files) std::this_thread::yield();
                raise(SIGKILL);
            },
            testing::KilledBySignal(SIGKILL), "")
            << moment.folder;
    }
    unsetenv(kVariable);

    for (const Moment& moment : kMoments) {
        SCOPED_TRACE(moment.folder);
        const std::string path = root + "/" + moment.folder;
        std::map<std::string, std::string> killed;
        for (const auto& entry : fs::directory_iterator(path)) killed[entry.path()] = ReadText(entry.path());
        ASSERT_EQ(killed.size() > 1, moment.files > 1);
        std::string text;
        for (const auto& [name, part] : killed) text += part;
        size_t at = 0;
        for (int i = 0; i < kFlushed; ++i) {
            at = text.find(" I Flushed(): number " + std::to_string(i) + "\n", at);
            ASSERT_NE(at, std::string::npos) << i;
        }
        const Tally tally = Count(text.substr(0, text.rfind('\n') + 1));  // the last line may be cut
        EXPECT_EQ(tally.broken, 0);
        EXPECT_GE(tally.lines.size(), moment.growth / 1000);
        for (const auto& [line, times] : tally.lines) EXPECT_EQ(times, 1);

        const RCPtr<Logger> logger = MakeLogger();
        const RCPtr<FileWriter> writer = AddFileWriter(logger, path);
        ASSERT_TRUE(logger->Start());
        Logger::Log("Next()", kLogInfo, "undisturbed");
        writer->Flush();
        const std::string own = writer->GetCurrentPath();
        EXPECT_EQ(killed.count(own), 0u);
        EXPECT_TRUE(Contains(ReadText(own), " I Next(): undisturbed\n"));
        LoggerManager::Shutdown();
        for (const auto& [name, part] : killed) EXPECT_EQ(ReadText(name), part);
    }
}

}  // namespace
