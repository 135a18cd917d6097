#include <tarnwick/handler.h>
#include <tarnwick/log.h>
#include <tarnwick/router.h>

#include <ace/Guard_T.h>

#include <algorithm>
#include <cerrno>

namespace Tarnwick {

namespace {

typedef ACE_Map_Iterator<Handler*, Handler*, ACE_Thread_Mutex> ConnectionIterator;

// Adds a found connection to `set` with a reference of its own, unless the
// set holds it already. A set that was empty before the search (`fresh`)
// receives only distinct stored connections, so it is not searched.
void addFound(Dispatch_Set& set, Handler* handler, bool fresh) {
    if ((fresh ? set.append(handler) : set.insert(handler)) == 0)
        handler->duplicate();
}

}  // namespace

Router::Router() : m_registrations(0), m_unindexed(0) {}

// The map closes itself; the handlers' references are not released here,
// but their source lists leave the index that dies with the router.
Router::~Router() {
    for (ConnectionIterator it(m_connections); !it.done(); it.advance())
        (*it).int_id_->getSourceACT().detach();
}

int Router::register_handler(Handler* handler) {
    if (handler == nullptr) {
        errno = EINVAL;
        return -1;
    }
    ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
    if (!guard.locked())
        return -1;
    // A duplicate is the same connection: two connections whose peers claim
    // one agent id are both stored, and the engine decides about them once
    // they have identified.
    Handler* stored = nullptr;
    if (m_connections.find(handler, stored) == 0) {
        TW_LOG_ERRNO("%D ERROR (%t): Duplicate entry found in connection map.");
        return -1;
    }
    if (m_connections.bind(handler, handler) == -1) {
        TW_LOG_ERRNO("%D ERROR (%t): Can not bind connection to connection map.");
        return -1;
    }
    // From here on the connection's source tokens are in the index; a list
    // that can't join it makes searches by token walk every connection.
    if (handler->getSourceACT().attach(&m_tokens, handler, ++m_registrations) == -1)
        ++m_unindexed;
    TW_LOG("%D DEBUG (%t): Connection stored in connection map: %d items\n",
           static_cast<int>(m_connections.current_size()));
    return 0;
}

int Router::remove_handler(Handler* handler) {
    if (handler == nullptr)
        return 1;
    {
        ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
        if (!guard.locked())
            return -1;
        // Only the entry of this very connection goes, and the router's
        // reference is dropped only when there was one: a second removal, or
        // the removal of a connection that was never stored, changes nothing.
        if (m_connections.unbind(handler) == -1)
            return 1;
        ACT_List& tokens = handler->getSourceACT();
        if (tokens.attachedTo(&m_tokens))
            tokens.detach();
        else if (m_unindexed > 0)
            --m_unindexed;
    }
    // Outside the lock: this may end the handler.
    handler->release();
    return 0;
}

int Router::find(const Routing_Key& key, Dispatch_Set& set) {
    ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
    if (!guard.locked())
        return -1;
    // The stored connections are distinct: into a set that was empty they
    // go without a search for duplicates.
    bool const fresh = set.is_empty();
    if (key.type == Routing_Key::ROUTE_ACT && m_unindexed == 0) {
        findByToken(key.ACT, set, fresh);
    } else {
        // The map's entries are walked newest first.
        for (ConnectionIterator it(m_connections); !it.done(); it.advance()) {
            Handler* handler = (*it).int_id_;
            if (Routing_Key(handler) == key)
                addFound(set, handler, fresh);
        }
    }
    return set.is_empty() ? -1 : 0;
}

void Router::findByToken(uint32_t token, Dispatch_Set& set, bool fresh) {
    // Mostly one connection holds a token; a few room on the stack.
    ACT_Index::Holder local[8];
    std::vector<ACT_Index::Holder> more;
    ACT_Index::Holder* holders = local;
    size_t room = sizeof local / sizeof local[0];
    size_t count = m_tokens.find(token, holders, room);
    while (count > room) {
        try {
            more.resize(count);
        } catch (...) {
            return;
        }
        holders = more.data();
        room = count;
        count = m_tokens.find(token, holders, room);
    }
    // In the order of the walk over the map: newest registration first.
    std::sort(holders, holders + count, [](const ACT_Index::Holder& a, const ACT_Index::Holder& b) {
        return a.order > b.order;
    });
    for (size_t i = 0; i < count; ++i) {
        addFound(set, holders[i].handler, fresh);
    }
}

SinglePeerRouter::SinglePeerRouter() : m_peer(nullptr) {}

SinglePeerRouter::~SinglePeerRouter() = default;

int SinglePeerRouter::register_handler(Handler* handler) {
    if (handler == nullptr) {
        errno = EINVAL;
        return -1;
    }
    ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
    if (!guard.locked())
        return -1;
    if (m_peer == handler || std::find(m_others.begin(), m_others.end(), handler) != m_others.end())
        return -1;
    if (m_peer == nullptr) {
        m_peer = handler;
        return 0;
    }
    try {
        m_others.push_back(handler);
    } catch (...) {
        errno = ENOMEM;
        return -1;
    }
    return 0;
}

int SinglePeerRouter::remove_handler(Handler* handler) {
    if (handler == nullptr)
        return 1;
    {
        ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
        if (!guard.locked())
            return -1;
        if (m_peer == handler) {
            // The oldest connection kept aside, if any, takes the peer's place.
            if (m_others.empty()) {
                m_peer = nullptr;
            } else {
                m_peer = m_others.front();
                m_others.erase(m_others.begin());
            }
        } else {
            std::vector<Handler*>::iterator const it =
                std::find(m_others.begin(), m_others.end(), handler);
            if (it == m_others.end())
                return 1;
            m_others.erase(it);
        }
    }
    // Outside the lock: this may end the handler.
    handler->release();
    return 0;
}

int SinglePeerRouter::find(const Routing_Key&, Dispatch_Set& set) {
    if (m_peer == nullptr)
        return -1;
    ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
    Handler* peer = m_peer;
    if (!guard.locked() || peer == nullptr)
        return -1;
    addFound(set, peer, set.is_empty());
    return 0;
}

bool SinglePeerRouter::isConnected() const {
    return m_peer != nullptr;
}

}  // namespace Tarnwick
