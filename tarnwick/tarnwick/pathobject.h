// Path objects: the backup store's record of one file system entry
// (directory name, base name, type, flags and stat data) with a text form of
// its own, and a generator that makes one for each entry of a directory.
// docs/store.md describes the text form.
#pragma once

#include <tarnwick/export.h>

#include <ace/Dirent.h>
#include <ace/SString.h>

namespace Tarnwick {

// One record. The factories return a new object that the caller owns and
// releases with doDelete (or delete), or null after logging why.
class TARNWICK_EXPORT PathObject {
public:
    // An empty object; its record pointer is null when memory ran out.
    PathObject();
    ~PathObject();
    PathObject(const PathObject&) = delete;
    PathObject& operator=(const PathObject&) = delete;

    // A record from its text form; null for text that isn't one.
    static PathObject* fromString(const char* text);
    // The record of the entry at `path` as lstat(2) sees it (a symbolic link
    // is recorded as a link). Null, after logging
    // "Could not access <path>: <status text>", when it can't be read.
    static PathObject* fromPath(const wchar_t* path);
    // A record of a logical store path ('/' separates) that needn't exist
    // here: directory name "." without '/', type file when `ctype_flag`,
    // else directory, and the logical flag (32) unless `no_special_flags`.
    static PathObject* fromLogicalPath(const wchar_t* path, bool ctype_flag, bool no_special_flags);
    // Deletes `object`; null is accepted.
    static void doDelete(PathObject* object);

    // The text form, made once and owned by the object: valid until it goes.
    // Null when it can't be made.
    const char* toString();

    // The record handle, for the store client; null for an empty object.
    void* handle() const;

private:
    friend class PathObjectGenerator;
    struct Record;
    explicit PathObject(void* po);
    // Wraps a record handle in a new object; on failure frees the handle,
    // sets errno ENOMEM and yields null.
    static PathObject* adopt(void* po);

    Record* m_record;
};

// Makes a PathObject for each entry of one directory, "." and ".." left out,
// in the order the system gives them. The copy shares nothing but the names:
// each copy reads on with its own copy of the reader state.
class TARNWICK_EXPORT PathObjectGenerator {
public:
    PathObjectGenerator();
    ~PathObjectGenerator();
    PathObjectGenerator(const PathObjectGenerator& other);
    PathObjectGenerator& operator=(const PathObjectGenerator& other);

    // Starts reading `directory`. 0, or -1 with errno.
    int open(const wchar_t* directory);
    // The next entry's record, owned by the caller; null at the end (eof())
    // or after an error (error(), logged as in PathObject::fromPath). After
    // an error the next call reads on; error() stays true until the end.
    PathObject* next();
    bool eof() const;
    bool error() const;

private:
    ACE_WString m_directory;
    ACE_Dirent m_reader;
    int m_status;
};

}  // namespace Tarnwick
