// The engine across processes and under load: a reply that comes back
// through a middle process, a thousand connections at once, peers that send
// garbage, and shutdown with several connections.
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
    ::testing::AddGlobalTestEnvironment(scratchTmpdir("engine_relay_test"));

}  // namespace

// ---------------------------------------------------------------------------
// Processes forked here talk to the test process through a Channel; they
// are forked before the test process starts any thread, and they end on
// their own within their time limits, or are killed when the test gives up.

namespace {

// The file descriptors that the process has open, as /proc/self/fd lists
// them.
std::vector<int> openDescriptors() {
    std::vector<int> open;
    if (DIR* directory = ::opendir("/proc/self/fd")) {
        int const own = ::dirfd(directory);
        while (const dirent* entry = ::readdir(directory)) {
            if (entry->d_name[0] != '.' && std::atoi(entry->d_name) != own)
                open.push_back(std::atoi(entry->d_name));
        }
        ::closedir(directory);
    }
    return open;
}

// Closes what the process inherited above standard error (the test
// runner's log file, say): the reactor's room for handles counts from
// descriptor 0.
void closeInheritedDescriptors() {
    for (int const fd : openDescriptors()) {
        if (fd > 2)
            ::close(fd);
    }
}

}  // namespace

// ---------------------------------------------------------------------------
// A reply routed back by its token through a middle process

namespace {

// The agent's answer to GetVersionEvent names the agent.
class AgentEventHandler : public TestEventHandler {
public:
    int handle(GetVersionEvent* event) override {
        TestEventHandler::handle(event);
        event->reset();
        event->setArg("version", "agent 7");
        return 1;
    }
};

// The agent: an engine in a process of its own, with one worker. Told the
// relay's port, it connects there, identifies itself as agent 7 and answers
// what comes, until the test says "quit" or the relay goes. 0 when it
// answered exactly one GetVersionEvent.
int runRelayAgent(Channel& channel) {
    std::string port;
    if (!channel.await(port, 10000))
        return 2;
    EngineSetup setup = prepare(new SinglePeerRouter(), true);
    AgentEventHandler* const handler = new AgentEventHandler();
    setup.engine->event_handler(handler, true);
    setIdentity(Identity::TWAGENT, 7);
    if (setup.engine->open(1, false) != 0)
        return 3;
    ACE_Synch_Options options;
    if (setup.engine->makeConnection(loopback(static_cast<u_short>(std::atoi(port.c_str()))), 0,
                                     options) != 0) {
        setup.engine->shutdown();
        return 4;
    }
    auto* const router = static_cast<SinglePeerRouter*>(setup.router);
    std::string quit;
    pumpUntil(
        setup.engine, [&] { return channel.take(quit) || !router->isConnected(); }, 15000);
    int const answered = handler->seen(GET_VERSION_EVENT);
    setup.engine->shutdown();
    if (answered != 1 || quit != "quit") {
        std::cerr << "agent: answered " << answered << ", told '" << quit << "'\n";
        return 1;
    }
    return 0;
}

// The client: a connection without an engine. Told the relay's port, it
// asks agent 7 for its version through the relay and posts the request's
// token (a word) followed by the wire bytes of the reply (none when no
// reply came); then it waits for "quit".
int runRelayClient(Channel& channel) {
    std::string port;
    if (!channel.await(port, 10000))
        return 2;
    std::string report;
    {
        Peer peer(static_cast<u_short>(std::atoi(port.c_str())));
        if (!peer.connected())
            return 3;
        uint32_t const token =
            peer.send(GET_VERSION_EVENT, [](Abstract_Event* event) { event->setAgentID(7); });
        if (token == 0)
            return 4;
        report = TarnwickTest::word(token);
        // Without a reactor in this process, receiving only polls.
        ACE_Message_Block* reply = peer.receiveBlock(Engine::getSingleton(), 10000);
        if (reply != nullptr) {
            report += TarnwickTest::wireBytes(reply);
            reply->release();
        }
        if (!channel.post(report))
            return 5;
        std::string quit;
        channel.await(quit, 10000);
    }
    return 0;
}

}  // namespace

class EngineRelay : public ::testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(Workers, EngineRelay, ::testing::Values(0, 2), workersName);

TEST_P(EngineRelay, ReplyOfAnAgentInAnotherProcessComesBackByToken) {
    int const workers = GetParam();
    inChild([workers] {
        Forked agent(runRelayAgent);
        Forked client(runRelayClient);
        ASSERT_TRUE(agent.started());
        ASSERT_TRUE(client.started());

        // The relay: requests with an agent id, and replies, are not its own.
        LogLines log;
        EngineSetup setup = start(workers, new TestRouter(Routing_Key::ROUTE_HANDLER, true), false);
        Engine* engine = setup.engine;
        std::string const port = std::to_string(startListening(engine));
        ASSERT_TRUE(agent.channel().post(port));
        ASSERT_TRUE(pumpUntil(
            engine, [&] { return agentIsConnected(setup.router, 7); }, 10000));

        ASSERT_TRUE(client.channel().post(port));
        std::string report;
        ASSERT_TRUE(pumpUntil(
            engine, [&] { return client.channel().take(report); }, 10000));
        ASSERT_GE(report.size(), 4u + 32u) << "the client got no reply";
        uint32_t const token = wordAt(report, 0);
        Message_Block* block = TarnwickTest::blockFromWire(report.substr(4));
        Abstract_Event* reply = Event_Factory::create(block);
        block->release();
        ASSERT_NE(reply, nullptr);
        EXPECT_EQ(reply->getType(), static_cast<uint32_t>(GET_VERSION_EVENT));
        EXPECT_TRUE(reply->isResult());
        EXPECT_FALSE(reply->isError());
        EXPECT_EQ(reply->getACT(), token);
        EXPECT_EQ(argOf(reply, "version"), "agent 7");
        reply->destroy();

        // The relay only passed the request and the reply on, and no token
        // stays open on either of its connections.
        EXPECT_TRUE(pumpUntil(engine, [&] { return openTokens(setup.router) == 0; }));
        EXPECT_EQ(connections(setup.router), 2);
        EXPECT_EQ(setup.handler->seen(GET_VERSION_EVENT), 0);
        EXPECT_EQ(setup.handler->activations(), std::vector<int>{0});

        EXPECT_TRUE(agent.channel().post("quit"));
        EXPECT_TRUE(client.channel().post("quit"));
        EXPECT_EQ(agent.wait(engine, 10000), 0);
        EXPECT_EQ(client.wait(engine, 10000), 0);
        EXPECT_TRUE(pumpUntil(engine, [&] { return connections(setup.router) == 0; }));
        EXPECT_EQ(setup.handler->disconnects(), 2);
        engine->shutdown();
        EXPECT_TRUE(log.has(ACTIVATED_AGENT_7));
    });
}

// ---------------------------------------------------------------------------
// A thousand connections at once

namespace {

const int LOAD_CONNECTIONS = 1000;
// The requests that the client keeps unanswered at a time. Below the
// listener's backlog (5), so that no connect waits for a SYN to be sent
// again.
const size_t LOAD_WINDOW = 4;
// The reactor's room for handles.
const int REACTOR_HANDLES = 1010;

uint32_t loadToken(size_t index) {
    return static_cast<uint32_t>(0x10000 + index);
}

// The client of the load test, in a process of its own. Told the port, it
// opens LOAD_CONNECTIONS connections without an engine and keeps them all;
// each sends one GetVersionEvent with a token of its own and reads the
// reply. It posts "replies N" (or what went wrong), waits for "close" and
// closes them all.
int runLoadClient(Channel& channel) {
    std::string port_text;
    if (!channel.await(port_text, 10000))
        return 2;
    u_short const port = static_cast<u_short>(std::atoi(port_text.c_str()));
    set_fd_limit(LOAD_CONNECTIONS + 64);
    // Thousands of connection lines would say nothing.
    ACE_Log_Msg::instance()->priority_mask(
        LM_WARNING | LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY, ACE_Log_Msg::PROCESS);
    // Without a reactor in this process, receiving only polls.
    Engine* const engine = Engine::getSingleton();

    std::vector<std::unique_ptr<Peer>> peers;
    peers.reserve(LOAD_CONNECTIONS);
    std::vector<size_t> waiting;  // the peers whose reply is still to come
    std::string failure;
    int replies = 0;
    ACE_Time_Value const deadline = now() + ACE_Time_Value(15);
    while (replies < LOAD_CONNECTIONS && failure.empty() && now() < deadline) {
        bool progress = false;
        while (peers.size() < static_cast<size_t>(LOAD_CONNECTIONS) &&
               waiting.size() < LOAD_WINDOW) {
            size_t const index = peers.size();
            uint32_t const token = loadToken(index);
            peers.emplace_back(new Peer(port));
            if (!peers.back()->connected() ||
                peers.back()->send(GET_VERSION_EVENT, [token](Abstract_Event* event) {
                    event->setACT(token);
                }) != token) {
                failure =
                    "connection " + std::to_string(index) + " failed: " + std::strerror(errno);
                break;
            }
            waiting.push_back(index);
            progress = true;
        }
        for (auto it = waiting.begin(); failure.empty() && it != waiting.end();) {
            Abstract_Event* reply = peers[*it]->receive(engine, 0);
            if (reply == nullptr) {
                ++it;
                continue;
            }
            if (reply->getACT() != loadToken(*it) || !reply->isResult() ||
                argOf(reply, "version") != "6.6.3")
                failure = "wrong reply on connection " + std::to_string(*it);
            reply->destroy();
            ++replies;
            it = waiting.erase(it);
            progress = true;
        }
        if (!progress)
            sleepMicroseconds(100);
    }
    std::string report = "replies " + std::to_string(replies);
    if (!failure.empty())
        report += ", " + failure;
    else if (replies < LOAD_CONNECTIONS)
        report += ", out of time with " + std::to_string(peers.size()) + " connections";
    if (!channel.post(report))
        return 3;
    std::string close;
    channel.await(close, 10000);
    peers.clear();
    return report == "replies " + std::to_string(LOAD_CONNECTIONS) ? 0 : 1;
}

}  // namespace

class EngineLoad : public ::testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(Workers, EngineLoad, ::testing::Values(0, 2), workersName);

TEST_P(EngineLoad, AThousandConnectionsAreAcceptedAndServed) {
    struct rlimit limit;
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_max != RLIM_INFINITY &&
        limit.rlim_max < static_cast<rlim_t>(LOAD_CONNECTIONS + 64))
        GTEST_SKIP() << "the hard limit of file descriptors is " << limit.rlim_max;
    int const workers = GetParam();
    inChild([workers] {
        closeInheritedDescriptors();
        Forked client(runLoadClient);
        ASSERT_TRUE(client.started());
        LogLines log;
        EngineSetup setup = start(workers, new TestRouter(), false);
        Engine* engine = setup.engine;
        std::string const port = std::to_string(startListening(engine));
        // The reactor has room for every connection next to what is open.
        int const open = static_cast<int>(openDescriptors().size());
        ASSERT_LE(open + LOAD_CONNECTIONS, REACTOR_HANDLES) << open << " descriptors are open";

        ASSERT_TRUE(client.channel().post(port));
        std::string report;
        ASSERT_TRUE(pumpUntil(
            engine, [&] { return client.channel().take(report); }, 20000));
        EXPECT_EQ(report, "replies " + std::to_string(LOAD_CONNECTIONS));
        // All of them are there at once.
        EXPECT_EQ(connections(setup.router), LOAD_CONNECTIONS);
        EXPECT_EQ(setup.handler->seen(GET_VERSION_EVENT), LOAD_CONNECTIONS);
        EXPECT_TRUE(pumpUntil(engine, [&] { return openTokens(setup.router) == 0; }));

        ASSERT_TRUE(client.channel().post("close"));
        EXPECT_TRUE(pumpUntil(
            engine, [&] { return setup.handler->disconnects() == LOAD_CONNECTIONS; }, 10000))
            << setup.handler->disconnects() << " disconnects";
        EXPECT_EQ(connections(setup.router), 0);
        EXPECT_EQ(client.wait(engine, 5000), 0);
        engine->shutdown();
        EXPECT_EQ(log.countPrefix("%D ERROR"), 0);
        EXPECT_EQ(log.count("%D DEBUG (%t): Connection closed by peer."), LOAD_CONNECTIONS);
    });
}

// ---------------------------------------------------------------------------
// Peers that send garbage

namespace {

const std::string INVALID_HEADER = "%D ERROR (%t): Invalid message header received from 127.0.0.1";
const std::string PEER_FAILED = "%D ERROR (%t): Peer has failed unexpectedly.";

std::string noise(std::mt19937& random, size_t length) {
    std::string bytes(length, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random() & 0xFF);
    return bytes;
}

// 32 random bytes whose magic word is wrong in either byte order.
std::string garbageHeader(std::mt19937& random) {
    std::string bytes = noise(random, 32);
    bytes[20] = static_cast<char>(0xAB);
    return bytes;
}

// The wire header of an event of `type` whose size word says `size`.
std::string headerAnnouncing(int type, uint32_t size) {
    Abstract_Event* event = Event_Factory::create(type);
    std::string const header =
        TarnwickTest::headerPart(TarnwickTest::wireBytes(event->data(false)));
    event->destroy();
    return header.substr(0, 8) + TarnwickTest::word(size) + header.substr(12);
}

// The spill files in the engine's event cache.
int spillFiles() {
    int count = 0;
    std::error_code error;
    for (std::filesystem::directory_iterator it(ACT_Cache::instance()->directory(), error), end;
         !error && it != end; it.increment(error))
        ++count;
    return count;
}

}  // namespace

class EngineGarbage : public ::testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(Workers, EngineGarbage, ::testing::Values(0, 2), workersName);

TEST_P(EngineGarbage, PeersThatSendGarbageAreDroppedAndOthersAreStillServed) {
    int const workers = GetParam();
    inChild([workers] {
        LogLines log;
        EngineSetup setup = start(workers, new TestRouter(), false);
        Engine* engine = setup.engine;
        u_short const port = startListening(engine);
        Peer before(port);
        ASSERT_TRUE(before.connected());
        {
            SCOPED_TRACE("before");
            expectServed(engine, before);
        }
        std::mt19937 random(20240611);

        // A header with a wrong magic word.
        {
            WirePeer peer(port);
            ASSERT_TRUE(peer.send(garbageHeader(random)));
            EXPECT_TRUE(peer.hungUp(engine));
        }
        // A good header announcing 64 KiB, then 20000 bytes of garbage (more
        // than the engine keeps in memory), then the end of the stream.
        {
            WirePeer peer(port);
            ASSERT_TRUE(
                peer.send(headerAnnouncing(GET_VERSION_EVENT, 65536) + noise(random, 20000)));
            ASSERT_FALSE(ACT_Cache::instance()->directory().empty());
            EXPECT_TRUE(pumpUntil(engine, [] { return spillFiles() == 1; }));
            peer.closeWriter();
            EXPECT_TRUE(peer.hungUp(engine));
        }
        // A good header with 16 bytes of garbage as its payload, then a
        // header with a wrong magic word: the first message is taken in,
        // the connection is dropped at the second.
        {
            WirePeer peer(port);
            ASSERT_TRUE(peer.send(headerAnnouncing(KICK_EVENT, 16) + noise(random, 16) +
                                  garbageHeader(random)));
            EXPECT_TRUE(peer.hungUp(engine));
            EXPECT_TRUE(pumpUntil(engine, [&] { return setup.handler->seen(KICK_EVENT) == 1; }));
        }
        EXPECT_TRUE(pumpUntil(engine, [&] { return connections(setup.router) == 1; }));
        EXPECT_EQ(setup.handler->disconnects(), 3);
        EXPECT_EQ(setup.handler->seen(GET_VERSION_EVENT), 1);
        // The unfinished payload left no spill file behind.
        EXPECT_EQ(spillFiles(), 0);

        // The engine goes on serving the old connection and a new one.
        {
            SCOPED_TRACE("before, again");
            expectServed(engine, before);
        }
        Peer after(port);
        ASSERT_TRUE(after.connected());
        {
            SCOPED_TRACE("after");
            expectServed(engine, after);
        }
        engine->shutdown();
        EXPECT_EQ(log.count(INVALID_HEADER), 2);
        EXPECT_EQ(log.count(PEER_FAILED), 2);
        EXPECT_EQ(log.count("%D DEBUG (%t): Connection closed by peer."), 1);
        EXPECT_EQ(log.count(CONVERSION_FAILED), 0);
    });
}

// ---------------------------------------------------------------------------
// Shutdown with several live connections

namespace {

// Notes every connection that it is told of going.
class DisconnectRecorder : public TestEventHandler {
public:
    int handle_disconnect(Handler* handler) override {
        TestEventHandler::handle_disconnect(handler);
        std::lock_guard<std::mutex> guard(m_mutex);
        m_gone.push_back(handler);
        return 0;
    }
    std::vector<Handler*> gone() {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_gone;
    }

private:
    std::mutex m_mutex;
    std::vector<Handler*> m_gone;
};

// The bytes that the router's connections have received.
uint64_t bytesReceived(Router_Base* router) {
    Dispatch_Set set;
    if (router->findAllHandlers(set) == -1)
        return 0;
    uint64_t total = 0;
    for (Handler* handler : set)
        total += handler->bytes_received();
    return total;
}

}  // namespace

class EngineShutdown : public ::testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(Workers, EngineShutdown, ::testing::Values(0, 2), workersName);

TEST_P(EngineShutdown, TellsTheEventHandlerOnceOfEachOfSeveralConnections) {
    int const workers = GetParam();
    inChild([workers] {
        Engine* engine = Engine::getSingleton();
        engine->disableIdentification();
        DisconnectRecorder handler;
        engine->event_handler(&handler, false);
        engine->router(new TestRouter(), true);
        setIdentity(Identity::TWAGENT, 1);
        ASSERT_EQ(engine->open(workers, false), 0);
        EngineSetup setup = {engine, &handler, engine->router()};
        u_short const port = startListening(engine);

        // Six connections: two identified agents, one in the middle of a
        // header, three that said nothing.
        std::vector<std::unique_ptr<Peer>> peers;
        for (int i = 0; i < 6; ++i) {
            peers.emplace_back(new Peer(port));
            ASSERT_TRUE(peers.back()->connected());
        }
        ASSERT_TRUE(pumpUntil(engine, [&] { return connections(setup.router) == 6; }));
        ASSERT_TRUE(identifyAsAgent(setup, *peers[0], 7));
        ASSERT_TRUE(identifyAsAgent(setup, *peers[1], 8));
        uint64_t const received = bytesReceived(setup.router);
        std::string const part = headerAnnouncing(KICK_EVENT, 0).substr(0, 10);
        ASSERT_EQ(static_cast<PlainHandler*>(peers[2]->handler())->peer().send_n(part.data(), 10),
                  10);
        ASSERT_TRUE(
            pumpUntil(engine, [&] { return bytesReceived(setup.router) == received + 10; }));

        std::set<Handler*> live;
        {
            Dispatch_Set set;
            ASSERT_EQ(setup.router->findAllHandlers(set), 0);
            live.insert(set.begin(), set.end());
        }
        ASSERT_EQ(live.size(), 6u);
        EXPECT_EQ(handler.disconnects(), 0);

        EXPECT_EQ(engine->shutdown(), 0);
        std::vector<Handler*> const gone = handler.gone();
        EXPECT_EQ(gone.size(), 6u);
        EXPECT_EQ(std::set<Handler*>(gone.begin(), gone.end()), live);
        // The peers see the end, and nothing more reaches the handler.
        for (std::unique_ptr<Peer>& peer : peers)
            EXPECT_TRUE(peer->closed(engine));
        peers.clear();
        EXPECT_EQ(handler.disconnects(), 6);
        engine->event_handler(nullptr, false);
    });
}
