#include "tools/logview/Printers.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace {

constexpr char kHexDigits[] = "0123456789ABCDEF";
constexpr char kReplacement[] = "\\ufffd";
constexpr const char* kColors[] = {
    "\x1b[1;36m",  // ALWAYS
    "\x1b[1;31m",  // ERROR
    "\x1b[1;33m",  // WARN
    "\x1b[32m",    // INFO
    "\x1b[34m",    // DEBUG
    "\x1b[35m",    // TRACE
    "\x1b[2m",     // VERBOSE
    "\x1b[2m",     // NEVER
    "\x1b[2m",     // unknown
};
constexpr char kSeparatorColor[] = "\x1b[2m";
constexpr char kNoticeColor[] = "\x1b[7m";
constexpr char kResetColor[] = "\x1b[0m";

bool IsControl(unsigned char c) {
    return (c < 0x20 && c != '\n' && c != '\t') || c == 0x7F;
}

// The control characters U+0080 to U+009F as UTF-8 writes them.
bool IsUpperControl(std::string_view text, size_t at) {
    return text[at] == '\xC2' && at + 1 < text.size() && static_cast<unsigned char>(text[at + 1]) < 0xA0;
}

bool IsPlainInJson(unsigned char c) {
    return c >= 0x20 && c < 0x80 && c != '"' && c != '\\';
}

// The length of the valid UTF-8 character of several bytes at text, 0 if there is none (RFC 3629: no surrogates, no
// overlong form, nothing above U+10FFFF).
size_t Utf8Length(std::string_view text) {
    const auto byte = [&](size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u; };
    const auto within = [&](size_t i, unsigned low, unsigned high) { return byte(i) >= low && byte(i) <= high; };
    const unsigned lead = byte(0);
    if (lead >= 0xC2 && lead <= 0xDF) return within(1, 0x80, 0xBF) ? 2 : 0;
    if (lead >= 0xE0 && lead <= 0xEF) {
        const unsigned low = lead == 0xE0 ? 0xA0 : 0x80, high = lead == 0xED ? 0x9F : 0xBF;
        return within(1, low, high) && within(2, 0x80, 0xBF) ? 3 : 0;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        const unsigned low = lead == 0xF0 ? 0x90 : 0x80, high = lead == 0xF4 ? 0x8F : 0xBF;
        return within(1, low, high) && within(2, 0x80, 0xBF) && within(3, 0x80, 0xBF) ? 4 : 0;
    }
    return 0;
}

void AppendJsonControl(Output& output, unsigned char c) {
    switch (c) {
        case '\n':
            output.Append("\\n");
            break;
        case '\r':
            output.Append("\\r");
            break;
        case '\t':
            output.Append("\\t");
            break;
        case '"':
        case '\\':
            output.Append('\\');
            output.Append(static_cast<char>(c));
            break;
        default:
            output.Append("\\u00");
            output.Append(kHexDigits[c >> 4]);
            output.Append(kHexDigits[c & 15]);
    }
}

void AppendNumber(Output& output, uint32_t value) {
    std::array<char, 12> digits;
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
    output.Append({digits.data(), static_cast<size_t>(end - digits.data())});
}

}  // namespace

void AppendJson(Output& output, std::string_view text) {
    for (size_t at = 0; at < text.size();) {
        size_t plain = at;
        while (plain < text.size() && IsPlainInJson(static_cast<unsigned char>(text[plain]))) plain++;
        output.Append(text.substr(at, plain - at));
        at = plain;
        if (at == text.size()) break;
        const auto c = static_cast<unsigned char>(text[at]);
        if (c < 0x80) {
            AppendJsonControl(output, c);
            at++;
        } else if (const size_t length = Utf8Length(text.substr(at))) {
            output.Append(text.substr(at, length));
            at += length;
        } else {
            output.Append(kReplacement);
            at++;
        }
    }
}

void AppendEscaped(Output& output, std::string_view text) {
    size_t done = 0;
    for (size_t at = 0; at < text.size(); at++) {
        const bool upper = IsUpperControl(text, at);
        if (!upper && !IsControl(static_cast<unsigned char>(text[at]))) continue;
        output.Append(text.substr(done, at - done));
        if (upper) at++;
        const auto c = static_cast<unsigned char>(text[at]);
        const char shown[] = {'\\', 'x', kHexDigits[c >> 4], kHexDigits[c & 15]};
        output.Append({shown, sizeof shown});
        done = at + 1;
    }
    output.Append(text.substr(done));
}

void PlainPrinter::Print(std::string_view bytes) {
    if (escape)
        AppendEscaped(output, bytes);
    else
        output.Append(bytes);
}

void PlainPrinter::PrintColored(const char* code, std::string_view bytes) {
    output.Append(code);
    Print(bytes);
    output.Append(kResetColor);
}

void PlainPrinter::PrintFirstLine(const LogLine& line, std::string_view bytes) {
    if (line.kind == LineKind::Entry) {
        const size_t letterAt = static_cast<size_t>(line.function.data() - bytes.data()) - 2;
        const size_t textAt = static_cast<size_t>(line.text.data() - bytes.data());
        Print(bytes.substr(0, letterAt));
        PrintColored(kColors[line.level], bytes.substr(letterAt, textAt - 1 - letterAt));
        Print(bytes.substr(textAt - 1));
    } else {
        PrintColored(line.kind == LineKind::Notice ? kNoticeColor : kSeparatorColor, bytes);
    }
}

void PlainPrinter::Take(const LogRecord& record) {
    if (color && record.first) {
        const size_t lineEnd = std::min(record.bytes.find('\n'), record.bytes.size());
        PrintFirstLine(record.line, record.bytes.substr(0, lineEnd));
        Print(record.bytes.substr(lineEnd));
    } else {
        Print(record.bytes);
    }
    if (!record.midLine && record.bytes.back() != '\n') output.Append('\n');
}

void JsonPrinter::Take(const LogRecord& record) {
    std::string_view text = record.bytes;
    if (record.first) {
        Close();
        const LogLine& line = record.line;
        if (line.kind == LineKind::Entry) {
            text.remove_prefix(static_cast<size_t>(line.text.data() - text.data()));
            Open(line);
        } else {
            text.remove_prefix(std::min(text.find('\n'), text.size()));
            if (!line.text.empty()) {
                Open(line);
                AppendText(line.text);
            }
        }
    }
    if (!open) {
        text.remove_prefix(std::min(text.find_first_not_of('\n'), text.size()));
        if (text.empty()) return;
        Open(LogLine());
    }
    AppendText(text);
}

void JsonPrinter::Open(const LogLine& line) {
    output.Append('{');
    if (!line.stamp.empty()) {
        output.Append("\"time\":\"");
        output.Append(line.stamp);
        output.Append("\",\"thread\":\"");
        output.Append(line.threadText);
        output.Append("\",\"process\":");
        AppendNumber(output, line.process);
        output.Append(',');
    }
    if (line.kind == LineKind::Entry) {
        output.Append("\"level\":\"");
        output.Append(LogLevelName(line.level));
        output.Append("\",\"function\":\"");
        AppendJson(output, line.function);
        output.Append("\",");
    }
    output.Append(line.kind == LineKind::Notice ? "\"notice\":\"" : "\"text\":\"");
    open = true;
}

void JsonPrinter::AppendText(std::string_view text) {
    size_t length = text.size();
    while (length > 0 && text[length - 1] == '\n') length--;
    if (length > 0) {
        for (; lineFeeds > 0; lineFeeds--) output.Append("\\n");
        AppendJson(output, text.substr(0, length));
    }
    lineFeeds += text.size() - length;
}

void JsonPrinter::Close() {
    if (open) output.Append("\"}\n");
    open = false;
    lineFeeds = 0;
}

void JsonPrinter::Settle() {
    Close();
    output.Flush();
}
