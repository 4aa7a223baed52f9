// kx_mom against a real redis-server: what is stored, what a selection reaches,
// scans (large, nested, deleting, asynchronous), bad stored data, configuration.
#include "kx_mom_test.h"

#include <set>

namespace {

using namespace momtest;
using testsupport::RedisServer;

using StoreTest = MomTest;

struct ResFree {
    void operator()(kx_mom_hash_res *r) const { kx_mom_hash_res_free(r); }
};
using Res = std::unique_ptr<kx_mom_hash_res, ResFree>;
struct ObjFree {
    void operator()(void *o) const { kx_mom_kx_obj_free(o); }
};
using Obj = std::unique_ptr<void, ObjFree>;

TEST_F(StoreTest, RecordsRoundTripInTheDocumentedForm)
{
    connect({28});
    struct Case {
        int32_t node;
        const char *url;
        int32_t value;
        bool flag;
        const char *str;
        const char *key;         // as stored
        const char *hash;        // redis-cli HGETALL, one element a line
    } cases[] = {
        {16, "/fe/l3/ecmp", -5, true, "", "s_frame.cap_glb_table|16|/fe/l3/ecmp",
         "bool_value\ntrue\nint32_value\n-5\nstr_value\n"},
        {0, "a|b%c", 0, false, "x y", "s_frame.cap_glb_table|0|a%7Cb%25c",
         "bool_value\nfalse\nint32_value\n0\nstr_value\nx y"},
        {-1, "", 2147483647, true, "|%", "s_frame.cap_glb_table|-1|",
         "bool_value\ntrue\nint32_value\n2147483647\nstr_value\n|%"},
        {7, "%7C", -2147483647 - 1, false, "", "s_frame.cap_glb_table|7|%257C",
         "bool_value\nfalse\nint32_value\n-2147483648\nstr_value\n"},
    };
    const int32_t tags[] = {6, 7, 8};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.key);
        Glb rec(c.node, c.url, c.value, c.flag, c.str);
        ASSERT_EQ(kx_mom_hmset_sync(g, 28, rec.msg(), tags, 3), 0);
        EXPECT_EQ(cli(28, {"HGETALL", c.key}), c.hash);
        Res res(kx_mom_hgetall_sync(g, 28, rec.msg()));
        ASSERT_TRUE(res);
        EXPECT_EQ(describe(res.get()), describe(rec.msg()) + " [6,7,8]");
        EXPECT_EQ(res->db, 28);
        EXPECT_STREQ(res->key, c.key);
    }
    EXPECT_EQ(cli(28, {"DBSIZE"}), "4");

    // The whole-value table: SET of the packed record, read back with GET.
    PLibpub__CapState state = P_LIBPUB__CAP_STATE__INIT;
    state.ready = 1;
    const int32_t ready_tag[] = {5};
    ASSERT_EQ(kx_mom_hmset_sync(g, 28, &state.base, ready_tag, 1), 0);
    EXPECT_EQ(cli(28, {"GET", "p_libpub.cap_state"}), "(\x01");
    int32_t error = -1;
    Obj back(kx_mom_get_sync(g, 28, &state.base, &error));
    EXPECT_EQ(error, 0);
    EXPECT_EQ(describe(static_cast<ProtobufCMessage *>(back.get())), "p_libpub.cap_state ready=true");

    // What an operator writes by hand reads back: bools as 1/0, bytes raw.
    cli(28, {"HSET", "p_dev.dp_lib_my_info", "prod_serial", "S|N%1", "slotid", "-3",
             "dm_my_node_type", "3"});
    PDev__DpLibMyInfo info = P_DEV__DP_LIB_MY_INFO__INIT;
    Res mine(kx_mom_hgetall_sync(g, 28, &info.base));
    ASSERT_TRUE(mine && mine->obj);
    auto *got = static_cast<PDev__DpLibMyInfo *>(mine->obj);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(got->prod_serial.data), got->prod_serial.len),
              "S|N%1");
    EXPECT_EQ(got->slotid, -3);
    EXPECT_EQ(got->dm_my_node_type, P_DEV__DM_NODE_TYPE_E__DM_TYPE_LC);
    cli(28, {"HSET", "s_frame.cap_glb_table|1|/b", "bool_value", "1"});
    Glb b(1, "/b");
    Res one(kx_mom_hgetall_sync(g, 28, b.msg()));
    EXPECT_EQ(describe(one.get()), "s_frame.cap_glb_table|1|/b bool_value=true int32_value=0 "
                                   "str_value= [6]");
}

TEST_F(StoreTest, MissingRecordsBadArgumentsAndUnconnectedDatabases)
{
    connect({3});
    PLibpub__CapState state = P_LIBPUB__CAP_STATE__INIT;
    int32_t error = -1;
    Obj empty(kx_mom_get_sync(g, 3, &state.base, &error));
    ASSERT_TRUE(empty);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(describe(static_cast<ProtobufCMessage *>(empty.get())), "p_libpub.cap_state ready=false");

    Dep dep("nobody");
    Res res(kx_mom_hgetall_sync(g, 3, dep.msg()));
    ASSERT_TRUE(res);
    EXPECT_EQ(res->obj, nullptr);
    EXPECT_EQ(res->error_code, 0);
    EXPECT_EQ(kx_mom_del_sync(g, 3, dep.msg()), 0);

    const int32_t with_index[] = {6, 5}, unknown[] = {6, 9};
    EXPECT_EQ(kx_mom_hmset_sync(g, 3, dep.msg(), with_index, 2), KX_MOM_EINVAL);
    EXPECT_EQ(kx_mom_hmset_sync(g, 3, dep.msg(), unknown, 2), KX_MOM_EINVAL);
    EXPECT_EQ(kx_mom_hmset_sync(g, 3, dep.msg(), nullptr, 1), KX_MOM_EINVAL);
    EXPECT_EQ(kx_mom_hmset_sync(g, 3, nullptr, with_index, 1), KX_MOM_EINVAL);
    EXPECT_EQ(cli(3, {"DBSIZE"}), "0");

    const int32_t ready[] = {6};
    EXPECT_EQ(kx_mom_hmset_sync(g, 1, dep.msg(), ready, 1), KX_MOM_ENOTCONN);
    EXPECT_EQ(kx_mom_hgetall_sync(g, 1, dep.msg()), nullptr);
    EXPECT_EQ(kx_mom_get_sync(g, 1, &state.base, &error), nullptr);
    EXPECT_EQ(error, KX_MOM_ENOTCONN);
    Recorder rec;
    EXPECT_EQ(kx_mom_scan_sync(g, 1, dep.msg(), 0, Recorder::cb, &rec), KX_MOM_ENOTCONN);
    EXPECT_EQ(kx_mom_subscribe(g, 1, dep.msg(), 0, Recorder::cb, &rec), KX_MOM_ENOTCONN);
    EXPECT_EQ(kx_mom_scan_sync(g, 3, nullptr, 0, Recorder::cb, &rec), KX_MOM_EINVAL);
    EXPECT_EQ(kx_mom_del_sync(nullptr, 3, dep.msg()), KX_MOM_EINVAL);
    EXPECT_TRUE(rec.seen.empty());
}

TEST_F(StoreTest, SelectionsReachExactlyTheirRecords)
{
    connect({3, 28});
    const int32_t tags[] = {7};
    for (auto [node, url] : {std::pair{1, "/a"}, {2, "/a"}, {1, "/b"}, {0, "/z"}}) {
        Glb rec(node, url, node);
        ASSERT_EQ(kx_mom_hmset_sync(g, 28, rec.msg(), tags, 1), 0);
        ASSERT_EQ(kx_mom_hmset_sync(g, 3, rec.msg(), tags, 1), 0); // another database
    }
    // Keys that share the table name's beginning belong to other tables.
    cli(28, {"HSET", "s_frame.cap_subcard_glb_table|1|/a", "int32_value", "1"});
    cli(28, {"HSET", "s_frame.cap_glb_table_x|1|/a", "int32_value", "1"});
    cli(28, {"HSET", "s_frame.cap_glb_table", "int32_value", "1"});

    struct Case {
        int32_t node;
        const char *url;
        std::vector<std::string> keys;
    } cases[] = {
        {0, "", {"|0|/z", "|1|/a", "|1|/b", "|2|/a"}},
        {1, "/a", {"|1|/a"}},
        {0, "/z", {"|0|/z"}},
        {1, "", {}}, // a real index: the record |1| alone, absent
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.node) + c.url);
        Recorder rec;
        Glb key(c.node, c.url);
        ASSERT_EQ(kx_mom_scan_sync(g, 28, key.msg(), 0, Recorder::cb, &rec), 0);
        std::vector<std::string> expected;
        for (const auto &k : c.keys) {
            std::string n = k.substr(1, k.find('|', 1) - 1);
            expected.push_back("28:4 s_frame.cap_glb_table" + k + " bool_value=false int32_value=" +
                               n + " str_value= [7]");
        }
        EXPECT_EQ(rec.seen, expected);
    }
    Recorder none;
    SFrame__CapFeReady empty = S_FRAME__CAP_FE_READY__INIT;
    EXPECT_EQ(kx_mom_scan_sync(g, 28, &empty.base, 0, Recorder::cb, &none), 0);
    EXPECT_TRUE(none.seen.empty());
}

TEST_F(StoreTest, ScanOfTenThousandDeliversEachRecordOnce)
{
    connect({3});
    cli(3, {"EVAL",
            "for i = 1, 10000 do redis.call('HSET', 'p_libpub.cap_table|/u' .. i, 'int32_value', "
            "i, 'pri', -i) end",
            "0"});
    std::map<std::string, int> seen;
    int bad = 0;
    struct Ctx {
        std::map<std::string, int> *seen;
        int *bad;
    } ctx{&seen, &bad};
    auto cb = [](kx_global_t *, kx_mom_msg *m, void *p) -> int32_t {
        auto *c = static_cast<Ctx *>(p);
        auto *res = static_cast<kx_mom_hash_res *>(m->data);
        auto *rec = static_cast<PLibpub__CapTable *>(res->obj);
        // The field list may be sorted in place by the callback.
        std::sort(res->field_tag, res->field_tag + res->field_len);
        bool ok = m->cmd == KX_MOM_CMD_HSET && rec && res->field_len == 2 &&
                  res->field_tag[0] == 7 && res->field_tag[1] == 21 &&
                  std::string("/u") + std::to_string(rec->int32_value) == rec->index->url &&
                  rec->pri == -rec->int32_value;
        *c->bad += !ok;
        ++(*c->seen)[m->key];
        return 0;
    };
    PLibpub__CapTable key = P_LIBPUB__CAP_TABLE__INIT;
    ASSERT_EQ(kx_mom_scan_sync(g, 3, &key.base, 0, cb, &ctx), 0);
    EXPECT_EQ(seen.size(), 10000u);
    EXPECT_EQ(bad, 0);
    EXPECT_TRUE(std::all_of(seen.begin(), seen.end(), [](auto &kv) { return kv.second == 1; }));
}

// The subcard withdrawal pattern: the outer scan's callback deletes its own
// record and one further ahead, then scans and writes another database.
TEST_F(StoreTest, ScanCallbacksMayDeleteNestAndWrite)
{
    connect({3, 28});
    for (int node = 1; node <= 6; ++node) {
        cli(3, {"HSET", "p_libpub.cap_subcard_state|" + std::to_string(node) + "|0", "ready", "true"});
        for (const char *url : {"/a", "/b"})
            cli(28, {"HSET", "s_frame.cap_subcard_glb_table|" + std::to_string(node) + "|" + url,
                     "bool_value", "true"});
    }
    struct Ctx {
        kx_global_t *g;
        std::vector<int> outer;
        int node = 0;
        kx_mom_cb inner = nullptr;
    } ctx{g, {}};
    ctx.inner = [](kx_global_t *g, kx_mom_msg *m, void *p) -> int32_t {
        auto *c = static_cast<Ctx *>(p);
        auto *rec = static_cast<SFrame__CapSubcardGlbTable *>(
            static_cast<kx_mom_hash_res *>(m->data)->obj);
        return rec->index->node == c->node ? kx_mom_del_sync(g, 28, &rec->base) : 0;
    };
    auto outer = [](kx_global_t *g, kx_mom_msg *m, void *p) -> int32_t {
        auto *c = static_cast<Ctx *>(p);
        auto *rec = static_cast<PLibpub__CapSubcardState *>(
            static_cast<kx_mom_hash_res *>(m->data)->obj);
        c->node = rec->index->nodeid;
        c->outer.push_back(c->node);
        EXPECT_EQ(kx_mom_del_sync(g, 3, &rec->base), 0);
        if (c->node == 2) {
            PLibpub__CapSubcardStateIndex five_index = P_LIBPUB__CAP_SUBCARD_STATE_INDEX__INIT;
            five_index.nodeid = 5;
            PLibpub__CapSubcardState five = P_LIBPUB__CAP_SUBCARD_STATE__INIT;
            five.index = &five_index;
            EXPECT_EQ(kx_mom_del_sync(g, 3, &five.base), 0);
        }
        SFrame__CapSubcardGlbTable all = S_FRAME__CAP_SUBCARD_GLB_TABLE__INIT;
        EXPECT_EQ(kx_mom_scan_sync(g, 28, &all.base, 0, c->inner, c), 0);
        SFrame__CapSubcardReadyIndex ready_index = S_FRAME__CAP_SUBCARD_READY_INDEX__INIT;
        ready_index.nodeid = c->node;
        SFrame__CapSubcardReady ready = S_FRAME__CAP_SUBCARD_READY__INIT;
        ready.index = &ready_index;
        ready.ready = 1;
        const int32_t tag[] = {6};
        EXPECT_EQ(kx_mom_hmset_sync(g, 28, &ready.base, tag, 1), 0);
        return 0;
    };
    PLibpub__CapSubcardState all = P_LIBPUB__CAP_SUBCARD_STATE__INIT;
    ASSERT_EQ(kx_mom_scan_sync(g, 3, &all.base, 0, outer, &ctx), 0);
    EXPECT_EQ(ctx.outer, (std::vector<int>{1, 2, 3, 4, 6}));
    EXPECT_EQ(cli(3, {"DBSIZE"}), "0");
    std::string left = cli(28, {"KEYS", "s_frame.cap_subcard_glb_table|*"});
    EXPECT_TRUE(left == "s_frame.cap_subcard_glb_table|5|/a\ns_frame.cap_subcard_glb_table|5|/b" ||
                left == "s_frame.cap_subcard_glb_table|5|/b\ns_frame.cap_subcard_glb_table|5|/a")
        << left;
    EXPECT_EQ(cli(28, {"EXISTS", "s_frame.cap_subcard_ready|5", "s_frame.cap_subcard_ready|6"}), "1");
}

TEST_F(StoreTest, AsyncScanStartsFromTheLoopAndEndsWithScanOver)
{
    connect({28});
    cli(28, {"EVAL",
             "for i = 1, 600 do redis.call('HSET', 's_frame.cap_del_fe_ready|' .. i .. '|0', "
             "'ready', 'true') end",
             "0"});
    SFrame__CapDelFeReady key = S_FRAME__CAP_DEL_FE_READY__INIT;
    SFrame__CapFeReady empty = S_FRAME__CAP_FE_READY__INIT;
    Recorder full, none;
    ASSERT_EQ(kx_mom_scan(g, 28, &key.base, 0, Recorder::cb, &full), 0);
    ASSERT_EQ(kx_mom_scan(g, 28, &empty.base, 0, Recorder::cb, &none), 0);
    EXPECT_TRUE(full.seen.empty());
    ASSERT_TRUE(run_until(g, [&] { return full.count("28:0 scan_over") && none.seen.size(); }));
    EXPECT_EQ(none.seen, std::vector<std::string>{"28:0 scan_over"});
    ASSERT_EQ(full.seen.size(), 601u);
    EXPECT_EQ(full.seen.back(), "28:0 scan_over");
    std::set<std::string> distinct(full.seen.begin(), full.seen.end() - 1);
    EXPECT_EQ(distinct.size(), 600u);
    EXPECT_EQ(full.count("28:4 s_frame.cap_del_fe_ready|"), 600u);
}

TEST_F(StoreTest, BadStoredDataIsSkippedOrReportedNeverValid)
{
    connect({28});
    cli(28, {"HSET", "s_frame.cap_glb_table|1|/ok", "int32_value", "1"});
    struct Case {
        std::vector<std::string> write;
        const char *key;     // the record's key, when it has one
        const char *seen;    // what a scan delivers for it, nullptr when skipped
        const char *logged;  // in the libkx message
    } cases[] = {
        {{"HSET", "s_frame.cap_glb_table|1|/a|b", "int32_value", "1"}, nullptr, nullptr,
         "too many index parts"},
        {{"HSET", "s_frame.cap_glb_table|x|/u", "int32_value", "1"}, nullptr, nullptr,
         "bad integer part"},
        {{"HSET", "s_frame.cap_glb_table|1|%41", "int32_value", "1"}, nullptr, nullptr,
         "bad escape"},
        {{"HSET", "s_frame.cap_glb_table|2|/i", "str_value", "s", "int32_value", "abc"},
         "s_frame.cap_glb_table|2|/i", "error -1003", "field 'int32_value'"},
        {{"HSET", "s_frame.cap_glb_table|3|/r", "int32_value", "2147483648"},
         "s_frame.cap_glb_table|3|/r", "error -1003", "int32 out of range"},
        {{"HSET", "s_frame.cap_glb_table|4|/b", "bool_value", "maybe"},
         "s_frame.cap_glb_table|4|/b", "error -1003", "field 'bool_value'"},
        {{"SET", "s_frame.cap_glb_table|5|/s", "x"}, "s_frame.cap_glb_table|5|/s", "error -1006",
         "WRONGTYPE"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.write[1]);
        cli(28, c.write);
        Recorder rec;
        Glb all(0, "");
        testing::internal::CaptureStderr();
        ASSERT_EQ(kx_mom_scan_sync(g, 28, all.msg(), 0, Recorder::cb, &rec), 0);
        std::string err = testing::internal::GetCapturedStderr();
        std::vector<std::string> expected{
            "28:4 s_frame.cap_glb_table|1|/ok bool_value=false int32_value=1 str_value= [7]"};
        if (c.seen) // sorted after |1|/ok
            expected.push_back(std::string("28:4 ") + c.seen);
        EXPECT_EQ(rec.seen, expected);
        EXPECT_NE(err.find("kx_mom: db 28: "), std::string::npos) << err;
        EXPECT_NE(err.find(c.logged), std::string::npos) << err;
        if (c.key) {
            std::string url = std::string(c.key).substr(24);
            Glb one(c.key[22] - '0', url);
            Res res(kx_mom_hgetall_sync(g, 28, one.msg()));
            ASSERT_TRUE(res);
            EXPECT_EQ(describe(res.get()), c.seen);
        }
        cli(28, {"DEL", c.write[1]});
    }
    PLibpub__CapState state = P_LIBPUB__CAP_STATE__INIT;
    for (auto [write, code] : {std::pair<std::vector<std::string>, int32_t>{
                                   {"SET", "p_libpub.cap_state", "\xff\xff"}, KX_MOM_EPROTO},
                               {{"HSET", "p_libpub.cap_state", "ready", "1"}, KX_MOM_ESERVER}}) {
        cli(28, {"DEL", "p_libpub.cap_state"});
        cli(28, write);
        int32_t error = 0;
        testing::internal::CaptureStderr();
        EXPECT_EQ(kx_mom_get_sync(g, 28, &state.base, &error), nullptr);
        EXPECT_NE(testing::internal::GetCapturedStderr().find("p_libpub.cap_state"),
                  std::string::npos);
        EXPECT_EQ(error, code);
    }
}

TEST(StoreConfigTest, BadEndpointsAndServersAreRefusedWithTheFix)
{
    RedisServer small({16, "KEA"});
    RedisServer quiet({32, ""});
    struct Case {
        const char *addr;    // KX_MOM_ADDR
        const char *addr28;  // KX_MOM_ADDR_28, when set
        int32_t code;
        const char *logged;
    } cases[] = {
        {"tcp:localhost", nullptr, KX_MOM_ECONFIG, "bad KX_MOM_ADDR 'tcp:localhost'"},
        {"tcp::6379", nullptr, KX_MOM_ECONFIG, "bad KX_MOM_ADDR"},
        {"tcp:h:65536", nullptr, KX_MOM_ECONFIG, "bad KX_MOM_ADDR"},
        {"redis://h:1", nullptr, KX_MOM_ECONFIG, "expected unix:/path/redis.sock or tcp:HOST:PORT"},
        {"unix:", nullptr, KX_MOM_ECONFIG, "bad KX_MOM_ADDR"},
        {"", nullptr, KX_MOM_ECONFIG, "bad KX_MOM_ADDR ''"},
        {"*", "unix:", KX_MOM_ECONFIG, "bad KX_MOM_ADDR_28 'unix:'"},
        {"tcp:h:1", "*", 0, ""},
        {"unix:/nonexistent/redis.sock", nullptr, KX_MOM_ENOTCONN, "/nonexistent/redis.sock"},
        {"16", nullptr, KX_MOM_ECONFIG, "has 16 databases, 29 are needed: set `databases 32` in redis.conf"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.addr);
        auto real = [&](const char *a) {
            return std::string(a) == "*" ? quiet.addr() : std::string(a) == "16" ? small.addr() : a;
        };
        setenv("KX_MOM_ADDR", real(c.addr).c_str(), 1);
        if (c.addr28)
            setenv("KX_MOM_ADDR_28", real(c.addr28).c_str(), 1);
        else
            unsetenv("KX_MOM_ADDR_28");
        kx_global_t *g = kx_global_init("kx_mom_test", nullptr);
        testing::internal::CaptureStderr();
        EXPECT_EQ(kx_mom_client_connect_sync(g, 28), c.code);
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_NE(err.find(c.logged), std::string::npos) << err;
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), c.code ? 1 : 0) << err;
        kx_global_finish(g);
    }
    unsetenv("KX_MOM_ADDR_28");
    // The missing notification flags were added where CONFIG SET was allowed.
    std::string flags = quiet.cli(0, {"CONFIG", "GET", "notify-keyspace-events"});
    for (char f : std::string("Kgh$xe"))
        EXPECT_NE(flags.find(f), std::string::npos) << flags;
}

TEST(StoreConfigTest, AclUserAndPassword)
{
    RedisServer server;
    server.cli(0, {"ACL", "SETUSER", "kx", "on", ">s3cret", "~*", "&*", "+@all"});
    server.cli(0, {"ACL", "SETUSER", "default", "off"});
    setenv("KX_MOM_ADDR", server.addr().c_str(), 1);
    struct Case {
        const char *user;
        const char *password;
        int32_t code;
    } cases[] = {{"kx", "s3cret", 0}, {"kx", "wrong", KX_MOM_ECONFIG}, {"kx", nullptr, KX_MOM_ECONFIG},
                 {nullptr, nullptr, KX_MOM_ECONFIG}};
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.user ? c.user : "-") + "/" + (c.password ? c.password : "-"));
        c.user ? setenv("KX_MOM_USER", c.user, 1) : unsetenv("KX_MOM_USER");
        c.password ? setenv("KX_MOM_PASSWORD", c.password, 1) : unsetenv("KX_MOM_PASSWORD");
        kx_global_t *g = kx_global_init("kx_mom_test", nullptr);
        testing::internal::CaptureStderr();
        EXPECT_EQ(kx_mom_client_connect_sync(g, 3), c.code);
        testing::internal::GetCapturedStderr();
        kx_global_finish(g);
    }
    unsetenv("KX_MOM_USER");
    unsetenv("KX_MOM_PASSWORD");
}

} // namespace
