// A text in wide form, narrow form or both.
#pragma once

namespace StringUtils {

// Holds a text that it owns (allocated with malloc, freed with free) or that the caller keeps alive. Each assignment
// replaces both forms. Not safe on several threads at once, not even for reading: the first request converts.
class XString {
public:
    XString() = default;
    explicit XString(const char* text) { Assign(text); }
    explicit XString(const wchar_t* text) { Assign(text); }
    XString(const XString& other);
    XString(XString&& other) noexcept;
    XString& operator=(const XString& other);
    XString& operator=(XString&& other) noexcept;
    virtual ~XString() { Clear(); }

    // Copies text; null clears. text may be one of this object's own forms. Without memory the object is empty.
    void Assign(const char* text);
    void Assign(const wchar_t* text);

    // Takes text over; null clears.
    void Adopt(char* text);
    void Adopt(wchar_t* text);

    // Uses text where it is, for as long as this object holds it; null clears.
    void Borrow(const char* text);
    void Borrow(const wchar_t* text);

    void Clear();

    // The narrow form, an empty text if it isn't set. It is never made from the wide form. Never null.
    const char* Narrow() const { return narrow ? narrow : ""; }

    // The wide form, made from the narrow one on the first request; an empty text if there is neither, or, after an
    // error line, if the narrow one can't be converted. Never null.
    const wchar_t* Wide();

private:
    void Set(wchar_t* newWide, bool ownsWide, char* newNarrow, bool ownsNarrow);

    wchar_t* wide = nullptr;
    bool wideOwned = false;
    char* narrow = nullptr;
    bool narrowOwned = false;
};

}  // namespace StringUtils
