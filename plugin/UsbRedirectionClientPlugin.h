// The instance of the plug-in for one channel: carries the daemon's messages to the agent and the agent's messages to
// the daemon.
#pragma once

#include <atomic>
#include <memory>

#include "plugin/UsbCommands.h"
#include "plugin/UsbOutboundMsgInfoQueue.h"
#include "plugin/Usbd.h"
#include "rpc/RPCPluginInstance.h"

class UsbRedirectionClient;

// Its manager is gUsbRedirectionClient, which outlives every instance, so that the service's tables need no look-up.
//
// A message that can't be sent is dropped after an ERROR line; nothing is queued or retried and the agent isn't told.
// Refused in the same way, ahead of any message: a size above 32 bits, null data with a size other than 0, a null
// message type or message id.
class UsbRedirectionClientPlugin : public RPCPluginInstance {
public:
    explicit UsbRedirectionClientPlugin(UsbRedirectionClient* manager);

    // Called by the service. The message of OnInvoke and OnDone stays the service's.
    void OnReady() override;
    void OnNotReady() override;
    void OnDone(uint32_t requestId, void* message) override;
    void OnAbort(uint32_t requestId, Bool flag, uint32_t reason) override;
    void OnInvoke(void* message) override;

    // Forwarding operations, called by the daemon's callbacks under gInstanceLock. data is not used after the return.

    // Posts msgType and exactly size bytes of content: the text in data up to its first zero byte, zeros after it. No
    // byte of data beyond size is read.
    void USBRedirectionPostMsg(const char* msgType, size_t size, const char* data);

    // Post the size bytes at data, without a copy. True once the service has accepted the message.
    bool USBRedirectionPostMsgFast(size_t size, const unsigned char* data);
    bool USBRedirectionPostHIDOptMsgFast(size_t size, const unsigned char* data);

    // Sends a request with content as in USBRedirectionPostMsg. Its response goes to callback and context; callback is
    // never called if there is none. Always null.
    void* USBRedirectionSendAsyncMsg(const char* msgType, size_t size, const char* data, Usbd_AsyncFinalRespCb callback,
                                     void* context, const char* msgId);

    // Whether the channel has been ready once. It isn't taken back when the transport is lost.
    bool IsTransportReady() const { return transportReady.load(std::memory_order_relaxed); }

private:
    // Log under signature, that of the forwarding operation.
    bool PostFast(const char* signature, uint32_t command, size_t size, const unsigned char* data);
    bool AddContent(const char* signature, void* message, QSC_RPC_VARIANT* content, const QSC_RPC_BLOB& blob);
    template <typename Command>
    std::unique_ptr<Command> MakeCommand(uint32_t command, void* message);

    UsbClientCommandFactory commandFactory;
    UsbOutboundMsgInfoQueue outboundMsgInfoQueue;
    // Written, and read where the order against the daemon's init report matters, under gUsbdStateLock, so relaxed.
    std::atomic<bool> transportReady{false};
};

// The daemon's callbacks, which reach the current instance through gUsbRedirectionClient. Each runs under gInstanceLock
// from the look-up to the end of its forwarding operation.
extern "C" {

void Usbdlib_PostMsgCb(const char* msgType, size_t size, const char* data) noexcept;
bool Usbdlib_PostMsgFastCb(size_t size, const unsigned char* data) noexcept;
bool Usbdlib_PostHIDOptMsgFastCb(size_t size, const unsigned char* data) noexcept;
void* Usbdlib_SendAsyncMsgCb(const char* msgType, size_t size, const char* data, Usbd_AsyncFinalRespCb callback,
                             void* context, const char* msgId) noexcept;

}  // extern "C"
