// transfer: one large binary payload from one process to another over
// 127.0.0.1, with Handler::send on one side and Handler::recv on the other,
// against plain TCP copies of the same bytes.
//
// For each chunk size (Handler::Data_Block_Size), 16 KiB and 1 MiB:
//
//   handlers    the sender (an engine-less connection from
//               Engine::makeActiveConnection) sends a Message_Block whose
//               payload is a spill file made by Message_Block::write; the
//               receiver (a PlainHandler accepted by hand) calls recv until
//               the message is whole, which spills it to a file of its own.
//   raw file    the same bytes by a plain loop: read the sender's spill file
//               and write the socket, read the socket and write a file, one
//               chunk per call.
//   raw memory  a plain loop without files: write a buffer, read and drop.
//
// Each side is a process of its own (fork), with its own scratch TMPDIR, so
// its event cache. The sender's spill file is made and flushed to disk
// before the clock starts; the receiver's file is written while it runs. The
// rate is the payload in MB (10^6 bytes) over the time from the sender's
// first write to the receiver's last byte; CPU is each process's processor
// time over the same span; peak memory is each process's getrusage
// ru_maxrss. Each path runs in several rounds, in a different order each
// round (page cache and other work on the machine move the figures a lot);
// the table shows the median round and the range.
//
// Goals checked: peak memory of the handler processes under 32 MiB whatever
// the payload size, and with 1 MiB chunks at least 50% of the rate of the
// raw file copy (the same bytes from file to file by a plain loop).
//
// Usage: transfer [MIB [ROUNDS [CHUNK [PATH]]]]
//   MIB     payload size in MiB (default 1024, so 1 GiB)
//   ROUNDS  how often each case runs (default 3)
//   CHUNK   all, 16k or 1m: one chunk size only
//   PATH    all, handlers, file or memory: one path only
#include "bench_util.h"

#include <tarnwick/abstract_event.h>
#include <tarnwick/engine.h>
#include <tarnwick/handler.h>
#include <tarnwick/handler_t.h>
#include <tarnwick/message_block.h>

#include <ace/INET_Addr.h>
#include <ace/SOCK_Acceptor.h>
#include <ace/Synch_Options.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

using namespace Tarnwick;

namespace {

enum Mode { HANDLERS, RAW_FILE, RAW_MEMORY };

const char* const MODE_NAMES[] = {"handlers", "raw file", "raw memory"};

// Report slots.
enum { R_PORT = 0, R_TIME = 1, R_BYTES = 2, R_RSS = 3, R_BUILD = 4, R_CPU = 5 };

const size_t BUILD_PIECE = 1 << 20;
const unsigned CHILD_LIMIT = 300;  // seconds, hard bound of each process

struct Outcome {
    bool ok = false;
    double seconds = 0.0;
    double mbps = 0.0;
    double build = 0.0;
    long sender_rss = 0;
    long receiver_rss = 0;
    double sender_cpu = 0.0;  // processor seconds during the transfer
    double receiver_cpu = 0.0;
};

// The sender's payload: a message whose payload is a spill file of `size`
// bytes, written by Message_Block::write. Null on failure.
Message_Block* makePayload(uint64_t size, double& seconds) {
    double const start = bench::now();
    auto* block = new Message_Block();
    Message_Header* header = block->getHeader();
    if (header == nullptr) {
        block->release();
        return nullptr;
    }
    header->setACT(0);
    header->setType(UPLOAD_EVENT);
    header->setBinary(true);
    header->setSize(static_cast<uint32_t>(size));
    block->wr_ptr(sizeof(Message_Header));
    std::vector<char> piece(BUILD_PIECE);
    for (size_t i = 0; i < piece.size(); ++i)
        piece[i] = static_cast<char>('a' + i % 26);
    for (uint64_t done = 0; done < size;) {
        uint64_t const n = std::min<uint64_t>(piece.size(), size - done);
        if (block->write(piece.data(), n) != static_cast<int64_t>(n)) {
            block->release();
            return nullptr;
        }
        done += n;
    }
    if (!block->isStoredOnDisk() || block->getLength() != size) {
        std::fprintf(stderr, "transfer: the payload is not a spill file of %" PRIu64 " bytes\n",
                     size);
        block->release();
        return nullptr;
    }
    seconds = bench::now() - start;
    // The file goes to disk before the clock starts, so that no write-back
    // of it competes with the transfer (the receiver's file is written
    // during the transfer, as it would be).
    int const fd = ::open(block->getFileName(), O_RDONLY | O_CLOEXEC);
    if (fd != -1) {
        ::fdatasync(fd);
        ::close(fd);
    }
    return block;
}

// --- receivers --------------------------------------------------------------

int receiveWithHandler(bench::Reporter& reporter, uint64_t size) {
    ACE_SOCK_Acceptor acceptor;
    ACE_INET_Addr address(static_cast<u_short>(0), "127.0.0.1");
    if (acceptor.open(address, 1) == -1 || acceptor.get_local_addr(address) == -1)
        return 1;
    bench::Report ready{};
    ready.value[R_PORT] = address.get_port_number();
    reporter.send(ready);

    auto* handler = new PlainHandler();
    if (acceptor.accept(handler->peer()) == -1 || handler->open() == -1) {
        handler->release();
        return 1;
    }
    acceptor.close();

    double const cpu = bench::cpuSeconds();
    ACE_Message_Block* block = nullptr;
    for (;;) {
        errno = 0;
        int64_t const got = handler->recv(block, nullptr);
        if (got > 0)
            break;
        if (got == -1 && errno == EWOULDBLOCK)
            continue;
        std::fprintf(stderr, "transfer: recv failed: %s\n", std::strerror(errno));
        handler->close();
        handler->release();
        return 1;
    }
    double const end = bench::now();
    double const used = bench::cpuSeconds() - cpu;
    auto* message = static_cast<Message_Block*>(block);
    uint64_t const length = message->getLength();
    block->release();  // deletes the spill file
    handler->close();
    handler->release();

    bench::Report report{};
    report.value[R_TIME] = end;
    report.value[R_CPU] = used;
    report.value[R_BYTES] = static_cast<double>(length);
    report.value[R_RSS] = static_cast<double>(bench::peakRssKiB());
    reporter.send(report);
    return length == size ? 0 : 1;
}

int receiveRaw(bench::Reporter& reporter, uint64_t size, size_t chunk, bool to_file,
               const std::string& dir) {
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
    std::string const path = dir + "/copy.dat";
    int file = -1;
    if (to_file) {
        file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (file == -1)
            return 1;
    }
    std::vector<char> buffer(chunk);
    double const cpu = bench::cpuSeconds();
    uint64_t done = 0;
    while (done < size) {
        size_t const wanted = static_cast<size_t>(std::min<uint64_t>(chunk, size - done));
        ssize_t const n = ::read(fd, buffer.data(), wanted);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        if (to_file && !bench::writeFull(file, buffer.data(), static_cast<size_t>(n)))
            break;
        done += static_cast<uint64_t>(n);
    }
    double const end = bench::now();
    double const used = bench::cpuSeconds() - cpu;
    if (file != -1) {
        ::close(file);
        ::unlink(path.c_str());
    }
    ::close(fd);

    bench::Report report{};
    report.value[R_TIME] = end;
    report.value[R_CPU] = used;
    report.value[R_BYTES] = static_cast<double>(done);
    report.value[R_RSS] = static_cast<double>(bench::peakRssKiB());
    reporter.send(report);
    return done == size ? 0 : 1;
}

// --- senders ----------------------------------------------------------------

int sendWithHandler(bench::Reporter& reporter, uint16_t port, uint64_t size) {
    Sig_Pipe_Guard no_sigpipe;
    double build = 0.0;
    Message_Block* payload = makePayload(size, build);
    if (payload == nullptr)
        return 1;

    ACE_INET_Addr const address(port, "127.0.0.1");
    ACE_Synch_Options options;
    Handler* handler = nullptr;
    if (Engine::makeActiveConnection(address, 0, options, &handler) == -1) {
        payload->release();
        return 1;
    }
    double const cpu = bench::cpuSeconds();
    double const start = bench::now();
    bool ok = true;
    for (;;) {
        errno = 0;
        int64_t const result = handler->send(payload, nullptr);
        if (result == -1) {
            std::fprintf(stderr, "transfer: send failed: %s\n", std::strerror(errno));
            ok = false;
            break;
        }
        if (errno != EWOULDBLOCK)
            break;
    }
    double const used = bench::cpuSeconds() - cpu;
    ok = ok && handler->bytes_sent() == size + sizeof(Message_Header);
    handler->close();
    handler->release();
    payload->release();

    bench::Report report{};
    report.value[R_TIME] = start;
    report.value[R_CPU] = used;
    report.value[R_BUILD] = build;
    report.value[R_RSS] = static_cast<double>(bench::peakRssKiB());
    reporter.send(report);
    return ok ? 0 : 1;
}

int sendRaw(bench::Reporter& reporter, uint16_t port, uint64_t size, size_t chunk, bool from_file) {
    double build = 0.0;
    Message_Block* payload = nullptr;
    int file = -1;
    if (from_file) {
        // The very bytes that the handlers send: the spill file of a message.
        payload = makePayload(size, build);
        if (payload == nullptr)
            return 1;
        file = ::open(payload->getFileName(), O_RDONLY | O_CLOEXEC);
        if (file == -1) {
            payload->release();
            return 1;
        }
    }
    int const fd = bench::connectLoopback(port);
    if (fd == -1)
        return 1;
    std::vector<char> buffer(chunk);
    for (size_t i = 0; i < buffer.size(); ++i)
        buffer[i] = static_cast<char>('a' + i % 26);
    double const cpu = bench::cpuSeconds();
    double const start = bench::now();
    uint64_t done = 0;
    bool ok = true;
    while (ok && done < size) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(chunk, size - done));
        if (from_file) {
            ssize_t const got = ::read(file, buffer.data(), n);
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0) {
                ok = false;
                break;
            }
            n = static_cast<size_t>(got);
        }
        ok = bench::writeFull(fd, buffer.data(), n);
        done += n;
    }
    double const used = bench::cpuSeconds() - cpu;
    ::close(fd);
    if (file != -1)
        ::close(file);
    if (payload != nullptr)
        payload->release();

    bench::Report report{};
    report.value[R_TIME] = start;
    report.value[R_CPU] = used;
    report.value[R_BUILD] = build;
    report.value[R_RSS] = static_cast<double>(bench::peakRssKiB());
    reporter.send(report);
    return ok ? 0 : 1;
}

// --- one run ----------------------------------------------------------------

Outcome run(Mode mode, uint64_t size, size_t chunk, const std::string& scratch) {
    Outcome outcome;
    ::sync();  // nothing left over from the last run is written back during this one
    std::string const tag = std::to_string(chunk) + "-" + std::to_string(mode);
    std::string const rx_dir = scratch + "/rx-" + tag;
    std::string const tx_dir = scratch + "/tx-" + tag;

    bench::Child receiver;
    bool const started = receiver.spawn("receiver", CHILD_LIMIT, [&](bench::Reporter& r) {
        if (!bench::useTempDir(rx_dir))
            return 1;
        bench::quietLog();
        Handler::Data_Block_Size = chunk;
        if (mode == HANDLERS)
            return receiveWithHandler(r, size);
        return receiveRaw(r, size, chunk, mode == RAW_FILE, rx_dir);
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
            Handler::Data_Block_Size = chunk;
            if (mode == HANDLERS)
                return sendWithHandler(r, port, size);
            return sendRaw(r, port, size, chunk, mode == RAW_FILE);
        }))
        return outcome;

    bench::Report sent{};
    bench::Report received{};
    bool const have_sent = sender.receive(sent, CHILD_LIMIT);
    bool const have_received = receiver.receive(received, CHILD_LIMIT);
    bool const sender_ok = sender.finish(30.0);
    bool const receiver_ok = receiver.finish(30.0);
    bench::removeTree(rx_dir);
    bench::removeTree(tx_dir);
    if (!have_sent || !have_received || !sender_ok || !receiver_ok)
        return outcome;

    outcome.ok = true;
    outcome.seconds = received.value[R_TIME] - sent.value[R_TIME];
    outcome.mbps = static_cast<double>(size) / 1e6 / outcome.seconds;
    outcome.build = sent.value[R_BUILD];
    outcome.sender_rss = static_cast<long>(sent.value[R_RSS]);
    outcome.receiver_rss = static_cast<long>(received.value[R_RSS]);
    outcome.sender_cpu = sent.value[R_CPU];
    outcome.receiver_cpu = received.value[R_CPU];
    return outcome;
}

std::string chunkText(size_t chunk) {
    return chunk >= (1u << 20) ? std::to_string(chunk >> 20) + " MiB"
                               : std::to_string(chunk >> 10) + " KiB";
}

}  // namespace

int main(int argc, char** argv) {
    long const mib = argc >= 2 ? std::atol(argv[1]) : 1024;
    long const rounds = argc >= 3 ? std::atol(argv[2]) : 3;
    std::string const only_chunk = argc >= 4 ? argv[3] : "all";
    std::string const only_path = argc >= 5 ? argv[4] : "all";
    if (argc > 5 || mib < 1 || mib > 4095 || rounds < 1 || rounds > 20 ||
        (only_chunk != "all" && only_chunk != "16k" && only_chunk != "1m") ||
        (only_path != "all" && only_path != "handlers" && only_path != "file" &&
         only_path != "memory")) {
        std::fprintf(stderr,
                     "usage: transfer [MIB [ROUNDS [CHUNK [PATH]]]]\n"
                     "  MIB     payload size, 1 to 4095 MiB (1024)\n"
                     "  ROUNDS  1 to 20 (3)\n"
                     "  CHUNK   all, 16k, 1m (all)\n"
                     "  PATH    all, handlers, file, memory (all)\n");
        return 2;
    }
    const char* const path_names[] = {"handlers", "file", "memory"};
    uint64_t const size = static_cast<uint64_t>(mib) << 20;

    std::string const scratch = bench::makeScratch("transfer");
    if (scratch.empty()) {
        std::fprintf(stderr, "transfer: no scratch directory\n");
        return 1;
    }
    std::printf("transfer: %ld MiB payload over 127.0.0.1, %ld round(s), load %s, scratch %s\n",
                mib, rounds, bench::loadAverage().c_str(), scratch.c_str());
    std::printf("MB/s is the median of the rounds (lowest..highest); CPU = processor seconds\n");
    std::printf("%-7s %-10s %6s %13s %8s %8s %6s %6s %8s %8s\n", "chunk", "path", "MB/s", "(range)",
                "vs file", "vs mem", "tx CPU", "rx CPU", "tx RSS", "rx RSS");

    const size_t chunks[] = {16u << 10, 1u << 20};
    bool all_ok = true;
    std::vector<std::string> verdicts;
    for (size_t const chunk : chunks) {
        if (only_chunk != "all" && (only_chunk == "1m") != (chunk == (1u << 20)))
            continue;
        // Rounds take the paths in turn in a different order, so that no
        // path always comes first after the spill file is made.
        std::vector<Outcome> results[3];
        for (long round = 0; round < rounds; ++round) {
            for (int step = 0; step < 3; ++step) {
                auto const mode = static_cast<Mode>((step + round) % 3);
                if (only_path != "all" && only_path != path_names[mode])
                    continue;
                Outcome const o = run(mode, size, chunk, scratch);
                all_ok = all_ok && o.ok;
                if (o.ok)
                    results[mode].push_back(o);
            }
        }
        // The median round of each path, and the largest peak memory seen.
        const Outcome* mid[3] = {nullptr, nullptr, nullptr};
        for (Mode const mode : {HANDLERS, RAW_FILE, RAW_MEMORY}) {
            std::vector<Outcome>& list = results[mode];
            std::sort(list.begin(), list.end(),
                      [](const Outcome& a, const Outcome& b) { return a.mbps < b.mbps; });
            if (!list.empty())
                mid[mode] = &list[list.size() / 2];
        }
        long handler_rss = 0;
        for (Mode const mode : {HANDLERS, RAW_FILE, RAW_MEMORY}) {
            const std::vector<Outcome>& list = results[mode];
            if (mid[mode] == nullptr) {
                if (only_path == "all" || only_path == path_names[mode])
                    std::printf("%-7s %-10s %6s\n", chunkText(chunk).c_str(), MODE_NAMES[mode],
                                "failed");
                continue;
            }
            long tx_rss = 0;
            long rx_rss = 0;
            for (const Outcome& o : list) {
                tx_rss = std::max(tx_rss, o.sender_rss);
                rx_rss = std::max(rx_rss, o.receiver_rss);
            }
            if (mode == HANDLERS)
                handler_rss = std::max(tx_rss, rx_rss);
            char range[32];
            std::snprintf(range, sizeof range, "(%.0f..%.0f)", list.front().mbps, list.back().mbps);
            char vs_file[16] = "";
            char vs_mem[16] = "";
            if (mid[RAW_FILE] != nullptr)
                std::snprintf(vs_file, sizeof vs_file, "%.0f%%",
                              100.0 * mid[mode]->mbps / mid[RAW_FILE]->mbps);
            if (mid[RAW_MEMORY] != nullptr)
                std::snprintf(vs_mem, sizeof vs_mem, "%.0f%%",
                              100.0 * mid[mode]->mbps / mid[RAW_MEMORY]->mbps);
            std::printf("%-7s %-10s %6.0f %13s %8s %8s %6.2f %6.2f %4.1f MiB %4.1f MiB\n",
                        chunkText(chunk).c_str(), MODE_NAMES[mode], mid[mode]->mbps, range, vs_file,
                        vs_mem, mid[mode]->sender_cpu, mid[mode]->receiver_cpu, tx_rss / 1024.0,
                        rx_rss / 1024.0);
        }
        if (mid[HANDLERS] == nullptr)
            continue;
        char line[160];
        std::snprintf(line, sizeof line, "%s chunks: peak memory under 32 MiB: %s (%.1f MiB)",
                      chunkText(chunk).c_str(), handler_rss < 32 * 1024 ? "met" : "MISSED",
                      handler_rss / 1024.0);
        verdicts.push_back(line);
        if (chunk == (1u << 20) && mid[RAW_FILE] != nullptr) {
            double const ratio = mid[HANDLERS]->mbps / mid[RAW_FILE]->mbps;
            std::snprintf(line, sizeof line,
                          "%s chunks: at least 50%% of the raw file copy: %s (%.0f%%)",
                          chunkText(chunk).c_str(), ratio >= 0.5 ? "met" : "MISSED", 100.0 * ratio);
            verdicts.push_back(line);
        }
    }
    std::printf("(load at the end %s)\ngoals:\n", bench::loadAverage().c_str());
    for (const std::string& line : verdicts)
        std::printf("  %s\n", line.c_str());
    bench::removeTree(scratch);
    return all_ok ? 0 : 1;
}
