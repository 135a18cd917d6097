// Strict conversions between wide text (UTF-32) and UTF-8, the one pair that
// every place of the library that converts goes through. Invalid UTF-8
// (overlong forms, truncated sequences, surrogates, code points above
// U+10FFFF) and wide text holding surrogates or values above U+10FFFF fail,
// whatever the process locale says.
#pragma once

#include <cstddef>
#include <string>

namespace Tarnwick {

// New UTF-8 text, released with utf8free; null on failure (errno EILSEQ or
// ENOMEM, EINVAL for null).
char* wcstoutf8_malloced(const wchar_t* source);
// New wide text, released with wcsfree; null on failure.
wchar_t* utf8towcs_malloced(const char* source);
void wcsfree(wchar_t* text);
void utf8free(char* text);
// The same into strings: false (errno EINVAL for null, EILSEQ for text that
// doesn't convert, ENOMEM) with `out` unchanged.
bool wcstoutf8(const wchar_t* source, std::string& out);
bool utf8towcs(const char* source, std::wstring& out);
// Convert into a caller's buffer of `size` bytes (characters); non-zero on
// success, 0 on failure or when the result with its terminator doesn't fit.
int wcstoutf8_buf(char* target, const wchar_t* source, size_t size);
int utf8towcs_buf(wchar_t* target, const char* source, size_t size);
// True when the first `size` bytes of `text` (or up to its terminator, which
// ever comes first) are valid UTF-8.
bool isValidUTF8(const char* text, size_t size);

}  // namespace Tarnwick
