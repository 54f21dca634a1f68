// Starts on the service's own library: those that fail are undone there as far as they came, and followed by one that
// works.
#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "standin/qscservice/CallScript.h"
#include "standin/qscservice/ServiceChannel.h"
#include "standin/qscservice/ServiceTables.h"
#include "tests/server/Ends.h"
#include "tests/support/LogCapture.h"

namespace {

using namespace qscservice;

constexpr uint32_t kWaitMS = 20000;
const std::string kUndone = "QSCService_ServerExit() [OK]\n";

// Notes the hooks of its start and its exit.
class HookedServer : public Server {
public:
    void OnServerInit() override { events.Add("OnServerInit"); }
    void OnServerExit() override { events.Add("OnServerExit"); }
};

class ServerStart : public testing::Test {
protected:
    void SetUp() override {
        SetErrorHandler([](std::string_view) {});
        Restore();
    }
    void TearDown() override {
        Restore();
        SetErrorHandler({});
        EXPECT_EQ(gInstances, 0);
    }
    void Restore() {
        CallScript::Activate(nullptr);
        OfferAllTables();
        SetServerOptions({.address = "unix:"});
    }
    bool StartSingle(RPCManager& manager, uint32_t msTimeout = 0) {
        const RCPtr<ServerInstance> instance(new ServerInstance(&manager, "single", &events));
        const bool started = manager.ServerInitForSession(5, instance.Get(), msTimeout);
        if (started) {
            EXPECT_TRUE(manager.ServerExitForSession(5, instance.Get(), false));
        }
        return started;
    }
    static bool StartMulti(RPCManager& manager) {
        const bool started = manager.MultiServerInit(5);
        if (started) {
            EXPECT_TRUE(manager.MultiServerExit(5, nullptr));
        }
        return started;
    }

    CallScript script;
    Events events;
};

TEST_F(ServerStart, LeavesNothingInTheServiceWhenItFails) {
    struct Case {
        const char* name;
        std::function<void(HookedServer&)> prepare;
        bool multi;
        bool undone;  // the service's own start has succeeded
        Texts errors;
    };
    const auto without = [](Table table) { return [table](HookedServer&) { OfferTable(table, {}); }; };
    const auto failing = [this](Op op) {
        return [this, op](HookedServer&) {
            script.Fail(op, 1);
            CallScript::Activate(&script);
        };
    };
    const auto noSideChannels = [](HookedServer& server) {
        ServerOptions options{.address = "unix:"};
        options.channel.sideChannels = 0;
        SetServerOptions(options);
        server.wantTcp = true;
    };
    const Case cases[] = {
        {"the single export fails",
         [](HookedServer&) { SetServerOptions({.address = "nowhere"}); },
         false,
         false,
         {"QSCService_ServerInit2() failed\n"}},
        {"the multi export fails",
         [](HookedServer&) { SetServerOptions({.address = "nowhere"}); },
         true,
         false,
         {"QSCService_MultiServerInit() failed\n"}},
        {"a table is missing",
         without(Table::ChannelObject),
         true,
         true,
         {"Failed to get QSCRPC_ChannelObjectInterface\n", "Init() failed\n"}},
        {"tcp is unavailable", noSideChannels, false, true, {"TCP requested but unavailable\n"}},
        {"the channel sink is refused",
         failing(Op::RegisterChannelNotifySink),
         false,
         true,
         {"Channel.v1.RegisterChannelNotifySink() failed\n", "RegisterChannelSink() failed\n"}},
        {"the server sink is refused",
         failing(Op::RegisterServerNotifySink),
         true,
         true,
         {"RegisterServerNotifySink() failed.\n"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        LogCapture log(kLogInfo);
        const RCPtr<HookedServer> server(new HookedServer);
        c.prepare(*server);
        EXPECT_FALSE(c.multi ? StartMulti(*server) : StartSingle(*server));
        EXPECT_EQ(log.Texts(kLogError), c.errors);
        EXPECT_EQ(log.Count(kUndone), c.undone ? 1u : 0u);
        EXPECT_FALSE(server->IsInitialized());
        EXPECT_EQ(ServerAddress(), "");
        EXPECT_TRUE(server->MultiServerExit(5, nullptr)) << "nothing is left to undo";
        EXPECT_EQ(log.Count(kUndone), c.undone ? 1u : 0u);

        Restore();
        server->wantTcp = false;
        log.Clear();
        EXPECT_TRUE(c.multi ? StartMulti(*server) : StartSingle(*server));
        EXPECT_EQ(log.Texts(kLogError), c.multi ? Texts{} : Texts{"Channel.v1.UnregisterChannelNotifySink() [OK]\n"});
    }
}

// The channel goes down again before it has come up: a refusal, to whoever waits.
TEST_F(ServerStart, ARefusedChannelEndsTheWait) {
    LogCapture log(kLogInfo);
    const RCPtr<HookedServer> server(new HookedServer);
    const auto client = ServiceChannel::Create();
    std::thread refusing;
    server->onBound = [&] {
        refusing = std::thread([&] {
            std::string error;
            EXPECT_TRUE(client->Dial(ServerAddress(), &error)) << error;
            EXPECT_TRUE(log.WaitFor(kLogInfo, "Channel.v1.Connect() [OK]\n"));
            FindServerChannel(nullptr)->FireChannelState(QSC_CHANNEL_DISCONNECTED, QSC_CHANNEL_DISCONNECTED);
        });
    };
    EXPECT_FALSE(StartSingle(*server, kWaitMS));
    refusing.join();
    client->Close();
    EXPECT_TRUE(log.Has(kLogInfo, "Rejected\n"));
    EXPECT_TRUE(log.Has(kLogError, "WaitUntilReadyOrRejected failed [1]\n"));
    EXPECT_EQ(log.Count(kUndone), 1u);
    EXPECT_EQ(server->events.Take(), Texts{});
}

TEST_F(ServerStart, StartsAndExitsCanRepeat) {
    LogCapture log(kLogInfo);
    const RCPtr<HookedServer> server(new HookedServer);
    ASSERT_TRUE(StartMulti(*server));
    ASSERT_TRUE(StartSingle(*server));
    const Resources before;
    for (int round = 0; round < 20; ++round) {
        ASSERT_TRUE(server->MultiServerInit(5));
        EXPECT_FALSE(server->MultiServerInit(5));
        EXPECT_TRUE(server->MultiServerExit(5, nullptr));
        ASSERT_TRUE(StartSingle(*server));
    }
    ExpectBackTo(before);
    EXPECT_EQ(log.Count("Already initialized\n"), 20u);
    const Texts heard = server->events.Take();
    EXPECT_EQ(std::count(heard.begin(), heard.end(), "OnServerExit"), 42);
    EXPECT_EQ(std::count(heard.begin(), heard.end(), "OnServerInit"), 0) << "only a wait for the channel calls it";
}

TEST_F(ServerStart, TheStartHoldsTheManagerUntilItsExit) {
    LogCapture log(kLogInfo);
    Server* const kept = new Server;
    {
        const RCPtr<Server> server(kept);
        ASSERT_TRUE(server->MultiServerInit(5));
    }
    const auto isDestroyed = [&] {
        const Texts texts = log.Texts(kLogInfo);
        return std::any_of(texts.begin(), texts.end(), [](const std::string& t) { return t.ends_with(" destroyed"); });
    };
    EXPECT_FALSE(isDestroyed());
    const auto client = ServiceChannel::Create();
    std::string error;
    ASSERT_TRUE(client->Dial(ServerAddress(), &error)) << error;
    ASSERT_TRUE(kept->events.WaitFor("1 created")) << "a connection that is up at the exit doesn't keep it either";
    EXPECT_TRUE(kept->MultiServerExit(5, nullptr));
    EXPECT_TRUE(isDestroyed());
    client->Close();
}

}  // namespace
