// The record of a message channel as this service fills it.
#pragma once

#include "rpc/QSCServiceTypes.h"

extern "C" {

struct QSCService_MsgChannelInfo {
    uint32_t size;       // of this record in bytes
    Bool peer;           // the channel is the peer's
    QscServerID server;  // the connection that it belongs to, null on a client
    QscMsgChannelID channel;
    char name[64];  // cut if longer, always terminated
};

}  // extern "C"
