// Throughput of one connection over loopback: a message written with
// Handler::send on one end and read with Handler::recv on the other, both
// ends non-blocking and driven by one loop. Payloads up to the chunk size
// stay in memory; larger ones pass through the event cache on both ends.
// Counters: bytes per second, and the largest payload that the receiving
// side held in memory at any time.
#include <tarnwick/handler.h>
#include <tarnwick/handler_t.h>
#include <tarnwick/message_block.h>

#include <ace/INET_Addr.h>
#include <ace/Log_Msg.h>
#include <ace/SOCK_Acceptor.h>
#include <ace/SOCK_Connector.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cerrno>
#include <string>

using namespace Tarnwick;

namespace {

class Probe : public PlainHandler {
public:
    ACE_Message_Block* incoming() const { return m_reader.partial(); }
};

// Two handlers joined over loopback, both non-blocking.
struct Pair {
    Probe* sender = new Probe();
    Probe* receiver = new Probe();
    bool ok = false;

    Pair() {
        ACE_SOCK_Acceptor acceptor;
        ACE_INET_Addr address(static_cast<u_short>(0), "127.0.0.1");
        if (acceptor.open(address, 1) == -1 || acceptor.get_local_addr(address) == -1)
            return;
        ACE_SOCK_Connector connector;
        if (connector.connect(sender->peer(), address) == -1 ||
            acceptor.accept(receiver->peer()) == -1)
            return;
        acceptor.close();
        ok = sender->open() == 0 && receiver->open() == 0 &&
             sender->peer().enable(ACE_NONBLOCK) == 0 && receiver->peer().enable(ACE_NONBLOCK) == 0;
    }
    ~Pair() {
        sender->close();
        receiver->close();
        sender->release();
        receiver->release();
    }
};

// One message across; false on a failure. `peak` grows to the largest
// in-memory payload of the receiving side.
bool transfer(Pair& pair, Message_Block* out, size_t& peak) {
    bool sent = false;
    ACE_Message_Block* in = nullptr;
    while (in == nullptr) {
        if (!sent) {
            errno = 0;
            if (pair.sender->send(out, nullptr) == -1)
                return false;
            sent = errno != EWOULDBLOCK;
        }
        errno = 0;
        int64_t const got = pair.receiver->recv(in, nullptr);
        if (got == 0 || (got == -1 && errno != EWOULDBLOCK))
            return false;
        ACE_Message_Block* partial = in != nullptr ? in : pair.receiver->incoming();
        if (partial != nullptr && partial->cont() != nullptr)
            peak = std::max(peak, partial->cont()->length());
    }
    in->release();
    return true;
}

void BM_Transfer(benchmark::State& state) {
    // Failures only: each connection's end is logged at debug priority.
    ACE_Log_Msg::instance()->priority_mask(LM_ERROR | LM_WARNING, ACE_Log_Msg::PROCESS);
    uint64_t const old_limit = Handler::Data_Block_Size;
    Handler::Data_Block_Size = 16384;
    size_t const size = static_cast<size_t>(state.range(0));
    std::string const payload(size, 'p');
    size_t peak = 0;
    {
        Pair pair;
        if (!pair.ok) {
            state.SkipWithError("no loopback connection");
            Handler::Data_Block_Size = old_limit;
            return;
        }
        for (auto _ : state) {
            state.PauseTiming();
            auto* out = new Message_Block();
            out->getHeader()->setACT(0x5EED);
            out->getHeader()->setSize(static_cast<uint32_t>(size));
            out->wr_ptr(32);
            out->write(payload.data(), payload.size());
            out->getHeader()->setACT(0x5EEE);  // the receiving end spills to its own file
            state.ResumeTiming();
            bool const ok = transfer(pair, out, peak);
            out->release();
            if (!ok) {
                state.SkipWithError("transfer failed");
                break;
            }
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * (size + 32)));
    state.counters["MB/s"] = benchmark::Counter(static_cast<double>(size + 32) / 1e6,
                                                benchmark::Counter::kIsIterationInvariantRate);
    state.counters["peak_in_memory"] = static_cast<double>(peak);
    Handler::Data_Block_Size = old_limit;
}
BENCHMARK(BM_Transfer)->Arg(1024)->Arg(16384)->Arg(1 << 20)->Arg(16 << 20)->UseRealTime();

}  // namespace
