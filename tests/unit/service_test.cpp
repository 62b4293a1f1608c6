#include "Service.h"
#include "TestSupport.h"
#include "TimeService.h"

#include <gtest/gtest.h>

#include <cstdlib>

TEST(ParsePort, AcceptsOnlyDecimalPortNumbers) {
    // -1: refused, the port left as it was.
    const std::pair<const char*, int> cases[] = {
        {"0", 0},      {"00080", 80}, {"65535", 65535}, {"", -1},
        {"65536", -1}, {"-1", -1},    {"+80", -1},      {"12x", -1},
        {"0x50", -1},  {"1 2", -1},   {"100000", -1},   {"999999999999999999999", -1}};
    for (const auto& c : cases) {
        uint16_t port = 7;
        EXPECT_EQ(parsePort(c.first, port), c.second >= 0) << c.first;
        EXPECT_EQ(port, c.second >= 0 ? c.second : 7) << c.first;
    }
}

namespace {
// Exposes the publisher of a service for inspection.
class ProbedTimeService : public TimeService {
public:
    using TimeService::TimeService;
    const AvahiHandler& handler() const { return publisher; }
};
} // namespace

TEST(Service, InvalidPortWithholdsTheAnnouncement) {
    // Should the publisher start after all, D-Bus points at nothing.
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/tavro-test-bus", 1);
    TempDir dir;
    for (const std::string value : {"", "65536", "ntp"}) {
        Configuration conf(dir.write("s.conf", "service_name=tavro-x\nservice_port=" + value));
        VerbosityScope errors(0);
        StderrCapture capture;
        ProbedTimeService service(conf);
        EXPECT_EQ(capture.text(), "ERR : No valid \"service_port\" in configuration (\"" + value +
                                      "\"). Service \"tavro-x\" not announced.\n");
        EXPECT_TRUE(service.handler().withheld());
    }
}
