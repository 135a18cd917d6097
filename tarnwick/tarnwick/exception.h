// The one exception class of the library.
#pragma once

#include <tarnwick/export.h>

#include <cstdint>
#include <exception>
#include <string>

namespace Tarnwick {

// Error numbers, named after the failures that use them.
enum errornumber_t {
    ERR_DEFAULT = 0,
    ERR_CONVERSION = 1,               // text or number conversion
    ERR_RECORD_FIELD = 6,             // result set records
    ERR_PROGRESS_INFORMATION = 8,     // progress documents
    ERR_LOG_PARSER = 10,              // log extraction
    ERR_REQUIRED_CONFIGURATION = 12,  // typed configuration: required value missing
    ERR_CONFIGFILE_WRITE = 14,        // configuration file: writing and update
    ERR_REQUIRED_PARAMETER = 16,      // sub-configuration: required parameter missing
    ERR_CONFIGFILE_READ = 18,         // configuration file: reading
    ERR_PARAMETER_NOT_PRESENT = 200,  // sub-configuration: parameter missing on use
    ERR_SUBCONFIGURATION = 400,       // misuse of the sub-configuration registry
    ERR_PROCESS_LOG_FILE = 500,       // managed process: log file or input
    ERR_PROCESS_COMMAND_LINE = 501,   // managed process: command line
    ERR_PROCESS_HANDLES = 502,        // managed process: standard handles
    ERR_PROCESS_SPAWN = 504,          // managed process: start
    ERR_PROCESS_ENVIRONMENT = 505,    // managed process: environment
    ERR_PROCESS_TERMINATE = 506       // managed process: termination
};

// Severities 1 to 8. Each decides the priority at which an exception logs
// itself; note that 3 is an error and 4 a warning. Any other value logs
// nothing.
enum eventseveritylevel_t {
    SEVERITY_DEBUG = 1,
    SEVERITY_INFO = 2,
    SEVERITY_ERROR = 3,
    SEVERITY_WARNING = 4,
    SEVERITY_SEVERE = 5,
    SEVERITY_CRITICAL = 6,
    SEVERITY_FATAL = 7,
    SEVERITY_FATAL_SYSTEM = 8
};

// A failure of the layers meant for client programs (configuration files,
// processes, result sets, log parsing, progress). It carries a number, a
// severity, a description, its source (usually the throwing class) and the
// time it was made, and writes its description to the log when made with
// arguments, so that a failure is logged even if nobody catches it.
class TARNWICK_EXPORT Exception : public std::exception {
public:
    // Number 0, severity 7, "Default Exception" from "Exception"; not logged.
    Exception();
    Exception(errornumber_t number, eventseveritylevel_t severity, const std::string& source,
              const std::string& description);
    // A null source or description counts as the empty text.
    Exception(errornumber_t number, eventseveritylevel_t severity, const char* source,
              const char* description);
    // Copies keep the date of their source and don't log again.
    Exception(const Exception& other);
    Exception& operator=(const Exception& other);
    ~Exception() override;

    // The description.
    const char* what() const noexcept override;
    const std::string& getDescription() const;
    const std::string& getSource() const;
    // Puts `text` in front of the description, without logging again.
    void prependToDescription(const std::string& text);
    errornumber_t getErrNo() const;
    eventseveritylevel_t getSeverity() const;
    // Seconds since the epoch at construction.
    int64_t getDate() const;

private:
    void logCreation() const;

    errornumber_t m_errorNumber;
    eventseveritylevel_t m_severity;
    std::string m_description;
    std::string m_source;
    int64_t m_date;
};

}  // namespace Tarnwick
