// Database states through the registered callbacks: the deletion-notice subscription is
// renewed only when every database is back, and any reconnect but type 2 ends the process.
#include <gtest/gtest.h>

#include "vek_cap_fixture.h"

namespace {

// At debug level 0 throughout: nothing here depends on the log.
using DbState = vek_cap_test::DaemonTest;

TEST_F(DbState, DeletionNoticeIsRenewedOnlyWhenEveryDatabaseIsBack)
{
    vek_cap_test::start_daemon_state(0);
    for (int32_t db : {VEK_CAP_DB_HOST, VEK_CAP_DB_TUNNER, VEK_CAP_DB_CE_GLOBAL})
        ASSERT_TRUE(vek_cap_client_set_disconnect_cb(db) == 0 &&
                    vek_cap_client_set_reconnect_cb(db) == 0);
    // A database goes down or comes back (type 2): the states of 3, 1, 28 afterwards, and
    // whether the deletion notice was subscribed again.
    struct Step {
        int32_t db;
        bool up;
        const char *states;
        bool renewed;
    };
    const Step steps[] = {{1, false, "101", false},  {28, false, "100", false},
                          {28, true, "101", false},  {1, true, "111", false},
                          {28, false, "110", false}, {28, true, "111", true},
                          {3, false, "011", false},  {3, true, "111", false}};
    for (const Step &step : steps) {
        SCOPED_TRACE(std::to_string(step.db) + (step.up ? " up" : " down"));
        kxd::clear();
        step.up ? kxd::reconnect(step.db, KX_MOM_RECONNECT_SAME) : kxd::disconnect(step.db);
        kxd::run();
        const auto &state = g_vek_cap_db_state;
        EXPECT_EQ(std::to_string(state[0].state) + std::to_string(state[1].state) +
                      std::to_string(state[2].state),
                  step.states);
        const std::vector<std::string> renewal = {"kx_mom_subscribe 28 s_frame.cap_del_fe_ready|*"};
        EXPECT_EQ(kxd::trace("kx_mom_subscribe"),
                  step.renewed ? renewal : std::vector<std::string>{});
    }
    ASSERT_EQ(kxd::subscriptions().size(), 1u);
    EXPECT_EQ(kxd::subscriptions()[0].cb, vek_cap_del_fe_ready_pmsg_f);
}

TEST_F(DbState, ReconnectOfAnotherTypeEndsTheProcessWith77)
{
    vek_cap_test::start_daemon_state(0);
    for (int32_t type : {int32_t{KX_MOM_RECONNECT_RESTARTED}, 0, 3})
        EXPECT_EXIT(vek_cap_reconnect_db(g_vek_cap_global, VEK_CAP_DB_TUNNER, type),
                    ::testing::ExitedWithCode(77), "")
            << type;
}

} // namespace
