#include <tarnwick/directory_iterator.h>
#include <tarnwick/path.h>
#include <tarnwick/utf8.h>

#include <cerrno>
#include <cstring>
#include <cwchar>

namespace Tarnwick {

Directory_Iterator::Directory_Iterator() : m_open(false) {}

Directory_Iterator::~Directory_Iterator() {
    if (m_open)
        m_dirent.close();
}

int Directory_Iterator::open(const wchar_t* path) {
    if (m_open) {
        m_dirent.close();
        m_open = false;
    }
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    m_directory = path;
    std::string narrow;
    if (!wcstoutf8(path, narrow))
        return -1;
    if (m_dirent.open(narrow.c_str()) != 0)
        return -1;
    m_open = true;
    return 0;
}

const wchar_t* Directory_Iterator::next(const wchar_t* filter) {
    if (!m_open)
        return nullptr;
    for (;;) {
        ACE_DIRENT* const entry = m_dirent.read();
        if (entry == nullptr)
            return nullptr;
        const char* const name = entry->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
            continue;
        std::wstring wide;
        if (!utf8towcs(name, wide))
            continue;
        if (filter != nullptr && std::wcsstr(wide.c_str(), filter) == nullptr)
            continue;
        m_current = ACE_WString(m_directory.c_str(), m_directory.size());
        Path::Join(m_current, wide.c_str());
        return m_current.c_str();
    }
}

}  // namespace Tarnwick
