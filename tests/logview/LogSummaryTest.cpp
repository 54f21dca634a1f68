#include "tools/logview/LogSummary.h"

#include <gtest/gtest.h>

#include "tests/logview/ViewSupport.h"

namespace {

std::string Summary(std::string_view log, bool json, const RecordFilter& filter = {}) {
    CapturedOutput output;
    LogSummary summary(output.Target(), json);
    FeedAll(log, summary, filter);
    summary.Finish();
    return output.Text();
}

const std::string kLog = Entry("I", "A::Run()", "one") + "  continued\n" + Entry("W", "B::Run()", "two") +
                         kSeparatorLine + Entry("I", "B::Run()", "three") + kBannerLines;

TEST(LogSummary, CountsEntriesPerFunctionAndLevel) {
    EXPECT_EQ(Summary(kLog, false),
              "     WARN      INFO     TOTAL  FUNCTION\n"
              "        1         1         2  B::Run()\n"
              "        0         1         1  A::Run()\n"
              "        1         2         3  (all)\n"
              "notices: 1; from 2026-11-17 23:22:01.123 to 2026-11-17 23:22:01.123\n");
    EXPECT_EQ(Summary(kLog, true, {kLogWarn, {}, "", ""}),
              "{\"function\":\"B::Run()\",\"level\":\"WARN\",\"lines\":1}\n"
              "{\"total\":1,\"notices\":1,\"first\":\"2026-11-17 23:22:01.123\",\"last\":\"2026-11-17 "
              "23:22:01.123\"}\n");
    EXPECT_EQ(Summary("no log\n", false), "    TOTAL  FUNCTION\n        0  (all)\nnotices: 0\n");
}

TEST(LogSummary, BoundsTheNumberAndTheLengthOfNames) {
    std::string log = Entry("E", std::string(300, 'n'), "x");
    for (size_t i = 1; i < LogSummary::kMaxFunctions + 500; i++) log += Entry("E", "f" + std::to_string(i), "x");
    const std::string table = Summary(log + Entry("E", "f1", "x"), false);
    EXPECT_EQ(std::count(table.begin(), table.end(), '\n'), static_cast<long>(LogSummary::kMaxFunctions) + 4);
    EXPECT_NE(table.find("      500       500  (other functions)\n"), std::string::npos);
    EXPECT_NE(table.find("        2         2  f1\n"), std::string::npos);
    EXPECT_NE(table.find("  " + std::string(LogSummary::kMaxNameLength, 'n') + "\n"), std::string::npos);
}

}  // namespace
