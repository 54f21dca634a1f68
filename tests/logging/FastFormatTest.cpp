#include "logging/FastFormat.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <string>

namespace {

int Fast(char* dst, size_t size, const char* format, ...) __attribute__((format(printf, 3, 4)));
int Fast(char* dst, size_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length = FastFormat(dst, size, format, args);
    va_end(args);
    return length;
}

// The library is the model.
#define EXPECT_LIKE_PRINTF(...)                                                   \
    do {                                                                          \
        char expected[512], actual[512];                                          \
        const int length = std::snprintf(expected, sizeof expected, __VA_ARGS__); \
        EXPECT_EQ(Fast(actual, sizeof actual, __VA_ARGS__), length);              \
        EXPECT_STREQ(actual, expected);                                           \
    } while (false)

TEST(FastFormat, WritesWhatTheLibraryWrites) {
    EXPECT_LIKE_PRINTF("no directive\n");
    EXPECT_LIKE_PRINTF("%d %i %d %d", 0, -1, INT_MAX, INT_MIN);
    EXPECT_LIKE_PRINTF("%u %x %X %08X %02x", UINT_MAX, 0xBEEFu, 0xBEEFu, 0xABCu, 0x181u);
    EXPECT_LIKE_PRINTF("%5d|%05d|%05d|%1d", 42, 42, -42, -1234567);
    EXPECT_LIKE_PRINTF("%ld %lu %lx %lld %llu %llX", LONG_MIN, ULONG_MAX, ULONG_MAX, LLONG_MIN, ULLONG_MAX, ULLONG_MAX);
    EXPECT_LIKE_PRINTF("%zd %zu %jd %td", static_cast<ssize_t>(-5), size_t{65536}, intmax_t{-7}, ptrdiff_t{9});
    EXPECT_LIKE_PRINTF("%hd %hu %hhd %hhu %hhx", static_cast<short>(-3), static_cast<unsigned short>(65535),
                       static_cast<signed char>(-1), static_cast<unsigned char>(255), static_cast<unsigned char>(0xA5));
    EXPECT_LIKE_PRINTF("%s and %s%c%%", "text", "", 'x');
    int word = 0;
    EXPECT_LIKE_PRINTF("0x%p", static_cast<void*>(&word));
    EXPECT_LIKE_PRINTF("%64d|%064x", -1, 1u);
}

TEST(FastFormat, LeavesTheRestToTheLibrary) {
    char dst[256];
    EXPECT_EQ(Fast(dst, sizeof dst, "%.3f", 1.0), -1);
    EXPECT_EQ(Fast(dst, sizeof dst, "%10s", "a"), -1);
    EXPECT_EQ(Fast(dst, sizeof dst, "%-5d", 1), -1);
    EXPECT_EQ(Fast(dst, sizeof dst, "%*d", 5, 1), -1);
    EXPECT_EQ(Fast(dst, sizeof dst, "%ls", L"wide"), -1);
    EXPECT_EQ(Fast(dst, sizeof dst, "%65d", 1), -1);
    EXPECT_EQ(Fast(dst, sizeof dst, "%p", static_cast<void*>(nullptr)), -1);
}

TEST(FastFormat, NeverWritesBeyondTheEnd) {
    const std::string text(40, 'y');
    for (size_t size = 0; size < 140; ++size) {
        std::string buffer(160, '#');
        const int length = Fast(buffer.data(), size, "%s %d", text.c_str(), 12345);
        ASSERT_EQ(buffer.substr(size), std::string(160 - size, '#')) << size;
        if (length >= 0) {
            EXPECT_EQ(std::string(buffer.c_str()), text + " 12345");
        }
    }
}

}  // namespace
