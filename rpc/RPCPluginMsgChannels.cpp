// The other ways to the peer: message channels, the ids of server connections, and the switch to stream data.
#include <algorithm>
#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "rpc/HandleWord.h"
#include "rpc/MsgChannelId.h"
#include "rpc/RPCPluginOperation.h"
#include "runtime/UserDataMap.h"

namespace {

using MsgChannelMap = UserDataMap<WkPtr<MsgChannelId>>;

// Never destroyed: a callback may be late.
MsgChannelMap& MsgChannels() {
    static MsgChannelMap& map = *new MsgChannelMap;
    return map;
}

void IgnoreMsgChannelEvent() {}

}  // namespace

MsgChannelId::MsgChannelId(const char* name, RPCPluginInstance* instance)
    : m_name(name ? name : ""), m_rpcPlugin(instance) {
    // A failed allocation constructs nothing. NOLINTNEXTLINE(clang-analyzer-core.NullDereference)
    m_handle = MsgChannels().Add(WkPtr<MsgChannelId>(this));
}

MsgChannelId::~MsgChannelId() {
    MsgChannels().Erase(m_handle);
}

RCPtr<MsgChannelId> MsgChannelId::FindByHandle(void* handle) {
    return MsgChannels().Find(WordToHandle(handle)).Lock();
}

void* MsgChannelId::Handle() const {
    return HandleToWord(m_handle);
}

void MsgChannelId::TakeOpenReference() {
    AddRef();
    m_heldOpen.store(true, std::memory_order_release);
}

void MsgChannelId::DropOpenReference() {
    if (m_heldOpen.exchange(false, std::memory_order_acq_rel)) Release();
}

void MsgChannelId::SetOpened(QscMsgChannelID id) {
    m_msgChannelId.store(id, std::memory_order_release);
    m_opened.store(true, std::memory_order_release);
}

void* RPCPluginInstance::OpenMsgChannel(const char* name) {
    const RCPtr<RPCManager> manager = m_rpcManager.Lock();
    FUNCTION_TRACE(Info, "%s(0x%p) - rpcPlugin(0x%p)", manager ? manager->m_name : "",
                   manager ? manager->Handle() : nullptr, Handle());
    const RCPtr<MsgChannelId> channel(new (std::nothrow) MsgChannelId(name, this));
    if (!channel || !manager) {
        LOG(Error, "Out of memory.\n");
        return nullptr;
    }
    const auto openMsgChannel = manager->m_serverTable.OpenMsgChannel;
    if (!openMsgChannel) return nullptr;
    channel->TakeOpenReference();
    const QSCService_MsgChannelNotifySink sink = {1, QscOnMsgChannelOpened, IgnoreMsgChannelEvent,
                                                  QscOnMsgChannelPeerOpened};
    if (!openMsgChannel(channel->Handle(), m_hServerId, name, &sink)) {
        LOG(Error, "OpenMsgChannel failed.\n");
        channel->DropOpenReference();
        return nullptr;
    }
    LOG(Info, "OpenMsgChannel succeed [0x%p].", channel->Handle());
    if (!channel->Handle()) channel->DropOpenReference();
    return channel->Handle();
}

Bool RPCPluginInstance::QscOnMsgChannelOpened(void* context, QscMsgChannelID id) noexcept {
    const RCPtr<MsgChannelId> channel = MsgChannelId::FindByHandle(context);
    if (!channel) return FALSE;
    const RCPtr<RPCPluginInstance> instance = channel->Instance();
    LOG(Debug, "MsgChannel[0x%p] is opened.\n", context);
    channel->SetOpened(id);
    if (!instance) return FALSE;
    instance->OnMsgChannelReady(context, channel->Name().c_str());
    return TRUE;
}

// A peer stays known from its first report on; one entry for each is enough.
void RPCPluginInstance::QscOnMsgChannelPeerOpened(void* context, void* a, QscMsgChannelID peer, void* b,
                                                  void* c) noexcept {
    const RCPtr<MsgChannelId> channel = MsgChannelId::FindByHandle(context);
    const RCPtr<RPCPluginInstance> instance = channel ? channel->Instance() : RCPtr<RPCPluginInstance>();
    if (!instance) return;
    {
        KxMutexGuard guard(instance->m_stateMutex);
        std::vector<QscMsgChannelID>& peers = instance->m_peerMsgChannels;
        if (std::find(peers.begin(), peers.end(), peer) == peers.end()) peers.push_back(peer);
    }
    instance->OnMsgChannelPeerOpened(context, a, peer, b, c);
}

bool RPCPluginInstance::IsPeerMsgChannel(QscMsgChannelID id) {
    KxMutexGuard guard(m_stateMutex);
    return std::find(m_peerMsgChannels.begin(), m_peerMsgChannels.end(), id) != m_peerMsgChannels.end();
}

bool RPCPluginInstance::CloseMsgChannel(void* handle) {
    const Operation operation(kLogInfo, __PRETTY_FUNCTION__, *this);
    const RCPtr<MsgChannelId> channel = MsgChannelId::FindByHandle(handle);
    if (!channel) return false;
    channel->SetClosed();
    const auto closeMsgChannel = operation ? operation.manager->m_serverTable.CloseMsgChannel : nullptr;
    const bool closed = closeMsgChannel && closeMsgChannel(channel->Id()) == 1;
    channel->DropOpenReference();
    return closed;
}

bool RPCPluginInstance::SendMsgChannel(void* handle, void* a, void* b, void* c) {
    const Operation operation(kLogTrace, __PRETTY_FUNCTION__, *this);
    const RCPtr<MsgChannelId> channel = MsgChannelId::FindByHandle(handle);
    if (!operation || !channel) return false;
    const auto sendMsgChannel = operation.manager->m_serverTable.SendMsgChannel;
    return sendMsgChannel && sendMsgChannel(channel->Id(), a, b, c) == 1;
}

bool RPCPluginInstance::IsMsgChannelOpened(void* handle) {
    const Operation operation(kLogTrace, __PRETTY_FUNCTION__, *this);
    const RCPtr<MsgChannelId> channel = MsgChannelId::FindByHandle(handle);
    return channel && channel->IsOpened();
}

bool RPCPluginInstance::GetMsgChannelInfo(QscMsgChannelID id, QSCService_MsgChannelInfo* info) {
    const Operation operation(kLogInfo, __PRETTY_FUNCTION__, *this);
    if (!operation) return false;
    if (IsPeerMsgChannel(id)) {
        LOG(Trace, "Get peer [0x%p] info.\n", id);
    } else {
        if (const RCPtr<MsgChannelId> channel = MsgChannelId::FindByHandle(id)) {
            if (!channel->Id()) {
                LOG(Warn, "Please wait for OnMsgChannelReady.\n");
                return false;
            }
            id = channel->Id();
        }
        LOG(Trace, "Get its own msgChannel[0x%p] info.\n", id);
    }
    const auto getMsgChannelInfo = operation.manager->m_serverTable.GetMsgChannelInfo;
    return getMsgChannelInfo && getMsgChannelInfo(m_hServerId, id, info) == 1;
}

int RPCPluginInstance::GetUniqueSerializedIdSize() {
    const Operation operation(kLogInfo, __PRETTY_FUNCTION__, *this);
    if (!operation) return 0;
    const auto getSize = operation.manager->m_serverTable.GetUniqueSerializedIdSize;
    if (!getSize) {
        LOG(Warn, "GetUniqueSerializedIdSize API is not available.\n");
        return 0;
    }
    const int size = getSize(m_hServerId);
    LOG(Debug, "Server 0x%p id size is %d.\n", m_hServerId, size);
    return size;
}

Bool RPCPluginInstance::GetUniqueSerializedId(int size, char* buffer) {
    const Operation operation(kLogInfo, __PRETTY_FUNCTION__, *this);
    if (!operation) return FALSE;
    const auto getId = operation.manager->m_serverTable.GetUniqueSerializedId;
    if (!getId) {
        LOG(Warn, "GetUniqueSerializedId API is not available.\n");
        return FALSE;
    }
    const Bool result = getId(m_hServerId, size, buffer);
    if (!result) {
        LOG(Warn, "Server 0x%p GetUniqueSerializedId with %d bytes buffer failed\n", m_hServerId, size);
        return FALSE;
    }
    // The service need not have ended the text, nor have been given a place for it.
    LOG(Debug, "Server 0x%p id[%s].\n", m_hServerId,
        buffer ? std::string(buffer, strnlen(buffer, static_cast<size_t>(std::max(size, 0)))).c_str() : "");
    return result;
}

Bool RPCPluginInstance::IsUniqueSerializedIdOwner(const char* id) {
    const Operation operation(kLogInfo, __PRETTY_FUNCTION__, *this);
    if (!operation) return FALSE;
    const auto isOwner = operation.manager->m_serverTable.IsUniqueSerializedIdOwner;
    if (!isOwner) {
        LOG(Warn, "IsUniqueSerializedIdOwner API is not available.\n");
        return FALSE;
    }
    const Bool result = isOwner(m_hServerId, id);
    LOG(Debug, "[%s] %smatch 0x%p.\n", id ? id : "", result == 1 ? "" : "does not ", m_hServerId);
    return result;
}

int RPCPluginInstance::SwitchToStreamDataMode() {
    const Operation operation(kLogInfo, __PRETTY_FUNCTION__, *this);
    if (!operation) return 0;
    const auto switchToStreamData = operation.manager->m_channelTable.SwitchToStreamData;
    int fd = 0;
    if (!switchToStreamData || !switchToStreamData(operation.manager->m_dataObjTcpName, m_hChannel, &fd)) {
        LOG(Error, "Switch to StreamData mode failed!\n");
        return 0;
    }
    m_streamDataMode.store(true, std::memory_order_relaxed);
    LOG(Info, "Switch to StreamData mode Succeeded fd=%d!\n", fd);
    return fd;
}
