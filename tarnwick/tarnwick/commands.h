// Display names of the command numbers that events carry.
#pragma once

#include <tarnwick/export.h>

namespace Tarnwick {

// Display name of a command number (0 to 21). The number is not checked.
TARNWICK_EXPORT const wchar_t* translate_command(int command);

}  // namespace Tarnwick
