// Application paths: checks of the directories that the configuration names,
// and their creation.
#pragma once

#include <tarnwick/export.h>

namespace Tarnwick {

// 0 when the setting `key` has a value that names an existing directory.
// Otherwise -1 after logging
// "Configuration setting '<key>' not set. Please check your configuration"
// for a setting without value, or
// "Path '<value>' does not exist or is not a directory." for any other.
// A null key gives -1 with errno EINVAL and no message.
TARNWICK_EXPORT int check_path(const wchar_t* key);

// check_path of "log", "var", "pid", "rtdir" and "temp", in this order;
// -1 at the first that fails, the later ones are not looked at. 0 otherwise.
TARNWICK_EXPORT int validate_all_application_paths();

// Walks the null-terminated list of setting names (a null list is empty).
// A setting that check_path refuses (its message is logged all the same) and
// that has a value gets its directory made with Path::MkTree and the mode
// 0700, after the message "Creating directory <value>."; a setting without
// value is passed over. -1 when MkTree fails; otherwise 0.
TARNWICK_EXPORT int createPathsFromConfig(const wchar_t** keys);

}  // namespace Tarnwick
