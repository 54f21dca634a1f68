#include "logging/LogMessageCache.h"

#include <unistd.h>

#include <cstdarg>
#include <cstring>
#include <new>
#include <utility>

#include "logging/Log.h"
#include "logging/LoggerManager.h"
#include "runtime/KxPollThread.h"
#include "runtime/StringUtils.h"

// A deferred line shows it whole, so it is one text whatever the compiler's way to spell it.
static constexpr char kNewMessageSignature[] = "LogMessage* LogMessageCache::NewMessage()";

// Gives idle blocks back, on the logger's poll thread. Without a default logger, or once the manager shuts down, it is
// never queued.
class LogMessageCache::BlockReleaseTimer : public KxPollItem {
public:
    explicit BlockReleaseTimer(LogMessageCache* cache)
        : KxPollItem("LogMessageCache::BlockReleaseTimer"), cache(cache) {}

    void AddToPollThread() {
        if (LoggerManager::GetDefaultLogger() && !LoggerManager::IsShuttingDown()) {
            LoggerManager::GetPollThread()->AddItem(this, kReleasePeriodMS);
        }
    }
    bool Run(bool) override {
        cache->OnBlockReleaseTimer();
        return true;
    }

private:
    LogMessageCache* const cache;  // removes the timer before it goes
};

LogMessageBlock::LogMessageBlock(const RCPtr<LogMessageCache>& cache) : freeCount(kMessages), cache(cache) {
    for (int i = 0; i + 1 < kMessages; ++i) messages[i].nextFree = &messages[i + 1];
    freeHead = &messages[0];
    freeTail = &messages[kMessages - 1];
}

LogMessageCache::~LogMessageCache() {
    ReleaseBlocks();
}

LogMessage* LogMessageCache::NewMessage() {
    {
        KxMutexGuard guard(lock);
        LogMessage* const message = lostLines == 0 ? TakeFree() : nullptr;
        if (message) return message;
    }
    // A deferred line, and a new block, ask the manager, whose lock comes before this one.
    KxMutexGuard managerGuard(LoggerLock());
    KxMutexGuard guard(lock);
    LogMessage* message = TakeFree();
    if (!message && AddBlock(kNewMessageSignature)) message = TakeFree();
    if (!message) {
        ++lostLines;
    } else if (lostLines > 0) {
        AddPendingLine(kNewMessageSignature, kLogError, "Dropped %u messages for want of memory", lostLines);
        lostLines = 0;
    }
    return message;
}

LogMessage* LogMessageCache::TakeFree() {
    if (blocks.empty() || !blocks.front()->freeHead) return nullptr;
    const RCPtr<LogMessageBlock>& block = blocks.front();
    LogMessage* const message = block->freeHead;
    block->freeHead = message->nextFree;
    --block->freeCount;
    message->block = block.Get();
    message->nextFree = nullptr;
    if (!block->freeHead) {
        block->freeTail = nullptr;
        blocks.splice(blocks.end(), blocks, block->position);
    }
    return message;
}

bool LogMessageCache::AddBlock(const char* function) {
    if (!releaseTimer && !blocks.empty()) {
        const RCPtr<BlockReleaseTimer> timer(new BlockReleaseTimer(this));
        releaseTimer = timer.Get();  // first, as a line of the poll thread may come back here
        timer->AddToPollThread();
    }
    auto* const block = new (std::nothrow) LogMessageBlock(RCPtr<LogMessageCache>(this));
    if (!block) return false;
    blocks.emplace_front(block);
    block->position = blocks.begin();
    AddPendingLine(function, sizeReports == 0 ? kLogVerbose : kLogTrace, "Log message cache size is %d",
                   static_cast<int>(blocks.size()) * LogMessageBlock::kMessages);
    ++sizeReports;
    return true;
}

// A full block comes to the front as soon as it has a free message, so that the search for one ends at once.
void LogMessageCache::ReturnMessage(LogMessage* message) {
    RCPtr<LogMessageBlock> last;  // goes after the lock
    KxMutexGuard guard(lock);
    LogMessageBlock* const block = std::exchange(message->block, nullptr);
    message->nextFree = nullptr;
    if (block->freeTail) {
        block->freeTail->nextFree = message;
    } else {
        block->freeHead = message;
        if (block->position != blocks.end()) blocks.splice(blocks.begin(), blocks, block->position);
    }
    block->freeTail = message;
    if (++block->freeCount < LogMessageBlock::kMessages) return;
    block->idleTimer.GetTimerCount(KxTimer::Mode::Start, 0);
    last = std::move(block->self);
}

// The caller's hold of the pool keeps it, should the last of a removed block's messages be among them.
void LogMessageCache::ReturnMessages(std::span<RCPtr<LogMessage>> messages) {
    const RCPtr<LogMessageCache> kept(this);
    KxMutexGuard guard(lock);
    for (RCPtr<LogMessage>& message : messages) message = nullptr;
}

void LogMessageCache::OnBlockReleaseTimer(int64 now) {
    RCPtr<LogMessageBlock> released;  // goes after the lock
    KxMutexGuard guard(lock);
    if (blocks.size() <= kMinBlocks) return;
    for (const RCPtr<LogMessageBlock>& block : blocks) {
        const bool idle = block->freeCount == LogMessageBlock::kMessages &&
                          block->idleTimer.GetTimerMS(KxTimer::Mode::Read, now) >= kIdleMS;
        if (!idle) continue;
        released = block;
        blocks.erase(released->position);
        released->position = blocks.end();
        ReportSize("void LogMessageCache::OnBlockReleaseTimer()");
        return;
    }
}

// Analysed by hand, for the gap in the lock.
void LogMessageCache::ReportSize(const char* function) NO_THREAD_SAFETY_ANALYSIS {
    const int size = static_cast<int>(blocks.size()) * LogMessageBlock::kMessages;
    const int level = sizeReports++ == 0 ? kLogVerbose : kLogTrace;
    lock.Release();
    if (LogEnabled(level)) Logger::Log(function, level, "Log message cache size is %d", size);
    lock.Acquire();
}

void LogMessageCache::ReleaseBlocks() {
    RCPtr<KxPollItem> timer;
    {
        KxMutexGuard guard(lock);
        timer = std::move(releaseTimer);
    }
    if (timer) timer->RemoveFromPollThread(true);
    std::list<RCPtr<LogMessageBlock>> released;  // goes after the lock
    KxMutexGuard guard(lock);
    for (const RCPtr<LogMessageBlock>& block : blocks) {
        block->position = blocks.end();
        if (block->freeCount < LogMessageBlock::kMessages) block->self = block;
    }
    released.swap(blocks);
}

size_t LogMessageCache::BlockCount() {
    KxMutexGuard guard(lock);
    return blocks.size();
}

// No writer can be reached from here, so the line is laid out by hand.
void LogMessageCache::AddPendingLine(const char* function, int level, const char* format, ...) {
    int used = pendingLength.load(std::memory_order_relaxed);
    if (!LogEnabled(level) || used + 1 >= kPendingSize) return;
    const RCPtr<Logger> logger = LoggerManager::GetDefaultLogger();
    const bool utc = logger && !logger->UsesLocalTime();
    used += StringUtils::FormatTimestamp(pendingText + used, kPendingSize - used, utc);
    used += StringUtils::Snprintf(pendingText + used, kPendingSize - used,
                                  " <%08llX> [%04X] %c %s: ", static_cast<unsigned long long>(GetThreadNumber()),
                                  static_cast<unsigned>(getpid()), LogLevelLetter(level), function);
    va_list args;
    va_start(args, format);
    used += StringUtils::SnprintfV(pendingText + used, kPendingSize - used, format, args);
    va_end(args);
    if (pendingText[used - 1] != '\n' && used + 1 < kPendingSize) {
        pendingText[used++] = '\n';
        pendingText[used] = '\0';
    }
    pendingLength.store(used, std::memory_order_relaxed);
}

void LogMessageCache::TakePending(LogMessage& message) {
    KxMutexGuard guard(lock);
    const int pending = pendingLength.load(std::memory_order_relaxed);
    if (pending == 0) return;
    message.Append(pendingText, pending, true);
    pendingLength.store(0, std::memory_order_relaxed);
}

RCPtr<LogMessage> LogMessageManager::NewMessage(int level, const char* text, int length) {
    RCPtr<LogMessage> message(cache->NewMessage());
    if (message) message->Init(level, text, length);
    return message;
}
