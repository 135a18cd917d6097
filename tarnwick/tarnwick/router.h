// The routers of the library: many peers, or a single one.
#pragma once

#include <tarnwick/router_base.h>

#include <ace/Map_Manager.h>
#include <ace/Null_Mutex.h>
#include <ace/Thread_Mutex.h>

#include <atomic>

namespace Tarnwick {

// Keeps any number of connections and finds them by every kind of key,
// newest first.
class Router : public Router_Base {
public:
    Router();
    ~Router() override;

    // Refuses (logged) a connection that matches a stored one.
    int register_handler(Handler* handler) override;
    int remove_handler(Handler* handler) override;

protected:
    int find(const Routing_Key& key, Dispatch_Set& set) override;

private:
    ACE_Thread_Mutex m_lock;
    ACE_Map_Manager<Routing_Key, Handler*, ACE_Thread_Mutex> m_connections;
};

// Keeps one connection, for a client that talks to one server: every event
// goes to it whatever its header says. The first connection stays; the
// removal of any connection clears it.
class SinglePeerRouter : public Router_Base {
public:
    SinglePeerRouter();
    ~SinglePeerRouter() override;

    int register_handler(Handler* handler) override;
    int remove_handler(Handler* handler) override;
    bool isConnected() const;

protected:
    int find(const Routing_Key& key, Dispatch_Set& set) override;

private:
    ACE_Thread_Mutex m_lock;
    // Read without the lock by isConnected and the fast paths, so atomic.
    std::atomic<Handler*> m_peer;
};

}  // namespace Tarnwick
