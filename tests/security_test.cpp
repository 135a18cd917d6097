// Tests of Security.
#include <tarnwick/security.h>

#include <gtest/gtest.h>

#include <cerrno>

namespace {

TEST(SecurityTest, LoginIsNotImplemented) {
    errno = 0;
    EXPECT_EQ(-1, Tarnwick::Security::login("user", "password"));
    EXPECT_EQ(ENOSYS, errno);
    errno = 0;
    EXPECT_EQ(-1, Tarnwick::Security::login(nullptr, nullptr));
    EXPECT_EQ(ENOSYS, errno);
}

}  // namespace
