// Shared pieces of the whole-program benchmarks (transfer, throughput,
// latency): clocks, peak memory, a scratch directory, child processes that
// report back through a pipe, and plain loopback sockets for the raw-TCP
// baselines. Header only; every function is inline.
#pragma once

#include <tarnwick/engine.h>
#include <tarnwick/event_factory.h>

#include <ace/Event_Handler.h>
#include <ace/INET_Addr.h>
#include <ace/Log_Msg.h>
#include <ace/Reactor.h>
#include <ace/SOCK_Acceptor.h>
#include <ace/Time_Value.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <system_error>
#include <vector>

namespace bench {

// Seconds on the monotonic clock, which all processes of the machine share,
// so that a time taken in one process can be compared with one of another.
inline double now() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// The peak resident memory of the calling process, in KiB.
inline long peakRssKiB() {
    rusage usage;
    if (getrusage(RUSAGE_SELF, &usage) == -1)
        return -1;
    return usage.ru_maxrss;
}

// The processor time (user and system) that the calling process has used.
inline double cpuSeconds() {
    rusage usage;
    if (getrusage(RUSAGE_SELF, &usage) == -1)
        return -1.0;
    auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// The first three fields of /proc/loadavg: other work on the machine makes
// every figure here slower and noisier, so the tools print it.
inline std::string loadAverage() {
    char text[64] = "";
    if (FILE* file = std::fopen("/proc/loadavg", "r")) {
        if (std::fgets(text, sizeof text, file) == nullptr)
            text[0] = '\0';
        std::fclose(file);
    }
    std::string out(text);
    for (int field = 0, i = 0; i < static_cast<int>(out.size()); ++i) {
        if (out[i] == ' ' && ++field == 3)
            return out.substr(0, i);
    }
    return out;
}

// Only failures of the library are printed. Each connection's end and
// other details are logged at debug priority, and a listener without SSL
// gets a warning every time.
inline void quietLog() {
    ACE_Log_Msg::instance()->priority_mask(LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY,
                                           ACE_Log_Msg::PROCESS);
}

// A fresh directory under $TMPDIR (or /tmp) for the spill files and copies
// of one run; empty on failure.
inline std::string makeScratch(const char* tag) {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                          "/tarnwick-" + tag + "-XXXXXX";
    std::vector<char> text(pattern.begin(), pattern.end());
    text.push_back('\0');
    if (mkdtemp(text.data()) == nullptr)
        return std::string();
    return std::string(text.data());
}

inline void removeTree(const std::string& path) {
    std::error_code ignored;
    if (!path.empty())
        std::filesystem::remove_all(path, ignored);
}

// Makes `dir` (a fresh subdirectory of the scratch directory) the process's
// TMPDIR, and so the home of its event cache. Call it in a child before it
// uses the library.
inline bool useTempDir(const std::string& dir) {
    std::error_code failure;
    std::filesystem::create_directories(dir, failure);
    return !failure && setenv("TMPDIR", dir.c_str(), 1) == 0;
}

// What a child sends back: a few numbers, their meaning agreed per tool.
struct Report {
    double value[16];
};

// The child's end of its report pipe.
class Reporter {
public:
    explicit Reporter(int fd) : m_fd(fd) {}
    bool send(const Report& report) {
        const char* data = reinterpret_cast<const char*>(&report);
        size_t done = 0;
        while (done < sizeof report) {
            ssize_t const n = ::write(m_fd, data + done, sizeof report - done);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return false;
            done += static_cast<size_t>(n);
        }
        return true;
    }

private:
    int m_fd;
};

// A child process started by spawn(), and the parent's end of its pipe.
class Child {
public:
    Child() = default;
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() { finish(0.0); }

    // Starts `body` in a new process, which ends with its result as exit
    // status and is killed by SIGALRM after `limit` seconds at the latest.
    bool spawn(const char* name, unsigned limit, const std::function<int(Reporter&)>& body) {
        int fds[2];
        if (pipe(fds) == -1)
            return false;
        std::fflush(stdout);
        std::fflush(stderr);
        pid_t const pid = fork();
        if (pid == -1) {
            ::close(fds[0]);
            ::close(fds[1]);
            return false;
        }
        if (pid == 0) {
            ::close(fds[0]);
            std::signal(SIGPIPE, SIG_IGN);
            alarm(limit);
            Reporter reporter(fds[1]);
            int status = 1;
            try {
                status = body(reporter);
            } catch (...) {
                std::fprintf(stderr, "%s: exception\n", name);
            }
            std::fflush(stdout);
            std::fflush(stderr);
            _exit(status);
        }
        ::close(fds[1]);
        m_pid = pid;
        m_fd = fds[0];
        m_name = name;
        return true;
    }

    // The next report, waiting at most `seconds`; false when none came.
    bool receive(Report& report, double seconds) {
        if (m_fd == -1)
            return false;
        char* data = reinterpret_cast<char*>(&report);
        size_t done = 0;
        double const deadline = now() + seconds;
        while (done < sizeof report) {
            int const left = static_cast<int>((deadline - now()) * 1000.0);
            if (left <= 0)
                return false;
            pollfd entry{m_fd, POLLIN, 0};
            int const ready = poll(&entry, 1, left);
            if (ready < 0 && errno == EINTR)
                continue;
            if (ready <= 0)
                return false;
            ssize_t const n = ::read(m_fd, data + done, sizeof report - done);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return false;
            done += static_cast<size_t>(n);
        }
        return true;
    }

    // Waits up to `seconds` for the child to end, then kills it (by its
    // process id). True when it ended by itself with status 0.
    bool finish(double seconds) {
        if (m_pid <= 0)
            return m_ok;
        double const deadline = now() + seconds;
        int status = 0;
        pid_t ended = 0;
        for (;;) {
            ended = waitpid(m_pid, &status, WNOHANG);
            if (ended != 0 || now() >= deadline)
                break;
            usleep(2000);
        }
        if (ended == 0) {
            std::fprintf(stderr, "%s: no end in time, killed\n", m_name.c_str());
            kill(m_pid, SIGKILL);
            waitpid(m_pid, &status, 0);
            m_ok = false;
        } else if (WIFSIGNALED(status)) {
            std::fprintf(stderr, "%s: ended by signal %d\n", m_name.c_str(), WTERMSIG(status));
            m_ok = false;
        } else {
            m_ok = ended == m_pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
            if (!m_ok)
                std::fprintf(stderr, "%s: failed\n", m_name.c_str());
        }
        m_pid = -1;
        if (m_fd != -1)
            ::close(m_fd);
        m_fd = -1;
        return m_ok;
    }

private:
    pid_t m_pid = -1;
    int m_fd = -1;
    bool m_ok = false;
    std::string m_name;
};

// ---------------------------------------------------------------------------
// Plain sockets for the baselines. All on 127.0.0.1, blocking, TCP_NODELAY
// as the library's connections are.

inline void noDelay(int fd) {
    int const on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

// A listening socket on 127.0.0.1 and a free port; -1 on failure.
inline int listenLoopback(uint16_t& port) {
    int const fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd == -1)
        return -1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t length = sizeof address;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == -1 ||
        listen(fd, 4) == -1 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == -1) {
        ::close(fd);
        return -1;
    }
    port = ntohs(address.sin_port);
    return fd;
}

inline int acceptOne(int listener) {
    int const fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd != -1)
        noDelay(fd);
    return fd;
}

inline int connectLoopback(uint16_t port) {
    int const fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd == -1)
        return -1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == -1) {
        ::close(fd);
        return -1;
    }
    noDelay(fd);
    return fd;
}

inline bool readFull(int fd, void* buffer, size_t length) {
    char* data = static_cast<char*>(buffer);
    while (length > 0) {
        ssize_t const n = ::read(fd, data, length);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

inline bool writeFull(int fd, const void* buffer, size_t length) {
    const char* data = static_cast<const char*>(buffer);
    while (length > 0) {
        ssize_t const n = ::write(fd, data, length);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

// A port on 127.0.0.1 that nothing listens at, or 0. (The engine's listener
// takes a port number, and does not tell which one it got for port 0.)
inline u_short freePort() {
    ACE_SOCK_Acceptor probe;
    ACE_INET_Addr any(static_cast<u_short>(0), "127.0.0.1");
    if (probe.open(any, 1) == -1)
        return 0;
    ACE_INET_Addr local;
    probe.get_local_addr(local);
    probe.close();
    return local.get_port_number();
}

// Listens with the engine at a free port of 127.0.0.1; the port, or 0.
inline u_short engineListen(Tarnwick::Engine* engine) {
    for (int attempt = 0; attempt < 20; ++attempt) {
        u_short const port = freePort();
        if (port == 0)
            continue;
        ACE_INET_Addr const address(port, "127.0.0.1");
        ACE_Synch_Options options;
        if (engine->makeConnection(address, Tarnwick::CONNECTION_PASSIVE, options) == 0)
            return port;
    }
    return 0;
}

// Ends the reactor loop of a program that runs Engine::run() when nothing
// has happened for `idle` seconds or the run has lasted `limit` seconds, so
// that a lost event can't keep it waiting for ever. `progress` is the time
// of the last progress (seconds on now()), kept up to date by the program.
class Watchdog : public ACE_Event_Handler {
public:
    Watchdog(std::atomic<double>* progress, double idle, double limit)
        : m_progress(progress), m_idle(idle), m_deadline(now() + limit) {}

    bool fired() const { return m_fired; }

    bool start(ACE_Reactor* reactor) {
        m_reactor = reactor;
        ACE_Time_Value const period(0, 100000);
        return reactor->schedule_timer(this, nullptr, period, period) != -1;
    }

    void stop() {
        if (m_reactor != nullptr)
            m_reactor->cancel_timer(this);
        m_reactor = nullptr;
    }

    int handle_timeout(const ACE_Time_Value&, const void*) override {
        double const t = now();
        if (m_reactor != nullptr && (t > m_deadline || t - m_progress->load() > m_idle)) {
            m_fired = true;
            m_reactor->end_reactor_event_loop();
        }
        return 0;
    }

private:
    ACE_Reactor* m_reactor = nullptr;
    std::atomic<double>* m_progress;
    double m_idle;
    double m_deadline;
    bool m_fired = false;
};

// The command line of throughput and latency: [SCALE [KIND [PATH
// [ROUNDS]]]]. SCALE multiplies every N; KIND is all, small, formatted or
// large; PATH is all, raw, 0 or 2 (workers), to run one case alone, for
// instance under a profiler; ROUNDS is how often each case runs.
struct Selection {
    double scale = 1.0;
    int kind = -1;  // -1: all; else 0, 1, 2, 3 (huge: throughput only)
    int path = -2;  // -2: all; -1: raw; else the number of workers
    int rounds = 3;
    bool parse(int argc, char** argv) {
        if (argc > 5)
            return false;
        if (argc >= 2) {
            scale = std::atof(argv[1]);
            if (!(scale > 0.0))
                return false;
        }
        if (argc >= 3) {
            std::string const k = argv[2];
            const char* const names[] = {"small", "formatted", "large", "huge"};
            kind = k == "all" ? -1 : -2;
            for (int i = 0; i < 4; ++i) {
                if (k == names[i])
                    kind = i;
            }
            if (kind == -2)
                return false;
        }
        if (argc >= 4) {
            std::string const p = argv[3];
            if (p == "all") {
                path = -2;
            } else if (p == "raw") {
                path = -1;
            } else if (p == "0" || p == "2") {
                path = std::atoi(p.c_str());
            } else {
                return false;
            }
        }
        if (argc >= 5) {
            rounds = std::atoi(argv[4]);
            if (rounds < 1 || rounds > 20)
                return false;
        }
        return true;
    }
    bool wants(int k, int p) const {
        return (kind == -1 || kind == k) && (path == -2 || path == p);
    }
};

// Values of a sample, sorted in place: the value at quantile q (0..1),
// nearest rank.
inline double quantile(std::vector<double>& values, double q) {
    if (values.empty())
        return 0.0;
    std::sort(values.begin(), values.end());
    size_t rank = static_cast<size_t>(q * static_cast<double>(values.size()) + 0.999999);
    rank = std::max<size_t>(1, std::min(rank, values.size()));
    return values[rank - 1];
}

// Text of `size` letters, the argument of a formatted test event.
inline std::string text(size_t size) {
    std::string out(size, ' ');
    for (size_t i = 0; i < size; ++i)
        out[i] = static_cast<char>('a' + i % 26);
    return out;
}

// One test event: formatted, with `argument` as its one argument, or binary
// with `size` bytes written in pieces of `piece`, as a program that reads
// its payload from somewhere would. Null on failure.
inline Tarnwick::Abstract_Event* makeEvent(bool formatted, size_t size, const std::string& argument,
                                           const std::vector<char>& piece) {
    Tarnwick::Abstract_Event* event = Tarnwick::Event_Factory::create(Tarnwick::UPLOAD_EVENT);
    if (event == nullptr)
        return nullptr;
    if (formatted) {
        event->setArg("data", argument);
        return event;
    }
    event->setBinary();
    for (size_t done = 0; done < size;) {
        size_t const n = std::min(piece.size(), size - done);
        if (event->write(piece.data(), n) != static_cast<int64_t>(n)) {
            event->destroy();
            return nullptr;
        }
        done += n;
    }
    return event;
}

// The payload bytes of one such event as they go on the wire.
inline std::string wirePayload(bool formatted, size_t size) {
    if (!formatted)
        return std::string(size, 'p');
    std::vector<char> piece;
    Tarnwick::Abstract_Event* event = makeEvent(formatted, size, text(size), piece);
    if (event == nullptr)
        return std::string();
    ACE_Message_Block* block = event->data(false);
    std::string out;
    if (block != nullptr && block->cont() != nullptr)
        out.assign(block->cont()->rd_ptr(), block->cont()->length());
    event->destroy();
    return out;
}

}  // namespace bench
