// Tests of the UTF-8 conversions.
#include <tarnwick/utf8.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include "guarded.h"

namespace {

using TarnwickTest::NarrowBuffer;
using TarnwickTest::WideBuffer;

// ---------------------------------------------------------------------------
// UTF-8

struct RoundTrip {
    const wchar_t* wide;
    const char* utf8;
};

const RoundTrip kRoundTrips[] = {
    {L"", ""},
    {L"A", "A"},
    {L"\u007f", "\x7f"},
    {L"\u0080", "\xc2\x80"},
    {L"\u00e9", "\xc3\xa9"},
    {L"\u07ff", "\xdf\xbf"},
    {L"\u0800", "\xe0\xa0\x80"},
    {L"\u20ac", "\xe2\x82\xac"},
    {L"\ud7ff", "\xed\x9f\xbf"},
    {L"\ue000", "\xee\x80\x80"},
    {L"\uffff", "\xef\xbf\xbf"},
    {L"\U00010000", "\xf0\x90\x80\x80"},
    {L"\U0001F600", "\xf0\x9f\x98\x80"},
    {L"\U0010FFFF", "\xf4\x8f\xbf\xbf"},
    {L"a\u00e9\u20ac\U0001F600z", "a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80z"},
};

TEST(UTF8Test, MallocedRoundTrips) {
    for (const RoundTrip& item : kRoundTrips) {
        char* utf8 = Tarnwick::wcstoutf8_malloced(item.wide);
        ASSERT_NE(nullptr, utf8) << item.utf8;
        EXPECT_STREQ(item.utf8, utf8);
        wchar_t* wide = Tarnwick::utf8towcs_malloced(utf8);
        ASSERT_NE(nullptr, wide) << item.utf8;
        EXPECT_STREQ(item.wide, wide);
        Tarnwick::wcsfree(wide);
        Tarnwick::utf8free(utf8);
    }
}

TEST(UTF8Test, BufferRoundTrips) {
    for (const RoundTrip& item : kRoundTrips) {
        char narrow[32];
        ASSERT_NE(0, Tarnwick::wcstoutf8_buf(narrow, item.wide, sizeof(narrow)));
        EXPECT_STREQ(item.utf8, narrow);
        wchar_t wide[16];
        ASSERT_NE(0, Tarnwick::utf8towcs_buf(wide, narrow, 16));
        EXPECT_STREQ(item.wide, wide);
    }
}

const char* const kInvalidUTF8[] = {
    "\x80",                  // stray continuation byte
    "a\xbf",                 // stray continuation byte after ASCII
    "\xc0\x80",              // overlong NUL
    "\xc1\xbf",              // overlong 2-byte
    "\xe0\x80\x80",          // overlong 3-byte
    "\xe0\x9f\xbf",          // overlong 3-byte, highest
    "\xf0\x80\x80\x80",      // overlong 4-byte
    "\xf0\x8f\xbf\xbf",      // overlong 4-byte, highest
    "\xc3",                  // truncated 2-byte
    "\xe2\x82",              // truncated 3-byte
    "\xf0\x9f\x98",          // truncated 4-byte
    "\xe2\x82x",             // 3-byte interrupted by ASCII
    "\xed\xa0\x80",          // U+D800, a surrogate
    "\xed\xbf\xbf",          // U+DFFF, a surrogate
    "\xf4\x90\x80\x80",      // U+110000
    "\xf5\x80\x80\x80",      // lead byte above F4
    "\xff",                  // never in UTF-8
    "\xf8\x88\x80\x80\x80",  // old 5-byte form
};

TEST(UTF8Test, InvalidUTF8IsRejected) {
    for (const char* text : kInvalidUTF8) {
        errno = 0;
        EXPECT_EQ(nullptr, Tarnwick::utf8towcs_malloced(text)) << testing::PrintToString(text);
        EXPECT_EQ(EILSEQ, errno);
        WideBuffer buffer(16);
        errno = 0;
        EXPECT_EQ(0, Tarnwick::utf8towcs_buf(buffer.data(), text, 16));
        EXPECT_EQ(EILSEQ, errno);
        EXPECT_EQ(L"", buffer.text());
        EXPECT_FALSE(Tarnwick::isValidUTF8(text, std::strlen(text)))
            << testing::PrintToString(text);
    }
}

TEST(UTF8Test, InvalidWideTextIsRejected) {
    const wchar_t high_surrogate[] = {L'a', static_cast<wchar_t>(0xD800), 0};
    const wchar_t low_surrogate[] = {static_cast<wchar_t>(0xDFFF), 0};
    const wchar_t too_large[] = {static_cast<wchar_t>(0x110000), 0};
    const wchar_t negative[] = {static_cast<wchar_t>(-1), 0};
    for (const wchar_t* text : {high_surrogate, low_surrogate, too_large, negative}) {
        errno = 0;
        EXPECT_EQ(nullptr, Tarnwick::wcstoutf8_malloced(text));
        EXPECT_EQ(EILSEQ, errno);
        NarrowBuffer buffer(16);
        errno = 0;
        EXPECT_EQ(0, Tarnwick::wcstoutf8_buf(buffer.data(), text, 16));
        EXPECT_EQ(EILSEQ, errno);
        EXPECT_EQ("", buffer.text());
    }
}

TEST(UTF8Test, NullArguments) {
    errno = 0;
    EXPECT_EQ(nullptr, Tarnwick::wcstoutf8_malloced(nullptr));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(nullptr, Tarnwick::utf8towcs_malloced(nullptr));
    EXPECT_EQ(EINVAL, errno);
    char narrow[4];
    wchar_t wide[4];
    EXPECT_EQ(0, Tarnwick::wcstoutf8_buf(narrow, nullptr, 4));
    EXPECT_EQ(0, Tarnwick::wcstoutf8_buf(nullptr, L"a", 4));
    EXPECT_EQ(0, Tarnwick::utf8towcs_buf(wide, nullptr, 4));
    EXPECT_EQ(0, Tarnwick::utf8towcs_buf(nullptr, "a", 4));
    EXPECT_FALSE(Tarnwick::isValidUTF8(nullptr, 4));
    Tarnwick::wcsfree(nullptr);
    Tarnwick::utf8free(nullptr);
}

TEST(UTF8Test, NarrowBufferBoundary) {
    // "\u00e9\u20ac" takes 5 bytes and the terminator.
    NarrowBuffer exact(6);
    EXPECT_NE(0, Tarnwick::wcstoutf8_buf(exact.data(), L"\u00e9\u20ac", 6));
    EXPECT_EQ("\xc3\xa9\xe2\x82\xac", exact.text());
    EXPECT_TRUE(exact.guardIntact());

    NarrowBuffer small(5);
    errno = 0;
    EXPECT_EQ(0, Tarnwick::wcstoutf8_buf(small.data(), L"\u00e9\u20ac", 5));
    EXPECT_EQ(ERANGE, errno);
    EXPECT_EQ("", small.text());
    EXPECT_TRUE(small.guardIntact());

    NarrowBuffer none(0);
    EXPECT_EQ(0, Tarnwick::wcstoutf8_buf(none.data(), L"", 0));
    EXPECT_TRUE(none.guardIntact());

    NarrowBuffer empty(1);
    EXPECT_NE(0, Tarnwick::wcstoutf8_buf(empty.data(), L"", 1));
    EXPECT_EQ("", empty.text());
    EXPECT_TRUE(empty.guardIntact());
}

TEST(UTF8Test, WideBufferBoundary) {
    const char* text = "a\xc3\xa9\xf0\x9f\x98\x80";  // three characters
    WideBuffer exact(4);
    EXPECT_NE(0, Tarnwick::utf8towcs_buf(exact.data(), text, 4));
    EXPECT_EQ(L"a\u00e9\U0001F600", exact.text());
    EXPECT_TRUE(exact.guardIntact());

    WideBuffer small(3);
    errno = 0;
    EXPECT_EQ(0, Tarnwick::utf8towcs_buf(small.data(), text, 3));
    EXPECT_EQ(ERANGE, errno);
    EXPECT_EQ(L"", small.text());
    EXPECT_TRUE(small.guardIntact());

    WideBuffer none(0);
    EXPECT_EQ(0, Tarnwick::utf8towcs_buf(none.data(), "", 0));
    EXPECT_TRUE(none.guardIntact());
}

TEST(UTF8Test, IsValidUTF8) {
    EXPECT_TRUE(Tarnwick::isValidUTF8("", 0));
    EXPECT_TRUE(Tarnwick::isValidUTF8("", 10));
    EXPECT_TRUE(Tarnwick::isValidUTF8("plain ASCII", 11));
    for (const RoundTrip& item : kRoundTrips) {
        EXPECT_TRUE(Tarnwick::isValidUTF8(item.utf8, std::strlen(item.utf8)))
            << testing::PrintToString(item.utf8);
        EXPECT_TRUE(Tarnwick::isValidUTF8(item.utf8, 1000));  // the terminator ends it
    }
    // Only the first `size` bytes count: the bad byte after them is not seen.
    EXPECT_TRUE(Tarnwick::isValidUTF8("ab\xff", 2));
    EXPECT_FALSE(Tarnwick::isValidUTF8("ab\xff", 3));
    // A limit inside a sequence leaves it truncated.
    EXPECT_FALSE(Tarnwick::isValidUTF8("\xe2\x82\xac", 2));
    EXPECT_TRUE(Tarnwick::isValidUTF8("\xe2\x82\xac", 3));
    EXPECT_TRUE(Tarnwick::isValidUTF8("\xe2\x82\xac", 0));
    // Reads no byte beyond `size`.
    const char unterminated[2] = {'o', 'k'};
    EXPECT_TRUE(Tarnwick::isValidUTF8(unterminated, 2));
}

}  // namespace
