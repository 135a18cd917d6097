// A task with one thread that runs a small fixed table of periodic jobs.
#pragma once

#include <tarnwick/application.h>
#include <tarnwick/export.h>
#include <tarnwick/ticked_thread.h>

#include <ace/Condition_Thread_Mutex.h>
#include <ace/Thread_Mutex.h>
#include <ace/Time_Value.h>

#include <atomic>
#include <cstdint>

namespace Tarnwick {

// One periodic job of a Scheduler.
class TARNWICK_EXPORT Scheduled_Task {
public:
    Scheduled_Task();
    Scheduled_Task(const Scheduled_Task& other);
    Scheduled_Task& operator=(const Scheduled_Task& other);
    virtual ~Scheduled_Task();

    // Seconds until the next run; read anew after each run. Must be above 0.
    virtual int interval() = 0;
    // The job; -1 means it failed (logged, and it runs again at its time).
    virtual int execute() = 0;

protected:
    // Left to the subclass; the scheduler doesn't use it.
    int m_value;
};

// Runs up to 10 jobs on one thread with a resolution of one second. Every
// job runs once when the thread starts, then every interval() seconds after
// the end of the pass in which it last ran; a job that runs long delays the
// others. Jobs are registered before run() and owned by the scheduler.
//
// The waits count in ticks of one second, measured with ACE_OS::gettimeofday;
// setTick() shortens the tick for tests and tools, and close() gives the
// thread 60 ticks to end.
class TARNWICK_EXPORT Scheduler : public Task {
public:
    enum { MAX_SCHEDULES = 10 };

    Scheduler();
    // Stops and joins the thread, then deletes every job.
    ~Scheduler() override;
    Scheduler(const Scheduler&) = delete;
    Scheduler& operator=(const Scheduler&) = delete;

    // "scheduler".
    const wchar_t* name() override;
    // Takes ownership of `job` when it returns 0. -1 when 10 jobs are
    // registered (logged) or the job's interval() is not above 0 (not
    // logged); the job then stays the caller's.
    int register_task(Scheduled_Task* job);
    // Clears the flags. 0.
    int open() override;
    // Starts the thread. 0, or -1 when it can't be started.
    int run() override;
    // Asks the thread to end and waits up to 60 ticks for it: 0 when it
    // ended, -1 when a job still runs.
    int close() override;
    int svc() override;

    // The length of one second of the scheduler; 1 s unless set. Set it
    // before run().
    void setTick(const ACE_Time_Value& tick);
    // The current wake-up step in seconds (0 before the first pass).
    unsigned int step() const;
    // The number of passes over the table since the thread started.
    unsigned long passes() const;
    // Jobs registered.
    int count() const;

private:
    Ticked_Thread m_thread;
    struct Entry {
        Scheduled_Task* job;
        uint32_t left;
    };
    Entry m_schedules[MAX_SCHEDULES];
    int m_slotsUsed;
    int m_scheduleCount;
    std::atomic<unsigned int> m_step;
    std::atomic<unsigned long> m_passes;
};

}  // namespace Tarnwick
