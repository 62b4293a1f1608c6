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

class JsonCanDecoderTest : public ::testing::Test {
protected:
    JsonCanDecoder decoder{testData("fms_mapping.json")};
};

} // namespace

TEST_F(JsonCanDecoderTest, PgnOfIdentifiersAndWhatIsAccepted) {
    EXPECT_EQ(pgnOf(0x18FEF100), 0xFEF1);
    EXPECT_EQ(pduFormat(0x18FEF100), 0xFE);
    EXPECT_EQ(pgnOf(0x0CEA00FE), 0xEA00);
    EXPECT_EQ(pduFormat(0x0CEA00FE), 0xEA);
    // A request (PF 0xEA) to 0x17: the destination is part of the PGN the file names.
    const can_frame request = canFrame(0x18EA17F9, {0xF1, 0xFE, 0x00});
    EXPECT_TRUE(decoder.accepts(request));
    EXPECT_FALSE(decoder.accepts(canFrame(0x18EA00F9)));
    auto frame = decode(decoder, request);
    EXPECT_EQ(frame->getPgn(), 0xEA17);
    EXPECT_EQ(numeric(*frame, 0).getValue(), 0xFEF1);

    EXPECT_FALSE(decoder.accepts(canFrame(0x18FEDA00)));
    EXPECT_FALSE(decoder.acceptsShared(canFrame(0x18FEF100)));
    EXPECT_FALSE(decoder.accepts(canFrame(0x18117000))); // 70000 never matches
    for (uint32_t id : {0x1CECFF00u, 0x1CEBFF00u, 0x18EC1700u}) {
        EXPECT_TRUE(decoder.acceptsShared(canFrame(id)));
        EXPECT_FALSE(decoder.accepts(canFrame(id)));
    }
}

TEST_F(JsonCanDecoderTest, FieldsOfASingleFrame) {
    auto frame =
        decode(decoder, canFrame(0x18FEF100, {0x08, 0x00, 0x32, 0x10, 0xFF, 0xFF, 0x1F, 0xAB}));
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
    EXPECT_EQ(numeric(*frame, 2).getValue(), 0x320); // bits 12-23: across bytes 1 and 2
    EXPECT_EQ(numeric(*frame, 3).getValue(), -5);    // beyond bit 63: the offset
    EXPECT_EQ(numeric(*frame, 4).getValue(), 7);     // no gain: the offset
    // 40 bits above 2^32 saturate; no description for such a value.
    EXPECT_EQ(status(*frame, 5).getValue(), 4294967295u);
    EXPECT_EQ(status(*frame, 5).getDescription(), "");
    EXPECT_EQ(status(*frame, 5).getNumber(), 70005 & 0xFFFF);
    auto zero = decode(decoder, canFrame(0x18FEF100, {0x00}));
    EXPECT_EQ(status(*zero, 0).getDescription(), "not set");
}

TEST_F(JsonCanDecoderTest, StringFieldsAreSplitAtStars) {
    auto two = decode(decoder, canFrame(0x18FE6B00, {'A', 'B', 'C', '*', 'D', 'E', 'F', '*'}));
    ASSERT_EQ(two->spns().size(), 2u);
    EXPECT_EQ(text(*two, 0).getValue(), "ABC");
    EXPECT_EQ(text(*two, 1).getValue(), "DEF");
    EXPECT_EQ(text(*two, 1).getNumber(), 1626);
    // Empty fields between stars count.
    auto empty = decode(decoder, canFrame(0x18FE6B00, {'*', '*', 'X', 0, 0, 0, 0, 0}));
    EXPECT_EQ(text(*empty, 0).getValue(), "");
    EXPECT_EQ(text(*empty, 1).getValue(), "");
    // Two entries of one PGN: the second takes the next field.
    auto entries = decode(decoder, canFrame(0x18FF0000, {'o', 'n', 'e', '*', 't', 'w', 'o', '*'}));
    ASSERT_EQ(entries->spns().size(), 2u);
    EXPECT_EQ(text(*entries, 0).getValue(), "one");
    EXPECT_EQ(text(*entries, 1).getValue(), "two");
    EXPECT_EQ(text(*entries, 1).getName(), "Second entry");

    StderrCapture capture;
    EXPECT_FALSE(decode(decoder, canFrame(0x18FE6C00, {'A', 'B', 'C', '*', 'D', 'E', 'F', '*'})));
    capture.restore();
    EXPECT_EQ(logLines(capture),
              (std::vector<std::string>{"WARN: There are more strings defined in spn: 3 than "
                                        "there are in the actual message.",
                                        "WARN: ABC*DEF*"}));
}

TEST_F(JsonCanDecoderTest, BamOfThreePackets) {
    const std::string vin = "WDB9634031L123456*";
    VerbosityScope verbose(6);
    StderrCapture capture;
    auto announce = decode(decoder, bamAnnounce(0xFEEC, 21, 3));
    EXPECT_EQ(announce->getPgn(), 0xECFF);
    EXPECT_EQ(announce->getDataLength(), 8u);
    for (uint8_t seq = 1; seq <= 2; ++seq) {
        auto packet = decode(decoder, bamPacket(seq, vin.substr(7 * (seq - 1), 7)));
        EXPECT_EQ(packet->getPgn(), 0xEBFF);
        EXPECT_EQ(packet->getData()[0], seq);
    }
    auto message = decode(decoder, bamPacket(3, vin.substr(14)));
    capture.restore();
    EXPECT_EQ(message->getPgn(), 0xFEEC);
    ASSERT_EQ(message->getDataLength(), 21u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(message->getData()), 18), vin);
    EXPECT_EQ(message->getData()[20], 0xFF);
    EXPECT_EQ(text(*message, 0).getValue(), "WDB9634031L123456");
    EXPECT_EQ(logLines(capture), (std::vector<std::string>{"DBG : start of long frame.",
                                                           "DBG : long frame. frame nr: 1 of 3",
                                                           "DBG : long frame. frame nr: 2 of 3",
                                                           "DBG : long frame. frame nr: 3 of 3",
                                                           "DBG : end of long frame."}));
    // Without a new TP.CM, a further packet extends the message and completes it again.
    EXPECT_EQ(decode(decoder, bamPacket(4, "ABCDEFG"))->getDataLength(), 28u);
}

TEST_F(JsonCanDecoderTest, ReassemblyChecksNeitherSequenceNorAnnouncement) {
    // Before any TP.CM the announced count is 0: the first packet completes PGN 0.
    auto early = decode(decoder, bamPacket(1, "ABCDEFG"));
    EXPECT_EQ(early->getPgn(), 0);
    EXPECT_EQ(early->getDataLength(), 7u);
    decode(decoder, bamAnnounce(0xFE6B, 21, 3));
    decode(decoder, bamPacket(1, "AAA*BBB"));
    decode(decoder, bamPacket(1, "*CCC*DD"));                // repeated
    auto message = decode(decoder, bamPacket(9, "D*EEEEE")); // skipped ahead
    EXPECT_EQ(message->getPgn(), 0xFE6B);
    EXPECT_EQ(text(*message, 0).getValue(), "AAA");
    EXPECT_EQ(text(*message, 1).getValue(), "BBB");

    TransportAssembler assembler;
    for (int i = 0; i < 300; ++i)
        assembler.append(bamPacket(1, "1234567"));
    EXPECT_EQ(assembler.size(), TransportAssembler::maxBytes);
}

TEST_F(JsonCanDecoderTest, NumericRulesOfALongMessageReadItsFirstEightBytes) {
    decode(decoder, bamAnnounce(0xFECA, 14, 2));
    decode(decoder, bamPacket(1, "\x11\x22\x33\x44\x55\x66\x77"));
    auto message = decode(decoder, bamPacket(2, "\x88\x99\xAA\xBB\xCC\xDD\xEE"));
    ASSERT_EQ(message->spns().size(), 4u);
    EXPECT_EQ(numeric(*message, 0).getValue(), 0x2211);
    EXPECT_EQ(status(*message, 1).getValue(), 0x33u);
    EXPECT_EQ(numeric(*message, 2).getValue(), 0x88);
    EXPECT_EQ(numeric(*message, 3).getValue(), -1); // byte 8 lies beyond the word
}

TEST(JsonCanDecoder, UnusableFilesLeaveOnlyTransportFrames) {
    TempDir dir;
    const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
        {dir.file("missing.json"),
         {"File not found!", "File parsing failed!", "* Line 1, Column 1",
          "File is formatted incorrectly!"}},
        {dir.write("broken.json", "{\"pgn\": 65265,"),
         {"File parsing failed!", "* Line 1", "File is formatted incorrectly!"}},
        {testData("object_mapping.json"), {"File is formatted incorrectly!"}},
        {dir.write("deep.json", std::string(PgnMapping::maxJsonDepth + 1, '[')),
         {"File parsing failed!", "Exceeded stackLimit", "File is formatted incorrectly!"}},
        {"/dev/zero", {"/dev/zero is larger than 1048576 bytes, not read."}},
    };
    for (const auto& [path, expected] : cases) {
        SCOPED_TRACE(path);
        VerbosityScope quiet(0); // level 0 whatever the verbosity
        StderrCapture capture;
        JsonCanDecoder decoder(path);
        capture.restore();
        std::vector<std::string> errors; // the parser's text may run over several lines
        for (const std::string& line : logLines(capture))
            if (line.rfind("ERR : ", 0) == 0)
                errors.push_back(line.substr(6));
        ASSERT_EQ(errors.size(), expected.size()) << capture.text();
        for (size_t i = 0; i < expected.size(); ++i)
            EXPECT_EQ(errors[i].rfind(expected[i], 0), 0u) << errors[i];
        EXPECT_FALSE(decoder.accepts(canFrame(0x18FEF100)));
        EXPECT_TRUE(decoder.acceptsShared(canFrame(0x1CECFF00)));
        EXPECT_TRUE(decode(decoder, canFrame(0x18FEF100))->spns().empty());
    }
}

TEST(JsonCanDecoder, HugeArraysAndDeepValuesWithinTheBounds) {
    // Many entries, a status rule with a description for every 16-bit value, and a name
    // nested just within the depth bound (file, entry, list and rule take four levels).
    std::string descriptions;
    for (int i = 0; i < 1 << 16; ++i)
        descriptions += (i ? ",\"" : "\"") + std::to_string(i) + "\"";
    const int depth = PgnMapping::maxJsonDepth - 4;
    std::string json = "[";
    for (int pgn = 0; pgn < 20000; ++pgn)
        json += "{\"pgn\":" + std::to_string(pgn) + "},";
    json += "{\"pgn\":65265,\"spns\":[{\"type\":1,\"number\":1,\"name\":\"s\",\"bitSize\":16,"
            "\"descriptions\":[" +
            descriptions + "]},{\"type\":0,\"name\":" + std::string(depth, '[') +
            std::string(depth, ']') + "}]}]";
    ASSERT_LT(json.size(), PgnMapping::maxFileSize);
    TempDir dir;
    const std::string path = dir.write("huge.json", json);
    StderrCapture capture;
    JsonCanDecoder decoder(path);
    capture.restore();
    EXPECT_EQ(capture.text(),
              "ERR : " + path +
                  ": PGN 65265: rule 1: \"name\" has the wrong type, rule skipped.\n");
    EXPECT_TRUE(decoder.accepts(canFrame(0x18004E00)));
    auto frame = decode(decoder, canFrame(0x18FEF100, {0x34, 0x12, 0x01}));
    ASSERT_EQ(frame->spns().size(), 1u);
    EXPECT_EQ(status(*frame, 0).getDescription(), std::to_string(0x1234));
}

TEST(JsonCanDecoder, ValuesOfTheWrongTypeAreRefusedAtLoad) {
    const std::string file = testData("wrong_types.json");
    StderrCapture capture;
    JsonCanDecoder decoder(file);
    capture.restore();
    const std::vector<std::string> lines = logLines(capture);
    ASSERT_EQ(lines.size(), 12u) << capture.text(); // rules 1-8, entries 1-4
    EXPECT_EQ(lines[0], "ERR : " + file +
                            ": PGN 65265: rule 1: \"offset\" has the wrong type, "
                            "rule skipped.");
    EXPECT_EQ(lines[7], "ERR : " + file + ": PGN 65265: rule 8 is not an object, skipped.");
    EXPECT_EQ(lines[8], "ERR : " + file + ": entry 1 is not an object, skipped.");
    EXPECT_EQ(lines[9], "ERR : " + file +
                            ": entry 2: \"pgn\" is not an unsigned integer, "
                            "skipped.");
    EXPECT_EQ(lines[10], "ERR : " + file +
                             ": PGN 65267: \"spns\" is not an array, its rules "
                             "are skipped.");

    auto frame = decode(decoder, canFrame(0x18FEF100, {'A', 0x01}));
    ASSERT_EQ(frame->spns().size(), 3u);
    EXPECT_EQ(numeric(*frame, 0).getValue(), 'A');
    EXPECT_EQ(text(*frame, 1).getValue(), std::string("A\x01\xFF\xFF\xFF\xFF\xFF\xFF", 8));
    EXPECT_EQ(status(*frame, 2).getDescription(), "");
    // The entry with a bad rule list still names its PGN; a text PGN does not.
    EXPECT_TRUE(decoder.accepts(canFrame(0x18FEF300)));
    EXPECT_FALSE(decoder.accepts(canFrame(0x18FEF200)));
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

TEST_F(PublicMapping, VehicleAndEngineSignals) {
    // CCVS: parking brake set (byte 1 bits 3-4 = 01), 50 km/h (12800 x 1/256), brake pedal
    // depressed (byte 4 bits 5-6 = 01), clutch released, PTO state 31 (not available).
    auto ccvs = decodeAccepted(canFrame(0x18FEF100, {0x04, 0x00, 0x32, 0x10, 0xFF, 0xFF, 0x1F}));
    ASSERT_EQ(ccvs->spns().size(), 5u);
    EXPECT_EQ(status(*ccvs, 0).getNumber(), 976);
    EXPECT_EQ(status(*ccvs, 0).getValue(), 31u);
    EXPECT_EQ(status(*ccvs, 0).getDescription(), ""); // six descriptions only
    EXPECT_DOUBLE_EQ(numeric(*ccvs, 1).getValue(), 50.0);
    EXPECT_EQ(numeric(*ccvs, 1).getUnit(), "km/h");
    EXPECT_EQ(status(*ccvs, 2).getValue(), 1u);
    EXPECT_EQ(status(*ccvs, 3).getValue(), 0u);
    EXPECT_EQ(status(*ccvs, 4).getNumber(), 70);
    EXPECT_EQ(status(*ccvs, 4).getValue(), 1u);

    // EEC1: engine speed 0x1F40 x 0.125 = 1000 rpm, actual torque 0x91 - 125 = 20 %.
    auto eec1 = decodeAccepted(canFrame(0x0CF00400, {0xF0, 0x7D, 0x91, 0x40, 0x1F}));
    EXPECT_DOUBLE_EQ(numeric(*eec1, 0).getValue(), 1000.0);
    EXPECT_DOUBLE_EQ(numeric(*eec1, 1).getValue(), 20.0);
    // ET1: coolant 0x78 - 40 = 80 degC; oil 0x2E00 x 0.03125 - 273 = 95 degC.
    auto et1 = decodeAccepted(canFrame(0x18FEEE00, {0x78, 0xFF, 0x00, 0x2E}));
    EXPECT_DOUBLE_EQ(numeric(*et1, 0).getValue(), 80.0);
    EXPECT_DOUBLE_EQ(numeric(*et1, 1).getValue(), 95.0);
    // HOURS: 100000 x 0.05 h; VDHR: 10 000 000 x 5 m.
    EXPECT_DOUBLE_EQ(
        numeric(*decodeAccepted(canFrame(0x18FEE500, {0xA0, 0x86, 0x01, 0x00})), 0).getValue(),
        5000.0);
    EXPECT_DOUBLE_EQ(
        numeric(*decodeAccepted(canFrame(0x18FEC1EE, {0x80, 0x96, 0x98, 0x00})), 0).getValue(),
        50000000.0);
    // EEC2: pedal 250 x 0.4 = 100 %, load 50 %; byte 1 = 0xF4: low idle switch (bits 1-2)
    // 00, kickdown (bits 3-4) 01, pedal 2 low idle (bits 7-8) 11.
    auto eec2 = decodeAccepted(canFrame(0x0CF00300, {0xF4, 0xFA, 0x32}));
    ASSERT_EQ(eec2->spns().size(), 5u);
    EXPECT_DOUBLE_EQ(numeric(*eec2, 0).getValue(), 100.0);
    EXPECT_DOUBLE_EQ(numeric(*eec2, 1).getValue(), 50.0);
    EXPECT_EQ(status(*eec2, 2).getValue(), 0u);
    EXPECT_EQ(status(*eec2, 3).getValue(), 3u);
    EXPECT_EQ(status(*eec2, 4).getValue(), 1u);
    EXPECT_FALSE(decoder->accepts(canFrame(0x18FECA00))); // DM1 is not in the file
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
    decode(*decoder, bamAnnounce(65260, 18, 3));
    decode(*decoder, bamPacket(1, vin.substr(0, 7)));
    decode(*decoder, bamPacket(2, vin.substr(7, 7)));
    auto message = decode(*decoder, bamPacket(3, vin.substr(14)));
    EXPECT_EQ(message->getPgn(), 65260);
    EXPECT_EQ(message->getDataLength(), 21u);
    ASSERT_EQ(message->spns().size(), 1u);
    EXPECT_EQ(text(*message, 0).getNumber(), 237);
    EXPECT_EQ(text(*message, 0).getValue(), "YV2A4C2A1VB123456");
}
