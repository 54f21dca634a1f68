#include "standin/qscservice/ServiceEnd.h"

#include <gtest/gtest.h>

#include "standin/qscservice/MessageContext.h"
#include "tests/standin/ChannelEnd.h"

namespace {

using namespace qscservice;

TEST(ServiceEndTest, RefusesWhatItCannotCarryAndAnswersADeferredRequestOnce) {
    Journal atServer, atClient;
    void* ticket = nullptr;
    ServiceEnd server({.onReady = {},
                       .onNotReady = {},
                       .onMessage =
                           [&](InboundMessage& message) {
                               ticket = message.Defer();
                               atServer.Add(message.IsRequest() ? "request" : "post");
                           },
                       .onDone = {},
                       .onAbort = {}});
    ServiceEnd client(
        {.onReady = {},
         .onNotReady = {},
         .onMessage = {},
         .onDone = [&](uint32_t, InboundMessage& answer) { atClient.Add(answer.ReturnValue(0)->text.data()); },
         .onAbort = [&](uint32_t, uint32_t reason) { atClient.Add("abort " + std::to_string(reason)); }},
        {.channel = {.role = Role::Client}});
    std::string error;
    EXPECT_FALSE(client.Post(1, {}));
    ASSERT_TRUE(server.Channel().Listen("unix:", &error)) << error;
    ASSERT_TRUE(client.Channel().Dial(server.Channel().Address(), &error)) << error;
    ASSERT_TRUE(client.WaitReady(kLongMS));
    EXPECT_FALSE(client.Post(1, std::vector<Value>(kMaxItems + 1, Value(1u))));
    EXPECT_FALSE(client.Request(1, {Value(std::string_view("a\0b", 3))}).has_value());
    EXPECT_EQ(ContextTable::Live(), 0u);

    EXPECT_TRUE(client.Post(1, {}));
    atServer.TakeUntil("post");
    EXPECT_EQ(ticket, nullptr);
    EXPECT_TRUE(client.Request(2, {}));
    atServer.TakeUntil("request");
    EXPECT_TRUE(server.Respond(ticket, {Value("late")}));
    EXPECT_FALSE(server.Respond(ticket, {Value("later")}));
    EXPECT_EQ(atClient.Take(1), Texts{"late"});

    EXPECT_TRUE(client.Request(3, {}, RPCChannelType::Control));
    atServer.TakeUntil("request");
    server.Channel().Interrupt();
    EXPECT_TRUE(server.WaitClosed(kLongMS));
    EXPECT_FALSE(server.Respond(ticket, {Value("too late")}));
    EXPECT_EQ(atClient.Take(1), Texts{"abort 1"});
}

}  // namespace
