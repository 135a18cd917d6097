#include "process_hygiene.h"

#include "scratch_dir.h"

#include <dirent.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <thread>

namespace TarnwickTest {

namespace {

// Fields of /proc/<pid>/stat: the state letter and the parent, read behind
// the command name, which may hold spaces and parentheses.
bool readStat(pid_t pid, char& state, pid_t& parent) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    if (!std::getline(in, text))
        return false;
    size_t const close = text.rfind(')');
    if (close == std::string::npos)
        return false;
    std::istringstream rest(text.substr(close + 1));
    long ppid = 0;
    if (!(rest >> state >> ppid))
        return false;
    parent = static_cast<pid_t>(ppid);
    return true;
}

}  // namespace

std::vector<pid_t> childrenOf(pid_t parent) {
    std::vector<pid_t> children;
    DIR* const proc = ::opendir("/proc");
    if (proc == nullptr)
        return children;
    while (struct dirent* entry = ::readdir(proc)) {
        char* end = nullptr;
        long const pid = std::strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0')
            continue;
        char state;
        pid_t ppid;
        if (readStat(static_cast<pid_t>(pid), state, ppid) && ppid == parent)
            children.push_back(static_cast<pid_t>(pid));
    }
    ::closedir(proc);
    return children;
}

int countDescriptors() {
    return countEntries("/proc/self/fd") - 1;  // less the one that lists them
}

bool isAlive(pid_t pid) {
    char state;
    pid_t parent;
    return readStat(pid, state, parent) && state != 'Z' && state != 'X';
}

bool endsWithin(pid_t pid, int ms) {
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (isAlive(pid)) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

std::string fileText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string awaitText(const std::string& path, const std::string& text, int ms) {
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
        std::string const content = fileText(path);
        if (content.find(text) != std::string::npos || std::chrono::steady_clock::now() > deadline)
            return content;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void ProcessHygiene::SetUp() {
    std::string pattern = "/tmp/tarnwick-process-test-XXXXXX";
    ASSERT_NE(nullptr, ::mkdtemp(&pattern[0]));
    m_tmp = pattern;
    const char* const old = std::getenv("TMPDIR");
    m_hadTmpdir = old != nullptr;
    if (m_hadTmpdir)
        m_oldTmpdir = old;
    ::setenv("TMPDIR", m_tmp.c_str(), 1);
    m_descriptors = countDescriptors();
}

void ProcessHygiene::TearDown() {
    std::vector<pid_t> const children = childrenOf(::getpid());
    EXPECT_TRUE(children.empty()) << "the test left " << children.size()
                                  << " child process(es), the first " << children.front();
    for (pid_t const child : children)
        ::kill(child, SIGKILL);
    EXPECT_EQ(m_descriptors, countDescriptors()) << "a descriptor leaked";
    EXPECT_EQ(0, countEntries(m_tmp)) << "a file was left in the temporary directory";
    std::error_code ignored;
    std::filesystem::remove_all(m_tmp, ignored);
    if (m_hadTmpdir)
        ::setenv("TMPDIR", m_oldTmpdir.c_str(), 1);
    else
        ::unsetenv("TMPDIR");
}

}  // namespace TarnwickTest
