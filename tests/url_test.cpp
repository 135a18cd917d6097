// Tests of the URL check.
#include <tarnwick/url.h>

#include <gtest/gtest.h>
#include <log_capture.h>

#include <cerrno>
#include <string>

namespace {

const char* const kBadURLText =
    "' is not a valid URL, has an invalid hostname/IP address or resolving the hostname "
    "failed.";

// A host name with a label of 64 characters, which the resolver refuses
// before it builds any query, so that the test needs no network.
std::wstring unresolvableHost() {
    return std::wstring(64, L'a') + L".example";
}

std::string narrow(const std::wstring& text) {
    return std::string(text.begin(), text.end());  // ASCII only
}

TEST(CheckURLTest, PortIsCutBeforeTheLookup) {
    TarnwickTest::LogCapture log;
    EXPECT_EQ(0, Tarnwick::checkURL(L"https://localhost:8443/x"));
    EXPECT_TRUE(log.lines().empty());
}

TEST(CheckURLTest, AddressWithPath) {
    TarnwickTest::LogCapture log;
    EXPECT_EQ(0, Tarnwick::checkURL(L"http://127.0.0.1/path"));
    EXPECT_EQ(0, Tarnwick::checkURL(L"http://127.0.0.1"));
    // Without a scheme the host starts at the beginning.
    EXPECT_EQ(0, Tarnwick::checkURL(L"127.0.0.1:99"));
    EXPECT_EQ(0, Tarnwick::checkURL(L"localhost/x"));
    EXPECT_TRUE(log.lines().empty());
}

TEST(CheckURLTest, NullURL) {
    TarnwickTest::LogCapture log;
    errno = 0;
    EXPECT_EQ(-1, Tarnwick::checkURL(nullptr));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_TRUE(log.lines().empty());
}

TEST(CheckURLTest, EmptyHost) {
    TarnwickTest::LogCapture log;
    EXPECT_EQ(-1, Tarnwick::checkURL(L"http://"));
    EXPECT_EQ(-1, Tarnwick::checkURL(L"https://:8443/x"));
    std::vector<std::string> const expected = {
        "%D ERROR (%t): 'http://" + std::string(kBadURLText),
        "%D ERROR (%t): 'https://:8443/x" + std::string(kBadURLText)};
    EXPECT_EQ(expected, log.lines());
}

TEST(CheckURLTest, UnresolvableNameLogsTheWholeURL) {
    std::wstring const url = L"http://" + unresolvableHost() + L":8080/some/path";
    TarnwickTest::LogCapture log;
    EXPECT_EQ(-1, Tarnwick::checkURL(url.c_str()));
    std::vector<std::string> const expected = {"%D ERROR (%t): '" + narrow(url) + kBadURLText};
    EXPECT_EQ(expected, log.lines());
}

TEST(CheckURLTest, ColonInPathCutsThere) {
    // The cut at ":" comes before the one at "/": the host looked up is
    // "127.0.0.1/aaa...", whose last label is too long to be a name.
    std::wstring const url = L"http://127.0.0.1/" + std::wstring(64, L'a') + L":b";
    TarnwickTest::LogCapture log;
    EXPECT_EQ(-1, Tarnwick::checkURL(url.c_str()));
    std::vector<std::string> const expected = {"%D ERROR (%t): '" + narrow(url) + kBadURLText};
    EXPECT_EQ(expected, log.lines());
}

}  // namespace
