#include "Service.h"

#include <gtest/gtest.h>

// What a bad port does to the service is in the process frame's system test.
TEST(ParsePort, AcceptsOnlyDecimalPortNumbers) {
    // -1: refused, the port left as it was.
    const std::pair<const char*, int> cases[] = {
        {"0", 0},      {"00080", 80}, {"65535", 65535}, {"", -1},
        {"65536", -1}, {"-1", -1},    {"+80", -1},      {"12x", -1},
        {"0x50", -1},  {"1 2", -1},   {"100000", -1},   {"999999999999999999999", -1}};
    for (const auto& c : cases) {
        uint16_t port = 7;
        EXPECT_EQ(parsePort(c.first, port), c.second >= 0) << c.first;
        EXPECT_EQ(port, c.second >= 0 ? c.second : 7) << c.first;
    }
}
