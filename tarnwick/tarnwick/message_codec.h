// The wire format of messages apart from any socket: bytes in, whole
// messages out, and a message out as the ranges of bytes to write.
#pragma once

#include <tarnwick/export.h>

#include <ace/Message_Block.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace Tarnwick {

class Message_Block;

// Assembles messages from the bytes of a stream: a 32-byte header in network
// order, then `size` bytes of payload. The header is checked as soon as it is
// whole (its magic, and its size against maxMessageSize()); the payload goes
// into a Message_Block, which keeps a small payload in memory and moves a
// large one to a spill file of the event cache (after a check that the disk
// has room for all of it). Memory stays bounded by the block's chunk size
// whatever a peer announces.
//
// A reader serves one stream; it is not thread-safe.
class TARNWICK_EXPORT Message_Reader {
public:
    Message_Reader();
    // Releases a message that was not finished, and its spill file.
    ~Message_Reader();
    Message_Reader(const Message_Reader&) = delete;
    Message_Reader& operator=(const Message_Reader&) = delete;

    // Takes up to `size` bytes; `used` tells how many it took. Returns 1
    // when a message is whole (take it with take(); bytes behind it were not
    // taken), 0 when it took everything and wants more, -1 with errno on a
    // failure: EINVAL for a header without the magic, EMSGSIZE for a size
    // over the limit, ENOSPC when the payload can't be kept (quota or disk),
    // ENOMEM. After -1 the reader keeps the message as it was (see
    // partial()); reset() drops it.
    int feed(const char* bytes, size_t size, size_t& used);

    // The whole message, header decoded and read position 0; the caller
    // owns it. Null unless the last feed() returned 1.
    ACE_Message_Block* take();

    // The most bytes that the next feed() takes in one go towards the
    // message: the rest of the header, or the rest of the payload but at
    // most one chunk.
    size_t wanted() const;

    // The header of the message under way is whole.
    bool headerComplete() const;
    // Header bytes taken so far (0 to 32).
    size_t headerBytes() const;
    // The payload bytes of the message under way still to come, once its
    // header is whole and has passed its checks; 0 otherwise.
    uint64_t payloadWanted() const;
    // True when the message under way has a checked header and a payload
    // that goes to a spill file (larger than the chunk size): such a
    // payload may be fed from a pipe.
    bool spilling() const;
    // Takes `size` payload bytes that wait in `pipe` (at most
    // payloadWanted()) into the spill file, as feed() would take them from
    // memory. 1 when the message is whole, 0 when it wants more, -1 with
    // errno as feed(); after -1 bytes may be left in the pipe.
    int feedFromPipe(int pipe, size_t size);
    // The message under way, still owned by the reader; null between
    // messages.
    Message_Block* partial() const { return m_block; }
    // Drops the message under way.
    void reset();

    // The largest payload that a header may announce. 2 GiB unless
    // changed; any thread may change it.
    static void setMaxMessageSize(uint64_t size);
    static uint64_t maxMessageSize();
    // The free space that a spill must leave on the event cache's file
    // system: 64 MiB unless changed. Returns the old value.
    static uint64_t setDiskReserve(uint64_t bytes);

private:
    [[nodiscard]] int startMessage();
    // Checks the header that has just become whole. 0 or -1.
    [[nodiscard]] int checkHeader();

    Message_Block* m_block;
    bool m_ready;
};

// Gives out the bytes of one message as a connection writes them: the 32
// header bytes in network order (made from a copy: the block's own header is
// never changed), then the payload one chunk at a time, from memory or read
// from the spill file at this writer's own offset. The writer keeps a
// duplicate of the block.
class TARNWICK_EXPORT Message_Writer {
public:
    // A writer of `block`, which must be a Message_Block (else every next()
    // fails with EINVAL). The caller keeps its own reference.
    explicit Message_Writer(ACE_Message_Block* block);
    ~Message_Writer();
    Message_Writer(const Message_Writer&) = delete;
    Message_Writer& operator=(const Message_Writer&) = delete;

    // The next bytes to write, valid until the next call: 1 with `data` and
    // `length` set, 0 when all of the message has been given out, -1 with
    // errno on a failure (a spill file that can't be read; EWOULDBLOCK when
    // the read may be tried again).
    int next(const char*& data, size_t& length);
    // As next() while header bytes are left: those in `head`, and in
    // `chunk` the first payload chunk behind them when the payload is in
    // memory (else `chunk_length` 0), to be written together.
    int nextWithHeader(const char*& head, size_t& head_length, const char*& chunk,
                       size_t& chunk_length);
    // `count` bytes of what next() or nextWithHeader() gave were written
    // (header bytes first).
    void advance(size_t count);
    // Payload bytes read into memory and not yet written: at most one chunk.
    size_t buffered() const;
    // When the header is out, nothing is buffered and the rest of the
    // payload lies in a spill file: true, with the file's descriptor (owned
    // by the message's data block), the offset to go on from and the bytes
    // left there, for a caller that sends them straight from the file.
    bool spilledRange(ACE_HANDLE& fd, uint64_t& offset, uint64_t& length);
    // `count` bytes of the range that spilledRange() gave were written.
    void advanceSpilled(uint64_t count);

    // All the bytes of `block` as one string (for tests, tools and small
    // messages); empty when the block is no message or can't be read.
    static std::string Bytes(ACE_Message_Block* block);
    // The 32 bytes of `header` in network order, whatever order it is in.
    static void EncodeHeader(const void* header, char out[32]);

private:
    ACE_Message_Block* m_block;
    char m_header[32];
    size_t m_header_sent;
    ACE_Message_Block* m_chunk;
    bool m_valid;
};

}  // namespace Tarnwick
