#include <tarnwick/strings.h>

#include <algorithm>
#include <cstring>
#include <cwchar>

namespace Tarnwick {

namespace {

// Character helpers shared by the narrow and wide string functions.

inline size_t fullLength(const char* text) {
    return std::strlen(text);
}
inline size_t fullLength(const wchar_t* text) {
    return std::wcslen(text);
}
inline size_t boundedLength(const char* text, size_t limit) {
    return ::strnlen(text, limit);
}
inline size_t boundedLength(const wchar_t* text, size_t limit) {
    return ::wcsnlen(text, limit);
}

// memmove, so that a target overlapping its source is still copied right.
template <typename C>
inline void moveChars(C* target, const C* source, size_t count) {
    if (count > 0) {
        std::memmove(target, source, count * sizeof(C));
    }
}

template <typename C>
size_t boundedCopy(C* target, const C* source, size_t size, size_t wanted) {
    if (target != nullptr && size > 0) {
        size_t const taken = std::min(wanted, size - 1);
        moveChars(target, source, taken);
        target[taken] = C(0);
    }
    return wanted;
}

template <typename C>
size_t lcpy(C* target, const C* source, size_t size) {
    size_t const wanted = source != nullptr ? fullLength(source) : 0;
    return boundedCopy(target, source, size, wanted);
}

template <typename C>
size_t lncpy(C* target, const C* source, size_t size, size_t count) {
    size_t const wanted = source != nullptr ? boundedLength(source, count) : 0;
    return boundedCopy(target, source, size, wanted);
}

// Copies the first `length` characters of `source` when they fit together
// with the terminator; otherwise leaves the empty string and yields null.
template <typename C>
C* wholeCopy(C* target, const C* source, size_t size, size_t count) {
    if (target == nullptr || size == 0) {
        return nullptr;
    }
    if (source == nullptr) {
        target[0] = C(0);
        return nullptr;
    }
    // Looking at `size` characters is enough to know that it doesn't fit.
    size_t const length = boundedLength(source, std::min(count, size));
    if (length >= size) {
        target[0] = C(0);
        return nullptr;
    }
    moveChars(target, source, length);
    target[length] = C(0);
    return target;
}

// Appends at most `count` characters of `source` to the text in `target`;
// null, with the target unchanged, when the result would not fit or the
// target holds no terminator within its capacity.
template <typename C>
C* boundedAppend(C* target, const C* source, size_t size, size_t count) {
    if (target == nullptr || source == nullptr) {
        return nullptr;
    }
    size_t const used = boundedLength(target, size);
    if (used >= size) {
        return nullptr;
    }
    size_t const room = size - used;  // characters left, terminator included
    size_t const length = boundedLength(source, std::min(count, room));
    if (length >= room) {
        return nullptr;
    }
    moveChars(target + used, source, length);
    target[used + length] = C(0);
    return target;
}

}  // namespace

size_t strlcpy(char* target, const char* source, size_t size) {
    return lcpy(target, source, size);
}

size_t strlcpy(wchar_t* target, const wchar_t* source, size_t size) {
    return lcpy(target, source, size);
}

size_t strlncpy(char* target, const char* source, size_t size, size_t count) {
    return lncpy(target, source, size, count);
}

size_t strlncpy(wchar_t* target, const wchar_t* source, size_t size, size_t count) {
    return lncpy(target, source, size, count);
}

char* strcpy(char* target, const char* source, size_t size) {
    return wholeCopy(target, source, size, static_cast<size_t>(-1));
}

wchar_t* strcpy(wchar_t* target, const wchar_t* source, size_t size) {
    return wholeCopy(target, source, size, static_cast<size_t>(-1));
}

char* strncpy(char* target, const char* source, size_t size, size_t count) {
    return wholeCopy(target, source, size, count);
}

size_t strlen(const char* text, size_t limit) {
    return text != nullptr ? boundedLength(text, limit) : 0;
}

size_t strlen(const wchar_t* text, size_t limit) {
    return text != nullptr ? boundedLength(text, limit) : 0;
}

char* strcat(char* target, const char* source, size_t size) {
    return boundedAppend(target, source, size, static_cast<size_t>(-1));
}

wchar_t* strcat(wchar_t* target, const wchar_t* source, size_t size) {
    return boundedAppend(target, source, size, static_cast<size_t>(-1));
}

char* strncat(char* target, const char* source, size_t size, size_t count) {
    return boundedAppend(target, source, size, count);
}

wchar_t* strncat(wchar_t* target, const wchar_t* source, size_t size, size_t count) {
    return boundedAppend(target, source, size, count);
}

}  // namespace Tarnwick
