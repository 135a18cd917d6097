// Addresses, ports and sockets on the loopback interface for tests.
#pragma once

#include <ace/INET_Addr.h>
#include <ace/SOCK_Acceptor.h>
#include <ace/SOCK_Stream.h>

#include <cstdint>
#include <string>

namespace TarnwickTest {

// A port on 127.0.0.1 that nothing listens at, or 0. (The engine's listener
// takes a port number and doesn't tell which one it got for port 0.)
inline u_short freePort() {
    ACE_SOCK_Acceptor probe;
    ACE_INET_Addr any(static_cast<u_short>(0), "127.0.0.1");
    if (probe.open(any, 1) == -1)
        return 0;
    ACE_INET_Addr local;
    probe.get_local_addr(local);
    probe.close();
    return local.get_port_number();
}

// `port` on 127.0.0.1.
inline ACE_INET_Addr loopback(u_short port) {
    return ACE_INET_Addr(port, "127.0.0.1");
}

// A raw listening socket of the test's own on 127.0.0.1, at a port of the
// system's choice (backlog 1).
class Listener {
public:
    Listener();
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    const ACE_INET_Addr& address() const { return m_address; }
    u_short port() const { return m_address.get_port_number(); }
    int accept(ACE_SOCK_Stream& stream) { return m_acceptor.accept(stream); }
    void close() { m_acceptor.close(); }

private:
    ACE_SOCK_Acceptor m_acceptor;
    ACE_INET_Addr m_address;
};

// The bytes that arrive on `stream` within `ms` milliseconds (less when the
// peer closes first).
std::string readFor(ACE_SOCK_Stream& stream, int ms);

// The big-endian 32-bit word at `offset` of `bytes`.
inline uint32_t wordAt(const std::string& bytes, size_t offset) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i)
        value = (value << 8) | static_cast<unsigned char>(bytes[offset + i]);
    return value;
}

}  // namespace TarnwickTest
