// The library's own client of the backup store: path-object records and the
// upload connection, under the names that PathObject and ContentRouter call.
// Internal: not installed. docs/store.md describes the record text form, the
// store layout and the statuses.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Tarnwick {

// Statuses left in *__cr_errno_location() and returned by CRFilePut.
enum CRStatus {
    CR_OK = 0,
    CR_OK_PRESENT = 1,
    CR_E_INVAL = 2,
    CR_E_NOENT = 3,
    CR_E_IO = 4,
    CR_E_NOSPACE = 5,
    CR_E_AUTH = 6,
    CR_E_URL = 7,
    CR_E_FPTYPE = 8,
    CR_E_CHANGED = 9,
    CR_E_NOMEM = 10,
    CR_E_PARSE = 11,
    CR_E_NOTREG = 12,
    CR_E_ACCESS = 13,
    CR_E_OPTION = 14,
    CR_E_NOTINIT = 15
};

// Record type values and flags of a path object.
enum { PO_TYPE_FILE = 0, PO_TYPE_DIRECTORY = 1, PO_TYPE_SYMLINK = 2, PO_TYPE_OTHER = 3 };
enum { PO_FLAG_LOGICAL = 32 };
enum { PO_FIELDS_ALL = 255 };

// The calling thread's last status.
int* cr_errno_location();
// The text of a status; static, never null.
const wchar_t* CRStatusToStringW(int status);

// Path-object records. A handle is one malloc'ed block: free() releases it
// as well as PODestroy does.
typedef void* POHandle;
POHandle POCreate();
POHandle POCreateFromString(const char* text);
// `path` is the file's name as bytes. `follow` 0: lstat(2). `volume` the
// volume label, `mask` the stat fields to fill, `version` the text form (1).
POHandle POCreateFromStat(const char* path, int follow, const char* volume, int mask, int version);
int POSetDirname(POHandle po, const wchar_t* text);
int POSetBasename(POHandle po, const wchar_t* text);
int POSetType(POHandle po, int type);
int POSetSpecialFlags(POHandle po, int flags);
// The text form, malloc'ed; released with POStringDestroy. Null on failure.
char* POToStringMalloced(POHandle po);
void POStringDestroy(char* text);
void PODestroy(POHandle po);

// Read access to a record, for the store and for tests.
struct POFields {
    int type;
    int flags;
    int mask;
    unsigned mode;
    unsigned uid;
    unsigned gid;
    uint64_t size;
    int64_t mtime_sec;
    long mtime_nsec;
    int64_t atime_sec;
    long atime_nsec;
    uint64_t nlink;
    std::string volume;
    std::string dirname;
    std::string basename;
    std::string link;
};
[[nodiscard]] bool POGetFields(POHandle po, POFields& out);

// The upload connection.
typedef void* CRHandle;
CRHandle CRInit(const wchar_t* configfile, const wchar_t* runtimedir, int dsid, int flags,
                const char* version, int number);
// The same with the store named directly: `url` "file:///PATH", "s3://BUCKET/PREFIX"
// (with `endpoint` "http[s]://HOST:PORT") or empty for `runtimedir`/store.
// Without 1024 in `flags` a missing store is status 15 and nothing is made.
CRHandle CROpen(const char* url, const char* endpoint, const char* runtimedir, int dsid, int flags);
int CRAuthenticate(CRHandle handle, int dsid, const char* login, const char* password);
int CRFPTypeIsValid(int type);
int CRConfigLocateW(const wchar_t* product, wchar_t* buffer, size_t size);
// Reads `key` of `[section]` of an INI file into `buffer` of `size`
// characters; `fallback` (or empty) when absent. The length of the text.
size_t InifileGetPathW(const wchar_t* section, const wchar_t* key, const wchar_t* file,
                       wchar_t* buffer, size_t size, const wchar_t* fallback);
// Option and value pairs ended by 0: 18 compression (int), 22 fingerprint
// type (int), 23 key path, 24 certificate path (const wchar_t*).
int CROptionsSetVa(CRHandle handle, ...);
int CRFilePut(CRHandle handle, const wchar_t* path, int flags, int reserved, const char* context,
              size_t size, uint64_t* result, int reserved2, void* tref);
void* CRTRefNewContextDSID(void* record, const wchar_t* path, int dsid, const char* context);
int CRSync(CRHandle handle);
int CRShutdown(CRHandle handle);

// The read side: the stored paths of a DSID (sorted), and one file restored
// to `target` with its content, mode and times. 0, or a status.
int CRFileList(CRHandle handle, int dsid, std::vector<std::string>& paths);
int CRFileGet(CRHandle handle, int dsid, const std::string& path, const std::string& target);
// The same on a directory store, by its directory.
int CRFileList(const std::string& storeRoot, int dsid, std::vector<std::string>& paths);
int CRFileGet(const std::string& storeRoot, int dsid, const std::string& path,
              const std::string& target);

}  // namespace Tarnwick
