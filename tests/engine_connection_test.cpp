// Connections of the engine: made and accepted (plain and SSL), the
// identification of peers, engine-wide operations on connections, and
// cleanupHandles with monitoring off and on.
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
    ::testing::AddGlobalTestEnvironment(scratchTmpdir("engine_connection_test"));

}  // namespace

// ---------------------------------------------------------------------------
// Identification

TEST(EngineIdentification, RequestThatFindsNoWayRefusesTheConnection) {
    inChild([] {
        LogLines log;
        // A plain Router sends an event without destination nowhere.
        EngineSetup setup = start(0, new Router(), true);
        Engine* engine = setup.engine;
        Peer peer(startListening(engine));
        EXPECT_TRUE(peer.closed(engine));
        EXPECT_EQ(connections(setup.router), 0);
        engine->shutdown();
        EXPECT_TRUE(log.has("%D DEBUG (%t): Sending Identification request."));
        EXPECT_TRUE(log.hasPrefix("%D ERROR (%t): Incoming connection failed: "));
    });
}

TEST(EngineIdentification, ActivateWithoutRouterOrToken) {
    inChild([] {
        LogLines log;
        EngineSetup setup = start(0, new TestRouter(), false);
        IdentityEvent event;
        EXPECT_EQ(setup.engine->activate_handler(&event), -1);
        EXPECT_EQ(setup.engine->activate_handler(nullptr), -1);
        EXPECT_EQ(log.count("%D ERROR (%t): Can not find network handler. Activation failed."), 2);
        setup.engine->shutdown();
    });
}

namespace {

// The agent's side of TwoEnginesIdentifyEachOther, in a process of its own:
// it listens at `port`, asks every new connection who it is, and takes in
// the peer's answer. 0 when it identified a "twctrl" peer that then left.
int runAgent(u_short port, int ready) {
    LogLines log;
    EngineSetup setup = start(1, new TestRouter(Routing_Key::ROUTE_ALL), true);
    setIdentity(Identity::TWAGENT, 7);
    ACE_Synch_Options options;
    if (setup.engine->makeConnection(loopback(port), CONNECTION_PASSIVE, options) == -1)
        return 2;
    char const mark = 'r';
    if (::write(ready, &mark, 1) != 1)
        return 3;
    ::close(ready);
    bool const done = pumpUntil(
        setup.engine,
        [&] {
            return setup.handler->activations().size() == 1 && setup.handler->disconnects() == 1;
        },
        10000);
    setup.engine->shutdown();
    bool const identified = log.has("%D INFO  (%t): Connection from 127.0.0.1 activated : twctrl");
    if (!done || !identified) {
        std::cerr << "agent: done " << done << ", identified " << identified << "\n" << log.text();
        return 1;
    }
    return 0;
}

}  // namespace

TEST(EngineIdentification, TwoEnginesIdentifyEachOther) {
    inChild([] {
        u_short const port = freePort();
        int pipe_ends[2];
        ASSERT_EQ(::pipe(pipe_ends), 0);
        pid_t const agent = ::fork();
        ASSERT_NE(agent, -1);
        if (agent == 0) {
            ::close(pipe_ends[0]);
            ::_exit(runAgent(port, pipe_ends[1]));
        }
        ::close(pipe_ends[1]);
        char mark = 0;
        ssize_t const got = ::read(pipe_ends[0], &mark, 1);
        ::close(pipe_ends[0]);

        LogLines log;
        EngineSetup setup = prepare(new SinglePeerRouter(), true);
        setIdentity(Identity::TWCTRL, 0);
        ASSERT_EQ(setup.engine->open(0, false), 0);
        if (got == 1) {
            ACE_Synch_Options options;
            EXPECT_EQ(setup.engine->makeConnection(loopback(port), 0, options), 0);
            EXPECT_TRUE(
                pumpUntil(setup.engine, [&] { return setup.handler->activations().size() == 1; }));
            EXPECT_EQ(setup.handler->activations(), std::vector<int>{0});
            // Give our own identity time to reach the agent.
            pumpFor(setup.engine, 100);
        } else {
            ADD_FAILURE() << "the agent did not start";
        }
        setup.engine->shutdown();
        EXPECT_TRUE(log.has(ACTIVATED_AGENT_7));

        int status = -1;
        ACE_Time_Value const deadline = now() + ACE_Time_Value(15);
        while (::waitpid(agent, &status, WNOHANG) == 0 && now() < deadline)
            sleepMicroseconds(10000);
        if (now() >= deadline) {
            ::kill(agent, SIGKILL);
            ::waitpid(agent, &status, 0);
        }
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 0);
    });
}

// ---------------------------------------------------------------------------
// Connection establishment

TEST(EngineConnection, PlainListenerWarnsAndAccepts) {
    inChild([] {
        EngineSetup setup = start(0, new TestRouter(), false);
        Engine* engine = setup.engine;
        LogLines log;
        u_short const port = startListening(engine);
        Lines const expected = {
            "%D DEBUG (%t): Setting up passive connection.",
            "%D WARN  (%t): Configuring a passive connection using non-encrypted sockets!",
        };
        EXPECT_EQ(log.lines(), expected);
        Peer peer(port);
        ASSERT_TRUE(peer.connected());
        ASSERT_TRUE(pumpUntil(engine, [&] { return connections(setup.router) == 1; }));
        EXPECT_TRUE(log.has("%D DEBUG (%t): Incoming connection from 127.0.0.1"));
        engine->shutdown();
    });
}

TEST(EngineConnection, SecondListenerIsRefusedAndTheFirstGoesOn) {
    inChild([] {
        EngineSetup setup = start(0, new TestRouter(), false);
        Engine* engine = setup.engine;
        u_short const port = startListening(engine);
        {
            LogLines log;
            ACE_Synch_Options options;
            EXPECT_EQ(engine->makeConnection(loopback(freePort()), CONNECTION_PASSIVE, options),
                      -1);
            EXPECT_EQ(engine->makeConnection(loopback(port), CONNECTION_PASSIVE | CONNECTION_SSL,
                                             options),
                      -1);
            Lines const expected = {"%D DEBUG (%t): Setting up passive connection.",
                                    "%D DEBUG (%t): Setting up passive connection."};
            EXPECT_EQ(log.lines(), expected);
        }
        Peer peer(port);
        ASSERT_TRUE(peer.connected());
        EXPECT_TRUE(pumpUntil(engine, [&] { return connections(setup.router) == 1; }));
        engine->shutdown();
    });
}

TEST(EngineConnection, ListenerOnABusyPortFailsForGood) {
    inChild([] {
        EngineSetup setup = start(0, new TestRouter(), false);
        Engine* engine = setup.engine;
        Listener busy;
        ACE_Synch_Options options;
        EXPECT_EQ(engine->makeConnection(busy.address(), CONNECTION_PASSIVE, options), -1);
        EXPECT_EQ(engine->makeConnection(loopback(freePort()), CONNECTION_PASSIVE, options), -1);
        engine->shutdown();
    });
}

TEST(EngineConnection, PassiveBeforeOpenFails) {
    inChild([] {
        EngineSetup setup = prepare(new TestRouter(), false);
        ACE_Synch_Options options;
        EXPECT_EQ(setup.engine->makeConnection(loopback(freePort()), CONNECTION_PASSIVE, options),
                  -1);
    });
}

TEST(EngineConnection, SslListenerDropsAPeerWithoutHandshake) {
    inChild([] {
        EngineSetup setup = start(0, new TestRouter(), false);
        Engine* engine = setup.engine;
        LogLines log;
        u_short const port = freePort();
        ACE_Synch_Options options;
        ASSERT_EQ(
            engine->makeConnection(loopback(port), CONNECTION_PASSIVE | CONNECTION_SSL, options),
            0);
        Lines const expected = {"%D DEBUG (%t): Setting up passive connection."};
        EXPECT_EQ(log.lines(), expected);

        // Peers that speak no SSL are dropped; the listener goes on.
        for (int round = 1; round <= 2; ++round) {
            ACE_SOCK_Stream raw;
            ACE_SOCK_Connector connector;
            ASSERT_EQ(connector.connect(raw, loopback(port)), 0);
            std::string const junk(64, 'x');
            ASSERT_EQ(raw.send_n(junk.data(), junk.size()), static_cast<ssize_t>(junk.size()));
            raw.close_writer();
            EXPECT_TRUE(pumpUntil(engine, [&] {
                return log.countPrefix("%D ERROR (%t): Incoming connection failed: ") == round;
            })) << round;
            raw.close();
        }
        EXPECT_EQ(connections(setup.router), 0);
        engine->shutdown();
    });
}

TEST(EngineConnection, ActiveSslConnectionToAPeerWithoutSslFails) {
    inChild([] {
        EngineSetup setup = start(0, new TestRouter(), false);
        Engine* engine = setup.engine;
        Listener listener;
        // The peer accepts and hangs up at once.
        std::thread peer([&listener] {
            for (int i = 0; i < 2; ++i) {
                ACE_SOCK_Stream stream;
                if (listener.accept(stream) == 0)
                    stream.close();
            }
        });
        LogLines log;
        ACE_Synch_Options options;
        Handler* handler = nullptr;
        EXPECT_EQ(
            Engine::makeActiveConnection(listener.address(), CONNECTION_SSL, options, &handler),
            -1);
        EXPECT_EQ(handler, nullptr);
        EXPECT_EQ(engine->makeConnection(listener.address(), CONNECTION_SSL, options), -1);
        peer.join();
        Lines const lines = log.lines();
        ASSERT_GE(lines.size(), 3u);
        EXPECT_EQ(lines[0], "%D DEBUG (%t): Setting up active connection.");
        EXPECT_EQ(lines[1], "%D DEBUG (%t): Using legacy SSL certificates for authentication.");
        EXPECT_TRUE(log.hasPrefix("%D ERROR (%t): Active connection failed."));
        EXPECT_EQ(connections(setup.router), 0);
        engine->shutdown();
    });
}

TEST(EngineConnection, SslTypesAreMadeAndReleased) {
    inChild([] {
        SSLHandler* handler = new SSLHandler();
        EXPECT_EQ(handler->get_handle(), ACE_INVALID_HANDLE);
        EXPECT_EQ(handler->release(), nullptr);
    });
}

TEST(EngineConnection, ActivePlainConnectionJoinsTheEngine) {
    inChild([] {
        EngineSetup setup = start(0, new SinglePeerRouter(), true);
        Engine* engine = setup.engine;
        Listener listener;
        LogLines log;
        ACE_Synch_Options options;
        ASSERT_EQ(engine->makeConnection(listener.address(), 0, options), 0);
        Lines const lines = log.lines();
        ASSERT_GE(lines.size(), 2u);
        EXPECT_EQ(lines[0], "%D DEBUG (%t): Setting up active connection.");
        EXPECT_EQ(lines[1], "%D DEBUG (%t): Using legacy authentication.");
        EXPECT_TRUE(static_cast<SinglePeerRouter*>(setup.router)->isConnected());

        // The identification request is on its way to the peer.
        ACE_SOCK_Stream stream;
        ASSERT_EQ(listener.accept(stream), 0);
        std::string bytes;
        ASSERT_TRUE(pumpUntil(engine, [&] {
            bytes += readFor(stream, 5);
            return bytes.size() >= 32;
        }));
        EXPECT_EQ(wordAt(bytes, 12), static_cast<uint32_t>(IDENTITY_EVENT));
        EXPECT_NE(wordAt(bytes, 4), 0u);

        // The engine sees the peer leave.
        stream.close();
        EXPECT_TRUE(pumpUntil(engine, [&] { return setup.handler->disconnects() == 1; }));
        EXPECT_FALSE(static_cast<SinglePeerRouter*>(setup.router)->isConnected());
        engine->shutdown();
    });
}

TEST(EngineConnection, UnreachablePeerFailsWhateverTheOptions) {
    inChild([] {
        EngineSetup setup = start(0, new TestRouter(), false);
        LogLines log;
        ACE_Synch_Options options(ACE_Synch_Options::USE_TIMEOUT, ACE_Time_Value(0, 1000));
        Handler* handler = nullptr;
        errno = 0;
        EXPECT_EQ(Engine::makeActiveConnection(loopback(freePort()), 0, options, &handler), -1);
        EXPECT_EQ(errno, ECONNREFUSED);
        EXPECT_EQ(handler, nullptr);
        EXPECT_EQ(setup.engine->makeConnection(loopback(freePort()), 0, options), -1);
        EXPECT_EQ(log.count("%D ERROR (%t): Active connection failed.: Connection refused"), 2);
        EXPECT_EQ(connections(setup.router), 0);
        setup.engine->shutdown();
    });
}

TEST(EngineConnection, OutArgumentLeavesTheHandlerOutsideTheEngine) {
    inChild([] {
        EngineSetup setup = start(0, new SinglePeerRouter(), true);
        Engine* engine = setup.engine;
        Listener listener;
        LogLines log;
        ACE_Synch_Options options;
        Handler* handler = nullptr;
        ASSERT_EQ(Engine::makeActiveConnection(listener.address(), 0, options, &handler), 0);
        ASSERT_NE(handler, nullptr);
        EXPECT_EQ(handler->getEngine(), nullptr);
        EXPECT_EQ(handler->reactor(), nullptr);
        EXPECT_EQ(connections(setup.router), 0);
        EXPECT_FALSE(log.has("%D DEBUG (%t): Sending Identification request."));

        ACE_SOCK_Stream stream;
        ASSERT_EQ(listener.accept(stream), 0);
        pumpFor(engine, 20);
        EXPECT_EQ(readFor(stream, 50), "");
        handler->close(0);
        EXPECT_EQ(handler->release(), nullptr);
        stream.close();
        engine->shutdown();
    });
}

TEST(EngineConnection, RunServesUntilTheLoopIsEnded) {
    inChild([] {
        EngineSetup setup = start(0, new TestRouter(), false);
        setup.handler->endLoopOnKick();
        Engine* engine = setup.engine;
        u_short const port = startListening(engine);
        // A peer on a thread of its own sends the event that ends the loop.
        std::thread peer([port] {
            ACE_Synch_Options options;
            Handler* handler = nullptr;
            if (Engine::makeActiveConnection(loopback(port), 0, options, &handler) == -1)
                return;
            KickEvent kick;
            ACE_Message_Block* block = kick.data(false);
            errno = 0;
            while (handler->send(block, nullptr) == 0 && errno == EWOULDBLOCK)
                errno = 0;
            // Waits for the engine to hang up.
            ACE_Message_Block* received = nullptr;
            ACE_Time_Value wait(5);
            handler->recv(received, &wait);
            if (received != nullptr)
                received->release();
            handler->close(0);
            handler->release();
        });
        EXPECT_EQ(engine->run(), 0);
        EXPECT_EQ(setup.handler->seen(KICK_EVENT), 1);
        engine->shutdown();
        peer.join();
    });
}

// ---------------------------------------------------------------------------
// Engine-wide operations on connections

TEST(EngineConnections, HeartBeatReachesEveryConnection) {
    inChild([] {
        EngineSetup setup = start(0, new TestRouter(), false);
        Engine* engine = setup.engine;
        u_short const port = startListening(engine);
        Peer first(port);
        Peer second(port);
        ASSERT_TRUE(pumpUntil(engine, [&] { return connections(setup.router) == 2; }));
        EXPECT_EQ(engine->sendGlobalHeartBeat(), 0);
        uint32_t tokens[2] = {0, 0};
        Peer* peers[2] = {&first, &second};
        for (int i = 0; i < 2; ++i) {
            Abstract_Event* beat = peers[i]->receive(engine);
            ASSERT_NE(beat, nullptr);
            EXPECT_EQ(beat->getType(), static_cast<uint32_t>(HEART_BEAT_EVENT));
            EXPECT_FALSE(beat->isBroadCast());
            EXPECT_FALSE(beat->isResult());
            tokens[i] = beat->getACT();
            beat->destroy();
        }
        EXPECT_NE(tokens[0], 0u);
        EXPECT_EQ(tokens[0], tokens[1]);
        engine->shutdown();
    });
}

TEST(EngineConnections, DisconnectClosesEveryConnection) {
    inChild([] {
        EngineSetup setup = start(2, new TestRouter(), false);
        Engine* engine = setup.engine;
        u_short const port = startListening(engine);
        Peer first(port);
        Peer second(port);
        ASSERT_TRUE(pumpUntil(engine, [&] { return connections(setup.router) == 2; }));
        EXPECT_EQ(engine->disconnect(), 0);
        EXPECT_TRUE(first.closed(engine));
        EXPECT_TRUE(second.closed(engine));
        EXPECT_EQ(setup.handler->disconnects(), 2);
        EXPECT_EQ(connections(setup.router), 0);
        EXPECT_EQ(engine->disconnect(), -1);
        // The listener goes on.
        Peer third(port);
        EXPECT_TRUE(pumpUntil(engine, [&] { return connections(setup.router) == 1; }));
        engine->shutdown();
    });
}

namespace {

ACE_Time_Value fake_now;

ACE_Time_Value fakeClock() {
    return fake_now;
}

}  // namespace

TEST(EngineConnections, MonitoringStartsTheTimestamps) {
    inChild([] {
        EngineSetup setup = start(0, new TestRouter(), false);
        Engine* engine = setup.engine;
        u_short const port = startListening(engine);
        Peer first(port);
        ASSERT_TRUE(pumpUntil(engine, [&] { return connections(setup.router) == 1; }));
        Dispatch_Set set;
        ASSERT_EQ(setup.router->findAllHandlers(set), 0);
        Handler* old = *set.begin();
        EXPECT_EQ(old->lastActivity(), ACE_Time_Value::zero);
        EXPECT_EQ(old->lastRecvActivity(), ACE_Time_Value::zero);
        ACE_Time_Value const before = now();
        engine->enableMonitoring();
        EXPECT_GE(old->lastActivity(), before);
        EXPECT_GE(old->lastRecvActivity(), before);

        Peer second(port);
        ASSERT_TRUE(pumpUntil(engine, [&] { return connections(setup.router) == 2; }));
        Dispatch_Set all;
        ASSERT_EQ(setup.router->findAllHandlers(all), 0);
        for (Handler* handler : all) {
            EXPECT_NE(handler->lastActivity(), ACE_Time_Value::zero);
            EXPECT_NE(handler->lastRecvActivity(), ACE_Time_Value::zero);
        }
        set.release();
        all.release();
        engine->shutdown();
    });
}

TEST(EngineConnections, CleanupKeepsAConnectionIdleForExactlyTheLimit) {
    inChild([] {
        LogLines log;
        EngineSetup setup = start(0, new TestRouter(), false);
        Engine* engine = setup.engine;
        engine->enableMonitoring();
        Peer peer(startListening(engine));
        ASSERT_TRUE(pumpUntil(engine, [&] { return connections(setup.router) == 1; }));
        ACE_Time_Value last;
        {
            Dispatch_Set set;
            ASSERT_EQ(setup.router->findAllHandlers(set), 0);
            last = (*set.begin())->lastActivity();
        }
        ASSERT_NE(last, ACE_Time_Value::zero);
        EngineTestHooks::clock(fakeClock);
        fake_now = last + ACE_Time_Value(10);
        EXPECT_EQ(engine->cleanupHandles(10, false), 0);
        EXPECT_EQ(engine->cleanupHandles(10, true), 0);
        EXPECT_EQ(connections(setup.router), 1);
        EXPECT_TRUE(peer.quiet(engine, 20));

        fake_now = last + ACE_Time_Value(10, 1);
        EXPECT_EQ(engine->cleanupHandles(10, false), 0);
        EXPECT_EQ(connections(setup.router), 0);
        EXPECT_TRUE(peer.closed(engine));
        EXPECT_EQ(log.count("%D INFO  (%t): Timeout reached for connection from 127.0.0.1"), 1);
        engine->shutdown();
    });
}

TEST(EngineConnections, CleanupJudgesAgentsByTheLastReceivedByte) {
    inChild([] {
        EngineSetup setup = start(0, new TestRouter(), false);
        Engine* engine = setup.engine;
        engine->enableMonitoring();
        u_short const port = startListening(engine);
        Peer agent(port);
        Peer other(port);
        ASSERT_TRUE(identifyAsAgent(setup, agent, 7));
        sleepMicroseconds(3000);
        // Bytes go out to both; then only the other one speaks again.
        ASSERT_EQ(engine->sendGlobalHeartBeat(), 0);
        for (Peer* peer : {&agent, &other}) {
            Abstract_Event* beat = peer->receive(engine);
            ASSERT_NE(beat, nullptr);
            beat->destroy();
        }
        sleepMicroseconds(3000);
        ASSERT_NE(other.send(KICK_EVENT), 0u);
        ASSERT_TRUE(pumpUntil(engine, [&] { return setup.handler->seen(KICK_EVENT) == 1; }));

        Handler* connection = agentConnection(setup.router, 7);
        ASSERT_NE(connection, nullptr);
        ACE_Time_Value const sent = connection->lastActivity();
        ACE_Time_Value const received = connection->lastRecvActivity();
        connection->release();
        ASSERT_LT(received, sent);

        EngineTestHooks::clock(fakeClock);
        fake_now = sent + ACE_Time_Value(10);
        // By any byte, neither is idle for more than 10 seconds.
        EXPECT_EQ(engine->cleanupHandles(10, false), 0);
        EXPECT_EQ(connections(setup.router), 2);
        // By the last received byte, the agent is.
        EXPECT_EQ(engine->cleanupHandles(10, true), 0);
        EXPECT_EQ(connections(setup.router), 1);
        EXPECT_EQ(agentConnection(setup.router, 7), nullptr);
        EXPECT_TRUE(agent.closed(engine));
        EXPECT_TRUE(other.quiet(engine, 20));
        engine->shutdown();
    });
}

TEST(EngineConnections, CleanupWithoutMonitoringClosesEveryConnection) {
    inChild([] {
        EngineSetup setup = start(0, new TestRouter(), false);
        Engine* engine = setup.engine;
        u_short const port = startListening(engine);
        Peer first(port);
        Peer second(port);
        ASSERT_TRUE(pumpUntil(engine, [&] { return connections(setup.router) == 2; }));
        EXPECT_EQ(engine->cleanupHandles(3600, true), 0);
        EXPECT_EQ(connections(setup.router), 0);
        EXPECT_TRUE(first.closed(engine));
        EXPECT_TRUE(second.closed(engine));
        engine->shutdown();
    });
}

// ---------------------------------------------------------------------------
// cleanupHandles with monitoring off and on

TEST(EngineCleanupUnmonitored, AgentsAndOthersAreIdleByEitherClock) {
    inChild([] {
        LogLines log;
        EngineSetup setup = start(0, new TestRouter(), false);
        Engine* engine = setup.engine;
        u_short const port = startListening(engine);
        for (bool const use_receive_time : {false, true}) {
            SCOPED_TRACE(use_receive_time ? "by received bytes" : "by any byte");
            Peer agent(port);
            Peer other(port);
            ASSERT_TRUE(identifyAsAgent(setup, agent, 7));
            ASSERT_TRUE(pumpUntil(engine, [&] { return connections(setup.router) == 2; }));
            // The agent has just spoken, but no timestamp runs.
            Handler* connection = agentConnection(setup.router, 7);
            ASSERT_NE(connection, nullptr);
            EXPECT_EQ(connection->lastActivity(), ACE_Time_Value::zero);
            EXPECT_EQ(connection->lastRecvActivity(), ACE_Time_Value::zero);
            connection->release();
            EXPECT_EQ(engine->cleanupHandles(3600, use_receive_time), 0);
            EXPECT_EQ(connections(setup.router), 0);
            EXPECT_TRUE(agent.closed(engine));
            EXPECT_TRUE(other.closed(engine));
        }
        EXPECT_EQ(setup.handler->disconnects(), 4);
        engine->shutdown();
        EXPECT_EQ(log.count("%D INFO  (%t): Timeout reached for connection from 127.0.0.1"), 4);
    });
}

class EngineCleanupMonitored : public ::testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(Workers, EngineCleanupMonitored, ::testing::Values(0, 2), workersName);

TEST_P(EngineCleanupMonitored, BusyConnectionsStayAndIdleOnesGo) {
    int const workers = GetParam();
    inChild([workers] {
        EngineSetup setup = start(workers, new TestRouter(), false);
        Engine* engine = setup.engine;
        engine->enableMonitoring();
        u_short const port = startListening(engine);
        Peer agent(port);
        Peer other(port);
        ASSERT_TRUE(identifyAsAgent(setup, agent, 7));
        ASSERT_TRUE(pumpUntil(engine, [&] { return connections(setup.router) == 2; }));

        // Neither has been idle for an hour, by either clock.
        EXPECT_EQ(engine->cleanupHandles(3600, false), 0);
        EXPECT_EQ(engine->cleanupHandles(3600, true), 0);
        EXPECT_EQ(connections(setup.router), 2);
        // Both are still served.
        {
            SCOPED_TRACE("agent");
            expectServed(engine, agent);
        }
        {
            SCOPED_TRACE("other");
            expectServed(engine, other);
        }
        // A moment later both have been idle for more than no time at all.
        EXPECT_TRUE(pumpUntil(engine, [&] { return openTokens(setup.router) == 0; }));
        sleepMicroseconds(2000);
        EXPECT_EQ(engine->cleanupHandles(0, true), 0);
        EXPECT_EQ(connections(setup.router), 0);
        EXPECT_TRUE(agent.closed(engine));
        EXPECT_TRUE(other.closed(engine));
        EXPECT_EQ(setup.handler->disconnects(), 2);
        engine->shutdown();
    });
}
