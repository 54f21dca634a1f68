// usb-replay with several client processes at once, on the small capture that is shipped.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <set>

#include "standin/qscservice/ServiceEnd.h"
#include "tests/e2e/Account.h"
#include "tests/e2e/Program.h"

namespace {

using Args = std::vector<std::string>;
using nlohmann::json;

constexpr size_t kClients = 4;

// With enough work that no machine is through with it before it is stopped.
Args Endless(const Args& more) {
    Args args = {"--json", "--loop", "1000000", "--clients", std::to_string(kClients)};
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

// Nothing is left of a run: neither processes nor the folders of their sockets.
void ExpectGone(const std::vector<pid_t>& processes) {
    for (const auto& entry : std::filesystem::directory_iterator(std::getenv("TMPDIR"))) {
        const std::string name = entry.path().filename();
        EXPECT_FALSE(name.starts_with("usb-replay-") || name.starts_with("qscservice-")) << name;
    }
    for (const pid_t process : processes) EXPECT_TRUE(kill(process, 0) == -1 && errno == ESRCH) << process;
}

// The problems of the report that begin so, which are on standard error too.
size_t CountProblems(const ProgramResult& result, const std::string& begin) {
    const json report = result.Json();
    size_t count = 0;
    for (const std::string problem : report["problems"]) {
        EXPECT_NE(result.err.find("usb-replay: " + problem + "\n"), std::string::npos) << problem;
        if (problem.rfind(begin, 0) == 0) count++;
    }
    return count;
}

struct ClientsCase {
    uint64_t clients;
    Args more;
    uint64_t loops;
    uint64_t interruptEvery;
};

class ClientsReplay : public testing::TestWithParam<ClientsCase> {};

TEST_P(ClientsReplay, BringsTheMessagesOfEachThereAndBackAndSumsThemUp) {
    const ClientsCase& c = GetParam();
    Args args = {"--json", "--clients=" + std::to_string(c.clients), "--loop=" + std::to_string(c.loops)};
    if (c.interruptEvery > 0) args.push_back("--interrupt-every=" + std::to_string(c.interruptEvery));
    args.insert(args.end(), c.more.begin(), c.more.end());
    args.insert(args.end(), {"--", SOURCE_FOLDER "/captures/sample.pcap"});
    const ProgramResult result = RunProgram("usb-replay", args);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    const json report = result.Json();
    ExpectSoundAccount(report);
    EXPECT_EQ(report["clients"], c.clients);
    EXPECT_EQ(report["stopped_early"], false);
    ASSERT_EQ(report["captures"].size(), 1u);
    const json &capture = report["captures"][0], &sent = report["sent"];
    const uint64_t times = c.clients * c.loops;
    EXPECT_EQ(sent["post"], capture["control"].get<uint64_t>() * times);
    EXPECT_EQ(sent["fast"], (capture["iso"].get<uint64_t>() + capture["bulk"].get<uint64_t>()) * times);
    EXPECT_EQ(sent["hid"], capture["interrupt"].get<uint64_t>() * times);
    EXPECT_EQ(std::set<std::string>(report["logs"].begin(), report["logs"].end()).size(), c.clients);
    // Each client counts for itself how far it is from its next interruption.
    const uint64_t interruptions = c.interruptEvery > 0 ? Messages(sent) / c.clients / c.interruptEvery : 0;
    EXPECT_EQ(report["interruptions"], c.clients * interruptions);
    if (c.interruptEvery == 0) {
        EXPECT_EQ(report["agent"], sent);
        for (const char* kind : {"fast", "hid", "async"}) EXPECT_EQ(report["returned"][kind], sent[kind]) << kind;
    }
}

INSTANTIATE_TEST_SUITE_P(Options, ClientsReplay,
                         testing::Values(ClientsCase{1, {}, 3, 0}, ClientsCase{4, {}, 10, 0},
                                         ClientsCase{4, {"--transport=tcp"}, 10, 0},
                                         ClientsCase{16, {"--start-by-client"}, 3, 0},
                                         ClientsCase{16, {"--transport=tcp", "--threads=2"}, 3, 0},
                                         ClientsCase{1, {}, 5, 50}, ClientsCase{4, {"--threads=4"}, 5, 50},
                                         ClientsCase{4, {"--transport=tcp"}, 5, 50}, ClientsCase{16, {}, 3, 50},
                                         ClientsCase{2, {"--side-channel=tcp", "--threads=2"}, 10, 0},
                                         ClientsCase{4, {"--side-channel=virtual"}, 5, 50},
                                         ClientsCase{1, {"--agent-mode=single", "--side-channel=tcp"}, 5, 50},
                                         ClientsCase{1, {"--agent-mode=single"}, 3, 0},
                                         ClientsCase{4, {"--agent-mode", "single", "--threads=2"}, 5, 50},
                                         ClientsCase{16, {"--agent-mode", "single", "--transport=tcp"}, 3, 0}));

TEST(ClientsReplay, TellsAPersonHowManyTheyWere) {
    const ProgramResult result = RunProgram("usb-replay", {"--clients", "3"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out.rfind("OK: 3 clients, ", 0), 0u) << result.out;
    EXPECT_LE(std::count(result.out.begin(), result.out.end(), '\n'), 12) << result.out;
}

// One client in this process, against an agent that serves one at a time.
TEST(ClientsReplay, LeavesOneClientInItsOwnProcess) {
    for (const Args& more : {Args{}, {"--transport", "tcp"}, {"--interrupt-every", "50", "--loop", "5"}}) {
        Args args = {"--json", "--agent-mode", "single"};
        args.insert(args.end(), more.begin(), more.end());
        const ProgramResult result = RunProgram("usb-replay", args);
        EXPECT_EQ(result.status, 0) << result.err;
        ExpectSoundAccount(result.Json());
        EXPECT_EQ(result.Json()["clients"], 1);
    }
}

TEST(ClientsReplay, GoesOnWithoutAClientThatIsKilledAndNamesIt) {
    for (const Args& more : {Args{}, {"--agent-mode", "single", "--transport", "tcp"}, {"--interrupt-every", "50"}}) {
        Program program("usb-replay", Endless(more));
        std::vector<pid_t> clients = program.WaitForBusyChildren("usb-replay", kClients);
        const std::vector<pid_t> agents = program.WaitForBusyChildren("usb-agent", 1);
        ASSERT_EQ(clients.size(), kClients);
        kill(clients[1], SIGKILL);
        AwaitEnd(clients[1]);
        kill(program.Pid(), SIGINT);
        const ProgramResult result = program.Finish();
        EXPECT_EQ(result.status, 1);
        const json report = result.Json();
        EXPECT_EQ(report["ok"], false);
        EXPECT_EQ(report["problems"].size(), 1u) << report["problems"].dump(2);
        EXPECT_EQ(CountProblems(result, "client 2: its process was killed by signal 9"), 1u) << result.err;
        EXPECT_EQ(report["lost"].get<uint64_t>() + report["mismatched"].get<uint64_t>(), 0u);
        EXPECT_EQ(report["stopped_early"], true);
        EXPECT_GT(Messages(report["sent"]), 0u);
        ExpectGone(clients);
        ExpectGone(agents);
    }
}

TEST(ClientsReplay, EndsWithALineForEachClientWhenTheAgentDies) {
    for (const Args& more : {Args{}, {"--transport", "tcp", "--threads", "2"}, {"--interrupt-every", "50"}}) {
        Program program("usb-replay", Endless(more));
        const std::vector<pid_t> clients = program.WaitForBusyChildren("usb-replay", kClients);
        const std::vector<pid_t> agents = program.WaitForBusyChildren("usb-agent", 1);
        ASSERT_EQ(clients.size(), kClients);
        ASSERT_EQ(agents.size(), 1u);
        kill(agents[0], SIGKILL);
        const ProgramResult result = program.Finish();
        EXPECT_EQ(result.status, 1);
        for (size_t i = 1; i <= kClients; i++)
            EXPECT_EQ(CountProblems(result, "client " + std::to_string(i) + ": "), 1u) << result.err;
        EXPECT_EQ(CountProblems(result, "the agent was killed by signal 9"), 1u) << result.err;
        ExpectGone(clients);
        ExpectGone(agents);
    }
}

TEST(ClientsReplay, LosesOnlyTheClientOfAnAgentThatDies) {
    Program program("usb-replay", Endless({"--agent-mode", "single"}));
    const std::vector<pid_t> clients = program.WaitForBusyChildren("usb-replay", kClients);
    const std::vector<pid_t> agents = program.WaitForBusyChildren("usb-agent", kClients);
    ASSERT_EQ(agents.size(), kClients);
    kill(agents[2], SIGKILL);
    AwaitEnd(clients[2]);
    kill(program.Pid(), SIGINT);
    const ProgramResult result = program.Finish();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(CountProblems(result, "client 3: the agent was killed by signal 9"), 1u) << result.err;
    EXPECT_EQ(CountProblems(result, "client 3: the agent went away "), 1u) << result.err;
    EXPECT_EQ(CountProblems(result, ""), 2u) << result.err;
    ExpectGone(clients);
    ExpectGone(agents);
}

TEST(ClientsReplay, EndsInOrderOnASignal) {
    for (const Args& more : {Args{}, {"--interrupt-every", "50", "--threads", "2"}, {"--agent-mode", "single"}}) {
        Program program("usb-replay", Endless(more));
        const std::vector<pid_t> clients = program.WaitForBusyChildren("usb-replay", kClients);
        kill(program.Pid(), SIGINT);
        const ProgramResult result = program.Finish();
        EXPECT_EQ(result.status, 0) << result.err << result.out;
        ExpectSoundAccount(result.Json());
        EXPECT_EQ(result.Json()["stopped_early"], true);
        ExpectGone(clients);
    }
}

TEST(ClientsReplay, EndsAllProcessesWithItself) {
    for (const Args& more : {Args{}, {"--agent-mode", "single"}}) {
        Program program("usb-replay", Endless(more));
        std::vector<pid_t> processes = program.WaitForBusyChildren("usb-replay", kClients);
        const std::vector<pid_t> agents = program.WaitForBusyChildren("usb-agent", 1);
        ASSERT_EQ(processes.size(), kClients);
        processes.insert(processes.end(), agents.begin(), agents.end());
        kill(program.Pid(), SIGKILL);
        for (const pid_t process : processes) AwaitEnd(process);
        program.Finish();
        for (const pid_t process : processes) EXPECT_TRUE(ArgumentsOf(process).empty()) << process;
    }
}

// However early it comes: a client can't handle the signal yet when it starts.
TEST(ClientsReplay, EndsInOrderOnASignalBeforeTheStart) {
    Program program("usb-replay", Endless({}));
    ASSERT_GT(program.WaitForChild("usb-replay"), 0);
    kill(program.Pid(), SIGINT);
    const ProgramResult result = program.Finish();
    EXPECT_EQ(result.status, 0) << result.err << result.out;
    EXPECT_EQ(result.Json()["problems"], json::array());
    EXPECT_EQ(result.Json()["stopped_early"], true);
}

// Two posts of the filter status that no client accounts for.
TEST(ClientsReplay, FindsWhatTheAgentDidForAnyoneElse) {
    Program program("usb-replay", Endless({}));
    const std::vector<pid_t> clients = program.WaitForBusyChildren("usb-replay", kClients);
    ASSERT_EQ(clients.size(), kClients);
    const Args args = ArgumentsOf(clients[0]);
    const auto option = std::find(args.begin(), args.end(), "--agent");
    ASSERT_LT(option + 1, args.end());
    std::atomic<int> heard{0};
    {
        qscservice::ServiceEnd::Options options;
        options.channel.role = qscservice::Role::Client;
        qscservice::ServiceEnd stranger({.onReady = {},
                                         .onNotReady = {},
                                         .onMessage =
                                             [&heard](qscservice::InboundMessage&) {
                                                 heard++;
                                                 heard.notify_one();
                                             },
                                         .onDone = {},
                                         .onAbort = {}},
                                        options);
        std::string error;
        ASSERT_TRUE(stranger.Channel().Dial(option[1], &error)) << error;
        ASSERT_TRUE(stranger.WaitReady(10000));
        for (int count = heard; count < 2; count = heard) heard.wait(count);
    }
    kill(program.Pid(), SIGINT);
    const ProgramResult result = program.Finish();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.Json()["ok"], false);
    EXPECT_EQ(CountProblems(result, "the agent counts {"), 1u) << result.err;
    EXPECT_EQ(CountProblems(result, ""), 1u) << result.err;
}

}  // namespace
