// The log sink: the exact record format, level filtering, configurations that must
// be refused, and appends that survive a copytruncate rotation.
#include <cstdlib>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kx_zlog.h"
#include "test_redis.h"

using namespace testsupport;

namespace {

class ZlogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("KX_ROOT", root.path().c_str(), 1);
        unsetenv("KX_LOG");
    }
    void TearDown() override
    {
        unsetenv("KX_ROOT");
        unsetenv("KX_LOG");
    }
    void configure(const std::string &text) { write_file(root / "etc/kx/m.zlog", text); }
    std::string default_log() const { return root / "var/log/m.log"; }

    TempDir root;
};

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

#define LOG(cat, level, text)                                                                   \
    kxdf_zlog(cat, "app/vek_cap/vek_cap", 19, "vek_cap_indep_init", 18, 212, level, "%s", text)

TEST_F(ZlogTest, RecordsAreOneLineInTheDocumentedFormat)
{
    struct Case {
        int level;
        const char *name;
        const char *message;
        const char *expected; // after "<date> <time> <name> [<pid>:<file>:<function>:<line>] "
    };
    const Case cases[] = {
        {KX_ZLOG_LEVEL_ERROR, "ERROR", "init ham fail", "init ham fail"},
        {KX_ZLOG_LEVEL_ERROR, "ERROR", "pmsg NULL pointer, addr error!\n",
         "pmsg NULL pointer, addr error!"},
        {KX_ZLOG_LEVEL_WARN, "WARN", "two\n\n", "two\\n"},
        {KX_ZLOG_LEVEL_INFO, "INFO", "a\r\nb\tc\x01" "d", "a\\r\\nb\\tc\\x01d"},
        {KX_ZLOG_LEVEL_DEBUG, "DEBUG", "", ""},
        {KX_ZLOG_LEVEL_NOTICE, "NOTICE", "n", "n"},
        {KX_ZLOG_LEVEL_FATAL, "FATAL", "f", "f"},
    };
    kx_zlog_category_t *cat = kx_zlog_init("m");
    ASSERT_NE(cat, nullptr);
    for (const auto &c : cases)
        LOG(cat, c.level, c.message);
    // The file name is taken by its length, as zlog's macros pass it.
    kxdf_zlog(cat, "app/vek_cap/vek_cap_dbg.cpp", 23, "f", 1, 7, KX_ZLOG_LEVEL_ERROR, "x=%d", 5);

    auto lines = lines_of(read_file(default_log()));
    ASSERT_EQ(lines.size(), std::size(cases) + 1) << read_file(default_log());
    const std::regex stamp(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} )");
    const std::string pid = std::to_string(getpid());
    const std::string source = " [" + pid + ":app/vek_cap/vek_cap:vek_cap_indep_init:212] ";
    for (size_t i = 0; i < std::size(cases); ++i) {
        EXPECT_TRUE(std::regex_search(lines[i], stamp)) << lines[i];
        EXPECT_EQ(lines[i].substr(27), cases[i].name + source + cases[i].expected);
    }
    EXPECT_EQ(lines.back().substr(27), "ERROR [" + pid + ":app/vek_cap/vek_cap_dbg:f:7] x=5");

    char buf[4];
    EXPECT_EQ(at_snprintf(buf, sizeof buf, "%s", "abcdef"), 6);
    EXPECT_STREQ(buf, "abc");
}

TEST_F(ZlogTest, RecordsBelowTheConfiguredLevelAreDropped)
{
    struct Case {
        const char *config;
        const char *expected; // first letters of the levels written
    };
    const Case cases[] = {
        {"", "DINWEF"},
        {"level = WARN\n", "WEF"},
        {"  level=notice  \n", "NWEF"},
        {"level = notice # comments take whole lines\n", nullptr},
        {"level = 60\n", "NWEF"},
        {"# quiet\n\nlevel = fatal\n", "F"},
    };
    const int levels[] = {20, 40, 60, 80, 100, 120};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.config);
        unlink(default_log().c_str());
        configure(c.config);
        kx_zlog_category_t *cat = kx_zlog_init("m");
        if (!c.expected) { // the comment would be part of the value
            EXPECT_EQ(cat, nullptr);
            continue;
        }
        ASSERT_NE(cat, nullptr);
        for (int level : levels)
            LOG(cat, level, "x");
        std::string written;
        for (const auto &line : lines_of(read_file(default_log())))
            written += line.at(27);
        EXPECT_EQ(written, c.expected);
    }
}

TEST_F(ZlogTest, OutputIsChosenByEnvironmentConfigurationAndDefault)
{
    struct Case {
        const char *name;
        std::string config; // empty: no file
        std::string kx_log;
        std::string expected_file; // empty: the category must be refused
    };
    const Case cases[] = {
        {"default, directory created", "", "", default_log()},
        {"configured path", "output = " + (root / "conf.log") + "\n", "", root / "conf.log"},
        {"KX_LOG overrides", "output = " + (root / "conf.log") + "\n", root / "env.log",
         root / "env.log"},
        {"no '='", "output\n", "", ""},
        {"unknown key", "levle = INFO\n", "", ""},
        {"unknown level", "level = LOUD\n", "", ""},
        {"level out of range", "level = 300\n", "", ""},
        {"empty value", "output =\n", "", ""},
        {"output cannot be opened", "output = " + (root / "no/such/dir/x.log") + "\n", "", ""},
        {"KX_LOG cannot be opened", "", root / "no/such/dir/x.log", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        unlink((root / "etc/kx/m.zlog").c_str());
        if (!c.config.empty())
            configure(c.config);
        if (c.kx_log.empty())
            unsetenv("KX_LOG");
        else
            setenv("KX_LOG", c.kx_log.c_str(), 1);
        kx_zlog_category_t *cat = kx_zlog_init("m");
        if (c.expected_file.empty()) {
            EXPECT_EQ(cat, nullptr);
            continue;
        }
        ASSERT_NE(cat, nullptr);
        LOG(cat, KX_ZLOG_LEVEL_ERROR, c.name);
        EXPECT_NE(read_file(c.expected_file).find(c.name), std::string::npos);
    }
    // A configuration that exists but cannot be read is refused too.
    unsetenv("KX_LOG");
    unlink((root / "etc/kx/m.zlog").c_str());
    ASSERT_EQ(mkdir((root / "etc/kx/m.zlog").c_str(), 0755), 0);
    EXPECT_EQ(kx_zlog_init("m"), nullptr);
}

TEST_F(ZlogTest, AppendsContinueAtTheStartOfATruncatedFile)
{
    kx_zlog_category_t *cat = kx_zlog_init("m");
    ASSERT_NE(cat, nullptr);
    LOG(cat, KX_ZLOG_LEVEL_ERROR, "before rotation, a rather long line");
    ASSERT_EQ(truncate(default_log().c_str(), 0), 0); // what copytruncate does
    LOG(cat, KX_ZLOG_LEVEL_ERROR, "after");
    std::string text = read_file(default_log());
    EXPECT_EQ(text.find('\0'), std::string::npos) << "the write landed past the new end";
    ASSERT_EQ(lines_of(text).size(), 1u);
    EXPECT_EQ(text.substr(text.size() - 7), " after\n");
}

} // namespace
