// Peers of the engine in an engine test, on the thread that runs the
// engine's reactor: a connection of the library driven by hand (Peer) and a
// plain socket that the test writes bytes to (WirePeer).
#pragma once

#include <tarnwick/identity.h>

#include <ace/Message_Block.h>
#include <ace/SOCK_Stream.h>

#include <cstdint>
#include <functional>
#include <string>

#include "engine_setup.h"

namespace Tarnwick {
class Abstract_Event;
class Engine;
class Handler;
}  // namespace Tarnwick

namespace TarnwickTest {

// A connection to the engine driven by hand: made with an out-argument, so
// that it has no engine; non-blocking; read and written on the thread that
// runs the engine's reactor.
class Peer {
public:
    explicit Peer(u_short port);
    ~Peer();
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    bool connected() const { return m_handler != nullptr; }
    Tarnwick::Handler* handler() { return m_handler; }

    // Writes the whole message of `event` (its header is left in network
    // order).
    bool send(Tarnwick::Abstract_Event* event);
    // Makes an event of `type`, lets `fill` change it, sends it and gives
    // its token.
    uint32_t send(int type, const std::function<void(Tarnwick::Abstract_Event*)>& fill = nullptr);
    // Sends an IdentityEvent of `identity`; its token.
    uint32_t identify(Tarnwick::Identity& identity);

    // The next whole message, reading while the engine runs; null when none
    // came within `ms` milliseconds or the connection ended.
    ACE_Message_Block* receiveBlock(Tarnwick::Engine* engine, int ms = 5000);
    // The next message as an event, destroyed by the caller.
    Tarnwick::Abstract_Event* receive(Tarnwick::Engine* engine, int ms = 5000);
    // True when nothing arrives within `ms` milliseconds and the connection
    // stays.
    bool quiet(Tarnwick::Engine* engine, int ms = 100);
    // True once the connection has ended, reading (and dropping) what still
    // comes for at most `ms` milliseconds.
    bool closed(Tarnwick::Engine* engine, int ms = 5000);

private:
    Tarnwick::Handler* m_handler;
    bool m_closed;
};

// A plain TCP connection to the engine, outside the library, written and
// read by the test. With `receive_buffer`, its receive buffer has that size
// from before the connect, so that its window is small from the start.
class WirePeer {
public:
    explicit WirePeer(u_short port, int receive_buffer = 0);
    ~WirePeer();
    WirePeer(const WirePeer&) = delete;
    WirePeer& operator=(const WirePeer&) = delete;

    bool connected() const { return m_connected; }
    // Writes all of `bytes`; false when it could not.
    bool send(const std::string& bytes);
    void closeWriter() { m_stream.close_writer(); }
    ACE_SOCK_Stream& stream() { return m_stream; }
    // True once the engine has hung up (end of stream or reset), reading
    // and dropping what comes while the engine runs.
    bool hungUp(Tarnwick::Engine* engine, int ms = 5000);

private:
    ACE_SOCK_Stream m_stream;
    bool m_connected = false;
};

// An identity that a peer sends.
Tarnwick::Identity peerIdentity(Tarnwick::Identity::Type type, uint32_t agentid,
                                bool credentials = true);

// Identifies `peer` to the engine as an agent with `agentid`, and waits
// until the engine has taken it in.
bool identifyAsAgent(EngineSetup& setup, Peer& peer, uint32_t agentid);

// Sends a GetVersionEvent from `peer` and expects the engine's answer.
void expectServed(Tarnwick::Engine* engine, Peer& peer);

}  // namespace TarnwickTest
