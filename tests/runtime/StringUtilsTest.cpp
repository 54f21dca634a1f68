#include "runtime/StringUtils.h"

#include <gtest/gtest.h>

#include <climits>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "tests/support/EnvironmentVariable.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Pattern.h"

namespace {

// Formats that fail to encode, which the compiler sees through if they are written out.
const wchar_t kNoCharacter[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};

TEST(Format, IsCutToItsRoomAndEmptyWhenItCantBeEncoded) {
    EXPECT_EQ(StringUtils::Format("%*s", 10'239, "").size(), 10'239u);
    EXPECT_EQ(StringUtils::Format("%*s", 10'240, "").size(), 10'239u);
    EXPECT_EQ(StringUtils::Format("before %ls", kNoCharacter), "");
    struct Case {
        int size, result;
        const char* stored;
    };
    for (const Case& c :
         {Case{-1, 0, "########"}, {0, 0, "########"}, {1, 0, ""}, {4, 3, "abc"}, {5, 4, "abcd"}, {6, 4, "abcd"}}) {
        char text[] = "########";
        EXPECT_EQ(StringUtils::Snprintf(text, c.size, "%s", "abcd"), c.result) << c.size;
        EXPECT_STREQ(text, c.stored) << c.size;
    }
    char text[] = "earlier";
    EXPECT_EQ(StringUtils::Snprintf(text, sizeof text, "before %ls", kNoCharacter), 0);
    EXPECT_STREQ(text, "");
}

TEST(CopyString, CopiesAtMostSoMany) {
    const char unended[] = {'a', 'b', 'c'};
    char text[] = "########";
    EXPECT_EQ(StringUtils::CopyString(text, unended, -1), 0);
    EXPECT_STREQ(text, "########");
    EXPECT_EQ(StringUtils::CopyString(text, unended, 3), 3) << "looks no further than maxChars";
    EXPECT_STREQ(text, "abc");
    EXPECT_EQ(StringUtils::CopyString(text, "ab", 5), 2);
    EXPECT_STREQ(text, "ab");
    EXPECT_EQ(StringUtils::CopyString(text, nullptr, 5), 0);
    EXPECT_STREQ(text, "");
}

TEST(Trim, TakesBlanksOffBothEnds) {
    for (const auto& [text, trimmed] : std::vector<std::pair<std::string, std::string>>{
             {"", ""}, {" \t\r\n\v\f ", ""}, {"a", "a"}, {"  a b\n", "a b"}, {"a ", "a"}, {"\xA0\xFFz", "\xA0\xFFz"}}) {
        EXPECT_EQ(StringUtils::Trim(text), trimmed);
    }
}

TEST(LogLevelFromName, KnowsTheNamesInAnyCase) {
    const char* const names[] = {"always", "ERROR", "Warn", "info", "debug", "tracE", "verbose", "never"};
    for (int level = 0; level < 8; ++level) EXPECT_EQ(LogLevelFromName(names[level], 8), level);
    EXPECT_EQ(LogLevelFromName("warning", 7), 7);
    EXPECT_EQ(LogLevelFromName(" info", 1), 1);
    EXPECT_EQ(LogLevelFromName(nullptr, 8), 3) << "no level either";
}

TEST(MultiByteToWideStr, ConvertsInTheLocaleOrSaysThatItCant) {
    const LogCapture log;
    size_t length = 99;
    wchar_t* text = MultiByteToWideStr("", nullptr);
    EXPECT_STREQ(text, L"");
    std::free(text);
    if (std::setlocale(LC_CTYPE, "C.UTF-8")) {
        text = MultiByteToWideStr("gr\xC3\xBC\xC3\x9F", &length);
        std::setlocale(LC_CTYPE, "C");
        EXPECT_STREQ(text, L"gr\u00FC\u00DF");
        EXPECT_EQ(length, 4u);
        std::free(text);
    }
    length = 99;
    EXPECT_EQ(MultiByteToWideStr("\xFF", &length), nullptr);
    EXPECT_EQ(MultiByteToWideStr(nullptr, nullptr), nullptr);
    EXPECT_EQ(length, 99u);
    EXPECT_EQ(log.Texts(kLogError), std::vector<std::string>(2, "Invalid Multi-Byte Sequence!\n"));
}

TEST(FormatDuration, PicksTheShortestFormThatKeepsTheDigits) {
    struct Case {
        double seconds;
        int digits;
        std::string text;
    };
    const std::string longest = "1157407407 days 9:46:40.000";
    for (const Case& c : {Case{1.5, 3, "1.500s"},
                          {0, 3, "0ms"},
                          {0.25, 6, "250000us"},
                          {0.25, 9, "250000000ns"},
                          {0.0625, 4, "0.0625s"},
                          {2.0625, 6, "2.062500s"},
                          {0.4, 0, "0s"},
                          {0.5, 0, "1s"},
                          {7, -4, "7s"},
                          {0.9999, 3, "999ms"},
                          {59.9996, 0, "0:01:00"},
                          {59.9996, 3, "59.999s"},
                          {90.0625, 2, "0:01:30.06"},
                          {86399, 0, "23:59:59"},
                          {86399.5, 0, "1 day"},
                          {86401, 0, "1 day 0:00:01"},
                          {86400, 1, "1 day 0:00:00.0"},
                          {172800, 3, "2 days 0:00:00.000"},
                          {-1.5, 3, "-1.500s"},
                          {-90, INT_MIN, "-0:01:30"},
                          {std::nan(""), 3, "0ms"},
                          {1e300, 3, longest},
                          {-INFINITY, 3, "-" + longest}}) {
        EXPECT_EQ(StringUtils::FormatDuration(c.seconds, c.digits), c.text) << c.seconds << ", " << c.digits;
    }
    EXPECT_EQ(StringUtils::FormatDuration(0.25, 33).size(), sizeof "0.s" - 1 + 32);
}

TEST(FormatBytes, StepsBy1024From1000) {
    struct Case {
        double bytes;
        unsigned digits;
        const char* text;
    };
    for (const Case& c : {Case{999.9, 2, "999B"},
                          {1000, 2, "0.98KB"},
                          {-1000, 2, "-0.98KB"},
                          {1024, 0, " 1KB"},
                          {1024 * 1000.0, 2, "0.98MB"},
                          {1536.0 * 1024 * 1024, 1, "1.5GB"},
                          {std::pow(2, 40), 3, "1.000TB"},
                          {std::pow(2, 60), 0, "1024PB"}}) {
        EXPECT_EQ(StringUtils::FormatBytes(c.bytes, c.digits), c.text) << c.bytes;
    }
    EXPECT_EQ(StringUtils::FormatBytes(1e300, 2).size(), 127u) << "cut";
    EXPECT_LE(StringUtils::FormatBytes(1024, UINT_MAX).size(), 127u);
}

// The wall clock lies between two readings of it.
TEST(FormatTimestamp, IsTheWallClockOfTheZoneCutToItsRoom) {
    const EnvironmentVariable zone("TZ", "XYZ-5:30");
    tzset();
    EXPECT_EQ(StringUtils::GetTimeZoneText(), L"XYZ (UTC +0530)");
    for (const bool utc : {false, true}) {
        const time_t before = std::time(nullptr);
        const std::string text = StringUtils::GetTimestamp(utc);
        const time_t after = std::time(nullptr);
        const std::string day = R"(\d{4}-\d\d-\d\d)", time = R"(\d\d:\d\d:\d\d\.\d{3})";
        ASSERT_TRUE(Matches(text, utc ? day + "T" + time + "Z" : day + " " + time)) << text;
        tm parts{};
        ASSERT_TRUE(strptime(text.c_str(), utc ? "%Y-%m-%dT%H:%M:%S" : "%Y-%m-%d %H:%M:%S", &parts));
        const time_t read = timegm(&parts) - (utc ? 0 : 5 * 3600 + 1800);
        EXPECT_GE(read, before - 1);
        EXPECT_LE(read, after);
    }
    char text[24] = "earlier";
    EXPECT_EQ(StringUtils::FormatTimestamp(nullptr, 24, true), 0);
    EXPECT_EQ(StringUtils::FormatTimestamp(text, 0, true), 0);
    EXPECT_STREQ(text, "earlier");
    EXPECT_EQ(StringUtils::FormatTimestamp(text, 1, true), 0);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(StringUtils::FormatTimestamp(text, 24, true), 23);
    EXPECT_EQ(std::strlen(text), 23u);
    EXPECT_EQ(StringUtils::FormatTimestamp(text, 24, false), 23) << "fits";
}

TEST(GetFunctionName, DropsAllButTheName) {
    struct Case {
        const char *signature, *name;
    };
    for (const Case& c :
         {Case{"bool KxMutex::Acquire(DWORD)", "KxMutex::Acquire()"},
          {"static bool KxPollThread::SchedulerThreadCB(void*, KxThread*)", "KxPollThread::SchedulerThreadCB()"},
          {"virtual KxEvent::~KxEvent()", "KxEvent::~KxEvent()"},
          {"main", "main"},
          {"int main", "main"},
          {"text ", ""},
          {"(anonymous namespace)::Work(int)", "()"},
          {"", ""},
          {nullptr, ""},
          {"@Ready name (as it is)", "Ready name (as it is)"},
          {"@", ""}}) {
        EXPECT_EQ(StringUtils::GetFunctionName(c.signature), c.name);
    }
}

TEST(GetFunctionName, KeepsWithinTheRoom) {
    struct Case {
        unsigned size;
        const char* name;
    };
    const char* const signature = "void Abc::Def(int)";
    for (const Case& c : {Case{0, ""}, {2, ""}, {3, "v"}, {9, "Abc::De"}, {10, "Abc::Def"}, {11, "Abc::Def()"}}) {
        std::vector<char> room(c.size + 1, '#');
        EXPECT_STREQ(StringUtils::GetFunctionName(signature, room.data(), c.size), c.name) << c.size;
        EXPECT_EQ(room[c.size], '#') << c.size;
    }
    const std::string longName(500, 'n');
    EXPECT_EQ(StringUtils::GetFunctionName(longName.c_str()), std::string(126, 'n'));
    const char* const ready = "@name";
    EXPECT_EQ(StringUtils::GetFunctionName(ready, nullptr, 0), ready + 1) << "no copy";
}

}  // namespace
