// Runs a piece of a test in a forked child process, for what changes
// process-wide state for good or ends the process.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace TarnwickTest {

struct ChildResult {
    pid_t pid = -1;
    int status = -1;     // the waitpid status
    std::string output;  // what the child wrote to standard output
    std::string errors;  // what the child wrote to standard error

    bool exited() const;
    int exitCode() const;  // -1 unless exited()
    bool signalled() const;
    int signal() const;  // 0 unless signalled()
};

// Forks; the child runs `body` and exits with its result. Standard output
// and standard error of the child are captured.
ChildResult runInChild(const std::function<int()>& body);

}  // namespace TarnwickTest
