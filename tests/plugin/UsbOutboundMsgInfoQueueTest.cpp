#include "plugin/UsbOutboundMsgInfoQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

void Callback() {}

TEST(UsbOutboundMsgInfoQueue, LooksAtTheOldestRecordOfAnIdUntilItIsRemoved) {
    UsbOutboundMsgInfoQueue queue;
    int first = 1, second = 2;
    queue.AddMsgInfo("a", Callback, &first);
    queue.AddMsgInfo("a", Callback, &second);
    queue.AddMsgInfo(nullptr, Callback, nullptr);
    EXPECT_EQ(queue.GetMsgInfo("a")->context, &first);
    EXPECT_TRUE(queue.RemoveMsgInfo("a"));
    EXPECT_EQ(queue.GetMsgInfo("a")->context, &second);
    EXPECT_EQ(queue.GetMsgInfo(std::string("a\0", 2)), nullptr);
    EXPECT_TRUE(queue.RemoveMsgInfo(""));
    EXPECT_FALSE(queue.RemoveMsgInfo(""));
    queue.Clear();
    EXPECT_EQ(queue.GetMsgInfo("a"), nullptr);
}

TEST(UsbOutboundMsgInfoQueue, GivesEachRecordToOneOfManyTakers) {
    constexpr int kRecords = 2000;
    UsbOutboundMsgInfoQueue queue;
    std::atomic<int> taken{0};
    std::atomic<uint64_t> sum{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&] {
            for (uintptr_t i = 1; i <= kRecords / 2; ++i) queue.AddMsgInfo("id", Callback, reinterpret_cast<void*>(i));
        });
        threads.emplace_back([&] {
            Usbd_AsyncFinalRespCb callback;
            void* context;
            while (taken.load() < kRecords) {
                if (!queue.TakeMsgInfo("id", &callback, &context)) {
                    std::this_thread::yield();
                    continue;
                }
                sum += reinterpret_cast<uintptr_t>(context);
                ++taken;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(taken.load(), kRecords);
    EXPECT_EQ(sum.load(), uint64_t{kRecords / 2} * (kRecords / 2 + 1));
    EXPECT_EQ(queue.GetMsgInfo("id"), nullptr);
}

}  // namespace
