// Tests of the free functions of the library: bounded strings, UTF-8, Base64,
// stored passwords, Random, the URL check, task threads, command names and
// the process limit and user operations.
#include <tarnwick/tarnwick.h>

#include <ace/Task.h>

#include <gtest/gtest.h>
#include <log_capture.h>

#include <fcntl.h>
#include <openssl/evp.h>
#include <pthread.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstring>
#include <cwchar>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

// A buffer of `capacity` characters followed by guard characters, all
// pre-filled, so that a test sees any write beyond the capacity.
template <typename C>
class Guarded {
public:
    static constexpr size_t kGuard = 8;

    explicit Guarded(size_t capacity, C fill = C('#'))
        : capacity_(capacity), storage_(capacity + kGuard, fill) {}

    C* data() { return storage_.data(); }
    size_t capacity() const { return capacity_; }
    bool guardIntact() const {
        for (size_t i = capacity_; i < storage_.size(); ++i) {
            if (storage_[i] != C('#')) {
                return false;
            }
        }
        return true;
    }
    std::basic_string<C> text() const { return std::basic_string<C>(storage_.data()); }
    C at(size_t i) const { return storage_[i]; }

private:
    size_t capacity_;
    std::vector<C> storage_;
};

using NarrowBuffer = Guarded<char>;
using WideBuffer = Guarded<wchar_t>;

// ---------------------------------------------------------------------------
// strlcpy / strlncpy

TEST(StrlcpyTest, FitsExactly) {
    NarrowBuffer buffer(4);
    EXPECT_EQ(3u, Tarnwick::strlcpy(buffer.data(), "abc", buffer.capacity()));
    EXPECT_EQ("abc", buffer.text());
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(StrlcpyTest, OneTooLongTruncatesAndTerminates) {
    NarrowBuffer buffer(4);
    EXPECT_EQ(4u, Tarnwick::strlcpy(buffer.data(), "abcd", buffer.capacity()));
    EXPECT_EQ("abc", buffer.text());
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(StrlcpyTest, SizeZeroWritesNothing) {
    NarrowBuffer buffer(0);
    EXPECT_EQ(5u, Tarnwick::strlcpy(buffer.data(), "hello", 0));
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(StrlcpyTest, SizeOneGivesEmptyString) {
    NarrowBuffer buffer(1);
    EXPECT_EQ(5u, Tarnwick::strlcpy(buffer.data(), "hello", 1));
    EXPECT_EQ('\0', buffer.at(0));
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(StrlcpyTest, NullSourceIsEmpty) {
    NarrowBuffer buffer(4);
    EXPECT_EQ(0u, Tarnwick::strlcpy(buffer.data(), static_cast<const char*>(nullptr), 4));
    EXPECT_EQ("", buffer.text());
}

TEST(StrlcpyTest, Wide) {
    WideBuffer fits(4);
    EXPECT_EQ(3u, Tarnwick::strlcpy(fits.data(), L"\u00e9\u4e2d\U0001F600", 4));
    EXPECT_EQ(L"\u00e9\u4e2d\U0001F600", fits.text());
    EXPECT_TRUE(fits.guardIntact());

    WideBuffer cut(4);
    EXPECT_EQ(5u, Tarnwick::strlcpy(cut.data(), L"abcde", 4));
    EXPECT_EQ(L"abc", cut.text());
    EXPECT_TRUE(cut.guardIntact());

    WideBuffer none(0);
    EXPECT_EQ(2u, Tarnwick::strlcpy(none.data(), L"ab", 0));
    EXPECT_TRUE(none.guardIntact());
}

TEST(StrlncpyTest, CountSmallerThanSource) {
    NarrowBuffer buffer(8);
    EXPECT_EQ(3u, Tarnwick::strlncpy(buffer.data(), "abcdef", 8, 3));
    EXPECT_EQ("abc", buffer.text());
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(StrlncpyTest, CountLargerThanSource) {
    NarrowBuffer buffer(8);
    EXPECT_EQ(3u, Tarnwick::strlncpy(buffer.data(), "abc", 8, 100));
    EXPECT_EQ("abc", buffer.text());
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(StrlncpyTest, WantedMoreThanCapacityTruncates) {
    NarrowBuffer buffer(4);
    EXPECT_EQ(5u, Tarnwick::strlncpy(buffer.data(), "abcdefgh", 4, 5));
    EXPECT_EQ("abc", buffer.text());
    EXPECT_TRUE(buffer.guardIntact());

    NarrowBuffer exact(4);
    EXPECT_EQ(3u, Tarnwick::strlncpy(exact.data(), "abcdefgh", 4, 3));
    EXPECT_EQ("abc", exact.text());
    EXPECT_TRUE(exact.guardIntact());
}

TEST(StrlncpyTest, SizeZeroAndCountZero) {
    NarrowBuffer none(0);
    EXPECT_EQ(2u, Tarnwick::strlncpy(none.data(), "abc", 0, 2));
    EXPECT_TRUE(none.guardIntact());

    NarrowBuffer buffer(4);
    EXPECT_EQ(0u, Tarnwick::strlncpy(buffer.data(), "abc", 4, 0));
    EXPECT_EQ("", buffer.text());
}

TEST(StrlncpyTest, SourceNotTerminatedWithinCount) {
    // Only `count` characters of the source may be looked at.
    const char source[3] = {'x', 'y', 'z'};
    NarrowBuffer buffer(8);
    EXPECT_EQ(3u, Tarnwick::strlncpy(buffer.data(), source, 8, 3));
    EXPECT_EQ("xyz", buffer.text());
}

TEST(StrlncpyTest, Wide) {
    WideBuffer buffer(4);
    EXPECT_EQ(5u, Tarnwick::strlncpy(buffer.data(), L"abcdefgh", 4, 5));
    EXPECT_EQ(L"abc", buffer.text());
    EXPECT_TRUE(buffer.guardIntact());

    WideBuffer small(8);
    EXPECT_EQ(2u, Tarnwick::strlncpy(small.data(), L"abcdefgh", 8, 2));
    EXPECT_EQ(L"ab", small.text());

    WideBuffer none(0);
    EXPECT_EQ(1u, Tarnwick::strlncpy(none.data(), L"a", 0, 9));
    EXPECT_TRUE(none.guardIntact());
}

// ---------------------------------------------------------------------------
// strcpy / strncpy

TEST(StrcpyTest, FitsExactly) {
    NarrowBuffer buffer(4);
    EXPECT_EQ(buffer.data(), Tarnwick::strcpy(buffer.data(), "abc", 4));
    EXPECT_EQ("abc", buffer.text());
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(StrcpyTest, OneTooLongGivesNullAndEmptyTarget) {
    NarrowBuffer buffer(4);
    EXPECT_EQ(nullptr, Tarnwick::strcpy(buffer.data(), "abcd", 4));
    EXPECT_EQ("", buffer.text());
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(StrcpyTest, SizeZeroGivesNullWithoutWriting) {
    NarrowBuffer buffer(0);
    EXPECT_EQ(nullptr, Tarnwick::strcpy(buffer.data(), "", 0));
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(StrcpyTest, EmptySourceInSizeOne) {
    NarrowBuffer buffer(1);
    EXPECT_EQ(buffer.data(), Tarnwick::strcpy(buffer.data(), "", 1));
    EXPECT_EQ('\0', buffer.at(0));
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(StrcpyTest, NullArguments) {
    NarrowBuffer buffer(4);
    EXPECT_EQ(nullptr, Tarnwick::strcpy(buffer.data(), static_cast<const char*>(nullptr), 4));
    EXPECT_EQ("", buffer.text());
    EXPECT_EQ(nullptr, Tarnwick::strcpy(static_cast<char*>(nullptr), "a", 4));
}

TEST(StrcpyTest, Wide) {
    WideBuffer fits(4);
    EXPECT_EQ(fits.data(), Tarnwick::strcpy(fits.data(), L"abc", 4));
    EXPECT_EQ(L"abc", fits.text());
    EXPECT_TRUE(fits.guardIntact());

    WideBuffer too_long(4);
    EXPECT_EQ(nullptr, Tarnwick::strcpy(too_long.data(), L"abcd", 4));
    EXPECT_EQ(L"", too_long.text());
    EXPECT_TRUE(too_long.guardIntact());

    WideBuffer none(0);
    EXPECT_EQ(nullptr, Tarnwick::strcpy(none.data(), L"", 0));
    EXPECT_TRUE(none.guardIntact());
}

TEST(StrncpyTest, CountSmallerThanSourceFits) {
    NarrowBuffer buffer(4);
    EXPECT_EQ(buffer.data(), Tarnwick::strncpy(buffer.data(), "abcdefgh", 4, 3));
    EXPECT_EQ("abc", buffer.text());
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(StrncpyTest, CountTooLargeForCapacity) {
    NarrowBuffer buffer(4);
    EXPECT_EQ(nullptr, Tarnwick::strncpy(buffer.data(), "abcdefgh", 4, 4));
    EXPECT_EQ("", buffer.text());
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(StrncpyTest, CountLargerThanShortSource) {
    NarrowBuffer buffer(4);
    EXPECT_EQ(buffer.data(), Tarnwick::strncpy(buffer.data(), "ab", 4, 100));
    EXPECT_EQ("ab", buffer.text());
    EXPECT_TRUE(buffer.guardIntact());

    NarrowBuffer exact(4);
    EXPECT_EQ(exact.data(), Tarnwick::strncpy(exact.data(), "abc", 4, 100));
    EXPECT_EQ("abc", exact.text());

    NarrowBuffer over(4);
    EXPECT_EQ(nullptr, Tarnwick::strncpy(over.data(), "abcd", 4, 100));
    EXPECT_EQ("", over.text());
    EXPECT_TRUE(over.guardIntact());
}

TEST(StrncpyTest, SizeZeroAndCountZero) {
    NarrowBuffer none(0);
    EXPECT_EQ(nullptr, Tarnwick::strncpy(none.data(), "abc", 0, 0));
    EXPECT_TRUE(none.guardIntact());

    NarrowBuffer buffer(4);
    EXPECT_EQ(buffer.data(), Tarnwick::strncpy(buffer.data(), "abc", 4, 0));
    EXPECT_EQ("", buffer.text());
}

// ---------------------------------------------------------------------------
// strlen

TEST(StrlenTest, Narrow) {
    EXPECT_EQ(5u, Tarnwick::strlen("hello", 10));
    EXPECT_EQ(5u, Tarnwick::strlen("hello", 5));
    EXPECT_EQ(3u, Tarnwick::strlen("hello", 3));
    EXPECT_EQ(0u, Tarnwick::strlen("hello", 0));
    EXPECT_EQ(0u, Tarnwick::strlen("", 10));
    EXPECT_EQ(0u, Tarnwick::strlen(static_cast<const char*>(nullptr), 10));
    // Reads no more than `limit` characters of unterminated text.
    const char unterminated[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(4u, Tarnwick::strlen(unterminated, 4));
}

TEST(StrlenTest, Wide) {
    EXPECT_EQ(5u, Tarnwick::strlen(L"hello", 10));
    EXPECT_EQ(5u, Tarnwick::strlen(L"hello", 5));
    EXPECT_EQ(3u, Tarnwick::strlen(L"hello", 3));
    EXPECT_EQ(0u, Tarnwick::strlen(L"hello", 0));
    EXPECT_EQ(0u, Tarnwick::strlen(static_cast<const wchar_t*>(nullptr), 10));
    const wchar_t unterminated[2] = {L'a', L'b'};
    EXPECT_EQ(2u, Tarnwick::strlen(unterminated, 2));
}

// ---------------------------------------------------------------------------
// strcat / strncat

TEST(StrcatTest, FitsExactly) {
    NarrowBuffer buffer(6);
    Tarnwick::strlcpy(buffer.data(), "ab", 6);
    EXPECT_EQ(buffer.data(), Tarnwick::strcat(buffer.data(), "cde", 6));
    EXPECT_EQ("abcde", buffer.text());
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(StrcatTest, OneTooLongLeavesTargetUnchanged) {
    NarrowBuffer buffer(6);
    Tarnwick::strlcpy(buffer.data(), "ab", 6);
    EXPECT_EQ(nullptr, Tarnwick::strcat(buffer.data(), "cdef", 6));
    EXPECT_EQ("ab", buffer.text());
    EXPECT_EQ('#', buffer.at(3));
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(StrcatTest, SizeZero) {
    NarrowBuffer buffer(0);
    EXPECT_EQ(nullptr, Tarnwick::strcat(buffer.data(), "", 0));
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(StrcatTest, TargetWithoutTerminatorInCapacity) {
    NarrowBuffer buffer(4, 'x');  // "xxxx" and no terminator within 4
    EXPECT_EQ(nullptr, Tarnwick::strcat(buffer.data(), "", 4));
    EXPECT_EQ('x', buffer.at(3));
}

TEST(StrcatTest, EmptyPieces) {
    NarrowBuffer buffer(1);
    buffer.data()[0] = '\0';
    EXPECT_EQ(buffer.data(), Tarnwick::strcat(buffer.data(), "", 1));
    EXPECT_EQ("", buffer.text());
    EXPECT_EQ(nullptr, Tarnwick::strcat(buffer.data(), "a", 1));
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(StrcatTest, NullArguments) {
    NarrowBuffer buffer(4);
    buffer.data()[0] = '\0';
    EXPECT_EQ(nullptr, Tarnwick::strcat(buffer.data(), static_cast<const char*>(nullptr), 4));
    EXPECT_EQ(nullptr, Tarnwick::strcat(static_cast<char*>(nullptr), "a", 4));
}

TEST(StrcatTest, Wide) {
    WideBuffer buffer(6);
    Tarnwick::strlcpy(buffer.data(), L"ab", 6);
    EXPECT_EQ(buffer.data(), Tarnwick::strcat(buffer.data(), L"cde", 6));
    EXPECT_EQ(L"abcde", buffer.text());
    EXPECT_EQ(nullptr, Tarnwick::strcat(buffer.data(), L"f", 6));
    EXPECT_EQ(L"abcde", buffer.text());
    EXPECT_TRUE(buffer.guardIntact());

    WideBuffer none(0);
    EXPECT_EQ(nullptr, Tarnwick::strcat(none.data(), L"", 0));
    EXPECT_TRUE(none.guardIntact());
}

TEST(StrncatTest, CountSmallerThanSource) {
    NarrowBuffer buffer(6);
    Tarnwick::strlcpy(buffer.data(), "ab", 6);
    EXPECT_EQ(buffer.data(), Tarnwick::strncat(buffer.data(), "cdefghij", 6, 3));
    EXPECT_EQ("abcde", buffer.text());
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(StrncatTest, CountOneTooMany) {
    NarrowBuffer buffer(6);
    Tarnwick::strlcpy(buffer.data(), "ab", 6);
    EXPECT_EQ(nullptr, Tarnwick::strncat(buffer.data(), "cdefghij", 6, 4));
    EXPECT_EQ("ab", buffer.text());
    EXPECT_EQ('#', buffer.at(3));
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(StrncatTest, CountLargerThanSource) {
    NarrowBuffer buffer(6);
    Tarnwick::strlcpy(buffer.data(), "ab", 6);
    EXPECT_EQ(buffer.data(), Tarnwick::strncat(buffer.data(), "cd", 6, 100));
    EXPECT_EQ("abcd", buffer.text());
    EXPECT_EQ(nullptr, Tarnwick::strncat(buffer.data(), "ef", 6, 100));
    EXPECT_EQ("abcd", buffer.text());
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(StrncatTest, SizeZeroAndCountZero) {
    NarrowBuffer none(0);
    EXPECT_EQ(nullptr, Tarnwick::strncat(none.data(), "a", 0, 0));
    EXPECT_TRUE(none.guardIntact());

    NarrowBuffer full(3);
    Tarnwick::strlcpy(full.data(), "ab", 3);
    EXPECT_EQ(full.data(), Tarnwick::strncat(full.data(), "xyz", 3, 0));
    EXPECT_EQ("ab", full.text());
}

TEST(StrncatTest, Wide) {
    WideBuffer buffer(6);
    Tarnwick::strlcpy(buffer.data(), L"ab", 6);
    EXPECT_EQ(buffer.data(), Tarnwick::strncat(buffer.data(), L"cdefgh", 6, 3));
    EXPECT_EQ(L"abcde", buffer.text());
    EXPECT_TRUE(buffer.guardIntact());

    WideBuffer other(6);
    Tarnwick::strlcpy(other.data(), L"ab", 6);
    EXPECT_EQ(nullptr, Tarnwick::strncat(other.data(), L"cdefgh", 6, 4));
    EXPECT_EQ(L"ab", other.text());
    EXPECT_TRUE(other.guardIntact());
}

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

// ---------------------------------------------------------------------------
// Base64

struct Base64Vector {
    const char* data;
    const char* text;
};

const Base64Vector kRfc4648[] = {
    {"", ""},
    {"f", "Zg=="},
    {"fo", "Zm8="},
    {"foo", "Zm9v"},
    {"foob", "Zm9vYg=="},
    {"fooba", "Zm9vYmE="},
    {"foobar", "Zm9vYmFy"},
};

TEST(Base64Test, EncodeKnownVectors) {
    for (const Base64Vector& item : kRfc4648) {
        size_t const expected = std::strlen(item.text);
        NarrowBuffer buffer(expected + 1);
        EXPECT_EQ(static_cast<int>(expected),
                  Tarnwick::Base64Encode(item.data, std::strlen(item.data), buffer.data(),
                                         buffer.capacity()));
        EXPECT_EQ(item.text, buffer.text());
        EXPECT_TRUE(buffer.guardIntact());
    }
}

TEST(Base64Test, DecodeKnownVectors) {
    for (const Base64Vector& item : kRfc4648) {
        size_t const expected = std::strlen(item.data);
        NarrowBuffer buffer(expected);
        EXPECT_EQ(static_cast<int>(expected),
                  Tarnwick::Base64Decode(item.text, buffer.data(), buffer.capacity()));
        EXPECT_EQ(std::string(item.data), std::string(buffer.data(), expected));
        EXPECT_TRUE(buffer.guardIntact()) << item.text;
    }
}

TEST(Base64Test, BinaryRoundTrip) {
    std::string data;
    for (int i = 0; i < 256; ++i) {
        data.push_back(static_cast<char>(i));
    }
    for (size_t length = 0; length <= data.size(); ++length) {
        char text[400];
        int const encoded = Tarnwick::Base64Encode(data.data(), length, text, sizeof(text));
        ASSERT_EQ(static_cast<int>((length + 2) / 3 * 4), encoded);
        char back[256];
        ASSERT_EQ(static_cast<int>(length), Tarnwick::Base64Decode(text, back, length));
        EXPECT_EQ(0, std::memcmp(data.data(), back, length));
    }
}

TEST(Base64Test, LargeInputCrossesChunks) {
    // Several megabytes go to OpenSSL in pieces; the result must read as one.
    std::string data(7 * 1024 * 1024 + 1, '\0');
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<char>((i * 7919) >> 3);
    }
    size_t const length = (data.size() + 2) / 3 * 4;
    std::vector<char> text(length + 1);
    ASSERT_EQ(static_cast<int>(length),
              Tarnwick::Base64Encode(data.data(), data.size(), text.data(), text.size()));
    std::vector<unsigned char> whole(length + 1);
    ASSERT_EQ(static_cast<int>(length),
              EVP_EncodeBlock(whole.data(), reinterpret_cast<const unsigned char*>(data.data()),
                              static_cast<int>(data.size())));
    EXPECT_EQ(0, std::memcmp(whole.data(), text.data(), length + 1));
    std::string back(data.size(), '\0');
    ASSERT_EQ(static_cast<int>(data.size()),
              Tarnwick::Base64Decode(text.data(), &back[0], back.size()));
    EXPECT_TRUE(back == data);
}

TEST(Base64Test, EncodeTargetTooSmall) {
    NarrowBuffer buffer(4);  // "Zm9v" needs 5 with the terminator
    errno = 0;
    EXPECT_EQ(-1, Tarnwick::Base64Encode("foo", 3, buffer.data(), 4));
    EXPECT_EQ(ERANGE, errno);
    EXPECT_TRUE(buffer.guardIntact());

    NarrowBuffer none(0);
    EXPECT_EQ(-1, Tarnwick::Base64Encode("", 0, none.data(), 0));
    EXPECT_TRUE(none.guardIntact());
}

TEST(Base64Test, DecodeTargetTooSmall) {
    NarrowBuffer buffer(5);
    errno = 0;
    EXPECT_EQ(-1, Tarnwick::Base64Decode("Zm9vYmFy", buffer.data(), 5));
    EXPECT_EQ(ERANGE, errno);
    EXPECT_TRUE(buffer.guardIntact());
    // Padding counts: "Zm9vYg==" is exactly 4 bytes.
    NarrowBuffer exact(4);
    EXPECT_EQ(4, Tarnwick::Base64Decode("Zm9vYg==", exact.data(), 4));
    EXPECT_TRUE(exact.guardIntact());
    NarrowBuffer three(3);
    EXPECT_EQ(-1, Tarnwick::Base64Decode("Zm9vYg==", three.data(), 3));
    EXPECT_TRUE(three.guardIntact());
}

TEST(Base64Test, InvalidTextIsRejected) {
    const char* const invalid[] = {
        "Zg",        // not a multiple of four
        "Zg=",       // not a multiple of four
        "Zm9v\n",    // white space
        " Zm9v",     // white space
        "Zg=a",      // padding in the middle
        "Z===",      // too much padding
        "====",      // padding only
        "Zm9=Zm9v",  // padding before the end
        "Zh==",      // unused bits not zero
        "Zm9=",      // unused bits not zero
        "Zm9v*A==",  // not in the alphabet
        "Zm-_",      // URL alphabet
    };
    for (const char* text : invalid) {
        char buffer[16];
        errno = 0;
        EXPECT_EQ(-1, Tarnwick::Base64Decode(text, buffer, sizeof(buffer))) << text;
        EXPECT_EQ(EINVAL, errno) << text;
    }
}

TEST(Base64Test, NullArguments) {
    char buffer[8];
    EXPECT_EQ(-1, Tarnwick::Base64Encode(nullptr, 1, buffer, sizeof(buffer)));
    EXPECT_EQ(0, Tarnwick::Base64Encode(nullptr, 0, buffer, sizeof(buffer)));
    EXPECT_EQ(-1, Tarnwick::Base64Encode("a", 1, nullptr, 8));
    EXPECT_EQ(-1, Tarnwick::Base64Decode(nullptr, buffer, sizeof(buffer)));
    EXPECT_EQ(-1, Tarnwick::Base64Decode("Zg==", nullptr, 8));
}

TEST(Base64Test, HugeTargetSizeIsClamped) {
    char buffer[8];
    EXPECT_EQ(4, Tarnwick::Base64Encode("foo", 3, buffer, static_cast<size_t>(-1)));
    EXPECT_STREQ("Zm9v", buffer);
    EXPECT_EQ(3, Tarnwick::Base64Decode("Zm9v", buffer, static_cast<size_t>(-1)));
}

// ---------------------------------------------------------------------------
// Stored passwords

TEST(PasswordTest, RoundTrip) {
    const char* const passwords[] = {"",
                                     "a",
                                     "secret",
                                     "p@ss w0rd!",
                                     "\xc3\xa9t\xc3\xa9",
                                     "a much longer password of more than sixteen characters"};
    for (const char* password : passwords) {
        char stored[256];
        int const length = Tarnwick::EncodePassword(password, stored, sizeof(stored));
        ASSERT_GT(length, 5) << password;
        EXPECT_EQ(static_cast<size_t>(length), std::strlen(stored));
        EXPECT_EQ(0, std::strncmp(stored, "{twp}", 5));
        EXPECT_EQ(nullptr, std::strstr(stored, password[0] != '\0' ? password : "\x01"));
        char back[128];
        EXPECT_EQ(static_cast<int>(std::strlen(password)),
                  Tarnwick::DecodePassword(stored, back, sizeof(back)));
        EXPECT_STREQ(password, back);
    }
}

TEST(PasswordTest, StoredFormIsStable) {
    // Configuration files keep these texts: the form must not drift.
    const Base64Vector known[] = {
        {"", "{twp}EcvYTA=="},
        {"secret", "{twp}Xj47KiyArKQ9zw=="},
        {"p@ss w0rd!", "{twp}5Q8G7C+lvKV4zMWFvtc="},
    };
    for (const Base64Vector& item : known) {
        char stored[64];
        EXPECT_EQ(static_cast<int>(std::strlen(item.text)),
                  Tarnwick::EncodePassword(item.data, stored, sizeof(stored)));
        EXPECT_STREQ(item.text, stored);
        char back[64];
        EXPECT_EQ(static_cast<int>(std::strlen(item.data)),
                  Tarnwick::DecodePassword(item.text, back, sizeof(back)));
        EXPECT_STREQ(item.data, back);
    }
}

TEST(PasswordTest, EncodeTargetBoundary) {
    char stored[64];
    int const length = Tarnwick::EncodePassword("secret", stored, sizeof(stored));
    ASSERT_GT(length, 0);
    NarrowBuffer exact(static_cast<size_t>(length) + 1);
    EXPECT_EQ(length, Tarnwick::EncodePassword("secret", exact.data(), exact.capacity()));
    EXPECT_STREQ(stored, exact.text().c_str());
    EXPECT_TRUE(exact.guardIntact());

    NarrowBuffer small(static_cast<size_t>(length));
    errno = 0;
    EXPECT_EQ(-1, Tarnwick::EncodePassword("secret", small.data(), small.capacity()));
    EXPECT_EQ(ERANGE, errno);
    EXPECT_TRUE(small.guardIntact());
}

TEST(PasswordTest, DecodeTargetBoundary) {
    char stored[64];
    ASSERT_GT(Tarnwick::EncodePassword("secret", stored, sizeof(stored)), 0);
    NarrowBuffer exact(7);
    EXPECT_EQ(6, Tarnwick::DecodePassword(stored, exact.data(), 7));
    EXPECT_EQ("secret", exact.text());
    EXPECT_TRUE(exact.guardIntact());

    NarrowBuffer small(6);
    errno = 0;
    EXPECT_EQ(-1, Tarnwick::DecodePassword(stored, small.data(), 6));
    EXPECT_EQ(ERANGE, errno);
    EXPECT_TRUE(small.guardIntact());
}

TEST(PasswordTest, TextNotInStoredFormIsRejected) {
    char stored[64];
    ASSERT_GT(Tarnwick::EncodePassword("secret", stored, sizeof(stored)), 0);
    std::string tampered(stored);
    tampered[6] = tampered[6] == 'A' ? 'B' : 'A';
    std::string without_prefix(stored + 5);
    std::string truncated(stored, std::strlen(stored) - 4);

    const char* const rejected[] = {
        "secret",                // plain text
        "",                      // nothing
        "{twp}",                 // prefix only
        "{twp}!!!!",             // not Base64
        "{twp}Zm9vYmFy",         // Base64, but no valid check
        "{TWP}Zm9vYmFy",         // prefix in the wrong case
        "{twp}AAAA",             // too short for the check
        without_prefix.c_str(),  // the stored text without its prefix
        tampered.c_str(),        // a changed character
        truncated.c_str(),       // a missing group
    };
    for (const char* text : rejected) {
        char back[64];
        errno = 0;
        EXPECT_EQ(-1, Tarnwick::DecodePassword(text, back, sizeof(back))) << text;
        EXPECT_EQ(EINVAL, errno) << text;
    }
}

TEST(PasswordTest, RandomTextAfterPrefixIsRejected) {
    // The check lets through about one text in 2^32; a fixed sequence of
    // 20000 texts of several lengths must all be refused.
    std::mt19937 generator(20240611u);
    int accepted = 0;
    for (int i = 0; i < 20000; ++i) {
        unsigned char bytes[24];
        size_t const length = 4 + static_cast<size_t>(i) % 21;
        for (size_t k = 0; k < length; ++k) {
            bytes[k] = static_cast<unsigned char>(generator());
        }
        char text[64] = "{twp}";
        ASSERT_GT(Tarnwick::Base64Encode(reinterpret_cast<const char*>(bytes), length, text + 5,
                                         sizeof(text) - 5),
                  0);
        char back[64];
        if (Tarnwick::DecodePassword(text, back, sizeof(back)) != -1) {
            ++accepted;
        }
    }
    EXPECT_EQ(0, accepted);
}

TEST(PasswordTest, NullArguments) {
    char buffer[32];
    EXPECT_EQ(-1, Tarnwick::EncodePassword(nullptr, buffer, sizeof(buffer)));
    EXPECT_EQ(-1, Tarnwick::EncodePassword("a", nullptr, 32));
    EXPECT_EQ(-1, Tarnwick::DecodePassword(nullptr, buffer, sizeof(buffer)));
    EXPECT_EQ(-1, Tarnwick::DecodePassword("{twp}AAAA", nullptr, 32));
}

// ---------------------------------------------------------------------------
// Random

TEST(RandomTest, ValuesVary) {
    std::set<uint32_t> seen;
    for (int i = 0; i < 10000; ++i) {
        seen.insert(Tarnwick::Random());
    }
    // Chance collisions among 10000 values of 32 bits: about 0.01 expected.
    EXPECT_GE(seen.size(), 9995u);
}

TEST(RandomTest, SafeFromManyThreads) {
    const int kThreads = 4;
    const int kEach = 5000;
    std::vector<std::vector<uint32_t>> values(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&values, t] {
            for (int i = 0; i < kEach; ++i) {
                values[t].push_back(Tarnwick::Random());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::set<uint32_t> seen;
    for (const auto& list : values) {
        seen.insert(list.begin(), list.end());
    }
    EXPECT_GE(seen.size(), static_cast<size_t>(kThreads * kEach) - 5);
}

TEST(RandomTest, ForkedChildHasItsOwnSequence) {
    Tarnwick::Random();  // make sure the parent is seeded
    int fds[2];
    ASSERT_EQ(0, ::pipe(fds));
    pid_t const child = ::fork();
    ASSERT_NE(-1, child);
    if (child == 0) {
        uint32_t values[4];
        for (uint32_t& value : values) {
            value = Tarnwick::Random();
        }
        ssize_t const written = ::write(fds[1], values, sizeof(values));
        ::_exit(written == static_cast<ssize_t>(sizeof(values)) ? 0 : 1);
    }
    ::close(fds[1]);
    uint32_t theirs[4];
    ssize_t const got = ::read(fds[0], theirs, sizeof(theirs));
    ::close(fds[0]);
    int status = 0;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    ASSERT_EQ(static_cast<ssize_t>(sizeof(theirs)), got);
    uint32_t ours[4];
    for (uint32_t& value : ours) {
        value = Tarnwick::Random();
    }
    EXPECT_NE(0, std::memcmp(ours, theirs, sizeof(ours)));
}

// ---------------------------------------------------------------------------
// checkURL

const char* const kBadURLText =
    "' is not a valid URL, has an invalid hostname/IP address or resolving the hostname "
    "failed.";

// A host name with a label of 64 characters, which the resolver refuses
// before it builds any query, so that the test needs no network.
std::wstring unresolvableHost() {
    return std::wstring(64, L'a') + L".example";
}

std::string narrow(const std::wstring& text) {
    return std::string(text.begin(), text.end());  // ASCII only
}

TEST(CheckURLTest, PortIsCutBeforeTheLookup) {
    TarnwickTest::LogCapture log;
    EXPECT_EQ(0, Tarnwick::checkURL(L"https://localhost:8443/x"));
    EXPECT_TRUE(log.lines().empty());
}

TEST(CheckURLTest, AddressWithPath) {
    TarnwickTest::LogCapture log;
    EXPECT_EQ(0, Tarnwick::checkURL(L"http://127.0.0.1/path"));
    EXPECT_EQ(0, Tarnwick::checkURL(L"http://127.0.0.1"));
    // Without a scheme the host starts at the beginning.
    EXPECT_EQ(0, Tarnwick::checkURL(L"127.0.0.1:99"));
    EXPECT_EQ(0, Tarnwick::checkURL(L"localhost/x"));
    EXPECT_TRUE(log.lines().empty());
}

TEST(CheckURLTest, NullURL) {
    TarnwickTest::LogCapture log;
    errno = 0;
    EXPECT_EQ(-1, Tarnwick::checkURL(nullptr));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_TRUE(log.lines().empty());
}

TEST(CheckURLTest, EmptyHost) {
    TarnwickTest::LogCapture log;
    EXPECT_EQ(-1, Tarnwick::checkURL(L"http://"));
    EXPECT_EQ(-1, Tarnwick::checkURL(L"https://:8443/x"));
    std::vector<std::string> const expected = {
        "%D ERROR (%t): 'http://" + std::string(kBadURLText),
        "%D ERROR (%t): 'https://:8443/x" + std::string(kBadURLText)};
    EXPECT_EQ(expected, log.lines());
}

TEST(CheckURLTest, UnresolvableNameLogsTheWholeURL) {
    std::wstring const url = L"http://" + unresolvableHost() + L":8080/some/path";
    TarnwickTest::LogCapture log;
    EXPECT_EQ(-1, Tarnwick::checkURL(url.c_str()));
    std::vector<std::string> const expected = {"%D ERROR (%t): '" + narrow(url) + kBadURLText};
    EXPECT_EQ(expected, log.lines());
}

TEST(CheckURLTest, ColonInPathCutsThere) {
    // The cut at ":" comes before the one at "/": the host looked up is
    // "127.0.0.1/aaa...", whose last label is too long to be a name.
    std::wstring const url = L"http://127.0.0.1/" + std::wstring(64, L'a') + L":b";
    TarnwickTest::LogCapture log;
    EXPECT_EQ(-1, Tarnwick::checkURL(url.c_str()));
    std::vector<std::string> const expected = {"%D ERROR (%t): '" + narrow(url) + kBadURLText};
    EXPECT_EQ(expected, log.lines());
}

// ---------------------------------------------------------------------------
// startThread

// Records every run of svc, with the thread's stack size and detach state.
class RecordingTask : public ACE_Task<ACE_MT_SYNCH> {
public:
    int svc() override {
        pthread_attr_t attr;
        size_t stack = 0;
        int detach = -1;
        if (::pthread_getattr_np(::pthread_self(), &attr) == 0) {
            ::pthread_attr_getstacksize(&attr, &stack);
            ::pthread_attr_getdetachstate(&attr, &detach);
            ::pthread_attr_destroy(&attr);
        }
        std::lock_guard<std::mutex> lock(mutex_);
        ++runs_;
        stack_ = stack;
        detach_ = detach;
        changed_.notify_all();
        return 0;
    }

    bool waitForRuns(int runs) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return runs_ >= runs; });
    }

    int runs() {
        std::lock_guard<std::mutex> lock(mutex_);
        return runs_;
    }
    size_t stack() {
        std::lock_guard<std::mutex> lock(mutex_);
        return stack_;
    }
    int detach() {
        std::lock_guard<std::mutex> lock(mutex_);
        return detach_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int runs_ = 0;
    size_t stack_ = 0;
    int detach_ = -1;
};

TEST(StartThreadTest, NullTask) {
    EXPECT_EQ(-1, Tarnwick::startThread(nullptr, 1, 65536, true));
}

TEST(StartThreadTest, NegativeCount) {
    RecordingTask task;
    errno = 0;
    EXPECT_EQ(-1, Tarnwick::startThread(&task, -1, 65536, true));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(0u, task.thr_count());
}

TEST(StartThreadTest, ZeroThreads) {
    RecordingTask task;
    EXPECT_EQ(0, Tarnwick::startThread(&task, 0, 65536, true));
    EXPECT_EQ(0u, task.thr_count());
    EXPECT_EQ(0, task.runs());
}

TEST(StartThreadTest, Joinable) {
    RecordingTask task;
    size_t const stack = 256 * 1024;
    ASSERT_EQ(0, Tarnwick::startThread(&task, 2, stack, true));
    EXPECT_EQ(1, task.grp_id());
    EXPECT_EQ(0, task.wait());
    EXPECT_EQ(2, task.runs());
    // glibc may hand out a larger cached stack, never a smaller one.
    EXPECT_GE(task.stack(), stack);
    EXPECT_EQ(PTHREAD_CREATE_JOINABLE, task.detach());
}

TEST(StartThreadTest, Detached) {
    // The task outlives the detached thread, which still touches it after
    // svc; being static it also serves repeated runs of this test.
    static RecordingTask task;
    int const before = task.runs();
    size_t const stack = 512 * 1024;
    ASSERT_EQ(0, Tarnwick::startThread(&task, 1, stack, false));
    ASSERT_TRUE(task.waitForRuns(before + 1));
    EXPECT_EQ(before + 1, task.runs());
    EXPECT_GE(task.stack(), stack);
    EXPECT_EQ(PTHREAD_CREATE_DETACHED, task.detach());
    for (int i = 0; i < 1000 && task.thr_count() != 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(0u, task.thr_count());
}

// ---------------------------------------------------------------------------
// translate_command

TEST(TranslateCommandTest, Table) {
    EXPECT_STREQ(L"No command", Tarnwick::translate_command(0));
    EXPECT_STREQ(L"Session List", Tarnwick::translate_command(2));
    EXPECT_STREQ(L"Hartbeat (internal)", Tarnwick::translate_command(14));
    EXPECT_STREQ(L"Check Connections (not implemented)", Tarnwick::translate_command(15));
    EXPECT_STREQ(L"Reload Configuration", Tarnwick::translate_command(21));
}

// ---------------------------------------------------------------------------
// set_fd_limit / available_handles

// Restores the soft and hard RLIMIT_NOFILE of the process at the end of a test.
class FdLimitTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &saved_)); }
    void TearDown() override { EXPECT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &saved_)); }

    static rlim_t soft() {
        struct rlimit limit;
        ::getrlimit(RLIMIT_NOFILE, &limit);
        return limit.rlim_cur;
    }
    // Lowers the soft limit, which is always allowed.
    static void lowerSoft(rlim_t value) {
        struct rlimit limit;
        ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &limit));
        limit.rlim_cur = value;
        ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
    }

    // Open descriptors with a number below `limit`.
    static rlim_t openBelow(rlim_t limit) {
        rlim_t count = 0;
        for (rlim_t fd = 0; fd < limit; ++fd) {
            if (::fcntl(static_cast<int>(fd), F_GETFD) != -1) {
                ++count;
            }
        }
        return count;
    }
    static rlim_t highestOpen() {
        rlim_t highest = 0;
        for (rlim_t fd = 0; fd < soft(); ++fd) {
            if (::fcntl(static_cast<int>(fd), F_GETFD) != -1) {
                highest = fd;
            }
        }
        return highest;
    }

    struct rlimit saved_;
};

TEST_F(FdLimitTest, RaisesSoftLimitWithinHardLimit) {
    if (saved_.rlim_max < 300) {
        GTEST_SKIP() << "hard limit too low";
    }
    lowerSoft(200);
    EXPECT_EQ(0, Tarnwick::set_fd_limit(250));
    EXPECT_EQ(250u, soft());
    // Already above: left alone.
    EXPECT_EQ(0, Tarnwick::set_fd_limit(220));
    EXPECT_EQ(250u, soft());
    EXPECT_EQ(0, Tarnwick::set_fd_limit(0));
    EXPECT_EQ(250u, soft());
    // Beyond the hard limit: raised to the hard limit.
    if (saved_.rlim_max < static_cast<rlim_t>(INT_MAX)) {
        EXPECT_EQ(0, Tarnwick::set_fd_limit(static_cast<int>(saved_.rlim_max) + 1));
        EXPECT_EQ(saved_.rlim_max, soft());
    }
    struct rlimit now;
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &now));
    EXPECT_EQ(saved_.rlim_max, now.rlim_max);
}

TEST_F(FdLimitTest, NegativeLimit) {
    errno = 0;
    EXPECT_EQ(-1, Tarnwick::set_fd_limit(-1));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(saved_.rlim_cur, soft());
}

TEST_F(FdLimitTest, AvailableHandlesCountsOpenDescriptors) {
    int const before = Tarnwick::available_handles(0);
    ASSERT_GT(before, 0);
    EXPECT_LT(static_cast<rlim_t>(before), soft());
    int const fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_NE(-1, fd);
    EXPECT_EQ(before - 1, Tarnwick::available_handles(0));
    ::close(fd);
    EXPECT_EQ(before, Tarnwick::available_handles(-5));
}

TEST_F(FdLimitTest, AvailableHandlesRaisesTheLimit) {
    if (saved_.rlim_max < 1000) {
        GTEST_SKIP() << "hard limit too low";
    }
    rlim_t const low = highestOpen() + 11;
    lowerSoft(low);
    int const free_now = static_cast<int>(low - openBelow(low));
    EXPECT_EQ(free_now, Tarnwick::available_handles(0));
    EXPECT_EQ(free_now, Tarnwick::available_handles(free_now));  // enough already
    EXPECT_EQ(low, soft());
    // Raised just so far that 500 numbers are free below the new limit.
    EXPECT_EQ(500, Tarnwick::available_handles(500));
    EXPECT_EQ(500u, soft() - openBelow(soft()));
    EXPECT_EQ(500, Tarnwick::available_handles(0));
}

TEST_F(FdLimitTest, AvailableHandlesStopsAtTheHardLimit) {
    if (saved_.rlim_max >= static_cast<rlim_t>(INT_MAX) / 2) {
        GTEST_SKIP() << "hard limit too high";
    }
    int const result = Tarnwick::available_handles(static_cast<int>(saved_.rlim_max) + 10);
    EXPECT_EQ(saved_.rlim_max, soft());
    EXPECT_EQ(static_cast<int>(saved_.rlim_max - openBelow(saved_.rlim_max)), result);
}

// ---------------------------------------------------------------------------
// become_user

TEST(BecomeUserTest, UnknownUser) {
    uid_t const uid = ::getuid();
    errno = 0;
    EXPECT_EQ(-1, Tarnwick::become_user(L"tarnwick-no-such-user"));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(uid, ::getuid());
}

TEST(BecomeUserTest, BadName) {
    errno = 0;
    EXPECT_EQ(-1, Tarnwick::become_user(nullptr));
    EXPECT_EQ(EINVAL, errno);
    const wchar_t surrogate[] = {L'a', static_cast<wchar_t>(0xD800), 0};
    errno = 0;
    EXPECT_EQ(-1, Tarnwick::become_user(surrogate));
    EXPECT_EQ(EILSEQ, errno);
}

TEST(BecomeUserTest, SwitchesToNobodyInAChild) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    struct passwd* nobody = ::getpwnam("nobody");
    if (nobody == nullptr) {
        GTEST_SKIP() << "no user nobody";
    }
    uid_t const uid = nobody->pw_uid;
    gid_t const gid = nobody->pw_gid;
    pid_t const child = ::fork();
    ASSERT_NE(-1, child);
    if (child == 0) {
        if (Tarnwick::become_user(L"nobody") != 0) {
            ::_exit(1);
        }
        uid_t ruid, euid, suid;
        gid_t rgid, egid, sgid;
        if (::getresuid(&ruid, &euid, &suid) != 0 || ::getresgid(&rgid, &egid, &sgid) != 0) {
            ::_exit(2);
        }
        if (ruid != uid || euid != uid || suid != uid) {
            ::_exit(3);
        }
        if (rgid != gid || egid != gid || sgid != gid) {
            ::_exit(4);
        }
        // No way back to root.
        if (::setuid(0) == 0) {
            ::_exit(5);
        }
        // Becoming the user it already is changes nothing and succeeds.
        if (Tarnwick::become_user(L"nobody") != 0) {
            ::_exit(6);
        }
        errno = 0;
        if (Tarnwick::become_user(L"root") != -1 || errno != EPERM) {
            ::_exit(7);
        }
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
}

}  // namespace
