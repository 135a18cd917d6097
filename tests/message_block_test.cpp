#include <tarnwick/handler.h>
#include <tarnwick/message_block.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <new>
#include <string>
#include <vector>

#include "block_limit.h"
#include "log_capture.h"

using Tarnwick::Data_Block;
using Tarnwick::Message_Block;
using Tarnwick::Message_Block_Guard;
using TarnwickTest::BlockLimit;
using TarnwickTest::LogCapture;

namespace {

// Owns one reference to a new Message_Block.
struct BlockRef {
    Message_Block* block = new Message_Block();
    ~BlockRef() {
        if (block != nullptr)
            block->release();
    }
    Message_Block* operator->() { return block; }
};

std::string payloadOf(ACE_Message_Block* piece) {
    return std::string(piece->rd_ptr(), piece->length());
}

}  // namespace

TEST(MessageBlock, NewBlockHasAnOpenedHeaderAndNoPayload) {
    LogCapture capture;
    BlockRef b;
    ASSERT_NE(b->getHeader(), nullptr);
    EXPECT_TRUE(b->getHeader()->isReadable());
    EXPECT_EQ(b->getLength(), 0u);
    EXPECT_EQ(b->getActualLength(), 0u);
    EXPECT_EQ(b->getSize(), 0u);
    EXPECT_EQ(b->cont(), nullptr);
    EXPECT_EQ(b->length(), 0u);
    EXPECT_NE(b->data_block()->flags() & Data_Block::DATA_BLOCK_FLAG, 0u);
    EXPECT_NE(b->self_flags() & Message_Block::MESSAGE_BLOCK_FLAG, 0u);
    EXPECT_EQ(b->data_block()->capacity(), 32u);
    EXPECT_TRUE(capture.lines().empty());
}

TEST(MessageBlock, BlocksShareTheProcessWideLock) {
    BlockRef b;
    ASSERT_NE(Message_Block::LockingStrategy(), nullptr);
    EXPECT_EQ(Message_Block::LockingStrategy(), Message_Block::LockingStrategy());
    EXPECT_EQ(b->data_block()->locking_strategy(), Message_Block::LockingStrategy());
    ASSERT_EQ(b->write("abc", 3), 3);
    EXPECT_EQ(b->cont()->data_block()->locking_strategy(), Message_Block::LockingStrategy());
}

TEST(MessageBlock, WriteOfLengthZeroReturnsZeroAndChangesNothing) {
    BlockRef b;
    EXPECT_EQ(b->write("abc", 0), 0);
    EXPECT_EQ(b->cont(), nullptr);
    EXPECT_EQ(b->getLength(), 0u);
}

TEST(MessageBlock, WriteOfNullDataFails) {
    BlockRef b;
    EXPECT_EQ(b->write(nullptr, 5), -1);
    EXPECT_EQ(b->cont(), nullptr);
}

TEST(MessageBlock, PayloadOfExactlyTheLimitStaysInMemory) {
    BlockLimit limit(16384);
    BlockRef b;
    std::vector<char> data(16384, 'x');
    EXPECT_EQ(b->write(data.data(), data.size()), 16384);
    ASSERT_NE(b->cont(), nullptr);
    EXPECT_EQ(b->cont()->size(), 16384u);
    EXPECT_EQ(b->getLength(), 16384u);
    EXPECT_EQ(b->getActualLength(), 16384u);
}

TEST(MessageBlock, PayloadAboveTheLimitIsRefusedWithoutHarm) {
    BlockLimit limit(16384);
    BlockRef b;
    std::vector<char> data(16385, 'y');
    errno = 0;
    EXPECT_EQ(b->write(data.data(), data.size()), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(b->cont(), nullptr);
    EXPECT_EQ(b->getLength(), 0u);

    // Crossing the limit on a later write keeps what was written before.
    EXPECT_EQ(b->write(data.data(), 10000), 10000);
    EXPECT_EQ(b->write(data.data(), 10000), -1);
    EXPECT_EQ(b->getLength(), 10000u);
}

TEST(MessageBlock, WritesAppendInOrderAndGrowExactly) {
    BlockRef b;
    EXPECT_EQ(b->write("hello ", 6), 6);
    EXPECT_EQ(b->write("world", 5), 5);
    ASSERT_NE(b->cont(), nullptr);
    EXPECT_EQ(b->cont()->size(), 11u);
    EXPECT_EQ(b->cont()->msg_type(), ACE_Message_Block::MB_DATA);
    EXPECT_EQ(payloadOf(b->cont()), "hello world");
    EXPECT_EQ(b->getLength(), 11u);
}

TEST(MessageBlock, ReadGivesTheWholePayloadInOnePieceThenZero) {
    BlockRef b;
    ASSERT_EQ(b->write("payload", 7), 7);
    ACE_Message_Block* piece = nullptr;
    errno = 0;
    EXPECT_EQ(b->read(piece), 7);
    EXPECT_EQ(errno, 0);
    ASSERT_NE(piece, nullptr);
    EXPECT_EQ(payloadOf(piece), "payload");
    EXPECT_EQ(b->getActualLength(), 0u);
    piece->release();

    ACE_Message_Block* second = nullptr;
    EXPECT_EQ(b->read(second), 0);
    EXPECT_EQ(second, nullptr);
}

TEST(MessageBlock, ReadWithoutPayloadGivesZero) {
    BlockRef b;
    ACE_Message_Block* piece = nullptr;
    EXPECT_EQ(b->read(piece), 0);
    EXPECT_EQ(piece, nullptr);
}

TEST(MessageBlock, ResetDropsThePayloadAndKeepsTheHeader) {
    BlockRef b;
    b->getHeader()->setACT(42);
    ASSERT_EQ(b->write("abc", 3), 3);
    EXPECT_EQ(b->reset(), 0);
    EXPECT_EQ(b->cont(), nullptr);
    EXPECT_EQ(b->getLength(), 0u);
    EXPECT_EQ(b->getHeader()->getACT(), 42u);
}

TEST(MessageBlock, GetSizeReadsTheHeaderOnlyWhenReadable) {
    BlockRef b;
    b->getHeader()->setSize(1234);
    EXPECT_EQ(b->getSize(), 1234u);
    b->getHeader()->encode();
    EXPECT_EQ(b->getSize(), 0u);
    b->getHeader()->decode();
    EXPECT_EQ(b->getSize(), 1234u);
}

TEST(MessageBlock, DuplicateIsAMessageBlockSharingHeaderAndPayload) {
    BlockRef b;
    ASSERT_EQ(b->write("shared", 6), 6);
    b->wr_ptr(32);
    ACE_Message_Block* copy = b->duplicate();
    ASSERT_NE(copy, nullptr);
    Message_Block* typed = dynamic_cast<Message_Block*>(copy);
    ASSERT_NE(typed, nullptr);
    EXPECT_EQ(typed->getHeader(), b->getHeader());
    EXPECT_EQ(typed->data_block(), b->data_block());
    EXPECT_EQ(typed->length(), 32u);
    EXPECT_EQ(b->data_block()->reference_count(), 2);
    ASSERT_NE(typed->cont(), nullptr);
    EXPECT_EQ(payloadOf(typed->cont()), "shared");
    copy->release();
    EXPECT_EQ(b->data_block()->reference_count(), 1);
}

TEST(MessageBlock, PlainDataBlockIsReportedByEveryCheckedOperation) {
    LogCapture capture;
    BlockRef b;
    ACE_Data_Block* plain = new (ACE_Allocator::instance()->malloc(sizeof(ACE_Data_Block)))
        ACE_Data_Block(64, ACE_Message_Block::MB_DATA, nullptr, nullptr, nullptr, 0,
                       ACE_Allocator::instance());
    b->data_block(plain);
    char pointer[32];
    std::snprintf(pointer, sizeof pointer, "%x",
                  static_cast<unsigned>(reinterpret_cast<uintptr_t>(plain)));
    auto line = [&](const char* name) {
        return std::string("%D ERROR (%t): Tarnwick::Message_Block::") + name +
               " : Program error, invalid datablock " + pointer + " ";
    };

    b->getLength();
    b->getSize();
    b->getActualLength();
    b->reset();
    ACE_Message_Block* piece = nullptr;
    b->read(piece);
    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{line("getLength"), line("getSize"), line("getActualLength"),
                                        line("reset"), line("read")}));
}

TEST(MessageBlock, GuardReleasesAndNullsTheVariable) {
    ACE_Message_Block* block = new Message_Block();
    ACE_Message_Block* copy = block->duplicate();
    { Message_Block_Guard guard(copy); }
    EXPECT_EQ(copy, nullptr);
    EXPECT_EQ(block->data_block()->reference_count(), 1);
    { Message_Block_Guard guard(block); }
    EXPECT_EQ(block, nullptr);

    ACE_Message_Block* nothing = nullptr;
    { Message_Block_Guard guard(nothing); }
    EXPECT_EQ(nothing, nullptr);
}
