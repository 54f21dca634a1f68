// Falls of the connection: who hears what, what became of each message, and peers that don't keep to the format.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "standin/qscservice/ServiceTables.h"
#include "tests/standin/ChannelEnd.h"
#include "tests/standin/RawEnd.h"

namespace {

using namespace qscservice;

using Bytes = std::vector<uint8_t>;

class FallTest : public ChannelPair {
protected:
    // Falls with so many of the client's messages received by the server, and comes back.
    void FallAfter(uint32_t receivedCount, const std::vector<uint32_t>& commands) {
        std::mutex gate;
        std::unique_lock closed(gate);
        uint32_t received = 0;
        server.onMessage = [&](void*, uint32_t) {
            if (++received == receivedCount) const std::lock_guard passed(gate);
        };
        const uint64_t goal = server.Total().delivered + receivedCount;
        for (const uint32_t command : commands) ASSERT_NE(client.Send(atClient, command), 0u);
        while (server.Total().delivered < goal) std::this_thread::yield();
        server.channel->Interrupt();
        closed.unlock();
        client.TakeUntil("connection 0");
        server.TakeUntil("connection 0");
        ComeBack();
    }
};

void ExpectCount(const CommandCount& count, uint64_t accepted, uint64_t confirmed, uint64_t cut) {
    EXPECT_EQ(count.accepted, accepted);
    EXPECT_EQ(count.confirmed, confirmed);
    EXPECT_EQ(count.cut, cut);
}

TEST_F(FallTest, IsHeardInOrderByBothEnds) {
    Open();
    for (ChannelEnd* first : {&client, &server}) {
        ConnectObject();
        std::mutex gate;
        std::unique_lock closed(gate);
        server.onMessage = [&](void*, uint32_t) { const std::lock_guard passed(gate); };
        const std::string request = std::to_string(client.Request(atClient, 1));
        first->channel->Interrupt();
        closed.unlock();
        EXPECT_EQ(client.TakeUntil("connection 0"), (Texts{"abort " + request + " 1 1", "channel 0", "connection 0"}));
        EXPECT_EQ(server.TakeUntil("connection 0"), (Texts{"channel 0", "connection 0"}));
        for (void* hObject : {atClient, atServer}) {
            EXPECT_EQ(ServiceChannel::ObjectState(hObject), QSC_OBJECT_DISCONNECTED);
        }
        EXPECT_EQ(client.channel->ConnectionState(), QSC_CONNECTION_DISCONNECTED);
        EXPECT_EQ(client.Send(atClient, 1), 0u);
        EXPECT_FALSE(client.channel->Connect());
        EXPECT_EQ(client.channel->OpenRequests(), 0u);
        ComeBack();
    }
    EXPECT_EQ(ContextTable::Live(), 0u);
}

TEST_F(FallTest, TellsOfEachCommandHowManyMessagesWereCut) {
    Open();
    ConnectObject();
    FallAfter(2, {1, 2, 1, 2, 2, 3});
    ExpectCount(client.channel->Counts()[1], 2, 1, 1);
    ExpectCount(client.channel->Counts()[2], 3, 1, 2);
    ExpectCount(client.channel->Counts()[3], 1, 0, 1);
    ConnectObject();
    FallAfter(3, {3, 3, 3, 1});
    ExpectCount(client.channel->Counts()[1], 3, 1, 2);
    ExpectCount(client.channel->Counts()[3], 4, 3, 1);
}

TEST_F(FallTest, KnowsNothingOfWhatArrivedOnceAThirdPartyCameInBetween) {
    Open();
    ConnectObject();
    ASSERT_NE(client.Send(atClient, 1), 0u);
    server.TakeUntil("object message 1");
    client.channel->Interrupt();
    client.TakeUntil("connection 0");
    server.TakeUntil("connection 0");
    {
        ChannelEnd other({});
        std::string error;
        ASSERT_TRUE(other.channel->Dial(server.channel->Address(), &error)) << error;
        other.TakeUntil("channel 2");
    }
    server.TakeUntil("connection 0");
    ComeBack();
    ExpectCount(client.channel->Counts()[1], 1, 0, 0);
    ConnectObject();
    FallAfter(1, {1, 1});
    ExpectCount(client.channel->Counts()[1], 3, 1, 1);
}

TEST_F(FallTest, CountsManyCommandsTogetherAndStillExactly) {
    Open();
    ConnectObject();
    std::vector<uint32_t> commands;
    for (uint32_t i = 0; i < 2 * kMaxCountedCommands; ++i) commands.push_back(1000 - i % 400);
    FallAfter(450, commands);  // what is left fits the socket while nobody reads
    ConnectObject();
    const std::vector<uint32_t> fewer(commands.begin(), commands.begin() + 250);
    FallAfter(200, fewer);
    const uint64_t accepted = commands.size() + fewer.size();
    ExpectCount(client.Total(), accepted, 650, accepted - 650);
    EXPECT_EQ(client.channel->Counts().size(), kMaxCountedCommands + 1);
    EXPECT_EQ(server.Total().delivered, 650u);
    for (const auto& [command, count] : client.channel->Counts()) {
        EXPECT_EQ(count.accepted, count.confirmed + count.cut) << command;
    }
}

TEST_F(FallTest, ADeferredRequestFallsWithItsConnection) {
    Open();
    ConnectObject();
    std::vector<void*> tickets;
    server.onMessage = [&](void* hContext, uint32_t) {
        EXPECT_FALSE(server.channel->Defer(nullptr));
        EXPECT_TRUE(server.channel->Defer(hContext));
        EXPECT_FALSE(server.channel->Defer(hContext));
        tickets.push_back(hContext);
        server.journal.Add("deferred");
    };
    const std::string first = std::to_string(client.Request(atClient, 1));
    const std::string second = std::to_string(client.Request(atClient, 2));
    server.journal.Take(2);
    std::thread([&] { EXPECT_TRUE(server.channel->Respond(tickets[1], {Value(1u)})); }).join();
    EXPECT_EQ(client.journal.Take(1), Texts{"done " + second});
    client.channel->Interrupt();
    EXPECT_EQ(client.journal.Take(3)[0], "abort " + first + " 1 1");
    server.TakeUntil("connection 0");
    for (void* ticket : tickets) EXPECT_FALSE(server.channel->Respond(ticket));
    EXPECT_EQ(ContextTable::Live(), 0u);
}

Bytes Hello(std::vector<Value> tail = {}) {
    std::vector<Value> values = {Value(1u), Value(0u), Value(uint64_t{77}), Value(uint64_t{0})};
    values.insert(values.end(), tail.begin(), tail.end());
    return MakeFrame(FrameType::Hello, values);
}

Bytes WithRole(FrameType type, ItemRole role, const char* name) {
    Bytes frame;
    BeginFrame(&frame);
    AppendItem(&frame, role, name, Value(1u));
    FrameHeader header = {};
    header.type = type;
    header.itemCount = 1;
    SealFrame(&frame, header);
    return frame;
}

// A real server for clients of raw frames.
class RawPeerTest : public testing::Test {
protected:
    RawPeerTest() : server(ServerOptions()) {
        SetErrorHandler([](std::string_view) {});
        std::string error;
        EXPECT_TRUE(server.channel->Listen("unix:", &error)) << error;
    }
    ~RawPeerTest() override { SetErrorHandler({}); }

    RawEnd Dial() const {
        std::string error;
        return RawEnd(ConnectSocket(server.channel->Address(), &error));
    }

    ChannelEnd server;
};

TEST_F(RawPeerTest, IsShutOutWithAClearErrorWhenItBreaksTheRulesAndTheNextIsServed) {
    const char* items = "a frame has items that are not of its type";
    const char* first = "a connection begins with one hello";
    const char* right = "a frame is of a type that the peer has no right to";
    const auto hello = [](uint32_t version, uint32_t role) {
        return MakeFrame(FrameType::Hello, {Value(version), Value(role), Value(uint64_t{1}), Value(uint64_t{0})});
    };
    struct Case {
        std::vector<Bytes> frames;
        const char* error;
    };
    for (const Case& c : std::vector<Case>{
             {{MakeFrame(FrameType::Open, {Value(1u)})}, first},
             {{Hello(), Hello()}, first},
             {{hello(2, 0)}, "the peer speaks another version"},
             {{hello(1, 1)}, "the peer has the same role"},
             {{MakeFrame(FrameType::Hello, {})}, items},
             {{Hello({Value(1u)})}, items},
             {{Hello({Value(1u), Value(1u)})}, items},
             {{Hello(), MakeFrame(FrameType::Accept, {Value(1u), Value(int32_t{0})})}, right},
             {{Hello(), MakeFrame(FrameType::SideChannelEnd, {})}, right},
             {{Hello(), MakeFrame(FrameType::Greeting, {Value(uint64_t{1})})}, right},
             {{Hello(), MakeFrame(FrameType::Open, {})}, items},
             {{Hello(), MakeFrame(FrameType::Open, {Value(1u), Value(1u)})}, items},
             {{Hello(), MakeFrame(FrameType::Open, {Value("1")})}, items},
             {{Hello(), MakeFrame(FrameType::ObjectDestroyed, {Value(std::string(kMaxNameBytes + 1, 'n'))})}, items},
             {{Hello(), WithRole(FrameType::Close, ItemRole::ReturnValue, "")}, items},
             {{Hello(), WithRole(FrameType::Post, ItemRole::ReturnValue, "")}, items},
             {{Hello(), WithRole(FrameType::Reply, ItemRole::NamedParam, "n")}, items},
         }) {
        RawEnd peer = Dial();
        for (const Bytes& frame : c.frames) peer.Send(frame);
        peer.AwaitEnd();
        EXPECT_EQ(server.channel->LastError(), c.error);
    }

    RawEnd lost = Dial();
    lost.Send(Hello());
    lost.SendAsItIs(MakeFrame(FrameType::Open, {Value(1u)}));
    lost.AwaitEnd();
    EXPECT_EQ(server.channel->LastError(), "a frame is out of sequence");

    RawEnd next = Dial();
    next.Send(Hello());
    next.Send(MakeFrame(FrameType::Open, {Value(1u)}));
    EXPECT_EQ(server.TakeUntil("channel 2").back(), "channel 2");
}

TEST_F(RawPeerTest, ItsClaimsOfWhatItReceivedAreChecked) {
    uint64_t serverEnd = 0;
    {
        RawEnd peer = Dial();
        peer.Send(Hello());
        serverEnd = peer.Await(FrameType::Hello)[2].number;
        server.TakeUntil("connection 2");
    }
    server.TakeUntil("connection 0");
    RawEnd peer = Dial();
    peer.Send(MakeFrame(FrameType::Hello,
                        {Value(1u), Value(0u), Value(uint64_t{77}), Value(serverEnd), Value(5u), Value(uint64_t{3})}));
    peer.AwaitEnd();
    EXPECT_EQ(server.channel->LastError(), "the peer has received more than was sent");
    EXPECT_TRUE(server.channel->Counts().empty());
}

TEST_F(RawPeerTest, MessagesAnswersAndAbortsThatNobodyAskedForDoNoHarm) {
    RawEnd peer = Dial();
    for (const Bytes& frame : std::vector<Bytes>{
             Hello(),
             WithRole(FrameType::Request, ItemRole::Param, ""),
             WithRole(FrameType::Reply, ItemRole::ReturnValue, ""),
             MakeFrame(FrameType::Abort, {Value(1u)}),
             MakeFrame(FrameType::Close, {Value(9u)}),
             MakeFrame(FrameType::ObjectReady, {Value("x"), Value(1u)}),
             MakeFrame(FrameType::ObjectDestroyed, {Value("x")}),
             MakeFrame(FrameType::SideChannelRequest, {Value("x"), Value(1u), Value(uint64_t{5})}),
             MakeFrame(FrameType::SideChannelSwitch, {Value("x"), Value(uint64_t{5})}),
             MakeFrame(FrameType::SideChannelRefused, {Value("x"), Value(uint64_t{5})}),
             MakeFrame(FrameType::ObjectCreated, {Value("early"), Value(1u), Value(0u)}),
             MakeFrame(FrameType::Open, {Value(1u)}),
             MakeFrame(FrameType::Open, {Value(2u)}),
             MakeFrame(FrameType::ObjectCreated, {Value("late"), Value(1u), Value(0u)}),
         }) {
        peer.Send(frame);
    }
    EXPECT_EQ(server.TakeUntil("peer late"), (Texts{"connection 2", "channel 2", "peer late"}));
    EXPECT_EQ(server.Total().undeliverable, 1u);
    EXPECT_EQ(server.channel->LastError(), "");
}

// The peer takes nothing in: the sender waits, and a fall from either end lets it go.
TEST(DeafPeer, AFallWakesAnInvokeThatWaitsForIt) {
    ServerOfRawClient ends;
    for (const bool post : {true, false}) {
        ends.ConnectObject();
        std::atomic<bool> returned{false};
        uint32_t id = 0;
        std::thread sender([&] {
            id = ends.server.Send(ends.hObject, 1, 32 << 20, post);
            returned = true;
        });
        ends.client->Swallow(1 << 20);
        EXPECT_FALSE(returned);
        if (post)
            ends.server.channel->Interrupt();
        else
            ends.client.reset();
        sender.join();
        EXPECT_NE(id, 0u);
        EXPECT_EQ(ends.server.TakeUntil("connection 0").size(), post ? 2u : 3u);
        ServiceChannel::DestroyObject(ends.hObject);
        ends.Dial();
    }
    EXPECT_EQ(ends.server.Total().accepted, 2u);
    EXPECT_EQ(ContextTable::Live(), 0u);
}

}  // namespace
