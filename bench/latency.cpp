// latency: request and reply between two processes over 127.0.0.1. The
// client forwards one event, the server's EventHandler returns 1 so that
// the event goes back as the reply, and the client, on that reply, takes
// the round-trip time and forwards the next request. The baseline sends the
// same frame (32-byte header and payload) over a plain socket and reads the
// same frame back. Times are medians and 99th percentiles in microseconds.
//
// Kinds: 64 B binary, 1 KiB formatted (one argument holding 1024 bytes of
// text), 16 MiB binary (Engine::setBufferSize(1048576) on both sides). Each
// kind runs with 0 and with 2 worker threads in the server; the client runs
// its engine without workers, so its handler runs on the reactor thread.
//
// The clock starts when the request has been built (its arguments set, or
// its binary payload written) and runs until the client's handler has the
// reply: it covers formatting, sending, the server's reading, parsing,
// dispatch and reply, and the client's reading and parsing of the reply.
//
// Each case runs in several rounds (3), the paths in turn in a different
// order each round, so that other work on the machine falls on all of them;
// every figure printed is the median of the rounds' figures.
//
// Usage: latency [SCALE [KIND [PATH [ROUNDS]]]]
//   SCALE   multiplies every N (default 1)
//   KIND    all, small, formatted or large: one kind only
//   PATH    all, raw, 0 or 2: the baseline or one number of workers only
//   ROUNDS  how often each case runs (default 3)
#include "bench_util.h"

#include <tarnwick/abstract_event.h>
#include <tarnwick/engine.h>
#include <tarnwick/event_factory.h>
#include <tarnwick/handler.h>
#include <tarnwick/message_header.h>
#include <tarnwick/router.h>

#include <ace/INET_Addr.h>
#include <ace/Reactor.h>
#include <ace/Synch_Options.h>

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
    size_t size;
    uint64_t n;       // measured round trips
    uint64_t warmup;  // round trips before them, not measured
};

enum {
    R_PORT = 0,
    R_COUNT = 1,
    R_MEDIAN = 2,
    R_P99 = 3,
    R_MEAN = 4,
    R_MIN = 5,
    R_RSS = 6,
    R_STALLED = 7
};

const unsigned CHILD_LIMIT = 120;
const size_t BIG_CHUNK = 1 << 20;

struct Outcome {
    bool ok = false;
    uint64_t count = 0;
    double median = 0.0;
    double p99 = 0.0;
    double mean = 0.0;
    double min = 0.0;
    long client_rss = 0;
    long server_rss = 0;
};

void summarize(std::vector<double>& samples, bench::Report& report) {
    report.value[R_COUNT] = static_cast<double>(samples.size());
    if (samples.empty())
        return;
    double sum = 0.0;
    for (double const s : samples)
        sum += s;
    report.value[R_MEAN] = sum / static_cast<double>(samples.size());
    report.value[R_MEDIAN] = bench::quantile(samples, 0.5);
    report.value[R_P99] = bench::quantile(samples, 0.99);
    report.value[R_MIN] = samples.front();
}

// --- engine server ----------------------------------------------------------

class Echo : public EventHandler {
public:
    // The event, with the result flag that the engine has set, is the reply.
    int handle(UploadEvent*) override {
        progress.store(bench::now());
        return 1;
    }
    int handle_disconnect(Handler*) override {
        Engine::getSingleton()->getReactor()->end_reactor_event_loop();
        return 0;
    }
    std::atomic<double> progress{bench::now()};
};

int serveWithEngine(bench::Reporter& reporter, const Kind& kind, int workers) {
    Engine* engine = Engine::getSingleton();
    engine->disableIdentification();
    Echo echo;
    engine->event_handler(&echo, false);
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

    bench::Watchdog watchdog(&echo.progress, 10.0, CHILD_LIMIT - 20);
    watchdog.start(engine->getReactor());
    engine->run();
    watchdog.stop();
    engine->shutdown();
    bench::Report report{};
    report.value[R_RSS] = static_cast<double>(bench::peakRssKiB());
    report.value[R_STALLED] = watchdog.fired() ? 1.0 : 0.0;
    reporter.send(report);
    return 0;
}

// --- engine client ----------------------------------------------------------

class Pinger : public EventHandler {
public:
    explicit Pinger(const Kind& kind)
        : m_kind(kind),
          m_argument(kind.formatted ? bench::text(kind.size) : std::string()),
          m_piece(kind.formatted ? 0 : std::min(kind.size, BIG_CHUNK), 'p') {
        samples.reserve(kind.n);
    }

    // Builds the next request and forwards it; false on failure.
    bool sendNext() {
        Abstract_Event* event =
            bench::makeEvent(m_kind.formatted, m_kind.size, m_argument, m_piece);
        if (event == nullptr)
            return false;
        m_token = event->getACT();
        m_sent = bench::now();
        bool const ok = Engine::getSingleton()->forward(event) == 0;
        event->destroy();
        return ok;
    }

    // The reply.
    int handle(UploadEvent* event) override {
        double const t = bench::now();
        progress.store(t);
        if (event->getACT() != m_token || !event->isResult() ||
            (!m_kind.formatted && event->getSize() != m_kind.size)) {
            failed = true;
            Engine::getSingleton()->getReactor()->end_reactor_event_loop();
            return 0;
        }
        if (m_done >= m_kind.warmup)
            samples.push_back((t - m_sent) * 1e6);
        ++m_done;
        if (m_done == m_kind.warmup + m_kind.n || !sendNext()) {
            Engine::getSingleton()->getReactor()->end_reactor_event_loop();
        }
        return 0;
    }

    int handle_disconnect(Handler*) override {
        Engine::getSingleton()->getReactor()->end_reactor_event_loop();
        return 0;
    }

    std::vector<double> samples;
    std::atomic<double> progress{bench::now()};
    bool failed = false;

private:
    const Kind& m_kind;
    std::string m_argument;
    std::vector<char> m_piece;
    uint32_t m_token = 0;
    double m_sent = 0.0;
    uint64_t m_done = 0;
};

int pingWithEngine(bench::Reporter& reporter, const Kind& kind, uint16_t port) {
    Engine* engine = Engine::getSingleton();
    engine->disableIdentification();
    Pinger pinger(kind);
    engine->event_handler(&pinger, false);
    engine->router(new SinglePeerRouter(), true);
    if (engine->open(0, false) == -1)
        return 1;
    if (kind.size > BIG_CHUNK)
        engine->setBufferSize(BIG_CHUNK);
    ACE_INET_Addr const address(port, "127.0.0.1");
    ACE_Synch_Options options;
    if (engine->makeConnection(address, 0, options) == -1)
        return 1;
    bench::Watchdog watchdog(&pinger.progress, 10.0, CHILD_LIMIT - 20);
    watchdog.start(engine->getReactor());
    bool const started = pinger.sendNext();
    if (started)
        engine->run();
    watchdog.stop();
    engine->shutdown();

    bench::Report report{};
    summarize(pinger.samples, report);
    report.value[R_RSS] = static_cast<double>(bench::peakRssKiB());
    report.value[R_STALLED] = watchdog.fired() ? 1.0 : 0.0;
    reporter.send(report);
    return started && !pinger.failed ? 0 : 1;
}

// --- raw baseline -----------------------------------------------------------

int serveRaw(bench::Reporter& reporter) {
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
    std::vector<char> frame;
    for (;;) {
        Message_Header header;
        if (!bench::readFull(fd, &header, sizeof header))
            break;
        Message_Header decoded = header;
        decoded.decode();
        frame.resize(sizeof header + decoded.getSize());
        std::memcpy(frame.data(), &header, sizeof header);
        if (!bench::readFull(fd, frame.data() + sizeof header, decoded.getSize()) ||
            !bench::writeFull(fd, frame.data(), frame.size()))
            break;
    }
    ::close(fd);
    bench::Report report{};
    report.value[R_RSS] = static_cast<double>(bench::peakRssKiB());
    reporter.send(report);
    return 0;
}

int pingRaw(bench::Reporter& reporter, const Kind& kind, uint16_t port) {
    std::string const payload = bench::wirePayload(kind.formatted, kind.size);
    Message_Header header;
    header.setACT(0);
    header.setType(UPLOAD_EVENT);
    header.setSize(static_cast<uint32_t>(payload.size()));
    header.setBinary(!kind.formatted);
    header.encode();
    std::string const frame =
        std::string(reinterpret_cast<const char*>(&header), sizeof header) + payload;
    std::vector<char> back(frame.size());
    int const fd = bench::connectLoopback(port);
    if (fd == -1)
        return 1;
    std::vector<double> samples;
    samples.reserve(kind.n);
    bool ok = true;
    for (uint64_t i = 0; ok && i < kind.warmup + kind.n; ++i) {
        double const start = bench::now();
        ok = bench::writeFull(fd, frame.data(), frame.size()) &&
             bench::readFull(fd, back.data(), sizeof(Message_Header));
        if (ok) {
            Message_Header got;
            std::memcpy(static_cast<void*>(&got), back.data(), sizeof got);
            got.decode();
            ok = got.getSize() == payload.size() &&
                 bench::readFull(fd, back.data() + sizeof got, got.getSize());
        }
        double const end = bench::now();
        if (ok && i >= kind.warmup)
            samples.push_back((end - start) * 1e6);
    }
    ::close(fd);
    bench::Report report{};
    summarize(samples, report);
    report.value[R_RSS] = static_cast<double>(bench::peakRssKiB());
    reporter.send(report);
    return ok ? 0 : 1;
}

// --- one run ----------------------------------------------------------------

// workers < 0: the raw baseline.
Outcome run(const Kind& kind, int workers, const std::string& scratch, int index) {
    Outcome outcome;
    std::string const server_dir = scratch + "/server-" + std::to_string(index);
    std::string const client_dir = scratch + "/client-" + std::to_string(index);

    bench::Child server;
    bool const started = server.spawn("server", CHILD_LIMIT, [&](bench::Reporter& r) {
        if (!bench::useTempDir(server_dir))
            return 1;
        bench::quietLog();
        return workers < 0 ? serveRaw(r) : serveWithEngine(r, kind, workers);
    });
    bench::Report ready{};
    if (!started || !server.receive(ready, 10.0))
        return outcome;
    auto const port = static_cast<uint16_t>(ready.value[R_PORT]);

    bench::Child client;
    if (!client.spawn("client", CHILD_LIMIT, [&](bench::Reporter& r) {
            if (!bench::useTempDir(client_dir))
                return 1;
            bench::quietLog();
            return workers < 0 ? pingRaw(r, kind, port) : pingWithEngine(r, kind, port);
        }))
        return outcome;

    bench::Report measured{};
    bench::Report served{};
    bool const have_measured = client.receive(measured, CHILD_LIMIT);
    bool const have_served = server.receive(served, CHILD_LIMIT);
    bool const client_ok = client.finish(30.0);
    bool const server_ok = server.finish(30.0);
    bench::removeTree(server_dir);
    bench::removeTree(client_dir);
    if (!have_measured || !have_served || !client_ok || !server_ok) {
        std::fprintf(stderr, "latency: %s, %d workers: failed\n", kind.name, workers);
        return outcome;
    }
    outcome.count = static_cast<uint64_t>(measured.value[R_COUNT]);
    outcome.ok = outcome.count == kind.n;
    outcome.median = measured.value[R_MEDIAN];
    outcome.p99 = measured.value[R_P99];
    outcome.mean = measured.value[R_MEAN];
    outcome.min = measured.value[R_MIN];
    outcome.client_rss = static_cast<long>(measured.value[R_RSS]);
    outcome.server_rss = static_cast<long>(served.value[R_RSS]);
    return outcome;
}

}  // namespace

int main(int argc, char** argv) {
    bench::Selection selection;
    if (!selection.parse(argc, argv)) {
        std::fprintf(stderr,
                     "usage: latency [SCALE [KIND [PATH [ROUNDS]]]]\n"
                     "  SCALE   multiplies every N (1)\n"
                     "  KIND    all, small, formatted, large (all)\n"
                     "  PATH    all, raw, 0, 2 (all; a number is the server's workers)\n"
                     "  ROUNDS  1 to 20 (3)\n");
        return 2;
    }
    auto scaled = [&selection](uint64_t n) {
        return std::max<uint64_t>(1,
                                  static_cast<uint64_t>(static_cast<double>(n) * selection.scale));
    };
    const Kind kinds[] = {
        {"64 B binary", false, 64, scaled(6000), 200},
        {"1 KiB formatted", true, 1024, scaled(4000), 200},
        {"16 MiB binary", false, 16u << 20, scaled(16), 2},
    };

    std::string const scratch = bench::makeScratch("latency");
    if (scratch.empty())
        return 1;
    std::printf("latency: request and reply over 127.0.0.1, %d round(s), load %s, scratch %s\n",
                selection.rounds, bench::loadAverage().c_str(), scratch.c_str());
    std::printf("%-15s %5s %-9s %10s %10s %10s %10s %8s %7s %8s %8s\n", "event", "N", "path",
                "median us", "p99 us", "mean us", "min us", "x median", "x p99", "cl RSS",
                "srv RSS");
    bool all_ok = true;
    int index = 0;
    std::vector<std::string> verdicts;
    int const paths[] = {0, 2, -1};
    const char* const names[] = {"0 workers", "2 workers", "raw TCP"};
    for (int k = 0; k < 3; ++k) {
        const Kind& kind = kinds[k];
        std::vector<Outcome> rounds[3];
        for (int round = 0; round < selection.rounds; ++round) {
            for (int step = 0; step < 3; ++step) {
                int const i = (step + round) % 3;
                if (selection.wants(k, paths[i]))
                    rounds[i].push_back(run(kind, paths[i], scratch, index++));
            }
        }
        // Each figure is the median of the rounds' figures.
        Outcome rows[3];
        bool ok[3] = {true, true, true};
        for (int i = 0; i < 3; ++i) {
            std::vector<double> median, p99, mean, min;
            for (const Outcome& o : rounds[i]) {
                ok[i] = ok[i] && o.ok;
                if (!o.ok)
                    continue;
                median.push_back(o.median);
                p99.push_back(o.p99);
                mean.push_back(o.mean);
                min.push_back(o.min);
                rows[i].count += o.count;
                rows[i].client_rss = std::max(rows[i].client_rss, o.client_rss);
                rows[i].server_rss = std::max(rows[i].server_rss, o.server_rss);
            }
            rows[i].ok = ok[i] && !median.empty();
            rows[i].median = bench::quantile(median, 0.5);
            rows[i].p99 = bench::quantile(p99, 0.5);
            rows[i].mean = bench::quantile(mean, 0.5);
            rows[i].min = bench::quantile(min, 0.5);
        }
        const Outcome& raw = rows[2];
        for (int i = 0; i < 3; ++i) {
            if (rounds[i].empty())
                continue;
            const Outcome& o = rows[i];
            all_ok = all_ok && o.ok;
            char x_median[16] = "";
            char x_p99[16] = "";
            if (i < 2 && !rounds[2].empty() && raw.ok && o.ok) {
                std::snprintf(x_median, sizeof x_median, "%.2f", o.median / raw.median);
                std::snprintf(x_p99, sizeof x_p99, "%.2f", o.p99 / raw.p99);
            }
            std::printf("%-15s %5" PRIu64
                        " %-9s %10.1f %10.1f %10.1f %10.1f %8s %7s %4.1f MiB %4.1f MiB%s\n",
                        kind.name, o.count, names[i], o.median, o.p99, o.mean, o.min, x_median,
                        x_p99, o.client_rss / 1024.0, o.server_rss / 1024.0,
                        o.ok ? "" : "  (failed)");
        }
        if (kind.formatted && !rounds[2].empty() && raw.ok) {
            for (int i = 0; i < 2; ++i) {
                if (rounds[i].empty())
                    continue;
                double const ratio = rows[i].median / raw.median;
                double const tail = rows[i].p99 / raw.p99;
                char line[200];
                std::snprintf(line, sizeof line,
                              "formatted round trip, %s: median within 2x raw: %s (%.2fx); "
                              "p99 within 3x raw: %s (%.2fx)",
                              names[i], rows[i].ok && ratio <= 2.0 ? "met" : "MISSED", ratio,
                              rows[i].ok && tail <= 3.0 ? "met" : "MISSED", tail);
                verdicts.push_back(line);
            }
        }
    }
    std::printf(
        "(N = measured round trips, all rounds; each figure is the median of the rounds';\n"
        " x median, x p99 = the engine's figure over the raw baseline's; load at the end %s)\n",
        bench::loadAverage().c_str());
    if (!verdicts.empty()) {
        std::printf("goals:\n");
        for (const std::string& line : verdicts)
            std::printf("  %s\n", line.c_str());
    }
    bench::removeTree(scratch);
    return all_ok ? 0 : 1;
}
