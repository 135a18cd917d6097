#include "log_capture.h"

#include <ace/Log_Msg.h>

#include <cstring>

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

namespace {

// True when `text` at `pos` matches `pattern`, where '9' stands for a digit.
bool matches(const std::string& text, size_t pos, const char* pattern) {
    for (size_t i = 0; pattern[i] != '\0'; ++i, ++pos) {
        if (pos >= text.size())
            return false;
        char const c = text[pos];
        if (pattern[i] == '9' ? (c < '0' || c > '9') : c != pattern[i])
            return false;
    }
    return true;
}

}  // namespace

std::string LogCapture::normalise(const std::string& raw) {
    static const char* const DATE = "9999-99-99 99:99:99.999999";
    static const char* const LEVELS[] = {"ERROR (", "WARN  (", "INFO  (", "DEBUG ("};
    std::string out;
    out.reserve(raw.size());
    size_t pos = 0;
    while (pos < raw.size()) {
        if (matches(raw, pos, DATE)) {
            out += "%D";
            pos += std::strlen(DATE);
            continue;
        }
        bool replaced = false;
        for (const char* level : LEVELS) {
            size_t const length = std::strlen(level);
            if (raw.compare(pos, length, level) != 0)
                continue;
            size_t digits = pos + length;
            while (digits < raw.size() && raw[digits] >= '0' && raw[digits] <= '9')
                ++digits;
            if (digits > pos + length && digits < raw.size() && raw[digits] == ')') {
                out.append(level, length);
                out += "%t)";
                pos = digits + 1;
                replaced = true;
            }
            break;
        }
        if (!replaced)
            out += raw[pos++];
    }
    return out;
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
