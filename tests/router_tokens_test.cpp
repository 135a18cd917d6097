// Searches by token through a running engine, without workers and with two:
// the connections found for a token are those whose source list holds it,
// while requests arrive, are consumed, relayed and answered, and connections
// close with tokens open.
//
// Each test runs in a child process of its own (the engine is one object per
// process and keeps its listener); the peers are handlers driven by hand, as
// in the other engine suites.
#include <tarnwick/abstract_event.h>
#include <tarnwick/act_cache.h>
#include <tarnwick/engine.h>
#include <tarnwick/event_factory.h>
#include <tarnwick/handler.h>
#include <tarnwick/router.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "engine_peers.h"
#include "engine_setup.h"
#include "forked.h"
#include "pump.h"
#include "scratch_dir.h"

using namespace Tarnwick;
using namespace TarnwickTest;

namespace {

const ::testing::Environment* const scratch_tmpdir =
    ::testing::AddGlobalTestEnvironment(scratchTmpdir("router_tokens_test"));

// The connections that a search by `token` finds, in the order found.
std::vector<Handler*> holders(Router_Base* router, uint32_t token) {
    std::vector<Handler*> found;
    Dispatch_Set set;
    if (router->findHandlersByACT(token, set) == 0) {
        for (Handler* handler : set)
            found.push_back(handler);
    }
    return found;
}

// The connections whose source list holds `token`, asked one by one, newest
// first: what a search by token must find.
std::vector<Handler*> listed(Router_Base* router, uint32_t token) {
    std::vector<Handler*> found;
    Dispatch_Set set;
    if (router->findAllHandlers(set) == 0) {
        for (Handler* handler : set) {
            if (handler->getSourceACT().contains(token))
                found.push_back(handler);
        }
    }
    return found;
}

class RouterTokens : public ::testing::TestWithParam<int> {
protected:
    int threads() const { return GetParam(); }
};

INSTANTIATE_TEST_SUITE_P(Workers, RouterTokens, ::testing::Values(0, 2), workersName);

}  // namespace

// Two connections send a request under one token that the handler consumes:
// the token leaves both source lists, and no search finds it.
TEST_P(RouterTokens, OneTokenConsumedFromTwoConnectionsIsClearedOnBoth) {
    int const workers = threads();
    inChild([workers] {
        EngineSetup setup = start(workers, new TestRouter(), false);
        Engine* engine = setup.engine;
        u_short const port = startListening(engine);
        Peer first(port);
        Peer second(port);
        ASSERT_TRUE(first.connected() && second.connected());
        uint32_t const token = 0x5eed;
        auto shared = [](Abstract_Event* event) { event->setACT(token); };
        ASSERT_EQ(first.send(KICK_EVENT, shared), token);
        ASSERT_EQ(second.send(KICK_EVENT, shared), token);
        ASSERT_TRUE(pumpUntil(engine, [&] { return setup.handler->seen(KICK_EVENT) == 2; }));
        EXPECT_TRUE(pumpUntil(engine, [&] {
            return holders(setup.router, token).empty() && listed(setup.router, token).empty();
        }));
        EXPECT_EQ(openTokens(setup.router), 0u);
        engine->shutdown();
    });
}

// Two connections ask an agent under one token, and the peer of one of them
// closes while the request is open: its connection waits for the answer
// (a peer may have closed only its sending side), which goes to both by the
// token and clears it on both; then that connection ends. A connection that
// the engine closes with a request open is no longer found by its token.
TEST_P(RouterTokens, ConnectionsClosedWithATokenOpenAreNoLongerFound) {
    int const workers = threads();
    inChild([workers] {
        EngineSetup setup = start(workers, new TestRouter(Routing_Key::ROUTE_HANDLER, true), false);
        Engine* engine = setup.engine;
        u_short const port = startListening(engine);
        Peer agent(port);
        ASSERT_TRUE(identifyAsAgent(setup, agent, 7));
        std::unique_ptr<Peer> leaving(new Peer(port));
        Peer staying(port);
        uint32_t token = 0xfeed;
        auto toAgent = [&token](Abstract_Event* event) {
            event->setACT(token);
            event->setAgentID(7);
        };
        ASSERT_EQ(leaving->send(GET_VERSION_EVENT, toAgent), token);
        Abstract_Event* request = agent.receive(engine);
        ASSERT_NE(request, nullptr);
        request->destroy();
        ASSERT_EQ(staying.send(GET_VERSION_EVENT, toAgent), token);
        request = agent.receive(engine);
        ASSERT_NE(request, nullptr);
        std::vector<Handler*> const both = holders(setup.router, token);
        EXPECT_EQ(both.size(), 2u);
        EXPECT_EQ(both, listed(setup.router, token));

        leaving.reset();
        EXPECT_TRUE(staying.quiet(engine));
        EXPECT_EQ(holders(setup.router, token), both);
        request->reset();
        request->setResult(true);
        request->setAgentID(0);
        request->setArg("version", "7.0");
        ASSERT_TRUE(agent.send(request));
        request->destroy();
        Abstract_Event* reply = staying.receive(engine);
        ASSERT_NE(reply, nullptr);
        EXPECT_EQ(reply->getACT(), token);
        EXPECT_EQ(argOf(reply, "version"), "7.0");
        reply->destroy();
        EXPECT_TRUE(pumpUntil(engine, [&] { return connections(setup.router) == 2; }));
        EXPECT_TRUE(holders(setup.router, token).empty());
        EXPECT_TRUE(listed(setup.router, token).empty());

        // The engine closes a connection that has a request open.
        token = 0xbeef;
        ASSERT_EQ(staying.send(GET_VERSION_EVENT, toAgent), token);
        request = agent.receive(engine);
        ASSERT_NE(request, nullptr);
        request->destroy();
        std::vector<Handler*> const open = holders(setup.router, token);
        ASSERT_EQ(open.size(), 1u);
        open.front()->close(0);
        EXPECT_TRUE(pumpUntil(engine, [&] { return connections(setup.router) == 1; }));
        EXPECT_TRUE(holders(setup.router, token).empty());
        EXPECT_TRUE(staying.closed(engine));
        engine->shutdown();
    });
}

// Requests relayed to an agent stay open until it answers: at each point
// where nothing moves, every search by token finds exactly the connections
// whose list holds it, newest first; answered, the tokens are gone.
TEST_P(RouterTokens, SearchesAgreeWithTheListsWhileRequestsAreRelayed) {
    int const workers = threads();
    inChild([workers] {
        EngineSetup setup = start(workers, new TestRouter(Routing_Key::ROUTE_HANDLER, true), false);
        Engine* engine = setup.engine;
        u_short const port = startListening(engine);
        Peer agent(port);
        ASSERT_TRUE(identifyAsAgent(setup, agent, 7));
        std::vector<std::unique_ptr<Peer>> peers;
        for (int i = 0; i < 3; ++i) {
            peers.emplace_back(new Peer(port));
            ASSERT_TRUE(peers.back()->connected());
        }
        for (uint32_t round = 0; round < 10; ++round) {
            std::vector<uint32_t> tokens;
            for (size_t i = 0; i < peers.size(); ++i) {
                uint32_t const token = 1000 + round * 10 + static_cast<uint32_t>(i);
                tokens.push_back(token);
                ASSERT_EQ(peers[i]->send(GET_VERSION_EVENT,
                                         [token](Abstract_Event* event) {
                                             event->setACT(token);
                                             event->setAgentID(7);
                                         }),
                          token);
            }
            std::vector<Abstract_Event*> requests;
            for (size_t i = 0; i < peers.size(); ++i) {
                requests.push_back(agent.receive(engine));
                ASSERT_NE(requests.back(), nullptr);
            }
            for (uint32_t const token : tokens) {
                std::vector<Handler*> const found = holders(setup.router, token);
                EXPECT_EQ(found.size(), 1u);
                EXPECT_EQ(found, listed(setup.router, token));
            }
            // Answered in the reverse of their arrival (with workers, the
            // agent may get them in another order than they were sent);
            // each reply goes back to the peer that asked under its token.
            for (size_t i = requests.size(); i-- > 0;) {
                Abstract_Event* request = requests[i];
                uint32_t const token = request->getACT();
                size_t const asker =
                    std::find(tokens.begin(), tokens.end(), token) - tokens.begin();
                ASSERT_LT(asker, peers.size());
                request->reset();
                request->setResult(true);
                request->setAgentID(0);
                ASSERT_TRUE(agent.send(request));
                request->destroy();
                Abstract_Event* reply = peers[asker]->receive(engine);
                ASSERT_NE(reply, nullptr);
                EXPECT_EQ(reply->getACT(), token);
                reply->destroy();
            }
            EXPECT_TRUE(pumpUntil(engine, [&] { return openTokens(setup.router) == 0; }));
            for (uint32_t const token : tokens)
                EXPECT_TRUE(holders(setup.router, token).empty());
        }
        engine->shutdown();
    });
}
