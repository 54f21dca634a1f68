#include "logging/LogWriter.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>
#include <utility>

#include "logging/Log.h"
#include "runtime/KxPollThread.h"
#include "runtime/StringUtils.h"

namespace {

constexpr char kSeparator[] = "---------------------------------------\n";
constexpr char kDefaultFooter[] = "*** LOG FILE COMPLETE ***";
constexpr char kStars[] = "*******";
constexpr int kFunctionNameSize = 128;
constexpr size_t kNoLimit = std::numeric_limits<size_t>::max();
constexpr size_t kBatchStep = 100;   // lines between two drains in batch mode
constexpr size_t kBatchLimit = 200;  // lines that one of them writes
constexpr size_t kReturnBatch = 32;  // messages that a drain gives back at once

// Writes into a buffer that has been found large enough.
struct Cursor {
    char* at;

    void Text(const char* text, size_t length) {
        std::memcpy(at, text, length);
        at += length;
    }
    void Char(char c) { *at++ = c; }
    // In upper-case hexadecimal, with zeros up to width digits.
    void Hex(uint64 value, int width) {
        char digits[16];
        int count = 0;
        for (; value != 0 || count < width; value >>= 4) digits[count++] = "0123456789ABCDEF"[value & 0xF];
        while (count > 0) *at++ = digits[--count];
    }
};

// Separator, time stamp, numbers and punctuation, all at their longest.
constexpr int kMaxFramePart = 40 + 32 + 16 + 8 + 16;

}  // namespace

// The background pass of one writer. It runs while the writer is both enabled and buffering: each of the two, while
// false, disables it once.
class LogWriter::PollLogWriter : public KxPollItem {
public:
    explicit PollLogWriter(LogWriter* writer) : KxPollItem("LogWriter"), writer(writer) {
        SetTimeoutMS(static_cast<int32_t>(kDefaultFlushPeriodMS), false);
    }

    bool Run(bool) override {
        running.store(true, std::memory_order_relaxed);
        writer->BackgroundPass();
        running.store(false, std::memory_order_release);
        return true;
    }

    // With acquire: whoever finds the pass ended sees what it has written.
    bool IsRunning() const { return running.load(std::memory_order_acquire); }

private:
    std::atomic<bool> running{false};
    LogWriter* const writer;  // removes the item before it goes
};

LogWriter::LogWriter(int type) : type(type), processId(getpid()), pollItem(new PollLogWriter(this)) {
    pollItem->Disable(false);  // for buffering
}

LogWriter::~LogWriter() {
    pollItem->RemoveFromPollThread(true);
}

bool LogWriter::ShouldDrop(const RCPtr<LogMessage>&) {
    return false;
}

bool LogWriter::SetProperty(const std::string&, const std::string&) {
    return false;
}

bool LogWriter::GetProperty(const std::string&, std::string&) {
    return false;
}

int LogWriter::FormatPrefix(char* buffer, int size, const char* function, int level) {
    if (size < 1) return 0;
    if (!function || function[0] == '\0') {
        return StringUtils::Snprintf(buffer, size, "%*s", lastPrefixLength.load(std::memory_order_relaxed), "");
    }
    const uint64 thread = GetThreadNumber();
    const uint64 last = lastThreadNumber.load(std::memory_order_relaxed);
    lastThreadNumber.store(thread, std::memory_order_relaxed);
    char nameBuffer[kFunctionNameSize];
    const char* const name = StringUtils::GetFunctionName(function, nameBuffer, sizeof nameBuffer);
    const size_t nameLength = std::strlen(name);
    char local[kMaxFramePart + kFunctionNameSize];
    const bool direct = size > static_cast<int>(kMaxFramePart + nameLength);
    if (!direct && nameLength >= kFunctionNameSize) {  // a ready name of any length
        char stamp[40];
        StringUtils::FormatTimestamp(stamp, sizeof stamp, logger && !logger->UsesLocalTime());
        const int length = StringUtils::Snprintf(
            buffer, size, "%s%s <%08llX> [%04X] %c %s: ", last != 0 && last != thread ? kSeparator : "", stamp,
            static_cast<unsigned long long>(thread), static_cast<unsigned>(processId), LogLevelLetter(level), name);
        lastPrefixLength.store(length, std::memory_order_relaxed);
        return length;
    }
    Cursor out{direct ? buffer : local};
    char* const begin = out.at;
    if (last != 0 && last != thread) out.Text(kSeparator, sizeof kSeparator - 1);
    out.at += StringUtils::FormatTimestamp(out.at, 40, logger && !logger->UsesLocalTime());
    out.Text(" <", 2);
    out.Hex(thread, 8);
    out.Text("> [", 3);
    out.Hex(static_cast<uint32_t>(processId), 4);
    out.Text("] ", 2);
    out.Char(LogLevelLetter(level));
    out.Char(' ');
    out.Text(name, nameLength);
    out.Text(": ", 3);  // with the zero byte
    int length = static_cast<int>(out.at - begin) - 1;
    if (!direct) length = StringUtils::CopyString(buffer, local, std::min(length, size - 1));
    lastPrefixLength.store(length, std::memory_order_relaxed);
    return length;
}

bool LogWriter::Write(RCPtr<LogMessage> message) {
    Queue& queue = queues[currentQueue];
    if (!IsEnabled()) {
        ++queue.dropped;
        return false;
    }
    if (!IsBuffering()) {
        BeginWrite();
        WriteMessage(message);
        EndWrite();
        return true;
    }
    if (IsStopping() || ShouldDrop(message)) {
        ++queue.dropped;
        return false;
    }
    queue.lines.Push(std::move(message));
    const size_t length = queue.lines.Size();
    if (batchMode) {
        if (length % kBatchStep == 0) DrainQueue(currentQueue, kBatchLimit);
    } else if (length >= batchThreshold) {
        EnterBatchMode();
    }
    return true;
}

void LogWriter::BackgroundPass() {
    int index;
    {
        KxMutexGuard guard(LoggerLock());
        if (!IsEnabled() || !IsBuffering() || batchMode) return;
        index = SwapQueues();
    }
    DrainQueue(index, kNoLimit);
}

// A drain reports only with lines, so the count of both queues goes to the one that is drained now if it has any, and
// otherwise stays where lines come in.
int LogWriter::SwapQueues() {
    otherQueue = currentQueue;
    currentQueue ^= 1;
    const int reporting = queues[otherQueue].lines.Empty() ? currentQueue : otherQueue;
    queues[reporting].dropped += std::exchange(queues[reporting ^ 1].dropped, 0);
    return otherQueue;
}

void LogWriter::DrainQueue(int index, size_t limit) {
    LogQueue& lines = queues[index].lines;
    if (limit < 1 || lines.Empty()) return;
    BeginWrite();
    for (size_t left = std::min(limit, lines.Size()); left > 0;) {
        const std::span<RCPtr<LogMessage>> batch = lines.Oldest(std::min(left, kReturnBatch));
        for (const RCPtr<LogMessage>& message : batch) WriteMessage(message);
        logger->ReturnMessages(batch);
        lines.Drop(batch.size());
        left -= batch.size();
    }
    ReportDropped(index);
    EndWrite();
}

// Settles both queues, in the order in which they were filled, and leaves the indices as they were. The caller holds
// the log lock and has found the writer not stopping, or is Stop: so one drain runs at a time.
void LogWriter::DrainAll() {
    for (int turn = 0; turn < 2; ++turn) {
        DrainQueue(otherQueue, kNoLimit);
        KxMutexGuard guard(LoggerLock());
        SwapQueues();
    }
}

// A report that the medium refuses is made again by a later drain; one that isn't there isn't asked.
void LogWriter::ReportDropped(int index) {
    int32_t& dropped = queues[index].dropped;
    if (dropped > 0 && FlushMedium() && ReportLost(dropped, kLogInfo) && FlushMedium()) dropped = 0;
}

bool LogWriter::ReportLost(int count, int level) {
    const RCPtr<LogMessage> message = NewMessage(level);
    if (!message) return false;
    message->Printf("\n%s Dropped %d messages %s\n\n", kStars, count, kStars);
    return WriteMessage(message);
}

// The background pass can't keep up: from here on the logging threads pay for their own lines. While a pass runs, the
// next line tries again.
bool LogWriter::EnterBatchMode() {
    pollItem->Disable(false);
    if (pollItem->IsRunning()) {
        pollItem->Enable();
        return false;
    }
    if (const RCPtr<LogMessage> message = NewMessage(kLogAlways)) {
        message->Printf("\n***** BATCH MODE ENABLED *****\n\n");
        WriteMessage(message);
    }
    batchMode = true;
    return true;
}

bool LogWriter::Start() {
    KxMutexGuard guard(LoggerLock());
    if (IsStarted()) return true;
    if (!Open()) return false;
    LoggerManager::GetPollThread()->AddItem(pollItem.Get(), static_cast<int32_t>(flushPeriodMS));
    started.store(true, std::memory_order_relaxed);
    if (writeHeader && !headerText.empty()) WriteFramed("Logger Header", headerText.c_str());
    writeHeader = false;
    return true;
}

bool LogWriter::Stop() {
    {
        KxMutexGuard guard(LoggerLock());
        stopping.store(true, std::memory_order_relaxed);
    }
    pollItem->RemoveFromPollThread(true);
    DrainAll();
    WriteFramed("Logger Shutdown", footerText.empty() ? kDefaultFooter : footerText.c_str());
    started.store(false, std::memory_order_relaxed);
    return Close();
}

// One line of the writer's own, straight to the medium.
void LogWriter::WriteFramed(const char* function, const char* text) {
    const RCPtr<LogMessage> message = NewMessage(kLogAlways);
    if (!message) return;
    char prefix[256];
    message->Append(prefix, FormatPrefix(prefix, sizeof prefix, function, kLogAlways), false);
    message->PrintLine("%s", text);
    WriteMessage(message);
}

RCPtr<LogMessage> LogWriter::NewMessage(int level) {
    return logger ? logger->NewMessage(level, nullptr, 0) : RCPtr<LogMessage>();
}

bool LogWriter::SetEnabled(bool value) {
    return SetFlag(enabled, value);
}

bool LogWriter::SetBuffering(bool value) {
    return SetFlag(buffering, value);
}

// The wait for a pass comes ahead of the lock, which it can let go only once.
bool LogWriter::SetFlag(std::atomic<bool>& flag, bool value) {
    if (value == flag.load(std::memory_order_relaxed)) return true;
    if (!value) pollItem->Disable(true);
    KxMutexGuard guard(LoggerLock());
    const bool changed = value != flag.load(std::memory_order_relaxed);
    if (changed) {
        if (value) flag.store(true, std::memory_order_relaxed);
        if (!IsStopping()) DrainAll();
        if (!value) flag.store(false, std::memory_order_relaxed);
    }
    if (value == changed) pollItem->Enable();
    return true;
}

bool LogWriter::SetBatchThreshold(uint32_t value) {
    pollItem->Disable(true);
    KxMutexGuard guard(LoggerLock());
    if (value != batchThreshold) {
        batchThreshold = value;
        if (!IsStopping()) DrainAll();
    }
    pollItem->Enable();
    return true;
}

bool LogWriter::SetFlushPeriod(uint32_t milliseconds) {
    KxMutexGuard guard(LoggerLock());
    flushPeriodMS = milliseconds;
    pollItem->SetTimeoutMS(static_cast<int32_t>(milliseconds), false);
    return true;
}

bool LogWriter::SetHeaderText(const std::string& text) {
    return SetText(headerText, text);
}

bool LogWriter::SetFooterText(const std::string& text) {
    return SetText(footerText, text);
}

bool LogWriter::SetText(std::string& field, const std::string& text) {
    KxMutexGuard guard(LoggerLock());
    if (text.empty() || (logger && logger->IsStarted())) return false;
    field = text;
    return true;
}

// Under the lock, so that no second drain begins meanwhile, on another thread or in batch mode.
void LogWriter::Flush() {
    pollItem->Disable(true);
    {
        KxMutexGuard guard(LoggerLock());
        if (IsEnabled() && IsBuffering() && !IsStopping()) DrainAll();
    }
    pollItem->Enable();
}
