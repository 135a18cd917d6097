// The random source of completion tokens and other values that only need to
// differ from each other. Fast, not cryptographic: not for secrets.
#pragma once

#include <tarnwick/export.h>

#include <cstdint>

namespace Tarnwick {

// A 32-bit random value. The source is seeded once per process from the
// operating system; it is safe to call from any thread.
TARNWICK_EXPORT uint32_t Random();

}  // namespace Tarnwick
