// The built daemon against a private redis-server: it connects and reaches its loop,
// refuses a second instance, ends on SIGTERM, boots before its inputs exist writing only
// what its level asks, and stops with the connect code without a server. Whole cards
// (inputs in every order, subcards, the debug shell, a server restarted or stopped under
// them, malformed records, killed connections) are played by the demo, the chassis and
// its fault suite (scripts/chassis), and two_stores_test; what each step decides, by the
// unit tests.
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

    Env env(std::string addr) const
    {
        return {{"KX_ROOT", root_.path()}, {"KX_MOM_ADDR", addr}, {"KX_LOG", log_}};
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
};

// A card booting before any of its inputs exists is normal: at debug level 0 nothing is
// written, at 1 only the daemon's error-class lines (libkx has nothing to say about it),
// the three databases' connections first. SIGTERM ends it with status 0.
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
        std::istringstream text(log());
        for (std::string line; std::getline(text, line);)
            EXPECT_TRUE(level[0] == '1' && std::regex_match(line, error)) << line;
        if (level[0] == '1') {
            EXPECT_EQ(lines("main"),
                      (Lines{"ERROR connect host success", "ERROR connect tunner_db success",
                             "ERROR connect cap_db success"}));
        }
        daemon_->signal(SIGTERM);
        ASSERT_EQ(daemon_->wait(), 0);
    }
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

} // namespace
