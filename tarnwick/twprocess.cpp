#include <tarnwick/exception.h>
#include <tarnwick/log.h>
#include <tarnwick/process_termination.h>
#include <tarnwick/twprocess.h>

#include "child_spawn.h"

#include <ace/Guard_T.h>
#include <ace/OS_NS_fcntl.h>
#include <ace/OS_NS_unistd.h>

#include <fcntl.h>

#include <cerrno>
#include <string>

namespace Tarnwick {

namespace {

const char Source[] = "TWProcess";
const size_t Environment_Buffer = 16384;
const size_t Environment_Entries = 512;
// A new log file: readable by the group, as the application's own logs.
const mode_t Log_Mode = 0640;

[[noreturn]] void fail(errornumber_t number, const std::string& text) {
    throw Exception(number, SEVERITY_SEVERE, Source, text);
}

}  // namespace

AbstractProcess::~AbstractProcess() {}

void TWProcess::Child::forget() {
    child_id_ = ACE_INVALID_PID;
    exit_code_ = 0;
}

TWProcess::TWProcess() : m_logHandle(ACE_INVALID_HANDLE), m_running(false), m_reaped(false) {}

TWProcess::TWProcess(const std::string& command, const std::string& logFile)
    : m_command(command),
      m_logFile(logFile),
      m_logHandle(ACE_INVALID_HANDLE),
      m_running(false),
      m_reaped(false) {}

TWProcess::~TWProcess() {
    closeLog();
}

void TWProcess::closeLog() {
    if (m_logHandle != ACE_INVALID_HANDLE) {
        ACE_OS::close(m_logHandle);
        m_logHandle = ACE_INVALID_HANDLE;
    }
}

void TWProcess::setCommand(const std::string& command) {
    m_command = command;
}

void TWProcess::setLogFile(const std::string& logFile) {
    m_logFile = logFile;
}

void TWProcess::run() {
    TW_LOG("%D DEBUG (%t): Starting process. Command is: %C\n", m_command.c_str());
    start();
}

void TWProcess::start() {
    if (m_running) {
        errno = EBUSY;
        fail(ERR_PROCESS_SPAWN, "Failed to start process: could not spawn");
    }
    ACE_Process_Options options(true, m_command.size() + 2, Environment_Buffer,
                                Environment_Entries);
    if (ChildSpawn::setCommandLine(options, m_command) == -1)
        fail(ERR_PROCESS_COMMAND_LINE,
             "Failed to start process: Prepare command failed for command " + m_command);

    closeLog();
    m_logHandle = ACE_OS::open(m_logFile.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, Log_Mode);
    if (m_logHandle == ACE_INVALID_HANDLE)
        fail(ERR_PROCESS_LOG_FILE, "Unable to open logfile: " + m_logFile);

    ACE_HANDLE const input = ChildSpawn::openNullInput();
    if (input == ACE_INVALID_HANDLE)
        fail(ERR_PROCESS_LOG_FILE, "Unable to open nul input handle");
    int const handles = options.set_handles(input, m_logHandle, m_logHandle);
    ACE_OS::close(input);
    if (handles == -1 || options.get_stdin() == ACE_INVALID_HANDLE ||
        options.get_stdout() == ACE_INVALID_HANDLE || options.get_stderr() == ACE_INVALID_HANDLE)
        fail(ERR_PROCESS_HANDLES, "Failed to start process: Set handles failed");

    for (const char* const name : ChildSpawn::Library_Path_Variables) {
        if (options.setenv(name, "%s", "") == -1)
            fail(ERR_PROCESS_ENVIRONMENT,
                 std::string("Failed to start process: Set environment variable ") + name +
                     " failed");
    }

    pid_t pid;
    {
        ACE_GUARD_REACTION(ACE_Thread_Mutex, guard, m_lock, (void)0);
        pid = ChildSpawn::spawn(m_process, options, true);
        if (pid == -1) {
            int const error = errno;
            m_process.forget();
            errno = error;
        } else {
            m_reaped = false;
        }
    }
    if (pid == -1)
        fail(ERR_PROCESS_SPAWN, "Failed to start process: could not spawn");
    m_running = true;
}

long TWProcess::getPid() const {
    // Read even when the lock can't be taken.
    ACE_GUARD_REACTION(ACE_Thread_Mutex, guard, m_lock, (void)0);
    return static_cast<long>(m_process.getpid());
}

void TWProcess::kill(int signal) {
    long const pid = getPid();
    if (pid == -1)
        return;
    bool sent;
    {
        ACE_GUARD_REACTION(ACE_Thread_Mutex, guard, m_lock, (void)0);
        if (m_reaped) {
            errno = ESRCH;
            sent = false;
        } else {
            sent = terminate_process(-pid, signal) == 0;
        }
    }
    if (!sent)
        fail(ERR_PROCESS_TERMINATE, "Failed to terminate process with PID: " + std::to_string(pid));
}

int TWProcess::getExitCode() {
    return ChildSpawn::exitCode(m_process.exit_code());
}

int TWProcess::wait() {
    ACE_exitcode status = 0;
    pid_t pid;
    bool reaped;
    {
        ACE_GUARD_REACTION(ACE_Thread_Mutex, guard, m_lock, (void)0);
        pid = m_process.getpid();
        reaped = m_reaped;
    }
    if (pid == ACE_INVALID_PID || reaped) {
        errno = ECHILD;
    } else {
        // The child ends but stays a zombie, holding its id, until it is
        // reaped here under the lock that kill takes. One that can't be
        // waited for (reaped elsewhere) counts as reaped: its id is free.
        int const ended = ChildSpawn::awaitEnd(pid);
        int const error = errno;
        ACE_GUARD_REACTION(ACE_Thread_Mutex, guard, m_lock, (void)0);
        if (ended == 0 && ChildSpawn::wait(m_process, nullptr) == pid) {
            status = m_process.exit_code();
            m_reaped = true;
        } else if (ended != 0 && error == ECHILD) {
            m_reaped = true;
            errno = error;
        }
    }
    m_running = false;
    int const error = errno;
    closeLog();
    errno = error;
    return ChildSpawn::exitCode(status);
}

bool TWProcess::isRunning() const {
    return m_running;
}

}  // namespace Tarnwick
