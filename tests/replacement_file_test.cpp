// Files replaced as a whole.
#include <tarnwick/replacement_file.h>

#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "scratch_dir.h"

using Tarnwick::Replacement_File;

namespace {

std::string content(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

int entries(const std::string& directory) {
    int count = 0;
    if (DIR* dir = ::opendir(directory.c_str())) {
        while (dirent* entry = ::readdir(dir))
            count += entry->d_name[0] == '.' && (entry->d_name[1] == '\0' ||
                                                 (entry->d_name[1] == '.' && !entry->d_name[2]))
                         ? 0
                         : 1;
        ::closedir(dir);
    }
    return count;
}

}  // namespace

TEST(ReplacementFile, CommitPutsTheWholeNewContentInPlace) {
    TarnwickTest::ScratchDir dir;
    std::string const target = dir.path() + "/file";
    std::ofstream(target) << "old\n";
    Replacement_File file;
    ASSERT_TRUE(file.create(dir.path(), "file"));
    EXPECT_EQ(entries(dir.path()), 2);
    ASSERT_TRUE(file.write("new "));
    ASSERT_TRUE(file.write("content\n"));
    // Until the commit, the old content is what a reader sees.
    EXPECT_EQ(content(target), "old\n");
    ASSERT_TRUE(file.setMode(0640));
    ASSERT_TRUE(file.commit(target));
    EXPECT_EQ(content(target), "new content\n");
    EXPECT_EQ(entries(dir.path()), 1);
    struct stat info;
    ASSERT_EQ(::stat(target.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0640u);
}

TEST(ReplacementFile, AFileNotCommittedGoesAndLeavesTheTargetAlone) {
    TarnwickTest::ScratchDir dir;
    std::string const target = dir.path() + "/file";
    std::ofstream(target) << "old\n";
    {
        Replacement_File file;
        ASSERT_TRUE(file.create(dir.path(), "file"));
        ASSERT_TRUE(file.write("half"));
    }
    EXPECT_EQ(content(target), "old\n");
    EXPECT_EQ(entries(dir.path()), 1);
}

TEST(ReplacementFile, ANewFileIsForItsOwnerAloneAndTakesOverAMode) {
    TarnwickTest::ScratchDir dir;
    Replacement_File file;
    ASSERT_TRUE(file.create(dir.path(), "file"));
    std::string const target = dir.path() + "/file";
    struct stat original = {};
    original.st_uid = ::geteuid();
    original.st_gid = ::getegid();
    original.st_mode = S_IFREG | 0604;
    ASSERT_TRUE(file.takeOver(original));
    ASSERT_TRUE(file.commit(target));
    struct stat info;
    ASSERT_EQ(::stat(target.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0604u);
}

TEST(ReplacementFile, ADirectoryThatIsMissingFails) {
    Replacement_File file;
    errno = 0;
    EXPECT_FALSE(file.create("/nonexistent-directory-of-tarnwick", "file"));
    EXPECT_EQ(errno, ENOENT);
}
