#include <tarnwick/log.h>

#include <ace/Log_Msg.h>

#include <locale.h>
#include <unistd.h>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <iostream>
#include <iterator>
#include <locale>
#include <new>
#include <string>

namespace Tarnwick {

namespace {

ACE_Log_Priority priorityOf(const char* format) {
    if (std::strncmp(format, "%D ", 3) == 0) {
        const char* word = format + 3;
        if (std::strncmp(word, "ERROR ", 6) == 0)
            return LM_ERROR;
        if (std::strncmp(word, "WARN  ", 6) == 0)
            return LM_WARNING;
        if (std::strncmp(word, "INFO  ", 6) == 0)
            return LM_INFO;
        if (std::strncmp(word, "DEBUG ", 6) == 0)
            return LM_DEBUG;
    }
    return LM_ERROR;
}

// Wide arguments (%W) are written as UTF-8 whatever the process locale is:
// the message is formatted under a UTF-8 character type on this thread only.
locale_t utf8Locale() {
    static locale_t const locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0));
    return locale;
}

void emit(const char* file, int line, int error, ACE_Log_Priority priority, const char* format,
          va_list args) {
    ACE_Log_Msg* log = ACE_Log_Msg::instance();
    log->conditional_set(file, line, 0, error);
    locale_t const utf8 = utf8Locale();
    locale_t const previous = utf8 != static_cast<locale_t>(0) ? uselocale(utf8) : nullptr;
    errno = error;
    log->log(format, priority, args);
    if (previous != nullptr)
        uselocale(previous);
    errno = error;
}

}  // namespace

void logMessage(const char* file, int line, const char* format, ...) {
    int const error = errno;
    va_list args;
    va_start(args, format);
    emit(file, line, error, priorityOf(format), format, args);
    va_end(args);
}

void logLastError(const char* file, int line, const char* text, ...) {
    int const error = errno;
    std::string format(text);
    format += error != 0 ? ": %m\n" : "\n";
    va_list args;
    va_start(args, text);
    emit(file, line, error, priorityOf(text), format.c_str(), args);
    va_end(args);
}

void logAtPriority(const char* file, int line, int priority, const char* format, ...) {
    int const error = errno;
    va_list args;
    va_start(args, format);
    emit(file, line, error, static_cast<ACE_Log_Priority>(priority), format, args);
    va_end(args);
}

}  // namespace Tarnwick

namespace Tarnwick {

namespace {

const int FLAG_MASK = static_cast<int>(0xC000007Fu);

}  // namespace

Log* Log::_instance = nullptr;
int Log::_flags = 0;
const char* const Log::_names[] = {"CRIT", "ERR", "WARN", "AUTH", "INFO", "NOTICE", "TRACE"};

Log::Log() = default;
Log::~Log() = default;

Log* Log::instance() {
    return instance(Normal() | Time() | ThreadID());
}

Log* Log::instance(int flags) {
    if (_instance == nullptr) {
        _instance = new (std::nothrow) Log();
        _flags = flags & FLAG_MASK;
    }
    return _instance;
}

int Log::flags() {
    return _flags;
}

int Log::flags(int flags) {
    _flags = flags & FLAG_MASK;
    return _flags;
}

int Log::On(int mask) {
    return _flags & mask;
}

void Log::message(level_t level, const std::string& text) {
    if ((_flags & (1 << level)) == 0)
        return;
    _ilog(level, text);
}

void Log::message(level_t level, int code, const std::string& text) {
    if ((_flags & (1 << level)) == 0)
        return;
    _ilog(level, code, text);
}

void Log::_ilog(level_t level, const std::string& text) {
    instance()->_log(level, text);
}

void Log::_ilog(level_t level, int code, const std::string& text) {
    instance()->_log(level, code, text);
}

void Log::_ilog(level_t level, const std::stringstream& text) {
    _ilog(level, text.str());
}

void Log::_ilog(level_t level, int code, const std::stringstream& text) {
    _ilog(level, code, text.str());
}

#define TARNWICK_LOG_LEVEL(function, level)                       \
    void Log::function(const std::string& text) {                 \
        message(level, text);                                     \
    }                                                             \
    void Log::function(int code, const std::string& text) {       \
        message(level, code, text);                               \
    }                                                             \
    void Log::function(const std::stringstream& text) {           \
        message(level, text.str());                               \
    }                                                             \
    void Log::function(int code, const std::stringstream& text) { \
        message(level, code, text.str());                         \
    }

TARNWICK_LOG_LEVEL(crit, CRIT)
TARNWICK_LOG_LEVEL(error, ERR)
TARNWICK_LOG_LEVEL(warn, WARN)
TARNWICK_LOG_LEVEL(auth, AUTH)
TARNWICK_LOG_LEVEL(info, INFO)
TARNWICK_LOG_LEVEL(notice, NOTICE)
TARNWICK_LOG_LEVEL(trace, TRACE)

#undef TARNWICK_LOG_LEVEL

void Log::_log(level_t level, const std::string& text) {
    std::stringstream body;
    body << ": " << text << '\n';
    _output(level, body);
}

void Log::_log(level_t level, int code, const std::string& text) {
    std::stringstream body;
    body << ' ' << code << ": " << text << '\n';
    _output(level, body);
}

void Log::_output(level_t level, const std::stringstream& body) {
    if ((_flags & Time()) != 0) {
        _log_timestamp();
        std::cerr << ' ';
    }
    if ((_flags & ThreadID()) != 0)
        std::cerr << '[' << static_cast<long>(gettid()) << "] ";
    if (level >= CRIT && level <= TRACE) {
        std::cerr << _names[level];
    } else {
        std::cerr << "UNKNOWN LOG LEVEL " << static_cast<int>(level);
    }
    std::cerr << body.str();
}

void Log::_log_timestamp() {
    std::time_t const now = std::time(nullptr);
    std::tm local;
    localtime_r(&now, &local);
    const std::time_put<char>& put = std::use_facet<std::time_put<char>>(std::locale::classic());
    std::ostreambuf_iterator<char> out(std::cerr);
    put.put(out, std::cerr, ' ', &local, 'c');
    std::cerr << ' ';
    put.put(out, std::cerr, ' ', &local, 'Z');
}

void Log::_log_threadid() {
    std::cerr << static_cast<long>(gettid());
}

}  // namespace Tarnwick
