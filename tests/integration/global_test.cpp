// The single-instance lock across real processes. (The loop ending on SIGTERM is
// checked where a loop runs: ssat_test.)
#include <csignal>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kx_global.h"
#include "test_redis.h"

using namespace testsupport;

namespace {

// The verdict of a forked instance: 0 it may start, 1 refused, -1 it hung and was killed.
int instance()
{
    pid_t pid = fork();
    if (pid == 0)
        _exit(kx_initframe_duplicate_check() == 0 ? 0 : 1);
    int raw = 0;
    if (wait_for([&] { return waitpid(pid, &raw, WNOHANG) == pid; }))
        return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    kill(pid, SIGKILL);
    waitpid(pid, &raw, 0);
    return -1;
}

TEST(Global, OneInstanceAtATimeAndAStalePidFileIsNoObstacle)
{
    TempDir root;
    setenv("KX_ROOT", root.path().c_str(), 1);
    std::string pid_file = root / "var/run/" + program_invocation_short_name + ".pid";
    write_file(pid_file, "4711\n"); // left behind by an instance that died
    int live = open(pid_file.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(flock(live, LOCK_EX), 0); // what a live instance holds
    EXPECT_EQ(instance(), 1) << "a second live instance was not refused";
    close(live);
    EXPECT_EQ(instance(), 0) << "a stale pid file refused a legitimate start";
}

} // namespace
