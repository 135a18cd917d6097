#include <tarnwick/system.h>
#include <tarnwick/utf8.h>

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <new>
#include <vector>

namespace Tarnwick {

namespace {

// Numbers of the open descriptors of the process, sorted. Without /proc
// every number below `scan_limit` is asked in turn.
std::vector<rlim_t> openDescriptors(rlim_t scan_limit) {
    std::vector<rlim_t> found;
    DIR* dir = ::opendir("/proc/self/fd");
    if (dir != nullptr) {
        int const own = ::dirfd(dir);
        while (struct dirent* entry = ::readdir(dir)) {
            char* end = nullptr;
            long const fd = std::strtol(entry->d_name, &end, 10);
            if (end == entry->d_name || *end != '\0' || fd < 0 || fd == own) {
                continue;  // "." and "..", and the directory being read
            }
            found.push_back(static_cast<rlim_t>(fd));
        }
        ::closedir(dir);
        std::sort(found.begin(), found.end());
    } else {
        rlim_t const end = std::min<rlim_t>(scan_limit, INT_MAX);
        for (rlim_t fd = 0; fd < end; ++fd) {
            if (::fcntl(static_cast<int>(fd), F_GETFD) != -1) {
                found.push_back(fd);
            }
        }
    }
    return found;
}

// How many of the sorted descriptor numbers lie below `limit`.
rlim_t countBelow(const std::vector<rlim_t>& descriptors, rlim_t limit) {
    return static_cast<rlim_t>(std::lower_bound(descriptors.begin(), descriptors.end(), limit) -
                               descriptors.begin());
}

}  // namespace

// ---------------------------------------------------------------------------
// Task threads.

int startThread(ACE_Task<ACE_MT_SYNCH>* task, int count, size_t stack_size, bool joinable) {
    if (task == nullptr) {
        return -1;
    }
    if (count < 0) {
        // ACE would fail as well, but only after miscounting the task's threads.
        errno = EINVAL;
        return -1;
    }
    size_t* stack_sizes = nullptr;
    if (count > 0) {
        stack_sizes =
            static_cast<size_t*>(std::malloc(sizeof(size_t) * static_cast<size_t>(count)));
        if (stack_sizes == nullptr) {
            errno = ENOMEM;
            return -1;
        }
        std::fill(stack_sizes, stack_sizes + count, stack_size);
    }
    long const flags = joinable ? THR_JOINABLE : THR_DETACHED;
    int const result =
        task->activate(flags, count, 0, 0, 1, nullptr, nullptr, nullptr, stack_sizes, nullptr);
    std::free(stack_sizes);
    return result;
}

// ---------------------------------------------------------------------------
// Process limits and identity.

int available_handles(int wanted) {
    struct rlimit limit;
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return -1;
    }
    try {
        // Descriptors at or above the soft limit (inherited ones, or after the
        // limit was lowered) don't take any of the numbers that open(2) hands out.
        rlim_t const scan =
            wanted > 0 ? std::max<rlim_t>(limit.rlim_max, limit.rlim_cur) : limit.rlim_cur;
        std::vector<rlim_t> const descriptors = openDescriptors(std::min<rlim_t>(scan, 1u << 20));
        if (wanted > 0) {
            // The smallest soft limit that leaves `wanted` numbers free: the
            // descriptors below it plus `wanted`.
            rlim_t needed = static_cast<rlim_t>(wanted);
            for (;;) {
                rlim_t const next = static_cast<rlim_t>(wanted) + countBelow(descriptors, needed);
                if (next == needed) {
                    break;
                }
                needed = next;
            }
            if (needed > limit.rlim_cur) {
                // Only a try: what the hard limit allows is reported below.
                int const saved = errno;
                set_fd_limit(static_cast<int>(std::min<rlim_t>(needed, INT_MAX)));
                errno = saved;
                if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
                    return -1;
                }
            }
        }
        rlim_t const soft = std::min<rlim_t>(limit.rlim_cur, INT_MAX);
        rlim_t const taken = countBelow(descriptors, soft);
        return static_cast<int>(soft - taken);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
}

int become_user(const wchar_t* name) {
    if (name == nullptr) {
        errno = EINVAL;
        return -1;
    }
    char* user = wcstoutf8_malloced(name);
    if (user == nullptr) {
        return -1;
    }
    long const suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(suggested > 0 ? static_cast<size_t>(suggested) : 1024);
    struct passwd entry;
    struct passwd* found = nullptr;
    int error;
    while ((error = ::getpwnam_r(user, &entry, buffer.data(), buffer.size(), &found)) == ERANGE &&
           buffer.size() < (1u << 20)) {
        buffer.resize(buffer.size() * 2);
    }
    int result = -1;
    if (found == nullptr) {
        errno = error != 0 ? error : ENOENT;
    } else {
        uid_t ruid, euid, suid;
        gid_t rgid, egid, sgid;
        bool const already = ::getresuid(&ruid, &euid, &suid) == 0 &&
                             ::getresgid(&rgid, &egid, &sgid) == 0 && ruid == entry.pw_uid &&
                             euid == entry.pw_uid && suid == entry.pw_uid && rgid == entry.pw_gid &&
                             egid == entry.pw_gid && sgid == entry.pw_gid;
        if (already && euid != 0) {
            // Nothing to change, and an ordinary user may not set its groups.
            result = 0;
        } else if (::initgroups(user, entry.pw_gid) == 0 && ::setgid(entry.pw_gid) == 0 &&
                   ::setuid(entry.pw_uid) == 0) {
            result = 0;
        }
    }
    int const saved = errno;
    utf8free(user);
    errno = saved;
    return result;
}

int set_fd_limit(int limit) {
    if (limit < 0) {
        errno = EINVAL;
        return -1;
    }
    struct rlimit current;
    if (::getrlimit(RLIMIT_NOFILE, &current) != 0) {
        return -1;
    }
    rlim_t const wanted = static_cast<rlim_t>(limit);
    if (current.rlim_cur == RLIM_INFINITY || current.rlim_cur >= wanted) {
        return 0;
    }
    struct rlimit raised = current;
    raised.rlim_cur =
        current.rlim_max == RLIM_INFINITY ? wanted : std::min(wanted, current.rlim_max);
    if (raised.rlim_cur == current.rlim_cur) {
        return 0;  // already at the hard limit
    }
    return ::setrlimit(RLIMIT_NOFILE, &raised) == 0 ? 0 : -1;
}

}  // namespace Tarnwick
