#include <tarnwick/path_encoder.h>
#include <tarnwick/utf8.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <new>
#include <string>
#include <vector>

namespace Tarnwick {

namespace {

const char HEX[] = "0123456789ABCDEF";

// Length of the valid UTF-8 sequence at `p` (at most `left` bytes), or 0
// when the byte there starts none: no overlong forms, no surrogates, nothing
// above U+10FFFF.
size_t utf8SequenceAt(const unsigned char* p, size_t left) {
    unsigned char const b = p[0];
    size_t n;
    uint32_t min;
    uint32_t cp;
    if (b < 0x80)
        return 1;
    if (b >= 0xC2 && b <= 0xDF) {
        n = 2;
        min = 0x80;
        cp = b & 0x1F;
    } else if (b >= 0xE0 && b <= 0xEF) {
        n = 3;
        min = 0x800;
        cp = b & 0x0F;
    } else if (b >= 0xF0 && b <= 0xF4) {
        n = 4;
        min = 0x10000;
        cp = b & 0x07;
    } else {
        return 0;
    }
    if (left < n)
        return 0;
    for (size_t i = 1; i < n; ++i) {
        if ((p[i] & 0xC0) != 0x80)
            return 0;
        cp = (cp << 6) | (p[i] & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
        return 0;
    return n;
}

inline bool escapedAscii(unsigned char b) {
    return b < 0x20 || b == 0x7F || b == '/' || b == '%';
}

inline int hexValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

// Appends a piece of output of `n` bytes when it fits whole before the
// terminator; once a piece doesn't fit, nothing more is written.
class Sink {
public:
    Sink(char* out, size_t size) : m_out(out), m_size(size), m_length(0), m_full(size == 0) {}
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;
    void put(const char* piece, size_t n) {
        if (!m_full) {
            if (m_length + n < m_size)
                std::memcpy(m_out + m_length, piece, n);
            else
                finish();
        }
        m_length += n;
    }
    ssize_t finish() {
        if (!m_full) {
            size_t const written = m_length < m_size ? m_length : m_size - 1;
            m_out[written] = '\0';
            m_full = true;
        }
        return static_cast<ssize_t>(m_length);
    }

private:
    char* m_out;
    size_t m_size;
    size_t m_length;
    bool m_full;
};

[[nodiscard]] bool validArguments(const char* in, size_t length, const void* out, size_t size) {
    if ((in == nullptr && length != 0) || (out == nullptr && size != 0)) {
        errno = EINVAL;
        return false;
    }
    return true;
}

// Narrow result of a wide operation, copied into the caller's wide buffer
// with the same size contract.
ssize_t widenInto(const std::vector<char>& narrow, size_t length, wchar_t* out, size_t size) {
    std::wstring wide;
    std::string const text(narrow.data(), length);
    if (text.find('\0') != std::string::npos || !utf8towcs(text.c_str(), wide)) {
        errno = EILSEQ;
        return -1;
    }
    if (size != 0) {
        size_t const n = wide.size() < size ? wide.size() : size - 1;
        wide.copy(out, n);
        out[n] = L'\0';
    }
    return static_cast<ssize_t>(wide.size());
}

typedef ssize_t (*Coder)(const char*, size_t, char*, size_t);

ssize_t wideCoding(Coder coder, const wchar_t* in, wchar_t* out, size_t size) {
    if (in == nullptr || (out == nullptr && size != 0)) {
        errno = EINVAL;
        return -1;
    }
    std::string narrow;
    if (!wcstoutf8(in, narrow))
        return -1;
    try {
        ssize_t const n = coder(narrow.data(), narrow.size(), nullptr, 0);
        if (n < 0)
            return -1;
        std::vector<char> buffer(static_cast<size_t>(n) + 1);
        coder(narrow.data(), narrow.size(), buffer.data(), buffer.size());
        return widenInto(buffer, static_cast<size_t>(n), out, size);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
}

}  // namespace

ssize_t storeEscape(const char* in, size_t length, char* out, size_t size) {
    if (!validArguments(in, length, out, size))
        return -1;
    Sink sink(out, size);
    const unsigned char* const p = reinterpret_cast<const unsigned char*>(in);
    size_t i = 0;
    while (i < length) {
        unsigned char const b = p[i];
        size_t const n = b < 0x80 ? (escapedAscii(b) ? 0 : 1) : utf8SequenceAt(p + i, length - i);
        if (n == 0) {
            char const escaped[3] = {'%', HEX[b >> 4], HEX[b & 0x0F]};
            sink.put(escaped, 3);
            ++i;
        } else {
            sink.put(in + i, n);
            i += n;
        }
    }
    return sink.finish();
}

ssize_t storeUnescape(const char* in, size_t length, char* out, size_t size) {
    if (!validArguments(in, length, out, size))
        return -1;
    Sink sink(out, size);
    size_t i = 0;
    while (i < length) {
        if (in[i] == '%' && i + 2 < length) {
            int const high = hexValue(in[i + 1]);
            int const low = hexValue(in[i + 2]);
            if (high >= 0 && low >= 0) {
                char const byte = static_cast<char>((high << 4) | low);
                sink.put(&byte, 1);
                i += 3;
                continue;
            }
        }
        sink.put(in + i, 1);
        ++i;
    }
    return sink.finish();
}

namespace {

// URL-encodes the zero-terminated `source` into `target`, which holds three
// times its length plus one.
void URLEncode(const char* source, char* target) {
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(source); *p != 0; ++p) {
        unsigned char const c = *p;
        if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
            c == '-' || c == '.' || c == '_' || c == '~') {
            *target++ = static_cast<char>(c);
        } else {
            *target++ = '%';
            *target++ = HEX[c >> 4];
            *target++ = HEX[c & 15];
        }
    }
    *target = '\0';
}

// Decodes "%HH" in place; 0 for a '%' without two hexadecimal digits or a
// "%00", which would cut the text.
int URLDecode(char* text) {
    char* out = text;
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p != '%') {
            *out++ = *p;
            continue;
        }
        int const high = hexValue(p[1]);
        int const low = high < 0 ? -1 : hexValue(p[2]);
        if (low < 0 || (high == 0 && low == 0))
            return 0;
        *out++ = static_cast<char>(high * 16 + low);
        p += 2;
    }
    *out = '\0';
    return 1;
}

}  // namespace

Path_Encoder::Path_Encoder() = default;

char* Path_Encoder::encode(const wchar_t* path, char* out) {
    if (path == nullptr || out == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    size_t const size = 4 * std::wcslen(path) + 1;
    char* const buffer = new (std::nothrow) char[size];
    if (buffer == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    char* result = nullptr;
    if (wcstoutf8_buf(buffer, path, size) != 0) {
        URLEncode(buffer, out);
        result = out;
    }
    delete[] buffer;
    return result;
}

wchar_t* Path_Encoder::decode(const char* text, wchar_t* out) {
    if (text == nullptr || out == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    size_t const size = std::strlen(text) + 1;
    char* const buffer = new (std::nothrow) char[size];
    if (buffer == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    std::memcpy(buffer, text, size);
    wchar_t* result = nullptr;
    if (URLDecode(buffer) != 0 && utf8towcs_buf(out, buffer, size) != 0)
        result = out;
    else if (errno == 0)
        errno = EILSEQ;
    delete[] buffer;
    return result;
}

ssize_t Path_Encoder::EscapeA(const char* in, char* out, size_t size) {
    if (in == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return storeEscape(in, std::strlen(in), out, size);
}

ssize_t Path_Encoder::UnescapeA(const char* in, char* out, size_t size) {
    if (in == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return storeUnescape(in, std::strlen(in), out, size);
}

ssize_t Path_Encoder::Escape(const wchar_t* in, wchar_t* out, size_t size) {
    return wideCoding(storeEscape, in, out, size);
}

ssize_t Path_Encoder::Unescape(const wchar_t* in, wchar_t* out, size_t size) {
    return wideCoding(storeUnescape, in, out, size);
}

void Path_Encoder::UnEscapeToBuffer(std::ostream& out, const std::string& text) {
    // Unescaped text is never longer than its escaped form.
    std::vector<char> buffer(text.size() + 1);
    ssize_t const n = storeUnescape(text.data(), text.size(), buffer.data(), buffer.size());
    if (n > 0)
        out.write(buffer.data(), n);
}

}  // namespace Tarnwick
