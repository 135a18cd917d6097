// Tests of Setting and Configuration: declaration tables, the command line,
// --help and --version, the configuration files by precedence, reload,
// validation and the lookups.
#include <tarnwick/application.h>
#include <tarnwick/configfile.h>
#include <tarnwick/configuration.h>

#include <child.h>
#include <gtest/gtest.h>
#include <log_capture.h>

#include <ace/Log_Msg.h>

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <string>
#include <thread>
#include <vector>

using Tarnwick::Application;
using Tarnwick::Configuration;
using Tarnwick::Setting;
using TarnwickTest::LogCapture;

namespace {

const char kParseError[] = "%D ERROR (%t): Error while parsing command line: Invalid argument";
// What the configuration file reader logs for an option before any section.
const char kNoSection[] = "%D ERROR (%t): No section defined when option encountered.";

class TestApplication : public Application {
public:
    explicit TestApplication(const wchar_t* name = L"Agent",
                             const wchar_t* binary = L"/opt/tarnwick/bin/twtest")
        : name_(name), binary_(binary) {}
    const wchar_t* binaryname() override { return binary_; }
    const wchar_t* name() override { return name_; }
    const wchar_t* description() override { return L"Tarnwick test program"; }
    const wchar_t* long_description() override { return L"A program of the tests."; }
    int main() override { return 0; }

private:
    const wchar_t* name_;
    const wchar_t* binary_;
};

// A wide argument vector that lives as long as the object.
class Arguments {
public:
    Arguments(std::initializer_list<std::wstring> items) : texts_(items) {
        for (std::wstring& text : texts_)
            pointers_.push_back(&text[0]);
        pointers_.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(texts_.size()); }
    wchar_t** argv() { return pointers_.data(); }

private:
    std::vector<std::wstring> texts_;
    std::vector<wchar_t*> pointers_;
};

std::wstring widen(const std::string& text) {
    return std::wstring(text.begin(), text.end());
}

std::wstring text(const wchar_t* value) {
    return value != nullptr ? std::wstring(value) : std::wstring(L"<null>");
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

std::wstring usageLine(Configuration& configuration, Setting& setting) {
    wchar_t line[512];
    configuration.build_usage_line(line, sizeof line, &setting);
    return line;
}

Setting* declare(Configuration& configuration, const wchar_t* long_option, wchar_t short_option,
                 const wchar_t* section, int flags, const wchar_t* product = nullptr) {
    Setting* const setting = new Setting(long_option, short_option, section, L"A setting.", flags);
    if (product != nullptr)
        setting->product(product);
    EXPECT_EQ(0, configuration.register_setting(setting));
    return setting;
}

// Counts the opens of files with inotify.
class OpenCounter {
public:
    OpenCounter() : fd_(inotify_init1(IN_NONBLOCK)) {}
    ~OpenCounter() { ::close(fd_); }
    // Closes are watched too: the kernel merges an event into an equal one
    // that is still unread.
    int watch(const std::string& path) {
        return inotify_add_watch(fd_, path.c_str(), IN_OPEN | IN_CLOSE);
    }
    // Opens per watch descriptor since the last call.
    std::vector<int> counts(size_t watches) {
        std::vector<int> result(watches + 1, 0);
        alignas(inotify_event) char buffer[4096];
        for (;;) {
            ssize_t const got = ::read(fd_, buffer, sizeof buffer);
            if (got <= 0)
                break;
            for (ssize_t at = 0; at < got;) {
                const inotify_event* const event = reinterpret_cast<inotify_event*>(buffer + at);
                if ((event->mask & IN_OPEN) != 0 && event->wd > 0 &&
                    static_cast<size_t>(event->wd) <= watches)
                    ++result[static_cast<size_t>(event->wd)];
                at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            }
        }
        return result;
    }

private:
    int fd_;
};

class ConfigurationTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/tw-configuration-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        root_ = pattern;
        registry_ = root_ + "/registry";
        ASSERT_EQ(0, ::mkdir(registry_.c_str(), 0755));
        const char* const previous = std::getenv("TARNWICK_REGISTRY");
        hadRegistry_ = previous != nullptr;
        if (hadRegistry_)
            previousRegistry_ = previous;
        setenv("TARNWICK_REGISTRY", registry_.c_str(), 1);
    }

    void TearDown() override {
        if (hadRegistry_)
            setenv("TARNWICK_REGISTRY", previousRegistry_.c_str(), 1);
        else
            unsetenv("TARNWICK_REGISTRY");
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }

    std::string path(const std::string& name) const { return root_ + "/" + name; }

    // The registry entry of `product`, naming `configfile`.
    void registerProduct(const std::string& product, const std::string& configfile) {
        writeFile(registry_ + "/" + product + ".reg",
                  "configfilepath=" + configfile + "\npath=" + root_ + "\n");
    }

    std::string root_;
    std::string registry_;
    bool hadRegistry_ = false;
    std::string previousRegistry_;
};

// ---------------------------------------------------------------- Setting

TEST(SettingTest, StartsEmpty) {
    Setting setting;
    EXPECT_EQ(nullptr, setting.long_option());
    EXPECT_EQ(0, setting.short_option());
    EXPECT_EQ(nullptr, setting.section());
    EXPECT_EQ(nullptr, setting.descr());
    EXPECT_EQ(nullptr, setting.keyword());
    EXPECT_EQ(nullptr, setting.product());
    EXPECT_EQ(nullptr, setting.value());
    EXPECT_EQ(0, setting.flags());
    EXPECT_FALSE(setting.isSet());
    EXPECT_EQ(0, setting.validate());
}

TEST(SettingTest, CopiesTextAndOrsFlags) {
    std::wstring name = L"timeout";
    Setting setting(name.c_str(), L't', L"webservices", L"Seconds.", Tarnwick::SETTING_ARGUMENT);
    name[0] = L'X';
    EXPECT_EQ(std::wstring(L"timeout"), setting.long_option());
    EXPECT_EQ(L't', setting.short_option());
    EXPECT_EQ(std::wstring(L"webservices"), setting.section());
    EXPECT_EQ(std::wstring(L"Seconds."), setting.descr());
    setting.flags(Tarnwick::SETTING_REQUIRED).flags(Tarnwick::SETTING_ARGUMENT);
    EXPECT_EQ(3, setting.flags());
    EXPECT_EQ(1, setting.hasFlag(Tarnwick::SETTING_REQUIRED | Tarnwick::SETTING_ACTION));
    EXPECT_EQ(0, setting.hasFlag(Tarnwick::SETTING_ACTION | Tarnwick::SETTING_NO_FILE));

    setting.keyword(L"INT").product(L"Agent").short_option(L'u').section(nullptr);
    EXPECT_EQ(std::wstring(L"INT"), setting.keyword());
    EXPECT_EQ(std::wstring(L"Agent"), setting.product());
    EXPECT_EQ(L'u', setting.short_option());
    EXPECT_EQ(nullptr, setting.section());
}

TEST(SettingTest, ValueSetsAndDrops) {
    Setting setting(L"log", 0, L"paths", L"Log.", Tarnwick::SETTING_ARGUMENT);
    setting.value(L"/var/log");
    EXPECT_TRUE(setting.isSet());
    EXPECT_EQ(std::wstring(L"/var/log"), setting.value());
    setting.value(L"");
    EXPECT_TRUE(setting.isSet());
    EXPECT_EQ(std::wstring(), setting.value());
    setting.value(nullptr);
    EXPECT_FALSE(setting.isSet());
    EXPECT_EQ(nullptr, setting.value());
}

TEST(SettingTest, DumpLogsAtDebugPriority) {
    LogCapture log;
    Setting setting(L"configfile", L'c', nullptr, L"Override.", Tarnwick::SETTING_ARGUMENT);
    setting.dump();
    Setting paths(L"var", 0, L"paths", L"Var.", 3);
    paths.dump();
    EXPECT_EQ(std::vector<std::string>({"%D DEBUG (%t): configfile / c / Override. / (null)",
                                        "%D DEBUG (%t): var /  / Var. / paths"}),
              log.lines());
}

TEST_F(ConfigurationTest, UpdateFromTakesNonEmptyValuesOfTheSection) {
    writeFile(path("a.conf"), "[paths]\nlog=/from/file\nvar=\n[other]\ntemp=/t\n");
    Tarnwick::ConfigFile file(widen(path("a.conf")).c_str());
    ASSERT_EQ(0, file.open());

    Setting log(L"log", 0, L"paths", L"Log.", Tarnwick::SETTING_ARGUMENT);
    EXPECT_EQ(0, log.updateFrom(&file));
    EXPECT_EQ(std::wstring(L"/from/file"), log.value());
    EXPECT_EQ(1, log.hasFlag(Tarnwick::SETTING_FROM_FILE));

    Setting var(L"var", 0, L"paths", L"Var.", Tarnwick::SETTING_ARGUMENT);
    var.value(L"/before");
    EXPECT_EQ(-1, var.updateFrom(&file));
    EXPECT_EQ(std::wstring(L"/before"), var.value());
    EXPECT_EQ(0, var.hasFlag(Tarnwick::SETTING_FROM_FILE));

    Setting missing(L"temp", 0, L"nosection", L"Temp.", Tarnwick::SETTING_ARGUMENT);
    EXPECT_EQ(-1, missing.updateFrom(&file));
    EXPECT_EQ(-1, missing.updateFrom(nullptr));
    EXPECT_FALSE(missing.isSet());
}

// ---------------------------------------------------------------- declaration

TEST(ConfigurationDeclarationTest, ImportTakesShortOptionsFromRowsOfTheirOwn) {
    Configuration configuration;
    const Setting::Importer rows[] = {
        {"x", nullptr, nullptr, nullptr, nullptr, 0},
        {"extra", "misc", "Other", "Extra thing.", "THING", Tarnwick::SETTING_ARGUMENT},
        {"plain", nullptr, nullptr, "Plain flag.", nullptr, 0},
        {"z", nullptr, nullptr, nullptr, nullptr, 0},
        {nullptr, nullptr, nullptr, nullptr, nullptr, 0},
    };
    ASSERT_EQ(0, configuration.import(rows));
    TestApplication application;
    Arguments arguments{L"twtest", L"-x", L"val", L"--plain"};
    ASSERT_EQ(0, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_EQ(std::wstring(L"val"), text(configuration.asString(L"extra")));
    EXPECT_TRUE(configuration.hasKey(L"plain"));
    EXPECT_FALSE(configuration.setKeyVal(L"z", L"1"));
    EXPECT_FALSE(configuration.hasKey(L"z"));

    LogCapture log;
    configuration.usage();
    configuration.dump();
    EXPECT_EQ(std::vector<std::string>(
                  {"This is twtest, Tarnwick test program, version 6.6.3.0",
                   "Usage: twtest [options]", "", "      --plain                 Plain flag.", "",
                   "[misc]", " -x,  --extra=THING           Extra thing.",
                   " extra                : (ok) val", " plain                : unset"}),
              log.lines());
}

TEST(ConfigurationDeclarationTest, LibraryTablesDeclareTheirSettings) {
    Configuration configuration;
    ASSERT_EQ(0, configuration.import(Tarnwick::APPLICATION_SETTINGS));
    ASSERT_EQ(0, configuration.import(Tarnwick::PATH_SETTINGS));
    ASSERT_EQ(0, configuration.import(Tarnwick::WEBSERVICE_SETTINGS));
    ASSERT_EQ(0, configuration.import(Tarnwick::SECURITY_SETTINGS));
    ASSERT_EQ(0, configuration.import(Tarnwick::DAEMON_SETTINGS));
    ASSERT_EQ(0, configuration.import(Tarnwick::SERVICE_SETTINGS));
    const wchar_t* const keys[] = {L"version",
                                   L"configfile",
                                   L"debug",
                                   L"help",
                                   L"quiet",
                                   L"log",
                                   L"var",
                                   L"pid",
                                   L"rtdir",
                                   L"temp",
                                   L"timeout",
                                   L"connect_timeout",
                                   L"start_wait_interval",
                                   L"end_wait_interval",
                                   L"keydir",
                                   L"nossl",
                                   L"stop",
                                   L"reload",
                                   L"check",
                                   L"install",
                                   L"remove",
                                   L"start",
                                   L"isinstalled",
                                   L"restart"};
    for (const wchar_t* key : keys) {
        EXPECT_FALSE(configuration.setKeyVal(key, L"v")) << text(key);
        EXPECT_TRUE(configuration.hasKey(key)) << text(key);
    }
}

TEST(ConfigurationDeclarationTest, FirstDeclarationWinsLookupsAndBothArePrinted) {
    TestApplication application;
    Configuration configuration;
    ASSERT_EQ(0, configuration.import(Tarnwick::APPLICATION_SETTINGS));
    ASSERT_EQ(0, configuration.import(Tarnwick::DAEMON_SETTINGS));
    ASSERT_EQ(0, configuration.import(Tarnwick::SERVICE_SETTINGS));
    Arguments arguments{L"twtest", L"--reload"};
    ASSERT_EQ(0, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_EQ(std::wstring(L"reload"), text(configuration.actionKey()));

    TarnwickTest::ChildResult const result = TarnwickTest::runInChild([&]() {
        Arguments help{L"twtest", L"--help"};
        configuration.open(&application, help.argc(), help.argv());
        return 3;
    });
    ASSERT_EQ(0, result.exitCode()) << result.errors;
    EXPECT_NE(std::string::npos,
              result.errors.find("      --reload                Reload a running instance of "
                                 "this application.\n"))
        << result.errors;
    EXPECT_NE(std::string::npos,
              result.errors.find("      --reload                Restart/Reload the service.\n"))
        << result.errors;
}

// In a child: the singleton lives as long as the process.
TEST(ConfigurationDeclarationTest, CreateRegistersInTheSingleton) {
    TarnwickTest::ChildResult const result = TarnwickTest::runInChild([]() {
        Configuration* const singleton = Tarnwick::getConfigSingleton();
        if (singleton == nullptr || singleton != Tarnwick::getConfigSingleton())
            return 1;
        if (singleton->hasKey(L"created"))
            return 2;
        if (Setting::Create(L"created", 0, L"misc", L"Made by Create.",
                            Tarnwick::SETTING_ARGUMENT) != 0)
            return 3;
        if (singleton->setKeyVal(L"created", L"42") || !singleton->hasKey(L"created"))
            return 4;
        if (text(singleton->asString(L"created")) != L"42")
            return 5;
        return 0;
    });
    EXPECT_EQ(0, result.exitCode()) << result.errors;
}

TEST(ConfigurationDeclarationTest, SwitchesStartOnAndCanBeCleared) {
    Configuration configuration;
    EXPECT_TRUE(configuration.isUsingDefaults());
    EXPECT_TRUE(configuration.isUsingWebservices());
    EXPECT_FALSE(configuration.isOk());
    configuration.disableDefaults();
    EXPECT_FALSE(configuration.isUsingDefaults());
    EXPECT_TRUE(configuration.isUsingWebservices());
    configuration.disableWebservices();
    EXPECT_FALSE(configuration.isUsingWebservices());
}

// ---------------------------------------------------------------- usage lines

TEST(ConfigurationUsageTest, LinesPadToColumnThirty) {
    Configuration configuration;
    Setting configfile(L"configfile", L'c', nullptr,
                       L"Override CD Registry configuration file "
                       L"with PATH.",
                       Tarnwick::SETTING_ARGUMENT);
    configfile.keyword(L"PATH");
    EXPECT_EQ(L" -c,  --configfile=PATH       Override CD Registry configuration file with PATH.",
              usageLine(configuration, configfile));

    Setting var(L"var", 0, L"paths", L"Application var directory.", 3);
    var.keyword(L"DIR");
    EXPECT_EQ(L"      --var=DIR               Application var directory.",
              usageLine(configuration, var));

    Setting noKeyword(L"value", L'v', nullptr, L"Has an argument.", Tarnwick::SETTING_ARGUMENT);
    EXPECT_EQ(L" -v,  --value=ARG             Has an argument.",
              usageLine(configuration, noKeyword));
}

TEST(ConfigurationUsageTest, LongLineRunsIntoTheDescription) {
    Configuration configuration;
    Setting setting(L"start_wait_interval", 0, L"webservices",
                    L"minimum wait time after 503 response", Tarnwick::SETTING_ARGUMENT);
    setting.keyword(L"INT");
    EXPECT_EQ(L"      --start_wait_interval=INTminimum wait time after 503 response",
              usageLine(configuration, setting));

    Setting exact(L"exactly_thirty_columns", 0, nullptr, L"Described.", 0);
    EXPECT_EQ(L"      --exactly_thirty_columnsDescribed.", usageLine(configuration, exact));
}

TEST(ConfigurationUsageTest, DigitShortOptionShowsSixBlanks) {
    Configuration configuration;
    Setting digit(L"level", L'1', L"tuning", L"Compression level.", Tarnwick::SETTING_ARGUMENT);
    digit.keyword(L"LEVEL");
    EXPECT_EQ(L"      --level=LEVEL           Compression level.", usageLine(configuration, digit));
    // Only the low byte counts.
    Setting wide(L"wide", static_cast<wchar_t>(0x131), nullptr, L"Wide.", 0);
    EXPECT_EQ(L"      --wide                  Wide.", usageLine(configuration, wide));
}

TEST(ConfigurationUsageTest, LineIsCutToTheBuffer) {
    Configuration configuration;
    Setting setting(L"debug", L'd', nullptr, L"Enables debugging output.", 0);
    wchar_t line[16];
    configuration.build_usage_line(line, sizeof line, &setting);
    EXPECT_EQ(std::wstring(L" -d,  --debug  "), line);
    // The opening doesn't fit: an empty line.
    configuration.build_usage_line(line, 4 * sizeof(wchar_t), &setting);
    EXPECT_EQ(std::wstring(), line);
}

// The complete --help text of a program with the library's default, path and
// web service settings, two actions and a setting with a digit short option.
TEST_F(ConfigurationTest, HelpPrintsTheWholeUsageAndExits) {
    TarnwickTest::ChildResult const result = TarnwickTest::runInChild([]() {
        TestApplication application;
        Configuration configuration;
        const Setting::Importer extra[] = {
            {"1", nullptr, nullptr, nullptr, nullptr, 0},
            {"level", "tuning", nullptr, "Compression level.", "LEVEL", Tarnwick::SETTING_ARGUMENT},
            {"stop", nullptr, nullptr, "Stops a running instance of this application.", nullptr,
             Tarnwick::SETTING_ACTION},
            {"check", nullptr, nullptr,
             "Tests if there is an instance of this application running.", nullptr,
             Tarnwick::SETTING_ACTION},
            {nullptr, nullptr, nullptr, nullptr, nullptr, 0},
        };
        configuration.import(Tarnwick::APPLICATION_SETTINGS);
        configuration.import(Tarnwick::PATH_SETTINGS);
        configuration.import(Tarnwick::WEBSERVICE_SETTINGS);
        configuration.import(extra);
        Arguments arguments{L"/opt/tarnwick/bin/twtest", L"--help"};
        configuration.open(&application, arguments.argc(), arguments.argv());
        return 3;
    });
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("", result.output);
    EXPECT_EQ(
        "This is twtest, Tarnwick test program, version 6.6.3.0\n"
        "Usage: twtest [options]\n"
        "\n"
        " -V,  --version               Returns the version of this application.\n"
        " -c,  --configfile=PATH       Override CD Registry configuration file with PATH.\n"
        " -d,  --debug                 Enables debugging output.\n"
        " -h,  --help                  Display this help and exit.\n"
        " -q,  --quiet                 Be less verbose.\n"
        "\n"
        "[paths]\n"
        "      --log=PATH              Log output to PATH\n"
        "      --var=DIR               Application var directory.\n"
        "      --pid=DIR               Application pid file directory.\n"
        "      --rtdir=DIR             Directory containing routing tables.\n"
        "      --temp=DIR              Location for temp files.\n"
        "\n"
        "[tuning]\n"
        "      --level=LEVEL           Compression level.\n"
        "\n"
        "[webservices]\n"
        "      --timeout=INT           timeout webservice calls after INT seconds\n"
        "      --connect_timeout=INT   timeout webservice call connects after INT seconds.\n"
        "      --start_wait_interval=INTminimum wait time after 503 response\n"
        "      --end_wait_interval=INT maximum wait time after 503 response\n"
        "\n"
        "[actions]\n"
        "      --stop                  Stops a running instance of this application.\n"
        "      --check                 Tests if there is an instance of this application "
        "running.\n",
        result.errors);
}

TEST_F(ConfigurationTest, UsageGoesToTheLogAtInfoPriority) {
    TestApplication application;
    Configuration configuration;
    declare(configuration, L"only", L'o', L"actions-only", Tarnwick::SETTING_ACTION);
    Arguments arguments{L"twtest"};
    ASSERT_EQ(0, configuration.open(&application, arguments.argc(), arguments.argv()));

    ACE_Log_Msg* const log = ACE_Log_Msg::instance();
    LogCapture capture;
    u_long const mask = log->priority_mask(ACE_Log_Msg::PROCESS);
    log->priority_mask(mask & ~LM_INFO, ACE_Log_Msg::PROCESS);
    configuration.usage();
    EXPECT_EQ("", capture.text());
    log->priority_mask(mask, ACE_Log_Msg::PROCESS);

    configuration.usage();
    // A section with only actions has its heading and nothing below it.
    EXPECT_EQ(std::vector<std::string>({"This is twtest, Tarnwick test program, version 6.6.3.0",
                                        "Usage: twtest [options]", "", "", "[actions-only]", "",
                                        "[actions]", " -o,  --only                  A setting."}),
              capture.lines());
}

// The security, daemon and service tables as the usage text shows them.
TEST_F(ConfigurationTest, UsageOfTheOtherLibraryTables) {
    TestApplication application;
    Configuration configuration;
    ASSERT_EQ(0, configuration.import(Tarnwick::SECURITY_SETTINGS));
    ASSERT_EQ(0, configuration.import(Tarnwick::DAEMON_SETTINGS));
    ASSERT_EQ(0, configuration.import(Tarnwick::SERVICE_SETTINGS));
    Arguments arguments{L"twtest", L"--keydir=/etc/tarnwick/keys"};
    ASSERT_EQ(0, configuration.open(&application, arguments.argc(), arguments.argv()));
    LogCapture log;
    configuration.usage();
    std::vector<std::string> const expected = {
        "This is twtest, Tarnwick test program, version 6.6.3.0",
        "Usage: twtest [options]",
        "",
        "      --nossl                 Disable use of SSL but use plain text sockets instead "
        "(insecure)",
        "",
        "[paths]",
        "      --keydir=PATH           Location of SSL certificates and keys.",
        "",
        "[actions]",
        "      --stop                  Stops a running instance of this application.",
        "      --reload                Reload a running instance of this application.",
        "      --check                 Tests if there is an instance of this application running.",
        "      --install               Install this application as an NT service.",
        "      --remove                Remove the service from the system.",
        "      --start                 Start the service.",
        "      --isinstalled           Check if this application is installed as an NT service. "
        "Exit code 0 if so, 7 if not.",
        "      --reload                Restart/Reload the service.",
        "      --restart               Restart/Reload the service.",
    };
    EXPECT_EQ(expected, log.lines());
}

TEST_F(ConfigurationTest, VersionPrintsTheVersionLineAndExits) {
    TarnwickTest::ChildResult const result = TarnwickTest::runInChild([]() {
        TestApplication application(L"Agent", L"/usr/lib/tarnwick/twagent");
        Configuration configuration;
        configuration.import(Tarnwick::APPLICATION_SETTINGS);
        configuration.import(Tarnwick::PATH_SETTINGS);
        Arguments arguments{L"twagent", L"-V"};
        configuration.open(&application, arguments.argc(), arguments.argv());
        return 3;
    });
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ("This is twagent, Tarnwick test program, version 6.6.3.0\n", result.errors);
}

// The exit of --help and --version runs the exit handlers, which destroy the
// store; the lock must be free by then, for other threads too.
ACE_Recursive_Thread_Mutex* exitingLock = nullptr;

void reportLockAtExit() {
    std::thread other([]() {
        bool const free = exitingLock->tryacquire() == 0;
        if (free)
            exitingLock->release();
        std::string const line = free ? "lock free\n" : "lock held\n";
        ssize_t const written = ::write(STDOUT_FILENO, line.data(), line.size());
        (void)written;
    });
    other.join();
}

TEST_F(ConfigurationTest, HelpAndVersionGiveTheLockUpBeforeTheyExit) {
    for (const wchar_t* option : {L"--help", L"--version"}) {
        TarnwickTest::ChildResult const result = TarnwickTest::runInChild([option]() {
            TestApplication application;
            Configuration configuration;
            configuration.import(Tarnwick::APPLICATION_SETTINGS);
            exitingLock = &configuration.lock();
            std::atexit(reportLockAtExit);
            Arguments arguments{L"twtest", option};
            configuration.open(&application, arguments.argc(), arguments.argv());
            return 3;
        });
        EXPECT_EQ(0, result.exitCode());
        EXPECT_EQ("lock free\n", result.output);
    }
}

TEST_F(ConfigurationTest, ValueThatIsNoUTF8IsMissingAndNamedOnce) {
    std::string const main = path("agent.conf");
    registerProduct("Agent", main);
    writeFile(main, "[paths]\nvar=Z\xfcrich\npid=/main/pid\nrtdir=/main/rt\ntemp=/main/temp\n");
    TestApplication application;
    Configuration configuration;
    ASSERT_EQ(0, configuration.import(Tarnwick::PATH_SETTINGS));
    Arguments arguments{L"twtest"};
    LogCapture log;
    EXPECT_EQ(-1, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_EQ(
        std::vector<std::string>({"%D WARN  (%t): The value of var in section [paths] of " + main +
                                      " is not UTF-8 text and is read as empty",
                                  "%D ERROR (%t): A required option is missing: paths - var"}),
        log.lines());
    EXPECT_FALSE(configuration.hasKey(L"var"));
    EXPECT_TRUE(configuration.hasKey(L"pid"));
}

TEST_F(ConfigurationTest, HelpWinsOverVersion) {
    TarnwickTest::ChildResult const result = TarnwickTest::runInChild([]() {
        TestApplication application(L"Agent", L"twtest");
        Configuration configuration;
        configuration.import(Tarnwick::APPLICATION_SETTINGS);
        Arguments arguments{L"twtest", L"--version", L"--help"};
        configuration.open(&application, arguments.argc(), arguments.argv());
        return 3;
    });
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ(0u, result.errors.find("This is twtest, Tarnwick test program, version 6.6.3.0\n"
                                     "Usage: twtest [options]\n"))
        << result.errors;
}

TEST_F(ConfigurationTest, VersionLineWithoutBinaryName) {
    TestApplication application(L"Agent", nullptr);
    Configuration configuration;
    Arguments arguments{L"twtest"};
    ASSERT_EQ(0, configuration.open(&application, arguments.argc(), arguments.argv()));
    LogCapture log;
    configuration.showVersion();
    EXPECT_EQ("This is (null), Tarnwick test program, version 6.6.3.0\n", log.text());

    log.clear();
    Configuration withoutApplication;
    withoutApplication.showVersion();
    EXPECT_EQ("This is (null), (null), version (null)\n", log.text());
}

// ---------------------------------------------------------------- command line

TEST_F(ConfigurationTest, HelpWithABadOptionGivesTheParsingError) {
    TestApplication application;
    Configuration configuration;
    ASSERT_EQ(0, configuration.import(Tarnwick::APPLICATION_SETTINGS));
    Arguments arguments{L"twtest", L"--help", L"--bogus"};
    LogCapture log;
    EXPECT_EQ(-1, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(std::vector<std::string>({"twtest: illegal long option '--bogus'", kParseError}),
              log.lines());
    EXPECT_TRUE(configuration.hasKey(L"help"));
}

TEST_F(ConfigurationTest, MissingArgumentIsAParsingError) {
    TestApplication application;
    Configuration configuration;
    ASSERT_EQ(0, configuration.import(Tarnwick::APPLICATION_SETTINGS));
    Arguments arguments{L"twtest", L"--configfile"};
    LogCapture log;
    EXPECT_EQ(-1, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_EQ(std::vector<std::string>(
                  {"twtest: long option '--configfile' requires an argument", kParseError}),
              log.lines());
}

TEST_F(ConfigurationTest, UnknownShortOptionIsAParsingError) {
    TestApplication application;
    Configuration configuration;
    ASSERT_EQ(0, configuration.import(Tarnwick::APPLICATION_SETTINGS));
    Arguments arguments{L"twtest", L"-x"};
    LogCapture log;
    EXPECT_EQ(-1, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_EQ(std::vector<std::string>({"twtest: illegal short option -- x", kParseError}),
              log.lines());
}

TEST_F(ConfigurationTest, HelpWithRequiredOptionMissingPrintsUsageAndExitsWithZero) {
    TarnwickTest::ChildResult const result = TarnwickTest::runInChild([]() {
        TestApplication application;
        Configuration configuration;
        configuration.import(Tarnwick::APPLICATION_SETTINGS);
        configuration.import(Tarnwick::PATH_SETTINGS);
        Arguments arguments{L"twtest", L"-h"};
        configuration.open(&application, arguments.argc(), arguments.argv());
        return 3;
    });
    EXPECT_EQ(0, result.exitCode());
    EXPECT_EQ(std::string::npos, result.errors.find("required option")) << result.errors;
    EXPECT_NE(std::string::npos, result.errors.find("Usage: twtest [options]\n"));

    // Without help the same command line fails validation.
    TestApplication application;
    Configuration configuration;
    ASSERT_EQ(0, configuration.import(Tarnwick::APPLICATION_SETTINGS));
    ASSERT_EQ(0, configuration.import(Tarnwick::PATH_SETTINGS));
    Arguments arguments{L"twtest"};
    LogCapture log;
    EXPECT_EQ(-1, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_EQ(
        std::vector<std::string>({"%D ERROR (%t): A required option is missing: paths - pid"}),
        log.lines());
    EXPECT_FALSE(configuration.isOk());
}

TEST_F(ConfigurationTest, RepeatedOptions) {
    TestApplication application;
    Configuration configuration;
    ASSERT_EQ(0, configuration.import(Tarnwick::APPLICATION_SETTINGS));
    Setting* const level = declare(configuration, L"level", L'l', nullptr,
                                   Tarnwick::SETTING_ARGUMENT | Tarnwick::SETTING_NO_FILE);
    Arguments arguments{L"twtest", L"-d", L"--level=1", L"--debug", L"-l", L"2", L"--level", L"3"};
    LogCapture log;
    ASSERT_EQ(0, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_TRUE(configuration.hasKey(L"debug"));
    EXPECT_EQ(nullptr, configuration.asString(L"debug"));
    EXPECT_EQ(std::wstring(L"3"), text(configuration.asString(L"level")));
    EXPECT_EQ(1, level->hasFlag(Tarnwick::SETTING_FROM_COMMANDLINE));
    EXPECT_FALSE(configuration.hasAction());
    EXPECT_EQ(nullptr, configuration.actionKey());
    EXPECT_TRUE(configuration.isOk());
    EXPECT_EQ("", log.text());
}

TEST_F(ConfigurationTest, LastActionCountsAndBothStay) {
    TestApplication application;
    Configuration configuration;
    ASSERT_EQ(0, configuration.import(Tarnwick::DAEMON_SETTINGS));
    Arguments arguments{L"twtest", L"--stop", L"positional", L"--check"};
    ASSERT_EQ(0, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_TRUE(configuration.hasAction());
    EXPECT_EQ(std::wstring(L"check"), text(configuration.actionKey()));
    EXPECT_TRUE(configuration.hasKey(L"stop"));
    EXPECT_TRUE(configuration.hasKey(L"check"));
    EXPECT_FALSE(configuration.hasKey(L"reload"));
}

// A short option whose low byte the parser knows but no setting has.
TEST_F(ConfigurationTest, ShortOptionThatNoSettingHasIsIgnored) {
    TestApplication application;
    Configuration configuration;
    declare(configuration, L"wide", static_cast<wchar_t>(0x161), nullptr, 0);
    Arguments arguments{L"twtest", L"-a"};
    LogCapture log;
    EXPECT_EQ(0, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_FALSE(configuration.hasKey(L"wide"));
    EXPECT_EQ("", log.text());

    Arguments long_form{L"twtest", L"--wide"};
    EXPECT_EQ(0, configuration.open(&application, long_form.argc(), long_form.argv()));
    EXPECT_TRUE(configuration.hasKey(L"wide"));
}

TEST_F(ConfigurationTest, DigitShortOptionIsAcceptedByTheParser) {
    TestApplication application;
    Configuration configuration;
    declare(configuration, L"level", L'1', L"tuning",
            Tarnwick::SETTING_ARGUMENT | Tarnwick::SETTING_NO_FILE);
    Arguments arguments{L"twtest", L"-1", L"9"};
    ASSERT_EQ(0, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_EQ(std::wstring(L"9"), text(configuration.asString(L"level")));
}

// An abbreviation of a long option without short option is not a setting.
TEST_F(ConfigurationTest, AbbreviatedLongOptionIsNotFound) {
    TestApplication application;
    Configuration configuration;
    ASSERT_EQ(0, configuration.import(Tarnwick::PATH_SETTINGS));
    Arguments arguments{L"twtest", L"--rtd=/x"};
    LogCapture log;
    EXPECT_EQ(-1, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_EQ(std::vector<std::string>({"%D ERROR (%t): Setting not found: rtd"}), log.lines());
}

TEST_F(ConfigurationTest, WideArgumentsAreReadAsUTF8) {
    TestApplication application;
    Configuration configuration;
    declare(configuration, L"name", 0, nullptr, Tarnwick::SETTING_ARGUMENT);
    Arguments arguments{L"twtest", L"--name=Gr\u00fc\u00dfe \u2603"};
    ASSERT_EQ(0, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_EQ(std::wstring(L"Gr\u00fc\u00dfe \u2603"), text(configuration.asString(L"name")));

    Arguments broken{L"twtest", std::wstring(1, static_cast<wchar_t>(0xD800))};
    LogCapture log;
    EXPECT_EQ(-1, configuration.open(&application, broken.argc(), broken.argv()));
    EXPECT_EQ(EILSEQ, errno);
    EXPECT_EQ(1u, log.lines().size());
}

TEST_F(ConfigurationTest, OpenWithoutApplicationReadsNoFiles) {
    writeFile(path("agent.conf"), "[paths]\nlog=/main/log\n");
    registerProduct("Agent", path("agent.conf"));
    Configuration configuration;
    ASSERT_EQ(0, configuration.import(Tarnwick::APPLICATION_SETTINGS));
    Setting* const log =
        declare(configuration, L"log", 0, L"paths", Tarnwick::SETTING_ARGUMENT, L"Agent");
    Arguments arguments{L"twtest", L"-d"};
    EXPECT_EQ(0, configuration.open(nullptr, arguments.argc(), arguments.argv()));
    EXPECT_FALSE(log->isSet());
    EXPECT_EQ(0, configuration.reload());
    EXPECT_FALSE(log->isSet());
}

// ---------------------------------------------------------------- files

// Main file, ".local", command line; a file with the double ending replaces
// ".local" whole; --configfile replaces them all.
TEST_F(ConfigurationTest, PrecedenceOfCommandLineAndFiles) {
    std::string const main = path("agent.conf");
    registerProduct("Agent", main);
    writeFile(main,
              "[paths]\nlog=/main/log\nvar=/main/var\npid=/main/pid\nrtdir=/main/rt\n"
              "temp=/main/temp\n");
    writeFile(main + ".local", "[paths]\nvar=/local/var\npid=/local/pid\n");

    {
        TestApplication application;
        Configuration configuration;
        ASSERT_EQ(0, configuration.import(Tarnwick::APPLICATION_SETTINGS));
        ASSERT_EQ(0, configuration.import(Tarnwick::PATH_SETTINGS));
        Arguments arguments{L"twtest", L"--temp=/cli/temp"};
        LogCapture log;
        ASSERT_EQ(0, configuration.open(&application, arguments.argc(), arguments.argv()));
        EXPECT_EQ("", log.text());
        EXPECT_TRUE(configuration.isOk());
        EXPECT_EQ(std::wstring(L"/main/log"), text(configuration.asString(L"log")));
        EXPECT_EQ(std::wstring(L"/local/var"), text(configuration.asString(L"var")));
        EXPECT_EQ(std::wstring(L"/local/pid"), text(configuration.asString(L"pid")));
        EXPECT_EQ(std::wstring(L"/main/rt"), text(configuration.asString(L"rtdir")));
        EXPECT_EQ(std::wstring(L"/cli/temp"), text(configuration.asString(L"temp")));
    }

    writeFile(main + ".local.local", "[paths]\npid=/ll/pid\n");
    {
        TestApplication application;
        Configuration configuration;
        ASSERT_EQ(0, configuration.import(Tarnwick::PATH_SETTINGS));
        Arguments arguments{L"twtest", L"--temp=/cli/temp"};
        ASSERT_EQ(0, configuration.open(&application, arguments.argc(), arguments.argv()));
        EXPECT_EQ(std::wstring(L"/main/log"), text(configuration.asString(L"log")));
        EXPECT_EQ(std::wstring(L"/main/var"), text(configuration.asString(L"var")));
        EXPECT_EQ(std::wstring(L"/ll/pid"), text(configuration.asString(L"pid")));
        EXPECT_EQ(std::wstring(L"/cli/temp"), text(configuration.asString(L"temp")));
    }

    std::string const override = path("override.conf");
    writeFile(override, "[paths]\nvar=/ovr/var\npid=/ovr/pid\nrtdir=/ovr/rt\ntemp=/ovr/temp\n");
    {
        TestApplication application;
        Configuration configuration;
        ASSERT_EQ(0, configuration.import(Tarnwick::APPLICATION_SETTINGS));
        ASSERT_EQ(0, configuration.import(Tarnwick::PATH_SETTINGS));
        Arguments arguments{L"twtest", L"--temp=/cli/temp", L"-c", widen(override)};
        ASSERT_EQ(0, configuration.open(&application, arguments.argc(), arguments.argv()));
        EXPECT_FALSE(configuration.hasKey(L"log"));
        EXPECT_EQ(std::wstring(L"/ovr/var"), text(configuration.asString(L"var")));
        EXPECT_EQ(std::wstring(L"/ovr/pid"), text(configuration.asString(L"pid")));
        EXPECT_EQ(std::wstring(L"/ovr/rt"), text(configuration.asString(L"rtdir")));
        EXPECT_EQ(std::wstring(L"/cli/temp"), text(configuration.asString(L"temp")));
        EXPECT_EQ(widen(override), text(configuration.asString(L"configfile")));
    }
}

TEST_F(ConfigurationTest, EmptyCommandLineValueIsStillReadFromTheFile) {
    std::string const main = path("agent.conf");
    registerProduct("Agent", main);
    writeFile(main, "[paths]\nlog=/main/log\n");
    TestApplication application;
    Configuration configuration;
    Setting* const log =
        declare(configuration, L"log", 0, L"paths", Tarnwick::SETTING_ARGUMENT, L"Agent");
    Arguments arguments{L"twtest", L"--log="};
    ASSERT_EQ(0, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_EQ(std::wstring(L"/main/log"), text(configuration.asString(L"log")));
    EXPECT_EQ(1, log->hasFlag(Tarnwick::SETTING_FROM_COMMANDLINE));
    EXPECT_EQ(1, log->hasFlag(Tarnwick::SETTING_FROM_FILE));
}

TEST_F(ConfigurationTest, ConfigfileOptionIsNeverReadFromAFile) {
    std::string const override = path("override.conf");
    writeFile(override, "[paths]\nconfigfile=/elsewhere\nlog=/ovr/log\n");
    TestApplication application;
    Configuration configuration;
    ASSERT_EQ(0, configuration.import(Tarnwick::APPLICATION_SETTINGS));
    declare(configuration, L"log", 0, L"paths", Tarnwick::SETTING_ARGUMENT);
    Arguments arguments{L"twtest", L"--configfile=" + widen(override)};
    ASSERT_EQ(0, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_EQ(widen(override), text(configuration.asString(L"configfile")));
    EXPECT_EQ(std::wstring(L"/ovr/log"), text(configuration.asString(L"log")));
}

// The registry holds damaged entries, whose reading would be logged.
TEST_F(ConfigurationTest, ConfigfileOptionLeavesTheRegistryAlone) {
    writeFile(registry_ + "/Agent.reg", "configfilepath=" + path("agent.conf") + "\n");
    writeFile(registry_ + "/Other.reg", "configfilepath=" + path("other.conf") + "\n");
    writeFile(path("agent.conf"), "[paths]\nlog=/main/log\n");
    writeFile(path("other.conf"), "[misc]\nthing=/other/thing\n");
    std::string const override = path("override.conf");
    writeFile(override, "[paths]\nvar=/ovr/var\n");

    TestApplication application;
    Configuration configuration;
    ASSERT_EQ(0, configuration.import(Tarnwick::APPLICATION_SETTINGS));
    declare(configuration, L"log", 0, L"paths", Tarnwick::SETTING_ARGUMENT, L"Agent");
    declare(configuration, L"var", 0, L"paths", Tarnwick::SETTING_ARGUMENT);
    declare(configuration, L"thing", 0, L"misc", Tarnwick::SETTING_ARGUMENT, L"Other");
    Arguments arguments{L"twtest", L"-c", widen(override)};
    LogCapture log;
    ASSERT_EQ(0, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_EQ("", log.text());
    EXPECT_FALSE(configuration.hasKey(L"log"));
    EXPECT_FALSE(configuration.hasKey(L"thing"));
    EXPECT_EQ(std::wstring(L"/ovr/var"), text(configuration.asString(L"var")));

    // Without the override the same settings go through the registry.
    Configuration plain;
    declare(plain, L"log", 0, L"paths", Tarnwick::SETTING_ARGUMENT, L"Agent");
    Arguments none{L"twtest"};
    ASSERT_EQ(0, plain.open(&application, none.argc(), none.argv()));
    EXPECT_EQ(std::vector<std::string>({"%D ERROR (%t): Can not resolve path to path",
                                        "%D ERROR (%t): Can not resolve path to path"}),
              log.lines());
}

TEST_F(ConfigurationTest, MissingOverrideFileLeavesRequiredSettingsMissing) {
    TestApplication application;
    Configuration configuration;
    ASSERT_EQ(0, configuration.import(Tarnwick::APPLICATION_SETTINGS));
    ASSERT_EQ(0, configuration.import(Tarnwick::PATH_SETTINGS));
    Arguments arguments{L"twtest", L"-c", widen(path("missing.conf"))};
    LogCapture log;
    EXPECT_EQ(-1, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_EQ(
        std::vector<std::string>({"%D ERROR (%t): A required option is missing: paths - pid"}),
        log.lines());
}

TEST_F(ConfigurationTest, BrokenOverrideFileFailsWithoutAMessageOfItsOwn) {
    std::string const override = path("override.conf");
    writeFile(override, "var=/before/any/section\n[paths]\nlog=/x\n");
    TestApplication application;
    Configuration configuration;
    ASSERT_EQ(0, configuration.import(Tarnwick::APPLICATION_SETTINGS));
    declare(configuration, L"log", 0, L"paths", Tarnwick::SETTING_ARGUMENT);
    Arguments arguments{L"twtest", L"-c", widen(override)};
    LogCapture log;
    EXPECT_EQ(-1, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_EQ(std::vector<std::string>({kNoSection}), log.lines());
    EXPECT_FALSE(configuration.hasKey(L"log"));
}

TEST_F(ConfigurationTest, EmptyValueInAFileIsAbsent) {
    std::string const main = path("agent.conf");
    registerProduct("Agent", main);
    writeFile(main, "[paths]\nvar=\npid=/main/pid\nrtdir=/main/rt\ntemp=/main/temp\n");
    TestApplication application;
    Configuration configuration;
    ASSERT_EQ(0, configuration.import(Tarnwick::PATH_SETTINGS));
    Arguments arguments{L"twtest"};
    LogCapture log;
    EXPECT_EQ(-1, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_EQ(
        std::vector<std::string>({"%D ERROR (%t): A required option is missing: paths - var"}),
        log.lines());
    EXPECT_FALSE(configuration.hasKey(L"var"));
    EXPECT_TRUE(configuration.hasKey(L"pid"));
}

// A setting of product "Agent" and one without product in a program named
// "Agent" read the same files, each once.
TEST_F(ConfigurationTest, ProductAndApplicationNameShareTheCache) {
    std::string const main = path("agent.conf");
    registerProduct("Agent", main);
    writeFile(main, "[paths]\nlog=/main/log\nvar=/main/var\n");
    writeFile(main + ".local", "[paths]\nvar=/local/var\n");
    TestApplication application(L"Agent");
    Configuration configuration;
    declare(configuration, L"log", 0, L"paths", Tarnwick::SETTING_ARGUMENT, L"Agent");
    declare(configuration, L"var", 0, L"paths", Tarnwick::SETTING_ARGUMENT);
    OpenCounter counter;
    ASSERT_EQ(1, counter.watch(main));
    ASSERT_EQ(2, counter.watch(main + ".local"));
    ASSERT_EQ(3, counter.watch(registry_ + "/Agent.reg"));
    Arguments arguments{L"twtest"};
    ASSERT_EQ(0, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_EQ(std::wstring(L"/main/log"), text(configuration.asString(L"log")));
    EXPECT_EQ(std::wstring(L"/local/var"), text(configuration.asString(L"var")));
    std::vector<int> const opens = counter.counts(3);
    EXPECT_EQ(1, opens[1]);
    EXPECT_EQ(1, opens[2]);
    EXPECT_EQ(2, opens[3]);

    // Another product has files of its own.
    std::string const other = path("other.conf");
    registerProduct("Other", other);
    writeFile(other, "[paths]\nlog=/other/log\n");
    Configuration second;
    declare(second, L"log", 0, L"paths", Tarnwick::SETTING_ARGUMENT, L"Other");
    declare(second, L"var", 0, L"paths", Tarnwick::SETTING_ARGUMENT);
    ASSERT_EQ(0, second.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_EQ(std::wstring(L"/other/log"), text(second.asString(L"log")));
    EXPECT_EQ(std::wstring(L"/local/var"), text(second.asString(L"var")));
}

TEST_F(ConfigurationTest, BrokenMainOrLocalFilePassesTheSettingOver) {
    std::string const main = path("agent.conf");
    registerProduct("Agent", main);
    writeFile(main, "log=/before/any/section\n[paths]\nvar=/main/var\n");
    writeFile(main + ".local", "[paths]\nvar=/local/var\n");
    TestApplication application;
    Configuration configuration;
    declare(configuration, L"log", 0, L"paths", Tarnwick::SETTING_ARGUMENT);
    declare(configuration, L"var", 0, L"paths", Tarnwick::SETTING_ARGUMENT);
    OpenCounter counter;
    ASSERT_EQ(1, counter.watch(main));
    Arguments arguments{L"twtest"};
    LogCapture log;
    ASSERT_EQ(0, configuration.open(&application, arguments.argc(), arguments.argv()));
    // Even the local file is not looked at, and each setting tries again.
    EXPECT_FALSE(configuration.hasKey(L"log"));
    EXPECT_FALSE(configuration.hasKey(L"var"));
    EXPECT_EQ(2, counter.counts(1)[1]);
    EXPECT_EQ(std::vector<std::string>({kNoSection, kNoSection}), log.lines());

    writeFile(main, "[paths]\nlog=/main/log\n");
    writeFile(main + ".local", "var=/before/any/section\n[paths]\nvar=/local/var\n");
    Configuration second;
    declare(second, L"log", 0, L"paths", Tarnwick::SETTING_ARGUMENT);
    declare(second, L"var", 0, L"paths", Tarnwick::SETTING_ARGUMENT);
    log.clear();
    ASSERT_EQ(0, second.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_FALSE(second.hasKey(L"log"));
    EXPECT_FALSE(second.hasKey(L"var"));
    EXPECT_EQ(std::vector<std::string>({kNoSection, kNoSection}), log.lines());
}

TEST_F(ConfigurationTest, BrokenDoubleLocalFileIsFatal) {
    std::string const main = path("agent.conf");
    registerProduct("Agent", main);
    writeFile(main, "[paths]\nlog=/main/log\n");
    writeFile(main + ".local.local", "log=/before/any/section\n");
    TestApplication application;
    Configuration configuration;
    declare(configuration, L"log", 0, L"paths", Tarnwick::SETTING_ARGUMENT);
    Arguments arguments{L"twtest"};
    LogCapture log;
    EXPECT_EQ(-1, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_EQ(
        std::vector<std::string>({kNoSection, "%D ERROR (%t): Can not open configuration file"}),
        log.lines());
    EXPECT_FALSE(configuration.hasKey(L"log"));
}

TEST_F(ConfigurationTest, WithoutRegistryEntryTheLocalFileIsBareDotLocal) {
    char previous[PATH_MAX];
    ASSERT_NE(nullptr, getcwd(previous, sizeof previous));
    ASSERT_EQ(0, chdir(root_.c_str()));
    writeFile(path(".local"), "[paths]\nlog=/from/dot/local\n");
    TestApplication application(L"Unregistered");
    Configuration configuration;
    declare(configuration, L"log", 0, L"paths", Tarnwick::SETTING_ARGUMENT);
    Arguments arguments{L"twtest"};
    int const result = configuration.open(&application, arguments.argc(), arguments.argv());
    ASSERT_EQ(0, chdir(previous));
    ASSERT_EQ(0, result);
    EXPECT_EQ(std::wstring(L"/from/dot/local"), text(configuration.asString(L"log")));
}

TEST_F(ConfigurationTest, SettingsThatFilesNeverServe) {
    std::string const main = path("agent.conf");
    registerProduct("Agent", main);
    writeFile(main, "[paths]\nflag=1\nnofile=/x\naction=/x\nundeclared=/x\nnosection=/x\n");
    TestApplication application;
    Configuration configuration;
    declare(configuration, L"flag", 0, L"paths", 0);
    declare(configuration, L"nofile", 0, L"paths",
            Tarnwick::SETTING_ARGUMENT | Tarnwick::SETTING_NO_FILE);
    declare(configuration, L"action", 0, L"paths",
            Tarnwick::SETTING_ARGUMENT | Tarnwick::SETTING_ACTION);
    declare(configuration, L"nosection", 0, nullptr, Tarnwick::SETTING_ARGUMENT);
    Arguments arguments{L"twtest"};
    ASSERT_EQ(0, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_FALSE(configuration.hasKey(L"flag"));
    EXPECT_FALSE(configuration.hasKey(L"nofile"));
    EXPECT_FALSE(configuration.hasKey(L"action"));
    EXPECT_FALSE(configuration.hasKey(L"nosection"));
    EXPECT_FALSE(configuration.hasKey(L"undeclared"));
    EXPECT_EQ(nullptr, configuration.asString(L"undeclared"));
}

TEST_F(ConfigurationTest, ProductConfigfilePath) {
    Configuration configuration;
    std::wstring const before(L"untouched");
    ACE_WString out(before.c_str(), before.size());
    EXPECT_EQ(-1, configuration.productConfigfilePath(L"Nothing", out));
    EXPECT_EQ(std::wstring(L"untouched"), out.c_str());
    registerProduct("Agent", "/etc/tarnwick/agent.conf");
    EXPECT_EQ(0, configuration.productConfigfilePath(L"Agent", out));
    EXPECT_EQ(std::wstring(L"/etc/tarnwick/agent.conf"), out.c_str());
    registerProduct("Empty", "");
    EXPECT_EQ(-1, configuration.productConfigfilePath(L"Empty", out));
    EXPECT_EQ(std::wstring(), out.c_str());
}

// ---------------------------------------------------------------- reload

TEST_F(ConfigurationTest, ReloadReadsTheFilesAgainAndKeepsTheCommandLine) {
    std::string const main = path("agent.conf");
    registerProduct("Agent", main);
    writeFile(main, "[paths]\nlog=/main/log\nvar=/main/var\ntemp=/main/temp\n");
    TestApplication application;
    Configuration configuration;
    Setting* const log = declare(configuration, L"log", 0, L"paths", Tarnwick::SETTING_ARGUMENT);
    declare(configuration, L"var", 0, L"paths", Tarnwick::SETTING_ARGUMENT);
    declare(configuration, L"temp", 0, L"paths", Tarnwick::SETTING_ARGUMENT);
    Arguments arguments{L"twtest", L"--temp=/cli/temp"};
    ASSERT_EQ(0, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_EQ(std::wstring(L"/main/log"), text(configuration.asString(L"log")));
    EXPECT_EQ(std::wstring(L"/main/var"), text(configuration.asString(L"var")));
    EXPECT_EQ(std::wstring(L"/cli/temp"), text(configuration.asString(L"temp")));

    writeFile(main, "[paths]\nvar=/new/var\ntemp=/new/temp\n");
    ASSERT_EQ(0, configuration.reload());
    EXPECT_FALSE(configuration.hasKey(L"log"));
    EXPECT_EQ(nullptr, configuration.asString(L"log"));
    EXPECT_FALSE(log->isSet());
    EXPECT_EQ(1, log->hasFlag(Tarnwick::SETTING_FROM_FILE));
    EXPECT_EQ(std::wstring(L"/new/var"), text(configuration.asString(L"var")));
    EXPECT_EQ(std::wstring(L"/cli/temp"), text(configuration.asString(L"temp")));
    EXPECT_TRUE(configuration.isOk());
}

TEST_F(ConfigurationTest, FailedReloadKeepsWhatCouldBeRead) {
    std::string const main = path("agent.conf");
    registerProduct("Agent", main);
    writeFile(main, "[paths]\nvar=/main/var\npid=/main/pid\nrtdir=/main/rt\ntemp=/main/temp\n");
    TestApplication application;
    Configuration configuration;
    ASSERT_EQ(0, configuration.import(Tarnwick::PATH_SETTINGS));
    Arguments arguments{L"twtest"};
    ASSERT_EQ(0, configuration.open(&application, arguments.argc(), arguments.argv()));
    ASSERT_TRUE(configuration.isOk());

    writeFile(main, "[paths]\nvar=/new/var\n");
    LogCapture log;
    EXPECT_EQ(-1, configuration.reload());
    EXPECT_EQ(
        std::vector<std::string>({"%D ERROR (%t): A required option is missing: paths - pid"}),
        log.lines());
    EXPECT_FALSE(configuration.isOk());
    EXPECT_EQ(std::wstring(L"/new/var"), text(configuration.asString(L"var")));
    EXPECT_FALSE(configuration.hasKey(L"temp"));
}

// Lookups on other threads never see the values that a reload has dropped
// and not yet read again.
TEST_F(ConfigurationTest, LookupsDuringReloadSeeWholeStates) {
    std::string const main = path("agent.conf");
    registerProduct("Agent", main);
    writeFile(main, "[misc]\ncount=42\n");
    TestApplication application;
    Configuration configuration;
    declare(configuration, L"count", 0, L"misc", Tarnwick::SETTING_ARGUMENT);
    declare(configuration, L"scratch", 0, nullptr, Tarnwick::SETTING_ARGUMENT);
    Arguments arguments{L"twtest"};
    ASSERT_EQ(0, configuration.open(&application, arguments.argc(), arguments.argv()));

    std::atomic<int> failures(0);
    std::vector<std::thread> readers;
    for (int t = 0; t < 4; ++t) {
        readers.emplace_back([&configuration, &failures]() {
            for (int i = 0; i < 500; ++i) {
                int count = 0;
                if (configuration.getValue(L"count", count) != 0 || count != 42 ||
                    !configuration.keyEquals(L"count", L"42", false))
                    ++failures;
                configuration.setKeyVal(L"scratch", L"x");
            }
        });
    }
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(0, configuration.reload());
    for (std::thread& reader : readers)
        reader.join();
    EXPECT_EQ(0, failures.load());
}

// ---------------------------------------------------------------- lookups

TEST(ConfigurationLookupTest, SetKeyValReportsWhetherTheKeyWasThere) {
    Configuration configuration;
    Setting* const setting = declare(configuration, L"name", 0, nullptr, 0);
    EXPECT_FALSE(configuration.hasKey(L"name"));
    EXPECT_FALSE(configuration.setKeyVal(L"name", L"first"));
    EXPECT_TRUE(configuration.hasKey(L"name"));
    EXPECT_EQ(std::wstring(L"first"), text(configuration.asString(L"name")));
    EXPECT_TRUE(configuration.setKeyVal(L"name", L"second"));
    EXPECT_EQ(std::wstring(L"second"), text(configuration.asString(L"name")));
    EXPECT_TRUE(configuration.setKeyVal(L"name", nullptr));
    EXPECT_TRUE(configuration.hasKey(L"name"));
    EXPECT_EQ(nullptr, configuration.asString(L"name"));
    EXPECT_FALSE(setting->isSet());

    EXPECT_FALSE(configuration.setKeyVal(L"undeclared", L"x"));
    EXPECT_FALSE(configuration.hasKey(L"undeclared"));
    EXPECT_FALSE(configuration.setKeyVal(nullptr, L"x"));
    EXPECT_EQ(nullptr, configuration.asString(nullptr));
    EXPECT_FALSE(configuration.hasKey(nullptr));
}

TEST(ConfigurationLookupTest, KeyEquals) {
    Configuration configuration;
    declare(configuration, L"flag", 0, nullptr, 0);
    declare(configuration, L"mode", 0, nullptr, Tarnwick::SETTING_ARGUMENT);
    declare(configuration, L"absent", 0, nullptr, Tarnwick::SETTING_ARGUMENT);
    TestApplication application;
    Arguments arguments{L"twtest", L"--flag", L"--mode=Fast \u00e9"};
    ASSERT_EQ(0, configuration.open(&application, arguments.argc(), arguments.argv()));

    EXPECT_TRUE(configuration.keyEquals(L"flag", L"anything", true));
    EXPECT_FALSE(configuration.keyEquals(L"flag", L"anything", false));
    EXPECT_TRUE(configuration.keyEquals(L"mode", L"Fast \u00e9", false));
    EXPECT_FALSE(configuration.keyEquals(L"mode", L"fast \u00e9", true));
    EXPECT_FALSE(configuration.keyEquals(L"mode", L"Fast", true));
    EXPECT_FALSE(configuration.keyEquals(L"mode", nullptr, true));
    EXPECT_FALSE(configuration.keyEquals(L"absent", L"x", true));
    EXPECT_FALSE(configuration.keyEquals(L"undeclared", L"x", true));
}

TEST(ConfigurationLookupTest, OpenWithPathNeedsTheKeyToBeThere) {
    char pattern[] = "/tmp/tw-configuration-open-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    std::string const file = std::string(pattern) + "/app.conf";
    writeFile(file, "[paths]\nlog=/file/log\n");

    Configuration configuration;
    ASSERT_EQ(0, configuration.import(Tarnwick::APPLICATION_SETTINGS));
    declare(configuration, L"log", 0, L"paths", Tarnwick::SETTING_ARGUMENT);
    EXPECT_EQ(-1, configuration.open(widen(file).c_str()));
    EXPECT_EQ(widen(file), text(configuration.asString(L"configfile")));
    EXPECT_FALSE(configuration.hasKey(L"log"));
    EXPECT_EQ(0, configuration.open(widen(file).c_str()));
    EXPECT_EQ(std::wstring(L"/file/log"), text(configuration.asString(L"log")));
    EXPECT_TRUE(configuration.isOk());

    Configuration undeclared;
    EXPECT_EQ(-1, undeclared.open(widen(file).c_str()));
    EXPECT_EQ(-1, undeclared.open(widen(file).c_str()));

    std::error_code ignored;
    std::filesystem::remove_all(pattern, ignored);
}

TEST(ConfigurationLookupTest, ValidateNamesTheFirstMissingSetting) {
    Configuration configuration;
    declare(configuration, L"zeta", 0, nullptr, Tarnwick::SETTING_REQUIRED);
    declare(configuration, L"alpha", 0, L"paths",
            Tarnwick::SETTING_REQUIRED | Tarnwick::SETTING_ARGUMENT);
    TestApplication application;
    Arguments arguments{L"twtest"};
    LogCapture log;
    EXPECT_EQ(-1, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_FALSE(configuration.isOk());
    configuration.setKeyVal(L"alpha", L"/a");
    EXPECT_EQ(-1, configuration.open(&application, arguments.argc(), arguments.argv()));
    configuration.setKeyVal(L"zeta", nullptr);
    EXPECT_EQ(0, configuration.open(&application, arguments.argc(), arguments.argv()));
    EXPECT_TRUE(configuration.isOk());
    EXPECT_EQ(
        std::vector<std::string>({"%D ERROR (%t): A required option is missing: paths - alpha",
                                  "%D ERROR (%t): A required option is missing: zeta"}),
        log.lines());
}

TEST(ConfigurationLookupTest, DumpListsEverySettingByLongOption) {
    Configuration configuration;
    declare(configuration, L"zeta", 0, nullptr, Tarnwick::SETTING_ARGUMENT);
    declare(configuration, L"alpha", 0, L"paths", Tarnwick::SETTING_ARGUMENT);
    declare(configuration, L"a_rather_long_option_name", 0, nullptr, Tarnwick::SETTING_ARGUMENT);
    configuration.setKeyVal(L"alpha", L"/a");
    LogCapture log;
    configuration.dump();
    EXPECT_EQ(std::vector<std::string>({" a_rather_long_option_name : unset",
                                        " alpha                : (ok) /a",
                                        " zeta                 : unset"}),
              log.lines());
}

}  // namespace
