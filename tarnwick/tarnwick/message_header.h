// The 32-byte header that begins every message on the wire.
#pragma once

#include <tarnwick/export.h>

#include <cstdint>

namespace Tarnwick {

// Eight unsigned 32-bit words, in wire order: agentid, ACT, size, type,
// flags, magic, state, reserved. The record is overlaid in place on the first
// 32 bytes of a message block; whether those bytes are in host or network
// order is told by the magic word alone (isReadable). It has no lock: it
// belongs to whoever holds its block. Setters return the previous value.
class TARNWICK_EXPORT Message_Header {
public:
    // The magic word, 0x00060201; on the wire the bytes 00 06 02 01.
    static const uint32_t MAGIC = 0x00060201;

    // Performs open().
    Message_Header();

    // Magic set, every other word 0. Returns 0.
    int open();
    // Copies agentid, ACT, size, type, flags and state of `other`; the magic
    // is written fresh and the reserved word is 0. Returns 0.
    int open(const Message_Header& other);
    // Copies all eight words as they stand, magic and reserved included.
    Message_Header& operator=(const Message_Header& other) = default;
    Message_Header(const Message_Header& other) = default;

    // Host to network order, unconditionally: a second call undoes the first
    // on a little-endian host. Returns 0.
    int encode();
    // Network to host order, unless the magic already reads as the constant
    // (then nothing happens). Returns 0; a wrong magic shows as !isReadable().
    int decode();
    // True when the magic word equals the constant as it stands.
    bool isReadable() const;

    uint32_t getAgentID() const { return agentid; }
    uint32_t setAgentID(uint32_t value);
    uint32_t getACT() const { return ACT; }
    // A non-zero value is stored. 0 keeps a token already present, and gives
    // a header without one a fresh random token. Returns the previous value.
    uint32_t setACT(uint32_t value);
    uint32_t getSize() const { return size; }
    uint32_t setSize(uint32_t value);
    uint32_t getType() const { return type; }
    uint32_t setType(uint32_t value);
    uint32_t getFlags() const { return flags; }
    uint32_t setFlags(uint32_t value);
    uint32_t getState() const { return state; }
    uint32_t setState(uint32_t value);

    bool isBinary() const { return enabled(BINARY_FLAG); }
    void setBinary(bool on);
    bool isError() const { return enabled(ERROR_FLAG); }
    void setError(bool on);
    bool isResult() const { return enabled(RESULT_FLAG); }
    void setResult(bool on);
    bool isBroadCast() const { return enabled(BROADCAST_FLAG); }
    void setBroadCast(bool on);

    // Logs the header's fields at debug priority, as one record.
    void dump() const;

private:
    enum Flag { RESULT_FLAG = 0x02, BINARY_FLAG = 0x04, ERROR_FLAG = 0x08, BROADCAST_FLAG = 0x10 };

    void enable(Flag flag) { flags |= flag; }
    void disable(Flag flag) { flags &= ~static_cast<uint32_t>(flag); }
    bool enabled(Flag flag) const { return (flags & flag) != 0; }
    void set(Flag flag, bool on);
    template <typename Convert>
    void swapWords(Convert convert);

    uint32_t agentid;
    uint32_t ACT;
    uint32_t size;
    uint32_t type;
    uint32_t flags;
    uint32_t magic;
    uint32_t state;
    uint32_t reserved;
};

static_assert(sizeof(Message_Header) == 32, "the wire header is 32 bytes");

}  // namespace Tarnwick
