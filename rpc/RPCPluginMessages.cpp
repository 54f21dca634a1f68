// Messages on their way out, and the book of the requests among them. A fast post passes through CreateMessage and
// InvokeMessage once each and takes no lock but the one under which each holds the manager: the copies of the handles
// and the flags are atomic, and a post leaves count, event and list alone.
#include <algorithm>
#include <optional>

#include "rpc/RPCPluginOperation.h"
#include "rpc/RPCVariant.h"
#include "runtime/StringUtils.h"

namespace {

constexpr int kPendingTextSize = 128;
constexpr uint64 kLongPendingMS = 1001;

const char* PluralEnd(int count) {
    return count == 1 ? "" : "s";
}

}  // namespace

void* RPCPluginInstance::ObjectOf(RPCChannelType type) const {
    switch (type) {
        case RPCChannelType::Control:
            return m_controlSendObj.load(std::memory_order_acquire);
        case RPCChannelType::Data:
            return m_dataSendObj.load(std::memory_order_acquire);
    }
    return nullptr;
}

void* RPCPluginInstance::ObjectForNewMessage(const char* signature, RPCChannelType type) const {
    void* const hObject = ObjectOf(type);
    if (!hObject) {
        LOG_AS(signature, Debug, "Failed to create message (hChannel == NULL)\n");
        return nullptr;
    }
    if (!IsReady()) {
        LOG_AS(signature, Debug, "Failed to create message (not ready)\n");
        return nullptr;
    }
    return hObject;
}

bool RPCPluginInstance::CreateMessage(void** hContext, RPCChannelType type) {
    const Operation operation(kLogTrace, __PRETTY_FUNCTION__, *this);
    if (!operation) return false;
    void* const hObject = ObjectForNewMessage(__PRETTY_FUNCTION__, type);
    if (!hObject) return false;
    if (!operation.manager->m_objectTable.CreateContext(hObject, hContext)) {
        LOG(Debug, "Failed to create message (CreateContext failed)\n");
        return false;
    }
    return true;
}

bool RPCPluginInstance::CreateExtMessage(void** hContext, RPCChannelType type, uint32_t options) {
    const Operation operation(kLogTrace, __PRETTY_FUNCTION__, *this);
    if (!operation) return false;
    if (options == 0) return CreateMessage(hContext, type);
    const auto createContextEx = operation.manager->m_objectTable.CreateContextEx;
    if (!createContextEx) {
        LOG(Error, "Failed to create message (API not available for 0x%x)\n", options);
        return false;
    }
    void* const hObject = ObjectForNewMessage(__PRETTY_FUNCTION__, type);
    if (!hObject) return false;
    if (!createContextEx(hObject, options, hContext)) {
        LOG(Debug, "Failed to create message (CreateContext failed)\n");
        return false;
    }
    return true;
}

bool RPCPluginInstance::GetChannelOptions(RPCChannelType type, uint32_t* options) {
    const Operation operation(kLogTrace, __PRETTY_FUNCTION__, *this);
    if (!operation) return false;
    const auto getObjectOptions = operation.manager->m_objectTable.GetObjectOptions;
    if (!getObjectOptions) {
        LOG(Error, "Failed to get channel options (no API) \n");
        return false;
    }
    if (!options) {
        LOG(Error, "Failed to get channel options (invalid argument) \n");
        return false;
    }
    void* const hObject = ObjectOf(type);
    if (!hObject) {
        LOG(Debug, "Failed to get channel options (hChannel == NULL)\n");
        return false;
    }
    if (!IsReady()) {
        LOG(Debug, "Failed to get channel options (not ready)\n");
        return false;
    }
    if (!getObjectOptions(hObject, options)) {
        LOG(Debug, "Failed to get channel options (GetObjectOptions failed)\n");
        return false;
    }
    return true;
}

bool RPCPluginInstance::DestroyMessage(void* hContext) {
    const Operation operation(kLogTrace, __PRETTY_FUNCTION__, *this);
    if (!operation) return false;
    if (!operation.manager->m_objectTable.DestroyContext(hContext)) {
        LOG(Debug, "Failed to destroy message (DestroyContext failed)\n");
        return false;
    }
    return true;
}

// The count rises before the service has the message, so that an answer, which may come on another thread before Invoke
// returns, always finds it; such an answer leaves the entry of the list behind.
bool RPCPluginInstance::InvokeMessage(void* hContext, Bool expectResponse, RPCChannelType type) {
    Operation operation(kLogTrace, __PRETTY_FUNCTION__, *this);
    if (!operation) return false;
    if (RefusesStreamData(__PRETTY_FUNCTION__, "InvokeMessage is not supported in streamData mode\n")) return false;
    RPCManager& manager = *operation.manager;
    const QSCRPC_ContextNotifySink sink = manager.m_contextSink;
    if (!expectResponse && !SetPostMode(operation.manager, hContext)) {
        LOG(Warn, "Unable to set post mode for qscservice.\n");
    }
    void* const hObject = ObjectOf(type);
    if (!hObject || !IsReady()) {
        LOG(Debug, "Failed to send message (not ready)\n");
        return false;
    }
    char pending[kPendingTextSize];
    pending[0] = '\0';
    UpdatePendingCount(expectResponse ? 1 : 0, LogEnabled(kLogTrace) ? pending : nullptr, sizeof pending);
    const uint32_t requestId = manager.m_contextTable.GetId(hContext);
    std::optional<KxElapsedTimer> sentTimer;
    if (expectResponse) sentTimer.emplace();
    if (!manager.m_objectTable.Invoke(hObject, hContext, &sink, Handle())) {
        LOG(Error, "Failed to send message (Invoke failed)\n");
        if (expectResponse) UpdatePendingCount(-1, nullptr, 0);
        return false;
    }
    if (expectResponse) {
        KxMutexGuard guard(m_mutex);
        m_pendingRequests.push_back({requestId, *sentTimer});
    }
    if (*pending) operation.trace.SetExitMessage(kLogTrace, "%s", pending);
    return true;
}

bool RPCPluginInstance::SetPostMode(const RCPtr<RPCManager>& manager, void* hContext) {
    RPCVariant mode(manager);
    return manager->m_variantTable.VariantFromUInt32(&mode, 1) &&
           manager->m_contextTable.SetOption(hContext, QSC_CONTEXT_OPTION_POST, &mode);
}

int RPCPluginInstance::UpdatePendingCount(int delta, char* text, int textSize) {
    const bool wantsText = text && textSize > 0;
    // The event is in step already.
    if (delta == 0 && !wantsText) return m_pendingCount.load(std::memory_order_relaxed);
    KxMutexGuard guard(m_mutex);
    const int changed = m_pendingCount.load(std::memory_order_relaxed) + delta;
    const int count = std::max(changed, 0);
    if (wantsText && changed >= 0) {
        StringUtils::Snprintf(text, textSize, " (%d message%s pending)", count, PluralEnd(count));
    } else if (wantsText) {
        StringUtils::Snprintf(text, textSize, " (unexpected message. delta: %d)", delta);
    }
    if (count > 0) {
        m_noPendingEvent.Reset();
    } else {
        m_noPendingEvent.Set();
    }
    m_pendingCount.store(count, std::memory_order_relaxed);
    return count;
}

uint64 RPCPluginInstance::OldestPendingMS() {
    KxMutexGuard guard(m_mutex);
    return m_pendingRequests.empty() ? 0 : m_pendingRequests.front().sentTimer.GetTimerMS(KxTimer::Mode::Read, 0);
}

void RPCPluginInstance::CloseRequest(const char* signature, RPCManager& manager, uint32_t requestId) {
    KxMutexGuard guard(m_mutex);
    const auto closed = std::find_if(m_pendingRequests.begin(), m_pendingRequests.end(),
                                     [&](const PendingRequest& request) { return request.requestId == requestId; });
    if (LogEnabled(kLogDebug)) {
        for (auto ahead = m_pendingRequests.begin(); ahead != closed; ++ahead) {
            const uint64 elapsedMS = ahead->sentTimer.GetTimerMS(KxTimer::Mode::Read, 0);
            if (elapsedMS < kLongPendingMS) continue;
            LOG_AS(signature, Debug, "%s(0x%p) - rpcPlugin(0x%p) Request %d still pending sfter %dms\n", manager.m_name,
                   manager.Handle(), Handle(), static_cast<int>(ahead->requestId), static_cast<int>(elapsedMS));
        }
    }
    if (closed != m_pendingRequests.end()) m_pendingRequests.erase(closed);
}

bool RPCPluginInstance::WaitForPendingMessages(uint32_t msTimeout) {
    const Operation operation(kLogInfo, __PRETTY_FUNCTION__, *this);
    if (!operation) return false;
    if (RefusesStreamData(__PRETTY_FUNCTION__, "WaitForPendingMessages is not supported in streamData mode\n")) {
        return false;
    }
    if (operation.manager->WaitForEvent(&m_noPendingEvent, msTimeout)) return true;
    KxMutexGuard guard(m_mutex);
    const int count = m_pendingCount.load(std::memory_order_relaxed);
    LOG(Info, "%d message%s still pending\n", count, PluralEnd(count));
    return false;
}
