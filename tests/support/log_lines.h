// Whole log lines as a test compares them: the captured log of a test body,
// and searches in a list of lines.
#pragma once

#include <string>
#include <vector>

#include "log_capture.h"

namespace TarnwickTest {

typedef std::vector<std::string> Lines;

bool startsWith(const std::string& text, const std::string& prefix);

// Whether `lines` holds `line`.
bool hasLine(const Lines& lines, const std::string& line);
// How many of `lines` are `line`.
int countLine(const Lines& lines, const std::string& line);
// How many of `lines` begin with `prefix`.
int countPrefix(const Lines& lines, const std::string& prefix);
// Whether one of `lines` begins with `prefix`.
bool hasPrefix(const Lines& lines, const std::string& prefix);

// Captures the log of a test body (see LogCapture); shows it on standard
// output when the body failed.
class LogLines {
public:
    LogLines() = default;
    ~LogLines();
    LogLines(const LogLines&) = delete;
    LogLines& operator=(const LogLines&) = delete;

    // The readers take ACE_Log_Msg's lock, under which the engine's worker
    // threads write their lines.
    Lines lines() const;
    std::string text() const;
    bool has(const std::string& line) const { return hasLine(lines(), line); }
    int count(const std::string& line) const { return countLine(lines(), line); }
    int countPrefix(const std::string& prefix) const {
        return TarnwickTest::countPrefix(lines(), prefix);
    }
    bool hasPrefix(const std::string& prefix) const { return countPrefix(prefix) > 0; }
    void clear();

private:
    LogCapture m_capture;
};

}  // namespace TarnwickTest
