// A daemon under the test's control behind the imports of plugin/Usbd.h: it records what the plug-in calls, in order,
// keeps the callbacks that it is given, and stays inside StartUsbd until it is stopped. One per process; Reset begins a
// new test. Safe on any thread.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "plugin/Usbd.h"

class FakeUsbd {
public:
    struct Call {
        std::string text;            // the function's name and its plain arguments, each after a blank
        std::string bytes;           // the content given
        const void* data = nullptr;  // where it stood
    };

    struct Callbacks {
        Usbd_InitDoneCb initDone = nullptr;
        Usbd_PostMsgCb postMsg = nullptr;
        Usbd_PostMsgFastCb postMsgFast = nullptr;
        Usbd_PostHIDOptMsgFastCb postHIDOptMsgFast = nullptr;
        Usbd_SendAsyncMsgCb sendAsyncMsg = nullptr;
    };

    // Forgets calls, callbacks and the settings below. Not while StartUsbd runs.
    static void Reset();

    static std::vector<Call> Calls();
    static std::vector<std::string> Texts();
    static size_t Count(const std::string& text);
    static Callbacks Registered();

    // Waits until a call with that text has been recorded; false after 10 s.
    static bool WaitFor(const std::string& text);

    // The text of the StartUsbd call, once it has come; empty after 10 s.
    static std::string WaitForStart();

    static void SetMsgWaitTimeout(int milliseconds);

    // While held, StartUsbd outlasts StopUsbd; letting go makes it return if it was stopped.
    static void HoldStop(bool hold);

    // Runs inside the call of that function, after it has been recorded and with no lock held.
    static void OnCall(const std::string& name, std::function<void()> run);
};
