// A peer of raw frames.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstring>
#include <span>
#include <vector>

#include "standin/qscservice/ServiceChannel.h"

class RawEnd {
public:
    using Bytes = std::vector<uint8_t>;

    explicit RawEnd(qscservice::Fd socket) : m_socket(std::move(socket)) {}

    void Send(Bytes frame) {
        qscservice::FrameHeader header;
        std::memcpy(&header, frame.data(), sizeof header);
        header.sequence = ++m_sequence;
        std::memcpy(frame.data(), &header, sizeof header);
        ASSERT_EQ(send(m_socket.Get(), frame.data(), frame.size(), MSG_NOSIGNAL), static_cast<ssize_t>(frame.size()));
    }

    void SayHello(qscservice::Role role) {
        Send(qscservice::MakeFrame(qscservice::FrameType::Hello,
                                   {qscservice::Value(1u), qscservice::Value(static_cast<uint32_t>(role)),
                                    qscservice::Value(uint64_t{77}), qscservice::Value(uint64_t{0})}));
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

private:
    qscservice::Fd m_socket;
    uint32_t m_sequence = 0;
    Bytes m_bytes;
    size_t m_used = 0;
};
