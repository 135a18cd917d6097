// Tests of terminate_process and terminate_processes_under_path: ending one
// process by id, and sweeping for the processes whose program lies under a
// path. The sweeps only ever name scratch directories of the test, under
// which the test has put copies of its helper program.
#include <tarnwick/process_termination.h>

#include <gtest/gtest.h>
#include <log_lines.h>
#include <process_hygiene.h>
#include <scratch_dir.h>
#include <wide_text.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

using Tarnwick::terminate_process;
using Tarnwick::terminate_processes_under_path;
using TarnwickTest::isAlive;
using TarnwickTest::LogLines;
using TarnwickTest::wide;

namespace {

const std::string Helper = TWPROCESSHELPER_PATH;

// A child running `program` with `arguments`, its standard output in a pipe.
struct Child {
    pid_t pid = -1;
    int output = -1;
};

Child start(const std::string& program, const std::vector<std::string>& arguments) {
    int pipe[2];
    Child child;
    if (::pipe2(pipe, O_CLOEXEC) != 0)
        return child;
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    child.pid = ::fork();
    if (child.pid == 0) {
        ::dup2(pipe[1], 1);
        ::execv(program.c_str(), argv.data());
        ::_exit(127);
    }
    ::close(pipe[1]);
    child.output = pipe[0];
    return child;
}

// Reads the child's output up to the line `line`, or to its end.
std::string readUntil(const Child& child, const std::string& line) {
    std::string text;
    char c;
    while (text.find(line + "\n") == std::string::npos && ::read(child.output, &c, 1) == 1)
        text += c;
    return text;
}

// Reaps the child: its wait status.
int reap(Child& child) {
    int status = 0;
    if (child.pid > 0) {
        EXPECT_EQ(child.pid, ::waitpid(child.pid, &status, 0));
    }
    if (child.output >= 0)
        ::close(child.output);
    child.pid = -1;
    child.output = -1;
    return status;
}

bool killedBySigkill(int status) {
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

// Copies the helper program to `path` (the directories are made).
void copyHelper(const std::string& path) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::filesystem::copy_file(Helper, path);
    ::chmod(path.c_str(), 0755);
}

class TerminationTest : public TarnwickTest::ProcessHygiene {
protected:
    void SetUp() override {
        TarnwickTest::ProcessHygiene::SetUp();
        ASSERT_FALSE(m_scratch.path().empty());
        ASSERT_EQ(0, ::chmod(m_scratch.path().c_str(), 0755));
    }
    void TearDown() override {
        for (Child& child : m_children) {
            if (child.pid > 0) {
                ::kill(child.pid, SIGKILL);
                reap(child);
            }
        }
        TarnwickTest::ProcessHygiene::TearDown();
    }
    const std::string& root() const { return m_scratch.path(); }
    // Starts a copy of the helper (or the helper itself) that waits.
    Child& waiting(const std::string& program) {
        m_children.push_back(start(program, {"wait"}));
        Child& child = m_children.back();
        EXPECT_GT(child.pid, 0);
        EXPECT_EQ("ready\n", readUntil(child, "ready"));
        return child;
    }

    TarnwickTest::ScratchDir m_scratch{"tarnwick-sweep"};
    std::deque<Child> m_children;  // references stay valid as it grows
};

TEST_F(TerminationTest, TerminateProcessEndsAChildWithSigkill) {
    Child& child = waiting(Helper);
    EXPECT_EQ(0, terminate_process(child.pid, SIGTERM));
    EXPECT_TRUE(killedBySigkill(reap(child)));
}

TEST_F(TerminationTest, TerminateProcessIgnoresItsSecondArgument) {
    for (int const signal : {0, SIGTERM, SIGINT, SIGHUP, 12345}) {
        m_children.push_back(start(Helper, {"ignoreterm"}));
        Child& child = m_children.back();
        ASSERT_EQ("ready\n", readUntil(child, "ready"));
        EXPECT_EQ(0, terminate_process(child.pid, signal));
        EXPECT_TRUE(killedBySigkill(reap(child))) << "signal argument " << signal;
    }
}

TEST_F(TerminationTest, TerminateProcessOfAnUnknownId) {
    Child exited = start(Helper, {"exit", "0"});
    ASSERT_GT(exited.pid, 0);
    pid_t const gone = exited.pid;
    reap(exited);
    errno = 0;
    EXPECT_EQ(-1, terminate_process(gone, SIGKILL)) << "a reaped child";
    EXPECT_EQ(ESRCH, errno);
    errno = 0;
    EXPECT_EQ(-1, terminate_process(4194304 + 1, SIGKILL)) << "above the largest pid";
    EXPECT_EQ(ESRCH, errno);
    errno = 0;
    EXPECT_EQ(-1, terminate_process(1L << 40, SIGKILL));
    EXPECT_EQ(ESRCH, errno);
}

TEST_F(TerminationTest, TerminateProcessRefusesTheOwnGroupAndEveryProcess) {
    for (long const pid : {0L, -1L}) {
        errno = 0;
        EXPECT_EQ(-1, terminate_process(pid, SIGKILL));
        EXPECT_EQ(EINVAL, errno);
    }
}

TEST_F(TerminationTest, TerminateProcessOfAnExitedButUnreapedChild) {
    Child child = start(Helper, {"exit", "5"});
    ASSERT_TRUE(TarnwickTest::endsWithin(child.pid, 5000));
    EXPECT_EQ(0, terminate_process(child.pid, SIGKILL)) << "a zombie still has its id";
    int const status = reap(child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(5, WEXITSTATUS(status));
}

TEST_F(TerminationTest, NullPathReturnsMinusOne) {
    LogLines log;
    errno = 0;
    EXPECT_EQ(-1, terminate_processes_under_path(nullptr, nullptr));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_TRUE(log.lines().empty()) << "no sweep was made";
}

// An empty path would match every process that can be read; it is refused,
// and nothing dies.
TEST_F(TerminationTest, EmptyPathIsRefused) {
    Child& child = waiting(Helper);
    LogLines log;
    errno = 0;
    EXPECT_EQ(-1, terminate_processes_under_path(L"", nullptr));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_TRUE(isAlive(child.pid));
}

TEST_F(TerminationTest, SweepEndsExactlyTheProcessesUnderThePath) {
    std::string const app = root() + "/App";
    copyHelper(app + "/bin/one");
    copyHelper(app + "/bin/two");
    copyHelper(app + "/lib/three");
    copyHelper(root() + "/Other/bin/one");
    std::vector<pid_t> targets;
    for (const char* program : {"/bin/one", "/bin/two", "/lib/three", "/bin/one"})
        targets.push_back(waiting(app + program).pid);
    pid_t const outside = waiting(root() + "/Other/bin/one").pid;
    pid_t const original = waiting(Helper).pid;

    LogLines log;
    EXPECT_EQ(0, terminate_processes_under_path(wide(app).c_str(), nullptr));
    for (size_t i = 0; i < 4; ++i) {
        Child& child = m_children[i];
        EXPECT_TRUE(killedBySigkill(reap(child))) << "process " << i << " under the path";
    }
    EXPECT_TRUE(isAlive(outside));
    EXPECT_TRUE(isAlive(original));
    EXPECT_TRUE(isAlive(::getpid()));
    const char* const programs[] = {"/bin/one", "/bin/two", "/lib/three", "/bin/one"};
    for (size_t i = 0; i < 4; ++i) {
        std::string const path = app + programs[i];
        std::string const name = path.substr(path.rfind('/') + 1);
        EXPECT_EQ(1, log.count("%D DEBUG (%t): Terminating process " + name + " with pid " +
                               std::to_string(targets[i]) + ": " + path))
            << log.text();
    }
    EXPECT_EQ(4, log.countPrefix("%D DEBUG (%t): Terminating process "));
}

TEST_F(TerminationTest, ThePathIsATextPrefix) {
    copyHelper(root() + "/App/a");
    copyHelper(root() + "/Application/b");
    copyHelper(root() + "/app/c");
    waiting(root() + "/App/a");
    waiting(root() + "/Application/b");
    pid_t const lower = waiting(root() + "/app/c").pid;
    EXPECT_EQ(0, terminate_processes_under_path(wide(root() + "/App").c_str(), nullptr));
    EXPECT_TRUE(killedBySigkill(reap(m_children[0])));
    EXPECT_TRUE(killedBySigkill(reap(m_children[1]))) << "/App also matches /Application";
    EXPECT_TRUE(isAlive(lower)) << "paths compare case-sensitively";
}

TEST_F(TerminationTest, ExceptionsAreMatchedAsTextEndings) {
    std::string const bin = root() + "/App/bin";
    copyHelper(bin + "/twagent");
    copyHelper(bin + "/agent");
    copyHelper(bin + "/worker");
    copyHelper(bin + "/Agent");
    pid_t const twagent = waiting(bin + "/twagent").pid;
    pid_t const agent = waiting(bin + "/agent").pid;
    waiting(bin + "/worker");
    waiting(bin + "/Agent");
    const wchar_t* exceptions[] = {L"agent", nullptr};
    EXPECT_EQ(0, terminate_processes_under_path(wide(root() + "/App").c_str(), exceptions));
    EXPECT_TRUE(isAlive(twagent)) << "agent spares twagent too";
    EXPECT_TRUE(isAlive(agent));
    EXPECT_TRUE(killedBySigkill(reap(m_children[2])));
    EXPECT_TRUE(killedBySigkill(reap(m_children[3]))) << "endings compare case-sensitively";
    const wchar_t* longer[] = {
        L"/a/much/longer/ending/than/any/program/path/under/the/scratch/"
        L"directory/of/this/test/twagent",
        nullptr};
    EXPECT_EQ(0, terminate_processes_under_path(wide(root() + "/App").c_str(), longer));
    EXPECT_TRUE(killedBySigkill(reap(m_children[0])));
    EXPECT_TRUE(killedBySigkill(reap(m_children[1])));
}

// The sweeping process runs from under the path itself, and survives while
// its siblings die.
TEST_F(TerminationTest, TheCallingProcessSurvives) {
    std::string const app = root() + "/App";
    copyHelper(app + "/sweeper");
    copyHelper(app + "/sibling");
    waiting(app + "/sibling");
    waiting(app + "/sibling");
    Child sweeper = start(app + "/sweeper", {"sweep", app});
    EXPECT_EQ("result 0\nalive\n", readUntil(sweeper, "alive"));
    int const status = reap(sweeper);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_TRUE(killedBySigkill(reap(m_children[0])));
    EXPECT_TRUE(killedBySigkill(reap(m_children[1])));
}

TEST_F(TerminationTest, ADeletedProgramCountsUnderItsFormerPath) {
    std::string const app = root() + "/App";
    copyHelper(app + "/bin/agent");
    copyHelper(app + "/bin/worker");
    pid_t const agent = waiting(app + "/bin/agent").pid;
    waiting(app + "/bin/worker");
    ASSERT_EQ(0, ::unlink((app + "/bin/agent").c_str()));
    ASSERT_EQ(0, ::unlink((app + "/bin/worker").c_str()));
    const wchar_t* exceptions[] = {L"agent", nullptr};
    EXPECT_EQ(0, terminate_processes_under_path(wide(app).c_str(), exceptions));
    EXPECT_TRUE(isAlive(agent));
    EXPECT_TRUE(killedBySigkill(reap(m_children[1])));
}

TEST_F(TerminationTest, ProcessesThatCannotBeReadArePassedOver) {
    std::string const app = root() + "/App";
    copyHelper(app + "/bin/mine");
    Child& mine = waiting(app + "/bin/mine");
    // A zombie has no program link: it can't be read, and is only logged.
    Child zombie = start(app + "/bin/mine", {"exit", "0"});
    ASSERT_TRUE(TarnwickTest::endsWithin(zombie.pid, 5000));
    LogLines log;
    EXPECT_EQ(0, terminate_processes_under_path(wide(app).c_str(), nullptr));
    EXPECT_TRUE(killedBySigkill(reap(mine)));
    EXPECT_TRUE(log.hasPrefix("%D DEBUG (%t): OpenProcess failed for twprocesshelpe, pid " +
                              std::to_string(zombie.pid) + ": ") ||
                log.hasPrefix("%D DEBUG (%t): OpenProcess failed for mine, pid " +
                              std::to_string(zombie.pid) + ": "))
        << log.text();
    int const status = reap(zombie);
    EXPECT_TRUE(WIFEXITED(status));
}

TEST_F(TerminationTest, ProcessesOfAnotherUserCannotBeEnded) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to start a process as another user";
    std::string const app = root() + "/App";
    copyHelper(app + "/bin/theirs");
    copyHelper(app + "/bin/sweeper");
    Child& theirs = waiting(app + "/bin/theirs");
    // The sweep runs as "nobody", which can't signal a process of root.
    pid_t const sweeper = ::fork();
    ASSERT_GE(sweeper, 0);
    if (sweeper == 0) {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0)
            ::_exit(2);
        std::wstring const path = wide(app);
        ::_exit(terminate_processes_under_path(path.c_str(), nullptr) == 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(sweeper, ::waitpid(sweeper, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    // Its program link can't be read by another user: passed over, result 0.
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_TRUE(isAlive(theirs.pid));
}

}  // namespace
