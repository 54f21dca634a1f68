// A queue of messages that keeps its memory, so that queueing costs no allocation once it is warm.
#pragma once

#include <algorithm>
#include <utility>
#include <vector>

#include "logging/LogMessage.h"

// Guarded by its owner. What a burst has taken beyond kKeptLines is given back when the queue runs empty.
class LogQueue {
public:
    static constexpr size_t kKeptLines = 65536;  // 1 MiB of references

    size_t Size() const { return lines.size() - head; }
    bool Empty() const { return Size() == 0; }

    void Push(const RCPtr<LogMessage>& message) { lines.push_back(message); }

    // Takes the oldest; the queue isn't empty.
    RCPtr<LogMessage> Pop() {
        RCPtr<LogMessage> message = std::move(lines[head++]);
        if (head == lines.size()) {
            head = 0;
            lines.clear();
            if (lines.capacity() > kKeptLines) std::vector<RCPtr<LogMessage>>().swap(lines);
        } else if (head >= kKeptLines && head * 2 >= lines.size()) {
            lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(head));
            head = 0;
        }
        return message;
    }

private:
    std::vector<RCPtr<LogMessage>> lines;
    size_t head = 0;  // those ahead of it are gone
};
