#include "child_spawn.h"

#include <tarnwick/utf8.h>

#include <ace/OS_NS_fcntl.h>
#include <ace/OS_NS_unistd.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <vector>

#if __has_include(<linux/close_range.h>)
#include <linux/close_range.h>
#endif

extern char** environ;

namespace Tarnwick {
namespace ChildSpawn {

const char* const Library_Path_Variables[4] = {"LIBPATH", "LD_LIBRARY_PATH", "SHLIB_PATH",
                                               "DYLD_LIBRARY_PATH"};

namespace {

// The number of command line arguments that ACE_Process_Options holds by
// default, the terminating null included; it drops any beyond.
const int Max_Arguments = 128;

// Whether the environment entry `entry` ("NAME=value") names a variable that
// one of `entries` sets.
bool overridden(const char* entry, char* const* entries) {
    const char* const equals = std::strchr(entry, '=');
    size_t const length =
        equals != nullptr ? static_cast<size_t>(equals - entry) : std::strlen(entry);
    for (char* const* e = entries; e != nullptr && *e != nullptr; ++e) {
        if (std::strncmp(*e, entry, length) == 0 && (*e)[length] == '=')
            return true;
    }
    return false;
}

// Marks every descriptor from 3 on close-on-exec; in the child, between fork
// and exec, so only calls that are safe there.
void closeOthersOnExec() {
#if defined(CLOSE_RANGE_CLOEXEC)
    if (::syscall(SYS_close_range, 3u, ~0u, CLOSE_RANGE_CLOEXEC) == 0)
        return;
#endif
    struct rlimit limit;
    long last = 65536;
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
        limit.rlim_cur < 65536)
        last = static_cast<long>(limit.rlim_cur);
    for (long fd = 3; fd < last; ++fd) {
        int const flags = ::fcntl(static_cast<int>(fd), F_GETFD);
        if (flags != -1 && (flags & FD_CLOEXEC) == 0)
            ::fcntl(static_cast<int>(fd), F_SETFD, flags | FD_CLOEXEC);
    }
}

// The child's side, after fork: standard handles, signals, descriptors, then
// the program. When exec fails, its error goes to the parent through
// `report` and the child ends.
[[noreturn]] void runChild(ACE_Process_Options& options, char* const* argv, char* const* envp,
                           int report) {
    ACE_HANDLE const handles[3] = {options.get_stdin(), options.get_stdout(), options.get_stderr()};
    int error = 0;
    for (int target = 0; target < 3 && error == 0; ++target) {
        if (handles[target] != ACE_INVALID_HANDLE && ::dup2(handles[target], target) == -1)
            error = errno;
    }
    if (error == 0) {
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        struct sigaction fallback;
        std::memset(&fallback, 0, sizeof fallback);
        fallback.sa_handler = SIG_DFL;
        ::sigaction(SIGPIPE, &fallback, nullptr);
        closeOthersOnExec();
        ::execvpe(argv[0], argv, envp);
        error = errno;
    }
    ssize_t const ignored = ::write(report, &error, sizeof error);
    (void)ignored;
    ::_exit(127);
}

// Reads the exec error that the child reports: 0 when its program runs (the
// pipe closed without a word).
int readChildError(int fd) {
    int error = 0;
    size_t got = 0;
    while (got < sizeof error) {
        ssize_t const n = ::read(fd, reinterpret_cast<char*>(&error) + got, sizeof error - got);
        if (n > 0) {
            got += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        break;
    }
    return got == sizeof error ? (error != 0 ? error : ENOEXEC) : 0;
}

pid_t reap(ACE_Process& process, int options) {
    for (;;) {
        pid_t const result = process.wait(nullptr, options);
        if (result != -1 || errno != EINTR)
            return result;
    }
}

long remainingMs(const struct timespec& deadline) {
    struct timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    long long const ms =
        (deadline.tv_sec - now.tv_sec) * 1000LL + (deadline.tv_nsec - now.tv_nsec) / 1000000LL;
    return ms > 0 ? static_cast<long>(ms) : 0;
}

}  // namespace

int setCommandLine(ACE_Process_Options& options, const std::string& command) {
    if (command.find('\0') != std::string::npos) {
        errno = EINVAL;
        return -1;
    }
    if (!isValidUTF8(command.c_str(), command.size())) {
        errno = EILSEQ;
        return -1;
    }
    std::string text;
    text.reserve(command.size());
    for (size_t i = 0; i < command.size(); ++i) {
        text += command[i];
        if (command[i] == '%' && i + 1 < command.size() && command[i + 1] == '%')
            ++i;
    }
    if (options.command_line("%s", text.c_str()) == -1)
        return -1;
    char* const* argv = options.command_line_argv();
    int count = 0;
    while (argv != nullptr && argv[count] != nullptr)
        ++count;
    if (count >= Max_Arguments - 1) {
        errno = E2BIG;
        return -1;
    }
    return 0;
}

ACE_HANDLE openNullInput() {
    return ACE_OS::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

pid_t spawn(ACE_Process& process, ACE_Process_Options& options, bool newGroup) {
    // Everything the child needs is made here, before fork: after it, a
    // threaded program may only make calls that are safe in a signal handler.
    char* const* argv = options.command_line_argv();
    if (argv == nullptr || argv[0] == nullptr || argv[0][0] == '\0') {
        errno = EINVAL;
        return -1;
    }
    char* const* added = options.env_argv();
    std::vector<char*> environment;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        if (!overridden(*entry, added))
            environment.push_back(*entry);
    }
    for (char* const* entry = added; entry != nullptr && *entry != nullptr; ++entry)
        environment.push_back(*entry);
    environment.push_back(nullptr);

    // ACE's copies of the standard handles would pass into any program that
    // another thread starts meanwhile; dup2 in the child clears the flag on
    // the child's own copies.
    for (ACE_HANDLE const handle :
         {options.get_stdin(), options.get_stdout(), options.get_stderr()}) {
        if (handle != ACE_INVALID_HANDLE)
            ::fcntl(handle, F_SETFD, FD_CLOEXEC);
    }
    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0)
        return -1;
    options.creation_flags(options.creation_flags() | ACE_Process_Options::NO_EXEC);
    if (newGroup)
        options.setgroup(0);
    pid_t const pid = process.spawn(options);
    if (pid == 0)
        runChild(options, argv, environment.data(), report[1]);
    int const forkError = errno;
    ::close(report[1]);
    if (pid == -1) {
        ::close(report[0]);
        errno = forkError;
        return -1;
    }
    // The child makes its own group too; doing it here as well means the
    // group exists when spawn returns, whoever runs first.
    if (newGroup)
        ::setpgid(pid, pid);
    int const execError = readChildError(report[0]);
    ::close(report[0]);
    if (execError != 0) {
        reap(process, 0);
        errno = execError;
        return -1;
    }
    return pid;
}

pid_t wait(ACE_Process& process, const ACE_Time_Value* timeout) {
    pid_t const pid = process.getpid();
    if (pid == ACE_INVALID_PID) {
        errno = ECHILD;
        return -1;
    }
    if (timeout == nullptr)
        return reap(process, 0);

    struct timespec deadline;
    ::clock_gettime(CLOCK_MONOTONIC, &deadline);
    long long const total = static_cast<long long>(timeout->msec());
    deadline.tv_sec += static_cast<time_t>(total / 1000);
    deadline.tv_nsec += static_cast<long>((total % 1000) * 1000000);
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    // A pidfd becomes readable when the child ends: no polling, no signal
    // handler. Where there is none, poll with short sleeps.
    int const pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    for (;;) {
        pid_t const result = reap(process, WNOHANG);
        if (result != 0) {
            if (pidfd >= 0)
                ::close(pidfd);
            return result;
        }
        long const left = remainingMs(deadline);
        if (left == 0)
            break;
        if (pidfd >= 0) {
            struct pollfd ready = {pidfd, POLLIN, 0};
            ::poll(&ready, 1, left > 1000000 ? 1000000 : static_cast<int>(left));
        } else {
            struct timespec pause = {0, (left < 5 ? left : 5) * 1000000L};
            ::nanosleep(&pause, nullptr);
        }
    }
    if (pidfd >= 0)
        ::close(pidfd);
    errno = ETIME;
    return 0;
}

int awaitEnd(pid_t pid) {
    for (;;) {
        siginfo_t info;
        std::memset(&info, 0, sizeof info);
        if (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) == 0)
            return 0;
        if (errno != EINTR)
            return -1;
    }
}

int exitCode(ACE_exitcode status) {
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return 0;
}

}  // namespace ChildSpawn
}  // namespace Tarnwick
