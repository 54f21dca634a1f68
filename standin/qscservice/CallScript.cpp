#include "standin/qscservice/CallScript.h"

#include <algorithm>
#include <cstdio>

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

void CallScript::SucceedWith(Op op, Bool result) {
    Lock lock(m_mutex);
    m_success[static_cast<size_t>(op)] = result;
}

std::vector<Call> CallScript::Calls() const {
    Lock lock(m_mutex);
    return m_calls;
}

size_t CallScript::Count(Op op) const {
    Lock lock(m_mutex);
    return static_cast<size_t>(
        std::count_if(m_calls.begin(), m_calls.end(), [op](const Call& c) { return c.op == op; }));
}

void CallScript::ClearCalls() {
    Lock lock(m_mutex);
    m_calls.clear();
}

bool CallScript::Enter(Op op, std::vector<std::string> args) {
    Lock lock(m_mutex);
    m_calls.push_back({op, std::move(args)});
    int& failures = m_failures[static_cast<size_t>(op)];
    if (failures == 0) return false;
    --failures;
    return true;
}

Bool CallScript::SuccessOf(Op op) const {
    Lock lock(m_mutex);
    const Bool success = m_success[static_cast<size_t>(op)];
    return success != 0 ? success : TRUE;
}

void CallScript::Activate(CallScript* script) {
    s_active.store(script, std::memory_order_release);
}

std::string DescribeArgument(const char* text) {
    return text ? text : "null";
}

std::string DescribeArgument(const void* pointer) {
    if (!pointer) return "null";
    char text[2 * sizeof(void*) + 3];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
}

}  // namespace qscservice
