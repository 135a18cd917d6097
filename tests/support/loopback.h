// Ports on the loopback interface for tests.
#pragma once

#include <ace/INET_Addr.h>
#include <ace/SOCK_Acceptor.h>

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

}  // namespace TarnwickTest
