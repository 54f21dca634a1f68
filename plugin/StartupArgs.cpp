#include "plugin/StartupArgs.h"

#include <algorithm>
#include <optional>

namespace {

// Takes the token ahead of the next comma off text, or all that is left.
std::string_view TakeToken(std::string_view& text) {
    const size_t comma = text.find(',');
    const std::string_view token = text.substr(0, comma);
    text.remove_prefix(comma == std::string_view::npos ? text.size() : comma + 1);
    return token;
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

std::optional<std::string> Decode(std::string_view token) {
    std::string decoded;
    for (size_t i = 0; i < token.size(); ++i) {
        if (token[i] != '/') {
            decoded += token[i];
            continue;
        }
        if (token.size() - i < 3) return std::nullopt;
        const int high = HexDigit(token[i + 1]);
        const int low = HexDigit(token[i + 2]);
        if (high < 0 || low < 0) return std::nullopt;
        decoded += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return decoded;
}

}  // namespace

bool StartupArgsMap::Parse(std::string_view text) {
    const auto tokens = std::count(text.begin(), text.end(), ',') + 1;
    for (auto pairs = tokens / 2; pairs > 0; --pairs) {
        const std::optional<std::string> key = Decode(TakeToken(text));
        const std::optional<std::string> value = Decode(TakeToken(text));
        if (!key || !value) return false;
        Set(*key, *value);
    }
    return tokens % 2 == 0;
}

bool StartupArgsMap::Get(const std::string& key, std::string& out) const {
    const auto found = values.find(key);
    if (found == values.end()) return false;
    out = found->second;
    return true;
}

void StartupArgsMap::Set(const std::string& key, const std::string& value) {
    values.insert_or_assign(key, value);
}

void StartupArgs_CleanUpPid(std::string& pid) {
    std::replace(pid.begin(), pid.end(), '\\', '/');
    if (pid.size() <= kPidLimit) return;
    const size_t tail = pid.rfind('@');
    if (tail == std::string::npos) {
        pid.resize(kPidLimit);
    } else if (tail > kPidLimit) {
        pid.erase(kPidLimit, tail - kPidLimit);
    }
}
