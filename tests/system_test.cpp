// Tests of task threads, the file descriptor limit and the user switch.
#include <tarnwick/system.h>

#include <ace/Task.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace {

// ---------------------------------------------------------------------------
// startThread

// Records every run of svc, with the thread's stack size and detach state.
class RecordingTask : public ACE_Task<ACE_MT_SYNCH> {
public:
    int svc() override {
        pthread_attr_t attr;
        size_t stack = 0;
        int detach = -1;
        if (::pthread_getattr_np(::pthread_self(), &attr) == 0) {
            ::pthread_attr_getstacksize(&attr, &stack);
            ::pthread_attr_getdetachstate(&attr, &detach);
            ::pthread_attr_destroy(&attr);
        }
        std::lock_guard<std::mutex> lock(mutex_);
        ++runs_;
        stack_ = stack;
        detach_ = detach;
        changed_.notify_all();
        return 0;
    }

    bool waitForRuns(int runs) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return runs_ >= runs; });
    }

    int runs() {
        std::lock_guard<std::mutex> lock(mutex_);
        return runs_;
    }
    size_t stack() {
        std::lock_guard<std::mutex> lock(mutex_);
        return stack_;
    }
    int detach() {
        std::lock_guard<std::mutex> lock(mutex_);
        return detach_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int runs_ = 0;
    size_t stack_ = 0;
    int detach_ = -1;
};

TEST(StartThreadTest, NullTask) {
    EXPECT_EQ(-1, Tarnwick::startThread(nullptr, 1, 65536, true));
}

TEST(StartThreadTest, NegativeCount) {
    RecordingTask task;
    errno = 0;
    EXPECT_EQ(-1, Tarnwick::startThread(&task, -1, 65536, true));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(0u, task.thr_count());
}

TEST(StartThreadTest, ZeroThreads) {
    RecordingTask task;
    EXPECT_EQ(0, Tarnwick::startThread(&task, 0, 65536, true));
    EXPECT_EQ(0u, task.thr_count());
    EXPECT_EQ(0, task.runs());
}

TEST(StartThreadTest, Joinable) {
    RecordingTask task;
    size_t const stack = 256 * 1024;
    ASSERT_EQ(0, Tarnwick::startThread(&task, 2, stack, true));
    EXPECT_EQ(1, task.grp_id());
    EXPECT_EQ(0, task.wait());
    EXPECT_EQ(2, task.runs());
    // glibc may hand out a larger cached stack, never a smaller one.
    EXPECT_GE(task.stack(), stack);
    EXPECT_EQ(PTHREAD_CREATE_JOINABLE, task.detach());
}

TEST(StartThreadTest, Detached) {
    // The task outlives the detached thread, which still touches it after
    // svc; being static it also serves repeated runs of this test.
    static RecordingTask task;
    int const before = task.runs();
    size_t const stack = 512 * 1024;
    ASSERT_EQ(0, Tarnwick::startThread(&task, 1, stack, false));
    ASSERT_TRUE(task.waitForRuns(before + 1));
    EXPECT_EQ(before + 1, task.runs());
    EXPECT_GE(task.stack(), stack);
    EXPECT_EQ(PTHREAD_CREATE_DETACHED, task.detach());
    for (int i = 0; i < 1000 && task.thr_count() != 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(0u, task.thr_count());
}

// ---------------------------------------------------------------------------
// set_fd_limit / available_handles

// Restores the soft and hard RLIMIT_NOFILE of the process at the end of a test.
class FdLimitTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &saved_)); }
    void TearDown() override { EXPECT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &saved_)); }

    static rlim_t soft() {
        struct rlimit limit;
        ::getrlimit(RLIMIT_NOFILE, &limit);
        return limit.rlim_cur;
    }
    // Lowers the soft limit, which is always allowed.
    static void lowerSoft(rlim_t value) {
        struct rlimit limit;
        ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &limit));
        limit.rlim_cur = value;
        ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
    }

    // Open descriptors with a number below `limit`.
    static rlim_t openBelow(rlim_t limit) {
        rlim_t count = 0;
        for (rlim_t fd = 0; fd < limit; ++fd) {
            if (::fcntl(static_cast<int>(fd), F_GETFD) != -1) {
                ++count;
            }
        }
        return count;
    }
    static rlim_t highestOpen() {
        rlim_t highest = 0;
        for (rlim_t fd = 0; fd < soft(); ++fd) {
            if (::fcntl(static_cast<int>(fd), F_GETFD) != -1) {
                highest = fd;
            }
        }
        return highest;
    }

    struct rlimit saved_;
};

TEST_F(FdLimitTest, RaisesSoftLimitWithinHardLimit) {
    if (saved_.rlim_max < 300) {
        GTEST_SKIP() << "hard limit too low";
    }
    lowerSoft(200);
    EXPECT_EQ(0, Tarnwick::set_fd_limit(250));
    EXPECT_EQ(250u, soft());
    // Already above: left alone.
    EXPECT_EQ(0, Tarnwick::set_fd_limit(220));
    EXPECT_EQ(250u, soft());
    EXPECT_EQ(0, Tarnwick::set_fd_limit(0));
    EXPECT_EQ(250u, soft());
    // Beyond the hard limit: raised to the hard limit.
    if (saved_.rlim_max < static_cast<rlim_t>(INT_MAX)) {
        EXPECT_EQ(0, Tarnwick::set_fd_limit(static_cast<int>(saved_.rlim_max) + 1));
        EXPECT_EQ(saved_.rlim_max, soft());
    }
    struct rlimit now;
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &now));
    EXPECT_EQ(saved_.rlim_max, now.rlim_max);
}

TEST_F(FdLimitTest, NegativeLimit) {
    errno = 0;
    EXPECT_EQ(-1, Tarnwick::set_fd_limit(-1));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(saved_.rlim_cur, soft());
}

TEST_F(FdLimitTest, AvailableHandlesCountsOpenDescriptors) {
    int const before = Tarnwick::available_handles(0);
    ASSERT_GT(before, 0);
    EXPECT_LT(static_cast<rlim_t>(before), soft());
    int const fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_NE(-1, fd);
    EXPECT_EQ(before - 1, Tarnwick::available_handles(0));
    ::close(fd);
    EXPECT_EQ(before, Tarnwick::available_handles(-5));
}

TEST_F(FdLimitTest, AvailableHandlesRaisesTheLimit) {
    if (saved_.rlim_max < 1000) {
        GTEST_SKIP() << "hard limit too low";
    }
    rlim_t const low = highestOpen() + 11;
    lowerSoft(low);
    int const free_now = static_cast<int>(low - openBelow(low));
    EXPECT_EQ(free_now, Tarnwick::available_handles(0));
    EXPECT_EQ(free_now, Tarnwick::available_handles(free_now));  // enough already
    EXPECT_EQ(low, soft());
    // Raised just so far that 500 numbers are free below the new limit.
    EXPECT_EQ(500, Tarnwick::available_handles(500));
    EXPECT_EQ(500u, soft() - openBelow(soft()));
    EXPECT_EQ(500, Tarnwick::available_handles(0));
}

TEST_F(FdLimitTest, AvailableHandlesStopsAtTheHardLimit) {
    if (saved_.rlim_max >= static_cast<rlim_t>(INT_MAX) / 2) {
        GTEST_SKIP() << "hard limit too high";
    }
    int const result = Tarnwick::available_handles(static_cast<int>(saved_.rlim_max) + 10);
    EXPECT_EQ(saved_.rlim_max, soft());
    EXPECT_EQ(static_cast<int>(saved_.rlim_max - openBelow(saved_.rlim_max)), result);
}

// ---------------------------------------------------------------------------
// become_user

TEST(BecomeUserTest, UnknownUser) {
    uid_t const uid = ::getuid();
    errno = 0;
    EXPECT_EQ(-1, Tarnwick::become_user(L"tarnwick-no-such-user"));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(uid, ::getuid());
}

TEST(BecomeUserTest, BadName) {
    errno = 0;
    EXPECT_EQ(-1, Tarnwick::become_user(nullptr));
    EXPECT_EQ(EINVAL, errno);
    const wchar_t surrogate[] = {L'a', static_cast<wchar_t>(0xD800), 0};
    errno = 0;
    EXPECT_EQ(-1, Tarnwick::become_user(surrogate));
    EXPECT_EQ(EILSEQ, errno);
}

TEST(BecomeUserTest, SwitchesToNobodyInAChild) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    struct passwd* nobody = ::getpwnam("nobody");
    if (nobody == nullptr) {
        GTEST_SKIP() << "no user nobody";
    }
    uid_t const uid = nobody->pw_uid;
    gid_t const gid = nobody->pw_gid;
    pid_t const child = ::fork();
    ASSERT_NE(-1, child);
    if (child == 0) {
        if (Tarnwick::become_user(L"nobody") != 0) {
            ::_exit(1);
        }
        uid_t ruid, euid, suid;
        gid_t rgid, egid, sgid;
        if (::getresuid(&ruid, &euid, &suid) != 0 || ::getresgid(&rgid, &egid, &sgid) != 0) {
            ::_exit(2);
        }
        if (ruid != uid || euid != uid || suid != uid) {
            ::_exit(3);
        }
        if (rgid != gid || egid != gid || sgid != gid) {
            ::_exit(4);
        }
        // No way back to root.
        if (::setuid(0) == 0) {
            ::_exit(5);
        }
        // Becoming the user it already is changes nothing and succeeds.
        if (Tarnwick::become_user(L"nobody") != 0) {
            ::_exit(6);
        }
        errno = 0;
        if (Tarnwick::become_user(L"root") != -1 || errno != EPERM) {
            ::_exit(7);
        }
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
}

}  // namespace
