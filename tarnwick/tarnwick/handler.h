// A connection to a peer process.
#pragma once

#include <cstdint>

namespace Tarnwick {

// One connected socket carrying whole messages in both directions.
class Handler {
public:
    // The largest payload that a message keeps in memory, and the size of
    // the buffers that move payload between socket, memory and disk. 131072
    // when the library loads; an engine lowers it when it opens.
    static uint64_t Data_Block_Size;
};

}  // namespace Tarnwick
