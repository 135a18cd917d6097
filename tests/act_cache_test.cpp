#include <tarnwick/act_cache.h>

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "scratch_cache.h"
#include "unprivileged.h"

using Tarnwick::ACT_List;

TEST(ACTList, ATokenArrivingTwiceStandsOnce) {
    ACT_List list;
    EXPECT_EQ(list.add(17), 0);
    EXPECT_EQ(list.add(17), 0);
    EXPECT_EQ(list.size(), 1u);
    EXPECT_TRUE(list.contains(17));
}

TEST(ACTList, RemovingAnAbsentTokenSucceeds) {
    ACT_List list;
    EXPECT_EQ(list.remove(5), 0);
    list.add(5);
    list.add(6);
    EXPECT_EQ(list.remove(5), 0);
    EXPECT_FALSE(list.contains(5));
    EXPECT_TRUE(list.contains(6));
    EXPECT_EQ(list.remove(5), 0);
    EXPECT_EQ(list.size(), 1u);
}

TEST(ACTList, ConcurrentAddAndRemove) {
    ACT_List list;
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 4; ++t) {
        threads.emplace_back([&list, t] {
            for (uint32_t i = 1; i <= 500; ++i) {
                uint32_t token = t * 1000 + i;
                list.add(token);
                if (i % 2 == 0)
                    list.remove(token);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(list.size(), 1000u);
    EXPECT_TRUE(list.contains(1));
    EXPECT_FALSE(list.contains(2));
}

TEST(ACTList, TokenZeroIsNeverStored) {
    ACT_List list;
    EXPECT_EQ(list.add(0), 0);
    EXPECT_FALSE(list.contains(0));
    EXPECT_EQ(list.size(), 0u);
    EXPECT_EQ(list.remove(0), 0);
}

TEST(ACTList, ListsAreBornWithTheDefaultCapacity) {
    ACT_List list;
    EXPECT_EQ(ACT_List::Default_Capacity, 65536u);
    EXPECT_EQ(list.capacity(), ACT_List::Default_Capacity);
    EXPECT_EQ(ACT_List::newListCapacity(), ACT_List::Default_Capacity);
}

TEST(ACTList, AFullListForgetsItsOldestToken) {
    ACT_List list;
    list.setCapacity(3);
    for (uint32_t token = 1; token <= 3; ++token)
        EXPECT_EQ(list.add(token), 0);
    EXPECT_EQ(list.add(2), 0);  // already there: keeps its place
    EXPECT_EQ(list.size(), 3u);
    EXPECT_EQ(list.add(4), 0);
    EXPECT_FALSE(list.contains(1));
    EXPECT_TRUE(list.contains(2));
    EXPECT_EQ(list.add(5), 0);
    EXPECT_FALSE(list.contains(2));
    EXPECT_TRUE(list.contains(3));
    EXPECT_TRUE(list.contains(4));
    EXPECT_TRUE(list.contains(5));
    EXPECT_EQ(list.size(), 3u);
}

TEST(ACTList, RemovalFromTheMiddleKeepsTheOrder) {
    ACT_List list;
    list.setCapacity(3);
    list.add(1);
    list.add(2);
    list.add(3);
    EXPECT_EQ(list.remove(2), 0);
    EXPECT_EQ(list.add(4), 0);  // room again: nothing goes
    EXPECT_TRUE(list.contains(1));
    EXPECT_EQ(list.add(5), 0);  // 1 is the oldest
    EXPECT_FALSE(list.contains(1));
    EXPECT_TRUE(list.contains(3));
    EXPECT_EQ(list.remove(3), 0);
    EXPECT_EQ(list.remove(5), 0);
    EXPECT_EQ(list.add(6), 0);
    EXPECT_EQ(list.add(7), 0);
    EXPECT_EQ(list.add(8), 0);  // 4, the oldest left, goes
    EXPECT_FALSE(list.contains(4));
    EXPECT_EQ(list.size(), 3u);
    EXPECT_EQ(list.remove(6), 0);
    EXPECT_EQ(list.remove(7), 0);
    EXPECT_EQ(list.remove(8), 0);
    EXPECT_EQ(list.size(), 0u);
    EXPECT_EQ(list.add(9), 0);
    EXPECT_TRUE(list.contains(9));
}

TEST(ACTList, ASmallerCapacityEvictsAtOnce) {
    ACT_List list;
    for (uint32_t token = 1; token <= 10; ++token)
        list.add(token);
    TarnwickTest::LogCapture capture;
    list.setCapacity(4);
    EXPECT_EQ(list.size(), 4u);
    EXPECT_FALSE(list.contains(6));
    EXPECT_TRUE(list.contains(7));
    EXPECT_TRUE(list.contains(10));
    list.setCapacity(0);
    EXPECT_EQ(list.capacity(), 1u);
    EXPECT_TRUE(list.contains(10));
    EXPECT_EQ(list.size(), 1u);
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{"%D WARN  (%t): More than 4 open tokens on one connection: "
                                       "the oldest are forgotten"});
}

TEST(ACTList, NewListsTakeTheCapacitySetForThem) {
    ACT_List before;
    ACT_List::setNewListCapacity(5);
    ACT_List after;
    ACT_List::setNewListCapacity(0);
    ACT_List tiny;
    ACT_List::setNewListCapacity(ACT_List::Default_Capacity);
    EXPECT_EQ(before.capacity(), ACT_List::Default_Capacity);
    EXPECT_EQ(after.capacity(), 5u);
    EXPECT_EQ(tiny.capacity(), 1u);
    EXPECT_EQ(ACT_List::newListCapacity(), ACT_List::Default_Capacity);
}

// A peer that never waits for replies: 200,000 distinct tokens stay within
// the bound, the newest are found, the oldest are gone, and one warning is
// logged for the whole run.
TEST(ACTList, TwoHundredThousandTokensStayBounded) {
    ACT_List list;
    uint32_t const count = 200000;
    uint32_t const capacity = static_cast<uint32_t>(ACT_List::Default_Capacity);
    TarnwickTest::LogCapture capture;
    for (uint32_t i = 1; i <= count; ++i) {
        // Spread out, as random tokens are.
        ASSERT_EQ(list.add(i * 2654435761u), 0);
    }
    EXPECT_EQ(list.size(), ACT_List::Default_Capacity);
    for (uint32_t i = count - capacity + 1; i <= count; ++i)
        ASSERT_TRUE(list.contains(i * 2654435761u)) << i;
    for (uint32_t i = 1; i <= count - capacity; ++i)
        ASSERT_FALSE(list.contains(i * 2654435761u)) << i;
    for (uint32_t i = count - capacity + 1; i <= count; i += 2)
        ASSERT_EQ(list.remove(i * 2654435761u), 0);
    EXPECT_EQ(list.size(), ACT_List::Default_Capacity / 2);
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{"%D WARN  (%t): More than 65536 open tokens on one "
                                       "connection: the oldest are forgotten"});
}

// Tokens that all share their low bits, as a peer might choose them to pile
// up in one bucket of a plain hash: still quick.
TEST(ACTList, TokensSharingTheirLowBitsAreQuickToo) {
    ACT_List list;
    for (uint32_t i = 1; i < 65536; ++i)
        ASSERT_EQ(list.add(i << 16), 0);
    for (uint32_t i = 1; i < 65536; ++i)
        ASSERT_TRUE(list.contains(i << 16));
    for (uint32_t i = 1; i < 65536; ++i)
        ASSERT_EQ(list.remove(i << 16), 0);
    EXPECT_EQ(list.size(), 0u);
}

TEST(ACTList, ConcurrentAddsBeyondTheCapacity) {
    ACT_List list;
    list.setCapacity(1000);
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 4; ++t) {
        threads.emplace_back([&list, t] {
            for (uint32_t i = 1; i <= 5000; ++i) {
                uint32_t const token = t * 100000 + i;
                list.add(token);
                list.contains(token);
                if (i % 3 == 0)
                    list.remove(token - 1);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_LE(list.size(), 1000u);
}

// ---------------------------------------------------------------------------
// ACT_Cache: the directory of spill files, their names, the sweep of files
// of ended processes, and the quota.

namespace {

using Tarnwick::ACT_Cache;

// Makes `path` and its missing parents (0700), then gives it `mode`.
void makeDirectory(const std::string& path, mode_t mode) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        ::mkdir(path.substr(0, slash).c_str(), 0700);
    }
    ::mkdir(path.c_str(), 0700);
    ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path;
}

// True when `path` is a directory with no entries.
bool emptyDirectory(const std::string& path) {
    DIR* dir = ::opendir(path.c_str());
    if (dir == nullptr)
        return false;
    bool empty = true;
    while (dirent* entry = ::readdir(dir)) {
        std::string const name = entry->d_name;
        if (name != "." && name != "..")
            empty = false;
    }
    ::closedir(dir);
    return empty;
}

void makeFile(const std::string& path) {
    FILE* file = std::fopen(path.c_str(), "wb");
    ASSERT_NE(file, nullptr) << path;
    std::fclose(file);
}

bool present(const std::string& path) {
    struct stat info;
    return ::lstat(path.c_str(), &info) == 0;
}

// The pid of a process that has ended and been reaped.
pid_t endedProcess() {
    pid_t const child = ::fork();
    if (child == 0)
        ::_exit(0);
    int status = 0;
    ::waitpid(child, &status, 0);
    return child;
}

}  // namespace

TEST(ACTCache, MakesAPrivateDirectoryOfItsOwn) {
    TarnwickTest::ScratchTemp temp;
    TarnwickTest::LogCapture capture;
    ACT_Cache cache;
    ASSERT_EQ(cache.prepare(), 0);
    EXPECT_EQ(cache.directory(), temp.cacheDirectory());
    struct stat info;
    ASSERT_EQ(::lstat(temp.cacheDirectory().c_str(), &info), 0);
    EXPECT_TRUE(S_ISDIR(info.st_mode));
    EXPECT_EQ(info.st_mode & 07777, 0700u);
    EXPECT_EQ(info.st_uid, ::geteuid());
    EXPECT_EQ(capture.lines(), std::vector<std::string>{"%D DEBUG (%t): Events with a large "
                                                        "payload will be cached in " +
                                                        temp.cacheDirectory()});
    // Prepared once: a second call does nothing.
    EXPECT_EQ(cache.prepare(), 0);
    EXPECT_EQ(capture.lines().size(), 1u);
}

TEST(ACTCache, RefusesADirectoryOpenToGroupOrOthers) {
    for (mode_t const mode : {0777, 0750, 0701}) {
        TarnwickTest::ScratchTemp temp;
        makeDirectory(temp.cacheDirectory(), mode);
        TarnwickTest::LogCapture capture;
        ACT_Cache cache;
        errno = 0;
        EXPECT_EQ(cache.prepare(), -1);
        EXPECT_EQ(errno, EACCES);
        EXPECT_TRUE(cache.directory().empty());
        char text[8];
        std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode));
        EXPECT_EQ(capture.lines(),
                  std::vector<std::string>{"%D ERROR (%t): Event cache directory " +
                                           temp.cacheDirectory() +
                                           " is open to group or others (mode " + text + ")."});
        // Nothing is spilled there, nor swept.
        std::string file;
        EXPECT_EQ(cache.path(5, file), -1);
        EXPECT_EQ(cache.create(5, file), -1);
        EXPECT_EQ(cache.sweep(), -1);
        EXPECT_TRUE(emptyDirectory(temp.cacheDirectory()));
    }
}

TEST(ACTCache, RefusesADirectoryOfAnotherOwner) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "giving a directory to another user needs root";
    // Given away by root...
    {
        TarnwickTest::ScratchTemp temp;
        makeDirectory(temp.cacheDirectory(), 0700);
        ASSERT_EQ(::chown(temp.cacheDirectory().c_str(), 65534, 65534), 0);
        TarnwickTest::LogCapture capture;
        ACT_Cache cache;
        EXPECT_EQ(cache.prepare(), -1);
        EXPECT_TRUE(cache.directory().empty());
        EXPECT_EQ(capture.lines(),
                  std::vector<std::string>{"%D ERROR (%t): Event cache directory " +
                                           temp.cacheDirectory() +
                                           " is owned by user 65534, not by user 0."});
    }
    // ... and root's, seen by an unprivileged process.
    TarnwickTest::ScratchTemp temp;
    makeDirectory(temp.cacheDirectory(), 0700);
    ASSERT_EQ(::chmod(temp.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod((temp.path() + "/event-cache").c_str(), 0755), 0);
    std::string const directory = temp.cacheDirectory();
    TarnwickTest::asUnprivilegedUser([&directory] {
        TarnwickTest::LogCapture capture;
        ACT_Cache cache;
        EXPECT_EQ(cache.prepare(), -1);
        EXPECT_EQ(capture.lines(),
                  std::vector<std::string>{"%D ERROR (%t): Event cache directory " + directory +
                                           " is owned by user 0, not by user 65534."});
    });
}

TEST(ACTCache, RefusesASymbolicLink) {
    for (bool const dangling : {false, true}) {
        TarnwickTest::ScratchTemp temp;
        makeDirectory(temp.path() + "/event-cache", 0700);
        makeDirectory(temp.path() + "/elsewhere", 0700);
        std::string const target = temp.path() + (dangling ? "/absent" : "/elsewhere");
        ASSERT_EQ(::symlink(target.c_str(), temp.cacheDirectory().c_str()), 0);
        TarnwickTest::LogCapture capture;
        ACT_Cache cache;
        errno = 0;
        EXPECT_EQ(cache.prepare(), -1);
        EXPECT_EQ(errno, ELOOP);
        EXPECT_TRUE(cache.directory().empty());
        EXPECT_EQ(capture.lines(),
                  std::vector<std::string>{"%D ERROR (%t): Event cache directory " +
                                           temp.cacheDirectory() + " is a symbolic link."});
        std::string file;
        EXPECT_EQ(cache.create(6, file), -1);
        EXPECT_FALSE(present(temp.path() + "/absent"));
        EXPECT_TRUE(emptyDirectory(temp.path() + "/elsewhere"));
    }
}

TEST(ACTCache, CreateMakesNewPrivateFilesEachTime) {
    TarnwickTest::ScratchTemp temp;
    TarnwickTest::LogCapture capture;
    ACT_Cache cache;
    std::string first, second;
    int const one = cache.create(9, first);
    int const two = cache.create(9, second);
    ASSERT_NE(one, -1);
    ASSERT_NE(two, -1);
    EXPECT_NE(first, second);
    for (const std::string& name : {first, second}) {
        EXPECT_EQ(
            name.compare(0, temp.cacheDirectory().size() + 9, temp.cacheDirectory() + "/event-9-"),
            0)
            << name;
        struct stat info;
        ASSERT_EQ(::lstat(name.c_str(), &info), 0);
        EXPECT_TRUE(S_ISREG(info.st_mode));
        EXPECT_EQ(info.st_mode & 07777, 0600u);
        EXPECT_EQ(info.st_size, 0);
    }
    EXPECT_NE(::fcntl(one, F_GETFD) & FD_CLOEXEC, 0);
    ::close(one);
    ::close(two);
    std::string none = "unchanged";
    EXPECT_EQ(cache.create(0, none), -1);
    EXPECT_EQ(none, "unchanged");
}

TEST(ACTCache, SweepRemovesFilesOfEndedProcessesOnly) {
    TarnwickTest::ScratchTemp temp;
    TarnwickTest::LogCapture capture;
    ACT_Cache cache;
    ASSERT_EQ(cache.prepare(), 0);
    capture.clear();
    std::string const dir = cache.directory();
    pid_t const ended = endedProcess();
    std::string const dead = dir + "/event-7-" + std::to_string(ended) + "-0000abcd.dat";
    std::string const dead_too = dir + "/event-8-" + std::to_string(ended) + "-ffffffff.dat";
    std::string const live = dir + "/event-7-1-0000abcd.dat";
    std::string const own = dir + "/event-7-" + std::to_string(::getpid()) + "-0000abcd.dat";
    std::string const older = dir + "/event-7.dat";
    std::string const odd = dir + "/event-7-" + std::to_string(ended) + "-zz.dat";
    std::string const other = dir + "/notes.txt";
    for (const std::string& name : {dead, dead_too, live, own, older, odd, other})
        makeFile(name);

    EXPECT_EQ(cache.sweep(), 2);
    EXPECT_FALSE(present(dead));
    EXPECT_FALSE(present(dead_too));
    for (const std::string& name : {live, own, older, odd, other})
        EXPECT_TRUE(present(name)) << name;
    std::vector<std::string> lines = capture.lines();
    std::sort(lines.begin(), lines.end());
    std::vector<std::string> expected;
    for (const std::string& name : {dead, dead_too}) {
        expected.push_back("%D DEBUG (%t): Removed spill file " + name.substr(dir.size() + 1) +
                           " of ended process " + std::to_string(ended));
    }
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(cache.sweep(), 0);
}

TEST(ACTCache, SweepWithoutADirectoryDoesNothing) {
    TarnwickTest::ScratchTemp temp;
    makeDirectory(temp.cacheDirectory(), 0777);
    TarnwickTest::LogCapture capture;
    ACT_Cache cache;
    EXPECT_EQ(cache.sweep(), -1);
}

TEST(ACTCache, QuotaIsTakenAndGivenBack) {
    ACT_Cache cache;
    EXPECT_EQ(cache.quota(), 4294967296u);
    EXPECT_EQ(ACT_Cache::DEFAULT_QUOTA, 4294967296u);
    EXPECT_EQ(cache.spilledBytes(), 0u);
    EXPECT_EQ(cache.setQuota(100), 4294967296u);
    EXPECT_EQ(cache.quota(), 100u);
    EXPECT_EQ(cache.charge(60), 0);
    EXPECT_EQ(cache.spilledBytes(), 60u);
    {
        TarnwickTest::LogCapture capture;
        errno = 0;
        EXPECT_EQ(cache.charge(41), -1);
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_EQ(cache.spilledBytes(), 60u);
        EXPECT_EQ(capture.lines(), std::vector<std::string>{"%D ERROR (%t): Event cache quota of "
                                                            "100 bytes exceeded."});
    }
    EXPECT_EQ(cache.charge(40), 0);
    EXPECT_EQ(cache.spilledBytes(), 100u);
    cache.refund(100);
    EXPECT_EQ(cache.spilledBytes(), 0u);
    // A quota below what is spilled stops further spills only.
    EXPECT_EQ(cache.charge(80), 0);
    cache.setQuota(50);
    EXPECT_EQ(cache.spilledBytes(), 80u);
    TarnwickTest::LogCapture capture;
    EXPECT_EQ(cache.charge(1), -1);
    cache.refund(80);
    EXPECT_EQ(cache.charge(50), 0);
    EXPECT_EQ(cache.charge(UINT64_MAX), -1);
}

TEST(ACTCache, ConcurrentChargesNeverPassTheQuota) {
    ACT_Cache cache;
    cache.setQuota(2000);
    TarnwickTest::LogCapture capture;
    std::atomic<int> taken{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 1000; ++i) {
                if (cache.charge(1) == 0)
                    ++taken;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(taken.load(), 2000);
    EXPECT_EQ(cache.spilledBytes(), 2000u);
}
