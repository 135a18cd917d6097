#include <tarnwick/engine.h>
#include <tarnwick/handler.h>
#include <tarnwick/log.h>
#include <tarnwick/message_block.h>

#include <ace/Guard_T.h>
#include <ace/OS_NS_sys_socket.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/Reactor.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <new>

namespace Tarnwick {

namespace {

// The wire header's size.
const size_t HEADER_SIZE = sizeof(Message_Header);

// The high water mark of a connection's output queue, in bytes.
const size_t OUTPUT_QUEUE_LIMIT = 524288;

// The address text for a message; never null.
const char* printable(const char* text) {
    return text != nullptr ? text : "";
}

}  // namespace

uint64_t Handler::Data_Block_Size = 0x20000;

Handler::Handler()
    : m_incoming(nullptr),
      m_outgoing_chunk(nullptr),
      m_bytes_received(0),
      m_bytes_sent(0),
      m_engine(nullptr),
      m_initiated_by_connector(false),
      m_last_activity(ACE_Time_Value::zero),
      m_last_recv_activity(ACE_Time_Value::zero),
      m_refcount(1),
      m_registered(false) {}

Handler::~Handler() {
    if (m_incoming != nullptr) {
        m_incoming->release();
        m_incoming = nullptr;
    }
    if (m_outgoing_chunk != nullptr) {
        m_outgoing_chunk->release();
        m_outgoing_chunk = nullptr;
    }
}

ACE_Reactor* Handler::engineReactor() {
    if (m_engine != nullptr && m_engine->getReactor() != nullptr)
        return m_engine->getReactor();
    return reactor();
}

// ---------------------------------------------------------------------------
// Reference counting, identity, activity

Handler* Handler::duplicate() {
    ACE_Guard<ACE_Mutex> guard(m_refcount_lock);
    if (guard.locked())
        ++m_refcount;
    return this;
}

Handler* Handler::release() {
    int count;
    {
        ACE_Guard<ACE_Mutex> guard(m_refcount_lock);
        if (!guard.locked())
            return this;
        count = --m_refcount;
    }
    if (count == 0) {
        delete this;
        return nullptr;
    }
    return this;
}

const char* Handler::address() {
    if (m_address.empty()) {
        std::string text;
        if (fill_address(text))
            m_address = text;
    }
    return m_address.empty() ? nullptr : m_address.c_str();
}

void Handler::identity(const Identity& identity) {
    ACE_Guard<ACE_Thread_Mutex> guard(m_identity_lock);
    m_identity = identity;
}

bool Handler::isAgent() const {
    return agentID() != 0;
}

uint32_t Handler::agentID() const {
    ACE_Guard<ACE_Thread_Mutex> guard(m_identity_lock);
    return m_identity.type() == Identity::TWAGENT ? m_identity.agentid() : 0;
}

void Handler::enableActivityMonitoring() {
    ACE_Time_Value const now = ACE_OS::gettimeofday();
    if (m_last_activity == ACE_Time_Value::zero)
        m_last_activity = now;
    if (m_last_recv_activity == ACE_Time_Value::zero)
        m_last_recv_activity = now;
}

void Handler::updateTimestamps() {
    if (m_last_activity != ACE_Time_Value::zero)
        m_last_activity = ACE_OS::gettimeofday();
}

void Handler::updateRecvTimestamps() {
    if (m_last_recv_activity != ACE_Time_Value::zero)
        m_last_recv_activity = ACE_OS::gettimeofday();
}

// ---------------------------------------------------------------------------
// Opening and closing

int Handler::open(void*) {
    if (m_engine != nullptr && m_engine->monitoringEnabled())
        enableActivityMonitoring();

    if (address() == nullptr) {
        TW_LOG("%D ERROR (%t): Can not get remote address\n");
        return 0;
    }

    ACE_HANDLE const handle = get_handle();
    int const on = 1;
    if (ACE_OS::setsockopt(handle, SOL_SOCKET, SO_KEEPALIVE, reinterpret_cast<const char*>(&on),
                           sizeof on) == -1)
        return -1;
    struct linger lingering;
    lingering.l_onoff = 1;
    lingering.l_linger = 5;
    if (ACE_OS::setsockopt(handle, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&lingering),
                           sizeof lingering) == -1)
        return -1;
    if (ACE_OS::setsockopt(handle, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on),
                           sizeof on) == -1)
        return -1;

    msg_queue()->high_water_mark(OUTPUT_QUEUE_LIMIT);

    if (m_engine == nullptr)
        return 0;

    ACE_Reactor* reactor = m_engine->getReactor();
    if (reactor == nullptr)
        errno = ENXIO;
    if (reactor == nullptr ||
        reactor->register_handler(
            this, ACE_Event_Handler::READ_MASK | ACE_Event_Handler::WRITE_MASK) == -1) {
        if (errno == EINVAL)
            TW_LOG("%D ERROR (%t): Could not register network handler : too many connections.\n");
        else
            TW_LOG("%D ERROR (%t): Could not register network handler: %m\n");
        return -1;
    }
    m_registered = true;
    return m_engine->register_handler(this) == -1 ? -1 : 0;
}

int Handler::close(u_long) {
    handle_close(ACE_INVALID_HANDLE, ACE_Event_Handler::ALL_EVENTS_MASK);
    return 0;
}

int Handler::handle_close(ACE_HANDLE, ACE_Reactor_Mask) {
    TW_LOG("%D DEBUG (%t): Closing connection (%Q bytes sent, %Q bytes received).\n",
           static_cast<ACE_UINT64>(m_bytes_sent), static_cast<ACE_UINT64>(m_bytes_received));

    msg_queue()->deactivate();

    if (m_registered) {
        if (m_engine != nullptr && m_engine->getReactor() != nullptr)
            m_engine->getReactor()->remove_handler(
                this, ACE_Event_Handler::ALL_EVENTS_MASK | ACE_Event_Handler::DONT_CALL);
        m_registered = false;
    }

    if (get_handle() != ACE_INVALID_HANDLE)
        close_stream();

    if (m_engine == nullptr || m_engine->isClosed())
        return 0;

    // The event handler hears of the disconnect first, under the engine's
    // lock; then the router forgets the connection and drops its reference,
    // which normally ends this object.
    m_engine->remove_handler(this);
    return 0;
}

// ---------------------------------------------------------------------------
// Receiving

int64_t Handler::recv(ACE_Message_Block*& block, const ACE_Time_Value* timeout) {
    if (m_incoming == nullptr) {
        Message_Block* fresh = new (std::nothrow) Message_Block();
        if (fresh == nullptr || fresh->getHeader() == nullptr) {
            if (fresh != nullptr)
                fresh->release();
            errno = ENOMEM;
            return -1;
        }
        m_incoming = fresh;
    }

    // The header, completed behind the bytes of earlier calls.
    int64_t header_read = 0;
    size_t const have = m_incoming->length();
    if (have < HEADER_SIZE) {
        size_t const wanted = HEADER_SIZE - have;
        errno = 0;
        ssize_t const count = recv_bytes(m_incoming->wr_ptr(), wanted, timeout);
        if (count < 1) {
            int const error = errno;
            if (error == EWOULDBLOCK)
                return count;
            if (error != 0 && count != 0)
                TW_LOG("%D ERROR (%t): Receive error while reading message header (%d bytes): %m\n",
                       static_cast<int>(wanted));
            m_incoming->release();
            m_incoming = nullptr;
            errno = error;
            return count;
        }
        m_incoming->wr_ptr(static_cast<size_t>(count));
        header_read = count;
        if (m_incoming->length() < HEADER_SIZE) {
            errno = EWOULDBLOCK;
            TW_LOG("%D INFO  (%t): Partial header received: only %d of %d bytes received\n",
                   static_cast<int>(m_incoming->length()), static_cast<int>(HEADER_SIZE));
            return -1;
        }
    }

    auto* message = dynamic_cast<Message_Block*>(m_incoming);
    Message_Header* header = message != nullptr ? message->getHeader() : nullptr;
    if (header == nullptr)
        return -1;
    header->decode();
    if (!header->isReadable()) {
        errno = EINVAL;
        TW_LOG("%D ERROR (%t): Invalid message header received from %C\n", printable(address()));
        return -1;
    }

    int64_t const remaining =
        static_cast<int64_t>(header->getSize()) - static_cast<int64_t>(message->getLength());
    if (remaining < 0) {
        // More payload than announced: only a payload file that can't be
        // measured any more looks like this.
        if (errno == 0 || errno == EWOULDBLOCK)
            errno = EIO;
        return -1;
    }

    ACE_Message_Block* chunk = new (std::nothrow)
        ACE_Message_Block(static_cast<size_t>(Data_Block_Size), ACE_Message_Block::MB_DATA);
    Message_Block_Guard chunk_guard(chunk);
    if (chunk == nullptr || chunk->base() == nullptr || chunk->size() < Data_Block_Size) {
        errno = ENOMEM;
        return -1;
    }

    ssize_t count = 0;
    if (remaining > 0) {
        size_t const wanted = static_cast<size_t>(
            std::min<uint64_t>(chunk->size(), static_cast<uint64_t>(remaining)));
        errno = 0;
        count = recv_bytes(chunk->wr_ptr(), wanted, timeout);
        if (count == 0 || (count < 0 && errno != EWOULDBLOCK)) {
            // A failure inside a payload ends the message like a close.
            int const error = errno;
            m_incoming->release();
            m_incoming = nullptr;
            errno = error;
            return 0;
        }
        if (count < 0)
            return -1;
        chunk->wr_ptr(static_cast<size_t>(count));
    }

    if (message->write(chunk->rd_ptr(), static_cast<uint64_t>(count)) == -1)
        return -1;

    if (count == remaining) {
        m_incoming->rd_ptr(m_incoming->base());
        block = m_incoming;
        m_incoming = nullptr;
        return count + header_read;
    }
    errno = EWOULDBLOCK;
    return -1;
}

int Handler::handle_input(ACE_HANDLE) {
    ACE_Message_Block* block = nullptr;
    int64_t const result = recv(block, nullptr);
    if (result == -1) {
        if (errno == EWOULDBLOCK)
            return 0;
        TW_LOG("%D ERROR (%t): Peer has failed unexpectedly.\n");
        return -1;
    }
    if (result == 0) {
        TW_LOG("%D DEBUG (%t): Connection closed by peer.\n");
        return -1;
    }

    Message_Block_Guard guard(block);
    const Message_Header* header = static_cast<Message_Block*>(block)->getHeader();
    if (header->isResult())
        m_target_act.remove(header->getACT());
    else
        m_source_act.add(header->getACT());

    if (m_engine != nullptr)
        m_engine->forward(block);
    return 0;
}

// ---------------------------------------------------------------------------
// Sending

int64_t Handler::send(ACE_Message_Block* block, const ACE_Time_Value* timeout) {
    auto* message = dynamic_cast<Message_Block*>(block);
    Message_Header* header = message != nullptr ? message->getHeader() : nullptr;
    if (header == nullptr) {
        errno = EINVAL;
        return -1;
    }
    // Network order afterwards, whatever the order was before.
    header->decode();
    header->encode();

    int64_t result = 0;
    if (block->length() > 0) {
        errno = 0;
        ssize_t const count = send_bytes(block->rd_ptr(), block->length(), timeout);
        if (count < 1)
            return errno == EWOULDBLOCK ? 0 : count;
        block->rd_ptr(static_cast<size_t>(count));
        result = count;
        if (static_cast<size_t>(count) < block->length()) {
            errno = EWOULDBLOCK;
            return 0;
        }
    }

    if (message->getActualLength() != 0) {
        size_t length;
        if (m_outgoing_chunk != nullptr) {
            length = m_outgoing_chunk->length();
        } else {
            ACE_Message_Block* piece = nullptr;
            int64_t const got = message->read(piece);
            if (got < 1) {
                if (piece != nullptr)
                    piece->release();
                return errno == EWOULDBLOCK ? 0 : -1;
            }
            m_outgoing_chunk = piece;
            length = m_outgoing_chunk->length();
        }

        errno = 0;
        ssize_t const count = send_bytes(m_outgoing_chunk->rd_ptr(), length, timeout);
        if (count == 0 || count == -1) {
            if (errno == EWOULDBLOCK)
                return 0;
            int const error = errno;
            m_outgoing_chunk->release();
            m_outgoing_chunk = nullptr;
            errno = error;
            return count;
        }
        if (static_cast<size_t>(count) == length) {
            m_outgoing_chunk->release();
            m_outgoing_chunk = nullptr;
            if (message->getActualLength() != 0) {
                errno = EWOULDBLOCK;
                return 0;
            }
            result += count;
        } else {
            m_outgoing_chunk->rd_ptr(static_cast<size_t>(count));
            errno = EWOULDBLOCK;
            return 0;
        }
    }

    if (block->data_block()->msg_type() == ACE_Message_Block::MB_HANGUP) {
        TW_LOG("%D INFO  (%t): Connection shutdown requested.\n");
        return -1;
    }
    return result;
}

int64_t Handler::nonblk_put(ACE_Message_Block* block) {
    errno = 0;
    int64_t const result = send(block, nullptr);
    if (errno != EWOULDBLOCK) {
        block->release();
        return result;
    }

    ACE_Time_Value zero(ACE_Time_Value::zero);
    if (ungetq(block, &zero) == -1) {
        TW_LOG("%D ERROR (%t): problem while queuing message.\n");
        block->release();
        return -1;
    }
    ACE_Reactor* reactor = engineReactor();
    if (reactor == nullptr || reactor->schedule_wakeup(this, ACE_Event_Handler::WRITE_MASK) == -1) {
        TW_LOG("%D ERROR (%t): problem while scheduling queue reactivation.\n");
        return -1;
    }
    return 0;
}

int Handler::handle_output(ACE_HANDLE) {
    ACE_Reactor* reactor = engineReactor();
    if (reactor == nullptr || reactor->cancel_wakeup(this, ACE_Event_Handler::WRITE_MASK) == -1) {
        TW_LOG("%D ERROR (%t): error while cancelling reactor wakeup: %m\n");
        return -1;
    }
    for (;;) {
        ACE_Message_Block* block = nullptr;
        ACE_Time_Value zero(ACE_Time_Value::zero);
        if (getq(block, &zero) == -1)
            return 0;
        if (nonblk_put(block) == -1)
            return -1;
    }
}

int Handler::forward(ACE_Message_Block* block) {
    if (get_handle() == ACE_INVALID_HANDLE) {
        TW_LOG("%D ERROR (%t): Can not forward: network handle is invalid\n");
        return -1;
    }
    if (block == nullptr) {
        errno = EINVAL;
        return -1;
    }
    ACE_Message_Block* copy = block->duplicate();
    if (copy == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    ACE_Time_Value zero(ACE_Time_Value::zero);
    if (putq(copy, &zero) == -1) {
        copy->release();
        return -1;
    }
    if (get_handle() == ACE_INVALID_HANDLE) {
        TW_LOG("%D ERROR (%t): Can not forward: network handle is invalid\n");
        return -1;
    }
    // Through the process's engine: a connection made outside it has none
    // of its own.
    ACE_Reactor* reactor = Engine::getSingleton()->getReactor();
    if (reactor == nullptr)
        errno = ENXIO;
    if (reactor == nullptr ||
        reactor->register_handler(this, ACE_Event_Handler::WRITE_MASK) == -1) {
        TW_LOG("%D ERROR (%t): Can not register event handler: %m\n");
        return -1;
    }
    return 0;
}

// ---------------------------------------------------------------------------

Sig_Pipe_Guard::Sig_Pipe_Guard() {
    ACE_Sig_Action ignore(reinterpret_cast<ACE_SignalHandler>(SIG_IGN));
    ignore.register_action(SIGPIPE, &m_old);
}

Sig_Pipe_Guard::~Sig_Pipe_Guard() {
    m_old.register_action(SIGPIPE);
}

}  // namespace Tarnwick
