// Hosting of a DaemonApplication under systemd: the service actions of the
// command line, the readiness protocol, and queries of the agent's service.
#pragma once

#include <tarnwick/application.h>
#include <tarnwick/export.h>

#include <atomic>
#include <string>
#include <vector>

namespace Tarnwick {

// The host service of a DaemonApplication on systemd; one per process
// (instance()). run() carries out the action of the command line:
//
//   install      writes <name>.service into the unit directory
//                ($TARNWICK_SYSTEMD_UNIT_DIR, else /etc/systemd/system), then
//                runs "systemctl daemon-reload" and "systemctl enable"; 0/-1
//   remove       disables the unit, deletes its file, daemon-reload; 0/-1
//   start, stop  systemctl start/stop --no-block; 0/-1
//   restart,
//   reload       a full stop and start, each bounded by 30 s; 0/-1
//   check        5 when the service is stopped, 6 otherwise, -1 on failure
//   isinstalled  0 installed, 7 not installed, -1 on failure
//
// Without an action, with the key "debug", main() runs in the foreground.
// Otherwise the process is the service: it tells systemd READY=1 (and
// STATUS=) over $NOTIFY_SOCKET, RELOADING=1/READY=1 around a reload,
// STOPPING=1 at SIGTERM, WATCHDOG=1 every half $WATCHDOG_USEC, and returns 0
// when main() has returned. systemctl is $TARNWICK_SYSTEMCTL when set, else
// "systemctl" from the PATH.
class TARNWICK_EXPORT SystemdService : public Service {
public:
    // The process's service object, made at the first call.
    static SystemdService* instance();

    SystemdService();
    ~SystemdService() override;
    SystemdService(const SystemdService&) = delete;
    SystemdService& operator=(const SystemdService&) = delete;

    // Remembers the application. 0.
    int open(Application* application) override;
    // The action table; the result is the daemon's exit status.
    int run() override;
    // Runs the application's main() as the service. Its result.
    int svc();
    // A control of the host: 1 (stop) and 5 (shutdown) tell systemd
    // STOPPING=1 and run the application's close(); others are ignored.
    void handle_control(unsigned long control);

    // Whether the process runs as the service (no action, no "debug").
    bool isServing() const;
    // Sends `state` (lines "KEY=VALUE") to systemd when serving; 0 also when
    // there is nothing to tell.
    int report(const std::string& state);

    // Sends one notification datagram to the socket named by $NOTIFY_SOCKET
    // (a path, or an abstract name after '@'). 1 sent, 0 when the variable is
    // not set, -1 with errno on failure.
    static int Notify(const std::string& state);
    // The unit directory: $TARNWICK_SYSTEMD_UNIT_DIR or /etc/systemd/system.
    static std::string UnitDirectory();
    // The text of the unit file that install writes.
    std::string unitText();

    // Runs systemctl with `args`; its standard output goes to `output`.
    // The exit status, or -1 with errno when it can't be run or took longer
    // than `seconds` (ETIMEDOUT; it is then killed).
    static int Systemctl(const std::vector<std::string>& args, std::string* output, int seconds);

private:
    int install();
    int remove();
    int start(bool wait);
    int stop(bool wait);
    int restart(bool reload);
    int check();
    int isinstalled();
    int serve();

    std::atomic<bool> m_serving;
};

// Queries about the agent's service, from any process.
class TARNWICK_EXPORT ServiceControl {
public:
    // The state of the service "twagent" (the name given is not used):
    // 1 stopped, 2 starting, 3 stopping, 4 running, 5 reloading. 0 or -1
    // (logged).
    static int Query(const wchar_t* name, int& state);
    // The state as text, made with ACE::strnew; the caller releases it with
    // ACE::strdelete. 0 or -1.
    static int Query(const wchar_t* name, wchar_t*& text);
    // 1 running, 0 not, -1 on failure.
    static int IsRunning(const wchar_t* name);

private:
    ServiceControl();
};

}  // namespace Tarnwick
