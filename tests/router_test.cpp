#include <tarnwick/engine.h>
#include <tarnwick/event_factory.h>
#include <tarnwick/handler_t.h>
#include <tarnwick/identity.h>
#include <tarnwick/router.h>

#include <ace/INET_Addr.h>
#include <ace/SOCK_Acceptor.h>
#include <ace/SOCK_Stream.h>
#include <ace/Synch_Options.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "log_lines.h"
#include "loopback.h"

// Tarnwick's names one by one: the suite's fixture is called Router.
using Tarnwick::Abstract_Event;
using Tarnwick::ACT_List;
using Tarnwick::DIR_LIST_EVENT;
using Tarnwick::Dispatch_Set;
using Tarnwick::Engine;
using Tarnwick::Event_Factory;
using Tarnwick::GET_VERSION_EVENT;
using Tarnwick::Handler;
using Tarnwick::Identity;
using Tarnwick::KICK_EVENT;
using Tarnwick::RELOAD_EVENT;
using Tarnwick::Router_Base;
using Tarnwick::Routing_Key;
using Tarnwick::SinglePeerRouter;
using TarnwickTest::Lines;
using TarnwickTest::Listener;
using TarnwickTest::LogCapture;

namespace {

// Connected handlers outside any engine: forward() queues their messages and
// asks the engine's reactor for a write wake-up, so the engine is opened
// (without workers) for the whole suite; nothing runs its loop.
class Router : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        Engine::getSingleton()->disableIdentification();
        ASSERT_EQ(Engine::getSingleton()->open(0, false), 0);
    }
    static void TearDownTestSuite() { Engine::getSingleton()->shutdown(); }

    void SetUp() override { ASSERT_FALSE(HasFailure()) << "no listening socket"; }

    void TearDown() override {
        for (Handler* handler : m_handlers) {
            Engine::getSingleton()->getReactor()->remove_handler(
                handler, ACE_Event_Handler::ALL_EVENTS_MASK | ACE_Event_Handler::DONT_CALL);
            handler->close(0);
            // The test's own reference is the last one: every router dropped
            // exactly the reference it had.
            EXPECT_EQ(handler->release(), nullptr);
        }
        for (auto& peer : m_peers)
            peer->close();
        m_listener.close();
    }

    // A new connection; the test keeps one reference, released at the end.
    Handler* connect(Identity::Type type = Identity::UNKNOWN, uint32_t agentid = 0) {
        Handler* handler = nullptr;
        ACE_Synch_Options options;
        EXPECT_EQ(Engine::makeActiveConnection(m_listener.address(), 0, options, &handler), 0);
        m_peers.emplace_back(new ACE_SOCK_Stream());
        EXPECT_EQ(m_listener.accept(*m_peers.back()), 0);
        Identity identity("peer", type, 0);
        identity.setAgentID(agentid);
        handler->identity(identity);
        m_handlers.push_back(handler);
        return handler;
    }

    // A connection whose socket is closed: forward() fails on it.
    Handler* dead() {
        Handler* handler = connect();
        handler->close(0);
        return handler;
    }

    // Registers with `router`, which takes a reference of its own here.
    static void enter(Router_Base& router, Handler* handler) {
        ASSERT_EQ(router.register_handler(handler->duplicate()), 0);
    }

    Listener m_listener;
    std::vector<Handler*> m_handlers;
    std::vector<std::unique_ptr<ACE_SOCK_Stream>> m_peers;
};

// Exposes find() and lets a test choose the default kind of search.
class OpenRouter : public Tarnwick::Router {
public:
    using Tarnwick::Router::find;
    int default_filter_type() override { return filter; }
    int filter = Routing_Key::ROUTE_HANDLER;
};

class OpenSingle : public SinglePeerRouter {
public:
    using SinglePeerRouter::find;
};

std::vector<Handler*> members(Dispatch_Set& set) {
    std::vector<Handler*> out;
    for (ACE_Unbounded_Set<Handler*>::iterator it = set.begin(); it != set.end(); ++it)
        out.push_back(*it);
    return out;
}

size_t queued(Handler* handler) {
    return handler->msg_queue()->message_count();
}

}  // namespace

// ---------------------------------------------------------------------------
// Routing keys

TEST_F(Router, KeysMatchByKind) {
    Handler* agent = connect(Identity::TWAGENT, 7);
    Handler* sameAgent = connect(Identity::TWAGENT, 7);
    Handler* other = connect(Identity::TWCTRL, 7);
    Handler* unidentified = connect();
    unidentified->setInitiatedByConnector();
    agent->getSourceACT().add(42);

    Routing_Key const storedAgent(agent);
    Routing_Key const storedOther(other);
    Routing_Key const storedPlain(unidentified);
    Routing_Key const empty;

    // Kind 0: the same connection, or two agents of one id.
    EXPECT_TRUE(storedAgent == Routing_Key(agent));
    EXPECT_TRUE(storedAgent == Routing_Key(sameAgent));
    EXPECT_FALSE(storedOther == Routing_Key(agent));
    EXPECT_TRUE(storedOther == Routing_Key(other));
    EXPECT_TRUE(empty == Routing_Key(static_cast<Handler*>(nullptr)));

    Routing_Key all(Routing_Key::ROUTE_ALL);
    EXPECT_TRUE(empty == all);
    EXPECT_TRUE(storedPlain == all);

    Routing_Key agents(Routing_Key::ROUTE_ALL_AGENTS);
    EXPECT_TRUE(storedAgent == agents);
    EXPECT_FALSE(storedOther == agents);
    EXPECT_FALSE(empty == agents);

    Routing_Key byId(Routing_Key::ROUTE_AGENT);
    byId.agentid = 7;
    EXPECT_TRUE(storedAgent == byId);
    EXPECT_FALSE(storedOther == byId);
    byId.agentid = 8;
    EXPECT_FALSE(storedAgent == byId);

    Routing_Key byToken(Routing_Key::ROUTE_ACT);
    byToken.ACT = 42;
    EXPECT_TRUE(storedAgent == byToken);
    EXPECT_FALSE(storedOther == byToken);
    EXPECT_FALSE(empty == byToken);

    Routing_Key connector(Routing_Key::ROUTE_CONNECTOR);
    EXPECT_TRUE(storedPlain == connector);
    EXPECT_FALSE(storedAgent == connector);

    EXPECT_FALSE(storedAgent == Routing_Key(6));
    EXPECT_FALSE(storedAgent == Routing_Key(-1));
}

TEST(RoutingKey, AssignmentKeepsTheTargetsToken) {
    Routing_Key source(Routing_Key::ROUTE_AGENT);
    source.agentid = 9;
    source.ACT = 11;
    Routing_Key target;
    target.ACT = 5;
    target = source;
    EXPECT_EQ(target.type, Routing_Key::ROUTE_AGENT);
    EXPECT_EQ(target.agentid, 9u);
    EXPECT_EQ(target.ACT, 5u);
    Routing_Key copy(source);
    EXPECT_EQ(copy.ACT, 11u);
}

TEST(RoutingKey, DumpPrintsToStandardOutput) {
    Routing_Key key(Routing_Key::ROUTE_ACT);
    key.ACT = 3;
    key.agentid = 4;
    std::ostringstream out;
    std::streambuf* old = std::cout.rdbuf(out.rdbuf());
    key.dump();
    std::cout.rdbuf(old);
    EXPECT_EQ(out.str(), "this.handler == 0\nType: 4\nACT: 3\nAgentID: 4\n");
}

// ---------------------------------------------------------------------------
// Router

TEST_F(Router, FindOnAnEmptyRouterFails) {
    OpenRouter router;
    Dispatch_Set set;
    EXPECT_EQ(router.find(Routing_Key(Routing_Key::ROUTE_ALL), set), -1);
    EXPECT_EQ(router.findAllHandlers(set), -1);
}

TEST_F(Router, RegistrationLogsTheCountAndRefusesDuplicates) {
    OpenRouter router;
    Handler* a = connect();
    Handler* b = connect();
    LogCapture capture;
    enter(router, a);
    enter(router, b);
    errno = 0;
    EXPECT_EQ(router.register_handler(a), -1);
    EXPECT_EQ(capture.lines(), (Lines{"%D DEBUG (%t): Connection stored in connection map: 1 items",
                                      "%D DEBUG (%t): Connection stored in connection map: 2 items",
                                      "%D ERROR (%t): Duplicate entry found in connection map."}));
    router.remove_handler(a);
    router.remove_handler(b);
}

TEST_F(Router, FindWalksNewestFirstAndTakesAReferenceEach) {
    OpenRouter router;
    Handler* a = connect();
    Handler* b = connect();
    Handler* c = connect();
    enter(router, a);
    enter(router, b);
    enter(router, c);
    {
        Dispatch_Set set;
        ASSERT_EQ(router.findAllHandlers(set), 0);
        EXPECT_EQ(members(set), (std::vector<Handler*>{c, b, a}));
        // Each member holds a reference: releasing the router's and the
        // test's still leaves the handler alive until the set goes.
    }
    router.remove_handler(a);
    router.remove_handler(b);
    router.remove_handler(c);
}

TEST_F(Router, TokenZeroIsRefusedFirst) {
    OpenRouter router;
    Abstract_Event* event = Event_Factory::create(GET_VERSION_EVENT);
    // Only a header without a token can be sent without one: make it so.
    event->data(false);
    ACE_Message_Block* block = event->data(false);
    reinterpret_cast<uint32_t*>(block->base())[1] = 0;
    event->setBroadCast(true);
    LogCapture capture;
    errno = 0;
    EXPECT_EQ(router.forward(event), -1);
    EXPECT_EQ(capture.lines(), (Lines{"%D ERROR (%t): Invalid event: no return path", ""}));
    EXPECT_EQ(router.forward(static_cast<Abstract_Event*>(nullptr)), -1);
    event->destroy();
}

TEST_F(Router, AResultGoesByItsTokenNotByItsAgentId) {
    OpenRouter router;
    Handler* asker = connect();
    Handler* agent = connect(Identity::TWAGENT, 5);
    enter(router, asker);
    enter(router, agent);
    asker->getSourceACT().add(77);

    Abstract_Event* reply = Event_Factory::create(GET_VERSION_EVENT);
    reply->setACT(77);
    reply->setAgentID(5);
    reply->setResult(true);
    EXPECT_EQ(router.forward(reply), 0);
    EXPECT_EQ(queued(asker), 1u);
    EXPECT_EQ(queued(agent), 0u);
    EXPECT_FALSE(asker->getSourceACT().contains(77));
    reply->destroy();
    router.remove_handler(asker);
    router.remove_handler(agent);
}

TEST_F(Router, AgentIdWinsOverBroadcastAndTheTargetNotesTheToken) {
    OpenRouter router;
    Handler* five = connect(Identity::TWAGENT, 5);
    Handler* six = connect(Identity::TWAGENT, 6);
    enter(router, five);
    enter(router, six);
    Abstract_Event* request = Event_Factory::create(DIR_LIST_EVENT);
    request->setACT(300);
    request->setAgentID(6);
    request->setBroadCast(true);
    LogCapture capture;
    EXPECT_EQ(router.forward(request), 0);
    EXPECT_TRUE(capture.lines().empty());
    EXPECT_EQ(queued(five), 0u);
    EXPECT_EQ(queued(six), 1u);
    EXPECT_TRUE(six->getTargetACT().contains(300));
    request->destroy();
    router.remove_handler(five);
    router.remove_handler(six);
}

TEST_F(Router, BroadcastReachesTheAgentsOnly) {
    OpenRouter router;
    Handler* five = connect(Identity::TWAGENT, 5);
    Handler* six = connect(Identity::TWAGENT, 6);
    Handler* control = connect(Identity::TWCTRL, 0);
    enter(router, five);
    enter(router, six);
    enter(router, control);
    Abstract_Event* event = Event_Factory::create(RELOAD_EVENT);
    event->setBroadCast(true);
    LogCapture capture;
    EXPECT_EQ(router.forward(event), 0);
    EXPECT_EQ(capture.lines(), Lines{"%D DEBUG (%t): Broadcasting event object to all Agents!"});
    EXPECT_EQ(queued(five), 1u);
    EXPECT_EQ(queued(six), 1u);
    EXPECT_EQ(queued(control), 0u);
    event->destroy();
    router.remove_handler(five);
    router.remove_handler(six);
    router.remove_handler(control);
}

TEST_F(Router, BroadcastWithoutAgentsFails) {
    OpenRouter router;
    Abstract_Event* event = Event_Factory::create(RELOAD_EVENT);
    event->setBroadCast(true);
    LogCapture capture;
    errno = 0;
    EXPECT_EQ(router.forward(event), -1);
    EXPECT_EQ(capture.lines(),
              (Lines{"%D DEBUG (%t): Broadcasting event object to all Agents!",
                     "%D ERROR (%t): An unknown error occurred while forwarding an event."}));
    event->destroy();
}

TEST_F(Router, ReplyWhoseTokenNoConnectionHoldsFails) {
    OpenRouter router;
    Handler* a = connect();
    enter(router, a);
    Abstract_Event* reply = Event_Factory::create(GET_VERSION_EVENT);
    reply->setACT(12345);
    reply->setResult(true);
    LogCapture capture;
    errno = 0;
    EXPECT_EQ(router.forward(reply), -1);
    EXPECT_EQ(capture.lines(),
              Lines{"%D ERROR (%t): An unknown error occurred while forwarding an event."});
    reply->destroy();
    router.remove_handler(a);
}

TEST_F(Router, DefaultKindFindsNothingUnlessChanged) {
    OpenRouter router;
    Handler* mine = connect();
    mine->setInitiatedByConnector();
    Handler* theirs = connect();
    enter(router, mine);
    enter(router, theirs);
    Abstract_Event* event = Event_Factory::create(KICK_EVENT);
    {
        LogCapture capture;
        EXPECT_EQ(router.forward(event), -1);
    }
    router.filter = Routing_Key::ROUTE_CONNECTOR;
    EXPECT_EQ(router.forward(event), 0);
    EXPECT_EQ(queued(mine), 1u);
    EXPECT_EQ(queued(theirs), 0u);
    event->destroy();
    router.remove_handler(mine);
    router.remove_handler(theirs);
}

TEST_F(Router, ForwardToDeadConnectionsReturnsZero) {
    OpenRouter router;
    Handler* a = dead();
    Handler* b = dead();
    Dispatch_Set set;
    set.insert(a->duplicate());
    set.insert(b->duplicate());
    Abstract_Event* event = Event_Factory::create(KICK_EVENT);
    LogCapture capture;
    EXPECT_EQ(router.forward(event, set), 0);
    EXPECT_EQ(capture.lines(),
              (Lines{"%D ERROR (%t): Can not forward: network handle is invalid",
                     "%D ERROR (%t): Can not forward: network handle is invalid"}));
    EXPECT_FALSE(a->getTargetACT().contains(event->getACT()));
    event->destroy();
}

TEST_F(Router, ClearActForgetsTheTokenEverywhere) {
    OpenRouter router;
    Handler* a = connect();
    Handler* b = connect();
    enter(router, a);
    enter(router, b);
    a->getSourceACT().add(9);
    b->getSourceACT().add(9);
    b->getSourceACT().add(10);
    EXPECT_EQ(router.clear_act(9), 0);
    EXPECT_FALSE(a->getSourceACT().contains(9));
    EXPECT_FALSE(b->getSourceACT().contains(9));
    EXPECT_TRUE(b->getSourceACT().contains(10));
    EXPECT_EQ(router.clear_act(999), 0);
    router.remove_handler(a);
    router.remove_handler(b);
}

TEST_F(Router, CloseAllConnectionsClosesEach) {
    OpenRouter router;
    Handler* a = connect();
    Handler* b = connect();
    enter(router, a);
    enter(router, b);
    LogCapture capture;
    EXPECT_EQ(router.closeAllConnections(), 0);
    EXPECT_EQ(a->get_handle(), ACE_INVALID_HANDLE);
    EXPECT_EQ(b->get_handle(), ACE_INVALID_HANDLE);
    std::vector<std::string> lines = capture.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0], "%D DEBUG (%t): Closing all open network connections.");
    router.remove_handler(a);
    router.remove_handler(b);
    OpenRouter empty;
    LogCapture quiet;
    EXPECT_EQ(empty.closeAllConnections(), 0);
    EXPECT_TRUE(quiet.lines().empty());
}

TEST_F(Router, TwoConnectionsOfOneAgentAreBothStored) {
    OpenRouter router;
    Handler* first = connect(Identity::TWAGENT, 3);
    Handler* second = connect(Identity::TWAGENT, 3);
    LogCapture capture;
    enter(router, first);
    enter(router, second);
    EXPECT_EQ(capture.lines(),
              (Lines{"%D DEBUG (%t): Connection stored in connection map: 1 items",
                     "%D DEBUG (%t): Connection stored in connection map: 2 items"}));
    Dispatch_Set set;
    ASSERT_EQ(router.findHandlersByAgentID(3, set), 0);
    EXPECT_EQ(members(set), (std::vector<Handler*>{second, first}));
    // The same connection once more is still a duplicate.
    errno = 0;
    EXPECT_EQ(router.register_handler(second), -1);
    EXPECT_EQ(router.remove_handler(first), 0);
    EXPECT_EQ(router.remove_handler(second), 0);
}

// The older connection of an agent closes after a newer one came: only the
// older one's entry goes, only its reference is dropped, and the newer one
// stays routable.
TEST_F(Router, RemovingTheOlderConnectionOfAnAgentKeepsTheNewer) {
    OpenRouter router;
    Handler* older = connect(Identity::TWAGENT, 3);
    Handler* newer = connect(Identity::TWAGENT, 3);
    enter(router, older);
    enter(router, newer);
    EXPECT_EQ(router.remove_handler(older), 0);
    {
        Dispatch_Set set;
        ASSERT_EQ(router.findAllHandlers(set), 0);
        EXPECT_EQ(members(set), std::vector<Handler*>{newer});
    }
    Abstract_Event* request = Event_Factory::create(DIR_LIST_EVENT);
    request->setAgentID(3);
    EXPECT_EQ(router.forward(request), 0);
    EXPECT_EQ(queued(newer), 1u);
    EXPECT_EQ(queued(older), 0u);
    EXPECT_TRUE(newer->getTargetACT().contains(request->getACT()));
    request->destroy();
    // A second removal of the older one changes nothing.
    EXPECT_EQ(router.remove_handler(older), 1);
    Dispatch_Set set;
    ASSERT_EQ(router.findHandlersByAgentID(3, set), 0);
    EXPECT_EQ(members(set), std::vector<Handler*>{newer});
    set.release();
    EXPECT_EQ(router.remove_handler(newer), 0);
    EXPECT_EQ(router.remove_handler(newer), 1);
    EXPECT_EQ(router.findAllHandlers(set), -1);
}

// The engine registers a connection when it opens, before its peer has said
// who it is; two peers then identify as one agent.
TEST_F(Router, ConnectionsIdentifiedAsOneAgentAfterRegistration) {
    OpenRouter router;
    Handler* older = connect();
    Handler* newer = connect();
    enter(router, older);
    enter(router, newer);
    Identity agent("peer", Identity::TWAGENT, 0);
    agent.setAgentID(12);
    older->identity(agent);
    newer->identity(agent);
    EXPECT_EQ(router.remove_handler(older), 0);
    Dispatch_Set set;
    ASSERT_EQ(router.findHandlersByAgentID(12, set), 0);
    EXPECT_EQ(members(set), std::vector<Handler*>{newer});
    set.release();
    EXPECT_EQ(router.remove_handler(newer), 0);
}

TEST_F(Router, RemovingAConnectionNeverStoredChangesNothing) {
    OpenRouter router;
    Handler* stored = connect(Identity::TWAGENT, 4);
    Handler* stranger = connect(Identity::TWAGENT, 4);
    enter(router, stored);
    // The stranger matches the stored agent by its id, but it is another
    // connection: nothing is removed and no reference is dropped.
    EXPECT_EQ(router.remove_handler(stranger), 1);
    EXPECT_EQ(router.remove_handler(nullptr), 1);
    errno = 0;
    EXPECT_EQ(router.register_handler(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    Dispatch_Set set;
    ASSERT_EQ(router.findAllHandlers(set), 0);
    EXPECT_EQ(members(set), std::vector<Handler*>{stored});
    set.release();
    EXPECT_EQ(router.remove_handler(stored), 0);
}

TEST_F(Router, OtherConnectionsOfTheSameAgent) {
    OpenRouter router;
    Handler* first = connect(Identity::TWAGENT, 4);
    Handler* second = connect(Identity::TWAGENT, 4);
    Handler* third = connect(Identity::TWAGENT, 4);
    Handler* five = connect(Identity::TWAGENT, 5);
    Handler* control = connect(Identity::TWCTRL, 4);
    for (Handler* handler : {first, second, third, five, control})
        enter(router, handler);
    {
        Dispatch_Set set;
        ASSERT_EQ(router.findOtherHandlersByAgentID(third, set), 0);
        EXPECT_EQ(members(set), (std::vector<Handler*>{second, first}));
    }
    {
        Dispatch_Set set;
        EXPECT_EQ(router.findOtherHandlersByAgentID(five, set), -1);
        EXPECT_TRUE(set.is_empty());
        EXPECT_EQ(router.findOtherHandlersByAgentID(control, set), -1);
        EXPECT_EQ(router.findOtherHandlersByAgentID(nullptr, set), -1);
        EXPECT_TRUE(set.is_empty());
    }
    // A connection that is not (or no longer) stored finds all of its agent.
    EXPECT_EQ(router.remove_handler(first), 0);
    {
        Dispatch_Set set;
        ASSERT_EQ(router.findOtherHandlersByAgentID(first, set), 0);
        EXPECT_EQ(members(set), (std::vector<Handler*>{third, second}));
    }
    for (Handler* handler : {second, third, five, control})
        EXPECT_EQ(router.remove_handler(handler), 0);
}

// Searches by token stay cheap when a connection holds as many tokens as it
// may: the newest are found, the evicted ones are not, and clear_act takes
// one away.
TEST_F(Router, SearchByTokenOnAFullList) {
    OpenRouter router;
    Handler* busy = connect();
    Handler* quiet = connect();
    enter(router, busy);
    enter(router, quiet);
    uint32_t const count = 200000;
    {
        LogCapture capture;
        for (uint32_t token = 1; token <= count; ++token)
            busy->getSourceACT().add(token);
        EXPECT_EQ(capture.lines(),
                  Lines{"%D WARN  (%t): More than 65536 open tokens on one connection: the oldest "
                        "are forgotten"});
    }
    EXPECT_EQ(busy->getSourceACT().size(), ACT_List::Default_Capacity);
    quiet->getSourceACT().add(count);
    {
        Dispatch_Set set;
        ASSERT_EQ(router.findHandlersByACT(count, set), 0);
        EXPECT_EQ(set.size(), 2u);
    }
    {
        Dispatch_Set set;
        EXPECT_EQ(router.findHandlersByACT(1, set), -1);
    }
    for (uint32_t token = count; token > count - 1000; --token)
        EXPECT_EQ(router.clear_act(token), 0);
    EXPECT_FALSE(busy->getSourceACT().contains(count));
    EXPECT_FALSE(quiet->getSourceACT().contains(count));
    EXPECT_TRUE(busy->getSourceACT().contains(count - 1000));
    EXPECT_EQ(busy->getSourceACT().size(), ACT_List::Default_Capacity - 1000);
    EXPECT_EQ(router.remove_handler(busy), 0);
    EXPECT_EQ(router.remove_handler(quiet), 0);
}

// Connections come and go on one thread while others search by agent and by
// token and forget tokens, as workers do.
TEST_F(Router, SearchesWhileConnectionsComeAndGo) {
    OpenRouter router;
    std::vector<Handler*> handlers;
    for (int i = 0; i < 6; ++i) {
        handlers.push_back(connect(Identity::TWAGENT, 20 + i % 2));
        handlers.back()->getSourceACT().add(100 + i);
    }
    std::atomic<bool> done(false);
    std::vector<std::thread> searchers;
    for (int t = 0; t < 2; ++t) {
        searchers.emplace_back([&router, &done, &handlers, t] {
            while (!done.load()) {
                Dispatch_Set set;
                router.findHandlersByAgentID(20 + t, set);
                set.release();
                router.findHandlersByACT(100 + t, set);
                set.release();
                router.findOtherHandlersByAgentID(handlers[t], set);
                set.release();
                router.clear_act(1);
            }
        });
    }
    LogCapture capture;  // the registrations' lines
    for (int round = 0; round < 200; ++round) {
        for (Handler* handler : handlers)
            ASSERT_EQ(router.register_handler(handler->duplicate()), 0);
        for (Handler* handler : handlers) {
            handler->getSourceACT().add(1);
            EXPECT_EQ(router.remove_handler(handler), 0);
            EXPECT_EQ(router.remove_handler(handler), 1);
        }
    }
    done = true;
    for (auto& searcher : searchers)
        searcher.join();
    Dispatch_Set set;
    EXPECT_EQ(router.findAllHandlers(set), -1);
}

// ---------------------------------------------------------------------------
// SinglePeerRouter

TEST_F(Router, SinglePeerKeepsTheFirstAndIgnoresTheKey) {
    OpenSingle router;
    EXPECT_FALSE(router.isConnected());
    Dispatch_Set none;
    EXPECT_EQ(router.find(Routing_Key(Routing_Key::ROUTE_ALL), none), -1);
    Handler* first = connect();
    Handler* second = connect();
    enter(router, first);
    enter(router, second);  // accepted, kept aside
    EXPECT_TRUE(router.isConnected());
    Dispatch_Set set;
    Routing_Key key(Routing_Key::ROUTE_AGENT);
    key.agentid = 99;
    ASSERT_EQ(router.find(key, set), 0);
    EXPECT_EQ(members(set), std::vector<Handler*>{first});
    Abstract_Event* event = Event_Factory::create(GET_VERSION_EVENT);
    EXPECT_EQ(router.forward(event), 0);
    EXPECT_EQ(queued(first), 1u);
    EXPECT_EQ(queued(second), 0u);
    event->destroy();
    EXPECT_EQ(router.remove_handler(first), 0);
    EXPECT_EQ(router.remove_handler(second), 0);
    EXPECT_FALSE(router.isConnected());
}

TEST_F(Router, SinglePeerRemovesOnlyTheGivenConnection) {
    OpenSingle router;
    Handler* peer = connect();
    Handler* other = connect();
    enter(router, peer);
    // Never registered: nothing changes, nothing is released.
    EXPECT_EQ(router.remove_handler(other), 1);
    EXPECT_EQ(router.remove_handler(nullptr), 1);
    EXPECT_TRUE(router.isConnected());
    // The same connection twice is refused; the caller keeps its reference.
    EXPECT_EQ(router.register_handler(peer), -1);
    EXPECT_EQ(router.remove_handler(peer), 0);
    EXPECT_FALSE(router.isConnected());
    EXPECT_EQ(router.remove_handler(peer), 1);
    Dispatch_Set set;
    EXPECT_EQ(router.find(Routing_Key(), set), -1);
}

TEST_F(Router, SinglePeerTheOldestAsideTakesOverFromAGonePeer) {
    OpenSingle router;
    Handler* peer = connect(Identity::TWAGENT, 2);
    Handler* second = connect(Identity::TWAGENT, 2);
    Handler* third = connect(Identity::TWAGENT, 2);
    enter(router, peer);
    enter(router, second);
    enter(router, third);
    // The removal of one kept aside drops just that one.
    EXPECT_EQ(router.remove_handler(second), 0);
    EXPECT_EQ(router.remove_handler(second), 1);
    {
        Dispatch_Set set;
        ASSERT_EQ(router.find(Routing_Key(), set), 0);
        EXPECT_EQ(members(set), std::vector<Handler*>{peer});
    }
    EXPECT_EQ(router.remove_handler(peer), 0);
    EXPECT_TRUE(router.isConnected());
    {
        Dispatch_Set set;
        ASSERT_EQ(router.find(Routing_Key(), set), 0);
        EXPECT_EQ(members(set), std::vector<Handler*>{third});
    }
    EXPECT_EQ(router.remove_handler(peer), 1);
    EXPECT_EQ(router.remove_handler(third), 0);
    EXPECT_FALSE(router.isConnected());
}

// ---------------------------------------------------------------------------
// Searches by token against the lists

namespace {

// What a search by `token` must find among `stored` (newest registration
// first): the connections whose source list holds it.
std::vector<Handler*> holding(const std::vector<Handler*>& stored, uint32_t token) {
    std::vector<Handler*> out;
    for (Handler* handler : stored) {
        if (handler->getSourceACT().contains(token))
            out.push_back(handler);
    }
    return out;
}

std::vector<Handler*> byToken(Router_Base& router, uint32_t token) {
    Dispatch_Set set;
    router.findHandlersByACT(token, set);
    return members(set);
}

void expectAgree(Router_Base& router, const std::vector<Handler*>& stored, uint32_t first,
                 uint32_t last) {
    for (uint32_t token = first; token <= last; ++token)
        EXPECT_EQ(byToken(router, token), holding(stored, token)) << "token " << token;
}

}  // namespace

TEST_F(Router, TokenSearchesFollowTheListsThroughEvictions) {
    OpenRouter router;
    Handler* a = connect();
    Handler* b = connect();
    enter(router, a);
    enter(router, b);
    std::vector<Handler*> const stored{b, a};
    a->getSourceACT().setCapacity(4);
    {
        LogCapture capture;
        for (uint32_t token = 1; token <= 10; ++token)
            a->getSourceACT().add(token);
        EXPECT_EQ(capture.lines(), Lines{"%D WARN  (%t): More than 4 open tokens on one "
                                         "connection: the oldest are forgotten"});
    }
    b->getSourceACT().add(8);
    b->getSourceACT().add(2);
    expectAgree(router, stored, 0, 12);
    EXPECT_EQ(byToken(router, 6), std::vector<Handler*>{});
    EXPECT_EQ(byToken(router, 7), std::vector<Handler*>{a});
    EXPECT_EQ(byToken(router, 8), (std::vector<Handler*>{b, a}));
    // A token added again keeps its place: 7 is still the oldest and goes
    // first.
    a->getSourceACT().add(7);
    a->getSourceACT().add(11);
    EXPECT_EQ(byToken(router, 7), std::vector<Handler*>{});
    expectAgree(router, stored, 0, 12);
    // A smaller capacity evicts at once, and so does a removal in between.
    a->getSourceACT().remove(9);
    a->getSourceACT().setCapacity(1);
    EXPECT_EQ(a->getSourceACT().size(), 1u);
    EXPECT_EQ(byToken(router, 11), std::vector<Handler*>{a});
    expectAgree(router, stored, 0, 12);
    EXPECT_EQ(router.remove_handler(a), 0);
    EXPECT_EQ(router.remove_handler(b), 0);
}

TEST_F(Router, TokenSearchesFollowConnectionsThatComeAndGo) {
    OpenRouter router;
    Handler* a = connect();
    Handler* b = connect();
    Handler* c = connect();
    // Tokens noted before the registration are found after it.
    a->getSourceACT().add(5);
    a->getSourceACT().add(7);
    enter(router, a);
    enter(router, b);
    enter(router, c);
    c->getSourceACT().add(5);
    b->getSourceACT().add(6);
    EXPECT_EQ(byToken(router, 5), (std::vector<Handler*>{c, a}));
    expectAgree(router, {c, b, a}, 0, 8);

    // Removed with tokens open: the connection keeps its list, the router
    // finds it no more, also for tokens it notes meanwhile.
    EXPECT_EQ(router.remove_handler(a), 0);
    EXPECT_TRUE(a->getSourceACT().contains(5));
    a->getSourceACT().add(8);
    EXPECT_EQ(byToken(router, 5), std::vector<Handler*>{c});
    EXPECT_EQ(byToken(router, 7), std::vector<Handler*>{});
    EXPECT_EQ(byToken(router, 8), std::vector<Handler*>{});
    expectAgree(router, {c, b}, 0, 8);

    // Stored again, it is the newest, with all its tokens.
    enter(router, a);
    EXPECT_EQ(byToken(router, 5), (std::vector<Handler*>{a, c}));
    expectAgree(router, {a, c, b}, 0, 8);
    EXPECT_EQ(router.clear_act(5), 0);
    EXPECT_FALSE(a->getSourceACT().contains(5));
    EXPECT_FALSE(c->getSourceACT().contains(5));
    expectAgree(router, {a, c, b}, 0, 8);
    EXPECT_EQ(router.remove_handler(a), 0);
    EXPECT_EQ(router.remove_handler(b), 0);
    EXPECT_EQ(router.remove_handler(c), 0);
    EXPECT_EQ(byToken(router, 6), std::vector<Handler*>{});
}

// One connection stored in two routers: each finds it by its tokens while
// it stands there.
TEST_F(Router, AConnectionInTwoRoutersIsFoundByBoth) {
    OpenRouter first;
    OpenRouter second;
    Handler* a = connect();
    Handler* b = connect();
    enter(first, a);
    enter(first, b);
    enter(second, a);
    enter(second, b);
    a->getSourceACT().add(1);
    b->getSourceACT().add(1);
    b->getSourceACT().add(2);
    expectAgree(first, {b, a}, 0, 3);
    expectAgree(second, {b, a}, 0, 3);
    EXPECT_EQ(first.remove_handler(a), 0);
    a->getSourceACT().add(3);
    expectAgree(first, {b}, 0, 3);
    expectAgree(second, {b, a}, 0, 3);
    EXPECT_EQ(second.clear_act(1), 0);
    expectAgree(first, {b}, 0, 3);
    expectAgree(second, {b, a}, 0, 3);
    EXPECT_EQ(second.remove_handler(a), 0);
    enter(first, a);
    expectAgree(first, {a, b}, 0, 3);
    expectAgree(second, {b}, 0, 3);
    EXPECT_EQ(first.remove_handler(a), 0);
    EXPECT_EQ(first.remove_handler(b), 0);
    EXPECT_EQ(second.remove_handler(b), 0);
}

// A router that ends with connections stored forgets them without releasing
// them; their lists go on working without it.
TEST_F(Router, ListsOutliveARouterThatEndsFirst) {
    Handler* a = connect();
    {
        OpenRouter router;
        enter(router, a);
        a->getSourceACT().add(1);
        EXPECT_EQ(byToken(router, 1), std::vector<Handler*>{a});
    }
    a->getSourceACT().add(2);
    a->getSourceACT().remove(1);
    EXPECT_TRUE(a->getSourceACT().contains(2));
    OpenRouter router;
    enter(router, a);
    EXPECT_EQ(byToken(router, 2), std::vector<Handler*>{a});
    EXPECT_EQ(router.remove_handler(a), 0);
    // The reference that the first router kept.
    a->release();
}

// Random changes of lists, capacities and registrations: after each, every
// search by token finds what the lists say, in registration order.
TEST_F(Router, TokenSearchesStayExactThroughRandomChanges) {
    OpenRouter router;
    std::vector<Handler*> handlers;
    for (int i = 0; i < 4; ++i) {
        handlers.push_back(connect());
        handlers.back()->getSourceACT().setCapacity(6);
    }
    std::vector<Handler*> stored;  // newest first
    std::mt19937 random(12345);
    LogCapture capture;  // registrations and evictions
    for (int step = 0; step < 3000; ++step) {
        Handler* const handler = handlers[random() % handlers.size()];
        uint32_t const token = 1 + random() % 16;
        auto const at = std::find(stored.begin(), stored.end(), handler);
        switch (random() % 8) {
            case 0:
            case 1:
            case 2:
                handler->getSourceACT().add(token);
                break;
            case 3:
                handler->getSourceACT().remove(token);
                break;
            case 4:
                EXPECT_EQ(router.clear_act(token), 0);
                break;
            case 5:
                handler->getSourceACT().setCapacity(1 + random() % 8);
                break;
            case 6:
                if (at != stored.end()) {
                    EXPECT_EQ(router.remove_handler(handler), 0);
                    stored.erase(at);
                }
                break;
            default:
                if (at == stored.end()) {
                    enter(router, handler);
                    stored.insert(stored.begin(), handler);
                }
                break;
        }
        expectAgree(router, stored, 0, 17);
        if (HasFailure())
            break;
    }
    for (Handler* handler : stored)
        EXPECT_EQ(router.remove_handler(handler), 0);
}

// Lists change on several threads while connections are stored and removed
// and tokens searched and cleared; once all stop, the searches agree with
// the lists.
TEST_F(Router, TokenSearchesStayExactUnderThreads) {
    OpenRouter router;
    std::vector<Handler*> handlers;
    for (int i = 0; i < 4; ++i)
        handlers.push_back(connect());
    std::atomic<bool> done(false);
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&handlers, &done, t] {
            std::mt19937 random(77 + t);
            while (!done.load()) {
                Handler* const handler = handlers[random() % handlers.size()];
                uint32_t const token = 1 + random() % 32;
                if (random() % 3 == 0)
                    handler->getSourceACT().remove(token);
                else
                    handler->getSourceACT().add(token);
            }
        });
    }
    threads.emplace_back([&router, &done] {
        std::mt19937 random(99);
        while (!done.load()) {
            uint32_t const token = 1 + random() % 32;
            Dispatch_Set set;
            router.findHandlersByACT(token, set);
            for (Handler* handler : set)
                handler->getSourceACT().contains(token);
            set.release();
            if (random() % 4 == 0)
                router.clear_act(token);
        }
    });
    std::vector<Handler*> stored;
    {
        LogCapture capture;  // the registrations' lines
        for (int round = 0; round < 300; ++round) {
            Handler* const handler = handlers[round % handlers.size()];
            auto const at = std::find(stored.begin(), stored.end(), handler);
            if (at == stored.end()) {
                enter(router, handler);
                stored.insert(stored.begin(), handler);
            } else {
                EXPECT_EQ(router.remove_handler(handler), 0);
                stored.erase(at);
            }
        }
        done = true;
        for (auto& thread : threads)
            thread.join();
    }
    expectAgree(router, stored, 0, 33);
    for (Handler* handler : stored)
        EXPECT_EQ(router.remove_handler(handler), 0);
}

// Searches into a set that holds a connection already don't add it twice;
// every reference handed out is released with the sets.
TEST_F(Router, SearchIntoAFilledSetSkipsWhatItHolds) {
    OpenRouter router;
    Handler* a = connect();
    Handler* b = connect();
    enter(router, a);
    enter(router, b);
    a->getSourceACT().add(4);
    Dispatch_Set set;
    ASSERT_EQ(router.findHandlersByACT(4, set), 0);
    ASSERT_EQ(router.findAllHandlers(set), 0);
    EXPECT_EQ(members(set), (std::vector<Handler*>{a, b}));
    ASSERT_EQ(router.findHandlersByACT(4, set), 0);
    EXPECT_EQ(set.size(), 2u);
    Dispatch_Set fresh;
    ASSERT_EQ(router.findAllHandlers(fresh), 0);
    EXPECT_EQ(members(fresh), (std::vector<Handler*>{b, a}));
    EXPECT_EQ(fresh.append(nullptr), 0);
    EXPECT_EQ(fresh.size(), 3u);
    EXPECT_EQ(fresh.remove(nullptr), 0);
    fresh.release();
    set.release();
    EXPECT_EQ(router.remove_handler(a), 0);
    EXPECT_EQ(router.remove_handler(b), 0);
}
