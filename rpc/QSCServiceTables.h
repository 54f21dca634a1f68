// The tables of functions exchanged with the remoting service, word by word. A table that the service fills may end
// early in an older version: its later words stay null. Words without a name are never called.
#pragma once

#include "rpc/QSCServiceTypes.h"

extern "C" {

// Callback tables, published to the service. context is the handle that was given with the table, never a pointer.

struct QSCService_ServerNotifySink {
    uintptr_t version;  // 1
    Bool (*QscOnServerConnected)(void* context, QSCService_SessionType type, QscServerID id);
    Bool (*QscOnServerDisconnected)(void* context, QscServerID id);
    Bool (*QscOnServerInstanceCreated)(void* context, QscServerID id, void** instance);
    Bool (*QscOnServerInstanceDestroyed)(void* context, void* instance, QscServerID id);
};

struct QSCService_ChannelNotifySink {
    uintptr_t version;  // 1
    void (*OnConnectionStateChanged)(void* context, QSCService_ConnectionState current,
                                     QSCService_ConnectionState transition, void* reserved);
    void (*OnChannelStateChanged)(void* context, QSCService_ChannelState current, QSCService_ChannelState transition,
                                  void* reserved);
    void (*OnPeerChannelObjectCreated)(void* context, const char* name, void* reserved);
};

// Published for the length of OpenMsgChannel only: the service copies it. What the words a, b and c say is between the
// two users of a message channel and the service.
struct QSCService_MsgChannelNotifySink {
    uintptr_t version;  // 1
    Bool (*QscOnMsgChannelOpened)(void* context, QscMsgChannelID channel);
    void (*unused2)();  // does nothing
    void (*QscOnMsgChannelPeerOpened)(void* context, void* a, QscMsgChannelID peer, void* b, void* c);
};

struct QSCRPC_ObjectNotifySink {
    uintptr_t version;  // 1
    void (*OnMsgInvoke)(void* context, void* hContext, void* reserved);
    void (*OnObjectStateChanged)(void* context, void* reserved);
};

struct QSCRPC_ContextNotifySink {
    uintptr_t version;  // 1
    void (*OnMsgDone)(void* context, uint32_t requestId, void* hContext);
    void (*OnMsgAbort)(void* context, uint32_t requestId, Bool flag, uint32_t reason);
};

// A record of the service, which fills it; only its users look into it.
struct QSCService_MsgChannelInfo;

// Tables of the service. Where 1 is success, no other value is.

struct QSCService_ChannelInterface {
    void* unused0[3];
    struct {
        void (*Poll)();  // delivers what is pending on the thread that initialised the plug-in
        Bool (*RegisterChannelNotifySink)(const QSCService_ChannelNotifySink* sink, void* context, uint32_t* cookie);
        Bool (*UnregisterChannelNotifySink)(uint32_t cookie);
        Bool (*Connect)();
        Bool (*Disconnect)();
        QSCService_ConnectionState (*GetConnectionState)();
    } v1;
    void* unused9;
    Bool (*SwitchToStreamData)(const char* name, void* hChannel, int* fd);  // null in the oldest table
    QSCService_SessionType (*GetSessionType)();
    struct {
        void (*Poll)(uint32_t msWait);  // null in older tables; blocks for up to msWait ms while delivering
    } v3;
    void* unused13[2];
};

struct QSCRPC_ChannelObjectInterface {
    void* unused0;
    Bool (*CreateChannelObject)(const char* name, const QSCRPC_ObjectNotifySink* sink, void* context, uint32_t flags,
                                void** hObject);
    Bool (*DestroyChannelObject)(void* hObject);
    QSCRPC_ObjectState (*GetObjectState)(void* hObject);
    void* unused4;
    Bool (*CreateContext)(void* hObject, void** hContext);
    Bool (*DestroyContext)(void* hContext);
    Bool (*Invoke)(void* hObject, void* hContext, const QSCRPC_ContextNotifySink* sink, void* context);
    Bool (*IsSideChannelAvailable)(uint32_t type);
    Bool (*RequestSideChannel)(void* hObject, uint32_t type, const char* name);
    Bool (*GetObjectOptions)(void* hObject, uint32_t* options);                 // null in older tables
    Bool (*CreateContextEx)(void* hObject, uint32_t options, void** hContext);  // null in older tables
    void* unused12;
};

struct QSCRPC_ChannelContextInterface {
    void* unused0;
    uint32_t (*GetId)(void* hContext);
    uint32_t (*GetCommand)(void* hContext);
    Bool (*SetCommand)(void* hContext, uint32_t command);
    void* unused4[2];
    int (*GetParamCount)(void* hContext);
    Bool (*AppendParam)(void* hContext, const QSC_RPC_VARIANT* value);  // exactly 1 on success
    Bool (*GetParam)(void* hContext, int index, QSC_RPC_VARIANT* value);
    Bool (*AppendNamedParam)(void* hContext, const char* name, const QSC_RPC_VARIANT* value);  // exactly 1 on success
    Bool (*GetNamedParam)(void* hContext, int index, char* name, int nameSize, QSC_RPC_VARIANT* value);
    void* unused11[2];
    int (*GetReturnValCount)(void* hContext);
    Bool (*AppendReturnVal)(void* hContext, const QSC_RPC_VARIANT* value);
    Bool (*GetReturnVal)(void* hContext, int index, QSC_RPC_VARIANT* value);
    void* unused16[2];
    Bool (*SetOption)(void* hContext, uint32_t option, const QSC_RPC_VARIANT* value);
};

struct QSCRPC_VariantInterface {
    void* unused0;
    Bool (*VariantInit)(QSC_RPC_VARIANT* variant);
    void* unused2;
    Bool (*VariantClear)(QSC_RPC_VARIANT* variant);
    Bool (*VariantFromChar)(QSC_RPC_VARIANT* variant, char value);
    Bool (*VariantFromShort)(QSC_RPC_VARIANT* variant, short value);
    Bool (*VariantFromUShort)(QSC_RPC_VARIANT* variant, unsigned short value);
    Bool (*VariantFromInt32)(QSC_RPC_VARIANT* variant, int32_t value);
    Bool (*VariantFromUInt32)(QSC_RPC_VARIANT* variant, uint32_t value);
    Bool (*VariantFromInt64)(QSC_RPC_VARIANT* variant, int64_t value);
    Bool (*VariantFromUInt64)(QSC_RPC_VARIANT* variant, uint64_t value);
    Bool (*VariantFromFloat)(QSC_RPC_VARIANT* variant, float value);
    Bool (*VariantFromDouble)(QSC_RPC_VARIANT* variant, double value);
    Bool (*VariantFromString)(QSC_RPC_VARIANT* variant, const char* value);        // stores a copy
    Bool (*VariantFromBlob)(QSC_RPC_VARIANT* variant, const QSC_RPC_BLOB* value);  // may refer to the caller's bytes
};

struct QSCRPC_StreamDataInterface {
    void* unused[9];
};

struct QSCOverlay_ClientInterface {
    void* unused[26];
};

struct QSCService_ServerInterface {
    void* unused0;
    Bool (*RegisterServerNotifySink)(void* context, const QSCService_ServerNotifySink* sink, void* hMultiServer,
                                     uint32_t* cookie);
    Bool (*UnregisterServerNotifySink)(uint32_t cookie);
    Bool (*StartServer)(void* context, QscServerID id);  // 1 on success
    Bool (*StopServer)(QscServerID id);                  // 1 on success
    Bool (*StopAllServers)(QscServerID id);              // 1 on success
    void* (*GetServerChannel)(QscServerID id);
    int (*GetUniqueSerializedIdSize)(QscServerID id);
    Bool (*GetUniqueSerializedId)(QscServerID id, int size, char* buffer);
    Bool (*IsUniqueSerializedIdOwner)(QscServerID id, const char* serializedId);
    Bool (*OpenMsgChannel)(void* context, QscServerID id, const char* name,
                           const QSCService_MsgChannelNotifySink* sink);
    Bool (*GetMsgChannelInfo)(QscServerID id, QscMsgChannelID channel, QSCService_MsgChannelInfo* info);
    Bool (*CloseMsgChannel)(QscMsgChannelID channel);
    void* unused13;
    Bool (*SendMsgChannel)(QscMsgChannelID channel, void* a, void* b, void* c);
    void* unused15;
};

}  // extern "C"

#define QSC_ASSERT_WORD(table, field, word) static_assert(offsetof(table, field) == (word) * sizeof(void*))

static_assert(sizeof(QSCService_ChannelInterface) == 15 * sizeof(void*));
QSC_ASSERT_WORD(QSCService_ChannelInterface, v1.Poll, 3);
QSC_ASSERT_WORD(QSCService_ChannelInterface, v1.RegisterChannelNotifySink, 4);
QSC_ASSERT_WORD(QSCService_ChannelInterface, v1.GetConnectionState, 8);
QSC_ASSERT_WORD(QSCService_ChannelInterface, SwitchToStreamData, 10);
QSC_ASSERT_WORD(QSCService_ChannelInterface, GetSessionType, 11);
QSC_ASSERT_WORD(QSCService_ChannelInterface, v3.Poll, 12);

static_assert(sizeof(QSCRPC_ChannelObjectInterface) == 13 * sizeof(void*));
QSC_ASSERT_WORD(QSCRPC_ChannelObjectInterface, GetObjectState, 3);
QSC_ASSERT_WORD(QSCRPC_ChannelObjectInterface, CreateContext, 5);
QSC_ASSERT_WORD(QSCRPC_ChannelObjectInterface, Invoke, 7);
QSC_ASSERT_WORD(QSCRPC_ChannelObjectInterface, CreateContextEx, 11);

static_assert(sizeof(QSCRPC_ChannelContextInterface) == 19 * sizeof(void*));
QSC_ASSERT_WORD(QSCRPC_ChannelContextInterface, GetParamCount, 6);
QSC_ASSERT_WORD(QSCRPC_ChannelContextInterface, GetNamedParam, 10);
QSC_ASSERT_WORD(QSCRPC_ChannelContextInterface, GetReturnValCount, 13);
QSC_ASSERT_WORD(QSCRPC_ChannelContextInterface, SetOption, 18);

static_assert(sizeof(QSCRPC_VariantInterface) == 15 * sizeof(void*));
QSC_ASSERT_WORD(QSCRPC_VariantInterface, VariantClear, 3);
QSC_ASSERT_WORD(QSCRPC_VariantInterface, VariantFromBlob, 14);

static_assert(sizeof(QSCRPC_StreamDataInterface) == 9 * sizeof(void*));
static_assert(sizeof(QSCOverlay_ClientInterface) == 26 * sizeof(void*));

static_assert(sizeof(QSCService_ServerInterface) == 16 * sizeof(void*));
QSC_ASSERT_WORD(QSCService_ServerInterface, GetServerChannel, 6);
QSC_ASSERT_WORD(QSCService_ServerInterface, SendMsgChannel, 14);

static_assert(sizeof(QSCService_ServerNotifySink) == 5 * sizeof(void*));
static_assert(sizeof(QSCService_ChannelNotifySink) == 4 * sizeof(void*));
static_assert(sizeof(QSCService_MsgChannelNotifySink) == 4 * sizeof(void*));
static_assert(sizeof(QSCRPC_ObjectNotifySink) == 3 * sizeof(void*));
static_assert(sizeof(QSCRPC_ContextNotifySink) == 3 * sizeof(void*));
