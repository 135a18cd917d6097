#include <tarnwick/path.h>
#include <tarnwick/temporary_file.h>
#include <tarnwick/utf8.h>

#include <ace/OS_NS_fcntl.h>
#include <ace/OS_NS_unistd.h>

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace Tarnwick {

namespace {

// Tries at most this many generated names before giving up (EEXIST).
const int Name_Attempts = 100;
const mode_t File_Mode = 0600;

const char Name_Letters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";

// Six random letters and digits; false when the system has no random bytes.
bool randomSuffix(std::wstring& suffix) {
    unsigned char bytes[6];
    size_t got = 0;
    while (got < sizeof bytes) {
        ssize_t const n = ::getrandom(bytes + got, sizeof bytes - got, 0);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        got += static_cast<size_t>(n);
    }
    suffix.clear();
    for (unsigned char const byte : bytes)
        suffix += static_cast<wchar_t>(Name_Letters[byte % (sizeof Name_Letters - 1)]);
    return true;
}

bool utf8(const std::wstring& wide, std::string& out) {
    return wcstoutf8(wide.c_str(), out);
}

}  // namespace

Temporary_File::Temporary_File(const wchar_t* prefix, bool keep)
    : m_prefix(prefix != nullptr ? prefix : L"tmp"),
      m_handle(ACE_INVALID_HANDLE),
      m_keep(keep),
      m_named(false),
      m_chosen(false),
      m_created(false) {}

Temporary_File::~Temporary_File() {
    close();
    // A generated name that this object never created may name another
    // process's file by now: only what was made here, or given, goes.
    if (!m_keep && (!m_chosen || m_created))
        unlink();
}

// Chooses a new path: the temporary directory, the prefix, '-' and six random
// characters, taking a name under which nothing exists yet.
bool Temporary_File::generateName() {
    ACE_WString directory;
    if (Path::TempPath(directory) != 0)
        return false;
    for (int attempt = 0; attempt < Name_Attempts; ++attempt) {
        std::wstring suffix;
        if (!randomSuffix(suffix))
            return false;
        ACE_WString path(directory.c_str(), directory.length());
        std::wstring const name = m_prefix + L"-" + suffix;
        Path::Join(path, name.c_str());
        std::string narrow;
        if (!utf8(std::wstring(path.c_str(), path.length()), narrow))
            return false;
        struct stat info;
        if (::lstat(narrow.c_str(), &info) == 0)
            continue;
        m_filename.assign(path.c_str(), path.length());
        m_named = true;
        m_chosen = true;
        m_created = false;
        return true;
    }
    errno = EEXIST;
    return false;
}

const wchar_t* Temporary_File::filename() {
    if (!m_named && !generateName())
        return nullptr;
    return m_filename.c_str();
}

// Opens the generated path: created exclusively and never through a link, or
// reopened empty when this object created it before.
int Temporary_File::openGenerated() {
    for (int attempt = 0; attempt < Name_Attempts; ++attempt) {
        std::string narrow;
        if (!utf8(m_filename, narrow))
            return -1;
        if (m_created) {
            m_handle = ACE_OS::open(narrow.c_str(), O_RDWR | O_TRUNC | O_NOFOLLOW | O_CLOEXEC);
            if (m_handle != ACE_INVALID_HANDLE)
                return 0;
            if (errno != ENOENT)
                return -1;
            m_created = false;
        }
        m_handle = ACE_OS::open(narrow.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                File_Mode);
        if (m_handle != ACE_INVALID_HANDLE) {
            m_created = true;
            return 0;
        }
        if (errno != EEXIST || !generateName())
            return -1;
    }
    errno = EEXIST;
    return -1;
}

int Temporary_File::open() {
    if (m_handle != ACE_INVALID_HANDLE) {
        errno = EBUSY;
        return -1;
    }
    if (!m_named && !generateName())
        return -1;
    if (m_chosen)
        return openGenerated();
    std::string narrow;
    if (!utf8(m_filename, narrow))
        return -1;
    m_handle = ACE_OS::open(narrow.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, File_Mode);
    return m_handle != ACE_INVALID_HANDLE ? 0 : -1;
}

int Temporary_File::open(const wchar_t* name) {
    if (m_handle != ACE_INVALID_HANDLE) {
        errno = EBUSY;
        return -1;
    }
    if (name == nullptr) {
        errno = EINVAL;
        return -1;
    }
    m_filename = name;
    m_named = true;
    m_chosen = false;
    m_created = false;
    return open();
}

int Temporary_File::close() {
    if (m_handle != ACE_INVALID_HANDLE) {
        ACE_OS::close(m_handle);
        m_handle = ACE_INVALID_HANDLE;
    }
    return 0;
}

int64_t Temporary_File::write(const void* data, size_t size) {
    if (m_handle == ACE_INVALID_HANDLE) {
        errno = EBADF;
        return -1;
    }
    const char* bytes = static_cast<const char*>(data);
    size_t done = 0;
    while (done < size) {
        ssize_t const n = ::write(m_handle, bytes + done, size - done);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return -1;
        }
        done += static_cast<size_t>(n);
    }
    return static_cast<int64_t>(done);
}

int64_t Temporary_File::read(void* data, size_t size) {
    if (m_handle == ACE_INVALID_HANDLE) {
        errno = EBADF;
        return -1;
    }
    for (;;) {
        ssize_t const n = ::read(m_handle, data, size);
        if (n >= 0 || errno != EINTR)
            return n;
    }
}

int64_t Temporary_File::copy(const wchar_t* target) {
    if (m_handle == ACE_INVALID_HANDLE) {
        errno = EBADF;
        return -1;
    }
    if (target == nullptr) {
        errno = EINVAL;
        return -1;
    }
    std::string narrow;
    if (!wcstoutf8(target, narrow))
        return -1;
    ACE_HANDLE const out =
        ACE_OS::open(narrow.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, File_Mode);
    if (out == ACE_INVALID_HANDLE)
        return -1;
    int64_t const count = Path::CopyFileA(m_handle, out);
    int const error = errno;
    if (ACE_OS::close(out) != 0 && count >= 0)
        return count;  // errno tells the failed close
    errno = error;
    return count;
}

int64_t Temporary_File::copy(ACE_HANDLE target) {
    if (m_handle == ACE_INVALID_HANDLE) {
        errno = EBADF;
        return -1;
    }
    return Path::CopyFileA(m_handle, target);
}

int Temporary_File::unlink() {
    if (!m_named)
        return 0;
    std::string narrow;
    if (!utf8(m_filename, narrow))
        return -1;
    int const result = ::unlink(narrow.c_str());
    if (result == 0)
        m_created = false;
    return result;
}

void Temporary_File::keep() {
    m_keep = true;
}

ACE_HANDLE Temporary_File::get_handle() const {
    return m_handle;
}

}  // namespace Tarnwick
