// kx_mom against a real redis-server: what is stored, what a selection reaches,
// scans (large, nested, deleting, asynchronous), bad stored data, configuration.
#include "kx_mom_test.h"

#include <cstring>
#include <set>

namespace {

using namespace momtest;
using testsupport::RedisServer;

using KxMomStoreTest = MomTest;

TEST_F(KxMomStoreTest, RecordsRoundTripInTheDocumentedForm)
{
    connect({28});
    struct Case {
        const char *key; // as stored
        int32_t value;
        bool flag;
        const char *str;
        const char *hash; // redis-cli HGETALL, one element a line
    } cases[] = {
        {"s_frame.cap_glb_table|16|/fe/l3/ecmp", -5, true, "",
         "bool_value\ntrue\nint32_value\n-5\nstr_value\n"},
        {"s_frame.cap_glb_table|0|a%7Cb%25c", 0, false, "x y",
         "bool_value\nfalse\nint32_value\n0\nstr_value\nx y"},
        {"s_frame.cap_glb_table|-1|", 2147483647, true, "|%",
         "bool_value\ntrue\nint32_value\n2147483647\nstr_value\n|%"},
        {"s_frame.cap_glb_table|7|%257C", -2147483647 - 1, false, "",
         "bool_value\nfalse\nint32_value\n-2147483648\nstr_value\n"},
    };
    const int32_t tags[] = {6, 7, 8};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.key);
        Obj rec = record(c.key);
        as<SFrame__CapGlbTable>(rec)->int32_value = c.value;
        as<SFrame__CapGlbTable>(rec)->bool_value = c.flag;
        as<SFrame__CapGlbTable>(rec)->str_value = strdup(c.str);
        ASSERT_EQ(kx_mom_hmset_sync(g, 28, rec.get(), tags, 3), 0);
        EXPECT_EQ(cli(28, {"HGETALL", c.key}), c.hash);
        Res res(kx_mom_hgetall_sync(g, 28, rec.get()));
        EXPECT_EQ(describe(res.get()), describe(rec.get()) + " [6,7,8]");
        EXPECT_STREQ(res->key, c.key);
    }
    EXPECT_EQ(cli(28, {"DBSIZE"}), "4");

    // The whole-value table: SET of the packed record.
    Obj state = record("p_libpub.cap_state");
    int32_t error = -1;
    Obj missing(static_cast<ProtobufCMessage *>(kx_mom_get_sync(g, 28, state.get(), &error)));
    EXPECT_EQ(describe(missing.get()), "p_libpub.cap_state ready=false");
    EXPECT_EQ(error, 0);
    as<PLibpub__CapState>(state)->ready = 1;
    const int32_t ready[] = {5};
    ASSERT_EQ(kx_mom_hmset_sync(g, 28, state.get(), ready, 1), 0);
    EXPECT_EQ(cli(28, {"GET", "p_libpub.cap_state"}), "(\x01");
    Obj back(static_cast<ProtobufCMessage *>(kx_mom_get_sync(g, 28, state.get(), &error)));
    EXPECT_EQ(describe(back.get()), "p_libpub.cap_state ready=true");
}

TEST_F(KxMomStoreTest, MissingRecordsBadArgumentsAndUnconnectedDatabases)
{
    connect({3});
    Obj dep = record("s_frame.cap_dep|nobody");
    Res res(kx_mom_hgetall_sync(g, 3, dep.get()));
    ASSERT_TRUE(res);
    EXPECT_EQ(res->obj, nullptr);
    EXPECT_EQ(res->error_code, 0);
    EXPECT_EQ(kx_mom_del_sync(g, 3, dep.get()), 0);

    const int32_t with_index[] = {6, 5}, unknown[] = {6, 9}, ready[] = {6};
    EXPECT_EQ(kx_mom_hmset_sync(g, 3, dep.get(), with_index, 2), KX_MOM_EINVAL);
    EXPECT_EQ(kx_mom_hmset_sync(g, 3, dep.get(), unknown, 2), KX_MOM_EINVAL);
    EXPECT_EQ(kx_mom_hmset_sync(g, 3, dep.get(), nullptr, 1), KX_MOM_EINVAL);
    EXPECT_EQ(cli(3, {"DBSIZE"}), "0");

    Recorder rec;
    EXPECT_EQ(kx_mom_hmset_sync(g, 1, dep.get(), ready, 1), KX_MOM_ENOTCONN);
    EXPECT_EQ(kx_mom_hgetall_sync(g, 1, dep.get()), nullptr);
    EXPECT_EQ(kx_mom_scan_sync(g, 1, dep.get(), 0, Recorder::cb, &rec), KX_MOM_ENOTCONN);
    EXPECT_EQ(kx_mom_subscribe(g, 1, dep.get(), 0, Recorder::cb, &rec), KX_MOM_ENOTCONN);
    EXPECT_EQ(kx_mom_scan_sync(g, 3, nullptr, 0, Recorder::cb, &rec), KX_MOM_EINVAL);
    EXPECT_TRUE(rec.seen.empty());
}

TEST_F(KxMomStoreTest, SelectionsReachExactlyTheirRecords)
{
    connect({3, 28});
    for (const char *k : {"|1|/a", "|2|/a", "|1|/b", "|0|/z"}) {
        for (int db : {28, 3}) // the same records in another database
            cli(db, {"HSET", std::string("s_frame.cap_glb_table") + k, "int32_value", "7"});
    }
    // Keys that share the table name's beginning belong to other tables.
    for (const char *k : {"s_frame.cap_subcard_glb_table|1|/a", "s_frame.cap_glb_table_x|1|/a",
                          "s_frame.cap_glb_table"})
        cli(28, {"HSET", k, "int32_value", "1"});
    struct Case {
        const char *key;
        std::vector<std::string> selected;
    } cases[] = {
        {"s_frame.cap_glb_table|0|", {"|0|/z", "|1|/a", "|1|/b", "|2|/a"}},
        {"s_frame.cap_glb_table|1|/a", {"|1|/a"}},
        {"s_frame.cap_glb_table|0|/z", {"|0|/z"}},
        {"s_frame.cap_glb_table|1|", {}}, // a real index: the record |1| alone, absent
        {"s_frame.cap_fe_ready|0|0", {}}, // an empty table: 0 and no callback
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.key);
        Recorder rec;
        ASSERT_EQ(kx_mom_scan_sync(g, 28, record(c.key).get(), 0, Recorder::cb, &rec), 0);
        std::vector<std::string> expected;
        for (const auto &k : c.selected)
            expected.push_back("28:4 s_frame.cap_glb_table" + k +
                               " bool_value=false int32_value=7 str_value= [7]");
        EXPECT_EQ(rec.seen, expected);
    }
}

TEST_F(KxMomStoreTest, ScanOfTenThousandDeliversEachRecordOnce)
{
    connect({3});
    cli(3, {"EVAL",
            "for i = 1, 10000 do redis.call('HSET', 'p_libpub.cap_table|/u' .. i, 'int32_value', "
            "i, 'pri', -i) end",
            "0"});
    std::map<std::string, int> seen; // key -> deliveries that were right
    auto cb = [](kx_global_t *, kx_mom_msg *m, void *p) -> int32_t {
        auto *res = static_cast<kx_mom_hash_res *>(m->data);
        auto *rec = static_cast<PLibpub__CapTable *>(res->obj);
        // The field list may be sorted in place by the callback.
        std::sort(res->field_tag, res->field_tag + res->field_len);
        bool ok = m->cmd == KX_MOM_CMD_HSET && res->field_len == 2 && res->field_tag[1] == 21 &&
                  "/u" + std::to_string(rec->int32_value) == rec->index->url &&
                  rec->pri == -rec->int32_value;
        (*static_cast<std::map<std::string, int> *>(p))[m->key] += ok ? 1 : 100;
        return 0;
    };
    ASSERT_EQ(kx_mom_scan_sync(g, 3, record("p_libpub.cap_table|").get(), 0, cb, &seen), 0);
    EXPECT_EQ(seen.size(), 10000u);
    EXPECT_TRUE(std::all_of(seen.begin(), seen.end(), [](auto &kv) { return kv.second == 1; }));
}

// The subcard withdrawal pattern: the outer scan's callback deletes its own
// record and one further ahead, then scans and writes another database.
TEST_F(KxMomStoreTest, ScanCallbacksMayDeleteNestAndWrite)
{
    connect({3, 28});
    cli(3, {"EVAL", "for i = 1, 6 do redis.call('HSET', 'p_libpub.cap_subcard_state|' .. i .. '|0', "
                    "'ready', 'true') end", "0"});
    cli(28, {"EVAL", "for i = 1, 6 do for _, u in ipairs({'/a', '/b'}) do redis.call('HSET', "
                     "'s_frame.cap_subcard_glb_table|' .. i .. '|' .. u, 'bool_value', 'true') end end",
             "0"});
    struct Ctx {
        std::vector<int> outer;
        int node = 0;
        kx_mom_cb inner = nullptr;
    } ctx;
    ctx.inner = [](kx_global_t *g, kx_mom_msg *m, void *p) -> int32_t {
        auto *rec = static_cast<SFrame__CapSubcardGlbTable *>(
            static_cast<kx_mom_hash_res *>(m->data)->obj);
        return rec->index->node == static_cast<Ctx *>(p)->node ? kx_mom_del_sync(g, 28, &rec->base)
                                                                : 0;
    };
    auto outer = [](kx_global_t *g, kx_mom_msg *m, void *p) -> int32_t {
        auto *c = static_cast<Ctx *>(p);
        auto *rec = static_cast<ProtobufCMessage *>(static_cast<kx_mom_hash_res *>(m->data)->obj);
        c->node = reinterpret_cast<PLibpub__CapSubcardState *>(rec)->index->nodeid;
        c->outer.push_back(c->node);
        EXPECT_EQ(kx_mom_del_sync(g, 3, rec), 0);
        if (c->node == 2) {
            EXPECT_EQ(kx_mom_del_sync(g, 3, record("p_libpub.cap_subcard_state|5|0").get()), 0);
        }
        Obj all = record("s_frame.cap_subcard_glb_table|0|");
        EXPECT_EQ(kx_mom_scan_sync(g, 28, all.get(), 0, c->inner, c), 0);
        Obj ready = record("s_frame.cap_subcard_ready|" + std::to_string(c->node));
        as<SFrame__CapSubcardReady>(ready)->ready = 1;
        const int32_t tag[] = {6};
        EXPECT_EQ(kx_mom_hmset_sync(g, 28, ready.get(), tag, 1), 0);
        return 0;
    };
    Obj all = record("p_libpub.cap_subcard_state|0|0");
    ASSERT_EQ(kx_mom_scan_sync(g, 3, all.get(), 0, outer, &ctx), 0);
    EXPECT_EQ(ctx.outer, (std::vector<int>{1, 2, 3, 4, 6}));
    EXPECT_EQ(cli(3, {"DBSIZE"}), "0");
    EXPECT_EQ(cli(28, {"EVAL", "return #redis.call('KEYS', ARGV[1])", "0",
                       "s_frame.cap_subcard_glb_table|*"}), "2");
    EXPECT_EQ(cli(28, {"EXISTS", "s_frame.cap_subcard_glb_table|5|/a",
                       "s_frame.cap_subcard_glb_table|5|/b", "s_frame.cap_subcard_ready|5",
                       "s_frame.cap_subcard_ready|6"}), "3");
}

TEST_F(KxMomStoreTest, AsyncScanStartsFromTheLoopAndEndsWithScanOver)
{
    connect({28});
    cli(28, {"EVAL", "for i = 1, 600 do redis.call('HSET', 's_frame.cap_del_fe_ready|' .. i .. "
                     "'|0', 'ready', 'true') end", "0"});
    Recorder full, none;
    ASSERT_EQ(kx_mom_scan(g, 28, record("s_frame.cap_del_fe_ready|0|0").get(), 0, Recorder::cb,
                          &full), 0);
    ASSERT_EQ(kx_mom_scan(g, 28, record("s_frame.cap_fe_ready|0|0").get(), 0, Recorder::cb, &none),
              0);
    EXPECT_TRUE(full.seen.empty());
    ASSERT_TRUE(run_until(g, [&] { return full.count("28:0 scan_over") && none.seen.size(); }));
    EXPECT_EQ(none.seen, std::vector<std::string>{"28:0 scan_over"});
    ASSERT_EQ(full.seen.size(), 601u);
    EXPECT_EQ(full.seen.back(), "28:0 scan_over");
    EXPECT_EQ(std::set<std::string>(full.seen.begin(), full.seen.end() - 1).size(), 600u);
    EXPECT_EQ(full.count("28:4 s_frame.cap_del_fe_ready|"), 600u);
}

TEST_F(KxMomStoreTest, BadStoredDataIsSkippedOrReportedNeverValid)
{
    connect({28});
    cli(28, {"HSET", "s_frame.cap_glb_table|1|/ok", "int32_value", "1"});
    struct Case {
        std::vector<std::string> write;
        const char *seen;   // what a scan and HGETALL give, nullptr when skipped
        const char *logged; // in the libkx line
    } cases[] = {
        {{"HSET", "s_frame.cap_glb_table|1|/a|b", "int32_value", "1"}, nullptr,
         "scan skips bad key 's_frame.cap_glb_table|1|/a|b': too many index parts"},
        {{"HSET", "s_frame.cap_glb_table|x|/u", "int32_value", "1"}, nullptr, "bad integer part"},
        {{"HSET", "s_frame.cap_glb_table|2|/i", "str_value", "s", "int32_value", "abc"},
         "error -1003", "key 's_frame.cap_glb_table|2|/i' field 'int32_value': not an int32"},
        {{"SET", "s_frame.cap_glb_table|5|/s", "x"}, "error -1006", "WRONGTYPE"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.write[1]);
        cli(28, c.write);
        Recorder rec;
        testing::internal::CaptureStderr();
        ASSERT_EQ(kx_mom_scan_sync(g, 28, record("s_frame.cap_glb_table|0|").get(), 0,
                                   Recorder::cb, &rec), 0);
        std::string err = testing::internal::GetCapturedStderr();
        std::vector<std::string> expected{
            "28:4 s_frame.cap_glb_table|1|/ok bool_value=false int32_value=1 str_value= [7]"};
        if (c.seen) { // sorted after |1|/ok
            expected.push_back(std::string("28:4 ") + c.seen);
            testing::internal::CaptureStderr();
            EXPECT_EQ(describe(Res(kx_mom_hgetall_sync(g, 28, record(c.write[1]).get())).get()),
                      c.seen);
            testing::internal::GetCapturedStderr();
        }
        EXPECT_EQ(rec.seen, expected);
        EXPECT_TRUE(err.starts_with("kx_mom: db 28: ")) << err;
        EXPECT_NE(err.find(c.logged), std::string::npos) << err;
        cli(28, {"DEL", c.write[1]});
    }
    Obj state = record("p_libpub.cap_state");
    using Write = std::vector<std::string>;
    for (auto [write, code] : {std::pair{Write{"SET", "p_libpub.cap_state", "\xff\xff"}, KX_MOM_EPROTO},
                               {Write{"HSET", "p_libpub.cap_state", "ready", "1"}, KX_MOM_ESERVER}}) {
        cli(28, {"DEL", "p_libpub.cap_state"});
        cli(28, write);
        int32_t error = 0;
        testing::internal::CaptureStderr();
        EXPECT_EQ(kx_mom_get_sync(g, 28, state.get(), &error), nullptr);
        EXPECT_NE(testing::internal::GetCapturedStderr().find("p_libpub.cap_state"),
                  std::string::npos);
        EXPECT_EQ(error, code);
    }
}

TEST(KxMomConfigTest, BadEndpointsUsersAndServersAreRefusedWithTheFix)
{
    RedisServer small({16, "KEA"}), quiet({32, ""}), acl;
    acl.cli(0, {"ACL", "SETUSER", "kx", "on", ">s3cret", "~*", "&*", "+@all"});
    acl.cli(0, {"ACL", "SETUSER", "default", "off"});
    struct Case {
        std::string addr;   // KX_MOM_ADDR
        std::string addr28; // KX_MOM_ADDR_28, when not empty
        const char *user, *password;
        int32_t code;
        const char *logged;
    } cases[] = {
        {"tcp:localhost", "", nullptr, nullptr, KX_MOM_ECONFIG,
         "db 28: bad KX_MOM_ADDR 'tcp:localhost': expected unix:/path/redis.sock or tcp:HOST:PORT"},
        {"tcp::6379", "", nullptr, nullptr, KX_MOM_ECONFIG, "bad KX_MOM_ADDR"},
        {"tcp:h:65536", "", nullptr, nullptr, KX_MOM_ECONFIG, "bad KX_MOM_ADDR"},
        {"redis://h:1", "", nullptr, nullptr, KX_MOM_ECONFIG, "bad KX_MOM_ADDR"},
        {"", "", nullptr, nullptr, KX_MOM_ECONFIG, "bad KX_MOM_ADDR ''"},
        {quiet.addr(), "unix:", nullptr, nullptr, KX_MOM_ECONFIG, "bad KX_MOM_ADDR_28 'unix:'"},
        {"tcp:h:1", quiet.addr(), nullptr, nullptr, 0, ""},
        {"unix:/nonexistent/redis.sock", "", nullptr, nullptr, KX_MOM_ENOTCONN,
         "cannot connect to unix:/nonexistent/redis.sock"},
        {small.addr(), "", nullptr, nullptr, KX_MOM_ECONFIG,
         "the server has 16 databases, 29 are needed: set `databases 32` in redis.conf"},
        {acl.addr(), "", "kx", "s3cret", 0, ""},
        {acl.addr(), "", "kx", "wrong", KX_MOM_ECONFIG, "AUTH refused"},
        {acl.addr(), "", "kx", nullptr, KX_MOM_ECONFIG, "KX_MOM_USER is set without"},
        {acl.addr(), "", nullptr, nullptr, KX_MOM_ECONFIG, "the server needs a password"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.addr + " " + (c.user ? c.user : "") + (c.password ? c.password : ""));
        setenv("KX_MOM_ADDR", c.addr.c_str(), 1);
        c.addr28.empty() ? unsetenv("KX_MOM_ADDR_28") : setenv("KX_MOM_ADDR_28", c.addr28.c_str(), 1);
        c.user ? setenv("KX_MOM_USER", c.user, 1) : unsetenv("KX_MOM_USER");
        c.password ? setenv("KX_MOM_PASSWORD", c.password, 1) : unsetenv("KX_MOM_PASSWORD");
        kx_global_t *g = kx_global_init("kx_mom_test", nullptr);
        testing::internal::CaptureStderr();
        EXPECT_EQ(kx_mom_client_connect_sync(g, 28), c.code);
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_NE(err.find(c.logged), std::string::npos) << err;
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), c.code ? 1 : 0) << err;
        kx_global_finish(g);
    }
    for (const char *name : {"KX_MOM_ADDR_28", "KX_MOM_USER", "KX_MOM_PASSWORD"})
        unsetenv(name);
    // The missing notification flags were added where CONFIG SET was allowed.
    std::string flags = quiet.cli(0, {"CONFIG", "GET", "notify-keyspace-events"});
    for (char f : std::string("Kgh$xe"))
        EXPECT_NE(flags.find(f), std::string::npos) << flags;
}

} // namespace
