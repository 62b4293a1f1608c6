#include "MulticastSender.h"

#include "TestSupport.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>

// In the host namespace datagrams only go out of loopback with TTL 0: they never leave the
// kernel. Everything that needs a real interface is in the system tests.
namespace {
const char* const group = "239.255.42.1";
const char* const port = "45871";

struct SenderTest : ::testing::Test {
    time_t clockNow = 1000; // 00:16:40 UTC
    MulticastSender::Clock clock = [this] { return clockNow; };

    std::unique_ptr<MulticastSender> makeSender(const std::string& portText = port,
                                                const std::string& interface = "lo",
                                                uint8_t ttl = 0) {
        return std::make_unique<MulticastSender>(group, portText, interface, ttl, clock);
    }
};

ino_t socketInode(int fd) {
    struct stat info;
    return fstat(fd, &info) == 0 ? info.st_ino : 0;
}

std::string tooLong() {
    return std::string(70000, 'x');
}
} // namespace

TEST_F(SenderTest, ReportsOnceAMinuteIncludingTheDatagramThatTriggersIt) {
    VerbosityScope scope(3);
    auto sender = makeSender();
    StderrCapture capture;
    clockNow = 1059;
    EXPECT_TRUE(sender->send("<a/>", "gnss"));
    EXPECT_EQ(capture.text(), "") << "59 seconds are still the first period";
    clockNow = 1060;
    EXPECT_TRUE(sender->send("<b/>", "gnss"));
    EXPECT_EQ(capture.text(), "INFO: multicast-stat for port 45871 since 00:16:40\n"
                              "INFO: gnss = 2\n");

    // The next period starts at the report; counts start again from 0.
    clockNow = 1119;
    sender->send("<c/>", "gnss");
    clockNow = 1125;
    sender->send("<d/>", "gnss");
    EXPECT_EQ(capture.text(), "INFO: multicast-stat for port 45871 since 00:16:40\n"
                              "INFO: gnss = 2\n"
                              "INFO: multicast-stat for port 45871 since 00:17:40\n"
                              "INFO: gnss = 2\n");
}

TEST_F(SenderTest, ListsContextsInByteOrderAndKeepsIdleOnes) {
    VerbosityScope scope(3);
    auto sender = makeSender();
    StderrCapture capture;
    sender->send("1", "FEF1");
    sender->send("2", "F004");
    sender->send("3", "\xc3\xa9t\xc3\xa9"); // bytes above 0x7F sort last, char signed or not
    sender->send("5");
    clockNow = 1060;
    sender->send("6", "FEF1");
    clockNow = 1200;
    sender->send("7", "F004");
    EXPECT_EQ(capture.text(), "INFO: multicast-stat for port 45871 since 00:16:40\n"
                              "INFO: F004 = 1\n"
                              "INFO: FEF1 = 2\n"
                              "INFO: no-context = 1\n"
                              "INFO: \xc3\xa9t\xc3\xa9 = 1\n"
                              "INFO: multicast-stat for port 45871 since 00:17:40\n"
                              "INFO: F004 = 1\n"
                              "INFO: FEF1 = 0\n"
                              "INFO: no-context = 0\n"
                              "INFO: \xc3\xa9t\xc3\xa9 = 0\n");
}

TEST_F(SenderTest, TracesEveryDatagramAtHighestVerbosity) {
    VerbosityScope scope(8);
    auto sender = makeSender();
    StderrCapture capture;
    sender->send("<x>\n</x>", "gnss");
    EXPECT_EQ(capture.text(), "DBG : sending packet to: 239.255.42.1:45871\n"
                              "DBG : data:\n<x>\n</x>\n");
}

TEST_F(SenderTest, FailedSendWarnsReopensAndIsNotCounted) {
    const std::string warning = "WARN: Multicast could not be sent! (port = 45871interface = lo ) "
                                "errno: " +
                                std::string(strerror(EMSGSIZE)) + "(" + std::to_string(EMSGSIZE) +
                                ")\n";
    struct Case {
        int verbosity;
        std::string log;
    };
    const Case cases[] = {
        {0, ""},
        {1, warning},
        {2, warning + "NOTE: ifaddr: 127.0.0.1\n"},
        {3, warning + "INFO: Reopening socket!\nNOTE: ifaddr: 127.0.0.1\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.verbosity);
        VerbosityScope scope(c.verbosity);
        auto sender = makeSender();
        const ino_t before = socketInode(sender->socketDescriptor());
        StderrCapture capture;
        EXPECT_FALSE(sender->send(tooLong(), "gnss"));
        EXPECT_EQ(capture.text(), c.log);
        capture.restore();
        ASSERT_GE(sender->socketDescriptor(), 0);
        EXPECT_NE(socketInode(sender->socketDescriptor()), before) << "a fresh socket";
    }

    // The dropped datagram is not counted; sending goes on with the new socket.
    VerbosityScope scope(3);
    auto sender = makeSender();
    sender->send(tooLong(), "gnss");
    sender->send("ok", "gnss");
    StderrCapture capture;
    clockNow = 1060;
    EXPECT_TRUE(sender->send("ok", "gnss"));
    EXPECT_NE(capture.text().find("INFO: gnss = 2\n"), std::string::npos) << capture.text();
}

TEST_F(SenderTest, DestinationComesFromTheTexts) {
    VerbosityScope scope(0);
    auto sender = makeSender("70000");
    const sockaddr_in& to = sender->destinationAddress();
    EXPECT_EQ(to.sin_family, AF_INET);
    EXPECT_EQ(ntohs(to.sin_port), 4464) << "port cut to 16 bits";
    EXPECT_EQ(to.sin_addr.s_addr, inet_addr(group));
    const unsigned char zero[sizeof to.sin_zero] = {};
    EXPECT_EQ(memcmp(to.sin_zero, zero, sizeof zero), 0);
    EXPECT_EQ(makeSender("")->destinationAddress().sin_port, 0);
}

TEST_F(SenderTest, SocketKeepsTheTtlAndFallsBackToAnyInterface) {
    VerbosityScope scope(0);
    auto sender = makeSender(port, "nosuchif0", 0);
    unsigned char ttl = 1;
    struct in_addr outgoing;
    socklen_t length = sizeof ttl;
    getsockopt(sender->socketDescriptor(), IPPROTO_IP, IP_MULTICAST_TTL, &ttl, &length);
    EXPECT_EQ(ttl, 0) << "TTL 0 is used as it is";
    length = sizeof outgoing;
    getsockopt(sender->socketDescriptor(), IPPROTO_IP, IP_MULTICAST_IF, &outgoing, &length);
    EXPECT_EQ(outgoing.s_addr, htonl(INADDR_ANY));
}
