#include "AvahiHandler.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>

// Starts a publisher while no descriptor can be opened, and ends the process with status 3 once
// it has failed twice: the poll object is retried, never used while missing.
TEST(AvahiHandlerDeathTest, PollCreationFailureIsRetried) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // The sanitizers need descriptors of their own.
    GTEST_SKIP() << "needs a build without sanitizers";
#endif
    const auto publishWithoutDescriptors = [] {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/tavro-test-bus", 1);
        verbosity = 2;
        int logPipe[2];
        if (pipe(logPipe) != 0 || dup2(logPipe[1], STDERR_FILENO) < 0)
            _exit(10);
        AvahiHandler publisher;
        const int lowestFree = dup(0);
        close(lowestFree);
        rlimit tight;
        getrlimit(RLIMIT_NOFILE, &tight);
        tight.rlim_cur = static_cast<rlim_t>(lowestFree);
        setrlimit(RLIMIT_NOFILE, &tight);
        publisher.start();
        const std::string twice = "ERR : Failed to create simple poll object.\n"
                                  "ERR : Failed to create simple poll object.\n";
        std::string seen;
        char c;
        while (seen.size() < twice.size() && read(logPipe[0], &c, 1) == 1)
            seen += c;
        _exit(seen == twice ? 3 : 11);
    };
    EXPECT_EXIT(publishWithoutDescriptors(), ::testing::ExitedWithCode(3), "");
}
