// log-view beside the log that it is made for: a logger that writes and rolls while its files are followed.
#include <gtest/gtest.h>

#include <thread>

#include "logging/LogWriter.h"
#include "logging/Logger.h"
#include "logging/LoggerManager.h"
#include "tests/logview/ViewSupport.h"
#include "tools/logview/LogFollower.h"

namespace {

constexpr int kLines = 12000;
const std::string kFiller(200, '.');

// Sees that none of the test's lines, which carry running numbers, is missing, repeated or cut.
class SequenceCheck : public RecordSink {
public:
    void Take(const LogRecord& record) override {
        if (record.line.function != "Writer::Run()") return;
        inOrder = inOrder && record.line.text == kFiller + std::to_string(next) && record.line.level == kLogWarn;
        next++;
    }
    int next = 0;
    bool inOrder = true;
};

TEST(RealLog, IsFollowedAcrossItsRollsLineByLine) {
    const TempFolder folder;
    const RCPtr<Logger> logger = LoggerManager::CreateLogger("LogViewTest", "LogViewTest", false);
    ASSERT_TRUE(logger);
    const RCPtr<LogWriter> writer = logger->AddWriter(kFileWriter);
    writer->SetProperty("folderPath", folder.path);
    writer->SetProperty("maxFileSizeMB", "1");
    writer->SetProperty("maxRollingFiles", "0");
    writer->SetProperty("diskThresholdLowMB", "0");
    writer->SetBuffering(false);
    ASSERT_TRUE(logger->Start());
    const std::string first = folder.File(folder.Names()[0]);

    const RecordFilter filter{kLogWarn, {}, "Writer", ""};
    SequenceCheck check;
    std::atomic<bool> stop{false}, written{false};
    LogFollower follower(first, filter, check, stop);
    std::thread thread([&] {
        for (int i = 0; i < kLines; i++) {
            logger->LogLine("void Writer::Run(int)", kLogWarn, "%s%d", kFiller.c_str(), i);
            if (i % 100 == 0) logger->LogLine("void Other::Run()", kLogInfo, "not this one");
        }
        logger->Stop();
        written.store(true);
    });
    for (bool last = false; !last;) {
        last = written.load();
        while (follower.Poll()) {
        }
    }
    thread.join();
    EXPECT_EQ(check.next, kLines);
    EXPECT_TRUE(check.inOrder);
    EXPECT_NE(follower.Path(), first);
    LoggerManager::Shutdown();
}

}  // namespace
