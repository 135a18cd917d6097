// Scratch directories of tests on the local disk.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace TarnwickTest {

// A new temporary directory /tmp/PREFIX-XXXXXX, removed with everything in
// it at the end; path() is empty when none could be made.
class ScratchDir {
public:
    explicit ScratchDir(const std::string& prefix = "tarnwick-test");
    ~ScratchDir();
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

// A googletest environment that points TMPDIR at a new scratch directory
// for the whole test program (so that the engines' event cache directories
// don't land in the system's temporary directory) and removes it at the
// end. Register it with ::testing::AddGlobalTestEnvironment.
::testing::Environment* scratchTmpdir(const std::string& prefix);

// The number of entries of `directory` other than "." and ".."; -1 when it
// can't be opened.
int countEntries(const std::string& directory);

// The source tree of the project: $TARNWICK_SOURCE_DIR, else the tree this
// file was compiled from.
std::string sourceDir();

}  // namespace TarnwickTest
