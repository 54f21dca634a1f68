#include "tools/replay/Report.h"

#include <gtest/gtest.h>

#include "standin/usbd/LatencyHistogram.h"

namespace {

TEST(Account, ExplainsEveryMessageOrCallsItLost) {
    struct Case {
        const char* what;
        uint64_t attempted, refused, cut, arrived;
        bool fell;
        Shortfall expected;
        bool contradicts;
    };
    for (const Case& c : {
             Case{"all arrived", 10, 0, 0, 10, false, {0, 0, 0}, false},
             {"one vanished", 10, 0, 0, 9, false, {0, 0, 1}, false},
             {"a fall explains refusals and cuts", 10, 2, 3, 5, true, {2, 3, 0}, false},
             {"a fall does not explain the rest", 10, 2, 3, 4, true, {2, 3, 1}, false},
             {"without a fall nothing may be refused or cut", 10, 2, 1, 7, false, {0, 0, 3}, false},
             {"more arrived than was sent", 10, 0, 0, 11, false, {0, 0, 0}, true},
         }) {
        std::vector<std::string> problems;
        const Shortfall got = Account("outbound", c.attempted, c.refused, c.cut, c.arrived, c.fell, &problems);
        EXPECT_EQ(got.refused, c.expected.refused) << c.what;
        EXPECT_EQ(got.cut, c.expected.cut) << c.what;
        EXPECT_EQ(got.lost, c.expected.lost) << c.what;
        EXPECT_EQ(!problems.empty(), c.contradicts) << c.what;
    }
}

ReplayReport GoodReport() {
    ReplayReport report;
    report.captures = {{"/some/where/storage.pcap", 1238, 0, 0, 28, 1210}};
    report.sent = report.agent.received = {28, 1210, 0, 1, 3500000};
    report.returned = {0, 1210, 0, 1, 3499000};
    report.seconds = 0.5;
    report.messagesPerSecond = 2478;
    return report;
}

TEST(Report, IsOkOnlyWithoutLossChangeAndProblem) {
    EXPECT_TRUE(GoodReport().Ok());
    for (void (*spoil)(ReplayReport&) : {
             +[](ReplayReport& report) { report.outbound.lost = 1; },
             +[](ReplayReport& report) { report.returning.lost = 1; },
             +[](ReplayReport& report) { report.mismatched = 1; },
             +[](ReplayReport& report) { report.problems.push_back("the agent was killed by signal 9"); },
         }) {
        ReplayReport report = GoodReport();
        spoil(report);
        EXPECT_FALSE(report.Ok());
        EXPECT_EQ(nlohmann::json::parse(ReportAsJson(report))["ok"], false);
        EXPECT_EQ(ReportAsText(report).rfind("FAILED", 0), 0u);
    }
}

TEST(Report, TellsAPersonTheVerdictAndTheFiguresAtAGlance) {
    ReplayReport report = GoodReport();
    const std::string text = ReportAsText(report);
    EXPECT_EQ(text.substr(0, text.find('\n')),
              "OK: 1,239 messages in 0.50 s (2478 a second), nothing lost, nothing changed on the way");
    EXPECT_NE(text.find("storage.pcap"), std::string::npos);
    EXPECT_EQ(text.find("/some/where"), std::string::npos);
    EXPECT_EQ(text.find("interruption"), std::string::npos);
    report.interruptions = 1;
    report.outbound.refused = 12345;
    EXPECT_NE(ReportAsText(report).find("12,345 refused"), std::string::npos);
    EXPECT_NE(ReportAsText(report).find("1 interruption\n"), std::string::npos);
}

TEST(Report, SurvivesAFileNameThatIsNoText) {
    ReplayReport report = GoodReport();
    report.captures[0].file = "\xff\xfe.pcap";
    EXPECT_EQ(nlohmann::json::parse(ReportAsJson(report))["captures"][0]["records"], 1238);
}

// Percentiles of several clients are those of one that had all their messages.
TEST(Report, SumsUpClientsAsIfTheyWereOne) {
    usbd::LatencyHistogram together;
    ReplayReport sum;
    for (const uint64_t samples : {2000u, 30u, 700u}) {
        usbd::LatencyHistogram own;
        for (uint64_t sample = 0; sample < samples; sample++) {
            own.Add(samples * sample);
            together.Add(samples * sample);
        }
        ReplayReport client = GoodReport();
        client.fastLatency = own.Read();
        client.returning = {1, 20, 300};
        client.interruptions = samples;
        client.stoppedEarly = samples == 30;
        client.seconds = static_cast<double>(samples);
        client.agent.repliesAccepted = 1211;
        client.agent.greeted = true;
        AddFigures(nlohmann::json::parse(nlohmann::json(client).dump()).get<ReplayReport>(), &sum);
    }
    const UsbReplayLatency all = together.Read();
    EXPECT_EQ(sum.fastLatency.samples, 2730u);
    EXPECT_EQ(sum.fastLatency.p50Ns, all.p50Ns);
    EXPECT_EQ(sum.fastLatency.p99Ns, all.p99Ns);
    EXPECT_EQ(sum.fastLatency.maxNs, all.maxNs);
    EXPECT_EQ(sum.Latency().p99, static_cast<double>(all.p99Ns) / 1000);
    EXPECT_EQ(sum.sent, (KindCounts{84, 3630, 0, 3, 10500000}));
    EXPECT_EQ(sum.agent.received, sum.sent);
    EXPECT_EQ(sum.agent.repliesAccepted, 3633u);
    EXPECT_EQ(sum.returned, (KindCounts{0, 3630, 0, 3, 10497000}));
    EXPECT_EQ(sum.returning.refused + sum.returning.cut + sum.returning.lost, 963u);
    EXPECT_EQ(sum.interruptions, 2730u);
    EXPECT_TRUE(sum.stoppedEarly && sum.agent.greeted);
    EXPECT_EQ(sum.seconds, 2000);
    EXPECT_EQ(sum.messagesPerSecond, 3717.0 / 2000);
}

}  // namespace
