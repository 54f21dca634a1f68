#include "rpc/QSCServiceText.h"

#include <cstdio>

namespace {

thread_local char unknownText[32];

const char* UnknownText(const char* format, int32_t value) {
    std::snprintf(unknownText, sizeof unknownText, format, value);
    return unknownText;
}

// The states that connections, channels and objects share; null for any other.
const char* CommonStateText(int32_t state) {
    switch (state) {
        case -1:
            return "UNINITIALIZED";
        case 0:
            return "DISCONNECTED";
        case 1:
            return "PENDING";
        case 2:
            return "CONNECTED";
        default:
            return nullptr;
    }
}

const char* LinkStateText(int32_t state) {
    const char* text = CommonStateText(state);
    return text ? text : UnknownText("unknown%d", state);
}

}  // namespace

const char* QSCService_StateText(QSCService_ConnectionState state) {
    return LinkStateText(state);
}

const char* QSCService_StateText(QSCService_ChannelState state) {
    return LinkStateText(state);
}

const char* QSCService_StateText(QSCRPC_ObjectState state) {
    switch (state) {
        case QSC_OBJECT_SIDE_CHANNEL_PENDING:
            return "SIDE_CHANNEL_PENDING";
        case QSC_OBJECT_SIDE_CHANNEL_CONNECTED:
            return "SIDE_CHANNEL_CONNECTED";
        case QSC_OBJECT_PENDING_AND_PEER_OBJ_CREATED:
            return "PENDING_AND_PEER_OBJ_CREATED";
        default:
            break;
    }
    const char* text = CommonStateText(state);
    return text ? text : UnknownText("unknown[%d]", state);
}

const char* RPCChannelTypeText(RPCChannelType type) {
    switch (type) {
        case RPCChannelType::Control:
            return "CONTROL";
        case RPCChannelType::Data:
            return "DATA";
    }
    return UnknownText("unknown%d", static_cast<int32_t>(type));
}
