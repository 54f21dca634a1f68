// usb-replay as a person runs it, on the small capture that is shipped.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/e2e/Account.h"
#include "tests/e2e/Program.h"

namespace {

using Args = std::vector<std::string>;
using nlohmann::json;

struct PlainCase {
    Args args;
    uint64_t loops;
};

class PlainReplay : public testing::TestWithParam<PlainCase> {};

TEST_P(PlainReplay, BringsEveryRecordThereAndBack) {
    const ProgramResult result = RunProgram("usb-replay", GetParam().args);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    const json report = result.Json();
    ExpectSoundAccount(report);
    ASSERT_EQ(report["captures"].size(), 1u);
    const json& capture = report["captures"][0];
    EXPECT_EQ(capture["file"].get<std::string>().substr(capture["file"].get<std::string>().rfind('/')), "/sample.pcap");
    EXPECT_GT(capture["records"], 0);
    EXPECT_EQ(capture["records"], capture["iso"].get<uint64_t>() + capture["interrupt"].get<uint64_t>() +
                                      capture["control"].get<uint64_t>() + capture["bulk"].get<uint64_t>());
    const json& sent = report["sent"];
    EXPECT_EQ(sent["post"], capture["control"].get<uint64_t>() * GetParam().loops);
    EXPECT_EQ(sent["fast"], (capture["iso"].get<uint64_t>() + capture["bulk"].get<uint64_t>()) * GetParam().loops);
    EXPECT_EQ(sent["hid"], capture["interrupt"].get<uint64_t>() * GetParam().loops);
    EXPECT_EQ(report["agent"], sent);
    EXPECT_EQ(report["returned"]["post"], 0);
    for (const char* kind : {"fast", "hid", "async"}) {
        EXPECT_GT(sent[kind], 0) << kind;
        EXPECT_EQ(report["returned"][kind], sent[kind]) << kind;
    }
    EXPECT_EQ(report["refused"].get<uint64_t>() + report["cut"].get<uint64_t>(), 0u);
    EXPECT_EQ(report["interruptions"], 0);
    EXPECT_GT(report["latency_us"]["p50"], 0);
    EXPECT_EQ(report["stopped_early"], false);
    EXPECT_NEAR(report["messages_per_second"].get<double>() * report["seconds"].get<double>(),
                static_cast<double>(Messages(sent)), 1);
}

INSTANTIATE_TEST_SUITE_P(Options, PlainReplay,
                         testing::Values(PlainCase{{"--json"}, 1},
                                         PlainCase{{"--json", SOURCE_FOLDER "/captures/sample.pcap"}, 1},
                                         PlainCase{{"--json", "--threads", "4", "--loop", "10"}, 10},
                                         PlainCase{{"--json", "--transport", "tcp", "--loop", "5"}, 5},
                                         PlainCase{{"--json", "--transport", "tcp", "--threads", "4"}, 1},
                                         PlainCase{{"--json", "--start-by-client"}, 1},
                                         PlainCase{{"--json", "--timed"}, 1}));

class InterruptedReplay : public testing::TestWithParam<Args> {};

TEST_P(InterruptedReplay, AccountsForEveryMessageAndRecoversEachTime) {
    Args args = {"--json", "--interrupt-every", "50", "--loop", "10"};
    args.insert(args.end(), GetParam().begin(), GetParam().end());
    const ProgramResult result = RunProgram("usb-replay", args);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    const json report = result.Json();
    ExpectSoundAccount(report);
    EXPECT_EQ(report["interruptions"], Messages(report["sent"]) / 50);
    EXPECT_GT(report["interruptions"], 5);
}

INSTANTIATE_TEST_SUITE_P(Options, InterruptedReplay,
                         testing::Values(Args{}, Args{"--threads", "4"}, Args{"--transport", "tcp"},
                                         Args{"--transport", "tcp", "--threads", "4"}));

TEST(Replay, TellsAPersonTheResultInAFewLines) {
    const ProgramResult result = RunProgram("usb-replay", {});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out.rfind("OK: ", 0), 0u) << result.out;
    EXPECT_LE(std::count(result.out.begin(), result.out.end(), '\n'), 12) << result.out;
}

// usb-replay names the plug-in's log and writes one of its own with settings that change while it runs.
TEST(Replay, LeavesTheLogsThatItIsAskedFor) {
    namespace fs = std::filesystem;
    const fs::path folder = fs::path(std::getenv("TMPDIR")) / "own";
    fs::create_directories(folder);
    const fs::path settings = folder / "settings";
    const std::string section = "UsbReplay.usb-replay.";
    std::ofstream(settings) << section << "logEnabled = true\n"
                            << section << "logLevel = DEBUG\n"
                            << section << "logDirectory = " << folder.string() << "\n";
    const ProgramResult result =
        RunProgram("usb-replay", {"--json", "--interrupt-every", "20", "--log-config", settings.string()});
    ASSERT_EQ(result.status, 0) << result.err;
    const std::string pluginLog = result.Json()["log"];
    EXPECT_EQ(fs::path(pluginLog).parent_path(), fs::path(std::getenv("TMPDIR")) / "corvex-tester");
    const auto read = [](const fs::path& path) {
        std::ifstream file(path);
        return std::string(std::istreambuf_iterator<char>(file), {});
    };
    EXPECT_NE(read(pluginLog).find("Transport is ready now."), std::string::npos);
    EXPECT_NE(read(pluginLog).find("*** LOG FILE COMPLETE ***"), std::string::npos);
    std::string own;
    for (const auto& entry : fs::directory_iterator(folder)) {
        if (entry.path().extension() == ".log") own += read(entry.path());
    }
    EXPECT_NE(own.find(" D ReplaySession::"), std::string::npos) << own;
    EXPECT_NE(own.find("0 messages lost, 0 changed on the way"), std::string::npos) << own;

    const ProgramResult refused = RunProgram("usb-replay", {"--log-config", (folder / "missing").string()});
    EXPECT_EQ(refused.status, 2);
    EXPECT_NE(refused.err.find("missing: No such file or directory"), std::string::npos) << refused.err;
}

TEST(Replay, PrintsHelpAndVersion) {
    EXPECT_EQ(RunProgram("usb-replay", {"--help"}).out.rfind("Usage: usb-replay", 0), 0u);
    const ProgramResult version = RunProgram("usb-replay", {"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out.rfind("usb-replay ", 0), 0u);
}

// Enough work that no machine is through with it before the signal comes.
const Args kEndless = {"--json", "--loop", "1000000"};

Args Endless(const Args& more) {
    Args args = kEndless;
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

TEST(Replay, EndsWithAClearLineWhenTheAgentDies) {
    for (const Args& more : {Args{}, {"--threads", "4"}, {"--interrupt-every", "50"}, {"--transport", "tcp"}}) {
        Program program("usb-replay", Endless(more));
        const pid_t agent = program.WaitForBusyChild("usb-agent");
        ASSERT_GT(agent, 0);
        kill(agent, SIGKILL);
        const ProgramResult result = program.Finish();
        EXPECT_EQ(result.status, 1) << result.err;
        EXPECT_NE(result.err.find("was killed by signal 9"), std::string::npos) << result.err;
        // On a slow machine the agent may have been busy with its own start alone; then there is nothing to report.
        EXPECT_TRUE(result.out.empty() || result.Json()["ok"] == false) << result.out;
    }
}

TEST(Replay, EndsInOrderOnASignal) {
    for (const Args& more : {Args{}, {"--threads", "4"}, {"--interrupt-every", "50", "--threads", "2"}, {"--timed"}}) {
        Program program("usb-replay", Endless(more));
        // At the capture's own pace the agent may take long to use its first tick of time.
        ASSERT_GT(more == Args{"--timed"} ? program.WaitForChild("usb-agent") : program.WaitForBusyChild("usb-agent"),
                  0);
        kill(program.Pid(), SIGINT);
        const ProgramResult result = program.Finish();
        EXPECT_EQ(result.status, 0) << result.err << result.out;
        const json report = result.Json();
        EXPECT_EQ(report["stopped_early"], true);
        EXPECT_EQ(report["lost"], 0);
        EXPECT_EQ(report["mismatched"], 0);
    }
}

}  // namespace
