// Dependency readiness against the in-memory store: subscriptions in bucket order, the
// catch-up read, the readiness latch, and the publication checks it triggers.
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kx_double.h"
#include "vek_cap.h"
#include "vek_cap_fixture.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string brief(int level, const char *func, const std::string &text)
{
    return std::string(kxd::level_name(level)) + " app/vek_cap/vek_cap " + func + ": " + text;
}
std::string err(const char *func, const std::string &text) { return brief(KX_ZLOG_LEVEL_ERROR, func, text); }
std::string warn(const char *func, const std::string &text) { return brief(KX_ZLOG_LEVEL_WARN, func, text); }
std::string info(const char *func, const std::string &text) { return brief(KX_ZLOG_LEVEL_INFO, func, text); }

bool logged(const std::string &text)
{
    for (const auto &rec : kxd::logs())
        if (rec.text == text)
            return true;
    return false;
}

vek_cap_dep_item *item_of(const char *name)
{
    vek_cap_dep_item key;
    vek_cap_con_dep_info(&key, name, 0);
    return vek_cap_find_dep_hash(&key);
}

int ready_of(const char *name) { return item_of(name) ? item_of(name)->ready : -1; }

struct DepRecord {
    SFrame__CapDepIndex index = S_FRAME__CAP_DEP_INDEX__INIT;
    SFrame__CapDep dep = S_FRAME__CAP_DEP__INIT;
    DepRecord(const char *name, bool ready)
    {
        index.module = const_cast<char *>(name);
        dep.index = &index;
        dep.ready = ready;
    }
};

class DepReadiness : public vek_cap_test::DaemonTest {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        vek_cap_test::start_daemon_state(5);
        g_vek_cap_card = {0x10, 5, 5, 1, 0, 0};
        g_vek_local_ready = 1;
        ASSERT_EQ(vek_cap_init_dep_hash(), 0);
    }

    static void add_modules(std::initializer_list<const char *> names)
    {
        for (const char *name : names) {
            vek_cap_dep_item item;
            vek_cap_con_dep_info(&item, name, 0);
            vek_cap_insert_dep_hash(&item, 0);
        }
        kxd::clear_logs();
    }
    // The start-up pass, then the store's confirmations.
    static void subscribe_all()
    {
        vek_cap_walk_dep_hash(vek_cap_dep_validate, nullptr);
        kxd::run();
        kxd::clear_logs();
        kxd::clear_calls();
    }
    // A module's record as a change notification carries it, without the store.
    static void deliver(const char *name, bool ready)
    {
        DepRecord rec(name, ready);
        kx_mom_hash_res res{};
        res.obj = &rec.dep;
        kx_mom_msg msg{};
        msg.cmd = KX_MOM_CMD_HSET;
        msg.data = &res;
        EXPECT_EQ(vek_cap_dep_pmsg_f(g_vek_cap_global, &msg, nullptr), 0);
    }
    // Another process writes a module's record.
    static void write_ready(const char *name, bool ready)
    {
        DepRecord rec(name, ready);
        ASSERT_EQ(kxd::writer_hset(VEK_CAP_DB_HOST, &rec.dep.base, {6}), 0);
        kxd::run();
    }
    static void seed_ready(const char *name, bool ready)
    {
        DepRecord rec(name, ready);
        kxd::seed_hash(VEK_CAP_DB_HOST, &rec.dep.base, {6});
    }
};

// A (hash & 3 = 3) sits in bucket 3, B (also 3) probes on to 0: bucket order is B, A.
TEST_F(DepReadiness, SubscribesInBucketOrderAndCatchesUp)
{
    add_modules({"A", "B"});
    seed_ready("A", true);
    kxd::set_clock(12, 34);
    EXPECT_EQ(vek_cap_walk_dep_hash(vek_cap_dep_validate, nullptr), 0);
    ASSERT_EQ(kxd::subscriptions().size(), 2u);
    EXPECT_EQ(kxd::subscriptions()[0].selection, "s_frame.cap_dep|B");
    EXPECT_EQ(kxd::subscriptions()[1].selection, "s_frame.cap_dep|A");
    EXPECT_EQ(kxd::subscriptions()[1].privdata, item_of("A"));
    EXPECT_EQ(kxd::subscriptions()[1].db, VEK_CAP_DB_HOST);
    EXPECT_THAT(kxd::logs(), IsEmpty()); // confirmations come from the loop

    kxd::run();
    EXPECT_EQ(ready_of("A"), 1);
    EXPECT_EQ(ready_of("B"), 0);
    EXPECT_EQ(g_vek_cap_sub_last_dep_mod.sec, 12u);
    EXPECT_EQ(g_vek_cap_sub_last_dep_mod.usec, 34u);
    EXPECT_THAT(kxd::log_briefs(),
                ElementsAre(err("vek_cap_dep_pmsg_f", "DEP subscribe ok, module B 12:34"),
                            info("vek_cap_dep_pro", "enter"),
                            warn("vek_cap_dep_pro", "dep NULL, just return"),
                            err("vek_cap_dep_pmsg_f", "DEP subscribe ok, module A 12:34"),
                            info("vek_cap_dep_pro", "enter"),
                            warn("vek_cap_dep_pro", "dep A, ready 1"),
                            warn("vek_cap_chk_ready", "module B not ready"),
                            warn("vek_cap_chk_ready", "module A not ready"),
                            info("vek_cap_insert_dep_hash", "module A, ready 1 dir 1"),
                            info("vek_cap_insert_dep_hash", "module A, found"),
                            warn("vek_cap_glb_cap_db_validate", "node 0x10 devid 5, local_ready 1, global_ready 0"),
                            warn("vek_cap_chk_ready", "module B not ready"),
                            info("vek_cap_chk_ready", "module A ready"),
                            warn("vek_cap_glb_cap_db_validate", "not all dep mod ready")));
}

TEST_F(DepReadiness, RecordsApplyUntilEveryModuleIsReadyThenLatch)
{
    add_modules({"A", "B"});
    subscribe_all();
    struct Step {
        const char *module;
        bool ready;
        int want_a, want_b;
        bool latched; // the record is ignored
    };
    const Step steps[] = {
        {"A", true, 1, 0, false},
        {"A", false, 0, 0, false}, // not ready again before the latch
        {"A", true, 1, 0, false},
        {"C", false, 1, 0, false}, // a module the directory did not list is added
        {"C", true, 1, 0, false},
        {"B", true, 1, 1, false},  // the last one: still applied
        {"A", false, 1, 1, true},  // latched: A stays ready
        {"D", false, 1, 1, true},
    };
    for (const Step &step : steps) {
        kxd::clear_logs();
        // C and D have no subscription: their records are handed over directly.
        if (step.module[0] == 'A' || step.module[0] == 'B')
            write_ready(step.module, step.ready);
        else
            deliver(step.module, step.ready);
        SCOPED_TRACE(std::string(step.module) + (step.ready ? " true" : " false"));
        EXPECT_EQ(ready_of("A"), step.want_a);
        EXPECT_EQ(ready_of("B"), step.want_b);
        EXPECT_EQ(logged("all mod is ready not need to pro"), step.latched);
        EXPECT_EQ(logged("node 0x10 devid 5, local_ready 1, global_ready 0"), !step.latched);
        EXPECT_EQ(logged("not all dep mod ready"), !step.latched && step.want_b == 0);
    }
    EXPECT_EQ(ready_of("C"), 1);
    EXPECT_EQ(ready_of("D"), -1);
    EXPECT_EQ(g_vek_cap_dep_hash->size, 3u);
}

// The catch-up read's faults. A result left unreleased on any path shows as a leak in the
// sanitized run.
TEST_F(DepReadiness, CatchUpReadFailures)
{
    add_modules({"A"});
    seed_ready("A", true);
    struct Case {
        const char *name;
        void (*fault)();
        int32_t rv;
        std::vector<std::string> tail;
    };
    const Case cases[] = {
        {"no result", [] { kxd::fail_null("kx_mom_hgetall_sync"); }, -21,
         {err("vek_cap_dep_pro", "result NULL"), err("vek_cap_dep_pmsg_f", "failed,rv -21")}},
        {"error code", [] { kxd::fail("kx_mom_hgetall_sync", KX_MOM_EPROTO); }, -21,
         {err("vek_cap_dep_pro", "result error_code -1003"), err("vek_cap_dep_pmsg_f", "failed,rv -21")}},
        {"object and error code", [] { kxd::fail_with_object("kx_mom_hgetall_sync", KX_MOM_EIO); }, -21,
         {err("vek_cap_dep_pro", "result error_code -1002"), err("vek_cap_dep_pmsg_f", "failed,rv -21")}},
        {"success", [] {}, 0,
         {warn("vek_cap_glb_cap_db_validate", "node 0x10 devid 5, local_ready 1, global_ready 0")}},
    };
    for (const Case &tc : cases) {
        SCOPED_TRACE(tc.name);
        item_of("A")->ready = 0;
        kxd::clear_logs();
        kxd::clear_calls();
        tc.fault();
        kx_mom_msg msg{};
        msg.cmd = KX_MOM_CMD_SUBSCRIBED;
        EXPECT_EQ(vek_cap_dep_pmsg_f(g_vek_cap_global, &msg, item_of("A")), tc.rv);
        EXPECT_EQ(ready_of("A"), tc.rv == 0 ? 1 : 0);
        EXPECT_EQ(kxd::calls_named("kx_mom_hgetall_sync").size(), 1u);
        const auto logs = kxd::log_briefs();
        ASSERT_GE(logs.size(), tc.tail.size() + 1);
        EXPECT_EQ(logs.front(), err("vek_cap_dep_pmsg_f", "DEP subscribe ok, module A 1000:0"));
        if (tc.rv != 0)
            EXPECT_EQ(std::vector<std::string>(logs.end() - tc.tail.size(), logs.end()), tc.tail);
        else
            EXPECT_TRUE(logged("node 0x10 devid 5, local_ready 1, global_ready 0"));
    }
}

TEST_F(DepReadiness, BadNotificationsChangeNothing)
{
    add_modules({"A"});
    SFrame__CapDep no_index = S_FRAME__CAP_DEP__INIT;
    SFrame__CapDepIndex no_module = S_FRAME__CAP_DEP_INDEX__INIT;
    no_module.module = nullptr;
    SFrame__CapDep dep_no_module = S_FRAME__CAP_DEP__INIT;
    dep_no_module.index = &no_module;
    kx_mom_hash_res res_no_index{};
    res_no_index.obj = &no_index;
    kx_mom_hash_res res_no_module{};
    res_no_module.obj = &dep_no_module;
    kx_mom_hash_res res_empty{};

    struct Case {
        const char *name;
        bool with_global;
        int32_t cmd;
        void *data;
        bool with_item;
        int32_t rv;
        std::vector<std::string> logs;
    };
    const Case cases[] = {
        {"no global", false, KX_MOM_CMD_HSET, &res_empty, true, -4,
         {err("vek_cap_dep_pmsg_f", "global NULL pointer, addr error!\n")}},
        {"confirmation without item", true, KX_MOM_CMD_SUBSCRIBED, nullptr, false, -4,
         {err("vek_cap_dep_pmsg_f", "privdata NULL pointer, addr error!\n")}},
        {"unknown cmd", true, 7, &res_empty, true, 0, {info("vek_cap_dep_pmsg_f", "pmsg->cmd 7")}},
        {"change without result", true, KX_MOM_CMD_HDEL, nullptr, true, -21,
         {err("vek_cap_dep_pmsg_f", "DEP enter, 7:9"), err("vek_cap_dep_pro", "result NULL"),
          err("vek_cap_dep_pmsg_f", "failed,rv -21")}},
        {"record without index", true, KX_MOM_CMD_HSET, &res_no_index, true, -4,
         {err("vek_cap_dep_pmsg_f", "DEP enter, 7:9"), info("vek_cap_dep_pro", "enter"),
          err("vek_cap_dep_pro", "dep->index NULL pointer, addr error!\n"),
          err("vek_cap_dep_pmsg_f", "failed,rv -4")}},
        {"record without module", true, KX_MOM_CMD_HSET, &res_no_module, true, -4,
         {err("vek_cap_dep_pmsg_f", "DEP enter, 7:9"), info("vek_cap_dep_pro", "enter"),
          err("vek_cap_dep_pro", "dep->index->module NULL pointer, addr error!\n"),
          err("vek_cap_dep_pmsg_f", "failed,rv -4")}},
        {"no record yet", true, KX_MOM_CMD_HSET, &res_empty, true, 0,
         {err("vek_cap_dep_pmsg_f", "DEP enter, 7:9"), info("vek_cap_dep_pro", "enter"),
          warn("vek_cap_dep_pro", "dep NULL, just return")}},
    };
    for (const Case &tc : cases) {
        SCOPED_TRACE(tc.name);
        kxd::clear_logs();
        kxd::clear_calls();
        kxd::set_clock(7, 9);
        g_vek_cap_sub_last_dep_mod = g_vek_cap_recv_last_dep_mod = {1, 1};
        kx_mom_msg msg{};
        msg.cmd = tc.cmd;
        msg.data = tc.data;
        EXPECT_EQ(vek_cap_dep_pmsg_f(tc.with_global ? g_vek_cap_global : nullptr, &msg,
                                     tc.with_item ? item_of("A") : nullptr),
                  tc.rv);
        EXPECT_EQ(kxd::log_briefs(), tc.logs);
        EXPECT_EQ(ready_of("A"), 0);
        EXPECT_EQ(g_vek_cap_dep_hash->size, 1u);
        EXPECT_THAT(kxd::trace("kx_mom_"), IsEmpty());
        EXPECT_EQ(g_vek_cap_sub_last_dep_mod.sec, 1u);
        const bool stamped = tc.cmd == KX_MOM_CMD_HSET || tc.cmd == KX_MOM_CMD_HDEL;
        EXPECT_EQ(g_vek_cap_recv_last_dep_mod.sec, stamped && tc.with_global ? 7u : 1u);
    }
    kxd::clear_logs();
    EXPECT_EQ(vek_cap_dep_pmsg_f(g_vek_cap_global, nullptr, item_of("A")), -4);
    EXPECT_THAT(kxd::log_briefs(), ElementsAre(err("vek_cap_dep_pmsg_f", "pmsg NULL pointer, addr error!\n")));
}

// Bucket order of a, b, c in 4 buckets: c 0, a 1, b 2.
TEST_F(DepReadiness, AFailedSubscriptionStopsThePass)
{
    add_modules({"a", "b", "c"});
    kxd::fail("kx_mom_subscribe", KX_MOM_ENOTCONN, 2);
    EXPECT_EQ(vek_cap_walk_dep_hash(vek_cap_dep_validate, nullptr), KX_MOM_ENOTCONN);
    EXPECT_EQ(kxd::calls_named("kx_mom_subscribe").size(), 2u);
    ASSERT_EQ(kxd::subscriptions().size(), 1u);
    EXPECT_EQ(kxd::subscriptions()[0].selection, "s_frame.cap_dep|c");
    EXPECT_THAT(kxd::log_briefs(), ElementsAre(err("vek_cap_dep_validate", "failed,rv -1001")));
}

// The publication checks, in order; the first that fails ends the call.
TEST_F(DepReadiness, PublicationChecksStopAtTheFirstFailure)
{
    add_modules({"A", "B"});
    item_of("A")->ready = 1;
    struct Case {
        vek_cap_card_t card;
        uint8_t local_ready, b_ready;
        std::vector<std::string> logs; // the whole log of a failing call; the start of a passing one
    };
    const Case cases[] = {
        {{-1, 5, 0, 1, 0, 0}, 1, 1, {"node 0xffffffff devid 0, local_ready 1, global_ready 0", "node invalid -1"}},
        {{0x10, 5, 0, 1, 0, 0}, 1, 1, {"node 0x10 devid 0, local_ready 1, global_ready 0", "devid invalid 0"}},
        {{0x10, 5, 5, 1, 0, 0}, 0, 1, {"node 0x10 devid 5, local_ready 0, global_ready 0", "local cap not ready"}},
        {{0x10, 5, 5, 1, 0, 0}, 1, 0,
         {"node 0x10 devid 5, local_ready 1, global_ready 0", "module B not ready", "module A ready",
          "not all dep mod ready"}},
        {{0, 5, 5, 1, 0, 0}, 1, 1, {"node 0x0 devid 5, local_ready 1, global_ready 0", "module B ready", "module A ready"}},
    };
    for (const Case &tc : cases) {
        g_vek_cap_card = tc.card;
        g_vek_local_ready = tc.local_ready;
        item_of("B")->ready = tc.b_ready;
        kxd::clear_logs();
        EXPECT_EQ(vek_cap_glb_cap_db_validate(1), 0);
        std::vector<std::string> texts;
        for (const auto &rec : kxd::logs())
            texts.push_back(rec.text);
        if (tc.b_ready && tc.local_ready && tc.card.devid && tc.card.node != -1)
            texts.resize(std::min(texts.size(), tc.logs.size()));
        EXPECT_EQ(texts, tc.logs);
    }
}

} // namespace
