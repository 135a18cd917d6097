#include <tarnwick/exception.h>

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Callback.h>
#include <ace/Log_Record.h>

#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <vector>

#include "log_capture.h"

using namespace Tarnwick;
using TarnwickTest::LogCapture;

namespace {

class PriorityRecorder : public ACE_Log_Msg_Callback {
public:
    PriorityRecorder() {
        old_ = ACE_Log_Msg::instance()->msg_callback(this);
        ACE_Log_Msg::instance()->set_flags(ACE_Log_Msg::MSG_CALLBACK);
    }
    ~PriorityRecorder() override {
        ACE_Log_Msg::instance()->clr_flags(ACE_Log_Msg::MSG_CALLBACK);
        ACE_Log_Msg::instance()->msg_callback(old_);
    }
    void log(ACE_Log_Record& record) override {
        priorities.push_back(static_cast<ACE_Log_Priority>(record.type()));
    }
    std::vector<ACE_Log_Priority> priorities;

private:
    ACE_Log_Msg_Callback* old_;
};

}  // namespace

TEST(Exception, DefaultLogsNothing) {
    LogCapture capture;
    Exception e;
    EXPECT_STREQ(e.what(), "Default Exception");
    EXPECT_EQ(e.getErrNo(), ERR_DEFAULT);
    EXPECT_EQ(e.getSeverity(), SEVERITY_FATAL);
    EXPECT_EQ(e.getSource(), "Exception");
    EXPECT_NEAR(static_cast<double>(e.getDate()), static_cast<double>(std::time(nullptr)), 2.0);
    EXPECT_TRUE(capture.lines().empty());
}

TEST(Exception, SeverityOutsideTheTableLogsNothing) {
    LogCapture capture;
    Exception e(ERR_CONFIGFILE_READ, static_cast<eventseveritylevel_t>(9), "ConfigFile", "quiet");
    Exception zero(ERR_CONFIGFILE_READ, static_cast<eventseveritylevel_t>(0), "ConfigFile", "z");
    EXPECT_STREQ(e.what(), "quiet");
    EXPECT_EQ(e.getSeverity(), 9);
    EXPECT_TRUE(capture.lines().empty());
}

TEST(Exception, EachSeverityLogsAtItsPriority) {
    LogCapture capture;
    PriorityRecorder recorder;
    for (int severity = 1; severity <= 8; ++severity) {
        Exception e(ERR_CONVERSION, static_cast<eventseveritylevel_t>(severity),
                    std::string("Source"), "severity " + std::to_string(severity));
    }
    EXPECT_EQ(recorder.priorities,
              (std::vector<ACE_Log_Priority>{LM_DEBUG, LM_INFO, LM_ERROR, LM_WARNING, LM_ERROR,
                                             LM_ERROR, LM_ERROR, LM_ERROR}));
    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{"%D DEBUG (%t): severity 1", "%D INFO  (%t): severity 2",
                                        "%D ERROR (%t): severity 3", "%D WARN  (%t): severity 4",
                                        "%D ERROR (%t): severity 5", "%D ERROR (%t): severity 6",
                                        "%D ERROR (%t): severity 7", "%D ERROR (%t): severity 8"}));
}

TEST(Exception, NullTextsAreEmptyAndAnEmptyLineIsLogged) {
    LogCapture capture;
    Exception e(ERR_CONFIGFILE_WRITE, SEVERITY_SEVERE, static_cast<const char*>(nullptr),
                static_cast<const char*>(nullptr));
    EXPECT_STREQ(e.what(), "");
    EXPECT_EQ(e.getSource(), "");
    EXPECT_EQ(e.getErrNo(), ERR_CONFIGFILE_WRITE);
    EXPECT_EQ(capture.lines(), std::vector<std::string>{"%D ERROR (%t): "});
}

TEST(Exception, PrependChangesWhatWithoutLogging) {
    Exception e(ERR_LOG_PARSER, SEVERITY_CRITICAL, "LogParser", "input missing");
    LogCapture capture;
    e.prependToDescription("while reading: ");
    EXPECT_STREQ(e.what(), "while reading: input missing");
    EXPECT_EQ(e.getDescription(), "while reading: input missing");
    EXPECT_TRUE(capture.lines().empty());
}

TEST(Exception, CopiesKeepTheDateAndDoNotLog) {
    Exception source(ERR_RECORD_FIELD, SEVERITY_SEVERE, "Record", "Missing required field: x");
    LogCapture capture;
    Exception copy(source);
    EXPECT_EQ(copy.getDate(), source.getDate());
    EXPECT_EQ(copy.getErrNo(), ERR_RECORD_FIELD);
    EXPECT_EQ(copy.getSource(), "Record");
    EXPECT_STREQ(copy.what(), "Missing required field: x");

    Exception assigned;
    assigned = source;
    EXPECT_EQ(assigned.getDate(), source.getDate());
    EXPECT_EQ(assigned.getSeverity(), SEVERITY_SEVERE);
    Exception& itself = assigned;
    assigned = itself;
    EXPECT_STREQ(assigned.what(), "Missing required field: x");
    EXPECT_TRUE(capture.lines().empty());
}

TEST(Exception, ThrownAndCaughtAsStdException) {
    LogCapture capture;
    try {
        throw Exception(ERR_CONFIGFILE_READ, SEVERITY_FATAL, "ConfigFile", "boom");
    } catch (const std::exception& e) {
        EXPECT_STREQ(e.what(), "boom");
    }
    EXPECT_EQ(capture.lines(), std::vector<std::string>{"%D ERROR (%t): boom"});
}

TEST(Exception, ErrorNumbersKeepTheirValues) {
    EXPECT_EQ(ERR_CONVERSION, 1);
    EXPECT_EQ(ERR_RECORD_FIELD, 6);
    EXPECT_EQ(ERR_PROGRESS_INFORMATION, 8);
    EXPECT_EQ(ERR_LOG_PARSER, 10);
    EXPECT_EQ(ERR_REQUIRED_CONFIGURATION, 12);
    EXPECT_EQ(ERR_CONFIGFILE_WRITE, 14);
    EXPECT_EQ(ERR_REQUIRED_PARAMETER, 16);
    EXPECT_EQ(ERR_CONFIGFILE_READ, 18);
    EXPECT_EQ(ERR_PARAMETER_NOT_PRESENT, 200);
    EXPECT_EQ(ERR_SUBCONFIGURATION, 400);
    EXPECT_EQ(ERR_PROCESS_LOG_FILE, 500);
    EXPECT_EQ(ERR_PROCESS_TERMINATE, 506);
}
