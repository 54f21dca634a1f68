#include "runtime/XString.h"

#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <utility>

#include "runtime/StringUtils.h"

namespace StringUtils {

namespace {

char* Copy(const char* text) {
    return text ? strdup(text) : nullptr;
}

wchar_t* Copy(const wchar_t* text) {
    return text ? wcsdup(text) : nullptr;
}

}  // namespace

XString::XString(const XString& other)
    : wide(Copy(other.wide)), wideOwned(wide != nullptr), narrow(Copy(other.narrow)), narrowOwned(narrow != nullptr) {}

XString::XString(XString&& other) noexcept
    : wide(std::exchange(other.wide, nullptr)),
      wideOwned(std::exchange(other.wideOwned, false)),
      narrow(std::exchange(other.narrow, nullptr)),
      narrowOwned(std::exchange(other.narrowOwned, false)) {}

XString& XString::operator=(const XString& other) {
    if (this != &other) *this = XString(other);
    return *this;
}

XString& XString::operator=(XString&& other) noexcept {
    if (this == &other) return *this;
    Set(std::exchange(other.wide, nullptr), std::exchange(other.wideOwned, false), std::exchange(other.narrow, nullptr),
        std::exchange(other.narrowOwned, false));
    return *this;
}

void XString::Assign(const char* text) {
    Adopt(Copy(text));
}

void XString::Assign(const wchar_t* text) {
    Adopt(Copy(text));
}

void XString::Adopt(char* text) {
    Set(nullptr, false, text, text != nullptr);
}

void XString::Adopt(wchar_t* text) {
    Set(text, text != nullptr, nullptr, false);
}

void XString::Borrow(const char* text) {
    Set(nullptr, false, const_cast<char*>(text), false);
}

void XString::Borrow(const wchar_t* text) {
    Set(const_cast<wchar_t*>(text), false, nullptr, false);
}

void XString::Clear() {
    Set(nullptr, false, nullptr, false);
}

const wchar_t* XString::Wide() {
    if (!wide && narrow) {
        wide = MultiByteToWideStr(narrow, nullptr);
        wideOwned = wide != nullptr;
    }
    return wide ? wide : L"";
}

void XString::Set(wchar_t* newWide, bool ownsWide, char* newNarrow, bool ownsNarrow) {
    if (wideOwned) std::free(wide);
    if (narrowOwned) std::free(narrow);
    wide = newWide;
    wideOwned = ownsWide;
    narrow = newNarrow;
    narrowOwned = ownsNarrow;
}

}  // namespace StringUtils
