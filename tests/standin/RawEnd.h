// Peers of raw frames, and real ends that have such a peer.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstring>
#include <memory>
#include <span>
#include <vector>

#include "standin/qscservice/ServiceChannel.h"
#include "tests/standin/ChannelEnd.h"

inline std::vector<uint8_t> Hello(qscservice::Role role = qscservice::Role::Client, uint64_t peerEnd = 0,
                                  std::initializer_list<qscservice::Value> tail = {}) {
    std::vector<qscservice::Value> values = {1u, static_cast<uint32_t>(role), uint64_t{77}, peerEnd};
    values.insert(values.end(), tail.begin(), tail.end());
    return qscservice::MakeFrame(qscservice::FrameType::Hello, values);
}

inline std::vector<uint8_t> FrameOf(qscservice::FrameType type, qscservice::ItemRole role) {
    std::vector<uint8_t> frame;
    qscservice::FrameHeader header = {};
    header.type = type;
    header.object = 1;
    header.itemCount = 1;
    qscservice::BeginFrame(&frame);
    qscservice::AppendItem(&frame, role, {}, qscservice::Value(1u));
    qscservice::SealFrame(&frame, header);
    return frame;
}

class RawEnd {
public:
    using Bytes = std::vector<uint8_t>;

    explicit RawEnd(qscservice::Fd socket) : m_socket(std::move(socket)) {}

    void Send(Bytes frame) {
        qscservice::FrameHeader header;
        std::memcpy(&header, frame.data(), sizeof header);
        header.sequence = ++m_sequence;
        std::memcpy(frame.data(), &header, sizeof header);
        SendAsItIs(frame);
    }

    void SendAsItIs(const Bytes& frame) const {
        ASSERT_EQ(send(m_socket.Get(), frame.data(), frame.size(), MSG_NOSIGNAL), static_cast<ssize_t>(frame.size()));
    }

    // Reads frames up to one of this type, and gives its values; they live until the next call.
    std::vector<qscservice::Value> Await(qscservice::FrameType type) {
        m_bytes.erase(m_bytes.begin(), m_bytes.begin() + static_cast<std::ptrdiff_t>(m_used));
        m_used = 0;
        for (;;) {
            qscservice::FrameView frame;
            const auto rest = std::span<const uint8_t>(m_bytes).subspan(m_used);
            const qscservice::DecodeResult result = qscservice::DecodeFrame(rest, &frame);
            if (result.status == qscservice::DecodeResult::Complete) {
                m_used += result.size;
                if (frame.header.type == type) return qscservice::ItemValues(frame);
                continue;
            }
            uint8_t more[4096];
            const ssize_t count = recv(m_socket.Get(), more, sizeof more, 0);
            if (count <= 0) {
                ADD_FAILURE() << "the other end has hung up";
                return {};
            }
            m_bytes.insert(m_bytes.end(), more, more + count);
        }
    }

    void Swallow(size_t count) const {
        Bytes bytes(count);
        ASSERT_EQ(recv(m_socket.Get(), bytes.data(), count, MSG_WAITALL), static_cast<ssize_t>(count));
    }

    // Reads until the other end hangs up.
    void AwaitEnd() const {
        char bytes[4096];
        while (recv(m_socket.Get(), bytes, sizeof bytes, 0) > 0) {
        }
    }

private:
    qscservice::Fd m_socket;
    uint32_t m_sequence = 0;
    Bytes m_bytes;
    size_t m_used = 0;
};

class ServerOfRawClients {
public:
    explicit ServerOfRawClients(const qscservice::ChannelOptions& options = ServerOptions()) : server(options) {
        std::string error;
        EXPECT_TRUE(server.channel->Listen("unix:", &error)) << error;
    }

    RawEnd Dial() const {
        std::string error;
        return RawEnd(qscservice::ConnectSocket(server.channel->Address(), &error));
    }

    ChannelEnd server;
};

// With the channel open.
class ServerOfRawClient : public ServerOfRawClients {
public:
    explicit ServerOfRawClient(const qscservice::ChannelOptions& options = ServerOptions())
        : ServerOfRawClients(options) {
        Open();
    }

    void Open() {
        using namespace qscservice;
        client = std::make_unique<RawEnd>(Dial());
        client->Send(Hello());
        client->Send(MakeFrame(FrameType::Open, {1u}));
        server.TakeUntil("channel 2");
    }

    void ConnectObject() {
        using namespace qscservice;
        hObject = server.Create("object");
        client->Send(MakeFrame(FrameType::ObjectCreated, {"object", 1u, 0u}));
        server.TakeUntil("object state");
    }

    std::unique_ptr<RawEnd> client;
    void* hObject = nullptr;
};

// With the channel open.
class ClientOfRawServer {
public:
    explicit ClientOfRawServer(const qscservice::ChannelOptions& options = {}) : client(options) {
        using namespace qscservice;
        std::string error;
        listener = Listener::Open("unix:", &error);
        EXPECT_TRUE(listener) << error;
        EXPECT_TRUE(client.channel->Dial(listener->Address(), &error)) << error;
        server = std::make_unique<RawEnd>(listener->Accept(&error));
        server->Send(Hello(Role::Server));
        server->Await(FrameType::Open);
        server->Send(MakeFrame(FrameType::Accept, {1u, int32_t{0}}));
        client.TakeUntil("channel 2");
    }

    ChannelEnd client;
    std::shared_ptr<qscservice::Listener> listener;
    std::unique_ptr<RawEnd> server;
};
