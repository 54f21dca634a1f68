// Falls of the connection: who hears what, what became of each message, and peers that don't keep to the format.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "standin/qscservice/ServiceTables.h"
#include "tests/standin/ChannelEnd.h"

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
        client.journal.TakeUntil("connection 0");
        server.journal.TakeUntil("connection 0");
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
    for (const bool byClient : {true, false}) {
        ConnectObject();
        std::mutex gate;
        std::unique_lock closed(gate);
        server.onMessage = [&](void*, uint32_t) { const std::lock_guard passed(gate); };
        const std::string request = std::to_string(client.Request(atClient, 1));
        EXPECT_EQ(client.channel->OpenRequests(), 1u);
        (byClient ? client : server).channel->Interrupt();
        closed.unlock();
        EXPECT_EQ(client.journal.TakeUntil("connection 0"),
                  (Texts{"abort " + request + " 1 1", "channel 0", "connection 0"}));
        EXPECT_EQ(server.journal.TakeUntil("connection 0"), (Texts{"channel 0", "connection 0"}));
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

    // With a third party in between, nothing is known of what the one before had received.
    ConnectObject();
    server.onMessage = {};
    ASSERT_NE(client.Send(atClient, 1), 0u);
    EXPECT_EQ(server.journal.Take(1), Texts{"object message 1"});
    client.channel->Interrupt();
    client.journal.TakeUntil("connection 0");
    server.journal.TakeUntil("connection 0");
    {
        ChannelEnd other({});
        std::string error;
        ASSERT_TRUE(other.channel->Dial(server.channel->Address(), &error)) << error;
        other.journal.TakeUntil("channel 2");
    }
    server.journal.TakeUntil("connection 0");
    ServiceChannel::DestroyObject(atServer);
    ServiceChannel::DestroyObject(atClient);
    std::string error;
    ASSERT_TRUE(client.channel->Reconnect(&error)) << error;
    AwaitOpen();
    ExpectCount(client.channel->Counts()[1], 4, 1, 2);
    ConnectObject();
    FallAfter(1, {1, 1});
    ExpectCount(client.channel->Counts()[1], 6, 2, 3);
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

// Threads post and ask while the connection falls over and over: no message goes unaccounted for, and no request open.
TEST_F(FallTest, KeepsTheAccountWhileManyThreadsSend) {
    constexpr int kFalls = 25;
    constexpr int kThreads = 3;
    Open();
    std::atomic<void*> hObject{nullptr};
    std::atomic<bool> stop{false};
    std::atomic<uint64_t> accepted{0}, requests{0}, closed{0};
    server.onMessage = [](void*, uint32_t) {};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            for (uint32_t n = 0; !stop; ++n) {
                const bool post = n % 4 != 0;
                if (client.Send(hObject, static_cast<uint32_t>(i), n % 7 * 3000, post) == 0) continue;
                ++accepted;
                if (!post) ++requests;
            }
        });
    }
    const auto countClosed = [&](const Texts& lines) {
        for (const std::string& line : lines) {
            if (line.starts_with("done ") || line.starts_with("abort ")) ++closed;
        }
    };
    std::string error;
    for (int fall = 0; fall < kFalls; ++fall) {
        atServer = server.Create("object");
        countClosed(client.journal.TakeUntil("peer object"));
        atClient = client.Create("object");
        hObject = atClient;
        const uint64_t before = server.Total().delivered;
        while (server.Total().delivered < before + 50) std::this_thread::yield();
        (fall % 2 == 0 ? client : server).channel->Interrupt();
        countClosed(client.journal.TakeUntil("connection 0"));
        server.journal.TakeUntil("connection 0");
        ServiceChannel::DestroyObject(atServer);
        ServiceChannel::DestroyObject(atClient);
        ASSERT_TRUE(client.channel->Reconnect(&error)) << error;
        countClosed(client.journal.TakeUntil("channel 2"));
        server.journal.TakeUntil("channel 2");
    }
    stop = true;
    for (std::thread& thread : threads) thread.join();
    countClosed(client.journal.Take(0));
    const CommandCount sent = client.Total();
    const CommandCount received = server.Total();
    EXPECT_EQ(sent.accepted, accepted);
    EXPECT_EQ(sent.accepted, sent.confirmed + sent.cut);
    EXPECT_EQ(sent.confirmed, received.delivered + received.undeliverable);
    EXPECT_EQ(closed, requests);
    EXPECT_EQ(client.channel->OpenRequests(), 0u);
    EXPECT_EQ(ContextTable::Live(), 0u);
}

TEST_F(FallTest, ADeferredRequestFallsWithItsConnection) {
    Open();
    ConnectObject();
    std::vector<void*> tickets;
    server.onMessage = [&](void* hContext, uint32_t command) {
        EXPECT_FALSE(server.channel->Defer(nullptr));
        EXPECT_TRUE(server.channel->Defer(hContext));
        EXPECT_FALSE(server.channel->Defer(hContext));
        tickets.push_back(hContext);
        server.journal.Add("deferred " + std::to_string(command));
    };
    const std::string first = std::to_string(client.Request(atClient, 1));
    const std::string second = std::to_string(client.Request(atClient, 2));
    server.journal.Take(2);
    EXPECT_TRUE(server.channel->Respond(tickets[1], {Value(1u)}));
    EXPECT_EQ(client.journal.Take(1), Texts{"done " + second});
    EXPECT_FALSE(server.channel->Defer(tickets[0]));
    client.channel->Interrupt();
    EXPECT_EQ(client.journal.Take(3)[0], "abort " + first + " 1 1");
    server.journal.TakeUntil("connection 0");
    for (void* ticket : tickets) EXPECT_FALSE(server.channel->Respond(ticket));
    EXPECT_EQ(ContextTable::Live(), 0u);
}

// A client of raw frames against a real server.
class RawPeerTest : public testing::Test {
protected:
    RawPeerTest() : server(ServerOptions()) {
        SetErrorHandler([](std::string_view) {});
        std::string error;
        EXPECT_TRUE(server.channel->Listen("unix:", &error)) << error;
    }
    ~RawPeerTest() override { SetErrorHandler({}); }

    void Dial() {
        std::string error;
        socket = ConnectSocket(server.channel->Address(), &error);
        ASSERT_TRUE(socket.IsOpen()) << error;
        sequence = 0;
    }

    void Send(Bytes frame) {
        FrameHeader header;
        std::memcpy(&header, frame.data(), sizeof header);
        header.sequence = ++sequence;
        std::memcpy(frame.data(), &header, sizeof header);
        ASSERT_EQ(send(socket.Get(), frame.data(), frame.size(), MSG_NOSIGNAL), static_cast<ssize_t>(frame.size()));
    }

    // Reads until the server hangs up.
    void AwaitEnd() {
        char bytes[4096];
        while (recv(socket.Get(), bytes, sizeof bytes, 0) > 0) {
        }
    }

    static Bytes Hello(std::vector<Value> tail = {}) {
        std::vector<Value> values = {Value(1u), Value(0u), Value(uint64_t{77}), Value(uint64_t{0})};
        values.insert(values.end(), tail.begin(), tail.end());
        return MakeFrame(FrameType::Hello, values);
    }

    static Bytes WithRole(FrameType type, ItemRole role, const char* name) {
        Bytes frame;
        BeginFrame(&frame);
        AppendItem(&frame, role, name, Value(1u));
        FrameHeader header = {};
        header.type = type;
        header.itemCount = 1;
        SealFrame(&frame, header);
        return frame;
    }

    ChannelEnd server;
    Fd socket;
    uint32_t sequence = 0;
};

TEST_F(RawPeerTest, IsShutOutWithAClearErrorWhenItBreaksTheRulesAndTheNextIsServed) {
    const char* items = "a frame has items that are not of its type";
    const char* first = "a connection begins with one hello";
    const char* right = "a frame is of a type that the peer has no right to";
    const std::string longName(kMaxNameBytes + 1, 'n');
    const auto hello = [](uint32_t version, uint32_t role) {
        return MakeFrame(FrameType::Hello, {Value(version), Value(role), Value(uint64_t{1}), Value(uint64_t{0})});
    };
    struct Case {
        std::vector<Bytes> frames;
        const char* error;
    };
    const std::vector<Case> cases = {
        {{Bytes(64, 0xAA)}, "frame does not begin with the frame mark"},
        {{MakeFrame(FrameType::Open, {Value(1u)})}, first},
        {{Hello(), Hello()}, first},
        {{hello(2, 0)}, "the peer speaks another version"},
        {{hello(1, 1)}, "the peer has the same role"},
        {{MakeFrame(FrameType::Hello, {})}, items},
        {{Hello({Value(1u)})}, items},
        {{Hello({Value(1u), Value(1u)})}, items},
        {{Hello(std::vector<Value>(1, Value("x")))}, items},
        {{Hello(), MakeFrame(FrameType::Accept, {Value(1u), Value(int32_t{0})})}, right},
        {{Hello(), MakeFrame(FrameType::Reject, {Value(1u)})}, right},
        {{Hello(), MakeFrame(FrameType::SideChannelEnd, {})}, right},
        {{Hello(), MakeFrame(FrameType::Greeting, {Value(uint64_t{1})})}, right},
        {{Hello(), MakeFrame(FrameType::Open, {})}, items},
        {{Hello(), MakeFrame(FrameType::Open, {Value(1u), Value(1u)})}, items},
        {{Hello(), MakeFrame(FrameType::Open, {Value("1")})}, items},
        {{Hello(), MakeFrame(FrameType::ObjectCreated, {Value("x"), Value(1u)})}, items},
        {{Hello(), MakeFrame(FrameType::ObjectDestroyed, {Value(longName)})}, items},
        {{Hello(), WithRole(FrameType::Close, ItemRole::ReturnValue, "")}, items},
        {{Hello(), WithRole(FrameType::Post, ItemRole::ReturnValue, "")}, items},
        {{Hello(), WithRole(FrameType::Reply, ItemRole::NamedParam, "n")}, items},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        Dial();
        for (const Bytes& frame : cases[i].frames) {
            if (frame[0] == 0xAA)
                ASSERT_EQ(send(socket.Get(), frame.data(), frame.size(), 0), 64);
            else
                Send(frame);
        }
        AwaitEnd();
        EXPECT_EQ(server.channel->LastError(), cases[i].error) << i;
    }

    Dial();
    Send(Hello());
    ++sequence;
    Send(MakeFrame(FrameType::Open, {Value(1u)}));
    AwaitEnd();
    EXPECT_EQ(server.channel->LastError(), "a frame is out of sequence");

    Dial();
    Send(Hello());
    Send(MakeFrame(FrameType::Open, {Value(1u)}));
    EXPECT_EQ(server.journal.TakeUntil("channel 2").back(), "channel 2");
}

TEST_F(RawPeerTest, ItsClaimsOfWhatItReceivedAreChecked) {
    // The server meets end 77, which then claims to have received what was never sent.
    uint64_t serverEnd = 0;
    const auto meet = [&](std::vector<Value> tail) {
        Dial();
        std::vector<Value> values = {Value(1u), Value(0u), Value(uint64_t{77}), Value(serverEnd)};
        values.insert(values.end(), tail.begin(), tail.end());
        Send(MakeFrame(FrameType::Hello, values));
        Bytes received(4096);
        FrameView hello;
        const ssize_t size = recv(socket.Get(), received.data(), received.size(), 0);
        ASSERT_GT(size, 0);
        ASSERT_EQ(DecodeFrame(std::span(received).first(static_cast<size_t>(size)), &hello).status,
                  DecodeResult::Complete);
        serverEnd = ItemValues(hello)[2].number;
    };
    meet({});
    server.journal.TakeUntil("connection 2");
    socket.Reset();
    server.journal.TakeUntil("connection 0");
    meet({Value(5u), Value(uint64_t{3})});
    AwaitEnd();
    EXPECT_EQ(server.channel->LastError(), "the peer has received more than was sent");
    EXPECT_TRUE(server.channel->Counts().empty());
}

TEST_F(RawPeerTest, MessagesAnswersAndAbortsThatNobodyAskedForDoNoHarm) {
    Dial();
    Send(Hello());
    Send(WithRole(FrameType::Request, ItemRole::Param, ""));
    Send(WithRole(FrameType::Reply, ItemRole::ReturnValue, ""));
    Send(MakeFrame(FrameType::Abort, {Value(1u)}));
    Send(MakeFrame(FrameType::Close, {Value(9u)}));
    Send(MakeFrame(FrameType::ObjectReady, {Value("x"), Value(1u)}));
    Send(MakeFrame(FrameType::ObjectDestroyed, {Value("x")}));
    Send(MakeFrame(FrameType::SideChannelRequest, {Value("x"), Value(1u), Value(uint64_t{5})}));
    Send(MakeFrame(FrameType::SideChannelSwitch, {Value("x"), Value(uint64_t{5})}));
    Send(MakeFrame(FrameType::SideChannelRefused, {Value("x"), Value(uint64_t{5})}));
    Send(MakeFrame(FrameType::ObjectCreated, {Value("early"), Value(1u), Value(0u)}));
    Send(MakeFrame(FrameType::Open, {Value(1u)}));
    Send(MakeFrame(FrameType::Open, {Value(2u)}));
    Send(MakeFrame(FrameType::ObjectCreated, {Value("late"), Value(1u), Value(0u)}));
    EXPECT_EQ(server.journal.TakeUntil("peer late"), (Texts{"connection 2", "channel 2", "peer late"}));
    EXPECT_EQ(server.Total().undeliverable, 1u);
    EXPECT_EQ(server.channel->LastError(), "");
}

// The peer takes nothing in: the sender waits, and a fall lets it go.
TEST_F(RawPeerTest, AFallWakesAnInvokeThatWaitsForAPeerThatDoesNotRead) {
    for (const bool post : {true, false}) {
        Dial();
        Send(Hello());
        Send(MakeFrame(FrameType::Open, {Value(1u)}));
        server.journal.TakeUntil("channel 2");
        void* hObject = server.Create("object");
        Send(MakeFrame(FrameType::ObjectCreated, {Value("object"), Value(1u), Value(0u)}));
        server.journal.TakeUntil("object state");
        std::atomic<bool> returned{false};
        uint32_t id = 0;
        std::thread sender([&] {
            id = server.Send(hObject, 1, 32 << 20, post);
            returned = true;
        });
        Bytes some(1 << 20);
        ASSERT_GT(recv(socket.Get(), some.data(), some.size(), MSG_WAITALL), 0);
        EXPECT_FALSE(returned);
        server.channel->Interrupt();
        sender.join();
        EXPECT_NE(id, 0u);
        const Texts fall = server.journal.TakeUntil("connection 0");
        EXPECT_EQ(fall.size(), post ? 2u : 3u);
        ServiceChannel::DestroyObject(hObject);
    }
    EXPECT_EQ(server.Total().accepted, 2u);
    EXPECT_EQ(ContextTable::Live(), 0u);
}

}  // namespace
