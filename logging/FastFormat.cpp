#include "logging/FastFormat.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>

namespace {

constexpr int kMaxWidth = 64;
constexpr int kMaxNumber = 24;  // characters of the longest number, its sign included

struct Directive {
    bool zeros = false;
    int width = 0;
    bool hasLength = false;
    int size = sizeof(int);  // of an integer argument, in bytes
    char conversion = '\0';
};

// Reads what follows a "%" and returns the place behind it, null for what isn't known.
const char* Parse(const char* at, Directive* directive) {
    if (*at == '0') {
        directive->zeros = true;
        ++at;
    }
    for (; *at >= '0' && *at <= '9'; ++at) {
        directive->width = directive->width * 10 + (*at - '0');
        if (directive->width > kMaxWidth) return nullptr;
    }
    directive->hasLength = true;
    switch (*at) {
        case 'h':
            directive->size = at[1] == 'h' ? sizeof(char) : sizeof(short);
            at += at[1] == 'h' ? 2 : 1;
            break;
        case 'l':
            directive->size = at[1] == 'l' ? sizeof(long long) : sizeof(long);
            at += at[1] == 'l' ? 2 : 1;
            break;
        case 'z':
        case 't':
            directive->size = sizeof(size_t);
            ++at;
            break;
        case 'j':
            directive->size = sizeof(intmax_t);
            ++at;
            break;
        default:
            directive->hasLength = false;
            break;
    }
    directive->conversion = *at;
    return *at == '\0' ? nullptr : at + 1;
}

// The argument as the conversion sees it: cut to its size, with or without a sign.
uint64_t Cut(uint64_t value, int size, bool isSigned) {
    switch (size) {
        case 1:
            return isSigned ? static_cast<uint64_t>(static_cast<int8_t>(value)) : static_cast<uint8_t>(value);
        case 2:
            return isSigned ? static_cast<uint64_t>(static_cast<int16_t>(value)) : static_cast<uint16_t>(value);
        case 4:
            return isSigned ? static_cast<uint64_t>(static_cast<int32_t>(value)) : static_cast<uint32_t>(value);
        default:
            return value;
    }
}

char* WriteNumber(char* out, uint64_t value, const Directive& directive) {
    char digits[kMaxNumber] = {};
    const bool isSigned = directive.conversion == 'd';
    const bool negative = isSigned && static_cast<int64_t>(value) < 0;
    if (negative) value = 0 - value;
    const int base = isSigned || directive.conversion == 'u' ? 10 : 16;
    char* const end = std::to_chars(digits, digits + sizeof digits, value, base).ptr;
    if (directive.conversion == 'X') {
        for (char* at = digits; at != end; ++at) {
            if (*at >= 'a') *at = static_cast<char>(*at - 'a' + 'A');
        }
    }
    const int length = static_cast<int>(end - digits) + (negative ? 1 : 0);
    if (!directive.zeros) {
        for (int i = length; i < directive.width; ++i) *out++ = ' ';
    }
    if (negative) *out++ = '-';
    if (directive.zeros) {
        for (int i = length; i < directive.width; ++i) *out++ = '0';
    }
    std::memcpy(out, digits, static_cast<size_t>(end - digits));
    return out + (end - digits);
}

}  // namespace

int FastFormat(char* dst, size_t size, const char* format, va_list args) {
    if (size == 0) return -1;
    char* out = dst;
    const char* const limit = dst + size - 1;  // of the zero byte at the latest
    for (;;) {
        const char* const text = format;
        while (*format != '%' && *format != '\0') ++format;
        const auto length = static_cast<size_t>(format - text);
        if (length > static_cast<size_t>(limit - out)) return -1;
        std::memcpy(out, text, length);
        out += length;
        if (*format == '\0') break;

        Directive directive;
        format = Parse(format + 1, &directive);
        if (!format || limit - out < std::max(directive.width, kMaxNumber)) return -1;
        switch (directive.conversion) {
            case 'i':
                directive.conversion = 'd';
                [[fallthrough]];
            case 'd':
            case 'u':
            case 'x':
            case 'X': {
                const uint64_t value = directive.size > static_cast<int>(sizeof(int))
                                           ? (directive.size == sizeof(long long) ? va_arg(args, unsigned long long)
                                                                                  : va_arg(args, unsigned long))
                                           : va_arg(args, unsigned);
                out = WriteNumber(out, Cut(value, directive.size, directive.conversion == 'd'), directive);
                break;
            }
            case 's': {
                if (directive.width != 0 || directive.zeros || directive.hasLength) return -1;
                const char* string = va_arg(args, const char*);
                if (!string) string = "(null)";
                const size_t count = std::strlen(string);
                if (count > static_cast<size_t>(limit - out)) return -1;
                std::memcpy(out, string, count);
                out += count;
                break;
            }
            case 'c':
                if (directive.width != 0 || directive.zeros || directive.hasLength) return -1;
                *out++ = static_cast<char>(va_arg(args, int));
                break;
            case 'p': {
                if (directive.width != 0 || directive.zeros) return -1;
                const auto word = reinterpret_cast<uintptr_t>(va_arg(args, void*));
                if (word == 0) return -1;
                *out++ = '0';
                *out++ = 'x';
                directive.conversion = 'x';
                out = WriteNumber(out, word, directive);
                break;
            }
            case '%':
                if (format[-2] != '%') return -1;
                *out++ = '%';
                break;
            default:
                return -1;
        }
    }
    *out = '\0';
    return static_cast<int>(out - dst);
}
