// demo_control: sends one command to an agent and prints the answer.
//
// It connects to the agent, over SSL unless --nossl says otherwise, with a
// SinglePeerRouter, which sends every event to its one peer; the engine
// identifies the tool to the agent on the way
// (an IdentityEvent of type twctrl). Then it sends the command named on its
// command line, waits for the reply and prints the reply's arguments, or the
// text and number of an error reply.
//
// Usage:
//   demo_control --port=PORT --keydir=DIR --command=NAME [--nossl]
//                [--host=HOST] [--path=DIR] [--wait=SECONDS]
//
// SSL takes the tool's certificate and private key from
// DIR/demo_control.cert and DIR/demo_control.key (see demo_agent); --nossl
// connects with a plain socket instead, to an agent that runs with --nossl.
//
// Commands: version, dirlist (with --path), heartbeat (the agent answers
// none), and kick, reload, sessions, joblog, setdebug, which demo_agent
// doesn't support.
//
// Exit status: 0 for a reply, 1 for an error reply, no reply in time or a
// bad command line, 2 when the agent can't be reached.
//
// The reply is the agent's text: before it reaches the terminal, control
// characters in it (U+0000 to U+001F, U+007F to U+009F) are shown as \xHH
// per byte, so that a reply can't move the cursor or change the terminal.
//
// tarnwick-example: session
#include <tarnwick/abstract_event.h>
#include <tarnwick/application.h>
#include <tarnwick/configuration.h>
#include <tarnwick/engine.h>
#include <tarnwick/event_factory.h>
#include <tarnwick/identity.h>
#include <tarnwick/router.h>
#include <tarnwick/security.h>

#include <ace/INET_Addr.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/Reactor.h>
#include <ace/Synch_Options.h>
#include <ace/Time_Value.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace {

const Tarnwick::Setting::Importer CONTROL_SETTINGS[] = {
    {"p", nullptr, nullptr, nullptr, nullptr, 0},
    {"port", "demo", nullptr, "Connect to the agent at PORT.", "PORT",
     Tarnwick::SETTING_REQUIRED | Tarnwick::SETTING_ARGUMENT},
    {"host", "demo", nullptr, "Connect to the agent on HOST (default 127.0.0.1).", "HOST",
     Tarnwick::SETTING_ARGUMENT},
    {"command", nullptr, nullptr,
     "Send NAME: version, dirlist, heartbeat, kick, reload, sessions, joblog, setdebug.", "NAME",
     Tarnwick::SETTING_REQUIRED | Tarnwick::SETTING_ARGUMENT | Tarnwick::SETTING_NO_FILE},
    {"path", nullptr, nullptr, "The directory that dirlist lists.", "DIR",
     Tarnwick::SETTING_ARGUMENT | Tarnwick::SETTING_NO_FILE},
    {"wait", "demo", nullptr, "Wait at most SECONDS for the reply (default 10).", "SECONDS",
     Tarnwick::SETTING_ARGUMENT},
    {nullptr, nullptr, nullptr, nullptr, nullptr, 0},
};

const std::pair<const char*, Tarnwick::EventType> COMMANDS[] = {
    {"version", Tarnwick::GET_VERSION_EVENT},  {"dirlist", Tarnwick::DIR_LIST_EVENT},
    {"heartbeat", Tarnwick::HEART_BEAT_EVENT}, {"kick", Tarnwick::KICK_EVENT},
    {"reload", Tarnwick::RELOAD_EVENT},        {"sessions", Tarnwick::LIST_SESSIONS_EVENT},
    {"joblog", Tarnwick::GET_JOB_LOG_EVENT},   {"setdebug", Tarnwick::SET_DEBUG_EVENT},
};

const int EXIT_REPLY = 0;
const int EXIT_ERROR = 1;
const int EXIT_UNREACHABLE = 2;

// Orders "entry.2" before "entry.10": text, then a trailing number by value.
bool naturalLess(const std::string& a, const std::string& b) {
    auto split = [](const std::string& s) {
        size_t digits = s.size();
        while (digits > 0 && std::isdigit(static_cast<unsigned char>(s[digits - 1])))
            --digits;
        long number = digits < s.size() ? std::strtol(s.c_str() + digits, nullptr, 10) : -1;
        return std::make_pair(s.substr(0, digits), number);
    };
    return split(a) < split(b);
}

// `text` with its control characters as \xHH, one per byte (the text is
// UTF-8, as every received argument is).
std::string printable(const std::string& text) {
    static const char HEX[] = "0123456789ABCDEF";
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        unsigned char const byte = static_cast<unsigned char>(text[i]);
        size_t count = 0;
        if (byte < 0x20 || byte == 0x7F) {
            count = 1;
        } else if (byte == 0xC2 && i + 1 < text.size() &&
                   static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
                   static_cast<unsigned char>(text[i + 1]) < 0xA0) {
            count = 2;
        }
        if (count == 0) {
            out += text[i];
            continue;
        }
        for (size_t k = 0; k < count; ++k, ++i) {
            unsigned char const b = static_cast<unsigned char>(text[i]);
            out += "\\x";
            out += HEX[b >> 4];
            out += HEX[b & 0x0F];
        }
        --i;
    }
    return out;
}

// What came back for the command.
struct Reply {
    bool arrived = false;
    bool error = false;
    std::map<std::string, std::string> args;
};

// Receives the events of the connection on the reactor thread: the agent's
// reply to our command, by its token, and any identification request.
class ReplyCatcher : public Tarnwick::EventHandler {
public:
    ReplyCatcher(uint32_t* token, Reply* reply) : m_token(token), m_reply(reply) {}

    int handle(Tarnwick::IdentityEvent* event) override {
        Tarnwick::Engine::getSingleton()->activate_handler(event);
        return 0;
    }
    int handle(Tarnwick::ErrorEvent* event) override { return take(event); }
    // The replies of every other type come here: this tool has no code of
    // its own for them.
    int handle_unsupported(Tarnwick::Abstract_Event* event) override { return take(event); }

private:
    int take(Tarnwick::Abstract_Event* event) {
        if (*m_token != 0 && event->getACT() == *m_token) {
            m_reply->arrived = true;
            m_reply->error = event->isError();
            m_reply->args = event->getArgMap();
        }
        return 0;  // consumed; nothing goes back
    }

    uint32_t* m_token;
    Reply* m_reply;
};

class DemoControl : public Tarnwick::Application {
public:
    DemoControl() : m_token(0), m_catcher(&m_token, &m_reply) {
        Tarnwick::getConfigSingleton()->import(CONTROL_SETTINGS);
        // keydir and nossl.
        Tarnwick::Security::initSecurityOptions();
    }

    const wchar_t* name() override { return L"demo_control"; }
    const wchar_t* description() override { return L"Tarnwick demo control tool"; }
    const wchar_t* long_description() override {
        return L"Sends one command to a demo agent and prints the reply.";
    }

    int main() override {
        Tarnwick::Configuration* config = Tarnwick::getConfigSingleton();
        int port = -1;
        int wait = 10;
        std::string host = "127.0.0.1";
        std::string command;
        std::string path;
        config->getValue(L"port", port);
        config->getValue(L"wait", wait);
        config->getValue("host", host);
        config->getValue("command", command);
        config->getValue("path", path);
        m_ssl = !config->hasKey(L"nossl");

        int type = 0;
        for (const auto& known : COMMANDS) {
            if (command == known.first)
                type = known.second;
        }
        if (type == 0 || port <= 0 || port > 65535 || wait < 0) {
            std::fprintf(stderr, "demo_control: unknown command or bad --port or --wait\n");
            return EXIT_ERROR;
        }

        Tarnwick::Identity* self = Tarnwick::Identity::instance();
        self->setName("demo_control");
        self->setType(Tarnwick::Identity::TWCTRL);
        self->setLogin("operator");
        self->setPassword("demo");

        // Events run on this thread (no workers): the handler and this code
        // share the reply without a lock.
        Tarnwick::Engine* engine = Tarnwick::Engine::getSingleton();
        engine->event_handler(&m_catcher, false);
        engine->router(new Tarnwick::SinglePeerRouter(), true);
        if (engine->open(0, m_ssl) == -1) {
            std::fprintf(stderr, "demo_control: the engine could not start%s\n",
                         m_ssl ? " (are demo_control.cert and demo_control.key in --keydir?)" : "");
            return EXIT_ERROR;
        }
        int const status = exchange(engine, host, port, command, type, path, wait);
        engine->shutdown();
        return status;
    }

private:
    int exchange(Tarnwick::Engine* engine, const std::string& host, int port,
                 const std::string& command, int type, const std::string& path, int wait) {
        ACE_INET_Addr const address(static_cast<u_short>(port), host.c_str());
        ACE_Synch_Options options;
        if (engine->makeConnection(address, m_ssl ? Tarnwick::CONNECTION_SSL : 0, options) == -1) {
            std::printf("demo_control: can not connect to %s:%d\n", host.c_str(), port);
            return EXIT_UNREACHABLE;
        }

        Tarnwick::Abstract_Event* event = Tarnwick::Event_Factory::create(type);
        if (event == nullptr)
            return EXIT_ERROR;
        if (!path.empty())
            event->setArg("path", path);
        uint32_t const token = event->getACT();
        int const sent = engine->forward(event);
        event->destroy();
        if (sent == -1) {
            std::printf("demo_control: %s could not be sent\n", command.c_str());
            return EXIT_UNREACHABLE;
        }

        // Heartbeats get no reply: give the message a moment to go out.
        bool const expectReply = type != Tarnwick::HEART_BEAT_EVENT;
        m_token = expectReply ? token : 0;
        ACE_Time_Value const deadline =
            ACE_OS::gettimeofday() +
            (expectReply ? ACE_Time_Value(wait) : ACE_Time_Value(0, 200000));
        ACE_Reactor* reactor = engine->getReactor();
        while (!m_reply.arrived && ACE_OS::gettimeofday() < deadline) {
            ACE_Time_Value step(0, 50000);
            reactor->handle_events(step);
        }

        if (!expectReply) {
            std::printf("%s: sent; the agent sends no reply\n", command.c_str());
            return EXIT_REPLY;
        }
        if (!m_reply.arrived) {
            std::printf("%s: no reply within %d seconds\n", command.c_str(), wait);
            return EXIT_ERROR;
        }
        if (m_reply.error) {
            std::printf("%s: error %s: %s\n", command.c_str(),
                        printable(m_reply.args["errornr"]).c_str(),
                        printable(m_reply.args["errormsg"]).c_str());
            return EXIT_ERROR;
        }
        std::vector<std::string> names;
        size_t width = 0;
        for (const auto& arg : m_reply.args) {
            names.push_back(arg.first);
            width = std::max(width, arg.first.size());
        }
        std::sort(names.begin(), names.end(), naturalLess);
        std::printf("%s: reply with %zu argument(s)\n", command.c_str(), names.size());
        for (const std::string& name : names) {
            std::printf("  %-*s  %s\n", static_cast<int>(width), printable(name).c_str(),
                        printable(m_reply.args[name]).c_str());
        }
        return EXIT_REPLY;
    }

    bool m_ssl = true;
    uint32_t m_token;
    Reply m_reply;
    ReplyCatcher m_catcher;
};

}  // namespace

int main(int argc, char** argv) {
    // The library's path and web service settings are not needed here.
    Tarnwick::Configuration* config = Tarnwick::getConfigSingleton();
    config->disableDefaults();
    config->disableWebservices();
    DemoControl control;
    return control.run(argc, argv);
}
