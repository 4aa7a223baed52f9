// The built daemon against a private redis-server: it connects and reaches its loop,
// refuses a second instance, ends on SIGTERM, exits 77 when the server restarts under
// it, reconnects after its connections are killed (libkx saying why in its log), stays
// responsive while the server is stopped, stops with the connect code without a
// server, and subscribes its dependency modules in bucket order until all are ready.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <map>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#define XXH_INLINE_ALL
#include <xxhash.h>

#include "test_redis.h"

using namespace testsupport;
using Lines = std::vector<std::string>;

namespace {

class Daemon : public ::testing::Test {
protected:
    TempDir root_;
    RedisServer redis_;
    std::string log_ = root_ / "vek_cap.log";
    std::unique_ptr<Process> daemon_;

    void SetUp() override { write_file(root_ / "data/.tavo/vsd/0/sw-frame/cap/vek_cap/vek_cap_dbg.txt", "5\n"); }
    Env env(std::string addr) const { return {{"KX_ROOT", root_.path()}, {"KX_MOM_ADDR", addr}, {"KX_LOG", log_}}; }
    // Starts the daemon and waits until it has connected its three databases.
    void start()
    {
        daemon_ = std::make_unique<Process>(Lines{VEK_CAP_BIN}, env(redis_.addr()), root_.path(), "vek_cap");
        ASSERT_TRUE(wait_for([&] { return count("main", "ERROR connect cap_db success") == 1; })) << log();
    }
    std::string log() const { return read_file(log_); }
    // "LEVEL text" of each line the daemon proper (or `unit`) wrote from `func`; a line
    // reads "date time LEVEL [pid:app/vek_cap/vek_cap:func:line] text".
    Lines lines(const std::string &func, const std::string &unit = "app/vek_cap/vek_cap") const
    {
        static const std::regex line("\\S+ \\S+ (\\w+) \\[[0-9]+:([\\w/]+):(\\w+):[0-9]+\\] (.*)");
        Lines out;
        std::istringstream in(log());
        for (std::string text; std::getline(in, text);)
            if (std::smatch m; std::regex_match(text, m, line) && m[2] == unit && m[3] == func)
                out.push_back(m[1].str() + " " + m[4].str());
        return out;
    }
    long count(const std::string &func, const std::string &line) const { return std::ranges::count(lines(func), line); }
};

TEST_F(Daemon, ConnectsRefusesASecondInstanceAndEndsOnSigterm)
{
    start();
    EXPECT_EQ(lines("main"), (Lines{"ERROR connect host success", "ERROR connect tunner_db success",
                                    "ERROR connect cap_db success"}));
    const RunResult second = run({VEK_CAP_BIN}, env(redis_.addr()));
    EXPECT_EQ(second.status, 255);
    EXPECT_TRUE(std::regex_match(second.out, std::regex("tolvex, ret=-?[1-9][0-9]*, FAIL\r\n"))) << second.out;
    daemon_->signal(SIGTERM);
    EXPECT_EQ(daemon_->wait(), 0);
}

TEST_F(Daemon, ARestartedServerEndsItWith77)
{
    start();
    redis_.restart();
    EXPECT_EQ(daemon_->wait(), 77) << log();
    EXPECT_THAT(lines("vek_cap_reconnect_db"), testing::Contains(testing::MatchesRegex("ERROR db (3|1|28) type 1")));
}

TEST_F(Daemon, KilledConnectionsComeBackAndItRunsOn)
{
    start();
    redis_.cli(0, {"CLIENT", "KILL", "TYPE", "pubsub"});
    redis_.cli(0, {"CLIENT", "KILL", "TYPE", "normal"});
    for (const char *db : {"3", "1", "28"})
        EXPECT_TRUE(wait_for([&] {
            return count("vek_cap_reconnect_db", std::string("ERROR reconnect set db ") + db + " state") > 0;
        })) << db << "\n" << log();
    EXPECT_THAT(lines("mark_down", "platform/kx"), testing::Contains(testing::MatchesRegex(
        "WARN db 3: connection to " + redis_.addr() + " lost: (subscriber|command) connection closed by the server")));
    daemon_->signal(SIGTERM);
    EXPECT_EQ(daemon_->wait(), 0);
}

// The server stopped just after the connections were killed: libkx's reconnects find a
// server that takes connections and never answers, and the shell and SIGTERM still work.
TEST_F(Daemon, UnderAStoppedServerTheShellAnswersAndSigtermEndsIt)
{
    using Clock = std::chrono::steady_clock;
    start();
    const std::string info = redis_.cli(0, {"INFO", "server"});
    const pid_t server = std::stoi(info.substr(info.find("process_id:") + 11));
    redis_.cli(0, {"CLIENT", "KILL", "TYPE", "normal"});
    kill(server, SIGSTOP);
    // The shell, asked again and again until a reconnect has given up on the server.
    const std::regex failed("WARN db (3|1|28): reconnect failed: .*: no answer to .* within 2 s");
    for (const auto until = Clock::now() + 10s;
         std::ranges::none_of(lines("dial_on", "platform/kx"), [&](auto &l) { return std::regex_match(l, failed); });) {
        ASSERT_LT(Clock::now(), until) << log();
        const auto asked = Clock::now();
        ASSERT_EQ(run({SSAT_BIN, "vek_cap", "help"}, {{"KX_ROOT", root_.path()}}).status, 0);
        ASSERT_LT(Clock::now() - asked, 500ms);
    }
    const auto asked = Clock::now();
    daemon_->signal(SIGTERM);
    EXPECT_EQ(daemon_->wait(), 0);
    EXPECT_LT(Clock::now() - asked, 3s);
    kill(server, SIGCONT);
}

TEST_F(Daemon, WithoutRedisItStopsWithTheConnectCode)
{
    const RunResult r = run({VEK_CAP_BIN}, env("unix:" + (root_ / "no-redis.sock")));
    const Lines main_lines = lines("main");
    std::smatch m;
    const std::regex failed("ERROR connect host failed, rv (-[1-9][0-9]*)");
    ASSERT_TRUE(main_lines.size() == 1 && std::regex_match(main_lines[0], m, failed)) << log();
    EXPECT_EQ(r.status, std::stoi(m[1]) & 0xff);
}

TEST_F(Daemon, SubscribesModulesInBucketOrderAppliesTheirRecordsAndLatches)
{
    // Five modules hold 8 buckets. Names with five different home buckets there each stay
    // in their home bucket whatever order the directory lists them in.
    const Lines modules = {"fib_mgr", "acl_mgr", "stp_mgr", "mpls_mgr", ".lldp_mgr"};
    std::map<uint32_t, std::string> by_bucket;
    for (const auto &name : modules) {
        char key[64] = {};
        name.copy(key, 63);
        by_bucket[XXH32(key, sizeof key, 0) & 7] = "module " + name;
        write_file(root_ / "etc/cap_cfg/cap_dep/fe/" + name, "");
    }
    start();
    auto subscribed = [&] {
        static const std::regex ok("ERROR DEP subscribe ok, (module \\S+) [0-9]+:[0-9]+");
        Lines names;
        for (const auto &text : lines("vek_cap_dep_pmsg_f"))
            if (std::smatch m; std::regex_match(text, m, ok))
                names.push_back(m[1]);
        return names;
    };
    ASSERT_TRUE(wait_for([&] { return subscribed().size() == modules.size(); })) << log();
    Lines in_bucket_order;
    for (const auto &[bucket, module] : by_bucket)
        in_bucket_order.push_back(module);
    EXPECT_EQ(subscribed(), in_bucket_order);

    for (const auto &name : modules) {
        redis_.cli(3, {"HSET", "s_frame.cap_dep|" + name, "ready", "true"});
        const std::string applied = "INFO module " + name + ", ready 1 dir 1";
        ASSERT_TRUE(wait_for([&] { return count("vek_cap_insert_dep_hash", applied) == 1; })) << name << "\n" << log();
    }
    // Every module has been seen ready: a module turning not ready is logged and ignored.
    redis_.cli(3, {"HSET", "s_frame.cap_dep|fib_mgr", "ready", "false"});
    ASSERT_TRUE(wait_for([&] { return count("vek_cap_dep_pro", "WARN all mod is ready not need to pro") == 1; }));
    EXPECT_EQ(count("vek_cap_insert_dep_hash", "INFO module fib_mgr, ready 0 dir 1"), 0);
    daemon_->signal(SIGTERM);
    EXPECT_EQ(daemon_->wait(), 0);
}

} // namespace
