#include <tarnwick/handler_t.h>
#include <tarnwick/log.h>

#include <ace/INET_Addr.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/Reactor.h>
#include <ace/SSL/SSL_Context.h>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <fcntl.h>
#include <sys/uio.h>

#include <cerrno>
#include <new>

namespace Tarnwick {

namespace {

// Closes a stream so that its socket is gone and its handle invalid, also
// where an SSL shutdown can't complete at once.
void closeStream(ACE_SOCK_Stream& stream) {
    stream.close();
    stream.set_handle(ACE_INVALID_HANDLE);
}

void closeStream(ACE_SSL_SOCK_Stream& stream) {
    stream.close();
    if (stream.peer().get_handle() != ACE_INVALID_HANDLE)
        stream.peer().close();
    stream.set_handle(ACE_INVALID_HANDLE);
}

// The modes of an SSL session on a non-blocking socket: a write that could
// not finish is retried from wherever the unsent bytes lie by then.
void setNonBlockingModes(SSL* ssl) {
    if (ssl != nullptr)
        SSL_set_mode(ssl, SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
}

// An accepted plain stream has no handshake.
bool startAccept(ACE_SOCK_Stream&) {
    return false;
}

// An accepted SSL stream runs the server's part of the handshake.
bool startAccept(ACE_SSL_SOCK_Stream& stream) {
    SSL* const ssl = stream.ssl();
    if (ssl == nullptr)
        return false;
    setNonBlockingModes(ssl);
    SSL_set_accept_state(ssl);
    return true;
}

int stepHandshake(ACE_SOCK_Stream&, bool&) {
    return 1;
}

// One SSL_accept on the non-blocking socket: 1 done, 0 wants the readiness
// that `want_write` names, -1 failed with errno EPROTO when the peer broke
// the protocol or was refused (OpenSSL's reason is logged), else the
// socket's error.
int stepHandshake(ACE_SSL_SOCK_Stream& stream, bool& want_write) {
    SSL* const ssl = stream.ssl();
    if (ssl == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    ERR_clear_error();
    errno = 0;
    int const status = SSL_accept(ssl);
    if (status == 1)
        return 1;
    int const reason = SSL_get_error(ssl, status);
    if (reason == SSL_ERROR_WANT_READ || reason == SSL_ERROR_WANT_WRITE) {
        want_write = reason == SSL_ERROR_WANT_WRITE;
        return 0;
    }
    int const error = errno;
    if (reason == SSL_ERROR_SSL)
        ACE_SSL_Context::report_error();
    ERR_clear_error();
    errno = reason == SSL_ERROR_SYSCALL && error != 0 ? error : EPROTO;
    return -1;
}

// The socket beneath a stream.
ACE_SOCK_Stream& socketOf(ACE_SOCK_Stream& stream) {
    return stream;
}

ACE_SOCK_Stream& socketOf(ACE_SSL_SOCK_Stream& stream) {
    return stream.peer();
}

// Connects a plain stream, without a time limit.
int connectStream(ACE_SOCK_Connector& connector, ACE_SOCK_Stream& stream,
                  const ACE_INET_Addr& address) {
    return connector.connect(stream, address, nullptr, ACE_Addr::sap_any, 0, 0, 0);
}

// Connects an SSL stream, without a time limit: the TCP connection of its
// socket, then the client's part of the TLS handshake. When the handshake
// fails, the socket is closed without an SSL shutdown (which fails on an
// unfinished handshake and would leave an OpenSSL error code in errno), and
// errno is EPROTO when the peer broke the protocol or was refused (OpenSSL's
// reason is logged), else the socket's error.
int connectStream(ACE_SSL_SOCK_Connector&, ACE_SSL_SOCK_Stream& stream,
                  const ACE_INET_Addr& address) {
    ACE_SOCK_Connector connector;
    if (connector.connect(stream.peer(), address, nullptr, ACE_Addr::sap_any, 0, 0, 0) == -1)
        return -1;
    stream.set_handle(stream.peer().get_handle());
    SSL* const ssl = stream.ssl();
    if (ssl == nullptr) {
        errno = ENOMEM;
    } else {
        ERR_clear_error();
        errno = 0;
        int const status = SSL_connect(ssl);
        if (status == 1) {
            setNonBlockingModes(ssl);
            return 0;
        }
        int const reason = SSL_get_error(ssl, status);
        int const error = errno;
        if (reason == SSL_ERROR_SSL)
            ACE_SSL_Context::report_error();
        ERR_clear_error();
        errno = reason == SSL_ERROR_SYSCALL && error != 0 ? error : EPROTO;
    }
    int const error = errno;
    stream.peer().close();
    stream.set_handle(ACE_INVALID_HANDLE);
    errno = error;
    return -1;
}

// Calls handle_input of an SSL connection again while its session holds
// received bytes that a read left behind. The socket doesn't show them any
// more, so the reactor wouldn't: a record larger than what the handler asked
// for would wait until the peer sends something else. It travels through
// the reactor's notification pipe, which holds a reference to it, and it
// holds one to the connection.
class PendingInput : public ACE_Event_Handler {
public:
    explicit PendingInput(SSLHandler* handler) : m_handler(handler) {
        m_handler->duplicate();
        reference_counting_policy().value(ACE_Event_Handler::Reference_Counting_Policy::ENABLED);
    }

    int handle_input(ACE_HANDLE) override {
        // Nothing to do when the connection has closed or an earlier call
        // took the bytes.
        if (m_handler->get_handle() == ACE_INVALID_HANDLE ||
            SSL_pending(m_handler->peer().ssl()) <= 0)
            return 0;
        // As the reactor does when handle_input fails.
        if (m_handler->handle_input(m_handler->get_handle()) == -1)
            m_handler->handle_close(m_handler->get_handle(), ACE_Event_Handler::READ_MASK);
        return 0;
    }

protected:
    ~PendingInput() override { m_handler->release(); }

private:
    SSLHandler* m_handler;
};

// After a read: nothing to do for a plain stream.
void readAgainIfPending(ACE_SOCK_Stream&, Handler*, ACE_Reactor*) {}

// After a read: when the session still holds received bytes, `reactor`
// calls handle_input again.
void readAgainIfPending(ACE_SSL_SOCK_Stream& stream, Handler* handler, ACE_Reactor* reactor) {
    if (reactor == nullptr || stream.ssl() == nullptr || SSL_pending(stream.ssl()) <= 0)
        return;
    PendingInput* const pending =
        new (std::nothrow) PendingInput(static_cast<SSLHandler*>(handler));
    if (pending == nullptr)
        return;
    // Never waits: the reactor's own thread is the caller.
    ACE_Time_Value noWait(ACE_Time_Value::zero);
    if (reactor->notify(pending, ACE_Event_Handler::READ_MASK, &noWait) == -1)
        TW_LOG("%D ERROR (%t): Can not schedule the rest of an SSL record: %m\n");
    pending->remove_reference();
}

// The zero-copy and gathered writes of a plain socket: the system calls
// themselves. -1 with ENOSYS for an SSL stream, whose bytes must pass
// through its session.
ssize_t writeParts(ACE_SOCK_Stream& stream, const iovec* parts, int count) {
    ssize_t result;
    do {
        result = ::writev(stream.get_handle(), parts, count);
    } while (result < 0 && errno == EINTR);
    return result;
}

ssize_t writeParts(ACE_SSL_SOCK_Stream&, const iovec*, int) {
    errno = ENOSYS;
    return -1;
}

ssize_t fileToSocket(ACE_SOCK_Stream& stream, ACE_HANDLE file, uint64_t offset, size_t length) {
    off_t at = static_cast<off_t>(offset);
    ssize_t result;
    do {
        result = Handler::File_To_Socket(stream.get_handle(), file, &at, length);
    } while (result < 0 && errno == EINTR);
    return result;
}

ssize_t fileToSocket(ACE_SSL_SOCK_Stream&, ACE_HANDLE, uint64_t, size_t) {
    errno = ENOSYS;
    return -1;
}

ssize_t socketToPipe(ACE_SOCK_Stream& stream, int pipe, size_t length) {
    ssize_t result;
    do {
        result = Handler::Socket_To_Pipe(stream.get_handle(), nullptr, pipe, nullptr, length,
                                         SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
    } while (result < 0 && errno == EINTR);
    return result;
}

ssize_t socketToPipe(ACE_SSL_SOCK_Stream&, int, size_t) {
    errno = ENOSYS;
    return -1;
}

// A plain socket may be written by one thread while another reads it; an
// SSL session may not.
bool writableFromAnyThread(const ACE_SOCK_Stream&) {
    return true;
}

bool writableFromAnyThread(const ACE_SSL_SOCK_Stream&) {
    return false;
}

}  // namespace

template <typename Stream, typename Connector>
Handler_Implementation<Stream, Connector>::Handler_Implementation() : Handler(), m_stream() {}

template <typename Stream, typename Connector>
Handler_Implementation<Stream, Connector>::~Handler_Implementation() {
    // A handler released without being closed still gives its socket back.
    closeStream(m_stream);
}

template <typename Stream, typename Connector>
ACE_HANDLE Handler_Implementation<Stream, Connector>::get_handle() const {
    return m_stream.get_handle();
}

template <typename Stream, typename Connector>
int Handler_Implementation<Stream, Connector>::connect_to(const ACE_INET_Addr& address,
                                                          ACE_Synch_Options&) {
    // The connect always blocks: no time limit, whatever the options say.
    Connector connector;
    if (connectStream(connector, m_stream, address) == -1) {
        TW_LOG_ERRNO("%D ERROR (%t): Active connection failed.");
        return -1;
    }
    // open() does nothing, and returns 0, for a peer whose address can't be
    // had any more: it has gone (an SSL peer that refused our certificate
    // hangs up right after the handshake). Such a connection never joined
    // the engine; it fails here so that its caller releases it.
    if (open(nullptr) == -1 || (m_engine != nullptr && !m_registered)) {
        TW_LOG_ERRNO("%D ERROR (%t): Can not initialize connection.");
        return -1;
    }
    return 0;
}

template <typename Stream, typename Connector>
ssize_t Handler_Implementation<Stream, Connector>::send_bytes(const void* buffer, size_t length,
                                                              const ACE_Time_Value* timeout) {
    ssize_t const count = m_stream.send(buffer, length, 0, timeout);
    if (count > 0) {
        bytes_sent(static_cast<uint64_t>(count));
        updateTimestamps();
    }
    return count;
}

template <typename Stream, typename Connector>
ssize_t Handler_Implementation<Stream, Connector>::recv_bytes(void* buffer, size_t length,
                                                              const ACE_Time_Value* timeout) {
    ssize_t const count = m_stream.recv(buffer, length, 0, timeout);
    if (count > 0) {
        bytes_received(static_cast<uint64_t>(count));
        stampReceived();
        if (m_registered && m_engine != nullptr)
            readAgainIfPending(m_stream, this, m_owner->getReactor());
    }
    return count;
}

template <typename Stream, typename Connector>
bool Handler_Implementation<Stream, Connector>::directWrites() const {
    return writableFromAnyThread(m_stream);
}

template <typename Stream, typename Connector>
void Handler_Implementation<Stream, Connector>::sentActivity(ssize_t count) {
    if (count > 0) {
        bytes_sent(static_cast<uint64_t>(count));
        updateTimestamps();
    }
}

template <typename Stream, typename Connector>
ssize_t Handler_Implementation<Stream, Connector>::send_parts(const iovec* parts, int count) {
    errno = 0;
    ssize_t const result = writeParts(m_stream, parts, count);
    if (result < 0 && errno == ENOSYS)
        return Handler::send_parts(parts, count);
    sentActivity(result);
    return result;
}

template <typename Stream, typename Connector>
ssize_t Handler_Implementation<Stream, Connector>::send_file(ACE_HANDLE file, uint64_t offset,
                                                             size_t length) {
    ssize_t const result = fileToSocket(m_stream, file, offset, length);
    sentActivity(result);
    return result;
}

template <typename Stream, typename Connector>
ssize_t Handler_Implementation<Stream, Connector>::recv_to_pipe(int pipe, size_t length) {
    ssize_t const count = socketToPipe(m_stream, pipe, length);
    if (count > 0) {
        bytes_received(static_cast<uint64_t>(count));
        stampReceived();
    }
    return count;
}

template <typename Stream, typename Connector>
bool Handler_Implementation<Stream, Connector>::fill_address(std::string& text) {
    // Until its handshake is done, an accepted SSL stream knows its peer
    // only through the socket beneath.
    ACE_INET_Addr remote;
    if (m_stream.get_remote_addr(remote) == -1 &&
        (!m_handshaking || socketOf(m_stream).get_remote_addr(remote) == -1))
        return false;
    char host[INET6_ADDRSTRLEN + 1] = {};
    if (remote.get_host_addr(host, sizeof host) == nullptr)
        return false;
    text = host;
    return true;
}

template <typename Stream, typename Connector>
void Handler_Implementation<Stream, Connector>::close_stream() {
    closeStream(m_stream);
}

template <typename Stream, typename Connector>
void Handler_Implementation<Stream, Connector>::acceptHandshake() {
    m_handshaking = startAccept(m_stream);
}

template <typename Stream, typename Connector>
int Handler_Implementation<Stream, Connector>::handshake_step(bool& want_write) {
    return stepHandshake(m_stream, want_write);
}

template class Handler_Implementation<ACE_SOCK_Stream, ACE_SOCK_Connector>;
template class Handler_Implementation<ACE_SSL_SOCK_Stream, ACE_SSL_SOCK_Connector>;

}  // namespace Tarnwick
