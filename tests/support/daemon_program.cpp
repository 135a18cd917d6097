#include "daemon_program.h"

#include "log_capture.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

extern char** environ;

namespace TarnwickTest {

bool DaemonResult::exited() const {
    return status != -1 && WIFEXITED(status);
}

int DaemonResult::exitCode() const {
    return exited() ? WEXITSTATUS(status) : -1;
}

DaemonProgram::DaemonProgram(const std::string& path, const std::string& name,
                             const std::vector<std::string>& args,
                             const std::vector<std::string>& env) {
    int outPipe[2];
    int errPipe[2];
    if (::pipe2(outPipe, O_CLOEXEC) != 0)
        return;
    if (::pipe2(errPipe, O_CLOEXEC) != 0) {
        ::close(outPipe[0]);
        ::close(outPipe[1]);
        return;
    }
    std::vector<std::string> words{name};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(&word[0]);
    argv.push_back(nullptr);
    std::vector<std::string> environment;
    for (char** e = environ; *e != nullptr; ++e) {
        std::string const entry(*e);
        bool replaced = false;
        for (const std::string& mine : env) {
            size_t const equals = mine.find('=');
            if (entry.compare(0, equals + 1, mine, 0, equals + 1) == 0)
                replaced = true;
        }
        if (!replaced)
            environment.push_back(entry);
    }
    environment.insert(environment.end(), env.begin(), env.end());
    std::vector<char*> envp;
    for (std::string& entry : environment)
        envp.push_back(&entry[0]);
    envp.push_back(nullptr);

    pid_ = ::fork();
    if (pid_ == 0) {
        int const in = ::open("/dev/null", O_RDONLY);
        ::dup2(in, STDIN_FILENO);
        ::dup2(outPipe[1], STDOUT_FILENO);
        ::dup2(errPipe[1], STDERR_FILENO);
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::execve(path.c_str(), argv.data(), envp.data());
        ::_exit(127);
    }
    ::close(outPipe[1]);
    ::close(errPipe[1]);
    out_ = outPipe[0];
    err_ = errPipe[0];
}

DaemonProgram::~DaemonProgram() {
    if (pid_ > 0 && !reaped_) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    if (out_ >= 0)
        ::close(out_);
    if (err_ >= 0)
        ::close(err_);
}

bool DaemonProgram::waitFor(const std::string& cue, int occurrence) {
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    for (;;) {
        int seen = 0;
        std::string const line = cue + "\n";
        size_t at = 0;
        while (at <= out.size()) {
            size_t const found = out.find(line, at);
            if (found == std::string::npos)
                break;
            if (found == 0 || out[found - 1] == '\n')
                ++seen;
            at = found + line.size();
        }
        if (seen >= occurrence)
            return true;
        if (!readSome(deadline))
            return false;
    }
}

void DaemonProgram::send(int signum) {
    if (pid_ > 0)
        ::kill(pid_, signum);
}

DaemonResult DaemonProgram::finish() {
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    while (readSome(deadline)) {
    }
    DaemonResult result;
    if (out_ >= 0 || err_ >= 0) {
        ADD_FAILURE() << "the program did not end in time; output so far:\n" << out << err;
        ::kill(pid_, SIGKILL);
    }
    while (pid_ > 0 && ::waitpid(pid_, &result.status, 0) < 0 && errno == EINTR) {
    }
    reaped_ = true;
    result.out = out;
    result.err = LogCapture::normalise(err);
    return result;
}

bool DaemonProgram::readSome(std::chrono::steady_clock::time_point deadline) {
    if (out_ < 0 && err_ < 0)
        return false;
    auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    if (left <= 0)
        return false;
    pollfd fds[2] = {{out_, POLLIN, 0}, {err_, POLLIN, 0}};
    int const ready = ::poll(fds, 2, static_cast<int>(left));
    if (ready < 0)
        return errno == EINTR;
    if (ready == 0)
        return false;
    char buffer[4096];
    int* const fdOf[2] = {&out_, &err_};
    std::string* const textOf[2] = {&out, &err};
    for (int i = 0; i < 2; ++i) {
        if (fds[i].fd < 0 || fds[i].revents == 0)
            continue;
        ssize_t const n = ::read(fds[i].fd, buffer, sizeof buffer);
        if (n > 0) {
            textOf[i]->append(buffer, static_cast<size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            ::close(*fdOf[i]);
            *fdOf[i] = -1;
        }
    }
    return true;
}

DaemonResult runDaemon(const std::string& path, const std::string& name,
                       const std::vector<std::string>& args, const std::vector<std::string>& env) {
    DaemonProgram program(path, name, args, env);
    return program.finish();
}

}  // namespace TarnwickTest
