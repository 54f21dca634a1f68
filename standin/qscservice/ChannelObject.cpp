#include "standin/qscservice/ChannelObject.h"

#include <algorithm>

namespace qscservice {

namespace {

thread_local ServiceChannel* tCurrent = nullptr;
thread_local int tCallbacks = 0;  // that this thread is inside of

}  // namespace

Registry& Registry::The() {
    static Registry* registry = new Registry;
    return *registry;
}

void Registry::AddChannel(const std::shared_ptr<ServiceChannel>& channel) {
    Lock lock(m_mutex);
    std::erase_if(m_channels, [](const auto& known) { return known.expired(); });
    m_channels.push_back(channel);
}

void Registry::SetDefault(const std::shared_ptr<ServiceChannel>& channel) {
    Lock lock(m_mutex);
    m_default = channel;
}

std::shared_ptr<ServiceChannel> Registry::Default() {
    Lock lock(m_mutex);
    if (auto channel = m_default.lock()) return channel;
    std::erase_if(m_channels, [](const auto& known) { return known.expired(); });
    return m_channels.size() == 1 ? m_channels.front().lock() : nullptr;
}

std::shared_ptr<ServiceChannel> Registry::FindChannel(const void* handle) {
    std::vector<std::weak_ptr<ServiceChannel>> channels;
    {
        Lock lock(m_mutex);
        channels = m_channels;
    }
    for (const auto& known : channels) {
        std::shared_ptr<ServiceChannel> channel = known.lock();  // may be the last to hold it, so not under the lock
        if (channel && channel->Handle() == handle) return channel;
    }
    return nullptr;
}

uint32_t Registry::AddSink(const std::shared_ptr<ServiceChannel>& channel) {
    Lock lock(m_mutex);
    m_sinks[m_nextCookie] = channel;
    return m_nextCookie++;
}

std::shared_ptr<ServiceChannel> Registry::RemoveSink(uint32_t cookie) {
    Lock lock(m_mutex);
    const auto node = m_sinks.extract(cookie);
    return node ? node.mapped().lock() : nullptr;
}

void* Registry::NewHandle() {
    Lock lock(m_mutex);
    return reinterpret_cast<void*>(std::exchange(m_nextHandle, m_nextHandle + 2));
}

QscMsgChannelID Registry::AddMsgChannel(const std::shared_ptr<ServiceChannel>& channel) {
    QscMsgChannelID id = NewHandle();
    Lock lock(m_mutex);
    m_msgChannels[id] = channel;
    return id;
}

std::shared_ptr<ServiceChannel> Registry::FindMsgChannel(QscMsgChannelID id) {
    Lock lock(m_mutex);
    const auto found = m_msgChannels.find(id);
    return found != m_msgChannels.end() ? found->second.lock() : nullptr;
}

void Registry::RemoveMsgChannel(QscMsgChannelID id) {
    Lock lock(m_mutex);
    m_msgChannels.erase(id);
}

void Registry::AddObject(const std::shared_ptr<ChannelObject>& object) {
    Lock lock(m_mutex);
    m_objects[object->handle] = object;
}

std::shared_ptr<ChannelObject> Registry::FindObject(void* handle) {
    Lock lock(m_mutex);
    const auto found = m_objects.find(handle);
    return found != m_objects.end() ? found->second : nullptr;
}

std::shared_ptr<ChannelObject> Registry::RemoveObject(void* handle) {
    Lock lock(m_mutex);
    const auto node = m_objects.extract(handle);
    return node ? node.mapped() : nullptr;
}

CurrentChannel::CurrentChannel(ServiceChannel* channel) : m_previous(std::exchange(tCurrent, channel)) {}

CurrentChannel::~CurrentChannel() {
    tCurrent = m_previous;
}

CallbackScope::CallbackScope(ServiceChannel* channel) : m_current(channel) {
    ++tCallbacks;
}

CallbackScope::~CallbackScope() {
    --tCallbacks;
}

bool CallbackScope::IsActive() {
    return tCallbacks > 0;
}

std::shared_ptr<ServiceChannel> ServiceChannel::Current() {
    return tCurrent ? tCurrent->shared_from_this() : Registry::The().Default();
}

void ServiceChannel::MakeDefault() {
    Registry::The().SetDefault(shared_from_this());
}

}  // namespace qscservice
