// Store text escaping: the escape rule, the size contract of the escape
// pair, the wide forms, and the round trip of every byte sequence.
#include <tarnwick/path_encoder.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

using Tarnwick::Path_Encoder;
using Tarnwick::storeEscape;
using Tarnwick::storeUnescape;

namespace {

std::string escaped(const std::string& plain) {
    ssize_t const n = storeEscape(plain.data(), plain.size(), nullptr, 0);
    EXPECT_GE(n, 0);
    std::vector<char> buffer(static_cast<size_t>(n) + 1, 'X');
    EXPECT_EQ(n, storeEscape(plain.data(), plain.size(), buffer.data(), buffer.size()));
    EXPECT_EQ('\0', buffer[static_cast<size_t>(n)]);
    return std::string(buffer.data(), static_cast<size_t>(n));
}

std::string unescaped(const std::string& text) {
    ssize_t const n = storeUnescape(text.data(), text.size(), nullptr, 0);
    EXPECT_GE(n, 0);
    std::vector<char> buffer(static_cast<size_t>(n) + 1, 'X');
    EXPECT_EQ(n, storeUnescape(text.data(), text.size(), buffer.data(), buffer.size()));
    return std::string(buffer.data(), static_cast<size_t>(n));
}

}  // namespace

TEST(PathEncoder, EscapesSeparatorPercentAndControlBytes) {
    EXPECT_EQ("a%2Fb%25c", escaped("a/b%c"));
    EXPECT_EQ("%00%01%09%0A%0D%1F%7F", escaped(std::string("\0\x01\t\n\r\x1f\x7f", 7)));
    EXPECT_EQ("plain text, with: punctuation! ~^", escaped("plain text, with: punctuation! ~^"));
    EXPECT_EQ("back\\slash", escaped("back\\slash"));
}

TEST(PathEncoder, KeepsValidUTF8AndEscapesInvalidBytes) {
    EXPECT_EQ("caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80",
              escaped("caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"));
    EXPECT_EQ("%FF%FE", escaped("\xFF\xFE"));
    // Overlong form, lone continuation, cut sequence, surrogate, above U+10FFFF.
    EXPECT_EQ("%C0%AF", escaped("\xC0\xAF"));
    EXPECT_EQ("a%80b", escaped("a\x80"
                               "b"));
    EXPECT_EQ("%E2%82", escaped("\xE2\x82"));
    EXPECT_EQ("%E2%82x", escaped("\xE2\x82x"));
    EXPECT_EQ("%ED%A0%80", escaped("\xED\xA0\x80"));
    EXPECT_EQ("%F4%90%80%80", escaped("\xF4\x90\x80\x80"));
}

TEST(PathEncoder, NullTargetGivesOnlyTheLength) {
    EXPECT_EQ(9, storeEscape("a/b%c", 5, nullptr, 0));
    EXPECT_EQ(9, Path_Encoder::EscapeA("a/b%c", nullptr, 0));
    EXPECT_EQ(5, Path_Encoder::UnescapeA("a%2Fb%25c", nullptr, 0));
    EXPECT_EQ(0, Path_Encoder::EscapeA("", nullptr, 0));
}

TEST(PathEncoder, SmallTargetGetsWholeEscapesAndATerminator) {
    char out[6];
    std::memset(out, 'X', sizeof out);
    // "a%2Fb%25c": "a%2Fb" (5 bytes) fits before the terminator, "%25" not.
    EXPECT_EQ(9, Path_Encoder::EscapeA("a/b%c", out, sizeof out));
    EXPECT_STREQ("a%2Fb", out);
    std::memset(out, 'X', sizeof out);
    EXPECT_EQ(9, Path_Encoder::EscapeA("a/b%c", out, 3));
    EXPECT_STREQ("a", out);
    char one[1] = {'X'};
    EXPECT_EQ(1, Path_Encoder::EscapeA("a", one, 1));
    EXPECT_EQ('\0', one[0]);
}

TEST(PathEncoder, BadArgumentsGiveEINVAL) {
    char out[4];
    errno = 0;
    EXPECT_EQ(-1, Path_Encoder::EscapeA(nullptr, out, sizeof out));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(-1, storeEscape("abc", 3, nullptr, 4));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(-1, Path_Encoder::UnescapeA(nullptr, out, sizeof out));
    EXPECT_EQ(EINVAL, errno);
}

TEST(PathEncoder, UnescapeTakesEitherCaseAndLeavesStrayPercents) {
    EXPECT_EQ("a/b", unescaped("a%2fb"));
    EXPECT_EQ("a/b", unescaped("a%2Fb"));
    EXPECT_EQ("100%", unescaped("100%"));
    EXPECT_EQ("%4", unescaped("%4"));
    EXPECT_EQ("%zz%G0", unescaped("%zz%G0"));
    EXPECT_EQ(std::string("x\0y", 3), unescaped("x%00y"));
}

TEST(PathEncoder, RoundTripsEveryByteSequence) {
    std::mt19937 random(20261123);
    for (int round = 0; round < 5000; ++round) {
        std::string plain(random() % 64, '\0');
        // Mostly arbitrary bytes; some rounds biased to UTF-8 lead and
        // continuation bytes so that valid and broken sequences both occur.
        bool const biased = round % 3 == 0;
        for (char& c : plain) {
            unsigned const r = random();
            c = static_cast<char>(biased ? (r % 2 ? 0x80 + r % 0x40 : 0xC0 + r % 0x38) : r % 256);
        }
        std::string const text = escaped(plain);
        // The escaped text holds no separator, no control byte and only valid UTF-8.
        for (char const c : text) {
            unsigned char const b = static_cast<unsigned char>(c);
            ASSERT_NE('/', c);
            ASSERT_TRUE(b >= 0x20 && b != 0x7F);
        }
        ASSERT_EQ(plain, unescaped(text)) << "round " << round;
    }
}

TEST(PathEncoder, WideFormsEscapeTheUTF8Form) {
    wchar_t out[32];
    EXPECT_EQ(8, Path_Encoder::Escape(L"a/\u00e9%", out, 32));
    EXPECT_EQ(std::wstring(L"a%2F\u00e9%25"), out);
    EXPECT_EQ(4, Path_Encoder::Unescape(L"a%2F\u00e9%25", out, 32));
    EXPECT_EQ(std::wstring(L"a/\u00e9%"), out);
    EXPECT_EQ(8, Path_Encoder::Escape(L"a/\u00e9%", nullptr, 0));
    EXPECT_EQ(8, Path_Encoder::Escape(L"a/\u00e9%", out, 4));
    EXPECT_EQ(std::wstring(L"a%2"), out);
}

TEST(PathEncoder, WideTextWithoutUTF8FormFails) {
    wchar_t out[16];
    wchar_t const surrogate[] = {L'a', static_cast<wchar_t>(0xD800), 0};
    errno = 0;
    EXPECT_EQ(-1, Path_Encoder::Escape(surrogate, out, 16));
    EXPECT_EQ(EILSEQ, errno);
    // Escaped bytes that aren't UTF-8 have no wide form.
    errno = 0;
    EXPECT_EQ(-1, Path_Encoder::Unescape(L"%FF", out, 16));
    EXPECT_EQ(EILSEQ, errno);
}

TEST(PathEncoder, UnEscapeToBufferWritesEveryByte) {
    std::ostringstream out;
    Path_Encoder::UnEscapeToBuffer(out, "a%2Fb%00c%FF");
    EXPECT_EQ(std::string("a/b\0c\xFF", 6), out.str());
    std::ostringstream empty;
    Path_Encoder::UnEscapeToBuffer(empty, "");
    EXPECT_EQ("", empty.str());
}
