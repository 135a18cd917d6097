#include <tarnwick/configuration.h>
#include <tarnwick/exception.h>
#include <tarnwick/twconfiguration.h>
#include <tarnwick/utf8.h>

#include <vector>

namespace Tarnwick {

namespace {

const char* const SOURCE = "TWConfiguration";

// The narrow form of a key for a message: UTF-8, with '?' for each
// character that has none.
std::string keyText(const std::wstring& key) {
    std::string out;
    if (wcstoutf8(key.c_str(), out))
        return out;
    out.clear();
    for (wchar_t const c : key) {
        wchar_t const one[2] = {c, L'\0'};
        std::string piece;
        out += wcstoutf8(one, piece) ? piece : std::string("?");
    }
    return out;
}

[[noreturn]] void notConvertible(const std::string& key) {
    throw Exception(ERR_CONVERSION, SEVERITY_SEVERE, SOURCE,
                    "Could not convert value of key '" + key + "' to UTF8.");
}

[[noreturn]] void nullArgument(const char* operation, const char* argument) {
    throw Exception(
        ERR_SUBCONFIGURATION, SEVERITY_FATAL, SOURCE,
        std::string("NULL passed to ") + operation + " for argument '" + argument + "'");
}

}  // namespace

TWConfiguration::TWConfiguration() {}

TWConfiguration::~TWConfiguration() {}

void TWConfiguration::setValue(const std::string& key, const TWConfArgument& value) {
    m_values[key] = value;
}

void TWConfiguration::setValue(const std::string& key, const std::string& value) {
    m_values[key] = TWConfArgument(true, value, false);
}

void TWConfiguration::loadFromTarnwickConfiguration(Configuration* config) {
    if (config == nullptr)
        nullArgument("loadFromTarnwickConfiguration", "config");
    for (const std::wstring& key : config->keys()) {
        std::string const narrowKey = keyText(key);
        std::string value;
        const wchar_t* const wide = config->asString(key.c_str());
        if (wide != nullptr) {
            char* const converted = wcstoutf8_malloced(wide);
            if (converted == nullptr)
                notConvertible(narrowKey);
            value = converted;
            utf8free(converted);
        }
        m_values[narrowKey] = TWConfArgument(true, value, false);
    }
}

void TWConfiguration::loadFromTarnwickConfiguration(Configuration* config, const std::string& key,
                                                    bool required) {
    if (config == nullptr)
        nullArgument("loadFromTarnwickConfiguration", "config");
    // A key that is no UTF-8 can't name a setting: it counts as absent.
    std::wstring wideKey;
    bool const present = utf8towcs(key.c_str(), wideKey) && config->hasKey(wideKey.c_str());
    if (!present && required)
        throw Exception(ERR_REQUIRED_CONFIGURATION, SEVERITY_SEVERE, SOURCE,
                        "Required configuration value '" + key + "' not supplied.");
    std::string value;
    if (present) {
        const wchar_t* const wide = config->asString(wideKey.c_str());
        if (wide != nullptr && !wcstoutf8(wide, value))
            notConvertible(key);
    }
    m_values[key] = TWConfArgument(true, value, !required);
}

void TWConfiguration::registerSubConfiguration(boost::shared_ptr<TWSubConfiguration> sub,
                                               bool reload) {
    if (!sub)
        nullArgument("registerSubConfiguration", "subconfiguration");
    boost::weak_ptr<TWSubConfiguration> const entry(sub);
    m_subConfigurations.insert(entry);
    if (reload)
        reloadSubConfiguration(entry);
}

void TWConfiguration::reloadSubConfiguration(boost::weak_ptr<TWSubConfiguration> sub) {
    auto const found = m_subConfigurations.find(sub);
    boost::shared_ptr<TWSubConfiguration> const held =
        found != m_subConfigurations.end() ? found->lock()
                                           : boost::shared_ptr<TWSubConfiguration>();
    if (!held)
        throw Exception(ERR_SUBCONFIGURATION, SEVERITY_FATAL, SOURCE,
                        "TWSubConfiguration reload requested for a non-registered "
                        "TWSubConfiguration");
    held->reload(m_values);
}

void TWConfiguration::reloadTWSubConfigurations() {
    for (const boost::weak_ptr<TWSubConfiguration>& entry : m_subConfigurations) {
        boost::shared_ptr<TWSubConfiguration> const held = entry.lock();
        if (held)
            held->reload(m_values);
    }
}

}  // namespace Tarnwick
