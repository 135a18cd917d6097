// Captures what the library writes through ACE_Log_Msg, so that tests can
// compare whole lines. The date and thread of each line are put back in their
// format form ("%D", "(%t)"), so an expected line reads like its format.
#pragma once

#include <sstream>
#include <string>
#include <vector>

namespace TarnwickTest {

class LogCapture {
public:
    // Starts capturing on the calling thread; stderr output of ACE_Log_Msg
    // is switched off until destruction.
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Everything captured so far, normalised, as one text.
    std::string text() const;
    // The captured text cut into lines; a final line without "\n" is kept.
    std::vector<std::string> lines() const;
    // Forgets what was captured so far.
    void clear();

    // Replaces ACE's date and the "(thread)" marker after a level word by
    // "%D" and "(%t)".
    static std::string normalise(const std::string& raw);

private:
    std::ostringstream stream_;
    std::ostream* old_stream_;
    unsigned long old_flags_;
};

}  // namespace TarnwickTest
