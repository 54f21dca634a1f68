// The hex dump of StringUtils. Every line has the same length, so the room needed and the number of lines that fit are
// plain arithmetic, done in 64 bits since the indentation may be any int.
#include <algorithm>
#include <cctype>
#include <cstring>

#include "runtime/StringUtils.h"
#include "runtime/Types.h"

namespace {

constexpr int kMaxDumpBytes = 65535;
constexpr int kDefaultBytesPerLine = 16;
constexpr int64 kLineOverhead = 10;  // "0x0000: ", the blank before the text, the line feed
constexpr int64 kMessageRoom = 64;

struct DumpLayout {
    const unsigned char* bytes;
    int length;
    int bytesPerLine;
    int64 indent;
    int64 firstIndent;

    int64 Lines() const { return (int64{length} + bytesPerLine - 1) / bytesPerLine; }
    int64 LineSize() const { return indent + 4LL * bytesPerLine + kLineOverhead; }
    int64 Size(int64 lines) const { return lines == 0 ? 0 : lines * LineSize() - (indent - firstIndent); }
};

char* WriteLine(char* out, const DumpLayout& layout, int64 line) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    const int64 indent = line == 0 ? layout.firstIndent : layout.indent;
    const int offset = static_cast<int>(line * layout.bytesPerLine);
    const int count = std::min(layout.bytesPerLine, layout.length - offset);
    std::memset(out, ' ', static_cast<size_t>(indent));
    out += indent;
    out += StringUtils::Snprintf(out, sizeof "0x0000: ", "0x%04x: ", static_cast<unsigned>(offset));
    char* text = out + 3LL * layout.bytesPerLine + 1;
    std::memset(out, ' ', static_cast<size_t>(4LL * layout.bytesPerLine + 1));
    for (int i = 0; i < count; ++i) {
        const unsigned char byte = layout.bytes[offset + i];
        out[3 * i] = kDigits[byte >> 4];
        out[3 * i + 1] = kDigits[byte & 0xF];
        text[i] = std::isprint(byte) ? static_cast<char>(byte) : '.';
    }
    text += layout.bytesPerLine;
    *text++ = '\n';
    return text;
}

}  // namespace

unsigned StringUtils::HexDump(char* dst, unsigned size, const void* data, int length, int bytesPerLine, int indent) {
    const bool measure = !dst || size == 0;
    length = std::min(length, kMaxDumpBytes);
    if (!data || length < 1) {
        if (!measure) dst[0] = '\0';
        return 0;
    }
    DumpLayout layout{static_cast<const unsigned char*>(data), length, bytesPerLine, indent, indent};
    if (bytesPerLine <= 0) layout.bytesPerLine = kDefaultBytesPerLine;
    if (indent < 0) {
        layout.indent = -layout.indent;
        layout.firstIndent = 0;
    }
    if (measure) return static_cast<unsigned>(std::min<int64>(layout.Size(layout.Lines()), UINT32_MAX));

    char* out = dst;
    int64 line = 0;
    for (; line < layout.Lines() && layout.Size(line + 1) < size; ++line) out = WriteLine(out, layout, line);
    *out = '\0';
    const int room = static_cast<int>(std::min<int64>(size - (out - dst), kMessageRoom));
    if (line < layout.Lines() && room >= 2) out += Snprintf(out, room, "%.*s\n", room - 2, "BUFFER TOO SMALL");
    return static_cast<unsigned>(out - dst);
}
