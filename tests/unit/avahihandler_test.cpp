#include "AvahiHandler.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>

namespace {

// Starts a publisher while no descriptor can be opened, and ends the process once it has
// failed twice: the poll object is retried, never used while missing.
void publishWithoutDescriptors() {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/tavro-test-bus", 1);
    verbosity = 2;
    int logPipe[2];
    if (pipe(logPipe) != 0)
        _exit(10);
    const int realStderr = dup(STDERR_FILENO);
    dup2(logPipe[1], STDERR_FILENO);
    close(logPipe[1]);
    AvahiHandler publisher;
    publisher.setName("probe");
    publisher.setType("tavrotest");
    publisher.setProtocol("udp");
    publisher.setPort(4000);
    const int lowestFree = dup(0);
    close(lowestFree);
    rlimit tight;
    getrlimit(RLIMIT_NOFILE, &tight);
    tight.rlim_cur = static_cast<rlim_t>(lowestFree);
    setrlimit(RLIMIT_NOFILE, &tight);
    publisher.start();
    std::string seen;
    char buffer[512];
    ssize_t n;
    while ((n = read(logPipe[0], buffer, sizeof buffer)) > 0) {
        seen.append(buffer, static_cast<size_t>(n));
        if (seen.find("object.\nERR : Failed") != std::string::npos) {
            ssize_t ignored = write(realStderr, seen.data(), seen.size());
            (void)ignored;
            _exit(3);
        }
    }
    _exit(11);
}

} // namespace

TEST(AvahiHandlerDeathTest, PollCreationFailureIsRetried) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // The sanitizers need descriptors of their own.
    GTEST_SKIP() << "needs a build without sanitizers";
#endif
    EXPECT_EXIT(publishWithoutDescriptors(), ::testing::ExitedWithCode(3),
                "^ERR : Failed to create simple poll object\\.\n"
                "ERR : Failed to create simple poll object\\.\n");
}
