#include <tarnwick/path.h>
#include <tarnwick/replacement_file.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace Tarnwick {

namespace {

// Makes a finished rename durable. A failure here loses nothing that a
// reader could see, so it isn't reported.
void syncDirectory(const std::string& directory) {
    int const handle = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (handle >= 0) {
        ::fsync(handle);
        ::close(handle);
    }
}

}  // namespace

Replacement_File::~Replacement_File() {
    int const error = errno;
    if (m_handle >= 0)
        ::close(m_handle);
    if (!m_name.empty())
        ::unlink(m_name.c_str());
    errno = error;
}

bool Replacement_File::create(const std::string& directory, const std::string& base) {
    std::string pattern = directory;
    Path::Join(pattern, ("." + base + ".XXXXXX").c_str());
    m_handle = ::mkostemp(&pattern[0], O_CLOEXEC);
    if (m_handle < 0)
        return false;
    m_name = pattern;
    m_directory = directory;
    return true;
}

bool Replacement_File::write(const std::string& text) {
    std::string::size_type written = 0;
    while (written < text.size()) {
        ssize_t const put = ::write(m_handle, text.data() + written, text.size() - written);
        if (put < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        if (put == 0) {
            errno = EIO;
            return false;
        }
        written += static_cast<std::string::size_type>(put);
    }
    return true;
}

bool Replacement_File::setMode(mode_t mode) {
    return ::fchmod(m_handle, mode) == 0;
}

bool Replacement_File::takeOver(const struct stat& original) {
    if (::fchown(m_handle, original.st_uid, original.st_gid) != 0 &&
        ::fchown(m_handle, static_cast<uid_t>(-1), original.st_gid) != 0) {
        // The file stays the writer's own.
    }
    return setMode(original.st_mode & 07777);
}

bool Replacement_File::commit(const std::string& target) {
    if (::fsync(m_handle) != 0)
        return false;
    int const handle = m_handle;
    m_handle = -1;
    if (::close(handle) != 0)
        return false;
    if (::rename(m_name.c_str(), target.c_str()) != 0)
        return false;
    m_name.clear();
    syncDirectory(m_directory);
    return true;
}

}  // namespace Tarnwick
