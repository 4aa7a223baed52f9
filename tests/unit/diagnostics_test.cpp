// The debug commands as the shell runs them: each dump byte for byte, "set_dep_mod", and
// "collect" into its file.
#include <filesystem>

#include <gtest/gtest.h>

#include "test_redis.h"
#include "vek_cap_fixture.h"

namespace {

using Lines = std::vector<std::string>;

class Diagnostics : public vek_cap_test::DaemonTest {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        vek_cap_test::start_daemon_state(1);
        ASSERT_EQ(vek_cap_ssat_init(g_vek_cap_global, "vek_cap"), 0);
    }
    // What a command prints.
    static std::string output(const char *cmd, int32_t num = 0, const char *word = nullptr)
    {
        testing::internal::CaptureStdout();
        EXPECT_TRUE(kxd::ssat_run(cmd, num, word)) << cmd;
        fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }
    // The state of a card that has published: identity, every stamp distinct, two modules.
    static void fill()
    {
        g_vek_local_ready = g_vek_global_ready = 1;
        g_vek_cap_card = {16, 5, 7, 3, 1, 4};
        g_vek_cap_time = {{1, 2},   {3, 4},   {5, 6}, {7, 8}, {9, 10},
                          {11, 12}, {13, 14}, {0, 0}, {0, 0}};
        g_vek_cap_sub_last_dep_mod = {15, 16};
        g_vek_cap_recv_last_dep_mod = {4294967295u, 999999};
        for (const char *name : {"fib_mgr", "acl_mgr"}) {
            vek_cap_dep_item item;
            vek_cap_con_dep_info(&item, name, name[0] == 'f');
            vek_cap_insert_dep_hash(&item, 0);
        }
    }
};

const std::string k_banner = "\r\n=====================================\r\n";
const std::string k_dep_banner = "\r\n==============dump dep mod=======================\r\n";

TEST_F(Diagnostics, EveryDumpPrintsItsTextExactly)
{
    // clang-format off
    const std::string status_before = "g_vek_local_ready, 0\ng_vek_global_ready, 0\n",
        card_before = "devid 0, slotid 0, sslotid 0, node 0xffffffff, config_dev_type 0, "
                      "node_type 0\n",
        time_before = k_banner +
            "vek_cap run 0:0\r\nsubscribe dev info ok 0:0\r\nrecv dev info 0:0\r\n"
            "subscribe chss info ok 0:0\r\nrecv chss info 0:0\r\nsubscribe local ready ok 0:0\r\n"
            "recv local redy 0:0\r\ncopy cap start 0:0\r\ncopy cap end 0:0\r\n"
            "g_vek_cap_sub_last_dep_mod 0:0\r\ng_vek_cap_recv_last_dep_mod 0:0\r\n" + k_banner;
    const std::string status_after = "g_vek_local_ready, 1\ng_vek_global_ready, 1\n",
        card_after = "devid 7, slotid 3, sslotid 1, node 0x00000010, config_dev_type 5, "
                     "node_type 4\n",
        time_after = k_banner +
            "vek_cap run 1:2\r\nsubscribe dev info ok 3:4\r\nrecv dev info 5:6\r\n"
            "subscribe chss info ok 7:8\r\nrecv chss info 9:10\r\n"
            "subscribe local ready ok 11:12\r\nrecv local redy 13:14\r\n"
            "copy cap start 0:0\r\ncopy cap end 0:0\r\ng_vek_cap_sub_last_dep_mod 15:16\r\n"
            "g_vek_cap_recv_last_dep_mod 4294967295:999999\r\n" + k_banner;
    // Both names hash to bucket 1 of 4: fib_mgr, inserted first, keeps it.
    const std::string deps_after =
        k_dep_banner + "module:fib_mgr, ready 1\r\nmodule:acl_mgr, ready 0\r\n";
    struct Case { const char *cmd; std::string before, after; };
    const Case cases[] = {
        {"dump_status", status_before, status_after},
        {"dump_card_info", card_before, card_after},
        {"show_time", time_before, time_after},
        {"dump_dep_mod", k_dep_banner, deps_after},
        {"dump_all", status_before + card_before + time_before + k_dep_banner,
         status_after + card_after + time_after + deps_after},
    };
    // clang-format on
    for (const Case &c : cases)
        EXPECT_EQ(output(c.cmd), c.before) << c.cmd;
    fill();
    for (const Case &c : cases)
        EXPECT_EQ(output(c.cmd), c.after) << c.cmd;
    g_vek_cap_dbg_level = 0; // the dumps are not log lines: they print whatever the level
    EXPECT_EQ(output("dump_status"), status_after);
    EXPECT_EQ(kxd::log_briefs(), Lines{});
}

// The module's record is written and the outcome printed without a line ending.
TEST_F(Diagnostics, SetDepModWritesTheRecordAndSaysHowItWent)
{
    const std::string dep = "kx_mom_hmset_sync 3 s_frame.cap_dep|";
    // clang-format off
    struct Case { const char *name; int32_t ready, fault; std::string out, write; Lines log; };
    const Case cases[] = {
        {"x", 5, 0, "set dep mod x ready true ok", dep + "x [6]", {}},
        {"x", 0, 0, "set dep mod x ready false ok", dep + "x [6]", {}},
        {"fib_mgr", -1, KX_MOM_ENOTCONN, "set dep mod fib_mgr ready true failed",
         dep + "fib_mgr [6]", {}},
        {nullptr, 1, 0, "", "",
         {"ERROR app/vek_cap/vek_cap_dbg vek_cap_set_dep_mod: mod NULL pointer, addr error!\n"}},
    };
    // clang-format on
    for (const Case &c : cases) {
        SCOPED_TRACE(c.out);
        kxd::clear();
        if (c.fault)
            kxd::inject({"kx_mom_hmset_sync", c.fault});
        EXPECT_EQ(output("set_dep_mod", c.ready, c.name), c.out);
        EXPECT_EQ(kxd::trace(), c.write.empty() ? Lines{} : Lines{c.write});
        EXPECT_EQ(kxd::log_briefs(), c.log);
    }
    EXPECT_EQ(kxd::contents(3), (Lines{"s_frame.cap_dep|x ready=false"}));
}

// "collect" overwrites its file from the start without truncating it, under a root that
// no shell may see, and gives standard output back; without a file it prints the dump.
TEST_F(Diagnostics, CollectWritesTheDumpIntoItsFileAndGivesStdoutBack)
{
    testsupport::TempDir top;
    const std::string root = top / "a b;touch pwned$(touch pwned2)'\"",
                      file = root + "/data/collect/vek_cap.log";
    kxd::set_root(root);
    const std::string dump = output("dump_all");
    testsupport::write_file(file, std::string(2000, 'X'));
    testing::internal::CaptureStdout();
    ASSERT_TRUE(kxd::ssat_run("collect"));
    printf("after");
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "after");
    EXPECT_EQ(testsupport::read_file(file), dump + std::string(2000 - dump.size(), 'X'));
    std::filesystem::remove(file);
    EXPECT_EQ(output("collect"), "");
    EXPECT_EQ(testsupport::read_file(file), dump);
    EXPECT_FALSE(std::filesystem::exists("pwned") || std::filesystem::exists(top / "pwned2"));

    // The collect directory is a file: nothing can be opened there.
    std::filesystem::remove_all(root + "/data/collect");
    testsupport::write_file(root + "/data/collect", "");
    EXPECT_EQ(output("collect"), file + " open fail\r\n" + dump);
}

} // namespace
