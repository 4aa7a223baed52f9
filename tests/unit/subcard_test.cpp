// Subcards: publication (entries, then the ready record) and withdrawal (ready record,
// then entries) of one subcard among others, the resynchronisation, and the faults.
#include <algorithm>
#include <regex>

#include <gtest/gtest.h>

#include "vek_cap_fixture.h"

namespace {

using Lines = std::vector<std::string>;
const std::string E = "ERROR app/vek_cap/vek_cap ";

class Subcard : public vek_cap_test::DaemonTest {
protected:
    // Subcards 18 and 19 with their entries (and the local-only pri) on db 3; 19 also
    // published already, beside the card's own entry.
    void SetUp() override
    {
        DaemonTest::SetUp();
        vek_cap_test::start_daemon_state(1);
        for (const char *node : {"18", "19"}) {
            kxd::put_raw(3, std::string("p_libpub.cap_subcard_table|") + node + "|/a",
                         {{"int32_value", node}, {"pri", "4"}});
            kxd::put_raw(28, std::string("s_frame.cap_subcard_glb_table|19|/") + node,
                         {{"int32_value", "19"}});
        }
        kxd::put_raw(3, "p_libpub.cap_subcard_table|18|/b", {{"str_value", "s"}});
        kxd::put_raw(28, "s_frame.cap_subcard_ready|19", {{"ready", "true"}});
        kxd::put_raw(28, "s_frame.cap_glb_table|18|/a", {{"int32_value", "1"}});
        before_ = kxd::contents(28);
    }
    // The state record of subcard 18 (preinstalled or not) as the store delivers it.
    int32_t deliver(int32_t cmd, bool preinstall = false)
    {
        index_.nodeid = 18;
        index_.config_dev_type = 7;
        state_.index = &index_;
        state_.is_preinstall = preinstall;
        kx_mom_hash_res res{&state_, nullptr, 0, 0, nullptr, 0};
        kx_mom_msg m{3,       nullptr,
                     cmd,     cmd == KX_MOM_CMD_DEL ? static_cast<void *>(&state_) : &res,
                     nullptr, 0};
        return vek_cap_sub_card_ready_pmsg_f(g_vek_cap_global, &m, nullptr);
    }
    PLibpub__CapSubcardStateIndex index_ = P_LIBPUB__CAP_SUBCARD_STATE_INDEX__INIT;
    PLibpub__CapSubcardState state_ = P_LIBPUB__CAP_SUBCARD_STATE__INIT;
    Lines before_;
    const Lines published_ = {"s_frame.cap_subcard_glb_table|18|/a int32_value=18",
                              "s_frame.cap_subcard_glb_table|18|/b str_value=s",
                              "s_frame.cap_subcard_ready|18 ready=true"};
};

Lines with(Lines a, const Lines &b)
{
    a.insert(a.end(), b.begin(), b.end());
    std::ranges::sort(a);
    return a;
}

// A delivered state record publishes exactly that subcard's entries, then its ready
// record; a failed copy still ends in the ready record; a preinstalled one writes nothing.
TEST_F(Subcard, PublicationWritesOnlyThisSubcardsEntriesThenItsReadyRecord)
{
    const Lines copy = {"kx_mom_scan_sync 3 p_libpub.cap_subcard_table|*",
                        "kx_mom_hmset_sync 28 s_frame.cap_subcard_glb_table|18|/a [7]",
                        "kx_mom_hmset_sync 28 s_frame.cap_subcard_glb_table|18|/b [8]"},
                ready = {"kx_mom_hmset_sync 28 s_frame.cap_subcard_ready|18 [6]"};
    struct Case {
        int32_t cmd;
        bool preinstall;
        kxd::Fault fault;
        Lines calls;
        Lines errors;
    };
    const Case cases[] = {
        {4, false, {}, with(copy, ready), {}},
        {6, false, {}, with(copy, ready), {}},
        {4,
         true,
         {},
         {},
         {E + "vek_cap_sub_card_ready_pro: node 18 state is preinstall, just return"}},
        {4,
         false,
         {"kx_mom_scan_sync", KX_MOM_EIO},
         with({copy[0]}, ready),
         {E + "vek_cap_write_glb_sub_card_table: failed,rv -1002"}},
        {4,
         false,
         {"kx_mom_hmset_sync", KX_MOM_ESERVER, 3},
         with(copy, ready),
         {E + "vek_cap_set_subcard_state: vek_cap_set_subcard_state, node 18, ready=1 failed rv: "
              "-1006"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "cmd " << c.cmd << (c.preinstall ? " preinstall " : " ") << c.fault.call);
        SetUp();
        kxd::inject(c.fault);
        EXPECT_EQ(deliver(c.cmd, c.preinstall), 0);
        Lines calls = kxd::trace();
        std::ranges::sort(calls); // the scan's order of entries is the store's
        EXPECT_EQ(calls, c.calls);
        if (!c.calls.empty()) {
            EXPECT_EQ(kxd::trace().back(), ready[0]); // the ready record comes last
        }
        EXPECT_EQ(kxd::log_briefs(), c.errors);
        if (c.fault.call.empty()) {
            EXPECT_EQ(kxd::contents(28), c.preinstall ? before_ : with(before_, published_));
        }
    }
}

// A deleted state record withdraws the ready record first, then exactly that subcard's
// entries; a failed deletion of the ready record does not stop the entries going.
TEST_F(Subcard, WithdrawalDeletesTheReadyRecordThenOnlyThisSubcardsEntries)
{
    const Lines del = {"kx_mom_del_sync 28 s_frame.cap_subcard_ready|18",
                       "kx_mom_scan_sync 28 s_frame.cap_subcard_glb_table|*",
                       "kx_mom_del_sync 28 s_frame.cap_subcard_glb_table|18|/a",
                       "kx_mom_del_sync 28 s_frame.cap_subcard_glb_table|18|/b"};
    struct Case {
        kxd::Fault fault;
        Lines errors;
        Lines after;
    };
    const Case cases[] = {
        {{}, {}, before_},
        {{"kx_mom_del_sync", KX_MOM_ENOTCONN},
         {E + "vek_cap_del_subcard_ready: del scard_nodeid 0x12 state failed"},
         with(before_, {published_[2]})},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.fault.call);
        SetUp();
        ASSERT_EQ(deliver(4), 0);
        kxd::clear();
        kxd::inject(c.fault);
        EXPECT_EQ(deliver(KX_MOM_CMD_DEL), 0);
        EXPECT_EQ(kxd::trace(), del);
        EXPECT_EQ(kxd::log_briefs(), c.errors);
        EXPECT_EQ(kxd::contents(28), c.after);
    }
}

// The confirmation of the subscription publishes every subcard already announced.
TEST_F(Subcard, ResynchronisationPublishesEverySubcardFound)
{
    kxd::put_raw(3, "p_libpub.cap_subcard_state|18|7", {{"ready", "false"}});
    kxd::put_raw(3, "p_libpub.cap_subcard_state|19|7", {{"ready", "true"}});
    kxd::put_raw(3, "p_libpub.cap_subcard_state|20|7", {{"is_preinstall", "true"}});
    kx_mom_msg m{3, nullptr, KX_MOM_CMD_SUBSCRIBED, nullptr, nullptr, 0};
    EXPECT_EQ(vek_cap_sub_card_ready_pmsg_f(g_vek_cap_global, &m, nullptr), 0);
    EXPECT_EQ(kxd::contents(28),
              with(before_, {published_[0], published_[1], published_[2],
                             "s_frame.cap_subcard_glb_table|19|/a int32_value=19"}));
    kxd::inject({"kx_mom_scan_sync", KX_MOM_ENOTCONN});
    EXPECT_EQ(vek_cap_sub_card_ready_pmsg_f(g_vek_cap_global, &m, nullptr), KX_MOM_ENOTCONN);
    EXPECT_EQ(kxd::log_briefs().back(), E + "vek_cap_sub_card_ready_pmsg_f: failed,rv -1001");
}

// What the handler, the subcard copy and the deletion callback refuse or ignore.
TEST_F(Subcard, MalformedDeliveriesAreRefusedWithTheirLine)
{
    g_vek_cap_dbg_level = 4;
    PLibpub__CapSubcardState no_index = P_LIBPUB__CAP_SUBCARD_STATE__INIT;
    PLibpub__CapSubcardTableIndex other_idx = P_LIBPUB__CAP_SUBCARD_TABLE_INDEX__INIT;
    other_idx.nodeid = 19, other_idx.url = const_cast<char *>("/a");
    PLibpub__CapSubcardTable other = P_LIBPUB__CAP_SUBCARD_TABLE__INIT;
    other.index = &other_idx;
    SFrame__CapSubcardGlbTable no_glb_index = S_FRAME__CAP_SUBCARD_GLB_TABLE__INIT;
    int32_t tags[] = {7}, node = 18;
    kx_mom_hash_res unindexed{&no_index, nullptr, 0, 0, nullptr, 0}, empty{},
        other_entry{&other, tags, 1, 0, nullptr, 0},
        glb_unindexed{&no_glb_index, nullptr, 0, 0, nullptr, 0};
    using Cb = int32_t (*)(kx_global_t *, kx_mom_msg *, void *);
    const std::string h = "vek_cap_sub_card_ready_pmsg_f: ", c = "subcard_glb_key_trace_url: ",
                      d = "vek_cap_del_subcard_table_cb: ", W = "WARN app/vek_cap/vek_cap ",
                      I = "INFO app/vek_cap/vek_cap ";
    struct Case {
        Cb cb;
        int32_t cmd;
        void *data;
        void *priv;
        int32_t rc;
        Lines log;
    };
    const Case cases[] = {
        {vek_cap_sub_card_ready_pmsg_f, 5, nullptr, nullptr, 0, {I + h + "pmsg->cmd 5"}},
        {vek_cap_sub_card_ready_pmsg_f,
         4,
         nullptr,
         nullptr,
         -21,
         {W + h + "enter, T", E + h + "result NULL"}},
        {vek_cap_sub_card_ready_pmsg_f,
         6,
         &empty,
         nullptr,
         0,
         {W + h + "enter, T", W + h + "state NULL, just return"}},
        {vek_cap_sub_card_ready_pmsg_f,
         4,
         &unindexed,
         nullptr,
         -4,
         {W + h + "enter, T", E + h + "state->index NULL pointer, addr error!\n"}},
        {vek_cap_sub_card_ready_pmsg_f,
         3,
         nullptr,
         nullptr,
         0,
         {W + h + "state NULL, just return"}},
        {subcard_glb_key_trace_url,
         4,
         &other_entry,
         &node,
         0,
         {W + c + "tmp_nodeid = 18", I + c + "nodeid 19 != tmp_nodeid18"}},
        {subcard_glb_key_trace_url,
         4,
         &other_entry,
         nullptr,
         -4,
         {E + c + "privdata NULL pointer, addr error!\n"}},
        {subcard_glb_key_trace_url,
         3,
         &other_entry,
         &node,
         0,
         {W + c + "tmp_nodeid = 18", I + c + "msg->cmd 3"}},
        {vek_cap_del_subcard_table_cb,
         4,
         &empty,
         nullptr,
         -4,
         {E + d + "privdata NULL pointer, addr error!\n"}},
        {vek_cap_del_subcard_table_cb, 29, nullptr, &node, 0, {}},
        {vek_cap_del_subcard_table_cb,
         4,
         nullptr,
         &node,
         -4,
         {E + d + "res NULL pointer, addr error!\n"}},
        {vek_cap_del_subcard_table_cb,
         6,
         &empty,
         &node,
         -4,
         {E + d + "table_info NULL pointer, addr error!\n"}},
        {vek_cap_del_subcard_table_cb,
         4,
         &glb_unindexed,
         &node,
         -4,
         {E + d + "table_info->index NULL pointer, addr error!\n"}},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.log.empty() ? "nothing" : k.log.back());
        kxd::clear();
        g_vek_cap_subcard_recv_time = {};
        kx_mom_msg m{3, nullptr, k.cmd, k.data, nullptr, 0};
        EXPECT_EQ(k.cb(g_vek_cap_global, &m, k.priv), k.rc);
        // The stamps are wall-clock time.
        Lines log;
        for (const auto &line : kxd::log_briefs())
            log.push_back(std::regex_replace(line, std::regex("[0-9]+:[0-9]+$"), "T"));
        EXPECT_EQ(log, k.log);
        EXPECT_EQ(kxd::trace(), Lines{});
    }
}

} // namespace
