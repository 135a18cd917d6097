#include <tarnwick/application.h>
#include <tarnwick/configuration.h>
#include <tarnwick/log.h>
#include <tarnwick/path.h>
#include <tarnwick/system.h>
#include <tarnwick/utf8.h>

#include <ace/ACE.h>
#include <ace/Guard_T.h>
#include <ace/Log_Msg.h>
#include <ace/OS_NS_Thread.h>
#include <ace/OS_NS_string.h>
#include <ace/Thread.h>

#include <libxml/parser.h>
#include <libxml/xmlversion.h>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <cwchar>
#include <fstream>
#include <mutex>
#include <new>
#include <string>
#include <vector>

namespace Tarnwick {

namespace {

// The signals that an application handles, in the order of registration.
// SIGHUP is the reload request.
const int kHandledSignals[] = {SIGINT, SIGTERM, SIGSEGV, SIGHUP};

// The first array of task slots holds this many; each growth doubles it.
const size_t kFirstTaskCapacity = 10;

// A log file is made readable for its owner and group only: it can hold
// debug dumps of configuration and messages.
const mode_t kLogFileMode = 0640;

// ---------------------------------------------------------------------------
// Signals
//
// The function that the kernel runs for a handled signal (relaySignal) does
// only what is safe there: it counts the signal, writes its number into a
// pipe and, for SIGINT and SIGTERM, puts the default action back at once so
// that a second one ends the process. The signal thread reads the pipe and
// runs the application's handle_signal() on a normal thread, in the order in
// which the signals came. SIGSEGV can't wait for another thread: its lines
// are written with write(2) from text prepared beforehand, then abort().

static_assert(std::atomic<int>::is_always_lock_free, "signal state must be lock-free");
static_assert(std::atomic<unsigned long>::is_always_lock_free, "signal state must be lock-free");

// The signals that go through the signal thread.
const int kRelayedSignals[] = {SIGINT, SIGTERM, SIGHUP};

// The pipe's ends; made once and kept for the life of the process, so that a
// signal handler never meets a closed descriptor.
std::atomic<int> wakeWriter{-1};
int wakeReader = -1;
// Signals caught by relaySignal, and those of them that found the pipe full.
std::atomic<unsigned long> signalsCaught{0};
std::atomic<int> signalsMissed[NSIG];

// What the crash lines need, prepared on a normal thread.
struct CrashText {
    char caught[160];  // "): Caught signal 'Segmentation fault'\n"
    char crashed[96];  // "): Application has crashed..  caught signal 11\n"
};
CrashText crashText;
std::atomic<int> crashReady{0};
// The log's state when the handlers were installed or a signal last handled.
std::atomic<unsigned long> logMask{0};
std::atomic<unsigned long> logFlags{0};
std::atomic<long> utcOffset{0};
// A descriptor of the log file, for the crash lines; -1 without one.
std::atomic<int> logFileDescriptor{-1};

void refreshLogState() {
    ACE_Log_Msg* const log = ACE_Log_Msg::instance();
    logMask.store(log->priority_mask(ACE_Log_Msg::PROCESS) |
                  log->priority_mask(ACE_Log_Msg::THREAD));
    logFlags.store(log->flags());
    std::time_t const now = std::time(nullptr);
    std::tm local;
    if (localtime_r(&now, &local) != nullptr)
        utcOffset.store(local.tm_gmtoff);
}

void prepareCrashText() {
    if (crashReady.load() != 0)
        return;
    const char* const name = ACE_OS::strsignal(SIGSEGV);
    std::snprintf(crashText.caught, sizeof crashText.caught, "): Caught signal '%s'\n",
                  name != nullptr ? name : "11");
    std::snprintf(crashText.crashed, sizeof crashText.crashed,
                  "): Application has crashed..  caught signal 11\n");
    crashReady.store(1);
}

// Appends `text` to the buffer at `at`, within `end`; async-signal-safe.
char* put(char* at, char* end, const char* text) {
    while (*text != '\0' && at < end)
        *at++ = *text++;
    return at;
}

// Appends `value` in decimal with at least `width` digits; async-signal-safe.
char* putNumber(char* at, char* end, unsigned long value, int width) {
    char digits[24];
    int count = 0;
    do {
        digits[count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0 && count < 24);
    while (count < width && count < 24)
        digits[count++] = '0';
    while (count > 0 && at < end)
        *at++ = digits[--count];
    return at;
}

// The start of a log line as ACE writes it for "%D LEVEL (%t", from the
// clock and the offset of local time kept by refreshLogState;
// async-signal-safe.
char* putLinePrefix(char* at, char* end, const char* level) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    long long const seconds = static_cast<long long>(now.tv_sec) + utcOffset.load();
    long long days = seconds / 86400;
    long long rest = seconds % 86400;
    if (rest < 0) {
        rest += 86400;
        --days;
    }
    // Civil date from the days since 1970-01-01.
    days += 719468;
    long long const era = (days >= 0 ? days : days - 146096) / 146097;
    long long const dayOfEra = days - era * 146097;
    long long const yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    long long const dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    long long const monthIndex = (5 * dayOfYear + 2) / 153;
    long long const day = dayOfYear - (153 * monthIndex + 2) / 5 + 1;
    long long const month = monthIndex < 10 ? monthIndex + 3 : monthIndex - 9;
    long long const year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
    at = putNumber(at, end, static_cast<unsigned long>(year), 4);
    at = put(at, end, "-");
    at = putNumber(at, end, static_cast<unsigned long>(month), 2);
    at = put(at, end, "-");
    at = putNumber(at, end, static_cast<unsigned long>(day), 2);
    at = put(at, end, " ");
    at = putNumber(at, end, static_cast<unsigned long>(rest / 3600), 2);
    at = put(at, end, ":");
    at = putNumber(at, end, static_cast<unsigned long>(rest / 60 % 60), 2);
    at = put(at, end, ":");
    at = putNumber(at, end, static_cast<unsigned long>(rest % 60), 2);
    at = put(at, end, ".");
    at = putNumber(at, end, static_cast<unsigned long>(now.tv_nsec / 1000), 6);
    at = put(at, end, " ");
    at = put(at, end, level);
    at = put(at, end, " (");
    return putNumber(at, end, static_cast<unsigned long>(::syscall(SYS_gettid)), 1);
}

// Writes one crash line where ACE_Log_Msg would; async-signal-safe.
void writeCrashLine(const char* level, const char* rest) {
    char line[256];
    char* const end = line + sizeof line;
    char* at = putLinePrefix(line, end, level);
    at = put(at, end, rest);
    size_t const length = static_cast<size_t>(at - line);
    unsigned long const flags = logFlags.load();
    if ((flags & ACE_Log_Msg::STDERR) != 0) {
        ssize_t const written = ::write(STDERR_FILENO, line, length);
        (void)written;
    }
    int const file = logFileDescriptor.load();
    if ((flags & ACE_Log_Msg::OSTREAM) != 0 && file >= 0) {
        ssize_t const written = ::write(file, line, length);
        (void)written;
    }
}

// SIGSEGV: takes the handler away, logs the two lines and aborts, with
// nothing but async-signal-safe calls.
[[noreturn]] void crash() {
    struct sigaction fallback = {};
    fallback.sa_handler = SIG_DFL;
    sigemptyset(&fallback.sa_mask);
    ::sigaction(SIGSEGV, &fallback, nullptr);
    if (crashReady.load() != 0) {
        unsigned long const mask = logMask.load();
        if ((mask & LM_DEBUG) != 0)
            writeCrashLine("DEBUG", crashText.caught);
        if ((mask & LM_ERROR) != 0)
            writeCrashLine("ERROR", crashText.crashed);
    }
    std::abort();
}

extern "C" void relaySignal(int signum, siginfo_t*, void*) {
    int const error = errno;
    if (signum == SIGSEGV)
        crash();
    if (signum == SIGINT || signum == SIGTERM) {
        // The handler is taken away: a second one takes the default action.
        struct sigaction fallback = {};
        fallback.sa_handler = SIG_DFL;
        sigemptyset(&fallback.sa_mask);
        ::sigaction(signum, &fallback, nullptr);
    }
    signalsCaught.fetch_add(1);
    unsigned char const byte = static_cast<unsigned char>(signum);
    int const writer = wakeWriter.load();
    if (writer < 0 || ::write(writer, &byte, 1) != 1) {
        if (signum > 0 && signum < NSIG)
            signalsMissed[signum].fetch_add(1);
    }
    errno = error;
}

// The signal thread and the application it serves. One per process: signal
// handlers are process-wide.
class SignalThread {
public:
    static SignalThread& instance() {
        // Never destroyed: a signal may come while the process exits.
        static SignalThread* const thread = new SignalThread();
        return *thread;
    }

    // Makes `application` the one whose handle_signal runs, starting the
    // thread if need be. 0, or -1 with errno.
    int attach(Application* application) {
        std::lock_guard<std::mutex> guard(mutex_);
        if (!makePipe())
            return -1;
        target_ = application;
        if (running_) {
            stopping_ = false;
            return 0;
        }
        // The thread blocks every signal but those of faults, so that the
        // kernel never runs a handler on it.
        sigset_t all;
        sigset_t previous;
        sigfillset(&all);
        for (int const fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS})
            sigdelset(&all, fault);
        ::pthread_sigmask(SIG_BLOCK, &all, &previous);
        int const result = ACE_Thread::spawn(&SignalThread::body, this, THR_NEW_LWP | THR_JOINABLE,
                                             &id_, &handle_);
        int const error = errno;
        ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        if (result != 0) {
            errno = error != 0 ? error : EAGAIN;
            return -1;
        }
        running_ = true;
        return 0;
    }

    // Stops serving `application`; when it was the one served, the thread
    // ends once the signal in hand is handled.
    void detach(Application* application) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (target_ != application || !running_)
            return;
        target_ = nullptr;
        if (ACE_OS::thr_equal(ACE_OS::thr_self(), id_)) {
            // Detached from within a handler: the thread ends by itself.
            stopping_ = true;
            return;
        }
        running_ = false;
        lock.unlock();
        unsigned char const quit = 0;
        while (::write(wakeWriter.load(), &quit, 1) != 1) {
            if (errno != EAGAIN && errno != EINTR)
                break;
            pollfd wait = {wakeWriter.load(), POLLOUT, 0};
            ::poll(&wait, 1, 100);
        }
        ACE_Thread::join(handle_);
    }

    // Returns when every signal caught so far has been handled.
    void drain() {
        std::unique_lock<std::mutex> lock(mutex_);
        if (ACE_OS::thr_equal(ACE_OS::thr_self(), id_))
            return;
        unsigned long const goal = signalsCaught.load();
        handled_changed_.wait(lock, [this, goal]() { return !running_ || handled_ >= goal; });
    }

private:
    SignalThread() = default;

    bool makePipe() {
        if (wakeReader >= 0)
            return true;
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0)
            return false;
        ::fcntl(ends[1], F_SETFL, ::fcntl(ends[1], F_GETFL) | O_NONBLOCK);
        wakeReader = ends[0];
        wakeWriter.store(ends[1]);
        return true;
    }

    static ACE_THR_FUNC_RETURN body(void* self) {
        static_cast<SignalThread*>(self)->serve();
        return 0;
    }

    void serve() {
        for (;;) {
            unsigned char byte = 0;
            ssize_t const got = ::read(wakeReader, &byte, 1);
            if (got < 0 && errno == EINTR)
                continue;
            if (got != 1 || byte == 0)
                return;
            dispatch(byte, 1);
            for (int const signum : kRelayedSignals) {
                int const missed = signalsMissed[signum].exchange(0);
                if (missed > 0)
                    dispatch(signum, static_cast<unsigned long>(missed));
            }
            std::lock_guard<std::mutex> guard(mutex_);
            if (stopping_) {
                stopping_ = false;
                running_ = false;
                handled_changed_.notify_all();
                return;
            }
        }
    }

    // Runs the application's handle_signal for `signum`, which came `count`
    // times.
    void dispatch(int signum, unsigned long count) {
        Application* application = nullptr;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            application = target_;
        }
        if (application != nullptr)
            application->handle_signal(signum);
        refreshLogState();
        std::lock_guard<std::mutex> guard(mutex_);
        handled_ += count;
        handled_changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable handled_changed_;
    Application* target_ = nullptr;
    bool running_ = false;
    bool stopping_ = false;
    unsigned long handled_ = 0;
    ACE_thread_t id_{};
    ACE_hthread_t handle_{};
};

// The log file that the configuration names: the value of "logfile" when it
// has one, else <log>/<name>.log when "log" names a directory. With
// `needName`, a null name means there is none. 0 with `out` set, or -1.
int chooseLogFile(const wchar_t* name, bool needName, std::string& out) {
    Configuration* config = getConfigSingleton();
    if (config == nullptr)
        return -1;
    // The values are copied under the lock: another thread's reload may
    // replace them.
    ACE_WString logfile;
    ACE_WString directory;
    bool hasLogfile = false;
    bool hasDirectory = false;
    {
        ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, config->lock(), -1);
        const wchar_t* value = config->asString(L"logfile");
        if (value != nullptr) {
            logfile = ACE_WString(value, ::wcslen(value));
            hasLogfile = true;
        } else {
            value = config->asString(L"log");
            if (value != nullptr) {
                directory = ACE_WString(value, ::wcslen(value));
                hasDirectory = true;
            }
        }
    }
    if (hasLogfile) {
        out = utf8String(logfile.c_str());
        return 0;
    }
    if (!hasDirectory || (needName && name == nullptr) || !Path::IsDirectory(directory))
        return -1;
    Path::Join(directory, name);
    directory += L".log";
    out = utf8String(directory.c_str());
    return 0;
}

// Tells the system log that the log file can't be opened: the process has no
// log of its own yet. errno is kept.
void reportLogFileFailure(int error) {
    std::string text("Can not open Tarnwick Agent logfile for writing: ");
    text += ACE_OS::strerror(error);
    text += "\n";
    ::openlog("twagent", LOG_PID, LOG_USER);
    ::syslog(LOG_ERR, "%s", text.c_str());
    ::closelog();
    errno = error;
}

}  // namespace

// ---------------------------------------------------------------------------
// Task

Task::Task() {}

Task::~Task() {}

int Task::open() {
    return 0;
}

int Task::close() {
    return 0;
}

int Task::reload() {
    return 0;
}

int Task::run() {
    return 0;
}

int Task::reload_ready() {
    return 0;
}

int Task::suspend() {
    return 0;
}

void Task::destroy() {
    delete this;
}

bool Task::enabled() {
    std::wstring key(L"no");
    const wchar_t* const own = name();
    if (own != nullptr)
        key += own;
    bool result = true;
    Configuration* config = getConfigSingleton();
    if (config != nullptr)
        config->getValue(key.c_str(), result, false, false);
    return result;
}

// ---------------------------------------------------------------------------
// TaskSlot

TaskSlot::TaskSlot() : task(nullptr), owned(0) {}

TaskSlot::TaskSlot(const TaskSlot& other) : task(other.task), owned(other.owned) {}

TaskSlot& TaskSlot::operator=(const TaskSlot& other) {
    task = other.task;
    owned = other.owned;
    return *this;
}

TaskSlot::~TaskSlot() {
    if (owned != 0 && task != nullptr)
        delete task;
}

// ---------------------------------------------------------------------------
// Service

Service::Service() : m_application(nullptr) {}

Service::~Service() {}

int Service::open(Application* application) {
    m_application = application;
    return 0;
}

const wchar_t* Service::description() {
    return m_application != nullptr ? m_application->description() : nullptr;
}

const wchar_t* Service::long_description() {
    return m_application != nullptr ? m_application->long_description() : nullptr;
}

// ---------------------------------------------------------------------------
// Application

Application::Application()
    : ACE_Event_Handler(),
      m_binaryname(nullptr),
      m_retiredName(nullptr),
      m_stopped(0),
      m_reloadPending(false),
      m_tasks(nullptr),
      m_count(0),
      m_capacity(0),
      m_signalHandler() {
    xmlCheckVersion(20703);
    xmlInitParser();
    Configuration* config = getConfigSingleton();
    if (config != nullptr) {
        config->import(APPLICATION_SETTINGS);
        if (config->isUsingDefaults())
            config->import(PATH_SETTINGS);
        if (config->isUsingWebservices())
            config->import(WEBSERVICE_SETTINGS);
    }
}

Application::~Application() {
    // The signal handlers name this object: take away those that still do,
    // so that a signal after its end finds the default action instead. Then
    // the signal thread lets go of it, after the signal in hand.
    for (int const signum : kHandledSignals) {
        if (m_signalHandler.handler(signum) == this)
            m_signalHandler.remove_handler(signum);
    }
    SignalThread::instance().detach(this);
    ACE::strdelete(m_binaryname.exchange(nullptr));
    ACE::strdelete(m_retiredName.exchange(nullptr));
    delete[] m_tasks;
    m_tasks = nullptr;
    xmlCleanupParser();
}

const wchar_t* Application::binaryname() {
    return m_binaryname.load();
}

const wchar_t* Application::version() {
    return L"6.6.3.0";
}

int Application::open(int argc, wchar_t** const argv) {
    ACE::strdelete(m_retiredName.exchange(nullptr));
    if (argc >= 1 && argv != nullptr && argv[0] != nullptr)
        ACE::strdelete(m_binaryname.exchange(ACE::strnew(argv[0])));

    Configuration* config = getConfigSingleton();
    if (config == nullptr || config->open(this, argc, argv) == -1)
        return -1;

    set_fd_limit(4 * ACE::max_handles());

    // "quiet" keeps only notices and above; otherwise information is shown,
    // and with "debug" everything.
    ACE_Log_Msg* log = ACE_Log_Msg::instance();
    u_long mask = log->priority_mask(ACE_Log_Msg::PROCESS);
    mask &= ~static_cast<u_long>(LM_TRACE | LM_DEBUG | LM_INFO);
    if (!config->hasKey(L"quiet")) {
        mask |= LM_INFO;
        if (config->hasKey(L"debug")) {
            TW_LOG("%D DEBUG (%t): Agent has key debug\n");
            mask |= LM_TRACE | LM_DEBUG | LM_INFO;
        }
    }
    log->priority_mask(mask, ACE_Log_Msg::PROCESS);

    std::string file;
    if (chooseLogFile(name(), true, file) == 0 && !file.empty()) {
        // The file is made here, with its mode; an existing file keeps its
        // own. The descriptor stays open for the lines of a crash.
        int const descriptor =
            ::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, kLogFileMode);
        std::ofstream* stream = nullptr;
        if (descriptor >= 0) {
            stream = new (std::nothrow) std::ofstream(file.c_str(), std::ios::out | std::ios::app);
            if (stream == nullptr) {
                ::close(descriptor);
                errno = ENOMEM;
                return -1;
            }
        }
        if (stream == nullptr || !stream->good()) {
            int const error = errno;
            delete stream;
            if (descriptor >= 0)
                ::close(descriptor);
            errno = error;
            reportLogFileFailure(error);
            TW_LOG("%D ERROR (%t): Can not open logfile for writing: %m\n");
            return -1;
        }
        int const previous = logFileDescriptor.exchange(descriptor);
        if (previous >= 0)
            ::close(previous);
        // ACE_Log_Msg owns the stream from here on.
        log->msg_ostream(stream, true);
        TW_LOG("%D DEBUG (%t): Logging output to %C\n", file.c_str());
        std::string const program = utf8String(name());
        log->open(program.c_str(), ACE_Log_Msg::STDERR | ACE_Log_Msg::OSTREAM, nullptr);
    }

    return open();
}

int Application::open() {
    return 0;
}

int Application::validate() {
    return 0;
}

int Application::run(int argc, wchar_t** const argv) {
    if (open(argc, argv) == -1)
        return 1;

    // errno is cleared first, so that only what validate() itself reports
    // decides between the two exit statuses of a refusal.
    errno = 0;
    if (validate() == -1)
        return errno != 0 ? 1 : 0;

    if (register_signal_handlers() == -1)
        return 1;

    int const result = main();
    // A signal that came during main() is handled before run() returns.
    wait_for_signals();
    return result == -1 ? 1 : result;
}

int Application::register_signal_handlers() {
    if (SignalThread::instance().attach(this) == -1) {
        TW_LOG_ERRNO("%D ERROR (%t): Can not start the signal thread");
        return -1;
    }
    prepareCrashText();
    refreshLogState();
    for (int const signum : kHandledSignals) {
        m_signalHandler.register_handler(signum, this);
        // ACE_Sig_Handler keeps this object as the signal's handler and has
        // set the action's flags and mask; the function that the kernel
        // runs is the relay, which leaves the work to the signal thread.
        struct sigaction action;
        if (::sigaction(signum, nullptr, &action) == 0) {
            action.sa_sigaction = relaySignal;
            action.sa_flags |= SA_SIGINFO;
            ::sigaction(signum, &action, nullptr);
        }
    }
    return 0;
}

void Application::wait_for_signals() {
    SignalThread::instance().drain();
}

int Application::run(int argc, char** argv) {
    if (argc < 0 || (argc > 0 && argv == nullptr))
        argc = 0;
    // The wide arguments live until the run is over. A null argument ends
    // the list, as it ends argv.
    std::vector<wchar_t*> wide(static_cast<size_t>(argc) + 1, nullptr);
    int status = 0;
    bool converted = true;
    for (int i = 0; i < argc; ++i) {
        if (argv[i] == nullptr) {
            argc = i;
            break;
        }
        wide[static_cast<size_t>(i)] = utf8towcs_malloced(argv[i]);
        if (wide[static_cast<size_t>(i)] == nullptr) {
            TW_LOG("%D ERROR (%t): Can not convert command line argument %d to wide text: %m\n", i);
            converted = false;
            break;
        }
    }
    status = converted ? run(argc, wide.data()) : 1;
    for (wchar_t* text : wide)
        wcsfree(text);
    return status;
}

int Application::handle_signal(int signum, siginfo_t*, ucontext_t*) {
    TW_LOG("%D DEBUG (%t): Caught signal '%S'\n", signum);
    switch (signum) {
        case SIGHUP:
            // The reload request.
            reload_pending(true);
            return 0;
        case SIGINT:
        case SIGTERM:
            m_signalHandler.remove_handler(signum);
            close();
            return 0;
        case SIGSEGV:
            m_signalHandler.remove_handler(signum);
            TW_LOG("%D ERROR (%t): Application has crashed..  caught signal 11\n");
            std::abort();
        default:
            return 0;
    }
}

int Application::close() {
    m_stopped = 1;
    // close() may run on the signal thread while another thread still reads
    // the name: it is set aside here and freed by open() or the destructor.
    wchar_t* const name = m_binaryname.exchange(nullptr);
    if (name != nullptr) {
        wchar_t* expected = nullptr;
        if (!m_retiredName.compare_exchange_strong(expected, name))
            ACE::strdelete(name);
    }
    close_all_tasks();
    return 0;
}

int Application::reload() {
    if (reload_all_tasks() == -1) {
        TW_LOG("%D ERROR (%t): Failure while reloading tasks.\n");
        return -1;
    }
    notify_reload_ready_all_tasks();
    return 0;
}

int Application::suspend() {
    return suspend_all_tasks();
}

void Application::stop() {
    m_stopped.store(1);
}

int Application::isStopped() {
    return m_stopped.load();
}

void Application::reload_pending(bool pending) {
    m_reloadPending.store(pending);
}

bool Application::reload_pending() {
    return m_reloadPending.load();
}

int Application::getLogFile(std::string& out) {
    return chooseLogFile(name(), false, out);
}

int Application::register_task(Task* task, int owned) {
    // A second task of a name already registered is accepted as it is.
    if (m_count == m_capacity) {
        size_t const capacity = m_capacity == 0 ? kFirstTaskCapacity : 2 * m_capacity;
        TaskSlot* slots = new (std::nothrow) TaskSlot[capacity];
        if (slots == nullptr) {
            errno = ENOMEM;
            return -1;
        }
        // The new array takes the ownership over: the old slots are cleared
        // before they go, so that no task is destroyed while the new array
        // still names it, however many owned tasks the application has.
        for (size_t i = 0; i < m_count; ++i) {
            slots[i].task = m_tasks[i].task;
            slots[i].owned = m_tasks[i].owned;
            m_tasks[i].owned = 0;
        }
        delete[] m_tasks;
        m_tasks = slots;
        m_capacity = capacity;
    }
    m_tasks[m_count].task = task;
    m_tasks[m_count].owned = owned;
    ++m_count;
    return 0;
}

Task* Application::findTask(const wchar_t* name) {
    if (name == nullptr)
        return nullptr;
    for (size_t i = 0; i < m_count; ++i) {
        Task* const task = m_tasks[i].task;
        if (task == nullptr)
            continue;
        const wchar_t* const own = task->name();
        if (own != nullptr && std::wcscmp(own, name) == 0)
            return task;
    }
    return nullptr;
}

// The walks pass over empty slots and disabled tasks. A failed walk undoes
// nothing: the tasks before the failure stay opened or started.

int Application::open_all_tasks() {
    for (size_t i = 0; i < m_count; ++i) {
        Task* const task = m_tasks[i].task;
        if (task == nullptr || !task->enabled())
            continue;
        TW_LOG("%D DEBUG (%t): Initializing task: %W\n", task->name());
        if (task->open() == -1) {
            TW_LOG("%D ERROR (%t): An error while initializing task: %W\n", task->name());
            return -1;
        }
    }
    return 0;
}

int Application::start_all_tasks() {
    for (size_t i = 0; i < m_count; ++i) {
        Task* const task = m_tasks[i].task;
        if (task == nullptr || !task->enabled())
            continue;
        TW_LOG("%D DEBUG (%t): Starting task: %W\n", task->name());
        if (task->run() == -1)
            return -1;
    }
    return 0;
}

int Application::close_all_tasks() {
    for (size_t i = m_count; i > 0; --i) {
        Task* const task = m_tasks[i - 1].task;
        if (task == nullptr || !task->enabled())
            continue;
        TW_LOG("%D DEBUG (%t): Closing task: %W\n", task->name());
        task->close();
    }
    return 0;
}

int Application::reload_all_tasks() {
    for (size_t i = 0; i < m_count; ++i) {
        Task* const task = m_tasks[i].task;
        if (task == nullptr || !task->enabled())
            continue;
        TW_LOG("%D DEBUG (%t): Reloading task: %W\n", task->name());
        if (task->reload() == -1)
            return -1;
    }
    return 0;
}

int Application::notify_reload_ready_all_tasks() {
    for (size_t i = 0; i < m_count; ++i) {
        Task* const task = m_tasks[i].task;
        if (task == nullptr || !task->enabled())
            continue;
        task->reload_ready();
    }
    return 0;
}

int Application::suspend_all_tasks() {
    for (size_t i = 0; i < m_count; ++i) {
        Task* const task = m_tasks[i].task;
        if (task == nullptr || !task->enabled())
            continue;
        TW_LOG("%D DEBUG (%t): Suspending task: %W\n", task->name());
        task->suspend();
    }
    return 0;
}

}  // namespace Tarnwick
