// kx_mom notifications and connection faults against a real redis-server: every
// keyspace event of another writer reaching the right callback with the right
// cmd; killed connections and restarts answered by one disconnect, the right
// reconnect type and fresh confirmations; writes missed meanwhile caught up.
#include "kx_mom_test.h"

#include <regex>

namespace {

using namespace momtest;

// What the connection callbacks saw, in order: "down 3", "up 3 type 2".
struct Links {
    std::vector<std::string> events;
    std::function<void(int32_t)> on_down;
    size_t count(const std::string &e) const { return std::count(events.begin(), events.end(), e); }
} links;

int32_t on_down(kx_global_t *g, int32_t db)
{
    links.events.push_back("down " + std::to_string(db));
    // While a database is down its calls fail at once.
    Obj dep = record("s_frame.cap_dep|any");
    const int32_t tag[] = {6};
    EXPECT_EQ(kx_mom_hgetall_sync(g, db, dep.get()), nullptr);
    EXPECT_EQ(kx_mom_hmset_sync(g, db, dep.get(), tag, 1), KX_MOM_ENOTCONN);
    if (links.on_down)
        links.on_down(db);
    return 0;
}

int32_t on_up(kx_global_t *, int32_t db, int32_t type)
{
    links.events.push_back("up " + std::to_string(db) + " type " + std::to_string(type));
    return 0;
}

class KxMomEventsTest : public MomTest {
protected:
    KxMomEventsTest() { links = {}; }

    // Connects, registers the connection callbacks and follows cap_dep in db 3
    // and cap_del_fe_ready in db 28, until both are confirmed.
    void follow_two_databases()
    {
        connect({3, 28});
        for (int32_t db : {3, 28}) {
            ASSERT_EQ(kx_mom_client_set_disconnect_cb(g, db, on_down, 0), 0);
            ASSERT_EQ(kx_mom_client_set_reconnect_cb(g, db, on_up, 0), 0);
        }
        ASSERT_EQ(kx_mom_subscribe(g, 3, record("s_frame.cap_dep|").get(), 0, Recorder::cb, &deps),
                  0);
        ASSERT_EQ(kx_mom_subscribe(g, 28, record("s_frame.cap_del_fe_ready|0|0").get(), 0,
                                   Recorder::cb, &dels), 0);
        ASSERT_TRUE(run_until(g, [&] { return deps.seen.size() == 1 && dels.seen.size() == 1; }));
        EXPECT_EQ(deps.seen, std::vector<std::string>{"3:29 s_frame.cap_dep|*"});
        EXPECT_EQ(dels.seen, std::vector<std::string>{"28:29 s_frame.cap_del_fe_ready|*"});
        deps.seen.clear();
        dels.seen.clear();
    }

    Recorder deps, dels;
};

TEST_F(KxMomEventsTest, EveryEventOfAnotherWriterMapsToItsDelivery)
{
    connect({3});
    Recorder table, one, state;
    state.result = -7; // logged, never stops anything
    Obj all = record("s_frame.cap_dep|"), just_one = record("s_frame.cap_dep|one");
    Obj cap_state = record("p_libpub.cap_state");
    ASSERT_EQ(kx_mom_subscribe(g, 3, all.get(), 0, Recorder::cb, &table), 0);
    ASSERT_EQ(kx_mom_subscribe(g, 3, just_one.get(), 0, Recorder::cb, &one), 0);
    ASSERT_EQ(kx_mom_subscribe(g, 3, just_one.get(), 0, Recorder::cb, &one), 0);
    ASSERT_EQ(kx_mom_subscribe(g, 3, cap_state.get(), 0, Recorder::cb, &state), 0);
    EXPECT_TRUE(table.seen.empty() && one.seen.empty() && state.seen.empty());
    ASSERT_TRUE(run_until(g, [&] { return one.seen.size() == 2 && state.seen.size() == 1; }));
    EXPECT_EQ(table.seen, std::vector<std::string>{"3:29 s_frame.cap_dep|*"});
    EXPECT_EQ(one.seen, std::vector<std::string>(2, "3:29 s_frame.cap_dep|one"));
    EXPECT_EQ(state.seen, std::vector<std::string>{"3:29 p_libpub.cap_state"});

    using Lines = std::vector<std::string>;
    const std::string k1 = "s_frame.cap_dep|one", k2 = "s_frame.cap_dep|two";
    const std::string one_true = "s_frame.cap_dep|one ready=true [6]";
    struct Case {
        std::vector<std::vector<std::string>> writes; // {"?gone", key}: wait for expiry
        Lines table, one, state;
    } cases[] = {
        // Eviction first, while db 3 holds no other key to evict.
        {{{"HSET", k1, "ready", "true"},
          {"CONFIG", "SET", "maxmemory-policy", "allkeys-random"},
          {"CONFIG", "SET", "maxmemory", "1"}, {"?gone", k1},
          {"CONFIG", "SET", "maxmemory", "0"},
          {"CONFIG", "SET", "maxmemory-policy", "noeviction"}},
         {"3:3 s_frame.cap_dep|one ready=false"}, {"3:3 s_frame.cap_dep|one ready=false"}, {}},
        {{{"HSET", k1, "ready", "true"}}, {"3:4 " + one_true}, {"3:4 " + one_true}, {}},
        {{{"HSET", k1, "extra", "x"}}, {"3:4 " + one_true}, {"3:4 " + one_true}, {}},
        {{{"HDEL", k1, "extra"}}, {"3:6 " + one_true}, {"3:6 " + one_true}, {}},
        {{{"HDEL", k1, "ready"}}, {"3:3 s_frame.cap_dep|one ready=false"},
         {"3:3 s_frame.cap_dep|one ready=false"}, {}},
        {{{"HSET", k2, "ready", "1"}}, {"3:4 s_frame.cap_dep|two ready=true [6]"}, {}, {}},
        {{{"RENAME", k2, k1}}, {"3:3 s_frame.cap_dep|two ready=false", "3:4 " + one_true},
         {"3:4 " + one_true}, {}},
        {{{"HINCRBY", k1, "count", "1"}, {"EXPIRE", k1, "100"}}, {}, {}, {}},
        {{{"DEL", k1}}, {"3:3 s_frame.cap_dep|one ready=false"},
         {"3:3 s_frame.cap_dep|one ready=false"}, {}},
        // The record is read when the event is handled: by then it has expired.
        {{{"HSET", k1, "ready", "0"}, {"PEXPIRE", k1, "1"}, {"?gone", k1}},
         {"3:3 s_frame.cap_dep|one ready=false"}, {"3:3 s_frame.cap_dep|one ready=false"}, {}},
        {{{"HSET", k1, "ready", "maybe"}}, {"3:4 error -1003"}, {"3:4 error -1003"}, {}},
        {{{"DEL", k1}, {"HSET", "s_frame.cap_dep|a|b", "ready", "true"},
          {"HSET", "p_libpub.cap_table|/x", "pri", "1"}, {"SET", "s_frame.cap_dep|s", "x"}},
         {"3:3 s_frame.cap_dep|one ready=false"},
         {"3:3 s_frame.cap_dep|one ready=false"}, {}},
        {{{"DEL", "s_frame.cap_dep|s"}, {"SET", "p_libpub.cap_state", "(\x01"}},
         {"3:3 s_frame.cap_dep|s ready=false"}, // the string above, deleted
         {},
         {"3:1 p_libpub.cap_state ready=true"}},
        {{{"SET", "p_libpub.cap_state", ""}}, {}, {}, {"3:1 p_libpub.cap_state ready=false"}},
        {{{"SET", "p_libpub.cap_state", "\xff"}}, {}, {}, {}},
        {{{"DEL", "p_libpub.cap_state"}}, {}, {}, {"3:3 p_libpub.cap_state ready=false"}},
    };
    // Another database's events never reach db 3's routes.
    cli(1, {"HSET", k1, "ready", "true"});
    testing::internal::CaptureStderr();
    int step = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE("case " + std::to_string(step));
        table.seen.clear();
        one.seen.clear();
        state.seen.clear();
        for (const auto &w : c.writes) {
            if (w[0] == "?gone")
                ASSERT_TRUE(testsupport::wait_for([&] { return cli(3, {"EXISTS", w[1]}) == "0"; }));
            else
                cli(3, w);
        }
        // Events of one connection arrive in order: once the sentinel is in,
        // everything written before it has been delivered.
        std::string sentinel = "s_frame.cap_dep|~" + std::to_string(step++);
        cli(3, {"HSET", sentinel, "ready", "true"});
        std::string sentinel_line = "3:4 " + sentinel + " ready=true [6]";
        ASSERT_TRUE(run_until(g, [&] { return table.count(sentinel_line) == 1; }));
        table.seen.pop_back();
        EXPECT_EQ(table.seen, c.table);
        EXPECT_EQ(one.seen, c.one);
        EXPECT_EQ(state.seen, c.state);
    }
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("kx_mom: db 3: notification skipped: bad key 's_frame.cap_dep|a|b'"),
              std::string::npos) << err;
    EXPECT_NE(err.find("kx_mom: db 3: key 'p_libpub.cap_state': callback returned -7 for cmd 1"),
              std::string::npos) << err;
}

TEST_F(KxMomEventsTest, LostConnectionsGiveOneDisconnectTheRightTypeAndFreshConfirmations)
{
    struct Case {
        const char *name;
        std::vector<std::string> kill;
        std::vector<int32_t> down; // databases that go down
        int32_t write;             // a write to db 3 at once, before the loop runs
        const char *type;          // of the reconnects
    } cases[] = {
        {"commands", {"CLIENT", "KILL", "TYPE", "normal"}, {3, 28}, KX_MOM_EIO, "2"},
        {"subscribers", {"CLIENT", "KILL", "TYPE", "pubsub"}, {3, 28}, 0, "2"},
        {"db 3 commands", {"CLIENT", "KILL", "ID", "?db3"}, {3}, KX_MOM_EIO, "2"},
        {"restarted server", {"?restart"}, {3, 28}, KX_MOM_EIO, "1"},
    };
    follow_two_databases();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        links.events.clear();
        std::vector<std::string> kill = c.kill;
        if (kill.back() == "?db3") {
            std::smatch m;
            std::string list = cli(0, {"CLIENT", "LIST"});
            ASSERT_TRUE(std::regex_search(list, m, std::regex("id=(\\d+) [^\\n]* db=3 ")));
            kill.back() = m[1];
        }
        testing::internal::CaptureStderr();
        if (kill[0] == "?restart")
            server.restart();
        else
            cli(0, kill);
        Obj w = record("s_frame.cap_dep|w");
        const int32_t tag[] = {6};
        EXPECT_EQ(kx_mom_hmset_sync(g, 3, w.get(), tag, 1), c.write);
        if (c.write != 0) { // the failed write marked the database down
            EXPECT_EQ(kx_mom_hmset_sync(g, 3, w.get(), tag, 1), KX_MOM_ENOTCONN);
        }
        ASSERT_TRUE(run_until(g, [&] {
            return links.events.size() == 2 * c.down.size() && deps.count("3:29") &&
                   dels.count("28:29");
        }));
        std::string err = testing::internal::GetCapturedStderr();
        for (int32_t db : c.down) {
            std::string d = std::to_string(db);
            EXPECT_EQ(links.count("down " + d), 1u);
            std::string up = "up " + d + " type " + c.type;
            EXPECT_EQ(links.count(up), 1u);
            EXPECT_LT(std::find(links.events.begin(), links.events.end(), "down " + d),
                      std::find(links.events.begin(), links.events.end(), up));
            EXPECT_NE(err.find("kx_mom: db " + d + ": connection to"), std::string::npos) << err;
        }
        // Every subscription of every database is confirmed again (once per
        // database that came back); a sentinel write on each database then
        // shows the routes working on the new connections, nothing else pending.
        cli(3, {"HSET", "s_frame.cap_dep|m", "ready", "true"});
        cli(28, {"HSET", "s_frame.cap_del_fe_ready|1|0", "ready", "true"});
        ASSERT_TRUE(run_until(g, [&] { return deps.count("3:4") && dels.count("28:4"); }));
        for (auto [rec, line] : {std::pair{&deps, "3:29 s_frame.cap_dep|*"},
                                 {&dels, "28:29 s_frame.cap_del_fe_ready|*"}}) {
            ASSERT_GE(rec->seen.size(), 2u);
            EXPECT_LE(rec->seen.size(), 1 + c.down.size());
            EXPECT_EQ(std::count(rec->seen.begin(), rec->seen.end(), line),
                      static_cast<long>(rec->seen.size() - 1));
        }
        EXPECT_EQ(deps.seen.back(), "3:4 s_frame.cap_dep|m ready=true [6]");
        EXPECT_EQ(dels.seen.back(), "28:4 s_frame.cap_del_fe_ready|1|0 ready=true [6]");
        EXPECT_EQ(links.events.size(), 2 * c.down.size());
        deps.seen.clear();
        dels.seen.clear();
    }
}

// The daemon's catch-up: on every cmd 29 it reads the table again. A record
// another writer made while the database was away is found that way.
TEST_F(KxMomEventsTest, WritesMadeWhileDownAreCaughtUpAfterTheReconfirm)
{
    follow_two_databases();
    Recorder caught;
    deps.also = [&](kx_mom_msg *m) {
        if (m->cmd == KX_MOM_CMD_SUBSCRIBED) {
            Obj all = record("s_frame.cap_dep|");
            EXPECT_EQ(kx_mom_scan_sync(g, 3, all.get(), 0, Recorder::cb, &caught), 0);
        }
    };
    links.on_down = [&](int32_t db) {
        if (db == 3)
            cli(3, {"HSET", "s_frame.cap_dep|late", "ready", "true"});
    };
    testing::internal::CaptureStderr();
    cli(0, {"CLIENT", "KILL", "TYPE", "pubsub"});
    ASSERT_TRUE(run_until(g, [&] { return links.events.size() == 4 && caught.seen.size(); }));
    testing::internal::GetCapturedStderr();
    // Each database coming back confirms db 3's route again: one catch-up each.
    ASSERT_GE(caught.seen.size(), 1u);
    for (const auto &line : caught.seen)
        EXPECT_EQ(line, "3:4 s_frame.cap_dep|late ready=true [6]");
    EXPECT_EQ(deps.count("3:29"), deps.seen.size());
}

} // namespace
