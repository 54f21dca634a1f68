#include "tools/logview/LogLine.h"

#include <algorithm>
#include <ctime>

namespace {

constexpr std::string_view kLetters = "AEWIDTVN?";
constexpr std::string_view kStampShape = "0000-00-00 00:00:00.000";
constexpr size_t kBlankInStamp = 10;
constexpr std::string_view kDiskNotice = "******* Free disk space is ";
constexpr std::string_view kDroppedBegin = "******* Dropped ";
constexpr std::string_view kDroppedEnd = " messages *******";
constexpr std::string_view kBatchMode = "***** BATCH MODE ENABLED *****";
constexpr std::string_view kNewSession =
    "************************   NEW LOG SESSION STARTING   "
    "************************";
constexpr size_t kSeparatorLength = 39;
constexpr size_t kRuleLength = 78;

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

bool ConsistsOf(std::string_view text, char c) {
    return text.find_first_not_of(c) == std::string_view::npos;
}

// Takes apart from the front; each step returns false if the text goes on differently.
struct Scanner {
    std::string_view rest;

    bool Skip(std::string_view text) {
        if (!rest.starts_with(text)) return false;
        rest.remove_prefix(text.size());
        return true;
    }

    bool Stamp(std::string_view* stamp) {
        if (rest.size() <= kStampShape.size()) return false;
        const bool utc = rest[kBlankInStamp] == 'T';
        for (size_t i = 0; i < kStampShape.size(); i++) {
            const bool fits = kStampShape[i] == '0' ? IsDigit(rest[i])
                              : i == kBlankInStamp  ? utc || rest[i] == ' '
                                                    : rest[i] == kStampShape[i];
            if (!fits) return false;
        }
        if (utc != (rest[kStampShape.size()] == 'Z')) return false;
        const size_t length = kStampShape.size() + (utc ? 1 : 0);
        *stamp = rest.substr(0, length);
        rest.remove_prefix(length);
        return true;
    }

    bool Hex(size_t minDigits, size_t maxDigits, uint64_t* value) {
        size_t count = 0;
        *value = 0;
        for (; count < rest.size() && count < maxDigits; count++) {
            const char c = rest[count];
            if (!IsDigit(c) && !(c >= 'A' && c <= 'F')) break;
            *value = *value << 4 | static_cast<uint64_t>(IsDigit(c) ? c - '0' : c - 'A' + 10);
        }
        if (count < minDigits) return false;
        rest.remove_prefix(count);
        return true;
    }
};

std::string_view WithoutStars(std::string_view text) {
    const size_t begin = text.find_first_not_of("* "), end = text.find_last_not_of("* ");
    return begin == std::string_view::npos ? std::string_view() : text.substr(begin, end + 1 - begin);
}

bool IsDroppedNotice(std::string_view line) {
    if (line.size() <= kDroppedBegin.size() + kDroppedEnd.size()) return false;
    if (!line.starts_with(kDroppedBegin) || !line.ends_with(kDroppedEnd)) return false;
    line.remove_prefix(kDroppedBegin.size());
    line.remove_suffix(kDroppedEnd.size());
    return std::all_of(line.begin(), line.end(), IsDigit);
}

LogLine ParseStarred(std::string_view line) {
    LogLine result;
    const bool rule = line.size() == kRuleLength && ConsistsOf(line, '*');
    if (!rule && line != kNewSession && line != kBatchMode && !IsDroppedNotice(line)) return result;
    result.kind = LineKind::Notice;
    result.text = WithoutStars(line);
    return result;
}

LogLine ParseStamped(std::string_view line) {
    Scanner scanner{line};
    LogLine result;
    uint64_t process = 0;
    if (!scanner.Stamp(&result.stamp) || !scanner.Skip(" <")) return {};
    const char* const threadBegin = scanner.rest.data();
    if (!scanner.Hex(8, 16, &result.thread)) return {};
    result.threadText = {threadBegin, static_cast<size_t>(scanner.rest.data() - threadBegin)};
    if (!scanner.Skip("> [") || !scanner.Hex(4, 8, &process) || !scanner.Skip("] ")) return {};
    result.process = static_cast<uint32_t>(process);
    if (scanner.rest.starts_with(kDiskNotice)) {
        result.kind = LineKind::Notice;
        result.text = WithoutStars(scanner.rest);
        return result;
    }
    if (scanner.rest.size() < 2 || scanner.rest[1] != ' ') return {};
    const size_t letter = kLetters.find(scanner.rest[0]);
    if (letter == std::string_view::npos) return {};
    scanner.rest.remove_prefix(2);
    const size_t nameEnd = scanner.rest.find(": ");
    if (nameEnd == std::string_view::npos) return {};
    result.kind = LineKind::Entry;
    result.level = static_cast<int>(letter);
    result.function = scanner.rest.substr(0, nameEnd);
    result.text = scanner.rest.substr(nameEnd + 2);
    return result;
}

}  // namespace

LogLine ParseLogLine(std::string_view line) {
    if (line.empty()) return {};
    if (IsDigit(line[0])) return ParseStamped(line);
    if (line[0] == '*') return ParseStarred(line);
    LogLine result;
    if (line.size() == kSeparatorLength && ConsistsOf(line, '-')) result.kind = LineKind::Separator;
    return result;
}

std::optional<int64_t> StampToMS(std::string_view stamp) {
    if (stamp.size() < kStampShape.size()) return std::nullopt;
    const auto number = [&](size_t at, size_t digits) {
        int value = 0;
        for (const char c : stamp.substr(at, digits)) value = value * 10 + (c - '0');
        return value;
    };
    tm parts = {};
    parts.tm_year = number(0, 4) - 1900;
    parts.tm_mon = number(5, 2) - 1;
    parts.tm_mday = number(8, 2);
    parts.tm_hour = number(11, 2);
    parts.tm_min = number(14, 2);
    parts.tm_sec = number(17, 2);
    parts.tm_isdst = -1;
    const time_t seconds = stamp.back() == 'Z' ? timegm(&parts) : mktime(&parts);
    return int64_t{seconds} * 1000 + number(20, 3);
}
