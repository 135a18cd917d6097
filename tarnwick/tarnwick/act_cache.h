// Completion tokens (ACT): the open requests of a connection, and the event
// cache where payloads too large for memory are kept, by token.
#pragma once

#include <tarnwick/export.h>

#include <ace/Thread_Mutex.h>
#include <ace/Unbounded_Set.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Tarnwick {

class Handler;
class ACT_List;

// Which connections hold which tokens, for a router that must find the
// connections holding a token without asking every one of them. The index is
// kept by the lists themselves (ACT_List::attach): every token that enters or
// leaves an attached list, by add, remove, eviction at capacity or detach,
// enters or leaves the index in the same step, under the list's mutex. The
// index's own mutex is taken inside a list's mutex, never the other way
// round. Lookups take constant time whatever the number of connections.
class TARNWICK_EXPORT ACT_Index {
public:
    // A connection holding a token, with the order that it was attached
    // with (a router's registration order).
    struct Holder {
        Handler* handler;
        uint64_t order;
    };

    ACT_Index();
    ~ACT_Index();
    ACT_Index(const ACT_Index&) = delete;
    ACT_Index& operator=(const ACT_Index&) = delete;

    // Copies up to `room` holders of `token` to `out`, in no particular
    // order, and returns how many there are in all (more than `room` means
    // that some were not copied).
    size_t find(uint32_t token, Holder* out, size_t room);
    // The number of (token, connection) pairs held.
    size_t size();

private:
    friend class ACT_List;
    struct Entry {
        Handler* handler;
        uint64_t order;
        uint32_t token;  // 0: a free slot
    };

    // Enters a pair that is not in the index yet. May throw std::bad_alloc,
    // and then nothing changed.
    void insert(uint32_t token, const Holder& holder);
    // Takes the pair out if it is there. Never throws.
    void erase(uint32_t token, Handler* handler);
    // Moves every entry into a table of `slots` slots (a power of two).
    void rehash(size_t slots);

    std::vector<Entry> m_slots;  // open addressing, linear probing
    size_t m_count;
    ACE_Thread_Mutex m_mutex;
};

// The open tokens of one connection in one direction: tokens of requests
// that arrived on it (source) or were sent out on it (target). A request and
// its reply carry the same token, so a reply finds its way back by asking
// which connection holds its token. Each list has its own mutex.
//
// add, remove and contains take constant time (a flat hash table, keyed with
// a per-process random seed so that a peer can't choose colliding tokens,
// beside a ring of the tokens in their order of arrival). A list holds at
// most capacity() tokens: tokens of requests that are never answered (a peer
// that asks and goes on asking, broadcasts, messages that were dropped) would
// otherwise pile up for the life of the connection. When the list is full,
// adding a new token forgets the oldest one: a reply to it that comes later
// finds no way back, as after a closed connection. The first such eviction
// of a list logs one warning; later ones log nothing. Token 0 means "no
// token" and is never stored.
class TARNWICK_EXPORT ACT_List {
public:
    // The capacity of a list unless changed: 65536 tokens.
    static constexpr size_t Default_Capacity = 65536;

    // An empty list with the capacity that setNewListCapacity last set
    // (Default_Capacity unless changed).
    ACT_List();
    // Leaves the index that the list is attached to, if any.
    ~ACT_List();
    ACT_List(const ACT_List&) = delete;
    ACT_List& operator=(const ACT_List&) = delete;

    // Adds the token unless it is there (a token that is there keeps its
    // place in the order of eviction); when the list is full, the oldest
    // token goes first. 0, also for token 0, which is not stored; -1 when the
    // mutex can't be had or memory fails (errno ENOMEM). With `added`, tells
    // whether this call stored the token (false when it was there).
    int add(uint32_t token, bool* added = nullptr);
    // Removes the token if it is there. 0, or -1 when the mutex can't be had.
    int remove(uint32_t token);
    // False also when the mutex can't be had.
    bool contains(uint32_t token);
    // The number of open tokens.
    size_t size();

    // The most tokens this list holds.
    size_t capacity();
    // Changes this list's capacity (at least 1; 0 counts as 1). Tokens above
    // a smaller capacity are evicted at once, oldest first.
    void setCapacity(size_t capacity);
    // The capacity of lists made from now on (at least 1; 0 counts as 1).
    // Lists that exist keep theirs. For tests and for programs that expect
    // more open requests on one connection.
    static void setNewListCapacity(size_t capacity);
    static size_t newListCapacity();

private:
    friend class Router;
    // Keeps `index` in step with this list from now on: the tokens in the
    // list are entered at once as held by `handler` with `order`, and every
    // token that enters or leaves the list later enters or leaves the index
    // with it. 0; -1 when the list is kept in another index already (EBUSY)
    // or memory fails (ENOMEM), and then the index is as before. Attaching
    // to the index that the list is kept in already changes nothing (0).
    [[nodiscard]] int attach(ACT_Index* index, Handler* handler, uint64_t order);
    // Takes the list's tokens out of its index and stops keeping it there.
    // Nothing when the list is kept in no index.
    void detach();
    // True when the list is kept in `index`.
    bool attachedTo(const ACT_Index* index);

    // A token and its place in the ring; token 0 marks a free slot.
    struct Slot {
        uint32_t token;
        uint32_t place;
    };

    // The slot of `token` in the table, or NOT_FOUND.
    size_t lookup(uint32_t token) const;
    // Makes room for one more token in the table and the ring. May throw
    // std::bad_alloc, and then nothing changed.
    void reserveOne();
    // Forgets the token in table slot `slot` (and tells the index). The
    // caller holds the mutex.
    void erase(size_t slot);
    // Evicts the oldest tokens down to `limit`; the caller holds the mutex.
    // True when anything went.
    bool trim(size_t limit);
    // Logs the first eviction of this list, once. Called without the mutex.
    void warnEvicted(bool evicted);

    std::vector<Slot> m_table;     // open addressing, linear probing; a power of two or empty
    std::vector<uint32_t> m_ring;  // tokens oldest first from m_head; 0 is a hole
    size_t m_head;                 // the ring position of the oldest token (or m_tail)
    size_t m_tail;                 // the ring position after the newest token
    size_t m_count;
    size_t m_capacity;
    bool m_warned;
    ACT_Index* m_index;  // kept in step with this list, or null
    Handler* m_holder;
    uint64_t m_order;
    ACE_Thread_Mutex m_mutex;
};

// The process-wide directory of spill files: <temp>/event-cache/<type>, with
// <temp> from Path::TempPath and <type> the kind of program (see
// setTypeReader; the process identity's type text), so
// that each kind of program on a machine has its own. The directory is made
// with mode 0700 and used only when it is a real directory (not a symbolic
// link) owned by the effective user and closed to group and others.
//
// Spill files are named by this process alone, never by a peer:
// "event-<token>-<pid>-<serial>.dat", where <serial> is 8 hex digits from a
// per-process sequence that starts at a random value. They are created
// exclusively with mode 0600 and never through a symbolic link. The pid in
// the name tells sweep() which files a process that has died left behind.
//
// The cache also keeps a process-wide quota: the bytes in the spill files of
// this process may not pass quota() (DEFAULT_QUOTA unless set). All
// operations may be called from any thread.
class TARNWICK_EXPORT ACT_Cache {
public:
    // Names the kind of program whose spill directory this is; installed by
    // the library when it loads (the process identity's type text). Without
    // a reader the directory is named "unknown".
    typedef const char* (*TypeReader)();
    static void setTypeReader(TypeReader reader);
    // The default spill quota: 4 GiB.
    static constexpr uint64_t DEFAULT_QUOTA = 4ull << 30;

    ACT_Cache();
    ~ACT_Cache();
    ACT_Cache(const ACT_Cache&) = delete;
    ACT_Cache& operator=(const ACT_Cache&) = delete;

    // The cache; null (errno ENOMEM) only without memory.
    static ACT_Cache* instance();

    // Makes the directory ready. -1 when the temporary directory can't be
    // found, or when the directory is refused (a symbolic link, another
    // owner, open to group or others: logged), so that nothing is spilled.
    // When the directory can't be made, that is logged and the result is 0
    // with no directory: the next use tries again, and files are made
    // without one (in the working directory).
    int prepare();
    // A new candidate name for a spill file of `token` into `file`: the
    // directory joined with "event-<token>-<pid>-<serial>.dat", taking the
    // next serial. -1 for token 0 or when prepare fails. The name is not
    // reserved; create() is the safe way to get a file.
    int path(uint32_t token, std::string& file);
    // Creates a new spill file of `token`, exclusively (O_EXCL, never
    // through a symbolic link, close-on-exec, mode 0600), opened for
    // reading and writing. Returns the descriptor, which the caller owns and
    // closes, with the path in `file`; -1 for token 0, when prepare fails or
    // when no file can be made (errno set, nothing logged). A name that is
    // taken, by a file or a symbolic link, is passed over for the next
    // serial.
    int create(uint32_t token, std::string& file);
    // Removes the spill files in the directory whose owning process has
    // ended (kill(pid, 0) fails with ESRCH): those of a process killed in a
    // transfer. Files of live processes, of this one and files whose name
    // carries no pid are kept. Returns the number removed, -1 when prepare
    // fails; 0 without a directory.
    int sweep();
    // The prepared directory, empty until then.
    const std::string& directory() const { return m_directory; }

    // The quota in bytes; sets it and returns the old one. A smaller quota
    // than spilledBytes() only stops further spills.
    uint64_t setQuota(uint64_t bytes);
    uint64_t quota() const;
    // The bytes now in spill files of this process (through the instance
    // that Message_Block uses, instance()).
    uint64_t spilledBytes() const;
    // Takes `bytes` from the quota before they are written. 0, or -1 with
    // errno ENOSPC and one logged error line when they would pass it; then
    // nothing is taken.
    int charge(uint64_t bytes);
    // Gives back bytes taken by charge(): written ones when their file is
    // deleted, unwritten ones after a failed write.
    void refund(uint64_t bytes);

private:
    // prepare() with m_lock held.
    int prepareLocked();

    std::string m_directory;
    int m_dirfd;                     // the directory, held open once checked; -1 until then
    std::atomic<uint32_t> m_serial;  // the next serial of a file name
    std::atomic<uint64_t> m_quota;
    std::atomic<uint64_t> m_spilled;
    ACE_Thread_Mutex m_lock;  // guards m_directory and m_dirfd while they are set
};

}  // namespace Tarnwick
