#include "runtime/StringUtils.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/LogCapture.h"

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

// Formats that fail to encode, which the compiler sees through if they are written out.
const wchar_t kNoCharacter[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};

// text with a 9 for each digit.
std::string Shape(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; }, '9');
    return text;
}

// The C locale is restored at the end; false if the system has no UTF-8 locale.
class Utf8Locale {
public:
    Utf8Locale() : found(std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr) {}
    ~Utf8Locale() { std::setlocale(LC_CTYPE, "C"); }
    const bool found;
};

// Sets TZ for a scope.
class TimeZone {
public:
    explicit TimeZone(const char* zone) {
        if (const char* old = std::getenv("TZ")) saved = std::make_unique<std::string>(old);
        setenv("TZ", zone, 1);
        tzset();
    }
    ~TimeZone() {
        saved ? setenv("TZ", saved->c_str(), 1) : unsetenv("TZ");
        tzset();
    }

private:
    std::unique_ptr<std::string> saved;
};

TEST(Format, CutsAt10239Bytes) {
    for (const int length : {0, 1, 10'238, 10'239, 10'240, 100'000}) {
        const std::string text = StringUtils::Format("%*s", length, "");
        EXPECT_EQ(text.size(), static_cast<size_t>(std::min(length, 10'239))) << length;
    }
    EXPECT_EQ(StringUtils::Format("%s-%d", "a", 7), "a-7");
}

TEST(Format, IsEmptyWhenTheTextCantBeEncoded) {
    EXPECT_EQ(StringUtils::Format("before %ls", kNoCharacter), "");
    char text[8] = "earlier";
    EXPECT_EQ(StringUtils::Snprintf(text, sizeof text, "before %ls", kNoCharacter), 0);
    EXPECT_STREQ(text, "");
}

TEST(Snprintf, TellsWhatIsStoredAndEndsTheText) {
    struct Case {
        int size, result;
        const char* stored;
    };
    for (const Case& c : {Case{-1, 0, "########"},
                          {0, 0, "########"},
                          {1, 0, ""},
                          {3, 2, "ab"},
                          {4, 3, "abc"},
                          {5, 4, "abcd"},
                          {6, 4, "abcd"}}) {
        char text[] = "########";
        EXPECT_EQ(StringUtils::Snprintf(text, c.size, "%s", "abcd"), c.result) << c.size;
        EXPECT_STREQ(text, c.stored) << c.size;
    }
}

TEST(CopyString, CopiesAtMostSoMany) {
    struct Case {
        const char* src;
        int maxChars, result;
        const char* stored;
    };
    for (const Case& c : {Case{"abc", 5, 3, "abc"},
                          {"abc", 3, 3, "abc"},
                          {"abc", 2, 2, "ab"},
                          {"abc", 0, 0, ""},
                          {nullptr, 5, 0, ""},
                          {"abc", -1, 0, "########"}}) {
        char text[] = "########";
        EXPECT_EQ(StringUtils::CopyString(text, c.src, c.maxChars), c.result);
        EXPECT_STREQ(text, c.stored);
    }
    const char unended[] = {'a', 'b'};
    char text[3];
    EXPECT_EQ(StringUtils::CopyString(text, unended, 2), 2) << "looks no further than maxChars";
}

TEST(Trim, TakesBlanksOffBothEnds) {
    for (const auto& [text, trimmed] : std::vector<std::pair<std::string, std::string>>{
             {"", ""}, {" \t\r\n\v\f ", ""}, {"a", "a"}, {"  a b\n", "a b"}, {"a ", "a"}, {"\xA0\xFFz", "\xA0\xFFz"}}) {
        EXPECT_EQ(StringUtils::Trim(text), trimmed);
    }
}

TEST(LogLevelFromName, KnowsTheNamesInAnyCase) {
    struct Case {
        const char* name;
        unsigned fallback;
        int level;
    };
    for (const Case& c : {Case{"always", 3, 0},
                          {"ERROR", 3, 1},
                          {"Warn", 3, 2},
                          {"info", 0, 3},
                          {"debug", 0, 4},
                          {"tracE", 0, 5},
                          {"verbose", 0, 6},
                          {"never", 0, 7},
                          {"", 5, 5},
                          {"warning", 7, 7},
                          {" info", 1, 1},
                          {nullptr, 4, 4},
                          {"loud", 8, 3},
                          {nullptr, UINT_MAX, 3}}) {
        EXPECT_EQ(LogLevelFromName(c.name, c.fallback), c.level) << (c.name ? c.name : "null");
    }
}

TEST(MultiByteToWideStr, ConvertsInTheLocaleOrSaysThatItCant) {
    const LogCapture log;
    size_t length = 99;
    wchar_t* text = MultiByteToWideStr("abc", &length);
    ASSERT_TRUE(text);
    EXPECT_STREQ(text, L"abc");
    EXPECT_EQ(length, 3u);
    std::free(text);
    text = MultiByteToWideStr("", nullptr);
    EXPECT_STREQ(text, L"");
    std::free(text);
    const Utf8Locale utf8;
    if (utf8.found) {
        text = MultiByteToWideStr("gr\xC3\xBC\xC3\x9F", &length);
        EXPECT_STREQ(text, L"gr\u00FC\u00DF");
        EXPECT_EQ(length, 4u);
        std::free(text);
    }
    EXPECT_TRUE(log.Lines().empty());
    length = 99;
    EXPECT_EQ(MultiByteToWideStr("\xFF", &length), nullptr);
    EXPECT_EQ(MultiByteToWideStr(nullptr, nullptr), nullptr);
    EXPECT_EQ(length, 99u);
    EXPECT_EQ(log.Texts(kLogError), std::vector<std::string>(2, "Invalid Multi-Byte Sequence!\n"));
}

struct DurationCase {
    double seconds;
    int digits;
    const char* text;
};

TEST(FormatDuration, PicksTheShortestFormThatKeepsTheDigits) {
    for (const DurationCase& c : {DurationCase{1.5, 3, "1.500s"},
                                  {0.25, 3, "250ms"},
                                  {0, 3, "0ms"},
                                  {0.25, 6, "250000us"},
                                  {0.25, 9, "250000000ns"},
                                  {0.25, 2, "0.25s"},
                                  {0.0625, 4, "0.0625s"},
                                  {2.0625, 6, "2.062500s"},
                                  {0, 0, "0s"},
                                  {0.4, 0, "0s"},
                                  {0.5, 0, "1s"},
                                  {7, -4, "7s"},
                                  {0.9999, 3, "999ms"},
                                  {59.9996, 0, "0:01:00"},
                                  {59.9996, 3, "59.999s"},
                                  {90, 0, "0:01:30"},
                                  {90.25, 3, "0:01:30.250"},
                                  {90.0625, 2, "0:01:30.06"},
                                  {3600, 0, "1:00:00"},
                                  {86399, 0, "23:59:59"},
                                  {86399.5, 0, "1 day"},
                                  {86400, 0, "1 day"},
                                  {86401, 0, "1 day 0:00:01"},
                                  {86400, 1, "1 day 0:00:00.0"},
                                  {172800, 3, "2 days 0:00:00.000"},
                                  {5e9, 0, "57870 days 8:53:20"}}) {
        EXPECT_EQ(StringUtils::FormatDuration(c.seconds, c.digits), c.text) << c.seconds << ", " << c.digits;
    }
}

TEST(FormatDuration, StaysSensibleForWhatIsNoDuration) {
    const std::string at32 = StringUtils::FormatDuration(0.25, 32);
    EXPECT_EQ(at32.substr(0, 17), "0.250000000000000");
    EXPECT_EQ(at32.size(), sizeof "0.s" - 1 + 32);
    for (const DurationCase& c : {DurationCase{0.25, 33, at32.c_str()},
                                  {0.25, INT_MAX, at32.c_str()},
                                  {-1.5, 3, "-1.500s"},
                                  {-90, INT_MIN, "-0:01:30"},
                                  {std::nan(""), 3, "0ms"}}) {
        EXPECT_EQ(StringUtils::FormatDuration(c.seconds, c.digits), c.text) << c.seconds << ", " << c.digits;
    }
    const std::string longest = "1157407407 days 9:46:40.000";
    for (const double seconds : {1e14, 1e300, kInfinity}) {
        EXPECT_EQ(StringUtils::FormatDuration(seconds, 3), longest);
        EXPECT_EQ(StringUtils::FormatDuration(-seconds, 3), "-" + longest);
    }
}

TEST(FormatBytes, StepsBy1024From1000) {
    struct Case {
        double bytes;
        unsigned digits;
        const char* text;
    };
    for (const Case& c : {Case{0, 2, "0B"},
                          {999, 2, "999B"},
                          {999.9, 2, "999B"},
                          {-999, 2, "-999B"},
                          {1000, 2, "0.98KB"},
                          {-1000, 2, "-0.98KB"},
                          {1024, 0, " 1KB"},
                          {1024 * 999.0, 1, "999.0KB"},
                          {1024 * 1000.0, 2, "0.98MB"},
                          {1536.0 * 1024 * 1024, 1, "1.5GB"},
                          {std::pow(2, 40), 3, "1.000TB"},
                          {std::pow(2, 50), 0, " 1PB"},
                          {std::pow(2, 60), 0, "1024PB"},
                          {std::pow(2, 64), 0, "16384PB"}}) {
        EXPECT_EQ(StringUtils::FormatBytes(c.bytes, c.digits), c.text) << c.bytes;
    }
    EXPECT_EQ(StringUtils::FormatBytes(1e300, 2).size(), 127u) << "cut";
    EXPECT_LE(StringUtils::FormatBytes(1024, UINT_MAX).size(), 127u);
}

// The wall clock lies between two readings of it.
TEST(FormatTimestamp, IsTheWallClockOfTheZone) {
    const TimeZone zone("XYZ-5:30");
    for (const bool utc : {false, true}) {
        const time_t before = std::time(nullptr);
        const std::string text = StringUtils::GetTimestamp(utc);
        const time_t after = std::time(nullptr);
        ASSERT_EQ(Shape(text), utc ? "9999-99-99T99:99:99.999Z" : "9999-99-99 99:99:99.999");
        tm parts{};
        ASSERT_TRUE(strptime(text.c_str(), utc ? "%Y-%m-%dT%H:%M:%S" : "%Y-%m-%d %H:%M:%S", &parts));
        const time_t read = timegm(&parts) - (utc ? 0 : 5 * 3600 + 1800);
        EXPECT_GE(read, before - 1);
        EXPECT_LE(read, after);
    }
}

TEST(FormatTimestamp, IsCutToTheRoom) {
    char text[24];
    EXPECT_EQ(StringUtils::FormatTimestamp(nullptr, 24, true), 0);
    EXPECT_EQ(StringUtils::FormatTimestamp(text, 0, true), 0);
    EXPECT_EQ(StringUtils::FormatTimestamp(text, -1, true), 0);
    EXPECT_EQ(StringUtils::FormatTimestamp(text, 1, true), 0);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(StringUtils::FormatTimestamp(text, 24, true), 23);
    EXPECT_EQ(std::strlen(text), 23u);
    EXPECT_EQ(StringUtils::FormatTimestamp(text, 24, false), 23) << "fits";
}

TEST(GetTimeZoneText, NamesTheZoneAndItsOffset) {
    const TimeZone zone("XYZ-5:30");
    EXPECT_EQ(StringUtils::GetTimeZoneText(), L"XYZ (UTC +0530)");
}

struct FunctionCase {
    const char* signature;
    const char* name;
};

TEST(GetFunctionName, DropsAllButTheName) {
    for (const FunctionCase& c :
         {FunctionCase{"bool KxMutex::Acquire(DWORD)", "KxMutex::Acquire()"},
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
    for (const Case& c : {Case{0, ""},
                          {1, ""},
                          {2, ""},
                          {3, "v"},
                          {6, "void"},
                          {9, "Abc::De"},
                          {10, "Abc::Def"},
                          {11, "Abc::Def()"},
                          {12, "Abc::Def()"}}) {
        std::vector<char> room(c.size + 1, '#');
        EXPECT_STREQ(StringUtils::GetFunctionName(signature, room.data(), c.size), c.name) << c.size;
        EXPECT_EQ(room[c.size], '#') << c.size;
    }
    const std::string longName(500, 'n');
    EXPECT_EQ(StringUtils::GetFunctionName(longName.c_str()), std::string(126, 'n'));
}

TEST(GetFunctionName, HandsAReadyNameOutWithoutACopy) {
    char buf[] = "buffer";
    const char* const signature = "@name";
    EXPECT_EQ(StringUtils::GetFunctionName(signature, buf, sizeof buf), signature + 1);
    EXPECT_STREQ(buf, "buffer");
    EXPECT_EQ(StringUtils::GetFunctionName(signature, nullptr, 0), signature + 1);
}

}  // namespace
