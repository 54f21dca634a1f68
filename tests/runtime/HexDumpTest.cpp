#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "runtime/StringUtils.h"

namespace {

// The dump through a measured buffer, which must be filled to its last byte and no further.
std::string Dump(const std::string& data, int bytesPerLine, int indent) {
    const int length = static_cast<int>(data.size());
    const unsigned size = StringUtils::HexDump(nullptr, 0, data.data(), length, bytesPerLine, indent);
    std::vector<char> room(size + 2, '#');
    EXPECT_EQ(StringUtils::HexDump(room.data(), size + 1, data.data(), length, bytesPerLine, indent), size);
    EXPECT_EQ(room[size], '\0');
    EXPECT_EQ(room[size + 1], '#');
    return std::string(room.data());
}

TEST(HexDump, WritesOffsetBytesAndText) {
    struct Case {
        const char* name;
        std::string data;
        int bytesPerLine, indent;
        std::string text;
    };
    for (const Case& c :
         {Case{"one line", "AB", 2, 0, "0x0000: 41 42  AB\n"},
          {"a short last line", "ABC", 2, 0, "0x0000: 41 42  AB\n0x0002: 43     C \n"},
          {"17 bytes at the usual 16", "0123456789abcdef\n", 0, 0,
           "0x0000: 30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  0123456789abcdef\n"
           "0x0010: 0A                                               .               \n"},
          {"unprintable bytes", std::string("\0\x1F\x7F\xFF~", 5), 5, 0, "0x0000: 00 1F 7F FF 7E  ....~\n"},
          {"indented", "ABC", 2, 3, "   0x0000: 41 42  AB\n   0x0002: 43     C \n"},
          {"indented from the second line", "ABC", 2, -3, "0x0000: 41 42  AB\n   0x0002: 43     C \n"}}) {
        EXPECT_EQ(Dump(c.data, c.bytesPerLine, c.indent), c.text) << c.name;
    }
    const std::string most = Dump(std::string(65535, 'x'), 16, 0);
    EXPECT_EQ(most, Dump(std::string(65536, 'x'), 16, 0)) << "it stops at 65,535 bytes";
    EXPECT_NE(most.find("\n0xfff0: 78 "), std::string::npos);
    char small[64];
    StringUtils::HexDump(small, sizeof small, "AB", 2, 1, INT_MIN);
    EXPECT_STREQ(small, "0x0000: 41  A\nBUFFER TOO SMALL\n");
    EXPECT_EQ(StringUtils::HexDump(nullptr, 0, "AB", 2, INT_MAX, INT_MIN), UINT_MAX) << "what can be told at most";
    for (const char* data : {"x", static_cast<const char*>(nullptr)}) {
        char text[] = "earlier";
        EXPECT_EQ(StringUtils::HexDump(text, sizeof text, data, data ? 0 : 5, 16, 0), 0u);
        EXPECT_STREQ(text, "");
    }
}

// For each size of the buffer: as many whole lines as fit, then as much of the message as fits.
TEST(HexDump, SaysThatTheBufferIsTooSmallForWhatIsLeft) {
    const std::string lines[] = {"0x0000: 41 42  AB\n", "  0x0002: 43 44  CD\n", "  0x0004: 45     E \n"};
    const std::string whole = lines[0] + lines[1] + lines[2], message = "BUFFER TOO SMALL";
    for (unsigned size = 1; size <= whole.size() + 2; ++size) {
        std::string expected;
        size_t next = 0;
        while (next < 3 && expected.size() + lines[next].size() < size) expected += lines[next++];
        const size_t room = size - expected.size();
        if (next < 3 && room >= 2) expected += message.substr(0, room - 2) + "\n";
        std::vector<char> buffer(size + 1, '#');
        EXPECT_EQ(StringUtils::HexDump(buffer.data(), size, "ABCDE", 5, 2, -2), expected.size());
        EXPECT_EQ(std::string(buffer.data()), expected) << size;
        EXPECT_EQ(buffer[size], '#') << size;
    }
}

}  // namespace
