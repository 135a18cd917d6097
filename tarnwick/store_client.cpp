#include "store_client.h"

#include <tarnwick/configuration.h>
#include <tarnwick/path_encoder.h>
#include <tarnwick/utf8.h>

#include <curl/curl.h>
#include <openssl/evp.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <random>
#include <set>
#include <sstream>

namespace Tarnwick {

namespace {

thread_local int t_status = 0;

int setStatus(int status) {
    t_status = status;
    return status;
}

int statusOfErrno(int error) {
    switch (error) {
        case ENOENT:
        case ENOTDIR:
            return CR_E_NOENT;
        case ENOSPC:
        case EDQUOT:
            return CR_E_NOSPACE;
        case EACCES:
        case EPERM:
            return CR_E_ACCESS;
        case ENOMEM:
            return CR_E_NOMEM;
        default:
            return CR_E_IO;
    }
}

// ---- path-object records --------------------------------------------------

const size_t kNameMax = 1024;
const size_t kPathMax = 4096;

// One record in one malloc'ed block, so that free() releases it whole.
struct PORecord {
    int type;
    int flags;
    int mask;
    unsigned mode;
    unsigned uid;
    unsigned gid;
    uint64_t size;
    int64_t times[3][2];  // modification, access, change: seconds, nanoseconds
    uint64_t nlink;
    char volume[kNameMax];
    char dirname[kPathMax];
    char basename[kNameMax];
    char link[kPathMax];
};

PORecord* newRecord() {
    PORecord* const record = static_cast<PORecord*>(std::calloc(1, sizeof(PORecord)));
    if (record == nullptr)
        setStatus(CR_E_NOMEM);
    return record;
}

bool copyField(char* field, size_t capacity, const std::string& text) {
    if (text.size() >= capacity || text.find('\0') != std::string::npos)
        return false;
    std::memcpy(field, text.data(), text.size());
    field[text.size()] = '\0';
    return true;
}

std::string escapedField(const char* text) {
    size_t const length = std::strlen(text);
    ssize_t const n = storeEscape(text, length, nullptr, 0);
    std::string out(static_cast<size_t>(n) + 1, '\0');
    (void)storeEscape(text, length, &out[0], out.size());
    out.resize(static_cast<size_t>(n));
    return out;
}

bool unescapedField(const std::string& text, std::string& out) {
    ssize_t const n = storeUnescape(text.data(), text.size(), nullptr, 0);
    if (n < 0)
        return false;
    out.assign(static_cast<size_t>(n) + 1, '\0');
    (void)storeUnescape(text.data(), text.size(), &out[0], out.size());
    out.resize(static_cast<size_t>(n));
    return true;
}

bool parseUnsigned(const std::string& text, int base, uint64_t& out) {
    if (text.empty() || text.size() > 22)
        return false;
    for (char c : text)
        if (!(c >= '0' && c <= (base == 8 ? '7' : '9')))
            return false;
    errno = 0;
    char* end = nullptr;
    unsigned long long const value = std::strtoull(text.c_str(), &end, base);
    if (errno != 0 || *end != '\0')
        return false;
    out = value;
    return true;
}

bool parseTime(const std::string& text, int64_t& seconds, int64_t& nanoseconds) {
    size_t const dot = text.find('.');
    if (dot == std::string::npos || text.size() - dot - 1 != 9)
        return false;
    bool const negative = !text.empty() && text[0] == '-';
    uint64_t s = 0, ns = 0;
    if (!parseUnsigned(text.substr(negative ? 1 : 0, dot - (negative ? 1 : 0)), 10, s) ||
        !parseUnsigned(text.substr(dot + 1), 10, ns) || s > static_cast<uint64_t>(INT64_MAX))
        return false;
    seconds = negative ? -static_cast<int64_t>(s) : static_cast<int64_t>(s);
    nanoseconds = static_cast<int64_t>(ns);
    return true;
}

std::string timeText(const int64_t time[2]) {
    char buffer[48];
    std::snprintf(buffer, sizeof buffer, "%lld.%09lld", static_cast<long long>(time[0]),
                  static_cast<long long>(time[1]));
    return buffer;
}

std::vector<std::string> splitTabs(const std::string& text) {
    std::vector<std::string> fields;
    size_t start = 0;
    for (;;) {
        size_t const tab = text.find('\t', start);
        fields.push_back(
            text.substr(start, tab == std::string::npos ? std::string::npos : tab - start));
        if (tab == std::string::npos)
            return fields;
        start = tab + 1;
    }
}

int setWideField(POHandle po, char* (*field)(PORecord*), size_t capacity, const wchar_t* text) {
    if (po == nullptr || text == nullptr) {
        setStatus(CR_E_INVAL);
        return -1;
    }
    std::string narrow;
    if (!wcstoutf8(text, narrow) ||
        !copyField(field(static_cast<PORecord*>(po)), capacity, narrow)) {
        setStatus(CR_E_INVAL);
        return -1;
    }
    return 0;
}

// ---- the store ------------------------------------------------------------

const size_t kMinChunk = 16 * 1024;
const size_t kMaxChunk = 256 * 1024;
const uint64_t kCutMask = 0xFFFF000000000000ull;
const int kProtocolNumber = 17904;
const char kStoreVersion[] = "tarnwick-store 1\n";

struct GearTable {
    uint64_t values[256];
    GearTable() {
        uint64_t state = 0x7461726e7769636bull;  // fixed, so every process cuts alike
        for (uint64_t& value : values) {
            state += 0x9E3779B97F4A7C15ull;
            uint64_t z = state;
            z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
            z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
            value = z ^ (z >> 31);
        }
    }
};

const GearTable& gear() {
    static const GearTable table;
    return table;
}

// The length of the next chunk of the `length` bytes at `data`; `length` is
// all that is left when it is below the maximum and the input ended.
size_t cutPoint(const unsigned char* data, size_t length) {
    if (length <= kMinChunk)
        return length;
    size_t const end = std::min(length, kMaxChunk);
    const uint64_t* const table = gear().values;
    uint64_t hash = 0;
    for (size_t i = kMinChunk; i < end; ++i) {
        hash = (hash << 1) + table[data[i]];
        if ((hash & kCutMask) == 0)
            return i + 1;
    }
    return end;
}

const EVP_MD* digestOf(int type) {
    switch (type) {
        case 1:
            return EVP_sha256();
        case 2:
            return EVP_sha512();
        case 3:
            return EVP_sha3_256();
        case 4:
            return EVP_blake2b512();
        default:
            return nullptr;
    }
}

bool hexDigest(const EVP_MD* md, const void* data, size_t length, std::string& out) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (EVP_Digest(data, length, digest, &size, md, nullptr) != 1)
        return false;
    static const char hex[] = "0123456789abcdef";
    out.clear();
    for (unsigned int i = 0; i < size; ++i) {
        out += hex[digest[i] >> 4];
        out += hex[digest[i] & 15];
    }
    return true;
}

std::string sha256Hex(const std::string& text) {
    std::string out;
    (void)hexDigest(EVP_sha256(), text.data(), text.size(), out);
    return out;
}

// Makes every missing directory of `path`; 0 or a status.
int makeTree(const std::string& path) {
    int const saved = errno;
    std::string prefix;
    size_t position = 0;
    while (position != std::string::npos) {
        size_t const slash = path.find('/', position + 1);
        prefix = path.substr(0, slash);
        position = slash;
        if (prefix.empty())
            continue;
        if (::mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST)
            return statusOfErrno(errno);
    }
    errno = saved;
    return CR_OK;
}

bool fullWrite(int fd, const void* data, size_t length) {
    const char* p = static_cast<const char*>(data);
    while (length > 0) {
        ssize_t const n = ::write(fd, p, length);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

// Writes `data` to `target` through a unique name in `<root>/tmp`, flushed
// before the rename, so that nobody sees half of it. 0 or a status.
// Writes `data` to a new unique name in `<root>/tmp`, flushed to the disk
// when `flush`. 0 or a status; `temporary` names the file on success.
int writeTemporary(const std::string& root, const void* data, size_t length, bool flush,
                   std::string& temporary) {
    static std::atomic<unsigned> counter(0);
    char name[96];
    std::snprintf(name, sizeof name, "/tmp/w.%ld.%u.%u", static_cast<long>(::getpid()),
                  static_cast<unsigned>(std::random_device()()), counter.fetch_add(1));
    temporary = root + name;
    int const fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0)
        return statusOfErrno(errno);
    bool ok = fullWrite(fd, data, length) && (!flush || ::fsync(fd) == 0);
    // A file flushed later (with the others of its upload) starts its way
    // to the disk now, so that the disk works while the next data is read
    // and hashed.
    if (ok && !flush)
        (void)::sync_file_range(fd, 0, 0, SYNC_FILE_RANGE_WRITE);
    int error = errno;
    if (::close(fd) != 0 && ok) {
        ok = false;
        error = errno;
    }
    if (ok)
        return CR_OK;
    ::unlink(temporary.c_str());
    return statusOfErrno(error);
}

// Gives the written file `temporary` its place `target`; on failure it is
// removed. 0 or a status.
int moveIntoPlace(const std::string& temporary, const std::string& target) {
    int status = CR_OK;
    if (::rename(temporary.c_str(), target.c_str()) != 0) {
        // The directory of the target is made when it is first needed.
        status =
            errno == ENOENT ? makeTree(target.substr(0, target.rfind('/'))) : statusOfErrno(errno);
        if (status == CR_OK && ::rename(temporary.c_str(), target.c_str()) != 0)
            status = statusOfErrno(errno);
    }
    if (status != CR_OK)
        ::unlink(temporary.c_str());
    return status;
}

// Writes `data` to `target` through a unique name in `<root>/tmp`, flushed
// before the rename, so that nobody sees half of it. 0 or a status.
int atomicWrite(const std::string& root, const std::string& target, const void* data,
                size_t length) {
    std::string temporary;
    int const status = writeTemporary(root, data, length, true, temporary);
    return status != CR_OK ? status : moveIntoPlace(temporary, target);
}

// Chunks of one file (and its manifest, first in the list) written to
// temporary names and not yet flushed: one syncfs(2) flushes them all before
// they take their places from the back of the list, the manifest last,
// instead of one fsync each. What is left at destruction is removed.
struct PendingChunks {
    std::vector<std::pair<std::string, std::string>> files;  // temporary, target
    std::set<std::string> targets;
    PendingChunks() = default;
    PendingChunks(const PendingChunks&) = delete;
    PendingChunks& operator=(const PendingChunks&) = delete;
    ~PendingChunks() {
        for (const auto& file : files)
            ::unlink(file.first.c_str());
    }
    int commit(const std::string& root) {
        if (files.empty())
            return CR_OK;
        int const fd = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0)
            return statusOfErrno(errno);
        int const result = ::syncfs(fd);
        int const error = errno;
        ::close(fd);
        if (result != 0)
            return statusOfErrno(error);
        while (!files.empty()) {
            int const status = moveIntoPlace(files.back().first, files.back().second);
            files.pop_back();
            if (status != CR_OK)
                return status;
        }
        return CR_OK;
    }
};

std::string chunkKey(int type, const std::string& hex) {
    return "chunks/" + std::to_string(type) + "/" + hex.substr(0, 2) + "/" + hex;
}

std::string manifestKey(int dsid, const std::string& path) {
    return "dsid/" + std::to_string(dsid) + "/files/" + sha256Hex(path) + ".manifest";
}

// Chunks of one file sent to an S3 store at the same time.
const size_t kInFlight = 4;

// One chunk on its way: a HEAD to find it in the store, then, when it is
// missing, a PUT of its bytes.
struct Transfer {
    CURL* easy = nullptr;
    curl_slist* headers = nullptr;
    std::string key;
    std::string data;
    std::string answer;
    bool put = false;
    bool busy = false;
};

// What a connection stored for a file: the stat data it had then and the
// size of its manifest. A file met again with the same device, inode, size,
// modification and change time (a change of mode, owner or links changes the
// change time) is the same file, and isn't read again while its manifest is
// in the store.
struct Seen {
    dev_t device;
    ino_t inode;
    off_t size;
    struct timespec modified;
    struct timespec changed;
    int fptype;
    size_t manifestSize;
};

bool sameFile(const Seen& seen, const struct stat& st, int fptype) {
    return seen.device == st.st_dev && seen.inode == st.st_ino && seen.size == st.st_size &&
           seen.modified.tv_sec == st.st_mtim.tv_sec &&
           seen.modified.tv_nsec == st.st_mtim.tv_nsec &&
           seen.changed.tv_sec == st.st_ctim.tv_sec && seen.changed.tv_nsec == st.st_ctim.tv_nsec &&
           seen.fptype == fptype;
}

struct Connection {
    std::string root;  // a directory store's directory; empty for S3
    int dsid;
    int fptype;
    int flags;
    bool authenticated;
    std::wstring keyPath;
    std::wstring certPath;
    // An S3 store: objects at <endpoint>/<bucket>/<prefix>/<key>, spoken
    // through one reused libcurl handle, signed with SigV4.
    std::string endpoint;
    std::string bucket;
    std::string prefix;
    std::string login;
    std::string password;
    // Every request goes through one multi handle, whose connection cache
    // keeps the connections alive from one upload to the next: `curl` for
    // single requests, `slots` for the chunks of a file in flight together.
    CURL* curl = nullptr;
    CURLM* multi = nullptr;
    // The files stored on this connection, by manifest key.
    std::map<std::string, Seen> seen;
    Transfer slots[kInFlight];
    Connection() = default;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() {
        for (Transfer& slot : slots) {
            if (slot.busy && multi != nullptr)
                curl_multi_remove_handle(multi, slot.easy);
            curl_slist_free_all(slot.headers);
            if (slot.easy != nullptr)
                curl_easy_cleanup(slot.easy);
        }
        if (curl != nullptr)
            curl_easy_cleanup(curl);
        if (multi != nullptr)
            curl_multi_cleanup(multi);
    }
};

size_t collectBody(char* data, size_t size, size_t count, void* out) {
    static_cast<std::string*>(out)->append(data, size * count);
    return size * count;
}

std::string urlEscaped(const std::string& text, bool keepSlash) {
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
            c == '-' || c == '.' || c == '_' || c == '~' || (keepSlash && c == '/')) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

std::string objectName(const Connection& c, const std::string& key) {
    return c.prefix.empty() ? key : c.prefix + "/" + key;
}

// Sets `easy` up for one S3 request: `method` on the object `key` (or, with
// `query`, on the bucket). `body` and `out` must outlive the request; the
// returned header list is freed by the caller after it.
curl_slist* prepareRequest(Connection& c, CURL* easy, const char* method, const std::string& key,
                           const std::string& query, const void* body, size_t length,
                           std::string* out) {
    std::string url = c.endpoint + "/" + urlEscaped(c.bucket, false);
    url += query.empty() ? "/" + urlEscaped(objectName(c, key), true) : "?" + query;
    curl_easy_reset(easy);
    std::string const credentials = c.login + ":" + c.password;
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_AWS_SIGV4, "aws:amz:us-east-1:s3");
    curl_easy_setopt(easy, CURLOPT_USERPWD, credentials.c_str());
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, 30L);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, 60L);
    curl_easy_setopt(easy, CURLOPT_PRIVATE, out);
    std::string key8, cert8;
    if (!c.keyPath.empty() && wcstoutf8(c.keyPath.c_str(), key8) &&
        ::access(key8.c_str(), R_OK) == 0 && wcstoutf8(c.certPath.c_str(), cert8) &&
        ::access(cert8.c_str(), R_OK) == 0) {
        curl_easy_setopt(easy, CURLOPT_SSLKEY, key8.c_str());
        curl_easy_setopt(easy, CURLOPT_SSLCERT, cert8.c_str());
    }
    // The authority beside the certificate (Agent.cacert, as the key
    // directory keeps it for the library's other TLS connections) is the one
    // the server's certificate is checked against; without it, the system's.
    std::string authority;
    if (!c.certPath.empty() && wcstoutf8(c.certPath.c_str(), authority) && authority.size() > 5 &&
        authority.compare(authority.size() - 5, 5, ".cert") == 0) {
        authority.replace(authority.size() - 5, 5, ".cacert");
        if (::access(authority.c_str(), R_OK) == 0)
            curl_easy_setopt(easy, CURLOPT_CAINFO, authority.c_str());
    }
    // S3 wants the payload's SHA-256 in a header of its own with SigV4
    // (libcurl signs the value given there).
    bool const put = std::strcmp(method, "PUT") == 0;
    std::string payload;
    if (!hexDigest(EVP_sha256(), put && body != nullptr ? body : "", put ? length : 0, payload))
        payload = "UNSIGNED-PAYLOAD";
    struct curl_slist* headers =
        curl_slist_append(nullptr, ("x-amz-content-sha256: " + payload).c_str());
    if (std::strcmp(method, "HEAD") == 0) {
        curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    } else if (put) {
        headers = curl_slist_append(headers, "Content-Type: application/octet-stream");
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, "PUT");
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body != nullptr ? body : "");
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(length));
    }
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, collectBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, out);
    return headers;
}

// Runs the multi handle until `easy` has ended; its result.
CURLcode runUntilDone(Connection& c, CURL* easy) {
    for (;;) {
        int running = 0;
        CURLMcode const code = curl_multi_perform(c.multi, &running);
        if (code != CURLM_OK)
            return code == CURLM_OUT_OF_MEMORY ? CURLE_OUT_OF_MEMORY : CURLE_FAILED_INIT;
        int left = 0;
        while (CURLMsg* const message = curl_multi_info_read(c.multi, &left))
            if (message->msg == CURLMSG_DONE && message->easy_handle == easy)
                return message->data.result;
        if (curl_multi_poll(c.multi, nullptr, 0, 1000, nullptr) != CURLM_OK)
            return CURLE_FAILED_INIT;
    }
}

// One S3 request on the connection's single handle. The HTTP status, or -1
// with `status` set when there was no answer.
long s3Request(Connection& c, const char* method, const std::string& key, const std::string& query,
               const void* body, size_t length, std::string* out, int& status) {
    std::string sink;
    curl_slist* const headers =
        prepareRequest(c, c.curl, method, key, query, body, length, out != nullptr ? out : &sink);
    CURLcode result = CURLE_OUT_OF_MEMORY;
    if (curl_multi_add_handle(c.multi, c.curl) == CURLM_OK) {
        result = runUntilDone(c, c.curl);
        curl_multi_remove_handle(c.multi, c.curl);
    }
    curl_slist_free_all(headers);
    if (result != CURLE_OK) {
        status = result == CURLE_OUT_OF_MEMORY ? CR_E_NOMEM : CR_E_IO;
        return -1;
    }
    long code = 0;
    curl_easy_getinfo(c.curl, CURLINFO_RESPONSE_CODE, &code);
    return code;
}

int statusOfHttp(long code) {
    if (code == 401 || code == 403)
        return CR_E_AUTH;
    if (code == 404)
        return CR_E_NOENT;
    if (code == 507)
        return CR_E_NOSPACE;
    return CR_E_IO;
}

// Whether the object `key` of `size` bytes is in the store: 1 yes, 0 no,
// or -1 with `status`.
int storeHas(Connection& c, const std::string& key, size_t size, int& status) {
    if (c.curl == nullptr) {
        struct stat existing;
        return ::stat((c.root + "/" + key).c_str(), &existing) == 0 &&
                       static_cast<size_t>(existing.st_size) == size
                   ? 1
                   : 0;
    }
    long const code = s3Request(c, "HEAD", key, "", nullptr, 0, nullptr, status);
    if (code == 200) {
        curl_off_t length = -1;
        curl_easy_getinfo(c.curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
        return length == static_cast<curl_off_t>(size) ? 1 : 0;
    }
    if (code == 404)
        return 0;
    if (code > 0)
        status = statusOfHttp(code);
    return -1;
}

// Stores the object `key` whole; 0 or a status.
int storePut(Connection& c, const std::string& key, const void* data, size_t length) {
    if (c.curl == nullptr)
        return atomicWrite(c.root, c.root + "/" + key, data, length);
    int status = CR_E_IO;
    long const code = s3Request(c, "PUT", key, "", data, length, nullptr, status);
    if (code == 200)
        return CR_OK;
    return code > 0 ? statusOfHttp(code) : status;
}

// Reads the object `key`; 0 or a status.
int storeGet(Connection& c, const std::string& key, std::string& out) {
    out.clear();
    if (c.curl == nullptr) {
        std::ifstream in(c.root + "/" + key, std::ios::binary);
        if (!in)
            return CR_E_NOENT;
        std::ostringstream text;
        text << in.rdbuf();
        out = text.str();
        return in.bad() ? CR_E_IO : CR_OK;
    }
    int status = CR_E_IO;
    long const code = s3Request(c, "GET", key, "", nullptr, 0, &out, status);
    if (code == 200)
        return CR_OK;
    return code > 0 ? statusOfHttp(code) : status;
}

// The text of every <Key> element of a listing.
void listedKeys(const std::string& xml, std::vector<std::string>& keys, std::string& next) {
    next.clear();
    for (size_t at = xml.find("<Key>"); at != std::string::npos; at = xml.find("<Key>", at)) {
        size_t const end = xml.find("</Key>", at);
        if (end == std::string::npos)
            break;
        keys.push_back(xml.substr(at + 5, end - at - 5));
        at = end;
    }
    size_t const token = xml.find("<NextContinuationToken>");
    if (token != std::string::npos &&
        xml.find("<IsTruncated>true</IsTruncated>") != std::string::npos) {
        size_t const end = xml.find("</NextContinuationToken>", token);
        if (end != std::string::npos)
            next = xml.substr(token + 23, end - token - 23);
    }
}

// The names of the objects below `directory` (a key ending in '/'), relative
// to it; 0 or a status.
int storeList(Connection& c, const std::string& directory, std::vector<std::string>& names) {
    names.clear();
    if (c.curl == nullptr) {
        DIR* const dir = ::opendir((c.root + "/" + directory).c_str());
        if (dir == nullptr)
            return errno == ENOENT ? CR_OK : statusOfErrno(errno);
        while (const struct dirent* entry = ::readdir(dir))
            if (entry->d_name[0] != '.')
                names.push_back(entry->d_name);
        ::closedir(dir);
        return CR_OK;
    }
    std::string const prefix = objectName(c, directory);
    std::string token;
    do {
        std::string query = "list-type=2&prefix=" + urlEscaped(prefix, false);
        if (!token.empty())
            query += "&continuation-token=" + urlEscaped(token, false);
        std::string xml;
        int status = CR_E_IO;
        long const code = s3Request(c, "GET", "", query, nullptr, 0, &xml, status);
        if (code != 200)
            return code > 0 ? statusOfHttp(code) : status;
        std::vector<std::string> keys;
        listedKeys(xml, keys, token);
        for (const std::string& key : keys)
            if (key.compare(0, prefix.size(), prefix) == 0)
                names.push_back(key.substr(prefix.size()));
    } while (!token.empty());
    return CR_OK;
}

// The chunks of one file sent to an S3 store, kInFlight at a time through
// the connection's multi handle: each is looked for with a HEAD and PUT when
// missing. The first failure stops it; what is still in flight is dropped.
class ChunkSender {
public:
    explicit ChunkSender(Connection& c) : m_c(c), m_status(CR_OK), m_written(0) {}
    ~ChunkSender() { abort(); }
    ChunkSender(const ChunkSender&) = delete;
    ChunkSender& operator=(const ChunkSender&) = delete;

    // Queues the chunk `key` of `length` bytes at `data`, waiting while all
    // slots are busy. 0, or the first failure's status.
    [[nodiscard]] int send(const std::string& key, const unsigned char* data, size_t length) {
        if (!m_queued.insert(key).second)
            return m_status;  // already on its way within this file
        Transfer* slot = nullptr;
        while (m_status == CR_OK && (slot = freeSlot()) == nullptr)
            step();
        if (m_status != CR_OK)
            return m_status;
        slot->key = key;
        slot->data.assign(reinterpret_cast<const char*>(data), length);
        start(*slot, false);
        return m_status;
    }

    // Waits for every chunk. 0, or the first failure's status.
    [[nodiscard]] int finish() {
        while (m_status == CR_OK && busy())
            step();
        abort();
        return m_status;
    }

    // Bytes of chunks that were PUT.
    uint64_t written() const { return m_written; }

private:
    Transfer* freeSlot() {
        for (Transfer& slot : m_c.slots)
            if (!slot.busy)
                return &slot;
        return nullptr;
    }

    bool busy() const {
        for (const Transfer& slot : m_c.slots)
            if (slot.busy)
                return true;
        return false;
    }

    void fail(int status) {
        if (m_status == CR_OK)
            m_status = status;
    }

    void start(Transfer& slot, bool put) {
        if (slot.easy == nullptr && (slot.easy = curl_easy_init()) == nullptr)
            return fail(CR_E_NOMEM);
        curl_slist_free_all(slot.headers);
        slot.answer.clear();
        slot.put = put;
        slot.headers = prepareRequest(m_c, slot.easy, put ? "PUT" : "HEAD", slot.key, "",
                                      slot.data.data(), slot.data.size(), &slot.answer);
        if (curl_multi_add_handle(m_c.multi, slot.easy) != CURLM_OK)
            return fail(CR_E_NOMEM);
        slot.busy = true;
    }

    void ended(Transfer& slot, CURLcode result) {
        curl_multi_remove_handle(m_c.multi, slot.easy);
        slot.busy = false;
        if (result != CURLE_OK)
            return fail(result == CURLE_OUT_OF_MEMORY ? CR_E_NOMEM : CR_E_IO);
        long code = 0;
        curl_easy_getinfo(slot.easy, CURLINFO_RESPONSE_CODE, &code);
        if (slot.put) {
            if (code != 200)
                return fail(statusOfHttp(code));
            m_written += slot.data.size();
            return;
        }
        curl_off_t length = -1;
        curl_easy_getinfo(slot.easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
        if (code == 200 && length == static_cast<curl_off_t>(slot.data.size()))
            return;  // there already
        if (code == 200 || code == 404)
            return start(slot, true);
        fail(statusOfHttp(code));
    }

    // Moves the transfers on and handles those that ended, waiting a little
    // when none did.
    void step() {
        int running = 0;
        if (curl_multi_perform(m_c.multi, &running) != CURLM_OK)
            return fail(CR_E_IO);
        bool any = false;
        int left = 0;
        while (CURLMsg* const message = curl_multi_info_read(m_c.multi, &left)) {
            if (message->msg != CURLMSG_DONE)
                continue;
            for (Transfer& slot : m_c.slots)
                if (slot.busy && slot.easy == message->easy_handle) {
                    ended(slot, message->data.result);
                    any = true;
                    break;
                }
        }
        if (!any && m_status == CR_OK && running > 0 &&
            curl_multi_poll(m_c.multi, nullptr, 0, 1000, nullptr) != CURLM_OK)
            fail(CR_E_IO);
    }

    void abort() {
        for (Transfer& slot : m_c.slots) {
            if (slot.busy)
                curl_multi_remove_handle(m_c.multi, slot.easy);
            slot.busy = false;
            curl_slist_free_all(slot.headers);
            slot.headers = nullptr;
            std::string().swap(slot.data);
        }
    }

    Connection& m_c;
    int m_status;
    uint64_t m_written;
    std::set<std::string> m_queued;
};

// A tref: the DSID and context of one upload.
struct TRef {
    int dsid;
    std::string context;
};

std::mutex g_trefLock;

std::map<std::pair<int, std::string>, std::unique_ptr<TRef>>& trefs() {
    static std::map<std::pair<int, std::string>, std::unique_ptr<TRef>> all;
    return all;
}

bool readWhole(const std::string& path, std::string& out) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    std::ostringstream text;
    text << in.rdbuf();
    out = text.str();
    return !in.bad();
}

}  // namespace

// ---- statuses -------------------------------------------------------------

int* cr_errno_location() {
    return &t_status;
}

const wchar_t* CRStatusToStringW(int status) {
    switch (status) {
        case CR_OK:
            return L"success";
        case CR_OK_PRESENT:
            return L"success, data already in store";
        case CR_E_INVAL:
            return L"invalid argument";
        case CR_E_NOENT:
            return L"no such file or directory";
        case CR_E_IO:
            return L"input/output error";
        case CR_E_NOSPACE:
            return L"store is full";
        case CR_E_AUTH:
            return L"authentication refused";
        case CR_E_URL:
            return L"unsupported store URL";
        case CR_E_FPTYPE:
            return L"invalid fingerprint type";
        case CR_E_CHANGED:
            return L"file changed while it was read";
        case CR_E_NOMEM:
            return L"out of memory";
        case CR_E_PARSE:
            return L"malformed path object text";
        case CR_E_NOTREG:
            return L"not a regular file";
        case CR_E_ACCESS:
            return L"permission denied";
        case CR_E_OPTION:
            return L"unknown option";
        case CR_E_NOTINIT:
            return L"store not initialised";
        default:
            return L"unknown status";
    }
}

// ---- path objects ---------------------------------------------------------

POHandle POCreate() {
    PORecord* const record = newRecord();
    if (record != nullptr)
        std::strcpy(record->dirname, ".");
    return record;
}

POHandle POCreateFromString(const char* text) {
    if (text == nullptr) {
        setStatus(CR_E_INVAL);
        return nullptr;
    }
    std::vector<std::string> const fields = splitTabs(text);
    if (fields.size() != 16 || fields[0] != "PO1") {
        setStatus(CR_E_PARSE);
        return nullptr;
    }
    uint64_t numbers[9];
    static const int bases[9] = {10, 10, 10, 8, 10, 10, 10, 0, 0};
    for (int i = 0; i < 7; ++i)
        if (!parseUnsigned(fields[static_cast<size_t>(i) + 1], bases[i], numbers[i]) ||
            (i < 6 && numbers[i] > 0xFFFFFFFFull)) {
            setStatus(CR_E_PARSE);
            return nullptr;
        }
    uint64_t nlink = 0;
    int64_t times[3][2];
    std::string volume, dirname, basename, link;
    if (!parseTime(fields[8], times[0][0], times[0][1]) ||
        !parseTime(fields[9], times[1][0], times[1][1]) ||
        !parseTime(fields[10], times[2][0], times[2][1]) || !parseUnsigned(fields[11], 10, nlink) ||
        !unescapedField(fields[12], volume) || !unescapedField(fields[13], dirname) ||
        !unescapedField(fields[14], basename) || !unescapedField(fields[15], link)) {
        setStatus(CR_E_PARSE);
        return nullptr;
    }
    PORecord* const record = newRecord();
    if (record == nullptr)
        return nullptr;
    record->type = static_cast<int>(numbers[0]);
    record->flags = static_cast<int>(numbers[1]);
    record->mask = static_cast<int>(numbers[2]);
    record->mode = static_cast<unsigned>(numbers[3]);
    record->uid = static_cast<unsigned>(numbers[4]);
    record->gid = static_cast<unsigned>(numbers[5]);
    record->size = numbers[6];
    std::memcpy(record->times, times, sizeof times);
    record->nlink = nlink;
    if (!copyField(record->volume, kNameMax, volume) ||
        !copyField(record->dirname, kPathMax, dirname) ||
        !copyField(record->basename, kNameMax, basename) ||
        !copyField(record->link, kPathMax, link)) {
        std::free(record);
        setStatus(CR_E_PARSE);
        return nullptr;
    }
    return record;
}

POHandle POCreateFromStat(const char* path, int follow, const char* volume, int mask, int version) {
    if (path == nullptr || *path == '\0' || volume == nullptr || version != 1) {
        setStatus(CR_E_INVAL);
        return nullptr;
    }
    struct stat st;
    if ((follow != 0 ? ::stat(path, &st) : ::lstat(path, &st)) != 0) {
        setStatus(statusOfErrno(errno));
        return nullptr;
    }
    std::string const text(path);
    size_t const slash = text.rfind('/');
    std::string const dirname = slash == std::string::npos
                                    ? std::string(".")
                                    : (slash == 0 ? std::string("/") : text.substr(0, slash));
    std::string const basename = slash == std::string::npos ? text : text.substr(slash + 1);
    PORecord* const record = newRecord();
    if (record == nullptr)
        return nullptr;
    if (!copyField(record->volume, kNameMax, volume) ||
        !copyField(record->dirname, kPathMax, dirname) ||
        !copyField(record->basename, kNameMax, basename)) {
        std::free(record);
        setStatus(CR_E_INVAL);
        return nullptr;
    }
    record->type = S_ISREG(st.st_mode)   ? PO_TYPE_FILE
                   : S_ISDIR(st.st_mode) ? PO_TYPE_DIRECTORY
                   : S_ISLNK(st.st_mode) ? PO_TYPE_SYMLINK
                                         : PO_TYPE_OTHER;
    record->mask = mask & PO_FIELDS_ALL;
    if (mask & 1)
        record->mode = st.st_mode;
    if (mask & 2)
        record->uid = st.st_uid;
    if (mask & 4)
        record->gid = st.st_gid;
    if (mask & 8)
        record->size = static_cast<uint64_t>(st.st_size);
    const struct timespec* const times[3] = {&st.st_mtim, &st.st_atim, &st.st_ctim};
    for (int i = 0; i < 3; ++i)
        if (mask & (16 << i)) {
            record->times[i][0] = times[i]->tv_sec;
            record->times[i][1] = times[i]->tv_nsec;
        }
    if (mask & 128)
        record->nlink = st.st_nlink;
    if (record->type == PO_TYPE_SYMLINK) {
        ssize_t const n = ::readlink(path, record->link, kPathMax - 1);
        if (n < 0) {
            std::free(record);
            setStatus(statusOfErrno(errno));
            return nullptr;
        }
        record->link[n] = '\0';
    }
    return record;
}

int POSetDirname(POHandle po, const wchar_t* text) {
    return setWideField(
        po, [](PORecord* r) { return r->dirname; }, kPathMax, text);
}

int POSetBasename(POHandle po, const wchar_t* text) {
    return setWideField(
        po, [](PORecord* r) { return r->basename; }, kNameMax, text);
}

int POSetType(POHandle po, int type) {
    if (po == nullptr || type < PO_TYPE_FILE || type > PO_TYPE_OTHER) {
        setStatus(CR_E_INVAL);
        return -1;
    }
    static_cast<PORecord*>(po)->type = type;
    return 0;
}

int POSetSpecialFlags(POHandle po, int flags) {
    if (po == nullptr || flags < 0) {
        setStatus(CR_E_INVAL);
        return -1;
    }
    static_cast<PORecord*>(po)->flags = flags;
    return 0;
}

char* POToStringMalloced(POHandle po) {
    if (po == nullptr) {
        setStatus(CR_E_INVAL);
        return nullptr;
    }
    const PORecord* const r = static_cast<const PORecord*>(po);
    char numbers[160];
    std::snprintf(numbers, sizeof numbers, "PO1\t%d\t%d\t%d\t%o\t%u\t%u\t%llu\t", r->type, r->flags,
                  r->mask, r->mode, r->uid, r->gid, static_cast<unsigned long long>(r->size));
    std::string text(numbers);
    for (int i = 0; i < 3; ++i)
        text += timeText(r->times[i]) + "\t";
    text += std::to_string(r->nlink) + "\t" + escapedField(r->volume) + "\t" +
            escapedField(r->dirname) + "\t" + escapedField(r->basename) + "\t" +
            escapedField(r->link);
    char* const out = static_cast<char*>(std::malloc(text.size() + 1));
    if (out == nullptr) {
        setStatus(CR_E_NOMEM);
        return nullptr;
    }
    std::memcpy(out, text.c_str(), text.size() + 1);
    return out;
}

void POStringDestroy(char* text) {
    std::free(text);
}

void PODestroy(POHandle po) {
    std::free(po);
}

bool POGetFields(POHandle po, POFields& out) {
    if (po == nullptr)
        return false;
    const PORecord* const r = static_cast<const PORecord*>(po);
    out.type = r->type;
    out.flags = r->flags;
    out.mask = r->mask;
    out.mode = r->mode;
    out.uid = r->uid;
    out.gid = r->gid;
    out.size = r->size;
    out.mtime_sec = r->times[0][0];
    out.mtime_nsec = static_cast<long>(r->times[0][1]);
    out.atime_sec = r->times[1][0];
    out.atime_nsec = static_cast<long>(r->times[1][1]);
    out.nlink = r->nlink;
    out.volume = r->volume;
    out.dirname = r->dirname;
    out.basename = r->basename;
    out.link = r->link;
    return true;
}

// ---- the connection -------------------------------------------------------

CRHandle CRInit(const wchar_t* configfile, const wchar_t* runtimedir, int dsid, int flags,
                const char* version, int number) {
    if (runtimedir == nullptr || version == nullptr || number != kProtocolNumber) {
        setStatus(CR_E_INVAL);
        return nullptr;
    }
    int const saved = errno;
    Configuration* const configuration = getConfigSingleton();
    const wchar_t* const url =
        configuration != nullptr ? configuration->asString(L"storeurl") : nullptr;
    const wchar_t* const endpoint =
        configuration != nullptr ? configuration->asString(L"storeendpoint") : nullptr;
    std::string text, endpointText, runtime;
    if ((url != nullptr && !wcstoutf8(url, text)) ||
        (endpoint != nullptr && !wcstoutf8(endpoint, endpointText))) {
        setStatus(CR_E_URL);
        return nullptr;
    }
    if (!wcstoutf8(runtimedir, runtime)) {
        setStatus(CR_E_INVAL);
        return nullptr;
    }
    CRHandle const handle =
        CROpen(text.c_str(), endpointText.c_str(), runtime.c_str(), dsid, flags);
    if (handle == nullptr)
        return nullptr;
    // The TLS client certificate of the key directory is known from the
    // configuration file already, since the login is checked (with a request
    // to an S3 store) before the options name it.
    wchar_t directory[4095];
    if (configfile != nullptr &&
        InifileGetPathW(L"Paths", L"KeyDir", configfile, directory, 4095, nullptr) != 0) {
        Connection* const connection = static_cast<Connection*>(handle);
        std::wstring base(directory);
        if (base.back() != L'/')
            base += L'/';
        connection->keyPath = base + L"Agent.key";
        connection->certPath = base + L"Agent.cert";
    }
    errno = saved;
    return handle;
}

CRHandle CROpen(const char* url, const char* endpoint, const char* runtimedir, int dsid,
                int flags) {
    if (url == nullptr || endpoint == nullptr || runtimedir == nullptr) {
        setStatus(CR_E_INVAL);
        return nullptr;
    }
    int const saved = errno;
    std::unique_ptr<Connection> connection(new (std::nothrow) Connection());
    if (!connection) {
        setStatus(CR_E_NOMEM);
        return nullptr;
    }
    connection->dsid = dsid;
    connection->fptype = 1;
    connection->flags = flags;
    connection->authenticated = false;
    std::string const text(url);
    if (text.compare(0, 5, "s3://") == 0) {
        std::string const rest = text.substr(5);
        size_t const slash = rest.find('/');
        connection->bucket = rest.substr(0, slash);
        connection->prefix = slash == std::string::npos ? "" : rest.substr(slash + 1);
        while (!connection->prefix.empty() && connection->prefix.back() == '/')
            connection->prefix.pop_back();
        connection->endpoint = endpoint;
        if (connection->bucket.empty() || (connection->endpoint.compare(0, 7, "http://") != 0 &&
                                           connection->endpoint.compare(0, 8, "https://") != 0)) {
            setStatus(CR_E_URL);
            return nullptr;
        }
        while (!connection->endpoint.empty() && connection->endpoint.back() == '/')
            connection->endpoint.pop_back();
        connection->curl = curl_easy_init();
        connection->multi = curl_multi_init();
        if (connection->curl == nullptr || connection->multi == nullptr) {
            setStatus(CR_E_NOMEM);
            return nullptr;
        }
        // The store's objects are checked when the login is known.
        errno = saved;
        return connection.release();
    }
    std::string root;
    if (!text.empty()) {
        if (text.compare(0, 8, "file:///") != 0) {
            setStatus(CR_E_URL);
            return nullptr;
        }
        root = text.substr(7);
    } else {
        if (*runtimedir == '\0') {
            setStatus(CR_E_INVAL);
            return nullptr;
        }
        root = std::string(runtimedir) + "/store";
    }
    while (root.size() > 1 && root.back() == '/')
        root.pop_back();
    struct stat st;
    if (::stat((root + "/store.version").c_str(), &st) != 0) {
        if (!(flags & 1024)) {
            setStatus(CR_E_NOTINIT);
            return nullptr;
        }
        int status = makeTree(root + "/tmp");
        if (status == CR_OK)
            status =
                atomicWrite(root, root + "/store.version", kStoreVersion, sizeof kStoreVersion - 1);
        if (status != CR_OK) {
            setStatus(status);
            return nullptr;
        }
    } else if (flags & 1024) {
        if (int const status = makeTree(root + "/tmp"); status != CR_OK) {
            setStatus(status);
            return nullptr;
        }
    }
    connection->root = root;
    errno = saved;
    return connection.release();
}

int CRAuthenticate(CRHandle handle, int dsid, const char* login, const char* password) {
    Connection* const connection = static_cast<Connection*>(handle);
    if (connection == nullptr || login == nullptr || password == nullptr ||
        dsid != connection->dsid)
        return setStatus(CR_E_INVAL);
    if (*login == '\0') {
        errno = EACCES;
        return setStatus(CR_E_AUTH);
    }
    int const saved = errno;
    if (connection->curl != nullptr) {
        // S3 signs every request: a store that doesn't know the key refuses
        // the first look at the store's version object.
        connection->login = login;
        connection->password = password;
        int status = CR_E_IO;
        int const present =
            storeHas(*connection, "store.version", sizeof kStoreVersion - 1, status);
        if (present == 0 && (connection->flags & 1024))
            status =
                storePut(*connection, "store.version", kStoreVersion, sizeof kStoreVersion - 1);
        else if (present == 0)
            status = CR_E_NOTINIT;
        else if (present == 1)
            status = CR_OK;
        if (status != CR_OK) {
            if (status == CR_E_AUTH)
                errno = EACCES;
            return setStatus(status);
        }
        errno = saved;
        connection->authenticated = true;
        return setStatus(CR_OK);
    }
    std::string credentials;
    if (readWhole(connection->root + "/credentials", credentials)) {
        std::string const wanted = std::string(login) + "\t" + sha256Hex(password);
        std::istringstream lines(credentials);
        std::string line;
        bool found = false;
        while (std::getline(lines, line))
            found = found || line == wanted;
        if (!found) {
            errno = EACCES;
            return setStatus(CR_E_AUTH);
        }
    } else if (errno != ENOENT) {
        return setStatus(statusOfErrno(errno));
    }
    errno = saved;
    connection->authenticated = true;
    return setStatus(CR_OK);
}

int CRFPTypeIsValid(int type) {
    return digestOf(type) != nullptr ? 1 : 0;
}

int CRConfigLocateW(const wchar_t* product, wchar_t* buffer, size_t size) {
    if (product == nullptr || buffer == nullptr || size == 0)
        return 0;
    const wchar_t* const last = std::wcsrchr(product, L'\\');
    Configuration* const configuration = getConfigSingleton();
    ACE_WString path;
    if (configuration == nullptr ||
        configuration->productConfigfilePath(last != nullptr ? last + 1 : product, path) != 0 ||
        path.length() + 1 > size)
        return 0;
    std::wcscpy(buffer, path.c_str());
    return 1;
}

size_t InifileGetPathW(const wchar_t* section, const wchar_t* key, const wchar_t* file,
                       wchar_t* buffer, size_t size, const wchar_t* fallback) {
    if (buffer == nullptr || size == 0)
        return 0;
    std::wstring value = fallback != nullptr ? fallback : L"";
    std::string narrowFile, narrowSection, narrowKey, text;
    if (section != nullptr && key != nullptr && file != nullptr && wcstoutf8(file, narrowFile) &&
        wcstoutf8(section, narrowSection) && wcstoutf8(key, narrowKey) &&
        readWhole(narrowFile, text)) {
        auto trim = [](std::string s) {
            size_t const b = s.find_first_not_of(" \t\r");
            size_t const e = s.find_last_not_of(" \t\r");
            return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
        };
        std::istringstream lines(text);
        std::string line, current;
        while (std::getline(lines, line)) {
            line = trim(line);
            if (line.empty() || line[0] == ';' || line[0] == '#')
                continue;
            if (line.front() == '[' && line.back() == ']') {
                current = trim(line.substr(1, line.size() - 2));
                continue;
            }
            size_t const equals = line.find('=');
            std::wstring wide;
            if (equals != std::string::npos && current == narrowSection &&
                trim(line.substr(0, equals)) == narrowKey &&
                utf8towcs(trim(line.substr(equals + 1)).c_str(), wide)) {
                value = wide;
                break;
            }
        }
    }
    size_t const length = std::min(value.size(), size - 1);
    std::wmemcpy(buffer, value.data(), length);
    buffer[length] = L'\0';
    return length;
}

int CROptionsSetVa(CRHandle handle, ...) {
    Connection* const connection = static_cast<Connection*>(handle);
    if (connection == nullptr)
        return setStatus(CR_E_INVAL);
    va_list arguments;
    va_start(arguments, handle);
    int status = CR_OK;
    for (int option = va_arg(arguments, int); option != 0 && status == CR_OK;
         option = va_arg(arguments, int)) {
        switch (option) {
            case 18:
                if (va_arg(arguments, int) != 0)
                    status = CR_E_OPTION;
                break;
            case 22: {
                int const type = va_arg(arguments, int);
                if (digestOf(type) == nullptr)
                    status = CR_E_FPTYPE;
                else
                    connection->fptype = type;
                break;
            }
            case 23:
            case 24: {
                const wchar_t* const path = va_arg(arguments, const wchar_t*);
                if (path == nullptr)
                    status = CR_E_INVAL;
                else
                    (option == 23 ? connection->keyPath : connection->certPath) = path;
                break;
            }
            default:
                status = CR_E_OPTION;
        }
    }
    va_end(arguments);
    return setStatus(status);
}

int CRFilePut(CRHandle handle, const wchar_t* path, int flags, int reserved, const char* context,
              size_t size, uint64_t* result, int reserved2, void* tref) {
    Connection* const connection = static_cast<Connection*>(handle);
    if (result != nullptr)
        *result = 0;
    std::string narrow;
    if (connection == nullptr || path == nullptr || flags != 0 || reserved != 0 || reserved2 != 0 ||
        (context == nullptr && size != 0) || !wcstoutf8(path, narrow))
        return setStatus(CR_E_INVAL);
    if (!connection->authenticated)
        return setStatus(CR_E_AUTH);
    const EVP_MD* const md = digestOf(connection->fptype);
    if (md == nullptr)
        return setStatus(CR_E_FPTYPE);

    int const fd = ::open(narrow.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0)
        return setStatus(errno == ELOOP ? CR_E_NOTREG : statusOfErrno(errno));
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    // A change after this moment gets a change time from this moment on (the
    // file system's clock is the coarse one): only a file changed before it
    // can be remembered as unchanged, a file changed in the same tick can't.
    struct timespec began;
    ::clock_gettime(CLOCK_REALTIME_COARSE, &began);
    struct stat before;
    if (::fstat(fd, &before) != 0)
        return setStatus(statusOfErrno(errno));
    if (!S_ISREG(before.st_mode))
        return setStatus(CR_E_NOTREG);
    std::unique_ptr<PORecord, void (*)(void*)> po(
        static_cast<PORecord*>(POCreateFromStat(narrow.c_str(), 0, "empty", PO_FIELDS_ALL, 1)),
        std::free);
    if (!po)
        return setStatus(t_status == CR_E_NOENT ? CR_E_CHANGED : t_status);

    TRef* const reference = static_cast<TRef*>(tref);
    int const dsid = reference != nullptr ? reference->dsid : connection->dsid;
    std::string const manifestName = manifestKey(dsid, narrow);
    std::string const trefName = reference != nullptr
                                     ? "dsid/" + std::to_string(dsid) + "/trefs/" +
                                           sha256Hex(reference->context) + "/" + sha256Hex(narrow)
                                     : std::string();
    auto const known = connection->seen.find(manifestName);
    if (known != connection->seen.end() && sameFile(known->second, before, connection->fptype)) {
        int status = CR_E_IO;
        int const present = storeHas(*connection, manifestName, known->second.manifestSize, status);
        if (present < 0)
            return setStatus(status);
        if (present == 1) {
            if (reference != nullptr) {
                std::string entry = narrow + "\n";
                entry.append(context != nullptr ? context : "", size);
                if ((status = storePut(*connection, trefName, entry.data(), entry.size())) != CR_OK)
                    return setStatus(status);
            }
            return setStatus(CR_OK_PRESENT);
        }
    }

    std::ostringstream chunks;
    PendingChunks pending;
    ChunkSender sender(*connection);
    uint64_t written = 0, total = 0;
    std::vector<unsigned char> buffer(kMaxChunk);
    size_t have = 0;
    bool ended = false;
    while (!ended || have > 0) {
        while (!ended && have < kMaxChunk) {
            ssize_t const n = ::read(fd, buffer.data() + have, kMaxChunk - have);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0)
                return setStatus(statusOfErrno(errno));
            if (n == 0)
                ended = true;
            have += static_cast<size_t>(n);
        }
        if (have == 0)
            break;
        size_t const cut = cutPoint(buffer.data(), have);
        std::string hex;
        if (!hexDigest(md, buffer.data(), cut, hex))
            return setStatus(CR_E_NOMEM);
        std::string const key = chunkKey(connection->fptype, hex);
        if (connection->curl != nullptr) {
            if (int const status = sender.send(key, buffer.data(), cut); status != CR_OK)
                return setStatus(status);
        } else if (pending.targets.count(connection->root + "/" + key) == 0) {
            int status = CR_E_IO;
            int const present = storeHas(*connection, key, cut, status);
            if (present < 0)
                return setStatus(status);
            if (present == 0) {
                std::string temporary;
                status = writeTemporary(connection->root, buffer.data(), cut, false, temporary);
                if (status != CR_OK)
                    return setStatus(status);
                pending.files.emplace_back(temporary, connection->root + "/" + key);
                pending.targets.insert(connection->root + "/" + key);
                written += cut;
            }
        }
        chunks << hex << ' ' << cut << '\n';
        total += cut;
        std::memmove(buffer.data(), buffer.data() + cut, have - cut);
        have -= cut;
    }
    struct stat after;
    if (::fstat(fd, &after) != 0)
        return setStatus(statusOfErrno(errno));
    struct stat now;
    if (after.st_size != before.st_size || after.st_mtim.tv_sec != before.st_mtim.tv_sec ||
        after.st_mtim.tv_nsec != before.st_mtim.tv_nsec ||
        total != static_cast<uint64_t>(before.st_size) || ::lstat(narrow.c_str(), &now) != 0 ||
        now.st_ino != before.st_ino)
        return setStatus(CR_E_CHANGED);

    if (connection->curl != nullptr) {
        if (int const status = sender.finish(); status != CR_OK)
            return setStatus(status);
        written += sender.written();
    }
    char* const text = POToStringMalloced(po.get());
    if (text == nullptr)
        return setStatus(CR_E_NOMEM);
    std::string manifest = std::string("TWMANIFEST 1\n") + text + "\nT " +
                           std::to_string(connection->fptype) + "\n" + chunks.str() + "END " +
                           std::to_string(total) + "\n";
    POStringDestroy(text);
    // The chunks are in place and on the disk before the manifest names
    // them. With new chunks in a directory store, the manifest is written
    // beside them and flushed by their one syncfs, and takes its place last.
    int status = CR_OK;
    if (!pending.files.empty()) {
        std::string temporary;
        status =
            writeTemporary(connection->root, manifest.data(), manifest.size(), false, temporary);
        if (status != CR_OK)
            return setStatus(status);
        pending.files.insert(pending.files.begin(),
                             std::make_pair(temporary, connection->root + "/" + manifestName));
        status = pending.commit(connection->root);
    } else {
        status = storePut(*connection, manifestName, manifest.data(), manifest.size());
    }
    if (status == CR_OK && reference != nullptr) {
        std::string entry = narrow + "\n";
        entry.append(context != nullptr ? context : "", size);
        status = storePut(*connection, trefName, entry.data(), entry.size());
    }
    if (status != CR_OK)
        return setStatus(status);
    bool const settled =
        before.st_ctim.tv_sec < began.tv_sec ||
        (before.st_ctim.tv_sec == began.tv_sec && before.st_ctim.tv_nsec < began.tv_nsec);
    try {
        if (settled)
            connection->seen[manifestName] =
                Seen{before.st_dev,  before.st_ino,      before.st_size, before.st_mtim,
                     before.st_ctim, connection->fptype, manifest.size()};
    } catch (const std::bad_alloc&) {
        // Not remembered: the file is read again next time.
    }
    if (result != nullptr)
        *result = written;
    return setStatus(written > 0 ? CR_OK : CR_OK_PRESENT);
}

void* CRTRefNewContextDSID(void* record, const wchar_t* path, int dsid, const char* context) {
    (void)record;
    if (path == nullptr || context == nullptr) {
        setStatus(CR_E_INVAL);
        return nullptr;
    }
    std::lock_guard<std::mutex> guard(g_trefLock);
    try {
        auto& entry = trefs()[std::make_pair(dsid, std::string(context))];
        if (!entry)
            entry.reset(new TRef{dsid, context});
        return entry.get();
    } catch (const std::bad_alloc&) {
        setStatus(CR_E_NOMEM);
        return nullptr;
    }
}

int CRSync(CRHandle handle) {
    Connection* const connection = static_cast<Connection*>(handle);
    if (connection == nullptr)
        return setStatus(CR_E_INVAL);
    if (connection->curl != nullptr)  // an S3 store has its objects once PUT answered
        return setStatus(CR_OK);
    int const fd = ::open(connection->root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return setStatus(statusOfErrno(errno));
    int const result = ::fsync(fd);
    ::close(fd);
    ::sync();
    return setStatus(result == 0 ? CR_OK : statusOfErrno(errno));
}

int CRShutdown(CRHandle handle) {
    delete static_cast<Connection*>(handle);
    return setStatus(CR_OK);
}

// ---- the read side --------------------------------------------------------

int CRFileList(CRHandle handle, int dsid, std::vector<std::string>& paths) {
    paths.clear();
    Connection* const c = static_cast<Connection*>(handle);
    if (c == nullptr)
        return CR_E_INVAL;
    std::string const directory = "dsid/" + std::to_string(dsid) + "/files/";
    std::vector<std::string> names;
    if (int const status = storeList(*c, directory, names); status != CR_OK)
        return status;
    for (const std::string& name : names) {
        std::string manifest;
        if (name.size() < 9 || name.compare(name.size() - 9, 9, ".manifest") != 0 ||
            storeGet(*c, directory + name, manifest) != CR_OK)
            continue;
        std::istringstream lines(manifest);
        std::string magic, record;
        std::getline(lines, magic);
        std::getline(lines, record);
        std::unique_ptr<PORecord, void (*)(void*)> po(
            static_cast<PORecord*>(POCreateFromString(record.c_str())), std::free);
        if (magic != "TWMANIFEST 1" || !po)
            continue;
        std::string const dirname = po->dirname;
        paths.push_back(dirname == "/" ? "/" + std::string(po->basename)
                                       : dirname + "/" + po->basename);
    }
    std::sort(paths.begin(), paths.end());
    return CR_OK;
}

int CRFileGet(CRHandle handle, int dsid, const std::string& path, const std::string& target) {
    Connection* const c = static_cast<Connection*>(handle);
    if (c == nullptr)
        return CR_E_INVAL;
    std::string manifest;
    if (int const status = storeGet(*c, manifestKey(dsid, path), manifest); status != CR_OK)
        return status;
    std::istringstream lines(manifest);
    std::string magic, record, typeLine, line;
    std::getline(lines, magic);
    std::getline(lines, record);
    std::getline(lines, typeLine);
    std::unique_ptr<PORecord, void (*)(void*)> po(
        static_cast<PORecord*>(POCreateFromString(record.c_str())), std::free);
    int type = 0;
    if (magic != "TWMANIFEST 1" || !po || typeLine.compare(0, 2, "T ") != 0 ||
        (type = std::atoi(typeLine.c_str() + 2), digestOf(type) == nullptr))
        return CR_E_PARSE;
    // A stale name of an earlier restore is replaced; a link there is not
    // followed.
    std::string const temporary = target + ".restoring";
    (void)::unlink(temporary.c_str());
    int const fd =
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0)
        return statusOfErrno(errno);
    int status = CR_E_PARSE;
    uint64_t total = 0;
    while (std::getline(lines, line)) {
        if (line.compare(0, 4, "END ") == 0) {
            status = std::to_string(total) == line.substr(4) ? CR_OK : CR_E_PARSE;
            break;
        }
        size_t const space = line.find(' ');
        std::string chunk, hex;
        if (space == std::string::npos ||
            storeGet(*c, chunkKey(type, line.substr(0, space)), chunk) != CR_OK ||
            std::to_string(chunk.size()) != line.substr(space + 1) ||
            !hexDigest(digestOf(type), chunk.data(), chunk.size(), hex) ||
            hex != line.substr(0, space)) {
            status = CR_E_IO;
            break;
        }
        if (!fullWrite(fd, chunk.data(), chunk.size())) {
            status = statusOfErrno(errno);
            break;
        }
        total += chunk.size();
    }
    if (status == CR_OK && (po->mask & 1) && ::fchmod(fd, po->mode & 07777) != 0)
        status = statusOfErrno(errno);
    if (status == CR_OK && (po->mask & 48) == 48) {
        struct timespec times[2];
        times[0].tv_sec = po->times[1][0];
        times[0].tv_nsec = po->times[1][1];
        times[1].tv_sec = po->times[0][0];
        times[1].tv_nsec = po->times[0][1];
        if (::futimens(fd, times) != 0)
            status = statusOfErrno(errno);
    }
    if (status == CR_OK && ::fsync(fd) != 0)
        status = statusOfErrno(errno);
    if (::close(fd) != 0 && status == CR_OK)
        status = statusOfErrno(errno);
    if (status == CR_OK && ::rename(temporary.c_str(), target.c_str()) != 0)
        status = statusOfErrno(errno);
    if (status != CR_OK)
        ::unlink(temporary.c_str());
    return status;
}

int CRFileList(const std::string& storeRoot, int dsid, std::vector<std::string>& paths) {
    Connection connection;
    connection.root = storeRoot;
    return CRFileList(&connection, dsid, paths);
}

int CRFileGet(const std::string& storeRoot, int dsid, const std::string& path,
              const std::string& target) {
    Connection connection;
    connection.root = storeRoot;
    return CRFileGet(&connection, dsid, path, target);
}

}  // namespace Tarnwick
