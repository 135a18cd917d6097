#include <tarnwick/acceptor.h>
#include <tarnwick/log.h>

#include <ace/ACE.h>
#include <ace/Countdown_Time.h>
#include <ace/OS_NS_poll.h>
#include <ace/Reactor.h>
#include <ace/SSL/SSL_Context.h>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>

#include <cerrno>
#include <cstdio>
#include <new>

namespace Tarnwick {

namespace {

// The peer's address for a log line; never null.
const char* addressText(Handler* handler) {
    const char* const address = handler->address();
    return address != nullptr ? address : "";
}

// The listen backlog: the system's maximum, so that a burst of connections
// waits in the kernel instead of being refused.
int listenBacklog() {
    int backlog = SOMAXCONN;
    if (FILE* file = std::fopen("/proc/sys/net/core/somaxconn", "r")) {
        int value = 0;
        if (std::fscanf(file, "%d", &value) == 1 && value > 0)
            backlog = value;
        std::fclose(file);
    }
    return backlog;
}

// The TCP part of an accept, into `stream`; the listening socket is
// non-blocking, so that this never waits. 0 or -1.
int acceptSocket(ACE_SOCK_Acceptor& acceptor, ACE_SOCK_Stream& stream, bool reset_new_handle) {
    return acceptor.accept(stream, nullptr, nullptr, true, reset_new_handle);
}

// The same for an SSL stream: the socket only, without the handshake.
int acceptSocket(SSL_Acceptor& acceptor, ACE_SSL_SOCK_Stream& stream, bool reset_new_handle) {
    ACE_SOCK_Acceptor listener;
    listener.set_handle(acceptor.get_handle());
    ACE_SOCK_Stream socket;
    int const accepted = listener.accept(socket, nullptr, nullptr, true, reset_new_handle);
    listener.set_handle(ACE_INVALID_HANDLE);
    if (accepted == -1)
        return -1;
    stream.set_handle(socket.get_handle());
    if (stream.get_handle() == ACE_INVALID_HANDLE) {
        socket.close();
        errno = ENOMEM;
        return -1;
    }
    return 0;
}

}  // namespace

template <typename Acceptor, typename ConnectionHandler>
Acceptor_T<Acceptor, ConnectionHandler>::Acceptor_T(Engine* engine)
    : Acceptor_Base(engine), m_handle(ACE_INVALID_HANDLE) {}

template <typename Acceptor, typename ConnectionHandler>
Acceptor_T<Acceptor, ConnectionHandler>::~Acceptor_T() {
    m_acceptor.close();
    m_handle = ACE_INVALID_HANDLE;
}

template <typename Acceptor, typename ConnectionHandler>
int Acceptor_T<Acceptor, ConnectionHandler>::open(const ACE_INET_Addr& address) {
    if (m_acceptor.open(address, 1, PF_UNSPEC, listenBacklog(), 0) == -1)
        return -1;
    m_handle = m_acceptor.get_handle();
    // A peer that goes between the reactor's readiness and the accept must
    // not leave the reactor waiting in accept().
    if (ACE::set_flags(m_handle, ACE_NONBLOCK) == -1) {
        int const error = errno;
        m_acceptor.close();
        m_handle = ACE_INVALID_HANDLE;
        errno = error;
        return -1;
    }
    return 0;
}

template <typename Acceptor, typename ConnectionHandler>
ACE_HANDLE Acceptor_T<Acceptor, ConnectionHandler>::get_handle() const {
    return m_handle;
}

template <typename Acceptor, typename ConnectionHandler>
int Acceptor_T<Acceptor, ConnectionHandler>::handle_input(ACE_HANDLE) {
    ConnectionHandler* handler = new (std::nothrow) ConnectionHandler();
    if (handler == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    handler->setEngine(m_engine);

    bool const reset_new_handle =
        reactor() != nullptr ? reactor()->uses_event_associations() : false;
    if (acceptSocket(m_acceptor, handler->peer(), reset_new_handle) == -1) {
        int const error = errno;
        handler->release();
        // Nobody there any more: the peer went before we took it.
        if (error == EWOULDBLOCK || error == EINTR || error == ECONNABORTED)
            return 0;
        errno = error;
        TW_LOG("%D ERROR (%t): Incoming connection failed: %m\n");
        return 0;
    }
    // The handshake of an SSL peer runs in the reactor, among the other
    // connections, and the connection joins the engine when it is done. A
    // handler that open() left outside the reactor (its peer has already
    // gone) failed as well: the failure path releases it.
    handler->acceptHandshake();
    if (handler->open(nullptr) != -1 && handler->reactor() != nullptr) {
        if (!handler->inHandshake())
            TW_LOG("%D DEBUG (%t): Incoming connection from %C\n", addressText(handler));
        return 0;
    }

    int const saved = errno;
    handler->handle_close(ACE_INVALID_HANDLE, 0);
    errno = saved;
    TW_LOG("%D ERROR (%t): Incoming connection failed: %m\n");
    return 0;
}

template <typename Acceptor, typename ConnectionHandler>
int Acceptor_T<Acceptor, ConnectionHandler>::handle_close(ACE_HANDLE, ACE_Reactor_Mask) {
    TW_LOG("%D DEBUG (%t): Closing passive connection.\n");
    m_acceptor.close();
    m_handle = ACE_INVALID_HANDLE;
    delete this;
    return 0;
}

template class Acceptor_T<ACE_SOCK_Acceptor, PlainHandler>;
template class Acceptor_T<SSL_Acceptor, SSLHandler>;

namespace {

// The server's part of the TLS handshake on the accepted socket of
// `stream`, within `timeout`. 0, or -1 with errno as SSL_Acceptor::accept
// tells. The socket is non-blocking meanwhile.
int acceptHandshake(ACE_SSL_SOCK_Stream& stream, ACE_Time_Value* timeout) {
    SSL* const ssl = stream.ssl();
    ACE_HANDLE const handle = stream.get_handle();
    if (ssl == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    if (ACE::set_flags(handle, ACE_NONBLOCK) == -1)
        return -1;

    ACE_Countdown_Time countdown(timeout);
    SSL_set_accept_state(ssl);
    int result = -1;
    for (;;) {
        ERR_clear_error();
        errno = 0;
        int const status = SSL_accept(ssl);
        if (status == 1) {
            result = 0;
            break;
        }
        int const reason = SSL_get_error(ssl, status);
        pollfd wanted = {handle, 0, 0};
        if (reason == SSL_ERROR_WANT_READ) {
            wanted.events = POLLIN;
        } else if (reason == SSL_ERROR_WANT_WRITE) {
            wanted.events = POLLOUT;
        } else {
            int const error = errno;
            if (reason == SSL_ERROR_SSL)
                ACE_SSL_Context::report_error();
            errno = reason == SSL_ERROR_SYSCALL && error != 0 ? error : EPROTO;
            break;
        }
        countdown.update();
        int const ready = ACE_OS::poll(&wanted, 1, timeout);
        if (ready == 0) {
            errno = ETIME;
            break;
        }
        if (ready < 0 && errno != EINTR)
            break;
    }

    int const error = errno;
    ERR_clear_error();
    ACE::clr_flags(handle, ACE_NONBLOCK);
    errno = error;
    return result;
}

}  // namespace

int SSL_Acceptor::accept(ACE_SSL_SOCK_Stream& new_stream, ACE_Addr* remote_addr,
                         ACE_Time_Value* timeout, bool restart, bool reset_new_handle) const {
    ACE_Countdown_Time countdown(timeout);

    // The TCP connection, from the listening socket borrowed for the call.
    ACE_SOCK_Acceptor listener;
    listener.set_handle(get_handle());
    ACE_SOCK_Stream socket;
    int const accepted = listener.accept(socket, remote_addr, timeout, restart, reset_new_handle);
    listener.set_handle(ACE_INVALID_HANDLE);
    if (accepted == -1)
        return -1;
    countdown.update();

    new_stream.set_handle(socket.get_handle());
    if (acceptHandshake(new_stream, timeout) == 0)
        return 0;
    int const error = errno;
    new_stream.peer().close();
    new_stream.set_handle(ACE_INVALID_HANDLE);
    errno = error;
    return -1;
}

}  // namespace Tarnwick
