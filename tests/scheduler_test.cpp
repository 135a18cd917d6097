// Scheduler: the table of ten jobs, the shrinking step, failing jobs, and the
// bounded close. The scheduler's second is shortened with setTick, so that a
// job of 10 seconds runs every few milliseconds.
#include <tarnwick/scheduler.h>

#include <gtest/gtest.h>
#include <log_lines.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace {

using TarnwickTest::LogLines;

// Waits up to 10 seconds for `done`.
bool waitUntil(const std::function<bool()>& done) {
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// The order in which jobs ran, by their letters.
class Trace {
public:
    void add(char letter) {
        std::lock_guard<std::mutex> guard(mutex_);
        text_ += letter;
    }
    std::string text() {
        std::lock_guard<std::mutex> guard(mutex_);
        return text_;
    }

private:
    std::mutex mutex_;
    std::string text_;
};

// A job with a fixed interval that counts its runs and gives `result`.
class CountingJob : public Tarnwick::Scheduled_Task {
public:
    CountingJob(int interval, std::atomic<int>& runs, int result = 0, Trace* trace = nullptr,
                char letter = '?')
        : interval_(interval), runs_(runs), result_(result), trace_(trace), letter_(letter) {}
    int interval() override { return interval_.load(); }
    int execute() override {
        if (trace_ != nullptr)
            trace_->add(letter_);
        ++runs_;
        return result_;
    }
    std::atomic<int> interval_;

private:
    std::atomic<int>& runs_;
    int result_;
    Trace* trace_;
    char letter_;
};

const ACE_Time_Value kShortTick(0, 5000);  // 5 ms

TEST(SchedulerTest, NameIsScheduler) {
    Tarnwick::Scheduler scheduler;
    EXPECT_STREQ(L"scheduler", scheduler.name());
}

TEST(SchedulerTest, EleventhJobIsRefusedAndTheTenGoOn) {
    LogLines log;
    std::atomic<int> runs[11];
    for (std::atomic<int>& r : runs)
        r = 0;
    Tarnwick::Scheduler scheduler;
    scheduler.setTick(kShortTick);
    for (int i = 0; i < 10; ++i)
        ASSERT_EQ(0, scheduler.register_task(new CountingJob(1 + i % 3, runs[i])));
    CountingJob eleventh(1, runs[10]);
    EXPECT_EQ(-1, scheduler.register_task(&eleventh));
    EXPECT_EQ(1, log.count("%D ERROR (%t): (Internal error) Trying to define too many schedules."));
    EXPECT_EQ(10, scheduler.count());

    ASSERT_EQ(0, scheduler.open());
    ASSERT_EQ(0, scheduler.run());
    EXPECT_TRUE(waitUntil([&]() {
        for (int i = 0; i < 10; ++i) {
            if (runs[i] < 3)
                return false;
        }
        return true;
    }));
    EXPECT_EQ(0, scheduler.close());
    EXPECT_EQ(0, runs[10].load());
}

TEST(SchedulerTest, IntervalZeroIsRefusedWithoutMessage) {
    LogLines log;
    std::atomic<int> runs{0};
    Tarnwick::Scheduler scheduler;
    CountingJob zero(0, runs);
    CountingJob negative(-3, runs);
    EXPECT_EQ(-1, scheduler.register_task(&zero));
    EXPECT_EQ(-1, scheduler.register_task(&negative));
    EXPECT_EQ(0, scheduler.count());
    EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST(SchedulerTest, JobsRunAtOnceThenOnTimeWithAStepThatOnlyShrinks) {
    std::atomic<int> tenRuns{0};
    std::atomic<int> fifteenRuns{0};
    Trace trace;
    Tarnwick::Scheduler scheduler;
    scheduler.setTick(kShortTick);
    ASSERT_EQ(0, scheduler.register_task(new CountingJob(10, tenRuns, 0, &trace, 'A')));
    ASSERT_EQ(0, scheduler.register_task(new CountingJob(15, fifteenRuns, 0, &trace, 'B')));
    EXPECT_EQ(0u, scheduler.step());
    ASSERT_EQ(0, scheduler.open());
    ASSERT_EQ(0, scheduler.run());
    ASSERT_TRUE(waitUntil([&]() { return fifteenRuns >= 3; }));
    EXPECT_EQ(0, scheduler.close());
    // Seconds 0: A B; 10: A; 15: B; 20: A; 30: A B.
    EXPECT_EQ("ABABAAB", trace.text().substr(0, 7));
    // The step went 10, then 5, and stays 5.
    EXPECT_EQ(5u, scheduler.step());
}

TEST(SchedulerTest, FailingJobIsLoggedAndRunsAgain) {
    LogLines log;
    std::atomic<int> runs{0};
    Tarnwick::Scheduler scheduler;
    scheduler.setTick(kShortTick);
    ASSERT_EQ(0, scheduler.register_task(new CountingJob(1, runs, -1)));
    ASSERT_EQ(0, scheduler.open());
    ASSERT_EQ(0, scheduler.run());
    ASSERT_TRUE(waitUntil([&]() { return runs >= 4; }));
    ASSERT_EQ(0, scheduler.close());
    // The first run, at the start of the thread, is not judged.
    EXPECT_EQ(runs.load() - 1,
              log.count("%D ERROR (%t): A problem occurred while executing schedule."));
}

TEST(SchedulerTest, IntervalThatFallsToZeroSpinsWithoutSleeping) {
    std::atomic<int> runs{0};
    Tarnwick::Scheduler scheduler;
    // The stored first wait of one second (5 ms here) passes, then the job
    // no longer waits: at a sleep per run, 10000 runs would take 50 s.
    scheduler.setTick(kShortTick);
    CountingJob* job = new CountingJob(1, runs);
    ASSERT_EQ(0, scheduler.register_task(job));
    job->interval_ = 0;
    ASSERT_EQ(0, scheduler.open());
    ASSERT_EQ(0, scheduler.run());
    EXPECT_TRUE(waitUntil([&]() { return runs >= 10000; }));
    EXPECT_EQ(0u, scheduler.step());
    EXPECT_EQ(0, scheduler.close());
}

TEST(SchedulerTest, EmptyTableWaitsForStopWithoutSleeping) {
    Tarnwick::Scheduler scheduler;
    scheduler.setTick(ACE_Time_Value(60));
    ASSERT_EQ(0, scheduler.open());
    ASSERT_EQ(0, scheduler.run());
    EXPECT_TRUE(waitUntil([&]() { return scheduler.passes() >= 100; }));
    EXPECT_EQ(0u, scheduler.step());
    EXPECT_EQ(0, scheduler.close());
}

TEST(SchedulerTest, FirstRunsComeAtOnce) {
    std::atomic<int> runs{0};
    Tarnwick::Scheduler scheduler;
    scheduler.setTick(ACE_Time_Value(60));
    ASSERT_EQ(0, scheduler.register_task(new CountingJob(1000, runs)));
    ASSERT_EQ(0, scheduler.register_task(new CountingJob(2000, runs)));
    ASSERT_EQ(0, scheduler.open());
    ASSERT_EQ(0, scheduler.run());
    EXPECT_TRUE(waitUntil([&]() { return runs >= 2; }));
    // close() ends the sleep of a minute at once.
    EXPECT_EQ(0, scheduler.close());
    EXPECT_EQ(2, runs.load());
}

// A job that blocks in its second run until it is released.
class BlockingJob : public Tarnwick::Scheduled_Task {
public:
    int interval() override { return 1; }
    int execute() override {
        std::unique_lock<std::mutex> lock(mutex);
        if (++runs == 2) {
            entered = true;
            changed.notify_all();
            changed.wait(lock, [this]() { return released; });
        }
        return 0;
    }
    std::mutex mutex;
    std::condition_variable changed;
    int runs = 0;
    bool entered = false;
    bool released = false;
};

TEST(SchedulerTest, CloseWaitsSixtySecondsForARunningJobThenGivesMinusOne) {
    Tarnwick::Scheduler scheduler;
    scheduler.setTick(ACE_Time_Value(0, 10000));  // 10 ms
    BlockingJob* job = new BlockingJob();
    ASSERT_EQ(0, scheduler.register_task(job));
    ASSERT_EQ(0, scheduler.open());
    ASSERT_EQ(0, scheduler.run());
    {
        std::unique_lock<std::mutex> lock(job->mutex);
        ASSERT_TRUE(job->changed.wait_for(lock, std::chrono::seconds(10),
                                          [job]() { return job->entered; }));
    }
    auto const before = std::chrono::steady_clock::now();
    EXPECT_EQ(-1, scheduler.close());
    // 60 seconds of 10 ms each have passed.
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(590));
    {
        std::lock_guard<std::mutex> guard(job->mutex);
        job->released = true;
        job->changed.notify_all();
    }
    // Once the job is over, the thread ends and a second close sees it.
    EXPECT_EQ(0, scheduler.close());
}

}  // namespace
