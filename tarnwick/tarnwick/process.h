// Running an auxiliary program as a child process, with its output captured
// in a temporary file.
#pragma once

#include <tarnwick/export.h>
#include <tarnwick/temporary_file.h>

#include <ace/Process.h>
#include <ace/Time_Value.h>

#include <string>

namespace Tarnwick {

// Runs one command line as a child process whose standard output and
// standard error go to a Temporary_File, and waits for it or not. Failures
// are return values with errno; nothing throws.
//
// The command line is split into arguments at spaces, with '...' and "..."
// keeping spaces, and the program is looked up in PATH; no shell is
// involved. "%%" in the command line stands for one '%'. The child reads
// /dev/null as its standard input, inherits no other descriptor of this
// process, and finds the variables LIBPATH, LD_LIBRARY_PATH, SHLIB_PATH and
// DYLD_LIBRARY_PATH set to the empty value.
//
// The owner waits for a child that it started: one never waited for stays a
// zombie until this process ends. A Process belongs to the thread that runs
// it.
class TARNWICK_EXPORT Process : public ACE_Process {
public:
    // Copies `commandLine` (null counts as empty). Without `logFile`, spawn
    // makes and later destroys a file of its own; a given file stays the
    // caller's, and is opened by spawn if it isn't open. Logs
    // "Executing: <command line>" at debug priority.
    Process(const wchar_t* commandLine, Temporary_File* logFile);
    ~Process() override;
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // Starts the child; with `wait`, waits for it, at most `timeout` when
    // one is given. Without waiting: 0 once the child's program runs. With
    // a timeout: 0 when the child ended in time, -1 otherwise (errno ETIME
    // when it still runs; it goes on running). Without a timeout: the
    // child's pid, or -1. -1 when the child couldn't be started, with errno
    // (ENOENT or EACCES for a program that can't be run, EINVAL for an empty
    // command line, EILSEQ for one that isn't valid text).
    int run(bool wait, const ACE_Time_Value* timeout);
    // Runs `commandLine` to its end: the child's exit code (see
    // getExitCode), or -1 when it couldn't be started or waited for.
    static int run(const wchar_t* commandLine, Temporary_File* logFile = nullptr);

    // Waits for the started child, at most `timeout` when one is given: as
    // run with `wait`. -1 with errno ECHILD when no child was started.
    int wait(const ACE_Time_Value* timeout = nullptr);

    // The path of the file that takes the output, or null without one.
    const wchar_t* getLogFile() const;
    const wchar_t* getCommandLine() const;
    // The child's exit code once it has been waited for: the code it exited
    // with, or 128 and the number of the signal that ended it; 0 before.
    int getExitCode() const;
    // The child's pid; -1 before a start and after a failed one.
    long getPid() const;
    // Keeps the file that spawn makes after use, and has spawn log its name.
    // Only a call before run has an effect.
    void keepTheLogfile();

    // Logs "Terminating <pid>" at debug priority and returns -1 with errno
    // ENOSYS: it signals nothing. A TWProcess stops its child with all that
    // the child started; terminate_process ends any process.
    static int killProcessGroup(long pid);

private:
    using ACE_Process::spawn;
    // Makes the log file if needed and starts the child: 0 or -1.
    virtual int spawn();
    // Forgets the pid of a child that failed to start and has been reaped.
    void forgetChild();

    std::wstring m_commandLine;
    Temporary_File* m_logFile;
    bool m_ownsLogFile;
    bool m_keepLogfile;
};

}  // namespace Tarnwick
