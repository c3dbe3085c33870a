#include <gtest/gtest.h>

int main(int count, char **arguments) {
    testing::InitGoogleTest(&count, arguments);
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // a death test is a process of its own, from its start
    return RUN_ALL_TESTS();
}
