// What a test decides about calls of the table words, and what it hears of them.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>

#include "runtime/Types.h"
#include "standin/qscservice/LockGuard.h"

namespace qscservice {

// The words of the tables, by their names.
enum class Op {
    QueryInterface,
    Poll,
    RegisterChannelNotifySink,
    UnregisterChannelNotifySink,
    Connect,
    Disconnect,
    GetConnectionState,
    SwitchToStreamData,
    GetSessionType,
    PollWait,  // Channel.v3.Poll
    CreateChannelObject,
    DestroyChannelObject,
    GetObjectState,
    CreateContext,
    DestroyContext,
    Invoke,
    IsSideChannelAvailable,
    RequestSideChannel,
    GetObjectOptions,
    CreateContextEx,
    GetId,
    GetCommand,
    SetCommand,
    GetParamCount,
    AppendParam,
    GetParam,
    AppendNamedParam,
    GetNamedParam,
    GetReturnValCount,
    AppendReturnVal,
    GetReturnVal,
    SetOption,
    VariantInit,
    VariantClear,
    VariantFrom,  // any of the eleven VariantFrom... words
    RegisterServerNotifySink,
    UnregisterServerNotifySink,
    StartServer,
    StopServer,
    StopAllServers,
    GetServerChannel,
    GetUniqueSerializedIdSize,
    GetUniqueSerializedId,
    IsUniqueSerializedIdOwner,
    OpenMsgChannel,
    GetMsgChannelInfo,
    CloseMsgChannel,
    SendMsgChannel,
    kCount,
};

const char* OpName(Op op);

// The script of a process, while one is active. Every table word asks it first.
class CallScript {
public:
    void Fail(Op op, int times);
    size_t Count(Op op) const;  // calls, refused ones too
    void ClearCalls();

    // Books the call. True when it is to be refused.
    bool Enter(Op op);

    static void Activate(CallScript* script);  // null: none
    static CallScript* Active() { return s_active.load(std::memory_order_acquire); }

private:
    static constexpr size_t kOps = static_cast<size_t>(Op::kCount);
    static std::atomic<CallScript*> s_active;  // release/acquire: a script is complete when it is seen

    mutable Mutex m_mutex;  // guards the fields below
    std::array<size_t, kOps> m_counts GUARDED_BY(m_mutex) = {};
    std::array<int, kOps> m_failures GUARDED_BY(m_mutex) = {};
};

// Where a table word begins: true when the script refuses the call.
inline bool Refused(Op op) {
    CallScript* script = CallScript::Active();
    return script && script->Enter(op);
}

}  // namespace qscservice
