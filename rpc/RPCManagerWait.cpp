// The waits of the manager. They run in slices, so that a wait on the init thread comes back to the service in time.
#include <unistd.h>

#include <algorithm>

#include "logging/Log.h"
#include "rpc/RPCManager.h"
#include "runtime/KxTimer.h"
#include "runtime/ThreadNumber.h"

namespace {

constexpr uint64 kSliceMS = 100;

// What is left of a time-out in milliseconds, as of the latest call of IsSpent.
class WaitTime {
public:
    explicit WaitTime(uint32_t msTimeout) : timeout(msTimeout) {}

    uint32_t Slice() const {
        return static_cast<uint32_t>(timeout == kInfinite ? kSliceMS : std::min<uint64>(kSliceMS, timeout - elapsed));
    }

    // A time-out of 0 is spent once one millisecond has passed. A clock that can't be read or goes back ends every wait
    // that has an end.
    bool IsSpent() {
        if (timeout == kInfinite) return false;
        const uint64 now = timer.GetTimerMS(KxTimer::Mode::Read, 0);
        if (now < elapsed || now >= std::max<uint32_t>(timeout, 1)) return true;
        elapsed = now;
        return false;
    }

private:
    const uint32_t timeout;
    uint64 elapsed = 0;
    KxElapsedTimer timer;
};

// Waits for a list that isn't empty.
int WaitForEvents(std::vector<KxEvent*>& events, bool waitAll, uint32_t msTimeout, bool alertable) {
    if (events.size() > 1) return KxEvent::WaitMultiple(events, waitAll, msTimeout, alertable);
    return events.front() ? events.front()->Wait(msTimeout) : kWaitFailed;
}

}  // namespace

bool RPCManager::IsInitThread() const {
    return IsThreadNumberCurrent(m_hInitThreadId.load(std::memory_order_relaxed));
}

bool RPCManager::IsEmptyWaitRefused(const char* signature, const std::vector<KxEvent*>& events,
                                    bool onInitThread) const {
    if (onInitThread || !events.empty()) return false;
    LOG_AS(signature, Debug,
           "Called with empty KxEvents vector on different thread: m_hInitThreadId(0x%08llX); "
           "GetCurrentThreadId(0x%08llX)\n",
           static_cast<unsigned long long>(m_hInitThreadId.load(std::memory_order_relaxed)),
           static_cast<unsigned long long>(GetThreadNumber()));
    return true;
}

int RPCManager::WaitMultiple(std::vector<KxEvent*>& events, bool waitAll, uint32_t msTimeout, bool alertable) {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    WaitTime time(msTimeout);
    const bool onInitThread = IsInitThread();
    if (IsEmptyWaitRefused(__PRETTY_FUNCTION__, events, onInitThread)) return kWaitFailed;
    for (;;) {
        if (onInitThread && m_channelTable.v1.Poll) m_channelTable.v1.Poll();
        const uint32_t slice = time.Slice();
        if (events.empty()) {
            usleep(slice * 1000);
        } else {
            const int result = WaitForEvents(events, waitAll, slice, alertable);
            if (result != kWaitTimedOut) return result;
        }
        if (msTimeout == 0 || time.IsSpent()) return kWaitTimedOut;
    }
}

int RPCManager::PollWaitMultiple(std::vector<KxEvent*>& events, bool waitAll, uint32_t msTimeout, bool alertable) {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    if (!m_channelTable.v3.Poll) {
        LOG(Error, "Please upgrade qscservice to support v3.Poll\n");
        return kWaitFailed;
    }
    WaitTime time(msTimeout);
    const bool onInitThread = IsInitThread();
    if (IsEmptyWaitRefused(__PRETTY_FUNCTION__, events, onInitThread)) return kWaitFailed;
    do {
        uint32_t slice = time.Slice();
        if (onInitThread) {
            m_channelTable.v3.Poll(slice);
            slice = 0;  // the service's poll has spent it
        }
        if (!events.empty()) {
            const int result = WaitForEvents(events, waitAll, slice, alertable);
            if (result != kWaitTimedOut) return result;
        }
    } while (!time.IsSpent());
    return kWaitTimedOut;
}

bool RPCManager::WaitForEvent(KxEvent* event, uint32_t msTimeout) {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    std::vector<KxEvent*> events;
    if (event) events.push_back(event);
    return WaitMultiple(events, false, msTimeout, false) == kWaitSignaled;
}

void RPCManager::SleepPumping(uint32_t msTimeout) {
    FUNCTION_TRACE(Info, "%s(0x%p)", m_name, Handle());
    std::vector<KxEvent*> none;
    WaitMultiple(none, false, msTimeout, false);
}
