#include <tarnwick/log.h>
#include <tarnwick/process.h>
#include <tarnwick/utf8.h>

#include "child_spawn.h"

#include <ace/OS_NS_unistd.h>

#include <cerrno>
#include <new>

namespace Tarnwick {

namespace {

// The sizes of the options: the command line with room for its terminator,
// the environment entries that are added.
const size_t Environment_Buffer = 16384;
const size_t Environment_Entries = 512;

}  // namespace

Process::Process(const wchar_t* commandLine, Temporary_File* logFile)
    : m_commandLine(commandLine != nullptr ? commandLine : L""),
      m_logFile(logFile),
      m_ownsLogFile(logFile == nullptr),
      m_keepLogfile(false) {
    TW_LOG("%D DEBUG (%t): Executing: %W\n", m_commandLine.c_str());
}

Process::~Process() {
    if (m_ownsLogFile && m_logFile != nullptr)
        delete m_logFile;
}

void Process::forgetChild() {
    child_id_ = ACE_INVALID_PID;
    exit_code_ = 0;
}

int Process::spawn() {
    if (m_logFile == nullptr) {
        m_logFile = new (std::nothrow) Temporary_File(L"tarnwick-process", m_keepLogfile);
        if (m_logFile == nullptr) {
            errno = ENOMEM;
            return -1;
        }
        m_ownsLogFile = true;
        if (m_logFile->open() == -1)
            return -1;
    } else if (m_logFile->get_handle() == ACE_INVALID_HANDLE && m_logFile->open() == -1) {
        return -1;
    }
    if (m_keepLogfile)
        TW_LOG("%D DEBUG (%t): Storing process output in %W\n", m_logFile->filename());

    std::string command;
    if (!wcstoutf8(m_commandLine.c_str(), command))
        return -1;
    ACE_Process_Options options(true, command.size() + 2, Environment_Buffer, Environment_Entries);
    if (ChildSpawn::setCommandLine(options, command) == -1)
        return -1;

    ACE_HANDLE const input = ChildSpawn::openNullInput();
    if (input == ACE_INVALID_HANDLE)
        return -1;
    ACE_HANDLE const output = m_logFile->get_handle();
    int const handles = options.set_handles(input, output, output);
    int const error = errno;
    ACE_OS::close(input);
    if (handles == -1 || options.get_stdin() == ACE_INVALID_HANDLE ||
        options.get_stdout() == ACE_INVALID_HANDLE) {
        errno = error != 0 ? error : EBADF;
        return -1;
    }

    errno = 0;
    for (const char* const name : ChildSpawn::Library_Path_Variables)
        (void)options.setenv(name, "%s", "");

    if (ChildSpawn::spawn(*this, options, false) == -1) {
        int const failure = errno;
        forgetChild();
        errno = failure;
        return -1;
    }
    return 0;
}

int Process::run(bool wait, const ACE_Time_Value* timeout) {
    if (spawn() == -1)
        return -1;
    if (!wait)
        return 0;
    return this->wait(timeout);
}

int Process::wait(const ACE_Time_Value* timeout) {
    pid_t const result = ChildSpawn::wait(*this, timeout);
    if (timeout != nullptr)
        return result < 1 ? -1 : 0;
    return result;
}

int Process::run(const wchar_t* commandLine, Temporary_File* logFile) {
    Process process(commandLine, logFile);
    if (process.spawn() == -1)
        return -1;
    if (ChildSpawn::wait(process, nullptr) == -1)
        return -1;
    return process.getExitCode();
}

const wchar_t* Process::getLogFile() const {
    return m_logFile != nullptr ? m_logFile->filename() : nullptr;
}

const wchar_t* Process::getCommandLine() const {
    return m_commandLine.c_str();
}

int Process::getExitCode() const {
    return ChildSpawn::exitCode(exit_code());
}

long Process::getPid() const {
    return static_cast<long>(getpid());
}

void Process::keepTheLogfile() {
    m_keepLogfile = true;
}

int Process::killProcessGroup(long pid) {
    TW_LOG("%D DEBUG (%t): Terminating %d\n", static_cast<int>(pid));
    errno = ENOSYS;
    return -1;
}

}  // namespace Tarnwick
