// Tests of the command names.
#include <tarnwick/commands.h>

#include <gtest/gtest.h>

namespace {

TEST(TranslateCommandTest, Table) {
    EXPECT_STREQ(L"No command", Tarnwick::translate_command(0));
    EXPECT_STREQ(L"Session List", Tarnwick::translate_command(2));
    EXPECT_STREQ(L"Hartbeat (internal)", Tarnwick::translate_command(14));
    EXPECT_STREQ(L"Check Connections (not implemented)", Tarnwick::translate_command(15));
    EXPECT_STREQ(L"Reload Configuration", Tarnwick::translate_command(21));
}

}  // namespace
