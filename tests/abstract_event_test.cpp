#include <tarnwick/abstract_event.h>
#include <tarnwick/event_factory.h>
#include <tarnwick/message_block.h>
#include <tarnwick/utf8.h>
#include <tarnwick/xml.h>

#include <gtest/gtest.h>
#include <libxml/xmlmemory.h>

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "block_limit.h"
#include "log_capture.h"
#include "scratch_cache.h"
#include "wire.h"

using namespace Tarnwick;
using TarnwickTest::LogCapture;

namespace {

const char* const DECLARATION = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";

// The payload text of a message with these flat parameters, in key order.
std::string messageXML(const std::vector<std::pair<std::string, std::string>>& params) {
    std::string xml = DECLARATION;
    xml += "<message>\n";
    for (const auto& p : params)
        xml += " <param name=\"" + p.first + "\">" + p.second + "</param>\n";
    xml += "</message>\n";
    return xml;
}

std::string payloadOf(Abstract_Event& event) {
    ACE_Message_Block* block = event.data(false);
    if (block == nullptr || block->cont() == nullptr)
        return std::string();
    return std::string(block->cont()->rd_ptr(), block->cont()->length());
}

struct EventPtr {
    Abstract_Event* event;
    explicit EventPtr(Abstract_Event* e) : event(e) {}
    ~EventPtr() {
        if (event != nullptr)
            event->destroy();
    }
    Abstract_Event* operator->() { return event; }
    Abstract_Event& operator*() { return *event; }
};

// An event received from the wire bytes of `sent`.
EventPtr received(Abstract_Event& sent) {
    Message_Block* block = TarnwickTest::blockFromWire(TarnwickTest::wireBytes(sent.data(false)));
    EventPtr event(Event_Factory::create(block));
    block->release();
    return event;
}

// An event received from a payload text with a valid header.
EventPtr receivedText(const std::string& payload, uint32_t type = GET_VERSION_EVENT) {
    std::string wire = TarnwickTest::word(0) + TarnwickTest::word(77) +
                       TarnwickTest::word(static_cast<uint32_t>(payload.size())) +
                       TarnwickTest::word(type) + TarnwickTest::word(0) +
                       TarnwickTest::word(0x00060201) + TarnwickTest::word(0) +
                       TarnwickTest::word(0) + payload;
    Message_Block* block = TarnwickTest::blockFromWire(wire);
    EventPtr event(Event_Factory::create(block));
    block->release();
    return event;
}

// What the process writes on file descriptor 2 while the object lives.
class StderrCapture {
public:
    StderrCapture() {
        std::fflush(stderr);
        char name[] = "/tmp/tarnwick_stderr_XXXXXX";
        file_ = ::mkstemp(name);
        ::unlink(name);
        saved_ = ::dup(2);
        ::dup2(file_, 2);
    }
    ~StderrCapture() {
        restore();
        ::close(file_);
    }
    // Puts fd 2 back and returns what was written to it.
    std::string text() {
        restore();
        std::string out;
        char buffer[4096];
        ssize_t n;
        ::lseek(file_, 0, SEEK_SET);
        while ((n = ::read(file_, buffer, sizeof buffer)) > 0)
            out.append(buffer, static_cast<size_t>(n));
        return out;
    }

private:
    void restore() {
        if (saved_ >= 0) {
            std::fflush(stderr);
            ::dup2(saved_, 2);
            ::close(saved_);
            saved_ = -1;
        }
    }
    int file_ = -1;
    int saved_ = -1;
};

// Bytes that libxml2 allocates while the object lives: a measure of the work
// of parsing that does not depend on the speed of the machine.
class XmlAllocationCounter {
public:
    XmlAllocationCounter() {
        xmlMemGet(&free_, &malloc_, &realloc_, &strdup_);
        bytes_ = 0;
        xmlMemSetup(std::free, countMalloc, countRealloc, countStrdup);
    }
    ~XmlAllocationCounter() { xmlMemSetup(free_, malloc_, realloc_, strdup_); }
    uint64_t bytes() const { return bytes_; }

private:
    static void* countMalloc(size_t size) {
        bytes_ += size;
        return std::malloc(size);
    }
    static void* countRealloc(void* old, size_t size) {
        bytes_ += size;
        return std::realloc(old, size);
    }
    static char* countStrdup(const char* text) {
        bytes_ += std::strlen(text) + 1;
        return ::strdup(text);
    }

    static uint64_t bytes_;
    xmlFreeFunc free_;
    xmlMallocFunc malloc_;
    xmlReallocFunc realloc_;
    xmlStrdupFunc strdup_;
};

uint64_t XmlAllocationCounter::bytes_ = 0;

// The name of the i-th parameter of the payloads below: each one would
// select every parameter if it were pasted into a query.
std::string trickyName(size_t i) {
    return "p" + std::to_string(i) + "' or 'a'='a";
}

// Receives a payload of `count` such parameters, checks that each name got
// its own value, and returns the bytes libxml2 allocated for it.
uint64_t receiveManyParameters(size_t count) {
    std::string payload = DECLARATION;
    payload += "<message>\n";
    for (size_t i = 0; i < count; ++i)
        payload += " <param name=\"" + trickyName(i) + "\">v" + std::to_string(i) + "</param>\n";
    payload += "</message>\n";
    payload += std::string(1, '\0');
    XmlAllocationCounter counter;
    EventPtr event = receivedText(payload);
    EXPECT_NE(event.event, nullptr);
    if (event.event == nullptr)
        return 0;
    EXPECT_EQ(event->getArgMap().size(), count);
    for (size_t i = 0; i < count; i += count / 10) {
        std::string const name = trickyName(i);
        auto found = event->getArgMap().find(name);
        EXPECT_TRUE(found != event->getArgMap().end() && found->second == "v" + std::to_string(i))
            << name;
        std::string value;
        EXPECT_EQ(event->getArg(name.c_str(), value), 0);
        EXPECT_EQ(value, "v" + std::to_string(i));
    }
    return counter.bytes();
}

}  // namespace

TEST(AbstractEvent, NewEventHasAnOpenedHeaderWithATokenAndNoPayload) {
    GetVersionEvent event;
    ACE_Message_Block* block = event.data(false);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->length(), 32u);
    EXPECT_EQ(block->cont(), nullptr);
    EXPECT_EQ(event.getSize(), 0u);
    EXPECT_EQ(event.getType(), 17u);
    EXPECT_EQ(static_cast<Message_Block*>(block)->getHeader()->getType(), 17u);
    EXPECT_TRUE(static_cast<Message_Block*>(block)->getHeader()->isReadable());
}

TEST(AbstractEvent, TokensOfNewEventsDiffer) {
    GetVersionEvent a;
    GetVersionEvent b;
    EXPECT_NE(a.getACT(), b.getACT());
}

TEST(AbstractEvent, HeaderSettersReturnTheOldValue) {
    DirListEvent event;
    event.setACT(5);
    EXPECT_EQ(event.setACT(6), 5u);
    EXPECT_EQ(event.setACT(0), 6u);
    EXPECT_EQ(event.getACT(), 6u);
    EXPECT_EQ(event.setState(3), 0u);
    EXPECT_EQ(event.setState(4), 3u);
    EXPECT_EQ(event.setAgentID(9), 0u);
    EXPECT_EQ(event.getAgentID(), 9u);
    EXPECT_EQ(event.setFlags(0x10), 0u);
    EXPECT_TRUE(event.isBroadCast());
    EXPECT_EQ(event.setFlags(0), 0x10u);
}

TEST(AbstractEvent, TypeFollowsTheHeaderOnceSet) {
    DirListEvent event;
    EXPECT_EQ(event.getType(), 3u);
    EXPECT_EQ(event.setType(0), 0u);  // fills the header from type()
    EXPECT_EQ(event.setType(0), 3u);  // keeps it
    EXPECT_EQ(event.setType(9), 3u);
    EXPECT_EQ(event.getType(), 9u);
    EXPECT_EQ(event.type(), DIR_LIST_EVENT);
}

TEST(AbstractEvent, FlagAccessors) {
    KickEvent event;
    EXPECT_TRUE(event.isFormatted());
    EXPECT_FALSE(event.isBinary());
    event.setBinary();
    EXPECT_TRUE(event.isBinary());
    EXPECT_FALSE(event.isFormatted());
    event.setFormatted();
    EXPECT_TRUE(event.isFormatted());
    EXPECT_TRUE(event.setResult(true));
    EXPECT_TRUE(event.isResult());
    EXPECT_FALSE(event.setResult(false));
    EXPECT_FALSE(event.isResult());
    event.setBroadCast(true);
    EXPECT_TRUE(event.isBroadCast());
    EXPECT_EQ(event.getFlags(), 0x10u);
    EXPECT_FALSE(event.isError());
}

TEST(AbstractEvent, StaticReadersLookAtTheHeaderAsItStands) {
    GetVersionEvent event;
    event.setACT(0x11223344);
    event.setArg("a", "b");
    ACE_Message_Block* block = event.data(false);
    EXPECT_EQ(Abstract_Event::GetHeaderSize(), 32u);
    EXPECT_EQ(Abstract_Event::GetACT(block), 0x11223344u);
    EXPECT_EQ(Abstract_Event::GetMessageType(block), 17u);
    EXPECT_EQ(Abstract_Event::GetMessageSize(block), messageXML({{"a", "b"}}).size() + 1);
    static_cast<Message_Block*>(block)->getHeader()->encode();
    EXPECT_EQ(Abstract_Event::GetMessageType(block), 0x11000000u);
    static_cast<Message_Block*>(block)->getHeader()->decode();
    EXPECT_EQ(Abstract_Event::GetACT(nullptr), 0u);
}

TEST(AbstractEvent, FlatSetArgKeepsTheFirstValue) {
    GetVersionEvent event;
    EXPECT_EQ(event.setArg("name", "first"), 0);
    EXPECT_EQ(event.setArg("name", std::string("second")), 0);
    EXPECT_EQ(event.getArgMap().at("name"), "first");
    EXPECT_EQ(payloadOf(event), messageXML({{"name", "first"}}) + std::string(1, '\0'));
}

TEST(AbstractEvent, NumericSetArgWritesDecimal) {
    GetVersionEvent event;
    event.setArg("i", -5);
    event.setArg("u", static_cast<uint32_t>(4294967295u));
    event.setArg("l", static_cast<int64_t>(-9000000000LL));
    event.setArg("q", static_cast<uint64_t>(18446744073709551615ULL));
    EXPECT_EQ(event.getArgMap(), (std::map<std::string, std::string>{{"i", "-5"},
                                                                     {"l", "-9000000000"},
                                                                     {"q", "18446744073709551615"},
                                                                     {"u", "4294967295"}}));
}

TEST(AbstractEvent, GroupSetArgReplacesTheGroup) {
    GetVersionEvent event;
    EXPECT_EQ(event.setArg("g", std::map<std::string, std::string>{{"x", "1"}}), 0);
    EXPECT_EQ(event.setArg("g", std::map<std::string, std::string>{{"y", "2"}}), 0);
    event.setArg("flat", "f");
    std::string xml;
    ASSERT_EQ(event.getXMLString(xml), 0);
    EXPECT_EQ(xml, std::string(DECLARATION) +
                       "<message>\n"
                       " <param name=\"flat\">f</param>\n"
                       " <param name=\"g\">\n"
                       "  <param name=\"y\">2</param>\n"
                       " </param>\n"
                       "</message>\n");
}

TEST(AbstractEvent, GetArgOnALocallyBuiltEventFindsNothingUntilData) {
    GetVersionEvent event;
    event.setArg("key", "value");
    char out[16] = "preset";
    {
        LogCapture capture;
        errno = 0;
        EXPECT_EQ(event.getArg("key", out, sizeof out), -1);
        EXPECT_EQ(capture.lines(),
                  std::vector<std::string>{
                      "%D ERROR (%t): Internal error: xpath query without parsed document."});
    }
    ASSERT_NE(event.data(false), nullptr);
    EXPECT_EQ(event.getArg("key", out, sizeof out), 0);
    EXPECT_STREQ(out, "value");
}

TEST(AbstractEvent, EveryGetArgOverloadOnAReceivedEvent) {
    GetVersionEvent sent;
    sent.setArg("text", "hello world");
    sent.setArg("number", -42);
    sent.setArg("big", static_cast<uint64_t>(18446744073709551615ULL));
    sent.setArg("wide", static_cast<int64_t>(-9000000000LL));
    sent.setArg("unsigned", static_cast<uint32_t>(4000000000u));
    sent.setArg("yes", "true");
    sent.setArg("one", "1");
    sent.setArg("group", std::map<std::string, std::string>{{"a", "1"}, {"b", "2"}});
    EventPtr event = received(sent);
    ASSERT_NE(event.event, nullptr);
    EXPECT_EQ(event->type(), GET_VERSION_EVENT);

    char buffer[32] = "";
    EXPECT_EQ(event->getArg("text", buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, "hello world");
    std::unique_ptr<char[]> copy(event->getArgMalloced("text"));
    ASSERT_TRUE(copy);
    EXPECT_STREQ(copy.get(), "hello world");
    std::string text;
    EXPECT_EQ(event->getArg("text", text), 0);
    EXPECT_EQ(text, "hello world");
    int number = 0;
    EXPECT_EQ(event->getArg("number", &number), 0);
    EXPECT_EQ(number, -42);
    uint64_t big = 0;
    EXPECT_EQ(event->getArg("big", &big), 0);
    EXPECT_EQ(big, 18446744073709551615ULL);
    int64_t wide = 0;
    EXPECT_EQ(event->getArg("wide", &wide), 0);
    EXPECT_EQ(wide, -9000000000LL);
    uint32_t u = 0;
    EXPECT_EQ(event->getArg("unsigned", &u), 0);
    EXPECT_EQ(u, 4000000000u);
    bool yes = false;
    EXPECT_EQ(event->getArg("yes", &yes), 0);
    EXPECT_TRUE(yes);
    bool one = false;
    EXPECT_EQ(event->getArg("one", &one), 0);
    EXPECT_TRUE(one);
    std::map<std::string, std::string> group;
    EXPECT_EQ(event->getArg("group", group), 0);
    EXPECT_EQ(group, (std::map<std::string, std::string>{{"a", "1"}, {"b", "2"}}));
}

TEST(AbstractEvent, ReceivedArgumentsFillTheArgumentMap) {
    GetVersionEvent sent;
    sent.setArg("b", "2");
    sent.setArg("a", "1 & <3>");
    EventPtr event = received(sent);
    ASSERT_NE(event.event, nullptr);
    EXPECT_EQ(event->getArgMap(),
              (std::map<std::string, std::string>{{"a", "1 & <3>"}, {"b", "2"}}));
}

TEST(AbstractEvent, NumberWithLettersBehindFailsAfterStoring) {
    EventPtr event = receivedText(messageXML({{"n", "12abc"}, {"m", " 34 "}, {"x", "abc"}}) +
                                  std::string(1, '\0'));
    int n = 0;
    EXPECT_EQ(event->getArg("n", &n), -1);
    EXPECT_EQ(n, 12);
    int m = 0;
    EXPECT_EQ(event->getArg("m", &m), 0);
    EXPECT_EQ(m, 34);
    int x = 7;
    EXPECT_EQ(event->getArg("x", &x), -1);
    EXPECT_EQ(x, 7);
    int absent = 7;
    EXPECT_EQ(event->getArg("absent", &absent), -1);
    EXPECT_EQ(absent, 7);
}

TEST(AbstractEvent, BooleanNeverWritesFalse) {
    EventPtr event =
        receivedText(messageXML({{"f", "false"}, {"t", "true"}}) + std::string(1, '\0'));
    bool value = true;
    EXPECT_EQ(event->getArg("f", &value), 0);
    EXPECT_TRUE(value);
    bool absent = true;
    EXPECT_EQ(event->getArg("absent", &absent), 0);
    EXPECT_TRUE(absent);
    bool t = false;
    EXPECT_EQ(event->getArg("t", &t), 0);
    EXPECT_TRUE(t);
}

TEST(AbstractEvent, EmptyParameterIsAFailureOnlyForTheStringForm) {
    EventPtr event =
        receivedText(std::string(DECLARATION) + "<message><param name=\"e\"></param></message>" +
                     std::string(1, '\0'));
    std::string text = "preset";
    EXPECT_EQ(event->getArg("e", text), -1);
    EXPECT_EQ(text, "preset");
    char buffer[8] = "preset";
    EXPECT_EQ(event->getArg("e", buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(event->getArgMalloced("e"), nullptr);
}

TEST(AbstractEvent, AbsentParameterLeavesTheBufferAlone) {
    EventPtr event = receivedText(messageXML({{"a", "1"}}) + std::string(1, '\0'));
    char buffer[8] = "keep";
    EXPECT_EQ(event->getArg("missing", buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, "keep");
    std::string text;
    EXPECT_EQ(event->getArg("missing", text), -1);
}

TEST(AbstractEvent, ValueThatDoesNotFitFails) {
    EventPtr event = receivedText(messageXML({{"a", "0123456789"}}) + std::string(1, '\0'));
    char buffer[10];
    EXPECT_EQ(event->getArg("a", buffer, sizeof buffer), -1);
    char exact[11];
    EXPECT_EQ(event->getArg("a", exact, sizeof exact), 0);
    EXPECT_STREQ(exact, "0123456789");
}

TEST(AbstractEvent, GroupOfAMissingParameterLogsTheXMLError) {
    EventPtr event = receivedText(messageXML({{"a", "1"}}) + std::string(1, '\0'));
    LogCapture capture;
    std::map<std::string, std::string> group;
    EXPECT_EQ(event->getArg("missing", group), -1);
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{
                  "%D ERROR (%t): Can not get value for argument 'missing': XML error"});
}

TEST(AbstractEvent, MalformedPayloadLeavesNoArgumentsAndFailsOnGetArg) {
    LogCapture capture;
    EventPtr event =
        receivedText(std::string("<message><param name=\"a\">1</param>") + std::string(1, '\0'));
    ASSERT_NE(event.event, nullptr);
    EXPECT_TRUE(event->getArgMap().empty());
    // libxml2's own report, at debug level: no failure is reported here.
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{
                  "%D DEBUG (%t): libxml2: Premature end of data in tag message line 1"});
    capture.clear();
    errno = 0;
    char buffer[8];
    EXPECT_EQ(event->getArg("a", buffer, sizeof buffer), -1);
    std::vector<std::string> lines = capture.lines();
    // libxml2's message ends in a line end of its own.
    ASSERT_EQ(lines.size(), 4u) << capture.text();
    EXPECT_EQ(lines[0], "%D DEBUG (%t): libxml2: Premature end of data in tag message line 1");
    EXPECT_EQ(lines[1],
              "%D ERROR (%t): internal error: XML parse error: Premature end of data in tag "
              "message line 1");
    EXPECT_EQ(lines[2], "");
    EXPECT_EQ(lines[3], "%D ERROR (%t): An error occurred while parsing message payload.");
}

TEST(AbstractEvent, WrittenBytesStayThroughData) {
    UploadEvent event;
    EXPECT_EQ(event.write("\x01\x02\x00\x03", 4), 4);
    event.setBinary();
    ACE_Message_Block* block = event.data(false);
    ASSERT_NE(block, nullptr);
    ASSERT_NE(block->cont(), nullptr);
    EXPECT_EQ(std::string(block->cont()->rd_ptr(), block->cont()->length()),
              std::string("\x01\x02\x00\x03", 4));
    Message_Header* header = static_cast<Message_Block*>(block)->getHeader();
    EXPECT_EQ(header->getSize(), 4u);
    EXPECT_TRUE(header->isBinary());
    EXPECT_EQ(header->getType(), 5u);
    // Writing again makes the event dirty, and data keeps the bytes again.
    EXPECT_EQ(event.write("xy", 2), 2);
    block = event.data(false);
    EXPECT_EQ(std::string(block->cont()->rd_ptr(), block->cont()->length()),
              std::string("\x01\x02\x00\x03xy", 6));
    EXPECT_EQ(header->getSize(), 6u);
}

TEST(AbstractEvent, ArgumentsReplaceWrittenBytes) {
    UploadEvent event;
    event.write("raw bytes", 9);
    event.setBinary();
    event.setArg("k", "v");
    EXPECT_EQ(payloadOf(event), messageXML({{"k", "v"}}) + std::string(1, '\0'));
    EXPECT_TRUE(event.isFormatted());
    EXPECT_TRUE(event.getArgMap().empty());
}

TEST(AbstractEvent, OnlyNestedArgumentsSendNoXML) {
    GetVersionEvent event;
    event.setArg("g", std::map<std::string, std::string>{{"x", "1"}});
    ACE_Message_Block* block = event.data(false);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->cont(), nullptr);
    EXPECT_EQ(static_cast<Message_Block*>(block)->getHeader()->getSize(), 0u);
}

TEST(AbstractEvent, LaterArgumentsAloneAreSentAfterData) {
    GetVersionEvent event;
    event.setArg("first", "1");
    event.data(false);
    event.setArg("second", "2");
    EXPECT_EQ(payloadOf(event), messageXML({{"second", "2"}}) + std::string(1, '\0'));
}

TEST(AbstractEvent, DataWithDuplicateGivesTheCallerAReference) {
    GetVersionEvent event;
    ACE_Message_Block* own = event.data(false);
    ACE_Message_Block* copy = event.data(true);
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, own);
    EXPECT_EQ(copy->data_block(), own->data_block());
    EXPECT_EQ(own->data_block()->reference_count(), 2);
    copy->release();
    EXPECT_EQ(own->data_block()->reference_count(), 1);
}

TEST(AbstractEvent, DataFromABlockWithABadHeaderLengthFailsAndLogs) {
    Message_Block* block = new Message_Block();
    block->wr_ptr(20);
    GetVersionEvent event;
    LogCapture capture;
    EXPECT_EQ(event.data(block), -1);
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{
                  "%D ERROR (%t): Assigning data block with invalid size (20) to Event object."});
    block->release();
}

TEST(AbstractEvent, DataFromABlockKeepsTheCallersReference) {
    GetVersionEvent sent;
    sent.setArg("a", "1");
    Message_Block* block = TarnwickTest::blockFromWire(TarnwickTest::wireBytes(sent.data(false)));
    {
        GetVersionEvent event;
        EXPECT_EQ(event.data(block), 0);
        EXPECT_EQ(block->data_block()->reference_count(), 2);
    }
    EXPECT_EQ(block->data_block()->reference_count(), 1);
    block->release();
}

TEST(AbstractEvent, DataFromABlockGivesATokenToAHeaderWithout) {
    std::string wire = TarnwickTest::word(0) + TarnwickTest::word(0) + TarnwickTest::word(0) +
                       TarnwickTest::word(17) + TarnwickTest::word(0) +
                       TarnwickTest::word(0x00060201) + TarnwickTest::word(0) +
                       TarnwickTest::word(0);
    bool assigned = false;
    for (int i = 0; i < 4 && !assigned; ++i) {
        Message_Block* block = TarnwickTest::blockFromWire(wire);
        EventPtr event(Event_Factory::create(block));
        block->release();
        assigned = event->getACT() != 0;
    }
    EXPECT_TRUE(assigned);
}

TEST(AbstractEvent, ErrorTurnsTheEventIntoAnErrorReply) {
    StartProcessEvent event;
    event.setACT(1234);
    event.setAgentID(8);
    event.setArg("cmd", "x");
    LogCapture capture;
    EXPECT_EQ(event.error("it failed", 5), 1);
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{"%D ERROR (%t): Return error event: it failed"});
    EXPECT_EQ(event.getType(), 2u);
    EXPECT_EQ(event.type(), START_PROCESS_EVENT);
    EXPECT_TRUE(event.isError());
    EXPECT_TRUE(event.isResult());
    EXPECT_EQ(event.getACT(), 1234u);
    EXPECT_EQ(event.getAgentID(), 8u);
    EXPECT_EQ(payloadOf(event),
              messageXML({{"errormsg", "it failed"}, {"errornr", "5"}}) + std::string(1, '\0'));
}

TEST(AbstractEvent, WireFormOfAnErrorReply) {
    GetJobLogEvent event;
    event.setACT(0xCAFEBABE);
    event.setBroadCast(true);
    event.error("Permission denied.", 1);
    std::string wire = TarnwickTest::wireBytes(event.data(false));
    std::string const xml = messageXML({{"errormsg", "Permission denied."}, {"errornr", "1"}});
    std::string const expectedHeader = TarnwickTest::word(0) + TarnwickTest::word(0xCAFEBABE) +
                                       TarnwickTest::word(static_cast<uint32_t>(xml.size() + 1)) +
                                       TarnwickTest::word(2) + TarnwickTest::word(0x12) +
                                       TarnwickTest::word(0x00060201) + TarnwickTest::word(0) +
                                       TarnwickTest::word(0);
    EXPECT_EQ(TarnwickTest::headerPart(wire), expectedHeader);
    EXPECT_EQ(TarnwickTest::payloadPart(wire), xml + std::string(1, '\0'));
}

TEST(AbstractEvent, ErrorReplyToABinaryRequestKeepsTheBinaryFlag) {
    UploadEvent event;
    event.write("abc", 3);
    event.setBinary();
    event.error("bad", 3);
    ACE_Message_Block* block = event.data(false);
    EXPECT_TRUE(static_cast<Message_Block*>(block)->getHeader()->isBinary());
    Message_Block* incoming = TarnwickTest::blockFromWire(TarnwickTest::wireBytes(block));
    EventPtr reply(Event_Factory::create(incoming));
    incoming->release();
    ASSERT_NE(reply.event, nullptr);
    EXPECT_TRUE(reply->getArgMap().empty());
    EXPECT_TRUE(reply->isError());
}

TEST(AbstractEvent, CloseAfterSendChangesNoByteOnTheWire) {
    GetVersionEvent event;
    event.setArg("a", "1");
    std::string const before = TarnwickTest::wireBytes(event.data(false));
    event.closeAfterSend();
    ACE_Message_Block* block = event.data(false);
    EXPECT_EQ(TarnwickTest::wireBytes(block), before);
    EXPECT_EQ(block->data_block()->msg_type(), ACE_Message_Block::MB_HANGUP);
}

TEST(AbstractEvent, NameWithAnApostropheIsAnArgumentLikeAnyOther) {
    LogCapture capture;
    EventPtr event = receivedText(std::string(DECLARATION) +
                                  "<message><param name=\"it's\">1</param>"
                                  "<param name=\"ok\">2</param></message>" +
                                  std::string(1, '\0'));
    EXPECT_EQ(event->getArgMap(), (std::map<std::string, std::string>{{"it's", "1"}, {"ok", "2"}}));
    std::string value;
    EXPECT_EQ(event->getArg("it's", value), 0);
    EXPECT_EQ(value, "1");
    char buffer[8] = "";
    EXPECT_EQ(event->getArg("it's", buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, "1");
    std::map<std::string, std::string> group;
    EXPECT_EQ(event->getArg("it's", group), 0);
    EXPECT_TRUE(capture.lines().empty()) << capture.text();
}

TEST(AbstractEvent, ReceivedNestedGroupLosesItsChildrenWhenSentOn) {
    GetVersionEvent sent;
    sent.setArg("g", std::map<std::string, std::string>{{"x", "1"}});
    sent.setArg("a", "1");
    EventPtr event = received(sent);
    // The group shows up as a flat argument holding its first child's text,
    // the indentation.
    EXPECT_EQ(event->getArgMap(), (std::map<std::string, std::string>{{"a", "1"}, {"g", "\n  "}}));
    std::map<std::string, std::string> group;
    EXPECT_EQ(event->getArg("g", group), 0);
    EXPECT_EQ(group, (std::map<std::string, std::string>{{"x", "1"}}));
}

TEST(AbstractEvent, XMLStringRoundTrip) {
    GetVersionEvent event;
    event.setArg("b", "2");
    event.setArg("a", "1");
    std::string xml;
    ASSERT_EQ(event.getXMLString(xml), 0);
    EXPECT_EQ(xml, messageXML({{"a", "1"}, {"b", "2"}}));
    // getXMLString leaves block and arguments alone.
    EXPECT_EQ(event.getArgMap().size(), 2u);

    GetVersionEvent other;
    EXPECT_EQ(other.setXMLString(xml), 0);
    EXPECT_EQ(other.getArgMap(), event.getArgMap());
    EXPECT_EQ(other.setXMLString("not xml"), -1);
}

TEST(AbstractEvent, ResetKeepsHeaderAndGroups) {
    GetVersionEvent event;
    event.setACT(99);
    event.setArg("a", "1");
    event.setArg("g", std::map<std::string, std::string>{{"x", "1"}});
    event.data(false);
    EXPECT_EQ(event.reset(), 0);
    EXPECT_EQ(event.getACT(), 99u);
    EXPECT_EQ(event.getSize(), 0u);
    EXPECT_TRUE(event.getArgMap().empty());
    std::string xml;
    event.getXMLString(xml);
    EXPECT_NE(xml.find("name=\"g\""), std::string::npos);
}

TEST(AbstractEvent, WriteFileAppendsTheFileAndMarksItBinary) {
    char path[] = "/tmp/tarnwick-event-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_NE(fd, -1);
    std::string content("file\0content", 12);
    ASSERT_EQ(::write(fd, content.data(), content.size()), 12);
    ::close(fd);

    UploadEvent event;
    EXPECT_EQ(event.writeFile(path), 12);
    EXPECT_TRUE(event.isBinary());
    ACE_Message_Block* block = event.data(false);
    EXPECT_EQ(std::string(block->cont()->rd_ptr(), block->cont()->length()), content);

    UploadEvent wide;
    std::wstring widePath(path, path + sizeof path - 1);
    EXPECT_EQ(wide.writeFile(widePath.c_str()), 12);
    ::unlink(path);
}

TEST(AbstractEvent, WriteFileOfAMissingFileFailsSilently) {
    LogCapture capture;
    UploadEvent event;
    errno = 0;
    EXPECT_EQ(event.writeFile("/nonexistent/tarnwick/file"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(capture.lines().empty());
}

namespace {

std::string headerDump(uint32_t act, uint32_t size, uint32_t type) {
    return "%D DEBUG (%t): DUMPING MESSAGE INFORMATION\n"
           "===========================\n"
           "Message Header:\n"
           "agentid: 0\n"
           "ACT: " +
           std::to_string(act) +
           "\n"
           "flags: 0\n"
           "size: " +
           std::to_string(size) +
           "\n"
           "type: " +
           std::to_string(type) +
           "\n"
           "magic: 393729\n"
           "state: 0\n"
           "===========================\n"
           "\n";
}

}  // namespace

TEST(AbstractEvent, DumpWritesHeaderChainAndArguments) {
    GetVersionEvent event;
    event.setACT(1);
    event.setArg("k", "v");
    event.data(false);
    event.setArg("k2", "v2");  // dirty again: dump rebuilds the block
    LogCapture capture;
    event.dump();
    std::string const before = messageXML({{"k", "v"}});
    std::string const after = messageXML({{"k2", "v2"}});
    // Level 0 shows the header bytes up to the first zero byte: none here,
    // as the agent id comes first.
    EXPECT_EQ(capture.text(), headerDump(1, static_cast<uint32_t>(before.size() + 1), 17) +
                                  "%D DEBUG (%t): At level: 0\n"
                                  "%D DEBUG (%t): \n"
                                  "%D DEBUG (%t): At level: 1\n"
                                  "%D DEBUG (%t): " +
                                  after + "\n");
}

TEST(AbstractEvent, DumpListsTheArgumentsOfAnEventWithoutXML) {
    UploadEvent event;
    event.setACT(2);
    event.write("raw", 3);
    LogCapture capture;
    event.dump();
    EXPECT_EQ(capture.text(), headerDump(2, 3, 5) +
                                  "%D DEBUG (%t): At level: 0\n"
                                  "%D DEBUG (%t): \n"
                                  "%D DEBUG (%t): At level: 1\n"
                                  "%D DEBUG (%t): raw\n");
}

TEST(AbstractEvent, DumpReportsABadHeaderLength) {
    GetVersionEvent event;
    event.setACT(3);
    ACE_Message_Block* block = event.data(false);
    block->wr_ptr(-4);
    LogCapture capture;
    event.dump();
    std::vector<std::string> lines = capture.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0], "%D ERROR (%t): Invalid header size: 28 != 32 ");
}

TEST(AbstractEvent, EachNameTakesItsFirstParameterEvenWhenThatIsEmpty) {
    EventPtr event = receivedText(std::string(DECLARATION) +
                                  "<message><param name=\"d\"></param><param name=\"d\">2</param>"
                                  "<param name=\"e\">1</param><param name=\"e\">2</param>"
                                  "<other><param name=\"f\">3</param></other></message>" +
                                  std::string(1, '\0'));
    EXPECT_EQ(event->getArgMap(), (std::map<std::string, std::string>{{"e", "1"}}));
}

TEST(AbstractEvent, NameIsNeverReadAsAQuery) {
    // A name that would be a valid query when pasted into one selects only
    // the parameter of that very name.
    LogCapture capture;
    EventPtr event = receivedText(std::string(DECLARATION) +
                                  "<message><param name=\"b\">B</param>"
                                  "<param name=\"a' or @name='b\">A</param>"
                                  "<param name=\"x' or 'a'='a\">X</param>"
                                  "<param name=\"q&quot;\">Q</param></message>" +
                                  std::string(1, '\0'));
    EXPECT_EQ(event->getArgMap(),
              (std::map<std::string, std::string>{
                  {"a' or @name='b", "A"}, {"b", "B"}, {"q\"", "Q"}, {"x' or 'a'='a", "X"}}));
    std::string value;
    EXPECT_EQ(event->getArg("a' or @name='b", value), 0);
    EXPECT_EQ(value, "A");
    EXPECT_EQ(event->getArg("x' or 'a'='a", value), 0);
    EXPECT_EQ(value, "X");
    EXPECT_EQ(event->getArg("q\"", value), 0);
    EXPECT_EQ(value, "Q");
    // A name that is no query at all is simply absent.
    char buffer[8] = "keep";
    EXPECT_EQ(event->getArg("']", buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, "keep");
    EXPECT_TRUE(capture.lines().empty()) << capture.text();
}

TEST(AbstractEvent, VeryLongNamesAreLookedUp) {
    std::string const plain(65536, 'n');
    std::string quoted(65536, 'q');
    for (size_t i = 0; i < quoted.size(); i += 7)
        quoted[i] = '\'';
    // The payload stays in memory on both sides.
    TarnwickTest::BlockLimit limit(1 << 20);
    GetVersionEvent sent;
    sent.setArg(plain.c_str(), "plain");
    sent.setArg(quoted.c_str(), "quoted");
    sent.setArg("short", "s");
    LogCapture capture;
    EventPtr event = received(sent);
    ASSERT_NE(event.event, nullptr);
    EXPECT_EQ(event->getArgMap().size(), 3u);
    std::string value;
    EXPECT_EQ(event->getArg(plain.c_str(), value), 0);
    EXPECT_EQ(value, "plain");
    EXPECT_EQ(event->getArg(quoted.c_str(), value), 0);
    EXPECT_EQ(value, "quoted");
    EXPECT_EQ(event->getArg("short", value), 0);
    EXPECT_EQ(value, "s");
    EXPECT_TRUE(capture.lines().empty()) << capture.text().substr(0, 200);
}

TEST(AbstractEvent, LargeFormattedPayloadTravelsThroughTheSpillFile) {
    TarnwickTest::ScratchCache cache;
    TarnwickTest::BlockLimit limit(16384);
    std::string const big(40000, 'v');
    std::string name;
    {
        GetVersionEvent sent;
        sent.setACT(5151);
        sent.setArg("big", big);
        sent.setArg("small", "s");
        ACE_Message_Block* block = sent.data(false);
        ASSERT_NE(block, nullptr);
        Message_Block* message = static_cast<Message_Block*>(block);
        ASSERT_TRUE(message->isStoredOnDisk());
        EXPECT_EQ(message->cont(), nullptr);
        EXPECT_EQ(message->getHeader()->getSize(), message->getLength());

        // The receiving side assembles its own copy; give it another token so
        // that the two don't share one spill file.
        std::string wire(reinterpret_cast<const char*>(message->getHeader()), 32);
        Message_Header* header = reinterpret_cast<Message_Header*>(&wire[0]);
        header->setACT(5152);
        header->encode();
        ACE_Message_Block* piece = nullptr;
        int64_t n;
        while ((n = message->read(piece)) > 0) {
            wire.append(piece->rd_ptr(), piece->length());
            piece->release();
            piece = nullptr;
        }
        Message_Block* incoming = TarnwickTest::blockFromWire(wire);
        ASSERT_TRUE(incoming->isStoredOnDisk());
        name = incoming->getFileName();
        EventPtr event(Event_Factory::create(incoming));
        incoming->release();
        ASSERT_NE(event.event, nullptr);
        EXPECT_EQ(event->getArgMap().at("small"), "s");
        EXPECT_EQ(event->getArgMap().at("big"), big);
        std::string value;
        EXPECT_EQ(event->getArg("big", value), 0);
        EXPECT_EQ(value, big);
    }
    EXPECT_NE(::access(name.c_str(), F_OK), 0);
}

TEST(AbstractEvent, ParametersOfMessagesAnywhereButInNoNamespace) {
    EventPtr event = receivedText(std::string(DECLARATION) +
                                  "<root><message><param name=\"a\">1</param>"
                                  "<group><param name=\"nested\">n</param></group></message>"
                                  "<x:message xmlns:x=\"urn:x\"><param name=\"b\">2</param>"
                                  "</x:message>"
                                  "<message xmlns=\"urn:d\"><param name=\"c\">3</param></message>"
                                  "<message><param x:name=\"d\" xmlns:x=\"urn:x\">4</param>"
                                  "<param name=\"e\">5</param></message></root>" +
                                  std::string(1, '\0'));
    EXPECT_EQ(event->getArgMap(), (std::map<std::string, std::string>{{"a", "1"}, {"e", "5"}}));
}

TEST(AbstractEvent, ManyParametersParseInWorkLinearInTheirNumber) {
    uint64_t const small = receiveManyParameters(500);
    uint64_t const large = receiveManyParameters(2000);
    ASSERT_GT(small, 0u);
    // Four times the parameters: about four times the work, far from the
    // sixteen times of a lookup per parameter over all parameters.
    EXPECT_LT(large, 6 * small) << small << " " << large;
}

TEST(AbstractEvent, TextThatIsNoValidXMLIsWrittenAsNothing) {
    std::string const specials =
        "tab\there\r\nnext\rline ]]> <&> \"q\" 'a' \xc3\xa9\xf0\x9f\x98\x80";
    GetVersionEvent sent;
    sent.setArg("good", "caf\xc3\xa9");
    sent.setArg("specials", specials);
    sent.setArg("line\nand\ttab name", "v");
    sent.setArg("invalid",
                "a\xff"
                "b");
    sent.setArg("truncated", "a\xc3");
    sent.setArg("overlong", "\xc0\xaf");
    sent.setArg("surrogate", "\xed\xa0\x80");
    sent.setArg("too.big", "\xf4\x90\x80\x80");
    sent.setArg("control", "bell\x07");
    sent.setArg("delete.is.allowed", "\x7f");
    sent.setArg("nonchar", "\xef\xbf\xbe");
    sent.setArg("bad\x01name", "v");
    sent.setArg("bad\xffname", "v");
    sent.setArg("group", std::map<std::string, std::string>{
                             {"in\x02", "x"}, {"ok", "y\x1b"}, {"fine", "z"}});
    sent.setArg("bad\x0bgroup", std::map<std::string, std::string>{{"a", "1"}});
    EventPtr event = received(sent);
    ASSERT_NE(event.event, nullptr);
    // Everything that was valid arrives exactly; the rest as no argument.
    EXPECT_EQ(event->getArgMap(), (std::map<std::string, std::string>{{"good", "caf\xc3\xa9"},
                                                                      {"specials", specials},
                                                                      {"line\nand\ttab name", "v"},
                                                                      {"delete.is.allowed", "\x7f"},
                                                                      {"group", "\n  "}}));
    std::map<std::string, std::string> group;
    EXPECT_EQ(event->getArg("group", group), 0);
    EXPECT_EQ(group, (std::map<std::string, std::string>{{"fine", "z"}, {"ok", ""}}));
    std::string value;
    EXPECT_EQ(event->getArg("specials", value), 0);
    EXPECT_EQ(value, specials);
}

TEST(AbstractEvent, ErrorReplyWithInvalidTextStillParses) {
    GetVersionEvent sent;
    EXPECT_EQ(sent.error("Can not list bad\xff\x01name.", 5), 1);
    LogCapture capture;
    EventPtr event = received(sent);
    ASSERT_NE(event.event, nullptr);
    EXPECT_EQ(event->getArgMap(), (std::map<std::string, std::string>{{"errornr", "5"}}));
    EXPECT_TRUE(capture.lines().empty()) << capture.text();
}

namespace {
const char* const MALFORMED = "<message><param name=\"a\">1</param>";
const char* const MALFORMED_DEBUG =
    "%D DEBUG (%t): libxml2: Premature end of data in tag message line 1";
// ---------------------------------------------------------------------------
// The payload text is written without libxml2's writer and read without its
// parser where it can be: the bytes and the arguments are those of before.

// The payload as libxml2's writer wrote it: an indenting memory writer, the
// flat arguments, then the groups, and the final zero byte.
std::string libxml2Payload(
    const std::map<std::string, std::string>& args,
    const std::map<std::string, std::map<std::string, std::string>>& groups) {
    auto nameOk = [](const std::string& name) { return isXMLText(name.c_str(), name.size()); };
    XMLMemoryWriter writer;
    EXPECT_EQ(writer.open(XMLWriter::Indentation), 0);
    writer.startElement(nullptr, nullptr, "message");
    for (const auto& arg : args) {
        if (!nameOk(arg.first))
            continue;
        writer.startElement(nullptr, nullptr, "param");
        writer.writeAttribute("name", arg.first.c_str());
        writer.writeString(arg.second.c_str());
        writer.endElement();
    }
    for (const auto& group : groups) {
        if (!nameOk(group.first))
            continue;
        writer.startElement(nullptr, nullptr, "param");
        writer.writeAttribute("name", group.first.c_str());
        for (const auto& arg : group.second) {
            if (!nameOk(arg.first))
                continue;
            writer.startElement(nullptr, nullptr, "param");
            writer.writeAttribute("name", arg.first.c_str());
            writer.writeString(arg.second.c_str());
            writer.endElement();
        }
        writer.endElement();
    }
    writer.endElement();
    return std::string(writer.content(), static_cast<size_t>(writer.length())) +
           std::string(1, '\0');
}

// The arguments as libxml2's parse of a payload gave them: the first
// parameter of each name, when its first child holds text.
std::map<std::string, std::string> libxml2Arguments(const std::string& payload, bool& parsed) {
    std::map<std::string, std::string> args;
    xmlDocPtr doc = parsePayload(payload.data(), payload.size());
    parsed = doc != nullptr;
    std::vector<std::string> seen;
    forEachParameter(doc, [&](const std::string& name, xmlNodePtr param) {
        if (std::find(seen.begin(), seen.end(), name) != seen.end())
            return;
        seen.push_back(name);
        if (param->children != nullptr && param->children->content != nullptr)
            args.emplace(name, reinterpret_cast<const char*>(param->children->content));
    });
    if (doc != nullptr)
        xmlFreeDoc(doc);
    return args;
}

std::vector<std::string> tricky() {
    std::vector<std::string> texts = {"",
                                      "plain",
                                      " spaced ",
                                      "\t\n\r",
                                      "a\r\nb",
                                      "<&>\"'",
                                      "&amp; &lt;",
                                      "]]>",
                                      "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80",
                                      "\xef\xbf\xbe",
                                      "broken \xc3",
                                      "\xff",
                                      "bell \x07",
                                      std::string(1500, 'x') + "<" + std::string(500, 'y')};
    for (int c = 1; c < 0x80; ++c)
        texts.push_back("v" + std::string(1, static_cast<char>(c)) + "w");
    return texts;
}

TEST(AbstractEventPayload, BytesAreThoseOfLibxml2sWriter) {
    std::vector<std::string> const texts = tricky();
    for (size_t i = 0; i < texts.size(); ++i) {
        const std::string& text = texts[i];
        std::map<std::string, std::string> args = {
            {"value", text}, {text, "named"}, {"empty", ""}, {"z" + text, text}};
        std::map<std::string, std::map<std::string, std::string>> groups = {
            {"group", {{"a", text}, {text, "b"}, {"c", ""}}}, {"empty group", {}}};
        GetVersionEvent event;
        for (const auto& arg : args)
            event.setArg(arg.first.c_str(), arg.second);
        for (const auto& group : groups)
            event.setArg(group.first.c_str(), group.second);
        std::string const expected = libxml2Payload(args, groups);
        std::string xml;
        ASSERT_EQ(event.getXMLString(xml), 0);
        EXPECT_EQ(xml + std::string(1, '\0'), expected) << text;
        EXPECT_EQ(payloadOf(event), expected) << text;
        EXPECT_EQ(event.getSize(), expected.size());
    }
}

TEST(AbstractEventPayload, ErrorReplyBytesAreThoseOfLibxml2sWriter) {
    for (const std::string& text : tricky()) {
        GetVersionEvent event;
        LogCapture capture;
        ASSERT_EQ(event.error(text.c_str(), 7), 1);
        std::string const expected =
            libxml2Payload({{"errormsg", text.c_str()}, {"errornr", "7"}}, {});
        ACE_Message_Block* block = event.data(false);
        ASSERT_NE(block, nullptr);
        ASSERT_NE(block->cont(), nullptr);
        EXPECT_EQ(std::string(block->cont()->rd_ptr(), block->cont()->length()), expected);
    }
}

TEST(AbstractEventPayload, ReceivedArgumentsAreThoseOfLibxml2sParse) {
    std::vector<std::string> payloads;
    for (const std::string& text : tricky()) {
        payloads.push_back(libxml2Payload({{"value", text}, {text, "named"}, {"e", ""}},
                                          {{"group", {{"a", text}}}}));
        payloads.push_back(messageXML({{"a", text}, {"a", "second"}, {"b", text}}) +
                           std::string(1, '\0'));
    }
    std::string const d = DECLARATION;
    payloads.push_back(d +
                       "<message>\n <param name=\"a\"></param>\n <param name=\"a\">2</param>\n"
                       " <param name=\"b\"><!--c--></param>\n</message>\n");
    payloads.push_back(d + "<message>\n <param name=\"a\">1&#10;2</param>\n</message>\n");
    payloads.push_back(d + "<message>\n <param name=\"a\">1</param>\n</message>\n" +
                       std::string(2, '\0'));
    for (const std::string& payload : payloads) {
        bool parsed = false;
        std::vector<std::string> expectedLog;
        std::map<std::string, std::string> expected;
        {
            LogCapture capture;
            expected = libxml2Arguments(payload, parsed);
            expectedLog = capture.lines();
        }
        LogCapture capture;
        EventPtr event = receivedText(payload);
        ASSERT_NE(event.event, nullptr);
        EXPECT_EQ(event->getArgMap(), expected) << payload;
        EXPECT_EQ(capture.lines(), expectedLog) << payload;
        // And the same through setXMLString.
        GetVersionEvent other;
        EXPECT_EQ(other.setXMLString(payload), parsed ? 0 : -1) << payload;
        EXPECT_EQ(other.getArgMap(), expected) << payload;
    }
}

TEST(AbstractEventPayload, SetXMLStringKeepsArgumentsAlreadySet) {
    GetVersionEvent event;
    event.setArg("a", "mine");
    ASSERT_EQ(event.setXMLString(messageXML({{"a", "theirs"}, {"b", "2"}})), 0);
    EXPECT_EQ(event.getArgMap(), (std::map<std::string, std::string>{{"a", "mine"}, {"b", "2"}}));
    EXPECT_EQ(event.setXMLString("<message><param"), -1);
    EXPECT_EQ(event.setXMLString(""), -1);
}

// Events received and read on one thread (their parsed documents kept for
// getArg) are destroyed on another, while the first goes on receiving.
TEST(AbstractEventPayload, EventsParsedOnOneThreadAreFreedOnAnother) {
    std::string const payload = messageXML({{"a", "1"}, {"b", "two"}}) + std::string(1, '\0');
    std::string const odd = std::string(DECLARATION) +
                            "<message><!--x--><param name=\"a\">1</param></message>" +
                            std::string(1, '\0');
    std::vector<Abstract_Event*> events;
    std::mutex lock;
    std::thread receiver([&] {
        for (int i = 0; i < 300; ++i) {
            EventPtr event = receivedText(i % 2 == 0 ? payload : odd);
            char value[8] = "";
            EXPECT_EQ(event->getArg("a", value, sizeof value), 0);
            EXPECT_STREQ(value, "1");
            std::lock_guard<std::mutex> guard(lock);
            events.push_back(event.event);
            event.event = nullptr;
        }
    });
    std::thread destroyer([&] {
        size_t done = 0;
        while (done < 300) {
            Abstract_Event* event = nullptr;
            {
                std::lock_guard<std::mutex> guard(lock);
                if (done < events.size())
                    event = events[done];
            }
            if (event == nullptr) {
                std::this_thread::yield();
                continue;
            }
            std::string value;
            EXPECT_EQ(event->getArg("a", value), 0);
            event->destroy();
            ++done;
        }
    });
    receiver.join();
    destroyer.join();
}

}  // namespace

TEST(AbstractEvent, MalformedPayloadGoesToTheLogAtDebugLevelAndNotToStandardError) {
    StderrCapture err;
    std::vector<std::string> lines;
    {
        LogCapture capture;
        EventPtr event = receivedText(std::string(MALFORMED) + std::string(1, '\0'));
        ASSERT_NE(event.event, nullptr);
        EXPECT_TRUE(event->getArgMap().empty());
        lines = capture.lines();
    }
    EXPECT_EQ(err.text(), "");
    EXPECT_EQ(lines, std::vector<std::string>{MALFORMED_DEBUG});
}

TEST(AbstractEvent, MalformedPayloadOnAnotherThreadStaysOffStandardError) {
    StderrCapture err;
    std::vector<std::string> lines;
    std::thread worker([&lines] {
        LogCapture capture;
        for (int i = 0; i < 3; ++i) {
            EventPtr event = receivedText(std::string(MALFORMED) + std::string(1, '\0'));
            GetVersionEvent other;
            other.setXMLString("<message><param");
        }
        lines = capture.lines();
    });
    worker.join();
    EXPECT_EQ(err.text(), "");
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[0], MALFORMED_DEBUG);
}

TEST(AbstractEvent, PayloadWithADocumentTypeLoadsNothing) {
    // An external entity is neither fetched nor expanded.
    StderrCapture err;
    LogCapture capture;
    EventPtr event = receivedText(std::string(DECLARATION) +
                                  "<!DOCTYPE message [<!ENTITY x SYSTEM \"file:///etc/passwd\">]>"
                                  "<message><param name=\"a\">&x;</param>"
                                  "<param name=\"b\">2</param></message>" +
                                  std::string(1, '\0'));
    ASSERT_NE(event.event, nullptr);
    EXPECT_EQ(event->getArgMap().count("b"), 1u);
    std::string value;
    event->getArg("a", value);
    EXPECT_EQ(value.find("root:"), std::string::npos);
    EXPECT_EQ(err.text(), "");
}

TEST(AbstractEventCopy, ACopyAndItsSourceMayBothBeDestroyed) {
    GetVersionEvent* source = new GetVersionEvent();
    source->setArg("name", "one");
    Abstract_Event* copy = new GetVersionEvent(*source);
    EXPECT_EQ(copy->getArgMap().at("name"), "one");
    // One message, shared.
    EXPECT_EQ(copy->data(false)->data_block(), source->data(false)->data_block());
    source->destroy();
    EXPECT_EQ(copy->getACT(), copy->getACT());
    copy->destroy();
}

TEST(AbstractEventCopy, AssignmentReleasesWhatTheTargetHeld) {
    GetVersionEvent source;
    source.setArg("name", "two");
    GetVersionEvent target;
    target.setArg("other", "x");
    ACE_Message_Block* before = target.data(true);
    ASSERT_NE(before, nullptr);
    target = source;
    // The target's old message is no longer referenced by the target: the
    // test's own reference is the last one.
    EXPECT_EQ(before->data_block()->reference_count(), 1);
    before->release();
    EXPECT_EQ(target.getArgMap().at("name"), "two");
    EXPECT_EQ(target.getArgMap().count("other"), 0u);
    GetVersionEvent& same = target;
    target = same;
    EXPECT_EQ(target.getArgMap().at("name"), "two");
}
