#include <tarnwick/log.h>
#include <tarnwick/path.h>
#include <tarnwick/utf8.h>

#include <ace/ACE.h>
#include <ace/Lib_Find.h>
#include <ace/OS_NS_fcntl.h>
#include <ace/OS_NS_unistd.h>

#include <sys/stat.h>
#include <sys/types.h>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <cwchar>

namespace Tarnwick {

namespace {

// The UTF-8 form of a wide path, released on destruction; null when the path
// is null or can't be converted (errno then tells why).
class Utf8Path {
public:
    explicit Utf8Path(const wchar_t* path)
        : text_(path != nullptr ? wcstoutf8_malloced(path) : nullptr) {
        if (path == nullptr)
            errno = EINVAL;
    }
    ~Utf8Path() { utf8free(text_); }
    Utf8Path(const Utf8Path&) = delete;
    Utf8Path& operator=(const Utf8Path&) = delete;

    const char* get() const { return text_; }

private:
    char* text_;
};

bool statMode(const char* path, mode_t& mode) {
    struct stat info;
    if (path == nullptr || ::stat(path, &info) != 0)
        return false;
    mode = info.st_mode;
    return true;
}

bool statMode(const wchar_t* path, mode_t& mode) {
    if (path == nullptr)
        return false;
    Utf8Path const utf8(path);
    return statMode(utf8.get(), mode);
}

template <typename CharT>
bool isFile(const CharT* path) {
    mode_t mode;
    return statMode(path, mode) && S_ISREG(mode);
}

template <typename CharT>
bool isDirectory(const CharT* path) {
    mode_t mode;
    return statMode(path, mode) && S_ISDIR(mode);
}

template <typename String, typename CharT>
int join(String& path, const CharT* name, CharT separator) {
    if (path.length() != 0 && path[path.length() - 1] != separator)
        path += separator;
    if (name != nullptr)
        path += name;
    return 0;
}

void logComponent(const char* component) {
    TW_LOG("%D ERROR (%t): Can not create path component %C: %m\n", component);
}

void logComponent(const wchar_t* component) {
    TW_LOG("%D ERROR (%t): Can not create path component %W: %m\n", component);
}

int makeDirectory(const char* path, int mode) {
    mode_t const permissions = mode != 0 ? static_cast<mode_t>(mode) : 0777;
    if (::mkdir(path, permissions) == 0)
        return 0;
    int const error = errno;
    // Made by someone else between our stat and mkdir.
    if (error == EEXIST && isDirectory(path))
        return 0;
    errno = error;
    return -1;
}

int makeDirectory(const wchar_t* path, int mode) {
    Utf8Path const utf8(path);
    if (utf8.get() == nullptr)
        return -1;
    return makeDirectory(utf8.get(), mode);
}

template <typename CharT>
int mkTree(const CharT* path, int mode) {
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    std::basic_string<CharT> const whole(path);
    typename std::basic_string<CharT>::size_type position = 0;
    for (;;) {
        auto const separator = whole.find(CharT('/'), position);
        std::basic_string<CharT> const prefix = whole.substr(0, separator);
        if (!prefix.empty() && !isDirectory(prefix.c_str()) &&
            makeDirectory(prefix.c_str(), mode) != 0) {
            logComponent(prefix.c_str());
            return -1;
        }
        if (separator == std::basic_string<CharT>::npos)
            return 0;
        position = separator + 1;
    }
}

// Closes `handle`, keeping the errno that stood before.
void closeKeepingError(ACE_HANDLE handle) {
    int const error = errno;
    ACE_OS::close(handle);
    errno = error;
}

// Opens the files of a copy; a null name stands for one that couldn't be
// converted, with errno already telling why.
ACE_HANDLE openInput(const char* source) {
    ACE_HANDLE const handle =
        source != nullptr ? ACE_OS::open(source, O_RDONLY | O_CLOEXEC) : ACE_INVALID_HANDLE;
    if (handle == ACE_INVALID_HANDLE)
        TW_LOG_ERRNO("%D ERROR (%t): Can not open input file.");
    return handle;
}

ACE_HANDLE openOutput(const char* target, int mode) {
    ACE_HANDLE const handle = target != nullptr
                                  ? ACE_OS::open(target, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC,
                                                 static_cast<mode_t>(mode))
                                  : ACE_INVALID_HANDLE;
    if (handle == ACE_INVALID_HANDLE)
        TW_LOG_ERRNO("%D ERROR (%t): Can not open output file.");
    return handle;
}

int64_t copyAndClose(ACE_HANDLE in, ACE_HANDLE out) {
    int64_t const count = Path::CopyFileA(in, out);
    int const error = count < 0 ? errno : 0;
    int closed = ACE_OS::close(in);
    int close_error = closed != 0 ? errno : 0;
    if (ACE_OS::close(out) != 0) {
        closed = -1;
        close_error = errno;
    }
    if (count < 0)
        errno = error;
    else if (closed != 0)
        errno = close_error;
    return count;
}

}  // namespace

int Path::Join(ACE_WString& path, const wchar_t* name) {
    return join(path, name, L'/');
}

int Path::Join(ACE_WString& path, const ACE_WString& name) {
    return join(path, name.c_str(), L'/');
}

int Path::Join(ACE_String_Base<char>& path, const char* name) {
    return join(path, name, '/');
}

int Path::Join(std::string& path, const char* name) {
    return join(path, name, '/');
}

bool Path::IsFile(const wchar_t* path) {
    return isFile(path);
}
bool Path::IsFile(const ACE_WString& path) {
    return isFile(path.c_str());
}
bool Path::IsFile(const char* path) {
    return isFile(path);
}
bool Path::IsFile(const std::string& path) {
    return isFile(path.c_str());
}
bool Path::IsFile(const ACE_String_Base<char>& path) {
    return isFile(path.c_str());
}

bool Path::IsDirectory(const wchar_t* path) {
    return isDirectory(path);
}
bool Path::IsDirectory(const char* path) {
    return isDirectory(path);
}
bool Path::IsDirectory(const ACE_WString& path) {
    return isDirectory(path.c_str());
}
bool Path::IsDirectory(const ACE_String_Base<char>& path) {
    return isDirectory(path.c_str());
}
bool Path::IsDirectory(const std::string& path) {
    return isDirectory(path.c_str());
}

bool Path::Exists(const wchar_t* path) {
    mode_t mode;
    return statMode(path, mode);
}

bool Path::Exists(const ACE_WString& path) {
    return Exists(path.c_str());
}

int Path::MkTree(const ACE_WString& path, int mode) {
    return mkTree(path.c_str(), mode);
}
int Path::MkTree(const wchar_t* path, int mode) {
    return mkTree(path, mode);
}
int Path::MkTree(const char* path, int mode) {
    return mkTree(path, mode);
}
int Path::MkTree(const ACE_String_Base<char>& path, int mode) {
    return mkTree(path.c_str(), mode);
}
int Path::MkTree(const std::string& path, int mode) {
    return mkTree(path.c_str(), mode);
}

int64_t Path::CopyFileA(ACE_HANDLE in, ACE_HANDLE out) {
    char buffer[8192];
    int64_t total = 0;
    for (;;) {
        ssize_t const got = ACE_OS::read(in, buffer, sizeof buffer);
        if (got < 0) {
            if (errno == EINTR)
                continue;
            return -1;
        }
        if (got == 0)
            return total;
        ssize_t written = 0;
        while (written < got) {
            ssize_t const put = ACE_OS::write(out, buffer + written, got - written);
            if (put < 0) {
                if (errno == EINTR)
                    continue;
                return -1;
            }
            written += put;
        }
        total += got;
    }
}

int64_t Path::CopyFileA(const char* source, const char* target, int mode) {
    if (source == nullptr)
        errno = EINVAL;
    ACE_HANDLE const in = openInput(source);
    if (in == ACE_INVALID_HANDLE)
        return -1;
    if (target == nullptr)
        errno = EINVAL;
    ACE_HANDLE const out = openOutput(target, mode);
    if (out == ACE_INVALID_HANDLE) {
        closeKeepingError(in);
        return -1;
    }
    return copyAndClose(in, out);
}

int64_t Path::CopyFileA(const wchar_t* source, const wchar_t* target, int mode) {
    ACE_HANDLE in;
    {
        Utf8Path const name(source);
        in = openInput(name.get());
    }
    if (in == ACE_INVALID_HANDLE)
        return -1;
    ACE_HANDLE out;
    {
        Utf8Path const name(target);
        out = openOutput(name.get(), mode);
    }
    if (out == ACE_INVALID_HANDLE) {
        closeKeepingError(in);
        return -1;
    }
    return copyAndClose(in, out);
}

const wchar_t* Path::RunPath() {
    return nullptr;
}

const wchar_t* Path::RunPath(ACE_WString& directory, const wchar_t* name) {
    if (directory.length() == 0) {
        const wchar_t* const run = RunPath();
        if (run != nullptr)
            directory = run;
    }
    if (IsDirectory(directory)) {
        Join(directory, name);
        directory += L".pid";
    }
    return directory.c_str();
}

// ---------------------------------------------------------------------------
// The directory of temporary files

namespace {

// The reader of the setting "temp", installed from above.
std::atomic<Path::TempSetting> g_tempSetting{nullptr};

// The temporary directory as wide text: "temp" from a validated
// configuration when it names a directory, else the system's. False when the
// system's can't be had.
bool tempDirectory(std::wstring& out) {
    Path::TempSetting const reader = g_tempSetting.load(std::memory_order_acquire);
    std::wstring configured;
    if (reader != nullptr && reader(configured) && Path::IsDirectory(configured.c_str())) {
        out = configured;
        return true;
    }
    char buffer[PATH_MAX];
    if (ACE::get_temp_dir(buffer, sizeof buffer) == -1)
        return false;
    wchar_t* const wide = utf8towcs_malloced(buffer);
    if (wide == nullptr)
        return false;
    out = wide;
    wcsfree(wide);
    return true;
}

// The same as UTF-8.
bool tempDirectory(std::string& out) {
    std::wstring wide;
    if (!tempDirectory(wide))
        return false;
    char* const utf8 = wcstoutf8_malloced(wide.c_str());
    if (utf8 == nullptr)
        return false;
    out = utf8;
    utf8free(utf8);
    return true;
}

}  // namespace

void Path::setTempSetting(TempSetting reader) {
    g_tempSetting.store(reader, std::memory_order_release);
}

wchar_t* Path::TempPath() {
    std::wstring path;
    if (!tempDirectory(path))
        return nullptr;
    return ACE::strnew(path.c_str());
}

int Path::TempPath(ACE_WString& path) {
    std::wstring found;
    if (!tempDirectory(found))
        return -1;
    path = ACE_WString(found.c_str(), found.size());
    return 0;
}

int Path::TempPath(ACE_String_Base<char>& path) {
    std::string found;
    if (!tempDirectory(found))
        return -1;
    path = ACE_String_Base<char>(found.c_str(), found.size());
    return 0;
}

int Path::TempPath(std::string& path) {
    std::string found;
    if (!tempDirectory(found))
        return -1;
    path = found;
    return 0;
}

}  // namespace Tarnwick
