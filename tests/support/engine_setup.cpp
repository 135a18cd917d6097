#include "engine_setup.h"

#include <tarnwick/abstract_event.h>
#include <tarnwick/event_factory.h>
#include <tarnwick/handler.h>
#include <tarnwick/handler_t.h>

#include <ace/Synch_Options.h>
#include <ace/Thread.h>

#include <cerrno>

#include "loopback.h"

using namespace Tarnwick;

namespace TarnwickTest {

std::atomic<int> destroyed_handlers(0);

TestEventHandler::~TestEventHandler() {
    ++destroyed_handlers;
}

int TestEventHandler::handle(GetVersionEvent* event) {
    note(event);
    event->reset();
    event->setArg("version", "6.6.3");
    return 1;
}

int TestEventHandler::handle(DirListEvent* event) {
    note(event);
    errno = EIO;
    return -1;
}

int TestEventHandler::handle(KickEvent* event) {
    if (m_end_loop_on_kick)
        Engine::getSingleton()->getReactor()->end_reactor_event_loop();
    note(event);
    return 0;
}

int TestEventHandler::handle(HeartBeatEvent* event) {
    note(event);
    return 0;
}

int TestEventHandler::handle(IdentityEvent* event) {
    int const result = Engine::getSingleton()->activate_handler(event);
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_activations.push_back(result);
    }
    note(event);
    return 0;
}

int TestEventHandler::handle_unsupported(Abstract_Event* event) {
    note(event);
    return event->error("Unsupported event.", ENOSYS);
}

int TestEventHandler::handle_disconnect(Handler*) {
    std::lock_guard<std::mutex> guard(m_mutex);
    ++m_disconnects;
    return 0;
}

int TestEventHandler::seen(uint32_t type) {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_seen[type];
}

int TestEventHandler::events() {
    std::lock_guard<std::mutex> guard(m_mutex);
    return static_cast<int>(m_threads.size());
}

std::vector<ACE_thread_t> TestEventHandler::threads() {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_threads;
}

std::vector<int> TestEventHandler::activations() {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_activations;
}

int TestEventHandler::disconnects() {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_disconnects;
}

void TestEventHandler::note(Abstract_Event* event) {
    std::lock_guard<std::mutex> guard(m_mutex);
    ++m_seen[event->getType()];
    m_threads.push_back(ACE_Thread::self());
}

bool TestRouter::isAuthorized(Abstract_Event* event) {
    return event->getType() != STOP_JOB_EVENT;
}

bool TestRouter::isLocal(Abstract_Event* event) {
    return !event->isBroadCast() && event->getAgentID() == 0 && !(m_relay && event->isResult());
}

void setIdentity(Identity::Type type, uint32_t agentid) {
    Identity* self = Identity::instance();
    self->setName("engine_test");
    self->setType(type);
    self->setAgentID(agentid);
    self->setLogin("tester");
    self->setPassword("secret");
}

EngineSetup prepare(Router_Base* router, bool identify) {
    EngineSetup setup;
    setup.engine = Engine::getSingleton();
    setup.handler = new TestEventHandler();
    setup.router = router;
    if (!identify)
        setup.engine->disableIdentification();
    setup.engine->event_handler(setup.handler, true);
    setup.engine->router(router, true);
    setIdentity(Identity::TWAGENT, 1);
    return setup;
}

EngineSetup start(int threads, Router_Base* router, bool identify) {
    EngineSetup setup = prepare(router, identify);
    EXPECT_EQ(setup.engine->open(threads, false), 0);
    return setup;
}

u_short startListening(Engine* engine) {
    u_short const port = freePort();
    ACE_Synch_Options options;
    EXPECT_EQ(engine->makeConnection(loopback(port), CONNECTION_PASSIVE, options), 0);
    return port;
}

int connections(Router_Base* router) {
    Dispatch_Set set;
    if (router->findAllHandlers(set) == -1)
        return 0;
    return static_cast<int>(set.size());
}

int connections(Engine* engine) {
    if (engine->router() == nullptr)
        return 0;
    return connections(engine->router());
}

Handler* agentConnection(Router_Base* router, uint32_t agentid) {
    Dispatch_Set set;
    if (router->findHandlersByAgentID(agentid, set) == -1 || set.size() != 1)
        return nullptr;
    Handler* handler = *set.begin();
    return handler->duplicate();
}

bool agentIsConnected(Router_Base* router, uint32_t agentid) {
    Handler* const connection = agentConnection(router, agentid);
    if (connection == nullptr)
        return false;
    connection->release();
    return true;
}

size_t openTokens(Router_Base* router) {
    Dispatch_Set set;
    if (router->findAllHandlers(set) == -1)
        return 0;
    size_t count = 0;
    for (Handler* handler : set)
        count += handler->getSourceACT().size() + handler->getTargetACT().size();
    return count;
}

std::string argOf(Abstract_Event* event, const char* name) {
    std::string value;
    event->getArg(name, value);
    return value;
}

std::string workersName(const ::testing::TestParamInfo<int>& info) {
    return info.param == 0 ? std::string("NoWorkers") : std::string("TwoWorkers");
}

const std::string ACTIVATED_AGENT_7 =
    "%D INFO  (%t): Connection from 127.0.0.1 activated : twagent 7";
const std::string CONVERSION_FAILED =
    "%D ERROR (%t): An error occurred while converting network data into an event.";

void expectReactorGaveUp(const LogLines& log) {
    EXPECT_EQ(log.count("%D WARN  (%t): Could not initialize reactor. Retry within 5 seconds."),
              10);
    EXPECT_EQ(
        log.count(" Please ensure open file hard limits are above 1010 for this user. (ulimit)"),
        10);
    std::string const text = log.text();
    std::string const tail =
        ".\nPlease make sure that no firewalls are blocking network connections.";
    ASSERT_GE(text.size(), tail.size());
    EXPECT_EQ(text.substr(text.size() - tail.size()), tail);
    EXPECT_NE(text.find("%D ERROR (%t): Could not initialize reactor: "), std::string::npos);
}

}  // namespace TarnwickTest
