// The process framework: the single-instance lock across real processes, and the
// loop ending on SIGTERM and SIGINT through kx_global_finish.
#include <csignal>
#include <cstring>
#include <string>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kx_global.h"
#include "ssat.h"
#include "test_redis.h"

using namespace testsupport;

namespace {

class GlobalTest : public ::testing::Test {
protected:
    void SetUp() override { setenv("KX_ROOT", root.path().c_str(), 1); }
    void TearDown() override { unsetenv("KX_ROOT"); }
    TempDir root;
};

// Exit status of a child, or -1 when it does not end in time (it is then killed).
int reap(pid_t pid)
{
    int raw = 0;
    if (!wait_for([&] { return waitpid(pid, &raw, WNOHANG) == pid; })) {
        kill(pid, SIGKILL);
        waitpid(pid, &raw, 0);
        return -1;
    }
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
}

// A child that runs the duplicate check: 0 when it got the lock, 1 when refused.
// With `hold`, it keeps the lock and reports through `ready` until killed.
pid_t start_instance(bool hold, int ready)
{
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    int rc = kx_initframe_duplicate_check();
    if (hold) {
        char byte = rc == 0 ? 'y' : 'n';
        (void)!write(ready, &byte, 1);
        pause();
    }
    _exit(rc == 0 ? 0 : 1);
}

TEST_F(GlobalTest, OnlyOneLiveInstanceHoldsTheLock)
{
    std::string pid_file = root / "var/run/" + program_invocation_short_name + ".pid";
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t first = start_instance(true, ready[1]);
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    EXPECT_EQ(byte, 'y');
    EXPECT_EQ(read_file(pid_file), std::to_string(first) + "\n");

    EXPECT_EQ(reap(start_instance(false, -1)), 1) << "a second live instance was not refused";

    kill(first, SIGKILL); // leaves its pid file behind
    reap(first);
    pid_t third = start_instance(false, -1);
    EXPECT_EQ(reap(third), 0) << "a stale pid file refused a legitimate start";
    EXPECT_EQ(read_file(pid_file), std::to_string(third) + "\n");
    close(ready[0]);
    close(ready[1]);
}

bool answers_help(const std::string &path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    bool ok = connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 &&
              send(fd, "help\n", 5, MSG_NOSIGNAL) == 5;
    char buf[16] = {};
    ok = ok && recv(fd, buf, 3, MSG_WAITALL) == 3 && memcmp(buf, "OK ", 3) == 0;
    close(fd);
    return ok;
}

TEST_F(GlobalTest, StopSignalsEndTheLoopAndFinishCleansUp)
{
    for (int sig : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(strsignal(sig));
        pid_t child = fork();
        if (child == 0) {
            kx_global_t *g = kx_global_init("global_test", nullptr);
            if (!g || ssat_lib_init(g, "sigtest") != 0)
                _exit(10);
            int32_t rc = kx_global_run(g);
            kx_global_finish(g);
            _exit(rc == 0 ? 0 : 11);
        }
        // The shell answering proves the loop is running when the signal comes.
        std::string sock = root / "var/run/ssat/sigtest.sock";
        ASSERT_TRUE(wait_for([&] { return answers_help(sock); })) << "the child never served";
        kill(child, sig);
        EXPECT_EQ(reap(child), 0);
        EXPECT_NE(access(sock.c_str(), F_OK), 0) << "kx_global_finish left the socket behind";
    }
}

TEST(Monotime, FillsSecondsAndMicroseconds)
{
    kx_timestamp_t a{}, b{};
    ASSERT_EQ(kx_monotime(&a), 0);
    ASSERT_EQ(kx_monotime(&b), 0);
    EXPECT_LT(a.usec, 1000000u);
    EXPECT_TRUE(b.sec > a.sec || (b.sec == a.sec && b.usec >= a.usec));
    EXPECT_EQ(kx_monotime(nullptr), -1);
}

} // namespace
