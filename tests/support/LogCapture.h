// Collects every log line up to a level for the length of a scope. One at a time per process; safe on any thread.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "logging/Log.h"

class LogCapture {
public:
    struct Line {
        std::string function;  // the caller's full signature text
        int level;
        std::string text;
    };

    explicit LogCapture(int level = kLogVerbose) { Logger::SetSink(Take, this, level); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture() { Logger::SetSink(nullptr, nullptr, kLogAlways); }

    std::vector<Line> Lines() const {
        std::lock_guard guard(lock);
        return lines;
    }

    // The texts of the lines at that level, in order.
    std::vector<std::string> Texts(int level) const {
        std::lock_guard guard(lock);
        std::vector<std::string> texts;
        for (const Line& line : lines) {
            if (line.level == level) texts.push_back(line.text);
        }
        return texts;
    }

    bool Has(int level, const std::string& text) const {
        std::lock_guard guard(lock);
        return HasLocked(level, text);
    }

    // Waits until there is such a line; false after 10 s.
    bool WaitFor(int level, const std::string& text) const {
        std::unique_lock guard(lock);
        return changed.wait_for(guard, std::chrono::seconds(10), [&] { return HasLocked(level, text); });
    }

    // The same for a line that begins so.
    bool WaitForPrefix(int level, const std::string& begin) const {
        std::unique_lock guard(lock);
        return changed.wait_for(guard, std::chrono::seconds(10), [&] {
            return std::any_of(lines.begin(), lines.end(),
                               [&](const Line& line) { return line.level == level && line.text.starts_with(begin); });
        });
    }

    size_t Count(const std::string& text) const {
        std::lock_guard guard(lock);
        return static_cast<size_t>(
            std::count_if(lines.begin(), lines.end(), [&](const Line& line) { return line.text == text; }));
    }

    void Clear() {
        std::lock_guard guard(lock);
        lines.clear();
    }

private:
    static void Take(void* context, const char* function, int level, const char* text) {
        auto* self = static_cast<LogCapture*>(context);
        std::lock_guard guard(self->lock);
        self->lines.push_back({function, level, text});
        self->changed.notify_all();
    }

    bool HasLocked(int level, const std::string& text) const {
        return std::any_of(lines.begin(), lines.end(),
                           [&](const Line& line) { return line.level == level && line.text == text; });
    }

    mutable std::mutex lock;  // guards lines
    mutable std::condition_variable changed;
    std::vector<Line> lines;
};
