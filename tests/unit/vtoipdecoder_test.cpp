#include "CanTestSupport.h"
#include "TestSupport.h"
#include "VtoIpDecoder.h"

#include <gtest/gtest.h>

// The "data" key only, numeric rules on whole bytes.
TEST(VtoIpDecoder, ByteAlignedNumericAndBitLevelStatus) {
    VtoIpDecoder decoder(testData("vehicle_mapping.json"));
    EXPECT_FALSE(decoder.accepts(canFrame(0x18FEEE00)));
    EXPECT_FALSE(decoder.acceptsShared(canFrame(0x18FEF100)));
    auto frame = decode(decoder, canFrame(0x18FEF100, {0x00, 0x20, 0x00, 0x19}));
    ASSERT_EQ(frame->spns().size(), 3u);
    // Bytes 2-3 whatever bitOffset and bitSize say: 0x1900 / 256.
    EXPECT_EQ(numeric(*frame, 0).getValue(), 25.0);
    EXPECT_EQ(numeric(*frame, 1).getValue(), 3);        // byteSize 0 reads nothing
    EXPECT_EQ(status(*frame, 2).getDescription(), "c"); // bits 12-13 of 0x20 in byte 1
    auto onlySpns = decode(decoder, canFrame(0x18FEF200, {0x10, 0x27}));
    EXPECT_EQ(onlySpns->getPgn(), 65266);
    EXPECT_TRUE(onlySpns->spns().empty());
}

// Transport frames are taken, not shared; only the completing TP.DT yields a frame, with its
// own 8 bytes, and with PGN 0 when the mapping has no entry for the message.
TEST(VtoIpDecoder, BamYieldsOneFrameOnTheCompletingPacket) {
    VtoIpDecoder decoder(testData("vehicle_mapping.json"));
    const std::string vin = "WMA06XZZ1KP012345*";
    for (uint32_t id : {0x1CECFF00u, 0x1CEBFF00u})
        EXPECT_TRUE(decoder.accepts(canFrame(id)) && !decoder.acceptsShared(canFrame(id)));
    EXPECT_FALSE(decode(decoder, bamAnnounce(65260, 18, 3)));
    EXPECT_FALSE(decode(decoder, bamPacket(1, vin.substr(0, 7))));
    EXPECT_FALSE(decode(decoder, bamPacket(2, vin.substr(7, 7))));
    const can_frame last = bamPacket(3, vin.substr(14));
    auto frame = decode(decoder, last);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->getPgn(), 65260);
    ASSERT_EQ(frame->getDataLength(), 8u);
    EXPECT_EQ(memcmp(frame->getData(), last.data, 8), 0);
    EXPECT_EQ(text(*frame, 0).getValue(), "WMA06XZZ1KP012345");
    EXPECT_EQ(numeric(*frame, 1).getValue(), 3); // byte 0 of the packet: its sequence number

    EXPECT_FALSE(decode(decoder, bamAnnounce(0xFECA, 10, 2)));
    EXPECT_FALSE(decode(decoder, bamPacket(1, "1234567")));
    frame = decode(decoder, bamPacket(2, "89ABCDE"));
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->getPgn(), 0);
    EXPECT_EQ(frame->getData()[1], '8');
}
