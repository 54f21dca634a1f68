// The words and records that cross the boundary to the remoting service. A word is one pointer wide. All functions of
// the boundary are C functions.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/Types.h"

// The service's names of one server connection and of one message channel.
using QscServerID = void*;
using QscMsgChannelID = void*;

enum QSCService_SessionType : int32_t {
    QSC_SESSION_NONE = -1,
    QSC_SESSION_PCOIP = 0,
    QSC_SESSION_STORM = 1,
};

enum QSCService_ConnectionState : int32_t {
    QSC_CONNECTION_UNINITIALIZED = -1,
    QSC_CONNECTION_DISCONNECTED = 0,
    QSC_CONNECTION_PENDING = 1,
    QSC_CONNECTION_CONNECTED = 2,
};

enum QSCService_ChannelState : int32_t {
    QSC_CHANNEL_UNINITIALIZED = -1,
    QSC_CHANNEL_DISCONNECTED = 0,
    QSC_CHANNEL_PENDING = 1,
    QSC_CHANNEL_CONNECTED = 2,
};

enum QSCRPC_ObjectState : int32_t {
    QSC_OBJECT_UNINITIALIZED = -1,
    QSC_OBJECT_DISCONNECTED = 0,
    QSC_OBJECT_PENDING = 1,
    QSC_OBJECT_CONNECTED = 2,
    QSC_OBJECT_SIDE_CHANNEL_PENDING = 3,
    QSC_OBJECT_SIDE_CHANNEL_CONNECTED = 4,
    QSC_OBJECT_PENDING_AND_PEER_OBJ_CREATED = 5,
};

// Which of an instance's two objects a message travels on.
enum class RPCChannelType : int32_t { Control = 0, Data = 1 };

// Flag bits of CreateChannelObject; the side channel bits come back from GetObjectOptions.
inline constexpr uint32_t QSC_OBJECT_FLAG_BASE = 0x01;
inline constexpr uint32_t QSC_OBJECT_FLAG_4 = 0x04;
inline constexpr uint32_t QSC_OBJECT_FLAG_8 = 0x08;
inline constexpr uint32_t QSC_OBJECT_SIDE_CHANNEL_VIRTUAL = 0x10;
inline constexpr uint32_t QSC_OBJECT_SIDE_CHANNEL_TCP = 0x20;
inline constexpr uint32_t QSC_OBJECT_SIDE_CHANNEL_SURGE = 0x40;
inline constexpr uint32_t QSC_OBJECT_SIDE_CHANNEL_MASK = 0x70;

// Types for RequestSideChannel and IsSideChannelAvailable.
enum QSCRPC_SideChannelType : uint32_t {
    QSC_SIDE_CHANNEL_VIRTUAL = 1,
    QSC_SIDE_CHANNEL_TCP = 2,
    QSC_SIDE_CHANNEL_SURGE = 3,
    QSC_SIDE_CHANNEL_QVC_RAW = 4,
};

inline constexpr uint32_t QSC_CONTEXT_OPTION_POST = 1;  // option of SetOption: no answer is expected

// The kinds of value that the framework reads, the numbers of the published VARTYPE constants.
enum QSC_RPC_VariantKind : uint16_t {
    QSC_VT_UI4 = 19,
    QSC_VT_UI8 = 21,
    QSC_VT_LPSTR = 30,
    QSC_VT_BLOB = 65,
};

struct QSC_RPC_BLOB {
    uint32_t size;  // bytes
    const void* data;
};

// A typed value. The service writes vt; what str and blob point to is owned by the variant and lives until it is
// cleared.
struct QSC_RPC_VARIANT {
    uint16_t vt;
    uint16_t reserved[3];
    union {
        char charVal;
        int16_t shortVal;
        uint16_t ushortVal;
        int32_t int32Val;
        uint32_t uint32Val;
        int64_t int64Val;
        uint64_t uint64Val;
        float floatVal;
        double doubleVal;
        char* str;
        QSC_RPC_BLOB blob;
    };
};

// The 16 bytes that name a table of the service, in memory order.
struct QSC_INTERFACE_ID {
    uint8_t bytes[16];
};

// All ids of the service differ in byte 4 only.
constexpr QSC_INTERFACE_ID QSC_MakeInterfaceId(uint8_t nn) {
    return {{0x00, 0xA6, 0x00, 0xA5, nn, 0x00, 0xE2, 0x81, 0x88, 0xC1, 0x29, 0xA7, 0xD3, 0xA9, 0x3A, 0x62}};
}

// Given to the plug-in by value. QueryInterface fills the caller's table for that id; nonzero is success.
struct QSC_SERVICE_QUERY_INTERFACE {
    uintptr_t version;
    Bool (*QueryInterface)(const QSC_INTERFACE_ID* id, void* table);
};

static_assert(offsetof(QSC_RPC_VARIANT, uint64Val) == 8);
static_assert(sizeof(QSC_RPC_BLOB) == 2 * sizeof(void*));
static_assert(sizeof(QSC_SERVICE_QUERY_INTERFACE) == 2 * sizeof(void*));
static_assert(sizeof(void*) != 4 || sizeof(QSC_RPC_VARIANT) == 16);
static_assert(sizeof(void*) != 4 || (sizeof(QSC_RPC_BLOB) == 8 && offsetof(QSC_RPC_BLOB, data) == 4));
