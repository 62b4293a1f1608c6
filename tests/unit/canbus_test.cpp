// Real readers on the virtual bus, fed by the log player.
#include "BasicCanDecoder.h"
#include "CanHandler.h"
#include "CanTestSupport.h"
#include "TestSupport.h"

#include <dirent.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

namespace {

size_t readersOf(const std::string& bus) {
    size_t count = 0;
    DIR* d = opendir(bus.c_str());
    while (dirent* entry = readdir(d))
        count += entry->d_type == DT_SOCK;
    closedir(d);
    return count;
}

} // namespace

// Each reader of an interface gets every frame with its own receive stamp; hooks come and go
// while a reader runs; stop closes the socket after no more than the receive time-out.
TEST(VirtualBus, ReadersHooksAndStop) {
    TempDir root;
    const std::string bus = root.file("vcan0");
    ASSERT_EQ(mkdir(bus.c_str(), 0755), 0);
    setenv("TAVRO_VCAN_DIR", root.path.c_str(), 1);
    BasicCanDecoder decoders[3];
    RecordingHook first, second, late;
    CanHandler one("vcan0");
    CanHandler two("vcan0");
    one.addDecoder(&first, &decoders[0]);
    two.addDecoder(&second, &decoders[1]);
    ASSERT_EQ(one.start(), 0);
    ASSERT_EQ(two.start(), 0);
    EXPECT_EQ(one.start(), 0); // running: no second socket
    EXPECT_EQ(readersOf(bus), 2u);

    const auto play = [&](const std::string& log) {
        const std::string path = root.write("frames.log", log);
        ASSERT_EQ(system((toolCommand("tavro-canplayer") + " -f -m can0=vcan0 " + path).c_str()),
                  0);
    };
    const uint64_t before = wallMillis();
    play("(1700000000.000000) can0 18FEF100#0102030405060708\n"
         "(1700000000.010000) can0 123#DEAD\n");
    for (RecordingHook* hook : {&first, &second}) {
        const std::vector<DecodedFrame> frames = hook->waitFor(2);
        ASSERT_EQ(frames.size(), 2u);
        EXPECT_EQ(frames[0].getData()[7], 8);
        EXPECT_EQ(frames[1].getPgn(), 0x0001);
        EXPECT_EQ(frames[1].getData()[1], 0xAD);
        // The kernel's receive time, not the time in the log.
        for (const DecodedFrame& frame : frames) {
            EXPECT_GE(frame.getTimestamp(), before);
            EXPECT_LE(frame.getTimestamp(), wallMillis());
        }
    }

    two.addDecoder(&late, &decoders[2]);
    EXPECT_EQ(two.removeHook(&second), 1u);
    play("(0.0) can0 18FEF100#\n");
    EXPECT_EQ(late.waitFor(1).size(), 1u);
    two.release(&late); // the last hook: stops the reader
    EXPECT_FALSE(two.isRunning());
    EXPECT_EQ(second.waitFor().size(), 2u);

    // Without frames, stop waits out the receive time-out and no more.
    const auto begin = std::chrono::steady_clock::now();
    one.stop();
    const auto took = std::chrono::steady_clock::now() - begin;
    printf("stop took %lld us\n", static_cast<long long>(took / std::chrono::microseconds(1)));
    EXPECT_LT(took, std::chrono::seconds(2));
    EXPECT_FALSE(one.isRunning());
    EXPECT_EQ(readersOf(bus), 0u);
    unsetenv("TAVRO_VCAN_DIR");
}
