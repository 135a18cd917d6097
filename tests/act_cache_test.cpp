#include <tarnwick/act_cache.h>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

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
