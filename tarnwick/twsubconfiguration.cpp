#include <tarnwick/exception.h>
#include <tarnwick/twsubconfiguration.h>

#include <ace/Guard_T.h>

namespace Tarnwick {

namespace {

const char* const SOURCE = "TWSubConfiguration";

// ACE_Thread_Mutex is a plain mutex: its read and write acquisitions both
// exclude every other holder.
typedef ACE_Read_Guard<ACE_Thread_Mutex> ReadGuard;
typedef ACE_Write_Guard<ACE_Thread_Mutex> WriteGuard;

[[noreturn]] void notPresent(const std::string& key, const char* operation) {
    throw Exception(ERR_PARAMETER_NOT_PRESENT, SEVERITY_FATAL, SOURCE,
                    "Parameter " + key + " not present for " + operation);
}

}  // namespace

TWSubConfiguration::TWSubConfiguration() {}

TWSubConfiguration::~TWSubConfiguration() {}

void TWSubConfiguration::registerKey(const std::string& key, bool optional) {
    WriteGuard guard(m_lock);
    m_arguments[key] = TWConfArgument(false, std::string(), optional);
    m_texts.erase(key);
}

bool TWSubConfiguration::keyExists(const std::string& key) const {
    ReadGuard guard(m_lock);
    auto const found = m_arguments.find(key);
    return found != m_arguments.end() && found->second.m_present;
}

void TWSubConfiguration::validateKeyExists(const std::string& key) const {
    if (!keyExists(key))
        throw Exception(ERR_REQUIRED_PARAMETER, SEVERITY_FATAL, SOURCE,
                        "Required parameter " + key + " not present.");
}

const std::string& TWSubConfiguration::stableText(const std::string& key,
                                                  const std::string& value) const {
    return *m_texts[key].insert(value).first;
}

const std::string& TWSubConfiguration::getArgString(const std::string& key) const {
    ReadGuard guard(m_lock);
    auto const found = m_arguments.find(key);
    if (found == m_arguments.end())
        notPresent(key, "getArg");
    return stableText(key, found->second.m_value);
}

std::map<std::string, std::string> TWSubConfiguration::getArguments() const {
    std::map<std::string, std::string> out;
    ReadGuard guard(m_lock);
    for (const auto& entry : m_arguments) {
        if (entry.second.m_present)
            out.emplace_hint(out.end(), entry.first, entry.second.m_value);
    }
    return out;
}

void TWSubConfiguration::setArg(const std::string& key, const std::string& value) {
    WriteGuard guard(m_lock);
    auto const found = m_arguments.find(key);
    if (found == m_arguments.end())
        notPresent(key, "setArg");
    found->second = TWConfArgument(true, value, false);
}

void TWSubConfiguration::reload(const TWConfArguments& values) {
    WriteGuard guard(m_lock);
    for (auto& entry : m_arguments) {
        auto const supplied = values.find(entry.first);
        if (supplied != values.end()) {
            entry.second.m_value = supplied->second.m_value;
            entry.second.m_present = true;
        } else if (!entry.second.m_optional) {
            notPresent(entry.first, "reload");
        }
    }
}

}  // namespace Tarnwick
