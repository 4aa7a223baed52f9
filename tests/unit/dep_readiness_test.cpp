// Dependency readiness: what each delivery to a module's subscription does (the catch-up
// read among them), the readiness latch, and the subscription pass.
#include <algorithm>

#include <gtest/gtest.h>

#include "vek_cap_fixture.h"

namespace {

vek_cap_dep_item *item_of(const char *name)
{
    vek_cap_dep_item key;
    vek_cap_con_dep_info(&key, name, 0);
    return vek_cap_find_dep_hash(&key);
}

// The ready byte of each module, '-' for one the registry does not hold.
std::string readiness(std::initializer_list<const char *> names)
{
    std::string out;
    for (const char *name : names)
        out += item_of(name) ? char('0' + item_of(name)->ready) : '-';
    return out;
}

class DepReadiness : public vek_cap_test::DaemonTest {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        vek_cap_test::start_daemon_state(1);
        for (const char *name : {"A", "B", "C"}) {
            vek_cap_dep_item item;
            vek_cap_con_dep_info(&item, name, 0);
            vek_cap_insert_dep_hash(&item, 0);
        }
    }
};

// A's record in the store says ready. A result left unreleased on any path shows as a leak
// in the sanitized run.
TEST_F(DepReadiness, EachDeliveryIsAppliedOrRefused)
{
    kxd::put_raw(VEK_CAP_DB_HOST, "s_frame.cap_dep|A", {{"ready", "true"}});
    SFrame__CapDepIndex a = S_FRAME__CAP_DEP_INDEX__INIT;
    SFrame__CapDep a_ready = S_FRAME__CAP_DEP__INIT, no_index = S_FRAME__CAP_DEP__INIT;
    a.module = const_cast<char *>("A");
    a_ready.index = &a;
    a_ready.ready = true;
    kx_mom_hash_res none{}, ready = none, without_index = none;
    ready.obj = &a_ready;
    without_index.obj = &no_index;
    const std::string e = "ERROR app/vek_cap/vek_cap ",
                      f = e + "vek_cap_dep_pmsg_f: ", pro = e + "vek_cap_dep_pro: ";
    const std::string subscribed = f + "DEP subscribe ok, module A 12:34",
                      changed = f + "DEP enter, 12:34", failed = f + "failed,rv ";
    // A delivery to A's subscription, a fault of the catch-up read, what is returned, and the
    // whole log at level 1 (errors only).
    struct Case {
        int32_t cmd;
        void *data;
        kxd::Fault read;
        int32_t rc;
        std::vector<std::string> log;
    };
    // clang-format off
    const Case cases[] = {
        {29, nullptr, {}, 0, {subscribed}},
        {29, nullptr, {"kx_mom_hgetall_sync", 0, 1, kxd::Fail::Null}, -21,
         {subscribed, pro + "result NULL", failed + "-21"}},
        {29, nullptr, {"kx_mom_hgetall_sync", -1002, 1, kxd::Fail::WithObject}, -21,
         {subscribed, pro + "result error_code -1002", failed + "-21"}},
        {4, &ready, {}, 0, {changed}},
        {7, &ready, {}, 0, {}},       // not a cmd of this subscription: nothing changes
        {4, &none, {}, 0, {changed}}, // the module has not written its record yet
        {6, nullptr, {}, -21, {changed, pro + "result NULL", failed + "-21"}},
        {4, &without_index, {}, -4,
         {changed, pro + "dep->index NULL pointer, addr error!\n", failed + "-4"}},
    };
    // clang-format on
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "cmd " << c.cmd << " " << c.read.call << " " << c.rc);
        item_of("A")->ready = 0;
        g_vek_cap_sub_last_dep_mod = g_vek_cap_recv_last_dep_mod = {};
        kxd::clear();
        kxd::inject(c.read);
        kx_mom_msg msg{VEK_CAP_DB_HOST, nullptr, c.cmd, c.data, nullptr, 0};
        EXPECT_EQ(vek_cap_dep_pmsg_f(g_vek_cap_global, &msg, item_of("A")), c.rc);
        const bool read = c.cmd == KX_MOM_CMD_SUBSCRIBED;
        // A's record, read or carried, is applied unless refused.
        EXPECT_EQ(readiness({"A", "B", "C"}),
                  c.rc == 0 && c.cmd != 7 && c.data != &none ? "100" : "000");
        EXPECT_EQ(kxd::trace("kx_mom_"),
                  std::vector<std::string>(read, "kx_mom_hgetall_sync 3 s_frame.cap_dep|A"));
        EXPECT_EQ(kxd::log_briefs(), c.log);
        EXPECT_EQ(g_vek_cap_sub_last_dep_mod.sec, read ? 12u : 0u);
        EXPECT_EQ(g_vek_cap_recv_last_dep_mod.sec, c.cmd == 4 || c.cmd == 6 ? 12u : 0u);
    }
}

// Before the latch every record is applied and publication is tried; once every module is
// ready, records are ignored.
TEST_F(DepReadiness, RecordsApplyUntilEveryModuleIsReadyThenLatch)
{
    // A route for the whole table hands every module's record over as it is written.
    SFrame__CapDep table = S_FRAME__CAP_DEP__INIT;
    ASSERT_EQ(kx_mom_subscribe(g_vek_cap_global, VEK_CAP_DB_HOST, &table.base, 0,
                               vek_cap_dep_pmsg_f, nullptr),
              0);
    kxd::run();
    g_vek_cap_dbg_level = 2;
    struct Step {
        const char *module;
        bool ready;
        const char *after;
        bool latched;
    };
    // clang-format off
    const Step steps[] = {{"A", true, "100-", false}, {"A", false, "000-", false}, // not ready
                          {"A", true, "100-", false}, {"X", false, "1000", false}, // X added
                          {"X", true, "1001", false}, {"B", true, "1101", false},
                          {"C", true, "1111", false}, {"A", false, "1111", true}}; // latched
    // clang-format on
    for (const Step &step : steps) {
        SCOPED_TRACE(std::string(step.module) + (step.ready ? " ready" : " not ready"));
        kxd::clear();
        kxd::put_raw(VEK_CAP_DB_HOST, std::string("s_frame.cap_dep|") + step.module,
                     {{"ready", step.ready ? "true" : "false"}}, true);
        kxd::run();
        EXPECT_EQ(readiness({"A", "B", "C", "X"}), step.after);
        // Applied, the record is followed by the publication checks; latched, by nothing.
        const std::string last = step.latched ? "vek_cap_dep_pro: all mod is ready not need to pro"
                                              : "vek_cap_glb_cap_db_validate: node invalid -1";
        EXPECT_EQ(kxd::log_briefs().back(), "WARN app/vek_cap/vek_cap " + last);
    }
}

// The pass stops at the first module whose subscription fails; the ones before it stay.
TEST_F(DepReadiness, AFailedSubscriptionStopsThePass)
{
    vek_cap_walk_dep_hash(vek_cap_dep_validate, nullptr);
    const auto all = kxd::trace(); // every module once, in bucket order
    ASSERT_EQ(all.size(), 3u);
    kxd::reset();
    kxd::inject({"kx_mom_subscribe", KX_MOM_ENOTCONN, 2});
    EXPECT_EQ(vek_cap_walk_dep_hash(vek_cap_dep_validate, nullptr), KX_MOM_ENOTCONN);
    EXPECT_EQ(kxd::trace(), std::vector<std::string>(all.begin(), all.begin() + 2));
    ASSERT_EQ(kxd::subscriptions().size(), 1u);
    const kxd::Subscription &first = kxd::subscriptions()[0];
    EXPECT_EQ(first.privdata,
              item_of(first.selection.substr(first.selection.find('|') + 1).c_str()));
    EXPECT_EQ(kxd::log_briefs(),
              std::vector<std::string>{
                  "ERROR app/vek_cap/vek_cap vek_cap_dep_validate: failed,rv -1001"});
}

} // namespace
