// Runs a check without the powers of root, since file permissions don't
// bind root and the tests often run as root.
#pragma once

#include <gtest/gtest.h>

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace TarnwickTest {

// Runs `check` as it is when the process isn't root, else in a forked child
// that has become the user "nobody" (uid and gid 65534); a failure in the
// child fails the test.
template <typename Check>
void asUnprivilegedUser(Check check) {
    if (::geteuid() != 0) {
        check();
        return;
    }
    pid_t const child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0)
            ::_exit(2);
        check();
        ::_exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status)) << "the check failed as user nobody";
}

}  // namespace TarnwickTest
