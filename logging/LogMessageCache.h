// The pool of log messages: blocks of 100, which grow without a bound and are given back after ten idle minutes.
#pragma once

#include <atomic>
#include <list>
#include <span>

#include "logging/LogMessage.h"
#include "runtime/KxMutex.h"
#include "runtime/KxPollItem.h"
#include "runtime/KxTimer.h"
#include "runtime/RCObject.h"
#include "runtime/ThreadAnnotations.h"

class LogMessageCache;

class LogMessageBlock : public RCObject {
public:
    static constexpr int kMessages = 100;

    explicit LogMessageBlock(const RCPtr<LogMessageCache>& cache);

private:
    friend class LogMessage;
    friend class LogMessageCache;
    using Position = std::list<RCPtr<LogMessageBlock>>::iterator;

    LogMessage messages[kMessages];
    // The free list, used in turn from its head; both null when the block is full. These and the rest are guarded by
    // the pool's lock.
    LogMessage* freeHead = nullptr;
    LogMessage* freeTail = nullptr;
    int32_t freeCount = 0;
    KxElapsedTimer idleTimer;  // since all messages were free
    const RCPtr<LogMessageCache> cache;
    Position position;            // its place among the blocks, their end after removal
    RCPtr<LogMessageBlock> self;  // from its removal until the last message that is out returns
};

// Any thread may take and return messages. The pool's lock is never held across a call into the logger, and the log
// lock comes first where both are taken: so the pool leaves its own lines in a small buffer, from where they go out
// ahead of the next message.
class LogMessageCache : public RCObject {
public:
    static constexpr int kPendingSize = 1024;  // of the buffer for deferred lines, a zero byte included
    static constexpr int32_t kReleasePeriodMS = 60000;
    static constexpr uint64 kIdleMS = 600000;
    static constexpr size_t kMinBlocks = 1;

    LogMessageCache() = default;
    ~LogMessageCache() override;

    // A message without text and without a reference; null if there is no memory for a block. Lines that are lost that
    // way are reported ahead of the next message.
    LogMessage* NewMessage() EXCLUDES(lock);
    void ReturnMessage(LogMessage* message) EXCLUDES(lock);

    // Empties all of messages: as if one by one, but those that return to the pool do so in one hold of its lock.
    void ReturnMessages(std::span<RCPtr<LogMessage>> messages) EXCLUDES(lock);

    // Gives one block back, if there is one that has been idle for long enough. now is a count of the timers' clock,
    // 0 to read it.
    void OnBlockReleaseTimer(int64 now = 0) EXCLUDES(lock);

    // Takes all blocks out of the pool. A block with messages out lives until the last of them returns.
    void ReleaseBlocks() EXCLUDES(lock);

    size_t BlockCount() EXCLUDES(lock);

private:
    friend class LogMessage;
    class BlockReleaseTimer;

    LogMessage* TakeFree() REQUIRES(lock);
    bool AddBlock(const char* function) REQUIRES(lock);
    void AddPendingLine(const char* function, int level, const char* format, ...) REQUIRES(lock)
        __attribute__((format(printf, 4, 5)));
    void ReportSize(const char* function) REQUIRES(lock);
    void TakePending(LogMessage& message) EXCLUDES(lock);

    KxMutex lock{false, ""};                                    // guards all below and the free lists of all blocks
    std::list<RCPtr<LogMessageBlock>> blocks GUARDED_BY(lock);  // those with free messages ahead of full ones
    RCPtr<KxPollItem> releaseTimer GUARDED_BY(lock);            // made with the second block
    char pendingText[kPendingSize] GUARDED_BY(lock) = "";
    std::atomic<int32_t> pendingLength{0};  // changed under lock, tested without it
    uint32_t sizeReports GUARDED_BY(lock) = 0;
    uint32_t lostLines GUARDED_BY(lock) = 0;  // for want of memory
};

// The pool as the loggers share it.
class LogMessageManager : public RCObject {
public:
    LogMessageManager() : cache(new LogMessageCache) {}
    // Breaks the circle of references between the pool and its blocks.
    ~LogMessageManager() override { cache->ReleaseBlocks(); }

    // A message with text (may be null; length -1: up to its end); null if there is no memory.
    RCPtr<LogMessage> NewMessage(int level, const char* text, int length);

    LogMessageCache& Cache() { return *cache; }

private:
    const RCPtr<LogMessageCache> cache;
};
