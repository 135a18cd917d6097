// A uniquely named scratch file in the temporary directory, which by default
// goes with the object.
#pragma once

#include <tarnwick/export.h>

#include <ace/os_include/os_fcntl.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace Tarnwick {

// Owns one file "<temp>/<prefix>-XXXXXX", where <temp> is Path::TempPath and
// XXXXXX six random letters and digits. A child process can write its output
// there, and the owner reads, copies or keeps it. The file is made with mode
// 0600 (less the umask), exclusively and never through a symbolic link; a
// generated name that another process takes first is replaced by a new one.
// Unless keep() was called, the destructor closes and deletes the file; a
// generated name that was never opened is left alone, as another process
// may have taken it.
// Nothing here logs or locks.
class TARNWICK_EXPORT Temporary_File {
public:
    // Copies `prefix` (null counts as "tmp"); names and creates nothing yet.
    explicit Temporary_File(const wchar_t* prefix, bool keep = false);
    ~Temporary_File();
    Temporary_File(const Temporary_File&) = delete;
    Temporary_File& operator=(const Temporary_File&) = delete;

    // The full path, chosen now if there is none yet; the file isn't
    // created. The text stays valid until the name changes (open). Null
    // when the temporary directory can't be had.
    const wchar_t* filename();

    // Chooses the path if needed and opens the file for reading and
    // writing, empty. 0, or -1 with errno (also when it is open already).
    int open();
    // Makes `name` the path and opens it as above; a file of that name is
    // created (0600) or truncated, and symbolic links are followed, since
    // the caller chose the name. -1 when a file is open already or `name`
    // is null (EINVAL).
    int open(const wchar_t* name);
    // Closes the file if it is open. Always 0.
    int close();

    // Writes all of `size` bytes at the current position: the count, or -1
    // with errno (EBADF when the file isn't open).
    int64_t write(const void* data, size_t size);
    // Reads at most `size` bytes from the current position: the count, 0 at
    // the end, or -1 with errno.
    int64_t read(void* data, size_t size);

    // Copies the content from the current position to its end into the file
    // `target`, created (0600) or truncated. Nothing is sought: after writing,
    // move the position back (get_handle) to copy what was written. The
    // byte count, or -1 with errno (EBADF when the file isn't open, and
    // then `target` is left alone). A failed close of `target` sets errno
    // and keeps the count.
    int64_t copy(const wchar_t* target);
    // The same into an open descriptor, at its position.
    int64_t copy(ACE_HANDLE target);

    // Deletes the file if it has a path: the result of unlink(2). 0 without
    // a path.
    int unlink();
    // Leaves the file on disk when the object goes.
    void keep();
    // The descriptor, ACE_INVALID_HANDLE when closed. It is close-on-exec;
    // a child gets it through its standard handles.
    ACE_HANDLE get_handle() const;

private:
    [[nodiscard]] bool generateName();
    [[nodiscard]] int openGenerated();

    std::wstring m_filename;  // empty until a name is chosen
    std::wstring m_prefix;
    ACE_HANDLE m_handle;
    bool m_keep;
    bool m_named;    // m_filename holds a path
    bool m_chosen;   // the path was generated here, not given
    bool m_created;  // this object created the file at the generated path
};

}  // namespace Tarnwick
