// The engine of an engine test: an event handler and a router of the
// test's own, the identity of the process, and what the test asks of the
// router's connections. The engine is one object per process, so a test
// sets it up in a child process of its own (see inChild).
#pragma once

#include <tarnwick/abstract_event.h>
#include <tarnwick/engine.h>
#include <tarnwick/event_factory.h>
#include <tarnwick/identity.h>
#include <tarnwick/router.h>

#include <gtest/gtest.h>

#include "log_lines.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace Tarnwick {

// Replaces the engine's wait between two tries to make its reactor, and the
// clock of cleanupHandles.
struct EngineTestHooks {
    static void sleep(void (*wait)(const ACE_Time_Value&)) { Engine::s_retry_sleep = wait; }
    static void clock(ACE_Time_Value (*now)()) { Engine::s_clock = now; }
};

}  // namespace Tarnwick

namespace TarnwickTest {

// The TestEventHandlers destroyed so far.
extern std::atomic<int> destroyed_handlers;

// GetVersionEvent: answered with a version. DirListEvent: fails (-1).
// KickEvent, HeartBeatEvent: consumed, no reply. IdentityEvent: identifies
// its connection, no reply. Anything else: unsupported, answered with an
// error. It notes each event and the thread it came on, and each disconnect;
// any thread may read these.
class TestEventHandler : public Tarnwick::EventHandler {
public:
    TestEventHandler() : m_end_loop_on_kick(false) {}
    ~TestEventHandler() override;

    void endLoopOnKick() { m_end_loop_on_kick = true; }

    int handle(Tarnwick::GetVersionEvent* event) override;
    int handle(Tarnwick::DirListEvent* event) override;
    int handle(Tarnwick::KickEvent* event) override;
    int handle(Tarnwick::HeartBeatEvent* event) override;
    int handle(Tarnwick::IdentityEvent* event) override;
    int handle_unsupported(Tarnwick::Abstract_Event* event) override;
    int handle_disconnect(Tarnwick::Handler*) override;

    int seen(uint32_t type);
    int events();
    std::vector<ACE_thread_t> threads();
    std::vector<int> activations();
    int disconnects();

private:
    void note(Tarnwick::Abstract_Event* event);

    bool m_end_loop_on_kick;
    std::mutex m_mutex;
    std::map<uint32_t, int> m_seen;
    std::vector<ACE_thread_t> m_threads;
    std::vector<int> m_activations;
    int m_disconnects = 0;
};

// A Router that refuses StopJobEvent and treats broadcasts and events with
// an agent id as another peer's, to be passed on; with `relay`, replies too.
// Events that name no destination go by the kind of search `filter`.
class TestRouter : public Tarnwick::Router {
public:
    explicit TestRouter(int filter = Tarnwick::Routing_Key::ROUTE_HANDLER, bool relay = false)
        : m_filter(filter), m_relay(relay) {}

    bool isAuthorized(Tarnwick::Abstract_Event* event) override;
    bool isLocal(Tarnwick::Abstract_Event* event) override;

protected:
    int default_filter_type() override { return m_filter; }

private:
    int m_filter;
    bool m_relay;
};

// The identity of this process: named "engine_test", with a login.
void setIdentity(Tarnwick::Identity::Type type, uint32_t agentid);

// The engine of a test body, with its event handler and router (owned by
// the engine).
struct EngineSetup {
    Tarnwick::Engine* engine;
    TestEventHandler* handler;
    Tarnwick::Router_Base* router;
};

// Gives the engine a new TestEventHandler and `router`, and makes this
// process twagent 1; without `identify`, the engine asks no connection who
// it is. Not opened.
EngineSetup prepare(Tarnwick::Router_Base* router, bool identify);
// prepare(), then opens the engine with `threads` workers, without SSL.
EngineSetup start(int threads, Tarnwick::Router_Base* router, bool identify);
// Makes the engine listen at a free port of 127.0.0.1; the port.
u_short startListening(Tarnwick::Engine* engine);

// The number of the router's connections.
int connections(Tarnwick::Router_Base* router);
// The number of the connections of the engine's router (0 without one).
int connections(Tarnwick::Engine* engine);
// The server-side handler of the agent `agentid`, with a reference.
Tarnwick::Handler* agentConnection(Tarnwick::Router_Base* router, uint32_t agentid);
bool agentIsConnected(Tarnwick::Router_Base* router, uint32_t agentid);
// The tokens still open on the router's connections, in both directions.
size_t openTokens(Tarnwick::Router_Base* router);

// The string argument `name` of `event` (empty without one).
std::string argOf(Tarnwick::Abstract_Event* event, const char* name);

// Names the values of the parameterised engine suites (the number of worker
// threads: 0 or 2).
std::string workersName(const ::testing::TestParamInfo<int>& info);

extern const std::string ACTIVATED_AGENT_7;
extern const std::string CONVERSION_FAILED;

// Expects in `log` the lines of an engine that gave up making its reactor:
// ten warnings with their hint, then the error that ends the last try.
void expectReactorGaveUp(const LogLines& log);

}  // namespace TarnwickTest
