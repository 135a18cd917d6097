#include "child.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iostream>

namespace TarnwickTest {

bool ChildResult::exited() const {
    return status != -1 && WIFEXITED(status);
}
int ChildResult::exitCode() const {
    return exited() ? WEXITSTATUS(status) : -1;
}
bool ChildResult::signalled() const {
    return status != -1 && WIFSIGNALED(status);
}
int ChildResult::signal() const {
    return signalled() ? WTERMSIG(status) : 0;
}

namespace {

void drain(int outFd, int errFd, std::string& out, std::string& err) {
    pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
    int open = 2;
    char buffer[4096];
    while (open > 0) {
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0)
                continue;
            ssize_t const n = read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                (i == 0 ? out : err).append(buffer, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                fds[i].fd = -1;
                --open;
            }
        }
    }
}

}  // namespace

ChildResult runInChild(const std::function<int()>& body) {
    ChildResult result;
    int out[2];
    int err[2];
    if (pipe(out) != 0 || pipe(err) != 0)
        return result;
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
    pid_t const pid = fork();
    if (pid == 0) {
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        close(out[0]);
        close(out[1]);
        close(err[0]);
        close(err[1]);
        int const code = body();
        std::cout.flush();
        std::cerr.flush();
        std::fflush(nullptr);
        _exit(code);
    }
    close(out[1]);
    close(err[1]);
    result.pid = pid;
    if (pid > 0) {
        drain(out[0], err[0], result.output, result.errors);
        while (waitpid(pid, &result.status, 0) < 0 && errno == EINTR) {
        }
    }
    close(out[0]);
    close(err[0]);
    return result;
}

}  // namespace TarnwickTest
