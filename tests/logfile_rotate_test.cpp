// Rotation of the ACE_Log_Msg log file: generations, the size test, the
// texts, no line lost while threads log, and logs that fail under the
// writer (unwritable directory, removed file, full disk).
#include <tarnwick/log.h>
#include <tarnwick/logfile_rotate.h>

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Callback.h>
#include <ace/Log_Record.h>
#include <ace/Thread_Manager.h>

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "log_capture.h"
#include "scratch_dir.h"
#include "unprivileged.h"

using Tarnwick::LogFile_Rotate;
using TarnwickTest::LogCapture;
using TarnwickTest::ScratchDir;

namespace {

const std::string ROTATED = "%D DEBUG (%t): Logfiles have been rotated.";

std::string readFile(const std::string& path) {
    std::ifstream in(path.c_str(), std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path.c_str(), std::ios::binary | std::ios::trunc);
    out << content;
}

bool exists(const std::string& path) {
    struct stat status;
    return ::stat(path.c_str(), &status) == 0;
}

// The texts of the messages logged while it lives, whatever the stream.
class MessageRecorder : public ACE_Log_Msg_Callback {
public:
    MessageRecorder() {
        ACE_Log_Msg* log = ACE_Log_Msg::instance();
        m_old = log->msg_callback(this);
        log->set_flags(ACE_Log_Msg::MSG_CALLBACK);
    }
    ~MessageRecorder() override {
        ACE_Log_Msg* log = ACE_Log_Msg::instance();
        log->clr_flags(ACE_Log_Msg::MSG_CALLBACK);
        log->msg_callback(m_old);
    }
    void log(ACE_Log_Record& record) override {
        m_lines.push_back(LogCapture::normalise(record.msg_data()));
    }
    int count(const std::string& line) const {
        int n = 0;
        for (const std::string& l : m_lines)
            n += l == line ? 1 : 0;
        return n;
    }
    std::string all() const {
        std::string text;
        for (const std::string& l : m_lines)
            text += l;
        return text;
    }

private:
    ACE_Log_Msg_Callback* m_old;
    std::vector<std::string> m_lines;
};

// Points ACE_Log_Msg's stream at a file of a scratch directory, as a daemon
// does, and puts the old stream and flags back at the end.
class RotateTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(scratch.path().empty());
        path = scratch.path() + "/agent.log";
        ACE_Log_Msg* log = ACE_Log_Msg::instance();
        m_oldStream = log->msg_ostream();
        m_oldFlags = log->flags();
        m_oldMask = log->priority_mask(ACE_Log_Msg::PROCESS);
        stream.reset(new std::ofstream(path.c_str(), std::ios::out | std::ios::app));
        log->msg_ostream(stream.get(), false);
        log->clr_flags(ACE_Log_Msg::STDERR | ACE_Log_Msg::SYSLOG | ACE_Log_Msg::LOGGER);
        log->set_flags(ACE_Log_Msg::OSTREAM);
        log->priority_mask(LM_TRACE | LM_DEBUG | LM_INFO | LM_NOTICE | LM_WARNING | LM_ERROR,
                           ACE_Log_Msg::PROCESS);
    }
    void TearDown() override {
        ACE_Log_Msg* log = ACE_Log_Msg::instance();
        log->msg_ostream(m_oldStream, false);
        log->clr_flags(ACE_Log_Msg::OSTREAM);
        log->set_flags(m_oldFlags);
        log->priority_mask(m_oldMask, ACE_Log_Msg::PROCESS);
        stream.reset();
    }

    // Writes `bytes` bytes to the log stream as it stands.
    void fill(size_t bytes, char c = 'x') {
        *stream << std::string(bytes, c);
        stream->flush();
    }

    // The log file's lines, normalised as captured lines are.
    std::string logText(const std::string& file) const {
        return LogCapture::normalise(readFile(file));
    }

    ScratchDir scratch{"tarnwick-rotate"};
    std::string path;
    std::unique_ptr<std::ofstream> stream;

private:
    std::ostream* m_oldStream = nullptr;
    unsigned long m_oldFlags = 0;
    unsigned long m_oldMask = 0;
};

}  // namespace

TEST_F(RotateTest, NoFileStreamGivesMinusOneAndChangesNothing) {
    fill(100);
    {
        LogCapture capture;  // a string stream
        EXPECT_EQ(-1, LogFile_Rotate::Rotate(path.c_str(), 10, 3));
        EXPECT_EQ("", capture.text());
    }
    ACE_Log_Msg::instance()->msg_ostream(nullptr, false);
    EXPECT_EQ(-1, LogFile_Rotate::Rotate(path.c_str(), 10, 3));
    ACE_Log_Msg::instance()->msg_ostream(stream.get(), false);
    EXPECT_EQ(std::string(100, 'x'), readFile(path));
    EXPECT_FALSE(exists(path + ".1"));
}

TEST_F(RotateTest, FileOfExactlyMaxSizeStaysAndTheTextAppears) {
    fill(100);
    EXPECT_EQ(0, LogFile_Rotate::Rotate(path.c_str(), 100, 3));
    stream->flush();
    EXPECT_FALSE(exists(path + ".1"));
    EXPECT_EQ(std::string(100, 'x') + ROTATED + "\n", logText(path));
}

TEST_F(RotateTest, RotationMovesTheFileToTheFirstGeneration) {
    ASSERT_EQ(0, ::chmod(path.c_str(), 0640));
    fill(101);
    EXPECT_EQ(0, LogFile_Rotate::Rotate(path.c_str(), 100, 3));
    TW_LOG("%D INFO  (%t): after\n");
    stream->flush();
    EXPECT_EQ(std::string(101, 'x'), readFile(path + ".1"));
    EXPECT_EQ(ROTATED + "\n%D INFO  (%t): after\n", logText(path));
    EXPECT_FALSE(exists(path + ".2"));
    // Both files are no more readable than the old one.
    struct stat status;
    ASSERT_EQ(0, ::stat(path.c_str(), &status));
    EXPECT_EQ(0640u, status.st_mode & 0777);
    ASSERT_EQ(0, ::stat((path + ".1").c_str(), &status));
    EXPECT_EQ(0640u, status.st_mode & 0777);
}

TEST_F(RotateTest, CountZeroAndOneStartANewFileWithoutCopies) {
    for (size_t count : {size_t(0), size_t(1)}) {
        fill(200);
        EXPECT_EQ(0, LogFile_Rotate::Rotate(path.c_str(), 100, count));
        stream->flush();
        EXPECT_TRUE(exists(path));
        EXPECT_EQ("", readFile(path)) << count;
        EXPECT_FALSE(exists(path + ".1"));
        EXPECT_FALSE(exists(path + ".0"));
    }
}

TEST_F(RotateTest, HighestGenerationIsDropped) {
    writeFile(path + ".1", "one");
    writeFile(path + ".2", "two");
    writeFile(path + ".3", "three");
    fill(150, 'L');
    EXPECT_EQ(0, LogFile_Rotate::Rotate(path.c_str(), 100, 3));
    EXPECT_EQ(std::string(150, 'L'), readFile(path + ".1"));
    EXPECT_EQ("one", readFile(path + ".2"));
    EXPECT_EQ("two", readFile(path + ".3"));
    EXPECT_FALSE(exists(path + ".4"));
}

TEST_F(RotateTest, MissingLowerGenerationsAreNoError) {
    writeFile(path + ".2", "two");
    fill(150, 'L');
    std::wstring const wide(path.begin(), path.end());
    EXPECT_EQ(0, LogFile_Rotate::Rotate(wide.c_str(), 100, 3));
    stream->flush();
    EXPECT_EQ(std::string(150, 'L'), readFile(path + ".1"));
    EXPECT_FALSE(exists(path + ".2"));
    EXPECT_EQ("two", readFile(path + ".3"));
    EXPECT_EQ(ROTATED + "\n", logText(path));
}

TEST_F(RotateTest, NullPath) {
    errno = 0;
    EXPECT_EQ(-1, LogFile_Rotate::Rotate(static_cast<const char*>(nullptr), 100, 3));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, LogFile_Rotate::Rotate(static_cast<const wchar_t*>(nullptr), 100, 3));
}

namespace {

const int THREADS = 8;
const int LINES = 3000;
std::atomic<int> running{0};

ACE_THR_FUNC_RETURN writeNumberedLines(void* arg) {
    std::ostream* const stream = static_cast<std::ostream*>(arg);
    ACE_Log_Msg* const log = ACE_Log_Msg::instance();
    if (log->msg_ostream() != stream)
        log->msg_ostream(stream, false);
    static std::atomic<int> next{0};
    int const id = next++ % THREADS;
    for (int n = 0; n < LINES; ++n)
        TW_LOG("%D INFO  (%t): writer %d line %d\n", id, n);
    --running;
    return 0;
}

}  // namespace

TEST_F(RotateTest, NoLineIsLostWhileEightThreadsLog) {
    size_t const count = 1000;
    running = THREADS;
    ACE_Thread_Manager threads;
    ASSERT_NE(
        -1, threads.spawn_n(THREADS, writeNumberedLines, stream.get(), THR_NEW_LWP | THR_JOINABLE));
    int rotations = 0;
    while (running > 0) {
        EXPECT_EQ(0, LogFile_Rotate::Rotate(path.c_str(), 16384, count));
        ++rotations;
        ::usleep(200);
    }
    threads.wait();
    stream->flush();

    // The generations from the oldest to the live file hold every line once,
    // in order per writer.
    std::vector<std::string> files;
    for (size_t n = count; n >= 1; --n) {
        std::string const name = path + "." + std::to_string(n);
        if (exists(name))
            files.push_back(name);
    }
    ASSERT_FALSE(exists(path + "." + std::to_string(count)));
    files.push_back(path);
    std::vector<int> next(THREADS, 0);
    int bad = 0;
    for (const std::string& name : files) {
        std::istringstream in(readFile(name));
        std::string line;
        while (std::getline(in, line)) {
            int id = -1;
            int n = -1;
            size_t const at = line.find("writer ");
            if (at == std::string::npos)
                continue;
            ASSERT_EQ(2, std::sscanf(line.c_str() + at, "writer %d line %d", &id, &n)) << line;
            ASSERT_TRUE(id >= 0 && id < THREADS) << line;
            if (n != next[id])
                ++bad;
            next[id] = n + 1;
        }
    }
    EXPECT_EQ(0, bad);
    for (int id = 0; id < THREADS; ++id)
        EXPECT_EQ(LINES, next[id]) << "writer " << id;
    EXPECT_GT(files.size(), 2u) << rotations << " rotations";
    std::printf("[figure] %d rotation calls, %zu files\n", rotations, files.size());
}

TEST_F(RotateTest, UnwritableDirectoryKeepsTheLogAndSaysItOnce) {
    // The directory belongs to the unprivileged user, who takes away and
    // gives back its own write permission.
    std::string const directory = scratch.path() + "/logs";
    ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0711));
    ASSERT_EQ(0, ::mkdir(directory.c_str(), 0755));
    if (::geteuid() == 0) {
        ASSERT_EQ(0, ::chown(directory.c_str(), 65534, 65534));
    }
    std::string const file = directory + "/agent.log";
    TarnwickTest::asUnprivilegedUser([&]() {
        std::ofstream own(file.c_str(), std::ios::out | std::ios::app);
        ACE_Log_Msg::instance()->msg_ostream(&own, false);
        MessageRecorder recorder;
        own << std::string(150, 'a');
        own.flush();
        ASSERT_EQ(0, ::chmod(directory.c_str(), 0555));
        EXPECT_EQ(0, LogFile_Rotate::Rotate(file.c_str(), 100, 3));
        TW_LOG("%D INFO  (%t): still here\n");
        EXPECT_EQ(0, LogFile_Rotate::Rotate(file.c_str(), 100, 3));
        own.flush();
        std::string const failed = "%D ERROR (%t): Can not rotate log file " + file +
                                   "; it goes on growing: Permission denied\n";
        EXPECT_EQ(1, recorder.count(failed)) << recorder.all();
        EXPECT_FALSE(exists(file + ".1"));
        std::string const text = LogCapture::normalise(readFile(file));
        EXPECT_EQ(0u, text.find(std::string(150, 'a') + failed + ROTATED +
                                "\n%D INFO  (%t): still here\n"))
            << text;
        // Writable again: the next rotation goes through.
        ASSERT_EQ(0, ::chmod(directory.c_str(), 0755));
        EXPECT_EQ(0, LogFile_Rotate::Rotate(file.c_str(), 100, 3));
        own.flush();
        EXPECT_TRUE(exists(file + ".1"));
        EXPECT_EQ(ROTATED + "\n", LogCapture::normalise(readFile(file)));
        ACE_Log_Msg::instance()->msg_ostream(nullptr, false);
    });
}

TEST_F(RotateTest, RemovedFileIsStartedAgain) {
    MessageRecorder recorder;
    TW_LOG("%D INFO  (%t): before\n");
    ASSERT_EQ(0, ::unlink(path.c_str()));
    EXPECT_EQ(0, LogFile_Rotate::Rotate(path.c_str(), 1 << 20, 3));
    EXPECT_EQ(0, LogFile_Rotate::Rotate(path.c_str(), 1 << 20, 3));
    TW_LOG("%D INFO  (%t): after\n");
    stream->flush();
    std::string const removed =
        "%D WARN  (%t): Log file " + path + " was removed; a new one has been started\n";
    EXPECT_EQ(1, recorder.count(removed));
    EXPECT_EQ(removed + ROTATED + "\n" + ROTATED + "\n%D INFO  (%t): after\n", logText(path));
}

TEST_F(RotateTest, FullDiskIsSaidOnceAndWritingResumes) {
    // A file size limit stands for the full disk.
    struct rlimit old;
    ASSERT_EQ(0, ::getrlimit(RLIMIT_FSIZE, &old));
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction oldAction;
    ASSERT_EQ(0, ::sigaction(SIGXFSZ, &ignore, &oldAction));
    MessageRecorder recorder;
    fill(1000);
    struct rlimit small = old;
    small.rlim_cur = 1100;
    ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &small));
    for (int i = 0; i < 100 && stream->good(); ++i) {
        TW_LOG("%D INFO  (%t): filling %d\n", i);
        stream->flush();
    }
    EXPECT_FALSE(stream->good());
    EXPECT_EQ(0, LogFile_Rotate::Rotate(path.c_str(), 1 << 20, 3));
    TW_LOG("%D INFO  (%t): still full\n");
    EXPECT_EQ(0, LogFile_Rotate::Rotate(path.c_str(), 1 << 20, 3));
    ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &old));
    ASSERT_EQ(0, ::sigaction(SIGXFSZ, &oldAction, nullptr));
    EXPECT_EQ(0, LogFile_Rotate::Rotate(path.c_str(), 1 << 20, 3));
    TW_LOG("%D INFO  (%t): resumed\n");
    stream->flush();
    EXPECT_TRUE(stream->good());
    std::string const failed =
        "%D ERROR (%t): Log file " + path + " could not be written; it has been opened again\n";
    EXPECT_EQ(1, recorder.count(failed)) << recorder.all();
    std::string const text = logText(path);
    EXPECT_NE(std::string::npos, text.find("%D INFO  (%t): resumed\n")) << text;
    EXPECT_EQ(std::string::npos, text.find("still full"));
    EXPECT_EQ(0u, text.find(std::string(1000, 'x')));
}
