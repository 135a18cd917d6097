// The two roads of diagnostics: the Log class, with which client code writes
// leveled lines to standard error, and the messages of the library's own
// code, which go through ACE_Log_Msg.
//
// Every message of the library goes to ACE_Log_Msg as one format string that
// carries its own date, level word and thread marker: "%D ERROR (%t): ",
// "%D WARN  (%t): ", "%D INFO  (%t): " or "%D DEBUG (%t): ". Where that output
// goes is the application's choice (ACE_Log_Msg flags, ostream or callback).
// In formats, %W prints a wide string, %C a narrow one and %m the text of the
// error number that stood when the message was made.
#pragma once

#include <tarnwick/export.h>

#include <sstream>
#include <string>

namespace Tarnwick {

// A small leveled logger that writes lines to standard error. Each level has
// a flag bit; a message is written only when its bit is on. A line reads:
// the time ("%c %Z" in the classic locale), the thread number in brackets,
// the level word, an optional code, ": " and the text, e.g.
//   Sat Nov 21 22:10:00 2026 UTC [4711] ERR 12: disk full
// The flags are zero until the instance is made, so messages before that
// are dropped. Log takes no lock; make the first call on one thread.
class TARNWICK_EXPORT Log {
public:
    enum level_t { CRIT = 0, ERR = 1, WARN = 2, AUTH = 3, INFO = 4, NOTICE = 5, TRACE = 6 };

    // Flag bits of the levels, and of the parts of a line.
    static int Crit() { return 1; }
    static int Err() { return 2; }
    static int Warn() { return 4; }
    static int Auth() { return 8; }
    static int Info() { return 16; }
    static int Notice() { return 32; }
    static int Trace() { return 64; }
    static int Normal() { return 15; }  // Crit, Err, Warn, Auth
    static int All() { return 127; }
    static int Time() { return 0x40000000; }
    static int ThreadID() { return static_cast<int>(0x80000000u); }

    // The logger, made on first use with the flags Normal, Time and ThreadID.
    static Log* instance();
    // The same, but a new instance takes `flags` (masked); an existing one
    // ignores them.
    static Log* instance(int flags);
    static int flags();
    // Sets the flags; only the level bits and Time and ThreadID can be set.
    static int flags(int flags);
    // The flags ANDed with `mask`.
    static int On(int mask);

    static void crit(const std::string& text);
    static void crit(int code, const std::string& text);
    static void crit(const std::stringstream& text);
    static void crit(int code, const std::stringstream& text);
    static void error(const std::string& text);
    static void error(int code, const std::string& text);
    static void error(const std::stringstream& text);
    static void error(int code, const std::stringstream& text);
    static void warn(const std::string& text);
    static void warn(int code, const std::string& text);
    static void warn(const std::stringstream& text);
    static void warn(int code, const std::stringstream& text);
    static void auth(const std::string& text);
    static void auth(int code, const std::string& text);
    static void auth(const std::stringstream& text);
    static void auth(int code, const std::stringstream& text);
    static void info(const std::string& text);
    static void info(int code, const std::string& text);
    static void info(const std::stringstream& text);
    static void info(int code, const std::stringstream& text);
    static void notice(const std::string& text);
    static void notice(int code, const std::string& text);
    static void notice(const std::stringstream& text);
    static void notice(int code, const std::stringstream& text);
    static void trace(const std::string& text);
    static void trace(int code, const std::string& text);
    static void trace(const std::stringstream& text);
    static void trace(int code, const std::stringstream& text);

    virtual ~Log();

protected:
    Log();
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    // Write one line of `level`; a subclass may send lines elsewhere.
    virtual void _log(level_t level, int code, const std::string& text);
    virtual void _log(level_t level, const std::string& text);

    // A message of any level, without the test of its flag bit.
    static void _ilog(level_t level, const std::string& text);
    static void _ilog(level_t level, int code, const std::string& text);
    static void _ilog(level_t level, const std::stringstream& text);
    static void _ilog(level_t level, int code, const std::stringstream& text);

private:
    static void message(level_t level, const std::string& text);
    static void message(level_t level, int code, const std::string& text);

    void _output(level_t level, const std::stringstream& body);
    void _log_timestamp();
    void _log_threadid();

    static Log* _instance;
    static int _flags;
    static const char* const _names[];
};

// Logs one message. The priority is taken from the level word of the prefix
// (LM_ERROR, LM_WARNING, LM_INFO, LM_DEBUG), so that word and priority always
// agree; a format without a known prefix logs at LM_ERROR. errno is kept.
TARNWICK_EXPORT void logMessage(const char* file, int line, const char* format, ...);

// Logs the failure message `text` (prefix included, no line end) in one of its
// two forms: followed by ": %m\n" when errno is not 0, by "\n" otherwise.
// errno is kept.
TARNWICK_EXPORT void logLastError(const char* file, int line, const char* text, ...);

// Logs one line at `priority` (an ACE_Log_Priority), for the texts that carry
// no level word of their own, such as the usage text. errno is kept.
TARNWICK_EXPORT void logAtPriority(const char* file, int line, int priority, const char* format,
                                   ...);

}  // namespace Tarnwick

#define TW_LOG_AT(priority, ...) \
    ::Tarnwick::logAtPriority(__FILE__, __LINE__, priority, __VA_ARGS__)
#define TW_LOG(...) ::Tarnwick::logMessage(__FILE__, __LINE__, __VA_ARGS__)
#define TW_LOG_ERRNO(...) ::Tarnwick::logLastError(__FILE__, __LINE__, __VA_ARGS__)
