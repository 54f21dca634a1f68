#include "tools/replay/Agent.h"

#include "logging/Log.h"

using qscservice::InboundMessage;
using qscservice::Value;

namespace {

constexpr uint64_t kFastHeaderBytes = 64;
constexpr std::string_view kResponsePrefix = "response:";

enum Command : uint32_t { kPost = 0, kFastPost = 1, kAsyncMessage = 2, kHidPost = 3 };

std::optional<Value> ParamOfKind(InboundMessage& message, int index, uint16_t kind) {
    std::optional<Value> value = message.Param(index);
    return value && value->kind == kind ? value : std::nullopt;
}

std::span<const uint8_t> Bytes(std::string_view text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

}  // namespace

Agent::Agent()
    : end({.onReady = [this] { OnReady(); },
           .onNotReady = {},
           .onMessage = [this](InboundMessage& message) { OnMessage(message); },
           .onDone = {},
           .onAbort = {}}) {}

AgentCounts Agent::Counts() {
    AgentCounts result;
    {
        const qscservice::Lock guard(lock);
        result = counts;
    }
    for (const auto& [command, count] : end.Channel().Counts()) {
        result.repliesCut += count.cut;
        result.undeliverable += count.undeliverable;
    }
    return result;
}

void Agent::OnReady() {
    LOG(Info, "The channel is ready\n");
    if (filtersSent) return;
    filtersSent = true;
    for (const std::string_view type : {"Filter", "UnFilter"}) {
        const bool accepted = end.Post(kPost, {Value(type), Value(Bytes(type))});
        const qscservice::Lock guard(lock);
        CountReply(accepted);
    }
    const qscservice::Lock guard(lock);
    counts.greeted = true;
}

void Agent::OnMessage(InboundMessage& message) {
    LOG(Debug, "Message with command %u\n", message.Command());
    bool understood = false;
    switch (message.Command()) {
        case kPost:
            understood = CountPost(message);
            break;
        case kFastPost:
            understood = ReturnFastPost(message);
            break;
        case kAsyncMessage:
            understood = Answer(message);
            break;
        case kHidPost:
            understood = ReturnHidPost(message);
            break;
    }
    if (understood) return;
    const qscservice::Lock guard(lock);
    counts.malformed++;
}

bool Agent::CountPost(InboundMessage& message) {
    const auto type = ParamOfKind(message, 0, QSC_VT_LPSTR);
    const auto content = ParamOfKind(message, 1, QSC_VT_BLOB);
    if (!type || !content) return false;
    const qscservice::Lock guard(lock);
    Count(&KindCounts::post, content->blob.size());
    return true;
}

bool Agent::ReturnFastPost(InboundMessage& message) {
    const auto content = ParamOfKind(message, 0, QSC_VT_BLOB);
    if (!content) return false;
    const uint64_t size = content->blob.size();
    const uint64_t trailer = size > kFastHeaderBytes ? size - kFastHeaderBytes : 0;
    const bool accepted =
        end.Post(kFastPost, {Value(++runningNumber), Value(kFastHeaderBytes), Value(trailer), *content});
    const qscservice::Lock guard(lock);
    Count(&KindCounts::fast, content->blob.size());
    CountReply(accepted);
    return true;
}

bool Agent::ReturnHidPost(InboundMessage& message) {
    const auto content = ParamOfKind(message, 0, QSC_VT_BLOB);
    if (!content) return false;
    const bool accepted = end.Post(kPost, {Value("HIDOptOperation"), *content});
    const qscservice::Lock guard(lock);
    Count(&KindCounts::hid, content->blob.size());
    CountReply(accepted);
    return true;
}

bool Agent::Answer(InboundMessage& message) {
    const auto type = ParamOfKind(message, 0, QSC_VT_LPSTR);
    const auto id = ParamOfKind(message, 1, QSC_VT_LPSTR);
    const auto content = ParamOfKind(message, 2, QSC_VT_BLOB);
    if (!message.IsRequest() || !type || !id || !content) return false;
    response.assign(kResponsePrefix.begin(), kResponsePrefix.end());
    response.insert(response.end(), content->blob.begin(), content->blob.end());
    if (!message.AddReturnValue(*id) || !message.AddReturnValue(Value(response))) return false;
    const qscservice::Lock guard(lock);
    Count(&KindCounts::async, content->blob.size());
    return true;
}

void Agent::Count(uint64_t KindCounts::*kind, size_t bytes) {
    counts.received.*kind += 1;
    counts.received.bytes += bytes;
}

void Agent::CountReply(bool accepted) {
    (accepted ? counts.repliesAccepted : counts.repliesRefused)++;
}
