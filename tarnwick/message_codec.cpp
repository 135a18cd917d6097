#include <tarnwick/act_cache.h>
#include <tarnwick/log.h>
#include <tarnwick/message_block.h>
#include <tarnwick/message_codec.h>
#include <tarnwick/message_header.h>

#include <sys/statvfs.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>

namespace Tarnwick {

namespace {

const size_t HEADER_SIZE = sizeof(Message_Header);

// Room that a spill must leave on the event cache's file system.
std::atomic<uint64_t> disk_reserve(64ull * 1024 * 1024);

std::atomic<uint64_t> max_message_size(0x80000000ull);

// True when the file system of the event cache has room for `bytes` more
// and the reserve; also when it can't be asked.
bool diskHasRoom(uint64_t bytes) {
    ACT_Cache* const cache = ACT_Cache::instance();
    if (cache == nullptr || cache->directory().empty())
        return true;
    struct statvfs info;
    if (::statvfs(cache->directory().c_str(), &info) == -1)
        return true;
    uint64_t const available = static_cast<uint64_t>(info.f_bavail) * info.f_frsize;
    return available >= bytes && available - bytes >= disk_reserve;
}

}  // namespace

// ---------------------------------------------------------------------------
// Message_Reader

Message_Reader::Message_Reader() : m_block(nullptr), m_ready(false) {}

Message_Reader::~Message_Reader() {
    reset();
}

void Message_Reader::setMaxMessageSize(uint64_t size) {
    max_message_size = size;
}

uint64_t Message_Reader::maxMessageSize() {
    return max_message_size;
}

uint64_t Message_Reader::setDiskReserve(uint64_t bytes) {
    return disk_reserve.exchange(bytes);
}

void Message_Reader::reset() {
    if (m_block != nullptr)
        m_block->release();
    m_block = nullptr;
    m_ready = false;
}

int Message_Reader::startMessage() {
    Message_Block* fresh = new (std::nothrow) Message_Block();
    if (fresh == nullptr || fresh->getHeader() == nullptr) {
        if (fresh != nullptr)
            fresh->release();
        errno = ENOMEM;
        return -1;
    }
    m_block = fresh;
    m_ready = false;
    return 0;
}

size_t Message_Reader::headerBytes() const {
    return m_block != nullptr ? std::min(m_block->length(), HEADER_SIZE) : 0;
}

bool Message_Reader::headerComplete() const {
    return headerBytes() == HEADER_SIZE;
}

size_t Message_Reader::wanted() const {
    if (!headerComplete())
        return HEADER_SIZE - headerBytes();
    uint64_t const size = m_block->getHeader()->getSize();
    uint64_t const have = m_block->getLength();
    uint64_t const remaining = size > have ? size - have : 0;
    return static_cast<size_t>(std::min<uint64_t>(remaining, Message_Block::Chunk_Size));
}

int Message_Reader::checkHeader() {
    Message_Header* const header = m_block->getHeader();
    // Harmless when it was decoded on an earlier pass.
    header->decode();
    if (!header->isReadable()) {
        errno = EINVAL;
        return -1;
    }
    uint64_t const size = header->getSize();
    if (size > max_message_size) {
        errno = EMSGSIZE;
        return -1;
    }
    // A payload that will go to disk must find room there, all of it.
    if (size > Message_Block::Chunk_Size && !diskHasRoom(size)) {
        TW_LOG("%D ERROR (%t): Not enough disk space for a message of %u bytes\n",
               static_cast<unsigned>(size));
        errno = ENOSPC;
        return -1;
    }
    return 0;
}

int Message_Reader::feed(const char* bytes, size_t size, size_t& used) {
    used = 0;
    if (m_ready) {
        // The whole message waits to be taken.
        return 1;
    }
    if (m_block == nullptr && startMessage() == -1)
        return -1;

    if (!headerComplete()) {
        size_t const count = std::min(size, HEADER_SIZE - headerBytes());
        std::memcpy(m_block->wr_ptr(), bytes, count);
        m_block->wr_ptr(count);
        used = count;
        if (!headerComplete())
            return 0;
        if (checkHeader() == -1)
            return -1;
    } else if (!m_block->getHeader()->isReadable()) {
        // A header that failed its check stays failed.
        errno = EINVAL;
        return -1;
    }

    uint64_t const announced = m_block->getHeader()->getSize();
    while (true) {
        uint64_t const have = m_block->getLength();
        if (have == 0xFFFFFFFFu) {
            errno = EIO;
            return -1;
        }
        if (have >= announced) {
            m_ready = true;
            return 1;
        }
        if (used == size)
            return 0;
        uint64_t const count = std::min<uint64_t>(announced - have, size - used);
        if (m_block->write(bytes + used, count) == -1)
            return -1;
        used += static_cast<size_t>(count);
    }
}

uint64_t Message_Reader::payloadWanted() const {
    if (m_ready || !headerComplete() || !m_block->getHeader()->isReadable())
        return 0;
    uint64_t const size = m_block->getHeader()->getSize();
    uint64_t const have = m_block->getLength();
    return size > have && have != 0xFFFFFFFFu ? size - have : 0;
}

bool Message_Reader::spilling() const {
    return payloadWanted() > 0 && m_block->getHeader()->getSize() > Message_Block::Chunk_Size;
}

int Message_Reader::feedFromPipe(int pipe, size_t size) {
    uint64_t const wanted = payloadWanted();
    if (wanted == 0 || size > wanted) {
        errno = EINVAL;
        return -1;
    }
    if (m_block->writeFromPipe(pipe, size) == -1)
        return -1;
    if (size == wanted) {
        m_ready = true;
        return 1;
    }
    return 0;
}

ACE_Message_Block* Message_Reader::take() {
    if (!m_ready || m_block == nullptr)
        return nullptr;
    Message_Block* const whole = m_block;
    whole->rd_ptr(whole->base());
    m_block = nullptr;
    m_ready = false;
    return whole;
}

// ---------------------------------------------------------------------------
// Message_Writer

void Message_Writer::EncodeHeader(const void* header, char out[32]) {
    Message_Header wire(*static_cast<const Message_Header*>(header));
    wire.decode();
    wire.encode();
    std::memcpy(out, &wire, HEADER_SIZE);
}

Message_Writer::Message_Writer(ACE_Message_Block* block)
    : m_block(nullptr), m_header(), m_header_sent(0), m_chunk(nullptr), m_valid(false) {
    if (block == nullptr || (block->self_flags() & Message_Block::MESSAGE_BLOCK_FLAG) == 0)
        return;
    auto* const message = static_cast<Message_Block*>(block);
    if (message->getHeader() == nullptr)
        return;
    // A duplicate of its own, read from the start of the payload.
    m_block = block->duplicate();
    if (m_block == nullptr)
        return;
    EncodeHeader(message->getHeader(), m_header);
    m_valid = true;
}

Message_Writer::~Message_Writer() {
    if (m_chunk != nullptr)
        m_chunk->release();
    if (m_block != nullptr)
        m_block->release();
}

int Message_Writer::next(const char*& data, size_t& length) {
    if (!m_valid) {
        errno = EINVAL;
        return -1;
    }
    if (m_header_sent < HEADER_SIZE) {
        data = m_header + m_header_sent;
        length = HEADER_SIZE - m_header_sent;
        return 1;
    }
    if (m_chunk != nullptr && m_chunk->length() > 0) {
        data = m_chunk->rd_ptr();
        length = m_chunk->length();
        return 1;
    }
    if (m_chunk != nullptr) {
        m_chunk->release();
        m_chunk = nullptr;
    }
    auto* const message = static_cast<Message_Block*>(m_block);
    if (message->getActualLength() == 0)
        return 0;
    ACE_Message_Block* piece = nullptr;
    int64_t const got = message->read(piece);
    if (got < 1) {
        if (piece != nullptr)
            piece->release();
        // A read that would block is no end of the payload: -1 with errno
        // EWOULDBLOCK, and the next call tries again.
        return got == 0 ? 0 : -1;
    }
    m_chunk = piece;
    data = m_chunk->rd_ptr();
    length = m_chunk->length();
    return 1;
}

int Message_Writer::nextWithHeader(const char*& head, size_t& head_length, const char*& chunk,
                                   size_t& chunk_length) {
    chunk = nullptr;
    chunk_length = 0;
    if (!m_valid || m_header_sent >= HEADER_SIZE)
        return next(head, head_length);
    head = m_header + m_header_sent;
    head_length = HEADER_SIZE - m_header_sent;
    auto* const message = static_cast<Message_Block*>(m_block);
    if (m_chunk == nullptr && !message->isStoredOnDisk() && message->getActualLength() > 0) {
        ACE_Message_Block* piece = nullptr;
        if (message->read(piece) > 0)
            m_chunk = piece;
        else if (piece != nullptr)
            piece->release();
    }
    if (m_chunk != nullptr && m_chunk->length() > 0) {
        chunk = m_chunk->rd_ptr();
        chunk_length = m_chunk->length();
    }
    return 1;
}

void Message_Writer::advance(size_t count) {
    if (m_header_sent < HEADER_SIZE) {
        size_t const header = std::min(count, HEADER_SIZE - m_header_sent);
        m_header_sent += header;
        count -= header;
    }
    if (count > 0 && m_chunk != nullptr)
        m_chunk->rd_ptr(std::min(count, m_chunk->length()));
}

size_t Message_Writer::buffered() const {
    return m_chunk != nullptr ? m_chunk->length() : 0;
}

bool Message_Writer::spilledRange(ACE_HANDLE& fd, uint64_t& offset, uint64_t& length) {
    if (!m_valid || m_header_sent < HEADER_SIZE || buffered() > 0)
        return false;
    auto* const message = static_cast<Message_Block*>(m_block);
    if (!message->isStoredOnDisk())
        return false;
    fd = message->spillHandle();  // opens the file, which tells its size
    if (fd == ACE_INVALID_HANDLE)
        return false;
    uint64_t const size = message->getDiskLength();
    offset = message->spilledOffset();
    if (offset >= size)
        return false;
    length = size - offset;
    return true;
}

void Message_Writer::advanceSpilled(uint64_t count) {
    if (m_valid)
        static_cast<Message_Block*>(m_block)->skipSpilled(count);
}

std::string Message_Writer::Bytes(ACE_Message_Block* block) {
    Message_Writer writer(block);
    std::string bytes;
    const char* data = nullptr;
    size_t length = 0;
    int status;
    while ((status = writer.next(data, length)) == 1) {
        bytes.append(data, length);
        writer.advance(length);
    }
    return status == 0 ? bytes : std::string();
}

}  // namespace Tarnwick
