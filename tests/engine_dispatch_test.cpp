// The way of an event through the engine, without workers and with two:
// replies by token, errors, authorization, identification events,
// broadcasts and events for agents.
//
// The engine is one object per process and keeps its one listener for good,
// so each test runs in a child process of its own (inChild). The peers are
// handlers driven by hand (made with an out-argument to makeActiveConnection,
// which leaves them outside the engine), read and written on the thread that
// also runs the reactor. The engine's set-up and the peers are those of
// tests/support/engine_setup.h and engine_peers.h.
#include <tarnwick/abstract_event.h>
#include <tarnwick/act_cache.h>
#include <tarnwick/engine.h>
#include <tarnwick/event_factory.h>
#include <tarnwick/handler_t.h>
#include <tarnwick/identity.h>
#include <tarnwick/message_block.h>
#include <tarnwick/router.h>
#include <tarnwick/tarnwick.h>

#include <ace/INET_Addr.h>
#include <ace/Log_Msg.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/OS_NS_unistd.h>
#include <ace/SOCK_Acceptor.h>
#include <ace/SOCK_Connector.h>
#include <ace/SOCK_Stream.h>
#include <ace/Synch_Options.h>
#include <ace/Thread.h>

#include <gtest/gtest.h>

#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "engine_peers.h"
#include "engine_setup.h"
#include "forked.h"
#include "log_lines.h"
#include "loopback.h"
#include "pump.h"
#include "scratch_dir.h"
#include "wire.h"

using namespace Tarnwick;
using namespace TarnwickTest;

namespace {

// A scratch TMPDIR for the whole program, so that the engines' event cache
// directories don't land in the system's temporary directory.
const ::testing::Environment* const scratch_tmpdir =
    ::testing::AddGlobalTestEnvironment(scratchTmpdir("engine_dispatch_test"));

}  // namespace

namespace {

// The payload of a whole received message.
std::string payloadOf(ACE_Message_Block* block) {
    return TarnwickTest::payloadPart(TarnwickTest::wireBytes(block));
}

int numberOf(Abstract_Event* event, const char* name) {
    int value = -12345;
    event->getArg(name, &value);
    return value;
}

bool holdsSourceToken(Router_Base* router, uint32_t token) {
    Dispatch_Set set;
    return router->findHandlersByACT(token, set) == 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// The way of an event, without workers and with two

class EngineDispatch : public ::testing::TestWithParam<int> {
protected:
    int threads() const { return GetParam(); }
};

INSTANTIATE_TEST_SUITE_P(Workers, EngineDispatch, ::testing::Values(0, 2), workersName);

TEST_P(EngineDispatch, ReplyGoesBackByToken) {
    int const workers = threads();
    inChild([workers] {
        EngineSetup setup = start(workers, new TestRouter(), false);
        Engine* engine = setup.engine;
        Peer peer(startListening(engine));
        ASSERT_TRUE(peer.connected());
        uint32_t const token = peer.send(GET_VERSION_EVENT);
        ASSERT_NE(token, 0u);
        Abstract_Event* reply = peer.receive(engine);
        ASSERT_NE(reply, nullptr);
        EXPECT_EQ(reply->getType(), static_cast<uint32_t>(GET_VERSION_EVENT));
        EXPECT_TRUE(reply->isResult());
        EXPECT_FALSE(reply->isError());
        EXPECT_EQ(reply->getACT(), token);
        EXPECT_EQ(argOf(reply, "version"), "6.6.3");
        reply->destroy();
        // The reply took the token out of the connection's source list.
        EXPECT_TRUE(pumpUntil(engine, [&] { return !holdsSourceToken(setup.router, token); }));

        std::vector<ACE_thread_t> const threads = setup.handler->threads();
        ASSERT_EQ(threads.size(), 1u);
        if (workers == 0) {
            EXPECT_TRUE(ACE_OS::thr_equal(threads[0], ACE_Thread::self()));
            EXPECT_EQ(engine->msg_queue()->message_count(), 0u);
            EXPECT_EQ(engine->thr_count(), 0u);
        } else {
            EXPECT_FALSE(ACE_OS::thr_equal(threads[0], ACE_Thread::self()));
        }
        engine->shutdown();
    });
}

TEST_P(EngineDispatch, UnsupportedEventGetsTheHandlersErrorReply) {
    int const workers = threads();
    inChild([workers] {
        EngineSetup setup = start(workers, new TestRouter(), false);
        Engine* engine = setup.engine;
        Peer peer(startListening(engine));
        uint32_t const token = peer.send(RELOAD_EVENT);
        ASSERT_NE(token, 0u);
        Abstract_Event* reply = peer.receive(engine);
        ASSERT_NE(reply, nullptr);
        EXPECT_EQ(reply->getType(), static_cast<uint32_t>(ERROR_EVENT));
        EXPECT_TRUE(reply->isResult());
        EXPECT_EQ(reply->getACT(), token);
        EXPECT_EQ(argOf(reply, "errormsg"), "Unsupported event.");
        EXPECT_EQ(numberOf(reply, "errornr"), ENOSYS);
        reply->destroy();
        EXPECT_EQ(setup.handler->seen(RELOAD_EVENT), 1);
        engine->shutdown();
    });
}

TEST_P(EngineDispatch, FailingHandlerGivesUnknownError) {
    int const workers = threads();
    inChild([workers] {
        LogLines log;
        EngineSetup setup = start(workers, new TestRouter(), false);
        Engine* engine = setup.engine;
        Peer peer(startListening(engine));
        uint32_t const token = peer.send(DIR_LIST_EVENT);
        ASSERT_NE(token, 0u);
        Abstract_Event* reply = peer.receive(engine);
        ASSERT_NE(reply, nullptr);
        EXPECT_EQ(reply->getType(), static_cast<uint32_t>(ERROR_EVENT));
        EXPECT_EQ(reply->getACT(), token);
        EXPECT_EQ(argOf(reply, "errormsg"), "Unknown error occurred while executing command.");
        EXPECT_EQ(numberOf(reply, "errornr"), 1);
        reply->destroy();
        engine->shutdown();
        EXPECT_TRUE(log.has("%D ERROR (%t): An unspecified error occurred: Input/output error"));
    });
}

TEST_P(EngineDispatch, UnauthorizedEventNeverReachesTheHandler) {
    int const workers = threads();
    inChild([workers] {
        EngineSetup setup = start(workers, new TestRouter(), false);
        Engine* engine = setup.engine;
        Peer peer(startListening(engine));
        uint32_t const token = peer.send(STOP_JOB_EVENT);
        ASSERT_NE(token, 0u);
        Abstract_Event* reply = peer.receive(engine);
        ASSERT_NE(reply, nullptr);
        EXPECT_EQ(reply->getType(), static_cast<uint32_t>(ERROR_EVENT));
        EXPECT_TRUE(reply->isResult());
        EXPECT_EQ(reply->getACT(), token);
        EXPECT_EQ(argOf(reply, "errormsg"), "Permission denied.");
        EXPECT_EQ(numberOf(reply, "errornr"), 1);
        reply->destroy();
        EXPECT_EQ(setup.handler->events(), 0);
        engine->shutdown();
    });
}

TEST_P(EngineDispatch, ConsumedEventLeavesNoToken) {
    int const workers = threads();
    inChild([workers] {
        EngineSetup setup = start(workers, new TestRouter(), false);
        Engine* engine = setup.engine;
        Peer peer(startListening(engine));
        uint32_t const token = peer.send(KICK_EVENT);
        ASSERT_NE(token, 0u);
        ASSERT_TRUE(pumpUntil(engine, [&] { return setup.handler->seen(KICK_EVENT) == 1; }));
        EXPECT_TRUE(pumpUntil(engine, [&] { return !holdsSourceToken(setup.router, token); }));
        EXPECT_TRUE(peer.quiet(engine));
        engine->shutdown();
    });
}

TEST_P(EngineDispatch, UnknownTypeIsLoggedAndTheConnectionStays) {
    int const workers = threads();
    inChild([workers] {
        LogLines log;
        EngineSetup setup = start(workers, new TestRouter(), false);
        Engine* engine = setup.engine;
        Peer peer(startListening(engine));
        ASSERT_NE(peer.send(KICK_EVENT, [](Abstract_Event* event) { event->setType(99); }), 0u);
        EXPECT_TRUE(peer.quiet(engine));
        // The connection still serves.
        uint32_t const token = peer.send(GET_VERSION_EVENT);
        Abstract_Event* reply = peer.receive(engine);
        ASSERT_NE(reply, nullptr);
        EXPECT_EQ(reply->getACT(), token);
        reply->destroy();
        EXPECT_EQ(setup.handler->events(), 1);
        engine->shutdown();
        EXPECT_EQ(log.count(CONVERSION_FAILED), 1);
    });
}

TEST_P(EngineDispatch, IdentityEventActivatesTheConnection) {
    int const workers = threads();
    inChild([workers] {
        LogLines log;
        EngineSetup setup = start(workers, new TestRouter(), false);
        Engine* engine = setup.engine;
        Peer peer(startListening(engine));
        ASSERT_TRUE(identifyAsAgent(setup, peer, 7));
        EXPECT_EQ(setup.handler->activations(), std::vector<int>{0});
        Handler* connection = agentConnection(setup.router, 7);
        ASSERT_NE(connection, nullptr);
        EXPECT_TRUE(connection->isAgent());
        EXPECT_STREQ(connection->identity().login(), "operator");
        connection->release();

        // From now on the connection is reached by its agent id.
        KickEvent kick;
        kick.setAgentID(7);
        uint32_t const token = kick.getACT();
        EXPECT_EQ(engine->forward(&kick), 0);
        Abstract_Event* received = peer.receive(engine);
        ASSERT_NE(received, nullptr);
        EXPECT_EQ(received->getType(), static_cast<uint32_t>(KICK_EVENT));
        EXPECT_EQ(received->getACT(), token);
        received->destroy();
        engine->shutdown();
        EXPECT_TRUE(log.has(ACTIVATED_AGENT_7));
    });
}

TEST_P(EngineDispatch, IdentityWithoutLoginActivatesAsUnknown) {
    int const workers = threads();
    inChild([workers] {
        LogLines log;
        EngineSetup setup = start(workers, new TestRouter(), false);
        Engine* engine = setup.engine;
        Peer peer(startListening(engine));
        Identity identity = peerIdentity(Identity::TWAGENT, 7, false);
        ASSERT_NE(peer.identify(identity), 0u);
        ASSERT_TRUE(pumpUntil(engine, [&] { return setup.handler->activations().size() == 1; }));
        EXPECT_EQ(setup.handler->activations(), std::vector<int>{0});
        Handler* connection = agentConnection(setup.router, 7);
        EXPECT_EQ(connection, nullptr);
        engine->shutdown();
        EXPECT_TRUE(log.has("%D INFO  (%t): Connection from 127.0.0.1 activated : unknown"));
    });
}

TEST_P(EngineDispatch, ReplyIdentityFindsNoConnection) {
    int const workers = threads();
    inChild([workers] {
        LogLines log;
        EngineSetup setup = start(workers, new TestRouter(), false);
        Engine* engine = setup.engine;
        Peer peer(startListening(engine));
        Identity identity = peerIdentity(Identity::TWAGENT, 7);
        IdentityEvent event;
        ASSERT_EQ(identity.updateEvent(&event), 0);
        event.setResult(true);
        ASSERT_TRUE(peer.send(&event));
        ASSERT_TRUE(pumpUntil(engine, [&] { return setup.handler->activations().size() == 1; }));
        EXPECT_EQ(setup.handler->activations(), std::vector<int>{-1});
        EXPECT_EQ(agentConnection(setup.router, 7), nullptr);
        engine->shutdown();
        EXPECT_TRUE(log.has("%D ERROR (%t): Can not find network handler. Activation failed."));
    });
}

TEST_P(EngineDispatch, NonLocalBroadcastReachesTheAgents) {
    int const workers = threads();
    inChild([workers] {
        EngineSetup setup = start(workers, new TestRouter(), false);
        Engine* engine = setup.engine;
        u_short const port = startListening(engine);
        Peer seven(port);
        Peer eight(port);
        Peer sender(port);
        ASSERT_TRUE(identifyAsAgent(setup, seven, 7));
        ASSERT_TRUE(identifyAsAgent(setup, eight, 8));
        uint32_t const token = sender.send(RELOAD_EVENT, [](Abstract_Event* event) {
            event->setArg("payload", "original");
            event->setBroadCast(true);
        });
        ASSERT_NE(token, 0u);
        for (Peer* agent : {&seven, &eight}) {
            ACE_Message_Block* block = agent->receiveBlock(engine);
            ASSERT_NE(block, nullptr);
            EXPECT_EQ(Abstract_Event::GetMessageType(block), static_cast<uint32_t>(RELOAD_EVENT));
            EXPECT_EQ(Abstract_Event::GetACT(block), token);
            EXPECT_EQ(payloadOf(block), "broadcast ok\n");
            block->release();
        }
        EXPECT_TRUE(sender.quiet(engine));
        EXPECT_EQ(setup.handler->seen(RELOAD_EVENT), 0);
        engine->shutdown();
    });
}

TEST_P(EngineDispatch, EventForAnAbsentAgentComesBackAsAnError) {
    int const workers = threads();
    inChild([workers] {
        EngineSetup setup = start(workers, new TestRouter(), false);
        Engine* engine = setup.engine;
        Peer peer(startListening(engine));
        uint32_t const token =
            peer.send(GET_VERSION_EVENT, [](Abstract_Event* event) { event->setAgentID(99); });
        ASSERT_NE(token, 0u);
        Abstract_Event* reply = peer.receive(engine);
        ASSERT_NE(reply, nullptr);
        EXPECT_EQ(reply->getType(), static_cast<uint32_t>(ERROR_EVENT));
        EXPECT_EQ(reply->getACT(), token);
        EXPECT_EQ(argOf(reply, "errormsg"), "Could not forward message to Agent with id 99.");
        EXPECT_EQ(numberOf(reply, "errornr"), 1);
        reply->destroy();
        EXPECT_EQ(setup.handler->events(), 0);
        engine->shutdown();
    });
}

TEST_P(EngineDispatch, RequestIsRelayedToAnAgentAndTheReplyComesBack) {
    int const workers = threads();
    inChild([workers] {
        EngineSetup setup = start(workers, new TestRouter(Routing_Key::ROUTE_HANDLER, true), false);
        Engine* engine = setup.engine;
        u_short const port = startListening(engine);
        Peer agent(port);
        Peer asker(port);
        ASSERT_TRUE(identifyAsAgent(setup, agent, 7));
        uint32_t const token =
            asker.send(GET_VERSION_EVENT, [](Abstract_Event* event) { event->setAgentID(7); });
        ASSERT_NE(token, 0u);

        Abstract_Event* request = agent.receive(engine);
        ASSERT_NE(request, nullptr);
        EXPECT_EQ(request->getType(), static_cast<uint32_t>(GET_VERSION_EVENT));
        EXPECT_FALSE(request->isResult());
        EXPECT_EQ(request->getACT(), token);
        Handler* connection = agentConnection(setup.router, 7);
        ASSERT_NE(connection, nullptr);
        EXPECT_TRUE(connection->getTargetACT().contains(token));

        // The agent answers; the reply finds the asker by its token.
        request->reset();
        request->setResult(true);
        request->setAgentID(0);
        request->setArg("version", "7.0");
        ASSERT_TRUE(agent.send(request));
        request->destroy();
        Abstract_Event* reply = asker.receive(engine);
        ASSERT_NE(reply, nullptr);
        EXPECT_EQ(reply->getType(), static_cast<uint32_t>(GET_VERSION_EVENT));
        EXPECT_TRUE(reply->isResult());
        EXPECT_EQ(reply->getACT(), token);
        EXPECT_EQ(argOf(reply, "version"), "7.0");
        reply->destroy();
        EXPECT_FALSE(connection->getTargetACT().contains(token));
        // With workers the reply may reach the asker (written on the worker)
        // a moment before the router takes the token out of its list.
        EXPECT_TRUE(pumpUntil(engine, [&] { return !holdsSourceToken(setup.router, token); }));
        connection->release();
        EXPECT_EQ(setup.handler->seen(GET_VERSION_EVENT), 0);
        engine->shutdown();
    });
}

TEST_P(EngineDispatch, NewConnectionIsAskedWhoItIs) {
    int const workers = threads();
    inChild([workers] {
        LogLines log;
        EngineSetup setup = start(workers, new TestRouter(Routing_Key::ROUTE_ALL), true);
        Engine* engine = setup.engine;
        Peer peer(startListening(engine));
        Abstract_Event* request = peer.receive(engine);
        ASSERT_NE(request, nullptr);
        EXPECT_EQ(request->getType(), static_cast<uint32_t>(IDENTITY_EVENT));
        EXPECT_FALSE(request->isResult());
        EXPECT_NE(request->getACT(), 0u);
        EXPECT_EQ(argOf(request, "type"), "1");
        EXPECT_EQ(argOf(request, "agentid"), "1");
        EXPECT_EQ(argOf(request, "login"), "tester");
        request->destroy();
        engine->shutdown();
        EXPECT_TRUE(log.has("%D DEBUG (%t): Sending Identification request."));
    });
}

TEST_P(EngineDispatch, ManyRequestsInFlightAreEachAnsweredOnce) {
    // Hundreds of messages in flight at once: their blocks are made, handed
    // to the workers, answered and released side by side, and each request
    // gets its one reply, whole.
    int const workers = threads();
    inChild([workers] {
        EngineSetup setup = start(workers, new TestRouter(), false);
        Engine* engine = setup.engine;
        Peer peer(startListening(engine));
        ASSERT_TRUE(peer.connected());
        const int count = 300;
        std::map<uint32_t, int> sent;
        for (int i = 0; i < count; ++i) {
            uint32_t const token =
                peer.send(GET_VERSION_EVENT, [i](Abstract_Event* event) { event->setArg("n", i); });
            ASSERT_NE(token, 0u);
            sent[token] = i;
        }
        ASSERT_EQ(sent.size(), static_cast<size_t>(count));
        std::map<uint32_t, int> answered;
        for (int i = 0; i < count; ++i) {
            Abstract_Event* reply = peer.receive(engine);
            ASSERT_NE(reply, nullptr) << "reply " << i;
            EXPECT_TRUE(reply->isResult());
            EXPECT_EQ(argOf(reply, "version"), "6.6.3");
            EXPECT_NE(sent.find(reply->getACT()), sent.end());
            ++answered[reply->getACT()];
            reply->destroy();
        }
        EXPECT_EQ(answered.size(), sent.size());
        for (const auto& entry : answered)
            EXPECT_EQ(entry.second, 1) << "token " << entry.first;
        EXPECT_EQ(setup.handler->seen(GET_VERSION_EVENT), count);
        EXPECT_TRUE(peer.quiet(engine));
        engine->shutdown();
    });
}
