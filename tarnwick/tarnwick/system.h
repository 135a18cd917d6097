// The process and its threads: task threads, the file descriptor limit and
// the switch to another user.
#pragma once

#include <tarnwick/export.h>

#include <ace/Task.h>

#include <cstddef>

namespace Tarnwick {

// Starts `count` threads of `task` with `stack_size` bytes of stack each,
// joinable or detached. Returns the result of the task's activate, or -1
// (null task; errno EINVAL for a negative count, ENOMEM when the stack size
// table can't be allocated).
TARNWICK_EXPORT int startThread(ACE_Task<ACE_MT_SYNCH>* task, int count, size_t stack_size,
                                bool joinable);

// The number of further file descriptors the process may open before it
// reaches its soft RLIMIT_NOFILE, or -1 with errno. `wanted` > 0 first tries
// to raise the limit so that that many are available.
TARNWICK_EXPORT int available_handles(int wanted);

// Switches the process to the group and user ids of the user `name` (and that
// user's supplementary groups). 0, or -1 with errno (ENOENT for an unknown user).
TARNWICK_EXPORT int become_user(const wchar_t* name);

// Raises the soft RLIMIT_NOFILE towards `limit`, within the hard limit. A soft
// limit already at or above `limit` is left alone. 0, or -1 with errno
// (EINVAL for a negative limit).
TARNWICK_EXPORT int set_fd_limit(int limit);

}  // namespace Tarnwick
