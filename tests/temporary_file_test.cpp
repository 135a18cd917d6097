// Tests of Temporary_File: naming, opening, writing, reading, copying,
// keeping and deleting scratch files, and that nothing is left behind.
#include <tarnwick/temporary_file.h>

#include <gtest/gtest.h>
#include <scratch_dir.h>
#include <wide_text.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

using Tarnwick::Temporary_File;
using TarnwickTest::countEntries;
using TarnwickTest::narrow;
using TarnwickTest::ScratchDir;
using TarnwickTest::wide;

namespace {

bool exists(const std::string& path) {
    struct stat info;
    return ::lstat(path.c_str(), &info) == 0;
}

std::string content(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

int countDescriptors() {
    return countEntries("/proc/self/fd");
}

// Each test gets its own temporary directory (TMPDIR), which must be empty
// again at its end, and may not leak a descriptor.
class TemporaryFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(m_scratch.path().empty());
        const char* const old = std::getenv("TMPDIR");
        m_hadTmpdir = old != nullptr;
        if (m_hadTmpdir)
            m_oldTmpdir = old;
        ::setenv("TMPDIR", m_scratch.path().c_str(), 1);
        m_descriptors = countDescriptors();
    }
    void TearDown() override {
        EXPECT_EQ(0, countEntries(m_scratch.path())) << "a temporary file was left behind";
        EXPECT_EQ(m_descriptors, countDescriptors()) << "a descriptor leaked";
        if (m_hadTmpdir)
            ::setenv("TMPDIR", m_oldTmpdir.c_str(), 1);
        else
            ::unsetenv("TMPDIR");
    }
    const std::string& tmp() const { return m_scratch.path(); }

    ScratchDir m_scratch{"tarnwick-tempfile"};
    bool m_hadTmpdir = false;
    std::string m_oldTmpdir;
    int m_descriptors = 0;
};

TEST_F(TemporaryFileTest, FilenameTwiceGivesOnePathAndCreatesNothing) {
    Temporary_File file(L"tarnwick-process");
    const wchar_t* const first = file.filename();
    ASSERT_NE(nullptr, first);
    std::string const path = narrow(first);
    EXPECT_EQ(path, narrow(file.filename()));
    std::string const start = tmp() + "/tarnwick-process-";
    ASSERT_EQ(start.size() + 6, path.size()) << path;
    EXPECT_EQ(start, path.substr(0, start.size()));
    for (char const c : path.substr(start.size()))
        EXPECT_TRUE(std::isalnum(static_cast<unsigned char>(c))) << path;
    EXPECT_FALSE(exists(path));
}

TEST_F(TemporaryFileTest, NamesAreUnique) {
    Temporary_File a(L"same");
    Temporary_File b(L"same");
    ASSERT_EQ(0, a.open());
    ASSERT_EQ(0, b.open());
    EXPECT_NE(narrow(a.filename()), narrow(b.filename()));
}

TEST_F(TemporaryFileTest, OpenCreatesAnEmptyPrivateFile) {
    Temporary_File file(L"mode");
    ASSERT_EQ(0, file.open());
    EXPECT_NE(ACE_INVALID_HANDLE, file.get_handle());
    struct stat info;
    ASSERT_EQ(0, ::stat(narrow(file.filename()).c_str(), &info));
    EXPECT_TRUE(S_ISREG(info.st_mode));
    EXPECT_EQ(0600u, info.st_mode & 07777);
    EXPECT_EQ(0, info.st_size);
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(file.get_handle(), F_GETFD) & FD_CLOEXEC);
}

TEST_F(TemporaryFileTest, SecondOpenWithoutCloseFails) {
    Temporary_File file(L"twice");
    ASSERT_EQ(0, file.open());
    ACE_HANDLE const handle = file.get_handle();
    errno = 0;
    EXPECT_EQ(-1, file.open());
    EXPECT_EQ(EBUSY, errno);
    EXPECT_EQ(handle, file.get_handle());
    EXPECT_EQ(0, file.close());
    EXPECT_EQ(0, file.close()) << "close of a closed file is 0";
    EXPECT_EQ(0, file.open()) << "open after close";
}

TEST_F(TemporaryFileTest, ReopenAfterCloseTruncates) {
    Temporary_File file(L"reopen");
    ASSERT_EQ(0, file.open());
    ASSERT_EQ(5, file.write("hello", 5));
    std::string const path = narrow(file.filename());
    file.close();
    ASSERT_EQ(0, file.open());
    EXPECT_EQ(path, narrow(file.filename()));
    EXPECT_EQ("", content(path));
}

TEST_F(TemporaryFileTest, KeepLeavesTheFileAfterDestruction) {
    std::string path;
    {
        Temporary_File file(L"kept");
        ASSERT_EQ(0, file.open());
        ASSERT_EQ(4, file.write("data", 4));
        file.keep();
        path = narrow(file.filename());
    }
    EXPECT_EQ("data", content(path));
    EXPECT_EQ(0, ::unlink(path.c_str()));
}

TEST_F(TemporaryFileTest, KeepFlagOfTheConstructorLeavesTheFile) {
    std::string path;
    {
        Temporary_File file(L"kept", true);
        ASSERT_EQ(0, file.open());
        path = narrow(file.filename());
    }
    EXPECT_TRUE(exists(path));
    EXPECT_EQ(0, ::unlink(path.c_str()));
}

TEST_F(TemporaryFileTest, WithoutKeepTheFileGoes) {
    std::string path;
    {
        Temporary_File file(L"gone");
        ASSERT_EQ(0, file.open());
        ASSERT_EQ(4, file.write("data", 4));
        path = narrow(file.filename());
        EXPECT_TRUE(exists(path));
    }
    EXPECT_FALSE(exists(path));
}

TEST_F(TemporaryFileTest, WriteOnAClosedFileFails) {
    Temporary_File file(L"closed");
    errno = 0;
    EXPECT_EQ(-1, file.write("x", 1));
    EXPECT_EQ(EBADF, errno);
    ASSERT_EQ(0, file.open());
    file.close();
    errno = 0;
    EXPECT_EQ(-1, file.write("x", 1));
    EXPECT_EQ(EBADF, errno);
    char buffer[4];
    errno = 0;
    EXPECT_EQ(-1, file.read(buffer, sizeof buffer));
    EXPECT_EQ(EBADF, errno);
}

TEST_F(TemporaryFileTest, WriteAndReadBack) {
    Temporary_File file(L"rw");
    ASSERT_EQ(0, file.open());
    std::string const text(100000, 'q');
    ASSERT_EQ(100000, file.write(text.data(), text.size()));
    ASSERT_EQ(0, ::lseek(file.get_handle(), 0, SEEK_SET));
    std::string back(100001, '\0');
    int64_t total = 0;
    for (;;) {
        int64_t const n = file.read(&back[total], back.size() - total);
        ASSERT_GE(n, 0);
        if (n == 0)
            break;
        total += n;
    }
    back.resize(total);
    EXPECT_EQ(text, back);
}

TEST_F(TemporaryFileTest, CopyReadsFromTheCurrentPosition) {
    ScratchDir out("tarnwick-tempcopy");
    std::string const target = out.path() + "/copy.txt";
    Temporary_File file(L"copy");
    ASSERT_EQ(0, file.open());
    ASSERT_EQ(11, file.write("hello world", 11));
    EXPECT_EQ(0, file.copy(wide(target).c_str())) << "nothing after the position";
    EXPECT_EQ("", content(target));
    ASSERT_EQ(6, ::lseek(file.get_handle(), 6, SEEK_SET));
    EXPECT_EQ(5, file.copy(wide(target).c_str()));
    EXPECT_EQ("world", content(target));
    ASSERT_EQ(0, ::lseek(file.get_handle(), 0, SEEK_SET));
    EXPECT_EQ(11, file.copy(wide(target).c_str())) << "the target is truncated";
    EXPECT_EQ("hello world", content(target));
    struct stat info;
    ASSERT_EQ(0, ::stat(target.c_str(), &info));
    EXPECT_EQ(0u, info.st_mode & 077);
}

TEST_F(TemporaryFileTest, CopyToAnOpenDescriptor) {
    ScratchDir out("tarnwick-tempcopy");
    std::string const target = out.path() + "/copy.txt";
    Temporary_File file(L"copy");
    ASSERT_EQ(0, file.open());
    ASSERT_EQ(3, file.write("abc", 3));
    ASSERT_EQ(0, ::lseek(file.get_handle(), 0, SEEK_SET));
    int const fd = ::open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(2, ::write(fd, ">>", 2));
    EXPECT_EQ(3, file.copy(fd));
    ::close(fd);
    EXPECT_EQ(">>abc", content(target));
}

TEST_F(TemporaryFileTest, CopyFailures) {
    ScratchDir out("tarnwick-tempcopy");
    std::string const target = out.path() + "/copy.txt";
    Temporary_File file(L"copy");
    errno = 0;
    EXPECT_EQ(-1, file.copy(wide(target).c_str())) << "not open";
    EXPECT_EQ(EBADF, errno);
    EXPECT_FALSE(exists(target)) << "the target is left alone";
    ASSERT_EQ(0, file.open());
    errno = 0;
    EXPECT_EQ(-1, file.copy(wide(out.path() + "/missing/copy.txt").c_str()));
    EXPECT_EQ(ENOENT, errno);
    errno = 0;
    EXPECT_EQ(-1, file.copy(static_cast<const wchar_t*>(nullptr)));
    EXPECT_EQ(EINVAL, errno);
    ASSERT_EQ(1, file.write("x", 1));
    ASSERT_EQ(0, ::lseek(file.get_handle(), 0, SEEK_SET));
    errno = 0;
    EXPECT_EQ(-1, file.copy(ACE_INVALID_HANDLE));
    EXPECT_EQ(EBADF, errno);
}

TEST_F(TemporaryFileTest, OpenWithANameCreatesOrTruncatesIt) {
    ScratchDir out("tarnwick-tempname");
    std::string const path = out.path() + "/given.log";
    { std::ofstream(path) << "old content"; }
    {
        Temporary_File file(L"unused");
        ASSERT_EQ(0, file.open(wide(path).c_str()));
        EXPECT_EQ(path, narrow(file.filename()));
        EXPECT_EQ("", content(path));
        ASSERT_EQ(3, file.write("new", 3));
        file.keep();
        errno = 0;
        EXPECT_EQ(-1, file.open(wide(path + ".2").c_str())) << "open already";
        EXPECT_EQ(EBUSY, errno);
        EXPECT_EQ(path, narrow(file.filename()));
    }
    EXPECT_EQ("new", content(path));
    {
        Temporary_File file(L"unused");
        ASSERT_EQ(0, file.open(wide(path).c_str()));
    }
    EXPECT_FALSE(exists(path)) << "a given name goes too without keep";
    Temporary_File file(L"unused");
    errno = 0;
    EXPECT_EQ(-1, file.open(nullptr));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(-1, file.open(wide(out.path() + "/missing/x").c_str()));
    EXPECT_EQ(ENOENT, errno);
}

// A name handed out by filename() that another process takes before open is
// not opened: the object chooses another, and the other file stays as it is.
TEST_F(TemporaryFileTest, ANameTakenMeanwhileIsReplaced) {
    Temporary_File file(L"race");
    std::string const taken = narrow(file.filename());
    { std::ofstream(taken) << "someone else's"; }
    ASSERT_EQ(0, file.open());
    std::string const chosen = narrow(file.filename());
    EXPECT_NE(taken, chosen);
    EXPECT_EQ("someone else's", content(taken));
    EXPECT_TRUE(exists(chosen));
    EXPECT_EQ(0, ::unlink(taken.c_str()));
}

TEST_F(TemporaryFileTest, ANameNeverOpenedIsNotDeleted) {
    std::string taken;
    {
        Temporary_File file(L"unopened");
        taken = narrow(file.filename());
        std::ofstream(taken) << "someone else's";
    }
    EXPECT_EQ("someone else's", content(taken));
    EXPECT_EQ(0, ::unlink(taken.c_str()));
}

TEST_F(TemporaryFileTest, ALinkPlantedAtTheNameIsNotFollowed) {
    ScratchDir out("tarnwick-templink");
    std::string const victim = out.path() + "/victim";
    { std::ofstream(victim) << "precious"; }
    Temporary_File file(L"link");
    std::string const planted = narrow(file.filename());
    ASSERT_EQ(0, ::symlink(victim.c_str(), planted.c_str()));
    ASSERT_EQ(0, file.open());
    ASSERT_EQ(3, file.write("bad", 3));
    EXPECT_NE(planted, narrow(file.filename()));
    EXPECT_EQ("precious", content(victim));
    EXPECT_EQ(0, ::unlink(planted.c_str()));
}

TEST_F(TemporaryFileTest, Unlink) {
    Temporary_File unnamed(L"none");
    EXPECT_EQ(0, unnamed.unlink()) << "no path";
    Temporary_File file(L"unlink");
    ASSERT_EQ(0, file.open());
    std::string const path = narrow(file.filename());
    EXPECT_EQ(0, file.unlink());
    EXPECT_FALSE(exists(path));
    errno = 0;
    EXPECT_EQ(-1, file.unlink());
    EXPECT_EQ(ENOENT, errno);
    file.close();
    ASSERT_EQ(0, file.open()) << "made again after unlink";
    EXPECT_EQ(path, narrow(file.filename()));
    EXPECT_TRUE(exists(path));
}

TEST_F(TemporaryFileTest, NullPrefix) {
    Temporary_File file(nullptr);
    std::string const start = tmp() + "/tmp-";
    EXPECT_EQ(start, narrow(file.filename()).substr(0, start.size()));
}

TEST_F(TemporaryFileTest, MissingTemporaryDirectory) {
    std::string const missing = tmp() + "/missing";
    ::setenv("TMPDIR", missing.c_str(), 1);
    Temporary_File file(L"nowhere");
    errno = 0;
    EXPECT_EQ(-1, file.open());
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(ACE_INVALID_HANDLE, file.get_handle());
}

}  // namespace
