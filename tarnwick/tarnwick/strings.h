// Bounded string handling: copy, length and append with the capacity of the
// target given, for narrow and wide text.
//
// The helpers never write beyond the capacity they are given and always
// leave the target terminated when the capacity is not 0. They stand in
// namespace Tarnwick and don't replace the standard functions: inside the
// library, call the standard ones qualified (std::strlen).
#pragma once

#include <tarnwick/export.h>

#include <cstddef>

namespace Tarnwick {

// Copies `source` into `target` (capacity `size` characters), truncating.
// Returns the length of `source`; a result >= size means it was truncated.
TARNWICK_EXPORT size_t strlcpy(char* target, const char* source, size_t size);
TARNWICK_EXPORT size_t strlcpy(wchar_t* target, const wchar_t* source, size_t size);
// As strlcpy with at most `count` characters taken from `source`. Returns the
// number of characters it wanted to copy (min(length, count)).
TARNWICK_EXPORT size_t strlncpy(char* target, const char* source, size_t size, size_t count);
TARNWICK_EXPORT size_t strlncpy(wchar_t* target, const wchar_t* source, size_t size, size_t count);
// Copies `source` whole into `target` of capacity `size`. Returns `target`,
// or null when it does not fit (the target then holds the empty string).
TARNWICK_EXPORT char* strcpy(char* target, const char* source, size_t size);
TARNWICK_EXPORT wchar_t* strcpy(wchar_t* target, const wchar_t* source, size_t size);
// Copies at most `count` characters of `source`. Returns `target`, or null
// when they do not fit (the target then holds the empty string).
TARNWICK_EXPORT char* strncpy(char* target, const char* source, size_t size, size_t count);
// Length of `text`, looking at no more than `limit` characters; 0 for null.
TARNWICK_EXPORT size_t strlen(const char* text, size_t limit);
TARNWICK_EXPORT size_t strlen(const wchar_t* text, size_t limit);
// Appends `source` to the terminated text in `target` of capacity `size`.
// Returns `target`, or null when the whole does not fit (target unchanged).
TARNWICK_EXPORT char* strcat(char* target, const char* source, size_t size);
TARNWICK_EXPORT wchar_t* strcat(wchar_t* target, const wchar_t* source, size_t size);
// Appends at most `count` characters of `source`; null when they don't fit.
TARNWICK_EXPORT char* strncat(char* target, const char* source, size_t size, size_t count);
TARNWICK_EXPORT wchar_t* strncat(wchar_t* target, const wchar_t* source, size_t size, size_t count);

}  // namespace Tarnwick
