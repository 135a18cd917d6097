// The concrete connection handlers: one over plain TCP, one over SSL.
#pragma once

#include <tarnwick/handler.h>

#include <ace/SOCK_Connector.h>
#include <ace/SOCK_Stream.h>
#include <ace/SSL/SSL_SOCK_Connector.h>
#include <ace/SSL/SSL_SOCK_Stream.h>

namespace Tarnwick {

// A Handler over a stream type and the connector that connects it. The
// instances are PlainHandler and SSLHandler below; everything but the
// stream is Handler's.
template <typename Stream, typename Connector>
class Handler_Implementation : public Handler {
public:
    Handler_Implementation();

    ACE_HANDLE get_handle() const override;
    int connect_to(const ACE_INET_Addr& address, ACE_Synch_Options& options) override;

    // The stream, for an owner that accepts into it.
    Stream& peer() { return m_stream; }
    void acceptHandshake() override;

protected:
    ~Handler_Implementation() override;

    ssize_t send_bytes(const void* buffer, size_t length, const ACE_Time_Value* timeout) override;
    ssize_t recv_bytes(void* buffer, size_t length, const ACE_Time_Value* timeout) override;
    bool fill_address(std::string& text) override;
    void close_stream() override;
    ssize_t send_parts(const iovec* parts, int count) override;
    ssize_t send_file(ACE_HANDLE file, uint64_t offset, size_t length) override;
    ssize_t recv_to_pipe(int pipe, size_t length) override;
    bool directWrites() const override;
    int handshake_step(bool& want_write) override;

private:
    // Counts `count` bytes sent, when positive.
    void sentActivity(ssize_t count);

    Stream m_stream;
};

typedef Handler_Implementation<ACE_SOCK_Stream, ACE_SOCK_Connector> PlainHandler;
typedef Handler_Implementation<ACE_SSL_SOCK_Stream, ACE_SSL_SOCK_Connector> SSLHandler;

extern template class Handler_Implementation<ACE_SOCK_Stream, ACE_SOCK_Connector>;
extern template class Handler_Implementation<ACE_SSL_SOCK_Stream, ACE_SSL_SOCK_Connector>;

}  // namespace Tarnwick
