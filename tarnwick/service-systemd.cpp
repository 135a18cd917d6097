#include <tarnwick/configuration.h>
#include <tarnwick/log.h>
#include <tarnwick/service-systemd.h>
#include <tarnwick/utf8.h>

#include <ace/ACE.h>
#include <ace/Singleton.h>
#include <ace/Thread_Mutex.h>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

extern char** environ;

namespace Tarnwick {

namespace {

// systemctl calls that wait for the service are given this long.
const int kServiceWaitSeconds = 30;
// Calls that only ask or queue a job.
const int kQuickSeconds = 30;
// The longest description that the unit gets.
const size_t kDescriptionLimit = 4095;
// Where units are installed unless TARNWICK_SYSTEMD_UNIT_DIR says otherwise.
const char* const kDefaultUnitDirectory = "/etc/systemd/system";
// The service that ServiceControl reports on, whatever name it is given.
const char* const kAgentUnit = "twagent.service";

// Whether `name` may stand before ".service" in a unit's name.
bool validUnitStem(const std::string& name) {
    if (name.empty() || name.size() > 200)
        return false;
    for (char const c : name) {
        bool const ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                        (c >= '0' && c <= '9') || c == '_' || c == '-' || c == '.' || c == ':';
        if (!ok)
            return false;
    }
    return true;
}

// One word of a command line of a unit, quoted when it needs to be, with
// the specifier and variable signs doubled.
std::string unitWord(const std::string& word) {
    std::string out;
    bool quote = word.empty();
    for (char const c : word) {
        switch (c) {
            case '%':
                out += "%%";
                break;
            case '$':
                out += "$$";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '"':
                out += "\\\"";
                quote = true;
                break;
            case ' ':
            case '\t':
            case '\'':
            case ';':
                out += c;
                quote = true;
                break;
            default:
                out += c;
        }
    }
    return quote ? "\"" + out + "\"" : out;
}

// A one-line value of a unit: line ends become spaces, '%' is doubled.
std::string unitValue(const std::string& text) {
    std::string out;
    for (char const c : text) {
        if (c == '\n' || c == '\r')
            out += ' ';
        else if (c == '%')
            out += "%%";
        else
            out += c;
    }
    return out;
}

// The absolute path of the running program.
std::string programPath() {
    char buffer[4096];
    ssize_t const got = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (got <= 0)
        return std::string();
    return std::string(buffer, static_cast<size_t>(got));
}

// The value of `key` in systemctl show's "KEY=VALUE" lines; empty if absent.
std::string property(const std::string& text, const std::string& key) {
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos)
            end = text.size();
        std::string const line = text.substr(at, end - at);
        if (line.compare(0, key.size() + 1, key + "=") == 0)
            return line.substr(key.size() + 1);
        at = end + 1;
    }
    return std::string();
}

// The states of the design's table from systemd's ActiveState; 0 unknown.
int stateOf(const std::string& active) {
    if (active == "active")
        return 4;
    if (active == "inactive" || active == "failed")
        return 1;
    if (active == "activating")
        return 2;
    if (active == "deactivating")
        return 3;
    if (active == "reloading")
        return 5;
    return 0;
}

// Runs systemctl for `args` and logs why it failed: the program couldn't be
// run, ran too long, or ended with a status other than 0 (errno EIO). 0 or
// -1 with errno.
int control(const std::vector<std::string>& args, std::string* output, int seconds) {
    int const status = SystemdService::Systemctl(args, output, seconds);
    const char* const program = std::getenv("TARNWICK_SYSTEMCTL");
    std::string line = program != nullptr && *program != '\0' ? program : "systemctl";
    for (const std::string& arg : args)
        line += " " + arg;
    if (status == -1) {
        TW_LOG("%D ERROR (%t): Can not run '%C': %m\n", line.c_str());
        return -1;
    }
    if (status != 0) {
        TW_LOG("%D ERROR (%t): '%C' exited with status %d\n", line.c_str(), status);
        errno = EIO;
        return -1;
    }
    return 0;
}

// LoadState and ActiveState of `unit`. 0 or -1 (logged, errno set).
int unitStates(const std::string& unit, std::string& load, std::string& active) {
    std::string output;
    if (control({"show", "--property=LoadState", "--property=ActiveState", unit}, &output,
                kQuickSeconds) == -1)
        return -1;
    load = property(output, "LoadState");
    active = property(output, "ActiveState");
    return 0;
}

// Sends WATCHDOG=1 every half of $WATCHDOG_USEC while main() runs.
class Watchdog {
public:
    Watchdog() {
        const char* const usec = std::getenv("WATCHDOG_USEC");
        const char* const pid = std::getenv("WATCHDOG_PID");
        if (usec == nullptr || *usec == '\0')
            return;
        if (pid != nullptr && *pid != '\0' && std::atol(pid) != static_cast<long>(::getpid()))
            return;
        char* end = nullptr;
        unsigned long long const value = std::strtoull(usec, &end, 10);
        if (end == usec || *end != '\0' || value == 0)
            return;
        std::chrono::microseconds const period(value / 2 > 0 ? value / 2 : 1);
        // The thread takes no signals: they belong to the application's.
        sigset_t all;
        sigset_t previous;
        sigfillset(&all);
        ::pthread_sigmask(SIG_BLOCK, &all, &previous);
        thread_ = std::thread([this, period]() { beat(period); });
        ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    }
    ~Watchdog() {
        if (!thread_.joinable())
            return;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            stop_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    void beat(std::chrono::microseconds period) {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!stop_) {
            lock.unlock();
            SystemdService::Notify("WATCHDOG=1");
            lock.lock();
            wake_.wait_for(lock, period, [this]() { return stop_; });
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    bool stop_ = false;
    std::thread thread_;
};

}  // namespace

// ---------------------------------------------------------------------------
// SystemdService

SystemdService* SystemdService::instance() {
    return ACE_Singleton<SystemdService, ACE_Thread_Mutex>::instance();
}

SystemdService::SystemdService() : Service(), m_serving(false) {
    Configuration* config = getConfigSingleton();
    if (config != nullptr)
        config->import(SERVICE_SETTINGS);
}

SystemdService::~SystemdService() {}

int SystemdService::open(Application* application) {
    return Service::open(application);
}

bool SystemdService::isServing() const {
    return m_serving.load();
}

int SystemdService::report(const std::string& state) {
    if (!isServing())
        return 0;
    return Notify(state) == -1 ? -1 : 0;
}

int SystemdService::Notify(const std::string& state) {
    const char* const socketName = std::getenv("NOTIFY_SOCKET");
    if (socketName == nullptr || *socketName == '\0')
        return 0;
    size_t const length = std::strlen(socketName);
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (socketName[0] != '/' && socketName[0] != '@') {
        errno = EAFNOSUPPORT;
        return -1;
    }
    if (length >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::memcpy(address.sun_path, socketName, length);
    if (socketName[0] == '@')
        address.sun_path[0] = '\0';
    socklen_t const size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    int const descriptor = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0)
        return -1;
    ssize_t const sent = ::sendto(descriptor, state.data(), state.size(), MSG_NOSIGNAL,
                                  reinterpret_cast<const sockaddr*>(&address), size);
    int const error = errno;
    ::close(descriptor);
    if (sent < 0 || static_cast<size_t>(sent) != state.size()) {
        errno = sent < 0 ? error : EMSGSIZE;
        return -1;
    }
    return 1;
}

std::string SystemdService::UnitDirectory() {
    const char* const directory = std::getenv("TARNWICK_SYSTEMD_UNIT_DIR");
    return directory != nullptr && *directory != '\0' ? directory : kDefaultUnitDirectory;
}

int SystemdService::Systemctl(const std::vector<std::string>& args, std::string* output,
                              int seconds) {
    const char* const configured = std::getenv("TARNWICK_SYSTEMCTL");
    std::string const program =
        configured != nullptr && *configured != '\0' ? configured : "systemctl";
    std::vector<std::string> words{program};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(&word[0]);
    argv.push_back(nullptr);

    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    // The child starts with the default actions and no blocked signal.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    pid_t child = -1;
    int const spawned =
        ::posix_spawnp(&child, program.c_str(), &actions, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    ::close(ends[1]);
    if (spawned != 0) {
        ::close(ends[0]);
        errno = spawned;
        return -1;
    }

    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    bool timedOut = false;
    std::string text;
    for (;;) {
        auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        if (left <= 0) {
            timedOut = true;
            break;
        }
        pollfd wait = {ends[0], POLLIN, 0};
        int const ready = ::poll(&wait, 1, static_cast<int>(left));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            continue;
        char buffer[4096];
        ssize_t const got = ::read(ends[0], buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        text.append(buffer, static_cast<size_t>(got));
    }
    ::close(ends[0]);
    if (timedOut)
        ::kill(child, SIGKILL);
    int status = 0;
    for (;;) {
        pid_t const done = ::waitpid(child, &status, timedOut ? 0 : WNOHANG);
        if (done == child)
            break;
        if (done < 0 && errno == EINTR)
            continue;
        if (done < 0)
            return -1;
        if (std::chrono::steady_clock::now() >= deadline) {
            timedOut = true;
            ::kill(child, SIGKILL);
            continue;
        }
        timespec const pause = {0, 10 * 1000 * 1000};
        ::nanosleep(&pause, nullptr);
    }
    if (timedOut) {
        errno = ETIMEDOUT;
        return -1;
    }
    if (output != nullptr)
        *output = text;
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    errno = EINTR;
    return -1;
}

std::string SystemdService::unitText() {
    std::string description = utf8String(long_description());
    if (description.empty())
        description = utf8String(Service::description());
    // Cut to 4095 characters, not bytes: the text is UTF-8.
    std::wstring characters;
    utf8towcs(description.c_str(), characters);
    if (characters.size() > kDescriptionLimit)
        characters.resize(kDescriptionLimit);
    description = utf8String(characters.c_str());

    std::string start = unitWord(programPath());
    Configuration* config = getConfigSingleton();
    if (config != nullptr) {
        const wchar_t* const file = config->asString(L"configfile");
        if (file != nullptr && *file != L'\0') {
            std::string path = utf8String(file);
            if (!path.empty() && path[0] != '/') {
                char here[4096];
                if (::getcwd(here, sizeof here) != nullptr)
                    path = std::string(here) + "/" + path;
            }
            start += " " + unitWord("--configfile=" + path);
        }
    }

    std::string text;
    text += "[Unit]\n";
    text += "Description=" + unitValue(description) + "\n";
    text += "Wants=network-online.target\n";
    text += "After=network-online.target nss-lookup.target\n";
    text += "StartLimitIntervalSec=86400\n";
    text += "\n[Service]\n";
    text += "Type=notify\n";
    text += "NotifyAccess=main\n";
    text += "ExecStart=" + start + "\n";
    text += "ExecReload=/bin/kill -HUP $MAINPID\n";
    text += "Restart=on-failure\n";
    text += "RestartSec=60\n";
    text += "\n[Install]\n";
    text += "WantedBy=multi-user.target\n";
    return text;
}

int SystemdService::run() {
    Configuration* config = getConfigSingleton();
    const wchar_t* const key = config != nullptr ? config->actionKey() : nullptr;
    std::wstring const action = key != nullptr ? key : L"";

    if (action == L"install")
        return install();
    if (action == L"remove")
        return remove();
    if (action == L"start")
        return start(false);
    if (action == L"stop")
        return stop(false);
    if (action == L"restart")
        return restart(false);
    if (action == L"reload")
        return restart(true);
    if (action == L"check")
        return check();
    if (action == L"isinstalled")
        return isinstalled();
    if (config != nullptr && config->hasKey(L"debug")) {
        TW_LOG("%D DEBUG (%t): Starting service in thread %t\n");
        return m_application != nullptr ? m_application->main() : -1;
    }
    return serve();
}

namespace {

// The service's unit name, or empty (errno EINVAL) when the application's
// name can't be one.
std::string unitOf(Application* application) {
    std::string const stem = utf8String(application != nullptr ? application->name() : nullptr);
    if (!validUnitStem(stem)) {
        errno = EINVAL;
        return std::string();
    }
    return stem + ".service";
}

const wchar_t* nameOf(Application* application) {
    const wchar_t* const name = application != nullptr ? application->name() : nullptr;
    return name != nullptr ? name : L"";
}

// Writes `text` into `path` through a temporary file in the same directory
// and a rename, with mode 0644. 0, or -1 with errno and no file left over.
int writeUnitFile(const std::string& path, const std::string& text) {
    std::string temporary = path + ".XXXXXX";
    int const descriptor = ::mkostemp(&temporary[0], O_CLOEXEC);
    if (descriptor < 0)
        return -1;
    size_t done = 0;
    int error = 0;
    while (done < text.size()) {
        ssize_t const wrote = ::write(descriptor, text.data() + done, text.size() - done);
        if (wrote < 0 && errno == EINTR)
            continue;
        if (wrote <= 0) {
            error = wrote < 0 ? errno : EIO;
            break;
        }
        done += static_cast<size_t>(wrote);
    }
    if (error == 0 && ::fchmod(descriptor, 0644) != 0)
        error = errno;
    if (error == 0 && ::fsync(descriptor) != 0)
        error = errno;
    if (::close(descriptor) != 0 && error == 0)
        error = errno;
    if (error == 0 && ::rename(temporary.c_str(), path.c_str()) != 0)
        error = errno;
    if (error != 0) {
        ::unlink(temporary.c_str());
        errno = error;
        return -1;
    }
    return 0;
}

}  // namespace

int SystemdService::install() {
    TW_LOG("%D INFO  (%t): Installing service!\n");
    std::string const unit = unitOf(m_application);
    if (unit.empty()) {
        TW_LOG("%D ERROR (%t): Can not install service: %m\n");
        return -1;
    }
    std::string const directory = UnitDirectory();
    std::string const path = directory + "/" + unit;
    struct stat info;
    int error = 0;
    if (::stat(directory.c_str(), &info) != 0)
        error = errno;
    else if (!S_ISDIR(info.st_mode))
        error = ENOTDIR;
    else if (::lstat(path.c_str(), &info) == 0)
        error = EEXIST;
    else if (writeUnitFile(path, unitText()) == -1)
        error = errno;
    if (error != 0) {
        errno = error;
        TW_LOG("%D ERROR (%t): Can not write unit file %C: %m\n", path.c_str());
        TW_LOG("%D ERROR (%t): Can not install service: %m\n");
        return -1;
    }
    if (control({"daemon-reload"}, nullptr, kQuickSeconds) == -1) {
        int const error = errno;
        ::unlink(path.c_str());
        errno = error;
        TW_LOG("%D ERROR (%t): Can not open service manager: %m\n");
        return -1;
    }
    if (control({"enable", unit}, nullptr, kQuickSeconds) == -1) {
        int const error = errno;
        ::unlink(path.c_str());
        Systemctl({"daemon-reload"}, nullptr, kQuickSeconds);
        errno = error;
        TW_LOG("%D ERROR (%t): Can not open service to configure it: %m\n");
        return -1;
    }
    TW_LOG("%D INFO  (%t): Installed %W service successfully!\n", nameOf(m_application));
    return 0;
}

int SystemdService::remove() {
    TW_LOG("%D INFO  (%t): Removing service %W\n", nameOf(m_application));
    std::string const unit = unitOf(m_application);
    if (unit.empty()) {
        TW_LOG("%D ERROR (%t): Can not remove service: %m\n");
        return -1;
    }
    std::string const path = UnitDirectory() + "/" + unit;
    struct stat info;
    if (::lstat(path.c_str(), &info) != 0) {
        TW_LOG("%D ERROR (%t): Can not remove service: %m\n");
        return -1;
    }
    if (control({"disable", unit}, nullptr, kQuickSeconds) == -1 || ::unlink(path.c_str()) != 0 ||
        control({"daemon-reload"}, nullptr, kQuickSeconds) == -1) {
        TW_LOG("%D ERROR (%t): Can not remove service: %m\n");
        return -1;
    }
    TW_LOG("%D INFO  (%t): Removed %W service successfully!\n", nameOf(m_application));
    return 0;
}

int SystemdService::start(bool wait) {
    (void)wait;
    TW_LOG("%D INFO  (%t): Starting service %W\n", nameOf(m_application));
    std::string const unit = unitOf(m_application);
    if (unit.empty() || control({"start", "--no-block", unit}, nullptr, kQuickSeconds) == -1) {
        TW_LOG("%D ERROR (%t): Can not start service: %m\n");
        return -1;
    }
    TW_LOG("%D INFO  (%t): Started %W service successfully!\n", nameOf(m_application));
    return 0;
}

int SystemdService::stop(bool wait) {
    (void)wait;
    // "server" is the word that this line has always had.
    TW_LOG("%D INFO  (%t): Stopping server %W\n", nameOf(m_application));
    std::string const unit = unitOf(m_application);
    if (unit.empty() || control({"stop", "--no-block", unit}, nullptr, kQuickSeconds) == -1) {
        TW_LOG("%D ERROR (%t): Can not stop service: %m\n");
        return -1;
    }
    TW_LOG("%D INFO  (%t): Stopped %W service successfully!\n", nameOf(m_application));
    return 0;
}

int SystemdService::restart(bool reload) {
    std::string const unit = unitOf(m_application);
    TW_LOG("%D INFO  (%t): Stopping service %W\n", nameOf(m_application));
    if (unit.empty() || control({"stop", unit}, nullptr, kServiceWaitSeconds) == -1) {
        TW_LOG("%D ERROR (%t): Can not stop service: %m\n");
        return -1;
    }
    TW_LOG("%D INFO  (%t): Restarting service %W\n", nameOf(m_application));
    if (control({"start", unit}, nullptr, kServiceWaitSeconds) == -1) {
        TW_LOG("%D ERROR (%t): Can not start service: %m\n");
        return -1;
    }
    if (reload)
        TW_LOG("%D INFO  (%t): Reloaded %W service successfully!\n", nameOf(m_application));
    else
        TW_LOG("%D INFO  (%t): Restarted %W service successfully!\n", nameOf(m_application));
    return 0;
}

int SystemdService::check() {
    std::string const unit = unitOf(m_application);
    std::string load;
    std::string active;
    int state = 0;
    if (!unit.empty() && unitStates(unit, load, active) == 0) {
        state = stateOf(active);
        if (state == 0)
            errno = EINVAL;
    }
    if (state == 0) {
        TW_LOG("%D ERROR (%t): Can not query service status: %m\n");
        return -1;
    }
    TW_LOG("%D INFO  (%t): Checked %W service successfully!\n", nameOf(m_application));
    return state == 1 ? 5 : 6;
}

int SystemdService::isinstalled() {
    std::string const unit = unitOf(m_application);
    std::string load;
    std::string active;
    if (unit.empty() || unitStates(unit, load, active) == -1) {
        TW_LOG("%D ERROR (%t): Can not open service manager: %m\n");
        return -1;
    }
    if (load == "loaded" || load == "masked") {
        TW_LOG("%D INFO  (%t): %W service is installed.\n", nameOf(m_application));
        return 0;
    }
    if (load == "not-found") {
        TW_LOG("%D INFO  (%t): %W service is not installed.\n", nameOf(m_application));
        return 7;
    }
    errno = EINVAL;
    TW_LOG("%D ERROR (%t): Can not open service to check if it is installed: %m\n");
    return -1;
}

int SystemdService::serve() {
    m_serving = true;
    errno = 0;
    if (Notify("READY=1\nSTATUS=The service is running.") == -1) {
        TW_LOG("%D ERROR (%t): Could not start service.\n");
    } else {
        // main()'s result is not the exit status of a service: the two
        // lines tell how it went.
        svc();
        report("STOPPING=1\nSTATUS=The service is stopped.");
        TW_LOG("%D ERROR (%t): Service stopped.\n");
    }
    m_serving = false;
    return 0;
}

int SystemdService::svc() {
    Watchdog const watchdog;
    return m_application != nullptr ? m_application->main() : -1;
}

void SystemdService::handle_control(unsigned long control) {
    if (control != 1 && control != 5)
        return;
    report("STOPPING=1\nSTATUS=The service is stopping.");
    if (m_application != nullptr)
        m_application->close();
}

// ---------------------------------------------------------------------------
// ServiceControl

int ServiceControl::Query(const wchar_t* name, int& state) {
    (void)name;
    std::string output;
    int const status = SystemdService::Systemctl(
        {"show", "--property=LoadState", "--property=ActiveState", kAgentUnit}, &output,
        kQuickSeconds);
    if (status != 0) {
        if (status > 0)
            errno = EIO;
        TW_LOG("%D ERROR (%t): Can not open Service Control Manager: %m\n");
        return -1;
    }
    if (property(output, "LoadState") == "not-found") {
        errno = ENOENT;
        TW_LOG("%D ERROR (%t): Can not open service instance: %m\n");
        return -1;
    }
    int const value = stateOf(property(output, "ActiveState"));
    if (value == 0) {
        errno = EINVAL;
        TW_LOG("%D ERROR (%t): Can not query service: %m\n");
        return -1;
    }
    state = value;
    return 0;
}

int ServiceControl::Query(const wchar_t* name, wchar_t*& text) {
    int state = 0;
    if (Query(name, state) == -1)
        return -1;
    const wchar_t* words = L"unknown";
    switch (state) {
        case 1:
            words = L"The service is stopped.";
            break;
        case 2:
            words = L"The service is starting";
            break;
        case 3:
            words = L"The service is stopping.";
            break;
        case 4:
            words = L"The service is running.";
            break;
        case 5:
            words = L"The service continue is pending.";
            break;
        case 6:
            words = L"The service pause is pending.";
            break;
        case 7:
            words = L"The service is paused.";
            break;
        default:
            break;
    }
    text = ACE::strnew(words);
    return text != nullptr ? 0 : -1;
}

int ServiceControl::IsRunning(const wchar_t* name) {
    int state = 0;
    if (Query(name, state) == -1)
        return -1;
    return state == 4 ? 1 : 0;
}

}  // namespace Tarnwick
