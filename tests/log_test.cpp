#include <tarnwick/log.h>

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Callback.h>
#include <ace/Log_Record.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

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
