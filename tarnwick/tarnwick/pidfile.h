// The application of a long-running, externally controlled process, and its
// pid file.
#pragma once

#include <tarnwick/application.h>
#include <tarnwick/export.h>
#include <tarnwick/ticked_thread.h>

#include <ace/Condition_Thread_Mutex.h>
#include <ace/File_Lock.h>
#include <ace/SString.h>
#include <ace/Thread_Mutex.h>
#include <ace/Time_Value.h>

#include <atomic>

namespace Tarnwick {

class DaemonApplication;

// A locked file that holds a process number: "<pid>\n" from offset 0. It is
// "<value of pid>/<name>.pid", made with mode 0644, and the object that wrote
// it removes it at its end.
class TARNWICK_EXPORT PidFile : public ACE_File_Lock {
public:
    explicit PidFile(const wchar_t* name);
    ~PidFile();

    // Writes `pid` (0: this process) under a lock held for the object's life.
    // 0; 0 without writing when this object has written before; -1 when the
    // file can't be opened (logged) or another process holds the lock (the
    // file has then been truncated).
    int setPid(long pid);
    // The number in the file, or -1 (no file, or a number below 2).
    long getPid();
    // Whether the process of the file's number exists (kill(pid, 0)).
    bool isRunning();
    const ACE_WString& path() const { return m_path; }

private:
    PidFile(const PidFile&);
    PidFile& operator=(const PidFile&);

    ACE_WString m_path;
    bool m_written;
};

// Polls the application's reload request every 2 seconds and runs its
// reload() on a thread of its own, with signals blocked. close() gives the
// thread 60 seconds.
class TARNWICK_EXPORT DaemonApplicationReloadTask : public Task {
public:
    explicit DaemonApplicationReloadTask(DaemonApplication* application);
    ~DaemonApplicationReloadTask() override;
    DaemonApplicationReloadTask(const DaemonApplicationReloadTask&) = delete;
    DaemonApplicationReloadTask& operator=(const DaemonApplicationReloadTask&) = delete;

    // "reload".
    const wchar_t* name() override;
    // Clears both flags. 0.
    int open() override;
    // Asks the thread to end; 0 when it ended within 60 ticks, else -1.
    int close() override;
    // Starts the thread. 0 or -1.
    int run() override;
    int svc() override;

    // One second of the task (1 s unless set): the poll is 2 ticks, the
    // close waits 60. For tests and tools; set it before run().
    void setTick(const ACE_Time_Value& tick);

private:
    DaemonApplication* m_application;
    Ticked_Thread m_thread;
};

// The Application of a daemon: it has the actions "stop", "reload" and
// "check" and those of the service, its first task is the reload task, and
// run() hands the process to the SystemdService, which carries out the
// action or runs main(). main() calls start_all_tasks() itself.
//
// SIGINT and SIGTERM are the stop control: systemd is told STOPPING=1 and
// close() runs, which does nothing here; a daemon that wants its tasks
// closed and isStopped() set overrides it (Application::close() does both).
class TARNWICK_EXPORT DaemonApplication : public Application {
public:
    DaemonApplication();
    ~DaemonApplication() override;

    // Opens, validates, opens the tasks, installs the signal handlers and
    // runs the service. The exit status: 1 or 0 when opening or validation
    // fails (1 when errno tells why), -1 when a task fails to open,
    // otherwise the service's result.
    int run(int argc, wchar_t** const argv) override;
    using Application::run;
    // 0, and nothing else.
    int close() override;
    // Tells systemd of the stop control before the handling of SIGINT and
    // SIGTERM; otherwise as Application::handle_signal.
    int handle_signal(int signum, siginfo_t* info = nullptr,
                      ucontext_t* context = nullptr) override;

protected:
    // The reload task, owned by the application's task list.
    DaemonApplicationReloadTask* reloadTask() { return m_reloadTask; }

private:
    DaemonApplication(const DaemonApplication&);
    DaemonApplication& operator=(const DaemonApplication&);

    DaemonApplicationReloadTask* m_reloadTask;
};

}  // namespace Tarnwick
