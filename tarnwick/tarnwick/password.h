// The form in which configuration files store a password.
#pragma once

#include <tarnwick/export.h>

#include <cstddef>

namespace Tarnwick {

// This is obfuscation, not encryption: it keeps a password from being read
// at a glance, nothing more. The stored text starts with "{twp}" followed by
// Base64. Encode returns the length of the terminated stored text; decode
// returns the length of the password and rejects (-1) any text that is not in
// the stored form. Target sizes above 0xFFFFFFFF are clamped to that value.
TARNWICK_EXPORT int EncodePassword(const char* text, char* target, size_t target_size);
TARNWICK_EXPORT int DecodePassword(const char* text, char* target, size_t target_size);

}  // namespace Tarnwick
