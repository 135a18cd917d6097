// Web service calls against a real HTTP server on 127.0.0.1 (tests/support/
// http_server.h): tables, error blocks, form fields, HTTP 503 back-off,
// transport retries, time limits, cut connections, large bodies, HTTPS, and
// the shutdown latch. What changes process-wide state for good (the
// configuration store, ShutdownAll) runs in forked children.
#include <tarnwick/configuration.h>
#include <tarnwick/recordset.h>
#include <tarnwick/webservice.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "forked.h"
#include "http_server.h"
#include "log_lines.h"
#include "scratch_dir.h"

using Tarnwick::Record;
using Tarnwick::RecordSet;
using Tarnwick::WebService;
using Tarnwick::WebServiceBuffer;
using TarnwickTest::HttpReply;
using TarnwickTest::HttpRequest;
using TarnwickTest::HttpServer;
using TarnwickTest::inChild;
using TarnwickTest::Lines;
using TarnwickTest::LogLines;

namespace {

const char kTable[] = "***BEGIN***\n0\nid|name\nI|S\n1|alpha\n2|beta\n***DONE***\n";
const char kError[] =
    "***ERROR***\n5\nseverity: high\nserver: s1\nsource: db\ndescription: broken\n***DONE***\n";

const char kNetworkError[] = "%D ERROR (%t): Network error during webservice call: ";
const char kInterrupted[] =
    "%D ERROR (%t): Webservice call was interrupted because the application is shutting down.";
const char kNotParsed[] = "%D ERROR (%t): The data returned by the webservice could not be parsed.";

std::string initDone(const std::string& url) {
    return "%D DEBUG (%t): Webservice network layer initialization done for URL " + url + ".";
}

const char kComplete[] = "%D DEBUG (%t): Webservice call complete, reading data.";
const char kCleaning[] = "%D DEBUG (%t): Webservice call done, cleaning up.";

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// A port of 127.0.0.1 on which nobody listens.
int closedPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

// Opens the process's configuration store with the web service settings
// given on a command line ("--timeout=7" ...). For forked children only.
void openSettings(std::vector<std::wstring> arguments) {
    Tarnwick::Configuration* const config = Tarnwick::getConfigSingleton();
    ASSERT_NE(nullptr, config);
    ASSERT_EQ(0, config->import(Tarnwick::WEBSERVICE_SETTINGS));
    arguments.insert(arguments.begin(), L"webservice_test");
    std::vector<wchar_t*> argv;
    for (std::wstring& argument : arguments)
        argv.push_back(&argument[0]);
    argv.push_back(nullptr);
    ASSERT_EQ(0, config->open(nullptr, static_cast<int>(arguments.size()), argv.data()));
    ASSERT_TRUE(config->isOk());
}

class WebServiceTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(server.start()); }
    void TearDown() override { server.stop(); }

    HttpServer server;
};

}  // namespace

// ---------------------------------------------------------------- buffer

TEST(WebServiceBufferTest, WritesAppendAndKeepAZeroByte) {
    WebServiceBuffer buffer;
    EXPECT_EQ(nullptr, buffer.data());
    EXPECT_EQ(0u, buffer.size());
    char first[] = "abc";
    char second[] = "defg";
    EXPECT_EQ(3u, buffer.write(first, 1, 3));
    EXPECT_EQ(4u, WebService::data_callback(second, 2, 2, &buffer));
    EXPECT_EQ(7u, buffer.size());
    EXPECT_STREQ("abcdefg", buffer.data());
    EXPECT_EQ(0, buffer.reset());
    EXPECT_EQ(nullptr, buffer.data());
    EXPECT_EQ(0u, buffer.size());
}

TEST(WebServiceBufferTest, ExhaustedStorageEmptiesTheBufferAndReturnsZero) {
    WebServiceBuffer buffer;
    char bytes[] = "abc";
    ASSERT_EQ(3u, buffer.write(bytes, 1, 3));
    // A piece that can't be held: its size overflows the address space.
    EXPECT_EQ(0u, buffer.write(bytes, static_cast<size_t>(-1) / 2, 3));
    EXPECT_EQ(nullptr, buffer.data());
    EXPECT_EQ(0u, buffer.size());
    ASSERT_EQ(3u, buffer.write(bytes, 1, 3));
    EXPECT_EQ(0u, buffer.write(bytes, 1, static_cast<size_t>(-2)));
    EXPECT_EQ(nullptr, buffer.data());
    EXPECT_EQ(0u, WebService::data_callback(bytes, 1, 3, nullptr));
}

// Tests whose body runs in a forked child start their server there: the
// parent has no thread running when it forks, so that the child inherits no
// lock held by another thread (the sanitizers' allocators among them) and
// may start threads of its own.

// ---------------------------------------------------------------- objects

TEST(WebServiceObjectTest, DefaultsAndAccessors) {
    WebService service;
    EXPECT_EQ(120, service.timeout());
    service.timeout(5);
    EXPECT_EQ(5, service.timeout());
    EXPECT_EQ(0, service.getResponseCode());
    EXPECT_EQ(nullptr, service.data());
    EXPECT_EQ("", service.url());
    service.url("http://127.0.0.1:1/x");
    EXPECT_EQ("http://127.0.0.1:1/x", service.url());
    EXPECT_TRUE(service.getFields().empty());
}

TEST(WebServiceObjectTest, FirstValueOfANameWins) {
    LogLines log;
    WebService service;
    EXPECT_EQ(0, service.field("b", "2"));
    EXPECT_EQ(0, service.field("a", std::string("1")));
    EXPECT_EQ(0, service.field("a", "ignored"));
    EXPECT_EQ(0, service.field("w", L"\u00e9t\u00e9"));
    EXPECT_EQ(0, service.field("n", static_cast<int64_t>(-1234567890123LL)));
    EXPECT_EQ(-1, service.field("bad", L"\xd800"));
    EXPECT_EQ(4u, service.getFields().size());
    EXPECT_STREQ("1", service.value("a"));
    EXPECT_STREQ("2", service.value("b"));
    EXPECT_STREQ("\xc3\xa9t\xc3\xa9", service.value("w"));
    EXPECT_STREQ("-1234567890123", service.value("n"));
    EXPECT_EQ(nullptr, service.value("bad"));
    EXPECT_EQ(Lines({"%D ERROR (%t): Field bad not found."}), log.lines());
    EXPECT_EQ(-1, service.field(nullptr, "x"));
    EXPECT_EQ(-1, service.field("x", static_cast<const char*>(nullptr)));
}

TEST(WebServiceObjectTest, NoUrlFailsBeforeTheNetwork) {
    LogLines log;
    WebService service;
    int code = 77;
    EXPECT_EQ(-1, service.get(&code));
    EXPECT_EQ(77, code);
    RecordSet set;
    EXPECT_EQ(-1, service.get(&set, 0));
    EXPECT_EQ(Lines({"%D ERROR (%t): No URL specified", "%D ERROR (%t): No URL specified"}),
              log.lines());
}

// ---------------------------------------------------------------- transfers

TEST_F(WebServiceTest, TableOverGetWithoutFields) {
    server.script({HttpReply::ok(std::string("Warning: noise\n") + kTable)});
    LogLines log;
    WebService service;
    const std::string url = server.url("/cgi/list.php?x=1");
    service.url(url.c_str());
    RecordSet set;
    ASSERT_EQ(0, service.get(&set, 0));
    EXPECT_EQ(200, service.getResponseCode());
    EXPECT_EQ(Lines({initDone(url), kComplete, kCleaning}), log.lines());
    EXPECT_EQ(2, set.count());
    Record* const first = set.next();
    ASSERT_NE(nullptr, first);
    EXPECT_EQ("1", first->getValue("id"));
    EXPECT_EQ("alpha", first->getValue("name"));
    EXPECT_EQ("beta", set.next()->getValue("name"));

    const std::vector<HttpRequest> requests = server.requests();
    ASSERT_EQ(1u, requests.size());
    EXPECT_EQ("GET", requests[0].method);
    EXPECT_EQ("/cgi/list.php?x=1", requests[0].path);
    EXPECT_EQ("", requests[0].body);
}

TEST_F(WebServiceTest, FieldsGoOutAsAMultipartPostAndAgainOnTheNextCall) {
    server.script({HttpReply::ok(kTable)});
    WebService service;
    const std::string url = server.url("/post");
    service.url(url.c_str());
    service.user("admin");
    service.password("secret-password");
    ASSERT_EQ(0, service.field("zeta", "last"));
    ASSERT_EQ(0, service.field("alpha", "first value"));
    ASSERT_EQ(0, service.field("alpha", "second value"));
    ASSERT_EQ(0, service.field("text", L"gr\u00fc\u00dfe|\u20ac"));
    ASSERT_EQ(0, service.field("count", static_cast<int64_t>(42)));
    int code = 0;
    ASSERT_EQ(0, service.get(&code));
    EXPECT_EQ(200, code);
    EXPECT_STREQ(kTable, service.data());
    ASSERT_EQ(0, service.get(&code));

    const std::vector<HttpRequest> requests = server.requests();
    ASSERT_EQ(2u, requests.size());
    const std::vector<std::pair<std::string, std::string>> expected = {{"alpha", "first value"},
                                                                       {"count", "42"},
                                                                       {"text",
                                                                        "gr\xc3\xbc\xc3\x9f"
                                                                        "e|\xe2\x82\xac"},
                                                                       {"zeta", "last"}};
    for (const HttpRequest& request : requests) {
        EXPECT_EQ("POST", request.method);
        EXPECT_EQ("/post", request.path);
        EXPECT_EQ(0u, request.headers.at("content-type").find("multipart/form-data; boundary="));
        EXPECT_EQ(expected, request.fields);
        // The user and the password stay at home.
        EXPECT_EQ(0u, request.headers.count("authorization"));
        EXPECT_EQ(std::string::npos, request.body.find("secret-password"));
    }
}

TEST_F(WebServiceTest, HttpStatusIsNoFailureOfTheTransfer) {
    server.script({HttpReply::status_only(404, "missing"), HttpReply::status_only(500, kTable)});
    WebService service;
    service.url(server.url("/nothing").c_str());
    int code = 0;
    EXPECT_EQ(0, service.get(&code));
    EXPECT_EQ(404, code);
    EXPECT_EQ(404, service.getResponseCode());
    EXPECT_STREQ("missing", service.data());
    EXPECT_EQ(7u, service.buffer().size());
    RecordSet set;
    EXPECT_EQ(0, service.get(&set, 0));
    EXPECT_EQ(500, service.getResponseCode());
    EXPECT_EQ(2, set.count());
}

TEST_F(WebServiceTest, ErrorBlockFailsTheCallAndStaysInTheSet) {
    server.script({HttpReply::ok(kError)});
    LogLines log;
    WebService service;
    service.url(server.url().c_str());
    RecordSet set;
    EXPECT_EQ(-1, service.get(&set, 0));
    EXPECT_TRUE(log.has("%D ERROR (%t): The webservice returned an error : broken"));
    ASSERT_NE(nullptr, set.error());
    EXPECT_EQ(5, set.error()->code());
    EXPECT_EQ(std::wstring(L"high"), set.error()->severity());
    EXPECT_EQ(std::wstring(L"s1"), set.error()->server());
    EXPECT_EQ(std::wstring(L"db"), set.error()->source());
    EXPECT_EQ(std::wstring(L"broken"), set.error()->description());
}

TEST_F(WebServiceTest, BodyWithoutMarkerIsNotParsedAlsoWithRetry) {
    server.script({HttpReply::ok("<html>no table here</html>")});
    LogLines log;
    WebService service;
    service.url(server.url().c_str());
    service.enable_retry();
    RecordSet set;
    EXPECT_EQ(-1, service.get(&set, 0));
    EXPECT_EQ(1u, server.requests().size());
    EXPECT_EQ(Lines({initDone(server.url()), kComplete, kCleaning, kNotParsed}), log.lines());
}

TEST_F(WebServiceTest, BadBodiesGiveTheParseFailure) {
    const std::vector<std::string> bodies = {
        "***BEGIN***\n0\na\nI\n1\n***DONE***\n\xc3\x28",  // invalid UTF-8
        "***GARBAGE***\n0\n",                             // unknown marker
        "***BEGIN***",                                    // cut in the head
        "",                                               // no body at all
    };
    for (const std::string& body : bodies) {
        server.script({HttpReply::ok(body)});
        LogLines log;
        WebService service;
        service.url(server.url().c_str());
        RecordSet set;
        EXPECT_EQ(-1, service.get(&set, 0)) << body;
        EXPECT_TRUE(log.has(kNotParsed)) << body;
        EXPECT_EQ(0, set.count());
    }
}

TEST_F(WebServiceTest, InvalidUtf8IsLoggedAsSuch) {
    server.script({HttpReply::ok("***BEGIN***\n0\na\nS\n\xff\n***DONE***\n")});
    LogLines log;
    WebService service;
    service.url(server.url().c_str());
    RecordSet set;
    EXPECT_EQ(-1, service.get(&set, 0));
    EXPECT_EQ(Lines({initDone(server.url()), kComplete, kCleaning,
                     "%D ERROR (%t): Could not convert webservice result to wide character string "
                     "from UTF-8: Invalid or incomplete multibyte or wide character.",
                     kNotParsed}),
              log.lines());
}

TEST_F(WebServiceTest, RowsLongerThanTheHeaderKeepTheirColumns) {
    server.script({HttpReply::ok("***BEGIN***\n0\na\nS\nx|y|z\n***DONE***\n")});
    WebService service;
    service.url(server.url().c_str());
    RecordSet set;
    ASSERT_EQ(0, service.get(&set, 0));
    Record* const record = set.next();
    ASSERT_NE(nullptr, record);
    EXPECT_EQ(1, record->count());
    EXPECT_EQ("x", record->getValue("a"));
}

TEST_F(WebServiceTest, CurlTimeoutEndsAStalledBody) {
    server.script({HttpReply::stall("***BEGIN***\n0\n")});
    LogLines log;
    WebService service;
    service.url(server.url().c_str());
    service.timeout(1);
    const auto start = std::chrono::steady_clock::now();
    int code = 0;
    EXPECT_EQ(-1, service.get(&code));
    const double took = secondsSince(start);
    EXPECT_GE(took, 0.9);
    EXPECT_LT(took, 11.0);
    EXPECT_EQ(200, code);
    const Lines lines = log.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_TRUE(TarnwickTest::startsWith(lines.back(),
                                         std::string(kNetworkError) + "Operation timed out after "))
        << lines.back();
}

// libcurl refuses a negative timeout and then has none of its own: the
// library's guard at timeout + 10 seconds is what ends the call.
TEST_F(WebServiceTest, GuardEndsATransferThatLibcurlDoesNotTimeOut) {
    server.script({HttpReply::ok(kTable), HttpReply::stall("***BEGIN***\n")});
    LogLines log;
    WebService service;
    service.url(server.url().c_str());
    int code = 0;
    ASSERT_EQ(0, service.get(&code));
    log.clear();
    service.timeout(-3);  // the guard strikes at 7 seconds
    code = 55;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(-1, service.get(&code));
    const double took = secondsSince(start);
    EXPECT_GE(took, 6.9);
    EXPECT_LT(took, 10.0);
    // The code of this call is never known.
    EXPECT_EQ(55, code);
    EXPECT_EQ(200, service.getResponseCode());
    EXPECT_EQ(Lines({initDone(server.url()), "%D DEBUG (%t): Still Performing webservice call.",
                     "%D ERROR (%t): Webservice call timed out. (curl call did not)"}),
              log.lines());
}

TEST_F(WebServiceTest, ResetConnectionIsANetworkError) {
    server.script({HttpReply::reset()});
    LogLines log;
    WebService service;
    service.url(server.url().c_str());
    int code = 9;
    EXPECT_EQ(-1, service.get(&code));
    EXPECT_EQ(0, code);
    EXPECT_EQ(Lines({initDone(server.url()), kComplete, kCleaning,
                     std::string(kNetworkError) + "Recv failure: Connection reset by peer"}),
              log.lines());
}

TEST(WebServiceNetworkTest, RefusedConnectionIsANetworkError) {
    const int port = closedPort();
    LogLines log;
    WebService service;
    const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/";
    service.url(url.c_str());
    RecordSet set;
    EXPECT_EQ(-1, service.get(&set, 0));
    const Lines lines = log.lines();
    ASSERT_EQ(4u, lines.size());
    EXPECT_TRUE(TarnwickTest::startsWith(
        lines[3],
        std::string(kNetworkError) + "Failed to connect to 127.0.0.1 port " + std::to_string(port)))
        << lines[3];
}

TEST(WebServiceNetworkTest, MalformedUrlsAreNetworkErrors) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"http://", "URL using bad/illegal format or missing URL"},
        {"gopherx://127.0.0.1/", "Protocol \"gopherx\" not supported or disabled in libcurl"},
        {"http://127.0.0.1:99999/", "URL using bad/illegal format or missing URL"},
    };
    for (const auto& c : cases) {
        LogLines log;
        WebService service;
        service.url(c.first.c_str());
        int code = 3;
        EXPECT_EQ(-1, service.get(&code)) << c.first;
        EXPECT_EQ(0, code);
        EXPECT_EQ(std::string(kNetworkError) + c.second, log.lines().back()) << c.first;
    }
}

TEST(WebServiceNetworkTest, UnresolvableHostIsANetworkError) {
    LogLines log;
    WebService service;
    service.url("http://no-such-host.invalid/");
    service.timeout(5);
    EXPECT_EQ(-1, service.get(static_cast<int*>(nullptr)));
    EXPECT_TRUE(TarnwickTest::startsWith(log.lines().back(),
                                         std::string(kNetworkError) + "Could not resolve host: "))
        << log.lines().back();
}

TEST_F(WebServiceTest, HundredMebibyteBodyArrivesWhole) {
    const size_t size = size_t(100) << 20;
    server.script({HttpReply::large(size)});
    WebService service;
    service.url(server.url().c_str());
    const auto start = std::chrono::steady_clock::now();
    int code = 0;
    ASSERT_EQ(0, service.get(&code));
    std::printf("[figure] 100 MiB body in %.2f s\n", secondsSince(start));
    EXPECT_EQ(200, code);
    ASSERT_EQ(size, service.buffer().size());
    EXPECT_EQ('x', service.data()[0]);
    EXPECT_EQ('x', service.data()[size - 1]);
    EXPECT_EQ('\0', service.data()[size]);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// A body that memory can't hold: the write function gives up, and libcurl
// ends the transfer with a write error.
TEST(WebServiceChildTest, BodyLargerThanMemoryAllowsIsANetworkError) {
    inChild([]() {
        HttpServer server;
        ASSERT_TRUE(server.start());
        server.script({HttpReply::large(size_t(100) << 20)});
        const std::string url = server.url();
        rlimit limit{};
        ASSERT_EQ(0, ::getrlimit(RLIMIT_AS, &limit));
        // Room for the program and libcurl, not for the body.
        std::FILE* status = std::fopen("/proc/self/statm", "r");
        ASSERT_NE(nullptr, status);
        unsigned long pages = 0;
        ASSERT_EQ(1, std::fscanf(status, "%lu", &pages));
        std::fclose(status);
        limit.rlim_cur = pages * static_cast<unsigned long>(::sysconf(_SC_PAGESIZE)) + (48ul << 20);
        ASSERT_EQ(0, ::setrlimit(RLIMIT_AS, &limit));
        LogLines log;
        WebService service;
        service.url(url.c_str());
        int code = 0;
        EXPECT_EQ(-1, service.get(&code));
        EXPECT_EQ(200, code);
        EXPECT_EQ(nullptr, service.data());
        EXPECT_EQ(std::string(kNetworkError) + "Failure writing output to destination",
                  log.lines().back());
    });
}
#endif

// Two threads on one object: the second transfer waits for the first.
TEST_F(WebServiceTest, TransfersOnOneObjectQueueUp) {
    server.script({HttpReply::delayed(600, kTable)});
    WebService service;
    service.url(server.url().c_str());
    int first = 0;
    int second = 0;
    std::thread other([&service, &second]() { EXPECT_EQ(0, service.get(&second)); });
    EXPECT_EQ(0, service.get(&first));
    other.join();
    EXPECT_EQ(200, first);
    EXPECT_EQ(200, second);
    const std::vector<HttpRequest> requests = server.requests();
    ASSERT_EQ(2u, requests.size());
    EXPECT_GE(requests[1].arrived - requests[0].arrived, std::chrono::milliseconds(550));
}

// ---------------------------------------------------------------- HTTPS

TEST(WebServiceHttpsTest, SelfSignedCertificateIsAccepted) {
    TarnwickTest::ScratchDir dir("webservice-https");
    ASSERT_FALSE(dir.path().empty());
    ASSERT_TRUE(TarnwickTest::makeSelfSignedCertificate(dir.path()));
    HttpServer server(dir.path() + "/server.cert", dir.path() + "/server.key");
    ASSERT_TRUE(server.start());
    server.script({HttpReply::ok(kTable)});
    WebService service;
    const std::string url = server.url("/secure");
    ASSERT_EQ(0u, url.find("https://127.0.0.1:"));
    service.url(url.c_str());
    service.field("q", "1");
    RecordSet set;
    ASSERT_EQ(0, service.get(&set, 0));
    EXPECT_EQ(2, set.count());
    server.stop();
    const std::vector<HttpRequest> requests = server.requests();
    ASSERT_EQ(1u, requests.size());
    EXPECT_EQ("POST", requests[0].method);
    EXPECT_EQ((std::vector<std::pair<std::string, std::string>>{{"q", "1"}}), requests[0].fields);
}

// ---------------------------------------------------------------- 503

TEST_F(WebServiceTest, MaxRetryTimeBelowTheFirstWaitAbortsAtOnce) {
    server.script({HttpReply::status_only(503, "busy")});
    LogLines log;
    WebService service;
    service.url(server.url().c_str());
    RecordSet set;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(-1, service.get(&set, 60));
    // No wait: far below the 60 seconds of the first one.
    EXPECT_LT(secondsSince(start), 5.0);
    EXPECT_EQ(1u, server.requests().size());
    const Lines lines = log.lines();
    ASSERT_EQ(6u, lines.size()) << log.text();
    // The wait is drawn from 60 to 119 seconds.
    int wait = 0;
    ASSERT_EQ(1, std::sscanf(lines[4].c_str(),
                             "                 current interval: 60s, current total retry time: "
                             "%ds ",
                             &wait))
        << lines[4];
    EXPECT_GE(wait, 60);
    EXPECT_LE(wait, 119);
    EXPECT_EQ("%D DEBUG (%t): HTTP 503 params: min interval: 60s, max: 900s, max retry time: 60s ",
              lines[3]);
    EXPECT_EQ("                 current interval: 60s, current total retry time: " +
                  std::to_string(wait) + "s ",
              lines[4]);
    EXPECT_EQ("%D WARN  (%t): HTTP responsecode was still 503 after 1 attempts and " +
                  std::to_string(wait) + " seconds. Aborting.",
              lines[5]);
}

TEST(WebServiceChildTest, ServiceUnavailableThenTableWaitsTheStartInterval) {
    inChild([]() {
        HttpServer server;
        ASSERT_TRUE(server.start());
        server.script({HttpReply::status_only(503, "busy"), HttpReply::status_only(503, "busy"),
                       HttpReply::ok(kTable)});
        const std::string url = server.url();
        openSettings({L"--start_wait_interval=1", L"--end_wait_interval=2"});
        LogLines log;
        WebService service;
        service.url(url.c_str());
        RecordSet set;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(0, service.get(&set, 0));
        const double took = secondsSince(start);
        // 1 second, then 2 or 3.
        EXPECT_GE(took, 3.0);
        EXPECT_LT(took, 8.0);
        EXPECT_EQ(2, set.count());
        EXPECT_EQ(200, service.getResponseCode());
        EXPECT_TRUE(log.has(
            "%D DEBUG (%t): HTTP 503 params: min interval: 1s, max: 2s, max retry time: 0s "));
        EXPECT_TRUE(
            log.has("                 current interval: 1s, current total retry time: 1s "));
        EXPECT_TRUE(log.has("%D WARN  (%t): HTTP responsecode was 503, retrying 1 in 1 seconds"));
        EXPECT_EQ(1, log.countPrefix("                 current interval: 2s, current total retry "
                                     "time: "));
        EXPECT_EQ(1, log.countPrefix("%D WARN  (%t): HTTP responsecode was 503, retrying 2 in "));
        server.stop();
        EXPECT_EQ(3u, server.requests().size());
    });
}

TEST(WebServiceChildTest, OneServiceUnavailableWaitsBetweenTheIntervalAndTwiceIt) {
    inChild([]() {
        HttpServer server;
        ASSERT_TRUE(server.start());
        server.script({HttpReply::status_only(503, "busy"), HttpReply::ok(kTable)});
        const std::string url = server.url();
        openSettings({L"--start_wait_interval=2"});
        LogLines log;
        WebService service;
        service.url(url.c_str());
        RecordSet set;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(0, service.get(&set, 0));
        const double took = secondsSince(start);
        int wait = 0;
        for (const std::string& line : log.lines())
            std::sscanf(line.c_str(),
                        "                 current interval: 2s, current total retry time: %ds ",
                        &wait);
        // From 2 to 3 seconds.
        EXPECT_GE(wait, 2);
        EXPECT_LE(wait, 3);
        EXPECT_GE(took, wait);
        EXPECT_LT(took, wait + 4.0);
        EXPECT_TRUE(log.has(
            "%D DEBUG (%t): HTTP 503 params: min interval: 2s, max: 900s, max retry time: 0s "));
        EXPECT_TRUE(log.has("%D WARN  (%t): HTTP responsecode was 503, retrying 1 in " +
                            std::to_string(wait) + " seconds"));
        EXPECT_EQ(2, set.count());
        server.stop();
        EXPECT_EQ(2u, server.requests().size());
    });
}

TEST(WebServiceChildTest, SettingsAreReadAtConstruction) {
    inChild([]() {
        HttpServer server;
        ASSERT_TRUE(server.start());
        server.script({HttpReply::status_only(503, "")});
        const std::string url = server.url();
        openSettings({L"--timeout=7", L"--connect_timeout=3", L"--start_wait_interval=4",
                      L"--end_wait_interval=5"});
        LogLines log;
        WebService service;
        EXPECT_EQ(7, service.timeout());
        service.url(url.c_str());
        EXPECT_EQ(-1, service.getWithRetry(4));
        EXPECT_TRUE(log.has(
            "%D DEBUG (%t): HTTP 503 params: min interval: 4s, max: 5s, max retry time: 4s "));
        EXPECT_EQ(1, log.countPrefix(
                         "%D WARN  (%t): HTTP responsecode was still 503 after 1 attempts and "));
    });
}

// ---------------------------------------------------------------- retry

TEST_F(WebServiceTest, WithoutRetryATransportFailureEndsTheCall) {
    server.script({HttpReply::reset(), HttpReply::ok(kTable)});
    LogLines log;
    WebService service;
    service.url(server.url().c_str());
    RecordSet set;
    EXPECT_EQ(-1, service.get(&set, 0));
    EXPECT_EQ(1u, server.requests().size());
    EXPECT_EQ(0, log.countPrefix("%D WARN  (%t): Retrying"));
}

TEST(WebServiceChildTest, TransportFailuresAreRetriedWithDoublingDelays) {
    inChild([]() {
        HttpServer server;
        ASSERT_TRUE(server.start());
        std::vector<HttpReply> replies(10, HttpReply::reset());
        replies.push_back(HttpReply::ok(kTable));
        server.script(replies);
        const std::string url = server.url();
        WebService::setBackoffStep(ACE_Time_Value(0, 1000));
        LogLines log;
        WebService service;
        service.url(url.c_str());
        service.enable_retry();
        RecordSet set;
        EXPECT_EQ(0, service.get(&set, 0));
        EXPECT_EQ(2, set.count());
        EXPECT_EQ(10, log.countPrefix(kNetworkError));
        Lines retries;
        for (const std::string& line : log.lines()) {
            if (TarnwickTest::startsWith(line, "%D WARN  (%t): Retrying"))
                retries.push_back(line);
        }
        // 2, 4, ... 256, then 512 for ever, which is no longer told.
        EXPECT_EQ(Lines({"%D WARN  (%t): Retrying webservice call in 4 seconds",
                         "%D WARN  (%t): Retrying webservice call in 8 seconds",
                         "%D WARN  (%t): Retrying webservice call in 16 seconds",
                         "%D WARN  (%t): Retrying webservice call in 32 seconds",
                         "%D WARN  (%t): Retrying webservice call in 64 seconds",
                         "%D WARN  (%t): Retrying webservice call in 128 seconds",
                         "%D WARN  (%t): Retrying webservice call in 256 seconds",
                         "%D WARN  (%t): Retrying webservice call in 512 seconds"}),
                  retries);
        server.stop();
        EXPECT_EQ(11u, server.requests().size());
    });
}

// ---------------------------------------------------------------- shutdown

// The server of these tests runs in the child, which then starts the thread
// that shuts down: a forked child of a threaded process may not start
// threads under ThreadSanitizer.
TEST(WebServiceShutdownTest, ShutdownEndsAServiceUnavailableWaitWithinASecond) {
    inChild([]() {
        HttpServer server;
        ASSERT_TRUE(server.start());
        server.script({HttpReply::status_only(503, "busy"), HttpReply::ok(kTable)});
        const std::string url = server.url();
        openSettings({L"--start_wait_interval=30"});
        LogLines log;
        WebService service;
        service.url(url.c_str());
        std::chrono::steady_clock::time_point shutdown;
        std::thread stopper([&shutdown]() {
            std::this_thread::sleep_for(std::chrono::milliseconds(1500));
            shutdown = std::chrono::steady_clock::now();
            WebService::ShutdownAll();
        });
        RecordSet set;
        EXPECT_EQ(-1, service.get(&set, 0));
        const auto ended = std::chrono::steady_clock::now();
        stopper.join();
        const double reaction = std::chrono::duration<double>(ended - shutdown).count();
        std::printf("[figure] ShutdownAll ended a 503 wait after %.3f s\n", reaction);
        // Within one second of the wait; the bound leaves room for a busy
        // machine.
        EXPECT_LT(reaction, 2.5);
        EXPECT_EQ(1, log.countPrefix("%D WARN  (%t): HTTP responsecode was 503, retrying 1 in "));
        EXPECT_EQ(0, set.count());

        // The latch stays: a full call fails at once and quietly, a single
        // transfer sets up, makes no pass and tells why.
        log.clear();
        EXPECT_EQ(-1, service.get(&set, 0));
        EXPECT_TRUE(log.lines().empty()) << log.text();
        int code = 8;
        EXPECT_EQ(-1, service.get(&code));
        EXPECT_EQ(0, code);
        EXPECT_EQ(Lines({initDone(url), kComplete, kCleaning, kInterrupted}), log.lines());
        server.stop();
        EXPECT_EQ(1u, server.requests().size());
    });
}

TEST(WebServiceShutdownTest, ShutdownEndsARunningTransferWithinOnePoll) {
    inChild([]() {
        HttpServer server;
        ASSERT_TRUE(server.start());
        server.script({HttpReply::stall("***BEGIN***\n")});
        const std::string url = server.url();
        LogLines log;
        WebService service;
        service.url(url.c_str());
        std::chrono::steady_clock::time_point shutdown;
        std::thread stopper([&shutdown]() {
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
            shutdown = std::chrono::steady_clock::now();
            WebService::ShutdownAll();
        });
        int code = 0;
        EXPECT_EQ(-1, service.get(&code));
        const auto ended = std::chrono::steady_clock::now();
        stopper.join();
        const double reaction = std::chrono::duration<double>(ended - shutdown).count();
        std::printf("[figure] ShutdownAll ended a running transfer after %.3f s\n", reaction);
        // Within one poll of 100 ms; the bound leaves room for a busy machine.
        EXPECT_LT(reaction, 2.0);
        EXPECT_EQ(200, code);
        const Lines lines = log.lines();
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(kInterrupted, lines.back());
        EXPECT_TRUE(TarnwickTest::hasLine(lines, kComplete));
        EXPECT_TRUE(TarnwickTest::hasLine(lines, kCleaning));
    });
}

TEST(WebServiceShutdownTest, ShutdownIsALatchThatFailsEveryLaterCall) {
    inChild([]() {
        LogLines log;
        WebService::ShutdownAll();
        WebService::ShutdownAll();
        WebService service;
        service.url("http://127.0.0.1:1/");
        RecordSet set;
        EXPECT_EQ(-1, service.get(&set, 0));
        EXPECT_EQ(-1, service.getWithRetry(0));
        EXPECT_EQ(Lines({"%D DEBUG (%t): Cancelling all webservice calls.",
                         "%D DEBUG (%t): Cancelling all webservice calls.",
                         "%D DEBUG (%t): Webservice network layer initialization done for URL "
                         "http://127.0.0.1:1/.",
                         kComplete, kCleaning, kInterrupted}),
                  log.lines());
    });
}

TEST(WebServiceShutdownTest, ShutdownEndsTheTransportRetry) {
    const int port = closedPort();
    const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/";
    inChild([&url]() {
        LogLines log;
        WebService service;
        service.url(url.c_str());
        service.enable_retry();
        std::chrono::steady_clock::time_point shutdown;
        std::thread stopper([&shutdown]() {
            std::this_thread::sleep_for(std::chrono::milliseconds(2500));
            shutdown = std::chrono::steady_clock::now();
            WebService::ShutdownAll();
        });
        RecordSet set;
        EXPECT_EQ(-1, service.get(&set, 0));
        const auto ended = std::chrono::steady_clock::now();
        stopper.join();
        const double reaction = std::chrono::duration<double>(ended - shutdown).count();
        EXPECT_LT(reaction, 2.5);
        EXPECT_TRUE(log.has("%D WARN  (%t): Retrying webservice call in 4 seconds"));
    });
}
