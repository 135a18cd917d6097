#include "forked.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "child.h"
#include "loopback.h"
#include "pump.h"
#include "wire.h"

namespace TarnwickTest {

void checkLeaks() {
#if defined(__SANITIZE_ADDRESS__)
    if (__lsan_do_recoverable_leak_check() != 0)
        ADD_FAILURE() << "memory leaked";
#endif
}

void inChild(const std::function<void()>& body) {
    ChildResult const result = runInChild([&body]() {
        body();
        checkLeaks();
        return ::testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_TRUE(result.exited()) << "signal " << result.signal() << "\n"
                                 << result.output << result.errors;
    EXPECT_EQ(result.exitCode(), 0) << result.output << result.errors;
    // Lines a body marks for the record (figures) are shown in any case.
    std::string::size_type start = 0;
    while ((start = result.output.find(FIGURE_MARK, start)) != std::string::npos) {
        std::string::size_type const end = result.output.find('\n', start);
        std::cout << result.output.substr(
                         start + std::strlen(FIGURE_MARK),
                         end == std::string::npos ? end : end - start - std::strlen(FIGURE_MARK))
                  << std::endl;
        start = end == std::string::npos ? result.output.size() : end;
    }
}

Channel::~Channel() {
    if (m_fd >= 0)
        ::close(m_fd);
}

bool Channel::post(const std::string& message) {
    std::string const bytes = word(static_cast<uint32_t>(message.size())) + message;
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t const count = ::send(m_fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        done += static_cast<size_t>(count);
    }
    return true;
}

bool Channel::take(std::string& message) {
    char buffer[4096];
    while (!m_ended) {
        ssize_t const count = ::recv(m_fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (count > 0)
            m_inbox.append(buffer, static_cast<size_t>(count));
        else if (count == 0 || (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK))
            m_ended = true;
        else if (errno != EINTR)
            break;
    }
    if (m_inbox.size() < 4)
        return false;
    size_t const length = wordAt(m_inbox, 0);
    if (m_inbox.size() < 4 + length)
        return false;
    message = m_inbox.substr(4, length);
    m_inbox.erase(0, 4 + length);
    return true;
}

bool Channel::await(std::string& message, int ms) {
    ACE_Time_Value const deadline = now() + ACE_Time_Value(ms / 1000, (ms % 1000) * 1000);
    while (!take(message)) {
        if (m_ended || now() > deadline)
            return false;
        pollfd wait = {m_fd, POLLIN, 0};
        ::poll(&wait, 1, 10);
    }
    return true;
}

Forked::Forked(const std::function<int(Channel&)>& body) : m_pid(-1), m_reaped(false) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
        return;
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
    m_pid = ::fork();
    if (m_pid == 0) {
        ::close(ends[0]);
        int code;
        {
            Channel channel(ends[1]);
            code = body(channel);
        }
        std::cout.flush();
        std::cerr.flush();
        std::fflush(nullptr);
        ::_exit(code);
    }
    ::close(ends[1]);
    if (m_pid > 0)
        m_channel.adopt(ends[0]);
    else
        ::close(ends[0]);
}

Forked::~Forked() {
    if (m_pid > 0 && !m_reaped) {
        ::kill(m_pid, SIGKILL);
        int status = 0;
        ::waitpid(m_pid, &status, 0);
    }
}

int Forked::wait(Tarnwick::Engine* engine, int ms) {
    if (m_pid <= 0 || m_reaped)
        return -1;
    int status = 0;
    bool const ended = pumpUntil(
        engine, [&] { return ::waitpid(m_pid, &status, WNOHANG) == m_pid; }, ms);
    if (!ended) {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, &status, 0);
    }
    m_reaped = true;
    return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace TarnwickTest
