#include <cstdint>
#include <functional>
#include <limits>

#include "tests/plugin/PluginUnderTest.h"

namespace {

using qscservice::Op;
using qscservice::Value;

std::vector<uint8_t> Bytes(const std::string& text) {
    return {text.begin(), text.end()};
}

void Answered() {}

class Forwarding : public PluginUnderTest {
protected:
    struct Sender {
        const char* name;
        bool hasResult;
        std::function<bool(size_t, const char*)> send;  // true if there is no result
    };

    std::vector<Sender> Senders() const {
        const auto bytes = [](const char* data) { return reinterpret_cast<const unsigned char*>(data); };
        const auto post = [this](size_t size, const char* data) { return daemon.postMsg("Type", size, data), true; };
        const auto fast = [=, this](size_t size, const char* data) { return daemon.postMsgFast(size, bytes(data)); };
        const auto hid = [=, this](size_t size, const char* data) {
            return daemon.postHIDOptMsgFast(size, bytes(data));
        };
        const auto async = [this](size_t size, const char* data) {
            EXPECT_EQ(daemon.sendAsyncMsg("Type", size, data, Answered, nullptr, "id"), nullptr);
            return true;
        };
        return {{"PostMsg", false, post},
                {"PostMsgFast", true, fast},
                {"PostHIDOptMsgFast", true, hid},
                {"SendAsyncMsg", false, async}};
    }

    void ExpectDropped(const Sender& sender, const Texts& errors, size_t size = 4, const char* data = "text") {
        log.Clear();
        service.ClearSent();
        EXPECT_EQ(sender.send(size, data), !sender.hasResult) << sender.name;
        EXPECT_EQ(log.Texts(kLogError), errors) << sender.name;
        EXPECT_TRUE(service.Sent().empty()) << sender.name;
        EXPECT_EQ(service.UnsentContexts(), 0u) << sender.name;
    }
};

TEST_F(Forwarding, PutsEachMessageInItsWireForm) {
    StartReady();
    const std::vector<uint8_t> content = Bytes("content");
    for (const Sender& sender : Senders()) EXPECT_TRUE(sender.send(7, "content and more"));
    const auto sent = service.Sent();
    ASSERT_EQ(sent.size(), 4u);
    const std::vector<Value> expected[] = {{Value("Type"), Value(content)},
                                           {Value(content)},
                                           {Value(content)},
                                           {Value("Type"), Value("id"), Value(content)}};
    const uint32_t commands[] = {0, 1, 3, 2};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(sent[i].object, kData);
        EXPECT_EQ(sent[i].command, commands[i]);
        EXPECT_EQ(sent[i].params, expected[i]) << i;
        EXPECT_EQ(sent[i].post, commands[i] != 2);
    }
    EXPECT_EQ(log.Count("Invoke postMsgFast message. Blob size is [7].\n"), 2u);
    EXPECT_TRUE(log.Has(kLogTrace, "Forwarding SendAsyncMsg to server.\n"));
    EXPECT_TRUE(log.Has(kLogTrace, "Send Async message: Type is [Type], Blob size is [7].\n"));
    EXPECT_TRUE(log.Texts(kLogError).empty());
}

TEST_F(Forwarding, SendsExactlyTheBytesThatItMayRead) {
    StartReady();
    // All that the daemon's buffer holds, and the content of a post.
    for (const auto& [given, posted] :
         std::vector<std::pair<std::string, std::string>>{{"", ""},
                                                          {std::string("ab\0cd", 5), std::string("ab\0\0\0", 5)},
                                                          {std::string(100000, 'y'), std::string(100000, 'y')}}) {
        service.ClearSent();
        const std::vector<char> buffer(given.begin(), given.end());
        for (const Sender& sender : Senders()) EXPECT_TRUE(sender.send(buffer.size(), buffer.data()));
        const auto sent = service.Sent();
        ASSERT_EQ(sent.size(), 4u);
        EXPECT_EQ(sent[0].params[1], Value(Bytes(posted)));
        EXPECT_EQ(sent[1].params[0], Value(Bytes(given)));
        EXPECT_EQ(sent[2].params[0], Value(Bytes(given)));
        EXPECT_EQ(sent[3].params[2], Value(Bytes(posted)));
    }
    EXPECT_TRUE(log.Texts(kLogError).empty());
}

TEST_F(Forwarding, WithoutAnInstanceMessagesAreDroppedWithAnInfoLine) {
    Start();
    for (const Sender& sender : Senders()) {
        ExpectDropped(sender, {});
        EXPECT_EQ(log.Texts(kLogInfo), Texts{"UsbRedirectionClientPlugin isn't initialized.\n"});
    }
}

TEST_F(Forwarding, UntilTheChannelIsReadyAndAfterALossMessagesAreDropped) {
    const Texts error{"Something went wrong while calling CreateMessage.\n"};
    Start();
    CreateInstance();
    for (int rise = 0; rise < 2; ++rise) {
        for (const Sender& sender : Senders()) ExpectDropped(sender, error);
        EXPECT_EQ(gUsbRedirectionClient.GetPlugin()->IsTransportReady(), rise > 0) << "a loss doesn't take it back";
        ASSERT_TRUE(service.BringUp());
        for (const Sender& sender : Senders()) EXPECT_TRUE(sender.send(4, "text"));
        EXPECT_EQ(service.Sent().size(), 4u);
        service.BringDown();
    }
}

TEST_F(Forwarding, AFailureOfTheServiceDropsOneMessageAndNoMore) {
    StartReady();
    const std::string create = "Something went wrong while calling CreateMessage.\n";
    const std::string content = "Failed to add message content.\n";
    const std::string type = "Failed to add message type.\n";
    const std::string send = "Failed to send message (Invoke failed)\n";
    const std::string destroy = "Invoke message failed. Destroying the message.\n";
    struct Case {
        Op op;
        Texts slow, fast;  // ERROR lines
    };
    for (const Case& c : std::vector<Case>{{Op::CreateContext, {create}, {create}},
                                           {Op::AppendParam, {type, send, destroy}, {content}},
                                           {Op::VariantFrom, {type, send, destroy}, {content}},
                                           {Op::Invoke, {send, destroy}, {send, destroy}}}) {
        for (const Sender& sender : Senders()) {
            SCOPED_TRACE(std::string(OpName(c.op)) + " in " + sender.name);
            service.Fail(c.op);
            ExpectDropped(sender, sender.hasResult ? c.fast : c.slow);
            EXPECT_TRUE(sender.send(4, "text"));
            EXPECT_EQ(service.Sent().size(), 1u);
        }
    }
    service.ClearSent();
    service.Fail(Op::SetCommand);
    ExpectDropped(Senders()[1], {"Failed to set command 1.\n"});
}

TEST_F(Forwarding, RefusesWhatTheDaemonMayNotSend) {
    StartReady();
    for (const Sender& sender : Senders()) {
        ExpectDropped(sender, {"A message of 4 bytes came without its bytes.\n"}, 4, nullptr);
        if constexpr (sizeof(size_t) > 4) {
            constexpr size_t kTooLarge = static_cast<size_t>(std::numeric_limits<uint32_t>::max()) + 1;
            ExpectDropped(sender, {"A message of 4294967296 bytes is too large to send.\n"}, kTooLarge, "x");
        }
        EXPECT_TRUE(sender.send(0, nullptr)) << sender.name;
        EXPECT_EQ(service.Sent().size(), 1u) << sender.name;
    }
    log.Clear();
    service.ClearSent();
    daemon.postMsg(nullptr, 1, "x");
    daemon.sendAsyncMsg(nullptr, 1, "x", Answered, nullptr, "id");
    daemon.sendAsyncMsg("Type", 1, "x", Answered, nullptr, nullptr);
    EXPECT_EQ(log.Texts(kLogError), (Texts{"A message came without its type.\n", "A message came without its type.\n",
                                           "A message came without its id.\n"}));
    EXPECT_TRUE(service.Sent().empty());
}

TEST_F(Forwarding, TheCurrentInstanceOutlivesTheEndOfAnEarlierOne) {
    StartReady();
    void* earlier = instance;
    service.BringDown();
    qscservice::ScriptedService later;  // each instance has a channel of its own
    ASSERT_EQ(QSCService_PluginCreateInstance(later.Handle(), &instance), TRUE);
    ASSERT_NE(instance, earlier);
    EXPECT_EQ(QSCService_PluginDestroyInstance(earlier), TRUE);
    EXPECT_NE(gUsbRedirectionClient.GetPlugin(), nullptr);
    ASSERT_TRUE(later.BringUp());
    EXPECT_TRUE(daemon.postMsgFast(1, reinterpret_cast<const unsigned char*>("x")));
    DestroyInstance();
    EXPECT_EQ(gUsbRedirectionClient.GetPlugin(), nullptr);
    EXPECT_EQ(log.Count("Request for UsbRedirectionClientPlugin to be created.\n"), 1u);
    EXPECT_EQ(log.Count("Request for UsbRedirectionClientPlugin to be destroyed.\n"), 2u);
}

}  // namespace
