// The process framework as the built daemon meets it before it has a store: the
// single-instance lock and its standard descriptors. (The loop ending on SIGTERM is
// checked where a loop runs: ssat_test, zlog_test.)
#include <cstdio>
#include <regex>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include "test_redis.h"

using namespace testsupport;

namespace {

// No store answers: an instance that gets past the lock stops at its first connect.
Env env(const TempDir &root)
{
    return {{"KX_ROOT", root.path()}, {"KX_MOM_ADDR", "unix:" + root / "none.sock"}};
}

// The lock is the program's, whatever name it runs under; a refusal says why on
// stderr beside the daemon's own line, and a stale pid file is no obstacle.
TEST(Global, OneInstanceWhateverItsNameAndARefusalSaysWhy)
{
    TempDir root;
    const std::string pid_file = root / "var/run/vek_cap.pid", other = root / "other_name";
    write_file(pid_file, "4711\n");
    ASSERT_EQ(symlink(VEK_CAP_BIN, other.c_str()), 0);
    int live = open(pid_file.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(flock(live, LOCK_EX), 0); // what a live instance holds
    RunResult r = run({other}, env(root));
    EXPECT_EQ(
        std::to_string(r.status) + "|" + r.out + "|" + r.err,
        "255|tolvex, ret=-17, FAIL\r\n|kx_global: vek_cap is already running: pid 4711 holds " +
            pid_file + "\n");

    // Left behind by an instance that died. Started with standard error closed, the daemon
    // must not hand descriptor 2 to the lock file: its log on stderr would land there.
    close(live);
    Env with_log = env(root);
    with_log["KX_LOG"] = "stderr";
    r = run({"sh", "-c", "exec \"$0\" 2>&-", other}, with_log);
    const std::string pid = read_file(pid_file);
    EXPECT_TRUE(r.out.empty() && pid != "4711\n" && std::regex_match(pid, std::regex("[0-9]+\n")))
        << r.out << pid;

    ASSERT_EQ(rename((root / "var/run").c_str(), (root / "run").c_str()), 0);
    write_file(root / "var/run", ""); // a file where the directory belongs
    r = run({VEK_CAP_BIN}, env(root));
    EXPECT_EQ(r.out + r.err, "tolvex, ret=-20, FAIL\r\nkx_global: cannot open " + pid_file +
                                 ": Not a directory\n");
}

} // namespace
