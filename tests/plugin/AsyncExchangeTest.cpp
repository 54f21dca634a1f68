#include <thread>

#include "tests/plugin/PluginUnderTest.h"

namespace {

using qscservice::Op;
using qscservice::Value;
using qscservice::Values;

void First() {}
void Second() {}

const std::vector<uint8_t> kContent{'o', 0, 'k'};

class AsyncExchange : public PluginUnderTest {
protected:
    // Sends and returns the request's id with the service, 0 if nothing went out.
    uint32_t Send(const char* id, Usbd_AsyncFinalRespCb callback = First, uintptr_t context = 1) {
        const size_t before = service.Sent().size();
        EXPECT_EQ(daemon.sendAsyncMsg("Type", 4, "text", callback, reinterpret_cast<void*>(context), id), nullptr);
        const auto sent = service.Sent();
        return sent.size() > before ? sent.back().requestId : 0;
    }

    static std::string Answer(Usbd_AsyncFinalRespCb callback, uintptr_t context) {
        return "Usbd_SendAsyncMsgRespCb " + std::to_string(reinterpret_cast<uintptr_t>(callback)) + " " +
               std::to_string(context) + " 0";
    }

    Texts Answers() const {
        Texts answers;
        for (const std::string& text : FakeUsbd::Texts()) {
            if (text.starts_with("Usbd_SendAsyncMsgRespCb")) answers.push_back(text);
        }
        return answers;
    }

    const std::string failed = "Failed to parse message: 2.\n";
};

TEST_F(AsyncExchange, AResponseGoesBackToTheCallbackOfItsId) {
    StartReady();
    const uint32_t older = Send("id", First, 10);
    const uint32_t newer = Send("id", Second, 20);
    const uint32_t empty = Send("", First, 30);
    ASSERT_TRUE(service.Complete(empty, {Value(""), Value(std::vector<uint8_t>())}));
    EXPECT_EQ(FakeUsbd::Calls().back().bytes, "");
    ASSERT_TRUE(service.Complete(newer, {Value("id"), Value(kContent)}));
    EXPECT_EQ(FakeUsbd::Calls().back().bytes, std::string(kContent.begin(), kContent.end()));
    ASSERT_TRUE(service.Complete(older, {Value("id"), Value(kContent)}));
    EXPECT_EQ(Answers(), (Texts{Answer(First, 30), Answer(First, 10), Answer(Second, 20)})) << "oldest first";
    EXPECT_EQ(log.Count("QSCService send message done.\n"), 3u);
    EXPECT_EQ(log.Count("Prepare to callback to usbd.\n"), 3u);
    EXPECT_TRUE(log.Texts(kLogError).empty());
    EXPECT_EQ(service.Count(Op::VariantInit), service.Count(Op::VariantClear));
}

TEST_F(AsyncExchange, AMalformedResponseLeavesTheRecordOpen) {
    const std::vector<uint8_t> blob = kContent;
    StartReady();
    for (const auto& [values, error] : std::vector<std::pair<std::vector<Value>, std::string>>{
             {{Value("open")}, "Unexpected return value number: 1.\n"},
             {{Value("open"), Value(blob), Value(blob)}, "Unexpected return value number: 3.\n"},
             {{Value(blob), Value("open")}, "Failed to get param at index 0.\n"},
             {{Value("open"), Value("open")}, "Failed to get param at index 1.\n"},
             {{Value("OPEN"), Value(blob)}, "Failed to get the specified message: OPEN.\n"},
         }) {
        SCOPED_TRACE(error);
        FakeUsbd::Reset();
        const uint32_t request = Send("open", First, 5);
        log.Clear();
        ASSERT_TRUE(service.Complete(request, Values(values)));
        EXPECT_EQ(log.Texts(kLogError), (Texts{error, failed}));
        EXPECT_TRUE(Answers().empty());
        // The next response with the right id finds the record that stayed open, and the one after it its own.
        ASSERT_TRUE(service.Complete(Send("open", Second, 6), {Value("open"), Value(blob)}));
        const uint32_t last = Send("x", nullptr, 0);
        ASSERT_TRUE(service.CompleteAs(last, 2, {Value("open"), Value(blob)}));
        EXPECT_EQ(Answers(), (Texts{Answer(First, 5), Answer(Second, 6)}));
    }
}

TEST_F(AsyncExchange, ARecordWithoutCallbackIsClosedWithoutADelivery) {
    StartReady();
    ASSERT_TRUE(service.Complete(Send("id", nullptr), {Value("id"), Value(kContent)}));
    ASSERT_TRUE(service.Complete(Send("x"), {Value("id"), Value(kContent)}));
    EXPECT_EQ(log.Texts(kLogError), (Texts{"Usbd callback API can not be NULL.\n", failed,
                                           "Failed to get the specified message: id.\n", failed}));
    EXPECT_TRUE(Answers().empty());
}

TEST_F(AsyncExchange, AFailedSendClosesTheOldestRecordOfItsId) {
    StartReady();
    const uint32_t first = Send("id", First, 1);
    service.Fail(Op::Invoke);
    EXPECT_EQ(Send("id", Second, 2), 0u);
    EXPECT_TRUE(log.Has(kLogError, "Invoke message failed. Destroying the message.\n"));
    ASSERT_TRUE(service.Complete(first, {Value("id"), Value(kContent)}));
    EXPECT_EQ(Answers(), Texts{Answer(Second, 2)});
    service.Fail(Op::AppendParam);
    EXPECT_EQ(Send("id2"), 0u);
    log.Clear();
    ASSERT_TRUE(service.Complete(Send("x"), {Value("id2"), Value(kContent)}));
    EXPECT_EQ(log.Texts(kLogError), (Texts{"Failed to get the specified message: id2.\n", failed}));
}

TEST_F(AsyncExchange, OtherCompletionsAreParsedByTheirOwnNumber) {
    StartReady();
    struct Case {
        uint32_t command;
        Texts infos, errors;
    };
    const std::string missing = "The method ParseResponse is not implemented.\n";
    for (const Case& c :
         std::vector<Case>{{0, {missing}, {"Failed to parse message: 0.\n"}},
                           {3, {}, {"Unknown command [3].\n", "Failed to instantiate the QSCServiceCommand.\n"}}}) {
        const uint32_t request = Send("id");
        log.Clear();
        ASSERT_TRUE(service.CompleteAs(request, c.command, {Value("id"), Value(kContent)}));
        EXPECT_EQ(log.Texts(kLogInfo), c.infos);
        EXPECT_EQ(log.Texts(kLogError), c.errors);
    }
}

TEST_F(AsyncExchange, AbortsAndLossesLeaveRecordsUntilTheInstanceGoes) {
    StartReady();
    const uint32_t aborted = Send("aborted", First, 1);
    ASSERT_TRUE(service.Abort(aborted, TRUE, 7));
    EXPECT_TRUE(log.Has(kLogInfo, "Message was discarded by the other side.\n"));
    service.BringDown();
    ASSERT_TRUE(service.BringUp());
    ASSERT_TRUE(service.Complete(Send("x", Second, 2), {Value("aborted"), Value(kContent)}));
    EXPECT_EQ(Answers(), Texts{Answer(First, 1)});
    service.BringDown();
    DestroyInstance();
    CreateInstance();
    ASSERT_TRUE(service.BringUp());
    log.Clear();
    ASSERT_TRUE(service.Complete(Send("y"), {Value("x"), Value(kContent)}));
    EXPECT_TRUE(log.Has(kLogError, "Failed to get the specified message: x.\n"));
    EXPECT_EQ(Answers().size(), 1u);
}

TEST_F(AsyncExchange, TheDaemonMaySendFromAnotherThreadWhileItIsAnswered) {
    StartReady();
    FakeUsbd::OnCall("Usbd_SendAsyncMsgRespCb", [this] { std::thread([this] { Send("next", Second, 2); }).join(); });
    ASSERT_TRUE(service.Complete(Send("id", First, 1), {Value("id"), Value(kContent)}));
    FakeUsbd::OnCall("Usbd_SendAsyncMsgRespCb", {});
    ASSERT_TRUE(service.Complete(service.Sent().back().requestId, {Value("next"), Value(kContent)}));
    EXPECT_EQ(Answers(), (Texts{Answer(First, 1), Answer(Second, 2)}));
}

}  // namespace
