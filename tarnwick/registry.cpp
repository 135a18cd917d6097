#include <tarnwick/log.h>
#include <tarnwick/path.h>
#include <tarnwick/registry.h>
#include <tarnwick/replacement_file.h>
#include <tarnwick/utf8.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

namespace Tarnwick {

namespace {

const char kDefaultRoot[] = "/etc/tarnwick/registry";
const char kConfigFileKey[] = "configfilepath";
const char kPathKey[] = "path";
// Longer values are not read, so that every reader can hold any entry.
const size_t kValueLimit = PATH_MAX;
const mode_t kEntryMode = 0644;
const mode_t kDirectoryMode = 0755;

std::string registryRoot() {
    const char* const root = std::getenv("TARNWICK_REGISTRY");
    return root != nullptr && *root != '\0' ? root : kDefaultRoot;
}

// The UTF-8 file name of a product's entry; false for a product that can
// have none (not text, or holding '/'), with errno set.
bool entryName(const ACE_String_Base<wchar_t>& product, std::string& name) {
    if (!wcstoutf8(product.c_str(), name))
        return false;
    if (name.find('/') != std::string::npos) {
        errno = EINVAL;
        return false;
    }
    name += ".reg";
    return true;
}

bool readAll(int handle, std::string& content) {
    char buffer[4096];
    for (;;) {
        ssize_t const got = ::read(handle, buffer, sizeof buffer);
        if (got < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        if (got == 0)
            return true;
        content.append(buffer, static_cast<size_t>(got));
    }
}

// Reads the entry file. 1 when read, 0 when there is none, -1 when it can't
// be read (errno set).
int readEntry(const std::string& file, std::string& content) {
    // O_NONBLOCK keeps a FIFO in the entry's place from blocking the open.
    int const handle = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (handle < 0)
        return errno == ENOENT ? 0 : -1;
    struct stat info;
    bool read = false;
    if (::fstat(handle, &info) != 0) {
        // errno tells why.
    } else if (!S_ISREG(info.st_mode)) {
        errno = S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
    } else {
        read = readAll(handle, content);
    }
    int const error = errno;
    ::close(handle);
    errno = error;
    return read ? 1 : -1;
}

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

struct Entry {
    bool has_configfile = false;
    bool has_path = false;
    std::string configfile;
    std::string path;
};

// Lines are "key=value". The key may stand between blanks; the value is all
// that follows the first '=', up to the line end (a CR before it is dropped).
// Blank lines, lines starting with '#', lines without '=' and unknown keys
// are skipped; of a repeated key the last line counts.
Entry parseEntry(const std::string& content) {
    Entry entry;
    std::string::size_type start = 0;
    while (start < content.size()) {
        std::string::size_type end = content.find('\n', start);
        if (end == std::string::npos)
            end = content.size();
        std::string line = content.substr(start, end - start);
        start = end + 1;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        std::string::size_type const equals = line.find('=');
        std::string::size_type first = 0;
        while (first < line.size() && isBlank(line[first]))
            ++first;
        if (equals == std::string::npos || first == line.size() || line[first] == '#')
            continue;
        std::string::size_type last = equals;
        while (last > first && isBlank(line[last - 1]))
            --last;
        std::string const key = line.substr(first, last - first);
        if (key == kConfigFileKey) {
            entry.has_configfile = true;
            entry.configfile = line.substr(equals + 1);
        } else if (key == kPathKey) {
            entry.has_path = true;
            entry.path = line.substr(equals + 1);
        }
    }
    return entry;
}

// Stores a value read from the file; false (errno set) when it can't be used.
bool storeValue(bool present, const std::string& value, ACE_String_Base<wchar_t>& field) {
    if (!present) {
        errno = ENOENT;
        return false;
    }
    wchar_t* const text = utf8towcs_malloced(value.c_str());
    if (text == nullptr)
        return false;
    bool const fits = ::wcslen(text) <= kValueLimit;
    if (fits)
        field = text;
    wcsfree(text);
    if (!fits)
        errno = ENAMETOOLONG;
    return fits;
}

// "key=value\n" for a value that is text without line ends; false (errno
// set) otherwise.
bool entryLine(const char* key, const ACE_String_Base<wchar_t>& value, std::string& line) {
    std::string utf8;
    if (!wcstoutf8(value.c_str(), utf8))
        return false;
    if (utf8.find_first_of("\r\n") != std::string::npos) {
        errno = EINVAL;
        return false;
    }
    line = std::string(key) + "=" + utf8 + "\n";
    return true;
}

// The directories of `root` that don't exist yet, outermost first.
std::vector<std::string> missingDirectories(const std::string& root) {
    std::vector<std::string> missing;
    std::string::size_type position = 0;
    for (;;) {
        std::string::size_type const separator = root.find('/', position);
        std::string const prefix = root.substr(0, separator);
        if (!prefix.empty() && !Path::IsDirectory(prefix))
            missing.push_back(prefix);
        if (separator == std::string::npos)
            return missing;
        position = separator + 1;
    }
}

// Makes the directories of `root`. Those made here are readable by every
// process whatever the umask; existing ones are left as they are.
bool makeRoot(const std::string& root) {
    std::vector<std::string> const missing = missingDirectories(root);
    if (Path::MkTree(root, kDirectoryMode) != 0)
        return false;
    for (const std::string& directory : missing)
        ::chmod(directory.c_str(), kDirectoryMode);
    return true;
}

}  // namespace

Registry::Registry() : configfile_(), path_(), product_() {}

Registry::Registry(const Registry&) : configfile_(), path_(), product_() {}

int Registry::open(const wchar_t* product, const wchar_t*) {
    try {
        product_ = product != nullptr ? product : L"";
        std::string name;
        if (!entryName(product_, name))
            return -1;
        std::string file = registryRoot();
        Path::Join(file, name.c_str());
        std::string content;
        int const found = readEntry(file, content);
        if (found == 0)
            return -1;
        if (found < 0) {
            TW_LOG("%D ERROR (%t): ACE_Predefined_Naming_Contexts::connect failed: %m\n");
            return -1;
        }
        Entry const entry = parseEntry(content);
        if (!storeValue(entry.has_configfile, entry.configfile, configfile_)) {
            TW_LOG("%D ERROR (%t): Can not resolve path to configuration file\n");
            return -1;
        }
        if (!storeValue(entry.has_path, entry.path, path_)) {
            TW_LOG("%D ERROR (%t): Can not resolve path to path\n");
            return -1;
        }
        return 0;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
}

int Registry::write() {
    try {
        std::string const root = registryRoot();
        std::string name;
        std::string file = root;
        Replacement_File temporary;
        if (!entryName(product_, name) || !makeRoot(root) || !temporary.create(root, name)) {
            TW_LOG("%D ERROR (%t): Could not create application key in registry.\n");
            return -1;
        }
        Path::Join(file, name.c_str());
        std::string line;
        if (!entryLine(kConfigFileKey, configfile_, line) || !temporary.write(line)) {
            TW_LOG(
                "%D ERROR (%t): Could not write the path to the configuration file into the "
                "registry\n");
            return -1;
        }
        if (!entryLine(kPathKey, path_, line) || !temporary.write(line)) {
            TW_LOG(
                "%D ERROR (%t): Could not write the path to the installation directory into the "
                "registry\n");
            return -1;
        }
        // Readable by every process, whatever the umask.
        if (!temporary.setMode(kEntryMode) || !temporary.commit(file)) {
            TW_LOG("%D ERROR (%t): Could not create application key in registry.\n");
            return -1;
        }
        return 0;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
}

int Registry::setConfigFilePath(const wchar_t* configfile) {
    errno = 0;
    configfile_ = configfile != nullptr ? configfile : L"";
    return errno != 0 ? -1 : 0;
}

int Registry::setPath(const wchar_t* path) {
    errno = 0;
    path_ = path != nullptr ? path : L"";
    return errno != 0 ? -1 : 0;
}

void Registry::getConfigFilePath(std::string& configfile) const {
    if (!wcstoutf8(configfile_.c_str(), configfile))
        configfile.clear();
}

void Registry::getStoragePath(std::string& path) const {
    if (!wcstoutf8(path_.c_str(), path))
        path.clear();
}

}  // namespace Tarnwick
