// Unique session ids under several threads.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <set>
#include <thread>
#include <vector>

#include "rpc/SessionUtils.h"

namespace {

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
