#include <tarnwick/log.h>

#include <ace/Log_Msg.h>

#include <locale.h>
#include <cerrno>
#include <cstdarg>
#include <cstring>
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

void emit(const char* file, int line, int error, const char* format, va_list args) {
    ACE_Log_Msg* log = ACE_Log_Msg::instance();
    log->conditional_set(file, line, 0, error);
    locale_t const utf8 = utf8Locale();
    locale_t const previous = utf8 != static_cast<locale_t>(0) ? uselocale(utf8) : nullptr;
    errno = error;
    log->log(format, priorityOf(format), args);
    if (previous != nullptr)
        uselocale(previous);
    errno = error;
}

}  // namespace

void logMessage(const char* file, int line, const char* format, ...) {
    int const error = errno;
    va_list args;
    va_start(args, format);
    emit(file, line, error, format, args);
    va_end(args);
}

void logLastError(const char* file, int line, const char* text, ...) {
    int const error = errno;
    std::string format(text);
    format += error != 0 ? ": %m\n" : "\n";
    va_list args;
    va_start(args, text);
    emit(file, line, error, format.c_str(), args);
    va_end(args);
}

}  // namespace Tarnwick
