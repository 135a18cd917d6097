// Declared settings, the command line, and the process-wide store of values.
#pragma once

#include <tarnwick/export.h>

#include <ace/Get_Opt.h>
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/SString.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Tarnwick {

class Application;
class ConfigFile;

// Flag bits of a Setting. Declarations OR them in.
enum SettingFlag {
    SETTING_REQUIRED = 1,          // must have been given, else validation fails
    SETTING_ARGUMENT = 2,          // takes an argument; only such settings are read from files
    SETTING_NO_FILE = 8,           // never read from a configuration file
    SETTING_ACTION = 16,           // an action; the last one on the command line counts
    SETTING_FROM_FILE = 32,        // the value came from a file (reload drops it)
    SETTING_FROM_COMMANDLINE = 64  // seen on the command line
};

// One declared option. A single declaration serves the command line (long
// option, short option, argument), the configuration file (section, long
// option as key, product whose file holds it) and the usage text
// (description, keyword). A setting has a value only when the command line
// or a file gave one: there are no defaults.
//
// Text is wide and owned by the setting. Once registered, a setting belongs
// to the Configuration.
class TARNWICK_EXPORT Setting {
public:
    // One row of a declaration table for Configuration::import. A table ends
    // with a row whose long_option is null. A row with a null description
    // declares nothing: the first character of its long_option is the short
    // option of the next row.
    struct Importer {
        const char* long_option;
        const char* section;
        const char* product;
        const char* description;
        const char* keyword;
        int flags;
    };

    Setting();
    Setting(const wchar_t* long_option, wchar_t short_option, const wchar_t* section,
            const wchar_t* description, int flags);
    virtual ~Setting();

    // 0 here; for subclasses. The library doesn't call it.
    virtual int validate();

    // Each replaces the field with a copy (null clears it).
    Setting& long_option(const wchar_t* text);
    Setting& section(const wchar_t* text);
    Setting& description(const wchar_t* text);
    Setting& keyword(const wchar_t* text);
    // The registry product whose files hold the setting; null means the
    // application's name().
    Setting& product(const wchar_t* text);
    Setting& short_option(wchar_t option);
    // ORs the bits in.
    Setting& flags(int bits);

    const wchar_t* long_option() const { return m_long_option; }
    wchar_t short_option() const { return m_short_option; }
    const wchar_t* section() const { return m_section; }
    const wchar_t* descr() const { return m_description; }
    const wchar_t* keyword() const { return m_keyword; }
    const wchar_t* product() const { return m_product; }
    const wchar_t* value() const { return m_value; }
    int flags() const { return m_flags; }

    // A copy of `text` becomes the value; null drops the value.
    void value(const wchar_t* text);
    // True exactly while the setting has a value.
    bool isSet() const { return m_isSet; }
    // 1 if any bit of `mask` is set, else 0.
    int hasFlag(int mask) const;

    // Makes a setting and registers it with the Configuration singleton.
    // 0, or -1 with errno ENOMEM.
    static int Create(const wchar_t* long_option, wchar_t short_option, const wchar_t* section,
                      const wchar_t* description, int flags);

    // Takes the value from `file` (section, long option). -1 and no change
    // for a missing file or section or an empty value; else 0, and the
    // setting is marked SETTING_FROM_FILE.
    int updateFrom(ConfigFile* file);

    // Logs the setting at debug priority.
    void dump() const;

private:
    Setting(const Setting&);
    Setting& operator=(const Setting&);

    int m_flags;
    wchar_t m_short_option;
    wchar_t* m_product;
    wchar_t* m_section;
    wchar_t* m_long_option;
    wchar_t* m_description;
    wchar_t* m_value;
    wchar_t* m_keyword;
    bool m_isSet;
};

// The settings that the library declares, as tables for Configuration::import.
// Every Application: version (-V), configfile (-c), debug (-d), help (-h),
// quiet (-q).
extern const Setting::Importer APPLICATION_SETTINGS[];
// An Application while isUsingDefaults(): [paths] log, var, pid, rtdir, temp.
extern const Setting::Importer PATH_SETTINGS[];
// An Application while isUsingWebservices(): [webservices] timeout,
// connect_timeout, start_wait_interval, end_wait_interval.
extern const Setting::Importer WEBSERVICE_SETTINGS[];
// The security set-up: [paths] keydir, and nossl.
extern const Setting::Importer SECURITY_SETTINGS[];
// A DaemonApplication: the actions stop, reload, check.
extern const Setting::Importer DAEMON_SETTINGS[];
// The host service: the actions install, remove, start, isinstalled,
// reload, restart.
extern const Setting::Importer SERVICE_SETTINGS[];

// The process-wide store of settings and their values, reached through
// getConfigSingleton(). It owns every declared setting, parses the command
// line, reads the configuration files by precedence, validates the result
// and answers lookups by long option from any thread. All operations take
// one recursive lock; a lock that can't be taken gives the operation's
// failure result (-1, false or null).
//
// Precedence, strongest first: a non-empty value from the command line; if
// "configfile" has a value, that one file alone; otherwise per setting the
// local file of its product, then the product's main file (found through the
// Registry). Keys of a file that no setting declares are not visible.
class TARNWICK_EXPORT Configuration {
public:
    Configuration();
    virtual ~Configuration();

    // Enters a setting by its long option (a first declaration wins lookups)
    // and appends it to the declaration order; takes ownership, also when it
    // fails (the setting is then deleted). 0 or -1.
    int register_setting(Setting* setting);
    // Declares every row of a table in this store. 0, or -1 (errno ENOMEM
    // on allocation failure; rows before it stay declared).
    int import(const Setting::Importer* rows);

    // Parses the command line, ends the process with status 0 for --help or
    // --version, reads the configuration files (with an application) and
    // validates. 0 or -1.
    int open(Application* application, int argc, wchar_t** const argv);
    // Sets "configfile" to `path`, then reads and validates: 0 or -1. Returns
    // -1 without reading when "configfile" had no value before.
    int open(const wchar_t* path);
    // Forgets the values that came from files and reads the files again;
    // command-line values stay. 0 or -1.
    int reload();

    // Logs the version line and the options, by section, at info priority.
    void usage();
    // Logs "This is <binary>, <description>, version <version>".
    virtual void showVersion();
    // Writes the usage line of `setting` into `buffer` of `size` bytes; the
    // line is cut to what fits, terminator included.
    void build_usage_line(wchar_t* buffer, int64_t size, Setting* setting);
    bool hasAction();
    // Long option of the action of this run, or null.
    const wchar_t* actionKey();

    // The configuration file of `product` from the Registry. 0, or -1 when
    // there is none.
    int productConfigfilePath(const wchar_t* product, ACE_WString& out);

    // The stored value (valid until the value changes), or null when the key
    // is absent or has no value.
    const wchar_t* asString(const wchar_t* key);
    bool hasKey(const wchar_t* key);
    // The long option of every declared setting, in the order of the
    // settings map (with or without a value); empty when the lock can't be
    // taken.
    std::vector<std::wstring> keys();
    // False for an absent key, `whenEmpty` for a key without value, else
    // whether the value is `value` (case-sensitive).
    bool keyEquals(const wchar_t* key, const wchar_t* value, bool whenEmpty);
    // Sets the value of a declared key (null drops it) and makes the key
    // present. Returns whether the key was present before.
    bool setKeyVal(const wchar_t* key, const wchar_t* value);

    // The value converted to T with operator>>: -1 when the key is absent
    // (logged when `warn`), 0 otherwise; `out` is left alone for a key
    // without value. `encoded` values are first decoded with DecodePassword
    // (the stored text is used when that fails). Instances: bool, int and
    // unsigned int for wide keys; std::string and int for narrow keys.
    template <typename T>
    int getValue(const wchar_t* key, T& out, bool warn = false, bool encoded = false);
    template <typename T>
    int getValue(const char* key, T& out, bool warn = false, bool encoded = false);

    // True after a successful validation.
    bool isOk();
    // Logs every setting at debug priority.
    void dump();

    // The switches for the library's tables of path and web service
    // settings; they count only before the Application is constructed.
    void disableDefaults();
    void disableWebservices();
    bool isUsingDefaults();
    bool isUsingWebservices();

    // The lock that guards the store.
    ACE_Recursive_Thread_Mutex& lock() { return m_lock; }

    // What a configuration reads of the Application given to open(): its
    // binary name, name, description and version, for the usage and version
    // lines and as the product of settings that name none. The configuration
    // sits below the application and doesn't know the class; the library
    // installs these readers when it is loaded. A reader is only called with
    // an application; one that is not installed reads as null.
    struct ApplicationReaders {
        const wchar_t* (*binaryname)(Application* application);
        const wchar_t* (*name)(Application* application);
        const wchar_t* (*description)(Application* application);
        const wchar_t* (*version)(Application* application);
    };
    // Installs `readers` for every configuration; meant for the library's
    // start, before any configuration is used.
    static void setApplicationReaders(const ApplicationReaders& readers);

private:
    Configuration(const Configuration&);
    Configuration& operator=(const Configuration&);

    int read_config_files();
    int validate();
    // The narrow value of a present key for getValue: -1 absent, 0 without
    // value, 1 with `text` filled.
    int lookupText(const wchar_t* key, std::string& text, bool encoded);
    // Deletes the parser and the UTF-8 copies of the arguments it reads.
    void releaseParser();

    ACE_Recursive_Thread_Mutex m_lock;
    std::map<std::wstring, Setting*> m_settings;
    std::map<std::wstring, Setting*> m_values;
    std::vector<Setting*> m_registered;
    Setting* m_action;
    Application* m_application;
    ACE_Get_Opt* m_parser;
    // UTF-8 copies of the arguments and option names the parser reads, owned,
    // and the argument vector it permutes.
    std::vector<char*> m_texts;
    std::vector<char*> m_argv;
    bool m_ok;
    bool m_useDefaults;
    bool m_useWebservices;
};

// The process-wide Configuration; null (errno ENOMEM) only without memory.
TARNWICK_EXPORT Configuration* getConfigSingleton();

}  // namespace Tarnwick
