// A connection to a peer process.
#pragma once

#include <tarnwick/act_cache.h>
#include <tarnwick/identity.h>

#include <ace/INET_Addr.h>
#include <ace/Message_Block.h>
#include <ace/Mutex.h>
#include <ace/Signal.h>
#include <ace/Synch_Options.h>
#include <ace/Task.h>
#include <ace/Thread_Mutex.h>
#include <ace/Time_Value.h>

#include <cstdint>
#include <string>

namespace Tarnwick {

class Engine;

// One connected socket carrying whole messages in both directions. It reads
// a message as a 32-byte header and then its payload, one chunk of
// Data_Block_Size bytes per call, so that one slow peer never holds up the
// reactor; it writes messages from an output queue of its own (the task's
// message queue) in chunks too, so that a payload on disk never has to fit
// in memory. It keeps who the peer is, how many bytes went each way, when
// the peer was last heard, and the open completion tokens in each direction.
//
// A Handler is reference counted: it is born with one reference, which
// passes to the router; every Dispatch_Set entry holds its own. Only
// release() ends it. With an engine it lives in the engine's reactor; without
// one, its owner drives it by hand with send() and recv().
//
// The would-block signal of recv(), send() and Message_Block::read is errno
// EWOULDBLOCK: "call again later", not a failure.
class Handler : public ACE_Task<ACE_MT_SYNCH> {
public:
    // The largest payload that a message keeps in memory, and the size of
    // the buffers that move payload between socket, memory and disk. 131072
    // when the library loads; Engine::open makes it 16384.
    static uint64_t Data_Block_Size;

    // Reads towards one whole message. Above 0: `block` receives a whole
    // message (header decoded, read position 0), which the caller releases;
    // 0: the peer closed; -1 with EWOULDBLOCK: call again; other -1: failure.
    int64_t recv(ACE_Message_Block*& block, const ACE_Time_Value* timeout);
    // Writes `block` on from where the last call stopped. The result of the
    // last write, 0 with EWOULDBLOCK while bytes remain, or -1 on failure
    // and after a message marked closeAfterSend. The caller keeps `block`.
    int64_t send(ACE_Message_Block* block, const ACE_Time_Value* timeout);
    // Queues a duplicate of `block` for sending by the reactor thread; any
    // thread may call it. 0, or -1 (invalid handle, queue full). The caller
    // keeps `block`.
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

    void setEngine(Engine* engine) { m_engine = engine; }
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
    // Ends the connection: handle_close with all events. 0.
    int close(u_long flags = 0) override;

    // Reactor callbacks.
    int handle_input(ACE_HANDLE handle = ACE_INVALID_HANDLE) override;
    int handle_output(ACE_HANDLE handle = ACE_INVALID_HANDLE) override;
    int handle_close(ACE_HANDLE handle, ACE_Reactor_Mask mask) override;

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

    // Takes ownership of `block` and sends it, or queues it again at the
    // head while it is unfinished. 0 or the send result; -1 on failure.
    int64_t nonblk_put(ACE_Message_Block* block);

    void bytes_received(uint64_t count) { m_bytes_received += count; }
    void bytes_sent(uint64_t count) { m_bytes_sent += count; }
    void updateTimestamps();
    void updateRecvTimestamps();

    ACE_Message_Block* m_incoming;
    ACE_Message_Block* m_outgoing_chunk;
    std::string m_address;
    uint64_t m_bytes_received;
    uint64_t m_bytes_sent;
    Engine* m_engine;
    Identity m_identity;
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
    bool m_registered;  // stands in the engine's reactor

private:
    // The reactor that the connection's write wake-ups go to: the engine's,
    // or the one that the handler was registered with.
    ACE_Reactor* engineReactor();
};

// Ignores SIGPIPE for the length of a scope, for programs that drive a
// Handler by hand; the old action comes back at the end.
class Sig_Pipe_Guard {
public:
    Sig_Pipe_Guard();
    ~Sig_Pipe_Guard();

private:
    ACE_Sig_Action m_old;
};

}  // namespace Tarnwick
