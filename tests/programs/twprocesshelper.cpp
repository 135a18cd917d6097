// twprocesshelper: the program that the process tests run as a child.
//
//   print TEXT...        writes each TEXT on a line to standard output, and
//                        "error" to standard error
//   exit N               exits with status N
//   env NAME...          writes "NAME=value", or "NAME unset", per variable
//   fds                  writes the numbers of its open descriptors
//   stdin                writes how many bytes standard input held
//   wait                 writes "ready" and waits until killed
//   ignoreterm           ignores SIGTERM, writes "ready" and waits
//   grandchildren N      starts N children that wait, writes their pids
//                        (one a line) and "ready", and waits
//   flood BYTES          writes BYTES bytes of 'x' to standard output
//   closeout             closes standard output and standard error, then
//                        exits with status 0 a little later
//   sweep PATH [EXC...]  runs terminate_processes_under_path(PATH, EXC) and
//                        writes "result R" and "alive"
//
// A process that waits ends by itself after 20 seconds (an alarm), so that
// a broken test can't leave it behind.
#include <tarnwick/process_termination.h>
#include <tarnwick/utf8.h>

#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

const unsigned Lifetime_Seconds = 20;

[[noreturn]] void waitForever() {
    std::fflush(stdout);
    ::alarm(Lifetime_Seconds);
    for (;;)
        ::pause();
}

std::wstring wide(const char* text) {
    std::wstring out;
    Tarnwick::utf8towcs(text, out);
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2)
        return 64;
    std::string const mode = argv[1];
    if (mode == "print") {
        for (int i = 2; i < argc; ++i)
            std::printf("%s\n", argv[i]);
        std::fflush(stdout);
        std::fprintf(stderr, "error\n");
        return 0;
    }
    if (mode == "exit" && argc == 3)
        return std::atoi(argv[2]);
    if (mode == "env") {
        for (int i = 2; i < argc; ++i) {
            const char* const value = std::getenv(argv[i]);
            if (value != nullptr)
                std::printf("%s=%s\n", argv[i], value);
            else
                std::printf("%s unset\n", argv[i]);
        }
        return 0;
    }
    if (mode == "fds") {
        DIR* const dir = ::opendir("/proc/self/fd");
        if (dir == nullptr)
            return 1;
        int const own = ::dirfd(dir);
        while (struct dirent* entry = ::readdir(dir)) {
            if (entry->d_name[0] != '.' && std::atoi(entry->d_name) != own)
                std::printf("%s\n", entry->d_name);
        }
        ::closedir(dir);
        return 0;
    }
    if (mode == "stdin") {
        char buffer[4096];
        long total = 0;
        ssize_t n;
        while ((n = ::read(0, buffer, sizeof buffer)) > 0)
            total += n;
        std::printf("%ld\n", n < 0 ? -1L : total);
        return 0;
    }
    if (mode == "wait") {
        std::printf("ready\n");
        waitForever();
    }
    if (mode == "ignoreterm") {
        ::signal(SIGTERM, SIG_IGN);
        std::printf("ready\n");
        waitForever();
    }
    if (mode == "grandchildren" && argc == 3) {
        int const count = std::atoi(argv[2]);
        for (int i = 0; i < count; ++i) {
            std::fflush(stdout);  // or the child writes the lines too
            pid_t const child = ::fork();
            if (child == 0)
                waitForever();
            std::printf("%d\n", static_cast<int>(child));
        }
        std::printf("ready\n");
        waitForever();
    }
    if (mode == "flood" && argc == 3) {
        long long left = std::atoll(argv[2]);
        std::vector<char> block(65536, 'x');
        while (left > 0) {
            size_t const size = left < static_cast<long long>(block.size())
                                    ? static_cast<size_t>(left)
                                    : block.size();
            ssize_t const n = ::write(1, block.data(), size);
            if (n <= 0)
                return 1;
            left -= n;
        }
        return 0;
    }
    if (mode == "closeout") {
        ::close(1);
        ::close(2);
        ::usleep(100000);
        return 0;
    }
    if (mode == "sweep" && argc >= 3) {
        std::vector<std::wstring> texts;
        for (int i = 3; i < argc; ++i)
            texts.push_back(wide(argv[i]));
        std::vector<const wchar_t*> exceptions;
        for (const std::wstring& text : texts)
            exceptions.push_back(text.c_str());
        exceptions.push_back(nullptr);
        std::wstring const path = wide(argv[2]);
        int const result = Tarnwick::terminate_processes_under_path(
            path.c_str(), argc > 3 ? exceptions.data() : nullptr);
        std::printf("result %d\nalive\n", result);
        return 0;
    }
    return 64;
}
