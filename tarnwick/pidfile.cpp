#include <tarnwick/configuration.h>
#include <tarnwick/log.h>
#include <tarnwick/path.h>
#include <tarnwick/pidfile.h>
#include <tarnwick/service-systemd.h>
#include <tarnwick/system.h>
#include <tarnwick/utf8.h>

#include <ace/Guard_T.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/Signal.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>

namespace Tarnwick {

namespace {

// A pid file is readable by everybody, writable by its owner.
const mode_t kPidFileMode = 0644;
// The buffer of the number, as written and as read.
const size_t kPidTextSize = 33;
// The stack of the reload task's thread.
const size_t kReloadStackSize = 0x80000;
// The reload task polls every this many ticks; close() waits this many.
const int kPollTicks = 2;
const int kCloseTicks = 60;

}  // namespace

// ---------------------------------------------------------------------------
// PidFile

PidFile::PidFile(const wchar_t* name)
    : ACE_File_Lock(ACE_INVALID_HANDLE, false), m_path(), m_written(false) {
    Configuration* config = getConfigSingleton();
    if (config != nullptr) {
        ACE_GUARD(ACE_Recursive_Thread_Mutex, guard, config->lock());
        const wchar_t* const directory = config->asString(L"pid");
        if (directory != nullptr)
            m_path = ACE_WString(directory, std::wcslen(directory));
    }
    Path::RunPath(m_path, name);
}

PidFile::~PidFile() {
    // Only the holder of the lock removes the file: a second instance that
    // failed at the lock leaves the first one's file alone.
    if (m_written)
        ::unlink(utf8String(m_path.c_str()).c_str());
    if (get_handle() != ACE_INVALID_HANDLE)
        ACE_File_Lock::remove(false);
}

int PidFile::setPid(long pid) {
    if (get_handle() != ACE_INVALID_HANDLE)
        return 0;
    std::string const file = utf8String(m_path.c_str());
    if (ACE_File_Lock::open(file.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, kPidFileMode) ==
        -1) {
        TW_LOG("%D ERROR (%t): Can not open pid file %W: %m\n", m_path.c_str());
        return -1;
    }
    // The mode is the pid file's whatever the umask says.
    ::fchmod(get_handle(), kPidFileMode);
    if (pid == 0)
        pid = static_cast<long>(::getpid());
    if (tryacquire(SEEK_SET, 0, 1) == -1)
        return -1;
    char text[kPidTextSize];
    int const length = std::snprintf(text, sizeof text, "%ld\n", pid);
    if (length <= 0 || static_cast<size_t>(length) >= sizeof text)
        return -1;
    if (::lseek(get_handle(), 0, SEEK_SET) != 0)
        return -1;
    if (::write(get_handle(), text, static_cast<size_t>(length)) != length)
        return -1;
    ::fsync(get_handle());
    m_written = true;
    return 0;
}

long PidFile::getPid() {
    std::string const file = utf8String(m_path.c_str());
    int const descriptor = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0)
        return -1;
    char text[kPidTextSize + 1];
    std::memset(text, 0, sizeof text);
    ssize_t const got = ::read(descriptor, text, kPidTextSize);
    int const error = errno;
    ::close(descriptor);
    if (got < 0) {
        errno = error;
        text[0] = '\0';
    }
    long const pid = std::atoi(text);
    return pid < 2 ? -1 : pid;
}

bool PidFile::isRunning() {
    long const pid = getPid();
    if (pid == -1)
        return false;
    // EPERM: the process exists, but belongs to somebody else.
    return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

// ---------------------------------------------------------------------------
// DaemonApplicationReloadTask

DaemonApplicationReloadTask::DaemonApplicationReloadTask(DaemonApplication* application)
    : m_application(application), m_thread() {}

DaemonApplicationReloadTask::~DaemonApplicationReloadTask() {
    // The thread may be in a reload; it names this object.
    m_thread.join(this);
}

const wchar_t* DaemonApplicationReloadTask::name() {
    return L"reload";
}

int DaemonApplicationReloadTask::open() {
    m_thread.reset();
    return 0;
}

int DaemonApplicationReloadTask::run() {
    return m_thread.start(this, kReloadStackSize);
}

int DaemonApplicationReloadTask::close() {
    return m_thread.close(this, kCloseTicks);
}

int DaemonApplicationReloadTask::svc() {
    // Signal handlers never run in the middle of a reload.
    ACE_Sig_Guard const blocked;
    while (!m_thread.stopRequested()) {
        if (m_application != nullptr && m_application->reload_pending()) {
            SystemdService* const service = SystemdService::instance();
            if (service != nullptr)
                service->report("RELOADING=1\nSTATUS=The service is reloading.");
            m_application->reload();
            m_application->reload_pending(false);
            if (service != nullptr)
                service->report("READY=1\nSTATUS=The service is running.");
        }
        if (m_thread.pause(kPollTicks))
            break;
    }
    m_thread.finished();
    return 0;
}

void DaemonApplicationReloadTask::setTick(const ACE_Time_Value& tick) {
    m_thread.setTick(tick);
}

// ---------------------------------------------------------------------------
// DaemonApplication

DaemonApplication::DaemonApplication() : Application(), m_reloadTask(nullptr) {
    Configuration* config = getConfigSingleton();
    if (config != nullptr)
        config->import(DAEMON_SETTINGS);
    m_reloadTask = new DaemonApplicationReloadTask(this);
    register_task(m_reloadTask, 1);
    SystemdService::instance();
}

DaemonApplication::~DaemonApplication() {}

int DaemonApplication::run(int argc, wchar_t** const argv) {
    SystemdService* const service = SystemdService::instance();
    errno = 0;
    if (Application::open(argc, argv) == -1 || service == nullptr || service->open(this) == -1)
        return errno != 0 ? 1 : 0;
    errno = 0;
    if (validate() == -1)
        return errno != 0 ? 1 : 0;
    int const opened = open_all_tasks();
    if (opened == -1)
        return opened;
    if (register_signal_handlers() == -1)
        return 1;
    int const result = service->run();
    // A signal that came during the run is handled before run() returns.
    wait_for_signals();
    return result;
}

int DaemonApplication::close() {
    return 0;
}

int DaemonApplication::handle_signal(int signum, siginfo_t* info, ucontext_t* context) {
    if (signum == SIGINT || signum == SIGTERM) {
        SystemdService* const service = SystemdService::instance();
        if (service != nullptr)
            service->report("STOPPING=1\nSTATUS=The service is stopping.");
    }
    return Application::handle_signal(signum, info, context);
}

}  // namespace Tarnwick
