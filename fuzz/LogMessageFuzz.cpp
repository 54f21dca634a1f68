// The text of a message through arbitrary sequences of its operations, beside a std::string that does the same.
#include <fuzzer/FuzzedDataProvider.h>

#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "logging/LogMessage.h"

namespace {

constexpr int kMaxReserve = 1 << 16;
constexpr int kMaxText = 1 << 18;
constexpr int kMaxPart = 1000;

void Require(bool holds) {
    if (!holds) std::abort();
}

std::string TextOf(const LogMessage& message) {
    Require(message.Length() >= 0 && message.Length() < message.Capacity());
    Require(message.Capacity() >= LogMessage::kInlineSize);
    Require(message.Text()[message.Length()] == '\0');
    return {message.Text(), static_cast<size_t>(message.Length())};
}

void EndLine(std::string* text, bool wanted) {
    if (wanted && (text->empty() || text->back() != '\n')) *text += '\n';
}

__attribute__((format(printf, 3, 4))) bool Format(LogMessage& message, bool newline, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const bool done = message.Format(format, args, newline);
    va_end(args);
    return done;
}

std::string Scrubbed(std::string text) {
    std::string lower = text;
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    for (size_t at = lower.find("kes"); at != std::string::npos; at = lower.find("kes", at)) {
        const size_t word = lower.compare(at, 6, "kestor") == 0 ? 6 : 3;
        text.replace(at + 1, word - 1, word - 1, '*');
        at += word;
    }
    return text;
}

void CheckFormat(LogMessage& message, std::string* model, FuzzedDataProvider& input) {
    const bool newline = input.ConsumeBool();
    const std::string text = input.ConsumeRandomLengthString(kMaxPart);
    const std::string shown = text.c_str();  // up to a zero byte
    const int number = input.ConsumeIntegral<int>();
    const wchar_t bad[] = {static_cast<wchar_t>(0xDC00), 0};  // no character of any locale
    switch (input.ConsumeIntegralInRange(0, 4)) {
        case 0:
            Require(Format(message, newline, "%s", text.c_str()));
            *model += shown;
            break;
        case 1:
            Require(Format(message, newline, "%s=%d;", text.c_str(), number));
            *model += shown + "=" + std::to_string(number) + ";";
            break;
        case 2:
            Require(Format(message, newline, "%c%s", static_cast<char>(number), text.c_str()));
            *model += static_cast<char>(number) + shown;
            break;
        case 3: {
            const int width = std::abs(number % 2000);
            Require(Format(message, newline, "%*s", width, ""));
            *model += std::string(static_cast<size_t>(width), ' ');
            break;
        }
        default:
            Require(!Format(message, newline, "%s%ls", text.c_str(), bad));
            return;
    }
    EndLine(model, newline);
}

void CheckAppend(LogMessage& message, std::string* model, FuzzedDataProvider& input) {
    const bool newline = input.ConsumeBool();
    const bool whole = input.ConsumeBool();
    const std::string text = input.ConsumeRandomLengthString(kMaxPart);
    Require(!message.Append(nullptr, static_cast<int>(text.size()), newline));
    Require(message.Append(text.c_str(), whole ? -1 : static_cast<int>(text.size()), newline));
    *model += whole ? std::string(text.c_str()) : text;
    EndLine(model, newline);
}

// What a longer length shows is whatever the buffer holds there.
void CheckSetLength(LogMessage& message, std::string* model, FuzzedDataProvider& input) {
    const bool relative = input.ConsumeBool();
    const int near = input.ConsumeIntegralInRange(-4, message.Capacity() + 4);
    const int value = input.ConsumeBool() ? near : input.ConsumeIntegral<int>();
    const int64 wanted = (relative ? int64{message.Length()} : 0) + value;
    const bool possible = wanted >= 0 && wanted < message.Capacity();
    int room = 0;
    char* const end = message.GetBuffer(&room, true);
    Require(room == message.Capacity() - message.Length());
    Require(end == message.GetBuffer(nullptr, false) + message.Length());
    if (possible) std::memset(end, '.', static_cast<size_t>(room));
    Require(message.SetLength(value, relative) == possible);
    if (possible) model->resize(static_cast<size_t>(wanted), '.');
}

void CheckReserve(LogMessage& message, FuzzedDataProvider& input) {
    const int before = message.Capacity();
    if (input.ConsumeBool()) {
        const int bytes = input.ConsumeIntegralInRange(-10, kMaxReserve);
        const int multiplier = input.ConsumeIntegralInRange(-2, 3);
        Require(message.Reserve(bytes, multiplier));
        const int64 needed = int64{message.Length()} * multiplier + bytes;
        Require(message.Capacity() >= needed && message.Capacity() >= before);
        Require(message.Capacity() == before || message.Capacity() <= needed + LogMessage::kGrowthMargin);
        return;
    }
    Require(!message.Reserve(INT_MAX, input.ConsumeIntegralInRange(0, INT_MAX)));
    Require(message.Reserve(INT_MIN, input.ConsumeIntegralInRange(-3, 3)));
    Require(message.Capacity() == before);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    LogMessage message;
    std::string model;
    while (input.remaining_bytes() > 0 && message.Length() < kMaxText) {
        switch (input.ConsumeIntegralInRange(0, 6)) {
            case 0:
                CheckFormat(message, &model, input);
                break;
            case 1:
                CheckAppend(message, &model, input);
                break;
            case 2:
                CheckSetLength(message, &model, input);
                break;
            case 3:
                CheckReserve(message, input);
                break;
            case 4:
                message.Scrub();
                model = Scrubbed(model);
                break;
            case 5:  // a word in any case, which chance doesn't spell often
                for (char c : std::string("kestor").substr(0, input.ConsumeIntegralInRange(1, 6))) {
                    if (input.ConsumeBool()) c = static_cast<char>(std::toupper(c));
                    Require(message.Append(&c, 1, false));
                    model += c;
                }
                break;
            default:
                message.Clear();
                model.clear();
                Require(message.Capacity() == LogMessage::kInlineSize);
                break;
        }
        Require(TextOf(message) == model);
    }
    return 0;
}
