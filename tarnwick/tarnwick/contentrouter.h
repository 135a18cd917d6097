// Upload of files to the backup store. docs/store.md describes the store,
// its settings and the status texts in the log lines.
#pragma once

#include <tarnwick/export.h>

#include <cstddef>

namespace Tarnwick {

// One connection to the store, made by the first upload and reused by the
// following ones with the same DSID; a different DSID replaces it. The
// connection reads the settings "rtdir", "storagepoolid", "login", "passwd",
// "FingerprintType", "storeurl" and "storeendpoint", and the key directory ("KeyDir" of
// "[Paths]") of the Agent's configuration file. An object belongs to one
// thread at a time; nothing here throws.
class TARNWICK_EXPORT ContentRouter {
public:
    ContentRouter();
    // Closes the connection, logging
    // "An error occurred while closing the contentrouter connection." if
    // that fails.
    ~ContentRouter();
    ContentRouter(const ContentRouter&) = delete;
    ContentRouter& operator=(const ContentRouter&) = delete;

    // Uploads a file, or every file of a directory tree, under `dsid`.
    // Always -1 (also after a good upload, which is logged as
    // "Result: <path>, <status text>"): judge the outcome by count() and
    // errors().
    int upload(const wchar_t* path, int dsid);
    // Uploads one file under `dsid` with a transaction reference for
    // `context` and the `size` bytes at `context`. 0 on success, -1 on
    // failure (logged). Counts nothing.
    int upload(const wchar_t* path, int dsid, char* context, size_t size);

    // Files handed to the store, and failures, on the current connection.
    int count();
    int errors();

private:
    struct Record;
    // The directories that an upload has entered, by device and inode.
    struct Entered;
    [[nodiscard]] int connect(int dsid, int kind);
    int uploadPath(const wchar_t* path, int dsid, Entered& entered);

    Record* m_record;
};

}  // namespace Tarnwick
