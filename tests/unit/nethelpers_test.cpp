#include "NetHelpers.h"
#include "TestSupport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include <gtest/gtest.h>

TEST(BitHelpers, StoreAndLoadAreLittleEndian) {
    uint8_t bytes[8];
    storeU64(0x0807060504030201ULL, bytes);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(bytes[i], i + 1);
    EXPECT_EQ(loadU64(bytes), 0x0807060504030201ULL);
    const uint8_t high[8] = {0, 0, 0, 0, 0, 0, 0, 0x80};
    EXPECT_EQ(loadU64(high), 0x8000000000000000ULL);
}

TEST(BitHelpers, FieldValue) {
    const uint8_t payload[8] = {0x11, 0x22, 0x5A, 0x1F, 0, 0, 0, 0xFF};
    const uint64_t raw = loadU64(payload);
    EXPECT_DOUBLE_EQ(bitFieldValue(raw, 8, 8, 1, 0), 0x22);
    // Across a byte boundary: bits 4..11 are 0x21.
    EXPECT_DOUBLE_EQ(bitFieldValue(raw, 4, 8, 1, 0), 0x21);
    EXPECT_DOUBLE_EQ(bitFieldValue(raw, 16, 16, 0.00390625, 0), 31.3515625);
    EXPECT_DOUBLE_EQ(bitFieldValue(raw, 56, 8, 0.5, -40), 87.5);
    EXPECT_DOUBLE_EQ(bitFieldValue(~0ULL, 0, 64, 1, 0), 18446744073709551615.0);
    EXPECT_DOUBLE_EQ(bitFieldValue(raw, 0, 64, 2, 1), static_cast<double>(raw) * 2 + 1);
    EXPECT_DOUBLE_EQ(bitFieldValue(raw, 3, 0, 5, 7), 7);
    // Outside the 64 bits the field reads as 0.
    EXPECT_DOUBLE_EQ(bitFieldValue(raw, 56, 16, 1, 3), 3);
    EXPECT_DOUBLE_EQ(bitFieldValue(raw, 64, 1, 1, 3), 3);
    EXPECT_DOUBLE_EQ(bitFieldValue(raw, 0xFFFFFFFFu, 2, 1, 3), 3);
}

TEST(BitHelpers, Hex) {
    const uint8_t bytes[3] = {0x00, 0xAB, 0x0F};
    EXPECT_EQ(toHex(bytes, 3), "00AB0F");
    EXPECT_EQ(toHex(bytes, 0), "");
    EXPECT_EQ(toHex(bytes, -1), "");
}

TEST(InterfaceAddress, LoopbackAndUnknown) {
    EXPECT_EQ(interfaceAddress("lo"), "127.0.0.1");
    EXPECT_EQ(interfaceAddress("no-such-if0"), "0.0.0.0");
    EXPECT_EQ(interfaceAddress(""), "0.0.0.0");
    EXPECT_EQ(interfaceAddress(std::string(40, 'x')), "0.0.0.0");
}

TEST(OpenMulticastSocket, FillsDestination) {
    SKIP_WITHOUT_MULTICAST_IF();
    VerbosityScope v(2);
    StderrCapture capture;
    struct sockaddr_in destination;
    int fd = openMulticastSocket("239.1.2.3", 50000, "lo", destination);
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(destination.sin_family, AF_INET);
    EXPECT_EQ(ntohs(destination.sin_port), 50000);
    EXPECT_EQ(destination.sin_addr.s_addr, inet_addr("239.1.2.3"));
    EXPECT_EQ(capture.text(), "NOTE: ifaddr: 127.0.0.1\n");
}
