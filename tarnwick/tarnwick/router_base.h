// Routing: from what an event's header says to the connections it goes to.
#pragma once

#include <tarnwick/export.h>

#include <ace/Unbounded_Set.h>

#include <cstdint>

namespace Tarnwick {

class Abstract_Event;
class Handler;

// What a router searches by. A stored key carries a connection; a query
// carries the kind of search (type) and its argument. Matching is not
// symmetric: `stored == query`.
class TARNWICK_EXPORT Routing_Key {
public:
    enum {
        ROUTE_HANDLER = 0,     // the same connection, or the same agent id for two agents
        ROUTE_ALL = 1,         // every connection
        ROUTE_ALL_AGENTS = 2,  // every identified agent
        ROUTE_AGENT = 3,       // the agent with `agentid`
        ROUTE_ACT = 4,         // the connections whose source tokens hold `ACT`
        ROUTE_CONNECTOR = 5    // the connections this side made
    };

    Routing_Key();
    explicit Routing_Key(Handler* handler);
    explicit Routing_Key(int type);
    Routing_Key(const Routing_Key& other) = default;
    // Copies handler, type and agentid; the target keeps its ACT.
    Routing_Key& operator=(const Routing_Key& other);

    // True when this stored key matches the query `query`.
    bool operator==(const Routing_Key& query) const;
    // Prints the key to standard output.
    void dump() const;

    Handler* handler;
    int type;
    uint32_t agentid;
    uint32_t ACT;
};

// The connections a search yielded, each with a reference of its own that
// the destructor releases. Copies take no references: don't copy a set
// whose destructor will run.
class TARNWICK_EXPORT Dispatch_Set : public ACE_Unbounded_Set<Handler*> {
public:
    Dispatch_Set();
    virtual ~Dispatch_Set();
    // Releases every handler and empties the set.
    void release();
    // Adds `handler`, which the caller knows the set does not hold, at the
    // end without looking for it (insert() looks, and so takes time in the
    // size of the set). Takes no reference. 0, or -1 when memory fails.
    int append(Handler* handler);
};

// Decides where events go and sends them. Subclasses keep the connections;
// an application may subclass to say which events are local and which are
// allowed (both yes here) and which kind of search serves events that name
// no destination (ROUTE_HANDLER here, which finds nothing).
class TARNWICK_EXPORT Router_Base {
public:
    Router_Base();
    virtual ~Router_Base();

    // Takes over the handler's first reference. 0, or -1 when it is refused
    // (the caller keeps the reference).
    virtual int register_handler(Handler* handler) = 0;
    // Forgets this very connection (not another one that matches it by
    // agent id) and drops the router's reference on it, exactly once. 0 when
    // it was registered; 1 when it was not, or was removed already: nothing
    // is released then; -1 when the router's lock can't be had.
    virtual int remove_handler(Handler* handler) = 0;
    virtual bool isLocal(Abstract_Event* event);
    virtual bool isAuthorized(Abstract_Event* event);

    // Sends `event` by its header: a result by its token, else to its agent
    // id, else as a broadcast to all agents, else by default_filter_type().
    // 0, or -1 (logged) when it has no token or no connection was found.
    int forward(Abstract_Event* event);
    // Sends to the connections that `key` finds. 0 or -1.
    int forward(Abstract_Event* event, const Routing_Key& key);
    // Sends to every connection of `set`, noting the token in each target
    // (request) or clearing it from each source (result) list. 0, also when
    // every connection failed.
    int forward(Abstract_Event* event, Dispatch_Set& set);

    // The searches of kind ROUTE_ACT, ROUTE_AGENT and ROUTE_ALL: each adds a
    // reference to every matching connection to `set`. 0 when the set holds
    // anything afterwards, else -1.
    int findHandlersByACT(uint32_t act, Dispatch_Set& set);
    // Every connection whose peer identified as an agent with `agentid`
    // (none for 0); several when several connections claim one id.
    int findHandlersByAgentID(uint32_t agentid, Dispatch_Set& set);
    // The connections other than `handler` whose peer identified as an agent
    // with the agent id of `handler`: those that a new identification of that
    // agent makes stale. `set` should be empty. 0 when it found any, -1 when
    // none or when `handler` is no agent.
    int findOtherHandlersByAgentID(Handler* handler, Dispatch_Set& set);
    int findAllHandlers(Dispatch_Set& set);
    // Removes `act` from every connection's source tokens: one search by
    // token (constant time on a Router, whatever the number of connections).
    // 0, found or not.
    int clear_act(uint32_t act);
    // Closes every connection. 0.
    int closeAllConnections();
    void destroy();

protected:
    virtual int default_filter_type();
    // Fills `set` with a reference to each matching connection. 0 when it
    // found any, else -1.
    virtual int find(const Routing_Key& key, Dispatch_Set& set) = 0;
};

}  // namespace Tarnwick
