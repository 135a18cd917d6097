#include <tarnwick/base64.h>

#include <openssl/evp.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace Tarnwick {

namespace {

const size_t kMaxSize = 0xFFFFFFFFu;

inline size_t clampSize(size_t size) {
    return std::min(size, kMaxSize);
}

// Value of a Base64 digit, or -1.
inline int base64Value(unsigned char c) {
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+')
        return 62;
    if (c == '/')
        return 63;
    return -1;
}

// Checks that `text` of `length` characters is canonical Base64: groups of
// four digits of the standard alphabet, "=" only as the padding of the last
// group, and the unused bits before the padding 0. OpenSSL's block decoder is
// lenient about all of that, so it only ever sees text checked here. Returns
// the number of padding characters, or -1.
int checkBase64(const char* text, size_t length) {
    if (length % 4 != 0) {
        return -1;
    }
    int padding = 0;
    if (length > 0 && text[length - 1] == '=') {
        padding = text[length - 2] == '=' ? 2 : 1;
    }
    size_t const digits = length - padding;
    for (size_t i = 0; i < digits; ++i) {
        if (base64Value(static_cast<unsigned char>(text[i])) < 0) {
            return -1;
        }
    }
    if (padding == 2 && (base64Value(static_cast<unsigned char>(text[digits - 1])) & 0x0F) != 0) {
        return -1;
    }
    if (padding == 1 && (base64Value(static_cast<unsigned char>(text[digits - 1])) & 0x03) != 0) {
        return -1;
    }
    return padding;
}

// Input bytes per EVP_EncodeBlock call (a multiple of 3), and Base64
// characters per EVP_DecodeBlock call (a multiple of 4); both keep OpenSSL's
// int lengths far from their limit.
const size_t kEncodeChunk = 3u << 20;
const size_t kDecodeChunk = 4u << 20;

// Decodes checked Base64 of `length` characters with `padding` into `target`,
// which has room for exactly the decoded bytes. False if OpenSSL refuses.
bool decodeChecked(const char* text, size_t length, int padding, unsigned char* target) {
    if (length == 0) {
        return true;
    }
    // All groups but the last decode to three bytes each, straight into the
    // target. The last one goes through a small buffer, as OpenSSL writes its
    // padding out as zero bytes.
    size_t const body = length - 4;
    const unsigned char* in = reinterpret_cast<const unsigned char*>(text);
    for (size_t done = 0; done < body;) {
        size_t const chunk = std::min(body - done, kDecodeChunk);
        int const n = EVP_DecodeBlock(target + done / 4 * 3, in + done, static_cast<int>(chunk));
        if (n != static_cast<int>(chunk / 4 * 3)) {
            return false;
        }
        done += chunk;
    }
    unsigned char last[3];
    if (EVP_DecodeBlock(last, in + body, 4) != 3) {
        return false;
    }
    std::memcpy(target + body / 4 * 3, last, static_cast<size_t>(3 - padding));
    return true;
}

}  // namespace

int Base64Encode(const char* data, size_t size, char* target, size_t target_size) {
    size = clampSize(size);
    target_size = clampSize(target_size);
    if ((data == nullptr && size > 0) || target == nullptr) {
        errno = EINVAL;
        return -1;
    }
    size_t const length = (size + 2) / 3 * 4;
    if (length > static_cast<size_t>(INT_MAX)) {
        errno = EOVERFLOW;
        return -1;
    }
    if (length >= target_size) {
        if (target_size > 0) {
            target[0] = '\0';
        }
        errno = ERANGE;
        return -1;
    }
    const unsigned char* in = reinterpret_cast<const unsigned char*>(data);
    unsigned char* out = reinterpret_cast<unsigned char*>(target);
    // Each call terminates its output, which the next one writes over.
    for (size_t done = 0; done < size;) {
        size_t const chunk = std::min(size - done, kEncodeChunk);
        EVP_EncodeBlock(out + done / 3 * 4, in + done, static_cast<int>(chunk));
        done += chunk;
    }
    target[length] = '\0';
    return static_cast<int>(length);
}

int Base64Decode(const char* text, char* target, size_t target_size) {
    target_size = clampSize(target_size);
    if (text == nullptr || target == nullptr) {
        errno = EINVAL;
        return -1;
    }
    size_t const length = std::strlen(text);
    int const padding = checkBase64(text, length);
    if (padding < 0) {
        errno = EINVAL;
        return -1;
    }
    size_t const decoded = length / 4 * 3 - static_cast<size_t>(padding);
    if (decoded > static_cast<size_t>(INT_MAX)) {
        errno = EOVERFLOW;
        return -1;
    }
    if (decoded > target_size) {
        errno = ERANGE;
        return -1;
    }
    if (!decodeChecked(text, length, padding, reinterpret_cast<unsigned char*>(target))) {
        errno = EINVAL;
        return -1;
    }
    return static_cast<int>(decoded);
}

}  // namespace Tarnwick
