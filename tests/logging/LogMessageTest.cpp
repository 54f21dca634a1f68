#include "logging/LogMessage.h"

#include <gtest/gtest.h>

#include <climits>
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
    for (const auto& [length, endWithNewline, stays] : {std::tuple<size_t, bool, bool>{0, false, true},
                                                        {255, false, true},
                                                        {256, false, false},
                                                        {254, true, true},
                                                        {255, true, false},
                                                        {100000, true, false}}) {
        const std::string text(length, 'x');
        LogMessage appended, printed;
        EXPECT_TRUE(appended.Append(text.c_str(), -1, endWithNewline));
        endWithNewline ? printed.PrintLine("%s", text.c_str()) : printed.Printf("%s", text.c_str());
        for (LogMessage* const message : {&appended, &printed}) {
            EXPECT_EQ(TextOf(*message), text + (endWithNewline ? "\n" : ""));
            EXPECT_EQ(IsInline(*message), stays) << length;
        }
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
    for (const int value : {-6, LogMessage::kInlineSize, INT_MAX, INT_MIN}) {
        EXPECT_FALSE(message.SetLength(value, false) || message.SetLength(value, true));
    }
    EXPECT_FALSE(message.SetLength(-1, false));
    EXPECT_FALSE(message.SetLength(LogMessage::kInlineSize - 5, true));
    EXPECT_EQ(TextOf(message), "hello");
    EXPECT_TRUE(message.SetLength(-2, true));
    EXPECT_EQ(TextOf(message), "hel");
    EXPECT_TRUE(message.SetLength(0, false));
    EXPECT_EQ(TextOf(message), "");
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
    const std::pair<std::string, std::string> cases[] = {
        {"kestor", "k*****"},
        {"KeStOr", "K*****"},
        {"KES-123", "K**-123"},
        {"kes", "k**"},
        {"ke", "ke"},
        {"", ""},
        {"kkes", "kk**"},
        {"keskestor", "k**k*****"},
        {"a kestor, a Kestrel.", "a k*****, a K**trel."},
        {"KESTORs\n", "K*****s\n"},
        {"kexkes", "kexk**"},
        {"kest", "k**t"},
        {"\xEB\xE5\xF3kes", "\xEB\xE5\xF3k**"},
        {std::string(1000, '.') + "kestor", std::string(1000, '.') + "k*****"},
    };
    for (const auto& [text, scrubbed] : cases) {
        LogMessage message;
        message.Append(text.c_str(), -1, false);
        message.Scrub();
        EXPECT_EQ(TextOf(message), scrubbed);
    }
}

}  // namespace
