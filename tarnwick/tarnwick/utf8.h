// Strict conversions between wide text (UTF-32) and UTF-8, the one pair that
// every place of the library that converts goes through. Invalid UTF-8
// (overlong forms, truncated sequences, surrogates, code points above
// U+10FFFF) and wide text holding surrogates or values above U+10FFFF fail,
// whatever the process locale says.
#pragma once

#include <tarnwick/export.h>

#include <cstddef>
#include <string>

namespace Tarnwick {

// New UTF-8 text, released with utf8free; null on failure (errno EILSEQ or
// ENOMEM, EINVAL for null).
TARNWICK_EXPORT char* wcstoutf8_malloced(const wchar_t* source);
// New wide text, released with wcsfree; null on failure.
TARNWICK_EXPORT wchar_t* utf8towcs_malloced(const char* source);
TARNWICK_EXPORT void wcsfree(wchar_t* text);
TARNWICK_EXPORT void utf8free(char* text);
// The same into strings: false (errno EINVAL for null, EILSEQ for text that
// doesn't convert, ENOMEM) with `out` unchanged.
TARNWICK_EXPORT bool wcstoutf8(const wchar_t* source, std::string& out);
TARNWICK_EXPORT bool utf8towcs(const char* source, std::wstring& out);
// Convert into a caller's buffer of `size` bytes (characters); non-zero on
// success, 0 on failure or when the result with its terminator doesn't fit.
TARNWICK_EXPORT int wcstoutf8_buf(char* target, const wchar_t* source, size_t size);
TARNWICK_EXPORT int utf8towcs_buf(wchar_t* target, const char* source, size_t size);
// True when the first `size` bytes of `text` (or up to its terminator, which
// ever comes first) are valid UTF-8.
TARNWICK_EXPORT bool isValidUTF8(const char* text, size_t size);
// The UTF-8 form of `text` as a string; empty for null and for text that
// doesn't convert.
TARNWICK_EXPORT std::string utf8String(const wchar_t* text);

// The length in bytes (1 to 4) of the UTF-8 sequence at the start of `text`,
// of at most `length` bytes, when it is one character that XML 1.0 allows:
// tab, line feed, carriage return, U+0020 to U+D7FF, U+E000 to U+FFFD and
// U+10000 to U+10FFFF, in shortest form. 0 for anything else, including an
// empty text.
TARNWICK_EXPORT size_t xmlTextCharLength(const char* text, size_t length);

}  // namespace Tarnwick
