// Unique session ids.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
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
    const uint32_t second = SessionUtils::GetUniqueSid(2, &places[0]),
                   third = SessionUtils::GetUniqueSid(1, &places[1]);
    EXPECT_EQ((std::set{first, second, third}.size()), 3u);
    for (const uint32_t sid : {first, second, third}) {
        EXPECT_TRUE(SessionUtils::RemoveUniqueSid(sid));
        EXPECT_FALSE(SessionUtils::RemoveUniqueSid(sid));
        EXPECT_FALSE(SessionUtils::FindUniqueSid(sid, nullptr, nullptr));
    }
    const uint32_t again = SessionUtils::GetUniqueSid(1, &places[0]);
    EXPECT_NE(again, first);
    EXPECT_TRUE(SessionUtils::RemoveUniqueSid(again));
}

void OnThreads(uint32_t count, const std::function<void(uint32_t thread)>& action) {
    std::vector<std::thread> threads;
    for (uint32_t thread = 0; thread < count; ++thread) threads.emplace_back(action, thread);
    for (std::thread& thread : threads) thread.join();
}

TEST(UniqueSid, ThreadsGetOneIdForAPairAndDifferentOnesForOthers) {
    constexpr uint32_t kThreads = 4, kPairs = 200;
    static char place;
    std::vector<std::vector<uint32_t>> sids(kThreads, std::vector<uint32_t>(kPairs));
    std::atomic<uint32_t> waiting{kThreads};
    OnThreads(kThreads, [&](uint32_t thread) {
        --waiting;
        while (waiting > 0) std::this_thread::yield();
        for (uint32_t pair = 0; pair < kPairs; ++pair) {
            sids[thread][pair] = SessionUtils::GetUniqueSid(pair, &place);
            // One of its own beside them, which comes and goes.
            EXPECT_TRUE(SessionUtils::RemoveUniqueSid(SessionUtils::GetUniqueSid(thread, &sids[thread])));
        }
    });
    for (const std::vector<uint32_t>& other : sids) EXPECT_EQ(other, sids[0]);
    const std::set<uint32_t> different(sids[0].begin(), sids[0].end());
    EXPECT_EQ(different.size(), kPairs);
    EXPECT_FALSE(different.contains(0));

    // Of several that remove an id one does.
    std::atomic<uint32_t> removed{0};
    OnThreads(kThreads, [&](uint32_t) {
        for (const uint32_t sid : sids[0]) removed += SessionUtils::RemoveUniqueSid(sid);
    });
    EXPECT_EQ(removed, kPairs);
}

}  // namespace
