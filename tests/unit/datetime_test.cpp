#include "DateTime.h"

#include <gtest/gtest.h>

#include <ctime>

TEST(DateTime, Formats) {
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
}

TEST(DateTime, ShortYearsPadDifferently) {
    DateTime dt;
    dt.year = 999;
    dt.month = 12;
    dt.day = 31;
    EXPECT_EQ(formatDateTime(dt), " 999-12-31T00:00:00");
    EXPECT_EQ(formatDate(dt), "0999-12-31");
}

TEST(DateTime, OutOfRangeFieldsAreCutAtTwentyCharacters) {
    DateTime dt;
    dt.year = 123456;
    dt.month = 1;
    dt.day = 1;
    dt.hour = 1000;
    EXPECT_EQ(formatDateTime(dt), "123456-01-01T1000:00");
    EXPECT_EQ(formatDateTime(dt).size(), 20u);
    dt.hour = -2147483647;
    dt.minute = -2147483647;
    dt.second = -2147483647;
    EXPECT_EQ(formatTime(dt).size(), 20u);
}

TEST(DateTime, NowIsUtc) {
    time_t before = time(nullptr);
    DateTime dt = now();
    time_t after = time(nullptr);
    struct tm tm {};
    tm.tm_year = dt.year - 1900;
    tm.tm_mon = dt.month - 1;
    tm.tm_mday = dt.day;
    tm.tm_hour = dt.hour;
    tm.tm_min = dt.minute;
    tm.tm_sec = dt.second;
    time_t back = timegm(&tm);
    EXPECT_GE(back, before);
    EXPECT_LE(back, after);
}
