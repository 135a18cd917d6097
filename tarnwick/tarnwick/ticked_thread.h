// The thread of a task that wakes once per tick and ends on request.
#pragma once

#include <ace/Condition_Thread_Mutex.h>
#include <ace/Task.h>
#include <ace/Thread_Mutex.h>
#include <ace/Time_Value.h>

#include <atomic>
#include <cstddef>

namespace Tarnwick {

// One joinable thread of a task, a stop request that cuts its waits short,
// and the mark of its end. The tick is one second unless set (tests shorten
// it). The task's svc() waits with pause() and calls finished() last.
class Ticked_Thread {
public:
    Ticked_Thread();
    Ticked_Thread(const Ticked_Thread&) = delete;
    Ticked_Thread& operator=(const Ticked_Thread&) = delete;

    // Clears the stop request and the end mark.
    void reset();
    // Starts the task's thread, joinable so that the thread is known to be
    // gone before the task is. 0, or -1 when it can't be started.
    int start(ACE_Task<ACE_MT_SYNCH>* task, size_t stack_size);
    // Asks the thread to end and waits up to `ticks` ticks for it, then
    // joins it: 0, or -1 when it is still running.
    int close(ACE_Task<ACE_MT_SYNCH>* task, int ticks);
    // Asks the thread to end and joins it, however long that takes (for a
    // destructor: the thread names the task).
    void join(ACE_Task<ACE_MT_SYNCH>* task);

    // In the thread: waits `ticks` ticks or until the stop request. True
    // when stop is asked for.
    bool pause(int ticks);
    // In the thread, last: marks its end.
    void finished();
    bool stopRequested() const { return m_stop; }

    void setTick(const ACE_Time_Value& tick) { m_tick = tick; }

private:
    void requestStop();

    std::atomic<bool> m_stop;
    std::atomic<bool> m_stopped;
    ACE_Time_Value m_tick;
    ACE_Thread_Mutex m_lock;
    ACE_Condition_Thread_Mutex m_wake;
    bool m_started;
};

}  // namespace Tarnwick
