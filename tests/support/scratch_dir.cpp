#include "scratch_dir.h"

#include <dirent.h>
#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <system_error>
#include <vector>

namespace TarnwickTest {

ScratchDir::ScratchDir(const std::string& prefix) {
    std::string const pattern = "/tmp/" + prefix + "-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (::mkdtemp(name.data()) != nullptr)
        m_path = name.data();
}

ScratchDir::~ScratchDir() {
    std::error_code ignored;
    if (!m_path.empty())
        std::filesystem::remove_all(m_path, ignored);
}

namespace {

class ScratchTmpdir : public ::testing::Environment {
public:
    explicit ScratchTmpdir(const std::string& prefix) : m_prefix(prefix) {}
    void SetUp() override {
        m_directory.reset(new ScratchDir(m_prefix));
        ASSERT_FALSE(m_directory->path().empty());
        ::setenv("TMPDIR", m_directory->path().c_str(), 1);
    }
    void TearDown() override { m_directory.reset(); }

private:
    std::string m_prefix;
    std::unique_ptr<ScratchDir> m_directory;
};

}  // namespace

::testing::Environment* scratchTmpdir(const std::string& prefix) {
    return new ScratchTmpdir(prefix);
}

int countEntries(const std::string& directory) {
    DIR* const dir = ::opendir(directory.c_str());
    if (dir == nullptr)
        return -1;
    int count = 0;
    while (struct dirent* entry = ::readdir(dir)) {
        std::string const name = entry->d_name;
        if (name != "." && name != "..")
            ++count;
    }
    ::closedir(dir);
    return count;
}

std::string sourceDir() {
    const char* const fromEnvironment = std::getenv("TARNWICK_SOURCE_DIR");
    if (fromEnvironment != nullptr && *fromEnvironment != '\0')
        return fromEnvironment;
    std::string const file = __FILE__;
    return file.substr(0, file.rfind("/tests/"));
}

}  // namespace TarnwickTest
