#include <tarnwick/log.h>

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Callback.h>
#include <ace/Log_Record.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <ctime>
#include <iterator>
#include <locale>
#include <sstream>
#include <string>
#include <vector>

#include "child.h"
#include "log_capture.h"

using TarnwickTest::LogCapture;

namespace {

// Collects the priority of each record.
class PriorityRecorder : public ACE_Log_Msg_Callback {
public:
    PriorityRecorder() {
        ACE_Log_Msg* log = ACE_Log_Msg::instance();
        old_ = log->msg_callback(this);
        log->set_flags(ACE_Log_Msg::MSG_CALLBACK);
    }
    ~PriorityRecorder() override {
        ACE_Log_Msg* log = ACE_Log_Msg::instance();
        log->clr_flags(ACE_Log_Msg::MSG_CALLBACK);
        log->msg_callback(old_);
    }
    void log(ACE_Log_Record& record) override {
        priorities.push_back(static_cast<ACE_Log_Priority>(record.type()));
    }
    std::vector<ACE_Log_Priority> priorities;

private:
    ACE_Log_Msg_Callback* old_;
};

}  // namespace

TEST(Log, PriorityFollowsTheLevelWord) {
    LogCapture capture;
    PriorityRecorder recorder;
    TW_LOG("%D ERROR (%t): e\n");
    TW_LOG("%D WARN  (%t): w\n");
    TW_LOG("%D INFO  (%t): i\n");
    TW_LOG("%D DEBUG (%t): d\n");
    TW_LOG("no prefix\n");
    EXPECT_EQ(recorder.priorities,
              (std::vector<ACE_Log_Priority>{LM_ERROR, LM_WARNING, LM_INFO, LM_DEBUG, LM_ERROR}));
    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{"%D ERROR (%t): e", "%D WARN  (%t): w", "%D INFO  (%t): i",
                                        "%D DEBUG (%t): d", "no prefix"}));
}

TEST(Log, LastErrorGivesTheTwoForms) {
    LogCapture capture;
    errno = ENOENT;
    TW_LOG_ERRNO("%D ERROR (%t): Can not open %C", "x");
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    TW_LOG_ERRNO("%D ERROR (%t): Can not open %C", "y");
    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{"%D ERROR (%t): Can not open x: No such file or directory",
                                        "%D ERROR (%t): Can not open y"}));
}

TEST(Log, ErrnoIsKeptAndPrintedAsItStood) {
    LogCapture capture;
    errno = EACCES;
    TW_LOG("%D ERROR (%t): failed: %m\n");
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{"%D ERROR (%t): failed: Permission denied"});
}

TEST(Log, WideArgumentsPrintAsUTF8WhateverTheLocale) {
    LogCapture capture;
    TW_LOG("%D INFO  (%t): %W and %C\n", L"h\u00e9 \u4e2d \U0001F600", "n\xc3\xa9");
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{"%D INFO  (%t): h\xc3\xa9 \xe4\xb8\xad \xf0\x9f\x98\x80 and "
                                       "n\xc3\xa9"});
}

// A wide argument that has no UTF-8 form (a surrogate, a value above
// U+10FFFF) is printed with U+FFFD in the place of what can't be converted,
// and the rest of the line and its line end follow as usual.
TEST(Log, WideArgumentThatCanNotBeConvertedIsReplacedAndTheLineEnds) {
    wchar_t const surrogate[] = {L'x', static_cast<wchar_t>(0xD800), L'y', L'%', 0};
    wchar_t const tooLarge[] = {static_cast<wchar_t>(0x110000), L'\u00e9', 0};
    LogCapture capture;
    errno = ENOENT;
    TW_LOG("%D INFO  (%t): a %W b %d %C %m\n", surrogate, 42, "narrow");
    TW_LOG("%D INFO  (%t): %W [%-7W] [%6W] [%.4W] 100%%\n", L"fine", surrogate, tooLarge, tooLarge);
    TW_LOG("%D INFO  (%t): next\n");
    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{
                  "%D INFO  (%t): a x\xEF\xBF\xBDy% b 42 narrow No such file or directory",
                  "%D INFO  (%t): fine [x\xEF\xBF\xBDy% ] [ \xEF\xBF\xBD\xC3\xA9] [\xEF\xBF\xBD] "
                  "100%",
                  "%D INFO  (%t): next"}));
}

// ---------------------------------------------------------------------------
// Log, the leveled logger on standard error. Its state is process-wide and
// set on first use, so each test runs in a child process of its own.

namespace {

using Tarnwick::Log;
using TarnwickTest::runInChild;

// Exposes the logger's unconditional message for tests.
class OpenLog : public Log {
public:
    using Log::_ilog;
};

std::string timestamp(std::time_t when) {
    std::tm local;
    localtime_r(&when, &local);
    std::ostringstream out;
    const auto& put = std::use_facet<std::time_put<char>>(std::locale::classic());
    put.put(std::ostreambuf_iterator<char>(out), out, ' ', &local, 'c');
    out << ' ';
    put.put(std::ostreambuf_iterator<char>(out), out, ' ', &local, 'Z');
    return out.str();
}

// True when `line` is a full line made between `start` and now by `pid`,
// ending in `rest`.
::testing::AssertionResult isLine(const std::string& line, std::time_t start, pid_t pid,
                                  const std::string& rest) {
    std::string const tail = " [" + std::to_string(pid) + "] " + rest;
    for (std::time_t t = start; t <= std::time(nullptr); ++t) {
        if (line == timestamp(t) + tail)
            return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "unexpected line: " << line;
}

}  // namespace

TEST(LogClass, MessageBeforeTheInstanceIsDropped) {
    auto result = runInChild([] {
        Log::crit("lost");
        Log::error(3, "lost too");
        return Log::flags() == 0 ? 0 : 1;
    });
    EXPECT_EQ(result.exitCode(), 0);
    EXPECT_EQ(result.errors, "");
}

TEST(LogClass, FirstMessageMakesTheInstanceWithDefaultFlags) {
    std::time_t const start = std::time(nullptr);
    auto result = runInChild([] {
        Log::flags(Log::Crit());
        Log::crit("x");
        return Log::flags() == static_cast<int>(0xC000000Fu) ? 0 : 1;
    });
    EXPECT_EQ(result.exitCode(), 0);
    EXPECT_TRUE(isLine(result.errors, start, result.pid, "CRIT: x\n"));
}

TEST(LogClass, FlagsAreMasked) {
    auto result = runInChild([] {
        int const set = Log::flags(static_cast<int>(0xFFFFFFFFu));
        return set == static_cast<int>(0xC000007Fu) && Log::flags() == set ? 0 : 1;
    });
    EXPECT_EQ(result.exitCode(), 0);
}

TEST(LogClass, DefaultFlagsPrintWarningsButNotInformation) {
    std::time_t const start = std::time(nullptr);
    auto result = runInChild([] {
        Log::instance();
        Log::info("hidden");
        Log::warn("shown");
        return Log::On(Log::Info()) == 0 && Log::On(Log::Warn()) != 0 ? 0 : 1;
    });
    EXPECT_EQ(result.exitCode(), 0);
    EXPECT_TRUE(isLine(result.errors, start, result.pid, "WARN: shown\n"));
}

TEST(LogClass, UnknownLevelIsNamedWithItsNumber) {
    auto result = runInChild([] {
        Log::instance();
        Log::flags(0);
        OpenLog::_ilog(static_cast<Log::level_t>(9), "text");
        return 0;
    });
    EXPECT_EQ(result.errors, "UNKNOWN LOG LEVEL 9: text\n");
}

TEST(LogClass, EveryLevelWordCodeAndStreamForm) {
    auto result = runInChild([] {
        Log::instance(Log::All());
        Log::crit("c");
        Log::error(12, "disk full");
        std::stringstream warn;
        warn << "w" << 1;
        Log::warn(warn);
        Log::auth(7, warn);
        Log::info("i");
        Log::notice("n");
        Log::trace("t");
        Log::flags(Log::Err());
        Log::trace("dropped");
        return 0;
    });
    EXPECT_EQ(result.errors,
              "CRIT: c\nERR 12: disk full\nWARN: w1\nAUTH 7: w1\nINFO: i\nNOTICE: n\nTRACE: t\n");
}

TEST(LogClass, ThreadNumberWithoutTime) {
    auto result = runInChild([] {
        Log::instance(Log::Normal() | Log::ThreadID());
        Log::error("e");
        return 0;
    });
    EXPECT_EQ(result.errors, "[" + std::to_string(result.pid) + "] ERR: e\n");
}

TEST(LogClass, LaterInstanceCallsIgnoreTheirFlags) {
    auto result = runInChild([] {
        Log* first = Log::instance(Log::Err());
        Log* second = Log::instance(Log::All());
        return first == second && Log::flags() == Log::Err() ? 0 : 1;
    });
    EXPECT_EQ(result.exitCode(), 0);
}
