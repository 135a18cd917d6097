#include <tarnwick/log.h>
#include <tarnwick/process_termination.h>
#include <tarnwick/utf8.h>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace Tarnwick {

namespace {

// The longest program path that is read; a longer one is a failure.
const size_t Module_Path_Size = 32768;
const char Deleted_Mark[] = " (deleted)";

// A handle on one process that can't come to mean another one when its id
// is reused: a pidfd where the system has them, else the id alone.
class Process_Handle {
public:
    explicit Process_Handle(pid_t pid) : m_pid(pid), m_fd(-1) {}
    ~Process_Handle() {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    Process_Handle(const Process_Handle&) = delete;
    Process_Handle& operator=(const Process_Handle&) = delete;

    // False with errno when the process is gone.
    bool open() {
        m_fd = static_cast<int>(::syscall(SYS_pidfd_open, m_pid, 0));
        if (m_fd >= 0)
            return true;
        if (errno != ENOSYS)
            return false;
        return ::kill(m_pid, 0) == 0 || errno == EPERM;
    }
    // Whether the process opened is still there (so its id still means it).
    bool alive() const { return send(0) == 0 || errno == EPERM; }
    int send(int signal) const {
        if (m_fd >= 0)
            return static_cast<int>(::syscall(SYS_pidfd_send_signal, m_fd, signal, nullptr, 0));
        return ::kill(m_pid, signal);
    }

private:
    pid_t m_pid;
    int m_fd;
};

bool readFile(const std::string& path, std::string& text) {
    int const fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    char buffer[256];
    ssize_t const n = ::read(fd, buffer, sizeof buffer);
    int const error = errno;
    ::close(fd);
    if (n < 0) {
        errno = error;
        return false;
    }
    text.assign(buffer, static_cast<size_t>(n));
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    return true;
}

// The program path of `pid`, from its /proc link. A program file that was
// deleted shows with " (deleted)" behind its path; that mark is dropped
// unless a file of the marked name exists.
bool modulePath(pid_t pid, std::string& path) {
    std::string const link = "/proc/" + std::to_string(pid) + "/exe";
    std::vector<char> buffer(Module_Path_Size);
    ssize_t const n = ::readlink(link.c_str(), buffer.data(), buffer.size());
    if (n < 0)
        return false;
    if (static_cast<size_t>(n) >= buffer.size()) {
        errno = ENAMETOOLONG;
        return false;
    }
    path.assign(buffer.data(), static_cast<size_t>(n));
    size_t const mark = sizeof Deleted_Mark - 1;
    struct stat info;
    if (path.size() > mark && path.compare(path.size() - mark, mark, Deleted_Mark) == 0 &&
        ::lstat(path.c_str(), &info) != 0)
        path.resize(path.size() - mark);
    return true;
}

std::string baseName(const std::string& path) {
    size_t const slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool endsWith(const std::string& text, const std::string& ending) {
    return ending.size() <= text.size() &&
           text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

// Whether `text` is a process id: decimal digits only.
bool processId(const char* text, pid_t& pid) {
    if (*text == '\0')
        return false;
    long value = 0;
    for (const char* c = text; *c != '\0'; ++c) {
        if (*c < '0' || *c > '9' || value > INT_MAX / 10)
            return false;
        value = value * 10 + (*c - '0');
    }
    pid = static_cast<pid_t>(value);
    return value > 0 && value <= INT_MAX;
}

}  // namespace

int terminate_process(long pid, int /*signal*/) {
    if (pid == 0 || pid == -1 || pid > INT_MAX || pid < -static_cast<long>(INT_MAX)) {
        errno = pid == 0 || pid == -1 ? EINVAL : ESRCH;
        return -1;
    }
    return ::kill(static_cast<pid_t>(pid), SIGKILL) == 0 ? 0 : -1;
}

int terminate_processes_under_path(const wchar_t* path, const wchar_t** exceptions) {
    if (path == nullptr || *path == L'\0') {
        errno = EINVAL;
        return -1;
    }
    std::string prefix;
    if (!wcstoutf8(path, prefix))
        return -1;
    std::vector<std::string> endings;
    for (const wchar_t** entry = exceptions; entry != nullptr && *entry != nullptr; ++entry) {
        std::string ending;
        if (!wcstoutf8(*entry, ending))
            return -1;
        endings.push_back(ending);
    }

    DIR* const proc = ::opendir("/proc");
    if (proc == nullptr)
        return -1;
    pid_t const own = ::getpid();
    int result = 0;
    while (struct dirent* const entry = ::readdir(proc)) {
        pid_t pid;
        if (!processId(entry->d_name, pid) || pid == own)
            continue;
        std::string name;
        if (!readFile("/proc/" + std::to_string(pid) + "/comm", name))
            name.clear();
        Process_Handle process(pid);
        std::string module;
        if (!process.open() || !modulePath(pid, module) || !process.alive()) {
            TW_LOG("%D DEBUG (%t): OpenProcess failed for %C, pid %d: %d\n", name.c_str(),
                   static_cast<int>(pid), errno);
            continue;
        }
        if (module.compare(0, prefix.size(), prefix) != 0)
            continue;
        bool spared = false;
        for (const std::string& ending : endings) {
            if (endsWith(module, ending)) {
                spared = true;
                break;
            }
        }
        if (spared)
            continue;
        TW_LOG("%D DEBUG (%t): Terminating process %C with pid %d: %C\n", baseName(module).c_str(),
               static_cast<int>(pid), module.c_str());
        if (process.send(SIGKILL) != 0) {
            TW_LOG("%D DEBUG (%t): OpenProcess for termination failed for %C, pid %d: %d\n",
                   baseName(module).c_str(), static_cast<int>(pid), errno);
            result = -1;
        }
    }
    ::closedir(proc);
    return result;
}

}  // namespace Tarnwick
