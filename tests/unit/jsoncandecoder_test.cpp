#include "CanTestSupport.h"
#include "JsonCanDecoder.h"
#include "TestSupport.h"
#include "XmlText.h"

#include <gtest/gtest.h>

TEST(JsonCanDecoder, PgnOfIdentifiersAndWhatIsAccepted) {
    EXPECT_EQ(pgnOf(0x18FEF100), 0xFEF1);
    EXPECT_EQ(pduFormat(0x18FEF100), 0xFE);
    EXPECT_EQ(pgnOf(0x0CEA00FE), 0xEA00);
    EXPECT_EQ(pduFormat(0x0CEA00FE), 0xEA);
    JsonCanDecoder decoder(testData("fms_mapping.json"));
    // A request (PF 0xEA) to 0x17: the destination is part of the PGN the file names.
    const can_frame request = canFrame(0x18EA17F9, {0xF1, 0xFE, 0x00});
    EXPECT_TRUE(decoder.accepts(request));
    EXPECT_FALSE(decoder.accepts(canFrame(0x18EA00F9)));
    EXPECT_EQ(decode(decoder, request)->getPgn(), 0xEA17);
    auto ccvs = decode(decoder, canFrame(0x18FEF100, {0x08, 0x00, 0x32, 0x10}));
    EXPECT_EQ(numeric(*ccvs, 2).getValue(), 0x320);      // bits 12-23: across bytes 1 and 2
    EXPECT_EQ(numeric(*ccvs, 3).getValue(), -5);         // beyond bit 63: the offset
    EXPECT_FALSE(decoder.accepts(canFrame(0x18117000))); // 70000 never matches
    for (uint32_t id : {0x1CECFF00u, 0x1CEBFF00u, 0x18EC1700u}) {
        EXPECT_TRUE(decoder.acceptsShared(canFrame(id)));
        EXPECT_FALSE(decoder.accepts(canFrame(id)));
    }
}

// What bus strings and file texts become in a document.
TEST(XmlText, ValidTextStaysAndEachBadByteBecomesOneReplacement) {
    const std::string r = XmlText::replacement;
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},
        {"WDB9634031L123456 <&>\t\r\n", "WDB9634031L123456 <&>\t\r\n"},
        // Two-, three- and four-byte characters, the last allowed ones below U+FFFE and beyond.
        {"\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x9A\x8C \xEF\xBF\xBD \xF4\x8F\xBF\xBF",
         "\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x9A\x8C \xEF\xBF\xBD \xF4\x8F\xBF\xBF"},
        // FMS version bytes as one bus sent them; Latin-1; control bytes and DEL-free C0.
        {"0\xFE\x01"
         "2",
         "0" + r + r + "2"},
        {"K\xFChlmittel", "K" + r + "hlmittel"},
        {std::string("a\0b\x1F\x7F", 5), "a" + r + "b" + r + "\x7F"},
        // Cut, overlong, surrogate, beyond U+10FFFF, U+FFFE and U+FFFF.
        {"\xE2\x82", r + r},
        {"\xC0\xAF\xE0\x80\xAF", r + r + r + r + r},
        {"\xED\xA0\x80", r + r + r},
        {"\xF4\x90\x80\x80", r + r + r + r},
        {"\xEF\xBF\xBE\xEF\xBF\xBF", r + r + r + r + r + r},
    };
    for (const auto& c : cases)
        EXPECT_EQ(XmlText::clean(c.first), c.second) << c.first;
    EXPECT_EQ(XmlText::firstCharacters("0402ab", 3), "040");
    EXPECT_EQ(XmlText::firstCharacters("0" + r + r + "2", 6), "0" + r + r + "2");
    EXPECT_EQ(XmlText::firstCharacters("0" + r + r + "2", 2), "0" + r);
}

TEST(JsonCanDecoder, StringFieldsAreSplitAtStars) {
    JsonCanDecoder decoder(testData("fms_mapping.json"));
    auto two = decode(decoder, canFrame(0x18FE6B00, {'A', 'B', 'C', '*', '*', 'F', '*'}));
    ASSERT_EQ(two->spns().size(), 2u);
    EXPECT_EQ(text(*two, 0).getValue(), "ABC");
    EXPECT_EQ(text(*two, 1).getValue(), ""); // empty fields count

    StderrCapture capture;
    EXPECT_FALSE(decode(decoder, canFrame(0x18FE6C00, {'A', 'B', 'C', '*', 'D', 'E', 'F', '*'})));
    capture.restore();
    EXPECT_EQ(capture.text(), "WARN: There are more strings defined in spn: 3 than there are in "
                              "the actual message.\nWARN: ABC*DEF*\n");
}

TEST(JsonCanDecoder, TransportMessages) {
    JsonCanDecoder decoder(testData("fms_mapping.json"));
    // TP.CM and the first TP.DT frames come out as ordinary frames; the last one completes.
    const std::string vin = "WDB9634031L123456*";
    EXPECT_EQ(decode(decoder, bamAnnounce(0xFEEC, 21, 3))->getPgn(), 0xECFF);
    for (uint8_t seq = 1; seq <= 2; ++seq) {
        auto packet = decode(decoder, bamPacket(seq, vin.substr(7 * (seq - 1), 7)));
        EXPECT_EQ(packet->getPgn(), 0xEBFF);
        EXPECT_EQ(packet->getData()[0], seq);
    }
    auto message = decode(decoder, bamPacket(3, vin.substr(14)));
    EXPECT_EQ(message->getPgn(), 0xFEEC);
    ASSERT_EQ(message->getDataLength(), 21u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(message->getData()), 18), vin);
    EXPECT_EQ(text(*message, 0).getValue(), "WDB9634031L123456");

    // Numeric and status rules of a longer message read its first eight bytes.
    decode(decoder, bamAnnounce(0xFECA, 14, 2));
    decode(decoder, bamPacket(1, "\x11\x22\x33\x44\x55\x66\x77"));
    message = decode(decoder, bamPacket(2, "\x88\x99\xAA\xBB\xCC\xDD\xEE"));
    ASSERT_EQ(message->spns().size(), 4u);
    EXPECT_EQ(numeric(*message, 0).getValue(), 0x2211);
    EXPECT_EQ(status(*message, 1).getValue(), 0x33u);
    EXPECT_EQ(numeric(*message, 2).getValue(), 0x88);
    EXPECT_EQ(numeric(*message, 3).getValue(), -1); // byte 8 lies beyond the word
}

// Each with its level-0 line; the decoder still shares transport frames.
TEST(JsonCanDecoder, UnusableFilesLeaveOnlyTransportFrames) {
    TempDir dir;
    const std::pair<std::string, std::string> cases[] = {
        {dir.file("missing.json"), "ERR : File not found!\n"},
        {testData("object_mapping.json"), "ERR : File is formatted incorrectly!\n"},
        {dir.write("deep.json", std::string(PgnMapping::maxJsonDepth + 1, '[')),
         "Exceeded stackLimit"},
        {"/dev/zero", "ERR : /dev/zero is larger than 1048576 bytes, not read.\n"},
    };
    for (const auto& [path, line] : cases) {
        VerbosityScope quiet(0);
        StderrCapture capture;
        JsonCanDecoder decoder(path);
        capture.restore();
        EXPECT_NE(capture.text().find(line), std::string::npos) << capture.text();
        EXPECT_FALSE(decoder.accepts(canFrame(0x18FEF100)));
        EXPECT_TRUE(decoder.acceptsShared(canFrame(0x1CECFF00)));
    }
}

// Many entries, and a description for every 16-bit value.
TEST(JsonCanDecoder, HugeArrays) {
    std::string json = "[";
    for (int pgn = 0; pgn < 20000; ++pgn)
        json += "{\"pgn\":" + std::to_string(pgn) + "},";
    json += "{\"pgn\":65265,\"spns\":[{\"type\":1,\"bitSize\":16,\"descriptions\":[\"0\"";
    for (int i = 1; i < 1 << 16; ++i)
        json += ",\"" + std::to_string(i) + "\"";
    TempDir dir;
    JsonCanDecoder decoder(dir.write("huge.json", json + "]}]}]"));
    EXPECT_TRUE(decoder.accepts(canFrame(0x18004E00)));
    auto frame = decode(decoder, canFrame(0x18FEF100, {0x34, 0x12, 0x01}));
    ASSERT_EQ(frame->spns().size(), 1u);
    EXPECT_EQ(status(*frame, 0).getDescription(), std::to_string(0x1234));
}

// Refused at load with a level-0 line each; the rest of the file decodes.
TEST(JsonCanDecoder, ValuesOfTheWrongTypeAreRefusedAtLoad) {
    const std::string file = testData("wrong_types.json");
    VerbosityScope quiet(0);
    StderrCapture capture;
    JsonCanDecoder decoder(file);
    capture.restore();
    const std::string log = capture.text();
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 12) << log; // rules 1-8, entries 1-4
    EXPECT_EQ(log.substr(0, log.find('\n')),
              "ERR : " + file +
                  ": PGN 65265: rule 1: \"offset\" has the wrong type, rule skipped.");
    auto frame = decode(decoder, canFrame(0x18FEF100, {'A', 0x01}));
    ASSERT_EQ(frame->spns().size(), 3u);
    EXPECT_EQ(numeric(*frame, 0).getValue(), 'A');
    // The control byte and the padding cannot go into a document: one U+FFFD each.
    std::string replaced = "A";
    for (int i = 0; i < 7; ++i)
        replaced += XmlText::replacement;
    EXPECT_EQ(text(*frame, 1).getValue(), replaced);
    EXPECT_EQ(status(*frame, 2).getDescription(), "");
    // The entry with a bad rule list still names its PGN; a text PGN does not.
    EXPECT_TRUE(decoder.accepts(canFrame(0x18FEF300)));
    EXPECT_FALSE(decoder.accepts(canFrame(0x18FEF200)));
}

// The public J1939 mapping file; expected values from the J1939 parameter definitions.
TEST(PublicMapping, VehicleAndEngineSignals) {
    const std::string path = TAVRO_SHARED_DATA "/j1939-framework/frames.json";
    if (!std::ifstream(path).good())
        GTEST_SKIP() << "no " << path;
    JsonCanDecoder decoder(path);
    // CCVS: PTO state 31 (not available), 50 km/h (12800 x 1/256), brake pedal depressed
    // (byte 4 bits 5-6 = 01), parking brake set (byte 1 bits 3-4 = 01).
    auto ccvs = decode(decoder, canFrame(0x18FEF100, {0x04, 0x00, 0x32, 0x10, 0xFF, 0xFF, 0x1F}));
    ASSERT_EQ(ccvs->spns().size(), 5u);
    EXPECT_EQ(status(*ccvs, 0).getValue(), 31u);
    EXPECT_EQ(status(*ccvs, 0).getDescription(), ""); // six descriptions only
    EXPECT_DOUBLE_EQ(numeric(*ccvs, 1).getValue(), 50.0);
    EXPECT_EQ(status(*ccvs, 2).getValue(), 1u);
    EXPECT_EQ(status(*ccvs, 4).getValue(), 1u);
}
