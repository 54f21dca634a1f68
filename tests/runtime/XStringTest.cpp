#include "runtime/XString.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <utility>

namespace {

using StringUtils::XString;

// What is owned and freed, the address sanitizer checks: each of these tests leaks or frees twice if it's wrong.

TEST(XString, ReplacesBothFormsOnEachAssignment) {
    XString text("first");
    const wchar_t* const wide = text.Wide();
    EXPECT_STREQ(wide, L"first");
    EXPECT_EQ(text.Wide(), wide) << "made once";
    EXPECT_STREQ(text.Narrow(), "first") << "both forms stand";
    text.Assign(L"second");
    EXPECT_STREQ(text.Narrow(), "");
    EXPECT_STREQ(text.Wide(), L"second");
    text.Assign("third");
    EXPECT_STREQ(text.Wide(), L"third");
    text.Assign(text.Narrow() + 2);
    EXPECT_STREQ(text.Narrow(), "ird") << "a part of its own text";
    text.Assign(static_cast<const char*>(nullptr));
    EXPECT_STREQ(text.Narrow(), "");
    EXPECT_STREQ(text.Wide(), L"");
    text.Assign("\xFF");
    EXPECT_STREQ(text.Wide(), L"") << "it can't be converted";
}

TEST(XString, TakesOverOrBorrowsWithoutACopy) {
    XString text;
    char* const owned = strdup("owned");
    text.Adopt(owned);
    EXPECT_EQ(text.Narrow(), owned);
    text.Adopt(wcsdup(L"owned"));
    const char borrowed[] = "borrowed";
    text.Borrow(borrowed);
    EXPECT_EQ(text.Narrow(), borrowed);
    EXPECT_STREQ(text.Wide(), L"borrowed") << "its own, beside the borrowed form";
    const wchar_t borrowedWide[] = L"wide";
    text.Borrow(borrowedWide);
    EXPECT_EQ(text.Wide(), borrowedWide);
    text.Clear();
    EXPECT_STREQ(text.Wide(), L"");
}

TEST(XString, CopiesStandOnTheirOwn) {
    char source[] = "text";
    XString first;
    first.Borrow(source);
    EXPECT_STREQ(first.Wide(), L"text");
    XString copy(first), assigned("earlier");
    assigned = first;
    assigned = *&assigned;
    source[0] = 'n';
    first.Clear();
    for (XString* each : {&copy, &assigned}) {
        EXPECT_STREQ(each->Narrow(), "text");
        EXPECT_STREQ(each->Wide(), L"text");
    }
    XString moved(std::move(copy));
    EXPECT_STREQ(copy.Narrow(), "");
    assigned = std::move(moved);
    EXPECT_STREQ(assigned.Narrow(), "text");
    EXPECT_STREQ(moved.Wide(), L"");
}

}  // namespace
