#include "MulticastSender.h"
#include "NetHelpers.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>

TEST(NetHelpers, HexBitFieldsAndAnUnknownInterface) {
    const uint8_t bytes[] = {0x00, 0xAB, 0x0F};
    EXPECT_EQ(toHex(bytes, 3), "00AB0F");
    const uint64_t raw = 0x8877665544332211u;
    // Width 0 reads nothing, wherever it is; width 64 the whole value, as a double.
    EXPECT_EQ(bitFieldValue(raw, 0, 0, 2.0, -1.0), -1.0);
    EXPECT_EQ(bitFieldValue(raw, 64, 0, 2.0, 0.5), 0.5);
    EXPECT_EQ(bitFieldValue(raw, 0, 64, 1.0, 0.0), static_cast<double>(0x8877665544332211u));
    // The any address: a fit outgoing interface for multicast, and a readable "ifaddr: " line.
    EXPECT_EQ(interfaceAddress("tavro-none0"), "0.0.0.0");
}

// What a datagram too large to send logs; on a vehicle a vanished interface fails the same way.
const std::string failed = "WARN: Multicast could not be sent! (port = 45871interface = lo ) "
                           "errno: " +
                           std::string(strerror(EMSGSIZE)) + "(" + std::to_string(EMSGSIZE) + ")";
const std::string reopened = "INFO: Reopening socket!\nNOTE: ifaddr: 127.0.0.1\n";

// With TTL 0 nothing leaves the kernel. A send that fails each time logs its three lines once
// per window, then how often; the report counts sends by context in byte order, idle ones too.
TEST(MulticastSender, FailuresInAFloodAreSummarisedAndReportedOnceAMinute) {
    VerbosityScope scope(3);
    time_t clock = 1000; // 00:16:40 UTC
    MulticastSender sender("239.255.42.1", "45871", "lo", 0, [&clock] { return clock; });
    StderrCapture capture;
    {
        RepeatWindowScope window(std::chrono::hours(1));
        for (int i = 0; i < 500; ++i)
            EXPECT_FALSE(sender.send(std::string(70000, 'x'), "lost"));
    }
    sender.send("1", "FEF1");
    sender.send("2", "F004");
    sender.send("3", "\xc3\xa9t\xc3\xa9"); // bytes above 0x7F sort last, char signed or not
    sender.send("4");
    clock = 1059;
    sender.send("5", "FEF1");
    // The datagram that ends the period is counted in it; the next period starts then.
    clock = 1060;
    sender.send("6", "FEF1");
    clock = 1200;
    sender.send("7", "F004");
    EXPECT_EQ(capture.text(), failed + "\n" + reopened +
                                  "WARN: Repeated 499 times in 3600 s: " + failed.substr(6) +
                                  "\nINFO: Repeated 499 times in 3600 s: Reopening socket!\n"
                                  "NOTE: Repeated 499 times in 3600 s: ifaddr: 127.0.0.1\n"
                                  "INFO: multicast-stat for port 45871 since 00:16:40\n"
                                  "INFO: F004 = 1\n"
                                  "INFO: FEF1 = 3\n"
                                  "INFO: no-context = 1\n"
                                  "INFO: \xc3\xa9t\xc3\xa9 = 1\n"
                                  "INFO: multicast-stat for port 45871 since 00:17:40\n"
                                  "INFO: F004 = 1\n"
                                  "INFO: FEF1 = 0\n"
                                  "INFO: no-context = 0\n"
                                  "INFO: \xc3\xa9t\xc3\xa9 = 0\n");
}
