// The check of a web service URL before it is used.
#pragma once

#include <tarnwick/export.h>

namespace Tarnwick {

// Resolves the host part of an http:// or https:// URL (port 80 is used for
// the lookup, a port in the URL is not looked at). 0 when it resolves, -1 with
// a logged message otherwise; a null url gives -1 with errno EINVAL.
TARNWICK_EXPORT int checkURL(const wchar_t* url);

}  // namespace Tarnwick
