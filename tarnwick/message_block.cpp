#include <tarnwick/act_cache.h>
#include <tarnwick/handler.h>
#include <tarnwick/log.h>
#include <tarnwick/message_block.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <new>

namespace Tarnwick {

namespace {

const size_t HEADER_SIZE = sizeof(Message_Header);

// Closes a descriptor; a failed close only sets errno.
void closeKeepingErrno(ACE_HANDLE handle) {
    int const error = errno;
    if (::close(handle) == 0)
        errno = error;
}

// Writes all of `data` to `fd`. 0, or -1 after logging why.
int writeAll(ACE_HANDLE fd, const char* data, size_t length) {
    size_t done = 0;
    while (done < length) {
        ssize_t const n = ::write(fd, data + done, length - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            if (done == 0 && n < 0) {
                TW_LOG_ERRNO("%D ERROR (%t): Can not write payload data: write error.");
            } else {
                TW_LOG_ERRNO(
                    "%D ERROR (%t): Can not write payload data: only partially succeeded.");
            }
            return -1;
        }
        done += static_cast<size_t>(n);
    }
    return 0;
}

}  // namespace

Data_Block::Data_Block()
    : ACE_Data_Block(HEADER_SIZE, ACE_Message_Block::MB_DATA, nullptr, nullptr,
                     Message_Block::LockingStrategy(), 0, ACE_Allocator::instance()),
      m_handle(ACE_INVALID_HANDLE) {
    if (base() != nullptr && capacity() >= HEADER_SIZE)
        new (base()) Message_Header();
    set_flags(DATA_BLOCK_FLAG);
}

Data_Block::~Data_Block() {
    reset();
}

void Data_Block::set_handle(ACE_HANDLE handle) {
    if (m_handle != ACE_INVALID_HANDLE)
        closeKeepingErrno(m_handle);
    m_handle = handle;
}

ACE_HANDLE& Data_Block::get_handle() {
    if (m_handle == ACE_INVALID_HANDLE && !m_fileName.empty())
        m_handle = ::open(m_fileName.c_str(), O_RDONLY | O_CLOEXEC);
    return m_handle;
}

const char* Data_Block::getFileName() const {
    return m_fileName.empty() ? nullptr : m_fileName.c_str();
}

void Data_Block::setFileName(const char* name) {
    m_fileName = name != nullptr ? name : "";
}

int Data_Block::reset() {
    set_handle(ACE_INVALID_HANDLE);
    if (!m_fileName.empty()) {
        int const error = errno;
        ::unlink(m_fileName.c_str());
        errno = error;
        m_fileName.clear();
    }
    return 0;
}

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

uint32_t Message_Block::getLength() {
    Data_Block* block = checkDataBlock("Tarnwick::Message_Block::getLength");
    if (block != nullptr && block->isStoredOnDisk()) {
        struct stat info;
        if (::stat(block->getFileName(), &info) == -1)
            return 0xFFFFFFFFu;
        return static_cast<uint32_t>(info.st_size);
    }
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
        ACE_HANDLE const handle = block->get_handle();
        if (handle == ACE_INVALID_HANDLE)
            return getLength();
        off_t const position = ::lseek(handle, 0, SEEK_CUR);
        struct stat info;
        uint32_t const size =
            ::fstat(handle, &info) == 0 ? static_cast<uint32_t>(info.st_size) : 0xFFFFFFFFu;
        return size - (position == -1 ? 0xFFFFFFFFu : static_cast<uint32_t>(position));
    }
    return cont_ != nullptr ? static_cast<uint32_t>(cont_->length()) : 0;
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
    if (total > Handler::Data_Block_Size) {
        if (block == nullptr) {
            errno = EINVAL;
            return -1;
        }
        return writeToDisk(data, length);
    }

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

int64_t Message_Block::writeToDisk(const char* data, uint64_t length) {
    Data_Block* block = dataBlock();
    if (!block->isStoredOnDisk()) {
        std::string name;
        Message_Header* header = getHeader();
        if (header == nullptr || ACT_Cache::instance() == nullptr ||
            ACT_Cache::instance()->path(header->getACT(), name) == -1) {
            return -1;
        }
        block->setFileName(name.c_str());
    }
    ACE_HANDLE const fd =
        ::open(block->getFileName(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd == ACE_INVALID_HANDLE) {
        TW_LOG_ERRNO("%D ERROR (%t): Can not open file for writing.");
        return -1;
    }
    // What was held in memory goes first, so that the file holds the whole
    // payload in order; from now on every write appends to the file.
    if (cont_ != nullptr) {
        if (writeAll(fd, cont_->rd_ptr(), cont_->length()) == -1) {
            closeKeepingErrno(fd);
            return -1;
        }
        cont_->release();
        cont_ = nullptr;
    }
    int const result = writeAll(fd, data, static_cast<size_t>(length));
    closeKeepingErrno(fd);
    return result == -1 ? -1 : static_cast<int64_t>(length);
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
    ACE_HANDLE& handle = block->get_handle();
    if (handle == ACE_INVALID_HANDLE) {
        TW_LOG_ERRNO("%D ERROR (%t): Can not read message data from disk.");
        return -1;
    }
    ACE_Message_Block* piece = out;
    if (piece == nullptr) {
        piece = new (std::nothrow)
            ACE_Message_Block(static_cast<size_t>(Handler::Data_Block_Size), MB_DATA, nullptr,
                              nullptr, nullptr, block->locking_strategy());
        if (piece == nullptr || piece->base() == nullptr) {
            if (piece != nullptr)
                piece->release();
            errno = ENOMEM;
            return -1;
        }
    }
    ssize_t count;
    do {
        count = ::read(handle, piece->wr_ptr(), piece->space());
    } while (count < 0 && errno == EINTR);
    if (count > 0) {
        piece->wr_ptr(static_cast<size_t>(count));
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
    block->set_handle(ACE_INVALID_HANDLE);
    return count < 0 ? -1 : 0;
}

int Message_Block::reset() {
    Data_Block* block = checkDataBlock("Tarnwick::Message_Block::reset");
    if (block != nullptr)
        block->reset();
    if (cont_ != nullptr) {
        cont_->release();
        cont_ = nullptr;
    }
    return 0;
}

}  // namespace Tarnwick
