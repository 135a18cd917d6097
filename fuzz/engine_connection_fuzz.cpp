// Fuzz target: a whole connection of the engine, driven by a peer whose bytes
// are the input. The engine listens on a loopback port with no workers (so
// that every message is dispatched on the reactor's thread, here); each input
// is one connection that writes the input in pieces, with reactor passes in
// between, half-closes, reads what comes back, and goes. Headers, payloads,
// partial headers, spills and garbage all arrive as a peer would send them.
// The engine must neither crash nor leak, and must drop or serve the
// connection within a bounded time.
//
// Input layout:
//   byte 0    the size of the pieces the input is written in: 1 + b * 64
//   byte 1..  the bytes of the stream
#include <tarnwick/abstract_event.h>
#include <tarnwick/act_cache.h>
#include <tarnwick/engine.h>
#include <tarnwick/event_factory.h>
#include <tarnwick/handler.h>
#include <tarnwick/identity.h>
#include <tarnwick/router.h>

#include <ace/INET_Addr.h>
#include <ace/Log_Msg.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/SOCK_Acceptor.h>
#include <ace/SOCK_Connector.h>
#include <ace/SOCK_Stream.h>
#include <ace/Synch_Options.h>

#include <sys/socket.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "fuzz_support.h"

namespace {

// Answers version requests, consumes heartbeats and identities, and answers
// everything else with an error reply.
class FuzzEvents : public Tarnwick::EventHandler {
public:
    int handle(Tarnwick::GetVersionEvent* event) override {
        event->reset();
        event->setArg("version", "1");
        return 1;
    }
    int handle(Tarnwick::HeartBeatEvent*) override { return 0; }
    int handle(Tarnwick::IdentityEvent* event) override {
        Tarnwick::Engine::getSingleton()->activate_handler(event);
        return 0;
    }
    int handle_unsupported(Tarnwick::Abstract_Event* event) override {
        return event->error("Unsupported event.", ENOSYS);
    }
};

Tarnwick::Engine* engine = nullptr;
Tarnwick::Router* router = nullptr;
u_short port = 0;

int connections() {
    Tarnwick::Dispatch_Set set;
    if (router->findAllHandlers(set) == -1)
        return 0;
    return static_cast<int>(set.size());
}

// Reads and drops what the engine sent, without waiting.
void drain(ACE_SOCK_Stream& peer) {
    char buffer[16384];
    while (::recv(peer.get_handle(), buffer, sizeof buffer, MSG_DONTWAIT) > 0) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    TarnwickFuzz::silenceLog();
    // The event cache of this process goes to a scratch directory.
    char pattern[] = "/tmp/engine_connection_fuzz.XXXXXX";
    if (::mkdtemp(pattern) == nullptr)
        std::abort();
    ::setenv("TMPDIR", pattern, 1);

    Tarnwick::Identity* self = Tarnwick::Identity::instance();
    self->setName("fuzz");
    self->setType(Tarnwick::Identity::TWAGENT);
    self->setAgentID(1);
    engine = Tarnwick::Engine::getSingleton();
    engine->disableIdentification();
    engine->event_handler(new FuzzEvents(), true);
    router = new Tarnwick::Router();
    engine->router(router, true);
    // Messages up to 1 MiB and spill files up to 4 MiB: the fuzzer may
    // announce anything.
    engine->setMaxMessageSize(1024 * 1024);
    // A peer that half-closes while it is owed replies is waited for this
    // long at most (a minute in production).
    Tarnwick::Handler::Half_Close_Limit = ACE_Time_Value(0, 200000);
    if (engine->open(0, false) == -1)
        std::abort();
    Tarnwick::ACT_Cache::instance()->setQuota(4 * 1024 * 1024);

    ACE_SOCK_Acceptor probe;
    ACE_INET_Addr any(static_cast<u_short>(0), "127.0.0.1");
    if (probe.open(any, 1) == -1)
        std::abort();
    ACE_INET_Addr local;
    probe.get_local_addr(local);
    port = local.get_port_number();
    probe.close();
    ACE_Synch_Options options;
    if (engine->makeConnection(ACE_INET_Addr(port, "127.0.0.1"), Tarnwick::CONNECTION_PASSIVE,
                               options) == -1)
        std::abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > 256 * 1024)
        return 0;
    size_t const piece = 1 + static_cast<size_t>(data[0]) * 64;
    const char* bytes = reinterpret_cast<const char*>(data + 1);
    size_t left = size - 1;

    // Each input comes from another loopback source address, 127.1.x.y. The
    // peer half-closes first, so its end of every connection stays in
    // TIME_WAIT for a minute; from one address, hundreds of inputs a second
    // would use up the ephemeral ports and connect() would fail.
    static uint32_t source = 0;
    source = source % 65000 + 1;
    ACE_INET_Addr const local(static_cast<u_short>(0), (127u << 24) | (1u << 16) | source);
    ACE_SOCK_Stream peer;
    ACE_SOCK_Connector connector;
    if (connector.connect(peer, ACE_INET_Addr(port, "127.0.0.1"), nullptr, local) == -1)
        std::abort();
    for (int i = 0; i < 100 && connections() == 0; ++i)
        engine->run_step();

    while (left > 0) {
        size_t const count = left < piece ? left : piece;
        ssize_t const sent = ::send(peer.get_handle(), bytes, count, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0) {
            bytes += sent;
            left -= static_cast<size_t>(sent);
        } else if (sent < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
            break;  // the engine has dropped us
        }
        engine->run_step();
        drain(peer);
    }
    peer.close_writer();
    // The engine serves what it got and closes; a peer that still owes
    // payload is dropped at its end of stream.
    // Bounded by time, not by passes: a loaded machine runs fewer of them.
    ACE_Time_Value const deadline = ACE_OS::gettimeofday() + ACE_Time_Value(10);
    while (connections() > 0 && ACE_OS::gettimeofday() < deadline) {
        engine->run_step();
        drain(peer);
    }
    if (connections() > 0)
        std::abort();
    peer.close();
    return 0;
}
