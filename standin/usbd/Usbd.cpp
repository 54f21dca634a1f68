// The boundary: what the plug-in imports, over the one replay that is configured. StartUsbd lends its thread to waiting
// for the stop; the work is done on a thread of the daemon's own.
#include "plugin/Usbd.h"

#include <strings.h>

#include <system_error>
#include <thread>

#include "standin/usbd/Replay.h"

namespace usbd {
namespace {

constexpr int kMmfwMsgWaitTimeoutMS = 1000;
constexpr int kAlreadyRuns = -1;  // results of StartUsbd
constexpr int kNoThread = -2;

// A stop that meets no run stays in the gate for the next start, which returns at once: whoever stops a daemon whose
// thread hasn't come to StartUsbd yet is waiting for that thread.
struct Daemon {
    ChannelGate gate;
    Lock lock;
    Condition stopped;                     // of running
    Callbacks callbacks GUARDED_BY(lock);  // until the run that they were registered for has ended
    bool running GUARDED_BY(lock) = false;
    std::shared_ptr<Replay> replay GUARDED_BY(lock) = std::make_shared<Replay>(UsbReplayPlan(),
                                                                               std::make_unique<MessageTable>(), gate);
};

// Never destroyed: threads of others may still call in while the process ends.
Daemon& TheDaemon() {
    static Daemon& daemon = *new Daemon;
    return daemon;
}

std::shared_ptr<Replay> CurrentReplay() {
    Daemon& daemon = TheDaemon();
    LockScope scope(daemon.lock);
    return daemon.replay;
}

template <typename Callback>
void Register(Callback Callbacks::*field, Callback callback) {
    Daemon& daemon = TheDaemon();
    LockScope scope(daemon.lock);
    daemon.callbacks.*field = callback;
}

std::string_view View(const void* data, size_t size) {
    return size == 0 ? std::string_view() : std::string_view(static_cast<const char*>(data), size);
}

void OnFinalResponse(void* context, int status, const void* data, uint32_t size) {
    CurrentReplay()->OnAsyncResponse(context, status, View(data, size));
}

const Usbd_AsyncFinalRespCb kFinalResponse = reinterpret_cast<Usbd_AsyncFinalRespCb>(&OnFinalResponse);

bool UsesChannel(int argc, char** argv) {
    return argc > 1 && argv[1] && strcasecmp(argv[1], "TRUE") == 0;
}

// False if the daemon runs already or was stopped ahead of its start.
bool BeginRun(Callbacks& callbacks, std::shared_ptr<Replay>& replay, int& result) {
    Daemon& daemon = TheDaemon();
    LockScope scope(daemon.lock);
    if (daemon.running) {
        result = kAlreadyRuns;
        return false;
    }
    if (daemon.gate.Stopped()) {
        daemon.gate.Restart();
        return false;
    }
    daemon.running = true;
    daemon.callbacks.finalResponse = kFinalResponse;
    callbacks = daemon.callbacks;
    replay = daemon.replay;
    return true;
}

void EndRun() {
    Daemon& daemon = TheDaemon();
    LockScope scope(daemon.lock);
    daemon.callbacks = Callbacks();
    daemon.running = false;
    daemon.gate.Shut();
    daemon.gate.Restart();
    daemon.stopped.NotifyAll();
}

}  // namespace
}  // namespace usbd

using namespace usbd;

extern "C" {

int StartUsbd(int argc, char** argv) {
    Callbacks callbacks;
    std::shared_ptr<Replay> replay;
    int result = 0;
    if (!BeginRun(callbacks, replay, result)) return result;

    const bool sends = UsesChannel(argc, argv) && callbacks.HaveChannel() && replay->InitResult() == 0;
    try {
        std::thread work([&] {
            if (callbacks.initDone) callbacks.initDone(replay->InitResult());
            if (sends) replay->Run(callbacks);
        });
        TheDaemon().gate.WaitStopped();
        work.join();
    } catch (const std::system_error&) {
        if (callbacks.initDone) callbacks.initDone(kNoThread);
        result = kNoThread;
    }
    EndRun();
    return result;
}

void StopUsbd(int) {
    TheDaemon().gate.Stop();
}

void SetUsbdInitDoneNotifCb(Usbd_InitDoneCb callback) {
    Register(&Callbacks::initDone, callback);
}
void Usbd_SetPostMsgCb(Usbd_PostMsgCb callback) {
    Register(&Callbacks::post, callback);
}
void Usbd_SetPostMsgFastCb(Usbd_PostMsgFastCb callback) {
    Register(&Callbacks::fast, callback);
}
void Usbd_SetPostHIDOptMsgFastCb(Usbd_PostHIDOptMsgFastCb callback) {
    Register(&Callbacks::hid, callback);
}
void Usbd_SetSendAsyncMsgCb(Usbd_SendAsyncMsgCb callback) {
    Register(&Callbacks::async, callback);
}

int Usbd_GetMmfwMsgWaitTimeout() {
    return kMmfwMsgWaitTimeoutMS;
}

void Usbd_NotifyUsbVirtualChannelAvailable() {
    CurrentReplay()->OnChannelUp();
    TheDaemon().gate.Open();
}

void Usbd_PostMsgToUsbdPoll(const void* data, uint32_t size, uint32_t headerLength, uint32_t trailer) {
    const std::shared_ptr<Replay> replay = CurrentReplay();
    if (headerLength != kUsbmonHeaderSize)
        return replay->OnMismatch("fast post: header length " + std::to_string(headerLength));
    if (size < kUsbmonHeaderSize || trailer != size - kUsbmonHeaderSize)
        return replay->OnMismatch("fast post of " + std::to_string(size) + " bytes: trailer " +
                                  std::to_string(trailer));
    replay->OnReturned(MessageKind::kFast, View(data, size));
}

void Usbd_PostHIDOptOperationMsg(const char* data, size_t size) {
    CurrentReplay()->OnReturned(MessageKind::kHid, View(data, size));
}

void Usbd_SetUsbDeviceFilterEnabledStatus(Bool enabled) {
    CurrentReplay()->OnFilter(enabled != FALSE);
}

void Usbd_SendAsyncMsgRespCb(Usbd_AsyncFinalRespCb callback, void* context, int status, const void* data,
                             uint32_t size) {
    if (callback != kFinalResponse) return CurrentReplay()->OnMismatch("final response: foreign callback");
    reinterpret_cast<decltype(&OnFinalResponse)>(callback)(context, status, data, size);
}

}  // extern "C"

bool UsbdReplay_Configure(UsbReplayPlan plan, std::string* error) {
    const auto fail = [error](const char* text) {
        if (error) *error = text;
        return false;
    };
    std::unique_ptr<MessageTable> table = MessageTable::Make(plan.captures, error);
    if (!table) return false;
    if (table->Steps().empty()) return fail("the captures have no record");

    Daemon& daemon = TheDaemon();
    std::shared_ptr<Replay> replay = std::make_shared<Replay>(std::move(plan), std::move(table), daemon.gate);
    LockScope scope(daemon.lock);
    if (daemon.running) return fail("the daemon is running");
    daemon.replay.swap(replay);
    daemon.gate.Restart();
    return true;
}

UsbReplayCounters UsbdReplay_GetCounters() {
    return CurrentReplay()->Counters();
}

void UsbdReplay_SetChannelUp(bool up) {
    ChannelGate& gate = TheDaemon().gate;
    up ? gate.Open() : gate.Shut();
}

bool UsbdReplay_WaitStopped(DWORD timeoutMS) {
    const Clock::time_point deadline = DeadlineAfter(timeoutMS);
    Daemon& daemon = TheDaemon();
    LockScope scope(daemon.lock);
    while (daemon.running) {
        if (!daemon.stopped.WaitUntil(daemon.lock, deadline)) return !daemon.running;
    }
    return true;
}
bool UsbdReplay_WaitSent(DWORD timeoutMS) {
    return CurrentReplay()->WaitSent(timeoutMS);
}
bool UsbdReplay_WaitReturned(uint64_t messages, DWORD timeoutMS) {
    return CurrentReplay()->WaitReturned(messages, timeoutMS);
}
bool UsbdReplay_WaitAllReturned(DWORD timeoutMS) {
    return CurrentReplay()->WaitAllReturned(timeoutMS);
}
