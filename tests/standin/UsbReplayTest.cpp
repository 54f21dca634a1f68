// The replaying daemon behind its boundary, with a plug-in made for the test that sends everything straight back.
#include "standin/usbd/UsbdReplay.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

#include "tests/support/UsbImage.h"

namespace {

using usbimage::Bytes;
using usbimage::CaptureOf;
using usbimage::TransferOf;
using enum UsbTransferType;

constexpr DWORD kLongMS = 30000;  // for what has to come
constexpr DWORD kGlanceMS = 50;   // for what must not come

struct Sent {
    char kind;  // 'p'ost, 'f'ast, 'h'id, 'a'sync
    std::string type;
    std::string content;
    std::string id;
    Usbd_AsyncFinalRespCb callback = nullptr;
    void* context = nullptr;
};

void ReturnFast(const std::string& content) {
    Usbd_PostMsgToUsbdPoll(content.data(), static_cast<uint32_t>(content.size()), kUsbmonHeaderSize,
                           static_cast<uint32_t>(content.size()) - kUsbmonHeaderSize);
}

void Respond(const Sent& message, const std::string& response) {
    Usbd_SendAsyncMsgRespCb(message.callback, message.context, 0, response.data(),
                            static_cast<uint32_t>(response.size()));
}

// What a plug-in and an agent without fault do: accept the message and send it back at once.
bool Return(const Sent& message) {
    switch (message.kind) {
        case 'f':
            ReturnFast(message.content);
            break;
        case 'h':
            Usbd_PostHIDOptOperationMsg(message.content.data(), message.content.size());
            break;
        case 'a':
            Respond(message, kUsbResponsePrefix + message.content);
            break;
    }
    return true;
}

// Stands where the plug-in does: registers its callbacks, lends a thread to StartUsbd, and stops the daemon when it
// goes.
class Plugin {
public:
    explicit Plugin(std::function<bool(const Sent&)> onMessage = Return) : handle(std::move(onMessage)) {
        current = this;
        SetUsbdInitDoneNotifCb([](UsbdInitResult result) { current->initDone.set_value(result); });
        Usbd_SetPostMsgCb([](const char* type, size_t size, const char* data) {
            current->OnMessage({'p', type, std::string(data, size), {}});
        });
        Usbd_SetPostMsgFastCb([](size_t size, const unsigned char* data) {
            return current->OnMessage({'f', {}, Text(data, size), {}});
        });
        Usbd_SetPostHIDOptMsgFastCb([](size_t size, const unsigned char* data) {
            return current->OnMessage({'h', {}, Text(data, size), {}});
        });
        Usbd_SetSendAsyncMsgCb([](const char* type, size_t size, const char* data, Usbd_AsyncFinalRespCb callback,
                                  void* context, const char* id) -> void* {
            current->OnMessage({'a', type, std::string(data, size), id, callback, context});
            return nullptr;
        });
    }

    ~Plugin() {
        if (thread.joinable()) Stop();
    }

    void Start(std::string enabled = "TRUE") {
        thread = std::thread([this, enabled]() mutable {
            char name[] = "velmora-client-usbd", pid[] = "pid@1";
            char* arguments[] = {name, enabled.data(), pid, nullptr};
            result = StartUsbd(3, arguments);
        });
    }

    void StartWithChannel() {
        Start();
        Usbd_NotifyUsbVirtualChannelAvailable();
    }

    int Stop() {
        StopUsbd(1);
        return Join();
    }

    int Join() {
        thread.join();
        return result;
    }

    std::vector<Sent> Messages() {
        std::lock_guard guard(lock);
        return messages;
    }

    size_t Count() { return Messages().size(); }

    UsbdInitResult WaitInitDone() { return initDone.get_future().get(); }

private:
    static std::string Text(const unsigned char* data, size_t size) {
        return std::string(reinterpret_cast<const char*>(data), size);
    }

    bool OnMessage(Sent message) {
        {
            std::lock_guard guard(lock);
            messages.push_back(message);
        }
        return handle(message);
    }

    static inline Plugin* current = nullptr;
    const std::function<bool(const Sent&)> handle;
    std::promise<UsbdInitResult> initDone;
    std::mutex lock;  // guards messages
    std::vector<Sent> messages;
    std::thread thread;
    int result = 0;
};

void Configure(UsbReplayPlan plan) {
    std::string error;
    ASSERT_TRUE(UsbdReplay_Configure(std::move(plan), &error)) << error;
    UsbdReplay_SetChannelUp(false);
}

UsbReplayPlan PlanOf(std::vector<UsbCapture> captures) {
    UsbReplayPlan plan;
    plan.captures = std::move(captures);
    return plan;
}

UsbReplayPlan BulkPlan(uint64_t transfers) {
    std::vector<UsbRecord> records;
    for (uint64_t id = 1; id <= transfers; ++id) records.push_back(TransferOf(kBulk, id, {}, 16));
    return PlanOf({CaptureOf(records)});
}

TEST(UsbReplay, SendsEachRecordOnceAndAccountsForWhatComesBack) {
    const Bytes report(8, 1);
    Configure(PlanOf({CaptureOf(
        {TransferOf(kInterrupt, 1, report), TransferOf(kControl, 2, report), TransferOf(kBulk, 3, report, 300)})}));
    Plugin plugin;
    plugin.StartWithChannel();
    ASSERT_TRUE(UsbdReplay_WaitSent(kLongMS));
    ASSERT_TRUE(UsbdReplay_WaitAllReturned(kLongMS));
    EXPECT_TRUE(UsbdReplay_WaitReturned(3, 0));
    EXPECT_FALSE(UsbdReplay_WaitReturned(4, 0));

    const std::vector<Sent> sent = plugin.Messages();
    ASSERT_EQ(sent.size(), 4u);
    EXPECT_EQ(sent[0].type, "IsUsbAvailable");
    EXPECT_EQ(sent[0].content, "capture 1 bus 1 device 2 message " + sent[0].id);
    EXPECT_EQ(sent[1].kind, 'h');
    EXPECT_EQ(sent[1].content.size(), kUsbmonHeaderSize + 8);
    EXPECT_EQ(sent[2].type, "UsbControlTransfer");
    EXPECT_EQ(sent[3].kind, 'f');
    EXPECT_EQ(sent[3].content.size(), kUsbmonHeaderSize + 300);
    const UsbReplayCounters counters = UsbdReplay_GetCounters();
    for (const uint64_t count : {counters.sent.post, counters.sent.fast, counters.sent.hid, counters.sent.async}) {
        EXPECT_EQ(count, 1u);
    }
    const size_t returned = sent[0].content.size() + sent[1].content.size() + sent[3].content.size();
    EXPECT_EQ(counters.sent.bytes, returned + sent[2].content.size());
    EXPECT_EQ(counters.returned.bytes, returned + strlen(kUsbResponsePrefix));
    EXPECT_EQ(counters.refused.Messages() + counters.mismatched + counters.outstanding, 0u) << counters.firstMismatch;
    EXPECT_EQ(counters.fastLatency.samples + counters.hidLatency.samples, 2u);
    EXPECT_EQ(plugin.Stop(), 0);
}

struct WrongReturn {
    const char* what;
    char kind;  // of the one message that is answered so: 'f', 'h' or 'a'
    std::function<void(const Sent&)> answer;
    const char* mismatch;  // how the text begins
    uint64_t outstanding = 1;
    bool accepted = true;
};

TEST(UsbReplay, NoticesEveryWayInWhichAReturnCanBeWrong) {
    const auto fast = [](uint32_t header, uint32_t trailer) {
        return [=](const Sent& m) {
            Usbd_PostMsgToUsbdPoll(m.content.data(), static_cast<uint32_t>(m.content.size()), header, trailer);
        };
    };
    const auto changed = [](size_t at) {
        return [at](Sent m) {
            m.content[at] ^= 1;
            Return(m);
        };
    };
    const auto twice = [](const Sent& m) {
        Return(m);
        Return(m);
    };
    const auto response = [](const char* prefix, const char* tail) {
        return [=](const Sent& m) { Respond(m, prefix + m.content + tail); };
    };
    const auto foreign = reinterpret_cast<Usbd_AsyncFinalRespCb>(&ReturnFast);
    const std::vector<WrongReturn> cases = {
        {"header length", 'f', fast(63, 300), "fast post: header length 63"},
        {"trailer", 'f', fast(64, 299), "fast post of 364 bytes: trailer 299"},
        {"first byte", 'f', changed(0), "fast post of 364 bytes: never sent"},
        {"shorter than a header", 'f',
         [](const Sent& m) { Usbd_PostMsgToUsbdPoll(m.content.data(), 63, 64, static_cast<uint32_t>(-1)); },
         "fast post of 63 bytes: trailer 4294967295"},
        {"twice", 'f', twice, "fast post of 364 bytes: came back more often than it was sent", 0},
        {"refused and yet sent", 'f', Return, "fast post of 364 bytes: came back although it was refused", 0, false},
        {"HID as fast post", 'h', [](const Sent& m) { ReturnFast(m.content); }, "fast post of 72 bytes: never sent"},
        {"empty HID post", 'h', [](const Sent&) { Usbd_PostHIDOptOperationMsg("", 0); },
         "HID post of 0 bytes: never sent"},
        {"no prefix", 'a', response("", ""), "final response: capture 1 bus 1 device 2 message usb-"},
        {"other response", 'a', response(kUsbResponsePrefix, "x"), "final response: response:capture 1"},
        {"empty response", 'a', [](const Sent& m) { Respond(m, ""); }, "final response:  in response to capture 1"},
        {"response twice", 'a', twice, "final response: unknown context", 0},
        {"status", 'a', [](const Sent& m) { Usbd_SendAsyncMsgRespCb(m.callback, m.context, 1, "", 0); },
         "final response: status 1"},
        {"context", 'a',
         [](Sent m) {
             m.context = &m;
             Return(m);
         },
         "final response: unknown context"},
        {"callback", 'a', [=](const Sent& m) { Usbd_SendAsyncMsgRespCb(foreign, m.context, 0, "", 0); },
         "final response: foreign callback"},
    };
    const Bytes report(8, 1);
    const UsbCapture capture = CaptureOf({TransferOf(kInterrupt, 1, report), TransferOf(kBulk, 2, report, 300)});
    for (const WrongReturn& c : cases) {
        SCOPED_TRACE(c.what);
        Configure(PlanOf({capture}));
        Plugin plugin([&c](const Sent& m) {
            if (m.kind != c.kind) return Return(m);
            c.answer(m);
            return c.accepted;
        });
        plugin.StartWithChannel();
        ASSERT_TRUE(UsbdReplay_WaitSent(kLongMS));
        plugin.Stop();
        const UsbReplayCounters counters = UsbdReplay_GetCounters();
        EXPECT_EQ(counters.mismatched, 1u);
        EXPECT_EQ(counters.firstMismatch.substr(0, strlen(c.mismatch)), c.mismatch) << counters.firstMismatch;
        EXPECT_EQ(counters.outstanding, c.outstanding);
        EXPECT_EQ(UsbdReplay_WaitAllReturned(0), c.outstanding == 0);
    }
}

TEST(UsbReplay, PausesAfterARefusalUntilTheChannelIsAvailableAgain) {
    for (const UsbTransferType type : {kBulk, kInterrupt}) {
        std::vector<UsbRecord> records;
        for (uint64_t id = 1; id <= 4; ++id) records.push_back(TransferOf(type, id, {}));
        Configure(PlanOf({CaptureOf(records)}));
        int number = 0;
        std::promise<void> refusing;
        Plugin plugin([&](const Sent& m) {
            if (m.kind == 'a' || ++number != 2) return Return(m);
            refusing.set_value();
            return false;
        });
        plugin.Start();
        EXPECT_FALSE(UsbdReplay_WaitSent(kGlanceMS)) << "the channel isn't up yet";
        EXPECT_EQ(plugin.Count(), 0u);

        Usbd_NotifyUsbVirtualChannelAvailable();
        refusing.get_future().wait();
        EXPECT_FALSE(UsbdReplay_WaitSent(kGlanceMS));
        EXPECT_EQ(plugin.Count(), 3u) << "announcement, accepted and refused message";

        Usbd_NotifyUsbVirtualChannelAvailable();
        ASSERT_TRUE(UsbdReplay_WaitSent(kLongMS));
        EXPECT_TRUE(UsbdReplay_WaitAllReturned(kLongMS));
        plugin.Stop();
        const UsbReplayCounters counters = UsbdReplay_GetCounters();
        EXPECT_EQ((type == kBulk ? counters.refused.fast : counters.refused.hid), 1u);
        EXPECT_EQ(counters.refused.Messages(), 1u);
        EXPECT_EQ(counters.refused.bytes, kUsbmonHeaderSize);
        EXPECT_EQ(counters.sent.Messages(), 5u);
        EXPECT_EQ(counters.outstanding, 0u);
    }
}

TEST(UsbReplay, ARefusalThatTheChannelHasOvertakenIsNoReasonToPause) {
    Configure(BulkPlan(20));
    Plugin plugin([](const Sent& m) {
        if (m.kind == 'a') return Return(m);
        Usbd_NotifyUsbVirtualChannelAvailable();
        return false;
    });
    plugin.StartWithChannel();
    ASSERT_TRUE(UsbdReplay_WaitSent(kLongMS));
    EXPECT_TRUE(UsbdReplay_WaitAllReturned(kLongMS));
    plugin.Stop();
    EXPECT_EQ(UsbdReplay_GetCounters().refused.fast, 20u);
    EXPECT_EQ(UsbdReplay_GetCounters().channelUps, 21u);
}

TEST(UsbReplay, CallsTheHookAfterEachIntervalByOneThreadAtATime) {
    constexpr uint64_t kInterval = 7;
    UsbReplayPlan plan = BulkPlan(30);
    plan.loops = 20;
    plan.threads = 3;
    plan.hookInterval = kInterval;
    std::atomic<bool> inside{false};
    std::vector<uint64_t> numbers;
    plan.onMessages = [&](uint64_t messages) {
        EXPECT_FALSE(inside.exchange(true));
        // The others go on meanwhile, so that more calls become due during this one.
        EXPECT_TRUE(!numbers.empty() || UsbdReplay_WaitReturned(4 * kInterval, kLongMS));
        numbers.push_back(messages);
        inside = false;
    };
    Configure(std::move(plan));
    Plugin plugin;
    plugin.StartWithChannel();
    ASSERT_TRUE(UsbdReplay_WaitSent(kLongMS));
    plugin.Stop();
    ASSERT_EQ(numbers.size(), UsbdReplay_GetCounters().sent.Messages() / kInterval);
    for (size_t i = 0; i < numbers.size(); ++i) EXPECT_EQ(numbers[i], (i + 1) * kInterval);
}

UsbReplayPlan TimedPlan(std::initializer_list<int64_t> us) {
    std::vector<UsbRecord> records;
    for (const int64_t at : us) {
        records.push_back(TransferOf(kBulk, records.size() + 1, {}));
        records.back().timestampUs = 1700000000000000 + at;
    }
    UsbReplayPlan plan = PlanOf({CaptureOf(records)});
    plan.timed = true;
    return plan;
}

TEST(UsbReplay, ATimedReplayKeepsThePaceOfTheCapture) {
    UsbReplayPlan plan = TimedPlan({0, 1500, 1500, 4000000});
    plan.loops = 2;
    std::vector<int64_t> waited;
    plan.waitUntil = [&waited](int64_t us) { waited.push_back(us); };
    Configure(std::move(plan));
    Plugin plugin;
    plugin.StartWithChannel();
    ASSERT_TRUE(UsbdReplay_WaitSent(kLongMS));
    plugin.Stop();
    EXPECT_EQ(waited, (std::vector<int64_t>{0, 1500, 1500, 4000000, 4000000, 4001500, 4001500, 8000000}));
}

TEST(UsbReplay, AStopCutsThePauseOfATimedReplayShort) {
    constexpr int64_t kHourUs = 3600ll * 1000000;
    Configure(TimedPlan({0, kHourUs}));
    Plugin plugin;
    plugin.StartWithChannel();
    ASSERT_TRUE(UsbdReplay_WaitReturned(2, kLongMS));
    EXPECT_EQ(plugin.Stop(), 0);
    EXPECT_EQ(plugin.Count(), 2u);
}

TEST(UsbReplay, ReportsItsInitialisationAndSendsOnlyOverTheVirtualChannel) {
    struct {
        UsbdInitResult initResult;
        const char* enabled;
        bool sends;
    } const cases[] = {{0, "TRUE", true},    {0, "true", true}, {0, "TrUe", true}, {0, "FALSE", false},
                       {0, "TRUEST", false}, {0, "", false},    {7, "TRUE", false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.enabled) + " " + std::to_string(c.initResult));
        UsbReplayPlan plan = BulkPlan(2);
        plan.initResult = c.initResult;
        Configure(std::move(plan));
        Plugin plugin;
        plugin.Start(c.enabled);
        EXPECT_EQ(plugin.WaitInitDone(), c.initResult);
        Usbd_NotifyUsbVirtualChannelAvailable();
        EXPECT_EQ(UsbdReplay_WaitSent(c.sends ? kLongMS : 0), c.sends);
        EXPECT_FALSE(UsbdReplay_WaitStopped(0)) << "StartUsbd lasts until the stop";
        EXPECT_EQ(plugin.Stop(), 0);
        EXPECT_EQ(plugin.Count(), c.sends ? 3u : 0u);
    }
}

TEST(UsbReplay, AStopAheadOfTheStartEndsItAtOnceAndOnce) {
    Configure(BulkPlan(1));
    StopUsbd(0);
    Plugin stopped;
    stopped.Start();
    EXPECT_EQ(stopped.Join(), 0);
    EXPECT_EQ(UsbdReplay_GetCounters().sent.Messages(), 0u);

    Plugin plugin;
    plugin.StartWithChannel();
    EXPECT_TRUE(UsbdReplay_WaitSent(kLongMS));
    EXPECT_EQ(plugin.Stop(), 0);
}

TEST(UsbReplay, RunsOnceAtATimeAndKeepsItsPlanMeanwhile) {
    Configure(BulkPlan(1));
    Plugin plugin;
    plugin.Start();
    plugin.WaitInitDone();
    EXPECT_NE(StartUsbd(0, nullptr), 0);
    std::string error;
    EXPECT_FALSE(UsbdReplay_Configure(BulkPlan(9), &error));
    EXPECT_EQ(error, "the daemon is running");
    Usbd_NotifyUsbVirtualChannelAvailable();
    ASSERT_TRUE(UsbdReplay_WaitSent(kLongMS));
    plugin.Stop();

    EXPECT_FALSE(UsbdReplay_Configure(PlanOf({CaptureOf({})}), &error));
    EXPECT_EQ(error, "the captures have no record");
    EXPECT_FALSE(UsbdReplay_Configure(PlanOf({}), nullptr));
    EXPECT_EQ(UsbdReplay_GetCounters().sent.fast, 1u) << "a refused plan leaves the former one";
}

// A message may be lost in a fall of the channel, and its equal sent later: their time would be the length of the fall.
TEST(UsbReplay, TimesNothingAcrossAFallOfTheChannel) {
    Configure(BulkPlan(1));
    Plugin plugin([](const Sent&) { return true; });
    plugin.StartWithChannel();
    ASSERT_TRUE(UsbdReplay_WaitSent(kLongMS));
    plugin.Stop();
    EXPECT_FALSE(UsbdReplay_WaitAllReturned(0));
    EXPECT_EQ(UsbdReplay_GetCounters().outstanding, 2u);

    Usbd_NotifyUsbVirtualChannelAvailable();
    for (const Sent& message : plugin.Messages()) Return(message);
    EXPECT_TRUE(UsbdReplay_WaitAllReturned(0)) << "what returns late still counts";
    EXPECT_EQ(UsbdReplay_GetCounters().fastLatency.samples, 0u);
    EXPECT_EQ(UsbdReplay_GetCounters().returned.fast, 1u);
}

}  // namespace
