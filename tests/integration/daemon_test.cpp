// The built daemon against a private redis-server: it connects and reaches its loop,
// refuses a second instance, ends on SIGTERM, exits 77 when the server restarts under
// it, stays responsive while the server is stopped, and stops with the connect code
// without a server. A card publishes when the last of its inputs arrives, in every order
// of them, publishes and withdraws subcards, and serves its debug shell. Catch-up of
// malformed entries, deletion notices and killed connections are played on whole cards
// by the demo and the fault suite (scripts/chassis --fault).
#include <algorithm>
#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

    void SetUp() override
    {
        write_file(root_ / "data/.tavo/vsd/0/sw-frame/cap/vek_cap/vek_cap_dbg.txt", "5\n");
    }
    Env env(std::string addr) const
    {
        return {{"KX_ROOT", root_.path()}, {"KX_MOM_ADDR", addr}, {"KX_LOG", log_}};
    }
    // Starts the daemon and waits until it has connected its three databases.
    void start()
    {
        daemon_ = std::make_unique<Process>(Lines{VEK_CAP_BIN}, env(redis_.addr()), root_.path(),
                                            "vek_cap");
        ASSERT_TRUE(wait_for([&] { return count("main", "ERROR connect cap_db success") == 1; }))
            << log();
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
    long count(const std::string &func, const std::string &line) const
    {
        return std::ranges::count(lines(func), line);
    }
};

TEST_F(Daemon, ConnectsRefusesASecondInstanceAndEndsOnSigterm)
{
    start();
    EXPECT_EQ(lines("main"), (Lines{"ERROR connect host success", "ERROR connect tunner_db success",
                                    "ERROR connect cap_db success"}));
    const RunResult second = run({VEK_CAP_BIN}, env(redis_.addr()));
    EXPECT_EQ(second.status, 255);
    EXPECT_TRUE(std::regex_match(second.out, std::regex("tolvex, ret=-?[1-9][0-9]*, FAIL\r\n")))
        << second.out;
    daemon_->signal(SIGTERM);
    EXPECT_EQ(daemon_->wait(), 0);
}

// A card booting before any of its inputs exists is normal: at debug level 0 nothing is
// written, at 1 only the daemon's error-class lines (libkx has nothing to say about it).
TEST_F(Daemon, ANormalBootBeforeItsInputsWritesOnlyWhatItsLevelAsks)
{
    const std::string level_file = root_ / "data/.tavo/vsd/0/sw-frame/cap/vek_cap/vek_cap_dbg.txt";
    const std::regex error("\\S+ \\S+ ERROR \\[[0-9]+:app/vek_cap/vek_cap:.*");
    for (const char *level : {"1", "0"}) {
        SCOPED_TRACE(level);
        write_file(level_file, std::string(level) + "\n");
        write_file(log_, "");
        daemon_ = std::make_unique<Process>(Lines{VEK_CAP_BIN}, env(redis_.addr()), root_.path(),
                                            "vek_cap");
        // The last catch-up, of the chassis record, follows the last subscription.
        ASSERT_TRUE(wait_for([&] {
            return redis_.cli(0, {"PUBSUB", "NUMSUB", "__keyspace@1__:p_dev.dp_lib_my_chss_info"})
                       .ends_with("\n1");
        }));
        ASSERT_TRUE(level[0] == '0' || wait_for([&] {
            return log().find("CHSS INFO subscribe ok") != std::string::npos;
        }));
        std::this_thread::sleep_for(300ms);
        std::istringstream lines(log());
        for (std::string line; std::getline(lines, line);)
            EXPECT_TRUE(level[0] == '1' && std::regex_match(line, error)) << line;
        daemon_->signal(SIGTERM);
        ASSERT_EQ(daemon_->wait(), 0);
    }
}

TEST_F(Daemon, ARestartedServerEndsItWith77)
{
    start();
    redis_.restart();
    EXPECT_EQ(daemon_->wait(), 77) << log();
    EXPECT_THAT(lines("vek_cap_reconnect_db"),
                testing::Contains(testing::MatchesRegex("ERROR db (3|1|28) type 1")));
    // libkx said in the daemon's log why it lost the connections (closed, or a broken pipe).
    EXPECT_THAT(lines("mark_down", "platform/kx"),
                testing::Contains(testing::MatchesRegex("WARN db 3: connection to " +
                                                        redis_.addr() + " lost: .+")));
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
         std::ranges::none_of(lines("dial_on", "platform/kx"),
                              [&](auto &l) { return std::regex_match(l, failed); });) {
        ASSERT_LT(Clock::now(), until) << log();
        const auto asked = Clock::now();
        ASSERT_EQ(run({SSAT_BIN, "vek_cap", "help"}, {{"KX_ROOT", root_.path()}}).status, 0);
        // A loop held by the dead server would take the 2 s command timeout; a loaded
        // machine (sanitizers, parallel tests) may take a few hundred ms to start ssat.
        ASSERT_LT(Clock::now() - asked, 1500ms);
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

// A card as its services build it: two dependency modules, an identity, a devid,
// capability entries (with the local-only pri and state) and the local ready flag.
class Card : public Daemon {
protected:
    void SetUp() override
    {
        Daemon::SetUp();
        for (const char *module : {"fib_mgr", "acl_mgr"})
            write_file(root_ / "etc/cap_cfg/cap_dep/fe/" + module, "");
    }
    // Starts the daemon and waits until its start-up catch-up reads are over.
    void boot()
    {
        start();
        ASSERT_TRUE(wait_for([&] {
            return count("vek_cap_dp_my_chss_info_pmsg_f", "ERROR failed,rv -4") +
                       count("vek_cap_dp_my_chss_info_pro", "INFO leave") >
                   0;
        })) << log();
    }
    // The inputs, as the card's services write them.
    // clang-format off
    void identity() { cli(1, {"HSET", "p_dev.dp_lib_my_info", "card_nodeid", "16", "card_type", "5",
                              "slotid", "3", "sslotid", "1", "dm_my_node_type", "3",
                              "actual_card_type", "9"}); }
    void devid() { cli(1, {"HSET", "p_dev.dp_lib_my_chss_info", "devid", "7", "dev_desc", "x"}); }
    void local_ready(bool ready) { cli(3, {"SET", "p_libpub.cap_state", ready ? "\x28\x01" : ""}); }
    void modules()
    {
        for (std::string m : {"fib_mgr", "acl_mgr"})
            cli(3, {"HSET", "s_frame.cap_dep|" + m, "ready", "true"});
    }
    void entries()
    {
        cli(3, {"HSET", "p_libpub.cap_table|/fe/l3/ecmp", "bool_value", "true", "int32_value", "64",
                "str_value", "", "pri", "3", "state", "true"});
        cli(3, {"HSET", "p_libpub.cap_table|/fe/a%7Cb", "int32_value", "-1", "pri", "1"});
    }
    // clang-format on
    std::string cli(int db, const Lines &args) { return redis_.cli(db, args); }
    // Publication tries so far: each applied input makes one.
    long tries() const
    {
        static const std::regex tried("WARN node 0x\\S+ devid .*");
        long n = 0;
        for (const auto &text : lines("vek_cap_glb_cap_db_validate"))
            n += std::regex_match(text, tried);
        return n;
    }
    static inline const Lines published = {
        "s_frame.cap_fe_ready|16|5 ready=true config_dev_type=5 devid=7 slotid=3 sslotid=1 "
        "node_type=3 real_time=true",
        "s_frame.cap_glb_table|16|/fe/a%7Cb int32_value=-1",
        "s_frame.cap_glb_table|16|/fe/l3/ecmp bool_value=true int32_value=64 str_value="};
    bool converged(const Lines &expected = published) const
    {
        return wait_for([&] { return redis_.dump(28) == expected; });
    }
};

// Whatever the order of the four conditions, the card publishes when the last one holds
// and not before, exactly its entries (without pri and state) and its ready record.
TEST_F(Card, PublishesWhenTheLastConditionHoldsAndNeverBefore)
{
    // clang-format off
    struct Input { const char *name; std::function<void()> write; int records; };
    std::vector<Input> inputs = {{"identity", [&] { identity(); }, 1},
                                 {"devid", [&] { devid(); }, 1},
                                 {"local ready", [&] { local_ready(true); }, 1},
                                 {"modules", [&] { modules(); }, 2}}; // clang-format on
    std::ranges::sort(inputs, {}, &Input::name);
    do {
        std::string order;
        for (const Input &in : inputs)
            order += std::string(in.name) + ", ";
        SCOPED_TRACE(order);
        redis_.cli(0, {"FLUSHALL"});
        write_file(log_, "");
        entries();
        boot();
        for (size_t i = 0; i < inputs.size(); ++i) {
            const long before = tries();
            inputs[i].write();
            if (i + 1 == inputs.size())
                break;
            ASSERT_TRUE(wait_for([&] { return tries() >= before + inputs[i].records; })) << log();
            ASSERT_EQ(redis_.dump(28), Lines{}) << "after " << inputs[i].name;
        }
        EXPECT_TRUE(converged()) << log();
        daemon_->signal(SIGTERM);
        ASSERT_EQ(daemon_->wait(), 0);
    } while (std::ranges::next_permutation(inputs, {}, &Input::name).found);
}

// Subcards: the ones announced before the start and the ones announced after are
// published with exactly their entries; a preinstalled one is not; a withdrawn one leaves
// nothing behind and touches no other.
TEST_F(Card, SubcardsArePublishedAndWithdrawnWithExactlyTheirRecords)
{
    for (const char *node : {"18", "19", "20", "21"})
        cli(3, {"HSET", std::string("p_libpub.cap_subcard_table|") + node + "|/sub", "int32_value",
                node, "pri", "2"});
    cli(3, {"HSET", "p_libpub.cap_subcard_state|20|7", "ready", "false"});
    cli(3, {"HSET", "p_libpub.cap_subcard_state|21|7", "ready", "true", "is_preinstall", "true"});
    start();
    const Lines twenty = {"s_frame.cap_subcard_glb_table|20|/sub int32_value=20",
                          "s_frame.cap_subcard_ready|20 ready=true"};
    EXPECT_TRUE(converged(twenty)) << log();
    cli(3, {"HSET", "p_libpub.cap_subcard_state|18|7", "ready", "true"});
    const Lines both = {"s_frame.cap_subcard_glb_table|18|/sub int32_value=18", twenty[0],
                        "s_frame.cap_subcard_ready|18 ready=true", twenty[1]};
    EXPECT_TRUE(converged(both)) << log();
    cli(3, {"DEL", "p_libpub.cap_subcard_state|18|7"});
    EXPECT_TRUE(converged(twenty)) << log();
    EXPECT_EQ(count("vek_cap_sub_card_ready_pro", "ERROR node 21 state is preinstall, just return"),
              1);
}

// The debug shell's eight commands through the real client, with the daemon serving on.
TEST_F(Card, TheDebugShellServesEveryCommand)
{
    entries(), identity(), devid(), local_ready(true);
    boot();
    auto ssat = [&](const Lines &args) {
        Lines argv = {SSAT_BIN, "vek_cap"};
        argv.insert(argv.end(), args.begin(), args.end());
        return run(argv, env(redis_.addr()));
    };
    // Setting both registered modules ready through the shell publishes the card.
    for (const char *module : {"fib_mgr", "acl_mgr"}) {
        RunResult r = ssat({"set_dep_mod", module, "5"});
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out, std::string("set dep mod ") + module + " ready true ok");
    }
    EXPECT_TRUE(converged()) << log();

    // Silenced, the log stops; the dumps still print, and collect's file gets the same.
    EXPECT_EQ(ssat({"log-level", "0"}).status, 0);
    const std::string silenced = log(), all = ssat({"dump_all"}).out;
    EXPECT_THAT(all,
                testing::MatchesRegex("g_vek_local_ready, 1\ng_vek_global_ready, 1\ndevid 7.*"
                                      "module:fib_mgr, ready 1\r\nmodule:acl_mgr, ready 1\r\n"));
    EXPECT_EQ(ssat({"collect"}).out, "");
    EXPECT_EQ(read_file(root_ / "data/collect/vek_cap.log").size(), all.size());
    cli(3, {"SET", "p_libpub.cap_state", "\x28\x01"});
    EXPECT_TRUE(wait_for([&] { return ssat({"dump_status"}).status == 0; }));
    EXPECT_EQ(log(), silenced);

    // Bad arguments are refused with the reason; the daemon serves on.
    struct Bad {
        Lines args;
        const char *why;
    };
    // clang-format off
    const Bad bad[] = {{{"log-level", "abc"},
                        "log-level: expected %d, got 'abc', not a 32-bit integer\n"},
                       {{"set_dep_mod"}, "set_dep_mod: expected %s %d"},
                       {{"no_such"}, "unknown command 'no_such' (try help)\n"}};
    // clang-format on
    for (const Bad &b : bad) {
        RunResult r = ssat(b.args);
        EXPECT_EQ(r.status, 1) << b.args[0];
        EXPECT_THAT(r.err, testing::StartsWith(b.why)) << b.args[0];
    }
    EXPECT_EQ(ssat({"dump_status"}).status, 0);
    EXPECT_TRUE(daemon_->running());
}

} // namespace
