// Tests of Base64.
#include <tarnwick/base64.h>

#include <gtest/gtest.h>

#include <openssl/evp.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "guarded.h"

namespace {

using TarnwickTest::NarrowBuffer;

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

}  // namespace
