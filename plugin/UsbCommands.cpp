#include "plugin/UsbCommands.h"

#include <strings.h>
#include <sys/types.h>

#include "logging/Log.h"
#include "plugin/UsbOutboundMsgInfoQueue.h"
#include "plugin/UsbRedirectionPlugin.h"
#include "plugin/Usbd.h"

namespace {

// A variant of the service for the length of a scope. It stays of no kind if it could not be initialised or read.
class ScopedVariant {
public:
    explicit ScopedVariant(const QSCRPC_VariantInterface* table) : variants(table) {
        initialised = variants->VariantInit(&value) != FALSE;
        if (!initialised) value = {};
    }
    ScopedVariant(const ScopedVariant&) = delete;
    ScopedVariant& operator=(const ScopedVariant&) = delete;
    ~ScopedVariant() {
        if (initialised) variants->VariantClear(&value);
    }

    void ReadParam(QSCServiceCommand& message, int index) {
        if (initialised) message.GetParam(index, &value);
    }
    void ReadReturnVal(QSCServiceCommand& message, int index) {
        if (initialised) message.GetReturnVal(index, &value);
    }
    const QSC_RPC_VARIANT* operator->() const { return &value; }

    bool Holds(QSC_RPC_VariantKind kind) const { return value.vt == kind; }
    bool HoldsString() const { return Holds(QSC_VT_LPSTR) && value.str; }
    bool HoldsBlob() const { return Holds(QSC_VT_BLOB) && (value.blob.data || value.blob.size == 0); }

private:
    const QSCRPC_VariantInterface* const variants;
    QSC_RPC_VARIANT value{};
    bool initialised;
};

struct OperationName {
    const char* text;
    UsbOperationType type;
};

constexpr OperationName kOperationNames[] = {
    {"UnplugDevice", UsbOperationType::UnplugDevice},
    {"PlugInDevice", UsbOperationType::PlugInDevice},
    {"IsUsbAvailable", UsbOperationType::IsUsbAvailable},
    {"ClientStartup", UsbOperationType::ClientStartup},
    {"UemIsReady", UsbOperationType::UemIsReady},
    {"Filter", UsbOperationType::Filter},
    {"UnFilter", UsbOperationType::UnFilter},
    {"HIDOptOperation", UsbOperationType::HIDOptOperation},
};

QSC_RPC_BLOB BlobOf(const std::string& data, size_t size) {
    return {static_cast<uint32_t>(size), data.data()};
}

}  // namespace

void* UsbQSCServiceCommand::CreateRequest() {
    LOG(Info, "The method CreateRequest is not implemented.\n");
    return nullptr;
}

bool UsbQSCServiceCommand::ParseRequest() {
    LOG(Info, "The method ParseRequest is not implemented.\n");
    return false;
}

bool UsbQSCServiceCommand::CreateResponse() {
    LOG(Info, "The method CreateResponse is not implemented.\n");
    return false;
}

bool UsbQSCServiceCommand::ParseResponse() {
    LOG(Info, "The method ParseResponse is not implemented.\n");
    return false;
}

UsbOperationType UsbQSCServiceCommand::GetOperationType(const char* msgType) {
    if (!msgType) return UsbOperationType::None;
    for (const OperationName& name : kOperationNames) {
        if (strcasecmp(name.text, msgType) == 0) return name.type;
    }
    return UsbOperationType::None;
}

UsbPostMsgClientCommand::UsbPostMsgClientCommand(const QSCRPC_ChannelContextInterface* channelContext,
                                                 const QSCRPC_VariantInterface* variant, void* hContext)
    : UsbQSCServiceCommand(channelContext, variant, hContext) {
    SetCommand(kPostMsgCommand);
}

void* UsbPostMsgClientCommand::CreateRequest() {
    if (!AddParam(msgType.c_str())) {
        LOG(Error, "Failed to add message type.\n");
        return nullptr;
    }
    const QSC_RPC_BLOB content = BlobOf(msgData, msgSize);
    if (!AddParam(&content)) {
        LOG(Error, "Failed to add message content.\n");
        return nullptr;
    }
    return m_hContext;
}

bool UsbPostMsgClientCommand::ParseRequest() {
    if (const uint32_t command = GetCommand(); command != kPostMsgCommand) {
        LOG(Error, "Unexpected command received: %u.\n", command);
        return false;
    }
    ScopedVariant type(m_variant);
    ScopedVariant content(m_variant);
    type.ReadParam(*this, 0);
    if (!type.HoldsString()) {
        LOG(Error, "Failed to get message type at index 0.\n");
        return false;
    }
    content.ReadParam(*this, 1);
    if (!content.HoldsBlob()) {
        LOG(Error, "Failed to get message blob at index 1.\n");
        return false;
    }
    const std::string data(static_cast<const char*>(content->blob.data), content->blob.size);
    switch (GetOperationType(type->str)) {
        case UsbOperationType::Filter:
        case UsbOperationType::UnFilter: {
            const Bool enabled = GetFilterMsgType(type->str) == FilterMsgType::Filter ? TRUE : FALSE;
            LOG(Info, "The filter status from agent is %s.\n", enabled ? "enabled" : "disabled");
            QSCUsbRedirectionPlugin_SetUsbdDevicesFilterStatus(enabled);
            Usbd_SetUsbDeviceFilterEnabledStatus(enabled);
            return true;
        }
        case UsbOperationType::HIDOptOperation:
            Usbd_PostHIDOptOperationMsg(data.data(), data.size());
            return true;
        default:
            LOG(Error, "Unsupported operation type (%s) from agent.\n", type->str);
            return false;
    }
}

FilterMsgType UsbPostMsgClientCommand::GetFilterMsgType(const char* msgType) {
    switch (GetOperationType(msgType)) {
        case UsbOperationType::Filter:
            return FilterMsgType::Filter;
        case UsbOperationType::UnFilter:
            return FilterMsgType::UnFilter;
        default:
            LOG(Error, "Unsupported filter msg type(%s) from agent.\n", msgType ? msgType : "");
            return FilterMsgType::None;
    }
}

UsbPostMsgFastClientCommand::UsbPostMsgFastClientCommand(const QSCRPC_ChannelContextInterface* channelContext,
                                                         const QSCRPC_VariantInterface* variant, void* hContext)
    : UsbQSCServiceCommand(channelContext, variant, hContext) {
    SetCommand(kPostMsgFastCommand);
}

void* UsbPostMsgFastClientCommand::CreateRequest() {
    const QSC_RPC_BLOB content = BlobOf(msgData, msgSize);
    if (!AddParam(&content)) {
        LOG(Error, "Failed to add message content.\n");
        return nullptr;
    }
    LOG(Info, "PostMsgFast message: Blob size is [%zd], Blob data is [%s]\n", static_cast<ssize_t>(msgSize),
        msgData.c_str());
    return m_hContext;
}

bool UsbPostMsgFastClientCommand::ParseRequest() {
    if (const uint32_t command = GetCommand(); command != kPostMsgFastCommand) {
        LOG(Error, "Unexpected command received: %u.\n", command);
        return false;
    }
    ScopedVariant queueId(m_variant);
    ScopedVariant headerLength(m_variant);
    ScopedVariant trailer(m_variant);
    ScopedVariant content(m_variant);
    queueId.ReadParam(*this, 0);
    if (!queueId.Holds(QSC_VT_UI4)) {
        LOG(Error, "Failed to get param at index 0.\n");
        return false;
    }
    LOG(Trace, "Message queue id is [%u].\n", queueId->uint32Val);
    headerLength.ReadParam(*this, 1);
    if (!headerLength.Holds(QSC_VT_UI8)) {
        LOG(Error, "Failed to get param at index 1.\n");
        return false;
    }
    LOG(Trace, "Header length is [%llu].\n", static_cast<unsigned long long>(headerLength->uint64Val));
    trailer.ReadParam(*this, 2);
    if (!trailer.Holds(QSC_VT_UI8)) {
        LOG(Error, "Failed to get param at index 2.\n");
        return false;
    }
    LOG(Trace, "Trailer is [%llu].\n", static_cast<unsigned long long>(trailer->uint64Val));
    content.ReadParam(*this, 3);
    if (!content.HoldsBlob()) {
        LOG(Error, "Failed to get param at index 3.\n");
        return false;
    }
    LOG(Trace, "Blob size is [%u].\n", content->blob.size);
    Usbd_PostMsgToUsbdPoll(content->blob.data, content->blob.size, static_cast<uint32_t>(headerLength->uint64Val),
                           static_cast<uint32_t>(trailer->uint64Val));
    return true;
}

UsbSendAsyncMsgClientCommand::UsbSendAsyncMsgClientCommand(const QSCRPC_ChannelContextInterface* channelContext,
                                                           const QSCRPC_VariantInterface* variant, void* hContext)
    : UsbQSCServiceCommand(channelContext, variant, hContext) {
    SetCommand(kSendAsyncMsgCommand);
}

void* UsbSendAsyncMsgClientCommand::CreateRequest() {
    if (!AddParam(msgType.c_str())) {
        LOG(Error, "Failed to add message type.\n");
        return nullptr;
    }
    if (!AddParam(msgId.c_str())) {
        LOG(Error, "Failed to add message Id.\n");
        return nullptr;
    }
    const QSC_RPC_BLOB content = BlobOf(msgData, msgSize);
    if (!AddParam(&content)) {
        LOG(Error, "Failed to add message content.\n");
        return nullptr;
    }
    LOG(Trace, "Send Async message: Type is [%s], Blob size is [%zd].\n", msgType.c_str(),
        static_cast<ssize_t>(msgSize));
    return m_hContext;
}

bool UsbSendAsyncMsgClientCommand::ParseResponse() {
    if (const uint32_t command = GetCommand(); command != kSendAsyncMsgCommand) {
        LOG(Error, "Unexpected command received: %u.\n", command);
        return false;
    }
    if (const int count = GetReturnValCount(); count != 2) {
        LOG(Error, "Unexpected return value number: %d.\n", count);
        return false;
    }
    ScopedVariant id(m_variant);
    ScopedVariant content(m_variant);
    id.ReadReturnVal(*this, 0);
    if (!id.HoldsString()) {
        LOG(Error, "Failed to get param at index 0.\n");
        return false;
    }
    content.ReadReturnVal(*this, 1);
    if (!content.HoldsBlob()) {
        LOG(Error, "Failed to get param at index 1.\n");
        return false;
    }
    if (!userData) {
        LOG(Error, "The Usb outbound message info queue is not available.\n");
        return false;
    }
    Usbd_AsyncFinalRespCb callback = nullptr;
    void* context = nullptr;
    if (!static_cast<UsbOutboundMsgInfoQueue*>(userData)->TakeMsgInfo(id->str, &callback, &context)) {
        LOG(Error, "Failed to get the specified message: %s.\n", id->str);
        return false;
    }
    if (!callback) {
        LOG(Error, "Usbd callback API can not be NULL.\n");
        return false;
    }
    LOG(Trace, "Prepare to callback to usbd.\n");
    Usbd_SendAsyncMsgRespCb(callback, context, 0, content->blob.data, content->blob.size);
    return true;
}

UsbQSCServiceCommand* UsbClientCommandFactory::GetUsbCommand(uint32_t command,
                                                             const QSCRPC_ChannelContextInterface* channelContext,
                                                             const QSCRPC_VariantInterface* variant, void* message) {
    switch (command) {
        case kPostMsgCommand:
            return new UsbPostMsgClientCommand(channelContext, variant, message);
        case kPostMsgFastCommand:
            return new UsbPostMsgFastClientCommand(channelContext, variant, message);
        case kSendAsyncMsgCommand:
            return new UsbSendAsyncMsgClientCommand(channelContext, variant, message);
        default:
            LOG(Error, "Unknown command [%u].\n", command);
            return nullptr;
    }
}
