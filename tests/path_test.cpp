// Tests of Path: joining, file and directory tests, MkTree, CopyFileA and the
// pid file path.
#include <tarnwick/path.h>

#include <gtest/gtest.h>
#include <log_capture.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>
#include "unprivileged.h"

using Tarnwick::Path;

namespace {

std::wstring wide(const std::string& text) {
    return std::wstring(text.begin(), text.end());
}

// Made from a counted text: g++ 12 warns falsely about ACE's constructor from
// zero-terminated wide text.
ACE_WString ace(const std::wstring& text) {
    return ACE_WString(text.c_str(), text.size());
}

std::string componentFailure(const std::string& component, int error) {
    return "%D ERROR (%t): Can not create path component " + component + ": " +
           std::strerror(error);
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

mode_t permissionsOf(const std::string& path) {
    struct stat info;
    EXPECT_EQ(0, ::stat(path.c_str(), &info)) << path;
    return info.st_mode & 07777;
}

using TarnwickTest::asUnprivilegedUser;

// A fresh directory under /tmp for each test, removed with all it holds.
class PathTest : public ::testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/tarnwick-path-XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(name));
        dir_ = name;
        old_umask_ = ::umask(022);
    }
    void TearDown() override {
        ::umask(old_umask_);
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }
    std::string at(const std::string& name) const { return dir_ + "/" + name; }

    std::string dir_;
    mode_t old_umask_ = 022;
};

// ---------------------------------------------------------------------------
// Join

TEST(PathJoinTest, AddsSeparator) {
    std::string narrow = "a";
    EXPECT_EQ(0, Path::Join(narrow, "b"));
    EXPECT_EQ("a/b", narrow);

    ACE_WString wide_path = ace(L"a");
    EXPECT_EQ(0, Path::Join(wide_path, L"b"));
    EXPECT_STREQ(L"a/b", wide_path.c_str());

    ACE_WString wide_object = ace(L"a");
    EXPECT_EQ(0, Path::Join(wide_object, ace(L"b")));
    EXPECT_STREQ(L"a/b", wide_object.c_str());

    ACE_String_Base<char> ace_narrow("a");
    EXPECT_EQ(0, Path::Join(ace_narrow, "b"));
    EXPECT_STREQ("a/b", ace_narrow.c_str());
}

TEST(PathJoinTest, KeepsTrailingSeparator) {
    std::string narrow = "a/";
    EXPECT_EQ(0, Path::Join(narrow, "b"));
    EXPECT_EQ("a/b", narrow);

    ACE_WString wide_path = ace(L"a/");
    EXPECT_EQ(0, Path::Join(wide_path, L"b"));
    EXPECT_STREQ(L"a/b", wide_path.c_str());

    ACE_WString wide_object = ace(L"a/");
    EXPECT_EQ(0, Path::Join(wide_object, ace(L"b")));
    EXPECT_STREQ(L"a/b", wide_object.c_str());

    ACE_String_Base<char> ace_narrow("a/");
    EXPECT_EQ(0, Path::Join(ace_narrow, "b"));
    EXPECT_STREQ("a/b", ace_narrow.c_str());
}

TEST(PathJoinTest, RootAndNestedPaths) {
    std::string root = "/";
    Path::Join(root, "etc");
    EXPECT_EQ("/etc", root);

    std::string nested = "/var/lib";
    Path::Join(nested, "tarnwick/agent.db");
    EXPECT_EQ("/var/lib/tarnwick/agent.db", nested);

    // The second path is appended as it is, even with a leading separator.
    std::string doubled = "a";
    Path::Join(doubled, "/b");
    EXPECT_EQ("a//b", doubled);
}

TEST(PathJoinTest, EmptyFirstPathStaysRelative) {
    std::string narrow;
    EXPECT_EQ(0, Path::Join(narrow, "b"));
    EXPECT_EQ("b", narrow);

    ACE_WString wide_path;
    EXPECT_EQ(0, Path::Join(wide_path, L"b"));
    EXPECT_STREQ(L"b", wide_path.c_str());
}

TEST(PathJoinTest, NullOrEmptyNameAddsOnlyTheSeparator) {
    std::string narrow = "a";
    EXPECT_EQ(0, Path::Join(narrow, nullptr));
    EXPECT_EQ("a/", narrow);

    ACE_WString wide_path = ace(L"a");
    EXPECT_EQ(0, Path::Join(wide_path, L""));
    EXPECT_STREQ(L"a/", wide_path.c_str());
}

TEST(PathJoinTest, WideTextBeyondLatin1) {
    ACE_WString path = ace(L"/d\u00e9p\u00f4t");
    Path::Join(path, L"\u6587\u4ef6");
    EXPECT_STREQ(L"/d\u00e9p\u00f4t/\u6587\u4ef6", path.c_str());
}

// ---------------------------------------------------------------------------
// IsFile, IsDirectory, Exists

TEST_F(PathTest, IsFileOnDirectoryIsFalse) {
    EXPECT_FALSE(Path::IsFile(dir_.c_str()));
    EXPECT_FALSE(Path::IsFile(wide(dir_).c_str()));
    EXPECT_FALSE(Path::IsFile(ace(wide(dir_))));
    EXPECT_FALSE(Path::IsFile(dir_));
    EXPECT_FALSE(Path::IsFile(ACE_String_Base<char>(dir_.c_str())));
}

TEST_F(PathTest, IsDirectoryOnFileIsFalse) {
    std::string const file = at("f");
    writeFile(file, "x");
    EXPECT_FALSE(Path::IsDirectory(file.c_str()));
    EXPECT_FALSE(Path::IsDirectory(wide(file).c_str()));
    EXPECT_FALSE(Path::IsDirectory(ace(wide(file))));
    EXPECT_FALSE(Path::IsDirectory(file));
    EXPECT_FALSE(Path::IsDirectory(ACE_String_Base<char>(file.c_str())));
}

TEST_F(PathTest, IsFileAndIsDirectoryInEveryForm) {
    std::string const file = at("f");
    writeFile(file, "");
    EXPECT_TRUE(Path::IsFile(file.c_str()));
    EXPECT_TRUE(Path::IsFile(wide(file).c_str()));
    EXPECT_TRUE(Path::IsFile(ace(wide(file))));
    EXPECT_TRUE(Path::IsFile(file));
    EXPECT_TRUE(Path::IsFile(ACE_String_Base<char>(file.c_str())));

    EXPECT_TRUE(Path::IsDirectory(dir_.c_str()));
    EXPECT_TRUE(Path::IsDirectory(wide(dir_).c_str()));
    EXPECT_TRUE(Path::IsDirectory(ace(wide(dir_))));
    EXPECT_TRUE(Path::IsDirectory(dir_));
    EXPECT_TRUE(Path::IsDirectory(ACE_String_Base<char>(dir_.c_str())));
}

TEST_F(PathTest, MissingPathIsNeitherFileNorDirectory) {
    std::string const missing = at("missing");
    EXPECT_FALSE(Path::IsFile(missing));
    EXPECT_FALSE(Path::IsDirectory(missing));
    EXPECT_FALSE(Path::Exists(wide(missing).c_str()));
    EXPECT_FALSE(Path::IsFile(static_cast<const char*>(nullptr)));
    EXPECT_FALSE(Path::IsDirectory(static_cast<const wchar_t*>(nullptr)));
    EXPECT_FALSE(Path::Exists(static_cast<const wchar_t*>(nullptr)));
    EXPECT_FALSE(Path::IsFile(""));
}

TEST_F(PathTest, ExistsForFilesDirectoriesAndDevices) {
    std::string const file = at("f");
    writeFile(file, "x");
    EXPECT_TRUE(Path::Exists(wide(file).c_str()));
    EXPECT_TRUE(Path::Exists(ace(wide(dir_))));
    EXPECT_TRUE(Path::Exists(L"/dev/null"));
    EXPECT_FALSE(Path::IsFile("/dev/null"));
    EXPECT_FALSE(Path::IsDirectory("/dev/null"));
}

TEST_F(PathTest, SymbolicLinksAreFollowed) {
    std::string const file = at("f");
    writeFile(file, "x");
    ASSERT_EQ(0, ::symlink(file.c_str(), at("to-file").c_str()));
    ASSERT_EQ(0, ::symlink(dir_.c_str(), at("to-dir").c_str()));
    ASSERT_EQ(0, ::symlink(at("nowhere").c_str(), at("dangling").c_str()));
    EXPECT_TRUE(Path::IsFile(at("to-file")));
    EXPECT_TRUE(Path::IsDirectory(at("to-dir")));
    EXPECT_FALSE(Path::Exists(wide(at("dangling")).c_str()));
}

TEST_F(PathTest, NonAsciiNamesInBothWidths) {
    std::string const utf8 = at("d\xc3\xa9p\xc3\xb4t");
    std::wstring const wide_name = wide(dir_) + L"/d\u00e9p\u00f4t";
    ASSERT_EQ(0, ::mkdir(utf8.c_str(), 0755));
    EXPECT_TRUE(Path::IsDirectory(utf8));
    EXPECT_TRUE(Path::IsDirectory(wide_name.c_str()));
    EXPECT_TRUE(Path::Exists(wide_name.c_str()));
    EXPECT_FALSE(Path::IsFile(wide_name.c_str()));
}

TEST_F(PathTest, WidePathThatIsNoTextNamesNothing) {
    std::wstring const bad = wide(dir_) + L"/\xD800";
    EXPECT_FALSE(Path::Exists(bad.c_str()));
    EXPECT_FALSE(Path::IsFile(bad.c_str()));
    EXPECT_FALSE(Path::IsDirectory(bad.c_str()));
}

// ---------------------------------------------------------------------------
// MkTree

TEST_F(PathTest, MkTreeMakesAbsoluteNestedPath) {
    TarnwickTest::LogCapture log;
    std::string const tree = at("x/y");
    EXPECT_EQ(0, Path::MkTree(tree.c_str(), 0));
    EXPECT_TRUE(Path::IsDirectory(at("x")));
    EXPECT_TRUE(Path::IsDirectory(tree));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(PathTest, MkTreeInEveryForm) {
    TarnwickTest::LogCapture log;
    EXPECT_EQ(0, Path::MkTree(ace(wide(at("w1/a/b"))), 0));
    EXPECT_EQ(0, Path::MkTree(wide(at("w2/a/b")).c_str(), 0));
    EXPECT_EQ(0, Path::MkTree(at("n1/a/b").c_str(), 0));
    EXPECT_EQ(0, Path::MkTree(ACE_String_Base<char>(at("n2/a/b").c_str()), 0));
    EXPECT_EQ(0, Path::MkTree(at("n3/a/b"), 0));
    for (const char* top : {"w1", "w2", "n1", "n2", "n3"})
        EXPECT_TRUE(Path::IsDirectory(at(std::string(top) + "/a/b"))) << top;
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(PathTest, MkTreeOnExistingTreeReturnsZero) {
    ASSERT_EQ(0, Path::MkTree(at("x/y"), 0));
    TarnwickTest::LogCapture log;
    EXPECT_EQ(0, Path::MkTree(at("x/y"), 0));
    EXPECT_EQ(0, Path::MkTree(at("x"), 0));
    EXPECT_EQ(0, Path::MkTree("/", 0));
    EXPECT_EQ(0, Path::MkTree(dir_, 0));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(PathTest, MkTreeSkipsEmptyComponents) {
    TarnwickTest::LogCapture log;
    // Trailing, doubled and inner "." components.
    EXPECT_EQ(0, Path::MkTree(at("a/"), 0));
    EXPECT_EQ(0, Path::MkTree(dir_ + "//b//c", 0));
    EXPECT_EQ(0, Path::MkTree(at("d/./e"), 0));
    EXPECT_EQ(0, Path::MkTree("", 0));
    EXPECT_TRUE(Path::IsDirectory(at("a")));
    EXPECT_TRUE(Path::IsDirectory(at("b/c")));
    EXPECT_TRUE(Path::IsDirectory(at("d/e")));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(PathTest, MkTreeOfRelativePath) {
    char previous[4096];
    ASSERT_NE(nullptr, ::getcwd(previous, sizeof previous));
    ASSERT_EQ(0, ::chdir(dir_.c_str()));
    int const result = Path::MkTree("r/s", 0);
    ASSERT_EQ(0, ::chdir(previous));
    EXPECT_EQ(0, result);
    EXPECT_TRUE(Path::IsDirectory(at("r/s")));
}

TEST_F(PathTest, MkTreeFailsAtFileInTheWay) {
    std::string const file = at("file");
    writeFile(file, "x");
    TarnwickTest::LogCapture log;
    errno = 0;
    EXPECT_EQ(-1, Path::MkTree(file + "/d", 0));
    EXPECT_EQ(EEXIST, errno);
    std::vector<std::string> const expected = {componentFailure(file, EEXIST)};
    EXPECT_EQ(expected, log.lines());
    EXPECT_TRUE(Path::IsFile(file));
}

TEST_F(PathTest, MkTreeFailsAtFileInTheWayWide) {
    std::string const file = at("file");
    writeFile(file, "x");
    TarnwickTest::LogCapture log;
    EXPECT_EQ(-1, Path::MkTree(wide(file + "/d/e").c_str(), 0));
    std::vector<std::string> const expected = {componentFailure(file, EEXIST)};
    EXPECT_EQ(expected, log.lines());
}

TEST_F(PathTest, MkTreeFailsWhenTheWholePathIsAFile) {
    std::string const file = at("file");
    writeFile(file, "x");
    TarnwickTest::LogCapture log;
    EXPECT_EQ(-1, Path::MkTree(file, 0));
    std::vector<std::string> const expected = {componentFailure(file, EEXIST)};
    EXPECT_EQ(expected, log.lines());
}

TEST_F(PathTest, MkTreeNamesComponentThatCannotBeCreated) {
    // /proc accepts no new directories: the first missing component fails
    // and is named, nothing behind it is tried.
    TarnwickTest::LogCapture log;
    errno = 0;
    EXPECT_EQ(-1, Path::MkTree("/proc/tarnwick-path-test/d", 0));
    int const error = errno;
    EXPECT_NE(0, error);
    std::vector<std::string> const expected = {componentFailure("/proc/tarnwick-path-test", error)};
    EXPECT_EQ(expected, log.lines());
}

TEST_F(PathTest, MkTreeNamesComponentUnderReadOnlyDirectory) {
    std::string const locked = at("locked");
    ASSERT_EQ(0, ::mkdir(locked.c_str(), 0555));
    ASSERT_EQ(0, ::chmod(dir_.c_str(), 0755));
    asUnprivilegedUser([&] {
        TarnwickTest::LogCapture log;
        errno = 0;
        EXPECT_EQ(-1, Path::MkTree(locked + "/a/b", 0));
        EXPECT_EQ(EACCES, errno);
        std::vector<std::string> const expected = {componentFailure(locked + "/a", EACCES)};
        EXPECT_EQ(expected, log.lines());
    });
    EXPECT_FALSE(Path::Exists(wide(locked + "/a").c_str()));
}

TEST_F(PathTest, MkTreeWithUnconvertibleWideComponent) {
    TarnwickTest::LogCapture log;
    errno = 0;
    std::wstring const bad = wide(at("ok")) + L"/\xD800/x";
    EXPECT_EQ(-1, Path::MkTree(bad.c_str(), 0));
    EXPECT_EQ(EILSEQ, errno);
    // The components before the bad one are made.
    EXPECT_TRUE(Path::IsDirectory(at("ok")));
    EXPECT_EQ(1u, log.lines().size());
}

TEST_F(PathTest, MkTreeModeGivesPermissions) {
    ASSERT_EQ(0, Path::MkTree(at("given/inner"), 0700));
    EXPECT_EQ(0700u, permissionsOf(at("given")));
    EXPECT_EQ(0700u, permissionsOf(at("given/inner")));

    // 0 means 0777 less the umask (022 here).
    ASSERT_EQ(0, Path::MkTree(at("default"), 0));
    EXPECT_EQ(0755u, permissionsOf(at("default")));

    // An existing directory keeps its permissions.
    ASSERT_EQ(0, Path::MkTree(at("given"), 0755));
    EXPECT_EQ(0700u, permissionsOf(at("given")));
}

TEST(PathMkTreeTest, NullPath) {
    TarnwickTest::LogCapture log;
    errno = 0;
    EXPECT_EQ(-1, Path::MkTree(static_cast<const char*>(nullptr), 0));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, Path::MkTree(static_cast<const wchar_t*>(nullptr), 0));
    EXPECT_TRUE(log.lines().empty());
}

// ---------------------------------------------------------------------------
// CopyFileA

TEST_F(PathTest, CopyFileAOfEmptyFileReturnsZero) {
    writeFile(at("empty"), "");
    TarnwickTest::LogCapture log;
    EXPECT_EQ(0, Path::CopyFileA(at("empty").c_str(), at("copy").c_str(), 0644));
    EXPECT_TRUE(Path::IsFile(at("copy")));
    EXPECT_EQ("", readFile(at("copy")));
    EXPECT_EQ(0, Path::CopyFileA(wide(at("empty")).c_str(), wide(at("copy2")).c_str(), 0644));
    EXPECT_TRUE(Path::IsFile(at("copy2")));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(PathTest, CopyFileAOfFileLargerThanItsBuffer) {
    std::string content;
    for (int i = 0; i < 20000; ++i)
        content += static_cast<char>(i * 7 + (i >> 8));
    writeFile(at("big"), content);
    EXPECT_EQ(20000, Path::CopyFileA(at("big").c_str(), at("copy").c_str(), 0640));
    EXPECT_EQ(content, readFile(at("copy")));
    EXPECT_EQ(0640u, permissionsOf(at("copy")));

    EXPECT_EQ(20000, Path::CopyFileA(wide(at("big")).c_str(), wide(at("copy2")).c_str(), 0600));
    EXPECT_EQ(content, readFile(at("copy2")));
    EXPECT_EQ(0600u, permissionsOf(at("copy2")));
}

TEST_F(PathTest, CopyFileATruncatesExistingTarget) {
    writeFile(at("source"), "new");
    writeFile(at("target"), "a much longer old content");
    ASSERT_EQ(0, ::chmod(at("target").c_str(), 0600));
    EXPECT_EQ(3, Path::CopyFileA(at("source").c_str(), at("target").c_str(), 0644));
    EXPECT_EQ("new", readFile(at("target")));
    // The permissions of an existing target stay.
    EXPECT_EQ(0600u, permissionsOf(at("target")));
}

TEST_F(PathTest, CopyFileAOnHandlesFromCurrentPositions) {
    writeFile(at("source"), "0123456789");
    writeFile(at("target"), "abc");
    int const in = ::open(at("source").c_str(), O_RDONLY);
    int const out = ::open(at("target").c_str(), O_WRONLY);
    ASSERT_GE(in, 0);
    ASSERT_GE(out, 0);
    ASSERT_EQ(4, ::lseek(in, 4, SEEK_SET));
    ASSERT_EQ(1, ::lseek(out, 1, SEEK_SET));
    TarnwickTest::LogCapture log;
    EXPECT_EQ(6, Path::CopyFileA(in, out));
    // Both handles stand at their ends now: a second copy has nothing to do.
    EXPECT_EQ(0, Path::CopyFileA(in, out));
    ::close(in);
    ::close(out);
    EXPECT_EQ("a456789", readFile(at("target")));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(PathTest, CopyFileAOnBadHandlesFailsWithoutMessage) {
    writeFile(at("source"), "data");
    int const in = ::open(at("source").c_str(), O_RDONLY);
    ASSERT_GE(in, 0);
    TarnwickTest::LogCapture log;
    errno = 0;
    EXPECT_EQ(-1, Path::CopyFileA(in, in));  // not open for writing
    EXPECT_EQ(EBADF, errno);
    errno = 0;
    EXPECT_EQ(-1, Path::CopyFileA(ACE_INVALID_HANDLE, in));
    EXPECT_EQ(EBADF, errno);
    ::close(in);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(PathTest, CopyFileAWithMissingSourceLogsInputMessage) {
    TarnwickTest::LogCapture log;
    errno = 0;
    EXPECT_EQ(-1, Path::CopyFileA(at("missing").c_str(), at("copy").c_str(), 0644));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, Path::CopyFileA(wide(at("missing")).c_str(), wide(at("copy")).c_str(), 0644));
    std::string const line =
        std::string("%D ERROR (%t): Can not open input file.: ") + std::strerror(ENOENT);
    std::vector<std::string> const expected = {line, line};
    EXPECT_EQ(expected, log.lines());
    // The target is not created when the source can't be opened.
    EXPECT_FALSE(Path::Exists(wide(at("copy")).c_str()));
}

TEST_F(PathTest, CopyFileAWithUnwritableTargetLogsOutputMessage) {
    writeFile(at("source"), "data");
    TarnwickTest::LogCapture log;
    errno = 0;
    EXPECT_EQ(-1, Path::CopyFileA(at("source").c_str(), at("no/such/dir/copy").c_str(), 0644));
    EXPECT_EQ(ENOENT, errno);
    errno = 0;
    EXPECT_EQ(-1, Path::CopyFileA(wide(at("source")).c_str(), wide(dir_).c_str(), 0644));
    EXPECT_EQ(EISDIR, errno);
    std::vector<std::string> const expected = {
        std::string("%D ERROR (%t): Can not open output file.: ") + std::strerror(ENOENT),
        std::string("%D ERROR (%t): Can not open output file.: ") + std::strerror(EISDIR)};
    EXPECT_EQ(expected, log.lines());
}

TEST_F(PathTest, CopyFileAWithBadNames) {
    writeFile(at("source"), "data");
    TarnwickTest::LogCapture log;
    errno = 0;
    EXPECT_EQ(-1, Path::CopyFileA(nullptr, at("copy").c_str(), 0644));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, Path::CopyFileA(at("source").c_str(), nullptr, 0644));
    EXPECT_EQ(EINVAL, errno);
    std::wstring const bad = wide(dir_) + L"/\xDC00";
    EXPECT_EQ(-1, Path::CopyFileA(bad.c_str(), wide(at("copy")).c_str(), 0644));
    EXPECT_EQ(EILSEQ, errno);
    EXPECT_EQ(-1, Path::CopyFileA(wide(at("source")).c_str(), bad.c_str(), 0644));
    EXPECT_EQ(EILSEQ, errno);
    std::vector<std::string> const expected = {
        std::string("%D ERROR (%t): Can not open input file.: ") + std::strerror(EINVAL),
        std::string("%D ERROR (%t): Can not open output file.: ") + std::strerror(EINVAL),
        std::string("%D ERROR (%t): Can not open input file.: ") + std::strerror(EILSEQ),
        std::string("%D ERROR (%t): Can not open output file.: ") + std::strerror(EILSEQ)};
    EXPECT_EQ(expected, log.lines());
}

TEST_F(PathTest, CopyFileAToDevNull) {
    writeFile(at("source"), "twelve bytes");
    EXPECT_EQ(12, Path::CopyFileA(at("source").c_str(), "/dev/null", 0644));
}

// ---------------------------------------------------------------------------
// RunPath

TEST(PathRunPathTest, NoDefaultRunDirectory) {
    EXPECT_EQ(nullptr, Path::RunPath());
}

TEST_F(PathTest, RunPathWithMissingDirectoryReturnsTextUnchanged) {
    ACE_WString directory = ace(wide(at("missing")));
    EXPECT_STREQ(wide(at("missing")).c_str(), Path::RunPath(directory, L"twagent"));
    EXPECT_STREQ(wide(at("missing")).c_str(), directory.c_str());
}

TEST_F(PathTest, RunPathWithFileReturnsTextUnchanged) {
    writeFile(at("file"), "");
    ACE_WString directory = ace(wide(at("file")));
    EXPECT_STREQ(wide(at("file")).c_str(), Path::RunPath(directory, L"twagent"));
}

TEST_F(PathTest, RunPathBuildsPidFilePath) {
    std::wstring const expected = wide(dir_) + L"/twagent.pid";
    ACE_WString directory = ace(wide(dir_));
    EXPECT_STREQ(expected.c_str(), Path::RunPath(directory, L"twagent"));
    EXPECT_STREQ(expected.c_str(), directory.c_str());

    ACE_WString with_separator = ace(wide(dir_) + L"/");
    EXPECT_STREQ(expected.c_str(), Path::RunPath(with_separator, L"twagent"));
}

TEST(PathRunPathTest, EmptyDirectoryStaysEmpty) {
    ACE_WString directory;
    EXPECT_STREQ(L"", Path::RunPath(directory, L"twagent"));
    EXPECT_EQ(0u, directory.length());
}

}  // namespace

// ===========================================================================
// Application paths: the directory of temporary files (Path::TempPath) and
// the checks of the directories that the configuration names (check_path,
// validate_all_application_paths, createPathsFromConfig). Each test runs in
// a child process, since it fills the process-wide configuration store.

#include <tarnwick/configuration.h>
#include <tarnwick/tarnwick.h>

#include <ace/ACE.h>

#include <child.h>

namespace {

using TarnwickTest::ChildResult;
using TarnwickTest::LogCapture;
using TarnwickTest::runInChild;

// Declares the path settings ("log", "var", "pid", "rtdir", "temp").
void declarePathSettings() {
    Tarnwick::getConfigSingleton()->import(Tarnwick::PATH_SETTINGS);
}

// Declares the path settings and opens the configuration on `args` with no
// application, so that it is validated (isOk) without reading a file. The
// other required paths ("var", "pid", "rtdir") are given as `dir`.
int openConfiguration(const std::string& dir, const std::vector<std::string>& args) {
    declarePathSettings();
    std::vector<std::wstring> wide_args{L"prog", wide("--var=" + dir), wide("--pid=" + dir),
                                        wide("--rtdir=" + dir)};
    for (const std::string& arg : args)
        wide_args.push_back(wide(arg));
    std::vector<wchar_t*> argv;
    for (std::wstring& arg : wide_args)
        argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    return Tarnwick::getConfigSingleton()->open(nullptr, static_cast<int>(wide_args.size()),
                                                argv.data());
}

void setValue(const wchar_t* key, const std::string& value) {
    Tarnwick::getConfigSingleton()->setKeyVal(key, wide(value).c_str());
}

// 0 when all four forms of TempPath give `expected`; else the number of the
// first form that didn't.
int tempPathIs(const std::string& expected) {
    wchar_t* const made = Path::TempPath();
    bool const first = made != nullptr && wide(expected) == made;
    ACE::strdelete(made);
    if (!first)
        return 1;
    ACE_WString wide_path;
    if (Path::TempPath(wide_path) != 0 || wide(expected) != wide_path.c_str())
        return 2;
    ACE_String_Base<char> ace_path;
    if (Path::TempPath(ace_path) != 0 || expected != ace_path.c_str())
        return 3;
    std::string narrow;
    if (Path::TempPath(narrow) != 0 || expected != narrow)
        return 4;
    return 0;
}

using ApplicationPathTest = PathTest;

// ---------------------------------------------------------------------------
// TempPath

TEST_F(ApplicationPathTest, TempPathIsTheSystemDirectoryWithoutConfiguration) {
    ChildResult const result = runInChild([&]() {
        ::setenv("TMPDIR", dir_.c_str(), 1);
        return tempPathIs(dir_ + "/");
    });
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("", result.errors);
}

TEST_F(ApplicationPathTest, TempPathDefaultsToTmp) {
    ChildResult const result = runInChild([&]() {
        ::unsetenv("TMPDIR");
        return tempPathIs("/tmp/");
    });
    EXPECT_EQ(0, result.exitCode());
}

TEST_F(ApplicationPathTest, TempPathTakesTheConfiguredDirectory) {
    std::filesystem::create_directories(at("temp"));
    ChildResult const result = runInChild([&]() {
        ::setenv("TMPDIR", "/tmp", 1);
        if (openConfiguration(dir_, {"--temp=" + at("temp")}) != 0)
            return 10;
        return tempPathIs(at("temp"));
    });
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("", result.errors);
}

TEST_F(ApplicationPathTest, TempPathFallsBackWhenTempIsNoDirectory) {
    writeFile(at("file"), "");
    ChildResult const result = runInChild([&]() {
        ::setenv("TMPDIR", dir_.c_str(), 1);
        if (openConfiguration(dir_, {"--temp=" + at("file")}) != 0)
            return 10;
        if (tempPathIs(dir_ + "/") != 0)
            return 11;
        setValue(L"temp", at("missing"));
        return tempPathIs(dir_ + "/");
    });
    EXPECT_EQ(0, result.exitCode());
}

TEST_F(ApplicationPathTest, TempPathIgnoresTempUntilTheConfigurationIsValidated) {
    std::filesystem::create_directories(at("temp"));
    ChildResult const result = runInChild([&]() {
        ::setenv("TMPDIR", dir_.c_str(), 1);
        declarePathSettings();
        setValue(L"temp", at("temp"));
        return tempPathIs(dir_ + "/");
    });
    EXPECT_EQ(0, result.exitCode());
}

TEST_F(ApplicationPathTest, TempPathFailsWhenTheSystemDirectoryDoesNotFit) {
    ChildResult const result = runInChild([&]() {
        std::string const too_long = "/" + std::string(PATH_MAX, 'x');
        ::setenv("TMPDIR", too_long.c_str(), 1);
        if (Path::TempPath() != nullptr)
            return 1;
        ACE_WString wide_path = ace(L"kept");
        if (Path::TempPath(wide_path) != -1 || std::wstring(L"kept") != wide_path.c_str())
            return 2;
        ACE_String_Base<char> ace_path("kept");
        if (Path::TempPath(ace_path) != -1 || std::string("kept") != ace_path.c_str())
            return 3;
        std::string narrow = "kept";
        if (Path::TempPath(narrow) != -1 || narrow != "kept")
            return 4;
        return 0;
    });
    EXPECT_EQ(0, result.exitCode());
}

// ---------------------------------------------------------------------------
// check_path

TEST_F(ApplicationPathTest, CheckPathOfAnUnsetSetting) {
    ChildResult const result = runInChild([]() {
        declarePathSettings();
        return Tarnwick::check_path(L"var") == -1 ? 0 : 1;
    });
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ(
        "%D ERROR (%t): Configuration setting 'var' not set. Please check your configuration\n",
        LogCapture::normalise(result.errors));
}

TEST_F(ApplicationPathTest, CheckPathOfAnUndeclaredSetting) {
    ChildResult const result =
        runInChild([]() { return Tarnwick::check_path(L"nowhere") == -1 ? 0 : 1; });
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ(
        "%D ERROR (%t): Configuration setting 'nowhere' not set. Please check your "
        "configuration\n",
        LogCapture::normalise(result.errors));
}

TEST_F(ApplicationPathTest, CheckPathOfAValueThatIsNoDirectory) {
    writeFile(at("file"), "");
    ChildResult const result = runInChild([&]() {
        declarePathSettings();
        setValue(L"var", at("file"));
        if (Tarnwick::check_path(L"var") != -1)
            return 1;
        setValue(L"var", at("missing"));
        return Tarnwick::check_path(L"var") == -1 ? 0 : 2;
    });
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("%D ERROR (%t): Path '" + at("file") +
                  "' does not exist or is not a directory.\n"
                  "%D ERROR (%t): Path '" +
                  at("missing") + "' does not exist or is not a directory.\n",
              LogCapture::normalise(result.errors));
}

TEST_F(ApplicationPathTest, CheckPathOfADirectory) {
    ChildResult const result = runInChild([&]() {
        declarePathSettings();
        setValue(L"var", dir_);
        return Tarnwick::check_path(L"var");
    });
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("", result.errors);
}

TEST(ApplicationPathCheckTest, CheckPathOfNoKey) {
    errno = 0;
    EXPECT_EQ(-1, Tarnwick::check_path(nullptr));
    EXPECT_EQ(EINVAL, errno);
}

// ---------------------------------------------------------------------------
// validate_all_application_paths

TEST_F(ApplicationPathTest, ValidateAllWithUnsetLogReportsOnlyLog) {
    ChildResult const result = runInChild([&]() {
        declarePathSettings();
        for (const wchar_t* key : {L"var", L"pid", L"rtdir"})
            setValue(key, at("missing"));
        return Tarnwick::validate_all_application_paths() == -1 ? 0 : 1;
    });
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ(
        "%D ERROR (%t): Configuration setting 'log' not set. Please check your configuration\n",
        LogCapture::normalise(result.errors));
}

TEST_F(ApplicationPathTest, ValidateAllStopsAtTheFirstFailureInOrder) {
    ChildResult const result = runInChild([&]() {
        declarePathSettings();
        for (const wchar_t* key : {L"log", L"var", L"pid"})
            setValue(key, dir_);
        setValue(L"rtdir", at("no-rtdir"));
        return Tarnwick::validate_all_application_paths() == -1 ? 0 : 1;
    });
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ(
        "%D ERROR (%t): Path '" + at("no-rtdir") + "' does not exist or is not a directory.\n",
        LogCapture::normalise(result.errors));
}

TEST_F(ApplicationPathTest, ValidateAllWithEveryDirectory) {
    ChildResult const result = runInChild([&]() {
        declarePathSettings();
        for (const wchar_t* key : {L"log", L"var", L"pid", L"rtdir", L"temp"})
            setValue(key, dir_);
        return Tarnwick::validate_all_application_paths();
    });
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("", result.errors);
}

// ---------------------------------------------------------------------------
// createPathsFromConfig

TEST(ApplicationPathCreateTest, NoListOrAnEmptyListSucceeds) {
    EXPECT_EQ(0, Tarnwick::createPathsFromConfig(nullptr));
    const wchar_t* empty[] = {nullptr};
    EXPECT_EQ(0, Tarnwick::createPathsFromConfig(empty));
}

TEST_F(ApplicationPathTest, CreatePathsMakesAMissingDirectory) {
    std::string const wanted = at("var/lib/app");
    ChildResult const result = runInChild([&]() {
        declarePathSettings();
        setValue(L"var", wanted);
        setValue(L"log", dir_);
        const wchar_t* keys[] = {L"log", L"var", nullptr};
        return Tarnwick::createPathsFromConfig(keys);
    });
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("%D ERROR (%t): Path '" + wanted +
                  "' does not exist or is not a directory.\n"
                  "%D INFO  (%t): Creating directory " +
                  wanted + ".\n",
              LogCapture::normalise(result.errors));
    EXPECT_TRUE(Path::IsDirectory(wanted));
    EXPECT_EQ(0700u, permissionsOf(wanted));
}

TEST_F(ApplicationPathTest, CreatePathsPassesOverASettingWithoutValue) {
    ChildResult const result = runInChild([&]() {
        declarePathSettings();
        setValue(L"temp", at("temp"));
        const wchar_t* keys[] = {L"var", L"temp", nullptr};
        return Tarnwick::createPathsFromConfig(keys);
    });
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ(
        "%D ERROR (%t): Configuration setting 'var' not set. Please check your configuration\n"
        "%D ERROR (%t): Path '" +
            at("temp") +
            "' does not exist or is not a directory.\n"
            "%D INFO  (%t): Creating directory " +
            at("temp") + ".\n",
        LogCapture::normalise(result.errors));
    EXPECT_TRUE(Path::IsDirectory(at("temp")));
}

TEST_F(ApplicationPathTest, CreatePathsFailsWhenTheDirectoryCanNotBeMade) {
    writeFile(at("file"), "");
    ChildResult const result = runInChild([&]() {
        declarePathSettings();
        setValue(L"pid", at("file/run"));
        setValue(L"rtdir", at("rtdir"));
        const wchar_t* keys[] = {L"pid", L"rtdir", nullptr};
        return Tarnwick::createPathsFromConfig(keys) == -1 ? 0 : 1;
    });
    EXPECT_EQ(0, result.exitCode());
    std::string const errors = LogCapture::normalise(result.errors);
    std::string const expected_start = "%D ERROR (%t): Path '" + at("file/run") +
                                       "' does not exist or is not a directory.\n"
                                       "%D INFO  (%t): Creating directory " +
                                       at("file/run") + ".\n";
    EXPECT_EQ(expected_start, errors.substr(0, expected_start.size()));
    EXPECT_NE(std::string::npos, errors.find("Can not create path component")) << errors;
    // The walk ended at the failure.
    EXPECT_EQ(std::string::npos, errors.find(at("rtdir"))) << errors;
    EXPECT_FALSE(Path::Exists(wide(at("rtdir")).c_str()));
}

}  // namespace
