// The base of all outputs of a logger: the layout of a line, the queues, the background pass, the first and last line.
#pragma once

#include <atomic>
#include <string>

#include "logging/LogMessage.h"
#include "logging/LogQueue.h"
#include "logging/LoggerManager.h"
#include "runtime/KxPollItem.h"
#include "runtime/RCObject.h"
#include "runtime/ThreadAnnotations.h"

// A writer writes each line at once, on the caller's thread under the log lock, or, with buffering, queues it for a
// pass in the background once a flush period. A queue that outgrows its threshold while no pass runs turns batch mode
// on for good: then the logging threads write their lines themselves, by the hundred, and up to 99 wait for the next
// hundred, a Flush or the end.
//
// Lines dropped at the door are counted and reported by the next drain that finds a line in either queue. A report
// that the medium refuses stays due.
//
// A writer is started once and stopped once. All operations are safe on any thread, but SetEnabled, SetBuffering,
// SetBatchThreshold, Flush and Stop wait for a pass in progress: on another thread than "Logger", their caller doesn't
// hold the log lock once the writer is started. That lock guards the settings and the fill side of the queues; one
// drain runs at a time, on a queue that nobody fills.
class LogWriter : public RCObject {
public:
    static constexpr uint32_t kDefaultBatchThreshold = 15000;
    static constexpr uint32_t kDefaultFlushPeriodMS = 1000;

    explicit LogWriter(int type);
    ~LogWriter() override;

    // True discards a line at the queue's door; it counts as dropped.
    virtual bool ShouldDrop(const RCPtr<LogMessage>& message);
    // Settings of the derived class, by key in any case of letters. False for an empty key or value, and if refused.
    virtual bool SetProperty(const std::string& key, const std::string& value);
    virtual bool GetProperty(const std::string& key, std::string& value);
    // The medium.
    virtual bool Open() = 0;
    virtual bool WriteMessage(const RCPtr<LogMessage>& message) = 0;
    virtual bool Close() = 0;
    // Around a run of WriteMessage.
    virtual void BeginWrite() {}
    virtual void EndWrite() {}
    // Writes what stands ahead of a line's text, cut to size - 1 bytes, and returns its length. A line without a
    // function is indented by the width of the last prefix.
    virtual int FormatPrefix(char* buffer, int size, const char* function, int level);
    // Hands what was written on to the system; false if it refused.
    virtual bool FlushMedium() { return true; }

    bool Start();
    // Writes what is queued and the last line, and closes the medium. No log call reaches the writer any more.
    bool Stop();

    // The door for a log call. False if the line was dropped; dropped lines are counted and reported.
    bool Write(RCPtr<LogMessage> message) REQUIRES(LoggerLock());

    bool SetEnabled(bool value);
    bool SetBuffering(bool value);
    bool SetBatchThreshold(uint32_t value);
    bool SetFlushPeriod(uint32_t milliseconds);
    // The first and the last line of this writer's life; false for an empty text and once the logger is started.
    bool SetHeaderText(const std::string& text);
    bool SetFooterText(const std::string& text);
    // Writes what is queued now, under the log lock.
    void Flush();

    int GetType() const { return type; }
    bool IsStarted() const { return started.load(std::memory_order_relaxed); }
    bool IsEnabled() const { return enabled.load(std::memory_order_relaxed); }
    bool IsBuffering() const { return buffering.load(std::memory_order_relaxed); }

protected:
    bool IsStopping() const { return stopping.load(std::memory_order_relaxed); }
    RCPtr<LogMessage> NewMessage(int level);
    bool ReportLost(int count, int level);

    RCPtr<Logger> logger;  // set by Logger::AddWriter

private:
    friend class Logger;
    class PollLogWriter;

    struct Queue {
        LogQueue lines;
        int32_t dropped = 0;
    };

    void BackgroundPass();
    int SwapQueues();
    void DrainQueue(int index, size_t limit);
    void DrainAll();
    bool SetFlag(std::atomic<bool>& flag, bool value);
    void ReportDropped(int index);
    bool EnterBatchMode();
    void WriteFramed(const char* function, const char* text);
    bool SetText(std::string& field, const std::string& text);

    std::string headerText;
    std::string footerText;  // in place of the default last line
    const int type;
    uint32_t batchThreshold = kDefaultBatchThreshold;
    uint32_t flushPeriodMS = kDefaultFlushPeriodMS;
    const int32_t processId;
    std::atomic<uint64> lastThreadNumber{0};  // of the last prefix; a drain's own lines pass without the log lock
    bool writeHeader = true;                  // not handled yet
    // Flags: changed under the log lock, read also by the background pass.
    std::atomic<bool> buffering{false};
    std::atomic<bool> started{false};
    std::atomic<bool> stopping{false};
    std::atomic<bool> enabled{true};
    std::atomic<int32_t> lastPrefixLength{0};
    bool batchMode = false;
    const RCPtr<PollLogWriter> pollItem;
    Queue queues[2];
    int currentQueue = 0;  // that callers fill
    int otherQueue = 1;    // that the last swap left for draining
};
