// Start-up: the order of its steps, and what each failure logs, returns and leaves
// connected or subscribed.
#include <algorithm>
#include <cstdio>

#include <gtest/gtest.h>

#include "test_redis.h"
#include "vek_cap_fixture.h"

namespace {

// The calls of a start-up with one dependency module and no marker file.
// clang-format off
const std::vector<std::string> k_startup = {
    "kx_initframe_duplicate_check", "kx_zlog_init vek_cap", "kx_monotime", "kx_global_init vek_cap",
    "ssat_lib_init vek_cap", "ssat_reg_mod_cmd vek_cap log-level %d",
    "ssat_reg_mod_cmd vek_cap show_time void", "ssat_reg_mod_cmd vek_cap dump_card_info void",
    "ssat_reg_mod_cmd vek_cap dump_status void", "ssat_reg_mod_cmd vek_cap dump_all void",
    "ssat_reg_mod_cmd vek_cap collect void", "ssat_reg_mod_cmd vek_cap dump_dep_mod void",
    "ssat_reg_mod_cmd vek_cap set_dep_mod %s %d", "reg_process_exit_action 0 2",
    "kx_mom_client_connect_sync 3", "kx_mom_client_connect_sync 1", "kx_mom_client_connect_sync 28",
    "kx_mom_subscribe 3 s_frame.cap_dep|fib_mgr", "kx_mom_subscribe 3 p_libpub.cap_state",
    "kx_mom_subscribe 3 p_libpub.cap_subcard_state|*", "kx_mom_subscribe 1 p_dev.dp_lib_my_info",
    "kx_mom_subscribe 1 p_dev.dp_lib_my_chss_info", "kx_mom_client_set_disconnect_cb 3",
    "kx_mom_client_set_disconnect_cb 1", "kx_mom_client_set_disconnect_cb 28",
    "kx_mom_client_set_reconnect_cb 3", "kx_mom_client_set_reconnect_cb 1",
    "kx_mom_client_set_reconnect_cb 28", "kx_global_run", "kx_global_finish"};
// clang-format on

// k_startup up to `last`, without the calls `skipped`.
std::vector<std::string> startup(const std::string &last,
                                 const std::vector<std::string> &skipped = {})
{
    auto out = k_startup;
    out.erase(std::find(out.begin(), out.end(), last) + 1, out.end());
    std::erase_if(out, [&](const auto &c) { return std::ranges::count(skipped, c) > 0; });
    return out;
}

void *no_memory(size_t, size_t) { return nullptr; }

using Startup = vek_cap_test::DaemonTest;

TEST_F(Startup, EachFailureStopsAtItsStepWithItsCode)
{
    testsupport::TempDir root;
    testsupport::write_file(root / "etc/cap_cfg/cap_dep/fe/fib_mgr", "");
    char handle[32];
    std::snprintf(handle, sizeof handle, "%p",
                  static_cast<void *>(kx_global_init("vek_cap", nullptr)));
    const std::string cb_failed = std::string(" global ") + handle + " type ";
    // From the loop: each subscription confirmed and caught up with an empty store, where
    // the identity records are missing.
    const std::vector<std::string> confirmed = {
        "vek_cap_dep_pmsg_f: DEP subscribe ok, module fib_mgr 12:34",
        "vek_cap_local_ready_pmsg_f: CAP STATE subscribe ok, 12:34",
        "vek_cap_dp_my_info_pro: card_info NULL pointer, addr error!\n",
        "vek_cap_dp_my_info_pmsg_f: failed,rv -4",
        "vek_cap_dp_my_chss_info_pmsg_f: CHSS INFO subscribe ok, 12:34",
        "vek_cap_dp_my_chss_info_pro: chss_info NULL pointer, addr error!\n",
        "vek_cap_dp_my_chss_info_pmsg_f: failed,rv -4"};
    // clang-format off
    struct Case {
        void (*arrange)();
        int rc;
        std::vector<std::string> calls;
        int connected;                 // databases 3, 1, 28 in that order
        std::vector<std::string> tail; // the errors after those of the connections
        const char *out = "";
    };
    const Case cases[] = {
        {[] {}, 0, k_startup, 3, confirmed},
        {[] { kxd::inject({"kx_initframe_duplicate_check", -11}); }, -1,
         {"kx_initframe_duplicate_check"}, 0, {}, "tolvex, ret=-11, FAIL\r\n"},
        {[] { kxd::inject({.call = "kx_global_init", .how = kxd::Fail::Null}); }, -11,
         startup("kx_global_init vek_cap"), 0, {"main: g_vek_cap_global init failed"}},
        {[] { kxd::inject({"reg_process_exit_action", -7}); }, -7,
         startup("reg_process_exit_action 0 2"), 0,
         {"vek_cap_indep_init: init ham fail", "main: vek_cap_indep_init failed rv -7"}},
        {[] { g_vek_cap_dep_alloc.calloc_f = no_memory; }, -1,
         startup("reg_process_exit_action 0 2"), 0,
         {"vek_cap_indep_init: vek_cap_dep hash init failed rv = -1",
          "main: vek_cap_indep_init failed rv -1"}},
        // Without the dependency directory start-up goes on, here to a failing connect.
        {[] {
             kxd::set_root(kx_root_path("/elsewhere"));
             kxd::inject({"kx_mom_client_connect_sync", -1001, 1});
         }, -1001, startup("kx_mom_client_connect_sync 3"), 0,
         {"vek_cap_collect_dep_event: pdir NULL pointer, addr error!\n",
          "main: connect host failed, rv -1001"}},
        {[] { kxd::inject({"kx_mom_client_connect_sync", -1001, 2}); }, -1001,
         startup("kx_mom_client_connect_sync 1"), 1, {"main: connect tunner_db failed, rv -1001"}},
        {[] { kxd::inject({"kx_mom_client_connect_sync", -1002, 3}); }, -1002,
         startup("kx_mom_client_connect_sync 28"), 2, {"main: connect ce_global failed, rv -1002"}},
        // A failed subscription leaves out the later ones of its step, nothing else.
        {[] { kxd::inject({"kx_mom_subscribe", -4, 3}); }, 0,
         startup("kx_global_finish", {"kx_mom_subscribe 1 p_dev.dp_lib_my_info",
                                      "kx_mom_subscribe 1 p_dev.dp_lib_my_chss_info"}),
         3, {"vek_cap_db_validate_host: failed,rv -4", confirmed[0], confirmed[1]}},
        {[] { kxd::inject({"kx_mom_client_set_disconnect_cb", -5, 2}); }, -5,
         startup("kx_mom_client_set_disconnect_cb 1"), 3,
         {"vek_cap_client_set_disconnect_cb: kx_mom_client_set_disconnect_cb" + cb_failed +
              "1 failed, rv -5",
          "main: failed,rv -5"}},
        {[] { kxd::inject({"kx_mom_client_set_reconnect_cb", -6, 3}); }, -6,
         startup("kx_mom_client_set_reconnect_cb 28"), 3,
         {"vek_cap_client_set_reconnect_cb: kx_mom_client_set_reconnect_cb" + cb_failed +
              "28 failed, rv -6",
          "main: failed,rv -6"}},
        // Last: the marker file stays. With it no exit action is requested.
        {[] { testsupport::write_file(kx_root_path("/var/run/vek_cap_ham.txt"), ""); }, 0,
         startup("kx_global_finish", {"reg_process_exit_action 0 2"}), 3, confirmed},
    };
    // clang-format on
    const std::string db_names[] = {"host", "tunner_db", "cap_db"};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.calls.back() + " " + std::to_string(c.rc));
        SetUp();
        kxd::set_root(root.path());
        c.arrange();
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(vek_cap_main(), c.rc);
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), c.out);
        // What start-up calls itself; what the loop's deliveries call is left out.
        auto calls = kxd::trace();
        if (auto run = std::ranges::find(calls, "kx_global_run"); run != calls.end())
            calls.erase(run + 1, calls.end() - 1);
        EXPECT_EQ(calls, c.calls);
        std::vector<std::string> logs;
        for (int i = 0; i < c.connected; ++i)
            logs.push_back("ERROR app/vek_cap/vek_cap main: connect " + db_names[i] + " success");
        for (const auto &line : c.tail)
            logs.push_back("ERROR app/vek_cap/vek_cap " + line);
        EXPECT_EQ(kxd::log_briefs(), logs);
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(g_vek_cap_db_state[i].state, i < c.connected)
                << "db " << g_vek_cap_db_state[i].db;
    }
}

} // namespace
