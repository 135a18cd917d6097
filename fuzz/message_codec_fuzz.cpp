// Fuzz target: the wire codec from the first byte of a stream. The input is
// fed to a Message_Reader in pieces; every whole message becomes a typed
// event through Event_Factory::create, and is given out again by a
// Message_Writer, which must yield exactly the bytes the reader took for it,
// with the header in network order: a header whose magic arrived in host
// order is accepted as it stands and goes out again in network order.
//
// Input layout:
//   byte 0    the size of the pieces: 1 + b
//   byte 1..  the bytes of the stream
#include <tarnwick/abstract_event.h>
#include <tarnwick/act_cache.h>
#include <tarnwick/event_factory.h>
#include <tarnwick/message_block.h>
#include <tarnwick/message_codec.h>

#include <ace/Log_Msg.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    TarnwickFuzz::silenceLog();
    char pattern[] = "/tmp/message_codec_fuzz.XXXXXX";
    if (::mkdtemp(pattern) == nullptr)
        std::abort();
    ::setenv("TMPDIR", pattern, 1);
    // Small chunks, so that payloads of a few kilobytes go to spill files.
    Tarnwick::Message_Block::Chunk_Size = 1024;
    Tarnwick::Message_Reader::setMaxMessageSize(1024 * 1024);
    Tarnwick::ACT_Cache::instance()->setQuota(8 * 1024 * 1024);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    size_t const piece = 1 + data[0];
    const char* const bytes = reinterpret_cast<const char*>(data + 1);
    size_t const length = size - 1;

    Tarnwick::Message_Reader reader;
    size_t offset = 0;
    size_t message_start = 0;
    while (offset < length) {
        size_t const count = length - offset < piece ? length - offset : piece;
        size_t used = 0;
        int const status = reader.feed(bytes + offset, count, used);
        offset += used;
        if (status == -1)
            break;
        if (status == 0)
            continue;
        ACE_Message_Block* block = reader.take();
        if (block == nullptr)
            std::abort();
        // What the writer gives out is what the reader took, the header
        // brought to network order.
        std::string taken(bytes + message_start, offset - message_start);
        char wire_header[32];
        Tarnwick::Message_Writer::EncodeHeader(taken.data(), wire_header);
        taken.replace(0, sizeof wire_header, wire_header, sizeof wire_header);
        if (Tarnwick::Message_Writer::Bytes(block) != taken)
            std::abort();
        message_start = offset;
        Tarnwick::Abstract_Event* event = Tarnwick::Event_Factory::create(block);
        if (event != nullptr) {
            std::string value;
            event->getArg("version", value);
            event->destroy();
        }
        block->release();
    }
    return 0;
}
