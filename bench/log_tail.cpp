// Log extraction figures.
//
// 1. tail_and_filter of the last 1,000 lines within depth 1 of logs of
//    1 MiB, 100 MiB and 1 GiB (lines of every depth), and the ratio of the
//    1 GiB time to the 1 MiB time: the tail reads backwards from the end, so
//    that its cost follows the lines wanted and not the size of the file
//    (goal: within 1.5 times).
// 2. filter_file throughput in MB/s on the 100 MiB log, against `grep -c`
//    counting the same lines of the same file in the same run.
//
// The logs are made in a new directory under $TMPDIR (else /tmp) and removed
// at the end.
//
//   log_tail [--quick]     --quick leaves out the 1 GiB log
#include <tarnwick/logparser.h>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

typedef std::chrono::steady_clock Clock;

double seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

// Writes a log of `size` bytes, of lines of every depth, with and without
// the blank behind the dots.
bool makeLog(const std::string& path, uint64_t size) {
    static const char* const PREFIXES[] = {"", ". ", ".. ", "... ", ".... ", ".x "};
    int const fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return false;
    std::string chunk;
    chunk.reserve(1 << 20);
    uint64_t written = 0;
    uint64_t line = 0;
    while (written < size) {
        chunk.clear();
        while (chunk.size() < (1 << 20) - 200) {
            char text[200];
            int const n = std::snprintf(text, sizeof text,
                                        "%s2026-11-23 20:00:00.%06u INFO  (%u): step %llu of the "
                                        "backup job, files seen so far\n",
                                        PREFIXES[line % 6], static_cast<unsigned>(line % 1000000),
                                        static_cast<unsigned>(1000 + line % 8),
                                        static_cast<unsigned long long>(line));
            chunk.append(text, static_cast<size_t>(n));
            ++line;
        }
        size_t const take = static_cast<size_t>(std::min<uint64_t>(chunk.size(), size - written));
        if (::write(fd, chunk.data(), take) != static_cast<ssize_t>(take)) {
            ::close(fd);
            return false;
        }
        written += take;
    }
    return ::close(fd) == 0;
}

// The time of one tail of the last 1,000 lines within depth 1.
double tailTime(const std::string& path, int out) {
    std::wstring const wide(path.begin(), path.end());
    Clock::time_point const start = Clock::now();
    if (Tarnwick::tail_and_filter(wide.c_str(), out, 1, 1000) != 0)
        std::fprintf(stderr, "tail_and_filter failed on %s\n", path.c_str());
    return seconds(start);
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    bool const quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
    const char* tmp = ::getenv("TMPDIR");
    std::string pattern =
        std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/tarnwick-log-tail-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (::mkdtemp(name.data()) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    std::string const directory = name.data();

    struct Log {
        const char* label;
        uint64_t size;
        std::string path;
        double tail;
    };
    std::vector<Log> logs = {{"1 MiB", uint64_t(1) << 20, directory + "/1m.log", 0},
                             {"100 MiB", uint64_t(100) << 20, directory + "/100m.log", 0},
                             {"1 GiB", uint64_t(1) << 30, directory + "/1g.log", 0}};
    if (quick)
        logs.pop_back();

    int status = 0;
    for (Log& log : logs) {
        Clock::time_point const start = Clock::now();
        if (!makeLog(log.path, log.size)) {
            std::perror(log.path.c_str());
            status = 1;
            break;
        }
        std::printf("made the %s log in %.1f s\n", log.label, seconds(start));
    }
    if (status == 0) {
        // The logs' pages reach the disk first, so that write-back doesn't
        // run during the timing; the runs take the logs in turn, so that
        // whatever else the machine does falls on all of them alike.
        ::sync();
        int const out = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        std::vector<std::vector<double>> times(logs.size());
        for (int run = 0; run < 101; ++run) {
            for (size_t i = 0; i < logs.size(); ++i)
                times[i].push_back(tailTime(logs[i].path, out));
        }
        ::close(out);
        std::printf("\ntail_and_filter, last 1000 lines within depth 1 (median of 101 runs)\n");
        for (size_t i = 0; i < logs.size(); ++i) {
            logs[i].tail = median(times[i]);
            std::printf("  %-8s %9.3f ms\n", logs[i].label, logs[i].tail * 1e3);
        }
        std::printf("  ratio %s / %s: %.2f (goal: at most 1.5)\n", logs.back().label,
                    logs.front().label, logs.back().tail / logs.front().tail);

        // filter_file against grep -c, warm cache, the better of three runs.
        const Log& middle = logs[1];
        double const megabytes = static_cast<double>(middle.size) / 1e6;
        double filterBest = 1e9;
        double grepBest = 1e9;
        // Lines of depth at most 1: no second leading dot.
        std::string const grep = "grep -c -v '^\\.\\.' " + middle.path + " > /dev/null";
        for (int i = 0; i < 3; ++i) {
            Clock::time_point start = Clock::now();
            if (Tarnwick::filter_file(middle.path.c_str(), "/dev/null", 1) != 0)
                status = 1;
            filterBest = std::min(filterBest, seconds(start));
            start = Clock::now();
            if (std::system(grep.c_str()) != 0)
                status = 1;
            grepBest = std::min(grepBest, seconds(start));
        }
        std::printf("\nfilter_file within depth 1, %s log\n", middle.label);
        std::printf("  filter_file %8.0f MB/s\n", megabytes / filterBest);
        std::printf("  grep -c     %8.0f MB/s\n", megabytes / grepBest);
        std::printf("  filter_file / grep: %.2f\n", grepBest / filterBest);
    }

    for (const Log& log : logs)
        ::unlink(log.path.c_str());
    ::rmdir(directory.c_str());
    return status;
}
