// Side channels: a second connection of one object. Order, failure, falls and ends, and what is left behind.
#include "standin/qscservice/SideChannel.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <map>
#include <thread>
#include <utility>

#include "standin/qscservice/ServiceTables.h"
#include "tests/standin/ChannelEnd.h"
#include "tests/standin/RawEnd.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/Resources.h"

namespace {

using namespace qscservice;

using Bytes = RawEnd::Bytes;

constexpr uint32_t kShortLimitMS = 100;

void AwaitStates(ChannelEnd& end, int count) {
    for (int i = 0; i < count; ++i) end.TakeUntil("object state");
}

void AwaitSwitch(ChannelEnds& ends) {
    AwaitStates(ends.client, 2);
    AwaitStates(ends.server, 2);
    EXPECT_EQ(ServiceChannel::ObjectState(ends.atClient), QSC_OBJECT_SIDE_CHANNEL_CONNECTED);
    EXPECT_EQ(ServiceChannel::ObjectState(ends.atServer), QSC_OBJECT_SIDE_CHANNEL_CONNECTED);
}

void Request(void* hObject, uint32_t type) {
    ASSERT_TRUE(ServiceChannel::RequestSideChannel(hObject, type));
}

void IgnoreErrors(std::string_view) {}

// Connected sockets of an address family: descriptors by the socket's name, which is never used again.
std::map<std::string, int> ConnectedSockets(int family) {
    std::map<std::string, int> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(entry.path().filename());
        sockaddr_storage peer = {};
        socklen_t size = sizeof peer;
        if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) != 0 || peer.ss_family != family) continue;
        found[std::filesystem::read_symlink(entry.path())] = fd;
    }
    return found;
}

std::vector<int> NewSockets(int family, const std::map<std::string, int>& known) {
    std::vector<int> found;
    for (const auto& [name, fd] : ConnectedSockets(family)) {
        if (!known.contains(name)) found.push_back(fd);
    }
    return found;
}

// Threads that send numbered messages on an object until they are stopped; the command tells thread and number.
class Load {
public:
    static constexpr uint32_t kThreads = 3;

    Load(ChannelEnd& end, std::atomic<void*>& hObject) {
        for (uint32_t i = 0; i < kThreads; ++i) {
            m_threads.emplace_back([this, &end, &hObject, i] {
                for (uint32_t n = 0; !m_stop;) {
                    const bool post = n % 5 != 0;
                    if (end.Send(hObject, i << 24 | n, n % 7 * 1500, post) == 0) continue;
                    ++accepted;
                    if (!post) ++requests;
                    ++n;
                }
            });
        }
    }
    ~Load() { Stop(); }

    void Stop() {
        m_stop = true;
        m_threads.clear();
    }

    std::atomic<uint64_t> accepted{0}, requests{0};

private:
    std::atomic<bool> m_stop{false};
    std::vector<std::jthread> m_threads;
};

// Hears what a Load at the other end sends. Messages may be cut, but don't overtake each other.
class Hearer {
public:
    explicit Hearer(ChannelEnd& end) {
        end.onMessage = [this](void*, uint32_t command) {
            uint32_t& next = m_next[command >> 24];
            if ((command & 0xFFFFFF) < next) ++outOfOrder;
            next = (command & 0xFFFFFF) + 1;
            ++heard;
        };
    }

    void AwaitMore(uint64_t count) const {
        const uint64_t goal = heard + count;
        while (heard < goal) std::this_thread::yield();
    }

    std::atomic<uint64_t> heard{0}, outOfOrder{0};

private:
    std::array<uint32_t, Load::kThreads> m_next{};
};

// The account of one direction: nothing is lost and nothing is missing.
void ExpectAccount(const ChannelEnd& from, const ChannelEnd& to, uint64_t accepted) {
    const CommandCount sent = from.Total();
    const CommandCount received = to.Total();
    EXPECT_EQ(sent.accepted, accepted);
    EXPECT_EQ(sent.accepted, sent.confirmed + sent.cut);
    EXPECT_EQ(sent.confirmed, received.delivered + received.undeliverable);
}

class SideChannelTest : public ChannelPair {};

// On the plain connection and on a side channel, the sender is held up while nobody polls.
TEST(PolledChannelTest, DeliversOnThePollingThreadInOrderAndHoldsUpThePeer) {
    for (const bool aside : {false, true}) {
        ChannelEnds ends({.delivery = Delivery::Polled});
        ends.Open("tcp:");
        ends.ConnectObject();
        ends.client.channel->SetPollThread(std::this_thread::get_id());
        if (aside) {
            Request(ends.atClient, QSC_SIDE_CHANNEL_TCP);
            AwaitSwitch(ends);
        }
        constexpr uint32_t kMessages = 96;
        std::atomic<uint32_t> sent{0};
        std::thread sender([&] {
            for (; sent < kMessages; ++sent) ASSERT_NE(ends.server.Send(ends.atServer, sent, 1 << 20), 0u);
        });
        uint32_t received = 0;
        ends.client.onMessage = [&](void*, uint32_t command) {
            EXPECT_EQ(command, received);
            if (received++ != 0) return;
            uint32_t last = 0;
            for (int idle = 0; sent < 16 || idle < 100000; ++idle) {
                if (sent != std::exchange(last, sent)) idle = 0;
                std::this_thread::yield();
            }
            EXPECT_LE(sent.load(), 60u);  // 16 MiB, and what the socket holds
            ends.client.channel->Poll();
            EXPECT_EQ(received, 1u) << "nothing is delivered inside a callback";
        };
        std::thread([&] { ends.client.channel->PollWait(50); }).join();
        EXPECT_EQ(received, 0u) << "nothing is delivered on another thread";
        while (received < kMessages) ends.client.channel->PollWait(kLongMS);
        sender.join();
    }
}

// The asking end lacks nothing; what the other end lacks makes the request fail.
TEST(SideChannelFailure, TakesTheAskingObjectBackToConnectedOnceAndMessagesKeepTheirWay) {
    struct Case {
        bool byServer;
        uint32_t atClient, atServer;
        bool socketFolder;  // whether the server can make Unix sockets
    };
    const Resources atStart;
    SetErrorHandler(IgnoreErrors);
    for (const Case& c : {Case{false, 0x1E, 0x1C, true}, {true, 0x1C, 0x1E, true}, {false, 0x1E, 0x1E, false}}) {
        ChannelOptions options = ServerOptions();
        options.sideChannels = c.atServer;
        ChannelEnds ends({.sideChannels = c.atClient}, options);
        ends.Open("tcp:");
        ends.ConnectObject();
        ChannelEnd& asking = c.byServer ? ends.server : ends.client;
        void* hAsking = c.byServer ? ends.atServer : ends.atClient;
        {
            const EnvironmentVariable folder("TMPDIR", c.socketFolder ? "/tmp" : "/nowhere/at/all");
            Request(hAsking, QSC_SIDE_CHANNEL_VIRTUAL);
            AwaitStates(asking, 2);
            EXPECT_EQ(ServiceChannel::ObjectState(hAsking), QSC_OBJECT_CONNECTED);
        }
        ASSERT_NE(ends.client.Send(ends.atClient, 1), 0u);
        ASSERT_NE(ends.server.Send(ends.atServer, 2), 0u);
        EXPECT_EQ(ends.server.journal.Take(1), Texts{"object message 1"});
        EXPECT_EQ(ends.client.journal.Take(1), Texts{"object message 2"});
        Request(hAsking, QSC_SIDE_CHANNEL_TCP);
        AwaitSwitch(ends);
    }
    SetErrorHandler({});
    ExpectBackTo(atStart);
}

TEST_F(SideChannelTest, BothEndsMayAskAtOnce) {
    Open();
    for (int round = 0; round < 30; ++round) {
        ConnectObject();
        std::thread other([&] { ServiceChannel::RequestSideChannel(atServer, QSC_SIDE_CHANNEL_TCP); });
        ServiceChannel::RequestSideChannel(atClient, QSC_SIDE_CHANNEL_VIRTUAL);
        other.join();
        AwaitSwitch(*this);
        ASSERT_NE(client.Send(atClient, 7), 0u);
        EXPECT_EQ(server.journal.Take(1), Texts{"object message 7"});
        ServiceChannel::DestroyObject(atClient);
        AwaitStates(server, 1);
        ServiceChannel::DestroyObject(atServer);
    }
}

// The object goes at any point of the way to its side channel: the channel stays, and the account with it.
TEST_F(SideChannelTest, AnObjectMayGoInTheMiddle) {
    Open();
    const Resources before;
    uint64_t sent = 0;
    for (int round = 0; round < 120; ++round) {
        atServer = server.Create("object");
        client.TakeUntil("peer object");
        atClient = client.Create("object");
        // The states themselves: an event of the round before may still come.
        while (ServiceChannel::ObjectState(atClient) != QSC_OBJECT_CONNECTED) client.journal.Take(1);
        while (ServiceChannel::ObjectState(atServer) != QSC_OBJECT_CONNECTED) server.journal.Take(1);
        const bool serverGoes = round % 4 < 2;
        Request(round % 2 == 0 ? atServer : atClient, 1 + round % 4);
        for (int i = 0; i < round % 20 * 5; ++i) std::this_thread::yield();
        if (client.Send(atClient, 1, 3000) != 0) ++sent;
        ServiceChannel::DestroyObject(serverGoes ? atServer : atClient);
        ChannelEnd& other = serverGoes ? client : server;
        void* hOther = serverGoes ? atClient : atServer;
        while (ServiceChannel::ObjectState(hOther) != QSC_OBJECT_DISCONNECTED) other.journal.Take(1);
        ServiceChannel::DestroyObject(hOther);
        client.journal.Take(0);
        server.journal.Take(0);
    }
    ExpectBackTo(before);
    EXPECT_EQ(client.Total().accepted, sent);
    server.AwaitReceived(sent);
    EXPECT_EQ(client.channel->LastError() + server.channel->LastError(), "");
}

TEST_F(SideChannelTest, EndsWithADisconnectAndTheNextChannelHasItsOwn) {
    Open();
    const Resources before;
    for (ChannelEnd* first : {&client, &server}) {
        ConnectObject();
        void* hObject = first == &client ? atClient : atServer;
        Request(hObject, QSC_SIDE_CHANNEL_TCP);
        AwaitSwitch(*this);
        EXPECT_FALSE(ServiceChannel::RequestSideChannel(hObject, QSC_SIDE_CHANNEL_VIRTUAL));  // it has one
        ChannelEnd& other = first == &client ? server : client;
        std::atomic<uint32_t> heard{0};
        other.onMessage = [&](void*, uint32_t) { ++heard; };
        for (uint32_t i = 0; i < 200; ++i) ASSERT_NE(first->Send(hObject, 1, 5000), 0u);
        EXPECT_TRUE(first->channel->Disconnect());
        other.TakeUntil("channel 0");
        EXPECT_EQ(heard, 200u);
        DestroyObjects();
        ExpectBackTo(before);
        EXPECT_TRUE(client.channel->Connect());
        AwaitChannel();
    }
}

enum class Cut { ByClient, ByServer, SideOfClient, SideOfServer, InTheMiddle, WithoutSide };

TEST_F(SideChannelTest, FallsWithTheChannelAndTheAccountStaysExact) {
    constexpr int kFalls = 30;
    Open();
    const Resources before;
    Hearer atServerEnd(server);
    Hearer atClientEnd(client);
    std::atomic<void*> hClient{nullptr};
    std::atomic<void*> hServer{nullptr};
    Load up(client, hClient);
    Load down(server, hServer);
    uint64_t closed = 0;
    const auto countClosed = [&](const Texts& lines) {
        for (const std::string& line : lines) closed += line.starts_with("done ") || line.starts_with("abort ") ? 1 : 0;
    };
    const auto await = [&](const char* line, int times = 1) {
        for (int i = 0; i < times; ++i) {
            for (ChannelEnd* end : {&client, &server}) countClosed(end->TakeUntil(line));
        }
    };
    std::string error;
    for (int fall = 0; fall < kFalls; ++fall) {
        const uint32_t type = 1 + fall % 4;
        const int family = type == QSC_SIDE_CHANNEL_TCP ? AF_INET : AF_UNIX;
        const auto cut = static_cast<Cut>(fall % 6);
        atServer = server.Create("object");
        countClosed(client.TakeUntil("peer object"));
        atClient = client.Create("object");
        hServer = atServer;
        hClient = atClient;
        await("object state");
        const auto sockets = ConnectedSockets(family);
        if (cut != Cut::WithoutSide) Request(fall % 4 < 2 ? atServer : atClient, type);
        if (cut == Cut::InTheMiddle) {
            for (int i = 0; i < fall * 20; ++i) std::this_thread::yield();
        } else {
            if (cut != Cut::WithoutSide) await("object state", 2);
            EXPECT_EQ(NewSockets(family, sockets).size(), cut != Cut::WithoutSide ? 2u : 0u);
            atServerEnd.AwaitMore(50);
            atClientEnd.AwaitMore(50);
        }
        if (cut == Cut::SideOfClient || cut == Cut::SideOfServer) {
            const std::vector<int> side = NewSockets(family, sockets);
            shutdown(cut == Cut::SideOfClient ? side.front() : side.back(), SHUT_RDWR);
        } else {
            (cut == Cut::ByServer ? server : client).channel->Interrupt();
        }
        await("connection 0");
        DestroyObjects();
        ASSERT_TRUE(client.channel->Reconnect(&error)) << error;
        await("channel 2");
    }
    up.Stop();
    down.Stop();
    for (ChannelEnd* end : {&client, &server}) countClosed(end->journal.Take(0));
    ExpectAccount(client, server, up.accepted);
    ExpectAccount(server, client, down.accepted);
    EXPECT_EQ(atServerEnd.outOfOrder + atClientEnd.outOfOrder, 0u);
    EXPECT_EQ(closed, up.requests + down.requests);
    EXPECT_EQ(client.channel->OpenRequests() + server.channel->OpenRequests(), 0u);
    EXPECT_EQ(ContextTable::Live(), 0u);
    ExpectBackTo(before);
}

TEST(SideChannelEnds, NothingIsLeftWhenTheChannelCloses) {
    const Resources before;
    for (int round = 0; round < 20; ++round) {
        ChannelEnds ends;
        ends.Open();
        ends.ConnectObject();
        Request(round % 2 ? ends.atClient : ends.atServer, 1 + round % 4);
        if (round % 3 == 0) AwaitStates(ends.client, 2);
        (round % 2 ? ends.server : ends.client).channel->Close();
    }
    ExpectBackTo(before);
}

TEST(SideChannelTimeOut, AServerThatOnlyAStrangerDialsGoesBackAndTellsTheClient) {
    ChannelOptions options = ServerOptions();
    options.meetLimitMS = kShortLimitMS;
    ServerOfRawClient ends(options);
    ends.ConnectObject();
    RawEnd& client = *ends.client;
    const Resources before;
    for (const bool asks : {true, false}) {
        if (asks)
            client.Send(MakeFrame(FrameType::SideChannelRequest, {"object", 2u, uint64_t{9}}));
        else
            Request(ends.hObject, QSC_SIDE_CHANNEL_VIRTUAL);
        const std::vector<Value> offer = client.Await(FrameType::SideChannelOffer);
        const std::string address(offer[2].text);
        EXPECT_EQ(address.substr(0, 4), asks ? "tcp:" : "unix");
        const uint64_t number = offer[3].number;
        std::string error;
        RawEnd stranger(ConnectSocket(address, &error));
        stranger.Send(MakeGreeting(number + 1));
        AwaitStates(ends.server, 2);
        EXPECT_EQ(ServiceChannel::ObjectState(ends.hObject), QSC_OBJECT_CONNECTED);
        EXPECT_EQ(client.Await(FrameType::SideChannelRefused)[1].number, number);
        ASSERT_FALSE(ConnectSocket(address, &error).IsOpen());
    }
    ExpectBackTo(before);
    EXPECT_NE(ends.server.Send(ends.hObject, 1), 0u);
    client.Await(FrameType::Post);
}

TEST(SideChannelTimeOut, AClientGoesBackWhenTheServerIsSilentOrOffersNothingThatWorks) {
    SetErrorHandler(IgnoreErrors);
    ClientOfRawServer ends({.meetLimitMS = kShortLimitMS});
    ChannelEnd& client = ends.client;
    RawEnd& server = *ends.server;
    server.Send(MakeFrame(FrameType::ObjectCreated, {"object", 1u, 0u}));
    client.TakeUntil("peer object");
    void* hObject = client.Create("object");
    server.Send(MakeFrame(FrameType::ObjectReady, {"object", 1u}));
    AwaitStates(client, 1);
    const auto offer = [&](const std::string& at, uint64_t number) {
        server.Send(MakeFrame(FrameType::SideChannelOffer, {"object", 1u, at, number, 1u}));
    };
    for (const char* answer : {"", "unix:/nowhere/at/all"}) {
        Request(hObject, QSC_SIDE_CHANNEL_VIRTUAL);
        const uint64_t number = server.Await(FrameType::SideChannelRequest)[2].number;
        if (*answer) offer(answer, number);
        AwaitStates(client, 2);
        EXPECT_EQ(server.Await(FrameType::SideChannelRefused)[1].number, number);
        EXPECT_EQ(ServiceChannel::ObjectState(hObject), QSC_OBJECT_CONNECTED);
        offer(ends.listener->Address(), number);  // too late
        EXPECT_EQ(server.Await(FrameType::SideChannelRefused)[1].number, number);
    }
    EXPECT_NE(client.Send(hObject, 1), 0u);
    server.Await(FrameType::Post);
    SetErrorHandler({});
}

TEST(SideChannelRules, APeerThatBreaksThemOnTheSideIsShutOut) {
    SetErrorHandler(IgnoreErrors);
    const Bytes post = FrameOf(FrameType::Post, ItemRole::Param);
    const Bytes foreign = MakeFrame(FrameType::Post, {});  // of no object
    struct Case {
        std::vector<Bytes> frames;
        const char* error;
    };
    for (const Case& c :
         {Case{{Bytes(64, 0)}, "frame does not begin with the frame mark"},
          {{MakeFrame(FrameType::Close, {1u})}, "a frame is of a type that has no place on a side channel"},
          {{foreign}, "a message is not of the side channel's object"},
          {{MakeFrame(FrameType::SideChannelEnd, {}), post}, "a frame follows the last one of a side channel"}}) {
        ServerOfRawClient ends;
        ends.ConnectObject();
        ends.client->Send(MakeFrame(FrameType::SideChannelRequest, {"object", 1u, uint64_t{9}}));
        const std::string address(ends.client->Await(FrameType::SideChannelOffer)[2].text);
        std::string error;
        RawEnd side(ConnectSocket(address, &error));
        side.Send(MakeGreeting(9));
        ends.client->Await(FrameType::SideChannelSwitch);
        for (const Bytes& frame : c.frames) side.Send(frame);
        // It is read no sooner than the switch.
        ends.client->Send(post);
        EXPECT_EQ(ends.server.TakeUntil("object message 0"), (Texts{"object state", "object message 0"}));
        EXPECT_EQ(ends.server.channel->LastError(), "");
        ends.client->Send(MakeFrame(FrameType::SideChannelSwitch, {"object", uint64_t{9}}));
        ends.server.TakeUntil("connection 0");
        EXPECT_EQ(ends.server.channel->LastError(), c.error);
    }
    SetErrorHandler({});
}

}  // namespace
