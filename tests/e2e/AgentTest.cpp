// usb-agent on its own: what it prints of its sessions, and its control socket.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <span>
#include <string>

#include "standin/qscservice/ServiceEnd.h"
#include "tests/e2e/Account.h"
#include "tests/e2e/Program.h"

namespace {

using nlohmann::json;
using qscservice::Fd;

// Where the agent says that it listens.
std::string AddressOf(Program& agent) {
    return json::parse(agent.ReadUntil("}"), nullptr, false).value("listening", "");
}

// A client that is up.
std::unique_ptr<qscservice::ServiceEnd> Connect(const std::string& address) {
    qscservice::ServiceEnd::Options options;
    options.channel.role = qscservice::Role::Client;
    auto client = std::make_unique<qscservice::ServiceEnd>(qscservice::ServiceEnd::Handlers{}, options);
    std::string error;
    EXPECT_TRUE(client->Channel().Dial(address, &error)) << error;
    EXPECT_TRUE(client->WaitReady(10000));
    return client;
}

TEST(AgentProgram, PrintsItsSessionsAsLinesOfJson) {
    Program agent("usb-agent", {"--listen", "unix:", "--stats", "--json"});
    const std::string address = AddressOf(agent);
    agent.ReadUntil("\n");
    const auto first = Connect(address), second = Connect(address);
    const uint8_t bytes[200] = {};
    for (int i = 0; i < 3; i++) {
        ASSERT_TRUE(first->Post(1, {std::span<const uint8_t>(bytes)}));
    }
    json line;
    for (uint64_t messages = 0; messages < 3;) {
        line = json::parse(agent.ReadUntil("\n"), nullptr, false);
        ASSERT_TRUE(line.is_object());
        messages = 0;
        for (const json& session : line["sessions"]) messages += session["received"].get<uint64_t>();
    }
    ASSERT_EQ(line["sessions"].size(), 2u);
    json &one = line["sessions"][0], &other = line["sessions"][1];
    if (one["received"] == 0) std::swap(one, other);
    EXPECT_EQ(one["received"], 3);
    EXPECT_EQ(one["bytes"], 600);
    EXPECT_EQ(one["replies"], 5);  // with the two filter messages
    EXPECT_GT(one["rate"], 0.0);
    EXPECT_GE(one["seconds"], one["idleSeconds"]);
    EXPECT_EQ(other["received"], 0);
    for (const json& session : line["sessions"]) {
        EXPECT_EQ(session["ready"], true);
        EXPECT_EQ(session["pending"], 0);
        EXPECT_EQ(session["client"].get<std::string>().size(), 16u);
    }
    EXPECT_NE(one["id"], other["id"]);
    kill(agent.Pid(), SIGTERM);
    const ProgramResult result = agent.Finish();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("\"fast\":3"), std::string::npos) << result.out;
}

TEST(AgentProgram, RefreshesItsTableInPlaceWithinTheTerminal) {
    Program agent("usb-agent", {"--listen", "unix:", "--stats"}, 4);
    const std::string address = AddressOf(agent);
    const std::string head = agent.ReadUntil("IDLE S\r\n");
    EXPECT_NE(head.find("CLIENT"), std::string::npos) << head;
    const auto first = Connect(address), second = Connect(address), third = Connect(address);
    // Over the head line alone, then over that and the sessions'.
    EXPECT_EQ(agent.ReadUntil("... 3 sessions in all\r\n").rfind("\x1b[1A\x1b[J", 0), 0u);
    EXPECT_EQ(agent.ReadUntil("... 3 sessions in all\r\n").rfind("\x1b[3A\x1b[JCLIENT", 0), 0u);
    kill(agent.Pid(), SIGTERM);
    EXPECT_EQ(agent.Finish().status, 0);
}

// A connection to the agent's control socket.
class ControlClient {
public:
    explicit ControlClient(const std::string& path) : socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }

    bool Write(const std::string& text) {
        return send(socket.Get(), text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
    }

    // A line without its end; empty if the agent hangs up.
    std::string ReadLine() {
        std::string line;
        for (char c; recv(socket.Get(), &c, 1, 0) == 1 && c != '\n';) line += c;
        return line;
    }

private:
    Fd socket;
};

TEST(AgentProgram, AnswersEachConnectionOfItsControlSocket) {
    const std::string path = std::string(std::getenv("TMPDIR")) + "/control";
    Program agent("usb-agent", {"--listen", "unix:", "--control-at", path});
    const auto client = Connect(AddressOf(agent));
    ControlClient control(path), other(path);
    ASSERT_TRUE(control.Write("coun"));
    uint64_t replies = 0;
    while (replies < 2) {  // the filter messages, which the agent counts when it has sent them
        ASSERT_TRUE(other.Write("counts\n"));
        replies = json::parse(other.ReadLine())["repliesAccepted"];
    }
    EXPECT_EQ(replies, 2u);
    ASSERT_TRUE(control.Write("ts\ncounts 1\n"));
    EXPECT_EQ(json::parse(control.ReadLine())["greeted"], true);
    EXPECT_EQ(json::parse(control.ReadLine())["greeted"], false);
    // What is no request ends its connection only.
    for (const std::string& text :
         {std::string("count\n"), std::string("counts \n"), std::string("counts 0\n"), std::string("counts 1x\n"),
          std::string("counts 11111111111111111\n"), std::string("\n"), std::string(5000, 'c')}) {
        ControlClient stranger(path);
        stranger.Write(text);
        EXPECT_EQ(stranger.ReadLine(), "") << text;
    }
    ASSERT_TRUE(other.Write("counts\n"));
    EXPECT_TRUE(json::parse(other.ReadLine()).contains("received"));
    kill(agent.Pid(), SIGTERM);
    EXPECT_EQ(agent.Finish().status, 0);
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

// A replay against an agent that runs already leaves it running.
TEST(AgentProgram, OutlivesTheReplaysThatComeToIt) {
    const std::string path = std::string(std::getenv("TMPDIR")) + "/control";
    Program agent("usb-agent", {"--listen", "tcp:127.0.0.1:0", "--side-channel", "virtual", "--control-at", path});
    const std::string address = AddressOf(agent);
    ControlClient control(path);
    uint64_t received = 0;
    for (const std::vector<std::string>& more : {std::vector<std::string>{}, {"--clients", "3"}, {"--threads", "2"}}) {
        std::vector<std::string> args = {"--json", "--agent", address, "--agent-control", path};
        args.insert(args.end(), more.begin(), more.end());
        const ProgramResult result = RunProgram("usb-replay", args);
        EXPECT_EQ(result.status, 0) << result.err;
        ExpectSoundAccount(result.Json());
        received += Messages(result.Json()["agent"]);
        ASSERT_TRUE(control.Write("counts\n"));
        EXPECT_EQ(Messages(json::parse(control.ReadLine())["received"]), received);
    }
    kill(agent.Pid(), SIGTERM);
    EXPECT_EQ(agent.Finish().status, 0);
}

// One that asks and never reads is dropped, and doesn't keep the others waiting.
TEST(AgentProgram, DropsAControlConnectionThatDoesNotRead) {
    const std::string path = std::string(std::getenv("TMPDIR")) + "/control";
    Program agent("usb-agent", {"--listen", "unix:", "--control-at", path});
    AddressOf(agent);
    ControlClient deaf(path), control(path);
    while (deaf.Write("counts\n")) {
    }
    ASSERT_TRUE(control.Write("counts\n"));
    EXPECT_NE(control.ReadLine(), "");
    kill(agent.Pid(), SIGTERM);
    EXPECT_EQ(agent.Finish().status, 0);
}

}  // namespace
