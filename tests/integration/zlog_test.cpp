// The log sink: the exact record, the level, where the output goes, the
// configurations that must leave the daemon without a log, and log rotation.
#include <atomic>
#include <csignal>
#include <regex>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kx_global.h"
#include "kx_zlog.h"
#include "test_redis.h"

using namespace testsupport;

namespace {

// A call as the daemon's log macros make it: the file name is cut at its length.
void log(kx_zlog_category_t *cat, int level, const char *text)
{
    kxdf_zlog(cat, "app/vek_cap/vek_cap.cpp", 19, "vek_cap_indep_init", 18, 212, level, "%s", text);
}

// The log's text with each record's time stamp ("2026-11-22 23:01:02.123456 ") as "T ".
std::string unstamped(const std::string &text)
{
    static const std::regex stamp(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} )");
    return std::regex_replace(text, stamp, "T ");
}

// What follows the level in each record that log() writes.
std::string source()
{
    return " [" + std::to_string(getpid()) + ":app/vek_cap/vek_cap:vek_cap_indep_init:212] ";
}

// The output is KX_LOG, then the configuration's, then the default; a configuration that
// cannot be used, or an output that cannot be opened, leaves no log. Records are one
// escaped line each, from the configured level up.
TEST(Zlog, OutputAndLevelAsConfiguredAndRecordsOneEscapedLineEach)
{
    TempDir root;
    setenv("KX_ROOT", root.path().c_str(), 1);
    const std::string conf = root / "conf.log", env = root / "env.log", bad = root / "no/dir/x";
    // configuration (none in the first two), KX_LOG, the file written (none: refused)
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"", "", root / "var/log/m.log"}, {"", bad, ""},           {"output = " + conf, "", conf},
        {"output = " + conf, env, env},   {"output", "", ""},      {"levle = INFO", "", ""},
        {"level = LOUD", "", ""},         {"level = 254", "", ""},
    };
    for (const auto &[config, kx_log, written] : cases) {
        if (!config.empty())
            write_file(root / "etc/kx/m.zlog", config + "\n");
        setenv("KX_LOG", kx_log.c_str(), 1);
        kx_zlog_category_t *cat = kx_zlog_init("m");
        ASSERT_EQ(cat != nullptr, !written.empty()) << config << " KX_LOG=" << kx_log;
        log(cat, KX_ZLOG_LEVEL_ERROR, written.c_str());
        EXPECT_TRUE(written.empty() || read_file(written).ends_with(written + "\n")) << written;
    }

    write_file(root / "etc/kx/m.zlog", "# quiet\n\n  level=notice  \n");
    setenv("KX_LOG", (root / "levels.log").c_str(), 1);
    kx_zlog_category_t *cat = kx_zlog_init("m");
    ASSERT_NE(cat, nullptr);
    log(cat, KX_ZLOG_LEVEL_INFO, "below");
    log(cat, KX_ZLOG_LEVEL_NOTICE, "init ham fail");
    log(cat, KX_ZLOG_LEVEL_WARN, "one line feed\n");
    log(cat, KX_ZLOG_LEVEL_FATAL, "a\r\n\tb\x01\n\n");
    EXPECT_EQ(unstamped(read_file(root / "levels.log")),
              "T NOTICE" + source() + "init ham fail\nT WARN" + source() +
                  "one line feed\nT FATAL" + source() + "a\\r\\n\\tb\\x01\\n\n");
}

// Under systemd standard error is a stream to the journal, named by JOURNAL_STREAM: each
// record then starts with its syslog priority, and the journal keeps the time. Any other
// standard error (a pipe, a terminal, another file) gets the plain record.
TEST(Zlog, StandardErrorThatIsTheJournalGetsEachRecordsPriority)
{
    TempDir root;
    setenv("KX_ROOT", root.path().c_str(), 1);
    setenv("KX_LOG", "stderr", 1);
    const std::string path = root / "stderr";
    const int saved = dup(STDERR_FILENO);
    ASSERT_TRUE(freopen(path.c_str(), "a", stderr)) << path;
    struct stat st {};
    ASSERT_EQ(fstat(STDERR_FILENO, &st), 0);
    const std::string stream = std::to_string(st.st_dev) + ':' + std::to_string(st.st_ino);
    for (const std::string &named : {stream + "0", stream}) {
        setenv("JOURNAL_STREAM", named.c_str(), 1);
        kx_zlog_category_t *cat = kx_zlog_init("m");
        log(cat, KX_ZLOG_LEVEL_WARN, "w");
        log(cat, KX_ZLOG_LEVEL_DEBUG, "d");
    }
    unsetenv("JOURNAL_STREAM");
    dup2(saved, STDERR_FILENO);
    close(saved);
    const std::string plain = "T WARN" + source() + "w\nT DEBUG" + source() + "d\n";
    const std::string journal = "<4>WARN" + source() + "w\n<7>DEBUG" + source() + "d\n";
    EXPECT_EQ(unstamped(read_file(path)), plain + journal);
}

// logrotate moves the log away, then sends SIGHUP: the process lives on and its records
// go to a new file by the configured name.
TEST(Zlog, SighupOpensTheLogAgainAndEndsNothing)
{
    TempDir root;
    const std::string path = root / "m.log";
    setenv("KX_LOG", path.c_str(), 1);
    kx_zlog_category_t *cat = kx_zlog_init("m");
    kx_global_t *global = kx_global_init("m", nullptr);
    std::atomic<bool> ended = false;
    std::thread loop([&] { ended = kx_global_run(global) == 0; }); // a failure ends the program
    log(cat, KX_ZLOG_LEVEL_ERROR, "before");
    ASSERT_EQ(rename(path.c_str(), (path + ".1").c_str()), 0);
    kill(getpid(), SIGHUP);
    EXPECT_TRUE(wait_for([&] { return access(path.c_str(), F_OK) == 0; })) << "no new log";
    kill(getpid(), SIGTERM);
    ASSERT_TRUE(wait_for([&] { return ended.load(); })) << "SIGTERM left the loop running";
    loop.join();
    kx_global_finish(global);
    log(cat, KX_ZLOG_LEVEL_ERROR, "after");
    EXPECT_TRUE(read_file(path + ".1").ends_with("before\n") &&
                read_file(path).ends_with("after\n"));
}

} // namespace
