#include "runtime/StringUtils.h"

#include <strings.h>
#include <sys/time.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cwchar>

#include "logging/Log.h"

namespace {

constexpr int kFormatSize = 10240;
constexpr int kShortTextSize = 128;
constexpr int kMaxDurationDigits = 32;
constexpr int kMaxBytesDigits = 100;
constexpr int64 kSecondsPerDay = 86400;
constexpr double kMaxDurationSeconds = 1e14;  // keeps the number of days within an int

constexpr const char* kLevelNames[] = {"always", "error", "warn", "info", "debug", "trace", "verbose", "never"};

// The digits of a fraction of a second, as a whole number. It stays a double, since 32 digits fit no integer type.
double ScaledFraction(double fraction, int digits) {
    return std::trunc(fraction * std::pow(10.0, digits));
}

const char* SubsecondUnit(int digits) {
    switch (digits) {
        case 3:
            return "ms";
        case 6:
            return "us";
        case 9:
            return "ns";
        default:
            return nullptr;
    }
}

// The text of a time stamp up to its milliseconds, which a thread keeps for as long as the second lasts.
struct StampOfSecond {
    time_t second = -1;
    int length = 0;
    char text[64];

    bool Make(time_t time, bool utc) {
        tm parts;
        if (!(utc ? gmtime_r(&time, &parts) : localtime_r(&time, &parts))) return false;
        length = StringUtils::Snprintf(text, sizeof text - 8, "%04d-%02d-%02d%c%02d:%02d:%02d.", parts.tm_year + 1900,
                                       parts.tm_mon + 1, parts.tm_mday, utc ? 'T' : ' ', parts.tm_hour, parts.tm_min,
                                       parts.tm_sec);
        second = time;
        return true;
    }
};

}  // namespace

namespace StringUtils {

std::string FormatV(const char* format, va_list args) {
    char text[kFormatSize];
    const int length = SnprintfV(text, sizeof text, format, args);
    return std::string(text, static_cast<size_t>(length));
}

std::string Format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = FormatV(format, args);
    va_end(args);
    return text;
}

int SnprintfV(char* dst, int size, const char* format, va_list args) {
    if (size < 1) return 0;
    const int length = std::vsnprintf(dst, static_cast<size_t>(size), format, args);
    if (length < 0) {
        dst[0] = '\0';
        return 0;
    }
    return std::min(length, size - 1);
}

int Snprintf(char* dst, int size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length = SnprintfV(dst, size, format, args);
    va_end(args);
    return length;
}

int CopyString(char* dst, const char* src, int maxChars) {
    if (maxChars < 0) return 0;
    const size_t length = src ? strnlen(src, static_cast<size_t>(maxChars)) : 0;
    if (length > 0) std::memcpy(dst, src, length);
    dst[length] = '\0';
    return static_cast<int>(length);
}

std::string Trim(const std::string& text) {
    const auto isSpace = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    const auto first = std::find_if_not(text.begin(), text.end(), isSpace);
    const auto last = std::find_if_not(text.rbegin(), std::make_reverse_iterator(first), isSpace).base();
    return std::string(first, last);
}

std::string FormatDuration(double seconds, int digits) {
    if (std::isnan(seconds)) seconds = 0;
    if (seconds < 0) return "-" + FormatDuration(-seconds, digits);
    seconds = std::min(seconds, kMaxDurationSeconds);
    digits = std::clamp(digits, 0, kMaxDurationDigits);

    const int64 whole = static_cast<int64>(digits == 0 ? seconds + 0.5 : seconds);
    const double fraction = digits == 0 ? 0.0 : ScaledFraction(seconds - static_cast<double>(whole), digits);
    const int days = static_cast<int>(whole / kSecondsPerDay);
    const int rest = static_cast<int>(whole % kSecondsPerDay);
    const int h = rest / 3600, m = rest / 60 % 60, s = rest % 60;

    char text[kShortTextSize];
    if (days == 0 && h == 0 && m == 0) {
        const char* unit = s == 0 ? SubsecondUnit(digits) : nullptr;
        if (digits == 0) {
            Snprintf(text, sizeof text, "%ds", s);
        } else if (unit) {
            Snprintf(text, sizeof text, "%.0f%s", fraction, unit);
        } else {
            Snprintf(text, sizeof text, "%d.%0*.0fs", s, digits, fraction);
        }
        return text;
    }
    int length = 0;
    if (days > 0) {
        const bool only = rest == 0 && digits == 0;
        length = Snprintf(text, sizeof text, "%d day%s ", days, days == 1 ? "" : "s");
        if (only) return std::string(text, static_cast<size_t>(length - 1));
    }
    char* const end = text + length;
    const int room = kShortTextSize - length;
    if (digits == 0) {
        Snprintf(end, room, "%d:%02d:%02d", h, m, s);
    } else {
        Snprintf(end, room, "%d:%02d:%02d.%0*.0f", h, m, s, digits, fraction);
    }
    return text;
}

std::string FormatBytes(double bytes, unsigned digits) {
    constexpr double kUnitLimit = 1000, kUnitStep = 1024;
    constexpr char kUnits[] = " KMGTP";
    char text[kShortTextSize];
    if (std::fabs(bytes) < kUnitLimit) {
        Snprintf(text, sizeof text, "%dB", static_cast<int>(bytes));
        return text;
    }
    int steps = 0;
    do {
        bytes /= kUnitStep;
        ++steps;
    } while (steps < 5 && !(std::fabs(bytes) < kUnitLimit));
    const int precision = static_cast<int>(std::min<unsigned>(digits, kMaxBytesDigits));
    Snprintf(text, sizeof text, "%*.*f%cB", precision + 2, precision, bytes, kUnits[steps]);
    return text;
}

int FormatTimestamp(char* dst, int size, bool utc) {
    if (!dst || size < 1) return 0;
    dst[0] = '\0';
    timeval now;
    if (gettimeofday(&now, nullptr) != 0) return 0;
    static thread_local StampOfSecond stamps[2];
    StampOfSecond& stamp = stamps[utc ? 1 : 0];
    if (now.tv_sec != stamp.second && !stamp.Make(now.tv_sec, utc)) return 0;
    const auto milliseconds = static_cast<unsigned>(now.tv_usec / 1000);
    char* const digits = stamp.text + stamp.length;
    digits[0] = static_cast<char>('0' + milliseconds / 100);
    digits[1] = static_cast<char>('0' + milliseconds / 10 % 10);
    digits[2] = static_cast<char>('0' + milliseconds % 10);
    digits[3] = utc ? 'Z' : '\0';
    digits[4] = '\0';
    return CopyString(dst, stamp.text, std::min(size - 1, stamp.length + (utc ? 4 : 3)));
}

std::string GetTimestamp(bool utc) {
    char text[kShortTextSize];
    const int length = FormatTimestamp(text, sizeof text, utc);
    return std::string(text, static_cast<size_t>(length));
}

std::wstring GetTimeZoneText() {
    const time_t now = std::time(nullptr);
    tm parts;
    if (now == -1 || !localtime_r(&now, &parts)) return {};
    wchar_t text[kShortTextSize];
    return std::wstring(text, std::wcsftime(text, kShortTextSize, L"%Z (UTC %z)", &parts));
}

const char* GetFunctionName(const char* signature, char* buf, unsigned size) {
    if (!signature) signature = "";
    if (signature[0] == '@') return signature + 1;
    if (size == 0) return "";
    const unsigned limit = size > 2 ? size - 2 : 0;
    const char* const bracket = std::strchr(signature, '(');
    if (bracket && bracket - signature < static_cast<std::ptrdiff_t>(limit)) {
        const auto* const blank =
            static_cast<const char*>(memrchr(signature, ' ', static_cast<size_t>(bracket - signature)));
        const char* const name = blank ? blank + 1 : signature;
        const auto nameLength = static_cast<size_t>(bracket - name);
        std::memcpy(buf, name, nameLength);
        std::memcpy(buf + nameLength, "()", 3);
        return buf;
    }
    unsigned length = 0;
    for (const char* next = signature; *next != '\0' && length < limit; ++next) {
        if (*next == ' ') {
            length = 0;
            continue;
        }
        buf[length++] = *next;
        if (*next == '(') {
            buf[length++] = ')';
            break;
        }
    }
    buf[length] = '\0';
    return buf;
}

std::string GetFunctionName(const char* signature) {
    char buf[kShortTextSize];
    return GetFunctionName(signature, buf, sizeof buf);
}

}  // namespace StringUtils

int LogLevelFromName(const char* name, unsigned defaultLevel) {
    if (name) {
        for (int level = kLogAlways; level <= kLogNever; ++level) {
            if (strcasecmp(name, kLevelNames[level]) == 0) return level;
        }
    }
    return defaultLevel > kLogNever ? kLogInfo : static_cast<int>(defaultLevel);
}

wchar_t* MultiByteToWideStr(const char* src, size_t* length) {
    const size_t count = src ? std::mbstowcs(nullptr, src, 0) : static_cast<size_t>(-1);
    if (count == static_cast<size_t>(-1)) {
        LOG(Error, "Invalid Multi-Byte Sequence!\n");
        return nullptr;
    }
    wchar_t* const text = static_cast<wchar_t*>(std::malloc((count + 1) * sizeof(wchar_t)));
    if (!text) {
        LOG(Error, "Memory allocation Failed!\n");
        return nullptr;
    }
    std::mbstowcs(text, src, count + 1);
    if (length) *length = count;
    return text;
}
