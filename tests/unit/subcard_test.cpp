// Subcards: publication (entries, then the ready record) and withdrawal (ready record,
// then entries) of one subcard among others, the resynchronisation, and the faults.
#include <algorithm>
#include <regex>

#include <gtest/gtest.h>

#include "vek_cap_fixture.h"

namespace {

using Lines = std::vector<std::string>;
const std::string E = "ERROR app/vek_cap/vek_cap ";

Lines with(Lines a, const Lines &b)
{
    a.insert(a.end(), b.begin(), b.end());
    std::ranges::sort(a);
    return a;
}

class Subcard : public vek_cap_test::DaemonTest {
protected:
    // Subcards 18 and 19 with their entries (and the local-only pri) on db 3; 19 also
    // published already, beside the card's own entry.
    void SetUp() override
    {
        DaemonTest::SetUp();
        vek_cap_test::start_daemon_state(1);
        for (std::string node : {"18", "19"}) {
            kxd::put_raw(3, "p_libpub.cap_subcard_table|" + node + "|/a",
                         {{"int32_value", node}, {"pri", "4"}});
            kxd::put_raw(28, "s_frame.cap_subcard_glb_table|19|/" + node, {{"int32_value", "19"}});
        }
        kxd::put_raw(3, "p_libpub.cap_subcard_table|18|/b", {{"str_value", "s"}});
        kxd::put_raw(28, "s_frame.cap_subcard_ready|19", {{"ready", "true"}});
        kxd::put_raw(28, "s_frame.cap_glb_table|18|/a", {{"int32_value", "1"}});
        before_ = kxd::contents(28);
    }
    // The state record of subcard 18 as the store delivers it: cmd 3 carries it itself.
    int32_t deliver(int32_t cmd, bool preinstall = false)
    {
        index_.nodeid = 18, index_.config_dev_type = 7;
        state_.index = &index_, state_.is_preinstall = preinstall;
        kx_mom_hash_res res{&state_, nullptr, 0, 0, nullptr, 0};
        void *data = cmd == KX_MOM_CMD_DEL ? static_cast<void *>(&state_) : &res;
        kx_mom_msg m{3, nullptr, cmd, data, nullptr, 0};
        return vek_cap_sub_card_ready_pmsg_f(g_vek_cap_global, &m, nullptr);
    }
    PLibpub__CapSubcardStateIndex index_ = P_LIBPUB__CAP_SUBCARD_STATE_INDEX__INIT;
    PLibpub__CapSubcardState state_ = P_LIBPUB__CAP_SUBCARD_STATE__INIT;
    Lines before_;
    const Lines published_ = {"s_frame.cap_subcard_glb_table|18|/a int32_value=18",
                              "s_frame.cap_subcard_glb_table|18|/b str_value=s",
                              "s_frame.cap_subcard_ready|18 ready=true"};
};

// A delivered state record publishes exactly that subcard's entries, then its ready record
// (also after a failed copy; a preinstalled one writes nothing). A deleted one withdraws
// the ready record first, then exactly that subcard's entries, also when the ready
// record's deletion failed.
TEST_F(Subcard, PublicationAndWithdrawalTouchOnlyThisSubcardInTheirOrder)
{
    const std::string ready = "kx_mom_hmset_sync 28 s_frame.cap_subcard_ready|18 [6]";
    const Lines copy = {"kx_mom_scan_sync 3 p_libpub.cap_subcard_table|*",
                        "kx_mom_hmset_sync 28 s_frame.cap_subcard_glb_table|18|/a [7]",
                        "kx_mom_hmset_sync 28 s_frame.cap_subcard_glb_table|18|/b [8]", ready},
                withdraw = {"kx_mom_del_sync 28 s_frame.cap_subcard_ready|18",
                            "kx_mom_scan_sync 28 s_frame.cap_subcard_glb_table|*",
                            "kx_mom_del_sync 28 s_frame.cap_subcard_glb_table|18|/a",
                            "kx_mom_del_sync 28 s_frame.cap_subcard_glb_table|18|/b"};
    struct Case {
        int32_t cmd;
        bool preinstall;
        kxd::Fault fault;
        Lines calls, errors, after;
    };
    // clang-format off
    const Case cases[] = {
        {6, false, {}, copy, {}, with(before_, published_)},
        {4, true, {}, {},
         {E + "vek_cap_sub_card_ready_pro: node 18 state is preinstall, just return"}, before_},
        {4, false, {"kx_mom_scan_sync", KX_MOM_EIO}, {copy[0], ready},
         {E + "vek_cap_write_glb_sub_card_table: failed,rv -1002"}, with(before_, {published_[2]})},
        {4, false, {"kx_mom_hmset_sync", KX_MOM_ESERVER, 3}, copy,
         {E + "vek_cap_set_subcard_state: vek_cap_set_subcard_state, node 18, ready=1 failed rv: "
              "-1006"},
         with(before_, {published_[0], published_[1]})},
        {3, false, {}, withdraw, {}, before_},
        {3, false, {"kx_mom_del_sync", KX_MOM_ENOTCONN}, withdraw,
         {E + "vek_cap_del_subcard_ready: del scard_nodeid 0x12 state failed"},
         with(before_, {published_[2]})},
    };
    // clang-format on
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "cmd " << c.cmd << (c.preinstall ? " preinstall " : " ") << c.fault.call);
        SetUp();
        if (c.cmd == KX_MOM_CMD_DEL) { // published first
            ASSERT_EQ(deliver(4), 0);
            kxd::clear();
        }
        kxd::inject(c.fault);
        EXPECT_EQ(deliver(c.cmd, c.preinstall), 0);
        Lines calls = kxd::trace();
        if (c.cmd != KX_MOM_CMD_DEL) // the scan's order of entries is the store's
            std::ranges::sort(calls.begin() + !calls.empty(), calls.end() - !calls.empty());
        EXPECT_EQ(calls, c.calls);
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
    EXPECT_EQ(
        kxd::contents(28),
        with(before_, with(published_, {"s_frame.cap_subcard_glb_table|19|/a int32_value=19"})));
    kxd::inject({"kx_mom_scan_sync", KX_MOM_ENOTCONN});
    EXPECT_EQ(vek_cap_sub_card_ready_pmsg_f(g_vek_cap_global, &m, nullptr), KX_MOM_ENOTCONN);
    EXPECT_EQ(kxd::log_briefs().back(), E + "vek_cap_sub_card_ready_pmsg_f: failed,rv -1001");
}

// What the handler, the subcard copy and the deletion callback refuse or ignore.
TEST_F(Subcard, MalformedDeliveriesAreRefusedWithTheirLine)
{
    g_vek_cap_dbg_level = 4;
    PLibpub__CapSubcardTableIndex other_idx = P_LIBPUB__CAP_SUBCARD_TABLE_INDEX__INIT;
    other_idx.nodeid = 19, other_idx.url = const_cast<char *>("/a");
    PLibpub__CapSubcardTable other = P_LIBPUB__CAP_SUBCARD_TABLE__INIT;
    other.index = &other_idx;
    int32_t tags[] = {7}, node = 18;
    kx_mom_hash_res empty{}, other_entry{&other, tags, 1, 0, nullptr, 0};
    using Cb = int32_t (*)(kx_global_t *, kx_mom_msg *, void *);
    const Cb h = vek_cap_sub_card_ready_pmsg_f, c = subcard_glb_key_trace_url,
             d = vek_cap_del_subcard_table_cb;
    const std::string hs = "vek_cap_sub_card_ready_pmsg_f: ", cs = "subcard_glb_key_trace_url: ",
                      ds = "vek_cap_del_subcard_table_cb: ", W = "WARN app/vek_cap/vek_cap ",
                      I = "INFO app/vek_cap/vek_cap ";
    struct Case {
        Cb cb;
        int32_t cmd;
        void *data, *priv;
        int32_t rc;
        Lines log;
    };
    // clang-format off
    const Case cases[] = {
        {h, 5, nullptr, nullptr, 0, {I + hs + "pmsg->cmd 5"}},
        {h, 4, nullptr, nullptr, -21, {W + hs + "enter, T", E + hs + "result NULL"}},
        {h, 6, &empty, nullptr, 0, {W + hs + "enter, T", W + hs + "state NULL, just return"}},
        {h, 3, nullptr, nullptr, 0, {W + hs + "state NULL, just return"}},
        {c, 4, &other_entry, &node, 0,
         {W + cs + "tmp_nodeid = 18", I + cs + "nodeid 19 != tmp_nodeid18"}},
        {c, 4, &other_entry, nullptr, -4, {E + cs + "privdata NULL pointer, addr error!\n"}},
        {d, 4, &empty, nullptr, -4, {E + ds + "privdata NULL pointer, addr error!\n"}},
        {d, 6, &empty, &node, -4, {E + ds + "table_info NULL pointer, addr error!\n"}},
    };
    // clang-format on
    for (const Case &k : cases) {
        SCOPED_TRACE(k.log.back());
        kxd::clear();
        kx_mom_msg m{3, nullptr, k.cmd, k.data, nullptr, 0};
        EXPECT_EQ(k.cb(g_vek_cap_global, &m, k.priv), k.rc);
        Lines log; // the stamps are wall-clock time
        for (const auto &line : kxd::log_briefs())
            log.push_back(std::regex_replace(line, std::regex("[0-9]+:[0-9]+$"), "T"));
        EXPECT_EQ(log, k.log);
        EXPECT_EQ(kxd::trace(), Lines{});
    }
}

} // namespace
