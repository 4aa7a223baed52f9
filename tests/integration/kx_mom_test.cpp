// kx_mom against real redis-servers (db 3 on a card-local one, db 28 on a global
// one): what a selection reaches, scans deleting under themselves, keyspace events as
// deliveries, lost connections and what is delivered and written after them, connect
// refusals, and a stopped server. How records are written and read is held to the
// double's results by tests/parity.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>

#include <thread>

#include "record_text.h"
#include "test_redis.h"

namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;
using testsupport::describe, testsupport::record;

// Adds every delivery to the Lines at `out` as "db:cmd what".
int32_t recorder(kx_global_t *, kx_mom_msg *m, void *out)
{
    bool hash = m->cmd == KX_MOM_CMD_HSET || m->cmd == KX_MOM_CMD_HDEL;
    std::string what = m->scan_over ? "scan_over"
                       : !m->data   ? m->key
                       : hash       ? describe(static_cast<kx_mom_hash_res *>(m->data))
                                    : describe(static_cast<ProtobufCMessage *>(m->data));
    static_cast<Lines *>(out)->push_back(std::to_string(m->db) + ":" + std::to_string(m->cmd) +
                                         " " + what);
    return 0;
}

// Runs the loop until `done` holds (false after `timeout`).
bool run_until(kx_global_t *g, const std::function<bool()> &done,
               std::chrono::milliseconds timeout = 10s)
{
    return testsupport::wait_for([&] { return kx_global_poll(g), done(); }, timeout);
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

// A table's selection reaches each of its records whose key parses, a record's that one
// alone. A scan's callback may scan again, delete and write: the scan delivers nothing
// deleted meanwhile (here the callback's nested scan deletes the whole table).
TEST_F(KxMom, ScansReachWhatTheySelectAndNothingDeletedUnderThem)
{
    const std::string table = "s_frame.cap_glb_table|", one = table + "-1|";
    for (const std::string &key : {one, one + "/fe", table + "0|a%7Cb%25c", table + "x|/a"})
        cli(28, {"HSET", key, "int32_value", "7"});
    auto selected = [&](const std::string &key) {
        Lines rec;
        EXPECT_EQ(kx_mom_scan_sync(g, 28, record(key).get(), 0, recorder, &rec), 0) << key;
        return std::ranges::sort(rec), rec;
    };
    EXPECT_EQ(selected(table + "0|"),
              (Lines{"28:4 0 " + one + " int32_value=7", "28:4 0 " + one + "/fe int32_value=7",
                     "28:4 0 " + table + "0|a%7Cb%25c int32_value=7"}));
    EXPECT_EQ(selected(one), Lines{"28:4 0 " + one + " int32_value=7"});

    static const kx_mom_cb delete_it = [](kx_global_t *g, kx_mom_msg *m, void *) {
        auto *res = static_cast<kx_mom_hash_res *>(m->data);
        return kx_mom_del_sync(g, 28, static_cast<ProtobufCMessage *>(res->obj));
    };
    auto on_outer = [](kx_global_t *g, kx_mom_msg *m, void *out) {
        const int32_t tag[] = {6};
        EXPECT_EQ(kx_mom_scan_sync(g, 28, record("s_frame.cap_glb_table|0|").get(), 0, delete_it,
                                   nullptr),
                  0);
        EXPECT_EQ(kx_mom_hmset_sync(g, 28, record("s_frame.cap_subcard_ready|7").get(), tag, 1), 0);
        return recorder(g, m, out);
    };
    Lines outer;
    ASSERT_EQ(kx_mom_scan_sync(g, 28, record(table + "0|").get(), 0, on_outer, &outer), 0);
    EXPECT_EQ(outer.size(), 1u);
    EXPECT_EQ(global.dump(28),
              (Lines{table + "x|/a int32_value=7", "s_frame.cap_subcard_ready|7 ready=false"}));
}

TEST_F(KxMom, EveryKeyspaceEventOfAnotherWriterMapsToItsDelivery)
{
    Lines table, one, other; // the whole table; one record of it and the single-record
                             // table; another table, which none of the writes is about
    ASSERT_EQ(kx_mom_subscribe(g, 3, record("s_frame.cap_dep|").get(), 0, recorder, &table), 0);
    ASSERT_EQ(kx_mom_subscribe(g, 3, record("p_libpub.cap_table|").get(), 0, recorder, &other), 0);
    const std::string k1 = "s_frame.cap_dep|one", k2 = "s_frame.cap_dep|two";
    for (const std::string &key : {k1, k1, std::string("p_libpub.cap_state")}) // k1 while pending
        ASSERT_EQ(kx_mom_subscribe(g, 3, record(key).get(), 0, recorder, &one), 0);
    EXPECT_TRUE(table.empty()); // confirmed from the loop only
    ASSERT_TRUE(run_until(g, [&] { return table.size() + one.size() + other.size() >= 4; }));
    EXPECT_EQ(table, Lines{"3:29 s_frame.cap_dep|*"});
    EXPECT_EQ(one, (Lines{"3:29 " + k1, "3:29 p_libpub.cap_state"}));
    const std::string set = "3:4 0 " + k1 + " ready=true", gone = "3:3 " + k1 + " ready=false";
    const std::string hdel = "3:6 0 " + k1 + " ready=true", bad = "3:4 -1003 no record";
    auto expired = [&] { return cli(3, {"EXISTS", k1}) == "0"; };
    const std::tuple<std::vector<Lines>, Lines, Lines> cases[] = {
        // writes, table, one
        {{{"HSET", k1, "ready", "1"}, {"HSET", k1, "x", "1"}, {"HDEL", k1, "x"}},
         {set, set, hdel},
         {set, set, hdel}},
        {{{"HDEL", k1, "ready"}}, {gone}, {gone}}, // its last field: the record is gone
        {{{"HSET", k2, "ready", "1"}, {"RENAME", k2, k1}},
         {"3:3 " + k2 + " ready=false", set},
         {set}},
        {{{"PEXPIRE", k1, "1"}, {"?gone", k1}}, {gone}, {gone}},
        {{{"HSET", k1, "ready", "maybe"}, {"HSET", k2 + "|b", "ready", "1"}, {"SET", k2, "x"}},
         {bad},
         {bad}},
        {{{"SET", "p_libpub.cap_state", "(\x01"}}, {}, {"3:1 p_libpub.cap_state ready=true"}},
        {{{"DEL", "p_libpub.cap_state", k1}}, {gone}, {"3:3 p_libpub.cap_state ready=false", gone}},
    };
    for (const auto &[writes, want_table, want_one] : cases) {
        SCOPED_TRACE(writes[0][0] + " " + writes[0][1]);
        table.clear(), one.clear();
        for (const auto &w : writes) // "?gone": read it until the server has expired it
            w[0] == "?gone" ? (void)testsupport::wait_for(expired) : (void)cli(3, w);
        // One connection's events arrive in order: the sentinel's comes last.
        cli(3, {"HSET", "s_frame.cap_dep|~", "ready", "true"});
        ASSERT_TRUE(run_until(g, [&] {
            return table.size() && table.back().starts_with("3:4 0 s_frame.cap_dep|~");
        }));
        table.pop_back();
        EXPECT_EQ(table, want_table);
        EXPECT_EQ(one, want_one);
    }
    EXPECT_EQ(other, Lines{"3:29 p_libpub.cap_table|*"});
}

// Per database, in order: its connection callbacks and its routes' deliveries.
std::map<int32_t, Lines> seen;

int32_t note_up(kx_global_t *, int32_t db, int32_t type)
{
    seen[db].push_back("up " + std::to_string(type));
    return 0;
}

// While a database is out of reach another writer changes its records and this process
// fails to write; once it is back its routes get what changed, each once, and nothing
// else (the other database's route nothing at all), and the failed writes are made: the
// last one meant for each key. A route asked for meanwhile, and the one the reconnect
// callback asks for again (as the daemon does), are confirmed once. (A server that
// restarted is reported as such: the fault suite's global-restart, every daemon exiting 77.)
TEST_F(KxMom, ALostConnectionDeliversWhatChangedAndMakesTheFailedWrites)
{
    static const std::map<int32_t, std::string> followed = {{3, "s_frame.cap_dep|"},
                                                            {28, "s_frame.cap_del_fe_ready|0|0"}};
    // A record of each database followed by another route, written after the reconnect:
    // once that route has it, nothing more of the reconnect is to come.
    const std::map<int32_t, std::string> clock = {{3, "s_frame.cap_fe_ready|9|9"},
                                                  {28, "s_frame.cap_fe_ready|9|9"}};
    Lines ticks;
    auto down = [](kx_global_t *, int32_t db) { return seen[db].push_back("down"), 0; };
    auto up = [](kx_global_t *g, int32_t db, int32_t type) {
        note_up(g, db, type);
        return db == 28
                   ? kx_mom_subscribe(g, db, record(followed.at(db)).get(), 0, recorder, &seen[db])
                   : 0;
    };
    const std::string dep = "s_frame.cap_dep|", notice = "s_frame.cap_del_fe_ready|";
    for (const char *m : {"same", "old", "gone"})
        cli(3, {"HSET", dep + m, "ready", "1"});
    auto forget = [] { // the routes write to these lines
        for (auto &[db, lines] : seen)
            lines.clear();
    };
    forget();
    for (const auto &[db, table] : followed) {
        ASSERT_EQ(kx_mom_client_set_disconnect_cb(g, db, down, 0), 0);
        ASSERT_EQ(kx_mom_client_set_reconnect_cb(g, db, up, 0), 0);
        ASSERT_EQ(kx_mom_subscribe(g, db, record(table).get(), 0, recorder, &seen[db]), 0);
        ASSERT_EQ(kx_mom_subscribe(g, db, record(clock.at(db)).get(), 0, recorder, &ticks), 0);
    }
    ASSERT_TRUE(run_until(g, [&] { return seen[3].size() + seen[28].size() == 2; }));
    forget();
    const int32_t ready[] = {6};
    auto write = [&](const std::string &key) {
        return kx_mom_hmset_sync(g, 28, record(key).get(), ready, 1);
    };
    auto erase = [&](const std::string &key) { return kx_mom_del_sync(g, 28, record(key).get()); };
    const std::string sub7 = "s_frame.cap_subcard_ready|7", sub8 = "s_frame.cap_subcard_ready|8";
    ASSERT_EQ(erase("s_frame.cap_subcard_ready|9"), 0); // made: not to be made again once back
    struct Case {
        int32_t db;
        std::vector<Lines> writes;  // another writer's, while it is away
        std::function<void()> ours; // this process's, while it is away
        Lines want;                 // its deliveries once back, sorted
        long hset, del;             // the writes it got once back
    };
    const Case cases[] = {
        {3, {}, [] {}, {}, 0, 0},
        {3,
         {{"HSET", dep + "new", "ready", "1"},
          {"HSET", dep + "old", "ready", "0"},
          {"DEL", dep + "gone"},
          {"HSET", dep + "same", "ready", "1"}},
         [&] {
             EXPECT_EQ(kx_mom_subscribe(g, 3, record(dep + "a").get(), 0, recorder, &seen[3]), 0);
         },
         {"3:29 " + dep + "a", "3:3 " + dep + "gone ready=false", "3:4 0 " + dep + "new ready=true",
          "3:4 0 " + dep + "old ready=false"},
         0,
         0},
        {28,
         {{"HSET", notice + "2|2", "ready", "1"}},
         [&] {
             EXPECT_EQ(write(sub7), KX_MOM_ENOTCONN);
             EXPECT_EQ(write(sub8), KX_MOM_ENOTCONN);
             EXPECT_EQ(erase(sub7), KX_MOM_ENOTCONN);
             EXPECT_EQ(write(sub7), KX_MOM_ENOTCONN);
             const int32_t ready_whole[] = {5};
             EXPECT_EQ(kx_mom_hmset_sync(g, 28,
                                         record("p_libpub.cap_state", {{"ready", "true"}}).get(),
                                         ready_whole, 1),
                       KX_MOM_ENOTCONN);
         },
         {"28:29 " + notice + "*", "28:4 0 " + notice + "2|2 ready=true"},
         2,
         1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.db);
        testsupport::RedisServer &server = c.db == 3 ? local : global;
        forget();
        server.away(true);
        for (const Lines &w : c.writes)
            cli(c.db, w);
        ASSERT_TRUE(run_until(g, [&] { return seen[c.db] == Lines{"down"}; }));
        c.ours();
        cli(c.db, {"CONFIG", "RESETSTAT"});
        forget();
        server.away(false);
        ASSERT_TRUE(run_until(g, [&] { return seen[c.db].size() == c.want.size() + 1; }));
        EXPECT_EQ(server.calls("hset"), c.hset);
        EXPECT_EQ(server.calls("del"), c.del);
        const std::string tick = std::to_string(ticks.size());
        cli(c.db, {"HSET", clock.at(c.db), "ready", "1", "devid", tick});
        ASSERT_TRUE(run_until(
            g, [&] { return !ticks.empty() && ticks.back().ends_with("devid=" + tick); }));
        EXPECT_EQ(seen[c.db].front(), "up 2");
        Lines got(seen[c.db].begin() + 1, seen[c.db].end());
        std::ranges::sort(got);
        EXPECT_EQ(got, c.want);
        EXPECT_TRUE(seen[c.db == 3 ? 28 : 3].empty());
    }
    EXPECT_EQ(global.dump(28),
              (Lines{"p_libpub.cap_state value=\x28\x01", notice + "2|2 ready=1",
                     clock.at(28) + " ready=1 devid=" + std::to_string(ticks.size() - 1),
                     sub7 + " ready=false", sub8 + " ready=false"}));
}

// Connecting: a server that is not there, one with too few databases, ACL users on the
// global one. Each refusal is one line saying why (and the fix), never the password. The
// card's user, without admin commands, is told which notifications the server must have;
// granted its channels as one pattern, the server refuses its whole-table follow
// (PSUBSCRIBE patterns are granted literally), and that is logged.
TEST_F(KxMom, ConnectRefusalsSayWhyAndSubscribeRefusalsAreLogged)
{
    testsupport::RedisServer small({16, "KEA"});
    cli(28,
        {"ACL", "SETUSER", "card", "on", ">s3cret", "~*", "+@all", "-@admin", "&__keyspace@2__:*"});
    const std::string at = global.addr() + ": ";
    const std::tuple<std::string, int32_t, const char *, const char *, int32_t, std::string>
        cases[] = {
            // address, database, user, password, code, the line
            {"unix:/none/redis.sock", 2, nullptr, nullptr, KX_MOM_ENOTCONN,
             "unix:/none/redis.sock: cannot connect: No such file or directory"},
            {small.addr(), 20, nullptr, nullptr, KX_MOM_ECONFIG,
             small.addr() + ": SELECT 20 refused: ERR DB index is out of range: set `databases "
                            "32` in redis.conf"},
            {global.addr(), 2, "card", "wrong", KX_MOM_ECONFIG,
             at + "AUTH as 'card' refused: WRONGPASS invalid username-password pair or user is "
                  "disabled."},
            {global.addr(), 2, "card", "s3cret", 0,
             at + "this user may not read the server's keyspace notification flags (CONFIG GET): "
                  "the server must have notify-keyspace-events with Kgh$xe (e.g. KEA)"},
        };
    for (const auto &[addr, db, user, password, code, line] : cases) {
        setenv(("KX_MOM_ADDR_" + std::to_string(db)).c_str(), addr.c_str(), 1);
        user ? setenv("KX_MOM_USER", user, 1) : unsetenv("KX_MOM_USER");
        password ? setenv("KX_MOM_PASSWORD", password, 1) : unsetenv("KX_MOM_PASSWORD");
        testing::internal::CaptureStderr();
        EXPECT_EQ(kx_mom_client_connect_sync(g, db), code) << addr;
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "kx_mom: db " + std::to_string(db) + ": " + line + "\n");
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

// Connections lost again and again right after each reconnect are retried ever later
// (100, 200, 400 ms...); one that held 5 s is retried from 100 ms again.
TEST_F(KxMom, RetriesSlowDownWhileConnectionsFailAndStartAfreshOnceOneHeld)
{
    using Clock = std::chrono::steady_clock;
    ASSERT_EQ(kx_mom_client_set_reconnect_cb(g, 3, note_up, 0), 0);
    auto away_for = [&] { // from the connections killed to their reconnect
        seen.clear();
        const auto killed = Clock::now();
        cli(3, {"CLIENT", "KILL", "TYPE", "normal"});
        EXPECT_TRUE(run_until(g, [&] { return !seen[3].empty(); }));
        return Clock::now() - killed;
    };
    away_for(), away_for();
    EXPECT_GT(away_for(), 350ms); // the third in a row waited 400 ms
    std::this_thread::sleep_for(5s);
    EXPECT_LT(away_for(), 350ms); // 100 ms, not 800
}

// db 3's server stopped: the call that finds it waits the command timeout, then db 3 is
// down and its calls fail at once. The loop runs on through libkx's reconnect attempts
// (a 50 ms tick reading db 28 is never held for a second); then db 3 is back, same run.
TEST_F(KxMom, AStoppedServerHoldsOnlyTheCallThatFindsIt)
{
    using Clock = std::chrono::steady_clock;
    const std::string info = local.cli(0, {"INFO", "server"});
    const pid_t pid = std::stoi(info.substr(info.find("process_id:") + 11));
    ASSERT_EQ(kx_mom_client_set_reconnect_cb(g, 3, note_up, 0), 0);
    seen.clear();
    const kx::Message key = record("s_frame.cap_dep|x");
    kill(pid, SIGSTOP);
    auto start = Clock::now();
    EXPECT_EQ(kx_mom_hgetall_sync(g, 3, key.get()), nullptr);
    EXPECT_LT(Clock::now() - start, 4s); // the 2 s command timeout, not more
    start = Clock::now();
    int32_t error = 0, tag = 6;
    EXPECT_EQ(kx_mom_get_sync(g, 3, key.get(), &error), nullptr);
    EXPECT_EQ((std::vector<int32_t>{error, kx_mom_hmset_sync(g, 3, key.get(), &tag, 1),
                                    kx_mom_del_sync(g, 3, key.get()),
                                    kx_mom_scan_sync(g, 3, key.get(), 0, recorder, &seen[0]),
                                    kx_mom_scan(g, 3, key.get(), 0, recorder, &seen[0])}),
              std::vector<int32_t>(5, KX_MOM_ENOTCONN));
    EXPECT_LT(Clock::now() - start, 200ms);
    // The loop, turned every 50 ms for 3 s, each turn reading db 28.
    Clock::duration longest{};
    int served = 0;
    for (const auto end = Clock::now() + 3s; Clock::now() < end;) {
        const auto turn = Clock::now();
        ASSERT_EQ(kx_global_poll(g), 0);
        served += kx::HashRes(kx_mom_hgetall_sync(g, 28, key.get())) != nullptr;
        longest = std::max(longest, Clock::now() - turn);
        std::this_thread::sleep_for(50ms);
    }
    EXPECT_LT(longest, 1s); // a reconnect that waited would hold it 2 s
    EXPECT_GT(served, 20);
    kill(pid, SIGCONT);
    EXPECT_TRUE(run_until(g, [&] { return seen[3] == Lines{"up 2"}; }));
}

} // namespace
