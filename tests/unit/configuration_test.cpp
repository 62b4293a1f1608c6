#include "Configuration.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

// Read on top of a general file, whose values come first. Comments and blanks are in every file
// under etc/, which the system tests run with.
TEST(Configuration, LineGrammarAndGeneralFileFirst) {
    TempDir dir;
    VerbosityScope quiet(0);
    Configuration general(dir.write("general.conf", "list=g\n"));
    Configuration conf(general, dir.write("c.conf", "hash = a b#c\r\n"
                                                    "multi=value=x\n"
                                                    "list=a,,b,\r\n"
                                                    "list=c\n"));
    EXPECT_EQ(conf.getString("hash"), "ab");
    EXPECT_EQ(conf.getList("list"), (std::vector<std::string>{"g", "a", "", "b", "c"}));
    // A lookup of an absent key must not create it.
    for (const char* absent : {"multi", "absent", "absent"}) {
        EXPECT_EQ(conf.getString(absent), "");
        EXPECT_FALSE(conf.hasKey(absent)) << absent;
    }
}

TEST(Configuration, HostileFilesStayBounded) {
    TempDir dir;
    VerbosityScope warnings(1);
    const size_t limit = Configuration::maxLineLength;
    const std::string longKey(limit - 2, 'k');
    StderrCapture capture;
    // Exactly the line limit is read; one byte more skips the line and nothing else.
    const std::string path =
        dir.write("hostile.conf", longKey + "=v\nlong=" + std::string(limit - 4, 'x') + "\nlast=2");
    Configuration conf(path);
    EXPECT_EQ(conf.getString(longKey), "v");
    EXPECT_FALSE(conf.hasKey("long"));
    EXPECT_EQ(conf.getString("last"), "2");
    // A file without end (or line end) is read up to its bound.
    Configuration zero("/dev/zero");
    EXPECT_TRUE(zero.keys().empty());
    EXPECT_EQ(capture.text(), "WARN: Skipping line 2 of " + path + ": longer than 4096 bytes.\n" +
                                  "WARN: /dev/zero is larger than 1048576 bytes: line 1 and the "
                                  "rest are not read.\n");
}
