#include "wire.h"

#include <tarnwick/message_block.h>
#include <tarnwick/message_codec.h>

#include <cstring>
#include <random>

namespace TarnwickTest {

std::string wireBytes(ACE_Message_Block* block) {
    return Tarnwick::Message_Writer::Bytes(block);
}

Tarnwick::Message_Block* blockFromWire(const std::string& wire) {
    auto* block = new Tarnwick::Message_Block();
    std::memcpy(static_cast<void*>(block->getHeader()), wire.data(), 32);
    block->getHeader()->decode();
    block->wr_ptr(32);
    if (wire.size() > 32)
        block->write(wire.data() + 32, wire.size() - 32);
    return block;
}

std::string word(uint32_t value) {
    std::string bytes(4, '\0');
    for (int i = 3; i >= 0; --i) {
        bytes[i] = static_cast<char>(value & 0xFF);
        value >>= 8;
    }
    return bytes;
}

std::string patterned(size_t size, unsigned seed) {
    std::string bytes(size, '\0');
    std::mt19937 random(seed);
    for (char& byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

}  // namespace TarnwickTest
