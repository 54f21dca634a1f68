// Unique session ids.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <set>
#include <thread>
#include <vector>

#include "rpc/SessionUtils.h"

namespace {

TEST(UniqueSid, APairKeepsItsIdUntilItIsRemoved) {
    int places[2];
    const uint32_t first = SessionUtils::GetUniqueSid(1, &places[0]);
    EXPECT_NE(first, 0u);
    EXPECT_EQ(SessionUtils::GetUniqueSid(1, &places[0]), first);
    const uint32_t others[] = {SessionUtils::GetUniqueSid(2, &places[0]), SessionUtils::GetUniqueSid(1, &places[1])};
    EXPECT_NE(others[0], first);
    EXPECT_NE(others[1], first);
    EXPECT_NE(others[0], others[1]);
    uint32_t number = 0;
    void* pointer = nullptr;
    EXPECT_TRUE(SessionUtils::FindUniqueSid(others[1], &number, &pointer));
    EXPECT_EQ(number, 1u);
    EXPECT_EQ(pointer, &places[1]);
    for (const uint32_t sid : {first, others[0], others[1]}) {
        EXPECT_TRUE(SessionUtils::RemoveUniqueSid(sid));
        EXPECT_FALSE(SessionUtils::RemoveUniqueSid(sid));
        EXPECT_FALSE(SessionUtils::FindUniqueSid(sid, nullptr, nullptr));
    }
    const uint32_t again = SessionUtils::GetUniqueSid(1, &places[0]);
    EXPECT_NE(again, first);
    EXPECT_TRUE(SessionUtils::RemoveUniqueSid(again));
}

TEST(UniqueSid, ThreadsGetOneIdForAPairAndDifferentOnesForOthers) {
    constexpr uint32_t kThreads = 4, kPairs = 200;
    static char place;
    std::vector<std::vector<uint32_t>> sids(kThreads, std::vector<uint32_t>(kPairs));
    std::atomic<uint32_t> waiting{kThreads};
    std::vector<std::thread> threads;
    for (uint32_t thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            --waiting;
            while (waiting > 0) std::this_thread::yield();
            for (uint32_t pair = 0; pair < kPairs; ++pair) {
                sids[thread][pair] = SessionUtils::GetUniqueSid(pair, &place);
                // One of its own beside them, which comes and goes.
                const uint32_t own = SessionUtils::GetUniqueSid(thread, &sids[thread]);
                uint32_t number = kThreads;
                void* pointer = nullptr;
                EXPECT_TRUE(SessionUtils::FindUniqueSid(own, &number, &pointer));
                EXPECT_EQ(number, thread);
                EXPECT_EQ(pointer, &sids[thread]);
                EXPECT_TRUE(SessionUtils::RemoveUniqueSid(own));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    threads.clear();
    for (const std::vector<uint32_t>& other : sids) EXPECT_EQ(other, sids[0]);
    const std::set<uint32_t> different(sids[0].begin(), sids[0].end());
    EXPECT_EQ(different.size(), kPairs);
    EXPECT_FALSE(different.contains(0));

    // Of several that remove an id one does.
    std::atomic<uint32_t> removed{0};
    for (uint32_t thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&] {
            for (const uint32_t sid : sids[0]) removed += SessionUtils::RemoveUniqueSid(sid);
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(removed, kPairs);
}

}  // namespace
