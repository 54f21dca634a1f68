// A queue of messages that keeps its memory, so that queueing costs no allocation once it is warm.
#pragma once

#include <algorithm>
#include <span>
#include <utility>
#include <vector>

#include "logging/LogMessage.h"

// Guarded by its owner. What a burst has taken beyond kKeptLines is given back when the queue runs empty.
class LogQueue {
public:
    static constexpr size_t kKeptLines = 65536;  // 1 MiB of references

    size_t Size() const { return lines.size() - head; }
    bool Empty() const { return Size() == 0; }

    void Push(RCPtr<LogMessage>&& message) { lines.push_back(std::move(message)); }

    // The oldest, count of them or as many as there are; until the next Push or Drop.
    std::span<RCPtr<LogMessage>> Oldest(size_t count) { return {lines.data() + head, std::min(count, Size())}; }

    // Takes away the oldest; there are that many.
    void Drop(size_t count) {
        head += count;
        if (head == lines.size()) {
            head = 0;
            lines.clear();
            if (lines.capacity() > kKeptLines) std::vector<RCPtr<LogMessage>>().swap(lines);
        } else if (head >= kKeptLines && head * 2 >= lines.size()) {
            lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(head));
            head = 0;
        }
    }

private:
    std::vector<RCPtr<LogMessage>> lines;
    size_t head = 0;  // those ahead of it are gone
};
