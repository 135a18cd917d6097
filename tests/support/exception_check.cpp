#include "exception_check.h"

#include <gtest/gtest.h>

#include <vector>

#include "log_capture.h"

namespace TarnwickTest {

namespace {

std::string levelOf(Tarnwick::eventseveritylevel_t severity) {
    return severity == Tarnwick::SEVERITY_WARNING ? "%D WARN  (%t): " : "%D ERROR (%t): ";
}

}  // namespace

void expectException(const std::function<void()>& body, Tarnwick::errornumber_t number,
                     Tarnwick::eventseveritylevel_t severity, const std::string& source,
                     const std::string& text) {
    LogCapture log;
    try {
        body();
        ADD_FAILURE() << "no exception; expected \"" << text << "\"";
        return;
    } catch (const Tarnwick::Exception& e) {
        EXPECT_EQ(e.getErrNo(), number);
        EXPECT_EQ(e.getSeverity(), severity);
        EXPECT_EQ(e.getSource(), source);
        EXPECT_EQ(e.getDescription(), text);
        EXPECT_STREQ(e.what(), text.c_str());
    }
    EXPECT_EQ(log.lines(), std::vector<std::string>{levelOf(severity) + text});
}

}  // namespace TarnwickTest
