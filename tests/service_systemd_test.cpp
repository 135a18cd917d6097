// SystemdService and ServiceControl: the action table of twdaemon with a
// recording systemctl script in a scratch directory, the unit file it
// installs, and the notifications of a daemon that runs as the service, read
// from a datagram socket that the test binds (a path and an abstract name).
#include <tarnwick/service-systemd.h>

#include <ace/ACE.h>

#include <daemon_program.h>
#include <gtest/gtest.h>
#include <log_lines.h>
#include <scratch_dir.h>
#include <unprivileged.h>

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#ifndef TWDAEMON_PATH
#error "TWDAEMON_PATH names the test program"
#endif

namespace {

using TarnwickTest::DaemonProgram;
using TarnwickTest::DaemonResult;
using TarnwickTest::LogLines;
using TarnwickTest::ScratchDir;

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

// A systemctl that records each call's arguments as a line of "calls",
// fails (status 1) for the command named in the file "fail", and answers
// "show" with the states in the files "load" and "active".
const char* const kFakeSystemctl =
    "#!/bin/sh\n"
    "here=$(dirname \"$0\")\n"
    "echo \"$*\" >> \"$here/calls\"\n"
    "if [ -f \"$here/fail\" ] && [ \"$1\" = \"$(cat \"$here/fail\")\" ]; then exit 1; fi\n"
    "if [ \"$1\" = show ]; then\n"
    "  load=not-found; active=inactive\n"
    "  [ -f \"$here/load\" ] && load=$(cat \"$here/load\")\n"
    "  [ -f \"$here/active\" ] && active=$(cat \"$here/active\")\n"
    "  echo \"ActiveState=$active\"\n"
    "  echo \"LoadState=$load\"\n"
    "fi\n"
    "exit 0\n";

// Every test has its fake systemctl in bin/ and its unit directory units/.
class ServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(dir_.path().empty());
        ASSERT_EQ(0, ::mkdir(bin().c_str(), 0755));
        ASSERT_EQ(0, ::mkdir(units().c_str(), 0755));
        writeFile(systemctl(), kFakeSystemctl);
        ASSERT_EQ(0, ::chmod(systemctl().c_str(), 0755));
    }

    std::string bin() const { return dir_.path() + "/bin"; }
    std::string units() const { return dir_.path() + "/units"; }
    std::string systemctl() const { return bin() + "/systemctl"; }
    std::string calls() const { return readFile(bin() + "/calls"); }
    std::string unitFile() const { return units() + "/twdaemon.service"; }
    void answer(const std::string& load, const std::string& active) {
        writeFile(bin() + "/load", load);
        writeFile(bin() + "/active", active);
    }
    void failOn(const std::string& command) { writeFile(bin() + "/fail", command); }

    std::vector<std::string> env() const {
        return {"TARNWICK_SYSTEMCTL=" + systemctl(), "TARNWICK_SYSTEMD_UNIT_DIR=" + units(),
                "NOTIFY_SOCKET=", "WATCHDOG_USEC=", "WATCHDOG_PID="};
    }
    DaemonResult action(const std::vector<std::string>& args) {
        std::vector<std::string> all{"--pid=" + dir_.path()};
        all.insert(all.end(), args.begin(), args.end());
        return TarnwickTest::runDaemon(TWDAEMON_PATH, "twdaemon", all, env());
    }

    ScratchDir dir_{"tarnwick-service"};
};

// ---------------------------------------------------------------------------
// install and remove

TEST_F(ServiceTest, InstallWritesTheUnitThenReloadsAndEnables) {
    DaemonResult const result = action({"--install"});
    EXPECT_EQ(0, result.exitCode()) << result.err;
    EXPECT_EQ(
        "%D INFO  (%t): Installing service!\n"
        "%D INFO  (%t): Installed twdaemon service successfully!\n",
        result.err);
    EXPECT_EQ("daemon-reload\nenable twdaemon.service\n", calls());
    EXPECT_EQ(
        "[Unit]\n"
        "Description=Runs the cases of the daemon tests (100%% safe).\n"
        "Wants=network-online.target\n"
        "After=network-online.target nss-lookup.target\n"
        "StartLimitIntervalSec=86400\n"
        "\n[Service]\n"
        "Type=notify\n"
        "NotifyAccess=main\n"
        "ExecStart=" TWDAEMON_PATH
        "\n"
        "ExecReload=/bin/kill -HUP $MAINPID\n"
        "Restart=on-failure\n"
        "RestartSec=60\n"
        "\n[Install]\n"
        "WantedBy=multi-user.target\n",
        readFile(unitFile()));
    struct stat info;
    ASSERT_EQ(0, ::stat(unitFile().c_str(), &info));
    EXPECT_EQ(0644u, info.st_mode & 07777);
    // Nothing else is left in the directory.
    EXPECT_EQ(1, TarnwickTest::countEntries(units()));
}

TEST_F(ServiceTest, InstalledUnitPassesSystemdAnalyzeVerify) {
    if (::access("/usr/bin/systemd-analyze", X_OK) != 0 &&
        ::access("/bin/systemd-analyze", X_OK) != 0)
        GTEST_SKIP() << "systemd-analyze is not installed";
    ASSERT_EQ(0, action({"--install"}).exitCode());
    std::string const command =
        "SYSTEMD_LOG_LEVEL=warning systemd-analyze verify --man=no '" + unitFile() + "' 2>&1";
    FILE* pipe = ::popen(command.c_str(), "r");
    ASSERT_NE(nullptr, pipe);
    std::string output;
    char buffer[512];
    size_t got = 0;
    while ((got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0)
        output.append(buffer, got);
    int const status = ::pclose(pipe);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << output;
    EXPECT_EQ(std::string::npos, output.find("twdaemon.service")) << output;
}

TEST_F(ServiceTest, InstallOverAnInstalledUnitFails) {
    ASSERT_EQ(0, action({"--install"}).exitCode());
    std::string const before = readFile(unitFile());
    DaemonResult const result = action({"--install"});
    EXPECT_EQ(255, result.exitCode());
    EXPECT_EQ(
        "%D INFO  (%t): Installing service!\n"
        "%D ERROR (%t): Can not write unit file " +
            unitFile() +
            ": File exists\n"
            "%D ERROR (%t): Can not install service: File exists\n",
        result.err);
    EXPECT_EQ(before, readFile(unitFile()));
}

TEST_F(ServiceTest, InstallIntoAMissingUnitDirectoryFails) {
    ASSERT_EQ(0, ::rmdir(units().c_str()));
    DaemonResult const result = action({"--install"});
    EXPECT_EQ(255, result.exitCode());
    EXPECT_EQ(
        "%D INFO  (%t): Installing service!\n"
        "%D ERROR (%t): Can not write unit file " +
            unitFile() +
            ": No such file or directory\n"
            "%D ERROR (%t): Can not install service: No such file or directory\n",
        result.err);
    EXPECT_EQ("", calls());
}

TEST_F(ServiceTest, InstallIntoAnUnwritableUnitDirectoryLeavesNothing) {
    // Root writes into any directory: the install runs as "nobody" then, who
    // needs to reach the scratch directory and its systemctl.
    ASSERT_EQ(0, ::chmod(dir_.path().c_str(), 0755));
    ASSERT_EQ(0, ::chmod(units().c_str(), 0555));
    TarnwickTest::asUnprivilegedUser([this]() {
        DaemonResult const result = action({"--install"});
        EXPECT_EQ(255, result.exitCode());
        EXPECT_NE(std::string::npos,
                  result.err.find("%D ERROR (%t): Can not install service: Permission denied\n"))
            << result.err;
        EXPECT_EQ(0, TarnwickTest::countEntries(units()));
    });
    ::chmod(units().c_str(), 0755);
}

TEST_F(ServiceTest, InstallWhoseDaemonReloadFailsRemovesTheUnit) {
    failOn("daemon-reload");
    DaemonResult const result = action({"--install"});
    EXPECT_EQ(255, result.exitCode());
    EXPECT_EQ(
        "%D INFO  (%t): Installing service!\n"
        "%D ERROR (%t): '" +
            systemctl() +
            " daemon-reload' exited with status 1\n"
            "%D ERROR (%t): Can not open service manager: Input/output error\n",
        result.err);
    EXPECT_FALSE(exists(unitFile()));
    EXPECT_EQ(0, TarnwickTest::countEntries(units()));
}

TEST_F(ServiceTest, InstallWhoseEnableFailsRemovesTheUnit) {
    failOn("enable");
    DaemonResult const result = action({"--install"});
    EXPECT_EQ(255, result.exitCode());
    EXPECT_EQ(
        "%D INFO  (%t): Installing service!\n"
        "%D ERROR (%t): '" +
            systemctl() +
            " enable twdaemon.service' exited with status 1\n"
            "%D ERROR (%t): Can not open service to configure it: Input/output error\n",
        result.err);
    EXPECT_FALSE(exists(unitFile()));
    EXPECT_EQ("daemon-reload\nenable twdaemon.service\ndaemon-reload\n", calls());
}

TEST_F(ServiceTest, RemoveDisablesDeletesAndReloads) {
    ASSERT_EQ(0, action({"--install"}).exitCode());
    DaemonResult const result = action({"--remove"});
    EXPECT_EQ(0, result.exitCode()) << result.err;
    EXPECT_EQ(
        "%D INFO  (%t): Removing service twdaemon\n"
        "%D INFO  (%t): Removed twdaemon service successfully!\n",
        result.err);
    EXPECT_FALSE(exists(unitFile()));
    EXPECT_EQ("daemon-reload\nenable twdaemon.service\ndisable twdaemon.service\ndaemon-reload\n",
              calls());
}

TEST_F(ServiceTest, RemoveWithoutUnitFails) {
    DaemonResult const result = action({"--remove"});
    EXPECT_EQ(255, result.exitCode());
    EXPECT_EQ(
        "%D INFO  (%t): Removing service twdaemon\n"
        "%D ERROR (%t): Can not remove service: No such file or directory\n",
        result.err);
    EXPECT_EQ("", calls());
}

// ---------------------------------------------------------------------------
// start, stop, restart, reload

TEST_F(ServiceTest, StartQueuesTheStart) {
    DaemonResult const result = action({"--start"});
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ(
        "%D INFO  (%t): Starting service twdaemon\n"
        "%D INFO  (%t): Started twdaemon service successfully!\n",
        result.err);
    EXPECT_EQ("start --no-block twdaemon.service\n", calls());
}

TEST_F(ServiceTest, StopSaysServerAndQueuesTheStop) {
    DaemonResult const result = action({"--stop"});
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ(
        "%D INFO  (%t): Stopping server twdaemon\n"
        "%D INFO  (%t): Stopped twdaemon service successfully!\n",
        result.err);
    EXPECT_EQ("stop --no-block twdaemon.service\n", calls());
}

TEST_F(ServiceTest, FailedStartAndStop) {
    failOn("start");
    DaemonResult started = action({"--start"});
    EXPECT_EQ(255, started.exitCode());
    EXPECT_EQ(
        "%D INFO  (%t): Starting service twdaemon\n"
        "%D ERROR (%t): '" +
            systemctl() +
            " start --no-block twdaemon.service' exited with status 1\n"
            "%D ERROR (%t): Can not start service: Input/output error\n",
        started.err);
    failOn("stop");
    DaemonResult stopped = action({"--stop"});
    EXPECT_EQ(255, stopped.exitCode());
    EXPECT_EQ(
        "%D INFO  (%t): Stopping server twdaemon\n"
        "%D ERROR (%t): '" +
            systemctl() +
            " stop --no-block twdaemon.service' exited with status 1\n"
            "%D ERROR (%t): Can not stop service: Input/output error\n",
        stopped.err);
}

TEST_F(ServiceTest, MissingSystemctlIsNamed) {
    std::vector<std::string> environment = env();
    environment[0] = "TARNWICK_SYSTEMCTL=" + dir_.path() + "/no-such-systemctl";
    DaemonResult const result =
        TarnwickTest::runDaemon(TWDAEMON_PATH, "twdaemon", {"--start"}, environment);
    EXPECT_EQ(255, result.exitCode());
    EXPECT_EQ(
        "%D INFO  (%t): Starting service twdaemon\n"
        "%D ERROR (%t): Can not run '" +
            dir_.path() +
            "/no-such-systemctl start --no-block twdaemon.service': No such file or "
            "directory\n"
            "%D ERROR (%t): Can not start service: No such file or directory\n",
        result.err);
}

TEST_F(ServiceTest, RestartStopsThenStarts) {
    DaemonResult const result = action({"--restart"});
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ(
        "%D INFO  (%t): Stopping service twdaemon\n"
        "%D INFO  (%t): Restarting service twdaemon\n"
        "%D INFO  (%t): Restarted twdaemon service successfully!\n",
        result.err);
    EXPECT_EQ("stop twdaemon.service\nstart twdaemon.service\n", calls());
}

TEST_F(ServiceTest, ReloadIsAFullRestart) {
    DaemonResult const result = action({"--reload"});
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ(
        "%D INFO  (%t): Stopping service twdaemon\n"
        "%D INFO  (%t): Restarting service twdaemon\n"
        "%D INFO  (%t): Reloaded twdaemon service successfully!\n",
        result.err);
    EXPECT_EQ("stop twdaemon.service\nstart twdaemon.service\n", calls());
}

TEST_F(ServiceTest, FailedStopInRestartDoesNotTryTheStart) {
    failOn("stop");
    DaemonResult const result = action({"--restart"});
    EXPECT_EQ(255, result.exitCode());
    EXPECT_EQ(
        "%D INFO  (%t): Stopping service twdaemon\n"
        "%D ERROR (%t): '" +
            systemctl() +
            " stop twdaemon.service' exited with status 1\n"
            "%D ERROR (%t): Can not stop service: Input/output error\n",
        result.err);
    EXPECT_EQ("stop twdaemon.service\n", calls());
}

TEST_F(ServiceTest, FailedStartInRestart) {
    failOn("start");
    DaemonResult const result = action({"--restart"});
    EXPECT_EQ(255, result.exitCode());
    EXPECT_EQ(
        "%D INFO  (%t): Stopping service twdaemon\n"
        "%D INFO  (%t): Restarting service twdaemon\n"
        "%D ERROR (%t): '" +
            systemctl() +
            " start twdaemon.service' exited with status 1\n"
            "%D ERROR (%t): Can not start service: Input/output error\n",
        result.err);
}

// ---------------------------------------------------------------------------
// check and isinstalled

TEST_F(ServiceTest, CheckOnARunningServiceGivesSix) {
    answer("loaded", "active");
    DaemonResult const result = action({"--check"});
    EXPECT_EQ(6, result.exitCode());
    EXPECT_EQ("%D INFO  (%t): Checked twdaemon service successfully!\n", result.err);
    EXPECT_EQ("show --property=LoadState --property=ActiveState twdaemon.service\n", calls());
}

TEST_F(ServiceTest, CheckOnAStoppedOrFailedServiceGivesFive) {
    for (const char* state : {"inactive", "failed"}) {
        answer("loaded", state);
        DaemonResult const result = action({"--check"});
        EXPECT_EQ(5, result.exitCode()) << state;
        EXPECT_EQ("%D INFO  (%t): Checked twdaemon service successfully!\n", result.err);
    }
    for (const char* state : {"activating", "deactivating", "reloading"}) {
        answer("loaded", state);
        EXPECT_EQ(6, action({"--check"}).exitCode()) << state;
    }
}

TEST_F(ServiceTest, CheckThatCanNotQuery) {
    failOn("show");
    DaemonResult const result = action({"--check"});
    EXPECT_EQ(255, result.exitCode());
    EXPECT_EQ("%D ERROR (%t): '" + systemctl() +
                  " show --property=LoadState --property=ActiveState twdaemon.service' exited "
                  "with status 1\n"
                  "%D ERROR (%t): Can not query service status: Input/output error\n",
              result.err);
}

TEST_F(ServiceTest, DebugWithAnActionStillCarriesOutTheAction) {
    answer("loaded", "active");
    DaemonResult const result = action({"--debug", "--check"});
    EXPECT_EQ(6, result.exitCode());
    EXPECT_NE(std::string::npos,
              result.err.find("%D INFO  (%t): Checked twdaemon service successfully!\n"));
    EXPECT_EQ(std::string::npos, result.err.find("Starting service in thread"));
    EXPECT_EQ("", result.out);
}

TEST_F(ServiceTest, IsinstalledWithoutTheServiceGivesSevenAndAnInformationLine) {
    DaemonResult const result = action({"--isinstalled"});
    EXPECT_EQ(7, result.exitCode());
    EXPECT_EQ("%D INFO  (%t): twdaemon service is not installed.\n", result.err);
}

TEST_F(ServiceTest, IsinstalledWithTheServiceGivesZero) {
    answer("loaded", "inactive");
    DaemonResult const result = action({"--isinstalled"});
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("%D INFO  (%t): twdaemon service is installed.\n", result.err);
}

TEST_F(ServiceTest, IsinstalledThatCanNotAsk) {
    failOn("show");
    DaemonResult const failed = action({"--isinstalled"});
    EXPECT_EQ(255, failed.exitCode());
    EXPECT_NE(std::string::npos,
              failed.err.find("%D ERROR (%t): Can not open service manager: Input/output error\n"))
        << failed.err;
    ::unlink((bin() + "/fail").c_str());
    answer("bad-setting", "inactive");
    DaemonResult const broken = action({"--isinstalled"});
    EXPECT_EQ(255, broken.exitCode());
    EXPECT_EQ("%D ERROR (%t): Can not open service to check if it is installed: Invalid argument\n",
              broken.err);
}

// ---------------------------------------------------------------------------
// ServiceControl, in this process

class ServiceControlTest : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        ::setenv("TARNWICK_SYSTEMCTL", systemctl().c_str(), 1);
    }
    void TearDown() override { ::unsetenv("TARNWICK_SYSTEMCTL"); }
};

TEST_F(ServiceControlTest, QueryReportsTheAgentServiceWhateverTheName) {
    answer("loaded", "active");
    int state = 0;
    EXPECT_EQ(0, Tarnwick::ServiceControl::Query(L"anything", state));
    EXPECT_EQ(4, state);
    EXPECT_EQ("show --property=LoadState --property=ActiveState twagent.service\n", calls());
    EXPECT_EQ(1, Tarnwick::ServiceControl::IsRunning(L"other"));
}

TEST_F(ServiceControlTest, StatesAndTheirTexts) {
    struct Case {
        const char* active;
        int state;
        const wchar_t* text;
        int running;
    };
    const Case cases[] = {
        {"inactive", 1, L"The service is stopped.", 0},
        {"failed", 1, L"The service is stopped.", 0},
        {"activating", 2, L"The service is starting", 0},
        {"deactivating", 3, L"The service is stopping.", 0},
        {"active", 4, L"The service is running.", 1},
        {"reloading", 5, L"The service continue is pending.", 0},
    };
    for (const Case& c : cases) {
        answer("loaded", c.active);
        int state = 0;
        EXPECT_EQ(0, Tarnwick::ServiceControl::Query(L"twagent", state));
        EXPECT_EQ(c.state, state) << c.active;
        wchar_t* text = nullptr;
        ASSERT_EQ(0, Tarnwick::ServiceControl::Query(L"twagent", text));
        EXPECT_STREQ(c.text, text);
        ACE::strdelete(text);
        EXPECT_EQ(c.running, Tarnwick::ServiceControl::IsRunning(L"twagent"));
    }
}

TEST_F(ServiceControlTest, Failures) {
    LogLines log;
    int state = 0;
    EXPECT_EQ(-1, Tarnwick::ServiceControl::Query(L"twagent", state));
    EXPECT_TRUE(log.has("%D ERROR (%t): Can not open service instance: No such file or directory"))
        << log.text();
    EXPECT_EQ(-1, Tarnwick::ServiceControl::IsRunning(L"twagent"));

    answer("loaded", "maintenance");
    log.clear();
    EXPECT_EQ(-1, Tarnwick::ServiceControl::Query(L"twagent", state));
    EXPECT_TRUE(log.has("%D ERROR (%t): Can not query service: Invalid argument")) << log.text();

    failOn("show");
    log.clear();
    wchar_t* text = nullptr;
    EXPECT_EQ(-1, Tarnwick::ServiceControl::Query(L"twagent", text));
    EXPECT_EQ(nullptr, text);
    EXPECT_TRUE(log.has("%D ERROR (%t): Can not open Service Control Manager: Input/output error"))
        << log.text();
}

// ---------------------------------------------------------------------------
// The notification protocol

// A datagram socket bound to a path or, for a name that starts with '@', to
// an abstract name.
class NotifySocket {
public:
    explicit NotifySocket(const std::string& name) : name_(name) {
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address;
        std::memset(&address, 0, sizeof address);
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name.data(), name.size());
        if (name[0] == '@')
            address.sun_path[0] = '\0';
        socklen_t const size =
            static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        bound_ = fd_ >= 0 && ::bind(fd_, reinterpret_cast<sockaddr*>(&address), size) == 0;
    }
    ~NotifySocket() {
        if (fd_ >= 0)
            ::close(fd_);
        if (bound_ && name_[0] == '/')
            ::unlink(name_.c_str());
    }
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    bool bound() const { return bound_; }
    // The next datagram, or "" after 10 s.
    std::string receive(int milliseconds = 10000) {
        pollfd wait = {fd_, POLLIN, 0};
        if (::poll(&wait, 1, milliseconds) != 1)
            return std::string();
        char buffer[4096];
        ssize_t const got = ::recv(fd_, buffer, sizeof buffer, 0);
        return got > 0 ? std::string(buffer, static_cast<size_t>(got)) : std::string();
    }
    // The next datagram that isn't WATCHDOG=1.
    std::string next() {
        for (;;) {
            std::string const message = receive();
            if (message != "WATCHDOG=1")
                return message;
        }
    }

private:
    std::string name_;
    int fd_ = -1;
    bool bound_ = false;
};

class NotifyTest : public ServiceTest {
protected:
    std::vector<std::string> serviceEnv(const std::string& socket,
                                        const std::string& watchdog = "") const {
        std::vector<std::string> environment = env();
        environment[2] = "NOTIFY_SOCKET=" + socket;
        environment[3] = "WATCHDOG_USEC=" + watchdog;
        return environment;
    }
    std::vector<std::string> args() const {
        return {"--pid=" + dir_.path(), "--tick=20", "--status=4"};
    }
};

TEST_F(NotifyTest, ServiceTellsReadyReloadingAndStoppingOnAPathSocket) {
    std::string const path = dir_.path() + "/notify";
    NotifySocket socket(path);
    ASSERT_TRUE(socket.bound());
    DaemonProgram program(TWDAEMON_PATH, "twdaemon", args(), serviceEnv(path));
    EXPECT_EQ("READY=1\nSTATUS=The service is running.", socket.next());
    ASSERT_TRUE(program.waitFor("ready")) << program.err;

    program.send(SIGHUP);
    EXPECT_EQ("RELOADING=1\nSTATUS=The service is reloading.", socket.next());
    EXPECT_EQ("READY=1\nSTATUS=The service is running.", socket.next());
    ASSERT_TRUE(program.waitFor("reloaded"));

    program.send(SIGTERM);
    EXPECT_EQ("STOPPING=1\nSTATUS=The service is stopping.", socket.next());
    EXPECT_EQ("STOPPING=1\nSTATUS=The service is stopped.", socket.next());
    DaemonResult const result = program.finish();
    // As the service, main()'s 4 is not the exit status: the lines tell.
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("ready\nreloaded\nstopped\n", result.out);
    EXPECT_NE(std::string::npos, result.err.find("%D ERROR (%t): Service stopped.\n"))
        << result.err;
}

TEST_F(NotifyTest, ServiceTellsReadyOnAnAbstractSocket) {
    std::string const name = "@tarnwick-notify-" + std::to_string(::getpid());
    NotifySocket socket(name);
    ASSERT_TRUE(socket.bound());
    DaemonProgram program(TWDAEMON_PATH, "twdaemon", args(), serviceEnv(name));
    EXPECT_EQ("READY=1\nSTATUS=The service is running.", socket.next());
    ASSERT_TRUE(program.waitFor("ready")) << program.err;
    program.send(SIGTERM);
    EXPECT_EQ("STOPPING=1\nSTATUS=The service is stopping.", socket.next());
    EXPECT_EQ(0, program.finish().exitCode());
}

TEST_F(NotifyTest, WatchdogBeatsEveryHalfInterval) {
    std::string const path = dir_.path() + "/notify";
    NotifySocket socket(path);
    ASSERT_TRUE(socket.bound());
    DaemonProgram program(TWDAEMON_PATH, "twdaemon", args(), serviceEnv(path, "40000"));
    EXPECT_EQ("READY=1\nSTATUS=The service is running.", socket.receive());
    int beats = 0;
    for (int i = 0; i < 3; ++i)
        beats += socket.receive() == "WATCHDOG=1" ? 1 : 0;
    EXPECT_EQ(3, beats);
    program.send(SIGTERM);
    EXPECT_EQ(0, program.finish().exitCode());
}

TEST_F(NotifyTest, UnreachableSocketMeansTheServiceCouldNotStart) {
    DaemonResult const result = TarnwickTest::runDaemon(
        TWDAEMON_PATH, "twdaemon", args(), serviceEnv(dir_.path() + "/nobody-listens"));
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("", result.out);
    EXPECT_EQ("%D ERROR (%t): Could not start service.\n", result.err);
}

TEST_F(NotifyTest, ForegroundSendsNothing) {
    std::string const path = dir_.path() + "/notify";
    NotifySocket socket(path);
    ASSERT_TRUE(socket.bound());
    std::vector<std::string> foreground = args();
    foreground.push_back("--debug");
    DaemonProgram program(TWDAEMON_PATH, "twdaemon", foreground, serviceEnv(path));
    ASSERT_TRUE(program.waitFor("ready")) << program.err;
    program.send(SIGTERM);
    EXPECT_EQ(4, program.finish().exitCode());
    EXPECT_EQ("", socket.receive(100));
}

TEST(NotifyFunctionTest, WithoutTheVariableThereIsNothingToTell) {
    std::string const saved =
        std::getenv("NOTIFY_SOCKET") != nullptr ? std::getenv("NOTIFY_SOCKET") : "";
    ::unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ(0, Tarnwick::SystemdService::Notify("READY=1"));
    ::setenv("NOTIFY_SOCKET", "relative/name", 1);
    EXPECT_EQ(-1, Tarnwick::SystemdService::Notify("READY=1"));
    EXPECT_EQ(EAFNOSUPPORT, errno);
    if (saved.empty())
        ::unsetenv("NOTIFY_SOCKET");
    else
        ::setenv("NOTIFY_SOCKET", saved.c_str(), 1);
}

TEST(UnitDirectoryTest, DefaultAndOverride) {
    ::unsetenv("TARNWICK_SYSTEMD_UNIT_DIR");
    EXPECT_EQ("/etc/systemd/system", Tarnwick::SystemdService::UnitDirectory());
    ::setenv("TARNWICK_SYSTEMD_UNIT_DIR", "/tmp/units", 1);
    EXPECT_EQ("/tmp/units", Tarnwick::SystemdService::UnitDirectory());
    ::unsetenv("TARNWICK_SYSTEMD_UNIT_DIR");
}

}  // namespace
