// The startup-argument string as a host could send it, well formed or not: the parse and the clean-up of the desktop
// identifier hold their promises for any bytes.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "plugin/StartupArgs.h"

namespace {

void Require(bool holds) {
    if (!holds) std::abort();
}

std::string Encode(std::string_view text) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string encoded;
    for (const char c : text) {
        const bool plain = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
        if (plain) {
            encoded += c;
        } else {
            const auto byte = static_cast<unsigned char>(c);
            encoded += {'/', kDigits[byte >> 4], kDigits[byte & 15]};
        }
    }
    return encoded;
}

void CheckEncodedTextComesBack(std::string_view text) {
    const std::string key(text.substr(0, text.size() / 2));
    const std::string value(text.substr(text.size() / 2));
    StartupArgsMap map;
    Require(map.Parse(Encode(key) + "," + Encode(value)));
    std::string found = "untouched";
    Require(map.Get(key, found) && found == value);
    Require(!map.Get(key + "x", found) && found == value);
}

void CheckParse(std::string_view text) {
    StartupArgsMap map;
    const bool whole = map.Parse(text);
    size_t commas = 0;
    for (const char c : text) commas += c == ',';
    if (commas % 2 == 0) Require(!whole);
    if (text.find('/') == std::string_view::npos) Require(whole == (commas % 2 == 1));
    if (whole) Require(!map.Parse(std::string(text) + ",odd"));
}

void CheckCleanUp(const std::string& original) {
    std::string pid = original;
    StartupArgs_CleanUpPid(pid);
    Require(pid.find('\\') == std::string::npos);
    Require(pid.size() <= original.size());
    const size_t tail = original.rfind('@');
    if (original.size() <= kPidLimit) {
        Require(pid.size() == original.size());
    } else if (tail == std::string::npos) {
        Require(pid.size() == kPidLimit);
    } else if (tail <= kPidLimit) {
        Require(pid.size() == original.size());
    } else {
        Require(pid.size() == kPidLimit + original.size() - tail && pid[kPidLimit] == '@');
    }
    for (size_t i = 0; i < pid.size() && i < kPidLimit; ++i) {
        Require(pid[i] == (original[i] == '\\' ? '/' : original[i]));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    CheckParse(text);
    CheckEncodedTextComesBack(text);
    CheckCleanUp(text);
    return 0;
}
