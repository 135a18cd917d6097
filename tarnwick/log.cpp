#include <tarnwick/log.h>

#include <ace/Log_Msg.h>

#include <locale.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cwchar>
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

// What a conversion of ACE_Log_Msg::log takes from the arguments.
enum class Takes { NOTHING, INT, DOUBLE, POINTER, WIDE, WORD64, UNKNOWN };

Takes takenBy(char conversion) {
    switch (conversion) {
        case 'D':
        case 'T':
        case 't':
        case 'l':
        case 'M':
        case 'm':
        case 'N':
        case 'n':
        case 'P':
        case 'K':
        case '%':
            return Takes::NOTHING;
        case 'c':
        case 'd':
        case 'i':
        case 'o':
        case 'u':
        case 'x':
        case 'X':
        case 'w':
        case 'z':
        case 'S':
        case 'R':
            return Takes::INT;
        case 'F':
        case 'f':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'A':
            return Takes::DOUBLE;
        case 'C':
        case 's':
        case 'Z':
        case 'p':
        case '@':
            return Takes::POINTER;
        case 'W':
            return Takes::WIDE;
        case 'Q':
        case 'q':
        case ':':
        case 'b':
        case 'B':
            return Takes::WORD64;
        default:
            return Takes::UNKNOWN;
    }
}

// The characters that may stand between '%' and the conversion letter.
bool isSpecifier(char c) {
    return std::strchr("-+ #0123456789.Lh", c) != nullptr;
}

// True for a wide character that has a UTF-8 form: a Unicode scalar value.
bool isScalar(wchar_t c) {
    uint32_t const value = static_cast<uint32_t>(c);
    return value <= 0x10FFFF && (value < 0xD800 || value > 0xDFFF);
}

// True when `text` is Unicode and the locale of this thread (UTF-8, see
// emit) converts all of it, as the formatting of %W will have to.
bool converts(const wchar_t* text) {
    for (const wchar_t* c = text; *c != L'\0'; ++c)
        if (!isScalar(*c))
            return false;
    std::mbstate_t state{};
    const wchar_t* rest = text;
    return std::wcsrtombs(nullptr, &rest, 0, &state) != static_cast<size_t>(-1);
}

// `text` converted character by character; a character that has no
// multibyte form becomes U+FFFD, the replacement character.
std::string replacedText(const wchar_t* text) {
    std::string out;
    char bytes[MB_LEN_MAX];
    for (; *text != L'\0'; ++text) {
        std::mbstate_t state{};
        size_t const length =
            isScalar(*text) ? std::wcrtomb(bytes, *text, &state) : static_cast<size_t>(-1);
        if (length == static_cast<size_t>(-1))
            out += "\xEF\xBF\xBD";
        else
            out.append(bytes, length);
    }
    return out;
}

// A wide argument that can't be converted makes the formatting of ACE_Log_Msg
// stop there: the rest of the line and its line end are lost. When that is
// about to happen, `out` takes a format in which each such %W is replaced by
// the argument's text with U+FFFD for what can't be converted, padded or cut
// as the conversion asked, followed by a conversion that takes the argument
// and prints nothing. False when the format needs no change, or when it
// holds what this can't read (an unknown conversion, '*').
bool repairedFormat(const char* format, va_list args, std::string& out) {
    va_list walk;
    va_copy(walk, args);
    bool needed = false;
    bool readable = true;
    std::string result;
    for (const char* at = format; *at != '\0' && readable;) {
        if (*at != '%') {
            result += *at++;
            continue;
        }
        const char* const start = at++;
        while (*at != '\0' && isSpecifier(*at))
            ++at;
        if (*at == '\0' || *at == '*') {
            readable = false;
            break;
        }
        char const conversion = *at++;
        std::string const spec(start, static_cast<size_t>(at - start));
        switch (takenBy(conversion)) {
            case Takes::NOTHING:
                break;
            case Takes::INT:
                (void)va_arg(walk, int);
                break;
            case Takes::DOUBLE:
                (void)va_arg(walk, double);
                break;
            case Takes::POINTER:
                (void)va_arg(walk, void*);
                break;
            case Takes::WORD64:
                (void)va_arg(walk, int64_t);
                break;
            case Takes::UNKNOWN:
                readable = false;
                break;
            case Takes::WIDE: {
                const wchar_t* const text = va_arg(walk, const wchar_t*);
                if (text == nullptr || converts(text))
                    break;
                needed = true;
                std::string piece = replacedText(text);
                // Flags, width and precision as printf applies them to %ls:
                // in bytes, and a character is never cut.
                bool const left = spec.find('-') != std::string::npos;
                size_t const dot = spec.find('.');
                size_t const digits = spec.find_first_not_of("-+ #0", 1);
                size_t const width = spec[digits] >= '1' && spec[digits] <= '9'
                                         ? std::strtoul(spec.c_str() + digits, nullptr, 10)
                                         : 0;
                if (dot != std::string::npos) {
                    size_t limit = std::strtoul(spec.c_str() + dot + 1, nullptr, 10);
                    if (limit < piece.size()) {
                        while (limit > 0 &&
                               (static_cast<unsigned char>(piece[limit]) & 0xC0) == 0x80)
                            --limit;
                        piece.resize(limit);
                    }
                }
                if (piece.size() < width)
                    piece.insert(left ? piece.size() : 0, width - piece.size(), ' ');
                for (char const c : piece) {
                    result += c;
                    if (c == '%')
                        result += '%';
                }
                result += "%.0C";
                continue;
            }
        }
        result += spec;
    }
    va_end(walk);
    if (!needed || !readable)
        return false;
    out.swap(result);
    return true;
}

void emit(const char* file, int line, int error, ACE_Log_Priority priority, const char* format,
          va_list args) {
    ACE_Log_Msg* log = ACE_Log_Msg::instance();
    log->conditional_set(file, line, 0, error);
    locale_t const utf8 = utf8Locale();
    locale_t const previous = utf8 != static_cast<locale_t>(0) ? uselocale(utf8) : nullptr;
    std::string repaired;
    try {
        if (std::strchr(format, 'W') != nullptr && repairedFormat(format, args, repaired))
            format = repaired.c_str();
    } catch (const std::bad_alloc&) {
        // The line is logged as it comes.
    }
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
