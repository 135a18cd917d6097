// Converts between message blocks and the bytes that travel on the wire.
#pragma once

#include <ace/Message_Block.h>

#include <string>

namespace Tarnwick {
class Message_Block;
}

namespace TarnwickTest {

// The 32 header bytes in network order followed by the payload of `block`
// (from memory or its spill file), which is left as it was.
std::string wireBytes(ACE_Message_Block* block);

// The header part (first 32 bytes) and payload part of wire bytes.
inline std::string headerPart(const std::string& wire) {
    return wire.substr(0, 32);
}
inline std::string payloadPart(const std::string& wire) {
    return wire.substr(32);
}

// A new Message_Block as a connection assembles it from wire bytes: header
// decoded, read position 0, write position 32, payload behind it. The caller
// releases it.
Tarnwick::Message_Block* blockFromWire(const std::string& wire);

// The big-endian bytes of a 32-bit word.
std::string word(uint32_t value);

// `size` bytes of a repeatable pseudo-random pattern chosen by `seed`.
std::string patterned(size_t size, unsigned seed);

}  // namespace TarnwickTest
