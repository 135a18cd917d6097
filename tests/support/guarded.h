// Output buffers that show a write beyond their capacity.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace TarnwickTest {

// A buffer of `capacity` characters followed by guard characters, all
// pre-filled, so that a test sees any write beyond the capacity.
template <typename C>
class Guarded {
public:
    static constexpr size_t kGuard = 8;

    explicit Guarded(size_t capacity, C fill = C('#'))
        : capacity_(capacity), storage_(capacity + kGuard, fill) {}

    C* data() { return storage_.data(); }
    size_t capacity() const { return capacity_; }
    bool guardIntact() const {
        for (size_t i = capacity_; i < storage_.size(); ++i) {
            if (storage_[i] != C('#')) {
                return false;
            }
        }
        return true;
    }
    std::basic_string<C> text() const { return std::basic_string<C>(storage_.data()); }
    C at(size_t i) const { return storage_[i]; }

private:
    size_t capacity_;
    std::vector<C> storage_;
};

using NarrowBuffer = Guarded<char>;
using WideBuffer = Guarded<wchar_t>;

}  // namespace TarnwickTest
