// Long-running child processes that are started, watched and stopped, with
// failures reported by Exception.
#pragma once

#include <tarnwick/export.h>

#include <ace/Process.h>
#include <ace/Thread_Mutex.h>

#include <atomic>
#include <string>

namespace Tarnwick {

// The interface of a managed child process.
class TARNWICK_EXPORT AbstractProcess {
public:
    virtual ~AbstractProcess();
    virtual void run() = 0;
    virtual long getPid() const = 0;
    virtual void kill(int signal) = 0;
    virtual int getExitCode() = 0;
    virtual void setCommand(const std::string& command) = 0;
    virtual void setLogFile(const std::string& logFile) = 0;
    virtual int wait() = 0;
    virtual bool isRunning() const = 0;
};

// A child process whose standard output and standard error go to a named
// log file, emptied at each start. The child leads a process group of its
// own, so that kill reaches it and everything it started. The command line
// (UTF-8) is split into arguments at spaces, with '...' and "..." keeping
// spaces, and the program is looked up in PATH; "%%" stands for one '%'. The
// child reads /dev/null, inherits no other descriptor of this process, and
// finds LIBPATH, LD_LIBRARY_PATH, SHLIB_PATH and DYLD_LIBRARY_PATH empty.
//
// Failures throw Exception with severity 5 and the source "TWProcess"
// (each logs itself): 500 "Unable to open logfile: <path>" or "Unable to
// open nul input handle"; 501 "Failed to start process: Prepare command
// failed for command <command>" (text that isn't UTF-8, a NUL, more than 126
// arguments); 502 "Failed to start process: Set handles failed"; 504
// "Failed to start process: could not spawn" (no program, one that can't be
// run, a child that still runs); 505 "Failed to start process: Set
// environment variable <name> failed"; 506 "Failed to terminate process
// with PID: <pid>".
//
// wait blocks its caller; kill, getPid and isRunning may be called from
// another thread meanwhile. The owner waits for every child it started: one
// never waited for stays a zombie, and the destructor neither waits nor
// kills.
class TARNWICK_EXPORT TWProcess : public AbstractProcess {
public:
    TWProcess();
    TWProcess(const std::string& command, const std::string& logFile);
    ~TWProcess() override;
    TWProcess(const TWProcess&) = delete;
    TWProcess& operator=(const TWProcess&) = delete;

    // Logs "Starting process. Command is: <command>" at debug priority and
    // starts the child; throws as above. Once it returns the child's
    // program runs. A TWProcess may run again after wait.
    void run() override;
    // The child's pid; -1 before a start and after a failed one.
    long getPid() const override;
    // Ends the child and everything in its process group with SIGKILL,
    // whatever `signal` says. Returns at once when there is no child; throws
    // 506 when the group can't be signalled, or when the child has been
    // waited for already (its id may mean another process by now). The owner
    // still calls wait.
    void kill(int signal) override;
    // The exit code of the child once waited for: the code it exited with,
    // or 128 and the number of the signal that ended it; 0 before.
    int getExitCode() override;
    void setCommand(const std::string& command) override;
    void setLogFile(const std::string& logFile) override;
    // Blocks until the child ends, reaps it, closes the log and returns its
    // exit code (as getExitCode). Without a child to wait for: 0 (errno
    // ECHILD), after closing the log of a failed start.
    int wait() override;
    // True from a successful run until wait returns, also after the child
    // ended by itself: nothing polls.
    bool isRunning() const override;

protected:
    // Opens the log and starts the child; throws as above.
    virtual void start();

private:
    // The child: ACE_Process, which can forget a child that failed to start.
    class Child : public ACE_Process {
    public:
        void forget();
    };

    void closeLog();

    std::string m_command;
    std::string m_logFile;
    Child m_process;
    ACE_HANDLE m_logHandle;
    // Guards the child's id and whether it has been reaped, so that kill
    // never signals an id that a reaped child has left behind.
    mutable ACE_Thread_Mutex m_lock;
    std::atomic<bool> m_running;
    bool m_reaped;
};

}  // namespace Tarnwick
