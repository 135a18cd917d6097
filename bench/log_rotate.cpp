// Log rotation under load: 8 threads each log 100,000 numbered lines through
// ACE_Log_Msg into a file while the main thread rotates it by size. Prints
// the time, the lines per second, the number of rotations, and what the
// generations hold: every line must be there exactly once, in order per
// thread (the program fails otherwise).
//
// The log is made in a new directory under $TMPDIR (else /tmp) and removed
// at the end.
//
//   log_rotate [LINES_PER_THREAD]
#include <tarnwick/log.h>
#include <tarnwick/logfile_rotate.h>

#include <ace/Log_Msg.h>
#include <ace/Thread_Manager.h>

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace {

const int THREADS = 8;
int linesPerThread = 100000;
std::atomic<int> running{0};
std::atomic<int> nextId{0};

ACE_THR_FUNC_RETURN writer(void* arg) {
    std::ostream* const stream = static_cast<std::ostream*>(arg);
    ACE_Log_Msg* const log = ACE_Log_Msg::instance();
    if (log->msg_ostream() != stream)
        log->msg_ostream(stream, false);
    int const id = nextId++;
    for (int n = 0; n < linesPerThread; ++n)
        TW_LOG("%D INFO  (%t): writer %d line %d\n", id, n);
    --running;
    return 0;
}

bool exists(const std::string& path) {
    struct stat status;
    return ::stat(path.c_str(), &status) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1)
        linesPerThread = std::atoi(argv[1]);
    const char* tmp = ::getenv("TMPDIR");
    std::string pattern =
        std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/tarnwick-log-rotate-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (::mkdtemp(name.data()) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    std::string const directory = name.data();
    std::string const path = directory + "/agent.log";

    std::ofstream* stream = new std::ofstream(path.c_str(), std::ios::out | std::ios::app);
    ACE_Log_Msg* const log = ACE_Log_Msg::instance();
    log->msg_ostream(stream, false);
    log->clr_flags(ACE_Log_Msg::STDERR | ACE_Log_Msg::SYSLOG | ACE_Log_Msg::LOGGER);
    log->set_flags(ACE_Log_Msg::OSTREAM);
    log->priority_mask(LM_INFO | LM_WARNING | LM_ERROR | LM_DEBUG, ACE_Log_Msg::PROCESS);

    size_t const maxSize = 4 << 20;
    size_t const count = 100000;
    auto const start = std::chrono::steady_clock::now();
    running = THREADS;
    ACE_Thread_Manager threads;
    if (threads.spawn_n(THREADS, writer, stream, THR_NEW_LWP | THR_JOINABLE) == -1) {
        std::perror("spawn");
        return 1;
    }
    int rotations = 0;
    while (running > 0) {
        Tarnwick::LogFile_Rotate::Rotate(path.c_str(), maxSize, count);
        ++rotations;
        ::usleep(1000);
    }
    threads.wait();
    double const elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    stream->flush();

    std::vector<std::string> files;
    for (size_t n = count; n >= 1; --n) {
        std::string const generation = path + "." + std::to_string(n);
        if (exists(generation))
            files.push_back(generation);
    }
    files.push_back(path);
    std::vector<int> next(THREADS, 0);
    long long outOfOrder = 0;
    for (const std::string& file : files) {
        std::ifstream in(file.c_str());
        std::string line;
        while (std::getline(in, line)) {
            size_t const at = line.find("writer ");
            int id = -1;
            int n = -1;
            if (at == std::string::npos ||
                std::sscanf(line.c_str() + at, "writer %d line %d", &id, &n) != 2 || id < 0 ||
                id >= THREADS)
                continue;
            if (n != next[id])
                ++outOfOrder;
            next[id] = n + 1;
        }
    }
    long long missing = 0;
    for (int id = 0; id < THREADS; ++id)
        missing += linesPerThread - next[id];

    log->msg_ostream(nullptr, false);
    delete stream;
    for (const std::string& file : files)
        ::unlink(file.c_str());
    ::rmdir(directory.c_str());

    long long const total = static_cast<long long>(THREADS) * linesPerThread;
    std::printf("%d threads x %d lines, rotation at %zu bytes\n", THREADS, linesPerThread, maxSize);
    std::printf("  time            %8.2f s\n", elapsed);
    std::printf("  lines/s         %8.0f\n", static_cast<double>(total) / elapsed);
    std::printf("  rotation calls  %8d\n", rotations);
    std::printf("  generations     %8zu\n", files.size() - 1);
    std::printf("  out of order    %8lld\n", outOfOrder);
    std::printf("  missing at end  %8lld\n", missing);
    return outOfOrder == 0 && missing == 0 ? 0 : 1;
}
