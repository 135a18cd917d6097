// connections: what many concurrent connections cost an engine, and what
// many unanswered requests cost a sender.
//
// Rows:
//  - heartbeat to all: a client process opens N (default 10,000) plain
//    connections to an engine (room Engine::Reactor_Handles raised to N plus
//    a margin) and one more for a stream; once the engine holds them all, it
//    calls sendGlobalHeartBeat(), and the client reports when the last of
//    the N has received the whole message. The raw baseline writes the same
//    number of bytes with write(2) to N accepted plain sockets. Both rows
//    use the same client, which reads all N sockets through one epoll set.
//    The time that the sending call itself takes (sendGlobalHeartBeat, or
//    the loop of write(2) calls) is printed too: what is left of the row is
//    the client's reading.
//  - stream, N idle / 0 idle: the client sends M (default 200,000) 64-byte
//    binary events on the stream connection, after one 0-byte event that
//    starts the engine's clock; the figure is the engine's time per event,
//    first to last, with the N idle connections open and with none. The raw
//    baseline reads the same frames from a plain socket, frame by frame.
//  - forward, open requests: an engine without workers forwards R (default
//    1,000,000) GetVersionEvents through Engine::forward to a peer that
//    reads and never answers, so each one's token stays in the connection's
//    list of open requests (up to its capacity, then the oldest goes). The
//    time per event of the first thousand, of the last thousand and of all
//    R are printed, in wall-clock time and in the CPU time of the
//    forwarding thread: once the socket's buffers are full, the wall-clock
//    rate is the pace at which the peer reads, the CPU time is the engine's
//    own cost.
//
// Usage: connections [N [M [R [ROUNDS]]]]
#include "bench_util.h"

#include <tarnwick/abstract_event.h>
#include <tarnwick/act_cache.h>
#include <tarnwick/engine.h>
#include <tarnwick/event_factory.h>
#include <tarnwick/handler.h>
#include <tarnwick/message_header.h>
#include <tarnwick/router.h>

#include <ace/INET_Addr.h>
#include <ace/Reactor.h>
#include <ace/Synch_Options.h>
#include <ace/Time_Value.h>

#include <sys/epoll.h>

#include <ctime>

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

using namespace Tarnwick;

namespace {

const unsigned CHILD_LIMIT = 300;
const double WAIT_LIMIT = 120.0;

enum { R_HEARD = 1 };

// The CPU time of the calling thread, in seconds.
double threadSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

bool raiseDescriptorLimit(rlim_t needed) {
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) == -1)
        return false;
    if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max < needed)
        return false;
    if (limit.rlim_cur < needed) {
        limit.rlim_cur = needed;
        return setrlimit(RLIMIT_NOFILE, &limit) == 0;
    }
    return true;
}

std::string frameHeader(uint32_t type, uint32_t size, bool binary) {
    Message_Header header;
    header.setACT(0);
    header.setType(type);
    header.setSize(size);
    header.setBinary(binary);
    header.encode();
    return std::string(reinterpret_cast<const char*>(&header), sizeof header);
}

// The bytes of the engine's heartbeat message on the wire.
size_t heartbeatSize() {
    Abstract_Event* heartbeat = Event_Factory::create(HEART_BEAT_EVENT);
    if (heartbeat == nullptr)
        return 0;
    heartbeat->setBroadCast(false);
    ACE_Message_Block* block = heartbeat->data(false);
    size_t const size = block != nullptr ? block->total_length() : 0;
    heartbeat->destroy();
    return size;
}

// --- the client process -----------------------------------------------------

// Opens `idle` connections and then the stream connection; waits until each
// idle one has received `heartbeat` bytes and reports when; then sends the
// stream (a 0-byte event and `events` 64-byte ones) and waits for the end.
int client(bench::Reporter& reporter, uint16_t port, int idle, size_t heartbeat, uint64_t events) {
    if (!raiseDescriptorLimit(static_cast<rlim_t>(idle) + 200))
        return 1;
    std::vector<int> fds;
    fds.reserve(static_cast<size_t>(idle));
    for (int i = 0; i < idle; ++i) {
        int const fd = bench::connectLoopback(port);
        if (fd == -1) {
            std::fprintf(stderr, "client: connection %d failed: %s\n", i, std::strerror(errno));
            return 1;
        }
        fds.push_back(fd);
        // The listener's backlog is short (5): a connect that finds it full
        // waits a second for its SYN to be sent again. A little pacing keeps
        // the acceptor ahead.
        if (i % 4 == 3)
            usleep(1000);
    }
    int const stream = bench::connectLoopback(port);
    if (stream == -1)
        return 1;

    bench::Report report{};
    if (idle > 0) {
        int const poller = epoll_create1(EPOLL_CLOEXEC);
        std::vector<size_t> got(fds.size(), 0);
        for (size_t i = 0; i < fds.size(); ++i) {
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.u64 = i;
            epoll_ctl(poller, EPOLL_CTL_ADD, fds[i], &event);
        }
        size_t complete = 0;
        double heard = 0.0;
        double const deadline = bench::now() + WAIT_LIMIT;
        std::vector<epoll_event> ready(1024);
        char buffer[4096];
        while (complete < fds.size() && bench::now() < deadline) {
            int const n = epoll_wait(poller, ready.data(), static_cast<int>(ready.size()), 100);
            for (int k = 0; k < n; ++k) {
                size_t const i = ready[k].data.u64;
                ssize_t const count = ::recv(fds[i], buffer, sizeof buffer, MSG_DONTWAIT);
                if (count <= 0) {
                    epoll_ctl(poller, EPOLL_CTL_DEL, fds[i], nullptr);
                    continue;
                }
                size_t const before = got[i];
                got[i] += static_cast<size_t>(count);
                if (before < heartbeat && got[i] >= heartbeat) {
                    ++complete;
                    heard = bench::now();
                }
            }
        }
        ::close(poller);
        report.value[R_HEARD] = complete == fds.size() ? heard : 0.0;
    }
    reporter.send(report);

    std::string const payload(64, 'p');
    std::string const frame = frameHeader(UPLOAD_EVENT, 64, true) + payload;
    std::string const warmup = frameHeader(UPLOAD_EVENT, 0, true);
    std::string batch;
    for (int i = 0; i < 256; ++i)
        batch += frame;
    bool ok = bench::writeFull(stream, warmup.data(), warmup.size());
    uint64_t sent = 0;
    while (ok && sent + 256 <= events) {
        ok = bench::writeFull(stream, batch.data(), batch.size());
        sent += 256;
    }
    for (; ok && sent < events; ++sent)
        ok = bench::writeFull(stream, frame.data(), frame.size());
    // The server closes the stream when it has counted all; what it sent
    // before (a heartbeat) is read and dropped.
    char byte[4096];
    while (ok && ::read(stream, byte, sizeof byte) > 0) {
    }
    ::close(stream);
    for (int const fd : fds)
        ::close(fd);
    return ok ? 0 : 1;
}

// --- the engine ----------------------------------------------------------------

class Counter : public EventHandler {
public:
    int handle(UploadEvent*) override {
        double const t = bench::now();
        if (m_count++ == 0)
            m_start = t;
        m_end = t;
        return 0;
    }
    uint64_t count() const { return m_count; }
    double seconds() const { return m_end - m_start; }

private:
    uint64_t m_count = 0;
    double m_start = 0.0;
    double m_end = 0.0;
};

struct Outcome {
    bool ok = false;
    double heartbeat_ms = 0.0;  // send to last delivery; 0 without idle ones
    double send_ms = 0.0;       // the sending call alone
    double per_event_us = 0.0;
};

Outcome withEngine(int idle, uint64_t events) {
    Outcome outcome;
    Engine* engine = Engine::getSingleton();
    engine->disableIdentification();
    Counter counter;
    engine->event_handler(&counter, false);
    engine->router(new Router(), true);
    // A raised room, so that both the idle and the empty runs have the
    // epoll reactor.
    Engine::Reactor_Handles = std::max<size_t>(2048, static_cast<size_t>(idle) + 200);
    if (engine->open(0, false) == -1) {
        std::fprintf(stderr, "connections: the engine did not open: %s\n", std::strerror(errno));
        return outcome;
    }
    u_short const port = bench::engineListen(engine);
    size_t const heartbeat = heartbeatSize();
    bench::Child peer;
    if (port == 0 || !peer.spawn("client", CHILD_LIMIT, [&](bench::Reporter& r) {
            return client(r, port, idle, heartbeat, events);
        })) {
        engine->shutdown();
        return outcome;
    }
    ACE_Reactor* reactor = engine->getReactor();
    reactor->owner(ACE_Thread::self());
    auto connected = [&] {
        Dispatch_Set set;
        return engine->router()->findAllHandlers(set) == 0 ? static_cast<int>(set.size()) : 0;
    };
    double const deadline = bench::now() + WAIT_LIMIT;
    // Counting the connections visits them all: only now and then.
    double next_count = 0.0;
    while (bench::now() < deadline) {
        if (bench::now() >= next_count) {
            if (connected() >= idle + 1)
                break;
            next_count = bench::now() + 0.05;
        }
        ACE_Time_Value wait(0, 10000);
        reactor->handle_events(wait);
    }
    int const held = connected();
    double sent = 0.0;
    if (idle > 0) {
        sent = bench::now();
        engine->sendGlobalHeartBeat();
        outcome.send_ms = (bench::now() - sent) * 1000.0;
    }
    bench::Report report{};
    bool heard = false;
    while (!heard && bench::now() < deadline) {
        ACE_Time_Value wait(0, 1000);
        reactor->handle_events(wait);
        heard = peer.receive(report, 0.002);
    }
    while (counter.count() < events + 1 && bench::now() < deadline) {
        ACE_Time_Value wait(0, 1000);
        reactor->handle_events(wait);
    }
    outcome.ok = heard && counter.count() == events + 1 && (idle == 0 || report.value[R_HEARD] > 0);
    if (!outcome.ok)
        std::fprintf(stderr,
                     "connections: %d idle: %d connections held, %s, %" PRIu64 " of %" PRIu64
                     " events\n",
                     idle, held, heard ? "reported" : "no report", counter.count(), events + 1);
    if (idle > 0 && report.value[R_HEARD] > 0)
        outcome.heartbeat_ms = (report.value[R_HEARD] - sent) * 1000.0;
    outcome.per_event_us = counter.seconds() * 1e6 / static_cast<double>(events);
    engine->disconnect();
    for (int i = 0; i < 50; ++i) {
        ACE_Time_Value wait(0, 1000);
        reactor->handle_events(wait);
    }
    engine->shutdown();
    outcome.ok = peer.finish(30.0) && outcome.ok;
    return outcome;
}

// An engine listens once per process: each engine run has a process of its
// own.
Outcome withEngineApart(int idle, uint64_t events) {
    Outcome outcome;
    bench::Child server;
    if (!server.spawn("server", CHILD_LIMIT, [&](bench::Reporter& r) {
            Outcome const o = withEngine(idle, events);
            bench::Report report{};
            report.value[0] = o.ok ? 1.0 : 0.0;
            report.value[1] = o.heartbeat_ms;
            report.value[2] = o.per_event_us;
            report.value[3] = o.send_ms;
            return r.send(report) ? 0 : 1;
        }))
        return outcome;
    bench::Report report{};
    if (server.receive(report, CHILD_LIMIT)) {
        outcome.ok = report.value[0] > 0.0;
        outcome.heartbeat_ms = report.value[1];
        outcome.per_event_us = report.value[2];
        outcome.send_ms = report.value[3];
    }
    outcome.ok = server.finish(30.0) && outcome.ok;
    return outcome;
}

Outcome withRaw(int idle, uint64_t events, size_t heartbeat) {
    Outcome outcome;
    if (!raiseDescriptorLimit(static_cast<rlim_t>(idle) + 200))
        return outcome;
    uint16_t port = 0;
    int const listener = bench::listenLoopback(port);
    if (listener == -1)
        return outcome;
    bench::Child peer;
    if (!peer.spawn("client", CHILD_LIMIT,
                    [&](bench::Reporter& r) { return client(r, port, idle, heartbeat, events); })) {
        ::close(listener);
        return outcome;
    }
    std::vector<int> fds;
    for (int i = 0; i < idle; ++i) {
        int const fd = bench::acceptOne(listener);
        if (fd == -1)
            break;
        fds.push_back(fd);
        // The listener's backlog is short (5): a connect that finds it full
        // waits a second for its SYN to be sent again. A little pacing keeps
        // the acceptor ahead.
        if (i % 4 == 3)
            usleep(1000);
    }
    int const stream = bench::acceptOne(listener);
    ::close(listener);
    std::string const bytes(heartbeat, 'h');
    double sent = 0.0;
    bool ok = stream != -1 && fds.size() == static_cast<size_t>(idle);
    if (ok && idle > 0) {
        sent = bench::now();
        for (int const fd : fds)
            ok = bench::writeFull(fd, bytes.data(), bytes.size()) && ok;
        outcome.send_ms = (bench::now() - sent) * 1000.0;
    }
    bench::Report report{};
    ok = peer.receive(report, WAIT_LIMIT) && ok;
    if (ok && idle > 0 && report.value[R_HEARD] > 0)
        outcome.heartbeat_ms = (report.value[R_HEARD] - sent) * 1000.0;
    // The stream, frame by frame as the engine takes it.
    std::vector<char> frame(sizeof(Message_Header) + 64);
    double start = 0.0;
    double end = 0.0;
    if (ok && bench::readFull(stream, frame.data(), sizeof(Message_Header))) {
        start = bench::now();
        uint64_t count = 0;
        while (count < events && bench::readFull(stream, frame.data(), sizeof(Message_Header)) &&
               bench::readFull(stream, frame.data() + sizeof(Message_Header), 64))
            ++count;
        end = bench::now();
        ok = count == events;
    }
    outcome.per_event_us = (end - start) * 1e6 / static_cast<double>(events);
    if (stream != -1)
        ::close(stream);
    for (int const fd : fds)
        ::close(fd);
    outcome.ok = peer.finish(30.0) && ok && (idle == 0 || report.value[R_HEARD] > 0);
    return outcome;
}

// --- forward with open requests -------------------------------------------------

struct ForwardOutcome {
    bool ok = false;
    double first_us = 0.0;      // per event, the first thousand
    double last_us = 0.0;       // per event, the last thousand
    double all_us = 0.0;        // per event, all of them
    double first_cpu_us = 0.0;  // the same in CPU time of the forwarding thread
    double last_cpu_us = 0.0;
    double all_cpu_us = 0.0;
    size_t open = 0;  // tokens in the connection's list at the end
};

ForwardOutcome forwardRequests(uint64_t requests) {
    ForwardOutcome outcome;
    uint16_t port = 0;
    int const listener = bench::listenLoopback(port);
    if (listener == -1)
        return outcome;
    bench::Child sink;
    if (!sink.spawn("sink", CHILD_LIMIT, [&](bench::Reporter&) {
            int const fd = bench::acceptOne(listener);
            if (fd == -1)
                return 1;
            std::vector<char> buffer(1 << 16);
            while (::read(fd, buffer.data(), buffer.size()) > 0) {
            }
            ::close(fd);
            return 0;
        })) {
        ::close(listener);
        return outcome;
    }
    ::close(listener);

    Engine* engine = Engine::getSingleton();
    engine->disableIdentification();
    EventHandler handler;
    engine->event_handler(&handler, false);
    engine->router(new SinglePeerRouter(), true);
    Engine::Reactor_Handles = Engine::Default_Reactor_Handles;
    if (engine->open(0, false) == -1)
        return outcome;
    ACE_INET_Addr const address(port, "127.0.0.1");
    ACE_Synch_Options options;
    Handler* peer = nullptr;
    if (engine->makeConnection(address, 0, options) == 0) {
        Dispatch_Set set;
        if (engine->router()->findAllHandlers(set) == 0 && !set.is_empty())
            peer = (*set.begin())->duplicate();
    }
    if (peer == nullptr) {
        engine->shutdown();
        return outcome;
    }
    ACE_Reactor* reactor = engine->getReactor();
    reactor->owner(ACE_Thread::self());
    ACE_Message_Queue<ACE_MT_SYNCH>* queue = peer->msg_queue();
    size_t const eager = queue->high_water_mark() / 4;

    bool ok = true;
    double const start = bench::now();
    double const start_cpu = threadSeconds();
    double first = 0.0;
    double first_cpu = 0.0;
    double last = 0.0;
    double last_cpu = 0.0;
    for (uint64_t i = 0; ok && i < requests; ++i) {
        if (i == requests - 1000) {
            last = bench::now();
            last_cpu = threadSeconds();
        }
        Abstract_Event* event = Event_Factory::create(GET_VERSION_EVENT);
        ok = event != nullptr && engine->forward(event) == 0;
        if (event != nullptr)
            event->destroy();
        if (i + 1 == 1000) {
            first = bench::now();
            first_cpu = threadSeconds();
        }
        while (ok && queue->message_bytes() >= eager) {
            ACE_Time_Value wait(0, 1000);
            reactor->handle_events(wait);
        }
    }
    double const end = bench::now();
    double const end_cpu = threadSeconds();
    outcome.ok = ok;
    outcome.first_us = (first - start) * 1e6 / 1000.0;
    outcome.last_us = (end - last) * 1e6 / 1000.0;
    outcome.all_us = (end - start) * 1e6 / static_cast<double>(requests);
    outcome.first_cpu_us = (first_cpu - start_cpu) * 1e6 / 1000.0;
    outcome.last_cpu_us = (end_cpu - last_cpu) * 1e6 / 1000.0;
    outcome.all_cpu_us = (end_cpu - start_cpu) * 1e6 / static_cast<double>(requests);
    outcome.open = peer->getTargetACT().size();
    for (int i = 0; i < 200 && queue->message_bytes() > 0; ++i) {
        ACE_Time_Value wait(0, 1000);
        reactor->handle_events(wait);
    }
    peer->release();
    engine->shutdown();
    outcome.ok = sink.finish(30.0) && outcome.ok;
    return outcome;
}

double median(std::vector<double> values) {
    return bench::quantile(values, 0.5);
}

}  // namespace

int main(int argc, char** argv) {
    int idle = 10000;
    uint64_t events = 200000;
    uint64_t requests = 1000000;
    int rounds = 3;
    if (argc > 5 || (argc > 1 && (idle = std::atoi(argv[1])) < 1) ||
        (argc > 2 && (events = std::strtoull(argv[2], nullptr, 10)) < 1) ||
        (argc > 3 && (requests = std::strtoull(argv[3], nullptr, 10)) < 1000) ||
        (argc > 4 && ((rounds = std::atoi(argv[4])) < 1 || rounds > 20))) {
        std::fprintf(stderr, "usage: connections [N [M [R [ROUNDS]]]]\n");
        return 2;
    }
    bench::quietLog();
    std::string const scratch = bench::makeScratch("connections");
    if (scratch.empty() || !bench::useTempDir(scratch + "/engine"))
        return 1;
    if (!raiseDescriptorLimit(static_cast<rlim_t>(idle) + 200)) {
        std::fprintf(stderr, "connections: %d descriptors are more than the hard limit allows\n",
                     idle + 200);
        return 1;
    }
    size_t const heartbeat = heartbeatSize();
    std::printf("connections: %d idle connections, %" PRIu64 " stream events, %" PRIu64
                " requests, %d round(s), load %s\n",
                idle, events, requests, rounds, bench::loadAverage().c_str());

    std::vector<double> hb[2], hb_send[2], stream_idle[2], stream_none[2];
    bool all_ok = true;
    for (int round = 0; round < rounds; ++round) {
        for (int step = 0; step < 4; ++step) {
            int const which = (step + round) % 4;
            bool const raw = which >= 2;
            int const n = which % 2 == 0 ? idle : 0;
            Outcome const o = raw ? withRaw(n, events, heartbeat) : withEngineApart(n, events);
            all_ok = all_ok && o.ok;
            if (!o.ok)
                std::fprintf(stderr, "connections: %s run with %d idle failed\n",
                             raw ? "raw" : "engine", n);
            if (n > 0) {
                hb[raw ? 1 : 0].push_back(o.heartbeat_ms);
                hb_send[raw ? 1 : 0].push_back(o.send_ms);
                stream_idle[raw ? 1 : 0].push_back(o.per_event_us);
            } else {
                stream_none[raw ? 1 : 0].push_back(o.per_event_us);
            }
        }
    }
    std::printf("%-28s %12s %12s %8s\n", "row", "engine", "raw TCP", "ratio");
    double const hb_engine = median(hb[0]);
    double const hb_raw = median(hb[1]);
    std::printf("%-28s %9.1f ms %9.1f ms %7.1fx\n", "heartbeat to all N", hb_engine, hb_raw,
                hb_raw > 0 ? hb_engine / hb_raw : 0.0);
    double const send_engine = median(hb_send[0]);
    double const send_raw = median(hb_send[1]);
    std::printf("%-28s %9.1f ms %9.1f ms %7.1fx\n", "  of which the sending call", send_engine,
                send_raw, send_raw > 0 ? send_engine / send_raw : 0.0);
    double const s_idle = median(stream_idle[0]);
    double const s_none = median(stream_none[0]);
    double const r_idle = median(stream_idle[1]);
    double const r_none = median(stream_none[1]);
    std::printf("%-28s %9.3f us %9.3f us %7.1fx\n", "stream, N idle, per event", s_idle, r_idle,
                r_idle > 0 ? s_idle / r_idle : 0.0);
    std::printf("%-28s %9.3f us %9.3f us %7.1fx\n", "stream, 0 idle, per event", s_none, r_none,
                r_none > 0 ? s_none / r_none : 0.0);

    ForwardOutcome const f = forwardRequests(requests);
    all_ok = all_ok && f.ok;
    std::printf("%-28s %9.3f us\n", "forward, first 1000", f.first_us);
    std::printf("%-28s %9.3f us %22.2fx of the first 1000\n", "forward, last 1000", f.last_us,
                f.first_us > 0 ? f.last_us / f.first_us : 0.0);
    std::printf("%-28s %9.3f us %22.2fx of the first 1000\n", "forward, all R", f.all_us,
                f.first_us > 0 ? f.all_us / f.first_us : 0.0);
    std::printf("%-28s %9.3f us\n", "forward CPU, first 1000", f.first_cpu_us);
    std::printf("%-28s %9.3f us %22.2fx of the first 1000\n", "forward CPU, last 1000",
                f.last_cpu_us, f.first_cpu_us > 0 ? f.last_cpu_us / f.first_cpu_us : 0.0);
    std::printf("%-28s %9.3f us %22.2fx of the first 1000\n", "forward CPU, all R", f.all_cpu_us,
                f.first_cpu_us > 0 ? f.all_cpu_us / f.first_cpu_us : 0.0);
    std::printf(
        "(forward: %zu requests open in the connection's list at the end; its capacity "
        "%zu)\n",
        f.open, ACT_List::newListCapacity());
    std::printf(
        "(medians of %d round(s); heartbeat: from sendGlobalHeartBeat to the last whole\n"
        " delivery at the client; stream: engine time per 64 B event, first to last;\n"
        " load at the end %s)\n",
        rounds, bench::loadAverage().c_str());
    std::printf("goals:\n");
    std::printf("  heartbeat to %d connections under 100 ms: %s (%.1f ms)\n", idle,
                hb_engine > 0 && hb_engine < 100.0 ? "met" : "MISSED", hb_engine);
    std::printf("  per-event cost with %d idle within 10%% of none: %s (%+.1f%%)\n", idle,
                s_none > 0 && s_idle <= 1.1 * s_none ? "met" : "MISSED",
                s_none > 0 ? 100.0 * (s_idle - s_none) / s_none : 0.0);
    std::printf("  forward of %" PRIu64
                " open requests at the rate of the first 1000: %s (%.2fx)\n",
                requests, f.first_us > 0 && f.all_us <= 1.1 * f.first_us ? "met" : "MISSED",
                f.first_us > 0 ? f.all_us / f.first_us : 0.0);
    std::printf("  the same in CPU time of the forwarding thread: %s (%.2fx)\n",
                f.first_cpu_us > 0 && f.all_cpu_us <= 1.1 * f.first_cpu_us ? "met" : "MISSED",
                f.first_cpu_us > 0 ? f.all_cpu_us / f.first_cpu_us : 0.0);
    bench::removeTree(scratch);
    return all_ok ? 0 : 1;
}
