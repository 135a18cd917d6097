// A connection to a peer process.
#pragma once

#include <tarnwick/export.h>

#include <tarnwick/act_cache.h>
#include <tarnwick/identity.h>
#include <tarnwick/message_block.h>
#include <tarnwick/message_codec.h>

#include <ace/INET_Addr.h>
#include <ace/Message_Block.h>
#include <ace/Mutex.h>
#include <ace/Signal.h>
#include <ace/Synch_Options.h>
#include <ace/Task.h>
#include <ace/Thread_Mutex.h>
#include <ace/Time_Value.h>

#include <sys/types.h>
#include <sys/uio.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace Tarnwick {

class Engine;
class Handler;

// What a connection asks of the engine that it belongs to. The Engine is the
// implementation; a connection reaches it only through this, so that the
// connection layer needs nothing of the layer above it.
class TARNWICK_EXPORT Connection_Owner {
public:
    virtual ~Connection_Owner();
    // The reactor that serves the connection; null when there is none.
    virtual ACE_Reactor* getReactor() = 0;
    virtual bool monitoringEnabled() const = 0;
    virtual bool isClosed() const = 0;
    // A connection has opened: router and identification. 0 or -1.
    virtual int register_handler(Handler* handler) = 0;
    // A connection goes. 0 or -1.
    virtual int remove_handler(Handler* handler) = 0;
    // A whole message has arrived; the caller keeps `block`. 0.
    virtual int forward(ACE_Message_Block* block) = 0;
};

// One connected socket carrying whole messages in both directions. It reads
// what the socket holds, up to one chunk of Data_Block_Size bytes per call, so
// that one slow peer never holds up the reactor, and takes the messages in it
// one by one (a chunk may hold many small ones); it writes messages from an output queue of its own
// (the task's message queue) in chunks too, so that a payload on disk never has to fit in memory.
// It keeps who the peer is, how many bytes went each way, when the peer was last heard, and the
// open completion tokens in each direction.
//
// A Handler is reference counted: it is born with one reference, which
// passes to the router; every Dispatch_Set entry holds its own. Only
// release() ends it. With an engine it lives in the engine's reactor; without
// one, its owner drives it by hand with send() and recv().
//
// The would-block signal of recv(), send() and Message_Block::read is errno
// EWOULDBLOCK: "call again later", not a failure.
class TARNWICK_EXPORT Handler : public ACE_Task<ACE_MT_SYNCH> {
public:
    // The largest payload that a message keeps in memory, and the size of
    // the buffers that move payload between socket, memory and disk. 131072
    // when the library loads; Engine::open makes it 16384.
    // (The block layer's Message_Block::Chunk_Size, under this name.)
    static uint64_t& Data_Block_Size;
    // The bytes of spilled payload (in event cache files) that may wait in
    // one connection's output queue, besides the 524288 bytes in memory. A
    // message always fits into a queue that holds no spilled payload.
    static std::atomic<uint64_t> Output_Disk_Limit;
    // The most reads of the socket in one readiness event, while each fills
    // the receive buffer.
    static constexpr int Reads_Per_Input = 16;
    // The most bytes of small messages that go out in one write.
    static constexpr size_t Coalesce_Size = 65536;
    // The most bytes of a spill file that one send() gives to sendfile(2).
    static constexpr size_t Sendfile_Limit = 4u << 20;

    // The system calls that move spilled payload between a plain TCP socket
    // and a spill file without a copy through user space: sendfile(2) from
    // the file to the socket, splice(2) from the socket to a pipe (and
    // Message_Block::Pipe_To_File on to the file). Tests replace them to
    // play a file system that refuses them: a refusal (EINVAL, ENOSYS)
    // makes the connection move those bytes by read and write from then on.
    // SSL connections never use them, nor send() and recv() called with a
    // time limit (these calls can't wait for one).
    typedef ssize_t (*Sendfile_Call)(int out, int in, off_t* offset, size_t count);
    static Sendfile_Call File_To_Socket;
    static Message_Block::Splice_Call Socket_To_Pipe;

    // Reads towards one whole message. Above 0: `block` receives a whole
    // message (header decoded, read position 0), which the caller releases,
    // and the result counts the bytes of it that this call took, whether it
    // read them now or an earlier call read them ahead; 0: the peer closed;
    // -1 with EWOULDBLOCK: call again; other -1: failure. Bytes read beyond
    // the message wait for the next call.
    int64_t recv(ACE_Message_Block*& block, const ACE_Time_Value* timeout);
    // Writes `block` on from where the last call stopped. The result of the
    // last write, 0 with EWOULDBLOCK while bytes remain, or -1 on failure
    // and after a message marked closeAfterSend. The caller keeps `block`.
    int64_t send(ACE_Message_Block* block, const ACE_Time_Value* timeout);
    // Sends a duplicate of `block`, or queues it for the reactor thread; any
    // thread may call it. A connection of an engine over plain TCP whose
    // output queue is empty writes the message at once on the calling
    // thread, as far as the socket takes it without waiting, and queues only
    // the rest (at the head, so that nothing overtakes it). 0, or -1
    // (invalid handle, queue full). The caller keeps `block`.
    int forward(ACE_Message_Block* block);

    // Adds a reference; returns this.
    Handler* duplicate();
    // Drops a reference; null when that was the last and the handler is
    // gone, else this.
    Handler* release();

    // The peer's numeric address, or null when it can't be had.
    const char* address();
    uint64_t bytes_received() const { return m_bytes_received; }
    uint64_t bytes_sent() const { return m_bytes_sent; }

    // The engine that the connection belongs to, or null for a connection
    // driven by hand.
    void setEngine(Engine* engine);
    // Names the engine whose reactor wakes the writes of connections made by
    // hand (forward() on a connection without an engine): the process's
    // engine, installed when the library loads.
    static void setDefaultOwner(Connection_Owner* (*owner)());
    Engine* getEngine() { return m_engine; }
    // Unguarded: for the thread that identifies the connection, or once it
    // is identified.
    Identity& identity() { return m_identity; }
    // Gives the connection its peer's identity; any thread may call it while
    // others route.
    void identity(const Identity& identity);
    void setInitiatedByConnector() { m_initiated_by_connector = true; }
    bool isInitiatedByConnector() { return m_initiated_by_connector; }
    // The peer identified as an agent with a non-zero agent id.
    bool isAgent() const;
    // The agent id of a peer identified as an agent, else 0. Like isAgent,
    // safe while another thread identifies the connection.
    uint32_t agentID() const;

    // Starts the activity timestamps; zero timestamps mean monitoring is off.
    void enableActivityMonitoring();
    const ACE_Time_Value& lastActivity() const { return m_last_activity; }
    const ACE_Time_Value& lastRecvActivity() const { return m_last_recv_activity; }

    // Tokens of requests that came in here (awaiting our reply) and that
    // went out here (awaiting the peer's reply).
    ACT_List& getSourceACT() { return m_source_act; }
    ACT_List& getTargetACT() { return m_target_act; }

    // Connects the stream to `address` and opens the handler. 0 or -1.
    virtual int connect_to(const ACE_INET_Addr& address, ACE_Synch_Options& options) = 0;

    // Called once the stream is connected: socket options, output queue
    // mark, and with an engine the reactor and the router. 0 or -1.
    int open(void* args = nullptr) override;
    // Ends the connection: handle_close with all events. On the reactor's
    // thread (or outside a reactor) at once; from any other thread the
    // reactor is asked to do it, so that a socket is never closed under a
    // read or write in progress. 0.
    int close(u_long flags = 0) override;

    // Reactor callbacks. handle_close does its work once; later calls
    // return 0.
    int handle_input(ACE_HANDLE handle = ACE_INVALID_HANDLE) override;
    int handle_output(ACE_HANDLE handle = ACE_INVALID_HANDLE) override;
    int handle_close(ACE_HANDLE handle, ACE_Reactor_Mask mask) override;
    // The handshake time limit of an accepted connection, and the polls of
    // the wait for the replies owed to a peer that has half-closed.
    int handle_timeout(const ACE_Time_Value& now, const void* act = nullptr) override;

    // Makes an accepted connection run the server's part of a handshake in
    // the reactor before it joins the engine (SSL; nothing for plain TCP).
    // Call it before open().
    virtual void acceptHandshake() {}
    // True from acceptHandshake until the handshake is done.
    bool inHandshake() const { return m_handshaking; }

    // The time an accepted connection has to finish its handshake: 5 s.
    static ACE_Time_Value Handshake_Limit;
    // How long a peer that has closed its sending side may wait for the
    // replies it is owed before the connection is closed: 60 s.
    static ACE_Time_Value Half_Close_Limit;
    // How long a peer may take no bytes at all while its output queue is
    // full before it is dropped as one that has stopped reading: 30 s.
    static ACE_Time_Value Output_Stall_Limit;

protected:
    Handler();
    ~Handler() override;

    // One send or receive on the stream, counting bytes and activity.
    virtual ssize_t send_bytes(const void* buffer, size_t length,
                               const ACE_Time_Value* timeout) = 0;
    virtual ssize_t recv_bytes(void* buffer, size_t length, const ACE_Time_Value* timeout) = 0;
    // The peer's numeric host into `text`; false when it can't be had.
    virtual bool fill_address(std::string& text) = 0;
    // Closes the stream and makes its handle invalid.
    virtual void close_stream() = 0;
    // Writes the ranges of `parts` with one system call where the stream
    // allows it (plain TCP: writev), counting bytes and activity like
    // send_bytes; otherwise as send_bytes of the first range. The count
    // written, or -1 with errno.
    virtual ssize_t send_parts(const iovec* parts, int count);
    // Sends `length` bytes of the file `file` from `offset` straight to the
    // socket (sendfile), counting bytes and activity. The count, or -1 with
    // errno; ENOSYS where the stream can't (SSL).
    virtual ssize_t send_file(ACE_HANDLE file, uint64_t offset, size_t length);
    // Moves up to `length` received bytes from the socket into the pipe
    // `pipe` (splice), counting bytes and activity like recv_bytes. The
    // count, 0 at the peer's end, or -1 with errno; ENOSYS where the stream
    // can't (SSL).
    virtual ssize_t recv_to_pipe(int pipe, size_t length);
    // True when another thread may write the socket while the reactor
    // thread reads it (plain TCP; not an SSL session).
    virtual bool directWrites() const { return false; }
    // Sets both activity timestamps that are on to the present time.
    void stampReceived();

    // Takes ownership of `block` and sends it, or queues it again at the
    // head while it is unfinished. 0 or the send result; -1 on failure.
    int64_t nonblk_put(ACE_Message_Block* block);
    // One step of a handshake started by acceptHandshake: 1 done, 0 to be
    // continued (`want_write` says on which readiness), -1 failed (errno
    // EPROTO, or the socket's error; the reason is logged).
    virtual int handshake_step(bool& want_write);

    void bytes_received(uint64_t count) { m_bytes_received += count; }
    void bytes_sent(uint64_t count) { m_bytes_sent += count; }
    void updateTimestamps();
    void updateRecvTimestamps();
    // Forgets the message being sent.
    void endWrite();

    // The message being received; survives between reactor calls.
    Message_Reader m_reader;
    // The bytes of the message being sent, and that message (compared only,
    // never dereferenced); both null between messages.
    std::unique_ptr<Message_Writer> m_writer;
    const ACE_Message_Block* m_writing;
    std::string m_address;
    uint64_t m_bytes_received;
    uint64_t m_bytes_sent;
    Engine* m_engine;
    Identity m_identity;
    // m_engine as the connection sees it.
    Connection_Owner* m_owner;
    // Guards m_identity between the setter and isAgent/agentID: a worker
    // identifies a connection while other threads search the router.
    mutable ACE_Thread_Mutex m_identity_lock;
    bool m_initiated_by_connector;
    ACE_Time_Value m_last_activity;
    ACE_Time_Value m_last_recv_activity;
    ACE_Mutex m_refcount_lock;
    int m_refcount;
    ACT_List m_source_act;
    ACT_List m_target_act;
    std::atomic<bool> m_registered;  // stands in the engine's reactor
    bool m_handshaking;              // acceptHandshake was called, not done yet

private:
    friend class Engine;

    // The reactor that the connection's write wake-ups go to: the engine's,
    // or the one that the handler was registered with.
    ACE_Reactor* engineReactor();
    static Connection_Owner* (*s_default_owner)();
    // The second half of open(), once a handshake is done: the engine's
    // router and the identification request. 0 or -1.
    int join();
    // Drives the handshake on a readiness. Always 0: a failed handshake
    // closes the connection (and may end this object) itself.
    int continueHandshake();
    // Asks the reactor to run close() on its own thread.
    void requestClose();
    // True when nothing more is owed to a peer that has half-closed.
    bool drained();
    // After the peer's end of stream: -1 to close now, 0 to wait for the
    // replies that it is still owed.
    int halfClosed();
    // The output queue refused a message: drops a peer that has stopped
    // reading.
    void overflow();
    // Logs why the reader refused the message under way; -1 with its errno.
    int64_t refused();
    // recv(), with the choice to take only what was read ahead (no system
    // call when `read_socket` is false).
    int64_t receive(ACE_Message_Block*& block, const ACE_Time_Value* timeout, bool read_socket);
    // Gives the reader the bytes read ahead; counts what it took into
    // `taken`. The reader's result.
    [[nodiscard]] int feedReadAhead(int64_t& taken);
    bool readAhead() const { return m_ahead_begin < m_ahead_end; }
    // Moves the small whole messages at the head of the output queue into
    // one buffer, as the bytes they are on the wire.
    void gatherSmallMessages();
    // Writes what the buffer holds. 0 (m_socket_full when bytes remain), or
    // -1 on a failure.
    [[nodiscard]] int sendCoalesced();
    // The spilled payload bytes of `block`, 0 for a payload in memory.
    static uint64_t diskBytes(ACE_Message_Block* block);
    // The end of a message that has gone out: -1 after logging for a
    // closing message, else `result`.
    int64_t finished(ACE_Message_Block* block, int64_t result);
    // forward()'s write on the calling thread: 1 the message went out
    // whole, 2 part of it went and the rest waits at the head of the queue
    // (the write wake-up still to be asked for), 0 nothing was done and the
    // message is to be queued as usual, -1 the connection failed (its close
    // has been asked for).
    int writeNow(ACE_Message_Block* block, uint64_t disk);
    // writeNow() of a message with its payload in memory, without a
    // reference or a writer unless the socket takes only part of it: 1 all
    // written, 2 part written (`copy` a new reference to queue, the writer
    // set up for the rest), 0 nothing written (send() is to try), -1 part
    // written and no memory for the rest.
    int writeSmall(ACE_Message_Block* block, ACE_Message_Block*& copy);
    // Puts `copy` (owned from here on) on the tail of the output queue,
    // counting its spilled bytes. 0, or -1 (queue full or deactivated).
    int queue(ACE_Message_Block* copy, uint64_t disk);
    // Asks the reactor for the connection's write wake-up. 0 or -1, logged.
    int wakeForOutput();
    // The part of send() after the header: the payload, from memory, or
    // from a spill file by sendfile where it may. As send().
    int64_t sendPayload(ACE_Message_Block* block, int64_t result, const ACE_Time_Value* timeout);
    // Receives payload of a spilling message through the pipe: 1 a message
    // is whole (in `block`, `taken` its bytes), 0 the peer closed, -1 with
    // errno (EWOULDBLOCK: call again); 2 when the socket or the pipe refused
    // splice and the caller is to read as usual.
    int receiveSpliced(ACE_Message_Block*& block, int64_t& taken);
    // The pipe between socket and spill file, made on first use; false when
    // it can't be had.
    bool openPipe();
    void closePipe();

    // Set by the engine when the router has taken the first reference.
    std::atomic<bool> m_in_router;
    std::atomic<bool> m_closed;
    // The receive buffer, reused from call to call; the bytes from
    // m_ahead_begin to m_ahead_end were read and not yet taken.
    std::unique_ptr<char[]> m_recv_buffer;
    size_t m_recv_buffer_size;
    size_t m_ahead_begin;
    size_t m_ahead_end;
    // Attempts to read the socket so far, and whether the last one filled
    // the buffer (more bytes are likely waiting).
    uint64_t m_socket_reads;
    bool m_last_read_full;
    // Small messages taken from the output queue to go out in one write:
    // m_coalesced_begin to m_coalesced_end are still to be written, before
    // anything else.
    std::unique_ptr<char[]> m_coalesced;
    size_t m_coalesced_begin;
    size_t m_coalesced_end;
    // "Partial header received" is logged once per message.
    bool m_partial_logged;
    // The peer has closed its sending side; replies still go out.
    bool m_peer_closed;
    long m_timer;
    ACE_Time_Value m_half_close_deadline;
    // Spilled payload bytes waiting in the output queue.
    std::atomic<uint64_t> m_queued_disk_bytes;
    // The last send found the socket full.
    bool m_socket_full;
    // Milliseconds of the time of day since the socket has taken nothing
    // while messages waited; 0 while it takes what it is given.
    std::atomic<int64_t> m_blocked_since;
    std::atomic<bool> m_overflow_reported;
    // The pipe of receiveSpliced (read end, write end) and its capacity.
    int m_pipe[2];
    size_t m_pipe_size;
    // Held by whoever writes the socket, the reactor thread in
    // handle_output or a thread in forward(), and around closing the
    // stream, so that two messages' bytes never interleave and no write
    // meets a closed descriptor. Recursive: handle_output's paths may close.
    std::recursive_mutex m_write_lock;
    // Guards the writes of the activity timestamps.
    std::mutex m_activity_lock;
    // sendfile or splice was refused: this connection copies from then on.
    bool m_copy_sent;
    bool m_copy_received;
};

// Ignores SIGPIPE for the length of a scope, for programs that drive a
// Handler by hand; the old action comes back at the end.
class TARNWICK_EXPORT Sig_Pipe_Guard {
public:
    Sig_Pipe_Guard();
    ~Sig_Pipe_Guard();

private:
    ACE_Sig_Action m_old;
};

}  // namespace Tarnwick
