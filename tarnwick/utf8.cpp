#include <tarnwick/utf8.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>

namespace Tarnwick {

namespace {

// Bytes that the code point needs in UTF-8; 0 for a surrogate or a value
// above U+10FFFF (negative wchar_t values end up there as well).
inline size_t utf8Size(wchar_t c) {
    uint32_t const cp = static_cast<uint32_t>(c);
    if (cp < 0x80)
        return 1;
    if (cp < 0x800)
        return 2;
    if (cp >= 0xD800 && cp <= 0xDFFF)
        return 0;
    if (cp < 0x10000)
        return 3;
    if (cp <= 0x10FFFF)
        return 4;
    return 0;
}

// Bytes needed for `source` without the terminator; false (errno EILSEQ)
// when it holds a character that UTF-8 can't carry.
bool utf8Length(const wchar_t* source, size_t& length) {
    size_t total = 0;
    for (const wchar_t* p = source; *p != 0; ++p) {
        size_t const n = utf8Size(*p);
        if (n == 0) {
            errno = EILSEQ;
            return false;
        }
        total += n;
    }
    length = total;
    return true;
}

// Writes the UTF-8 form of valid wide text and its terminator.
void encodeUTF8(char* target, const wchar_t* source) {
    unsigned char* out = reinterpret_cast<unsigned char*>(target);
    for (const wchar_t* p = source; *p != 0; ++p) {
        uint32_t const cp = static_cast<uint32_t>(*p);
        switch (utf8Size(*p)) {
            case 1:
                *out++ = static_cast<unsigned char>(cp);
                break;
            case 2:
                *out++ = static_cast<unsigned char>(0xC0 | (cp >> 6));
                *out++ = static_cast<unsigned char>(0x80 | (cp & 0x3F));
                break;
            case 3:
                *out++ = static_cast<unsigned char>(0xE0 | (cp >> 12));
                *out++ = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
                *out++ = static_cast<unsigned char>(0x80 | (cp & 0x3F));
                break;
            default:
                *out++ = static_cast<unsigned char>(0xF0 | (cp >> 18));
                *out++ = static_cast<unsigned char>(0x80 | ((cp >> 12) & 0x3F));
                *out++ = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
                *out++ = static_cast<unsigned char>(0x80 | (cp & 0x3F));
                break;
        }
    }
    *out = 0;
}

// Decodes one character from `text`, of which `available` bytes may be read
// (a terminator ends the text earlier in any case, as it is no continuation
// byte). Returns the bytes it took, or 0 for anything that is not well-formed
// UTF-8: stray continuation bytes, overlong forms, truncated sequences,
// surrogates and values above U+10FFFF.
size_t decodeUTF8(const unsigned char* text, size_t available, uint32_t& cp) {
    unsigned char const lead = text[0];
    size_t length;
    uint32_t minimum;
    if (lead < 0x80) {
        cp = lead;
        return 1;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        minimum = 0x80;
        cp = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        minimum = 0x800;
        cp = lead & 0x0F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        minimum = 0x10000;
        cp = lead & 0x07;
    } else {
        return 0;  // 80..BF, the overlong leads C0 and C1, and F5..FF
    }
    if (available < length) {
        return 0;  // the limit falls inside the sequence
    }
    for (size_t i = 1; i < length; ++i) {
        if ((text[i] & 0xC0) != 0x80) {
            return 0;
        }
        cp = (cp << 6) | (text[i] & 0x3F);
    }
    if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        return 0;
    }
    return length;
}

// Characters of the terminated UTF-8 text `source`, without the terminator;
// false (errno EILSEQ) when it is not valid.
bool wideLength(const char* source, size_t& length) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(source);
    size_t total = 0;
    while (*p != 0) {
        uint32_t cp;
        // The terminator stops a sequence, so 4 bytes may always be asked for.
        size_t const n = decodeUTF8(p, 4, cp);
        if (n == 0) {
            errno = EILSEQ;
            return false;
        }
        p += n;
        ++total;
    }
    length = total;
    return true;
}

// Writes the wide form of valid UTF-8 text and its terminator.
void decodeToWide(wchar_t* target, const char* source) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(source);
    while (*p != 0) {
        uint32_t cp = 0;
        p += decodeUTF8(p, 4, cp);
        *target++ = static_cast<wchar_t>(cp);
    }
    *target = 0;
}

}  // namespace

char* wcstoutf8_malloced(const wchar_t* source) {
    if (source == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    size_t length;
    if (!utf8Length(source, length)) {
        return nullptr;
    }
    char* target = static_cast<char*>(std::malloc(length + 1));
    if (target == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    encodeUTF8(target, source);
    return target;
}

wchar_t* utf8towcs_malloced(const char* source) {
    if (source == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    size_t length;
    if (!wideLength(source, length)) {
        return nullptr;
    }
    wchar_t* target = static_cast<wchar_t*>(std::malloc((length + 1) * sizeof(wchar_t)));
    if (target == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    decodeToWide(target, source);
    return target;
}

bool wcstoutf8(const wchar_t* source, std::string& out) {
    char* const converted = wcstoutf8_malloced(source);
    if (converted == nullptr)
        return false;
    out = converted;
    utf8free(converted);
    return true;
}

bool utf8towcs(const char* source, std::wstring& out) {
    wchar_t* const converted = utf8towcs_malloced(source);
    if (converted == nullptr)
        return false;
    out = converted;
    wcsfree(converted);
    return true;
}

void wcsfree(wchar_t* text) {
    std::free(text);
}

void utf8free(char* text) {
    std::free(text);
}

int wcstoutf8_buf(char* target, const wchar_t* source, size_t size) {
    if (target == nullptr || source == nullptr) {
        errno = EINVAL;
        return 0;
    }
    size_t length;
    bool const valid = utf8Length(source, length);
    if (valid && length < size) {
        encodeUTF8(target, source);
        return 1;
    }
    if (valid) {
        errno = ERANGE;
    }
    if (size > 0) {
        target[0] = '\0';
    }
    return 0;
}

int utf8towcs_buf(wchar_t* target, const char* source, size_t size) {
    if (target == nullptr || source == nullptr) {
        errno = EINVAL;
        return 0;
    }
    size_t length;
    bool const valid = wideLength(source, length);
    if (valid && length < size) {
        decodeToWide(target, source);
        return 1;
    }
    if (valid) {
        errno = ERANGE;
    }
    if (size > 0) {
        target[0] = L'\0';
    }
    return 0;
}

bool isValidUTF8(const char* text, size_t size) {
    if (text == nullptr) {
        return false;
    }
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
    size_t done = 0;
    while (done < size && p[done] != 0) {
        uint32_t cp;
        size_t const n = decodeUTF8(p + done, size - done, cp);
        if (n == 0) {
            return false;
        }
        done += n;
    }
    return true;
}

size_t xmlTextCharLength(const char* text, size_t length) {
    if (text == nullptr || length == 0)
        return 0;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
    unsigned int const lead = p[0];
    if (lead < 0x80) {
        bool const allowed = lead >= 0x20 || lead == 0x09 || lead == 0x0A || lead == 0x0D;
        return allowed ? 1 : 0;
    }
    size_t size;
    uint32_t code;
    uint32_t smallest;
    if ((lead & 0xE0) == 0xC0) {
        size = 2;
        code = lead & 0x1F;
        smallest = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        size = 3;
        code = lead & 0x0F;
        smallest = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        size = 4;
        code = lead & 0x07;
        smallest = 0x10000;
    } else {
        return 0;
    }
    if (length < size)
        return 0;
    for (size_t i = 1; i < size; ++i) {
        if ((p[i] & 0xC0) != 0x80)
            return 0;
        code = (code << 6) | (p[i] & 0x3F);
    }
    if (code < smallest || code > 0x10FFFF)
        return 0;  // overlong form, or beyond Unicode
    if ((code >= 0xD800 && code <= 0xDFFF) || code == 0xFFFE || code == 0xFFFF)
        return 0;  // surrogates and the two characters XML leaves out
    return size;
}

std::string utf8String(const wchar_t* text) {
    std::string out;
    if (text != nullptr)
        wcstoutf8(text, out);
    return out;
}

}  // namespace Tarnwick
