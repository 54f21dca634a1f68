#include "standin/qscservice/ServiceEnd.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "standin/qscservice/MessageContext.h"
#include "tests/standin/ChannelEnd.h"

namespace {

using namespace qscservice;

constexpr uint32_t kDeferred = 9;

std::string Describe(const std::optional<Value>& value) {
    if (!value) return "none";
    if (value->kind == QSC_VT_LPSTR) return std::string(value->text);
    if (value->kind == QSC_VT_BLOB) return std::to_string(value->blob.size()) + " bytes";
    return std::to_string(value->number);
}

// Writes down what it hears, and answers requests with their parameters, or later.
class NotingEnd {
public:
    explicit NotingEnd(Role role)
        : end({.onReady = [this] { journal.Add("ready"); },
               .onNotReady = [this] { journal.Add("not ready"); },
               .onMessage = [this](InboundMessage& message) { OnMessage(message); },
               .onDone = [this](uint32_t, InboundMessage& answer) { OnDone(answer); },
               .onAbort = [this](uint32_t, uint32_t reason) { journal.Add("abort " + std::to_string(reason)); }},
              {.channel = {.role = role}}) {}

    Journal journal;
    std::atomic<void*> ticket{nullptr};
    ServiceEnd end;

private:
    void OnMessage(InboundMessage& message) {
        std::string line = std::to_string(message.Command()) + (message.IsRequest() ? " request" : " post");
        for (int i = 0; i < message.ParamCount(); ++i) line += " " + Describe(message.Param(i));
        if (!message.IsRequest()) {
            EXPECT_EQ(message.Defer(), nullptr);
            EXPECT_FALSE(message.AddReturnValue(Value(1u)));
        } else if (message.Command() == kDeferred) {
            ticket = message.Defer();
            EXPECT_EQ(message.Defer(), nullptr);
        } else {
            for (int i = 0; i < message.ParamCount(); ++i) EXPECT_TRUE(message.AddReturnValue(*message.Param(i)));
        }
        journal.Add(line);
    }

    void OnDone(InboundMessage& answer) {
        std::string line = "done";
        for (int i = 0; i < answer.ReturnValueCount(); ++i) line += " " + Describe(answer.ReturnValue(i));
        journal.Add(line);
    }
};

class ServiceEndTest : public testing::Test {
protected:
    void Connect() {
        std::string error;
        ASSERT_TRUE(server.Channel().Listen("unix:", &error)) << error;
        ASSERT_TRUE(client.Channel().Dial(server.Channel().Address(), &error)) << error;
        ASSERT_TRUE(client.WaitReady(kLongMS));
        ASSERT_TRUE(server.WaitReady(kLongMS));
    }

    NotingEnd atServer{Role::Server};
    NotingEnd atClient{Role::Client};
    ServiceEnd& server = atServer.end;
    ServiceEnd& client = atClient.end;
};

TEST_F(ServiceEndTest, CarriesMessagesOnBothObjectsAndRefusesWhatItCannotCarry) {
    const std::vector<uint8_t> bytes(100000, 7);
    const std::vector<Value> tooMany(kMaxItems + 1, Value(1u));
    EXPECT_TRUE(client.WaitNotReady(0));
    EXPECT_FALSE(client.Post(1, {}));
    EXPECT_FALSE(client.Request(1, {}, RPCChannelType::Control).has_value());
    Connect();
    EXPECT_FALSE(client.Post(1, Values(tooMany)));
    EXPECT_FALSE(client.Request(1, {Value(std::string_view("a\0b", 3))}).has_value());
    EXPECT_EQ(ContextTable::Live(), 0u);
    EXPECT_TRUE(client.Post(1, {Value("text"), Value(bytes)}));
    EXPECT_TRUE(client.Post(2, {Value(5u)}, RPCChannelType::Control));
    EXPECT_TRUE(client.Request(3, {Value("id"), Value(bytes)}));
    EXPECT_EQ(atServer.journal.Take(4),
              (Texts{"ready", "1 post text 100000 bytes", "2 post 5", "3 request id 100000 bytes"}));
    EXPECT_EQ(atClient.journal.Take(2), (Texts{"ready", "done id 100000 bytes"}));
    EXPECT_TRUE(server.Post(4, {Value(uint64_t{1} << 40)}));
    EXPECT_EQ(atClient.journal.Take(1), Texts{"4 post 1099511627776"});
}

TEST_F(ServiceEndTest, AnswersADeferredRequestOnceFromAnyThreadAndNotAfterAFall) {
    Connect();
    EXPECT_FALSE(server.Respond(nullptr, {}));
    ASSERT_TRUE(client.Request(kDeferred, {}));
    atServer.journal.TakeUntil("9 request");
    std::thread([&] {
        EXPECT_TRUE(server.Respond(atServer.ticket, {Value("late")}));
        EXPECT_FALSE(server.Respond(atServer.ticket, {Value("later")}));
    }).join();
    EXPECT_EQ(atClient.journal.Take(2), (Texts{"ready", "done late"}));

    ASSERT_TRUE(client.Request(kDeferred, {}));
    atServer.journal.TakeUntil("9 request");
    EXPECT_FALSE(server.WaitClosed(0));
    server.Channel().Interrupt();
    EXPECT_TRUE(server.WaitClosed(kLongMS));
    EXPECT_TRUE(server.WaitNotReady(kLongMS));
    EXPECT_FALSE(server.Respond(atServer.ticket, {Value("too late")}));
    EXPECT_EQ(atClient.journal.Take(2), (Texts{"abort 1", "not ready"}));
}

}  // namespace
