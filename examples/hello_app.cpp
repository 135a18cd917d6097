// hello_app: the smallest complete Application. It declares one setting,
// "greeting" in the section [hello] of its configuration file (or -g/--greeting
// on the command line), and runs one task that prints it. Run without
// arguments and without a configuration file it prints "greeting: Hello,
// world" and exits with status 0; --help prints its usage.
//
// docs/application.md walks through it.
#include <tarnwick/application.h>
#include <tarnwick/configuration.h>
#include <tarnwick/tarnwick.h>

#include <cstdio>

namespace {

// -g / --greeting=TEXT, read from the section [hello] of hello_app's file.
const Tarnwick::Setting::Importer kSettings[] = {
    {"g", nullptr, nullptr, nullptr, nullptr, 0},
    {"greeting", "hello", nullptr, "Greet with TEXT.", "TEXT", Tarnwick::SETTING_ARGUMENT},
    {nullptr, nullptr, nullptr, nullptr, nullptr, 0},
};

class Greeter : public Tarnwick::Task {
public:
    const wchar_t* name() override { return L"greeter"; }
    int run() override {
        const wchar_t* text = Tarnwick::getConfigSingleton()->asString(L"greeting");
        char* utf8 = Tarnwick::wcstoutf8_malloced(text != nullptr ? text : L"Hello, world");
        std::printf("greeting: %s\n", utf8 != nullptr ? utf8 : "?");
        Tarnwick::utf8free(utf8);
        return 0;
    }
};

class HelloApp : public Tarnwick::Application {
public:
    HelloApp() { Tarnwick::getConfigSingleton()->import(kSettings); }
    const wchar_t* name() override { return L"hello_app"; }
    const wchar_t* description() override { return L"Tarnwick greeting example"; }
    const wchar_t* long_description() override { return L"Prints a greeting and ends."; }
    int main() override {
        register_task(new Greeter, 1);  // owned: the application deletes it
        int const status = open_all_tasks() == 0 && start_all_tasks() == 0 ? 0 : 1;
        close();  // closes the tasks in reverse order
        return status;
    }
};

}  // namespace

int main(int argc, char** argv) {
    // Before the application is made: no [paths] or [webservices] settings,
    // so that the program runs without an agent installation.
    Tarnwick::getConfigSingleton()->disableDefaults();
    Tarnwick::getConfigSingleton()->disableWebservices();
    HelloApp app;
    return app.run(argc, argv);
}
