// One table of store calls, good and bad, run against libkx on a real redis-server
// (kx_parity_libkx) and against the unit tests' double (kx_parity_double): both must
// give the same results and leave the same records in the store.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <numeric>
#include <set>

#include "record_text.h"
#include "s_frame.pb-c.h"
#ifdef KX_PARITY_DOUBLE
#include "kx_double.h"
#else
#include "test_redis.h"
#endif

namespace {

using testsupport::describe, testsupport::Fields, testsupport::record;

#ifdef KX_PARITY_DOUBLE
struct Backend {
    Backend() { kxd::reset(); }
    void put(int32_t db, const std::string &key, const Fields &f) { kxd::put_raw(db, key, f); }
    std::vector<std::string> stored(int32_t db) { return kxd::contents(db); }
    kx_global_t *g = kx_global_init("kx_parity", nullptr);
};
#else
struct Backend {
    Backend()
    {
        setenv("KX_MOM_ADDR", server.addr().c_str(), 1);
        for (int32_t db : {1, 2, 3, 28})
            EXPECT_EQ(kx_mom_client_connect_sync(g, db), 0);
        // Every hash keeps its fields in the order written, as the double's do.
        server.cli(0, {"CONFIG", "SET", "hash-max-listpack-value", "100000"});
    }
    ~Backend() { kx_global_finish(g); }
    void put(int32_t db, const std::string &key, const Fields &f) // a whole value is "value"
    {
        std::vector<std::string> args = {f[0].first == "value" ? "SET" : "HSET", key};
        for (const auto &[name, value] : f)
            args.insert(args.end(), {name, value});
        server.cli(db, f[0].first == "value" ? std::vector{args[0], key, f[0].second} : args);
    }
    std::vector<std::string> stored(int32_t db) { return server.dump(db); }
    testsupport::RedisServer server;
    kx_global_t *g = kx_global_init("kx_parity", nullptr);
};
#endif

int32_t add_delivery(kx_global_t *, kx_mom_msg *m, void *out)
{
    std::string what = m->cmd == KX_MOM_CMD_HSET ? describe(static_cast<kx_mom_hash_res *>(m->data))
                                                 : describe(m->data);
    static_cast<std::vector<std::string> *>(out)->push_back(std::to_string(m->cmd) + " " + m->key +
                                                            ": " + what + "; ");
    return 0;
}

struct Call {
    std::string op; // get0: kx_mom_get_sync without an error pointer
    int32_t db;
    std::string key;                // "": no key; "?": a message of no table the store knows
    std::vector<int32_t> tags = {}; // hmset: none is a null list
    int32_t len = 0;                // hmset: the list's length when not its size
    Fields fields = {};             // hmset: the record's values
};

std::string run(kx_global_t *g, const Call &c)
{
    static SFrame__CapDepIndex unknown = S_FRAME__CAP_DEP_INDEX__INIT;
    kx::Message rec = c.key.empty() || c.key == "?" ? nullptr : record(c.key, c.fields);
    const ProtobufCMessage *key = c.key == "?" ? &unknown.base : rec.get();
    int32_t error = 7, n = c.len ? c.len : static_cast<int32_t>(c.tags.size());
    if (c.op == "hmset")
        return std::to_string(
            kx_mom_hmset_sync(g, c.db, key, c.tags.empty() ? nullptr : c.tags.data(), n));
    if (c.op == "del")
        return std::to_string(kx_mom_del_sync(g, c.db, key));
    if (c.op == "hgetall")
        return describe(kx::HashRes(kx_mom_hgetall_sync(g, c.db, key)).get());
    if (c.op == "scan") { // in key order: the store's order is its own
        std::vector<std::string> got;
        error = kx_mom_scan_sync(g, c.db, key, 0, add_delivery, &got);
        std::ranges::sort(got);
        return std::accumulate(got.begin(), got.end(), std::to_string(error) + " ");
    }
    kx::Message obj(static_cast<ProtobufCMessage *>(
        kx_mom_get_sync(g, c.db, key, c.op == "get" ? &error : nullptr)));
    return (c.op == "get" ? std::to_string(error) + " " : "") + describe(obj.get());
}

TEST(KxParity, SameCallsGiveSameResultsStoreTheSameAndRunOutOfMemoryAlike)
{
    // Exactly at the bound of their tables (4 KiB of names and values, of packed value),
    // then one byte more; unknown fields count but are not kept.
    const std::string edge(4096 - 13, 'x'), whole_edge = "(\x01" + std::string(4094, 'x');
    const std::string dep = "s_frame.cap_dep|", state = "p_libpub.cap_state", desc(65536, 'd');
    std::map<int32_t, std::map<std::string, Fields>> store = {
        {1,
         {{state, {{"value", whole_edge + "x"}}},
          {"p_dev.dp_lib_my_chss_info", {{"devid", "9"}, {"dev_desc", desc}}}}},
        {2, {{state, {{"value", whole_edge}}}}},
        {3,
         {{dep + "bad", {{"ready", "maybe"}}},
          {dep + "odd", {{"junk", "1"}}},
          {dep + "edge", {{"ready", "true"}, {"junk", edge}}},
          {dep + "big", {{"ready", "true"}, {"junk", edge + "x"}}}}},
        {28, {{state, {{"value", "\xff"}}}}},
    };
    Backend b;
    for (const auto &[db, records] : store)
        for (const auto &[key, fields] : records)
            b.put(db, key, fields);
    const std::string ready = "s_frame.cap_fe_ready|16|5", other = "s_frame.cap_fe_ready|16|7";
    const Fields values = {{"devid", "3"}, {"ready", "true"}};
    const std::pair<Call, std::string> cases[] = {
        {{"hmset", 28, ready, {8, 6}, 0, values}, "0"},
        {{"hmset", 28, other, {}, 1, values}, "-1004"}, // a write names what it writes
        {{"hmset", 28, other, {6}, -1, values}, "-1004"},
        {{"hmset", 28, other, {6, 99}, 0, values}, "-1004"},
        {{"hmset", -1, other, {6}, 0, values}, "-1004"},
        {{"hmset", 28, "?", {1}}, "-1004"},
        {{"hmset", 3, state, {5}, 0, {{"ready", "true"}}}, "0"},
        {{"get0", 3, state}, "p_libpub.cap_state ready=true"},
        {{"get", 2, state}, "0 p_libpub.cap_state ready=true"},
        {{"get", 1, state}, "-1003 no record"},
        {{"get", 28, state}, "-1003 no record"},
        {{"get", 3, dep + "edge"}, "0 s_frame.cap_dep|edge ready=true"},
        {{"get", 3, dep + "bad"}, "-1003 no record"},
        {{"get", 3, ""}, "-1004 no record"},
        {{"hgetall", 28, ready}, "0 " + ready + " devid=3 ready=true"},
        {{"hgetall", 28, other}, "0 no record"},
        {{"hgetall", 3, dep + "odd"}, "0 " + dep + "odd"},
        {{"hgetall", 3, dep + "big"}, "-1003 no record"},
        {{"hgetall", 1, "p_dev.dp_lib_my_chss_info"}, "-1003 no record"},
        {{"hgetall", 3, state}, "null"}, // the whole value has no hash fields
        {{"scan", 3, dep},
         "0 4 s_frame.cap_dep|bad: -1003 no record; 4 s_frame.cap_dep|big: -1003 no record; "
         "4 s_frame.cap_dep|edge: 0 s_frame.cap_dep|edge ready=true; "
         "4 s_frame.cap_dep|odd: 0 s_frame.cap_dep|odd; "},
        {{"scan", 2, state}, "0 1 p_libpub.cap_state: p_libpub.cap_state ready=true; "},
        {{"del", 3, state}, "0"},
        {{"get", 3, state}, "0 no record"},
    };
    for (const auto &[call, result] : cases)
        EXPECT_EQ(run(b.g, call), result) << call.op << " " << call.db << " " << call.key;
    store[28][ready] = values; // each record as "KEY name=value ..." in the order written
    for (const auto &[db, records] : store) {
        std::vector<std::string> lines;
        for (const auto &[key, fields] : records)
            for (lines.push_back(key); const auto &[name, value] : fields)
                lines.back() += " " + name + "=" + value;
        EXPECT_EQ(b.stored(db), lines) << db;
    }

    // Every allocation of a read's decode failing in turn: the record, or out of memory (a
    // null hash result), never a missing record or a bad value.
    static int left;
    struct Restore {
        ProtobufCAllocator saved = kx::allocator();
        ~Restore() { kx::allocator() = saved; }
    } restore;
    b.put(3, state, {{"value", "(\x01xx"}});
    b.put(3, "p_libpub.cap_table|/u", {{"str_value", "s"}, {"pri", "3"}, {"junk", "1"}});
    kx::Message table = record("p_libpub.cap_table|/u"), whole = record(state);
    kx::allocator().alloc = [](void *, size_t size) { return left-- > 0 ? malloc(size) : nullptr; };
    std::set<std::string> seen;
    for (int n = 0; n < 20; ++n) {
        int32_t error = 7;
        left = n;
        seen.insert(describe(kx::HashRes(kx_mom_hgetall_sync(b.g, 3, table.get())).get()));
        left = n;
        kx::Message obj(
            static_cast<ProtobufCMessage *>(kx_mom_get_sync(b.g, 3, whole.get(), &error)));
        seen.insert(std::to_string(error) + " " + describe(obj.get()));
    }
    EXPECT_EQ(seen,
              (std::set<std::string>{"null", "-1005 no record", "0 p_libpub.cap_state ready=true",
                                     "0 p_libpub.cap_table|/u str_value=s pri=3"}));
}

} // namespace
