#include <tarnwick/abstract_event.h>
#include <tarnwick/handler.h>
#include <tarnwick/log.h>
#include <tarnwick/router_base.h>

#include <ace/Message_Block.h>

#include <cerrno>
#include <iostream>

namespace Tarnwick {

Routing_Key::Routing_Key() : handler(nullptr), type(ROUTE_HANDLER), agentid(0), ACT(0) {}

Routing_Key::Routing_Key(Handler* h) : handler(h), type(ROUTE_HANDLER), agentid(0), ACT(0) {}

Routing_Key::Routing_Key(int t) : handler(nullptr), type(t), agentid(0), ACT(0) {}

Routing_Key& Routing_Key::operator=(const Routing_Key& other) {
    handler = other.handler;
    type = other.type;
    agentid = other.agentid;
    return *this;
}

bool Routing_Key::operator==(const Routing_Key& query) const {
    switch (query.type) {
        case ROUTE_HANDLER:
            if (handler != nullptr && query.handler != nullptr) {
                uint32_t const stored = handler->agentID();
                uint32_t const queried = query.handler->agentID();
                if (stored != 0 && queried != 0)
                    return stored == queried;
            }
            return handler == query.handler;
        case ROUTE_ALL:
            return true;
        case ROUTE_ALL_AGENTS:
            return handler != nullptr && handler->isAgent();
        case ROUTE_AGENT:
            return handler != nullptr && query.agentid != 0 && handler->agentID() == query.agentid;
        case ROUTE_ACT:
            return handler != nullptr && handler->getSourceACT().contains(query.ACT);
        case ROUTE_CONNECTOR:
            return handler != nullptr && handler->isInitiatedByConnector();
        default:
            return false;
    }
}

void Routing_Key::dump() const {
    std::cout << (handler != nullptr ? "this.handler != 0" : "this.handler == 0") << '\n'
              << "Type: " << type << '\n'
              << "ACT: " << ACT << '\n'
              << "AgentID: " << agentid << '\n';
}

Dispatch_Set::Dispatch_Set() = default;

Dispatch_Set::~Dispatch_Set() {
    release();
}

void Dispatch_Set::release() {
    for (ACE_Unbounded_Set<Handler*>::iterator it = begin(); it != end(); ++it)
        (*it)->release();
    reset();
}

int Dispatch_Set::append(Handler* handler) {
    return insert_tail(handler);
}

Router_Base::Router_Base() = default;
Router_Base::~Router_Base() = default;

bool Router_Base::isLocal(Abstract_Event*) {
    return true;
}
bool Router_Base::isAuthorized(Abstract_Event*) {
    return true;
}
int Router_Base::default_filter_type() {
    return Routing_Key::ROUTE_HANDLER;
}
void Router_Base::destroy() {
    delete this;
}

int Router_Base::forward(Abstract_Event* event) {
    if (event == nullptr) {
        TW_LOG_ERRNO("%D ERROR (%t): Invalid event object : NULL\n");
        return -1;
    }
    uint32_t const act = event->getACT();
    if (act == 0) {
        TW_LOG_ERRNO("%D ERROR (%t): Invalid event: no return path\n");
        return -1;
    }
    Routing_Key key;
    if (event->isResult()) {
        key.type = Routing_Key::ROUTE_ACT;
        key.ACT = act;
    } else if (event->getAgentID() != 0) {
        key.type = Routing_Key::ROUTE_AGENT;
        key.agentid = event->getAgentID();
    } else if (event->isBroadCast()) {
        TW_LOG("%D DEBUG (%t): Broadcasting event object to all Agents!\n");
        key.type = Routing_Key::ROUTE_ALL_AGENTS;
    } else {
        key.type = default_filter_type();
    }
    if (forward(event, key) == -1) {
        if (errno != 0) {
            TW_LOG("%D ERROR (%t): An error occurred while forwarding an event: %m\n");
        } else {
            TW_LOG("%D ERROR (%t): An unknown error occurred while forwarding an event.\n");
        }
        return -1;
    }
    return 0;
}

int Router_Base::forward(Abstract_Event* event, const Routing_Key& key) {
    Dispatch_Set set;
    if (find(key, set) == -1)
        return -1;
    return forward(event, set);
}

int Router_Base::forward(Abstract_Event* event, Dispatch_Set& set) {
    if (event == nullptr) {
        TW_LOG_ERRNO("%D ERROR (%t): Trying to forward NULL event object.\n");
        return -1;
    }
    ACE_Message_Block* block = event->data(true);
    if (block == nullptr)
        return -1;
    uint32_t const act = Abstract_Event::GetACT(block);
    bool const result = event->isResult();
    for (ACE_Unbounded_Set<Handler*>::iterator it = set.begin(); it != set.end(); ++it) {
        Handler* handler = *it;
        if (result) {
            if (handler->forward(block) == 0)
                handler->getSourceACT().remove(act);
            continue;
        }
        // A request's token is noted before its bytes can leave: forward may
        // write them at once, on this thread, and the reply that clears the
        // token can then come back before forward has returned. A refused
        // request takes back a token that it added.
        bool added = false;
        handler->getTargetACT().add(act, &added);
        if (handler->forward(block) != 0 && added)
            handler->getTargetACT().remove(act);
    }
    block->release();
    return 0;
}

int Router_Base::findHandlersByACT(uint32_t act, Dispatch_Set& set) {
    Routing_Key key(Routing_Key::ROUTE_ACT);
    key.ACT = act;
    return find(key, set);
}

int Router_Base::findHandlersByAgentID(uint32_t agentid, Dispatch_Set& set) {
    Routing_Key key(Routing_Key::ROUTE_AGENT);
    key.agentid = agentid;
    return find(key, set);
}

int Router_Base::findOtherHandlersByAgentID(Handler* handler, Dispatch_Set& set) {
    uint32_t const agentid = handler != nullptr ? handler->agentID() : 0;
    if (agentid == 0)
        return -1;
    findHandlersByAgentID(agentid, set);
    // The handler itself, if it stands in the router, came with the others:
    // take it out with the reference the search gave it.
    if (set.remove(handler) == 0)
        handler->release();
    return set.is_empty() ? -1 : 0;
}

int Router_Base::findAllHandlers(Dispatch_Set& set) {
    return find(Routing_Key(Routing_Key::ROUTE_ALL), set);
}

int Router_Base::clear_act(uint32_t act) {
    Dispatch_Set set;
    if (findHandlersByACT(act, set) == 0) {
        for (ACE_Unbounded_Set<Handler*>::iterator it = set.begin(); it != set.end(); ++it) {
            (*it)->getSourceACT().remove(act);
        }
    }
    return 0;
}

int Router_Base::closeAllConnections() {
    Dispatch_Set set;
    if (findAllHandlers(set) == 0) {
        TW_LOG("%D DEBUG (%t): Closing all open network connections.\n");
        for (ACE_Unbounded_Set<Handler*>::iterator it = set.begin(); it != set.end(); ++it) {
            (*it)->close(0);
        }
    }
    return 0;
}

}  // namespace Tarnwick
