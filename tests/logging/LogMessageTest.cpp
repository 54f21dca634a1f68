#include "logging/LogMessage.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

namespace {

bool IsInline(LogMessage& message) {
    const auto* const object = reinterpret_cast<const char*>(&message);
    return message.Text() >= object && message.Text() < object + sizeof(LogMessage);
}

std::string TextOf(const LogMessage& message) {
    EXPECT_EQ(message.Text()[message.Length()], '\0');
    EXPECT_LT(message.Length(), message.Capacity());
    return {message.Text(), static_cast<size_t>(message.Length())};
}

TEST(LogMessage, LinesOf255CharactersStayInTheObject) {
    struct Case {
        int length;  // of a text without a line feed
        bool endWithNewline;
        bool stays;
    };
    for (const Case& c : {Case{0, false, true},
                          {255, false, true},
                          {256, false, false},
                          {254, true, true},
                          {255, true, false},
                          {0, true, true},
                          {300, true, false},
                          {100000, true, false}}) {
        const std::string text(static_cast<size_t>(c.length), 'x');
        const std::string expected = text + (c.endWithNewline ? "\n" : "");
        LogMessage appended;
        EXPECT_TRUE(appended.Append(text.c_str(), -1, c.endWithNewline));
        EXPECT_EQ(TextOf(appended), expected);
        EXPECT_EQ(IsInline(appended), c.stays) << c.length;

        LogMessage printed;
        c.endWithNewline ? printed.PrintLine("%s", text.c_str()) : printed.Printf("%s", text.c_str());
        EXPECT_EQ(TextOf(printed), expected);
        EXPECT_EQ(IsInline(printed), c.stays) << c.length;
    }
}

TEST(LogMessage, GrowsThroughManyAppendsWithoutLosingAByte) {
    LogMessage message;
    std::string expected;
    for (int i = 0; i < 500; ++i) {
        message.Printf("%d,", i);
        message.Append("abc", 2, false);
        expected += std::to_string(i) + ",ab";
        ASSERT_EQ(TextOf(message), expected);
    }
}

TEST(LogMessage, EndsALineOnce) {
    LogMessage message;
    message.PrintLine("%s", "one\n");
    message.PrintLine("%s", "two");
    message.Append("three\n", -1, true);
    message.Append("", -1, true);
    EXPECT_EQ(TextOf(message), "one\ntwo\nthree\n");
}

TEST(LogMessage, RefusesALengthBeyondItsBuffer) {
    LogMessage message;
    message.Append("hello", -1, false);
    for (const int value : {-1, LogMessage::kInlineSize, INT_MAX, INT_MIN})
        EXPECT_FALSE(message.SetLength(value, false));
    for (const int value : {-6, LogMessage::kInlineSize - 5, INT_MAX, INT_MIN}) {
        EXPECT_FALSE(message.SetLength(value, true));
    }
    EXPECT_EQ(TextOf(message), "hello");
    EXPECT_TRUE(message.SetLength(-2, true));
    EXPECT_EQ(TextOf(message), "hel");
    EXPECT_TRUE(message.SetLength(0, false));
    EXPECT_EQ(TextOf(message), "");
}

TEST(LogMessage, OffersItsBufferToBeWrittenInPlace) {
    LogMessage message;
    message.Append("ab", -1, false);
    int remaining = 0;
    char* const whole = message.GetBuffer(&remaining, false);
    EXPECT_EQ(remaining, LogMessage::kInlineSize);
    char* const end = message.GetBuffer(&remaining, true);
    EXPECT_EQ(end, whole + 2);
    EXPECT_EQ(remaining, LogMessage::kInlineSize - 2);
    std::memcpy(end, "cd", 2);
    EXPECT_TRUE(message.SetLength(2, true));
    EXPECT_EQ(TextOf(message), "abcd");
    EXPECT_EQ(message.GetBuffer(nullptr, false), whole);
}

TEST(LogMessage, ReservesRoomAsAsked) {
    struct Case {
        int length;
        int bytes;
        int multiplier;
        int capacity;
    };
    for (const Case& c : {Case{10, 11, 0, 256},
                          {10, 256, 0, 256},
                          {10, 257, 0, 257},
                          {10, 1000, 0, 1000},
                          {10, 7, 100, 1007},
                          {200, 1, 1, 256}}) {
        LogMessage message;
        const std::string text(static_cast<size_t>(c.length), 't');
        message.Append(text.c_str(), -1, false);
        EXPECT_TRUE(message.Reserve(c.bytes, c.multiplier));
        EXPECT_EQ(message.Capacity(), c.capacity);
        EXPECT_EQ(TextOf(message), text);
    }
    LogMessage grown;
    grown.Reserve(300, 0);
    grown.Reserve(400, 0);
    EXPECT_EQ(grown.Capacity(), 400 + LogMessage::kGrowthMargin);
    EXPECT_TRUE(grown.Reserve(656, 0));
    EXPECT_EQ(grown.Capacity(), 656);
    EXPECT_FALSE(grown.Reserve(INT_MAX, 1));
    EXPECT_EQ(grown.Capacity(), 656);
}

TEST(LogMessage, KeepsItsTextWhenAFormatFails) {
    LogMessage message;
    message.Append("kept", -1, false);
    const wchar_t bad[] = {static_cast<wchar_t>(0xDC00), 0};  // no character of any locale
    message.Printf("lost %ls", bad);
    EXPECT_EQ(TextOf(message), "kept");
    EXPECT_FALSE(message.Append(nullptr, 3, true));
    EXPECT_EQ(TextOf(message), "kept");
}

TEST(LogMessage, ScrubMasksOneWordAndItsStemInPlace) {
    struct Case {
        const char* text;
        const char* scrubbed;
    };
    for (const Case& c : {Case{"kestor", "k*****"},
                          {"KeStOr", "K*****"},
                          {"KES-123", "K**-123"},
                          {"kes", "k**"},
                          {"ke", "ke"},
                          {"", ""},
                          {"kkes", "kk**"},
                          {"keskestor", "k**k*****"},
                          {"kestokes", "k**tok**"},
                          {"a kestor, a Kestrel.", "a k*****, a K**trel."},
                          {"KESTORs\n", "K*****s\n"},
                          {"kestorkestor", "k*****k*****"},
                          {"kexkes", "kexk**"},
                          {"kest", "k**t"},
                          {"\xEB\xE5\xF3kes", "\xEB\xE5\xF3k**"}}) {
        LogMessage message;
        message.Append(c.text, -1, false);
        message.Scrub();
        EXPECT_EQ(TextOf(message), c.scrubbed);
    }
    LogMessage longText;  // in the heap buffer too
    longText.Append(std::string(1000, '.').c_str(), -1, false);
    longText.Append("kestor", -1, false);
    longText.Scrub();
    EXPECT_EQ(TextOf(longText), std::string(1000, '.') + "k*****");
}

TEST(LogMessage, ClearGivesTheHeapBufferBack) {
    LogMessage message;
    message.Append(std::string(1000, 'x').c_str(), -1, true);
    EXPECT_FALSE(IsInline(message));
    message.Clear();
    EXPECT_TRUE(IsInline(message));
    EXPECT_EQ(TextOf(message), "");
    EXPECT_EQ(message.Capacity(), LogMessage::kInlineSize);
}

}  // namespace
