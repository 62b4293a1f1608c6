#include "Configuration.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

using Pieces = std::vector<std::string>;

TEST(SplitString, FollowsLineReaderRules) {
    EXPECT_EQ(splitString("", '/'), Pieces{});
    EXPECT_EQ(splitString("x,", ','), Pieces{"x"});
    EXPECT_EQ(splitString(",,", ','), (Pieces{"", ""}));
    EXPECT_EQ(splitString("a/b", '/'), (Pieces{"a", "b"}));
    EXPECT_EQ(splitString("/usr/sbin/x", '/'), (Pieces{"", "usr", "sbin", "x"}));
    EXPECT_EQ(splitString(",a", ','), (Pieces{"", "a"}));
    EXPECT_EQ(splitString("whole", ','), Pieces{"whole"});
    EXPECT_EQ(splitString("a,,b", ','), (Pieces{"a", "", "b"}));
}

class ConfigurationTest : public ::testing::Test {
protected:
    TempDir dir;
    VerbosityScope quiet{0};
};

TEST_F(ConfigurationTest, LineGrammar) {
    std::string path = dir.write("c.conf", "   # note\n"
                                           "key = a b\n"
                                           "hash=a#b\n"
                                           "multi=value=x\n"
                                           "noequals\n"
                                           "trailing=\n"
                                           "=v\n"
                                           "empty==\n"
                                           "\t\n"
                                           "list=a,,b,\n"
                                           "device_model = Module 42\n");
    Configuration conf(path);
    EXPECT_EQ(conf.getList("key"), Pieces{"ab"});
    EXPECT_EQ(conf.getString("hash"), "a");
    EXPECT_FALSE(conf.hasKey("multi"));
    EXPECT_FALSE(conf.hasKey("noequals"));
    EXPECT_FALSE(conf.hasKey("trailing"));
    EXPECT_EQ(conf.getString(""), "v");
    // "key==" gives an empty value text, which stores nothing.
    EXPECT_FALSE(conf.hasKey("empty"));
    EXPECT_EQ(conf.getList("list"), (Pieces{"a", "", "b"}));
    EXPECT_EQ(conf.getString("device_model"), "Module42");
}

TEST_F(ConfigurationTest, ValuesAppendInReadingOrder) {
    Configuration conf(dir.write("c.conf", "pgn=1,2,3\nother=x\npgn=4\n"));
    EXPECT_EQ(conf.getList("pgn"), (Pieces{"1", "2", "3", "4"}));
    EXPECT_EQ(conf.getString("pgn"), "1");
}

TEST_F(ConfigurationTest, CrLfReadsLikeLf) {
    Configuration lf(dir.write("lf.conf", "a=1\nb=x,y\n"));
    Configuration crlf(dir.write("crlf.conf", "a=1\r\nb=x,y\r\n"));
    EXPECT_EQ(crlf.getList("a"), lf.getList("a"));
    EXPECT_EQ(crlf.getList("b"), lf.getList("b"));
}

TEST_F(ConfigurationTest, GeneralFileWinsForSingleValues) {
    Configuration general(dir.write("general.conf", "network_interface=eth1\n"));
    Configuration service(general, dir.write("service.conf", "network_interface=eth0\nown=1\n"));
    EXPECT_EQ(service.getString("network_interface"), "eth1");
    EXPECT_EQ(service.getList("network_interface"), (Pieces{"eth1", "eth0"}));
    EXPECT_EQ(service.getString("own"), "1");
    // The base stays as it was.
    EXPECT_FALSE(general.hasKey("own"));
    EXPECT_EQ(general.getList("network_interface"), Pieces{"eth1"});
}

TEST_F(ConfigurationTest, MissingFileAndKeysWarn) {
    verbosity = 2;
    StderrCapture capture;
    Configuration general(dir.write("general.conf", "a=1\n"));
    Configuration conf(general, dir.file("absent.conf"));
    EXPECT_EQ(conf.getString("a"), "1");
    EXPECT_EQ(conf.getString("missing"), "");
    EXPECT_TRUE(conf.getList("missing").empty());
    EXPECT_FALSE(conf.hasKey("missing"));
    EXPECT_EQ(capture.text(), "WARN: File " + dir.file("absent.conf") +
                                  " could not be opened.\n"
                                  "WARN: Value \"missing\" not found in configuration.\n"
                                  "WARN: Value \"missing\" not found in configuration.\n");
}

TEST_F(ConfigurationTest, LookupsDoNotInsertAbsentKeys) {
    Configuration conf(dir.write("c.conf", "a=1\n"));
    conf.getString("b");
    conf.getList("b");
    EXPECT_FALSE(conf.hasKey("b"));
}

TEST_F(ConfigurationTest, TracesEveryLineAtSix) {
    verbosity = 6;
    StderrCapture capture;
    Configuration conf(dir.write("c.conf", "\n#c\na=b=c\nnetwork_interface=eth0\nl=1,2\n"));
    EXPECT_EQ(capture.text(), "DBG : Loading " + dir.file("c.conf") +
                                  "\n"
                                  "DBG : 1: Skip line because its empty.\n"
                                  "DBG : 2: Skip line because its comment.\n"
                                  "DBG : 3: Skip line because of multiple '='.\n"
                                  "DBG : 4: Got network_interface = eth0\n"
                                  "DBG : 5: Got l = 1\n"
                                  "DBG : 5: Got l = 2\n");
}

TEST_F(ConfigurationTest, HostileFilesStayBounded) {
    verbosity = 2;
    const size_t limit = Configuration::maxLineLength;
    std::string garbage;
    for (int i = 0; i < 256; ++i)
        if (i != '\n')
            garbage += static_cast<char>(i);
    const std::string longKey(limit - 2, 'k');
    const std::string content = garbage + "\n" +                               // 1
                                std::string("\0nul=x\0y\0\n", 10) +            // 2
                                longKey + "=v\n" +                             // 3
                                "long=" + std::string(limit - 4, 'x') + "\n" + // 4
                                "ok=1\n" +                                     // 5
                                std::string(10 * limit, '=') + "\n" +          // 6
                                "last=2";                                      // 7
    StderrCapture capture;
    const std::string path = dir.write("hostile.conf", content);
    Configuration conf(path);
    // Exactly the line limit is read; one byte more skips the line and nothing else.
    EXPECT_EQ(conf.getString(longKey), "v");
    EXPECT_FALSE(conf.hasKey("long"));
    EXPECT_EQ(conf.getString("ok"), "1");
    EXPECT_EQ(conf.getString("last"), "2");
    EXPECT_EQ(conf.getString(std::string(1, '\0') + "nul"), std::string("x\0y\0", 4));
    EXPECT_EQ(capture.text(), "WARN: Skipping line 4 of " + path + ": longer than 4096 bytes.\n" +
                                  "WARN: Skipping line 6 of " + path +
                                  ": longer than 4096 bytes.\n");

    // A file without end (or line end) is read up to its bound.
    StderrCapture endless;
    Configuration zero("/dev/zero");
    EXPECT_TRUE(zero.keys().empty());
    EXPECT_EQ(endless.text(), "WARN: /dev/zero is larger than 1048576 bytes: line 1 and the rest "
                              "are not read.\n");
    std::string big = "first=1\n";
    while (big.size() <= Configuration::maxFileSize)
        big += "k=v\n";
    Configuration large(dir.write("large.conf", big + "after=1\n"));
    EXPECT_EQ(large.getString("first"), "1");
    EXPECT_FALSE(large.hasKey("after"));
    EXPECT_EQ(large.getList("k").size(), (Configuration::maxFileSize - 8) / 4);
}
