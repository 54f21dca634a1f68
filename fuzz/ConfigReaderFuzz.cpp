// The configuration file with arbitrary text, beside a plain scan of the same text: the same keys with the same values,
// the last one of each, without white space at their ends. What was read reads the same again, written plainly; a line
// behind all others wins, an empty value never. The first byte of the input chooses the section.
#include <strings.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>

#include "logging/ConfigSettingsReader.h"

namespace {

constexpr const char* kSections[] = {"", "A", "A.b", "Test.logger"};

void Require(bool holds) {
    if (!holds) std::abort();
}

bool IsSpace(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

std::string Cut(std::string text) {
    while (!text.empty() && IsSpace(text.back())) text.pop_back();
    while (!text.empty() && IsSpace(text.front())) text.erase(text.begin());
    return text;
}

std::map<std::string, std::string> Scan(const std::string& text, const std::string& section) {
    std::map<std::string, std::string> values;
    std::string line;
    for (size_t i = 0; i <= text.size(); ++i) {
        if (i < text.size() && text[i] != '\n') {
            line += text[i];
            continue;
        }
        const std::string current = std::move(line);
        line.clear();
        const size_t equals = current.find('=');
        if (equals == std::string::npos) continue;
        const std::string name = Cut(current.substr(0, equals));
        const size_t point = name.find_last_of('.');
        if (point == std::string::npos || name.substr(0, point).size() != section.size()) continue;
        bool same = true;
        for (size_t at = 0; at < point; ++at) {
            same = same && std::tolower(static_cast<unsigned char>(name[at])) ==
                               std::tolower(static_cast<unsigned char>(section[at]));
        }
        const std::string value = Cut(current.substr(equals + 1));
        const std::string key = Cut(name.substr(point + 1));
        if (same && !key.empty() && !value.empty()) values[key] = value;
    }
    return values;
}

RCPtr<ConfigSettingsReader> Read(const std::string& text, const std::string& section) {
    const RCPtr<ConfigSettingsReader> reader(new ConfigSettingsReader(section, ""));
    std::istringstream stream(text);
    reader->Parse(stream);
    return reader;
}

std::string ValueOf(const RCPtr<ConfigSettingsReader>& reader, const std::string& key) {
    std::string value;
    Require(reader->GetString(key, 0, value, true) && !value.empty());
    Require(!reader->GetString(key, 1, value, true));
    return value;
}

void CheckNumberAndTruth(const RCPtr<ConfigSettingsReader>& reader, const std::string& key, const std::string& value) {
    constexpr uint32_t kUntouched = 0xFFFFFFFF;
    uint32_t number = kUntouched;
    Require(reader->GetUInt(key, &number, true) == (number != kUntouched));
    bool truth = false;
    const bool found = reader->GetBool(key, &truth, true);
    const char* const text = value.c_str();
    Require(truth == (strcasecmp(text, "true") == 0));
    Require(found == (truth || strcasecmp(text, "false") == 0));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string section = kSections[data[0] % 4];
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    const std::map<std::string, std::string> expected = Scan(text, section);
    const RCPtr<ConfigSettingsReader> reader = Read(text, section);

    std::string plain;
    std::string later;
    for (const auto& [key, value] : expected) {
        Require(ValueOf(reader, key) == value);
        Require(!IsSpace(key.front()) && !IsSpace(key.back()) && !IsSpace(value.front()) && !IsSpace(value.back()));
        std::string none = "untouched";
        for (const std::string& other : {" " + key, key + " ", key + "\t", key + "=", section + "." + key}) {
            const bool found = reader->GetString(other, 0, none, true);
            Require(found == (expected.count(other) != 0));
        }
        CheckNumberAndTruth(reader, key, value);
        plain += section + "." + key + " = " + value + "\n";
        later += "\n" + section + "." + key + "=\n " + section + " . " + key + " = no section of ours\n";
    }
    const RCPtr<ConfigSettingsReader> again = Read(plain, section);
    const RCPtr<ConfigSettingsReader> unmoved = Read(text + later, section);
    const RCPtr<ConfigSettingsReader> replaced = Read(text + "\n" + section + ".last = one\n" + plain, section);
    for (const auto& [key, value] : expected) {
        Require(ValueOf(again, key) == value);
        if (!section.empty()) Require(ValueOf(unmoved, key) == value);
        Require(ValueOf(replaced, key) == value);
    }
    Require(expected.count("last") != 0 || ValueOf(replaced, "last") == "one");
    Require(ValueOf(Read(text + "\n" + section + ".last = two", section), "last") == "two");
    return 0;
}
