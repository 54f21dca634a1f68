#include "runtime/KxPollItem.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <utility>

#include "logging/Log.h"
#include "runtime/KxPollThread.h"
#include "runtime/StringUtils.h"

namespace {

std::string TimeoutText(int32_t timeoutMS) {
    return timeoutMS == kNoTimeout ? "INFINITE" : StringUtils::FormatDuration(timeoutMS / 1000.0, 3);
}

}  // namespace

// The lock of the thread that an item is queued on, for a scope; nothing for a lone item.
class KxPollItem::Access {
public:
    // The thread is found without its lock, so the item may have moved on until that is held. Analysed by hand: which
    // lock it is, is known at run time only.
    explicit Access(KxPollItem& item) NO_THREAD_SAFETY_ANALYSIS {
        while ((thread = item.GetPollThread())) {
            thread->Lock().Acquire();
            if (item.pollThread.load(std::memory_order_relaxed) == thread->handle) return;
            thread->Lock().Release();
        }
    }
    Access(const Access&) = delete;
    Access& operator=(const Access&) = delete;
    ~Access() NO_THREAD_SAFETY_ANALYSIS {
        if (thread) thread->Lock().Release();
    }

    void MarkDirty() {
        if (thread) thread->dirtyEvent.Set();
    }
    const char* Name() const { return thread ? thread->name.c_str() : "---"; }
    int Level(int lone) const NO_THREAD_SAFETY_ANALYSIS { return thread ? thread->logLevel : lone; }
    KxPollThread* Thread() const { return thread.Get(); }

private:
    RCPtr<KxPollThread> thread;
};

KxPollItem::KxPollItem(const std::string& name)
    : name(name), completionEvent(new KxEvent(true, false)), timeoutText(TimeoutText(0)) {}

bool KxPollItem::Run(bool) {
    return false;
}

RCPtr<KxPollThread> KxPollItem::GetPollThread() {
    const uint32_t handle = pollThread.load(std::memory_order_relaxed);
    RCPtr<KxPollThread> thread = KxPollThread::Find(handle);
    if (!thread && handle != 0) {
        uint32_t gone = handle;
        if (pollThread.compare_exchange_strong(gone, 0, std::memory_order_relaxed)) {
            LOG(Warn, "%s: KxPollThread 0x%p has been deleted", name.c_str(),
                reinterpret_cast<void*>(static_cast<uintptr_t>(handle)));
        }
    }
    return thread;
}

void KxPollItem::SetTimeoutMS(int32_t newTimeoutMS, bool resetTimer) {
    Access access(*this);
    if (newTimeoutMS == timeoutMS && !resetTimer) return;
    if (resetTimer) timer.GetTimerCount(KxTimer::Mode::Reset, 0);
    timeoutMS = newTimeoutMS;
    timeoutText = TimeoutText(newTimeoutMS);
    access.MarkDirty();
    LOG_AT(access.Level(kLogVerbose), "%s: Item %s timeout set to %s (%s)", access.Name(), name.c_str(),
           timeoutText.c_str(), resetTimer ? "timer reset" : ("timer at " + ElapsedText()).c_str());
}

int32_t KxPollItem::GetRemainingMS() {
    Access access(*this);
    if (timeoutMS == kNoTimeout) return kNoTimeout;
    return static_cast<int32_t>(std::max<int64>(RemainingAt(0), std::numeric_limits<int32_t>::min()));
}

// The time left at a reading of the timer's clock, 0 for now. One that would read as no limit counts as due.
int64 KxPollItem::RemainingAt(int64 now) {
    const int64 remaining = timeoutMS - static_cast<int64>(timer.GetTimerMS(KxTimer::Mode::Read, now));
    return remaining == kNoTimeout ? 0 : remaining;
}

std::string KxPollItem::ElapsedText() {
    return StringUtils::FormatDuration(timer.GetTimerSeconds(KxTimer::Mode::Read, 0), 3);
}

void KxPollItem::ResetTimer() {
    Access access(*this);
    timer.GetTimerCount(KxTimer::Mode::Reset, 0);
    access.MarkDirty();
    LOG_AT(access.Level(kLogDebug), "%s: Item %s reset", access.Name(), name.c_str());
}

bool KxPollItem::Enable() {
    Access access(*this);
    if (--disabled == 0) {
        access.MarkDirty();
        LOG_AT(access.Level(kLogDebug), "%s: Item %s enabled", access.Name(), name.c_str());
    }
    return disabled <= 0;
}

// Analysed by hand: the scope holds the lock once, as the wait requires.
void KxPollItem::Disable(bool wait) NO_THREAD_SAFETY_ANALYSIS {
    Access access(*this);
    if (wait && access.Thread()) access.Thread()->WaitForItemToComplete(this);
    if (++disabled == 1) {
        access.MarkDirty();
        LOG_AT(access.Level(kLogDebug), "%s: Item %s disabled", access.Name(), name.c_str());
    }
}

void KxPollItem::PauseTimer() {
    Access access(*this);
    if (timer.IsPaused()) return;
    timer.GetTimerCount(KxTimer::Mode::Pause, 0);
    access.MarkDirty();
    LOG_AT(access.Level(kLogDebug), "%s: Item %s paused", access.Name(), name.c_str());
}

void KxPollItem::ResumeTimer() {
    Access access(*this);
    if (!timer.IsPaused()) return;
    timer.GetTimerCount(KxTimer::Mode::Resume, 0);
    access.MarkDirty();
    LOG_AT(access.Level(kLogDebug), "%s: Item %s resumed", access.Name(), name.c_str());
}

void KxPollItem::SetEvent(KxEvent* newEvent) {
    RCPtr<KxEvent> dropped;  // goes after the lock
    Access access(*this);
    if (event == newEvent && !rcEvent) return;
    dropped = std::move(rcEvent);
    event = newEvent;
    access.MarkDirty();
    LogEvent(__PRETTY_FUNCTION__, access);
}

void KxPollItem::SetRCEvent(RCPtr<KxEvent> newEvent) {
    RCPtr<KxEvent> dropped;
    Access access(*this);
    if (event == newEvent.Get() && rcEvent == newEvent) return;
    dropped = std::move(rcEvent);
    event = newEvent.Get();
    rcEvent = std::move(newEvent);
    access.MarkDirty();
    LogEvent(__PRETTY_FUNCTION__, access);
}

void KxPollItem::LogEvent(const char* function, const Access& access) {
    const int level = access.Level(kLogVerbose);
    if (!LogEnabled(level)) return;
    if (event) {
        Logger::Log(function, level, "%s: Item %s event set to 0x%lx", access.Name(), name.c_str(),
                    reinterpret_cast<unsigned long>(event->GetHandle()));
    } else {
        Logger::Log(function, level, "%s: Item %s event set to NULL", access.Name(), name.c_str());
    }
}

bool KxPollItem::WaitForCompletion(DWORD timeoutMS, KxEvent* abortEvent) {
    const RCPtr<KxPollThread> owner = GetPollThread();
    if (!owner || owner->thread.IsCurrentThread() || owner->thread.IsStopped()) return false;
    std::vector<KxEvent*> events{completionEvent.Get(), owner->thread.GetExitedEvent()};
    if (abortEvent) events.push_back(abortEvent);
    return KxEvent::WaitMultiple(events, false, timeoutMS, false) == 0;
}

bool KxPollItem::RemoveFromPollThread(bool wait) {
    const RCPtr<KxPollThread> owner = GetPollThread();
    return owner && owner->RemoveItem(this, wait);
}
