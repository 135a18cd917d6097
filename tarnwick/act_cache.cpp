#include <tarnwick/act_cache.h>
#include <tarnwick/log.h>
#include <tarnwick/path.h>
#include <tarnwick/random.h>

#include <ace/Guard_T.h>
#include <ace/Singleton.h>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <random>

namespace Tarnwick {

namespace {

// Names the spill directory after the kind of program (see setTypeReader).
std::atomic<ACT_Cache::TypeReader> type_reader(nullptr);

}  // namespace

namespace {

// The capacity of lists made from now on.
std::atomic<size_t> newCapacity(ACT_List::Default_Capacity);

// The key of the token hash, drawn once per process: a peer that can't know
// it can't pick tokens that all fall into one bucket.
uint64_t hashSeed() {
    static uint64_t const seed = [] {
        uint64_t value = 0;
        try {
            std::random_device device;
            value = (static_cast<uint64_t>(device()) << 32) ^ device();
        } catch (...) {
        }
        value ^= static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
        value ^= static_cast<uint64_t>(::getpid()) << 40;
        return value;
    }();
    return seed;
}

// The finalizer of splitmix64 over the keyed token.
size_t tokenHash(uint32_t token) {
    uint64_t x = hashSeed() ^ token;
    x += 0x9e3779b97f4a7c15ull;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
    return static_cast<size_t>(x ^ (x >> 31));
}

// Slots of the first table, and of the first ring.
const size_t FIRST_SLOTS = 16;
// A list that empties with a table larger than this gives its memory back.
const size_t KEPT_SLOTS = 1024;
const size_t NOT_FOUND = ~static_cast<size_t>(0);

// True when an entry whose home is `home` may stay at `at` after the slot
// `hole` before it was freed: its home lies cyclically in (hole, at].
bool staysAfter(size_t hole, size_t at, size_t home) {
    return hole <= at ? (hole < home && home <= at) : (hole < home || home <= at);
}

}  // namespace

// --- ACT_Index ------------------------------------------------------------------

ACT_Index::ACT_Index() : m_count(0) {}

ACT_Index::~ACT_Index() = default;

size_t ACT_Index::find(uint32_t token, Holder* out, size_t room) {
    ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
    if (token == 0 || m_count == 0)
        return 0;
    size_t const mask = m_slots.size() - 1;
    size_t found = 0;
    // Every pair of one token lies in the run that starts at its home slot.
    for (size_t i = tokenHash(token) & mask; m_slots[i].token != 0; i = (i + 1) & mask) {
        if (m_slots[i].token != token)
            continue;
        if (found < room)
            out[found] = Holder{m_slots[i].handler, m_slots[i].order};
        ++found;
    }
    return found;
}

size_t ACT_Index::size() {
    ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
    return m_count;
}

void ACT_Index::rehash(size_t slots) {
    std::vector<Entry> table(slots, Entry{nullptr, 0, 0});
    size_t const mask = slots - 1;
    for (const Entry& entry : m_slots) {
        if (entry.token == 0)
            continue;
        size_t i = tokenHash(entry.token) & mask;
        while (table[i].token != 0)
            i = (i + 1) & mask;
        table[i] = entry;
    }
    m_slots.swap(table);
}

void ACT_Index::insert(uint32_t token, const Holder& holder) {
    ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
    // At most half full, so that runs stay short.
    if ((m_count + 1) * 2 > m_slots.size())
        rehash(m_slots.empty() ? FIRST_SLOTS : m_slots.size() * 2);
    size_t const mask = m_slots.size() - 1;
    size_t i = tokenHash(token) & mask;
    while (m_slots[i].token != 0)
        i = (i + 1) & mask;
    m_slots[i] = Entry{holder.handler, holder.order, token};
    ++m_count;
}

void ACT_Index::erase(uint32_t token, Handler* handler) {
    ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
    if (m_count == 0)
        return;
    size_t const mask = m_slots.size() - 1;
    size_t hole = tokenHash(token) & mask;
    while (m_slots[hole].token != 0 &&
           (m_slots[hole].token != token || m_slots[hole].handler != handler))
        hole = (hole + 1) & mask;
    if (m_slots[hole].token == 0)
        return;
    // Backward shift: the entries after the hole that may not stay move
    // into it, so that no run has a gap and no tombstone is left.
    for (size_t at = (hole + 1) & mask; m_slots[at].token != 0; at = (at + 1) & mask) {
        if (staysAfter(hole, at, tokenHash(m_slots[at].token) & mask))
            continue;
        m_slots[hole] = m_slots[at];
        hole = at;
    }
    m_slots[hole].token = 0;
    --m_count;
    if (m_count * 8 < m_slots.size() && m_slots.size() > KEPT_SLOTS) {
        try {
            rehash(m_slots.size() / 2);
        } catch (...) {
            // Keeping the larger table is as good.
        }
    }
}

// --- ACT_List -------------------------------------------------------------------

ACT_List::ACT_List()
    : m_head(0),
      m_tail(0),
      m_count(0),
      m_capacity(newCapacity.load()),
      m_warned(false),
      m_index(nullptr),
      m_holder(nullptr),
      m_order(0) {}

ACT_List::~ACT_List() {
    detach();
}

size_t ACT_List::lookup(uint32_t token) const {
    if (m_table.empty())
        return NOT_FOUND;
    size_t const mask = m_table.size() - 1;
    for (size_t i = tokenHash(token) & mask; m_table[i].token != 0; i = (i + 1) & mask) {
        if (m_table[i].token == token)
            return i;
    }
    return NOT_FOUND;
}

void ACT_List::reserveOne() {
    // The table stays at most half full.
    if ((m_count + 1) * 2 > m_table.size()) {
        size_t const slots = m_table.empty() ? FIRST_SLOTS : m_table.size() * 2;
        std::vector<Slot> table(slots, Slot{0, 0});
        size_t const mask = slots - 1;
        for (const Slot& slot : m_table) {
            if (slot.token == 0)
                continue;
            size_t i = tokenHash(slot.token) & mask;
            while (table[i].token != 0)
                i = (i + 1) & mask;
            table[i] = slot;
        }
        m_table.swap(table);
    }
    // A full ring is compacted (holes left by removals go) when at most half
    // of it is live, else doubled: either way each token moves a bounded
    // number of times on average.
    if (m_tail - m_head == m_ring.size()) {
        size_t const places = m_ring.empty()                 ? FIRST_SLOTS
                              : m_count * 2 <= m_ring.size() ? m_ring.size()
                                                             : m_ring.size() * 2;
        std::vector<uint32_t> ring(places, 0);
        size_t const old_mask = m_ring.size() - 1;
        size_t next = 0;
        for (size_t at = m_head; at != m_tail; ++at) {
            uint32_t const token = m_ring[at & old_mask];
            if (token == 0)
                continue;
            m_table[lookup(token)].place = static_cast<uint32_t>(next);
            ring[next++] = token;
        }
        m_ring.swap(ring);
        m_head = 0;
        m_tail = next;
    }
}

void ACT_List::erase(size_t slot) {
    uint32_t const token = m_table[slot].token;
    m_ring[m_table[slot].place] = 0;
    size_t const mask = m_table.size() - 1;
    size_t hole = slot;
    for (size_t at = (hole + 1) & mask; m_table[at].token != 0; at = (at + 1) & mask) {
        if (staysAfter(hole, at, tokenHash(m_table[at].token) & mask))
            continue;
        m_table[hole] = m_table[at];
        hole = at;
    }
    m_table[hole].token = 0;
    --m_count;
    if (m_index != nullptr)
        m_index->erase(token, m_holder);
    // The ends of the ring always hold a token, so that the oldest is at
    // hand; each hole is stepped over once.
    size_t const ring_mask = m_ring.size() - 1;
    while (m_head != m_tail && m_ring[m_head & ring_mask] == 0)
        ++m_head;
    while (m_tail != m_head && m_ring[(m_tail - 1) & ring_mask] == 0)
        --m_tail;
    if (m_count == 0 && m_table.size() > KEPT_SLOTS) {
        std::vector<Slot>().swap(m_table);
        std::vector<uint32_t>().swap(m_ring);
        m_head = m_tail = 0;
    }
}

bool ACT_List::trim(size_t limit) {
    bool evicted = false;
    while (m_count > limit) {
        erase(lookup(m_ring[m_head & (m_ring.size() - 1)]));
        evicted = true;
    }
    return evicted;
}

void ACT_List::warnEvicted(bool first) {
    if (first)
        TW_LOG(
            "%D WARN  (%t): More than %d open tokens on one connection: the oldest are "
            "forgotten\n",
            static_cast<int>(capacity()));
}

int ACT_List::add(uint32_t token, bool* added) {
    if (added != nullptr)
        *added = false;
    if (token == 0)
        return 0;
    bool first = false;
    {
        ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
        if (!guard.locked())
            return -1;
        if (lookup(token) != NOT_FOUND)
            return 0;
        if (trim(m_capacity - 1) && !m_warned)
            first = m_warned = true;
        try {
            reserveOne();
            if (m_index != nullptr)
                m_index->insert(token, ACT_Index::Holder{m_holder, m_order});
        } catch (...) {
            errno = ENOMEM;
            return -1;
        }
        size_t const place = m_tail & (m_ring.size() - 1);
        m_ring[place] = token;
        ++m_tail;
        size_t const mask = m_table.size() - 1;
        size_t i = tokenHash(token) & mask;
        while (m_table[i].token != 0)
            i = (i + 1) & mask;
        m_table[i] = Slot{token, static_cast<uint32_t>(place)};
        ++m_count;
        if (added != nullptr)
            *added = true;
    }
    warnEvicted(first);
    return 0;
}

int ACT_List::remove(uint32_t token) {
    ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
    if (!guard.locked())
        return -1;
    if (token == 0)
        return 0;
    size_t const slot = lookup(token);
    if (slot != NOT_FOUND)
        erase(slot);
    return 0;
}

bool ACT_List::contains(uint32_t token) {
    ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
    if (!guard.locked())
        return false;
    return token != 0 && lookup(token) != NOT_FOUND;
}

size_t ACT_List::size() {
    ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
    return m_count;
}

size_t ACT_List::capacity() {
    ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
    return m_capacity;
}

void ACT_List::setCapacity(size_t capacity) {
    bool first = false;
    {
        ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
        if (!guard.locked())
            return;
        m_capacity = capacity == 0 ? 1 : capacity;
        if (trim(m_capacity) && !m_warned)
            first = m_warned = true;
    }
    warnEvicted(first);
}

void ACT_List::setNewListCapacity(size_t capacity) {
    newCapacity.store(capacity == 0 ? 1 : capacity);
}

size_t ACT_List::newListCapacity() {
    return newCapacity.load();
}

int ACT_List::attach(ACT_Index* index, Handler* handler, uint64_t order) {
    ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
    if (!guard.locked())
        return -1;
    if (index == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (m_index == index)
        return 0;
    if (m_index != nullptr) {
        errno = EBUSY;
        return -1;
    }
    size_t const mask = m_ring.size() - 1;
    size_t at = m_head;
    try {
        for (; at != m_tail; ++at) {
            uint32_t const token = m_ring[at & mask];
            if (token != 0)
                index->insert(token, ACT_Index::Holder{handler, order});
        }
    } catch (...) {
        // Take back what went in.
        for (size_t back = m_head; back != at; ++back) {
            uint32_t const token = m_ring[back & mask];
            if (token != 0)
                index->erase(token, handler);
        }
        errno = ENOMEM;
        return -1;
    }
    m_index = index;
    m_holder = handler;
    m_order = order;
    return 0;
}

void ACT_List::detach() {
    ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
    if (m_index == nullptr)
        return;
    size_t const mask = m_ring.size() - 1;
    for (size_t at = m_head; at != m_tail; ++at) {
        uint32_t const token = m_ring[at & mask];
        if (token != 0)
            m_index->erase(token, m_holder);
    }
    m_index = nullptr;
    m_holder = nullptr;
    m_order = 0;
}

bool ACT_List::attachedTo(const ACT_Index* index) {
    ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
    return index != nullptr && m_index == index;
}

namespace {

const char SPILL_PREFIX[] = "event-";
const char SPILL_SUFFIX[] = ".dat";
// Attempts at a fresh name before create() gives up on EEXIST.
const int CREATE_ATTEMPTS = 16;

// The bare name of a spill file of `token`: the pid tells sweep() whose file
// it is, the serial keeps two files of one process apart.
std::string spillName(uint32_t token, uint32_t serial) {
    char text[16];
    std::snprintf(text, sizeof text, "%08x", serial);
    return SPILL_PREFIX + std::to_string(token) + "-" + std::to_string(::getpid()) + "-" + text +
           SPILL_SUFFIX;
}

// Skips a run of decimal digits at `text`; false when there is none.
bool skipDigits(const char*& text, uint64_t& value) {
    const char* start = text;
    value = 0;
    while (*text >= '0' && *text <= '9' && text - start < 11) {
        value = value * 10 + static_cast<uint64_t>(*text - '0');
        ++text;
    }
    return text != start && !(*text >= '0' && *text <= '9');
}

// The owning pid of a spill file name "event-<token>-<pid>-<random>.dat", or
// 0 when `name` is not such a name.
pid_t spillOwner(const char* name) {
    size_t const prefix = sizeof SPILL_PREFIX - 1;
    size_t const suffix = sizeof SPILL_SUFFIX - 1;
    size_t const length = std::strlen(name);
    if (length <= prefix + suffix || std::strncmp(name, SPILL_PREFIX, prefix) != 0 ||
        std::strcmp(name + length - suffix, SPILL_SUFFIX) != 0) {
        return 0;
    }
    const char* text = name + prefix;
    uint64_t token = 0;
    uint64_t pid = 0;
    if (!skipDigits(text, token) || *text++ != '-' || !skipDigits(text, pid) || *text++ != '-')
        return 0;
    const char* const end = name + length - suffix;
    if (text == end)
        return 0;
    for (; text < end; ++text) {
        if (!std::isxdigit(static_cast<unsigned char>(*text)))
            return 0;
    }
    return pid > 0 && pid <= static_cast<uint64_t>(INT_MAX) ? static_cast<pid_t>(pid) : 0;
}

// Whoever owns the cache directory or may write to it can plant names in it
// and read what peers sent: only a private directory of our own will do.
// True, after logging why and with errno set, when `info` (of `directory`,
// not followed) is not such a one; otherwise false with errno 0.
bool unsafeDirectory(const std::string& directory, const struct stat& info) {
    if (S_ISLNK(info.st_mode)) {
        TW_LOG("%D ERROR (%t): Event cache directory %C is a symbolic link.\n", directory.c_str());
        errno = ELOOP;
        return true;
    }
    if (info.st_uid != ::geteuid()) {
        TW_LOG("%D ERROR (%t): Event cache directory %C is owned by user %u, not by user %u.\n",
               directory.c_str(), static_cast<unsigned>(info.st_uid),
               static_cast<unsigned>(::geteuid()));
        errno = EACCES;
        return true;
    }
    if ((info.st_mode & 077) != 0) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(info.st_mode & 07777));
        TW_LOG("%D ERROR (%t): Event cache directory %C is open to group or others (mode %C).\n",
               directory.c_str(), mode);
        errno = EACCES;
        return true;
    }
    errno = 0;
    return false;
}

}  // namespace

ACT_Cache::ACT_Cache() : m_dirfd(-1), m_serial(Random()), m_quota(DEFAULT_QUOTA), m_spilled(0) {}

ACT_Cache::~ACT_Cache() {
    if (m_dirfd != -1)
        ::close(m_dirfd);
}

ACT_Cache* ACT_Cache::instance() {
    return ACE_Singleton<ACT_Cache, ACE_Thread_Mutex>::instance();
}

int ACT_Cache::prepare() {
    ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
    return prepareLocked();
}

void ACT_Cache::setTypeReader(TypeReader reader) {
    type_reader = reader;
}

int ACT_Cache::prepareLocked() {
    if (!m_directory.empty())
        return 0;
    std::string directory;
    if (Path::TempPath(directory) == -1)
        return -1;
    Path::Join(directory, "event-cache");
    TypeReader const reader = type_reader.load();
    const char* const type = reader != nullptr ? reader() : nullptr;
    Path::Join(directory, type != nullptr ? type : "unknown");
    struct stat info;
    bool const link = ::lstat(directory.c_str(), &info) == 0 && S_ISLNK(info.st_mode);
    if (!link && !Path::IsDirectory(directory) && Path::MkTree(directory, 0700) == -1) {
        TW_LOG("%D ERROR (%t): Can not make directory %C: %m\n", directory.c_str());
        return 0;
    }

    // The directory is held open from here on, and files are made relative
    // to it, so that it can't be swapped for another once checked.
    int const fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    int const error = errno;
    if (fd != -1 ? ::fstat(fd, &info) == -1 : ::lstat(directory.c_str(), &info) == -1) {
        TW_LOG("%D ERROR (%t): Can not make directory %C: %m\n", directory.c_str());
        if (fd != -1)
            ::close(fd);
        return 0;
    }
    if (unsafeDirectory(directory, info) || fd == -1) {
        if (fd == -1 && errno == 0) {
            errno = error;
            TW_LOG("%D ERROR (%t): Can not make directory %C: %m\n", directory.c_str());
            return 0;
        }
        if (fd != -1)
            ::close(fd);
        return -1;
    }

    TW_LOG("%D DEBUG (%t): Events with a large payload will be cached in %C\n", directory.c_str());
    m_directory = directory;
    m_dirfd = fd;
    return 0;
}

int ACT_Cache::path(uint32_t token, std::string& file) {
    ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
    if (prepareLocked() == -1 || token == 0)
        return -1;
    file = m_directory;
    Path::Join(file, spillName(token, m_serial++).c_str());
    return 0;
}

int ACT_Cache::create(uint32_t token, std::string& file) {
    std::string directory;
    int dirfd;
    {
        ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
        if (prepareLocked() == -1)
            return -1;
        directory = m_directory;
        dirfd = m_dirfd;
    }
    if (token == 0) {
        errno = EINVAL;
        return -1;
    }
    int const flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    for (int attempt = 0; attempt < CREATE_ATTEMPTS; ++attempt) {
        std::string const name = spillName(token, m_serial++);
        int const fd = dirfd != -1 ? ::openat(dirfd, name.c_str(), flags, 0600)
                                   : ::open(name.c_str(), flags, 0600);
        if (fd != -1) {
            file = directory;
            Path::Join(file, name.c_str());
            return fd;
        }
        if (errno != EEXIST)
            return -1;
    }
    return -1;
}

int ACT_Cache::sweep() {
    int dirfd;
    {
        ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
        if (prepareLocked() == -1)
            return -1;
        dirfd = m_dirfd;
    }
    if (dirfd == -1)
        return 0;
    // A descriptor of its own, so the listing starts at the beginning.
    int const listing = ::openat(dirfd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* dir = listing != -1 ? ::fdopendir(listing) : nullptr;
    if (dir == nullptr) {
        if (listing != -1)
            ::close(listing);
        return -1;
    }
    int removed = 0;
    pid_t const self = ::getpid();
    while (dirent* entry = ::readdir(dir)) {
        pid_t const owner = spillOwner(entry->d_name);
        if (owner == 0 || owner == self)
            continue;
        // EPERM means the process lives under another user: keep its file.
        if (::kill(owner, 0) == 0 || errno != ESRCH)
            continue;
        if (::unlinkat(dirfd, entry->d_name, 0) == 0) {
            ++removed;
            TW_LOG("%D DEBUG (%t): Removed spill file %C of ended process %d\n", entry->d_name,
                   static_cast<int>(owner));
        }
    }
    ::closedir(dir);
    return removed;
}

uint64_t ACT_Cache::setQuota(uint64_t bytes) {
    return m_quota.exchange(bytes);
}

uint64_t ACT_Cache::quota() const {
    return m_quota.load();
}

uint64_t ACT_Cache::spilledBytes() const {
    return m_spilled.load();
}

int ACT_Cache::charge(uint64_t bytes) {
    uint64_t current = m_spilled.load();
    for (;;) {
        uint64_t const limit = m_quota.load();
        if (bytes > limit || current > limit - bytes) {
            TW_LOG("%D ERROR (%t): Event cache quota of %Q bytes exceeded.\n",
                   static_cast<ACE_UINT64>(limit));
            errno = ENOSPC;
            return -1;
        }
        if (m_spilled.compare_exchange_weak(current, current + bytes))
            return 0;
    }
}

void ACT_Cache::refund(uint64_t bytes) {
    m_spilled.fetch_sub(bytes);
}

}  // namespace Tarnwick
