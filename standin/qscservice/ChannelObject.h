// Channel objects, the process-wide tables behind handles and cookies, and what a thread is doing for a channel.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "standin/qscservice/ServiceChannel.h"

namespace qscservice {

class SideChannel;

// One end's object. state and side are guarded by the channel's m_mutex, the rest never changes, but for
// sideLink.
struct ChannelObject {
    std::weak_ptr<ServiceChannel> channel;
    std::string name;
    QSCRPC_ObjectNotifySink sink;
    void* sinkContext;
    uint32_t flags;
    uint32_t number;
    void* handle;
    QSCRPC_ObjectState state;
    std::shared_ptr<SideChannel> side{};  // from the request for it to its end

    // Held while a frame of the object is sent, and while its frames move from one connection to another, so that none
    // goes out on the connection that they have left. Taken with no lock of the channel but m_requestMutex held.
    Mutex sendMutex{};
    std::shared_ptr<Link> sideLink GUARDED_BY(sendMutex){};  // where its frames go; null: the channel's connection
};

// Whether messages may be sent on an object in this state.
bool IsConnected(QSCRPC_ObjectState state);

// Channels, their sinks' cookies and their objects' handles. A handle is an even number that is never used again, so
// that any word can be told from a live handle, and from every context's handle.
class Registry {
public:
    static Registry& The();

    void AddChannel(const std::shared_ptr<ServiceChannel>& channel);
    void SetDefault(const std::shared_ptr<ServiceChannel>& channel);
    // The default channel, else the only one, else null.
    std::shared_ptr<ServiceChannel> Default();

    // The channel with this handle (hChannel), null if there is none.
    std::shared_ptr<ServiceChannel> FindChannel(const void* handle);

    uint32_t AddSink(const std::shared_ptr<ServiceChannel>& channel);
    std::shared_ptr<ServiceChannel> RemoveSink(uint32_t cookie);

    void* NewHandle();
    QscMsgChannelID AddMsgChannel(const std::shared_ptr<ServiceChannel>& channel);
    std::shared_ptr<ServiceChannel> FindMsgChannel(QscMsgChannelID id);
    void RemoveMsgChannel(QscMsgChannelID id);
    void AddObject(const std::shared_ptr<ChannelObject>& object);
    std::shared_ptr<ChannelObject> FindObject(void* handle);
    std::shared_ptr<ChannelObject> RemoveObject(void* handle);

private:
    Mutex m_mutex;  // guards the fields below
    std::vector<std::weak_ptr<ServiceChannel>> m_channels GUARDED_BY(m_mutex);
    std::weak_ptr<ServiceChannel> m_default GUARDED_BY(m_mutex);
    std::map<uint32_t, std::weak_ptr<ServiceChannel>> m_sinks GUARDED_BY(m_mutex);
    std::unordered_map<void*, std::shared_ptr<ChannelObject>> m_objects GUARDED_BY(m_mutex);
    std::unordered_map<QscMsgChannelID, std::weak_ptr<ServiceChannel>> m_msgChannels GUARDED_BY(m_mutex);
    uint32_t m_nextCookie GUARDED_BY(m_mutex) = 1;
    uintptr_t m_nextHandle GUARDED_BY(m_mutex) = 2;
};

// For the length of a callback, and of what leads up to it: makes the channel the thread's current one, and keeps its
// sends from waiting.
class CallbackScope {
public:
    explicit CallbackScope(ServiceChannel* channel);
    ~CallbackScope();
    CallbackScope(const CallbackScope&) = delete;
    CallbackScope& operator=(const CallbackScope&) = delete;

    // Whether this thread is inside a callback, of any channel.
    static bool IsActive();

private:
    const CurrentChannel m_current;
};

}  // namespace qscservice
