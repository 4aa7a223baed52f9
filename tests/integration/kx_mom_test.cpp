// kx_mom against real redis-servers (db 3 on a card-local one, db 28 on a global
// one): records as stored and read back, what a selection reaches, scans (large,
// deleting, nested, asynchronous, cut short), keyspace events as deliveries, lost
// connections and the catch-up after them, routes kept across them, endpoints,
// ACL users, and a stopped server.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>

#include <event2/event.h>

#include "kx_codec.h"
#include "kx_internal.h"
#include "kx_mom_state.h"
#include "p_libpub.pb-c.h"
#include "s_frame.pb-c.h"
#include "test_redis.h"

namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

// A record as text: its key, then each field but the index as name=value.
std::string describe(const ProtobufCMessage *msg)
{
    std::string out = kx::record_key(msg);
    for (const auto &f : std::span(msg->descriptor->fields, msg->descriptor->n_fields))
        if (&f != kx::index_field(msg->descriptor))
            out += " " + std::string(f.name) + "=" + kx::field_text(msg, &f);
    return out;
}

std::string describe(const kx_mom_hash_res *res)
{
    return res->obj ? describe(static_cast<const ProtobufCMessage *>(res->obj))
                    : "no record, error " + std::to_string(res->error_code);
}

// Adds every delivery to the Lines at `out` as "db:cmd what".
int32_t recorder(kx_global_t *, kx_mom_msg *m, void *out)
{
    bool hash = m->cmd == KX_MOM_CMD_HSET || m->cmd == KX_MOM_CMD_HDEL;
    std::string what = m->scan_over ? "scan_over"
                       : !m->data   ? m->key
                       : hash       ? describe(static_cast<kx_mom_hash_res *>(m->data))
                                    : describe(static_cast<ProtobufCMessage *>(m->data));
    return static_cast<Lines *>(out)->push_back(std::to_string(m->db) + ":" +
                                                std::to_string(m->cmd) + " " + what),
           0;
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
    struct Case {
        const char *key;
        int32_t value;
        const char *str, *cli;
    } cases[] = {
        {"s_frame.cap_glb_table|-1|", -5, "", "bool_value\ntrue\nint32_value\n-5\nstr_value\n"},
        {"s_frame.cap_glb_table|-1|/fe", 7, "x y",
         "bool_value\ntrue\nint32_value\n7\nstr_value\nx y"},
        {"s_frame.cap_glb_table|0|a%7Cb%25c", 0, "|%",
         "bool_value\nfalse\nint32_value\n0\nstr_value\n|%"},
    };
    Lines line; // each record as a scan delivers it
    const int32_t tags[] = {6, 7, 8};
    for (const auto &c : cases) {
        kx::Message rec = record(c.key);
        auto *r = reinterpret_cast<SFrame__CapGlbTable *>(rec.get());
        r->bool_value = c.value != 0, r->int32_value = c.value, r->str_value = strdup(c.str);
        ASSERT_EQ(kx_mom_hmset_sync(g, 28, rec.get(), tags, 3), 0);
        EXPECT_EQ(cli(28, {"HGETALL", c.key}), c.cli);
        line.push_back("28:4 " + describe(rec.get()));
    }
    kx::Message state = record("p_libpub.cap_state"); // a whole value: SET of the packed record
    reinterpret_cast<PLibpub__CapState *>(state.get())->ready = 1;
    const int32_t ready[] = {5};
    ASSERT_EQ(kx_mom_hmset_sync(g, 28, state.get(), ready, 1), 0);
    EXPECT_EQ(cli(28, {"GET", "p_libpub.cap_state"}), "(\x01");
    int32_t error = -1; // read back, then gone: no object and no error
    kx::Message back(static_cast<ProtobufCMessage *>(kx_mom_get_sync(g, 28, state.get(), &error)));
    ASSERT_TRUE(back);
    EXPECT_EQ(describe(back.get()) + " " + std::to_string(error),
              "p_libpub.cap_state ready=true 0");
    cli(28, {"DEL", "p_libpub.cap_state"});
    EXPECT_EQ(kx_mom_get_sync(g, 28, state.get(), &error), nullptr);
    EXPECT_EQ(error, 0);

    cli(28, {"HSET", "s_frame.cap_glb_table|x|/a", "int32_value",
             "1"}); // never selected: it does not parse
    auto selected = [&](const char *key) {
        Lines rec;
        EXPECT_EQ(kx_mom_scan_sync(g, 28, record(key).get(), 0, recorder, &rec), 0) << key;
        return std::ranges::sort(rec), rec;
    };
    EXPECT_EQ(selected("s_frame.cap_glb_table|0|"), line);
    EXPECT_EQ(selected(cases[0].key), Lines{line[0]}); // a real index: that record alone, not /fe
}

// Each record once, then scan_over; also when the connection is lost under the scan
// (the first callback kills it): what was read before, and nothing after the reconnect.
Lines events; // what connection callbacks saw
TEST_F(KxMom, AsyncScanDeliversEachRecordOnceThenScanOverAlsoWhenCutShort)
{
    cli(3, {"EVAL",
            "for i = 1, 10000 do redis.call('HSET', 'p_libpub.cap_table|/u' .. i, 'pri', i) end",
            "0"});
    ASSERT_EQ(
        kx_mom_client_set_reconnect_cb(
            g, 3, [](kx_global_t *, int32_t, int32_t) { return events.push_back("up"), 0; }, 0),
        0);
    struct Scan {
        Lines rec;
        const testsupport::RedisServer *kill;
    };
    auto on_record = [](kx_global_t *g, kx_mom_msg *m, void *p) {
        auto *s = static_cast<Scan *>(p);
        if (s->rec.empty() && s->kill)
            s->kill->cli(3, {"CLIENT", "KILL", "TYPE", "normal"});
        return recorder(g, m, &s->rec);
    };
    for (const testsupport::RedisServer *kill : {(testsupport::RedisServer *)nullptr, &local}) {
        Scan scan{{}, kill};
        events.clear();
        ASSERT_EQ(kx_mom_scan(g, 3, record("p_libpub.cap_table|").get(), 0, on_record, &scan), 0);
        ASSERT_TRUE(run_until(g, [&] {
            return scan.rec.size() && scan.rec.back() == "3:0 scan_over" && events.size() == !!kill;
        }));
        EXPECT_EQ(scan.rec.back(), "3:0 scan_over");
        EXPECT_TRUE(kill ? scan.rec.size() < 10000 : scan.rec.size() == 10001) << scan.rec.size();
        std::ranges::sort(scan.rec);
        EXPECT_EQ(std::ranges::adjacent_find(scan.rec), scan.rec.end()); // each record once
    }
}

// The subcard withdrawal: each outer callback deletes its own record, scans
// db 28 deleting that node's entries, then writes the node's ready record there.
TEST_F(KxMom, ScanCallbacksMayDeleteNestAndWrite)
{
    cli(3, {"EVAL",
            "for i = 1, 6 do redis.call('HSET', 'p_libpub.cap_subcard_state|' .. i .. '|0', "
            "'ready', 1) end",
            "0"});
    cli(28,
        {"EVAL",
         "for i = 1, 12 do redis.call('HSET', 's_frame.cap_subcard_glb_table|' .. (i % 6 + 1) .. "
         "'|/' .. i, 'bool_value', 'true') end",
         "0"});                    // two entries a node
    static std::vector<int> outer; // the nodes the outer scan delivered
    static const kx_mom_cb inner = [](kx_global_t *g, kx_mom_msg *m, void *) -> int32_t {
        auto *rec =
            static_cast<SFrame__CapSubcardGlbTable *>(static_cast<kx_mom_hash_res *>(m->data)->obj);
        return rec->index->node == outer.back() ? kx_mom_del_sync(g, 28, &rec->base) : 0;
    };
    auto on_outer = [](kx_global_t *g, kx_mom_msg *m, void *) -> int32_t {
        auto *rec =
            static_cast<PLibpub__CapSubcardState *>(static_cast<kx_mom_hash_res *>(m->data)->obj);
        outer.push_back(rec->index->nodeid);
        EXPECT_EQ(kx_mom_del_sync(g, 3, &rec->base), 0);
        EXPECT_EQ(kx_mom_scan_sync(g, 28, record("s_frame.cap_subcard_glb_table|0|").get(), 0,
                                   inner, nullptr),
                  0);
        const int32_t tag[] = {6};
        kx::Message ready = record("s_frame.cap_subcard_ready|" + std::to_string(outer.back()));
        return kx_mom_hmset_sync(g, 28, ready.get(), tag, 1);
    };
    ASSERT_EQ(kx_mom_scan_sync(g, 3, record("p_libpub.cap_subcard_state|0|0").get(), 0, on_outer,
                               nullptr),
              0);
    std::ranges::sort(outer); // each once, in the store's order
    EXPECT_EQ(outer, (std::vector<int>{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(cli(3, {"DBSIZE"}), "0");
    EXPECT_EQ(cli(28, {"DBSIZE"}), "6"); // the ready records alone
}

TEST_F(KxMom, EveryKeyspaceEventOfAnotherWriterMapsToItsDelivery)
{
    Lines table, one; // the whole table; one record of it and the single-record table
    ASSERT_EQ(kx_mom_subscribe(g, 3, record("s_frame.cap_dep|").get(), 0, recorder, &table), 0);
    const std::string k1 = "s_frame.cap_dep|one", k2 = "s_frame.cap_dep|two";
    for (const std::string &key :
         {k1, k1, std::string("p_libpub.cap_state")}) // again while pending: no change
        ASSERT_EQ(kx_mom_subscribe(g, 3, record(key).get(), 0, recorder, &one), 0);
    ASSERT_TRUE(run_until(g, [&] { return table.size() + one.size() >= 3; }));
    EXPECT_EQ(table, Lines{"3:29 s_frame.cap_dep|*"});
    EXPECT_EQ(one, (Lines{"3:29 " + k1, "3:29 p_libpub.cap_state"}));
    const std::string set = "3:4 " + k1 + " ready=true", gone = "3:3 " + k1 + " ready=false";
    const std::string hdel = "3:6 " + k1 + " ready=true", bad = "3:4 no record, error -1003";
    auto expired = [&] { return cli(3, {"EXISTS", k1}) == "0"; };
    struct Case {
        std::vector<Lines> writes;
        Lines table, one;
    } cases[] = {
        {{{"HSET", k1, "ready", "1"}, {"HSET", k1, "x", "1"}, {"HDEL", k1, "x"}},
         {set, set, hdel},
         {set, set, hdel}},
        {{{"HDEL", k1, "ready"}}, {gone}, {gone}}, // its last field: the record is gone
        {{{"HSET", k2, "ready", "1"}, {"RENAME", k2, k1}},
         {"3:3 s_frame.cap_dep|two ready=false", set},
         {set}},
        {{{"PEXPIRE", k1, "1"}, {"?gone", k1}}, {gone}, {gone}},
        {{{"HSET", k1, "ready", "maybe"}, {"HSET", k2 + "|b", "ready", "1"}, {"SET", k2, "x"}},
         {bad},
         {bad}},
        {{{"SET", "p_libpub.cap_state", "(\x01"}}, {}, {"3:1 p_libpub.cap_state ready=true"}},
        {{{"DEL", "p_libpub.cap_state", k1}}, {gone}, {"3:3 p_libpub.cap_state ready=false", gone}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        table.clear(), one.clear();
        for (const auto &w : c.writes) // "?gone": read it until the server has expired it
            w[0] == "?gone" ? (void)testsupport::wait_for(expired) : (void)cli(3, w);
        // One connection's events arrive in order: the sentinel's comes last.
        cli(3, {"HSET", "s_frame.cap_dep|~", "ready", "true"});
        ASSERT_TRUE(run_until(
            g, [&] { return table.size() && table.back().starts_with("3:4 s_frame.cap_dep|~"); }));
        table.pop_back();
        EXPECT_EQ(table, c.table);
        EXPECT_EQ(one, c.one);
    }
}

// Per database, in order, what its connection callbacks and its follower saw. The
// follower reads the record `late` on every confirmation, as the daemon catches up;
// another writer changes it whenever the connection is down.
std::map<int32_t, Lines> seen;
std::function<void(int32_t db)> write_late;
const std::string late = "s_frame.cap_glb_table|0|/late";

int32_t follower(kx_global_t *g, kx_mom_msg *m, void *)
{
    kx::HashRes res(kx_mom_hgetall_sync(g, m->db, record(late).get()));
    return seen[m->db].push_back(std::to_string(m->cmd) + " " + describe(res.get())), 0;
}

// The reconnect callback subscribes again, as the daemon does: still one confirmation.
TEST_F(KxMom, LostConnectionsGiveOneDisconnectTheRightReconnectAndACatchUp)
{
    int written = 0;
    write_late = [&](int32_t db) {
        cli(db, {"HSET", late, "int32_value", std::to_string(++written)});
    };
    auto down = [](kx_global_t *, int32_t db) {
        return seen[db].push_back("down"), write_late(db), 0;
    };
    auto up = [](kx_global_t *g, int32_t db, int32_t t) {
        seen[db].push_back("up " + std::to_string(t));
        return kx_mom_subscribe(g, db, record("s_frame.cap_dep|").get(), 0, follower, nullptr);
    };
    for (int32_t db : {3, 28}) {
        ASSERT_EQ(kx_mom_client_set_disconnect_cb(g, db, down, 0), 0);
        ASSERT_EQ(kx_mom_client_set_reconnect_cb(g, db, up, 0), 0);
        ASSERT_EQ(kx_mom_subscribe(g, db, record("s_frame.cap_dep|").get(), 0, follower, nullptr),
                  0);
    }
    ASSERT_TRUE(run_until(g, [&] { return seen.size() == 2; }));
    const std::tuple<int32_t, Lines, int> cases[] = {
        // the database, how it goes down, reconnect type
        {3, {"CLIENT", "KILL", "TYPE", "normal"}, 2},
        {28, {"CLIENT", "KILL", "TYPE", "pubsub"}, 2},
        {3, {}, 1}, // the server restarted
    };
    for (const auto &[db, kill, type] : cases) {
        seen.clear();
        kill.empty() ? local.restart() : (void)cli(db, kill);
        // One disconnect and reconnect; then every database's subscription is
        // confirmed again, this one's reading what was written while it was down.
        ASSERT_TRUE(run_until(g, [&] { return seen[db].size() == 3 && seen.size() == 2; }))
            << "db " << db;
        EXPECT_EQ(seen[db], (Lines{"down", "up " + std::to_string(type),
                                   "29 " + late + " bool_value=false int32_value=" +
                                       std::to_string(written) + " str_value="}));
    }
}

// A route asked for on a connection that broke unnoticed, or while the database is down,
// is kept and confirmed once it is back, once (the reconnect callback subscribes again).
TEST_F(KxMom, NoRouteIsLostAndEachIsConfirmedOncePerReconnect)
{
    const std::string all = "s_frame.cap_del_fe_ready|0|0", two = "s_frame.cap_del_fe_ready|2|2";
    auto up = [](kx_global_t *g, int32_t db, int32_t) {
        events.push_back("up");
        return kx_mom_subscribe(g, db, record("s_frame.cap_del_fe_ready|0|0").get(), 0, recorder,
                                &events);
    };
    ASSERT_EQ(kx_mom_client_set_disconnect_cb(
                  g, 28, [](kx_global_t *, int32_t) { return events.push_back("down"), 0; }, 0),
              0);
    ASSERT_EQ(kx_mom_client_set_reconnect_cb(g, 28, up, 0), 0);
    const std::string confirmed = "28:29 s_frame.cap_del_fe_ready|*";
    const std::tuple<const char *, std::string, bool, Lines> cases[] = {
        // kill, subscribe, once down
        {"normal", all, false, {"down", "up", confirmed}},
        {"pubsub", two, true, {"down", "up", confirmed, "28:29 " + two}},
    };
    for (const auto &[kill, key, noticed, want] : cases) {
        events.clear();
        cli(28, {"CLIENT", "KILL", "TYPE", kill});
        ASSERT_TRUE(!noticed || run_until(g, [&] { return events == Lines{"down"}; }));
        ASSERT_EQ(kx_mom_subscribe(g, 28, record(key).get(), 0, recorder, &events), 0);
        ASSERT_TRUE(run_until(g, [&] { return events.size() >= want.size(); }));
        // A second confirmation would come before the notification of a later write.
        cli(28, {"HSET", "s_frame.cap_del_fe_ready|1|1", "ready", "1"});
        ASSERT_TRUE(run_until(g, [&] { return events.size() > want.size(); }));
        EXPECT_EQ(events.back(), "28:4 s_frame.cap_del_fe_ready|1|1 ready=true");
        EXPECT_EQ(Lines(events.begin(), events.end() - 1), want) << kill;
    }
}

// Connecting db 2: the endpoint forms, a server with too few databases, ACL users on the
// global one. Each refusal is one line saying why (and the fix), never the password. The
// last user, granted its channels as one pattern, connects; the server refuses its
// whole-table follow (PSUBSCRIBE patterns are granted literally), and that is logged.
TEST_F(KxMom, ConnectRefusalsSayWhyAndSubscribeRefusalsAreLogged)
{
    testsupport::RedisServer small({16, "KEA"});
    cli(28, {"ACL", "SETUSER", "card", "on", ">s3cret", "~*", "+@all", "&__keyspace@2__:*"});
    cli(28, {"ACL", "SETUSER", "deaf", "on", ">s3cret", "~*", "+@all", "resetchannels"});
    const std::string at = global.addr() + ": ";
    struct Case {
        std::string addr;
        const char *user, *password;
        int32_t rc;
        std::string line;
    };
    std::vector<Case> cases = {
        {"tcp:127.0.0.1:1", nullptr, nullptr, KX_MOM_ENOTCONN,
         "tcp:127.0.0.1:1: cannot connect: Connection refused"},
        {"unix:/none/redis.sock", nullptr, nullptr, KX_MOM_ENOTCONN,
         "unix:/none/redis.sock: cannot connect: No such file or directory"},
        {small.addr(), nullptr, nullptr, KX_MOM_ECONFIG,
         small.addr() +
             ": the server has 16 databases, 29 are needed: set `databases 32` in redis.conf"},
        {global.addr(), "card", nullptr, KX_MOM_ECONFIG,
         at + "KX_MOM_USER is set without KX_MOM_PASSWORD"},
        {global.addr(), "card", "wrong", KX_MOM_ECONFIG,
         at + "AUTH as 'card' refused: WRONGPASS invalid username-password pair or user is "
              "disabled."},
        {global.addr(), "deaf", "s3cret", KX_MOM_ECONFIG,
         at + "user 'deaf' may subscribe to no channel of db 2: grant them, e.g. ACL SETUSER deaf "
              "allchannels, "
              "or '&__keyspace@2__:*' and each table followed whole as '&__keyspace@2__:TABLE|*'"},
    };
    for (std::string bad : {"udp:127.0.0.1:6379", "tcp:127.0.0.1", "tcp::6379", "tcp:[]:6379",
                            "tcp:127.0.0.1:0", "tcp:127.0.0.1:65536", "tcp:127.0.0.1:63x", "unix:"})
        cases.push_back(
            {bad, nullptr, nullptr, KX_MOM_ECONFIG,
             "bad KX_MOM_ADDR_2 '" + bad + "': expected unix:/path/redis.sock or tcp:HOST:PORT"});
    cases.push_back({global.addr(), "card", "s3cret", 0, ""});
    for (const Case &c : cases) {
        setenv("KX_MOM_ADDR_2", c.addr.c_str(), 1);
        c.user ? setenv("KX_MOM_USER", c.user, 1) : unsetenv("KX_MOM_USER");
        c.password ? setenv("KX_MOM_PASSWORD", c.password, 1) : unsetenv("KX_MOM_PASSWORD");
        testing::internal::CaptureStderr();
        EXPECT_EQ(kx_mom_client_connect_sync(g, 2), c.rc) << c.addr;
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  c.rc ? "kx_mom: db 2: " + c.line + "\n" : "");
    }
    unsetenv("KX_MOM_USER");
    unsetenv("KX_MOM_PASSWORD");
    Lines rec;
    testing::internal::CaptureStderr();
    for (const char *key : {"s_frame.cap_dep|", "s_frame.cap_dep|x"})
        ASSERT_EQ(kx_mom_subscribe(g, 2, record(key).get(), 0, recorder, &rec), 0);
    EXPECT_TRUE(run_until(g, [&] { return rec.size() == 1; }));
    EXPECT_EQ(rec, Lines{"2:29 s_frame.cap_dep|x"});
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "kx_mom: db 2: PSUBSCRIBE __keyspace@2__:s_frame.cap_dep|* "
              "refused: NOPERM this user has no permissions to access one of the channels used as "
              "arguments\n");
}

// db 3's server stopped: the call that finds it waits the command timeout, then db 3 is
// down and its calls fail at once. The loop runs on through libkx's reconnect attempts
// (a 50 ms tick reading db 28 is never held for 500 ms); then db 3 is back, same run.
TEST_F(KxMom, AStoppedServerHoldsOnlyTheCallThatFindsIt)
{
    using Clock = std::chrono::steady_clock;
    const std::string info = local.cli(0, {"INFO", "server"});
    const pid_t pid = std::stoi(info.substr(info.find("process_id:") + 11));
    ASSERT_EQ(kx_mom_client_set_reconnect_cb(
                  g, 3,
                  [](kx_global_t *, int32_t, int32_t t) {
                      return events.push_back("up " + std::to_string(t)), 0;
                  },
                  0),
              0);
    events.clear();
    const kx::Message key = record("s_frame.cap_dep|x");
    kill(pid, SIGSTOP);
    auto start = Clock::now();
    EXPECT_EQ(kx_mom_hgetall_sync(g, 3, key.get()), nullptr);
    EXPECT_LT(Clock::now() - start, 3s);
    start = Clock::now();
    int32_t error = 0, tag = 6;
    EXPECT_EQ(kx_mom_get_sync(g, 3, key.get(), &error), nullptr);
    EXPECT_EQ((std::vector<int32_t>{error, kx_mom_hmset_sync(g, 3, key.get(), &tag, 1),
                                    kx_mom_del_sync(g, 3, key.get()),
                                    kx_mom_scan_sync(g, 3, key.get(), 0, recorder, &events),
                                    kx_mom_scan(g, 3, key.get(), 0, recorder, &events)}),
              std::vector<int32_t>(5, KX_MOM_ENOTCONN));
    EXPECT_LT(Clock::now() - start, 200ms);
    static Clock::time_point last = Clock::now();
    static Clock::duration longest{};
    static int served = 0;
    auto tick = [](evutil_socket_t, short, void *g) {
        longest = std::max(longest, Clock::now() - last), last = Clock::now();
        served += kx::HashRes(kx_mom_hgetall_sync(static_cast<kx_global_t *>(g), 28,
                                                  record("s_frame.cap_dep|x").get())) != nullptr;
    };
    kx::Event timer(event_new(g->base, -1, EV_PERSIST, tick, g));
    const timeval every{0, 50000}, window{3, 0};
    event_add(timer.get(), &every);
    event_base_loopexit(g->base, &window);
    event_base_dispatch(g->base);
    EXPECT_LT(longest, 500ms);
    EXPECT_GT(served, 20);
    kill(pid, SIGCONT);
    EXPECT_TRUE(run_until(g, [&] { return events == Lines{"up 2"}; }));
}

} // namespace
