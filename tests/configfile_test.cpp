#include <tarnwick/configfile.h>
#include <tarnwick/exception.h>
#include <tarnwick/registry.h>
#include <tarnwick/tarnwick.h>

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <new>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "child.h"
#include "log_capture.h"
#include "unprivileged.h"

using namespace Tarnwick;
using TarnwickTest::LogCapture;

// Live allocations through the global operator new, for the test of the
// memory that failed lookups cost.
namespace {
std::atomic<long> liveAllocations{0};
}  // namespace

void* operator new(std::size_t size) {
    void* const block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr)
        throw std::bad_alloc();
    liveAllocations.fetch_add(1, std::memory_order_relaxed);
    return block;
}
void* operator new[](std::size_t size) {
    return operator new(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    void* const block = std::malloc(size == 0 ? 1 : size);
    if (block != nullptr)
        liveAllocations.fetch_add(1, std::memory_order_relaxed);
    return block;
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
    return operator new(size, tag);
}
void operator delete(void* block) noexcept {
    if (block == nullptr)
        return;
    liveAllocations.fetch_sub(1, std::memory_order_relaxed);
    std::free(block);
}
void operator delete[](void* block) noexcept {
    operator delete(block);
}
void operator delete(void* block, std::size_t) noexcept {
    operator delete(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    operator delete(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    operator delete(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    operator delete(block);
}

namespace {

std::wstring widen(const std::string& text) {
    wchar_t* converted = utf8towcs_malloced(text.c_str());
    EXPECT_NE(converted, nullptr) << text;
    if (converted == nullptr)
        return std::wstring();
    std::wstring out(converted);
    wcsfree(converted);
    return out;
}

std::wstring get(ConfigFile& file, const wchar_t* section, const wchar_t* key) {
    ACE_WString const value = file.get(section, key);
    return std::wstring(value.c_str(), value.length());
}

std::vector<std::string> sectionNames(const ConfigFile& file) {
    std::vector<std::string> names;
    EXPECT_EQ(file.list_sections(names), 0);
    return names;
}

std::string written(const ConfigFile& file) {
    std::ostringstream out;
    out << file;
    return out.str();
}

const std::vector<std::string> NONE;

class ConfigFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/configfile_test.XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir_ = name;
    }

    void TearDown() override {
        std::error_code ignored;
        std::filesystem::permissions(dir_, std::filesystem::perms::owner_all,
                                     std::filesystem::perm_options::add, ignored);
        std::filesystem::remove_all(dir_, ignored);
    }

    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    std::wstring wpath(const std::string& name) const { return widen(path(name)); }

    void put(const std::string& name, const std::string& content) {
        std::ofstream out(path(name), std::ios::binary | std::ios::trunc);
        out << content;
        ASSERT_TRUE(out.good()) << name;
    }

    std::string contents(const std::string& name) const {
        std::ifstream in(path(name), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }

    // Writes `content` to a file, opens and updates it and gives the file's
    // contents afterwards.
    std::string rewrite(const std::string& content) {
        put("rewrite.conf", content);
        ConfigFile file(wpath("rewrite.conf").c_str());
        EXPECT_EQ(file.open(), 0);
        EXPECT_EQ(file.update(), 0);
        return contents("rewrite.conf");
    }

    std::string dir_;
};

ConfigFile fromText(const std::string& text) {
    std::istringstream in(text);
    return ConfigFile(in);
}

}  // namespace

// ---------------------------------------------------------------------------
// Options and their trimming

TEST_F(ConfigFileTest, ValueKeepsHashAndSemicolon) {
    ConfigFile file = fromText("[a]\nkey = some value # note\nother=x ; y\n");
    EXPECT_EQ(get(file, L"a", L"key"), L"some value # note");
    EXPECT_EQ(get(file, L"a", L"other"), L"x ; y");
}

TEST_F(ConfigFileTest, SplitsAtTheFirstEquals) {
    ConfigFile file = fromText("[a]\na=b=c\n");
    EXPECT_EQ(get(file, L"a", L"a"), L"b=c");
    EXPECT_FALSE(file.hasOption(L"a", L"a=b"));
    EXPECT_EQ(rewrite("[a]\na=b=c\n"), "[a]\na=b=c\n");
}

TEST_F(ConfigFileTest, TrimsSpacesAndTabsOnly) {
    ConfigFile file = fromText("[a]\n \t key one \t = \t v a l \t \nk2=\vx\v\n");
    EXPECT_EQ(get(file, L"a", L"key one"), L"v a l");
    EXPECT_EQ(get(file, L"a", L"k2"), L"\vx\v");
    EXPECT_EQ(written(file), "[a]\nkey one=v a l\nk2=\vx\v\n");
}

TEST_F(ConfigFileTest, WhitespaceOnlyKeysAndValuesStayAsTheyAre) {
    std::string const text = "[a]\na=   \n   =x\n\t=\t\n";
    ConfigFile file = fromText(text);
    EXPECT_EQ(get(file, L"a", L"a"), L"   ");
    EXPECT_EQ(get(file, L"a", L"   "), L"x");
    EXPECT_EQ(get(file, L"a", L"\t"), L"\t");
    EXPECT_FALSE(file.hasOption(L"a", L""));
    EXPECT_EQ(rewrite(text), text);
}

TEST_F(ConfigFileTest, EmptyKeyAndEmptyValueAreLegal) {
    ConfigFile file = fromText("[a]\n=x\ny=\n");
    EXPECT_EQ(get(file, L"a", L""), L"x");
    EXPECT_TRUE(file.hasOption(L"a", L"y"));
    EXPECT_EQ(get(file, L"a", L"y"), L"");
    EXPECT_EQ(rewrite("[a]\n=x\ny=\n"), "[a]\n=x\ny=\n");
}

TEST_F(ConfigFileTest, LeadingBlankMakesNeitherCommentNorHeader) {
    ConfigFile file = fromText("[a]\n # x = 1\n  [b]\n  [c]=2\n");
    EXPECT_EQ(get(file, L"a", L"# x"), L"1");
    EXPECT_EQ(get(file, L"a", L"[c]"), L"2");
    EXPECT_EQ(sectionNames(file), std::vector<std::string>{"a"});
    EXPECT_EQ(written(file), "[a]\n# x=1\n[c]=2\n");
}

TEST_F(ConfigFileTest, LineWithoutEqualsIsIgnoredAndKeepsThePendingComment) {
    EXPECT_EQ(rewrite("[a]\n#c\nnoequals\nk=v\n"), "[a]\n\n#c\nk=v\n");
}

// ---------------------------------------------------------------------------
// Sections

TEST_F(ConfigFileTest, HeaderNameEndsAtTheFirstBracket) {
    ConfigFile file = fromText("[a] trailing = 1\n[]\nk=v\n[x]y]\n[[n]]\n");
    EXPECT_EQ(sectionNames(file), (std::vector<std::string>{"", "[n", "a", "x"}));
    EXPECT_EQ(get(file, L"", L"k"), L"v");
    EXPECT_EQ(written(file), "[a]\n[]\nk=v\n[x]\n[[n]\n");
}

TEST_F(ConfigFileTest, BlanksInSectionNamesCount) {
    ConfigFile file = fromText("[ a ]\nk=1\n[a]\nk=2\n");
    EXPECT_EQ(sectionNames(file), (std::vector<std::string>{" a ", "a"}));
    EXPECT_EQ(get(file, L" a ", L"k"), L"1");
    EXPECT_EQ(get(file, L"a", L"k"), L"2");
    EXPECT_TRUE(file.hasSection(L" a "));
    EXPECT_FALSE(file.hasSection(L"a "));
}

TEST_F(ConfigFileTest, RepeatedSectionJoinsTheFirst) {
    EXPECT_EQ(rewrite("[a]\nx=1\n[b]\ny=2\n[a]\nz=3\n"), "[a]\nx=1\nz=3\n[b]\ny=2\n");
}

TEST_F(ConfigFileTest, RepeatedKeyIsWrittenTwiceWithTheLaterValue) {
    ConfigFile file = fromText("[a]\nk=1\nk=2\n");
    EXPECT_EQ(get(file, L"a", L"k"), L"2");
    EXPECT_EQ(rewrite("[a]\nk=1\nk=2\n"), "[a]\nk=2\nk=2\n");
    EXPECT_EQ(rewrite("[a]\n#one\nk=1\nm=0\n#two\nk=2\n"), "[a]\n\n#two\nk=2\nm=0\n\n#two\nk=2\n");
}

TEST_F(ConfigFileTest, UnclosedHeaderIsIgnored) {
    ConfigFile file = fromText("[a]\nx=1\n#c\n[sec\ny=2\n");
    EXPECT_EQ(sectionNames(file), std::vector<std::string>{"a"});
    EXPECT_EQ(get(file, L"a", L"y"), L"2");
    EXPECT_FALSE(file.hasSection(L"sec"));
    EXPECT_EQ(written(file), "[a]\nx=1\n\n#c\ny=2\n");
}

TEST_F(ConfigFileTest, NamesAreCaseSensitive) {
    ConfigFile file = fromText("[A]\nK=1\n[a]\nk=2\n");
    EXPECT_EQ(get(file, L"A", L"K"), L"1");
    EXPECT_EQ(get(file, L"a", L"k"), L"2");
    EXPECT_FALSE(file.hasOption(L"A", L"k"));
    EXPECT_EQ(get(file, L"a", L"K"), L"");
    EXPECT_EQ(sectionNames(file), (std::vector<std::string>{"A", "a"}));
}

TEST_F(ConfigFileTest, ListSectionsIsSortedRewriteKeepsFileOrder) {
    std::string const text = "[zeta]\n[Alpha]\nk=v\n[beta]\n[10]\n[9]\n";
    ConfigFile file = fromText(text);
    EXPECT_EQ(sectionNames(file), (std::vector<std::string>{"10", "9", "Alpha", "beta", "zeta"}));
    testing::internal::CaptureStdout();
    EXPECT_EQ(file.list_sections(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "10\n9\nAlpha\nbeta\nzeta\n");
    EXPECT_EQ(rewrite(text), text);
}

TEST_F(ConfigFileTest, ListSectionsAppendsWithoutClearing) {
    ConfigFile file = fromText("[b]\n[a]\n");
    std::vector<std::string> names = {"kept"};
    EXPECT_EQ(file.list_sections(names), 0);
    EXPECT_EQ(names, (std::vector<std::string>{"kept", "a", "b"}));
}

// ---------------------------------------------------------------------------
// Comments and line ends

TEST_F(ConfigFileTest, OnlyCommentsGiveNoSections) {
    ConfigFile file = fromText("# one\n; two\n\n#three\n");
    EXPECT_EQ(sectionNames(file), NONE);
    EXPECT_EQ(rewrite("# one\n; two\n\n#three\n"), "");
}

TEST_F(ConfigFileTest, CommentAboveTheFirstHeaderIsNotWrittenBack) {
    EXPECT_EQ(rewrite("# head\n; more\n[a]\nk=v\n"), "[a]\nk=v\n");
}

TEST_F(ConfigFileTest, CommentsAboveOptionsSurviveWithAnEmptyLineAbove) {
    EXPECT_EQ(rewrite("[a]\n# one\n\n; two\nk = v\nplain=1\n"),
              "[a]\n\n# one\n; two\nk=v\nplain=1\n");
}

TEST_F(ConfigFileTest, CommentAboveARepeatedHeaderIsDropped) {
    EXPECT_EQ(rewrite("[a]\nx=1\n# gone\n[a]\ny=2\n"), "[a]\nx=1\ny=2\n");
}

TEST_F(ConfigFileTest, CommentAboveALaterHeaderIsDropped) {
    EXPECT_EQ(rewrite("[a]\nx=1\n# about b\n[b]\ny=2\n"), "[a]\nx=1\n[b]\ny=2\n");
}

TEST_F(ConfigFileTest, CommentPendingAtTheEndIsDropped) {
    EXPECT_EQ(rewrite("[a]\nk=v\n# tail\n"), "[a]\nk=v\n");
}

TEST_F(ConfigFileTest, RewriteOfTheDocumentedExample) {
    EXPECT_EQ(rewrite("# Agent settings\n"
                      "[Agent]\n"
                      "name = twagent\n"
                      "# error, warning, info or debug\n"
                      "loglevel = info\n"
                      "\n"
                      "[paths]\n"
                      "log = log\n"),
              "[Agent]\n"
              "name=twagent\n"
              "\n"
              "# error, warning, info or debug\n"
              "loglevel=info\n"
              "[paths]\n"
              "log=log\n");
}

TEST_F(ConfigFileTest, BlankLinesAndSpacingAreNotKept) {
    EXPECT_EQ(rewrite("\n[a]\n\n\nk = v\n\n[b]\n\nm\t=\tn\n\n"), "[a]\nk=v\n[b]\nm=n\n");
}

TEST_F(ConfigFileTest, LastLineWithoutLineEndCounts) {
    ConfigFile file = fromText("[a]\nk=v");
    EXPECT_EQ(get(file, L"a", L"k"), L"v");
    ConfigFile header = fromText("[a]\nk=v\n[b]");
    EXPECT_EQ(sectionNames(header), (std::vector<std::string>{"a", "b"}));
}

TEST_F(ConfigFileTest, OneCarriageReturnAtTheEndOfALineIsDropped) {
    ConfigFile file = fromText("[a]\r\nk = v\r\n#c\r\n\r\nm=n\r\nr=x\r\r\nlast=1\r");
    EXPECT_EQ(sectionNames(file), std::vector<std::string>{"a"});
    EXPECT_EQ(get(file, L"a", L"k"), L"v");
    EXPECT_EQ(get(file, L"a", L"m"), L"n");
    EXPECT_EQ(get(file, L"a", L"r"), L"x\r");
    EXPECT_EQ(get(file, L"a", L"last"), L"1");
    EXPECT_EQ(written(file), "[a]\nk=v\n\n#c\nm=n\nr=x\r\nlast=1\n");
}

TEST_F(ConfigFileTest, CarriageReturnInsideALineIsText) {
    ConfigFile file = fromText("[a\rb]\nk=v\rw\n");
    EXPECT_EQ(sectionNames(file), std::vector<std::string>{"a\rb"});
    EXPECT_EQ(get(file, L"a\rb", L"k"), L"v\rw");
}

// ---------------------------------------------------------------------------
// Opening and rewriting files

TEST_F(ConfigFileTest, EmptyAndMissingFilesReadNothing) {
    put("empty.conf", "");
    LogCapture capture;
    ConfigFile empty(wpath("empty.conf").c_str());
    EXPECT_EQ(empty.open(), 0);
    EXPECT_EQ(sectionNames(empty), NONE);
    ConfigFile missing(wpath("missing.conf").c_str());
    EXPECT_EQ(missing.open(), 0);
    EXPECT_EQ(sectionNames(missing), NONE);
    EXPECT_EQ(capture.lines(), NONE);
    EXPECT_EQ(missing.update(), 0);
    EXPECT_EQ(contents("missing.conf"), "");
    EXPECT_TRUE(std::filesystem::is_regular_file(path("missing.conf")));
}

TEST_F(ConfigFileTest, OptionBeforeTheFirstHeaderFailsOpen) {
    put("bad.conf", "[a]\nx=0\n");
    ConfigFile file(wpath("bad.conf").c_str());
    ASSERT_EQ(file.open(), 0);
    put("bad.conf", "# c\nx=1\n[b]\ny=2\n");
    LogCapture capture;
    EXPECT_EQ(file.open(), -1);
    EXPECT_EQ(capture.lines(), std::vector<std::string>{
                                   "%D ERROR (%t): No section defined when option encountered."});
    // What was there before stays; nothing of the failed read is added.
    EXPECT_EQ(sectionNames(file), std::vector<std::string>{"a"});
    EXPECT_EQ(written(file), "[a]\nx=0\n");
}

TEST_F(ConfigFileTest, JunkBeforeTheFirstHeaderIsIgnored) {
    put("junk.conf", "junk\n[a]\ny=2\n");
    LogCapture capture;
    ConfigFile file(wpath("junk.conf").c_str());
    EXPECT_EQ(file.open(), 0);
    EXPECT_EQ(get(file, L"a", L"y"), L"2");
    EXPECT_EQ(capture.lines(), NONE);
}

TEST_F(ConfigFileTest, OpenReadsOnTopOfWhatIsThere) {
    put("again.conf", "[a]\n#c\nk=1\n");
    ConfigFile file(wpath("again.conf").c_str());
    ASSERT_EQ(file.open(), 0);
    ASSERT_EQ(file.open(), 0);
    EXPECT_EQ(get(file, L"a", L"k"), L"1");
    EXPECT_EQ(file.update(), 0);
    EXPECT_EQ(contents("again.conf"), "[a]\n\n#c\nk=1\n\n#c\nk=1\n");
}

TEST_F(ConfigFileTest, OpenOfADirectoryReadsNothing) {
    std::filesystem::create_directory(path("dir.conf"));
    ConfigFile file(wpath("dir.conf").c_str());
    EXPECT_EQ(file.open(), 0);
    EXPECT_EQ(sectionNames(file), NONE);
}

TEST_F(ConfigFileTest, OpenOfAnUnreadableFileReadsNothing) {
    put("secret.conf", "[a]\nk=v\n");
    ASSERT_EQ(chmod(path("secret.conf").c_str(), 0), 0);
    ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
    TarnwickTest::asUnprivilegedUser([this] {
        ConfigFile file(wpath("secret.conf").c_str());
        EXPECT_EQ(file.open(), 0);
        EXPECT_EQ(sectionNames(file), NONE);
    });
}

TEST_F(ConfigFileTest, EmptyFilenameFailsOpenAndUpdate) {
    for (const wchar_t* name : {L"", static_cast<const wchar_t*>(nullptr)}) {
        LogCapture capture;
        ConfigFile file(name);
        EXPECT_EQ(file.open(), -1);
        EXPECT_EQ(file.update(), -1);
        EXPECT_EQ(capture.lines(),
                  (std::vector<std::string>{
                      "%D ERROR (%t): Trying to read configuration from a file, but no filename "
                      "specified.",
                      "%D ERROR (%t): Trying to write configuration to a file, but no filename "
                      "specified."}));
    }
}

TEST_F(ConfigFileTest, StreamBuiltFileHasNoFilename) {
    ConfigFile file = fromText("[a]\nk=v\n");
    LogCapture capture;
    EXPECT_EQ(file.open(), -1);
    EXPECT_EQ(file.update(), -1);
    EXPECT_EQ(capture.lines().size(), 2u);
    EXPECT_EQ(get(file, L"a", L"k"), L"v");
}

TEST_F(ConfigFileTest, UpdateOfAnUnwritableTargetFails) {
    LogCapture capture;
    ConfigFile nodir(wpath("no/such/dir/agent.conf").c_str());
    ASSERT_EQ(nodir.set(L"a", L"k", L"v"), 0);
    errno = 0;
    EXPECT_EQ(nodir.update(), -1);
    EXPECT_EQ(errno, ENOENT);
    std::filesystem::create_directory(path("target"));
    ConfigFile directory(wpath("target").c_str());
    errno = 0;
    EXPECT_EQ(directory.update(), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{"%D ERROR (%t): Can not rewrite configuration file " +
                                            path("no/such/dir/agent.conf") +
                                            ": No such file or directory",
                                        "%D ERROR (%t): Failed to write to output stream.",
                                        "%D ERROR (%t): Can not rewrite configuration file " +
                                            path("target") + ": Is a directory",
                                        "%D ERROR (%t): Failed to write to output stream."}));
    EXPECT_TRUE(std::filesystem::is_directory(path("target")));
    EXPECT_TRUE(std::filesystem::is_empty(path("target")));
}

TEST_F(ConfigFileTest, UpdateOfAReadOnlyFileFails) {
    put("ro.conf", "[a]\nk=v\n");
    ASSERT_EQ(chmod(path("ro.conf").c_str(), 0444), 0);
    ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
    TarnwickTest::asUnprivilegedUser([this] {
        ConfigFile file(wpath("ro.conf").c_str());
        ASSERT_EQ(file.open(), 0);
        ASSERT_EQ(file.set(L"a", L"k", L"w"), 0);
        LogCapture capture;
        EXPECT_EQ(file.update(), -1);
        EXPECT_EQ(capture.lines(),
                  (std::vector<std::string>{"%D ERROR (%t): Can not rewrite configuration file " +
                                                path("ro.conf") + ": Permission denied",
                                            "%D ERROR (%t): Failed to write to output stream."}));
    });
    EXPECT_EQ(contents("ro.conf"), "[a]\nk=v\n");
}

TEST_F(ConfigFileTest, ReadOnlyFileInAWritableDirectoryIsNotReplaced) {
    put("ro.conf", "[a]\nk=v\n");
    ASSERT_EQ(chmod(path("ro.conf").c_str(), 0444), 0);
    ASSERT_EQ(chmod(dir_.c_str(), 0777), 0);
    TarnwickTest::asUnprivilegedUser([this] {
        ConfigFile file(wpath("ro.conf").c_str());
        ASSERT_EQ(file.open(), 0);
        ASSERT_EQ(file.set(L"a", L"k", L"w"), 0);
        LogCapture capture;
        EXPECT_EQ(file.update(), -1);
    });
    EXPECT_EQ(contents("ro.conf"), "[a]\nk=v\n");
}

TEST_F(ConfigFileTest, DevicesAreNotReplaced) {
    if (!std::filesystem::exists("/dev/full"))
        GTEST_SKIP() << "no /dev/full";
    ConfigFile file(L"/dev/full");
    ASSERT_EQ(file.set(L"a", L"k", std::wstring(100000, L'v').c_str()), 0);
    LogCapture capture;
    errno = 0;
    EXPECT_EQ(file.update(), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{
                  "%D ERROR (%t): Can not rewrite configuration file /dev/full: Invalid argument",
                  "%D ERROR (%t): Failed to write to output stream."}));
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/full"));
}

// A write that fails part-way (here at the file size limit) leaves the
// original as it was and no temporary file behind.
TEST_F(ConfigFileTest, FailedRewriteLeavesTheOriginalUntouched) {
    std::string const original = "[a]\n# kept\nk=v\n";
    put("limited.conf", original);
    TarnwickTest::ChildResult const result = TarnwickTest::runInChild([this]() {
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit const limit = {4096, 4096};
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0)
            return 10;
        ConfigFile file(wpath("limited.conf").c_str());
        if (file.open() != 0 || file.set(L"a", L"big", std::wstring(8192, L'x').c_str()) != 0)
            return 11;
        LogCapture capture;
        errno = 0;
        if (file.update() != -1)
            return 12;
        if (errno != EFBIG)
            return 13;
        std::vector<std::string> const expected{
            "%D ERROR (%t): Can not rewrite configuration file " + path("limited.conf") +
                ": File too large",
            "%D ERROR (%t): Failed to write to output stream."};
        return capture.lines() == expected ? 0 : 14;
    });
    EXPECT_EQ(result.exitCode(), 0) << result.errors;
    EXPECT_EQ(contents("limited.conf"), original);
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_))
        names.push_back(entry.path().filename().string());
    EXPECT_EQ(names, std::vector<std::string>{"limited.conf"});
}

// The new content is a new file that takes the old one's place: a reader
// that holds the old file sees it whole.
TEST_F(ConfigFileTest, UpdateReplacesTheFileAsAWhole) {
    put("whole.conf", "[a]\nk=v\n");
    std::filesystem::create_hard_link(path("whole.conf"), path("old.conf"));
    ConfigFile file(wpath("whole.conf").c_str());
    ASSERT_EQ(file.open(), 0);
    ASSERT_EQ(file.set(L"a", L"k", L"w"), 0);
    EXPECT_EQ(file.update(), 0);
    EXPECT_EQ(contents("whole.conf"), "[a]\nk=w\n");
    EXPECT_EQ(contents("old.conf"), "[a]\nk=v\n");
}

TEST_F(ConfigFileTest, NewFileIsMadeForTheOwnerAlone) {
    mode_t const mask = ::umask(022);
    ConfigFile file(wpath("new.conf").c_str());
    ASSERT_EQ(file.set(L"Agent", L"password", L"secret"), 0);
    EXPECT_EQ(file.update(), 0);
    ::umask(mask);
    struct stat info;
    ASSERT_EQ(::stat(path("new.conf").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);
    EXPECT_EQ(contents("new.conf"), "[Agent]\npassword=secret\n");
}

TEST_F(ConfigFileTest, UpdateKeepsModeAndOwner) {
    put("kept.conf", "[a]\nk=v\n");
    ASSERT_EQ(::chmod(path("kept.conf").c_str(), 0664), 0);
    bool const root = ::geteuid() == 0;
    if (root) {
        ASSERT_EQ(::chown(path("kept.conf").c_str(), 65534, 65534), 0);
    }
    struct stat before;
    ASSERT_EQ(::stat(path("kept.conf").c_str(), &before), 0);
    ConfigFile file(wpath("kept.conf").c_str());
    ASSERT_EQ(file.open(), 0);
    ASSERT_EQ(file.set(L"a", L"k", L"w"), 0);
    EXPECT_EQ(file.update(), 0);
    struct stat after;
    ASSERT_EQ(::stat(path("kept.conf").c_str(), &after), 0);
    EXPECT_EQ(after.st_mode & 07777, 0664u);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(after.st_gid, before.st_gid);
    EXPECT_EQ(contents("kept.conf"), "[a]\nk=w\n");
}

TEST_F(ConfigFileTest, UpdateThroughASymbolicLinkReplacesItsTarget) {
    std::filesystem::create_directory(path("real"));
    put("real/agent.conf", "[a]\nk=v\n");
    std::filesystem::create_symlink("real/agent.conf", path("link.conf"));
    ConfigFile file(wpath("link.conf").c_str());
    ASSERT_EQ(file.open(), 0);
    ASSERT_EQ(file.set(L"a", L"k", L"w"), 0);
    EXPECT_EQ(file.update(), 0);
    EXPECT_TRUE(std::filesystem::is_symlink(path("link.conf")));
    EXPECT_EQ(contents("real/agent.conf"), "[a]\nk=w\n");
}

TEST_F(ConfigFileTest, UpdateTruncatesAndOperatorWritesTheSame) {
    put("t.conf", "[a]\nk = v\n# a long comment that makes the original longer\nm=1\n");
    ConfigFile file(wpath("t.conf").c_str());
    ASSERT_EQ(file.open(), 0);
    ASSERT_EQ(file.remove(L"a"), 0);
    ASSERT_EQ(file.set(L"b", L"x", L"y"), 0);
    EXPECT_EQ(file.update(), 0);
    EXPECT_EQ(contents("t.conf"), "[b]\nx=y\n");
    EXPECT_EQ(written(file), "[b]\nx=y\n");
}

// ---------------------------------------------------------------------------
// The stream constructor and the writer

TEST_F(ConfigFileTest, StreamConstructorThrowsForAnOptionBeforeAnySection) {
    LogCapture capture;
    std::istringstream in("; c\n\nx=1\n[a]\n");
    try {
        ConfigFile file(in);
        FAIL() << "no exception";
    } catch (const Exception& e) {
        EXPECT_EQ(e.getErrNo(), ERR_CONFIGFILE_READ);
        EXPECT_EQ(static_cast<int>(e.getErrNo()), 18);
        EXPECT_EQ(e.getSeverity(), SEVERITY_SEVERE);
        EXPECT_EQ(static_cast<int>(e.getSeverity()), 5);
        EXPECT_EQ(e.getSource(), "ConfigFile");
        EXPECT_STREQ(e.what(), "No section defined when option encountered.");
    }
    EXPECT_EQ(capture.lines(), std::vector<std::string>{
                                   "%D ERROR (%t): No section defined when option encountered."});
}

TEST_F(ConfigFileTest, StreamThatIsNotGoodReadsNothing) {
    std::istringstream in("[a]\nk=v\n");
    in.setstate(std::ios::failbit);
    ConfigFile file(in);
    EXPECT_EQ(sectionNames(file), NONE);
    std::istringstream empty("");
    ConfigFile none(empty);
    EXPECT_EQ(sectionNames(none), NONE);
}

TEST_F(ConfigFileTest, WritingToABadStreamThrows) {
    ConfigFile file = fromText("[a]\nk=v\n");
    std::ostringstream out;
    out.setstate(std::ios::badbit);
    LogCapture capture;
    try {
        out << file;
        FAIL() << "no exception";
    } catch (const Exception& e) {
        EXPECT_EQ(static_cast<int>(e.getErrNo()), 14);
        EXPECT_EQ(static_cast<int>(e.getSeverity()), 7);
        EXPECT_EQ(e.getSource(), "ConfigFile");
        EXPECT_STREQ(e.what(), "Failed to write to output stream.");
    }
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{"%D ERROR (%t): Failed to write to output stream."});
}

TEST_F(ConfigFileTest, OperatorReturnsTheStream) {
    ConfigFile file = fromText("[a]\nk=v\n");
    std::ostringstream out;
    (out << file) << "end";
    EXPECT_EQ(out.str(), "[a]\nk=v\nend");
}

// ---------------------------------------------------------------------------
// Editing

TEST_F(ConfigFileTest, SetCreatesOrReplaces) {
    ConfigFile file = fromText("[a]\n#c\nk=1\nm=2\n");
    EXPECT_EQ(file.set(L"a", L"k", L"9"), 0);
    EXPECT_EQ(file.set(L"a", L"new", L" x "), 0);
    EXPECT_EQ(file.set(L"b", L"y", L"z"), 0);
    EXPECT_EQ(get(file, L"a", L"k"), L"9");
    EXPECT_EQ(get(file, L"a", L"new"), L" x ");
    EXPECT_EQ(written(file), "[a]\n\n#c\nk=9\nm=2\nnew= x \n[b]\ny=z\n");
}

TEST_F(ConfigFileTest, SetFillsTheEntriesOfFailedLookups) {
    ConfigFile file = fromText("[a]\n");
    EXPECT_EQ(get(file, L"n", L"k"), L"");
    EXPECT_FALSE(file.hasOption(L"a", L"k"));
    EXPECT_EQ(file.set(L"n", L"k", L"v"), 0);
    EXPECT_EQ(file.set(L"a", L"k", L"w"), 0);
    EXPECT_EQ(written(file), "[a]\nk=w\n[n]\nk=v\n");
}

TEST_F(ConfigFileTest, RemoveDropsTheSection) {
    ConfigFile file = fromText("[a]\nk=1\n[b]\nm=2\n");
    EXPECT_EQ(file.remove(L"a"), 0);
    EXPECT_FALSE(file.hasSection(L"a"));
    EXPECT_EQ(get(file, L"a", L"k"), L"");
    EXPECT_EQ(sectionNames(file), std::vector<std::string>{"b"});
    EXPECT_EQ(written(file), "[b]\nm=2\n");
}

TEST_F(ConfigFileTest, RemoveThenSetWritesTheSectionTwice) {
    ConfigFile file = fromText("[a]\nk=1\n[b]\nm=2\n");
    ASSERT_EQ(file.remove(L"a"), 0);
    EXPECT_EQ(file.set(L"a", L"x", L"1"), 0);
    EXPECT_EQ(sectionNames(file), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(written(file), "[a]\nx=1\n[b]\nm=2\n[a]\nx=1\n");
}

TEST_F(ConfigFileTest, RemoveOfAnAbsentSectionFails) {
    ConfigFile file = fromText("[a]\n");
    errno = 0;
    EXPECT_EQ(file.remove(L"ghost"), -1);
    EXPECT_EQ(errno, EINVAL);
    // A failed lookup leaves an entry, which remove then takes out.
    EXPECT_FALSE(file.hasSection(L"ghost"));
    EXPECT_EQ(file.remove(L"ghost"), 0);
    EXPECT_EQ(file.remove(L"ghost"), -1);
    EXPECT_EQ(written(file), "[a]\n");
}

TEST_F(ConfigFileTest, RemoveAcceptsEachFailedLookupOnce) {
    ConfigFile file = fromText("[a]\n");
    EXPECT_EQ(get(file, L"g1", L"k"), L"");
    EXPECT_FALSE(file.hasOption(L"g2", L"k"));
    EXPECT_FALSE(file.hasSection(L"g3"));
    for (const wchar_t* name : {L"g1", L"g2", L"g3"}) {
        EXPECT_EQ(file.remove(name), 0);
        errno = 0;
        EXPECT_EQ(file.remove(name), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    // A name that set or a reading filled is no longer a failed lookup.
    EXPECT_FALSE(file.hasSection(L"n"));
    ASSERT_EQ(file.set(L"n", L"k", L"v"), 0);
    EXPECT_EQ(file.remove(L"n"), 0);
    EXPECT_EQ(file.remove(L"n"), -1);
    EXPECT_EQ(written(file), "[a]\n");
}

// Failed lookups leave nothing behind but a bounded set of names: a million
// of them cost no more than a few hundred allocations.
TEST_F(ConfigFileTest, FailedLookupsCostBoundedMemory) {
    ConfigFile file = fromText("[a]\nk=v\n[b]\n");
    long const before = liveAllocations.load();
    for (int i = 0; i < 1000000; ++i) {
        std::wstring const name = L"missing-" + std::to_wstring(i);
        switch (i % 4) {
            case 0:
                EXPECT_FALSE(file.hasSection(name.c_str()));
                break;
            case 1:
                EXPECT_FALSE(file.hasOption(name.c_str(), L"k"));
                break;
            case 2:
                EXPECT_FALSE(file.hasOption(L"a", name.c_str()));
                break;
            default:
                EXPECT_EQ(file.get(L"b", name.c_str()).length(), 0u);
                break;
        }
    }
    EXPECT_LT(liveAllocations.load() - before, 1000);
    EXPECT_EQ(written(file), "[a]\nk=v\n[b]\n");
    // The latest failed lookup is still accepted by remove.
    EXPECT_EQ(file.remove(L"missing-999996"), 0);
}

TEST_F(ConfigFileTest, FailedLookupsLeaveNothingVisible) {
    std::string const text = "[b]\nk=v\n[a]\n";
    ConfigFile file = fromText(text);
    EXPECT_EQ(get(file, L"none", L"k"), L"");
    EXPECT_FALSE(file.hasSection(L"other"));
    EXPECT_FALSE(file.hasOption(L"absent", L"k"));
    EXPECT_FALSE(file.hasOption(L"b", L"nokey"));
    EXPECT_EQ(get(file, L"a", L"nokey"), L"");
    EXPECT_TRUE(file.hasSection(L"a"));
    EXPECT_TRUE(file.hasOption(L"b", L"k"));
    EXPECT_EQ(sectionNames(file), (std::vector<std::string>{"a", "b"}));
    testing::internal::CaptureStdout();
    EXPECT_EQ(file.list_sections(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "a\nb\n");
    EXPECT_EQ(written(file), text);
}

TEST_F(ConfigFileTest, WideTextIsUTF8InTheFile) {
    ConfigFile file = fromText("[Grüße]\nschlüssel = wert €\n");
    EXPECT_EQ(get(file, L"Grüße", L"schlüssel"), L"wert €");
    EXPECT_EQ(file.set(L"Grüße", L"neu", L"\U0001F600"), 0);
    EXPECT_EQ(written(file), "[Grüße]\nschlüssel=wert €\nneu=\xF0\x9F\x98\x80\n");
}

TEST_F(ConfigFileTest, TextThatDoesNotConvert) {
    ConfigFile file = fromText("[a]\nk=\xFF\xFE\n");
    EXPECT_TRUE(file.hasOption(L"a", L"k"));
    LogCapture capture;
    EXPECT_EQ(get(file, L"a", L"k"), L"");
    capture.clear();
    wchar_t const surrogate[] = {0xD800, 0};
    errno = 0;
    EXPECT_EQ(file.set(L"a", L"k", surrogate), -1);
    EXPECT_EQ(errno, EILSEQ);
    EXPECT_EQ(file.set(surrogate, L"k", L"v"), -1);
    EXPECT_FALSE(file.hasSection(surrogate));
    EXPECT_FALSE(file.hasOption(L"a", surrogate));
    EXPECT_EQ(get(file, surrogate, L"k"), L"");
    EXPECT_EQ(file.remove(surrogate), -1);
    EXPECT_EQ(written(file), "[a]\nk=\xFF\xFE\n");
}

TEST_F(ConfigFileTest, ValueThatIsNoUTF8IsNamedInTheLogOnce) {
    put("city.conf", "[place]\ncity=Z\xfcrich\nzip=8000\n[other]\ncity=\xe2\x82\n");
    ConfigFile file(wpath("city.conf").c_str());
    ASSERT_EQ(file.open(), 0);
    LogCapture capture;
    EXPECT_EQ(get(file, L"place", L"city"), L"");
    EXPECT_EQ(get(file, L"place", L"city"), L"");
    EXPECT_EQ(get(file, L"place", L"zip"), L"8000");
    EXPECT_EQ(get(file, L"other", L"city"), L"");
    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{
                  "%D WARN  (%t): The value of city in section [place] of " + path("city.conf") +
                      " is not UTF-8 text and is read as empty",
                  "%D WARN  (%t): The value of city in section [other] of " + path("city.conf") +
                      " is not UTF-8 text and is read as empty"}));
    // The value itself is kept and written back as it was.
    ASSERT_EQ(file.update(), 0);
    EXPECT_EQ(contents("city.conf"), "[place]\ncity=Z\xfcrich\nzip=8000\n[other]\ncity=\xe2\x82\n");
}

// set refuses text that a rewrite would turn into other sections or
// options, and says so in the log.
TEST_F(ConfigFileTest, SetRefusesTextThatChangesTheStructure) {
    put("safe.conf", "[a]\nk=v\n");
    ConfigFile file(wpath("safe.conf").c_str());
    ASSERT_EQ(file.open(), 0);
    struct Case {
        const wchar_t* section;
        const wchar_t* key;
        const wchar_t* value;
        const char* logged;  // key and section as the log shows them
    };
    const Case cases[] = {
        {L"a", L"k", L"x\n[evil]\nroot=1", "k in section [a]"},
        {L"a", L"k", L"x\r[evil]", "k in section [a]"},
        {L"a", L"k\nroot", L"1", "k\\x0Aroot in section [a]"},
        {L"a", L"root=1\nk", L"v", "root=1\\x0Ak in section [a]"},
        {L"a", L"root=1", L"v", "root=1 in section [a]"},
        {L"a", L"#k", L"v", "#k in section [a]"},
        {L"a", L";k", L"v", ";k in section [a]"},
        {L"a", L"[evil]", L"v", "[evil] in section [a]"},
        {L"evil]\nroot=1\n[a", L"k", L"v", "k in section [evil]\\x0Aroot=1\\x0A[a]"},
        {L"e]vil", L"k", L"v", "k in section [e]vil]"},
        {L"new\r", L"k", L"v", "k in section [new\\x0D]"},
    };
    for (const Case& c : cases) {
        LogCapture capture;
        errno = 0;
        EXPECT_EQ(file.set(c.section, c.key, c.value), -1) << c.logged;
        EXPECT_EQ(errno, EINVAL) << c.logged;
        EXPECT_EQ(capture.lines(),
                  std::vector<std::string>{"%D ERROR (%t): Can not store " + std::string(c.logged) +
                                           ": the text would change the structure of the file"});
    }
    // What set refuses leaves no trace: a rewrite reads back as it was.
    ASSERT_EQ(file.update(), 0);
    EXPECT_EQ(contents("safe.conf"), "[a]\nk=v\n");
    ConfigFile again(wpath("safe.conf").c_str());
    ASSERT_EQ(again.open(), 0);
    EXPECT_EQ(sectionNames(again), std::vector<std::string>{"a"});
    EXPECT_FALSE(again.hasSection(L"evil"));
    // Text that only looks odd is stored: '=', '#', '[' and ']' inside a
    // value, '[' in a section name, a key with a blank before '#'.
    EXPECT_EQ(file.set(L"a[1", L"x", L"=#;[b]"), 0);
    EXPECT_EQ(file.set(L"a", L" #k", L"v"), 0);
    EXPECT_EQ(written(file), "[a]\nk=v\n #k=v\n[a[1]\nx==#;[b]\n");
}

TEST_F(ConfigFileTest, NullArguments) {
    ConfigFile file = fromText("[a]\nk=v\n");
    EXPECT_EQ(get(file, nullptr, L"k"), L"");
    EXPECT_EQ(get(file, L"a", nullptr), L"");
    EXPECT_FALSE(file.hasSection(nullptr));
    EXPECT_FALSE(file.hasOption(L"a", nullptr));
    errno = 0;
    EXPECT_EQ(file.set(L"a", L"k", nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(file.remove(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(written(file), "[a]\nk=v\n");
}

TEST_F(ConfigFileTest, CopiesShareSectionsAndOptions) {
    ConfigFile* file = new ConfigFile(fromText("[a]\nk=1\n"));
    ConfigFile copy(*file);
    ASSERT_EQ(file->set(L"a", L"k", L"2"), 0);
    EXPECT_EQ(get(copy, L"a", L"k"), L"2");
    ASSERT_EQ(copy.set(L"b", L"m", L"3"), 0);
    EXPECT_FALSE(file->hasSection(L"b"));
    ASSERT_EQ(file->remove(L"a"), 0);
    EXPECT_EQ(written(copy), "[a]\nk=2\n[b]\nm=3\n");

    ConfigFile assigned(L"name");
    assigned = copy;
    ConfigFile& same = assigned;
    assigned = same;
    delete file;
    ASSERT_EQ(copy.remove(L"a"), 0);
    EXPECT_EQ(written(assigned), "[a]\nk=2\n[b]\nm=3\n");
    LogCapture capture;
    EXPECT_EQ(assigned.update(), -1);
}

TEST_F(ConfigFileTest, RegistryNamesTheFile) {
    put("reg.conf", "[a]\nk=v\n");
    Registry registry;
    ASSERT_EQ(registry.setConfigFilePath(wpath("reg.conf").c_str()), 0);
    ConfigFile file(registry);
    EXPECT_FALSE(file.hasSection(L"a"));
    ASSERT_EQ(file.open(), 0);
    EXPECT_EQ(get(file, L"a", L"k"), L"v");
    ASSERT_EQ(file.set(L"a", L"k", L"w"), 0);
    ASSERT_EQ(file.update(), 0);
    EXPECT_EQ(contents("reg.conf"), "[a]\nk=w\n");

    LogCapture capture;
    Registry empty;
    ConfigFile unnamed(empty);
    EXPECT_EQ(unnamed.open(), -1);
    EXPECT_EQ(capture.lines().size(), 1u);
}

TEST_F(ConfigFileTest, CopyKeepsTheFilename) {
    put("copy.conf", "[a]\nk=v\n");
    ConfigFile file(wpath("copy.conf").c_str());
    ConfigFile copy(file);
    EXPECT_EQ(copy.open(), 0);
    EXPECT_EQ(get(copy, L"a", L"k"), L"v");
    EXPECT_FALSE(file.hasSection(L"a"));
}

// ---------------------------------------------------------------------------
// Storage path

TEST_F(ConfigFileTest, SetStoragePathRebasesRelativePaths) {
    std::string const text =
        "[paths]\n"
        "var=var\n"
        "keydir=/etc/tarnwick/keys\n"
        "# the log\n"
        "log=log/x\n"
        "temp=\n"
        "snapshots=C:\\x\n"
        "rtdir=\\x\n"
        "pid=  run/a.pid  \n"
        "progressdir=a/../b\n"
        "resourcebundles=res\n"
        "other=rel\n"
        "[more]\n"
        "log=rel\n";
    ConfigFile file = fromText(text);
    file.setStoragePath("/opt/tw");
    EXPECT_EQ(get(file, L"paths", L"log"), L"/opt/tw/log/x");
    EXPECT_EQ(get(file, L"paths", L"keydir"), L"/etc/tarnwick/keys");
    EXPECT_EQ(get(file, L"paths", L"temp"), L"");
    EXPECT_EQ(written(file),
              "[paths]\n"
              "var=/opt/tw/var\n"
              "keydir=/etc/tarnwick/keys\n"
              "\n# the log\n"
              "log=/opt/tw/log/x\n"
              "temp=\n"
              "snapshots=/opt/tw/C:\\x\n"
              "rtdir=/opt/tw/\\x\n"
              "pid=/opt/tw/run/a.pid\n"
              "progressdir=/opt/tw/a/../b\n"
              "resourcebundles=/opt/tw/res\n"
              "other=rel\n"
              "[more]\n"
              "log=rel\n");
}

TEST_F(ConfigFileTest, SetStoragePathWithARootEndingInASlash) {
    ConfigFile file = fromText("[paths]\nlog=log/x\n");
    file.setStoragePath("/opt/tw/");
    EXPECT_EQ(get(file, L"paths", L"log"), L"/opt/tw/log/x");
    file.setStoragePath("/other");
    EXPECT_EQ(get(file, L"paths", L"log"), L"/opt/tw/log/x");
}

TEST_F(ConfigFileTest, SetStoragePathWithoutPathsChangesNothing) {
    ConfigFile file = fromText("[Agent]\nlog=log\n");
    file.setStoragePath("/opt/tw");
    EXPECT_EQ(sectionNames(file), std::vector<std::string>{"Agent"});
    EXPECT_EQ(written(file), "[Agent]\nlog=log\n");
}

// ---------------------------------------------------------------------------
// Sections and options on their own

TEST_F(ConfigFileTest, OptionWritesItsCommentAndLine) {
    ConfigFileOption option("s", "k", "v", "\n#a\n#b");
    EXPECT_EQ(option.getSection(), "s");
    EXPECT_EQ(option.getKey(), "k");
    EXPECT_EQ(option.getValue(), "v");
    EXPECT_EQ(option.getComment(), "\n#a\n#b");
    option.setValue("w");
    std::ostringstream out;
    option.update(out);
    EXPECT_EQ(out.str(), "\n#a\n#b\nk=w\n");
    ConfigFileOption plain("s", "", "", "");
    std::ostringstream bare;
    plain.update(bare);
    EXPECT_EQ(bare.str(), "=\n");
    plain = option;
    EXPECT_EQ(plain.getValue(), "w");
}

TEST_F(ConfigFileTest, SectionOwnsItsOptionsAndKeepsTheirOrder) {
    ConfigFileSection section("s");
    section.setComment("\n#hidden");
    EXPECT_EQ(section.getName(), "s");
    EXPECT_EQ(section.getComment(), "\n#hidden");
    EXPECT_EQ(section.getOption("b"), nullptr);
    section.addOption(new ConfigFileOption("s", "b", "1", ""));
    ConfigFileOption* const a = new ConfigFileOption("s", "a", "2", "\n#c");
    section.addOption(a);
    section.addOption(a);
    section.addOption(nullptr);
    section.addOption(new ConfigFileOption("s", "b", "3", ""));
    EXPECT_EQ(section.getOption("a"), a);
    EXPECT_EQ(section.getOption("b")->getValue(), "3");

    ConfigFileSection copy(section);
    a->setValue("4");
    EXPECT_EQ(copy.getOption("a")->getValue(), "4");
    std::ostringstream out;
    copy.update(out);
    EXPECT_EQ(out.str(), "[s]\nb=3\n\n#c\na=4\n\n#c\na=4\nb=3\n");

    ConfigFileSection other("o");
    other.addOption(new ConfigFileOption("o", "x", "y", ""));
    other = section;
    ConfigFileSection& same = other;
    other = same;
    std::ostringstream again;
    other.update(again);
    EXPECT_EQ(again.str(), out.str());
}

// ---------------------------------------------------------------------------
// Malformed input

namespace {

// Deterministic bytes, none of which is in `excluded`.
std::string garbage(std::size_t size, const std::string& excluded, uint32_t seed) {
    std::string out;
    out.reserve(size);
    uint32_t state = seed;
    while (out.size() < size) {
        state = state * 1664525u + 1013904223u;
        char const c = static_cast<char>(state >> 24);
        if (excluded.find(c) == std::string::npos)
            out += c;
    }
    return out;
}

}  // namespace

TEST_F(ConfigFileTest, BinaryGarbageWithoutOptionsOrHeadersReadsAsEmpty) {
    std::string const bytes = garbage(1 << 20, std::string("=]", 2), 7);
    ASSERT_NE(bytes.find('\0'), std::string::npos);
    ASSERT_NE(bytes.find('['), std::string::npos);
    LogCapture capture;
    EXPECT_EQ(rewrite(bytes), "");
    EXPECT_EQ(capture.lines(), NONE);
}

TEST_F(ConfigFileTest, BinaryGarbageInAValueSurvivesARewrite) {
    std::string value = garbage(1 << 16, std::string("\n", 1), 11);
    value.front() = '\xFF';
    value.back() = 'Z';
    ASSERT_NE(value.find('\0'), std::string::npos);
    ASSERT_NE(value.find('\r'), std::string::npos);
    std::string const text = "[bin]\nk=" + value + "\n";
    ConfigFile file = fromText(text);
    EXPECT_TRUE(file.hasOption(L"bin", L"k"));
    EXPECT_EQ(get(file, L"bin", L"k"), L"");
    EXPECT_EQ(rewrite(text), text);
}

TEST_F(ConfigFileTest, BinaryGarbageWithAnOptionBeforeAnySectionFails) {
    put("garbage.conf", std::string("\x01\x02=\xFF\x00\n[a]\nk=v\n", 13));
    LogCapture capture;
    ConfigFile file(wpath("garbage.conf").c_str());
    EXPECT_EQ(file.open(), -1);
    EXPECT_EQ(sectionNames(file), NONE);
    EXPECT_EQ(capture.lines(), std::vector<std::string>{
                                   "%D ERROR (%t): No section defined when option encountered."});
}

TEST_F(ConfigFileTest, TenMegabyteLines) {
    std::size_t const size = 10u << 20;
    std::string const value(size, 'x');
    std::string const text = "[big]\nvalue=" + value + "\n";
    std::string const result = rewrite(text);
    EXPECT_TRUE(result == text);
    ConfigFile file = fromText(text);
    EXPECT_EQ(file.get(L"big", L"value").length(), size);

    // A line without '=' is dropped, however long.
    EXPECT_TRUE(rewrite("[a]\n" + std::string(size, 'y') + "\nk=v\n") == "[a]\nk=v\n");
    // A header as long.
    ConfigFile header = fromText("[" + value + "]\nk=v\n");
    std::vector<std::string> const names = sectionNames(header);
    ASSERT_EQ(names.size(), 1u);
    EXPECT_TRUE(names[0] == value);
}

TEST_F(ConfigFileTest, OnlyOpeningBrackets) {
    EXPECT_EQ(rewrite(std::string(1 << 20, '[')), "");
    EXPECT_EQ(rewrite("[\n[[\n[[[\n[\n"), "");
    ConfigFile file = fromText(std::string(1000, '[') + "\n" + std::string(1000, '['));
    EXPECT_EQ(sectionNames(file), NONE);
}

TEST_F(ConfigFileTest, ManySectionsAndOptionsReadInLinearTime) {
    std::string text;
    for (int i = 0; i < 100000; ++i)
        text += "[s" + std::to_string(i) + "]\nk=" + std::to_string(i) + "\n";
    text += "[wide]\n";
    for (int i = 0; i < 200000; ++i)
        text += "#c\nkey" + std::to_string(i) + " = " + std::to_string(i) + "\n";
    auto const start = std::chrono::steady_clock::now();
    ConfigFile file = fromText(text);
    std::string const out = written(file);
    double const seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(sectionNames(file).size(), 100001u);
    EXPECT_EQ(get(file, L"s99999", L"k"), L"99999");
    EXPECT_EQ(get(file, L"wide", L"key199999"), L"199999");
    EXPECT_LT(seconds, 30.0);
    // Every option of "wide" gains a line end above its comment and loses two blanks.
    EXPECT_EQ(out.size(), text.size() - 200000u);
}

// ---------------------------------------------------------------------------
// A whole agent configuration

namespace {

struct AgentConfiguration {
    std::string input;
    std::string expected;
};

// A configuration of a few hundred lines as an installer and an
// administrator leave it, and what a rewrite after three set calls makes of
// it.
AgentConfiguration agentConfiguration() {
    AgentConfiguration c;
    c.input =
        "# Tarnwick agent configuration\n"
        "# Written by the installer on 2024-03-01; edit with care.\n"
        "\n"
        "[paths]\n"
        "# Where the agent keeps its state, relative to the storage path\n"
        "var = var\n"
        "keydir = /etc/tarnwick/keys\n"
        "log = log\n"
        "temp = tmp\n"
        "snapshots = snapshots\n"
        "rtdir = run\n"
        "pid = run/twagent.pid\n"
        "progressdir = progress\n"
        "resourcebundles = resources\n"
        "\n"
        "; The management server\n"
        "[webservices]\n"
        "; base address of the services\n"
        "url = https://manage.example.com:8443/tw/ws\n"
        "timeout = 30\n"
        "retries=3\n"
        "proxy =\n"
        "user = agent\n"
        "password = {twp}c2VjcmV0LXBhc3N3b3Jk\n"
        "verify = false ; no certificate checks\n"
        "query = a=1&b=2\n"
        "\n"
        "[Agent]\n"
        "name = twagent\n"
        "agentid = 4711\n"
        "# error, warning, info or debug\n"
        "loglevel = info\n"
        "heartbeat = 60\n"
        "\theartbeat_idle\t=\t300\t\n"
        "threads = 4\n"
        "server = manage.example.com\n"
        "port = 7021\n"
        "ssl = yes\n"
        "\n"
        "[Agent.local]\n"
        "# settings of this machine only\n"
        "hostname = build-07\n"
        "  indented = yes\n"
        "\n";
    c.expected =
        "[paths]\n"
        "\n# Where the agent keeps its state, relative to the storage path\n"
        "var=var\n"
        "keydir=/etc/tarnwick/keys\n"
        "log=log\n"
        "temp=tmp\n"
        "snapshots=snapshots\n"
        "rtdir=run\n"
        "pid=run/twagent.pid\n"
        "progressdir=progress\n"
        "resourcebundles=resources\n"
        "cache=cache/objects\n"
        "[webservices]\n"
        "\n; base address of the services\n"
        "url=https://manage.example.com:8443/tw/ws\n"
        "timeout=30\n"
        "retries=3\n"
        "proxy=http://proxy.example.com:3128\n"
        "user=agent\n"
        "password={twp}c2VjcmV0LXBhc3N3b3Jk\n"
        "verify=false ; no certificate checks\n"
        "query=a=1&b=2\n"
        "[Agent]\n"
        "name=twagent\n"
        "agentid=4711\n"
        "\n# error, warning, info or debug\n"
        "loglevel=debug\n"
        "heartbeat=60\n"
        "heartbeat_idle=300\n"
        "threads=4\n"
        "server=manage.example.com\n"
        "port=7021\n"
        "ssl=yes\n"
        "[Agent.local]\n"
        "\n# settings of this machine only\n"
        "hostname=build-07\n"
        "indented=yes\n";

    // Scheduled jobs: a comment above every tenth one, blank lines between
    // groups.
    c.input += "# Jobs run by the scheduler\n[schedules]\n";
    c.expected += "[schedules]\n";
    for (int i = 1; i <= 150; ++i) {
        char key[16];
        std::snprintf(key, sizeof key, "job%03d", i);
        std::string const value = std::to_string(i % 60) + " " + std::to_string(i % 24) +
                                  " * * * backup /srv/data/" + key;
        if (i % 10 == 1) {
            std::string const comment = "# group " + std::to_string(i / 10 + 1);
            c.input += "\n" + comment + "\n";
            c.expected += "\n" + comment + "\n";
        }
        c.input += std::string(key) + " = " + value + "\n";
        c.expected += std::string(key) + "=" + value + "\n";
    }

    // Log filters, one line each, with '=' and '#' in the values.
    c.input += "\n[filters]\n";
    c.expected += "[filters]\n";
    for (int i = 0; i < 100; ++i) {
        std::string const key = "filter." + std::to_string(i);
        std::string const value = "level>=" + std::to_string(i % 5) + " #" + std::to_string(i);
        c.input += key + "\t=  " + value + "\n";
        c.expected += key + "=" + value + "\n";
    }
    c.input += "# end of file\n";
    return c;
}

}  // namespace

TEST_F(ConfigFileTest, AgentConfigurationRoundTrip) {
    AgentConfiguration const c = agentConfiguration();
    ASSERT_GT(std::count(c.input.begin(), c.input.end(), '\n'), 300);
    put("agent.conf", c.input);

    ConfigFile file(wpath("agent.conf").c_str());
    ASSERT_EQ(file.open(), 0);
    EXPECT_EQ(sectionNames(file), (std::vector<std::string>{"Agent", "Agent.local", "filters",
                                                            "paths", "schedules", "webservices"}));
    EXPECT_EQ(get(file, L"webservices", L"query"), L"a=1&b=2");
    EXPECT_EQ(get(file, L"Agent", L"heartbeat_idle"), L"300");
    EXPECT_EQ(get(file, L"Agent.local", L"indented"), L"yes");
    ASSERT_EQ(file.set(L"Agent", L"loglevel", L"debug"), 0);
    ASSERT_EQ(file.set(L"webservices", L"proxy", L"http://proxy.example.com:3128"), 0);
    ASSERT_EQ(file.set(L"paths", L"cache", L"cache/objects"), 0);
    ASSERT_EQ(file.update(), 0);
    EXPECT_EQ(contents("agent.conf"), c.expected);

    ConfigFile again(wpath("agent.conf").c_str());
    ASSERT_EQ(again.open(), 0);
    EXPECT_EQ(get(again, L"Agent", L"loglevel"), L"debug");
    EXPECT_EQ(get(again, L"webservices", L"proxy"), L"http://proxy.example.com:3128");
    EXPECT_EQ(get(again, L"paths", L"cache"), L"cache/objects");
    EXPECT_EQ(get(again, L"schedules", L"job150"), L"30 6 * * * backup /srv/data/job150");
    EXPECT_EQ(get(again, L"filters", L"filter.99"), L"level>=4 #99");
    // A second rewrite changes nothing more.
    ASSERT_EQ(again.update(), 0);
    EXPECT_EQ(contents("agent.conf"), c.expected);
}
