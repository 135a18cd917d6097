#include "wire.h"

#include <tarnwick/message_block.h>

#include <cstring>

namespace TarnwickTest {

std::string wireBytes(ACE_Message_Block* block) {
    auto* message = dynamic_cast<Tarnwick::Message_Block*>(block);
    if (message == nullptr || message->getHeader() == nullptr)
        return std::string();
    Tarnwick::Message_Header header = *message->getHeader();
    header.decode();
    header.encode();
    std::string bytes(reinterpret_cast<const char*>(&header), sizeof header);
    if (block->cont() != nullptr)
        bytes.append(block->cont()->rd_ptr(), block->cont()->length());
    return bytes;
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

}  // namespace TarnwickTest
