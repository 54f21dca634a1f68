// The running thread holds the thread lock at all times except during the callback and during the pause, so that what
// the handle's side changes under the lock reaches it between two calls. Lines are logged without the lock wherever the
// thread can be running, since the log may itself stand on a thread of this class.
#include "runtime/KxThread.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "logging/Log.h"
#include "runtime/KxMutex.h"
#include "runtime/StringUtils.h"
#include "runtime/ThreadAnnotations.h"
#include "runtime/ThreadNumber.h"

namespace {

constexpr size_t kSystemNameBytes = 15;

void NameForSystem(pthread_t thread, const std::string& name) {
    pthread_setname_np(thread, name.substr(0, kSystemNameBytes).c_str());
}

unsigned long long Printed(uint64 threadNumber) {
    return threadNumber;
}

}  // namespace

// What the handle and the running thread share.
class KxThreadData final : public RCObject {
public:
    KxThreadData(const std::string& name, KxThread* owner) : name(name), owner(owner) {}

    // What the new thread runs. It holds a reference of its own on data to its end.
    static void Enter(KxThreadData* data);

    void Run() EXCLUDES(lock);
    bool Pause(DWORD timeoutMS, bool alertable);
    void Join() REQUIRES(lock);
    void Detach() REQUIRES(lock);
    bool CreateThread(std::string& failure) REQUIRES(lock);
    bool IsCaller() const REQUIRES(lock) { return thread && thread->get_id() == std::this_thread::get_id(); }

    std::string GetName() EXCLUDES(lock) {
        KxMutexGuard guard(lock);
        return name;
    }
    void SetOwner(KxThread* handle) EXCLUDES(lock) {
        KxMutexGuard guard(lock);
        owner = handle;
    }
    // Relaxed: the number stands for nothing but itself.
    uint64 Number() const { return threadNumber.load(std::memory_order_relaxed); }

    std::string name GUARDED_BY(lock);
    KxThread::Callback callback GUARDED_BY(lock) = nullptr;
    void* userData GUARDED_BY(lock) = nullptr;
    uint32_t intervalMS GUARDED_BY(lock) = 0;
    // Lowered without the lock, so that the callback's callees can do it under any lock of their own. Relaxed: a value
    // set during a pause counts for the next one.
    std::atomic<uint32_t> nextWaitMS{kInfinite};
    bool alertable GUARDED_BY(lock) = false;
    std::atomic<uint64> threadNumber{0};  // read without the lock, to tell threads apart
    std::unique_ptr<std::thread> thread GUARDED_BY(lock);
    KxThread* owner GUARDED_BY(lock);
    bool deleted GUARDED_BY(lock) = false;
    KxEvent wakeEvent{false, false};
    KxEvent stopEvent{true, false};
    KxEvent exitedEvent{true, false};
    KxMutex lock;                          // guards all of the above except the events and the atomics
    uint32_t starts GUARDED_BY(lock) = 0;  // tells the thread that was waited for from one started since

private:
    // What a pause waits for. The stop event stands first, so that it wins when both are set. Never changed.
    std::vector<KxEvent*> pauseEvents{&stopEvent, &wakeEvent};
};

void KxThreadData::Enter(KxThreadData* data) {
    const RCPtr<KxThreadData> held(data);
    data->threadNumber.store(GetThreadNumber(), std::memory_order_relaxed);
    data->wakeEvent.Set();
    data->Run();
}

void KxThreadData::Run() {
    const std::string startName = GetName();
    NameForSystem(pthread_self(), startName);
    LOG(Info, "Thread %s started", startName.c_str());
    KxMutexGuard guard(lock);
    const char* reason = nullptr;
    while (!reason) {
        const KxThread::Callback call = callback;
        void* const argument = userData;
        KxThread* const handle = owner;
        guard.Unlock();
        const bool again = call(argument, handle);
        guard.Lock();
        if (deleted || !again) {
            stopEvent.Set();
            reason = deleted ? "was deleted" : "exited by callback";
            break;
        }
        const DWORD pauseMS = std::min(intervalMS, nextWaitMS.exchange(kInfinite, std::memory_order_relaxed));
        const bool passAlerts = alertable;
        guard.Unlock();
        const bool stop = Pause(pauseMS, passAlerts);
        guard.Lock();
        if (stop) reason = "exited";
    }
    const std::string endName = name;
    threadNumber.store(0, std::memory_order_relaxed);
    exitedEvent.Set();
    guard.Unlock();
    LOG(Info, "Thread %s %s", endName.c_str(), reason);
}

bool KxThreadData::Pause(DWORD timeoutMS, bool passAlerts) {
    const int result = KxEvent::WaitMultiple(pauseEvents, false, timeoutMS, passAlerts);
    return result == 0 || result == kWaitFailed;
}

void KxThreadData::Join() {
    if (thread->joinable()) {
        thread->join();
    } else {
        LOG(Warn, "Thread %s(0x%08llX) is not joinable", name.c_str(), Printed(Number()));
    }
    thread.reset();
}

void KxThreadData::Detach() {
    if (thread->joinable()) {
        thread->detach();
    } else {
        LOG(Warn, "Thread %s(0x%08llX) is not joinable", name.c_str(), Printed(Number()));
    }
    thread.reset();
}

// The wake event may have been set by somebody else; the thread has its number before it sets it.
bool KxThreadData::CreateThread(std::string& failure) {
    try {
        thread = std::make_unique<std::thread>(Enter, this);
    } catch (const std::system_error& error) {
        failure = error.what();
        return false;
    }
    ++starts;
    while (wakeEvent.Wait(kInfinite) == kWaitSignaled && Number() == 0) {
    }
    return true;
}

KxThread::KxThread(const std::string& name) : data(new KxThreadData(name, this)) {}

KxThread::KxThread() : KxThread(StringUtils::Format("0x%p", static_cast<void*>(this))) {}

KxThread::KxThread(KxThread&& other) noexcept : data(std::move(other.data)) {
    if (data) data->SetOwner(this);
}

KxThread& KxThread::operator=(KxThread&& other) noexcept {
    if (this == &other) return *this;
    MarkDeleted(data);
    data = std::move(other.data);
    if (data) data->SetOwner(this);
    return *this;
}

KxThread::~KxThread() {
    MarkDeleted(data);
}

bool KxThread::Start(Callback callback, void* userData, uint32_t intervalMS, bool alertable) {
    const RCPtr<KxThreadData> held = data;
    if (!held) return false;
    KxThreadData& state = *held;
    KxMutexGuard guard(state.lock);
    if (!callback || state.thread) return false;
    if (!state.exitedEvent.Reset() || !state.stopEvent.Reset() || !state.wakeEvent.Reset()) return false;
    state.callback = callback;
    state.userData = userData;
    state.intervalMS = intervalMS;
    state.alertable = alertable;
    std::string failure;
    if (state.CreateThread(failure)) return true;
    const std::string name = state.name;
    guard.Unlock();
    LOG(Error, "Failed to start thread %s: %s\n", name.c_str(), failure.c_str());
    return false;
}

bool KxThread::Stop(DWORD timeoutMS) {
    const RCPtr<KxThreadData> held = data;
    if (held) held->stopEvent.Set();
    return WaitForStop(timeoutMS);
}

bool KxThread::WaitForStop(DWORD timeoutMS) {
    const RCPtr<KxThreadData> held = data;
    if (!held) return true;
    KxThreadData& state = *held;
    KxMutexGuard guard(state.lock);
    if (!state.thread) return true;
    if (state.IsCaller()) return false;
    const uint32_t awaited = state.starts;
    guard.Unlock();
    const int result = state.exitedEvent.Wait(timeoutMS);
    guard.Lock();
    if (result == kWaitTimedOut) return false;
    if (state.thread && state.starts == awaited) state.Join();
    return true;
}

bool KxThread::Terminate(DWORD) {
    const RCPtr<KxThreadData> held = data;
    if (!held) return true;
    KxThreadData& state = *held;
    KxMutexGuard guard(state.lock);
    if (!state.thread) return true;
    const uint64 number = state.Number();
    if (number != 0 && state.IsCaller()) return false;
    const std::string name = state.name;
    guard.Unlock();
    LOG(Warn, "Attempt to terminate thread %s(0x%08llX) not supported", name.c_str(), Printed(number));
    return false;
}

// The line comes first, ahead of the one that the thread writes about its end.
void KxThread::MarkDeleted(const RCPtr<KxThreadData>& dropped) {
    if (!dropped) return;
    KxThreadData& state = *dropped;
    KxMutexGuard guard(state.lock);
    if (state.thread) {
        const std::string name = state.name;
        guard.Unlock();
        LOG(Debug, "Setting deleted flag for thread %s(0x%08llX)", name.c_str(), Printed(state.Number()));
        guard.Lock();
    }
    if (state.thread) {
        state.deleted = true;
        state.Detach();
    }
    state.owner = nullptr;
}

void KxThread::Signal() {
    const RCPtr<KxThreadData> held = data;
    if (held) held->wakeEvent.Set();
}

bool KxThread::Sleep(DWORD timeoutMS) {
    const RCPtr<KxThreadData> held = data;
    if (!held) return true;
    KxThreadData& state = *held;
    KxMutexGuard guard(state.lock);
    const bool passAlerts = state.alertable;
    guard.Unlock();
    return state.Pause(timeoutMS, passAlerts);
}

void KxThread::SetNextWaitMS(uint32_t waitMS) {
    const RCPtr<KxThreadData> held = data;
    if (!held) return;
    uint32_t pending = held->nextWaitMS.load(std::memory_order_relaxed);
    while (waitMS < pending && !held->nextWaitMS.compare_exchange_weak(pending, waitMS, std::memory_order_relaxed)) {
    }
}

uint64 KxThread::GetThreadId() const {
    const RCPtr<KxThreadData> held = data;
    return held ? held->Number() : 0;
}

bool KxThread::IsCurrentThread() const {
    const RCPtr<KxThreadData> held = data;
    if (!held) return false;
    KxThreadData& state = *held;
    KxMutexGuard guard(state.lock);
    return state.Number() != 0 && state.IsCaller();
}

std::string KxThread::GetName() const {
    const RCPtr<KxThreadData> held = data;
    return held ? held->GetName() : std::string();
}

void KxThread::SetName(const std::string& name) {
    const RCPtr<KxThreadData> held = data;
    if (!held) return;
    KxThreadData& state = *held;
    KxMutexGuard guard(state.lock);
    state.name = name;
    if (state.thread && state.Number() != 0) NameForSystem(state.thread->native_handle(), name);
}

KxEvent* KxThread::GetWakeEvent() const {
    return data ? &data->wakeEvent : nullptr;
}

KxEvent* KxThread::GetStopEvent() const {
    return data ? &data->stopEvent : nullptr;
}

KxEvent* KxThread::GetExitedEvent() const {
    return data ? &data->exitedEvent : nullptr;
}
