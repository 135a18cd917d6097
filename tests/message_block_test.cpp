#include <tarnwick/act_cache.h>
#include <tarnwick/handler.h>
#include <tarnwick/message_block.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <new>
#include <string>
#include <vector>

#include "block_limit.h"
#include "child.h"
#include "log_capture.h"
#include "scratch_cache.h"

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

// ---------------------------------------------------------------------------
// Payloads past the limit: the spill file in the event cache.

namespace {

std::string fileContent(const char* path) {
    std::string content;
    FILE* file = std::fopen(path, "rb");
    if (file == nullptr)
        return content;
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0)
        content.append(buffer, n);
    std::fclose(file);
    return content;
}

bool exists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

std::string pattern(size_t size, char seed) {
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i)
        text[i] = static_cast<char>(seed + i % 251);
    return text;
}

// A block with the token `act` in its header.
Message_Block* blockWithToken(uint32_t act) {
    Message_Block* block = new Message_Block();
    if (act != 0)
        block->getHeader()->setACT(act);
    block->wr_ptr(32);
    return block;
}

}  // namespace

TEST(MessageBlockSpill, PayloadPastTheLimitGoesToDiskWithNoContinuation) {
    TarnwickTest::ScratchCache cache;
    BlockLimit limit(16384);
    Message_Block* block = blockWithToken(101);
    std::string const data = pattern(16385, 'a');
    EXPECT_EQ(block->write(data.data(), data.size()), 16385);
    EXPECT_TRUE(block->isStoredOnDisk());
    EXPECT_EQ(block->cont(), nullptr);
    ASSERT_NE(block->getFileName(), nullptr);
    EXPECT_EQ(std::string(block->getFileName()), cache.directory() + "/event-101.dat");
    EXPECT_EQ(fileContent(block->getFileName()), data);
    EXPECT_EQ(block->getLength(), 16385u);
    block->release();
}

TEST(MessageBlockSpill, SecondWriteMovesTheFirstIntoTheFileInOrder) {
    TarnwickTest::ScratchCache cache;
    BlockLimit limit(16384);
    Message_Block* block = blockWithToken(102);
    std::string const first = pattern(10000, 'x');
    std::string const second = pattern(10000, 'k');
    EXPECT_EQ(block->write(first.data(), first.size()), 10000);
    EXPECT_FALSE(block->isStoredOnDisk());
    ASSERT_NE(block->cont(), nullptr);
    EXPECT_EQ(block->write(second.data(), second.size()), 10000);
    EXPECT_TRUE(block->isStoredOnDisk());
    EXPECT_EQ(block->cont(), nullptr);
    EXPECT_EQ(fileContent(block->getFileName()), first + second);
    EXPECT_EQ(block->getLength(), 20000u);
    // Once on disk, small writes append to the file too.
    EXPECT_EQ(block->write("z", 1), 1);
    EXPECT_EQ(block->getLength(), 20001u);
    block->release();
}

TEST(MessageBlockSpill, WriteWithoutATokenFails) {
    TarnwickTest::ScratchCache cache;
    BlockLimit limit(16384);
    Message_Block* block = blockWithToken(0);
    std::string const data = pattern(16385, 'a');
    EXPECT_EQ(block->write(data.data(), data.size()), -1);
    EXPECT_FALSE(block->isStoredOnDisk());
    block->release();
}

TEST(MessageBlockSpill, TwoMessagesWithOneTokenShareOneFile) {
    TarnwickTest::ScratchCache cache;
    BlockLimit limit(16384);
    Message_Block* a = blockWithToken(103);
    Message_Block* b = blockWithToken(103);
    std::string const one = pattern(16385, '1');
    std::string const two = pattern(16400, '2');
    ASSERT_EQ(a->write(one.data(), one.size()), 16385);
    ASSERT_EQ(b->write(two.data(), two.size()), 16400);
    EXPECT_STREQ(a->getFileName(), b->getFileName());
    EXPECT_EQ(fileContent(a->getFileName()), one + two);
    a->release();
    b->release();
}

TEST(MessageBlockSpill, ReadGivesFullChunksWithWouldBlockThenZero) {
    TarnwickTest::ScratchCache cache;
    BlockLimit limit(16384);
    Message_Block* block = blockWithToken(104);
    std::string const data = pattern(40000, 'r');
    ASSERT_EQ(block->write(data.data(), data.size()), 40000);
    EXPECT_EQ(block->getActualLength(), 40000u);

    std::string got;
    std::vector<int64_t> counts;
    for (;;) {
        ACE_Message_Block* piece = nullptr;
        errno = 0;
        int64_t const n = block->read(piece);
        counts.push_back(n);
        if (n <= 0) {
            EXPECT_EQ(piece, nullptr);
            break;
        }
        EXPECT_EQ(errno, EWOULDBLOCK);
        ASSERT_NE(piece, nullptr);
        EXPECT_EQ(piece->size(), 16384u);
        got.append(piece->rd_ptr(), piece->length());
        piece->release();
        if (counts.size() == 3) {
            EXPECT_EQ(block->getActualLength(), 0u);
        }
    }
    EXPECT_EQ(counts, (std::vector<int64_t>{16384, 16384, 7232, 0}));
    EXPECT_EQ(got, data);
    // The handle is closed at the end; a new pass starts from the beginning.
    EXPECT_EQ(block->getActualLength(), 40000u);
    block->release();
}

TEST(MessageBlockSpill, ActualLengthOfAFileThatHasGoneIsTheFailedLength) {
    TarnwickTest::ScratchCache cache;
    BlockLimit limit(16384);
    Message_Block* block = blockWithToken(105);
    std::string const data = pattern(16385, 'g');
    ASSERT_EQ(block->write(data.data(), data.size()), 16385);
    ASSERT_EQ(::unlink(block->getFileName()), 0);
    EXPECT_EQ(block->getLength(), 0xFFFFFFFFu);
    EXPECT_EQ(block->getActualLength(), 0xFFFFFFFFu);
    LogCapture capture;
    ACE_Message_Block* piece = nullptr;
    errno = 0;
    EXPECT_EQ(block->read(piece), -1);
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{"%D ERROR (%t): Can not read message data from disk.: No "
                                       "such file or directory"});
    block->release();
}

TEST(MessageBlockSpill, NameCountsAsOnDiskBeforeAnyByte) {
    Message_Block* block = blockWithToken(106);
    EXPECT_FALSE(block->isStoredOnDisk());
    EXPECT_EQ(block->getFileName(), nullptr);
    EXPECT_EQ(block->setFileName("/nonexistent/event-106.dat"), 0);
    EXPECT_TRUE(block->isStoredOnDisk());
    EXPECT_STREQ(block->getFileName(), "/nonexistent/event-106.dat");
    block->release();
}

TEST(MessageBlockSpill, LastReleaseDeletesTheFileAndADuplicateKeepsIt) {
    TarnwickTest::ScratchCache cache;
    BlockLimit limit(16384);
    Message_Block* block = blockWithToken(107);
    std::string const data = pattern(20000, 'd');
    ASSERT_EQ(block->write(data.data(), data.size()), 20000);
    std::string const name = block->getFileName();
    ACE_Message_Block* copy = block->duplicate();
    block->release();
    EXPECT_TRUE(exists(name));
    copy->release();
    EXPECT_FALSE(exists(name));
}

TEST(MessageBlockSpill, ResetDeletesTheFile) {
    TarnwickTest::ScratchCache cache;
    BlockLimit limit(16384);
    Message_Block* block = blockWithToken(108);
    std::string const data = pattern(20000, 'e');
    ASSERT_EQ(block->write(data.data(), data.size()), 20000);
    std::string const name = block->getFileName();
    EXPECT_EQ(block->reset(), 0);
    EXPECT_FALSE(exists(name));
    EXPECT_FALSE(block->isStoredOnDisk());
    EXPECT_EQ(block->getLength(), 0u);
    block->release();
}

TEST(MessageBlockSpill, LargestTokenGivesTenDigits) {
    TarnwickTest::ScratchCache cache;
    std::string file;
    ASSERT_EQ(Tarnwick::ACT_Cache::instance()->path(4294967295u, file), 0);
    EXPECT_EQ(file, cache.directory() + "/event-4294967295.dat");
}

TEST(MessageBlockSpill, TokenZeroHasNoFile) {
    std::string file = "unchanged";
    EXPECT_EQ(Tarnwick::ACT_Cache::instance()->path(0, file), -1);
    EXPECT_EQ(file, "unchanged");
}

TEST(MessageBlockSpill, PlainDataBlockHasNoFile) {
    LogCapture capture;
    BlockRef b;
    b->data_block(new (ACE_Allocator::instance()->malloc(sizeof(ACE_Data_Block))) ACE_Data_Block(
        64, ACE_Message_Block::MB_DATA, nullptr, nullptr, nullptr, 0, ACE_Allocator::instance()));
    EXPECT_EQ(b->getFileName(), nullptr);
    EXPECT_EQ(b->setFileName("x"), -1);
    EXPECT_FALSE(b->isStoredOnDisk());
    std::vector<std::string> lines = capture.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].find("%D ERROR (%t): Tarnwick::Message_Block::getFileName : Program error"),
              0u);
    EXPECT_EQ(lines[1].find("%D ERROR (%t): Tarnwick::Message_Block::setFileName : Program error"),
              0u);
    EXPECT_EQ(
        lines[2].find("%D ERROR (%t): Tarnwick::Message_Block::isStoredOnDisk : Program error"),
        0u);
}

TEST(MessageBlockSpill, UnwritableTemporaryDirectoryPutsFilesInTheWorkingDirectory) {
    char work[] = "/tmp/tarnwick-cwd-XXXXXX";
    ASSERT_NE(mkdtemp(work), nullptr);
    auto result = TarnwickTest::runInChild([&work] {
        if (::chdir(work) != 0)
            return 10;
        ::setenv("TMPDIR", "/proc/tarnwick-none", 1);
        LogCapture capture;
        Tarnwick::ACT_Cache cache;
        if (cache.prepare() != 0)
            return 11;
        if (!cache.directory().empty())
            return 12;
        if (capture.lines() !=
            std::vector<std::string>{"%D ERROR (%t): Can not create path component "
                                     "/proc/tarnwick-none: No such file or directory",
                                     "%D ERROR (%t): Can not make directory "
                                     "/proc/tarnwick-none/event-cache/unknown: No such file or "
                                     "directory"}) {
            std::fprintf(stderr, "%s", capture.text().c_str());
            return 13;
        }
        std::string file;
        if (cache.path(77, file) != 0 || file != "event-77.dat")
            return 14;
        return 0;
    });
    EXPECT_EQ(result.exitCode(), 0) << result.errors;
    ::rmdir(work);
}
