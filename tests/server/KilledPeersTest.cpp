// Peers that die at any moment. The other side tears down in order, serves the rest, and holds nothing of theirs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "standin/qscservice/ScriptedService.h"
#include "standin/qscservice/Server.h"
#include "standin/qscservice/ServiceEnd.h"
#include "standin/qscservice/ServiceTables.h"
#include "tests/server/Ends.h"
#include "tests/support/LogCapture.h"

extern char** environ;

namespace {

using namespace qscservice;

constexpr int kKills = 50;
constexpr int kSteadyClients = 3;
constexpr uint32_t kWaitMS = 20000;
constexpr int kMaxOpen = 32;  // requests

class Process {
public:
    explicit Process(const Texts& command) {
        std::vector<char*> args;
        for (const std::string& text : command) args.push_back(const_cast<char*>(text.c_str()));
        args.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        EXPECT_EQ(posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
    }
    ~Process() { Kill(); }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    void Kill() {
        if (pid <= 0) return;
        kill(pid, SIGKILL);
        waitpid(std::exchange(pid, -1), nullptr, 0);
    }

private:
    pid_t pid = -1;
};

// A client that asks and waits for the answer.
class SteadyClient {
public:
    explicit SteadyClient(const std::string& address) : end(Handlers(), ClientOptions()) {
        std::string error;
        EXPECT_TRUE(end.Channel().Dial(address, &error)) << error;
        EXPECT_TRUE(end.WaitReady(kWaitMS));
    }
    bool IsServed() {
        const uint32_t number = ++asked;
        return end.Request(2, {Value(number)}).has_value() && events.WaitFor("answer " + std::to_string(number));
    }

private:
    static ServiceEnd::Options ClientOptions() {
        ServiceEnd::Options options;
        options.channel.role = Role::Client;
        return options;
    }
    ServiceEnd::Handlers Handlers() {
        return {.onReady = {},
                .onNotReady = {},
                .onMessage = {},
                .onDone =
                    [this](uint32_t, InboundMessage& answer) {
                        const auto value = answer.ReturnValue(0);
                        if (value) events.Add("answer " + std::to_string(value->number));
                    },
                .onAbort = {}};
    }

    Events events;
    uint32_t asked = 0;
    ServiceEnd end;
};

// The events of a connection come in this order, and none twice; a peer may die ahead of some.
void ExpectInOrder(const Texts& events, const std::string& name) {
    const Texts order = {"connected", "created",      "ready",     "has its messages",
                         "not ready", "disconnected", "destroyed", "gone"};
    size_t at = 0;
    Texts seen;
    for (const std::string& event : events) {
        if (!event.starts_with(name + " ")) continue;
        const std::string what = event.substr(name.size() + 1);
        seen.push_back(what);
        while (at < order.size() && order[at] != what) ++at;
        ASSERT_LT(at++, order.size()) << "out of order: " << testing::PrintToString(events);
    }
    const bool wasReady = std::count(seen.begin(), seen.end(), "ready") != 0;
    EXPECT_EQ(std::count(seen.begin(), seen.end(), "not ready"), wasReady ? 1 : 0) << testing::PrintToString(seen);
    EXPECT_EQ(std::count(seen.begin(), seen.end(), "disconnected"), 1) << testing::PrintToString(seen);
}

TEST(KilledPeers, ServerOutlivesClientsThatAreKilledSlow) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    LogCapture log(kLogInfo);
    SetErrorHandler([](std::string_view) {});
    SetServerOptions({.address = "unix:"});
    RCPtr<Server> server(new Server);
    const Resources before;
    ASSERT_TRUE(server->MultiServerInit(0));
    {
        std::vector<std::unique_ptr<SteadyClient>> steady;
        for (int i = 0; i < kSteadyClients; ++i) steady.push_back(std::make_unique<SteadyClient>(ServerAddress()));
        const Resources busy;
        server->events.Take();
        for (int kill = 0; kill < kKills; ++kill) {
            // 0: as soon as the server hears of the client, which may be amid its greetings.
            const int moment = kill % 5 == 0 ? 0 : std::uniform_int_distribution<>(1, 400)(random);
            SCOPED_TRACE("kill " + std::to_string(kill) + " after message " + std::to_string(moment));
            const std::string name = std::to_string(server->connections + 1);
            server->awaitedOfNext = moment;
            Process client({BUILD_FOLDER "/bin/endless_client", ServerAddress()});
            ASSERT_TRUE(server->events.WaitFor(name + (moment == 0 ? " connected" : " has its messages")));
            client.Kill();
            ASSERT_TRUE(server->events.WaitFor(name + " disconnected"));
            ASSERT_TRUE(server->events.Wait([&](const Texts& all) {
                const auto heard = [&](const char* what) {
                    return std::find(all.begin(), all.end(), name + what) != all.end();
                };
                return !heard(" created") || heard(" gone");
            }));
            for (const auto& each : steady) ASSERT_TRUE(each->IsServed());
            ASSERT_NO_FATAL_FAILURE(ExpectInOrder(server->events.Take(), name));
            ASSERT_EQ(gInstances, kSteadyClients);
        }
        const Texts lines = log.Texts(kLogInfo);
        EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                                [](const std::string& line) {
                                    return line.starts_with("Server [0x") && line.ends_with("] disconnected.");
                                }),
                  kKills);
        ExpectBackTo(busy);
    }
    EXPECT_TRUE(server->MultiServerExit(0, nullptr));
    EXPECT_EQ(gInstances, 0);
    ExpectBackTo(before);
    EXPECT_EQ(ScriptedService::LiveContexts(), 0u);

    ASSERT_TRUE(server->MultiServerInit(0));
    {
        SteadyClient again(ServerAddress());
        EXPECT_TRUE(again.IsServed());
    }
    EXPECT_TRUE(server->MultiServerExit(0, nullptr));
    EXPECT_EQ(gInstances, 0);
    SetErrorHandler({});
}

TEST(KilledPeers, ClientsOutliveAnAgentThatIsKilledSlow) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    LogCapture log(kLogInfo);
    SetErrorHandler([](std::string_view) {});
    const std::string folder = testing::TempDir() + "/killed-" + std::to_string(getpid());
    std::filesystem::create_directory(folder);
    const std::string address = "unix:" + folder + "/socket";
    const auto startAgent = [&] {
        std::filesystem::remove(folder + "/socket");
        auto agent = std::make_unique<Process>(Texts{BUILD_FOLDER "/bin/usb-agent", "--listen", address});
        return agent;
    };
    const auto reach = [&](ServiceChannel& channel, bool again) {
        const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMS);
        std::string error;
        while (!(again ? channel.Reconnect(&error) : channel.Dial(address, &error))) {
            if (std::chrono::steady_clock::now() > limit) return false;
            std::this_thread::yield();  // until the agent listens
        }
        return true;
    };

    const Resources before;
    Client manager;
    const auto channel = ServiceChannel::Create();
    {
        const CurrentChannel current(channel.get());
        void* handle = nullptr;
        ASSERT_TRUE(manager.QSCPluginInit(Query()));
        ASSERT_TRUE(manager.QSCPluginCreateInstance(channel->Handle(), &handle));
        ClientInstance& instance = *manager.instance;
        for (int kill = 0; kill < kKills; ++kill) {
            const int moment = kill % 5 == 0 ? 0 : std::uniform_int_distribution<>(1, 300)(random);
            SCOPED_TRACE("kill " + std::to_string(kill) + " after answer " + std::to_string(moment));
            const auto agent = startAgent();
            ASSERT_TRUE(reach(*channel, kill > 0));
            instance.answers = 0;
            instance.awaited = moment;
            if (moment > 0) {
                ASSERT_TRUE(manager.events.WaitFor("ready"));
                std::atomic<bool> ended{false};
                std::thread asking([&] {
                    while (!ended) {
                        if (instance.Open() >= kMaxOpen || !instance.Ask()) std::this_thread::yield();
                    }
                });
                EXPECT_TRUE(manager.events.WaitFor("has its answers"));
                agent->Kill();
                EXPECT_TRUE(manager.events.WaitFor("not ready"));
                ended = true;
                asking.join();
                EXPECT_EQ(manager.events.Take(), (Texts{"ready", "has its answers", "not ready"}));
            } else {
                agent->Kill();  // maybe before it is ready
            }
            ASSERT_TRUE(channel->WaitConnectionState(QSC_CONNECTION_DISCONNECTED, kWaitMS));
            if (moment == 0) {
                const Texts events = manager.events.Take();
                EXPECT_TRUE(events.empty() || events == (Texts{"ready", "not ready"}))
                    << testing::PrintToString(events);
            }
            EXPECT_TRUE(instance.WaitForPendingMessages(kWaitMS));
            EXPECT_FALSE(instance.IsReady());
        }
        EXPECT_GT(instance.aborts, 0);
        EXPECT_TRUE(manager.QSCPluginDestroyInstance(handle));
        EXPECT_TRUE(manager.QSCPluginExit());
    }
    channel->Close();
    EXPECT_EQ(gInstances, 0);
    ExpectBackTo(before);
    EXPECT_EQ(ScriptedService::LiveContexts(), 0u);
    SetErrorHandler({});
    std::filesystem::remove_all(folder);
}

}  // namespace
