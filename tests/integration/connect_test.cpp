// Connecting through sentinels. (A failover and the generated ACL at work are run by the
// chassis simulator: chassis_failover_acl; which credentials a database uses, by
// kx_endpoint_test, and a card's own password file at work by two_stores_test.)
#include <gtest/gtest.h>

#include <csignal>
#include <sstream>

#include "kx_global.h"
#include "kx_mom.h"
#include "test_redis.h"

namespace {

using namespace testsupport;

// kx_mom_client_connect_sync of `db` with `env` set: its code and what it logged.
std::string connect(kx_global_t *g, int32_t db, const Env &env)
{
    for (const auto &[name, value] : env)
        setenv(name.c_str(), value.c_str(), 1);
    testing::internal::CaptureStderr();
    int32_t rc = kx_mom_client_connect_sync(g, db);
    std::string said = testing::internal::GetCapturedStderr();
    for (const auto &[name, value] : env)
        unsetenv(name.c_str());
    return std::to_string(rc) + " " + said;
}

// A server the sentinel names as the primary but that is a replica is not used, nor a
// name the sentinels do not monitor; sentinels that are missing, hang or refuse are each
// passed over, and named when all have failed.
TEST(Connect, SentinelsAreAskedInTurnAndNoReplicaIsTakenForThePrimary)
{
    TempDir dir;
    const std::string port = std::to_string(host::free_port()), sentinel = dir / "sentinel.sock";
    Process replica({"redis-server", "--port", port, "--bind", "127.0.0.1", "--replicaof",
                     "127.0.0.1", "1", "--databases", "32", "--save", "", "--dir", dir.path()},
                    {}, dir.path(), "replica");
    write_file(dir / "sentinel.conf", "port 0\nunixsocket " + sentinel +
                                          "\nsentinel monitor vek 127.0.0.1 " + port + " 1\n");
    Process sentinels({"redis-server", dir / "sentinel.conf", "--sentinel"}, {}, dir.path(), "s");
    ASSERT_TRUE(wait_for([&] {
        return run({"redis-cli", "-s", sentinel, "PING"}).out == "PONG\n" &&
               run({"redis-cli", "-p", port, "PING"}).out == "PONG\n";
    }));
    kx_global_t *g = kx_global_init("connect_test", nullptr);

    const std::string named = "sentinel:unix:" + sentinel + "/vek";
    EXPECT_EQ(connect(g, 28, {{"KX_MOM_ADDR_28", named}}),
              "-1001 kx_mom: db 28: " + named + " at 127.0.0.1:" + port +
                  ": the sentinels name it the primary of 'vek' but its role is slave: not "
                  "connected until they name the primary\n");
    const std::string unknown = "sentinel:unix:" + sentinel + "/other";
    EXPECT_EQ(connect(g, 27, {{"KX_MOM_ADDR_27", unknown}}),
              "-1001 kx_mom: db 27: " + unknown +
                  ": no sentinel named the primary of 'other': unix:" + sentinel +
                  ": no primary named 'other'\n");
    sentinels.signal(SIGSTOP);
    const std::string none = dir / "none.sock",
                      all = "sentinel:unix:" + none + ",unix:" + sentinel + ",127.0.0.1:1/vek";
    EXPECT_EQ(connect(g, 2, {{"KX_MOM_ADDR_2", all}}),
              "-1001 kx_mom: db 2: " + all + ": no sentinel named the primary of 'vek': unix:" +
                  none + ": No such file or directory; unix:" + sentinel +
                  ": no answer within 500 ms; 127.0.0.1:1: Connection refused\n");
    kx_global_finish(g);
}

} // namespace
