// The replaying daemon behind its boundary, with a plug-in made for the test that sends everything straight back.
#include "standin/usbd/UsbdReplay.h"

#include <gtest/gtest.h>

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
    std::string content;
    Usbd_AsyncFinalRespCb callback = nullptr;
    void* context = nullptr;
};

void ReturnFast(const std::string& content) {
    const auto size = static_cast<uint32_t>(content.size());
    Usbd_PostMsgToUsbdPoll(content.data(), size, kUsbmonHeaderSize, size - kUsbmonHeaderSize);
}

void Respond(const Sent& message, const std::string& response) {
    Usbd_SendAsyncMsgRespCb(message.callback, message.context, 0, response.data(),
                            static_cast<uint32_t>(response.size()));
}

// What a plug-in and an agent without fault do: accept the message and send it back at once.
bool Return(const Sent& message) {
    if (message.kind == 'f') ReturnFast(message.content);
    if (message.kind == 'h') Usbd_PostHIDOptOperationMsg(message.content.data(), message.content.size());
    if (message.kind == 'a') Respond(message, kUsbResponsePrefix + message.content);
    return true;
}

// Stands where the plug-in does: registers its callbacks, lends a thread to StartUsbd, and stops the daemon when it
// goes.
class Plugin {
public:
    explicit Plugin(std::function<bool(const Sent&)> onMessage = Return) : handle(std::move(onMessage)) {
        current = this;
        Usbd_SetPostMsgCb([](const char*, size_t size, const char* data) {
            current->OnMessage({'p', std::string(data, size)});
        });
        Usbd_SetPostMsgFastCb([](size_t size, const unsigned char* data) {
            return current->OnMessage({'f', std::string(data, data + size)});
        });
        Usbd_SetPostHIDOptMsgFastCb([](size_t size, const unsigned char* data) {
            return current->OnMessage({'h', std::string(data, data + size)});
        });
        Usbd_SetSendAsyncMsgCb([](const char*, size_t size, const char* data, Usbd_AsyncFinalRespCb callback,
                                  void* context, const char*) -> void* {
            current->OnMessage({'a', std::string(data, size), callback, context});
            return nullptr;
        });
    }

    ~Plugin() { Stop(); }

    void Start() {
        thread = std::thread([] {
            char name[] = "velmora-client-usbd", enabled[] = "TrUe", pid[] = "pid@1";
            char* arguments[] = {name, enabled, pid, nullptr};
            EXPECT_EQ(StartUsbd(3, arguments), 0);
        });
    }

    // With the channel up, until all is sent.
    void Run() {
        Start();
        Usbd_NotifyUsbVirtualChannelAvailable();
        ASSERT_TRUE(UsbdReplay_WaitSent(kLongMS));
    }

    void Stop() {
        if (!thread.joinable()) return;
        StopUsbd(1);
        thread.join();
    }

    std::vector<Sent> Messages() {
        std::lock_guard guard(lock);
        return messages;
    }

private:
    bool OnMessage(Sent message) {
        {
            std::lock_guard guard(lock);
            messages.push_back(message);
        }
        return handle(message);
    }

    static inline Plugin* current = nullptr;
    const std::function<bool(const Sent&)> handle;
    std::mutex lock;  // guards messages
    std::vector<Sent> messages;
    std::thread thread;
};

UsbReplayPlan PlanOf(const std::vector<UsbRecord>& records) {
    UsbReplayPlan plan;
    plan.captures = {CaptureOf(records)};
    return plan;
}

UsbReplayPlan TransfersPlan(uint64_t transfers, UsbTransferType type = kBulk) {
    std::vector<UsbRecord> records;
    for (uint64_t id = 1; id <= transfers; ++id) records.push_back(TransferOf(type, id, {}));
    return PlanOf(records);
}

void Configure(UsbReplayPlan plan) {
    std::string error;
    ASSERT_TRUE(UsbdReplay_Configure(std::move(plan), &error)) << error;
    UsbdReplay_SetChannelUp(false);
}

struct ReturnCase {
    char kind;  // of the one message that is answered so: 'f', 'h' or 'a'
    std::function<void(const Sent&)> answer;
    const char* mismatch;  // how the text begins; empty: none
    uint64_t outstanding = 1;
    bool accepted = true;
};

TEST(UsbReplay, AccountsForWhatComesBackAndNoticesEveryWayInWhichItCanBeWrong) {
    const auto fast = [](uint32_t size, uint32_t header, uint32_t trailer) {
        return [=](const Sent& m) { Usbd_PostMsgToUsbdPoll(m.content.data(), size, header, trailer); };
    };
    const auto changed = [](Sent m) {
        m.content[0] ^= 1;
        Return(m);
    };
    const auto twice = [](const Sent& m) {
        Return(m);
        Return(m);
    };
    const auto response = [](const char* prefix, const char* tail) {
        return [=](const Sent& m) { Respond(m, prefix + m.content + tail); };
    };
    const auto foreign = reinterpret_cast<Usbd_AsyncFinalRespCb>(&ReturnFast);
    const std::vector<ReturnCase> cases = {
        {'f', Return, "", 0},
        {'f', fast(364, 63, 300), "fast post: header length 63"},
        {'f', fast(63, 64, static_cast<uint32_t>(-1)), "fast post of 63 bytes: trailer 4294967295"},
        {'f', changed, "fast post of 364 bytes: never sent"},
        {'f', twice, "fast post of 364 bytes: came back more often than it was sent", 0},
        {'f', Return, "fast post of 364 bytes: came back although it was refused", 0, false},
        {'h', [](const Sent& m) { ReturnFast(m.content); }, "fast post of 72 bytes: never sent"},
        {'h', [](const Sent&) { Usbd_PostHIDOptOperationMsg("", 0); }, "HID post of 0 bytes: never sent"},
        {'a', response(kUsbResponsePrefix, "x"), "final response: response:capture 1"},
        {'a', twice, "final response: unknown context", 0},
        {'a', [](const Sent& m) { Usbd_SendAsyncMsgRespCb(m.callback, m.context, 1, "", 0); },
         "final response: status 1"},
        {'a', [=](const Sent& m) { Usbd_SendAsyncMsgRespCb(foreign, m.context, 0, "", 0); },
         "final response: foreign callback"},
    };
    const Bytes report(8, 1);
    for (const ReturnCase& c : cases) {
        SCOPED_TRACE(c.mismatch);
        Configure(PlanOf({TransferOf(kInterrupt, 1, report), TransferOf(kBulk, 2, report, 300)}));
        Plugin plugin([&c](const Sent& m) {
            if (m.kind != c.kind) return Return(m);
            c.answer(m);
            return c.accepted;
        });
        plugin.Run();
        plugin.Stop();
        const UsbReplayCounters counters = UsbdReplay_GetCounters();
        EXPECT_EQ(counters.mismatched, *c.mismatch ? 1u : 0u);
        EXPECT_EQ(counters.sent.Messages(), 3u);
        EXPECT_TRUE(counters.firstMismatch.starts_with(c.mismatch)) << counters.firstMismatch;
        EXPECT_EQ(counters.outstanding, c.outstanding);
        EXPECT_EQ(UsbdReplay_WaitAllReturned(0), c.outstanding == 0);
    }
}

TEST(UsbReplay, PausesAfterARefusalUntilTheChannelIsAvailableAgain) {
    for (const UsbTransferType type : {kBulk, kInterrupt}) {
        Configure(TransfersPlan(4, type));
        int number = 0;
        std::promise<void> refusing;
        Plugin plugin([&](const Sent& m) {
            if (m.kind == 'a' || ++number != 2) return Return(m);
            refusing.set_value();
            return false;
        });
        plugin.Start();
        EXPECT_FALSE(UsbdReplay_WaitSent(kGlanceMS)) << "the channel isn't up yet";
        EXPECT_EQ(plugin.Messages().size(), 0u);

        Usbd_NotifyUsbVirtualChannelAvailable();
        refusing.get_future().wait();
        EXPECT_FALSE(UsbdReplay_WaitSent(kGlanceMS));
        EXPECT_EQ(plugin.Messages().size(), 3u) << "announcement, accepted and refused message";

        Usbd_NotifyUsbVirtualChannelAvailable();
        ASSERT_TRUE(UsbdReplay_WaitSent(kLongMS));
        EXPECT_TRUE(UsbdReplay_WaitAllReturned(kLongMS));
        const UsbReplayCounters counters = UsbdReplay_GetCounters();
        EXPECT_EQ((type == kBulk ? counters.refused.fast : counters.refused.hid), 1u);
        EXPECT_EQ(counters.refused.Messages(), 1u);
        EXPECT_EQ(counters.sent.Messages(), 5u);
        EXPECT_EQ(counters.outstanding, 0u);
    }
}

TEST(UsbReplay, ARefusalThatTheChannelHasOvertakenIsNoReasonToPause) {
    Configure(TransfersPlan(20));
    Plugin plugin([](const Sent& m) {
        if (m.kind == 'a') return Return(m);
        Usbd_NotifyUsbVirtualChannelAvailable();
        return false;
    });
    plugin.Run();
    EXPECT_TRUE(UsbdReplay_WaitAllReturned(kLongMS));
    EXPECT_EQ(UsbdReplay_GetCounters().refused.fast, 20u);
    EXPECT_EQ(UsbdReplay_GetCounters().channelUps, 21u);
}

UsbReplayPlan TimedPlan(std::initializer_list<int64_t> us) {
    std::vector<UsbRecord> records;
    for (const int64_t at : us) {
        records.push_back(TransferOf(kBulk, records.size() + 1, {}));
        records.back().timestampUs = 1700000000000000 + at;
    }
    UsbReplayPlan plan = PlanOf(records);
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
    plugin.Run();
    EXPECT_EQ(waited, (std::vector<int64_t>{0, 1500, 1500, 4000000, 4000000, 4001500, 4001500, 8000000}));
}

TEST(UsbReplay, AStopCutsThePauseOfATimedReplayShort) {
    constexpr int64_t kHourUs = 3600ll * 1000000;
    Configure(TimedPlan({0, kHourUs}));
    Plugin plugin;
    plugin.Start();
    Usbd_NotifyUsbVirtualChannelAvailable();
    ASSERT_TRUE(UsbdReplay_WaitReturned(2, kLongMS));
    plugin.Stop();
    EXPECT_EQ(plugin.Messages().size(), 2u);
}

TEST(UsbReplay, AStopAheadOfTheStartEndsThatOneAtOnce) {
    Configure(TransfersPlan(1));
    StopUsbd(0);
    EXPECT_EQ(StartUsbd(0, nullptr), 0);
    Plugin plugin;
    plugin.Run();
}

}  // namespace
