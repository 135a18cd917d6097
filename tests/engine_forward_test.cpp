// Handler::forward from several threads at once into one connection of a
// running engine: messages are written on the forwarding threads when the
// connection's queue is empty and by the reactor otherwise, and each arrives
// whole, in the order of its thread, never interleaved with another.
// Each test runs in a child process of its own (inChild).
#include <tarnwick/engine.h>
#include <tarnwick/handler.h>
#include <tarnwick/message_block.h>
#include <tarnwick/router.h>

#include <ace/Time_Value.h>

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "engine_peers.h"
#include "engine_setup.h"
#include "forked.h"
#include "pump.h"
#include "scratch_dir.h"
#include "wire.h"

using namespace Tarnwick;
using namespace TarnwickTest;

namespace {

const int THREADS = 4;
const uint32_t PER_THREAD = 300;

// The token of message `index` of thread `thread`.
uint32_t tokenOf(int thread, uint32_t index) {
    return (static_cast<uint32_t>(thread + 1) << 20) | index;
}

// Payload sizes of all kinds: empty, small, around a write's worth, and
// every 37th larger than the chunk size, so in a spill file.
size_t sizeOf(uint32_t index) {
    if (index % 37 == 5)
        return 40000 + index;
    return (index * 211) % 3000;
}

// Forwards a binary message of type 7 under `token` with `size` bytes of
// the token's pattern into `connection`, again and again while its queue
// refuses for a moment. False when the message could not be made or was
// still refused after four seconds.
bool forwardPatterned(Handler* connection, uint32_t token, size_t size) {
    auto* block = new Message_Block();
    Message_Header* header = block->getHeader();
    std::string const payload = patterned(size, token);
    header->setACT(token);
    header->setType(7);
    header->setBinary(true);
    header->setSize(static_cast<uint32_t>(payload.size()));
    block->wr_ptr(32);
    bool ok = payload.empty() ||
              block->write(payload.data(), payload.size()) == static_cast<int64_t>(payload.size());
    int tries = 0;
    while (connection->forward(block) == -1 && ++tries < 20000)
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    if (tries >= 20000)
        ok = false;
    block->release();
    return ok;
}

Handler* onlyConnection(Router_Base* router) {
    Dispatch_Set set;
    if (router->findAllHandlers(set) == -1 || set.size() != 1)
        return nullptr;
    return (*set.begin())->duplicate();
}

}  // namespace

TEST(EngineForward, ThreadsForwardingToOneConnectionNeverInterleave) {
    inChild([] {
        EngineSetup setup = start(0, new TestRouter(), false);
        Engine* engine = setup.engine;
        u_short const port = startListening(engine);
        WirePeer peer(port);
        ASSERT_TRUE(peer.connected());
        ASSERT_TRUE(pumpUntil(engine, [&] { return connections(setup.router) == 1; }));
        Handler* const connection = onlyConnection(setup.router);
        ASSERT_NE(connection, nullptr);
        ASSERT_EQ(peer.stream().enable(ACE_NONBLOCK), 0);

        std::atomic<int> failures(0);
        std::vector<std::thread> threads;
        for (int t = 0; t < THREADS; ++t) {
            threads.emplace_back([t, connection, &failures] {
                for (uint32_t i = 0; i < PER_THREAD; ++i) {
                    if (!forwardPatterned(connection, tokenOf(t, i), sizeOf(i)))
                        ++failures;
                }
            });
        }

        // The reactor runs here, and the peer reads here, in pieces.
        std::string wire;
        std::vector<uint32_t> next(THREADS, 0);
        uint32_t received = 0;
        bool broken = false;
        ACE_Time_Value const deadline = now() + ACE_Time_Value(60);
        char buffer[7919];
        while (received < THREADS * PER_THREAD && !broken && now() < deadline) {
            engine->run_step();
            ssize_t const count = peer.stream().recv(buffer, sizeof buffer);
            if (count > 0)
                wire.append(buffer, static_cast<size_t>(count));
            while (wire.size() >= 32 && !broken) {
                Message_Header header;
                std::memcpy(static_cast<void*>(&header), wire.data(), 32);
                header.decode();
                if (!header.isReadable()) {
                    ADD_FAILURE() << "a header without its magic after " << received << " messages";
                    broken = true;
                    break;
                }
                size_t const size = header.getSize();
                if (wire.size() < 32 + size)
                    break;
                uint32_t const token = header.getACT();
                int const thread = static_cast<int>(token >> 20) - 1;
                uint32_t const index = token & 0xFFFFF;
                if (thread < 0 || thread >= THREADS || index != next[thread] ||
                    size != sizeOf(index) || wire.compare(32, size, patterned(size, token)) != 0) {
                    ADD_FAILURE() << "message " << token << " out of order or not whole";
                    broken = true;
                    break;
                }
                ++next[thread];
                ++received;
                wire.erase(0, 32 + size);
            }
        }
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(received, THREADS * PER_THREAD);
        EXPECT_EQ(failures.load(), 0);
        EXPECT_TRUE(wire.empty());
        connection->release();
        engine->shutdown();
    });
}

TEST(EngineForward, SmallMessagesCutByAFullSocketArriveWhole) {
    // Small messages written straight from the forwarding thread into a
    // socket that a slow reader with a small window keeps nearly full: many
    // writes take only part of a message, whose rest goes out later from
    // the queue, before anything forwarded behind it.
    inChild([] {
        EngineSetup setup = start(0, new TestRouter(), false);
        Engine* engine = setup.engine;
        u_short const port = startListening(engine);
        WirePeer peer(port, 2048);
        ASSERT_TRUE(peer.connected());
        ASSERT_TRUE(pumpUntil(engine, [&] { return connections(setup.router) == 1; }));
        Handler* const connection = onlyConnection(setup.router);
        ASSERT_NE(connection, nullptr);
        ASSERT_EQ(peer.stream().enable(ACE_NONBLOCK), 0);
        // A small send buffer too, so that the socket fills every few
        // messages.
        int const room = 4096;
        ASSERT_EQ(::setsockopt(connection->get_handle(), SOL_SOCKET, SO_SNDBUF, &room, sizeof room),
                  0);

        const uint32_t total = 2000;
        auto const sizeOfSmall = [](uint32_t index) {
            return static_cast<size_t>((index * 131) % 1500);
        };
        std::atomic<int> failures(0);
        std::thread sender([&] {
            for (uint32_t i = 0; i < total; ++i) {
                if (!forwardPatterned(connection, tokenOf(0, i), sizeOfSmall(i)))
                    ++failures;
            }
        });

        std::string wire;
        uint32_t received = 0;
        bool broken = false;
        ACE_Time_Value const deadline = now() + ACE_Time_Value(60);
        char buffer[509];
        while (received < total && !broken && now() < deadline) {
            engine->run_step();
            ssize_t const count = peer.stream().recv(buffer, sizeof buffer);
            if (count > 0)
                wire.append(buffer, static_cast<size_t>(count));
            while (wire.size() >= 32 && !broken) {
                Message_Header header;
                std::memcpy(static_cast<void*>(&header), wire.data(), 32);
                header.decode();
                size_t const size = header.getSize();
                if (header.isReadable() && wire.size() < 32 + size)
                    break;
                if (!header.isReadable() || header.getACT() != tokenOf(0, received) ||
                    size != sizeOfSmall(received) ||
                    wire.compare(32, size, patterned(size, header.getACT())) != 0) {
                    ADD_FAILURE() << "message " << received << " not whole or out of order";
                    broken = true;
                    break;
                }
                ++received;
                wire.erase(0, 32 + size);
            }
        }
        sender.join();
        EXPECT_EQ(received, total);
        EXPECT_EQ(failures.load(), 0);
        EXPECT_TRUE(wire.empty());
        connection->release();
        engine->shutdown();
    });
}
