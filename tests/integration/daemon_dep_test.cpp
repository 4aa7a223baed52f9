// The built daemon with five dependency modules against a private redis-server: one
// s_frame.cap_dep subscription per module in the registry's bucket order, each ready
// record applied, and no record applied once every module has been seen ready.
#include <algorithm>
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

namespace {

// Texts of the daemon proper's log lines written by `func`, in order:
// "... LEVEL [pid:app/vek_cap/vek_cap:func:line] text".
std::vector<std::string> lines_of(const std::string &log, const std::string &func)
{
    std::vector<std::string> out;
    std::istringstream in(log);
    const std::string where = ":app/vek_cap/vek_cap:" + func + ":";
    for (std::string line; std::getline(in, line);) {
        size_t at = line.find(where);
        if (at == std::string::npos)
            continue;
        size_t text = line.find("] ", at);
        if (text != std::string::npos)
            out.push_back(line.substr(text + 2));
    }
    return out;
}

size_t count_of(const std::vector<std::string> &lines, const std::string &text)
{
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), text));
}

uint32_t home_bucket(const std::string &name, uint32_t n_buckets)
{
    char key[64] = {};
    name.copy(key, 63);
    return XXH32(key, sizeof key, 0) & (n_buckets - 1);
}

TEST(DaemonDep, SubscribesEveryModuleInBucketOrderAndLatchesWhenAllAreReady)
{
    TempDir root;
    // Five modules hold 8 buckets. Names with five different home buckets there land in
    // their home buckets whatever order the directory lists them in, so the bucket order
    // is the order of their home buckets.
    const std::vector<std::string> modules = {"fib_mgr", "acl_mgr", "stp_mgr", "mpls_mgr", ".lldp_mgr"};
    std::map<uint32_t, std::string> by_bucket;
    for (const auto &name : modules) {
        by_bucket[home_bucket(name, 8)] = name;
        write_file(root.path() + "/etc/cap_cfg/cap_dep/fe/" + name, "");
    }
    ASSERT_EQ(by_bucket.size(), modules.size()) << "pick names with distinct home buckets";
    std::vector<std::string> want_order;
    for (const auto &[bucket, name] : by_bucket)
        want_order.push_back("module " + name);
    write_file(root.path() + "/data/.tavo/vsd/0/sw-frame/cap/vek_cap/vek_cap_dbg.txt", "5\n");

    RedisServer redis;
    const std::string log_path = root / "vek_cap.log";
    Process daemon({VEK_CAP_BIN}, {{"KX_ROOT", root.path()}, {"KX_MOM_ADDR", redis.addr()}, {"KX_LOG", log_path}},
                   root.path(), "vek_cap");
    auto subscribed = [&] {
        std::vector<std::string> names;
        static const std::regex line("DEP subscribe ok, (module \\S+) [0-9]+:[0-9]+");
        for (const auto &text : lines_of(read_file(log_path), "vek_cap_dep_pmsg_f"))
            if (std::smatch m; std::regex_match(text, m, line))
                names.push_back(m[1]);
        return names;
    };
    ASSERT_TRUE(wait_for([&] { return subscribed().size() == modules.size(); })) << read_file(log_path);
    EXPECT_EQ(subscribed(), want_order);
    // Nothing written yet: every catch-up read found no record.
    EXPECT_EQ(count_of(lines_of(read_file(log_path), "vek_cap_dep_pro"), "dep NULL, just return"), modules.size());

    auto applied = [&](const std::string &name) {
        return count_of(lines_of(read_file(log_path), "vek_cap_insert_dep_hash"), "module " + name + ", ready 1 dir 1");
    };
    for (const auto &name : modules) {
        redis.cli(3, {"HSET", "s_frame.cap_dep|" + name, "ready", "true"});
        ASSERT_TRUE(wait_for([&] { return applied(name) == 1; })) << name << "\n" << read_file(log_path);
    }
    const std::vector<std::string> before = lines_of(read_file(log_path), "vek_cap_dep_pro");
    EXPECT_EQ(count_of(before, "all mod is ready not need to pro"), 0u);

    // Every module is ready now: a module turning not ready is logged and ignored.
    redis.cli(3, {"HSET", "s_frame.cap_dep|" + modules[0], "ready", "false"});
    ASSERT_TRUE(wait_for([&] {
        return count_of(lines_of(read_file(log_path), "vek_cap_dep_pro"), "all mod is ready not need to pro") == 1;
    })) << read_file(log_path);
    const std::vector<std::string> after = lines_of(read_file(log_path), "vek_cap_dep_pro");
    EXPECT_EQ(count_of(after, "dep " + modules[0] + ", ready 0"), 1u);
    EXPECT_EQ(count_of(lines_of(read_file(log_path), "vek_cap_insert_dep_hash"), "module " + modules[0] + ", ready 0 dir 1"),
              0u);

    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait(), 0);
}

} // namespace
