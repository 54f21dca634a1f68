// The scheduler holds the lock at all times except in the wait and in an item's run.
#include "runtime/KxPollThread.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <utility>

#include "logging/Log.h"
#include "runtime/KxImpersonateSession.h"
#include "runtime/StringUtils.h"
#include "runtime/UserDataMap.h"

namespace {

// Added to an item's disable count while somebody waits for the end of its run, so that it can't start again.
constexpr int32_t kHeldForWait = 1000000;

constexpr size_t kFirstItemPosition = 2;  // of the wait list, behind the stop event and the dirty event
constexpr size_t kExtraPositions = 4;     // those two, and the two of a prioritized item

// The steps of a turn log under its name.
constexpr char kSchedulerSignature[] = "bool KxPollThread::Scheduler(KxThread*)";

using Map = UserDataMap<WkPtr<KxPollThread>>;

// Made on first use and never destroyed: items of static objects look their thread up at process exit.
Map& Threads() {
    static Map* const threads = new Map;
    return *threads;
}

void* AsWord(uint32_t handle) {
    return reinterpret_cast<void*>(static_cast<uintptr_t>(handle));
}

std::string DurationText(double seconds) {
    return StringUtils::FormatDuration(seconds, 3);
}

std::string WaitText(int64 milliseconds) {
    return milliseconds == kNoTimeout ? "INFINITE" : DurationText(static_cast<double>(milliseconds) / 1000.0);
}

}  // namespace

// What one pass over the queue finds. The arrays run in parallel and are kept from turn to turn.
struct KxPollThread::Turn {
    std::vector<KxEvent*> events;
    std::vector<RCPtr<KxPollItem>> items;  // the item of each event
    std::vector<RCPtr<KxEvent>> held;      // keeps the counted events alive through the wait
    RCPtr<KxPollItem> timedItem;           // the one that is due first
    size_t prioritized = 0;                // the timed item's position if it is due already, 0 if not
    int64 waitMS = kNoTimeout;             // until the timed item is due
    KxEvent alwaysSignaled{true, true};

    void Clear() {
        for (RCPtr<KxPollItem>& item : items) item = nullptr;
        held.clear();
        timedItem = nullptr;
    }
};

KxPollThread::KxPollThread(const std::string& name)
    : name(name), thread("KxPoll-" + name), logLevel(kLogNever), handle(Threads().Add(WkPtr<KxPollThread>(this))) {
    LOG(Debug, "%s: 0x%p", name.c_str(), AsWord(handle));
}

KxPollThread::~KxPollThread() {
    FUNCTION_TRACE(Debug, "%s: 0x%p", name.c_str(), AsWord(handle));
    RemoveAllItems(false);
    thread.Stop(0);
    Threads().Erase(handle);
    handle = 0;
}

RCPtr<KxPollThread> KxPollThread::Find(uint32_t handle) {
    return handle == 0 ? RCPtr<KxPollThread>() : Threads().Find(handle).Lock();
}

bool KxPollThread::StartScheduler() {
    if (thread.IsRunning()) return true;
    FUNCTION_TRACE(Info, "");
    if (thread.Start(SchedulerThreadCB, AsWord(handle), 0, false)) return true;
    functionTrace.SetExitMessage(kLogWarn, "%s: Failed to start scheduler thread", name.c_str());
    return false;
}

void KxPollThread::StopScheduler() {
    if (!thread.IsRunning()) return;
    FUNCTION_TRACE(Info, "");
    functionTrace.timed = true;
    thread.Stop(kInfinite);
}

bool KxPollThread::AddItem(KxPollItem* item) {
    KxMutexGuard guard(Lock());
    if (!item) {
        LOG(Debug, "%s: item == NULL", name.c_str());
        return false;
    }
    const uint32_t owner = item->pollThread.load(std::memory_order_relaxed);
    if (owner != 0 && owner != handle) {
        LOG(Debug, "%s: Item %s already belongs to 0x%p", name.c_str(), item->name.c_str(), AsWord(owner));
        return false;
    }
    Queue(*item);
    LOG_AT(logLevel, "%s: Item %s added", name.c_str(), item->name.c_str());
    return true;
}

bool KxPollThread::AddItem(KxPollItem* item, KxEvent* event, int32_t timeoutMS) {
    KxMutexGuard guard(Lock());
    if (!AddItem(item)) return false;
    item->SetEvent(event);
    item->SetTimeoutMS(timeoutMS, true);
    return true;
}

bool KxPollThread::AddItem(KxPollItem* item, RCPtr<KxEvent> event, int32_t timeoutMS) {
    KxMutexGuard guard(Lock());
    if (!AddItem(item)) return false;
    item->SetRCEvent(std::move(event));
    item->SetTimeoutMS(timeoutMS, true);
    return true;
}

bool KxPollThread::AddItem(KxPollItem* item, int32_t timeoutMS) {
    KxMutexGuard guard(Lock());
    if (!AddItem(item)) return false;
    item->SetTimeoutMS(timeoutMS, true);
    return true;
}

KxPollTask* KxPollThread::AddTask(const std::string& taskName, KxEvent* event, int32_t timeoutMS,
                                  std::function<bool(bool)> fn) {
    const RCPtr<KxPollTask> task(new KxPollTask(taskName, std::move(fn)));
    return AddItem(task.Get(), event, timeoutMS) ? task.Get() : nullptr;
}

KxPollTask* KxPollThread::AddTask(const std::string& taskName, RCPtr<KxEvent> event, int32_t timeoutMS,
                                  std::function<bool(bool)> fn) {
    const RCPtr<KxPollTask> task(new KxPollTask(taskName, std::move(fn)));
    return AddItem(task.Get(), std::move(event), timeoutMS) ? task.Get() : nullptr;
}

bool KxPollThread::RemoveItem(KxPollItem* item, bool wait) {
    const RCPtr<KxPollItem> held(item);  // the queue's reference may be the last one
    KxMutexGuard guard(Lock());
    if (!item) {
        LOG(Debug, "%s: item == NULL", name.c_str());
        return false;
    }
    const uint32_t owner = item->pollThread.load(std::memory_order_relaxed);
    if (owner == 0) return false;
    if (owner != handle) {
        LOG(Debug, "%s: Item %s belongs to 0x%p", name.c_str(), item->name.c_str(), AsWord(owner));
        return false;
    }
    if (wait) WaitForItemToComplete(item);
    if (!Unlink(*item, true)) {
        LOG(Debug, "%s: Item %s not found", name.c_str(), item->name.c_str());
        return false;
    }
    LOG_AT(logLevel, "%s: Item %s removed", name.c_str(), item->name.c_str());
    dirtyEvent.Set();
    return true;
}

void KxPollThread::RemoveAllItems(bool wait) {
    KxMutexGuard guard(Lock());
    if (items.empty()) return;
    if (wait) WaitForItemToComplete(nullptr);
    while (!items.empty()) {
        const RCPtr<KxPollItem> item = items.front();
        const bool found = Unlink(*item, true);
        if (!found) items.pop_front();
        LOG_AT(found ? logLevel : kLogWarn, "%s: Item %s %s", name.c_str(), item->name.c_str(),
               found ? "removed" : "not found");
    }
    dirtyEvent.Set();
}

bool KxPollThread::WaitForAllItems(int32_t timeoutMS, KxEvent* abortEvent, bool stopScheduler) {
    KxMutexGuard guard(Lock());
    if (items.empty()) return true;
    FUNCTION_TRACE(Debug, "%s: nItems(%zd)", name.c_str(), static_cast<ssize_t>(items.size()));
    functionTrace.timed = true;
    KxElapsedTimer timer;
    while (!items.empty()) {
        const RCPtr<KxPollItem> item = items.back();
        DWORD left = kInfinite;
        if (timeoutMS != kNoTimeout) {
            const int64 elapsed = static_cast<int64>(timer.GetTimerMS(KxTimer::Mode::Read, 0));
            left = static_cast<DWORD>(std::max<int64>(timeoutMS - elapsed, 0));
        }
        guard.Unlock();
        const bool completed = item->WaitForCompletion(left, abortEvent);
        guard.Lock();
        if (!completed) {
            functionTrace.SetExitMessage(kLogDebug, "%s: %zd item%s still queued", name.c_str(),
                                         static_cast<ssize_t>(items.size()), items.size() == 1 ? "" : "s");
            return false;
        }
    }
    guard.Unlock();
    if (stopScheduler) StopScheduler();
    return true;
}

// A run that ends between the release of the lock and the start of the wait is not missed: while the count is raised
// the item's completion event isn't reset, see Queue. Analysed by hand, for the gap in the lock.
void KxPollThread::WaitForItemToComplete(KxPollItem* item) NO_THREAD_SAFETY_ANALYSIS {
    if (!currentItem || (item && item != currentItem) || thread.IsCurrentThread()) return;
    const char* const what = item ? item->name.c_str() : "all items";
    FUNCTION_TRACE(Debug, "%s: Waiting for %s to complete", name.c_str(), what);
    functionTrace.timed = true;
    std::vector<RCPtr<KxPollItem>> raised;
    if (item) {
        raised.emplace_back(item);
    } else {
        raised.assign(items.begin(), items.end());
    }
    for (const RCPtr<KxPollItem>& each : raised) each->disabled += kHeldForWait;
    const RCPtr<KxPollItem> running = currentItem;
    Lock().Release();
    const bool completed = running->WaitForCompletion(kInfinite, nullptr);
    Lock().Acquire();
    for (const RCPtr<KxPollItem>& each : raised) {
        each->disabled -= kHeldForWait;
        const bool queued = each->pollThread.load(std::memory_order_relaxed) == handle;
        if (queued && each->disabled < kHeldForWait && each != currentItem) each->completionEvent->Reset();
    }
    dirtyEvent.Set();
    functionTrace.SetExitMessage(kLogDebug, "%s: %s %s", name.c_str(), what,
                                 completed ? "completed" : "did not complete");
}

void KxPollThread::SetAsyncAlertable(bool alertable) {
    KxMutexGuard guard(Lock());
    if (alertable == asyncAlertable) return;
    asyncAlertable = alertable;
    dirtyEvent.Set();
    LOG_AT(logLevel, "%s: asyncAlertable set to %s", name.c_str(), alertable ? "TRUE" : "FALSE");
}

bool KxPollThread::ImpersonateSession(DWORD id) {
    KxMutexGuard guard(Lock());
    const int32_t wanted = static_cast<int32_t>(id);
    if (wanted == sessionId) return true;
    if (!KxImpersonateSession::IsValidSession(id)) {
        LOG(Error, "%s: Invalid session ID %d", name.c_str(), wanted);
        return false;
    }
    sessionId = wanted;
    LOG(Debug, "%s: session ID set to %d", name.c_str(), wanted);
    dirtyEvent.Set();
    return true;
}

void KxPollThread::SetLogLevel(int level) {
    KxMutexGuard guard(Lock());
    if (level == logLevel) return;
    logLevel = level;
    dirtyEvent.Set();
}

bool KxPollThread::HasItem(KxPollItem* item) {
    return item && item->pollThread.load(std::memory_order_relaxed) == handle;
}

size_t KxPollThread::GetItemCount() {
    KxMutexGuard guard(Lock());
    return items.size();
}

void KxPollThread::LogAllItems(int level) {
    if (!LogEnabled(level)) return;
    KxMutexGuard guard(Lock());
    std::string text = StringUtils::Format("%s - %zd item%s\n", name.c_str(), static_cast<ssize_t>(items.size()),
                                           items.size() == 1 ? "" : "s");
    for (const RCPtr<KxPollItem>& item : items) {
        text += StringUtils::Format("   %s - timeout(%s)  elapsed(%s)  paused(%s)  event(%s)  disabled(%d)\n",
                                    item->name.c_str(), item->timeoutText.c_str(), item->ElapsedText().c_str(),
                                    item->timer.IsPaused() ? "TRUE" : "FALSE", item->event ? "TRUE" : "FALSE",
                                    item->disabled);
    }
    LOG_AT(level, "%s\n", text.c_str());
}

// An item that somebody waits for keeps its completion event set: the waiter may not have begun to wait, and the item
// can't run again before it has.
void KxPollThread::Queue(KxPollItem& item) {
    const RCPtr<KxPollItem> held(&item);
    if (item.pollThread.load(std::memory_order_relaxed) != 0) {
        Unlink(item, false);
    } else {
        item.pollThread.store(handle, std::memory_order_relaxed);
    }
    item.position = items.insert(items.end(), held);
    item.timer.GetTimerCount(KxTimer::Mode::Reset, 0);
    if (item.disabled < kHeldForWait) item.completionEvent->Reset();
    dirtyEvent.Set();
}

bool KxPollThread::Unlink(KxPollItem& item, bool forGood) {
    const bool placed = item.position && item.pollThread.load(std::memory_order_relaxed) == handle;
    const auto node = placed ? *item.position : std::find(items.begin(), items.end(), &item);
    if (node == items.end()) return false;
    item.position.reset();
    if (forGood) item.pollThread.store(0, std::memory_order_relaxed);
    items.erase(node);
    return true;
}

bool KxPollThread::IsLastReference() {
    AddRef();
    return Release() <= 1;
}

bool KxPollThread::SchedulerThreadCB(void* userData, KxThread* schedulerThread) {
    const RCPtr<KxPollThread> held = Find(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(userData)));
    if (!held) {
        LOG(Debug, "KxPollThread 0x%p not found", userData);
        return false;
    }
    return held->Scheduler(schedulerThread);
}

bool KxPollThread::Scheduler(KxThread*) {
    FUNCTION_TRACE(Info, "%s: 0x%p", name.c_str(), AsWord(handle));
    KxMutexGuard guard(Lock());
    KxImpersonateSession impersonator;
    Turn turn;
    while (!IsLastReference()) {
        ApplySession(impersonator, logLevel);
        const int level = logLevel;
        Collect(turn);
        // After the pass over the queue and before the lock goes, so that no change is lost.
        dirtyEvent.Reset();
        DWORD waitMS = kInfinite;
        if (turn.timedItem) {
            const int64 left = turn.waitMS <= 0 ? 0 : std::max<int64>(turn.timedItem->RemainingAt(0), 0);
            waitMS = static_cast<DWORD>(left);
        }
        if (LogEnabled(level)) {
            const std::string wait = WaitText(waitMS == kInfinite ? kNoTimeout : int64{waitMS});
            if (turn.timedItem) {
                LOG_AT(level, "%s: Waiting for %s (%s)", name.c_str(), turn.timedItem->name.c_str(), wait.c_str());
            } else {
                LOG_AT(level, "%s: Waiting for %s", name.c_str(), wait.c_str());
            }
            LogAllItems(level);
        }
        const bool alertable = asyncAlertable;
        guard.Unlock();
        const int result = KxEvent::WaitMultiple(turn.events, false, waitMS, alertable);
        guard.Lock();
        if (result == 0) {
            functionTrace.SetExitMessage(kLogInfo, "%s: Exit event signaled", name.c_str());
            return false;
        }
        if (result == kWaitFailed) {
            functionTrace.SetExitMessage(kLogError, "%s: Error while waiting", name.c_str());
            return false;
        }
        if (result == 1) {
            LOG_AT(level, "%s: Dirty event signaled", name.c_str());
        } else if (result == kWaitAlerted) {
            LOG_AT(level, "%s: alertable signaled", name.c_str());
        } else {
            const bool timedOut =
                result == kWaitTimedOut || turn.events[static_cast<size_t>(result)] == &turn.alwaysSignaled;
            const RCPtr<KxPollItem> item = timedOut ? turn.timedItem : turn.items[static_cast<size_t>(result)];
            // What happened during the wait may have called the run off.
            if (item && item->disabled <= 0 && !item->timer.IsPaused() && HasItem(item.Get())) {
                RunItem(item, timedOut, result, level);
            }
        }
        turn.Clear();
    }
    functionTrace.SetExitMessage(kLogInfo, "%s: I'm the last reference", name.c_str());
    return true;
}

void KxPollThread::ApplySession(KxImpersonateSession& impersonator, int level) {
    if (sessionId == impersonator.sessionId) return;
    if (impersonator.impersonating) {
        if (impersonator.Stop()) {
            LOG_AS_AT(kSchedulerSignature, level, "%s: Stopped impersonating session %d", name.c_str(),
                      impersonator.sessionId);
        } else {
            LOG_AS(kSchedulerSignature, Error, "%s: Failed to stop impersonating session %d", name.c_str(),
                   impersonator.sessionId);
        }
        impersonator.Clear();
    }
    if (sessionId == -1) return;
    if (impersonator.Begin() && impersonator.Start()) {
        LOG_AS_AT(kSchedulerSignature, level, "%s: Started impersonating session %d", name.c_str(), sessionId);
    } else {
        LOG_AS(kSchedulerSignature, Error, "%s: Failed to impersonate session %d", name.c_str(), sessionId);
        sessionId = impersonator.sessionId;
    }
}

// One pass over the queue: finds the timed item that is due first, of equal ones the one nearest to the front, and
// makes the wait list. A timed item that is due already gets two positions: one for its own event, which wins over its
// time-out, and one that is always signaled. So only events at lower positions still come before it.
void KxPollThread::Collect(Turn& turn) {
    const int64 now = KxElapsedTimer::GetTimerNow();
    turn.events.assign(items.size() + kExtraPositions, nullptr);
    turn.items.resize(items.size() + kExtraPositions);
    turn.events[0] = thread.GetStopEvent();
    turn.events[1] = &dirtyEvent;
    turn.prioritized = 0;
    turn.waitMS = kNoTimeout;
    size_t next = kFirstItemPosition;
    for (const RCPtr<KxPollItem>& item : items) {
        if (item->disabled > 0) continue;
        if (!item->timer.IsPaused() && item->timeoutMS != kNoTimeout) {
            const int64 remaining = item->RemainingAt(now);
            if (!turn.timedItem || remaining < turn.waitMS) {
                turn.timedItem = item;
                turn.waitMS = remaining;
                if (remaining <= 0 && turn.prioritized == 0) {
                    turn.prioritized = next;
                    next += 2;
                }
            }
        }
        if (item->event) {
            turn.events[next] = item->event;
            turn.items[next] = item;
            if (item->rcEvent) turn.held.push_back(item->rcEvent);
            ++next;
        }
    }
    if (turn.prioritized != 0) {
        const size_t position = turn.prioritized;
        KxEvent* const own = turn.timedItem->event;
        turn.items[position] = turn.items[position + 1] = turn.timedItem;
        turn.events[position] = own ? own : &turn.alwaysSignaled;
        turn.events[position + 1] = &turn.alwaysSignaled;
        LOG_AS_AT(kSchedulerSignature, logLevel, "%s: Prioritized timed item %s @ %d", name.c_str(),
                  turn.timedItem->name.c_str(), static_cast<int>(position));
    }
    turn.events.resize(next);
    turn.items.resize(next);
}

// Analysed by hand, for the gap in the lock.
void KxPollThread::RunItem(const RCPtr<KxPollItem>& item, bool timedOut, int result,
                           int level) NO_THREAD_SAFETY_ANALYSIS {
    LOG_AS_AT(kSchedulerSignature, level, "%s: Item %s %s(%d); last run %s ago", name.c_str(), item->name.c_str(),
              timedOut ? "timed out" : "signaled", result, item->ElapsedText().c_str());
    currentItem = item.Get();
    Lock().Release();
    KxElapsedTimer timer;
    bool again = false;
    try {
        again = item->Run(timedOut);
    } catch (const std::exception& error) {
        LOG_AS(kSchedulerSignature, Error, "%s: Item %s failed: %s", name.c_str(), item->name.c_str(), error.what());
    } catch (...) {
        LOG_AS(kSchedulerSignature, Error, "%s: Item %s failed: %s", name.c_str(), item->name.c_str(),
               "unknown exception");
    }
    const double seconds = timer.GetTimerSeconds(KxTimer::Mode::Read, 0);
    Lock().Acquire();
    currentItem = nullptr;
    item->completionEvent->Set();
    LOG_AS_AT(kSchedulerSignature, level, "%s: Item %s took %s", name.c_str(), item->name.c_str(),
              DurationText(seconds).c_str());
    if (!HasItem(item.Get())) return;
    if (again) {
        Queue(*item);
    } else {
        RemoveItem(item.Get(), false);
    }
}
