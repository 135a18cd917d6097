// The wire codec in memory: messages assembled from bytes split anywhere,
// headers refused for their magic or size, and messages given out as the
// bytes a connection writes.
#include <tarnwick/act_cache.h>
#include <tarnwick/message_block.h>
#include <tarnwick/message_codec.h>
#include <tarnwick/message_header.h>

#include <gtest/gtest.h>

#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "block_limit.h"
#include "log_capture.h"
#include "scratch_cache.h"

using namespace Tarnwick;
using TarnwickTest::LogCapture;

namespace {

typedef std::vector<std::string> Lines;

// The wire bytes of a header with `type`, `token` and `size`.
std::string header(uint32_t type, uint32_t token, uint32_t size, uint32_t magic = 0x00060201) {
    Message_Header h;
    h.setType(type);
    h.setACT(token);
    h.setSize(size);
    h.encode();
    std::string bytes(reinterpret_cast<const char*>(&h), sizeof h);
    // The magic is the sixth word.
    for (int i = 0; i < 4; ++i)
        bytes[20 + i] = static_cast<char>(magic >> (24 - 8 * i));
    return bytes;
}

uint32_t tokenOf(ACE_Message_Block* block) {
    return static_cast<Message_Block*>(block)->getHeader()->getACT();
}

std::string pattern(size_t size, unsigned seed = 1) {
    std::string bytes(size, '\0');
    std::mt19937 random(seed);
    for (char& byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

// The payload of a whole message, wherever it lies.
std::string payloadOf(ACE_Message_Block* block) {
    return Message_Writer::Bytes(block).substr(32);
}

// Feeds `bytes` in pieces of `piece` bytes; the messages it completes.
std::vector<ACE_Message_Block*> feedAll(Message_Reader& reader, const std::string& bytes,
                                        size_t piece, int* failure = nullptr) {
    std::vector<ACE_Message_Block*> messages;
    size_t offset = 0;
    while (offset < bytes.size()) {
        size_t const count = std::min(piece, bytes.size() - offset);
        size_t taken = 0;
        while (taken < count) {
            size_t used = 0;
            int const status = reader.feed(bytes.data() + offset + taken, count - taken, used);
            taken += used;
            if (status == -1) {
                if (failure != nullptr)
                    *failure = errno;
                return messages;
            }
            if (status == 1)
                messages.push_back(reader.take());
            else
                break;
        }
        offset += count;
    }
    return messages;
}

void releaseAll(std::vector<ACE_Message_Block*>& messages) {
    for (ACE_Message_Block* block : messages)
        block->release();
    messages.clear();
}

}  // namespace

TEST(MessageReader, AHeaderSplitAnywhereGivesOneMessage) {
    std::string const wire = header(17, 5, 3) + "abc";
    for (size_t split = 1; split < wire.size(); ++split) {
        Message_Reader reader;
        size_t used = 0;
        ASSERT_EQ(reader.feed(wire.data(), split, used), split == wire.size() ? 1 : 0);
        EXPECT_EQ(used, split);
        EXPECT_EQ(reader.headerComplete(), split >= 32);
        size_t more = 0;
        ASSERT_EQ(reader.feed(wire.data() + split, wire.size() - split, more), 1) << split;
        EXPECT_EQ(more, wire.size() - split);
        ACE_Message_Block* block = reader.take();
        ASSERT_NE(block, nullptr);
        auto* message = static_cast<Message_Block*>(block);
        EXPECT_TRUE(message->getHeader()->isReadable());
        EXPECT_EQ(message->getHeader()->getType(), 17u);
        EXPECT_EQ(message->getHeader()->getACT(), 5u);
        EXPECT_EQ(block->rd_ptr(), block->base());
        EXPECT_EQ(payloadOf(block), "abc");
        EXPECT_EQ(reader.partial(), nullptr);
        block->release();
    }
}

TEST(MessageReader, EveryPieceSizeGivesTheSameMessages) {
    std::string stream;
    std::vector<std::string> payloads;
    for (uint32_t i = 0; i < 6; ++i) {
        payloads.push_back(pattern(i * 97, i));
        stream +=
            header(17, 100 + i, static_cast<uint32_t>(payloads.back().size())) + payloads.back();
    }
    for (size_t piece : {1, 2, 7, 31, 32, 33, 100, 4096}) {
        Message_Reader reader;
        std::vector<ACE_Message_Block*> messages = feedAll(reader, stream, piece);
        ASSERT_EQ(messages.size(), payloads.size()) << piece;
        for (size_t i = 0; i < messages.size(); ++i) {
            EXPECT_EQ(tokenOf(messages[i]), 100 + i);
            EXPECT_TRUE(payloadOf(messages[i]) == payloads[i]) << piece << " " << i;
        }
        releaseAll(messages);
    }
}

TEST(MessageReader, AZeroLengthMessageIsWholeWithItsHeader) {
    Message_Reader reader;
    std::string const wire = header(1, 9, 0);
    size_t used = 0;
    EXPECT_EQ(reader.feed(wire.data(), wire.size(), used), 1);
    EXPECT_EQ(used, 32u);
    EXPECT_EQ(reader.wanted(), 0u);
    ACE_Message_Block* block = reader.take();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(static_cast<Message_Block*>(block)->getLength(), 0u);
    block->release();
    // Nothing more is taken until the message is.
    EXPECT_EQ(reader.take(), nullptr);
}

TEST(MessageReader, BytesBehindAWholeMessageAreLeft) {
    Message_Reader reader;
    std::string const wire = header(1, 1, 2) + "xy" + header(1, 2, 0);
    size_t used = 0;
    EXPECT_EQ(reader.feed(wire.data(), wire.size(), used), 1);
    EXPECT_EQ(used, 34u);
    // Until it is taken, the reader takes nothing more.
    size_t none = 0;
    EXPECT_EQ(reader.feed(wire.data() + used, wire.size() - used, none), 1);
    EXPECT_EQ(none, 0u);
    ACE_Message_Block* first = reader.take();
    size_t rest = 0;
    EXPECT_EQ(reader.feed(wire.data() + used, wire.size() - used, rest), 1);
    EXPECT_EQ(rest, 32u);
    ACE_Message_Block* second = reader.take();
    EXPECT_EQ(tokenOf(first), 1u);
    EXPECT_EQ(tokenOf(second), 2u);
    first->release();
    second->release();
}

TEST(MessageReader, ABadMagicIsRefusedAndStaysRefused) {
    LogCapture capture;
    Message_Reader reader;
    std::string const wire = header(1, 1, 0, 0x00060202);
    size_t used = 0;
    errno = 0;
    EXPECT_EQ(reader.feed(wire.data(), wire.size(), used), -1);
    EXPECT_EQ(errno, EINVAL);
    ASSERT_NE(reader.partial(), nullptr);
    EXPECT_EQ(reader.feed("more", 4, used), -1);
    EXPECT_EQ(errno, EINVAL);
    // The reader says nothing itself: the connection logs with its address.
    EXPECT_TRUE(capture.lines().empty());
    reader.reset();
    EXPECT_EQ(reader.partial(), nullptr);
}

TEST(MessageReader, OtherVersionsOfTheProtocolAreRefused) {
    // The magic holds the protocol's version: 6.2.1.
    for (uint32_t magic : {0x00050201u, 0x00060101u, 0x01060201u, 0u, 0xFFFFFFFFu}) {
        Message_Reader reader;
        std::string const wire = header(1, 1, 0, magic);
        size_t used = 0;
        EXPECT_EQ(reader.feed(wire.data(), wire.size(), used), -1) << std::hex << magic;
        EXPECT_EQ(errno, EINVAL);
    }
}

TEST(MessageReader, ASizeOverTheLimitIsRefusedBeforeAnyPayload) {
    uint64_t const saved = Message_Reader::maxMessageSize();
    Message_Reader::setMaxMessageSize(1000);
    Message_Reader reader;
    std::string const wire = header(1, 1, 1001) + "x";
    size_t used = 0;
    errno = 0;
    EXPECT_EQ(reader.feed(wire.data(), wire.size(), used), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(used, 32u);
    EXPECT_EQ(static_cast<Message_Block*>(reader.partial())->getLength(), 0u);
    Message_Reader exact;
    std::string const fits = header(1, 1, 1000) + std::string(1000, 'a');
    EXPECT_EQ(exact.feed(fits.data(), fits.size(), used), 1);
    exact.reset();
    Message_Reader::setMaxMessageSize(saved);
}

TEST(MessageReader, TheLargestAnnouncedSizeIsRefusedByDefault) {
    Message_Reader reader;
    std::string const wire = header(1, 1, 0xFFFFFFFFu);
    size_t used = 0;
    EXPECT_EQ(reader.feed(wire.data(), wire.size(), used), -1);
    EXPECT_EQ(errno, EMSGSIZE);
}

TEST(MessageReader, WantedIsTheRestOfTheHeaderThenAChunkAtMost) {
    TarnwickTest::ScratchCache cache;
    TarnwickTest::BlockLimit limit(1024);
    Message_Reader reader;
    EXPECT_EQ(reader.wanted(), 32u);
    std::string const wire = header(1, 7, 3000);
    size_t used = 0;
    EXPECT_EQ(reader.feed(wire.data(), 10, used), 0);
    EXPECT_EQ(reader.wanted(), 22u);
    EXPECT_EQ(reader.feed(wire.data() + 10, 22, used), 0);
    EXPECT_EQ(reader.wanted(), 1024u);
    std::string const payload = pattern(3000);
    EXPECT_EQ(reader.feed(payload.data(), 2500, used), 0);
    EXPECT_EQ(reader.wanted(), 500u);
    EXPECT_TRUE(reader.partial()->isStoredOnDisk());
    EXPECT_EQ(reader.feed(payload.data() + 2500, 500, used), 1);
    ACE_Message_Block* block = reader.take();
    EXPECT_TRUE(payloadOf(block) == payload);
    block->release();
}

TEST(MessageReader, AnUnfinishedSpillGoesWithTheReader) {
    TarnwickTest::ScratchCache cache;
    TarnwickTest::BlockLimit limit(1024);
    std::string file;
    {
        Message_Reader reader;
        std::string const wire = header(1, 7, 5000) + pattern(3000);
        size_t used = 0;
        EXPECT_EQ(reader.feed(wire.data(), wire.size(), used), 0);
        ASSERT_TRUE(reader.partial()->isStoredOnDisk());
        file = reader.partial()->getFileName();
        EXPECT_EQ(::access(file.c_str(), F_OK), 0);
    }
    EXPECT_NE(::access(file.c_str(), F_OK), 0);
    EXPECT_EQ(ACT_Cache::instance()->spilledBytes(), 0u);
}

TEST(MessageReader, APayloadOverTheQuotaIsRefused) {
    TarnwickTest::ScratchCache cache;
    TarnwickTest::BlockLimit limit(1024);
    LogCapture capture;
    uint64_t const saved = ACT_Cache::instance()->setQuota(4096);
    Message_Reader reader;
    std::string const wire = header(1, 7, 10000) + pattern(10000);
    size_t used = 0;
    errno = 0;
    int status = 0;
    size_t offset = 0;
    while (offset < wire.size() &&
           (status = reader.feed(wire.data() + offset, std::min<size_t>(1024, wire.size() - offset),
                                 used)) == 0)
        offset += used;
    EXPECT_EQ(status, -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(capture.lines(), (Lines{"%D ERROR (%t): Event cache quota of 4096 bytes exceeded."}));
    reader.reset();
    EXPECT_EQ(ACT_Cache::instance()->spilledBytes(), 0u);
    ACT_Cache::instance()->setQuota(saved);
}

TEST(MessageWriter, GivesTheHeaderInNetworkOrderThenThePayload) {
    Message_Reader reader;
    std::string const wire = header(17, 77, 5) + "hello";
    size_t used = 0;
    ASSERT_EQ(reader.feed(wire.data(), wire.size(), used), 1);
    ACE_Message_Block* block = reader.take();
    Message_Header const before = *static_cast<Message_Block*>(block)->getHeader();
    EXPECT_EQ(Message_Writer::Bytes(block), wire);
    // Twice: the block is left as it was, its header untouched.
    EXPECT_EQ(Message_Writer::Bytes(block), wire);
    EXPECT_EQ(std::memcmp(&before, static_cast<Message_Block*>(block)->getHeader(), 32), 0);
    block->release();
}

TEST(MessageWriter, AHeaderThatArrivedInHostOrderGoesOutInNetworkOrder) {
    // A header whose magic reads as host order needs no decoding, so it is
    // accepted as it stands; the writer gives it out in network order.
    Message_Header host;
    host.setType(17);
    host.setACT(77);
    host.setSize(5);
    std::string const sent = std::string(reinterpret_cast<const char*>(&host), 32) + "hello";
    Message_Reader reader;
    size_t used = 0;
    ASSERT_EQ(reader.feed(sent.data(), sent.size(), used), 1);
    EXPECT_EQ(used, sent.size());
    ACE_Message_Block* block = reader.take();
    Message_Header const* const taken = static_cast<Message_Block*>(block)->getHeader();
    EXPECT_EQ(taken->getType(), 17u);
    EXPECT_EQ(taken->getACT(), 77u);
    EXPECT_EQ(taken->getSize(), 5u);
    EXPECT_EQ(Message_Writer::Bytes(block), header(17, 77, 5) + "hello");
    block->release();
}

TEST(MessageWriter, RangesCanBeWrittenInPartsAndASpilledPayloadTwice) {
    TarnwickTest::ScratchCache cache;
    TarnwickTest::BlockLimit limit(1024);
    std::string const payload = pattern(5000, 3);
    std::string const wire = header(5, 8, 5000) + payload;
    Message_Reader reader;
    std::vector<ACE_Message_Block*> messages = feedAll(reader, wire, 700);
    ASSERT_EQ(messages.size(), 1u);
    ASSERT_TRUE(static_cast<Message_Block*>(messages[0])->isStoredOnDisk());
    for (int pass = 0; pass < 2; ++pass) {
        Message_Writer writer(messages[0]);
        std::string out;
        const char* data = nullptr;
        size_t length = 0;
        int status;
        while ((status = writer.next(data, length)) == 1) {
            EXPECT_LE(length, 1024u);
            size_t const part = std::max<size_t>(1, length / 3);
            out.append(data, part);
            writer.advance(part);
        }
        EXPECT_EQ(status, 0);
        EXPECT_TRUE(out == wire) << "pass " << pass;
    }
    releaseAll(messages);
}

TEST(MessageWriter, ABlockThatIsNoMessageGivesNothing) {
    ACE_Message_Block plain(64);
    Message_Writer writer(&plain);
    const char* data = nullptr;
    size_t length = 0;
    errno = 0;
    EXPECT_EQ(writer.next(data, length), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(Message_Writer::Bytes(&plain), "");
    EXPECT_EQ(Message_Writer::Bytes(nullptr), "");
}
