#include "plugin/UsbRedirectionClientPlugin.h"

#include <sys/types.h>

#include <cstring>
#include <utility>

#include "logging/Log.h"
#include "plugin/PluginGlobals.h"
#include "plugin/UsbRedirectionClient.h"
#include "rpc/RPCVariant.h"

namespace {

// Both log under the forwarding operation's signature.

bool CheckContent(const char* signature, size_t size, const void* data) {
    if (!std::in_range<uint32_t>(size)) {
        LOG_AS(signature, Error, "A message of %zu bytes is too large to send.\n", size);
        return false;
    }
    if (!data && size > 0) {
        LOG_AS(signature, Error, "A message of %zu bytes came without its bytes.\n", size);
        return false;
    }
    return true;
}

bool CheckName(const char* signature, const char* what, const char* name) {
    if (name) return true;
    LOG_AS(signature, Error, "A message came without its %s.\n", what);
    return false;
}

// size bytes: the text up to its first zero byte, then zeros.
std::string CopyText(const char* data, size_t size) {
    std::string copy;
    if (data) copy.assign(data, strnlen(data, size));
    copy.resize(size);
    return copy;
}

// Runs forward on the current instance. False if there is none.
template <typename Forward>
bool WithInstance(Forward forward) {
    KxMutexGuard guard(gInstanceLock);
    UsbRedirectionClientPlugin* instance = gUsbRedirectionClient.GetPlugin();
    if (!instance) return false;
    forward(*instance);
    return true;
}

}  // namespace

extern "C" {

void Usbdlib_PostMsgCb(const char* msgType, size_t size, const char* data) noexcept {
    if (!WithInstance([&](auto& instance) { instance.USBRedirectionPostMsg(msgType, size, data); })) {
        LOG(Info, "UsbRedirectionClientPlugin isn't initialized.\n");
    }
}

bool Usbdlib_PostMsgFastCb(size_t size, const unsigned char* data) noexcept {
    bool sent = false;
    if (!WithInstance([&](auto& instance) { sent = instance.USBRedirectionPostMsgFast(size, data); })) {
        LOG(Info, "UsbRedirectionClientPlugin isn't initialized.\n");
    }
    return sent;
}

bool Usbdlib_PostHIDOptMsgFastCb(size_t size, const unsigned char* data) noexcept {
    bool sent = false;
    if (!WithInstance([&](auto& instance) { sent = instance.USBRedirectionPostHIDOptMsgFast(size, data); })) {
        LOG(Info, "UsbRedirectionClientPlugin isn't initialized.\n");
    }
    return sent;
}

void* Usbdlib_SendAsyncMsgCb(const char* msgType, size_t size, const char* data, Usbd_AsyncFinalRespCb callback,
                             void* context, const char* msgId) noexcept {
    if (!WithInstance([&](auto& instance) {
            instance.USBRedirectionSendAsyncMsg(msgType, size, data, callback, context, msgId);
        })) {
        LOG(Info, "UsbRedirectionClientPlugin isn't initialized.\n");
    }
    return nullptr;
}

}  // extern "C"

UsbRedirectionClientPlugin::UsbRedirectionClientPlugin(UsbRedirectionClient* manager)
    : RPCPluginInstance(manager, RefCountOn) {}

template <typename Command>
std::unique_ptr<Command> UsbRedirectionClientPlugin::MakeCommand(uint32_t command, void* message) {
    std::unique_ptr<UsbQSCServiceCommand> made(
        commandFactory.GetUsbCommand(command, gUsbRedirectionClient.GetChannelContextInterface(),
                                     gUsbRedirectionClient.GetVariantInterface(), message));
    auto* wanted = dynamic_cast<Command*>(made.get());
    if (wanted) static_cast<void>(made.release());  // wanted is what made held
    return std::unique_ptr<Command>(wanted);
}

void UsbRedirectionClientPlugin::USBRedirectionPostMsg(const char* msgType, size_t size, const char* data) {
    const char* const signature = __PRETTY_FUNCTION__;
    if (!CheckName(signature, "type", msgType) || !CheckContent(signature, size, data)) return;
    void* message = nullptr;
    if (!CreateMessage(&message, RPCChannelType::Data)) {
        LOG(Error, "Something went wrong while calling CreateMessage.\n");
        return;
    }
    const auto command = MakeCommand<UsbPostMsgClientCommand>(kPostMsgCommand, message);
    if (!command) {
        LOG(Error, "Could not instantiate command %d.\n", static_cast<int>(kPostMsgCommand));
        DestroyMessage(message);
        return;
    }
    command->msgType = msgType;
    command->msgData = CopyText(data, size);
    command->msgSize = size;
    if (!InvokeMessage(command->CreateRequest(), FALSE, RPCChannelType::Data)) {
        LOG(Error, "Invoke message failed. Destroying the message.\n");
        DestroyMessage(message);
    }
}

bool UsbRedirectionClientPlugin::USBRedirectionPostMsgFast(size_t size, const unsigned char* data) {
    return PostFast(__PRETTY_FUNCTION__, kPostMsgFastCommand, size, data);
}

bool UsbRedirectionClientPlugin::USBRedirectionPostHIDOptMsgFast(size_t size, const unsigned char* data) {
    return PostFast(__PRETTY_FUNCTION__, kPostHIDOptMsgFastCommand, size, data);
}

bool UsbRedirectionClientPlugin::PostFast(const char* signature, uint32_t command, size_t size,
                                          const unsigned char* data) {
    if (!CheckContent(signature, size, data)) return false;
    void* message = nullptr;
    if (!CreateMessage(&message, RPCChannelType::Data)) {
        LOG_AS(signature, Error, "Something went wrong while calling CreateMessage.\n");
        return false;
    }
    const bool numbered = gUsbRedirectionClient.GetChannelContextInterface()->SetCommand(message, command) != FALSE;
    if (!numbered) LOG_AS(signature, Error, "Failed to set command %u.\n", command);
    RPCVariant content{RCPtr<RPCManager>(&gUsbRedirectionClient)};
    bool sent = numbered && AddContent(signature, message, &content, {static_cast<uint32_t>(size), data});
    if (sent) {
        LOG_AS(signature, Trace, "Invoke postMsgFast message. Blob size is [%zd].\n", static_cast<ssize_t>(size));
        sent = InvokeMessage(message, FALSE, RPCChannelType::Data);
        if (!sent) LOG_AS(signature, Error, "Invoke message failed. Destroying the message.\n");
    }
    if (!sent) DestroyMessage(message);
    return sent;
}

bool UsbRedirectionClientPlugin::AddContent(const char* signature, void* message, QSC_RPC_VARIANT* content,
                                            const QSC_RPC_BLOB& blob) {
    if (gUsbRedirectionClient.GetVariantInterface()->VariantFromBlob(content, &blob) &&
        gUsbRedirectionClient.GetChannelContextInterface()->AppendParam(message, content) == TRUE) {
        return true;
    }
    LOG_AS(signature, Error, "Failed to add message content.\n");
    return false;
}

void* UsbRedirectionClientPlugin::USBRedirectionSendAsyncMsg(const char* msgType, size_t size, const char* data,
                                                             Usbd_AsyncFinalRespCb callback, void* context,
                                                             const char* msgId) {
    LOG(Trace, "Forwarding SendAsyncMsg to server.\n");
    const char* const signature = __PRETTY_FUNCTION__;
    if (!CheckName(signature, "type", msgType) || !CheckName(signature, "id", msgId)) return nullptr;
    if (!CheckContent(signature, size, data)) return nullptr;
    void* message = nullptr;
    if (!CreateMessage(&message, RPCChannelType::Data)) {
        LOG(Error, "Something went wrong while calling CreateMessage.\n");
        return nullptr;
    }
    const auto command = MakeCommand<UsbSendAsyncMsgClientCommand>(kSendAsyncMsgCommand, message);
    if (!command) {
        LOG(Error, "Failed to instantiate the QSCServiceCommand.\n");
        DestroyMessage(message);
        return nullptr;
    }
    command->msgType = msgType;
    command->msgId = msgId;
    command->msgData = CopyText(data, size);
    command->msgSize = size;
    outboundMsgInfoQueue.AddMsgInfo(msgId, callback, context);
    if (!InvokeMessage(command->CreateRequest(), TRUE, RPCChannelType::Data)) {
        LOG(Error, "Invoke message failed. Destroying the message.\n");
        outboundMsgInfoQueue.RemoveMsgInfo(msgId);
        DestroyMessage(message);
    }
    return nullptr;
}

void UsbRedirectionClientPlugin::OnInvoke(void* message) {
    LOG(Trace, "Received package from peer.\n");
    const uint32_t number = gUsbRedirectionClient.GetChannelContextInterface()->GetCommand(message);
    const auto command = MakeCommand<UsbQSCServiceCommand>(number, message);
    if (!command) {
        LOG(Error, "Failed to instantiate the QSCServiceCommand.\n");
        return;
    }
    if (!command->ParseRequest()) LOG(Error, "Failed to parse message: %d.\n", static_cast<int>(number));
}

void UsbRedirectionClientPlugin::OnDone(uint32_t, void* message) {
    LOG(Trace, "QSCService send message done.\n");
    const uint32_t number = gUsbRedirectionClient.GetChannelContextInterface()->GetCommand(message);
    const auto command = MakeCommand<UsbQSCServiceCommand>(number, message);
    if (!command) {
        LOG(Error, "Failed to instantiate the QSCServiceCommand.\n");
        return;
    }
    command->userData = &outboundMsgInfoQueue;
    if (!command->ParseResponse()) LOG(Error, "Failed to parse message: %d.\n", static_cast<int>(number));
}

void UsbRedirectionClientPlugin::OnReady() {
    if (!gUsbRedirectionClient.IsUsbVChannelEnabled()) return;
    LOG(Info, "Transport is ready now.\n");
    Usbd_NotifyUsbVirtualChannelAvailable();
    UsbRedirectionClient::UsbdInitReport report;
    {
        KxMutexGuard guard(gUsbdStateLock);
        transportReady.store(true, std::memory_order_relaxed);
        report = gUsbRedirectionClient.GetUsbdInitReport();
    }
    if (report.done) QSCUsbRedirectionPlugin_SetUsbdInitDone(report.succeeded ? TRUE : FALSE, report.identity.c_str());
}

void UsbRedirectionClientPlugin::OnNotReady() {
    LOG(Info, "Transport is not ready now.\n");
}

void UsbRedirectionClientPlugin::OnAbort(uint32_t, Bool, uint32_t) {
    LOG(Info, "Message was discarded by the other side.\n");
}
