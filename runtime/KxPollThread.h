// One thread that serves many small jobs, one at a time.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "runtime/KxEvent.h"
#include "runtime/KxMutex.h"
#include "runtime/KxPollItem.h"
#include "runtime/KxThread.h"
#include "runtime/RCObject.h"
#include "runtime/ThreadAnnotations.h"

class KxImpersonateSession;

// Runs the item that is due the longest, or whose event is signaled, in one wait for all of them. Items that have run
// move to the end of the queue, so that equal claims take turns. A change from outside takes effect at once.
//
// The thread starts on StartScheduler only. It ends on StopScheduler, or after its next wake-up when it holds the last
// reference to itself; the object is then destroyed on it. Queued items stay queued when it stops.
//
// All operations are safe on any thread. Those that wait are not to be called with the lock held more than once; on the
// scheduler thread they don't wait.
class KxPollThread : public RCObject {
public:
    // At most 4,096 poll threads live at a time: the items of a further one are found by nobody.
    explicit KxPollThread(const std::string& name);
    KxPollThread(const KxPollThread&) = delete;
    KxPollThread& operator=(const KxPollThread&) = delete;
    ~KxPollThread() override;

    // True if the thread runs or now starts.
    bool StartScheduler();
    // Waits for the end of the thread without limit.
    void StopScheduler();

    // Queue an item, or move one of this thread to the end; its timer restarts. False, after a DEBUG line, for null and
    // for an item of another thread. The forms with an event and a time-out set these too.
    bool AddItem(KxPollItem* item);
    bool AddItem(KxPollItem* item, KxEvent* event, int32_t timeoutMS);
    bool AddItem(KxPollItem* item, RCPtr<KxEvent> event, int32_t timeoutMS);
    bool AddItem(KxPollItem* item, int32_t timeoutMS);

    // Make an item of a function and queue it; the queue holds it. Null on failure.
    KxPollTask* AddTask(const std::string& name, KxEvent* event, int32_t timeoutMS, std::function<bool(bool)> fn);
    KxPollTask* AddTask(const std::string& name, RCPtr<KxEvent> event, int32_t timeoutMS, std::function<bool(bool)> fn);

    // With wait, a run in progress ends first. False if the item isn't on this thread.
    bool RemoveItem(KxPollItem* item, bool wait);
    void RemoveAllItems(bool wait);

    // Waits until the queue is empty, up to timeoutMS milliseconds (-1: no limit), then stops the scheduler if told so
    // and if there was something to wait for. False on time-out and when abortEvent (may be null) is signaled.
    bool WaitForAllItems(int32_t timeoutMS, KxEvent* abortEvent, bool stopScheduler);

    // Waits for the end of the run in progress if it is that of item, or of any item for null. The caller holds the
    // lock once; it is released for the wait, during which no item in question can start.
    void WaitForItemToComplete(KxPollItem* item) REQUIRES(ownLock);

    // Passed to the wait, where it has no effect on this platform.
    void SetAsyncAlertable(bool alertable);
    // False, after an ERROR line, unless sessionId is the present one: this platform has no sessions.
    bool ImpersonateSession(DWORD sessionId);
    // The level of the scheduler's own trace lines, silent by default.
    void SetLogLevel(int level);
    // Uses lock in place of the thread's own. Before the start, while nothing is queued.
    void SetLock(KxMutex* lock) { outsideLock = lock; }

    bool HasItem(KxPollItem* item);
    size_t GetItemCount();
    void LogAllItems(int level);

    static bool SchedulerThreadCB(void* userData, KxThread* thread);

private:
    friend class KxPollItem;
    struct Turn;

    KxMutex& Lock() RETURN_CAPABILITY(ownLock) { return outsideLock ? *outsideLock : ownLock; }
    static RCPtr<KxPollThread> Find(uint32_t handle);

    bool Scheduler(KxThread* schedulerThread);
    void ApplySession(KxImpersonateSession& impersonator, int level) REQUIRES(ownLock);
    void Collect(Turn& turn) REQUIRES(ownLock);
    void RunItem(const RCPtr<KxPollItem>& item, bool timedOut, int result, int level) REQUIRES(ownLock);
    void Queue(KxPollItem& item) REQUIRES(ownLock);
    bool Unlink(KxPollItem& item, bool forGood) REQUIRES(ownLock);
    bool IsLastReference();

    const std::string name;
    KxThread thread;  // the scheduler's
    KxMutex ownLock;  // or outsideLock: guards the queue, the fields below and those of the queued items
    KxEvent dirtyEvent{false, false};  // set by every change that can alter the next wait
    KxMutex* outsideLock = nullptr;
    KxPollItem* currentItem GUARDED_BY(ownLock) = nullptr;  // inside Run
    bool asyncAlertable GUARDED_BY(ownLock) = false;
    int logLevel GUARDED_BY(ownLock);
    int32_t sessionId GUARDED_BY(ownLock) = -1;
    KxPollItem::Queue items GUARDED_BY(ownLock);  // front first
    uint32_t handle = 0;
};
