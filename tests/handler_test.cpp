// Connections driven by hand, without an engine: a handler on one end of a
// loopback connection, raw bytes or a second handler on the other.
#include <tarnwick/handler.h>
#include <tarnwick/handler_t.h>
#include <tarnwick/message_block.h>

#include <ace/INET_Addr.h>
#include <ace/OS_NS_unistd.h>
#include <ace/Reactor.h>
#include <ace/SOCK_Acceptor.h>
#include <ace/SOCK_Connector.h>
#include <ace/SOCK_Stream.h>
#include <ace/Time_Value.h>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <dirent.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "block_limit.h"
#include "log_capture.h"
#include "log_lines.h"
#include "loopback.h"
#include "scratch_cache.h"
#include "zero_copy.h"

using Tarnwick::Handler;
using Tarnwick::Message_Block;
using Tarnwick::Message_Header;
using Tarnwick::PlainHandler;
using Tarnwick::Sig_Pipe_Guard;
using TarnwickTest::BlockLimit;
using TarnwickTest::Lines;
using TarnwickTest::Listener;
using TarnwickTest::LogCapture;
using TarnwickTest::ScratchCache;
using TarnwickTest::ZeroCopyCalls;

namespace {

// A PlainHandler with its messages in flight in view, and a mark of its end.
class ProbeHandler : public PlainHandler {
public:
    explicit ProbeHandler(bool* gone = nullptr) : m_gone(gone) {}

    ACE_Message_Block* incoming() const { return m_reader.partial(); }
    // A message is under way, and the payload bytes of it held in memory.
    bool writing() const { return m_writer != nullptr; }
    size_t outgoingBuffered() const { return m_writer ? m_writer->buffered() : 0; }

protected:
    ~ProbeHandler() override {
        if (m_gone != nullptr)
            *m_gone = true;
    }

private:
    bool* m_gone;
};

// A handler under test, opened without an engine, and the raw socket at the
// far end of its connection.
struct Link {
    Listener listener;
    bool gone = false;
    ProbeHandler* handler = new ProbeHandler(&gone);
    ACE_SOCK_Stream peer;

    Link() {
        ACE_SOCK_Connector connector;
        EXPECT_EQ(connector.connect(handler->peer(), listener.address()), 0);
        EXPECT_EQ(listener.accept(peer), 0);
        EXPECT_EQ(handler->open(), 0);
        // A test that waits for bytes that never come fails instead of hanging.
        struct timeval limit = {5, 0};
        handler->peer().set_option(SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    ~Link() {
        if (handler != nullptr) {
            handler->close();
            handler->release();
        }
        peer.close();
    }

    void write(const std::string& bytes) {
        ASSERT_EQ(peer.send_n(bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    std::string read(size_t count) {
        std::string bytes(count, '\0');
        ACE_Time_Value wait(5);
        ssize_t const got = peer.recv_n(&bytes[0], count, &wait);
        bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return bytes;
    }
    void closePeer() { peer.close(); }
    // Ends the connection with a reset instead of an orderly close.
    void resetPeer() {
        struct linger abort = {1, 0};
        peer.set_option(SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
        peer.close();
    }
};

// The 32 wire bytes of a header.
std::string header(uint32_t act, uint32_t size, uint32_t flags = 0) {
    Message_Header h;
    h.setACT(act);
    h.setSize(size);
    h.setFlags(flags);
    h.setType(7);
    h.encode();
    return std::string(reinterpret_cast<const char*>(&h), sizeof h);
}

std::string pattern(size_t count, char first = 'a') {
    std::string text(count, '\0');
    for (size_t i = 0; i < count; ++i)
        text[i] = static_cast<char>(first + i % 23);
    return text;
}

// The 32 wire bytes of a header without a token.
std::string headerWithoutToken(uint32_t size) {
    std::string wire = header(1, size);
    wire.replace(4, 4, 4, '\0');
    return wire;
}

// A message to send: header in host order, `payload` behind it.
Message_Block* message(uint32_t act, const std::string& payload) {
    auto* block = new Message_Block();
    block->getHeader()->setACT(act);
    block->getHeader()->setSize(static_cast<uint32_t>(payload.size()));
    block->getHeader()->setType(7);
    block->wr_ptr(32);
    if (!payload.empty()) {
        EXPECT_EQ(block->write(payload.data(), payload.size()),
                  static_cast<int64_t>(payload.size()));
    }
    return block;
}

// Calls recv until it gives something other than "call again" (at most 5
// seconds of waiting for each read).
int64_t receive(Handler* handler, ACE_Message_Block*& block) {
    ACE_Time_Value wait(5);
    for (int i = 0; i < 100000; ++i) {
        errno = 0;
        int64_t const result = handler->recv(block, &wait);
        if (result != -1 || errno != EWOULDBLOCK)
            return result;
    }
    return -1;
}

// As receive(), without a time limit (the socket's own receive timeout of
// the Link still bounds each read): the way an engine calls recv, which
// lets a spilled payload be spliced.
int64_t receiveWithoutLimit(Handler* handler, ACE_Message_Block*& block) {
    for (int i = 0; i < 100000; ++i) {
        errno = 0;
        int64_t const result = handler->recv(block, nullptr);
        if (result != -1 || errno != EWOULDBLOCK)
            return result;
    }
    return -1;
}

// The in-memory payload of a received block.
std::string payloadOf(ACE_Message_Block* block) {
    ACE_Message_Block* cont = block->cont();
    return cont != nullptr ? std::string(cont->rd_ptr(), cont->length()) : std::string();
}

std::string fileContent(const char* name) {
    std::string content;
    if (FILE* file = std::fopen(name, "rb")) {
        char buffer[65536];
        size_t count;
        while ((count = std::fread(buffer, 1, sizeof buffer, file)) > 0)
            content.append(buffer, count);
        std::fclose(file);
    }
    return content;
}

bool exists(const std::string& path) {
    struct stat info;
    return ::stat(path.c_str(), &info) == 0;
}

// The descriptors open in this process.
size_t openDescriptors() {
    size_t count = 0;
    if (DIR* dir = ::opendir("/proc/self/fd")) {
        while (::readdir(dir) != nullptr)
            ++count;
        ::closedir(dir);
    }
    return count;
}

int socketOption(ACE_HANDLE handle, int level, int name) {
    int value = -1;
    socklen_t length = sizeof value;
    ::getsockopt(handle, level, name, &value, &length);
    return value;
}

// A SHA-256 digest, fed piece by piece.
class Digest {
public:
    Digest() : m_context(EVP_MD_CTX_new()) { EVP_DigestInit_ex(m_context, EVP_sha256(), nullptr); }
    ~Digest() { EVP_MD_CTX_free(m_context); }
    Digest(const Digest&) = delete;
    Digest& operator=(const Digest&) = delete;

    void update(const void* data, size_t count) { EVP_DigestUpdate(m_context, data, count); }
    std::string finish() {
        unsigned char value[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        EVP_DigestFinal_ex(m_context, value, &length);
        return std::string(reinterpret_cast<char*>(value), length);
    }

private:
    EVP_MD_CTX* m_context;
};

}  // namespace

TEST(Handler, DataBlockSizeIs131072AtLoad) {
    EXPECT_EQ(Tarnwick::Handler::Data_Block_Size, 131072u);
}

// ---------------------------------------------------------------------------
// Opening, closing, references

TEST(Handler, OpenWithoutEngineSetsSocketOptionsAndQueueMark) {
    LogCapture capture;
    Link link;
    ACE_HANDLE const handle = link.handler->get_handle();
    ASSERT_NE(handle, ACE_INVALID_HANDLE);
    EXPECT_EQ(socketOption(handle, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_NE(socketOption(handle, IPPROTO_TCP, TCP_NODELAY), 0);
    struct linger lingering = {};
    socklen_t length = sizeof lingering;
    ASSERT_EQ(::getsockopt(handle, SOL_SOCKET, SO_LINGER, &lingering, &length), 0);
    EXPECT_EQ(lingering.l_onoff, 1);
    EXPECT_EQ(lingering.l_linger, 5);
    EXPECT_EQ(link.handler->msg_queue()->high_water_mark(), 524288u);
    ASSERT_NE(link.handler->address(), nullptr);
    EXPECT_STREQ(link.handler->address(), "127.0.0.1");
    EXPECT_EQ(link.handler->getEngine(), nullptr);
    EXPECT_TRUE(capture.lines().empty());
}

TEST(Handler, OpenWithoutPeerAddressLogsAndDoesNothing) {
    LogCapture capture;
    ProbeHandler* handler = new ProbeHandler();
    size_t const mark = handler->msg_queue()->high_water_mark();
    EXPECT_EQ(handler->address(), nullptr);
    EXPECT_EQ(handler->open(), 0);
    EXPECT_EQ(capture.lines(), Lines{"%D ERROR (%t): Can not get remote address"});
    EXPECT_EQ(handler->msg_queue()->high_water_mark(), mark);
    EXPECT_EQ(handler->release(), nullptr);
}

TEST(Handler, CloseLogsTheCountsClosesTheSocketAndDeactivatesTheQueue) {
    LogCapture capture;
    Link link;
    link.write(header(1, 5) + "hello");
    ACE_Message_Block* block = nullptr;
    ASSERT_EQ(receive(link.handler, block), 37);
    block->release();
    Message_Block* out = message(2, "abc");
    EXPECT_EQ(link.handler->send(out, nullptr), 35);
    out->release();
    EXPECT_EQ(link.handler->bytes_received(), 37u);
    EXPECT_EQ(link.handler->bytes_sent(), 35u);

    EXPECT_EQ(link.handler->close(), 0);
    EXPECT_EQ(capture.lines(),
              Lines{"%D DEBUG (%t): Closing connection (35 bytes sent, 37 bytes received)."});
    EXPECT_EQ(link.handler->get_handle(), ACE_INVALID_HANDLE);
    EXPECT_TRUE(link.handler->msg_queue()->deactivated());
    EXPECT_FALSE(link.gone);  // without an engine the owner's reference stays
    EXPECT_EQ(link.read(35).size(), 35u);
    char byte;
    ACE_Time_Value wait(5);
    EXPECT_EQ(link.peer.recv(&byte, 1, &wait), 0);  // the peer sees the close
}

TEST(Handler, ReferencesEndTheHandlerAtZero) {
    bool gone = false;
    ProbeHandler* handler = new ProbeHandler(&gone);
    EXPECT_EQ(handler->duplicate(), handler);
    EXPECT_EQ(handler->duplicate(), handler);
    EXPECT_EQ(handler->release(), handler);
    EXPECT_EQ(handler->release(), handler);
    EXPECT_FALSE(gone);
    EXPECT_EQ(handler->release(), nullptr);
    EXPECT_TRUE(gone);
}

TEST(Handler, ForwardWithAnInvalidHandleLogsAndFails) {
    LogCapture capture;
    ProbeHandler* handler = new ProbeHandler();
    Message_Block* block = message(3, "x");
    EXPECT_EQ(handler->forward(block), -1);
    EXPECT_EQ(capture.lines(), Lines{"%D ERROR (%t): Can not forward: network handle is invalid"});
    EXPECT_EQ(handler->msg_queue()->message_count(), 0u);
    EXPECT_EQ(block->reference_count(), 1);
    block->release();
    handler->release();
}

TEST(Handler, ForwardAfterCloseFailsWhileAReferenceIsHeld) {
    LogCapture capture;
    Link link;
    link.handler->duplicate();  // as a Dispatch_Set entry would
    link.handler->close();
    capture.clear();
    Message_Block* block = message(4, "late");
    EXPECT_EQ(link.handler->forward(block), -1);
    EXPECT_EQ(capture.lines(), Lines{"%D ERROR (%t): Can not forward: network handle is invalid"});
    block->release();
    EXPECT_EQ(link.handler->release(), link.handler);
}

TEST(Handler, AgentIsAnIdentifiedTwagent) {
    ProbeHandler* handler = new ProbeHandler();
    EXPECT_FALSE(handler->isAgent());
    handler->identity().setType(Tarnwick::Identity::TWAGENT);
    EXPECT_FALSE(handler->isAgent());
    handler->identity().setAgentID(12);
    EXPECT_TRUE(handler->isAgent());
    handler->identity().setType(Tarnwick::Identity::TWMANAGE);
    EXPECT_FALSE(handler->isAgent());
    EXPECT_FALSE(handler->isInitiatedByConnector());
    handler->setInitiatedByConnector();
    EXPECT_TRUE(handler->isInitiatedByConnector());
    handler->release();
}

TEST(SigPipeGuard, IgnoresSigpipeAndRestoresTheOldAction) {
    struct sigaction mine = {};
    mine.sa_handler = [](int) {};
    sigemptyset(&mine.sa_mask);
    struct sigaction original = {};
    ASSERT_EQ(::sigaction(SIGPIPE, &mine, &original), 0);
    {
        Sig_Pipe_Guard guard;
        struct sigaction now = {};
        ASSERT_EQ(::sigaction(SIGPIPE, nullptr, &now), 0);
        EXPECT_EQ(now.sa_handler, SIG_IGN);
    }
    struct sigaction after = {};
    ASSERT_EQ(::sigaction(SIGPIPE, nullptr, &after), 0);
    EXPECT_EQ(after.sa_handler, mine.sa_handler);
    ::sigaction(SIGPIPE, &original, nullptr);
}

// ---------------------------------------------------------------------------
// Receiving

TEST(HandlerRecv, HeaderSplitTenAndTwentyTwoGivesOnePartialLineAndOneMessage) {
    LogCapture capture;
    Link link;
    std::string const wire = header(21, 5) + "hello";
    link.write(wire.substr(0, 10));
    ACE_Message_Block* block = nullptr;
    ACE_Time_Value wait(5);
    errno = 0;
    EXPECT_EQ(link.handler->recv(block, &wait), -1);
    EXPECT_EQ(errno, EWOULDBLOCK);
    EXPECT_EQ(block, nullptr);
    ASSERT_NE(link.handler->incoming(), nullptr);
    EXPECT_EQ(link.handler->incoming()->length(), 10u);

    link.write(wire.substr(10));
    ASSERT_EQ(receive(link.handler, block), 27);  // 22 header bytes and 5 of payload
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(link.handler->incoming(), nullptr);
    auto* received = static_cast<Message_Block*>(block);
    EXPECT_TRUE(received->getHeader()->isReadable());
    EXPECT_EQ(received->getHeader()->getACT(), 21u);
    EXPECT_EQ(received->getHeader()->getType(), 7u);
    EXPECT_EQ(received->rd_ptr(), received->base());
    EXPECT_EQ(received->length(), 32u);
    EXPECT_EQ(payloadOf(block), "hello");
    block->release();
    EXPECT_EQ(capture.lines(),
              Lines{"%D INFO  (%t): Partial header received: only 10 of 32 bytes received"});
}

TEST(HandlerRecv, EmptyMessageIsWholeWithItsHeader) {
    LogCapture capture;
    Link link;
    link.write(header(22, 0));
    ACE_Message_Block* block = nullptr;
    ASSERT_EQ(receive(link.handler, block), 32);
    auto* received = static_cast<Message_Block*>(block);
    EXPECT_EQ(received->getSize(), 0u);
    EXPECT_EQ(received->getLength(), 0u);
    EXPECT_EQ(received->cont(), nullptr);
    block->release();
    EXPECT_TRUE(capture.lines().empty());
}

TEST(HandlerRecv, BackToBackMessagesComeOneAtATime) {
    LogCapture capture;
    Link link;
    link.write(header(31, 3) + "one" + header(32, 0) + header(33, 5) + "three");
    ACE_Message_Block* block = nullptr;
    ASSERT_EQ(receive(link.handler, block), 35);
    EXPECT_EQ(static_cast<Message_Block*>(block)->getHeader()->getACT(), 31u);
    EXPECT_EQ(payloadOf(block), "one");
    block->release();
    ASSERT_EQ(receive(link.handler, block), 32);
    EXPECT_EQ(static_cast<Message_Block*>(block)->getHeader()->getACT(), 32u);
    block->release();
    ASSERT_EQ(receive(link.handler, block), 37);
    EXPECT_EQ(static_cast<Message_Block*>(block)->getHeader()->getACT(), 33u);
    EXPECT_EQ(payloadOf(block), "three");
    block->release();
    EXPECT_EQ(link.handler->bytes_received(), 104u);
    EXPECT_TRUE(capture.lines().empty());
}

TEST(HandlerRecv, BackToBackMessagesTakeOneReadOfTheSocket) {
    LogCapture capture;
    Link link;
    link.write(header(34, 3) + "one" + header(35, 0) + header(36, 5) + "three");
    ACE_Message_Block* block = nullptr;
    ASSERT_EQ(receive(link.handler, block), 35);
    block->release();
    EXPECT_EQ(link.handler->bytes_received(), 104u);  // all three in one read
    // The other two come from what was read, with nothing more to read.
    ACE_Time_Value zero(ACE_Time_Value::zero);
    ASSERT_EQ(link.handler->recv(block, &zero), 32);
    EXPECT_EQ(static_cast<Message_Block*>(block)->getHeader()->getACT(), 35u);
    block->release();
    ASSERT_EQ(link.handler->recv(block, &zero), 37);
    EXPECT_EQ(payloadOf(block), "three");
    block->release();
    EXPECT_TRUE(capture.lines().empty());
}

TEST(HandlerRecv, ReadAheadOfOneAndAHalfMessages) {
    LogCapture capture;
    Link link;
    std::string const second = header(38, 10) + "0123456789";
    // The first message and the second cut in its header, then in its
    // payload: each cut is completed by the next write.
    for (size_t cut : {size_t(10), size_t(37)}) {
        uint64_t const before = link.handler->bytes_received();
        link.write(header(37, 4) + "four" + second.substr(0, cut));
        ACE_Message_Block* block = nullptr;
        ASSERT_EQ(receive(link.handler, block), 36);
        EXPECT_EQ(payloadOf(block), "four");
        block->release();
        // One read took the first message and the start of the second.
        EXPECT_EQ(link.handler->bytes_received() - before, 36u + cut);
        link.write(second.substr(cut));
        // The call that ends the message counts all of it: the bytes read
        // ahead before and those of its own read.
        ASSERT_EQ(receive(link.handler, block), static_cast<int64_t>(second.size()));
        EXPECT_EQ(static_cast<Message_Block*>(block)->getHeader()->getACT(), 38u);
        EXPECT_EQ(payloadOf(block), "0123456789");
        block->release();
    }
    // A header cut by the end of a read ahead is no header sent piecemeal:
    // nothing to log.
    EXPECT_TRUE(capture.lines().empty());
}

TEST(HandlerRecv, ReadsAtMostOneChunkPerCallWhereSpliceIsRefused) {
    ScratchCache cache;
    BlockLimit limit(1024);
    ZeroCopyCalls refusing(ZeroCopyCalls::REFUSE_ALL);
    LogCapture capture;
    Link link;
    std::string const payload = pattern(1024 * 3 + 100);
    link.write(header(41, static_cast<uint32_t>(payload.size())) + payload);
    ACE_Message_Block* block = nullptr;
    int calls = 0;
    int64_t result = -1;
    uint64_t before = 0;
    for (; calls < 100; ++calls) {
        errno = 0;
        result = link.handler->recv(block, nullptr);
        EXPECT_LE(link.handler->bytes_received() - before, 1024u);
        before = link.handler->bytes_received();
        if (result != -1 || errno != EWOULDBLOCK)
            break;
    }
    // Every call reads one chunk of the stream, header bytes included: three
    // full ones, then the 32 + 3172 - 3072 bytes left.
    ASSERT_EQ(result, 132);
    EXPECT_EQ(calls, 3);
    auto* received = static_cast<Message_Block*>(block);
    EXPECT_TRUE(received->isStoredOnDisk());
    EXPECT_EQ(fileContent(received->getFileName()), payload);
    EXPECT_GE(refusing.refusals(), 1);
    EXPECT_EQ(refusing.socketSplices(), 0);
    block->release();
}

// A payload that goes to a spill file is received from the socket through a
// pipe into the file (whole pipes per call, not chunks), byte for byte.
TEST(HandlerRecv, SpilledPayloadIsSplicedIntoItsFile) {
    ScratchCache cache;
    BlockLimit limit(1024);
    ZeroCopyCalls counting(ZeroCopyCalls::COUNT);
    LogCapture capture;
    Link link;
    std::string const payload = pattern(200 * 1024 + 3);
    link.write(header(42, static_cast<uint32_t>(payload.size())) + payload);
    size_t const descriptors = openDescriptors();
    ACE_Message_Block* block = nullptr;
    ASSERT_GT(receiveWithoutLimit(link.handler, block), 0);
    // The spill file is open, the pipe has gone with the message.
    EXPECT_EQ(openDescriptors(), descriptors + 1);
    auto* received = static_cast<Message_Block*>(block);
    EXPECT_TRUE(received->isStoredOnDisk());
    EXPECT_EQ(received->cont(), nullptr);
    EXPECT_EQ(received->getLength(), payload.size());
    EXPECT_EQ(fileContent(received->getFileName()), payload);
    EXPECT_EQ(link.handler->bytes_received(), 32 + payload.size());
    EXPECT_GE(counting.socketSplices(), 1);
    EXPECT_GE(counting.fileSplices(), 1);
    block->release();
    EXPECT_TRUE(capture.lines().empty());
}

// A receive with a time limit reads as before: splice can't wait for one.
TEST(HandlerRecv, ReceiveWithATimeLimitDoesNotSplice) {
    ScratchCache cache;
    BlockLimit limit(1024);
    ZeroCopyCalls counting(ZeroCopyCalls::COUNT);
    LogCapture capture;
    Link link;
    std::string const payload = pattern(50 * 1024 + 1, 'k');
    link.write(header(46, static_cast<uint32_t>(payload.size())) + payload);
    ACE_Message_Block* block = nullptr;
    ASSERT_GT(receive(link.handler, block), 0);
    EXPECT_EQ(fileContent(static_cast<Message_Block*>(block)->getFileName()), payload);
    EXPECT_EQ(counting.socketSplices(), 0);
    block->release();
    EXPECT_TRUE(capture.lines().empty());
}

// A spill file on a file system that refuses splice gets the pipe's bytes by
// read and write; the socket side stays spliced.
TEST(HandlerRecv, FileSystemRefusingSpliceGetsTheBytesByWrite) {
    ScratchCache cache;
    BlockLimit limit(1024);
    ZeroCopyCalls refusing(ZeroCopyCalls::REFUSE_FILES);
    LogCapture capture;
    Link link;
    std::string const payload = pattern(150 * 1024 + 11, 'c');
    link.write(header(43, static_cast<uint32_t>(payload.size())) + payload);
    ACE_Message_Block* block = nullptr;
    ASSERT_GT(receiveWithoutLimit(link.handler, block), 0);
    auto* received = static_cast<Message_Block*>(block);
    EXPECT_TRUE(received->isStoredOnDisk());
    EXPECT_EQ(fileContent(received->getFileName()), payload);
    EXPECT_GE(refusing.refusals(), 1);
    EXPECT_GE(refusing.socketSplices(), 1);
    EXPECT_EQ(refusing.fileSplices(), 0);
    block->release();
    EXPECT_TRUE(capture.lines().empty());
}

// A socket that refuses splice is read as before, chunk by chunk.
TEST(HandlerRecv, SocketRefusingSpliceIsReadAsUsual) {
    ScratchCache cache;
    BlockLimit limit(1024);
    ZeroCopyCalls refusing(ZeroCopyCalls::REFUSE_ALL);
    LogCapture capture;
    Link link;
    std::string const payload = pattern(70 * 1024 + 5, 'e');
    link.write(header(44, static_cast<uint32_t>(payload.size())) + payload);
    ACE_Message_Block* block = nullptr;
    ASSERT_GT(receiveWithoutLimit(link.handler, block), 0);
    auto* received = static_cast<Message_Block*>(block);
    EXPECT_EQ(fileContent(received->getFileName()), payload);
    EXPECT_EQ(refusing.socketSplices(), 0);
    EXPECT_EQ(refusing.fileSplices(), 0);
    block->release();
    EXPECT_TRUE(capture.lines().empty());
}

// The quota holds for spliced payload as for written payload: a message
// that would pass it fails before any byte lands in a file.
TEST(HandlerRecv, SplicedPayloadCountsAgainstTheQuota) {
    ScratchCache cache;
    BlockLimit limit(1024);
    ZeroCopyCalls counting(ZeroCopyCalls::COUNT);
    Tarnwick::ACT_Cache* const spill = Tarnwick::ACT_Cache::instance();
    uint64_t const old_quota = spill->setQuota(spill->spilledBytes() + 4096);
    LogCapture capture;
    Link link;
    std::string const payload = pattern(64 * 1024, 'g');
    link.write(header(45, static_cast<uint32_t>(payload.size())) + payload);
    ACE_Message_Block* block = nullptr;
    EXPECT_EQ(receiveWithoutLimit(link.handler, block), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(block, nullptr);
    spill->setQuota(old_quota);
    EXPECT_EQ(capture.lines().size(), 1u);
}

TEST(HandlerRecv, PayloadOfExactlyTheLimitStaysInMemory) {
    ScratchCache cache;
    BlockLimit limit(16384);
    LogCapture capture;
    Link link;
    std::string const payload = pattern(16384);
    link.write(header(51, 16384) + payload);
    ACE_Message_Block* block = nullptr;
    ASSERT_GT(receive(link.handler, block), 0);
    auto* received = static_cast<Message_Block*>(block);
    EXPECT_FALSE(received->isStoredOnDisk());
    ASSERT_NE(received->cont(), nullptr);
    EXPECT_EQ(payloadOf(block), payload);
    block->release();
    EXPECT_TRUE(capture.lines().empty());
}

TEST(HandlerRecv, PayloadOneByteOverTheLimitGoesToDiskAndGoesWithTheBlock) {
    ScratchCache cache;
    BlockLimit limit(16384);
    LogCapture capture;
    Link link;
    std::string const payload = pattern(16385);
    link.write(header(52, 16385) + payload);
    ACE_Message_Block* block = nullptr;
    ASSERT_GT(receive(link.handler, block), 0);
    auto* received = static_cast<Message_Block*>(block);
    EXPECT_TRUE(received->isStoredOnDisk());
    EXPECT_EQ(received->cont(), nullptr);
    EXPECT_EQ(received->getLength(), 16385u);
    ASSERT_NE(received->getFileName(), nullptr);
    std::string const file = received->getFileName();
    EXPECT_EQ(file.rfind(cache.directory() + "/event-52-", 0), 0u) << file;
    EXPECT_EQ(file.substr(file.size() - 4), ".dat");
    EXPECT_EQ(fileContent(file.c_str()), payload);
    block->release();
    EXPECT_FALSE(exists(file));
    EXPECT_TRUE(capture.lines().empty());
}

TEST(HandlerRecv, WrongMagicFailsWithInvalidArgumentAndThePeersAddress) {
    LogCapture capture;
    Link link;
    std::string wire = header(61, 0);
    wire.replace(20, 4, "\x01\x02\x03\x04", 4);
    link.write(wire);
    ACE_Message_Block* block = nullptr;
    errno = 0;
    EXPECT_EQ(receive(link.handler, block), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(block, nullptr);
    EXPECT_NE(link.handler->incoming(), nullptr);  // released with the handler
    EXPECT_EQ(capture.lines(),
              Lines{"%D ERROR (%t): Invalid message header received from 127.0.0.1"});
}

TEST(HandlerRecv, ThirtyTwoRandomBytesAreRefused) {
    LogCapture capture;
    Link link;
    std::mt19937 random(20261121);
    std::string wire(32, '\0');
    for (char& c : wire)
        c = static_cast<char>(random() & 0xFF);
    wire[20] = static_cast<char>(0xFF);  // never the magic, in either order
    link.write(wire);
    ACE_Message_Block* block = nullptr;
    errno = 0;
    EXPECT_EQ(receive(link.handler, block), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(capture.lines(),
              Lines{"%D ERROR (%t): Invalid message header received from 127.0.0.1"});
}

TEST(HandlerRecv, PeerClosingInMidHeaderGivesZeroWithoutErrorLine) {
    LogCapture capture;
    Link link;
    link.write(header(62, 0).substr(0, 10));
    link.closePeer();
    ACE_Message_Block* block = nullptr;
    ACE_Time_Value wait(5);
    errno = 0;
    EXPECT_EQ(link.handler->recv(block, &wait), -1);
    EXPECT_EQ(errno, EWOULDBLOCK);
    EXPECT_EQ(receive(link.handler, block), 0);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(link.handler->incoming(), nullptr);
    EXPECT_EQ(capture.lines(),
              Lines{"%D INFO  (%t): Partial header received: only 10 of 32 bytes received"});
}

TEST(HandlerRecv, PeerClosingInMidPayloadGivesZeroWithoutAnyLine) {
    LogCapture capture;
    Link link;
    link.write(header(63, 100) + pattern(40));
    link.closePeer();
    ACE_Message_Block* block = nullptr;
    EXPECT_EQ(receive(link.handler, block), 0);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(link.handler->incoming(), nullptr);
    EXPECT_TRUE(capture.lines().empty());
}

TEST(HandlerRecv, ResetInTheHeaderIsAFailureWithAReceiveErrorLine) {
    LogCapture capture;
    Link link;
    link.resetPeer();
    ACE_Message_Block* block = nullptr;
    errno = 0;
    EXPECT_EQ(receive(link.handler, block), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(link.handler->incoming(), nullptr);
    EXPECT_EQ(capture.lines(), Lines{"%D ERROR (%t): Receive error while reading message header "
                                     "(32 bytes): Connection reset by peer"});
}

TEST(HandlerRecv, ResetInThePayloadLooksLikeAClose) {
    LogCapture capture;
    Link link;
    link.write(header(67, 100) + pattern(10));
    ACE_Message_Block* block = nullptr;
    ACE_Time_Value wait(5);
    errno = 0;
    ASSERT_EQ(link.handler->recv(block, &wait), -1);
    ASSERT_EQ(errno, EWOULDBLOCK);
    link.resetPeer();
    EXPECT_EQ(receive(link.handler, block), 0);
    EXPECT_EQ(link.handler->incoming(), nullptr);
    EXPECT_TRUE(capture.lines().empty());
}

TEST(HandlerRecv, TwoGigabyteHeaderFollowedByCloseGivesZero) {
    LogCapture capture;
    Link link;
    link.write(header(64, 0x7FFFFFFFu));
    link.closePeer();
    ACE_Message_Block* block = nullptr;
    EXPECT_EQ(receive(link.handler, block), 0);
    EXPECT_EQ(link.handler->incoming(), nullptr);
    EXPECT_TRUE(capture.lines().empty());
}

TEST(HandlerRecv, SpillFileOfABrokenMessageGoesWithIt) {
    ScratchCache cache;
    BlockLimit limit(16384);
    LogCapture capture;
    Link link;
    link.write(header(65, 0x7FFFFFFFu) + pattern(40000));
    ACE_Message_Block* block = nullptr;
    ACE_Time_Value wait(5);
    std::string file;
    for (int i = 0; i < 100 && file.empty(); ++i) {
        errno = 0;
        ASSERT_EQ(link.handler->recv(block, &wait), -1);
        ASSERT_EQ(errno, EWOULDBLOCK);
        auto* incoming = static_cast<Message_Block*>(link.handler->incoming());
        if (incoming->isStoredOnDisk())
            file = incoming->getFileName();
    }
    ASSERT_FALSE(file.empty());
    EXPECT_TRUE(exists(file));
    link.closePeer();
    EXPECT_EQ(receive(link.handler, block), 0);
    EXPECT_EQ(link.handler->incoming(), nullptr);
    EXPECT_FALSE(exists(file));
    EXPECT_TRUE(capture.lines().empty());
}

TEST(HandlerRecv, BrokenMessageIsReleasedWithTheHandler) {
    ScratchCache cache;
    BlockLimit limit(16384);
    Listener listener;
    ProbeHandler* handler = new ProbeHandler();
    ACE_SOCK_Connector connector;
    ASSERT_EQ(connector.connect(handler->peer(), listener.address()), 0);
    ACE_SOCK_Stream peer;
    ASSERT_EQ(listener.accept(peer), 0);
    std::string const wire = header(66, 0x7FFFFFFFu) + pattern(20000);
    ASSERT_EQ(peer.send_n(wire.data(), wire.size()), static_cast<ssize_t>(wire.size()));
    ACE_Message_Block* block = nullptr;
    ACE_Time_Value wait(5);
    std::string file;
    for (int i = 0; i < 100 && file.empty(); ++i) {
        ASSERT_EQ(handler->recv(block, &wait), -1);
        if (static_cast<Message_Block*>(handler->incoming())->isStoredOnDisk())
            file = static_cast<Message_Block*>(handler->incoming())->getFileName();
    }
    ASSERT_TRUE(exists(file));
    EXPECT_EQ(handler->release(), nullptr);  // closes its socket too
    EXPECT_FALSE(exists(file));
    char byte;
    EXPECT_EQ(peer.recv(&byte, 1, &wait), 0);
    peer.close();
}

TEST(HandlerRecv, FailedSpillEndsTheMessageAsAFailure) {
    ScratchCache cache;
    BlockLimit limit(16384);
    LogCapture capture;
    Link link;
    link.write(headerWithoutToken(20000) + pattern(20000));  // no spill file without a token
    int result = 0;
    for (int i = 0; i < 100; ++i) {
        result = link.handler->handle_input();
        if (result != 0)
            break;
    }
    EXPECT_EQ(result, -1);
    Lines const lines = capture.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "%D ERROR (%t): Peer has failed unexpectedly.");
}

// ---------------------------------------------------------------------------
// handle_input without an engine

TEST(HandlerInput, RequestTokenGoesToTheSourceList) {
    LogCapture capture;
    Link link;
    link.write(header(77, 2) + "rq");
    EXPECT_EQ(link.handler->handle_input(), 0);
    EXPECT_TRUE(link.handler->getSourceACT().contains(77));
    EXPECT_FALSE(link.handler->getTargetACT().contains(77));
    EXPECT_TRUE(capture.lines().empty());
}

TEST(HandlerInput, ReplyRemovesItsTokenFromTheTargetListOnArrival) {
    LogCapture capture;
    Link link;
    link.handler->getTargetACT().add(88);
    link.handler->getTargetACT().add(89);
    link.write(header(88, 0, 0x02));
    EXPECT_EQ(link.handler->handle_input(), 0);
    EXPECT_FALSE(link.handler->getTargetACT().contains(88));
    EXPECT_TRUE(link.handler->getTargetACT().contains(89));
    EXPECT_FALSE(link.handler->getSourceACT().contains(88));
    EXPECT_TRUE(capture.lines().empty());
}

TEST(HandlerInput, PartialHeaderKeepsTheConnection) {
    LogCapture capture;
    Link link;
    link.write(header(90, 0).substr(0, 10));
    EXPECT_EQ(link.handler->handle_input(), 0);
    EXPECT_EQ(capture.lines(),
              Lines{"%D INFO  (%t): Partial header received: only 10 of 32 bytes received"});
}

TEST(HandlerInput, PeerCloseIsLoggedAtDebug) {
    LogCapture capture;
    Link link;
    link.closePeer();
    EXPECT_EQ(link.handler->handle_input(), -1);
    EXPECT_EQ(capture.lines(), Lines{"%D DEBUG (%t): Connection closed by peer."});
}

TEST(HandlerInput, PeerCloseInsideAPayloadIsAClose) {
    LogCapture capture;
    Link link;
    link.write(header(91, 50) + "half");
    link.closePeer();
    int result = 0;
    for (int i = 0; i < 10 && result == 0; ++i)
        result = link.handler->handle_input();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(capture.lines(), Lines{"%D DEBUG (%t): Connection closed by peer."});
}

TEST(HandlerInput, ReceiveErrorInTheHeaderGivesTwoLines) {
    LogCapture capture;
    Link link;
    link.resetPeer();
    EXPECT_EQ(link.handler->handle_input(), -1);
    EXPECT_EQ(capture.lines(), (Lines{"%D ERROR (%t): Receive error while reading message header "
                                      "(32 bytes): Connection reset by peer",
                                      "%D ERROR (%t): Peer has failed unexpectedly."}));
}

TEST(HandlerInput, BadMagicIsAFailure) {
    LogCapture capture;
    Link link;
    std::string wire = header(92, 0);
    wire[20] = 'X';
    link.write(wire);
    EXPECT_EQ(link.handler->handle_input(), -1);
    EXPECT_EQ(capture.lines(),
              (Lines{"%D ERROR (%t): Invalid message header received from 127.0.0.1",
                     "%D ERROR (%t): Peer has failed unexpectedly."}));
}

// ---------------------------------------------------------------------------
// Sending

TEST(HandlerSend, EmptyMessageSendsItsHeaderInNetworkOrder) {
    LogCapture capture;
    Link link;
    Message_Block* block = message(101, "");
    EXPECT_EQ(link.handler->send(block, nullptr), 32);
    EXPECT_EQ(link.read(32), header(101, 0));
    block->release();
    EXPECT_TRUE(capture.lines().empty());
}

TEST(HandlerSend, TheBlocksOwnHeaderIsNotTouched) {
    // Other threads may read the header of a block being sent (a client
    // asking its event for the token): the bytes in network order are a
    // copy, and the block's header stays as the caller left it.
    Link link;
    Message_Block* block = message(105, "abc");
    Message_Header const before = *block->getHeader();
    ACE_Message_Block* again = block->duplicate();
    EXPECT_EQ(link.handler->send(block, nullptr), 35);
    EXPECT_EQ(link.read(35), header(105, 3) + "abc");
    EXPECT_TRUE(block->getHeader()->isReadable());
    EXPECT_EQ(std::memcmp(&before, block->getHeader(), sizeof before), 0);
    // Its duplicate, sent afterwards, gives the same bytes.
    EXPECT_EQ(link.handler->send(again, nullptr), 35);
    EXPECT_EQ(link.read(35), header(105, 3) + "abc");
    again->release();
    block->release();
}

TEST(HandlerSend, MessageGoesOutAsHeaderAndPayload) {
    LogCapture capture;
    Link link;
    Message_Block* block = message(102, "payload");
    EXPECT_EQ(link.handler->send(block, nullptr), 39);
    EXPECT_EQ(link.read(39), header(102, 7) + "payload");
    EXPECT_EQ(link.handler->bytes_sent(), 39u);
    EXPECT_FALSE(link.handler->writing());
    block->release();
    EXPECT_TRUE(capture.lines().empty());
}

TEST(HandlerSend, HeaderAlreadyInNetworkOrderIsSentAsItIs) {
    Link link;
    Message_Block* block = message(103, "x");
    block->getHeader()->encode();
    EXPECT_EQ(link.handler->send(block, nullptr), 33);
    EXPECT_EQ(link.read(33), header(103, 1) + "x");
    block->release();
}

TEST(HandlerSend, NoBlockOrNoMessageBlockFails) {
    Link link;
    EXPECT_EQ(link.handler->send(nullptr, nullptr), -1);
    ACE_Message_Block plain(64);
    plain.wr_ptr(32);
    EXPECT_EQ(link.handler->send(&plain, nullptr), -1);
    EXPECT_EQ(link.handler->bytes_sent(), 0u);
}

TEST(HandlerSend, PayloadOnDiskGoesOutChunkByChunkWhereSendfileIsRefused) {
    ScratchCache cache;
    BlockLimit limit(1024);
    ZeroCopyCalls refusing(ZeroCopyCalls::REFUSE_FILES);
    LogCapture capture;
    Link link;
    std::string const payload = pattern(1024 * 4 + 10);
    Message_Block* block = message(104, payload);
    ASSERT_TRUE(block->isStoredOnDisk());
    int calls = 0;
    int64_t result = 0;
    for (; calls < 100; ++calls) {
        errno = 0;
        result = link.handler->send(block, nullptr);
        EXPECT_LE(link.handler->outgoingBuffered(), 1024u);
        if (errno != EWOULDBLOCK)
            break;
        EXPECT_EQ(result, 0);
    }
    EXPECT_EQ(calls, 4);
    EXPECT_EQ(result, 10);  // the last chunk
    EXPECT_EQ(link.read(32 + payload.size()), header(104, payload.size()) + payload);
    EXPECT_EQ(refusing.refusals(), 1);  // once per connection
    EXPECT_EQ(refusing.sendfiles(), 0);
    block->release();
    EXPECT_TRUE(capture.lines().empty());
}

// A spilled payload goes from its file to the socket by sendfile, all that
// the socket takes in one call, and no chunk of it is held in memory.
TEST(HandlerSend, PayloadOnDiskGoesOutBySendfile) {
    ScratchCache cache;
    BlockLimit limit(1024);
    ZeroCopyCalls counting(ZeroCopyCalls::COUNT);
    LogCapture capture;
    Link link;
    std::string const payload = pattern(40 * 1024 + 7);
    Message_Block* block = message(105, payload);
    ASSERT_TRUE(block->isStoredOnDisk());
    errno = 0;
    int64_t const result = link.handler->send(block, nullptr);
    EXPECT_NE(errno, EWOULDBLOCK);
    EXPECT_EQ(result, static_cast<int64_t>(32 + payload.size()));
    EXPECT_EQ(link.handler->outgoingBuffered(), 0u);
    EXPECT_FALSE(link.handler->writing());
    EXPECT_EQ(link.read(32 + payload.size()), header(105, payload.size()) + payload);
    EXPECT_GE(counting.sendfiles(), 1);
    EXPECT_EQ(link.handler->bytes_sent(), 32 + payload.size());
    // The block itself reads its payload from the start, as before.
    EXPECT_EQ(block->getActualLength(), payload.size());
    block->release();
    EXPECT_TRUE(capture.lines().empty());
}

// A payload in memory leaves with its header in one write.
TEST(HandlerSend, HeaderAndPayloadInMemoryGoOutInOneCall) {
    LogCapture capture;
    Link link;
    std::string const payload = pattern(700);
    Message_Block* block = message(106, payload);
    errno = 0;
    EXPECT_EQ(link.handler->send(block, nullptr), static_cast<int64_t>(32 + payload.size()));
    EXPECT_NE(errno, EWOULDBLOCK);
    EXPECT_EQ(link.read(32 + payload.size()), header(106, payload.size()) + payload);
    block->release();
    EXPECT_TRUE(capture.lines().empty());
}

TEST(HandlerSend, CloseAfterSendEndsAfterTheLastByte) {
    LogCapture capture;
    Link link;
    Message_Block* block = message(105, "goodbye");
    block->data_block()->msg_type(ACE_Message_Block::MB_HANGUP);
    EXPECT_EQ(link.handler->send(block, nullptr), -1);
    EXPECT_EQ(link.read(39), header(105, 7) + "goodbye");
    EXPECT_EQ(capture.lines(), Lines{"%D INFO  (%t): Connection shutdown requested."});
    block->release();
}

TEST(HandlerSend, CloseAfterSendOfAnEmptyMessage) {
    LogCapture capture;
    Link link;
    Message_Block* block = message(106, "");
    block->data_block()->msg_type(ACE_Message_Block::MB_HANGUP);
    EXPECT_EQ(link.handler->send(block, nullptr), -1);
    EXPECT_EQ(link.read(32), header(106, 0));
    EXPECT_EQ(capture.lines(), Lines{"%D INFO  (%t): Connection shutdown requested."});
    block->release();
}

TEST(HandlerSend, SendToAClosedPeerFailsWithoutALine) {
    Sig_Pipe_Guard guard;
    LogCapture capture;
    Link link;
    link.closePeer();
    Message_Block* block = message(107, pattern(100000));
    int64_t result = 0;
    for (int i = 0; i < 1000; ++i) {
        errno = 0;
        result = link.handler->send(block, nullptr);
        if (result != 0 || errno != EWOULDBLOCK) {
            if (result == -1 || errno == EPIPE || errno == ECONNRESET)
                break;
            // Bytes still went into the socket buffer: send the rest.
            block->release();
            block = message(107, pattern(100000));
        }
    }
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(errno == EPIPE || errno == ECONNRESET) << errno;
    EXPECT_FALSE(link.handler->writing());
    block->release();
    EXPECT_TRUE(capture.lines().empty());
}

// ---------------------------------------------------------------------------
// The output queue, written out by a reactor's write events

namespace {

// Runs the reactor until the handler's queue is empty and no write event is
// wanted any more, for at most a few seconds.
void drain(ACE_Reactor& reactor, Handler* handler) {
    for (int i = 0; i < 50; ++i) {
        ACE_Time_Value wait(0, 100000);
        reactor.handle_events(wait);
        if (handler->msg_queue()->is_empty() || handler->msg_queue()->deactivated())
            break;
    }
}

}  // namespace

TEST(HandlerOutput, QueuedMessagesGoOutInOrderChunkByChunk) {
    ScratchCache cache;
    BlockLimit limit(1024);
    LogCapture capture;
    Link link;
    ACE_Reactor reactor;
    ASSERT_EQ(reactor.register_handler(link.handler, ACE_Event_Handler::WRITE_MASK), 0);

    std::string const big = pattern(1024 * 5 + 7, 'A');
    Message_Block* first = message(121, "first");
    Message_Block* second = message(122, big);
    Message_Block* third = message(123, "");
    ASSERT_TRUE(second->isStoredOnDisk());
    ACE_Time_Value no_wait(ACE_Time_Value::zero);
    for (Message_Block* block : {first, second, third})
        ASSERT_NE(link.handler->putq(block->duplicate(), &no_wait), -1);

    drain(reactor, link.handler);
    EXPECT_TRUE(link.handler->msg_queue()->is_empty());
    std::string const expected =
        header(121, 5) + "first" + header(122, big.size()) + big + header(123, 0);
    EXPECT_EQ(link.read(expected.size()), expected);
    EXPECT_FALSE(link.handler->writing());
    EXPECT_NE(link.handler->get_handle(), ACE_INVALID_HANDLE);
    EXPECT_TRUE(capture.lines().empty());

    // A wake-up that a chunk asked for may still come once, and finds the
    // queue empty; after it nothing more is asked of the handler.
    ACE_Time_Value wait(0, 50000);
    reactor.handle_events(wait);
    wait.set(0, 50000);
    EXPECT_EQ(reactor.handle_events(wait), 0);
    EXPECT_TRUE(capture.lines().empty());

    reactor.remove_handler(link.handler,
                           ACE_Event_Handler::ALL_EVENTS_MASK | ACE_Event_Handler::DONT_CALL);
    first->release();
    second->release();
    third->release();
}

TEST(HandlerOutput, SmallMessagesGoOutTogetherWhateverPiecesTheReaderTakes) {
    ScratchCache cache;
    BlockLimit limit(1024);
    LogCapture capture;
    Link link;
    // Small socket buffers, so that writes end anywhere in a batch; the
    // handler's socket doesn't block, as in an engine.
    ASSERT_EQ(link.handler->peer().enable(ACE_NONBLOCK), 0);
    int small = 4096;
    link.handler->peer().set_option(SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    link.peer.set_option(SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    ACE_Reactor reactor;
    ASSERT_EQ(reactor.register_handler(link.handler, ACE_Event_Handler::WRITE_MASK), 0);

    // Messages of 0 to 96 bytes, with one spilled payload and one message
    // larger than a batch among them.
    std::string expected;
    std::vector<Message_Block*> blocks;
    ACE_Time_Value no_wait(ACE_Time_Value::zero);
    for (uint32_t i = 0; i < 600; ++i) {
        std::string const payload = i == 300   ? pattern(3000, 'A')
                                    : i == 450 ? pattern(Handler::Coalesce_Size, 'B')
                                               : pattern(i % 97);
        Message_Block* block = message(1000 + i, payload);
        expected += header(1000 + i, static_cast<uint32_t>(payload.size())) + payload;
        ASSERT_NE(link.handler->putq(block->duplicate(), &no_wait), -1);
        blocks.push_back(block);
    }
    ASSERT_TRUE(blocks[300]->isStoredOnDisk());

    // The reader takes 1 to 13 bytes at a time while the handler writes.
    std::string got;
    size_t piece = 1;
    while (got.size() < expected.size()) {
        ACE_Time_Value zero(ACE_Time_Value::zero);
        reactor.handle_events(zero);
        char buffer[16];
        ACE_Time_Value wait(0, 200000);
        ssize_t const count = link.peer.recv(buffer, piece, &wait);
        if (count > 0)
            got.append(buffer, static_cast<size_t>(count));
        else if (count == 0 || errno != ETIME)
            break;
        piece = piece % 13 + 1;
    }
    EXPECT_EQ(got.size(), expected.size());
    EXPECT_TRUE(got == expected) << "the bytes differ from the messages in order";
    EXPECT_TRUE(link.handler->msg_queue()->is_empty());
    EXPECT_TRUE(capture.lines().empty());

    reactor.remove_handler(link.handler,
                           ACE_Event_Handler::ALL_EVENTS_MASK | ACE_Event_Handler::DONT_CALL);
    for (Message_Block* block : blocks)
        block->release();
}

TEST(HandlerOutput, CloseAfterSendClosesTheConnectionAfterItsLastByte) {
    LogCapture capture;
    Link link;
    ACE_Reactor reactor;
    ASSERT_EQ(reactor.register_handler(link.handler, ACE_Event_Handler::WRITE_MASK), 0);
    Message_Block* last = message(124, "last words");
    last->data_block()->msg_type(ACE_Message_Block::MB_HANGUP);
    Message_Block* never = message(125, "never");
    ACE_Time_Value no_wait(ACE_Time_Value::zero);
    ASSERT_NE(link.handler->putq(last->duplicate(), &no_wait), -1);
    ASSERT_NE(link.handler->putq(never->duplicate(), &no_wait), -1);

    drain(reactor, link.handler);
    EXPECT_EQ(link.handler->get_handle(), ACE_INVALID_HANDLE);
    EXPECT_TRUE(link.handler->msg_queue()->deactivated());
    EXPECT_EQ(link.read(42), header(124, 10) + "last words");
    char byte;
    ACE_Time_Value wait(5);
    EXPECT_EQ(link.peer.recv(&byte, 1, &wait), 0);
    EXPECT_EQ(capture.lines(),
              (Lines{"%D INFO  (%t): Connection shutdown requested.",
                     "%D DEBUG (%t): Closing connection (42 bytes sent, 0 bytes received)."}));
    last->release();
    never->release();
}

// ---------------------------------------------------------------------------
// Activity

TEST(HandlerActivity, StaysZeroWithMonitoringOff) {
    Link link;
    link.write(header(111, 3) + "abc");
    ACE_Message_Block* block = nullptr;
    ASSERT_GT(receive(link.handler, block), 0);
    EXPECT_EQ(link.handler->send(block, nullptr), 35);
    block->release();
    EXPECT_EQ(link.handler->lastActivity(), ACE_Time_Value::zero);
    EXPECT_EQ(link.handler->lastRecvActivity(), ACE_Time_Value::zero);
}

TEST(HandlerActivity, MovesWithTrafficOnceEnabled) {
    Link link;
    link.handler->enableActivityMonitoring();
    ACE_Time_Value const started = link.handler->lastActivity();
    EXPECT_NE(started, ACE_Time_Value::zero);
    EXPECT_NE(link.handler->lastRecvActivity(), ACE_Time_Value::zero);

    ACE_OS::sleep(ACE_Time_Value(0, 5000));
    link.write(header(112, 1) + "a");
    ACE_Message_Block* block = nullptr;
    ASSERT_GT(receive(link.handler, block), 0);
    ACE_Time_Value const received = link.handler->lastRecvActivity();
    EXPECT_GT(received, started);
    EXPECT_EQ(link.handler->lastActivity(), received);

    ACE_OS::sleep(ACE_Time_Value(0, 5000));
    EXPECT_EQ(link.handler->send(block, nullptr), 33);
    block->release();
    EXPECT_GT(link.handler->lastActivity(), received);
    EXPECT_EQ(link.handler->lastRecvActivity(), received);
}

// ---------------------------------------------------------------------------
// A large payload through small socket buffers, both ends non-blocking

namespace {

int64_t const BIG = 64 * 1024 * 1024;

void shrinkBuffers(ACE_SOCK_Stream& stream) {
    int size = 16384;
    stream.set_option(SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    stream.set_option(SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
}

}  // namespace

TEST(HandlerTransfer, SixtyFourMebibytesThroughSmallBuffersArriveWhole) {
    ScratchCache cache;
    BlockLimit limit(16384);
    Sig_Pipe_Guard pipe_guard;
    LogCapture capture;

    Listener listener;
    ProbeHandler* sender = new ProbeHandler();
    ProbeHandler* receiver = new ProbeHandler();
    ACE_SOCK_Connector connector;
    ASSERT_EQ(connector.connect(sender->peer(), listener.address()), 0);
    ASSERT_EQ(listener.accept(receiver->peer()), 0);
    ASSERT_EQ(sender->open(), 0);
    ASSERT_EQ(receiver->open(), 0);
    shrinkBuffers(sender->peer());
    shrinkBuffers(receiver->peer());
    ASSERT_EQ(sender->peer().enable(ACE_NONBLOCK), 0);
    ASSERT_EQ(receiver->peer().enable(ACE_NONBLOCK), 0);

    // The outgoing payload: made in memory, digested, then spilled. Its file
    // is named after token 201; the wire carries token 202, so that the
    // receiving side spills to a file of its own.
    std::string sent_digest;
    Message_Block* out = new Message_Block();
    out->getHeader()->setACT(201);
    out->getHeader()->setSize(static_cast<uint32_t>(BIG));
    out->getHeader()->setBinary(true);
    out->wr_ptr(32);
    {
        std::vector<uint32_t> data(BIG / 4);
        std::mt19937 random(4711);
        for (uint32_t& word : data)
            word = random();
        Digest digest;
        digest.update(data.data(), BIG);
        sent_digest = digest.finish();
        ASSERT_EQ(out->write(reinterpret_cast<const char*>(data.data()), BIG), BIG);
    }
    ASSERT_TRUE(out->isStoredOnDisk());
    out->getHeader()->setACT(202);

    auto const started = std::chrono::steady_clock::now();
    bool sent = false;
    int64_t send_result = 0;
    ACE_Message_Block* in = nullptr;
    size_t largest_in_memory = 0;
    while (in == nullptr) {
        ASSERT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(60));
        if (!sent) {
            errno = 0;
            send_result = sender->send(out, nullptr);
            ASSERT_NE(send_result, -1) << errno;
            sent = errno != EWOULDBLOCK;
            ASSERT_LE(sender->outgoingBuffered(), 16384u);
        }
        errno = 0;
        int64_t const got = receiver->recv(in, nullptr);
        if (got == -1) {
            ASSERT_EQ(errno, EWOULDBLOCK);
        } else {
            ASSERT_GT(got, 0);
        }
        auto* partial = static_cast<Message_Block*>(receiver->incoming());
        if (partial != nullptr) {
            ACE_Message_Block* cont = partial->cont();
            size_t const held = cont != nullptr ? cont->length() : 0;
            largest_in_memory = std::max(largest_in_memory, held);
            ASSERT_LE(held, 16384u);
            if (partial->isStoredOnDisk()) {
                ASSERT_EQ(cont, nullptr);
            }
        }
    }
    EXPECT_TRUE(sent);
    EXPECT_GT(send_result, 0);
    EXPECT_LE(largest_in_memory, 16384u);

    auto* received = static_cast<Message_Block*>(in);
    EXPECT_EQ(received->getHeader()->getACT(), 202u);
    EXPECT_TRUE(received->getHeader()->isBinary());
    EXPECT_EQ(received->getSize(), static_cast<uint32_t>(BIG));
    EXPECT_TRUE(received->isStoredOnDisk());
    EXPECT_EQ(received->cont(), nullptr);
    EXPECT_EQ(received->getLength(), static_cast<uint32_t>(BIG));
    EXPECT_EQ(sender->bytes_sent(), static_cast<uint64_t>(BIG + 32));
    EXPECT_EQ(receiver->bytes_received(), static_cast<uint64_t>(BIG + 32));

    Digest digest;
    int64_t total = 0;
    for (;;) {
        ACE_Message_Block* piece = nullptr;
        int64_t const count = received->read(piece);
        ASSERT_GE(count, 0);
        if (count == 0)
            break;
        ASSERT_LE(piece->length(), 16384u);
        digest.update(piece->rd_ptr(), piece->length());
        total += count;
        piece->release();
    }
    EXPECT_EQ(total, BIG);
    EXPECT_EQ(digest.finish(), sent_digest);

    in->release();
    out->release();
    sender->close();
    receiver->close();
    sender->release();
    receiver->release();
    Lines const lines = capture.lines();
    for (const std::string& line : lines)
        EXPECT_EQ(line.find("ERROR"), std::string::npos) << line;
}

// A spilled payload leaves by sendfile and arrives by splice, with a slow
// reader between the two that takes the stream in pieces of odd sizes and
// passes each on as it came: every partial sendfile and every splice ends at
// an odd boundary, and the bytes arrive whole and in order.
TEST(HandlerTransfer, SpilledPayloadThroughZeroCopyPathsSplitAtOddBoundaries) {
    ScratchCache cache;
    BlockLimit limit(16384);
    ZeroCopyCalls counting(ZeroCopyCalls::COUNT);
    Sig_Pipe_Guard pipe_guard;

    // sender -> relay (raw, slow reader) -> receiver
    Listener first;
    Listener second;
    ProbeHandler* sender = new ProbeHandler();
    ProbeHandler* receiver = new ProbeHandler();
    ACE_SOCK_Stream relay_in;
    ACE_SOCK_Stream relay_out;
    ACE_SOCK_Connector connector;
    ASSERT_EQ(connector.connect(sender->peer(), first.address()), 0);
    ASSERT_EQ(first.accept(relay_in), 0);
    ASSERT_EQ(connector.connect(relay_out, second.address()), 0);
    ASSERT_EQ(second.accept(receiver->peer()), 0);
    ASSERT_EQ(sender->open(), 0);
    ASSERT_EQ(receiver->open(), 0);
    shrinkBuffers(sender->peer());
    shrinkBuffers(relay_in);
    ASSERT_EQ(sender->peer().enable(ACE_NONBLOCK), 0);
    ASSERT_EQ(receiver->peer().enable(ACE_NONBLOCK), 0);
    ASSERT_EQ(relay_in.enable(ACE_NONBLOCK), 0);

    size_t const size = 3 * 1024 * 1024 + 13;
    std::string payload(size, '\0');
    std::mt19937 random(99);
    for (char& byte : payload)
        byte = static_cast<char>(random());
    Message_Block* out = message(301, payload);
    ASSERT_TRUE(out->isStoredOnDisk());
    out->getHeader()->setACT(302);
    LogCapture capture;

    const size_t pieces[] = {1, 7, 13, 31, 4093, 65521, 997, 3, 16411, 40009};
    size_t piece = 0;
    std::vector<char> buffer(65536);
    auto const started = std::chrono::steady_clock::now();
    bool sent = false;
    ACE_Message_Block* in = nullptr;
    uint64_t relayed = 0;
    while (in == nullptr) {
        ASSERT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(60));
        if (!sent) {
            errno = 0;
            ASSERT_NE(sender->send(out, nullptr), -1) << errno;
            sent = errno != EWOULDBLOCK;
            ASSERT_EQ(sender->outgoingBuffered(), 0u);
        }
        size_t const want = pieces[piece++ % (sizeof pieces / sizeof pieces[0])];
        ssize_t const got = relay_in.recv(buffer.data(), want);
        if (got > 0) {
            ASSERT_EQ(relay_out.send_n(buffer.data(), static_cast<size_t>(got)), got);
            relayed += static_cast<uint64_t>(got);
        } else {
            ASSERT_EQ(errno, EWOULDBLOCK);
        }
        for (;;) {
            errno = 0;
            int64_t const result = receiver->recv(in, nullptr);
            if (result > 0)
                break;
            ASSERT_EQ(result, -1);
            ASSERT_EQ(errno, EWOULDBLOCK);
            break;
        }
    }
    EXPECT_TRUE(sent);
    EXPECT_EQ(relayed, 32 + size);
    auto* received = static_cast<Message_Block*>(in);
    EXPECT_EQ(received->getHeader()->getACT(), 302u);
    EXPECT_TRUE(received->isStoredOnDisk());
    EXPECT_EQ(received->getLength(), size);
    EXPECT_TRUE(fileContent(received->getFileName()) == payload);
    EXPECT_GE(counting.sendfiles(), 2);
    EXPECT_GE(counting.socketSplices(), 2);
    EXPECT_GE(counting.fileSplices(), 2);
    EXPECT_EQ(sender->bytes_sent(), 32 + size);
    EXPECT_EQ(receiver->bytes_received(), 32 + size);
    // The relay's first piece is one byte of the header.
    Lines const expected = {"%D INFO  (%t): Partial header received: only 1 of 32 bytes received"};
    EXPECT_EQ(capture.lines(), expected);
    in->release();
    out->release();
    sender->close();
    sender->release();
    receiver->close();
    receiver->release();
    relay_in.close();
    relay_out.close();
}
