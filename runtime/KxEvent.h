// A waitable flag, alone or in a list.
#pragma once

#include <string>
#include <vector>

#include "runtime/RCObject.h"
#include "runtime/Types.h"

class KxEventData;

// Results of a wait. A wait for any event of a list returns the event's position, 0 or more.
inline constexpr int kWaitSignaled = 0;
inline constexpr int kWaitTimedOut = -1;
inline constexpr int kWaitFailed = -2;   // the event is invalid, or was closed before or during the wait
inline constexpr int kWaitAlerted = -3;  // reserved; no wait returns it

// An event in manual-reset mode stays signaled until Reset and satisfies every wait; one in auto-reset mode satisfies
// one wait for each signal, in the order in which the waits began, a wait on a list counting as one. A signal that
// nobody waits for stays; a second one adds nothing.
//
// Copies name the same event. It is closed when the last of them goes, which fails all waits on it. A moved-from
// KxEvent is invalid. All operations are safe on any thread; the object itself must outlive the start of a call, not
// its end.
class KxEvent : public RCObject {
public:
    // The name is not kept.
    KxEvent(bool manualReset, bool initialState, const std::string& name = {});
    KxEvent(const KxEvent& other);
    KxEvent(KxEvent&& other) noexcept;
    KxEvent& operator=(const KxEvent& other);
    KxEvent& operator=(KxEvent&& other) noexcept;
    ~KxEvent() override;

    // Set signals the event, Reset clears it. Both return false if it is invalid or closed.
    bool Set();
    bool Reset();

    // Waits up to timeoutMS milliseconds, kInfinite for no limit, 0 for a look without sleeping. Returns kWaitSignaled,
    // kWaitTimedOut or kWaitFailed.
    int Wait(DWORD timeoutMS);

    bool IsValid() const;

    // An opaque word that is the same for all copies, for trace lines.
    void* GetHandle() const { return data.Get(); }

    // Waits until any event of the list is signaled, or with waitAll until all are at one moment; only then does it
    // consume their signals. Returns the lowest position of a signaled event (with waitAll 0), kWaitTimedOut, or
    // kWaitFailed if any event is null, invalid or closed, or gets closed meanwhile. An empty list is signaled at once
    // with waitAll, and otherwise never. alertable has no effect.
    static int WaitMultiple(std::vector<KxEvent*>& events, bool waitAll, DWORD timeoutMS, bool alertable);

private:
    void Replace(RCPtr<KxEventData> next);

    RCPtr<KxEventData> data;
};
