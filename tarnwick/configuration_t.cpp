#include <tarnwick/configuration.h>
#include <tarnwick/configuration_t.h>
#include <tarnwick/log.h>
#include <tarnwick/password.h>
#include <tarnwick/utf8.h>

#include <ace/Guard_T.h>

#include <cerrno>
#include <new>
#include <sstream>
#include <string>

namespace Tarnwick {

namespace {

const size_t kDecodedSize = 512;

template <typename T>
void extract(const std::string& text, T& out) {
    std::istringstream stream(text);
    stream >> out;
}

}  // namespace

int Configuration::lookupText(const wchar_t* key, std::string& text, bool encoded) {
    if (key == nullptr)
        return -1;
    auto const found = m_values.find(key);
    if (found == m_values.end())
        return -1;
    const wchar_t* const value = found->second->value();
    if (value == nullptr)
        return 0;
    char* const narrow = wcstoutf8_malloced(value);
    if (narrow == nullptr)
        return 0;
    text = narrow;
    utf8free(narrow);
    if (encoded) {
        char decoded[kDecodedSize];
        if (DecodePassword(text.c_str(), decoded, sizeof decoded) != -1)
            text = decoded;
    }
    return 1;
}

template <typename T>
int Configuration::getValue(const wchar_t* key, T& out, bool warn, bool encoded) {
    ACE_Guard<ACE_Recursive_Thread_Mutex> guard(m_lock);
    if (!guard.locked())
        return -1;
    try {
        std::string text;
        int const found = lookupText(key, text, encoded);
        if (found == -1) {
            if (warn)
                TW_LOG("%D WARN  (%t): Can not find '%W' in configuration\n", key);
            return -1;
        }
        if (found == 1)
            extract(text, out);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
    return 0;
}

template <typename T>
int Configuration::getValue(const char* key, T& out, bool warn, bool encoded) {
    ACE_Guard<ACE_Recursive_Thread_Mutex> guard(m_lock);
    if (!guard.locked())
        return -1;
    wchar_t* const wide = key != nullptr ? utf8towcs_malloced(key) : nullptr;
    int found = -1;
    try {
        std::string text;
        found = lookupText(wide, text, encoded);
        if (found == 1)
            extract(text, out);
    } catch (const std::bad_alloc&) {
        wcsfree(wide);
        errno = ENOMEM;
        return -1;
    }
    wcsfree(wide);
    if (found == -1) {
        if (warn)
            TW_LOG("%D WARN  (%t): Can not find '%C' in configuration\n", key);
        return -1;
    }
    return 0;
}

template int Configuration::getValue<bool>(const wchar_t* key, bool& out, bool warn, bool encoded);
template int Configuration::getValue<int>(const wchar_t* key, int& out, bool warn, bool encoded);
template int Configuration::getValue<unsigned int>(const wchar_t* key, unsigned int& out, bool warn,
                                                   bool encoded);
template int Configuration::getValue<std::string>(const char* key, std::string& out, bool warn,
                                                  bool encoded);
template int Configuration::getValue<int>(const char* key, int& out, bool warn, bool encoded);

}  // namespace Tarnwick
