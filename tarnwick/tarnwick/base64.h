// Base64 (the standard alphabet, with padding) through OpenSSL.
#pragma once

#include <tarnwick/export.h>

#include <cstddef>

namespace Tarnwick {

// Sizes above 0xFFFFFFFF are clamped to that value. Encode writes the
// terminated text and returns its length; decode accepts only canonical
// Base64 and returns the number of bytes written. -1 on bad input or when
// the target is too small.
TARNWICK_EXPORT int Base64Encode(const char* data, size_t size, char* target, size_t target_size);
TARNWICK_EXPORT int Base64Decode(const char* text, char* target, size_t target_size);

}  // namespace Tarnwick
