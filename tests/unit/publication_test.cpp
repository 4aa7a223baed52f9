// Publication: the copy of one entry, the decision and the order of its writes, the
// local ready flag, the card's identity, and the rewrite after a deletion notice.
#include <cstring>

#include <gtest/gtest.h>

#include "vek_cap_fixture.h"

namespace {

using Lines = std::vector<std::string>;
const std::string E = "ERROR app/vek_cap/vek_cap ", W = "WARN app/vek_cap/vek_cap ",
                  I = "INFO app/vek_cap/vek_cap ";

// The calls of one publication of card 16 (type 5) with the one local entry /a.
const Lines k_copy = {"kx_mom_scan_sync 3 p_libpub.cap_table|*",
                      "kx_mom_hmset_sync 28 s_frame.cap_glb_table|16|/a [6,7,8]"};
const std::string k_ready = "kx_mom_hmset_sync 28 s_frame.cap_fe_ready|16|5 [6,7,8,9,10,11,12]",
                  k_watch = "kx_mom_subscribe 28 s_frame.cap_del_fe_ready|*";

Lines operator+(Lines a, const Lines &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

kx_mom_msg msg(int32_t cmd, void *data, int32_t scan_over = 0)
{
    return {0, nullptr, cmd, data, nullptr, scan_over};
}

// One local entry as a scan delivers it: url /a, fields 6, 7, 8 and the local pri.
struct Entry {
    std::string url = "/a";
    std::vector<int32_t> tags = {22, 8, 6, 21, 7};
    PLibpub__CapTableIndex idx = P_LIBPUB__CAP_TABLE_INDEX__INIT;
    PLibpub__CapTable tmp = P_LIBPUB__CAP_TABLE__INIT;
    kx_mom_hash_res res{};
    Entry()
    {
        tmp.index = &idx, tmp.bool_value = 1, tmp.int32_value = -5;
        tmp.str_value = const_cast<char *>("x y"), tmp.pri = 9;
    }
    kx_mom_hash_res *ready()
    {
        idx.url = url.data();
        res = {&tmp, tags.data(), static_cast<int32_t>(tags.size()), 0, nullptr, res.error_code};
        return &res;
    }
};

class Publication : public vek_cap_test::DaemonTest {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        vek_cap_test::start_daemon_state(4);
        add_module("A", 1);
        kxd::put_raw(
            3, "p_libpub.cap_table|/a",
            {{"bool_value", "true"}, {"int32_value", "5"}, {"str_value", "x"}, {"pri", "9"}});
        g_vek_cap_card = {16, 5, 7, 3, 1, 3};
        g_vek_local_ready = 1;
    }
    static void add_module(const char *name, uint8_t ready)
    {
        vek_cap_dep_item item;
        vek_cap_con_dep_info(&item, name, ready);
        vek_cap_insert_dep_hash(&item, 1);
        kxd::clear();
    }
};

// Each delivery the copy refuses, with its code and line; one it copies, sorted and cut
// above 8, under the card's node of the moment; a failed write listing every field.
TEST_F(Publication, TheCopyRefusesOrWritesEachDelivery)
{
    using Spoil = void *(*)(Entry &);
    const std::string f = "fe_glb_key_trace_url: ";
// A delivery made from a good entry `e` by the expression given.
#define SPOILED(...) [](Entry &e) -> void * { return __VA_ARGS__; }
    // clang-format off
    struct Case { int32_t cmd; Spoil spoil; int32_t rc; Lines log; std::string write = ""; };
    const Case cases[] = {
        {3, SPOILED(e.ready()), 0, {I + f + "msg->cmd 3"}},
        {4, SPOILED((void)e, nullptr), -21, {E + f + "result NULL"}},
        {6, SPOILED(e.res.error_code = -1003, e.ready()), -21, {E + f + "result error_code -1003"}},
        {4, SPOILED(e.ready()->obj = nullptr, &e.res), -4,
         {E + f + "tmp NULL pointer, addr error!\n"}},
        {4, SPOILED(e.tmp.index = nullptr, e.ready()), -4,
         {E + f + "tmp->index NULL pointer, addr error!\n"}},
        {4, SPOILED(e.ready(), e.idx.url = nullptr, &e.res), -4,
         {E + f + "tmp->index->url NULL pointer, addr error!\n"}},
        {4, SPOILED(e.url.assign(256, 'u'), e.ready()), -4,
         {E + f + "tmp->index->url len too long 256!\n"}},
        {4, SPOILED(e.tmp.str_value = nullptr, e.ready()), -4,
         {E + f + "tmp->str_value NULL pointer, addr error!\n"}},
        {4, SPOILED(e.ready()->field_tag = nullptr, &e.res), -4,
         {E + f + "res->field_tag NULL pointer, addr error!\n"}},
        {4, SPOILED(e.url.assign(255, 'u'), e.ready()), 0, {},
         "s_frame.cap_glb_table|16|" + std::string(255, 'u') + " [6,7,8]"},
        {4, SPOILED(e.tags = {21, 22}, e.ready()), 0, {}},
        {4, SPOILED(e.tags.clear(), e.tags.reserve(1), e.ready()), 0, {}},
        {4, SPOILED(g_vek_cap_card.node = 17, e.tags = {7}, e.ready()), 0, {},
         "s_frame.cap_glb_table|17|/a [7]"},
        {4, SPOILED(kxd::inject({"kx_mom_hmset_sync", -1006}), e.ready()), -1006,
         {E + f + "rv -1006, node 16 url /a, bool_value 1, int32_value -5, str_value x y",
          I + f + "field_len = 5", E + f + "field_tag[0] = 6 \n", E + f + "field_tag[1] = 7 \n",
          E + f + "field_tag[2] = 8 \n", E + f + "field_tag[3] = 21 \n",
          E + f + "field_tag[4] = 22 \n"},
         "s_frame.cap_glb_table|16|/a [6,7,8]"},
    };
    // clang-format on
#undef SPOILED
    for (const Case &c : cases) {
        SCOPED_TRACE(c.log.empty() ? c.write : c.log[0]);
        Entry e;
        kxd::clear();
        g_vek_cap_card.node = 16;
        kx_mom_msg m = msg(c.cmd, c.spoil(e));
        EXPECT_EQ(fe_glb_key_trace_url(g_vek_cap_global, &m, nullptr), c.rc);
        EXPECT_EQ(kxd::log_briefs(), c.log);
        EXPECT_EQ(kxd::trace(),
                  c.write.empty() ? Lines{} : Lines{"kx_mom_hmset_sync 28 " + c.write});
    }
    EXPECT_EQ(kxd::contents(28), (Lines{"s_frame.cap_glb_table|16|" + std::string(255, 'u') +
                                            " bool_value=true int32_value=-5 str_value=x y",
                                        "s_frame.cap_glb_table|17|/a int32_value=-5"}));
    EXPECT_EQ(fe_glb_key_trace_url(g_vek_cap_global, nullptr, nullptr), -4);
    EXPECT_EQ(kxd::log_briefs().back(), E + f + "msg NULL pointer, addr error!\n");

    // At the debug level: the entry, the list as delivered, then the count kept.
    g_vek_cap_dbg_level = 5;
    kxd::clear();
    Entry e;
    e.tags = {21, 6};
    kx_mom_msg m = msg(4, e.ready());
    fe_glb_key_trace_url(g_vek_cap_global, &m, nullptr);
    const std::string d = "DEBUG app/vek_cap/vek_cap " + f;
    EXPECT_EQ(kxd::log_briefs(),
              (Lines{d + "node 16 url /a, bool_value 1, int32_value -5, str_value x y",
                     d + "field_len = 2", d + "field_tag[0] = 21 \n", d + "field_tag[1] = 6 \n",
                     d + "set field_len = 1"}));
}

// The four conditions are checked in order and the first that fails says so; when all
// hold the entries, the ready record and the watch are written in that order; a failed
// scan or ready-record write is logged and what follows still happens.
TEST_F(Publication, TheDecisionChecksInOrderThenWritesEntriesReadyRecordWatch)
{
    const std::string v = "vek_cap_glb_cap_db_validate: ", s = "vek_cap_set_node_state: ";
    const vek_cap_card_t c16 = {16, 5, 7, 3, 1, 3}, c0 = {0, 5, 7, 3, 1, 3};
    // clang-format off
    struct Case { vek_cap_card_t card; uint8_t local, b_ready; int32_t arg; kxd::Fault fault;
                  Lines calls, log; };
    const Case cases[] = {
        {{-1, 5, 0, 3, 1, 3}, 0, 0, 1, {}, {}, {W + v + "node invalid -1"}},
        {{16, 5, 0, 3, 1, 3}, 0, 0, 1, {}, {}, {W + v + "devid invalid 0"}},
        {c16, 0, 0, 1, {}, {}, {W + v + "local cap not ready"}},
        {c16, 1, 0, 1, {}, {},
         {W + "vek_cap_chk_ready: module B not ready", W + v + "not all dep mod ready"}},
        {c0, 1, 1, 1, {}, {"kx_mom_scan_sync 3 p_libpub.cap_table|*",
                           "kx_mom_hmset_sync 28 s_frame.cap_glb_table|0|/a [6,7,8]",
                           "kx_mom_hmset_sync 28 s_frame.cap_fe_ready|0|5 [6,7,8,9,10,11,12]",
                           k_watch}, {}},
        {c16, 1, 1, 1, {}, k_copy + Lines{k_ready, k_watch}, {}},
        {c16, 1, 1, 0, {}, k_copy, {}},
        {c16, 1, 1, 1, {"kx_mom_scan_sync", KX_MOM_ENOTCONN}, {k_copy[0], k_ready, k_watch},
         {E + "vek_cap_write_glb_fe_table: failed,rv -1001"}},
        {c16, 1, 1, 1, {"kx_mom_hmset_sync", KX_MOM_ESERVER, 2}, k_copy + Lines{k_ready, k_watch},
         {E + s + "vek_cap_set_node_state, node 16, type 5 ready=1 failed rv -1006"}},
    };
    // clang-format on
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message()
                     << c.card.node << " " << c.local << c.b_ready << c.arg << " " << c.fault.call);
        g_vek_cap_card = c.card;
        g_vek_local_ready = c.local;
        g_vek_global_ready = 0;
        add_module("B", c.b_ready);
        kxd::inject(c.fault);
        EXPECT_EQ(vek_cap_glb_cap_db_validate(c.arg), 0);
        EXPECT_EQ(kxd::trace(), c.calls);
        Lines problems; // why nothing was published, or what failed
        for (const std::string &line : kxd::log_briefs())
            for (const char *word : {"invalid", "not ", "failed"})
                if (line.find(word) != std::string::npos) {
                    problems.push_back(line);
                    break;
                }
        EXPECT_EQ(problems, c.log);
        EXPECT_EQ(g_vek_global_ready, c.arg && c.local && c.b_ready ? 1 : 0);
    }
    // The ready records hold the identity; pri stays on the card.
    EXPECT_EQ(
        kxd::contents(28),
        (Lines{"s_frame.cap_fe_ready|0|5 ready=true config_dev_type=5 devid=7 slotid=3 sslotid=1 "
               "node_type=3 real_time=true",
               "s_frame.cap_fe_ready|16|5 ready=true config_dev_type=5 devid=7 slotid=3 sslotid=1 "
               "node_type=3 real_time=true",
               "s_frame.cap_glb_table|0|/a bool_value=true int32_value=5 str_value=x",
               "s_frame.cap_glb_table|16|/a bool_value=true int32_value=5 str_value=x"}));
}

// The local ready flag follows the records applied; nothing else moves it. A catch-up read
// that fails frees what it returned (the sanitized run sees a leak otherwise).
TEST_F(Publication, LocalReadyFollowsTheRecordsApplied)
{
    PLibpub__CapState ready = P_LIBPUB__CAP_STATE__INIT, not_ready = ready;
    ready.ready = 1;
    const std::string f = "vek_cap_local_ready_pmsg_f: ", pro = W + "vek_cap_local_ready_pro: ",
                      sub = E + f + "CAP STATE subscribe ok, 12:34",
                      got = E + f + "CAP STATE enter, 12:34";
    auto ran = [&](int flag) { // the flag applied, then the publication tried (stopped at the node)
        return Lines{pro + "ready " + std::to_string(flag),
                     W + "vek_cap_glb_cap_db_validate: node invalid -1"};
    };
    // clang-format off
    struct Case { int32_t cmd; void *data; const char *stored; kxd::Fault read;
                  uint8_t before, after; Lines log; };
    const Case cases[] = {
        {1, &ready, nullptr, {}, 0, 1, Lines{got} + ran(1)},
        {1, &not_ready, nullptr, {}, 1, 0, Lines{got} + ran(0)},
        {1, nullptr, nullptr, {}, 1, 1, {got, pro + "state NULL, just return"}},
        {29, nullptr, "\x28\x01", {}, 0, 1, Lines{sub} + ran(1)},
        {29, nullptr, nullptr, {}, 1, 1, {sub, pro + "state NULL, just return"}}, // no record
        {29, nullptr, "", {"kx_mom_get_sync", KX_MOM_EIO, 1, kxd::Fail::WithObject}, 1, 1,
         {sub, E + f + "errorcode -1002"}},
        {3, &not_ready, nullptr, {}, 1, 1, {}},
    };
    // clang-format on
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "cmd " << c.cmd << ", then " << (c.log.empty() ? "" : c.log.back()));
        kxd::reset();
        vek_cap_test::start_daemon_state(2);
        g_vek_cap_card.node = -1;
        g_vek_local_ready = c.before;
        if (c.stored)
            kxd::put_raw(3, "p_libpub.cap_state", {{"value", c.stored}});
        kxd::inject(c.read);
        kx_mom_msg m = msg(c.cmd, c.data);
        EXPECT_EQ(vek_cap_local_ready_pmsg_f(g_vek_cap_global, &m, nullptr), 0);
        EXPECT_EQ(g_vek_local_ready, c.after);
        Lines log = kxd::log_briefs();
        std::erase_if(log, [](const std::string &l) {
            return l.find(", global_ready ") != std::string::npos;
        });
        EXPECT_EQ(log, c.log);
    }
}

// Each identity record sets the members its table owns and no other; a delivery that
// fails sets none but still moves its time stamp.
TEST_F(Publication, IdentityRecordsSetOnlyTheMembersTheyOwn)
{
    // clang-format off
    kxd::put_raw(1, "p_dev.dp_lib_my_info", {{"card_nodeid", "18"}, {"card_type", "9"},
                                             {"slotid", "4"}, {"sslotid", "2"},
                                             {"dm_my_node_type", "3"}, {"actual_card_type", "77"}});
    // clang-format on
    kxd::put_raw(1, "p_dev.dp_lib_my_chss_info", {{"devid", "11"}, {"user_slotid", "66"}});
    g_vek_local_ready = 0; // the publication stops early
    using Pmsg = int32_t (*)(kx_global_t *, kx_mom_msg *, void *);
    const Pmsg card = vek_cap_dp_my_info_pmsg_f, chss = vek_cap_dp_my_chss_info_pmsg_f;
    const std::string c = "vek_cap_dp_my_chss_info_pmsg_f: ";
    const vek_cap_card_t before = {-1, 1, 2, 3, 4, 5};
    // clang-format off
    struct Case { Pmsg f; int32_t cmd; kxd::Fault read; int32_t rc; vek_cap_card_t after;
                  Lines errors; };
    const Case cases[] = {
        {card, 29, {}, 0, {18, 9, 2, 4, 2, 3}, {}},
        {chss, 29, {}, 0, {-1, 1, 11, 3, 4, 5}, {E + c + "CHSS INFO subscribe ok, 12:34"}},
        {card, 29, {"kx_mom_hgetall_sync", 0, 1, kxd::Fail::Null}, -21, before,
         {E + "vek_cap_dp_my_info_pro: result NULL",
          E + "vek_cap_dp_my_info_pmsg_f: failed,rv -21"}},
        {chss, 6, {}, -4, before,
         {E + c + "CHSS INFO enter, 12:34",
          E + "vek_cap_dp_my_chss_info_pro: chss_info NULL pointer, addr error!\n",
          E + c + "failed,rv -4"}},
        {card, 3, {}, 0, before, {}},
    };
    // clang-format on
    for (const Case &k : cases) {
        SCOPED_TRACE(testing::Message() << (k.f == card ? "card" : "chassis") << " cmd " << k.cmd);
        kxd::clear();
        g_vek_cap_card = before;
        g_vek_cap_time = {};
        g_vek_cap_dbg_level = 1;
        kxd::inject(k.read);
        kx_mom_hash_res no_record{};
        kx_mom_msg m = msg(k.cmd, &no_record);
        EXPECT_EQ(k.f(g_vek_cap_global, &m, nullptr), k.rc);
        EXPECT_EQ(std::memcmp(&g_vek_cap_card, &k.after, sizeof k.after), 0);
        // The stamp of the delivery's kind moved, and only that one.
        vek_cap_times_t stamps{};
        if (k.cmd != 3)
            (k.f == card   ? k.cmd == 29 ? stamps.dev_info_sub : stamps.dev_info_recv
             : k.cmd == 29 ? stamps.chss_info_sub
                           : stamps.chss_info_recv) = {12, 34};
        EXPECT_EQ(std::memcmp(&g_vek_cap_time, &stamps, sizeof stamps), 0);
        EXPECT_EQ(kxd::log_briefs(), k.errors);
    }
}

// A notice naming this card's node, whatever its card type, has the card written again:
// entries, the notice removed, the ready record. Any other notice is left alone, and the
// watch refuses or ignores every other delivery.
TEST_F(Publication, ANoticeForThisNodeRewritesEntriesDeletesItThenTheReadyRecord)
{
    const std::string
        f = "vek_cap_del_fe_ready_pmsg_f: ",
        rewriting = E + f + "rewrite my cap, node 16",
        deleting = E + "vek_cap_del_noti_node_state: node 16, config_dev_type 9",
        ready =
            E + "vek_cap_set_node_state: vek_cap_set_node_state, node 0x00000010, type 5 ready=1";
    const Lines rewrite =
        k_copy + Lines{"kx_mom_del_sync 28 s_frame.cap_del_fe_ready|16|9", k_ready};
    // clang-format off
    struct Case { int32_t node, notice; uint8_t local; kxd::Fault fault; Lines calls, errors; };
    const Case cases[] = {
        {16, 16, 1, {}, rewrite, {rewriting, deleting, ready}},
        {16, 17, 1, {}, {}, {}},
        {-1, -1, 1, {}, {}, {}}, // no identity yet: not this card's notice
        {16, 16, 0, {}, Lines{rewrite[2], rewrite[3]}, {rewriting, deleting, ready}},
        {16, 16, 1, {"kx_mom_del_sync", KX_MOM_ESERVER}, rewrite,
         {rewriting, deleting,
          E + "vek_cap_del_noti_node_state: del node 0x10 noti state failed", ready}},
    };
    // clang-format on
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "card " << c.node << " notice " << c.notice << " " << c.fault.call);
        SetUp();
        vek_cap_test::start_daemon_state(1);
        g_vek_cap_card.node = c.node;
        g_vek_local_ready = c.local;
        kxd::put_raw(28, "s_frame.cap_del_fe_ready|" + std::to_string(c.notice) + "|9",
                     {{"ready", "false"}});
        kxd::inject(c.fault);
        // Delivered by the catch-up scan, as the notices written before the watch are.
        kx_mom_msg confirmed = msg(KX_MOM_CMD_SUBSCRIBED, nullptr);
        EXPECT_EQ(vek_cap_del_fe_ready_pmsg_f(g_vek_cap_global, &confirmed, nullptr), 0);
        kxd::run();
        EXPECT_EQ(kxd::trace("kx_mom_"),
                  Lines{"kx_mom_scan 28 s_frame.cap_del_fe_ready|*"} + c.calls);
        EXPECT_EQ(kxd::log_briefs(), c.errors);
    }

    SFrame__CapDelFeReady unindexed = S_FRAME__CAP_DEL_FE_READY__INIT;
    kx_mom_hash_res failed{nullptr, nullptr, 0, 0, nullptr, -1002}, empty{}, no_index = empty;
    no_index.obj = &unindexed;
    struct Other {
        kx_mom_msg m;
        int32_t rc;
        std::string line;
    }; // clang-format off
    const Other others[] = {
        {msg(0, nullptr, 1), 0, I + f + "cap_del_fe_ready scan over."},
        {msg(6, &no_index), 0, I + f + "pmsg->cmd 6"},
        {msg(4, nullptr), -21, E + f + "result NULL"},
        {msg(4, &failed), -21, E + f + "result error_code -1002"},
        {msg(4, &empty), -4, E + f + "fe_rdy_inf NULL pointer, addr error!\n"},
        {msg(4, &no_index), -4, E + f + "fe_rdy_inf->index NULL pointer, addr error!\n"},
        {msg(29, nullptr), KX_MOM_ENOTCONN, E + f + "failed,rv -1001"},
    }; // clang-format on
    g_vek_cap_dbg_level = 4;
    for (Other o : others) {
        kxd::clear();
        kxd::inject({"kx_mom_scan", KX_MOM_ENOTCONN});
        EXPECT_EQ(vek_cap_del_fe_ready_pmsg_f(g_vek_cap_global, &o.m, nullptr), o.rc) << o.line;
        EXPECT_EQ(kxd::log_briefs().back(), o.line);
    }
}

} // namespace
