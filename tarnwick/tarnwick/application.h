// The frame of every client program: Application, its Tasks, and the Service
// abstraction of a host service.
#pragma once

#include <tarnwick/export.h>

#include <ace/Event_Handler.h>
#include <ace/Sig_Handler.h>
#include <ace/Task.h>

#include <atomic>
#include <cstddef>
#include <string>

namespace Tarnwick {

class Application;

// A unit of long-running work, driven by the Application through its life:
// open, run, any number of reload and reload_ready, suspend, and close.
// Work usually runs on threads that run() starts; svc() is the thread body.
//
// open() and close() hide ACE's open(void*) and close(u_long) on purpose:
// they are the task's own life, and ACE still calls its close(u_long) when a
// thread of the task ends. A subclass overrides open() and close() only.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Woverloaded-virtual"
class TARNWICK_EXPORT Task : public ACE_Task<ACE_MT_SYNCH> {
public:
    Task();
    ~Task() override;

    // The task's name; "no" + name is the setting that switches it off.
    virtual const wchar_t* name() = 0;
    // Prepares the task; -1 stops the start-up. 0 here.
    virtual int open();
    // Ends the task; the result is ignored. 0 here.
    virtual int close();
    // Takes new configuration; -1 stops the reload. 0 here.
    virtual int reload();
    // Starts the work; -1 stops the start-up. 0 here.
    virtual int run();
    // Told after every task has reloaded; the result is ignored. 0 here.
    virtual int reload_ready();
    int suspend() override;

    // Deletes the task.
    void destroy();
    // False when the setting "no" + name() has the value 0.
    bool enabled();
};
#pragma GCC diagnostic pop

// One registered task, with whether the application owns (deletes) it.
class TARNWICK_EXPORT TaskSlot {
public:
    TaskSlot();
    TaskSlot(const TaskSlot& other);
    TaskSlot& operator=(const TaskSlot& other);
    ~TaskSlot();

    Task* task;
    int owned;
};

// The host service that a daemon runs as.
class TARNWICK_EXPORT Service {
public:
    Service();
    virtual ~Service();
    // Remembers the application. 0.
    virtual int open(Application* application);
    virtual int run() = 0;
    const wchar_t* description();
    const wchar_t* long_description();

protected:
    Application* m_application;
};

// The base of every client program. A subclass declares its settings in its
// constructor, implements name(), description(), long_description() and
// main(), and its entry point returns run(argc, argv).
//
// run() parses the command line (--help and --version end the process with
// status 0), reads the configuration, sets the log mask ("quiet", "debug")
// and the log file ("logfile", or <log>/<name()>.log, made with mode 0640),
// installs handlers for SIGINT and SIGTERM (close), SIGSEGV (log and abort)
// and SIGHUP (reload request), and runs main(). Its exit status is 1 when
// opening fails or main() returns -1, otherwise main()'s result.
//
// Signal handlers do no work of their own: they note the signal and wake a
// small signal thread of the library, which runs handle_signal() (the log
// line, close(), the reload request) on a normal thread, one signal after
// the other. A second SIGINT or SIGTERM ends the process by the default
// action; SIGSEGV writes its two lines with write(2) on the crashing thread
// and aborts. See docs/application.md.
class TARNWICK_EXPORT Application : public ACE_Event_Handler {
public:
    Application();
    ~Application() override;

    // The first command-line argument, or null.
    virtual const wchar_t* binaryname();
    // Short name: the default product of the settings, the log file's name.
    virtual const wchar_t* name() = 0;
    // One-line title, shown in the version line.
    virtual const wchar_t* description() = 0;
    virtual const wchar_t* long_description() = 0;
    // "6.6.3.0".
    virtual const wchar_t* version();
    // The work of the program; the result is the exit status.
    virtual int main() = 0;
    // Runs the program; returns the exit status.
    virtual int run(int argc, wchar_t** const argv);
    // The same for UTF-8 arguments, as main(int, char**) receives them.
    int run(int argc, char** argv);
    // Marks the program stopped and closes the tasks in reverse order. 0.
    virtual int close();
    // Hook run at the end of opening; 0 here.
    virtual int open();
    // Reloads every enabled task, then tells each that all are reloaded.
    // 0, or -1 (logged) when a task fails.
    virtual int reload();
    virtual int suspend();
    // Hook run after opening; -1 ends run(). 0 here.
    virtual int validate();
    // Registers a task; with `owned` the application deletes it. 0, or -1
    // with errno ENOMEM.
    virtual int register_task(Task* task, int owned);

    // What a handled signal does; run on the signal thread for the signals
    // that arrive, and callable directly. SIGHUP: the reload request; SIGINT,
    // SIGTERM: the handler is taken away and close() runs; SIGSEGV: logged,
    // then abort(). 0.
    int handle_signal(int signum, siginfo_t* info = nullptr,
                      ucontext_t* context = nullptr) override;

    void stop();
    int isStopped();
    void reload_pending(bool pending);
    bool reload_pending();
    // The log file chosen from "logfile" or "log". 0, or -1 when there is
    // none.
    int getLogFile(std::string& out);

protected:
    // Parses and reads the configuration, sets up the log; then open().
    virtual int open(int argc, wchar_t** const argv);

    // Registers this object for SIGINT, SIGTERM, SIGSEGV and SIGHUP, in this
    // order, and starts the signal thread that runs handle_signal(). 0; -1
    // (logged, errno set) when the thread can't be started.
    int register_signal_handlers();
    // Waits until every signal that arrived so far has been handled.
    void wait_for_signals();

    int open_all_tasks();
    int start_all_tasks();
    int close_all_tasks();
    int reload_all_tasks();
    int notify_reload_ready_all_tasks();
    int suspend_all_tasks();
    // The first task of exactly that name, enabled or not; null if none.
    Task* findTask(const wchar_t* name);

private:
    Application(const Application&);
    Application& operator=(const Application&);

    std::atomic<wchar_t*> m_binaryname;
    std::atomic<wchar_t*> m_retiredName;  // the binary name after close(), freed later
    std::atomic<int> m_stopped;
    std::atomic<bool> m_reloadPending;
    TaskSlot* m_tasks;
    size_t m_count;
    size_t m_capacity;
    ACE_Sig_Handler m_signalHandler;
};

}  // namespace Tarnwick
