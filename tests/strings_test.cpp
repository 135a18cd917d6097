// Tests of the bounded string helpers: strlcpy, strlncpy, strcpy, strncpy,
// strlen, strcat and strncat, narrow and wide.
#include <tarnwick/strings.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

#include "guarded.h"

namespace {

using TarnwickTest::NarrowBuffer;
using TarnwickTest::WideBuffer;

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

}  // namespace
