// Side channels: a second connection of one object. Order, failure, falls and ends, and what is left behind.
#include "standin/qscservice/SideChannel.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "standin/qscservice/ServiceTables.h"
#include "tests/standin/ChannelEnd.h"
#include "tests/standin/ConnectedSockets.h"
#include "tests/standin/RawEnd.h"
#include "tests/support/Resources.h"

namespace {

using namespace qscservice;

using Bytes = RawEnd::Bytes;

constexpr uint32_t kShortLimitMS = 100;

// Takes lines until the object has told of its state for so many times.
void AwaitStates(ChannelEnd& end, int count) {
    for (int i = 0; i < count; ++i) end.TakeUntil("object state");
}

// What is sent to an object that is gone is still received.
void AwaitReceived(const ChannelEnd& end, uint64_t count) {
    const auto received = [&] { return end.Total().delivered + end.Total().undeliverable; };
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kLongMS);
    while (received() < count && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    EXPECT_EQ(received(), count);
}

void Request(void* hObject, uint32_t type) {
    ASSERT_TRUE(ServiceChannel::RequestSideChannel(hObject, type));
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
        for (std::thread& thread : m_threads) thread.join();
        m_threads.clear();
    }

    std::atomic<uint64_t> accepted{0}, requests{0};

private:
    std::atomic<bool> m_stop{false};
    std::vector<std::thread> m_threads;
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

class SideChannelTest : public ChannelPair {
protected:
    using ChannelPair::ChannelPair;

    void AwaitSwitch() {
        AwaitStates(client, 2);
        AwaitStates(server, 2);
        EXPECT_EQ(ServiceChannel::ObjectState(atClient), QSC_OBJECT_SIDE_CHANNEL_CONNECTED);
        EXPECT_EQ(ServiceChannel::ObjectState(atServer), QSC_OBJECT_SIDE_CHANNEL_CONNECTED);
    }
};

class PolledSideChannelTest : public SideChannelTest {
protected:
    PolledSideChannelTest() : SideChannelTest({.delivery = Delivery::Polled}) {}
};

TEST_F(PolledSideChannelTest, DeliversOnThePollingThreadAndHoldsUpThePeer) {
    Open("tcp:");
    ConnectObject();
    Request(atClient, QSC_SIDE_CHANNEL_TCP);
    AwaitSwitch();
    constexpr uint32_t kMessages = 96;
    std::atomic<uint32_t> sent{0};
    std::thread sender([&] {
        for (; sent < kMessages; ++sent) ASSERT_NE(server.Send(atServer, sent, 1 << 20), 0u);
    });
    uint32_t received = 0;
    client.onMessage = [&](void*, uint32_t command) {
        EXPECT_EQ(command, received);
        if (received++ != 0) return;
        while (sent < 16) std::this_thread::yield();
        for (int i = 0; i < 1000; ++i) std::this_thread::yield();
        EXPECT_LE(sent.load(), 60u);  // 16 MiB, and what the socket holds
    };
    while (received < kMessages) client.channel->PollWait(kLongMS);
    sender.join();
    EXPECT_TRUE(ServiceChannel::DestroyObject(atServer));
    client.TakeUntil("object state");
    EXPECT_EQ(ServiceChannel::ObjectState(atClient), QSC_OBJECT_DISCONNECTED);
}

// The asking end lacks nothing; what the other end lacks makes the request fail.
TEST(SideChannelFailure, TakesTheAskingObjectBackToConnectedOnceAndMessagesKeepTheirWay) {
    struct Case {
        bool byServer;
        uint32_t atClient, atServer;
        const char* folder;  // for the sockets of the server
    };
    const char* const variable = std::getenv("TMPDIR");
    const std::string folder = variable ? variable : "/tmp";
    const Resources atStart;
    Texts errors;
    SetErrorHandler([&](std::string_view line) { errors.emplace_back(line); });
    for (const Case& c : {Case{false, 0x1E, 0x1C, folder.c_str()},
                          {true, 0x1C, 0x1E, folder.c_str()},
                          {false, 0x1E, 0x1E, "/nowhere/at/all"}}) {
        ChannelOptions options = ServerOptions();
        options.sideChannels = c.atServer;
        ChannelEnds ends({.sideChannels = c.atClient}, options);
        ends.Open("tcp:");
        ends.ConnectObject();
        setenv("TMPDIR", c.folder, 1);
        ChannelEnd& asking = c.byServer ? ends.server : ends.client;
        void* hAsking = c.byServer ? ends.atServer : ends.atClient;
        for (int round = 0; round < 2; ++round) {
            Request(hAsking, QSC_SIDE_CHANNEL_VIRTUAL);
            AwaitStates(asking, 2);
            EXPECT_EQ(ServiceChannel::ObjectState(hAsking), QSC_OBJECT_CONNECTED);
        }
        setenv("TMPDIR", folder.c_str(), 1);
        ASSERT_NE(ends.client.Send(ends.atClient, 1), 0u);
        ASSERT_NE(ends.server.Send(ends.atServer, 2), 0u);
        EXPECT_EQ(ends.server.journal.Take(1), Texts{"object message 1"});
        EXPECT_EQ(ends.client.journal.Take(1), Texts{"object message 2"});
        Request(hAsking, QSC_SIDE_CHANNEL_TCP);
        AwaitStates(asking, 2);
        EXPECT_EQ(ServiceChannel::ObjectState(hAsking), QSC_OBJECT_SIDE_CHANNEL_CONNECTED);
    }
    SetErrorHandler({});
    if (!variable) unsetenv("TMPDIR");
    EXPECT_EQ(errors.size(), 6u);  // one for each failure
    ExpectBackTo(atStart);
}

TEST_F(SideChannelTest, BothEndsMayAskAtOnce) {
    Open();
    for (int round = 0; round < 30; ++round) {
        ConnectObject();
        std::thread other([&] { ServiceChannel::RequestSideChannel(atServer, QSC_SIDE_CHANNEL_TCP); });
        ServiceChannel::RequestSideChannel(atClient, QSC_SIDE_CHANNEL_VIRTUAL);
        other.join();
        AwaitSwitch();
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
    AwaitReceived(server, sent);
    EXPECT_EQ(client.channel->ConnectionState(), QSC_CONNECTION_CONNECTED);
    EXPECT_EQ(client.channel->LastError() + server.channel->LastError(), "");
}

TEST_F(SideChannelTest, EndsWithADisconnectAndTheNextChannelHasItsOwn) {
    Open();
    const Resources before;
    for (ChannelEnd* first : {&client, &server}) {
        ConnectObject();
        void* hObject = first == &client ? atClient : atServer;
        Request(hObject, QSC_SIDE_CHANNEL_TCP);
        AwaitSwitch();
        EXPECT_FALSE(ServiceChannel::RequestSideChannel(hObject, QSC_SIDE_CHANNEL_VIRTUAL));  // it has one
        ChannelEnd& other = first == &client ? server : client;
        std::atomic<uint32_t> heard{0};
        other.onMessage = [&](void*, uint32_t) { ++heard; };
        for (uint32_t i = 0; i < 200; ++i) ASSERT_NE(first->Send(hObject, 1, 5000), 0u);
        EXPECT_TRUE(first->channel->Disconnect());
        other.TakeUntil("channel 0");
        EXPECT_EQ(heard, 200u);
        for (void* h : {atClient, atServer}) EXPECT_TRUE(ServiceChannel::DestroyObject(h));
        ExpectBackTo(before);
        EXPECT_TRUE(client.channel->Connect());
        client.TakeUntil("channel 2");
        server.TakeUntil("channel 2");
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
        closed += static_cast<uint64_t>(std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
            return line.starts_with("done ") || line.starts_with("abort ");
        }));
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
        for (void* hObject : {atClient, atServer}) {
            EXPECT_EQ(ServiceChannel::ObjectState(hObject), QSC_OBJECT_DISCONNECTED);
            ServiceChannel::DestroyObject(hObject);
        }
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

TEST(SideChannelTimeOut, AServerThatNobodyDialsGoesBackAndTellsTheClient) {
    ChannelOptions options = ServerOptions();
    options.meetLimitMS = kShortLimitMS;
    ServerOfRawClient ends(options);
    ends.ConnectObject();
    RawEnd& client = *ends.client;
    const Resources before;
    for (const bool asks : {true, false}) {
        if (asks)
            client.Send(MakeFrame(FrameType::SideChannelRequest, {Value("object"), Value(2u), Value(uint64_t{9})}));
        else
            Request(ends.hObject, QSC_SIDE_CHANNEL_VIRTUAL);
        const std::vector<Value> offer = client.Await(FrameType::SideChannelOffer);
        ASSERT_EQ(offer.size(), 5u);
        EXPECT_EQ(offer[2].text.substr(0, 4), asks ? "tcp:" : "unix");
        EXPECT_EQ(offer[4].number, asks ? 1u : 0u);
        // A stranger has no say in it.
        const std::string address(offer[2].text);
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
    SetErrorHandler([](std::string_view) {});
    ClientOfRawServer ends({.meetLimitMS = kShortLimitMS});
    ChannelEnd& client = ends.client;
    RawEnd& server = *ends.server;
    server.Send(MakeFrame(FrameType::ObjectCreated, {Value("object"), Value(1u), Value(0u)}));
    client.TakeUntil("peer object");
    void* hObject = client.Create("object");
    server.Send(MakeFrame(FrameType::ObjectReady, {Value("object"), Value(1u)}));
    AwaitStates(client, 1);
    const std::string address = ends.listener->Address();
    const auto offer = [&](const std::string& at, uint64_t number, bool asked) {
        server.Send(MakeFrame(FrameType::SideChannelOffer,
                              {Value("object"), Value(1u), Value(at), Value(number), Value(asked ? 1u : 0u)}));
    };
    for (const char* answer : {"", "unix:/nowhere/at/all", "nonsense"}) {
        Request(hObject, QSC_SIDE_CHANNEL_VIRTUAL);
        const uint64_t number = server.Await(FrameType::SideChannelRequest)[2].number;
        if (*answer) offer(answer, number, true);
        AwaitStates(client, 2);
        EXPECT_EQ(server.Await(FrameType::SideChannelRefused)[1].number, number);
        EXPECT_EQ(ServiceChannel::ObjectState(hObject), QSC_OBJECT_CONNECTED);
        offer(address, number, true);  // too late
        EXPECT_EQ(server.Await(FrameType::SideChannelRefused)[1].number, number);
    }
    // An offer of the server's own, and a refusal after the dial.
    offer("unix:/nowhere/at/all", 5, false);
    AwaitStates(client, 2);
    EXPECT_EQ(server.Await(FrameType::SideChannelRefused)[1].number, 5u);
    offer(address, 6, false);
    std::string error;
    RawEnd side(ends.listener->Accept(&error));
    EXPECT_EQ(side.Await(FrameType::Greeting)[0].number, 6u);
    server.Send(MakeFrame(FrameType::SideChannelRefused, {Value("object"), Value(uint64_t{6})}));
    AwaitStates(client, 2);
    EXPECT_EQ(ServiceChannel::ObjectState(hObject), QSC_OBJECT_CONNECTED);
    EXPECT_NE(client.Send(hObject, 1), 0u);
    server.Await(FrameType::Post);
    SetErrorHandler({});
}

TEST(SideChannelRules, APeerThatBreaksThemOnTheSideIsShutOut) {
    SetErrorHandler([](std::string_view) {});
    const auto post = [](uint32_t object) {
        FrameHeader header = {};
        header.type = FrameType::Post;
        header.object = object;
        Bytes frame;
        BeginFrame(&frame);
        SealFrame(&frame, header);
        return frame;
    };
    struct Case {
        std::vector<Bytes> frames;
        const char* error;  // empty: the peer hangs up
    };
    for (const Case& c :
         {Case{{Bytes(64, 0)}, "frame does not begin with the frame mark"},
          {{MakeFrame(FrameType::Close, {Value(1u)})}, "a frame is of a type that has no place on a side channel"},
          {{post(2)}, "a message is not of the side channel's object"},
          {{MakeFrame(FrameType::SideChannelEnd, {Value(1u)})}, "a frame has items that are not of its type"},
          {{MakeFrame(FrameType::SideChannelEnd, {}), post(1)}, "a frame follows the last one of a side channel"},
          {{post(1)}, ""}}) {
        ServerOfRawClient ends;
        ends.ConnectObject();
        ChannelEnd& server = ends.server;
        RawEnd& client = *ends.client;
        client.Send(MakeFrame(FrameType::SideChannelRequest, {Value("object"), Value(1u), Value(uint64_t{9})}));
        const std::string address(client.Await(FrameType::SideChannelOffer)[2].text);
        std::string error;
        auto side = std::make_unique<RawEnd>(ConnectSocket(address, &error));
        side->Send(MakeGreeting(9));
        client.Await(FrameType::SideChannelSwitch);
        for (const Bytes& frame : c.frames) side->Send(frame);
        // It is read no sooner than the switch.
        client.Send(post(1));
        EXPECT_EQ(server.TakeUntil("object message 0"), (Texts{"object state", "object message 0"}));
        EXPECT_EQ(server.channel->LastError(), "");
        client.Send(MakeFrame(FrameType::SideChannelSwitch, {Value("object"), Value(uint64_t{9})}));
        if (*c.error == '\0') {
            server.TakeUntil("object message 0");
            side.reset();
        }
        server.TakeUntil("connection 0");
        EXPECT_EQ(server.channel->LastError(), c.error);
        ServiceChannel::DestroyObject(ends.hObject);
    }
    SetErrorHandler({});
}

TEST(RendezvousTest, MeetsTheOneThatShowsTheNumberAndNoStranger) {
    for (const char* kind : {"unix:", "tcp:"}) {
        std::string error;
        const auto rendezvous = Rendezvous::Open(kind, 42, &error);
        ASSERT_TRUE(rendezvous) << error;
        const Fd silent = ConnectSocket(rendezvous->Address(), &error);
        { const Fd gone = ConnectSocket(rendezvous->Address(), &error); }
        const Fd wrong = ConnectSocket(rendezvous->Address(), &error);
        const Fd right = ConnectSocket(rendezvous->Address(), &error);
        const auto tell = [](const Fd& fd, const Bytes& bytes) { send(fd.Get(), bytes.data(), bytes.size(), 0); };
        tell(wrong, MakeGreeting(41));
        tell(right, MakeGreeting(42));
        tell(right, {'x'});
        const Fd met = rendezvous->Accept(kLongMS);
        ASSERT_TRUE(met.IsOpen());
        char behind = 0;
        EXPECT_EQ(recv(met.Get(), &behind, 1, 0), 1);
        EXPECT_EQ(behind, 'x');
        EXPECT_FALSE(rendezvous->Accept(1).IsOpen());
        std::thread stopper([&] { rendezvous->Stop(); });
        EXPECT_FALSE(rendezvous->Accept(kLongMS).IsOpen());
        stopper.join();
    }
}

}  // namespace
