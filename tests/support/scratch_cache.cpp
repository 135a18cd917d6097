#include "scratch_cache.h"

#include <tarnwick/act_cache.h>

#include <gtest/gtest.h>

#include <dirent.h>
#include <ftw.h>
#include <stdlib.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace TarnwickTest {

namespace {

std::string root;

void removeTree() {
    if (!root.empty()) {
        std::string command = "rm -rf '" + root + "'";
        if (std::system(command.c_str()) != 0) {
        }
    }
}

size_t entries(const std::string& directory) {
    size_t count = 0;
    if (DIR* dir = opendir(directory.c_str())) {
        while (dirent* entry = readdir(dir)) {
            std::string const name = entry->d_name;
            if (name != "." && name != "..")
                ++count;
        }
        closedir(dir);
    }
    return count;
}

}  // namespace

ScratchCache::ScratchCache() {
    if (root.empty()) {
        char path[] = "/tmp/tarnwick-cache-XXXXXX";
        if (mkdtemp(path) != nullptr) {
            root = path;
            setenv("TMPDIR", path, 1);
            std::atexit(removeTree);
        }
    }
    Tarnwick::ACT_Cache::instance()->prepare();
}

ScratchCache::~ScratchCache() {
    EXPECT_EQ(entries(directory()), 0u) << "spill files left in " << directory();
}

ScratchTemp::ScratchTemp() : had_old_(false) {
    if (const char* old = std::getenv("TMPDIR")) {
        old_ = old;
        had_old_ = true;
    }
    char path[] = "/tmp/tarnwick-temp-XXXXXX";
    if (mkdtemp(path) != nullptr) {
        path_ = path;
        setenv("TMPDIR", path, 1);
    }
}

ScratchTemp::~ScratchTemp() {
    if (had_old_)
        setenv("TMPDIR", old_.c_str(), 1);
    else
        unsetenv("TMPDIR");
    if (!path_.empty()) {
        // Depth first, never following a link out of the tree.
        ::nftw(
            path_.c_str(),
            [](const char* name, const struct stat*, int, struct FTW*) {
                ::remove(name);
                return 0;
            },
            16, FTW_DEPTH | FTW_PHYS);
    }
}

const std::string& ScratchCache::directory() const {
    return Tarnwick::ACT_Cache::instance()->directory();
}

}  // namespace TarnwickTest
