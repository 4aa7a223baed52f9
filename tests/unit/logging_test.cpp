// The log convention: the level file read at start, the gate of the four classes, and the
// level set from the debug shell.
#include <gtest/gtest.h>

#include "test_redis.h"
#include "vek_cap_fixture.h"

// The unit the log macros name here, as the daemon's own files do.
static constexpr std::string_view vek_cap_unit = "app/vek_cap/vek_cap";

namespace {

using Logging = vek_cap_test::DaemonTest;

// Each class logs its own name: a record shows both the gate and the zlog level.
TEST_F(Logging, LevelFileSetsTheGateOfEachClass)
{
    testsupport::TempDir root;
    // The file's text (nullptr: none, first as a file stays once written), the level read,
    // and how many of error, warning, info and debug are then written.
    struct Case {
        const char *file;
        uint32_t level;
        size_t classes;
    };
    const Case cases[] = {
        {nullptr, 1, 1}, {"0", 0, 0},    {"1", 1, 1},   {"2", 2, 2},
        {"3", 3, 2},     {"4", 4, 3},    {"5\n", 5, 4}, {"-1", 0xffffffffu, 4},
        {"", 0, 0},      {"junk", 0, 0}, {" 2x", 2, 2}, {"000000000000005", 0, 0}};
    const std::string names[] = {"ERROR", "WARN", "INFO", "DEBUG"};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.file ? c.file : "no file");
        SetUp();
        kxd::set_root(root.path());
        if (c.file)
            testsupport::write_file(root / "data/.tavo/vsd/0/sw-frame/cap/vek_cap/vek_cap_dbg.txt",
                                    c.file);
        EXPECT_EQ(vek_cap_zlog_init("vek_cap"), 0);
        EXPECT_EQ(g_vek_cap_dbg_level, c.level);
        VEK_CAP_ERR("ERROR");
        VEK_CAP_WARN("WARN");
        VEK_CAP_INFO("INFO");
        VEK_CAP_DBG("DEBUG");
        // The level is set before the sink exists: of the log's start-up only "leave" shows.
        std::vector<std::string> want;
        if (c.level >= 4)
            want.push_back("INFO app/vek_cap/vek_cap_dbg vek_cap_zlog_init: leave");
        for (size_t i = 0; i < c.classes; ++i)
            want.push_back(names[i] + " app/vek_cap/vek_cap TestBody: " + names[i]);
        EXPECT_EQ(kxd::log_briefs(), want);
    }
}

TEST_F(Logging, LogLevelCommand)
{
    vek_cap_test::start_daemon_state(1);
    ASSERT_EQ(vek_cap_ssat_init(g_vek_cap_global, "vek_cap"), 0);
    for (int32_t level : {3, 4, -1, 0}) {
        kxd::clear();
        ASSERT_TRUE(kxd::ssat_run("log-level", level));
        EXPECT_EQ(g_vek_cap_dbg_level, static_cast<uint32_t>(level));
        const auto line = "INFO app/vek_cap/vek_cap_dbg vek_cap_log_level: set debug level " +
                          std::to_string(level);
        EXPECT_EQ(kxd::log_briefs(), std::vector<std::string>(level >= 4 || level < 0, line))
            << level;
    }
}

} // namespace
