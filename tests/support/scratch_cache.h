// Points the event cache at a scratch directory for the length of a test.
#pragma once

#include <string>

namespace TarnwickTest {

// Prepares the process's ACT_Cache in a new temporary directory (through
// TMPDIR) on first use; the directory stays for the whole test program and
// is removed at its end. Each instance checks that no spill file is left.
class ScratchCache {
public:
    ScratchCache();
    ~ScratchCache();
    // The prepared cache directory.
    const std::string& directory() const;
};

}  // namespace TarnwickTest
