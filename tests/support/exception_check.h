// Checks of a thrown Tarnwick::Exception: its fields and the line it logs.
#pragma once

#include <tarnwick/exception.h>

#include <functional>
#include <string>

namespace TarnwickTest {

// Runs `body`, which must throw Tarnwick::Exception with these fields and
// with what() equal to `text`. The log must hold exactly the exception's own
// line: "%D WARN  (%t): " + text for a warning, "%D ERROR (%t): " + text for
// any other severity.
void expectException(const std::function<void()>& body, Tarnwick::errornumber_t number,
                     Tarnwick::eventseveritylevel_t severity, const std::string& source,
                     const std::string& text);

}  // namespace TarnwickTest
