#include "wide_text.h"

#include <tarnwick/utf8.h>

#include <gtest/gtest.h>

namespace TarnwickTest {

std::wstring wide(const std::string& text) {
    std::wstring out;
    EXPECT_TRUE(Tarnwick::utf8towcs(text.c_str(), out));
    return out;
}

std::string narrow(const wchar_t* text) {
    std::string out;
    EXPECT_TRUE(Tarnwick::wcstoutf8(text, out));
    return out;
}

}  // namespace TarnwickTest
