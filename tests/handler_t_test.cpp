// The two concrete handlers: connecting, the peer's address, and the SSL
// instance's life without a handshake.
#include <tarnwick/engine.h>
#include <tarnwick/handler_t.h>
#include <tarnwick/message_block.h>

#include <ace/INET_Addr.h>
#include <ace/SOCK_Acceptor.h>
#include <ace/SOCK_Stream.h>
#include <ace/Synch_Options.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "log_lines.h"
#include "loopback.h"
#include "zero_copy.h"

using Tarnwick::Handler;
using Tarnwick::PlainHandler;
using Tarnwick::Sig_Pipe_Guard;
using Tarnwick::SSLHandler;
using TarnwickTest::Lines;
using TarnwickTest::Listener;
using TarnwickTest::LogCapture;
using TarnwickTest::startsWith;
using TarnwickTest::ZeroCopyCalls;

namespace {

// An SSLHandler with its zero-copy operations in reach.
class SSLProbe : public SSLHandler {
public:
    using SSLHandler::recv_to_pipe;
    using SSLHandler::send_file;

protected:
    ~SSLProbe() override = default;
};

}  // namespace

TEST(PlainHandler, ConnectToOpensWithoutAnEngine) {
    LogCapture capture;
    Listener listener;
    PlainHandler* handler = new PlainHandler();
    ACE_Synch_Options options;
    ASSERT_EQ(handler->connect_to(listener.address(), options), 0);
    ACE_SOCK_Stream peer;
    ASSERT_EQ(listener.accept(peer), 0);
    EXPECT_NE(handler->get_handle(), ACE_INVALID_HANDLE);
    EXPECT_EQ(handler->get_handle(), handler->peer().get_handle());
    ASSERT_NE(handler->address(), nullptr);
    EXPECT_STREQ(handler->address(), "127.0.0.1");
    EXPECT_EQ(handler->msg_queue()->high_water_mark(), 524288u);
    EXPECT_TRUE(capture.lines().empty());
    handler->close();
    EXPECT_EQ(handler->get_handle(), ACE_INVALID_HANDLE);
    EXPECT_EQ(handler->release(), nullptr);
    peer.close();
}

TEST(PlainHandler, ConnectToARefusingPortFails) {
    LogCapture capture;
    ACE_INET_Addr closed;
    {
        Listener listener;
        closed = listener.address();
    }
    PlainHandler* handler = new PlainHandler();
    ACE_Synch_Options options;
    EXPECT_EQ(handler->connect_to(closed, options), -1);
    EXPECT_EQ(capture.lines(),
              Lines{"%D ERROR (%t): Active connection failed.: Connection refused"});
    EXPECT_EQ(handler->get_handle(), ACE_INVALID_HANDLE);
    handler->release();
}

TEST(PlainHandler, MadeByTheEngineForAnOwnerStaysOutsideIt) {
    LogCapture capture;
    Listener listener;
    Handler* handler = nullptr;
    ACE_Synch_Options options;
    ASSERT_EQ(Tarnwick::Engine::makeActiveConnection(listener.address(), 0, options, &handler), 0);
    ASSERT_NE(handler, nullptr);
    ACE_SOCK_Stream peer;
    ASSERT_EQ(listener.accept(peer), 0);
    EXPECT_EQ(handler->getEngine(), nullptr);
    EXPECT_EQ(handler->reactor(), nullptr);
    EXPECT_STREQ(handler->address(), "127.0.0.1");

    auto* block = new Tarnwick::Message_Block();
    block->getHeader()->setACT(9);
    block->wr_ptr(32);
    EXPECT_EQ(handler->send(block, nullptr), 32);
    block->release();
    char bytes[32];
    ACE_Time_Value wait(5);
    EXPECT_EQ(peer.recv_n(bytes, sizeof bytes, &wait), 32);

    handler->close();
    EXPECT_EQ(handler->release(), nullptr);
    peer.close();
    for (const std::string& line : capture.lines())
        EXPECT_EQ(line.find("ERROR"), std::string::npos) << line;
}

TEST(SSLHandler, IsMadeAndEndedWithoutAConnection) {
    LogCapture capture;
    SSLHandler* handler = new SSLHandler();
    EXPECT_EQ(handler->get_handle(), ACE_INVALID_HANDLE);
    EXPECT_EQ(handler->address(), nullptr);
    EXPECT_EQ(handler->open(), 0);
    auto* block = new Tarnwick::Message_Block();
    EXPECT_EQ(handler->forward(block), -1);
    block->release();
    EXPECT_EQ(handler->close(), 0);
    EXPECT_EQ(capture.lines(),
              (Lines{"%D ERROR (%t): Can not get remote address",
                     "%D ERROR (%t): Can not forward: network handle is invalid",
                     "%D DEBUG (%t): Closing connection (0 bytes sent, 0 bytes received)."}));
    EXPECT_EQ(handler->duplicate(), handler);
    EXPECT_EQ(handler->release(), handler);
    EXPECT_EQ(handler->release(), nullptr);
}

TEST(SSLHandler, ConnectToAPeerThatDropsTheHandshakeFails) {
    Sig_Pipe_Guard guard;
    LogCapture capture;
    Listener listener;
    std::thread server([&listener] {
        ACE_SOCK_Stream stream;
        if (listener.accept(stream) == 0)
            stream.close();
    });
    SSLHandler* handler = new SSLHandler();
    ACE_Synch_Options options;
    EXPECT_EQ(handler->connect_to(listener.address(), options), -1);
    server.join();
    Lines const lines = capture.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_TRUE(startsWith(lines.back(), "%D ERROR (%t): Active connection failed."))
        << lines.back();
    EXPECT_EQ(handler->release(), nullptr);
}

// The bytes of an SSL connection pass through its session: it never sends
// from a file or splices from its socket, and so never asks the system to.
TEST(SSLHandler, KeepsTheReadAndWritePath) {
    ZeroCopyCalls refusing(ZeroCopyCalls::REFUSE_ALL);
    SSLProbe* handler = new SSLProbe();
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    errno = 0;
    EXPECT_EQ(handler->send_file(fds[0], 0, 100), -1);
    EXPECT_EQ(errno, ENOSYS);
    errno = 0;
    EXPECT_EQ(handler->recv_to_pipe(fds[1], 100), -1);
    EXPECT_EQ(errno, ENOSYS);
    EXPECT_EQ(refusing.refusals(), 0);
    EXPECT_EQ(handler->bytes_sent(), 0u);
    EXPECT_EQ(handler->bytes_received(), 0u);
    ::close(fds[0]);
    ::close(fds[1]);
    EXPECT_EQ(handler->release(), nullptr);
}
