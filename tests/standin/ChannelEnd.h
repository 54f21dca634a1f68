// A channel whose sinks write down what they hear, one line for each callback.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "standin/qscservice/MessageContext.h"
#include "standin/qscservice/ServiceChannel.h"

using Texts = std::vector<std::string>;

inline constexpr uint32_t kLongMS = 20000;

class Journal {
public:
    void Add(const std::string& line) {
        const std::lock_guard lock(m_mutex);
        m_lines.push_back(line);
        m_changed.notify_all();
    }

    // The lines since the last Take, once there are that many.
    Texts Take(size_t count) {
        std::unique_lock lock(m_mutex);
        m_changed.wait_for(lock, std::chrono::milliseconds(kLongMS), [&] { return m_lines.size() >= count; });
        return std::exchange(m_lines, {});
    }

    bool Has(const std::string& line) const {
        const std::lock_guard lock(m_mutex);
        return std::find(m_lines.begin(), m_lines.end(), line) != m_lines.end();
    }

    Texts TakeUntil(const std::string& line) {
        std::unique_lock lock(m_mutex);
        const auto found = [&] { return std::find(m_lines.begin(), m_lines.end(), line); };
        EXPECT_TRUE(m_changed.wait_for(lock, std::chrono::milliseconds(kLongMS), [&] {
            return found() != m_lines.end();
        })) << line;
        const auto end = found() == m_lines.end() ? m_lines.end() : found() + 1;
        Texts taken(m_lines.begin(), end);
        m_lines.erase(m_lines.begin(), end);
        return taken;
    }

private:
    mutable std::mutex m_mutex;  // guards m_lines
    std::condition_variable m_changed;
    Texts m_lines;
};

// A client opens the channel when the connection comes up; objects are the test's.
class ChannelEnd {
public:
    explicit ChannelEnd(const qscservice::ChannelOptions& options)
        : channel(qscservice::ServiceChannel::Create(options)) {
        EXPECT_TRUE(channel->RegisterSink(&kChannelSink, this, &cookie));
    }
    ~ChannelEnd() { channel->Close(); }
    ChannelEnd(const ChannelEnd&) = delete;
    ChannelEnd& operator=(const ChannelEnd&) = delete;

    // The lines up to this one, which are taken. A channel that has to be polled for them is.
    Texts TakeUntil(const std::string& line) {
        while (channel->Options().delivery == qscservice::Delivery::Polled && !journal.Has(line)) {
            channel->PollWait(kLongMS);
        }
        return journal.TakeUntil(line);
    }

    void* Create(const std::string& name, uint32_t flags = 0x0D) {
        void* hObject = nullptr;
        Owner& owner =
            m_owners.try_emplace(name, Owner{this, name}).first->second;  // a late callback may still read it
        EXPECT_TRUE(channel->CreateObject(name.c_str(), &kObjectSink, &owner, flags, &hObject)) << name;
        return hObject;
    }

    // The request id, 0 if the message was refused.
    uint32_t Send(void* hObject, uint32_t command, size_t bytes = 0, bool post = true) {
        using qscservice::ContextTable;
        void* hContext = nullptr;
        if (!qscservice::ServiceChannel::CreateContext(hObject, 0, &hContext)) return 0;
        qscservice::MessageContext* context = ContextTable::Find(hContext);
        context->command = command;
        context->post = post;
        if (bytes != 0) {
            context->Append(qscservice::ItemRole::Param, {}, qscservice::Value(std::vector<uint8_t>(bytes, 7)));
        }
        const uint32_t id = context->requestId;
        if (qscservice::ServiceChannel::Invoke(hObject, hContext, &kContextSink, this)) return id;
        EXPECT_TRUE(context->Move(qscservice::MessageContext::State::Own, qscservice::MessageContext::State::Free));
        ContextTable::Release(context);
        return 0;
    }

    uint32_t Request(void* hObject, uint32_t command) { return Send(hObject, command, 0, false); }

    qscservice::CommandCount Total() const {
        qscservice::CommandCount total;
        for (const auto& [command, count] : channel->Counts()) {
            total.accepted += count.accepted;
            total.refused += count.refused;
            total.confirmed += count.confirmed;
            total.cut += count.cut;
            total.delivered += count.delivered;
            total.undeliverable += count.undeliverable;
        }
        return total;
    }

    // Until so many messages have come; what is sent to an object that is gone is still received.
    void AwaitReceived(uint64_t count) const {
        const auto received = [&] { return Total().delivered + Total().undeliverable; };
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kLongMS);
        while (received() < count && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
        EXPECT_EQ(received(), count);
    }

    const std::shared_ptr<qscservice::ServiceChannel> channel;
    uint32_t cookie = 0;
    Journal journal;
    std::function<void(void* hContext, uint32_t command)> onMessage;  // instead of the line

private:
    struct Owner {
        ChannelEnd* end = nullptr;
        std::string name;
    };

    static ChannelEnd& Of(void* context) { return *static_cast<ChannelEnd*>(context); }
    static void Hear(void* context, const std::string& line) { Of(context).journal.Add(line); }

    static const QSCService_ChannelNotifySink kChannelSink;
    static const QSCRPC_ObjectNotifySink kObjectSink;
    static const QSCRPC_ContextNotifySink kContextSink;

    std::map<std::string, Owner> m_owners;
};

inline const QSCService_ChannelNotifySink ChannelEnd::kChannelSink = {
    1,
    [](void* self, QSCService_ConnectionState current, QSCService_ConnectionState, void*) {
        Hear(self, "connection " + std::to_string(current));
        const auto& channel = Of(self).channel;
        if (current == QSC_CONNECTION_CONNECTED && channel->Options().role == qscservice::Role::Client) {
            EXPECT_TRUE(channel->Connect());
        }
    },
    [](void* self, QSCService_ChannelState, QSCService_ChannelState transition, void*) {
        Hear(self, "channel " + std::to_string(transition));
    },
    [](void* self, const char* name, void*) { Hear(self, std::string("peer ") + name); }};

inline const QSCRPC_ObjectNotifySink ChannelEnd::kObjectSink = {
    1,
    [](void* context, void* hContext, void*) {
        const Owner& owner = *static_cast<Owner*>(context);
        const uint32_t command = qscservice::ContextTable::Find(hContext)->command;
        if (owner.end->onMessage) return owner.end->onMessage(hContext, command);
        owner.end->journal.Add(owner.name + " message " + std::to_string(command));
    },
    [](void* context, void*) {
        const Owner& owner = *static_cast<Owner*>(context);
        owner.end->journal.Add(owner.name + " state");
    }};

inline const QSCRPC_ContextNotifySink ChannelEnd::kContextSink = {
    1, [](void* self, uint32_t id, void*) { Hear(self, "done " + std::to_string(id)); },
    [](void* self, uint32_t id, Bool flag, uint32_t reason) {
        Hear(self, "abort " + std::to_string(id) + " " + std::to_string(flag) + " " + std::to_string(reason));
    }};

inline qscservice::ChannelOptions ServerOptions() {
    return {.role = qscservice::Role::Server, .sessionType = QSC_SESSION_STORM};
}

// A server and a client with the channel open, and one object connected.
class ChannelEnds {
public:
    explicit ChannelEnds(const qscservice::ChannelOptions& clientOptions = {},
                         const qscservice::ChannelOptions& serverOptions = ServerOptions())
        : server(serverOptions), client(clientOptions) {}

    void Open(const std::string& address = "unix:") {
        std::string error;
        ASSERT_TRUE(server.channel->Listen(address, &error)) << error;
        ASSERT_TRUE(client.channel->Dial(server.channel->Address(), &error)) << error;
        AwaitChannel();
    }

    void AwaitChannel() {
        client.TakeUntil("channel 2");
        server.TakeUntil("channel 2");
    }

    void ConnectObject() {
        atServer = server.Create("object", 0x35);
        ASSERT_EQ(client.TakeUntil("peer object"), Texts{"peer object"});
        atClient = client.Create("object", 0x0D);
        ASSERT_EQ(client.TakeUntil("object state"), Texts{"object state"});
        ASSERT_EQ(server.TakeUntil("object state"), Texts{"object state"});
    }

    // Of a channel that has gone, so that both are disconnected.
    void DestroyObjects() const {
        for (void* hObject : {atClient, atServer}) {
            EXPECT_EQ(qscservice::ServiceChannel::ObjectState(hObject), QSC_OBJECT_DISCONNECTED);
            EXPECT_TRUE(qscservice::ServiceChannel::DestroyObject(hObject));
        }
    }

    // After a fall that both ends have heard of.
    void ComeBack() {
        std::string error;
        DestroyObjects();
        ASSERT_TRUE(client.channel->Reconnect(&error)) << error;
        AwaitChannel();
    }

    ChannelEnd server;
    ChannelEnd client;
    void* atServer = nullptr;
    void* atClient = nullptr;
};

class ChannelPair : public testing::Test, public ChannelEnds {};
