// Texts of the service's states, for log lines. An unknown value is written into a buffer of the calling thread that
// the next unknown value overwrites.
#pragma once

#include "rpc/QSCServiceTypes.h"

const char* QSCService_StateText(QSCService_ConnectionState state);
const char* QSCService_StateText(QSCService_ChannelState state);
const char* QSCService_StateText(QSCRPC_ObjectState state);
const char* RPCChannelTypeText(RPCChannelType type);
