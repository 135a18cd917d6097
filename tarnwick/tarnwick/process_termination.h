// Ending processes by force: one by its id, or every process whose program
// lies under a path.
#pragma once

#include <tarnwick/export.h>

namespace Tarnwick {

// Sends SIGKILL to `pid`; a negative `pid` reaches the whole process group
// -pid. `signal` is not used: the end is always forced. 0, or -1 with errno
// (ESRCH for an unknown id, EPERM for a process of another user). 0 and -1,
// which would reach this process's own group or every process, are
// refused with EINVAL.
TARNWICK_EXPORT int terminate_process(long pid, int signal);

// Sends SIGKILL to every process whose program file (/proc/<pid>/exe) begins
// with the text `path`, except this process and those whose program path
// ends with one of `exceptions` (null, or a null-terminated list). Both are
// text comparisons, case-sensitive: "/opt/app" also matches
// "/opt/application/x", and the exception "agent" spares ".../twagent". A
// program file that was deleted or replaced counts under its former path.
// Processes whose program can't be read (other users', kernel threads) are
// passed over. Each step is logged at debug priority. 0 when every match was
// sent its signal, -1 when one or more could not be (the sweep goes on to
// the end), or when `path` is null or empty (EINVAL: an empty path would
// match every process) or /proc can't be read.
TARNWICK_EXPORT int terminate_processes_under_path(const wchar_t* path, const wchar_t** exceptions);

}  // namespace Tarnwick
