#include "tools/replay/Report.h"

#include <gtest/gtest.h>

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
    report.sent = report.agent = {28, 1210, 0, 1, 3500000};
    report.returned = {0, 1210, 0, 1, 3499000};
    report.seconds = 0.5;
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

}  // namespace
