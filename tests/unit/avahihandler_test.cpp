#include "AvahiHandler.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdlib>

using Records = std::vector<std::string>;

namespace {

// A publisher started here must never reach a real bus or daemon: D-Bus points at nothing.
void noBus() {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/tavro-test-bus", 1);
}

void configure(AvahiHandler& publisher) {
    publisher.setName("probe");
    publisher.setType("tavrotest");
    publisher.setProtocol("udp");
    publisher.setPort(4000);
    publisher.addTxt("txtversion=1");
}

} // namespace

TEST(AvahiHandler, TxtRecordsKeepTheirOrderAndOnlyTheLastIsReplaced) {
    AvahiHandler publisher;
    publisher.replaceLastTxt("status", "ok"); // on an empty list it adds
    EXPECT_EQ(publisher.txtRecords(), Records{"status=ok"});

    AvahiHandler inventory;
    inventory.addTxt("txtversion=1");
    inventory.addTxt("version=2.0");
    inventory.addTxt("status=starting");
    inventory.replaceLastTxt("status", "degraded");
    inventory.replaceLastTxt("status", "ok");
    EXPECT_EQ(inventory.txtRecords(), (Records{"txtversion=1", "version=2.0", "status=ok"}));
}

TEST(AvahiHandler, WithheldPublisherStartsNoThread) {
    noBus();
    AvahiHandler publisher;
    configure(publisher);
    EXPECT_EQ(publisher.join(), 0);
    publisher.withhold();
    EXPECT_EQ(publisher.start(), -1);
    EXPECT_EQ(publisher.join(), 0);
}

namespace {

void publishWithoutBus() {
    noBus();
    verbosity = 2;
    AvahiHandler publisher;
    configure(publisher);
    publisher.start();
    // The publisher thread ends the process.
    pause();
}

// Starts a publisher while no descriptor can be opened and lifts the limit once the first
// attempt has failed; the retry then gets as far as the (absent) bus.
void publishAfterPollFailure() {
    noBus();
    verbosity = 2;
    int logPipe[2];
    if (pipe(logPipe) != 0)
        _exit(10);
    const int realStderr = dup(STDERR_FILENO);
    dup2(logPipe[1], STDERR_FILENO);
    close(logPipe[1]);

    AvahiHandler publisher;
    configure(publisher);
    const int lowestFree = dup(0);
    close(lowestFree);
    struct rlimit saved;
    getrlimit(RLIMIT_NOFILE, &saved);
    struct rlimit tight = saved;
    tight.rlim_cur = static_cast<rlim_t>(lowestFree);
    setrlimit(RLIMIT_NOFILE, &tight);
    publisher.start();

    std::string seen;
    bool lifted = false;
    char buffer[512];
    ssize_t n;
    while ((n = read(logPipe[0], buffer, sizeof buffer)) > 0) {
        ssize_t ignored = write(realStderr, buffer, static_cast<size_t>(n));
        (void)ignored;
        seen.append(buffer, static_cast<size_t>(n));
        if (!lifted && seen.find("Failed to create simple poll object.") != std::string::npos) {
            setrlimit(RLIMIT_NOFILE, &saved);
            // The retry comes a second later and logs straight to the real stderr.
            dup2(realStderr, STDERR_FILENO);
            lifted = true;
        }
    }
    pause();
}

} // namespace

TEST(AvahiHandlerDeathTest, ClientCreationFailureEndsTheProcess) {
    EXPECT_EXIT(publishWithoutBus(), ::testing::ExitedWithCode(1),
                "^ERR : avahi_client_new\\(\\) failed\\.\nERR : Is the avahi-daemon running\\?\n$");
}

TEST(AvahiHandlerDeathTest, PollCreationFailureIsRetried) {
#if defined(__SANITIZE_ADDRESS__)
    // The sanitizers need descriptors of their own to check memory; without any they report
    // the check itself as a fault.
    GTEST_SKIP() << "needs a build without sanitizers";
#endif
    EXPECT_EXIT(publishAfterPollFailure(), ::testing::ExitedWithCode(1),
                "^ERR : Failed to create simple poll object\\.\n.*"
                "ERR : avahi_client_new\\(\\) failed\\.\nERR : Is the avahi-daemon running\\?\n$");
}
