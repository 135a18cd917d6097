// demo_agent: a small agent built on the message engine.
//
// It listens on a port of the loopback interface, over SSL unless --nossl
// says otherwise, runs the engine with worker threads, and answers what its
// peers send:
//
//   IdentityEvent     takes in who the peer is (Engine::activate_handler);
//                     no reply
//   GetVersionEvent   the agent's name and version
//   DirListEvent      the entries of the directory in the argument "path",
//                     which must lie inside the root directory (see below)
//   HeartBeatEvent    no reply
//   anything else     an error reply: the command is not supported
//
// SIGINT or SIGTERM stop it: the engine shuts down, which closes every
// connection, and the program ends with status 0.
//
// It is a DaemonApplication, so one binary also hosts itself under systemd:
//   demo_agent --install -c /etc/demo_agent.conf   writes demo_agent.service
//                  (into $TARNWICK_SYSTEMD_UNIT_DIR, else /etc/systemd/system)
//                  and enables it; the unit runs the agent with that file
//   demo_agent --start | --stop | --restart | --check | --isinstalled |
//              --remove                            the other service actions
//   demo_agent --debug ...                         runs in the foreground
// Without an action it runs as the service and tells systemd when it is
// ready. SIGHUP reloads the configuration file and logs each setting of the
// agent that changed ("Setting port changed from 7000 to 7001"); a new port
// or thread count takes effect at the next start.
//
// Usage:
//   demo_agent --port=PORT --keydir=DIR [--nossl] [--threads=N] [--agentid=ID]
//              [--portfile=PATH] [--root=DIR]
//
// The agent lists directories inside its root directory only: --root, by
// default the directory it was started in. A relative "path" is taken from
// the root, an absolute one must name a place inside it. The path is resolved
// the way the kernel does it (every "..", every symbolic link), and a path
// whose result lies outside the root, such as "..", "/etc" or a link inside
// the root that points out of it, gets the error reply
//   Can not list PATH: the path leaves the agent's root directory.
// with the number EACCES. The directory is then opened from the root's
// descriptor with openat2(RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS), so a link
// swapped in after the check can't lead out either. Entries that are
// symbolic links are listed as links, without following them.
//
// Names in replies are text for the peer, and file names on Linux are just
// bytes. Each entry is "dir  NAME", "file NAME (SIZE bytes)", "link NAME" or
// "other NAME", and NAME (like any PATH echoed in a reply) is escaped: a byte
// that is not part of valid UTF-8, a control character (U+0000 to U+001F,
// U+007F to U+009F) and any character that XML can't carry is written as
// \xHH per byte, two upper-case hex digits; a backslash as \\. Everything
// else stays as it is, so plain names read as they are, and the escaped form
// can be turned back into the exact bytes.
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
#include <tarnwick/pidfile.h>
#include <tarnwick/router.h>
#include <tarnwick/security.h>

#include <ace/INET_Addr.h>
#include <ace/Reactor.h>
#include <ace/SOCK_Acceptor.h>
#include <ace/Synch_Options.h>
#include <ace/Time_Value.h>

#include <tarnwick/utf8.h>

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
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
    {"root", "demo", nullptr,
     "List directories only inside DIR (default: the directory the agent starts in).", "DIR",
     Tarnwick::SETTING_ARGUMENT},
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

// A file name or path as reply text: bytes that are no valid UTF-8, control
// characters and characters XML can't carry become \xHH, one per byte; a
// backslash becomes \\. See the comment at the top.
std::string escapeName(const std::string& name) {
    static const char HEX[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(name.size());
    size_t position = 0;
    while (position < name.size()) {
        const char* at = name.data() + position;
        size_t step = Tarnwick::xmlTextCharLength(at, name.size() - position);
        unsigned char const lead = static_cast<unsigned char>(*at);
        bool const control =
            lead < 0x20 || lead == 0x7F ||
            (step == 2 && lead == 0xC2 && static_cast<unsigned char>(at[1]) < 0xA0);
        if (step == 0 || control) {
            step = step == 0 ? 1 : step;
            for (size_t i = 0; i < step; ++i) {
                unsigned char const byte = static_cast<unsigned char>(at[i]);
                out += "\\x";
                out += HEX[byte >> 4];
                out += HEX[byte & 0x0F];
            }
        } else if (lead == '\\') {
            out += "\\\\";
        } else {
            out.append(at, step);
        }
        position += step;
    }
    return out;
}

// One entry of a listing.
struct Entry {
    std::string name;  // as the file system has it
    std::string kind;  // "dir  ", "file ", "link " or "other "
    bool regular = false;
    unsigned long long size = 0;
};

// The one directory tree the agent lists: a path of a request is resolved,
// checked to lie inside it, and opened from the root's own descriptor.
class RootDirectory {
public:
    RootDirectory() = default;
    ~RootDirectory() {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    RootDirectory(const RootDirectory&) = delete;
    RootDirectory& operator=(const RootDirectory&) = delete;

    // Takes `directory` (empty: the working directory) as the root. 0 or an
    // errno value.
    int open(const std::string& directory) {
        std::string wanted = directory;
        if (wanted.empty()) {
            char here[PATH_MAX];
            if (::getcwd(here, sizeof here) == nullptr)
                return errno;
            wanted = here;
        }
        char real[PATH_MAX];
        if (::realpath(wanted.c_str(), real) == nullptr)
            return errno;
        m_fd = ::open(real, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (m_fd < 0)
            return errno;
        m_path = real;
        return 0;
    }
    const std::string& path() const { return m_path; }

    // Resolves a requested path (relative to the root, or absolute) to a
    // path relative to the root, "." for the root itself. 0, EACCES when the
    // result lies outside the root, or another errno value.
    int resolve(const std::string& request, std::string& relative) const {
        if (request.empty())
            return ENOENT;
        std::string const wanted = request[0] == '/' ? request : m_path + "/" + request;
        // Judged by its text first, so that a path outside tells nothing about
        // what exists there.
        if (!inside(lexical(wanted)))
            return EACCES;
        char real[PATH_MAX];
        if (::realpath(wanted.c_str(), real) == nullptr)
            return errno;
        std::string const resolved = real;
        if (!inside(resolved))
            return EACCES;
        size_t const prefix = m_path == "/" ? 0 : m_path.size();
        relative = resolved.size() <= prefix + 1 ? "." : resolved.substr(prefix + 1);
        return 0;
    }

    // The entries of the directory at `relative` (from resolve). 0, EACCES
    // when the way there leaves the root or holds a link by now, or another
    // errno value.
    int list(const std::string& relative, std::vector<Entry>& out) const {
        int fd = openBeneath(relative);
        if (fd < 0)
            return errno == EXDEV || errno == ELOOP ? EACCES : errno;
        DIR* directory = ::fdopendir(fd);
        if (directory == nullptr) {
            int const failure = errno;
            ::close(fd);
            return failure;
        }
        errno = 0;
        while (struct dirent* item = ::readdir(directory)) {
            std::string const name = item->d_name;
            if (name == "." || name == "..")
                continue;
            Entry entry;
            entry.name = name;
            entry.kind = "other ";
            struct stat status;
            if (::fstatat(::dirfd(directory), item->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
                if (S_ISDIR(status.st_mode)) {
                    entry.kind = "dir  ";
                } else if (S_ISREG(status.st_mode)) {
                    entry.kind = "file ";
                    entry.regular = true;
                    entry.size = static_cast<unsigned long long>(status.st_size);
                } else if (S_ISLNK(status.st_mode)) {
                    entry.kind = "link ";
                }
            }
            out.push_back(entry);
            errno = 0;
        }
        int const failure = errno;
        ::closedir(directory);
        return failure;
    }

private:
    // `path` without ".", ".." and doubled slashes, by its text alone.
    static std::string lexical(const std::string& path) {
        std::vector<std::string> parts;
        size_t start = 0;
        while (start <= path.size()) {
            size_t end = path.find('/', start);
            if (end == std::string::npos)
                end = path.size();
            std::string const part = path.substr(start, end - start);
            if (part == "..") {
                if (!parts.empty())
                    parts.pop_back();
            } else if (!part.empty() && part != ".") {
                parts.push_back(part);
            }
            start = end + 1;
        }
        std::string out;
        for (const std::string& part : parts)
            out += "/" + part;
        return out.empty() ? "/" : out;
    }

    bool inside(const std::string& path) const {
        if (m_path == "/")
            return true;
        return path == m_path ||
               (path.size() > m_path.size() && path.compare(0, m_path.size(), m_path) == 0 &&
                path[m_path.size()] == '/');
    }

    // Opens the directory below the root without following any link and
    // without leaving it; where the kernel lacks openat2, without following a
    // link in the last step.
    int openBeneath(const std::string& relative) const {
        struct open_how how;
        std::memset(&how, 0, sizeof how);
        how.flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
        how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
        long const fd = ::syscall(SYS_openat2, m_fd, relative.c_str(), &how, sizeof how);
        if (fd >= 0 || errno != ENOSYS)
            return static_cast<int>(fd);
        return ::openat(m_fd, relative.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
    }

    std::string m_path;
    int m_fd = -1;
};

// Answers the peers' events; runs on the engine's worker threads.
class AgentEvents : public Tarnwick::EventHandler {
public:
    AgentEvents(const std::string& version, const RootDirectory& root)
        : m_version(version), m_root(root) {}

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
        std::string const shown = escapeName(path);

        std::string relative;
        int const failure = m_root.resolve(path, relative);
        if (failure == EACCES) {
            std::string const text =
                "Can not list " + shown + ": the path leaves the agent's root directory.";
            return event->error(text.c_str(), EACCES);
        }
        std::vector<Entry> entries;
        int const listed = failure != 0 ? failure : m_root.list(relative, entries);
        if (listed == EACCES) {
            std::string const text =
                "Can not list " + shown + ": the path leaves the agent's root directory.";
            return event->error(text.c_str(), EACCES);
        }
        if (listed != 0) {
            std::string const text = "Can not list " + shown + ": " + std::strerror(listed) + ".";
            return event->error(text.c_str(), listed);
        }
        std::sort(entries.begin(), entries.end(),
                  [](const Entry& a, const Entry& b) { return a.name < b.name; });

        event->reset();
        event->setArg("path", shown);
        event->setArg("count", static_cast<uint64_t>(entries.size()));
        int number = 0;
        for (const Entry& entry : entries) {
            std::string text = entry.kind + escapeName(entry.name);
            if (entry.regular)
                text += " (" + std::to_string(entry.size) + " bytes)";
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
    const RootDirectory& m_root;
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

// Reloads the configuration on SIGHUP and logs what changed among the
// agent's own settings.
class SettingsTask : public Tarnwick::Task {
public:
    const wchar_t* name() override { return L"settings"; }
    int reload() override {
        Tarnwick::Configuration* config = Tarnwick::getConfigSingleton();
        std::vector<std::string> const before = values();
        if (config->reload() == -1) {
            TW_LOG("%D ERROR (%t): Can not reload the configuration\n");
            return -1;
        }
        std::vector<std::string> const after = values();
        for (size_t i = 0; i < kKeys.size(); ++i) {
            if (before[i] != after[i])
                TW_LOG("%D INFO  (%t): Setting %C changed from %C to %C\n",
                       narrow(kKeys[i]).c_str(), before[i].c_str(), after[i].c_str());
        }
        TW_LOG("%D INFO  (%t): Configuration reloaded\n");
        return 0;
    }

private:
    const std::vector<const wchar_t*> kKeys{L"port", L"threads", L"agentid", L"root"};

    std::vector<std::string> values() {
        std::vector<std::string> out;
        for (const wchar_t* key : kKeys) {
            const wchar_t* const value = Tarnwick::getConfigSingleton()->asString(key);
            out.push_back(value != nullptr ? "'" + narrow(value) + "'" : "(none)");
        }
        return out;
    }
};

class DemoAgent : public Tarnwick::DaemonApplication {
public:
    DemoAgent() {
        Tarnwick::getConfigSingleton()->import(AGENT_SETTINGS);
        // keydir and nossl.
        Tarnwick::Security::initSecurityOptions();
        register_task(new SettingsTask(), 1);
    }

    // A stop marks the program stopped and closes its tasks.
    int close() override { return Application::close(); }

    const wchar_t* name() override { return L"demo_agent"; }
    const wchar_t* description() override { return L"Tarnwick demo agent"; }
    const wchar_t* long_description() override {
        return L"Answers version, directory listing and heartbeat events on a loopback port.";
    }

    int main() override {
        // The reload task (SIGHUP) and the settings task.
        if (start_all_tasks() == -1)
            return 1;
        Tarnwick::Configuration* config = Tarnwick::getConfigSingleton();
        int port = -1;
        int threads = 2;
        unsigned int agentid = 1;
        std::string portfile;
        std::string root;
        config->getValue(L"port", port);
        config->getValue(L"threads", threads);
        config->getValue(L"agentid", agentid);
        config->getValue("portfile", portfile);
        config->getValue("root", root);
        bool const ssl = !config->hasKey(L"nossl");
        if (port < 0 || port > 65535 || threads < 0 || agentid == 0) {
            std::fprintf(stderr, "demo_agent: invalid --port, --threads or --agentid\n");
            return 1;
        }
        int const rootFailure = m_root.open(root);
        if (rootFailure != 0) {
            std::fprintf(stderr, "demo_agent: can not use %s as the root directory: %s\n",
                         root.empty() ? "the working directory" : root.c_str(),
                         std::strerror(rootFailure));
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
        engine->event_handler(new AgentEvents(narrow(version()), m_root), true);
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
        std::printf("demo_agent: listing directories inside %s\n", m_root.path().c_str());
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

private:
    RootDirectory m_root;
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
