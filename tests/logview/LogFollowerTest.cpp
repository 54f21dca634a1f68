#include "tools/logview/LogFollower.h"

#include <gtest/gtest.h>

#include <sstream>
#include <thread>

#include "logging/LogWriter.h"
#include "logging/Logger.h"
#include "logging/LoggerManager.h"
#include "tests/logview/ViewSupport.h"
#include "tools/logview/Printers.h"

namespace {

const std::string kFirst = "velmora-A-0-1__2026-11-17-23-22.log";
const std::string kSecond = "velmora-A-0-1(2)__2026-11-17-23-22.log";
const std::string kThird = "velmora-A-0-1(3)__2026-11-17-23-23.log";

class Follower : public testing::Test {
protected:
    void Start(const std::string& name) {
        follower = std::make_unique<LogFollower>(folder.File(name), filter, printer, stop);
    }

    // What the follower hands on until it finds nothing more.
    std::string News() {
        while (follower->Poll()) {
        }
        const std::string all = output.Text();
        const std::string news = all.substr(seen);
        seen = all.size();
        return news;
    }

    TempFolder folder;
    RecordFilter filter;
    std::atomic<bool> stop{false};
    CapturedOutput output;
    PlainPrinter printer{output.Target(), false, false};
    std::unique_ptr<LogFollower> follower;
    size_t seen = 0;
};

TEST_F(Follower, ShowsLinesOnceTheyAreAtTheirEnd) {
    const std::string one = Entry("I", "f()", "one"), two = Entry("I", "f()", "two");
    folder.Write("a.log", one + two.substr(0, 30));
    Start("a.log");
    EXPECT_EQ(News(), one);
    Append(folder.File("a.log"), two.substr(30, 10));
    EXPECT_EQ(News(), "");
    Append(folder.File("a.log"), two.substr(40) + "  continued\n");
    EXPECT_EQ(News(), two + "  continued\n");
    Append(folder.File("a.log"), "unfinished");
    EXPECT_EQ(News(), "");
    follower->Finish();
    EXPECT_EQ(output.Text(), one + two + "  continued\nunfinished\n");
}

TEST_F(Follower, WaitsForAFileAndReadsOneThatWasCutShortFromItsStart) {
    const std::string one = Entry("I", "f()", "a rather long line"), two = Entry("I", "f()", "two");
    Start("a.log");
    EXPECT_FALSE(follower->Poll());
    folder.Write("a.log", one);
    EXPECT_EQ(News(), one);
    folder.Write("a.log", two);
    EXPECT_EQ(News(), two);
}

TEST_F(Follower, FinishesAFileAndTurnsToTheOneInItsPlace) {
    const std::string one = Entry("I", "f()", "one"), two = Entry("I", "f()", "two"), last = "no line feed";
    folder.Write("a.log", one);
    Start("a.log");
    EXPECT_EQ(News(), one);
    Append(folder.File("a.log"), last);
    std::filesystem::rename(folder.File("a.log"), folder.File("a.log.1"));
    EXPECT_EQ(News(), "");
    folder.Write("a.log", two);
    EXPECT_EQ(News(), last + "\n" + two);
}

TEST_F(Follower, GoesAcrossRollsWithoutLossAndWithoutRepeats) {
    const auto line = [](int i) { return Entry("I", "f()", std::to_string(i)); };
    folder.Write(kFirst, line(1));
    Start(kFirst);
    EXPECT_EQ(News(), line(1));
    // A roll between two looks, with lines of the old file not yet seen; then two rolls, the middle file gone.
    Append(folder.File(kFirst), line(2));
    folder.Write(kSecond, line(3));
    EXPECT_EQ(News(), line(2) + line(3));
    EXPECT_EQ(follower->Path(), folder.File(kSecond));
    Append(folder.File(kSecond), line(4));
    folder.Write(kThird, line(5));
    folder.Write("velmora-A-0-1(4)__2026-11-17-23-24.log", line(6));
    EXPECT_EQ(News(), line(4) + line(5) + line(6));
    folder.Write("velmora-A-0-2(9)__2026-11-17-23-24.log", line(7));
    EXPECT_EQ(News(), "");
}

TEST_F(Follower, KeepsUpWithAWriterThatRolls) {
    constexpr int kLines = 20000, kLinesPerFile = 1500;
    const auto name = [](int number) { return "velmora-A-0-1(" + std::to_string(number) + ")__2026-11-17-23-22.log"; };
    std::string expected;
    for (int i = 0; i < kLines; i++) expected += Entry("I", "f()", std::to_string(i));
    folder.Write(name(1), "");
    Start(name(1));
    std::thread writer([&] {
        for (int from = 0, number = 1; from < kLines; from += kLinesPerFile, number++) {
            std::ofstream file(folder.File(name(number)), std::ios::app);
            for (int i = from; i < std::min(from + kLinesPerFile, kLines); i++)
                file << Entry("I", "f()", std::to_string(i));
        }
    });
    std::string seenSoFar;
    while (seenSoFar.size() < expected.size() && expected.starts_with(seenSoFar)) seenSoFar += News();
    writer.join();
    EXPECT_TRUE(seenSoFar == expected) << seenSoFar.size() << " of " << expected.size();
}

// Beside the log that it is made for: a logger that writes and rolls while its files are followed.
TEST_F(Follower, KeepsUpWithALoggerLineByLine) {
    constexpr int kLines = 12000;
    const std::string filler(200, '.');
    const RCPtr<Logger> logger = LoggerManager::CreateLogger("LogViewTest", "LogViewTest", false);
    const RCPtr<LogWriter> writer = logger->AddWriter(kFileWriter);
    writer->SetProperty("folderPath", folder.path);
    writer->SetProperty("maxFileSizeMB", "1");
    writer->SetProperty("maxRollingFiles", "0");
    writer->SetProperty("diskThresholdLowMB", "0");
    writer->SetBuffering(false);
    ASSERT_TRUE(logger->Start());
    const std::string first = folder.Names()[0];
    filter = {kLogWarn, {}, "Writer", ""};
    Start(first);
    std::atomic<bool> written{false};
    std::thread thread([&] {
        for (int i = 0; i < kLines; i++) {
            logger->LogLine("void Writer::Run(int)", kLogWarn, "%s%d", filler.c_str(), i);
            if (i % 100 == 0) logger->LogLine("void Other::Run()", kLogInfo, "not this one");
        }
        logger->Stop();
        written.store(true);
    });
    for (bool last = false; !last;) {
        last = written.load();
        while (follower->Poll()) {
        }
    }
    thread.join();
    LoggerManager::Shutdown();
    EXPECT_NE(follower->Path(), folder.File(first));
    std::istringstream lines(output.Text());
    int next = 0;
    for (std::string line; std::getline(lines, line); next++) {
        ASSERT_TRUE(line.ends_with(" W Writer::Run(): " + filler + std::to_string(next))) << line;
    }
    EXPECT_EQ(next, kLines);
}

}  // namespace
