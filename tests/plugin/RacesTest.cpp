#include <atomic>
#include <barrier>
#include <thread>

#include "tests/plugin/PluginUnderTest.h"

namespace {

using qscservice::Value;

void Answered() {}

using Races = PluginUnderTest;

TEST_F(Races, MessagesOfTheDaemonMeetAnInstanceOrNone) {
    Start();
    std::atomic<bool> stop{false};
    std::atomic<int> accepted{0};
    std::vector<std::thread> senders;
    const unsigned char payload[] = "payload";
    senders.emplace_back([&] {
        while (!stop) accepted += daemon.postMsgFast(sizeof payload, payload);
    });
    senders.emplace_back([&] {
        while (!stop) {
            daemon.postMsg("Type", 4, "text");
            accepted += daemon.postHIDOptMsgFast(sizeof payload, payload);
            daemon.sendAsyncMsg("Type", 4, "text", Answered, nullptr, "id");
        }
    });
    for (int round = 0; round < 30; ++round) {
        CreateInstance();
        ASSERT_TRUE(service.BringUp());
        const int before = accepted;
        while (accepted == before) std::this_thread::yield();
        if (round % 2 == 0) service.BringDown();
        DestroyInstance();
        service.ClearSent();
    }
    stop = true;
    for (std::thread& sender : senders) sender.join();
    EXPECT_TRUE(log.Has(kLogInfo, "UsbRedirectionClientPlugin isn't initialized.\n"));
}

TEST_F(Races, ResponsesMeetTheirRecordsWhileMoreAreSent) {
    constexpr int kMessages = 300;
    StartReady();
    std::atomic<int> sent{0};
    std::thread sender([&] {
        for (int i = 0; i < kMessages; ++i) {
            daemon.sendAsyncMsg("Type", 4, "text", Answered, nullptr, std::to_string(i).c_str());
            sent = i + 1;
        }
    });
    const std::vector<uint8_t> content{1};
    for (int i = 0; i < kMessages; ++i) {
        while (sent <= i) std::this_thread::yield();
        const uint32_t request = service.Sent()[static_cast<size_t>(i)].requestId;
        ASSERT_TRUE(service.Complete(request, {Value(std::to_string(i)), Value(content)}));
    }
    sender.join();
    EXPECT_EQ(log.Texts(kLogError), Texts{});
    EXPECT_EQ(log.Count("Prepare to callback to usbd.\n"), size_t{kMessages});
}

TEST_F(Races, ReportAndReadyTellTheClientExactlyOnce) {
    for (int round = 0; round < 40; ++round) {
        SetUp();
        Start();
        CreateInstance();
        std::barrier together(2);
        std::thread reporter([&] {
            together.arrive_and_wait();
            daemon.initDone(0);
        });
        together.arrive_and_wait();
        ASSERT_TRUE(service.BringUp());
        reporter.join();
        ASSERT_EQ(Heard(), Texts{"init done " + Identity()});
        service.BringDown();
        Exit();
    }
}

TEST_F(Races, TheReportMayComeWhileTheInstanceGoes) {
    Start();
    std::atomic<bool> stop{false};
    std::thread reporter([&] {
        while (!stop) daemon.initDone(0);
    });
    for (int round = 0; round < 100; ++round) {
        CreateInstance();
        if (round % 4 == 0) {
            ASSERT_TRUE(service.BringUp());
        }
        DestroyInstance();
    }
    stop = true;
    reporter.join();
    for (const std::string& text : log.Texts(kLogError)) {
        EXPECT_EQ(text, "Channel.v1.UnregisterChannelNotifySink() [OK]\n");
    }
}

}  // namespace
