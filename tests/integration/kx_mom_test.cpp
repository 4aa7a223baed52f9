// kx_mom against real redis-servers (db 3 on a card-local one, db 28 on a global
// one): records as stored and read back, what a selection reaches, scans (large,
// deleting, nested, asynchronous), keyspace events as deliveries, lost
// connections and the catch-up after them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <set>

#include <event2/event.h>

#include "kx_codec.h"
#include "kx_internal.h"
#include "p_libpub.pb-c.h"
#include "s_frame.pb-c.h"
#include "test_redis.h"

namespace {

using Lines = std::vector<std::string>;

// A record as text: its key, then each field but the index as name=value.
std::string describe(const ProtobufCMessage *msg)
{
    std::string out = kx::record_key(msg);
    for (const auto &f : std::span(msg->descriptor->fields, msg->descriptor->n_fields)) {
        const int32_t tag = static_cast<int32_t>(f.id);
        std::vector<kx::FieldText> text;
        if (kx::encode_hash(msg, {&tag, 1}, &text) == 0) // not for the index
            out += " " + std::string(f.name) + "=" + text[0].text;
    }
    return out;
}

std::string describe(const kx_mom_hash_res *res)
{
    if (!res || !res->obj)
        return res ? "no record, error " + std::to_string(res->error_code) : "no result";
    std::string out = describe(static_cast<const ProtobufCMessage *>(res->obj)) + " [";
    for (int32_t i = 0; i < res->field_len; ++i)
        out += (i ? "," : "") + std::to_string(res->field_tag[i]);
    return out + "]";
}

// Adds every delivery to the Lines at `lines` as "db:cmd what".
int32_t recorder(kx_global_t *, kx_mom_msg *m, void *lines)
{
    bool hash = m->cmd == KX_MOM_CMD_HSET || m->cmd == KX_MOM_CMD_HDEL;
    std::string what = m->scan_over ? "scan_over" : !m->data ? m->key
                       : hash ? describe(static_cast<kx_mom_hash_res *>(m->data))
                              : describe(static_cast<ProtobufCMessage *>(m->data));
    static_cast<Lines *>(lines)->push_back(std::to_string(m->db) + ":" + std::to_string(m->cmd) + " " + what);
    return 0;
}

// Runs the loop until `done` holds (false after 5 s).
bool run_until(kx_global_t *g, const std::function<bool()> &done)
{
    return testsupport::wait_for([&] { return event_base_loop(g->base, EVLOOP_NONBLOCK), done(); });
}

// A record of the table its key names, with the index from the key.
kx::Message record(const std::string &key)
{
    std::string error;
    return kx::Message(kx::parse_key(kx::table_of_key(key), key, &error));
}
template <typename T> T *as(const kx::Message &rec) { return reinterpret_cast<T *>(rec.get()); }

class KxMom : public ::testing::Test {
protected:
    // The servers start without keyspace notifications: connecting adds them.
    void SetUp() override
    {
        setenv("KX_MOM_ADDR", local.addr().c_str(), 1);
        setenv("KX_MOM_ADDR_28", global.addr().c_str(), 1);
        for (int32_t db : {3, 28})
            ASSERT_EQ(kx_mom_client_connect_sync(g, db), 0) << db;
    }
    ~KxMom() override { kx_global_finish(g); }
    std::string cli(int db, const Lines &args) { return (db == 28 ? global : local).cli(db, args); }

    testsupport::RedisServer local{{32, ""}}, global{{32, ""}};
    kx_global_t *g = kx_global_init("kx_mom_test", nullptr);
};

TEST_F(KxMom, RecordsRoundTripInTheDocumentedFormAndSelectionsReachExactlyThem)
{
    struct Case { const char *key; int32_t value; const char *str, *cli; } cases[] = {
        {"s_frame.cap_glb_table|-1|", -5, "", "bool_value\ntrue\nint32_value\n-5\nstr_value\n"},
        {"s_frame.cap_glb_table|0|a%7Cb%25c", 0, "|%", "bool_value\nfalse\nint32_value\n0\nstr_value\n|%"},
        {"s_frame.cap_glb_table|16|/fe", 7, "x y", "bool_value\ntrue\nint32_value\n7\nstr_value\nx y"},
    };
    Lines line; // each record as a scan delivers it
    const int32_t tags[] = {6, 7, 8};
    for (const auto &c : cases) {
        kx::Message rec = record(c.key);
        as<SFrame__CapGlbTable>(rec)->bool_value = c.value != 0;
        as<SFrame__CapGlbTable>(rec)->int32_value = c.value;
        as<SFrame__CapGlbTable>(rec)->str_value = strdup(c.str);
        ASSERT_EQ(kx_mom_hmset_sync(g, 28, rec.get(), tags, 3), 0);
        EXPECT_EQ(cli(28, {"HGETALL", c.key}), c.cli);
        line.push_back("28:4 " + describe(rec.get()) + " [6,7,8]");
    }
    kx::Message state = record("p_libpub.cap_state"); // a whole value: SET of the packed record
    as<PLibpub__CapState>(state)->ready = 1;
    const int32_t ready[] = {5};
    ASSERT_EQ(kx_mom_hmset_sync(g, 28, state.get(), ready, 1), 0);
    EXPECT_EQ(cli(28, {"GET", "p_libpub.cap_state"}), "(\x01");

    // Never selected: a key that does not parse.
    cli(28, {"HSET", "s_frame.cap_glb_table|x|/a", "int32_value", "1"});
    struct Selection { const char *key; Lines selected; } selections[] = {
        {"s_frame.cap_glb_table|0|", line},
        {cases[1].key, {line[1]}},
        {"s_frame.cap_glb_table|16|", {}}, // a real index: that record alone, absent
    };
    for (const auto &s : selections) {
        Lines rec;
        ASSERT_EQ(kx_mom_scan_sync(g, 28, record(s.key).get(), 0, recorder, &rec), 0);
        std::ranges::sort(rec);
        EXPECT_EQ(rec, s.selected) << s.key;
    }
}

TEST_F(KxMom, AsyncScanOfTenThousandDeliversEachRecordOnceThenScanOver)
{
    cli(3, {"EVAL", "for i = 1, 10000 do redis.call('HSET', 'p_libpub.cap_table|/u' .. i, "
                    "'int32_value', i, 'pri', -i) end", "0"});
    Lines rec;
    ASSERT_EQ(kx_mom_scan(g, 3, record("p_libpub.cap_table|").get(), 0, recorder, &rec), 0);
    EXPECT_TRUE(rec.empty()); // delivered from the loop only
    ASSERT_TRUE(run_until(g, [&] { return std::ranges::count(rec, "3:0 scan_over"); }));
    EXPECT_EQ(rec.back(), "3:0 scan_over");
    EXPECT_EQ(rec.size(), 10001u);
    EXPECT_EQ(std::set<std::string>(rec.begin(), rec.end()).size(), 10001u); // each record once
    EXPECT_EQ(std::ranges::count(rec, "3:4 p_libpub.cap_table|/u9999 bool_value=false "
                                      "int32_value=9999 str_value= pri=-9999 state=false [7,21]"), 1);
}

// The subcard withdrawal: each outer callback deletes its own record (node 2
// also node 5, ahead of the scan), scans db 28 deleting that node's entries,
// then writes the node's ready record there.
TEST_F(KxMom, ScanCallbacksMayDeleteNestAndWrite)
{
    cli(3, {"EVAL", "for i = 1, 6 do redis.call('HSET', 'p_libpub.cap_subcard_state|' .. i .. "
                    "'|0', 'ready', 'true') end", "0"});
    cli(28, {"EVAL", "for i = 1, 6 do for _, u in ipairs({'/a', '/b'}) do redis.call('HSET', "
                     "'s_frame.cap_subcard_glb_table|' .. i .. '|' .. u, 'bool_value', 'true') end end",
             "0"});
    std::vector<int> outer; // the nodes the outer scan delivered
    static const kx_mom_cb inner = [](kx_global_t *g, kx_mom_msg *m, void *nodes) -> int32_t {
        auto *rec = static_cast<SFrame__CapSubcardGlbTable *>(static_cast<kx_mom_hash_res *>(m->data)->obj);
        int node = static_cast<std::vector<int> *>(nodes)->back();
        return rec->index->node == node ? kx_mom_del_sync(g, 28, &rec->base) : 0;
    };
    auto on_outer = [](kx_global_t *g, kx_mom_msg *m, void *nodes) -> int32_t {
        auto *rec = static_cast<PLibpub__CapSubcardState *>(static_cast<kx_mom_hash_res *>(m->data)->obj);
        int node = rec->index->nodeid;
        static_cast<std::vector<int> *>(nodes)->push_back(node);
        EXPECT_EQ(kx_mom_del_sync(g, 3, &rec->base), 0);
        EXPECT_EQ(node == 2 ? kx_mom_del_sync(g, 3, record("p_libpub.cap_subcard_state|5|0").get()) : 0, 0);
        EXPECT_EQ(kx_mom_scan_sync(g, 28, record("s_frame.cap_subcard_glb_table|0|").get(), 0, inner, nodes), 0);
        const int32_t tag[] = {6};
        return kx_mom_hmset_sync(g, 28, record("s_frame.cap_subcard_ready|" + std::to_string(node)).get(), tag, 1);
    };
    ASSERT_EQ(kx_mom_scan_sync(g, 3, record("p_libpub.cap_subcard_state|0|0").get(), 0, on_outer, &outer), 0);
    EXPECT_EQ(outer, (std::vector<int>{1, 2, 3, 4, 6}));
    EXPECT_EQ(cli(3, {"DBSIZE"}), "0");
    EXPECT_EQ(cli(28, {"DBSIZE"}), "7"); // the ready records of 1-4 and 6, the entries of 5
}

TEST_F(KxMom, EveryKeyspaceEventOfAnotherWriterMapsToItsDelivery)
{
    Lines table, one; // the whole table; one record of it and the single-record table
    ASSERT_EQ(kx_mom_subscribe(g, 3, record("s_frame.cap_dep|").get(), 0, recorder, &table), 0);
    for (const char *key : {"s_frame.cap_dep|one", "s_frame.cap_dep|one", "p_libpub.cap_state"})
        ASSERT_EQ(kx_mom_subscribe(g, 3, record(key).get(), 0, recorder, &one), 0); // again: no second route
    EXPECT_TRUE(table.empty() && one.empty()); // confirmed from the loop only
    const std::string k1 = "s_frame.cap_dep|one", k2 = "s_frame.cap_dep|two";
    const std::string set = "3:4 " + k1 + " ready=true [6]", gone = "3:3 " + k1 + " ready=false";
    const std::string hdel = "3:6 " + k1 + " ready=true [6]", bad = "3:4 no record, error -1003";
    struct Case { std::vector<Lines> writes; Lines table, one; } cases[] = {
        {{}, {"3:29 s_frame.cap_dep|*"}, {"3:29 " + k1, "3:29 " + k1, "3:29 p_libpub.cap_state"}},
        {{{"HSET", k1, "ready", "true"}}, {set}, {set}},
        {{{"HSET", k1, "x", "1"}, {"HDEL", k1, "x"}}, {set, hdel}, {set, hdel}},
        {{{"HDEL", k1, "ready"}}, {gone}, {gone}}, // its last field: the record is gone
        {{{"HSET", k2, "ready", "1"}, {"RENAME", k2, k1}}, {"3:3 s_frame.cap_dep|two ready=false", set}, {set}},
        {{{"PEXPIRE", k1, "1"}, {"?gone", k1}}, {gone}, {gone}},
        {{{"HSET", k1, "ready", "maybe"}, {"HSET", k2 + "|b", "ready", "1"}, {"SET", k2, "x"}}, {bad}, {bad}},
        {{{"SET", "p_libpub.cap_state", "(\x01"}}, {}, {"3:1 p_libpub.cap_state ready=true"}},
        {{{"DEL", "p_libpub.cap_state", k1}}, {gone}, {"3:3 p_libpub.cap_state ready=false", gone}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        table.clear(), one.clear();
        for (const auto &w : c.writes) { // "?gone": read it until the server has expired it
            auto expired = [&] { return cli(3, {"EXISTS", w[1]}) == "0"; };
            w[0] == "?gone" ? (void)testsupport::wait_for(expired) : (void)cli(3, w);
        }
        // One connection's events arrive in order: the sentinel's comes last.
        cli(3, {"HSET", "s_frame.cap_dep|~", "ready", "true"});
        const std::string sentinel = "3:4 s_frame.cap_dep|~ ready=true [6]";
        ASSERT_TRUE(run_until(g, [&] { return table.size() && table.back() == sentinel; }));
        table.pop_back();
        EXPECT_EQ(table, c.table);
        EXPECT_EQ(one, c.one);
    }
}

// Per database, in order, what its connection callbacks and its follower saw;
// what another writer does while it is down.
std::map<int32_t, Lines> seen;
std::function<void(int32_t db)> while_down;
const std::string late = "s_frame.cap_glb_table|0|/late";

TEST_F(KxMom, LostConnectionsGiveOneDisconnectTheRightReconnectAndACatchUp)
{
    // Each database's follower reads the record `late` on every confirmation,
    // as the daemon catches up; the other writer changes it while it is down.
    std::map<int32_t, int> written;
    int step = 0;
    seen.clear();
    while_down = [&](int32_t db) { cli(db, {"HSET", late, "int32_value", std::to_string(written[db] = step)}); };
    auto follower = [](kx_global_t *g, kx_mom_msg *m, void *) -> int32_t {
        kx::HashRes res(kx_mom_hgetall_sync(g, m->db, record(late).get()));
        return seen[m->db].push_back(std::to_string(m->cmd) + " " + describe(res.get())), 0;
    };
    for (int32_t db : {3, 28}) {
        while_down(db);
        ASSERT_EQ(kx_mom_client_set_disconnect_cb(g, db, [](kx_global_t *g, int32_t db) {
            seen[db].push_back("down");
            EXPECT_EQ(kx_mom_del_sync(g, db, record(late).get()), KX_MOM_ENOTCONN); // at once
            return while_down(db), 0;
        }, 0), 0);
        ASSERT_EQ(kx_mom_client_set_reconnect_cb(g, db, [](kx_global_t *, int32_t db, int32_t type) {
            return seen[db].push_back("up type " + std::to_string(type)), 0;
        }, 0), 0);
        ASSERT_EQ(kx_mom_subscribe(g, db, record("s_frame.cap_dep|").get(), 0, follower, nullptr), 0);
    }
    ASSERT_TRUE(run_until(g, [&] { return seen.size() == 2; }));
    struct Case { const char *name; int32_t db; Lines kill; int type; } cases[] = {
        {"commands", 3, {"CLIENT", "KILL", "TYPE", "normal"}, 2},
        {"subscribers", 28, {"CLIENT", "KILL", "TYPE", "pubsub"}, 2},
        {"restarted server", 3, {}, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        seen.clear(), ++step;
        c.kill.empty() ? local.restart() : (void)cli(c.db, c.kill);
        ASSERT_TRUE(run_until(g, [&] { return seen[c.db].size() == 3 && seen.size() == 2; }));
        // One disconnect and reconnect; then every subscription of every
        // database is confirmed again, once, and reads what was written.
        for (auto &[db, lines] : seen) {
            Lines expected{"29 " + late + " bool_value=false int32_value=" + std::to_string(written[db]) +
                           " str_value= [7]"};
            if (db == c.db)
                expected.insert(expected.begin(), {"down", "up type " + std::to_string(c.type)});
            EXPECT_EQ(lines, expected) << db;
        }
    }
}

TEST_F(KxMom, AServerWithTooFewDatabasesIsRefusedWithTheFix)
{
    testsupport::RedisServer small({16, "KEA"});
    setenv("KX_MOM_ADDR_1", small.addr().c_str(), 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(kx_mom_client_connect_sync(g, 1), KX_MOM_ECONFIG);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "kx_mom: db 1: " + small.addr() +
              ": the server has 16 databases, 29 are needed: set `databases 32` in redis.conf\n");
}

} // namespace
