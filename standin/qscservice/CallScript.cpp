#include "standin/qscservice/CallScript.h"

#include <iterator>

namespace qscservice {

std::atomic<CallScript*> CallScript::s_active{nullptr};

const char* OpName(Op op) {
    static constexpr const char* kNames[] = {
        "QueryInterface",
        "Poll",
        "RegisterChannelNotifySink",
        "UnregisterChannelNotifySink",
        "Connect",
        "Disconnect",
        "GetConnectionState",
        "SwitchToStreamData",
        "GetSessionType",
        "PollWait",
        "CreateChannelObject",
        "DestroyChannelObject",
        "GetObjectState",
        "CreateContext",
        "DestroyContext",
        "Invoke",
        "IsSideChannelAvailable",
        "RequestSideChannel",
        "GetObjectOptions",
        "CreateContextEx",
        "GetId",
        "GetCommand",
        "SetCommand",
        "GetParamCount",
        "AppendParam",
        "GetParam",
        "AppendNamedParam",
        "GetNamedParam",
        "GetReturnValCount",
        "AppendReturnVal",
        "GetReturnVal",
        "SetOption",
        "VariantInit",
        "VariantClear",
        "VariantFrom",
        "RegisterServerNotifySink",
        "UnregisterServerNotifySink",
        "StartServer",
        "StopServer",
        "StopAllServers",
        "GetServerChannel",
        "GetUniqueSerializedIdSize",
        "GetUniqueSerializedId",
        "IsUniqueSerializedIdOwner",
        "OpenMsgChannel",
        "GetMsgChannelInfo",
        "CloseMsgChannel",
        "SendMsgChannel",
    };
    static_assert(std::size(kNames) == static_cast<size_t>(Op::kCount));
    return op < Op::kCount ? kNames[static_cast<size_t>(op)] : "unknown";
}

void CallScript::Fail(Op op, int times) {
    Lock lock(m_mutex);
    m_failures[static_cast<size_t>(op)] = times;
}

size_t CallScript::Count(Op op) const {
    Lock lock(m_mutex);
    return m_counts[static_cast<size_t>(op)];
}

void CallScript::ClearCalls() {
    Lock lock(m_mutex);
    m_counts = {};
}

bool CallScript::Enter(Op op) {
    Lock lock(m_mutex);
    ++m_counts[static_cast<size_t>(op)];
    int& failures = m_failures[static_cast<size_t>(op)];
    if (failures == 0) return false;
    --failures;
    return true;
}

void CallScript::Activate(CallScript* script) {
    s_active.store(script, std::memory_order_release);
}

}  // namespace qscservice
