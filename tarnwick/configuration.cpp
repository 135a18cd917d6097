#include <tarnwick/configfile.h>
#include <tarnwick/configuration.h>
#include <tarnwick/log.h>
#include <tarnwick/path.h>
#include <tarnwick/registry.h>
#include <tarnwick/utf8.h>

#include <ace/ACE.h>
#include <ace/Guard_T.h>
#include <ace/Log_Msg.h>
#include <ace/OS_NS_Thread.h>
#include <ace/OS_NS_stdlib.h>
#include <ace/Singleton.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <new>
#include <ostream>
#include <set>

namespace Tarnwick {

const Setting::Importer APPLICATION_SETTINGS[] = {
    {"V", nullptr, nullptr, nullptr, nullptr, 0},
    {"version", nullptr, nullptr, "Returns the version of this application.", nullptr, 0},
    {"c", nullptr, nullptr, nullptr, nullptr, 0},
    {"configfile", nullptr, nullptr, "Override CD Registry configuration file with PATH.", "PATH",
     SETTING_ARGUMENT},
    {"d", nullptr, nullptr, nullptr, nullptr, 0},
    {"debug", nullptr, nullptr, "Enables debugging output.", nullptr, 0},
    {"h", nullptr, nullptr, nullptr, nullptr, 0},
    {"help", nullptr, nullptr, "Display this help and exit.", nullptr, 0},
    {"q", nullptr, nullptr, nullptr, nullptr, 0},
    {"quiet", nullptr, nullptr, "Be less verbose.", nullptr, 0},
    {nullptr, nullptr, nullptr, nullptr, nullptr, 0},
};

const Setting::Importer PATH_SETTINGS[] = {
    {"log", "paths", "Agent", "Log output to PATH", "PATH", SETTING_ARGUMENT},
    {"var", "paths", "Agent", "Application var directory.", "DIR",
     SETTING_REQUIRED | SETTING_ARGUMENT},
    {"pid", "paths", "Agent", "Application pid file directory.", "DIR",
     SETTING_REQUIRED | SETTING_ARGUMENT},
    {"rtdir", "paths", "Agent", "Directory containing routing tables.", "DIR",
     SETTING_REQUIRED | SETTING_ARGUMENT},
    {"temp", "paths", "Agent", "Location for temp files.", "DIR",
     SETTING_REQUIRED | SETTING_ARGUMENT},
    {nullptr, nullptr, nullptr, nullptr, nullptr, 0},
};

const Setting::Importer WEBSERVICE_SETTINGS[] = {
    {"timeout", "webservices", "Agent", "timeout webservice calls after INT seconds", "INT",
     SETTING_ARGUMENT},
    {"connect_timeout", "webservices", "Agent",
     "timeout webservice call connects after INT seconds.", "INT", SETTING_ARGUMENT},
    {"start_wait_interval", "webservices", "Agent", "minimum wait time after 503 response", "INT",
     SETTING_ARGUMENT},
    {"end_wait_interval", "webservices", "Agent", "maximum wait time after 503 response", "INT",
     SETTING_ARGUMENT},
    {nullptr, nullptr, nullptr, nullptr, nullptr, 0},
};

const Setting::Importer SECURITY_SETTINGS[] = {
    {"keydir", "paths", "Agent", "Location of SSL certificates and keys.", "PATH",
     SETTING_REQUIRED | SETTING_ARGUMENT},
    {"nossl", nullptr, nullptr, "Disable use of SSL but use plain text sockets instead (insecure)",
     nullptr, 0},
    {nullptr, nullptr, nullptr, nullptr, nullptr, 0},
};

const Setting::Importer DAEMON_SETTINGS[] = {
    {"stop", nullptr, nullptr, "Stops a running instance of this application.", nullptr,
     SETTING_ACTION},
    {"reload", nullptr, nullptr, "Reload a running instance of this application.", nullptr,
     SETTING_ACTION},
    {"check", nullptr, nullptr, "Tests if there is an instance of this application running.",
     nullptr, SETTING_ACTION},
    {nullptr, nullptr, nullptr, nullptr, nullptr, 0},
};

const Setting::Importer SERVICE_SETTINGS[] = {
    {"install", nullptr, nullptr, "Install this application as an NT service.", nullptr,
     SETTING_ACTION},
    {"remove", nullptr, nullptr, "Remove the service from the system.", nullptr, SETTING_ACTION},
    {"start", nullptr, nullptr, "Start the service.", nullptr, SETTING_ACTION},
    {"isinstalled", nullptr, nullptr,
     "Check if this application is installed as an NT service. Exit code 0 if so, 7 if not.",
     nullptr, SETTING_ACTION},
    {"reload", nullptr, nullptr, "Restart/Reload the service.", nullptr, SETTING_ACTION},
    {"restart", nullptr, nullptr, "Restart/Reload the service.", nullptr, SETTING_ACTION},
    {nullptr, nullptr, nullptr, nullptr, nullptr, 0},
};

namespace {

typedef ACE_Guard<ACE_Recursive_Thread_Mutex> Guard;

const int kUsageColumn = 30;

void replaceText(wchar_t*& field, const wchar_t* text) {
    wchar_t* const copy = text != nullptr ? ACE::strnew(text) : nullptr;
    ACE::strdelete(field);
    field = copy;
}

std::wstring keyOf(const Setting* setting) {
    const wchar_t* const name = setting->long_option();
    return name != nullptr ? std::wstring(name) : std::wstring();
}

// What follows the last '/' of `path`.
const wchar_t* baseName(const wchar_t* path) {
    if (path == nullptr)
        return nullptr;
    const wchar_t* const slash = std::wcsrchr(path, L'/');
    return slash != nullptr ? slash + 1 : path;
}

// The readers of the application's texts, installed from above.
Configuration::ApplicationReaders g_applicationReaders = {nullptr, nullptr, nullptr, nullptr};

// What `reader` gives for `application`; null without either.
const wchar_t* readApplication(const wchar_t* (*reader)(Application*), Application* application) {
    return application != nullptr && reader != nullptr ? reader(application) : nullptr;
}

const wchar_t* binaryOf(Application* application) {
    return baseName(readApplication(g_applicationReaders.binaryname, application));
}

// Appends `text` to the line held in `buffer` of `capacity` characters, as
// far as it fits.
void appendText(wchar_t* buffer, size_t capacity, size_t& length, const wchar_t* text) {
    if (text == nullptr)
        text = L"(null)";
    for (; *text != L'\0' && length + 1 < capacity; ++text)
        buffer[length++] = *text;
    buffer[length] = L'\0';
}

// Sets a text field of `setting` to the wide form of `text` (null leaves it
// alone). False with errno when it can't be converted or stored.
bool importText(Setting& setting, Setting& (Setting::*set)(const wchar_t*),
                const wchar_t* (Setting::*get)() const, const char* text) {
    if (text == nullptr)
        return true;
    wchar_t* const wide = utf8towcs_malloced(text);
    if (wide == nullptr)
        return false;
    (setting.*set)(wide);
    wcsfree(wide);
    if ((setting.*get)() == nullptr) {
        errno = ENOMEM;
        return false;
    }
    return true;
}

// Ends the process after --help or --version. The store's lock is given up
// first, every level that this thread holds: the exit handlers destroy the
// store, and other threads may still wait for it.
[[noreturn]] void exitNow(Guard& guard, ACE_Recursive_Thread_Mutex& lock) {
    guard.release();
    while (lock.get_nesting_level() > 0 &&
           ACE_OS::thr_equal(lock.get_thread_id(), ACE_OS::thr_self()))
        lock.release();
    ACE_Log_Msg* const log = ACE_Log_Msg::instance();
    if (log->msg_ostream() != nullptr)
        log->msg_ostream()->flush();
    std::fflush(nullptr);
    ACE_OS::exit(0);
    ::exit(0);
}

// The files opened by one run of read_config_files.
struct FileCache {
    FileCache() : override(nullptr) {}
    ~FileCache() {
        delete override;
        for (auto& entry : files)
            delete entry.second;
    }
    FileCache(const FileCache&) = delete;
    FileCache& operator=(const FileCache&) = delete;

    ConfigFile* find(const std::wstring& key) const {
        auto const found = files.find(key);
        return found != files.end() ? found->second : nullptr;
    }
    // Takes `file`, in the place of a file entered before under `key`.
    void enter(const std::wstring& key, ConfigFile* file) {
        auto found = files.find(key);
        if (found == files.end()) {
            try {
                found = files.insert(std::make_pair(key, nullptr)).first;
            } catch (...) {
                delete file;
                throw;
            }
        }
        if (found->second != file)
            delete found->second;
        found->second = file;
    }

    std::map<std::wstring, ConfigFile*> files;
    ConfigFile* override;
};

// The result of opening a file of read_config_files.
enum OpenResult { OPENED, OPEN_FAILED, NO_MEMORY };

OpenResult openFile(const ACE_WString& path, ConfigFile*& file) {
    file = new (std::nothrow) ConfigFile(path.c_str());
    if (file == nullptr) {
        errno = ENOMEM;
        return NO_MEMORY;
    }
    if (file->open() == -1) {
        delete file;
        file = nullptr;
        return OPEN_FAILED;
    }
    return OPENED;
}

}  // namespace

// ---------------------------------------------------------------- Setting

Setting::Setting()
    : m_flags(0),
      m_short_option(0),
      m_product(nullptr),
      m_section(nullptr),
      m_long_option(nullptr),
      m_description(nullptr),
      m_value(nullptr),
      m_keyword(nullptr),
      m_isSet(false) {}

Setting::Setting(const wchar_t* long_option, wchar_t short_option, const wchar_t* section,
                 const wchar_t* description, int flags)
    : Setting() {
    this->long_option(long_option);
    this->short_option(short_option);
    this->section(section);
    this->description(description);
    this->flags(flags);
}

Setting::~Setting() {
    ACE::strdelete(m_product);
    ACE::strdelete(m_section);
    ACE::strdelete(m_long_option);
    ACE::strdelete(m_description);
    ACE::strdelete(m_value);
    ACE::strdelete(m_keyword);
}

int Setting::validate() {
    return 0;
}

Setting& Setting::long_option(const wchar_t* text) {
    replaceText(m_long_option, text);
    return *this;
}

Setting& Setting::section(const wchar_t* text) {
    replaceText(m_section, text);
    return *this;
}

Setting& Setting::description(const wchar_t* text) {
    replaceText(m_description, text);
    return *this;
}

Setting& Setting::keyword(const wchar_t* text) {
    replaceText(m_keyword, text);
    return *this;
}

Setting& Setting::product(const wchar_t* text) {
    replaceText(m_product, text);
    return *this;
}

Setting& Setting::short_option(wchar_t option) {
    m_short_option = option;
    return *this;
}

Setting& Setting::flags(int bits) {
    m_flags |= bits;
    return *this;
}

void Setting::value(const wchar_t* text) {
    replaceText(m_value, text);
    m_isSet = m_value != nullptr;
}

int Setting::hasFlag(int mask) const {
    return (m_flags & mask) != 0 ? 1 : 0;
}

int Setting::Create(const wchar_t* long_option, wchar_t short_option, const wchar_t* section,
                    const wchar_t* description, int flags) {
    Configuration* const configuration = getConfigSingleton();
    if (configuration == nullptr)
        return -1;
    Setting* const setting =
        new (std::nothrow) Setting(long_option, short_option, section, description, flags);
    if (setting == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    Guard guard(configuration->lock());
    if (!guard.locked()) {
        delete setting;
        return 0;
    }
    if (configuration->register_setting(setting) == -1) {
        errno = ENOMEM;
        return -1;
    }
    return 0;
}

int Setting::updateFrom(ConfigFile* file) {
    if (file == nullptr || m_section == nullptr || m_long_option == nullptr ||
        !file->hasSection(m_section))
        return -1;
    ACE_WString const text = file->get(m_section, m_long_option);
    if (text.length() == 0)
        return -1;
    value(text.c_str());
    flags(SETTING_FROM_FILE);
    return 0;
}

void Setting::dump() const {
    wchar_t const option[2] = {m_short_option, L'\0'};
    TW_LOG("%D DEBUG (%t): %W / %W / %W / %W\n", m_long_option, option, m_description, m_section);
}

// ---------------------------------------------------------------- Configuration

Configuration::Configuration()
    : m_action(nullptr),
      m_application(nullptr),
      m_parser(nullptr),
      m_ok(false),
      m_useDefaults(true),
      m_useWebservices(true) {}

Configuration::~Configuration() {
    releaseParser();
    m_values.clear();
    // Every registered setting is owned, also a second one of a long option
    // that the map doesn't hold.
    std::set<Setting*> owned;
    for (Setting* setting : m_registered)
        owned.insert(setting);
    for (auto& entry : m_settings)
        owned.insert(entry.second);
    m_registered.clear();
    m_settings.clear();
    for (Setting* setting : owned)
        delete setting;
}

void Configuration::releaseParser() {
    delete m_parser;
    m_parser = nullptr;
    for (char* text : m_texts)
        utf8free(text);
    m_texts.clear();
    m_argv.clear();
}

int Configuration::register_setting(Setting* setting) {
    if (setting == nullptr) {
        errno = EINVAL;
        return -1;
    }
    Guard guard(m_lock);
    if (!guard.locked()) {
        delete setting;
        return -1;
    }
    try {
        m_registered.reserve(m_registered.size() + 1);
        m_settings.insert(std::make_pair(keyOf(setting), setting));
    } catch (const std::bad_alloc&) {
        delete setting;
        errno = ENOMEM;
        return -1;
    }
    m_registered.push_back(setting);
    return 0;
}

int Configuration::import(const Setting::Importer* rows) {
    Guard guard(m_lock);
    if (!guard.locked())
        return -1;
    if (rows == nullptr)
        return 0;
    for (const Setting::Importer* row = rows; row->long_option != nullptr; ++row) {
        wchar_t option = 0;
        if (row->description == nullptr) {
            option = static_cast<unsigned char>(row->long_option[0]);
            ++row;
            if (row->long_option == nullptr)
                break;
        }
        Setting* const setting = new (std::nothrow) Setting();
        if (setting == nullptr) {
            errno = ENOMEM;
            return -1;
        }
        if (!importText(*setting, &Setting::long_option, &Setting::long_option, row->long_option) ||
            !importText(*setting, &Setting::description, &Setting::descr, row->description) ||
            !importText(*setting, &Setting::section, &Setting::section, row->section) ||
            !importText(*setting, &Setting::product, &Setting::product, row->product) ||
            !importText(*setting, &Setting::keyword, &Setting::keyword, row->keyword)) {
            delete setting;
            return -1;
        }
        setting->flags(row->flags);
        setting->short_option(option);
        if (register_setting(setting) == -1)
            return -1;
    }
    return 0;
}

int Configuration::open(Application* application, int argc, wchar_t** const argv) {
    Guard guard(m_lock);
    if (!guard.locked())
        return -1;
    m_application = application;
    releaseParser();
    if (argv == nullptr || argc < 0)
        argc = 0;

    try {
        m_texts.reserve(static_cast<size_t>(argc) + m_settings.size());
        m_argv.assign(static_cast<size_t>(argc) + 1, nullptr);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
    for (int i = 0; i < argc; ++i) {
        char* const text = wcstoutf8_malloced(argv[i] != nullptr ? argv[i] : L"");
        if (text == nullptr) {
            if (errno != ENOMEM)
                TW_LOG("%D ERROR (%t): Error while parsing command line: %m\n");
            return -1;
        }
        m_texts.push_back(text);
        m_argv[static_cast<size_t>(i)] = text;
    }

    m_parser = new (std::nothrow)
        ACE_Get_Opt(argc, m_argv.data(), "", argc > 0 ? 1 : 0, 0, ACE_Get_Opt::PERMUTE_ARGS, 0);
    if (m_parser == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    m_parser->opterr = 1;

    for (auto& entry : m_settings) {
        Setting* const setting = entry.second;
        if (setting == nullptr || entry.first.empty())
            continue;
        char* const name = wcstoutf8_malloced(entry.first.c_str());
        if (name == nullptr)
            return -1;
        m_texts.push_back(name);
        ACE_Get_Opt::OPTION_ARG_MODE const mode =
            setting->hasFlag(SETTING_ARGUMENT) ? ACE_Get_Opt::ARG_REQUIRED : ACE_Get_Opt::NO_ARG;
        int const result =
            setting->short_option() != 0
                ? m_parser->long_option(name, static_cast<int>(setting->short_option()), mode)
                : m_parser->long_option(name, mode);
        if (result == -1)
            return -1;
    }

    try {
        for (;;) {
            int const option = (*m_parser)();
            if (option == EOF)
                break;
            if (option == ':' || option == '?') {
                errno = EINVAL;
                TW_LOG("%D ERROR (%t): Error while parsing command line: %m\n");
                return -1;
            }
            Setting* setting = nullptr;
            if (option == 0) {
                const char* const name = m_parser->last_option();
                wchar_t* const wide = utf8towcs_malloced(name != nullptr ? name : "");
                if (wide != nullptr) {
                    auto const found = m_settings.find(wide);
                    if (found != m_settings.end())
                        setting = found->second;
                }
                wcsfree(wide);
                if (setting == nullptr) {
                    TW_LOG("%D ERROR (%t): Setting not found: %C\n", name);
                    return -1;
                }
            } else {
                for (auto& entry : m_settings) {
                    if (entry.second != nullptr &&
                        static_cast<int>(entry.second->short_option()) == option) {
                        setting = entry.second;
                        break;
                    }
                }
                if (setting == nullptr)
                    continue;
            }
            if (setting->hasFlag(SETTING_ARGUMENT)) {
                const char* const argument = m_parser->opt_arg();
                wchar_t* const wide = argument != nullptr ? utf8towcs_malloced(argument) : nullptr;
                setting->value(wide);
                wcsfree(wide);
            }
            if (setting->hasFlag(SETTING_ACTION))
                m_action = setting;
            setting->flags(SETTING_FROM_COMMANDLINE);
            m_values.insert(std::make_pair(keyOf(setting), setting));
        }
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }

    if (m_values.count(L"help") != 0) {
        usage();
        exitNow(guard, m_lock);
    }
    if (m_values.count(L"version") != 0) {
        showVersion();
        exitNow(guard, m_lock);
    }
    if (application != nullptr && read_config_files() == -1)
        return -1;
    return validate();
}

int Configuration::open(const wchar_t* path) {
    Guard guard(m_lock);
    if (!guard.locked())
        return -1;
    if (!setKeyVal(L"configfile", path))
        return -1;
    if (read_config_files() == -1)
        return -1;
    return validate();
}

int Configuration::reload() {
    Guard guard(m_lock);
    if (!guard.locked())
        return -1;
    if (m_application == nullptr)
        return 0;
    for (Setting* setting : m_registered) {
        if (!setting->hasFlag(SETTING_FROM_FILE))
            continue;
        auto const found = m_values.find(keyOf(setting));
        if (found == m_values.end())
            continue;
        found->second->value(nullptr);
        m_values.erase(found);
    }
    if (read_config_files() == -1)
        return -1;
    return validate();
}

void Configuration::usage() {
    Guard guard(m_lock);
    if (!guard.locked())
        return;
    showVersion();
    TW_LOG_AT(LM_INFO, "Usage: %W [options]\n\n", binaryOf(m_application));

    std::vector<std::string> sections;
    std::vector<std::string> sectionOf(m_registered.size());
    try {
        for (size_t i = 0; i < m_registered.size(); ++i) {
            const wchar_t* const section = m_registered[i]->section();
            if (section != nullptr && wcstoutf8(section, sectionOf[i]))
                sections.push_back(sectionOf[i]);
        }
    } catch (const std::bad_alloc&) {
        return;
    }
    std::sort(sections.begin(), sections.end());
    sections.erase(std::unique(sections.begin(), sections.end()), sections.end());

    wchar_t line[512];
    bool actions = false;
    auto print = [&](Setting* setting) {
        if (setting->hasFlag(SETTING_ACTION)) {
            actions = true;
            return;
        }
        build_usage_line(line, sizeof line, setting);
        TW_LOG_AT(LM_INFO, "%W\n", line);
    };
    for (Setting* setting : m_registered) {
        if (setting->section() == nullptr)
            print(setting);
    }
    for (const std::string& section : sections) {
        TW_LOG_AT(LM_INFO, "\n[%C]\n", section.c_str());
        for (size_t i = 0; i < m_registered.size(); ++i) {
            if (m_registered[i]->section() != nullptr && sectionOf[i] == section)
                print(m_registered[i]);
        }
    }
    if (!actions)
        return;
    TW_LOG_AT(LM_INFO, "\n[actions]\n");
    for (Setting* setting : m_registered) {
        if (!setting->hasFlag(SETTING_ACTION))
            continue;
        build_usage_line(line, sizeof line, setting);
        TW_LOG_AT(LM_INFO, "%W\n", line);
    }
}

void Configuration::showVersion() {
    Guard guard(m_lock);
    if (!guard.locked())
        return;
    const wchar_t* description = nullptr;
    const wchar_t* version = nullptr;
    if (m_application != nullptr) {
        description = readApplication(g_applicationReaders.description, m_application);
        version = readApplication(g_applicationReaders.version, m_application);
    }
    TW_LOG_AT(LM_INFO, "This is %W, %W, version %W\n", binaryOf(m_application), description,
              version);
}

void Configuration::build_usage_line(wchar_t* buffer, int64_t size, Setting* setting) {
    Guard guard(m_lock);
    if (!guard.locked() || buffer == nullptr || size < static_cast<int64_t>(sizeof(wchar_t)))
        return;
    size_t const capacity = static_cast<size_t>(size) / sizeof(wchar_t);
    buffer[0] = L'\0';
    if (setting == nullptr)
        return;
    wchar_t const option = setting->short_option();
    wchar_t const low = static_cast<wchar_t>(option & 0xFF);
    int const opened = (option == 0 || (low >= L'0' && low <= L'9'))
                           ? std::swprintf(buffer, capacity, L"      ")
                           : std::swprintf(buffer, capacity, L" -%lc,  ", option);
    if (opened < 0) {
        buffer[0] = L'\0';
        return;
    }
    size_t length = static_cast<size_t>(opened);
    appendText(buffer, capacity, length, L"--");
    appendText(buffer, capacity, length, setting->long_option());
    if (setting->hasFlag(SETTING_ARGUMENT)) {
        appendText(buffer, capacity, length, L"=");
        appendText(buffer, capacity, length,
                   setting->keyword() != nullptr ? setting->keyword() : L"ARG");
    }
    while (length < static_cast<size_t>(kUsageColumn) && length + 1 < capacity)
        buffer[length++] = L' ';
    buffer[length] = L'\0';
    appendText(buffer, capacity, length, setting->descr());
}

bool Configuration::hasAction() {
    Guard guard(m_lock);
    return guard.locked() && m_action != nullptr;
}

const wchar_t* Configuration::actionKey() {
    Guard guard(m_lock);
    if (!guard.locked() || m_action == nullptr)
        return nullptr;
    return m_action->long_option();
}

int Configuration::productConfigfilePath(const wchar_t* product, ACE_WString& out) {
    Guard guard(m_lock);
    if (!guard.locked() || product == nullptr)
        return -1;
    Registry registry;
    if (registry.open(product, nullptr) == -1)
        return -1;
    out = registry.configfile();
    return out.length() != 0 ? 0 : -1;
}

int Configuration::read_config_files() {
    Guard guard(m_lock);
    if (!guard.locked())
        return -1;
    try {
        const wchar_t* const override = asString(L"configfile");
        FileCache cache;
        for (auto& entry : m_settings) {
            Setting* const setting = entry.second;
            if (setting == nullptr || !setting->hasFlag(SETTING_ARGUMENT) ||
                setting->hasFlag(SETTING_NO_FILE | SETTING_ACTION) || setting->section() == nullptr)
                continue;
            if (setting->value() != nullptr && *setting->value() != L'\0')
                continue;

            if (override != nullptr) {
                if (cache.override == nullptr) {
                    switch (openFile(override, cache.override)) {
                        case OPENED:
                            break;
                        case OPEN_FAILED:
                        case NO_MEMORY:
                            return -1;
                    }
                }
                if (setting->updateFrom(cache.override) == -1)
                    continue;
            } else {
                const wchar_t* product = setting->product();
                if (product == nullptr && m_application != nullptr)
                    product = readApplication(g_applicationReaders.name, m_application);
                if (product == nullptr)
                    continue;
                std::wstring const key(product);

                ConfigFile* main = cache.find(key);
                if (main == nullptr) {
                    ACE_WString path;
                    productConfigfilePath(product, path);
                    if (Path::IsFile(path)) {
                        OpenResult const result = openFile(path, main);
                        if (result == NO_MEMORY)
                            return -1;
                        if (result == OPEN_FAILED)
                            continue;
                        cache.enter(key, main);
                    }
                }

                std::wstring const localKey = key + L".local";
                ConfigFile* local = cache.find(localKey);
                if (local == nullptr) {
                    ACE_WString path;
                    productConfigfilePath(product, path);
                    path += L".local";
                    if (Path::IsFile(path)) {
                        OpenResult const result = openFile(path, local);
                        if (result == NO_MEMORY)
                            return -1;
                        if (result == OPEN_FAILED)
                            continue;
                        cache.enter(localKey, local);
                    }
                    path += L".local";
                    if (Path::IsFile(path)) {
                        // The message tells the error of this open only.
                        errno = 0;
                        ConfigFile* replacement = nullptr;
                        OpenResult const result = openFile(path, replacement);
                        if (result == NO_MEMORY)
                            return -1;
                        if (result == OPEN_FAILED) {
                            TW_LOG_ERRNO("%D ERROR (%t): Can not open configuration file");
                            return -1;
                        }
                        cache.enter(localKey, replacement);
                        local = replacement;
                    }
                }

                if (setting->updateFrom(local) == -1 && setting->updateFrom(main) == -1)
                    continue;
            }
            m_values.insert(std::make_pair(entry.first, setting));
        }
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
    return 0;
}

int Configuration::validate() {
    Guard guard(m_lock);
    if (!guard.locked())
        return -1;
    m_ok = false;
    for (auto& entry : m_settings) {
        Setting* const setting = entry.second;
        if (setting == nullptr || !setting->hasFlag(SETTING_REQUIRED) ||
            m_values.count(entry.first) != 0)
            continue;
        if (setting->section() != nullptr) {
            TW_LOG("%D ERROR (%t): A required option is missing: %W - %W\n", setting->section(),
                   setting->long_option());
        } else {
            TW_LOG("%D ERROR (%t): A required option is missing: %W\n", setting->long_option());
        }
        return -1;
    }
    m_ok = true;
    return 0;
}

const wchar_t* Configuration::asString(const wchar_t* key) {
    Guard guard(m_lock);
    if (!guard.locked() || key == nullptr)
        return nullptr;
    auto const found = m_values.find(key);
    return found != m_values.end() ? found->second->value() : nullptr;
}

bool Configuration::hasKey(const wchar_t* key) {
    Guard guard(m_lock);
    if (!guard.locked() || key == nullptr)
        return false;
    return m_values.count(key) != 0;
}

std::vector<std::wstring> Configuration::keys() {
    std::vector<std::wstring> out;
    Guard guard(m_lock);
    if (!guard.locked())
        return out;
    out.reserve(m_settings.size());
    for (const auto& entry : m_settings)
        out.push_back(entry.first);
    return out;
}

bool Configuration::keyEquals(const wchar_t* key, const wchar_t* value, bool whenEmpty) {
    Guard guard(m_lock);
    if (!guard.locked() || key == nullptr)
        return false;
    auto const found = m_values.find(key);
    if (found == m_values.end())
        return false;
    const wchar_t* const stored = found->second->value();
    if (stored == nullptr)
        return whenEmpty;
    if (value == nullptr)
        return false;
    std::string storedText;
    std::string valueText;
    if (!wcstoutf8(stored, storedText) || !wcstoutf8(value, valueText))
        return false;
    return storedText == valueText;
}

bool Configuration::setKeyVal(const wchar_t* key, const wchar_t* value) {
    Guard guard(m_lock);
    if (!guard.locked() || key == nullptr)
        return false;
    auto const present = m_values.find(key);
    if (present != m_values.end()) {
        present->second->value(value);
        return true;
    }
    auto const declared = m_settings.find(key);
    if (declared == m_settings.end() || declared->second == nullptr)
        return false;
    declared->second->value(value);
    try {
        m_values.insert(std::make_pair(declared->first, declared->second));
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    }
    return false;
}

bool Configuration::isOk() {
    Guard guard(m_lock);
    return guard.locked() && m_ok;
}

void Configuration::dump() {
    Guard guard(m_lock);
    if (!guard.locked())
        return;
    for (auto& entry : m_settings) {
        Setting* const setting = entry.second;
        if (setting == nullptr) {
            TW_LOG("%D DEBUG (%t): Invalid item\n");
        } else if (setting->isSet()) {
            TW_LOG_AT(LM_DEBUG, " %-20W : (ok) %W\n", setting->long_option(), setting->value());
        } else {
            TW_LOG_AT(LM_DEBUG, " %-20W : unset\n", setting->long_option());
        }
    }
}

void Configuration::disableDefaults() {
    Guard guard(m_lock);
    if (guard.locked())
        m_useDefaults = false;
}

void Configuration::disableWebservices() {
    Guard guard(m_lock);
    if (guard.locked())
        m_useWebservices = false;
}

bool Configuration::isUsingDefaults() {
    Guard guard(m_lock);
    return guard.locked() && m_useDefaults;
}

bool Configuration::isUsingWebservices() {
    Guard guard(m_lock);
    return guard.locked() && m_useWebservices;
}

void Configuration::setApplicationReaders(const ApplicationReaders& readers) {
    g_applicationReaders = readers;
}

Configuration* getConfigSingleton() {
    Configuration* const configuration =
        ACE_Singleton<Configuration, ACE_Recursive_Thread_Mutex>::instance();
    if (configuration == nullptr)
        errno = ENOMEM;
    return configuration;
}

}  // namespace Tarnwick
