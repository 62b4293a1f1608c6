#include "CanHandler.h"
#include "CanTestSupport.h"
#include "TestSupport.h"
#include "VtoIpDecoder.h"

#include <gtest/gtest.h>

namespace {

std::unique_ptr<DecodedFrame> decode(CanDecoder& decoder, const can_frame& frame) {
    return std::unique_ptr<DecodedFrame>(decoder.decode(frame));
}

const std::string vin = "WMA06XZZ1KP012345*";

} // namespace

TEST(VtoIpDecoder, TakesTransportFramesWithoutSharing) {
    VtoIpDecoder decoder(testData("vehicle_mapping.json"));
    for (uint32_t id : {0x1CECFF00u, 0x1CEBFF00u}) {
        EXPECT_TRUE(decoder.accepts(canFrame(id)));
        EXPECT_FALSE(decoder.acceptsShared(canFrame(id)));
    }
    EXPECT_TRUE(decoder.accepts(canFrame(0x18FEF100)));
    EXPECT_TRUE(decoder.accepts(canFrame(0x18FEF200)));
    EXPECT_FALSE(decoder.accepts(canFrame(0x18FEEE00)));
    EXPECT_FALSE(decoder.acceptsShared(canFrame(0x18FEF100)));
}

TEST(VtoIpDecoder, BamYieldsOneFrameOnTheCompletingPacket) {
    VtoIpDecoder decoder(testData("vehicle_mapping.json"));
    EXPECT_FALSE(decode(decoder, bamAnnounce(65260, 18, 3)));
    EXPECT_FALSE(decode(decoder, bamPacket(1, vin.substr(0, 7))));
    EXPECT_FALSE(decode(decoder, bamPacket(2, vin.substr(7, 7))));
    const can_frame last = bamPacket(3, vin.substr(14));
    auto frame = decode(decoder, last);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->getPgn(), 65260);
    // The packet's own 8 bytes, sequence number included; never the reassembled payload.
    ASSERT_EQ(frame->getDataLength(), 8u);
    EXPECT_EQ(memcmp(frame->getData(), last.data, 8), 0);
    ASSERT_EQ(frame->spns().size(), 2u);
    EXPECT_EQ(text(*frame, 0).getValue(), "WMA06XZZ1KP012345");
    // Numeric rules read the packet too: byte 0 is its sequence number.
    EXPECT_EQ(numeric(*frame, 1).getValue(), 3);
}

TEST(VtoIpDecoder, CompletedMessageWithoutEntryHasPgnZero) {
    VtoIpDecoder decoder(testData("vehicle_mapping.json"));
    EXPECT_FALSE(decode(decoder, bamAnnounce(0xFECA, 10, 2)));
    EXPECT_FALSE(decode(decoder, bamPacket(1, "1234567")));
    auto frame = decode(decoder, bamPacket(2, "89ABCDE"));
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->getPgn(), 0);
    EXPECT_TRUE(frame->spns().empty());
    EXPECT_EQ(frame->getData()[0], 2);
    EXPECT_EQ(frame->getData()[1], '8');
}

TEST(VtoIpDecoder, ByteAlignedNumericAndBitLevelStatus) {
    VtoIpDecoder decoder(testData("vehicle_mapping.json"));
    auto frame = decode(decoder, canFrame(0x18FEF100, {0x00, 0x20, 0x00, 0x19}));
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->getPgn(), 65265);
    ASSERT_EQ(frame->spns().size(), 3u); // "spns" of the entry is not read
    // Bytes 2-3 whatever bitOffset and bitSize say: 0x1900 / 256.
    EXPECT_EQ(numeric(*frame, 0).getValue(), 25.0);
    EXPECT_EQ(numeric(*frame, 0).getUnit(), "km/h");
    // byteSize 0 reads nothing, bitSize notwithstanding.
    EXPECT_EQ(numeric(*frame, 1).getValue(), 3);
    // Bits 12-13 of 0x20 in byte 1.
    EXPECT_EQ(status(*frame, 2).getValue(), 2u);
    EXPECT_EQ(status(*frame, 2).getDescription(), "c");
}

TEST(VtoIpDecoder, EntryWithOnlySpnsKeyDecodesNoSignal) {
    VtoIpDecoder decoder(testData("vehicle_mapping.json"));
    auto frame = decode(decoder, canFrame(0x18FEF200, {0x10, 0x27}));
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->getPgn(), 65266);
    EXPECT_EQ(frame->getData()[1], 0x27);
    EXPECT_TRUE(frame->spns().empty());
}

TEST(VtoIpDecoder, OnlyTheKeysItReadsAreChecked) {
    StderrCapture capture;
    VtoIpDecoder decoder(testData("wrong_types.json"));
    capture.restore();
    // The entries themselves; nothing about the "spns" rules or the unread bit keys.
    const std::string log = capture.text();
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 3) << log;
    EXPECT_EQ(log.find("rule"), std::string::npos) << log;
    auto frame = decode(decoder, canFrame(0x18FEF100, {0x00, 0x64}));
    ASSERT_EQ(frame->spns().size(), 1u);
    EXPECT_EQ(numeric(*frame, 0).getValue(), 100);
}

TEST(VtoIpDecoder, SecondDecoderOfAHookNeverSeesTheCompletingPacket) {
    VtoIpDecoder first(testData("vehicle_mapping.json"));
    VtoIpDecoder second(testData("vehicle_second.json"));
    RecordingHook hook;
    CanHandler handler("vcan-vtoip");
    handler.addDecoder(&hook, &first);
    handler.addDecoder(&hook, &second);
    handler.dispatch(bamAnnounce(65260, 18, 3), 1);
    handler.dispatch(bamPacket(1, vin.substr(0, 7)), 2);
    handler.dispatch(bamPacket(2, vin.substr(7, 7)), 3);
    EXPECT_EQ(hook.count(), 0u);
    handler.dispatch(bamPacket(3, vin.substr(14)), 4);
    ASSERT_EQ(hook.count(), 1u);
    const DecodedFrame frame = hook.frame(0);
    EXPECT_EQ(frame.getTimestamp(), 4u);
    EXPECT_EQ(frame.spns().at(0)->getName(), "VIN");
    // The second decoder counted two packets: only now, asked directly, does it complete.
    auto own = decode(second, bamPacket(3, vin.substr(14)));
    ASSERT_TRUE(own);
    EXPECT_EQ(text(*own, 0).getValue(), "WMA06XZZ1KP012345");
    EXPECT_EQ(own->spns().at(0)->getName(), "Second file text");
}
