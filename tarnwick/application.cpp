#include <tarnwick/application.h>
#include <tarnwick/configuration.h>
#include <tarnwick/log.h>
#include <tarnwick/path.h>
#include <tarnwick/tarnwick.h>

#include <ace/ACE.h>
#include <ace/Guard_T.h>
#include <ace/Log_Msg.h>
#include <ace/OS_NS_string.h>

#include <libxml/parser.h>
#include <libxml/xmlversion.h>

#include <syslog.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cwchar>
#include <fstream>
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

// UTF-8 form of wide text; empty for null or text that can't be converted.
std::string narrow(const wchar_t* text) {
    std::string out;
    wcstoutf8(text, out);
    return out;
}

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
        out = narrow(logfile.c_str());
        return 0;
    }
    if (!hasDirectory || (needName && name == nullptr) || !Path::IsDirectory(directory))
        return -1;
    Path::Join(directory, name);
    directory += L".log";
    out = narrow(directory.c_str());
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
    // so that a signal after its end finds the default action instead.
    for (int const signum : kHandledSignals) {
        if (m_signalHandler.handler(signum) == this)
            m_signalHandler.remove_handler(signum);
    }
    ACE::strdelete(m_binaryname);
    m_binaryname = nullptr;
    ACE::strdelete(m_retiredName);
    m_retiredName = nullptr;
    delete[] m_tasks;
    m_tasks = nullptr;
    xmlCleanupParser();
}

const wchar_t* Application::binaryname() {
    return m_binaryname;
}

const wchar_t* Application::version() {
    return L"6.6.3.0";
}

int Application::open(int argc, wchar_t** const argv) {
    ACE::strdelete(m_retiredName);
    m_retiredName = nullptr;
    if (argc >= 1 && argv != nullptr && argv[0] != nullptr) {
        ACE::strdelete(m_binaryname);
        m_binaryname = ACE::strnew(argv[0]);
    }

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
        std::ofstream* stream =
            new (std::nothrow) std::ofstream(file.c_str(), std::ios::out | std::ios::app);
        if (stream == nullptr) {
            errno = ENOMEM;
            return -1;
        }
        if (!stream->good()) {
            int const error = errno;
            delete stream;
            reportLogFileFailure(error);
            TW_LOG("%D ERROR (%t): Can not open logfile for writing: %m\n");
            return -1;
        }
        // ACE_Log_Msg owns the stream from here on.
        log->msg_ostream(stream, true);
        TW_LOG("%D DEBUG (%t): Logging output to %C\n", file.c_str());
        std::string const program = narrow(name());
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

    for (int const signum : kHandledSignals)
        m_signalHandler.register_handler(signum, this);

    int const result = main();
    return result == -1 ? 1 : result;
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
    // close() runs in a signal handler, where freeing memory isn't safe: the
    // name is set aside here and freed by open() or the destructor.
    if (m_retiredName == nullptr) {
        m_retiredName = m_binaryname;
        m_binaryname = nullptr;
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
    m_stopped = 1;
}

int Application::isStopped() {
    return m_stopped;
}

void Application::reload_pending(bool pending) {
    m_reloadPending = pending;
}

bool Application::reload_pending() {
    return m_reloadPending;
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
