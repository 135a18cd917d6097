#include <tarnwick/handler_t.h>
#include <tarnwick/log.h>

#include <ace/INET_Addr.h>
#include <ace/OS_NS_sys_time.h>

#include <cerrno>

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
    if (connector.connect(m_stream, address, nullptr, ACE_Addr::sap_any, 0, 0, 0) == -1) {
        TW_LOG_ERRNO("%D ERROR (%t): Active connection failed.");
        return -1;
    }
    if (open(nullptr) == -1) {
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
        // Both timestamps that are on get the one present time.
        ACE_Time_Value const now = ACE_OS::gettimeofday();
        if (m_last_activity != ACE_Time_Value::zero)
            m_last_activity = now;
        if (m_last_recv_activity != ACE_Time_Value::zero)
            m_last_recv_activity = now;
    }
    return count;
}

template <typename Stream, typename Connector>
bool Handler_Implementation<Stream, Connector>::fill_address(std::string& text) {
    ACE_INET_Addr remote;
    if (m_stream.get_remote_addr(remote) == -1)
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

template class Handler_Implementation<ACE_SOCK_Stream, ACE_SOCK_Connector>;
template class Handler_Implementation<ACE_SSL_SOCK_Stream, ACE_SSL_SOCK_Connector>;

}  // namespace Tarnwick
