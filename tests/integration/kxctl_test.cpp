// kxctl against a real redis-server, checked with plain redis-cli both ways.
#include <csignal>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test_redis.h"

using namespace testsupport;

namespace {

class KxctlTest : public ::testing::Test {
protected:
    RunResult kxctl(const std::vector<std::string> &args)
    {
        std::vector<std::string> argv{KXCTL_BIN};
        argv.insert(argv.end(), args.begin(), args.end());
        return run(argv, env());
    }
    Env env() const { return {{"KX_MOM_ADDR", redis.addr()}}; }

    RedisServer redis;
};

TEST_F(KxctlTest, WritesExactlyTheGivenFieldsAsRedisCliSeesThem)
{
    struct Case {
        std::vector<std::string> args; // after "set"
        int db;
        std::string key;
        std::string hgetall; // redis-cli's view afterwards
    };
    const Case cases[] = {
        {{"p_libpub.cap_table", "url=/fe/l3", "bool_value=true", "int32_value=4", "str_value=on"},
         3, "p_libpub.cap_table|/fe/l3", "bool_value\ntrue\nint32_value\n4\nstr_value\non"},
        {{"s_frame.cap_glb_table", "node=-1", "url=a|b%c d", "str_value=x = \"y\"",
          "int32_value=-2147483648"},
         28, "s_frame.cap_glb_table|-1|a%7Cb%25c d",
         "str_value\nx = \"y\"\nint32_value\n-2147483648"},
        // a name shared by index and record: the index first, then the record's field
        {{"s_frame.cap_fe_ready", "node=16", "config_dev_type=5", "config_dev_type=7", "ready=1"},
         28, "s_frame.cap_fe_ready|16|5", "config_dev_type\n7\nready\ntrue"},
        {{"p_dev.dp_lib_my_info", "dm_my_node_type=DM_TYPE_LC", "card_nodeid=16"},
         1, "p_dev.dp_lib_my_info", "dm_my_node_type\n3\ncard_nodeid\n16"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.key);
        std::vector<std::string> args{"set"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        RunResult r = kxctl(args);
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(redis.cli(c.db, {"HGETALL", c.key}), c.hgetall);
    }
    // set leaves the fields it was not given alone
    redis.cli(3, {"HSET", "s_frame.cap_dep|fib", "ready", "false", "extra", "kept"});
    EXPECT_EQ(kxctl({"set", "s_frame.cap_dep", "module=fib", "ready=true"}).status, 0);
    EXPECT_EQ(redis.cli(3, {"HGETALL", "s_frame.cap_dep|fib"}), "ready\ntrue\nextra\nkept");
    // the whole-value table is one packed record
    EXPECT_EQ(kxctl({"set", "p_libpub.cap_state", "ready=true"}).status, 0);
    EXPECT_EQ(redis.cli(3, {"STRLEN", "p_libpub.cap_state"}), "2");
    EXPECT_EQ(kxctl({"get", "p_libpub.cap_state"}).out, "p_libpub.cap_state ready=true\n");
}

TEST_F(KxctlTest, PrintsWhatRedisCliWroteInBothForms)
{
    redis.cli(28, {"HSET", "s_frame.cap_glb_table|16|/fe/l3 x", "str_value", "a\"b\\c\nd",
                   "bool_value", "1", "int32_value", "12", "unknown", "ignored"});
    redis.cli(28, {"HSET", "s_frame.cap_glb_table|2|/z", "str_value", ""});
    redis.cli(28, {"HSET", "s_frame.cap_glb_table|16|/a", "bool_value", "false"});
    redis.cli(28, {"HSET", "s_frame.cap_glb_table|x|/bad", "bool_value", "false"}); // bad key
    redis.cli(28, {"HSET", "s_frame.cap_glb_table|5|/bad", "bool_value", "maybe"}); // bad value
    const std::string odd_line = "\"s_frame.cap_glb_table|16|/fe/l3 x\" bool_value=true "
                                 "int32_value=12 str_value=\"a\\\"b\\\\c\\nd\"\n";
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string out;
    };
    const Case cases[] = {
        {{"get", "s_frame.cap_glb_table", "node=16", "url=/fe/l3 x"}, 0, odd_line},
        {{"--json", "get", "s_frame.cap_glb_table", "node=16", "url=/fe/l3 x"}, 0,
         R"({"key":"s_frame.cap_glb_table|16|/fe/l3 x","index":{"node":16,"url":"/fe/l3 x"},)"
         R"("fields":{"bool_value":true,"int32_value":12,"str_value":"a\"b\\c\nd"}})" "\n"},
        // in index order, numbers as numbers; the unreadable records are reported, not printed
        {{"scan", "s_frame.cap_glb_table"}, 1,
         "s_frame.cap_glb_table|2|/z str_value=\"\"\n"
         "s_frame.cap_glb_table|16|/a bool_value=false\n" + odd_line},
        {{"--json", "scan", "s_frame.cap_glb_table", "node=2"}, 0,
         R"({"key":"s_frame.cap_glb_table|2|/z","index":{"node":2,"url":"/z"},)"
         R"("fields":{"str_value":""}})" "\n"},
        {{"get", "s_frame.cap_glb_table", "node=3", "url=/z"}, 1, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.args[0] + " " + c.args[1]);
        RunResult r = kxctl(c.args);
        EXPECT_EQ(r.status, c.status) << r.err;
        EXPECT_EQ(r.out, c.out);
        if (c.status == 1 && !c.out.empty()) {
            EXPECT_NE(r.err.find("kxctl: skipped s_frame.cap_glb_table|5|/bad (-1003)"),
                      std::string::npos) << r.err;
        }
    }
    EXPECT_EQ(kxctl({"del", "s_frame.cap_glb_table", "node=2", "url=/z"}).status, 0);
    EXPECT_EQ(redis.cli(28, {"EXISTS", "s_frame.cap_glb_table|2|/z"}), "0");
}

TEST_F(KxctlTest, BadInputIsRefusedWithStatusTwo)
{
    struct Case {
        std::vector<std::string> args;
        std::string err;
    };
    const Case cases[] = {
        {{"get", "s_frame.nope", "x=1"},
         "kxctl: unknown table 's_frame.nope' (kxctl tables lists them)\n"},
        {{"get", "s_frame.cap_dep", "modul=x"}, "kxctl: s_frame.cap_dep has no field 'modul'\n"},
        {{"get", "s_frame.cap_dep"}, "kxctl: missing index field module (string)\n"},
        {{"get", "s_frame.cap_dep", "module=x", "ready=true"},
         "kxctl: only index fields select a record here, not 'ready'\n"},
        {{"set", "s_frame.cap_dep", "module=x", "ready=maybe"},
         "kxctl: bad value for ready (bool): 'maybe'\n"},
        {{"set", "s_frame.cap_glb_table", "node=2147483648", "url=/a", "bool_value=true"},
         "kxctl: bad value for node (int32): '2147483648'\n"},
        {{"set", "s_frame.cap_glb_table", "node=1", "url=/a", "int32_value=4x"},
         "kxctl: bad value for int32_value (int32): '4x'\n"},
        {{"set", "s_frame.cap_dep", "module=x", "ready=true", "ready=false"},
         "kxctl: field 'ready' given twice\n"},
        {{"set", "s_frame.cap_dep", "module=x", "module=y"},
         "kxctl: s_frame.cap_dep: index field 'module' given twice\n"},
        {{"set", "s_frame.cap_dep", "module"}, "kxctl: expected name=value, got 'module'\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.args[0] + " " + c.args.back());
        RunResult r = kxctl(c.args);
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.err, c.err);
    }
    EXPECT_EQ(redis.cli(3, {"DBSIZE"}), "0");
    EXPECT_EQ(redis.cli(28, {"DBSIZE"}), "0");
    EXPECT_EQ(kxctl({"-n"}).status, 2);
    EXPECT_EQ(kxctl({"frobnicate"}).status, 2);
    RunResult help = kxctl({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("usage: kxctl"), std::string::npos);
}

TEST_F(KxctlTest, ChassisCountsEachReadyRecordsEntries)
{
    redis.cli(28, {"HSET", "s_frame.cap_fe_ready|16|5", "ready", "true", "devid", "2"});
    redis.cli(28, {"HSET", "s_frame.cap_fe_ready|3|5", "ready", "false"});
    for (const char *url : {"/a", "/b", "/c"})
        redis.cli(28, {"HSET", std::string("s_frame.cap_glb_table|16|") + url, "bool_value", "1"});
    redis.cli(28, {"HSET", "s_frame.cap_glb_table|99|/a", "bool_value", "true"});
    redis.cli(28, {"HSET", "s_frame.cap_subcard_ready|18", "ready", "true"});
    redis.cli(28, {"HSET", "s_frame.cap_subcard_glb_table|18|/s", "int32_value", "1"});
    RunResult r = kxctl({"chassis"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "s_frame.cap_fe_ready|3|5 ready=false entries=0\n"
                     "s_frame.cap_fe_ready|16|5 ready=true devid=2 entries=3\n"
                     "s_frame.cap_subcard_ready|18 ready=true entries=1\n");
    r = kxctl({"--json", "chassis"});
    EXPECT_EQ(r.out.substr(0, r.out.find('\n')),
              R"({"key":"s_frame.cap_fe_ready|3|5","index":{"node":3,"config_dev_type":5},)"
              R"("fields":{"ready":false},"entries":0})");
}

TEST_F(KxctlTest, WatchPrintsEachChangeUntilTerminated)
{
    TempDir dir;
    Process watch({KXCTL_BIN, "watch", "s_frame.cap_fe_ready", "node=16"}, env(), dir.path(), "w");
    ASSERT_TRUE(wait_for([&] { return watch.out().find("subscribed") != std::string::npos; }));
    redis.cli(28, {"HSET", "s_frame.cap_fe_ready|17|5", "ready", "true"}); // another node
    redis.cli(28, {"HSET", "s_frame.cap_fe_ready|16|5", "ready", "true", "devid", "2"});
    redis.cli(28, {"HDEL", "s_frame.cap_fe_ready|16|5", "devid"});
    redis.cli(28, {"DEL", "s_frame.cap_fe_ready|16|5"});
    const std::string expected = "subscribed s_frame.cap_fe_ready|*\n"
                                 "hset s_frame.cap_fe_ready|16|5 ready=true devid=2\n"
                                 "hdel s_frame.cap_fe_ready|16|5 ready=true\n"
                                 "del s_frame.cap_fe_ready|16|5\n";
    EXPECT_TRUE(wait_for([&] { return watch.out() == expected; })) << watch.out();
    watch.signal(SIGTERM);
    EXPECT_EQ(watch.wait(), 0);
}

} // namespace
