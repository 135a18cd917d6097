// The engine: opening and closing, its switches, the handler and router it
// owns, and shutdown.
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
    ::testing::AddGlobalTestEnvironment(scratchTmpdir("engine_test"));

}  // namespace

// ---------------------------------------------------------------------------
// Opening and closing

TEST(Engine, SingletonIsOneObject) {
    inChild([] {
        Engine* engine = Engine::getSingleton();
        ASSERT_NE(engine, nullptr);
        EXPECT_EQ(engine, Engine::getSingleton());
        EXPECT_EQ(engine->getReactor(), nullptr);
        EXPECT_EQ(engine->event_handler(), nullptr);
        EXPECT_EQ(engine->router(), nullptr);
        EXPECT_TRUE(engine->identifyIsRequired());
        EXPECT_FALSE(engine->isServer());
        EXPECT_FALSE(engine->monitoringEnabled());
        EXPECT_FALSE(engine->isClosed());
        EXPECT_EQ(engine->locking_strategy(), nullptr);
        // The engine ignores SIGPIPE for good.
        struct sigaction action;
        ASSERT_EQ(::sigaction(SIGPIPE, nullptr, &action), 0);
        EXPECT_EQ(action.sa_handler, SIG_IGN);
    });
}

TEST(Engine, SwitchesGoOneWay) {
    inChild([] {
        Engine* engine = Engine::getSingleton();
        engine->disableIdentification();
        EXPECT_FALSE(engine->identifyIsRequired());
        engine->enableServerMode();
        EXPECT_TRUE(engine->isServer());
        engine->enableMonitoring();
        EXPECT_TRUE(engine->monitoringEnabled());
        engine->setApplicationName("probe");
        EXPECT_STREQ(Identity::instance()->name(), "probe");
        engine->setApplicationName(nullptr);
        EXPECT_STREQ(Identity::instance()->name(), "probe");
    });
}

TEST(Engine, ReplacingOwnedHandlerAndRouterDestroysTheOldOnes) {
    inChild([] {
        Engine* engine = Engine::getSingleton();
        destroyed_handlers = 0;
        TestEventHandler* first = new TestEventHandler();
        EXPECT_EQ(engine->event_handler(first, true), 0);
        EXPECT_EQ(engine->event_handler(), first);
        TestEventHandler second;
        EXPECT_EQ(engine->event_handler(&second, false), 0);
        EXPECT_EQ(destroyed_handlers.load(), 1);
        EXPECT_EQ(engine->event_handler(), &second);
        EXPECT_EQ(engine->event_handler(nullptr, false), 0);
        EXPECT_EQ(destroyed_handlers.load(), 1);

        Router router;
        EXPECT_EQ(engine->router(new Router(), true), 0);
        EXPECT_EQ(engine->router(&router, false), 0);
        EXPECT_EQ(engine->router(), &router);
        EXPECT_EQ(engine->router(nullptr, false), 0);
    });
}

TEST(Engine, OpenWithoutWorkers) {
    inChild([] {
        LogLines log;
        EngineSetup setup = start(0, new TestRouter(), false);
        Engine* engine = setup.engine;
        EXPECT_EQ(engine->thr_count(), 0u);
        ASSERT_NE(engine->getReactor(), nullptr);
        EXPECT_TRUE(engine->getReactor()->initialized());
        EXPECT_NE(engine->locking_strategy(), nullptr);
        EXPECT_EQ(Handler::Data_Block_Size, 16384u);
        EXPECT_EQ(engine->msg_queue()->high_water_mark(), 0u);
        EXPECT_EQ(engine->msg_queue()->low_water_mark(), 0u);
        EXPECT_FALSE(engine->isClosed());
        EXPECT_GE(engine->run_step(), 0);
        EXPECT_EQ(engine->close(), 0);
        EXPECT_NE(engine->getReactor(), nullptr);
        EXPECT_EQ(log.count("%D DEBUG (%t): Engine: Starting worker thread"), 0);
        // The payload cache is ready.
        const char* tmp = ::getenv("TMPDIR");
        ASSERT_NE(tmp, nullptr);
        EXPECT_TRUE(std::filesystem::is_directory(std::string(tmp) + "/event-cache/twagent"));
        EXPECT_EQ(engine->shutdown(), 0);
    });
}

TEST(Engine, OpenWithWorkers) {
    inChild([] {
        LogLines log;
        EngineSetup setup = start(2, new TestRouter(), false);
        Engine* engine = setup.engine;
        EXPECT_EQ(engine->thr_count(), 2u);
        EXPECT_EQ(engine->msg_queue()->high_water_mark(), 2u * 655360u);
        EXPECT_EQ(engine->msg_queue()->low_water_mark(), 0u);
        EXPECT_EQ(engine->shutdown(), 0);
        EXPECT_EQ(engine->thr_count(), 0u);
        EXPECT_EQ(log.count("%D DEBUG (%t): Engine: Starting worker thread"), 2);
    });
}

TEST(Engine, OpenWithSslNeedsALoadedConfiguration) {
    inChild([] {
        LogLines log;
        EngineSetup setup = prepare(new TestRouter(), false);
        EXPECT_EQ(setup.engine->open(1, true), -1);
        EXPECT_EQ(setup.engine->getReactor(), nullptr);
        EXPECT_EQ(setup.engine->thr_count(), 0u);
        EXPECT_EQ(log.lines(), Lines{});
    });
}

namespace {

std::vector<ACE_Time_Value> retry_waits;

void recordWait(const ACE_Time_Value& wait) {
    retry_waits.push_back(wait);
}

}  // namespace

TEST(Engine, ReactorIsTriedTenTimes) {
    inChild([] {
        // A hard limit of descriptors below what the reactor needs.
        struct rlimit low = {64, 64};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
        EngineTestHooks::sleep(recordWait);
        LogLines log;
        EngineSetup setup = prepare(new TestRouter(), false);
        EXPECT_EQ(setup.engine->open(0, false), -1);
        EXPECT_EQ(setup.engine->getReactor(), nullptr);
        ASSERT_EQ(retry_waits.size(), 10u);
        for (const ACE_Time_Value& wait : retry_waits)
            EXPECT_EQ(wait, ACE_Time_Value(5));
        expectReactorGaveUp(log);
    });
}

TEST(Engine, SetBufferSizeLimits) {
    inChild([] {
        EngineSetup setup = start(0, new TestRouter(), false);
        Engine* engine = setup.engine;
        LogLines log;
        engine->setBufferSize(512);
        EXPECT_EQ(Handler::Data_Block_Size, 512u);
        engine->setBufferSize(1048576);
        EXPECT_EQ(Handler::Data_Block_Size, 1048576u);
        engine->setBufferSize(511);
        EXPECT_EQ(Handler::Data_Block_Size, 1048576u);
        engine->setBufferSize(1048577);
        EXPECT_EQ(Handler::Data_Block_Size, 1048576u);
        Lines const expected = {
            "%D DEBUG (%t): Setting buffer size to 512",
            "%D DEBUG (%t): Setting buffer size to 1048576",
            "%D WARN  (%t): Invalid buffer size provided, keeping default 1048576",
            "%D WARN  (%t): Invalid buffer size provided, keeping default 1048576",
        };
        EXPECT_EQ(log.lines(), expected);
        engine->shutdown();
    });
}

TEST(Engine, SetBufferSizeBeforeOpenIsLost) {
    inChild([] {
        EngineSetup setup = prepare(new TestRouter(), false);
        setup.engine->setBufferSize(4096);
        EXPECT_EQ(Handler::Data_Block_Size, 4096u);
        ASSERT_EQ(setup.engine->open(0, false), 0);
        EXPECT_EQ(Handler::Data_Block_Size, 16384u);
        setup.engine->shutdown();
    });
}

TEST(Engine, EngineWideCallsWithoutConnections) {
    inChild([] {
        EngineSetup setup = start(0, new TestRouter(), false);
        Engine* engine = setup.engine;
        EXPECT_EQ(engine->disconnect(), -1);
        EXPECT_EQ(engine->sendGlobalHeartBeat(), 0);
        EXPECT_EQ(engine->cleanupHandles(10, false), 0);
        EXPECT_EQ(engine->cleanupHandles(10, true), 0);
        engine->shutdown();
    });
}

TEST(Engine, ShutdownTwice) {
    inChild([] {
        destroyed_handlers = 0;
        EngineSetup setup = start(2, new TestRouter(), false);
        Engine* engine = setup.engine;
        EXPECT_EQ(engine->shutdown(), 0);
        EXPECT_TRUE(engine->isClosed());
        EXPECT_EQ(engine->getReactor(), nullptr);
        EXPECT_EQ(engine->event_handler(), nullptr);
        EXPECT_EQ(engine->router(), nullptr);
        EXPECT_EQ(engine->locking_strategy(), nullptr);
        EXPECT_EQ(destroyed_handlers.load(), 1);
        LogLines log;
        EXPECT_EQ(engine->shutdown(), 0);
        EXPECT_TRUE(engine->isClosed());
        EXPECT_EQ(destroyed_handlers.load(), 1);
        EXPECT_TRUE(log.lines().empty());
    });
}

TEST(Engine, ShutdownKeepsHandlerAndRouterThatItDoesNotOwn) {
    inChild([] {
        destroyed_handlers = 0;
        Engine* engine = Engine::getSingleton();
        engine->disableIdentification();
        TestEventHandler handler;
        TestRouter router;
        engine->event_handler(&handler, false);
        engine->router(&router, false);
        ASSERT_EQ(engine->open(1, false), 0);
        EXPECT_EQ(engine->shutdown(), 0);
        EXPECT_EQ(engine->event_handler(), &handler);
        EXPECT_EQ(engine->router(), &router);
        EXPECT_EQ(destroyed_handlers.load(), 0);
        engine->event_handler(nullptr, false);
        engine->router(nullptr, false);
    });
}

TEST(Engine, ShutdownClosesEveryConnection) {
    inChild([] {
        destroyed_handlers = 0;
        EngineSetup setup = start(2, new TestRouter(), false);
        Engine* engine = setup.engine;
        u_short const port = startListening(engine);
        Peer first(port);
        Peer second(port);
        ASSERT_TRUE(first.connected() && second.connected());
        ASSERT_TRUE(pumpUntil(engine, [&] { return connections(setup.router) == 2; }));
        EXPECT_EQ(engine->shutdown(), 0);
        EXPECT_EQ(destroyed_handlers.load(), 1);
        EXPECT_TRUE(first.closed(engine));
        EXPECT_TRUE(second.closed(engine));
    });
}

TEST(Engine, ShutdownTellsTheEventHandlerOfEachConnection) {
    inChild([] {
        Engine* engine = Engine::getSingleton();
        engine->disableIdentification();
        TestEventHandler handler;
        engine->event_handler(&handler, false);
        engine->router(new TestRouter(), true);
        setIdentity(Identity::TWAGENT, 1);
        ASSERT_EQ(engine->open(0, false), 0);
        Router_Base* router = engine->router();
        u_short const port = startListening(engine);
        Peer first(port);
        Peer second(port);
        ASSERT_TRUE(pumpUntil(engine, [&] { return connections(router) == 2; }));
        LogLines log;
        EXPECT_EQ(engine->shutdown(), 0);
        EXPECT_EQ(handler.disconnects(), 2);
        EXPECT_TRUE(log.has("%D DEBUG (%t): Closing passive connection."));
        engine->event_handler(nullptr, false);
    });
}

TEST(Engine, OpenAfterShutdown) {
    inChild([] {
        EngineSetup setup = start(1, new TestRouter(), true);
        Engine* engine = setup.engine;
        startListening(engine);
        ACE_Reactor* first = engine->getReactor();
        ASSERT_EQ(engine->shutdown(), 0);

        // The owned handler and router went with the shutdown.
        setup = prepare(new SinglePeerRouter(), true);
        ASSERT_EQ(engine->open(2, false), 0);
        EXPECT_FALSE(engine->isClosed());
        ASSERT_NE(engine->getReactor(), nullptr);
        EXPECT_NE(engine->getReactor(), first);
        EXPECT_EQ(engine->thr_count(), 2u);

        // The listener of the first session stays the engine's only one.
        {
            LogLines log;
            ACE_Synch_Options options;
            EXPECT_EQ(engine->makeConnection(loopback(freePort()), CONNECTION_PASSIVE, options),
                      -1);
            Lines const expected = {"%D DEBUG (%t): Setting up passive connection."};
            EXPECT_EQ(log.lines(), expected);
        }

        // An active connection works, and is asked who it is.
        Listener listener;
        ACE_Synch_Options options;
        ASSERT_EQ(engine->makeConnection(listener.address(), 0, options), 0);
        ACE_SOCK_Stream stream;
        ASSERT_EQ(listener.accept(stream), 0);
        std::string bytes;
        ASSERT_TRUE(pumpUntil(engine, [&] {
            bytes += readFor(stream, 5);
            return bytes.size() >= 32;
        }));
        EXPECT_EQ(wordAt(bytes, 12), static_cast<uint32_t>(IDENTITY_EVENT));
        EXPECT_EQ(engine->shutdown(), 0);
        stream.close();
    });
}

namespace {

// A handler of one end of a socket pair that, while it is dispatched for
// input, gives up reading and asks for output: the steps of a connection
// whose peer half-closes and that then queues a reply.
class TurnsToOutput : public ACE_Event_Handler {
public:
    explicit TurnsToOutput(ACE_HANDLE handle) : m_handle(handle) {}
    ACE_HANDLE get_handle() const override { return m_handle; }
    int handle_input(ACE_HANDLE) override {
        char byte;
        if (::read(m_handle, &byte, 1) == 1)
            ++inputs;
        cleared = reactor()->cancel_wakeup(this, ACE_Event_Handler::READ_MASK);
        scheduled = reactor()->schedule_wakeup(this, ACE_Event_Handler::WRITE_MASK);
        return 0;
    }
    int handle_output(ACE_HANDLE) override {
        ++outputs;
        reactor()->cancel_wakeup(this, ACE_Event_Handler::WRITE_MASK);
        return 0;
    }
    int handle_close(ACE_HANDLE, ACE_Reactor_Mask) override {
        ++closes;
        return 0;
    }

    int inputs = 0;
    int outputs = 0;
    int closes = 0;
    int cleared = -2;
    int scheduled = -2;

private:
    ACE_HANDLE m_handle;
};

}  // namespace

// A handle that stops reading during its own dispatch and then asks to
// write gets its output event, and leaves the reactor when removed, so that
// a later socket with the same number is not taken for it.
TEST(Engine, InterestChangedDuringDispatchIsKeptAndRemovable) {
    inChild([] {
        EngineSetup setup = start(0, new TestRouter(), false);
        Engine* engine = setup.engine;
        ACE_Reactor* const reactor = engine->getReactor();
        int pair[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        TurnsToOutput handler(pair[0]);
        handler.reactor(reactor);
        ASSERT_EQ(reactor->register_handler(&handler, ACE_Event_Handler::READ_MASK), 0);
        ASSERT_EQ(::write(pair[1], "x", 1), 1);
        for (int pass = 0; pass < 200 && handler.outputs == 0; ++pass)
            engine->run_step();
        EXPECT_EQ(handler.inputs, 1);
        EXPECT_EQ(handler.cleared, ACE_Event_Handler::READ_MASK);
        EXPECT_EQ(handler.scheduled, ACE_Event_Handler::NULL_MASK);
        EXPECT_EQ(handler.outputs, 1);
        // Interest in nothing again, then removal.
        EXPECT_EQ(reactor->remove_handler(
                      &handler, ACE_Event_Handler::ALL_EVENTS_MASK | ACE_Event_Handler::DONT_CALL),
                  0);
        ACE_Event_Handler* const left = reactor->find_handler(pair[0]);
        EXPECT_EQ(left, nullptr);
        if (left != nullptr)
            left->remove_reference();
        EXPECT_EQ(handler.closes, 0);
        ::close(pair[0]);
        ::close(pair[1]);
        EXPECT_EQ(engine->shutdown(), 0);
    });
}
