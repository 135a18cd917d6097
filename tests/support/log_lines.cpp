#include "log_lines.h"

#include <ace/Log_Msg.h>

#include <gtest/gtest.h>

#include <iostream>

namespace TarnwickTest {

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

bool hasLine(const Lines& lines, const std::string& line) {
    return countLine(lines, line) > 0;
}

int countLine(const Lines& lines, const std::string& line) {
    int found = 0;
    for (const std::string& each : lines) {
        if (each == line)
            ++found;
    }
    return found;
}

int countPrefix(const Lines& lines, const std::string& prefix) {
    int found = 0;
    for (const std::string& each : lines) {
        if (startsWith(each, prefix))
            ++found;
    }
    return found;
}

bool hasPrefix(const Lines& lines, const std::string& prefix) {
    return countPrefix(lines, prefix) > 0;
}

namespace {

// Holds the lock of ACE_Log_Msg, which it takes while it writes a line.
class LogLock {
public:
    LogLock() { ACE_Log_Msg::instance()->acquire(); }
    ~LogLock() { ACE_Log_Msg::instance()->release(); }
    LogLock(const LogLock&) = delete;
    LogLock& operator=(const LogLock&) = delete;
};

}  // namespace

LogLines::~LogLines() {
    if (::testing::Test::HasFailure())
        std::cout << "---- log\n" << text() << "----\n";
}

Lines LogLines::lines() const {
    LogLock lock;
    return m_capture.lines();
}

std::string LogLines::text() const {
    LogLock lock;
    return m_capture.text();
}

void LogLines::clear() {
    LogLock lock;
    m_capture.clear();
}

}  // namespace TarnwickTest
