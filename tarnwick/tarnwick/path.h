// File system paths: joining, tests for files and directories, making a
// directory tree, copying a file, the path of a pid file and the directory of
// temporary files.
//
// Every family has a form for each string type that callers hold: wide
// zero-terminated text, ACE_WString, narrow zero-terminated text,
// ACE_String_Base<char> and std::string. A form taking a string object
// behaves as the zero-terminated form of the same character width. Narrow
// paths are UTF-8 (passed to the system as they are); wide paths are
// converted to UTF-8 first, and one that can't be converted names no file.
// The separator is '/'.
#pragma once

#include <tarnwick/export.h>

#include <ace/SString.h>
#include <ace/os_include/os_fcntl.h>

#include <cstdint>
#include <string>

namespace Tarnwick {

class TARNWICK_EXPORT Path {
public:
    // Appends '/' to `path` unless it already ends in one, then `name`.
    // An empty `path` becomes `name` alone, so that a relative name stays
    // relative. A null `name` appends nothing after the separator. Always 0.
    static int Join(ACE_WString& path, const wchar_t* name);
    static int Join(ACE_WString& path, const ACE_WString& name);
    static int Join(ACE_String_Base<char>& path, const char* name);
    static int Join(std::string& path, const char* name);

    // True when stat(2) of the path succeeds and tells a regular file
    // (symbolic links are followed). False for a failed stat or null.
    static bool IsFile(const wchar_t* path);
    static bool IsFile(const ACE_WString& path);
    static bool IsFile(const char* path);
    static bool IsFile(const std::string& path);
    static bool IsFile(const ACE_String_Base<char>& path);

    // As IsFile, for a directory.
    static bool IsDirectory(const wchar_t* path);
    static bool IsDirectory(const char* path);
    static bool IsDirectory(const ACE_WString& path);
    static bool IsDirectory(const ACE_String_Base<char>& path);
    static bool IsDirectory(const std::string& path);

    // True when stat(2) of the path succeeds, whatever it names.
    static bool Exists(const wchar_t* path);
    static bool Exists(const ACE_WString& path);

    // Makes every missing directory of `path`, from the first component on.
    // A component that exists and is a directory is left alone; any other is
    // created with mkdir(2), with `mode` as its permissions when `mode` is not
    // 0 and 0777 otherwise, both subject to the umask. 0 on success. -1 when a
    // component can't be created (a file in its way, no permission, a
    // read-only file system), after logging
    // "Can not create path component <component>: <error>" naming the
    // component; errno then tells why. A component that another process
    // creates at the same time counts as made. A null path: -1, errno EINVAL.
    static int MkTree(const ACE_WString& path, int mode);
    static int MkTree(const wchar_t* path, int mode);
    static int MkTree(const char* path, int mode);
    static int MkTree(const ACE_String_Base<char>& path, int mode);
    static int MkTree(const std::string& path, int mode);

    // Copies from the current position of `in` to its end into `out` at its
    // current position. The number of bytes copied, or -1 with errno when a
    // read or write fails (nothing is logged).
    static int64_t CopyFileA(ACE_HANDLE in, ACE_HANDLE out);
    // Copies the file `source` into `target`, which is created with
    // permissions `mode` (subject to the umask) or truncated. The number of
    // bytes copied, or -1. A source or target that can't be opened is logged
    // ("Can not open input file." / "Can not open output file.", with the
    // error text when errno tells one). A failed close leaves the count as the
    // result and sets errno.
    static int64_t CopyFileA(const char* source, const char* target, int mode);
    static int64_t CopyFileA(const wchar_t* source, const wchar_t* target, int mode);

    // The default directory of pid files: none on this platform (null).
    static const wchar_t* RunPath();
    // When `directory` is an existing directory, makes it the path of the pid
    // file "<directory>/<name>.pid"; otherwise leaves it as it is (an empty
    // one stays empty). Returns the text of `directory`.
    static const wchar_t* RunPath(ACE_WString& directory, const wchar_t* name);

    // The directory of temporary files: the value of the setting "temp" when
    // the configuration has been validated (Configuration::isOk) and that
    // value names an existing directory; otherwise the system's, as
    // ACE::get_temp_dir gives it ($TMPDIR, else /tmp, with a '/' at the
    // end). The form without argument returns new text that the caller
    // releases with ACE::strdelete, or null on failure; the others assign the
    // path (narrow forms in UTF-8) and return 0, or -1 on failure and leave
    // the argument alone.
    static wchar_t* TempPath();
    static int TempPath(ACE_WString& path);
    static int TempPath(ACE_String_Base<char>& path);
    static int TempPath(std::string& path);

    // Where TempPath finds the setting "temp": a function that gives its
    // value when the configuration has been validated and has one, and
    // false otherwise. Path sits below the configuration and is told it
    // this way; the library installs the configuration's reader when it is
    // loaded. Without one (null), TempPath gives the system's directory.
    typedef bool (*TempSetting)(std::wstring& value);
    static void setTempSetting(TempSetting reader);

private:
    Path();
};

}  // namespace Tarnwick
