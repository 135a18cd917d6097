#include "log_lines.h"

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

LogLines::~LogLines() {
    if (::testing::Test::HasFailure())
        std::cout << "---- log\n" << m_capture.text() << "----\n";
}

}  // namespace TarnwickTest
