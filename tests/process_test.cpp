// Tests of Process: running a command line as a child with its output in a
// temporary file, waiting with and without a limit, the environment, the
// descriptors and the exit code of the child, and failures to start.
#include <tarnwick/process.h>
#include <tarnwick/temporary_file.h>
#include <tarnwick/utf8.h>

#include <gtest/gtest.h>
#include <log_lines.h>
#include <process_hygiene.h>
#include <unprivileged.h>
#include <wide_text.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string>

using Tarnwick::Process;
using Tarnwick::Temporary_File;
using TarnwickTest::awaitText;
using TarnwickTest::fileText;
using TarnwickTest::isAlive;
using TarnwickTest::LogLines;
using TarnwickTest::wide;

namespace {

const std::string Helper = TWPROCESSHELPER_PATH;

std::string narrow(const wchar_t* text) {
    std::string out;
    if (text != nullptr) {
        EXPECT_TRUE(Tarnwick::wcstoutf8(text, out));
    }
    return out;
}

std::wstring helper(const std::string& arguments) {
    return wide(Helper + " " + arguments);
}

bool exists(const std::string& path) {
    struct stat info;
    return ::stat(path.c_str(), &info) == 0;
}

class ProcessTest : public TarnwickTest::ProcessHygiene {};

TEST_F(ProcessTest, ConstructorLogsTheCommandLine) {
    LogLines log;
    Process process(L"/bin/true now", nullptr);
    EXPECT_EQ(TarnwickTest::Lines{"%D DEBUG (%t): Executing: /bin/true now"}, log.lines());
    EXPECT_EQ("/bin/true now", narrow(process.getCommandLine()));
    EXPECT_EQ(nullptr, process.getLogFile()) << "no file before spawn";
    EXPECT_EQ(-1, process.getPid());
    EXPECT_EQ(0, process.getExitCode());
}

TEST_F(ProcessTest, OwnLogFileIsMadeAtSpawnAndDestroyed) {
    std::string path;
    {
        Process process(helper("print hello world").c_str(), nullptr);
        int const pid = process.run(true, nullptr);
        EXPECT_GT(pid, 0);
        EXPECT_EQ(pid, process.getPid());
        EXPECT_EQ(0, process.getExitCode());
        path = narrow(process.getLogFile());
        EXPECT_EQ(tmp() + "/tarnwick-process-", path.substr(0, tmp().size() + 18));
        EXPECT_EQ("hello\nworld\nerror\n", fileText(path));
    }
    EXPECT_FALSE(exists(path)) << "the file goes with the process";
}

TEST_F(ProcessTest, GivenLogFileIsUsedAndNotDestroyed) {
    Temporary_File file(L"given");
    ASSERT_EQ(0, file.open());
    std::string const path = narrow(file.filename());
    {
        Process process(helper("print given").c_str(), &file);
        ASSERT_GT(process.run(true, nullptr), 0);
        EXPECT_EQ(path, narrow(process.getLogFile()));
    }
    EXPECT_EQ("given\nerror\n", fileText(path));
    EXPECT_NE(ACE_INVALID_HANDLE, file.get_handle()) << "still the caller's, still open";
}

TEST_F(ProcessTest, GivenLogFileThatIsClosedIsOpened) {
    Temporary_File file(L"closed");
    {
        Process process(helper("print opened").c_str(), &file);
        ASSERT_GT(process.run(true, nullptr), 0);
    }
    EXPECT_EQ("opened\nerror\n", fileText(narrow(file.filename())));
}

TEST_F(ProcessTest, KeepTheLogfileBeforeRunKeepsItAndLogsItsName) {
    std::string path;
    LogLines log;
    {
        Process process(helper("print kept").c_str(), nullptr);
        process.keepTheLogfile();
        ASSERT_GT(process.run(true, nullptr), 0);
        path = narrow(process.getLogFile());
    }
    EXPECT_EQ("kept\nerror\n", fileText(path));
    EXPECT_EQ((TarnwickTest::Lines{"%D DEBUG (%t): Executing: " + Helper + " print kept",
                                   "%D DEBUG (%t): Storing process output in " + path}),
              log.lines());
    EXPECT_EQ(0, ::unlink(path.c_str()));
}

TEST_F(ProcessTest, KeepTheLogfileAfterRunHasNoEffect) {
    std::string path;
    LogLines log;
    {
        Process process(helper("print late").c_str(), nullptr);
        ASSERT_GT(process.run(true, nullptr), 0);
        process.keepTheLogfile();
        path = narrow(process.getLogFile());
    }
    EXPECT_FALSE(exists(path));
    EXPECT_EQ(0, log.countPrefix("%D DEBUG (%t): Storing process output in "));
}

TEST_F(ProcessTest, RunWithoutWaitReturnsWhileTheChildRuns) {
    Process process(helper("wait").c_str(), nullptr);
    EXPECT_EQ(0, process.run(false, nullptr));
    pid_t const pid = static_cast<pid_t>(process.getPid());
    ASSERT_GT(pid, 0);
    std::string const path = narrow(process.getLogFile());
    EXPECT_EQ("ready\n", awaitText(path, "ready\n", 5000));
    EXPECT_TRUE(isAlive(pid));
    ASSERT_EQ(0, ::kill(pid, SIGKILL));
    EXPECT_EQ(pid, process.wait(nullptr));
    EXPECT_EQ(128 + SIGKILL, process.getExitCode());
}

TEST_F(ProcessTest, RunWithATimeoutThatTheChildOutlives) {
    Process process(helper("wait").c_str(), nullptr);
    ACE_Time_Value const timeout(0, 50000);
    errno = 0;
    EXPECT_EQ(-1, process.run(true, &timeout));
    EXPECT_EQ(ETIME, errno);
    pid_t const pid = static_cast<pid_t>(process.getPid());
    EXPECT_TRUE(isAlive(pid)) << "the child goes on running";
    EXPECT_EQ(-1, process.wait(&timeout)) << "still running";
    ASSERT_EQ(0, ::kill(pid, SIGKILL));
    ACE_Time_Value const enough(5);
    EXPECT_EQ(0, process.wait(&enough));
    EXPECT_EQ(128 + SIGKILL, process.getExitCode());
}

TEST_F(ProcessTest, RunWithATimeoutThatTheChildKeeps) {
    Process process(helper("exit 7").c_str(), nullptr);
    ACE_Time_Value const timeout(5);
    EXPECT_EQ(0, process.run(true, &timeout));
    EXPECT_EQ(7, process.getExitCode());
}

TEST_F(ProcessTest, LibraryPathVariablesAreEmptyForTheChild) {
    const char* const names[] = {"LIBPATH", "LD_LIBRARY_PATH", "SHLIB_PATH", "DYLD_LIBRARY_PATH"};
    std::string saved[4];
    bool had[4];
    for (int i = 0; i < 4; ++i) {
        const char* const value = std::getenv(names[i]);
        had[i] = value != nullptr;
        if (had[i])
            saved[i] = value;
        ::setenv(names[i], "/parent/lib", 1);
    }
    ::setenv("TARNWICK_TEST_PASSED_ON", "kept", 1);
    Process process(
        helper("env LIBPATH LD_LIBRARY_PATH SHLIB_PATH DYLD_LIBRARY_PATH TARNWICK_TEST_PASSED_ON")
            .c_str(),
        nullptr);
    int const pid = process.run(true, nullptr);
    for (int i = 0; i < 4; ++i) {
        if (had[i])
            ::setenv(names[i], saved[i].c_str(), 1);
        else
            ::unsetenv(names[i]);
    }
    ::unsetenv("TARNWICK_TEST_PASSED_ON");
    ASSERT_GT(pid, 0);
    EXPECT_EQ(
        "LIBPATH=\nLD_LIBRARY_PATH=\nSHLIB_PATH=\nDYLD_LIBRARY_PATH=\nTARNWICK_TEST_PASSED_ON="
        "kept\n",
        fileText(narrow(process.getLogFile())));
}

TEST_F(ProcessTest, StaticRunGivesTheExitCode) {
    EXPECT_EQ(3, Process::run(helper("exit 3").c_str()));
    EXPECT_EQ(0, Process::run(L"/bin/sh -c 'exit 0'"));
    EXPECT_EQ(42, Process::run(L"/bin/sh -c 'exit 42'"));
    EXPECT_EQ(128 + SIGKILL, Process::run(L"/bin/sh -c 'kill -9 $$'"));
}

TEST_F(ProcessTest, StaticRunWithAGivenFile) {
    Temporary_File file(L"static");
    EXPECT_EQ(0, Process::run(helper("print static").c_str(), &file));
    EXPECT_EQ("static\nerror\n", fileText(narrow(file.filename())));
}

TEST_F(ProcessTest, StaticRunOfACommandThatCannotStart) {
    errno = 0;
    EXPECT_EQ(-1, Process::run(L"/nonexistent/tarnwick-no-such-program arg"));
    EXPECT_EQ(ENOENT, errno);
    errno = 0;
    EXPECT_EQ(-1, Process::run(L"tarnwick-no-such-program-in-path"));
    EXPECT_EQ(ENOENT, errno);
    std::string const plain = tmp() + "/not-executable";
    { std::ofstream(plain) << "#!/bin/sh\nexit 0\n"; }
    errno = 0;
    EXPECT_EQ(-1, Process::run(wide(plain).c_str()));
    EXPECT_EQ(EACCES, errno);
    EXPECT_EQ(0, ::unlink(plain.c_str()));
}

TEST_F(ProcessTest, MissingCommandLeavesNoChildAndNoPid) {
    Process process(L"/nonexistent/tarnwick-no-such-program", nullptr);
    errno = 0;
    EXPECT_EQ(-1, process.run(true, nullptr));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, process.getPid());
    EXPECT_EQ(0, process.getExitCode());
    errno = 0;
    EXPECT_EQ(-1, process.wait(nullptr));
    EXPECT_EQ(ECHILD, errno);
}

TEST_F(ProcessTest, EmptyCommandLine) {
    for (const wchar_t* command : {L"", L"   "}) {
        Process process(command, nullptr);
        errno = 0;
        EXPECT_EQ(-1, process.run(true, nullptr));
        EXPECT_EQ(EINVAL, errno);
        EXPECT_EQ(-1, process.getPid());
    }
    errno = 0;
    EXPECT_EQ(-1, Process::run(nullptr));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(ProcessTest, CommandLineThatIsNotText) {
    Process process(L"/bin/true \xD800", nullptr);
    errno = 0;
    EXPECT_EQ(-1, process.run(true, nullptr));
    EXPECT_EQ(EILSEQ, errno);
}

TEST_F(ProcessTest, WaitWithoutAStart) {
    Process process(L"/bin/true", nullptr);
    errno = 0;
    EXPECT_EQ(-1, process.wait(nullptr));
    EXPECT_EQ(ECHILD, errno);
    ACE_Time_Value const timeout(0, 1000);
    errno = 0;
    EXPECT_EQ(-1, process.wait(&timeout));
    EXPECT_EQ(ECHILD, errno);
}

TEST_F(ProcessTest, ArgumentsQuotesAndPercentSigns) {
    Process process(helper("print 'two words' \"and more\" 100%% %s %d").c_str(), nullptr);
    ASSERT_GT(process.run(true, nullptr), 0);
    EXPECT_EQ("two words\nand more\n100%\n%s\n%d\nerror\n", fileText(narrow(process.getLogFile())));
}

TEST_F(ProcessTest, ChildReadsNothingAndInheritsOnlyItsStandardHandles) {
    int const leaked = ::dup(2);  // no close-on-exec
    ASSERT_GE(leaked, 0);
    Process reader(helper("stdin").c_str(), nullptr);
    ASSERT_GT(reader.run(true, nullptr), 0);
    EXPECT_EQ("0\n", fileText(narrow(reader.getLogFile())));
    Process lister(helper("fds").c_str(), nullptr);
    ASSERT_GT(lister.run(true, nullptr), 0);
    EXPECT_EQ("0\n1\n2\n", fileText(narrow(lister.getLogFile())));
    ::close(leaked);
}

TEST_F(ProcessTest, ChildClosingItsOutputEarly) {
    Process process(helper("closeout").c_str(), nullptr);
    ASSERT_GT(process.run(true, nullptr), 0);
    EXPECT_EQ(0, process.getExitCode());
    EXPECT_EQ("", fileText(narrow(process.getLogFile())));
}

TEST_F(ProcessTest, ChildWritingAHundredMebibytes) {
    long long const size = 100LL * 1024 * 1024;
    Process process(helper("flood " + std::to_string(size)).c_str(), nullptr);
    ASSERT_GT(process.run(true, nullptr), 0);
    EXPECT_EQ(0, process.getExitCode());
    struct stat info;
    ASSERT_EQ(0, ::stat(narrow(process.getLogFile()).c_str(), &info));
    EXPECT_EQ(size, info.st_size);
}

TEST_F(ProcessTest, TemporaryDirectoryMissing) {
    std::string const missing = tmp() + "/missing";
    ::setenv("TMPDIR", missing.c_str(), 1);
    Process process(helper("print x").c_str(), nullptr);
    errno = 0;
    EXPECT_EQ(-1, process.run(true, nullptr));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, process.getPid());
}

TEST_F(ProcessTest, TemporaryDirectoryReadOnly) {
    std::string const directory = tmp() + "/readonly";
    ASSERT_EQ(0, ::mkdir(directory.c_str(), 0555));
    ASSERT_EQ(0, ::chmod(tmp().c_str(), 0755));
    ::setenv("TMPDIR", directory.c_str(), 1);
    TarnwickTest::asUnprivilegedUser([&] {
        Process process(helper("print x").c_str(), nullptr);
        errno = 0;
        EXPECT_EQ(-1, process.run(true, nullptr));
        EXPECT_EQ(EACCES, errno);
        EXPECT_EQ(-1, process.getPid());
    });
    ASSERT_EQ(0, ::rmdir(directory.c_str()));
}

TEST_F(ProcessTest, KillProcessGroupIsNotAvailable) {
    LogLines log;
    for (long const pid : {0L, 1L, 4711L, -4711L}) {
        errno = 0;
        EXPECT_EQ(-1, Process::killProcessGroup(pid));
        EXPECT_EQ(ENOSYS, errno);
    }
    EXPECT_EQ((TarnwickTest::Lines{"%D DEBUG (%t): Terminating 0", "%D DEBUG (%t): Terminating 1",
                                   "%D DEBUG (%t): Terminating 4711",
                                   "%D DEBUG (%t): Terminating -4711"}),
              log.lines());
}

TEST_F(ProcessTest, KillProcessGroupSignalsNothing) {
    Process process(helper("wait").c_str(), nullptr);
    ASSERT_EQ(0, process.run(false, nullptr));
    pid_t const pid = static_cast<pid_t>(process.getPid());
    EXPECT_EQ("ready\n", awaitText(narrow(process.getLogFile()), "ready\n", 5000));
    EXPECT_EQ(-1, Process::killProcessGroup(pid));
    EXPECT_TRUE(isAlive(pid));
    ASSERT_EQ(0, ::kill(pid, SIGKILL));
    EXPECT_EQ(pid, process.wait(nullptr));
}

}  // namespace
