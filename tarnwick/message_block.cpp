#include <tarnwick/handler.h>
#include <tarnwick/log.h>
#include <tarnwick/message_block.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <new>

namespace Tarnwick {

namespace {

const size_t HEADER_SIZE = sizeof(Message_Header);

}  // namespace

Data_Block::Data_Block()
    : ACE_Data_Block(HEADER_SIZE, ACE_Message_Block::MB_DATA, nullptr, nullptr,
                     Message_Block::LockingStrategy(), 0, ACE_Allocator::instance()) {
    if (base() != nullptr && capacity() >= HEADER_SIZE)
        new (base()) Message_Header();
    set_flags(DATA_BLOCK_FLAG);
}

Data_Block::~Data_Block() = default;

Data_Block* Data_Block::create() {
    ACE_Allocator* allocator = ACE_Allocator::instance();
    void* memory = allocator->malloc(sizeof(Data_Block));
    if (memory == nullptr)
        return nullptr;
    return new (memory) Data_Block();
}

ACE_Lock_Adapter<ACE_Thread_Mutex>* Message_Block::m_locking_strategy = nullptr;

ACE_Lock_Adapter<ACE_Thread_Mutex>* Message_Block::LockingStrategy() {
    static std::once_flag once;
    std::call_once(
        once, [] { m_locking_strategy = new (std::nothrow) ACE_Lock_Adapter<ACE_Thread_Mutex>(); });
    if (m_locking_strategy == nullptr)
        errno = ENOMEM;
    return m_locking_strategy;
}

Message_Block::Message_Block() : ACE_Message_Block(Data_Block::create(), 0, nullptr) {
    set_self_flags(MESSAGE_BLOCK_FLAG);
}

Message_Block::Message_Block(ACE_Data_Block* shared) : ACE_Message_Block(shared, 0, nullptr) {
    set_self_flags(MESSAGE_BLOCK_FLAG);
}

Message_Block::~Message_Block() = default;

ACE_Message_Block* Message_Block::duplicate() const {
    ACE_Data_Block* shared = data_block() != nullptr ? data_block()->duplicate() : nullptr;
    if (shared == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    Message_Block* copy = new (std::nothrow) Message_Block(shared);
    if (copy == nullptr) {
        shared->release();
        errno = ENOMEM;
        return nullptr;
    }
    copy->rd_ptr_ = rd_ptr_;
    copy->wr_ptr_ = wr_ptr_;
    copy->priority_ = priority_;
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

void Message_Block::checkDataBlock(const char* operation) const {
    const ACE_Data_Block* block = data_block();
    if (block == nullptr || (block->flags() & Data_Block::DATA_BLOCK_FLAG) == 0) {
        TW_LOG("%D ERROR (%t): %C : Program error, invalid datablock %x \n", operation,
               static_cast<unsigned>(reinterpret_cast<uintptr_t>(block)));
    }
}

uint32_t Message_Block::getLength() {
    checkDataBlock("Tarnwick::Message_Block::getLength");
    return cont_ != nullptr ? static_cast<uint32_t>(cont_->length()) : 0;
}

uint32_t Message_Block::getSize() {
    checkDataBlock("Tarnwick::Message_Block::getSize");
    const Message_Header* header = getHeader();
    return header != nullptr && header->isReadable() ? header->getSize() : 0;
}

uint32_t Message_Block::getActualLength() {
    checkDataBlock("Tarnwick::Message_Block::getActualLength");
    return cont_ != nullptr ? static_cast<uint32_t>(cont_->length()) : 0;
}

int64_t Message_Block::write(const char* data, uint64_t length) {
    if (data == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (length == 0)
        return 0;
    uint64_t const total = length + getLength();
    if (total > Handler::Data_Block_Size)
        return writeToDisk(data, length);

    if (cont_ == nullptr) {
        ACE_Lock* lock = data_block() != nullptr ? data_block()->locking_strategy() : nullptr;
        ACE_Message_Block* payload =
            new (std::nothrow) ACE_Message_Block(total, MB_DATA, nullptr, nullptr, nullptr, lock);
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

int64_t Message_Block::writeToDisk(const char*, uint64_t) {
    // A payload larger than Handler::Data_Block_Size is refused in this
    // build: it is not kept in memory, and no event cache on disk takes it.
    errno = EMSGSIZE;
    return -1;
}

int64_t Message_Block::read(ACE_Message_Block*& out) {
    checkDataBlock("Tarnwick::Message_Block::read");
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

int Message_Block::reset() {
    checkDataBlock("Tarnwick::Message_Block::reset");
    if (cont_ != nullptr) {
        cont_->release();
        cont_ = nullptr;
    }
    return 0;
}

}  // namespace Tarnwick
