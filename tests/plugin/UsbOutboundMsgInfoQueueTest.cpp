#include "plugin/UsbOutboundMsgInfoQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

void Callback() {}

void* Word(uintptr_t value) {
    return reinterpret_cast<void*>(value);
}

TEST(UsbOutboundMsgInfoQueue, ClosesEqualIdsOldestFirst) {
    UsbOutboundMsgInfoQueue queue;
    queue.AddMsgInfo("a", Callback, Word(1));
    queue.AddMsgInfo("", nullptr, Word(2));
    queue.AddMsgInfo("a", nullptr, Word(3));
    queue.AddMsgInfo("ab", Callback, Word(4));

    ASSERT_NE(queue.GetMsgInfo("a"), nullptr);
    EXPECT_EQ(queue.GetMsgInfo("a")->context, Word(1));
    EXPECT_EQ(queue.GetMsgInfo("a"), queue.GetMsgInfo("a"));
    EXPECT_EQ(queue.GetMsgInfo("A"), nullptr);
    EXPECT_EQ(queue.GetMsgInfo(std::string("a\0", 2)), nullptr);

    EXPECT_TRUE(queue.RemoveMsgInfo("a"));
    EXPECT_EQ(queue.GetMsgInfo("a")->context, Word(3));

    Usbd_AsyncFinalRespCb callback = Callback;
    void* context = nullptr;
    EXPECT_TRUE(queue.TakeMsgInfo("", &callback, &context));
    EXPECT_EQ(callback, nullptr);
    EXPECT_EQ(context, Word(2));
    EXPECT_TRUE(queue.TakeMsgInfo("a", &callback, &context));
    EXPECT_EQ(context, Word(3));
    EXPECT_FALSE(queue.TakeMsgInfo("a", &callback, &context));
    EXPECT_FALSE(queue.RemoveMsgInfo("a"));
    EXPECT_EQ(context, Word(3));

    queue.Clear();
    EXPECT_EQ(queue.GetMsgInfo("ab"), nullptr);
}

TEST(UsbOutboundMsgInfoQueue, GivesEachRecordToOneOfManyTakers) {
    constexpr int kRecords = 2000;
    UsbOutboundMsgInfoQueue queue;
    std::atomic<int> taken{0};
    std::atomic<uint64_t> sum{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&] {
            for (uintptr_t i = 1; i <= kRecords / 2; ++i) queue.AddMsgInfo("id", Callback, Word(i));
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
