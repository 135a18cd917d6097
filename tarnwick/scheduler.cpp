#include <tarnwick/log.h>
#include <tarnwick/scheduler.h>
#include <tarnwick/system.h>

#include <ace/Guard_T.h>
#include <ace/OS_NS_Thread.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/Sig_Adapter.h>
#include <ace/Signal.h>

namespace Tarnwick {

namespace {

// The stack of the scheduler's thread.
const size_t kStackSize = 0x40000;
// close() waits this many ticks for the thread.
const int kCloseTicks = 60;

}  // namespace

// ---------------------------------------------------------------------------
// Scheduled_Task

Scheduled_Task::Scheduled_Task() : m_value(0) {}

Scheduled_Task::Scheduled_Task(const Scheduled_Task& other) : m_value(other.m_value) {}

Scheduled_Task& Scheduled_Task::operator=(const Scheduled_Task& other) {
    m_value = other.m_value;
    return *this;
}

Scheduled_Task::~Scheduled_Task() {}

// ---------------------------------------------------------------------------
// Scheduler

Scheduler::Scheduler()
    : m_thread(), m_schedules(), m_slotsUsed(0), m_scheduleCount(0), m_step(0), m_passes(0) {
    for (Entry& entry : m_schedules) {
        entry.job = nullptr;
        entry.left = 0;
    }
}

Scheduler::~Scheduler() {
    // The thread may still be in a job: it is waited for, since it reads
    // the table that goes now.
    m_thread.join(this);
    for (int i = 0; i < m_slotsUsed; ++i)
        delete m_schedules[i].job;
}

const wchar_t* Scheduler::name() {
    return L"scheduler";
}

int Scheduler::register_task(Scheduled_Task* job) {
    if (m_slotsUsed >= MAX_SCHEDULES) {
        TW_LOG("%D ERROR (%t): (Internal error) Trying to define too many schedules.\n");
        return -1;
    }
    if (job == nullptr || job->interval() <= 0)
        return -1;
    m_schedules[m_slotsUsed].job = job;
    m_schedules[m_slotsUsed].left = static_cast<uint32_t>(job->interval());
    ++m_slotsUsed;
    ++m_scheduleCount;
    return 0;
}

int Scheduler::open() {
    m_thread.reset();
    return 0;
}

int Scheduler::run() {
    return m_thread.start(this, kStackSize);
}

int Scheduler::close() {
    return m_thread.close(this, kCloseTicks);
}

int Scheduler::svc() {
    // Signals are kept away from this thread for its whole life.
    ACE_Sig_Guard const blocked;

    for (int i = 0; i < m_scheduleCount; ++i)
        m_schedules[i].job->execute();

    // The step only shrinks: it is the smallest number of seconds left that
    // any pass has seen.
    uint32_t step = 0;
    while (!m_thread.stopRequested()) {
        for (int i = 0; i < m_scheduleCount; ++i) {
            if (m_schedules[i].left < step || step == 0)
                step = m_schedules[i].left;
        }
        m_step = step;
        if (step != 0) {
            for (uint32_t second = 0; second < step; ++second) {
                if (m_thread.pause(1))
                    break;
            }
        } else if (m_scheduleCount == 0) {
            ACE_OS::thr_yield();
        }
        for (int i = 0; i < m_scheduleCount; ++i) {
            if (m_thread.stopRequested())
                break;
            Entry& entry = m_schedules[i];
            uint32_t const left = entry.left;
            entry.left = left - step;
            if (left == step) {
                if (entry.job->execute() == -1)
                    TW_LOG("%D ERROR (%t): A problem occurred while executing schedule.\n");
                entry.left = static_cast<uint32_t>(entry.job->interval());
            }
        }
        ++m_passes;
    }

    m_thread.finished();
    return 0;
}

void Scheduler::setTick(const ACE_Time_Value& tick) {
    m_thread.setTick(tick);
}

unsigned int Scheduler::step() const {
    return m_step.load();
}

unsigned long Scheduler::passes() const {
    return m_passes.load();
}

int Scheduler::count() const {
    return m_scheduleCount;
}

}  // namespace Tarnwick
