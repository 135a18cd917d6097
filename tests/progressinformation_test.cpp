// Tests of ProgressInformation: the percentage, documents from strings and
// files, every failure with its number, severity, source, text and logged
// line, hostile documents (entities, external DTDs, numbers of every odd
// form, a file of 100 MiB), and that parsing never reads a file or the
// network on behalf of a document.
#include <tarnwick/exception.h>
#include <tarnwick/progressinformation.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "exception_check.h"
#include "log_capture.h"
#include "scratch_dir.h"

using namespace Tarnwick;
using TarnwickTest::expectException;
using TarnwickTest::LogCapture;
using TarnwickTest::ScratchDir;

namespace {

const char* const NOT_PROGRESS =
    "Requested document is not valid xml or does not contain progress information";
const char* const NOT_ALL = "Did not find all required attributes in XML document";
const char* const BAD_STRING = "String does not contain a valid XML Progress format";

void expectConversion(const std::function<void()>& body, const std::string& text) {
    expectException(body, ERR_CONVERSION, SEVERITY_CRITICAL, "Namespace:Engine",
                    "Conversion from string failed for string " + text);
}

std::string document(const std::string& current, const std::string& total) {
    return "<progressinfo><current>" + current + "</current><total>" + total +
           "</total></progressinfo>";
}

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
    ASSERT_TRUE(out.good()) << path;
}

// The values a document gives, read from a string without failure.
ProgressInformation read(const std::string& xml) {
    ProgressInformation progress;
    LogCapture log;
    EXPECT_NO_THROW(progress.readFromXMLString(xml)) << xml;
    EXPECT_TRUE(log.lines().empty());
    return progress;
}

// A FIFO that tells whether anybody opened it for reading while a body ran.
// Whoever opens a FIFO for reading waits for a writer; a helper thread tries
// to open the writing end without blocking, which succeeds only while a
// reader waits, and then writes a number and closes, so that the reader
// goes on. A parser that never touches the FIFO is never seen.
class FifoWatch {
public:
    explicit FifoWatch(const std::string& path) : m_path(path) {
        EXPECT_EQ(::mkfifo(path.c_str(), 0600), 0);
    }
    bool openedDuring(const std::function<void()>& body) {
        std::atomic<bool> done(false);
        std::atomic<bool> opened(false);
        std::thread watcher([&] {
            while (!done.load()) {
                int const fd = ::open(m_path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
                if (fd >= 0) {
                    opened = true;
                    ssize_t const written = ::write(fd, "77", 2);
                    (void)written;
                    ::close(fd);
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        body();
        done = true;
        watcher.join();
        return opened.load();
    }

private:
    std::string m_path;
};

}  // namespace

TEST(ProgressInformationTest, StartsAtZero) {
    ProgressInformation progress;
    EXPECT_EQ(progress.getCurrent(), 0u);
    EXPECT_EQ(progress.getTotal(), 0u);
    EXPECT_EQ(progress.getProgress(), 0);
}

TEST(ProgressInformationTest, TotalZeroGivesZeroWhateverCurrent) {
    ProgressInformation progress;
    for (uint64_t current : {uint64_t(0), uint64_t(5), std::numeric_limits<uint64_t>::max()}) {
        progress.setCurrent(current);
        progress.setTotal(0);
        EXPECT_EQ(progress.getProgress(), 0) << current;
    }
}

TEST(ProgressInformationTest, ThreeOfFourIs75AndFiveOfFourIs100) {
    ProgressInformation progress;
    progress.setCurrent(3);
    progress.setTotal(4);
    EXPECT_EQ(progress.getProgress(), 75);
    progress.setCurrent(5);
    EXPECT_EQ(progress.getProgress(), 100);
    progress.setCurrent(1);
    progress.setTotal(3);
    EXPECT_EQ(progress.getProgress(), 33);  // the fraction is cut
    progress.setCurrent(std::numeric_limits<uint64_t>::max());
    progress.setTotal(1);
    EXPECT_EQ(progress.getProgress(), 100);
}

TEST(ProgressInformationTest, SinglePrecisionShows100BeforeTheEnd) {
    ProgressInformation progress;
    // Both are 10^9 as floats.
    progress.setCurrent(999999999);
    progress.setTotal(1000000000);
    EXPECT_EQ(progress.getProgress(), 100);
}

TEST(ProgressInformationTest, CopiesMemberByMember) {
    ProgressInformation progress;
    progress.setCurrent(1);
    progress.setTotal(2);
    ProgressInformation copy(progress);
    ProgressInformation assigned;
    assigned = progress;
    EXPECT_EQ(copy.getCurrent(), 1u);
    EXPECT_EQ(assigned.getTotal(), 2u);
}

TEST(ProgressInformationTest, ReadsDocumentInEitherOrderIgnoringOtherChildren) {
    ProgressInformation a = read(document("3", "4"));
    EXPECT_EQ(a.getCurrent(), 3u);
    EXPECT_EQ(a.getTotal(), 4u);
    EXPECT_EQ(a.getProgress(), 75);
    ProgressInformation b = read(
        "<?xml version=\"1.0\"?>\n<progressinfo>\n  <!-- job 1 -->\n  <total>10</total>\n"
        "  <name>copy</name>\n  <current attr=\"x\">2</current>\n</progressinfo>\n");
    EXPECT_EQ(b.getCurrent(), 2u);
    EXPECT_EQ(b.getTotal(), 10u);
    EXPECT_EQ(b.getProgress(), 20);
}

TEST(ProgressInformationTest, WrongRootThrowsNotProgressInformation) {
    ProgressInformation progress;
    for (const char* xml : {"<progress><current>1</current><total>2</total></progress>",
                            "<Progressinfo><current>1</current><total>2</total></Progressinfo>"})
        expectException([&] { progress.readFromXMLString(xml); }, ERR_PROGRESS_INFORMATION,
                        SEVERITY_WARNING, "ProgressInformation", NOT_PROGRESS);
    EXPECT_EQ(progress.getCurrent(), 0u);
}

TEST(ProgressInformationTest, RootWithoutChildrenThrowsNotAll) {
    ProgressInformation progress;
    for (const char* xml : {"<progressinfo/>", "<progressinfo></progressinfo>"})
        expectException([&] { progress.readFromXMLString(xml); }, ERR_PROGRESS_INFORMATION,
                        SEVERITY_SEVERE, "ProgressInformation", NOT_ALL);
}

TEST(ProgressInformationTest, CurrentWithoutTotalThrowsNotAllAndKeepsCurrent) {
    ProgressInformation progress;
    progress.setTotal(9);
    expectException(
        [&] { progress.readFromXMLString("<progressinfo><current>7</current></progressinfo>"); },
        ERR_PROGRESS_INFORMATION, SEVERITY_SEVERE, "ProgressInformation", NOT_ALL);
    EXPECT_EQ(progress.getCurrent(), 7u);
    EXPECT_EQ(progress.getTotal(), 9u);
    // Names are matched case-sensitively.
    expectException(
        [&] {
            progress.readFromXMLString(
                "<progressinfo><Current>1</Current><total>2</total></progressinfo>");
        },
        ERR_PROGRESS_INFORMATION, SEVERITY_SEVERE, "ProgressInformation", NOT_ALL);
    EXPECT_EQ(progress.getCurrent(), 7u);
    EXPECT_EQ(progress.getTotal(), 2u);
}

TEST(ProgressInformationTest, EmptyElementThrowsNodeEmpty) {
    ProgressInformation progress;
    expectException([&] { progress.readFromXMLString(document("", "4")); },
                    ERR_PROGRESS_INFORMATION, SEVERITY_SEVERE, "ProgressInformation",
                    "Node current is empty");
    expectException(
        [&] {
            progress.readFromXMLString("<progressinfo><current>1</current><total/></progressinfo>");
        },
        ERR_PROGRESS_INFORMATION, SEVERITY_SEVERE, "ProgressInformation", "Node total is empty");
    EXPECT_EQ(progress.getCurrent(), 1u);
    // An element as first child has no text of its own.
    expectException([&] { progress.readFromXMLString(document("<n>5</n>", "4")); },
                    ERR_PROGRESS_INFORMATION, SEVERITY_SEVERE, "ProgressInformation",
                    "Node current is empty");
}

TEST(ProgressInformationTest, TrailingCharacterThrowsConversion) {
    ProgressInformation progress;
    expectConversion([&] { progress.readFromXMLString(document("12x", "40")); }, "12x");
    expectConversion([&] { progress.readFromXMLString(document("1", "x")); }, "x");
    EXPECT_EQ(progress.getCurrent(), 1u);
    expectConversion([&] { progress.readFromXMLString(document("5 6", "9")); }, "5 6");
    expectConversion([&] { progress.readFromXMLString(document("0x10", "9")); }, "0x10");
    expectConversion([&] { progress.readFromXMLString(document("1.5", "9")); }, "1.5");
    expectConversion([&] { progress.readFromXMLString(document("1e3", "9")); }, "1e3");
}

TEST(ProgressInformationTest, BlanksAroundNumbersAreAccepted) {
    ProgressInformation progress = read(document(" \t\n 12 \n", "\r\n40   "));
    EXPECT_EQ(progress.getCurrent(), 12u);
    EXPECT_EQ(progress.getTotal(), 40u);
    expectConversion([&] { progress.readFromXMLString(document("   ", "9")); }, "   ");
}

TEST(ProgressInformationTest, SignsAreReadAsTheStreamReadsThem) {
    ProgressInformation plus = read(document("+7", "+8"));
    EXPECT_EQ(plus.getCurrent(), 7u);
    EXPECT_EQ(plus.getTotal(), 8u);
    // An unsigned extraction negates in the unsigned type, as strtoull does.
    ProgressInformation minus = read(document("-1", "-0"));
    EXPECT_EQ(minus.getCurrent(), std::numeric_limits<uint64_t>::max());
    EXPECT_EQ(minus.getTotal(), 0u);
    ProgressInformation progress;
    expectConversion([&] { progress.readFromXMLString(document("--1", "9")); }, "--1");
    expectConversion([&] { progress.readFromXMLString(document("+", "9")); }, "+");
    expectConversion([&] { progress.readFromXMLString(document("- 1", "9")); }, "- 1");
}

TEST(ProgressInformationTest, TwentyDigits) {
    ProgressInformation largest = read(document("18446744073709551615", "00000000000000000042"));
    EXPECT_EQ(largest.getCurrent(), std::numeric_limits<uint64_t>::max());
    EXPECT_EQ(largest.getTotal(), 42u);
    EXPECT_EQ(largest.getProgress(), 100);
    ProgressInformation progress;
    expectConversion([&] { progress.readFromXMLString(document("18446744073709551616", "1")); },
                     "18446744073709551616");
    expectConversion([&] { progress.readFromXMLString(document("99999999999999999999", "1")); },
                     "99999999999999999999");
    EXPECT_EQ(progress.getCurrent(), 0u);
}

TEST(ProgressInformationTest, NonASCIIDigitsThrowConversion) {
    ProgressInformation progress;
    // Arabic-Indic four and two, fullwidth four and two, superscript two.
    for (const char* digits : {"\xd9\xa4\xd9\xa2", "\xef\xbc\x94\xef\xbc\x92", "4\xc2\xb2",
                               "\xc2\xa0"
                               "5"})
        expectConversion([&] { progress.readFromXMLString(document(digits, "9")); }, digits);
    EXPECT_EQ(progress.getCurrent(), 0u);
}

TEST(ProgressInformationTest, RepeatedElementOverwrites) {
    ProgressInformation progress = read(
        "<progressinfo><current>1</current><total>10</total><current>6</current>"
        "<total>8</total></progressinfo>");
    EXPECT_EQ(progress.getCurrent(), 6u);
    EXPECT_EQ(progress.getTotal(), 8u);
    EXPECT_EQ(progress.getProgress(), 75);
    // The first value is stored before the second fails.
    ProgressInformation half;
    expectConversion(
        [&] {
            half.readFromXMLString(
                "<progressinfo><current>3</current><current>z</current></progressinfo>");
        },
        "z");
    EXPECT_EQ(half.getCurrent(), 3u);
}

TEST(ProgressInformationTest, NotWellFormedStringsThrow) {
    ProgressInformation progress;
    for (const std::string& xml : std::vector<std::string>{
             "", "progress", "<progressinfo>", document("1", "2") + "<extra/>",
             "<progressinfo><current>1</total></progressinfo>", std::string("<a>\0</a>", 8),
             "<progressinfo><current>1</current><total>2</total></progressinfo",
             "<progressinfo>\xff\xfe</progressinfo>",
             "<!DOCTYPE x [<!ENTITY a \"&a;\">]><x>&a;</x>"})
        expectException([&] { progress.readFromXMLString(xml); }, ERR_PROGRESS_INFORMATION,
                        SEVERITY_CRITICAL, "ProgressInformation", BAD_STRING);
}

TEST(ProgressInformationTest, InternalEntityGivesItsLiteralTextUnexpanded) {
    // A reference stays a reference node; its content is the entity's own
    // literal text, and references inside that text are not expanded.
    ProgressInformation progress = read(
        "<!DOCTYPE progressinfo [<!ENTITY n \"5\">]>"
        "<progressinfo><current>&n;</current><total>9</total></progressinfo>");
    EXPECT_EQ(progress.getCurrent(), 5u);
    expectConversion(
        [&] {
            progress.readFromXMLString(
                "<!DOCTYPE progressinfo [<!ENTITY n \"5\"><!ENTITY m \"&n;\">]>"
                "<progressinfo><current>&m;</current><total>9</total></progressinfo>");
        },
        "&n;");
    // Character references are no entities: they are text.
    ProgressInformation chars = read(document("&#52;&#50;", "&#x31;00"));
    EXPECT_EQ(chars.getCurrent(), 42u);
    EXPECT_EQ(chars.getTotal(), 100u);
}

TEST(ProgressInformationTest, EntityExpansionBombEndsWithoutExpansion) {
    std::string xml = "<!DOCTYPE progressinfo [<!ENTITY l0 \"1234567890\">";
    for (int i = 1; i <= 12; ++i) {
        xml += "<!ENTITY l" + std::to_string(i) + " \"";
        for (int j = 0; j < 10; ++j)
            xml += "&l" + std::to_string(i - 1) + ";";
        xml += "\">";
    }
    xml += "]><progressinfo><current>&l12;</current><total>&l12;</total></progressinfo>";
    ProgressInformation progress;
    try {
        LogCapture log;
        progress.readFromXMLString(xml);
        ADD_FAILURE() << "read a number from an unexpanded entity";
    } catch (const Exception& e) {
        // libxml2 refuses the amplification: the document doesn't parse.
        EXPECT_EQ(e.getErrNo(), ERR_PROGRESS_INFORMATION);
        EXPECT_EQ(e.getDescription(), BAD_STRING);
    }
    EXPECT_EQ(progress.getCurrent(), 0u);
    EXPECT_EQ(progress.getTotal(), 0u);
}

TEST(ProgressInformationTest, ExternalEntityOfLocalFileIsNotRead) {
    ScratchDir dir("tw-progress");
    ASSERT_FALSE(dir.path().empty());
    std::string const secret = dir.path() + "/secret";
    writeFile(secret, "42");
    std::string const xml = "<!DOCTYPE progressinfo [<!ENTITY s SYSTEM \"file://" + secret +
                            "\"><!ENTITY r SYSTEM \"" + secret +
                            "\">]><progressinfo>"
                            "<current>&s;</current><total>&r;</total></progressinfo>";
    ProgressInformation progress;
    expectException([&] { progress.readFromXMLString(xml); }, ERR_PROGRESS_INFORMATION,
                    SEVERITY_SEVERE, "ProgressInformation", "Node current is empty");
    EXPECT_EQ(progress.getCurrent(), 0u);

    // The same with FIFOs: nobody ever opens them.
    FifoWatch general(dir.path() + "/general");
    FifoWatch parameter(dir.path() + "/parameter");
    FifoWatch dtd(dir.path() + "/dtd");
    std::string const fifoXml =
        "<!DOCTYPE progressinfo SYSTEM \"" + dir.path() + "/dtd\" [<!ENTITY g SYSTEM \"" +
        dir.path() + "/general\"><!ENTITY % p SYSTEM \"" + dir.path() +
        "/parameter\"> %p;]><progressinfo><current>1&g;</current><total>2</total>"
        "</progressinfo>";
    std::string const file = dir.path() + "/progress.xml";
    writeFile(file, fifoXml);
    auto readBoth = [&] {
        ProgressInformation both;
        LogCapture log;
        EXPECT_NO_THROW(both.readFromXMLString(fifoXml));
        EXPECT_EQ(both.getCurrent(), 1u);
        EXPECT_TRUE(both.readFromXMLFile(file.c_str()));
        EXPECT_EQ(both.getTotal(), 2u);
    };
    bool const generalOpened = general.openedDuring([&] {
        EXPECT_FALSE(parameter.openedDuring([&] { EXPECT_FALSE(dtd.openedDuring(readBoth)); }));
    });
    EXPECT_FALSE(generalOpened);
}

TEST(ProgressInformationTest, EntityOnLoopbackIsNotFetched) {
    int const listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(listener, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener, 5), 0);
    socklen_t length = sizeof address;
    ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
    std::string const url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/x";

    std::string const xml = "<!DOCTYPE progressinfo SYSTEM \"" + url + "\" [<!ENTITY n SYSTEM \"" +
                            url +
                            "\">]><progressinfo>"
                            "<current>1&n;</current><total>2</total></progressinfo>";
    ProgressInformation progress;
    EXPECT_NO_THROW(progress.readFromXMLString(xml));
    EXPECT_EQ(progress.getProgress(), 50);

    // A connection attempt would wait in the backlog.
    int const flags = ::fcntl(listener, F_GETFL);
    ASSERT_EQ(::fcntl(listener, F_SETFL, flags | O_NONBLOCK), 0);
    int const accepted = ::accept(listener, nullptr, nullptr);
    int const error = errno;
    EXPECT_LT(accepted, 0);
    EXPECT_TRUE(error == EAGAIN || error == EWOULDBLOCK) << error;
    if (accepted >= 0)
        ::close(accepted);
    ::close(listener);
}

TEST(ProgressInformationTest, MissingFileGivesFalseAndZeroes) {
    ScratchDir dir("tw-progress");
    ASSERT_FALSE(dir.path().empty());
    ProgressInformation progress;
    progress.setCurrent(3);
    progress.setTotal(4);
    LogCapture log;
    EXPECT_FALSE(progress.readFromXMLFile((dir.path() + "/none.xml").c_str()));
    EXPECT_EQ(progress.getCurrent(), 0u);
    EXPECT_EQ(progress.getTotal(), 0u);
    progress.setCurrent(3);
    EXPECT_FALSE(progress.readFromXMLFile(nullptr));
    EXPECT_EQ(progress.getCurrent(), 0u);
    // A path is a path: "-" is no standard input, a URI no file.
    struct stat info;
    ASSERT_NE(::stat("-", &info), 0);
    EXPECT_FALSE(progress.readFromXMLFile("-"));
    writeFile(dir.path() + "/real.xml", document("1", "2"));
    EXPECT_FALSE(progress.readFromXMLFile(("file://" + dir.path() + "/real.xml").c_str()));
    EXPECT_TRUE(log.lines().empty());
}

TEST(ProgressInformationTest, FileIsRead) {
    ScratchDir dir("tw-progress");
    ASSERT_FALSE(dir.path().empty());
    std::string const path = dir.path() + "/progress.xml";
    writeFile(path, "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" + document("30", "40"));
    ProgressInformation progress;
    LogCapture log;
    EXPECT_TRUE(progress.readFromXMLFile(path.c_str()));
    EXPECT_EQ(progress.getCurrent(), 30u);
    EXPECT_EQ(progress.getTotal(), 40u);
    EXPECT_EQ(progress.getProgress(), 75);
    EXPECT_TRUE(log.lines().empty());
}

TEST(ProgressInformationTest, BrokenFileThrowsNotValidXml) {
    ScratchDir dir("tw-progress");
    ASSERT_FALSE(dir.path().empty());
    ProgressInformation progress;
    for (const std::string& content : {std::string("<progressinfo><current>1</current>"),
                                       std::string(""), std::string("\x1f\x8b\x08\x00", 4)}) {
        std::string const path = dir.path() + "/broken.xml";
        writeFile(path, content);
        expectException([&] { progress.readFromXMLFile(path.c_str()); }, ERR_PROGRESS_INFORMATION,
                        SEVERITY_WARNING, "ProgressInformation",
                        "Requested file is not valid xml: " + path);
    }
    // A directory opens but doesn't read; a FIFO without writer reads empty.
    expectException([&] { progress.readFromXMLFile(dir.path().c_str()); }, ERR_PROGRESS_INFORMATION,
                    SEVERITY_WARNING, "ProgressInformation",
                    "Requested file is not valid xml: " + dir.path());
    std::string const fifo = dir.path() + "/fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    expectException([&] { progress.readFromXMLFile(fifo.c_str()); }, ERR_PROGRESS_INFORMATION,
                    SEVERITY_WARNING, "ProgressInformation",
                    "Requested file is not valid xml: " + fifo);
    // A well-formed file with the wrong content gives the document's failure.
    std::string const other = dir.path() + "/other.xml";
    writeFile(other, "<progress/>");
    expectException([&] { progress.readFromXMLFile(other.c_str()); }, ERR_PROGRESS_INFORMATION,
                    SEVERITY_WARNING, "ProgressInformation", NOT_PROGRESS);
}

TEST(ProgressInformationTest, CompressedFileIsNotUnpacked) {
    ScratchDir dir("tw-progress");
    ASSERT_FALSE(dir.path().empty());
    std::string const plain = dir.path() + "/progress.xml";
    writeFile(plain, document("1", "2"));
    ASSERT_EQ(std::system(("gzip -n -c '" + plain + "' > '" + plain + ".gz'").c_str()), 0);
    std::string const packed = plain + ".gz";
    ProgressInformation progress;
    expectException([&] { progress.readFromXMLFile(packed.c_str()); }, ERR_PROGRESS_INFORMATION,
                    SEVERITY_WARNING, "ProgressInformation",
                    "Requested file is not valid xml: " + packed);
    EXPECT_EQ(progress.getCurrent(), 0u);
}

TEST(ProgressInformationTest, FileOf100MiBIsReadWhole) {
    ScratchDir dir("tw-progress-big");
    ASSERT_FALSE(dir.path().empty());
    std::string const path = dir.path() + "/big.xml";
    {
        std::ofstream out(path, std::ios::binary);
        out << "<progressinfo><current>1</current><total>1000</total>";
        std::string const pad = "<pad>" + std::string(1013, 'p') + "</pad>";  // 1 KiB
        for (int i = 0; i < 100 * 1024; ++i)
            out << pad;
        out << "<current>999</current></progressinfo>";
        ASSERT_TRUE(out.good());
    }
    struct stat info;
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_GE(info.st_size, 100 * 1024 * 1024);
    ProgressInformation progress;
    LogCapture log;
    EXPECT_TRUE(progress.readFromXMLFile(path.c_str()));
    EXPECT_EQ(progress.getCurrent(), 999u);
    EXPECT_EQ(progress.getTotal(), 1000u);
    EXPECT_EQ(progress.getProgress(), 99);
    EXPECT_TRUE(log.lines().empty());
}
