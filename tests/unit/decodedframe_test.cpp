#include "CanTestSupport.h"
#include "DecodedFrame.h"

#include <gtest/gtest.h>

#include <sstream>

TEST(DecodedFrame, DataAndPgn) {
    DecodedFrame frame;
    EXPECT_EQ(frame.getDataLength(), 0u);
    EXPECT_EQ(frame.getData()[0], 0);
    frame.setData(0x0807060504030201ULL);
    ASSERT_EQ(frame.getDataLength(), 8u);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(frame.getData()[i], i + 1);
    EXPECT_EQ(frame.getData()[8], 0);

    std::vector<uint8_t> bytes(300, 'x');
    frame.setData(bytes.data(), 300);
    EXPECT_EQ(frame.getDataLength(), 256u);
    EXPECT_EQ(frame.getData()[255], 'x');
    EXPECT_EQ(frame.getData()[256], 0);
    // A shorter payload after a longer one still ends right behind its last byte.
    frame.setData(bytes.data(), 3);
    EXPECT_EQ(frame.getData()[3], 0);
    frame.setData(bytes.data(), 0);
    EXPECT_EQ(frame.getDataLength(), 0u);
    EXPECT_EQ(frame.getData()[0], 0);

    frame.setPgn(0x1FEF1);
    EXPECT_EQ(frame.getPgn(), 0xFEF1);
}

TEST(DecodedFrame, CopiesAreDeep) {
    auto original = std::make_unique<DecodedFrame>();
    original->setPgn(0xFEF1);
    original->setTimestamp(1700000000999ULL);
    original->setData(0x4142434445464748ULL);
    SPN* speed = new SPNNumeric(12.5, " km/h");
    speed->setNumber(84);
    speed->setName("Wheel speed");
    original->addSpn(speed);
    original->addSpn(new SPNStatus(1, "set"));
    original->addSpn(new SPNString("WDB123"));

    DecodedFrame copy(*original);
    DecodedFrame assigned;
    assigned.addSpn(new SPNString("replaced"));
    assigned = *original;
    for (const DecodedFrame* frame : {&copy, &assigned})
        for (size_t i = 0; i < 3; ++i)
            EXPECT_NE(frame->spns()[i], original->spns()[i]);
    original.reset();

    for (const DecodedFrame* frame : {&copy, &assigned}) {
        EXPECT_EQ(frame->getPgn(), 0xFEF1);
        EXPECT_EQ(frame->getTimestamp(), 1700000000999ULL);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(frame->getData())), "HGFEDCBA");
        ASSERT_EQ(frame->spns().size(), 3u);
        EXPECT_EQ(numeric(*frame, 0).getValue(), 12.5);
        EXPECT_EQ(numeric(*frame, 0).getUnit(), " km/h");
        EXPECT_EQ(numeric(*frame, 0).getNumber(), 84);
        EXPECT_EQ(numeric(*frame, 0).getName(), "Wheel speed");
        EXPECT_EQ(status(*frame, 1).getValue(), 1u);
        EXPECT_EQ(status(*frame, 1).getDescription(), "set");
        EXPECT_EQ(text(*frame, 2).getValue(), "WDB123");
    }
}

TEST(DecodedFrame, DiagnosticText) {
    SPNStatus brake(1, "set");
    brake.setName("Parking brake");
    brake.setNumber(70);
    EXPECT_EQ(brake.toString(), "Parking brake (NR: 70 status): 1: set\n");
    EXPECT_EQ(brake.getType(), 1u);

    SPNNumeric speed(12.5, " km/h");
    speed.setName("Speed");
    speed.setNumber(84);
    EXPECT_EQ(speed.toString(), "Speed (NR: 84 numeric): 12.5 km/h\n");
    SPNNumeric distance(1234567.0, "m");
    EXPECT_EQ(distance.toString(), " (NR: 0 numeric): 1.23457e+06m\n");

    SPNString vin("WDB*");
    vin.setName("VIN");
    vin.setNumber(237);
    EXPECT_EQ(vin.toString(), "VIN (NR: 237 string): WDB*\n");

    DecodedFrame frame;
    frame.setPgn(65265);
    frame.setTimestamp(42);
    const uint8_t data[] = {'A', 'B', 0, 'C'};
    frame.setData(data, 4);
    frame.addSpn(new SPNStatus(brake));
    std::ostringstream out;
    out << frame;
    EXPECT_EQ(out.str(), "_can frame_\npgn: 65265 ts: 42\ndata (4): AB\n"
                         "Parking brake (NR: 70 status): 1: set\n");
}
