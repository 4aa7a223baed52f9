// kxctl against a real redis-server, each side checked by plain redis-cli: what it prints
// of records redis-cli wrote, what it writes, and bad input refused.
#include <algorithm>
#include <set>

#include <gtest/gtest.h>

#include "test_redis.h"

using Args = std::vector<std::string>;

namespace {

// The store every case starts from: records of each kind kxctl prints, one that does
// not decode.
void seed(const testsupport::RedisServer &redis)
{
    redis.cli(0, {"FLUSHALL"});
    redis.cli(3, {"HSET", "s_frame.cap_dep|fib", "ready", "false", "extra", "kept"});
    for (const Args &hset :
         {Args{"HSET", "s_frame.cap_glb_table|16|/l3 x", "str_value", "a\"b\\c\nd", "bool_value",
               "1", "int32_value", "12", "unknown", "ignored"},
          Args{"HSET", "s_frame.cap_glb_table|2|/z", "str_value", ""},
          Args{"HSET", "s_frame.cap_glb_table|5|/bad", "bool_value", "maybe"},
          Args{"HSET", "s_frame.cap_fe_ready|16|5", "ready", "true", "devid", "7"},
          Args{"HSET", "s_frame.cap_subcard_ready|18", "ready", "true"},
          Args{"HSET", "s_frame.cap_subcard_glb_table|18|/s", "int32_value", "1"}})
        redis.cli(28, hset);
}

// The databases kxctl's tables live in, one "DB KEY field=value..." a record.
std::set<std::string> store(const testsupport::RedisServer &redis)
{
    std::set<std::string> lines;
    for (int db : {1, 3, 28})
        for (const std::string &line : redis.dump(db))
            lines.insert(std::to_string(db) + " " + line);
    return lines;
}

// What a command changed: "+DB record" for each record it wrote, "-DB record" for each it
// removed or overwrote.
Args changes(const std::set<std::string> &before, const std::set<std::string> &after)
{
    Args out;
    for (const std::string &line : after)
        if (!before.contains(line))
            out.push_back("+" + line);
    for (const std::string &line : before)
        if (!after.contains(line))
            out.push_back("-" + line);
    return out;
}

// Each case from the same store. Prints: one record a line, quoted where needed, in index
// order; a record that does not decode is named and makes the status 1, the others still
// print. Writes: into the table's own database, under the escaped key, exactly the fields
// given (a name in both index and record sets each). Bad input: status 2, a line naming
// the problem, and nothing written.
TEST(Kxctl, PrintsWritesAndRefusesAsRedisCliSeesIt)
{
    testsupport::RedisServer redis;
    const std::string glb = "s_frame.cap_glb_table", dep = "s_frame.cap_dep";
    const std::string odd =
        R"("s_frame.cap_glb_table|16|/l3 x" bool_value=true int32_value=12 str_value="a\"b\\c\nd")"
        "\n";
    const std::string skipped = "skipped s_frame.cap_glb_table|5|/bad (-1003)";
    struct Case {
        Args args;
        int status;
        std::string out, err;
        Args changed = {};
    };
    const Case cases[] = {
        {{"get", glb, "node=16", "url=/l3 x"}, 0, odd, ""},
        {{"--json", "get", glb, "node=16", "url=/l3 x"},
         0,
         R"({"key":"s_frame.cap_glb_table|16|/l3 x","index":{"node":16,"url":"/l3 x"},)"
         R"("fields":{"bool_value":true,"int32_value":12,"str_value":"a\"b\\c\nd"}})"
         "\n",
         ""},
        {{"scan", glb}, 1, "s_frame.cap_glb_table|2|/z str_value=\"\"\n" + odd, skipped},
        {{"scan", "s_frame.cap_fe_ready", "index.config_dev_type=5"},
         0,
         "s_frame.cap_fe_ready|16|5 ready=true devid=7\n",
         ""},
        {{"get", glb, "node=2", "url=/y"}, 1, "", "no record s_frame.cap_glb_table|2|/y"},
        {{"chassis"},
         1,
         "s_frame.cap_glb_table|2 entries=1\n" // entries without a ready record
         "s_frame.cap_fe_ready|16|5 ready=true devid=7 entries=1\n"
         "s_frame.cap_subcard_ready|18 ready=true entries=1\n",
         skipped},
        {{"set", glb, "node=-1", "url=a|b%", "str_value=x \"y\""},
         0,
         "",
         "",
         {"+28 s_frame.cap_glb_table|-1|a%7Cb%25 str_value=x \"y\""}},
        {{"set", "s_frame.cap_fe_ready", "node=17", "index.config_dev_type=5", "config_dev_type=7",
          "ready=1"},
         0,
         "",
         "",
         {"+28 s_frame.cap_fe_ready|17|5 config_dev_type=7 ready=true"}},
        {{"set", dep, "module=fib", "ready=true"},
         0,
         "",
         "",
         {"+3 s_frame.cap_dep|fib ready=true extra=kept",
          "-3 s_frame.cap_dep|fib ready=false extra=kept"}},
        {{"set", "p_dev.dp_lib_my_info", "dm_my_node_type=DM_TYPE_LC"},
         0,
         "",
         "",
         {"+1 p_dev.dp_lib_my_info dm_my_node_type=3"}},
        {{"del", glb, "node=2", "url=/z"},
         0,
         "",
         "",
         {"-28 s_frame.cap_glb_table|2|/z str_value="}},
        {{"set", dep, "module=fib", "ready=maybe"}, 2, "", "bad value for ready (bool): 'maybe'"},
        {{"set", dep, "module=fib", "ready=false", "redy=1"}, 2, "", dep + " has no field 'redy'"},
        {{"set", dep, "ready=true"}, 2, "", "missing index field module (string)"},
        {{"set", glb, "node=2147483648", "url=/a"},
         2,
         "",
         "bad value for node (int32): '2147483648'"},
        {{"set", "s_frame.nope", "x=1"},
         2,
         "",
         "unknown table 's_frame.nope' (kxctl tables lists them)"},
        {{"del", "s_frame.cap_fe_ready", "node=16", "config_dev_type=5"},
         2,
         "",
         "only index fields select a record here, not 'config_dev_type' (the index's is "
         "index.config_dev_type)"},
    };
    for (const auto &[args, status, out, err, changed] : cases) {
        seed(redis);
        const std::set<std::string> before = store(redis);
        Args argv = args;
        argv.insert(argv.begin(), KXCTL_BIN);
        testsupport::RunResult r = testsupport::run(argv, {{"KX_MOM_ADDR", redis.addr()}});
        EXPECT_EQ(r.status, status) << testing::PrintToString(args);
        EXPECT_EQ(r.out, out) << testing::PrintToString(args);
        EXPECT_EQ(r.err.substr(std::min(r.err.find("kxctl: "), r.err.size())), // after libkx's
                  err.empty() ? "" : "kxctl: " + err + "\n")
            << testing::PrintToString(args);
        EXPECT_EQ(changes(before, store(redis)), changed) << testing::PrintToString(args);
    }
}

} // namespace
