// A test program run as a child process with extra environment variables,
// both outputs read through pipes: for daemons that are signalled, stopped
// and checked from outside.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace TarnwickTest {

struct DaemonResult {
    int status = -1;  // the waitpid status
    std::string out;
    std::string err;  // normalised log text (LogCapture::normalise)

    bool exited() const;
    int exitCode() const;  // -1 unless exited()
};

class DaemonProgram {
public:
    // Runs `path` with argv[0] `name`, `args`, and the environment with
    // `env` ("NAME=VALUE") set over it; standard input is /dev/null.
    DaemonProgram(const std::string& path, const std::string& name,
                  const std::vector<std::string>& args, const std::vector<std::string>& env);
    // Kills and reaps a program that finish() hasn't.
    ~DaemonProgram();
    DaemonProgram(const DaemonProgram&) = delete;
    DaemonProgram& operator=(const DaemonProgram&) = delete;

    // Reads until standard output holds `cue` as a line `occurrence` times;
    // false on timeout (15 s) or end of output.
    bool waitFor(const std::string& cue, int occurrence = 1);
    void send(int signum);
    // Reads both outputs to their end and waits for the exit (15 s at most).
    DaemonResult finish();
    pid_t pid() const { return pid_; }

    std::string out;
    std::string err;

private:
    bool readSome(std::chrono::steady_clock::time_point deadline);

    pid_t pid_ = -1;
    int out_ = -1;
    int err_ = -1;
    bool reaped_ = false;
};

// Runs the program to its end without signals.
DaemonResult runDaemon(const std::string& path, const std::string& name,
                       const std::vector<std::string>& args, const std::vector<std::string>& env);

}  // namespace TarnwickTest
