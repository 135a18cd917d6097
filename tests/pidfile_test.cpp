// PidFile, the reload task and DaemonApplication: the file's content and
// lock, a second process at the lock, the bounded close of the reload task,
// and the daemon twdaemon as a real process with SIGHUP and SIGTERM.
#include <tarnwick/configuration.h>
#include <tarnwick/pidfile.h>

#include <child.h>
#include <daemon_program.h>
#include <gtest/gtest.h>
#include <log_lines.h>
#include <scratch_dir.h>
#include <unprivileged.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

#ifndef TWDAEMON_PATH
#error "TWDAEMON_PATH names the test program"
#endif

namespace {

using TarnwickTest::LogLines;
using TarnwickTest::ScratchDir;

std::wstring wide(const std::string& text) {
    return std::wstring(text.begin(), text.end());
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

bool exists(const std::string& path) {
    struct stat info;
    return ::lstat(path.c_str(), &info) == 0;
}

bool waitUntil(const std::function<bool()>& done) {
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// Each test gives the setting "pid" its own scratch directory.
class PidFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(dir_.path().empty());
        Tarnwick::Configuration* config = Tarnwick::getConfigSingleton();
        config->import(Tarnwick::PATH_SETTINGS);
        config->setKeyVal(L"pid", wide(dir_.path()).c_str());
    }
    void TearDown() override { Tarnwick::getConfigSingleton()->setKeyVal(L"pid", nullptr); }

    std::string file(const std::string& name) const { return dir_.path() + "/" + name + ".pid"; }

    ScratchDir dir_{"tarnwick-pidfile"};
};

TEST_F(PidFileTest, PathIsRunPathOfThePidSetting) {
    Tarnwick::PidFile pid(L"agent");
    EXPECT_EQ(wide(file("agent")), std::wstring(pid.path().c_str()));
}

TEST_F(PidFileTest, WritesTheNumberWithALineEndAndMode0644) {
    {
        Tarnwick::PidFile pid(L"agent");
        ASSERT_EQ(0, pid.setPid(4242));
        EXPECT_EQ("4242\n", readFile(file("agent")));
        struct stat info;
        ASSERT_EQ(0, ::stat(file("agent").c_str(), &info));
        EXPECT_EQ(0644u, info.st_mode & 07777);
        EXPECT_EQ(4242, pid.getPid());
    }
    // The writer removes its file at its end.
    EXPECT_FALSE(exists(file("agent")));
}

TEST_F(PidFileTest, ZeroMeansThisProcess) {
    Tarnwick::PidFile pid(L"agent");
    ASSERT_EQ(0, pid.setPid(0));
    EXPECT_EQ(std::to_string(::getpid()) + "\n", readFile(file("agent")));
    EXPECT_EQ(static_cast<long>(::getpid()), pid.getPid());
    EXPECT_TRUE(pid.isRunning());
}

TEST_F(PidFileTest, SecondSetPidOnOneObjectWritesNothingAndGivesZero) {
    Tarnwick::PidFile pid(L"agent");
    ASSERT_EQ(0, pid.setPid(4242));
    EXPECT_EQ(0, pid.setPid(777));
    EXPECT_EQ("4242\n", readFile(file("agent")));
}

TEST_F(PidFileTest, ContentOneZeroOrTextReadsAsMinusOne) {
    Tarnwick::PidFile pid(L"agent");
    for (const char* content : {"1\n", "0\n", "1", "0", "text\n", "", "-5\n"}) {
        writeFile(file("agent"), content);
        EXPECT_EQ(-1, pid.getPid()) << content;
        EXPECT_FALSE(pid.isRunning()) << content;
    }
    // Read as atoi does: digits up to the first other character.
    writeFile(file("agent"), "1234xyz\n");
    EXPECT_EQ(1234, pid.getPid());
    ::unlink(file("agent").c_str());
}

TEST_F(PidFileTest, MissingFileReadsAsMinusOne) {
    Tarnwick::PidFile pid(L"agent");
    EXPECT_EQ(-1, pid.getPid());
    EXPECT_FALSE(pid.isRunning());
}

TEST_F(PidFileTest, IsRunningTestsTheProcess) {
    pid_t const child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0)
        ::_exit(0);
    int status = 0;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    Tarnwick::PidFile pid(L"agent");
    writeFile(file("agent"), std::to_string(child) + "\n");
    EXPECT_EQ(static_cast<long>(child), pid.getPid());
    EXPECT_FALSE(pid.isRunning());
    writeFile(file("agent"), std::to_string(::getpid()) + "\n");
    EXPECT_TRUE(pid.isRunning());
    ::unlink(file("agent").c_str());
}

TEST_F(PidFileTest, SecondProcessFailsAtTheLockAfterTruncating) {
    Tarnwick::PidFile pid(L"agent");
    ASSERT_EQ(0, pid.setPid(4242));
    TarnwickTest::ChildResult const second = TarnwickTest::runInChild([]() {
        Tarnwick::PidFile other(L"agent");
        return other.setPid(0) == -1 ? 0 : 1;
    });
    EXPECT_EQ(0, second.exitCode()) << second.errors;
    // The open truncated the file before the lock was tried; the file stays.
    ASSERT_TRUE(exists(file("agent")));
    EXPECT_EQ("", readFile(file("agent")));
    EXPECT_EQ(-1, pid.getPid());
}

TEST_F(PidFileTest, FileThatCanNotBeOpenedIsLogged) {
    std::string const missing = dir_.path() + "/missing/deeper";
    Tarnwick::getConfigSingleton()->setKeyVal(L"pid", wide(missing).c_str());
    LogLines log;
    Tarnwick::PidFile pid(L"agent");
    EXPECT_EQ(-1, pid.setPid(0));
    EXPECT_TRUE(
        log.has("%D ERROR (%t): Can not open pid file " + missing + ": No such file or directory"))
        << log.text();
}

TEST_F(PidFileTest, ReadOnlyDirectoryIsLogged) {
    // Root writes into any directory: the check runs as "nobody" then.
    ASSERT_EQ(0, ::chmod(dir_.path().c_str(), 0555));
    std::string const expected =
        "%D ERROR (%t): Can not open pid file " + file("agent") + ": Permission denied";
    TarnwickTest::asUnprivilegedUser([&expected]() {
        LogLines log;
        Tarnwick::PidFile pid(L"agent");
        EXPECT_EQ(-1, pid.setPid(0));
        EXPECT_TRUE(log.has(expected)) << log.text();
    });
    ::chmod(dir_.path().c_str(), 0700);
    EXPECT_FALSE(exists(file("agent")));
}

TEST_F(PidFileTest, WithoutPidKeyThePathIsEmpty) {
    Tarnwick::getConfigSingleton()->setKeyVal(L"pid", nullptr);
    LogLines log;
    Tarnwick::PidFile pid(L"agent");
    EXPECT_EQ(0u, pid.path().length());
    EXPECT_EQ(-1, pid.setPid(0));
    EXPECT_TRUE(log.has("%D ERROR (%t): Can not open pid file : No such file or directory"))
        << log.text();
    EXPECT_EQ(-1, pid.getPid());
}

// ---------------------------------------------------------------------------
// The reload task, in this process

class InProcessDaemon : public Tarnwick::DaemonApplication {
public:
    const wchar_t* name() override { return L"inprocess"; }
    const wchar_t* description() override { return L"In-process daemon"; }
    const wchar_t* long_description() override { return L"Runs in the test."; }
    int main() override { return 0; }
    int reload() override {
        ++reloads;
        return 0;
    }
    Tarnwick::DaemonApplicationReloadTask* task() { return reloadTask(); }
    Tarnwick::Task* first() { return findTask(L"reload"); }
    std::atomic<int> reloads{0};
};

TEST(ReloadTaskTest, IsTheFirstTaskOfADaemonAndCalledReload) {
    InProcessDaemon daemon;
    ASSERT_NE(nullptr, daemon.task());
    EXPECT_EQ(daemon.task(), daemon.first());
    EXPECT_STREQ(L"reload", daemon.task()->name());
    EXPECT_EQ(0, daemon.close());
}

TEST(ReloadTaskTest, CloseBeforeRunWaitsTheFullSixtySecondsAndGivesMinusOne) {
    InProcessDaemon daemon;
    daemon.task()->setTick(ACE_Time_Value(0, 5000));  // 5 ms
    ASSERT_EQ(0, daemon.task()->open());
    auto const before = std::chrono::steady_clock::now();
    EXPECT_EQ(-1, daemon.task()->close());
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(295));
}

TEST(ReloadTaskTest, RunsReloadOncePerRequestAndClearsIt) {
    InProcessDaemon daemon;
    daemon.task()->setTick(ACE_Time_Value(0, 5000));
    ASSERT_EQ(0, daemon.task()->open());
    daemon.reload_pending(true);
    ASSERT_EQ(0, daemon.task()->run());
    EXPECT_TRUE(waitUntil([&]() { return daemon.reloads == 1 && !daemon.reload_pending(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(1, daemon.reloads.load());
    daemon.reload_pending(true);
    EXPECT_TRUE(waitUntil([&]() { return daemon.reloads == 2 && !daemon.reload_pending(); }));
    EXPECT_EQ(0, daemon.task()->close());
}

TEST(ReloadTaskTest, StopBeforeTheFirstPassRunsNoReload) {
    InProcessDaemon daemon;
    daemon.task()->setTick(ACE_Time_Value(0, 5000));
    daemon.reload_pending(true);
    // close() without open(): stop stays set, and the thread ends at once.
    EXPECT_EQ(-1, daemon.task()->close());
    ASSERT_EQ(0, daemon.task()->run());
    EXPECT_EQ(0, daemon.task()->close());
    EXPECT_EQ(0, daemon.reloads.load());
    EXPECT_TRUE(daemon.reload_pending());
}

// ---------------------------------------------------------------------------
// twdaemon as a real process

class DaemonProcessTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(dir_.path().empty()); }
    std::vector<std::string> args(std::vector<std::string> more = {}) const {
        std::vector<std::string> all{"--pid=" + dir_.path(), "--tick=20"};
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }
    // No systemd around the program, whatever the test's environment holds.
    std::vector<std::string> env() const {
        return {"NOTIFY_SOCKET=", "WATCHDOG_USEC=", "TARNWICK_SYSTEMCTL=" + dir_.path() + "/none"};
    }
    std::string pidFile() const { return dir_.path() + "/twdaemon.pid"; }

    ScratchDir dir_{"tarnwick-daemon"};
};

TEST_F(DaemonProcessTest, WritesPidFileReloadsOnHupStopsOnTerm) {
    TarnwickTest::DaemonProgram program(TWDAEMON_PATH, "twdaemon", args(), env());
    ASSERT_TRUE(program.waitFor("ready")) << program.err;
    EXPECT_EQ(std::to_string(program.pid()) + "\n", readFile(pidFile()));

    program.send(SIGHUP);
    ASSERT_TRUE(program.waitFor("reloaded")) << program.err;
    // The request is cleared after reload() returns, so a SIGHUP that comes
    // while "reloaded" is being printed would be taken by the first reload.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    program.send(SIGHUP);
    ASSERT_TRUE(program.waitFor("reloaded", 2)) << program.err;

    program.send(SIGTERM);
    TarnwickTest::DaemonResult const result = program.finish();
    EXPECT_EQ(0, result.exitCode()) << result.err;
    EXPECT_EQ("ready\nreloaded\nreloaded\nstopped\n", result.out);
    EXPECT_FALSE(exists(pidFile()));
    // Without an action, not started by systemd: the lines of the service.
    EXPECT_NE(std::string::npos, result.err.find("%D ERROR (%t): Service stopped.\n"))
        << result.err;
}

TEST_F(DaemonProcessTest, SecondInstanceFailsAtTheLock) {
    TarnwickTest::DaemonProgram first(TWDAEMON_PATH, "twdaemon", args(), env());
    ASSERT_TRUE(first.waitFor("ready")) << first.err;
    // In the foreground (--debug) main()'s 3 is the exit status.
    TarnwickTest::DaemonResult const second =
        TarnwickTest::runDaemon(TWDAEMON_PATH, "twdaemon", args({"--debug"}), env());
    EXPECT_EQ(3, second.exitCode()) << second.err;
    EXPECT_EQ("locked\n", second.out);
    // The second instance truncated the file and left it there.
    ASSERT_TRUE(exists(pidFile()));
    EXPECT_EQ("", readFile(pidFile()));
    first.send(SIGTERM);
    EXPECT_EQ(0, first.finish().exitCode());
    EXPECT_FALSE(exists(pidFile()));
}

TEST_F(DaemonProcessTest, TaskThatFailsToOpenGivesMinusOne) {
    TarnwickTest::DaemonResult const result =
        TarnwickTest::runDaemon(TWDAEMON_PATH, "twdaemon", args({"--broken", "--debug"}), env());
    EXPECT_EQ(255, result.exitCode()) << result.err;
    EXPECT_EQ("", result.out);
    EXPECT_NE(std::string::npos,
              result.err.find("%D ERROR (%t): An error while initializing task: broken\n"))
        << result.err;
}

TEST_F(DaemonProcessTest, UnknownOptionEndsTheStartWithOne) {
    TarnwickTest::DaemonResult const result =
        TarnwickTest::runDaemon(TWDAEMON_PATH, "twdaemon", args({"--frobnicate"}), env());
    EXPECT_EQ(1, result.exitCode());
    EXPECT_EQ("", result.out);
    EXPECT_NE(
        std::string::npos,
        result.err.find("%D ERROR (%t): Error while parsing command line: Invalid argument\n"))
        << result.err;
}

TEST_F(DaemonProcessTest, ForegroundWithDebugStopsOnInt) {
    TarnwickTest::DaemonProgram program(TWDAEMON_PATH, "twdaemon", args({"--debug", "--status=4"}),
                                        env());
    ASSERT_TRUE(program.waitFor("ready")) << program.err;
    program.send(SIGINT);
    TarnwickTest::DaemonResult const result = program.finish();
    // In the foreground, main()'s result is the exit status.
    EXPECT_EQ(4, result.exitCode()) << result.err;
    // The line names the thread twice: "(%t)" and "thread %t".
    EXPECT_NE(std::string::npos, result.err.find("%D DEBUG (%t): Starting service in thread "))
        << result.err;
    EXPECT_EQ(std::string::npos, result.err.find("Service stopped."));
}

}  // namespace
