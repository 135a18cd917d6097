// Tests of Application, Task, TaskSlot and Service: construction, the command
// line and the log set-up of run, exit statuses, signals, the task walks,
// register_task and findTask.
//
// What changes process-wide state (the configuration store, the log mask,
// signal handlers) runs in a forked child (runInChild). What ends the process
// (--help, --version, a crash) or takes a signal runs the program twtestapp
// (tests/programs) and looks at its exit status and whole output.
#include <tarnwick/application.h>
#include <tarnwick/configuration.h>
#include <tarnwick/tarnwick.h>

#include <child.h>
#include <gtest/gtest.h>
#include <log_capture.h>

#include <ace/Log_Msg.h>
#include <ace/Sig_Handler.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

using Tarnwick::Application;
using Tarnwick::Task;
using Tarnwick::TaskSlot;
using TarnwickTest::ChildResult;
using TarnwickTest::LogCapture;
using TarnwickTest::runInChild;

namespace {

// ---------------------------------------------------------------------------
// Helpers

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

// A fresh directory, removed with its content at the end of the test.
class TempDir {
public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "twapp.XXXXXX").string();
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        const char* made = ::mkdtemp(buffer.data());
        path_ = made != nullptr ? made : "";
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string at(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Makes the registry of TempDir `dir`: entries for `product` and for
// "Agent", the product of the library's own settings, whose configuration
// file is <dir>/<product>.cfg with `content`. Returns the registry's root,
// for TARNWICK_REGISTRY.
std::string makeRegistry(const TempDir& dir, const std::string& product,
                         const std::string& content) {
    std::string const root = dir.at("registry");
    std::filesystem::create_directories(root);
    std::string const config = dir.at(product + ".cfg");
    writeFile(config, content);
    for (const std::string& name : {product, std::string("Agent")})
        writeFile(root + "/" + name + ".reg",
                  "configfilepath=" + config + "\npath=" + dir.path() + "\n");
    return root;
}

// An application whose hooks a test sets, with the protected walks opened up.
class TestApp : public Application {
public:
    explicit TestApp(const wchar_t* name = L"testapp") : name_(name) {}

    const wchar_t* name() override { return name_; }
    const wchar_t* description() override { return L"Test application"; }
    const wchar_t* long_description() override { return L"An application of the tests."; }
    int main() override { return mainBody ? mainBody() : 0; }
    // Notes the thread on which each signal is handled.
    int handle_signal(int signum, siginfo_t* info = nullptr,
                      ucontext_t* context = nullptr) override {
        signalThread = static_cast<long>(::syscall(SYS_gettid));
        return Application::handle_signal(signum, info, context);
    }
    int validate() override { return validateBody ? validateBody() : Application::validate(); }
    int open() override { return openBody ? openBody() : Application::open(); }

    using Application::close_all_tasks;
    using Application::findTask;
    using Application::notify_reload_ready_all_tasks;
    using Application::open_all_tasks;
    using Application::reload_all_tasks;
    using Application::start_all_tasks;
    using Application::suspend_all_tasks;

    std::function<int()> mainBody;
    std::function<int()> validateBody;
    std::function<int()> openBody;
    std::atomic<long> signalThread{0};

private:
    const wchar_t* name_;
};

// Runs `app` with a narrow command line.
int runWith(Application& app, const std::vector<std::string>& args) {
    std::vector<std::string> copies(args);
    std::vector<char*> argv;
    for (std::string& arg : copies)
        argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    return app.run(static_cast<int>(args.size()), argv.data());
}

// A task that writes each call into a journal ("alpha.open") and fails the
// calls named in `failing`.
class RecordingTask : public Task {
public:
    RecordingTask(const wchar_t* name, std::vector<std::string>* journal,
                  const std::string& failing = std::string(), int* destroyed = nullptr)
        : name_(name), journal_(journal), failing_(failing), destroyed_(destroyed) {}
    ~RecordingTask() override {
        if (destroyed_ != nullptr)
            ++*destroyed_;
    }

    const wchar_t* name() override { return name_.c_str(); }
    int open() override { return step("open"); }
    int close() override { return step("close"); }
    int reload() override { return step("reload"); }
    int run() override { return step("run"); }
    int reload_ready() override { return step("reload_ready"); }
    int suspend() override { return step("suspend"); }

private:
    int step(const std::string& what) {
        if (journal_ != nullptr)
            journal_->push_back(std::string(name_.begin(), name_.end()) + "." + what);
        return failing_.find(what) != std::string::npos ? -1 : 0;
    }

    std::wstring name_;
    std::vector<std::string>* journal_;
    std::string failing_;
    int* destroyed_;
};

// A task that only counts its destruction.
class CountedTask : public Task {
public:
    CountedTask(const std::wstring& name, int* destroyed) : name_(name), destroyed_(destroyed) {}
    ~CountedTask() override { ++*destroyed_; }
    const wchar_t* name() override { return name_.c_str(); }

private:
    std::wstring name_;
    int* destroyed_;
};

std::string normalised(const ChildResult& result) {
    return LogCapture::normalise(result.errors);
}

// Points TARNWICK_REGISTRY at an empty directory, so that no product of the
// machine is read. For children.
void emptyRegistry(const TempDir& dir) {
    std::string const root = dir.at("empty-registry");
    std::filesystem::create_directories(root);
    ::setenv("TARNWICK_REGISTRY", root.c_str(), 1);
}

// ---------------------------------------------------------------------------
// The program twtestapp as a child process

#ifndef TWTESTAPP_PATH
#error "TWTESTAPP_PATH names the test program"
#endif

struct ProgramResult {
    int status = -1;
    std::string out;
    std::string err;  // normalised

    bool exited() const { return status != -1 && WIFEXITED(status); }
    int exitCode() const { return exited() ? WEXITSTATUS(status) : -1; }
    int signal() const { return status != -1 && WIFSIGNALED(status) ? WTERMSIG(status) : 0; }
};

// Runs twtestapp (argv[0] "twtestapp") with `args`, TARNWICK_REGISTRY set to
// `registry`, standard input from /dev/null and both outputs read through
// pipes. Every wait gives up after 15 seconds.
class Program {
public:
    Program(const std::vector<std::string>& args, const std::string& registry) {
        int out[2];
        int err[2];
        if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0)
            return;
        std::vector<std::string> words{"twtestapp"};
        words.insert(words.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (std::string& word : words)
            argv.push_back(&word[0]);
        argv.push_back(nullptr);
        std::vector<std::string> env;
        for (char** e = environ; *e != nullptr; ++e) {
            if (std::strncmp(*e, "TARNWICK_REGISTRY=", 18) != 0)
                env.push_back(*e);
        }
        env.push_back("TARNWICK_REGISTRY=" + registry);
        std::vector<char*> envp;
        for (std::string& entry : env)
            envp.push_back(&entry[0]);
        envp.push_back(nullptr);

        pid_ = ::fork();
        if (pid_ == 0) {
            int const in = ::open("/dev/null", O_RDONLY);
            ::dup2(in, STDIN_FILENO);
            ::dup2(out[1], STDOUT_FILENO);
            ::dup2(err[1], STDERR_FILENO);
            ::execve(TWTESTAPP_PATH, argv.data(), envp.data());
            ::_exit(127);
        }
        ::close(out[1]);
        ::close(err[1]);
        out_ = out[0];
        err_ = err[0];
    }
    ~Program() {
        if (pid_ > 0 && !reaped_) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        if (out_ >= 0)
            ::close(out_);
        if (err_ >= 0)
            ::close(err_);
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    // Reads until standard output holds `cue` as a line; false on timeout or
    // end of output.
    bool waitFor(const std::string& cue) {
        auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
        while (out.find(cue + "\n") == std::string::npos) {
            if (!readSome(deadline))
                return false;
        }
        return true;
    }

    // Waits until the log (standard error) holds `text`.
    bool waitForLog(const std::string& text) {
        auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
        while (err.find(text) == std::string::npos) {
            if (!readSome(deadline))
                return false;
        }
        return true;
    }

    void send(int signum) { ::kill(pid_, signum); }

    // Reads both outputs to their end and waits for the program's exit.
    ProgramResult finish() {
        auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
        while (readSome(deadline)) {
        }
        ProgramResult result;
        if (out_ >= 0 || err_ >= 0) {
            ADD_FAILURE() << "twtestapp did not end in time; output so far:\n" << out << err;
            ::kill(pid_, SIGKILL);
        }
        while (::waitpid(pid_, &result.status, 0) < 0 && errno == EINTR) {
        }
        reaped_ = true;
        result.out = out;
        result.err = LogCapture::normalise(err);
        return result;
    }

    pid_t pid() const { return pid_; }

    std::string out;
    std::string err;

private:
    // One round of reading; false when both outputs ended or time is up.
    bool readSome(std::chrono::steady_clock::time_point deadline) {
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

    pid_t pid_ = -1;
    int out_ = -1;
    int err_ = -1;
    bool reaped_ = false;
};

// Runs the program to its end without signals.
ProgramResult runProgram(const std::vector<std::string>& args, const std::string& registry) {
    Program program(args, registry);
    return program.finish();
}

// Each test has the registry entry of twtestapp, with a configuration file
// that gives the required path settings.
class ProgramTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(dir_.path().empty());
        configure("", "");
    }

    // Writes the configuration file: the required [paths] settings, then
    // `paths` in that section and `test` in the section [test].
    void configure(const std::string& paths, const std::string& test) {
        std::string const d = dir_.path();
        registry_ = makeRegistry(dir_, "twtestapp",
                                 "[paths]\nvar=" + d + "\npid=" + d + "\nrtdir=" + d +
                                     "\ntemp=" + d + "\n" + paths + "[test]\n" + test);
    }

    TempDir dir_;
    std::string registry_;
};

const char* const kUsage =
    "This is twtestapp, Tarnwick test program, version 6.6.3.0\n"
    "Usage: twtestapp [options]\n"
    "\n"
    " -V,  --version               Returns the version of this application.\n"
    " -c,  --configfile=PATH       Override CD Registry configuration file with PATH.\n"
    " -d,  --debug                 Enables debugging output.\n"
    " -h,  --help                  Display this help and exit.\n"
    " -q,  --quiet                 Be less verbose.\n"
    " -m,  --mode=MODE             What main does: plain, tasks, stay or busy.\n"
    "      --logfile=PATH          Log output to the file PATH.\n"
    "\n[paths]\n"
    "      --log=PATH              Log output to PATH\n"
    "      --var=DIR               Application var directory.\n"
    "      --pid=DIR               Application pid file directory.\n"
    "      --rtdir=DIR             Directory containing routing tables.\n"
    "      --temp=DIR              Location for temp files.\n"
    "\n[test]\n"
    "      --greeting=TEXT         Text that is logged in plain mode.\n"
    "      --nobeta=ARG            0 switches the task beta off.\n"
    "\n[webservices]\n"
    "      --timeout=INT           timeout webservice calls after INT seconds\n"
    "      --connect_timeout=INT   timeout webservice call connects after INT seconds.\n"
    "      --start_wait_interval=INTminimum wait time after 503 response\n"
    "      --end_wait_interval=INT maximum wait time after 503 response\n";

// The lines of twtestapp --debug --mode=tasks up to "ready".
const char* const kTasksStarted =
    "%D DEBUG (%t): Agent has key debug\n"
    "%D DEBUG (%t): Initializing task: alpha\n"
    "%D INFO  (%t): alpha: open\n"
    "%D DEBUG (%t): Initializing task: beta\n"
    "%D INFO  (%t): beta: open\n"
    "%D DEBUG (%t): Initializing task: gamma\n"
    "%D INFO  (%t): gamma: open\n"
    "%D DEBUG (%t): Starting task: alpha\n"
    "%D INFO  (%t): alpha: run\n"
    "%D DEBUG (%t): Starting task: beta\n"
    "%D INFO  (%t): beta: run\n"
    "%D DEBUG (%t): Starting task: gamma\n"
    "%D INFO  (%t): gamma: run\n";

const char* const kTasksClosed =
    "%D DEBUG (%t): Closing task: gamma\n"
    "%D INFO  (%t): gamma: close\n"
    "%D DEBUG (%t): Closing task: beta\n"
    "%D INFO  (%t): beta: close\n"
    "%D DEBUG (%t): Closing task: alpha\n"
    "%D INFO  (%t): alpha: close\n";

// ---------------------------------------------------------------------------
// --help and --version end the process with status 0

TEST_F(ProgramTest, HelpPrintsTheUsageAndExitsWithZero) {
    ProgramResult const result = runProgram({"--help"}, registry_);
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ(kUsage, result.err);
    EXPECT_EQ("", result.out);
}

TEST_F(ProgramTest, VersionPrintsTheVersionLineAndExitsWithZero) {
    ProgramResult const result = runProgram({"-V"}, registry_);
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("This is twtestapp, Tarnwick test program, version 6.6.3.0\n", result.err);
    EXPECT_EQ("", result.out);
}

TEST_F(ProgramTest, PlainRunReadsItsSettingFromItsFile) {
    configure("", "greeting=hello from the file\n");
    ProgramResult const result = runProgram({}, registry_);
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("%D INFO  (%t): greeting: hello from the file\n", result.err);
    EXPECT_EQ("logfile: none\n", result.out);
}

TEST_F(ProgramTest, BadOptionEndsWithStatusOne) {
    ProgramResult const result = runProgram({"--no-such-option"}, registry_);
    EXPECT_EQ(1, result.exitCode());
    EXPECT_NE(std::string::npos, result.err.find("Error while parsing command line")) << result.err;
    EXPECT_EQ("", result.out);
}

// ---------------------------------------------------------------------------
// The log file

TEST_F(ProgramTest, LogDirectoryGivesLogFileNamedAfterTheApplication) {
    std::string const logs = dir_.at("logs");
    std::filesystem::create_directories(logs);
    std::string const file = logs + "/twtestapp.log";
    writeFile(file, "an earlier line\n");
    configure("log=" + logs + "\n", "greeting=to the file\n");

    ProgramResult const result = runProgram({"--debug"}, registry_);
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("logfile: " + file + "\n", result.out);
    // Standard error keeps every line; the file, opened for append, takes
    // those after it was handed to the log.
    EXPECT_EQ(
        "%D DEBUG (%t): Agent has key debug\n"
        "%D DEBUG (%t): Logging output to " +
            file +
            "\n"
            "%D INFO  (%t): greeting: to the file\n",
        result.err);
    EXPECT_EQ("an earlier line\n%D INFO  (%t): greeting: to the file\n",
              LogCapture::normalise(readFile(file)));
}

TEST_F(ProgramTest, LogfileSettingWinsOverLogDirectory) {
    std::string const logs = dir_.at("logs");
    std::filesystem::create_directories(logs);
    configure("log=" + logs + "\n", "greeting=chosen\n");
    std::string const file = dir_.at("chosen.log");

    ProgramResult const result = runProgram({"--logfile=" + file}, registry_);
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("logfile: " + file + "\n", result.out);
    EXPECT_EQ("%D INFO  (%t): greeting: chosen\n", result.err);
    EXPECT_EQ("%D INFO  (%t): greeting: chosen\n", LogCapture::normalise(readFile(file)));
    EXPECT_FALSE(std::filesystem::exists(logs + "/twtestapp.log"));
}

TEST_F(ProgramTest, EmptyLogfileMeansNoLogFileAndNoError) {
    ProgramResult const result = runProgram({"--logfile="}, registry_);
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("logfile: \n", result.out);
    EXPECT_EQ("", result.err);
}

TEST_F(ProgramTest, LogValueThatIsNoDirectoryMeansNoLogFileAndNoMessage) {
    writeFile(dir_.at("plain-file"), "");
    configure("log=" + dir_.at("plain-file") + "\n", "greeting=still here\n");
    ProgramResult const result = runProgram({"--debug"}, registry_);
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("logfile: none\n", result.out);
    EXPECT_EQ(
        "%D DEBUG (%t): Agent has key debug\n"
        "%D INFO  (%t): greeting: still here\n",
        result.err);
}

// The log file can hold debug dumps: a new one is made for its owner and
// group alone, and an existing one keeps its mode.
TEST_F(ProgramTest, NewLogFileIsReadableByOwnerAndGroupOnly) {
    std::string const file = dir_.at("new.log");
    mode_t const mask = ::umask(022);
    ProgramResult const result = runProgram({"--logfile=" + file}, registry_);
    ::umask(mask);
    EXPECT_EQ(0, result.exitCode());
    struct stat info;
    ASSERT_EQ(0, ::stat(file.c_str(), &info));
    EXPECT_EQ(0640u, info.st_mode & 07777);
}

TEST_F(ProgramTest, ExistingLogFileKeepsItsMode) {
    std::string const file = dir_.at("old.log");
    writeFile(file, "an earlier line\n");
    ASSERT_EQ(0, ::chmod(file.c_str(), 0604));
    configure("", "greeting=kept\n");
    ProgramResult const result = runProgram({"--logfile=" + file}, registry_);
    EXPECT_EQ(0, result.exitCode());
    struct stat info;
    ASSERT_EQ(0, ::stat(file.c_str(), &info));
    EXPECT_EQ(0604u, info.st_mode & 07777);
    EXPECT_EQ("an earlier line\n%D INFO  (%t): greeting: kept\n",
              LogCapture::normalise(readFile(file)));
}

TEST_F(ProgramTest, LogFileThatCanNotBeOpenedEndsWithStatusOne) {
    std::string const file = dir_.at("missing/twtestapp.log");
    ProgramResult const result = runProgram({"--logfile=" + file, "--mode=tasks"}, registry_);
    EXPECT_EQ(1, result.exitCode());
    EXPECT_EQ("%D ERROR (%t): Can not open logfile for writing: No such file or directory\n",
              result.err);
    EXPECT_EQ("", result.out);
}

// Binds a datagram socket at /dev/log for the time of a test, where the
// machine has no system logger and the test may create it.
class SystemLogSink {
public:
    SystemLogSink() {
        if (::access("/dev/log", F_OK) == 0 || errno != ENOENT)
            return;
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd_ < 0)
            return;
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, "/dev/log");
        if (::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            ::close(fd_);
            fd_ = -1;
            return;
        }
        bound_ = true;
    }
    ~SystemLogSink() {
        if (bound_)
            ::unlink("/dev/log");
        if (fd_ >= 0)
            ::close(fd_);
    }
    SystemLogSink(const SystemLogSink&) = delete;
    SystemLogSink& operator=(const SystemLogSink&) = delete;

    bool ready() const { return bound_; }

    // The next message, or empty after `milliseconds`.
    std::string receive(int milliseconds) {
        pollfd fd = {fd_, POLLIN, 0};
        if (::poll(&fd, 1, milliseconds) != 1)
            return std::string();
        char buffer[2048];
        ssize_t const n = ::recv(fd_, buffer, sizeof buffer, 0);
        return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
    }

private:
    int fd_ = -1;
    bool bound_ = false;
};

TEST_F(ProgramTest, LogFileThatCanNotBeOpenedIsReportedToTheSystemLog) {
    SystemLogSink sink;
    if (!sink.ready())
        GTEST_SKIP() << "a system logger owns /dev/log, or it can't be created here";
    Program program({"--logfile=" + dir_.at("missing/twtestapp.log")}, registry_);
    ProgramResult const result = program.finish();
    EXPECT_EQ(1, result.exitCode());
    // Other test programs running at the same time may log too: take this
    // program's message.
    std::string const marker = "twagent[" + std::to_string(program.pid()) + "]";
    std::string message;
    for (int i = 0; i < 50 && message.find(marker) == std::string::npos; ++i)
        message = sink.receive(5000);
    // "<11>" is LOG_USER | LOG_ERR; the time stamp follows.
    EXPECT_EQ(0u, message.find("<11>")) << message;
    std::string const tail = "twagent[" + std::to_string(program.pid()) +
                             "]: Can not open Tarnwick Agent logfile for writing: No such file "
                             "or directory\n";
    ASSERT_GE(message.size(), tail.size()) << message;
    EXPECT_EQ(tail, message.substr(message.size() - tail.size())) << message;
}

// ---------------------------------------------------------------------------
// Signals

TEST_F(ProgramTest, TerminateClosesTheTasksInReverseOrder) {
    Program program({"--debug", "--mode=tasks"}, registry_);
    ASSERT_TRUE(program.waitFor("ready")) << program.err;
    program.send(SIGTERM);
    ProgramResult const result = program.finish();
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("ready\nstopped\n", result.out);
    EXPECT_EQ(
        std::string(kTasksStarted) + "%D DEBUG (%t): Caught signal 'Terminated'\n" + kTasksClosed,
        result.err);
}

TEST_F(ProgramTest, InterruptClosesTheTasksInReverseOrder) {
    Program program({"--debug", "--mode=tasks"}, registry_);
    ASSERT_TRUE(program.waitFor("ready")) << program.err;
    program.send(SIGINT);
    ProgramResult const result = program.finish();
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("ready\nstopped\n", result.out);
    EXPECT_EQ(
        std::string(kTasksStarted) + "%D DEBUG (%t): Caught signal 'Interrupt'\n" + kTasksClosed,
        result.err);
}

TEST_F(ProgramTest, TerminateWithoutDebugShowsOnlyTheTasksOwnLines) {
    Program program({"--mode=tasks"}, registry_);
    ASSERT_TRUE(program.waitFor("ready")) << program.err;
    program.send(SIGTERM);
    ProgramResult const result = program.finish();
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ(
        "%D INFO  (%t): alpha: open\n"
        "%D INFO  (%t): beta: open\n"
        "%D INFO  (%t): gamma: open\n"
        "%D INFO  (%t): alpha: run\n"
        "%D INFO  (%t): beta: run\n"
        "%D INFO  (%t): gamma: run\n"
        "%D INFO  (%t): gamma: close\n"
        "%D INFO  (%t): beta: close\n"
        "%D INFO  (%t): alpha: close\n",
        result.err);
}

TEST_F(ProgramTest, DisabledTaskIsPassedOverByEveryWalk) {
    Program program({"--debug", "--mode=tasks", "--nobeta=0"}, registry_);
    ASSERT_TRUE(program.waitFor("ready")) << program.err;
    program.send(SIGHUP);
    ASSERT_TRUE(program.waitFor("reloaded")) << program.err;
    program.send(SIGTERM);
    ProgramResult const result = program.finish();
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ(
        "%D DEBUG (%t): Agent has key debug\n"
        "%D DEBUG (%t): Initializing task: alpha\n"
        "%D INFO  (%t): alpha: open\n"
        "%D DEBUG (%t): Initializing task: gamma\n"
        "%D INFO  (%t): gamma: open\n"
        "%D DEBUG (%t): Starting task: alpha\n"
        "%D INFO  (%t): alpha: run\n"
        "%D DEBUG (%t): Starting task: gamma\n"
        "%D INFO  (%t): gamma: run\n"
        "%D DEBUG (%t): Caught signal 'Hangup'\n"
        "%D DEBUG (%t): Reloading task: alpha\n"
        "%D INFO  (%t): alpha: reload\n"
        "%D DEBUG (%t): Reloading task: gamma\n"
        "%D INFO  (%t): gamma: reload\n"
        "%D INFO  (%t): alpha: reload_ready\n"
        "%D INFO  (%t): gamma: reload_ready\n"
        "%D DEBUG (%t): Caught signal 'Terminated'\n"
        "%D DEBUG (%t): Closing task: gamma\n"
        "%D INFO  (%t): gamma: close\n"
        "%D DEBUG (%t): Closing task: alpha\n"
        "%D INFO  (%t): alpha: close\n",
        result.err);
}

TEST_F(ProgramTest, HangupRequestsAReload) {
    Program program({"--debug", "--mode=tasks"}, registry_);
    ASSERT_TRUE(program.waitFor("ready")) << program.err;
    program.send(SIGHUP);
    ASSERT_TRUE(program.waitFor("reloaded")) << program.err;
    program.send(SIGTERM);
    ProgramResult const result = program.finish();
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("ready\nreloaded\nstopped\n", result.out);
    EXPECT_EQ(std::string(kTasksStarted) +
                  "%D DEBUG (%t): Caught signal 'Hangup'\n"
                  "%D DEBUG (%t): Reloading task: alpha\n"
                  "%D INFO  (%t): alpha: reload\n"
                  "%D DEBUG (%t): Reloading task: beta\n"
                  "%D INFO  (%t): beta: reload\n"
                  "%D DEBUG (%t): Reloading task: gamma\n"
                  "%D INFO  (%t): gamma: reload\n"
                  "%D INFO  (%t): alpha: reload_ready\n"
                  "%D INFO  (%t): beta: reload_ready\n"
                  "%D INFO  (%t): gamma: reload_ready\n"
                  "%D DEBUG (%t): Caught signal 'Terminated'\n" +
                  kTasksClosed,
              result.err);
}

TEST_F(ProgramTest, SegmentationFaultIsLoggedAndAborts) {
    Program program({"--debug", "--mode=tasks"}, registry_);
    ASSERT_TRUE(program.waitFor("ready")) << program.err;
    program.send(SIGSEGV);
    ProgramResult const result = program.finish();
    EXPECT_FALSE(result.exited());
    EXPECT_EQ(SIGABRT, result.signal());
    EXPECT_EQ("ready\n", result.out);
    EXPECT_EQ(std::string(kTasksStarted) +
                  "%D DEBUG (%t): Caught signal 'Segmentation fault'\n"
                  "%D ERROR (%t): Application has crashed..  caught signal 11\n",
              result.err);
}

TEST_F(ProgramTest, SecondTerminateFindsNoHandler) {
    Program program({"--debug", "--mode=stay"}, registry_);
    ASSERT_TRUE(program.waitFor("ready")) << program.err;
    program.send(SIGTERM);
    ASSERT_TRUE(program.waitFor("stopped")) << program.err;
    // The program sees itself stopped before its tasks are closed: the
    // second signal waits for the last of them.
    ASSERT_TRUE(program.waitForLog("alpha: close\n")) << program.err;
    program.send(SIGTERM);
    ProgramResult const result = program.finish();
    EXPECT_FALSE(result.exited());
    EXPECT_EQ(SIGTERM, result.signal());
    EXPECT_EQ("ready\nstopped\n", result.out);
    // One "Caught signal": the second signal took the default action.
    EXPECT_EQ(
        std::string(kTasksStarted) + "%D DEBUG (%t): Caught signal 'Terminated'\n" + kTasksClosed,
        result.err);
}

// A thousand SIGHUP and SIGTERM while two threads allocate memory and log
// without pause: the handlers take no lock, so nothing deadlocks. The first
// SIGTERM closes the tasks after its log line; a SIGTERM after it ends the
// process by the default action.
TEST_F(ProgramTest, SignalStormWhileAllocatingAndLoggingEndsWithoutDeadlock) {
    Program program({"--debug", "--mode=busy"}, registry_);
    ASSERT_TRUE(program.waitFor("ready")) << program.err;
    for (int i = 0; i < 1000; ++i) {
        program.send(i < 990 ? SIGHUP : SIGTERM);
        if (i % 50 == 0) {
            timespec const pause = {0, 1000000};
            ::nanosleep(&pause, nullptr);
        }
    }
    ProgramResult const result = program.finish();
    // Ended by the first SIGTERM (status 0, "stopped") or by a later one.
    if (result.exited()) {
        EXPECT_EQ(0, result.exitCode());
        EXPECT_EQ("ready\nstopped\n", result.out);
    } else {
        EXPECT_EQ(SIGTERM, result.signal()) << result.err.substr(0, 2000);
    }
    // The lines of the signals, without those of the busy threads.
    std::istringstream lines(result.err);
    std::string line;
    std::string signals;
    int hangups = 0;
    while (std::getline(lines, line)) {
        if (line.find(": busy ") != std::string::npos)
            continue;
        if (line == "%D DEBUG (%t): Caught signal 'Hangup'") {
            ++hangups;
            continue;
        }
        if (line.find("Reload") != std::string::npos || line.find("reload") != std::string::npos)
            continue;
        signals += line + "\n";
    }
    EXPECT_GE(hangups, 1);
    std::string const closing =
        std::string("%D DEBUG (%t): Caught signal 'Terminated'\n") + kTasksClosed;
    if (result.exited()) {
        EXPECT_EQ(std::string(kTasksStarted) + closing, signals);
    } else {
        // Killed by a later SIGTERM, the closing may have been cut short.
        EXPECT_EQ(0u, signals.find(kTasksStarted)) << signals;
    }
}

// ---------------------------------------------------------------------------
// run: exit statuses, in a child each

class RunTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(dir_.path().empty()); }

    // Runs `body` in a child whose registry is empty. Unless `defaults`, the
    // library's path and web service settings are not declared (the paths
    // would be required).
    ChildResult inChild(const std::function<int()>& body, bool defaults = false) {
        return runInChild([&]() {
            emptyRegistry(dir_);
            if (!defaults) {
                Tarnwick::getConfigSingleton()->disableDefaults();
                Tarnwick::getConfigSingleton()->disableWebservices();
            }
            return body();
        });
    }

    TempDir dir_;
};

TEST_F(RunTest, MainResultIsTheExitStatus) {
    for (int const status : {0, 3, 42}) {
        ChildResult const result = inChild([status]() {
            TestApp app;
            app.mainBody = [status]() { return status; };
            return runWith(app, {"testapp"});
        });
        EXPECT_EQ(status, result.exitCode());
        EXPECT_EQ("", result.errors);
    }
}

TEST_F(RunTest, MainFailureGivesStatusOne) {
    ChildResult const result = inChild([]() {
        TestApp app;
        app.mainBody = []() { return -1; };
        return runWith(app, {"testapp"});
    });
    EXPECT_EQ(1, result.exitCode());
}

TEST_F(RunTest, MissingRequiredSettingFailsOpenWithStatusOne) {
    ChildResult const result = inChild([]() {
        TestApp app;
        Tarnwick::Setting::Create(L"needed", 0, L"test", L"A required setting.",
                                  Tarnwick::SETTING_REQUIRED | Tarnwick::SETTING_ARGUMENT);
        bool ran = false;
        app.mainBody = [&ran]() {
            ran = true;
            return 0;
        };
        int const status = runWith(app, {"testapp"});
        return ran ? 99 : status;
    });
    EXPECT_EQ(1, result.exitCode());
    EXPECT_EQ("%D ERROR (%t): A required option is missing: test - needed\n", normalised(result));
}

TEST_F(RunTest, OpenHookFailureGivesStatusOne) {
    ChildResult const result = inChild([]() {
        TestApp app;
        app.openBody = []() { return -1; };
        app.mainBody = []() { return 99; };
        return runWith(app, {"testapp"});
    });
    EXPECT_EQ(1, result.exitCode());
}

TEST_F(RunTest, ValidateFailureWithoutErrorGivesStatusZero) {
    ChildResult const result = inChild([]() {
        TestApp app;
        app.validateBody = []() {
            errno = 0;
            return -1;
        };
        app.mainBody = []() { return 99; };
        return runWith(app, {"testapp"});
    });
    EXPECT_EQ(0, result.exitCode());
}

TEST_F(RunTest, ValidateFailureWithErrorGivesStatusOne) {
    ChildResult const result = inChild([]() {
        TestApp app;
        app.validateBody = []() {
            errno = EACCES;
            return -1;
        };
        app.mainBody = []() { return 99; };
        return runWith(app, {"testapp"});
    });
    EXPECT_EQ(1, result.exitCode());
}

TEST_F(RunTest, ValidateIsNotBlamedForAnEarlierError) {
    ChildResult const result = inChild([]() {
        TestApp app;
        app.openBody = []() {
            errno = ENOENT;
            return 0;
        };
        app.validateBody = []() { return -1; };
        return runWith(app, {"testapp"});
    });
    EXPECT_EQ(0, result.exitCode());
}

TEST_F(RunTest, ArgcZeroLeavesTheBinaryNameNull) {
    ChildResult const result = inChild([]() {
        TestApp app;
        app.mainBody = [&app]() {
            if (app.binaryname() != nullptr)
                return 2;
            Tarnwick::getConfigSingleton()->showVersion();
            return 0;
        };
        wchar_t* argv[] = {nullptr};
        return app.run(0, argv);
    });
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("This is (null), Test application, version 6.6.3.0\n", result.errors);
}

TEST_F(RunTest, BinaryNameIsTheFirstArgument) {
    ChildResult const result = inChild([]() {
        TestApp app;
        app.mainBody = [&app]() {
            return app.binaryname() != nullptr &&
                           std::wcscmp(app.binaryname(), L"/opt/bin/testapp") == 0
                       ? 0
                       : 2;
        };
        return runWith(app, {"/opt/bin/testapp"});
    });
    EXPECT_EQ(0, result.exitCode());
}

TEST_F(RunTest, NarrowArgumentsAreConvertedFromUTF8) {
    ChildResult const result = inChild([]() {
        TestApp app;
        Tarnwick::Setting::Create(L"greeting", 0, nullptr, L"Text.", Tarnwick::SETTING_ARGUMENT);
        app.mainBody = [&app]() {
            const wchar_t* const greeting = Tarnwick::getConfigSingleton()->asString(L"greeting");
            if (greeting == nullptr || std::wcscmp(greeting, L"gr\u00fc\u00dfe \u20ac") != 0)
                return 2;
            return std::wcscmp(app.binaryname(), L"t\u00e9st") == 0 ? 0 : 3;
        };
        return runWith(app, {"t\xc3\xa9st",
                             "--greeting=gr\xc3\xbc\xc3\x9f"
                             "e \xe2\x82\xac"});
    });
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("", result.errors);
}

TEST_F(RunTest, ArgumentThatIsNoUTF8GivesStatusOne) {
    ChildResult const result = inChild([]() {
        TestApp app;
        app.mainBody = []() { return 99; };
        return runWith(app, {"testapp", "--debug", "bad\xff"});
    });
    EXPECT_EQ(1, result.exitCode());
    EXPECT_EQ(
        "%D ERROR (%t): Can not convert command line argument 2 to wide text: Invalid or "
        "incomplete multibyte or wide character\n",
        normalised(result));
}

TEST_F(RunTest, RunRegistersTheSignalHandlers) {
    ChildResult const result = inChild([]() {
        ACE_Sig_Handler handlers;
        int failures = 0;
        {
            TestApp app;
            app.mainBody = [&]() {
                for (int const signum : {SIGINT, SIGTERM, SIGSEGV, SIGHUP}) {
                    if (handlers.handler(signum) != &app)
                        ++failures;
                }
                return 0;
            };
            if (runWith(app, {"testapp"}) != 0)
                return 2;
        }
        // The destructor takes them away again.
        for (int const signum : {SIGINT, SIGTERM, SIGSEGV, SIGHUP}) {
            if (handlers.handler(signum) != nullptr)
                ++failures;
        }
        return failures;
    });
    EXPECT_EQ(0, result.exitCode());
}

// ---------------------------------------------------------------------------
// The log mask: "quiet" beats "debug"

// The process mask after run, as the child's exit status: 1 trace, 2 debug,
// 4 info, 8 warning.
ChildResult maskAfter(const TempDir& dir, const std::vector<std::string>& args) {
    return runInChild([&]() {
        emptyRegistry(dir);
        Tarnwick::getConfigSingleton()->disableDefaults();
        ACE_Log_Msg::instance()->priority_mask(
            LM_TRACE | LM_DEBUG | LM_INFO | LM_WARNING | LM_ERROR, ACE_Log_Msg::PROCESS);
        TestApp app;
        if (runWith(app, args) != 0)
            return 100;
        u_long const mask = ACE_Log_Msg::instance()->priority_mask(ACE_Log_Msg::PROCESS);
        return ((mask & LM_TRACE) != 0 ? 1 : 0) | ((mask & LM_DEBUG) != 0 ? 2 : 0) |
               ((mask & LM_INFO) != 0 ? 4 : 0) | ((mask & LM_WARNING) != 0 ? 8 : 0);
    });
}

TEST_F(RunTest, DefaultMaskShowsInformation) {
    ChildResult const result = maskAfter(dir_, {"testapp"});
    EXPECT_EQ(4 | 8, result.exitCode());
    EXPECT_EQ("", result.errors);
}

TEST_F(RunTest, DebugShowsEverythingAndSaysSo) {
    ChildResult const result = maskAfter(dir_, {"testapp", "--debug"});
    EXPECT_EQ(1 | 2 | 4 | 8, result.exitCode());
    EXPECT_EQ("%D DEBUG (%t): Agent has key debug\n", normalised(result));
}

TEST_F(RunTest, QuietHidesInformation) {
    ChildResult const result = maskAfter(dir_, {"testapp", "-q"});
    EXPECT_EQ(8, result.exitCode());
    EXPECT_EQ("", result.errors);
}

TEST_F(RunTest, QuietBeatsDebug) {
    ChildResult const result = maskAfter(dir_, {"testapp", "--debug", "--quiet"});
    EXPECT_EQ(8, result.exitCode());
    EXPECT_EQ("", result.errors);
}

// ---------------------------------------------------------------------------
// getLogFile

TEST_F(RunTest, GetLogFileChoosesLikeOpen) {
    std::string const logs = dir_.at("logs");
    std::filesystem::create_directories(logs);
    writeFile(dir_.at("plain-file"), "");
    ChildResult const result = inChild(
        [&]() {
            Tarnwick::Configuration* config = Tarnwick::getConfigSingleton();
            TestApp app(L"logger");
            Tarnwick::Setting::Create(L"logfile", 0, nullptr, L"The log file.",
                                      Tarnwick::SETTING_ARGUMENT);
            std::string out = "untouched";
            if (app.getLogFile(out) != -1 || out != "untouched")
                return 1;
            std::wstring const wideLogs(logs.begin(), logs.end());
            config->setKeyVal(L"log", wideLogs.c_str());
            if (app.getLogFile(out) != 0 || out != logs + "/logger.log")
                return 2;
            std::string const plainFile = dir_.at("plain-file");
            std::wstring const wideFile(plainFile.begin(), plainFile.end());
            config->setKeyVal(L"log", wideFile.c_str());
            out = "untouched";
            if (app.getLogFile(out) != -1 || out != "untouched")
                return 3;
            config->setKeyVal(L"logfile", L"/var/log/chosen.log");
            if (app.getLogFile(out) != 0 || out != "/var/log/chosen.log")
                return 4;
            config->setKeyVal(L"logfile", L"");
            if (app.getLogFile(out) != 0 || out != "")
                return 5;
            return 0;
        },
        true);
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("", result.errors);
}

TEST_F(RunTest, GetLogFileDoesNotNeedAName) {
    std::string const logs = dir_.at("logs");
    std::filesystem::create_directories(logs);
    ChildResult const result = inChild(
        [&]() {
            TestApp app(nullptr);
            std::wstring const wideLogs(logs.begin(), logs.end());
            Tarnwick::getConfigSingleton()->setKeyVal(L"log", wideLogs.c_str());
            std::string out;
            if (app.getLogFile(out) != 0)
                return 1;
            return out == logs + "/.log" ? 0 : 2;
        },
        true);
    EXPECT_EQ(0, result.exitCode());
}

// ---------------------------------------------------------------------------
// handle_signal, called directly

TEST_F(RunTest, HandleSignalHangupSetsTheReloadRequest) {
    ChildResult const result = inChild([]() {
        TestApp app;
        if (app.reload_pending())
            return 1;
        if (app.handle_signal(SIGHUP) != 0 || !app.reload_pending() || app.isStopped())
            return 2;
        app.reload_pending(false);
        return app.reload_pending() ? 3 : 0;
    });
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("%D DEBUG (%t): Caught signal 'Hangup'\n", normalised(result));
}

TEST_F(RunTest, HandleSignalIgnoresOtherSignals) {
    ChildResult const result = inChild([]() {
        TestApp app;
        std::vector<std::string> journal;
        app.register_task(new RecordingTask(L"alpha", &journal), 1);
        if (app.handle_signal(SIGUSR1) != 0)
            return 1;
        return app.isStopped() || app.reload_pending() || !journal.empty() ? 2 : 0;
    });
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("%D DEBUG (%t): Caught signal 'User defined signal 1'\n", normalised(result));
}

TEST_F(RunTest, HandleSignalTerminateClosesAndTakesTheHandlerAway) {
    ChildResult const result = inChild([]() {
        TestApp app;
        std::vector<std::string> journal;
        app.register_task(new RecordingTask(L"alpha", &journal), 1);
        app.register_task(new RecordingTask(L"beta", &journal), 1);
        ACE_Sig_Handler handlers;
        handlers.register_handler(SIGTERM, &app);
        if (app.handle_signal(SIGTERM) != 0)
            return 1;
        if (!app.isStopped() || handlers.handler(SIGTERM) != nullptr)
            return 2;
        return journal == std::vector<std::string>{"beta.close", "alpha.close"} ? 0 : 3;
    });
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ(
        "%D DEBUG (%t): Caught signal 'Terminated'\n"
        "%D DEBUG (%t): Closing task: beta\n"
        "%D DEBUG (%t): Closing task: alpha\n",
        normalised(result));
}

// A signal that arrives is handled on the library's signal thread, never on
// the thread that it interrupted.
TEST_F(RunTest, SignalsAreHandledOnTheSignalThread) {
    ChildResult const result = inChild([]() {
        TestApp app;
        app.mainBody = [&app]() {
            long const self = static_cast<long>(::syscall(SYS_gettid));
            ::kill(::getpid(), SIGHUP);
            for (int i = 0; i < 5000 && !app.reload_pending(); ++i) {
                timespec const pause = {0, 1000000};
                ::nanosleep(&pause, nullptr);
            }
            if (!app.reload_pending())
                return 2;
            long const handler = app.signalThread.load();
            return handler != 0 && handler != self ? 0 : 3;
        };
        return runWith(app, {"testapp", "--debug"});
    });
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ(
        "%D DEBUG (%t): Agent has key debug\n"
        "%D DEBUG (%t): Caught signal 'Hangup'\n",
        normalised(result));
}

// A SIGTERM during main() is handled, its tasks closed, before run()
// returns.
TEST_F(RunTest, RunReturnsAfterTheSignalsOfMainAreHandled) {
    ChildResult const result = inChild([]() {
        TestApp app;
        std::vector<std::string> journal;
        app.register_task(new RecordingTask(L"alpha", &journal), 1);
        app.mainBody = []() {
            ::kill(::getpid(), SIGTERM);
            return 0;
        };
        if (runWith(app, {"testapp"}) != 0)
            return 2;
        return journal == std::vector<std::string>{"alpha.close"} && app.isStopped() ? 0 : 3;
    });
    EXPECT_EQ(0, result.exitCode());
}

TEST_F(RunTest, CloseStopsAndForgetsTheBinaryName) {
    ChildResult const result = inChild([]() {
        TestApp app;
        app.mainBody = [&app]() {
            if (app.binaryname() == nullptr || app.isStopped())
                return 2;
            if (app.close() != 0)
                return 3;
            return app.binaryname() == nullptr && app.isStopped() ? 0 : 4;
        };
        return runWith(app, {"testapp"});
    });
    EXPECT_EQ(0, result.exitCode());
}

// ---------------------------------------------------------------------------
// Task, TaskSlot, Service and the plain operations

class NamedOnly : public Task {
public:
    explicit NamedOnly(const wchar_t* name, int* destroyed = nullptr)
        : name_(name), destroyed_(destroyed) {}
    ~NamedOnly() override {
        if (destroyed_ != nullptr)
            ++*destroyed_;
    }
    const wchar_t* name() override { return name_; }

private:
    const wchar_t* name_;
    int* destroyed_;
};

TEST(TaskTest, DefaultsReturnZero) {
    NamedOnly task(L"plain");
    EXPECT_EQ(0, task.open());
    EXPECT_EQ(0, task.run());
    EXPECT_EQ(0, task.reload());
    EXPECT_EQ(0, task.reload_ready());
    EXPECT_EQ(0, task.suspend());
    EXPECT_EQ(0, task.close());
}

TEST(TaskTest, DestroyDeletesTheTask) {
    int destroyed = 0;
    Task* task = new NamedOnly(L"plain", &destroyed);
    task->destroy();
    EXPECT_EQ(1, destroyed);
}

TEST(TaskTest, EnabledWithoutSetting) {
    NamedOnly task(L"undeclared");
    EXPECT_TRUE(task.enabled());
}

TEST_F(RunTest, EnabledFollowsTheNoSetting) {
    ChildResult const result = inChild([]() {
        Tarnwick::Setting::Create(L"nobeta", 0, L"tasks", L"Switches beta off.",
                                  Tarnwick::SETTING_ARGUMENT);
        Tarnwick::Configuration* config = Tarnwick::getConfigSingleton();
        NamedOnly beta(L"beta");
        if (!beta.enabled())
            return 1;  // declared, absent
        config->setKeyVal(L"nobeta", nullptr);
        if (!beta.enabled())
            return 2;  // present without value
        config->setKeyVal(L"nobeta", L"0");
        if (beta.enabled())
            return 3;
        config->setKeyVal(L"nobeta", L"1");
        if (!beta.enabled())
            return 4;
        NamedOnly other(L"gamma");
        return other.enabled() ? 0 : 5;
    });
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("", result.errors);
}

TEST(TaskSlotTest, StartsEmpty) {
    TaskSlot slot;
    EXPECT_EQ(nullptr, slot.task);
    EXPECT_EQ(0, slot.owned);
}

TEST(TaskSlotTest, CopyAndAssignmentCopyBothFields) {
    NamedOnly task(L"kept");
    TaskSlot slot;
    slot.task = &task;
    slot.owned = 0;
    TaskSlot copy(slot);
    EXPECT_EQ(&task, copy.task);
    EXPECT_EQ(0, copy.owned);
    TaskSlot assigned;
    assigned = slot;
    EXPECT_EQ(&task, assigned.task);
    EXPECT_EQ(0, assigned.owned);
}

TEST(TaskSlotTest, DestroysOnlyAnOwnedTask) {
    int destroyed = 0;
    NamedOnly kept(L"kept", &destroyed);
    {
        TaskSlot owning;
        owning.task = new NamedOnly(L"owned", &destroyed);
        owning.owned = 1;
        TaskSlot lending;
        lending.task = &kept;
        TaskSlot empty;
        empty.owned = 1;
    }
    EXPECT_EQ(1, destroyed);
}

class TestService : public Tarnwick::Service {
public:
    int run() override { return 0; }
    Application* application() const { return m_application; }
};

TEST(ServiceTest, OpenRemembersTheApplicationAndDescriptionsForward) {
    TestApp app;
    TestService service;
    EXPECT_EQ(nullptr, service.application());
    EXPECT_EQ(nullptr, service.description());
    EXPECT_EQ(0, service.open(&app));
    EXPECT_EQ(&app, service.application());
    EXPECT_STREQ(L"Test application", service.description());
    EXPECT_STREQ(L"An application of the tests.", service.long_description());
}

TEST(ApplicationTest, VersionAndInitialState) {
    TestApp app;
    EXPECT_STREQ(L"6.6.3.0", app.version());
    EXPECT_EQ(nullptr, app.binaryname());
    EXPECT_EQ(0, app.isStopped());
    EXPECT_FALSE(app.reload_pending());
    EXPECT_EQ(0, app.open());
    EXPECT_EQ(0, app.validate());
    app.stop();
    EXPECT_EQ(1, app.isStopped());
    app.stop();
    EXPECT_EQ(1, app.isStopped());
}

// ---------------------------------------------------------------------------
// register_task and findTask

TEST(RegisterTaskTest, EleventhTaskGrowsTheArrayWithAllTasksIntact) {
    int destroyed = 0;
    std::vector<std::wstring> names;
    for (int i = 0; i < 11; ++i)
        names.push_back(L"task" + std::to_wstring(i));
    {
        TestApp app;
        std::vector<Task*> tasks;
        for (int i = 0; i < 11; ++i) {
            tasks.push_back(new CountedTask(names[static_cast<size_t>(i)], &destroyed));
            ASSERT_EQ(0, app.register_task(tasks.back(), 1));
        }
        // Growing took the ownership over: no task has gone.
        EXPECT_EQ(0, destroyed);
        for (int i = 0; i < 11; ++i)
            EXPECT_EQ(tasks[static_cast<size_t>(i)],
                      app.findTask(names[static_cast<size_t>(i)].c_str()));
        LogCapture capture;
        EXPECT_EQ(0, app.open_all_tasks());
        std::string expected;
        for (int i = 0; i < 11; ++i)
            expected += "%D DEBUG (%t): Initializing task: task" + std::to_string(i) + "\n";
        EXPECT_EQ(expected, capture.text());
    }
    EXPECT_EQ(11, destroyed);
}

TEST(RegisterTaskTest, ManyGrowthsKeepOrderAndOwnership) {
    int destroyed = 0;
    std::vector<std::string> journal;
    std::vector<std::wstring> names;
    for (int i = 0; i < 45; ++i)
        names.push_back(L"t" + std::to_wstring(i));
    NamedOnly lent(L"lent");
    {
        TestApp app;
        for (int i = 0; i < 45; ++i) {
            ASSERT_EQ(0, app.register_task(new RecordingTask(names[static_cast<size_t>(i)].c_str(),
                                                             &journal, "", &destroyed),
                                           1));
        }
        ASSERT_EQ(0, app.register_task(&lent, 0));
        EXPECT_EQ(0, destroyed);
        LogCapture capture;
        EXPECT_EQ(0, app.start_all_tasks());
        ASSERT_EQ(45u, journal.size());
        for (int i = 0; i < 45; ++i)
            EXPECT_EQ("t" + std::to_string(i) + ".run", journal[static_cast<size_t>(i)]);
        EXPECT_EQ(&lent, app.findTask(L"lent"));
    }
    EXPECT_EQ(45, destroyed);
}

TEST(RegisterTaskTest, SecondTaskOfOneNameIsAcceptedAndFoundSecond) {
    std::vector<std::string> journal;
    TestApp app;
    RecordingTask first(L"twin", &journal);
    RecordingTask second(L"twin", &journal);
    EXPECT_EQ(0, app.register_task(&first, 0));
    EXPECT_EQ(0, app.register_task(&second, 0));
    EXPECT_EQ(&first, app.findTask(L"twin"));
    LogCapture capture;
    app.open_all_tasks();
    EXPECT_EQ(2u, journal.size());
}

TEST(RegisterTaskTest, FindTaskComparesExactly) {
    TestApp app;
    NamedOnly alpha(L"alpha");
    EXPECT_EQ(nullptr, app.findTask(L"alpha"));
    ASSERT_EQ(0, app.register_task(nullptr, 0));
    ASSERT_EQ(0, app.register_task(&alpha, 0));
    EXPECT_EQ(&alpha, app.findTask(L"alpha"));
    EXPECT_EQ(nullptr, app.findTask(L"Alpha"));
    EXPECT_EQ(nullptr, app.findTask(L"alph"));
    EXPECT_EQ(nullptr, app.findTask(L"alphabet"));
    EXPECT_EQ(nullptr, app.findTask(L""));
    EXPECT_EQ(nullptr, app.findTask(nullptr));
}

TEST_F(RunTest, FindTaskFindsADisabledTask) {
    ChildResult const result = inChild([]() {
        Tarnwick::Setting::Create(L"nobeta", 0, L"tasks", L"Switches beta off.",
                                  Tarnwick::SETTING_ARGUMENT);
        Tarnwick::getConfigSingleton()->setKeyVal(L"nobeta", L"0");
        TestApp app;
        NamedOnly beta(L"beta");
        app.register_task(&beta, 0);
        return app.findTask(L"beta") == &beta && !beta.enabled() ? 0 : 1;
    });
    EXPECT_EQ(0, result.exitCode());
}

// ---------------------------------------------------------------------------
// The task walks

class WalkTest : public ::testing::Test {
protected:
    // Registers alpha, beta and gamma; `failing` says which calls fail for
    // which task, e.g. {"", "close", ""}.
    void make(const std::vector<std::string>& failing = {"", "", ""}) {
        app_.register_task(new RecordingTask(L"alpha", &journal_, failing[0]), 1);
        app_.register_task(new RecordingTask(L"beta", &journal_, failing[1]), 1);
        app_.register_task(new RecordingTask(L"gamma", &journal_, failing[2]), 1);
    }

    TestApp app_;
    std::vector<std::string> journal_;
    LogCapture capture_;
};

TEST_F(WalkTest, OpenAllTasksInOrder) {
    make();
    EXPECT_EQ(0, app_.open_all_tasks());
    EXPECT_EQ((std::vector<std::string>{"alpha.open", "beta.open", "gamma.open"}), journal_);
    EXPECT_EQ(
        "%D DEBUG (%t): Initializing task: alpha\n"
        "%D DEBUG (%t): Initializing task: beta\n"
        "%D DEBUG (%t): Initializing task: gamma\n",
        capture_.text());
}

TEST_F(WalkTest, OpenAllTasksStopsAtAFailure) {
    make({"", "open", ""});
    EXPECT_EQ(-1, app_.open_all_tasks());
    EXPECT_EQ((std::vector<std::string>{"alpha.open", "beta.open"}), journal_);
    EXPECT_EQ(
        "%D DEBUG (%t): Initializing task: alpha\n"
        "%D DEBUG (%t): Initializing task: beta\n"
        "%D ERROR (%t): An error while initializing task: beta\n",
        capture_.text());
}

TEST_F(WalkTest, StartAllTasksStopsAtAFailureWithoutMessage) {
    make({"", "run", ""});
    EXPECT_EQ(-1, app_.start_all_tasks());
    EXPECT_EQ((std::vector<std::string>{"alpha.run", "beta.run"}), journal_);
    EXPECT_EQ(
        "%D DEBUG (%t): Starting task: alpha\n"
        "%D DEBUG (%t): Starting task: beta\n",
        capture_.text());
}

TEST_F(WalkTest, CloseAllTasksInReverseOrderDespiteAFailure) {
    make({"", "close", ""});
    EXPECT_EQ(0, app_.close_all_tasks());
    EXPECT_EQ((std::vector<std::string>{"gamma.close", "beta.close", "alpha.close"}), journal_);
    EXPECT_EQ(
        "%D DEBUG (%t): Closing task: gamma\n"
        "%D DEBUG (%t): Closing task: beta\n"
        "%D DEBUG (%t): Closing task: alpha\n",
        capture_.text());
}

TEST_F(WalkTest, CloseRunsTheCloseWalk) {
    make();
    EXPECT_EQ(0, app_.close());
    EXPECT_EQ(1, app_.isStopped());
    EXPECT_EQ((std::vector<std::string>{"gamma.close", "beta.close", "alpha.close"}), journal_);
}

TEST_F(WalkTest, ReloadReachesEveryTaskThenTellsEachItIsReady) {
    make();
    EXPECT_EQ(0, app_.reload());
    EXPECT_EQ(
        (std::vector<std::string>{"alpha.reload", "beta.reload", "gamma.reload",
                                  "alpha.reload_ready", "beta.reload_ready", "gamma.reload_ready"}),
        journal_);
    EXPECT_EQ(
        "%D DEBUG (%t): Reloading task: alpha\n"
        "%D DEBUG (%t): Reloading task: beta\n"
        "%D DEBUG (%t): Reloading task: gamma\n",
        capture_.text());
}

TEST_F(WalkTest, ReloadWhereTheSecondOfThreeFails) {
    make({"", "reload", ""});
    EXPECT_EQ(-1, app_.reload());
    EXPECT_EQ((std::vector<std::string>{"alpha.reload", "beta.reload"}), journal_);
    EXPECT_EQ(
        "%D DEBUG (%t): Reloading task: alpha\n"
        "%D DEBUG (%t): Reloading task: beta\n"
        "%D ERROR (%t): Failure while reloading tasks.\n",
        capture_.text());
}

TEST_F(WalkTest, ReloadReadyFailuresAreIgnored) {
    make({"reload_ready", "reload_ready", ""});
    EXPECT_EQ(0, app_.notify_reload_ready_all_tasks());
    EXPECT_EQ(
        (std::vector<std::string>{"alpha.reload_ready", "beta.reload_ready", "gamma.reload_ready"}),
        journal_);
    EXPECT_EQ("", capture_.text());
}

TEST_F(WalkTest, SuspendReachesEveryTaskDespiteAFailure) {
    make({"suspend", "", ""});
    EXPECT_EQ(0, app_.suspend());
    EXPECT_EQ((std::vector<std::string>{"alpha.suspend", "beta.suspend", "gamma.suspend"}),
              journal_);
    EXPECT_EQ(
        "%D DEBUG (%t): Suspending task: alpha\n"
        "%D DEBUG (%t): Suspending task: beta\n"
        "%D DEBUG (%t): Suspending task: gamma\n",
        capture_.text());
}

TEST_F(WalkTest, EmptySlotsArePassedOver) {
    app_.register_task(nullptr, 1);
    make();
    app_.register_task(nullptr, 0);
    EXPECT_EQ(0, app_.open_all_tasks());
    EXPECT_EQ(0, app_.start_all_tasks());
    EXPECT_EQ(0, app_.reload());
    EXPECT_EQ(0, app_.suspend_all_tasks());
    EXPECT_EQ(0, app_.close_all_tasks());
    EXPECT_EQ(18u, journal_.size());
}

TEST_F(WalkTest, WalksOfNoTasksSucceed) {
    EXPECT_EQ(0, app_.open_all_tasks());
    EXPECT_EQ(0, app_.start_all_tasks());
    EXPECT_EQ(0, app_.reload_all_tasks());
    EXPECT_EQ(0, app_.notify_reload_ready_all_tasks());
    EXPECT_EQ(0, app_.suspend_all_tasks());
    EXPECT_EQ(0, app_.close_all_tasks());
    EXPECT_EQ("", capture_.text());
}

}  // namespace
