#include <tarnwick/configuration.h>
#include <tarnwick/log.h>
#include <tarnwick/path.h>
#include <tarnwick/tarnwick.h>

#include <ace/Guard_T.h>
#include <ace/INET_Addr.h>

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <pthread.h>
#include <pwd.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <new>
#include <string>
#include <vector>

namespace Tarnwick {

namespace {

// ---------------------------------------------------------------------------
// Character helpers shared by the narrow and wide string functions.

inline size_t fullLength(const char* text) {
    return std::strlen(text);
}
inline size_t fullLength(const wchar_t* text) {
    return std::wcslen(text);
}
inline size_t boundedLength(const char* text, size_t limit) {
    return ::strnlen(text, limit);
}
inline size_t boundedLength(const wchar_t* text, size_t limit) {
    return ::wcsnlen(text, limit);
}

// memmove, so that a target overlapping its source is still copied right.
template <typename C>
inline void moveChars(C* target, const C* source, size_t count) {
    if (count > 0) {
        std::memmove(target, source, count * sizeof(C));
    }
}

template <typename C>
size_t boundedCopy(C* target, const C* source, size_t size, size_t wanted) {
    if (target != nullptr && size > 0) {
        size_t const taken = std::min(wanted, size - 1);
        moveChars(target, source, taken);
        target[taken] = C(0);
    }
    return wanted;
}

template <typename C>
size_t lcpy(C* target, const C* source, size_t size) {
    size_t const wanted = source != nullptr ? fullLength(source) : 0;
    return boundedCopy(target, source, size, wanted);
}

template <typename C>
size_t lncpy(C* target, const C* source, size_t size, size_t count) {
    size_t const wanted = source != nullptr ? boundedLength(source, count) : 0;
    return boundedCopy(target, source, size, wanted);
}

// Copies the first `length` characters of `source` when they fit together
// with the terminator; otherwise leaves the empty string and yields null.
template <typename C>
C* wholeCopy(C* target, const C* source, size_t size, size_t count) {
    if (target == nullptr || size == 0) {
        return nullptr;
    }
    if (source == nullptr) {
        target[0] = C(0);
        return nullptr;
    }
    // Looking at `size` characters is enough to know that it doesn't fit.
    size_t const length = boundedLength(source, std::min(count, size));
    if (length >= size) {
        target[0] = C(0);
        return nullptr;
    }
    moveChars(target, source, length);
    target[length] = C(0);
    return target;
}

// Appends at most `count` characters of `source` to the text in `target`;
// null, with the target unchanged, when the result would not fit or the
// target holds no terminator within its capacity.
template <typename C>
C* boundedAppend(C* target, const C* source, size_t size, size_t count) {
    if (target == nullptr || source == nullptr) {
        return nullptr;
    }
    size_t const used = boundedLength(target, size);
    if (used >= size) {
        return nullptr;
    }
    size_t const room = size - used;  // characters left, terminator included
    size_t const length = boundedLength(source, std::min(count, room));
    if (length >= room) {
        return nullptr;
    }
    moveChars(target + used, source, length);
    target[used + length] = C(0);
    return target;
}

// ---------------------------------------------------------------------------
// UTF-8.

// Bytes that the code point needs in UTF-8; 0 for a surrogate or a value
// above U+10FFFF (negative wchar_t values end up there as well).
inline size_t utf8Size(wchar_t c) {
    uint32_t const cp = static_cast<uint32_t>(c);
    if (cp < 0x80)
        return 1;
    if (cp < 0x800)
        return 2;
    if (cp >= 0xD800 && cp <= 0xDFFF)
        return 0;
    if (cp < 0x10000)
        return 3;
    if (cp <= 0x10FFFF)
        return 4;
    return 0;
}

// Bytes needed for `source` without the terminator; false (errno EILSEQ)
// when it holds a character that UTF-8 can't carry.
bool utf8Length(const wchar_t* source, size_t& length) {
    size_t total = 0;
    for (const wchar_t* p = source; *p != 0; ++p) {
        size_t const n = utf8Size(*p);
        if (n == 0) {
            errno = EILSEQ;
            return false;
        }
        total += n;
    }
    length = total;
    return true;
}

// Writes the UTF-8 form of valid wide text and its terminator.
void encodeUTF8(char* target, const wchar_t* source) {
    unsigned char* out = reinterpret_cast<unsigned char*>(target);
    for (const wchar_t* p = source; *p != 0; ++p) {
        uint32_t const cp = static_cast<uint32_t>(*p);
        switch (utf8Size(*p)) {
            case 1:
                *out++ = static_cast<unsigned char>(cp);
                break;
            case 2:
                *out++ = static_cast<unsigned char>(0xC0 | (cp >> 6));
                *out++ = static_cast<unsigned char>(0x80 | (cp & 0x3F));
                break;
            case 3:
                *out++ = static_cast<unsigned char>(0xE0 | (cp >> 12));
                *out++ = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
                *out++ = static_cast<unsigned char>(0x80 | (cp & 0x3F));
                break;
            default:
                *out++ = static_cast<unsigned char>(0xF0 | (cp >> 18));
                *out++ = static_cast<unsigned char>(0x80 | ((cp >> 12) & 0x3F));
                *out++ = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
                *out++ = static_cast<unsigned char>(0x80 | (cp & 0x3F));
                break;
        }
    }
    *out = 0;
}

// Decodes one character from `text`, of which `available` bytes may be read
// (a terminator ends the text earlier in any case, as it is no continuation
// byte). Returns the bytes it took, or 0 for anything that is not well-formed
// UTF-8: stray continuation bytes, overlong forms, truncated sequences,
// surrogates and values above U+10FFFF.
size_t decodeUTF8(const unsigned char* text, size_t available, uint32_t& cp) {
    unsigned char const lead = text[0];
    size_t length;
    uint32_t minimum;
    if (lead < 0x80) {
        cp = lead;
        return 1;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        minimum = 0x80;
        cp = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        minimum = 0x800;
        cp = lead & 0x0F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        minimum = 0x10000;
        cp = lead & 0x07;
    } else {
        return 0;  // 80..BF, the overlong leads C0 and C1, and F5..FF
    }
    if (available < length) {
        return 0;  // the limit falls inside the sequence
    }
    for (size_t i = 1; i < length; ++i) {
        if ((text[i] & 0xC0) != 0x80) {
            return 0;
        }
        cp = (cp << 6) | (text[i] & 0x3F);
    }
    if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        return 0;
    }
    return length;
}

// Characters of the terminated UTF-8 text `source`, without the terminator;
// false (errno EILSEQ) when it is not valid.
bool wideLength(const char* source, size_t& length) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(source);
    size_t total = 0;
    while (*p != 0) {
        uint32_t cp;
        // The terminator stops a sequence, so 4 bytes may always be asked for.
        size_t const n = decodeUTF8(p, 4, cp);
        if (n == 0) {
            errno = EILSEQ;
            return false;
        }
        p += n;
        ++total;
    }
    length = total;
    return true;
}

// Writes the wide form of valid UTF-8 text and its terminator.
void decodeToWide(wchar_t* target, const char* source) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(source);
    while (*p != 0) {
        uint32_t cp = 0;
        p += decodeUTF8(p, 4, cp);
        *target++ = static_cast<wchar_t>(cp);
    }
    *target = 0;
}

// ---------------------------------------------------------------------------
// Base64.

const size_t kMaxSize = 0xFFFFFFFFu;

inline size_t clampSize(size_t size) {
    return std::min(size, kMaxSize);
}

// Value of a Base64 digit, or -1.
inline int base64Value(unsigned char c) {
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+')
        return 62;
    if (c == '/')
        return 63;
    return -1;
}

// Checks that `text` of `length` characters is canonical Base64: groups of
// four digits of the standard alphabet, "=" only as the padding of the last
// group, and the unused bits before the padding 0. OpenSSL's block decoder is
// lenient about all of that, so it only ever sees text checked here. Returns
// the number of padding characters, or -1.
int checkBase64(const char* text, size_t length) {
    if (length % 4 != 0) {
        return -1;
    }
    int padding = 0;
    if (length > 0 && text[length - 1] == '=') {
        padding = text[length - 2] == '=' ? 2 : 1;
    }
    size_t const digits = length - padding;
    for (size_t i = 0; i < digits; ++i) {
        if (base64Value(static_cast<unsigned char>(text[i])) < 0) {
            return -1;
        }
    }
    if (padding == 2 && (base64Value(static_cast<unsigned char>(text[digits - 1])) & 0x0F) != 0) {
        return -1;
    }
    if (padding == 1 && (base64Value(static_cast<unsigned char>(text[digits - 1])) & 0x03) != 0) {
        return -1;
    }
    return padding;
}

// Input bytes per EVP_EncodeBlock call (a multiple of 3), and Base64
// characters per EVP_DecodeBlock call (a multiple of 4); both keep OpenSSL's
// int lengths far from their limit.
const size_t kEncodeChunk = 3u << 20;
const size_t kDecodeChunk = 4u << 20;

// Decodes checked Base64 of `length` characters with `padding` into `target`,
// which has room for exactly the decoded bytes. False if OpenSSL refuses.
bool decodeChecked(const char* text, size_t length, int padding, unsigned char* target) {
    if (length == 0) {
        return true;
    }
    // All groups but the last decode to three bytes each, straight into the
    // target. The last one goes through a small buffer, as OpenSSL writes its
    // padding out as zero bytes.
    size_t const body = length - 4;
    const unsigned char* in = reinterpret_cast<const unsigned char*>(text);
    for (size_t done = 0; done < body;) {
        size_t const chunk = std::min(body - done, kDecodeChunk);
        int const n = EVP_DecodeBlock(target + done / 4 * 3, in + done, static_cast<int>(chunk));
        if (n != static_cast<int>(chunk / 4 * 3)) {
            return false;
        }
        done += chunk;
    }
    unsigned char last[3];
    if (EVP_DecodeBlock(last, in + body, 4) != 3) {
        return false;
    }
    std::memcpy(target + body / 4 * 3, last, static_cast<size_t>(3 - padding));
    return true;
}

// ---------------------------------------------------------------------------
// The stored password form.
//
// "{twp}" followed by the Base64 of: a 32-bit check of the password, then the
// password's bytes; all of it XORed with a fixed key stream. This only keeps
// a password in a configuration file from being read at a glance. It is not
// encryption: anyone with this source, or enough patience, reverses it. The
// check makes sure that arbitrary text after the prefix is rejected rather
// than turned into a wrong password.

const char kPasswordPrefix[] = "{twp}";
const size_t kPasswordPrefixLength = sizeof(kPasswordPrefix) - 1;
const size_t kPasswordCheckBytes = 4;

const unsigned char kPasswordKey[16] = {0x5A, 0xC3, 0x17, 0x8E, 0x2B, 0xF4, 0x61, 0x9D,
                                        0xB0, 0x3E, 0xD7, 0x48, 0x86, 0x0F, 0xE9, 0x72};

inline unsigned char passwordKey(size_t position) {
    return static_cast<unsigned char>(kPasswordKey[position % sizeof(kPasswordKey)] ^
                                      ((position * 0x9D) & 0xFF));
}

// FNV-1a over the length and the bytes of the password.
uint32_t passwordCheck(const unsigned char* text, size_t length) {
    uint32_t hash = 2166136261u;
    auto const mix = [&hash](unsigned char byte) {
        hash ^= byte;
        hash *= 16777619u;
    };
    for (size_t i = 0; i < sizeof(uint32_t); ++i) {
        mix(static_cast<unsigned char>(length >> (8 * i)));
    }
    for (size_t i = 0; i < length; ++i) {
        mix(text[i]);
    }
    return hash;
}

// The check in the order in which it is stored, most significant byte first.
void storeCheck(uint32_t check, unsigned char* out) {
    for (size_t i = 0; i < kPasswordCheckBytes; ++i) {
        out[i] = static_cast<unsigned char>(check >> (8 * (kPasswordCheckBytes - 1 - i)));
    }
}

void obfuscate(std::vector<unsigned char>& data) {
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] ^= passwordKey(i);
    }
}

// Clears a buffer that held a password before it is released.
void wipe(std::vector<unsigned char>& data) {
    if (!data.empty()) {
        OPENSSL_cleanse(data.data(), data.size());
    }
}

// ---------------------------------------------------------------------------
// Random.
//
// SplitMix64 over an atomic Weyl sequence: lock-free and so safe from any
// thread. Its 64-bit outputs never repeat within a process (the mix is a
// bijection of the counter); Random returns their upper half. The seed comes
// from getrandom(2) on first use; a child of fork(2) seeds itself afresh, so
// parent and child don't share a sequence.

const uint64_t kGoldenGamma = 0x9E3779B97F4A7C15ull;

std::atomic<uint64_t> g_randomState{0};

uint64_t systemSeed() {
    uint64_t seed = 0;
    unsigned char* out = reinterpret_cast<unsigned char*>(&seed);
    size_t got = 0;
    while (got < sizeof(seed)) {
        ssize_t const n = ::getrandom(out + got, sizeof(seed) - got, 0);
        if (n > 0) {
            got += static_cast<size_t>(n);
        } else if (n < 0 && errno != EINTR) {
            break;
        }
    }
    if (got < sizeof(seed)) {
        // No getrandom (a very old kernel or a filter): time and identity are
        // still distinct enough between processes for tokens.
        struct timespec now;
        ::clock_gettime(CLOCK_REALTIME, &now);
        seed ^= static_cast<uint64_t>(now.tv_sec) * kGoldenGamma ^
                static_cast<uint64_t>(now.tv_nsec) ^ (static_cast<uint64_t>(::getpid()) << 32) ^
                reinterpret_cast<uintptr_t>(&seed);
    }
    return seed;
}

void reseedAfterFork() {
    int const saved = errno;
    g_randomState.store(systemSeed(), std::memory_order_relaxed);
    errno = saved;
}

struct RandomSeeder {
    RandomSeeder() {
        int const saved = errno;
        g_randomState.store(systemSeed(), std::memory_order_relaxed);
        ::pthread_atfork(nullptr, nullptr, reseedAfterFork);
        errno = saved;
    }
};

// ---------------------------------------------------------------------------
// File descriptors.

// Numbers of the open descriptors of the process, sorted. Without /proc
// every number below `scan_limit` is asked in turn.
std::vector<rlim_t> openDescriptors(rlim_t scan_limit) {
    std::vector<rlim_t> found;
    DIR* dir = ::opendir("/proc/self/fd");
    if (dir != nullptr) {
        int const own = ::dirfd(dir);
        while (struct dirent* entry = ::readdir(dir)) {
            char* end = nullptr;
            long const fd = std::strtol(entry->d_name, &end, 10);
            if (end == entry->d_name || *end != '\0' || fd < 0 || fd == own) {
                continue;  // "." and "..", and the directory being read
            }
            found.push_back(static_cast<rlim_t>(fd));
        }
        ::closedir(dir);
        std::sort(found.begin(), found.end());
    } else {
        rlim_t const end = std::min<rlim_t>(scan_limit, INT_MAX);
        for (rlim_t fd = 0; fd < end; ++fd) {
            if (::fcntl(static_cast<int>(fd), F_GETFD) != -1) {
                found.push_back(fd);
            }
        }
    }
    return found;
}

// How many of the sorted descriptor numbers lie below `limit`.
rlim_t countBelow(const std::vector<rlim_t>& descriptors, rlim_t limit) {
    return static_cast<rlim_t>(std::lower_bound(descriptors.begin(), descriptors.end(), limit) -
                               descriptors.begin());
}

}  // namespace

// ---------------------------------------------------------------------------
// URL check and threads.

int checkURL(const wchar_t* url) {
    if (url == nullptr) {
        errno = EINVAL;
        return -1;
    }
    int result = -1;
    try {
        std::wstring host(url);
        if (host.compare(0, 7, L"http://") == 0) {
            host.erase(0, 7);
        } else if (host.compare(0, 8, L"https://") == 0) {
            host.erase(0, 8);
        }
        // A port ends the host before a path does: "host:8443/x" and also
        // "host/a:b", which cuts at the ":" of the path.
        std::wstring::size_type cut = host.find(L':');
        if (cut == std::wstring::npos) {
            cut = host.find(L'/');
        }
        if (cut != std::wstring::npos) {
            host.resize(cut);
        }
        char* name = wcstoutf8_malloced(host.c_str());
        if (name != nullptr) {
            ACE_INET_Addr address;
            result = address.set(static_cast<u_short>(80), name, 1, AF_UNSPEC);
            utf8free(name);
        }
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        result = -1;
    }
    if (result == -1) {
        TW_LOG(
            "%D ERROR (%t): '%W' is not a valid URL, has an invalid hostname/IP address or "
            "resolving the hostname failed.\n",
            url);
        return -1;
    }
    return 0;
}

int startThread(ACE_Task<ACE_MT_SYNCH>* task, int count, size_t stack_size, bool joinable) {
    if (task == nullptr) {
        return -1;
    }
    if (count < 0) {
        // ACE would fail as well, but only after miscounting the task's threads.
        errno = EINVAL;
        return -1;
    }
    size_t* stack_sizes = nullptr;
    if (count > 0) {
        stack_sizes =
            static_cast<size_t*>(std::malloc(sizeof(size_t) * static_cast<size_t>(count)));
        if (stack_sizes == nullptr) {
            errno = ENOMEM;
            return -1;
        }
        std::fill(stack_sizes, stack_sizes + count, stack_size);
    }
    long const flags = joinable ? THR_JOINABLE : THR_DETACHED;
    int const result =
        task->activate(flags, count, 0, 0, 1, nullptr, nullptr, nullptr, stack_sizes, nullptr);
    std::free(stack_sizes);
    return result;
}

const wchar_t* translate_command(int command) {
    static const wchar_t* const names[22] = {L"No command",
                                             L"Identification",
                                             L"Session List",
                                             L"Directory Listing",
                                             L"Progress",
                                             L"Download File",
                                             L"Upload File",
                                             L"Start Process",
                                             L"Stop Process",
                                             L"Status Process",
                                             L"Protocol Error",
                                             L"Ihave (internal)",
                                             L"Sendme (internal)",
                                             L"Agent Info",
                                             L"Hartbeat (internal)",
                                             L"Check Connections (not implemented)",
                                             L"List Sessions",
                                             L"Acknowledge (internal)",
                                             L"Kick Agent",
                                             L"Get Job Logfile",
                                             L"Stop Workflow job",
                                             L"Reload Configuration"};
    return names[command];
}

// ---------------------------------------------------------------------------
// Process limits and identity.

int available_handles(int wanted) {
    struct rlimit limit;
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return -1;
    }
    try {
        // Descriptors at or above the soft limit (inherited ones, or after the
        // limit was lowered) don't take any of the numbers that open(2) hands out.
        rlim_t const scan =
            wanted > 0 ? std::max<rlim_t>(limit.rlim_max, limit.rlim_cur) : limit.rlim_cur;
        std::vector<rlim_t> const descriptors = openDescriptors(std::min<rlim_t>(scan, 1u << 20));
        if (wanted > 0) {
            // The smallest soft limit that leaves `wanted` numbers free: the
            // descriptors below it plus `wanted`.
            rlim_t needed = static_cast<rlim_t>(wanted);
            for (;;) {
                rlim_t const next = static_cast<rlim_t>(wanted) + countBelow(descriptors, needed);
                if (next == needed) {
                    break;
                }
                needed = next;
            }
            if (needed > limit.rlim_cur) {
                // Only a try: what the hard limit allows is reported below.
                int const saved = errno;
                set_fd_limit(static_cast<int>(std::min<rlim_t>(needed, INT_MAX)));
                errno = saved;
                if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
                    return -1;
                }
            }
        }
        rlim_t const soft = std::min<rlim_t>(limit.rlim_cur, INT_MAX);
        rlim_t const taken = countBelow(descriptors, soft);
        return static_cast<int>(soft - taken);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
}

int become_user(const wchar_t* name) {
    if (name == nullptr) {
        errno = EINVAL;
        return -1;
    }
    char* user = wcstoutf8_malloced(name);
    if (user == nullptr) {
        return -1;
    }
    long const suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(suggested > 0 ? static_cast<size_t>(suggested) : 1024);
    struct passwd entry;
    struct passwd* found = nullptr;
    int error;
    while ((error = ::getpwnam_r(user, &entry, buffer.data(), buffer.size(), &found)) == ERANGE &&
           buffer.size() < (1u << 20)) {
        buffer.resize(buffer.size() * 2);
    }
    int result = -1;
    if (found == nullptr) {
        errno = error != 0 ? error : ENOENT;
    } else {
        uid_t ruid, euid, suid;
        gid_t rgid, egid, sgid;
        bool const already = ::getresuid(&ruid, &euid, &suid) == 0 &&
                             ::getresgid(&rgid, &egid, &sgid) == 0 && ruid == entry.pw_uid &&
                             euid == entry.pw_uid && suid == entry.pw_uid && rgid == entry.pw_gid &&
                             egid == entry.pw_gid && sgid == entry.pw_gid;
        if (already && euid != 0) {
            // Nothing to change, and an ordinary user may not set its groups.
            result = 0;
        } else if (::initgroups(user, entry.pw_gid) == 0 && ::setgid(entry.pw_gid) == 0 &&
                   ::setuid(entry.pw_uid) == 0) {
            result = 0;
        }
    }
    int const saved = errno;
    utf8free(user);
    errno = saved;
    return result;
}

int set_fd_limit(int limit) {
    if (limit < 0) {
        errno = EINVAL;
        return -1;
    }
    struct rlimit current;
    if (::getrlimit(RLIMIT_NOFILE, &current) != 0) {
        return -1;
    }
    rlim_t const wanted = static_cast<rlim_t>(limit);
    if (current.rlim_cur == RLIM_INFINITY || current.rlim_cur >= wanted) {
        return 0;
    }
    struct rlimit raised = current;
    raised.rlim_cur =
        current.rlim_max == RLIM_INFINITY ? wanted : std::min(wanted, current.rlim_max);
    if (raised.rlim_cur == current.rlim_cur) {
        return 0;  // already at the hard limit
    }
    return ::setrlimit(RLIMIT_NOFILE, &raised) == 0 ? 0 : -1;
}

// ---------------------------------------------------------------------------
// Bounded strings.

size_t strlcpy(char* target, const char* source, size_t size) {
    return lcpy(target, source, size);
}

size_t strlcpy(wchar_t* target, const wchar_t* source, size_t size) {
    return lcpy(target, source, size);
}

size_t strlncpy(char* target, const char* source, size_t size, size_t count) {
    return lncpy(target, source, size, count);
}

size_t strlncpy(wchar_t* target, const wchar_t* source, size_t size, size_t count) {
    return lncpy(target, source, size, count);
}

char* strcpy(char* target, const char* source, size_t size) {
    return wholeCopy(target, source, size, static_cast<size_t>(-1));
}

wchar_t* strcpy(wchar_t* target, const wchar_t* source, size_t size) {
    return wholeCopy(target, source, size, static_cast<size_t>(-1));
}

char* strncpy(char* target, const char* source, size_t size, size_t count) {
    return wholeCopy(target, source, size, count);
}

size_t strlen(const char* text, size_t limit) {
    return text != nullptr ? boundedLength(text, limit) : 0;
}

size_t strlen(const wchar_t* text, size_t limit) {
    return text != nullptr ? boundedLength(text, limit) : 0;
}

char* strcat(char* target, const char* source, size_t size) {
    return boundedAppend(target, source, size, static_cast<size_t>(-1));
}

wchar_t* strcat(wchar_t* target, const wchar_t* source, size_t size) {
    return boundedAppend(target, source, size, static_cast<size_t>(-1));
}

char* strncat(char* target, const char* source, size_t size, size_t count) {
    return boundedAppend(target, source, size, count);
}

wchar_t* strncat(wchar_t* target, const wchar_t* source, size_t size, size_t count) {
    return boundedAppend(target, source, size, count);
}

// ---------------------------------------------------------------------------
// UTF-8.

char* wcstoutf8_malloced(const wchar_t* source) {
    if (source == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    size_t length;
    if (!utf8Length(source, length)) {
        return nullptr;
    }
    char* target = static_cast<char*>(std::malloc(length + 1));
    if (target == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    encodeUTF8(target, source);
    return target;
}

wchar_t* utf8towcs_malloced(const char* source) {
    if (source == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    size_t length;
    if (!wideLength(source, length)) {
        return nullptr;
    }
    wchar_t* target = static_cast<wchar_t*>(std::malloc((length + 1) * sizeof(wchar_t)));
    if (target == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    decodeToWide(target, source);
    return target;
}

bool wcstoutf8(const wchar_t* source, std::string& out) {
    char* const converted = wcstoutf8_malloced(source);
    if (converted == nullptr)
        return false;
    out = converted;
    utf8free(converted);
    return true;
}

bool utf8towcs(const char* source, std::wstring& out) {
    wchar_t* const converted = utf8towcs_malloced(source);
    if (converted == nullptr)
        return false;
    out = converted;
    wcsfree(converted);
    return true;
}

void wcsfree(wchar_t* text) {
    std::free(text);
}

void utf8free(char* text) {
    std::free(text);
}

int wcstoutf8_buf(char* target, const wchar_t* source, size_t size) {
    if (target == nullptr || source == nullptr) {
        errno = EINVAL;
        return 0;
    }
    size_t length;
    bool const valid = utf8Length(source, length);
    if (valid && length < size) {
        encodeUTF8(target, source);
        return 1;
    }
    if (valid) {
        errno = ERANGE;
    }
    if (size > 0) {
        target[0] = '\0';
    }
    return 0;
}

int utf8towcs_buf(wchar_t* target, const char* source, size_t size) {
    if (target == nullptr || source == nullptr) {
        errno = EINVAL;
        return 0;
    }
    size_t length;
    bool const valid = wideLength(source, length);
    if (valid && length < size) {
        decodeToWide(target, source);
        return 1;
    }
    if (valid) {
        errno = ERANGE;
    }
    if (size > 0) {
        target[0] = L'\0';
    }
    return 0;
}

bool isValidUTF8(const char* text, size_t size) {
    if (text == nullptr) {
        return false;
    }
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
    size_t done = 0;
    while (done < size && p[done] != 0) {
        uint32_t cp;
        size_t const n = decodeUTF8(p + done, size - done, cp);
        if (n == 0) {
            return false;
        }
        done += n;
    }
    return true;
}

// ---------------------------------------------------------------------------
// Base64.

int Base64Encode(const char* data, size_t size, char* target, size_t target_size) {
    size = clampSize(size);
    target_size = clampSize(target_size);
    if ((data == nullptr && size > 0) || target == nullptr) {
        errno = EINVAL;
        return -1;
    }
    size_t const length = (size + 2) / 3 * 4;
    if (length > static_cast<size_t>(INT_MAX)) {
        errno = EOVERFLOW;
        return -1;
    }
    if (length >= target_size) {
        if (target_size > 0) {
            target[0] = '\0';
        }
        errno = ERANGE;
        return -1;
    }
    const unsigned char* in = reinterpret_cast<const unsigned char*>(data);
    unsigned char* out = reinterpret_cast<unsigned char*>(target);
    // Each call terminates its output, which the next one writes over.
    for (size_t done = 0; done < size;) {
        size_t const chunk = std::min(size - done, kEncodeChunk);
        EVP_EncodeBlock(out + done / 3 * 4, in + done, static_cast<int>(chunk));
        done += chunk;
    }
    target[length] = '\0';
    return static_cast<int>(length);
}

int Base64Decode(const char* text, char* target, size_t target_size) {
    target_size = clampSize(target_size);
    if (text == nullptr || target == nullptr) {
        errno = EINVAL;
        return -1;
    }
    size_t const length = std::strlen(text);
    int const padding = checkBase64(text, length);
    if (padding < 0) {
        errno = EINVAL;
        return -1;
    }
    size_t const decoded = length / 4 * 3 - static_cast<size_t>(padding);
    if (decoded > static_cast<size_t>(INT_MAX)) {
        errno = EOVERFLOW;
        return -1;
    }
    if (decoded > target_size) {
        errno = ERANGE;
        return -1;
    }
    if (!decodeChecked(text, length, padding, reinterpret_cast<unsigned char*>(target))) {
        errno = EINVAL;
        return -1;
    }
    return static_cast<int>(decoded);
}

// ---------------------------------------------------------------------------
// Stored passwords.

int EncodePassword(const char* text, char* target, size_t target_size) {
    target_size = clampSize(target_size);
    if (text == nullptr || target == nullptr) {
        errno = EINVAL;
        return -1;
    }
    size_t const length = std::strlen(text);
    size_t const payload = kPasswordCheckBytes + length;
    size_t const stored = kPasswordPrefixLength + (payload + 2) / 3 * 4;
    if (stored > static_cast<size_t>(INT_MAX)) {
        errno = EOVERFLOW;
        return -1;
    }
    if (stored >= target_size) {
        if (target_size > 0) {
            target[0] = '\0';
        }
        errno = ERANGE;
        return -1;
    }
    std::vector<unsigned char> data;
    try {
        data.resize(payload);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
    const unsigned char* password = reinterpret_cast<const unsigned char*>(text);
    storeCheck(passwordCheck(password, length), data.data());
    std::copy(password, password + length, data.begin() + kPasswordCheckBytes);
    obfuscate(data);
    std::memcpy(target, kPasswordPrefix, kPasswordPrefixLength);
    int const encoded =
        Base64Encode(reinterpret_cast<const char*>(data.data()), data.size(),
                     target + kPasswordPrefixLength, target_size - kPasswordPrefixLength);
    wipe(data);
    if (encoded < 0) {
        target[0] = '\0';
        return -1;
    }
    return static_cast<int>(kPasswordPrefixLength) + encoded;
}

int DecodePassword(const char* text, char* target, size_t target_size) {
    target_size = clampSize(target_size);
    if (text == nullptr || target == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (std::strncmp(text, kPasswordPrefix, kPasswordPrefixLength) != 0) {
        errno = EINVAL;
        return -1;
    }
    const char* encoded = text + kPasswordPrefixLength;
    size_t const length = std::strlen(encoded);
    std::vector<unsigned char> data;
    try {
        data.resize(length / 4 * 3);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
    int const decoded = Base64Decode(encoded, reinterpret_cast<char*>(data.data()), data.size());
    if (decoded < static_cast<int>(kPasswordCheckBytes)) {
        wipe(data);
        errno = EINVAL;
        return -1;
    }
    data.resize(static_cast<size_t>(decoded));
    obfuscate(data);
    const unsigned char* password = data.data() + kPasswordCheckBytes;
    size_t const password_length = data.size() - kPasswordCheckBytes;
    unsigned char check[kPasswordCheckBytes];
    storeCheck(passwordCheck(password, password_length), check);
    bool const intact =
        std::memcmp(check, data.data(), kPasswordCheckBytes) == 0 &&
        std::find(password, password + password_length, 0) == password + password_length;
    int result = -1;
    if (!intact) {
        errno = EINVAL;
    } else if (password_length >= target_size) {
        if (target_size > 0) {
            target[0] = '\0';
        }
        errno = ERANGE;
    } else {
        std::memcpy(target, password, password_length);
        target[password_length] = '\0';
        result = static_cast<int>(password_length);
    }
    wipe(data);
    return result;
}

// ---------------------------------------------------------------------------
// Random.

uint32_t Random() {
    static RandomSeeder seeder;
    uint64_t z = g_randomState.fetch_add(kGoldenGamma, std::memory_order_relaxed) + kGoldenGamma;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    z ^= z >> 31;
    return static_cast<uint32_t>(z >> 32);
}

// ===========================================================================
// Application paths: checks of the directories that the configuration names.

namespace {

// The value of a setting, copied under the lock of the configuration (a
// reload on another thread may replace the stored one). False when the
// setting has no value.
bool configuredValue(const wchar_t* key, std::wstring& out) {
    Configuration* config = getConfigSingleton();
    if (config == nullptr)
        return false;
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, config->lock(), false);
    const wchar_t* const value = config->asString(key);
    if (value == nullptr)
        return false;
    out = value;
    return true;
}

}  // namespace

int check_path(const wchar_t* key) {
    if (key == nullptr) {
        errno = EINVAL;
        return -1;
    }
    std::wstring value;
    if (!configuredValue(key, value)) {
        TW_LOG(
            "%D ERROR (%t): Configuration setting '%W' not set. Please check your "
            "configuration\n",
            key);
        return -1;
    }
    if (!Path::IsDirectory(value.c_str())) {
        TW_LOG("%D ERROR (%t): Path '%W' does not exist or is not a directory.\n", value.c_str());
        return -1;
    }
    return 0;
}

int validate_all_application_paths() {
    static const wchar_t* const keys[] = {L"log", L"var", L"pid", L"rtdir", L"temp"};
    for (const wchar_t* key : keys) {
        if (check_path(key) == -1)
            return -1;
    }
    return 0;
}

int createPathsFromConfig(const wchar_t** keys) {
    if (keys == nullptr)
        return 0;
    for (; *keys != nullptr; ++keys) {
        if (check_path(*keys) == 0)
            continue;
        std::wstring value;
        if (!configuredValue(*keys, value))
            continue;
        TW_LOG("%D INFO  (%t): Creating directory %W.\n", value.c_str());
        if (Path::MkTree(value.c_str(), 0700) == -1)
            return -1;
    }
    return 0;
}

}  // namespace Tarnwick
