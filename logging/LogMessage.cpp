#include "logging/LogMessage.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "logging/FastFormat.h"
#include "logging/LogMessageCache.h"

namespace {

constexpr std::string_view kStem = "kes";
constexpr std::string_view kRest = "tor";

bool SpellsAnyCase(const char* text, std::string_view word) {
    return std::equal(word.begin(), word.end(), text,
                      [](char a, char b) { return a == std::tolower(static_cast<unsigned char>(b)); });
}

// Finds the first letter of the stem, in both cases, with the library's search, which goes by many bytes at a time.
class FirstLetterFinder {
public:
    FirstLetterFinder(char* begin, char* textEnd) : end(textEnd), lower(Find(begin, 'k')), upper(Find(begin, 'K')) {}

    // The next one at or behind at, which never goes back; the end if there is none.
    char* From(char* at) {
        if (lower < at) lower = Find(at, 'k');
        if (upper < at) upper = Find(at, 'K');
        return std::min(lower, upper);
    }

private:
    char* Find(char* from, char letter) {
        void* const found = std::memchr(from, letter, static_cast<size_t>(end - from));
        return found ? static_cast<char*>(found) : end;
    }

    char* const end;
    char* lower;
    char* upper;
};

}  // namespace

LogMessage::LogMessage() = default;

LogMessage::~LogMessage() {
    std::free(heapText);
}

char* LogMessage::GetBuffer(int* remaining, bool atEnd) {
    if (remaining) *remaining = atEnd ? Capacity() - length : Capacity();
    return atEnd ? Buffer() + length : Buffer();
}

bool LogMessage::SetLength(int value, bool relative) {
    const int64 wanted = relative ? int64{length} + value : value;
    if (wanted < 0 || wanted >= Capacity()) return false;
    length = static_cast<int32_t>(wanted);
    Buffer()[length] = '\0';
    return true;
}

bool LogMessage::Reserve(int bytes, int multiplier) {
    const int64 needed = int64{length} * multiplier + bytes;
    if (length + 1 >= needed || Capacity() >= needed) return true;
    if (needed > INT32_MAX - kGrowthMargin) return false;
    const int64 wanted = heapText ? needed + kGrowthMargin : needed;
    auto* const grown = static_cast<char*>(std::realloc(heapText, static_cast<size_t>(wanted)));
    if (!grown) return false;
    if (!heapText) std::memcpy(grown, inlineText, static_cast<size_t>(length) + 1);
    heapText = grown;
    heapCapacity = static_cast<int32_t>(wanted);
    return true;
}

bool LogMessage::Format(const char* format, va_list args, bool endWithNewline) {
    const int newline = endWithNewline ? 1 : 0;
    va_list again;
    va_copy(again, args);
    int room = std::max(Capacity() - length - newline, 0);
    va_list fast;
    va_copy(fast, args);
    int result = FastFormat(Buffer() + length, static_cast<size_t>(room), format, fast);
    va_end(fast);
    if (result < 0) {
        result = std::vsnprintf(room > 0 ? Buffer() + length : nullptr, static_cast<size_t>(room), format, args);
    }
    bool formatted = result >= 0;
    if (!formatted) {
        Buffer()[length] = '\0';
    } else if (result < room) {
        length += result;
    } else {
        Reserve(1 + newline + std::min(result, INT32_MAX - 2), 1);
        room = std::max(Capacity() - length - newline, 0);
        if (room > 0) std::vsnprintf(Buffer() + length, static_cast<size_t>(room), format, again);
        length += std::min(result, std::max(room - 1, 0));
        Buffer()[length] = '\0';
    }
    va_end(again);
    if (formatted) EndLine(endWithNewline);
    return formatted;
}

void LogMessage::Printf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    Format(format, args, false);
    va_end(args);
}

void LogMessage::PrintLine(const char* format, ...) {
    va_list args;
    va_start(args, format);
    Format(format, args, true);
    va_end(args);
}

bool LogMessage::Append(const char* text, int textLength, bool endWithNewline) {
    if (!text) return false;
    const int newline = endWithNewline ? 1 : 0;
    const size_t wanted = textLength < 0 ? std::strlen(text) : static_cast<size_t>(textLength);
    if (wanted > static_cast<size_t>(INT32_MAX / 2)) return false;
    int count = static_cast<int>(wanted);
    Reserve(1 + newline + count, 1);
    count = std::clamp(count, 0, std::max(Capacity() - length - 1 - newline, 0));
    std::memcpy(Buffer() + length, text, static_cast<size_t>(count));
    length += count;
    Buffer()[length] = '\0';
    EndLine(endWithNewline);
    return count == static_cast<int>(wanted);
}

// There is room for the line feed, unless the buffer is full to its last byte, which ends the line in its place.
void LogMessage::EndLine(bool endWithNewline) {
    char* const text = Buffer();
    if (!endWithNewline || (length > 0 && text[length - 1] == '\n')) return;
    if (length + 1 < Capacity()) {
        text[length++] = '\n';
        text[length] = '\0';
    } else if (length > 0) {
        text[length - 1] = '\n';
    }
}

void LogMessage::Init(int messageLevel, const char* text, int textLength) {
    if (block && block->cache->pendingLength.load(std::memory_order_relaxed) > 0) block->cache->TakePending(*this);
    level = messageLevel;
    if (text) Append(text, textLength, true);
}

void LogMessage::Scrub() {
    char* const text = Buffer();
    char* const end = text + length;
    FirstLetterFinder finder(text, end);
    for (char* at = text; (at = finder.From(at)) != end && end - at >= 3;) {
        if (!SpellsAnyCase(at, kStem)) {
            ++at;
            continue;
        }
        at[1] = at[2] = '*';
        at += 3;
        if (end - at >= 3 && SpellsAnyCase(at, kRest)) {
            std::memset(at, '*', kRest.size());
            at += kRest.size();
        }
    }
}

void LogMessage::Clear() {
    std::free(heapText);
    heapText = nullptr;
    heapCapacity = 0;
    inlineText[0] = '\0';
    length = 0;
}

bool LogMessage::OnLastRelease() {
    if (!block) return false;
    Clear();
    return true;
}

// The message is out of use now, and may be taken by another thread as soon as it is back, or go with its block.
void LogMessage::OnTakenBack() {
    block->cache->ReturnMessage(this);
}
