// The memory of the pool of log messages after a burst: all messages out at once, given back, and then a turn of its
// release timer for each minute of an injected clock. Prints a JSON object for each moment that is of interest.
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <vector>

#include "logging/LogLevel.h"
#include "logging/LogMessageCache.h"

namespace {

constexpr int kBurst = 100000;
constexpr int64 kMinuteNs = int64{LogMessageCache::kReleasePeriodMS} * 1000000;
constexpr int kMoments[] = {0, 9, 10, 11, 60, 300, 600};

void Print(int minute, int out, LogMessageCache& pool) {
    const size_t blocks = pool.BlockCount();
    std::printf("{\"minute\": %d, \"out\": %d, \"blocks\": %zu, \"pool_bytes\": %zu, \"heap_bytes\": %zu}\n", minute,
                out, blocks, blocks * sizeof(LogMessageBlock), mallinfo2().uordblks);
}

}  // namespace

int main() {
    const RCPtr<LogMessageManager> manager(new LogMessageManager);
    LogMessageCache& pool = manager->Cache();
    std::vector<RCPtr<LogMessage>> inFlight(kBurst);
    for (RCPtr<LogMessage>& message : inFlight) message = manager->NewMessage(kLogInfo, "a line in flight", -1);
    Print(0, kBurst, pool);
    pool.ReturnMessages(inFlight);
    const int64 end = KxElapsedTimer::GetTimerNow();
    for (int minute = 0; pool.BlockCount() > LogMessageCache::kMinBlocks; ++minute) {
        pool.OnBlockReleaseTimer(end + minute * kMinuteNs);
        const bool last = pool.BlockCount() == LogMessageCache::kMinBlocks;
        const bool shown = std::find(std::begin(kMoments), std::end(kMoments), minute) != std::end(kMoments);
        if (shown || last) Print(minute, 0, pool);
    }
    return 0;
}
