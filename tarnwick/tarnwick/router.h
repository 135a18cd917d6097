// The routers of the library: many peers, or a single one.
#pragma once

#include <tarnwick/export.h>

#include <tarnwick/act_cache.h>
#include <tarnwick/router_base.h>

#include <ace/Map_Manager.h>
#include <ace/Thread_Mutex.h>

#include <atomic>
#include <vector>

namespace Tarnwick {

// Keeps any number of connections and finds them by every kind of key,
// newest first.
//
// A connection is stored and removed as itself (its pointer), whatever its
// peer says it is: two connections whose peers claim one agent id are two
// entries, and each is removed only by its own remove_handler. Searches
// match the stored connections by Routing_Key, so a ROUTE_AGENT search finds
// both of them. A search by token (ROUTE_ACT, also behind clear_act) asks an
// index of the source tokens of the stored connections, kept in step with
// their lists, instead of every connection.
class TARNWICK_EXPORT Router : public Router_Base {
public:
    Router();
    // Forgets the connections without releasing them.
    ~Router() override;

    // Stores `handler` and takes over the reference that the caller passes.
    // The same connection stored twice is refused (logged, -1; the caller
    // keeps its reference); another connection with the same agent id is
    // not a duplicate. 0, or -1 (also for null, errno EINVAL).
    int register_handler(Handler* handler) override;
    // Forgets `handler` and drops the router's reference on it, once: 0 when
    // it was stored; 1 when it was not (never registered, or removed
    // already), and then nothing is released; -1 when the lock can't be had.
    int remove_handler(Handler* handler) override;

protected:
    int find(const Routing_Key& key, Dispatch_Set& set) override;

private:
    // Adds the stored connections whose source list holds `token` to `set`,
    // newest first, with a reference each; without looking for duplicates
    // when `fresh`. The caller holds m_lock.
    void findByToken(uint32_t token, Dispatch_Set& set, bool fresh);

    ACE_Thread_Mutex m_lock;
    // Each connection by itself: the key is the handler's address.
    ACE_Map_Manager<Handler*, Handler*, ACE_Thread_Mutex> m_connections;
    // The source tokens of the stored connections, each connection with its
    // registration number (the map is walked in the reverse of that order).
    ACT_Index m_tokens;
    uint64_t m_registrations;
    // Stored connections whose source list could not join m_tokens (kept in
    // another router's index, or no memory): while there are any, a search
    // by token walks all connections.
    size_t m_unindexed;
};

// Keeps one connection, for a client that talks to one server: every event
// goes to it whatever its header says. The first connection registered is
// the peer; a later one, while the peer stands, is accepted but never routed
// to. Each connection is removed only by its own remove_handler: the removal
// of another one drops just that one; the removal of the peer makes the
// oldest of the others the peer, or leaves the router unconnected until the
// next registration.
class TARNWICK_EXPORT SinglePeerRouter : public Router_Base {
public:
    SinglePeerRouter();
    // Forgets the connections without releasing them.
    ~SinglePeerRouter() override;

    // Takes over the reference that the caller passes: the first connection
    // becomes the peer, a later one is kept aside. 0; -1 when the lock can't
    // be had, for null (errno EINVAL), or when the same connection is
    // registered twice (the caller keeps its reference).
    int register_handler(Handler* handler) override;
    // Forgets `handler` and drops the router's reference on it, once: 0 when
    // it was registered; 1 when it was not (or was removed already), and then
    // nothing is released; -1 when the lock can't be had.
    int remove_handler(Handler* handler) override;
    bool isConnected() const;

protected:
    int find(const Routing_Key& key, Dispatch_Set& set) override;

private:
    ACE_Thread_Mutex m_lock;
    // Read without the lock by isConnected and the fast paths, so atomic.
    std::atomic<Handler*> m_peer;
    // Connections registered while a peer stood, oldest first: held, not
    // routed to until one of them becomes the peer.
    std::vector<Handler*> m_others;
};

}  // namespace Tarnwick
