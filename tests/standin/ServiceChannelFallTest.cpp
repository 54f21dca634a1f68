// Falls of the connection: who hears what, what became of each message, and peers that don't keep to the format.
#include <gtest/gtest.h>

#include <future>
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
        server.AwaitReceived(goal);
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
    std::thread([&] { EXPECT_TRUE(server.channel->Respond(tickets[1], {1u})); }).join();
    EXPECT_EQ(client.journal.Take(1), Texts{"done " + second});
    client.channel->Interrupt();
    EXPECT_EQ(client.journal.Take(3)[0], "abort " + first + " 1 1");
    server.TakeUntil("connection 0");
    for (void* ticket : tickets) EXPECT_FALSE(server.channel->Respond(ticket));
    EXPECT_EQ(ContextTable::Live(), 0u);
}

class RawPeerTest : public testing::Test, public ServerOfRawClients {
protected:
    RawPeerTest() {
        SetErrorHandler([](std::string_view) {});
    }
    ~RawPeerTest() override { SetErrorHandler({}); }
};

TEST_F(RawPeerTest, IsShutOutWithAClearErrorWhenItBreaksTheRulesAndTheNextIsServed) {
    const char* items = "a frame has items that are not of its type";
    const char* first = "a connection begins with one hello";
    const char* right = "a frame is of a type that the peer has no right to";
    struct Case {
        std::vector<Bytes> frames;
        const char* error;
    };
    for (const Case& c : std::vector<Case>{
             {{MakeFrame(FrameType::Open, {1u})}, first},
             {{Hello(), Hello()}, first},
             {{MakeFrame(FrameType::Hello, {2u, 0u, uint64_t{1}, uint64_t{0}})}, "the peer speaks another version"},
             {{Hello(Role::Server)}, "the peer has the same role"},
             {{Hello(Role::Client, 0, {1u})}, items},
             {{Hello(), MakeFrame(FrameType::Accept, {1u, int32_t{0}})}, right},
             {{Hello(), MakeFrame(FrameType::SideChannelEnd, {})}, right},
             {{Hello(), MakeFrame(FrameType::Open, {1u, 1u})}, items},
             {{Hello(), MakeFrame(FrameType::Open, {"1"})}, items},
             {{Hello(), MakeFrame(FrameType::ObjectDestroyed, {std::string(kMaxNameBytes + 1, 'n')})}, items},
             {{Hello(), FrameOf(FrameType::Close, ItemRole::ReturnValue)}, items},
             {{Hello(), FrameOf(FrameType::Post, ItemRole::ReturnValue)}, items},
         }) {
        RawEnd peer = Dial();
        for (const Bytes& frame : c.frames) peer.Send(frame);
        peer.AwaitEnd();
        EXPECT_EQ(server.channel->LastError(), c.error);
    }

    RawEnd lost = Dial();
    lost.Send(Hello());
    lost.SendAsItIs(MakeFrame(FrameType::Open, {1u}));
    lost.AwaitEnd();
    EXPECT_EQ(server.channel->LastError(), "a frame is out of sequence");

    RawEnd next = Dial();
    next.Send(Hello());
    next.Send(MakeFrame(FrameType::Open, {1u}));
    server.TakeUntil("channel 2");
}

TEST_F(RawPeerTest, ItsClaimsOfWhatItReceivedAreChecked) {
    uint64_t serverEnd = 0;
    {
        RawEnd known = Dial();
        known.Send(Hello());
        serverEnd = known.Await(FrameType::Hello)[2].number;
        server.TakeUntil("connection 2");
    }
    server.TakeUntil("connection 0");
    RawEnd liar = Dial();
    liar.Send(Hello(Role::Client, serverEnd, {5u, uint64_t{3}}));
    liar.AwaitEnd();
    EXPECT_EQ(server.channel->LastError(), "the peer has received more than was sent");
}

// The peer takes nothing in: the sender waits, and a fall from either end lets it go.
TEST(DeafPeer, AFallWakesAnInvokeThatWaitsForIt) {
    ServerOfRawClient ends;
    for (const bool post : {true, false}) {
        ends.ConnectObject();
        auto sent = std::async(std::launch::async, [&] { return ends.server.Send(ends.hObject, 1, 32 << 20, post); });
        ends.client->Swallow(1 << 20);
        EXPECT_EQ(sent.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
        if (post)
            ends.server.channel->Interrupt();
        else
            ends.client.reset();
        EXPECT_NE(sent.get(), 0u);
        EXPECT_EQ(ends.server.TakeUntil("connection 0").size(), post ? 2u : 3u);
        ServiceChannel::DestroyObject(ends.hObject);
        ends.Open();
    }
    EXPECT_EQ(ends.server.Total().accepted, 2u);
    EXPECT_EQ(ContextTable::Live(), 0u);
}

}  // namespace
