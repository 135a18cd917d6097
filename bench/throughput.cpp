// throughput: a sender process forwards N events of one kind to a receiver
// process over 127.0.0.1; the receiver's EventHandler returns 0 for each,
// and the receiver reports events per second and payload MB per second
// (10^6 bytes). The same traffic (32-byte header and payload frames) over a
// plain socket, read frame by frame, is the baseline of each kind.
//
// Kinds:  64 B binary, 1 KiB formatted (one argument holding 1024 bytes of
// text, so an XML payload of a little more), 16 MiB binary (chunk size
// Engine::setBufferSize(1048576) on both sides, so the payload passes through
// the event cache of both; the sender makes these events, payload in its
// cache, before the clock starts, as an agent forwards a file it holds, and
// the time it took shows as "sndr mk"). Each kind runs with 0 and with 2 worker threads
// in the receiver; the sender runs its engine without workers.
//
// The sender builds each event just before it forwards it, hands it to its
// connection with Handler::forward (the connection's output queue, which its
// reactor writes out), and runs its reactor whenever that queue has taken a
// good part of its limit, so that the queue never refuses a message. It does
// not go through Engine::forward: the router notes the token of every
// request in the connection's list of requests awaiting a reply, and as the
// receiver sends none, that list grows by one token per event and each
// insertion searches it from the start, so the sender, not the path under
// test, would set the pace. One extra row ("0w routed", fewer events) shows
// that path for the small events. One HeartBeatEvent goes ahead of the N
// events; the receiver's clock runs from its arrival to that of the Nth
// event. A watchdog ends a receiver that has waited 3 seconds for the next
// event: with workers, the engine drops a message that finds the worker
// queue full, and such a run is marked with the number of events lost.
// Each case runs in several rounds (3), the paths in turn in a different
// order each round; the figures are the median round's.
//
// Usage: throughput [SCALE [KIND [PATH [ROUNDS]]]]
//   SCALE   multiplies every N (default 1)
//   KIND    all, small, formatted, large (16 MiB) or huge (1 GiB); both
//           sent from the sender's event cache, made before the clock starts.
//           The event cache lies under $TMPDIR (default /tmp): set it to a
//           directory on tmpfs to take the disk out of the figure.
//   PATH    all, raw, 0 or 2: the baseline or one number of workers only
//   ROUNDS  how often each case runs (default 3)
#include "bench_util.h"

#include <tarnwick/abstract_event.h>
#include <tarnwick/engine.h>
#include <tarnwick/event_factory.h>
#include <tarnwick/handler.h>
#include <tarnwick/message_block.h>
#include <tarnwick/message_header.h>
#include <tarnwick/router.h>

#include <ace/INET_Addr.h>
#include <ace/Reactor.h>
#include <ace/Synch_Options.h>
#include <ace/Time_Value.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

using namespace Tarnwick;

namespace {

struct Kind {
    const char* name;
    bool formatted;
    size_t size;  // binary payload bytes, or the text length of the argument
    uint64_t n;
    // The sender makes its events before the clock starts (the payload is
    // in its event cache already, as a received upload would be), so that
    // the rate is that of the transfer alone.
    bool premade = false;
};

// Report slots.
enum {
    R_PORT = 0,
    R_COUNT = 1,
    R_BYTES = 2,
    R_START = 3,
    R_END = 4,
    R_RSS = 5,
    R_STALLED = 6,
    R_BUILD = 7,
    R_SENT = 8
};

const unsigned CHILD_LIMIT = 120;
const double IDLE_LIMIT = 3.0;  // seconds without an event that end a receiver
const size_t BIG_CHUNK = 1 << 20;
const size_t BIG_QUEUE = 2;  // big events at most in the sender's queue

struct Outcome {
    bool ran = false;    // both processes did their part and reported
    bool ok = false;     // and all events arrived
    uint64_t count = 0;  // events that arrived
    double seconds = 0.0;
    double events_per_s = 0.0;
    double mbps = 0.0;
    double build = 0.0;
    long sender_rss = 0;
    long receiver_rss = 0;
};

// --- engine receiver --------------------------------------------------------

class Counter : public EventHandler {
public:
    explicit Counter(uint64_t total) : m_total(total) {}

    int handle(HeartBeatEvent*) override {
        begin();
        return 0;
    }

    int handle(UploadEvent* event) override {
        begin();
        m_bytes.fetch_add(event->getSize());
        uint64_t const count = m_count.fetch_add(1) + 1;
        double const t = bench::now();
        progress.store(t);
        if (count == m_total) {
            m_end.store(t);
            Engine::getSingleton()->getReactor()->end_reactor_event_loop();
        }
        return 0;
    }

    uint64_t count() const { return m_count.load(); }
    uint64_t bytes() const { return m_bytes.load(); }
    double start() const { return m_start.load(); }
    double end() const { return m_end.load(); }

    std::atomic<double> progress{bench::now()};

private:
    void begin() {
        double expected = 0.0;
        double const t = bench::now();
        m_start.compare_exchange_strong(expected, t);
        progress.store(t);
    }

    uint64_t m_total;
    std::atomic<uint64_t> m_count{0};
    std::atomic<uint64_t> m_bytes{0};
    std::atomic<double> m_start{0.0};
    std::atomic<double> m_end{0.0};
};

int receiveWithEngine(bench::Reporter& reporter, const Kind& kind, int workers) {
    Engine* engine = Engine::getSingleton();
    engine->disableIdentification();
    Counter counter(kind.n);
    engine->event_handler(&counter, false);
    engine->router(new Router(), true);
    if (engine->open(workers, false) == -1)
        return 1;
    if (kind.size > BIG_CHUNK)
        engine->setBufferSize(BIG_CHUNK);
    u_short const port = bench::engineListen(engine);
    if (port == 0)
        return 1;
    bench::Report ready{};
    ready.value[R_PORT] = port;
    reporter.send(ready);

    // A sender that makes its events first is silent meanwhile.
    bench::Watchdog watchdog(&counter.progress, kind.premade ? CHILD_LIMIT / 2 : IDLE_LIMIT,
                             CHILD_LIMIT - 20);
    watchdog.start(engine->getReactor());
    engine->run();
    watchdog.stop();
    engine->shutdown();

    bench::Report report{};
    report.value[R_COUNT] = static_cast<double>(counter.count());
    report.value[R_BYTES] = static_cast<double>(counter.bytes());
    report.value[R_START] = counter.start();
    // Events that a full worker queue dropped never come: then the clock
    // stops at the last one that came.
    report.value[R_END] = counter.end() > 0.0 ? counter.end() : counter.progress.load();
    report.value[R_RSS] = static_cast<double>(bench::peakRssKiB());
    report.value[R_STALLED] = watchdog.fired() ? 1.0 : 0.0;
    reporter.send(report);
    return 0;
}

// --- engine sender ----------------------------------------------------------

class PeerWatch : public EventHandler {
public:
    int handle_disconnect(Handler*) override {
        gone = true;
        return 0;
    }
    bool gone = false;
};

int sendWithEngine(bench::Reporter& reporter, const Kind& kind, uint16_t port, bool routed) {
    Engine* engine = Engine::getSingleton();
    engine->disableIdentification();
    PeerWatch watch;
    engine->event_handler(&watch, false);
    engine->router(new SinglePeerRouter(), true);
    if (engine->open(0, false) == -1)
        return 1;
    if (kind.size > BIG_CHUNK)
        engine->setBufferSize(BIG_CHUNK);
    ACE_INET_Addr const address(port, "127.0.0.1");
    ACE_Synch_Options options;
    if (engine->makeConnection(address, 0, options) == -1)
        return 1;
    Handler* peer = nullptr;
    {
        Dispatch_Set set;
        if (engine->router()->findAllHandlers(set) == -1 || set.is_empty())
            return 1;
        peer = (*set.begin())->duplicate();
    }
    ACE_Reactor* reactor = engine->getReactor();
    reactor->owner(ACE_Thread::self());
    ACE_Message_Queue<ACE_MT_SYNCH>* queue = peer->msg_queue();
    size_t const eager = queue->high_water_mark() / 4;

    std::string const argument = kind.formatted ? bench::text(kind.size) : std::string();
    std::vector<char> piece(kind.formatted ? 0 : std::min(kind.size, BIG_CHUNK), 'p');
    double build = 0.0;
    bool ok = true;

    std::vector<Abstract_Event*> made;
    if (kind.premade) {
        for (uint64_t i = 0; ok && i < kind.n; ++i) {
            double const t = bench::now();
            Abstract_Event* event = bench::makeEvent(kind.formatted, kind.size, argument, piece);
            build += bench::now() - t;
            ok = event != nullptr;
            if (ok)
                made.push_back(event);
        }
    }

    Abstract_Event* warmup = Event_Factory::create(HEART_BEAT_EVENT);
    ok = warmup != nullptr && engine->forward(warmup) == 0;
    if (warmup != nullptr)
        warmup->destroy();

    uint64_t sent = 0;
    while (ok && sent < kind.n && !watch.gone) {
        bool const full =
            queue->is_full() || (kind.size > BIG_CHUNK && queue->message_count() >= BIG_QUEUE);
        if (!full) {
            Abstract_Event* event = nullptr;
            if (kind.premade) {
                event = made[sent];
                made[sent] = nullptr;
            } else {
                double const t = bench::now();
                event = bench::makeEvent(kind.formatted, kind.size, argument, piece);
                build += bench::now() - t;
            }
            if (event == nullptr) {
                ok = false;
            } else if (routed) {
                ok = engine->forward(event) == 0;
            } else {
                ACE_Message_Block* block = event->data(false);
                ok = block != nullptr && peer->forward(block) == 0;
            }
            if (event != nullptr)
                event->destroy();
            ++sent;
            if (queue->message_bytes() < eager && kind.size <= BIG_CHUNK)
                continue;
        }
        ACE_Time_Value wait = full ? ACE_Time_Value(0, 100000) : ACE_Time_Value::zero;
        reactor->handle_events(wait);
    }
    // Everything out, then the receiver closes when it has counted all.
    double const deadline = bench::now() + CHILD_LIMIT - 20;
    while (ok && !watch.gone && bench::now() < deadline) {
        ACE_Time_Value wait(0, 100000);
        reactor->handle_events(wait);
    }
    for (Abstract_Event* event : made) {
        if (event != nullptr)
            event->destroy();
    }
    engine->shutdown();
    peer->release();

    bench::Report report{};
    report.value[R_BUILD] = build;
    report.value[R_SENT] = static_cast<double>(sent);
    report.value[R_RSS] = static_cast<double>(bench::peakRssKiB());
    reporter.send(report);
    return ok ? 0 : 1;
}

// --- raw baseline -----------------------------------------------------------

std::string frameHeader(uint32_t size, bool binary) {
    Message_Header header;
    header.setACT(0);
    header.setType(UPLOAD_EVENT);
    header.setSize(size);
    header.setBinary(binary);
    header.encode();
    return std::string(reinterpret_cast<const char*>(&header), sizeof header);
}

int receiveRaw(bench::Reporter& reporter, const Kind& kind) {
    uint16_t port = 0;
    int const listener = bench::listenLoopback(port);
    if (listener == -1)
        return 1;
    bench::Report ready{};
    ready.value[R_PORT] = port;
    reporter.send(ready);
    int const fd = bench::acceptOne(listener);
    ::close(listener);
    if (fd == -1)
        return 1;

    std::vector<char> buffer(BIG_CHUNK);
    uint64_t count = 0;
    uint64_t bytes = 0;
    double start = 0.0;
    double end = 0.0;
    for (uint64_t frame = 0; frame <= kind.n; ++frame) {
        Message_Header header;
        if (!bench::readFull(fd, &header, sizeof header))
            break;
        if (frame == 0)
            start = bench::now();
        header.decode();
        uint32_t remaining = header.getSize();
        bool ok = true;
        while (ok && remaining > 0) {
            size_t const n = std::min<size_t>(remaining, buffer.size());
            ssize_t const got = ::read(fd, buffer.data(), n);
            if (got < 0 && errno == EINTR)
                continue;
            ok = got > 0;
            if (ok)
                remaining -= static_cast<uint32_t>(got);
        }
        if (!ok)
            break;
        if (frame > 0) {
            ++count;
            bytes += header.getSize();
        }
    }
    end = bench::now();
    ::close(fd);

    bench::Report report{};
    report.value[R_COUNT] = static_cast<double>(count);
    report.value[R_BYTES] = static_cast<double>(bytes);
    report.value[R_START] = start;
    report.value[R_END] = end;
    report.value[R_RSS] = static_cast<double>(bench::peakRssKiB());
    reporter.send(report);
    return 0;
}

int sendRaw(bench::Reporter& reporter, const Kind& kind, uint16_t port) {
    // A large binary payload is written from one buffer of BIG_CHUNK bytes,
    // again and again: the raw side keeps no more in memory than needed.
    bool const pieces = !kind.formatted && kind.size > BIG_CHUNK;
    std::string const payload =
        pieces ? std::string(BIG_CHUNK, 'p') : bench::wirePayload(kind.formatted, kind.size);
    std::string const frame =
        pieces ? frameHeader(static_cast<uint32_t>(kind.size), true)
               : frameHeader(static_cast<uint32_t>(payload.size()), !kind.formatted) + payload;
    std::string const warmup = frameHeader(0, false);
    int const fd = bench::connectLoopback(port);
    if (fd == -1)
        return 1;
    bool ok = bench::writeFull(fd, warmup.data(), warmup.size());
    for (uint64_t i = 0; ok && i < kind.n; ++i) {
        ok = bench::writeFull(fd, frame.data(), frame.size());
        for (size_t done = 0; ok && pieces && done < kind.size; done += BIG_CHUNK)
            ok = bench::writeFull(fd, payload.data(), std::min(BIG_CHUNK, kind.size - done));
    }
    // Wait for the receiver to close, so that all was read.
    char byte;
    while (ok && ::read(fd, &byte, 1) > 0) {
    }
    ::close(fd);
    bench::Report report{};
    report.value[R_SENT] = static_cast<double>(kind.n);
    report.value[R_RSS] = static_cast<double>(bench::peakRssKiB());
    reporter.send(report);
    return ok ? 0 : 1;
}

// --- one run ----------------------------------------------------------------

// workers < 0: the raw baseline. `routed`: the sender forwards through the
// engine's router instead of its connection.
Outcome run(const Kind& kind, int workers, const std::string& scratch, int index,
            bool routed = false) {
    Outcome outcome;
    std::string const rx_dir = scratch + "/rx-" + std::to_string(index);
    std::string const tx_dir = scratch + "/tx-" + std::to_string(index);

    bench::Child receiver;
    bool const started = receiver.spawn("receiver", CHILD_LIMIT, [&](bench::Reporter& r) {
        if (!bench::useTempDir(rx_dir))
            return 1;
        bench::quietLog();
        return workers < 0 ? receiveRaw(r, kind) : receiveWithEngine(r, kind, workers);
    });
    bench::Report ready{};
    if (!started || !receiver.receive(ready, 10.0))
        return outcome;
    auto const port = static_cast<uint16_t>(ready.value[R_PORT]);

    bench::Child sender;
    if (!sender.spawn("sender", CHILD_LIMIT, [&](bench::Reporter& r) {
            if (!bench::useTempDir(tx_dir))
                return 1;
            bench::quietLog();
            return workers < 0 ? sendRaw(r, kind, port) : sendWithEngine(r, kind, port, routed);
        }))
        return outcome;

    bench::Report received{};
    bench::Report sent{};
    bool const have_received = receiver.receive(received, CHILD_LIMIT);
    bool const have_sent = sender.receive(sent, CHILD_LIMIT);
    bool const receiver_ok = receiver.finish(30.0);
    bool const sender_ok = sender.finish(30.0);
    bench::removeTree(rx_dir);
    bench::removeTree(tx_dir);
    if (!have_received || !receiver_ok) {
        std::fprintf(stderr, "throughput: %s: the receiver failed\n", kind.name);
        return outcome;
    }
    if (!have_sent || !sender_ok)
        std::fprintf(stderr, "throughput: %s: the sender failed\n", kind.name);
    outcome.count = static_cast<uint64_t>(received.value[R_COUNT]);
    outcome.ran = have_sent && sender_ok;
    outcome.ok = outcome.ran && outcome.count == kind.n;
    outcome.seconds = received.value[R_END] - received.value[R_START];
    outcome.events_per_s = static_cast<double>(outcome.count) / outcome.seconds;
    outcome.mbps = received.value[R_BYTES] / 1e6 / outcome.seconds;
    outcome.build = sent.value[R_BUILD];
    outcome.sender_rss = static_cast<long>(sent.value[R_RSS]);
    outcome.receiver_rss = static_cast<long>(received.value[R_RSS]);
    return outcome;
}

}  // namespace

int main(int argc, char** argv) {
    bench::Selection selection;
    if (!selection.parse(argc, argv)) {
        std::fprintf(stderr,
                     "usage: throughput [SCALE [KIND [PATH [ROUNDS]]]]\n"
                     "  SCALE   multiplies every N (1)\n"
                     "  KIND    all, small, formatted, large, huge (all)\n"
                     "  PATH    all, raw, 0, 2 (all; a number is the receiver's workers)\n"
                     "  ROUNDS  1 to 20 (3)\n");
        return 2;
    }
    auto scaled = [&selection](uint64_t n) {
        return std::max<uint64_t>(1,
                                  static_cast<uint64_t>(static_cast<double>(n) * selection.scale));
    };
    const Kind kinds[] = {
        {"64 B binary", false, 64, scaled(100000)},
        {"1 KiB formatted", true, 1024, scaled(25000)},
        {"16 MiB binary", false, 16u << 20, scaled(24), true},
        {"1 GiB binary", false, 1u << 30, 1, true},
    };

    std::string const scratch = bench::makeScratch("throughput");
    if (scratch.empty())
        return 1;
    std::printf("throughput: sender -> receiver over 127.0.0.1, %d round(s), load %s, scratch %s\n",
                selection.rounds, bench::loadAverage().c_str(), scratch.c_str());
    std::printf("%-15s %6s %-9s %9s %17s %7s %6s %7s %8s %8s %8s\n", "event", "N", "path",
                "events/s", "(range)", "MB/s", "vs raw", "lost", "sndr mk", "tx RSS", "rx RSS");
    bool all_ok = true;
    int index = 0;
    std::vector<std::string> verdicts;
    int const paths[] = {0, 2, -1};
    const char* const names[] = {"0 workers", "2 workers", "raw TCP"};
    for (int k = 0; k < 4; ++k) {
        const Kind& kind = kinds[k];
        std::vector<Outcome> rounds[3];
        for (int round = 0; round < selection.rounds; ++round) {
            for (int step = 0; step < 3; ++step) {
                int const i = (step + round) % 3;
                if (selection.wants(k, paths[i]))
                    rounds[i].push_back(run(kind, paths[i], scratch, index++));
            }
        }
        // The median round of each path by events per second.
        Outcome rows[3];
        std::string ranges[3];
        uint64_t lost[3] = {0, 0, 0};
        bool complete[3] = {true, true, true};
        bool ran[3] = {true, true, true};
        for (int i = 0; i < 3; ++i) {
            std::vector<Outcome>& list = rounds[i];
            if (list.empty())
                continue;
            std::sort(list.begin(), list.end(), [](const Outcome& a, const Outcome& b) {
                return a.events_per_s < b.events_per_s;
            });
            rows[i] = list[list.size() / 2];
            char range[40];
            std::snprintf(range, sizeof range, "(%.0f..%.0f)", list.front().events_per_s,
                          list.back().events_per_s);
            ranges[i] = range;
            for (const Outcome& o : list) {
                lost[i] += kind.n - std::min(kind.n, o.count);
                complete[i] = complete[i] && o.ok;
                ran[i] = ran[i] && o.ran;
                rows[i].sender_rss = std::max(rows[i].sender_rss, o.sender_rss);
                rows[i].receiver_rss = std::max(rows[i].receiver_rss, o.receiver_rss);
            }
        }
        const Outcome& raw = rows[2];
        bool const have_raw = !rounds[2].empty() && raw.count > 0;
        for (int i = 0; i < 3; ++i) {
            if (rounds[i].empty())
                continue;
            const Outcome& o = rows[i];
            all_ok = all_ok && ran[i];
            char ratio[16] = "";
            if (i < 2 && have_raw && o.count > 0)
                std::snprintf(ratio, sizeof ratio, "%.1f%%", 100.0 * o.mbps / raw.mbps);
            char build[16] = "";
            if (i < 2)
                std::snprintf(build, sizeof build, "%.3f s", o.build);
            std::printf("%-15s %6" PRIu64 " %-9s %9.0f %17s %7.1f %6s %7" PRIu64
                        " %8s %4.1f MiB %4.1f MiB%s\n",
                        kind.name, kind.n, names[i], o.events_per_s, ranges[i].c_str(), o.mbps,
                        ratio, lost[i], build, o.sender_rss / 1024.0, o.receiver_rss / 1024.0,
                        complete[i] ? "" : "  (incomplete)");
        }
        // The small events once more with the sender forwarding through the
        // engine's router, at 0 workers, in one round.
        if (k == 0 && selection.wants(k, 0) && selection.path == -2) {
            Kind const routed_kind = {kind.name, kind.formatted, kind.size, scaled(20000)};
            Outcome const o = run(routed_kind, 0, scratch, index++, true);
            all_ok = all_ok && o.ran;
            char ratio[16] = "";
            if (have_raw && o.count > 0)
                std::snprintf(ratio, sizeof ratio, "%.1f%%", 100.0 * o.mbps / raw.mbps);
            std::printf("%-15s %6" PRIu64 " %-9s %9.0f %17s %7.1f %6s %7" PRIu64
                        " %6.3f s %4.1f MiB %4.1f MiB%s\n",
                        kind.name, routed_kind.n, "0w routed", o.events_per_s, "(1 round)", o.mbps,
                        ratio, routed_kind.n - std::min(routed_kind.n, o.count), o.build,
                        o.sender_rss / 1024.0, o.receiver_rss / 1024.0,
                        o.ok ? "" : "  (incomplete)");
        }
        if (kind.size > BIG_CHUNK && have_raw) {
            for (int i = 0; i < 2; ++i) {
                if (rounds[i].empty())
                    continue;
                double const ratio = rows[i].mbps / raw.mbps;
                char line[160];
                bool const small_rss =
                    rows[i].sender_rss < 32 * 1024 && rows[i].receiver_rss < 32 * 1024;
                std::snprintf(line, sizeof line,
                              "%s events, %s: at least 80%% of the raw rate: %s (%.0f%%); peak "
                              "RSS of both under 32 MiB: %s",
                              kind.name, names[i], complete[i] && ratio >= 0.8 ? "met" : "MISSED",
                              100.0 * ratio, small_rss ? "met" : "MISSED");
                verdicts.push_back(line);
            }
        }
    }
    std::printf(
        "(MB = 10^6 payload bytes; lost = events that never arrived, all rounds;\n"
        " sndr mk = time the sender spent making events; load at the end %s)\n",
        bench::loadAverage().c_str());
    if (!verdicts.empty()) {
        std::printf("goals:\n");
        for (const std::string& line : verdicts)
            std::printf("  %s\n", line.c_str());
    }
    bench::removeTree(scratch);
    return all_ok ? 0 : 1;
}
