// The installation registry: for a product name, where its configuration file
// lies and where it is installed.
//
// Each product has one file, <root>/<product>.reg, holding the values
// "configfilepath" and "path" as key=value lines. <root> is the environment
// variable TARNWICK_REGISTRY when it is set and not empty, else
// /etc/tarnwick/registry. docs/registry.md describes the file.
#pragma once

#include <tarnwick/export.h>

#include <ace/SString.h>

#include <string>

namespace Tarnwick {

// A short-lived local object: open or fill it, then read or write it. No lock
// guards it.
class TARNWICK_EXPORT Registry {
public:
    // Three empty strings.
    Registry();

    // Reads the entry of `product`, which stays stored whatever follows.
    // 0 when both values are read. -1 without a message when the product has
    // no entry (no file, or a name that can't have one: holding '/' or not
    // text). -1 with a message when the entry can't be read, or a value is
    // missing, longer than PATH_MAX characters or not UTF-8; the values read
    // before the failing one stay stored. The second argument has no effect.
    int open(const wchar_t* product, const wchar_t* unused);

    // Replaces the entry of the stored product (empty unless open was
    // called) by the two values, creating the missing directories of <root>
    // (0755). The new file (0644) takes the old one's place whole, or nothing
    // changes. 0, or -1 with a message (errno tells why); a value holding a
    // line end is refused (EINVAL).
    int write();

    const wchar_t* configfile() const { return configfile_.c_str(); }
    const wchar_t* path() const { return path_.c_str(); }

    // Assign (null assigns the empty string). 0, or -1 when the assignment
    // set errno.
    int setConfigFilePath(const wchar_t* configfile);
    int setPath(const wchar_t* path);

    // The fields as UTF-8; the string is emptied when a field is no text.
    void getConfigFilePath(std::string& configfile) const;
    void getStoragePath(std::string& path) const;

private:
    // Copying makes three empty strings; assignment is not available.
    Registry(const Registry& other);
    Registry& operator=(const Registry& other);

    ACE_String_Base<wchar_t> configfile_;
    ACE_String_Base<wchar_t> path_;
    ACE_String_Base<wchar_t> product_;
};

}  // namespace Tarnwick
