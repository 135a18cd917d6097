// Files replaced as a whole: a new content is written beside the old file
// and renamed over it, so that a reader sees either the old or the new
// content, never a part.
#pragma once

#include <sys/stat.h>

#include <string>

namespace Tarnwick {

// A temporary file ".<base>.XXXXXX" (mode 0600) in the directory of the file
// it is to replace. Written, then committed: its content is made durable,
// it is renamed over the target, and the rename is made durable. A file
// that is not committed is removed when the object goes. Each operation
// returns false with errno set when it fails.
class Replacement_File {
public:
    Replacement_File() = default;
    ~Replacement_File();
    Replacement_File(const Replacement_File&) = delete;
    Replacement_File& operator=(const Replacement_File&) = delete;

    // Makes the temporary file in `directory` for a target named `base`.
    [[nodiscard]] bool create(const std::string& directory, const std::string& base);
    // Appends all of `text`, retrying short writes.
    [[nodiscard]] bool write(const std::string& text);
    // Gives the file `mode` (permission bits).
    [[nodiscard]] bool setMode(mode_t mode);
    // Gives the file the owner and mode of `original`. An owner that this
    // process may not give (it isn't privileged) is left as it is, and the
    // group is kept where it can be.
    [[nodiscard]] bool takeOver(const struct stat& original);
    // Puts the file in place of `target`, which lies in the directory given
    // to create().
    [[nodiscard]] bool commit(const std::string& target);

private:
    int m_handle = -1;
    std::string m_name;
    std::string m_directory;
};

}  // namespace Tarnwick
