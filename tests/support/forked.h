// Test bodies and peers in forked processes: for what changes process-wide
// state for good (the engine, the SSL context, the configuration) and for
// the other end of a connection.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace Tarnwick {
class Engine;
}

namespace TarnwickTest {

// Reports the leaks of a test body that runs in a child process (which ends
// without the sanitizer's own check); nothing without AddressSanitizer.
void checkLeaks();

// Runs `body` in a forked child; its expectations and leaks count for the
// test, and so does a child that is killed by a signal.
// A line that a body prints to standard output beginning with FIGURE_MARK
// is shown by inChild (without the mark) whether the body passed or not:
// for figures that a test reports.
constexpr const char* FIGURE_MARK = "[figure] ";

void inChild(const std::function<void()>& body);

// One end of a socket pair between the test process and a process it
// forked. A message is a byte string behind its length (a 32-bit word).
class Channel {
public:
    explicit Channel(int fd = -1) : m_fd(fd), m_ended(false) {}
    ~Channel();
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    void adopt(int fd) { m_fd = fd; }

    bool post(const std::string& message);
    // A whole message if one has come; never waits.
    bool take(std::string& message);
    // Waits at most `ms` milliseconds for a whole message.
    bool await(std::string& message, int ms);

private:
    int m_fd;
    bool m_ended;
    std::string m_inbox;
};

// A process forked from the test that runs `body` with its end of a channel
// and exits with what `body` returns. One that still runs when the object
// goes (the test gave up early) is killed.
class Forked {
public:
    explicit Forked(const std::function<int(Channel&)>& body);
    ~Forked();
    Forked(const Forked&) = delete;
    Forked& operator=(const Forked&) = delete;

    bool started() const { return m_pid > 0; }
    Channel& channel() { return m_channel; }

    // Waits for the process to end while `engine` runs, for at most `ms`
    // milliseconds; its exit code, or -1 when it was signalled or had to be
    // killed.
    int wait(Tarnwick::Engine* engine, int ms);

private:
    pid_t m_pid;
    bool m_reaped;
    Channel m_channel;
};

}  // namespace TarnwickTest
