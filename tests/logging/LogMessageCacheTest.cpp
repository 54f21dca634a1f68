#include "logging/LogMessageCache.h"

#include <atomic>
#include <thread>

#include "tests/logging/LogSupport.h"
#include "tests/support/LogCapture.h"

namespace {

constexpr int kPerBlock = LogMessageBlock::kMessages;
constexpr int64 kNanosPerMS = 1000000;

using Messages = std::vector<RCPtr<LogMessage>>;

class LogMessageCacheTest : public LoggingTest {
protected:
    Messages Take(int count) {
        Messages taken;
        for (int i = 0; i < count; ++i) taken.push_back(manager->NewMessage(kLogInfo, nullptr, 0));
        return taken;
    }
    // A tick of the timer, that long after now.
    void TickAfter(uint64 milliseconds) {
        manager->Cache().OnBlockReleaseTimer(KxElapsedTimer::GetTimerNow() +
                                             static_cast<int64>(milliseconds) * kNanosPerMS);
    }
    size_t Blocks() { return manager->Cache().BlockCount(); }

    const RCPtr<LogMessageManager> manager{new LogMessageManager};
};

TEST_F(LogMessageCacheTest, MessagesAreUsedInTurnAndComeBackEmpty) {
    const LogMessage* const first = manager->NewMessage(kLogInfo, std::string(1000, 'x').c_str(), -1).Get();
    for (int i = 1; i < kPerBlock; ++i) EXPECT_NE(manager->NewMessage(kLogInfo, "y", -1).Get(), first);
    const RCPtr<LogMessage> again = manager->NewMessage(kLogInfo, nullptr, 0);
    EXPECT_EQ(again.Get(), first);
    EXPECT_STREQ(again->Text(), "");
    EXPECT_EQ(again->Capacity(), LogMessage::kInlineSize);
}

TEST_F(LogMessageCacheTest, GrowsByABlockWithTheFirstMessageBeyondIt) {
    Messages taken = Take(kPerBlock);
    EXPECT_EQ(Blocks(), 1u);
    taken.push_back(manager->NewMessage(kLogInfo, nullptr, 0));
    EXPECT_EQ(Blocks(), 2u);
    const LogMessage* const freed = taken[3].Get();
    taken.erase(taken.begin() + 3);  // the full block has room again, ahead of the other or behind it
    Messages more = Take(kPerBlock);
    EXPECT_EQ(Blocks(), 2u);
    EXPECT_TRUE(std::any_of(more.begin(), more.end(), [&](const auto& each) { return each.Get() == freed; }));
    more.push_back(manager->NewMessage(kLogInfo, nullptr, 0));
    EXPECT_EQ(Blocks(), 3u);
}

TEST_F(LogMessageCacheTest, TheSizeIsToldAheadOfTheMessageThatNeededABlock) {
    for (const int level : {kLogTrace, kLogDebug}) {
        LogCapture capture(level);
        const RCPtr<LogMessageManager> pool(new LogMessageManager);
        Messages first;
        for (int i = 0; i < kPerBlock; ++i) first.push_back(pool->NewMessage(kLogInfo, nullptr, 0));
        EXPECT_STREQ(first[0]->Text(), "") << "the first report is made at VERBOSE";
        const RCPtr<LogMessage> next = pool->NewMessage(kLogInfo, "own text", -1);
        const std::string report =
            " " + ProcessText() + " T LogMessage* LogMessageCache::NewMessage(): Log message cache size is 200\n";
        const std::string text = next->Text();
        EXPECT_EQ(Contains(text, report), level == kLogTrace) << text;
        EXPECT_EQ(CountOf(text, "\n"), level == kLogTrace ? 2u : 1u);
        EXPECT_TRUE(text.ends_with("own text\n"));
        EXPECT_STREQ(pool->NewMessage(kLogInfo, "own text", -1)->Text(), "own text\n");
    }
}

TEST_F(LogMessageCacheTest, DeferredLinesThatDontFitAreCut) {
    LogCapture capture(kLogVerbose);
    Messages taken;
    LogMessageCache& cache = manager->Cache();
    // Messages that are taken without being begun leave the deferred lines where they are.
    for (int i = 0; i < 20 * kPerBlock; ++i) taken.emplace_back(cache.NewMessage());
    const RCPtr<LogMessage> message = manager->NewMessage(kLogInfo, "own", -1);
    const std::string text = message->Text();
    EXPECT_LE(text.size(), static_cast<size_t>(LogMessageCache::kPendingSize) + 4);
    EXPECT_GT(text.size(), static_cast<size_t>(LogMessageCache::kPendingSize) - 8);
    EXPECT_EQ(text.substr(text.size() - 5), "\nown\n");
    EXPECT_TRUE(Contains(text, " V LogMessage* LogMessageCache::NewMessage(): Log message cache size is 100\n"));
    EXPECT_TRUE(Contains(text, " T LogMessage* LogMessageCache::NewMessage(): Log message cache size is 200\n"));
    EXPECT_EQ(CountOf(text, "size is 2000"), 0u);
}

TEST_F(LogMessageCacheTest, ABlockGoesAfterTenIdleMinutesAndTheLastOneStays) {
    Take(3 * kPerBlock);
    for (const auto& [minutes, blocks] : {std::pair<uint64, size_t>{0, 3}, {9, 3}, {10, 2}, {10, 1}, {1000, 1}}) {
        TickAfter(minutes * 60000);
        EXPECT_EQ(Blocks(), blocks) << minutes;
    }
}

TEST_F(LogMessageCacheTest, ABlockWithAMessageOutStays) {
    Messages first = Take(1);
    const RCPtr<LogMessage> last = Take(2 * kPerBlock - 1).back();
    for (const size_t expected : {2u, 1u}) {
        TickAfter(LogMessageCache::kIdleMS);
        EXPECT_EQ(Blocks(), expected);
        first.clear();
    }
}

TEST_F(LogMessageCacheTest, ReleasesAreToldThroughTheLogger) {
    Take(3 * kPerBlock);
    LogCapture capture(kLogVerbose);
    TickAfter(LogMessageCache::kIdleMS);
    const auto lines = capture.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].function, "void LogMessageCache::OnBlockReleaseTimer()");
    EXPECT_EQ(lines[0].text, "Log message cache size is 200");
    EXPECT_EQ(lines[0].level, kLogTrace) << "the pool has told its size before, if to nobody";
}

TEST_F(LogMessageCacheTest, AMessageOutlivesThePoolThatMadeIt) {
    RCPtr<LogMessage> message;
    {
        const RCPtr<LogMessageManager> pool(new LogMessageManager);
        message = pool->NewMessage(kLogInfo, "still here", -1);
    }
    EXPECT_STREQ(message->Text(), "still here\n");
    message = nullptr;  // frees block and pool: the address sanitizer watches
}

TEST_F(LogMessageCacheTest, ThreadsTakeAndReturnEachOthersMessages) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 3000;
    std::mutex lock;
    Messages shared;  // guarded by lock; each thread puts one and takes another
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                const std::string text = std::to_string(t) + "/" + std::to_string(i);
                RCPtr<LogMessage> message = manager->NewMessage(t, text.c_str(), -1);
                if (message->Text() != text + "\n" || message->Level() != t) ++wrong;
                std::lock_guard guard(lock);
                shared.push_back(std::move(message));
                if (shared.size() > 150) {
                    if (shared.front()->Length() < 4) ++wrong;
                    shared.erase(shared.begin());
                }
                if (i % 500 == 0) TickAfter(LogMessageCache::kIdleMS);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
    shared.clear();
    EXPECT_LE(Blocks(), 3u);
    while (Blocks() > 1) TickAfter(LogMessageCache::kIdleMS);
    const Messages again = Take(kPerBlock);
    EXPECT_EQ(Blocks(), 1u) << "no message was lost";
}

}  // namespace
