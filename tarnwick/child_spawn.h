// Inside the library only (not installed): starting a child process through
// ACE_Process with a check that its program really runs, and waiting for it
// with a time limit. Shared by Process and TWProcess.
#pragma once

#include <ace/Process.h>
#include <ace/Time_Value.h>

#include <string>

namespace Tarnwick {
namespace ChildSpawn {

// The library search path variables that a child finds empty, in the order
// in which they are set.
extern const char* const Library_Path_Variables[4];

// Gives `options` the command line `command` (UTF-8). "%%" stands for one
// '%'; any other '%' is taken as it is. 0, or -1 with errno: EILSEQ for
// text that isn't UTF-8, EINVAL for an embedded NUL, E2BIG for more
// arguments than ACE_Process_Options can hold.
[[nodiscard]] int setCommandLine(ACE_Process_Options& options, const std::string& command);

// Opens /dev/null for reading (close-on-exec), the child's standard input.
ACE_HANDLE openNullInput();

// Starts the child that `options` describe through `process` and waits
// until its program runs. The child gets the standard handles of `options`
// and no other descriptor, an empty signal mask, the default action for
// SIGPIPE, the environment of this process with the entries of `options`
// in place of those of the same names, and, with `newGroup`, a process group
// of its own that it leads. The child's pid, or -1 with errno: EINVAL for a
// command line without a program, the error of exec(3) when the program
// couldn't be run (the child that tried has been reaped; `process` still
// holds its pid, which the caller forgets), or that of fork(2).
[[nodiscard]] pid_t spawn(ACE_Process& process, ACE_Process_Options& options, bool newGroup);

// Waits for the child of `process` to end, at most `timeout` (null: no
// limit), and reaps it. Its pid; 0 when the time ran out (errno ETIME); -1
// with errno (ECHILD when there is no child to wait for). Never waits for
// a process other than the one `process` holds.
[[nodiscard]] pid_t wait(ACE_Process& process, const ACE_Time_Value* timeout);

// Blocks until the child `pid` has ended, leaving it to be reaped. 0, or -1
// with errno.
[[nodiscard]] int awaitEnd(pid_t pid);

// The exit code of a wait status: the code the child exited with, or 128
// and the number of the signal that ended it. 0 for a status that tells
// neither (no child has ended yet).
int exitCode(ACE_exitcode status);

}  // namespace ChildSpawn
}  // namespace Tarnwick
