// Log extraction: depth filters of both families, the tail read backwards in
// blocks, both truncation markers, escaping, shrinking a file to its tail,
// and bad or unusual files.
#include <tarnwick/exception.h>
#include <tarnwick/logparser.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "log_lines.h"
#include "scratch_dir.h"

using Tarnwick::Exception;
using TarnwickTest::LogLines;
using TarnwickTest::ScratchDir;

namespace {

// The two markers as the tools' readers know them.
const std::string EXCEEDS = "\n\nOutput truncated here because it exceeds the size limit\n\n";
const std::string EXCEEDING =
    "\n\nOutput truncated here because it was exceeding the size limit\n\n";

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path.c_str(), std::ios::binary | std::ios::trunc);
    out << content;
    ASSERT_TRUE(out.good());
}

std::string readFile(const std::string& path) {
    std::ifstream in(path.c_str(), std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool exists(const std::string& path) {
    struct stat status;
    return ::stat(path.c_str(), &status) == 0;
}

std::wstring wide(const std::string& path) {
    return std::wstring(path.begin(), path.end());
}

// Bytes this process has read so far (read(2) and pread(2) alike).
long long bytesRead() {
    std::ifstream io("/proc/self/io");
    std::string key;
    long long value = 0;
    while (io >> key >> value) {
        if (key == "rchar:")
            return value;
    }
    return -1;
}

class LogParserTest : public ::testing::Test {
protected:
    std::string file(const std::string& name) const { return scratch.path() + "/" + name; }

    // Runs tail_and_filter (or, with a block size, tail_and_filter_file)
    // into a file and gives what it wrote.
    std::string tail(const std::string& path, int level, int max_lines, int* result,
                     int64_t block_size = 0) {
        std::string const output = file("tail.out");
        int const fd = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        EXPECT_GE(fd, 0);
        std::wstring const name = wide(path);
        *result = block_size == 0
                      ? Tarnwick::tail_and_filter(name.c_str(), fd, level, max_lines)
                      : Tarnwick::tail_and_filter_file(name.c_str(), fd, block_size, level);
        ::close(fd);
        std::string const text = readFile(output);
        ::unlink(output.c_str());
        return text;
    }

    std::string filtered(const std::string& path, int level) {
        std::string const output = file("filter.out");
        EXPECT_EQ(0, Tarnwick::filter_file(path.c_str(), output.c_str(), level));
        std::string const text = readFile(output);
        ::unlink(output.c_str());
        return text;
    }

    ScratchDir scratch{"tarnwick-logparser"};
};

// The depths of the tail rule, computed forwards, for comparison.
int tailDepth(const std::string& line) {
    size_t dots = 0;
    while (dots < line.size() && line[dots] == '.')
        ++dots;
    return dots >= 1 && dots <= 3 && dots < line.size() && line[dots] == ' '
               ? static_cast<int>(dots)
               : 0;
}

// A log of numbered lines of every depth, some without the blank.
std::string numberedLog(int lines) {
    static const char* const PREFIXES[] = {"", ". ", ".. ", "... ", ".... ", ".x "};
    std::string log;
    for (int i = 0; i < lines; ++i)
        log += std::string(PREFIXES[i % 6]) + "line " + std::to_string(i) + "\n";
    return log;
}

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

}  // namespace

TEST_F(LogParserTest, EmptyFileGivesNothing) {
    std::string const path = file("empty.log");
    writeFile(path, "");
    std::ifstream in(path.c_str(), std::ios::binary);
    std::ostringstream out;
    Tarnwick::LogParser::truncateAndEscapeStream(in, out, 100);
    EXPECT_EQ("", out.str());
    int result = -1;
    EXPECT_EQ("", tail(path, 3, 10, &result));
    EXPECT_EQ(0, result);
    EXPECT_EQ("", tail(path, 3, 0, &result, 16));
    EXPECT_EQ(0, result);
    EXPECT_EQ("", filtered(path, 3));
}

TEST_F(LogParserTest, DepthRulesOfTheTwoFamilies) {
    std::string const path = file("depth.log");
    writeFile(path, ". detail\n.detail\n.... x\ntop\n");
    // Every leading dot counts for filter_file and dotParseStream.
    EXPECT_EQ("top\n", filtered(path, 0));
    EXPECT_EQ(". detail\n.detail\ntop\n", filtered(path, 1));
    EXPECT_EQ(". detail\n.detail\n.... x\ntop\n", filtered(path, 4));
    EXPECT_EQ("", filtered(path, -1));
    std::istringstream in(readFile(path));
    std::ostringstream out;
    Tarnwick::LogParser::dotParseStream(in, out, 1);
    EXPECT_EQ(". detail\n.detail\ntop\n", out.str());
    // The tail counts 1 to 3 dots before a blank, and nothing else.
    int result = -1;
    EXPECT_EQ(".detail\n.... x\ntop\n", tail(path, 0, 10, &result));
    EXPECT_EQ(0, result);
    EXPECT_EQ(". detail\n.detail\n.... x\ntop\n", tail(path, 1, 10, &result));
    EXPECT_EQ("", tail(path, -1, 10, &result));
    EXPECT_EQ(0, result);
}

TEST_F(LogParserTest, TailGivesTheLastLinesWithinTheLevel) {
    std::string const path = file("numbered.log");
    std::string const log = numberedLog(20000);  // about 280 KiB: many blocks
    writeFile(path, log);
    std::vector<std::string> expected;
    for (const std::string& line : splitLines(log)) {
        if (tailDepth(line) <= 1)
            expected.push_back(line);
    }
    expected.erase(expected.begin(), expected.end() - 1000);
    int result = -1;
    EXPECT_EQ(expected, splitLines(tail(path, 1, 1000, &result)));
    EXPECT_EQ(0, result);
}

TEST_F(LogParserTest, TailOfTheWholeFileInSmallBlocks) {
    std::string const path = file("numbered.log");
    std::string const log = numberedLog(600);
    writeFile(path, log);
    std::vector<std::string> expected;
    for (const std::string& line : splitLines(log)) {
        if (tailDepth(line) <= 2)
            expected.push_back(line);
    }
    int result = -1;
    // Blocks longer than every line: the lines come out whole.
    EXPECT_EQ(expected, splitLines(tail(path, 2, 0, &result, 64)));
    EXPECT_EQ(0, result);
    EXPECT_EQ(expected, splitLines(tail(path, 2, 0, &result, 1 << 20)));
}

TEST_F(LogParserTest, TailFileBlockSizes) {
    std::string const path = file("small.log");
    writeFile(path, "a\n. b\n");
    int result = -1;
    // A block larger than the file takes only the file's size.
    EXPECT_EQ("a\n. b\n", tail(path, 1, 0, &result, INT64_C(1) << 62));
    EXPECT_EQ(0, result);
    EXPECT_EQ("a\n. b\n", tail(path, 1, 0, &result, 4));
    EXPECT_EQ(0, result);
    errno = 0;
    tail(path, 0, 0, &result, -5);
    EXPECT_EQ(-1, result);
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(LogParserTest, LongLineBecomesErrorThenItsEarlierBytes) {
    std::string const path = file("long.log");
    writeFile(path, "a\n" + std::string(40000, 'X') + "\nb\n");
    int result = -1;
    // The last block ends inside the long line; the block before holds no
    // line end at all; the first block holds the line's first 7232 bytes.
    EXPECT_EQ("a\n" + std::string(7232, 'X') + "\nError: line too long\nb\n",
              tail(path, 0, 10, &result));
    EXPECT_EQ(0, result);
    EXPECT_EQ("Error: line too long\nb\n", tail(path, 0, 2, &result));
}

TEST_F(LogParserTest, EmptyLinesNeverReachTheTail) {
    std::string const path = file("blank.log");
    writeFile(path, "\n\na\n\n\r\n\nb\r\n\r\n\n");
    int result = -1;
    EXPECT_EQ("a\nb\n", tail(path, 0, 10, &result));
    EXPECT_EQ("a\nb\n", tail(path, 0, 0, &result, 3));
}

TEST_F(LogParserTest, TailOfNoLinesReadsOnlyTheFirstBlock) {
    std::string const path = file("big.log");
    writeFile(path, numberedLog(80000));  // over 1 MiB
    long long const before = bytesRead();
    int result = -1;
    std::string const text = tail(path, 3, 0, &result);
    long long const read = bytesRead() - before;
    EXPECT_EQ("", text);
    EXPECT_EQ(0, result);
    // The tail's own block; the rest is this test reading /proc/self/io.
    EXPECT_LE(read, 32768 + 1024);
}

TEST_F(LogParserTest, TailCostDependsOnTheLinesWanted) {
    std::string const path = file("big.log");
    writeFile(path, numberedLog(400000));  // about 6 MiB
    long long const before = bytesRead();
    int result = -1;
    std::string const text = tail(path, 3, 10, &result);
    long long const read = bytesRead() - before;
    EXPECT_EQ(10u, splitLines(text).size());
    EXPECT_LE(read, 2 * 32768 + static_cast<long long>(text.size()));
}

TEST_F(LogParserTest, LastLineWithoutLineEnd) {
    std::string const path = file("open.log");
    writeFile(path, "x\n. y\nz");
    int result = -1;
    EXPECT_EQ("x\n. y\nz\n", tail(path, 1, 10, &result));
    EXPECT_EQ("z\n", tail(path, 1, 1, &result));
    EXPECT_EQ("x\n. y\nz\n", filtered(path, 1));
    std::stringstream out;
    EXPECT_EQ(0, Tarnwick::smart_truncate(path.c_str(), out, 1000));
    EXPECT_EQ("x\n. y\nz\n", out.str());
    std::ifstream in(path.c_str(), std::ios::binary);
    std::ostringstream escaped;
    Tarnwick::LogParser::truncateAndEscapeStream(in, escaped, 1000);
    EXPECT_EQ("x\n. y\nz\n", escaped.str());
}

TEST_F(LogParserTest, FileWithNoLineEndAtAll) {
    std::string const path = file("one.log");
    writeFile(path, ". just one line");
    int result = -1;
    EXPECT_EQ(". just one line\n", tail(path, 1, 10, &result));
    EXPECT_EQ(0, result);
    EXPECT_EQ(". just one line\n", tail(path, 1, 0, &result, 4096));
    EXPECT_EQ(". just one line\n", filtered(path, 1));
    EXPECT_EQ("", filtered(path, 0));
    std::stringstream out;
    EXPECT_EQ(0, Tarnwick::smart_truncate(path.c_str(), out, 1000));
    EXPECT_EQ(". just one line\n", out.str());
    std::ifstream in(path.c_str(), std::ios::binary);
    std::ostringstream escaped;
    Tarnwick::LogParser::truncateAndEscapeStream(in, escaped, 1000);
    EXPECT_EQ(". just one line\n", escaped.str());
}

TEST_F(LogParserTest, TruncateAndEscapeWithinTheLimitWritesEverything) {
    std::string const content = "a/b\n100%\n\ttab\n";
    std::string const path = file("small.log");
    writeFile(path, content);
    for (size_t max_size : {content.size(), content.size() + 1, size_t(1000)}) {
        std::ifstream in(path.c_str(), std::ios::binary);
        std::ostringstream out;
        Tarnwick::LogParser::truncateAndEscapeStream(in, out, max_size);
        EXPECT_EQ("a%2Fb\n100%25\n%09tab\n", out.str()) << max_size;
    }
}

TEST_F(LogParserTest, TruncateAndEscapeMarksTheGap) {
    std::string content;
    for (int i = 1; i <= 20; ++i) {
        char line[16];
        std::snprintf(line, sizeof line, "line%04d\n", i);
        content += line;
    }
    content.replace(0, 8, "line/001");
    std::string const path = file("long.log");
    writeFile(path, content);
    std::ifstream in(path.c_str(), std::ios::binary);
    std::ostringstream out;
    // Head end 10, tail start 170 (inside line 19, which is dropped).
    Tarnwick::LogParser::truncateAndEscapeStream(in, out, EXCEEDS.size() + 20);
    EXPECT_EQ("line%2F001\nline0002\n" + EXCEEDS + "line0020\n", out.str());

    // A limit below the marker's length leaves the marker alone.
    std::ifstream again(path.c_str(), std::ios::binary);
    std::ostringstream tiny;
    Tarnwick::LogParser::truncateAndEscapeStream(again, tiny, 10);
    EXPECT_EQ(EXCEEDS, tiny.str());
}

TEST_F(LogParserTest, TruncateAndEscapeNeedsGoodStreams) {
    LogLines log;
    std::istringstream in("a\n");
    std::ostringstream out;
    out.setstate(std::ios::badbit);
    try {
        Tarnwick::LogParser::truncateAndEscapeStream(in, out, 10);
        FAIL() << "no exception";
    } catch (const Exception& e) {
        EXPECT_EQ(Tarnwick::ERR_LOG_PARSER, e.getErrNo());
        EXPECT_EQ(Tarnwick::SEVERITY_FATAL, e.getSeverity());
        EXPECT_EQ("LogParser", e.getSource());
        EXPECT_EQ("input or output stream not ready", e.getDescription());
    }
    EXPECT_TRUE(log.has("%D ERROR (%t): input or output stream not ready"));
}

TEST_F(LogParserTest, SmartTruncateKeepsHeadAndTail) {
    std::string content;
    for (int i = 1; i <= 40; ++i) {
        char line[16];
        std::snprintf(line, sizeof line, "line%04d\n", i);
        content += line;
    }
    std::string const path = file("long.log");
    writeFile(path, content);
    std::stringstream out;
    // Half is the marker's length + 20: nine head lines fit (81 bytes, the
    // tenth would make 90); the tail starts 20 bytes before the end, inside
    // line 38, which is dropped.
    ASSERT_EQ(65u, EXCEEDING.size());
    EXPECT_EQ(0, Tarnwick::smart_truncate(path.c_str(), out, 2 * (EXCEEDING.size() + 20)));
    EXPECT_EQ(content.substr(0, 81) + EXCEEDING + "line0039\nline0040\n", out.str());

    // When the rest is shorter than half, it follows the head whole.
    std::stringstream whole;
    EXPECT_EQ(0, Tarnwick::smart_truncate(path.c_str(), whole, content.size() + 2));
    EXPECT_EQ(content, whole.str());
    std::stringstream more;
    EXPECT_EQ(0, Tarnwick::smart_truncate(path.c_str(), more, 600));
    EXPECT_EQ(content, more.str());
}

TEST_F(LogParserTest, SmartTruncateBadArguments) {
    std::stringstream out;
    errno = 0;
    EXPECT_EQ(-1, Tarnwick::smart_truncate(nullptr, out, 100));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(0, Tarnwick::smart_truncate(file("missing.log").c_str(), out, 100));
    EXPECT_EQ("", out.str());
}

TEST_F(LogParserTest, FilterFileBadArguments) {
    errno = 0;
    EXPECT_EQ(-1, Tarnwick::filter_file(nullptr, file("out").c_str(), 1));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, Tarnwick::filter_file(file("in").c_str(), nullptr, 1));
    // A file that can't be opened gives no line.
    EXPECT_EQ(0, Tarnwick::filter_file(file("missing.log").c_str(), file("out").c_str(), 1));
    EXPECT_EQ("", readFile(file("out")));
}

TEST_F(LogParserTest, TailOfMissingOrSpecialFiles) {
    int const fd = ::open("/dev/null", O_WRONLY);
    EXPECT_EQ(-1, Tarnwick::tail_and_filter(nullptr, fd, 1, 10));
    EXPECT_EQ(-1, Tarnwick::tail_and_filter(wide(file("missing.log")).c_str(), fd, 1, 10));
    EXPECT_EQ(-1, Tarnwick::tail_and_filter(wide(scratch.path()).c_str(), fd, 1, 10));
    EXPECT_EQ(-1, Tarnwick::tail_and_filter_file(wide(file("missing.log")).c_str(), fd, 64, 1));
    ::close(fd);
}

TEST_F(LogParserTest, InvalidUTF8AndZeroBytes) {
    std::string const content = std::string("ok\n\xFF\xFE bad\n. a\0b\n", 16);
    std::string const path = file("bytes.log");
    writeFile(path, content);
    int result = -1;
    EXPECT_EQ(content, tail(path, 1, 10, &result));
    EXPECT_EQ(content, filtered(path, 1));
    std::ifstream in(path.c_str(), std::ios::binary);
    std::ostringstream out;
    Tarnwick::LogParser::truncateAndEscapeStream(in, out, 1000);
    EXPECT_EQ("ok\n%FF%FE bad\n. a%00b\n", out.str());
    EXPECT_EQ("%FF%FE bad", Tarnwick::LogParser::escapeLine("\xFF\xFE bad"));
}

TEST_F(LogParserTest, OneLineOf100MiBWithoutLineEnd) {
    std::string const path = file("huge.log");
    int const fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    // A sparse file: 100 MiB of zero bytes, one line.
    ASSERT_EQ(0, ::ftruncate(fd, 100 << 20));
    ::close(fd);
    int result = -1;
    EXPECT_EQ("Error: line too long\nError: line too long\nError: line too long\n",
              tail(path, 3, 3, &result));
    EXPECT_EQ(0, result);
    // filter_file gives the line whole, with its line end.
    std::string const output = file("huge.out");
    EXPECT_EQ(0, Tarnwick::filter_file(path.c_str(), output.c_str(), 0));
    struct stat status;
    ASSERT_EQ(0, ::stat(output.c_str(), &status));
    EXPECT_EQ((100 << 20) + 1, status.st_size);
}

TEST_F(LogParserTest, ParseLogFileFiltersTruncatesAndEscapes) {
    std::string const input = file("in.log");
    std::string const temporary = file("filtered.tmp");
    writeFile(input, "a/1\n.. deep\n. mid\nb%2\n");
    std::ostringstream out;
    Tarnwick::LogParser::parseLogFile(input, temporary, out, 1000, 1);
    EXPECT_EQ("a%2F1\n. mid\nb%252\n", out.str());
    // The caller removes the temporary file.
    EXPECT_EQ("a/1\n. mid\nb%2\n", readFile(temporary));
}

TEST_F(LogParserTest, ParseLogFileFailures) {
    LogLines log;
    std::string const input = file("in.log");
    writeFile(input, "a\n");
    struct Case {
        std::string input;
        std::string temporary;
        bool badOut;
        Tarnwick::eventseveritylevel_t severity;
        std::string text;
    };
    std::string const missing = file("missing.log");
    std::string const noDirectory = file("no/such/dir.tmp");
    std::string const directory = scratch.path();
    std::vector<Case> const cases = {
        {missing, file("t1.tmp"), false, Tarnwick::SEVERITY_CRITICAL,
         "Failed to open input file: " + missing},
        {input, noDirectory, false, Tarnwick::SEVERITY_CRITICAL,
         "Failed to open temporary file for writing: " + noDirectory},
        {input, file("t2.tmp"), true, Tarnwick::SEVERITY_FATAL, "Failed to open output stream"},
    };
    for (const Case& c : cases) {
        std::ostringstream out;
        if (c.badOut)
            out.setstate(std::ios::failbit);
        try {
            Tarnwick::LogParser::parseLogFile(c.input, c.temporary, out, 100, 3);
            ADD_FAILURE() << "no exception for " << c.text;
        } catch (const Exception& e) {
            EXPECT_EQ(Tarnwick::ERR_LOG_PARSER, e.getErrNo());
            EXPECT_EQ(c.severity, e.getSeverity());
            EXPECT_EQ("LogParser", e.getSource());
            EXPECT_EQ(c.text, e.getDescription());
            EXPECT_TRUE(log.has("%D ERROR (%t): " + c.text)) << c.text;
        }
    }
}

TEST_F(LogParserTest, ShrinkKeepsTheLastBytes) {
    std::string const path = file("shrink.log");
    writeFile(path, "first line\nsecond line\nthird\n");
    EXPECT_EQ(0, Tarnwick::shrinkFileTail(wide(path).c_str(), 10));
    EXPECT_EQ("ine\nthird\n", readFile(path));
    EXPECT_FALSE(exists(path + ".temp_shrinking"));
    EXPECT_EQ(0, Tarnwick::shrinkFileTail(wide(path).c_str(), 0));
    EXPECT_EQ("", readFile(path));
}

TEST_F(LogParserTest, ShrinkOfAFileOfExactlyKeepBytesDoesNothing) {
    std::string const path = file("exact.log");
    writeFile(path, "0123456789");
    struct stat before;
    ASSERT_EQ(0, ::stat(path.c_str(), &before));
    EXPECT_EQ(0, Tarnwick::shrinkFileTail(wide(path).c_str(), 10));
    struct stat after;
    ASSERT_EQ(0, ::stat(path.c_str(), &after));
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ("0123456789", readFile(path));
    EXPECT_FALSE(exists(path + ".temp_shrinking"));
}

TEST_F(LogParserTest, ShrinkFailsOnALeftoverTemporaryFile) {
    LogLines log;
    std::string const path = file("left.log");
    writeFile(path, "0123456789");
    writeFile(path + ".temp_shrinking", "old");
    EXPECT_EQ(-1, Tarnwick::shrinkFileTail(wide(path).c_str(), 4));
    EXPECT_EQ("0123456789", readFile(path));
    EXPECT_EQ("old", readFile(path + ".temp_shrinking"));
    EXPECT_TRUE(log.has("%D ERROR (%t): Can't open output file '" + path +
                        ".temp_shrinking': File exists"));
}

TEST_F(LogParserTest, ShrinkOfAMissingFile) {
    LogLines log;
    std::string const path = file("missing.log");
    EXPECT_EQ(-1, Tarnwick::shrinkFileTail(wide(path).c_str(), 4));
    EXPECT_TRUE(
        log.has("%D ERROR (%t): Can't open input file '" + path + "': No such file or directory"));
    EXPECT_FALSE(exists(path + ".temp_shrinking"));
}
