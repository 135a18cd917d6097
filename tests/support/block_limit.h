// Sets Handler::Data_Block_Size for the length of a scope.
#pragma once

#include <tarnwick/handler.h>

#include <cstdint>

namespace TarnwickTest {

class BlockLimit {
public:
    explicit BlockLimit(uint64_t limit) : old_(Tarnwick::Handler::Data_Block_Size) {
        Tarnwick::Handler::Data_Block_Size = limit;
    }
    ~BlockLimit() { Tarnwick::Handler::Data_Block_Size = old_; }
    BlockLimit(const BlockLimit&) = delete;
    BlockLimit& operator=(const BlockLimit&) = delete;

private:
    uint64_t old_;
};

}  // namespace TarnwickTest
