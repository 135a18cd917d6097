#include "loopback.h"

#include <ace/OS_NS_sys_time.h>

#include <gtest/gtest.h>

namespace TarnwickTest {

Listener::Listener() {
    ACE_INET_Addr any(static_cast<u_short>(0), "127.0.0.1");
    EXPECT_EQ(m_acceptor.open(any, 1), 0);
    EXPECT_EQ(m_acceptor.get_local_addr(m_address), 0);
}

Listener::~Listener() {
    close();
}

std::string readFor(ACE_SOCK_Stream& stream, int ms) {
    std::string bytes;
    ACE_Time_Value const deadline = ACE_OS::gettimeofday() + ACE_Time_Value(0, ms * 1000);
    char buffer[4096];
    while (ACE_OS::gettimeofday() < deadline) {
        ACE_Time_Value wait(0, 10000);
        ssize_t const count = stream.recv(buffer, sizeof buffer, &wait);
        if (count > 0)
            bytes.append(buffer, static_cast<size_t>(count));
        else if (count == 0)
            break;
    }
    return bytes;
}

}  // namespace TarnwickTest
