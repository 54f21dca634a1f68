// Several replays in one process: the plug-in is loaded, run and unloaded each time, and nothing of one shows in the
// next.
#include "tools/replay/ReplaySession.h"

#include <gtest/gtest.h>

#include "tools/replay/Layout.h"

namespace {

TEST(Session, RepeatsInOneProcess) {
    std::string error;
    const auto capture = UsbCapture::Read(SampleCapturePath(), &error);
    ASSERT_TRUE(capture) << error;
    const std::atomic<bool> stop{false};
    ReplayOptions options;
    for (const uint32_t interruptEvery : {0u, 30u, 0u}) {
        options.interruptEvery = interruptEvery;
        options.startByClient = !options.startByClient;
        ReplayReport report;
        ReplaySession session(options, {*capture}, stop, nullptr);
        ASSERT_TRUE(session.Run(&report, &error)) << error;
        EXPECT_TRUE(report.Ok()) << ReportAsJson(report);
        EXPECT_EQ(report.sent.Messages() - report.sent.async, capture->Records().size());
        EXPECT_EQ(report.interruptions, interruptEvery ? report.sent.Messages() / interruptEvery : 0);
    }
}

TEST(Session, StopsBeforeItHasBegun) {
    std::string error;
    const auto capture = UsbCapture::Read(SampleCapturePath(), &error);
    ASSERT_TRUE(capture) << error;
    const std::atomic<bool> stop{true};
    ReplayOptions options;
    options.loop = 1000000;
    ReplayReport report;
    ReplaySession session(options, {*capture}, stop, nullptr);
    ASSERT_TRUE(session.Run(&report, &error)) << error;
    EXPECT_TRUE(report.Ok()) << ReportAsJson(report);
    EXPECT_TRUE(report.stoppedEarly);
}

}  // namespace
