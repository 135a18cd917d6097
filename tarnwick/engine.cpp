#include <tarnwick/acceptor.h>
#include <tarnwick/act_cache.h>
#include <tarnwick/configuration.h>
#include <tarnwick/engine.h>
#include <tarnwick/event_factory.h>
#include <tarnwick/handler_t.h>
#include <tarnwick/identity.h>
#include <tarnwick/log.h>
#include <tarnwick/message_block.h>
#include <tarnwick/router_base.h>
#include <tarnwick/security.h>
#include <tarnwick/system.h>

#include <ace/ACE.h>
#include <ace/Dev_Poll_Reactor.h>
#include <ace/Guard_T.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/OS_NS_unistd.h>
#include <ace/Reactor_Token_T.h>
#include <ace/Singleton.h>
#include <ace/Thread_Manager.h>
#include <ace/Token.h>

#include <libxml/parser.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <new>
#include <string>

#include <sys/resource.h>
#include <vector>

namespace Tarnwick {

namespace {

// The engine's reactor: epoll based, so that a pass costs the same whatever
// the number of idle connections, and without masking signals on each pass.
// Handles are numbered into a table of fixed room; one at or above it is
// refused with EINVAL. An epoll reactor lets any thread run its loop and
// keeps no owner; the engine's connections ask whether they run on the
// reactor's thread (a close from another thread goes through the reactor's
// notification queue), so this one remembers the thread that runs it, as a
// select reactor does: first the one that made it.
class Engine_Reactor : public ACE_Dev_Poll_Reactor {
public:
    explicit Engine_Reactor(size_t handles)
        : ACE_Dev_Poll_Reactor(handles, false, nullptr, nullptr, 0, nullptr,
                               0 /* no signal mask per pass */),
          m_owner(ACE_Thread::self()) {}
    Engine_Reactor(const Engine_Reactor&) = delete;
    Engine_Reactor& operator=(const Engine_Reactor&) = delete;

    int owner(ACE_thread_t new_owner, ACE_thread_t* old_owner) override {
        ACE_thread_t const previous = m_owner.exchange(new_owner);
        if (old_owner != nullptr)
            *old_owner = previous;
        return 0;
    }
    int owner(ACE_thread_t* owner) override {
        if (owner == nullptr)
            return -1;
        *owner = m_owner.load();
        return 0;
    }

    // A handle whose interest falls to nothing would leave epoll's set while
    // the reactor's table keeps it. If that happens during the handle's own
    // dispatch (a connection whose peer half-closed stops reading, then
    // queues a reply), re-arming it after the dispatch fails unseen: the
    // reply's write interest never reaches epoll, and the removal at close
    // fails too, so the table keeps naming the connection after it has gone
    // and the next socket with its number is dispatched to freed memory.
    // Such a handle keeps one bit that maps to no epoll event instead, and
    // stays in epoll's set until it is removed.
    int mask_ops(ACE_HANDLE handle, ACE_Reactor_Mask mask, int ops) override {
        if (ops == ACE_Reactor::SET_MASK && (mask & ~PARKED) == ACE_Event_Handler::NULL_MASK)
            return visible(ACE_Dev_Poll_Reactor::mask_ops(handle, PARKED, ACE_Reactor::SET_MASK));
        if (ops == ACE_Reactor::CLR_MASK) {
            int const old = ACE_Dev_Poll_Reactor::mask_ops(handle, 0, ACE_Reactor::GET_MASK);
            if (old == -1)
                return -1;
            ACE_Reactor_Mask const rest = static_cast<ACE_Reactor_Mask>(old) & ~mask & ~PARKED;
            if (rest == ACE_Event_Handler::NULL_MASK)
                return visible(
                    ACE_Dev_Poll_Reactor::mask_ops(handle, PARKED, ACE_Reactor::SET_MASK));
        }
        return visible(ACE_Dev_Poll_Reactor::mask_ops(handle, mask, ops));
    }
    int mask_ops(ACE_Event_Handler* handler, ACE_Reactor_Mask mask, int ops) override {
        return mask_ops(handler->get_handle(), mask, ops);
    }

private:
    // Asks for no event: a quality-of-service bit, which epoll has none for.
    static const ACE_Reactor_Mask PARKED = ACE_Event_Handler::QOS_MASK;

    // A mask as the callers set it, without the parking bit.
    static int visible(int mask) { return mask == -1 ? -1 : (mask & ~static_cast<int>(PARKED)); }

    std::atomic<ACE_thread_t> m_owner;
};

// Makes the reactor with room for `handles`, or null (errno set). The
// process's soft descriptor limit is as the caller left it: the epoll
// reactor lowers it to its room, and the process may well hold descriptors
// beyond the room (files, pipes) that no reactor sees. A hard limit below
// the room fails as it always has, with EMFILE.
bool isEpollReactor(ACE_Reactor* reactor) {
    return reactor != nullptr &&
           dynamic_cast<ACE_Dev_Poll_Reactor*>(reactor->implementation()) != nullptr;
}

ACE_Reactor_Impl* makeReactor(size_t handles) {
    struct rlimit before;
    bool const known = ::getrlimit(RLIMIT_NOFILE, &before) == 0;
    if (known && before.rlim_max != RLIM_INFINITY && before.rlim_max < handles) {
        errno = EMFILE;
        return nullptr;
    }
    Engine_Reactor* const reactor = new (std::nothrow) Engine_Reactor(handles);
    if (reactor == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    int const saved = errno;
    struct rlimit after;
    if (known && ::getrlimit(RLIMIT_NOFILE, &after) == 0 && after.rlim_cur < before.rlim_cur) {
        after.rlim_cur = before.rlim_cur;
        ::setrlimit(RLIMIT_NOFILE, &after);
    }
    errno = saved;
    return reactor;
}

const int REACTOR_TRIES = 10;
// The most further dispatches of one run_step.
const int RUN_STEP_DISPATCHES = 1024;
const uint64_t ENGINE_CHUNK_SIZE = 16384;
const size_t QUEUE_BYTES_PER_WORKER = 655360;
// Spilled payload that may wait for the workers beyond the queue's mark.
const uint64_t QUEUED_DISK_LIMIT = 64ull * 1024 * 1024;
const size_t WORKER_STACK_SIZE = 524288;
const uint64_t MIN_BUFFER_SIZE = 512;
const uint64_t MAX_BUFFER_SIZE = 1048576;

void sleepBeforeRetry(const ACE_Time_Value& wait) {
    ACE_OS::sleep(wait);
}

ACE_Time_Value timeOfDay() {
    return ACE_OS::gettimeofday();
}

// The peer's address for a log line; never null.
const char* addressText(Handler* handler) {
    const char* const address = handler->address();
    return address != nullptr ? address : "";
}

// A size setting of the configuration store: a decimal count of bytes.
// False when it is absent or not such a number (logged).
bool sizeSetting(const char* key, uint64_t& out) {
    Configuration* const config = getConfigSingleton();
    std::string text;
    if (config == nullptr || config->getValue(key, text) != 0 || text.empty())
        return false;
    char* end = nullptr;
    errno = 0;
    unsigned long long const value = std::strtoull(text.c_str(), &end, 10);
    if (errno != 0 || end == nullptr || *end != '\0' || text[0] == '-' || value == 0) {
        TW_LOG("%D WARN  (%t): Ignoring the setting %C: \"%C\" is no size in bytes\n", key,
               text.c_str());
        return false;
    }
    out = value;
    return true;
}

// The token of a request, or 0 for a reply or a block that is no message.
uint32_t requestToken(ACE_Message_Block* block) {
    if (block == nullptr || (block->self_flags() & Message_Block::MESSAGE_BLOCK_FLAG) == 0)
        return 0;
    const Message_Header* const header = static_cast<Message_Block*>(block)->getHeader();
    if (header == nullptr || !header->isReadable() || header->isResult())
        return 0;
    return header->getACT();
}

}  // namespace

void Handler::setEngine(Engine* engine) {
    m_engine = engine;
    m_owner = engine;
}

namespace {

// The engine that wakes the connections made by hand.
Connection_Owner* processEngine() {
    return Engine::getSingleton();
}

struct DefaultOwner {
    DefaultOwner() { Handler::setDefaultOwner(processEngine); }
};

const DefaultOwner g_default_owner;

}  // namespace

size_t Engine::Reactor_Handles = Engine::Default_Reactor_Handles;
void (*Engine::s_retry_sleep)(const ACE_Time_Value&) = sleepBeforeRetry;
ACE_Time_Value (*Engine::s_clock)() = timeOfDay;

Engine::Engine()
    : m_event_handler(nullptr),
      m_owns_event_handler(false),
      m_router(nullptr),
      m_owns_router(false),
      m_locking_strategy(nullptr),
      m_threads(1),
      m_identify(true),
      m_sigpipe_action(reinterpret_cast<ACE_SignalHandler>(SIG_IGN), SIGPIPE),
      m_monitoring(false),
      m_acceptor(nullptr),
      m_closed(false),
      m_reactor(nullptr),
      m_server(false),
      m_retired_reactor(nullptr),
      m_queued_disk_bytes(0) {
    // Tokens come from Tarnwick::Random, which seeds itself.
}

Engine::~Engine() {
    if (!m_closed)
        shutdown();
    delete m_retired_reactor;
    m_retired_reactor = nullptr;
}

Engine* Engine::getSingleton() {
    return ACE_Singleton<Engine, ACE_Thread_Mutex>::instance();
}

int Engine::open(int threads, bool ssl) {
    // The SSL context is set up before anything else; without ssl there is
    // no security set-up at all.
    if (ssl) {
        if (m_server)
            Security::enable_server_setup();
        if (Security::Setup() == -1)
            return -1;
    }

    // The reactor holds handles numbered below its room, which the process's
    // descriptor limit must let exist; raise a lower soft limit as far as the
    // hard one lets.
    size_t const handles = Reactor_Handles > 0 ? Reactor_Handles : 1;
    {
        int const saved = errno;
        set_fd_limit(static_cast<int>(std::min<size_t>(handles, INT_MAX)));
        errno = saved;
    }

    ACE_Reactor* reactor = nullptr;
    for (int attempt = 0; attempt < REACTOR_TRIES; ++attempt) {
        ACE_Reactor_Impl* implementation = makeReactor(handles);
        if (implementation == nullptr && errno == ENOMEM)
            return -1;
        if (implementation == nullptr) {
            int const saved = errno;
            TW_LOG(
                "%D WARN  (%t): Could not initialize reactor. Retry within 5 seconds.\n Please "
                "ensure open file hard limits are above 1010 for this user. (ulimit)\n");
            s_retry_sleep(ACE_Time_Value(5));
            errno = saved;
            continue;
        }
        reactor = new (std::nothrow) ACE_Reactor(implementation, true);
        if (reactor == nullptr) {
            delete implementation;
            errno = ENOMEM;
            return -1;
        }
        if (reactor->initialized())
            break;
        int const saved = errno;
        delete reactor;
        reactor = nullptr;
        errno = saved;
        TW_LOG(
            "%D WARN  (%t): Could not initialize reactor. Retry within 5 seconds.\n Please "
            "ensure open file hard limits are above 1010 for this user. (ulimit)\n");
        s_retry_sleep(ACE_Time_Value(5));
    }
    if (reactor == nullptr) {
        TW_LOG(
            "%D ERROR (%t): Could not initialize reactor: %m.\nPlease make sure that no "
            "firewalls are blocking network connections.");
        return -1;
    }

    m_reactor = reactor;
    m_reactor->owner(ACE_Thread::self());

    Handler::Data_Block_Size = ENGINE_CHUNK_SIZE;
    m_threads = threads;

    // A queue deactivated by an earlier shutdown takes work again.
    msg_queue()->activate();
    msg_queue()->high_water_mark(static_cast<size_t>(threads > 0 ? threads : 0) *
                                 QUEUE_BYTES_PER_WORKER);
    msg_queue()->low_water_mark(0);

    if (m_locking_strategy == nullptr) {
        m_locking_strategy = new (std::nothrow) ACE_Lock_Adapter<ACE_Thread_Mutex>();
        if (m_locking_strategy == nullptr) {
            errno = ENOMEM;
            return -1;
        }
    }

    // The directory where large payloads are spilled.
    ACT_Cache* const cache = ACT_Cache::instance();
    if (cache == nullptr || cache->prepare() == -1)
        return -1;
    // Spill files of processes that ended mid-transfer are nobody's.
    cache->sweep();

    // What one peer may make this process hold: the size of one message and
    // the bytes of all spill files, when the application sets them.
    uint64_t limit = 0;
    if (sizeSetting("maxmessagesize", limit))
        setMaxMessageSize(limit);
    if (sizeSetting("eventcachequota", limit))
        cache->setQuota(limit);

    // The workers build and parse XML side by side; libxml2 initialises
    // itself lazily and unguarded, so it is made ready here, on one thread.
    xmlInitParser();

    m_closed = false;
    return startThread(this, m_threads, WORKER_STACK_SIZE, true);
}

int Engine::run() {
    if (m_reactor != nullptr) {
        m_reactor->owner(ACE_Thread::self());
        if (m_reactor->run_reactor_event_loop(ACE_Reactor::check_reconfiguration) != -1)
            return 0;
    } else {
        errno = EINVAL;
    }
    if (errno != 0)
        TW_LOG("%D ERROR (%t): Can not start application event loop: %m\n: %m\n");
    else
        TW_LOG("%D ERROR (%t): Can not start application event loop: %m\n\n");
    return -1;
}

int Engine::run_step() {
    if (m_reactor == nullptr) {
        errno = EINVAL;
        return -1;
    }
    m_reactor->owner(ACE_Thread::self());
    ACE_Time_Value limit(0, 2);
    int result = m_reactor->handle_events(limit);
    // The epoll reactor dispatches one ready handle per call; a pass serves
    // every handle that is ready, as a select pass does, within a bound so
    // that a handle that is always ready can't hold the caller.
    bool const one_per_call = isEpollReactor(m_reactor);
    for (int more = 0; one_per_call && result > 0 && more < RUN_STEP_DISPATCHES; ++more) {
        ACE_Time_Value none(ACE_Time_Value::zero);
        if (m_reactor->handle_events(none) <= 0)
            break;
    }
    return result;
}

int Engine::shutdown() {
    if (m_closed)
        return 0;

    // The workers are joined one by one, and only then through wait(): the
    // thread manager's wait for a task misses a thread that has already
    // ended by the time it looks, and such a thread would stay unjoined.
    std::vector<ACE_thread_t> workers;
    listWorkers(workers);
    msg_queue()->deactivate();
    for (ACE_thread_t const worker : workers)
        thr_mgr()->join(worker);
    wait();
    // Messages that no worker took are dropped.
    msg_queue()->flush();

    if (m_reactor != nullptr) {
        m_reactor->end_reactor_event_loop();
        m_reactor->close();
        // The closed reactor object stays alive, since handlers that are
        // still referenced may point at it; it goes with the engine.
        delete m_retired_reactor;
        m_retired_reactor = m_reactor;
        m_reactor = nullptr;
    }

    if (m_event_handler != nullptr && m_owns_event_handler) {
        m_event_handler->close(0);
        m_event_handler->destroy();
        m_event_handler = nullptr;
    }
    if (m_router != nullptr && m_owns_router) {
        delete m_router;
        m_router = nullptr;
    }

    delete m_locking_strategy;
    m_locking_strategy = nullptr;

    m_closed = true;
    return 0;
}

void Engine::listWorkers(std::vector<ACE_thread_t>& workers) {
    ACE_Thread_Manager* const manager = thr_mgr();
    if (manager == nullptr)
        return;
    try {
        int const count = manager->num_threads_in_task(this);
        if (count <= 0)
            return;
        workers.resize(static_cast<size_t>(count));
        ssize_t const listed = manager->thread_list(this, workers.data(), workers.size());
        workers.resize(listed > 0 ? static_cast<size_t>(listed) : 0);
    } catch (const std::bad_alloc&) {
        workers.clear();
    }
    // A worker that shuts the engine down can't join itself.
    workers.erase(
        std::remove_if(workers.begin(), workers.end(),
                       [](ACE_thread_t id) { return ACE_OS::thr_equal(id, ACE_Thread::self()); }),
        workers.end());
}

int Engine::close() {
    return 0;
}

int Engine::svc() {
    ACE_Sig_Guard guard;
    TW_LOG("%D DEBUG (%t): Engine: Starting worker thread\n");
    for (;;) {
        ACE_Message_Block* block = nullptr;
        if (getq(block) == -1)
            return -1;
        if (block->msg_type() == ACE_Message_Block::MB_HANGUP) {
            block->release();
            return 0;
        }
        uint64_t const disk = Handler::diskBytes(block);
        if (disk > 0)
            m_queued_disk_bytes -= std::min<uint64_t>(disk, m_queued_disk_bytes);
        // The reference taken from the queue is the one process_incoming
        // owns.
        process_incoming(block);
    }
}

int Engine::event_handler(EventHandler* handler, bool own) {
    ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
    if (!guard.locked())
        return -1;
    if (m_event_handler != nullptr && m_owns_event_handler && m_event_handler != handler)
        m_event_handler->destroy();
    m_event_handler = handler;
    m_owns_event_handler = own;
    return 0;
}

int Engine::router(Router_Base* router, bool own) {
    if (m_router != nullptr && m_owns_router && m_router != router)
        delete m_router;
    m_router = router;
    m_owns_router = own;
    return 0;
}

int Engine::register_handler(Handler* handler) {
    if (m_router == nullptr)
        errno = EINVAL;
    if (m_router == nullptr || m_router->register_handler(handler) == -1) {
        TW_LOG_ERRNO("%D ERROR (%t): Registration with router instance failed.");
        return -1;
    }
    handler->m_in_router = true;
    if (!m_identify)
        return 0;

    TW_LOG("%D DEBUG (%t): Sending Identification request.\n");
    Abstract_Event* event = Event_Factory::create(IDENTITY_EVENT);
    if (event == nullptr ||
        Identity::instance()->updateEvent(static_cast<IdentityEvent*>(event)) == -1) {
        TW_LOG(
            "%D ERROR (%t): internal error: error occurred while trying to construct an "
            "identity event.\n");
        if (event != nullptr)
            event->destroy();
        return -1;
    }
    int const result = m_router->forward(event);
    event->destroy();
    return result;
}

int Engine::remove_handler(Handler* handler) {
    if (m_closed)
        return 0;
    {
        ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
        if (!guard.locked())
            return -1;
        if (m_event_handler != nullptr)
            m_event_handler->handle_disconnect(handler);
    }
    // Only a connection that the router took is removed from it, once.
    if (m_router != nullptr && handler->m_in_router.exchange(false) &&
        m_router->remove_handler(handler) == -1)
        return -1;
    return 0;
}

void Engine::setApplicationName(const char* name) {
    if (name != nullptr)
        Identity::instance()->setName(name);
}

void Engine::setBufferSize(uint64_t size) {
    if (size < MIN_BUFFER_SIZE || size > MAX_BUFFER_SIZE) {
        TW_LOG("%D WARN  (%t): Invalid buffer size provided, keeping default %d\n",
               static_cast<int>(Handler::Data_Block_Size));
        return;
    }
    TW_LOG("%D DEBUG (%t): Setting buffer size to %d\n", static_cast<int>(size));
    Handler::Data_Block_Size = size;
}

void Engine::enableMonitoring() {
    m_monitoring = true;
    if (m_router == nullptr)
        return;
    Dispatch_Set set;
    if (m_router->findAllHandlers(set) == -1)
        return;
    ACE_Unbounded_Set_Iterator<Handler*> it(set);
    for (Handler** handler = nullptr; it.next(handler) != 0; it.advance())
        (*handler)->enableActivityMonitoring();
}

int Engine::forward(Abstract_Event* event) {
    if (m_router == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return m_router->forward(event);
}

int Engine::forward(ACE_Message_Block* block) {
    if (block == nullptr)
        return 0;
    if (m_threads == 0) {
        dispatch(block);
        return 0;
    }
    // No waiting: above the queue's high water mark the message is dropped,
    // and with it the token that waited for its reply. Payload spilled to
    // disk counts against the mark and 64 MiB more; a queue without any
    // takes one message of whatever size.
    uint64_t const disk = Handler::diskBytes(block);
    uint64_t const queued_disk = m_queued_disk_bytes;
    uint64_t const mark = msg_queue()->high_water_mark();
    ACE_Message_Block* queued = nullptr;
    if (disk == 0 || queued_disk == 0 || queued_disk + disk <= mark + QUEUED_DISK_LIMIT)
        queued = block->duplicate();
    if (queued != nullptr) {
        m_queued_disk_bytes += disk;
        ACE_Time_Value no_wait(ACE_Time_Value::zero);
        if (putq(queued, &no_wait) != -1)
            return 0;
        m_queued_disk_bytes -= std::min<uint64_t>(disk, m_queued_disk_bytes);
        queued->release();
    }
    uint32_t const token = requestToken(block);
    if (token != 0 && m_router != nullptr)
        m_router->clear_act(token);
    return 0;
}

int Engine::process_incoming(ACE_Message_Block* block) {
    int const result = dispatch(block);
    if (block != nullptr)
        block->release();
    return result;
}

int Engine::dispatch(ACE_Message_Block* block) {
    Abstract_Event* event = Event_Factory::create(block);
    if (event == nullptr) {
        TW_LOG("%D ERROR (%t): An error occurred while converting network data into an event.\n");
        // Nobody will answer it: its token goes.
        uint32_t const token = requestToken(block);
        if (token != 0 && m_router != nullptr)
            m_router->clear_act(token);
        return -1;
    }

    // Non-local events that aren't broadcasts are passed on as they are.
    int result = 1;
    if (!m_router->isAuthorized(event)) {
        result = event->error("Permission denied.", 1);
    } else if (m_router->isLocal(event)) {
        // Whatever the handler makes of the event is a reply.
        event->setResult(true);
        result = m_event_handler->handle_event(event);
    } else if (event->isBroadCast()) {
        event->reset();
        event->write("broadcast ok\n", 13);
    }

    if (result == -1) {
        TW_LOG("%D ERROR (%t): An unspecified error occurred: %m\n");
        event->error("Unknown error occurred while executing command.", 1);
    } else if (result == 0) {
        // Token 0 is never open anywhere; looking for it would visit every
        // connection for each event.
        if (event->getACT() != 0)
            m_router->clear_act(event->getACT());
        event->destroy();
        return 0;
    }

    if (m_router->forward(event) == -1) {
        try {
            std::string const text = "Could not forward message to Agent with id " +
                                     std::to_string(event->getAgentID()) + ".";
            event->error(text.c_str(), 1);
        } catch (...) {
            event->error("Could not forward message.", 1);
        }
        m_router->forward(event);
    }

    event->destroy();
    return 0;
}

int Engine::disconnect() {
    if (m_router == nullptr)
        return -1;
    Dispatch_Set set;
    if (m_router->findAllHandlers(set) == -1)
        return -1;
    ACE_Unbounded_Set_Iterator<Handler*> it(set);
    for (Handler** handler = nullptr; it.next(handler) != 0; it.advance())
        (*handler)->close(0);
    return 0;
}

int Engine::sendGlobalHeartBeat() {
    if (m_router == nullptr)
        return 0;
    Dispatch_Set set;
    if (m_router->findAllHandlers(set) == -1)
        return 0;
    Abstract_Event* heartbeat = Event_Factory::create(HEART_BEAT_EVENT);
    if (heartbeat == nullptr)
        return 0;
    heartbeat->setBroadCast(false);
    ACE_Message_Block* block = heartbeat->data(false);
    if (block != nullptr) {
        ACE_Unbounded_Set_Iterator<Handler*> it(set);
        for (Handler** handler = nullptr; it.next(handler) != 0; it.advance())
            (*handler)->forward(block);
    }
    heartbeat->destroy();
    return 0;
}

int Engine::cleanupHandles(int seconds, bool use_receive_time) {
    ACE_Time_Value const now = s_clock();
    if (m_router == nullptr)
        return 0;
    Dispatch_Set set;
    if (m_router->findAllHandlers(set) == -1)
        return 0;
    ACE_Unbounded_Set_Iterator<Handler*> it(set);
    for (Handler** entry = nullptr; it.next(entry) != 0; it.advance()) {
        Handler* const handler = *entry;
        ACE_Time_Value const& last = use_receive_time && handler->isAgent()
                                         ? handler->lastRecvActivity()
                                         : handler->lastActivity();
        ACE_Time_Value const idle = now - last;
        if (idle.sec() > seconds || (idle.sec() == seconds && idle.usec() > 0)) {
            TW_LOG("%D INFO  (%t): Timeout reached for connection from %C\n", addressText(handler));
            handler->close(0);
        }
    }
    return 0;
}

int Engine::activate_handler(IdentityEvent* event) {
    Dispatch_Set set;
    uint32_t const token = event != nullptr ? event->getACT() : 0;
    if (m_router == nullptr || m_router->findHandlersByACT(token, set) == -1) {
        TW_LOG("%D ERROR (%t): Can not find network handler. Activation failed.\n");
        return -1;
    }
    ACE_Unbounded_Set_Iterator<Handler*> it(set);
    for (Handler** entry = nullptr; it.next(entry) != 0; it.advance()) {
        Handler* const handler = *entry;
        Identity identity;
        identity.updateFromEvent(event);
        handler->identity(identity);
        if (handler->isAgent()) {
            TW_LOG("%D INFO  (%t): Connection from %C activated : %C %d\n", addressText(handler),
                   handler->identity().typeAsString(),
                   static_cast<int>(handler->identity().agentid()));
            replaceOlderConnections(handler);
        } else {
            TW_LOG("%D INFO  (%t): Connection from %C activated : %C\n", addressText(handler),
                   handler->identity().typeAsString());
        }
    }
    return 0;
}

void Engine::replaceOlderConnections(Handler* newer) {
    // One agent id, one connection: an agent that identifies itself again,
    // typically after a reconnect whose old connection has not yet timed
    // out, takes the place of its older connections, which are closed.
    Dispatch_Set set;
    uint32_t const agentid = newer->agentID();
    if (agentid == 0 || m_router == nullptr || m_router->findHandlersByAgentID(agentid, set) == -1)
        return;
    ACE_Unbounded_Set_Iterator<Handler*> it(set);
    for (Handler** entry = nullptr; it.next(entry) != 0; it.advance()) {
        Handler* const older = *entry;
        if (older == newer)
            continue;
        TW_LOG(
            "%D WARN  (%t): Agent %d identified again from %C: closing its older connection "
            "from %C\n",
            static_cast<int>(agentid), addressText(newer), addressText(older));
        older->close(0);
    }
}

void Engine::setMaxMessageSize(uint64_t size) {
    Message_Reader::setMaxMessageSize(size);
}

uint64_t Engine::maxMessageSize() const {
    return Message_Reader::maxMessageSize();
}

// ---------------------------------------------------------------------------
// Connection establishment.

int Engine::makeConnection(const ACE_INET_Addr& address, unsigned long flags,
                           ACE_Synch_Options& options) {
    if ((flags & CONNECTION_PASSIVE) == 0)
        return makeActiveConnection(address, flags, options, nullptr);

    TW_LOG("%D DEBUG (%t): Setting up passive connection.\n");
    // One passive endpoint per process. The pointer only marks that one was
    // made: the reactor deletes the acceptor when it closes it.
    if (m_acceptor != nullptr)
        return -1;
    if (m_reactor == nullptr) {
        errno = EINVAL;
        return -1;
    }

    Acceptor_Base* acceptor = nullptr;
    if ((flags & CONNECTION_SSL) != 0) {
        acceptor = new (std::nothrow) SSLAcceptor(this);
    } else {
        TW_LOG("%D WARN  (%t): Configuring a passive connection using non-encrypted sockets!\n");
        acceptor = new (std::nothrow) PlainAcceptor(this);
    }
    if (acceptor == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    m_acceptor = acceptor;

    if (acceptor->open(address) == -1) {
        int const saved = errno;
        delete acceptor;
        errno = saved;
        return -1;
    }
    if (m_reactor->register_handler(acceptor, ACE_Event_Handler::ACCEPT_MASK) == -1) {
        int const saved = errno;
        delete acceptor;
        errno = saved;
        return -1;
    }
    return 0;
}

int Engine::makeActiveConnection(const ACE_INET_Addr& address, unsigned long flags,
                                 ACE_Synch_Options& options, Handler** handler) {
    TW_LOG("%D DEBUG (%t): Setting up active connection.\n");
    Handler* connection = nullptr;
    if ((flags & CONNECTION_SSL) != 0) {
        TW_LOG("%D DEBUG (%t): Using legacy SSL certificates for authentication.\n");
        connection = new (std::nothrow) SSLHandler();
    } else {
        TW_LOG("%D DEBUG (%t): Using legacy authentication.\n");
        connection = new (std::nothrow) PlainHandler();
    }
    if (connection == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    if (handler == nullptr)
        connection->setEngine(Engine::getSingleton());

    if (connection->connect_to(address, options) == -1) {
        int const saved = errno;
        if (handler == nullptr && connection->reactor() != nullptr) {
            // It failed after entering the reactor (the router refused it, or
            // the identification request found no way): leave as an accepted
            // connection does, through its close path.
            connection->handle_close(ACE_INVALID_HANDLE, 0);
        } else {
            connection->release();
        }
        errno = saved;
        return -1;
    }
    if (handler != nullptr)
        *handler = connection;
    return 0;
}

}  // namespace Tarnwick
