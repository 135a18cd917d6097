// demo_agent: a small agent built on the message engine.
//
// It listens on a port of the loopback interface, over SSL unless --nossl
// says otherwise, runs the engine with worker threads, and answers what its
// peers send:
//
//   IdentityEvent     takes in who the peer is (Engine::activate_handler);
//                     no reply
//   GetVersionEvent   the agent's name and version
//   DirListEvent      the entries of the directory in the argument "path"
//   HeartBeatEvent    no reply
//   anything else     an error reply: the command is not supported
//
// SIGINT or SIGTERM stop it: the engine shuts down, which closes every
// connection, and the program ends with status 0.
//
// Usage:
//   demo_agent --port=PORT --keydir=DIR [--nossl] [--threads=N] [--agentid=ID]
//              [--portfile=PATH]
//
// --port=0 picks a free port. The agent prints the port it listens at on
// standard output and, with --portfile, writes it to that file as well, so
// that a script can start it and then find it. demo_control is its client.
//
// SSL takes the agent's certificate and private key from DIR/demo_agent.cert
// and DIR/demo_agent.key (PEM); tests/support/make_certs.sh DIR demo_agent
// demo_control makes a certificate authority and the files of both
// programs. --nossl listens with plain sockets instead; --keydir is required
// all the same.
//
// tarnwick-example: session
#include <tarnwick/abstract_event.h>
#include <tarnwick/application.h>
#include <tarnwick/configuration.h>
#include <tarnwick/engine.h>
#include <tarnwick/event_factory.h>
#include <tarnwick/identity.h>
#include <tarnwick/log.h>
#include <tarnwick/router.h>
#include <tarnwick/security.h>

#include <ace/INET_Addr.h>
#include <ace/Reactor.h>
#include <ace/SOCK_Acceptor.h>
#include <ace/Synch_Options.h>
#include <ace/Time_Value.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

namespace {

const char* const AGENT_NAME = "demo_agent";

const Tarnwick::Setting::Importer AGENT_SETTINGS[] = {
    {"p", nullptr, nullptr, nullptr, nullptr, 0},
    {"port", "demo", nullptr, "Listen at PORT on 127.0.0.1 (0: a free port).", "PORT",
     Tarnwick::SETTING_REQUIRED | Tarnwick::SETTING_ARGUMENT},
    {"t", nullptr, nullptr, nullptr, nullptr, 0},
    {"threads", "demo", nullptr, "Run N worker threads (default 2).", "N",
     Tarnwick::SETTING_ARGUMENT},
    {"agentid", "demo", nullptr, "Report ID as the agent's number (default 1).", "ID",
     Tarnwick::SETTING_ARGUMENT},
    {"portfile", nullptr, nullptr, "Write the port to PATH once listening.", "PATH",
     Tarnwick::SETTING_ARGUMENT | Tarnwick::SETTING_NO_FILE},
    {nullptr, nullptr, nullptr, nullptr, nullptr, 0},
};

// The display name of an event type.
const char* commandName(uint32_t type) {
    static const char* const names[] = {
        "None",         "Identity",       "Error",       "DirList",       "Download",
        "Upload",       "StartProcess",   "StopProcess", "StatusProcess", "OutputProcess",
        "ListSessions", "Kick",           "GetJobLog",   "StopJob",       "Reload",
        "HeartBeat",    "WorkflowAction", "GetVersion",  "SetDebug",      "JobStepProgress"};
    return type < sizeof names / sizeof names[0] ? names[type] : "Unknown";
}

std::string narrow(const wchar_t* text) {
    std::string out;
    for (; text != nullptr && *text != L'\0'; ++text)
        out += static_cast<char>(*text < 128 ? *text : '?');
    return out;
}

// Answers the peers' events; runs on the engine's worker threads.
class AgentEvents : public Tarnwick::EventHandler {
public:
    explicit AgentEvents(const std::string& version) : m_version(version) {}

    int handle(Tarnwick::IdentityEvent* event) override {
        // Fills in the identity of the connection that sent the event.
        Tarnwick::Engine::getSingleton()->activate_handler(event);
        return 0;
    }

    int handle(Tarnwick::GetVersionEvent* event) override {
        // The event becomes its own reply: the engine has set its result
        // flag, and a result other than 0 and -1 sends it back.
        event->reset();
        event->setArg("name", AGENT_NAME);
        event->setArg("version", m_version);
        return 1;
    }

    int handle(Tarnwick::DirListEvent* event) override {
        std::string path;
        if (event->getArg("path", path) == -1)
            return event->error("No directory given: the argument \"path\" is missing.", EINVAL);

        std::vector<std::filesystem::directory_entry> entries;
        std::error_code failure;
        for (std::filesystem::directory_iterator it(path, failure), end; !failure && it != end;
             it.increment(failure)) {
            entries.push_back(*it);
        }
        if (failure) {
            std::string const text = "Can not list " + path + ": " + failure.message() + ".";
            return event->error(text.c_str(), failure.value());
        }
        std::sort(entries.begin(), entries.end(),
                  [](const std::filesystem::directory_entry& a,
                     const std::filesystem::directory_entry& b) {
                      return a.path().filename() < b.path().filename();
                  });

        event->reset();
        event->setArg("path", path);
        event->setArg("count", static_cast<uint64_t>(entries.size()));
        int number = 0;
        for (const std::filesystem::directory_entry& entry : entries) {
            std::error_code ignored;
            std::string text;
            if (entry.is_directory(ignored)) {
                text = "dir  ";
            } else if (entry.is_regular_file(ignored)) {
                text = "file ";
            } else {
                text = "other ";
            }
            text += entry.path().filename().string();
            if (entry.is_regular_file(ignored))
                text += " (" + std::to_string(entry.file_size(ignored)) + " bytes)";
            std::string const name = "entry." + std::to_string(++number);
            event->setArg(name.c_str(), text);
        }
        return 1;
    }

    int handle(Tarnwick::HeartBeatEvent*) override {
        // The peer is alive; heartbeats get no reply.
        return 0;
    }

    int handle_unsupported(Tarnwick::Abstract_Event* event) override {
        std::string const text =
            std::string("Unsupported command: ") + commandName(event->getType()) + ".";
        return event->error(text.c_str(), ENOSYS);
    }

private:
    std::string m_version;
};

// A port on 127.0.0.1 that nothing listens at, or 0.
u_short freePort() {
    ACE_SOCK_Acceptor probe;
    ACE_INET_Addr any(static_cast<u_short>(0), "127.0.0.1");
    if (probe.open(any, 1) == -1)
        return 0;
    ACE_INET_Addr local;
    probe.get_local_addr(local);
    probe.close();
    return local.get_port_number();
}

class DemoAgent : public Tarnwick::Application {
public:
    DemoAgent() {
        Tarnwick::getConfigSingleton()->import(AGENT_SETTINGS);
        // keydir and nossl.
        Tarnwick::Security::initSecurityOptions();
    }

    const wchar_t* name() override { return L"demo_agent"; }
    const wchar_t* description() override { return L"Tarnwick demo agent"; }
    const wchar_t* long_description() override {
        return L"Answers version, directory listing and heartbeat events on a loopback port.";
    }

    int main() override {
        Tarnwick::Configuration* config = Tarnwick::getConfigSingleton();
        int port = -1;
        int threads = 2;
        unsigned int agentid = 1;
        std::string portfile;
        config->getValue(L"port", port);
        config->getValue(L"threads", threads);
        config->getValue(L"agentid", agentid);
        config->getValue("portfile", portfile);
        bool const ssl = !config->hasKey(L"nossl");
        if (port < 0 || port > 65535 || threads < 0 || agentid == 0) {
            std::fprintf(stderr, "demo_agent: invalid --port, --threads or --agentid\n");
            return 1;
        }
        if (port == 0 && (port = freePort()) == 0) {
            std::fprintf(stderr, "demo_agent: no free port found\n");
            return 1;
        }

        // Who this process is, for its peers; with SSL also the name of its
        // key files.
        Tarnwick::Identity* self = Tarnwick::Identity::instance();
        self->setName(AGENT_NAME);
        self->setType(Tarnwick::Identity::TWAGENT);
        self->setAgentID(agentid);

        // The engine: peers identify themselves to the agent, and the agent
        // sends no identification request of its own (a Router has no
        // destination for an event that names none). Server mode sets the
        // SSL context up for accepting.
        Tarnwick::Engine* engine = Tarnwick::Engine::getSingleton();
        engine->disableIdentification();
        engine->enableServerMode();
        engine->event_handler(new AgentEvents(narrow(version())), true);
        engine->router(new Tarnwick::Router(), true);
        if (engine->open(threads, ssl) == -1) {
            std::fprintf(stderr, "demo_agent: the engine could not start%s\n",
                         ssl ? " (are demo_agent.cert and demo_agent.key in --keydir?)" : "");
            return 1;
        }

        ACE_INET_Addr const address(static_cast<u_short>(port), "127.0.0.1");
        ACE_Synch_Options options;
        unsigned long const flags =
            Tarnwick::CONNECTION_PASSIVE | (ssl ? Tarnwick::CONNECTION_SSL : 0);
        if (engine->makeConnection(address, flags, options) == -1) {
            std::fprintf(stderr, "demo_agent: can not listen at 127.0.0.1:%d: %s\n", port,
                         std::strerror(errno));
            engine->shutdown();
            return 1;
        }
        std::printf("demo_agent: listening at 127.0.0.1:%d (%s) with %d worker thread(s)\n", port,
                    ssl ? "SSL" : "plain sockets", threads);
        std::fflush(stdout);
        if (!portfile.empty()) {
            std::ofstream out(portfile.c_str(), std::ios::out | std::ios::trunc);
            out << port << "\n";
        }

        // The reactor runs on this thread. A signal interrupts the wait, and
        // close() (from the signal) marks the program stopped.
        ACE_Reactor* reactor = engine->getReactor();
        reactor->owner(ACE_Thread::self());
        while (!isStopped()) {
            ACE_Time_Value wait(0, 200000);
            reactor->handle_events(wait);
        }

        engine->shutdown();
        std::printf("demo_agent: stopped\n");
        return 0;
    }
};

}  // namespace

int main(int argc, char** argv) {
    // The library's path and web service settings are not needed here.
    Tarnwick::Configuration* config = Tarnwick::getConfigSingleton();
    config->disableDefaults();
    config->disableWebservices();
    DemoAgent agent;
    return agent.run(argc, argv);
}
