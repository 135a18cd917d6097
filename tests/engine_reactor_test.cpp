// The engine's reactor: epoll based whatever its room; its room for handles, the descriptor limit
// it leaves, the thread it knows as its owner, and many connections served with and without worker
// threads.
#include <tarnwick/abstract_event.h>
#include <tarnwick/engine.h>
#include <tarnwick/event_factory.h>
#include <tarnwick/system.h>

#include <ace/Dev_Poll_Reactor.h>
#include <ace/OS_NS_Thread.h>
#include <ace/Reactor.h>
#include <ace/Thread.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "engine_peers.h"
#include "engine_setup.h"
#include "forked.h"
#include "log_lines.h"
#include "loopback.h"
#include "pump.h"
#include "wire.h"

using namespace Tarnwick;
using namespace TarnwickTest;

namespace {

const std::string TOO_MANY =
    "%D ERROR (%t): Could not register network handler : too many connections.";

// The soft and hard limits of descriptors.
struct rlimit descriptorLimit() {
    struct rlimit limit = {0, 0};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    return limit;
}

bool hardLimitBelow(rlim_t needed) {
    struct rlimit const limit = descriptorLimit();
    return limit.rlim_max != RLIM_INFINITY && limit.rlim_max < needed;
}

// The number of epoll instances among this process's descriptors.
int epollInstances() {
    int count = 0;
    std::error_code error;
    for (std::filesystem::directory_iterator it("/proc/self/fd", error), end; !error && it != end;
         it.increment(error)) {
        std::error_code link_error;
        std::string const target = std::filesystem::read_symlink(it->path(), link_error).string();
        if (!link_error && target == "anon_inode:[eventpoll]")
            ++count;
    }
    return count;
}

// Takes every free descriptor number below `room`, so that the next socket
// is numbered `room` or above; gives them back when it goes.
class Filler {
public:
    explicit Filler(int room) {
        for (;;) {
            int const fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
            if (fd == -1)
                break;
            if (fd >= room) {
                ::close(fd);
                break;
            }
            m_fds.push_back(fd);
        }
    }
    ~Filler() { release(); }
    Filler(const Filler&) = delete;
    Filler& operator=(const Filler&) = delete;

    // Gives back the highest number taken, so that the next descriptor gets
    // it.
    void releaseHighest() {
        if (m_fds.empty())
            return;
        ::close(m_fds.back());
        m_fds.pop_back();
    }
    void release() {
        for (int const fd : m_fds)
            ::close(fd);
        m_fds.clear();
    }
    size_t size() const { return m_fds.size(); }

private:
    std::vector<int> m_fds;
};

// A connection numbered beyond the room is refused with the log line and
// closed; once descriptors below the room are free again, a new one is
// served.
void expectRoom(EngineSetup& setup, int room, LogLines& log) {
    Engine* const engine = setup.engine;
    u_short const port = startListening(engine);
    {
        // Numbered just below the room: served. The test's own end of the
        // connection takes a number beyond it; the one below is given back
        // before the engine accepts.
        Filler filler(room);
        ASSERT_GT(filler.size(), 0u);
        Peer inside(port);
        ASSERT_TRUE(inside.connected());
        filler.releaseHighest();
        ASSERT_TRUE(pumpUntil(engine, [&] { return connections(setup.router) == 1; }));
        expectServed(engine, inside);
        EXPECT_EQ(log.count(TOO_MANY), 0);
    }
    ASSERT_TRUE(pumpUntil(engine, [&] { return connections(setup.router) == 0; }));
    {
        Filler filler(room);
        WirePeer outside(port);
        ASSERT_TRUE(outside.connected());
        EXPECT_TRUE(outside.hungUp(engine));
        EXPECT_EQ(log.count(TOO_MANY), 1);
        EXPECT_EQ(connections(setup.router), 0);
    }
    Peer after(port);
    ASSERT_TRUE(after.connected());
    ASSERT_TRUE(pumpUntil(engine, [&] { return connections(setup.router) == 1; }));
    expectServed(engine, after);
    EXPECT_EQ(log.count(TOO_MANY), 1);
}

}  // namespace

TEST(EngineReactor, TheDefaultRoomIsEpollBased) {
    inChild([] {
        EXPECT_EQ(Engine::Reactor_Handles, 1010u);
        EXPECT_EQ(Engine::Default_Reactor_Handles, 1010u);
        int const before = epollInstances();
        EngineSetup setup = start(0, new TestRouter(), false);
        ACE_Reactor* const reactor = setup.engine->getReactor();
        ASSERT_NE(reactor, nullptr);
        EXPECT_NE(dynamic_cast<ACE_Dev_Poll_Reactor*>(reactor->implementation()), nullptr);
        EXPECT_EQ(epollInstances(), before + 1);
        setup.engine->shutdown();
    });
}

TEST(EngineReactor, ARaisedRoomIsEpollBased) {
    inChild([] {
        if (hardLimitBelow(2000))
            GTEST_SKIP() << "the hard limit of file descriptors is " << descriptorLimit().rlim_max;
        Engine::Reactor_Handles = 2000;
        int const before = epollInstances();
        EngineSetup setup = start(0, new TestRouter(), false);
        ACE_Reactor* const reactor = setup.engine->getReactor();
        ASSERT_NE(reactor, nullptr);
        EXPECT_NE(dynamic_cast<ACE_Dev_Poll_Reactor*>(reactor->implementation()), nullptr);
        EXPECT_EQ(epollInstances(), before + 1);
        setup.engine->shutdown();
    });
}

TEST(EngineReactor, OpenRaisesALowSoftLimitToTheRoom) {
    inChild([] {
        struct rlimit low = descriptorLimit();
        if (low.rlim_max != RLIM_INFINITY && low.rlim_max < 1010)
            GTEST_SKIP() << "the hard limit of file descriptors is " << low.rlim_max;
        low.rlim_cur = 256;
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
        EngineSetup setup = start(0, new TestRouter(), false);
        ASSERT_NE(setup.engine->getReactor(), nullptr);
        EXPECT_GE(descriptorLimit().rlim_cur, 1010u);
        setup.engine->shutdown();
    });
}

TEST(EngineReactor, OpenKeepsAHigherSoftLimit) {
    inChild([] {
        struct rlimit high = descriptorLimit();
        if (high.rlim_max != RLIM_INFINITY && high.rlim_max < 4096)
            GTEST_SKIP() << "the hard limit of file descriptors is " << high.rlim_max;
        high.rlim_cur = 4096;
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &high), 0);
        // An epoll reactor, which ACE makes lowering the limit to its room.
        Engine::Reactor_Handles = 2000;
        EngineSetup setup = start(0, new TestRouter(), false);
        ASSERT_NE(setup.engine->getReactor(), nullptr);
        // The process may still open descriptors beyond the reactor's room.
        EXPECT_EQ(descriptorLimit().rlim_cur, 4096u);
        int const fd = ::fcntl(0, F_DUPFD_CLOEXEC, 2000);
        EXPECT_GE(fd, 2000);
        if (fd != -1)
            ::close(fd);
        setup.engine->shutdown();
    });
}

TEST(EngineReactor, ARaisedRoomAboveTheHardLimitIsTriedTenTimes) {
    inChild([] {
        struct rlimit low = {1500, 1500};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
        Engine::Reactor_Handles = 2000;
        int waits = 0;
        static int* s_waits = nullptr;
        s_waits = &waits;
        EngineTestHooks::sleep([](const ACE_Time_Value& wait) {
            EXPECT_EQ(wait, ACE_Time_Value(5));
            ++*s_waits;
        });
        LogLines log;
        EngineSetup setup = prepare(new TestRouter(), false);
        EXPECT_EQ(setup.engine->open(0, false), -1);
        EXPECT_EQ(setup.engine->getReactor(), nullptr);
        EXPECT_EQ(waits, 10);
        expectReactorGaveUp(log);
        // The same room fits once the hard limit lets it.
        low.rlim_cur = low.rlim_max = 2000;
        if (::setrlimit(RLIMIT_NOFILE, &low) == 0) {
            EXPECT_EQ(setup.engine->open(0, false), 0);
            ASSERT_NE(setup.engine->getReactor(), nullptr);
        }
        setup.engine->shutdown();
    });
}

TEST(EngineReactor, KnowsTheThreadThatRunsIt) {
    inChild([] {
        if (hardLimitBelow(2000))
            GTEST_SKIP() << "the hard limit of file descriptors is " << descriptorLimit().rlim_max;
        Engine::Reactor_Handles = 2000;
        EngineSetup setup = start(0, new TestRouter(), false);
        ACE_Reactor* const reactor = setup.engine->getReactor();
        ASSERT_NE(reactor, nullptr);
        ACE_thread_t owner = 0;
        ASSERT_EQ(reactor->owner(&owner), 0);
        EXPECT_TRUE(ACE_OS::thr_equal(owner, ACE_Thread::self()));
        ACE_thread_t other = 0;
        std::thread([&] {
            setup.engine->run_step();
            other = ACE_Thread::self();
        }).join();
        ASSERT_EQ(reactor->owner(&owner), 0);
        EXPECT_TRUE(ACE_OS::thr_equal(owner, other));
        setup.engine->run_step();
        ASSERT_EQ(reactor->owner(&owner), 0);
        EXPECT_TRUE(ACE_OS::thr_equal(owner, ACE_Thread::self()));
        setup.engine->shutdown();
    });
}

class EngineReactorRoom : public ::testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(Workers, EngineReactorRoom, ::testing::Values(0, 2), workersName);

TEST_P(EngineReactorRoom, TheDefaultRoomRefusesAConnectionNumberedBeyondIt) {
    int const workers = GetParam();
    inChild([workers] {
        if (hardLimitBelow(1100))
            GTEST_SKIP() << "the hard limit of file descriptors is " << descriptorLimit().rlim_max;
        LogLines log;
        EngineSetup setup = start(workers, new TestRouter(), false);
        expectRoom(setup, 1010, log);
        setup.engine->shutdown();
    });
}

TEST_P(EngineReactorRoom, ARaisedRoomTakesConnectionsUpToIt) {
    int const workers = GetParam();
    inChild([workers] {
        if (hardLimitBelow(3100))
            GTEST_SKIP() << "the hard limit of file descriptors is " << descriptorLimit().rlim_max;
        Engine::Reactor_Handles = 3000;
        LogLines log;
        EngineSetup setup = start(workers, new TestRouter(), false);
        ASSERT_NE(setup.engine->getReactor(), nullptr);
        EXPECT_GE(descriptorLimit().rlim_cur, 3000u);
        expectRoom(setup, 3000, log);
        setup.engine->shutdown();
    });
}

// More connections than the default room, all held at once: each is
// served, a heartbeat reaches every one, and all leave.
TEST_P(EngineReactorRoom, ManyConnectionsAreServedAndHearTheHeartbeat) {
    int const workers = GetParam();
    inChild([workers] {
        const int count = 1200;
        if (hardLimitBelow(2 * count + 200))
            GTEST_SKIP() << "the hard limit of file descriptors is " << descriptorLimit().rlim_max;
        Engine::Reactor_Handles = 4096;
        LogLines log;
        EngineSetup setup = start(workers, new TestRouter(), false);
        Engine* const engine = setup.engine;
        u_short const port = startListening(engine);

        // Each request has a token of its own: replies find their way back
        // by it.
        auto requestBytes = [](int index) {
            Abstract_Event* request = Event_Factory::create(GET_VERSION_EVENT);
            if (request == nullptr)
                return std::string();
            request->setACT(static_cast<uint32_t>(0x10000 + index));
            std::string const bytes = wireBytes(request->data(false));
            request->destroy();
            return bytes;
        };
        Abstract_Event* heartbeat = Event_Factory::create(HEART_BEAT_EVENT);
        ASSERT_NE(heartbeat, nullptr);
        heartbeat->setBroadCast(false);
        size_t const heartbeat_size = wireBytes(heartbeat->data(false)).size();
        heartbeat->destroy();

        std::vector<std::unique_ptr<WirePeer>> peers;
        for (int i = 0; i < count; ++i) {
            peers.emplace_back(new WirePeer(port));
            ASSERT_TRUE(peers.back()->connected()) << i;
            // The listener's backlog is short: each is taken before the next.
            ASSERT_TRUE(pumpUntil(engine, [&] { return connections(setup.router) == i + 1; })) << i;
            ASSERT_TRUE(peers.back()->send(requestBytes(i))) << i;
        }
        EXPECT_GT(peers.back()->stream().get_handle(), 1010);
        ASSERT_TRUE(pumpUntil(
            engine, [&] { return setup.handler->seen(GET_VERSION_EVENT) == count; }, 20000))
            << setup.handler->seen(GET_VERSION_EVENT);

        // Every reply, then every heartbeat, arrives whole.
        std::vector<size_t> received(count, 0);
        std::vector<std::string> bytes(count);
        size_t expected = 0;
        auto readAll = [&] {
            bool all = true;
            for (int i = 0; i < count; ++i) {
                char buffer[4096];
                for (;;) {
                    ssize_t const n = ::recv(peers[i]->stream().get_handle(), buffer, sizeof buffer,
                                             MSG_DONTWAIT);
                    if (n <= 0)
                        break;
                    received[i] += static_cast<size_t>(n);
                    bytes[i].append(buffer, static_cast<size_t>(n));
                }
                if (received[i] < expected)
                    all = false;
            }
            return all;
        };
        // A reply's size: what the first connection gets.
        ASSERT_TRUE(pumpUntil(engine, [&] {
            readAll();
            return received[0] >= 32;
        }));
        pumpFor(engine, 100);
        readAll();
        size_t const reply_size = received[0];
        expected = reply_size;
        ASSERT_TRUE(pumpUntil(engine, readAll, 20000));
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(received[i], reply_size) << i;
            EXPECT_EQ(wordAt(bytes[i], 4), static_cast<uint32_t>(0x10000 + i)) << i;
        }

        EXPECT_EQ(engine->sendGlobalHeartBeat(), 0);
        expected = reply_size + heartbeat_size;
        ASSERT_TRUE(pumpUntil(engine, readAll, 20000))
            << *std::min_element(received.begin(), received.end()) << " of " << expected
            << " bytes";
        for (int i = 0; i < count; ++i)
            EXPECT_EQ(received[i], expected) << i;

        peers.clear();
        EXPECT_TRUE(pumpUntil(
            engine, [&] { return setup.handler->disconnects() == count; }, 20000))
            << setup.handler->disconnects();
        EXPECT_EQ(connections(setup.router), 0);
        engine->shutdown();
        EXPECT_EQ(log.countPrefix("%D ERROR"), 0);
        EXPECT_EQ(log.count(TOO_MANY), 0);
    });
}
