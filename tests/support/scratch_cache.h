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

// A new empty temporary directory that TMPDIR names for the length of a
// scope, for tests that prepare an ACT_Cache of their own; the old TMPDIR
// comes back and the directory is removed at the end.
class ScratchTemp {
public:
    ScratchTemp();
    ~ScratchTemp();
    ScratchTemp(const ScratchTemp&) = delete;
    ScratchTemp& operator=(const ScratchTemp&) = delete;
    // The temporary directory itself.
    const std::string& path() const { return path_; }
    // Where an ACT_Cache of a process without a type puts its files:
    // path()/event-cache/unknown.
    std::string cacheDirectory() const { return path_ + "/event-cache/unknown"; }

private:
    std::string path_;
    std::string old_;
    bool had_old_;
};

}  // namespace TarnwickTest
