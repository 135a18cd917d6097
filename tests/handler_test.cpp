#include <tarnwick/handler.h>

#include <gtest/gtest.h>

TEST(Handler, DataBlockSizeIs131072AtLoad) {
    EXPECT_EQ(Tarnwick::Handler::Data_Block_Size, 131072u);
}
