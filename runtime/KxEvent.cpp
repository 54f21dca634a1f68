// Two locks guard an event, its mutex first and the wait lock second. The wait lock is one for the process and guards
// all signal states, so that a wait on a list sees them at one moment. A signal that is there can be taken under the
// wait lock alone, since every older wait that could use it has had it; likewise a signal that nobody waits for is left
// under the wait lock alone. Only a call that must sleep, or that finds somebody registered, takes the event's mutex,
// which guards the list of those who wait.
//
// Sleepers are woken after all locks are released, so that they don't wake up only to wait for a lock. A single wait
// sleeps on the event's condition. A wait on a list sleeps on an event of its own; whoever completes it sets that
// event.
#include "runtime/KxEvent.h"

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <utility>

#include "logging/Log.h"
#include "runtime/Deadline.h"
#include "runtime/KxMutex.h"

namespace {

struct MultiWait;

// Guards every KxEventData::signaled, and active, done and result of all records and multi-waits. Made on first use,
// for events that are made before main, and never destroyed.
KxMutex& WaitLock() {
    static KxMutex& lock = *new KxMutex(false, "KxEvent wait lock");
    return lock;
}

class CAPABILITY("mutex") EventMutex : public std::mutex {
public:
    void lock() ACQUIRE() { std::mutex::lock(); }
    void unlock() RELEASE() { std::mutex::unlock(); }
};

class SCOPED_CAPABILITY EventGuard {
public:
    explicit EventGuard(EventMutex& m) ACQUIRE(m) : native(m) {}
    ~EventGuard() RELEASE() {}

    std::unique_lock<std::mutex> native;
};

// One registration of one wait on one event. It lives where its wait does, on a stack.
struct WaitRecord {
    bool done = false;
    int result = kWaitTimedOut;
    MultiWait* multi = nullptr;  // the list wait that it belongs to, null for a single wait
    RCPtr<KxEventData> event;
    WaitRecord* previous = nullptr;  // its neighbours in the event's waitList
    WaitRecord* next = nullptr;
};

// The sleepers that a call has to wake once it has released the locks.
struct Wakeups {
    void Add(const RCPtr<KxEventData>& signal);
    void Run(std::condition_variable& waiters);

    bool single = false;         // a single wait on the event at hand
    RCPtr<KxEventData> signals;  // of completed list waits, chained by nextSignal
};

}  // namespace

class KxEventData final : public RCObject {
public:
    KxEventData(bool manualReset, bool initialState) : autoReset(!manualReset), signaled(initialState) {}

    bool Set();
    bool Reset();
    int Wait(DWORD timeoutMS);
    void Open();
    void Close();

    void Register(WaitRecord* record) EXCLUDES(mutex);
    void Unregister(WaitRecord* record) EXCLUDES(mutex);

    bool IsOpen() const { return openCount.load(std::memory_order_relaxed) > 0; }
    bool IsSignaled() const REQUIRES(WaitLock()) { return signaled; }
    // Satisfies one wait if the event is signaled.
    bool TakeSignal() REQUIRES(WaitLock()) {
        if (!signaled) return false;
        signaled = !autoReset;
        return true;
    }

    RCPtr<KxEventData> nextSignal;  // in a Wakeups, which alone uses it

private:
    void Append(WaitRecord* record) REQUIRES(mutex);
    void Remove(WaitRecord* record) REQUIRES(mutex);
    void EvaluateWaiters(Wakeups& wakeups) REQUIRES(mutex, WaitLock());
    bool Evaluate(WaitRecord& record) REQUIRES(mutex, WaitLock());
    int Sleep(DWORD timeoutMS) EXCLUDES(mutex);
    int SleepUntilDone(const WaitRecord& record, const std::optional<Deadline>& deadline,
                       std::unique_lock<std::mutex>& native) REQUIRES(mutex);

    std::condition_variable waiters;               // all single waits on this event sleep here
    EventMutex mutex ACQUIRED_BEFORE(WaitLock());  // guards the waitList, and changes of openCount and waitCount
    const bool autoReset;
    bool signaled GUARDED_BY(WaitLock());
    // Both are also read under the wait lock alone, where either order with a change is right: relaxed.
    std::atomic<int32_t> openCount{1};   // open handles on this event
    std::atomic<uint32_t> waitCount{0};  // records in the waitList; a wait counts itself before it takes the wait lock
    WaitRecord* waitListFirst GUARDED_BY(mutex) = nullptr;  // the oldest
    WaitRecord* waitListLast GUARDED_BY(mutex) = nullptr;
};

namespace {

// Returns the result of a wait on these events and consumes what it takes, or kWaitTimedOut if it isn't satisfied. A
// closed event fails the whole wait even if an earlier one is signaled.
template <typename EventAt>
int EvaluateList(int count, bool waitAll, EventAt eventAt) REQUIRES(WaitLock()) {
    for (int i = 0; i < count; ++i) {
        if (!eventAt(i)->IsOpen()) return kWaitFailed;
    }
    if (!waitAll) {
        for (int i = 0; i < count; ++i) {
            if (eventAt(i)->TakeSignal()) return i;
        }
        return kWaitTimedOut;
    }
    for (int i = 0; i < count; ++i) {
        if (!eventAt(i)->IsSignaled()) return kWaitTimedOut;
    }
    for (int i = 0; i < count; ++i) eventAt(i)->TakeSignal();
    return kWaitSignaled;
}

// One call of WaitMultiple that has to sleep. The caller fills in the records' events.
struct MultiWait {
    MultiWait(int size, bool all);

    int Run(DWORD timeoutMS);
    bool Evaluate() REQUIRES(WaitLock());

    static constexpr int kRecordsInPlace = 16;

    const bool waitAll;
    const int count;
    bool active = false;  // takes part in evaluation
    bool done = false;
    int result = kWaitTimedOut;
    const RCPtr<KxEventData> signal;  // manual reset; the caller sleeps on it
    std::array<WaitRecord, kRecordsInPlace> recordsInPlace;
    const std::unique_ptr<WaitRecord[]> recordsOnHeap;
    const std::span<WaitRecord> records;  // one for each event, in the order of the list
};

MultiWait::MultiWait(int size, bool all)
    : waitAll(all),
      count(size),
      signal(new KxEventData(true, false)),
      recordsOnHeap(size > kRecordsInPlace ? new WaitRecord[size] : nullptr),
      records(recordsOnHeap ? recordsOnHeap.get() : recordsInPlace.data(), size) {}

int MultiWait::Run(DWORD timeoutMS) {
    for (WaitRecord& record : records) {
        record.multi = this;
        record.event->Register(&record);
    }
    bool satisfied;
    {
        KxMutexGuard guard(WaitLock());
        active = true;
        satisfied = Evaluate();
    }
    if (!satisfied) signal->Wait(timeoutMS);
    {
        KxMutexGuard guard(WaitLock());
        active = false;
    }
    for (WaitRecord& record : records) record.event->Unregister(&record);
    return result;
}

bool MultiWait::Evaluate() {
    if (!active || done) return false;
    result = EvaluateList(count, waitAll, [this](int i) { return records[i].event.Get(); });
    done = result != kWaitTimedOut;
    return done;
}

void Wakeups::Add(const RCPtr<KxEventData>& signal) {
    signal->nextSignal = std::move(signals);
    signals = signal;
}

void Wakeups::Run(std::condition_variable& waiters) {
    if (single) waiters.notify_all();
    while (signals) {
        const RCPtr<KxEventData> signal = std::move(signals);
        signals = std::move(signal->nextSignal);
        signal->Set();
    }
}

}  // namespace

bool KxEventData::Set() {
    if (waitCount.load(std::memory_order_relaxed) == 0) {
        KxMutexGuard guard(WaitLock());
        if (!IsOpen()) return false;
        if (waitCount.load(std::memory_order_relaxed) == 0) {
            signaled = true;
            return true;
        }
    }
    const RCPtr<KxEventData> self(this);
    Wakeups wakeups;
    {
        EventGuard guard(mutex);
        if (!IsOpen()) return false;
        KxMutexGuard waitGuard(WaitLock());
        signaled = true;
        EvaluateWaiters(wakeups);
    }
    wakeups.Run(waiters);
    return true;
}

bool KxEventData::Reset() {
    KxMutexGuard guard(WaitLock());
    if (!IsOpen()) return false;
    signaled = false;
    return true;
}

int KxEventData::Wait(DWORD timeoutMS) {
    {
        KxMutexGuard guard(WaitLock());
        if (!IsOpen()) return kWaitFailed;
        if (TakeSignal()) return kWaitSignaled;
    }
    return timeoutMS == 0 ? kWaitTimedOut : Sleep(timeoutMS);
}

int KxEventData::Sleep(DWORD timeoutMS) {
    const RCPtr<KxEventData> self(this);
    std::optional<Deadline> deadline;
    if (timeoutMS != kInfinite) deadline.emplace(timeoutMS);
    EventGuard guard(mutex);
    if (!IsOpen()) return kWaitFailed;
    WaitRecord record;
    Append(&record);
    {
        KxMutexGuard waitGuard(WaitLock());
        Evaluate(record);
    }
    const int outcome = SleepUntilDone(record, deadline, guard.native);
    Remove(&record);
    return record.done ? record.result : outcome;
}

// record.done may be read without the wait lock: a single record changes only with the mutex held as well.
int KxEventData::SleepUntilDone(const WaitRecord& record, const std::optional<Deadline>& deadline,
                                std::unique_lock<std::mutex>& native) {
    try {
        while (!record.done) {
            if (!deadline) {
                waiters.wait(native);
                continue;
            }
            const auto wallDeadline = deadline->OnWallClock();
            waiters.wait_until(native, wallDeadline);
            if (std::chrono::system_clock::now() >= wallDeadline && deadline->HasPassed()) break;
        }
    } catch (const std::exception& e) {
        LOG_AS("int KxEvent::Wait(DWORD)", Error, "Exception while waiting: %s", e.what());
        return kWaitFailed;
    }
    return kWaitTimedOut;
}

void KxEventData::Open() {
    EventGuard guard(mutex);
    openCount.fetch_add(1, std::memory_order_relaxed);
}

// The caller holds a reference.
void KxEventData::Close() {
    Wakeups wakeups;
    {
        EventGuard guard(mutex);
        if (openCount.fetch_sub(1, std::memory_order_relaxed) > 1 || !waitListFirst) return;
        KxMutexGuard waitGuard(WaitLock());
        EvaluateWaiters(wakeups);
    }
    wakeups.Run(waiters);
}

// A signal of an auto-reset event satisfies one wait, so the walk ends when it is taken; a closed event fails them all.
void KxEventData::EvaluateWaiters(Wakeups& wakeups) {
    for (WaitRecord* record = waitListFirst; record; record = record->next) {
        if (record->multi) {
            if (record->multi->Evaluate()) wakeups.Add(record->multi->signal);
        } else {
            wakeups.single |= Evaluate(*record);
        }
        if (!signaled && IsOpen()) return;
    }
}

// Returns true if this completed the record.
bool KxEventData::Evaluate(WaitRecord& record) {
    if (record.done) return false;
    if (!IsOpen()) {
        record.result = kWaitFailed;
    } else if (TakeSignal()) {
        record.result = kWaitSignaled;
    } else {
        return false;
    }
    record.done = true;
    return true;
}

void KxEventData::Register(WaitRecord* record) {
    EventGuard guard(mutex);
    Append(record);
}

void KxEventData::Unregister(WaitRecord* record) {
    EventGuard guard(mutex);
    Remove(record);
}

void KxEventData::Append(WaitRecord* record) {
    record->previous = waitListLast;
    (waitListLast ? waitListLast->next : waitListFirst) = record;
    waitListLast = record;
    waitCount.fetch_add(1, std::memory_order_relaxed);
}

void KxEventData::Remove(WaitRecord* record) {
    (record->previous ? record->previous->next : waitListFirst) = record->next;
    (record->next ? record->next->previous : waitListLast) = record->previous;
    waitCount.fetch_sub(1, std::memory_order_relaxed);
}

KxEvent::KxEvent(bool manualReset, bool initialState, const std::string&)
    : data(new KxEventData(manualReset, initialState)) {}

KxEvent::KxEvent(const KxEvent& other) : RCObject(other), data(other.data) {
    if (data) data->Open();
}

KxEvent::KxEvent(KxEvent&& other) noexcept : RCObject(), data(std::move(other.data)) {}

KxEvent& KxEvent::operator=(const KxEvent& other) {
    if (other.data) other.data->Open();
    Replace(other.data);
    return *this;
}

KxEvent& KxEvent::operator=(KxEvent&& other) noexcept {
    if (this != &other) Replace(std::move(other.data));
    return *this;
}

KxEvent::~KxEvent() {
    Replace({});
}

void KxEvent::Replace(RCPtr<KxEventData> next) {
    const RCPtr<KxEventData> held = std::move(data);
    if (held) held->Close();
    data = std::move(next);
}

bool KxEvent::Set() {
    KxEventData* const event = data.Get();
    return event && event->Set();
}

bool KxEvent::Reset() {
    KxEventData* const event = data.Get();
    return event && event->Reset();
}

int KxEvent::Wait(DWORD timeoutMS) {
    KxEventData* const event = data.Get();
    return event ? event->Wait(timeoutMS) : kWaitFailed;
}

bool KxEvent::IsValid() const {
    return data && data->IsOpen();
}

int KxEvent::WaitMultiple(std::vector<KxEvent*>& events, bool waitAll, DWORD timeoutMS, bool) {
    const int count = static_cast<int>(events.size());
    for (const KxEvent* event : events) {
        if (!event || !event->data) return kWaitFailed;
    }
    {
        KxMutexGuard guard(WaitLock());
        const int result = EvaluateList(count, waitAll, [&events](int i) { return events[i]->data.Get(); });
        if (result != kWaitTimedOut || timeoutMS == 0) return result;
    }
    MultiWait wait(count, waitAll);
    for (int i = 0; i < count; ++i) wait.records[i].event = events[i]->data;
    return wait.Run(timeoutMS);
}
