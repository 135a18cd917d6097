#include <tarnwick/handler.h>
#include <tarnwick/log.h>
#include <tarnwick/message_block.h>

#include <ace/ACE.h>
#include <ace/Flag_Manip.h>
#include <ace/Guard_T.h>
#include <ace/OS_NS_Thread.h>
#include <ace/OS_NS_sys_socket.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/Reactor.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <new>

namespace Tarnwick {

namespace {

// The wire header's size.
const size_t HEADER_SIZE = sizeof(Message_Header);

// The high water mark of a connection's output queue, in bytes.
const size_t OUTPUT_QUEUE_LIMIT = 524288;

// How often a connection whose peer has half-closed looks whether it still
// owes replies.
const ACE_Time_Value HALF_CLOSE_POLL(0, 50000);

// The address text for a message; never null.
const char* printable(const char* text) {
    return text != nullptr ? text : "";
}

// True on the thread that runs `reactor`'s event loop, or when nobody owns it.
bool onReactorThread(ACE_Reactor* reactor) {
    ACE_thread_t owner;
    if (reactor->owner(&owner) == -1)
        return true;
    return ACE_OS::thr_equal(owner, ACE_Thread::self()) != 0;
}

// Carries a close request of another thread to the reactor's thread through
// its notification queue, which holds a reference to the request; the
// request holds one to the connection, so that it can't go meanwhile.
class CloseRequest : public ACE_Event_Handler {
public:
    explicit CloseRequest(Handler* handler) : m_handler(handler->duplicate()), m_references(1) {
        reference_counting_policy().value(ACE_Event_Handler::Reference_Counting_Policy::ENABLED);
    }

    // The asking thread and the reactor's thread each drop a reference, and
    // whichever is last deletes the request. The count lives here rather
    // than in the ACE library so that the two threads are ordered in code
    // that the thread sanitizer sees, not only in code it can't.
    Reference_Count add_reference() override {
        return m_references.fetch_add(1, std::memory_order_relaxed) + 1;
    }
    Reference_Count remove_reference() override {
        Reference_Count const left = m_references.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (left == 0)
            delete this;
        return left;
    }

    int handle_exception(ACE_HANDLE) override {
        m_handler->close(0);
        return 0;
    }

protected:
    ~CloseRequest() override { m_handler->release(); }

private:
    Handler* m_handler;
    std::atomic<Reference_Count> m_references;
};

}  // namespace

uint64_t& Handler::Data_Block_Size = Message_Block::Chunk_Size;
Connection_Owner* (*Handler::s_default_owner)() = nullptr;

Connection_Owner::~Connection_Owner() = default;

void Handler::setDefaultOwner(Connection_Owner* (*owner)()) {
    s_default_owner = owner;
}
std::atomic<uint64_t> Handler::Output_Disk_Limit(0x4000000ull);
ACE_Time_Value Handler::Handshake_Limit(5);
ACE_Time_Value Handler::Half_Close_Limit(60);
ACE_Time_Value Handler::Output_Stall_Limit(30);

Handler::Handler()
    : m_writer(),
      m_writing(nullptr),
      m_bytes_received(0),
      m_bytes_sent(0),
      m_engine(nullptr),
      m_owner(nullptr),
      m_initiated_by_connector(false),
      m_last_activity(ACE_Time_Value::zero),
      m_last_recv_activity(ACE_Time_Value::zero),
      m_refcount(1),
      m_registered(false),
      m_handshaking(false),
      m_in_router(false),
      m_closed(false),
      m_recv_buffer_size(0),
      m_ahead_begin(0),
      m_ahead_end(0),
      m_socket_reads(0),
      m_last_read_full(false),
      m_coalesced(),
      m_coalesced_begin(0),
      m_coalesced_end(0),
      m_partial_logged(false),
      m_peer_closed(false),
      m_timer(-1),
      m_queued_disk_bytes(0),
      m_socket_full(false),
      m_blocked_since(0),
      m_overflow_reported(false),
      m_pipe{-1, -1},
      m_pipe_size(0),
      m_copy_sent(false),
      m_copy_received(false) {}

Handler::~Handler() {
    closePipe();
}

Handler::Sendfile_Call Handler::File_To_Socket = &::sendfile;
Message_Block::Splice_Call Handler::Socket_To_Pipe = &::splice;

ssize_t Handler::send_parts(const iovec* parts, int count) {
    for (int i = 0; i < count; ++i) {
        if (parts[i].iov_len > 0)
            return send_bytes(parts[i].iov_base, parts[i].iov_len, nullptr);
    }
    return 0;
}

ssize_t Handler::send_file(ACE_HANDLE, uint64_t, size_t) {
    errno = ENOSYS;
    return -1;
}

ssize_t Handler::recv_to_pipe(int, size_t) {
    errno = ENOSYS;
    return -1;
}

bool Handler::openPipe() {
    if (m_pipe[0] != -1)
        return true;
    if (::pipe2(m_pipe, O_CLOEXEC | O_NONBLOCK) == -1) {
        m_pipe[0] = m_pipe[1] = -1;
        return false;
    }
    // A larger pipe moves more per system call; the default serves too.
    int const wanted = 1 << 20;
    if (::fcntl(m_pipe[1], F_SETPIPE_SZ, wanted) == -1)
        ::fcntl(m_pipe[1], F_SETPIPE_SZ, 256 << 10);
    int const size = ::fcntl(m_pipe[1], F_GETPIPE_SZ);
    m_pipe_size = size > 0 ? static_cast<size_t>(size) : 65536;
    return true;
}

void Handler::closePipe() {
    for (int& end : m_pipe) {
        if (end != -1)
            ::close(end);
        end = -1;
    }
    m_pipe_size = 0;
}

ACE_Reactor* Handler::engineReactor() {
    if (m_engine != nullptr && m_owner->getReactor() != nullptr)
        return m_owner->getReactor();
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
    // Writes may happen on any thread (forward); the stamp is taken once.
    std::lock_guard<std::mutex> guard(m_activity_lock);
    if (m_last_activity != ACE_Time_Value::zero)
        m_last_activity = ACE_OS::gettimeofday();
}

void Handler::stampReceived() {
    std::lock_guard<std::mutex> guard(m_activity_lock);
    if (m_last_activity == ACE_Time_Value::zero && m_last_recv_activity == ACE_Time_Value::zero)
        return;
    // Both timestamps that are on get the one present time.
    ACE_Time_Value const now = ACE_OS::gettimeofday();
    if (m_last_activity != ACE_Time_Value::zero)
        m_last_activity = now;
    if (m_last_recv_activity != ACE_Time_Value::zero)
        m_last_recv_activity = now;
}

void Handler::updateRecvTimestamps() {
    if (m_last_recv_activity != ACE_Time_Value::zero)
        m_last_recv_activity = ACE_OS::gettimeofday();
}

// ---------------------------------------------------------------------------
// Opening and closing

int Handler::open(void*) {
    if (m_engine != nullptr && m_owner->monitoringEnabled())
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

    // The reactor serves many peers on one thread: no read or write may wait
    // for one of them.
    if (ACE::set_flags(handle, ACE_NONBLOCK) == -1)
        return -1;

    ACE_Reactor* reactor = m_owner->getReactor();
    if (reactor == nullptr)
        errno = ENXIO;
    // A connection in its handshake waits for the peer's bytes only; what is
    // queued for it meanwhile goes out once it has joined.
    ACE_Reactor_Mask const mask =
        m_handshaking ? ACE_Event_Handler::READ_MASK
                      : ACE_Event_Handler::READ_MASK | ACE_Event_Handler::WRITE_MASK;
    if (reactor == nullptr || reactor->register_handler(this, mask) == -1) {
        if (errno == EINVAL)
            TW_LOG("%D ERROR (%t): Could not register network handler : too many connections.\n");
        else
            TW_LOG("%D ERROR (%t): Could not register network handler: %m\n");
        return -1;
    }
    m_registered = true;
    if (m_handshaking) {
        m_timer = reactor->schedule_timer(this, nullptr, Handshake_Limit);
        return m_timer == -1 ? -1 : 0;
    }
    return join();
}

int Handler::join() {
    if (m_engine == nullptr)
        return 0;
    return m_owner->register_handler(this) == -1 ? -1 : 0;
}

int Handler::handshake_step(bool&) {
    return 1;
}

int Handler::continueHandshake() {
    ACE_Reactor* const reactor = engineReactor();
    bool want_write = false;
    int const step = handshake_step(want_write);
    if (step == 0 && reactor != nullptr) {
        if (want_write)
            reactor->schedule_wakeup(this, ACE_Event_Handler::WRITE_MASK);
        else
            reactor->cancel_wakeup(this, ACE_Event_Handler::WRITE_MASK);
        return 0;
    }
    if (step == 1 && reactor != nullptr) {
        m_handshaking = false;
        if (m_timer != -1) {
            reactor->cancel_timer(m_timer);
            m_timer = -1;
        }
        if (reactor->schedule_wakeup(this, ACE_Event_Handler::WRITE_MASK) != -1 && join() == 0) {
            TW_LOG("%D DEBUG (%t): Incoming connection from %C\n", printable(address()));
            return 0;
        }
    }
    // As a failed accept: the connection goes first, then the reason.
    int const error = errno;
    handle_close(ACE_INVALID_HANDLE, ACE_Event_Handler::ALL_EVENTS_MASK);
    errno = error;
    TW_LOG("%D ERROR (%t): Incoming connection failed: %m\n");
    return 0;
}

int Handler::close(u_long) {
    ACE_Reactor* const reactor = m_registered ? engineReactor() : nullptr;
    if (reactor != nullptr && !onReactorThread(reactor)) {
        requestClose();
        return 0;
    }
    handle_close(ACE_INVALID_HANDLE, ACE_Event_Handler::ALL_EVENTS_MASK);
    return 0;
}

void Handler::requestClose() {
    ACE_Reactor* const reactor = engineReactor();
    CloseRequest* const request = new (std::nothrow) CloseRequest(this);
    if (reactor == nullptr || request == nullptr) {
        if (request != nullptr)
            request->remove_reference();
        TW_LOG("%D ERROR (%t): Can not ask the reactor to close a connection: %m\n");
        return;
    }
    // A full notification pipe waits for the reactor to take from it.
    if (reactor->notify(request, ACE_Event_Handler::EXCEPT_MASK) == -1)
        TW_LOG("%D ERROR (%t): Can not ask the reactor to close a connection: %m\n");
    request->remove_reference();
}

int Handler::handle_close(ACE_HANDLE, ACE_Reactor_Mask) {
    if (m_closed.exchange(true))
        return 0;
    // A write of another thread (forward) finishes before the stream goes.
    std::unique_lock<std::recursive_mutex> writing(m_write_lock);
    TW_LOG("%D DEBUG (%t): Closing connection (%Q bytes sent, %Q bytes received).\n",
           static_cast<ACE_UINT64>(m_bytes_sent), static_cast<ACE_UINT64>(m_bytes_received));

    msg_queue()->deactivate();
    m_queued_disk_bytes = 0;

    ACE_Reactor* const reactor = m_engine != nullptr ? m_owner->getReactor()
                                 : m_registered      ? this->reactor()
                                                     : nullptr;
    if (m_timer != -1) {
        if (reactor != nullptr)
            reactor->cancel_timer(m_timer);
        m_timer = -1;
    }
    if (m_registered) {
        if (reactor != nullptr)
            reactor->remove_handler(
                this, ACE_Event_Handler::ALL_EVENTS_MASK | ACE_Event_Handler::DONT_CALL);
        m_registered = false;
    }

    if (get_handle() != ACE_INVALID_HANDLE) {
        // A lingering close waits in close(2) while the peer doesn't take
        // the last bytes; on the reactor's thread that would hold up every
        // peer. Without lingering the kernel still delivers them, in the
        // background; a peer dropped for not reading gets a reset instead.
        if (m_engine != nullptr) {
            struct linger lingering;
            lingering.l_onoff = m_overflow_reported ? 1 : 0;
            lingering.l_linger = 0;
            ACE_OS::setsockopt(get_handle(), SOL_SOCKET, SO_LINGER,
                               reinterpret_cast<const char*>(&lingering), sizeof lingering);
        }
        close_stream();
    }
    closePipe();
    writing.unlock();

    if (m_engine == nullptr)
        return 0;

    // The event handler hears of the disconnect first, under the engine's
    // lock; then the router forgets the connection and drops its reference,
    // which normally ends this object. A connection that never reached the
    // router still holds its first reference, which goes here.
    bool const routed = m_in_router;
    if (!m_owner->isClosed())
        m_owner->remove_handler(this);
    else if (routed)
        return 0;
    if (!routed)
        release();
    return 0;
}

int Handler::handle_timeout(const ACE_Time_Value& now, const void*) {
    if (m_handshaking) {
        m_timer = -1;
        handle_close(ACE_INVALID_HANDLE, ACE_Event_Handler::ALL_EVENTS_MASK);
        errno = ETIME;
        TW_LOG("%D ERROR (%t): Incoming connection failed: %m\n");
        return 0;
    }
    if (m_peer_closed && (drained() || now >= m_half_close_deadline))
        handle_close(ACE_INVALID_HANDLE, ACE_Event_Handler::ALL_EVENTS_MASK);
    return 0;
}

bool Handler::drained() {
    std::lock_guard<std::recursive_mutex> guard(m_write_lock);
    return msg_queue()->is_empty() && m_writer == nullptr && m_coalesced_begin == m_coalesced_end &&
           m_source_act.size() == 0;
}

uint64_t Handler::diskBytes(ACE_Message_Block* block) {
    if (block == nullptr || (block->self_flags() & Message_Block::MESSAGE_BLOCK_FLAG) == 0)
        return 0;
    // The size kept by the data block: no lock and no system call on the
    // way of every queued message.
    return static_cast<Message_Block*>(block)->getDiskLength();
}

// ---------------------------------------------------------------------------
// Receiving

int64_t Handler::recv(ACE_Message_Block*& block, const ACE_Time_Value* timeout) {
    return receive(block, timeout, true);
}

int64_t Handler::receive(ACE_Message_Block*& block, const ACE_Time_Value* timeout,
                         bool read_socket) {
    // One buffer of one chunk for all receives. It reads ahead: one receive
    // may bring many small messages, which later calls take from the buffer
    // without a system call. It is remade (bigger) only while it holds
    // nothing.
    size_t const size = std::max(static_cast<size_t>(Data_Block_Size), HEADER_SIZE);
    if (m_recv_buffer == nullptr || (m_recv_buffer_size < size && !readAhead())) {
        m_recv_buffer.reset(new (std::nothrow) char[size]);
        m_recv_buffer_size = m_recv_buffer != nullptr ? size : 0;
        m_ahead_begin = m_ahead_end = 0;
        if (m_recv_buffer == nullptr) {
            errno = ENOMEM;
            return -1;
        }
    }
    char* const buffer = m_recv_buffer.get();

    // Bytes of this message taken in this call.
    int64_t taken = 0;
    if (readAhead()) {
        int const status = feedReadAhead(taken);
        if (status == 1) {
            block = m_reader.take();
            return taken;
        }
        if (status == -1)
            return refused();
    } else if (m_reader.headerComplete()) {
        // A header found bad before stays bad.
        size_t used = 0;
        if (m_reader.feed(buffer, 0, used) == -1)
            return refused();
    }
    if (!read_socket) {
        errno = EWOULDBLOCK;
        return -1;
    }

    // The payload of a message that goes to a spill file anyway is moved
    // from the socket into the file through a pipe: the bytes don't cross
    // user space.
    // (Without a time limit only: splice can't wait for one.)
    if (!m_copy_received && timeout == nullptr && m_reader.spilling()) {
        int const status = receiveSpliced(block, taken);
        if (status == 1)
            return taken;
        if (status != 2)
            return status;
    }

    bool const in_header = !m_reader.headerComplete();
    size_t const wanted = m_reader.wanted();
    // Every attempt counts, also one that finds nothing (an SSL record not
    // yet whole), so that a readiness event reads a bounded number of times.
    ++m_socket_reads;
    errno = 0;
    ssize_t const count = recv_bytes(buffer, m_recv_buffer_size, timeout);
    if (count < 1) {
        int const error = errno;
        m_last_read_full = false;
        if (count < 0 && error == EWOULDBLOCK)
            return -1;
        if (in_header) {
            if (error != 0 && count != 0)
                TW_LOG("%D ERROR (%t): Receive error while reading message header (%d bytes): %m\n",
                       static_cast<int>(wanted));
            m_reader.reset();
            errno = error;
            return count;
        }
        // A failure inside a payload ends the message like a close.
        m_reader.reset();
        errno = error;
        return 0;
    }
    m_ahead_begin = 0;
    m_ahead_end = static_cast<size_t>(count);
    m_last_read_full = m_ahead_end == m_recv_buffer_size;
    int const status = feedReadAhead(taken);
    if (status == 1) {
        block = m_reader.take();
        return taken;
    }
    if (status == -1)
        return refused();
    // Once per message: a peer that sends its header a byte at a time
    // doesn't get to write a line per byte into our log. A header cut by
    // the end of a full buffer is no sign of that.
    if (!m_reader.headerComplete() && !m_partial_logged && !m_last_read_full) {
        m_partial_logged = true;
        TW_LOG("%D INFO  (%t): Partial header received: only %d of %d bytes received\n",
               static_cast<int>(m_reader.headerBytes()), static_cast<int>(HEADER_SIZE));
    }
    errno = EWOULDBLOCK;
    return -1;
}

int Handler::receiveSpliced(ACE_Message_Block*& block, int64_t& taken) {
    if (!openPipe())
        return 2;
    size_t const ask =
        static_cast<size_t>(std::min<uint64_t>(m_reader.payloadWanted(), m_pipe_size));
    errno = 0;
    ssize_t const count = recv_to_pipe(m_pipe[1], ask);
    if (count < 1) {
        int const error = errno;
        m_last_read_full = false;
        if (count < 0 && (error == EINVAL || error == ENOSYS)) {
            m_copy_received = true;
            return 2;
        }
        ++m_socket_reads;
        if (count < 0 && error == EWOULDBLOCK)
            return -1;
        // A failure inside a payload ends the message like a close.
        m_reader.reset();
        errno = error;
        return 0;
    }
    ++m_socket_reads;
    m_last_read_full = static_cast<size_t>(count) == ask;
    int const status = m_reader.feedFromPipe(m_pipe[0], static_cast<size_t>(count));
    if (status == -1) {
        // Bytes may be left in the pipe: a new one serves a next message.
        int const error = errno;
        closePipe();
        errno = error;
        return static_cast<int>(refused());
    }
    taken += count;
    if (status == 1) {
        // The pipe goes with the message: a connection holds no descriptors
        // beyond its socket between large payloads.
        closePipe();
        block = m_reader.take();
        return 1;
    }
    errno = EWOULDBLOCK;
    return -1;
}

int Handler::feedReadAhead(int64_t& taken) {
    if (m_reader.headerBytes() == 0)
        m_partial_logged = false;
    size_t used = 0;
    int const status =
        m_reader.feed(m_recv_buffer.get() + m_ahead_begin, m_ahead_end - m_ahead_begin, used);
    m_ahead_begin += used;
    taken += static_cast<int64_t>(used);
    if (m_ahead_begin == m_ahead_end)
        m_ahead_begin = m_ahead_end = 0;
    return status;
}

int64_t Handler::refused() {
    int const error = errno;
    if (error == EINVAL) {
        TW_LOG("%D ERROR (%t): Invalid message header received from %C\n", printable(address()));
    } else if (error == EMSGSIZE) {
        const Message_Header* const header = m_reader.partial()->getHeader();
        TW_LOG("%D ERROR (%t): Message of %u bytes from %C is larger than the limit of %Q bytes\n",
               static_cast<unsigned>(header->getSize()), printable(address()),
               static_cast<ACE_UINT64>(Message_Reader::maxMessageSize()));
    }
    errno = error;
    return -1;
}

int Handler::handle_input(ACE_HANDLE) {
    if (m_handshaking)
        return continueHandshake();
    if (m_peer_closed)
        return 0;

    // Every whole message that a read brought is taken now (bytes already
    // read are no readiness event). A read that filled the buffer is
    // followed by another, up to Reads_Per_Input reads, so that a large
    // payload doesn't cost a reactor pass per chunk; then the other
    // connections have their turn.
    uint64_t const reads_before = m_socket_reads;
    for (;;) {
        uint64_t const reads = m_socket_reads - reads_before;
        bool const may_read = reads == 0 || (m_last_read_full && reads < Reads_Per_Input);
        if (!may_read && !readAhead())
            return 0;
        ACE_Message_Block* block = nullptr;
        int64_t const result = receive(block, nullptr, may_read);
        if (result == -1) {
            if (errno == EWOULDBLOCK)
                continue;
            TW_LOG("%D ERROR (%t): Peer has failed unexpectedly.\n");
            return -1;
        }
        if (result == 0) {
            TW_LOG("%D DEBUG (%t): Connection closed by peer.\n");
            return halfClosed();
        }

        Message_Block_Guard guard(block);
        const Message_Header* header = static_cast<Message_Block*>(block)->getHeader();
        if (header->isResult())
            m_target_act.remove(header->getACT());
        else
            m_source_act.add(header->getACT());

        if (m_engine != nullptr)
            m_owner->forward(block);
        if (m_closed || m_peer_closed)
            return 0;
    }
}

int Handler::halfClosed() {
    // A peer may close its sending side right after its last request and
    // still wait for the replies: the connection stays until it owes none,
    // or until the time limit.
    ACE_Reactor* const reactor = m_registered ? engineReactor() : nullptr;
    if (reactor == nullptr || drained())
        return -1;
    m_peer_closed = true;
    m_half_close_deadline = ACE_OS::gettimeofday() + Half_Close_Limit;
    if (reactor->cancel_wakeup(this, ACE_Event_Handler::READ_MASK) == -1)
        return -1;
    m_timer = reactor->schedule_timer(this, nullptr, HALF_CLOSE_POLL, HALF_CLOSE_POLL);
    return m_timer == -1 ? -1 : 0;
}

// ---------------------------------------------------------------------------
// Sending

int64_t Handler::send(ACE_Message_Block* block, const ACE_Time_Value* timeout) {
    auto* message = dynamic_cast<Message_Block*>(block);
    if (message == nullptr || message->getHeader() == nullptr) {
        errno = EINVAL;
        return -1;
    }
    size_t const offset = static_cast<size_t>(block->rd_ptr() - block->base());
    if (block->length() > 0 && offset + block->length() > HEADER_SIZE) {
        errno = EINVAL;
        return -1;
    }
    // The codec's writer gives out the bytes: the header in network order
    // from its own copy (the block's header may be read by other threads
    // meanwhile), then the payload one chunk at a time. A writer lives from
    // the first byte of a message to its last; the block's read pointer
    // keeps telling how much of the header is out, as callers expect.
    if (m_writer == nullptr || m_writing != block) {
        m_writer.reset(new (std::nothrow) Message_Writer(block));
        if (m_writer == nullptr) {
            errno = ENOMEM;
            return -1;
        }
        m_writing = block;
        m_writer->advance(block->length() > 0 ? offset : HEADER_SIZE);
    }

    int64_t result = 0;
    if (block->length() > 0) {
        // The rest of the header, and behind it the first payload chunk of
        // a payload in memory: one write (writev) where the stream allows,
        // so that a small message leaves in one segment.
        const char* head = nullptr;
        size_t head_length = 0;
        const char* chunk = nullptr;
        size_t chunk_length = 0;
        if (m_writer->nextWithHeader(head, head_length, chunk, chunk_length) != 1) {
            endWrite();
            errno = EINVAL;
            return -1;
        }
        iovec parts[2];
        parts[0].iov_base = const_cast<char*>(head);
        parts[0].iov_len = std::min(head_length, block->length());
        parts[1].iov_base = const_cast<char*>(chunk);
        parts[1].iov_len = parts[0].iov_len == head_length ? chunk_length : 0;
        errno = 0;
        ssize_t const count = send_parts(parts, parts[1].iov_len > 0 ? 2 : 1);
        if (count < 1) {
            if (errno != EWOULDBLOCK) {
                int const error = errno;
                endWrite();
                errno = error;
                return count;
            }
            m_socket_full = true;
            return 0;
        }
        size_t const header_part = std::min(static_cast<size_t>(count), parts[0].iov_len);
        m_writer->advance(static_cast<size_t>(count));
        block->rd_ptr(header_part);
        result = count;
        // Header bytes left over: the payload must not overtake them.
        if (block->length() > 0) {
            m_socket_full = true;
            errno = EWOULDBLOCK;
            return 0;
        }
        if (static_cast<size_t>(count) > header_part) {
            // Payload went with the header: on with the rest of it, if any.
            if (static_cast<size_t>(count) - header_part < parts[1].iov_len) {
                m_socket_full = true;
                errno = EWOULDBLOCK;
                return 0;
            }
            const char* data = nullptr;
            size_t length = 0;
            int const status = m_writer->next(data, length);
            if (status == 1 || (status == -1 && errno == EWOULDBLOCK)) {
                errno = EWOULDBLOCK;
                return 0;
            }
            endWrite();
            if (status == -1)
                return -1;
            return finished(block, result);
        }
    }
    return sendPayload(block, result, timeout);
}

int64_t Handler::finished(ACE_Message_Block* block, int64_t result) {
    if (block->data_block()->msg_type() == ACE_Message_Block::MB_HANGUP) {
        TW_LOG("%D INFO  (%t): Connection shutdown requested.\n");
        return -1;
    }
    return result;
}

int64_t Handler::sendPayload(ACE_Message_Block* block, int64_t result,
                             const ACE_Time_Value* timeout) {
    // A spilled payload goes from its file to the socket by sendfile, as
    // much as the socket takes, where the stream and the file allow it.
    ACE_HANDLE file = ACE_INVALID_HANDLE;
    uint64_t offset = 0;
    uint64_t left = 0;
    // (Without a time limit only: sendfile can't wait for one.)
    if (!m_copy_sent && timeout == nullptr && m_writer->spilledRange(file, offset, left)) {
        size_t const ask = static_cast<size_t>(std::min<uint64_t>(left, Sendfile_Limit));
        errno = 0;
        ssize_t const count = send_file(file, offset, ask);
        if (count > 0) {
            m_writer->advanceSpilled(static_cast<uint64_t>(count));
            result += count;
            if (static_cast<uint64_t>(count) < left) {
                if (static_cast<size_t>(count) < ask)
                    m_socket_full = true;
                errno = EWOULDBLOCK;
                return 0;
            }
            endWrite();
            return finished(block, result);
        }
        int const error = errno;
        if (count < 0 && (error == EINVAL || error == ENOSYS)) {
            m_copy_sent = true;
        } else if (count < 0 && error == EWOULDBLOCK) {
            m_socket_full = true;
            return 0;
        } else {
            // The file ended before its size (0), or the socket failed.
            endWrite();
            errno = count == 0 ? EIO : error;
            return -1;
        }
    }

    // One chunk of payload per call, so that one large message doesn't keep
    // the reactor from the other connections.
    const char* data = nullptr;
    size_t length = 0;
    int status = m_writer->next(data, length);
    if (status == -1 && errno == EWOULDBLOCK)
        return 0;
    if (status == 1) {
        errno = 0;
        ssize_t const count = send_bytes(data, length, timeout);
        if (count == 0 || count == -1) {
            if (errno == EWOULDBLOCK) {
                m_socket_full = true;
                return 0;
            }
            int const error = errno;
            endWrite();
            errno = error;
            return count;
        }
        m_writer->advance(static_cast<size_t>(count));
        if (static_cast<size_t>(count) < length) {
            m_socket_full = true;
            errno = EWOULDBLOCK;
            return 0;
        }
        status = m_writer->next(data, length);
        if (status == 1 || (status == -1 && errno == EWOULDBLOCK)) {
            errno = EWOULDBLOCK;
            return 0;
        }
        if (status == 0)
            result += count;
    }
    endWrite();
    if (status == -1)
        return -1;
    return finished(block, result);
}

void Handler::endWrite() {
    m_writer.reset();
    m_writing = nullptr;
}

int64_t Handler::nonblk_put(ACE_Message_Block* block) {
    errno = 0;
    int64_t const result = send(block, nullptr);
    if (errno != EWOULDBLOCK) {
        uint64_t const disk = diskBytes(block);
        if (disk > 0)
            m_queued_disk_bytes -= std::min<uint64_t>(disk, m_queued_disk_bytes);
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
    if (m_handshaking)
        return continueHandshake();
    ACE_Reactor* reactor = engineReactor();
    if (reactor == nullptr || reactor->cancel_wakeup(this, ACE_Event_Handler::WRITE_MASK) == -1) {
        TW_LOG("%D ERROR (%t): error while cancelling reactor wakeup: %m\n");
        return -1;
    }
    // A thread in forward() may be writing; it never waits for the reactor
    // while it holds the lock.
    std::lock_guard<std::recursive_mutex> writing(m_write_lock);
    for (;;) {
        m_socket_full = false;
        uint64_t const sent_before = m_bytes_sent;
        // Small whole messages at the head of the queue go out together, in
        // one write; the bytes on the wire are the same, message after
        // message. Anything else goes out by send(), chunk by chunk.
        if (m_coalesced_begin == m_coalesced_end && m_writer == nullptr)
            gatherSmallMessages();
        if (m_coalesced_begin < m_coalesced_end) {
            if (sendCoalesced() == -1)
                return -1;
        } else {
            ACE_Message_Block* block = nullptr;
            ACE_Time_Value zero(ACE_Time_Value::zero);
            if (getq(block, &zero) == -1)
                return m_peer_closed && drained() ? -1 : 0;
            if (nonblk_put(block) == -1)
                return -1;
        }
        if (m_bytes_sent != sent_before)
            m_blocked_since = 0;
        // The socket takes no more for now: its write wake-up comes back
        // when it does, and the reactor serves the other peers meanwhile.
        if (m_socket_full) {
            if (m_blocked_since == 0)
                m_blocked_since = static_cast<int64_t>(ACE_OS::gettimeofday().msec());
            return 0;
        }
    }
}

void Handler::gatherSmallMessages() {
    if (m_coalesced == nullptr) {
        m_coalesced.reset(new (std::nothrow) char[Coalesce_Size]);
        if (m_coalesced == nullptr)
            return;  // each message goes out on its own
    }
    ACE_Time_Value zero(ACE_Time_Value::zero);
    size_t end = 0;
    for (;;) {
        ACE_Message_Block* head = nullptr;
        if (msg_queue()->peek_dequeue_head(head, &zero) == -1)
            break;
        // Only a message that is wholly in memory, not begun and not the
        // closing one; the first of any other kind ends the batch.
        auto* const message = dynamic_cast<Message_Block*>(head);
        if (message == nullptr || message->getHeader() == nullptr ||
            head->rd_ptr() != head->base() || head->length() != HEADER_SIZE ||
            head->data_block()->msg_type() != ACE_Message_Block::MB_DATA ||
            message->isStoredOnDisk())
            break;
        uint64_t const payload = message->getHeader()->getSize();
        if (payload > Coalesce_Size - HEADER_SIZE || end + HEADER_SIZE + payload > Coalesce_Size)
            break;
        Message_Writer writer(head);
        size_t at = end;
        const char* data = nullptr;
        size_t length = 0;
        int status;
        while ((status = writer.next(data, length)) == 1 && length <= Coalesce_Size - at) {
            std::memcpy(m_coalesced.get() + at, data, length);
            at += length;
            writer.advance(length);
        }
        if (status != 0 || at - end != HEADER_SIZE + payload)
            break;  // not as announced: send() deals with it on its own
        end = at;
        ACE_Message_Block* taken = nullptr;
        if (getq(taken, &zero) == -1 || taken != head) {
            // Nothing but this reactor thread takes from the queue.
            if (taken != nullptr)
                ungetq(taken, &zero);
            end -= HEADER_SIZE + static_cast<size_t>(payload);
            break;
        }
        taken->release();
    }
    m_coalesced_begin = 0;
    m_coalesced_end = end;
}

int Handler::sendCoalesced() {
    errno = 0;
    ssize_t const count = send_bytes(m_coalesced.get() + m_coalesced_begin,
                                     m_coalesced_end - m_coalesced_begin, nullptr);
    if (count < 1 && !(count < 0 && errno == EWOULDBLOCK))
        return -1;
    if (count > 0)
        m_coalesced_begin += static_cast<size_t>(count);
    if (m_coalesced_begin == m_coalesced_end) {
        m_coalesced_begin = m_coalesced_end = 0;
        return 0;
    }
    // The rest waits for the socket's write wake-up.
    m_socket_full = true;
    ACE_Reactor* reactor = engineReactor();
    if (reactor == nullptr || reactor->schedule_wakeup(this, ACE_Event_Handler::WRITE_MASK) == -1) {
        TW_LOG("%D ERROR (%t): problem while scheduling queue reactivation.\n");
        return -1;
    }
    return 0;
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
    // Spilled payload counts against its own limit; a queue that holds none
    // takes a message of any size.
    uint64_t const disk = diskBytes(block);
    uint64_t const queued = m_queued_disk_bytes;
    if (disk > 0 && queued > 0 && queued + disk > Output_Disk_Limit) {
        errno = EWOULDBLOCK;
        overflow();
        return -1;
    }
    // Straight to the socket when nothing waits before this message.
    int const direct = writeNow(block, disk);
    if (direct == 1)
        return 0;
    if (direct == -1)
        return -1;
    if (direct == 0) {
        ACE_Message_Block* copy = block->duplicate();
        if (copy == nullptr) {
            errno = ENOMEM;
            return -1;
        }
        if (queue(copy, disk) == -1)
            return -1;
    }
    if (get_handle() == ACE_INVALID_HANDLE) {
        TW_LOG("%D ERROR (%t): Can not forward: network handle is invalid\n");
        return -1;
    }
    return wakeForOutput();
}

int Handler::queue(ACE_Message_Block* copy, uint64_t disk) {
    if (disk > 0)
        m_queued_disk_bytes += disk;
    ACE_Time_Value zero(ACE_Time_Value::zero);
    if (putq(copy, &zero) == -1) {
        int const error = errno;
        if (disk > 0)
            m_queued_disk_bytes -= std::min<uint64_t>(disk, m_queued_disk_bytes);
        copy->release();
        if (error == EWOULDBLOCK)
            overflow();
        errno = error;
        return -1;
    }
    return 0;
}

int Handler::wakeForOutput() {
    // Through the connection's own engine. A connection made by hand outside
    // any engine has none, and is woken by the process's engine.
    Connection_Owner* const owner =
        m_owner != nullptr ? m_owner : (s_default_owner != nullptr ? s_default_owner() : nullptr);
    ACE_Reactor* reactor = owner != nullptr ? owner->getReactor() : nullptr;
    if (reactor == nullptr)
        errno = ENXIO;
    if (reactor == nullptr ||
        reactor->register_handler(this, ACE_Event_Handler::WRITE_MASK) == -1) {
        TW_LOG("%D ERROR (%t): Can not register event handler: %m\n");
        return -1;
    }
    return 0;
}

namespace {

// A message whose payload lies in memory in at most one piece behind a
// header that no write has begun; its payload, or null.
bool smallInMemory(ACE_Message_Block* block, ACE_Message_Block*& payload) {
    ACE_Data_Block* const data = block->data_block();
    if (block->length() != HEADER_SIZE || data == nullptr ||
        (data->flags() & Data_Block::DATA_BLOCK_FLAG) == 0 ||
        static_cast<Data_Block*>(data)->isStoredOnDisk())
        return false;
    payload = block->cont();
    return payload == nullptr || payload->cont() == nullptr;
}

}  // namespace

int Handler::writeSmall(ACE_Message_Block* block, ACE_Message_Block*& copy) {
    // The header (encoded into a copy: the block's own stays as it is) and
    // the payload in one writev, straight from the caller's block. Only
    // when the socket takes part of it does the rest need a reference and
    // a writer of its own, set up as send() leaves them after such a write.
    ACE_Message_Block* payload = nullptr;
    auto* const message = static_cast<Message_Block*>(block);
    if (!smallInMemory(block, payload) || message->getHeader() == nullptr)
        return 0;
    char head[HEADER_SIZE];
    Message_Writer::EncodeHeader(message->getHeader(), head);
    size_t const payload_length = payload != nullptr ? payload->length() : 0;
    iovec parts[2];
    parts[0].iov_base = head;
    parts[0].iov_len = HEADER_SIZE;
    parts[1].iov_base = payload_length > 0 ? payload->rd_ptr() : nullptr;
    parts[1].iov_len = payload_length;
    errno = 0;
    ssize_t const count = send_parts(parts, payload_length > 0 ? 2 : 1);
    // Nothing written (or a failure): send() tries again and tells.
    if (count < 1)
        return 0;
    if (static_cast<size_t>(count) == HEADER_SIZE + payload_length)
        return 1;
    copy = block->duplicate();
    m_writer.reset(copy != nullptr ? new (std::nothrow) Message_Writer(copy) : nullptr);
    const char* ignored_head = nullptr;
    size_t ignored_head_length = 0;
    const char* ignored_chunk = nullptr;
    size_t ignored_chunk_length = 0;
    if (m_writer == nullptr || m_writer->nextWithHeader(ignored_head, ignored_head_length,
                                                        ignored_chunk, ignored_chunk_length) != 1) {
        // Out of memory half way through a message: the stream can't go on.
        endWrite();
        if (copy != nullptr)
            copy->release();
        copy = nullptr;
        errno = ENOMEM;
        return -1;
    }
    m_writing = copy;
    m_writer->advance(static_cast<size_t>(count));
    copy->rd_ptr(std::min(static_cast<size_t>(count), HEADER_SIZE));
    m_socket_full = true;
    return 2;
}

int Handler::writeNow(ACE_Message_Block* block, uint64_t disk) {
    // Only a connection that has joined its engine, whose socket may be
    // written from this thread, with a whole message that isn't the closing
    // one. The reactor thread, or another writer, holding the lock means
    // that writing goes on there: queue behind it.
    if (!m_in_router || !m_registered || m_closed || !directWrites() ||
        (block->self_flags() & Message_Block::MESSAGE_BLOCK_FLAG) == 0 ||
        block->rd_ptr() != block->base() ||
        block->data_block()->msg_type() != ACE_Message_Block::MB_DATA)
        return 0;
    std::unique_lock<std::recursive_mutex> writing(m_write_lock, std::try_to_lock);
    if (!writing.owns_lock() || m_closed || m_writer != nullptr ||
        m_coalesced_begin != m_coalesced_end || !msg_queue()->is_empty())
        return 0;
    errno = 0;
    m_socket_full = false;
    uint64_t const sent_before = m_bytes_sent;
    ACE_Message_Block* copy = nullptr;
    int64_t result = 0;
    int const small = writeSmall(block, copy);
    if (small == 1) {
        // All of it went out, from the caller's block: no reference taken.
        m_blocked_since = 0;
        return 1;
    }
    if (small == -1) {
        writing.unlock();
        requestClose();
        return -1;
    }
    if (small == 2) {
        result = 0;
        errno = EWOULDBLOCK;
    } else {
        copy = block->duplicate();
        if (copy == nullptr)
            return 0;
        errno = 0;
        result = send(copy, nullptr);
    }
    int const error = errno;
    // The stall clock, as handle_output keeps it.
    if (m_bytes_sent != sent_before)
        m_blocked_since = 0;
    if (m_socket_full && m_blocked_since == 0)
        m_blocked_since = static_cast<int64_t>(ACE_OS::gettimeofday().msec());
    errno = error;
    if (errno != EWOULDBLOCK) {
        copy->release();
        if (result == -1) {
            // As a failed write of the reactor thread: the connection goes,
            // on that thread.
            writing.unlock();
            requestClose();
            return -1;
        }
        return 1;
    }
    // The rest goes out on the reactor thread, before anything queued
    // meanwhile.
    if (disk > 0)
        m_queued_disk_bytes += disk;
    ACE_Time_Value zero(ACE_Time_Value::zero);
    if (ungetq(copy, &zero) == -1) {
        TW_LOG("%D ERROR (%t): problem while queuing message.\n");
        if (disk > 0)
            m_queued_disk_bytes -= std::min<uint64_t>(disk, m_queued_disk_bytes);
        endWrite();
        copy->release();
        writing.unlock();
        requestClose();
        return -1;
    }
    return 2;
}

void Handler::overflow() {
    // A full queue of a peer that reads is a moment's congestion: the caller
    // hears -1 and may try again. A peer that has read nothing for longer
    // than the stall limit while its queue is full has stopped reading: it
    // is dropped, and what waited for it with it.
    int64_t const since = m_blocked_since;
    if (since == 0 || m_registered == false)
        return;
    int64_t const now = static_cast<int64_t>(ACE_OS::gettimeofday().msec());
    if (now - since < static_cast<int64_t>(Output_Stall_Limit.msec()))
        return;
    if (m_overflow_reported.exchange(true))
        return;
    TW_LOG(
        "%D ERROR (%t): Connection from %C has stopped reading and its output queue is full: "
        "closing it.\n",
        printable(address()));
    close(0);
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
