#include "logging/LogWriter.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

#include "tests/logging/LogSupport.h"
#include "tests/support/Pattern.h"

namespace {

const std::string kSeparator = std::string(39, '-') + "\n";
const std::string kBatchBanner = "\n***** BATCH MODE ENABLED *****\n\n";

constexpr uint32_t kNever = 3600000;  // a flush period that doesn't end within a test
constexpr DWORD kPatienceMS = 20000;

// Keeps what it writes.
class MemoryWriter : public LogWriter {
public:
    explicit MemoryWriter(const RCPtr<Logger>& owner) : LogWriter(kStdOutWriter) { logger = owner; }

    bool Open() override { return true; }
    bool Close() override { return true; }
    bool ShouldDrop(const RCPtr<LogMessage>& message) override { return message->Level() > dropAbove; }
    bool WriteMessage(const RCPtr<LogMessage>& message) override {
        if (onWrite) onWrite();
        std::lock_guard guard(lock);
        text += message->Text();
        return true;
    }
    void BeginWrite() override { ++begun; }
    void EndWrite() override {
        ++ended;
        passed.Set();
    }

    std::string Take() {
        std::lock_guard guard(lock);
        return std::exchange(text, {});
    }

    int dropAbove = kLogNever;
    std::atomic<int> begun{0};
    std::atomic<int> ended{0};
    std::function<void()> onWrite;
    KxEvent passed{false, false};  // after each run of writes

private:
    std::mutex lock;
    std::string text;  // guarded by lock
};

class LogWriterTest : public LoggingTest {
protected:
    LogWriterTest() : logger(MakeLogger()), writer(new MemoryWriter(logger)) {}
    ~LogWriterTest() override {
        writer->onWrite = nullptr;
        writer->Stop();
    }

    bool Write(const std::string& text, int level = kLogInfo) {
        const RCPtr<LogMessage> message = logger->NewMessage(level, text.c_str(), -1);
        KxMutexGuard guard(LoggerLock());
        return writer->Write(message);
    }
    // Writes "<from>\n" up to "<to - 1>\n" and returns that text.
    std::string WriteNumbers(int from, int to) {
        std::string expected;
        for (int i = from; i < to; ++i) {
            EXPECT_TRUE(Write(std::to_string(i)));
            expected += std::to_string(i) + "\n";
        }
        return expected;
    }
    // Queued, with no pass but those that a test makes.
    void StartQueued() {
        writer->SetBuffering(true);
        writer->SetFlushPeriod(kNever);
        ASSERT_TRUE(writer->Start());
    }
    void RunPass() {
        writer->passed.Reset();
        writer->SetFlushPeriod(1);
        EXPECT_EQ(writer->passed.Wait(kPatienceMS), kWaitSignaled);
        writer->SetFlushPeriod(kNever);
        StartThread();  // the pass is over then
    }
    std::string Prefix(const char* function, int level = kLogInfo, int size = 512) {
        std::string buffer(static_cast<size_t>(size), '#');
        const int length = writer->FormatPrefix(buffer.data(), size, function, level);
        EXPECT_LT(length, size);
        EXPECT_EQ(buffer[static_cast<size_t>(length)], '\0');
        return buffer.substr(0, static_cast<size_t>(length));
    }

    const RCPtr<Logger> logger;
    const RCPtr<MemoryWriter> writer;
};

TEST_F(LogWriterTest, APrefixHoldsTimeThreadProcessLevelAndName) {
    char thread[32];
    std::snprintf(thread, sizeof thread, "<%08llX>", static_cast<unsigned long long>(GetThreadNumber()));
    const std::string behindTime = std::string(thread) + " " + ProcessText() + " D Foo::Bar(): ";
    for (const bool local : {true, false}) {
        logger->SetUseLocalTime(local);
        const std::string line = Prefix("bool Foo::Bar(const std::string&, int)", kLogDebug);
        const std::string time =
            local ? R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )" : R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z )";
        EXPECT_TRUE(Matches(line, time + Quoted(behindTime))) << line;
    }
}

TEST_F(LogWriterTest, NamesAreCutUnlessTheyAreReady) {
    const std::string longName(300, 'n');
    for (const auto& [function, name] : {std::pair{std::string("Logger Header"), std::string("Header")},
                                         {"@Ready name (as it is)", "Ready name (as it is)"},
                                         {"trailing ", ""},
                                         {longName, longName.substr(0, 126)},
                                         {"@" + longName, longName}}) {
        EXPECT_TRUE(Prefix(function.c_str()).ends_with("] I " + name + ": "));
    }
}

TEST_F(LogWriterTest, WithoutAFunctionTheTextLinesUpUnderTheLastPrefix) {
    EXPECT_EQ(Prefix(nullptr), "");
    const size_t width = Prefix("some()").size();
    EXPECT_EQ(Prefix(nullptr), std::string(width, ' '));
    EXPECT_EQ(Prefix(""), std::string(width, ' '));
}

TEST_F(LogWriterTest, APrefixIsCutToItsBuffer) {
    const std::string whole = Prefix("Foo::Bar()");
    for (int size = 1; size <= static_cast<int>(whole.size()) + 4; ++size) {
        const std::string cut = Prefix("Foo::Bar()", kLogInfo, size);
        EXPECT_EQ(cut.size(), std::min(whole.size(), static_cast<size_t>(size) - 1));
        EXPECT_EQ(Prefix(nullptr, kLogInfo, size).size(), cut.size());
        const std::string longName = "@" + std::string(1000, 'n');
        EXPECT_EQ(Prefix(longName.c_str(), kLogInfo, size).size(), static_cast<size_t>(size) - 1);
    }
}

TEST_F(LogWriterTest, LinesOfThreadsInTurnAreSeparated) {
    EXPECT_FALSE(Contains(Prefix("first()"), kSeparator));
    EXPECT_FALSE(Contains(Prefix("same()"), kSeparator));
    std::string other;
    std::thread([&] { other = Prefix("other()"); }).join();
    EXPECT_EQ(other.rfind(kSeparator, 0), 0u);
    EXPECT_EQ(Prefix("back()").rfind(kSeparator, 0), 0u);
    EXPECT_FALSE(Contains(Prefix("still()"), kSeparator));
}

TEST_F(LogWriterTest, ADirectWriterWritesOnTheCallersThreadAndAQueuedOneInTheBackgroundInOneRun) {
    const std::thread::id caller = std::this_thread::get_id();
    std::atomic<int> here{0};
    writer->onWrite = [&] { here += std::this_thread::get_id() == caller ? 1 : 0; };
    ASSERT_TRUE(writer->Start());
    EXPECT_TRUE(Write("one"));
    EXPECT_EQ(writer->Take(), "one\n");
    EXPECT_TRUE(Write("two"));
    EXPECT_EQ(writer->Take(), "two\n");
    EXPECT_EQ(here, 2);
    EXPECT_TRUE(writer->begun == 2 && writer->ended == 2);
    StartQueued();
    const std::string expected = WriteNumbers(0, 50);
    EXPECT_EQ(writer->Take(), "");
    RunPass();
    EXPECT_EQ(writer->Take(), expected);
    EXPECT_EQ(here, 2);
    EXPECT_TRUE(writer->begun == 3 && writer->ended == 3);
}

TEST_F(LogWriterTest, FlushesAndPassesOnManyThreadsWriteEachLineOnceInOrder) {
    writer->SetBuffering(true);
    writer->SetFlushPeriod(1);
    ASSERT_TRUE(writer->Start());
    std::atomic<bool> done{false};
    std::vector<std::thread> flushers;
    for (int i = 0; i < 2; ++i) {
        flushers.emplace_back([&] {
            while (!done) writer->Flush();
        });
    }
    std::string expected = WriteNumbers(0, 3000);
    done = true;
    for (std::thread& flusher : flushers) flusher.join();
    writer->Flush();
    EXPECT_EQ(writer->Take(), expected);
}

TEST_F(LogWriterTest, DroppedLinesAreReportedWithTheNextLines) {
    StartQueued();
    writer->dropAbove = kLogWarn;
    EXPECT_FALSE(Write("a", kLogInfo));
    EXPECT_FALSE(Write("b", kLogDebug));
    writer->Flush();
    EXPECT_EQ(writer->begun, 0) << "waits for a line";
    EXPECT_TRUE(Write("kept", kLogWarn));
    writer->Flush();
    EXPECT_EQ(writer->Take(), "kept\n\n******* Dropped 2 messages *******\n\n");
    EXPECT_TRUE(Write("more", kLogWarn));
    writer->Flush();
    EXPECT_EQ(writer->Take(), "more\n");
}

TEST_F(LogWriterTest, ALineBringsTheCountOutWhicheverQueueItIsIn) {
    StartQueued();
    writer->dropAbove = kLogWarn;
    for (int round = 0; round < 20; ++round) {
        EXPECT_FALSE(Write("lost", kLogInfo));
        // Some passes, which find nothing to write, swap the queues any number of times.
        writer->SetFlushPeriod(1);
        OnLoggerThread([] {}, 3);
        writer->SetFlushPeriod(kNever);
        EXPECT_TRUE(Write("kept", kLogError));
        round % 2 == 0 ? writer->Flush() : RunPass();
        EXPECT_EQ(writer->Take(), "kept\n\n******* Dropped 1 messages *******\n\n") << round;
    }
}

TEST_F(LogWriterTest, DisablingWritesWhatIsQueuedAndCountsTheRest) {
    StartQueued();
    const std::string expected = WriteNumbers(0, 5);
    EXPECT_TRUE(writer->SetEnabled(false));
    EXPECT_EQ(writer->Take(), expected);
    for (int i = 0; i < 3; ++i) EXPECT_FALSE(Write("lost"));
    writer->Flush();
    EXPECT_EQ(writer->Take(), "");
    EXPECT_TRUE(writer->SetEnabled(true));
    EXPECT_TRUE(Write("back"));
    RunPass();
    EXPECT_EQ(writer->Take(), "back\n\n******* Dropped 3 messages *******\n\n");
}

TEST_F(LogWriterTest, TheSwitchesKeepTheOrderOfLines) {
    StartQueued();
    std::string expected;
    int next = 0;
    const std::pair<bool, bool> steps[] = {{false, true}, {false, true},  {true, true}, {true, false},
                                           {true, true},  {false, false}, {true, true}};
    for (const auto& [buffering, enabled] : steps) {
        expected += WriteNumbers(next, next + 3);
        next += 3;
        writer->SetBuffering(buffering);
        writer->SetEnabled(enabled);
        if (!enabled) {
            writer->SetBuffering(true);
            writer->SetEnabled(true);
        }
    }
    expected += WriteNumbers(next, next + 1);
    RunPass();  // runs exactly while both are on
    EXPECT_EQ(writer->Take(), expected);
}

TEST_F(LogWriterTest, AQueueAtItsThresholdTurnsBatchModeOn) {
    StartQueued();
    writer->SetBatchThreshold(250);
    std::string expected = WriteNumbers(0, 249);
    EXPECT_EQ(writer->Take(), "") << "not even a header";
    expected += WriteNumbers(249, 250);
    EXPECT_EQ(writer->Take(), kBatchBanner) << "ahead of what is queued";
    expected += WriteNumbers(250, 299);
    EXPECT_EQ(writer->begun, 0);
    expected += WriteNumbers(299, 300);
    EXPECT_EQ(writer->begun, 1) << "300 lines: 200 of them go";
    expected += WriteNumbers(300, 400);
    EXPECT_EQ(writer->begun, 2) << "200 again: all go";
    EXPECT_EQ(writer->Take(), expected);
    expected = WriteNumbers(400, 499);
    EXPECT_EQ(writer->Take(), "");
    expected += WriteNumbers(499, 500);
    EXPECT_EQ(writer->Take(), expected) << "the 100th line";
    expected = WriteNumbers(500, 510);
    writer->Stop();
    EXPECT_TRUE(Matches(writer->Take(), expected + "[^\\n]* A Shutdown: " + Quoted("*** LOG FILE COMPLETE ***") + "\n"))
        << "the rest goes with the end";
}

TEST_F(LogWriterTest, BatchModeWaitsForThePassThatRuns) {
    StartQueued();
    writer->SetBatchThreshold(10);
    KxEvent begun{true, false};
    KxEvent goOn{true, false};
    writer->onWrite = [&] {
        begun.Set();
        goOn.Wait(kPatienceMS);
    };
    std::string expected = WriteNumbers(0, 1);
    writer->SetFlushPeriod(1);
    ASSERT_EQ(begun.Wait(kPatienceMS), kWaitSignaled);
    writer->SetFlushPeriod(kNever);
    expected += WriteNumbers(1, 15);  // beyond the threshold, while the pass is writing and holds no lock
    goOn.Set();
    StartThread();
    writer->onWrite = nullptr;
    RunPass();  // no batch mode yet: passes go on
    EXPECT_EQ(writer->Take(), expected);
    expected = WriteNumbers(15, 25);
    EXPECT_EQ(writer->Take(), kBatchBanner);
    writer->Flush();
    EXPECT_EQ(writer->Take(), expected);
}

TEST_F(LogWriterTest, HeaderAndFooterFrameAWritersLife) {
    EXPECT_FALSE(writer->SetHeaderText("") || writer->SetFooterText(""));
    EXPECT_TRUE(writer->SetHeaderText("hello"));
    EXPECT_TRUE(writer->SetFooterText("good bye"));
    StartQueued();
    EXPECT_TRUE(writer->Start()) << "a second time";
    Write("between");
    EXPECT_TRUE(writer->Stop());
    EXPECT_TRUE(Matches(writer->Take(), "[^\n]* A Header: hello\nbetween\n[^\n]* A Shutdown: good bye\n"));
    EXPECT_FALSE(writer->IsStarted());
    EXPECT_FALSE(Write("late"));

    logger->AddWriter(kStdOutWriter);
    ASSERT_TRUE(logger->Start());
    EXPECT_FALSE(writer->SetHeaderText("late") || writer->SetFooterText("late"));
}

}  // namespace
