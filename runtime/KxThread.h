// A thread that calls a callback again and again, with a pause between the calls, until it is told to stop or the
// callback says that it has finished.
#pragma once

#include <string>

#include "runtime/KxEvent.h"
#include "runtime/RCObject.h"
#include "runtime/Types.h"

class KxThreadData;

// The handle of a thread. The running thread works on state that it shares with the handle and outlives it: the handle
// may be destroyed at any time, even by the callback. That doesn't stop the thread: it ends after its current call of
// the callback, or, if it is in a pause, after the next one. Who wants it stopped calls Stop first.
//
// A thread that has ended and was joined (by WaitForStop or what builds on it) can be started again. A moved-from
// handle has no thread: its operations return true where they ask whether the thread is gone, otherwise false, 0 or
// null. All operations are safe on any thread, but for the moves, which need the two handles to be in no other use.
class KxThread : public RCObject {
public:
    // Returns true to be called again after the pause. thread is the handle, null if it has gone; the callback may use
    // it as long as it knows that nobody else destroys or moves it.
    using Callback = bool (*)(void* userData, KxThread* thread);

    explicit KxThread(const std::string& name);
    KxThread();  // named by the handle's address
    KxThread(KxThread&& other) noexcept;
    KxThread& operator=(KxThread&& other) noexcept;
    ~KxThread() override;

    // Starts the thread, and returns true when it runs. It pauses for intervalMS milliseconds between two calls of the
    // callback; 0 is no pause, kInfinite one that only Signal or Stop ends. alertable has no effect. Returns false, and
    // changes nothing, without a callback or if the thread runs or waits to be joined. Returns false also, after an
    // error line, if the system refuses a thread; Start may then be tried again. The system knows the thread by the
    // first 15 bytes of its name.
    bool Start(Callback callback, void* userData, uint32_t intervalMS, bool alertable);

    // Asks the thread to end, which it does before it calls the callback again, and waits for that. See WaitForStop.
    bool Stop(DWORD timeoutMS);

    // Waits up to timeoutMS milliseconds (kInfinite: no limit) for the end of the thread, and joins it. Returns true if
    // it has ended or there is nothing to wait for; false on time-out and on the thread itself.
    bool WaitForStop(DWORD timeoutMS);

    // Both join a thread that has ended.
    bool IsStopped() { return WaitForStop(0); }
    bool IsRunning() { return !WaitForStop(0); }

    // Never ends a thread by force. Returns true if there is none, otherwise false, with a warning unless it is the
    // caller itself.
    bool Terminate(DWORD exitCode);
    bool StopOrTerminate(DWORD timeoutMS, DWORD exitCode) { return Stop(timeoutMS) || Terminate(exitCode); }

    // Ends the pause, or skips the next one.
    void Signal();

    // To be called by the callback: waits like the pause, so that Signal and Stop cut it short. Returns true if the
    // thread should end.
    bool Sleep(DWORD timeoutMS);

    // Makes the next pause at most this long. Several calls before it leave the shortest. Takes no lock.
    void SetNextWaitMS(uint32_t waitMS);

    // The running thread's number, 0 before it runs and after it has ended. Takes no lock.
    uint64 GetThreadId() const;
    bool IsCurrentThread() const;

    std::string GetName() const;
    void SetName(const std::string& name);

    // The thread's own events, null without a thread: the wake event cuts the pause short, the stop event asks the
    // thread to end and is set also when it ends on its own, the exited event is set when it has ended. They live as
    // long as the handle.
    KxEvent* GetWakeEvent() const;
    KxEvent* GetStopEvent() const;
    KxEvent* GetExitedEvent() const;

private:
    static void MarkDeleted(const RCPtr<KxThreadData>& dropped);

    RCPtr<KxThreadData> data;
};
