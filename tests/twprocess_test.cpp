// Tests of TWProcess: a managed child with a named log file, its process
// group, kill, wait, the exceptions of failed starts and kills, and that
// nothing is left behind.
#include <tarnwick/exception.h>
#include <tarnwick/twprocess.h>

#include <gtest/gtest.h>
#include <log_lines.h>
#include <process_hygiene.h>
#include <unprivileged.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using Tarnwick::Exception;
using Tarnwick::TWProcess;
using TarnwickTest::awaitText;
using TarnwickTest::endsWithin;
using TarnwickTest::fileText;
using TarnwickTest::isAlive;
using TarnwickTest::LogLines;

namespace {

const std::string Helper = TWPROCESSHELPER_PATH;

// Runs `body`, which must throw an Exception, and checks its number, text,
// severity and source, and the line it logged.
void expectThrow(const std::function<void()>& body, Tarnwick::errornumber_t number,
                 const std::string& text) {
    LogLines log;
    try {
        body();
        ADD_FAILURE() << "no exception; expected " << number << " " << text;
    } catch (const Exception& e) {
        EXPECT_EQ(number, e.getErrNo());
        EXPECT_EQ(text, e.getDescription());
        EXPECT_EQ(Tarnwick::SEVERITY_SEVERE, e.getSeverity());
        EXPECT_EQ("TWProcess", e.getSource());
        EXPECT_TRUE(log.has("%D ERROR (%t): " + text)) << log.text();
    }
}

class TWProcessTest : public TarnwickTest::ProcessHygiene {
protected:
    std::string logPath(const std::string& name = "child.log") const { return tmp() + "/" + name; }
    void TearDown() override {
        std::remove(logPath().c_str());
        std::remove(logPath("second.log").c_str());
        TarnwickTest::ProcessHygiene::TearDown();
    }
};

TEST_F(TWProcessTest, RunLogsAndStartsTheChildInAGroupOfItsOwn) {
    TWProcess process(Helper + " wait", logPath());
    LogLines log;
    process.run();
    EXPECT_EQ(
        TarnwickTest::Lines{"%D DEBUG (%t): Starting process. Command is: " + Helper + " wait"},
        log.lines());
    long const pid = process.getPid();
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(process.isRunning());
    EXPECT_EQ(pid, static_cast<long>(::getpgid(static_cast<pid_t>(pid))));
    EXPECT_NE(::getpgid(0), ::getpgid(static_cast<pid_t>(pid)));
    EXPECT_EQ("ready\n", awaitText(logPath(), "ready\n", 5000));
    process.kill(SIGTERM);
    EXPECT_EQ(128 + SIGKILL, process.wait());
    EXPECT_FALSE(process.isRunning());
}

TEST_F(TWProcessTest, GetExitCodeBeforeAndAfterTheEnd) {
    TWProcess process(Helper + " exit 9", logPath());
    EXPECT_EQ(0, process.getExitCode()) << "before a start";
    process.run();
    EXPECT_EQ(0, process.getExitCode()) << "what ACE_Process holds before the wait";
    EXPECT_EQ(9, process.wait());
    EXPECT_EQ(9, process.getExitCode());
}

TEST_F(TWProcessTest, OutputAndErrorsGoToTheLog) {
    TWProcess process;
    process.setCommand(Helper + " print one two");
    process.setLogFile(logPath());
    process.run();
    EXPECT_EQ(0, process.wait());
    EXPECT_EQ("one\ntwo\nerror\n", fileText(logPath()));
    struct stat info;
    ASSERT_EQ(0, ::stat(logPath().c_str(), &info));
    EXPECT_EQ(0u, info.st_mode & 07137) << "no execute bits, nothing for others";
}

TEST_F(TWProcessTest, KillOfANeverStartedProcessReturns) {
    TWProcess process(Helper + " wait", logPath());
    EXPECT_EQ(-1, process.getPid());
    process.kill(SIGTERM);
    process.kill(SIGKILL);
    EXPECT_FALSE(process.isRunning());
    errno = 0;
    EXPECT_EQ(0, process.wait()) << "nothing to wait for";
    EXPECT_EQ(ECHILD, errno);
}

TEST_F(TWProcessTest, LogPathInAMissingDirectory) {
    std::string const path = tmp() + "/missing/child.log";
    TWProcess process(Helper + " print x", path);
    expectThrow([&] { process.run(); }, Tarnwick::ERR_PROCESS_LOG_FILE,
                "Unable to open logfile: " + path);
    EXPECT_FALSE(process.isRunning());
    EXPECT_EQ(-1, process.getPid());
}

TEST_F(TWProcessTest, LogPathInAReadOnlyDirectory) {
    std::string const directory = tmp() + "/readonly";
    ASSERT_EQ(0, ::mkdir(directory.c_str(), 0555));
    ASSERT_EQ(0, ::chmod(tmp().c_str(), 0755));
    std::string const path = directory + "/child.log";
    TarnwickTest::asUnprivilegedUser([&] {
        TWProcess process(Helper + " print x", path);
        expectThrow([&] { process.run(); }, Tarnwick::ERR_PROCESS_LOG_FILE,
                    "Unable to open logfile: " + path);
        EXPECT_FALSE(process.isRunning());
    });
    ASSERT_EQ(0, ::rmdir(directory.c_str()));
}

TEST_F(TWProcessTest, KillReachesGrandchildren) {
    TWProcess process(Helper + " grandchildren 3", logPath());
    process.run();
    std::string const text = awaitText(logPath(), "ready\n", 5000);
    std::istringstream lines(text);
    std::vector<pid_t> grandchildren;
    std::string line;
    while (std::getline(lines, line) && line != "ready")
        grandchildren.push_back(static_cast<pid_t>(std::stol(line)));
    ASSERT_EQ(3u, grandchildren.size()) << text;
    for (pid_t const pid : grandchildren) {
        EXPECT_TRUE(isAlive(pid));
        EXPECT_EQ(process.getPid(), static_cast<long>(::getpgid(pid)));
    }
    process.kill(SIGTERM);
    EXPECT_EQ(128 + SIGKILL, process.wait());
    for (pid_t const pid : grandchildren)
        EXPECT_TRUE(endsWithin(pid, 5000)) << "grandchild " << pid << " survived";
}

TEST_F(TWProcessTest, KillEndsAChildThatIgnoresSigterm) {
    TWProcess process(Helper + " ignoreterm", logPath());
    process.run();
    EXPECT_EQ("ready\n", awaitText(logPath(), "ready\n", 5000));
    process.kill(SIGTERM);
    EXPECT_EQ(128 + SIGKILL, process.wait());
}

TEST_F(TWProcessTest, IsRunningStaysTrueUntilWait) {
    TWProcess process(Helper + " exit 0", logPath());
    process.run();
    pid_t const pid = static_cast<pid_t>(process.getPid());
    EXPECT_TRUE(endsWithin(pid, 5000));
    EXPECT_TRUE(process.isRunning()) << "nothing polls";
    EXPECT_EQ(0, process.wait());
    EXPECT_FALSE(process.isRunning());
}

TEST_F(TWProcessTest, KillOfAChildThatHasExitedButIsNotWaitedFor) {
    TWProcess process(Helper + " exit 4", logPath());
    process.run();
    EXPECT_TRUE(endsWithin(static_cast<pid_t>(process.getPid()), 5000));
    process.kill(SIGKILL);  // the group still holds the unreaped child
    EXPECT_EQ(4, process.wait()) << "it had ended by itself";
}

TEST_F(TWProcessTest, KillRacingTheChildsOwnExit) {
    for (int round = 0; round < 20; ++round) {
        TWProcess process(Helper + " exit 0", logPath());
        process.run();
        process.kill(SIGKILL);
        int const code = process.wait();
        EXPECT_TRUE(code == 0 || code == 128 + SIGKILL) << code;
    }
}

TEST_F(TWProcessTest, KillAfterWaitThrows) {
    TWProcess process(Helper + " exit 0", logPath());
    process.run();
    long const pid = process.getPid();
    EXPECT_EQ(0, process.wait());
    expectThrow([&] { process.kill(SIGTERM); }, Tarnwick::ERR_PROCESS_TERMINATE,
                "Failed to terminate process with PID: " + std::to_string(pid));
}

TEST_F(TWProcessTest, KillFromAnotherThreadWhileWaiting) {
    TWProcess process(Helper + " wait", logPath());
    process.run();
    EXPECT_EQ("ready\n", awaitText(logPath(), "ready\n", 5000));
    int code = -1;
    std::thread waiter([&] { code = process.wait(); });
    process.kill(SIGTERM);
    waiter.join();
    EXPECT_EQ(128 + SIGKILL, code);
    EXPECT_FALSE(process.isRunning());
}

TEST_F(TWProcessTest, SecondRunTruncatesTheLog) {
    TWProcess process(Helper + " print first-run-with-a-long-line", logPath());
    process.run();
    EXPECT_EQ(0, process.wait());
    EXPECT_EQ("first-run-with-a-long-line\nerror\n", fileText(logPath()));
    process.setCommand(Helper + " print second");
    process.run();
    EXPECT_EQ(0, process.wait());
    EXPECT_EQ("second\nerror\n", fileText(logPath()));
}

TEST_F(TWProcessTest, RunWhileRunningThrows) {
    TWProcess process(Helper + " wait", logPath());
    process.run();
    long const pid = process.getPid();
    expectThrow([&] { process.run(); }, Tarnwick::ERR_PROCESS_SPAWN,
                "Failed to start process: could not spawn");
    EXPECT_EQ(pid, process.getPid()) << "the first child is kept";
    EXPECT_TRUE(process.isRunning());
    process.kill(SIGKILL);
    EXPECT_EQ(128 + SIGKILL, process.wait());
}

TEST_F(TWProcessTest, LibraryPathVariablesAreEmptyForTheChild) {
    const char* const old = std::getenv("LD_LIBRARY_PATH");
    std::string const saved = old != nullptr ? old : "";
    ::setenv("LD_LIBRARY_PATH", "/parent/lib", 1);
    TWProcess process(Helper + " env LIBPATH LD_LIBRARY_PATH SHLIB_PATH DYLD_LIBRARY_PATH",
                      logPath());
    process.run();
    if (old != nullptr)
        ::setenv("LD_LIBRARY_PATH", saved.c_str(), 1);
    else
        ::unsetenv("LD_LIBRARY_PATH");
    EXPECT_EQ(0, process.wait());
    EXPECT_EQ("LIBPATH=\nLD_LIBRARY_PATH=\nSHLIB_PATH=\nDYLD_LIBRARY_PATH=\n", fileText(logPath()));
}

TEST_F(TWProcessTest, MissingCommand) {
    TWProcess process("/nonexistent/tarnwick-no-such-program --flag", logPath());
    expectThrow([&] { process.run(); }, Tarnwick::ERR_PROCESS_SPAWN,
                "Failed to start process: could not spawn");
    EXPECT_FALSE(process.isRunning());
    EXPECT_EQ(-1, process.getPid());
    process.kill(SIGTERM);  // nothing to kill
    errno = 0;
    EXPECT_EQ(0, process.wait());
    EXPECT_EQ(ECHILD, errno);
}

TEST_F(TWProcessTest, EmptyCommandLine) {
    for (const char* command : {"", "   "}) {
        TWProcess process(command, logPath());
        expectThrow([&] { process.run(); }, Tarnwick::ERR_PROCESS_SPAWN,
                    "Failed to start process: could not spawn");
        EXPECT_FALSE(process.isRunning());
        EXPECT_EQ(-1, process.getPid());
    }
}

TEST_F(TWProcessTest, CommandLineThatCannotBePrepared) {
    std::string const invalid = Helper + " print \xff\xfe";
    TWProcess process(invalid, logPath());
    expectThrow([&] { process.run(); }, Tarnwick::ERR_PROCESS_COMMAND_LINE,
                "Failed to start process: Prepare command failed for command " + invalid);
    std::string many = Helper + " print";
    for (int i = 0; i < 130; ++i)
        many += " a";
    process.setCommand(many);
    expectThrow([&] { process.run(); }, Tarnwick::ERR_PROCESS_COMMAND_LINE,
                "Failed to start process: Prepare command failed for command " + many);
    EXPECT_FALSE(process.isRunning());
}

TEST_F(TWProcessTest, ChildClosingItsOutputEarly) {
    TWProcess process(Helper + " closeout", logPath());
    process.run();
    EXPECT_EQ(0, process.wait());
    EXPECT_EQ("", fileText(logPath()));
}

TEST_F(TWProcessTest, ChildWritingAHundredMebibytes) {
    long long const size = 100LL * 1024 * 1024;
    TWProcess process(Helper + " flood " + std::to_string(size), logPath());
    process.run();
    EXPECT_EQ(0, process.wait());
    struct stat info;
    ASSERT_EQ(0, ::stat(logPath().c_str(), &info));
    EXPECT_EQ(size, info.st_size);
}

TEST_F(TWProcessTest, DestructorClosesTheLogOfAFailedStart) {
    int const before = TarnwickTest::countDescriptors();
    {
        TWProcess process("/nonexistent/tarnwick-no-such-program", logPath());
        expectThrow([&] { process.run(); }, Tarnwick::ERR_PROCESS_SPAWN,
                    "Failed to start process: could not spawn");
    }
    EXPECT_EQ(before, TarnwickTest::countDescriptors());
}

}  // namespace
