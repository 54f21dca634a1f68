// The life of a message: creation, sending as a post or a request, and the book of the requests.
#include <thread>

#include "rpc/RPCPluginInstance.h"
#include "rpc/RPCVariant.h"
#include "tests/rpc/ChannelService.h"

namespace {

constexpr auto kData = RPCChannelType::Data;

class RPCPluginMessagesTest : public InstanceUnderTest {
protected:
    bool Post() {
        void* message = nullptr;
        return instance->CreateMessage(&message, kData) && instance->InvokeMessage(message, FALSE, kData);
    }

    // The id of a request that the service has accepted.
    uint32_t Request() {
        void* message = nullptr;
        EXPECT_TRUE(instance->CreateMessage(&message, kData));
        EXPECT_TRUE(instance->InvokeMessage(message, TRUE, kData));
        return service.latestId;
    }

    void Done(uint32_t requestId) { service.ContextSink().OnMsgDone(service.context, requestId, nullptr); }
    void Abort(uint32_t requestId) { service.ContextSink().OnMsgAbort(service.context, requestId, TRUE, 5); }

    int PendingCount() { return instance->UpdatePendingCount(0, nullptr, 0); }
    Names Debugs() const { return log.Texts(kLogDebug); }
};

TEST_F(RPCPluginMessagesTest, APostIsMarkedAndLeavesNothingBehind) {
    StartReady();
    EXPECT_TRUE(Post());
    EXPECT_EQ(service.TakeCalls(),
              (Names{"CreateContext", "VariantInit", "VariantFromUInt32", "SetOption 1 1", "VariantClear", "Invoke"}));
    EXPECT_EQ(PendingCount(), 0);
    EXPECT_TRUE(instance->WaitForPendingMessages(0));
    EXPECT_EQ(log.Texts(kLogWarn), Names{});
    // It goes on without its mark.
    for (const char* word : {"SetOption", "VariantFromUInt32"}) {
        service.Fail(word);
        EXPECT_TRUE(Post());
        service.FailNoMore();
    }
    EXPECT_EQ(log.Texts(kLogWarn), Names(2, "Unable to set post mode for qscservice.\n"));
    EXPECT_EQ(service.Count("Invoke"), 2u);
    EXPECT_EQ(service.Count("VariantClear"), 2u);
}

TEST_F(RPCPluginMessagesTest, AMessageTravelsOnTheObjectOfItsType) {
    StartReady();
    for (const auto& [type, name] : {std::pair(RPCChannelType::Control, "control"), std::pair(kData, "data")}) {
        void* message = nullptr;
        ASSERT_TRUE(instance->CreateMessage(&message, type));
        EXPECT_EQ(message, service.Find(name));
        ASSERT_TRUE(instance->InvokeMessage(message, TRUE, type));
        EXPECT_EQ(service.invokedOn, service.Find(name));
        EXPECT_EQ(service.invokedContext, message);
        service.ContextSink().OnMsgDone(service.context, service.latestId, message);
        EXPECT_EQ(instance->latestContext, message);
        service.Find(name)->sink->OnMsgInvoke(service.context, &service, nullptr);
        EXPECT_EQ(instance->latestContext, &service);
    }
    void* message = nullptr;
    EXPECT_FALSE(instance->CreateMessage(&message, static_cast<RPCChannelType>(2)));
    EXPECT_TRUE(log.Has(kLogDebug, "Failed to create message (hChannel == NULL)\n"));
}

TEST_F(RPCPluginMessagesTest, RefusesMessagesUntilItIsReady) {
    Start();
    const auto refusals = [&](const std::string& reason) {
        void* message = nullptr;
        uint32_t options = 0;
        log.Clear();
        EXPECT_FALSE(instance->CreateMessage(&message, kData));
        EXPECT_FALSE(instance->CreateExtMessage(&message, kData, 4));
        EXPECT_FALSE(instance->GetChannelOptions(kData, &options));
        EXPECT_FALSE(instance->InvokeMessage(&service, TRUE, kData));
        EXPECT_EQ(Debugs(), (Names{"Failed to create message " + reason, "Failed to create message " + reason,
                                   "Failed to get channel options " + reason, "Failed to send message (not ready)\n"}));
    };
    refusals("(hChannel == NULL)\n");
    service.FirePeerObject("data");
    service.FireObject("data", QSC_OBJECT_CONNECTED);
    refusals("(not ready)\n");
    EXPECT_EQ(PendingCount(), 0);
    service.FirePeerObject("control");
    service.FireObject("control", QSC_OBJECT_CONNECTED);
    EXPECT_TRUE(Post());
    service.FireChannel(QSC_CHANNEL_DISCONNECTED);
    refusals("(hChannel == NULL)\n");
    EXPECT_EQ(service.Count("Invoke"), 1u);
}

TEST_F(RPCPluginMessagesTest, ExtendedOperationsNeedANewService) {
    StartReady();
    void* message = nullptr;
    uint32_t options = 0;
    service.options = 0x21;
    EXPECT_TRUE(instance->CreateExtMessage(&message, kData, 0));
    EXPECT_TRUE(instance->CreateExtMessage(&message, kData, 4));
    EXPECT_TRUE(instance->GetChannelOptions(kData, &options));
    EXPECT_EQ(options, 0x21u);
    EXPECT_EQ(service.TakeCalls(), (Names{"CreateContext", "CreateContextEx 4", "GetObjectOptions"}));
    EXPECT_FALSE(instance->GetChannelOptions(kData, nullptr));
    EXPECT_EQ(Errors(), Names{"Failed to get channel options (invalid argument) \n"});

    service.object.CreateContextEx = nullptr;
    service.object.GetObjectOptions = nullptr;
    const QSC_SERVICE_QUERY_INTERFACE query = service.Query();
    ASSERT_TRUE(manager.Init(false, &query));
    log.Clear();
    EXPECT_TRUE(instance->CreateExtMessage(&message, kData, 0));
    EXPECT_FALSE(instance->CreateExtMessage(&message, kData, 0x1F));
    EXPECT_FALSE(instance->GetChannelOptions(kData, nullptr));
    EXPECT_EQ(Errors(), (Names{"Failed to create message (API not available for 0x1f)\n",
                               "Failed to get channel options (no API) \n"}));
}

TEST_F(RPCPluginMessagesTest, FailuresOfTheServiceAreTold) {
    StartReady();
    void* message = nullptr;
    uint32_t options = 0;
    for (const char* word : {"CreateContext", "CreateContextEx", "GetObjectOptions", "DestroyContext", "Invoke"}) {
        service.Fail(word);
    }
    EXPECT_FALSE(instance->CreateMessage(&message, kData));
    EXPECT_FALSE(instance->CreateExtMessage(&message, kData, 4));
    EXPECT_FALSE(instance->GetChannelOptions(kData, &options));
    EXPECT_FALSE(instance->DestroyMessage(&service));
    EXPECT_EQ(Debugs(), (Names{"Failed to create message (CreateContext failed)\n",
                               "Failed to create message (CreateContext failed)\n",
                               "Failed to get channel options (GetObjectOptions failed)\n",
                               "Failed to destroy message (DestroyContext failed)\n"}));
    for (const Bool expectResponse : {FALSE, TRUE}) {
        EXPECT_FALSE(instance->InvokeMessage(&service, expectResponse, kData));
        EXPECT_TRUE(instance->WaitForPendingMessages(0));
    }
    EXPECT_EQ(Errors(), Names(2, "Failed to send message (Invoke failed)\n"));
}

TEST_F(RPCPluginMessagesTest, EachOperationOnAMessageIsTracedAtTrace) {
    StartReady();
    HookInstance& i = *instance;
    void* message = nullptr;
    uint32_t options = 0;
    const std::pair<std::function<bool()>, std::string> cases[] = {
        {[&] { return i.CreateMessage(&message, kData); }, "CreateMessage: Enter, Exit\n"},
        {[&] { return i.CreateExtMessage(&message, kData, 4); }, "CreateExtMessage: Enter, Exit\n"},
        {[&] { return i.GetChannelOptions(kData, &options); }, "GetChannelOptions: Enter, Exit\n"},
        {[&] { return i.InvokeMessage(&service, TRUE, kData); }, "InvokeMessage: Enter, Exit -  (1 message pending)"},
        {[&] { return service.Fail("Invoke"), i.InvokeMessage(&service, TRUE, kData); },
         "InvokeMessage: Enter, Exit\n"},
        {[&] { return i.DestroyMessage(&service); }, "DestroyMessage: Enter, Exit\n"},
    };
    for (const auto& [operation, expected] : cases) {
        log.Clear();
        operation();
        std::string traced;
        for (const LogCapture::Line& line : log.Lines()) {
            if (line.level != kLogTrace || line.function.find("RPCPluginInstance::") == std::string::npos) continue;
            const size_t name = line.function.find("::") + 2;
            if (traced.empty()) traced = line.function.substr(name, line.function.find('(') - name) + ": Enter, ";
            if (line.text.starts_with("Exit")) traced += line.text.substr(0, line.text.find(" - Test"));
        }
        EXPECT_EQ(traced, expected);
    }
}

TEST_F(RPCPluginMessagesTest, RequestsArePendingUntilTheyAreClosed) {
    StartReady();
    const uint32_t first = Request();
    EXPECT_FALSE(instance->WaitForPendingMessages(0));
    EXPECT_TRUE(log.Has(kLogInfo, "1 message still pending\n"));
    const uint32_t second = Request();
    EXPECT_FALSE(instance->WaitForPendingMessages(0));
    EXPECT_TRUE(log.Has(kLogInfo, "2 messages still pending\n"));
    EXPECT_EQ(PendingCount(), 2);
    Done(first);
    EXPECT_FALSE(instance->WaitForPendingMessages(0));
    Abort(second);
    EXPECT_TRUE(instance->WaitForPendingMessages(0));
    EXPECT_EQ(service.TakeHeard(),
              (Names{"done " + std::to_string(first), "abort " + std::to_string(second) + " 1 5"}));
    Done(99);
    Abort(99);
    EXPECT_EQ(PendingCount(), 0);
    EXPECT_TRUE(instance->WaitForPendingMessages(0));
    EXPECT_EQ(service.TakeHeard(), (Names{"done 99", "abort 99 1 5"}));
}

TEST_F(RPCPluginMessagesTest, AnAnswerMayComeBeforeTheSendingReturns) {
    StartReady();
    service.During("Invoke", [this] { Done(service.latestId); });
    const uint32_t id = Request();
    EXPECT_EQ(service.TakeHeard(), Names{"done " + std::to_string(id)});
    EXPECT_EQ(PendingCount(), 0);
    EXPECT_TRUE(instance->WaitForPendingMessages(0));
}

TEST_F(RPCPluginMessagesTest, AWaiterForPendingMessagesIsWokenByTheLastAnswer) {
    StartReady();
    const uint32_t ids[] = {Request(), Request()};
    std::thread waiter([&] { EXPECT_TRUE(instance->WaitForPendingMessages(kInfinite)); });
    for (const uint32_t id : ids) Done(id);
    waiter.join();
}

TEST_F(RPCPluginMessagesTest, ADoneTellsOfOlderRequestsThatAreStillPending) {
    StartReady();
    const uint32_t old = Request(), aborted = Request();
    Abort(aborted);
    KxEvent never(false, false);
    never.Wait(1100);  // requests older than a second are told
    const uint32_t young = Request(), answered = Request();
    log.Clear();
    Done(answered);
    Names lines;
    for (const std::string& line : Debugs()) lines.push_back(line.substr(line.find("Request ")));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].find("Request " + std::to_string(old) + " still pending sfter 1"), 0u);
    EXPECT_EQ(lines[1].find("Request " + std::to_string(aborted) + " still pending sfter 1"), 0u);
    log.Clear();
    Done(old);
    Done(young);
    EXPECT_EQ(Debugs().size(), 1u);  // only the entry that the abort has left
}

struct CountCase {
    int before, delta, after;
    const char* text;
    bool signaled;
};

TEST_F(RPCPluginMessagesTest, TheCountNeverFallsBelowZeroAndTheEventKeepsStep) {
    Start();
    const CountCase cases[] = {
        {0, 1, 1, " (1 message pending)", false},
        {2, 0, 2, " (2 messages pending)", false},
        {2, -1, 1, " (1 message pending)", false},
        {1, -1, 0, " (0 messages pending)", true},
        {1, -3, 0, " (unexpected message. delta: -3)", true},
    };
    for (const CountCase& c : cases) {
        SCOPED_TRACE(c.text);
        char text[128] = "untouched";
        instance->UpdatePendingCount(c.before - PendingCount(), nullptr, 0);
        EXPECT_EQ(instance->UpdatePendingCount(c.delta, text, sizeof text), c.after);
        EXPECT_STREQ(text, c.text);
        EXPECT_EQ(instance->WaitForPendingMessages(0), c.signaled);
    }
    char text[8] = "keep";
    instance->UpdatePendingCount(1, text, 0);
    EXPECT_STREQ(text, "keep");
    instance->UpdatePendingCount(1, text, sizeof text);
    EXPECT_STREQ(text, " (2 mes");
}

TEST(RPCVariant, IsInitialisedAndClearedOnceAndHoldsItsManagerMeanwhile) {
    ChannelService service;
    RCPtr<HookManager> manager(new HookManager(RefCountOn));
    RCPtr<HookInstance> instance(new HookInstance(manager.Get()));
    const QSC_SERVICE_QUERY_INTERFACE query = service.Query();
    EXPECT_TRUE(manager->Init(false, &query));
    { const RPCVariant byManager{RCPtr<RPCManager>(manager.Get())}; }
    EXPECT_EQ(service.TakeCalls(), (Names{"VariantInit", "VariantClear"}));
    {
        const RPCVariant byInstance(instance.Get());
        instance = nullptr;
        manager = nullptr;
        EXPECT_EQ(service.TakeCalls(), Names{"VariantInit"}) << "both are held";
    }
    const Names calls = service.TakeCalls();
    EXPECT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls.front(), "VariantClear");

    const RCPtr<HookInstance> orphan(new HookInstance(nullptr));
    for (HookInstance* const held : {orphan.Get(), static_cast<HookInstance*>(nullptr)}) {
        const RPCVariant variant(held);
        EXPECT_EQ(variant.vt, 0);
    }
    EXPECT_EQ(service.TakeCalls(), Names{});
}

TEST_F(RPCPluginMessagesTest, SendersMeetAChannelThatComesAndGoes) {
    Start();
    std::atomic<bool> stop{false};
    std::atomic<int> sent{0}, destroyed{0};
    std::vector<std::thread> senders;
    for (const Bool expectResponse : {FALSE, TRUE}) {
        senders.emplace_back([&, expectResponse] {
            while (!stop) {
                void* message = nullptr;
                if (!instance->CreateMessage(&message, kData)) continue;
                if (instance->InvokeMessage(message, expectResponse, kData)) {
                    ++sent;
                } else if (instance->DestroyMessage(message)) {
                    ++destroyed;
                }
            }
        });
    }
    for (int round = 0; round < 50; ++round) {
        service.BringUp();
        const int before = sent;
        while (sent == before) std::this_thread::yield();
        service.FireChannel(QSC_CHANNEL_DISCONNECTED);
    }
    stop = true;
    for (std::thread& sender : senders) sender.join();
    EXPECT_EQ(service.Count("CreateContext"), static_cast<size_t>(sent + destroyed));
    EXPECT_EQ(service.Count("Invoke"), static_cast<size_t>(sent));
    Names expected;
    for (int round = 0; round < 50; ++round) expected.insert(expected.end(), {"ready", "not ready"});
    EXPECT_EQ(service.TakeHeard(), expected);
}

}  // namespace
