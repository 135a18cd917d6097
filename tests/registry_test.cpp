// Tests of Registry: the entry files under TARNWICK_REGISTRY, reading them
// (missing, damaged, unreadable, lenient forms) and replacing them.
#include <tarnwick/registry.h>

#include <gtest/gtest.h>
#include <log_capture.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>
#include "unprivileged.h"

using Tarnwick::Registry;

namespace {

const char kConnectFailed[] = "%D ERROR (%t): ACE_Predefined_Naming_Contexts::connect failed: ";
const char kNoConfigFile[] = "%D ERROR (%t): Can not resolve path to configuration file";
const char kNoPath[] = "%D ERROR (%t): Can not resolve path to path";
const char kNoKey[] = "%D ERROR (%t): Could not create application key in registry.";
const char kConfigFileNotWritten[] =
    "%D ERROR (%t): Could not write the path to the configuration file into the registry";
const char kPathNotWritten[] =
    "%D ERROR (%t): Could not write the path to the installation directory into the registry";

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::set<std::string> namesIn(const std::string& directory) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory))
        names.insert(entry.path().filename().string());
    return names;
}

struct stat statOf(const std::string& path) {
    struct stat info;
    EXPECT_EQ(0, ::stat(path.c_str(), &info)) << path;
    return info;
}

mode_t permissionsOf(const std::string& path) {
    return statOf(path).st_mode & 07777;
}

using TarnwickTest::asUnprivilegedUser;

// Points TARNWICK_REGISTRY at a not yet existing directory inside a fresh
// directory under /tmp; the variable and the umask are restored afterwards.
class RegistryTest : public ::testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/tarnwick-registry-XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(name));
        dir_ = name;
        root_ = dir_ + "/registry";
        const char* const old = std::getenv("TARNWICK_REGISTRY");
        had_old_ = old != nullptr;
        if (had_old_)
            old_ = old;
        ::setenv("TARNWICK_REGISTRY", root_.c_str(), 1);
        old_umask_ = ::umask(022);
    }
    void TearDown() override {
        ::umask(old_umask_);
        if (had_old_)
            ::setenv("TARNWICK_REGISTRY", old_.c_str(), 1);
        else
            ::unsetenv("TARNWICK_REGISTRY");
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }

    std::string entry(const std::string& product) const { return root_ + "/" + product + ".reg"; }
    void makeRoot() const { ASSERT_EQ(0, ::mkdir(root_.c_str(), 0755)); }
    void writeEntry(const std::string& product, const std::string& content) const {
        std::filesystem::create_directories(root_);
        writeFile(entry(product), content);
    }

    std::string dir_;
    std::string root_;
    std::string old_;
    bool had_old_ = false;
    mode_t old_umask_ = 022;
};

// ---------------------------------------------------------------------------
// Writing and reading back

TEST_F(RegistryTest, WriteThenOpen) {
    TarnwickTest::LogCapture log;
    Registry written;
    EXPECT_EQ(-1, written.open(L"Agent", nullptr));
    EXPECT_EQ(0, written.setConfigFilePath(L"/etc/tarnwick/agent.conf"));
    EXPECT_EQ(0, written.setPath(L"/opt/tarnwick"));
    EXPECT_EQ(0, written.write());
    EXPECT_EQ("configfilepath=/etc/tarnwick/agent.conf\npath=/opt/tarnwick\n",
              readFile(entry("Agent")));

    Registry read;
    EXPECT_EQ(0, read.open(L"Agent", nullptr));
    EXPECT_STREQ(L"/etc/tarnwick/agent.conf", read.configfile());
    EXPECT_STREQ(L"/opt/tarnwick", read.path());
    std::string configfile;
    std::string path;
    read.getConfigFilePath(configfile);
    read.getStoragePath(path);
    EXPECT_EQ("/etc/tarnwick/agent.conf", configfile);
    EXPECT_EQ("/opt/tarnwick", path);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(RegistryTest, ValuesKeepAnyTextButLineEnds) {
    std::wstring const configfile = L"  /srv/d\u00e9p\u00f4t/a=b #c\t.conf ";
    std::wstring const path = L"/opt/\u6587\u4ef6 ";
    Registry written;
    written.open(L"Agent", nullptr);
    written.setConfigFilePath(configfile.c_str());
    written.setPath(path.c_str());
    ASSERT_EQ(0, written.write());

    Registry read;
    EXPECT_EQ(0, read.open(L"Agent", nullptr));
    EXPECT_EQ(configfile, read.configfile());
    EXPECT_EQ(path, read.path());
    std::string utf8;
    read.getStoragePath(utf8);
    EXPECT_EQ("/opt/\xe6\x96\x87\xe4\xbb\xb6 ", utf8);
}

TEST_F(RegistryTest, EmptyValuesRoundTrip) {
    Registry written;
    written.open(L"Agent", nullptr);
    ASSERT_EQ(0, written.write());
    EXPECT_EQ("configfilepath=\npath=\n", readFile(entry("Agent")));
    Registry read;
    EXPECT_EQ(0, read.open(L"Agent", nullptr));
    EXPECT_STREQ(L"", read.configfile());
    EXPECT_STREQ(L"", read.path());
}

TEST_F(RegistryTest, WriteWithoutOpenUsesEmptyProductName) {
    Registry written;
    written.setConfigFilePath(L"/c");
    written.setPath(L"/p");
    ASSERT_EQ(0, written.write());
    EXPECT_EQ(std::set<std::string>{".reg"}, namesIn(root_));
    Registry read;
    EXPECT_EQ(0, read.open(L"", nullptr));
    EXPECT_STREQ(L"/c", read.configfile());
    EXPECT_EQ(0, read.open(nullptr, nullptr));
}

TEST_F(RegistryTest, ProductNamesAreCaseSensitive) {
    writeEntry("Agent", "configfilepath=/c\npath=/p\n");
    TarnwickTest::LogCapture log;
    Registry read;
    EXPECT_EQ(-1, read.open(L"agent", nullptr));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(RegistryTest, FailedOpenKeepsTheProductForWrite) {
    Registry registry;
    EXPECT_EQ(-1, registry.open(L"Manager", nullptr));
    registry.setConfigFilePath(L"/c");
    registry.setPath(L"/p");
    ASSERT_EQ(0, registry.write());
    EXPECT_EQ(std::set<std::string>{"Manager.reg"}, namesIn(root_));
}

// ---------------------------------------------------------------------------
// No such product

TEST_F(RegistryTest, MissingProductGivesMinusOneAndNoLog) {
    TarnwickTest::LogCapture log;
    Registry registry;
    // Neither the root nor the entry exists.
    EXPECT_EQ(-1, registry.open(L"Agent", nullptr));
    makeRoot();
    EXPECT_EQ(-1, registry.open(L"Agent", nullptr));
    EXPECT_STREQ(L"", registry.configfile());
    EXPECT_STREQ(L"", registry.path());
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(RegistryTest, ProductThatCanHaveNoEntry) {
    writeEntry("Agent", "configfilepath=/c\npath=/p\n");
    std::filesystem::create_directories(root_ + "/sub");
    writeFile(root_ + "/sub/Agent.reg", "configfilepath=/c\npath=/p\n");
    TarnwickTest::LogCapture log;
    Registry registry;
    EXPECT_EQ(-1, registry.open(L"sub/Agent", nullptr));
    EXPECT_EQ(-1, registry.open(L"../registry/Agent", nullptr));
    EXPECT_EQ(-1, registry.open(L"\xD800", nullptr));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(RegistryTest, DefaultRootWhenVariableIsUnsetOrEmpty) {
    // A product that no installation has: "no such product" from the default
    // root whether that exists or not.
    TarnwickTest::LogCapture log;
    Registry registry;
    ::unsetenv("TARNWICK_REGISTRY");
    EXPECT_EQ(-1, registry.open(L"tarnwick-registry-test-no-such-product", nullptr));
    ::setenv("TARNWICK_REGISTRY", "", 1);
    EXPECT_EQ(-1, registry.open(L"tarnwick-registry-test-no-such-product", nullptr));
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FALSE(std::filesystem::exists(root_));
}

TEST_F(RegistryTest, RootWithTrailingSeparator) {
    ::setenv("TARNWICK_REGISTRY", (root_ + "/").c_str(), 1);
    Registry written;
    written.open(L"Agent", nullptr);
    ASSERT_EQ(0, written.write());
    EXPECT_EQ(std::set<std::string>{"Agent.reg"}, namesIn(root_));
}

// ---------------------------------------------------------------------------
// Damaged entries

TEST_F(RegistryTest, ConfigFileWithoutPathLogsSecondMessage) {
    writeEntry("Agent", "configfilepath=/etc/tarnwick/agent.conf\n");
    TarnwickTest::LogCapture log;
    Registry registry;
    EXPECT_EQ(-1, registry.open(L"Agent", nullptr));
    EXPECT_STREQ(L"/etc/tarnwick/agent.conf", registry.configfile());
    EXPECT_STREQ(L"", registry.path());
    EXPECT_EQ(std::vector<std::string>{kNoPath}, log.lines());
}

TEST_F(RegistryTest, MissingConfigFilePathLogsFirstMessage) {
    writeEntry("Agent", "path=/opt/tarnwick\n");
    TarnwickTest::LogCapture log;
    Registry registry;
    EXPECT_EQ(-1, registry.open(L"Agent", nullptr));
    EXPECT_STREQ(L"", registry.configfile());
    EXPECT_STREQ(L"", registry.path());
    EXPECT_EQ(std::vector<std::string>{kNoConfigFile}, log.lines());
}

TEST_F(RegistryTest, EmptyFileLogsFirstMessage) {
    writeEntry("Agent", "");
    TarnwickTest::LogCapture log;
    Registry registry;
    EXPECT_EQ(-1, registry.open(L"Agent", nullptr));
    EXPECT_EQ(std::vector<std::string>{kNoConfigFile}, log.lines());
}

TEST_F(RegistryTest, ValueLongerThanLimitFailsWithItsMessage) {
    std::string const longest(PATH_MAX, 'c');
    std::string const too_long(PATH_MAX + 1, 'c');
    TarnwickTest::LogCapture log;
    Registry registry;

    writeEntry("Agent", "configfilepath=" + longest + "\npath=" + longest + "\n");
    EXPECT_EQ(0, registry.open(L"Agent", nullptr));
    EXPECT_EQ(static_cast<size_t>(PATH_MAX), std::wcslen(registry.configfile()));
    EXPECT_TRUE(log.lines().empty());

    writeEntry("Agent", "configfilepath=" + too_long + "\npath=/p\n");
    Registry first;
    EXPECT_EQ(-1, first.open(L"Agent", nullptr));
    EXPECT_STREQ(L"", first.configfile());
    EXPECT_EQ(std::vector<std::string>{kNoConfigFile}, log.lines());
    log.clear();

    writeEntry("Agent", "configfilepath=/c\npath=" + too_long + "\n");
    Registry second;
    EXPECT_EQ(-1, second.open(L"Agent", nullptr));
    EXPECT_STREQ(L"/c", second.configfile());
    EXPECT_STREQ(L"", second.path());
    EXPECT_EQ(std::vector<std::string>{kNoPath}, log.lines());
}

TEST_F(RegistryTest, LimitCountsCharactersNotBytes) {
    // PATH_MAX characters of two bytes each are still read.
    std::string value;
    for (int i = 0; i < PATH_MAX; ++i)
        value += "\xc3\xa9";
    writeEntry("Agent", "configfilepath=" + value + "\npath=/p\n");
    Registry registry;
    EXPECT_EQ(0, registry.open(L"Agent", nullptr));
    EXPECT_EQ(static_cast<size_t>(PATH_MAX), std::wcslen(registry.configfile()));
}

TEST_F(RegistryTest, ValueThatIsNotUTF8FailsWithItsMessage) {
    writeEntry("Agent", "configfilepath=/c\npath=/opt/\xff\n");
    TarnwickTest::LogCapture log;
    Registry registry;
    EXPECT_EQ(-1, registry.open(L"Agent", nullptr));
    EXPECT_STREQ(L"/c", registry.configfile());
    EXPECT_EQ(std::vector<std::string>{kNoPath}, log.lines());
}

TEST_F(RegistryTest, OpenKeepsValuesReadBeforeAFailure) {
    writeEntry("Agent", "configfilepath=/c1\npath=/p1\n");
    Registry registry;
    ASSERT_EQ(0, registry.open(L"Agent", nullptr));
    writeEntry("Agent", "configfilepath=/c2\n");
    TarnwickTest::LogCapture log;
    EXPECT_EQ(-1, registry.open(L"Agent", nullptr));
    EXPECT_STREQ(L"/c2", registry.configfile());
    EXPECT_STREQ(L"/p1", registry.path());
    // No entry at all changes nothing.
    EXPECT_EQ(-1, registry.open(L"Other", nullptr));
    EXPECT_STREQ(L"/c2", registry.configfile());
    EXPECT_STREQ(L"/p1", registry.path());
    EXPECT_EQ(std::vector<std::string>{kNoPath}, log.lines());
}

// ---------------------------------------------------------------------------
// Entries that can't be read

TEST_F(RegistryTest, DirectoryInPlaceOfEntryLogsConnectMessage) {
    std::filesystem::create_directories(entry("Agent"));
    TarnwickTest::LogCapture log;
    errno = 0;
    Registry registry;
    EXPECT_EQ(-1, registry.open(L"Agent", nullptr));
    EXPECT_EQ(EISDIR, errno);
    EXPECT_EQ(std::vector<std::string>{kConnectFailed + std::string(std::strerror(EISDIR))},
              log.lines());
}

TEST_F(RegistryTest, RootThatIsAFileLogsConnectMessage) {
    writeFile(root_, "not a directory");
    TarnwickTest::LogCapture log;
    Registry registry;
    EXPECT_EQ(-1, registry.open(L"Agent", nullptr));
    EXPECT_EQ(std::vector<std::string>{kConnectFailed + std::string(std::strerror(ENOTDIR))},
              log.lines());
}

TEST_F(RegistryTest, FifoInPlaceOfEntryLogsConnectMessage) {
    makeRoot();
    ASSERT_EQ(0, ::mkfifo(entry("Agent").c_str(), 0644));
    TarnwickTest::LogCapture log;
    Registry registry;
    EXPECT_EQ(-1, registry.open(L"Agent", nullptr));
    EXPECT_EQ(std::vector<std::string>{kConnectFailed + std::string(std::strerror(EINVAL))},
              log.lines());
}

TEST_F(RegistryTest, UnreadableEntryLogsConnectMessage) {
    writeEntry("Agent", "configfilepath=/c\npath=/p\n");
    ASSERT_EQ(0, ::chmod(entry("Agent").c_str(), 0600));
    ASSERT_EQ(0, ::chmod(dir_.c_str(), 0755));
    asUnprivilegedUser([&] {
        TarnwickTest::LogCapture log;
        Registry registry;
        EXPECT_EQ(-1, registry.open(L"Agent", nullptr));
        EXPECT_EQ(std::vector<std::string>{kConnectFailed + std::string(std::strerror(EACCES))},
                  log.lines());
    });
}

TEST_F(RegistryTest, EntryWrittenUnderRestrictiveUmaskIsReadableByEveryone) {
    ASSERT_EQ(0, ::chmod(dir_.c_str(), 0755));
    ::umask(077);
    Registry written;
    written.open(L"Agent", nullptr);
    written.setConfigFilePath(L"/c");
    written.setPath(L"/p");
    ASSERT_EQ(0, written.write());
    asUnprivilegedUser([&] {
        Registry read;
        EXPECT_EQ(0, read.open(L"Agent", nullptr));
        EXPECT_STREQ(L"/c", read.configfile());
    });
}

// ---------------------------------------------------------------------------
// Lenient reading

TEST_F(RegistryTest, ReadingIsLenient) {
    writeEntry("Agent",
               "# written by hand\r\n"
               "\n"
               "   \t\n"
               "  configfilepath\t=/first\n"
               "unknown=whatever\n"
               "no equals sign here\n"
               "=no key\n"
               "  # path=/commented\n"
               "Path=/wrong case\n"
               "configfilepath =/etc/a=b.conf\r\n"
               "path=/opt/tarnwick");
    TarnwickTest::LogCapture log;
    Registry registry;
    EXPECT_EQ(0, registry.open(L"Agent", nullptr));
    // The last of a repeated key counts; a CR before the line end is dropped;
    // the value is all that follows the first '='.
    EXPECT_STREQ(L"/etc/a=b.conf", registry.configfile());
    EXPECT_STREQ(L"/opt/tarnwick", registry.path());
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(RegistryTest, BlanksAfterTheEqualsSignBelongToTheValue) {
    writeEntry("Agent", "configfilepath = /c \npath=\t/p\n");
    Registry registry;
    EXPECT_EQ(0, registry.open(L"Agent", nullptr));
    EXPECT_STREQ(L" /c ", registry.configfile());
    EXPECT_STREQ(L"\t/p", registry.path());
}

// ---------------------------------------------------------------------------
// Replacing entries

TEST_F(RegistryTest, WriteReplacesAtomically) {
    Registry registry;
    registry.open(L"Agent", nullptr);
    registry.setConfigFilePath(L"/old.conf");
    registry.setPath(L"/old");
    ASSERT_EQ(0, registry.write());
    ino_t const old_inode = statOf(entry("Agent")).st_ino;
    // A reader that has the old file open keeps reading the old content.
    int const reader = ::open(entry("Agent").c_str(), O_RDONLY);
    ASSERT_GE(reader, 0);

    registry.setConfigFilePath(L"/new.conf");
    registry.setPath(L"/new");
    ASSERT_EQ(0, registry.write());
    EXPECT_EQ("configfilepath=/new.conf\npath=/new\n", readFile(entry("Agent")));
    EXPECT_NE(old_inode, statOf(entry("Agent")).st_ino);
    char buffer[64] = {};
    EXPECT_EQ(35, ::read(reader, buffer, sizeof buffer - 1));
    EXPECT_STREQ("configfilepath=/old.conf\npath=/old\n", buffer);
    ::close(reader);
    // No temporary file is left behind.
    EXPECT_EQ(std::set<std::string>{"Agent.reg"}, namesIn(root_));
}

TEST_F(RegistryTest, WriteDropsLinesItDoesNotKnow) {
    writeEntry("Agent", "# comment\nextra=1\nconfigfilepath=/c\npath=/p\n");
    Registry registry;
    ASSERT_EQ(0, registry.open(L"Agent", nullptr));
    ASSERT_EQ(0, registry.write());
    EXPECT_EQ("configfilepath=/c\npath=/p\n", readFile(entry("Agent")));
}

TEST_F(RegistryTest, FileModes) {
    ::umask(077);
    std::string const nested = dir_ + "/etc/tarnwick/registry";
    ::setenv("TARNWICK_REGISTRY", nested.c_str(), 1);
    Registry registry;
    registry.open(L"Agent", nullptr);
    ASSERT_EQ(0, registry.write());
    // Made here: readable by everyone whatever the umask.
    EXPECT_EQ(0755u, permissionsOf(dir_ + "/etc"));
    EXPECT_EQ(0755u, permissionsOf(dir_ + "/etc/tarnwick"));
    EXPECT_EQ(0755u, permissionsOf(nested));
    EXPECT_EQ(0644u, permissionsOf(nested + "/Agent.reg"));
    EXPECT_TRUE(S_ISREG(statOf(nested + "/Agent.reg").st_mode));
    // The temporary directory made by the test keeps its mode.
    EXPECT_EQ(0700u, permissionsOf(dir_));

    // An existing root keeps its mode; a replaced entry gets 0644 again.
    ASSERT_EQ(0, ::chmod(nested.c_str(), 0750));
    ASSERT_EQ(0, ::chmod((nested + "/Agent.reg").c_str(), 0600));
    ASSERT_EQ(0, registry.write());
    EXPECT_EQ(0750u, permissionsOf(nested));
    EXPECT_EQ(0644u, permissionsOf(nested + "/Agent.reg"));
}

TEST_F(RegistryTest, WriteRefusesLineEndsInValues) {
    Registry good;
    good.open(L"Agent", nullptr);
    good.setConfigFilePath(L"/c");
    good.setPath(L"/p");
    ASSERT_EQ(0, good.write());

    TarnwickTest::LogCapture log;
    Registry registry;
    registry.open(L"Agent", nullptr);
    registry.setConfigFilePath(L"/c\n/injected");
    registry.setPath(L"/p");
    errno = 0;
    EXPECT_EQ(-1, registry.write());
    EXPECT_EQ(EINVAL, errno);

    registry.setConfigFilePath(L"/c");
    registry.setPath(L"/p\rpath=/x");
    errno = 0;
    EXPECT_EQ(-1, registry.write());
    EXPECT_EQ(EINVAL, errno);

    std::vector<std::string> const expected = {kConfigFileNotWritten, kPathNotWritten};
    EXPECT_EQ(expected, log.lines());
    // The entry is as it was, with no temporary file beside it.
    EXPECT_EQ("configfilepath=/c\npath=/p\n", readFile(entry("Agent")));
    EXPECT_EQ(std::set<std::string>{"Agent.reg"}, namesIn(root_));
}

TEST_F(RegistryTest, WriteRefusesValuesThatAreNoText) {
    TarnwickTest::LogCapture log;
    Registry registry;
    registry.open(L"Agent", nullptr);
    registry.setConfigFilePath(L"/c");
    registry.setPath(L"/p\xDFFF");
    errno = 0;
    EXPECT_EQ(-1, registry.write());
    EXPECT_EQ(EILSEQ, errno);
    EXPECT_EQ(std::vector<std::string>{kPathNotWritten}, log.lines());
    EXPECT_TRUE(namesIn(root_).empty());
}

TEST_F(RegistryTest, WriteFailsWhenRootCanNotBeMade) {
    writeFile(dir_ + "/file", "");
    ::setenv("TARNWICK_REGISTRY", (dir_ + "/file/registry").c_str(), 1);
    TarnwickTest::LogCapture log;
    Registry registry;
    EXPECT_EQ(-1, registry.open(L"Agent", nullptr));
    EXPECT_EQ(-1, registry.write());
    std::vector<std::string> const expected = {
        kConnectFailed + std::string(std::strerror(ENOTDIR)),
        "%D ERROR (%t): Can not create path component " + dir_ + "/file: " + std::strerror(EEXIST),
        kNoKey};
    EXPECT_EQ(expected, log.lines());
}

TEST_F(RegistryTest, WriteFailsForProductThatCanHaveNoEntry) {
    TarnwickTest::LogCapture log;
    Registry registry;
    registry.open(L"sub/Agent", nullptr);
    errno = 0;
    EXPECT_EQ(-1, registry.write());
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(std::vector<std::string>{kNoKey}, log.lines());
    EXPECT_FALSE(std::filesystem::exists(root_));
}

TEST_F(RegistryTest, WriteFailsWhenEntryCanNotBeReplaced) {
    std::filesystem::create_directories(entry("Agent") + "/inside");
    TarnwickTest::LogCapture log;
    Registry registry;
    EXPECT_EQ(-1, registry.open(L"Agent", nullptr));
    errno = 0;
    EXPECT_EQ(-1, registry.write());
    EXPECT_NE(0, errno);
    std::vector<std::string> const expected = {kConnectFailed + std::string(std::strerror(EISDIR)),
                                               kNoKey};
    EXPECT_EQ(expected, log.lines());
    EXPECT_EQ(std::set<std::string>{"Agent.reg"}, namesIn(root_));
    EXPECT_TRUE(std::filesystem::is_directory(entry("Agent")));
}

TEST_F(RegistryTest, WriteFailsInReadOnlyRoot) {
    makeRoot();
    ASSERT_EQ(0, ::chmod(dir_.c_str(), 0755));
    asUnprivilegedUser([&] {
        TarnwickTest::LogCapture log;
        Registry registry;
        registry.open(L"Agent", nullptr);
        errno = 0;
        EXPECT_EQ(-1, registry.write());
        EXPECT_EQ(EACCES, errno);
        EXPECT_EQ(std::vector<std::string>{kNoKey}, log.lines());
    });
    EXPECT_TRUE(namesIn(root_).empty());
}

// ---------------------------------------------------------------------------
// Fields

TEST(RegistryFieldsTest, NewObjectHasEmptyFields) {
    Registry registry;
    EXPECT_STREQ(L"", registry.configfile());
    EXPECT_STREQ(L"", registry.path());
    std::string text = "left over";
    registry.getConfigFilePath(text);
    EXPECT_EQ("", text);
}

TEST(RegistryFieldsTest, SettersAssign) {
    Registry registry;
    EXPECT_EQ(0, registry.setConfigFilePath(L"/c"));
    EXPECT_EQ(0, registry.setPath(L"/p"));
    EXPECT_STREQ(L"/c", registry.configfile());
    EXPECT_STREQ(L"/p", registry.path());
    EXPECT_EQ(0, registry.setConfigFilePath(nullptr));
    EXPECT_EQ(0, registry.setPath(L""));
    EXPECT_STREQ(L"", registry.configfile());
    EXPECT_STREQ(L"", registry.path());
}

TEST(RegistryFieldsTest, SettersClearStaleErrno) {
    Registry registry;
    errno = EINVAL;
    EXPECT_EQ(0, registry.setConfigFilePath(L"/c"));
    errno = ENOENT;
    EXPECT_EQ(0, registry.setPath(L"/p"));
}

TEST(RegistryFieldsTest, FieldsAsUTF8) {
    Registry registry;
    registry.setConfigFilePath(L"/d\u00e9p\u00f4t/a.conf");
    registry.setPath(L"/\U0001F600");
    std::string configfile;
    std::string path;
    registry.getConfigFilePath(configfile);
    registry.getStoragePath(path);
    EXPECT_EQ("/d\xc3\xa9p\xc3\xb4t/a.conf", configfile);
    EXPECT_EQ("/\xf0\x9f\x98\x80", path);

    // A field that is no text gives the empty string.
    registry.setPath(L"/\xD800");
    registry.getStoragePath(path);
    EXPECT_EQ("", path);
}

}  // namespace
