// One log line, or several, on its way through the writers: a pooled, counted buffer.
#pragma once

#include <cstdarg>

#include "runtime/RCObject.h"
#include "runtime/Types.h"

class LogMessageBlock;

// Written by one thread until it is handed to the first writer, then read only, but for Scrub. When the last reference
// goes it returns to its block. The text always ends with a zero byte. A text of up to 255 bytes needs no memory beyond
// the object.
class LogMessage : public RCObject {
public:
    static constexpr int kInlineSize = 256;  // of the text kept in the object, its zero byte included
    static constexpr int kGrowthMargin = 256;

    LogMessage();
    LogMessage(const LogMessage&) = delete;
    LogMessage& operator=(const LogMessage&) = delete;
    ~LogMessage() override;

    // The buffer, or with atEnd the place behind the text. remaining, which may be null, receives the room there, the
    // zero byte included.
    char* GetBuffer(int* remaining, bool atEnd);

    // Sets the length, or with relative adds to it, and ends the text there. False, with no change, if it is negative
    // or not below the capacity.
    bool SetLength(int value, bool relative);

    // Makes room for length * multiplier + bytes; false without memory.
    bool Reserve(int bytes, int multiplier);

    // Append; with endWithNewline the result ends in a line feed, one that is there counts. What memory can't be had
    // for is cut. Format returns false, with the text unchanged, if the format fails.
    bool Format(const char* format, va_list args, bool endWithNewline) __attribute__((format(printf, 2, 0)));
    void Printf(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void PrintLine(const char* format, ...) __attribute__((format(printf, 2, 3)));
    bool Append(const char* text, int textLength, bool endWithNewline);  // textLength below 0: up to the zero byte

    // Begins the message: first come the lines that the pool has to tell, then text, which may be null.
    void Init(int messageLevel, const char* text, int textLength);

    // Masks one word, and its stem, that must not stand in a log: "kestor" and "kes" in any case keep their first
    // letter. The length stays.
    void Scrub();

    void Clear();

    const char* Text() const { return heapText ? heapText : inlineText; }
    int Length() const { return length; }
    int Level() const { return level; }
    int Capacity() const { return heapText ? heapCapacity : kInlineSize; }

protected:
    bool OnLastRelease() override;
    void OnTakenBack() override;

private:
    friend class LogMessageBlock;
    friend class LogMessageCache;

    char* Buffer() { return heapText ? heapText : inlineText; }
    void EndLine(bool endWithNewline);

    char inlineText[kInlineSize] = "";  // used while heapText is null
    int32_t length = 0;
    int32_t level = 7;
    char* heapText = nullptr;  // from malloc
    int32_t heapCapacity = 0;
    LogMessageBlock* block = nullptr;  // set while the message is out of the pool; lives as long
    LogMessage* nextFree = nullptr;    // guarded by the pool's lock
};
