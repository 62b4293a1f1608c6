#include "DateTime.h"

#include <gtest/gtest.h>

TEST(DateTime, FormatsAndShortYears) {
    DateTime dt;
    dt.year = 2024;
    dt.month = 3;
    dt.day = 5;
    dt.hour = 7;
    dt.minute = 8;
    dt.second = 9;
    EXPECT_EQ(formatDateTime(dt), "2024-03-05T07:08:09");
    EXPECT_EQ(formatDate(dt), "2024-03-05");
    EXPECT_EQ(formatTime(dt), "07:08:09");
    // The date and time stamp pads a short year with a space, the date alone with a zero.
    dt.year = 999;
    EXPECT_EQ(formatDateTime(dt), " 999-03-05T07:08:09");
    EXPECT_EQ(formatDate(dt), "0999-03-05");
}
