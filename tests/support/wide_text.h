// Conversions between UTF-8 text and wide text for tests, each checked with
// EXPECT_TRUE so that a failed conversion fails the test.
#pragma once

#include <string>

namespace TarnwickTest {

// `text` (UTF-8) as wide text.
std::wstring wide(const std::string& text);
// `text` (wide, zero-terminated, not null) as UTF-8.
std::string narrow(const wchar_t* text);

}  // namespace TarnwickTest
