// Cleaning of the temporary directory by age: the two limits, the texts,
// and a directory that is missing.
#include <tarnwick/cleanup.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <fstream>
#include <string>

#include "log_lines.h"
#include "scratch_dir.h"
#include "unprivileged.h"

using Tarnwick::CleanUp;
using TarnwickTest::LogLines;
using TarnwickTest::ScratchDir;

namespace {

const time_t HOUR = 3600;
const time_t DAY = 86400;

// Points TMPDIR (the directory that Path::TempPath gives when no setting
// names one) at a scratch directory, and puts it back at the end.
class CleanUpTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(scratch.path().empty());
        const char* old = ::getenv("TMPDIR");
        m_hadTmpdir = old != nullptr;
        if (m_hadTmpdir)
            m_oldTmpdir = old;
        ::setenv("TMPDIR", scratch.path().c_str(), 1);
        directory = scratch.path() + "/";
    }
    void TearDown() override {
        if (m_hadTmpdir)
            ::setenv("TMPDIR", m_oldTmpdir.c_str(), 1);
        else
            ::unsetenv("TMPDIR");
    }

    // A file of the directory, changed and read `modified` and `accessed`
    // seconds ago.
    std::string make(const std::string& name, time_t modified, time_t accessed) {
        std::string const path = directory + name;
        std::ofstream(path.c_str()) << "data";
        time_t const now = std::time(nullptr);
        struct timespec times[2] = {{now - accessed, 0}, {now - modified, 0}};
        EXPECT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), times, 0));
        return path;
    }

    static bool exists(const std::string& path) {
        struct stat status;
        return ::stat(path.c_str(), &status) == 0;
    }

    ScratchDir scratch{"tarnwick-cleanup"};
    std::string directory;

private:
    bool m_hadTmpdir = false;
    std::string m_oldTmpdir;
};

}  // namespace

TEST_F(CleanUpTest, ZeroOrFewerDaysCleanNothing) {
    std::string const old = make("old.tmp", 100 * DAY, 100 * DAY);
    for (int days : {0, -3}) {
        LogLines log;
        EXPECT_EQ(0, CleanUp::Clean(days));
        EXPECT_EQ((TarnwickTest::Lines{"%D INFO  (%t): Cleaning temporary files disabled "
                                       "(cleanup_time: " +
                                       std::to_string(days) + ")"}),
                  log.lines());
    }
    EXPECT_TRUE(exists(old));
}

TEST_F(CleanUpTest, OnlyFilesPastBothLimitsGo) {
    std::string const readRecently = make("read-an-hour-ago.tmp", 10 * DAY, HOUR);
    std::string const changedToday = make("changed-today.tmp", HOUR, 400 * DAY);
    std::string const stale = make("stale.tmp", 10 * DAY, 2 * DAY);
    std::string const subdirectory = directory + "sub";
    ASSERT_EQ(0, ::mkdir(subdirectory.c_str(), 0700));
    std::string const inside = subdirectory + "/deep.tmp";
    std::ofstream(inside.c_str()) << "x";
    struct timespec times[2] = {{std::time(nullptr) - 30 * DAY, 0},
                                {std::time(nullptr) - 30 * DAY, 0}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, inside.c_str(), times, 0));

    LogLines log;
    EXPECT_EQ(0, CleanUp::Clean(7));
    EXPECT_TRUE(exists(readRecently));
    EXPECT_TRUE(exists(changedToday));
    EXPECT_FALSE(exists(stale));
    EXPECT_TRUE(exists(inside));
    EXPECT_EQ((TarnwickTest::Lines{
                  "%D DEBUG (%t): CleanUp parameters: path: " + directory + ", interval: 7 days",
                  "%D DEBUG (%t): Cleaning temporary file " + directory + "stale.tmp",
                  "%D INFO  (%t): 1 temporary files have been cleaned."}),
              log.lines());
}

TEST_F(CleanUpTest, EmptyDirectoryCountsZero) {
    LogLines log;
    EXPECT_EQ(0, CleanUp::Clean(1));
    EXPECT_EQ((TarnwickTest::Lines{
                  "%D DEBUG (%t): CleanUp parameters: path: " + directory + ", interval: 1 days",
                  "%D INFO  (%t): 0 temporary files have been cleaned."}),
              log.lines());
}

TEST_F(CleanUpTest, MissingDirectoryGivesMinusOne) {
    std::string const missing = scratch.path() + "/missing";
    ::setenv("TMPDIR", missing.c_str(), 1);
    LogLines log;
    EXPECT_EQ(-1, CleanUp::Clean(7));
    // The system's temporary directory is given with a '/' at the end.
    EXPECT_EQ((TarnwickTest::Lines{
                  "%D ERROR (%t): Client temporary path is not a directory: " + missing + "/"}),
              log.lines());
}

TEST_F(CleanUpTest, UnreadableDirectoryGivesMinusOne) {
    std::string const locked = scratch.path() + "/locked";
    ASSERT_EQ(0, ::mkdir(locked.c_str(), 0755));
    ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0711));
    if (::geteuid() == 0) {
        ASSERT_EQ(0, ::chown(locked.c_str(), 65534, 65534));
    }
    ::setenv("TMPDIR", locked.c_str(), 1);
    TarnwickTest::asUnprivilegedUser([&]() {
        ASSERT_EQ(0, ::chmod(locked.c_str(), 0300));
        LogLines log;
        EXPECT_EQ(-1, CleanUp::Clean(7));
        EXPECT_TRUE(log.has("%D ERROR (%t): Failed to open directory " + locked + "/"))
            << log.text();
        ASSERT_EQ(0, ::chmod(locked.c_str(), 0755));
    });
}
