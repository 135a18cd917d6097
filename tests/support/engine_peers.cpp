#include "engine_peers.h"

#include <tarnwick/abstract_event.h>
#include <tarnwick/engine.h>
#include <tarnwick/event_factory.h>
#include <tarnwick/handler_t.h>

#include <ace/SOCK_Connector.h>
#include <ace/Synch_Options.h>

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <cerrno>

#include "loopback.h"
#include "pump.h"

using namespace Tarnwick;

namespace TarnwickTest {

Peer::Peer(u_short port) : m_handler(nullptr), m_closed(false) {
    ACE_Synch_Options options;
    if (Engine::makeActiveConnection(loopback(port), 0, options, &m_handler) == 0)
        static_cast<PlainHandler*>(m_handler)->peer().enable(ACE_NONBLOCK);
    else
        m_handler = nullptr;
}

Peer::~Peer() {
    if (m_handler != nullptr) {
        m_handler->close(0);
        m_handler->release();
    }
}

bool Peer::send(Abstract_Event* event) {
    ACE_Message_Block* block = event->data(false);
    if (m_handler == nullptr || block == nullptr)
        return false;
    for (int i = 0; i < 100000; ++i) {
        errno = 0;
        int64_t const result = m_handler->send(block, nullptr);
        if (result < 0)
            return false;
        if (errno != EWOULDBLOCK)
            return true;
        sleepMicroseconds(100);
    }
    return false;
}

uint32_t Peer::send(int type, const std::function<void(Abstract_Event*)>& fill) {
    Abstract_Event* event = Event_Factory::create(type);
    if (event == nullptr)
        return 0;
    if (fill)
        fill(event);
    uint32_t const token = event->getACT();
    bool const sent = send(event);
    event->destroy();
    return sent ? token : 0;
}

uint32_t Peer::identify(Identity& identity) {
    IdentityEvent event;
    if (identity.updateEvent(&event) == -1)
        return 0;
    uint32_t const token = event.getACT();
    return send(&event) ? token : 0;
}

ACE_Message_Block* Peer::receiveBlock(Engine* engine, int ms) {
    ACE_Message_Block* block = nullptr;
    pumpUntil(
        engine,
        [&]() {
            if (m_handler == nullptr || m_closed)
                return true;
            errno = 0;
            int64_t const result = m_handler->recv(block, nullptr);
            if (result > 0)
                return true;
            block = nullptr;
            if (result == 0 || errno != EWOULDBLOCK) {
                m_closed = true;
                return true;
            }
            return false;
        },
        ms);
    return block;
}

Abstract_Event* Peer::receive(Engine* engine, int ms) {
    ACE_Message_Block* block = receiveBlock(engine, ms);
    if (block == nullptr)
        return nullptr;
    Abstract_Event* event = Event_Factory::create(block);
    block->release();
    return event;
}

bool Peer::quiet(Engine* engine, int ms) {
    ACE_Message_Block* block = receiveBlock(engine, ms);
    if (block != nullptr) {
        block->release();
        return false;
    }
    return !m_closed;
}

bool Peer::closed(Engine* engine, int ms) {
    ACE_Time_Value const deadline = now() + ACE_Time_Value(ms / 1000, (ms % 1000) * 1000);
    while (!m_closed && now() < deadline) {
        ACE_Message_Block* block = receiveBlock(engine, 50);
        if (block != nullptr)
            block->release();
    }
    return m_closed;
}

WirePeer::WirePeer(u_short port, int receive_buffer) {
    if (receive_buffer > 0) {
        // Before the connect, so that the window is small from the start.
        m_stream.open(SOCK_STREAM, AF_INET, 0, 0);
        m_stream.set_option(SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
    }
    ACE_SOCK_Connector connector;
    m_connected = connector.connect(m_stream, loopback(port)) == 0;
}

WirePeer::~WirePeer() {
    m_stream.close();
}

bool WirePeer::send(const std::string& bytes) {
    return m_connected &&
           m_stream.send_n(bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
}

bool WirePeer::hungUp(Engine* engine, int ms) {
    return pumpUntil(
        engine,
        [&] {
            char buffer[256];
            ssize_t const count =
                ::recv(m_stream.get_handle(), buffer, sizeof buffer, MSG_DONTWAIT);
            return count == 0 ||
                   (count < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR);
        },
        ms);
}

Identity peerIdentity(Identity::Type type, uint32_t agentid, bool credentials) {
    Identity identity("peer", type, 0);
    identity.setAgentID(agentid);
    if (credentials) {
        identity.setLogin("operator");
        identity.setPassword("pw");
    }
    return identity;
}

bool identifyAsAgent(EngineSetup& setup, Peer& peer, uint32_t agentid) {
    Identity identity = peerIdentity(Identity::TWAGENT, agentid);
    size_t const before = setup.handler->activations().size();
    if (peer.identify(identity) == 0)
        return false;
    return pumpUntil(setup.engine, [&] { return setup.handler->activations().size() > before; });
}

void expectServed(Engine* engine, Peer& peer) {
    uint32_t const token = peer.send(GET_VERSION_EVENT);
    ASSERT_NE(token, 0u);
    Abstract_Event* reply = peer.receive(engine);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), static_cast<uint32_t>(GET_VERSION_EVENT));
    EXPECT_TRUE(reply->isResult());
    EXPECT_EQ(reply->getACT(), token);
    EXPECT_EQ(argOf(reply, "version"), "6.6.3");
    reply->destroy();
}

}  // namespace TarnwickTest
