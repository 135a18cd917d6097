// Tests of the XML document and writer wrappers.
#include <tarnwick/utf8.h>
#include <tarnwick/xml.h>

#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/xmlerror.h>
#include <libxml/xmlmemory.h>

#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"

using Tarnwick::XMLDocument;
using Tarnwick::XMLMemoryWriter;
using Tarnwick::XMLWriter;
using TarnwickTest::LogCapture;

namespace {

// libxml2 is set up once for the whole program, as the application does.
class LibxmlEnvironment : public ::testing::Environment {
public:
    void SetUp() override { xmlInitParser(); }
    void TearDown() override { xmlCleanupParser(); }
};

::testing::Environment* const libxmlEnvironment =
    ::testing::AddGlobalTestEnvironment(new LibxmlEnvironment);

using Lines = std::vector<std::string>;
using StringMap = std::map<std::string, std::string>;

const char kNoDocument[] = "%D ERROR (%t): Internal error: xpath query without parsed document.";
const char kParseError[] = "%D ERROR (%t): internal error: XML parse error: ";
const char kEvalError[] = "%D ERROR (%t): An error occurred while evaluating an xpath expression.";
const char kDeclaration[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
const char kDebug[] = "%D DEBUG (%t): libxml2: ";
const char kInvalidExpression[] = "%D DEBUG (%t): libxml2: Invalid expression";

const char kEvent[] =
    "<event type=\"3\">\n"
    "  <args>\n"
    "    <arg name=\"user\">alice</arg>\n"
    "    <arg name=\"empty\"/>\n"
    "    <arg name=\"twice\">one</arg>\n"
    "    <arg name=\"twice\">two</arg>\n"
    "    <arg name=\"long\">0123456789</arg>\n"
    "  </args>\n"
    "</event>\n";

// A document parsed from `text`; the parse must succeed.
void parse(XMLDocument& doc, const char* text) {
    ASSERT_EQ(doc.parseMemory(text, static_cast<uint32_t>(std::strlen(text))), 0);
    ASSERT_NE(doc.document(), nullptr);
}

// A memory writer whose document encoding is not the default one.
class EncodedWriter : public XMLMemoryWriter {
public:
    explicit EncodedWriter(const char* name) {
        encoding = new char[std::strlen(name) + 1];
        std::memcpy(encoding, name, std::strlen(name) + 1);
    }
};

// What the process writes on file descriptor 2 while the object lives.
class StderrCapture {
public:
    StderrCapture() {
        std::fflush(stderr);
        char name[] = "/tmp/tarnwick_stderr_XXXXXX";
        file_ = mkstemp(name);
        unlink(name);
        saved_ = dup(2);
        dup2(file_, 2);
    }
    ~StderrCapture() {
        restore();
        close(file_);
    }
    // Puts fd 2 back and returns what was written to it.
    std::string text() {
        restore();
        std::string out;
        char buffer[4096];
        ssize_t n;
        lseek(file_, 0, SEEK_SET);
        while ((n = read(file_, buffer, sizeof buffer)) > 0)
            out.append(buffer, static_cast<size_t>(n));
        return out;
    }

private:
    void restore() {
        if (saved_ >= 0) {
            std::fflush(stderr);
            dup2(saved_, 2);
            close(saved_);
            saved_ = -1;
        }
    }
    int file_ = -1;
    int saved_ = -1;
};

// A file in the temporary directory, removed again at the end of the test.
class TemporaryFile {
public:
    explicit TemporaryFile(const std::string& text) {
        char name[] = "/tmp/tarnwick_xml_test_XXXXXX";
        int fd = mkstemp(name);
        EXPECT_GE(fd, 0);
        if (fd >= 0) {
            EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
            close(fd);
            path_ = name;
        }
    }
    ~TemporaryFile() {
        if (!path_.empty()) {
            unlink(path_.c_str());
        }
    }
    const char* path() const { return path_.c_str(); }

private:
    std::string path_;
};

// ---------------------------------------------------------------------------
// Parsing

TEST(XMLDocumentTest, ParseMemoryHoldsDocument) {
    LogCapture cap;
    XMLDocument doc;
    EXPECT_EQ(doc.document(), nullptr);
    EXPECT_EQ(doc.parseMemory(kEvent, sizeof kEvent - 1), 0);
    ASSERT_NE(doc.document(), nullptr);
    EXPECT_STREQ(reinterpret_cast<const char*>(xmlDocGetRootElement(doc.document())->name),
                 "event");
    EXPECT_TRUE(cap.lines().empty());
}

TEST(XMLDocumentTest, ParseFileReadsTemporaryFile) {
    TemporaryFile file("<root><value>from file</value></root>\n");
    LogCapture cap;
    XMLDocument doc;
    EXPECT_EQ(doc.parseFile(file.path()), 0);
    ASSERT_NE(doc.document(), nullptr);
    char out[32] = "preset";
    EXPECT_EQ(doc.queryValue("/root/value", out, sizeof out), 0);
    EXPECT_STREQ(out, "from file");
    EXPECT_TRUE(cap.lines().empty());
}

TEST(XMLDocumentTest, ParseFileWithDocumentHeldKeepsFirst) {
    TemporaryFile file("<other/>");
    XMLDocument doc;
    parse(doc, "<first/>");
    xmlDocPtr first = doc.document();
    LogCapture cap;
    EXPECT_EQ(doc.parseFile(file.path()), 0);
    EXPECT_EQ(doc.document(), first);
    EXPECT_TRUE(cap.lines().empty());
}

TEST(XMLDocumentTest, ParseMissingFileLogsLibxmlError) {
    LogCapture cap;
    XMLDocument doc;
    EXPECT_EQ(doc.parseFile("/nonexistent/tarnwick/none.xml"), -1);
    EXPECT_EQ(doc.document(), nullptr);
    xmlErrorPtr error = xmlGetLastError();
    ASSERT_NE(error, nullptr);
    ASSERT_NE(error->message, nullptr);
    // libxml2's own report comes first, at debug level.
    std::string message = error->message;
    EXPECT_EQ(cap.text(), std::string(kDebug) + message.substr(0, message.size() - 1) + "\n" +
                              kParseError + message + "\n");
}

TEST(XMLDocumentTest, MalformedParseLogsLibxmlMessage) {
    LogCapture cap;
    XMLDocument doc;
    const char text[] = "<a><b></a>";
    EXPECT_EQ(doc.parseMemory(text, sizeof text - 1), -1);
    EXPECT_EQ(doc.document(), nullptr);
    // The message of libxml2 follows the prefix unchanged.
    xmlErrorPtr error = xmlGetLastError();
    ASSERT_NE(error, nullptr);
    ASSERT_NE(error->message, nullptr);
    EXPECT_GT(std::strlen(error->message), 0u);
    // The debug line tells the first error of the parse, the error line the
    // last one.
    EXPECT_EQ(cap.text(), std::string(kDebug) +
                              "Opening and ending tag mismatch: b line 1 and a\n" + kParseError +
                              error->message + "\n");
    Lines lines = cap.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1].compare(0, std::strlen(kParseError), kParseError), 0);
    EXPECT_GT(lines[1].size(), std::strlen(kParseError));
}

TEST(XMLDocumentTest, FailedParseCanBeRepeated) {
    XMLDocument doc;
    const char bad[] = "<a>";
    {
        LogCapture cap;
        EXPECT_EQ(doc.parseMemory(bad, sizeof bad - 1), -1);
    }
    EXPECT_EQ(doc.parseMemory("<a/>", 4), 0);
    EXPECT_NE(doc.document(), nullptr);
}

TEST(XMLDocumentTest, SilentParseFailureIsSuccessWithoutDocument) {
    // An earlier error of libxml2 must not be taken for this parse's.
    {
        LogCapture cap;
        XMLDocument broken;
        EXPECT_EQ(broken.parseMemory("<x>", 3), -1);
    }
    LogCapture cap;
    XMLDocument doc;
    // libxml2 refuses an empty buffer without reporting an error.
    EXPECT_EQ(doc.parseMemory("", 0), 0);
    EXPECT_EQ(doc.document(), nullptr);
    EXPECT_TRUE(cap.lines().empty());

    char out[8] = "keep";
    errno = 0;
    EXPECT_EQ(doc.queryValue("/a", out, sizeof out), -1);
    EXPECT_STREQ(out, "keep");
    EXPECT_EQ(cap.lines(), Lines{kNoDocument});
}

// ---------------------------------------------------------------------------
// Queries on an empty document

TEST(XMLDocumentTest, QueryWithoutDocumentLogsAndFails) {
    LogCapture cap;
    XMLDocument doc;
    char out[16] = "unchanged";
    errno = 0;
    EXPECT_EQ(doc.queryValue("/event", out, sizeof out), -1);
    EXPECT_STREQ(out, "unchanged");
    EXPECT_EQ(cap.lines(), Lines{kNoDocument});

    cap.clear();
    StringMap map;
    errno = 0;
    EXPECT_EQ(doc.queryMap("/event/args", map), -1);
    EXPECT_TRUE(map.empty());
    EXPECT_EQ(cap.lines(), Lines{kNoDocument});
}

TEST(XMLDocumentTest, QueryWithoutDocumentLogsErrnoForm) {
    LogCapture cap;
    XMLDocument doc;
    char out[16] = "";
    errno = ENOENT;
    EXPECT_EQ(doc.queryValue("/event", out, sizeof out), -1);
    EXPECT_EQ(cap.lines(), Lines{std::string(kNoDocument) + ": No such file or directory"});

    cap.clear();
    StringMap map;
    errno = ENOENT;
    EXPECT_EQ(doc.queryMap("/event/args", map), -1);
    EXPECT_EQ(cap.lines(), Lines{std::string(kNoDocument) + ": No such file or directory"});
}

TEST(XMLDocumentTest, QueryValueMallocedWithoutDocumentIsSilent) {
    LogCapture cap;
    XMLDocument doc;
    errno = 0;
    EXPECT_EQ(doc.queryValueMalloced("/event"), nullptr);
    EXPECT_TRUE(cap.lines().empty());
}

TEST(XMLDocumentTest, ParseMemoryWithDocumentHeldKeepsFirst) {
    XMLDocument doc;
    parse(doc, "<first>1</first>");
    xmlDocPtr first = doc.document();
    LogCapture cap;
    EXPECT_EQ(doc.parseMemory("<second>2</second>", 18), 0);
    EXPECT_EQ(doc.document(), first);
    // Even text that would not parse is not looked at.
    EXPECT_EQ(doc.parseMemory("<broken", 7), 0);
    EXPECT_EQ(doc.document(), first);
    char out[8] = "";
    EXPECT_EQ(doc.queryValue("/first", out, sizeof out), 0);
    EXPECT_STREQ(out, "1");
    EXPECT_TRUE(cap.lines().empty());
}

// ---------------------------------------------------------------------------
// queryValue

TEST(XMLDocumentTest, QueryValueCopiesText) {
    XMLDocument doc;
    parse(doc, kEvent);
    LogCapture cap;
    char out[16] = "";
    EXPECT_EQ(doc.queryValue("/event/args/arg[@name='user']", out, sizeof out), 0);
    EXPECT_STREQ(out, "alice");
    EXPECT_TRUE(cap.lines().empty());
}

TEST(XMLDocumentTest, QueryValueAbsentKeepsOutput) {
    XMLDocument doc;
    parse(doc, kEvent);
    LogCapture cap;
    char out[16] = "default";
    EXPECT_EQ(doc.queryValue("/event/args/arg[@name='missing']", out, sizeof out), 0);
    EXPECT_STREQ(out, "default");
    EXPECT_TRUE(cap.lines().empty());
}

TEST(XMLDocumentTest, QueryValueTwoNodesLogsCount) {
    XMLDocument doc;
    parse(doc, kEvent);
    LogCapture cap;
    char out[16] = "default";
    const char query[] = "/event/args/arg[@name='twice']";
    EXPECT_EQ(doc.queryValue(query, out, sizeof out), -1);
    EXPECT_STREQ(out, "default");
    // The message has no line end of its own.
    EXPECT_EQ(cap.text(),
              std::string("%D ERROR (%t): Invalid node and/or size: expected 1, got 2 (query = ") +
                  query + ")");
}

TEST(XMLDocumentTest, QueryValueTextLongerThanSizeFails) {
    XMLDocument doc;
    parse(doc, kEvent);
    LogCapture cap;
    char out[16] = "";
    const char query[] = "/event/args/arg[@name='long']";
    // Ten characters need eleven bytes.
    EXPECT_EQ(doc.queryValue(query, out, 10), -1);
    EXPECT_EQ(doc.queryValue(query, out, 11), 0);
    EXPECT_STREQ(out, "0123456789");
    EXPECT_TRUE(cap.lines().empty());
}

TEST(XMLDocumentTest, QueryValueNonElementFailsSilently) {
    XMLDocument doc;
    parse(doc, kEvent);
    LogCapture cap;
    char out[16] = "default";
    EXPECT_EQ(doc.queryValue("/event/@type", out, sizeof out), -1);
    EXPECT_EQ(doc.queryValue("/event/args/arg[@name='user']/text()", out, sizeof out), -1);
    EXPECT_STREQ(out, "default");
    EXPECT_TRUE(cap.lines().empty());
}

TEST(XMLDocumentTest, QueryValueResultWithoutNodeSetIsAbsent) {
    XMLDocument doc;
    parse(doc, kEvent);
    LogCapture cap;
    char out[16] = "default";
    EXPECT_EQ(doc.queryValue("count(/event/args/arg)", out, sizeof out), 0);
    EXPECT_STREQ(out, "default");
    EXPECT_TRUE(cap.lines().empty());
}

TEST(XMLDocumentTest, QueryValueInvalidExpressionLogs) {
    XMLDocument doc;
    parse(doc, kEvent);
    LogCapture cap;
    char out[16] = "default";
    errno = 0;
    EXPECT_EQ(doc.queryValue("/event/[", out, sizeof out), -1);
    EXPECT_STREQ(out, "default");
    // The text carries a line end before the one that ends the message.
    EXPECT_EQ(cap.text(), std::string(kInvalidExpression) + "\n" + kEvalError + "\n\n");
    EXPECT_EQ(cap.lines(), (Lines{kInvalidExpression, kEvalError, ""}));
}

TEST(XMLDocumentTest, QueryValueInvalidExpressionLogsErrnoForm) {
    XMLDocument doc;
    parse(doc, kEvent);
    LogCapture cap;
    char out[16] = "";
    errno = ENOENT;
    EXPECT_EQ(doc.queryValue("/event/[", out, sizeof out), -1);
    EXPECT_EQ(cap.text(), std::string(kInvalidExpression) + "\n" + kEvalError +
                              "\n: No such file or directory\n");
}

// ---------------------------------------------------------------------------
// queryValueMalloced

TEST(XMLDocumentTest, QueryValueMallocedCopiesText) {
    XMLDocument doc;
    parse(doc, kEvent);
    LogCapture cap;
    char* value = doc.queryValueMalloced("/event/args/arg[@name='long']");
    ASSERT_NE(value, nullptr);
    EXPECT_STREQ(value, "0123456789");
    delete[] value;
    EXPECT_TRUE(cap.lines().empty());
}

TEST(XMLDocumentTest, ElementWithoutTextIsNullMallocedButEmptyValue) {
    XMLDocument doc;
    parse(doc, kEvent);
    LogCapture cap;
    const char query[] = "/event/args/arg[@name='empty']";
    EXPECT_EQ(doc.queryValueMalloced(query), nullptr);
    char out[16] = "default";
    EXPECT_EQ(doc.queryValue(query, out, sizeof out), 0);
    EXPECT_STREQ(out, "");
    EXPECT_TRUE(cap.lines().empty());
}

TEST(XMLDocumentTest, QueryValueMallocedFailuresAreSilent) {
    XMLDocument doc;
    parse(doc, kEvent);
    LogCapture cap;
    EXPECT_EQ(doc.queryValueMalloced("/event/args/arg[@name='missing']"), nullptr);
    EXPECT_EQ(doc.queryValueMalloced("/event/args/arg[@name='twice']"), nullptr);
    EXPECT_EQ(doc.queryValueMalloced("/event/@type"), nullptr);
    EXPECT_EQ(doc.queryValueMalloced("/event/["), nullptr);
    // Only libxml2's own report of the bad expression.
    EXPECT_EQ(cap.lines(), Lines{kInvalidExpression});
}

// ---------------------------------------------------------------------------
// queryMap

TEST(XMLDocumentTest, QueryMapFirstOfDuplicateNamesWins) {
    XMLDocument doc;
    parse(doc,
          "<args><arg name=\"a\">1</arg><arg name=\"a\">2</arg><arg name=\"b\">3</arg></args>");
    LogCapture cap;
    StringMap map;
    EXPECT_EQ(doc.queryMap("/args", map), 0);
    EXPECT_EQ(map, (StringMap{{"a", "1"}, {"b", "3"}}));
    EXPECT_TRUE(cap.lines().empty());
}

TEST(XMLDocumentTest, QueryMapKeepsExistingEntries) {
    XMLDocument doc;
    parse(doc, kEvent);
    StringMap map{{"user", "bob"}, {"other", "x"}};
    EXPECT_EQ(doc.queryMap("/event/args", map), 0);
    EXPECT_EQ(map, (StringMap{{"user", "bob"},
                              {"other", "x"},
                              {"empty", ""},
                              {"twice", "one"},
                              {"long", "0123456789"}}));
}

TEST(XMLDocumentTest, QueryMapSkipsTextNodesAndUnnamedChildren) {
    XMLDocument doc;
    parse(doc,
          "<args>\n  loose text\n  <arg>no name</arg>\n  <!-- note -->\n"
          "  <arg id=\"c\">other attribute</arg>\n  <arg name=\"k\">v</arg>\n</args>");
    StringMap map;
    EXPECT_EQ(doc.queryMap("/args", map), 0);
    EXPECT_EQ(map, (StringMap{{"k", "v"}}));
}

TEST(XMLDocumentTest, QueryMapWithoutChildrenReturnsZero) {
    XMLDocument doc;
    parse(doc, "<event><args/></event>");
    StringMap map{{"kept", "1"}};
    EXPECT_EQ(doc.queryMap("/event/args", map), 0);
    EXPECT_EQ(map, (StringMap{{"kept", "1"}}));
}

TEST(XMLDocumentTest, QueryMapNeedsExactlyOneNode) {
    XMLDocument doc;
    parse(doc, "<event><args><arg name=\"a\">1</arg></args><args/></event>");
    LogCapture cap;
    StringMap map;
    EXPECT_EQ(doc.queryMap("/event/args", map), -1);
    EXPECT_EQ(doc.queryMap("/event/missing", map), -1);
    EXPECT_TRUE(map.empty());
    EXPECT_TRUE(cap.lines().empty());
}

TEST(XMLDocumentTest, QueryMapInvalidExpressionLogs) {
    XMLDocument doc;
    parse(doc, kEvent);
    LogCapture cap;
    StringMap map;
    errno = 0;
    EXPECT_EQ(doc.queryMap("/event/[", map), -1);
    EXPECT_EQ(cap.lines(), (Lines{kInvalidExpression, kEvalError, ""}));
}

// ---------------------------------------------------------------------------
// Writers

TEST(XMLWriterTest, BaseWriterCannotBeOpened) {
    XMLWriter writer;
    EXPECT_EQ(writer.open(0), -1);
    EXPECT_EQ(writer.open(XMLWriter::Indentation), -1);
    EXPECT_EQ(writer.startElement(nullptr, nullptr, "a"), -1);
    XMLMemoryWriter memory;
    XMLWriter& base = memory;
    EXPECT_EQ(base.open(XMLWriter::Indentation), 0);
}

TEST(XMLWriterTest, OperationsFailWithoutOpen) {
    XMLMemoryWriter writer;
    EXPECT_EQ(writer.startElement(nullptr, nullptr, "a"), -1);
    EXPECT_EQ(writer.startElement("p", "urn:p", "a"), -1);
    EXPECT_EQ(writer.writeAttribute("name", "value"), -1);
    EXPECT_EQ(writer.writeString("text"), -1);
    EXPECT_EQ(writer.endElement(), -1);
    EXPECT_EQ(writer.content(), nullptr);
    EXPECT_EQ(writer.length(), -1);
}

TEST(XMLWriterTest, MemoryWriterIndentedDocument) {
    XMLMemoryWriter writer;
    ASSERT_EQ(writer.open(XMLWriter::Indentation), 0);
    EXPECT_EQ(writer.startElement(nullptr, nullptr, "event"), 0);
    EXPECT_EQ(writer.writeAttribute("type", "3"), 0);
    EXPECT_EQ(writer.startElement(nullptr, nullptr, "args"), 0);
    EXPECT_EQ(writer.startElement(nullptr, nullptr, "arg"), 0);
    EXPECT_EQ(writer.writeAttribute("name", "user"), 0);
    EXPECT_EQ(writer.writeString("alice"), 0);
    EXPECT_EQ(writer.endElement(), 0);
    EXPECT_EQ(writer.startElement(nullptr, nullptr, "arg"), 0);
    EXPECT_EQ(writer.writeAttribute("name", "expr"), 0);
    EXPECT_EQ(writer.writeString("a < b & c"), 0);
    EXPECT_EQ(writer.endElement(), 0);
    EXPECT_EQ(writer.endElement(), 0);
    EXPECT_EQ(writer.endElement(), 0);
    const std::string expected = std::string(kDeclaration) +
                                 "<event type=\"3\">\n"
                                 " <args>\n"
                                 "  <arg name=\"user\">alice</arg>\n"
                                 "  <arg name=\"expr\">a &lt; b &amp; c</arg>\n"
                                 " </args>\n"
                                 "</event>\n";
    const char* content = writer.content();
    ASSERT_NE(content, nullptr);
    EXPECT_EQ(std::string(content), expected);
    EXPECT_EQ(writer.length(), static_cast<int64_t>(expected.size()));
    // The pointer belongs to the writer and stays put without further writes.
    EXPECT_EQ(writer.content(), content);

    // What was written reads back through the document.
    XMLDocument doc;
    parse(doc, content);
    char out[16] = "";
    EXPECT_EQ(doc.queryValue("/event/args/arg[@name='expr']", out, sizeof out), 0);
    EXPECT_STREQ(out, "a < b & c");
}

TEST(XMLWriterTest, MemoryWriterWithoutIndentation) {
    XMLMemoryWriter writer;
    ASSERT_EQ(writer.open(0), 0);
    EXPECT_EQ(writer.startElement(nullptr, nullptr, "a"), 0);
    EXPECT_EQ(writer.startElement(nullptr, nullptr, "b"), 0);
    EXPECT_EQ(writer.writeString("x"), 0);
    EXPECT_EQ(writer.endElement(), 0);
    EXPECT_EQ(writer.endElement(), 0);
    EXPECT_EQ(std::string(writer.content()), std::string(kDeclaration) + "<a><b>x</b></a>");
}

TEST(XMLWriterTest, LengthFollowsWrites) {
    XMLMemoryWriter writer;
    ASSERT_EQ(writer.open(XMLWriter::Indentation), 0);
    // The declaration is there as soon as the writer is open.
    EXPECT_EQ(writer.length(), static_cast<int64_t>(std::strlen(kDeclaration)));
    EXPECT_EQ(std::string(writer.content()), kDeclaration);
    EXPECT_EQ(writer.startElement(nullptr, nullptr, "root"), 0);
    EXPECT_EQ(writer.endElement(), 0);
    const std::string expected = std::string(kDeclaration) + "<root/>\n";
    EXPECT_EQ(writer.length(), static_cast<int64_t>(expected.size()));
    EXPECT_EQ(std::string(writer.content()), expected);
}

TEST(XMLWriterTest, SecondOpenReturnsZeroAndKeepsContent) {
    XMLMemoryWriter writer;
    ASSERT_EQ(writer.open(0), 0);
    EXPECT_EQ(writer.startElement(nullptr, nullptr, "a"), 0);
    EXPECT_EQ(writer.endElement(), 0);
    EXPECT_EQ(writer.open(XMLWriter::Indentation), 0);
    EXPECT_EQ(std::string(writer.content()), std::string(kDeclaration) + "<a/>");
}

TEST(XMLWriterTest, NamespacedElement) {
    XMLMemoryWriter writer;
    ASSERT_EQ(writer.open(0), 0);
    EXPECT_EQ(writer.startElement("tw", "urn:tarnwick", "event"), 0);
    EXPECT_EQ(writer.endElement(), 0);
    EXPECT_EQ(std::string(writer.content()),
              std::string(kDeclaration) + "<tw:event xmlns:tw=\"urn:tarnwick\"/>");
}

TEST(XMLWriterTest, AttributeValueIsEscaped) {
    XMLMemoryWriter writer;
    ASSERT_EQ(writer.open(0), 0);
    EXPECT_EQ(writer.startElement(nullptr, nullptr, "a"), 0);
    EXPECT_EQ(writer.writeAttribute("v", "1 < 2 & \"q\" %d"), 0);
    EXPECT_EQ(writer.endElement(), 0);
    EXPECT_EQ(std::string(writer.content()),
              std::string(kDeclaration) + "<a v=\"1 &lt; 2 &amp; &quot;q&quot; %d\"/>");
}

// Element text in UTF-8 is escaped by the writer itself; the result must be
// the bytes that libxml2's own escaping (the path of any other encoding)
// gives, for every character that may appear in XML text.
TEST(XMLWriterTest, Utf8TextIsEscapedAsLibxml2EscapesIt) {
    std::string text("\t\n\r");
    for (int c = 0x20; c < 0x80; ++c)
        text += static_cast<char>(c);
    text += "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80 \r\n<&>\"'";
    const char* const texts[] = {"", "plain", "&&&", "<<>>", "\r", text.c_str()};
    for (const char* item : texts) {
        XMLMemoryWriter fast;
        EncodedWriter general("UTF-8");
        for (XMLMemoryWriter* writer :
             {static_cast<XMLMemoryWriter*>(&fast), static_cast<XMLMemoryWriter*>(&general)}) {
            ASSERT_EQ(writer->open(0), 0);
            EXPECT_EQ(writer->startElement(nullptr, nullptr, "a"), 0);
            EXPECT_EQ(writer->writeString(item), 0);
            EXPECT_EQ(writer->startElement(nullptr, nullptr, "b"), 0);
            EXPECT_EQ(writer->writeString(item), 0);
            EXPECT_EQ(writer->endElement(), 0);
            EXPECT_EQ(writer->writeString(item), 0);
            EXPECT_EQ(writer->endElement(), 0);
        }
        EXPECT_EQ(std::string(fast.content()), std::string(general.content())) << item;
    }
    XMLMemoryWriter writer;
    ASSERT_EQ(writer.open(0), 0);
    EXPECT_EQ(writer.startElement(nullptr, nullptr, "a"), 0);
    EXPECT_EQ(writer.writeString("1 < 2 & \"q\" \r"), 0);
    EXPECT_EQ(writer.endElement(), 0);
    EXPECT_EQ(std::string(writer.content()),
              std::string(kDeclaration) + "<a>1 &lt; 2 &amp; &quot;q&quot; &#13;</a>");
}

// Text that is not XML text writes nothing on either path.
TEST(XMLWriterTest, Utf8TextThatIsNotXmlTextWritesNothing) {
    const char* const bad[] = {"bell \x07", "broken \xc3", "overlong \xc0\xaf", "\xff"};
    for (const char* item : bad) {
        XMLMemoryWriter writer;
        ASSERT_EQ(writer.open(0), 0);
        EXPECT_EQ(writer.startElement(nullptr, nullptr, "a"), 0);
        EXPECT_EQ(writer.writeString(item), -1) << item;
        EXPECT_EQ(writer.endElement(), 0);
        EXPECT_EQ(std::string(writer.content()), std::string(kDeclaration) + "<a/>") << item;
    }
}

TEST(XMLWriterTest, WriteStringInvalidInEncodingWritesNothing) {
    EncodedWriter writer("ASCII");
    ASSERT_EQ(writer.open(0), 0);
    EXPECT_EQ(writer.startElement(nullptr, nullptr, "a"), 0);
    EXPECT_EQ(writer.writeString("caf\xc3\xa9 au lait"), -1);
    EXPECT_EQ(writer.writeString("plain ascii text"), 0);
    EXPECT_EQ(writer.endElement(), 0);
    EXPECT_EQ(writer.startElement(nullptr, nullptr, "b"), 0);
    EXPECT_EQ(writer.writeString("\xff is not ascii at all"), -1);
    EXPECT_EQ(writer.endElement(), 0);
    EXPECT_EQ(std::string(writer.content()),
              "<?xml version=\"1.0\" encoding=\"ASCII\"?>\n<a>plain ascii text</a><b/>");
}

TEST(XMLWriterTest, WriterEncodingNamesTheDocument) {
    EncodedWriter writer("ISO-8859-1");
    ASSERT_EQ(writer.open(0), 0);
    EXPECT_EQ(writer.startElement(nullptr, nullptr, "a"), 0);
    // Latin-1 input: 0xE9 is e acute, written back out in Latin-1.
    EXPECT_EQ(writer.writeString("caf\xe9"), 0);
    EXPECT_EQ(writer.endElement(), 0);
    EXPECT_EQ(std::string(writer.content()),
              "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<a>caf\xe9</a>");
}

TEST(XMLWriterTest, UnendedDocumentIsReleasedCleanly) {
    // The destructor ends the document; nothing of it must leak or fail.
    XMLMemoryWriter writer;
    ASSERT_EQ(writer.open(XMLWriter::Indentation | XMLWriter::Compression), 0);
    EXPECT_EQ(writer.startElement(nullptr, nullptr, "a"), 0);
    EXPECT_EQ(writer.startElement(nullptr, nullptr, "b"), 0);
}

// ---------------------------------------------------------------------------
// convertInput

TEST(ConvertInputTest, NullInputGivesNull) {
    EXPECT_EQ(Tarnwick::convertInput(nullptr, "UTF-8"), nullptr);
}

TEST(ConvertInputTest, UnknownEncodingGivesNull) {
    EXPECT_EQ(Tarnwick::convertInput("text", "no-such-encoding"), nullptr);
    EXPECT_EQ(Tarnwick::convertInput("text", nullptr), nullptr);
}

TEST(ConvertInputTest, InvalidInputGivesNull) {
    EXPECT_EQ(Tarnwick::convertInput("caf\xc3\xa9 au lait", "ASCII"), nullptr);
    EXPECT_EQ(Tarnwick::convertInput("a byte \x80 in the middle", "US-ASCII"), nullptr);
    // A UTF-16 text of an odd number of bytes does not convert completely.
    EXPECT_EQ(Tarnwick::convertInput("abc", "UTF-16LE"), nullptr);
}

TEST(ConvertInputTest, ConvertsToUtf8) {
    xmlChar* utf8 = Tarnwick::convertInput("caf\xc3\xa9", "UTF-8");
    ASSERT_NE(utf8, nullptr);
    EXPECT_STREQ(reinterpret_cast<char*>(utf8), "caf\xc3\xa9");
    xmlFree(utf8);

    xmlChar* latin = Tarnwick::convertInput("caf\xe9", "ISO-8859-1");
    ASSERT_NE(latin, nullptr);
    EXPECT_STREQ(reinterpret_cast<char*>(latin), "caf\xc3\xa9");
    xmlFree(latin);

    xmlChar* ascii = Tarnwick::convertInput("plain ascii text", "ASCII");
    ASSERT_NE(ascii, nullptr);
    EXPECT_STREQ(reinterpret_cast<char*>(ascii), "plain ascii text");
    xmlFree(ascii);

    xmlChar* empty = Tarnwick::convertInput("", "UTF-8");
    ASSERT_NE(empty, nullptr);
    EXPECT_STREQ(reinterpret_cast<char*>(empty), "");
    xmlFree(empty);
}

// ---------------------------------------------------------------------------
// Parameter queries: names are compared, never evaluated

const char kMessage[] =
    "<message>\n"
    " <param name=\"user\">alice</param>\n"
    " <param name=\"it's\">apostrophe</param>\n"
    " <param name=\"a' or @name='user\">tricky</param>\n"
    " <param name=\"twice\">one</param>\n"
    " <param name=\"twice\">two</param>\n"
    " <param name=\"empty\"/>\n"
    " <param name=\"group\"><param name=\"x\">1</param><param name=\"y\">2</param></param>\n"
    " <other><param name=\"hidden\">no</param></other>\n"
    "</message>\n";

TEST(XMLDocumentTest, QueryParameterComparesNamesAsText) {
    XMLDocument doc;
    parse(doc, kMessage);
    LogCapture cap;
    char out[16] = "";
    EXPECT_EQ(doc.queryParameter("user", out, sizeof out), 0);
    EXPECT_STREQ(out, "alice");
    EXPECT_EQ(doc.queryParameter("it's", out, sizeof out), 0);
    EXPECT_STREQ(out, "apostrophe");
    EXPECT_EQ(doc.queryParameter("a' or @name='user", out, sizeof out), 0);
    EXPECT_STREQ(out, "tricky");
    EXPECT_EQ(doc.queryParameter("empty", out, sizeof out), 0);
    EXPECT_STREQ(out, "");
    std::strcpy(out, "keep");
    EXPECT_EQ(doc.queryParameter("hidden", out, sizeof out), 0);
    EXPECT_EQ(doc.queryParameter("']", out, sizeof out), 0);
    EXPECT_EQ(doc.queryParameter("", out, sizeof out), 0);
    EXPECT_STREQ(out, "keep");
    EXPECT_EQ(doc.queryParameter("user", out, 5), -1);
    EXPECT_TRUE(cap.lines().empty()) << cap.text();

    char* value = doc.queryParameterMalloced("it's");
    ASSERT_NE(value, nullptr);
    EXPECT_STREQ(value, "apostrophe");
    delete[] value;
    EXPECT_EQ(doc.queryParameterMalloced("empty"), nullptr);
    EXPECT_EQ(doc.queryParameterMalloced("twice"), nullptr);
    EXPECT_EQ(doc.queryParameterMalloced("missing"), nullptr);

    StringMap map;
    EXPECT_EQ(doc.queryParameterMap("group", map), 0);
    EXPECT_EQ(map, (StringMap{{"x", "1"}, {"y", "2"}}));
    EXPECT_EQ(doc.queryParameterMap("twice", map), -1);
    EXPECT_EQ(doc.queryParameterMap("missing", map), -1);
    EXPECT_TRUE(cap.lines().empty()) << cap.text();
}

TEST(XMLDocumentTest, QueryParameterTwoNodesLogsCountAndQuery) {
    XMLDocument doc;
    parse(doc, kMessage);
    LogCapture cap;
    char out[16] = "default";
    EXPECT_EQ(doc.queryParameter("twice", out, sizeof out), -1);
    EXPECT_STREQ(out, "default");
    EXPECT_EQ(cap.text(),
              "%D ERROR (%t): Invalid node and/or size: expected 1, got 2 (query = "
              "//message/param[@name='twice'])");
}

TEST(XMLDocumentTest, QueryParameterWithoutDocumentLogs) {
    XMLDocument doc;
    LogCapture cap;
    char out[8] = "keep";
    errno = 0;
    EXPECT_EQ(doc.queryParameter("a", out, sizeof out), -1);
    StringMap map;
    EXPECT_EQ(doc.queryParameterMap("a", map), -1);
    EXPECT_EQ(doc.queryParameterMalloced("a"), nullptr);
    EXPECT_EQ(cap.lines(), (Lines{kNoDocument, kNoDocument}));
}

TEST(XMLDocumentTest, QueryParameterWithVeryLongNames) {
    std::string const plain(65536, 'n');
    std::string const quoted = std::string(32768, '\'') + std::string(32768, '"');
    XMLMemoryWriter writer;
    ASSERT_EQ(writer.open(XMLWriter::Indentation), 0);
    ASSERT_EQ(writer.startElement(nullptr, nullptr, "message"), 0);
    for (const std::string* name : {&plain, &quoted}) {
        ASSERT_EQ(writer.startElement(nullptr, nullptr, "param"), 0);
        ASSERT_EQ(writer.writeAttribute("name", name->c_str()), 0);
        ASSERT_EQ(writer.writeString(name == &plain ? "plain" : "quoted"), 0);
        ASSERT_EQ(writer.endElement(), 0);
    }
    ASSERT_EQ(writer.endElement(), 0);
    XMLDocument doc;
    ASSERT_EQ(doc.parseMemory(writer.content(), static_cast<uint32_t>(writer.length())), 0);
    LogCapture cap;
    char out[16] = "";
    EXPECT_EQ(doc.queryParameter(plain.c_str(), out, sizeof out), 0);
    EXPECT_STREQ(out, "plain");
    EXPECT_EQ(doc.queryParameter(quoted.c_str(), out, sizeof out), 0);
    EXPECT_STREQ(out, "quoted");
    EXPECT_TRUE(cap.lines().empty());
}

// ---------------------------------------------------------------------------
// libxml2's reports stay off standard error

TEST(XMLDocumentTest, FailuresWriteNothingOnStandardError) {
    StderrCapture err;
    {
        LogCapture cap;
        XMLDocument broken;
        EXPECT_EQ(broken.parseMemory("<a><b></a>", 10), -1);
        XMLDocument missing;
        EXPECT_EQ(missing.parseFile("/nonexistent/tarnwick/none.xml"), -1);
        XMLDocument doc;
        parse(doc, kEvent);
        char out[8];
        EXPECT_EQ(doc.queryValue("/event/[", out, sizeof out), -1);
        xmlFreeDoc(Tarnwick::parsePayload("<?xml version=\"1.0\" encoding=\"no-such\"?><a/>", 44));
        xmlFreeDoc(Tarnwick::parsePayload("<a>\xff\xfe</a>", 7));
    }
    EXPECT_EQ(err.text(), "");
}

TEST(XMLDocumentTest, ErrorHandlersOfTheCallerComeBack) {
    xmlGenericErrorFunc const generic = xmlGenericError;
    void* const genericContext = xmlGenericErrorContext;
    xmlStructuredErrorFunc const structured = xmlStructuredError;
    void* const structuredContext = xmlStructuredErrorContext;
    {
        LogCapture cap;
        XMLDocument broken;
        EXPECT_EQ(broken.parseMemory("<a>", 3), -1);
    }
    EXPECT_EQ(xmlGenericError, generic);
    EXPECT_EQ(xmlGenericErrorContext, genericContext);
    EXPECT_EQ(xmlStructuredError, structured);
    EXPECT_EQ(xmlStructuredErrorContext, structuredContext);
}

// ---------------------------------------------------------------------------
// Markup whose parsing would grow with its square is refused

std::string elementWithAttributes(int count, const char* prefix) {
    std::string text = "<message><param name=\"a\"";
    for (int i = 0; i < count; ++i)
        text += std::string(" ") + prefix + std::to_string(i) + "=\"v=>\"";
    text += ">1</param></message>";
    return text;
}

TEST(XMLPayloadTest, TooManyAttributesInOneElementAreRefused) {
    LogCapture cap;
    // The "name" attribute and 255 more are fine.
    std::string const fits = elementWithAttributes(255, "a");
    xmlDocPtr doc = Tarnwick::parsePayload(fits.data(), fits.size());
    EXPECT_NE(doc, nullptr);
    xmlFreeDoc(doc);
    EXPECT_TRUE(cap.lines().empty());

    std::string const many = elementWithAttributes(40000, "a");
    EXPECT_EQ(Tarnwick::parsePayload(many.data(), many.size()), nullptr);
    EXPECT_EQ(cap.lines(),
              Lines{"%D DEBUG (%t): XML payload refused: more than 256 attributes in one element"});

    // The same for a document read from memory by XMLDocument, which tells
    // the reason as a parse error.
    cap.clear();
    XMLDocument refused;
    EXPECT_EQ(refused.parseMemory(many.data(), static_cast<uint32_t>(many.size())), -1);
    EXPECT_EQ(cap.lines(),
              (Lines{"%D DEBUG (%t): XML payload refused: more than 256 attributes in one element",
                     std::string(kParseError) + "more than 256 attributes in one element"}));

    // And from a file.
    TemporaryFile file(many);
    EXPECT_EQ(Tarnwick::parsePayloadFile(file.path()), nullptr);
}

TEST(XMLPayloadTest, TooManyNamespaceDeclarationsAreRefused) {
    LogCapture cap;
    // Spread over many elements, each with few attributes.
    std::string text = "<message>";
    for (int i = 0; i < 300; ++i)
        text += "<x xmlns:n" + std::to_string(i) + "=\"urn:x\">";
    for (int i = 0; i < 300; ++i)
        text += "</x>";
    text += "</message>";
    EXPECT_EQ(Tarnwick::parsePayload(text.data(), text.size()), nullptr);
    EXPECT_EQ(cap.lines(),
              Lines{"%D DEBUG (%t): XML payload refused: more than 256 namespace declarations"});
}

TEST(XMLPayloadTest, EqualSignsInTextAndValuesCountNothing) {
    LogCapture cap;
    std::string const value(10000, '=');
    std::string const text = "<!-- " + value + " --><message><param name=\"" + value + "\">" +
                             value + "</param><?pi " + value + "?></message>";
    xmlDocPtr doc = Tarnwick::parsePayload(text.data(), text.size());
    EXPECT_NE(doc, nullptr);
    xmlFreeDoc(doc);
    EXPECT_TRUE(cap.lines().empty()) << cap.text();
}

// ---------------------------------------------------------------------------
// What the writer accepts, the parser reads back

TEST(XMLTextTest, CharacterLengths) {
    using Tarnwick::xmlTextCharLength;
    EXPECT_EQ(xmlTextCharLength("a", 1), 1u);
    EXPECT_EQ(xmlTextCharLength("\t", 1), 1u);
    EXPECT_EQ(xmlTextCharLength("\n", 1), 1u);
    EXPECT_EQ(xmlTextCharLength("\r", 1), 1u);
    EXPECT_EQ(xmlTextCharLength("\x7f", 1), 1u);
    EXPECT_EQ(xmlTextCharLength("\x01", 1), 0u);
    EXPECT_EQ(xmlTextCharLength("\x1f", 1), 0u);
    EXPECT_EQ(xmlTextCharLength("", 0), 0u);
    EXPECT_EQ(xmlTextCharLength("\xc3\xa9", 2), 2u);
    EXPECT_EQ(xmlTextCharLength("\xc3\xa9", 1), 0u);      // cut short
    EXPECT_EQ(xmlTextCharLength("\xc0\xaf", 2), 0u);      // overlong
    EXPECT_EQ(xmlTextCharLength("\xe0\x80\xaf", 3), 0u);  // overlong
    EXPECT_EQ(xmlTextCharLength("\xed\x9f\xbf", 3), 3u);  // U+D7FF
    EXPECT_EQ(xmlTextCharLength("\xed\xa0\x80", 3), 0u);  // surrogate
    EXPECT_EQ(xmlTextCharLength("\xee\x80\x80", 3), 3u);  // U+E000
    EXPECT_EQ(xmlTextCharLength("\xef\xbf\xbd", 3), 3u);  // U+FFFD
    EXPECT_EQ(xmlTextCharLength("\xef\xbf\xbe", 3), 0u);  // U+FFFE
    EXPECT_EQ(xmlTextCharLength("\xef\xbf\xbf", 3), 0u);  // U+FFFF
    EXPECT_EQ(xmlTextCharLength("\xf0\x9f\x98\x80", 4), 4u);
    EXPECT_EQ(xmlTextCharLength("\xf4\x8f\xbf\xbf", 4), 4u);  // U+10FFFF
    EXPECT_EQ(xmlTextCharLength("\xf4\x90\x80\x80", 4), 0u);  // beyond
    EXPECT_EQ(xmlTextCharLength("\xf8\x88\x80\x80\x80", 5), 0u);
    EXPECT_EQ(xmlTextCharLength("\x80", 1), 0u);
    EXPECT_EQ(xmlTextCharLength("\xc3(", 2), 0u);
    EXPECT_TRUE(Tarnwick::isXMLText(""));
    EXPECT_TRUE(Tarnwick::isXMLText("caf\xc3\xa9\r\n"));
    EXPECT_FALSE(Tarnwick::isXMLText("caf\xe9"));
    EXPECT_FALSE(Tarnwick::isXMLText(nullptr));
}

TEST(XMLWriterTest, TextThatIsNoXMLIsWrittenAsNothing) {
    XMLMemoryWriter writer;
    ASSERT_EQ(writer.open(0), 0);
    EXPECT_EQ(writer.startElement(nullptr, nullptr, "a"), 0);
    EXPECT_EQ(writer.writeString("bad \xff byte"), -1);
    EXPECT_EQ(writer.writeString("bell \x07"), -1);
    EXPECT_EQ(writer.writeString("\xef\xbf\xbe"), -1);
    EXPECT_EQ(writer.writeString("\xed\xa0\x80"), -1);
    EXPECT_EQ(writer.writeAttribute("v", "escape \x1b"), -1);
    EXPECT_EQ(writer.writeAttribute("bad name", "x"), -1);
    EXPECT_EQ(writer.writeAttribute("v", "ok"), 0);
    EXPECT_EQ(writer.startElement(nullptr, nullptr, "1b"), -1);
    EXPECT_EQ(writer.startElement(nullptr, nullptr, "b\x01"), -1);
    EXPECT_EQ(writer.startElement("p", "urn:\x02", "b"), -1);
    EXPECT_EQ(writer.startElement("p q", "urn:p", "b"), -1);
    EXPECT_EQ(writer.writeString("fine"), 0);
    EXPECT_EQ(writer.endElement(), 0);
    EXPECT_EQ(std::string(writer.content()), std::string(kDeclaration) + "<a v=\"ok\">fine</a>");
}

TEST(ConvertInputTest, ResultMustBeXMLText) {
    EXPECT_EQ(Tarnwick::convertInput("a\xff"
                                     "b",
                                     "UTF-8"),
              nullptr);
    EXPECT_EQ(Tarnwick::convertInput("a\x01", "UTF-8"), nullptr);
    // Latin-1 converts every byte, but 0x01 is no XML character.
    EXPECT_EQ(Tarnwick::convertInput("a\x01", "ISO-8859-1"), nullptr);
    xmlChar* ok = Tarnwick::convertInput("a\tb\r\n", "UTF-8");
    ASSERT_NE(ok, nullptr);
    EXPECT_STREQ(reinterpret_cast<char*>(ok), "a\tb\r\n");
    xmlFree(ok);
}

TEST(XMLWriterTest, EverythingAcceptedReadsBackExactly) {
    // Random texts of bytes that are often special: whatever the writer
    // takes, as attribute or as text, the document parses and gives back.
    static const char* const pieces[] = {
        "a",    "\t",    "\n",   "\r",   "\r\n",         "\x01",
        "\x7f", "<",     ">",    "&",    "\"",           "'",
        "]]>",  "\xc3",  "\xa9", "\xff", "\xef\xbf\xbe", "\xf0\x9f\x98\x80",
        " ",    "&amp;", "%s"};
    unsigned seed = 12345;
    auto next = [&seed] {
        seed = seed * 1103515245u + 12345u;
        return (seed >> 16) & 0x7fff;
    };
    XMLMemoryWriter writer;
    ASSERT_EQ(writer.open(XMLWriter::Indentation), 0);
    ASSERT_EQ(writer.startElement(nullptr, nullptr, "message"), 0);
    std::vector<std::pair<std::string, std::string>> accepted;
    int refused = 0;
    for (int i = 0; i < 2000; ++i) {
        std::string name = "n" + std::to_string(i);
        std::string value;
        for (unsigned n = next() % 6; n > 0; --n) {
            name += pieces[next() % (sizeof pieces / sizeof pieces[0])];
            value += pieces[next() % (sizeof pieces / sizeof pieces[0])];
        }
        ASSERT_EQ(writer.startElement(nullptr, nullptr, "param"), 0);
        bool const nameTaken = writer.writeAttribute("name", name.c_str()) == 0;
        bool const valueTaken = writer.writeString(value.c_str()) == 0;
        ASSERT_EQ(writer.endElement(), 0);
        if (nameTaken && valueTaken && !value.empty())
            accepted.emplace_back(name, value);
        else
            ++refused;
    }
    ASSERT_EQ(writer.endElement(), 0);
    EXPECT_GT(accepted.size(), 100u);
    EXPECT_GT(refused, 100);
    XMLDocument doc;
    LogCapture cap;
    ASSERT_EQ(doc.parseMemory(writer.content(), static_cast<uint32_t>(writer.length())), 0);
    ASSERT_NE(doc.document(), nullptr) << cap.text();
    for (const auto& param : accepted) {
        char* value = doc.queryParameterMalloced(param.first.c_str());
        ASSERT_NE(value, nullptr) << param.first;
        EXPECT_EQ(std::string(value), param.second);
        delete[] value;
    }
    EXPECT_TRUE(cap.lines().empty());
}

// ---------------------------------------------------------------------------
// PayloadWriter: the bytes of the libxml2 writer, written directly

// One call on a writer: start an element, write an attribute, write text or
// end the element.
struct WriterStep {
    enum Kind { Start, Attribute, Text, End } kind;
    std::string name;
    std::string value;
};

// The text and the results of `steps` through an indenting XMLMemoryWriter.
std::string throughMemoryWriter(const std::vector<WriterStep>& steps, std::vector<bool>& results) {
    XMLMemoryWriter writer;
    EXPECT_EQ(writer.open(XMLWriter::Indentation), 0);
    for (const WriterStep& step : steps) {
        int rc = -1;
        switch (step.kind) {
            case WriterStep::Start:
                rc = writer.startElement(nullptr, nullptr, step.name.c_str());
                break;
            case WriterStep::Attribute:
                rc = writer.writeAttribute(step.name.c_str(), step.value.c_str());
                break;
            case WriterStep::Text:
                rc = writer.writeString(step.value.c_str());
                break;
            case WriterStep::End:
                rc = writer.endElement();
                break;
        }
        results.push_back(rc == 0);
    }
    return std::string(writer.content(), static_cast<size_t>(writer.length()));
}

// The same through a PayloadWriter.
std::string throughPayloadWriter(const std::vector<WriterStep>& steps, std::vector<bool>& results) {
    std::string out;
    Tarnwick::PayloadWriter writer(out);
    writer.startDocument();
    for (const WriterStep& step : steps) {
        bool ok = false;
        switch (step.kind) {
            case WriterStep::Start:
                ok = writer.startElement(step.name.c_str());
                break;
            case WriterStep::Attribute:
                ok = writer.writeAttribute(step.name.c_str(), step.value.data(),
                                           std::strlen(step.value.c_str()));
                break;
            case WriterStep::Text:
                ok = writer.writeString(step.value.data(), std::strlen(step.value.c_str()));
                break;
            case WriterStep::End:
                ok = writer.endElement();
                break;
        }
        results.push_back(ok);
    }
    return out;
}

void expectSameBytes(const std::vector<WriterStep>& steps, const std::string& what) {
    std::vector<bool> expectedResults;
    std::vector<bool> results;
    std::string const expected = throughMemoryWriter(steps, expectedResults);
    std::string const actual = throughPayloadWriter(steps, results);
    EXPECT_EQ(actual, expected) << what;
    EXPECT_EQ(results, expectedResults) << what;
}

// Texts with every character that escaping, checking or indentation could
// treat apart: each ASCII byte alone, the references, blanks, multi-byte
// characters, and bytes that are no UTF-8 or no XML characters.
std::vector<std::string> specialTexts() {
    std::vector<std::string> texts = {"",
                                      "plain",
                                      "  leading and trailing  ",
                                      "\t\n\r",
                                      "\r\n",
                                      "<&>\"'",
                                      "&amp;&lt;&#13;",
                                      "]]>",
                                      "caf\xc3\xa9",
                                      "\xe2\x82\xac \xf0\x9f\x98\x80",
                                      "\xef\xbf\xbd\xee\x80\x80\xed\x9f\xbf",
                                      "\xef\xbf\xbe",
                                      "\xed\xa0\x80",
                                      "broken \xc3",
                                      "overlong \xc0\xaf",
                                      "\xff",
                                      "bell \x07",
                                      "%s %d",
                                      std::string(40, '<') + std::string(40, 'x'),
                                      std::string(100, 'a') + "&" + std::string(100, 'b')};
    for (int c = 1; c < 0x80; ++c)
        texts.push_back(std::string(1, static_cast<char>(c)));
    for (int c = 1; c < 0x80; ++c)
        texts.push_back("0123456789abcdef0123" + std::string(1, static_cast<char>(c)) + "xyz");
    return texts;
}

TEST(PayloadWriterTest, TextAndAttributeValuesAreThoseOfTheMemoryWriter) {
    using S = WriterStep;
    for (const std::string& text : specialTexts()) {
        expectSameBytes({{S::Start, "message", ""},
                         {S::Start, "param", ""},
                         {S::Attribute, "name", text},
                         {S::Text, "", text},
                         {S::End, "", ""},
                         {S::End, "", ""}},
                        "text: " + text);
    }
}

TEST(PayloadWriterTest, ElementsAndIndentationAreThoseOfTheMemoryWriter) {
    using S = WriterStep;
    // An empty root, an empty element, an empty text, a group, an empty
    // group, text refused in a group, text around elements, and depth.
    expectSameBytes({{S::Start, "message", ""}, {S::End, "", ""}}, "empty root");
    expectSameBytes({{S::Start, "message", ""},
                     {S::Start, "param", ""},
                     {S::Attribute, "name", "a"},
                     {S::End, "", ""},
                     {S::Start, "param", ""},
                     {S::Attribute, "name", "b"},
                     {S::Text, "", ""},
                     {S::End, "", ""},
                     {S::Start, "param", ""},
                     {S::Attribute, "name", "c"},
                     {S::Text, "", "bad \x01"},
                     {S::End, "", ""},
                     {S::End, "", ""}},
                    "empty and refused values");
    expectSameBytes({{S::Start, "message", ""},
                     {S::Start, "param", ""},
                     {S::Attribute, "name", "flat"},
                     {S::Text, "", "1"},
                     {S::End, "", ""},
                     {S::Start, "param", ""},
                     {S::Attribute, "name", "group"},
                     {S::Start, "param", ""},
                     {S::Attribute, "name", "x"},
                     {S::Text, "", "<x>"},
                     {S::End, "", ""},
                     {S::Start, "param", ""},
                     {S::Attribute, "name", "y"},
                     {S::End, "", ""},
                     {S::End, "", ""},
                     {S::Start, "param", ""},
                     {S::Attribute, "name", "empty group"},
                     {S::End, "", ""},
                     {S::End, "", ""}},
                    "groups");
    expectSameBytes({{S::Start, "a", ""},
                     {S::Text, "", "before"},
                     {S::Start, "b", ""},
                     {S::Start, "c", ""},
                     {S::Start, "d", ""},
                     {S::Text, "", "deep"},
                     {S::End, "", ""},
                     {S::End, "", ""},
                     {S::Text, "", "after"},
                     {S::End, "", ""},
                     {S::Attribute, "late", "1"},
                     {S::Text, "", "tail"},
                     {S::End, "", ""}},
                    "mixed content");
    // An attribute after text, and an end without an element, fail alike.
    expectSameBytes({{S::Start, "a", ""},
                     {S::Text, "", "t"},
                     {S::Attribute, "late", "1"},
                     {S::Attribute, "bad", "\x01"},
                     {S::End, "", ""}},
                    "late attribute");
}

TEST(PayloadWriterTest, RandomDocumentsAreThoseOfTheMemoryWriter) {
    static const char* const pieces[] = {"a",
                                         "\t",
                                         "\n",
                                         "\r",
                                         "\r\n",
                                         "\x01",
                                         "\x7f",
                                         "<",
                                         ">",
                                         "&",
                                         "\"",
                                         "'",
                                         "]]>",
                                         "\xc3",
                                         "\xa9",
                                         "\xff",
                                         "\xef\xbf\xbe",
                                         "\xf0\x9f\x98\x80",
                                         " ",
                                         "&amp;",
                                         "%s",
                                         "0123456789abcdefghij"};
    unsigned seed = 4711;
    auto next = [&seed] {
        seed = seed * 1103515245u + 12345u;
        return (seed >> 16) & 0x7fff;
    };
    auto piece = [&next] {
        return std::string(pieces[next() % (sizeof pieces / sizeof pieces[0])]);
    };
    using S = WriterStep;
    for (int round = 0; round < 200; ++round) {
        std::vector<WriterStep> steps = {{S::Start, "message", ""}};
        int depth = 1;
        for (int i = 0; i < 30; ++i) {
            unsigned const what = next() % 4;
            std::string text;
            for (unsigned n = next() % 5; n > 0; --n)
                text += piece();
            if (what == 0 && depth < 4) {
                steps.push_back({S::Start, "param", ""});
                steps.push_back({S::Attribute, "name", text});
                ++depth;
            } else if (what == 1) {
                steps.push_back({S::Text, "", text});
            } else if (depth > 1) {
                steps.push_back({S::End, "", ""});
                --depth;
            }
        }
        while (depth-- > 0)
            steps.push_back({S::End, "", ""});
        expectSameBytes(steps, "round " + std::to_string(round));
    }
}

TEST(PayloadWriterTest, DepthIsBounded) {
    std::string out;
    Tarnwick::PayloadWriter writer(out);
    for (int i = 0; i < Tarnwick::PayloadWriter::Max_Depth; ++i)
        EXPECT_TRUE(writer.startElement("a"));
    std::string const before = out;
    EXPECT_FALSE(writer.startElement("a"));
    EXPECT_EQ(out, before);
    for (int i = 0; i < Tarnwick::PayloadWriter::Max_Depth; ++i)
        EXPECT_TRUE(writer.endElement());
    EXPECT_FALSE(writer.endElement());
    EXPECT_FALSE(writer.writeString("x", 1));
}

// ---------------------------------------------------------------------------
// Reading payload parameters: the same as a walk of libxml2's document

// What a visit of the parameters gives: names and values, "(none)" standing
// for a parameter whose first child has no text.
using Visits = std::vector<std::pair<std::string, std::string>>;
const char kNone[] = "(none)";

struct Reading {
    bool document = false;
    Visits visits;
    Lines log;
};

// The parameters as a parse by parsePayload and a walk of its document give
// them.
Reading referenceReading(const std::string& text) {
    Reading reading;
    LogCapture capture;
    xmlDocPtr doc = Tarnwick::parsePayload(text.data(), text.size());
    reading.document = doc != nullptr;
    Tarnwick::forEachParameter(doc, [&reading](const std::string& name, xmlNodePtr param) {
        xmlNodePtr first = param->children;
        reading.visits.emplace_back(name, first != nullptr && first->content != nullptr
                                              ? reinterpret_cast<const char*>(first->content)
                                              : kNone);
    });
    if (doc != nullptr)
        xmlFreeDoc(doc);
    reading.log = capture.lines();
    return reading;
}

Reading payloadReading(const std::string& text) {
    Reading reading;
    LogCapture capture;
    reading.document = Tarnwick::readPayloadParameters(
        text.data(), text.size(), [&reading](const std::string& name, const char* value) {
            reading.visits.emplace_back(name, value != nullptr ? value : kNone);
        });
    reading.log = capture.lines();
    return reading;
}

void expectSameReading(const std::string& text) {
    Reading const expected = referenceReading(text);
    Reading const actual = payloadReading(text);
    EXPECT_EQ(actual.document, expected.document) << text;
    EXPECT_EQ(actual.visits, expected.visits) << text;
    EXPECT_EQ(actual.log, expected.log) << text;
}

// Payloads written as events write them, with and without the final zero
// byte.
std::vector<std::string> writtenPayloads() {
    std::vector<std::string> payloads;
    std::vector<std::string> const texts = specialTexts();
    for (size_t i = 0; i < texts.size(); ++i) {
        std::string out;
        Tarnwick::PayloadWriter writer(out);
        writer.startDocument();
        writer.startElement("message");
        // The text as a value, as a name, as both, and a group of them.
        writer.startElement("param");
        writer.writeAttribute("name", "value", 5);
        writer.writeString(texts[i].data(), texts[i].size());
        writer.endElement();
        writer.startElement("param");
        writer.writeAttribute("name", texts[i].data(), texts[i].size());
        writer.writeString("v", 1);
        writer.endElement();
        writer.startElement("param");
        writer.writeAttribute("name", "group", 5);
        for (int j = 0; j < 2; ++j) {
            writer.startElement("param");
            writer.writeAttribute("name", texts[i].data(), texts[i].size());
            writer.writeString(texts[i].data(), texts[i].size());
            writer.endElement();
        }
        writer.endElement();
        writer.startElement("param");
        writer.writeAttribute("name", "value", 5);
        writer.writeString("second of the name", 18);
        writer.endElement();
        writer.endElement();
        payloads.push_back(out);
        payloads.push_back(out + std::string(1, '\0'));
    }
    return payloads;
}

TEST(PayloadReadingTest, WrittenPayloadsReadAsLibxml2ReadsThem) {
    size_t direct = 0;
    std::vector<std::string> const payloads = writtenPayloads();
    for (const std::string& payload : payloads) {
        expectSameReading(payload);
        if (Tarnwick::readsWithoutParser(payload.data(), payload.size()))
            ++direct;
    }
    // Those with a reference or a blank other than the space in a name, or a
    // carriage return anywhere, go to libxml2; the others don't.
    EXPECT_GT(direct, payloads.size() / 2);
    std::string const ordinary = payloads[0];
    EXPECT_TRUE(Tarnwick::readsWithoutParser(ordinary.data(), ordinary.size())) << ordinary;
}

TEST(PayloadReadingTest, OtherFormsReadAsLibxml2ReadsThem) {
    std::string const d = kDeclaration;
    std::string const z(1, '\0');
    const std::string payloads[] = {
        d + "<message/>\n" + z,
        d + "<message/>",
        d + "<message>\n</message>\n" + z,
        d + "<message><param name=\"a\">1</param><param name=\"b\"/></message>" + z,
        d + "<message>\n <param name=\"a\"></param>\n <param name=\"a\">2</param>\n</message>\n",
        d + "<message>\n <param name=\"g\"><param name=\"x\">1</param></param>\n</message>\n",
        d + "<message>\n <param name=\"g\">text<param name=\"x\">1</param>more</param>\n</message>",
        // What the fast reader leaves to libxml2.
        d + "<message>\n <param name=\"a\">1&#10;2</param>\n</message>\n" + z,
        d + "<message>\n <param name=\"a\">1&apos;2&#x41;</param>\n</message>\n" + z,
        d + "<message>\n <param name=\"a\">1\r\n2\r3</param>\n</message>\n" + z,
        d + "<message>\n <param name=\"a\">1]]>2</param>\n</message>\n" + z,
        d + "<message>\n <param name=\"a\">x > y</param>\n</message>\n" + z,
        d + "<message>\n <param name=\"a&amp;b\">1</param>\n</message>\n" + z,
        d + "<message>\n <param name=\"a\tb\nc\">1</param>\n</message>\n" + z,
        d + "<message>\n <param name='a'>1</param>\n</message>\n" + z,
        d + "<message>\n <param  name=\"a\">1</param>\n</message>\n" + z,
        d + "<message>\n <param name=\"a\" other=\"b\">1</param>\n</message>\n" + z,
        d + "<message>\n <param name=\"a\"><!--c-->1</param>\n</message>\n" + z,
        d + "<message>\n <param name=\"a\"><![CDATA[<1>]]></param>\n</message>\n" + z,
        d + "<message>\n <param name=\"a\"><?pi x?>1</param>\n</message>\n" + z,
        d +
            "<message>\n <param name=\"g\"><param name=\"x\"><param name=\"y\">1</param></param>"
            "</param>\n</message>\n" +
            z,
        d + "<message>\n text <param name=\"a\">1</param>\n</message>\n" + z,
        d + "<message xmlns=\"urn:x\">\n <param name=\"a\">1</param>\n</message>\n" + z,
        d + "<!DOCTYPE message>\n<message>\n <param name=\"a\">1</param>\n</message>\n" + z,
        d + "<message>\n <param name=\"a\">1</param>\n</message>\n<!--end-->\n" + z,
        d + "<message>\n <param name=\"a\">1</param>\n</message>\n" + z + z,
        d + "<message>\n <param name=\"a\">1</param>\n</message>\n" + z + "junk",
        d + "<message>\n <param name=\"a\">1</param>\n</message>\n<message/>" + z,
        "<message>\n <param name=\"a\">1</param>\n</message>\n" + z,
        "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<message>\n <param name=\"a\">caf\xe9"
        "</param>\n</message>\n" +
            z,
        "<?xml version=\"1.0\"?>\n<message><param name=\"a\">1</param></message>" + z,
        "\xef\xbb\xbf" + d + "<message><param name=\"a\">1</param></message>" + z,
        // Malformed: every one of these fails in libxml2, and is logged.
        d + "<message>\n <param name=\"a\">1</param>\n" + z,
        d + "<message>\n <param name=\"a\">1</param>\n</massage>\n" + z,
        d + "<message>\n <param name=\"a\">1\x01</param>\n</message>\n" + z,
        d + "<message>\n <param name=\"a\">1\xc3</param>\n</message>\n" + z,
        d + "<message>\n <param name=\"a\xff\">1</param>\n</message>\n" + z,
        d + "<message>\n <param name=\"a\">&unknown;</param>\n</message>\n" + z,
        d + "<message>\n <param name=\"a\">1</param>\n</message>\n" + z + "<",
        d + "<message>\n <param name=\"a<\">1</param>\n</message>\n" + z,
        d + "<message>\n <param name=\"a\">1</param>",
        d,
        "",
        z,
        "not xml at all",
    };
    for (const std::string& payload : payloads)
        expectSameReading(payload);
}

TEST(PayloadReadingTest, MalformedPayloadLogsLibxml2sMessageOnce) {
    std::string const text = std::string(kDeclaration) + "<message><param name=\"a\">1</param>";
    Reading const reading = payloadReading(text);
    EXPECT_FALSE(reading.document);
    EXPECT_TRUE(reading.visits.empty());
    EXPECT_EQ(reading.log,
              Lines{std::string(kDebug) + "Premature end of data in tag message line 2"});
}

// The edges of the form read without libxml2: what is still in it reads as
// libxml2 reads it, with these exact parameters and no log line, and what
// is just outside it goes to libxml2.
TEST(PayloadReadingTest, EdgesOfTheDirectFormReadAsLibxml2ReadsThem) {
    std::string const d = kDeclaration;
    std::string const z(1, '\0');
    struct Case {
        std::string text;
        bool direct;
        bool document;
        Visits visits;
        std::string log = std::string();  // libxml2's message, when there is one
    };
    const Case cases[] = {
        {d + "<message/>" + z, true, true, {}},
        {d + "<message></message>", true, true, {}},
        {d + "\t<message>\t<param name=\"a\">]]&gt;</param>\t</message>\t" + z,
         true,
         true,
         {{"a", "]]>"}}},
        {d + "<message><param name=\"a'>b\">x</param></message>", true, true, {{"a'>b", "x"}}},
        // DEL, C1 controls, the replacement character, the last code point
        // and a noncharacter other than U+FFFE and U+FFFF are all XML text.
        {d + "<message><param name=\"\xf0\x9f\x98\x80\">\x7f\xc2\x80\xef\xbf\xbd\xf4\x8f\xbf\xbf"
             "\xef\xb7\x90</param></message>",
         true,
         true,
         {{"\xf0\x9f\x98\x80", "\x7f\xc2\x80\xef\xbf\xbd\xf4\x8f\xbf\xbf\xef\xb7\x90"}}},
        {d + "<message><param name=\"\xed\x9f\xbf\"/></message>",
         true,
         true,
         {{"\xed\x9f\xbf", kNone}}},
        {d + "<message><param name=\"a\">&#13;</param></message>", true, true, {{"a", "\r"}}},
        {d + "<message><param name=\"a\">&amp;lt;</param></message>", true, true, {{"a", "&lt;"}}},
        {d + "<message><param name=\"g\"><param name=\"x\"/>t</param></message>",
         true,
         true,
         {{"g", kNone}}},
        {d + "<message><param name=\"g\">a<param name=\"x\">1</param>b<param name=\"y\">2</param>c"
             "</param></message>",
         true,
         true,
         {{"g", "a"}}},
        {d + "<message><param name=\"a\"/><param name=\"a\">2</param></message>",
         true,
         true,
         {{"a", kNone}, {"a", "2"}}},
        // Sixteen-byte runs with a reference and a quote inside.
        {d + "<message><param name=\"a\">0123456789abcdef0123456789abcdef&lt;0123456789abcdef\""
             "0123456789</param></message>",
         true,
         true,
         {{"a", "0123456789abcdef0123456789abcdef<0123456789abcdef\"0123456789"}}},
        // Beyond Unicode, and U+FFFF: libxml2 refuses them.
        {d + "<message><param name=\"a\">\xf4\x90\x80\x80</param></message>",
         false,
         false,
         {},
         "Char 0x110000 out of allowed range"},
        {d + "<message><param name=\"a\">\xef\xbf\xbf</param></message>",
         false,
         false,
         {},
         "Char 0xFFFF out of allowed range"},
        // A parameter without a name is no parameter, and not in the form.
        {d + "<message><param name=\"a\">1</param><param>2</param></message>",
         false,
         true,
         {{"a", "1"}}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Tarnwick::readsWithoutParser(c.text.data(), c.text.size()), c.direct) << c.text;
        Reading const reading = payloadReading(c.text);
        EXPECT_EQ(reading.document, c.document) << c.text;
        EXPECT_EQ(reading.visits, c.visits) << c.text;
        if (c.log.empty())
            EXPECT_TRUE(reading.log.empty()) << c.text;
        else
            EXPECT_EQ(reading.log, Lines{std::string(kDebug) + c.log}) << c.text;
        expectSameReading(c.text);
    }
}

// The reused parser context carries nothing from one payload to the next:
// neither attribute defaults nor entities of a document type, nor names.
TEST(PayloadReadingTest, NothingCarriesOverFromOnePayloadToTheNext) {
    std::string const withDefaults =
        std::string(kDeclaration) +
        "<!DOCTYPE message [<!ATTLIST param name CDATA \"dflt\">"
        "<!ENTITY e \"entity text\">]>\n"
        "<message>\n <param>x</param>\n <param name=\"e\">&e;</param>\n"
        "</message>\n";
    std::string const plain = std::string(kDeclaration) +
                              "<message>\n <param>y</param>\n <param name=\"e\">&e;</param>\n"
                              "</message>\n";
    for (int i = 0; i < 3; ++i) {
        expectSameReading(withDefaults);
        expectSameReading(plain);
    }
}

// Payloads with many distinct names keep being read correctly while the
// thread's context is dropped and made again.
TEST(PayloadReadingTest, ManyDistinctNamesAreReadAlike) {
    for (int round = 0; round < 6; ++round) {
        std::string text = std::string(kDeclaration) + "<message>\n";
        for (int i = 0; i < 400; ++i) {
            std::string const tag = "t" + std::to_string(round) + "_" + std::to_string(i);
            text += "<" + tag + "/>";
        }
        text += " <param name=\"a\">" + std::to_string(round) + "</param>\n</message>\n";
        expectSameReading(text);
    }
}

TEST(PayloadReadingTest, ParseInsideAParseUsesAContextOfItsOwn) {
    std::string const outer =
        std::string(kDeclaration) + "<message><!--x--><param name=\"o\">1</param></message>";
    std::string const inner =
        std::string(kDeclaration) + "<message><!--y--><param name=\"i\">2</param></message>";
    Visits seen;
    Tarnwick::withParsedPayload(outer.data(), outer.size(), [&](xmlDocPtr doc) {
        ASSERT_NE(doc, nullptr);
        Tarnwick::readPayloadParameters(inner.data(), inner.size(),
                                        [&seen](const std::string& name, const char* value) {
                                            seen.emplace_back(name, value);
                                        });
        Tarnwick::forEachParameter(doc, [&seen](const std::string& name, xmlNodePtr param) {
            seen.emplace_back(name, reinterpret_cast<const char*>(param->children->content));
        });
    });
    EXPECT_EQ(seen, (Visits{{"i", "2"}, {"o", "1"}}));

    // The same with payloads read without libxml2, one inside the other.
    std::string const plainOuter =
        std::string(kDeclaration) +
        "<message>\n <param name=\"o\">1</param>\n <param name=\"p\">3</param>\n</message>\n";
    std::string const plainInner =
        std::string(kDeclaration) + "<message>\n <param name=\"i\">2</param>\n</message>\n";
    ASSERT_TRUE(Tarnwick::readsWithoutParser(plainOuter.data(), plainOuter.size()));
    seen.clear();
    Tarnwick::readPayloadParameters(
        plainOuter.data(), plainOuter.size(), [&](const std::string& name, const char* value) {
            seen.emplace_back(name, value);
            Tarnwick::readPayloadParameters(
                plainInner.data(), plainInner.size(),
                [&seen](const std::string& n, const char* v) { seen.emplace_back(n, v); });
        });
    EXPECT_EQ(seen, (Visits{{"o", "1"}, {"i", "2"}, {"p", "3"}, {"i", "2"}}));
}

TEST(PayloadReadingTest, WithParsedPayloadGivesTheDocumentOfParsePayload) {
    std::string const texts[] = {
        std::string(kDeclaration) + "<message>\n <param name=\"a\">1 &amp; 2</param>\n</message>\n",
        std::string(kDeclaration) +
            "<message><!--c--><param name=\"a\"><![CDATA[x]]></param></message>",
        "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<message>caf\xe9</message>",
        std::string(kDeclaration) + "<message><param name=\"a\">1</param>",
    };
    for (const std::string& text : texts) {
        std::string expected;
        Lines expectedLog;
        {
            LogCapture capture;
            xmlDocPtr doc = Tarnwick::parsePayload(text.data(), text.size());
            if (doc != nullptr) {
                xmlChar* dump = nullptr;
                int size = 0;
                xmlDocDumpMemory(doc, &dump, &size);
                expected.assign(reinterpret_cast<char*>(dump), static_cast<size_t>(size));
                xmlFree(dump);
                xmlFreeDoc(doc);
            }
            expectedLog = capture.lines();
        }
        std::string actual;
        LogCapture capture;
        Tarnwick::withParsedPayload(text.data(), text.size(), [&actual](xmlDocPtr doc) {
            if (doc != nullptr) {
                xmlChar* dump = nullptr;
                int size = 0;
                xmlDocDumpMemory(doc, &dump, &size);
                actual.assign(reinterpret_cast<char*>(dump), static_cast<size_t>(size));
                xmlFree(dump);
            }
        });
        EXPECT_EQ(actual, expected) << text;
        EXPECT_EQ(capture.lines(), expectedLog) << text;
    }
}

// Documents of XMLDocument are parsed on one thread and queried and freed on
// another while the first goes on parsing with its own reused context.
TEST(PayloadReadingTest, DocumentsMadeOnOneThreadAreFreedOnAnother) {
    std::string const text =
        std::string(kDeclaration) + "<message>\n <param name=\"a\">1</param>\n</message>\n";
    std::string const other =
        std::string(kDeclaration) + "<message><!--x--><param name=\"b\">2</param></message>";
    std::vector<std::unique_ptr<XMLDocument>> made;
    std::thread maker([&] {
        for (int i = 0; i < 200; ++i) {
            std::unique_ptr<XMLDocument> doc(new XMLDocument());
            EXPECT_EQ(doc->parseMemory(text.data(), static_cast<uint32_t>(text.size())), 0);
            made.push_back(std::move(doc));
        }
    });
    maker.join();
    int found = 0;
    std::thread freer([&] {
        for (std::unique_ptr<XMLDocument>& doc : made) {
            char value[8] = "";
            if (doc->queryParameter("a", value, sizeof value) == 0 && std::string(value) == "1")
                ++found;
            doc.reset();
        }
    });
    std::thread parser([&] {
        for (int i = 0; i < 200; ++i) {
            EXPECT_TRUE(payloadReading(other).document);
            EXPECT_TRUE(payloadReading(text).document);
        }
    });
    freer.join();
    parser.join();
    EXPECT_EQ(found, 200);
}

}  // namespace
