// The passive endpoint of an engine: accepts peers and makes their handlers.
#pragma once

#include <tarnwick/handler_t.h>

#include <ace/Event_Handler.h>
#include <ace/INET_Addr.h>
#include <ace/SOCK_Acceptor.h>
#include <ace/SSL/SSL_SOCK_Acceptor.h>

namespace Tarnwick {

class Engine;

// A listening socket in the engine's reactor.
class Acceptor_Base : public ACE_Event_Handler {
public:
    explicit Acceptor_Base(Engine* engine) : m_engine(engine) {}
    ~Acceptor_Base() override {}

    // Listens at `address` (address reuse, backlog 5). 0 or -1.
    virtual int open(const ACE_INET_Addr& address) = 0;

protected:
    Engine* m_engine;
};

// Accepts with `Acceptor` into new handlers of type `ConnectionHandler`, one
// per reactor event, with a limit of 5 seconds that covers an SSL
// handshake. A failed accept is logged and the listener goes on. The
// acceptor deletes itself when the reactor closes it.
template <typename Acceptor, typename ConnectionHandler>
class Acceptor_T : public Acceptor_Base {
public:
    explicit Acceptor_T(Engine* engine);

    int open(const ACE_INET_Addr& address) override;
    ACE_HANDLE get_handle() const override;
    int handle_input(ACE_HANDLE handle = ACE_INVALID_HANDLE) override;
    int handle_close(ACE_HANDLE handle, ACE_Reactor_Mask mask) override;

protected:
    ~Acceptor_T() override;

private:
    Acceptor m_acceptor;
    ACE_HANDLE m_handle;
};

// ACE_SSL_SOCK_Acceptor with an accept that tells why a handshake failed.
// It accepts the TCP connection and runs the server's part of the TLS
// handshake, both within `timeout`. When the handshake fails, the socket is
// closed without an SSL shutdown (which fails on an unfinished handshake and
// would leave an OpenSSL error code in errno) and errno is ETIME when the
// time ran out, EPROTO when the peer broke the protocol or was refused
// (OpenSSL's reason is logged), else the socket's error.
class SSL_Acceptor : public ACE_SSL_SOCK_Acceptor {
public:
    int accept(ACE_SSL_SOCK_Stream& new_stream, ACE_Addr* remote_addr = nullptr,
               ACE_Time_Value* timeout = nullptr, bool restart = true,
               bool reset_new_handle = false) const;
};

typedef Acceptor_T<ACE_SOCK_Acceptor, PlainHandler> PlainAcceptor;
typedef Acceptor_T<SSL_Acceptor, SSLHandler> SSLAcceptor;

extern template class Acceptor_T<ACE_SOCK_Acceptor, PlainHandler>;
extern template class Acceptor_T<SSL_Acceptor, SSLHandler>;

}  // namespace Tarnwick
