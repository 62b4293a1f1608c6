#include "CanTestSupport.h"
#include "JsonCanDecoder.h"
#include "NetHelpers.h"
#include "TestSupport.h"
#include "XmlText.h"

#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>

namespace {

// "number=value; ..." of the SPNs of a frame, statuses by their raw value; those not available
// are left out.
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
        else if (state)
            text << state->getValue();
        else
            text << dynamic_cast<const SPNString*>(spn)->getValue();
    }
    return text.str();
}

} // namespace

// Identifiers, string fields split at stars, transport messages (BAM) reassembled.
TEST(JsonCanDecoder, FramesOfTheTestMapping) {
    EXPECT_EQ(pgnOf(0x18FEF100), 0xFEF1);
    EXPECT_EQ(pgnOf(0x0CEA00FE), 0xEA00);
    JsonCanDecoder decoder(testData("fms_mapping.json"));
    // A request (PF 0xEA) to 0x17: the destination is part of the PGN the file names.
    const can_frame request = canFrame(0x18EA17F9, {0xF1, 0xFE, 0x00});
    EXPECT_TRUE(decoder.accepts(request));
    EXPECT_FALSE(decoder.accepts(canFrame(0x18EA00F9)));
    EXPECT_EQ(decode(decoder, request)->getPgn(), 0xEA17);
    EXPECT_FALSE(decoder.accepts(canFrame(0x18117000))); // 70000 never matches
    for (uint32_t id : {0x1CECFF00u, 0x1CEBFF00u, 0x18EC1700u})
        EXPECT_TRUE(decoder.acceptsShared(canFrame(id)) && !decoder.accepts(canFrame(id))) << id;

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
    EXPECT_EQ(decode(decoder, bamPacket(1, vin.substr(0, 7)))->getPgn(), 0xEBFF);
    EXPECT_EQ(decode(decoder, bamPacket(2, vin.substr(7, 7)))->getPgn(), 0xEBFF);
    auto message = decode(decoder, bamPacket(3, vin.substr(14)));
    EXPECT_EQ(message->getDataLength(), 21u);
    EXPECT_EQ(values(*message), "237=WDB9634031L123456");
}

TEST(XmlText, ValidTextStaysAndEachBadByteBecomesOneReplacement) {
    const std::string r = XmlText::replacement;
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},
        // Two-, three- and four-byte characters, the last allowed ones below U+FFFE and beyond.
        {"<&>\t\r\n\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x9A\x8C \xEF\xBF\xBD \xF4\x8F\xBF\xBF",
         "<&>\t\r\n\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x9A\x8C \xEF\xBF\xBD \xF4\x8F\xBF\xBF"},
        // FMS version bytes as one bus sent them; control bytes and DEL-free C0.
        {"0\xFE\x01\x32", "0" + r + r + "2"},
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
    EXPECT_EQ(XmlText::firstCharacters("0" + r + r + "2", 6), "0" + r + r + "2");
    EXPECT_EQ(XmlText::firstCharacters("0" + r + r + "2", 2), "0" + r);
}

// Each with its level-0 line: an unusable file leaves only the shared transport frames, a value
// of the wrong type its rule or entry. A description for every 16-bit value is taken.
TEST(JsonCanDecoder, WhatTheLoaderRefusesAndTakes) {
    VerbosityScope quiet(0);
    TempDir dir;
    const std::pair<std::string, std::string> cases[] = {
        {dir.file("missing.json"), "ERR : File not found!\n"},
        {testData("object_mapping.json"), "ERR : File is formatted incorrectly!\n"},
        {dir.write("deep.json", std::string(PgnMapping::maxJsonDepth + 1, '[')),
         "Exceeded stackLimit"},
        {"/dev/zero", "ERR : /dev/zero is larger than 1048576 bytes, not read.\n"},
    };
    for (const auto& [path, line] : cases) {
        StderrCapture capture;
        JsonCanDecoder decoder(path);
        capture.restore();
        EXPECT_NE(capture.text().find(line), std::string::npos) << capture.text();
        EXPECT_FALSE(decoder.accepts(canFrame(0x18FEF100)));
        EXPECT_TRUE(decoder.acceptsShared(canFrame(0x1CECFF00)));
    }

    const std::string file = testData("wrong_types.json");
    StderrCapture capture;
    JsonCanDecoder decoder(file);
    capture.restore();
    const std::string log = capture.text();
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 5) << log; // rules 0-1, entries 1-3
    EXPECT_EQ(log.substr(0, log.find('\n')),
              "ERR : " + file +
                  ": PGN 65265: rule 0: \"offset\" has the wrong type, rule skipped.");
    EXPECT_EQ(
        values(*decode(decoder, canFrame(0x18FEF100, {'A', 'B', 'C', 'D', 'E', 'F', 'G', '*'}))),
        "9=ABCDEFG; 10=65");
    // The entry with a bad rule list still names its PGN; a text PGN does not.
    EXPECT_TRUE(decoder.accepts(canFrame(0x18FEF300)));
    EXPECT_FALSE(decoder.accepts(canFrame(0x18FEF200)));

    std::string json =
        "[{\"pgn\":65265,\"spns\":[{\"type\":1,\"bitSize\":16,\"descriptions\":[\"v0\"";
    for (int i = 1; i < 1 << 16; ++i)
        json += ",\"v" + std::to_string(i) + "\"";
    JsonCanDecoder huge(dir.write("huge.json", json + "]}]}]"));
    auto frame = decode(huge, canFrame(0x18FEF100, {0x34, 0x12, 0x01}));
    EXPECT_EQ(status(*frame, 0).getDescription(), "v4660");
}

// The shipped FMS mapping on a frame of each group as candump writes it (bytes left out: FF),
// values worked out by hand from the J1939 definitions, statuses by their raw value.
TEST(FmsMapping, OneFrameOfEachParameterGroup) {
    const std::string path = TAVRO_TEST_DATA "/../../etc/fms-mapping.json";
    const std::pair<std::string, std::string> cases[] = {
        {"0CF00300#FF7D2D 0CF00400#F08C91803E00F07D 18F00010#F0646EFF10FFFAE1 18F0010B#C032",
         "91=50; 92=45 | 512=15; 513=20; 190=2000 | 520=-25; 1085=-15; 1716=100; 1717=100 | "
         "521=20"},
        {"18F00503#7F00007E 18FEF100#C4803210FFFFE3 18FEE900#FFFFFFFF81C40300",
         "524=2; 523=1 | 70=1; 84=50.5; 595=0; 597=1; 598=0; 976=3 | 250=123456.5"},
        {"18FEAF00#FFFFFFFF88130000 18FD0900#FFFFFFFF15CD5B07 18FEF200#FE010007",
         "1040=2500 | 5054=123456.789 | 183=25.5; 184=3.5"},
        {"18FEFC17#FFC8FFFFFFFF32 18FE563D#96 18FEE500#80C40300 18FEEE00#7B 18FEF500#FFFFFFD024",
         "96=80; 38=20 | 1761=60 | 247=12345.6 | 110=83 | 171=21.5"},
        {"18FEC1EE#9EC27801 18FEC000#FFAB7E 18FEEA2F#12983A 18FE702F#FFFF0807 18FEAE30#FFFF6E64",
         "917=123456790 | 914=1500 | 928=18; 582=7500 | 1760=18000 | 1087=880; 1088=800"},
        {"18FEBF0B#401E 0CFE6CEE#4311C000E02E8032 18FDA400#FFFFFFFFFFFFFD 18FED500#FFFFF1",
         "904=30.25 | 1612=3; 1613=0; 1611=1; 1617=1; 1615=1; 1614=0; 1618=0; 1616=0; 1622=0; "
         "1621=0; 1620=0; 1619=0; 1623=1500; 1624=50.5 | 3948=1 | 3353=1; 3354=0"},
        {"18FE4E25#40 18FDA525#140455 18FD7D17#818B8A89 18FDD121#F530343030",
         "1821=0; 1820=0; 3411=1 | 3412=0; 3413=1; 3414=1; 3415=0; 3416=0; 3417=1; 3418=0; "
         "3419=0; 3420=1; 3421=1; 3422=1; 3423=1 | 5085=1; 5086=0; 5087=3; 5088=0; 5089=2; "
         "5090=0; 5091=1; 5092=0 | 2804=1; 2805=1"},
        {"18FEEC00#574D415230365A2A 18FE6B00#44312A44322A", "237=WMAR06Z | 1625=D1; 1626=D2"},
    };
    JsonCanDecoder decoder(path);
    size_t groups = 0;
    size_t signals = 0;
    for (const auto& [frames, expected] : cases) {
        std::istringstream in(frames);
        std::string got;
        for (std::string text; in >> text; ++groups) {
            can_frame raw = canFrame(static_cast<uint32_t>(std::stoul(text, nullptr, 16)));
            for (size_t i = 9; i < text.size(); i += 2)
                raw.data[(i - 9) / 2] = std::stoi(text.substr(i, 2), nullptr, 16);
            auto frame = decode(decoder, raw);
            ASSERT_TRUE(frame) << text;
            signals += frame->spns().size();
            got += (got.empty() ? "" : " | ") + values(*frame);
        }
        EXPECT_EQ(got, expected);
    }
    // Every parameter group and every signal of the file has its case.
    EXPECT_EQ(PgnMapping(path, PgnMapping::Format::Fms).size(), groups);
    EXPECT_EQ(signals, 110u);
}
