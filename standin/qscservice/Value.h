// Typed values and whole messages, as the programs on the stand-in's own C++ interface see them.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "rpc/QSCServiceTypes.h"

namespace qscservice {

// The kinds of value that only the service names, with the numbers of the published VARTYPE constants.
inline constexpr uint16_t kKindEmpty = 0;
inline constexpr uint16_t kKindInt16 = 2;
inline constexpr uint16_t kKindInt32 = 3;
inline constexpr uint16_t kKindFloat = 4;
inline constexpr uint16_t kKindDouble = 5;
inline constexpr uint16_t kKindInt8 = 16;
inline constexpr uint16_t kKindUInt16 = 18;
inline constexpr uint16_t kKindInt64 = 20;

// One typed value. Text and bytes are referred to, never owned: they live as long as the message they came from, or as
// long as the caller keeps them when the value goes into a message.
struct Value {
    uint16_t kind = kKindEmpty;
    uint64_t number = 0;            // the value's bits, of every kind but text and blob
    std::string_view text;          // QSC_VT_LPSTR; zero-terminated behind its end when it comes out of a message
    std::span<const uint8_t> blob;  // QSC_VT_BLOB

    Value() = default;
    Value(int32_t value) : kind(kKindInt32), number(static_cast<uint32_t>(value)) {}
    Value(uint32_t value) : kind(QSC_VT_UI4), number(value) {}
    Value(int64_t value) : kind(kKindInt64), number(static_cast<uint64_t>(value)) {}
    Value(uint64_t value) : kind(QSC_VT_UI8), number(value) {}
    Value(std::string_view value) : kind(QSC_VT_LPSTR), text(value) {}
    Value(const char* value) : kind(QSC_VT_LPSTR), text(value) {}
    Value(const std::string& value) : kind(QSC_VT_LPSTR), text(value) {}
    Value(std::span<const uint8_t> value) : kind(QSC_VT_BLOB), blob(value) {}
    Value(const std::vector<uint8_t>& value) : kind(QSC_VT_BLOB), blob(value) {}

    // Equal kind and equal content.
    friend bool operator==(const Value& a, const Value& b) {
        return a.kind == b.kind && a.number == b.number && a.text == b.text && a.blob.size() == b.blob.size() &&
               (a.blob.empty() || std::memcmp(a.blob.data(), b.blob.data(), a.blob.size()) == 0);
    }
};

// A list of values as an argument: {a, b} or a vector, referred to for the length of the call.
class Values : public std::span<const Value> {
public:
    Values() = default;
    Values(std::initializer_list<Value> list) : std::span<const Value>(list.begin(), list.size()) {}
    Values(const std::vector<Value>& list) : std::span<const Value>(list) {}
};

// A message with everything it carries. What its values refer to is kept alive by storage, which copies share.
struct Message {
    std::string object;  // name of the channel object that it was sent on
    uint32_t command = 0;
    uint32_t requestId = 0;
    bool post = true;  // no answer is expected
    std::vector<Value> params;
    std::vector<std::pair<std::string, Value>> namedParams;
    std::vector<Value> returnValues;
    std::shared_ptr<const std::vector<uint8_t>> storage;
};

}  // namespace qscservice
