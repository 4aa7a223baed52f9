// Start-up: the order of its steps, and what each failure logs, returns and leaves
// connected or subscribed.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kx_double.h"
#include "test_redis.h"
#include "vek_cap.h"
#include "vek_cap_fixture.h"

namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAreArray;

// The calls of a start-up that succeeds with an empty dependency directory and no marker.
const std::vector<std::string> k_full_startup = {
    "kx_initframe_duplicate_check",
    "kx_zlog_init vek_cap",
    "kx_monotime",
    "kx_global_init vek_cap",
    "ssat_lib_init vek_cap",
    "ssat_reg_mod_cmd vek_cap log-level %d",
    "reg_process_exit_action 0 2",
    "kx_mom_client_connect_sync 3",
    "kx_mom_client_connect_sync 1",
    "kx_mom_client_connect_sync 28",
    "kx_mom_subscribe 3 p_libpub.cap_state",
    "kx_mom_subscribe 3 p_libpub.cap_subcard_state|*",
    "kx_mom_subscribe 1 p_dev.dp_lib_my_info",
    "kx_mom_subscribe 1 p_dev.dp_lib_my_chss_info",
    "kx_mom_client_set_disconnect_cb 3",
    "kx_mom_client_set_disconnect_cb 1",
    "kx_mom_client_set_disconnect_cb 28",
    "kx_mom_client_set_reconnect_cb 3",
    "kx_mom_client_set_reconnect_cb 1",
    "kx_mom_client_set_reconnect_cb 28",
    "kx_global_run",
    "kx_global_finish",
};

// The full start-up up to and including `last`, without the calls in `skipped`.
std::vector<std::string> startup_until(const std::string &last,
                                       const std::vector<std::string> &skipped = {})
{
    std::vector<std::string> out;
    for (const auto &c : k_full_startup) {
        if (std::find(skipped.begin(), skipped.end(), c) == skipped.end())
            out.push_back(c);
        if (c == last)
            break;
    }
    return out;
}

std::string err(const std::string &func, const std::string &text)
{
    return "ERROR app/vek_cap/vek_cap " + func + ": " + text;
}

std::string handle_text()
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%p", static_cast<void *>(kxd::handle()));
    return buf;
}

void *fail_calloc(size_t, size_t)
{
    return nullptr;
}

// The platform calls of start-up itself; what callbacks do inside the loop is theirs.
std::vector<std::string> startup_trace()
{
    std::vector<std::string> out;
    for (const auto &c : kxd::trace()) {
        out.push_back(c);
        if (c == "kx_global_run")
            break;
    }
    if (kxd::calls().back().name == "kx_global_finish")
        out.push_back("kx_global_finish");
    return out;
}

class Startup : public vek_cap_test::DaemonTest {};

TEST_F(Startup, EachFailureStopsAtItsStepWithItsCode)
{
    constexpr int32_t rc = -1001;
    // What start-up logs at the default level once the databases are reached: the
    // missing dependency directory, then one line per database connected.
    auto reached = [](size_t connected) {
        std::vector<std::string> lines = {
            err("vek_cap_collect_dep_event", "pdir NULL pointer, addr error!\n")};
        const char *names[] = {"host", "tunner_db", "cap_db"};
        for (size_t i = 0; i < connected; ++i)
            lines.push_back(err("main", std::string("connect ") + names[i] + " success"));
        return lines;
    };
    auto plus = [](std::vector<std::string> lines, std::initializer_list<std::string> more) {
        lines.insert(lines.end(), more);
        return lines;
    };
    struct Case {
        const char *name;
        std::function<void()> inject;
        int expected_rc;
        std::string out; // standard output
        std::vector<std::string> calls;
        std::vector<std::string> logs; // every line at the default level (errors only)
        int32_t states[3];             // db 3, 1, 28 afterwards
        size_t routes;                 // subscriptions in place
    };
    const Case cases[] = {
        {"success", [] {}, 0, "", k_full_startup, reached(3), {1, 1, 1}, 4},
        {"duplicate", [] { kxd::fail("kx_initframe_duplicate_check", -11); }, -1,
         "tolvex, ret=-11, FAIL\r\n", {"kx_initframe_duplicate_check"}, {}, {0, 0, 0}, 0},
        {"no handle", [] { kxd::fail_null("kx_global_init"); }, -11, "",
         startup_until("kx_global_init vek_cap"), {err("main", "g_vek_cap_global init failed")},
         {0, 0, 0}, 0},
        {"marker", [] { kxd::fail("reg_process_exit_action", -7); }, -7, "",
         startup_until("reg_process_exit_action 0 2"),
         {err("vek_cap_indep_init", "init ham fail"),
          err("main", "vek_cap_indep_init failed rv -7")},
         {0, 0, 0}, 0},
        {"registry", [] { g_vek_cap_dep_alloc.calloc_f = fail_calloc; }, -1, "",
         startup_until("reg_process_exit_action 0 2"),
         {err("vek_cap_indep_init", "vek_cap_dep hash init failed rv = -1"),
          err("main", "vek_cap_indep_init failed rv -1")},
         {0, 0, 0}, 0},
        {"connect host", [] { kxd::fail_connect(3, rc); }, rc, "",
         startup_until("kx_mom_client_connect_sync 3"),
         plus(reached(0), {err("main", "connect host failed, rv -1001")}), {0, 0, 0}, 0},
        {"connect tunner_db", [] { kxd::fail_connect(1, rc); }, rc, "",
         startup_until("kx_mom_client_connect_sync 1"),
         plus(reached(1), {err("main", "connect tunner_db failed, rv -1001")}), {1, 0, 0}, 0},
        {"connect ce_global", [] { kxd::fail_connect(28, rc); }, rc, "",
         startup_until("kx_mom_client_connect_sync 28"),
         plus(reached(2), {err("main", "connect ce_global failed, rv -1001")}), {1, 1, 0}, 0},
        // A failed subscription stops the later ones but not the start-up.
        {"subscription", [] { kxd::fail("kx_mom_subscribe", -4, 2); }, 0, "",
         startup_until("kx_global_finish",
                       {"kx_mom_subscribe 1 p_dev.dp_lib_my_info",
                        "kx_mom_subscribe 1 p_dev.dp_lib_my_chss_info"}),
         plus(reached(3), {err("vek_cap_db_validate_host", "failed,rv -4")}), {1, 1, 1}, 1},
        {"disconnect cb", [] { kxd::fail("kx_mom_client_set_disconnect_cb", -5, 1, 1); }, -5, "",
         startup_until("kx_mom_client_set_disconnect_cb 1"),
         plus(reached(3), {err("vek_cap_client_set_disconnect_cb",
                               "kx_mom_client_set_disconnect_cb global " + handle_text() +
                                   " type 1 failed, rv -5"),
                           err("main", "failed,rv -5")}),
         {1, 1, 1}, 4},
        {"reconnect cb", [] { kxd::fail("kx_mom_client_set_reconnect_cb", -6, 1, 28); }, -6, "",
         startup_until("kx_mom_client_set_reconnect_cb 28"),
         plus(reached(3), {err("vek_cap_client_set_reconnect_cb",
                               "kx_mom_client_set_reconnect_cb global " + handle_text() +
                                   " type 28 failed, rv -6"),
                           err("main", "failed,rv -6")}),
         {1, 1, 1}, 4},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        TearDown();
        SetUp();
        c.inject();
        int got = 0;
        std::string out = kxd::capture_stdout([&] { got = vek_cap_main(); });
        EXPECT_EQ(got, c.expected_rc);
        EXPECT_EQ(out, c.out);
        EXPECT_THAT(startup_trace(), ElementsAreArray(c.calls));
        EXPECT_THAT(kxd::log_briefs(), ElementsAreArray(c.logs));
        for (size_t i = 0; i < 3; ++i)
            EXPECT_EQ(g_vek_cap_db_state[i].state, c.states[i]) << "db " << g_vek_cap_db_state[i].db;
        EXPECT_EQ(kxd::subscriptions().size(), c.routes);
    }
}

// With the marker present and modules configured, no exit action is requested, each
// module is subscribed before the tables, and the run stamp and node are set.
TEST_F(Startup, ModulesAreSubscribedFirstAndTheMarkerSparesTheExitAction)
{
    testsupport::TempDir root;
    testsupport::write_file(root / "var/run/vek_cap_ham.txt", "");
    testsupport::write_file(root / "etc/cap_cfg/cap_dep/fe/fib_mgr", "");
    fs::create_directories(root / "etc/cap_cfg/cap_dep/fe/subdir");
    kxd::set_root(root.path());
    kxd::set_clock(42, 7);
    g_vek_cap_card.node = 5;

    EXPECT_EQ(vek_cap_main(), 0);
    auto calls = kxd::trace();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "reg_process_exit_action 0 2"), 0);
    auto first = std::find(calls.begin(), calls.end(), "kx_mom_subscribe 3 s_frame.cap_dep|fib_mgr");
    auto table = std::find(calls.begin(), calls.end(), "kx_mom_subscribe 3 p_libpub.cap_state");
    EXPECT_LT(first, table);
    EXPECT_EQ(std::count_if(calls.begin(), calls.end(),
                            [](const auto &c) { return c.starts_with("kx_mom_subscribe"); }),
              5);
    EXPECT_EQ(g_vek_cap_time.run.sec, 42u);
    EXPECT_EQ(g_vek_cap_time.run.usec, 7u);
    EXPECT_EQ(g_vek_cap_card.node, -1);
}

} // namespace
