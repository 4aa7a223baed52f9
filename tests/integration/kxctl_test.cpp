// kxctl against a real redis-server, each side checked by plain redis-cli. Every test
// starts from an empty store.
#include <algorithm>
#include <memory>
#include <tuple>

#include <gtest/gtest.h>

#include "test_redis.h"

using namespace testsupport;
using Args = std::vector<std::string>;

namespace {

class Kxctl : public ::testing::Test {
protected:
    static inline std::unique_ptr<RedisServer> redis;
    static void SetUpTestSuite() { redis = std::make_unique<RedisServer>(); }
    static void TearDownTestSuite() { redis.reset(); }
    void SetUp() override { redis->cli(0, {"FLUSHALL"}); }

    static RunResult kxctl(Args args)
    {
        args.insert(args.begin(), KXCTL_BIN);
        return run(args, {{"KX_MOM_ADDR", redis->addr()}});
    }
    static std::string cli(int db, const Args &args) { return redis->cli(db, args); }
};

// Each write lands where redis-cli finds it: in the table's own database, under the
// escaped key, exactly the fields given; a name in both index and record sets each.
TEST_F(Kxctl, WritesWhatRedisCliReads)
{
    cli(3, {"HSET", "s_frame.cap_dep|fib", "ready", "false", "extra", "kept"});
    cli(28, {"HSET", "s_frame.cap_glb_table|2|/z", "str_value", "gone"});
    const std::tuple<Args, int, std::string, std::string> cases[] = {
        {{"set", "s_frame.cap_glb_table", "node=-1", "url=a|b%", "str_value=x \"y\""},
         28,
         "s_frame.cap_glb_table|-1|a%7Cb%25",
         "str_value\nx \"y\""},
        {{"set", "s_frame.cap_fe_ready", "node=16", "index.config_dev_type=5", "config_dev_type=7",
          "ready=1"},
         28,
         "s_frame.cap_fe_ready|16|5",
         "config_dev_type\n7\nready\ntrue"},
        {{"set", "s_frame.cap_dep", "module=fib", "ready=true"},
         3,
         "s_frame.cap_dep|fib",
         "ready\ntrue\nextra\nkept"},
        {{"set", "p_dev.dp_lib_my_info", "dm_my_node_type=DM_TYPE_LC"},
         1,
         "p_dev.dp_lib_my_info",
         "dm_my_node_type\n3"},
        {{"del", "s_frame.cap_glb_table", "node=2", "url=/z"},
         28,
         "s_frame.cap_glb_table|2|/z",
         ""},
    };
    for (const auto &[args, db, key, stored] : cases) {
        RunResult r = kxctl(args);
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(cli(db, {"HGETALL", key}), stored) << args[1];
    }
}

// Bad input: status 2 and a line naming the problem, and nothing written.
TEST_F(Kxctl, RefusesBadInputWritingNothing)
{
    const std::pair<Args, std::string> cases[] = {
        {{"set", "s_frame.cap_dep", "module=fib", "ready=maybe"},
         "bad value for ready (bool): 'maybe'"},
        {{"set", "s_frame.cap_dep", "module=fib", "ready=false", "redy=1"},
         "s_frame.cap_dep has no field 'redy'"},
        {{"set", "s_frame.cap_dep", "ready=true"}, "missing index field module (string)"},
        {{"set", "s_frame.cap_glb_table", "node=2147483648", "url=/a", "bool_value=1"},
         "bad value for node (int32): '2147483648'"},
        {{"set", "s_frame.nope", "x=1"}, "unknown table 's_frame.nope' (kxctl tables lists them)"},
        {{"del", "s_frame.cap_fe_ready", "node=16", "config_dev_type=5"},
         "only index fields select a record here, not 'config_dev_type' (the index's is "
         "index.config_dev_type)"},
    };
    for (const auto &[args, why] : cases) {
        RunResult r = kxctl(args);
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.err.substr(0, r.err.find('\n')), "kxctl: " + why);
    }
    EXPECT_EQ(cli(3, {"DBSIZE"}) + cli(28, {"DBSIZE"}), "00");
}

// What redis-cli wrote comes out one record a line, quoted where needed, in index order;
// a record that does not decode is named and makes the status 1, the others still print.
TEST_F(Kxctl, PrintsWhatRedisCliWrote)
{
    for (const Args &hset :
         {Args{"HSET", "s_frame.cap_glb_table|16|/l3 x", "str_value", "a\"b\\c\nd", "bool_value",
               "1", "int32_value", "12", "unknown", "ignored"},
          Args{"HSET", "s_frame.cap_glb_table|2|/z", "str_value", ""},
          Args{"HSET", "s_frame.cap_glb_table|5|/bad", "bool_value", "maybe"},
          Args{"HSET", "s_frame.cap_fe_ready|16|5", "ready", "true", "devid", "7"},
          Args{"HSET", "s_frame.cap_subcard_ready|18", "ready", "true"},
          Args{"HSET", "s_frame.cap_subcard_glb_table|18|/s", "int32_value", "1"}})
        cli(28, hset);
    const std::string odd =
        R"("s_frame.cap_glb_table|16|/l3 x" bool_value=true int32_value=12 str_value="a\"b\\c\nd")"
        "\n";
    const std::string skipped = "kxctl: skipped s_frame.cap_glb_table|5|/bad (-1003)\n";
    const std::tuple<Args, int, std::string, std::string> cases[] = {
        {{"get", "s_frame.cap_glb_table", "node=16", "url=/l3 x"}, 0, odd, ""},
        {{"--json", "get", "s_frame.cap_glb_table", "node=16", "url=/l3 x"},
         0,
         R"({"key":"s_frame.cap_glb_table|16|/l3 x","index":{"node":16,"url":"/l3 x"},)"
         R"("fields":{"bool_value":true,"int32_value":12,"str_value":"a\"b\\c\nd"}})"
         "\n",
         ""},
        {{"scan", "s_frame.cap_glb_table"},
         1,
         "s_frame.cap_glb_table|2|/z str_value=\"\"\n" + odd,
         skipped},
        {{"scan", "s_frame.cap_fe_ready", "index.config_dev_type=5"},
         0,
         "s_frame.cap_fe_ready|16|5 ready=true devid=7\n",
         ""},
        {{"get", "s_frame.cap_glb_table", "node=2", "url=/y"},
         1,
         "",
         "kxctl: no record s_frame.cap_glb_table|2|/y\n"},
        {{"chassis"},
         1,
         "s_frame.cap_glb_table|2 entries=1\n" // entries without a ready record
         "s_frame.cap_fe_ready|16|5 ready=true devid=7 entries=1\n"
         "s_frame.cap_subcard_ready|18 ready=true entries=1\n",
         skipped},
        {{"--json", "chassis"},
         1,
         R"({"key":"s_frame.cap_glb_table|2","index":{"node":2},"entries":1})"
         "\n"
         R"({"key":"s_frame.cap_fe_ready|16|5","index":{"node":16,"config_dev_type":5},)"
         R"("fields":{"ready":true,"devid":7},"entries":1})"
         "\n"
         R"({"key":"s_frame.cap_subcard_ready|18","index":{"nodeid":18},"fields":{"ready":true},"entries":1})"
         "\n",
         skipped},
    };
    for (const auto &[args, status, out, err] : cases) {
        RunResult r = kxctl(args);
        EXPECT_EQ(r.status, status) << args[0];
        EXPECT_EQ(r.out, out);
        EXPECT_EQ(r.err.substr(std::min(r.err.find("kxctl: "), r.err.size())),
                  err); // after libkx's lines
    }
}

} // namespace
