#include <tarnwick/act_cache.h>
#include <tarnwick/handler.h>
#include <tarnwick/message_block.h>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <new>
#include <string>
#include <thread>
#include <tuple>
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

// True when `file` is a spill file of `token` of this process in
// `directory`: "<directory>/event-<token>-<pid>-<8 hex digits>.dat".
::testing::AssertionResult isSpillFile(const std::string& file, const std::string& directory,
                                       uint32_t token) {
    std::string const head = (directory.empty() ? std::string() : directory + "/") + "event-" +
                             std::to_string(token) + "-" + std::to_string(::getpid()) + "-";
    std::string const tail = ".dat";
    bool ok = file.size() == head.size() + 8 + tail.size() &&
              file.compare(0, head.size(), head) == 0 &&
              file.compare(file.size() - tail.size(), tail.size(), tail) == 0;
    for (size_t i = head.size(); ok && i < head.size() + 8; ++i)
        ok = std::isxdigit(static_cast<unsigned char>(file[i])) != 0;
    if (ok)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << file << " is not named " << head << "XXXXXXXX" << tail;
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
    EXPECT_TRUE(isSpillFile(block->getFileName(), cache.directory(), 101));
    EXPECT_EQ(fileContent(block->getFileName()), data);
    EXPECT_EQ(block->getLength(), 16385u);
    EXPECT_EQ(block->getDiskLength(), 16385u);
    struct stat info;
    ASSERT_EQ(::lstat(block->getFileName(), &info), 0);
    EXPECT_TRUE(S_ISREG(info.st_mode));
    EXPECT_EQ(info.st_mode & 07777, 0600u);
    EXPECT_EQ(info.st_uid, ::geteuid());
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

TEST(MessageBlockSpill, TwoMessagesWithOneTokenSpillToDifferentFiles) {
    TarnwickTest::ScratchCache cache;
    BlockLimit limit(16384);
    Message_Block* a = blockWithToken(103);
    Message_Block* b = blockWithToken(103);
    std::string const one = pattern(16385, '1');
    std::string const two = pattern(16400, '2');
    ASSERT_EQ(a->write(one.data(), one.size()), 16385);
    ASSERT_EQ(b->write(two.data(), two.size()), 16400);
    ASSERT_NE(a->getFileName(), nullptr);
    ASSERT_NE(b->getFileName(), nullptr);
    EXPECT_STRNE(a->getFileName(), b->getFileName());
    EXPECT_TRUE(isSpillFile(a->getFileName(), cache.directory(), 103));
    EXPECT_TRUE(isSpillFile(b->getFileName(), cache.directory(), 103));
    EXPECT_EQ(fileContent(a->getFileName()), one);
    EXPECT_EQ(fileContent(b->getFileName()), two);
    // Ending one leaves the other whole.
    std::string const second = b->getFileName();
    a->release();
    EXPECT_TRUE(exists(second));
    EXPECT_EQ(fileContent(second.c_str()), two);
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

TEST(MessageBlockSpill, AFileUnlinkedUnderASpilledPayloadStillReadsWhole) {
    TarnwickTest::ScratchCache cache;
    BlockLimit limit(16384);
    Message_Block* block = blockWithToken(105);
    std::string const data = pattern(20000, 'g');
    ASSERT_EQ(block->write(data.data(), data.size()), 20000);
    ASSERT_EQ(::unlink(block->getFileName()), 0);
    EXPECT_EQ(block->getLength(), 20000u);
    std::string got;
    ACE_Message_Block* piece = nullptr;
    while (block->read(piece) > 0) {
        got.append(piece->rd_ptr(), piece->length());
        piece->release();
        piece = nullptr;
    }
    EXPECT_EQ(got, data);
    block->release();
}

TEST(MessageBlockSpill, ActualLengthOfAFileThatHasGoneIsTheFailedLength) {
    TarnwickTest::ScratchCache cache;
    Message_Block* block = blockWithToken(105);
    std::string const name = cache.directory() + "/event-105-gone.dat";
    ASSERT_EQ(block->setFileName(name.c_str()), 0);
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
    EXPECT_TRUE(isSpillFile(file, cache.directory(), 4294967295u));
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
        if (cache.path(77, file) != 0 || !isSpillFile(file, "", 77))
            return 14;
        return 0;
    });
    EXPECT_EQ(result.exitCode(), 0) << result.errors;
    ::rmdir(work);
}

// ---------------------------------------------------------------------------
// One spilled message read by several sends: each duplicate has its own
// offset into the file.

namespace {

// Reads `block` to its end, one piece at a time.
std::string readAll(Message_Block* block) {
    std::string got;
    for (;;) {
        ACE_Message_Block* piece = nullptr;
        int64_t const n = block->read(piece);
        if (n <= 0)
            break;
        got.append(piece->rd_ptr(), piece->length());
        piece->release();
    }
    return got;
}

Message_Block* spilled(uint32_t act, const std::string& data) {
    Message_Block* block = blockWithToken(act);
    if (block->write(data.data(), data.size()) != static_cast<int64_t>(data.size()))
        ADD_FAILURE() << "spill of " << data.size() << " bytes failed";
    return block;
}

}  // namespace

TEST(MessageBlockSpill, TwoDuplicatesReadInTurnEachGetEveryByte) {
    TarnwickTest::ScratchCache cache;
    BlockLimit limit(16384);
    std::string const data = pattern(50000, 'p');
    Message_Block* original = spilled(110, data);
    auto* one = static_cast<Message_Block*>(original->duplicate());
    auto* two = static_cast<Message_Block*>(original->duplicate());
    ASSERT_NE(one, nullptr);
    ASSERT_NE(two, nullptr);

    std::string got_one, got_two;
    bool more_one = true, more_two = true;
    while (more_one || more_two) {
        for (auto [block, got, more] :
             {std::tie(one, got_one, more_one), std::tie(two, got_two, more_two)}) {
            if (!more)
                continue;
            uint32_t const left = block->getActualLength();
            EXPECT_EQ(left, data.size() - got.size());
            ACE_Message_Block* piece = nullptr;
            int64_t const n = block->read(piece);
            if (n <= 0) {
                more = false;
                continue;
            }
            got.append(piece->rd_ptr(), piece->length());
            piece->release();
        }
    }
    EXPECT_EQ(got_one, data);
    EXPECT_EQ(got_two, data);
    // The original was never read: it still has the whole payload ahead.
    EXPECT_EQ(original->getActualLength(), 50000u);
    EXPECT_EQ(readAll(original), data);
    one->release();
    two->release();
    original->release();
}

TEST(MessageBlockSpill, ADuplicateReadsOnFromWhereItsOriginalStood) {
    TarnwickTest::ScratchCache cache;
    BlockLimit limit(16384);
    std::string const data = pattern(40000, 'o');
    Message_Block* original = spilled(111, data);
    ACE_Message_Block* piece = nullptr;
    ASSERT_EQ(original->read(piece), 16384);
    piece->release();
    auto* copy = static_cast<Message_Block*>(original->duplicate());
    EXPECT_EQ(copy->getActualLength(), 40000u - 16384u);
    EXPECT_EQ(readAll(copy), data.substr(16384));
    // Reading the duplicate moved nothing of the original.
    EXPECT_EQ(original->getActualLength(), 40000u - 16384u);
    EXPECT_EQ(readAll(original), data.substr(16384));
    copy->release();
    original->release();
}

TEST(MessageBlockSpill, DuplicatesReadSideBySideOnTwoThreads) {
    TarnwickTest::ScratchCache cache;
    BlockLimit limit(16384);
    std::string const data = pattern(300000, 't');
    Message_Block* original = spilled(112, data);
    for (int round = 0; round < 4; ++round) {
        // Two sends of one broadcast, each on a thread of its own, both
        // starting before either has opened the file for reading.
        Message_Block* shared = spilled(113 + round, data);
        auto* one = static_cast<Message_Block*>(shared->duplicate());
        auto* two = static_cast<Message_Block*>(shared->duplicate());
        shared->release();
        std::string got_one, got_two;
        std::thread first([&] { got_one = readAll(one); });
        std::thread second([&] { got_two = readAll(two); });
        first.join();
        second.join();
        EXPECT_EQ(got_one, data);
        EXPECT_EQ(got_two, data);
        // The last reference may go on either thread.
        std::thread end([one] { one->release(); });
        two->release();
        end.join();
    }
    original->release();
}

TEST(MessageBlockSpill, DiskLengthCountsOnlyTheSpilledBytes) {
    TarnwickTest::ScratchCache cache;
    BlockLimit limit(16384);
    Message_Block* block = blockWithToken(120);
    ASSERT_EQ(block->write("small", 5), 5);
    EXPECT_EQ(block->getDiskLength(), 0u);
    std::string const more = pattern(20000, 'l');
    ASSERT_EQ(block->write(more.data(), more.size()), 20000);
    EXPECT_EQ(block->getDiskLength(), 20005u);
    ASSERT_EQ(block->write("!", 1), 1);
    EXPECT_EQ(block->getDiskLength(), 20006u);
    auto* copy = static_cast<Message_Block*>(block->duplicate());
    EXPECT_EQ(copy->getDiskLength(), 20006u);
    copy->release();
    block->reset();
    EXPECT_EQ(block->getDiskLength(), 0u);
    block->release();
}

// ---------------------------------------------------------------------------
// Spill files are named and created by this process alone.

TEST(MessageBlockSpill, ASymlinkPlantedAtTheNextNameIsNotFollowed) {
    TarnwickTest::ScratchCache cache;
    BlockLimit limit(16384);
    char target_dir[] = "/tmp/tarnwick-target-XXXXXX";
    ASSERT_NE(mkdtemp(target_dir), nullptr);
    std::string const target = std::string(target_dir) + "/victim";
    {
        FILE* victim = std::fopen(target.c_str(), "wb");
        ASSERT_NE(victim, nullptr);
        std::fputs("precious", victim);
        std::fclose(victim);
    }
    // Symbolic links at the next two names that this process would choose:
    // both are passed over for the third.
    std::string candidate;
    ASSERT_EQ(Tarnwick::ACT_Cache::instance()->path(121, candidate), 0);
    ASSERT_TRUE(isSpillFile(candidate, cache.directory(), 121));
    size_t const serial_at = candidate.size() - 12;
    uint32_t const serial =
        static_cast<uint32_t>(std::stoul(candidate.substr(serial_at, 8), nullptr, 16));
    auto nameWith = [&](uint32_t next) {
        char text[16];
        std::snprintf(text, sizeof text, "%08x", next);
        return candidate.substr(0, serial_at) + text + ".dat";
    };
    std::string const planted = nameWith(serial + 1);
    std::string const planted_too = nameWith(serial + 2);
    std::string const dangling = cache.directory() + "/event-121-dangling.dat";
    ASSERT_EQ(::symlink(target.c_str(), planted.c_str()), 0);
    ASSERT_EQ(::symlink((std::string(target_dir) + "/absent").c_str(), planted_too.c_str()), 0);

    Message_Block* block = blockWithToken(121);
    std::string const data = pattern(16385, 's');
    ASSERT_EQ(block->write(data.data(), data.size()), 16385);
    ASSERT_NE(block->getFileName(), nullptr);
    EXPECT_EQ(std::string(block->getFileName()), nameWith(serial + 3));
    EXPECT_EQ(fileContent(block->getFileName()), data);
    EXPECT_EQ(fileContent(target.c_str()), "precious");
    block->release();

    // A file named by the caller is not followed either.
    ASSERT_EQ(::symlink(target.c_str(), dangling.c_str()), 0);
    LogCapture capture;
    Message_Block* named = blockWithToken(122);
    ASSERT_EQ(named->setFileName(dangling.c_str()), 0);
    errno = 0;
    EXPECT_EQ(named->write(data.data(), data.size()), -1);
    EXPECT_EQ(capture.lines(), std::vector<std::string>{"%D ERROR (%t): Can not open file for "
                                                        "writing.: Too many levels of symbolic "
                                                        "links"});
    ACE_Message_Block* piece = nullptr;
    EXPECT_EQ(named->read(piece), -1);
    EXPECT_EQ(fileContent(target.c_str()), "precious");
    ASSERT_EQ(named->setFileName(nullptr), 0);
    named->release();

    EXPECT_EQ(fileContent(target.c_str()), "precious");
    struct stat info;
    EXPECT_NE(::lstat((std::string(target_dir) + "/absent").c_str(), &info), 0);
    ::unlink(planted.c_str());
    ::unlink(planted_too.c_str());
    ::unlink(dangling.c_str());
    ::unlink(target.c_str());
    ::rmdir(target_dir);
}

// ---------------------------------------------------------------------------
// The quota of spilled bytes.

namespace {

// Sets the event cache's quota for the length of a scope.
class QuotaLimit {
public:
    explicit QuotaLimit(uint64_t bytes) : old_(Tarnwick::ACT_Cache::instance()->setQuota(bytes)) {}
    ~QuotaLimit() { Tarnwick::ACT_Cache::instance()->setQuota(old_); }
    QuotaLimit(const QuotaLimit&) = delete;
    QuotaLimit& operator=(const QuotaLimit&) = delete;

private:
    uint64_t old_;
};

}  // namespace

TEST(MessageBlockSpill, SpilledBytesCountUntilTheFileIsDeleted) {
    TarnwickTest::ScratchCache cache;
    BlockLimit limit(16384);
    Tarnwick::ACT_Cache* const act = Tarnwick::ACT_Cache::instance();
    uint64_t const before = act->spilledBytes();
    Message_Block* block = blockWithToken(130);
    std::string const first = pattern(10000, 'q');
    ASSERT_EQ(block->write(first.data(), first.size()), 10000);
    EXPECT_EQ(act->spilledBytes(), before);
    ASSERT_EQ(block->write(first.data(), first.size()), 10000);
    EXPECT_EQ(act->spilledBytes(), before + 20000);
    auto* copy = block->duplicate();
    block->release();
    EXPECT_EQ(act->spilledBytes(), before + 20000);
    copy->release();
    EXPECT_EQ(act->spilledBytes(), before);
}

TEST(MessageBlockSpill, AWritePastTheQuotaFailsAndWritesNothing) {
    TarnwickTest::ScratchCache cache;
    BlockLimit limit(16384);
    Tarnwick::ACT_Cache* const act = Tarnwick::ACT_Cache::instance();
    QuotaLimit quota(act->spilledBytes() + 30000);
    uint64_t const before = act->spilledBytes();

    // The first spill alone would pass it: no file at all.
    {
        LogCapture capture;
        Message_Block* block = blockWithToken(131);
        std::string const big = pattern(30001, 'b');
        errno = 0;
        EXPECT_EQ(block->write(big.data(), big.size()), -1);
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_FALSE(block->isStoredOnDisk());
        EXPECT_EQ(act->spilledBytes(), before);
        char line[128];
        std::snprintf(line, sizeof line,
                      "%%D ERROR (%%t): Event cache quota of %llu bytes exceeded.",
                      static_cast<unsigned long long>(act->quota()));
        EXPECT_EQ(capture.lines(), std::vector<std::string>{line});
        block->release();
    }

    // A later chunk that would pass it: the file keeps what it had.
    Message_Block* block = blockWithToken(132);
    std::string const chunk = pattern(16385, 'c');
    ASSERT_EQ(block->write(chunk.data(), chunk.size()), 16385);
    EXPECT_EQ(act->spilledBytes(), before + 16385);
    {
        LogCapture capture;
        errno = 0;
        EXPECT_EQ(block->write(chunk.data(), chunk.size()), -1);
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_EQ(capture.lines().size(), 1u);
    }
    EXPECT_EQ(fileContent(block->getFileName()), chunk);
    EXPECT_EQ(block->getLength(), 16385u);
    EXPECT_EQ(act->spilledBytes(), before + 16385);
    // Up to the quota exactly is allowed.
    std::string const rest = pattern(30000 - 16385, 'r');
    EXPECT_EQ(block->write(rest.data(), rest.size()), static_cast<int64_t>(rest.size()));
    EXPECT_EQ(act->spilledBytes(), before + 30000);
    block->release();
    EXPECT_EQ(act->spilledBytes(), before);
}

// ---------------------------------------------------------------------------
// Blocks kept for reuse and references counted across threads.

TEST(MessageBlockReuse, ABlockMadeAfterARelease) {
    // The released block's memory (header, payload block) is what the next
    // block of this thread is made of; none of its old state shows.
    Message_Block* first = new Message_Block();
    Tarnwick::Message_Header* header = first->getHeader();
    header->setACT(77);
    header->setAgentID(5);
    header->setType(9);
    header->setFlags(0x16);
    header->setSize(11);
    header->setState(3);
    first->wr_ptr(32);
    first->rd_ptr(12);
    std::string const old_payload(200, 'x');
    ASSERT_EQ(first->write(old_payload.data(), old_payload.size()), 200);
    ACE_Message_Block* old_payload_block = first->cont();
    ACE_Data_Block* const old_data = first->data_block();
    first->release();

    Message_Block* second = new Message_Block();
#if !defined(__SANITIZE_ADDRESS__)
    // (The AddressSanitizer build keeps no released blocks.)
    EXPECT_EQ(static_cast<void*>(second), static_cast<void*>(first));
    EXPECT_EQ(second->data_block(), old_data);
#else
    (void)old_data;
#endif
    const Tarnwick::Message_Header* fresh = second->getHeader();
    ASSERT_NE(fresh, nullptr);
    EXPECT_TRUE(fresh->isReadable());
    EXPECT_EQ(fresh->getACT(), 0u);
    EXPECT_EQ(fresh->getAgentID(), 0u);
    EXPECT_EQ(fresh->getType(), 0u);
    EXPECT_EQ(fresh->getFlags(), 0u);
    EXPECT_EQ(fresh->getSize(), 0u);
    EXPECT_EQ(fresh->getState(), 0u);
    const char* raw = second->data_block()->base();
    for (size_t i = 24; i < 32; ++i)
        EXPECT_EQ(raw[i], 0) << "header byte " << i;
    EXPECT_EQ(second->rd_ptr(), second->base());
    EXPECT_EQ(second->wr_ptr(), second->base());
    EXPECT_EQ(second->cont(), nullptr);
    EXPECT_EQ(second->getLength(), 0u);
    EXPECT_EQ(second->getFileName(), nullptr);
    EXPECT_EQ(second->spilledOffset(), 0u);
    EXPECT_EQ(second->data_block()->reference_count(), 1);
    EXPECT_EQ(second->data_block()->msg_type(), ACE_Message_Block::MB_DATA);

    // The new payload block holds the new bytes only.
    second->wr_ptr(32);
    ASSERT_EQ(second->write("abc", 3), 3);
#if !defined(__SANITIZE_ADDRESS__)
    EXPECT_EQ(second->cont(), old_payload_block);
#else
    (void)old_payload_block;
#endif
    EXPECT_EQ(second->getLength(), 3u);
    ACE_Message_Block* piece = nullptr;
    ASSERT_EQ(second->read(piece), 3);
    EXPECT_EQ(payloadOf(piece), "abc");
    piece->release();
    second->release();
}

TEST(MessageBlockReuse, ClosingMarkDoesNotOutliveItsMessage) {
    Message_Block* first = new Message_Block();
    first->data_block()->msg_type(ACE_Message_Block::MB_HANGUP);
    first->release();
    BlockRef second;
    EXPECT_EQ(second->data_block()->msg_type(), ACE_Message_Block::MB_DATA);
}

TEST(MessageBlockReuse, DuplicateReleasedOnAnotherThreadLeavesTheOriginalWhole) {
    Message_Block* block = new Message_Block();
    block->wr_ptr(32);
    ASSERT_EQ(block->write("payload", 7), 7);
    ACE_Message_Block* copy = block->duplicate();
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(block->data_block()->reference_count(), 2);
    std::thread worker([copy] {
        ACE_Message_Block* piece = nullptr;
        EXPECT_EQ(static_cast<Message_Block*>(copy)->read(piece), 7);
        if (piece != nullptr) {
            EXPECT_EQ(payloadOf(piece), "payload");
            piece->release();
        }
        copy->release();
    });
    worker.join();
    EXPECT_EQ(block->data_block()->reference_count(), 1);
    EXPECT_EQ(block->getLength(), 7u);
    ACE_Message_Block* piece = nullptr;
    ASSERT_EQ(block->read(piece), 7);
    EXPECT_EQ(payloadOf(piece), "payload");
    piece->release();
    block->release();
}

TEST(MessageBlockReuse, BlocksReleasedOnManyThreadsAtOnce) {
    // Each thread takes and releases its duplicates of shared blocks while
    // the others do the same: the counts stay exact (the sanitizers check
    // the rest).
    const int blocks = 64;
    std::vector<Message_Block*> shared;
    for (int i = 0; i < blocks; ++i) {
        Message_Block* block = new Message_Block();
        block->wr_ptr(32);
        std::string const text = "event " + std::to_string(i);
        EXPECT_EQ(block->write(text.data(), text.size()), static_cast<int64_t>(text.size()));
        shared.push_back(block);
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&shared] {
            for (int round = 0; round < 200; ++round) {
                std::vector<ACE_Message_Block*> mine;
                for (Message_Block* block : shared)
                    mine.push_back(block->duplicate());
                for (ACE_Message_Block* copy : mine) {
                    if (copy != nullptr)
                        copy->release();
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (int i = 0; i < blocks; ++i) {
        EXPECT_EQ(shared[i]->data_block()->reference_count(), 1);
        ACE_Message_Block* piece = nullptr;
        ASSERT_GT(shared[i]->read(piece), 0);
        EXPECT_EQ(payloadOf(piece), "event " + std::to_string(i));
        piece->release();
        shared[i]->release();
    }
}

TEST(MessageBlockReuse, SpillFileGoesWithTheLastReleaseOnAnotherThread) {
    TarnwickTest::ScratchCache cache;
    BlockLimit limit(16384);
    Message_Block* block = blockWithToken(131);
    std::string const data = pattern(20000, 'k');
    ASSERT_EQ(block->write(data.data(), data.size()), 20000);
    std::string const name = block->getFileName();
    ACE_Message_Block* copy = block->duplicate();
    block->release();
    EXPECT_TRUE(exists(name));
    std::thread worker([copy] { copy->release(); });
    worker.join();
    EXPECT_FALSE(exists(name));
}

TEST(MessageBlockReuse, AThreadThatEndsGivesItsKeptBlocksBack) {
    // Blocks made and released on a thread that then ends: the leak checker
    // of the sanitizer build sees none of them left.
    std::thread worker([] {
        std::vector<Message_Block*> made;
        for (int i = 0; i < 1000; ++i) {
            Message_Block* block = new Message_Block();
            block->wr_ptr(32);
            EXPECT_EQ(block->write("x", 1), 1);
            made.push_back(block);
        }
        for (Message_Block* block : made)
            block->release();
    });
    worker.join();
    BlockRef after;
    EXPECT_EQ(after->getLength(), 0u);
}

TEST(MessageBlockReuse, APlainDataBlockSetByHandIsReleasedByACE) {
    LogCapture capture;
    Message_Block* block = new Message_Block();
    block->data_block(new (ACE_Allocator::instance()->malloc(sizeof(ACE_Data_Block)))
                          ACE_Data_Block(64, ACE_Message_Block::MB_DATA, nullptr, nullptr, nullptr,
                                         0, ACE_Allocator::instance()));
    ACE_Message_Block* copy = block->duplicate();
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->data_block(), block->data_block());
    EXPECT_EQ(block->data_block()->reference_count(), 2);
    copy->release();
    EXPECT_EQ(block->data_block()->reference_count(), 1);
    block->release();
}
