#include "BasicCanDecoder.h"
#include "CanTestSupport.h"
#include "JsonCanDecoder.h"
#include "TestSupport.h"
#include "TransportAssembler.h"

#include <gtest/gtest.h>

#include <fstream>

namespace {

std::unique_ptr<DecodedFrame> decode(CanDecoder& decoder, const can_frame& frame) {
    return std::unique_ptr<DecodedFrame>(decoder.decode(frame));
}

std::vector<std::string> logLines(StderrCapture& capture) {
    std::vector<std::string> lines;
    std::istringstream in(capture.text());
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

} // namespace

TEST(Identifier, PgnAndPduFormat) {
    EXPECT_EQ(pgnOf(0x18FEF100), 0xFEF1);
    EXPECT_EQ(pduFormat(0x18FEF100), 0xFE);
    EXPECT_EQ(pgnOf(0x0CEA00FE), 0xEA00);
    EXPECT_EQ(pduFormat(0x0CEA00FE), 0xEA);
    // Flags, data page and priority take no part.
    EXPECT_EQ(pgnOf(0x18FEF100 | CAN_EFF_FLAG | CAN_RTR_FLAG | 0x03000000), 0xFEF1);
}

TEST(JsonCanDecoder, DestinationStaysPartOfPdu1Pgn) {
    JsonCanDecoder decoder(testData("fms_mapping.json"));
    // Request (PF 0xEA) to 0x17 from 0xF9: the file names 0xEA17 only.
    const can_frame request = canFrame(0x18EA17F9, {0xF1, 0xFE, 0x00});
    EXPECT_TRUE(decoder.accepts(request));
    EXPECT_FALSE(decoder.acceptsShared(request));
    EXPECT_FALSE(decoder.accepts(canFrame(0x18EA00F9, {0xF1, 0xFE, 0x00})));
    auto frame = decode(decoder, request);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->getPgn(), 0xEA17);
    ASSERT_EQ(frame->spns().size(), 1u);
    EXPECT_EQ(numeric(*frame, 0).getValue(), 0xFEF1);
}

TEST(JsonCanDecoder, FieldsOfASingleFrame) {
    JsonCanDecoder decoder(testData("fms_mapping.json"));
    const can_frame ccvs = canFrame(0x18FEF100, {0x08, 0x00, 0x32, 0x10, 0xFF, 0xFF, 0x1F, 0xAB});
    ASSERT_TRUE(decoder.accepts(ccvs));
    auto frame = decode(decoder, ccvs);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->getPgn(), 0xFEF1);
    EXPECT_EQ(frame->getDataLength(), 8u);
    EXPECT_EQ(frame->getData()[7], 0xAB);
    ASSERT_EQ(frame->spns().size(), 6u); // the unknown kind is skipped

    EXPECT_EQ(status(*frame, 0).getValue(), 2u);
    EXPECT_EQ(status(*frame, 0).getDescription(), "error");
    EXPECT_EQ(status(*frame, 0).getName(), "Parking brake");
    EXPECT_EQ(status(*frame, 0).getNumber(), 70);
    EXPECT_EQ(numeric(*frame, 1).getValue(), 50.0);
    EXPECT_EQ(numeric(*frame, 1).getUnit(), " km/h");
    // Bits 12-23: high nibble of byte 1 and all of byte 2.
    EXPECT_EQ(numeric(*frame, 2).getValue(), 0x320);
    // Beyond bit 63 the field reads 0.
    EXPECT_EQ(numeric(*frame, 3).getValue(), -5);
    // Without a gain every frame yields the offset.
    EXPECT_EQ(numeric(*frame, 4).getValue(), 7);
    // 40 bits above 2^32 saturate; no description for such a value.
    EXPECT_EQ(status(*frame, 5).getValue(), 4294967295u);
    EXPECT_EQ(status(*frame, 5).getDescription(), "");
    EXPECT_EQ(status(*frame, 5).getNumber(), 70005 & 0xFFFF);

    // A value past the descriptions gives empty text, and the next frame is unaffected.
    auto beyond = decode(decoder, canFrame(0x18FEF100, {0x00}));
    EXPECT_EQ(status(*beyond, 0).getValue(), 0u);
    EXPECT_EQ(status(*beyond, 0).getDescription(), "not set");
    EXPECT_EQ(status(*beyond, 5).getValue(), 0xFFFFFFFFu);
}

TEST(JsonCanDecoder, WorkedExample) {
    TempDir dir;
    const std::string path =
        dir.write("m.json", R"([{"pgn": 61444, "spns": [{"type": 0, "number": 190, "name": "x",
                  "offset": 2, "bitOffset": 0, "byteSize": 2, "formatGain": 0.00390625,
                  "formatOffset": 0}]}])");
    JsonCanDecoder decoder(path);
    auto frame = decode(decoder, canFrame(0x0CF00400, {0, 0, 0x5A, 0x1F, 0, 0, 0, 0}));
    EXPECT_EQ(numeric(*frame, 0).getValue(), 31.3515625);
}

TEST(JsonCanDecoder, OnlyListedPgnsAndTransportFrames) {
    JsonCanDecoder decoder(testData("fms_mapping.json"));
    const can_frame unknown = canFrame(0x18FEDA00);
    EXPECT_FALSE(decoder.accepts(unknown));
    EXPECT_FALSE(decoder.acceptsShared(unknown));
    // 70000 has the low bits 0x1170 but never matches.
    EXPECT_FALSE(decoder.accepts(canFrame(0x18117000)));
    for (uint32_t id : {0x1CECFF00u, 0x1CEBFF00u, 0x18EC1700u}) {
        EXPECT_TRUE(decoder.acceptsShared(canFrame(id)));
        EXPECT_FALSE(decoder.accepts(canFrame(id)));
    }
}

TEST(JsonCanDecoder, StringFieldsAreSplitAtStars) {
    JsonCanDecoder decoder(testData("fms_mapping.json"));
    auto two = decode(decoder, canFrame(0x18FE6B00, {'A', 'B', 'C', '*', 'D', 'E', 'F', '*'}));
    ASSERT_TRUE(two);
    ASSERT_EQ(two->spns().size(), 2u);
    EXPECT_EQ(text(*two, 0).getValue(), "ABC");
    EXPECT_EQ(text(*two, 1).getValue(), "DEF");
    EXPECT_EQ(text(*two, 1).getNumber(), 1626);

    // Empty fields between stars count; the zero bytes of the payload are text too.
    auto empty = decode(decoder, canFrame(0x18FE6B00, {'*', '*', 'X', 0, 0, 0, 0, 0}));
    EXPECT_EQ(text(*empty, 0).getValue(), "");
    EXPECT_EQ(text(*empty, 1).getValue(), "");

    // Two entries of one PGN: the second takes the next field.
    auto entries = decode(decoder, canFrame(0x18FF0000, {'o', 'n', 'e', '*', 't', 'w', 'o', '*'}));
    ASSERT_EQ(entries->spns().size(), 2u);
    EXPECT_EQ(text(*entries, 0).getValue(), "one");
    EXPECT_EQ(text(*entries, 0).getName(), "First entry");
    EXPECT_EQ(text(*entries, 1).getValue(), "two");
}

TEST(JsonCanDecoder, TooFewStringFieldsYieldNoFrame) {
    JsonCanDecoder decoder(testData("fms_mapping.json"));
    StderrCapture capture;
    auto frame = decode(decoder, canFrame(0x18FE6C00, {'A', 'B', 'C', '*', 'D', 'E', 'F', '*'}));
    capture.restore();
    EXPECT_FALSE(frame);
    const std::vector<std::string> lines = logLines(capture);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "WARN: There are more strings defined in spn: 3 than there are in the "
                        "actual message.");
    EXPECT_EQ(lines[1], "WARN: ABC*DEF*");

    VerbosityScope quiet(0);
    StderrCapture silent;
    EXPECT_FALSE(decode(decoder, canFrame(0x18FE6C00, {'*'})));
    EXPECT_EQ(silent.text(), "");
}

TEST(JsonCanDecoder, BamOfThreePackets) {
    JsonCanDecoder decoder(testData("fms_mapping.json"));
    const std::string vin = "WDB9634031L123456*";
    auto announce = decode(decoder, bamAnnounce(0xFEEC, 21, 3));
    ASSERT_TRUE(announce);
    EXPECT_EQ(announce->getPgn(), 0xECFF);
    EXPECT_EQ(announce->getDataLength(), 8u);
    EXPECT_TRUE(announce->spns().empty());
    for (uint8_t seq = 1; seq <= 2; ++seq) {
        auto packet = decode(decoder, bamPacket(seq, vin.substr(7 * (seq - 1), 7)));
        ASSERT_TRUE(packet);
        EXPECT_EQ(packet->getPgn(), 0xEBFF);
        EXPECT_EQ(packet->getDataLength(), 8u);
        EXPECT_EQ(packet->getData()[0], seq);
    }
    auto message = decode(decoder, bamPacket(3, vin.substr(14)));
    ASSERT_TRUE(message);
    EXPECT_EQ(message->getPgn(), 0xFEEC);
    ASSERT_EQ(message->getDataLength(), 21u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(message->getData()), 18), vin);
    EXPECT_EQ(message->getData()[20], 0xFF);
    ASSERT_EQ(message->spns().size(), 1u);
    EXPECT_EQ(text(*message, 0).getValue(), "WDB9634031L123456");

    // Without a new TP.CM, a further packet extends the message and completes it again.
    auto longer = decode(decoder, bamPacket(4, "ABCDEFG"));
    EXPECT_EQ(longer->getPgn(), 0xFEEC);
    EXPECT_EQ(longer->getDataLength(), 28u);
}

TEST(JsonCanDecoder, TransportTraces) {
    JsonCanDecoder decoder(testData("fms_mapping.json"));
    VerbosityScope verbose(6);
    StderrCapture capture;
    decode(decoder, bamAnnounce(0xFEEC, 14, 2));
    decode(decoder, bamPacket(1, "1234567"));
    decode(decoder, bamPacket(2, "1234567"));
    capture.restore();
    EXPECT_EQ(logLines(capture), (std::vector<std::string>{"DBG : start of long frame.",
                                                           "DBG : long frame. frame nr: 1 of 2",
                                                           "DBG : long frame. frame nr: 2 of 2",
                                                           "DBG : end of long frame."}));
    VerbosityScope lower(5);
    StderrCapture none;
    decode(decoder, bamAnnounce(0xFEEC, 14, 2));
    decode(decoder, bamPacket(1, "1234567"));
    EXPECT_EQ(none.text(), "");
}

TEST(JsonCanDecoder, SequenceNumbersAreNotExamined) {
    JsonCanDecoder decoder(testData("fms_mapping.json"));
    decode(decoder, bamAnnounce(0xFE6B, 21, 3));
    decode(decoder, bamPacket(1, "AAA*BBB"));
    decode(decoder, bamPacket(1, "*CCC*DD"));                // repeated
    auto message = decode(decoder, bamPacket(9, "D*EEEEE")); // skipped ahead
    ASSERT_TRUE(message);
    EXPECT_EQ(message->getPgn(), 0xFE6B);
    EXPECT_EQ(text(*message, 0).getValue(), "AAA");
    EXPECT_EQ(text(*message, 1).getValue(), "BBB");
}

TEST(JsonCanDecoder, TransportDataBeforeAnyAnnouncement) {
    JsonCanDecoder decoder(testData("fms_mapping.json"));
    auto message = decode(decoder, bamPacket(1, "ABCDEFG"));
    ASSERT_TRUE(message);
    EXPECT_EQ(message->getPgn(), 0);
    EXPECT_EQ(message->getDataLength(), 7u);
}

TEST(JsonCanDecoder, NumericRulesOfALongMessageReadItsFirstEightBytes) {
    JsonCanDecoder decoder(testData("fms_mapping.json"));
    decode(decoder, bamAnnounce(0xFECA, 14, 2));
    decode(decoder, bamPacket(1, "\x11\x22\x33\x44\x55\x66\x77"));
    auto message = decode(decoder, bamPacket(2, "\x88\x99\xAA\xBB\xCC\xDD\xEE"));
    ASSERT_TRUE(message);
    EXPECT_EQ(message->getPgn(), 0xFECA);
    ASSERT_EQ(message->spns().size(), 4u);
    EXPECT_EQ(numeric(*message, 0).getValue(), 0x2211);
    EXPECT_EQ(status(*message, 1).getValue(), 0x33u);
    EXPECT_EQ(numeric(*message, 2).getValue(), 0x88);
    // Byte 8 of the message lies beyond the word.
    EXPECT_EQ(numeric(*message, 3).getValue(), -1);
}

TEST(TransportAssembler, BufferStopsAtTheLargestMessage) {
    TransportAssembler assembler;
    const can_frame packet = bamPacket(1, "1234567");
    for (int i = 0; i < 300; ++i)
        EXPECT_TRUE(assembler.append(packet)); // nothing announced: every packet completes
    EXPECT_EQ(assembler.size(), TransportAssembler::maxBytes);
    assembler.begin(bamAnnounce(0x1234, 9, 2));
    EXPECT_EQ(assembler.size(), 0u);
    EXPECT_EQ(assembler.pgn(), 0x1234);
    EXPECT_FALSE(assembler.append(packet));
    EXPECT_EQ(assembler.firstWord(), 0x0037363534333231ULL);
}

TEST(JsonCanDecoder, UnusableFiles) {
    struct Case {
        std::string path;
        std::vector<std::string> prefixes;
    };
    TempDir dir;
    const std::vector<Case> cases = {
        {dir.file("missing.json"),
         {"ERR : File not found!", "ERR : File parsing failed!", "ERR : * Line 1, Column 1",
          "ERR : File is formatted incorrectly!"}},
        {dir.write("broken.json", "{\"pgn\": 65265,"),
         {"ERR : File parsing failed!", "ERR : * Line 1", "ERR : File is formatted incorrectly!"}},
        {testData("object_mapping.json"), {"ERR : File is formatted incorrectly!"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        VerbosityScope quiet(0); // level 0 is logged whatever the verbosity
        StderrCapture capture;
        JsonCanDecoder decoder(c.path);
        capture.restore();
        std::vector<std::string> lines = logLines(capture);
        // The parser's text may run over several lines; compare the lines we know.
        std::vector<std::string> errLines;
        for (const std::string& line : lines)
            if (line.rfind("ERR : ", 0) == 0)
                errLines.push_back(line);
        ASSERT_EQ(errLines.size(), c.prefixes.size());
        for (size_t i = 0; i < c.prefixes.size(); ++i)
            EXPECT_EQ(errLines[i].rfind(c.prefixes[i], 0), 0u) << errLines[i];
        EXPECT_FALSE(decoder.accepts(canFrame(0x18FEF100)));
        EXPECT_TRUE(decoder.acceptsShared(canFrame(0x1CECFF00)));
        auto frame = decode(decoder, canFrame(0x18FEF100, {1, 2}));
        ASSERT_TRUE(frame);
        EXPECT_EQ(frame->getPgn(), 0xFEF1);
        EXPECT_TRUE(frame->spns().empty());
    }
}

TEST(JsonCanDecoder, ValuesOfTheWrongTypeAreRefusedAtLoad) {
    StderrCapture capture;
    JsonCanDecoder decoder(testData("wrong_types.json"));
    capture.restore();
    const std::vector<std::string> lines = logLines(capture);
    ASSERT_EQ(lines.size(), 12u) << capture.text();
    const std::string file = testData("wrong_types.json");
    EXPECT_EQ(lines[0], "ERR : " + file +
                            ": PGN 65265: rule 1: \"offset\" has the wrong type, "
                            "rule skipped.");
    EXPECT_EQ(lines[7], "ERR : " + file + ": PGN 65265: rule 8 is not an object, skipped.");
    EXPECT_EQ(lines[8], "ERR : " + file + ": entry 1 is not an object, skipped.");
    EXPECT_EQ(lines[9],
              "ERR : " + file + ": entry 2: \"pgn\" is not an unsigned integer, skipped.");
    EXPECT_EQ(lines[10], "ERR : " + file +
                             ": PGN 65267: \"spns\" is not an array, its rules are "
                             "skipped.");
    EXPECT_EQ(lines[11],
              "ERR : " + file + ": entry 4: \"pgn\" is not an unsigned integer, skipped.");

    auto frame = decode(decoder, canFrame(0x18FEF100, {'A', 0x01}));
    ASSERT_TRUE(frame);
    ASSERT_EQ(frame->spns().size(), 3u);
    EXPECT_EQ(numeric(*frame, 0).getValue(), 'A');
    EXPECT_EQ(text(*frame, 1).getValue(), std::string("A\x01\xFF\xFF\xFF\xFF\xFF\xFF", 8));
    EXPECT_EQ(status(*frame, 2).getDescription(), "");
    // The entry with a bad rule list is still known; the one with a text PGN is not.
    EXPECT_TRUE(decoder.accepts(canFrame(0x18FEF300)));
    EXPECT_FALSE(decoder.accepts(canFrame(0x18FEF200)));
}

TEST(BasicCanDecoder, EveryFrameAsRawData) {
    BasicCanDecoder decoder;
    const can_frame frame = canFrame(0x0CF00400, {1, 2, 3, 4, 5, 6, 7, 8});
    EXPECT_TRUE(decoder.accepts(frame));
    EXPECT_FALSE(decoder.acceptsShared(frame));
    auto decoded = decode(decoder, frame);
    EXPECT_EQ(decoded->getPgn(), 0xF004);
    EXPECT_EQ(decoded->getDataLength(), 8u);
    EXPECT_EQ(decoded->getData()[7], 8);
    EXPECT_TRUE(decoded->spns().empty());
}

// The public J1939 mapping file; expected values from the J1939 parameter definitions.
class PublicMapping : public ::testing::Test {
protected:
    void SetUp() override {
        if (!std::ifstream(sharedMapping()).good())
            GTEST_SKIP() << "no " << sharedMapping();
        decoder.reset(new JsonCanDecoder(sharedMapping()));
    }
    std::unique_ptr<DecodedFrame> decodeAccepted(const can_frame& frame) {
        EXPECT_TRUE(decoder->accepts(frame));
        return decode(*decoder, frame);
    }
    std::unique_ptr<JsonCanDecoder> decoder;
};

TEST_F(PublicMapping, CruiseControlVehicleSpeed) {
    // Parking brake set (byte 1 bits 3-4 = 01), 50 km/h (12800 x 1/256), brake pedal
    // depressed (byte 4 bits 5-6 = 01), clutch released, PTO state 31 (not available).
    auto frame = decodeAccepted(canFrame(0x18FEF100, {0x04, 0x00, 0x32, 0x10, 0xFF, 0xFF, 0x1F}));
    ASSERT_EQ(frame->spns().size(), 5u);
    EXPECT_EQ(status(*frame, 0).getNumber(), 976);
    EXPECT_EQ(status(*frame, 0).getValue(), 31u);
    EXPECT_EQ(status(*frame, 0).getDescription(), ""); // six descriptions only
    EXPECT_EQ(numeric(*frame, 1).getNumber(), 84);
    EXPECT_DOUBLE_EQ(numeric(*frame, 1).getValue(), 50.0);
    EXPECT_EQ(numeric(*frame, 1).getUnit(), "km/h");
    EXPECT_EQ(status(*frame, 2).getNumber(), 597);
    EXPECT_EQ(status(*frame, 2).getValue(), 1u);
    EXPECT_EQ(status(*frame, 3).getNumber(), 598);
    EXPECT_EQ(status(*frame, 3).getValue(), 0u);
    EXPECT_EQ(status(*frame, 4).getNumber(), 70);
    EXPECT_EQ(status(*frame, 4).getValue(), 1u);
}

TEST_F(PublicMapping, EngineSignals) {
    // EEC1: actual torque 0x91 - 125 = 20 %, engine speed 0x1F40 x 0.125 = 1000 rpm.
    auto eec1 = decodeAccepted(canFrame(0x0CF00400, {0xF0, 0x7D, 0x91, 0x40, 0x1F}));
    ASSERT_EQ(eec1->spns().size(), 2u);
    EXPECT_DOUBLE_EQ(numeric(*eec1, 0).getValue(), 1000.0);
    EXPECT_DOUBLE_EQ(numeric(*eec1, 1).getValue(), 20.0);

    // ET1: coolant 0x78 - 40 = 80 degC; oil 0x2E00 x 0.03125 - 273 = 95 degC.
    auto et1 = decodeAccepted(canFrame(0x18FEEE00, {0x78, 0xFF, 0x00, 0x2E}));
    EXPECT_DOUBLE_EQ(numeric(*et1, 0).getValue(), 80.0);
    EXPECT_DOUBLE_EQ(numeric(*et1, 1).getValue(), 95.0);

    // HOURS: 100000 x 0.05 h; VDHR: 10 000 000 x 5 m.
    auto hours = decodeAccepted(canFrame(0x18FEE500, {0xA0, 0x86, 0x01, 0x00}));
    EXPECT_DOUBLE_EQ(numeric(*hours, 0).getValue(), 5000.0);
    auto distance = decodeAccepted(canFrame(0x18FEC1EE, {0x80, 0x96, 0x98, 0x00}));
    EXPECT_DOUBLE_EQ(numeric(*distance, 0).getValue(), 50000000.0);

    // EEC2: pedal 0xFA x 0.4 = 100 %, load 0x32 = 50 %, low idle switch off (00),
    // kickdown active (01).
    auto eec2 = decodeAccepted(canFrame(0x0CF00300, {0xF4, 0xFA, 0x32}));
    ASSERT_EQ(eec2->spns().size(), 5u);
    EXPECT_DOUBLE_EQ(numeric(*eec2, 0).getValue(), 100.0);
    EXPECT_DOUBLE_EQ(numeric(*eec2, 1).getValue(), 50.0);
    EXPECT_EQ(status(*eec2, 2).getValue(), 0u);
    EXPECT_EQ(status(*eec2, 3).getValue(), 3u);
    EXPECT_EQ(status(*eec2, 4).getValue(), 1u);
}

TEST_F(PublicMapping, EntriesOfOnePgnApplyInFileOrder) {
    // TRF1 is listed twice: one rule, then nine.
    auto frame = decodeAccepted(canFrame(0x18FEF803, {0x0A, 0x7D, 0x19, 0x0B, 0x00, 0x2E}));
    ASSERT_EQ(frame->spns().size(), 10u);
    const uint16_t expected[] = {177, 123, 124, 126, 127, 177, 3027, 3027, 3028, 3026};
    for (size_t i = 0; i < 10; ++i)
        EXPECT_EQ(frame->spns()[i]->getNumber(), expected[i]);
    EXPECT_DOUBLE_EQ(numeric(*frame, 0).getValue(), 95.0);  // oil temperature
    EXPECT_DOUBLE_EQ(numeric(*frame, 1).getValue(), 160.0); // clutch pressure 10 x 16 kPa
    EXPECT_DOUBLE_EQ(numeric(*frame, 2).getValue(), 50.0);  // oil level 125 x 0.4 %
}

TEST_F(PublicMapping, VehicleIdentificationByBam) {
    const std::string vin = "YV2A4C2A1VB123456*";
    EXPECT_TRUE(decoder->acceptsShared(bamAnnounce(65260, 18, 3)));
    decode(*decoder, bamAnnounce(65260, 18, 3));
    decode(*decoder, bamPacket(1, vin.substr(0, 7)));
    decode(*decoder, bamPacket(2, vin.substr(7, 7)));
    auto message = decode(*decoder, bamPacket(3, vin.substr(14)));
    ASSERT_TRUE(message);
    EXPECT_EQ(message->getPgn(), 65260);
    EXPECT_EQ(message->getDataLength(), 21u);
    ASSERT_EQ(message->spns().size(), 1u);
    EXPECT_EQ(text(*message, 0).getNumber(), 237);
    EXPECT_EQ(text(*message, 0).getValue(), "YV2A4C2A1VB123456");
}

TEST_F(PublicMapping, UnlistedPgnIsNotAccepted) {
    EXPECT_FALSE(decoder->accepts(canFrame(0x18FECA00))); // DM1
    EXPECT_FALSE(decoder->accepts(canFrame(0x18EA00F9))); // request to 0
}
