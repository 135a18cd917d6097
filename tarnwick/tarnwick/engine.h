// The message engine: reactor, worker threads, event handler and router.
#pragma once

#include <tarnwick/export.h>

#include <tarnwick/handler.h>

#include <ace/INET_Addr.h>
#include <ace/Lock_Adapter_T.h>
#include <ace/Reactor.h>
#include <ace/Signal.h>
#include <ace/Synch_Options.h>
#include <ace/Task.h>
#include <ace/Thread_Mutex.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Tarnwick {

class Abstract_Event;
class Acceptor_Base;
class EventHandler;
class Handler;
class IdentityEvent;
class Router_Base;

// The flag word of Engine::makeConnection and makeActiveConnection.
enum ConnectionFlag {
    CONNECTION_PASSIVE = 2,  // listen at the address; clear: connect to it
    CONNECTION_SSL = 4       // SSL stream; clear: plain TCP
};

// The process-wide heart of the message system. It owns the reactor, on
// whose thread all socket work happens, and the worker threads that turn
// received messages into events and dispatch them. An event for this
// process goes to the EventHandler; one for another peer goes on through the
// Router_Base; results and failures go back along the path they came by.
//
// Order of use: getSingleton(); optionally enableServerMode() and
// disableIdentification(); event_handler() and router(); the process's
// Identity type and name; open(); makeConnection(); then run() or repeated
// run_step() on the thread that owns the reactor; last shutdown().
//
// open(int, bool) and close() hide ACE's open(void*) and close(u_long) on
// purpose; ACE still calls its close(u_long) when a worker thread ends.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Woverloaded-virtual"
class TARNWICK_EXPORT Engine : public ACE_Task<ACE_MT_SYNCH>, public Connection_Owner {
public:
    Engine();
    ~Engine() override;

    static Engine* getSingleton();

    // The room of the reactor that open() makes: a connection whose socket
    // descriptor is numbered at or above it is refused ("too many
    // connections"). Default_Reactor_Handles unless set before open(); open()
    // raises the process's soft descriptor limit to it as far as the hard
    // limit lets, and fails (after its tries) when the hard limit is lower.
    // The reactor is epoll based, so that a pass costs the same whatever the
    // number of idle connections; a server for thousands of peers raises
    // the room.
    static constexpr size_t Default_Reactor_Handles = 1010;
    static size_t Reactor_Handles;

    // Sets up SSL (with `ssl`), the reactor (room for Reactor_Handles
    // handles), the chunk size 16384, the worker queue, the payload cache,
    // and starts `threads` worker threads (0: dispatch on the reactor
    // thread). 0 or -1.
    int open(int threads, bool ssl);
    // Runs the reactor loop on the calling thread until it ends. 0 or -1.
    int run();
    // One pass of the reactor, waiting at most 2 microseconds: every handle
    // that is ready is served (an epoll reactor: up to 1025 dispatches).
    int run_step();
    // Stops the workers, closes every connection and the reactor, and
    // destroys an owned event handler and router. 0.
    int shutdown();
    // Does nothing; 0. (The task's close(u_long) is another operation.)
    int close();
    // The worker thread body.
    int svc() override;

    ACE_Reactor* getReactor() override { return m_reactor; }
    EventHandler* event_handler() { return m_event_handler; }
    // Replaces the event handler (destroying an owned one). 0 or -1.
    int event_handler(EventHandler* handler, bool own);
    Router_Base* router() { return m_router; }
    // Replaces the router (deleting an owned one). 0.
    int router(Router_Base* router, bool own);

    // Called by a connection that has just opened: enters it in the router
    // and sends it the identification request. 0 or -1.
    int register_handler(Handler* handler) override;
    // Tells the event handler and the router that a connection goes. 0 or -1.
    int remove_handler(Handler* handler) override;

    ACE_Lock_Adapter<ACE_Thread_Mutex>* locking_strategy() { return m_locking_strategy; }
    // Names Identity::instance().
    void setApplicationName(const char* name);
    // Sets Handler::Data_Block_Size to a size from 512 to 1048576 bytes;
    // other sizes are refused (logged). Call it after open().
    void setBufferSize(uint64_t size);
    // The largest payload that a peer may announce; a larger one ends its
    // connection before any of it is read. 2 GiB unless set here or by the
    // setting "maxmessagesize" (bytes) at open().
    void setMaxMessageSize(uint64_t size);
    uint64_t maxMessageSize() const;
    bool monitoringEnabled() const override { return m_monitoring; }
    // Starts the activity timestamps of all present and future connections.
    void enableMonitoring();
    void disableIdentification() { m_identify = false; }
    bool identifyIsRequired() { return m_identify; }
    bool isServer() const { return m_server; }
    void enableServerMode() { m_server = true; }
    bool isClosed() const override { return m_closed; }

    // Sends an event through the router; its result.
    int forward(Abstract_Event* event);
    // Takes a received message into the engine: dispatched on the calling
    // thread without workers, else queued for them. The caller keeps
    // `block`. 0.
    int forward(ACE_Message_Block* block) override;
    // Turns a received message into an event and handles it: locally, or
    // by forwarding, with replies and error replies. Owns `block`. 0 or -1.
    int process_incoming(ACE_Message_Block* block);

    // Closes every connection. 0, or -1 when there is none.
    int disconnect();
    // Sends one HeartBeatEvent to every connection. 0.
    int sendGlobalHeartBeat();
    // Closes the connections idle for more than `seconds`: agents by their
    // last received byte when `use_receive_time`, others by any byte. 0.
    int cleanupHandles(int seconds, bool use_receive_time);
    // Gives the connections that sent `event` the identity it carries. 0 or
    // -1 when no connection holds its token.
    int activate_handler(IdentityEvent* event);

    // Listens at `address` (CONNECTION_PASSIVE; one listener per engine) or
    // connects to it. `options` is accepted and not used: a connect blocks.
    int makeConnection(const ACE_INET_Addr& address, unsigned long flags,
                       ACE_Synch_Options& options);
    // Connects to `address`. With `handler` null the connection joins the
    // engine; otherwise `*handler` receives a connection outside the engine
    // and its one reference. 0 or -1.
    static int makeActiveConnection(const ACE_INET_Addr& address, unsigned long flags,
                                    ACE_Synch_Options& options, Handler** handler);

private:
    Engine(const Engine&);
    Engine& operator=(const Engine&);

    // process_incoming() on a block that the caller keeps: the event takes
    // a reference of its own, so a message dispatched on the thread that
    // received it needs none beside the connection's.
    int dispatch(ACE_Message_Block* block);

    EventHandler* m_event_handler;
    ACE_Thread_Mutex m_lock;
    bool m_owns_event_handler;
    Router_Base* m_router;
    bool m_owns_router;
    ACE_Lock_Adapter<ACE_Thread_Mutex>* m_locking_strategy;
    int m_threads;
    bool m_identify;
    ACE_Sig_Action m_sigpipe_action;
    bool m_monitoring;
    Acceptor_Base* m_acceptor;
    bool m_closed;
    ACE_Reactor* m_reactor;
    bool m_server;
    // The reactor that the last shutdown closed. Handlers that are still
    // referenced may point at it, so it lives until the next shutdown or
    // the engine's end.
    ACE_Reactor* m_retired_reactor;

    // Spilled payload bytes of the messages in the worker queue.
    std::atomic<uint64_t> m_queued_disk_bytes;
    // The threads of the workers that are running.
    void listWorkers(std::vector<ACE_thread_t>& workers);
    // Closes the other connections of the agent that `newer` identified.
    void replaceOlderConnections(Handler* newer);

    // The wait between two tries to make the reactor, and the clock of
    // cleanupHandles. Tests replace them through EngineTestHooks.
    static void (*s_retry_sleep)(const ACE_Time_Value& wait);
    static ACE_Time_Value (*s_clock)();
    friend struct EngineTestHooks;
};
#pragma GCC diagnostic pop

}  // namespace Tarnwick
