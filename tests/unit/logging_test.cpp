// The log convention: the level file read at start, the gate on the four classes, and
// the level changed from the debug shell.
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kx_double.h"
#include "test_redis.h"
#include "vek_cap.h"
#include "vek_cap_fixture.h"

// The unit the log macros name here, as the daemon's own files do.
static constexpr std::string_view vek_cap_unit = "app/vek_cap/vek_cap";

namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

void log_every_class()
{
    VEK_CAP_ERR("e %d", 1);
    VEK_CAP_WARN("w %d", 2);
    VEK_CAP_INFO("i %d", 3);
    VEK_CAP_DBG("d %d", 4);
}

class Logging : public vek_cap_test::DaemonTest {
protected:
    testsupport::TempDir root_;
    void SetUp() override
    {
        DaemonTest::SetUp();
        kxd::set_root(root_.path());
    }
    void write_level(const std::string &text)
    {
        testsupport::write_file(root_ / "data/.tavo/vsd/0/sw-frame/cap/vek_cap/vek_cap_dbg.txt",
                                text);
    }
};

TEST_F(Logging, LevelFileSetsTheGateOfEachClass)
{
    const std::string e = "ERROR app/vek_cap/vek_cap log_every_class: e 1";
    const std::string w = "WARN app/vek_cap/vek_cap log_every_class: w 2";
    const std::string i = "INFO app/vek_cap/vek_cap log_every_class: i 3";
    const std::string d = "DEBUG app/vek_cap/vek_cap log_every_class: d 4";
    struct Case {
        const char *file; // nullptr: no level file
        uint32_t level;
        std::vector<std::string> written;
    };
    const Case cases[] = {
        {nullptr, 1, {e}},
        {"0", 0, {}},
        {"1", 1, {e}},
        {"2", 2, {e, w}},
        {"3", 3, {e, w}},
        {"4", 4, {e, w, i}},
        {"5\n", 5, {e, w, i, d}},
        {"-1", 0xffffffffu, {e, w, i, d}},
        {"", 0, {}},
        {"junk", 0, {}},
        {"  2x", 2, {e, w}},
        {"000000000000005", 0, {}}, // only the first 14 bytes count
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.file ? c.file : "(no file)");
        TearDown();
        SetUp();
        if (c.file)
            write_level(c.file);
        EXPECT_EQ(vek_cap_zlog_init("vek_cap"), 0);
        EXPECT_EQ(g_vek_cap_dbg_level, c.level);
        // The level is set before the sink exists: of the start-up only "leave" can be
        // written, never "enter" nor "set debug level".
        std::vector<std::string> written = c.written;
        if (c.level >= 4)
            written.insert(written.begin(), "INFO app/vek_cap/vek_cap_dbg vek_cap_zlog_init: leave");
        log_every_class();
        EXPECT_THAT(kxd::log_briefs(), ElementsAreArray(written));
    }
}

TEST_F(Logging, WithoutASinkNothingIsWrittenAndMessagesAreCutToTheBuffer)
{
    write_level("5");
    kxd::fail_null("kx_zlog_init");
    EXPECT_EQ(vek_cap_zlog_init("vek_cap"), 0);
    EXPECT_EQ(g_vek_cap_dbg_level, 5u);
    log_every_class();
    EXPECT_THAT(kxd::logs(), IsEmpty());

    g_vek_cap_zlog_category = kx_zlog_init("vek_cap");
    const std::string long_text(1500, 'x');
    VEK_CAP_ERR("%s", long_text.c_str());
    ASSERT_EQ(kxd::logs().size(), 1u);
    EXPECT_EQ(kxd::logs()[0].text, long_text.substr(0, 1023));
}

TEST_F(Logging, LogLevelCommand)
{
    vek_cap_test::start_daemon_state(1);
    ASSERT_EQ(vek_cap_ssat_init(g_vek_cap_global, "vek_cap"), 0);
    const kxd::SsatCommand *cmd = kxd::ssat_find("log-level");
    ASSERT_NE(cmd, nullptr);
    EXPECT_EQ(cmd->module, "vek_cap");
    EXPECT_EQ(cmd->format, "%d");

    struct Case {
        const char *arg;
        uint32_t level;
        std::vector<std::string> written;
    };
    const Case cases[] = {
        {"3", 3, {}},
        {"4", 4, {"INFO app/vek_cap/vek_cap_dbg vek_cap_log_level: set debug level 4"}},
        {"-1", 0xffffffffu, {"INFO app/vek_cap/vek_cap_dbg vek_cap_log_level: set debug level -1"}},
        {"0", 0, {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.arg);
        kxd::clear_logs();
        EXPECT_EQ(kxd::ssat_invoke("log-level", c.arg), "");
        EXPECT_EQ(g_vek_cap_dbg_level, c.level);
        EXPECT_THAT(kxd::log_briefs(), ElementsAreArray(c.written));
    }
    // Level 0 silences even errors.
    log_every_class();
    EXPECT_THAT(kxd::logs(), IsEmpty());
}

TEST_F(Logging, DebugShellThatCannotStartRegistersNothing)
{
    vek_cap_test::start_daemon_state(1);
    kxd::fail("ssat_lib_init", SSAT_ESOCKET);
    EXPECT_EQ(vek_cap_ssat_init(g_vek_cap_global, "vek_cap"), SSAT_ESOCKET);
    EXPECT_THAT(kxd::ssat_commands(), IsEmpty());
    EXPECT_THAT(kxd::log_briefs(),
                ElementsAre("ERROR app/vek_cap/vek_cap_dbg vek_cap_ssat_init: failed,rv -2002"));
}

} // namespace
