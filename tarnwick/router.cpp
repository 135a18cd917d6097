#include <tarnwick/handler.h>
#include <tarnwick/log.h>
#include <tarnwick/router.h>

#include <ace/Guard_T.h>

namespace Tarnwick {

namespace {

typedef ACE_Map_Manager<Routing_Key, Handler*, ACE_Thread_Mutex> ConnectionMap;
typedef ACE_Map_Iterator<Routing_Key, Handler*, ACE_Thread_Mutex> ConnectionIterator;

}  // namespace

Router::Router() = default;

// The map closes itself; the handlers' references are not released here.
Router::~Router() = default;

int Router::register_handler(Handler* handler) {
    ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
    if (!guard.locked())
        return -1;
    Routing_Key const key(handler);
    // The map's entries are walked newest first, as find does.
    for (ConnectionIterator it(m_connections); !it.done(); it.advance()) {
        if ((*it).ext_id_ == key) {
            TW_LOG_ERRNO("%D ERROR (%t): Duplicate entry found in connection map.");
            return -1;
        }
    }
    if (m_connections.bind(key, handler) == -1) {
        TW_LOG_ERRNO("%D ERROR (%t): Can not bind connection to connection map.");
        return -1;
    }
    TW_LOG("%D DEBUG (%t): Connection stored in connection map: %d items\n",
           static_cast<int>(m_connections.current_size()));
    return 0;
}

int Router::remove_handler(Handler* handler) {
    ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
    if (!guard.locked())
        return -1;
    m_connections.unbind(Routing_Key(handler));
    handler->release();
    return 0;
}

int Router::find(const Routing_Key& key, Dispatch_Set& set) {
    ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
    if (!guard.locked())
        return -1;
    for (ConnectionIterator it(m_connections); !it.done(); it.advance()) {
        if ((*it).ext_id_ == key && set.insert((*it).int_id_) == 0)
            (*it).int_id_->duplicate();
    }
    return set.is_empty() ? -1 : 0;
}

SinglePeerRouter::SinglePeerRouter() : m_peer(nullptr) {}

SinglePeerRouter::~SinglePeerRouter() = default;

int SinglePeerRouter::register_handler(Handler* handler) {
    if (m_peer != nullptr)
        return 0;
    ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
    if (!guard.locked())
        return -1;
    if (m_peer == nullptr)
        m_peer = handler;
    return 0;
}

int SinglePeerRouter::remove_handler(Handler*) {
    if (m_peer == nullptr)
        return 0;
    ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
    if (!guard.locked())
        return -1;
    if (Handler* peer = m_peer.exchange(nullptr))
        peer->release();
    return 0;
}

int SinglePeerRouter::find(const Routing_Key&, Dispatch_Set& set) {
    if (m_peer == nullptr)
        return -1;
    ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
    Handler* peer = m_peer;
    if (!guard.locked() || peer == nullptr)
        return -1;
    if (set.insert(peer) == 0)
        peer->duplicate();
    return 0;
}

bool SinglePeerRouter::isConnected() const {
    return m_peer != nullptr;
}

}  // namespace Tarnwick
