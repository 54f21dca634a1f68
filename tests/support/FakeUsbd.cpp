#include "tests/support/FakeUsbd.h"

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>

namespace {

struct State {
    std::vector<FakeUsbd::Call> calls;
    FakeUsbd::Callbacks callbacks;
    std::map<std::string, std::function<void()>> hooks;
    int msgWaitTimeout = 5000;
    bool stopped = false;
    bool held = false;
};

std::mutex lock;  // guards state
std::condition_variable changed;
State state;

std::string Text(const char* function, std::initializer_list<std::string> arguments) {
    std::string text = function;
    for (const std::string& argument : arguments) text += " " + argument;
    return text;
}

void Record(const char* function, std::initializer_list<std::string> arguments, const void* data = nullptr,
            size_t size = 0) {
    std::function<void()> hook;
    {
        std::lock_guard guard(lock);
        state.calls.push_back({Text(function, arguments), std::string(static_cast<const char*>(data), size), data});
        if (const auto found = state.hooks.find(function); found != state.hooks.end()) hook = found->second;
        changed.notify_all();
    }
    if (hook) hook();
}

template <typename Callback>
void Register(const char* function, Callback FakeUsbd::Callbacks::*slot, Callback callback) {
    {
        std::lock_guard guard(lock);
        state.callbacks.*slot = callback;
    }
    Record(function, {});
}

template <typename Predicate>
bool WaitUntil(std::unique_lock<std::mutex>& guard, Predicate predicate) {
    return changed.wait_for(guard, std::chrono::seconds(10), predicate);
}

}  // namespace

extern "C" {

int StartUsbd(int argc, char** argv) {
    const std::string arguments[] = {argv[0], argv[1], argv[2]};
    Record("StartUsbd", {std::to_string(argc), arguments[0], arguments[1], arguments[2]});
    std::unique_lock guard(lock);
    changed.wait(guard, [] { return state.stopped && !state.held; });
    state.stopped = false;
    return 0;
}

void StopUsbd(int orderly) {
    {
        std::lock_guard guard(lock);
        state.stopped = true;
    }
    Record("StopUsbd", {std::to_string(orderly)});
}

void SetUsbdInitDoneNotifCb(Usbd_InitDoneCb callback) {
    Register("SetUsbdInitDoneNotifCb", &FakeUsbd::Callbacks::initDone, callback);
}
void Usbd_SetPostMsgCb(Usbd_PostMsgCb callback) {
    Register("Usbd_SetPostMsgCb", &FakeUsbd::Callbacks::postMsg, callback);
}
void Usbd_SetPostMsgFastCb(Usbd_PostMsgFastCb callback) {
    Register("Usbd_SetPostMsgFastCb", &FakeUsbd::Callbacks::postMsgFast, callback);
}
void Usbd_SetPostHIDOptMsgFastCb(Usbd_PostHIDOptMsgFastCb callback) {
    Register("Usbd_SetPostHIDOptMsgFastCb", &FakeUsbd::Callbacks::postHIDOptMsgFast, callback);
}
void Usbd_SetSendAsyncMsgCb(Usbd_SendAsyncMsgCb callback) {
    Register("Usbd_SetSendAsyncMsgCb", &FakeUsbd::Callbacks::sendAsyncMsg, callback);
}

int Usbd_GetMmfwMsgWaitTimeout() {
    std::lock_guard guard(lock);
    return state.msgWaitTimeout;
}

void Usbd_NotifyUsbVirtualChannelAvailable() {
    Record("Usbd_NotifyUsbVirtualChannelAvailable", {});
}

void Usbd_PostMsgToUsbdPoll(const void* data, uint32_t size, uint32_t headerLength, uint32_t trailer) {
    Record("Usbd_PostMsgToUsbdPoll", {std::to_string(headerLength), std::to_string(trailer)}, data, size);
}

void Usbd_PostHIDOptOperationMsg(const char* data, size_t size) {
    Record("Usbd_PostHIDOptOperationMsg", {}, data, size);
}

void Usbd_SetUsbDeviceFilterEnabledStatus(Bool enabled) {
    Record("Usbd_SetUsbDeviceFilterEnabledStatus", {std::to_string(enabled)});
}

void Usbd_SendAsyncMsgRespCb(Usbd_AsyncFinalRespCb callback, void* context, int status, const void* data,
                             uint32_t size) {
    Record("Usbd_SendAsyncMsgRespCb",
           {std::to_string(reinterpret_cast<uintptr_t>(callback)), std::to_string(reinterpret_cast<uintptr_t>(context)),
            std::to_string(status)},
           data, size);
}

}  // extern "C"

void FakeUsbd::Reset() {
    std::lock_guard guard(lock);
    state = {};
}

std::vector<FakeUsbd::Call> FakeUsbd::Calls() {
    std::lock_guard guard(lock);
    return state.calls;
}

std::vector<std::string> FakeUsbd::Texts() {
    std::lock_guard guard(lock);
    std::vector<std::string> texts;
    for (const Call& call : state.calls) texts.push_back(call.text);
    return texts;
}

size_t FakeUsbd::Count(const std::string& text) {
    std::lock_guard guard(lock);
    size_t count = 0;
    for (const Call& call : state.calls) count += call.text == text;
    return count;
}

FakeUsbd::Callbacks FakeUsbd::Registered() {
    std::lock_guard guard(lock);
    return state.callbacks;
}

bool FakeUsbd::WaitFor(const std::string& text) {
    std::unique_lock guard(lock);
    return WaitUntil(guard, [&] {
        for (const Call& call : state.calls) {
            if (call.text == text) return true;
        }
        return false;
    });
}

std::string FakeUsbd::WaitForStart() {
    std::unique_lock guard(lock);
    std::string text;
    WaitUntil(guard, [&] {
        for (const Call& call : state.calls) {
            if (call.text.starts_with("StartUsbd ")) text = call.text;
        }
        return !text.empty();
    });
    return text;
}

void FakeUsbd::SetMsgWaitTimeout(int milliseconds) {
    std::lock_guard guard(lock);
    state.msgWaitTimeout = milliseconds;
}

void FakeUsbd::HoldStop(bool hold) {
    std::lock_guard guard(lock);
    state.held = hold;
    changed.notify_all();
}

void FakeUsbd::OnCall(const std::string& name, std::function<void()> run) {
    std::lock_guard guard(lock);
    state.hooks[name] = std::move(run);
}
