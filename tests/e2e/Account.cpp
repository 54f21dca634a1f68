#include "tests/e2e/Account.h"

#include <gtest/gtest.h>

using nlohmann::json;

uint64_t Messages(const json& counts) {
    return counts["post"].get<uint64_t>() + counts["fast"].get<uint64_t>() + counts["hid"].get<uint64_t>() +
           counts["async"].get<uint64_t>();
}

void ExpectSoundAccount(const json& report) {
    ASSERT_TRUE(report.is_object());
    EXPECT_EQ(report["ok"], true) << report.dump(2);
    EXPECT_EQ(report["lost"], 0);
    EXPECT_EQ(report["mismatched"], 0);
    EXPECT_EQ(report["problems"], json::array());
    EXPECT_EQ(Messages(report["sent"]),
              Messages(report["agent"]) + report["refused"].get<uint64_t>() + report["cut"].get<uint64_t>());
    // Of the way back the two filter messages that each client gets are not among the counts.
    const uint64_t filters = 2 * report["clients"].get<uint64_t>();
    const json &agent = report["agent"], &returned = report["returned"];
    const uint64_t answered = Messages(agent) - agent["post"].get<uint64_t>();
    const uint64_t missing = report["refused_returning"].get<uint64_t>() + report["cut_returning"].get<uint64_t>();
    EXPECT_GE(answered, Messages(returned));
    EXPECT_LE(answered - Messages(returned), missing);
    EXPECT_LE(missing, answered - Messages(returned) + filters);
    const json& latency = report["latency_us"];
    EXPECT_LE(latency["p50"], latency["p99"]);
    EXPECT_LE(latency["p99"], latency["max"]);
    EXPECT_GT(report["seconds"], 0);
    EXPECT_GT(report["messages_per_second"], 0);
    EXPECT_EQ(report["logs"].size(), report["clients"]);
    EXPECT_EQ(report["log"], report["logs"][0]);
}
