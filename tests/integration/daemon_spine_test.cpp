// The built daemon against a private redis-server: it reaches its loop, refuses a
// second instance, ends on SIGTERM, exits 77 when the server restarts under it,
// survives its connections being killed, and stops with the connect code without Redis.
#include <csignal>
#include <cstdlib>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test_redis.h"

using namespace testsupport;

namespace {

// One error line of the daemon proper, "... ERROR [pid:app/vek_cap/vek_cap:func:line] text".
bool has_error_line(const std::string &log, const std::string &func, const std::string &text)
{
    std::istringstream lines(log);
    const std::string where = ":app/vek_cap/vek_cap:" + func + ":";
    for (std::string line; std::getline(lines, line);)
        if (line.find(" ERROR [") != std::string::npos && line.find(where) != std::string::npos &&
            line.ends_with("] " + text))
            return true;
    return false;
}

class DaemonSpine : public ::testing::Test {
protected:
    TempDir root_;
    std::string log_ = root_ / "vek_cap.log";

    Env env(const std::string &addr) const
    {
        return {{"KX_ROOT", root_.path()}, {"KX_MOM_ADDR", addr}, {"KX_LOG", log_}};
    }
    std::unique_ptr<Process> start(const RedisServer &redis)
    {
        auto daemon = std::make_unique<Process>(std::vector<std::string>{VEK_CAP_BIN},
                                                env(redis.addr()), root_.path(), "vek_cap");
        EXPECT_TRUE(wait_for([&] { return has_error_line(log(), "main", "connect cap_db success"); }))
            << log();
        return daemon;
    }
    std::string log() const { return read_file(log_); }
};

TEST_F(DaemonSpine, ReachesTheLoopRefusesASecondInstanceAndEndsOnSigterm)
{
    RedisServer redis;
    auto daemon = start(redis);
    EXPECT_TRUE(has_error_line(log(), "main", "connect host success"));
    EXPECT_TRUE(has_error_line(log(), "main", "connect tunner_db success"));
    ASSERT_TRUE(daemon->running());

    RunResult second = run({VEK_CAP_BIN}, env(redis.addr()));
    EXPECT_EQ(second.status, 255);
    EXPECT_TRUE(std::regex_match(second.out, std::regex("tolvex, ret=-?[1-9][0-9]*, FAIL\r\n")))
        << second.out;

    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->wait(), 0);
}

TEST_F(DaemonSpine, ARestartedServerEndsItWith77)
{
    RedisServer redis;
    auto daemon = start(redis);
    redis.restart();
    EXPECT_EQ(daemon->wait(), 77) << log();
    std::string text = log();
    EXPECT_TRUE(std::regex_search(
        text, std::regex(" ERROR \\[[0-9]+:app/vek_cap/vek_cap:vek_cap_reconnect_db:[0-9]+\\] "
                         "db (3|1|28) type 1\n")))
        << text;
}

TEST_F(DaemonSpine, KilledConnectionsComeBackAndItRunsOn)
{
    RedisServer redis;
    auto daemon = start(redis);
    redis.cli(0, {"CLIENT", "KILL", "TYPE", "pubsub"});
    redis.cli(0, {"CLIENT", "KILL", "TYPE", "normal"});
    EXPECT_TRUE(wait_for([&] {
        std::string text = log();
        return has_error_line(text, "vek_cap_reconnect_db", "reconnect set db 3 state") &&
               has_error_line(text, "vek_cap_reconnect_db", "reconnect set db 1 state") &&
               has_error_line(text, "vek_cap_reconnect_db", "reconnect set db 28 state");
    })) << log();
    EXPECT_TRUE(daemon->running());
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->wait(), 0);
}

TEST_F(DaemonSpine, WithoutRedisItStopsWithTheConnectCode)
{
    RunResult r = run({VEK_CAP_BIN}, env("unix:" + (root_ / "no-redis.sock")));
    std::smatch m;
    std::string text = log();
    ASSERT_TRUE(std::regex_search(text, m, std::regex("\\] connect host failed, rv (-?[0-9]+)\n")))
        << text;
    int rv = std::stoi(m[1]);
    EXPECT_NE(rv, 0);
    EXPECT_TRUE(has_error_line(text, "main", "connect host failed, rv " + std::to_string(rv)));
    EXPECT_EQ(r.status, rv & 0xff);
}

} // namespace
