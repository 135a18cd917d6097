// Tests of the stored password form.
#include <tarnwick/base64.h>
#include <tarnwick/password.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "guarded.h"

namespace {

using TarnwickTest::NarrowBuffer;

// ---------------------------------------------------------------------------
// Stored passwords

// A password and its stored text.
struct Base64Vector {
    const char* data;
    const char* text;
};

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

}  // namespace
