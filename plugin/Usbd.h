// What the plug-in imports from the USB daemon's library, libvelmora-usbd.so. The daemon has no process of its own: it
// runs inside StartUsbd, on a thread that the plug-in gives it, and calls back on threads of its own.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/Types.h"

extern "C" {

// Result of the daemon's initialisation: 0 is success, any other value failure.
using UsbdInitResult = int32_t;

// The daemon's callback for the final response of an asynchronous message. Opaque here: stored and handed back.
using Usbd_AsyncFinalRespCb = void (*)();

using Usbd_InitDoneCb = void (*)(UsbdInitResult result);

// data is text of size bytes; msgType and msgId are zero-terminated. All memory belongs to the daemon and is valid for
// the length of the call.
using Usbd_PostMsgCb = void (*)(const char* msgType, size_t size, const char* data);
using Usbd_PostMsgFastCb = bool (*)(size_t size, const unsigned char* data);
using Usbd_PostHIDOptMsgFastCb = bool (*)(size_t size, const unsigned char* data);
using Usbd_SendAsyncMsgCb = void* (*)(const char* msgType, size_t size, const char* data,
                                      Usbd_AsyncFinalRespCb callback, void* context, const char* msgId);

// Runs the daemon on the calling thread and returns when it has stopped. argv: program name, the startup
// argument for the virtual channel as it came ("TRUE" in any case of letters when it is used), identity string. The
// strings stay valid until it returns.
int StartUsbd(int argc, char** argv);

// Makes StartUsbd return; callable from any other thread. orderly is 1 for a daemon that reported success, else 0.
void StopUsbd(int orderly);

// Registers the function that the daemon calls once its initialisation has ended.
void SetUsbdInitDoneNotifCb(Usbd_InitDoneCb callback);

// Register where the daemon's messages go. Called before StartUsbd; without them the daemon's traffic takes a channel
// of its own.
void Usbd_SetPostMsgCb(Usbd_PostMsgCb callback);
void Usbd_SetPostMsgFastCb(Usbd_PostMsgFastCb callback);
void Usbd_SetPostHIDOptMsgFastCb(Usbd_PostHIDOptMsgFastCb callback);
void Usbd_SetSendAsyncMsgCb(Usbd_SendAsyncMsgCb callback);

// The time in milliseconds that the daemon may wait for a message of its own channel.
int Usbd_GetMmfwMsgWaitTimeout();

// Tells the daemon that the virtual channel can carry traffic.
void Usbd_NotifyUsbVirtualChannelAvailable();

// Give the daemon what came from the agent. data is valid for the length of the call only.
void Usbd_PostMsgToUsbdPoll(const void* data, uint32_t size, uint32_t headerLength, uint32_t trailer);
void Usbd_PostHIDOptOperationMsg(const char* data, size_t size);
void Usbd_SetUsbDeviceFilterEnabledStatus(Bool enabled);
void Usbd_SendAsyncMsgRespCb(Usbd_AsyncFinalRespCb callback, void* context, int status, const void* data,
                             uint32_t size);

}  // extern "C"
