#include <tarnwick/act_cache.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"

using Tarnwick::ACT_List;

TEST(ACTList, ATokenArrivingTwiceStandsOnce) {
    ACT_List list;
    EXPECT_EQ(list.add(17), 0);
    EXPECT_EQ(list.add(17), 0);
    EXPECT_EQ(list.size(), 1u);
    EXPECT_TRUE(list.contains(17));
}

TEST(ACTList, RemovingAnAbsentTokenSucceeds) {
    ACT_List list;
    EXPECT_EQ(list.remove(5), 0);
    list.add(5);
    list.add(6);
    EXPECT_EQ(list.remove(5), 0);
    EXPECT_FALSE(list.contains(5));
    EXPECT_TRUE(list.contains(6));
    EXPECT_EQ(list.remove(5), 0);
    EXPECT_EQ(list.size(), 1u);
}

TEST(ACTList, ConcurrentAddAndRemove) {
    ACT_List list;
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 4; ++t) {
        threads.emplace_back([&list, t] {
            for (uint32_t i = 1; i <= 500; ++i) {
                uint32_t token = t * 1000 + i;
                list.add(token);
                if (i % 2 == 0)
                    list.remove(token);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(list.size(), 1000u);
    EXPECT_TRUE(list.contains(1));
    EXPECT_FALSE(list.contains(2));
}

TEST(ACTList, TokenZeroIsNeverStored) {
    ACT_List list;
    EXPECT_EQ(list.add(0), 0);
    EXPECT_FALSE(list.contains(0));
    EXPECT_EQ(list.size(), 0u);
    EXPECT_EQ(list.remove(0), 0);
}

TEST(ACTList, ListsAreBornWithTheDefaultCapacity) {
    ACT_List list;
    EXPECT_EQ(ACT_List::Default_Capacity, 65536u);
    EXPECT_EQ(list.capacity(), ACT_List::Default_Capacity);
    EXPECT_EQ(ACT_List::newListCapacity(), ACT_List::Default_Capacity);
}

TEST(ACTList, AFullListForgetsItsOldestToken) {
    ACT_List list;
    list.setCapacity(3);
    for (uint32_t token = 1; token <= 3; ++token)
        EXPECT_EQ(list.add(token), 0);
    EXPECT_EQ(list.add(2), 0);  // already there: keeps its place
    EXPECT_EQ(list.size(), 3u);
    EXPECT_EQ(list.add(4), 0);
    EXPECT_FALSE(list.contains(1));
    EXPECT_TRUE(list.contains(2));
    EXPECT_EQ(list.add(5), 0);
    EXPECT_FALSE(list.contains(2));
    EXPECT_TRUE(list.contains(3));
    EXPECT_TRUE(list.contains(4));
    EXPECT_TRUE(list.contains(5));
    EXPECT_EQ(list.size(), 3u);
}

TEST(ACTList, RemovalFromTheMiddleKeepsTheOrder) {
    ACT_List list;
    list.setCapacity(3);
    list.add(1);
    list.add(2);
    list.add(3);
    EXPECT_EQ(list.remove(2), 0);
    EXPECT_EQ(list.add(4), 0);  // room again: nothing goes
    EXPECT_TRUE(list.contains(1));
    EXPECT_EQ(list.add(5), 0);  // 1 is the oldest
    EXPECT_FALSE(list.contains(1));
    EXPECT_TRUE(list.contains(3));
    EXPECT_EQ(list.remove(3), 0);
    EXPECT_EQ(list.remove(5), 0);
    EXPECT_EQ(list.add(6), 0);
    EXPECT_EQ(list.add(7), 0);
    EXPECT_EQ(list.add(8), 0);  // 4, the oldest left, goes
    EXPECT_FALSE(list.contains(4));
    EXPECT_EQ(list.size(), 3u);
    EXPECT_EQ(list.remove(6), 0);
    EXPECT_EQ(list.remove(7), 0);
    EXPECT_EQ(list.remove(8), 0);
    EXPECT_EQ(list.size(), 0u);
    EXPECT_EQ(list.add(9), 0);
    EXPECT_TRUE(list.contains(9));
}

TEST(ACTList, ASmallerCapacityEvictsAtOnce) {
    ACT_List list;
    for (uint32_t token = 1; token <= 10; ++token)
        list.add(token);
    TarnwickTest::LogCapture capture;
    list.setCapacity(4);
    EXPECT_EQ(list.size(), 4u);
    EXPECT_FALSE(list.contains(6));
    EXPECT_TRUE(list.contains(7));
    EXPECT_TRUE(list.contains(10));
    list.setCapacity(0);
    EXPECT_EQ(list.capacity(), 1u);
    EXPECT_TRUE(list.contains(10));
    EXPECT_EQ(list.size(), 1u);
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{"%D WARN  (%t): More than 4 open tokens on one connection: "
                                       "the oldest are forgotten"});
}

TEST(ACTList, NewListsTakeTheCapacitySetForThem) {
    ACT_List before;
    ACT_List::setNewListCapacity(5);
    ACT_List after;
    ACT_List::setNewListCapacity(0);
    ACT_List tiny;
    ACT_List::setNewListCapacity(ACT_List::Default_Capacity);
    EXPECT_EQ(before.capacity(), ACT_List::Default_Capacity);
    EXPECT_EQ(after.capacity(), 5u);
    EXPECT_EQ(tiny.capacity(), 1u);
    EXPECT_EQ(ACT_List::newListCapacity(), ACT_List::Default_Capacity);
}

// A peer that never waits for replies: 200,000 distinct tokens stay within
// the bound, the newest are found, the oldest are gone, and one warning is
// logged for the whole run.
TEST(ACTList, TwoHundredThousandTokensStayBounded) {
    ACT_List list;
    uint32_t const count = 200000;
    uint32_t const capacity = static_cast<uint32_t>(ACT_List::Default_Capacity);
    TarnwickTest::LogCapture capture;
    for (uint32_t i = 1; i <= count; ++i) {
        // Spread out, as random tokens are.
        ASSERT_EQ(list.add(i * 2654435761u), 0);
    }
    EXPECT_EQ(list.size(), ACT_List::Default_Capacity);
    for (uint32_t i = count - capacity + 1; i <= count; ++i)
        ASSERT_TRUE(list.contains(i * 2654435761u)) << i;
    for (uint32_t i = 1; i <= count - capacity; ++i)
        ASSERT_FALSE(list.contains(i * 2654435761u)) << i;
    for (uint32_t i = count - capacity + 1; i <= count; i += 2)
        ASSERT_EQ(list.remove(i * 2654435761u), 0);
    EXPECT_EQ(list.size(), ACT_List::Default_Capacity / 2);
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{"%D WARN  (%t): More than 65536 open tokens on one "
                                       "connection: the oldest are forgotten"});
}

// Tokens that all share their low bits, as a peer might choose them to pile
// up in one bucket of a plain hash: still quick.
TEST(ACTList, TokensSharingTheirLowBitsAreQuickToo) {
    ACT_List list;
    for (uint32_t i = 1; i < 65536; ++i)
        ASSERT_EQ(list.add(i << 16), 0);
    for (uint32_t i = 1; i < 65536; ++i)
        ASSERT_TRUE(list.contains(i << 16));
    for (uint32_t i = 1; i < 65536; ++i)
        ASSERT_EQ(list.remove(i << 16), 0);
    EXPECT_EQ(list.size(), 0u);
}

TEST(ACTList, ConcurrentAddsBeyondTheCapacity) {
    ACT_List list;
    list.setCapacity(1000);
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 4; ++t) {
        threads.emplace_back([&list, t] {
            for (uint32_t i = 1; i <= 5000; ++i) {
                uint32_t const token = t * 100000 + i;
                list.add(token);
                list.contains(token);
                if (i % 3 == 0)
                    list.remove(token - 1);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_LE(list.size(), 1000u);
}
