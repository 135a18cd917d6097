// Tests of the random source.
#include <tarnwick/random.h>

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

namespace {

TEST(RandomTest, ValuesVary) {
    std::set<uint32_t> seen;
    for (int i = 0; i < 10000; ++i) {
        seen.insert(Tarnwick::Random());
    }
    // Chance collisions among 10000 values of 32 bits: about 0.01 expected.
    EXPECT_GE(seen.size(), 9995u);
}

TEST(RandomTest, SafeFromManyThreads) {
    const int kThreads = 4;
    const int kEach = 5000;
    std::vector<std::vector<uint32_t>> values(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&values, t] {
            for (int i = 0; i < kEach; ++i) {
                values[t].push_back(Tarnwick::Random());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::set<uint32_t> seen;
    for (const auto& list : values) {
        seen.insert(list.begin(), list.end());
    }
    EXPECT_GE(seen.size(), static_cast<size_t>(kThreads * kEach) - 5);
}

TEST(RandomTest, ForkedChildHasItsOwnSequence) {
    Tarnwick::Random();  // make sure the parent is seeded
    int fds[2];
    ASSERT_EQ(0, ::pipe(fds));
    pid_t const child = ::fork();
    ASSERT_NE(-1, child);
    if (child == 0) {
        uint32_t values[4];
        for (uint32_t& value : values) {
            value = Tarnwick::Random();
        }
        ssize_t const written = ::write(fds[1], values, sizeof(values));
        ::_exit(written == static_cast<ssize_t>(sizeof(values)) ? 0 : 1);
    }
    ::close(fds[1]);
    uint32_t theirs[4];
    ssize_t const got = ::read(fds[0], theirs, sizeof(theirs));
    ::close(fds[0]);
    int status = 0;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    ASSERT_EQ(static_cast<ssize_t>(sizeof(theirs)), got);
    uint32_t ours[4];
    for (uint32_t& value : ours) {
        value = Tarnwick::Random();
    }
    EXPECT_NE(0, std::memcmp(ours, theirs, sizeof(ours)));
}

}  // namespace
