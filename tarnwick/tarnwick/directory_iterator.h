// The entries of one directory as full paths.
#pragma once

#include <tarnwick/export.h>

#include <ace/Dirent.h>
#include <ace/SString.h>

#include <string>

namespace Tarnwick {

// Walks the entries of one directory, without descending, in the order that
// the system delivers them, and gives each as "<directory>/<name>". "." and
// ".." are never given, nor names that aren't valid UTF-8, which have no
// wide form. Nothing here logs or locks.
class TARNWICK_EXPORT Directory_Iterator {
public:
    Directory_Iterator();
    ~Directory_Iterator();
    Directory_Iterator(const Directory_Iterator&) = delete;
    Directory_Iterator& operator=(const Directory_Iterator&) = delete;

    // Starts a walk of `path` (ending a walk under way). 0, or -1 with errno
    // (EINVAL for null).
    int open(const wchar_t* path);
    // The next entry whose name contains `filter` (a case-sensitive
    // substring, no wildcard; null takes every entry), or null at the end or
    // before open. The text stays valid until the next call.
    const wchar_t* next(const wchar_t* filter = nullptr);

private:
    ACE_WString m_current;
    std::wstring m_directory;
    bool m_open;
    ACE_Dirent m_dirent;
};

}  // namespace Tarnwick
