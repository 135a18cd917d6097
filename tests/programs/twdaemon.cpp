// twdaemon: the daemon that the daemon and service tests run as a child
// process. It carries out the service actions of the library, or runs: it
// writes its pid file (into --pid=DIR), starts its tasks, prints "ready",
// prints "reloaded" after each reload and "stopped" when SIGTERM or SIGINT
// has stopped it, and returns --status (0 unless given). A pid file that
// another instance holds prints "locked" and gives 3.
//
// --broken registers a task that fails to open. --tick=MS shortens the second of the reload task. A
// program that is never told to end is ended by an alarm after 20 seconds.
#include <tarnwick/configuration.h>
#include <tarnwick/pidfile.h>

#include <ace/Time_Value.h>

#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <string>

namespace {

const Tarnwick::Setting::Importer kSettings[] = {
    {"pid", nullptr, nullptr, "Pid file directory.", "DIR", Tarnwick::SETTING_ARGUMENT},
    {"tick", nullptr, nullptr, "Milliseconds of a second of the reload task.", "MS",
     Tarnwick::SETTING_ARGUMENT},
    {"status", nullptr, nullptr, "Exit status of main.", "N", Tarnwick::SETTING_ARGUMENT},
    {"broken", nullptr, nullptr, "A task that fails to open.", nullptr, 0},
    {nullptr, nullptr, nullptr, nullptr, nullptr, 0},
};

void cue(const std::string& text) {
    std::string const line = text + "\n";
    ssize_t const written = ::write(STDOUT_FILENO, line.data(), line.size());
    (void)written;
}

// With --broken, fails to open.
class BrokenTask : public Tarnwick::Task {
public:
    const wchar_t* name() override { return L"broken"; }
    int open() override { return Tarnwick::getConfigSingleton()->hasKey(L"broken") ? -1 : 0; }
};

class TestDaemon : public Tarnwick::DaemonApplication {
public:
    TestDaemon() {
        Tarnwick::getConfigSingleton()->import(kSettings);
        register_task(new BrokenTask(), 1);
    }

    const wchar_t* name() override { return L"twdaemon"; }
    const wchar_t* description() override { return L"Tarnwick test daemon"; }
    const wchar_t* long_description() override {
        return L"Runs the cases of the daemon tests (100% safe).";
    }

    int open() override {
        int tick = 0;
        if (Tarnwick::getConfigSingleton()->getValue(L"tick", tick) == 0 && tick > 0)
            reloadTask()->setTick(ACE_Time_Value(0, tick * 1000));
        return 0;
    }

    int main() override {
        Tarnwick::PidFile pid(L"twdaemon");
        if (pid.setPid(0) == -1) {
            cue("locked");
            return 3;
        }
        if (start_all_tasks() == -1)
            return -1;
        cue("ready");
        while (isStopped() == 0) {
            timespec const pause = {0, 10 * 1000 * 1000};
            ::nanosleep(&pause, nullptr);
        }
        cue("stopped");
        int status = 0;
        Tarnwick::getConfigSingleton()->getValue(L"status", status);
        return status;
    }

    int reload() override {
        int const result = DaemonApplication::reload();
        cue("reloaded");
        return result;
    }

    // Stopping closes the tasks and sets the stopped flag.
    int close() override { return Application::close(); }
};

}  // namespace

int main(int argc, char** argv) {
    ::alarm(20);
    Tarnwick::Configuration* config = Tarnwick::getConfigSingleton();
    config->disableDefaults();
    config->disableWebservices();
    TestDaemon daemon;
    return daemon.run(argc, argv);
}
