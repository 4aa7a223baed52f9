// Database states: disconnects and reconnects through the registered callbacks, the
// renewal of the deletion-notice subscription, and the exit on an unknown reconnect.
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kx_double.h"
#include "vek_cap.h"
#include "vek_cap_fixture.h"

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

const std::string k_del_fe_sub = "kx_mom_subscribe 28 s_frame.cap_del_fe_ready|*";

class DbState : public vek_cap_test::DaemonTest {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        vek_cap_test::start_daemon_state(2);
        for (int32_t db : {VEK_CAP_DB_HOST, VEK_CAP_DB_TUNNER, VEK_CAP_DB_CE_GLOBAL}) {
            ASSERT_EQ(vek_cap_client_set_disconnect_cb(db), 0);
            ASSERT_EQ(vek_cap_client_set_reconnect_cb(db), 0);
        }
        kxd::clear_calls();
    }
    static std::vector<int32_t> states()
    {
        return {g_vek_cap_db_state[0].state, g_vek_cap_db_state[1].state,
                g_vek_cap_db_state[2].state};
    }
};

TEST_F(DbState, DeletionNoticeIsRenewedOnlyWhenEveryDatabaseIsBack)
{
    kxd::disconnect(VEK_CAP_DB_TUNNER);
    kxd::disconnect(VEK_CAP_DB_CE_GLOBAL);
    kxd::run();
    EXPECT_EQ(states(), (std::vector<int32_t>{1, 0, 0}));
    EXPECT_EQ(vek_cap_is_all_db_connected(), 0);
    EXPECT_THAT(kxd::log_briefs(), Contains("WARN app/vek_cap/vek_cap vek_cap_is_all_db_connected: "
                                            "db 1 not connected"));

    // 28 comes back while 1 is still away: marked connected, nothing subscribed; 1 then
    // comes back and renews nothing either.
    kxd::reconnect(VEK_CAP_DB_CE_GLOBAL, KX_MOM_RECONNECT_SAME);
    kxd::reconnect(VEK_CAP_DB_TUNNER, KX_MOM_RECONNECT_SAME);
    kxd::run();
    EXPECT_EQ(states(), (std::vector<int32_t>{1, 1, 1}));
    EXPECT_THAT(kxd::trace("kx_mom_"), IsEmpty());
    EXPECT_THAT(kxd::log_briefs(),
                Contains("ERROR app/vek_cap/vek_cap vek_cap_reconnect_db: reconnect set db 28 state"));

    kxd::disconnect(VEK_CAP_DB_CE_GLOBAL);
    kxd::reconnect(VEK_CAP_DB_CE_GLOBAL, KX_MOM_RECONNECT_SAME);
    kxd::run();
    EXPECT_THAT(kxd::trace("kx_mom_"), ElementsAre(k_del_fe_sub));
    ASSERT_EQ(kxd::subscriptions().size(), 1u);
    EXPECT_EQ(kxd::subscriptions()[0].cb, vek_cap_del_fe_ready_pmsg_f);
    EXPECT_EQ(kxd::subscriptions()[0].privdata, nullptr);

    // A reconnect of 3 sets its state and does nothing more.
    kxd::clear_calls();
    kxd::disconnect(VEK_CAP_DB_HOST);
    kxd::reconnect(VEK_CAP_DB_HOST, KX_MOM_RECONNECT_SAME);
    kxd::run();
    EXPECT_EQ(states(), (std::vector<int32_t>{1, 1, 1}));
    EXPECT_THAT(kxd::trace("kx_mom_"), Not(Contains(k_del_fe_sub)));
}

TEST_F(DbState, FailedRenewalIsLoggedAndReturned)
{
    kxd::fail("kx_mom_subscribe", KX_MOM_ENOTCONN);
    kxd::clear_logs();
    EXPECT_EQ(vek_cap_db_validate_ce_global(), KX_MOM_ENOTCONN);
    EXPECT_THAT(kxd::log_briefs(),
                Contains("ERROR app/vek_cap/vek_cap vek_cap_db_validate_ce_global: failed,rv -1001"));
}

TEST_F(DbState, UnknownDatabaseChangesNothing)
{
    vek_cap_set_db_state(5, 0);
    EXPECT_EQ(states(), (std::vector<int32_t>{1, 1, 1}));
    EXPECT_EQ(vek_cap_is_all_db_connected(), 1);
}

TEST_F(DbState, ReconnectOfAnotherTypeEndsTheProcessWith77)
{
    g_vek_cap_dbg_level = 0;
    for (int32_t type : {int32_t{KX_MOM_RECONNECT_RESTARTED}, 0, 3}) {
        SCOPED_TRACE(type);
        EXPECT_EXIT(vek_cap_reconnect_db(g_vek_cap_global, VEK_CAP_DB_HOST, type),
                    ::testing::ExitedWithCode(77), "");
    }
    EXPECT_EXIT(
        {
            kxd::reconnect(VEK_CAP_DB_CE_GLOBAL, KX_MOM_RECONNECT_RESTARTED);
            kxd::run();
        },
        ::testing::ExitedWithCode(77), "");
}

} // namespace
