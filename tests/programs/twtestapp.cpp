// twtestapp: the application that the application tests run as a child
// process.
//
// Settings, besides those of the library:
//   --mode=MODE      plain (the default): logs the greeting, prints the log
//                    file on standard output and returns 0;
//                    tasks: opens and starts the tasks alpha, beta and gamma,
//                    prints "ready", reloads them on each reload request
//                    (printing "reloaded") and returns 0 once stopped
//                    (printing "stopped");
//                    stay: as tasks, but stays after it is stopped until a
//                    signal ends it;
//                    busy: as tasks, but the main thread and one more thread
//                    allocate memory and log without pause until stopped.
//   --logfile=PATH   the log file.
//   [test] greeting  text that plain mode logs.
//   [test] nobeta    0 switches the task beta off.
//
// The lines on standard output are the test's cues: it waits for them before
// it sends a signal. A program that is never told to end is ended by an alarm
// after 20 seconds, so that a broken test can't hang.
#include <tarnwick/application.h>
#include <tarnwick/configuration.h>

#include <ace/Log_Msg.h>

#include <unistd.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

const Tarnwick::Setting::Importer kSettings[] = {
    {"m", nullptr, nullptr, nullptr, nullptr, 0},
    {"mode", nullptr, nullptr, "What main does: plain, tasks, stay or busy.", "MODE",
     Tarnwick::SETTING_ARGUMENT},
    {"logfile", nullptr, nullptr, "Log output to the file PATH.", "PATH",
     Tarnwick::SETTING_ARGUMENT},
    {"greeting", "test", nullptr, "Text that is logged in plain mode.", "TEXT",
     Tarnwick::SETTING_ARGUMENT},
    {"nobeta", "test", nullptr, "0 switches the task beta off.", nullptr,
     Tarnwick::SETTING_ARGUMENT},
    {nullptr, nullptr, nullptr, nullptr, nullptr, 0},
};

// Writes a cue line on standard output at once.
void cue(const std::string& text) {
    std::string const line = text + "\n";
    ssize_t const written = ::write(STDOUT_FILENO, line.data(), line.size());
    (void)written;
}

// One round of work that takes the locks a signal handler must not take:
// the allocator's and the log's.
void churn(unsigned round) {
    std::vector<std::unique_ptr<std::string>> blocks;
    for (unsigned i = 0; i < 32; ++i)
        blocks.emplace_back(new std::string(16 + (round * 31 + i * 17) % 4000, 'x'));
    if (round % 8 == 0)
        ACE_DEBUG((LM_INFO, ACE_TEXT("%D INFO  (%t): busy %u\n"), round));
}

void sleepMilliseconds(long milliseconds) {
    timespec const wait = {0, milliseconds * 1000000L};
    ::nanosleep(&wait, nullptr);
}

// Logs each step of its life at information priority.
class NamedTask : public Tarnwick::Task {
public:
    explicit NamedTask(const wchar_t* name) : name_(name) {}
    const wchar_t* name() override { return name_; }
    int open() override { return step("open"); }
    int close() override { return step("close"); }
    int reload() override { return step("reload"); }
    int run() override { return step("run"); }
    int reload_ready() override { return step("reload_ready"); }

private:
    int step(const char* what) {
        ACE_DEBUG((LM_INFO, ACE_TEXT("%D INFO  (%t): %W: %C\n"), name_, what));
        return 0;
    }

    const wchar_t* name_;
};

class TestApplication : public Tarnwick::Application {
public:
    TestApplication() { Tarnwick::getConfigSingleton()->import(kSettings); }

    const wchar_t* name() override { return L"twtestapp"; }
    const wchar_t* description() override { return L"Tarnwick test program"; }
    const wchar_t* long_description() override {
        return L"Runs the cases of the application tests.";
    }

    int main() override {
        Tarnwick::Configuration* config = Tarnwick::getConfigSingleton();
        if (config->keyEquals(L"mode", L"tasks", false))
            return tasks(false);
        if (config->keyEquals(L"mode", L"stay", false))
            return tasks(true);
        if (config->keyEquals(L"mode", L"busy", false))
            return busy();
        return plain();
    }

private:
    int plain() {
        const wchar_t* const greeting = Tarnwick::getConfigSingleton()->asString(L"greeting");
        if (greeting != nullptr)
            ACE_DEBUG((LM_INFO, ACE_TEXT("%D INFO  (%t): greeting: %W\n"), greeting));
        std::string file;
        cue(getLogFile(file) == 0 ? "logfile: " + file : std::string("logfile: none"));
        return 0;
    }

    int tasks(bool stay) {
        ::alarm(20);
        register_task(new NamedTask(L"alpha"), 1);
        register_task(new NamedTask(L"beta"), 1);
        register_task(new NamedTask(L"gamma"), 1);
        if (open_all_tasks() == -1 || start_all_tasks() == -1)
            return -1;
        cue("ready");
        while (!isStopped()) {
            if (reload_pending()) {
                reload_pending(false);
                reload();
                cue("reloaded");
            }
            sleepMilliseconds(5);
        }
        cue("stopped");
        while (stay)
            ::pause();
        return 0;
    }

    int busy() {
        ::alarm(20);
        register_task(new NamedTask(L"alpha"), 1);
        register_task(new NamedTask(L"beta"), 1);
        register_task(new NamedTask(L"gamma"), 1);
        if (open_all_tasks() == -1 || start_all_tasks() == -1)
            return -1;
        std::thread other([this]() {
            for (unsigned round = 1; !isStopped(); ++round)
                churn(round);
        });
        cue("ready");
        for (unsigned round = 0; !isStopped(); ++round) {
            if (reload_pending()) {
                reload_pending(false);
                reload();
            }
            churn(round);
        }
        other.join();
        cue("stopped");
        return 0;
    }
};

}  // namespace

int main(int argc, char** argv) {
    TestApplication application;
    return application.run(argc, argv);
}
