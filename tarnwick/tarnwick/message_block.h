// The container of one message: its header in memory and its payload.
#pragma once

#include <tarnwick/export.h>

#include <tarnwick/message_header.h>

#include <ace/Lock_Adapter_T.h>
#include <ace/Malloc_Base.h>
#include <ace/Message_Block.h>
#include <ace/Thread_Mutex.h>

#include <fcntl.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <new>
#include <string>

namespace Tarnwick {

// The data part beneath a Message_Block: a reference-counted 32-byte buffer
// that holds the Message_Header (inside the data block itself: no buffer of
// its own to allocate), and the spill file of a payload that has outgrown
// memory. The file goes with the last reference. The flag bit
// DATA_BLOCK_FLAG marks a data block as one of this class.
//
// The spill file has one descriptor, shared by every Message_Block on this
// data block: the one the payload was written through, or one opened for
// reading on first use. Its file position belongs to nobody: each
// Message_Block reads at an offset of its own with pread, so duplicates of
// one message may be read side by side, also on different threads.
class TARNWICK_EXPORT Data_Block : public ACE_Data_Block {
public:
    static const ACE_Message_Block::Message_Flags DATA_BLOCK_FLAG = 0x2000;

    // A new data block from its allocator (data_block_allocator(), which
    // keeps a few freed data blocks per thread for reuse and also frees it
    // when the last reference goes); null without memory. Make data blocks
    // this way, never with a plain new.
    static Data_Block* create();

    Data_Block();
    // Closes the descriptor, deletes the spill file and gives its bytes back
    // to the event cache's quota.
    ~Data_Block() override;

    // Closes a valid old descriptor and keeps `handle`, which the data block
    // owns from then on (as one to read through only).
    void set_handle(ACE_HANDLE handle);
    // The descriptor of the spill file, opened read-only on first use when
    // there is none; invalid without a file or when it can't be opened.
    // Thread-safe. Read through it with pread only; the data block closes it.
    ACE_HANDLE get_handle();
    // The spill file's path, or null when the payload is not on disk.
    const char* getFileName() const;
    // Names the file that holds the payload; closes a descriptor of an
    // earlier one (which stays on disk).
    void setFileName(const char* name);
    // True as soon as a spill file name is set.
    bool isStoredOnDisk() const { return !m_fileName.empty(); }
    // The bytes in the spill file as far as this data block knows them: all
    // written through it, or the file's size when it was opened by name. No
    // system call; 0 before a file named by setFileName has been opened.
    uint64_t fileSize() const { return m_size.load(); }

protected:
    friend class Message_Block;
    // Closes the descriptor, deletes the spill file, gives its bytes back to
    // the quota. 0.
    int reset();
    // The reference count, changed atomically: a Message_Block shares its
    // data block without taking the locking strategy's lock, also across
    // threads. dropReference() is true for the last reference.
    void addReference();
    [[nodiscard]] bool dropReference();

private:
    // The descriptor, when the data block may write through it.
    ACE_HANDLE writeHandle() const { return m_writable ? m_handle : ACE_INVALID_HANDLE; }
    // Keeps `handle` as the descriptor to write the payload through, on a
    // file of `size` bytes.
    void setWriteHandle(ACE_HANDLE handle, uint64_t size);
    // Closes the old descriptor and keeps `handle`.
    void replaceHandle(ACE_HANDLE handle, bool writable);

    std::mutex m_handle_lock;  // guards m_handle against two first opens
    ACE_HANDLE m_handle;
    bool m_writable;               // m_handle was opened for writing
    std::atomic<uint64_t> m_size;  // bytes in the file
    uint64_t m_charged;            // bytes taken from the event cache's quota
    std::string m_fileName;
    alignas(8) char m_header[32];  // the data block's buffer: the header
};

// One message. The data block's buffer holds the 32-byte header, over which
// the block's read and write positions run; the payload lives in the
// continuation, a plain ACE_Message_Block, until it grows past
// Chunk_Size, and from then on in a spill file of the event
// cache (ACT_Cache), which names and creates it. Memory per message stays
// bounded by that limit whatever the size of the payload; the bytes on disk
// count against the event cache's quota.
//
// Blocks are shared with duplicate() and ended with release(); every
// duplicate of a Message_Block is a Message_Block with read positions of its
// own: the header's (rd_ptr), the continuation's (a duplicate of its own) and
// the offset into a spill file. So a message sent to several connections, or
// twice to one, is read whole by each send. The data blocks (the header's
// and an in-memory payload's) carry the process-wide locking strategy,
// LockingStrategy(), under which ACE's own operations read and change their
// reference counts; duplicate() and release() change them atomically,
// without that lock, so that the duplicates of one message may be released
// on different threads. Message_Blocks, their Data_Blocks and the blocks of
// an in-memory payload come from free lists kept per thread, so that a
// message costs few allocations.
class TARNWICK_EXPORT Message_Block : public ACE_Message_Block {
public:
    // Set in the block's own flags: the block is a Message_Block.
    static const Message_Flags MESSAGE_BLOCK_FLAG = 0x4000;
    // The largest payload a message keeps in memory, and the size of the
    // pieces read back from a spill file. 131072 when the library loads;
    // Chunk_Size is this same value under its connection name.
    static uint64_t Chunk_Size;

    // A block with a fresh Data_Block; getHeader() is null when that
    // allocation failed.
    Message_Block();
    ~Message_Block() override;

    // A new Message_Block that shares this one's data block and, duplicated,
    // its continuation, with this one's read positions (spill file offset
    // included); the caller owns one reference. Null on failure.
    ACE_Message_Block* duplicate() const override;
    // Releases the continuation and this block, and the data block with its
    // last reference (deleting a spill file). Null.
    ACE_Message_Block* release() override;

    // Message_Blocks are kept on a free list of the thread that releases
    // them, for the next one made there.
    static void* operator new(size_t size);
    static void* operator new(size_t size, const std::nothrow_t&) noexcept;
    static void operator delete(void* memory, size_t size) noexcept;
    static void operator delete(void* memory, const std::nothrow_t&) noexcept;

    // The header at the data block's base, whatever the read position.
    Message_Header* getHeader() const;

    // Total length of the payload; 0xFFFFFFFF when a spill file can't be
    // opened. No file is measured: the size is kept in the data block.
    uint32_t getLength();
    // The header's size field; 0 when the header is missing or not readable.
    uint32_t getSize();
    // The part of the payload that this block has still to read.
    uint32_t getActualLength();
    // The payload bytes that lie in a spill file, 0 for a payload in memory.
    // Cheap (no system call, no log): meant for accounting of queues.
    uint64_t getDiskLength() const;
    // Appends `length` bytes to the payload, moving it to a spill file once
    // it outgrows the limit. Returns `length`, 0 for length 0, or -1 (null
    // data; errno ENOMEM; no token or cache for the file; errno ENOSPC when
    // the event cache's quota would be passed, with nothing written; a file
    // error; the last two logged).
    int64_t write(const char* data, uint64_t length);
    // The next piece of the payload into `out` (a new block of
    // Data_Block_Size bytes when null), which the caller releases. Returns its
    // byte count; from a spill file with errno EWOULDBLOCK, as more may come.
    // 0 when nothing is left, after which this block reads a spill file from
    // its beginning again; -1 on a read error (logged when the file can't be
    // opened). Each block reads on from its own offset.
    int64_t read(ACE_Message_Block*& out);
    // Drops the payload and deletes a spill file; the header stays. 0.
    int reset();

    // Appends `length` bytes that wait in the pipe `pipe` to the payload's
    // spill file, moving a payload in memory there first (the payload goes
    // to disk whatever its size). The bytes go from the pipe to the file
    // with splice(2), or by read and write where the file's file system
    // refuses that. Results, quota and log lines as write(); on -1 bytes may
    // be left in the pipe.
    int64_t writeFromPipe(int pipe, uint64_t length);
    // The descriptor of the spill file, to read through with pread or
    // sendfile(2) only (the data block owns it); invalid when the payload
    // is not on disk or the file can't be opened.
    ACE_HANDLE spillHandle();
    // Where this block reads on in its spill file.
    uint64_t spilledOffset() const { return m_file_offset; }
    // `count` bytes of the spill file were read (sent) by other means; this
    // block reads on behind them.
    void skipSpilled(uint64_t count);

    // The call that moves bytes from a pipe to a spill file: splice(2)
    // unless replaced (tests replace it to play a file system that refuses
    // it with EINVAL).
    typedef ssize_t (*Splice_Call)(int in, loff_t* in_offset, int out, loff_t* out_offset,
                                   size_t length, unsigned int flags);
    static Splice_Call Pipe_To_File;

    // The spill file, or null; see Data_Block.
    const char* getFileName();
    // -1 without a Data_Block, else 0.
    int setFileName(const char* name);
    bool isStoredOnDisk();

    // The locking strategy that the data blocks of all messages carry.
    // Null (errno ENOMEM) only if it could not be created.
    static ACE_Lock_Adapter<ACE_Thread_Mutex>* LockingStrategy();

private:
    explicit Message_Block(ACE_Data_Block* shared);

    // The data block as a Data_Block, or null when it is not one.
    Data_Block* dataBlock() const;
    // The same, logging a program error for `operation` when it is not one.
    Data_Block* checkDataBlock(const char* operation) const;
    // Appends to the spill file, moving the in-memory payload there first.
    int64_t writeToDisk(const char* data, uint64_t length);
    // Opens (or makes) the spill file for `length` more bytes: takes them and
    // an in-memory payload from the quota (`needed` the bytes charged and not
    // yet written) and moves that payload into the file. 0 with `fd` the
    // descriptor to append through, or -1 (logged as write()).
    [[nodiscard]] int beginSpill(uint64_t length, ACE_HANDLE& fd, uint64_t& needed);
    int64_t readFromDisk(Data_Block* block, ACE_Message_Block*& out);
    // getLength() of a payload on disk.
    static uint32_t diskLength(Data_Block* block);

    // Drops this block's reference to its data block.
    void releaseDataBlock();

    // Where this block reads on in the spill file.
    uint64_t m_file_offset;

    static ACE_Lock_Adapter<ACE_Thread_Mutex>* m_locking_strategy;
};

// Releases the block held in a variable at the end of a scope, unless the
// variable was set to null (the block was handed on) before.
class TARNWICK_EXPORT Message_Block_Guard {
public:
    explicit Message_Block_Guard(ACE_Message_Block*& block) : m_block(block) {}
    ~Message_Block_Guard() {
        if (m_block != nullptr)
            m_block = m_block->release();
    }
    Message_Block_Guard(const Message_Block_Guard&) = delete;
    Message_Block_Guard& operator=(const Message_Block_Guard&) = delete;

private:
    ACE_Message_Block*& m_block;
};

}  // namespace Tarnwick
