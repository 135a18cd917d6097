#include <tarnwick/act_cache.h>
#include <tarnwick/log.h>
#include <tarnwick/message_block.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ace/Malloc_Allocator.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

namespace Tarnwick {

namespace {

// The kinds of pieces kept on free lists: one list of each per thread.
enum Piece_Kind { MESSAGE_BLOCKS, DATA_BLOCKS, PAYLOAD_BLOCKS, PAYLOAD_DATA_BLOCKS, PIECE_KINDS };

// Pieces kept per thread and kind; more freed pieces go back to the heap.
// The AddressSanitizer build keeps none, so that it sees every release of a
// block and every use after it.
#if defined(__SANITIZE_ADDRESS__)
const size_t PIECES_KEPT = 0;
#else
const size_t PIECES_KEPT = 256;
#endif

struct Free_Piece {
    Free_Piece* next;
};

// Set when the thread's free lists are gone (the thread is ending): from
// then on pieces come from and go back to the heap. Plain data, so that it
// stays readable while the thread's other objects are destroyed.
thread_local bool free_lists_closed = false;

// The free lists of one thread; the kept pieces go back to the heap when the
// thread ends.
struct Free_Lists {
    Free_Piece* head[PIECE_KINDS] = {};
    size_t count[PIECE_KINDS] = {};

    Free_Lists() = default;
    Free_Lists(const Free_Lists&) = delete;
    Free_Lists& operator=(const Free_Lists&) = delete;
    ~Free_Lists() {
        free_lists_closed = true;
        for (int kind = 0; kind < PIECE_KINDS; ++kind) {
            while (Free_Piece* piece = head[kind]) {
                head[kind] = piece->next;
                std::free(piece);
            }
            count[kind] = 0;
        }
    }
};

thread_local Free_Lists free_lists;

// A piece of `size` bytes: one freed before on this thread, or a new one.
void* takePiece(Piece_Kind kind, size_t size) {
    if (free_lists_closed)
        return std::malloc(size);
    Free_Lists& lists = free_lists;
    Free_Piece* const piece = lists.head[kind];
    if (piece == nullptr)
        return std::malloc(size);
    lists.head[kind] = piece->next;
    --lists.count[kind];
    return piece;
}

// Keeps `memory` (a piece taken for `kind`) for the next takePiece() of
// this thread, or frees it.
void givePiece(Piece_Kind kind, void* memory) {
    if (memory == nullptr)
        return;
    if (PIECES_KEPT == 0 || free_lists_closed) {
        std::free(memory);
        return;
    }
    Free_Lists& lists = free_lists;
    if (lists.count[kind] >= PIECES_KEPT) {
        std::free(memory);
        return;
    }
    auto* const piece = static_cast<Free_Piece*>(memory);
    piece->next = lists.head[kind];
    lists.head[kind] = piece;
    ++lists.count[kind];
}

// An ACE allocator of pieces of one size from the free lists, for the data
// blocks and payload blocks of messages (ACE allocates and frees them
// through it). Larger requests fail.
class Piece_Allocator : public ACE_New_Allocator {
public:
    Piece_Allocator(Piece_Kind kind, size_t size) : m_kind(kind), m_size(size) {}
    Piece_Allocator(const Piece_Allocator&) = delete;
    Piece_Allocator& operator=(const Piece_Allocator&) = delete;

    void* malloc(size_t nbytes) override {
        if (nbytes > m_size) {
            errno = ENOMEM;
            return nullptr;
        }
        void* const memory = takePiece(m_kind, m_size);
        if (memory == nullptr)
            errno = ENOMEM;
        return memory;
    }
    void* calloc(size_t nbytes, char initial_value) override {
        void* const memory = malloc(nbytes);
        if (memory != nullptr)
            std::memset(memory, initial_value, nbytes);
        return memory;
    }
    void* calloc(size_t n_elem, size_t elem_size, char initial_value) override {
        if (elem_size != 0 && n_elem > m_size / elem_size) {
            errno = ENOMEM;
            return nullptr;
        }
        return calloc(n_elem * elem_size, initial_value);
    }
    void free(void* ptr) override { givePiece(m_kind, ptr); }

private:
    Piece_Kind m_kind;
    size_t m_size;
};

// The allocators live as long as the process (never destroyed: blocks may
// be released by other static objects' destructors).
Piece_Allocator* dataBlockAllocator() {
    static Piece_Allocator* const allocator = new Piece_Allocator(DATA_BLOCKS, sizeof(Data_Block));
    return allocator;
}

Piece_Allocator* payloadDataAllocator() {
    static Piece_Allocator* const allocator =
        new Piece_Allocator(PAYLOAD_DATA_BLOCKS, sizeof(ACE_Data_Block));
    return allocator;
}

// The data block of an in-memory payload: a plain buffer whose reference
// count, like a Data_Block's, is changed atomically (not under the locking
// strategy, which it carries all the same).
class Payload_Data : public ACE_Data_Block {
public:
    Payload_Data(size_t size, ACE_Lock* lock)
        : ACE_Data_Block(size, ACE_Message_Block::MB_DATA, nullptr, nullptr, lock, 0,
                         payloadDataAllocator()) {}

    void addReference() { __atomic_add_fetch(&reference_count_, 1, __ATOMIC_RELAXED); }
    bool dropReference() { return __atomic_sub_fetch(&reference_count_, 1, __ATOMIC_ACQ_REL) == 0; }
    // Ends a data block, as ACE does, through its allocator.
    static void destroy(ACE_Data_Block* data) {
        ACE_Allocator* const allocator = data->data_block_allocator();
        data->~ACE_Data_Block();
        allocator->free(data);
    }
};

// The continuation of a Message_Block that holds its payload in memory:
// duplicates share the buffer with read positions of their own, and come
// from and go back to the free lists without a lock.
class Payload_Block : public ACE_Message_Block {
public:
    explicit Payload_Block(ACE_Data_Block* data) : ACE_Message_Block(data, 0, nullptr) {}
    Payload_Block(const Payload_Block&) = delete;
    Payload_Block& operator=(const Payload_Block&) = delete;
    ~Payload_Block() override { dropData(); }

    // A new block with `size` bytes of room; null without memory.
    static Payload_Block* create(size_t size, ACE_Lock* lock) {
        void* const memory = payloadDataAllocator()->malloc(sizeof(Payload_Data));
        if (memory == nullptr)
            return nullptr;
        auto* const data = new (memory) Payload_Data(size, lock);
        auto* const block = new (std::nothrow) Payload_Block(data);
        if (block == nullptr) {
            Payload_Data::destroy(data);
            return nullptr;
        }
        return block;
    }

    ACE_Message_Block* duplicate() const override {
        auto* const data = static_cast<Payload_Data*>(data_block_);
        if (data == nullptr)
            return nullptr;
        data->addReference();
        auto* const copy = new (std::nothrow) Payload_Block(data);
        if (copy == nullptr) {
            // Never the last reference: this block holds one.
            (void)data->dropReference();
            return nullptr;
        }
        copy->rd_ptr_ = rd_ptr_;
        copy->wr_ptr_ = wr_ptr_;
        copy->priority_ = priority_;
        return copy;
    }

    ACE_Message_Block* release() override {
        if (cont_ != nullptr) {
            ACE_Message_Block* const next = cont_;
            cont_ = nullptr;
            next->release();
        }
        delete this;
        return nullptr;
    }

    static void* operator new(size_t size, const std::nothrow_t&) noexcept {
        if (size != sizeof(Payload_Block))
            return ::operator new(size, std::nothrow);
        return takePiece(PAYLOAD_BLOCKS, sizeof(Payload_Block));
    }
    static void operator delete(void* memory, size_t size) noexcept {
        if (size != sizeof(Payload_Block)) {
            ::operator delete(memory);
            return;
        }
        givePiece(PAYLOAD_BLOCKS, memory);
    }
    static void operator delete(void* memory, const std::nothrow_t&) noexcept {
        givePiece(PAYLOAD_BLOCKS, memory);
    }

private:
    void dropData() {
        auto* const data = static_cast<Payload_Data*>(data_block_);
        data_block_ = nullptr;
        if (data != nullptr && data->dropReference())
            Payload_Data::destroy(data);
    }
};

// Gives the event cache's quota back for the part of a charged write that
// did not reach the spill file; errno stays as the failed write left it.
void refundUnwritten(uint64_t charged, uint64_t written) {
    if (written >= charged)
        return;
    int const error = errno;
    ACT_Cache::instance()->refund(charged - written);
    errno = error;
}

const size_t HEADER_SIZE = sizeof(Message_Header);

// Closes a descriptor; a failed close only sets errno.
void closeKeepingErrno(ACE_HANDLE handle) {
    int const error = errno;
    if (::close(handle) == 0)
        errno = error;
}

// Logs a spill write that failed: at its first byte, or part way through.
void logWriteFailure(bool atFirstByte) {
    if (atFirstByte) {
        TW_LOG_ERRNO("%D ERROR (%t): Can not write payload data: write error.");
    } else {
        TW_LOG_ERRNO("%D ERROR (%t): Can not write payload data: only partially succeeded.");
    }
}

// Writes all of `data` to `fd`, counting the bytes written in `done`. 0, or
// -1 after logging why.
int writeAll(ACE_HANDLE fd, const char* data, size_t length, size_t& done) {
    done = 0;
    while (done < length) {
        ssize_t const n = ::write(fd, data + done, length - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            logWriteFailure(done == 0 && n < 0);
            return -1;
        }
        done += static_cast<size_t>(n);
    }
    return 0;
}

}  // namespace

// The header lies in the data block's own m_header (the base gets its
// address before the member exists; it is written in the body), which ACE
// must not free: DONT_DELETE.
Data_Block::Data_Block()
    : ACE_Data_Block(HEADER_SIZE, ACE_Message_Block::MB_DATA, m_header, nullptr,
                     Message_Block::LockingStrategy(), ACE_Message_Block::DONT_DELETE,
                     dataBlockAllocator()),
      m_handle(ACE_INVALID_HANDLE),
      m_writable(false),
      m_size(0),
      m_charged(0) {
    if (base() != nullptr && capacity() >= HEADER_SIZE)
        new (base()) Message_Header();
    set_flags(DATA_BLOCK_FLAG);
}

Data_Block::~Data_Block() {
    reset();
}

void Data_Block::set_handle(ACE_HANDLE handle) {
    replaceHandle(handle, false);
}

void Data_Block::setWriteHandle(ACE_HANDLE handle, uint64_t size) {
    replaceHandle(handle, true);
    m_size.store(size);
}

void Data_Block::replaceHandle(ACE_HANDLE handle, bool writable) {
    std::lock_guard<std::mutex> guard(m_handle_lock);
    if (m_handle != ACE_INVALID_HANDLE)
        closeKeepingErrno(m_handle);
    m_handle = handle;
    m_writable = writable;
}

ACE_HANDLE Data_Block::get_handle() {
    std::lock_guard<std::mutex> guard(m_handle_lock);
    if (m_handle == ACE_INVALID_HANDLE && !m_fileName.empty()) {
        ACE_HANDLE const handle = ::open(m_fileName.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        struct stat info;
        if (handle != ACE_INVALID_HANDLE) {
            if (::fstat(handle, &info) == -1) {
                closeKeepingErrno(handle);
                return ACE_INVALID_HANDLE;
            }
            m_size.store(static_cast<uint64_t>(info.st_size));
            m_handle = handle;
        }
    }
    return m_handle;
}

const char* Data_Block::getFileName() const {
    return m_fileName.empty() ? nullptr : m_fileName.c_str();
}

void Data_Block::setFileName(const char* name) {
    set_handle(ACE_INVALID_HANDLE);
    m_size.store(0);
    m_fileName = name != nullptr ? name : "";
}

int Data_Block::reset() {
    // Without a file nobody opens a descriptor (get_handle() needs a name),
    // so one that is not there now won't come: no lock to take.
    if (m_fileName.empty() && m_handle == ACE_INVALID_HANDLE) {
        m_size.store(0);
        return 0;
    }
    set_handle(ACE_INVALID_HANDLE);
    m_size.store(0);
    if (!m_fileName.empty()) {
        int const error = errno;
        ::unlink(m_fileName.c_str());
        m_fileName.clear();
        if (m_charged != 0) {
            if (ACT_Cache* cache = ACT_Cache::instance())
                cache->refund(m_charged);
            m_charged = 0;
        }
        errno = error;
    }
    return 0;
}

Data_Block* Data_Block::create() {
    void* memory = dataBlockAllocator()->malloc(sizeof(Data_Block));
    if (memory == nullptr)
        return nullptr;
    return new (memory) Data_Block();
}

void Data_Block::addReference() {
    __atomic_add_fetch(&reference_count_, 1, __ATOMIC_RELAXED);
}

bool Data_Block::dropReference() {
    return __atomic_sub_fetch(&reference_count_, 1, __ATOMIC_ACQ_REL) == 0;
}

uint64_t Message_Block::Chunk_Size = 0x20000;

ACE_Lock_Adapter<ACE_Thread_Mutex>* Message_Block::m_locking_strategy = nullptr;

ACE_Lock_Adapter<ACE_Thread_Mutex>* Message_Block::LockingStrategy() {
    static std::once_flag once;
    std::call_once(
        once, [] { m_locking_strategy = new (std::nothrow) ACE_Lock_Adapter<ACE_Thread_Mutex>(); });
    if (m_locking_strategy == nullptr)
        errno = ENOMEM;
    return m_locking_strategy;
}

Message_Block::Message_Block()
    : ACE_Message_Block(Data_Block::create(), 0, nullptr), m_file_offset(0) {
    set_self_flags(MESSAGE_BLOCK_FLAG);
}

Message_Block::Message_Block(ACE_Data_Block* shared)
    : ACE_Message_Block(shared, 0, nullptr), m_file_offset(0) {
    set_self_flags(MESSAGE_BLOCK_FLAG);
}

Message_Block::~Message_Block() {
    // Before ACE's destructor, which would release the data block under the
    // lock.
    releaseDataBlock();
}

void* Message_Block::operator new(size_t size) {
    void* const memory = operator new(size, std::nothrow);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

void* Message_Block::operator new(size_t size, const std::nothrow_t&) noexcept {
    if (size != sizeof(Message_Block))
        return ::operator new(size, std::nothrow);
    return takePiece(MESSAGE_BLOCKS, sizeof(Message_Block));
}

void Message_Block::operator delete(void* memory, size_t size) noexcept {
    if (size != sizeof(Message_Block)) {
        ::operator delete(memory);
        return;
    }
    givePiece(MESSAGE_BLOCKS, memory);
}

void Message_Block::operator delete(void* memory, const std::nothrow_t&) noexcept {
    givePiece(MESSAGE_BLOCKS, memory);
}

void Message_Block::releaseDataBlock() {
    ACE_Data_Block* const block = data_block_;
    data_block_ = nullptr;
    if (block == nullptr || (self_flags() & DONT_DELETE) != 0)
        return;
    if ((block->flags() & Data_Block::DATA_BLOCK_FLAG) == 0) {
        // Not one of ours (set by hand): ACE's own count, under its lock.
        block->release();
        return;
    }
    auto* const ours = static_cast<Data_Block*>(block);
    if (!ours->dropReference())
        return;
    // The last reference: as ACE ends a data block, through its allocator.
    ACE_Allocator* const allocator = ours->data_block_allocator();
    ours->~Data_Block();
    allocator->free(ours);
}

ACE_Message_Block* Message_Block::release() {
    if (cont_ != nullptr) {
        ACE_Message_Block* const payload = cont_;
        cont_ = nullptr;
        payload->release();
    }
    delete this;
    return nullptr;
}

ACE_Message_Block* Message_Block::duplicate() const {
    ACE_Data_Block* shared = data_block();
    if (shared == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    bool const ours = (shared->flags() & Data_Block::DATA_BLOCK_FLAG) != 0;
    if (ours) {
        static_cast<Data_Block*>(shared)->addReference();
    } else {
        shared = shared->duplicate();
        if (shared == nullptr) {
            errno = ENOMEM;
            return nullptr;
        }
    }
    Message_Block* copy = new (std::nothrow) Message_Block(shared);
    if (copy == nullptr) {
        if (ours) {
            // Never the last reference: this block holds one.
            (void)static_cast<Data_Block*>(shared)->dropReference();
        } else {
            shared->release();
        }
        errno = ENOMEM;
        return nullptr;
    }
    copy->rd_ptr_ = rd_ptr_;
    copy->wr_ptr_ = wr_ptr_;
    copy->priority_ = priority_;
    copy->m_file_offset = m_file_offset;
    if (cont_ != nullptr) {
        copy->cont_ = cont_->duplicate();
        if (copy->cont_ == nullptr) {
            copy->release();
            errno = ENOMEM;
            return nullptr;
        }
    }
    return copy;
}

Message_Header* Message_Block::getHeader() const {
    ACE_Data_Block* block = data_block();
    if (block == nullptr || block->base() == nullptr || block->capacity() < HEADER_SIZE) {
        return nullptr;
    }
    return reinterpret_cast<Message_Header*>(block->base());
}

Data_Block* Message_Block::dataBlock() const {
    ACE_Data_Block* block = data_block();
    if (block == nullptr || (block->flags() & Data_Block::DATA_BLOCK_FLAG) == 0)
        return nullptr;
    return static_cast<Data_Block*>(block);
}

Data_Block* Message_Block::checkDataBlock(const char* operation) const {
    Data_Block* block = dataBlock();
    if (block == nullptr) {
        TW_LOG("%D ERROR (%t): %C : Program error, invalid datablock %x \n", operation,
               static_cast<unsigned>(reinterpret_cast<uintptr_t>(data_block())));
    }
    return block;
}

const char* Message_Block::getFileName() {
    Data_Block* block = checkDataBlock("Tarnwick::Message_Block::getFileName");
    return block != nullptr ? block->getFileName() : nullptr;
}

int Message_Block::setFileName(const char* name) {
    Data_Block* block = checkDataBlock("Tarnwick::Message_Block::setFileName");
    if (block == nullptr)
        return -1;
    block->setFileName(name);
    return 0;
}

bool Message_Block::isStoredOnDisk() {
    Data_Block* block = checkDataBlock("Tarnwick::Message_Block::isStoredOnDisk");
    return block != nullptr && block->isStoredOnDisk();
}

uint32_t Message_Block::diskLength(Data_Block* block) {
    if (block->get_handle() == ACE_INVALID_HANDLE)
        return 0xFFFFFFFFu;
    return static_cast<uint32_t>(block->fileSize());
}

uint32_t Message_Block::getLength() {
    Data_Block* block = checkDataBlock("Tarnwick::Message_Block::getLength");
    if (block != nullptr && block->isStoredOnDisk())
        return diskLength(block);
    return cont_ != nullptr ? static_cast<uint32_t>(cont_->length()) : 0;
}

uint32_t Message_Block::getSize() {
    checkDataBlock("Tarnwick::Message_Block::getSize");
    const Message_Header* header = getHeader();
    return header != nullptr && header->isReadable() ? header->getSize() : 0;
}

uint32_t Message_Block::getActualLength() {
    Data_Block* block = checkDataBlock("Tarnwick::Message_Block::getActualLength");
    if (block != nullptr && block->isStoredOnDisk()) {
        uint32_t const size = diskLength(block);
        if (size == 0xFFFFFFFFu)
            return size;
        return m_file_offset >= size ? 0 : static_cast<uint32_t>(size - m_file_offset);
    }
    return cont_ != nullptr ? static_cast<uint32_t>(cont_->length()) : 0;
}

uint64_t Message_Block::getDiskLength() const {
    Data_Block* block = dataBlock();
    return block != nullptr && block->isStoredOnDisk() ? block->fileSize() : 0;
}

int64_t Message_Block::write(const char* data, uint64_t length) {
    if (data == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (length == 0)
        return 0;
    Data_Block* block = dataBlock();
    if (block != nullptr && block->isStoredOnDisk())
        return writeToDisk(data, length);
    uint64_t const total = length + getLength();
    if (total > Chunk_Size) {
        if (block == nullptr) {
            errno = EINVAL;
            return -1;
        }
        return writeToDisk(data, length);
    }

    if (cont_ == nullptr) {
        ACE_Lock* lock = data_block() != nullptr ? data_block()->locking_strategy() : nullptr;
        // The payload block and its data block from the free lists.
        ACE_Message_Block* payload = Payload_Block::create(static_cast<size_t>(total), lock);
        if (payload == nullptr || payload->base() == nullptr || payload->size() < total) {
            if (payload != nullptr)
                payload->release();
            errno = ENOMEM;
            return -1;
        }
        cont_ = payload;
    } else {
        // Grow to hold what is written so far plus the new bytes; with nothing
        // read yet this is exactly the total payload.
        size_t const needed = static_cast<size_t>(cont_->wr_ptr() - cont_->base()) + length;
        if (needed > cont_->size() && cont_->size(needed) == -1)
            return -1;
    }
    if (cont_->copy(data, length) == -1)
        return -1;
    return static_cast<int64_t>(length);
}

int Message_Block::beginSpill(uint64_t length, ACE_HANDLE& fd, uint64_t& needed) {
    Data_Block* block = dataBlock();
    ACT_Cache* const cache = ACT_Cache::instance();
    if (cache == nullptr)
        return -1;
    uint32_t token = 0;
    if (!block->isStoredOnDisk()) {
        Message_Header* header = getHeader();
        token = header != nullptr ? header->getACT() : 0;
        if (token == 0) {
            errno = EINVAL;
            return -1;
        }
        if (cache->prepare() == -1)
            return -1;
    }

    // Everything that goes to disk now is taken from the quota first, so
    // that a refused write leaves no byte and no file behind.
    uint64_t const moved = cont_ != nullptr ? cont_->length() : 0;
    needed = moved + length;
    if (cache->charge(needed) == -1)
        return -1;

    // The file is opened once, at the first spill, and written through the
    // same descriptor from then on.
    fd = block->writeHandle();
    if (fd == ACE_INVALID_HANDLE) {
        if (!block->isStoredOnDisk()) {
            std::string name;
            fd = cache->create(token, name);
            if (fd != ACE_INVALID_HANDLE) {
                block->setFileName(name.c_str());
                block->setWriteHandle(fd, 0);
            }
        } else {
            // A file that the caller named: appended to, never through a
            // symbolic link.
            fd = ::open(block->getFileName(), O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC,
                        0600);
            struct stat info;
            if (fd != ACE_INVALID_HANDLE && ::fstat(fd, &info) == -1) {
                closeKeepingErrno(fd);
                fd = ACE_INVALID_HANDLE;
            }
            if (fd != ACE_INVALID_HANDLE)
                block->setWriteHandle(fd, static_cast<uint64_t>(info.st_size));
        }
        if (fd == ACE_INVALID_HANDLE) {
            TW_LOG_ERRNO("%D ERROR (%t): Can not open file for writing.");
            int const error = errno;
            cache->refund(needed);
            errno = error;
            return -1;
        }
    }

    // What was held in memory goes first, so that the file holds the whole
    // payload in order; from now on every write appends to the file.
    if (cont_ != nullptr) {
        size_t done = 0;
        int const result = writeAll(fd, cont_->rd_ptr(), cont_->length(), done);
        block->m_size += done;
        block->m_charged += done;
        needed -= done;
        if (result == -1) {
            int const error = errno;
            cache->refund(needed);
            errno = error;
            return -1;
        }
        cont_->release();
        cont_ = nullptr;
    }
    return 0;
}

int64_t Message_Block::writeToDisk(const char* data, uint64_t length) {
    ACE_HANDLE fd = ACE_INVALID_HANDLE;
    uint64_t needed = 0;
    if (beginSpill(length, fd, needed) == -1)
        return -1;
    Data_Block* block = dataBlock();
    size_t done = 0;
    int const result = writeAll(fd, data, static_cast<size_t>(length), done);
    block->m_size += done;
    block->m_charged += done;
    refundUnwritten(needed, done);
    return result == -1 ? -1 : static_cast<int64_t>(length);
}

Message_Block::Splice_Call Message_Block::Pipe_To_File = &::splice;

int64_t Message_Block::writeFromPipe(int pipe, uint64_t length) {
    if (length == 0)
        return 0;
    Data_Block* block = dataBlock();
    if (block == nullptr) {
        errno = EINVAL;
        return -1;
    }
    ACE_HANDLE fd = ACE_INVALID_HANDLE;
    uint64_t needed = 0;
    if (beginSpill(length, fd, needed) == -1)
        return -1;

    // The pipe's pages go into the file's page cache without a pass through
    // user space, at the file's end. A file system that refuses splice
    // (EINVAL, ENOSYS) gets the same bytes by read and write.
    uint64_t done = 0;
    bool copy = false;
    int result = 0;
    while (done < length && !copy) {
        ssize_t const n = Pipe_To_File(pipe, nullptr, fd, nullptr,
                                       static_cast<size_t>(length - done), SPLICE_F_MOVE);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EINVAL || errno == ENOSYS)) {
            copy = true;
            break;
        }
        if (n <= 0) {
            logWriteFailure(done == 0 && n < 0);
            result = -1;
            break;
        }
        done += static_cast<uint64_t>(n);
        block->m_size += static_cast<uint64_t>(n);
        block->m_charged += static_cast<uint64_t>(n);
    }
    if (copy) {
        char buffer[16384];
        while (done < length && result == 0) {
            ssize_t const n =
                ::read(pipe, buffer,
                       static_cast<size_t>(std::min<uint64_t>(sizeof buffer, length - done)));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0) {
                if (n == 0)
                    errno = EIO;
                TW_LOG_ERRNO(
                    "%D ERROR (%t): Can not write payload data: only partially succeeded.");
                result = -1;
                break;
            }
            size_t written = 0;
            result = writeAll(fd, buffer, static_cast<size_t>(n), written);
            done += written;
            block->m_size += written;
            block->m_charged += written;
        }
    }
    refundUnwritten(needed, done);
    return result == -1 ? -1 : static_cast<int64_t>(length);
}

ACE_HANDLE Message_Block::spillHandle() {
    Data_Block* block = dataBlock();
    return block != nullptr && block->isStoredOnDisk() ? block->get_handle() : ACE_INVALID_HANDLE;
}

void Message_Block::skipSpilled(uint64_t count) {
    m_file_offset += count;
}

int64_t Message_Block::read(ACE_Message_Block*& out) {
    Data_Block* block = checkDataBlock("Tarnwick::Message_Block::read");
    if (block != nullptr && block->isStoredOnDisk())
        return readFromDisk(block, out);
    if (cont_ == nullptr || cont_->length() == 0)
        return 0;
    ACE_Message_Block* piece = cont_->duplicate();
    if (piece == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    size_t const count = cont_->length();
    cont_->rd_ptr(cont_->wr_ptr());
    out = piece;
    return static_cast<int64_t>(count);
}

int64_t Message_Block::readFromDisk(Data_Block* block, ACE_Message_Block*& out) {
    ACE_HANDLE const handle = block->get_handle();
    if (handle == ACE_INVALID_HANDLE) {
        TW_LOG_ERRNO("%D ERROR (%t): Can not read message data from disk.");
        return -1;
    }
    ACE_Message_Block* piece = out;
    if (piece == nullptr) {
        piece =
            new (std::nothrow) ACE_Message_Block(static_cast<size_t>(Chunk_Size), MB_DATA, nullptr,
                                                 nullptr, nullptr, block->locking_strategy());
        if (piece == nullptr || piece->base() == nullptr) {
            if (piece != nullptr)
                piece->release();
            errno = ENOMEM;
            return -1;
        }
    }
    // The descriptor is shared with every duplicate: read at this block's
    // own offset, never at the descriptor's position.
    ssize_t count;
    do {
        count = ::pread(handle, piece->wr_ptr(), piece->space(), static_cast<off_t>(m_file_offset));
    } while (count < 0 && errno == EINTR);
    if (count > 0) {
        piece->wr_ptr(static_cast<size_t>(count));
        m_file_offset += static_cast<uint64_t>(count);
        out = piece;
        errno = EWOULDBLOCK;
        return count;
    }
    if (piece != out)
        piece->release();
    if (count < 0) {
        if (errno == EWOULDBLOCK)
            return -1;
        if (piece == out) {
            out->release();
            out = nullptr;
        }
    }
    // The pass is over (or failed): a next one starts from the beginning.
    m_file_offset = 0;
    return count < 0 ? -1 : 0;
}

int Message_Block::reset() {
    Data_Block* block = checkDataBlock("Tarnwick::Message_Block::reset");
    if (block != nullptr)
        block->reset();
    m_file_offset = 0;
    if (cont_ != nullptr) {
        cont_->release();
        cont_ = nullptr;
    }
    return 0;
}

}  // namespace Tarnwick
