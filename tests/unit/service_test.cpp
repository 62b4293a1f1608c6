#include "Service.h"
#include "TestSupport.h"
#include "TimeService.h"

#include <gtest/gtest.h>

#include <cstdlib>

using Records = std::vector<std::string>;

namespace {

// Exposes the publisher of a service for inspection.
template <typename T> class Probe : public T {
public:
    using T::T;
    const AvahiHandler& handler() const { return this->publisher; }
};

size_t count(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t pos = text.find(part); pos != std::string::npos; pos = text.find(part, pos + 1))
        ++n;
    return n;
}

class ServiceTest : public ::testing::Test {
protected:
    // Services that start their publisher here have no port, so they never publish; should
    // that break, D-Bus points at nothing.
    void SetUp() override {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/tavro-test-bus", 1);
    }

    TempDir dir;
    VerbosityScope quiet{0};
};

} // namespace

TEST_F(ServiceTest, MissingKeysGiveEmptyRecordsWithOneWarningEach) {
    Configuration conf(dir.write("s.conf", "service_name=tavro-x\nservice_port=1\n"));
    VerbosityScope warnings(1);
    StderrCapture capture;
    Probe<Service> service(conf);
    const std::string log = capture.text();
    EXPECT_EQ(service.handler().txtRecords(), (Records{"txtversion=", "version="}));
    EXPECT_EQ(service.handler().serviceType(), "_._");
    EXPECT_EQ(count(log, "WARN: Value \"service_version\" not found in configuration.\n"), 1u);
    EXPECT_EQ(count(log, "WARN: Value \"service_txtversion\" not found in configuration.\n"), 1u);
    EXPECT_EQ(count(log, "WARN: "), 5u);
    // The path is optional and its absence silent.
    EXPECT_EQ(count(log, "service_path"), 0u);
}

TEST(ParsePort, AcceptsOnlyDecimalPortNumbers) {
    for (const auto& good : {std::make_pair("0", 0), std::make_pair("123", 123),
                             std::make_pair("00080", 80), std::make_pair("65535", 65535)}) {
        uint16_t port = 7;
        EXPECT_TRUE(parsePort(good.first, port)) << good.first;
        EXPECT_EQ(port, good.second);
    }
    for (const char* bad : {"", "65536", "70000", "100000", "-1", "+80", "12x", "x12", "0x50",
                            "1 2", "999999999999999999999"}) {
        uint16_t port = 7;
        EXPECT_FALSE(parsePort(bad, port)) << bad;
        EXPECT_EQ(port, 7) << bad;
    }
}

TEST_F(ServiceTest, InvalidPortWithholdsTheAnnouncement) {
    for (const std::string line : {"", "service_port=65536\n", "service_port=ntp\n"}) {
        Configuration conf(dir.write("s.conf", "service_name=tavro-x\n" + line));
        VerbosityScope warnings(1);
        StderrCapture capture;
        Probe<TimeService> service(conf);
        const std::string value = line.empty() ? "" : line.substr(13, line.size() - 14);
        EXPECT_EQ(count(capture.text(), "ERR : No valid \"service_port\" in configuration (\"" +
                                            value + "\"). Service \"tavro-x\" not announced.\n"),
                  1u)
            << capture.text();
        EXPECT_TRUE(service.handler().withheld());
    }
}
