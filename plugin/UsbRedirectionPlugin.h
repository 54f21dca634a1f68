// What libusbRedirectionClient.so exports: six entry points for the remoting service that loads it and four for the
// embedding client in the same process. All are plain C functions and throw nothing.
//
// Calling order: QSCService_PluginSetStartupArgs, QSCService_PluginInit, QSCUsbRedirectionPlugin_Init (before the
// daemon can have finished its start), QSCService_PluginCreateInstance; at the end QSCService_PluginDestroyInstance,
// QSCService_PluginExit, QSCUsbRedirectionPlugin_Exit. The exit consumes the startup arguments, so that each new round
// begins with new ones. SetStartupArgs, Init and Exit must not overlap each other.
#pragma once

#include "rpc/QSCServiceTypes.h"

#define USB_REDIRECTION_EXPORT __attribute__((visibility("default")))

extern "C" {

// Callbacks of the embedding client. They come on threads of the daemon and of the service; their result is handed
// back to whoever reported.

// The daemon's initialisation has ended. pid is the identity under which the daemon runs, "desktop@process", or empty
// if it failed; it is valid for the length of the call. The plug-in may hold its daemon state lock across the call: do
// not wait here for a thread that is in one of the functions below. Repeated each time the channel gets ready again.
using RMCControlSetUsbdInitDone = Bool (*)(const char* pid);

// The agent has reported whether device filtering is enabled.
using RMCControlSetUsbdDevicesFilterStatus = Bool (*)(Bool enabled);

// Provided by the embedding client, filled by QSCUsbRedirectionPlugin_Init.
struct QSCUsbRedirectionPluginDispatch {
    uint32_t version;     // 1
    void (*startUsbd)();  // starts the daemon, once until the next exit; needs startup arguments
};

// Takes the startup arguments: "key,value,key,value", in which each byte other than an ASCII letter or digit is a slash
// and two hexadecimal digits. FALSE only for null. What can be read of a malformed string is taken; a later call
// changes only the arguments that it carries.
USB_REDIRECTION_EXPORT Bool QSCService_PluginSetStartupArgs(const char* args) noexcept;

// Copies the token "UsbRedirection", cut to size - 1 characters, into buffer and fills the rest of its size bytes with
// zeros. A null buffer or a size below 1: nothing is written, FALSE.
USB_REDIRECTION_EXPORT Bool QSCService_PluginGetTokenName(char* buffer, int size) noexcept;

// Starts the log, binds to the service and starts the daemon if the startup arguments ask for it. Always TRUE: a
// plug-in that could not bind refuses QSCService_PluginCreateInstance.
USB_REDIRECTION_EXPORT Bool QSCService_PluginInit(QSC_SERVICE_QUERY_INTERFACE queryInterface) noexcept;

// Stops the daemon, waiting for it without limit, then the log. Always TRUE.
USB_REDIRECTION_EXPORT Bool QSCService_PluginExit() noexcept;

// Makes the instance for hChannel, the service's channel, and stores its handle in *instance.
USB_REDIRECTION_EXPORT Bool QSCService_PluginCreateInstance(void* hChannel, void** instance) noexcept;

// Disconnects and drops the instance with that handle. Waits for a message that is just being forwarded.
USB_REDIRECTION_EXPORT Bool QSCService_PluginDestroyInstance(void* instance) noexcept;

// Stores both callbacks, either of which may be null, and fills dispatch if it isn't null. Always TRUE.
USB_REDIRECTION_EXPORT Bool QSCUsbRedirectionPlugin_Init(
    RMCControlSetUsbdInitDone setUsbdInitDone, RMCControlSetUsbdDevicesFilterStatus setUsbdDevicesFilterStatus,
    QSCUsbRedirectionPluginDispatch* dispatch) noexcept;

// Forgets both callbacks. One that has begun may still be running. Always TRUE.
USB_REDIRECTION_EXPORT Bool QSCUsbRedirectionPlugin_Exit() noexcept;

// Calls the embedding client's callback, with pid on success and with an empty text otherwise, and returns its result;
// FALSE and an ERROR line without one.
USB_REDIRECTION_EXPORT Bool QSCUsbRedirectionPlugin_SetUsbdInitDone(Bool succeeded, const char* pid) noexcept;

// Calls the embedding client's callback and returns its result; FALSE and an ERROR line without one.
USB_REDIRECTION_EXPORT Bool QSCUsbRedirectionPlugin_SetUsbdDevicesFilterStatus(Bool enabled) noexcept;

}  // extern "C"
