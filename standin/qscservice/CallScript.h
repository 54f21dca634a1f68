// What a test decides about calls of the table words, and what it hears of them.
#pragma once

#include <array>
#include <atomic>
#include <concepts>
#include <string>
#include <vector>

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

// One call of a table word: its arguments as text (numbers decimal, pointers as "0x..." or "null", strings as they
// are).
struct Call {
    Op op;
    std::vector<std::string> args;
};

// The script of a process, while one is active. Every table word asks it first.
class CallScript {
public:
    void Fail(Op op, int times);
    void SucceedWith(Op op, Bool result);
    std::vector<Call> Calls() const;
    size_t Count(Op op) const;
    void ClearCalls();

    // Books the call. True when it is to be refused.
    bool Enter(Op op, std::vector<std::string> args);
    Bool SuccessOf(Op op) const;

    static void Activate(CallScript* script);  // null: none
    static CallScript* Active() { return s_active.load(std::memory_order_acquire); }

private:
    static constexpr size_t kOps = static_cast<size_t>(Op::kCount);
    static std::atomic<CallScript*> s_active;  // release/acquire: a script is complete when it is seen

    mutable Mutex m_mutex;  // guards the fields below
    std::vector<Call> m_calls GUARDED_BY(m_mutex);
    std::array<int, kOps> m_failures GUARDED_BY(m_mutex) = {};
    std::array<Bool, kOps> m_success GUARDED_BY(m_mutex) = {};  // 0: TRUE
};

std::string DescribeArgument(const char* text);
std::string DescribeArgument(const void* pointer);
template <std::integral T>
std::string DescribeArgument(T number) {
    return std::to_string(number);
}

// Where a table word begins: true when the script refuses the call.
template <class... Args>
bool Refused(Op op, Args... args) {
    CallScript* script = CallScript::Active();
    return script && script->Enter(op, {DescribeArgument(args)...});
}

// Where a table word with a truth value ends.
inline Bool Answer(Op op, bool succeeded) {
    if (!succeeded) return FALSE;
    const CallScript* script = CallScript::Active();
    return script ? script->SuccessOf(op) : TRUE;
}

}  // namespace qscservice
