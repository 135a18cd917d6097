#include "log_capture.h"

#include <ace/Log_Msg.h>

#include <regex>

namespace TarnwickTest {

LogCapture::LogCapture() {
    ACE_Log_Msg* log = ACE_Log_Msg::instance();
    old_stream_ = log->msg_ostream();
    old_flags_ = log->flags();
    log->msg_ostream(&stream_, false);
    log->clr_flags(ACE_Log_Msg::STDERR | ACE_Log_Msg::SYSLOG | ACE_Log_Msg::LOGGER);
    log->set_flags(ACE_Log_Msg::OSTREAM);
    log->priority_mask(LM_SHUTDOWN | LM_TRACE | LM_DEBUG | LM_INFO | LM_NOTICE | LM_WARNING |
                           LM_STARTUP | LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY,
                       ACE_Log_Msg::PROCESS);
}

LogCapture::~LogCapture() {
    ACE_Log_Msg* log = ACE_Log_Msg::instance();
    log->msg_ostream(old_stream_, false);
    log->clr_flags(ACE_Log_Msg::OSTREAM);
    log->set_flags(old_flags_);
}

std::string LogCapture::normalise(const std::string& raw) {
    static const std::regex date(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{6})");
    static const std::regex thread(R"(((?:ERROR|WARN |INFO |DEBUG) )\(\d+\))");
    std::string out = std::regex_replace(raw, date, "%D");
    return std::regex_replace(out, thread, "$1(%t)");
}

std::string LogCapture::text() const {
    return normalise(stream_.str());
}

std::vector<std::string> LogCapture::lines() const {
    std::vector<std::string> out;
    std::string all = text();
    std::string::size_type start = 0;
    while (start < all.size()) {
        std::string::size_type end = all.find('\n', start);
        if (end == std::string::npos) {
            out.push_back(all.substr(start));
            break;
        }
        out.push_back(all.substr(start, end - start));
        start = end + 1;
    }
    return out;
}

void LogCapture::clear() {
    stream_.str(std::string());
    stream_.clear();
}

}  // namespace TarnwickTest
