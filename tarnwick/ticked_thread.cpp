#include <tarnwick/system.h>
#include <tarnwick/ticked_thread.h>

#include <ace/Guard_T.h>
#include <ace/OS_NS_sys_time.h>

namespace Tarnwick {

Ticked_Thread::Ticked_Thread()
    : m_stop(false), m_stopped(false), m_tick(1, 0), m_lock(), m_wake(m_lock), m_started(false) {}

void Ticked_Thread::reset() {
    m_stop = false;
    m_stopped = false;
}

int Ticked_Thread::start(ACE_Task<ACE_MT_SYNCH>* task, size_t stack_size) {
    int const result = startThread(task, 1, stack_size, true);
    if (result == 0)
        m_started = true;
    return result;
}

void Ticked_Thread::requestStop() {
    ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
    m_stop = true;
    m_wake.broadcast();
}

int Ticked_Thread::close(ACE_Task<ACE_MT_SYNCH>* task, int ticks) {
    requestStop();
    for (int i = 0; i < ticks; ++i) {
        if (m_stopped) {
            if (m_started) {
                task->wait();
                m_started = false;
            }
            return 0;
        }
        ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
        ACE_Time_Value const until = ACE_OS::gettimeofday() + m_tick;
        while (!m_stopped && ACE_OS::gettimeofday() < until)
            m_wake.wait(&until);
    }
    return -1;
}

void Ticked_Thread::join(ACE_Task<ACE_MT_SYNCH>* task) {
    if (!m_started)
        return;
    requestStop();
    task->wait();
    m_started = false;
}

bool Ticked_Thread::pause(int ticks) {
    ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
    ACE_Time_Value const until = ACE_OS::gettimeofday() + m_tick * static_cast<double>(ticks);
    while (!m_stop && ACE_OS::gettimeofday() < until)
        m_wake.wait(&until);
    return m_stop;
}

void Ticked_Thread::finished() {
    ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
    m_stopped = true;
    m_wake.broadcast();
}

}  // namespace Tarnwick
