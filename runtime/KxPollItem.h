// A small job that a KxPollThread runs when its event is signaled or its time-out has passed.
#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <optional>
#include <string>

#include "runtime/KxEvent.h"
#include "runtime/KxTimer.h"
#include "runtime/RCObject.h"
#include "runtime/Types.h"

class KxPollThread;

inline constexpr int32_t kNoTimeout = -1;

// An item is queued on one thread at most, or lone. It knows its thread by handle only, so it may outlive it, and every
// operation works on a lone item too. Operations on a queued item are safe on any thread; those on a lone one are its
// owner's, one at a time. The fields are guarded by the lock of the thread that the item is queued on.
class KxPollItem : public RCObject {
public:
    // Born enabled, without an event, and with a time-out of 0: due as soon as it is queued.
    explicit KxPollItem(const std::string& name);
    KxPollItem(const KxPollItem&) = delete;
    KxPollItem& operator=(const KxPollItem&) = delete;

    // The job, on the scheduler thread, with no lock held. timedOut tells that the time-out, not the event, caused the
    // run. Returns true to stay queued, behind all others and with the timer restarted. An exception is logged at ERROR
    // and removes the item. To be short: all other items wait.
    virtual bool Run(bool timedOut);

    // The thread that the item is queued on, null when lone. A thread that has gone is logged once, at WARN.
    RCPtr<KxPollThread> GetPollThread();
    const std::string& GetName() const { return name; }

    // In milliseconds from the end of the last run, or from the moment of queueing; kNoTimeout for none.
    void SetTimeoutMS(int32_t timeoutMS, bool resetTimer);
    // What is left of the time-out, 0 or less when due, kNoTimeout for none.
    int32_t GetRemainingMS();
    void ResetTimer();

    // Counted, in both directions. The item takes part while the count is 0 or less; Enable returns whether it does.
    // With wait, Disable first waits for a run in progress; then the caller must not hold the thread's lock more than
    // once.
    bool Enable();
    void Disable(bool wait);

    // A paused item isn't run, neither for its time-out nor for its event, which stays signaled only if it is a manual
    // one. No effect when paused, or running, already.
    void PauseTimer();
    void ResumeTimer();

    // The event that triggers the item; null for none. SetEvent leaves it with the caller, who keeps it alive for as
    // long as the item is queued; SetRCEvent holds it.
    void SetEvent(KxEvent* event);
    void SetRCEvent(RCPtr<KxEvent> event);

    // Waits up to timeoutMS milliseconds for the end of the next run, or of the run in progress. True at once if the
    // item has been removed by its last run. False on time-out, when abortEvent (may be null) is signaled, without a
    // running thread, and on the scheduler thread itself.
    bool WaitForCompletion(DWORD timeoutMS, KxEvent* abortEvent);

    // Takes the item off its thread; with wait, after a run in progress. False if it is lone.
    bool RemoveFromPollThread(bool wait);

private:
    friend class KxPollThread;
    class Access;
    using Queue = std::list<RCPtr<KxPollItem>>;

    int64 RemainingAt(int64 now);
    std::string ElapsedText();
    void LogEvent(const char* function, const Access& access);

    const std::string name;
    KxEvent* event = nullptr;
    RCPtr<KxEvent> rcEvent;                // holds event when it came through SetRCEvent
    const RCPtr<KxEvent> completionEvent;  // set after each run, reset when the item is queued
    KxElapsedTimer timer;                  // since the item was queued or last ran
    int32_t timeoutMS = 0;
    int32_t disabled = 0;                     // takes no part while above 0
    std::string timeoutText;                  // the time-out in readable form
    std::atomic<uint32_t> pollThread{0};      // handle of the thread, 0 when lone; read to find the lock, so atomic
    std::optional<Queue::iterator> position;  // the item's node in the thread's queue
};

// An item whose job is a function.
class KxPollTask : public KxPollItem {
public:
    KxPollTask(const std::string& name, std::function<bool(bool)> function)
        : KxPollItem(name), fn(std::move(function)) {}
    bool Run(bool timedOut) override { return fn(timedOut); }

private:
    const std::function<bool(bool)> fn;
};
