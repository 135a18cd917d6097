#include <tarnwick/exception.h>
#include <tarnwick/log.h>

#include <ctime>

namespace Tarnwick {

Exception::Exception()
    : m_errorNumber(ERR_DEFAULT),
      m_severity(SEVERITY_FATAL),
      m_description("Default Exception"),
      m_source("Exception"),
      m_date(static_cast<int64_t>(std::time(nullptr))) {}

Exception::Exception(errornumber_t number, eventseveritylevel_t severity, const std::string& source,
                     const std::string& description)
    : m_errorNumber(number),
      m_severity(severity),
      m_description(description),
      m_source(source),
      m_date(static_cast<int64_t>(std::time(nullptr))) {
    logCreation();
}

Exception::Exception(errornumber_t number, eventseveritylevel_t severity, const char* source,
                     const char* description)
    : Exception(number, severity, std::string(source != nullptr ? source : ""),
                std::string(description != nullptr ? description : "")) {}

Exception::Exception(const Exception& other) = default;

Exception& Exception::operator=(const Exception& other) {
    if (this != &other) {
        m_errorNumber = other.m_errorNumber;
        m_severity = other.m_severity;
        m_description = other.m_description;
        m_source = other.m_source;
        m_date = other.m_date;
    }
    return *this;
}

Exception::~Exception() = default;

const char* Exception::what() const noexcept {
    return m_description.c_str();
}
const std::string& Exception::getDescription() const {
    return m_description;
}
const std::string& Exception::getSource() const {
    return m_source;
}

void Exception::prependToDescription(const std::string& text) {
    m_description.insert(0, text);
}

errornumber_t Exception::getErrNo() const {
    return m_errorNumber;
}
eventseveritylevel_t Exception::getSeverity() const {
    return m_severity;
}
int64_t Exception::getDate() const {
    return m_date;
}

void Exception::logCreation() const {
    // The description is UTF-8 and printed as it stands; the level word
    // follows the severity.
    switch (m_severity) {
        case SEVERITY_DEBUG:
            TW_LOG("%D DEBUG (%t): %C\n", m_description.c_str());
            break;
        case SEVERITY_INFO:
            TW_LOG("%D INFO  (%t): %C\n", m_description.c_str());
            break;
        case SEVERITY_WARNING:
            TW_LOG("%D WARN  (%t): %C\n", m_description.c_str());
            break;
        case SEVERITY_ERROR:
        case SEVERITY_SEVERE:
        case SEVERITY_CRITICAL:
        case SEVERITY_FATAL:
        case SEVERITY_FATAL_SYSTEM:
            TW_LOG("%D ERROR (%t): %C\n", m_description.c_str());
            break;
        default:
            break;
    }
}

}  // namespace Tarnwick
