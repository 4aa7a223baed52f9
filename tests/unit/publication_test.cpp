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
const Lines k_ready = {"kx_mom_hmset_sync 28 s_frame.cap_fe_ready|16|5 [6,7,8,9,10,11,12]"};
const Lines k_watch = {"kx_mom_subscribe 28 s_frame.cap_del_fe_ready|*"};

Lines operator+(Lines a, const Lines &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

class Publication : public vek_cap_test::DaemonTest {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        vek_cap_test::start_daemon_state(4);
        ASSERT_EQ(vek_cap_init_dep_hash(), 0);
        add_module("A", 1);
        kxd::put_raw(
            VEK_CAP_DB_HOST, "p_libpub.cap_table|/a",
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
    static kx_mom_msg msg(int32_t cmd, void *data) { return {0, nullptr, cmd, data, nullptr, 0}; }
};

// Each delivery the copy refuses, with its code and its one line; a url of 255 bytes is
// still copied.
TEST_F(Publication, CopyRefusesEachMalformedDelivery)
{
    PLibpub__CapTableIndex idx = P_LIBPUB__CAP_TABLE_INDEX__INIT, no_url = idx, url255 = idx,
                           url256 = idx;
    idx.url = const_cast<char *>("/a");
    no_url.url = nullptr;
    const std::string u255(255, 'u'), u256(256, 'u');
    url255.url = const_cast<char *>(u255.c_str());
    url256.url = const_cast<char *>(u256.c_str());
    PLibpub__CapTable good = P_LIBPUB__CAP_TABLE__INIT, no_index = good, without_url = good,
                      long_url = good, max_url = good, no_str = good;
    good.index = &idx, without_url.index = &no_url, long_url.index = &url256,
    max_url.index = &url255;
    no_str.index = &idx, no_str.str_value = nullptr;
    int32_t tags[] = {6};
    auto res = [&](PLibpub__CapTable *obj, int32_t error = 0, int32_t *t = nullptr) {
        return kx_mom_hash_res{obj, t ? t : tags, 1, 0, nullptr, error};
    };
    kx_mom_hash_res failed = res(&good, -1003), empty = res(nullptr), unindexed = res(&no_index),
                    urlless = res(&without_url), too_long = res(&long_url), longest = res(&max_url),
                    strless = res(&no_str), tagless = res(&good);
    tagless.field_tag = nullptr;
    const std::string f = "fe_glb_key_trace_url: ";
    struct Case {
        int32_t cmd;
        kx_mom_hash_res *res;
        int32_t rc;
        std::string line;
    };
    const Case cases[] = {
        {3, &longest, 0, I + f + "msg->cmd 3"},
        {4, nullptr, -21, E + f + "result NULL"},
        {6, &failed, -21, E + f + "result error_code -1003"},
        {4, &empty, -4, E + f + "tmp NULL pointer, addr error!\n"},
        {4, &unindexed, -4, E + f + "tmp->index NULL pointer, addr error!\n"},
        {4, &urlless, -4, E + f + "tmp->index->url NULL pointer, addr error!\n"},
        {4, &too_long, -4, E + f + "tmp->index->url len too long 256!\n"},
        {4, &strless, -4, E + f + "tmp->str_value NULL pointer, addr error!\n"},
        {4, &tagless, -4, E + f + "res->field_tag NULL pointer, addr error!\n"},
        {4, &longest, 0, ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.line);
        kxd::clear();
        kx_mom_msg m = msg(c.cmd, c.res);
        EXPECT_EQ(fe_glb_key_trace_url(g_vek_cap_global, &m, nullptr), c.rc);
        EXPECT_EQ(kxd::log_briefs(), c.line.empty() ? Lines{} : Lines{c.line});
        EXPECT_EQ(kxd::trace().size(), c.rc == 0 && c.cmd == 4 ? 1u : 0u);
    }
    EXPECT_EQ(kxd::contents(VEK_CAP_DB_CE_GLOBAL),
              Lines{"s_frame.cap_glb_table|16|" + u255 + " bool_value=false"});
    kx_mom_msg none = msg(4, nullptr);
    EXPECT_EQ(fe_glb_key_trace_url(g_vek_cap_global, nullptr, &none), -4);
    EXPECT_EQ(kxd::log_briefs().back(), E + f + "msg NULL pointer, addr error!\n");
}

// The delivered list is sorted in place and cut above 8; the node is the card's at the
// moment of the copy; a failed write names every field, sorted, the cut ones too.
TEST_F(Publication, CopyWritesTheSortedFieldsUpToEightUnderTheNodeOfNow)
{
    PLibpub__CapTableIndex idx = P_LIBPUB__CAP_TABLE_INDEX__INIT;
    idx.url = const_cast<char *>("/a");
    PLibpub__CapTable entry = P_LIBPUB__CAP_TABLE__INIT;
    entry.index = &idx, entry.bool_value = 1, entry.int32_value = -5,
    entry.str_value = const_cast<char *>("x y");
    entry.pri = 9, entry.state = 1;
    struct Case {
        std::vector<int32_t> tags;
        int32_t node, rc;
        Lines calls;
        Lines log;
    };
    const std::string f = "fe_glb_key_trace_url: ";
    const Case cases[] = {
        {{22, 8, 6, 21, 7},
         16,
         0,
         {"kx_mom_hmset_sync 28 s_frame.cap_glb_table|16|/a [6,7,8]"},
         {}},
        {{21, 22}, 16, 0, {}, {}},
        {{}, 16, 0, {}, {}},
        {{7}, 17, 0, {"kx_mom_hmset_sync 28 s_frame.cap_glb_table|17|/a [7]"}, {}},
        {{22, 8, 6, 21, 7},
         16,
         KX_MOM_ESERVER,
         {"kx_mom_hmset_sync 28 s_frame.cap_glb_table|16|/a [6,7,8]"},
         {E + f + "rv -1006, node 16 url /a, bool_value 1, int32_value -5, str_value x y",
          I + f + "field_len = 5", E + f + "field_tag[0] = 6 \n", E + f + "field_tag[1] = 7 \n",
          E + f + "field_tag[2] = 8 \n", E + f + "field_tag[3] = 21 \n",
          E + f + "field_tag[4] = 22 \n"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.calls.empty() ? "nothing written" : c.calls[0]);
        kxd::clear();
        if (c.rc)
            kxd::inject({"kx_mom_hmset_sync", c.rc});
        g_vek_cap_card.node = c.node;
        std::vector<int32_t> tags = c.tags;
        tags.reserve(1); // an empty list is still a list
        kx_mom_hash_res res{&entry, tags.data(), static_cast<int32_t>(tags.size()), 0, nullptr, 0};
        kx_mom_msg m = msg(KX_MOM_CMD_HSET, &res);
        EXPECT_EQ(fe_glb_key_trace_url(g_vek_cap_global, &m, nullptr), c.rc);
        EXPECT_EQ(kxd::trace(), c.calls);
        EXPECT_EQ(kxd::log_briefs(), c.log);
        EXPECT_TRUE(std::is_sorted(tags.begin(), tags.end()));
    }
    EXPECT_EQ(kxd::contents(VEK_CAP_DB_CE_GLOBAL),
              (Lines{"s_frame.cap_glb_table|16|/a bool_value=true int32_value=-5 str_value=x y",
                     "s_frame.cap_glb_table|17|/a int32_value=-5"}));

    // At the debug level: the entry, the list as delivered, then the count kept.
    g_vek_cap_dbg_level = 5;
    kxd::clear();
    std::vector<int32_t> tags = {21, 6};
    kx_mom_hash_res res{&entry, tags.data(), 2, 0, nullptr, 0};
    kx_mom_msg m = msg(KX_MOM_CMD_HSET, &res);
    fe_glb_key_trace_url(g_vek_cap_global, &m, nullptr);
    const std::string d = "DEBUG app/vek_cap/vek_cap " + f;
    EXPECT_EQ(kxd::log_briefs(),
              (Lines{d + "node 16 url /a, bool_value 1, int32_value -5, str_value x y",
                     d + "field_len = 2", d + "field_tag[0] = 21 \n", d + "field_tag[1] = 6 \n",
                     d + "set field_len = 1"}));
}

// The four conditions are checked in order and the first that fails says so; when all
// hold the entries, the ready record and the watch are written in that order.
TEST_F(Publication, TheDecisionChecksInOrderThenWritesEntriesReadyRecordWatch)
{
    add_module("B", 0);
    struct Case {
        vek_cap_card_t card;
        uint8_t local, b_ready;
        int32_t arg;
        std::string last;
        Lines calls;
    };
    const Case cases[] = {
        {{-1, 5, 0, 3, 1, 3}, 0, 0, 1, "node invalid -1", {}},
        {{16, 5, 0, 3, 1, 3}, 0, 0, 1, "devid invalid 0", {}},
        {{16, 5, 7, 3, 1, 3}, 0, 0, 1, "local cap not ready", {}},
        {{16, 5, 7, 3, 1, 3}, 1, 0, 1, "not all dep mod ready", {}},
        {{0, 5, 7, 3, 1, 3}, 1, 1, 1, "", {"kx_mom_scan_sync 3 p_libpub.cap_table|*"}}, // 0 is a
                                                                                        // node
        {{16, 5, 7, 3, 1, 3}, 1, 1, 1, "", k_copy + k_ready + k_watch},
        {{16, 5, 7, 3, 1, 3}, 1, 1, 0, "", k_copy},
    };
    g_vek_cap_dbg_level = 2;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.last + " arg " + std::to_string(c.arg));
        g_vek_cap_card = c.card;
        g_vek_local_ready = c.local;
        add_module("B", c.b_ready);
        EXPECT_EQ(vek_cap_glb_cap_db_validate(c.arg), 0);
        if (!c.last.empty()) {
            EXPECT_EQ(kxd::log_briefs().back(), W + "vek_cap_glb_cap_db_validate: " + c.last);
            EXPECT_EQ(kxd::trace(), Lines{});
        } else if (c.card.node == 16) {
            EXPECT_EQ(kxd::trace(), c.calls);
        }
    }
    // Node 0's entry and ready record are there too; the ready record holds the identity.
    EXPECT_EQ(
        kxd::contents(VEK_CAP_DB_CE_GLOBAL),
        (Lines{"s_frame.cap_fe_ready|0|5 ready=true config_dev_type=5 devid=7 slotid=3 sslotid=1 "
               "node_type=3 real_time=true",
               "s_frame.cap_fe_ready|16|5 ready=true config_dev_type=5 devid=7 slotid=3 sslotid=1 "
               "node_type=3 real_time=true",
               "s_frame.cap_glb_table|0|/a bool_value=true int32_value=5 str_value=x",
               "s_frame.cap_glb_table|16|/a bool_value=true int32_value=5 str_value=x"}));
}

// A failed scan or ready-record write is logged; what follows it still happens, and the
// card counts as globally ready.
TEST_F(Publication, FailedWritesAreLoggedAndTheRestGoesOn)
{
    const std::string s = "vek_cap_set_node_state: ", w = "vek_cap_write_glb_fe_table: ";
    struct Case {
        kxd::Fault fault;
        Lines calls;
        Lines errors;
    };
    const Case cases[] = {
        {{"kx_mom_scan_sync", KX_MOM_ENOTCONN},
         Lines{k_copy[0]} + k_ready + k_watch,
         {E + w + "failed,rv -1001",
          E + s + "vek_cap_set_node_state, node 0x00000010, type 5 ready=1"}},
        {{"kx_mom_hmset_sync", KX_MOM_ESERVER, 2},
         k_copy + k_ready + k_watch,
         {E + s + "vek_cap_set_node_state, node 0x00000010, type 5 ready=1",
          E + s + "vek_cap_set_node_state, node 16, type 5 ready=1 failed rv -1006"}},
    };
    g_vek_cap_dbg_level = 1;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.fault.call);
        kxd::reset();
        vek_cap_test::start_daemon_state(1);
        g_vek_global_ready = 0;
        kxd::put_raw(VEK_CAP_DB_HOST, "p_libpub.cap_table|/a",
                     {{"bool_value", "true"}, {"int32_value", "5"}, {"str_value", "x"}});
        kxd::inject(c.fault);
        vek_cap_glb_cap_db_validate(1);
        EXPECT_EQ(kxd::trace(), c.calls);
        EXPECT_EQ(kxd::log_briefs(), c.errors);
        EXPECT_EQ(g_vek_global_ready, 1);
    }
}

// The local ready flag follows the records applied; nothing else moves it. A catch-up read
// that fails frees what it returned (the sanitized run sees a leak otherwise).
TEST_F(Publication, LocalReadyFollowsTheRecordsApplied)
{
    PLibpub__CapState ready = P_LIBPUB__CAP_STATE__INIT, not_ready = ready;
    ready.ready = 1;
    const std::string f = "vek_cap_local_ready_pmsg_f: ", pro = "vek_cap_local_ready_pro: ",
                      v = W + "vek_cap_glb_cap_db_validate: ",
                      none = W + pro + "state NULL, just return",
                      sub = E + f + "CAP STATE subscribe ok, 12:34",
                      got = E + f + "CAP STATE enter, 12:34";
    // The flag applied, then the publication tried with it (and stopped at the node).
    auto ran = [&](int flag) {
        std::string n = std::to_string(flag);
        return Lines{W + pro + "ready " + n,
                     v + "node 0xffffffff devid 7, local_ready " + n + ", global_ready 0",
                     v + "node invalid -1"};
    };
    struct Case {
        int32_t cmd;
        void *data;
        const char *stored;
        kxd::Fault read;
        uint8_t before, after;
        Lines log;
    };
    const Case cases[] = {
        {1, &ready, nullptr, {}, 0, 1, Lines{got} + ran(1)},
        {1, &not_ready, nullptr, {}, 1, 0, Lines{got} + ran(0)},
        {1, nullptr, nullptr, {}, 1, 1, {got, none}},
        {29, nullptr, "\x28\x01", {}, 0, 1, Lines{sub} + ran(1)},
        {29, nullptr, "", {}, 1, 0, Lines{sub} + ran(0)},
        {29, nullptr, nullptr, {}, 1, 1, {sub, none}}, // no record: the flag stays
        {29,
         nullptr,
         "",
         {"kx_mom_get_sync", KX_MOM_EIO, 1, kxd::Fail::WithObject},
         1,
         1,
         {sub, E + f + "errorcode -1002"}},
        {3, &not_ready, nullptr, {}, 1, 1, {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "cmd " << c.cmd << ", then " << (c.log.empty() ? "" : c.log.back()));
        kxd::reset();
        vek_cap_test::start_daemon_state(2);
        g_vek_cap_card.node = -1;
        g_vek_local_ready = c.before;
        if (c.stored)
            kxd::put_raw(VEK_CAP_DB_HOST, "p_libpub.cap_state", {{"value", c.stored}});
        kxd::inject(c.read);
        kx_mom_msg m = msg(c.cmd, c.data);
        EXPECT_EQ(vek_cap_local_ready_pmsg_f(g_vek_cap_global, &m, nullptr), 0);
        EXPECT_EQ(g_vek_local_ready, c.after);
        EXPECT_EQ(kxd::log_briefs(), c.log);
        EXPECT_EQ(kxd::trace("kx_mom_get_sync"),
                  c.cmd == 29 ? Lines{"kx_mom_get_sync 3 p_libpub.cap_state"} : Lines{});
    }
}

// Each identity record sets the members its table owns and no other; a delivery that
// fails sets none but still moves its time stamp.
TEST_F(Publication, IdentityRecordsSetOnlyTheMembersTheyOwn)
{
    kxd::put_raw(VEK_CAP_DB_TUNNER, "p_dev.dp_lib_my_info",
                 {{"card_nodeid", "18"},
                  {"card_type", "9"},
                  {"slotid", "4"},
                  {"sslotid", "2"},
                  {"dm_my_node_type", "3"},
                  {"actual_card_type", "77"},
                  {"cpu_num", "8"}});
    kxd::put_raw(VEK_CAP_DB_TUNNER, "p_dev.dp_lib_my_chss_info",
                 {{"devid", "11"}, {"user_slotid", "66"}});
    g_vek_local_ready = 0; // the publication stops early: what it would write is not looked at here
    using Pmsg = int32_t (*)(kx_global_t *, kx_mom_msg *, void *);
    const std::string card = "vek_cap_dp_my_info_pmsg_f: ",
                      chss = "vek_cap_dp_my_chss_info_pmsg_f: ";
    struct Case {
        Pmsg f;
        int32_t cmd;
        kxd::Fault read;
        int32_t rc;
        vek_cap_card_t after;
        kx_timestamp_t vek_cap_times_t::*stamp;
        Lines errors;
    };
    const vek_cap_card_t before = {-1, 1, 2, 3, 4, 5};
    const kx_timestamp_t t = {12, 34};
    const Case cases[] = {
        {vek_cap_dp_my_info_pmsg_f,
         29,
         {},
         0,
         {18, 9, 2, 4, 2, 3},
         &vek_cap_times_t::dev_info_sub,
         {}},
        {vek_cap_dp_my_chss_info_pmsg_f,
         29,
         {},
         0,
         {-1, 1, 11, 3, 4, 5},
         &vek_cap_times_t::chss_info_sub,
         {E + chss + "CHSS INFO subscribe ok, 12:34"}},
        {vek_cap_dp_my_info_pmsg_f,
         29,
         {"kx_mom_hgetall_sync", 0, 1, kxd::Fail::Null},
         -21,
         before,
         &vek_cap_times_t::dev_info_sub,
         {E + "vek_cap_dp_my_info_pro: result NULL", E + card + "failed,rv -21"}},
        {vek_cap_dp_my_chss_info_pmsg_f,
         29,
         {"kx_mom_hgetall_sync", -1003},
         -21,
         before,
         &vek_cap_times_t::chss_info_sub,
         {E + chss + "CHSS INFO subscribe ok, 12:34",
          E + "vek_cap_dp_my_chss_info_pro: result error_code -1003", E + chss + "failed,rv -21"}},
        {vek_cap_dp_my_info_pmsg_f,
         4,
         {},
         -4,
         before,
         &vek_cap_times_t::dev_info_recv,
         {E + "vek_cap_dp_my_info_pro: card_info NULL pointer, addr error!\n",
          E + card + "failed,rv -4"}},
        {vek_cap_dp_my_chss_info_pmsg_f,
         6,
         {},
         -4,
         before,
         &vek_cap_times_t::chss_info_recv,
         {E + chss + "CHSS INFO enter, 12:34",
          E + "vek_cap_dp_my_chss_info_pro: chss_info NULL pointer, addr error!\n",
          E + chss + "failed,rv -4"}},
        {vek_cap_dp_my_info_pmsg_f, 3, {}, 0, before, nullptr, {}},
        {vek_cap_dp_my_chss_info_pmsg_f, 3, {}, 0, before, nullptr, {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << (c.f == vek_cap_dp_my_info_pmsg_f ? "card" : "chassis")
                                        << " cmd " << c.cmd << " " << c.read.call);
        kxd::clear();
        g_vek_cap_card = before;
        g_vek_cap_time = {};
        g_vek_cap_dbg_level = 1;
        kxd::inject(c.read);
        kx_mom_hash_res no_record{};
        kx_mom_msg m = msg(c.cmd, &no_record);
        EXPECT_EQ(c.f(g_vek_cap_global, &m, nullptr), c.rc);
        EXPECT_EQ(std::tie(g_vek_cap_card.node, g_vek_cap_card.config_dev_type,
                           g_vek_cap_card.devid, g_vek_cap_card.slotid, g_vek_cap_card.sslotid,
                           g_vek_cap_card.node_type),
                  std::tie(c.after.node, c.after.config_dev_type, c.after.devid, c.after.slotid,
                           c.after.sslotid, c.after.node_type));
        vek_cap_times_t stamps{};
        if (c.stamp)
            stamps.*c.stamp = t;
        EXPECT_EQ(std::memcmp(&g_vek_cap_time, &stamps, sizeof stamps), 0);
        EXPECT_EQ(kxd::log_briefs(), c.errors);
    }
    // At level 2 the card's lines appear too, the identity as it stands after the record.
    g_vek_cap_dbg_level = 2;
    g_vek_cap_card = before;
    kxd::clear();
    kx_mom_msg m = msg(29, nullptr);
    vek_cap_dp_my_info_pmsg_f(g_vek_cap_global, &m, nullptr);
    EXPECT_EQ(
        kxd::log_briefs(),
        (Lines{W + card + "subscribe ok", W + card + "enter, 12:34",
               W + "vek_cap_dp_my_info_pro: devid 2, slotid 4, sslotid 2, node 0x00000012, "
                   "config_dev_type 9, node_type 3",
               W + "vek_cap_glb_cap_db_validate: node 0x12 devid 2, local_ready 0, global_ready 0",
               W + "vek_cap_glb_cap_db_validate: local cap not ready"}));
}

// A notice naming this card's node, whatever its card type, has the card written again:
// entries, the notice removed, the ready record. Any other notice is left alone.
TEST_F(Publication, ANoticeForThisNodeRewritesEntriesDeletesItThenTheReadyRecord)
{
    const std::string
        f = "vek_cap_del_fe_ready_pmsg_f: ",
        rewriting = E + f + "rewrite my cap, node 16",
        deleting = E + "vek_cap_del_noti_node_state: node 16, config_dev_type 9",
        ready =
            E + "vek_cap_set_node_state: vek_cap_set_node_state, node 0x00000010, type 5 ready=1";
    const Lines rewrite =
        k_copy + Lines{"kx_mom_del_sync 28 s_frame.cap_del_fe_ready|16|9"} + k_ready;
    struct Case {
        int32_t node, notice;
        uint8_t local;
        kxd::Fault fault;
        Lines calls;
        Lines errors;
    };
    const Case cases[] = {
        {16, 16, 1, {}, rewrite, {rewriting, deleting, ready}},
        {16, 17, 1, {}, {}, {}},
        {-1, -1, 1, {}, {}, {}}, // no identity yet: not this card's notice
        {16, 16, 0, {}, Lines{rewrite[2], rewrite[3]}, {rewriting, deleting, ready}},
        {16,
         16,
         1,
         {"kx_mom_del_sync", KX_MOM_ESERVER},
         rewrite,
         {rewriting, deleting, E + "vek_cap_del_noti_node_state: del node 0x10 noti state failed",
          ready}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "card " << c.node << " notice " << c.notice << " " << c.fault.call);
        kxd::clear();
        g_vek_cap_card.node = c.node;
        g_vek_local_ready = c.local;
        kxd::put_raw(VEK_CAP_DB_CE_GLOBAL,
                     "s_frame.cap_del_fe_ready|" + std::to_string(c.notice) + "|9",
                     {{"ready", "false"}});
        kxd::inject(c.fault);
        g_vek_cap_dbg_level = 1;
        // Delivered by the catch-up scan, as the notices written before the watch are.
        kx_mom_msg confirmed = msg(KX_MOM_CMD_SUBSCRIBED, nullptr);
        EXPECT_EQ(vek_cap_del_fe_ready_pmsg_f(g_vek_cap_global, &confirmed, nullptr), 0);
        kxd::run();
        Lines calls = kxd::trace("kx_mom_");
        ASSERT_EQ(calls.front(), "kx_mom_scan 28 s_frame.cap_del_fe_ready|*");
        EXPECT_EQ(Lines(calls.begin() + 1, calls.end()), c.calls);
        EXPECT_EQ(kxd::log_briefs(), c.errors);
        kxd::reset();
        vek_cap_test::start_daemon_state(1);
        kxd::put_raw(VEK_CAP_DB_HOST, "p_libpub.cap_table|/a",
                     {{"bool_value", "true"}, {"int32_value", "5"}, {"str_value", "x"}});
    }
}

// The deliveries the watch does not act on, and those it refuses.
TEST_F(Publication, TheWatchIgnoresOrRefusesEveryOtherDelivery)
{
    const std::string f = "vek_cap_del_fe_ready_pmsg_f: ";
    SFrame__CapDelFeReady unindexed = S_FRAME__CAP_DEL_FE_READY__INIT;
    kx_mom_hash_res failed{nullptr, nullptr, 0, 0, nullptr, -1002}, empty{},
        no_index{&unindexed, nullptr, 0, 0, nullptr, 0};
    struct Case {
        int32_t cmd, scan_over;
        void *data;
        int32_t rc;
        std::string line;
    };
    const Case cases[] = {
        {0, 1, nullptr, 0, I + f + "cap_del_fe_ready scan over."},
        {6, 0, &no_index, 0, I + f + "pmsg->cmd 6"},
        {3, 0, &no_index, 0, I + f + "pmsg->cmd 3"},
        {4, 0, nullptr, -21, E + f + "result NULL"},
        {4, 0, &failed, -21, E + f + "result error_code -1002"},
        {4, 0, &empty, -4, E + f + "fe_rdy_inf NULL pointer, addr error!\n"},
        {4, 0, &no_index, -4, E + f + "fe_rdy_inf->index NULL pointer, addr error!\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.line);
        kxd::clear();
        kx_mom_msg m{0, nullptr, c.cmd, c.data, nullptr, c.scan_over};
        EXPECT_EQ(vek_cap_del_fe_ready_pmsg_f(g_vek_cap_global, &m, nullptr), c.rc);
        EXPECT_EQ(kxd::log_briefs(), Lines{c.line});
        EXPECT_EQ(kxd::trace(), Lines{});
    }
    kxd::inject({"kx_mom_scan", KX_MOM_ENOTCONN});
    kx_mom_msg confirmed = msg(KX_MOM_CMD_SUBSCRIBED, nullptr);
    EXPECT_EQ(vek_cap_del_fe_ready_pmsg_f(g_vek_cap_global, &confirmed, nullptr), KX_MOM_ENOTCONN);
    EXPECT_EQ(kxd::log_briefs().back(), E + f + "failed,rv -1001");
}

} // namespace
