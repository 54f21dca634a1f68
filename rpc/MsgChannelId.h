// One message channel that an instance has opened: what stands behind the handle of OpenMsgChannel.
#pragma once

#include <atomic>
#include <string>

#include "rpc/QSCServiceTypes.h"
#include "rpc/RPCPluginInstance.h"
#include "runtime/RCObject.h"

// Enters itself in the process's map of message channels and leaves it when it goes. One reference stands for the open
// channel, from OpenMsgChannel to the close.
class MsgChannelId : public RCObject {
public:
    MsgChannelId(const char* name, RPCPluginInstance* instance);
    ~MsgChannelId() override;

    // Null for a handle whose channel is gone.
    static RCPtr<MsgChannelId> FindByHandle(void* handle);

    // 0, which no callback finds, if the map was full.
    void* Handle() const;

    // The reference of the open channel. Of several that give it back the first one does.
    void TakeOpenReference();
    void DropOpenReference();

    // On a thread of the service, while others ask: the id is there once the channel is opened.
    void SetOpened(QscMsgChannelID id);
    void SetClosed() { m_opened.store(false, std::memory_order_release); }
    bool IsOpened() const { return m_opened.load(std::memory_order_acquire); }
    // The service's id, null until the channel has opened.
    QscMsgChannelID Id() const { return m_msgChannelId.load(std::memory_order_acquire); }

    const std::string& Name() const { return m_name; }
    RCPtr<RPCPluginInstance> Instance() const { return m_rpcPlugin.Lock(); }

private:
    std::atomic<bool> m_opened{false};  // reported open by the service, and not closed since
    const std::string m_name;
    const WkPtr<RPCPluginInstance> m_rpcPlugin;  // that opened it
    std::atomic<QscMsgChannelID> m_msgChannelId{nullptr};
    uint32_t m_handle = 0;
    std::atomic<bool> m_heldOpen{false};
};
