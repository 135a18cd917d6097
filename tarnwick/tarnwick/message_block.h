// The container of one message: its header in memory and its payload.
#pragma once

#include <tarnwick/message_header.h>

#include <ace/Lock_Adapter_T.h>
#include <ace/Malloc_Base.h>
#include <ace/Message_Block.h>
#include <ace/Thread_Mutex.h>

#include <cstdint>

namespace Tarnwick {

// The data part beneath a Message_Block: a reference-counted 32-byte buffer
// that holds the Message_Header. The flag bit DATA_BLOCK_FLAG marks a data
// block as one of this class.
class Data_Block : public ACE_Data_Block {
public:
    static const ACE_Message_Block::Message_Flags DATA_BLOCK_FLAG = 0x2000;

    // A new data block from ACE's allocator, which also frees it when the
    // last reference goes; null without memory. Make data blocks this way,
    // never with a plain new.
    static Data_Block* create();

    Data_Block();
    ~Data_Block() override;
};

// One message. The data block's buffer holds the 32-byte header, over which
// the block's read and write positions run; the payload lives in the
// continuation, a plain ACE_Message_Block, until it grows past
// Handler::Data_Block_Size.
//
// Blocks are shared with duplicate() and ended with release(); every
// duplicate of a Message_Block is a Message_Block. The reference counts of all
// blocks are guarded by one process-wide lock, LockingStrategy().
class Message_Block : public ACE_Message_Block {
public:
    // Set in the block's own flags: the block is a Message_Block.
    static const Message_Flags MESSAGE_BLOCK_FLAG = 0x4000;

    // A block with a fresh Data_Block; getHeader() is null when that
    // allocation failed.
    Message_Block();
    ~Message_Block() override;

    // A new Message_Block that shares this one's data block and, duplicated,
    // its continuation; the caller owns one reference. Null on failure.
    ACE_Message_Block* duplicate() const override;

    // The header at the data block's base, whatever the read position.
    Message_Header* getHeader() const;

    // Total length of the payload.
    uint32_t getLength();
    // The header's size field; 0 when the header is missing or not readable.
    uint32_t getSize();
    // The part of the payload that remains to be read.
    uint32_t getActualLength();
    // Appends `length` bytes to the payload. Returns `length`, 0 for length
    // 0, or -1 (null data, allocation failure with errno ENOMEM, or a payload
    // that can't be kept).
    int64_t write(const char* data, uint64_t length);
    // The next piece of the payload: `out` receives a block the caller
    // releases. Returns its byte count, or 0 when nothing is left to read.
    int64_t read(ACE_Message_Block*& out);
    // Drops the payload; the header stays. Returns 0.
    int reset();

    // The lock that guards the reference counts of all message blocks.
    // Null (errno ENOMEM) only if it could not be created.
    static ACE_Lock_Adapter<ACE_Thread_Mutex>* LockingStrategy();

private:
    explicit Message_Block(ACE_Data_Block* shared);

    // Logs a program error when the data block is not a Data_Block.
    void checkDataBlock(const char* operation) const;
    // Where payloads above the in-memory limit go.
    int64_t writeToDisk(const char* data, uint64_t length);

    static ACE_Lock_Adapter<ACE_Thread_Mutex>* m_locking_strategy;
};

// Releases the block held in a variable at the end of a scope, unless the
// variable was set to null (the block was handed on) before.
class Message_Block_Guard {
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
