#include <tarnwick/base64.h>
#include <tarnwick/password.h>

#include <openssl/crypto.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <new>
#include <vector>

namespace Tarnwick {

namespace {

// "{twp}" followed by the Base64 of: a 32-bit check of the password, then the
// password's bytes; all of it XORed with a fixed key stream. This only keeps
// a password in a configuration file from being read at a glance. It is not
// encryption: anyone with this source, or enough patience, reverses it. The
// check makes sure that arbitrary text after the prefix is rejected rather
// than turned into a wrong password.

const char kPasswordPrefix[] = "{twp}";
const size_t kPasswordPrefixLength = sizeof(kPasswordPrefix) - 1;
const size_t kPasswordCheckBytes = 4;

// Target sizes are clamped as Base64's are.
const size_t kMaxSize = 0xFFFFFFFFu;

inline size_t clampSize(size_t size) {
    return std::min(size, kMaxSize);
}

const unsigned char kPasswordKey[16] = {0x5A, 0xC3, 0x17, 0x8E, 0x2B, 0xF4, 0x61, 0x9D,
                                        0xB0, 0x3E, 0xD7, 0x48, 0x86, 0x0F, 0xE9, 0x72};

inline unsigned char passwordKey(size_t position) {
    return static_cast<unsigned char>(kPasswordKey[position % sizeof(kPasswordKey)] ^
                                      ((position * 0x9D) & 0xFF));
}

// FNV-1a over the length and the bytes of the password.
uint32_t passwordCheck(const unsigned char* text, size_t length) {
    uint32_t hash = 2166136261u;
    auto const mix = [&hash](unsigned char byte) {
        hash ^= byte;
        hash *= 16777619u;
    };
    for (size_t i = 0; i < sizeof(uint32_t); ++i) {
        mix(static_cast<unsigned char>(length >> (8 * i)));
    }
    for (size_t i = 0; i < length; ++i) {
        mix(text[i]);
    }
    return hash;
}

// The check in the order in which it is stored, most significant byte first.
void storeCheck(uint32_t check, unsigned char* out) {
    for (size_t i = 0; i < kPasswordCheckBytes; ++i) {
        out[i] = static_cast<unsigned char>(check >> (8 * (kPasswordCheckBytes - 1 - i)));
    }
}

void obfuscate(std::vector<unsigned char>& data) {
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] ^= passwordKey(i);
    }
}

// Clears a buffer that held a password before it is released.
void wipe(std::vector<unsigned char>& data) {
    if (!data.empty()) {
        OPENSSL_cleanse(data.data(), data.size());
    }
}

}  // namespace

int EncodePassword(const char* text, char* target, size_t target_size) {
    target_size = clampSize(target_size);
    if (text == nullptr || target == nullptr) {
        errno = EINVAL;
        return -1;
    }
    size_t const length = std::strlen(text);
    size_t const payload = kPasswordCheckBytes + length;
    size_t const stored = kPasswordPrefixLength + (payload + 2) / 3 * 4;
    if (stored > static_cast<size_t>(INT_MAX)) {
        errno = EOVERFLOW;
        return -1;
    }
    if (stored >= target_size) {
        if (target_size > 0) {
            target[0] = '\0';
        }
        errno = ERANGE;
        return -1;
    }
    std::vector<unsigned char> data;
    try {
        data.resize(payload);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
    const unsigned char* password = reinterpret_cast<const unsigned char*>(text);
    storeCheck(passwordCheck(password, length), data.data());
    std::copy(password, password + length, data.begin() + kPasswordCheckBytes);
    obfuscate(data);
    std::memcpy(target, kPasswordPrefix, kPasswordPrefixLength);
    int const encoded =
        Base64Encode(reinterpret_cast<const char*>(data.data()), data.size(),
                     target + kPasswordPrefixLength, target_size - kPasswordPrefixLength);
    wipe(data);
    if (encoded < 0) {
        target[0] = '\0';
        return -1;
    }
    return static_cast<int>(kPasswordPrefixLength) + encoded;
}

int DecodePassword(const char* text, char* target, size_t target_size) {
    target_size = clampSize(target_size);
    if (text == nullptr || target == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (std::strncmp(text, kPasswordPrefix, kPasswordPrefixLength) != 0) {
        errno = EINVAL;
        return -1;
    }
    const char* encoded = text + kPasswordPrefixLength;
    size_t const length = std::strlen(encoded);
    std::vector<unsigned char> data;
    try {
        data.resize(length / 4 * 3);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
    int const decoded = Base64Decode(encoded, reinterpret_cast<char*>(data.data()), data.size());
    if (decoded < static_cast<int>(kPasswordCheckBytes)) {
        wipe(data);
        errno = EINVAL;
        return -1;
    }
    data.resize(static_cast<size_t>(decoded));
    obfuscate(data);
    const unsigned char* password = data.data() + kPasswordCheckBytes;
    size_t const password_length = data.size() - kPasswordCheckBytes;
    unsigned char check[kPasswordCheckBytes];
    storeCheck(passwordCheck(password, password_length), check);
    bool const intact =
        std::memcmp(check, data.data(), kPasswordCheckBytes) == 0 &&
        std::find(password, password + password_length, 0) == password + password_length;
    int result = -1;
    if (!intact) {
        errno = EINVAL;
    } else if (password_length >= target_size) {
        if (target_size > 0) {
            target[0] = '\0';
        }
        errno = ERANGE;
    } else {
        std::memcpy(target, password, password_length);
        target[password_length] = '\0';
        result = static_cast<int>(password_length);
    }
    wipe(data);
    return result;
}

}  // namespace Tarnwick
