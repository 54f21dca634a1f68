#include "standin/qscservice/ServiceEnd.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "standin/qscservice/MessageContext.h"

namespace {

using namespace qscservice;

using Texts = std::vector<std::string>;

constexpr uint32_t kLongMS = 20000;

// Lines that handlers write and a test waits for.
class Journal {
public:
    void Add(const std::string& line) {
        const std::lock_guard lock(m_mutex);
        m_lines.push_back(line);
        m_changed.notify_all();
    }

    // The lines so far, once there are that many.
    Texts WaitFor(size_t count) {
        std::unique_lock lock(m_mutex);
        m_changed.wait_for(lock, std::chrono::milliseconds(kLongMS), [&] { return m_lines.size() >= count; });
        return m_lines;
    }

    void Clear() {
        const std::lock_guard lock(m_mutex);
        m_lines.clear();
    }

private:
    std::mutex m_mutex;  // guards m_lines
    std::condition_variable m_changed;
    Texts m_lines;
};

ServiceEnd::Options ClientOptions(Delivery delivery = Delivery::Threaded) {
    ServiceEnd::Options options;
    options.channel.role = Role::Client;
    options.channel.delivery = delivery;
    return options;
}

std::string Describe(const std::optional<Value>& value) {
    if (!value) return "none";
    if (value->kind == QSC_VT_LPSTR) return std::string(value->text);
    if (value->kind == QSC_VT_BLOB) return std::to_string(value->blob.size()) + " bytes";
    return std::to_string(value->number);
}

std::string DescribeParams(const InboundMessage& message) {
    std::string text = std::to_string(message.Command()) + (message.IsRequest() ? " request:" : " post:");
    for (int i = 0; i < message.ParamCount(); ++i) text.append(" ").append(Describe(message.Param(i)));
    return text;
}

std::string DescribeAnswer(const InboundMessage& message) {
    std::string text = "done";
    for (int i = 0; i < message.ReturnValueCount(); ++i) text.append(" ").append(Describe(message.ReturnValue(i)));
    return text;
}

// An echoing server end and a client end that writes down what it hears.
class ServiceEndPair : public testing::Test {
protected:
    void Connect(const std::string& address, Delivery delivery = Delivery::Threaded) {
        std::string error;
        server = std::make_unique<ServiceEnd>(
            ServiceEnd::Handlers{.onReady = [this] { atServer.Add("ready"); },
                                 .onNotReady = [this] { atServer.Add("not ready"); },
                                 .onMessage = [this](InboundMessage& message) { OnServerMessage(message); },
                                 .onDone = {},
                                 .onAbort = [this](uint32_t, uint32_t) { atServer.Add("abort"); }});
        client = std::make_unique<ServiceEnd>(
            ServiceEnd::Handlers{
                .onReady = [this] { atClient.Add("ready"); },
                .onNotReady = [this] { atClient.Add("not ready"); },
                .onMessage = [this](InboundMessage& message) { atClient.Add(DescribeParams(message)); },
                .onDone = [this](uint32_t, InboundMessage& answer) { atClient.Add(DescribeAnswer(answer)); },
                .onAbort = [this](uint32_t, uint32_t reason) { atClient.Add("abort " + std::to_string(reason)); }},
            ClientOptions(delivery));
        ASSERT_TRUE(server->Channel().Listen(address, &error)) << error;
        ASSERT_TRUE(client->Channel().Dial(server->Channel().Address(), &error)) << error;
        ASSERT_TRUE(client->WaitReady(kLongMS));
        ASSERT_TRUE(server->WaitReady(kLongMS));
    }

    void OnServerMessage(InboundMessage& message) {
        const std::string line = DescribeParams(message);
        if (!message.IsRequest()) {
            EXPECT_EQ(message.Defer(), nullptr);
            EXPECT_FALSE(message.AddReturnValue(Value(1u)));
        } else if (message.Command() == kDeferred) {
            const std::lock_guard lock(ticketMutex);
            ticket = message.Defer();
            EXPECT_NE(ticket, nullptr);
        } else {
            for (int i = 0; i < message.ParamCount(); ++i) EXPECT_TRUE(message.AddReturnValue(*message.Param(i)));
        }
        atServer.Add(line);
    }

    void* Ticket() {
        const std::lock_guard lock(ticketMutex);
        return ticket;
    }

    static constexpr uint32_t kDeferred = 9;

    Journal atServer, atClient;
    std::mutex ticketMutex;  // guards ticket
    void* ticket = nullptr;
    std::unique_ptr<ServiceEnd> server, client;
};

TEST_F(ServiceEndPair, CarriesPostsAndRequestsOnBothObjects) {
    const std::vector<uint8_t> bytes(100000, 7);
    for (const std::string address : {"unix:", "tcp:127.0.0.1:0"}) {
        SCOPED_TRACE(address);
        Connect(address);
        EXPECT_TRUE(client->Post(1, {Value("text"), Value(bytes)}));
        EXPECT_TRUE(client->Post(2, {Value(5u)}, RPCChannelType::Control));
        const std::optional<uint32_t> request = client->Request(3, {Value("id"), Value(bytes)});
        EXPECT_TRUE(request.has_value());
        EXPECT_EQ(atServer.WaitFor(4),
                  (Texts{"ready", "1 post: text 100000 bytes", "2 post: 5", "3 request: id 100000 bytes"}));
        atClient.WaitFor(2);  // the answer goes out behind the handler
        EXPECT_EQ(atClient.WaitFor(2).back(), "done id 100000 bytes");
        EXPECT_TRUE(server->Post(4, {Value(uint64_t{1} << 40)}));
        EXPECT_EQ(atClient.WaitFor(3).back(), "4 post: 1099511627776");
        client.reset();
        EXPECT_TRUE(server->WaitClosed(kLongMS));
        server.reset();
        atServer.Clear();
        atClient.Clear();
    }
    EXPECT_EQ(ContextTable::Live(), 0u);
}

TEST_F(ServiceEndPair, AnswersADeferredRequestOnceAndFromAnyThread) {
    Connect("unix:");
    ASSERT_TRUE(client->Request(kDeferred, {Value("kept"), Value(1u)}));
    ASSERT_EQ(atServer.WaitFor(2).back(), "9 request: kept 1");
    std::thread([&] {
        EXPECT_TRUE(server->Respond(Ticket(), {Value("late")}));
        EXPECT_FALSE(server->Respond(Ticket(), {Value("later")}));
    }).join();
    EXPECT_EQ(atClient.WaitFor(2).back(), "done late");
    EXPECT_FALSE(server->Respond(nullptr, {}));

    ASSERT_TRUE(client->Request(kDeferred, {}));
    ASSERT_EQ(atServer.WaitFor(3).back(), "9 request:");
    server->Channel().Interrupt();
    EXPECT_TRUE(server->WaitNotReady(kLongMS));
    EXPECT_FALSE(server->Respond(Ticket(), {Value("too late")}));
    EXPECT_EQ(atClient.WaitFor(3).at(2).substr(0, 5), "abort");
}

TEST_F(ServiceEndPair, FallsAndRisesWithTheConnection) {
    Connect("unix:");
    EXPECT_FALSE(server->WaitNotReady(0));
    EXPECT_FALSE(server->WaitClosed(0));
    for (int round = 0; round < 3; ++round) {
        client->Channel().Interrupt();
        EXPECT_TRUE(server->WaitClosed(kLongMS));
        ASSERT_TRUE(client->WaitNotReady(kLongMS));
        EXPECT_FALSE(client->Post(1, {}));
        std::string error;
        ASSERT_TRUE(client->Channel().Reconnect(&error)) << error;
        ASSERT_TRUE(client->WaitReady(kLongMS));
        ASSERT_TRUE(server->WaitReady(kLongMS));
        EXPECT_TRUE(client->Post(1, {Value(static_cast<uint32_t>(round))}));
    }
    EXPECT_EQ(atClient.WaitFor(7), (Texts{"ready", "not ready", "ready", "not ready", "ready", "not ready", "ready"}));
    EXPECT_EQ(atServer.WaitFor(10), (Texts{"ready", "not ready", "ready", "1 post: 0", "not ready", "ready",
                                           "1 post: 1", "not ready", "ready", "1 post: 2"}));
}

TEST_F(ServiceEndPair, APolledClientIsDeliveredToByItsWaits) {
    Connect("unix:", Delivery::Polled);
    const std::thread::id here = std::this_thread::get_id();
    client->Channel().SetPollThread(here);
    ASSERT_TRUE(client->Request(3, {Value("polled")}));
    atServer.WaitFor(2);
    while (atClient.WaitFor(1).size() < 2) client->Channel().PollWait(10);
    EXPECT_EQ(atClient.WaitFor(2).back(), "done polled");
    server->Channel().Interrupt();
    EXPECT_TRUE(client->WaitNotReady(kLongMS));
}

TEST_F(ServiceEndPair, RefusesWhatItCannotCarry) {
    Connect("unix:");
    const std::vector<Value> tooMany(kMaxItems + 1, Value(1u));
    EXPECT_FALSE(client->Post(1, Values(tooMany)));
    EXPECT_FALSE(client->Post(1, {Value(std::string_view("a\0b", 3))}));
    EXPECT_FALSE(client->Request(1, Values(tooMany)).has_value());
    EXPECT_EQ(ContextTable::Live(), 0u);
    EXPECT_TRUE(client->Post(2, {}));
    EXPECT_EQ(atServer.WaitFor(2).back(), "2 post:");
}

TEST(ServiceEndTest, RefusesMessagesUntilItIsReady) {
    ServiceEnd end({});
    EXPECT_FALSE(end.IsReady());
    EXPECT_FALSE(end.WaitReady(0));
    EXPECT_TRUE(end.WaitNotReady(0));
    EXPECT_FALSE(end.WaitClosed(0));
    EXPECT_FALSE(end.Post(1, {}));
    EXPECT_FALSE(end.Request(1, {}, RPCChannelType::Control).has_value());
    EXPECT_EQ(ContextTable::Live(), 0u);
}

// Agents answer from within their handler while the client keeps sending: neither waits for the other for ever.
TEST(ServiceEndTest, BothEndsMaySendFromTheirHandlersWhileTheyAreSentTo) {
    constexpr uint32_t kMessages = 2000;
    const std::vector<uint8_t> bytes(3000, 1);
    std::atomic<uint32_t> echoed{0};
    Journal finished;
    ServiceEnd* serverEnd = nullptr;
    ServiceEnd server({.onReady = {},
                       .onNotReady = {},
                       .onMessage = [&](InboundMessage& message) { serverEnd->Post(2, {*message.Param(0)}); },
                       .onDone = {},
                       .onAbort = {}});
    serverEnd = &server;
    ServiceEnd client({.onReady = {},
                       .onNotReady = {},
                       .onMessage =
                           [&](InboundMessage&) {
                               if (++echoed == kMessages) finished.Add("all");
                           },
                       .onDone = {},
                       .onAbort = {}},
                      ClientOptions());
    std::string error;
    ASSERT_TRUE(server.Channel().Listen("unix:", &error)) << error;
    ASSERT_TRUE(client.Channel().Dial(server.Channel().Address(), &error)) << error;
    ASSERT_TRUE(client.WaitReady(kLongMS));
    ASSERT_TRUE(server.WaitReady(kLongMS));
    for (uint32_t i = 0; i < kMessages; ++i) ASSERT_TRUE(client.Post(1, {Value(bytes)}));
    EXPECT_EQ(finished.WaitFor(1).size(), 1u);
    EXPECT_EQ(client.Channel().Counts()[2].delivered, kMessages);
    EXPECT_EQ(server.Channel().Counts()[1].delivered, kMessages);
}

}  // namespace
