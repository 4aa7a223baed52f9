// kxctl against a real redis-server, each side checked by plain redis-cli.
#include <gtest/gtest.h>

#include "test_redis.h"

using namespace testsupport;

namespace {

// One session, step by step: kxctl (db -1) with its status, or redis-cli on a database,
// each with its standard output (redis-cli's without the last line feed).
TEST(Kxctl, AgreesWithRedisCliBothWaysAndRefusesBadInput)
{
    const std::string odd_line = "\"s_frame.cap_glb_table|16|/l3 x\" bool_value=true "
                                 "int32_value=12 str_value=\"a\\\"b\\\\c\\nd\"\n";
    struct Step {
        int db;
        std::vector<std::string> args;
        std::string out;
        int status = 0;
    };
    const Step steps[] = {
        {-1, {"set", "s_frame.cap_glb_table", "node=-1", "url=a|b%", "str_value=x \"y\""}, ""},
        {28, {"HGETALL", "s_frame.cap_glb_table|-1|a%7Cb%25"}, "str_value\nx \"y\""},
        // a name in both index and record: the index's first, then the record's
        {-1, {"set", "s_frame.cap_fe_ready", "node=16", "config_dev_type=5", "config_dev_type=7",
              "ready=1"}, ""},
        {28, {"HGETALL", "s_frame.cap_fe_ready|16|5"}, "config_dev_type\n7\nready\ntrue"},
        {3, {"HSET", "s_frame.cap_dep|fib", "ready", "false", "extra", "kept"}, "2"},
        {-1, {"set", "s_frame.cap_dep", "module=fib", "ready=true"}, ""},
        {-1, {"set", "s_frame.cap_dep", "module=fib", "ready=maybe"}, "", 2},
        {-1, {"set", "s_frame.cap_dep", "module=fib", "ready=false", "redy=1"}, "", 2},
        {-1, {"set", "s_frame.cap_glb_table", "node=2147483648", "url=/a", "bool_value=1"}, "", 2},
        {-1, {"set", "s_frame.nope", "x=1"}, "", 2},
        {3, {"HGETALL", "s_frame.cap_dep|fib"}, "ready\ntrue\nextra\nkept"},
        {28, {"HSET", "s_frame.cap_glb_table|16|/l3 x", "str_value", "a\"b\\c\nd", "bool_value",
              "1", "int32_value", "12", "unknown", "ignored"}, "4"},
        {28, {"HSET", "s_frame.cap_glb_table|2|/z", "str_value", ""}, "1"},
        {-1, {"get", "s_frame.cap_glb_table", "node=16", "url=/l3 x"}, odd_line},
        {-1, {"--json", "get", "s_frame.cap_glb_table", "node=16", "url=/l3 x"},
         R"({"key":"s_frame.cap_glb_table|16|/l3 x","index":{"node":16,"url":"/l3 x"},)"
         R"("fields":{"bool_value":true,"int32_value":12,"str_value":"a\"b\\c\nd"}})" "\n"},
        {-1, {"scan", "s_frame.cap_glb_table"}, // in index order, numbers as numbers
         "s_frame.cap_glb_table|-1|a%7Cb%25 str_value=\"x \\\"y\\\"\"\n"
         "s_frame.cap_glb_table|2|/z str_value=\"\"\n" + odd_line},
        {-1, {"del", "s_frame.cap_glb_table", "node=2", "url=/z"}, ""},
        {28, {"EXISTS", "s_frame.cap_glb_table|2|/z"}, "0"},
        {-1, {"get", "s_frame.cap_glb_table", "node=2", "url=/z"}, "", 1},
        {28, {"HSET", "s_frame.cap_glb_table|5|/bad", "bool_value", "maybe"}, "1"},
        {-1, {"scan", "s_frame.cap_glb_table", "node=5"}, "", 1},
        {28, {"HSET", "s_frame.cap_subcard_ready|18", "ready", "true"}, "1"},
        {28, {"HSET", "s_frame.cap_subcard_glb_table|18|/s", "int32_value", "1"}, "1"},
        {-1, {"chassis"}, "s_frame.cap_fe_ready|16|5 ready=true config_dev_type=7 entries=1\n"
                          "s_frame.cap_subcard_ready|18 ready=true entries=1\n", 1},
    };
    RedisServer redis;
    for (size_t i = 0; i < std::size(steps); ++i) {
        const Step &s = steps[i];
        SCOPED_TRACE("step " + std::to_string(i) + ": " + s.args[0]);
        if (s.db >= 0) {
            EXPECT_EQ(redis.cli(s.db, s.args), s.out);
            continue;
        }
        std::vector<std::string> argv{KXCTL_BIN};
        argv.insert(argv.end(), s.args.begin(), s.args.end());
        RunResult r = run(argv, {{"KX_MOM_ADDR", redis.addr()}});
        EXPECT_EQ(r.status, s.status) << r.err;
        EXPECT_EQ(r.out, s.out);
    }
}

} // namespace
