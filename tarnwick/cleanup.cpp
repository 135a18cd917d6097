#include <tarnwick/cleanup.h>
#include <tarnwick/directory_iterator.h>
#include <tarnwick/log.h>
#include <tarnwick/path.h>
#include <tarnwick/utf8.h>

#include <ace/ACE.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

namespace Tarnwick {

namespace {

const int64_t SECONDS_PER_DAY = 86400;
// A file whose stat keeps failing while it still tells a file is passed
// over after this many attempts.
const int STAT_ATTEMPTS = 3;

struct StringDelete {
    void operator()(wchar_t* text) const { ACE::strdelete(text); }
};

}  // namespace

CleanUp::CleanUp() = default;

int CleanUp::Clean(int days) {
    if (days < 1) {
        TW_LOG("%D INFO  (%t): Cleaning temporary files disabled (cleanup_time: %d)\n", days);
        return 0;
    }
    // Times are compared in full: the limits hold beyond 2038.
    int64_t const modifiedLimit = static_cast<int64_t>(std::time(nullptr)) - days * SECONDS_PER_DAY;
    int64_t const accessedLimit = static_cast<int64_t>(std::time(nullptr)) - SECONDS_PER_DAY;

    std::unique_ptr<wchar_t, StringDelete> const directory(Path::TempPath());
    if (!directory || !Path::IsDirectory(directory.get())) {
        TW_LOG("%D ERROR (%t): Client temporary path is not a directory: %W\n",
               directory ? directory.get() : L"");
        return -1;
    }
    TW_LOG("%D DEBUG (%t): CleanUp parameters: path: %W, interval: %d days\n", directory.get(),
           days);

    Directory_Iterator entries;
    if (entries.open(directory.get()) != 0) {
        TW_LOG("%D ERROR (%t): Failed to open directory %W\n", directory.get());
        return -1;
    }
    int cleaned = 0;
    int attempts = 0;
    const wchar_t* entry = entries.next();
    while (entry != nullptr) {
        if (!Path::IsFile(entry)) {
            entry = entries.next();
            attempts = 0;
            continue;
        }
        std::string narrow;
        struct stat status;
        if (!wcstoutf8(entry, narrow) || ::stat(narrow.c_str(), &status) != 0) {
            TW_LOG("%D ERROR (%t): Failed to stat %W\n", entry);
            // The file changed under the hand: look at it again.
            if (++attempts < STAT_ATTEMPTS)
                continue;
            entry = entries.next();
            attempts = 0;
            continue;
        }
        if (static_cast<int64_t>(status.st_mtime) < modifiedLimit &&
            static_cast<int64_t>(status.st_atime) < accessedLimit) {
            TW_LOG("%D DEBUG (%t): Cleaning temporary file %W\n", entry);
            (void)::unlink(narrow.c_str());
            ++cleaned;
        }
        entry = entries.next();
        attempts = 0;
    }
    TW_LOG("%D INFO  (%t): %d temporary files have been cleaned.\n", cleaned);
    return 0;
}

}  // namespace Tarnwick
