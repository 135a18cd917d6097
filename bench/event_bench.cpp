// Costs of the event layer: building an event's wire form, turning received
// bytes back into a typed event, and reading its arguments.
#include <tarnwick/event_factory.h>
#include <tarnwick/message_block.h>

#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

using namespace Tarnwick;

namespace {

void fill(Abstract_Event& event, int count) {
    for (int i = 0; i < count; ++i) {
        event.setArg(("argument" + std::to_string(i)).c_str(), "value number " + std::to_string(i));
    }
}

// A received block as a connection assembles it: header in host order,
// payload behind it.
Message_Block* receivedCopy(ACE_Message_Block* sent) {
    auto* block = new Message_Block();
    std::memcpy(static_cast<void*>(block->getHeader()),
                static_cast<Message_Block*>(sent)->getHeader(), 32);
    block->wr_ptr(32);
    block->write(sent->cont()->rd_ptr(), sent->cont()->length());
    return block;
}

void BM_BuildWireForm(benchmark::State& state) {
    int const count = static_cast<int>(state.range(0));
    size_t bytes = 0;
    for (auto _ : state) {
        GetVersionEvent event;
        fill(event, count);
        ACE_Message_Block* block = event.data(false);
        bytes = 32 + block->cont()->length();
        benchmark::DoNotOptimize(block);
    }
    state.counters["wire_bytes"] = static_cast<double>(bytes);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}
BENCHMARK(BM_BuildWireForm)->Arg(1)->Arg(10)->Arg(100);

void BM_ReceiveAndReadArguments(benchmark::State& state) {
    int const count = static_cast<int>(state.range(0));
    GetVersionEvent sent;
    fill(sent, count);
    Message_Block* block = receivedCopy(sent.data(false));
    char value[64];
    for (auto _ : state) {
        Abstract_Event* event = Event_Factory::create(block);
        event->getArg("argument0", value, sizeof value);
        benchmark::DoNotOptimize(value);
        event->destroy();
    }
    block->release();
}
BENCHMARK(BM_ReceiveAndReadArguments)->Arg(1)->Arg(10)->Arg(100);

void BM_ErrorReply(benchmark::State& state) {
    for (auto _ : state) {
        StartProcessEvent event;
        event.error("Permission denied.", 1);
        benchmark::DoNotOptimize(event.data(false));
    }
}
BENCHMARK(BM_ErrorReply);

void BM_HeaderEncodeDecode(benchmark::State& state) {
    Message_Header header;
    header.setACT(0);
    for (auto _ : state) {
        header.decode();
        header.encode();
        benchmark::DoNotOptimize(header);
    }
}
BENCHMARK(BM_HeaderEncodeDecode);

}  // namespace
