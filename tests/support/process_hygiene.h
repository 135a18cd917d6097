// Checks that a test of child processes leaves nothing behind: no child of
// the test process (running or zombie) and no descriptor more than before.
#pragma once

#include <gtest/gtest.h>

#include <sys/types.h>

#include <string>
#include <vector>

namespace TarnwickTest {

// The processes whose parent is `parent`, from /proc.
std::vector<pid_t> childrenOf(pid_t parent);
// The number of open descriptors of this process.
int countDescriptors();
// Waits at most `ms` milliseconds for `pid` to be gone or a zombie (ended
// and waiting to be reaped by its parent); true when it is.
bool endsWithin(pid_t pid, int ms);
// Whether `pid` is a process that hasn't ended (not a zombie).
bool isAlive(pid_t pid);
// Waits at most `ms` milliseconds for the file `path` to hold `text`; the
// content it had then.
std::string awaitText(const std::string& path, const std::string& text, int ms);
// The content of a file ("" when it can't be read).
std::string fileText(const std::string& path);

// A fixture that notes the descriptors at the start and checks at the end
// that their number is the same and that the test process has no child.
// TMPDIR points at a scratch directory of the test, which must be empty
// again at the end.
class ProcessHygiene : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    const std::string& tmp() const { return m_tmp; }

private:
    int m_descriptors = 0;
    std::string m_tmp;
    std::string m_oldTmpdir;
    bool m_hadTmpdir = false;
};

}  // namespace TarnwickTest
