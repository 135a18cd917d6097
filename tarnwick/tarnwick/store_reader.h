// Reading the backup store back: the files that uploads recorded under a
// DSID, and their restoration with content, mode and times. docs/store.md
// describes the store, its settings and the status texts.
#pragma once

#include <tarnwick/export.h>

#include <string>
#include <vector>

namespace Tarnwick {

// One read connection to a store (a directory store or an S3 bucket), made
// by open() and ended by close() or the destructor. Failures return -1 and
// leave a status whose text statusText() gives; nothing throws. An object
// belongs to one thread at a time.
class TARNWICK_EXPORT StoreReader {
public:
    StoreReader();
    ~StoreReader();
    StoreReader(const StoreReader&) = delete;
    StoreReader& operator=(const StoreReader&) = delete;

    // Opens the store at `url`: "file:///PATH", or "s3://BUCKET/PREFIX" on
    // `endpoint` ("http://HOST:PORT" or "https://HOST:PORT") with `login`
    // and `password` as access key and secret. A directory store checks
    // them against its credentials file when it has one. `keyDir`, when it
    // holds Agent.key and Agent.cert, gives the TLS client certificate. A
    // store that doesn't exist is not made. 0, or -1.
    int open(const std::string& url, const std::string& endpoint, const std::string& login,
             const std::string& password, const std::string& keyDir = std::string());
    // Opens the store that ContentRouter uploads to, from the same settings
    // ("storeurl", "storeendpoint", "login", "passwd", and without a
    // "storeurl" "rtdir" and "storagepoolid"; the key directory of the
    // Agent's configuration file when there is one). 0, or -1.
    int open();
    void close();
    bool isOpen() const { return m_handle != nullptr; }

    // The stored paths of `dsid`, sorted. 0, or -1.
    int list(int dsid, std::vector<std::string>& paths);
    // Restores the stored file `path` of `dsid` to `target` (replaced
    // whole, never seen half-written) with its content, mode and
    // modification and access times. 0, or -1.
    int restore(int dsid, const std::string& path, const std::string& target);
    // Restores every file of `dsid` below `directory`, each at its stored
    // path appended to `directory`, making the directories on the way. A
    // stored path with a ".." component is refused (status "invalid
    // argument"), so nothing is written outside `directory`. The number of
    // files restored, or -1 after the first failure.
    int restoreAll(int dsid, const std::string& directory);

    // The status of the last failure (0 when none), and its text.
    int status() const { return m_status; }
    const wchar_t* statusText() const;

private:
    [[nodiscard]] int fail(int status);

    void* m_handle;
    int m_status;
};

}  // namespace Tarnwick
