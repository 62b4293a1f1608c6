#include "CanTestSupport.h"
#include "JsonCanDecoder.h"
#include "NetHelpers.h"
#include "TestSupport.h"
#include "XmlText.h"

#include <gtest/gtest.h>

#include <iomanip>
#include <tuple>

namespace {

// "number=value; ..." of the SPNs of a frame: statuses by their description, or by their value
// when the mapping gives none; those not available are left out.
std::string values(const DecodedFrame& frame) {
    std::ostringstream text;
    text << std::setprecision(10);
    for (const SPN* spn : frame.spns()) {
        const auto* state = dynamic_cast<const SPNStatus*>(spn);
        if (state && state->getDescription() == "Not available")
            continue;
        text << (text.tellp() > 0 ? "; " : "") << spn->getNumber() << '=';
        if (auto* number = dynamic_cast<const SPNNumeric*>(spn))
            text << number->getValue();
        else if (state && state->getDescription().empty())
            text << state->getValue();
        else if (state)
            text << state->getDescription();
        else
            text << dynamic_cast<const SPNString*>(spn)->getValue();
    }
    return text.str();
}

} // namespace

TEST(JsonCanDecoder, PgnOfIdentifiersAndWhatIsAccepted) {
    EXPECT_EQ(pgnOf(0x18FEF100), 0xFEF1);
    EXPECT_EQ(pgnOf(0x0CEA00FE), 0xEA00);
    JsonCanDecoder decoder(testData("fms_mapping.json"));
    // A request (PF 0xEA) to 0x17: the destination is part of the PGN the file names.
    const can_frame request = canFrame(0x18EA17F9, {0xF1, 0xFE, 0x00});
    EXPECT_TRUE(decoder.accepts(request));
    EXPECT_FALSE(decoder.accepts(canFrame(0x18EA00F9)));
    EXPECT_EQ(decode(decoder, request)->getPgn(), 0xEA17);
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
        {"0\xFE\x01\x32", "0" + r + r + "2"},
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

// String fields split at stars; transport messages (BAM) reassembled.
TEST(JsonCanDecoder, StringFieldsAndTransportMessages) {
    JsonCanDecoder decoder(testData("fms_mapping.json"));
    // Empty fields count; none follows a final star.
    EXPECT_EQ(values(*decode(decoder, canFrame(0x18FE6B00, {'A', 'B', 'C', '*', '*', 'F', '*'}))),
              "1625=ABC; 1626=");
    StderrCapture capture;
    EXPECT_FALSE(decode(decoder, canFrame(0x18FE6B00, {'A', 'B', 'C', 'D', 'E', 'F', 'G', '*'})));
    capture.restore();
    EXPECT_EQ(capture.text(), "WARN: There are more strings defined in spn: 1626 than there are "
                              "in the actual message.\nWARN: ABCDEFG*\n");

    // TP.CM and the first TP.DT frames come out as ordinary frames; the last one completes.
    const std::string vin = "WDB9634031L123456*";
    EXPECT_EQ(decode(decoder, bamAnnounce(0xFEEC, 21, 3))->getPgn(), 0xECFF);
    for (uint8_t seq = 1; seq <= 2; ++seq) {
        auto packet = decode(decoder, bamPacket(seq, vin.substr(7 * (seq - 1), 7)));
        EXPECT_EQ(packet->getPgn(), 0xEBFF);
        EXPECT_EQ(packet->getData()[0], seq);
    }
    auto message = decode(decoder, bamPacket(3, vin.substr(14)));
    EXPECT_EQ(message->getDataLength(), 21u);
    EXPECT_EQ(values(*message), "237=WDB9634031L123456");

    // Numeric and status rules of a longer message read its first eight bytes: byte 8 is
    // beyond them.
    decode(decoder, bamAnnounce(0xFECA, 14, 2));
    decode(decoder, bamPacket(1, "\x11\x22\x33\x44\x55\x66\x77"));
    message = decode(decoder, bamPacket(2, "\x88\x99\xAA\xBB\xCC\xDD\xEE"));
    EXPECT_EQ(values(*message), "21=8721; 22=51; 23=136; 24=-1");
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
    json += "{\"pgn\":65265,\"spns\":[{\"type\":1,\"bitSize\":16,\"descriptions\":[\"v0\"";
    for (int i = 1; i < 1 << 16; ++i)
        json += ",\"v" + std::to_string(i) + "\"";
    TempDir dir;
    JsonCanDecoder decoder(dir.write("huge.json", json + "]}]}]"));
    EXPECT_TRUE(decoder.accepts(canFrame(0x18004E00)));
    EXPECT_EQ(values(*decode(decoder, canFrame(0x18FEF100, {0x34, 0x12, 0x01}))), "0=v4660");
}

// Refused at load with a level-0 line each; the rest of the file decodes.
TEST(JsonCanDecoder, ValuesOfTheWrongTypeAreRefusedAtLoad) {
    const std::string file = testData("wrong_types.json");
    VerbosityScope quiet(0);
    StderrCapture capture;
    JsonCanDecoder decoder(file);
    capture.restore();
    const std::string log = capture.text();
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 9) << log; // rules 1-6, entries 1-3
    EXPECT_EQ(log.substr(0, log.find('\n')),
              "ERR : " + file +
                  ": PGN 65265: rule 1: \"offset\" has the wrong type, rule skipped.");
    // The control byte and the padding cannot go into a document: one U+FFFD each.
    std::string replaced;
    for (int i = 0; i < 7; ++i)
        replaced += XmlText::replacement;
    EXPECT_EQ(values(*decode(decoder, canFrame(0x18FEF100, {'A', 0x01}))),
              "1=65; 9=A" + replaced + "; 10=65");
    // The entry with a bad rule list still names its PGN; a text PGN does not.
    EXPECT_TRUE(decoder.accepts(canFrame(0x18FEF300)));
    EXPECT_FALSE(decoder.accepts(canFrame(0x18FEF200)));
}

// The shipped FMS mapping, on one frame of each parameter group as a vehicle sends it; the
// expected values are worked out by hand from the J1939 definitions. Data bytes in hex (strings
// in ASCII), those left out not available (FF).
TEST(FmsMapping, OneFrameOfEachParameterGroup) {
    const std::string path = TAVRO_TEST_DATA "/../../etc/fms-mapping.json";
    const std::tuple<uint32_t, std::string, std::string> cases[] = {
        {0x0CF00300, "FF7D2D", "91=50; 92=45"},
        {0x0CF00400, "F08C91803E00F07D", "512=15; 513=20; 190=2000"},
        {0x18F00010, "F0646EFF10FFFAE1", "520=-25; 1085=-15; 1716=100; 1717=100"},
        {0x18F0010B, "C032", "521=20"},
        {0x18F00503, "7F00007E", "524=2; 523=1"},
        {0x18FEF100, "C4803210FFFFE3",
         "70=Parking brake set; 84=50.5; 595=Cruise control switched off; 597=Brake pedal "
         "depressed; 598=Clutch pedal released; 976=Standby"},
        {0x18FEE900, "FFFFFFFF81C40300", "250=123456.5"},
        {0x18FEAF00, "FFFFFFFF88130000", "1040=2500"},
        {0x18FD0900, "FFFFFFFF15CD5B07", "5054=123456.789"},
        {0x18FEF200, "FE010007", "183=25.5; 184=3.5"},
        {0x18FEFC17, "FFC8FFFFFFFF32", "96=80; 38=20"},
        {0x18FE563D, "96", "1761=60"},
        {0x18FEE500, "80C40300", "247=12345.6"},
        {0x18FEEE00, "7B", "110=83"},
        {0x18FEF500, "FFFFFFD024", "171=21.5"},
        {0x18FEC1EE, "9EC27801", "917=123456790"},
        {0x18FEC000, "FFAB7E", "914=1500"},
        {0x18FEEA2F, "12983A", "928=18; 582=7500"},
        {0x18FE702F, "FFFF0807", "1760=18000"},
        {0x18FEAE30, "FFFF6E64", "1087=880; 1088=800"},
        {0x18FEBF0B, "401E", "904=30.25"},
        {0x0CFE6CEE, "4311C000E02E8032",
         "1612=Drive; 1613=Rest; 1611=Vehicle motion detected; 1617=15 min before 4 1/2 h; "
         "1615=Driver card present; 1614=No overspeed; 1618=Normal; 1616=Driver card not "
         "present; 1622=No tachograph event; 1621=No handling information; 1620=Normal "
         "performance; 1619=Forward; 1623=1500; 1624=50.5"},
        {0x18FDA400, "FFFFFFFFFFFFFD", "3948=At least one PTO drive is engaged"},
        {0x18FED500, "FFFFF1", "3353=Charging; 3354=Not charging"},
        {0x18FE4E25, "40",
         "1821=At least 1 door is open; 1820=Inside bus; 3411=At least 1 bus door is enabled"},
        {0x18FDA525, "140455",
         "3412=Unlocked; 3413=Open; 3414=Enabled; 3415=Unlocked; 3416=Closed; 3417=Enabled; "
         "3418=Unlocked; 3419=Closed; 3420=Enabled; 3421=Locked; 3422=Open; 3423=Enabled"},
        {0x18FD7D17, "818B8A89",
         "5085=1; 5086=Off; 5087=Info; 5088=Off; 5089=Yellow; 5090=Off; 5091=Red; 5092=Off"},
        {0x18FDD121, "F530343030", "2804=Diagnostics supported; 2805=Requests supported"},
        {0x18FEEC00, "574D415230365A2A", "237=WMAR06Z"},
        {0x18FE6B00, "44312A44322A", "1625=D1; 1626=D2"},
    };
    JsonCanDecoder decoder(path);
    // Every parameter group and every signal of the file has its case.
    EXPECT_EQ(PgnMapping(path, PgnMapping::Format::Fms).size(), std::size(cases));
    size_t signals = 0;
    for (const auto& [id, hex, expected] : cases) {
        can_frame raw = canFrame(id);
        for (size_t i = 0; i < hex.size(); i += 2)
            raw.data[i / 2] = static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16));
        auto frame = decode(decoder, raw);
        ASSERT_TRUE(frame) << expected;
        signals += frame->spns().size();
        EXPECT_EQ(values(*frame), expected) << std::hex << id;
    }
    EXPECT_EQ(signals, 110u);
}

// Wherever the public J1939 mapping describes the same signal, it puts it in the same place.
TEST(FmsMapping, AgreesWithThePublicJ1939Mapping) {
    const std::string path = TAVRO_SHARED_DATA "/j1939-framework/frames.json";
    if (!std::ifstream(path).good())
        GTEST_SKIP() << "no " << path;
    const PgnMapping ours(TAVRO_TEST_DATA "/../../etc/fms-mapping.json", PgnMapping::Format::Fms);
    const PgnMapping theirs(path, PgnMapping::Format::Fms);
    size_t compared = 0;
    for (uint32_t pgn = 0; pgn <= 0xFFFF; ++pgn) {
        const PgnMapping::Group* a = ours.find(static_cast<uint16_t>(pgn));
        const PgnMapping::Group* b = theirs.find(static_cast<uint16_t>(pgn));
        for (const SpnRule& mine : a&& b ? a->rules : std::vector<SpnRule>()) {
            for (const SpnRule& other : b->rules) {
                if (other.number != mine.number)
                    continue;
                ++compared;
                EXPECT_EQ(
                    std::tie(mine.type, mine.position, mine.width, mine.gain, mine.offset),
                    std::tie(other.type, other.position, other.width, other.gain, other.offset))
                    << "SPN " << mine.number;
            }
        }
    }
    EXPECT_EQ(compared, 40u);
}
